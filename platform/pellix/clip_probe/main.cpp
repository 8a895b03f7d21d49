// clip-probe: looks into clip files for the daemon, with no rights but to read what it is handed. Its standard input is
// the socket that requests come from (probe_record.h); it ends when the daemon closes its end, or ends.

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "platform/pellix/clip_probe/confinement.h"
#include "platform/pellix/clip_probe/quicktime_reader.h"
#include "platform/pellix/clips/probe_record.h"

namespace {

struct Batch {
    ProbeRequest requests[kProbeBatch];
    int descriptors[kProbeBatch];
    std::size_t count;
};

// False when there is nothing more to come.
bool receive(Batch& batch) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof batch.descriptors)];
    iovec part{batch.requests, sizeof batch.requests};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    // The call itself: the C library's way to it differs from machine to machine, and the filter knows only this one.
    const long size = syscall(SYS_recvmsg, STDIN_FILENO, &message, MSG_CMSG_CLOEXEC);
    if (size <= 0) return false;
    batch.count = static_cast<std::size_t>(size) / sizeof *batch.requests;
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != CMSG_LEN(batch.count * sizeof *batch.descriptors))
        return false;
    std::memcpy(batch.descriptors, CMSG_DATA(header), batch.count * sizeof *batch.descriptors);
    return true;
}

} // namespace

int main() {
    if (!confineProcess()) return 1;
    Batch batch;
    ProbeAnswer answers[kProbeBatch];
    while (receive(batch)) {
        for (std::size_t i = 0; i < batch.count; ++i) {
            const ProbeRequest& request = batch.requests[i];
            answers[i] = makeProbeAnswer(request.serial, readQuickTimeHeader(batch.descriptors[i], request.size));
            // Before the answer: whoever has it may unmount.
            close(batch.descriptors[i]);
        }
        if (write(STDIN_FILENO, answers, batch.count * sizeof *answers) == -1) return 1;
    }
    return 0;
}
