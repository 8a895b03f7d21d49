#ifndef MEDIAD_PLATFORM_STORE_HOST_H
#define MEDIAD_PLATFORM_STORE_HOST_H

// The store hosted in this process: the engine with its thread, the values of the last host, the socket for everybody
// else. At most one process of the machine has it, which a lock on a file sees to.

#include <string>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_engine.h"
#include "platform/parameter_store/store_journal.h"
#include "platform/parameter_store/store_server.h"

class StoreHost {
public:
    enum class Outcome {
        Hosting,
        Occupied, // another process hosts the store, or is about to
        Failed,   // `why` says in a few words what could not be done
    };

    StoreHost();
    ~StoreHost(); // stops serving; not on one of its own threads
    StoreHost(const StoreHost&) = delete;
    StoreHost& operator=(const StoreHost&) = delete;

    // Once.
    Outcome start(std::string& why);

    StoreEngine& engine() { return _engine; }

private:
    // In this order: the server goes first, the lock last.
    local_socket::Descriptor _lock;
    StoreJournal _journal;
    StoreEngine _engine;
    StoreServer _server;
};

#endif
