#ifndef MEDIAD_PLATFORM_STORE_ENGINE_H
#define MEDIAD_PLATFORM_STORE_ENGINE_H

// The store itself, without any process around it: typed values by identifier, and the change events they raise.
//
// Every accepted set raises exactly one event, also when the value stays the same. Events reach every listener in the
// order of the sets, one at a time, on one thread: the engine's own after start(), or the caller's of pump() when there
// is no start() (a program that must run on a single thread, a test). Gets and sets may come from any thread, out of a
// callback too. No lock is held while a listener is called.
//
// What a client could use to exhaust the host is bounded here: the number of identifiers, the bytes in strings, the
// events that wait for a listener that does not return. A set beyond a bound is refused and raises nothing.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "parameters.h"

struct StoreEntry {
    ParameterType type = ParameterType::Integer;
    int integer = 0;
    std::string text;
    std::uint64_t sequence = 0; // of the set that wrote it; 0 for a default or a value from an earlier host
};

using StoreTable = std::unordered_map<eParam_t, StoreEntry>;

// Told of every accepted set at once, in order, on the setting thread and WITH THE ENGINE'S LOCK HELD: returns soon,
// never waits, never calls the engine. For what must not lag behind the values (the journal, the server's queues);
// everybody else is a listener.
class StoreObserver {
public:
    virtual ~StoreObserver() = default;
    virtual void changed(eParam_t id, const StoreEntry& entry, timeval when, const StoreTable& table) = 0;
};

class StoreEngine {
public:
    using Clock = std::function<timeval()>;

    static constexpr std::size_t kMostIdentifiers = 4096;
    static constexpr std::size_t kMostTextBytes = 4 * 1024 * 1024;     // all strings together
    static constexpr std::size_t kMostPendingBytes = 16 * 1024 * 1024; // events that no listener has had yet

    // Every descriptor's identifier is there from the start, with 0 or "". `clock` gives the events' time (the
    // system's clock when empty); it is called with the engine's lock held.
    explicit StoreEngine(Clock clock = {});
    ~StoreEngine();
    StoreEngine(const StoreEngine&) = delete;
    StoreEngine& operator=(const StoreEngine&) = delete;

    // kConfigOk, kConfigRefused or kConfigWrongType.
    eConfigStatus_t setInteger(eParam_t id, int value);
    eConfigStatus_t setString(eParam_t id, std::string_view value);

    // kConfigOk, kConfigUnknown or kConfigWrongType; `value` is written in the first case only. The integer form
    // allocates nothing.
    eConfigStatus_t getInteger(eParam_t id, int& value) const;
    eConfigStatus_t getString(eParam_t id, std::string& value) const;

    // False when nobody has written the identifier and no descriptor names it.
    bool find(eParam_t id, StoreEntry& entry) const;

    // Puts a value in place without an event: what an earlier host left, what another process's store holds. The
    // entry's sequence is not taken over. False when a bound or the value rules forbid it.
    bool restore(eParam_t id, const StoreEntry& entry);

    // Takes over a set that another process's store has accepted: the value, of whatever type where no descriptor names
    // the identifier, and its event. What no store accepts is passed over without a word: a listener may rely on the
    // value rules whoever hosts the store. Too many waiting events cost the event, not the value; false tells of it.
    bool apply(eParam_t id, const StoreEntry& entry, timeval when);

    // Raises a binary-data event. The store has no binary parameters, so nothing but a test does this.
    void raiseData(eParam_t id, std::string data);

    // `listener` hears of every set from now on. `owner` is any address that names the listener's channel.
    void addListener(const void* owner, ConfigEvents* listener);

    // None of the owner's listeners is called any more when this returns: it waits for a running callback, except on
    // the delivering thread (where the callback itself is the caller).
    void removeListeners(const void* owner);

    // Observers are called in the order of their addition.
    void addObserver(StoreObserver* observer);
    void removeObserver(StoreObserver* observer);

    // `look` sees the whole table between two sets. The rules of an observer hold for it.
    void inspect(const std::function<void(const StoreTable&)>& look) const;

    // Starts and ends the engine's own thread. start is false when there can be no thread. stop delivers what was
    // set before it was called; it must not be called by a listener.
    bool start();
    void stop();

    // Delivers up to `most` waiting events on the calling thread and returns how many there were. 0 while the engine
    // has its own thread, and inside a callback.
    std::size_t pump(std::size_t most = SIZE_MAX);

    // Whether the caller is the thread that calls the listeners.
    bool onDeliveryThread() const;

private:
    enum class Kind { Integer, Text, Data };

    struct Pending {
        std::uint64_t sequence;
        eParam_t id;
        Kind kind;
        int integer;
        std::string text;
        timeval when;
    };

    struct Listener {
        std::uint64_t serial;
        const void* owner;
        ConfigEvents* listener;
        std::uint64_t after; // the last set before it was added
        bool removed;
    };

    eConfigStatus_t store(eParam_t id, ParameterType type, int integer, std::string_view text);
    // Whether the rules, the descriptors and the bounds allow the value. Under _mutex.
    bool isPossible(eParam_t id, const StoreEntry& entry) const;
    bool fits(StoreTable::const_iterator found, std::size_t textSize) const;
    StoreEntry& put(eParam_t id, ParameterType type, int integer, std::string_view text);
    void push(eParam_t id, Kind kind, int integer, std::string_view text, timeval when);
    void deliverFirst(std::unique_lock<std::mutex>& lock);
    void run();
    static std::size_t cost(const Pending& event) { return sizeof event + event.text.size(); }
    static void call(ConfigEvents& listener, const Pending& event);

    const Clock _clock;

    // Guards everything below.
    mutable std::mutex _mutex;
    std::condition_variable _work;   // something to deliver, or to stop for
    std::condition_variable _called; // a callback has returned
    StoreTable _table;
    std::size_t _textBytes = 0;
    std::uint64_t _sequence = 0;
    std::deque<Pending> _pending;
    std::size_t _pendingBytes = 0;
    std::list<Listener> _listeners;
    std::uint64_t _lastSerial = 0;
    std::uint64_t _calling = 0; // serial of the listener whose callback runs, 0 for none
    std::vector<StoreObserver*> _observers;
    std::thread _thread;
    std::thread::id _deliverer;
    bool _delivering = false;
    bool _stopping = false;
    std::uint64_t _stopAfter = 0;
};

#endif
