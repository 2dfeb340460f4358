// SPDX-License-Identifier: MIT
// A block whose cluster map cannot be read (a read error injected through the I/O seam on that map
// cluster of the data partition): the block change puts it in error, says so once, and goes on
// with the next block, so recording continues instead of failing on every pass.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "bitmap.h"
#include "capture.h"
#include "formatted_disks.h"
#include "fs_tools.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using namespace recording_test;
using recstore_test::StdoutCapture;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;

// The device of the data partition, and the byte range of the map cluster that cannot be read.
std::atomic<dev_t> g_bad_dev{0};
std::atomic<uint64_t> g_bad_from{0};
std::atomic<uint64_t> g_bad_to{0};
std::atomic<int> g_failed_reads{0};

ssize_t failing_pread(int fd, void *buf, size_t count, off64_t offset) {
    struct stat64 st;
    const uint64_t at = static_cast<uint64_t>(offset);
    if (fstat64(fd, &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == g_bad_dev.load() &&
        at < g_bad_to.load() && at + count > g_bad_from.load()) {
        g_failed_reads++;
        errno = EIO;
        return -1;
    }
    return pread64(fd, buf, count, offset);
}

int write_cluster_to(int h, unsigned char *buf, uint32_t n, time_t base) {
    fill_payload(buf, 7, n);
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    const uint32_t count = frames_of(n, base, frames);
    return rec_write(h, buf, static_cast<int>(kCluster), frames, static_cast<int>(count));
}

size_t count_of(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

class BlockMapErrors : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        ASSERT_EQ(rec_init(0, kCacheMib, kNoCache), 0);
    }
    void TearDown() override {
        take_down(0);
        rec_exit();
    }
};

TEST_F(BlockMapErrors, UnreadableBlockIsPutInErrorAndTheNextOneUsed) {
    // Block 1 partly used (the first choice of a block change), block 2 current and two clusters
    // from full, block 3 empty.
    const std::string part = data_partition(0);
    bring_up(0, true, [&] {
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 1000, 1000));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock2, 2, 1001));
    });
    do_disk_loop();
    ASSERT_EQ(current_disk(), 0);
    ASSERT_EQ(fs_getblockid(0), kBlock2);

    // From now on the map cluster of block 1 cannot be read.
    struct stat st;
    ASSERT_EQ(stat(part.c_str(), &st), 0);
    g_bad_dev = st.st_rdev;
    g_bad_from = static_cast<uint64_t>(kBlock1) * kCluster;
    g_bad_to = static_cast<uint64_t>(kBlock1 + 1) * kCluster;
    recstore::IoOverride<ssize_t(int, void *, size_t, off64_t)> bad{recstore::io_calls().pread64,
                                                                    failing_pread};

    Cluster buf;
    const struct tm t = make_tm(2025, 5, 6, 7, 8, 9);
    const int h = rec_open(7, &t, 0, 0, 0, 0, kWrite, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_to(h, buf.data(), 0, secs(t)), static_cast<int>(kCluster));
    ASSERT_EQ(write_cluster_to(h, buf.data(), 1, secs(t)), static_cast<int>(kCluster));
    ASSERT_EQ(fs_isblockfull(0), 1);

    std::string text;
    {
        StdoutCapture out;
        do_disk_loop();
        do_disk_loop();
        do_disk_loop();
        text = out.stop();
    }
    EXPECT_GT(g_failed_reads.load(), 0) << "the injected error was reached";
    EXPECT_EQ(count_of(text, "disk:0 block:1 map cannot be read: block put in error\n"), 1u)
        << text;
    EXPECT_EQ(fs_getblockid(0), kBlock3) << "the change went on to the next block";
    const uint32_t entry = locked([] {
        recstore::MutexGuard guard(g_disk[0].lock);
        return block_val(0, kBlock1);
    });
    EXPECT_TRUE(recstore::entry_is_err(entry)) << std::hex << entry;
    // Recording goes on.
    for (uint32_t n = 2; n < 6; n++) {
        EXPECT_EQ(write_cluster_to(h, buf.data(), n, secs(t)), static_cast<int>(kCluster))
            << "cluster " << n;
    }
    rec_close(h, nullptr);
    const std::string log = slurp("/mnt/img/log.log");
    EXPECT_EQ(count_of(log, "disk:0 block:1 map cannot be read: block put in error\n"), 1u) << log;
}

}  // namespace
