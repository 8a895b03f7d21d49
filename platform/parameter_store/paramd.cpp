// Hosts the parameter store where it is to outlive the media daemon. Ends with status 0 on SIGTERM, SIGINT or SIGHUP,
// and with 1 when it cannot host the store.

#include <csignal>
#include <string>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_host.h"

int main() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int each : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ends, each);
    // Before there are threads: from here on the signals wait for sigwait below.
    sigprocmask(SIG_BLOCK, &ends, nullptr);

    StoreHost host;
    std::string why;
    switch (host.start(why)) {
    case StoreHost::Outcome::Hosting:
        break;
    case StoreHost::Outcome::Occupied:
        sayLine("paramd: another process hosts the store");
        return 1;
    case StoreHost::Outcome::Failed:
        sayLine("paramd: " + why);
        return 1;
    }
    int received = 0;
    while (sigwait(&ends, &received) != 0) {
    }
    return 0;
}
