#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "card_register_file.h"
#include "cqrd5.h"

namespace {

constexpr char kPath[] = "/dev/shm/mediad-card";

class CardSdk : public testing::Test {
protected:
    void SetUp() override { unlink(kPath); }
    void TearDown() override { unlink(kPath); }
};

TEST_F(CardSdk, ScanFindsTheBoardOfItsKind) {
    ASSERT_TRUE(CardRegisterFile::create());
    CQRD5BoardScan scan(true, 0xce);
    EXPECT_TRUE(scan.boards.empty()) << "nothing is found before the scan";
    EXPECT_TRUE(scan.ScanHardware(0xce));
    ASSERT_EQ(scan.boards.size(), 1U);
    EXPECT_EQ(scan.boards[0].type, 0xce);
    EXPECT_TRUE(scan.ScanHardware(0xce));
    EXPECT_EQ(scan.boards.size(), 1U);
    EXPECT_FALSE(scan.ScanHardware(0xcd));
    EXPECT_TRUE(scan.boards.empty());
}

TEST_F(CardSdk, ScanSeesThatACardIsGone) {
    ASSERT_TRUE(CardRegisterFile::create());
    CQRD5BoardScan scan(true, 0xce);
    ASSERT_TRUE(scan.ScanHardware(0xce));
    unlink(kPath);
    EXPECT_FALSE(scan.ScanHardware(0xce));
    EXPECT_TRUE(scan.boards.empty());
}

TEST_F(CardSdk, RegisterOperationsWantAnOpenCard) {
    ASSERT_TRUE(CardRegisterFile::create());
    CQRD5Card card(0, true, 0xce, nullptr);
    unsigned int value = 99;
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
    EXPECT_FALSE(card.ReadRegister(1, &value, 1, 0));
    EXPECT_FALSE(card.Close());

    ASSERT_TRUE(card.Open(0, false, 0, nullptr));
    EXPECT_TRUE(card.WriteRegister(1, 0xab, 0xff00, 8));
    EXPECT_TRUE(card.ReadRegister(1, &value, 0xffffffff, 0));
    EXPECT_EQ(value, 0xab00U);
    EXPECT_TRUE(card.ReadRegister(1, &value, 0xff00, 8));
    EXPECT_EQ(value, 0xabU);
    EXPECT_FALSE(card.WriteRegister(65536, 1, 1, 0));
    value = 99;
    EXPECT_FALSE(card.ReadRegister(65536, &value, 1, 0));
    EXPECT_EQ(value, 99U);

    EXPECT_TRUE(card.Close());
    EXPECT_FALSE(card.Close());
    EXPECT_FALSE(card.WriteRegister(1, 0, 0xffffffff, 0));
    EXPECT_FALSE(card.ReadRegister(1, &value, 0xffffffff, 0));

    ASSERT_TRUE(card.Open(0, false, 0, nullptr));
    EXPECT_TRUE(card.ReadRegister(1, &value, 0xffffffff, 0));
    EXPECT_EQ(value, 0xab00U);
}

TEST_F(CardSdk, OpenFailsWithoutACard) {
    CQRD5Card card(0, true, 0xce, nullptr);
    EXPECT_FALSE(card.Open(0, false, 0, nullptr));
    ASSERT_TRUE(CardRegisterFile::create());
    EXPECT_TRUE(card.Open(0, false, 0, nullptr));
    unlink(kPath);
    EXPECT_FALSE(card.Open(0, false, 0, nullptr));
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
}

TEST_F(CardSdk, ToolsSeeWhatTheCardWrites) {
    ASSERT_TRUE(CardRegisterFile::create());
    CQRD5Card card(0, true, 0xce, nullptr);
    ASSERT_TRUE(card.Open(0, false, 0, nullptr));
    const auto tool = CardRegisterFile::open();
    EXPECT_TRUE(card.WriteRegister(0x20, 1, 4, 2));
    std::uint32_t seen = 0;
    EXPECT_TRUE(tool->read(0x20, seen, 0xffffffff, 0));
    EXPECT_EQ(seen, 4U);
    EXPECT_TRUE(tool->write(0x21, 7, 0xf0, 4));
    unsigned int value = 0;
    EXPECT_TRUE(card.ReadRegister(0x21, &value, 0xffffffff, 0));
    EXPECT_EQ(value, 0x70U);
}

TEST_F(CardSdk, ClosingUnderAFlasherIsSafe) {
    ASSERT_TRUE(CardRegisterFile::create());
    CQRD5Card card(0, true, 0xce, nullptr);
    ASSERT_TRUE(card.Open(0, false, 0, nullptr));
    std::atomic<bool> writing{false};
    std::thread flasher([&] {
        while (card.WriteRegister(1, 1, 1, 0)) writing = true;
    });
    while (!writing) std::this_thread::yield();
    EXPECT_TRUE(card.Close());
    flasher.join();
}

} // namespace
