// The register file: made, read and written by mediactl, and looked into from outside.

#include <sys/stat.h>

#include <filesystem>

#include "recorder.h"

namespace {

constexpr char kFile[] = "/dev/shm/mediad-card";

struct Card : Recorder {
    static void expectRead(std::vector<std::string> arguments, const std::string& value) {
        arguments.insert(arguments.begin(), {"card", "read"});
        const Result result = mediactl(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output, value + "\n");
    }
    static void write(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"card", "write"});
        const Result result = mediactl(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output + result.errors, "");
    }
};

TEST_F(Card, isMadeEmptyAndOnceOnly) {
    EXPECT_EQ(mediactl({"card", "create"}).status, 0);
    EXPECT_EQ(std::filesystem::file_size(kFile), 65536U * 4);
    EXPECT_EQ(readRegister(0), 0U);
    writeRegister(65535, 7);
    EXPECT_EQ(mediactl({"card", "create"}).status, 0);
    EXPECT_EQ(readRegister(65535), 7U);
}

TEST_F(Card, cannotBeUsedBeforeItIsMade) {
    expectFailure(mediactl({"card", "read", "1"}), 1, "mediactl card create");
    expectFailure(mediactl({"card", "write", "1", "1"}), 1, "mediactl card create");
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(Card, readsMaskedBitsShiftedRight) {
    writeRegister(61, 0x12345678);
    expectRead({"61"}, "305419896");
    expectRead({"0x3d", "--mask", "0xff00"}, "22016");
    expectRead({"61", "--mask", "0xff00", "--shift", "8"}, "86");
    expectRead({"61", "--shift", "8", "--mask", "65280"}, "86");
    expectRead({"61", "--shift", "32"}, "0");
    writeRegister(65535, 0xffffffff);
    expectRead({"65535"}, "-1");
    expectRead({"65535", "--mask", "-1", "--shift", "1"}, "2147483647");
}

TEST_F(Card, writesMaskedBitsShiftedLeft) {
    writeRegister(61, 0x12345678);
    write({"61", "0xab", "--mask", "0xff00", "--shift", "8"});
    EXPECT_EQ(readRegister(61), 0x1234ab78U);
    write({"61", "0", "--mask", "0xf"});
    EXPECT_EQ(readRegister(61), 0x1234ab70U);
    write({"61", "1"});
    EXPECT_EQ(readRegister(61), 1U);
    write({"0", "-1"});
    EXPECT_EQ(readRegister(0), 0xffffffffU);
    write({"0", "4294967294"});
    EXPECT_EQ(readRegister(0), 0xfffffffeU);
    EXPECT_EQ(readRegister(1), 0U);
    EXPECT_EQ(readRegister(60), 0U);
    EXPECT_EQ(readRegister(62), 0U);
}

} // namespace
