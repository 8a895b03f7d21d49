// What a pass takes from the heap while nothing is selected: nothing. The doors here do not write down what goes through
// them, for that would be counted too.

#include <gtest/gtest.h>

#include <map>

#include "config.h"
#include "file_utils.h"
#include "media_manager/media_manager.h"
#include "slots/card.h"
#include "slots/slot_listener.h"
#include "tests/parameter_store/allocation_count.h"

namespace {

constexpr char kBoard[] = R"(
board_id = 0x0a3c
mediaCapabilities = { "cf_hack" }
specification = {
    slots = {
        { name = "S1", address = "/bus1/", scanPath = "/sys/class/scsi_host/host1/scan", capabilities = { "writeable" },
          present = { reg = 61, mask = 0x10, shift = 0 }, status = { { type = "parameter", param = 0x2f010000 } } },
        { name = "S2", address = "/bus2/", scanPath = "/sys/class/scsi_host/host2/scan", capabilities = { "writeable" },
          present = { reg = 61, mask = 0x20, shift = 0 }, status = { { type = "parameter", param = 0x2f020000 } } },
    },
    nextSlot = { default = "S1", S1 = "S2", S2 = "S1" },
}
usefulStrings = { driver_scan = "scan drivers" }
)";

class QuietConfig : public Config {
public:
    int setInteger(eParam_t id, int value) override {
        _integers[id] = value;
        return kConfigOk;
    }
    int getInteger(eParam_t id) override {
        const auto found = _integers.find(id);
        return found == _integers.end() ? 0 : found->second;
    }
    int getInteger(eParam_t id, int* value) override {
        *value = getInteger(id);
        return kConfigOk;
    }
    int setString(eParam_t, std::string) override { return kConfigOk; }
    int getString(eParam_t, std::string&) override { return kConfigUnknown; }

private:
    std::map<eParam_t, int> _integers;
};

class QuietCard : public Card {
public:
    bool Open() override { return true; }
    bool Close() override { return true; }
    bool WriteRegister(unsigned int, unsigned int, unsigned int, unsigned int) override { return true; }
    bool ReadRegister(unsigned int, unsigned int* value, unsigned int, unsigned int) override {
        *value = 0;
        return true;
    }
};

class QuietShell : public FileUtils {
public:
    int executeCommand(const std::string&, char*, std::size_t) override { return 0; }
};

class QuietChannel : public ConfigEventChannel {
public:
    void addListener(ConfigEvents*) override {}
};

class QuietSystem : public OperatingSystem {
public:
    std::time_t time() override { return now; }
    void sleep(ThreadSleep&, long) override {}
    void sleepSeconds(unsigned int) override {}
    void sleepMicroseconds(unsigned int) override {}
    int system(const std::string&) override { return 0; }
    int makeDirectory(const std::string&, mode_t) override { return 0; }
    int unlink(const std::string&) override { return 0; }

    std::time_t now = 1000;
};

TEST(IdlePass, TakesNothingFromTheHeap) {
    QuietConfig config;
    QuietCard card;
    QuietShell shell;
    QuietChannel channel;
    QuietSystem os;
    SlotListener listener(&config, &card, os);
    ASSERT_EQ(listener.parseSpecification("0x00000a3c", kBoard, &shell), 0);
    MediaManager manager(&listener, &card, &config, &channel, &shell, os);
    ASSERT_EQ(manager.init(), 0);
    // The first passes come to a state: nothing is loading any more, and the buffer for events is there.
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(manager.pass());
    const std::size_t before = allocationsOfThisThread();
    for (int i = 0; i < 10; ++i) {
        ++os.now; // the capacity is looked at in between
        ASSERT_TRUE(manager.pass());
    }
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);
    manager.teardown_inotify();
}

} // namespace
