// SPDX-License-Identifier: MIT
// Plug-out while the cache loader still walks the disk: fs_datazone_exit stops the loader before
// its next index file and waits for it, so that no loader reads the disk's table entry or index
// tree after the disk went (the next plug-in writes that entry anew). The loader is slowed through
// the library's I/O table so that it is caught in the middle of its walk. One formatted 200 GiB
// loop-backed disk.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "fs_tools.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kRecordings = 40;  // index files the loader walks
constexpr int kSlowOpenMs = 20;  // each index-file open of the slowed loader

std::atomic<bool> g_down{false};    // set once the plug-out returned
std::atomic<int> g_opened{0};       // index files opened while slowed
std::atomic<int> g_opened_late{0};  // ... after the plug-out returned

// Index files of disk a (below /mnt/sda/, outside the link tree).
bool is_index_file(const char *path) {
    return strncmp(path, "/mnt/sda/", 9) == 0 && strstr(path, "link") == nullptr &&
           strstr(path, "magic") == nullptr;
}

int slow_open(const char *path, int flags, mode_t mode) {
    if (is_index_file(path)) {
        g_opened++;
        if (g_down.load()) g_opened_late++;
        std::this_thread::sleep_for(std::chrono::milliseconds(kSlowOpenMs));
    }
    return recstore::io_calls().open.real()(path, flags, mode);
}

TEST(PlugOutLoader, PlugOutStopsTheCacheLoaderAndWaitsForIt) {
    ASSERT_TRUE(rig::active());
    LogMask quiet(0, 0);
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    bring_up(0, true);
    ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
    for (int i = 0; i < kRecordings; i++) {
        const struct tm t = make_tm(2024, 11, 1 + i % 28, 10, i, 0);
        const rec_param p = param_of(i % 8, t, 0);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
        ASSERT_GE(h, 0);
        struct tm end = t;
        end.tm_sec = 30;
        fs_close(h, &end);
    }
    take_down(0);

    const std::string dev = g_disks[0].node;
    ASSERT_EQ(fs_umount(dev.c_str()), 0);
    ASSERT_EQ(fs_chk(dev.c_str()), 0);
    ASSERT_EQ(fs_mount(dev.c_str()), 0);
    ASSERT_EQ(fs_opendisk(dev.c_str()), 0);
    cache_set_loaded(0, 0);
    {
        recstore::IoOverride<int(const char *, int, mode_t)> slow(recstore::io_calls().open,
                                                                  slow_open);
        ASSERT_EQ(fs_datazone_init(0), 0);  // starts the loader
        std::this_thread::sleep_for(std::chrono::milliseconds(5 * kSlowOpenMs));
        fs_datazone_exit(0);
        g_down.store(true);
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * kSlowOpenMs));
    }
    EXPECT_GT(g_opened.load(), 0) << "the loader never started";
    EXPECT_LT(g_opened.load(), kRecordings) << "the loader finished before the plug-out: no test";
    EXPECT_EQ(g_opened_late.load(), 0) << "the loader went on after the plug-out returned";
    EXPECT_EQ(cache_is_loaded(0), 0) << "a stopped load marked the disk loaded";
    fs_closedisk(0);
    fs_umount(dev.c_str());

    // The next plug-in loads the cache whole.
    bring_up(0, false);
    EXPECT_EQ(cache_is_loaded(0), 1);
    take_down(0);
    fs_exit();
}

}  // namespace
