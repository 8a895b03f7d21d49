#include "segment_mutex.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "clip_finder.h"
#include "media/media_cache.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using nevo::media::SegmentMutex;
using namespace clipfiles;

namespace {

constexpr char kName[] = "/NewCacheSharedClipCache_mutex";
constexpr char kTakenOver[] = " the lock /NewCacheSharedClipCache_mutex was not given back in time and is taken over\n";

// Before a test shortens it.
const long patienceAtStart = nevo::media::segmentMutexPatience;

// The semaphore as another program holds it.
class Stranger {
public:
    Stranger() : _semaphore(sem_open(kName, 0)) { EXPECT_NE(_semaphore, SEM_FAILED); }
    ~Stranger() { sem_close(_semaphore); }
    void lock() { EXPECT_EQ(sem_wait(_semaphore), 0); }
    void post() { EXPECT_EQ(sem_post(_semaphore), 0); }
    int count() {
        int count = -1;
        sem_getvalue(_semaphore, &count);
        return count;
    }

private:
    sem_t* _semaphore;
};

class SegmentMutexTest : public SegmentTest {
protected:
    void SetUp() override {
        SegmentTest::SetUp();
        { MediaCache made("NewCache"); }
        nevo::media::segmentMutexPatience = 50;
    }
    void TearDown() override {
        nevo::media::segmentMutexPatience = 10'000;
        SegmentTest::TearDown();
    }

    // What an operation on the clip segment says.
    template <typename Operation>
    static std::string said(Operation operation) {
        testing::internal::CaptureStderr();
        operation();
        return testing::internal::GetCapturedStderr();
    }
    std::string addSaying(const std::string& name, std::uint32_t time) {
        const std::string path = makeClip(name, time);
        return said([&path] {
            int index = -1;
            EXPECT_TRUE(MediaCache("NewCache").AddClip(path, 1, index, false));
        });
    }
    static bool endsWith(const std::string& text, const std::string& end) { return text.ends_with(end); }

    fakes::Journal _journal;
    fakes::FakeConfig _config{_journal};
};

TEST_F(SegmentMutexTest, TenSecondsAreWaited) { EXPECT_EQ(patienceAtStart, 10'000); }

TEST_F(SegmentMutexTest, AMutexWhoseHolderWasKilledIsTakenOverOnce) {
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        sem_t* semaphore = sem_open(kName, 0);
        if (semaphore == SEM_FAILED || sem_wait(semaphore) != 0 || write(pipes[1], "x", 1) != 1) _exit(1);
        for (;;) pause();
    }
    ASSERT_GT(holder, 0);
    char byte = 0;
    ASSERT_EQ(read(pipes[0], &byte, 1), 1);
    kill(holder, SIGKILL);
    int status = 0;
    waitpid(holder, &status, 0);
    close(pipes[0]);
    close(pipes[1]);

    Stranger stranger;
    EXPECT_EQ(stranger.count(), 0);
    const std::string text = addSaying("a.mov", 100);
    EXPECT_TRUE(endsWith(text, kTakenOver)) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_EQ(stranger.count(), 1);
    EXPECT_EQ(addSaying("b.mov", 200), "");
    EXPECT_EQ(stranger.count(), 1);
    EXPECT_EQ(RawSegment(kClipSegment).clipNames(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(SegmentMutexTest, WhatTheDeadHolderLeftIsReadAsItStandsWithItsCountChecked) {
    RawSegment segment(kClipSegment);
    segment.fillClips(4096);
    segment.putWord(15, -7);
    Stranger().lock();
    const std::string text = said([this] { EXPECT_TRUE(ClipFinder(&_config).removeClip("/m/old_0003.mov")); });
    EXPECT_TRUE(endsWith(text, kTakenOver)) << text;
    EXPECT_EQ(segment.word(15), 4095);
    EXPECT_EQ(segment.size(), 26'771'475);
}

TEST_F(SegmentMutexTest, ALateOwnerWhoPostsDuringTheTakeoverLeavesTheCountAtOne) {
    Stranger late;
    late.lock();
    SegmentMutex mutex(kName);
    EXPECT_TRUE(endsWith(said([&mutex] { mutex.lock(); }), kTakenOver));
    EXPECT_EQ(late.count(), 0);
    late.post();
    mutex.unlock();
    EXPECT_EQ(late.count(), 1);
    EXPECT_EQ(addSaying("a.mov", 100), "");
    EXPECT_EQ(late.count(), 1);
}

TEST_F(SegmentMutexTest, ALateOwnerWhoPostsAfterwardsIsMadeGoodByTheNextLock) {
    Stranger late;
    late.lock();
    SegmentMutex mutex(kName);
    EXPECT_TRUE(endsWith(said([&mutex] { mutex.lock(); }), kTakenOver));
    mutex.unlock();
    late.post();
    EXPECT_EQ(late.count(), 2);
    mutex.lock();
    EXPECT_EQ(late.count(), 0); // really locked
    mutex.unlock();
    EXPECT_EQ(late.count(), 1);
}

TEST_F(SegmentMutexTest, ALateOwnerOfOurOwnDoesNotPostTwice) {
    SegmentMutex late(kName);
    late.lock();
    SegmentMutex mutex(kName);
    EXPECT_TRUE(endsWith(said([&mutex] { mutex.lock(); }), kTakenOver));
    mutex.unlock();
    late.unlock();
    EXPECT_EQ(Stranger().count(), 1);
}

TEST_F(SegmentMutexTest, AHolderWhoComesInTimeIsWaitedFor) {
    nevo::media::segmentMutexPatience = 60'000;
    Stranger holder;
    holder.lock();
    SegmentMutex mutex(kName);
    std::atomic<pid_t> task{0};
    std::atomic<bool> had{false};
    std::thread waiter([&] {
        task = gettid();
        mutex.lock();
        had = true;
        mutex.unlock();
    });
    const auto waits = [&] { return had || isBlocked(task); };
    // A signal in between must not end the wait.
    struct sigaction quiet {};
    struct sigaction before {};
    quiet.sa_handler = [](int) {};
    sigaction(SIGUSR1, &quiet, &before);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(fakes::eventually(waits));
        pthread_kill(waiter.native_handle(), SIGUSR1);
    }
    EXPECT_TRUE(fakes::eventually(waits));
    EXPECT_FALSE(had);
    EXPECT_EQ(holder.count(), 0);
    holder.post();
    waiter.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(holder.count(), 1);
}

TEST_F(SegmentMutexTest, AWriterWaitsForTheHolder) {
    nevo::media::segmentMutexPatience = 60'000;
    RawSegment segment(kClipSegment);
    segment.fillClips(2);
    Stranger holder;
    holder.lock();
    std::atomic<pid_t> task{0};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        task = gettid();
        ClipFinder(&_config).removeClip("/m/old_0001.mov");
        done = true;
    });
    EXPECT_TRUE(fakes::eventually([&] { return done || isBlocked(task); }));
    EXPECT_FALSE(done);
    EXPECT_EQ(segment.word(15), 2);
    holder.post();
    writer.join();
    EXPECT_EQ(segment.word(15), 1);
}

TEST_F(SegmentMutexTest, OfManyWhoLockOneIsInsideAtATime) {
    nevo::media::segmentMutexPatience = 60'000;
    int inside = 0; // guarded by the mutex alone
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&inside] {
            SegmentMutex mutex(kName);
            for (int i = 0; i < 500; ++i) {
                mutex.lock();
                ++inside;
                mutex.unlock();
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(inside, 2000);
    EXPECT_EQ(Stranger().count(), 1);
}

TEST_F(SegmentMutexTest, AFailingVisitGivesTheMutexBack) {
    ClipFinder finder(&_config);
    ASSERT_EQ(truncate(kClipSegment, 100), 0);
    EXPECT_THROW(finder.flushClips(), boost::interprocess::interprocess_exception);
    EXPECT_EQ(Stranger().count(), 1);
}

TEST_F(SegmentMutexTest, AnUnopenableMutexIsAnExceptionWithItsErrorNumber) {
    ASSERT_EQ(mkdir("/dev/shm/sem.directory", 0700), 0);
    try {
        SegmentMutex mutex("directory");
        ADD_FAILURE();
    } catch (const boost::interprocess::interprocess_exception& failure) {
        EXPECT_EQ(failure.get_native_error(), EISDIR);
    }
    rmdir("/dev/shm/sem.directory");
}

TEST_F(SegmentMutexTest, TheLibrarysOwnMutexIsTheSame) {
    boost::interprocess::named_mutex other(boost::interprocess::open_only, kName);
    SegmentMutex mutex(kName);
    mutex.lock();
    EXPECT_FALSE(other.try_lock());
    mutex.unlock();
    EXPECT_TRUE(other.try_lock());
    other.unlock();
}

} // namespace
