// acquire, release, slot next, remount and shutdown, with a stand-in that answers, refuses or keeps silent.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "recorder.h"

namespace {

constexpr char kMediaCommand[] = "0x7b01030a";
constexpr char kSlotChange[] = "0x7b03000a";

std::string rule(const std::string& when, int value, const std::string& then, int answer) {
    return when + "=" + std::to_string(value) + ":" + then + "=" + std::to_string(answer);
}

std::string start(const std::string& parameter, int value) {
    return "start:" + parameter + "=" + std::to_string(value);
}

struct Requests : Recorder {
    static void expectDone(const Result& result) {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output + result.errors, "");
    }
};

TEST_F(Requests, acquireIsDoneWhenTheCommandIsAcknowledged) {
    // The counting parameter shows that it was 1 and nothing else that was posted.
    serve({rule(kMediaCommand, 1, "0x5c000001", 1), rule(kMediaCommand, 1, kMediaCommand, 0)});
    expectDone(mediactl({"acquire"}));
    EXPECT_EQ(value(kMediaCommand), "0");
    EXPECT_EQ(value("0x5c000001"), "1");
}

TEST_F(Requests, releaseIsDoneWhenTheCommandIsAcknowledged) {
    serve({rule(kMediaCommand, 2, "0x5c000001", 2), rule(kMediaCommand, 2, kMediaCommand, 0)});
    expectDone(mediactl({"release"}));
    EXPECT_EQ(value("0x5c000001"), "2");
}

TEST_F(Requests, anAcknowledgementThatNeverComesIsAFailure) {
    serve();
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "did not answer within 1 seconds");
    expectFailure(mediactl({"release", "--timeout", "0"}), 1, "did not answer within 0 seconds");
    EXPECT_EQ(value(kMediaCommand), "2");
}

TEST_F(Requests, aStandingCommandIsNotMistakenForTheAnswer) {
    serve({start(kMediaCommand, 1)});
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "did not answer");
}

TEST_F(Requests, anEraseThatNobodyHasTakenUpIsNotOverwritten) {
    serve({start(kMediaCommand, 4), rule(kMediaCommand, 1, kMediaCommand, 0)});
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "erase");
    EXPECT_EQ(value(kMediaCommand), "4");
}

TEST_F(Requests, acquireGoesAheadWhenTheEraseIsTakenUp) {
    serve({start(kMediaCommand, 4), rule(kMediaCommand, 1, kMediaCommand, 0)});
    Program acquire(commandLine(MEDIACTL, {"acquire"}));
    mediactl({"set", kMediaCommand, "0"});
    EXPECT_EQ(acquire.wait(), 0) << acquire.errors();
}

TEST_F(Requests, manyClientsAtOnceAllGetTheirAcknowledgement) {
    serve({rule(kMediaCommand, 1, kMediaCommand, 0), rule(kMediaCommand, 2, kMediaCommand, 0)});
    std::vector<std::unique_ptr<Program>> clients;
    for (int i = 0; i < 8; ++i)
        clients.push_back(std::make_unique<Program>(commandLine(MEDIACTL, {i % 2 == 0 ? "acquire" : "release"})));
    for (const auto& client : clients) EXPECT_EQ(client->wait(), 0) << client->errors();
}

TEST_F(Requests, aStoreThatGoesAwayBeforeTheAnswerIsNoSuccess) {
    serve({std::string(kMediaCommand) + "=1:end"});
    expectFailure(mediactl({"acquire"}), 3, "nobody serves the parameter store any more");
}

TEST_F(Requests, slotNextIsDoneWhenTheRequestIsCleared) {
    // What stands from an earlier request must not be taken for the answer.
    serve({start(kSlotChange, 15), rule(kSlotChange, 6, kSlotChange, 0)});
    expectDone(mediactl({"slot", "next"}));
    EXPECT_EQ(value(kSlotChange), "0");
}

TEST_F(Requests, slotNextWaitsForTheAnswerAndNotForTheOldOne) {
    serve({start(kSlotChange, 0)});
    expectFailure(mediactl({"slot", "next", "--timeout", "1"}), 1, "did not answer");
    EXPECT_EQ(value(kSlotChange), "6");
}

TEST_F(Requests, slotNextIsLostWithTheStore) {
    serve({std::string(kSlotChange) + "=6:end"});
    expectFailure(mediactl({"slot", "next"}), 3, "nobody serves the parameter store any more");
}

struct RefusalRow {
    int answer;
    const char* words;
};
std::ostream& operator<<(std::ostream& out, const RefusalRow& row) { return out << row.answer; }
struct Refusals : Requests, testing::WithParamInterface<RefusalRow> {};

TEST_P(Refusals, areToldInWords) {
    serve({rule(kSlotChange, 6, kSlotChange, GetParam().answer)});
    expectFailure(mediactl({"slot", "next"}), 1, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Rows, Refusals,
                         testing::Values(RefusalRow{10, "unformatted"}, RefusalRow{11, "damaged"},
                                         RefusalRow{14, "could not be unmounted"}, RefusalRow{15, "in use"},
                                         RefusalRow{99, "99"}));

TEST_F(Requests, remountPostsTwoAndDoesNotWait) {
    serve();
    expectDone(mediactl({"remount"}));
    EXPECT_EQ(value("kParamSlotRemountCommand"), "2");
}

constexpr char kSystemCommand[] = "0x7d02010a";
constexpr char kDaemonStatus[] = "0x7d07000a";

TEST_F(Requests, shutdownIsDoneWhenTheDaemonHasCleanedUp) {
    serve(
        {start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5), rule(kDaemonStatus, 5, kDaemonStatus, 6)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "0") << "or it ends the next daemon as well";
}

TEST_F(Requests, shutdownDoesNotTakeAnothersCommandBack) {
    serve({start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5), rule(kDaemonStatus, 5, kSystemCommand, 3),
           rule(kDaemonStatus, 5, kDaemonStatus, 6)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "3");
}

TEST_F(Requests, shutdownIsDoneWhenTheStoreGoes) {
    serve({start(kDaemonStatus, 3), std::string(kDaemonStatus) + "=5:end"});
    Program shutdown(commandLine(MEDIACTL, {"shutdown"}));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (value(kSystemCommand) != "8" && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    // The request is answered by now.
    mediactl({"set", kDaemonStatus, "5"});
    const int status = shutdown.wait();
    expectDone({status, shutdown.output(), shutdown.errors()});
}

TEST_F(Requests, shutdownIsNotDoneWhileTheDaemonStillCleansUp) {
    serve({start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5)});
    expectFailure(mediactl({"shutdown", "--timeout", "1"}), 1, "did not answer");
    EXPECT_EQ(value(kSystemCommand), "8");
}

TEST_F(Requests, shutdownOfADaemonThatIsDownIsDoneAtOnceAndPostsNothing) {
    serve({start(kDaemonStatus, 6), start(kSystemCommand, 3), rule(kSystemCommand, 8, "0x5c000001", 8)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "3");
}

TEST_F(Requests, shutdownOfADaemonThatIsDownTakesBackWhatStands) {
    serve({start(kDaemonStatus, 6), start(kSystemCommand, 8)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "0");
}

// A store's host that answers its clients one after the other.
class BriefHost {
public:
    enum Packet : unsigned char { Hello = 1, Get = 2, SetInteger = 3, Subscribe = 5, Welcome = 32, Status = 33 };

    BriefHost() : _listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories("/run/mediad");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        kSocket.copy(address.sun_path, kSocket.size());
        const timeval patience{60, 0};
        EXPECT_EQ(setsockopt(_listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
        EXPECT_EQ(bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(_listener, 8), 0);
    }
    ~BriefHost() { leave(); }
    BriefHost(const BriefHost&) = delete;
    BriefHost& operator=(const BriefHost&) = delete;

    // Takes the next client and answers it up to a packet of this type; that one only if it is to be answered.
    void serve(Packet last, bool answered) {
        const int client = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(client, 0);
        _clients.push_back(client);
        for (bool atEnd = false; !atEnd;) {
            pollfd waiting{client, POLLIN, 0};
            ASSERT_EQ(poll(&waiting, 1, 60'000), 1);
            unsigned char packet[4096];
            ASSERT_GE(recv(client, packet, sizeof packet, 0), 8);
            atEnd = packet[3] == last;
            if (!atEnd || answered) answer(client, packet);
        }
    }

    // From one moment to the next.
    void leave() {
        unlink(kSocket.c_str());
        for (const int client : _clients) close(client);
        _clients.clear();
        if (_listener >= 0) close(_listener);
        _listener = -1;
    }

private:
    inline static const std::string kSocket = "/run/mediad/store.sock";

    // Nobody has written anything yet, and everybody may.
    static void answer(int client, const unsigned char* packet) {
        std::vector<unsigned char> answer{0, 1, 0, packet[3] == Hello ? Welcome : Status};
        answer.insert(answer.end(), packet + 4, packet + 8);
        const std::vector<unsigned char> welcome{0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 1};
        const std::vector<unsigned char> unknown{0xff, 0xff, 0xff, 0xfb};
        const std::vector<unsigned char> done{0, 0, 0, 0};
        const std::vector<unsigned char>& body = packet[3] == Hello ? welcome : packet[3] == Get ? unknown : done;
        answer.insert(answer.end(), body.begin(), body.end());
        EXPECT_EQ(send(client, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
    }

    int _listener;
    std::vector<int> _clients;
};

TEST_F(Requests, shutdownIsNotDoneWhenTheStoreGoesBeforeItHasTheRequest) {
    BriefHost host;
    Program shutdown(commandLine(MEDIACTL, {"shutdown"}));
    host.serve(BriefHost::Subscribe, true); // the watcher
    host.serve(BriefHost::SetInteger, false);
    host.leave();
    const int status = shutdown.wait();
    expectFailure({status, shutdown.output(), shutdown.errors()}, 3, "nobody serves the parameter store any more");
}

} // namespace
