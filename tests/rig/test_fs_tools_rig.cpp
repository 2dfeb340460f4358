// Rig tests of the foundations on real block devices and real mounts: device sizes of loop
// disks and partitions (with the fallback requests), mount-table lookups of real mounts, and the
// event log file on the system partition's mount point.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

using recstore_test::LogMask;
using recstore_test::read_file;
using recstore_test::StdoutCapture;

namespace {

constexpr uint64_t kGiB = 1ull << 30;

uint64_t sysfs_sectors(const std::string &loop, int partition) {
    std::string name = loop.substr(loop.rfind('/') + 1);
    std::string path = "/sys/block/" + name + "/";
    if (partition > 0) path += name + "p" + std::to_string(partition) + "/";
    return std::stoull(read_file(path + "size"));
}

// Emulates a device that refuses the 64-bit size request: every other request goes to the
// real device.
int refuse_size64(int fd, unsigned long request, void *arg) {
    if (request == BLKGETSIZE64) {
        errno = ENOTTY;
        return -1;
    }
    return ioctl(fd, request, arg);
}

int refuse_all(int, unsigned long, void *) {
    errno = ENOTTY;
    return -1;
}

class RigFoundations : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(rig::active()) << "run through tests/rig/rig-run"; }
    void TearDown() override { recstore::io_calls().ioctl.reset(); }
};

}  // namespace

TEST_F(RigFoundations, BlockDeviceSizeOfLoopDiskAndPartitions) {
    rig::Disk disk = rig::attach('a', 200 * kGiB);
    rig::partition_simple(disk);
    int fd = open(disk.node.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(blockdev_size(0, fd), static_cast<int64_t>(200 * kGiB));
    close(fd);
    for (int part = 1; part <= 3; part++) {
        int pfd = open(rig::partition(disk, part).c_str(), O_RDONLY);
        ASSERT_GE(pfd, 0) << rig::partition(disk, part);
        EXPECT_EQ(blockdev_size(0, pfd),
                  static_cast<int64_t>(sysfs_sectors(disk.loop, part) * 512));
        close(pfd);
    }
    rig::unplug(disk);
}

TEST_F(RigFoundations, FallbackMultipliesSectorCountByLogicalSectorSize) {
    std::string image = rig::dir() + "/sector4k.img";
    rig::sh("truncate -s 1G " + image);
    std::string loop = rig::sh("losetup -f --show --sector-size 4096 " + image);
    loop.erase(loop.find_last_not_of("\n") + 1);
    int fd = open(loop.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << loop;
    unsigned long count = 0;
    ASSERT_EQ(ioctl(fd, BLKGETSIZE, &count), 0);
    recstore::io_calls().ioctl.set(refuse_size64);
    LogMask mask(0xB);
    StdoutCapture cap;
    int64_t size = blockdev_size(0, fd);
    std::string out = cap.stop();
    EXPECT_EQ(size, static_cast<int64_t>(count) * 4096);
    EXPECT_NE(out.find("sector size:4096\n"), std::string::npos) << out;
    EXPECT_NE(out.find("turn to BLKGETSIZE " + std::to_string(count * 4096ull) + "\n"),
              std::string::npos)
        << out;
    close(fd);
    rig::sh("losetup -d " + loop);
}

TEST_F(RigFoundations, DeviceThatAnswersNothingHasSizeZero) {
    rig::Disk disk = rig::attach('b', 2 * kGiB);
    int fd = open(disk.node.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    recstore::io_calls().ioctl.set(refuse_all);
    LogMask mask(0xB);
    StdoutCapture cap;
    EXPECT_EQ(blockdev_size(0, fd), 0);
    std::string out = cap.stop();
    EXPECT_NE(out.find("sector size:512\n"), std::string::npos) << out;
    EXPECT_NE(out.find("turn to BLKGETSIZE 0\n"), std::string::npos) << out;
    close(fd);
    rig::unplug(disk);
}

TEST_F(RigFoundations, MountLookupsOnRealMounts) {
    rig::Disk disk = rig::attach('c', 200 * kGiB);
    rig::partition_simple(disk);
    std::string part2 = rig::partition(disk, 2);
    rig::sh("mkfs.ext4 -q -F -E lazy_itable_init=1,lazy_journal_init=1 " + part2);
    mkdir("/mnt/sdc", 0777);
    mkdir("/mnt/cache", 0777);
    ASSERT_EQ(mount(part2.c_str(), "/mnt/sdc", "ext4", 0, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount("tmpfs", "/mnt/cache", "tmpfs", 0, "size=1m"), 0);

    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 1);
    EXPECT_EQ(find_mount_point("/mnt/cache", "/proc/mounts"), 1);
    EXPECT_EQ(find_mount_point("/", nullptr), 1);
    EXPECT_EQ(find_mount_point("/mnt/sdc", nullptr), 1);
    EXPECT_EQ(find_mount_point(part2.c_str(), nullptr), 1);
    EXPECT_EQ(find_mount_pair(part2.c_str(), "/mnt/sdc/", nullptr), 1);
    EXPECT_EQ(find_mount_pair(part2.c_str(), "/mnt/img", nullptr), 0);
    EXPECT_EQ(find_mount_point("/mnt/sdd", nullptr), 0);

    ASSERT_EQ(umount("/mnt/cache"), 0);
    ASSERT_EQ(umount("/mnt/sdc"), 0);
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 0);
    EXPECT_EQ(find_mount_point(part2.c_str(), nullptr), 0);
    rig::unplug(disk);
}

namespace {

// Length of the "[%x %X]" stamp in the C locale ("[05/17/24 08:09:10]"), or 0 when text does not
// start with one.
size_t stamp_length(const std::string &text) {
    const std::string shape = "[dd/dd/dd dd:dd:dd]";
    if (text.size() < shape.size()) return 0;
    for (size_t i = 0; i < shape.size(); i++) {
        bool ok = shape[i] == 'd' ? isdigit(static_cast<unsigned char>(text[i])) != 0
                                  : text[i] == shape[i];
        if (!ok) return 0;
    }
    return shape.size();
}

class LogFileTest : public RigFoundations {
  protected:
    void SetUp() override {
        RigFoundations::SetUp();
        mkdir("/mnt/img", 0777);
        unlink(kLog);
        fs_log_init("/mnt/img/fs.log");
    }
    void TearDown() override {
        fs_log_exit();
        unlink(kLog);
        RigFoundations::TearDown();
    }
    static constexpr const char *kLog = "/mnt/img/log.log";
};

void make_file_of_size(const char *path, off_t size) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    std::string chunk(65536, 'x');
    off_t left = size;
    while (left > 0) {
        size_t n = static_cast<size_t>(std::min<off_t>(left, chunk.size()));
        ASSERT_EQ(write(fd, chunk.data(), n), static_cast<ssize_t>(n));
        left -= static_cast<off_t>(n);
    }
    close(fd);
}

}  // namespace

TEST_F(LogFileTest, MessageGoesToStdoutAndFileWithTimeStamp) {
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("block %d changed\n", 7), 0);
    std::string out = cap.stop();
    std::string file = read_file(kLog);
    EXPECT_EQ(out, file);
    size_t stamp = stamp_length(file);
    ASSERT_GT(stamp, 0u) << file;
    EXPECT_EQ(file.substr(stamp), "block 7 changed\n");
    struct stat st;
    ASSERT_EQ(stat(kLog, &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0777u & ~mask);
}

TEST_F(LogFileTest, FileOfExactlyTwoMiBIsAppendedTo) {
    make_file_of_size(kLog, 0x200000);
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("one more\n"), 0);
    std::string message = cap.stop();
    struct stat st;
    ASSERT_EQ(stat(kLog, &st), 0);
    EXPECT_EQ(st.st_size, 0x200000 + static_cast<off_t>(message.size()));
}

TEST_F(LogFileTest, OneByteMoreEmptiesTheFileFirst) {
    make_file_of_size(kLog, 0x200001);
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("fresh start\n"), 0);
    std::string message = cap.stop();
    EXPECT_EQ(read_file(kLog), message);
    EXPECT_NE(message.find("fresh start\n"), std::string::npos);
}

TEST_F(LogFileTest, UnopenableFileStillPrintsTheMessage) {
    ASSERT_EQ(rmdir("/mnt/img"), 0);  // nowhere to open the file
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("no log file\n"), 0);
    std::string out = cap.stop();
    EXPECT_NE(out.find("no log file\n"), std::string::npos);
    mkdir("/mnt/img", 0777);
}

TEST_F(LogFileTest, DisabledLogWritesNothing) {
    fs_log_exit();
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("hidden\n"), -1);
    EXPECT_EQ(cap.stop(), "");
    struct stat st;
    EXPECT_NE(stat(kLog, &st), 0);
}
