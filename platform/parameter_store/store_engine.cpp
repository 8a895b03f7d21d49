#include "platform/parameter_store/store_engine.h"

#include <algorithm>
#include <utility>

#include "platform/parameter_store/quiet_thread.h"
#include "platform/parameter_store/value_rules.h"

namespace {

timeval systemTime() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

} // namespace

StoreEngine::StoreEngine(Clock clock) : _clock(clock ? std::move(clock) : Clock(systemTime)) {
    for (const ParameterDescriptor& descriptor : parameterDescriptors()) _table[descriptor.id].type = descriptor.type;
}

StoreEngine::~StoreEngine() { stop(); }

eConfigStatus_t StoreEngine::setInteger(eParam_t id, int value) {
    const eConfigStatus_t verdict = checkValue(id, value);
    return verdict == kConfigOk ? store(id, ParameterType::Integer, value, {}) : verdict;
}

eConfigStatus_t StoreEngine::setString(eParam_t id, std::string_view value) {
    const eConfigStatus_t verdict = checkValue(id, value);
    return verdict == kConfigOk ? store(id, ParameterType::String, 0, value) : verdict;
}

bool StoreEngine::fits(StoreTable::const_iterator found, std::size_t textSize) const {
    if (found == _table.end() && _table.size() >= kMostIdentifiers) return false;
    const std::size_t replaced = found == _table.end() ? 0 : found->second.text.size();
    return _textBytes - replaced + textSize <= kMostTextBytes;
}

bool StoreEngine::isPossible(eParam_t id, const StoreEntry& entry) const {
    const eConfigStatus_t verdict = entry.type == ParameterType::Integer
                                        ? checkValue(id, entry.integer)
                                        : checkValue(id, std::string_view(entry.text));
    if (verdict != kConfigOk) return false;
    const ParameterDescriptor* descriptor = findParameter(id);
    if (descriptor != nullptr && descriptor->type != entry.type) return false;
    return fits(_table.find(id), entry.text.size());
}

StoreEntry& StoreEngine::put(eParam_t id, ParameterType type, int integer, std::string_view text) {
    StoreEntry& entry = _table[id];
    _textBytes = _textBytes - entry.text.size() + text.size();
    entry.type = type;
    entry.integer = integer;
    entry.text = text;
    return entry;
}

void StoreEngine::push(eParam_t id, Kind kind, int integer, std::string_view text, timeval when) {
    if (_listeners.empty()) return;
    _pending.push_back({_sequence, id, kind, integer, std::string(text), when});
    _pendingBytes += cost(_pending.back());
    _work.notify_one();
}

eConfigStatus_t StoreEngine::store(eParam_t id, ParameterType type, int integer, std::string_view text) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _table.find(id);
    if (found != _table.end() && found->second.type != type) return kConfigWrongType;
    if (!fits(found, text.size()) || _pendingBytes > kMostPendingBytes) return kConfigRefused;
    StoreEntry& entry = put(id, type, integer, text);
    entry.sequence = ++_sequence;
    const timeval when = _clock();
    // The event is queued under the lock that the value is stored under: the order of events is the order of sets.
    push(id, type == ParameterType::Integer ? Kind::Integer : Kind::Text, integer, text, when);
    for (StoreObserver* observer : _observers) observer->changed(id, entry, when, _table);
    return kConfigOk;
}

eConfigStatus_t StoreEngine::getInteger(eParam_t id, int& value) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _table.find(id);
    if (found == _table.end()) return kConfigUnknown;
    if (found->second.type != ParameterType::Integer) return kConfigWrongType;
    value = found->second.integer;
    return kConfigOk;
}

eConfigStatus_t StoreEngine::getString(eParam_t id, std::string& value) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _table.find(id);
    if (found == _table.end()) return kConfigUnknown;
    if (found->second.type != ParameterType::String) return kConfigWrongType;
    value = found->second.text;
    return kConfigOk;
}

bool StoreEngine::find(eParam_t id, StoreEntry& entry) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _table.find(id);
    if (found == _table.end()) return false;
    entry = found->second;
    return true;
}

bool StoreEngine::restore(eParam_t id, const StoreEntry& entry) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!isPossible(id, entry)) return false;
    put(id, entry.type, entry.integer, entry.text);
    return true;
}

bool StoreEngine::apply(eParam_t id, const StoreEntry& entry, timeval when) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!isPossible(id, entry)) return true;
    put(id, entry.type, entry.integer, entry.text).sequence = ++_sequence;
    if (_pendingBytes > kMostPendingBytes) return false;
    push(id, entry.type == ParameterType::Integer ? Kind::Integer : Kind::Text, entry.integer, entry.text, when);
    return true;
}

void StoreEngine::raiseData(eParam_t id, std::string data) {
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_sequence;
    push(id, Kind::Data, 0, data, _clock());
}

void StoreEngine::addListener(const void* owner, ConfigEvents* listener) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _listeners.push_back({++_lastSerial, owner, listener, _sequence, false});
}

void StoreEngine::removeListeners(const void* owner) {
    std::unique_lock<std::mutex> lock(_mutex);
    std::uint64_t running = 0;
    for (auto each = _listeners.begin(); each != _listeners.end();) {
        if (each->owner != owner) {
            ++each;
        } else if (each->serial == _calling) {
            // The delivering thread stands on this one and takes it off the list itself.
            each->removed = true;
            running = each->serial;
            ++each;
        } else {
            each = _listeners.erase(each);
        }
    }
    if (running == 0 || _deliverer == std::this_thread::get_id()) return;
    _called.wait(lock, [&] { return _calling != running; });
}

void StoreEngine::addObserver(StoreObserver* observer) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _observers.push_back(observer);
}

void StoreEngine::removeObserver(StoreObserver* observer) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _observers.erase(std::remove(_observers.begin(), _observers.end(), observer), _observers.end());
}

void StoreEngine::inspect(const std::function<void(const StoreTable&)>& look) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    look(_table);
}

void StoreEngine::call(ConfigEvents& listener, const Pending& event) {
    switch (event.kind) {
    case Kind::Integer:
        listener.ParamChanged(event.id, static_cast<unsigned int>(event.integer), event.when);
        break;
    case Kind::Text:
        listener.ParamChanged(event.id, event.text, event.when);
        break;
    case Kind::Data: {
        std::string data = event.text;
        listener.DataChanged(event.id, data, event.when);
        break;
    }
    }
}

void StoreEngine::deliverFirst(std::unique_lock<std::mutex>& lock) {
    const Pending event = std::move(_pending.front());
    _pending.pop_front();
    _pendingBytes -= cost(event);
    for (auto each = _listeners.begin(); each != _listeners.end();) {
        if (event.sequence <= each->after) {
            ++each;
            continue;
        }
        _calling = each->serial;
        ConfigEvents* const listener = each->listener;
        lock.unlock();
        call(*listener, event);
        lock.lock();
        _calling = 0;
        each = each->removed ? _listeners.erase(each) : std::next(each);
        _called.notify_all();
    }
}

std::size_t StoreEngine::pump(std::size_t most) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_delivering) return 0;
    _delivering = true;
    _deliverer = std::this_thread::get_id();
    std::size_t delivered = 0;
    for (; delivered < most && !_pending.empty(); ++delivered) deliverFirst(lock);
    _deliverer = {};
    _delivering = false;
    return delivered;
}

bool StoreEngine::start() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_delivering) return false;
    _stopping = false;
    _delivering = startQuietThread(_thread, "store-events", [this] { run(); });
    return _delivering;
}

void StoreEngine::stop() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!_thread.joinable()) return;
        _stopping = true;
        _stopAfter = _sequence;
    }
    _work.notify_one();
    _thread.join();
    const std::lock_guard<std::mutex> lock(_mutex);
    _thread = {};
    _deliverer = {};
    _delivering = false;
}

void StoreEngine::run() {
    std::unique_lock<std::mutex> lock(_mutex);
    _deliverer = std::this_thread::get_id();
    for (;;) {
        _work.wait(lock, [this] { return _stopping || !_pending.empty(); });
        if (_pending.empty() || (_stopping && _pending.front().sequence > _stopAfter)) return;
        deliverFirst(lock);
    }
}

bool StoreEngine::onDeliveryThread() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _deliverer == std::this_thread::get_id();
}
