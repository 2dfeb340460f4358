// SPDX-License-Identifier: MIT
// Recording on a real disk inside the rig: two formatted 200 GiB loop-backed disks brought up in
// the plug-in order, recordings written through fs_open/fs_write/fs_close and checked on disk
// (index file, link, cache tag, payload), the stream table's limits, the cache refresh, block
// changes with the host's callbacks, the cache off, read-only and direct-I/O modes, and 64
// streams writing while the block changes.
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
#include "fs_tools.h"
#include "recstore.h"
#include "recording.h"
#include "formatted_disks.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

// ---- bitmap syncs ----------------------------------------------------------------------------

// A disk's bitmaps are synced by flushing its read-write data-zone descriptor alone; a full sync
// of the zone flushes the read-only descriptor right before it. The Stream tests count the
// seam's fsync calls on both, so that bitmap syncs are the difference.
std::atomic<int> g_rw_syncs[RECSTORE_MAX_DISKS];
std::atomic<int> g_rd_syncs[RECSTORE_MAX_DISKS];

int counted_fsync(int fd) {
    for (int d = 0; fd >= 0 && d < RECSTORE_MAX_DISKS; d++) {
        if (fd == g_dz_ctx[d].fd_rw) g_rw_syncs[d]++;
        if (fd == g_dz_ctx[d].fd_rd) g_rd_syncs[d]++;
    }
    return recstore::io_calls().fsync.real()(fd);
}

void reset_bitmap_syncs() {
    for (auto &n : g_rw_syncs) n = 0;
    for (auto &n : g_rd_syncs) n = 0;
}

// Bitmap syncs per disk since the last reset, as "d0 d1 ... d7".
std::string bitmap_syncs() {
    std::string text;
    for (int d = 0; d < RECSTORE_MAX_DISKS; d++) {
        text += (text.empty() ? "" : " ") + std::to_string(g_rw_syncs[d] - g_rd_syncs[d]);
    }
    return text;
}

// ---- the disks -----------------------------------------------------------------------------

const bool g_disks_registered = (use_formatted_disks(2), true);

class Stream : public ::testing::Test {
  protected:
    // Starts the layer with `flags`, brings disk 0 up fresh and makes block 1 current.
    void start(int flags, bool current_block = true) {
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags), 0);
        bring_up(0, true);
        if (current_block) {
            ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
        }
    }
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        fs_clear_exphandle();
        fs_set_exphandle_ex(nullptr);
        take_down(1);
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    // Opens a writer on disk 0.
    int create(int channel, const struct tm &start, int type, uint32_t mode = 0x15,
               const ext_desc *ext = nullptr, int disk = 0) {
        rec_param p = param_of(channel, start, type);
        p.attr_a = 0x1234;
        p.attr_b = 0x5678;
        p.attr_c = 0x9abcdef0u;
        return fs_open(disk, &p, O_CREAT | O_RDWR, mode, 0x31, ext);
    }

    // Writes cluster n of stream s with its key frames; the fs_write result.
    int write_cluster_n(int h, uint32_t s, uint32_t n, time_t base, uint32_t length = kCluster) {
        fill_payload(buf_.data(), s, n);
        kframe frames[RECSTORE_MAX_KFRAMES];
        const uint32_t count = frames_of(n, base, frames);
        return fs_write(h, buf_.data(), length, frames, count);
    }

    recordinfo stat_of(int h) {
        recordinfo info;
        memset(&info, 0, sizeof info);
        EXPECT_EQ(fs_stat(h, &info), 0);
        return info;
    }

    Cluster buf_;
    std::unique_ptr<LogMask> quiet_;
    // The seam's fsync calls are counted for the whole test.
    recstore::IoOverride<int(int)> syncs_{recstore::io_calls().fsync, counted_fsync};
};

// ---- the tests -----------------------------------------------------------------------------

TEST_F(Stream, BringsADiskUpInThePlugInOrder) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    bring_up(0, true);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "open disk:0\n")) << text;
    EXPECT_TRUE(contains(text, "initialized disk:0 datazone\n")) << text;
    EXPECT_TRUE(contains(text, "disk:0 filesystem version:7.0.0.0\n")) << text;
    EXPECT_TRUE(contains(text, "add disk :0 to slot:0\n")) << text;
    EXPECT_EQ(fs_disk_is_inited(0), 1);
    EXPECT_EQ(fs_datazone_is_inited(0), 1);
    EXPECT_EQ(fs_getgrp(0), 0);
    EXPECT_EQ(fs_isdiskfull(0), 0);
    EXPECT_EQ(do_fs_isdiskfull(0, 16384), 0);
    EXPECT_EQ(fs_isalldiskfull(0, 16384), 0);
    // No block is current until the first block change.
    EXPECT_EQ(fs_isblockfull(0), 1);
    EXPECT_EQ(fs_changeblock(0, 0, 0), 0);
    EXPECT_EQ(fs_isblockfull(0), 0);
    EXPECT_EQ(fs_getblockid(0), kBlock1);
}

TEST_F(Stream, WritesARecordingEndToEnd) {
    start(0);
    const struct tm start_tm = make_tm(2024, 5, 17, 8, 9, 10);
    const time_t base = secs(start_tm);
    const uint32_t ext_data[4] = {0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u};
    const ext_desc ext{7, sizeof ext_data, ext_data};
    const int h = create(3, start_tm, 0, 0x1AB, &ext);
    ASSERT_GE(h, 0);
    EXPECT_EQ(g_file_ctx[h].block_id, kBlock1);
    EXPECT_EQ(g_file_ctx[h].disk_id, 0);

    constexpr uint32_t kClusters = 300;
    uint64_t total = 0;
    uint32_t frames_total = 0;
    for (uint32_t n = 0; n < kClusters; n++) {
        const uint32_t length = kCluster - (n % 7) * 1000;
        ASSERT_EQ(write_cluster_n(h, 1, n, base, length), static_cast<int>(length)) << n;
        total += length;
        frames_total += 1 + n % 3;
    }
    uint32_t got_ext[4] = {};
    EXPECT_EQ(fs_get_ext(h, got_ext, sizeof got_ext), static_cast<int>(sizeof got_ext));
    EXPECT_EQ(memcmp(got_ext, ext_data, sizeof ext_data), 0);
    const struct tm end_tm = make_tm(2024, 5, 17, 8, 14, 20);
    fs_close(h, &end_tm);
    EXPECT_EQ(g_file_ctx[h].idx, -1);

    // The index file: header counters and the file times.
    const std::string name = index_name(0, 3, start_tm, 0);
    ASSERT_EQ(name, "/mnt/sda/03/2024/05/17/00/0320240517080910_00");
    struct stat64 st;
    ASSERT_EQ(stat64(name.c_str(), &st), 0);
    struct tm s = start_tm, e = end_tm;
    EXPECT_EQ(st.st_atime, mktime(&s));
    EXPECT_EQ(st.st_mtime, mktime(&e));
    const rec_param p = param_of(3, start_tm, 0);
    EXPECT_EQ(fs_access(0, &p), 0);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    EXPECT_EQ(g_file_ctx[r].block_id, kNoBlock);
    const recordinfo info = stat_of(r);
    EXPECT_EQ(info.entry_count, kClusters);
    EXPECT_EQ(info.total_bytes, total);
    EXPECT_EQ(info.frame_count, frames_total);
    EXPECT_EQ(info.block_id, kBlock1);
    EXPECT_EQ(info.channel, 3u);
    EXPECT_EQ(info.mode, 0x1ABu);
    EXPECT_EQ(info.attr_a, 0x1234);
    EXPECT_EQ(info.attr_b, 0x5678);
    EXPECT_EQ(info.attr_c, 0x9abcdef0u);
    EXPECT_EQ(info.attr_d, 0x31u);
    EXPECT_EQ(info.end_time.tm_min, 14);
    EXPECT_EQ(info.start_time.tm_sec, 10);
    EXPECT_EQ(st.st_size, static_cast<off64_t>(sizeof_recordinfo(&info)) + kClusters * 204);
    fs_close(r, nullptr);

    // Entries: ascending clusters from the block's first data cluster, frames, payload.
    const std::vector<Entry> entries = entries_of(0, 3, start_tm, 0);
    ASSERT_EQ(entries.size(), kClusters);
    std::vector<unsigned char> back(kCluster);
    for (uint32_t n = 0; n < kClusters; n++) {
        const Entry &en = entries[n];
        EXPECT_EQ(en.cluster, kFirstData + n);
        EXPECT_EQ(en.length, kCluster - (n % 7) * 1000);
        kframe want[RECSTORE_MAX_KFRAMES];
        ASSERT_EQ(en.frame_count, frames_of(n, base, want));
        EXPECT_EQ(memcmp(en.frames, want, en.frame_count * sizeof(kframe)), 0);
        if (n % 25 == 0 || n == kClusters - 1) {
            ASSERT_EQ(datazone_read(0, static_cast<int>(en.cluster), back.data()),
                      static_cast<int>(kCluster));
            fill_payload(buf_.data(), 1, n);
            EXPECT_EQ(memcmp(back.data(), buf_.data(), kCluster), 0) << "cluster " << n;
        }
    }

    // The link in block 1's directory, relative to the index root.
    const std::string link = link_name(0, kBlock1, 3, start_tm, 0);
    EXPECT_EQ(link, "/mnt/sda/link/00000001/0320240517080910_00");
    char target[RECSTORE_PATH_LEN] = {};
    ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "../../03/2024/05/17/00/0320240517080910_00");
    struct stat64 via;
    ASSERT_EQ(stat64(link.c_str(), &via), 0);
    EXPECT_EQ(via.st_ino, st.st_ino);

    // The cache tag: start second of the day, duration, mode, bytes.
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 3, start_tm, 0));
    ASSERT_EQ(tags.size(), 1u);
    struct tm e2 = end_tm;
    EXPECT_EQ(tags[0], filename_to_cachetag(&e2, 0x1AB, static_cast<unsigned>(total),
                                            file_name(3, start_tm, 0).c_str()));
    EXPECT_EQ(tags[0] & 0xFFFFF, 8u * 3600 + 9 * 60 + 10);
    EXPECT_EQ((tags[0] >> 20) & 0xFFFF, 310u);
}

TEST_F(Stream, The129thStreamIsRefusedAndLeavesNoFile) {
    start(0);
    const struct tm base = make_tm(2024, 6, 1, 0, 0, 0);
    std::vector<int> handles;
    for (int i = 0; i < RECSTORE_STREAMS; i++) {
        struct tm t;
        time_t s = secs(base) + i;
        gmtime_r(&s, &t);
        const int h = create(i % 64, t, 1);
        ASSERT_EQ(h, i);
        handles.push_back(h);
    }
    struct tm extra;
    time_t s = secs(base) + 1000;
    gmtime_r(&s, &extra);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(create(5, extra, 1), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "reach the max count")) << text;
    EXPECT_FALSE(exists(index_name(0, 5, extra, 1)));
    EXPECT_FALSE(exists(link_name(0, kBlock1, 5, extra, 1)));
    for (int h : handles) fs_close(h, nullptr);
    // The slots are free again.
    const int h = create(5, extra, 1);
    EXPECT_EQ(h, 0);
    fs_close(h, nullptr);
}

TEST_F(Stream, OpenWithoutCurrentBlockWaitsAndIsRefused) {
    start(0, false);
    const struct tm t = make_tm(2024, 6, 2, 1, 2, 3);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(create(7, t, 0), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "waiting for current block reach the max count")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n') >= 20, true) << text;
    EXPECT_TRUE(contains(text, "no current block on disk 0, recording refused\n")) << text;
    EXPECT_FALSE(exists(index_name(0, 7, t, 0)));
    EXPECT_FALSE(exists("/mnt/sda/link/-0000001"));
    EXPECT_EQ(g_file_ctx[0].idx, -1);
}

TEST_F(Stream, WriteIntoAFullZoneReturnsMinus5AndAddsNothing) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask quiet(0, 0);
    const std::string part = data_partition(0);
    // Blocks 2 and 3 full, block 1 with three free clusters: it is resumed as current.
    bring_up(0, true, [&] {
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock2, 0, 1000));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock3, 0, 1001));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 3, 1002));
    });
    ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
    const struct tm t = make_tm(2024, 6, 3, 4, 5, 6);
    const int h = create(9, t, 0);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 3; n++) EXPECT_EQ(write_cluster_n(h, 3, n, secs(t)), int(kCluster));
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(write_cluster_n(h, 3, 3, secs(t)), -5);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "data alloc err")) << text;
    EXPECT_EQ(stat_of(h).entry_count, 3u);
    EXPECT_EQ(fs_isblockfull(0), 1);
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(fs_isalldiskfull(0, 0), 1);
    fs_close(h, nullptr);
    EXPECT_EQ(entries_of(0, 9, t, 0).size(), 3u);
}

TEST_F(Stream, CacheTagIsRefreshedOnEverySeventeenthWrite) {
    start(0);
    const struct tm t = make_tm(2024, 6, 4, 10, 0, 0);
    const time_t base = secs(t);
    const int h = create(11, t, 2, 0x42);
    ASSERT_GE(h, 0);
    const std::string cache = cache_file(0, 11, t, 2);
    // At open the record has no end time yet: its tag cannot be made before the first frame.
    const std::string at_open = slurp(cache);
    for (uint32_t n = 0; n < 16; n++) ASSERT_EQ(write_cluster_n(h, 4, n, base), int(kCluster));
    EXPECT_EQ(slurp(cache), at_open) << "the tag changed before the seventeenth write";
    EXPECT_EQ(g_file_ctx[h].cache_writes, 16u);
    ASSERT_EQ(write_cluster_n(h, 4, 16, base), int(kCluster));
    EXPECT_EQ(g_file_ctx[h].cache_writes, 0u);
    std::vector<uint64_t> tags = tags_in(cache);
    ASSERT_EQ(tags.size(), 1u);
    // Cluster 16 has two frames, the later one at base + 17.
    EXPECT_EQ((tags[0] >> 20) & 0xFFFF, 17u);
    EXPECT_EQ((tags[0] >> 36) & 0xFF, 0x42u);
    EXPECT_EQ((tags[0] >> 44) & 0xFFFF, (17u * kCluster) >> 16);

    // One more write: not refreshed; after fs_sync_cache the next write refreshes at once.
    ASSERT_EQ(write_cluster_n(h, 4, 17, base), int(kCluster));
    EXPECT_EQ((tags_in(cache)[0] >> 20) & 0xFFFF, 17u);
    EXPECT_EQ(fs_sync_cache(h), 0);
    ASSERT_EQ(write_cluster_n(h, 4, 18, base), int(kCluster));
    tags = tags_in(cache);
    ASSERT_EQ(tags.size(), 1u);
    // Cluster 17's last frame is at base + 19.
    EXPECT_EQ((tags[0] >> 20) & 0xFFFF, 19u);
    EXPECT_EQ((tags[0] >> 44) & 0xFFFF, (19u * kCluster) >> 16);
}

TEST_F(Stream, ADayAndStreamWithoutRecordingsHasNoCacheFile) {
    start(0);
    const struct tm t = make_tm(2024, 6, 6, 9, 0, 0);
    const int h = create(15, t, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 6, 0, secs(t)), int(kCluster));
    fs_close(h, nullptr);
    ASSERT_EQ(tags_in(cache_file(0, 15, t, 0)).size(), 1u);
    // Same channel and day, other streams; the next day; another channel: no file at all.
    for (int type = 1; type < 4; type++)
        EXPECT_FALSE(exists(cache_file(0, 15, t, type))) << "stream " << type;
    EXPECT_FALSE(exists(cache_file(0, 15, make_tm(2024, 6, 7, 9, 0, 0), 0)));
    EXPECT_FALSE(exists(cache_file(0, 16, t, 0)));
}

TEST_F(Stream, CloseWithoutEndTimeKeepsTheLastFrameTime) {
    start(0);
    const struct tm t = make_tm(2024, 6, 5, 23, 0, 0);
    const time_t base = secs(t);
    const int h = create(12, t, 0);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 5; n++) ASSERT_EQ(write_cluster_n(h, 5, n, base), int(kCluster));
    fs_close(h, nullptr);
    // Cluster 4 has two frames: base + 4 and base + 5.
    const rec_param p = param_of(12, t, 0);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    const recordinfo info = stat_of(r);
    fs_close(r, nullptr);
    struct tm end;
    from_fs_tm(&end, &info.end_time);
    EXPECT_EQ(secs(end), base + 5);
    struct stat64 st;
    ASSERT_EQ(stat64(index_name(0, 12, t, 0).c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, mktime(&end));
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 12, t, 0));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ((tags[0] >> 20) & 0xFFFF, 5u);
}

TEST_F(Stream, SmallOperations) {
    start(0);
    const struct tm t = make_tm(2024, 6, 6, 6, 6, 6);
    const int h = create(13, t, 3, 0x10);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 6, 0, secs(t)), int(kCluster));
    // No extension was given.
    EXPECT_EQ(fs_get_ext(h, buf_.data(), 16), -1);
    EXPECT_EQ(fs_chmod(h, 0x77), 0);
    EXPECT_EQ(stat_of(h).mode, 0x77u);
    std::vector<uint64_t> tags = tags_in(cache_file(0, 13, t, 3));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ((tags[0] >> 36) & 0xFF, 0x77u);
    record_alarm alarm{};
    alarm.alarm_a = 5;
    alarm.alarm_b = 6;
    alarm.alarm_data[0] = 0xAB;
    EXPECT_EQ(fs_insertalarm(h, &alarm), 0);
    EXPECT_EQ(fs_insertalarm(h, nullptr), -1);
    const recordinfo info = stat_of(h);
    EXPECT_EQ(info.alarm_count, 1);
    EXPECT_EQ(info.alarms[0].alarm_data[0], 0xAB);
    EXPECT_EQ(fs_sync(h), 0);
    EXPECT_EQ(fs_stat(h, nullptr), -1);
    const rec_param p = param_of(13, t, 3);
    EXPECT_EQ(fs_access(0, &p), 0);
    const rec_param other = param_of(13, t, 4);
    EXPECT_EQ(fs_access(0, &other), -1);
    EXPECT_EQ(fs_access(0, nullptr), -1);
    // Too many frames or bytes for one cluster are refused before anything is allocated.
    kframe frames[RECSTORE_MAX_KFRAMES + 1] = {};
    const int busy = datazone_busy_count(0);
    EXPECT_EQ(fs_write(h, buf_.data(), kCluster, frames, RECSTORE_MAX_KFRAMES + 1), -1);
    EXPECT_EQ(fs_write(h, buf_.data(), kCluster + 1, frames, 1), -1);
    EXPECT_EQ(datazone_busy_count(0), busy);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fs_dump(fds[1], 0);
    close(fds[1]);
    std::string dump;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0) dump.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    EXPECT_TRUE(contains(dump, "diskid:0 disk_inited?:1 dz_inited?:1 disk_full?:0\n")) << dump;
    EXPECT_TRUE(contains(dump,
                         "inited?:1 formatted?:1 magic:702a2013 diskid:0 groupid:0 "
                         "path:/dev/hd/sda\n"))
        << dump;
    EXPECT_TRUE(contains(dump, "index part:/mnt/sda 61267x 4096x ")) << dump;
    EXPECT_TRUE(contains(dump, "dzone part:/dev/hd/sda3 dz_size:")) << dump;
    EXPECT_TRUE(contains(dump, " cluster_size:524288 clusters_per_block:131072 start:0 ")) << dump;
    EXPECT_TRUE(contains(dump,
                         " bm_start:0 bm_count:1 blk_start:1 blk_count:3 dat_start:257 "
                         "dat_count:393216\n"))
        << dump;

    fs_disk_info d;
    ASSERT_EQ(fs_getdiskinfo(0, &d), 0);
    EXPECT_EQ(d.inited, 1u);
    EXPECT_EQ(d.magic_ok, 1u);
    EXPECT_STREQ(d.idx_root, "/mnt/sda");
    EXPECT_EQ(d.idx_statfs.f_type, 0xEF53);
    EXPECT_EQ(d.dz_info.block_count, 3u);
    EXPECT_EQ(d.dz_info.data_start, kFirstData);
    EXPECT_STREQ(d.devname, "/dev/hd/sda");
}

TEST_F(Stream, CacheOffWritesNoTag) {
    start(kNoCache);
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 0);
    const struct tm t = make_tm(2024, 6, 7, 7, 7, 7);
    const int h = create(14, t, 0);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 20; n++) ASSERT_EQ(write_cluster_n(h, 7, n, secs(t)), int(kCluster));
    fs_close(h, nullptr);
    EXPECT_FALSE(exists(cache_file(0, 14, t, 0)));
    EXPECT_EQ(entries_of(0, 14, t, 0).size(), 20u);
    EXPECT_TRUE(exists(link_name(0, kBlock1, 14, t, 0)));
}

TEST_F(Stream, DirectIoTakesAlignedAndUnalignedBuffers) {
    start(kDirectIo);
    EXPECT_GT(g_dz_ctx[0].fd_rd_direct, 0);
    const struct tm t = make_tm(2024, 6, 8, 8, 8, 8);
    const int h = create(15, t, 0);
    ASSERT_GE(h, 0);
    std::vector<unsigned char> unaligned(kCluster + 1);
    kframe frames[RECSTORE_MAX_KFRAMES] = {{0, static_cast<uint32_t>(secs(t))}};
    for (uint32_t n = 0; n < 4; n++) {
        if (n % 2 == 0) {
            ASSERT_EQ(write_cluster_n(h, 8, n, secs(t)), int(kCluster));
        } else {
            fill_payload(unaligned.data() + 1, 8, n);
            ASSERT_EQ(fs_write(h, unaligned.data() + 1, kCluster, frames, 1), int(kCluster));
        }
    }
    fs_close(h, nullptr);
    const std::vector<Entry> entries = entries_of(0, 15, t, 0);
    ASSERT_EQ(entries.size(), 4u);
    Cluster back;
    for (uint32_t n = 0; n < 4; n++) {
        ASSERT_EQ(datazone_read_direct(0, static_cast<int>(entries[n].cluster), back.data()),
                  int(kCluster));
        fill_payload(buf_.data(), 8, n);
        EXPECT_EQ(memcmp(back.data(), buf_.data(), kCluster), 0) << n;
    }
}

TEST_F(Stream, ReadOnlyOpensRecordingsAndRefusesWrites) {
    start(0);
    const struct tm t = make_tm(2024, 6, 9, 9, 9, 9);
    int h = create(16, t, 0);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 3; n++) ASSERT_EQ(write_cluster_n(h, 9, n, secs(t)), int(kCluster));
    fs_close(h, nullptr);
    take_down(0);
    fs_exit();

    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, kReadOnly), 0);
    EXPECT_EQ(find_mount_point("/mnt/cache/", nullptr), 0) << "read-only mounts no cache";
    bring_up(0, false);
    EXPECT_EQ(fs_disk_is_inited(0), 1);
    EXPECT_EQ(fs_chkdata(0, 1), -1);
    const rec_param p = param_of(16, t, 0);
    EXPECT_EQ(fs_access(0, &p), 0);
    h = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(h, 0);
    EXPECT_EQ(stat_of(h).entry_count, 3u);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(write_cluster_n(h, 9, 3, secs(t)), -1);
    EXPECT_EQ(fs_chmod(h, 1), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "fs_write readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_chmod readonly\n")) << text;
    fs_close(h, nullptr);
    EXPECT_EQ(entries_of(0, 16, t, 0).size(), 3u);
}

// ---- block changes -------------------------------------------------------------------------

struct ChangeLog {
    std::vector<std::string> calls;
    std::mutex lock;
};

void ex_before(int od, int nd, int ob, int nb, void *ctx) {
    auto *log = static_cast<ChangeLog *>(ctx);
    std::lock_guard<std::mutex> g(log->lock);
    log->calls.push_back("before " + std::to_string(od) + " " + std::to_string(nd) + " " +
                         std::to_string(ob) + " " + std::to_string(nb));
}
void ex_after(int od, int nd, int ob, int nb, void *ctx) {
    auto *log = static_cast<ChangeLog *>(ctx);
    std::lock_guard<std::mutex> g(log->lock);
    log->calls.push_back("after " + std::to_string(od) + " " + std::to_string(nd) + " " +
                         std::to_string(ob) + " " + std::to_string(nb));
}
void simple_cb(void *arg, void *) {
    auto *log = static_cast<ChangeLog *>(arg);
    std::lock_guard<std::mutex> g(log->lock);
    log->calls.push_back("simple");
}

TEST_F(Stream, BlockChangeOnTheSameDiskWhenTheBlockFills) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask quiet(0, 0);
    const std::string part = data_partition(0);
    bring_up(0, true, [&] { ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 2, 1500)); });
    ChangeLog log;
    fs_exphandle simple{simple_cb, simple_cb, &log};
    fs_exphandle old{};
    fs_set_exphandle(&old, &simple);
    fs_exphandle_ex ex{nullptr, nullptr, ex_before, ex_after, nullptr, &log};
    fs_set_exphandle_ex(&ex);

    ASSERT_EQ(fs_changeblock(0, 0, 1), 0);  // the first block: block 1, partly used, resumed
    EXPECT_EQ(fs_getblockid(0), kBlock1);
    const struct tm t = make_tm(2024, 7, 1, 0, 0, 0);
    int h = create(20, t, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 10, 0, secs(t)), int(kCluster));
    ASSERT_EQ(write_cluster_n(h, 10, 1, secs(t)), int(kCluster));
    EXPECT_EQ(fs_isblockfull(0), 1);
    EXPECT_EQ(write_cluster_n(h, 10, 2, secs(t)), -5);
    fs_close(h, nullptr);

    log.calls.clear();
    LogMask mask(kAllLevels);
    reset_bitmap_syncs();
    StdoutCapture out;
    EXPECT_EQ(fs_changeblock(0, 0, 3), 0);
    const std::string text = out.stop();
    EXPECT_EQ(bitmap_syncs(), "1 0 0 0 0 0 0 0") << "the disk's bitmaps are synced once";
    EXPECT_TRUE(contains(text, "change blk olddisk:[0 1] => newdisk:[0 2] cb:3 ok\n")) << text;
    EXPECT_TRUE(
        contains(slurp("/mnt/img/log.log"), "change blk olddisk:[0 1] => newdisk:[0 2] cb:3 ok\n"));
    ASSERT_EQ(log.calls.size(), 2u);
    EXPECT_EQ(log.calls[0], "before 0 0 -1 -1");
    EXPECT_EQ(log.calls[1], "after 0 0 1 2");
    EXPECT_EQ(fs_isblockfull(0), 0);
    // New recordings go to block 2.
    const struct tm t2 = make_tm(2024, 7, 1, 0, 5, 0);
    h = create(20, t2, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(g_file_ctx[h].block_id, kBlock2);
    ASSERT_EQ(write_cluster_n(h, 11, 0, secs(t2)), int(kCluster));
    fs_close(h, nullptr);
    EXPECT_TRUE(exists(link_name(0, kBlock2, 20, t2, 0)));
    const std::vector<Entry> e = entries_of(0, 20, t2, 0);
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].cluster, kFirstData + 131072u);
    // Block 1's map entry is busy on disk: it was taken and filled.
    EXPECT_EQ(aging::read_entry(part.c_str(), 0, 0) >> aging::kStateShift, 2u);
    EXPECT_EQ(aging::read_entry(part.c_str(), 0, 1) >> aging::kStateShift, 2u);
}

TEST_F(Stream, BlockChangeToASecondDiskAndWithoutOldBlock) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask quiet(0, 0);
    bring_up(0, true);
    bring_up(1, true);
    ChangeLog log;
    fs_exphandle simple{simple_cb, simple_cb, &log};
    fs_exphandle old{};
    fs_set_exphandle(&old, &simple);

    // Disk 0 has no current block yet: nothing is freed, the old block shows as all ones.
    LogMask mask(kAllLevels);
    reset_bitmap_syncs();
    StdoutCapture out;
    EXPECT_EQ(fs_changeblock(0, 1, 5), 0);
    std::string text = out.stop();
    EXPECT_EQ(bitmap_syncs(), "1 1 0 0 0 0 0 0") << "old and new disk, once each";
    EXPECT_TRUE(contains(text, "change blk olddisk:[0 4294967295] => newdisk:[1 1] cb:5 ok\n"))
        << text;
    EXPECT_EQ(log.calls, (std::vector<std::string>{"simple", "simple"}));
    EXPECT_EQ(fs_getblockid(1), kBlock1);
    EXPECT_EQ(fs_isblockfull(1), 0);
    // Back from disk 1 to disk 0: disk 1's block is ended, disk 0 gets block 1.
    reset_bitmap_syncs();
    StdoutCapture out2;
    EXPECT_EQ(fs_changeblock(1, 0, 6), 0);
    text = out2.stop();
    EXPECT_EQ(bitmap_syncs(), "1 1 0 0 0 0 0 0") << "old and new disk, once each";
    EXPECT_TRUE(contains(text, "change blk olddisk:[1 1] => newdisk:[0 1] cb:6 ok\n")) << text;
    EXPECT_EQ(fs_isblockfull(1), 1);
    EXPECT_EQ(block_get_current(1), -1);
    // Both disks in group 0: all-full is 0 as soon as one of them has room, whatever disk is
    // given.
    EXPECT_EQ(fs_isalldiskfull(5, 16384), 0);
}

TEST_F(Stream, AllDisksFullAsksEveryDiskOfGroupZero) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask quiet(0, 0);
    const std::string part = data_partition(0);
    bring_up(0, true, [&] {
        for (uint32_t b = kBlock1; b <= kBlock3; b++) {
            ASSERT_TRUE(aging::fill_block(part.c_str(), b, 0, 2100 + b));
        }
    });
    EXPECT_EQ(do_fs_isdiskfull(0, 16384), 1);
    EXPECT_EQ(fs_isalldiskfull(0, 16384), 1) << "only the full disk is in group 0";
    bring_up(1, true);
    // The given disk is full, but disk 1 of group 0 has room.
    EXPECT_EQ(fs_isalldiskfull(0, 16384), 0);
    // Only group 0 counts.
    ASSERT_EQ(fs_removedisk(0, 1), 0);
    ASSERT_EQ(fs_adddisk(1, 1), 0);
    EXPECT_EQ(fs_isalldiskfull(0, 16384), 1);
    EXPECT_EQ(fs_isalldiskfull(1, 16384), 0) << "the given disk itself has room";
    ASSERT_EQ(fs_removedisk(1, 1), 0);
}

TEST_F(Stream, FailedAllocationStillCallsTheAfterCallback) {
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
    LogMask quiet(0, 0);
    const std::string part = data_partition(0);
    bring_up(0, true, [&] {
        for (uint32_t b = kBlock1; b <= kBlock3; b++) {
            ASSERT_TRUE(aging::fill_block(part.c_str(), b, 0, 2000 + b));
        }
    });
    ChangeLog log;
    fs_exphandle_ex ex{nullptr, nullptr, ex_before, ex_after, nullptr, &log};
    fs_set_exphandle_ex(&ex);
    const uint32_t block_map_before = aging::read_entry(part.c_str(), 0, 0);
    LogMask mask(kAllLevels);
    reset_bitmap_syncs();
    StdoutCapture out;
    EXPECT_EQ(fs_changeblock(0, 0, 9), 0);
    const std::string text = out.stop();
    EXPECT_EQ(bitmap_syncs(), "0 0 0 0 0 0 0 0") << "a failed change syncs nothing";
    EXPECT_TRUE(contains(text,
                         "change blk olddisk:[0 4294967295] => newdisk:[0 4294967295] cb:9 "
                         "alloc failed\n"))
        << text;
    ASSERT_EQ(log.calls.size(), 2u);
    EXPECT_EQ(log.calls[1], "after 0 0 -1 -1");
    EXPECT_EQ(aging::read_entry(part.c_str(), 0, 0), block_map_before);
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(do_fs_isdiskfull(0, 0), 1);
}

// ---- many streams while the block changes ----------------------------------------------------

TEST_F(Stream, SixtyFourStreamsWhileTheBlockChanges) {
    start(0);
    constexpr int kStreams = 64;
    constexpr uint32_t kWrites = 8;
    constexpr int kRetries = 10000;
    const struct tm base = make_tm(2024, 8, 1, 12, 0, 0);
    std::atomic<int> failures{0};
    std::atomic<bool> writing{true};
    std::vector<struct tm> starts(kStreams);
    std::vector<std::thread> threads;
    for (int s = 0; s < kStreams; s++) {
        time_t at = secs(base) + s;
        gmtime_r(&at, &starts[static_cast<size_t>(s)]);
    }
    std::atomic<int> written{0};
    // Two block changes while the streams write: block 1 to 2, then 2 to 3.
    std::thread changer([&] {
        for (int change = 1; change <= 2; change++) {
            while (writing.load() && written.load() < change * kStreams * 2) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            fs_changeblock(0, 0, 4);
        }
    });
    for (int s = 0; s < kStreams; s++) {
        threads.emplace_back([&, s] {
            Cluster buf;
            const int h = create(s, starts[static_cast<size_t>(s)], 0);
            if (h < 0) {
                failures++;
                return;
            }
            for (uint32_t n = 0; n < kWrites; n++) {
                fill_payload(buf.data(), 100 + static_cast<uint32_t>(s), n);
                kframe frames[RECSTORE_MAX_KFRAMES];
                const uint32_t count = frames_of(n, secs(starts[static_cast<size_t>(s)]), frames);
                int r = fs_write(h, buf.data(), kCluster, frames, count);
                // A write between the end of one block and the start of the next finds no
                // cluster: the recorder retries after the change.
                for (int retry = 0; r == -5 && retry < kRetries; retry++) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    r = fs_write(h, buf.data(), kCluster, frames, count);
                }
                if (r != static_cast<int>(kCluster)) failures++;
                written++;
            }
            fs_close(h, nullptr);
        });
    }
    for (std::thread &t : threads) t.join();
    writing = false;
    changer.join();
    EXPECT_EQ(failures.load(), 0);

    std::set<uint32_t> clusters;
    size_t total = 0;
    for (int s = 0; s < kStreams; s++) {
        const std::vector<Entry> entries = entries_of(0, s, starts[static_cast<size_t>(s)], 0);
        EXPECT_EQ(entries.size(), kWrites) << "stream " << s;
        for (const Entry &e : entries) {
            clusters.insert(e.cluster);
            total++;
        }
    }
    EXPECT_EQ(clusters.size(), total) << "a cluster was handed out twice";
    EXPECT_EQ(total, static_cast<size_t>(kStreams) * kWrites);

    // The zone counters agree with the maps on disk.
    uint32_t busy = 0;
    uint32_t free_count = 0;
    const uint32_t current = static_cast<uint32_t>(block_get_current(0));
    for (uint32_t b = kBlock1; b <= kBlock3; b++) {
        if (b == current) {
            busy += bitmap_busy_bits(&g_dz_ctx[0].cur_block->clusters);
            free_count += bitmap_free_bits(&g_dz_ctx[0].cur_block->clusters);
            continue;
        }
        dz_block *blk = block_load(0, b);
        ASSERT_NE(blk, nullptr);
        busy += bitmap_busy_bits(&blk->clusters);
        free_count += bitmap_free_bits(&blk->clusters);
        block_unload(blk);
    }
    EXPECT_EQ(static_cast<uint32_t>(datazone_busy_count(0)), busy);
    EXPECT_EQ(static_cast<uint32_t>(datazone_free_count(0)), free_count);
    EXPECT_EQ(busy, total);
}

}  // namespace
