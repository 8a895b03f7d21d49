#ifndef MEDIAD_PLATFORM_STORE_SERVER_H
#define MEDIAD_PLATFORM_STORE_SERVER_H

// Serves an engine's values on the store's socket (wire.h says how). One thread of its own does all of it; the
// threads that set values only put packets into queues. No client can hold it up, or make it take more than the memory
// that is bounded here:
//  - a listener that leaves too much unread is cut off, and so is the one that leaves most when all together do;
//  - a watcher's queue holds one event for each identifier when it is full;
//  - of a client that does not read its answers no more requests are read;
//  - connections are counted, those of each user who may only read as well, and who says nothing gives its place up.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_engine.h"
#include "platform/parameter_store/wire.h"

class StoreServer : private StoreObserver {
public:
    static constexpr std::size_t kMostConnections = 192;
    static constexpr std::size_t kMostReaders = 128;       // connections of clients that may not write
    static constexpr std::size_t kMostPerReader = 32;      // of one user of those
    static constexpr std::size_t kMostAnswers = 32;        // unread, before requests wait
    static constexpr std::size_t kWatcherEvents = 1024;    // unread, before they are thinned out
    static constexpr std::size_t kWatcherBytes = 1024 * 1024;
    static constexpr std::size_t kListenerBytes = 16 * 1024 * 1024; // unread, before the listener is cut off
    static constexpr std::size_t kAllBytes = 64 * 1024 * 1024;      // unread by all together
    static constexpr std::chrono::seconds kHelloDeadline{5};
    static constexpr std::chrono::milliseconds kFarewell{200}; // for what is unread when the server stops

    explicit StoreServer(StoreEngine& engine);
    ~StoreServer() override;

    // Serves on `path`; false with errno set when that cannot be.
    bool start(const char* path, const char* fresh);

    // Closes every connection, after what clients read within kFarewell, and takes the socket's file away. Not on
    // the server's own thread.
    void stop();

private:
    enum class Kind { Answer, Event, Resync };

    struct Outgoing {
        Kind kind;
        eParam_t id;                                // of an Event
        std::shared_ptr<const wire::Packet> packet; // null, a watcher's only: of what the value is when it is sent
        timeval when;
        std::uint64_t sequence; // of the set that an Event tells of
    };

    struct Connection {
        local_socket::Descriptor socket;
        uid_t user = 0;
        bool mayWrite = false;
        bool greeted = false;
        bool gone = false;
        std::chrono::steady_clock::time_point since;
        // Values that were sent later than their event was queued: the set they come from. What is queued of older sets
        // would only take the watcher back.
        std::unordered_map<eParam_t, std::uint64_t> ahead;

        // Guarded by _mutex, because setting threads fill the queue.
        wire::Mode mode = wire::Mode::Nothing;
        std::unordered_set<eParam_t> wanted; // empty: everything
        std::deque<Outgoing> queue;
        std::size_t bytes = 0;   // of the queue
        std::size_t answers = 0; // in the queue
        std::size_t thinAtEvents = kWatcherEvents;
        std::size_t thinAtBytes = kWatcherBytes;
        bool cutOff = false;
    };

    void changed(eParam_t id, const StoreEntry& entry, timeval when, const StoreTable& table) override;

    void run();
    void acceptAll();
    bool admit(Connection& newcomer);
    bool mayWrite(int socket, uid_t user, gid_t group) const;
    void readFrom(Connection& connection);
    bool handle(Connection& connection, const std::uint8_t* data, std::size_t size);
    bool subscribe(Connection& connection, std::uint32_t request, wire::Subscription& subscription);
    void answer(Connection& connection, wire::Packet packet);
    void sendTo(Connection& connection);
    local_socket::Io sendOne(Connection& connection, const Outgoing& outgoing);
    void bidFarewell();
    void wake();

    // Under _mutex.
    void enqueue(Connection& connection, Outgoing outgoing);
    void forget(Connection& connection, const Outgoing& outgoing);
    void thinOut(Connection& connection);
    void makeListener(Connection& connection, const StoreTable& table);
    void cutOff(Connection& connection);
    void enforceBounds(Connection& connection);
    void enforceBoundOfAll();

    static std::size_t cost(const Outgoing& outgoing) {
        return sizeof outgoing + (outgoing.packet ? outgoing.packet->size() : 0);
    }

    StoreEngine& _engine;
    const std::uint64_t _life;
    const std::shared_ptr<const wire::Packet> _resync;
    bool _groupExists = false;
    gid_t _group = 0;
    const char* _path = nullptr;
    local_socket::Descriptor _listening;
    local_socket::Descriptor _wakeUp;
    std::thread _thread;
    std::vector<std::uint8_t> _buffer;
    std::chrono::steady_clock::time_point _acceptAgain{}; // after the process had no descriptor left

    // The list itself is changed by the server's thread only, under _mutex; it may therefore walk it without.
    std::list<Connection> _connections;

    // Taken with the engine's lock held (changed), so never held when the engine is called.
    std::mutex _mutex;
    std::size_t _allBytes = 0;
    bool _awake = true; // the server's thread looks at the queues before it waits
    bool _stopping = false;
};

#endif
