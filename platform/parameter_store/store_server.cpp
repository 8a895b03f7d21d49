#include "platform/parameter_store/store_server.h"

#include <grp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/parameter_store/quiet_thread.h"
#include "platform/parameter_store/store_paths.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kAcceptPause{100};

// In practice another number for every life of a host since the machine was switched on; the clock of the day may have
// been set back.
std::uint64_t newLife() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const auto nanoseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
    return nanoseconds << 22 | (static_cast<std::uint64_t>(getpid()) & 0x3fffffU);
}

bool findGroup(const char* name, gid_t& id) {
    std::vector<char> buffer(16384);
    group entry{};
    group* found = nullptr;
    int result = 0;
    while ((result = getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < 16U * 1024 * 1024)
        buffer.resize(2 * buffer.size());
    if (result != 0 || found == nullptr) return false;
    id = found->gr_gid;
    return true;
}

} // namespace

StoreServer::StoreServer(StoreEngine& engine)
    : _engine(engine), _life(newLife()), _resync(std::make_shared<const wire::Packet>(wire::resync())),
      _buffer(local_socket::kBufferSize) {}

StoreServer::~StoreServer() { stop(); }

bool StoreServer::start(const char* path, const char* fresh) {
    _groupExists = findGroup(kStoreWriterGroup, _group);
    _wakeUp = local_socket::Descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!_wakeUp.isOpen()) return false;
    _listening = local_socket::listenAt(path, fresh);
    if (!_listening.isOpen()) return false;
    _path = path;
    _stopping = false;
    _engine.addObserver(this);
    if (startQuietThread(_thread, "store-server", [this] { run(); })) return true;
    _engine.removeObserver(this);
    _listening.close();
    ::unlink(path);
    errno = EAGAIN;
    return false;
}

void StoreServer::stop() {
    if (!_thread.joinable()) return;
    // First nobody new finds us, then nothing new comes in, then the queues are emptied.
    ::unlink(_path);
    _engine.removeObserver(this);
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    wake();
    _thread.join();
    _connections.clear();
    _listening.close();
}

void StoreServer::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(_wakeUp.number(), &one, sizeof one);
}

void StoreServer::changed(eParam_t id, const StoreEntry& entry, timeval when, const StoreTable& /*table*/) {
    std::shared_ptr<const wire::Packet> packet;
    bool sleeping = false;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        for (Connection& connection : _connections) {
            if (connection.mode == wire::Mode::Nothing || connection.cutOff) continue;
            if (!connection.wanted.empty() && !connection.wanted.contains(id)) continue;
            if (!packet) packet = std::make_shared<const wire::Packet>(wire::event(id, entry, when));
            enqueue(connection, {Kind::Event, id, packet, when, entry.sequence});
            enforceBounds(connection);
        }
        sleeping = packet && !_awake;
        if (sleeping) _awake = true;
    }
    if (sleeping) wake();
}

void StoreServer::enqueue(Connection& connection, Outgoing outgoing) {
    const std::size_t size = cost(outgoing);
    connection.bytes += size;
    _allBytes += size;
    if (outgoing.kind == Kind::Answer) ++connection.answers;
    connection.queue.push_back(std::move(outgoing));
}

void StoreServer::forget(Connection& connection, const Outgoing& outgoing) {
    const std::size_t size = cost(outgoing);
    connection.bytes -= size;
    _allBytes -= size;
    if (outgoing.kind == Kind::Answer) --connection.answers;
}

void StoreServer::cutOff(Connection& connection) {
    connection.cutOff = true;
    for (const Outgoing& outgoing : connection.queue) forget(connection, outgoing);
    connection.queue.clear();
}

void StoreServer::enforceBounds(Connection& connection) {
    if (connection.mode == wire::Mode::Watch) {
        if (connection.queue.size() >= connection.thinAtEvents || connection.bytes >= connection.thinAtBytes)
            thinOut(connection);
    } else if (connection.bytes > kListenerBytes) {
        cutOff(connection);
    }
    enforceBoundOfAll();
}

void StoreServer::enforceBoundOfAll() {
    if (_allBytes <= kAllBytes) return;
    // Of equals the one that may only read goes, and of those the newest: the recorder's own came first.
    const auto most = std::max_element(_connections.rbegin(), _connections.rend(),
                                       [](const Connection& one, const Connection& other) {
                                           if (one.bytes != other.bytes) return one.bytes < other.bytes;
                                           return one.mayWrite && !other.mayWrite;
                                       });
    cutOff(*most);
}

void StoreServer::thinOut(Connection& connection) {
    std::unordered_set<eParam_t> seen;
    std::deque<Outgoing> kept;
    const auto firstResync = std::find_if(connection.queue.begin(), connection.queue.end(),
                                          [](const Outgoing& outgoing) { return outgoing.kind == Kind::Resync; });
    for (auto each = connection.queue.rbegin(); each != connection.queue.rend(); ++each) {
        forget(connection, *each);
        // The first Resync keeps its place: moved behind what comes, it would never be sent to a watcher that stays
        // slow.
        if (each->kind == Kind::Resync && each.base() - 1 != firstResync) continue;
        if (each->kind == Kind::Event) {
            if (!seen.insert(each->id).second) continue;
            // Its value is read when it is sent, so that a full queue holds no values at all.
            each->packet.reset();
        }
        kept.push_front(std::move(*each));
    }
    connection.queue.clear();
    for (Outgoing& outgoing : kept) enqueue(connection, std::move(outgoing));
    if (connection.queue.back().kind != Kind::Resync) enqueue(connection, {Kind::Resync, 0, _resync, {}, 0});
    connection.thinAtEvents = std::max(kWatcherEvents, 2 * connection.queue.size());
    connection.thinAtBytes = std::max(kWatcherBytes, 2 * connection.bytes);
}

// What a thinned queue still holds is told as of now. Read when it is sent, a value could be that of a later set, whose
// own event would then be passed over: the listener would never hear of it.
void StoreServer::makeListener(Connection& connection, const StoreTable& table) {
    const auto isOpen = [](const Outgoing& outgoing) { return outgoing.kind == Kind::Event && !outgoing.packet; };
    if (std::none_of(connection.queue.begin(), connection.queue.end(), isOpen)) return;
    // Those values stand for what was queued since the thinning, too: behind them it would lead back.
    thinOut(connection);
    std::deque<Outgoing> queue = std::exchange(connection.queue, {});
    for (Outgoing& outgoing : queue) {
        forget(connection, outgoing);
        if (outgoing.kind == Kind::Event) {
            const auto found = table.find(outgoing.id);
            if (found == table.end()) continue;
            outgoing.sequence = found->second.sequence;
            outgoing.packet = std::make_shared<const wire::Packet>(
                wire::event(outgoing.id, found->second, outgoing.when));
        }
        enqueue(connection, std::move(outgoing));
    }
}

bool StoreServer::mayWrite(int socket, uid_t user, gid_t group) const {
    if (user == 0) return true;
    if (!_groupExists) return false;
    if (group == _group) return true;
    std::vector<gid_t> groups(32);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == -1) {
        // The kernel has put the size that it needs into `size`.
        if (errno != ERANGE) return false;
        groups.resize(size / sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == -1) return false;
    }
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), _group) != groups.end();
}

bool StoreServer::admit(Connection& newcomer) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(newcomer.socket.number(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1) return false;
    newcomer.user = peer.uid;
    newcomer.mayWrite = mayWrite(newcomer.socket.number(), peer.uid, peer.gid);
    newcomer.since = SteadyClock::now();
    if (!newcomer.mayWrite) {
        std::size_t readers = 0;
        std::size_t ofUser = 0;
        for (const Connection& connection : _connections) {
            if (connection.mayWrite) continue;
            ++readers;
            if (connection.user == newcomer.user) ++ofUser;
        }
        if (readers >= kMostReaders || ofUser >= kMostPerReader) return false;
    }
    if (_connections.size() < kMostConnections) return true;
    // The list is in the order of arrival: the first that still says nothing has had the longest time to.
    const auto silent = std::find_if(_connections.begin(), _connections.end(),
                                     [](const Connection& connection) { return !connection.greeted; });
    if (silent == _connections.end()) return false;
    const std::lock_guard<std::mutex> lock(_mutex);
    cutOff(*silent);
    _connections.erase(silent);
    return true;
}

void StoreServer::acceptAll() {
    // Bounded, so that a storm of newcomers does not keep the others waiting.
    for (std::size_t each = 0; each < kMostConnections; ++each) {
        Connection newcomer;
        newcomer.socket = local_socket::Descriptor(::accept4(_listening.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!newcomer.socket.isOpen()) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            // Out of descriptors or memory the newcomer stays where it is, and poll would report it for ever.
            if (errno != EAGAIN && errno != EWOULDBLOCK) _acceptAgain = SteadyClock::now() + kAcceptPause;
            return;
        }
        if (!admit(newcomer)) continue;
        const std::lock_guard<std::mutex> lock(_mutex);
        _connections.push_back(std::move(newcomer));
    }
}

void StoreServer::answer(Connection& connection, wire::Packet packet) {
    const std::lock_guard<std::mutex> lock(_mutex);
    enqueue(connection, {Kind::Answer, 0, std::make_shared<const wire::Packet>(std::move(packet)), {}, 0});
    enforceBoundOfAll();
}

// One request in a turn, so that no client keeps the others waiting: looking for a second one would only delay what the
// first has set going, and poll tells of it.
void StoreServer::readFrom(Connection& connection) {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (connection.answers >= kMostAnswers) return;
    }
    std::size_t size = 0;
    switch (local_socket::receive(connection.socket.number(), _buffer.data(), size)) {
    case local_socket::Io::Done:
        connection.gone = !handle(connection, _buffer.data(), size);
        break;
    case local_socket::Io::Closed:
        connection.gone = true;
        break;
    case local_socket::Io::Again:
    case local_socket::Io::Interrupted:
        break;
    }
}

bool StoreServer::handle(Connection& connection, const std::uint8_t* data, std::size_t size) {
    wire::Header header{};
    if (!wire::readHeader(data, size, header)) return false;
    if (connection.greeted == (header.type == wire::Type::Hello)) return false;
    eParam_t id = 0;
    switch (header.type) {
    case wire::Type::Hello:
        if (!wire::readHello(data, size)) return false;
        connection.greeted = true;
        answer(connection, wire::welcome(header.request, _life, connection.mayWrite));
        return true;
    case wire::Type::Get: {
        if (!wire::readGet(data, size, id)) return false;
        StoreEntry entry;
        answer(connection, _engine.find(id, entry) ? wire::value(header.request, id, entry)
                                                   : wire::status(header.request, kConfigUnknown));
        return true;
    }
    case wire::Type::SetInteger: {
        int value = 0;
        if (!wire::readSetInteger(data, size, id, value)) return false;
        const int status = connection.mayWrite ? _engine.setInteger(id, value) : kConfigNotPermitted;
        answer(connection, wire::status(header.request, status));
        return true;
    }
    case wire::Type::SetString: {
        std::string_view value;
        if (!wire::readSetString(data, size, id, value)) return false;
        const int status = connection.mayWrite ? _engine.setString(id, value) : kConfigNotPermitted;
        answer(connection, wire::status(header.request, status));
        return true;
    }
    case wire::Type::Subscribe: {
        wire::Subscription subscription;
        return wire::readSubscribe(data, size, subscription) && subscribe(connection, header.request, subscription);
    }
    default:
        return false;
    }
}

bool StoreServer::subscribe(Connection& connection, std::uint32_t request, wire::Subscription& subscription) {
    // Between two sets: every one of them is either in the values or an event behind them, and none is both.
    _engine.inspect([&](const StoreTable& table) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (subscription.mode == wire::Mode::Listen) makeListener(connection, table);
        connection.mode = subscription.mode;
        connection.wanted = {subscription.identifiers.begin(), subscription.identifiers.end()};
        const auto add = [&](wire::Packet packet) {
            enqueue(connection, {Kind::Answer, 0, std::make_shared<const wire::Packet>(std::move(packet)), {}, 0});
        };
        if (subscription.values) {
            // In the order of their sets: to a client that comes back some of them are sets that it has missed.
            std::vector<const StoreTable::value_type*> values;
            for (const auto& value : table)
                if (connection.wanted.empty() || connection.wanted.contains(value.first)) values.push_back(&value);
            std::sort(values.begin(), values.end(),
                      [](const auto* one, const auto* other) { return one->second.sequence < other->second.sequence; });
            for (const auto* each : values) add(wire::value(request, each->first, each->second));
        }
        add(wire::status(request, kConfigOk));
        connection.thinAtEvents = kWatcherEvents + connection.queue.size();
        connection.thinAtBytes = kWatcherBytes + connection.bytes;
        enforceBoundOfAll();
    });
    return true;
}

local_socket::Io StoreServer::sendOne(Connection& connection, const Outgoing& outgoing) {
    if (outgoing.packet) {
        if (outgoing.kind == Kind::Event && !connection.ahead.empty()) {
            const auto found = connection.ahead.find(outgoing.id);
            if (found != connection.ahead.end() && found->second >= outgoing.sequence) return local_socket::Io::Done;
        }
        return local_socket::send(connection.socket.number(), *outgoing.packet);
    }
    StoreEntry entry;
    if (!_engine.find(outgoing.id, entry)) return local_socket::Io::Done;
    const local_socket::Io result =
        local_socket::send(connection.socket.number(), wire::event(outgoing.id, entry, outgoing.when));
    if (result == local_socket::Io::Done) connection.ahead[outgoing.id] = entry.sequence;
    return result;
}

void StoreServer::sendTo(Connection& connection) {
    for (;;) {
        Outgoing first;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (connection.cutOff) connection.gone = true;
            if (connection.gone) return;
            if (connection.queue.empty()) {
                connection.ahead.clear();
                return;
            }
            first = std::move(connection.queue.front());
            connection.queue.pop_front();
            forget(connection, first);
        }
        const local_socket::Io result = sendOne(connection, first);
        if (result == local_socket::Io::Done) continue;
        if (result == local_socket::Io::Closed) connection.gone = true;
        const std::lock_guard<std::mutex> lock(_mutex);
        const std::size_t size = cost(first);
        connection.bytes += size;
        _allBytes += size;
        if (first.kind == Kind::Answer) ++connection.answers;
        connection.queue.push_front(std::move(first));
        if (result != local_socket::Io::Interrupted) return;
    }
}

void StoreServer::bidFarewell() {
    const SteadyClock::time_point deadline = SteadyClock::now() + kFarewell;
    for (Connection& connection : _connections) {
        for (;;) {
            sendTo(connection);
            if (connection.gone || connection.queue.empty()) break;
            if (local_socket::waitToSend(connection.socket.number(), deadline) == local_socket::Io::Again ||
                SteadyClock::now() >= deadline)
                break;
        }
    }
}

void StoreServer::run() {
    std::vector<pollfd> descriptors;
    bool woken = false;
    for (;;) {
        for (Connection& connection : _connections) sendTo(connection);
        // Whoever waits for an event does not wait for this.
        if (woken) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t drained = ::read(_wakeUp.number(), &count, sizeof count);
        }

        SteadyClock::time_point next = SteadyClock::time_point::max();
        const SteadyClock::time_point now = SteadyClock::now();
        descriptors.clear();
        descriptors.push_back({_wakeUp.number(), POLLIN, 0});
        descriptors.push_back({now >= _acceptAgain ? _listening.number() : -1, POLLIN, 0});
        if (now < _acceptAgain) next = _acceptAgain;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_stopping) break;
            // What is queued from here on wakes the wait below; what was queued before is seen here.
            _awake = false;
            for (auto each = _connections.begin(); each != _connections.end();) {
                if (!each->greeted && now >= each->since + kHelloDeadline) each->gone = true;
                if (each->gone || each->cutOff) {
                    cutOff(*each);
                    each = _connections.erase(each);
                    continue;
                }
                if (!each->greeted) next = std::min(next, each->since + kHelloDeadline);
                short events = 0;
                if (each->answers < kMostAnswers) events |= POLLIN;
                if (!each->queue.empty()) events |= POLLOUT;
                descriptors.push_back({each->socket.number(), events, 0});
                ++each;
            }
        }
        ::poll(descriptors.data(), descriptors.size(),
               next == SteadyClock::time_point::max() ? -1 : local_socket::untilDeadline(next));
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _awake = true;
        }
        woken = descriptors[0].revents != 0;

        std::size_t index = 2;
        for (Connection& connection : _connections) {
            const pollfd& descriptor = descriptors[index++];
            if ((descriptor.revents & POLLIN) != 0)
                readFrom(connection);
            else if ((descriptor.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
                connection.gone = true;
        }
        if (descriptors[1].revents != 0) acceptAll();
    }
    bidFarewell();
}
