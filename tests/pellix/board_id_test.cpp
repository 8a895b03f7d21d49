#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "serial_number_ossik.h"

namespace {

class BoardId : public testing::Test {
protected:
    void TearDown() override {
        unlink("/etc/board-id");
        rmdir("/etc/board-id");
    }
    static void write(const char* text) { std::ofstream("/etc/board-id", std::ios::binary) << text; }
};

TEST_F(BoardId, IsTheFirstLine) {
    write("00000a3c\nsecond line\n");
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "00000a3c");
}

TEST_F(BoardId, NeedsNoLineEnd) {
    write("00000a3c");
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "00000a3c");
}

TEST_F(BoardId, LosesTheLineEndOfOtherSystems) {
    write("00000a3c\r\n");
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "00000a3c");
}

TEST_F(BoardId, IsEmptyWithoutAFile) { EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), ""); }

TEST_F(BoardId, IsEmptyForAnEmptyFileAndAnEmptyFirstLine) {
    write("");
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "");
    write("\n00000a3c\n");
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "");
}

TEST_F(BoardId, IsEmptyForADirectory) {
    ASSERT_EQ(mkdir("/etc/board-id", 0755), 0);
    EXPECT_EQ(SerialNumber_Ossik::GetBoardID(), "");
}

} // namespace
