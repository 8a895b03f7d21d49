#ifndef MEDIAD_PLATFORM_STORE_CLIENT_H
#define MEDIAD_PLATFORM_STORE_CLIENT_H

// A process's connection to the store that another process hosts.
//
// A thread of its own receives. What the host tells goes into an engine of this process, the mirror: its values are
// what gets fall back on while the host is away, its thread calls the listeners. Requests wait for the host's answer,
// on the calling thread, which may be a listener's callback.
//
// When the host is lost the connection is tried again every second. A set that the client has missed meanwhile raises
// its event then (of several sets of one parameter, the last), as soon as a listener's answer reaches the host; a value
// that merely fell back to its default, as a command does in a new host, raises none.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_engine.h"
#include "platform/parameter_store/wire.h"

class StoreClient {
public:
    // How long a host may take for an answer before it counts as lost, and how long after a loss it is tried again.
    static constexpr std::chrono::seconds kAnswerDeadline{5};
    static constexpr std::chrono::milliseconds kRetry{1000};

    // `speaks`: tell of a lost and a found host in a line on standard error.
    explicit StoreClient(bool speaks);
    ~StoreClient(); // not on the mirror's thread
    StoreClient(const StoreClient&) = delete;
    StoreClient& operator=(const StoreClient&) = delete;

    // Connects, and has every value when it returns true. False when nobody serves, or not before `deadline`. Once.
    bool start(local_socket::Deadline deadline);

    StoreEngine& mirror() { return _mirror; }

    eConfigStatus_t setInteger(eParam_t id, int value);
    eConfigStatus_t setString(eParam_t id, std::string_view value);
    eConfigStatus_t getInteger(eParam_t id, int& value);
    eConfigStatus_t getString(eParam_t id, std::string& value);

    // Adds a listener to the mirror, at the point in the stream of events where the host has heard of it: no earlier
    // set reaches it, and every later one does. While the host is away, what is missed counts as later.
    void addListener(const void* owner, ConfigEvents* listener);
    void removeListeners(const void* owner) { _mirror.removeListeners(owner); }

private:
    using Buffer = std::vector<std::uint8_t>;

    // Shared, so that a thread that sends never meets a descriptor that has become somebody else's.
    using Link = std::shared_ptr<local_socket::Descriptor>;

    struct Request {
        bool answered = false;
        bool lost = false;
        int status = kConfigOk;
        wire::Value value;
        std::function<void()> onAnswer; // on the receiving thread, under _mutex, before anything later is received
    };

    // False when the host cannot be reached or does not answer. `make` builds the packet for a request number.
    bool ask(Request& request, const std::function<wire::Packet(std::uint32_t)>& make);
    eConfigStatus_t get(eParam_t id, ParameterType type, StoreEntry& entry);

    // A connection that has told its values; the missed ones are in _missed. Requests do not use it yet.
    Link attach(wire::Mode mode, local_socket::Deadline deadline);
    // Attaches, lets requests through and raises the events of what was missed. False when there is no host.
    bool comeBack();
    bool receiveValues(int socket, local_socket::Deadline deadline);
    bool waitFor(int socket, int milliseconds);
    bool handle(const std::uint8_t* data, std::size_t size);
    void takeValue(wire::Value value);
    void takeEvent(const wire::Value& value);
    void finish(std::uint32_t number, int status, const wire::Value* value);
    void lose();
    void run();

    const bool _speaks;
    local_socket::Descriptor _wakeUp;
    std::thread _thread;

    // The starting thread's, then the receiving thread's.
    Buffer _buffer;
    std::uint64_t _life = 0;
    std::uint64_t _lastSequence = 0; // of this life of the host, as far as it has been received
    bool _firstValues = true;
    std::vector<wire::Value> _missed; // sets that the connection just made has told of, in their order
    std::size_t _missedTextBytes = 0;
    bool _overflowSaid = false;

    // Guards everything below. The mirror's lock may be taken under it, never the other way round.
    mutable std::mutex _mutex;
    std::condition_variable _answered;
    Link _link; // null while there is no host
    std::map<std::uint32_t, Request*> _requests;
    std::uint32_t _lastNumber = 0;
    bool _listening = false;
    bool _stopping = false;

    // Last, so that its listeners are quiet before anything above goes.
    StoreEngine _mirror;
};

#endif
