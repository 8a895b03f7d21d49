#include "platform/parameter_store/store_client.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/parameter_store/quiet_thread.h"
#include "platform/parameter_store/store_paths.h"
#include "platform/parameter_store/value_rules.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using local_socket::Io;

// Requests of the connection's own; the others count from 1 up and leave these alone.
constexpr std::uint32_t kHelloRequest = 0xfffffffe;
constexpr std::uint32_t kValuesRequest = 0xffffffff;

} // namespace

StoreClient::StoreClient(bool speaks) : _speaks(speaks), _buffer(local_socket::kBufferSize) {}

StoreClient::~StoreClient() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    if (_thread.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(_wakeUp.number(), &one, sizeof one);
        _thread.join();
    }
    _mirror.stop();
}

bool StoreClient::start(local_socket::Deadline deadline) {
    _wakeUp = local_socket::Descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!_wakeUp.isOpen()) return false;
    Link link = attach(wire::Mode::Watch, deadline);
    if (!link || !_mirror.start()) return false;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _link = std::move(link);
    }
    return startQuietThread(_thread, "store-client", [this] { run(); });
}

StoreClient::Link StoreClient::attach(wire::Mode mode, local_socket::Deadline deadline) {
    auto link = std::make_shared<local_socket::Descriptor>(local_socket::connectBy(kStoreSocket, deadline));
    if (!link->isOpen()) return nullptr;
    wire::Subscription everything;
    everything.mode = mode;
    everything.values = true;
    // Nothing has been sent yet, so there is room for both.
    if (local_socket::send(link->number(), wire::hello(kHelloRequest)) != Io::Done ||
        local_socket::send(link->number(), wire::subscribe(kValuesRequest, everything)) != Io::Done ||
        !receiveValues(link->number(), deadline))
        return nullptr;
    return link;
}

bool StoreClient::comeBack() {
    for (;;) {
        wire::Mode mode = wire::Mode::Watch;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_listening) mode = wire::Mode::Listen;
        }
        Link link = attach(mode, SteadyClock::now() + kAnswerDeadline);
        if (!link) return false;
        const std::lock_guard<std::mutex> lock(_mutex);
        // A listener that came meanwhile could not tell the host, and relies on the connection that begins now. What
        // this one has told as missed the next one tells again.
        if (_listening && mode != wire::Mode::Listen) continue;
        _link = std::move(link);
        break;
    }
    // Only now: a listener answers from within its callback, and its answer must find the way to the host.
    for (wire::Value& event : _missed) {
        gettimeofday(&event.when, nullptr);
        takeEvent(event);
    }
    _missed.clear();
    return true;
}

// Waits until there is something to receive (a socket of -1 never has), at most so long. False when the client is to
// stop.
bool StoreClient::waitFor(int socket, int milliseconds) {
    pollfd descriptors[2] = {{_wakeUp.number(), POLLIN, 0}, {socket, POLLIN, 0}};
    ::poll(descriptors, 2, milliseconds);
    const std::lock_guard<std::mutex> lock(_mutex);
    return !_stopping;
}

// Receives up to the answer that ends the values.
bool StoreClient::receiveValues(int socket, local_socket::Deadline deadline) {
    bool welcomed = false;
    for (;;) {
        std::size_t size = 0;
        const Io result = local_socket::receive(socket, _buffer.data(), size);
        if (result == Io::Closed) return false;
        if (result != Io::Done) {
            if (SteadyClock::now() >= deadline || !waitFor(socket, local_socket::untilDeadline(deadline))) return false;
            continue;
        }
        wire::Header header{};
        if (!wire::readHeader(_buffer.data(), size, header)) return false;
        if (header.type == wire::Type::Welcome) {
            std::uint64_t life = 0;
            bool mayWrite = false;
            if (welcomed || !wire::readWelcome(_buffer.data(), size, life, mayWrite)) return false;
            welcomed = true;
            if (life != _life) _lastSequence = 0;
            _life = life;
            _missed.clear();
            _missedTextBytes = 0;
        } else if (header.request == kValuesRequest && header.type == wire::Type::Status) {
            _firstValues = false;
            return welcomed;
        } else if (!handle(_buffer.data(), size)) {
            return false;
        }
    }
}

void StoreClient::takeValue(wire::Value value) {
    // Nobody has listened before the first values, so none of them has been missed. Of later ones _lastSequence hears
    // with their events: a connection that ends among its values has told of nothing.
    if (_firstValues || value.entry.sequence <= _lastSequence) {
        _lastSequence = std::max(_lastSequence, value.entry.sequence);
        _mirror.restore(value.id, value.entry);
        return;
    }
    // No store has more than this.
    _missedTextBytes += value.entry.text.size();
    if (_missed.size() < StoreEngine::kMostIdentifiers && _missedTextBytes <= StoreEngine::kMostTextBytes)
        _missed.push_back(std::move(value));
}

void StoreClient::takeEvent(const wire::Value& value) {
    _lastSequence = std::max(_lastSequence, value.entry.sequence);
    if (_mirror.apply(value.id, value.entry, value.when) || _overflowSaid) return;
    _overflowSaid = true;
    sayLine("paramstore: a listener does not return: events are lost to it");
}

bool StoreClient::handle(const std::uint8_t* data, std::size_t size) {
    wire::Header header{};
    if (!wire::readHeader(data, size, header)) return false;
    switch (header.type) {
    case wire::Type::Status: {
        int status = 0;
        if (!wire::readStatus(data, size, status)) return false;
        finish(header.request, status, nullptr);
        return true;
    }
    case wire::Type::Value: {
        wire::Value value;
        if (!wire::readValue(data, size, value)) return false;
        if (header.request == kValuesRequest)
            takeValue(std::move(value));
        else
            finish(header.request, kConfigOk, &value);
        return true;
    }
    case wire::Type::Event: {
        wire::Value value;
        if (!wire::readEvent(data, size, value)) return false;
        takeEvent(value);
        return true;
    }
    case wire::Type::Resync:
        // Without listeners only the values matter, and the last of each has come before this.
        return true;
    default:
        return false;
    }
}

void StoreClient::finish(std::uint32_t number, int status, const wire::Value* value) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _requests.find(number);
    if (found == _requests.end()) return; // asked too long ago
    Request& request = *found->second;
    request.status = status;
    if (value != nullptr) request.value = *value;
    if (request.onAnswer) request.onAnswer();
    request.answered = true;
    _requests.erase(found);
    _answered.notify_all();
}

void StoreClient::lose() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _link = nullptr;
        for (const auto& [number, request] : _requests) request->lost = true;
        _requests.clear();
    }
    _answered.notify_all();
}

void StoreClient::run() {
    SteadyClock::time_point since = SteadyClock::now();
    for (;;) {
        Link link;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            link = _link;
        }
        if (!waitFor(link->number(), -1)) return;
        std::size_t size = 0;
        const Io result = local_socket::receive(link->number(), _buffer.data(), size);
        if (result == Io::Again || result == Io::Interrupted) continue;
        if (result == Io::Done && handle(_buffer.data(), size)) continue;

        lose();
        link.reset();
        if (_speaks) sayLine("paramstore: the store's host is gone; trying again every second");
        // The first try comes at once, unless the connection was only just made: a host that cuts us off again and
        // again is not to be stormed.
        bool back = SteadyClock::now() - since >= kRetry && comeBack();
        while (!back) {
            if (!waitFor(-1, static_cast<int>(kRetry.count()))) return;
            back = comeBack();
        }
        since = SteadyClock::now();
        // Last: a console that takes no more does not keep from the host what listeners answer.
        if (_speaks) sayLine("paramstore: the store is back");
    }
}

bool StoreClient::ask(Request& request, const std::function<wire::Packet(std::uint32_t)>& make) {
    const SteadyClock::time_point deadline = SteadyClock::now() + kAnswerDeadline;
    Link link;
    std::uint32_t number = 0;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!_link) return false;
        link = _link;
        if (++_lastNumber >= kHelloRequest) _lastNumber = 1;
        number = _lastNumber;
        _requests[number] = &request;
    }
    const wire::Packet packet = make(number);
    Io sent = Io::Again;
    while ((sent = local_socket::send(link->number(), packet)) == Io::Again || sent == Io::Interrupted) {
        // Without memory for the packet the socket has room all the same, and the wait is none.
        if (sent == Io::Again &&
            (local_socket::waitToSend(link->number(), deadline) == Io::Again || SteadyClock::now() >= deadline))
            break;
    }
    std::unique_lock<std::mutex> lock(_mutex);
    if (sent == Io::Done &&
        _answered.wait_until(lock, deadline, [&] { return request.answered || request.lost; }) && request.answered)
        return true;
    if (!request.lost) _requests.erase(number);
    // A host that does not answer is as good as gone: the receiving thread finds the link ended and begins anew.
    ::shutdown(link->number(), SHUT_RDWR);
    return request.answered;
}

eConfigStatus_t StoreClient::setInteger(eParam_t id, int value) {
    Request request;
    if (!ask(request, [&](std::uint32_t number) { return wire::setInteger(number, id, value); }))
        return kConfigUnreachable;
    return static_cast<eConfigStatus_t>(request.status);
}

eConfigStatus_t StoreClient::setString(eParam_t id, std::string_view value) {
    // What no packet carries is refused here.
    if (value.size() > kLongestString) return kConfigRefused;
    Request request;
    if (!ask(request, [&](std::uint32_t number) { return wire::setString(number, id, value); }))
        return kConfigUnreachable;
    return static_cast<eConfigStatus_t>(request.status);
}

// kConfigOk and kConfigUnreachable come with a value of the wanted type in `entry`; a value that nobody has ever seen
// is kConfigUnknown while the host is away, too.
eConfigStatus_t StoreClient::get(eParam_t id, ParameterType type, StoreEntry& entry) {
    Request request;
    eConfigStatus_t status = kConfigUnreachable;
    if (ask(request, [&](std::uint32_t number) { return wire::get(number, id); })) {
        status = static_cast<eConfigStatus_t>(request.status);
        if (status != kConfigOk) return status;
        entry = std::move(request.value.entry);
    } else if (!_mirror.find(id, entry)) {
        return kConfigUnknown;
    }
    return entry.type == type ? status : kConfigWrongType;
}

eConfigStatus_t StoreClient::getInteger(eParam_t id, int& value) {
    StoreEntry entry;
    const eConfigStatus_t status = get(id, ParameterType::Integer, entry);
    if (status == kConfigOk || status == kConfigUnreachable) value = entry.integer;
    return status;
}

eConfigStatus_t StoreClient::getString(eParam_t id, std::string& value) {
    StoreEntry entry;
    const eConfigStatus_t status = get(id, ParameterType::String, entry);
    if (status == kConfigOk || status == kConfigUnreachable) value = std::move(entry.text);
    return status;
}

void StoreClient::addListener(const void* owner, ConfigEvents* listener) {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _listening = true;
    }
    bool added = false;
    Request request;
    request.onAnswer = [&] {
        _mirror.addListener(owner, listener);
        added = true;
    };
    wire::Subscription everything;
    everything.mode = wire::Mode::Listen;
    ask(request, [&](std::uint32_t number) { return wire::subscribe(number, everything); });
    // The next connection listens from its beginning.
    if (!added) _mirror.addListener(owner, listener);
}
