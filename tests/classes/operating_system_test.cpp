// The parts of the operating-system door that work on files, on real ones.

#include "classes/os/operating_system.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

class FileOperationsTest : public ::testing::Test {
protected:
    FileOperationsTest() : _umask(::umask(0)) {
        char name[] = "/tmp/operating-system-test-XXXXXX";
        folder = ::mkdtemp(name);
        path = folder + "/flag";
    }
    ~FileOperationsTest() override {
        ::umask(_umask);
        ::unlink(path.c_str());
        ::rmdir(folder.c_str());
    }

    std::string folder;
    std::string path;
    OperatingSystem& os = OperatingSystem::host();

private:
    const mode_t _umask;
};

TEST_F(FileOperationsTest, createdFileIsEmptyAndHasItsMode) {
    EXPECT_FALSE(os.exists(path));
    EXPECT_EQ(os.createFile(path, 0644), 0);
    EXPECT_TRUE(os.exists(path));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(os.unlink(path), 0);
    EXPECT_FALSE(os.exists(path));
}

TEST_F(FileOperationsTest, fileThatIsThereIsEmptied) {
    std::ofstream(path) << "something";
    EXPECT_EQ(os.createFile(path, 0644), 0);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(FileOperationsTest, fileThatCannotBeMade) {
    EXPECT_EQ(os.createFile(folder + "/none/flag", 0644), -1);
    EXPECT_FALSE(os.exists(folder + "/none/flag"));
}

TEST_F(FileOperationsTest, noDescriptorIsLeftOpen) {
    const int before = ::dup(STDERR_FILENO);
    ::close(before);
    os.createFile(path, 0644);
    const int after = ::dup(STDERR_FILENO);
    ::close(after);
    EXPECT_EQ(after, before);
}

// A process of that name, for as long as the object lives. A process takes 15 characters of a name.
class NamedProcess {
public:
    explicit NamedProcess(const char* name) {
        int ready[2];
        if (::pipe(ready) != 0) return;
        _id = ::fork();
        if (_id == 0) {
            ::prctl(PR_SET_NAME, name);
            ::close(ready[0]);
            ::close(ready[1]); // the parent reads the end
            for (;;) ::pause();
        }
        ::close(ready[1]);
        char none;
        [[maybe_unused]] const ssize_t end = ::read(ready[0], &none, 1);
        ::close(ready[0]);
    }
    ~NamedProcess() {
        ::kill(_id, SIGKILL);
        ::waitpid(_id, nullptr, 0);
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;

private:
    pid_t _id = -1;
};

TEST(ProcessTest, programThatRunsIsFoundByAPartOfItsName) {
    OperatingSystem& os = OperatingSystem::host();
    EXPECT_FALSE(os.isRunning("qxendpoint"));
    {
        const NamedProcess process("a-qxendpoint-b");
        EXPECT_TRUE(os.isRunning("qxendpoint"));
        EXPECT_TRUE(os.isRunning("a-qxendpoint-b"));
        EXPECT_FALSE(os.isRunning("qxendpoint-c"));
    }
    EXPECT_FALSE(os.isRunning("qxendpoint"));
}

TEST(ProcessTest, whereNobodyCanLookSomethingRuns) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    for (const rlim_t left : {0U, 1U}) { // for the directory, for what is in it
        const int next = ::dup(0);
        ASSERT_NE(next, -1);
        ::close(next);
        none.rlim_cur = static_cast<rlim_t>(next) + left;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        EXPECT_TRUE(OperatingSystem::host().isRunning("qxendpoint")) << left;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    }
}

} // namespace
