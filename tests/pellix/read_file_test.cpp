// Whole files in one read.

#include "read_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

class ReadFileTest : public testing::Test {
protected:
    ReadFileTest() {
        char folder[] = "/tmp/read_file.XXXXXX";
        _folder = ::mkdtemp(folder);
    }
    ~ReadFileTest() override { std::filesystem::remove_all(_folder); }

    std::string file(const std::string& content) {
        const std::string path = _folder + "/file";
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    std::string _folder;
    std::string text = "before";
};

TEST_F(ReadFileTest, givesTheWholeText) {
    EXPECT_TRUE(read_file(file("two\nlines\n"), text));
    EXPECT_EQ(text, "two\nlines\n");
}

TEST_F(ReadFileTest, ofNoBytesAndOfOne) {
    EXPECT_TRUE(read_file(file(""), text));
    EXPECT_EQ(text, "");
    EXPECT_TRUE(read_file(file("x"), text));
    EXPECT_EQ(text, "x");
}

TEST_F(ReadFileTest, endsAtTheFirstNulByte) {
    EXPECT_TRUE(read_file(file(std::string("be\0fore", 7)), text));
    EXPECT_EQ(text, "be");
}

TEST_F(ReadFileTest, saysNothingAboutAFileThatIsNotThere) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(read_file(_folder + "/none", text));
    EXPECT_EQ(text, "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ReadFileTest, reportsWhatCannotBeRead) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(read_file(_folder, text));
    EXPECT_EQ(text, "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "::read_file - read failed to read enough data\n");
}

} // namespace
