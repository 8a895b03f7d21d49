// The file that keeps the values for the next host.

#include "platform/parameter_store/store_journal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/parameter_store/byte_order.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr eParam_t kLed = 0x41424344;
constexpr eParam_t kLabel = 0x41424345;

class StoreJournalTest : public testing::Test {
protected:
    void SetUp() override {
        char folder[] = "/tmp/journal-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        _folder = folder;
        _path = _folder + "/values";
    }
    void TearDown() override { std::filesystem::remove_all(_folder); }

    // One life of a host that does `work`.
    template <typename Work>
    void host(Work work) {
        StoreEngine engine;
        StoreJournal journal(_path);
        journal.open(engine);
        engine.addObserver(&journal);
        work(engine);
        engine.removeObserver(&journal);
    }

    std::string bytes() {
        std::ifstream file(_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write(const std::string& content) { std::ofstream(_path, std::ios::binary | std::ios::trunc) << content; }

    static int integer(const StoreEngine& engine, eParam_t id) {
        int value = -12345;
        engine.getInteger(id, value);
        return value;
    }
    static std::string text(const StoreEngine& engine, eParam_t id) {
        std::string value = "(none)";
        engine.getString(id, value);
        return value;
    }

    // What a next host says on standard error before it does `work`.
    template <typename Work>
    std::string hostSays(Work work) {
        CaptureStderr();
        host(work);
        return GetCapturedStderr();
    }

    std::string _folder;
    std::string _path;
};

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace

TEST_F(StoreJournalTest, valuesComeBackAndCommandsDoNot) {
    host([](StoreEngine& engine) {
        engine.setInteger(kParamSelectedSlot, 2);
        engine.setInteger(kParamAlarms, -2147483647 - 1);
        engine.setString(kParamVolumeName, "Volume|\xc3\xa4 1");
        engine.setInteger(kLed, 2);
        engine.setString(kLabel, "label");
        engine.setString(kParamStoragePath, "/mnt/S1/NEVO");
        engine.setString(kParamStoragePath, "");
        for (const eParam_t command : {kParamSystemCommand, kParamMediaCommand, kParamSlotChangeCommand,
                                       kParamSlotRemountCommand, kParamFirewireMode})
            engine.setInteger(command, 2);
    });
    EXPECT_EQ(hostSays([](StoreEngine& engine) {
                  EXPECT_EQ(integer(engine, kParamSelectedSlot), 2);
                  EXPECT_EQ(integer(engine, kParamAlarms), -2147483647 - 1);
                  EXPECT_EQ(text(engine, kParamVolumeName), "Volume|\xc3\xa4 1");
                  EXPECT_EQ(integer(engine, kLed), 2);
                  EXPECT_EQ(text(engine, kLabel), "label");
                  EXPECT_EQ(engine.setInteger(kLabel, 1), kConfigWrongType) << "the type of an unknown one is kept too";
                  EXPECT_EQ(text(engine, kParamStoragePath), "");
                  for (const eParam_t command : {kParamSystemCommand, kParamMediaCommand, kParamSlotChangeCommand,
                                                 kParamSlotRemountCommand, kParamFirewireMode})
                      EXPECT_EQ(integer(engine, command), 0);
              }),
              "");
    // And through a host that set nothing at all.
    host([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kParamSelectedSlot), 2); });
}

TEST_F(StoreJournalTest, formatIsTheOneInTheHeader) {
    host([](StoreEngine& engine) { engine.setInteger(kLed, -2); });
    // The CRC was reckoned by another program.
    const std::string expected("mdvalue1"
                               "mvrc"
                               "\x12\x00\x79\x70"
                               "ABCD"
                               "\0\0\0\0"
                               "\0\0\0\x04"
                               "\xff\xff\xff\xfe",
                               32);
    EXPECT_EQ(bytes(), expected);
    struct stat status {};
    ASSERT_EQ(stat(_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(StoreJournalTest, aSetIsInTheFileWhenItReturns) {
    host([this](StoreEngine& engine) {
        engine.setInteger(kLed, 1);
        const std::size_t before = bytes().size();
        engine.setInteger(kLed, 2);
        EXPECT_GT(bytes().size(), before);
    });
}

TEST_F(StoreJournalTest, aTornTailCostsTheLastValueOnly) {
    host([](StoreEngine& engine) {
        engine.setInteger(kLed, 1);
        engine.setString(kLabel, "label");
    });
    const std::string whole = bytes();
    for (std::size_t cut = 1; cut < kRecordHeadSize + 5; ++cut) {
        write(whole.substr(0, whole.size() - cut));
        const std::string said = hostSays([](StoreEngine& engine) {
            EXPECT_EQ(integer(engine, kLed), 1);
            EXPECT_EQ(text(engine, kLabel), "(none)");
        });
        EXPECT_EQ(lines(said), 1U);
        EXPECT_THAT(said, HasSubstr(_path + " is damaged: 1 records read"));
        host([](StoreEngine& engine) { engine.setInteger(kLed, 1); });
    }
}

TEST_F(StoreJournalTest, whatIsWholeBehindADamageIsRead) {
    host([](StoreEngine& engine) {
        engine.setInteger(kLed, 1);
        engine.setString(kLabel, "label");
        engine.setInteger(kParamAlarms, 5);
    });
    const std::string whole = bytes();
    const std::size_t label = whole.find("label");
    ASSERT_NE(label, std::string::npos);
    // Any one byte of the middle record.
    for (std::size_t at = label - kRecordHeadSize; at < label + 5; ++at) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x40);
        write(damaged);
        const std::string said = hostSays([](StoreEngine& engine) {
            EXPECT_EQ(integer(engine, kLed), 1);
            EXPECT_EQ(integer(engine, kParamAlarms), 5);
            EXPECT_EQ(text(engine, kLabel), "(none)");
        });
        EXPECT_EQ(lines(said), 1U) << said;
    }
}

TEST_F(StoreJournalTest, garbageIsOneLineAndAnEmptyStore) {
    for (const std::string& garbage : {std::string("x"), std::string(), std::string(100000, 'm'),
                                       std::string(5000, '\0'), std::string("mvrcmvrcmvrcmvrcmvrcmvrcmvrc")}) {
        write(garbage);
        const std::string said = hostSays([](StoreEngine& engine) {
            EXPECT_EQ(integer(engine, kParamAlarms), 0);
            EXPECT_EQ(engine.setInteger(kLed, 4), kConfigOk);
        });
        EXPECT_EQ(lines(said), 1U);
        // The file is a good one again.
        EXPECT_EQ(hostSays([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kLed), 4); }), "");
    }
}

TEST_F(StoreJournalTest, recordsThatTheStoreRefusesAreLeftOut) {
    // A string for an integer parameter, as a host with another table might have left it.
    write(std::string("mdvalue1" "mvrc" "\xc3\xff\x2d\x5c" "\x7e\0\0\0" "\0\0\0\x01" "\0\0\0\x01" "x", 29));
    const std::string said = hostSays([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kParamAlarms), 0); });
    EXPECT_EQ(said, "paramstore: " + _path + " is damaged: 0 records read, 1 refused\n");
}

TEST_F(StoreJournalTest, whatIsNoFileDoesNotHoldTheHostUp) {
    ASSERT_EQ(mkfifo(_path.c_str(), 0600), 0);
    std::string said = hostSays([](StoreEngine& engine) { engine.setInteger(kLed, 1); });
    EXPECT_EQ(lines(said), 1U);
    EXPECT_THAT(said, HasSubstr("cannot read " + _path));
    // A file took its place.
    EXPECT_EQ(hostSays([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kLed), 1); }), "");

    std::filesystem::remove(_path);
    std::filesystem::create_directory(_path);
    said = hostSays([](StoreEngine& engine) {
        EXPECT_EQ(engine.setInteger(kLed, 2), kConfigOk);
        EXPECT_EQ(integer(engine, kLed), 2);
    });
    EXPECT_EQ(lines(said), 2U) << "neither read nor written";
}

TEST_F(StoreJournalTest, theFileStaysSmall) {
    host([this](StoreEngine& engine) {
        const std::string text(1000, 't');
        off_t largest = 0;
        for (int each = 0; each < 5000; ++each) {
            engine.setInteger(kLed, each);
            engine.setString(kLabel, text);
            struct stat status {};
            ASSERT_EQ(stat(_path.c_str(), &status), 0);
            largest = std::max(largest, status.st_size);
        }
        EXPECT_GT(largest, 500'000) << "it is not written anew all the time";
        EXPECT_LE(largest, 1024 * 1024);
    });
    host([](StoreEngine& engine) {
        EXPECT_EQ(integer(engine, kLed), 4999);
        EXPECT_EQ(text(engine, kLabel), std::string(1000, 't'));
    });
}

TEST_F(StoreJournalTest, aFullFileSystemCostsNoValueThatWasKept) {
    // A limit on the file's size fails a write in its middle, as a full file system does.
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_IGN);
    const std::string said = hostSays([&](StoreEngine& engine) {
        engine.setInteger(kLed, 1);
        const rlimit small{70, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(engine.setString(kLabel, std::string(500, 'x')), kConfigOk);
        EXPECT_EQ(text(engine, kLabel), std::string(500, 'x'));
        EXPECT_EQ(engine.setString(kLabel, std::string(400, 'x')), kConfigOk);
        setrlimit(RLIMIT_FSIZE, &before);
    });
    EXPECT_EQ(lines(said), 1U) << said;
    EXPECT_THAT(said, HasSubstr("cannot write " + _path));
    EXPECT_EQ(hostSays([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kLed), 1); }), "")
        << "no half record was left";
}

TEST_F(StoreJournalTest, aFileThatCouldNotBeWrittenIsTriedAgain) {
    const std::string blocked = _path + ".new";
    std::filesystem::create_directory(blocked);
    std::ofstream(blocked + "/in-the-way") << "x";
    const std::string said = hostSays([&](StoreEngine& engine) {
        engine.setInteger(kLed, 1);
        std::filesystem::remove_all(blocked);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!std::filesystem::exists(_path) && std::chrono::steady_clock::now() < deadline)
            engine.setInteger(kLed, 2);
    });
    EXPECT_EQ(lines(said), 1U) << said;
    host([](StoreEngine& engine) { EXPECT_EQ(integer(engine, kLed), 2); });
}
