#ifndef MEDIAD_TESTS_FAKES_FAKES_H
#define MEDIAD_TESTS_FAKES_FAKES_H

// A world made of memory, behind the doors of the daemon: parameter store, card, shell, operating system. All of them
// write what was done to them into one Journal, in the order in which it happened, so that a test compares one list.
//
//     fakes::World world;
//     Slot slot; slot.setSystem(&world.shell); …
//     EXPECT_EQ(world.journal.take(), (fakes::Lines{"read 61 mask=0x10 shift=0", "run power on"}));
//
// How an entry looks:
//     set 0x7d07000a 3            set 0x7b04000a "N/A"        (FakeConfig; get … only when recordGets is set)
//     listen                                                   (FakeEventChannel)
//     open | close | write 62 value=1 mask=0x4 shift=2 | read 61 mask=0x10 shift=0      (FakeCard)
//     run LINE                                                 (FakeFileUtils)
//     sleep 250000000 | sleepSeconds 1 | sleepMicroseconds 250000 | system LINE | mkdir PATH 1411 (octal)
//     unlink PATH | exists PATH | create PATH 644 (octal) | guard PATH | thread detached | join | inotify | getFlags 3
//     setFlags 3 0x800 | watch 3 PATH 0x100 | unwatch 3 1 | readDescriptor 3 4096 (when recordReads is set)
//     closeDescriptor 3 | uevents | bind 100 0xffffffff | wake 200
//                                                              (FakeOperatingSystem)
//
// Every object may be used from any thread. Hooks run on the thread that caused them, with no lock held.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "classes/os/operating_system.h"
#include "config.h"
#include "file_utils.h"
#include "slots/card.h"

namespace fakes {

using Lines = std::vector<std::string>;

inline std::string hex(unsigned int value, int digits = 0) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

// Polls `condition` until it holds; false after ten seconds (generous: emulated and sanitized runs are slow).
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class Journal {
public:
    void add(std::string line) {
        const std::lock_guard lock(_lock);
        _lines.push_back(std::move(line));
    }
    Lines lines() const {
        const std::lock_guard lock(_lock);
        return _lines;
    }
    // What was written since the last take.
    Lines take() {
        const std::lock_guard lock(_lock);
        return std::exchange(_lines, {});
    }
    void clear() { take(); }
    // The entries that begin with `prefix`.
    Lines matching(const std::string& prefix) const {
        Lines found;
        for (const std::string& line : lines())
            if (line.starts_with(prefix)) found.push_back(line);
        return found;
    }
    std::size_t count(const std::string& line) const {
        std::size_t found = 0;
        for (const std::string& each : lines()) found += each == line ? 1U : 0U;
        return found;
    }

private:
    mutable std::mutex _lock;
    Lines _lines;
};

// A parameter store that holds what was set. It raises no events by itself; a test calls the listener, or
// installs onSet.
class FakeConfig : public Config {
public:
    explicit FakeConfig(Journal& journal) : _journal(journal) {}

    int setInteger(eParam_t id, int value) override {
        _journal.add("set " + hex(id, 8) + " " + std::to_string(value));
        {
            const std::lock_guard lock(_lock);
            _integers[id] = value;
        }
        if (onSet) onSet(id);
        return setStatus;
    }
    int getInteger(eParam_t id) override {
        if (recordGets) _journal.add("get " + hex(id, 8));
        return integer(id);
    }
    int getInteger(eParam_t id, int* value) override {
        if (recordGets) _journal.add("get " + hex(id, 8));
        const std::lock_guard lock(_lock);
        const auto found = _integers.find(id);
        if (found == _integers.end()) return kConfigUnknown;
        *value = found->second;
        return kConfigOk;
    }
    int setString(eParam_t id, std::string value) override {
        _journal.add("set " + hex(id, 8) + " \"" + value + "\"");
        {
            const std::lock_guard lock(_lock);
            _strings[id] = std::move(value);
        }
        if (onSet) onSet(id);
        return setStatus;
    }
    int getString(eParam_t id, std::string& value) override {
        if (recordGets) _journal.add("get " + hex(id, 8));
        const std::lock_guard lock(_lock);
        const auto found = _strings.find(id);
        if (found == _strings.end()) return kConfigUnknown;
        value = found->second;
        return kConfigOk;
    }

    // What other processes would do; leaves no trace in the journal.
    void put(eParam_t id, int value) {
        const std::lock_guard lock(_lock);
        _integers[id] = value;
    }
    void put(eParam_t id, std::string value) {
        const std::lock_guard lock(_lock);
        _strings[id] = std::move(value);
    }
    // The value held; 0 or "" when there is none.
    int integer(eParam_t id) const {
        const std::lock_guard lock(_lock);
        const auto found = _integers.find(id);
        return found == _integers.end() ? 0 : found->second;
    }
    std::string text(eParam_t id) const {
        const std::lock_guard lock(_lock);
        const auto found = _strings.find(id);
        return found == _strings.end() ? std::string() : found->second;
    }

    bool recordGets = false;
    int setStatus = kConfigOk;             // what the set operations return
    std::function<void(eParam_t)> onSet;   // after every set

private:
    Journal& _journal;
    mutable std::mutex _lock;
    std::map<eParam_t, int> _integers;
    std::map<eParam_t, std::string> _strings;
};

class FakeEventChannel : public ConfigEventChannel {
public:
    explicit FakeEventChannel(Journal& journal) : _journal(journal) {}

    void addListener(ConfigEvents* listener) override {
        _journal.add("listen");
        listeners.push_back(listener);
    }
    void raise(eParam_t id, unsigned int value) {
        for (ConfigEvents* listener : listeners) listener->ParamChanged(id, value, timeval{});
    }
    void raise(eParam_t id, const std::string& value) {
        for (ConfigEvents* listener : listeners) listener->ParamChanged(id, value, timeval{});
    }

    std::vector<ConfigEvents*> listeners;

private:
    Journal& _journal;
};

// A register file. Registers that nobody wrote hold 0.
class FakeCard : public Card {
public:
    explicit FakeCard(Journal& journal) : _journal(journal) {}

    bool Open() override {
        _journal.add("open");
        return openResult;
    }
    bool Close() override {
        _journal.add("close");
        return true;
    }
    bool WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) override {
        if (recordWrites)
            _journal.add("write " + std::to_string(reg) + " value=" + std::to_string(value) + " mask=" + hex(mask) +
                         " shift=" + std::to_string(shift));
        if (onWrite) onWrite(reg, value);
        if (!writeResult) return false;
        const unsigned int moved = shift < 32 ? value << shift : 0;
        const std::lock_guard lock(_lock);
        unsigned int& content = _registers[reg];
        content = (content & ~mask) | (moved & mask);
        return true;
    }
    bool ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) override {
        if (recordReads)
            _journal.add("read " + std::to_string(reg) + " mask=" + hex(mask) + " shift=" + std::to_string(shift));
        if (!readResult) return false;
        *value = shift < 32 ? (get(reg) & mask) >> shift : 0;
        return true;
    }

    // What the hardware would do; leaves no trace in the journal.
    void put(unsigned int reg, unsigned int content) {
        const std::lock_guard lock(_lock);
        _registers[reg] = content;
    }
    void setBits(unsigned int reg, unsigned int bits) {
        const std::lock_guard lock(_lock);
        _registers[reg] |= bits;
    }
    void clearBits(unsigned int reg, unsigned int bits) {
        const std::lock_guard lock(_lock);
        _registers[reg] &= ~bits;
    }
    unsigned int get(unsigned int reg) const {
        const std::lock_guard lock(_lock);
        const auto found = _registers.find(reg);
        return found == _registers.end() ? 0 : found->second;
    }

    bool recordReads = true; // pollers flood the journal otherwise: switch it off there
    bool recordWrites = true;
    bool openResult = true;
    bool writeResult = true;
    bool readResult = true;
    std::function<void(unsigned int reg, unsigned int value)> onWrite; // before the register changes

private:
    Journal& _journal;
    mutable std::mutex _lock;
    std::map<unsigned int, unsigned int> _registers;
};

// A shell that runs nothing. Every line succeeds without output unless a rule says otherwise; of several rules that
// fit, the one added last wins.
class FakeFileUtils : public FileUtils {
public:
    struct Answer {
        int result = 0;
        std::string output;
    };
    using Handler = std::function<Answer(const std::string& line)>;

    explicit FakeFileUtils(Journal& journal) : _journal(journal) {}

    int executeCommand(const std::string& line, char* output, std::size_t outputSize) override {
        const std::string taken = line; // line and output may share memory
        _journal.add("run " + taken);
        Handler handler;
        {
            const std::lock_guard lock(_lock);
            for (auto rule = _rules.rbegin(); rule != _rules.rend() && !handler; ++rule) {
                if (rule->exact ? taken != rule->text : taken.find(rule->text) == std::string::npos) continue;
                if (rule->times == 0) continue;
                if (rule->times > 0) --rule->times;
                handler = rule->handler;
            }
        }
        const Answer answer = handler ? handler(taken) : Answer{};
        if (output != nullptr && outputSize > 0) {
            const std::size_t length = std::min(answer.output.size(), outputSize - 1);
            std::memcpy(output, answer.output.data(), length);
            output[length] = '\0';
        }
        return answer.result;
    }

    // The answer to the line that is exactly `line`; `times` -1 for ever, else the next so many calls.
    void answer(const std::string& line, int result, const std::string& output = "", int times = -1) {
        add({line, true, times, [result, output](const std::string&) { return Answer{result, output}; }});
    }
    // The answer to every line that contains `part`.
    void answerPart(const std::string& part, int result, const std::string& output = "", int times = -1) {
        add({part, false, times, [result, output](const std::string&) { return Answer{result, output}; }});
    }
    // Runs `handler` for every line that contains `part` ("" for every line): a rule that changes the world.
    void handle(const std::string& part, Handler handler) { add({part, false, -1, std::move(handler)}); }

private:
    struct Rule {
        std::string text;
        bool exact;
        int times;
        Handler handler;
    };
    void add(Rule rule) {
        const std::lock_guard lock(_lock);
        _rules.push_back(std::move(rule));
    }

    Journal& _journal;
    std::mutex _lock;
    std::vector<Rule> _rules;
};

// The operating system, with a clock that only sleeps and tests move.
class FakeOperatingSystem : public OperatingSystem {
public:
    enum class Threads {
        // A body waits in `threads` until run() is called. While somebody waits for a semaphore that is at 0, the
        // recorded bodies run in turns on the waiting thread, each up to its next sleep or wait for a uevent; at its
        // next turn it begins anew (a body is a loop around one step, so that is no difference to it).
        Recorded,
        // Bodies run on real threads at once.
        Started,
    };
    enum class Sleeps {
        Advance, // a sleep moves the clock and returns at once
        Wait,    // a sleep returns when advance() has moved the clock past its end
    };
    struct Thread {
        ThreadKind kind;
        void* (*body)(void*);
        void* argument;
        bool taken; // its body has been run or is running
    };
    static constexpr int kUeventSocket = 100;
    static constexpr int kWake = 200;
    static constexpr int kInotify = 300;

    explicit FakeOperatingSystem(Journal& journal) : _journal(journal) {}

    // --- clock and sleeps ---
    std::time_t time() override {
        const std::lock_guard lock(_lock);
        return startTime + static_cast<std::time_t>(_now / 1'000'000'000);
    }
    std::time_t steadyTime() override {
        const std::lock_guard lock(_lock);
        return 60 + static_cast<std::time_t>(_now / 1'000'000'000);
    }
    void sleep(ThreadSleep& /*sleeper*/, long nanoseconds) override {
        pass("sleep " + std::to_string(nanoseconds), nanoseconds);
    }
    void sleepSeconds(unsigned int seconds) override {
        pass("sleepSeconds " + std::to_string(seconds), 1'000'000'000LL * seconds);
    }
    void sleepMicroseconds(unsigned int microseconds) override {
        pass("sleepMicroseconds " + std::to_string(microseconds), 1'000LL * microseconds);
    }
    // Moves the clock and wakes the sleepers whose time has come.
    void advance(long long nanoseconds) {
        const std::lock_guard lock(_lock);
        _now += nanoseconds;
        _changed.notify_all();
    }
    // Nanoseconds since the world began.
    long long now() const {
        const std::lock_guard lock(_lock);
        return _now;
    }
    // Threads that sleep at the moment (Sleeps::Wait).
    int sleepers() const {
        const std::lock_guard lock(_lock);
        return _sleepers;
    }
    std::time_t startTime = 1'700'000'000; // a test sets the date by changing it
    Sleeps sleeps = Sleeps::Advance;
    bool recordSleeps = true;
    std::function<void(long long nanoseconds)> onSleep; // at the begin of every sleep: what happens meanwhile

    // --- processes, files ---
    int system(const std::string& line) override {
        _journal.add("system " + line);
        if (onSystem) return onSystem(line);
        return 0;
    }
    bool isRunning(const std::string& name) override {
        return onIsRunning && onIsRunning(name);
    }
    std::function<bool(const std::string& name)> onIsRunning; // a look, which leaves no line; not set: nothing runs
    int makeDirectory(const std::string& path, mode_t mode) override {
        char text[16];
        std::snprintf(text, sizeof text, "%o", static_cast<unsigned int>(mode));
        _journal.add("mkdir " + path + " " + text);
        const std::lock_guard lock(_lock);
        if (files.insert(path).second) return 0;
        errno = EEXIST;
        return -1;
    }
    int unlink(const std::string& path) override {
        _journal.add("unlink " + path);
        const std::lock_guard lock(_lock);
        if (files.erase(path) != 0) return 0;
        errno = ENOENT;
        return -1;
    }
    bool exists(const std::string& path) override {
        _journal.add("exists " + path);
        const std::lock_guard lock(_lock);
        return files.contains(path);
    }
    int createFile(const std::string& path, mode_t mode) override {
        char text[16];
        std::snprintf(text, sizeof text, "%o", static_cast<unsigned int>(mode));
        _journal.add("create " + path + " " + text);
        const std::lock_guard lock(_lock);
        files.insert(path);
        return 0;
    }
    bool isLink(const std::string& path) override {
        const std::lock_guard lock(_lock);
        return links.contains(path);
    }
    int guardMount(const std::string& path) override {
        _journal.add("guard " + path);
        return guardError == 0 ? 0 : fail(guardError);
    }
    std::function<int(const std::string& line)> onSystem;
    std::set<std::string> links; // paths that are symbolic links
    int guardError = 0;          // what guardMount fails with
    std::set<std::string> files; // paths that exist, as far as the operations above go

    // --- threads ---
    int startThread(ThreadKind kind, void* (*body)(void*), void* argument, pthread_t& thread) override {
        static const char* const names[] = {"joinable", "detached", "detached, scheduled"};
        _journal.add(std::string("thread ") + names[static_cast<int>(kind)]);
        if (threadError != 0) return threadError;
        if (threadMode == Threads::Started) return OperatingSystem::startThread(kind, body, argument, thread);
        const std::lock_guard lock(_lock);
        threads.push_back({kind, body, argument, false});
        std::memset(&thread, 0, sizeof thread);
        return 0;
    }
    int joinThread(pthread_t thread) override {
        _journal.add("join");
        if (joinError != 0) return joinError;
        if (threadMode == Threads::Started) return OperatingSystem::joinThread(thread);
        while (runNext()) {
        }
        return 0;
    }
    // Runs the body of recorded thread `index` on this thread, to its end.
    void run(std::size_t index) {
        Thread taken;
        {
            const std::lock_guard lock(_lock);
            threads.at(index).taken = true;
            taken = threads.at(index);
        }
        taken.body(taken.argument);
    }
    // Gives every recorded body a turn, again and again, until the semaphore can be taken; false when that is no help.
    bool takeTurns(sem_t* semaphore) {
        for (int round = 0; round < 100; ++round) {
            for (std::size_t index = 0;; ++index) {
                Thread* thread = nullptr;
                {
                    const std::lock_guard lock(_lock);
                    while (index < threads.size() && threads[index].taken) ++index;
                    if (index == threads.size()) break;
                    thread = &threads[index];
                    thread->taken = true;
                }
                const bool before = std::exchange(takingTurns, true);
                try {
                    thread->body(thread->argument);
                } catch (const TurnOver&) {
                    thread->taken = false;
                }
                takingTurns = before;
                if (sem_trywait(semaphore) == 0) return true;
            }
        }
        return false;
    }
    // Runs the first recorded body that nobody has run; false when there is none.
    bool runNext() {
        std::size_t index = 0;
        {
            const std::lock_guard lock(_lock);
            while (index < threads.size() && threads[index].taken) ++index;
            if (index == threads.size()) return false;
        }
        run(index);
        return true;
    }
    Threads threadMode = Threads::Recorded;
    int threadError = 0; // what startThread and joinThread fail with
    int joinError = 0;
    std::deque<Thread> threads; // the recorded ones, in the order of their starts

    // --- semaphores: real ones ---
    int initSemaphore(sem_t* semaphore, unsigned int value) override {
        if (recordSemaphores) _journal.add("semaphore " + std::to_string(value));
        const int result = OperatingSystem::initSemaphore(semaphore, value);
        return semaphoreInitError == 0 ? result : fail(semaphoreInitError);
    }
    int waitSemaphore(sem_t* semaphore) override {
        if (recordSemaphores) _journal.add("wait");
        if (const auto hook = std::exchange(beforeNextWait, nullptr)) hook();
        if (semaphoreWaitError != 0) return fail(semaphoreWaitError);
        while (sem_trywait(semaphore) == -1) {
            if (errno != EAGAIN) return -1;
            if (threadMode == Threads::Recorded && takeTurns(semaphore)) return 0;
            timespec deadline{};
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += 30;
            int result = sem_timedwait(semaphore, &deadline);
            while (result == -1 && errno == EINTR) result = sem_timedwait(semaphore, &deadline);
            if (result == 0) return 0;
            ADD_FAILURE() << "a semaphore that nobody posts";
            return fail(EDEADLK);
        }
        return 0;
    }
    int postSemaphore(sem_t* semaphore) override {
        if (recordSemaphores) _journal.add("post");
        if (semaphorePostError != 0) {
            OperatingSystem::postSemaphore(semaphore);
            return fail(semaphorePostError);
        }
        return OperatingSystem::postSemaphore(semaphore);
    }
    bool recordSemaphores = false;
    std::function<void()> beforeNextWait; // runs once: what another thread does just before the next wait
    int semaphoreInitError = 0; // with an error the semaphore still works, but the operation claims to have failed
    int semaphoreWaitError = 0; // with an error nothing is waited for
    int semaphorePostError = 0;

    // --- uevents ---
    int openUevents() override {
        _journal.add("uevents");
        return ueventOpenError == 0 ? kUeventSocket : fail(ueventOpenError);
    }
    int bindUevents(int socket, std::uint32_t groups) override {
        _journal.add("bind " + std::to_string(socket) + " " + hex(groups));
        return ueventBindError == 0 ? 0 : fail(ueventBindError);
    }
    // With recorded threads a wait for nothing counts as woken, so that a body that is run comes to its end.
    int pollUevents(int /*socket*/, int /*wake*/) override {
        std::unique_lock lock(_lock);
        if (threadMode == Threads::Started)
            _changed.wait(lock, [this] { return _woken || !_datagrams.empty() || ueventPollError != 0; });
        if (ueventPollError != 0) return fail(ueventPollError);
        if (_woken) return 0;
        if (_datagrams.empty() && takingTurns) throw TurnOver{};
        return _datagrams.empty() ? 0 : 1;
    }
    int lookForUevent(int /*socket*/) override {
        const std::lock_guard lock(_lock);
        if (ueventLookError != 0) return fail(ueventLookError);
        return _datagrams.empty() ? 0 : 1;
    }
    ssize_t receiveUevent(int /*socket*/, void* buffer, std::size_t size) override {
        const std::lock_guard lock(_lock);
        if (ueventReceiveError != 0) return fail(ueventReceiveError);
        if (_datagrams.empty()) return fail(EAGAIN);
        const std::string datagram = std::move(_datagrams.front());
        _datagrams.pop_front();
        const std::size_t length = std::min(size, datagram.size());
        std::memcpy(buffer, datagram.data(), length);
        return static_cast<ssize_t>(length);
    }
    std::uint32_t droppedUevents(int /*socket*/) override {
        const std::lock_guard lock(_lock);
        ++dropQuestions;
        return _dropped;
    }
    int openWake() override { return wakeError == 0 ? kWake : fail(wakeError); }
    void signalWake(int wake) override {
        _journal.add("wake " + std::to_string(wake));
        const std::lock_guard lock(_lock);
        _woken = true;
        _changed.notify_all();
    }
    // One datagram for the socket, byte for byte.
    void sendUevent(std::string datagram) {
        const std::lock_guard lock(_lock);
        _datagrams.push_back(std::move(datagram));
        _changed.notify_all();
    }
    void dropUevents(std::uint32_t count) {
        const std::lock_guard lock(_lock);
        _dropped += count;
    }
    std::size_t pendingUevents() const {
        const std::lock_guard lock(_lock);
        return _datagrams.size();
    }
    void failPoll(int error) {
        const std::lock_guard lock(_lock);
        ueventPollError = error;
        _changed.notify_all();
    }
    int dropQuestions = 0; // how often droppedUevents was called
    int ueventOpenError = 0;
    int ueventBindError = 0;
    int ueventPollError = 0;
    int ueventLookError = 0;
    int ueventReceiveError = 0;
    int wakeError = 0;

    // --- inotify ---
    int openInotify() override {
        _journal.add("inotify");
        return inotifyError == 0 ? kInotify : fail(inotifyError);
    }
    int getDescriptorFlags(int descriptor) override {
        _journal.add("getFlags " + std::to_string(descriptor));
        return getFlagsError == 0 ? descriptorFlags : fail(getFlagsError);
    }
    int setDescriptorFlags(int descriptor, int flags) override {
        _journal.add("setFlags " + std::to_string(descriptor) + " " + hex(static_cast<unsigned int>(flags)));
        if (setFlagsError != 0) return fail(setFlagsError);
        descriptorFlags = flags;
        return 0;
    }
    int addInotifyWatch(int descriptor, const std::string& path, std::uint32_t mask) override {
        _journal.add("watch " + std::to_string(descriptor) + " " + path + " " + hex(mask));
        if (descriptor == -1) return fail(EBADF);
        return watchError == 0 ? ++_lastWatch : fail(watchError);
    }
    int removeInotifyWatch(int descriptor, int watch) override {
        _journal.add("unwatch " + std::to_string(descriptor) + " " + std::to_string(watch));
        return unwatchError == 0 ? 0 : fail(unwatchError);
    }
    ssize_t read(int descriptor, void* buffer, std::size_t size) override {
        if (recordReads) _journal.add("readDescriptor " + std::to_string(descriptor) + " " + std::to_string(size));
        if (descriptor == -1) return fail(EBADF);
        if (readError != 0) return fail(readError);
        const std::lock_guard lock(_lock);
        if (_input.empty()) return fail(EAGAIN);
        const std::string chunk = std::move(_input.front());
        _input.pop_front();
        const std::size_t length = std::min(size, chunk.size());
        std::memcpy(buffer, chunk.data(), length);
        return static_cast<ssize_t>(length);
    }
    int close(int descriptor) override {
        _journal.add("closeDescriptor " + std::to_string(descriptor));
        return closeError == 0 ? 0 : fail(closeError);
    }
    // What the next read of a descriptor gives; without anything left it is told to try again.
    void feed(std::string bytes) {
        const std::lock_guard lock(_lock);
        _input.push_back(std::move(bytes));
    }
    bool recordReads = false;
    int descriptorFlags = 0;
    int inotifyError = 0;
    int getFlagsError = 0;
    int setFlagsError = 0;
    int watchError = 0;
    int unwatchError = 0;
    int readError = 0;
    int closeError = 0;

private:
    static int fail(int error) {
        errno = error;
        return -1;
    }
    // How a body that takes turns leaves the stage; no door is called with a lock held, so nothing stays locked.
    struct TurnOver {};
    static inline thread_local bool takingTurns = false;

    void pass(const std::string& entry, long long nanoseconds) {
        if (takingTurns) throw TurnOver{};
        if (recordSleeps) _journal.add(entry);
        if (onSleep) onSleep(nanoseconds);
        std::unique_lock lock(_lock);
        if (sleeps == Sleeps::Advance) {
            _now += nanoseconds;
            return;
        }
        const long long end = _now + nanoseconds;
        ++_sleepers;
        _changed.wait(lock, [this, end] { return _now >= end; });
        --_sleepers;
    }

    Journal& _journal;
    mutable std::mutex _lock;
    std::condition_variable _changed;
    long long _now = 0;
    int _sleepers = 0;
    int _lastWatch = 0;
    bool _woken = false;
    std::uint32_t _dropped = 0;
    std::deque<std::string> _datagrams;
    std::deque<std::string> _input;
};

// Everything above, around one journal.
struct World {
    Journal journal;
    FakeConfig config{journal};
    FakeEventChannel events{journal};
    FakeCard card{journal};
    FakeFileUtils shell{journal};
    FakeOperatingSystem os{journal};
};

// Takes what is written to standard error (file descriptor 2, so whatever way it is written) while it lives.
class StandardError {
public:
    StandardError() : _file(memfd_create("standard-error", MFD_CLOEXEC)), _before(dup(STDERR_FILENO)) {
        std::fflush(stderr);
        dup2(_file, STDERR_FILENO);
    }
    ~StandardError() {
        std::fflush(stderr);
        dup2(_before, STDERR_FILENO);
        ::close(_before);
        ::close(_file);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    // All of it so far.
    std::string text() const {
        std::fflush(stderr);
        std::string content;
        char buffer[4096];
        off_t offset = 0;
        for (ssize_t got; (got = pread(_file, buffer, sizeof buffer, offset)) > 0; offset += got)
            content.append(buffer, static_cast<std::size_t>(got));
        return content;
    }
    // What has come since the last take.
    std::string take() {
        std::string fresh = text().substr(_taken);
        _taken += fresh.size();
        return fresh;
    }

private:
    int _file;
    int _before;
    std::size_t _taken = 0;
};

// A uevent as the kernel lays it out: the lines, each ended by a NUL.
inline std::string uevent(const Lines& lines) {
    std::string datagram;
    for (const std::string& line : lines) datagram.append(line).push_back('\0');
    return datagram;
}

// An inotify event as the kernel lays it out. A name is padded to `length` bytes (by itself to a multiple of 16); an
// event without one is about the watched directory itself.
inline std::string inotifyEvent(std::uint32_t mask, const std::string& name = "", std::uint32_t length = 0, int watch = 1) {
    if (!name.empty() && length == 0) length = static_cast<std::uint32_t>(name.size() / 16 + 1) * 16;
    const std::uint32_t cookie = 0x5a5a5a5a;
    std::string bytes;
    for (const std::uint32_t word : {static_cast<std::uint32_t>(watch), mask, cookie, length})
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    bytes += name;
    bytes.resize(16 + length, '\0');
    return bytes;
}

} // namespace fakes

#endif
