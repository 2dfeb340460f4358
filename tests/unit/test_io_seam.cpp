// The I/O seam: a replaced entry is what the library calls, its result and errno reach the
// caller unchanged, and the default comes back when the replacement's scope ends, after
// reset_all, and while library threads keep calling through the entry.
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"

namespace {

using recstore::io_calls;
using recstore::IoOverride;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr size_t kCluster = 524288;
constexpr uint64_t kFakeDeviceBytes = 3ull << 40;  // what the emulated block device answers

std::atomic<int> g_calls{0};  // calls of the replacements below

int calls() {
    return g_calls.load();
}

ssize_t eio_pread(int, void *, size_t, off64_t) {
    ++g_calls;
    errno = EIO;
    return -1;
}

ssize_t eio_pwrite(int, const void *, size_t, off64_t) {
    ++g_calls;
    errno = EIO;
    return -1;
}

ssize_t short_pread(int fd, void *buf, size_t n, off64_t pos) {
    ++g_calls;
    return io_calls().pread64.real()(fd, buf, n / 2, pos);
}

// Status of a block device whatever the descriptor is.
int block_device_fstat(int fd, struct stat64 *st) {
    ++g_calls;
    const int r = io_calls().fstat64.real()(fd, st);
    st->st_mode = (st->st_mode & ~S_IFMT) | S_IFBLK;
    return r;
}

// Answers the 64-bit size request of the emulated device and refuses everything else.
int device_ioctl(int, unsigned long request, void *arg) {
    ++g_calls;
    if (request != BLKGETSIZE64) {
        errno = ENOTTY;
        return -1;
    }
    *static_cast<uint64_t *>(arg) = kFakeDeviceBytes;
    return 0;
}

std::string g_command;  // the last command a replaced runner was given

int recording_runner(const char *command) {
    ++g_calls;
    g_command = command;
    return 42;
}

// The mount table as a fake /proc/mounts shows it.
FILE *fake_mount_table(const char *, const char *) {
    ++g_calls;
    static const char kTable[] = "/dev/hd/sda2 /mnt/sda2 ext4 rw,noatime 0 0\n";
    return fmemopen(const_cast<char *>(kTable), sizeof kTable - 1, "r");
}

void no_sync() {
    ++g_calls;
}

// A file of two clusters: cluster 0 filled with 0x11, cluster 1 with 0x22.
class IoSeam : public ::testing::Test {
  protected:
    void SetUp() override {
        g_calls = 0;
        char name[] = "/var/tmp/recstore-seam.XXXXXX";
        fd_ = mkstemp(name);
        ASSERT_GE(fd_, 0);
        path_ = name;
        std::vector<unsigned char> bytes(2 * kCluster, 0x11);
        std::memset(bytes.data() + kCluster, 0x22, kCluster);
        ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void TearDown() override {
        io_calls().reset_all();
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
    }

    int fd_ = -1;
    std::string path_;
};

TEST_F(IoSeam, DefaultsAreInPlace) {
    EXPECT_EQ(io_calls().pread64.get(), io_calls().pread64.real());
    EXPECT_EQ(io_calls().pwrite64.get(), io_calls().pwrite64.real());
    EXPECT_EQ(io_calls().ioctl.get(), io_calls().ioctl.real());
    EXPECT_EQ(io_calls().fsync.get(), io_calls().fsync.real());
}

TEST_F(IoSeam, ReplacedReadIsCalledAndItsErrorReachesTheCaller) {
    std::vector<unsigned char> buf(kCluster, 0);
    {
        IoOverride eio(io_calls().pread64, eio_pread);
        EXPECT_EQ(io_calls().pread64.get(), &eio_pread);
        errno = 0;
        EXPECT_EQ(read_cluster(fd_, 1, 0, buf.data(), buf.size()), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(calls(), 1);
        EXPECT_EQ(buf[0], 0);
    }
    // The default is back: the read reaches the file.
    EXPECT_EQ(io_calls().pread64.get(), io_calls().pread64.real());
    EXPECT_EQ(read_cluster(fd_, 1, 0, buf.data(), buf.size()), static_cast<ssize_t>(kCluster));
    EXPECT_EQ(buf[0], 0x22);
    EXPECT_EQ(buf[kCluster - 1], 0x22);
    EXPECT_EQ(calls(), 1);
}

TEST_F(IoSeam, ReplacedWriteFailsWithTheLibrarysMessage) {
    std::vector<unsigned char> buf(kCluster, 0x33);
    {
        IoOverride eio(io_calls().pwrite64, eio_pwrite);
        LogMask quiet(0, 0);  // the message is printed without the gate
        StdoutCapture cap;
        EXPECT_EQ(write_cluster(fd_, 0, 0, buf.data(), buf.size()), -1);
        EXPECT_EQ(cap.stop(), "perror\n");  // and "write: Input/output error" on stderr
        EXPECT_EQ(calls(), 1);
    }
    // Nothing reached the file; with the default back, the write does.
    unsigned char first = 0;
    ASSERT_EQ(pread(fd_, &first, 1, 0), 1);
    EXPECT_EQ(first, 0x11);
    EXPECT_EQ(write_cluster(fd_, 0, 0, buf.data(), buf.size()), static_cast<ssize_t>(kCluster));
    ASSERT_EQ(pread(fd_, &first, 1, 0), 1);
    EXPECT_EQ(first, 0x33);
}

TEST_F(IoSeam, BlockDeviceSizeComesFromTheReplacedCalls) {
    {
        IoOverride status(io_calls().fstat64, block_device_fstat);
        IoOverride size_request(io_calls().ioctl, device_ioctl);
        EXPECT_EQ(blockdev_size(0, fd_), static_cast<int64_t>(kFakeDeviceBytes));
        EXPECT_EQ(calls(), 2);  // one status, one size request
    }
    EXPECT_EQ(blockdev_size(0, fd_), static_cast<int64_t>(2 * kCluster));  // a regular file again
    EXPECT_EQ(calls(), 2);
}

TEST_F(IoSeam, NestedReplacementsRestoreWhatWasThere) {
    std::vector<unsigned char> buf(kCluster, 0);
    {
        IoOverride outer(io_calls().pread64, eio_pread);
        {
            IoOverride inner(io_calls().pread64, short_pread);
            EXPECT_EQ(read_cluster(fd_, 0, 0, buf.data(), buf.size()),
                      static_cast<ssize_t>(kCluster / 2));
        }
        EXPECT_EQ(io_calls().pread64.get(), &eio_pread);
        EXPECT_EQ(read_cluster(fd_, 0, 0, buf.data(), buf.size()), -1);
    }
    EXPECT_EQ(io_calls().pread64.get(), io_calls().pread64.real());
    EXPECT_EQ(calls(), 2);
}

TEST_F(IoSeam, CommandsGoThroughTheHostRunnerOrTheShell) {
    char command[] = "true";
    IoOverride host(io_calls().host_system, recording_runner);
    IoOverride shell(io_calls().system, recording_runner);
    {
        LogMask below(0x1);  // below the level that hands commands to the shell
        g_command.clear();
        EXPECT_EQ(fs_system(command), 42);
        EXPECT_EQ(g_command, "true");
    }
    {
        LogMask debugging(RECSTORE_LOG_USE_SYSTEM);
        g_command.clear();
        EXPECT_EQ(fs_system(command), 42);
        EXPECT_EQ(g_command, "true");
    }
    EXPECT_EQ(calls(), 2);
}

TEST_F(IoSeam, MountTableReadsGoThroughTheSeam) {
    IoOverride table(io_calls().setmntent, fake_mount_table);
    EXPECT_EQ(find_mount_point("/mnt/sda2", nullptr), 1);
    EXPECT_EQ(find_mount_pair("/dev/hd/sda2", "/mnt/sda2/", nullptr), 1);
    EXPECT_EQ(find_mount_point("/mnt/sdb2", nullptr), 0);
    EXPECT_EQ(calls(), 3);
}

TEST_F(IoSeam, ResetAllRestoresEveryDefault) {
    io_calls().pread64.set(eio_pread);
    io_calls().pwrite64.set(eio_pwrite);
    io_calls().ioctl.set(device_ioctl);
    io_calls().sync.set(no_sync);
    io_calls().system.set(recording_runner);
    io_calls().setmntent.set(fake_mount_table);
    io_calls().reset_all();
    EXPECT_EQ(io_calls().pread64.get(), io_calls().pread64.real());
    EXPECT_EQ(io_calls().pwrite64.get(), io_calls().pwrite64.real());
    EXPECT_EQ(io_calls().ioctl.get(), io_calls().ioctl.real());
    EXPECT_EQ(io_calls().sync.get(), io_calls().sync.real());
    EXPECT_EQ(io_calls().system.get(), io_calls().system.real());
    EXPECT_EQ(io_calls().setmntent.get(), io_calls().setmntent.real());
    // set(nullptr) means the default too.
    io_calls().fsync.set(nullptr);
    EXPECT_EQ(io_calls().fsync.get(), io_calls().fsync.real());
}

// An entry is replaced and restored while other threads read through it: every read either
// reaches the file whole or fails with the injected EIO, never anything else.
TEST_F(IoSeam, EntryCanBeSwappedWhileThreadsRead) {
    constexpr int kReaders = 2;
    constexpr int kReadsEach = 400;
    std::atomic<int> whole{0}, failed{0}, other{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; t++) {
        readers.emplace_back([&] {
            std::vector<unsigned char> buf(4096);
            for (int i = 0; i < kReadsEach; i++) {
                const ssize_t n = read_cluster(fd_, 1, 0, buf.data(), buf.size());
                if (n == static_cast<ssize_t>(buf.size()) && buf[0] == 0x22) {
                    ++whole;
                } else if (n == -1 && errno == EIO) {
                    ++failed;
                } else {
                    ++other;
                }
            }
        });
    }
    for (int i = 0; i < 200; i++) {
        IoOverride eio(io_calls().pread64, eio_pread);
        std::this_thread::yield();
    }
    for (auto &t : readers) t.join();
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(whole.load() + failed.load(), kReaders * kReadsEach);
    EXPECT_EQ(failed.load(), calls());
    EXPECT_EQ(io_calls().pread64.get(), io_calls().pread64.real());
}

}  // namespace
