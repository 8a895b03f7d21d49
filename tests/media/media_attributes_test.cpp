#include "media_attributes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using nevo::media::MediaAttributes;
using Map = std::map<std::string, std::string>;

namespace {

Map mapOf(const std::string& text) {
    MediaAttributes attributes;
    std::memset(&attributes, 0, sizeof attributes);
    std::memcpy(attributes.text, text.data(), std::min(text.size(), sizeof attributes.text));
    return attributes.getAttributesMap();
}

TEST(MediaAttributes, AnEmptyTextGivesAnEmptyMap) { EXPECT_EQ(mapOf(""), Map{}); }

TEST(MediaAttributes, NameLinesAndValueLinesAlternate) {
    EXPECT_EQ(mapOf("Format\n1080i\nEncode Type\n7"), (Map{{"Format", "1080i"}, {"Encode Type", "7"}}));
    EXPECT_EQ(mapOf("Format\n1080i\nEncode Type\n7\n"), (Map{{"Format", "1080i"}, {"Encode Type", "7"}}));
}

TEST(MediaAttributes, ATrailingNameWithoutAValueIsIgnored) {
    EXPECT_EQ(mapOf("Format\n1080i\nHeight"), (Map{{"Format", "1080i"}}));
    EXPECT_EQ(mapOf("Height"), Map{});
}

TEST(MediaAttributes, BlankLinesBetweenANameAndItsValueDoNotBreakThePairing) {
    EXPECT_EQ(mapOf("\n\nFormat\n\n\n1080i\n\nHeight\n1080"), (Map{{"Format", "1080i"}, {"Height", "1080"}}));
}

TEST(MediaAttributes, ARepeatedNameKeepsTheLastValue) {
    EXPECT_EQ(mapOf("Width\n1\nWidth\n2\nHeight\n5\nWidth\n3"), (Map{{"Width", "3"}, {"Height", "5"}}));
}

TEST(MediaAttributes, BlanksBelongToNamesAndValues) {
    EXPECT_EQ(mapOf(" Frame Rate \n 25 "), (Map{{" Frame Rate ", " 25 "}}));
}

TEST(MediaAttributes, TheTextEndsAtItsFirstNulByte) {
    EXPECT_EQ(mapOf(std::string("Width\n1\0\nHeight\n2", 17)), (Map{{"Width", "1"}}));
}

TEST(MediaAttributes, ATextThatFillsTheFieldIsReadToItsEndAndNoFurther) {
    struct {
        MediaAttributes attributes;
        char behind[8];
    } memory;
    std::memset(&memory, 'x', sizeof memory);
    std::memcpy(memory.attributes.text, "Width\n", 6);
    EXPECT_EQ(memory.attributes.getAttributesMap(), (Map{{"Width", std::string(2400 - 6, 'x')}}));
}

TEST(MediaAttributes, TheNamesOfTheAttributes) {
    EXPECT_STREQ(nevo::media::MediaFormat, "Format");
    EXPECT_STREQ(nevo::media::MediaHeight, "Height");
    EXPECT_STREQ(nevo::media::MediaWidth, "Width");
    EXPECT_STREQ(nevo::media::MediaFrameRate, "Frame Rate");
    EXPECT_STREQ(nevo::media::MediaVideoEncodeType, "Encode Type");
    EXPECT_STREQ(nevo::media::MediaAudioChannels, "Audio Chan");
    EXPECT_STREQ(nevo::media::MediaStartingTimecode, "Starting TC");
}

TEST(MediaAttributes, TheObjectIsTheFieldItself) { EXPECT_EQ(sizeof(MediaAttributes), 2400U); }

} // namespace
