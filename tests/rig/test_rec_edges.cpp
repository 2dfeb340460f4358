// SPDX-License-Identifier: MIT
// Edges of the recording API on two formatted rig disks: every disk full with recycling off (no
// current disk, no recycling by the daemon), a deletion period that acts only when forced, the
// read-only mode (writes and creations refused,
// reads byte for byte), seeking by position and by time with every whence, the tell functions,
// key-frame navigation across clusters without key frames, backward playback, and the preload
// buffer with and without direct I/O.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "formatted_disks.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr int kChannel = 12;
constexpr int kType = 0;
constexpr int kWhenceEnd = 2;
constexpr int kWhenceBad = 3;
constexpr uint32_t kBlocksPerDisk = 3;  // blocks of a 200 GiB disk's data zone

// Key frames per cluster of the navigation recording: clusters 1, 4 and 5 have none.
const std::vector<uint32_t> kNavCounts = {2, 0, 3, 1, 0, 0, 2, 1};

// Key frame i of cluster n: growing offsets inside the cluster, ten seconds per cluster.
kframe nav_frame(uint32_t n, uint32_t i, time_t base) {
    kframe k;
    k.frame_offset = i * 100000u + n + 1;
    k.frame_time = static_cast<uint32_t>(base + n * 10 + i);
    return k;
}

// Payload of cluster n when the lengths vary.
uint32_t varied_length(uint32_t n) {
    return kCluster - (n % 4) * 5000;
}

template <typename Fn>
std::string printed(Fn fn) {
    StdoutCapture out;
    fn();
    return out.stop();
}

// Daemon passes seen: the daemon reads the host's clock once per disk pass.
std::atomic<int> g_clock_reads{0};
time_t counting_clock(time_t *out) {
    g_clock_reads++;
    const time_t now = time(nullptr);
    if (out != nullptr) *out = now;
    return now;
}

class RecEdges : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        // Set before the daemon starts and restored after it stops: it reads them on every
        // message.
        mask_ = std::make_unique<LogMask>(kAllLevels);
        start_tm_ = make_tm(2025, 9, 1, 8, 0, 0);
        base_ = secs(start_tm_);
    }

    void TearDown() override { stop(); }

    // rec_init with `flags`, both disks up (aged by age0/age1 while their zones are stopped).
    void start(
        int flags, bool fresh, const std::function<void()> &age0 = [] {},
        const std::function<void()> &age1 = [] {}) {
        ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, flags), 0);
        inited_ = true;
        bring_up(0, fresh, age0);
        bring_up(1, fresh, age1);
    }

    void daemon() {
        ASSERT_EQ(rec_bringup_deamon(), 0);
        daemon_up_ = true;
    }

    // The daemon runs and has chosen a disk with a current block.
    void recording_ready() {
        daemon();
        ASSERT_TRUE(wait_for([] {
            rec_lockdisk();
            const int d = g_recctx.curdiskid;
            const bool ok = d >= 0 && fs_isblockfull(d) == 0;
            rec_unlockdisk();
            return ok;
        }));
    }

    void stop() {
        if (daemon_up_) {
            EXPECT_EQ(rec_shutdown_deamon(), 0);
        }
        daemon_up_ = false;
        if (!inited_) return;
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        take_down(1);
        take_down(0);
        rec_exit();
        inited_ = false;
    }

    // Records the navigation recording through the API; its index entries.
    std::vector<Entry> record_nav() {
        const int h = rec_open(kChannel, &start_tm_, kType, 0, 0, 0, kWrite, 0);
        EXPECT_GE(h, 0);
        if (h < 0) return {};
        const int disk = g_recctx.streams[h].disk_id;
        for (uint32_t n = 0; n < kNavCounts.size(); n++) {
            kframe frames[RECSTORE_MAX_KFRAMES] = {};
            for (uint32_t i = 0; i < kNavCounts[n]; i++) frames[i] = nav_frame(n, i, base_);
            fill_payload(wbuf_.data(), kChannel, n);
            EXPECT_EQ(rec_write(h, wbuf_.data(), static_cast<int>(length_of(n)), frames,
                                static_cast<int>(kNavCounts[n])),
                      static_cast<int>(length_of(n)));
        }
        struct tm end;
        const time_t last = base_ + 100;
        gmtime_r(&last, &end);
        rec_close(h, &end);
        return entries_of(disk, kChannel, start_tm_, kType);
    }

    int open_reader() { return rec_open(kChannel, &start_tm_, kType, 0, 0, 0, 0, 0); }

    // rec_read / rec_read_r returned cluster n in full.
    void expect_cluster(uint32_t n, int result, uint32_t length, uint32_t count,
                        const kframe *frames) {
        EXPECT_EQ(result, static_cast<int>(length_of(n))) << n;
        EXPECT_EQ(length, length_of(n)) << n;
        ASSERT_EQ(count, kNavCounts[n]) << n;
        for (uint32_t i = 0; i < count; i++) {
            const kframe k = nav_frame(n, i, base_);
            EXPECT_EQ(frames[i].frame_offset, k.frame_offset) << n << "/" << i;
            EXPECT_EQ(frames[i].frame_time, k.frame_time) << n << "/" << i;
        }
        expect_payload(n, length_of(n));
    }

    void expect_payload(uint32_t n, uint32_t length) {
        fill_payload(want_.data(), kChannel, n);
        EXPECT_EQ(memcmp(rbuf_.data(), want_.data(), length), 0) << "payload of cluster " << n;
    }

    // A key-frame call returned cluster n with key frame i's offset.
    void expect_kframe(int result, uint32_t n, uint32_t i, uint32_t offset) {
        EXPECT_EQ(result, static_cast<int>(length_of(n))) << n << "/" << i;
        EXPECT_EQ(offset, nav_frame(n, i, base_).frame_offset) << n << "/" << i;
        expect_payload(n, length_of(n));
    }

    int64_t at(uint32_t cluster) const { return static_cast<int64_t>(cluster) * kCluster; }

    // Payload length of cluster n: whole clusters for key-frame navigation, whose cluster steps
    // count 524288 payload bytes, varied lengths otherwise.
    uint32_t length_of(uint32_t n) const { return whole_ ? kCluster : varied_length(n); }
    bool whole_ = false;

    std::unique_ptr<LogMask> mask_;
    bool inited_ = false;
    bool daemon_up_ = false;
    struct tm start_tm_;
    time_t base_ = 0;
    Cluster wbuf_;
    Cluster rbuf_;
    Cluster want_;
};

// ---- every disk full ---------------------------------------------------------------------

TEST_F(RecEdges, AllDisksFullWithoutRecyclingHasNoCurrentDisk) {
    auto fill = [](int disk, uint32_t seq) {
        const std::string part = data_partition(disk);
        for (uint32_t b = 1; b <= kBlocksPerDisk; b++) {
            ASSERT_TRUE(aging::fill_block(part.c_str(), b, 0, seq + b));
        }
    };
    start(
        0, true, [&] { fill(0, 1000); }, [&] { fill(1, 2000); });
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(fs_isdiskfull(1), 1);
    EXPECT_EQ(rec_setoverlap(0), 0);
    rec_set_time_pfn(counting_clock);
    g_clock_reads = 0;
    daemon();
    // Three disk passes: none chooses a disk, none recycles.
    ASSERT_TRUE(wait_for([] { return g_clock_reads.load() >= 3; }));
    ASSERT_EQ(rec_lockdisk(), 0);
    std::string text = printed([] { EXPECT_EQ(rec_diskcurrent(), -1); });
    EXPECT_TRUE(contains(text, "all is full\n")) << text;
    text = printed([] { EXPECT_EQ(rec_changedisk(0), -1); });
    EXPECT_TRUE(contains(text, "current diskerr\n")) << text;
    EXPECT_EQ(g_recctx.curdiskid, -1);
    ASSERT_EQ(rec_unlockdisk(), 0);
    text = printed([this] { EXPECT_EQ(rec_open(1, &start_tm_, 0, 0, 0, 0, kWrite, 0), -1); });
    EXPECT_TRUE(contains(text, "invalid cur disk id:-1\n")) << text;
    EXPECT_FALSE(exists(index_name(0, 1, start_tm_, 0)));
    EXPECT_FALSE(exists(index_name(1, 1, start_tm_, 0)));
    // Nothing was recycled: both disks are still full and no recycling was logged.
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(fs_isdiskfull(1), 1);
    const std::string log = slurp("/mnt/img/log.log");
    EXPECT_FALSE(contains(log, "all disk full remain:")) << log;
}

// ---- the periodic deletion ---------------------------------------------------------------

TEST_F(RecEdges, PeriodWithoutForceDeletesNothing) {
    start(0, true);
    rec_set_time_pfn(counting_clock);
    recording_ready();
    ASSERT_EQ(record_nav().size(), kNavCounts.size());
    const std::string name = index_name(0, kChannel, start_tm_, kType);
    ASSERT_TRUE(exists(name));
    // The recording is more than an hour older than the clock; the period alone deletes nothing.
    ASSERT_EQ(rec_set_period(3601), 1);
    const int seen = g_clock_reads.load();
    ASSERT_TRUE(wait_for([seen] { return g_clock_reads.load() >= seen + 3; }));
    EXPECT_TRUE(exists(name));
    const int h = open_reader();
    EXPECT_GE(h, 0);
    rec_close(h, nullptr);
    // Forced once, the next pass deletes it (and clears the flag).
    rec_force(1);
    ASSERT_TRUE(wait_for([] { return __atomic_load_n(&g_recctx.force, __ATOMIC_SEQ_CST) == 0; }));
    const int forced = g_clock_reads.load();
    ASSERT_TRUE(wait_for([forced] { return g_clock_reads.load() >= forced + 1; }));
    EXPECT_FALSE(exists(name));
}

// ---- read-only mode ------------------------------------------------------------------------

TEST_F(RecEdges, ReadOnlyRefusesWritesAndReadsEveryCluster) {
    start(0, true);
    recording_ready();
    ASSERT_EQ(record_nav().size(), kNavCounts.size());
    stop();

    start(kReadOnly, false);
    daemon();
    EXPECT_EQ(fs_is_readonly(), 1);
    std::string text = printed(
        [this] { EXPECT_EQ(rec_open(kChannel + 1, &start_tm_, kType, 0, 0, 0, kWrite, 0), -1); });
    EXPECT_TRUE(contains(text, "invalid cur disk id:-1\n")) << text;
    EXPECT_FALSE(exists(index_name(0, kChannel + 1, start_tm_, kType)));
    const int h = open_reader();
    ASSERT_GE(h, 0);
    EXPECT_EQ(g_recctx.streams[h].disk_id, 0);
    // A write or a mode change through a reader's handle is refused by the stream layer.
    text = printed([&] {
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        EXPECT_LT(rec_write(h, wbuf_.data(), static_cast<int>(kCluster), frames, 1), 0);
        EXPECT_EQ(rec_chmod(h, 1), -1);
        EXPECT_EQ(fs_write(g_recctx.streams[h].handle, wbuf_.data(), kCluster, frames, 1), -1);
    });
    EXPECT_TRUE(contains(text, "fs_chmod readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_write readonly\n")) << text;
    recordinfo info;
    ASSERT_EQ(rec_stat(h, &info), 0);
    EXPECT_EQ(info.entry_count, kNavCounts.size());
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < kNavCounts.size(); n++) {
        const int r = rec_read(h, rbuf_.data(), &length, frames, &count);
        expect_cluster(n, r, length, count, frames);
    }
    EXPECT_EQ(rec_read(h, rbuf_.data(), &length, frames, &count), 0);
    rec_close(h, nullptr);
    EXPECT_EQ(entries_of(0, kChannel, start_tm_, kType).size(), kNavCounts.size());
}

// ---- reading, seeking and key frames on one recording ----------------------------------------

class RecPlayback : public RecEdges {
  protected:
    void SetUp() override {
        RecEdges::SetUp();
        start(mode(), true);
        recording_ready();
        entries_ = record_nav();
        ASSERT_EQ(entries_.size(), kNavCounts.size());
        h_ = open_reader();
        ASSERT_GE(h_, 0);
    }
    virtual int mode() const { return 0; }

    std::vector<Entry> entries_;
    int h_ = -1;
    uint32_t offset_ = 0;
};

class RecKeyFrames : public RecPlayback {
  protected:
    void SetUp() override {
        whole_ = true;
        RecPlayback::SetUp();
    }
};

class RecPlaybackDirect : public RecPlayback {
  protected:
    int mode() const override { return kDirectIo; }
};

TEST_F(RecPlayback, ForwardThenBackward) {
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < kNavCounts.size(); n++) {
        const int r = rec_read(h_, rbuf_.data(), &length, frames, &count);
        expect_cluster(n, r, length, count, frames);
    }
    EXPECT_EQ(rec_read(h_, rbuf_.data(), &length, frames, &count), 0);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(kNavCounts.size()));
    for (uint32_t n = kNavCounts.size(); n-- > 0;) {
        const int r = rec_read_r(h_, rbuf_.data(), &length, frames, &count);
        expect_cluster(n, r, length, count, frames);
        EXPECT_EQ(rec_ltell(h_, nullptr), at(n));
    }
    // Nothing before the first entry: an index error, the position stays at the start.
    const std::string text =
        printed([&] { EXPECT_EQ(rec_read_r(h_, rbuf_.data(), &length, frames, &count), -1); });
    EXPECT_TRUE(contains(text, "index read err")) << text;
    EXPECT_EQ(rec_ltell(h_, nullptr), 0);
    const int r = rec_read(h_, rbuf_.data(), &length, frames, &count);
    expect_cluster(0, r, length, count, frames);
}

TEST_F(RecPlayback, SeekByPositionWithEveryWhence) {
    uint32_t off = 99;
    EXPECT_EQ(rec_ltell(h_, &off), 0);
    EXPECT_EQ(off, 0u);
    // From the start: payload bytes of the entries' real lengths. Cluster 2 at byte 5.
    const int64_t into2 = static_cast<int64_t>(length_of(0)) + length_of(1) + 5;
    EXPECT_EQ(rec_lseek(h_, into2, SEEK_SET), at(2));
    EXPECT_EQ(rec_ltell(h_, &off), at(2));
    EXPECT_EQ(off, 5u);
    // The sum of the first three lengths is the start of cluster 3.
    const int64_t to3 = static_cast<int64_t>(length_of(0)) + length_of(1) + length_of(2);
    EXPECT_EQ(rec_lseek(h_, to3, SEEK_SET), at(3));
    EXPECT_EQ(rec_ltell(h_, &off), at(3));
    EXPECT_EQ(off, 0u);
    // From the current entry, forward and backward.
    const int64_t two = static_cast<int64_t>(length_of(3)) + length_of(4);
    EXPECT_EQ(rec_lseek(h_, two, SEEK_CUR), at(5));
    const int64_t back = static_cast<int64_t>(length_of(4)) + length_of(3) + length_of(2);
    EXPECT_EQ(rec_lseek(h_, -back, SEEK_CUR), at(2));
    EXPECT_EQ(rec_ltell(h_, &off), at(2));
    EXPECT_EQ(off, 0u);
    // From the end: refused. A whence of 3 or more: refused with the whence.
    std::string text = printed([&] { EXPECT_EQ(rec_lseek(h_, 0, kWhenceEnd), -1); });
    EXPECT_TRUE(contains(text, "had not implement")) << text;
    text = printed([&] { EXPECT_EQ(rec_lseek(h_, 0, kWhenceBad), -1); });
    EXPECT_TRUE(contains(text, "invalid mod:3")) << text;
    // A negative offset from the start is refused.
    EXPECT_EQ(rec_lseek(h_, -1, SEEK_SET), -1);
    // After a refusal the next read is still cluster 2.
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    const int r = rec_read(h_, rbuf_.data(), &length, frames, &count);
    expect_cluster(2, r, length, count, frames);
}

TEST_F(RecPlayback, SeekByTimeWithEveryWhenceAndTellTheTime) {
    int32_t seq = -1;
    // Absolute: cluster 6's second key frame.
    EXPECT_EQ(rec_tseek(h_, static_cast<int32_t>(base_ + 61), SEEK_SET, &seq), base_ + 61);
    EXPECT_EQ(seq, 1);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(6));
    struct tm when;
    memset(&when, 0, sizeof when);
    EXPECT_EQ(rec_ttell(h_, &when), base_ + 61);
    EXPECT_EQ(secs(when), base_ + 61);
    // Forward from the current entry: ten seconds after its first key frame is cluster 7's.
    EXPECT_EQ(rec_tseek(h_, 10, SEEK_CUR, &seq), base_ + 70);
    EXPECT_EQ(seq, 0);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(7));
    EXPECT_EQ(rec_ttell(h_, nullptr), base_ + 70);
    // Backward: the last key frame at or before (first key frame + 1 - 15 s), over clusters 5 and
    // 4 without key frames, is cluster 3's.
    EXPECT_EQ(rec_tseek(h_, -15, SEEK_CUR, &seq), base_ + 30);
    EXPECT_EQ(seq, 0);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(3));
    // From the end: a positive time is refused silently, zero or less with the message.
    std::string text = printed([&] { EXPECT_EQ(rec_tseek(h_, 5, kWhenceEnd, &seq), -1); });
    EXPECT_FALSE(contains(text, "had not implement")) << text;
    text = printed([&] { EXPECT_EQ(rec_tseek(h_, 0, kWhenceEnd, &seq), -1); });
    EXPECT_TRUE(contains(text, "had not implement\n")) << text;
    text = printed([&] { EXPECT_EQ(rec_tseek(h_, 0, kWhenceBad, &seq), -1); });
    EXPECT_TRUE(contains(text, "invalid mod:3\n")) << text;
    // Outside the recording: refused, the position stays.
    text = printed([&] {
        EXPECT_EQ(rec_tseek(h_, static_cast<int32_t>(base_ - 1), SEEK_SET, &seq), -1);
        EXPECT_EQ(rec_tseek(h_, static_cast<int32_t>(base_ + 101), SEEK_SET, &seq), -1);
    });
    EXPECT_TRUE(contains(text, "is less than start time")) << text;
    EXPECT_EQ(rec_ltell(h_, nullptr), at(3));
    // After the last key frame but before the end: the end time.
    EXPECT_EQ(rec_tseek(h_, static_cast<int32_t>(base_ + 90), SEEK_SET, &seq), base_ + 100);
    // A null output is refused by the API.
    text = printed([&] { EXPECT_EQ(rec_tseek(h_, 0, SEEK_SET, nullptr), -1); });
    EXPECT_TRUE(contains(text, "NULL ptr\n")) << text;
}

TEST_F(RecKeyFrames, NextAndPreviousSkipClustersWithoutKeyFrames) {
    // Next on a fresh stream steps over cluster 0, skips clusters 1, 4 and 5, and walks every
    // key frame of a cluster in order before moving on.
    const std::vector<std::pair<uint32_t, uint32_t>> want = {{2, 0}, {2, 1}, {2, 2}, {3, 0},
                                                             {6, 0}, {6, 1}, {7, 0}};
    int r = 0;
    for (const auto &[n, i] : want) {
        r = rec_getnextkframe(h_, rbuf_.data(), &offset_);
        expect_kframe(r, n, i, offset_);
    }
    std::string text =
        printed([&] { EXPECT_EQ(rec_getnextkframe(h_, rbuf_.data(), &offset_), 0); });
    EXPECT_TRUE(contains(text, "end of file")) << text;
    EXPECT_EQ(rec_ltell(h_, nullptr), at(kNavCounts.size()));
    // Backward: the first key frame of each earlier cluster that has key frames.
    for (uint32_t n : {7u, 6u, 3u, 2u, 0u}) {
        r = rec_getprekframe(h_, rbuf_.data(), &offset_);
        expect_kframe(r, n, 0, offset_);
    }
    text = printed([&] { EXPECT_EQ(rec_getprekframe(h_, rbuf_.data(), &offset_), -1); });
    EXPECT_TRUE(contains(text, "seek err fd :")) << text;
    EXPECT_EQ(rec_ltell(h_, nullptr), 0);
}

TEST_F(RecKeyFrames, CurrentKeepsThePositionAndNextGoesOnFromIt) {
    // Current on a fresh stream: cluster 0's first key frame; the position stays.
    int r = rec_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 0, 0, offset_);
    EXPECT_EQ(rec_ltell(h_, nullptr), 0);
    // The context it took is still valid: next walks cluster 0's key frames, then cluster 2's
    // (cluster 1 has none).
    const std::vector<std::pair<uint32_t, uint32_t>> want = {{0, 0}, {0, 1}, {2, 0}};
    for (const auto &[n, i] : want) {
        r = rec_getnextkframe(h_, rbuf_.data(), &offset_);
        expect_kframe(r, n, i, offset_);
    }
    // Current from cluster 4 (none there nor in 5): cluster 6's, and the position back at 4.
    ASSERT_EQ(rec_lseek(h_, at(4), SEEK_SET), at(4));
    r = rec_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 6, 0, offset_);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(4));
    // Previous from cluster 4 after a seek (stale context): one cluster back is cluster 3.
    r = rec_getprekframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 3, 0, offset_);
    EXPECT_EQ(rec_ltell(h_, nullptr), at(3));
    // At the end of the recording: 0.
    ASSERT_EQ(rec_lseek(h_, at(kNavCounts.size()), SEEK_SET), at(kNavCounts.size()));
    EXPECT_EQ(rec_getcurkframe(h_, rbuf_.data(), &offset_), 0);
}

TEST_F(RecPlayback, PreloadNeedsDirectIo) {
    int on = 1;
    const std::string text = printed([&] { EXPECT_EQ(rec_set_preload(h_, &on), -1); });
    EXPECT_TRUE(
        contains(text, "you must specific direct io in rec_init before you want use preload\n"))
        << text;
    EXPECT_EQ(fs_is_preload(g_recctx.streams[h_].handle), 0);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < 2; n++) {
        const int r = rec_read(h_, rbuf_.data(), &length, frames, &count);
        expect_cluster(n, r, length, count, frames);
    }
}

// Whether the output holds a preload buffer's load of this cluster ("load cacheid:C,
// clusterid:N", as the disk layer prints it).
bool loads_cluster(const std::string &text, uint32_t cluster) {
    const std::string key = "load cacheid:";
    const std::string id = ", clusterid:" + std::to_string(cluster);
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        const size_t comma = text.find(", clusterid:", at);
        if (comma == std::string::npos) return false;
        const size_t end = comma + id.size();
        if (text.compare(comma, id.size(), id) == 0 &&
            (end == text.size() || !isdigit(static_cast<unsigned char>(text[end])))) {
            return true;
        }
    }
    return false;
}

TEST_F(RecPlaybackDirect, PreloadedClusterIsReadFromTheBuffer) {
    // The daemon's own preload step would race the one below: it skips a stream another thread
    // is preloading, and prints its load into the captured output. This test preloads by hand.
    ASSERT_EQ(rec_shutdown_deamon(), 0);
    daemon_up_ = false;
    int on = 1;
    ASSERT_EQ(rec_set_preload(h_, &on), 0);
    const int stream = g_recctx.streams[h_].handle;
    EXPECT_EQ(fs_is_preload(stream), 1);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < kNavCounts.size(); n++) {
        // The daemon preloads between its passes; here the test's own step does it.
        do_rec_preload();
        char use[64];
        snprintf(use, sizeof use, "use preload cache clusterid:%u len:%u", entries_[n].cluster,
                 length_of(n));
        int r = 0;
        const std::string text =
            printed([&] { r = rec_read(h_, rbuf_.data(), &length, frames, &count); });
        expect_cluster(n, r, length, count, frames);
        if (n > 0) {
            EXPECT_TRUE(contains(text, use)) << n << ": " << text;
            // The read does not load its own cluster from the disk.
            EXPECT_FALSE(loads_cluster(text, entries_[n].cluster)) << n << ": " << text;
        }
    }
    EXPECT_EQ(rec_read(h_, rbuf_.data(), &length, frames, &count), 0);
    EXPECT_EQ(rec_set_preload(h_, nullptr), 0);
    EXPECT_EQ(fs_is_preload(stream), 0);
    // Without the buffer the reads go to the disk again, with the same bytes.
    ASSERT_EQ(rec_lseek(h_, 0, SEEK_SET), 0);
    const int r = rec_read(h_, rbuf_.data(), &length, frames, &count);
    expect_cluster(0, r, length, count, frames);
}

}  // namespace
