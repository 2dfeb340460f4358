// SPDX-License-Identifier: MIT
// Recycling of the oldest recordings inside the disk rig, with two formatted 200 GiB disks brought
// up in the plug-in order: the earliest block over both disks (equal times, the time printed in
// the event log, no disk initialised), the blocks before a time and their limit, recycling for
// real by the daemon when every disk is full (the recordings of the freed block vanish from index
// tree, link tree and cache while recording goes on on the other disk), and the forced periodic
// deletion with the host's clock.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "formatted_disks.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr uint32_t kOldStored = 400000000u;  // a block time in units of 4 seconds
constexpr time_t kOldSeconds = 1600000000;   // the same time in seconds
constexpr uint32_t kInUse = aging::kBusy | recstore::kEntryErrTestBit;
constexpr uint64_t kBlockBytes = uint64_t{aging::kClustersPerBlock} * kCluster;
constexpr int kDay = 86400;
const char kLog[] = "/mnt/img/log.log";

// A block's state word, read under the disk's mutex as the daemon changes it under that mutex.
uint32_t block_word(int disk, uint32_t block) {
    pthread_mutex_lock(&g_disk[disk].lock);
    const uint32_t v = block_val(disk, block);
    pthread_mutex_unlock(&g_disk[disk].lock);
    return v;
}

// Free bytes of a disk's data zone as datazone_getinfo counts them (under the disk's mutex).
uint64_t free_bytes(int disk) {
    auto info = std::make_unique<fs_disk_info>();
    EXPECT_EQ(fs_getdiskinfo(disk, info.get()), 0);
    return info->dz_info.freesize;
}

int block_count(int disk) {
    auto info = std::make_unique<fs_disk_info>();
    EXPECT_EQ(fs_getdiskinfo(disk, info.get()), 0);
    return static_cast<int>(info->dz_info.block_count);
}

// A time in seconds as the event log prints it.
std::string log_time(time_t t) {
    struct tm tm;
    char buf[64] = "";
    localtime_r(&t, &tm);
    strftime(buf, sizeof buf, "%x %X", &tm);
    return buf;
}

uint32_t stored_of(time_t t) {
    return static_cast<uint32_t>(t) >> 2;
}

using recstore_test::occurrences;

// The host's clock, faked; every call is counted (the daemon reads it once per disk pass).
std::atomic<int> g_clock{0};
std::atomic<int> g_clock_calls{0};
time_t fake_clock(time_t *out) {
    const time_t now = g_clock.load();
    g_clock_calls++;
    if (out != nullptr) *out = now;
    return now;
}

// Waits until the daemon has started `passes` more disk passes.
bool wait_passes(int passes) {
    const int from = g_clock_calls.load();
    return wait_for([&] { return g_clock_calls.load() >= from + passes; });
}

class Recycle : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        // Set once, before any daemon runs, and restored after it stops.
        loud_ = std::make_unique<LogMask>(kAllLevels);
    }

    // rec_init and both disks up, each aged by its function while its data zone is stopped.
    void init(const std::function<void()> &age0, const std::function<void()> &age1) {
        ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, 0), 0);
        ASSERT_EQ(g_diskcount, static_cast<int>(g_disks.size()));
        bring_up(0, true, age0);
        bring_up(1, true, age1);
        inited_ = true;
        // The event log of this test only (it lives on a disk that every test brings up).
        std::ofstream(kLog, std::ios::trunc);
    }

    // The daemon, with overlap as given; waits for a current disk with a current block.
    void run_daemon(int overlap) {
        rec_setoverlap(overlap);
        rec_set_time_pfn(fake_clock);
        ASSERT_EQ(rec_bringup_deamon(), 0);
        daemon_up_ = true;
        ASSERT_TRUE(wait_for([] {
            return locked([] {
                const int d = current_disk();
                return d >= 0 && current_block(d) >= 0;
            });
        }));
    }

    void stop() {
        if (daemon_up_) {
            EXPECT_EQ(rec_shutdown_deamon(), 0);
        }
        daemon_up_ = false;
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        for (int d = RECSTORE_MAX_DISKS - 1; d >= 0; d--) {
            if (g_disk[d].devname[0] == '\0') continue;
            const std::string dev = g_disk[d].devname;
            fs_removedisk(0, d);
            fs_datazone_exit(d);
            fs_closedisk(d);
            fs_umount(dev.c_str());
        }
        if (inited_) rec_exit();
        inited_ = false;
    }

    void TearDown() override {
        stop();
        loud_.reset();
    }

    static int write_n(int h, unsigned char *buf, uint32_t s, uint32_t n, time_t base) {
        fill_payload(buf, s, n);
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = frames_of(n, base, frames);
        return rec_write(h, buf, static_cast<int>(kCluster), frames, static_cast<int>(count));
    }

    // Records `clusters` clusters of channel ch through the API; the disk it went to.
    int record(int ch, const struct tm &start, uint32_t clusters) {
        Cluster buf;
        const int h = rec_open(ch, &start, 0, 0, 0, 0, kWrite, 0x5);
        EXPECT_GE(h, 0) << "channel " << ch;
        if (h < 0) return -1;
        const int disk = g_recctx.streams[h].disk_id;
        for (uint32_t n = 0; n < clusters; n++) {
            EXPECT_EQ(write_n(h, buf.data(), static_cast<uint32_t>(ch), n, secs(start)),
                      static_cast<int>(kCluster))
                << "channel " << ch << " cluster " << n;
        }
        struct tm end = start;
        end.tm_min += 5;
        rec_close(h, &end);
        return disk;
    }

    std::unique_ptr<LogMask> loud_;
    bool daemon_up_ = false;
    bool inited_ = false;
};

// ---- the earliest block and the blocks before a time ------------------------------------------

// Both disks: block 1 full since kOldStored, block 2 full since kOldStored + 1; no current block.
class OldBlocks : public Recycle {
  protected:
    void SetUp() override {
        Recycle::SetUp();
        const std::string p0 = data_partition(0);
        const std::string p1 = data_partition(1);
        init(
            [&] {
                ASSERT_TRUE(aging::fill_block(p0.c_str(), kBlock1, 0, kOldStored));
                ASSERT_TRUE(aging::fill_block(p0.c_str(), kBlock2, 0, kOldStored + 1));
            },
            [&] {
                ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock1, 0, kOldStored));
                ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock2, 0, kOldStored + 1));
            });
    }
};

TEST_F(OldBlocks, EqualEarliestTimesOnTwoDisksFreeEither) {
    int disk = -1;
    int stored = 0;
    ASSERT_EQ(rec_earliest(&disk, &stored), static_cast<int>(kBlock1));
    EXPECT_TRUE(disk == 0 || disk == 1) << disk;
    EXPECT_EQ(static_cast<uint32_t>(stored), kOldStored);
    ASSERT_EQ(block_word(0, kBlock1) & kInUse, aging::kBusy);
    ASSERT_EQ(block_word(1, kBlock1) & kInUse, aging::kBusy);
    const uint64_t free0 = free_bytes(0);
    const uint64_t free1 = free_bytes(1);

    EXPECT_EQ(rec_overlap(), 0);
    const bool freed0 = (block_word(0, kBlock1) & kInUse) == 0;
    const bool freed1 = (block_word(1, kBlock1) & kInUse) == 0;
    EXPECT_NE(freed0, freed1) << "exactly one of the two blocks is freed";
    const int freed = freed0 ? 0 : 1;
    EXPECT_EQ(free_bytes(freed), (freed == 0 ? free0 : free1) + kBlockBytes);
    EXPECT_EQ(free_bytes(1 - freed), freed == 0 ? free1 : free0);
    EXPECT_EQ(block_word(1 - freed, kBlock2) & kInUse, aging::kBusy);
    EXPECT_EQ(block_word(freed, kBlock2) & kInUse, aging::kBusy);

    // The next earliest is the other disk's block 1, then the blocks 2.
    ASSERT_EQ(rec_earliest(&disk, &stored), static_cast<int>(kBlock1));
    EXPECT_EQ(disk, 1 - freed);
    EXPECT_EQ(static_cast<uint32_t>(stored), kOldStored);
}

TEST_F(OldBlocks, BlockTimesPrintAsSecondsInLocalTime) {
    int disk = -1;
    int stored = 0;
    ASSERT_EQ(rec_earliest(&disk, &stored), static_cast<int>(kBlock1));
    ASSERT_EQ(rec_overlap(), 0);
    const std::string log = slurp(kLog);
    const std::string when = log_time(kOldSeconds);
    EXPECT_TRUE(contains(log, "earliest block in disk:0 is:1 time:" + when + "\n")) << log;
    EXPECT_TRUE(contains(log, "earliest block in disk:1 is:1 time:" + when + "\n")) << log;
    const bool freed0 = (block_word(0, kBlock1) & kInUse) == 0;
    EXPECT_TRUE(contains(
        log, std::string("overlap disk:") + (freed0 ? "0" : "1") + " block:1 time:" + when + "\n"))
        << log;
}

TEST_F(OldBlocks, BlocksBeforeATimeNeverMoreThanMax) {
    const int now = static_cast<int>(time(nullptr));
    block_entry list[8];
    const block_entry sentinel{0xABCDu, 0xABCDu, 0xABCDu};
    for (block_entry &e : list) e = sentinel;
    EXPECT_EQ(rec_before(now, list, 8), 4);
    EXPECT_EQ(list[4].block_id, sentinel.block_id);
    int on_disk[2] = {0, 0};
    for (int i = 0; i < 4; i++) {
        ASSERT_LT(list[i].disk, 2u);
        on_disk[list[i].disk]++;
        EXPECT_TRUE(list[i].block_id == kBlock1 || list[i].block_id == kBlock2);
    }
    EXPECT_EQ(on_disk[0], 2);
    EXPECT_EQ(on_disk[1], 2);

    for (int max : {3, 2, 1}) {
        for (block_entry &e : list) e = sentinel;
        StdoutCapture out;
        EXPECT_EQ(rec_before(now, list, max), max);
        const std::string text = out.stop();
        EXPECT_EQ(list[max].block_id, sentinel.block_id) << "nothing past max, " << max;
        if (max <= 2) {
            EXPECT_TRUE(contains(text, "reach max blkcount:" + std::to_string(max) + " " +
                                           std::to_string(max) + "\n"))
                << text;
        }
    }
    for (block_entry &e : list) e = sentinel;
    {
        StdoutCapture out;
        EXPECT_EQ(rec_before(now, list, 0), 0);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "reach max blkcount:0 0\n")) << text;
        EXPECT_EQ(list[0].block_id, sentinel.block_id);
    }
    // Before every block: none, and each disk says so.
    {
        StdoutCapture out;
        EXPECT_EQ(rec_before(static_cast<int>(kOldSeconds) - 1, list, 8), 0);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "disk:0 fs_before failed count:0 8\n")) << text;
        EXPECT_TRUE(contains(text, "disk:1 fs_before failed count:0 8\n")) << text;
    }
    // Only the blocks 1 are before kOldSeconds + 4.
    EXPECT_EQ(rec_before(static_cast<int>(kOldSeconds) + 1, list, 8), 2);
    EXPECT_EQ(list[0].block_id, kBlock1);
    EXPECT_EQ(list[1].block_id, kBlock1);
    StdoutCapture out;
    EXPECT_EQ(rec_before(now, nullptr, 8), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "invalid param\n")) << text;
    // The log file names each block found with its time and value.
    const std::string log = slurp(kLog);
    EXPECT_TRUE(
        contains(log, " in disk:0 is:1 time:" + log_time(kOldSeconds) + " val:0x97d78400\n"))
        << log;
}

TEST_F(OldBlocks, MaxBlockCountIsTheSumOverGroupZero) {
    const int total = block_count(0) + block_count(1);
    EXPECT_GE(total, 4);
    EXPECT_EQ(do_rec_get_max_block_count(), total);
    ASSERT_EQ(fs_removedisk(0, 1), 0);
    EXPECT_EQ(do_rec_get_max_block_count(), block_count(0));
    ASSERT_EQ(fs_adddisk(0, 1), 0);
}

TEST_F(Recycle, NoDiskInitialised) {
    ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, 0), 0);
    inited_ = true;
    int disk = 7;
    int stored = 7;
    {
        // Group 0 is empty.
        StdoutCapture out;
        EXPECT_EQ(rec_earliest(&disk, &stored), -1);
        EXPECT_EQ(rec_overlap(), -1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "invalid block id\n")) << text;
    }
    EXPECT_EQ(disk, 7) << "nothing passed out";
    // Disk 0 in group 0, mounted and open but its data zone not initialised; block 1 aged.
    const std::string &dev = g_disks[0].node;
    ASSERT_EQ(fs_umount(dev.c_str()), 0);
    ASSERT_EQ(fs_chk(dev.c_str()), 0);
    ASSERT_EQ(fs_mount(dev.c_str()), 0);
    ASSERT_EQ(fs_opendisk(dev.c_str()), 0);
    const std::string part = data_partition(0);
    ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 0, kOldStored));
    ASSERT_EQ(fs_adddisk(0, 0), 0);
    StdoutCapture out;
    EXPECT_EQ(rec_earliest(&disk, &stored), -1);
    EXPECT_EQ(rec_overlap(), -1);
    const std::string text = out.stop();
    EXPECT_EQ(occurrences(text, "disk:0 is not inited\n"), 2u) << text;
    EXPECT_TRUE(contains(text, "invalid block id\n")) << text;
    EXPECT_EQ(aging::read_entry(part.c_str(), 0, kBlock1 - 1), aging::busy_entry(kOldStored))
        << "nothing freed";
    EXPECT_EQ(aging::read_entry(part.c_str(), kBlock1, 0), aging::busy_entry(kOldStored));
    // Nor does the age deletion find anything.
    EXPECT_EQ(do_rec_del_block_before(static_cast<int>(time(nullptr))), -1);
}

// ---- recycling by the daemon when every disk is full --------------------------------------------

TEST_F(Recycle, TheDaemonFreesTheEarliestBlockWhenEveryDiskIsFull) {
    // Every aged block is dated later than now, so the block that receives the recordings below
    // (stamped with the clock when it becomes current) is the earliest of all.
    const uint32_t later = stored_of(time(nullptr)) + 1000;
    constexpr uint32_t kRoom0 = 6;    // clusters left on disk 0 (its block 1)
    constexpr uint32_t kRoom1 = 400;  // clusters left on disk 1 (its block 3)
    const std::string p0 = data_partition(0);
    const std::string p1 = data_partition(1);
    init(
        [&] {
            ASSERT_TRUE(aging::fill_block(p0.c_str(), kBlock1, kRoom0, later));
            ASSERT_TRUE(aging::fill_block(p0.c_str(), kBlock2, 0, later + 2));
            ASSERT_TRUE(aging::fill_block(p0.c_str(), kBlock3, 0, later + 3));
        },
        [&] {
            ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock1, 0, later + 1));
            ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock2, 0, later + 2));
            ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock3, kRoom1, later + 3));
        });
    g_clock = 1700000000;
    // No recycling while the recordings are made.
    run_daemon(0);
    ASSERT_EQ(current_disk(), 0);
    ASSERT_EQ(locked([] { return current_block(0); }), static_cast<int>(kBlock1));

    // Three recordings fill disk 0's block 1.
    const struct tm starts[3] = {make_tm(2025, 3, 4, 10, 0, 1), make_tm(2025, 3, 4, 10, 0, 2),
                                 make_tm(2025, 3, 5, 11, 0, 3)};
    for (int i = 0; i < 3; i++) ASSERT_EQ(record(i + 1, starts[i], kRoom0 / 3), 0);
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(exists(index_name(0, i + 1, starts[i], 0)));
        ASSERT_TRUE(exists(link_name(0, kBlock1, i + 1, starts[i], 0)));
        ASSERT_EQ(tags_in(cache_file(0, i + 1, starts[i], 0)).size(), 1u);
    }
    // The daemon moves recording to disk 1; disk 0 keeps no current block.
    ASSERT_TRUE(wait_for(
        [] { return locked([] { return current_disk() == 1 && current_block(1) >= 0; }); }));
    EXPECT_EQ(locked([] { return current_block(0); }), -1);
    EXPECT_EQ(locked([] { return fs_isalldiskfull(-1, recstore::kRecFullRemain); }), 1);
    EXPECT_EQ(free_bytes(0), 0u);
    const uint32_t b1_seq = block_word(0, kBlock1) & aging::kValueMask;
    EXPECT_LT(b1_seq, later);

    // Recording goes on on disk 1 while recycling is switched on.
    Cluster buf;
    const struct tm live = make_tm(2025, 3, 6, 9, 0, 0);
    const int h = rec_open(9, &live, 0, 0, 0, 0, kWrite, 0x5);
    ASSERT_GE(h, 0);
    EXPECT_EQ(g_recctx.streams[h].disk_id, 1);
    uint32_t written = 0;
    auto write_one = [&] {
        EXPECT_EQ(write_n(h, buf.data(), 9, written, secs(live)), static_cast<int>(kCluster))
            << "cluster " << written;
        written++;
    };
    for (int i = 0; i < 5; i++) write_one();
    rec_setoverlap(1);
    const std::string gone = index_name(0, 1, starts[0], 0);
    for (int i = 0; i < 1000 && exists(gone) && written < kRoom1 - 20; i++) {
        write_one();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(wait_for([&] { return !exists(gone); })) << "recycled";
    for (int i = 0; i < 5; i++) write_one();
    recordinfo info;
    ASSERT_EQ(rec_stat(h, &info), 0);
    EXPECT_EQ(info.entry_count, written) << "every write went through";
    struct tm end = live;
    end.tm_min += 1;
    rec_close(h, &end);

    // Let the pass that freed the block finish.
    ASSERT_TRUE(wait_passes(2));
    // The recordings of the freed block are gone from index tree, link tree and cache.
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(exists(index_name(0, i + 1, starts[i], 0))) << i;
        EXPECT_FALSE(exists(link_name(0, kBlock1, i + 1, starts[i], 0))) << i;
        EXPECT_TRUE(tags_in(cache_file(0, i + 1, starts[i], 0)).empty()) << i;
    }
    char links[RECSTORE_PATH_LEN];
    mk_idx_linkpath(0, links, sizeof links, static_cast<int>(kBlock1));
    EXPECT_FALSE(exists(links));
    // The block is free again, the data zone counts a block more, nothing else was freed.
    EXPECT_EQ(block_word(0, kBlock1) & kInUse, 0u);
    EXPECT_EQ(free_bytes(0), kBlockBytes);
    EXPECT_EQ(block_word(0, kBlock2) & kInUse, aging::kBusy);
    EXPECT_EQ(block_word(0, kBlock3) & kInUse, aging::kBusy);
    EXPECT_EQ(block_word(1, kBlock1) & kInUse, aging::kBusy);
    EXPECT_EQ(block_word(1, kBlock2) & kInUse, aging::kBusy);
    EXPECT_EQ(locked([] { return fs_isalldiskfull(-1, recstore::kRecFullRemain); }), 0);
    // The recording of disk 1 is whole.
    EXPECT_EQ(entries_of(1, 9, live, 0).size(), written);
    const std::string log = slurp(kLog);
    EXPECT_TRUE(contains(log, "all disk full remain:16384\n")) << log;
    EXPECT_TRUE(contains(
        log, "overlap disk:0 block:1 time:" + log_time(static_cast<time_t>(b1_seq) * 4) + "\n"))
        << log;
    EXPECT_EQ(occurrences(log, "overlap disk:"), 1u) << "one block freed\n" << log;
}

// ---- the forced periodic deletion ---------------------------------------------------------------

TEST_F(Recycle, PeriodicDeletionOnlyWhenForcedWithAValidClock) {
    const time_t t = secs(make_tm(2025, 3, 5, 0, 0, 0));  // now minus the period
    const int period = 2 * kDay;
    const std::string p1 = data_partition(1);
    // Disk 1: block 1 taken before t, block 2 after it.
    init([] {},
         [&] {
             ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock1, 0, stored_of(t - kDay)));
             ASSERT_TRUE(aging::fill_block(p1.c_str(), kBlock2, 0, stored_of(t + 10 * kDay)));
         });
    g_clock = 1577808000;  // not a valid clock yet
    ASSERT_EQ(rec_set_period(period), 1);
    run_daemon(1);
    ASSERT_EQ(current_disk(), 0);

    struct Rec {
        int channel;
        struct tm start;
        bool old;
    };
    const Rec recs[] = {{1, make_tm(2025, 3, 1, 10, 0, 0), true},
                        {2, make_tm(2025, 3, 4, 23, 59, 59), true},
                        {3, make_tm(2025, 3, 5, 0, 0, 1), false},
                        {4, make_tm(2025, 3, 10, 8, 0, 0), false}};
    for (const Rec &r : recs) ASSERT_EQ(record(r.channel, r.start, 2), 0);
    for (const Rec &r : recs) ASSERT_TRUE(exists(index_name(0, r.channel, r.start, 0)));
    const uint64_t free1 = free_bytes(1);
    auto untouched = [&](const char *when) {
        for (const Rec &r : recs) {
            EXPECT_TRUE(exists(index_name(0, r.channel, r.start, 0))) << when << r.channel;
            EXPECT_EQ(tags_in(cache_file(0, r.channel, r.start, 0)).size(), 1u)
                << when << r.channel;
        }
        EXPECT_EQ(block_word(1, kBlock1) & kInUse, aging::kBusy) << when;
        EXPECT_EQ(free_bytes(1), free1) << when;
    };

    // A valid clock and a period, but no rec_force: nothing by itself.
    g_clock = static_cast<int>(t + period);
    ASSERT_TRUE(wait_passes(5));
    untouched("not forced: ");
    // Forced, but the clock is not set: the action waits and the flag stays.
    g_clock = 1577808000;
    rec_force(1);
    ASSERT_TRUE(wait_passes(5));
    EXPECT_EQ(__atomic_load_n(&g_recctx.force, __ATOMIC_SEQ_CST), 1);
    untouched("no valid clock: ");
    EXPECT_FALSE(contains(slurp(kLog), "force to execute period action")) << slurp(kLog);

    // With the clock valid the next pass runs it once.
    g_clock = static_cast<int>(t + period);
    ASSERT_TRUE(wait_for([] { return __atomic_load_n(&g_recctx.force, __ATOMIC_SEQ_CST) == 0; }));
    ASSERT_TRUE(wait_passes(2));
    for (const Rec &r : recs) {
        EXPECT_EQ(exists(index_name(0, r.channel, r.start, 0)), !r.old) << r.channel;
        EXPECT_EQ(tags_in(cache_file(0, r.channel, r.start, 0)).size(), r.old ? 0u : 1u)
            << r.channel;
    }
    // Disk 1's block taken before t is freed, the later one stays; the current block stays.
    EXPECT_EQ(block_word(1, kBlock1) & kInUse, 0u);
    EXPECT_EQ(block_word(1, kBlock2) & kInUse, aging::kBusy);
    EXPECT_EQ(free_bytes(1), free1 + kBlockBytes);
    EXPECT_EQ(locked([] { return current_block(0); }), static_cast<int>(kBlock1));
    EXPECT_EQ(block_word(0, kBlock1) & kInUse, aging::kBusy);
    const std::string log = slurp(kLog);
    EXPECT_EQ(occurrences(log, "force to execute period action " +
                                   std::to_string(static_cast<long>(t + period)) + " " +
                                   std::to_string(period) + "\n"),
              1u)
        << log;
    EXPECT_TRUE(contains(log, "del [1 1 " + std::to_string(stored_of(t - kDay)) + "]")) << log;
    // Once per rec_force: a later pass deletes nothing more.
    ASSERT_TRUE(wait_passes(3));
    for (const Rec &r : recs) {
        EXPECT_EQ(exists(index_name(0, r.channel, r.start, 0)), !r.old) << r.channel;
    }
    EXPECT_EQ(occurrences(slurp(kLog), "force to execute period action"), 1u);
}

}  // namespace
