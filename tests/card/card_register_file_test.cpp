#include "card_register_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "cqrd5.h"

namespace {

constexpr char kPath[] = "/dev/shm/mediad-card";
constexpr unsigned int kCount = 65536;
constexpr std::uint32_t kAll = 0xffffffff;

std::string content() {
    std::ifstream file(kPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class RegisterFile : public testing::Test {
protected:
    void SetUp() override { remove(); }
    void TearDown() override { remove(); }
    static void remove() {
        unlink(kPath);
        rmdir(kPath);
    }
};

TEST_F(RegisterFile, IsNotThereUntilItIsCreated) {
    EXPECT_EQ(CardRegisterFile::open(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(CQRD5BoardScan(true, 0xce).ScanHardware(0xce));
    EXPECT_NE(access(kPath, F_OK), 0) << "looking for it must not make it";
}

TEST_F(RegisterFile, HasAllItsRegistersAtZero) {
    ASSERT_TRUE(CardRegisterFile::create());
    EXPECT_EQ(content(), std::string(4 * kCount, '\0'));
    struct stat status {};
    ASSERT_EQ(stat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_GE(status.st_blocks * 512, 4 * kCount) << "its memory must be there before a register is touched";
    const auto file = CardRegisterFile::open();
    ASSERT_NE(file, nullptr);
    for (unsigned int reg = 0; reg < kCount; ++reg) {
        std::uint32_t value = 1;
        ASSERT_TRUE(file->read(reg, value, kAll, 0));
        ASSERT_EQ(value, 0U);
    }
}

TEST_F(RegisterFile, OneThatExistsIsKept) {
    ASSERT_TRUE(CardRegisterFile::create());
    ASSERT_TRUE(CardRegisterFile::open()->write(7, 0x12345678, kAll, 0));
    EXPECT_TRUE(CardRegisterFile::create());
    std::uint32_t value = 0;
    ASSERT_TRUE(CardRegisterFile::open()->read(7, value, kAll, 0));
    EXPECT_EQ(value, 0x12345678U);
}

TEST_F(RegisterFile, FileOfAnotherSizeIsNoneAndIsLeftAlone) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4 * kCount - 1}, std::size_t{4 * kCount + 1}}) {
        const std::string text(size, 'x');
        std::ofstream(kPath, std::ios::binary) << text;
        errno = 0;
        EXPECT_EQ(CardRegisterFile::open(), nullptr) << size;
        EXPECT_EQ(errno, EINVAL) << size;
        errno = 0;
        EXPECT_FALSE(CardRegisterFile::create()) << size;
        EXPECT_EQ(errno, EINVAL) << size;
        CQRD5BoardScan scan(true, 0xce);
        EXPECT_FALSE(scan.ScanHardware(0xce)) << size;
        EXPECT_EQ(content(), text);
        CQRD5Card card(0, true, 0xce, nullptr);
        EXPECT_FALSE(card.Open(0, false, 0, nullptr));
        unsigned int value = 0;
        EXPECT_FALSE(card.ReadRegister(0, &value, kAll, 0));
        unlink(kPath);
    }
}

TEST_F(RegisterFile, DirectoryOfThatNameIsNone) {
    ASSERT_EQ(mkdir(kPath, 0755), 0);
    EXPECT_EQ(CardRegisterFile::open(), nullptr);
    EXPECT_FALSE(CardRegisterFile::create());
}

TEST_F(RegisterFile, HollowFileOfTheRightSizeIsFilled) {
    const int file = open(kPath, O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(file, 4 * kCount), 0);
    ASSERT_NE(CardRegisterFile::open(), nullptr);
    struct stat status {};
    ASSERT_EQ(fstat(file, &status), 0);
    close(file);
    EXPECT_GE(status.st_blocks * 512, 4 * kCount);
}

TEST_F(RegisterFile, LastRegisterIsTheLast) {
    ASSERT_TRUE(CardRegisterFile::create());
    const auto file = CardRegisterFile::open();
    EXPECT_TRUE(file->write(kCount - 1, 0xa5a5a5a5, kAll, 0));
    for (const unsigned int reg : {kCount, kCount + 1, 0x40000000U, 0xffffffffU}) {
        EXPECT_FALSE(file->write(reg, 1, kAll, 0)) << reg;
        std::uint32_t value = 99;
        EXPECT_FALSE(file->read(reg, value, kAll, 0)) << reg;
        EXPECT_EQ(value, 99U);
    }
    EXPECT_EQ(content(), std::string(4 * (kCount - 1), '\0') + "\xa5\xa5\xa5\xa5");
}

TEST_F(RegisterFile, LiesInTheMachinesByteOrder) {
    ASSERT_TRUE(CardRegisterFile::create());
    ASSERT_TRUE(CardRegisterFile::open()->write(3, 0x01020304, kAll, 0));
    const std::string bytes = content();
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + 12, 4);
    EXPECT_EQ(value, 0x01020304U);
}

struct WriteCase {
    std::uint32_t before, value, mask;
    unsigned int shift;
    std::uint32_t after;
};

TEST_F(RegisterFile, WriteReplacesTheMaskedBitsOnly) {
    ASSERT_TRUE(CardRegisterFile::create());
    const auto file = CardRegisterFile::open();
    for (const WriteCase& c : {
             WriteCase{0x00000000, 1, 0x00000010, 4, 0x00000010}, WriteCase{0xffffffff, 0, 0x00000010, 4, 0xffffffef},
             WriteCase{0x12345678, 0xab, 0x0000ff00, 8, 0x1234ab78}, WriteCase{0x12345678, 0x1ab, 0x0000ff00, 8, 0x1234ab78},
             WriteCase{0x12345678, 0xffffffff, 0x00000000, 0, 0x12345678}, WriteCase{0x12345678, 1, 0x80000000, 31, 0x92345678},
             WriteCase{0xffffffff, 0xffffffff, 0xffff0000, 31, 0x8000ffff}, WriteCase{0x12345678, 0xdeadbeef, kAll, 0, 0xdeadbeef},
             // Shifted out altogether.
             WriteCase{0xffffffff, 0xffffffff, 0x0000ff00, 32, 0xffff00ff}, WriteCase{0xffffffff, 1, 0x00000001, 33, 0xfffffffe},
             WriteCase{0xffffffff, 1, 0x00000001, 64, 0xfffffffe}, WriteCase{0xffffffff, 1, kAll, 0xffffffff, 0x00000000}}) {
        ASSERT_TRUE(file->write(5, c.before, kAll, 0));
        EXPECT_TRUE(file->write(5, c.value, c.mask, c.shift));
        std::uint32_t after = 0;
        ASSERT_TRUE(file->read(5, after, kAll, 0));
        EXPECT_EQ(after, c.after) << std::hex << c.value << " " << c.mask << " " << std::dec << c.shift;
    }
}

TEST_F(RegisterFile, ReadGivesTheMaskedBitsShiftedDown) {
    ASSERT_TRUE(CardRegisterFile::create());
    const auto file = CardRegisterFile::open();
    ASSERT_TRUE(file->write(5, 0x92345678, kAll, 0));
    const auto read = [&](std::uint32_t mask, unsigned int shift) {
        std::uint32_t value = 0xeeeeeeee;
        EXPECT_TRUE(file->read(5, value, mask, shift));
        return value;
    };
    EXPECT_EQ(read(kAll, 0), 0x92345678U);
    EXPECT_EQ(read(0x0000ff00, 8), 0x56U);
    EXPECT_EQ(read(0x0000ff00, 0), 0x5600U);
    EXPECT_EQ(read(0x80000000, 31), 1U);
    EXPECT_EQ(read(0, 0), 0U);
    EXPECT_EQ(read(kAll, 32), 0U);
    EXPECT_EQ(read(kAll, 33), 0U);
    EXPECT_EQ(read(kAll, 0xffffffff), 0U);
}

// Processes that start `body` at the same moment; true when all of them end with true.
bool inProcesses(unsigned int count, const std::function<bool(unsigned int)>& body) {
    int gate[2];
    if (pipe(gate) == -1) return false;
    std::vector<pid_t> children;
    for (unsigned int i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            close(gate[1]);
            char nothing = 0;
            [[maybe_unused]] const ssize_t end = ::read(gate[0], &nothing, 1);
            _exit(body(i) ? 0 : 1);
        }
        children.push_back(child);
    }
    close(gate[0]);
    close(gate[1]);
    bool all = true;
    for (const pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        all = all && status == 0;
    }
    return all;
}

// Every writer has four bits of one register: a write that is not one step loses a neighbour's.
bool writeAndReadBack(CardRegisterFile& file, unsigned int writer) {
    for (std::uint32_t i = 0; i < 300000; ++i) {
        std::uint32_t value = 0;
        file.write(100, i & 15, 15U << (4 * writer), 4 * writer);
        file.read(100, value, 15U << (4 * writer), 4 * writer);
        if (value != (i & 15)) return false;
    }
    return true;
}

TEST_F(RegisterFile, WritesOfSeveralProcessesAreAtomic) {
    ASSERT_TRUE(CardRegisterFile::create());
    EXPECT_TRUE(inProcesses(4, [](unsigned int writer) {
        const auto file = CardRegisterFile::open();
        return file != nullptr && writeAndReadBack(*file, writer);
    }));
}

TEST_F(RegisterFile, WritesOfSeveralThreadsAreAtomic) {
    ASSERT_TRUE(CardRegisterFile::create());
    const auto file = CardRegisterFile::open();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (unsigned int writer = 0; writer < 4; ++writer)
        threads.emplace_back([&, writer] {
            if (!writeAndReadBack(*file, writer)) ++wrong;
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(RegisterFile, CreatedByManyAtOnceIsWholeForAll) {
    for (int round = 0; round < 50; ++round) {
        remove();
        // Somebody who only looks finds none, or a whole one.
        EXPECT_TRUE(inProcesses(4, [](unsigned int i) {
            if (i == 0) {
                for (int look = 0; look < 100; ++look)
                    if (CardRegisterFile::open() == nullptr && errno != ENOENT) return false;
                return true;
            }
            return CardRegisterFile::create() && CardRegisterFile::open() != nullptr;
        }));
    }
}

} // namespace
