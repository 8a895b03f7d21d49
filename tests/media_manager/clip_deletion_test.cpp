// Requested deletions: the command line, the waits of the recorder, the index, and what stays pending.

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <filesystem>

#include "tests/media/clip_files.h"
#include "tests/media_manager/manager_test.h"

using clipfiles::kClipSegment;
using clipfiles::kPlaylistSegment;

namespace {

using Names = std::set<std::string>;

constexpr char kCapacityOfS1[] = "run df | grep /mnt/S1 | awk '{ print $5 }'";
constexpr char kWait[] = "sleepMicroseconds 100000";

class DeletionTest : public ManagerTest {
protected:
    DeletionTest() {
        for (const char* name : {kClipSegment, kPlaylistSegment, clipfiles::kClipMutex, clipfiles::kPlaylistMutex})
            std::filesystem::remove_all(name);
    }

    // A medium in use, its capacity known, with two clips of which "a" is the current one.
    void startWithClips() {
        startWithMedium();
        scanner.found = {fakes::clip("a"), fakes::clip("b")};
        config.put(kParamClipName, "a");
        config.put(kParamCapacityRemaining, 60);
        manager->updateCurrentSlotCapacityRemaining(true);
        effects();
    }
    int deletes(Names names) { return manager->deleteClips(names); }

    // The effects of a deletion in which the recorder keeps its clip.
    static Lines asks(const std::string& request) {
        return {"clips find false true true", "clips next a of a,b without " + request};
    }
    static Lines removes(std::initializer_list<std::string> names) {
        Lines lines;
        for (const std::string& name : names) lines.push_back("clips remove /mnt/S1/NEVO/" + name);
        return lines;
    }
    // The lines from the one behind the first `line` on, as many as `count`.
    static Lines behind(const std::string& line, const Lines& lines, std::size_t count) {
        const auto found = std::find(lines.begin(), lines.end(), line);
        EXPECT_NE(found, lines.end()) << line;
        Lines rest(found == lines.end() ? found : found + 1, lines.end());
        rest.resize(count);
        return rest;
    }
    static std::string runs(const std::string& files) { return "run pushd /mnt/S1/NEVO/; rm -f " + files + "; popd"; }
};

TEST_F(DeletionTest, nothingToDeleteIsNoRun) {
    startWithClips();
    std::filesystem::remove(kClipSegment);
    config.recordGets = true;
    os.recordSemaphores = true;
    EXPECT_EQ(deletes({}), 0);
    expectNoEffects();
    EXPECT_FALSE(std::filesystem::exists(kClipSegment));
}

TEST_F(DeletionTest, nothingIsDeletedThroughALink) {
    startWithClips();
    os.links = {"/mnt/S1/NEVO"};
    EXPECT_EQ(deletes({"b.mov"}), 1);
    EXPECT_EQ(effectsOf("run pushd"), Lines{});
    expectError("Media Managerrefused a symbolic link on the medium: /mnt/S1/NEVO\n");
    EXPECT_TRUE(manager->getClipsToDelete().empty());
}

TEST_F(DeletionTest, clipThatSurvivesIsLeftAlone) {
    startWithClips();
    config.recordGets = true;
    os.recordSemaphores = true;
    EXPECT_EQ(deletes({"c.mov", "b.mov"}), 1);
    expectAllEffects(join({{gets(kParamClipName), gets(kParamPlaylistName), gets(kParamClipListMode)},
                           asks("b.mov|c.mov"),
                           removes({"b.mov", "c.mov"}),
                           {runs(R"( "b.mov" "c.mov")"),
                            // The handled names, then the changed settings.
                            "wait", "post", "wait", "post",
                            // Measured, although it has just been.
                            gets(kParamCapacityRemaining), kCapacityOfS1, gets(kParamAlarms), gets(kParamAlarms)}}));
}

TEST_F(DeletionTest, freedSpaceIsReportedAtOnce) {
    startWithClips();
    shell.handle("pushd", [this](const std::string&) {
        media.media["sdb"].used = 5;
        return fakes::FakeFileUtils::Answer{};
    });
    deletes({"b.mov"});
    EXPECT_EQ(config.integer(kParamCapacityRemaining), 95);
}

// --- the command line

struct Request {
    Names names;
    std::string files;
    Lines removed;
};

class RequestTest : public DeletionTest, public ::testing::WithParamInterface<Request> {};
INSTANTIATE_TEST_SUITE_P(
    , RequestTest,
    ::testing::Values(
        Request{{"a.mov"}, R"( "a.mov")", {"clips remove /mnt/S1/NEVO/a.mov"}},
        // Plain comparison: capitals before small letters, blanks before both.
        Request{{"b", "a", "B", " "},
                R"( " " "B" "a" "b")",
                {"clips remove /mnt/S1/NEVO/ ", "clips remove /mnt/S1/NEVO/B", "clips remove /mnt/S1/NEVO/a",
                 "clips remove /mnt/S1/NEVO/b"}},
        Request{{"", "a.mov"},
                R"( "" "a.mov")",
                {"clips remove /mnt/S1/NEVO/", "clips remove /mnt/S1/NEVO/a.mov"}},
        Request{{"*"}, "*", {"clips flushClips"}},
        Request{{"!.mov", "*", "a.mov", ""}, "*", {"clips flushClips"}},
        Request{{"a*", "**"},
                R"( "**" "a*")",
                {"clips remove /mnt/S1/NEVO/**", "clips remove /mnt/S1/NEVO/a*"}},
        Request{{"-rf", "x y.mov"},
                R"( "-rf" "x y.mov")",
                {"clips remove /mnt/S1/NEVO/-rf", "clips remove /mnt/S1/NEVO/x y.mov"}},
        Request{{"q\"q.mov"}, R"( "q"q.mov")", {"clips remove /mnt/S1/NEVO/q\"q.mov"}}));

TEST_P(RequestTest, becomesOneCommandLine) {
    startWithClips();
    EXPECT_EQ(deletes(GetParam().names), 1);
    std::string request;
    for (const std::string& name : GetParam().names) request += (name == *GetParam().names.begin() ? "" : "|") + name;
    expectEffects(join({asks(request), GetParam().removed, {runs(GetParam().files), kCapacityOfS1}}));
}

TEST_F(DeletionTest, statusOfTheCommandDoesNotMatter) {
    startWithClips();
    shell.answerPart("pushd", 1);
    post(kParamClipsToDelete, "b.mov");
    EXPECT_EQ(deletes({"b.mov"}), 1);
    EXPECT_EQ(manager->getClipsToDelete(), Names{});
}

TEST_F(DeletionTest, slotWithoutAPathHasTheBareMakerDirectory) {
    start();
    EXPECT_EQ(deletes({"a.mov"}), 1);
    EXPECT_EQ(effectsOf("run"), Lines{R"(run pushd /NEVO/; rm -f  "a.mov"; popd)"});
    deletes({"a.mov"});
    EXPECT_EQ(effectsOf("clips remove"), Lines{"clips remove /NEVO/a.mov"});
}

TEST_F(DeletionTest, directoryIsTheSelectedSlots) {
    startWithMedium(S2, "sdc");
    deletes({"a.mov"});
    EXPECT_EQ(effectsOf("run pushd"), Lines{R"(run pushd /mnt/S2/NEVO/; rm -f  "a.mov"; popd)"});
}

// --- the current clip

TEST_F(DeletionTest, clipsArePlaylistsOnlyInPlaylistModeWithAPlaylist) {
    startWithClips();
    scanner.selected = std::list<Clip>{fakes::clip("p")};
    const auto asked = [this](int mode, const std::string& playlist) {
        config.put(kParamClipListMode, mode);
        config.put(kParamPlaylistName, playlist);
        deletes({"x"});
        Lines lines = effectsOf("clips");
        lines.resize(2);
        EXPECT_EQ(lines.at(1), "clips next a of p without x");
        return lines.at(0);
    };
    EXPECT_EQ(asked(2, "evening"), "clips find true true true");
    EXPECT_EQ(asked(2, ""), "clips find false true true");
    EXPECT_EQ(asked(1, "evening"), "clips find false true true");
    EXPECT_EQ(asked(0, ""), "clips find false true true");
}

TEST_F(DeletionTest, recorderIsToldOfItsNextClipAndWaitedFor) {
    startWithClips();
    scanner.next = "b";
    int sleeps = 0;
    os.onSleep = [&](long long) {
        // Any other name will do: the recorder decides.
        if (++sleeps == 3) config.put(kParamClipName, "something else");
    };
    config.recordGets = true;
    EXPECT_EQ(deletes({"a.mov"}), 1);
    Lines lines = effects();
    const Lines expected = join({{gets(kParamClipName), gets(kParamPlaylistName), gets(kParamClipListMode)},
                                 asks("a.mov"),
                                 {sets(kParamDeleteClipsStatus, "b"), kWait, gets(kParamClipName), kWait,
                                  gets(kParamClipName), kWait, gets(kParamClipName)},
                                 removes({"a.mov"}),
                                 {runs(R"( "a.mov")")}});
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
}

TEST_F(DeletionTest, recorderThatKeepsItsClipIsWaitedForTwoSecondsOnly) {
    startWithClips();
    scanner.next = "b";
    config.recordGets = true;
    const long long before = os.now();
    EXPECT_EQ(deletes({"a.mov"}), 1);
    EXPECT_EQ(os.now() - before, 2'000'000'000);
    Lines waits;
    for (int i = 0; i < 20; ++i) waits.insert(waits.end(), {kWait, gets(kParamClipName)});
    const Lines expected = join({waits, removes({"a.mov"}), {runs(R"( "a.mov")")}});
    EXPECT_EQ(behind(sets(kParamDeleteClipsStatus, "b"), effects(), expected.size()), expected);
}

TEST_F(DeletionTest, clipNameIsNotLookedAtBeforeTheFirstWait) {
    startWithClips();
    scanner.next = "b";
    // Changed at once, by the very announcement.
    config.onSet = [this](eParam_t id) {
        if (id == kParamDeleteClipsStatus) config.put(kParamClipName, "b");
    };
    deletes({"a.mov"});
    EXPECT_EQ(effectsOf("sleep"), Lines{kWait});
}

TEST_F(DeletionTest, withoutAClipLeftTheTransportIsWaitedFor) {
    startWithClips();
    scanner.next = "N/A";
    config.put(kParamTransportState, 4);
    int sleeps = 0;
    os.onSleep = [&](long long) {
        config.put(kParamClipName, "no reason to go on");
        if (++sleeps == 2) config.put(kParamTransportState, 1);
    };
    config.recordGets = true;
    EXPECT_EQ(deletes({"*"}), 1);
    Lines lines = effects();
    const Lines expected = join({{gets(kParamClipName), gets(kParamPlaylistName), gets(kParamClipListMode)},
                                 asks("*"),
                                 {sets(kParamDeleteClipsStatus, "N/A"), gets(kParamTransportState), kWait,
                                  gets(kParamTransportState), kWait, gets(kParamTransportState), "clips flushClips",
                                  runs("*")}});
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
}

TEST_F(DeletionTest, transportThatStandsIsNotWaitedFor) {
    startWithClips();
    scanner.next = "N/A";
    config.put(kParamTransportState, 1);
    deletes({"*"});
    EXPECT_EQ(effectsOf("sleep"), Lines{});
}

class MovingTransportTest : public DeletionTest, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(, MovingTransportTest, ::testing::Values(0, 2, 15, 19, 20, -1));

TEST_P(MovingTransportTest, isWaitedForTwoSecondsOnly) {
    startWithClips();
    scanner.next = "N/A";
    config.put(kParamTransportState, GetParam());
    config.recordGets = true;
    const long long before = os.now();
    EXPECT_EQ(deletes({"*"}), 1);
    EXPECT_EQ(os.now() - before, 2'000'000'000);
    Lines waits;
    for (int i = 0; i < 20; ++i) waits.insert(waits.end(), {gets(kParamTransportState), kWait});
    const Lines expected = join({waits, {"clips flushClips", runs("*")}});
    EXPECT_EQ(behind(sets(kParamDeleteClipsStatus, "N/A"), effects(), expected.size()), expected);
}

TEST_F(DeletionTest, recorderWithoutAClipAndNoneLeftIsToldNothing) {
    startWithClips();
    config.put(kParamClipName, "N/A");
    scanner.next = "N/A";
    config.put(kParamTransportState, 5);
    deletes({"*"});
    expectEffects(join({{"clips find false true true", "clips next N/A of a,b without *", "clips flushClips"},
                        {runs("*"), kCapacityOfS1}}));
}

// --- what stays pending

TEST_F(DeletionTest, handledNamesLeaveThePendingOnesAndLaterOnesStay) {
    startWithClips();
    post(kParamClipsToDelete, "a.mov||b.mov");
    scanner.onCall = [this](const std::string& line) {
        if (line == "remove /mnt/S1/NEVO/a.mov") post(kParamClipsToDelete, "c.mov");
    };
    shell.handle("pushd", [this](const std::string&) {
        post(kParamRecordSetting1302, "d.mov|b.mov");
        return fakes::FakeFileUtils::Answer{};
    });
    EXPECT_EQ(manager->checkMessages(), 1);
    EXPECT_EQ(effectsOf("run pushd"), Lines{runs(R"( "" "a.mov" "b.mov")")});
    EXPECT_EQ(manager->getClipsToDelete(), (Names{"c.mov", "d.mov"}));
    scanner.onCall = nullptr;
    shell.answerPart("pushd", 0);
    EXPECT_EQ(manager->checkMessages(), 1);
    EXPECT_EQ(effectsOf("run pushd"), Lines{runs(R"( "c.mov" "d.mov")")});
    EXPECT_EQ(manager->getClipsToDelete(), Names{});
}

TEST_F(DeletionTest, requestsAddUp) {
    startWithClips();
    post(kParamClipsToDelete, "a.mov|b.mov");
    post(kParamClipsToDelete, "b.mov|c.mov");
    EXPECT_EQ(manager->checkMessages(), 1);
    EXPECT_EQ(effectsOf("run pushd"), Lines{runs(R"( "a.mov" "b.mov" "c.mov")")});
}

TEST_F(DeletionTest, onlyEqualNamesAreTakenOutUnderTheSemaphore) {
    startWithClips();
    post(kParamClipsToDelete, "a|a.mov|A|*|");
    os.recordSemaphores = true;
    Names handled{"a", "b", "A.mov"};
    manager->removeDeletedClips(handled);
    expectEffects({"wait", "post"});
    EXPECT_EQ(manager->getClipsToDelete(), (Names{"*", "A", "a.mov"}));
    EXPECT_EQ(handled, (Names{"A.mov", "a", "b"}));
}

TEST_F(DeletionTest, semaphoreThatFailsIsReportedAndTheNamesGoAllTheSame) {
    startWithClips();
    post(kParamClipsToDelete, "a|b");
    Names a{"a"};
    Names b{"b"};
    os.semaphoreWaitError = EINVAL;
    manager->removeDeletedClips(a);
    expectError("Semaphore(): call to sem_wait failed\n: Invalid argument\n");
    os.semaphoreWaitError = 0;
    os.semaphorePostError = EOVERFLOW;
    manager->removeDeletedClips(b);
    expectError("SemaphoreHelper::~SemaphoreHelper failed to post\n: Value too large for defined data type\n");
    os.semaphorePostError = 0;
    EXPECT_EQ(manager->getClipsToDelete(), Names{});
}

// --- in the loop

TEST_F(DeletionTest, runTakesThePassForItself) {
    startWithClips();
    post(kParamClipsToDelete, "b.mov");
    post(kParamSlotChangeCommand, 6);
    EXPECT_EQ(manager->checkMessages(), 1);
    expectEffects(join({asks("b.mov"), removes({"b.mov"}), {runs(R"( "b.mov")"), kCapacityOfS1}}));
    EXPECT_EQ(manager->checkMessages(), 0);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

TEST_F(DeletionTest, runWaitsForTheTransport) {
    startWithClips();
    post(kParamClipsToDelete, "b.mov");
    post(kParamTransportState, 2);
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("run pushd"), Lines{});
    post(kParamTransportState, 1);
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("run pushd"), Lines{runs(R"( "b.mov")")});
}

TEST_F(DeletionTest, settingsHaveChangedByARun) {
    startWithClips();
    manager->checkMessages();
    config.put(kParamAlarms, 0x40001);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 0x40001);
    deletes({"b.mov"});
    EXPECT_EQ(config.integer(kParamAlarms), 0x40001);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 1);
}

// --- the cache

TEST_F(DeletionTest, segmentsAreOpenDuringTheRunAndClosedAfterIt) {
    startWithClips();
    std::filesystem::remove(kClipSegment);
    const std::size_t before = clipfiles::openDescriptors();
    bool open = false;
    shell.handle("df |", [&](const std::string&) {
        open = std::filesystem::exists(kClipSegment) && clipfiles::openDescriptors() > before;
        return fakes::FakeFileUtils::Answer{0, "40%"};
    });
    deletes({"b.mov"});
    EXPECT_TRUE(open);
    EXPECT_EQ(clipfiles::openDescriptors(), before);
}

TEST_F(DeletionTest, filesGoWithoutAUsableCacheToo) {
    startWithClips();
    std::filesystem::remove(kClipSegment);
    std::filesystem::create_directory(kClipSegment);
    post(kParamClipsToDelete, "b.mov|c.mov");
    EXPECT_TRUE(manager->pass());
    expectError("Media ManagerdeleteClips: the shared clip cache cannot be used: Invalid argument\n");
    expectEffects({"sleepSeconds 1", runs(R"( "b.mov" "c.mov")"), kCapacityOfS1});
    EXPECT_EQ(manager->getClipsToDelete(), Names{});
}

TEST_F(DeletionTest, scannerThatFailsDoesNotKeepAFileAlive) {
    startWithClips();
    scanner.onCall = [](const std::string& line) {
        if (line.starts_with("remove"))
            throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(EACCES));
    };
    post(kParamClipsToDelete, "b.mov|c.mov");
    EXPECT_EQ(manager->checkMessages(), 1);
    expectError("Media ManagerdeleteClips: the shared clip cache cannot be used: Permission denied\n");
    expectEffects(join({asks("b.mov|c.mov"), removes({"b.mov"}), {runs(R"( "b.mov" "c.mov")"), kCapacityOfS1}}));
    EXPECT_EQ(manager->getClipsToDelete(), Names{});
}

} // namespace
