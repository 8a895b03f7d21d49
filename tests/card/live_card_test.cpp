#include "slots/live_card.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <type_traits>

#include "card_register_file.h"
#include "daemonizer.h"

namespace {

constexpr char kPath[] = "/dev/shm/mediad-card";

class LiveCardTest : public testing::Test {
protected:
    void SetUp() override {
        Daemonizer::name = "Media Manager";
        unlink(kPath);
    }
    void TearDown() override { unlink(kPath); }

    static bool openSilently(Card& card) {
        testing::internal::CaptureStderr();
        const bool result = card.Open();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        return result;
    }
};

TEST_F(LiveCardTest, WithoutACardOpenSaysSoAndIsTrue) {
    LiveCard card;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(card.Open());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Media ManagerCan't find the card!\n");

    unsigned int value = 99;
    EXPECT_FALSE(card.ReadRegister(1, &value, 1, 0));
    EXPECT_EQ(value, 99U);
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
    EXPECT_FALSE(card.Close());
}

TEST_F(LiveCardTest, BeforeOpenRegisterOperationsAreFalse) {
    ASSERT_TRUE(CardRegisterFile::create());
    LiveCard card;
    unsigned int value = 0;
    EXPECT_FALSE(card.ReadRegister(1, &value, 1, 0));
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
    EXPECT_FALSE(card.Close());
}

TEST_F(LiveCardTest, CardThatAppearsAfterOpenIsNotUsed) {
    LiveCard card;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(card.Open());
    testing::internal::GetCapturedStderr();
    ASSERT_TRUE(CardRegisterFile::create());
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
}

TEST_F(LiveCardTest, ForwardsRegisterOperations) {
    ASSERT_TRUE(CardRegisterFile::create());
    LiveCard card;
    EXPECT_TRUE(openSilently(card));
    EXPECT_TRUE(card.WriteRegister(0x123, 0x5, 0xf0, 4));
    unsigned int value = 0;
    EXPECT_TRUE(card.ReadRegister(0x123, &value, 0xffffffff, 0));
    EXPECT_EQ(value, 0x50U);
    EXPECT_TRUE(card.ReadRegister(0x123, &value, 0x40, 6));
    EXPECT_EQ(value, 1U);
    std::uint32_t seen = 0;
    EXPECT_TRUE(CardRegisterFile::open()->read(0x123, seen, 0xffffffff, 0));
    EXPECT_EQ(seen, 0x50U);
    EXPECT_FALSE(card.WriteRegister(65536, 1, 1, 0));
    EXPECT_FALSE(card.ReadRegister(65536, &value, 1, 0));
    EXPECT_TRUE(card.Close());
}

TEST_F(LiveCardTest, AfterCloseRegisterOperationsAreFalse) {
    ASSERT_TRUE(CardRegisterFile::create());
    LiveCard card;
    EXPECT_TRUE(openSilently(card));
    EXPECT_TRUE(card.Close());
    EXPECT_FALSE(card.Close());
    unsigned int value = 0;
    EXPECT_FALSE(card.ReadRegister(1, &value, 1, 0));
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
}

TEST_F(LiveCardTest, WrongRegisterFileIsNoCard) {
    ASSERT_TRUE(CardRegisterFile::create());
    ASSERT_EQ(truncate(kPath, 4096), 0);
    LiveCard card;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(card.Open());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Media ManagerCan't find the card!\n");
    EXPECT_FALSE(card.WriteRegister(1, 1, 1, 0));
}

TEST_F(LiveCardTest, GoesThroughItsBase) {
    // The leak checker is silent about the card that is not deleted.
    ASSERT_TRUE(CardRegisterFile::create());
    for (int i = 0; i < 3; ++i) {
        const std::unique_ptr<Card> card = std::make_unique<LiveCard>();
        EXPECT_TRUE(openSilently(*card));
        EXPECT_TRUE(openSilently(*card)) << "opening again takes another card";
        EXPECT_TRUE(card->WriteRegister(1, 1, 1, 0));
    }
    static_assert(std::has_virtual_destructor_v<Card> && std::is_abstract_v<Card>);
}

} // namespace
