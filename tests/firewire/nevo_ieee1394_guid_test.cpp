#include "firewire/nevo_ieee1394_guid.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>

namespace {

unsigned int upper(const std::string& mac) { return NEVOieee1394guid::getGUIDUpperFromMACAddr(mac); }
unsigned int lower(const std::string& mac) { return NEVOieee1394guid::getGUIDLowerFromMACAddr(mac); }

TEST(GuidTest, example) {
    EXPECT_EQ(upper("00:0c:17:12:34:56"), 0x000c1701U);
    EXPECT_EQ(lower("00:0c:17:12:34:56"), 0x00123456U);
}

TEST(GuidTest, smallestAndGreatestAddress) {
    EXPECT_EQ(upper("00:00:00:00:00:00"), 0x00000001U);
    EXPECT_EQ(lower("00:00:00:00:00:00"), 0x00000000U);
    EXPECT_EQ(upper("ff:ff:ff:ff:ff:ff"), 0xffffff01U);
    EXPECT_EQ(lower("ff:ff:ff:ff:ff:ff"), 0x00ffffffU);
}

TEST(GuidTest, caseDoesNotMatter) {
    EXPECT_EQ(upper("AB:CD:EF:9A:BC:DE"), 0xabcdef01U);
    EXPECT_EQ(lower("AB:CD:EF:9A:BC:DE"), 0x009abcdeU);
    EXPECT_EQ(upper("aB:Cd:eF:9a:Bc:dE"), 0xabcdef01U);
    EXPECT_EQ(lower("aB:Cd:eF:9a:Bc:dE"), 0x009abcdeU);
}

TEST(GuidTest, anyCharacterSeparates) {
    for (int c = 0; c < 256; ++c) {
        std::string mac = "01:23:45:67:89:ab";
        for (std::size_t at = 2; at < mac.size(); at += 3) mac[at] = static_cast<char>(c);
        EXPECT_EQ(upper(mac), 0x01234501U) << c;
        EXPECT_EQ(lower(mac), 0x006789abU) << c;
    }
}

TEST(GuidTest, whatFollowsTheAddressIsNotRead) {
    EXPECT_EQ(upper("01:23:45:67:89:abcdef"), 0x01234501U);
    EXPECT_EQ(lower("01:23:45:67:89:abcdef"), 0x006789abU);
}

// The same halves with arithmetic on the octets instead of texts.
TEST(GuidTest, thousandRandomAddresses) {
    std::mt19937 random(20260715);
    for (int round = 0; round < 1000; ++round) {
        std::array<std::uint32_t, 6> octets{};
        std::string mac;
        for (std::uint32_t& octet : octets) {
            octet = random() % 256;
            char digits[3];
            std::snprintf(digits, sizeof digits, random() % 2 == 0 ? "%02x" : "%02X", static_cast<unsigned int>(octet));
            if (!mac.empty()) mac.push_back(static_cast<char>(random() % 256));
            mac += digits;
        }
        ASSERT_EQ(mac.size(), 17U);
        EXPECT_EQ(upper(mac), octets[0] * 0x1000000U + octets[1] * 0x10000U + octets[2] * 0x100U + 1U) << mac;
        EXPECT_EQ(lower(mac), octets[3] * 0x10000U + octets[4] * 0x100U + octets[5]) << mac;
    }
}

// What is left of "12:34:56:78:9a:bc" when it is cut to so many characters.
struct Cut {
    bool hasUpper;
    unsigned int upper;
    bool hasLower;
    unsigned int lower;
};

TEST(GuidTest, everyLength) {
    const std::string mac = "12:34:56:78:9a:bc:de"; // 20 characters
    const std::array<Cut, 21> cuts = {{
        {false, 0, false, 0},          // 0
        {false, 0, false, 0},          // 1
        {false, 0, false, 0},          // 2
        {false, 0, false, 0},          // 3
        {false, 0, false, 0},          // 4
        {false, 0, false, 0},          // 5
        {true, 0x123401, false, 0},    // 6: the third group is empty
        {true, 0x1234501, false, 0},   // 7: it has one digit
        {true, 0x12345601, false, 0},  // 8
        {true, 0x12345601, false, 0},  // 9
        {true, 0x12345601, false, 0},  // 10
        {true, 0x12345601, false, 0},  // 11
        {true, 0x12345601, false, 0},  // 12
        {true, 0x12345601, false, 0},  // 13
        {true, 0x12345601, false, 0},  // 14
        {true, 0x12345601, true, 0x789a},   // 15: the last group is empty
        {true, 0x12345601, true, 0x789ab},  // 16
        {true, 0x12345601, true, 0x789abc}, // 17
        {true, 0x12345601, true, 0x789abc}, // 18
        {true, 0x12345601, true, 0x789abc}, // 19
        {true, 0x12345601, true, 0x789abc}, // 20
    }};
    for (std::size_t length = 0; length < cuts.size(); ++length) {
        SCOPED_TRACE(length);
        const Cut& cut = cuts[length];
        const std::string text = mac.substr(0, length);
        if (cut.hasUpper)
            EXPECT_EQ(upper(text), cut.upper);
        else
            EXPECT_THROW(upper(text), std::out_of_range);
        if (cut.hasLower)
            EXPECT_EQ(lower(text), cut.lower);
        else
            EXPECT_THROW(lower(text), std::out_of_range);
    }
}

TEST(GuidTest, numberEndsAtWhatIsNoDigit) {
    EXPECT_EQ(upper("12:g4:56:78:9a:bc"), 0x12U);
    EXPECT_EQ(upper("12:3g:56:78:9a:bc"), 0x123U);
    EXPECT_EQ(upper("g2:34:56:78:9a:bc"), 0U);
    EXPECT_EQ(lower("12:34:56:g8:9a:bc"), 0U);
    EXPECT_EQ(lower("12:34:56:7 :9a:bc"), 0x7U);
    EXPECT_EQ(lower("12:34:56:-1:9a:bc"), 0U);
    EXPECT_EQ(upper("no FireWire at all"), 0U);
}

} // namespace
