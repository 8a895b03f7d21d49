#include "platform/parameter_store/store_host.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/parameter_store/store_paths.h"

namespace {

std::string reason(const std::string& what) { return what + ": " + std::strerror(errno); }

} // namespace

StoreHost::StoreHost() : _journal(kStoreValues), _server(_engine) {}

StoreHost::~StoreHost() {
    _server.stop();
    _engine.stop();
}

StoreHost::Outcome StoreHost::start(std::string& why) {
    if (::mkdir(kStoreDirectory, 0755) == 0) {
        // Whatever the umask is, the others must be able to pass.
        ::chmod(kStoreDirectory, 0755);
    } else if (errno != EEXIST) {
        why = reason(std::string("cannot make ") + kStoreDirectory);
        return Outcome::Failed;
    }
    _lock = local_socket::Descriptor(::open(kStoreLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!_lock.isOpen()) {
        why = reason(std::string("cannot open ") + kStoreLock);
        return Outcome::Failed;
    }
    if (::flock(_lock.number(), LOCK_EX | LOCK_NB) == -1) {
        if (errno == EWOULDBLOCK) return Outcome::Occupied;
        why = reason(std::string("cannot lock ") + kStoreLock);
        return Outcome::Failed;
    }
    _journal.open(_engine);
    _engine.addObserver(&_journal);
    if (!_engine.start()) {
        why = "cannot start a thread";
        return Outcome::Failed;
    }
    if (!_server.start(kStoreSocket, kStoreSocketFresh)) {
        why = reason(std::string("cannot serve ") + kStoreSocket);
        return Outcome::Failed;
    }
    return Outcome::Hosting;
}
