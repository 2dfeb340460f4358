// SPDX-License-Identifier: MIT
// The host's block-change callbacks, run by the daemon's disk pass, may call into the library: a
// callback that takes and releases the disk-table lock (rec_lockdisk), and one that waits for a
// host thread which is itself inside rec_lockdisk, both let the pass finish, and the lock is free
// and whole afterwards. A pass that does not finish fails the test after a bounded wait.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "formatted_disks.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr int kPassWaitMs = 30000;     // far more than one pass with a block change takes
constexpr int kCallbackWaitMs = 5000;  // how long a callback waits for the host thread

// What the callbacks saw.
struct Seen {
    std::atomic<int> before{0};
    std::atomic<int> after{0};
    std::atomic<int> new_block{-1};
    std::atomic<int> lock_rc{-100};
    std::atomic<int> unlock_rc{-100};
    std::atomic<bool> callback_started{false};
    std::atomic<bool> host_had_lock{false};
    std::atomic<bool> host_seen_in_time{false};
};
Seen g_seen;

void before_locking(int, int, int, int, void *) {
    g_seen.before++;
    g_seen.lock_rc = rec_lockdisk();
    g_seen.unlock_rc = rec_unlockdisk();
}

void before_waiting_for_host(int, int, int, int, void *) {
    g_seen.before++;
    g_seen.callback_started = true;
    for (int waited = 0; waited < kCallbackWaitMs; waited += kDaemonPollMs) {
        if (g_seen.host_had_lock.load()) {
            g_seen.host_seen_in_time = true;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kDaemonPollMs));
    }
}

void after(int, int, int, int new_block, void *) {
    g_seen.after++;
    g_seen.new_block = new_block;
}

// Runs one disk pass of the recording layer on its own thread. A pass that has not returned after
// kPassWaitMs fails the test and ends the program: it holds library locks for ever, so nothing
// after it could run.
void pass_or_die() {
    std::atomic<bool> done{false};
    std::thread pass([&] {
        do_disk_loop();
        done = true;
    });
    if (!wait_for([&] { return done.load(); }, kPassWaitMs)) {
        ADD_FAILURE()
            << "the disk pass with the host's block-change callback did not return within "
            << kPassWaitMs / 1000 << " s: the callback is blocked on a library lock";
        fflush(stdout);
        fflush(stderr);
        std::_Exit(1);
    }
    pass.join();
}

// True when another thread can take and release the disk-table lock right now.
bool disk_table_lock_free() {
    std::atomic<int> rc{-1};
    std::thread probe([&] {
        rc = pthread_rwlock_trywrlock(&g_diskrwlock);
        if (rc == 0) pthread_rwlock_unlock(&g_diskrwlock);
    });
    probe.join();
    return rc == 0;
}

class CallbackLocks : public ::testing::Test {
  protected:
    // Disk 0 with block 1 full and the current block 2 two clusters from full; those two clusters
    // are written, so the next pass changes block (to block 3) and calls the host.
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        ASSERT_EQ(rec_init(0, kCacheMib, kNoCache), 0);
        const std::string part = data_partition(0);
        bring_up(0, true, [&] {
            ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 0, 1000));
            ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock2, 2, 1001));
        });
        do_disk_loop();
        ASSERT_EQ(current_disk(), 0);
        ASSERT_EQ(fs_getblockid(0), kBlock2);
        Cluster buf;
        const struct tm t = make_tm(2025, 5, 6, 7, 8, 9);
        const int h = rec_open(1, &t, 0, 0, 0, 0, kWrite, 0);
        ASSERT_GE(h, 0);
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        for (uint32_t n = 0; n < 2; n++) {
            fill_payload(buf.data(), 1, n);
            const uint32_t count = frames_of(n, secs(t), frames);
            ASSERT_EQ(rec_write(h, buf.data(), static_cast<int>(kCluster), frames,
                                static_cast<int>(count)),
                      static_cast<int>(kCluster));
        }
        rec_close(h, nullptr);
        ASSERT_EQ(fs_isblockfull(0), 1);
        ASSERT_EQ(fs_isdiskfull(0), 0);
        g_seen.before = 0;
        g_seen.after = 0;
        g_seen.new_block = -1;
        g_seen.lock_rc = -100;
        g_seen.unlock_rc = -100;
        g_seen.callback_started = false;
        g_seen.host_had_lock = false;
        g_seen.host_seen_in_time = false;
    }

    void TearDown() override {
        rec_set_exphandle_ex(nullptr);
        take_down(0);
        rec_exit();
    }

    static void install(fs_exp_ex_cb before) {
        fs_exphandle_ex ex;
        memset(&ex, 0, sizeof ex);
        ex.before = before;
        ex.after = after;
        rec_set_exphandle_ex(&ex);
    }

    // The block change happened and told the host once before and once after.
    static void expect_block_changed() {
        EXPECT_EQ(g_seen.before.load(), 1);
        EXPECT_EQ(g_seen.after.load(), 1);
        EXPECT_EQ(g_seen.new_block.load(), static_cast<int>(kBlock3));
        EXPECT_EQ(fs_getblockid(0), kBlock3);
        EXPECT_EQ(fs_isblockfull(0), 0);
        EXPECT_TRUE(disk_table_lock_free()) << "the disk-table lock is left taken";
        // And it still works as a lock for the host.
        EXPECT_EQ(rec_lockdisk(), 0);
        EXPECT_EQ(rec_unlockdisk(), 0);
    }
};

TEST_F(CallbackLocks, BlockChangeCallbackMayTakeTheDiskTableLock) {
    install(before_locking);
    pass_or_die();
    EXPECT_EQ(g_seen.lock_rc.load(), 0) << "rec_lockdisk in the callback";
    EXPECT_EQ(g_seen.unlock_rc.load(), 0) << "rec_unlockdisk in the callback";
    expect_block_changed();
}

TEST_F(CallbackLocks, BlockChangeCallbackMayWaitForAHostThreadInsideTheLock) {
    install(before_waiting_for_host);
    std::thread host([] {
        if (!wait_for([] { return g_seen.callback_started.load(); }, kPassWaitMs)) return;
        rec_lockdisk();
        g_seen.host_had_lock = true;
        rec_unlockdisk();
    });
    pass_or_die();
    host.join();
    EXPECT_TRUE(g_seen.host_seen_in_time.load())
        << "the host thread did not get the disk-table lock within " << kCallbackWaitMs / 1000
        << " s of the callback's start: the pass held it across the callback";
    expect_block_changed();
}

}  // namespace
