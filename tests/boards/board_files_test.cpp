// Every boards/*.specification is a file that the daemon can start with.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

std::vector<std::filesystem::path> boardFiles() {
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(BOARDS_DIRECTORY, error))
        if (entry.path().extension() == ".specification") files.push_back(entry.path());
    std::ranges::sort(files);
    return files;
}

TEST(BoardFiles, ThereIsOne) { EXPECT_FALSE(boardFiles().empty()) << BOARDS_DIRECTORY; }

TEST(BoardFiles, EveryOneParsesUnderTheBoardIdOfItsName) {
    for (const auto& file : boardFiles()) {
        SCOPED_TRACE(file.string());
        std::stringstream text;
        text << std::ifstream(file).rdbuf();
        fakes::World world;
        SlotListener listener(&world.config, &world.card, world.os);
        const fakes::StandardError error;
        ASSERT_EQ(0, listener.parseSpecification("0x" + file.stem().string(), text.str(), &world.shell))
            << error.text();
        EXPECT_EQ("", error.text());

        // What the parser lets pass and a recorder cannot use.
        const auto supported = listener.supportedSlots();
        EXPECT_FALSE(supported.empty());
        const auto next = listener.getNextSlotMap();
        EXPECT_TRUE(next.contains(eStorageSlotUnknown)) << "nextSlot.default: where to begin";
        const std::set<eStorageSlot_t> known(supported.begin(), supported.end());
        EXPECT_EQ(supported.size(), known.size());
        EXPECT_FALSE(known.contains(eStorageSlotUnknown)) << "a slot name that is none of S1, S2, D1, D2";
        for (const auto& [slot, follower] : next) {
            EXPECT_TRUE(slot == eStorageSlotUnknown || known.contains(slot)) << slot;
            EXPECT_TRUE(known.contains(follower)) << follower;
        }
        std::set<std::string> addresses;
        for (const eStorageSlot_t id : supported) {
            Slot& slot = listener.getSlot(id);
            EXPECT_FALSE(slot.getAddress().empty()) << slot.getName() << " would take every device";
            EXPECT_TRUE(addresses.insert(slot.getAddress()).second) << slot.getAddress();
            EXPECT_FALSE(slot.getScanPath().empty()) << slot.getName();
            EXPECT_FALSE(slot.getLEDs().empty()) << slot.getName();
            // All registers set to ones: whatever the sensor looks at says that a medium is there.
            world.journal.clear();
            slot.isPresent();
            const auto reads = world.journal.matching("read ");
            ASSERT_EQ(1U, reads.size()) << slot.getName() << " has no sensor";
            world.card.put(static_cast<unsigned int>(std::stoul(reads[0].substr(5))), 0xffffffff);
            EXPECT_TRUE(slot.isPresent()) << slot.getName() << ": mask and shift never cover each other";
        }
        EXPECT_FALSE(listener.getUsefulString("driver_scan").empty());
    }
}

} // namespace
