// What a change of a parameter costs until another process has heard of it, against a packet that goes to another process
// and back over a bare socket of the same kind; and what a get costs where the store is hosted.

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "classes/config/config_event_listener.h"
#include "config.h"
#include "parameters.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_paths.h"
#include "tests/parameter_store/allocation_count.h"

namespace {

constexpr int kBlocks = 20;
constexpr int kInABlock = 500;
constexpr int kGets = 200'000;

using Clock = std::chrono::steady_clock;
double microsecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench_store: %s\n", what);
    std::exit(1);
}

// --- The bare socket: a process that sends back what it gets.

class Echo {
public:
    Echo() {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == -1) fail("socketpair");
        _process = ::fork();
        if (_process == 0) {
            ::close(ends[0]);
            char buffer[64];
            for (ssize_t size; (size = ::recv(ends[1], buffer, sizeof buffer, 0)) > 0;)
                if (::send(ends[1], buffer, static_cast<std::size_t>(size), MSG_NOSIGNAL) != size) break;
            _exit(0);
        }
        ::close(ends[1]);
        _socket = ends[0];
    }
    ~Echo() {
        ::close(_socket);
        ::waitpid(_process, nullptr, 0);
    }
    double roundTrip() const {
        char packet[36] = {}; // the size of an event
        const Clock::time_point begin = Clock::now();
        if (::send(_socket, packet, sizeof packet, MSG_NOSIGNAL) != sizeof packet ||
            ::recv(_socket, packet, sizeof packet, 0) != sizeof packet)
            fail("the echo is gone");
        return microsecondsSince(begin);
    }

private:
    int _socket = -1;
    pid_t _process = -1;
};

// --- The store, hosted by a process of its own as by the daemon; this one is a client.

// A client that sets a parameter and watches it on one connection: what it waits for is the host's part, and not a
// thread of its own.
class WatchingSetter {
public:
    WatchingSetter() {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        do _socket = local_socket::connectBy(kStoreSocket, deadline);
        while (!_socket.isOpen() && Clock::now() < deadline);
        if (!_socket.isOpen()) fail("nobody serves the store");
        // It would rather poll: without that, what is waited for is the host's part.
        ::fcntl(_socket.number(), F_SETFL, ::fcntl(_socket.number(), F_GETFL) & ~O_NONBLOCK);
        _buffer.resize(local_socket::kBufferSize);
        send(wire::hello(1));
        until(wire::Type::Welcome);
        wire::Subscription subscription;
        subscription.mode = wire::Mode::Watch;
        subscription.identifiers = {kParamNewClipIndex};
        send(wire::subscribe(2, subscription));
        until(wire::Type::Status);
    }
    double setToEvent() {
        const Clock::time_point begin = Clock::now();
        send(wire::setInteger(3, kParamNewClipIndex, ++_value));
        until(wire::Type::Event);
        const double time = microsecondsSince(begin);
        until(wire::Type::Status);
        return time;
    }

private:
    void send(const wire::Packet& packet) {
        if (local_socket::send(_socket.number(), packet) != local_socket::Io::Done) fail("the host is gone");
    }
    void until(wire::Type type) {
        for (;;) {
            const ssize_t size = ::recv(_socket.number(), _buffer.data(), _buffer.size(), 0);
            wire::Header header{};
            if (size <= 0 || !wire::readHeader(_buffer.data(), static_cast<std::size_t>(size), header))
                fail("the host is gone");
            if (header.type == type) return;
        }
    }
    local_socket::Descriptor _socket;
    std::vector<std::uint8_t> _buffer;
    int _value = 0;
};

// Set by an attached process until the listener of that process is called: through the client library's threads.
class Listener : public ConfigEventListener {
public:
    void ParamChanged(eParam_t id, unsigned int value, timeval) override {
        if (id != kParamNewClipIndex) return;
        const std::lock_guard lock(_lock);
        _heard = value;
        _at = Clock::now();
        _changed.notify_one();
    }
    void ParamChanged(eParam_t, std::string, timeval) override {}
    Clock::time_point waitFor(unsigned int value) {
        std::unique_lock lock(_lock);
        _changed.wait(lock, [&] { return _heard == value; });
        return _at;
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    unsigned int _heard = 0;
    Clock::time_point _at;
};

double at(std::vector<double>& values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

void print(const char* name, std::vector<double>& values) {
    std::printf("\"%s\": {\"p50_us\": %.3f, \"p99_us\": %.3f}, ", name, at(values, 0.50), at(values, 0.99));
}

// The host tells what a get costs, then serves until its standard input ends.
[[noreturn]] void host(int tell, int stay) {
    CreateDescriptors();
    Config* const config = GetMappingConfig("udp", false, true);
    if (config == nullptr) fail("no host");
    config->setInteger(kParamMediaDaemonStatus, 3);
    volatile int value = config->getInteger(kParamMediaDaemonStatus);
    const std::size_t before = allocationsOfThisThread();
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < kGets; ++i) value = config->getInteger(kParamMediaDaemonStatus);
    const double nanoseconds = microsecondsSince(begin) * 1000 / kGets;
    const double result[] = {nanoseconds, static_cast<double>(allocationsOfThisThread() - before)};
    if (value != 3 || ::write(tell, result, sizeof result) != sizeof result) fail("host");
    char ignored;
    [[maybe_unused]] const ssize_t end = ::read(stay, &ignored, 1);
    _exit(0);
}

// Everything on one processor, as on the board. Where there are several, the scheduler puts some pairs of processes on one
// and some on two, and what it costs to wake an idle processor is several times the rest.
void shareOneProcessor() {
    const int processor = ::sched_getcpu();
    cpu_set_t one;
    CPU_ZERO(&one);
    if (processor >= 0) CPU_SET(static_cast<std::size_t>(processor), &one);
    if (processor < 0 || ::sched_setaffinity(0, sizeof one, &one) == -1) fail("sched_setaffinity");
}

} // namespace

int main() {
    shareOneProcessor();
    int tell[2];
    int stay[2];
    if (::pipe(tell) == -1 || ::pipe(stay) == -1) fail("pipe");
    std::fflush(stdout);
    // Before there is a thread.
    if (::fork() == 0) {
        ::close(stay[1]);
        host(tell[1], stay[0]);
    }
    const Echo echo;
    double get[2];
    if (::read(tell[0], get, sizeof get) != sizeof get) fail("the host did not start");

    auto setter = std::make_unique<WatchingSetter>();
    std::vector<double> bare;
    std::vector<double> events;
    // In turns, so that what disturbs one disturbs the other.
    for (int block = 0; block < kBlocks; ++block) {
        for (int i = 0; i < kInABlock; ++i) bare.push_back(echo.roundTrip());
        for (int i = 0; i < kInABlock; ++i) events.push_back(setter->setToEvent());
    }
    setter.reset();

    CreateDescriptors();
    Config* const config = GetMappingConfig("udp", false, false);
    ConfigEventChannel* const channel = ConfigFactoryImpl::GetInstance().createEventChannel(kConfigEventLocator);
    if (config == nullptr || channel == nullptr) fail("cannot attach");
    Listener listener;
    channel->addListener(&listener);
    std::vector<double> heard;
    for (int i = 1; i <= kBlocks * kInABlock / 4; ++i) {
        const Clock::time_point begin = Clock::now();
        config->setInteger(kParamNewClipIndex, 1'000'000 + i);
        heard.push_back(std::chrono::duration<double, std::micro>(
                            listener.waitFor(1'000'000U + static_cast<unsigned int>(i)) - begin).count());
    }
    std::printf("{");
    print("bare", bare);
    print("event", events);
    print("listener", heard);
    std::printf("\"get_ns\": %.1f, \"get_allocations\": %.0f}\n", get[0], get[1]);
    std::fflush(stdout);
    ::close(stay[1]);
    _exit(0);
}
