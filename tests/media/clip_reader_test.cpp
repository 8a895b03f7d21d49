// The process that looks into clips: what it costs when it fails or is hostile, that it has no rights, and that it is
// gone when it should be.

#include "platform/pellix/clips/clip_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <limits>
#include <thread>

#include "clip_examiner.h"
#include "clip_finder.h"
#include "media/media_cache.h"
#include "parameters.h"
#include "platform/pellix/clip_probe/confinement.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"
#include "tests/pellix/child.h"

using nevo::media::ClipExaminer;
using nevo::media::MediaCache;
using namespace clipfiles;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using clipfiles::writeFile;
using Outcome = ClipReader::Outcome;
using Outcomes = std::vector<Outcome>;

constexpr char kStrangeFolder[] = "/tmp/strange";

// The children of this process, whatever state they are in.
std::vector<pid_t> children() {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && statusOf(process, "PPid") == std::to_string(getpid())) found.push_back(process);
    }
    return found;
}

bool isThere(pid_t process) {
    const std::string state = statusOf(process, "State");
    return !state.empty() && state[0] != 'Z';
}

void endChildren() {
    for (const pid_t child : children()) {
        kill(child, SIGKILL);
        // All of its threads: an emulator has some beside the program's, and the last one closes the socket.
        EXPECT_TRUE(eventually([&] {
            siginfo_t info{};
            return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == child;
        }));
    }
}

class ClipReaderTest : public SegmentTest {
protected:
    void SetUp() override {
        SegmentTest::SetUp();
        std::filesystem::remove_all(kStrangeFolder);
        std::filesystem::create_directory(kStrangeFolder);
        ClipFinder(&_config).flushAll();
        for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) unlink(name);
        _descriptors = openDescriptors();
    }
    void TearDown() override {
        EXPECT_THAT(children(), ElementsAre());
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
        EXPECT_EQ(openDescriptors(), _descriptors);
        ClipWorker::program() = _program;
        ClipReader::patience() = _patience;
        SegmentTest::TearDown();
    }

    // From here on files say what the worker does.
    static void useStrangeWorker() { ClipWorker::program() = MEDIAD_TEST_STRANGE_WORKER; }
    static std::size_t strangeWorkers() {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(kStrangeFolder))
            if (entry.path().filename() != "once") ++count;
        return count;
    }

    std::string nameOf(std::size_t i) const { return at("clip_" + std::to_string(1000 + i) + ".mov"); }
    // Files with these contents, read in their order.
    Outcomes read(const std::vector<std::string>& contents) {
        Outcomes outcomes;
        std::size_t expected = 0;
        testing::internal::CaptureStderr();
        {
            ClipReader reader;
            for (std::size_t i = 0; i < contents.size(); ++i) {
                writeFile(nameOf(i), contents[i]);
                reader.read(std::make_unique<ClipFile>(nameOf(i)), nameOf(i),
                            [&, i](Outcome outcome, const ClipFile& file, const QuickTimeHeader& header) {
                                EXPECT_EQ(i, expected++) << "out of order";
                                EXPECT_EQ(file.size(), static_cast<std::int64_t>(contents[i].size()));
                                EXPECT_EQ(header.frames > 0, outcome == Outcome::Usable);
                                outcomes.push_back(outcome);
                            });
            }
            reader.finish();
        }
        _said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(outcomes.size(), contents.size());
        return outcomes;
    }
    // `count` files of which one has an order; the others are good.
    Outcomes readWithOne(const std::string& order, std::size_t count, std::size_t one) {
        std::vector<std::string> contents(count, "good");
        contents[one] = order;
        return read(contents);
    }
    Outcomes allBut(std::size_t count, std::size_t one) {
        Outcomes outcomes(count, Outcome::Usable);
        outcomes[one] = Outcome::NotUsable;
        return outcomes;
    }
    std::string complaint(std::size_t i, const std::string& what) const {
        return " cannot look into " + nameOf(i) + ": " + what + "\n";
    }

    std::string _said;
    fakes::Journal _journal;
    fakes::FakeConfig _config{_journal};
    const std::string _program = ClipWorker::program();
    const std::chrono::milliseconds _patience = ClipReader::patience();
    std::size_t _descriptors = 0;
};

// ---- a worker that keeps the rules

TEST_F(ClipReaderTest, NumbersOfClipsAroundABatchAreAllAnsweredInOrder) {
    useStrangeWorker();
    for (const std::size_t count : {0U, 1U, 2U, 31U, 32U, 33U, 63U, 64U, 65U, 200U}) {
        std::vector<std::string> contents(count, "good");
        Outcomes expected(count, Outcome::Usable);
        for (std::size_t i = 0; i < count; i += 3) {
            contents[i] = "useless";
            expected[i] = Outcome::NotUsable;
        }
        const std::size_t before = strangeWorkers();
        EXPECT_EQ(read(contents), expected) << count;
        EXPECT_EQ(_said, "");
        EXPECT_EQ(strangeWorkers() - before, count == 0 ? 0U : 1U) << "one serves all, and none where nothing is read";
    }
}

TEST_F(ClipReaderTest, AFinishedReaderMayReadOn) {
    useStrangeWorker();
    writeFile(at("a"), "good");
    int read = 0;
    ClipReader reader;
    for (int i = 1; i <= 3; ++i) {
        reader.read(std::make_unique<ClipFile>(at("a")), at("a"), [&](Outcome outcome, const ClipFile&, const auto&) {
            if (outcome == Outcome::Usable) ++read;
        });
        reader.finish();
        EXPECT_EQ(read, i);
    }
    EXPECT_EQ(strangeWorkers(), 1U);
}

TEST_F(ClipReaderTest, AScanAndWhatIsAddedMeanwhileTakeOneWorker) {
    useStrangeWorker();
    for (std::size_t i = 0; i < 100; ++i) writeFile(nameOf(i), "good");
    {
        ClipFinder finder(&_config);
        finder.scanMedia(_folder);
        EXPECT_EQ(RawSegment(kClipSegment).clips().size(), 100U);
        for (std::size_t i = 100; i < 110; ++i) {
            writeFile(nameOf(i), "good");
            int index = -1;
            EXPECT_TRUE(MediaCache("NewCache").AddClip(nameOf(i), 1, index, false));
        }
        EXPECT_EQ(strangeWorkers(), 1U);
        EXPECT_EQ(children().size(), 1U);
    }
    EXPECT_THAT(children(), ElementsAre());
    // Without one it is there for the one clip only.
    Clip clip{};
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, nameOf(0), false));
    EXPECT_EQ(strangeWorkers(), 2U);
}

TEST_F(ClipReaderTest, TheWorkerKeepsNothingOpen) {
    writeFile(at("a.mov"), clipBytes("apcn"));
    const int ours = open("/tmp", O_RDONLY | O_DIRECTORY); // without close-on-exec
    ClipFinder finder(&_config);
    finder.scanMedia(_folder);
    close(ours);
    ASSERT_EQ(children().size(), 1U);
    if (kEmulated) GTEST_SKIP() << "the emulator has descriptors of its own";
    const std::string folder = "/proc/" + std::to_string(children().front()) + "/fd";
    std::vector<std::string> open;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        open.push_back(std::filesystem::read_symlink(entry.path()));
    std::sort(open.begin(), open.end());
    ASSERT_EQ(open.size(), 3U) << "the socket, and nowhere twice";
    EXPECT_EQ(open[0], "/dev/null");
    if (!kInstrumented) {
        EXPECT_EQ(open[1], "/dev/null");
    }
    EXPECT_THAT(open[2], HasSubstr("socket:"));
}

// ---- one that does not

TEST_F(ClipReaderTest, AClipThatEndsTheWorkerCostsItselfOnly) {
    useStrangeWorker();
    for (const std::size_t one : {0U, 1U, 31U, 32U, 50U, 69U}) {
        EXPECT_EQ(readWithOne("die", 70, one), allBut(70, one)) << one;
        EXPECT_EQ(_said, complaint(one, "it ends whoever tries"));
    }
    EXPECT_EQ(readWithOne("die", 1, 0), Outcomes{Outcome::NotUsable});
}

TEST_F(ClipReaderTest, AWorkerThatEndsByMischanceCostsNothing) {
    useStrangeWorker();
    for (const std::size_t count : {1U, 70U}) {
        std::filesystem::remove(std::string(kStrangeFolder) + "/once");
        EXPECT_EQ(readWithOne("once", count, 0), Outcomes(count, Outcome::Usable));
        EXPECT_EQ(_said, "");
    }
}

TEST_F(ClipReaderTest, OnlyClipsThatEndTheWorker) {
    useStrangeWorker();
    EXPECT_EQ(read(std::vector<std::string>(40, "die")), Outcomes(40, Outcome::NotUsable));
    EXPECT_EQ(std::count(_said.begin(), _said.end(), '\n'), 40);
}

TEST_F(ClipReaderTest, AnAnswerThatBreaksTheRulesCostsItsClipOnly) {
    useStrangeWorker();
    for (const char* order : {"noise", "other", "short", "long"}) {
        EXPECT_EQ(readWithOne(order, 70, 40), allBut(70, 40)) << order;
        EXPECT_EQ(_said, complaint(40, "it ends whoever tries"));
        EXPECT_EQ(readWithOne(order, 1, 0), Outcomes{Outcome::NotUsable}) << order;
    }
}

TEST_F(ClipReaderTest, AnswersThatNobodyAskedForAreNotTaken) {
    useStrangeWorker();
    const Outcomes outcomes = readWithOne("twice", 100, 40);
    EXPECT_EQ(outcomes, Outcomes(100, Outcome::Usable));
    // The next one who takes the worker is not served the old answer.
    ClipFinder finder(&_config);
    writeFile(at("twice"), "twice");
    writeFile(at("useless"), "useless");
    Clip clip{};
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("twice"), false));
    EXPECT_FALSE(ClipExaminer::GrokClip(clip, at("useless"), false));
}

TEST_F(ClipReaderTest, DescriptorsFromTheWorkerAreNotTaken) {
    useStrangeWorker();
    EXPECT_EQ(readWithOne("gift", 10, 5), Outcomes(10, Outcome::Usable));
    EXPECT_EQ(openDescriptors(), _descriptors);
}

TEST_F(ClipReaderTest, AClipThatHangsTheWorkerCostsItselfOnly) {
    useStrangeWorker();
    ClipReader::patience() = std::chrono::milliseconds(500);
    EXPECT_EQ(readWithOne("hang", 40, 20), allBut(40, 20));
    EXPECT_EQ(_said, complaint(20, "that takes more than 0.5 s"));
    const std::size_t before = strangeWorkers();
    EXPECT_EQ(readWithOne("hang", 1, 0), Outcomes{Outcome::NotUsable});
    EXPECT_EQ(_said, complaint(0, "that takes more than 0.5 s"));
    EXPECT_EQ(strangeWorkers() - before, 1U) << "alone it is not waited for twice";
}

TEST_F(ClipReaderTest, WhatIsSaidOfAClipCannotSteerATerminal) {
    useStrangeWorker();
    writeFile(at("\x1b[2Jx\n.mov"), "die");
    testing::internal::CaptureStderr();
    Clip clip{};
    EXPECT_FALSE(ClipExaminer::GrokClip(clip, at("\x1b[2Jx\n.mov"), false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), " cannot look into " + at("?[2Jx?.mov") + ": it ends whoever tries\n");
}

TEST_F(ClipReaderTest, AWorkerKilledInTheMiddleCostsNothing) {
    for (std::size_t i = 0; i < 100; ++i) writeFile(nameOf(i), clipBytes("apcn"));
    std::size_t usable = 0;
    ClipReader reader;
    for (std::size_t i = 0; i < 100; ++i)
        reader.read(std::make_unique<ClipFile>(nameOf(i)), nameOf(i), [&](Outcome outcome, const ClipFile&, const auto&) {
            if (outcome == Outcome::Usable) ++usable;
            if (usable == 5 || usable == 40)
                for (const pid_t child : children()) kill(child, SIGKILL);
        });
    reader.finish();
    EXPECT_EQ(usable, 100U);
}

TEST_F(ClipReaderTest, AWorkerKilledWhileItWaitsCostsNothing) {
    writeFile(at("a.mov"), clipBytes("apcn"));
    ClipFinder finder(&_config);
    Clip clip{};
    ASSERT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
    ASSERT_EQ(children().size(), 1U);
    endChildren();
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
}

TEST_F(ClipReaderTest, AClipAnswersForNoWorkerThatNeverHadIt) {
    useStrangeWorker();
    writeFile(at("good"), "good");
    writeFile(at("once"), "once");
    const ClipFinder finder(&_config); // keeps the worker
    Clip clip{};
    ASSERT_TRUE(ClipExaminer::GrokClip(clip, at("good"), false));
    endChildren();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("once"), false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(strangeWorkers(), 3U);
}

TEST_F(ClipReaderTest, NorForOneThatTheReaderHadAlready) {
    useStrangeWorker();
    writeFile(at("good"), "good");
    writeFile(at("once"), "once");
    Outcomes outcomes;
    ClipReader reader;
    for (const char* name : {"good", "once"}) {
        reader.read(std::make_unique<ClipFile>(at(name)), at(name),
                    [&](Outcome outcome, const ClipFile&, const QuickTimeHeader&) { outcomes.push_back(outcome); });
        reader.finish();
        endChildren();
    }
    EXPECT_EQ(outcomes, Outcomes(2, Outcome::Usable));
}

TEST_F(ClipReaderTest, WhatNoWorkerTakesIsNotRead) {
    useStrangeWorker();
    Outcomes outcomes;
    testing::internal::CaptureStderr();
    {
        ClipReader reader;
        for (int i = 0; i < 3; ++i) // a descriptor that cannot be handed over
            reader.read(std::make_unique<ClipFile>(at("missing")), at("missing"),
                        [&](Outcome outcome, const ClipFile&, const QuickTimeHeader&) { outcomes.push_back(outcome); });
        reader.finish();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " cannot start " + ClipWorker::program() + " to look into clips: Bad file descriptor\n");
    EXPECT_EQ(outcomes, Outcomes(3, Outcome::NotRead));
}

TEST_F(ClipReaderTest, AWorkerWhoseThreadHasEndedCostsNothing) {
    writeFile(at("a.mov"), clipBytes("apcn"));
    ClipFinder finder(&_config);
    std::thread([this] {
        Clip clip{};
        EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
    }).join();
    Clip clip{};
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
}

TEST_F(ClipReaderTest, WithoutAWorkerNothingIsSaidOfAClip) {
    // An emulated program that cannot be started looks like one that ends at once.
    if (kEmulated) GTEST_SKIP() << "here a failing exec cannot be seen";
    makeClip("a.mov", 100);
    const std::string path = at("a.mov");
    {
        ClipFinder finder(&_config);
        finder.scanMedia(_folder);
    }
    makeClip("a.mov", 200);
    writeFile(at("b.mov"), clipBytes("apcn"));
    writeFile("/tmp/not_a_program", "");
    const std::pair<const char*, const char*> programs[] = {{"/nowhere/clip-probe", "No such file or directory"},
                                                            {"/tmp/not_a_program", "Permission denied"}};
    for (const auto& [program, reason] : programs) {
        ClipWorker::program() = program;
        testing::internal::CaptureStderr();
        {
            ClipFinder finder(&_config);
            finder.scanMedia(_folder);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string(" cannot start ") + program + " to look into clips: " + reason + "\n");
        EXPECT_EQ(RawSegment(kClipSegment).clips().size(), 0U);
        Clip clip{};
        testing::internal::CaptureStderr();
        EXPECT_FALSE(ClipExaminer::GrokClip(clip, path, false));
        testing::internal::GetCapturedStderr();
    }
    // Nothing was found out about the files, so nothing is remembered of them; and records stay.
    ClipWorker::program() = _program;
    _config.put(kParamStoragePath, _folder);
    ClipFinder finder(&_config);
    EXPECT_EQ(finder.findClips(true, false, true).size(), 2U);
    ClipWorker::program() = "/nowhere/clip-probe";
    makeClip("a.mov", 300);
    utimensat(AT_FDCWD, path.c_str(), std::array<timespec, 2>{{{1, 0}, {1, 0}}}.data(), 0);
    ClipWorker::keepNoLonger();
    ClipWorker::keep(); // a new worker would have to be started
    testing::internal::CaptureStderr();
    EXPECT_EQ(finder.findClips(true, false, true).size(), 2U);
    testing::internal::GetCapturedStderr();
}

TEST_F(ClipReaderTest, WithoutChildrensStatusesItWorksAsWell) {
    writeFile(at("a.mov"), clipBytes("apcn"));
    expectDoneInChild([&] {
        std::signal(SIGCHLD, SIG_IGN);
        Clip clip{};
        EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
        EXPECT_THAT(children(), ElementsAre());
    });
}

// ---- what a clip can make it do

std::string number(std::size_t value) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(static_cast<unsigned char>(value >> shift));
    return text;
}

std::size_t numberAt(const std::string& bytes, std::size_t at) {
    std::size_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

// The video track of a clip, its table of sample sizes last and cut off behind the number of samples; the table counts
// in all sizes.
std::string trackWithTable(const std::string& clip, std::size_t samples) {
    const std::size_t track = clip.rfind("trak", clip.find("vmhd")) - 4;
    std::string bytes = clip.substr(track, numberAt(clip, track));
    const std::size_t sizes = bytes.find("stsz") - 4;
    bytes.erase(sizes, numberAt(bytes, sizes));
    const std::size_t table = samples * 4;
    bytes += number(20 + table) + "stsz" + number(0) + number(0) + number(samples);
    for (const char* outer : {"stbl", "minf", "mdia", "trak"}) {
        const std::size_t start = bytes.find(outer) - 4;
        bytes.replace(start, 4, number(bytes.size() - start + table));
    }
    return bytes;
}

// A usable clip, but for more video tracks, with so many samples each. Their tables are holes in the file.
void makeHugeClip(const std::string& path, const std::vector<std::size_t>& tracks) {
    const std::string clip = clipBytes("apco");
    const std::size_t movie = clip.rfind("moov") - 4;
    writeFile(path, clip);
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(file, -1);
    auto end = static_cast<off_t>(clip.size());
    for (const std::size_t samples : tracks) {
        const std::string track = trackWithTable(clip, samples);
        EXPECT_EQ(pwrite(file, track.data(), track.size(), end), static_cast<ssize_t>(track.size()));
        end += static_cast<off_t>(track.size() + samples * 4);
    }
    EXPECT_EQ(ftruncate(file, end), 0);
    const std::string size = number(static_cast<std::size_t>(end) - movie);
    EXPECT_EQ(pwrite(file, size.data(), size.size(), static_cast<off_t>(movie)), 4);
    close(file);
}

TEST_F(ClipReaderTest, AClipThatNeedsTooMuchMemoryIsNotUsable) {
    // The limit of the address space is not set under the sanitizers, and under the emulator it is the emulator's.
    if (kInstrumented || kEmulated) GTEST_SKIP() << "without a limit there is nothing to see";
    // While a track is read its table is there twice, here 128 million bytes; afterwards an index stays, here 65 million.
    constexpr std::size_t kLargeTable = 16'000'000;
    constexpr std::size_t kLargeIndex = 2'700'000;
    makeHugeClip(at("one.mov"), {kLargeTable});
    makeHugeClip(at("four.mov"), {kLargeIndex, kLargeIndex, kLargeIndex, kLargeTable});
    writeFile(at("a.mov"), clipBytes("apcn"));
    ClipFinder finder(&_config); // they all get one worker
    Clip clip{};
    testing::internal::CaptureStderr();
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("one.mov"), false));
    ASSERT_EQ(children().size(), 1U);
    const pid_t worker = children().front();
    EXPECT_FALSE(ClipExaminer::GrokClip(clip, at("four.mov"), false));
    EXPECT_TRUE(ClipExaminer::GrokClip(clip, at("a.mov"), false));
    EXPECT_THAT(children(), ElementsAre(worker));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// ---- that it has no rights

TEST_F(ClipReaderTest, TheWorkerHasNoRights) {
    if (kEmulated) GTEST_SKIP() << "what /proc says is the emulator's";
    writeFile(at("a.mov"), clipBytes("apcn"));
    ClipFinder finder(&_config);
    finder.scanMedia(_folder);
    ASSERT_EQ(children().size(), 1U);
    const pid_t worker = children().front();
    // A user namespace may have one user only, and then there is nobody else to become.
    const bool hasUsers = readFile("/proc/self/uid_map").find("4294967295") != std::string::npos;
    const std::string user = geteuid() == 0 && hasUsers ? "65432" : std::to_string(geteuid());
    EXPECT_EQ(statusOf(worker, "Uid"), user + "\t" + user + "\t" + user + "\t" + user);
    if (geteuid() == 0 && hasUsers) {
        EXPECT_EQ(statusOf(worker, "Gid"), "65432\t65432\t65432\t65432");
        EXPECT_THAT(statusOf(worker, "Groups"), testing::MatchesRegex(" *"));
    }
    for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"})
        EXPECT_EQ(statusOf(worker, set), "0000000000000000") << set;
    EXPECT_EQ(statusOf(worker, "NoNewPrivs"), "1");
    EXPECT_EQ(statusOf(worker, "Seccomp"), kInstrumented ? "0" : "2");
    EXPECT_EQ(getsid(worker), worker);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(worker) + "/cwd"), "/");
    EXPECT_EQ(contentOf("/proc/" + std::to_string(worker) + "/environ"), "");
    const std::string limits = contentOf("/proc/" + std::to_string(worker) + "/limits");
    // Neither limit of the two can be raised again.
    const auto limitOf = [&](const std::string& resource) {
        std::istringstream fields(limits.substr(limits.find("Max " + resource) + 4 + resource.size()));
        std::string soft;
        std::string hard;
        fields >> soft >> hard;
        EXPECT_EQ(soft, hard);
        return hard;
    };
    EXPECT_EQ(limitOf("core file size"), "0");
    if (kInstrumented) return;
    EXPECT_EQ(limitOf("address space"), "268435456");
    EXPECT_EQ(limitOf("cpu time"), "120");
    EXPECT_EQ(limitOf("file size"), "0");
    EXPECT_EQ(limitOf("open files"), "36");
    EXPECT_EQ(limitOf("processes"), "0");
}

// What somebody tries who has taken over the worker; the error number, 0 for success.
int triedTo(const std::function<long()>& act) { return act() == -1 ? errno : 0; }

TEST_F(ClipReaderTest, AWorkerThatIsTakenOverCanDoNothing) {
    if (kInstrumented || kEmulated) GTEST_SKIP() << "there is no filter here";
    const Ending ending = runInChild([] {
        const pid_t parent = getppid();
        const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
        // Made beforehand: afterwards there is no saying what failed but with the numbers of a write.
        std::array<int, 24> found{};
        std::size_t count = 0;
        if (!confineProcess()) _exit(70);
        char* const nothing[] = {nullptr};
        const auto tries = [&](const std::function<long()>& act) { found[count++] = triedTo(act); };
        tries([] { return open("/etc/passwd", O_RDONLY); });
        tries([] { return open("/tmp/made", O_CREAT | O_WRONLY, 0666); });
        tries([] { return unlink("/tmp/strange"); });
        tries([] { return socket(AF_UNIX, SOCK_STREAM, 0); });
        tries([] { return socket(AF_INET, SOCK_STREAM, 0); });
        tries([&] { return listen(listening, 1); });
        tries([&] { return execve("/bin/true", nothing, nothing); });
        tries([] { return syscall(SYS_fork); });
        tries([] { return syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0); });
        tries([&] { return kill(parent, SIGKILL); });
        tries([&] { return ptrace(PTRACE_ATTACH, parent, nullptr, nullptr); });
        tries([] { return setresuid(0, 0, 0); });
        tries([] { return prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); });
        tries([] { return ioctl(0, 0x5412, "x"); }); // typing at a terminal
        tries([&] { return fcntl(listening, F_SETFD, 0); });
        tries([] {
            return mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) ==
                           MAP_FAILED ? -1 : 0;
        });
        tries([] { return mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, STDIN_FILENO, 0) == MAP_FAILED ? -1 : 0; });
        // What it needs works. (A compiler may take memory that nobody looks at for granted.)
        const auto needs = [&](bool works) { found[count++] = works ? EPERM : 0; };
        void* volatile memory = malloc(50 << 20);
        needs(memory != nullptr);
        free(memory);
        needs(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED);
        needs(close(listening) == 0);
        memory = malloc(300 << 20);
        needs(memory == nullptr); // the limit
        for (std::size_t i = 0; i < count; ++i)
            if (found[i] != EPERM) _exit(static_cast<int>(100 + i));
        _exit(count == 21 ? 0 : 71);
    });
    EXPECT_EQ(ending.status, 0) << "100 and the number of what went wrong";
    EXPECT_FALSE(exists("/tmp/made"));
}

// ---- that it does not outlive whoever started it

TEST_F(ClipReaderTest, ItEndsWithADaemonThatIsKilled) {
    writeFile(at("a.mov"), clipBytes("apcn"));
    // One that waits for requests sees the end of the socket; one that is busy, or stopped as here, is ended.
    for (const bool stopped : {false, true}) {
        if (stopped && kEmulated) continue; // the emulator gives it no signal
        int tell[2];
        ASSERT_EQ(pipe2(tell, O_CLOEXEC), 0);
        const pid_t daemon = fork();
        if (daemon == 0) {
            ClipFinder finder(&_config);
            finder.scanMedia(_folder);
            const auto found = children();
            const pid_t worker = found.size() == 1 ? found.front() : -1;
            [[maybe_unused]] const ssize_t told = write(tell[1], &worker, sizeof worker);
            for (;;) pause();
        }
        pid_t worker = -1;
        EXPECT_EQ(::read(tell[0], &worker, sizeof worker), static_cast<ssize_t>(sizeof worker));
        close(tell[0]);
        close(tell[1]);
        if (worker > 0 && stopped) kill(worker, SIGSTOP);
        EXPECT_TRUE(worker > 0 && isThere(worker));
        kill(daemon, SIGKILL);
        EXPECT_EQ(waitpid(daemon, nullptr, 0), daemon);
        EXPECT_TRUE(eventually([&] { return !isThere(worker); })) << stopped;
        if (worker > 0 && isThere(worker)) kill(worker, SIGKILL);
    }
}

// ---- the record that crosses

QuickTimeHeader fullHeader() {
    QuickTimeHeader header;
    header.encodeType = kEncodeAVdn;
    header.width = 1920;
    header.height = 1080;
    header.interlaced = true;
    header.frameRateNumerator = 30000;
    header.frameRateDenominator = 1001;
    header.frames = std::int64_t{1} << 40;
    header.audioChannels = 32768;
    header.startTimecode = "23:59:59;100";
    header.creationTime = -1;
    return header;
}

TEST(ProbeRecord, AHeaderCrossesAsItIs) {
    const QuickTimeHeader sent = fullHeader();
    QuickTimeHeader got;
    ASSERT_EQ(readProbeAnswer(makeProbeAnswer(5, sent), 5, got), ProbeVerdict::Usable);
    EXPECT_EQ(got.encodeType, sent.encodeType);
    EXPECT_EQ(got.width, sent.width);
    EXPECT_EQ(got.height, sent.height);
    EXPECT_EQ(got.interlaced, sent.interlaced);
    EXPECT_EQ(got.frameRateNumerator, sent.frameRateNumerator);
    EXPECT_EQ(got.frameRateDenominator, sent.frameRateDenominator);
    EXPECT_EQ(got.frames, sent.frames);
    EXPECT_EQ(got.audioChannels, sent.audioChannels);
    EXPECT_EQ(got.startTimecode, sent.startTimecode);
    EXPECT_EQ(got.creationTime, sent.creationTime);
    QuickTimeHeader bare = sent;
    bare.creationTime.reset();
    bare.startTimecode.clear();
    bare.frameRateNumerator = bare.frameRateDenominator = 0;
    ASSERT_EQ(readProbeAnswer(makeProbeAnswer(5, bare), 5, got), ProbeVerdict::Usable);
    EXPECT_EQ(got.creationTime, std::nullopt);
    EXPECT_EQ(got.startTimecode, "");
    EXPECT_EQ(readProbeAnswer(makeProbeAnswer(5, std::nullopt), 5, got), ProbeVerdict::NotUsable);
}

TEST(ProbeRecord, NothingElseIsTakenForAnAnswer) {
    const auto expectInvalid = [](const char* what, const std::function<void(ProbeAnswer&)>& change) {
        ProbeAnswer answer = makeProbeAnswer(5, fullHeader());
        change(answer);
        QuickTimeHeader header;
        EXPECT_EQ(readProbeAnswer(answer, 5, header), ProbeVerdict::Invalid) << what;
        EXPECT_EQ(header.encodeType, kEncodeUnknown) << what;
    };
    constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
    expectInvalid("another request", [](ProbeAnswer& answer) { answer.serial = 6; });
    expectInvalid("usable twice over", [](ProbeAnswer& answer) { answer.usable = 2; });
    expectInvalid("unusable, with a header", [](ProbeAnswer& answer) { answer.usable = 0; });
    expectInvalid("no type", [](ProbeAnswer& answer) { answer.encodeType = 0; });
    expectInvalid("an unknown type", [](ProbeAnswer& answer) { answer.encodeType = 7; });
    expectInvalid("no width", [](ProbeAnswer& answer) { answer.width = 0; });
    expectInvalid("a negative width", [](ProbeAnswer& answer) { answer.width = kLeast; });
    expectInvalid("no height", [](ProbeAnswer& answer) { answer.height = 0; });
    expectInvalid("a negative height", [](ProbeAnswer& answer) { answer.height = -1; });
    expectInvalid("half interlaced", [](ProbeAnswer& answer) { answer.interlaced = 2; });
    expectInvalid("a division by zero", [](ProbeAnswer& answer) { answer.frameRateDenominator = 0; });
    expectInvalid("no rate by something", [](ProbeAnswer& answer) { answer.frameRateNumerator = 0; });
    expectInvalid("a negative rate", [](ProbeAnswer& answer) { answer.frameRateNumerator = -25; });
    expectInvalid("a negative divisor", [](ProbeAnswer& answer) { answer.frameRateDenominator = kLeast; });
    expectInvalid("negative channels", [](ProbeAnswer& answer) { answer.audioChannels = -1; });
    expectInvalid("too many channels", [](ProbeAnswer& answer) { answer.audioChannels = 32769; });
    expectInvalid("half a time", [](ProbeAnswer& answer) { answer.hasCreationTime = 2; });
    expectInvalid("a time that is none", [](ProbeAnswer& answer) { answer.hasCreationTime = 0; });
    expectInvalid("too early", [](ProbeAnswer& answer) { answer.creationTime = std::numeric_limits<std::int64_t>::min(); });
    expectInvalid("too late", [](ProbeAnswer& answer) { answer.creationTime = std::numeric_limits<std::int64_t>::max(); });
    expectInvalid("negative frames", [](ProbeAnswer& answer) { answer.frames = -1; });
    expectInvalid("an endless text", [](ProbeAnswer& answer) { std::memset(answer.startTimecode, '1', 16); });
    expectInvalid("another text", [](ProbeAnswer& answer) { std::strcpy(answer.startTimecode, "10:00:00:0\n"); });
    expectInvalid("a short text", [](ProbeAnswer& answer) { std::memcpy(answer.startTimecode, "10:00\0\0\0\0\0\0\0", 12); });
    expectInvalid("something behind the text", [](ProbeAnswer& answer) { answer.startTimecode[15] = 'x'; });
}

} // namespace
