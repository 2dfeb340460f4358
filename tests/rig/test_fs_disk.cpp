// The disk table on a real disk inside the rig: bringing a formatted disk up and down, the
// refusals of a disk whose index is not mounted, whose magic file is missing or wrong or whose
// data partition cannot be opened (never half initialised), clearing a disk, the fullness tests
// with an aged data zone, and a full tmpfs cache.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "recstore.h"
#include "formatted_disks.h"
#include "recording.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

// ---- the disks -----------------------------------------------------------------------------

const bool g_disks_registered = (use_formatted_disks(2), true);

class Disk : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        quiet_ = std::make_unique<LogMask>(0, 0);
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }
    // Mounted and opened, with a fresh magic file and maps, data zone not started.
    void mounted_and_cleared(int flags) {
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags), 0);
        const char *dev = g_disks[0].node.c_str();
        ASSERT_EQ(fs_umount(dev), 0);
        ASSERT_EQ(fs_mount(dev), 0);
        ASSERT_EQ(fs_opendisk(dev), 0);
        ASSERT_EQ(fs_cleardisk(0), 0);
        cache_set_loaded(0, 0);
    }
    std::string init_messages() {
        LogMask mask(0xB);
        StdoutCapture out;
        result_ = fs_datazone_init(0);
        return out.stop();
    }
    void expect_not_initialised() {
        EXPECT_EQ(result_, -1);
        EXPECT_EQ(fs_disk_is_inited(0), 0);
        EXPECT_LE(g_dz_ctx[0].fd_rw, 0) << "no data-zone descriptor stays open";
        EXPECT_EQ(g_dz_ctx[0].cur_block, nullptr);
        EXPECT_EQ(fs_isdiskfull(0), 1);
        EXPECT_EQ(fs_isblockfull(0), 1);
        fs_disk_info info;
        memset(&info, 0x33, sizeof info);
        EXPECT_EQ(fs_getdiskinfo(0, &info), 0);
        EXPECT_EQ(info.inited, 0x33333333u) << "nothing is copied from a disk not initialised";
    }

    int result_ = 0;
    std::unique_ptr<LogMask> quiet_;
};

TEST_F(Disk, UpAndDownInThePlugOrders) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    bring_up(0, true);
    EXPECT_EQ(fs_disk_is_inited(0), 1);
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 1);
    EXPECT_TRUE(exists("/mnt/cache/sda")) << "the loader mirrors the index tree";
    EXPECT_EQ(g_magic[0], RECSTORE_MAGIC_V7);
    fs_disk_info info;
    ASSERT_EQ(fs_getdiskinfo(0, &info), 0);
    EXPECT_EQ(info.magic_ok, 1u);
    EXPECT_EQ(info.dz_info.cluster_size, kCluster);
    EXPECT_EQ(info.dz_info.freesize, info.dz_info.data_count * uint64_t{kCluster});

    // Plug-out order: out of the group, data zone down, closed, unmounted.
    EXPECT_EQ(fs_removedisk(0, 0), 0);
    EXPECT_EQ(fs_getgrp(0), 3);
    fs_datazone_exit(0);
    EXPECT_EQ(fs_disk_is_inited(0), 0);
    EXPECT_LE(g_dz_ctx[0].fd_rw, 0);
    EXPECT_FALSE(exists("/mnt/cache/sda")) << "the disk's cache is unloaded";
    fs_closedisk(0);
    EXPECT_EQ(g_disk[0].devname[0], '\0');
    EXPECT_EQ(fs_umount(g_disks[0].node.c_str()), 0);
    EXPECT_EQ(fs_ismounted(g_disks[0].node.c_str()), 0);
    EXPECT_EQ(fs_isalldiskfull(-1, 0), 1);

    // Up again without clearing: the magic file and the maps are kept.
    bring_up(0, false);
    EXPECT_EQ(fs_disk_is_inited(0), 1);
}

TEST_F(Disk, InitFailsWhenTheCacheCannotBeMounted) {
    LogMask mask(0xB);
    StdoutCapture out;
    // No inode for the tmpfs: the cache refuses, and so does the disk layer.
    EXPECT_EQ(fs_init(0, kCacheMib, 0), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "cache initialize err\n")) << text;
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 0);
    // The cache off: cache_init is not called, nothing is mounted.
    EXPECT_EQ(fs_init(0, kCacheMib, kNoCache), 0);
    EXPECT_EQ(fs_use_cache(), 0);
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 0);
}

TEST_F(Disk, IndexNotMountedIsRefused) {
    mounted_and_cleared(0);
    ASSERT_EQ(fs_umount(g_disks[0].node.c_str()), 0);
    // A magic file in the bare mount point directory passes the first check.
    ASSERT_EQ(index_write_magic(0), 0);
    const std::string text = init_messages();
    EXPECT_TRUE(contains(text, "disk had not mounted:/mnt/sda\n")) << text;
    expect_not_initialised();
    unlink("/mnt/sda/magic");
}

TEST_F(Disk, MissingMagicFileIsRefused) {
    mounted_and_cleared(0);
    index_erase_magic(0);
    const std::string text = init_messages();
    EXPECT_TRUE(contains(text, "index_check_magic:/dev/hd/sda\n")) << text;
    expect_not_initialised();
}

TEST_F(Disk, WrongMagicFileIsRefused) {
    mounted_and_cleared(0);
    const uint32_t wrong = 0x12345678u;
    FILE *f = fopen("/mnt/sda/magic", "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(&wrong, 4, 1, f), 1u);
    fclose(f);
    const std::string text = init_messages();
    EXPECT_TRUE(contains(text, "index_check_magic:/dev/hd/sda\n")) << text;
    expect_not_initialised();
}

TEST_F(Disk, DataPartitionThatCannotBeOpenedIsRefused) {
    mounted_and_cleared(0);
    const std::string part = data_partition(0);
    const std::string moved = "/dev/hd/moved-sda3";
    ASSERT_EQ(rename(part.c_str(), moved.c_str()), 0);
    const std::string text = init_messages();
    ASSERT_EQ(rename(moved.c_str(), part.c_str()), 0);
    EXPECT_TRUE(contains(text, "datazone initialized failed\n")) << text;
    expect_not_initialised();
    // With the partition back the disk comes up.
    EXPECT_EQ(fs_datazone_init(0), 0);
    EXPECT_TRUE(wait_cache_loaded(0));
    EXPECT_EQ(fs_disk_is_inited(0), 1);
}

TEST_F(Disk, ClearDiskErasesEveryRecording) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    bring_up(0, true);
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    const struct tm t = make_tm(2024, 10, 1, 0, 0, 0);
    rec_param p = param_of(2, t, 0);
    int h = fs_open(0, &p, O_CREAT | O_RDWR, 1, 0, nullptr);
    ASSERT_GE(h, 0);
    Cluster buf;
    kframe frames[RECSTORE_MAX_KFRAMES] = {{0, static_cast<uint32_t>(secs(t))}};
    for (int i = 0; i < 17; i++)
        ASSERT_EQ(fs_write(h, buf.data(), kCluster, frames, 1), int(kCluster));
    fs_close(h, nullptr);
    ASSERT_TRUE(exists(index_name(0, 2, t, 0)));
    ASSERT_TRUE(exists(cache_file(0, 2, t, 0)));

    fs_datazone_exit(0);
    ASSERT_EQ(fs_cleardisk(0), 0);
    EXPECT_FALSE(exists(index_name(0, 2, t, 0)));
    EXPECT_FALSE(exists("/mnt/sda/link"));
    EXPECT_FALSE(exists("/mnt/cache/sda"));
    EXPECT_TRUE(exists("/mnt/sda/magic"));
    cache_set_loaded(0, 0);
    ASSERT_EQ(fs_datazone_init(0), 0);
    EXPECT_TRUE(wait_cache_loaded(0));
    EXPECT_EQ(datazone_busy_count(0), 0);
    EXPECT_EQ(aging::read_entry(data_partition(0).c_str(), 0, 0), 0u);
}

TEST_F(Disk, FullnessFollowsTheFreeClusters) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    const std::string part = data_partition(0);
    bring_up(0, true, [&] {
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock2, 0, 3000));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock3, 0, 3001));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 10, 3002));
    });
    EXPECT_EQ(datazone_free_count(0), 10);
    LogMask mask(0xB);
    StdoutCapture out;
    EXPECT_EQ(do_fs_isdiskfull(0, 10), 1);
    EXPECT_EQ(do_fs_isdiskfull(0, 9), 0);
    EXPECT_EQ(fs_isdiskfull(0), 0);
    EXPECT_EQ(fs_isalldiskfull(0, 10), 1);
    EXPECT_EQ(fs_isalldiskfull(0, 9), 0);
    EXPECT_EQ(fs_isalldiskfull(-1, 9), 0);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "disk :0 is full,index full:0 free count:10 free:0\n")) << text;
    // Take the last ten clusters: full by every test.
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    for (int i = 0; i < 10; i++) EXPECT_NE(datazone_alloc(0), -1);
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(fs_isblockfull(0), 1);
    EXPECT_EQ(fs_isalldiskfull(0, 0), 1);
}

TEST_F(Disk, AFullCacheMakesEveryDiskFullAndCorruptsNothing) {
    constexpr int kTinyInodes = 64;
    ASSERT_EQ(fs_init(kTinyInodes, 1, 0), 0);
    bring_up(0, true);
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    const struct tm t = make_tm(2024, 10, 2, 0, 0, 0);
    rec_param p = param_of(4, t, 0);
    const int h = fs_open(0, &p, O_CREAT | O_RDWR, 1, 0, nullptr);
    ASSERT_GE(h, 0);
    Cluster buf;
    kframe frames[RECSTORE_MAX_KFRAMES] = {{0, static_cast<uint32_t>(secs(t))}};
    for (int i = 0; i < 17; i++)
        ASSERT_EQ(fs_write(h, buf.data(), kCluster, frames, 1), int(kCluster));
    EXPECT_EQ(fs_isalldiskfull(0, 0), 0);

    // Use up the cache's inodes.
    std::vector<std::string> fillers;
    for (int i = 0; i < kTinyInodes * 2; i++) {
        const std::string name = "/mnt/cache/filler" + std::to_string(i);
        const int fd = open(name.c_str(), O_CREAT | O_WRONLY, 0644);
        if (fd < 0) break;
        close(fd);
        fillers.push_back(name);
    }
    ASSERT_FALSE(fillers.empty());
    {
        LogMask mask(0xB);
        StdoutCapture out;
        EXPECT_EQ(fs_isalldiskfull(0, 0), 1);
        EXPECT_EQ(fs_isalldiskfull(-1, 0), 1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "cache is full\n")) << text;
    }
    // Recording goes on; only the cache tag cannot follow.
    for (int i = 0; i < 17; i++)
        ASSERT_EQ(fs_write(h, buf.data(), kCluster, frames, 1), int(kCluster));
    for (const std::string &f : fillers) unlink(f.c_str());
    EXPECT_EQ(fs_isalldiskfull(0, 0), 0);
    fs_close(h, nullptr);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    recordinfo info;
    ASSERT_EQ(fs_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 34u);
    fs_close(r, nullptr);
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 4, t, 0));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ((tags[0] >> 44) & 0xFFFF, (34u * kCluster) >> 16);
}

TEST_F(Disk, ReadOnlyTakesNoBlockAndWritesNoMap) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    bring_up(0, true);
    take_down(0);
    fs_exit();
    const std::string part = data_partition(0);
    const uint32_t map_before = aging::read_entry(part.c_str(), 0, 0);
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, kReadOnly), 0);
    bring_up(0, false);
    EXPECT_EQ(fs_disk_is_inited(0), 1);
    EXPECT_EQ(fs_chkdata(0, 1), -1);
    EXPECT_EQ(fs_changeblock(0, 0, 0), 0);
    EXPECT_EQ(block_get_current(0), -1);
    EXPECT_EQ(fs_isblockfull(0), 1);
    EXPECT_EQ(aging::read_entry(part.c_str(), 0, 0), map_before);
}

}  // namespace
