// The guard of a mount, on real mounts in a world of their own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "classes/os/operating_system.h"

namespace {

constexpr char kCard[] = "/mnt/card";
constexpr unsigned long kNoSymbolicLinks = 0x2000; // as statvfs tells it
constexpr unsigned long kGuards = ST_NODEV | ST_NOSUID | ST_NOEXEC;

unsigned long flagsAt(const std::string& path) {
    struct statvfs mounted {};
    EXPECT_EQ(::statvfs(path.c_str(), &mounted), 0);
    return mounted.f_flag;
}

bool canWrite(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor == -1) return false;
    ::close(descriptor);
    return true;
}

class MountGuardTest : public ::testing::Test {
protected:
    MountGuardTest() {
        ::mkdir(kCard, 0755);
        ::mkdir("/tmp/elsewhere", 0755);
    }
    ~MountGuardTest() override {
        while (::umount2(kCard, MNT_DETACH) == 0) {}
    }
    void mount(unsigned long flags) {
        ASSERT_EQ(::mount("card", kCard, "tmpfs", flags & ~static_cast<unsigned long>(MS_RDONLY), nullptr), 0) << errno;
    }
    OperatingSystem& os = OperatingSystem::host();
};

TEST_F(MountGuardTest, linksDevicesAndProgramsOfAMediumAreOff) {
    mount(0);
    ASSERT_EQ(flagsAt(kCard) & (kGuards | kNoSymbolicLinks), 0U);
    EXPECT_EQ(os.guardMount(kCard), 0);
    EXPECT_EQ(flagsAt(kCard) & (kGuards | kNoSymbolicLinks), kGuards | kNoSymbolicLinks);
    EXPECT_TRUE(canWrite("/mnt/card/file"));

    ASSERT_EQ(::symlink("/tmp/elsewhere", "/mnt/card/NEVO"), 0);
    ASSERT_EQ(::symlink("/tmp/elsewhere/new", "/mnt/card/README.txt"), 0);
    EXPECT_FALSE(canWrite("/mnt/card/NEVO/file"));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(canWrite("/mnt/card/README.txt"));
    EXPECT_FALSE(os.exists("/tmp/elsewhere/new"));
    // Again, as for a medium that stayed mounted.
    EXPECT_EQ(os.guardMount(kCard), 0);
    EXPECT_EQ(flagsAt(kCard) & (kGuards | kNoSymbolicLinks), kGuards | kNoSymbolicLinks);
}

TEST_F(MountGuardTest, theOtherFlagsStay) {
    for (const auto& [given, shown] : {std::pair<unsigned long, unsigned long>{MS_NOATIME, ST_NOATIME},
                                       {MS_NOATIME | MS_NODIRATIME, ST_NOATIME | ST_NODIRATIME},
                                       {MS_RELATIME, ST_RELATIME},
                                       {MS_STRICTATIME, 0},
                                       {MS_STRICTATIME | MS_NODIRATIME, ST_NODIRATIME}}) {
        mount(given);
        ASSERT_EQ(flagsAt(kCard) & (ST_NOATIME | ST_NODIRATIME | ST_RELATIME), shown);
        EXPECT_EQ(os.guardMount(kCard), 0);
        EXPECT_EQ(flagsAt(kCard) & (ST_NOATIME | ST_NODIRATIME | ST_RELATIME), shown);
        EXPECT_EQ(flagsAt(kCard) & kGuards, kGuards);
        ASSERT_EQ(::umount(kCard), 0);
    }
}

// As the kernel does with a file system that it does not want to write to, and as mount does with a card that is locked.
TEST_F(MountGuardTest, readOnlyStaysReadOnly) {
    for (const unsigned long kind : {0UL, static_cast<unsigned long>(MS_BIND)}) {
        mount(MS_NOATIME);
        ASSERT_EQ(::mount(nullptr, kCard, nullptr, MS_REMOUNT | MS_RDONLY | MS_NOATIME | kind, nullptr), 0);
        ASSERT_FALSE(canWrite("/mnt/card/file"));
        EXPECT_EQ(os.guardMount(kCard), 0);
        EXPECT_EQ(flagsAt(kCard) & (kGuards | ST_RDONLY | ST_NOATIME), kGuards | ST_RDONLY | ST_NOATIME);
        EXPECT_FALSE(canWrite("/mnt/card/file"));
        EXPECT_EQ(errno, EROFS);
        ASSERT_EQ(::umount(kCard), 0);
    }
}

TEST_F(MountGuardTest, theFileSystemItselfIsLeftAlone) {
    mount(0);
    ::mkdir("/mnt/other", 0755);
    ASSERT_EQ(::mount(kCard, "/mnt/other", nullptr, MS_BIND, nullptr), 0);
    const unsigned long before = flagsAt("/mnt/other");
    ASSERT_EQ(::mount(nullptr, kCard, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(os.guardMount(kCard), 0);
    EXPECT_FALSE(canWrite("/mnt/card/file"));
    EXPECT_EQ(flagsAt("/mnt/other"), before);
    EXPECT_TRUE(canWrite("/mnt/other/file"));
    EXPECT_EQ(::umount("/mnt/other"), 0);
}

TEST_F(MountGuardTest, whereNothingIsMountedNothingChanges) {
    const unsigned long before = flagsAt("/mnt");
    EXPECT_EQ(os.guardMount(kCard), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(flagsAt("/mnt"), before);
    EXPECT_EQ(os.guardMount("/mnt/none"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(MountGuardTest, aLinkIsALinkWhereverItLeads) {
    mount(0);
    ASSERT_EQ(::symlink("/tmp", "/mnt/card/there"), 0);
    ASSERT_EQ(::symlink("/tmp/nowhere", "/mnt/card/nowhere"), 0);
    ASSERT_EQ(::mkdir("/mnt/card/directory", 0755), 0);
    ASSERT_TRUE(canWrite("/mnt/card/file"));
    for (const bool guarded : {false, true}) {
        ASSERT_TRUE(!guarded || os.guardMount(kCard) == 0);
        EXPECT_TRUE(os.isLink("/mnt/card/there"));
        EXPECT_TRUE(os.isLink("/mnt/card/nowhere"));
        EXPECT_FALSE(os.isLink("/mnt/card/directory"));
        EXPECT_FALSE(os.isLink("/mnt/card/file"));
        EXPECT_FALSE(os.isLink("/mnt/card/none"));
        EXPECT_FALSE(os.isLink(""));
    }
}

} // namespace
