#include "printable.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(PrintableTest, ordinaryTextStaysAsItIs) {
    for (const std::string text : {"", "DAY 1", "a\\b \"c\" 'd' $e `f` ~", "M\xc3\xbchle", "\xe6\x98\xa0\xe7\x94\xbb", "\xf0\x9f\x8e\xac",
                                   "\xc2\xa0", "\xc3\x9b", "\xe0\xa0\x80", "\xf4\x8f\xbf\xbf", "M\xfchle"})
        EXPECT_EQ(printable(text), text);
}

TEST(PrintableTest, everyControlCharacterIsReplaced) {
    for (int c = 1; c < 0x20; ++c) EXPECT_EQ(printable("a" + std::string(1, static_cast<char>(c)) + "b"), "a?b") << c;
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a?b");
    EXPECT_EQ(printable("\x7f"), "?");
    EXPECT_EQ(printable("\x1b[2J\x1b]0;title\x07"), "?[2J?]0;title?");
}

TEST(PrintableTest, controlCharactersOfEightBitsAreReplacedInBothForms) {
    for (int c = 0x80; c < 0xa0; ++c) {
        const auto byte = static_cast<char>(c);
        EXPECT_EQ(printable(std::string("a") + byte + "2J"), "a?2J") << c;
        EXPECT_EQ(printable(std::string("a\xc2") + byte + "2J"), "a?2J") << c;
    }
}

TEST(PrintableTest, whatOnlyLooksLikeACharacterHidesNothing) {
    EXPECT_EQ(printable("\xc0\x9b["), "\xc0?[");           // ESC in two bytes
    EXPECT_EQ(printable("\xe0\x80\x9b["), "\xe0??[");      // and in three
    EXPECT_EQ(printable("\xf0\x80\x80\x9b["), "\xf0???["); // and in four
    EXPECT_EQ(printable("\xe6\x98"), "\xe6?");             // cut short
    EXPECT_EQ(printable("\xe6\x1b"), "\xe6?");
    EXPECT_EQ(printable("\xf5\x90\x80\x80"), "\xf5???");
    EXPECT_EQ(printable("\xc2"), "\xc2");
}

TEST(PrintableTest, lineEndsStayWhereATextIsMadeOfLines) {
    EXPECT_EQ(printable("a\nb\r\n\x1b"), "a?b???");
    EXPECT_EQ(printable("a\nb\r\n\x1b", true), "a\nb?\n?");
}

} // namespace
