// SPDX-License-Identifier: MIT
// Key-frame navigation and the stream's preload buffer: with direct I/O and a preload buffer, a
// key-frame read fills that buffer, which the daemon's preload step fills and fs_set_preload frees
// too. While a key-frame read is filling it (held inside its read through the I/O seam), another
// thread turning preload off must wait until the read is over instead of freeing the buffer under
// it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "formatted_disks.h"
#include "fs_tools.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr uint32_t kClusters = 3;
// How long the held read gives the other thread to free the buffer. Enough for a call that takes
// no lock to return; with the lock it cannot return until the read is over, whatever the wait.
constexpr int kHoldMs = 1000;

std::atomic<dev_t> g_data_dev{0};
std::atomic<bool> g_armed{false};
std::atomic<int> g_stream{-1};
std::atomic<bool> g_freed_during_read{false};
std::atomic<bool> g_held{false};
std::atomic<bool> g_other_returned{false};

// The first whole-cluster read of the data partition after arming: turns preload off from another
// thread and gives it kHoldMs to return while this read is still under way, then reads.
ssize_t holding_pread(int fd, void *buf, size_t count, off64_t offset) {
    struct stat64 st;
    if (count == kCluster && g_armed.load() && fstat64(fd, &st) == 0 && S_ISBLK(st.st_mode) &&
        st.st_rdev == g_data_dev.load()) {
        g_armed = false;
        g_held = true;
        std::thread other([] {
            fs_set_preload(g_stream.load(), nullptr);
            g_other_returned = true;
        });
        for (int waited = 0; waited < kHoldMs && !g_other_returned.load();
             waited += kDaemonPollMs) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kDaemonPollMs));
        }
        g_freed_during_read = g_other_returned.load();
        const ssize_t n = pread64(fd, buf, count, offset);
        other.detach();  // it returns once the key-frame read has released the lock
        return n;
    }
    return pread64(fd, buf, count, offset);
}

class KframePreload : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        ASSERT_EQ(rec_init(0, kCacheMib, kNoCache | kDirectIo), 0);
        bring_up(0, true);
        do_disk_loop();
        ASSERT_EQ(current_disk(), 0);
    }
    void TearDown() override {
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        take_down(0);
        rec_exit();
    }
};

TEST_F(KframePreload, PreloadIsNotFreedUnderAKeyFrameRead) {
    const struct tm t = make_tm(2025, 7, 8, 9, 10, 11);
    Cluster buf;
    {
        const int h = rec_open(3, &t, 0, 0, 0, 0, kWrite, 0);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < kClusters; n++) {
            fill_payload(buf.data(), 3, n);
            kframe frames[RECSTORE_MAX_KFRAMES] = {};
            const uint32_t count = frames_of(n, secs(t), frames);
            ASSERT_EQ(rec_write(h, buf.data(), static_cast<int>(kCluster), frames,
                                static_cast<int>(count)),
                      static_cast<int>(kCluster));
        }
        rec_close(h, nullptr);
    }
    const int h = rec_open(3, &t, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    const int one = 1;
    ASSERT_EQ(rec_set_preload(h, &one), 0);
    g_stream = g_recctx.streams[h].handle;

    struct stat st;
    ASSERT_EQ(stat(data_partition(0).c_str(), &st), 0);
    g_data_dev = st.st_rdev;
    recstore::IoOverride<ssize_t(int, void *, size_t, off64_t)> held{recstore::io_calls().pread64,
                                                                     holding_pread};
    Cluster got;
    uint32_t offset = 0;
    g_armed = true;
    const int r = rec_getcurkframe(h, got.data(), &offset);
    g_armed = false;
    ASSERT_TRUE(g_held.load()) << "the key-frame read went through the data partition";
    EXPECT_FALSE(g_freed_during_read.load())
        << "fs_set_preload freed the preload buffer while a key-frame read was filling it";
    ASSERT_EQ(r, static_cast<int>(kCluster));
    Cluster want;
    fill_payload(want.data(), 3, 0);
    EXPECT_EQ(memcmp(got.data(), want.data(), kCluster), 0) << "the key frame's cluster";
    // The other thread has turned preload off once the read was over.
    EXPECT_TRUE(wait_for([] { return g_other_returned.load(); }));
    EXPECT_EQ(fs_is_preload(g_stream.load()), 0);
    rec_close(h, nullptr);
}

}  // namespace
