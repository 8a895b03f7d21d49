// The store between processes: hosting and attaching, what survives whom, who may write, and what clients cannot do to
// it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "config.h"
#include "helper_process.h"
#include "parameters.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_paths.h"
#include "platform/parameter_store/store_server.h"
#include "platform/parameter_store/wire.h"
#include "store_watcher.h"

namespace {

using Starts = Helper::Starts;
using local_socket::Io;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kLed[] = "41424344";
constexpr eParam_t kLedId = 0x41424344;

const std::string kNobodyServes = std::to_string(kConfigUnreachable);
const std::string kNotPermitted = std::to_string(kConfigNotPermitted);
const std::string kRefused = std::to_string(kConfigRefused);
const std::string kWrongType = std::to_string(kConfigWrongType);

std::string event(const std::string& id, int value) { return id + " I " + std::to_string(value); }

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// A client without manners, or the other end of one.
class RawClient {
public:
    RawClient() : RawClient(local_socket::connectBy(kStoreSocket, std::chrono::steady_clock::now() + kPatience)) {}
    explicit RawClient(local_socket::Descriptor socket) : _socket(std::move(socket)) {}

    bool isOpen() const { return _socket.isOpen(); }
    int number() const { return _socket.number(); }
    Io send(const wire::Packet& packet) const { return local_socket::send(_socket.number(), packet); }

    // The next packet; empty when the host has closed the connection.
    wire::Packet receive() const {
        std::vector<std::uint8_t> buffer(local_socket::kBufferSize);
        std::size_t size = 0;
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        for (;;) {
            const Io result = local_socket::receive(_socket.number(), buffer.data(), size);
            if (result == Io::Done) break;
            if (result == Io::Closed) return {};
            if (local_socket::waitToReceive(_socket.number(), deadline) == Io::Again) {
                ADD_FAILURE() << "nothing came";
                return {};
            }
        }
        buffer.resize(size);
        return buffer;
    }

    bool isClosedByHost() const {
        while (!receive().empty()) {
        }
        return true;
    }

    bool greet() const {
        if (send(wire::hello(1)) != Io::Done) return false;
        const wire::Packet answer = receive();
        wire::Header header{};
        return wire::readHeader(answer.data(), answer.size(), header) && header.type == wire::Type::Welcome;
    }

private:
    local_socket::Descriptor _socket;
};

// A host that says what the test wants, when the test wants it.
class FakeHost {
public:
    static constexpr std::uint64_t kLife = 7;

    FakeHost() {
        std::filesystem::create_directory(kStoreDirectory);
        _listening = local_socket::listenAt(kStoreSocket, kStoreSocketFresh);
        EXPECT_TRUE(_listening.isOpen());
    }

    // The next client's connection, its greeting answered; `subscription` is the number of its request and `mode` what it
    // wants to be. Not open when nobody comes.
    RawClient admit(std::uint32_t& subscription, wire::Mode& mode) const {
        pollfd descriptor{_listening.number(), POLLIN, 0};
        if (poll(&descriptor, 1, 1000 * static_cast<int>(kPatience.count())) <= 0) return RawClient(local_socket::Descriptor());
        RawClient client(local_socket::Descriptor(accept4(_listening.number(), nullptr, nullptr, SOCK_CLOEXEC)));
        wire::Header header{};
        const wire::Packet hello = client.receive();
        EXPECT_TRUE(wire::readHeader(hello.data(), hello.size(), header) && header.type == wire::Type::Hello);
        EXPECT_EQ(client.send(wire::welcome(header.request, kLife, true)), Io::Done);
        wire::Subscription wanted;
        const wire::Packet subscribe = client.receive();
        EXPECT_TRUE(wire::readHeader(subscribe.data(), subscribe.size(), header) &&
                    header.type == wire::Type::Subscribe &&
                    wire::readSubscribe(subscribe.data(), subscribe.size(), wanted) && wanted.values);
        subscription = header.request;
        mode = wanted.mode;
        return client;
    }

    // The client has a Config and a channel, and has lost its host, when this returns.
    void openChannelOnce(Helper& client) const {
        std::uint32_t subscription = 0;
        wire::Mode mode = wire::Mode::Nothing;
        client.tell("open udp 0 0");
        const RawClient connection = admit(subscription, mode);
        EXPECT_EQ(mode, wire::Mode::Watch);
        EXPECT_EQ(connection.send(wire::status(subscription, kConfigOk)), Io::Done);
        EXPECT_EQ(client.answer(), "ok");
        // A channel is there when the host answers.
        client.tell("channel multicast://127.0.0.1:63110/configid=0");
        const wire::Packet get = connection.receive();
        wire::Header header{};
        EXPECT_TRUE(wire::readHeader(get.data(), get.size(), header));
        EXPECT_EQ(connection.send(wire::status(header.request, kConfigUnknown)), Io::Done);
        EXPECT_EQ(client.answer(), "ok");
    }

private:
    local_socket::Descriptor _listening;
};

class StoreProcessTest : public testing::Test {
protected:
    void SetUp() override {
        // These tests own the machine's store.
        ASSERT_FALSE(std::filesystem::exists(kStoreDirectory)) << "run me through tests/isolated";
    }
    void TearDown() override { std::filesystem::remove_all(kStoreDirectory); }
};

// Everybody still gets what they ask for.
void expectServing(Helper& client) {
    static int value = 0;
    const std::string expected = std::to_string(++value);
    EXPECT_EQ(client.ask("seti 51515151 " + expected), "0");
    EXPECT_EQ(client.ask("geti 51515151"), "0 " + expected + " " + expected);
}

} // namespace

TEST_F(StoreProcessTest, configNeedsDescriptorsAndTheOneTransport) {
    Helper helper(Starts::Bare);
    EXPECT_EQ(helper.ask("open udp 0 1"), "null") << "before CreateDescriptors";
    EXPECT_EQ(helper.ask("create"), "ok");
    EXPECT_EQ(helper.ask("open tcp 0 1"), "null");
    EXPECT_EQ(helper.ask("open udp 0 0"), "null") << "nobody hosts";
    EXPECT_FALSE(std::filesystem::exists(kStoreDirectory));
    EXPECT_EQ(helper.said(), "") << "who only attaches speaks for itself";
    EXPECT_EQ(helper.ask("open udp 0 1"), "ok");
}

TEST_F(StoreProcessTest, nothingRunsBeforeTheConfigAndNoThreadTakesSignals) {
    Helper host(Starts::Bare);
    EXPECT_EQ(host.ask("create"), "ok");
    // A sanitizer brings a thread of its own.
    const auto threadsOf = [](const std::string& answer) {
        std::map<std::string, unsigned long long> masks;
        std::istringstream words(answer);
        for (std::string word; words >> word;) {
            const std::size_t equals = word.find('=');
            if (word.starts_with("store-"))
                masks[word.substr(0, equals)] = std::stoull(word.substr(equals + 1), nullptr, 16);
        }
        return masks;
    };
    std::string answer = host.ask("threads");
    EXPECT_THAT(threadsOf(answer), IsEmpty());
    EXPECT_THAT(answer, HasSubstr("sockets=0"));

    EXPECT_EQ(host.ask("open udp 0 1"), "ok");
    Helper client(Starts::Attached);
    for (Helper* each : {&host, &client}) {
        const auto masks = threadsOf(each->ask("threads"));
        EXPECT_THAT(masks, SizeIs(2));
        for (const auto& [name, mask] : masks)
            for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD, SIGPIPE, SIGQUIT})
                EXPECT_NE(mask & 1ULL << (number - 1), 0U) << name << ", signal " << number;
    }
}

TEST_F(StoreProcessTest, aStoreThatCannotBeHostedIsOneClearLine) {
    // A file stands where the directory should.
    ASSERT_GE(open(kStoreDirectory, O_WRONLY | O_CREAT | O_CLOEXEC, 0600), 0);
    {
        Helper helper(Starts::Bare);
        helper.ask("create");
        EXPECT_EQ(helper.ask("open udp 0 1"), "null");
        EXPECT_EQ(helper.said(), "paramstore: cannot open /run/mediad/store.lock: Not a directory\n");
    }
    std::filesystem::remove(kStoreDirectory);
    {
        Helper helper(Starts::Bare);
        if (helper.ask("become 65534 65534") != "ok") GTEST_SKIP() << "this world has one user only";
        helper.ask("create");
        EXPECT_EQ(helper.ask("open udp 0 1"), "null");
        EXPECT_EQ(helper.said(), "paramstore: cannot make /run/mediad: Permission denied\n");
    }
    // And a host that has the lock but does not serve.
    std::filesystem::create_directory(kStoreDirectory);
    const local_socket::Descriptor lock(open(kStoreLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.number(), LOCK_EX | LOCK_NB), 0);
    Helper helper(Starts::Bare);
    helper.ask("create");
    EXPECT_EQ(helper.ask("open udp 0 1"), "null");
    EXPECT_EQ(helper.said(), "paramstore: the process that holds /run/mediad/store.lock does not serve the store\n");
}

TEST_F(StoreProcessTest, theEventChannelExistsForOneLocator) {
    Helper helper(Starts::Bare);
    EXPECT_EQ(helper.ask("channel multicast://127.0.0.1:63110/configid=0"), "null") << "without a Config";
    helper.ask("create");
    ASSERT_EQ(helper.ask("open udp 0 1"), "ok");
    for (const char* other : {"multicast://127.0.0.1:63110/configid=1", "multicast://127.0.0.1:63111/configid=0",
                              "multicast://127.0.0.1:63110/configid=0/", "udp://127.0.0.1:63110/configid=0"})
        EXPECT_EQ(helper.ask(std::string("channel ") + other), "null") << other;
    EXPECT_EQ(helper.ask("channel multicast://127.0.0.1:63110/configid=0"), "ok");
}

TEST_F(StoreProcessTest, thereIsNoEventChannelWhenTheHostIsGone) {
    auto host = std::make_unique<Helper>(Starts::Hosting);
    Helper client(Starts::Attached);
    host->signal(SIGKILL);
    EXPECT_EQ(host->end(), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return client.ask("channel multicast://127.0.0.1:63110/configid=0") == "null"; }));
}

TEST_F(StoreProcessTest, directoryAndSocketLetOthersIn) {
    umask(077);
    Helper host(Starts::Hosting);
    umask(022);
    struct stat status {};
    ASSERT_EQ(stat(kStoreDirectory, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    ASSERT_EQ(stat(kStoreSocket, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(StoreProcessTest, processesShareTheValues) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    EXPECT_EQ(host.ask("seti 7e000000 -5"), "0");
    EXPECT_EQ(client.ask("geti 7e000000"), "0 -5 -5");
    EXPECT_EQ(client.ask("sets 7b04000a Clip 7"), "0");
    EXPECT_EQ(host.ask("gets 7b04000a"), "0 Clip 7");
    EXPECT_EQ(client.ask("gets 7b04000a"), "0 Clip 7");

    EXPECT_EQ(client.ask("sets 7e000000 x"), kWrongType);
    EXPECT_EQ(client.ask("seti 7b04000a 1"), kWrongType);
    EXPECT_EQ(client.ask("geti 7b04000a"), kWrongType + " -99 0");
    EXPECT_EQ(client.ask("gets 7e000000"), kWrongType + " (none)");
    EXPECT_EQ(client.ask(std::string("geti ") + kLed), std::to_string(kConfigUnknown) + " -99 0");
    EXPECT_EQ(client.ask(std::string("seti ") + kLed + " 2"), "0");
    EXPECT_EQ(host.ask(std::string("geti ") + kLed), "0 2 2");
    EXPECT_EQ(client.ask("gets 7b03060a"), "0 ") << "a descriptor's default";

    EXPECT_EQ(client.ask("long 7b04000a 65536"), "0");
    EXPECT_EQ(client.ask("long 7b04000a 65537"), kRefused);
    EXPECT_EQ(client.ask("gets 7b04000a").size(), 2U + 65536U);
}

TEST_F(StoreProcessTest, aReadOnlyConfigOnlyReads) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Bare);
    client.ask("create");
    ASSERT_EQ(client.ask("open udp 1 0"), "ok");
    EXPECT_EQ(client.ask("seti 7e000000 1"), kNotPermitted);
    EXPECT_EQ(client.ask("sets 7b04000a x"), kNotPermitted);
    EXPECT_EQ(client.ask("geti 7e000000"), "0 0 0");
}

TEST_F(StoreProcessTest, everyListenerHearsEverySetOnceAndNothingFromBefore) {
    Helper host(Starts::Hosting);
    Helper one(Starts::Attached);
    Helper other(Starts::Attached);
    EXPECT_EQ(one.ask("seti 7b01030a 9"), "0");
    for (Helper* each : {&host, &one, &other}) each->listen();
    EXPECT_EQ(one.ask("seti 7b01030a 1"), "0");
    EXPECT_EQ(other.ask("seti 7b01030a 1"), "0");
    EXPECT_EQ(host.ask("sets 7b04000a Clip 1"), "0");
    EXPECT_EQ(host.ask("sets 7e000000 refused"), kWrongType);
    EXPECT_EQ(one.ask("seti 7b01030a -1"), "0");
    for (Helper* each : {&host, &one, &other})
        EXPECT_THAT(each->events(4), ElementsAre(event("7b01030a", 1), event("7b01030a", 1), "7b04000a S Clip 1",
                                                 event("7b01030a", -1)));
}

TEST_F(StoreProcessTest, listenersOfAllProcessesHearTheSameOrder) {
    constexpr int kSets = 3000;
    Helper host(Starts::Hosting);
    Helper one(Starts::Attached);
    Helper other(Starts::Attached);
    const std::vector<Helper*> all = {&host, &one, &other};
    for (Helper* each : all) each->listen();
    int first = 1;
    for (Helper* each : all) {
        each->tell(std::string("flood ") + kLed + " " + std::to_string(first) + " " +
                   std::to_string(first + kSets - 1));
        first += kSets;
    }
    for (Helper* each : all) EXPECT_EQ(each->answer(), "0");
    const std::vector<std::string> heard = host.events(3 * kSets);
    ASSERT_THAT(heard, SizeIs(3 * kSets));
    EXPECT_EQ(std::set<std::string>(heard.begin(), heard.end()).size(), heard.size());
    EXPECT_EQ(one.events(heard.size()), heard);
    EXPECT_EQ(other.events(heard.size()), heard);
    int last[3] = {0, kSets, 2 * kSets};
    for (const std::string& each : heard) {
        const int value = std::stoi(each.substr(std::string(kLed).size() + 3));
        EXPECT_EQ(value, ++last[(value - 1) / kSets]) << "out of its writer's order";
    }
}

TEST_F(StoreProcessTest, aCallbackMaySetAndGet) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    for (Helper* each : {&host, &client}) {
        each->listen();
        EXPECT_EQ(each->ask("answers"), "ok");
        EXPECT_EQ(each->ask("seti 7b01030a 1"), "0");
        EXPECT_THAT(each->events(3), ElementsAre(event("7b01030a", 1), "answered 0 0", event("7b01030a", 0)));
        EXPECT_EQ(each->ask("release channel"), "ok");
        each->forgetEvents();
    }
}

TEST_F(StoreProcessTest, aSlowListenerHearsEverything) {
    constexpr std::size_t kSets = 20000;
    Helper host(Starts::Hosting);
    Helper slow(Starts::Attached);
    slow.listen();
    EXPECT_EQ(slow.ask("hold"), "ok");
    EXPECT_EQ(host.ask(std::string("flood ") + kLed + " 1 " + std::to_string(kSets)), "0");
    EXPECT_EQ(slow.ask("go"), "ok");
    const std::vector<std::string>& heard = slow.events(kSets);
    ASSERT_THAT(heard, SizeIs(kSets));
    for (std::size_t each = 0; each < kSets; ++each) ASSERT_EQ(heard[each], event(kLed, static_cast<int>(each + 1)));
}

TEST_F(StoreProcessTest, aListenerThatLeavesTooMuchUnreadIsCutOffAndComesBack) {
    Helper host(Starts::Hosting);
    Helper stopped(Starts::Attached);
    Helper other(Starts::Attached);
    stopped.listen();
    stopped.stop();
    // Twice what may wait for it; nobody else notices.
    for (std::size_t each = 0; each < 2 * StoreServer::kListenerBytes / 65536; ++each)
        ASSERT_EQ(host.ask("long 7b04000a 65536"), "0");
    expectServing(other);
    EXPECT_EQ(host.ask(std::string("seti ") + kLed + " 77"), "0");
    stopped.goOn();
    // The last of each parameter that it has missed comes when it is back.
    EXPECT_TRUE(eventually([&] {
        stopped.ask("geti 7e000000");
        return std::count(stopped.events(0).begin(), stopped.events(0).end(), event(kLed, 77)) == 1;
    }));
    EXPECT_LT(stopped.events(0).size(), 2 * StoreServer::kListenerBytes / 65536);
    EXPECT_EQ(host.ask(std::string("seti ") + kLed + " 78"), "0");
    EXPECT_TRUE(eventually([&] {
        stopped.ask("geti 7e000000");
        return stopped.events(0).back() == event(kLed, 78);
    }));
}

TEST_F(StoreProcessTest, releasesComeInAnyOrderAndEndTheService) {
    Helper host(Starts::Hosting);
    host.listen();
    EXPECT_EQ(host.ask("seti 7e000000 3"), "0");
    EXPECT_THAT(host.events(1), SizeIs(1));
    EXPECT_EQ(host.ask("release null"), "ok");
    EXPECT_EQ(host.ask("release config"), "ok");
    EXPECT_TRUE(std::filesystem::exists(kStoreSocket)) << "the channel is still out";
    EXPECT_EQ(host.ask("release channel"), "ok");
    EXPECT_FALSE(std::filesystem::exists(kStoreSocket));

    EXPECT_EQ(host.ask("open udp 0 1"), "ok");
    host.forgetEvents();
    host.listen();
    EXPECT_EQ(host.ask("geti 7e000000"), "0 3 3");
    EXPECT_EQ(host.ask("open2 udp 1 1"), "ok") << "a second object of the same store";
    EXPECT_EQ(host.ask("release channel"), "ok");
    EXPECT_EQ(host.ask("release config"), "ok");
    EXPECT_TRUE(std::filesystem::exists(kStoreSocket));
    EXPECT_EQ(host.ask("release second"), "ok");
    EXPECT_FALSE(std::filesystem::exists(kStoreSocket));
    EXPECT_EQ(host.ask("leave"), "(no answer; standard error: )");
    EXPECT_EQ(host.end(), 0);
}

TEST_F(StoreProcessTest, aChannelMayBeReleasedInsideItsCallback) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    for (Helper* each : {&client, &host}) {
        each->listen();
        EXPECT_EQ(each->ask("releases"), "ok");
        EXPECT_EQ(each->ask(std::string("seti ") + kLed + " 1"), "0");
        EXPECT_THAT(each->events(2), ElementsAre(event(kLed, 1), "end"));
        EXPECT_EQ(each->ask(std::string("seti ") + kLed + " 2"), "0");
        EXPECT_EQ(each->ask("release config"), "ok");
        EXPECT_THAT(each->events(2), SizeIs(2));
        each->tell("leave");
        EXPECT_EQ(each->end(), 0);
    }
}

TEST_F(StoreProcessTest, theLastObjectMayBeReleasedInsideACallback) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    Helper writer(Starts::Attached);
    for (Helper* each : {&client, &host}) {
        each->listen();
        EXPECT_EQ(each->ask("releases all"), "ok");
        EXPECT_EQ(writer.ask(std::string("seti ") + kLed + " 1"), "0");
        EXPECT_THAT(each->events(2), ElementsAre(event(kLed, 1), "end"));
        // What could not end there serves the next object.
        EXPECT_EQ(each->ask("open udp 0 0"), "ok");
        expectServing(*each);
        EXPECT_EQ(each->ask("release config"), "ok");
        each->tell("leave");
        EXPECT_EQ(each->end(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(kStoreSocket));
}

TEST_F(StoreProcessTest, theProcessMayEndWhileTheStoreRuns) {
    Helper host(Starts::Hosting);
    auto client = std::make_unique<Helper>(Starts::Attached);
    host.listen();
    client->listen();
    client->tell("leave");
    EXPECT_EQ(client->end(), 0);
    EXPECT_EQ(client->said(), "");
    client = std::make_unique<Helper>(Starts::Attached);
    client->listen();
    EXPECT_EQ(client->ask("exits"), "ok");
    client->tell(std::string("seti ") + kLed + " 1");
    EXPECT_EQ(client->end(), 1) << "exit on the store's own thread";
    EXPECT_EQ(host.ask("exits"), "ok");
    host.tell(std::string("seti ") + kLed + " 1");
    EXPECT_EQ(host.end(), 1);
    EXPECT_EQ(host.said(), "");
}

TEST_F(StoreProcessTest, valuesSurviveAKilledHostAndCommandsDoNot) {
    {
        Helper host(Starts::Hosting);
        Helper client(Starts::Attached);
        EXPECT_EQ(host.ask("seti 7b03040a 2"), "0");
        EXPECT_EQ(client.ask("sets 7b03060a Volume 1"), "0");
        EXPECT_EQ(client.ask(std::string("seti ") + kLed + " 1"), "0");
        EXPECT_EQ(client.ask("seti 7b01030a 4"), "0");
        EXPECT_EQ(client.ask("seti 7d02010a 8"), "0");
        host.signal(SIGKILL);
        EXPECT_EQ(host.end(), 128 + SIGKILL);
    }
    // What the killed one left behind: its socket and its lock's file.
    EXPECT_TRUE(std::filesystem::exists(kStoreSocket));
    for (const bool orderly : {true, false}) {
        Helper host(Starts::Hosting);
        EXPECT_EQ(host.ask("geti 7b03040a"), "0 2 2");
        EXPECT_EQ(host.ask("gets 7b03060a"), "0 Volume 1");
        EXPECT_EQ(host.ask(std::string("geti ") + kLed), "0 1 1");
        EXPECT_EQ(host.ask("geti 7b01030a"), "0 0 0");
        EXPECT_EQ(host.ask("geti 7d02010a"), "0 0 0");
        Helper client(Starts::Attached);
        EXPECT_EQ(client.ask("geti 7b03040a"), "0 2 2");
        EXPECT_EQ(client.ask("seti 7b01030a 4"), "0");
        if (orderly) {
            EXPECT_EQ(host.ask("release config"), "ok");
        }
    }
}

TEST_F(StoreProcessTest, aDamagedFileOfValuesIsOneLine) {
    std::filesystem::create_directory(kStoreDirectory);
    std::ofstream(kStoreValues) << "garbage";
    Helper host(Starts::Hosting);
    EXPECT_EQ(host.said(), "paramstore: /run/mediad/store.values is damaged: 0 records read, the rest is lost\n");
    expectServing(host);
}

TEST_F(StoreProcessTest, aStaleSocketIsReplaced) {
    std::filesystem::create_directory(kStoreDirectory);
    {
        // Bound, and its owner gone.
        const local_socket::Descriptor stale = local_socket::listenAt(kStoreSocket, kStoreSocketFresh);
        ASSERT_TRUE(stale.isOpen());
    }
    std::ofstream(kStoreSocketFresh) << "left by a host that was killed between two steps";
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    expectServing(client);
}

TEST_F(StoreProcessTest, ofManyThatWouldHostOneDoes) {
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<Helper>> all;
        for (int each = 0; each < 8; ++each) all.push_back(std::make_unique<Helper>(Starts::Bare));
        for (const auto& each : all) each->tell("create");
        for (const auto& each : all) each->tell("open udp 0 1");
        int hosts = 0;
        for (const auto& each : all) {
            EXPECT_EQ(each->answer(), "ok");
            EXPECT_EQ(each->answer(), "ok");
            if (each->ask("threads").find("store-server") != std::string::npos) ++hosts;
        }
        EXPECT_EQ(hosts, 1);
        EXPECT_EQ(all.front()->ask("seti 7e000000 " + std::to_string(round + 1)), "0");
        for (const auto& each : all)
            EXPECT_EQ(each->ask("geti 7e000000"), "0 " + std::to_string(round + 1) + " " + std::to_string(round + 1));
    }
}

TEST_F(StoreProcessTest, paramdHostsUntilItIsTold) {
    Program paramd(PARAMD);
    Helper client(Starts::Bare);
    client.ask("create");
    ASSERT_TRUE(eventually([&] { return client.ask("open udp 0 0") == "ok"; }));
    EXPECT_EQ(client.ask("seti 7e000000 1"), "0");

    Program second(PARAMD);
    EXPECT_EQ(second.end(), 1);
    EXPECT_EQ(second.said(), "paramd: another process hosts the store\n");

    paramd.signal(SIGTERM);
    EXPECT_EQ(paramd.end(), 0);
    EXPECT_EQ(paramd.said(), "");
    EXPECT_FALSE(std::filesystem::exists(kStoreSocket));

    std::filesystem::remove_all(kStoreDirectory);
    std::ofstream(kStoreDirectory) << "in the way";
    Program third(PARAMD);
    EXPECT_EQ(third.end(), 1);
    EXPECT_EQ(third.said(), "paramd: cannot open /run/mediad/store.lock: Not a directory\n");
}

TEST_F(StoreProcessTest, aLostHostIsFoundAgain) {
    auto paramd = std::make_unique<Program>(PARAMD);
    Helper client(Starts::Bare);
    client.ask("create");
    ASSERT_TRUE(eventually([&] { return client.ask("open udp 0 0") == "ok"; }));
    client.listen();
    EXPECT_EQ(client.ask("seti 7b03040a 3"), "0");
    EXPECT_EQ(client.ask("seti 7b03000a 6"), "0");
    {
        // A value that the client has never asked for.
        Helper other(Starts::Attached);
        EXPECT_EQ(other.ask("sets 7b03060a Volume 2"), "0");
    }
    EXPECT_THAT(client.events(3), SizeIs(3));

    paramd->signal(SIGKILL);
    EXPECT_EQ(paramd->end(), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return client.ask("seti 7b03040a 4") == kNobodyServes; }));
    EXPECT_EQ(client.ask("sets 7b03060a x"), kNobodyServes);
    EXPECT_EQ(client.ask("geti 7b03040a"), kNobodyServes + " 3 3");
    EXPECT_EQ(client.ask("gets 7b03060a"), kNobodyServes + " Volume 2");
    EXPECT_EQ(client.ask("geti 7b03000a"), kNobodyServes + " 6 6");
    EXPECT_EQ(client.ask("geti 12345678"), std::to_string(kConfigUnknown) + " -99 0");

    client.forgetEvents();
    paramd = std::make_unique<Program>(PARAMD);
    EXPECT_TRUE(eventually([&] { return client.ask("geti 7b03040a") == "0 3 3"; }));
    EXPECT_EQ(client.ask("geti 7b03000a"), "0 0 0") << "a command";
    EXPECT_EQ(client.ask("gets 7b03060a"), "0 Volume 2");
    EXPECT_EQ(client.ask("seti 7b03040a 1"), "0");
    EXPECT_THAT(client.events(1), ElementsAre(event("7b03040a", 1))) << "what fell back to its default raises nothing";
}

TEST_F(StoreProcessTest, setsThatWereMissedDuringALossAreHeardOnce) {
    auto paramd = std::make_unique<Program>(PARAMD);
    Helper client(Starts::Bare);
    Helper writer(Starts::Bare);
    client.ask("create");
    writer.ask("create");
    ASSERT_TRUE(eventually([&] { return client.ask("open udp 0 0") == "ok"; }));
    client.listen();
    // The next host's count of sets stays below this one's.
    EXPECT_EQ(client.ask("flood 7b01030a 1 50"), "0");
    EXPECT_THAT(client.events(50), SizeIs(50));
    // The client sees nothing of what follows until it goes on.
    client.stop();
    paramd->signal(SIGKILL);
    EXPECT_EQ(paramd->end(), 128 + SIGKILL);
    paramd = std::make_unique<Program>(PARAMD);
    ASSERT_TRUE(eventually([&] { return writer.ask("open udp 0 0") == "ok"; }));
    EXPECT_EQ(writer.ask("seti 7b01030a 1"), "0");
    EXPECT_EQ(writer.ask("seti 7b03000a 6"), "0");
    EXPECT_EQ(writer.ask("sets 7b04000a Clip 3"), "0");
    EXPECT_EQ(writer.ask("seti 7b01030a 1"), "0");
    client.forgetEvents();
    client.goOn();
    EXPECT_THAT(client.events(3), ElementsAre(event("7b03000a", 6), "7b04000a S Clip 3", event("7b01030a", 1)));
    // Tools are silent about it.
    EXPECT_EQ(client.said(), "");
    EXPECT_EQ(writer.ask("seti 7b01030a 0"), "0");
    EXPECT_THAT(client.events(4), SizeIs(4));
}

TEST_F(StoreProcessTest, theAnswerToACommandThatWasMissedReachesTheHost) {
    const std::string gone = "paramstore: the store's host is gone; trying again every second\n";
    const std::string back = "paramstore: the store is back\n";
    auto paramd = std::make_unique<Program>(PARAMD);
    ASSERT_TRUE(eventually([] { return std::filesystem::exists(kStoreSocket); }));
    // A console with room for the first line only: behind it the client stands still until somebody reads.
    int console[2];
    ASSERT_EQ(pipe2(console, O_CLOEXEC), 0);
    const local_socket::Descriptor consoleOut(console[0]);
    const local_socket::Descriptor consoleIn(console[1]);
    const std::string filling(static_cast<std::size_t>(fcntl(console[1], F_GETPIPE_SZ)) - gone.size(), '.');
    Helper client(Starts::Hosting, console[1]);
    EXPECT_THAT(client.ask("threads"), HasSubstr("store-client"));
    client.listen();
    EXPECT_EQ(client.ask("answers"), "ok");
    ASSERT_EQ(write(console[1], filling.data(), filling.size()), static_cast<ssize_t>(filling.size()));

    client.stop();
    paramd->signal(SIGKILL);
    EXPECT_EQ(paramd->end(), 128 + SIGKILL);
    paramd = std::make_unique<Program>(PARAMD);
    Helper writer(Starts::Bare);
    writer.ask("create");
    ASSERT_TRUE(eventually([&] { return writer.ask("open udp 0 0") == "ok"; }));
    EXPECT_EQ(writer.ask("seti 7b01030a 1"), "0");
    // So much behind it that whoever raises events as they come in is still busy when the listener answers.
    constexpr int kTexts = 60;
    for (int each = 0; each < kTexts; ++each)
        ASSERT_EQ(writer.ask("long " + std::to_string(61000000 + each) + " 65536"), "0");
    client.goOn();
    EXPECT_TRUE(eventually([&] { return writer.ask("geti 7b01030a") == "0 0 0"; }));

    std::string said;
    pollfd something{console[0], POLLIN, 0};
    while (!said.ends_with(back) && poll(&something, 1, 1000 * static_cast<int>(kPatience.count())) == 1) {
        char piece[4096];
        said.append(piece, static_cast<std::size_t>(std::max<ssize_t>(read(console[0], piece, sizeof piece), 0)));
    }
    EXPECT_EQ(said, filling + gone + back);
    const std::vector<std::string>& heard = client.events(kTexts + 3);
    ASSERT_THAT(heard, SizeIs(kTexts + 3));
    EXPECT_EQ(heard[0], event("7b01030a", 1));
    EXPECT_EQ(heard[1], "answered 0 0");
    EXPECT_EQ(heard[2], "61000000 L 65536");
    EXPECT_EQ(heard.back(), event("7b01030a", 0));
}

TEST_F(StoreProcessTest, aListenerThatComesWhileTheClientComesBackIsAListenerThere) {
    const FakeHost host;
    Helper client(Starts::Bare);
    client.ask("create");
    host.openChannelOnce(client);
    std::uint32_t request = 0;
    wire::Mode mode = wire::Mode::Nothing;
    StoreEntry missed;
    missed.integer = 1;
    missed.sequence = 5;
    {
        const RawClient second = host.admit(request, mode);
        ASSERT_TRUE(second.isOpen());
        EXPECT_EQ(mode, wire::Mode::Watch);
        // It has said what it wants to be, and there is no answer yet that it could come back with.
        EXPECT_EQ(client.ask("listen"), "ok");
        EXPECT_EQ(second.send(wire::value(request, kLedId, missed)), Io::Done);
        EXPECT_EQ(second.send(wire::status(request, kConfigOk)), Io::Done);
        EXPECT_TRUE(second.isClosedByHost()) << "it begins anew";
    }
    {
        const RawClient third = host.admit(request, mode);
        ASSERT_TRUE(third.isOpen());
        EXPECT_EQ(mode, wire::Mode::Listen);
        // A connection that ends among its values has told of nothing.
        EXPECT_EQ(third.send(wire::value(request, kLedId, missed)), Io::Done);
    }
    const RawClient fourth = host.admit(request, mode);
    ASSERT_TRUE(fourth.isOpen());
    EXPECT_EQ(mode, wire::Mode::Listen);
    EXPECT_EQ(fourth.send(wire::value(request, kLedId, missed)), Io::Done);
    EXPECT_EQ(fourth.send(wire::status(request, kConfigOk)), Io::Done);
    StoreEntry next = missed;
    next.integer = 2;
    next.sequence = 6;
    EXPECT_EQ(fourth.send(wire::event(kLedId, next, {})), Io::Done);
    EXPECT_THAT(client.events(2), ElementsAre(event(kLed, 1), event(kLed, 2)));
}

TEST_F(StoreProcessTest, aHostThatTellsOfMissedSetsWithoutEndFillsNoClient) {
    const FakeHost host;
    Helper client(Starts::Bare);
    client.ask("create");
    host.openChannelOnce(client);
    EXPECT_EQ(client.ask("listen"), "ok");
    std::uint32_t request = 0;
    wire::Mode mode = wire::Mode::Nothing;
    // First numbers, then texts: as many, and as much, as a store holds, and each time anew.
    for (unsigned round = 0; round < 3; ++round) {
        const bool texts = round > 0;
        client.forgetEvents();
        const std::size_t most = texts ? StoreEngine::kMostTextBytes / kLongestString : StoreEngine::kMostIdentifiers;
        RawClient connection = host.admit(request, mode);
        while (connection.isOpen() && mode != wire::Mode::Listen) connection = host.admit(request, mode);
        ASSERT_TRUE(connection.isOpen());
        const auto send = [&](const wire::Packet& packet) {
            const auto deadline = std::chrono::steady_clock::now() + kPatience;
            Io result = Io::Again;
            while ((result = connection.send(packet)) == Io::Again)
                if (local_socket::waitToSend(connection.number(), deadline) == Io::Again) break;
            return result;
        };
        StoreEntry entry;
        entry.type = texts ? ParameterType::String : ParameterType::Integer;
        if (texts) entry.text.assign(kLongestString, 'x');
        for (entry.sequence = 10000 * round + 1; entry.sequence % 10000 <= most + 100; ++entry.sequence)
            ASSERT_EQ(send(wire::value(request, texts ? kLedId + 1 : kLedId, entry)), Io::Done);
        EXPECT_EQ(send(wire::status(request, kConfigOk)), Io::Done);
        EXPECT_EQ(send(wire::event(kParamAlarms, {}, {})), Io::Done);
        const std::vector<std::string>& heard = client.events(most + 1);
        ASSERT_THAT(heard, SizeIs(most + 1));
        EXPECT_EQ(heard.back(), event("7e000000", 0)) << "and nothing in between";
    }
}

TEST_F(StoreProcessTest, aDaemonTellsOfALostHost) {
    auto paramd = std::make_unique<Program>(PARAMD);
    ASSERT_TRUE(eventually([] { return std::filesystem::exists(kStoreSocket); }));
    Helper client(Starts::Hosting);
    EXPECT_THAT(client.ask("threads"), HasSubstr("store-client"));
    paramd->signal(SIGTERM);
    EXPECT_EQ(paramd->end(), 0);
    EXPECT_TRUE(eventually(
        [&] { return client.said() == "paramstore: the store's host is gone; trying again every second\n"; }));
    paramd = std::make_unique<Program>(PARAMD);
    EXPECT_TRUE(eventually([&] { return lines(client.said()) == 2; }));
    EXPECT_THAT(client.said(), HasSubstr("\nparamstore: the store is back\n"));
}

TEST_F(StoreProcessTest, aHostThatDoesNotAnswerIsAsGoodAsGone) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    EXPECT_EQ(host.ask("seti 7e000000 3"), "0");
    EXPECT_EQ(client.ask("geti 7e000000"), "0 3 3");
    host.stop();
    EXPECT_EQ(client.ask("seti 7e000000 4"), kNobodyServes);
    EXPECT_EQ(client.ask("geti 7e000000"), kNobodyServes + " 3 3");
    host.goOn();
    EXPECT_TRUE(eventually([&] { return client.ask("seti 7e000000 5") == "0"; }));
    EXPECT_EQ(host.ask("geti 7e000000"), "0 5 5");
}

TEST_F(StoreProcessTest, rootAndItsGroupWriteAndOthersRead) {
    {
        Helper probe(Starts::Bare);
        if (probe.ask("become 65534 65534") != "ok") GTEST_SKIP() << "this world has one user only";
    }
    std::ofstream("/tmp/group") << "root:x:0:\nmediad:x:4242:\n";
    ASSERT_EQ(mount("/tmp/group", "/etc/group", nullptr, MS_BIND, nullptr), 0);
    Helper host(Starts::Hosting);
    EXPECT_EQ(host.ask("seti 7e000000 7"), "0");
    const auto attachedAs = [](const std::string& who) {
        auto helper = std::make_unique<Helper>(Starts::Bare);
        EXPECT_EQ(helper->ask("become " + who), "ok");
        EXPECT_EQ(helper->ask("create"), "ok");
        EXPECT_EQ(helper->ask("open udp 0 0"), "ok");
        return helper;
    };
    const auto nobody = attachedAs("65534 65534 100 101");
    nobody->listen();
    EXPECT_EQ(nobody->ask("seti 7e000000 1"), kNotPermitted);
    EXPECT_EQ(nobody->ask("sets 7b04000a x"), kNotPermitted);
    EXPECT_EQ(nobody->ask("geti 7e000000"), "0 7 7");
    EXPECT_EQ(attachedAs("65534 4242")->ask("seti 7e000000 8"), "0") << "the group is its own";
    std::string many;
    for (int each = 1000; each < 1100; ++each) many += " " + std::to_string(each);
    EXPECT_EQ(attachedAs("65534 65534 100 4242")->ask("seti 7e000000 9"), "0") << "the group is one of its groups";
    EXPECT_EQ(attachedAs("65534 65534" + many + " 4242")->ask("seti 7e000000 10"), "0") << "one of very many";
    EXPECT_EQ(attachedAs("65534 65534" + many)->ask("seti 7e000000 11"), kNotPermitted);
    EXPECT_THAT(nobody->events(3), ElementsAre(event("7e000000", 8), event("7e000000", 9), event("7e000000", 10)));
    umount("/etc/group");
}

TEST_F(StoreProcessTest, oneUserThatMayOnlyReadCannotTakeEveryConnection) {
    Helper host(Starts::Hosting);
    if (seteuid(65534) != 0) GTEST_SKIP() << "this world has one user only";
    std::vector<RawClient> clients(StoreServer::kMostPerReader);
    for (const RawClient& each : clients) EXPECT_TRUE(each.greet());
    EXPECT_FALSE(RawClient().greet());
    for (const RawClient& each : clients) {
        EXPECT_EQ(each.send(wire::get(1, kParamAlarms)), Io::Done);
        EXPECT_FALSE(each.receive().empty());
    }
    ASSERT_EQ(seteuid(0), 0);
    Helper client(Starts::Attached);
    expectServing(client);
}

TEST_F(StoreProcessTest, aWatcherHearsWhatItAskedFor) {
    EXPECT_EQ(StoreWatcher::connect({}), nullptr) << "nobody serves";
    auto host = std::make_unique<Helper>(Starts::Hosting);
    EXPECT_EQ(host->ask(std::string("seti ") + kLed + " 1"), "0");
    const auto all = StoreWatcher::connect({});
    const auto some = StoreWatcher::connect({kLedId, kParamClipName});
    ASSERT_NE(all, nullptr);
    ASSERT_NE(some, nullptr);
    ConfigEvent heard{};
    EXPECT_EQ(all->next(heard, 0), StoreWatcher::Result::Timeout) << "nothing from before";
    EXPECT_EQ(host->ask("seti 7e000000 -2"), "0");
    EXPECT_EQ(host->ask("sets 7b04000a Clip 1"), "0");
    EXPECT_EQ(host->ask(std::string("seti ") + kLed + " 1"), "0");

    ASSERT_EQ(all->next(heard, -1), StoreWatcher::Result::Event);
    EXPECT_EQ(heard.id, kParamAlarms);
    EXPECT_TRUE(heard.isInteger);
    EXPECT_EQ(heard.integer, -2);
    EXPECT_NEAR(static_cast<double>(heard.when.tv_sec), static_cast<double>(time(nullptr)), 600);
    for (StoreWatcher* each : {all.get(), some.get()}) {
        ASSERT_EQ(each->next(heard, 60000), StoreWatcher::Result::Event);
        EXPECT_EQ(heard.id, kParamClipName);
        EXPECT_FALSE(heard.isInteger);
        EXPECT_EQ(heard.text, "Clip 1");
        ASSERT_EQ(each->next(heard, 60000), StoreWatcher::Result::Event);
        EXPECT_EQ(heard.id, kLedId);
        EXPECT_EQ(heard.integer, 1);
    }
    host->signal(SIGKILL);
    host->end();
    EXPECT_EQ(all->next(heard, 60000), StoreWatcher::Result::Lost);
}

TEST_F(StoreProcessTest, aSignalInterruptsAWatcher) {
    Helper host(Starts::Hosting);
    const auto watcher = StoreWatcher::connect({});
    ASSERT_NE(watcher, nullptr);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    ConfigEvent heard{};
    EXPECT_EQ(watcher->next(heard, -1), StoreWatcher::Result::Interrupted);
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST_F(StoreProcessTest, aSlowWatcherLosesNoLastValueAndIsToldToResync) {
    constexpr int kSets = 20000;
    Helper host(Starts::Hosting);
    const auto watcher = StoreWatcher::connect({});
    ASSERT_NE(watcher, nullptr);
    EXPECT_EQ(host.ask("sets 7b04000a first"), "0");
    EXPECT_EQ(host.ask(std::string("flood ") + kLed + " 1 " + std::to_string(kSets)), "0");
    EXPECT_EQ(host.ask("seti 7e000000 5"), "0");
    constexpr int kLast = kSets + 1;
    EXPECT_EQ(host.ask(std::string("seti ") + kLed + " " + std::to_string(kLast)), "0");

    ConfigEvent heard{};
    std::map<eParam_t, int> last;
    std::string text;
    int events = 0;
    int resyncs = 0;
    int before = 0;
    while (last[kLedId] != kLast || last[kParamAlarms] != 5 || resyncs == 0) {
        const StoreWatcher::Result result = watcher->next(heard, 60000);
        if (result == StoreWatcher::Result::Resync) {
            ++resyncs;
            continue;
        }
        ASSERT_EQ(result, StoreWatcher::Result::Event);
        ++events;
        if (!heard.isInteger) {
            text = heard.text;
            continue;
        }
        last[heard.id] = heard.integer;
        if (heard.id != kLedId) continue;
        // Around a Resync the same value may come twice: as the newest that there is, and as the change that made it.
        EXPECT_GE(heard.integer, before) << "never back to an older value";
        before = heard.integer;
    }
    EXPECT_EQ(text, "first");
    EXPECT_GE(resyncs, 1);
    EXPECT_LE(resyncs, kSets / static_cast<int>(StoreServer::kWatcherEvents) + 1);
    EXPECT_LT(events, kSets / 2);
    EXPECT_EQ(watcher->next(heard, 0), StoreWatcher::Result::Timeout);
    // It goes on as a watcher that keeps up: every event, no Resync.
    for (int each = 0; each < 100; ++each) {
        EXPECT_EQ(host.ask(std::string("seti ") + kLed + " " + std::to_string(each)), "0");
        ASSERT_EQ(watcher->next(heard, 60000), StoreWatcher::Result::Event);
        EXPECT_EQ(heard.integer, each);
    }
}

TEST_F(StoreProcessTest, aSlowWatcherThatBecomesAListenerHearsEverySetFromThenOn) {
    constexpr int kSets = 20000;
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    const RawClient watcher;
    ASSERT_TRUE(watcher.greet());
    EXPECT_EQ(watcher.send(wire::subscribe(2, {wire::Mode::Watch, false, {}})), Io::Done);
    EXPECT_EQ(watcher.receive(), wire::status(2, kConfigOk));
    EXPECT_EQ(host.ask("sets 7b04000a first"), "0");
    EXPECT_EQ(host.ask(std::string("flood ") + kLed + " 1 " + std::to_string(kSets)), "0");
    EXPECT_EQ(watcher.send(wire::subscribe(3, {wire::Mode::Listen, false, {}})), Io::Done);
    // When a later request has been answered and then another, the one before them has been read.
    for (int each = 0; each < 2; ++each) EXPECT_EQ(client.ask("geti 7e000000"), "0 0 0");
    EXPECT_EQ(host.ask(std::string("seti ") + kLed + " " + std::to_string(kSets + 1)), "0");
    EXPECT_EQ(host.ask("sets 7b04000a second"), "0");
    EXPECT_EQ(host.ask(std::string("seti ") + kLed + " " + std::to_string(kSets + 2)), "0");

    const auto next = [&] {
        wire::Value heard;
        const wire::Packet packet = watcher.receive();
        EXPECT_TRUE(wire::readEvent(packet.data(), packet.size(), heard));
        return heard;
    };
    int last = 0;
    int times = 0;
    std::string text;
    for (wire::Packet packet = watcher.receive(); packet != wire::status(3, kConfigOk); packet = watcher.receive()) {
        wire::Header header{};
        wire::Value heard;
        ASSERT_TRUE(wire::readHeader(packet.data(), packet.size(), header));
        if (header.type == wire::Type::Resync) continue;
        ASSERT_TRUE(header.type == wire::Type::Event && wire::readEvent(packet.data(), packet.size(), heard));
        if (heard.entry.type == ParameterType::String) {
            text = heard.entry.text;
            continue;
        }
        // The same one may come twice while it is a watcher's queue, as the newest that there is and as its own change.
        EXPECT_GE(heard.entry.integer, last) << "never back to an older value";
        last = heard.entry.integer;
        if (last == kSets) ++times;
    }
    EXPECT_EQ(text, "first");
    EXPECT_EQ(times, 1) << "the last value stands for all that was queued";
    EXPECT_EQ(last, kSets) << "what was set before it listened, and nothing of later";
    EXPECT_EQ(next().entry.integer, kSets + 1);
    EXPECT_EQ(next().entry.text, "second");
    EXPECT_EQ(next().entry.integer, kSets + 2);
}

TEST_F(StoreProcessTest, aClientThatNeverReadsHoldsNobodyUp) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    EXPECT_EQ(client.ask("long 7b04000a 65536"), "0");
    const RawClient greedy;
    ASSERT_TRUE(greedy.greet());
    // As many requests as fit; their answers would be a thousand times as large.
    std::size_t sent = 0;
    const auto fill = [&] {
        while (greedy.send(wire::get(1, kParamClipName)) == Io::Done) ++sent;
    };
    EXPECT_TRUE(eventually([&] {
        fill();
        const std::size_t before = sent;
        // Asleep beside a full queue, the host has taken what it is going to take.
        const bool hostRests = host.isAsleep();
        fill();
        return hostRests && sent == before;
    }));
    expectServing(client);
    for (int each = 0; each < 200; ++each) ASSERT_EQ(host.ask("long 7b04000a 65536"), "0");
    // It is served again when it reads.
    for (std::size_t each = 0; each < sent; ++each) ASSERT_FALSE(greedy.receive().empty());
    expectServing(client);
}

TEST_F(StoreProcessTest, whatIsNoRequestEndsItsConnectionOnly) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    const RawClient polite;
    ASSERT_TRUE(polite.greet());

    wire::Packet truncated = wire::get(1, kParamAlarms);
    truncated.pop_back();
    wire::Packet otherVersion = wire::get(1, kParamAlarms);
    otherVersion[1] = 9;
    wire::Packet noSuchType = wire::get(1, kParamAlarms);
    noSuchType[3] = 77;
    wire::Packet noSuchMode = wire::subscribe(1, {wire::Mode::Watch, false, {}});
    noSuchMode[wire::kHeaderSize + 3] = 9;
    wire::Packet oddList = wire::subscribe(1, {wire::Mode::Watch, false, {1}});
    oddList.push_back(0);
    wire::Packet tooLarge = wire::setString(1, kParamClipName, std::string(wire::kLargestPacket, 'x'));
    for (const wire::Packet& bad :
         {wire::Packet(), wire::Packet(1, 0), truncated, otherVersion, noSuchType, noSuchMode, oddList, tooLarge,
          wire::hello(1), wire::status(1, 0), wire::event(kParamAlarms, {}, {}),
          wire::subscribe(1, {wire::Mode::Watch, false, std::vector<eParam_t>(StoreEngine::kMostIdentifiers + 1)})}) {
        const RawClient rude;
        ASSERT_TRUE(rude.greet());
        EXPECT_EQ(rude.send(bad), Io::Done);
        EXPECT_TRUE(rude.isClosedByHost());
    }
    // The first packet is the greeting, and nothing else.
    for (const wire::Packet& first : {wire::get(1, kParamAlarms), wire::setInteger(1, kParamAlarms, 1)}) {
        const RawClient rude;
        EXPECT_EQ(rude.send(first), Io::Done);
        EXPECT_TRUE(rude.isClosedByHost());
    }
    EXPECT_EQ(client.ask("geti 7e000000"), "0 0 0");
    // A string beyond the limit inside a whole packet is refused, and so is a NUL.
    for (const std::string& text : {std::string(kLongestString + 1, 'x'), std::string(1, '\0')}) {
        EXPECT_EQ(polite.send(wire::setString(5, kParamClipName, text)), Io::Done);
        EXPECT_EQ(polite.receive(), wire::status(5, kConfigRefused));
    }
    // So is a deletion request that a shell would act on.
    EXPECT_EQ(polite.send(wire::setString(5, kParamClipsToDelete, "a.mov|$(reboot)")), Io::Done);
    EXPECT_EQ(polite.receive(), wire::status(5, kConfigRefused));
    expectServing(client);
    expectServing(host);
}

TEST_F(StoreProcessTest, aDeletionRequestThatIsNotAllowedIsRefusedWhoeverWritesIt) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    Helper listener(Starts::Attached);
    listener.listen();
    for (Helper* writer : {&host, &client}) {
        EXPECT_EQ(writer->ask("sets 7b01000a a.mov|*"), "0");
        for (const std::string request : {"a.mov|-rf", "a\"b", "a\\b", "$a", "`a`", "a\tb", "..", "a/b"})
            EXPECT_EQ(writer->ask("sets 7b01000a " + request), kRefused) << request;
        EXPECT_EQ(writer->ask("gets 7b01000a"), "0 a.mov|*");
    }
    // Nothing of the refused ones was heard in between.
    EXPECT_EQ(client.ask("seti 51515151 7"), "0");
    EXPECT_THAT(listener.events(3), ElementsAre("7b01000a S a.mov|*", "7b01000a S a.mov|*", event("51515151", 7)));
}

TEST_F(StoreProcessTest, randomPacketsChangeNothing) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    EXPECT_EQ(client.ask("seti 7e000000 42"), "0");
    // Reads and subscriptions, bent; no packet that could be a set.
    const std::vector<wire::Packet> seeds = {wire::hello(1), wire::get(1, kParamAlarms), wire::resync(),
                                             wire::subscribe(1, {wire::Mode::Watch, true, {1, 2}}),
                                             wire::subscribe(2, {wire::Mode::Listen, true, {}}), wire::status(1, 0)};
    std::mt19937 random(63110);
    for (int connection = 0; connection < 500; ++connection) {
        const RawClient rude;
        ASSERT_TRUE(rude.isOpen());
        if (random() % 4 != 0) rude.send(wire::hello(1));
        for (unsigned packets = random() % 8; packets > 0; --packets) {
            wire::Packet packet = seeds[random() % seeds.size()];
            for (unsigned change = random() % 4; change > 0; --change)
                packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
            packet.resize(random() % (packet.size() + 8));
            const bool couldBeASet = packet.size() > 3 && packet[2] == 0 && (packet[3] == 3 || packet[3] == 4);
            if (couldBeASet || rude.send(packet) == Io::Closed) break;
        }
    }
    EXPECT_EQ(client.ask("geti 7e000000"), "0 42 42");
    expectServing(client);
    EXPECT_EQ(host.said(), "");
}

TEST_F(StoreProcessTest, thousandsOfConnectionsThatSayNothingKeepNobodyOut) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::size_t atOnce = std::min<std::size_t>(limit.rlim_cur - 300, 700);
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    const std::vector<RawClient> first(StoreServer::kMostConnections);
    std::deque<RawClient> open;
    for (int each = 0; each < 3000; ++each) {
        open.emplace_back();
        ASSERT_TRUE(open.back().isOpen());
        if (open.size() > atOnce) open.pop_front();
    }
    expectServing(client);
    Helper newcomer(Starts::Attached);
    expectServing(newcomer);
}

TEST_F(StoreProcessTest, whenAllConnectionsAreTakenTheOthersGoOn) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    std::vector<RawClient> clients(StoreServer::kMostConnections - 1);
    for (const RawClient& each : clients) ASSERT_TRUE(each.greet());
    EXPECT_FALSE(RawClient().greet());
    expectServing(client);
    clients.pop_back();
    EXPECT_TRUE(eventually([] { return RawClient().greet(); }));
}

TEST_F(StoreProcessTest, aHostWithoutDescriptorsLeftServesOn) {
    Helper host(Starts::Bare);
    rlimit few{24, 24};
    ASSERT_EQ(prlimit(host.process(), RLIMIT_NOFILE, &few, nullptr), 0);
    host.ask("create");
    ASSERT_EQ(host.ask("open udp 0 1"), "ok");
    Helper client(Starts::Attached);
    // Also before: the undefined-behaviour sanitizer needs a descriptor when it first sees a kind of object.
    expectServing(client);
    {
        std::vector<RawClient> clients(60);
        expectServing(client);
    }
    EXPECT_TRUE(eventually([] { return RawClient().greet(); }));
    expectServing(client);
}

TEST_F(StoreProcessTest, halfDeadClientsAreForgotten) {
    Helper host(Starts::Hosting);
    Helper client(Starts::Attached);
    const RawClient silent;
    const RawClient half;
    ASSERT_TRUE(half.greet());
    EXPECT_EQ(half.send(wire::subscribe(1, {wire::Mode::Listen, false, {}})), Io::Done);
    EXPECT_FALSE(half.receive().empty());
    shutdown(half.number(), SHUT_RD);
    for (int each = 0; each < 50; ++each) expectServing(client);
    shutdown(half.number(), SHUT_WR);
    for (int each = 0; each < 50; ++each) expectServing(client);
    EXPECT_TRUE(silent.isClosedByHost()) << "after the time in which it should have said something";
    expectServing(client);
}
