// A worker that does what the clip file says: the file's first word is an order, as if its contents had taken over the
// process. It looks into no clip.
//
//   good       the answer of a usable clip, 7 frames long
//   useless    the answer of a file that is no clip
//   die        the process ends
//   once       the process ends, the first time; the file /tmp/strange/once says that it was there
//   hang       there is never an answer
//   noise      an answer of the right length, full of ones
//   other      the answer to another request
//   short      an answer that is too short
//   long       an answer that is too long
//   gift       a good answer, with a descriptor that nobody asked for
//   twice      a good answer, and the same again
//
// Every process leaves a file named after its id in /tmp/strange.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/pellix/clips/probe_record.h"

namespace {

QuickTimeHeader usableHeader() {
    QuickTimeHeader header;
    header.encodeType = kEncodeApcn;
    header.width = 64;
    header.height = 48;
    header.frames = 7;
    return header;
}

void sendGift(const ProbeAnswer* answers, std::size_t size) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part{const_cast<ProbeAnswer*>(answers), size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int gift = STDERR_FILENO;
    std::memcpy(CMSG_DATA(header), &gift, sizeof gift);
    sendmsg(STDIN_FILENO, &message, 0);
}

} // namespace

int main() {
    close(open(("/tmp/strange/" + std::to_string(getpid())).c_str(), O_CREAT | O_WRONLY, 0666));
    for (;;) {
        ProbeRequest requests[kProbeBatch];
        alignas(cmsghdr) char control[CMSG_SPACE(kProbeBatch * sizeof(int))];
        iovec part{requests, sizeof requests};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = recvmsg(STDIN_FILENO, &message, 0);
        if (got <= 0) return 0;
        const std::size_t count = static_cast<std::size_t>(got) / sizeof *requests;

        ProbeAnswer answers[kProbeBatch + 1];
        std::memset(answers, 0xff, sizeof answers);
        std::size_t size = count * sizeof *answers;
        bool gift = false;
        bool twice = false;
        for (std::size_t i = 0; i < count; ++i) {
            int file = -1;
            std::memcpy(&file, CMSG_DATA(CMSG_FIRSTHDR(&message)) + i * sizeof file, sizeof file);
            char text[16] = {};
            [[maybe_unused]] const ssize_t length = pread(file, text, sizeof text - 1, 0);
            close(file);
            const std::string order = text;
            ProbeAnswer& answer = answers[i];
            answer = makeProbeAnswer(requests[i].serial, usableHeader());
            if (order == "useless") answer = makeProbeAnswer(requests[i].serial, std::nullopt);
            if (order == "die") _exit(3);
            if (order == "once" && open("/tmp/strange/once", O_CREAT | O_EXCL | O_WRONLY, 0666) != -1) _exit(3);
            while (order == "hang") pause();
            if (order == "noise") std::memset(&answer, 0xff, sizeof answer);
            if (order == "other") ++answer.serial;
            if (order == "short") --size;
            if (order == "long") ++size;
            gift = gift || order == "gift";
            twice = twice || order == "twice";
        }
        if (gift) {
            sendGift(answers, size);
            continue;
        }
        for (int times = twice ? 2 : 1; times > 0; --times)
            if (write(STDIN_FILENO, answers, size) == -1) return 1;
    }
}
