// SPDX-License-Identifier: MIT
// Reading recordings back on a real disk inside the rig: a recording written through fs_write
// with a deterministic payload and its key frames is read forward and backward cluster by
// cluster (every payload byte, length and key-frame table checked), through the preload buffer
// with direct I/O, by key frame (current, next, previous, clusters without key frames skipped)
// and by position and time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kChannel = 5;
constexpr int kType = 0;
constexpr time_t kEndAfter = 100;  // seconds from the start to the end given at close

// Key frames per cluster of the navigation recording: clusters 1, 4 and 5 have none.
const std::vector<uint32_t> kNavCounts = {2, 0, 3, 1, 0, 0, 2, 1};

struct Entry {
    uint32_t cluster = 0;
    uint32_t length = 0;
    uint32_t count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
};

// Key frame i of cluster n: growing offsets inside the cluster, ten seconds per cluster.
kframe nav_frame(uint32_t n, uint32_t i, time_t base) {
    kframe k;
    k.frame_offset = i * 100000u + n + 1;
    k.frame_time = static_cast<uint32_t>(base + n * 10 + i);
    return k;
}

template <typename Fn>
std::string printed(Fn fn) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fn();
    return out.stop();
}

class Read : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    // Starts the layer without the cache, brings disk 0 up fresh and makes block 1 current.
    void start(int flags) {
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags | kNoCache), 0);
        bring_up(0, true);
        ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
    }

    // Writes a recording of counts.size() clusters: cluster n holds payload (kChannel, n),
    // lengths[n] payload bytes and counts[n] key frames from nav_frame. Returns the entries.
    std::vector<Entry> record(const struct tm &start_tm, const std::vector<uint32_t> &counts,
                              const std::vector<uint32_t> &lengths) {
        std::vector<Entry> entries;
        rec_param p = param_of(kChannel, start_tm, kType);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr);
        EXPECT_GE(h, 0);
        if (h < 0) return entries;
        const time_t base = secs(start_tm);
        for (uint32_t n = 0; n < counts.size(); n++) {
            Entry e;
            e.cluster = kFirstData + n;  // a fresh block hands clusters out in order
            e.length = lengths[n];
            e.count = counts[n];
            for (uint32_t i = 0; i < e.count; i++) e.frames[i] = nav_frame(n, i, base);
            fill_payload(wbuf_.data(), kChannel, n);
            EXPECT_EQ(fs_write(h, wbuf_.data(), e.length, e.frames, e.count),
                      static_cast<int>(e.length));
            entries.push_back(e);
        }
        struct tm end_tm;
        const time_t end = base + kEndAfter;
        gmtime_r(&end, &end_tm);
        fs_close(h, &end_tm);
        return entries;
    }

    int open_reader(const struct tm &start_tm) {
        rec_param p = param_of(kChannel, start_tm, kType);
        return fs_open(0, &p, 0, 0, 0, nullptr);
    }

    // The read result matches entry e of the recording: length, key-frame table, payload.
    void expect_entry(const Entry &e, uint32_t n, int result, uint32_t length, uint32_t count,
                      const kframe *frames, const unsigned char *payload) {
        EXPECT_EQ(result, static_cast<int>(e.length)) << n;
        EXPECT_EQ(length, e.length) << n;
        ASSERT_EQ(count, e.count) << n;
        EXPECT_EQ(memcmp(frames, e.frames, count * sizeof(kframe)), 0) << n;
        expect_payload(n, payload, e.length);
    }

    void expect_payload(uint32_t n, const unsigned char *payload, uint32_t length) {
        fill_payload(expected_.data(), kChannel, n);
        EXPECT_EQ(memcmp(payload, expected_.data(), length), 0) << "payload of cluster " << n;
    }

    Cluster wbuf_;
    Cluster rbuf_;
    Cluster expected_;
    std::unique_ptr<LogMask> quiet_;
};

std::vector<uint32_t> frame_pattern(uint32_t clusters) {
    std::vector<uint32_t> counts;
    for (uint32_t n = 0; n < clusters; n++) counts.push_back(1 + n % 3);
    return counts;
}

std::vector<uint32_t> varied_lengths(uint32_t clusters) {
    std::vector<uint32_t> lengths;
    for (uint32_t n = 0; n < clusters; n++) lengths.push_back(kCluster - (n % 5) * 3333);
    return lengths;
}

std::vector<uint32_t> whole_clusters(size_t clusters) {
    return std::vector<uint32_t>(clusters, kCluster);
}

// ---- reading forward and backward ----------------------------------------------------------

TEST_F(Read, ReadsEveryClusterForwardThenBackward) {
    start(0);
    const struct tm start_tm = make_tm(2024, 6, 1, 10, 0, 0);
    constexpr uint32_t kClusters = 12;
    const std::vector<Entry> entries =
        record(start_tm, frame_pattern(kClusters), varied_lengths(kClusters));
    ASSERT_EQ(entries.size(), kClusters);
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < kClusters; n++) {
        const int r = fs_read(h, rbuf_.data(), &length, frames, &count);
        expect_entry(entries[n], n, r, length, count, frames, rbuf_.data());
        const int32_t next = n + 1 < kClusters ? static_cast<int32_t>(entries[n + 1].cluster) : -1;
        EXPECT_EQ(g_file_ctx[h].preload_cluster, next) << n;
    }
    std::string text =
        printed([&] { EXPECT_EQ(fs_read(h, rbuf_.data(), &length, frames, &count), 0); });
    EXPECT_TRUE(contains(text, "index_read end of file")) << text;
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(fs_ltell(h, nullptr), static_cast<int64_t>(kClusters) * kCluster);

    for (uint32_t n = kClusters; n-- > 0;) {
        const int r = fs_read_r(h, rbuf_.data(), &length, frames, &count);
        expect_entry(entries[n], n, r, length, count, frames, rbuf_.data());
        EXPECT_EQ(fs_ltell(h, nullptr), static_cast<int64_t>(n) * kCluster) << n;
    }
    // At the first entry there is nothing before: an index error, and the position stays.
    text = printed([&] { EXPECT_EQ(fs_read_r(h, rbuf_.data(), &length, frames, &count), -1); });
    EXPECT_TRUE(contains(text, "index read err")) << text;
    EXPECT_EQ(fs_ltell(h, nullptr), 0);
    const int r = fs_read(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[0], 0, r, length, count, frames, rbuf_.data());
    fs_close(h, nullptr);
}

TEST_F(Read, RefusesNullOutputsOnAnOpenStream) {
    start(0);
    const struct tm start_tm = make_tm(2024, 6, 1, 11, 0, 0);
    record(start_tm, {1}, {kCluster});
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    uint32_t length = 0, count = 0, offset = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    unsigned char *b = rbuf_.data();
    const std::string text = printed([&] {
        EXPECT_EQ(fs_read(h, nullptr, &length, frames, &count), -1);
        EXPECT_EQ(fs_read(h, b, nullptr, frames, &count), -1);
        EXPECT_EQ(fs_read(h, b, &length, nullptr, &count), -1);
        EXPECT_EQ(fs_read(h, b, &length, frames, nullptr), -1);
        EXPECT_EQ(fs_read_r(h, nullptr, &length, frames, &count), -1);
        EXPECT_EQ(fs_getcurkframe(h, nullptr, &offset), -1);
        EXPECT_EQ(fs_getnextkframe(h, b, nullptr), -1);
        EXPECT_EQ(fs_getprekframe(h, nullptr, nullptr), -1);
        EXPECT_EQ(fs_tseek(h, 0, SEEK_SET, nullptr), -1);
    });
    size_t seen = 0;
    for (size_t at = text.find("invalid param"); at != std::string::npos;
         at = text.find("invalid param", at + 1))
        seen++;
    EXPECT_EQ(seen, 9u) << text;
    // Nothing moved: the first cluster is still the next one.
    EXPECT_EQ(fs_ltell(h, nullptr), 0);
    EXPECT_EQ(fs_read(h, b, &length, frames, &count), static_cast<int>(kCluster));
    fs_close(h, nullptr);
}

// An entry of a damaged index file that names more payload than a cluster or more key frames
// than a table is refused rather than copied.
TEST_F(Read, RefusesDamagedEntries) {
    start(0);
    const struct tm start_tm = make_tm(2024, 6, 1, 11, 30, 0);
    const std::vector<Entry> entries = record(start_tm, {1, 2, 1}, whole_clusters(3));
    ASSERT_EQ(entries.size(), 3u);
    {
        // Entry 0 claims 1 MiB of payload, entry 1 claims 25 key frames.
        const std::string name = index_name(0, kChannel, start_tm, kType);
        const int fd = open(name.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        const off_t first = st.st_size - 3 * index_size();
        const uint32_t too_long = 2 * kCluster;
        const uint32_t too_many = RECSTORE_MAX_KFRAMES + 1;
        EXPECT_EQ(pwrite(fd, &too_long, 4, first + 4), 4);
        EXPECT_EQ(pwrite(fd, &too_many, 4, first + index_size() + 8), 4);
        close(fd);
    }
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    uint32_t length = 0, count = 0, offset = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    std::string text =
        printed([&] { EXPECT_EQ(fs_read(h, rbuf_.data(), &length, frames, &count), -1); });
    EXPECT_TRUE(contains(text, "index entry out of range: length:1048576 frames:1")) << text;
    text = printed([&] { EXPECT_EQ(fs_read(h, rbuf_.data(), &length, frames, &count), -1); });
    EXPECT_TRUE(contains(text, "index entry out of range: length:524288 frames:25")) << text;
    const int r = fs_read(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[2], 2, r, length, count, frames, rbuf_.data());
    // The key-frame walk stops at a damaged entry too: one cluster step from entry 0 stays
    // inside its claimed megabyte, so entry 0 is met again; from entry 1 on, entry 1 is met.
    ASSERT_EQ(fs_lseek(h, 0, SEEK_SET, nullptr), 0);
    text = printed([&] { EXPECT_EQ(fs_getnextkframe(h, rbuf_.data(), &offset), -1); });
    EXPECT_TRUE(contains(text, "index entry out of range: length:1048576 frames:1")) << text;
    ASSERT_EQ(fs_lseek(h, 2 * static_cast<int64_t>(kCluster), SEEK_SET, nullptr), kCluster);
    text = printed([&] { EXPECT_EQ(fs_getcurkframe(h, rbuf_.data(), &offset), -1); });
    EXPECT_TRUE(contains(text, "index entry out of range: length:524288 frames:25")) << text;
    fs_close(h, nullptr);
}

// An entry of a damaged index file that names a cluster outside the disk's data area (one of
// the map clusters before it, one past its end, all ones) is refused by the data zone; the sound
// entries around it are still read, forward and backward, and the disk still records.
TEST_F(Read, RefusesClustersOutsideTheDataZone) {
    start(0);
    const struct tm start_tm = make_tm(2024, 6, 1, 12, 30, 0);
    const std::vector<Entry> entries = record(start_tm, {1, 2, 1, 3}, whole_clusters(4));
    ASSERT_EQ(entries.size(), 4u);
    const uint32_t past_end = g_dz_ctx[0].info.data_start + g_dz_ctx[0].info.data_count;
    const uint32_t bad[3] = {0, past_end, 0xFFFFFFFFu};
    {
        const std::string name = index_name(0, kChannel, start_tm, kType);
        const int fd = open(name.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        const off_t first = st.st_size - 4 * index_size();
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(pwrite(fd, &bad[i], 4, first + i * index_size()), 4);
        }
        close(fd);
    }
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (int i = 0; i < 3; i++) {
        const std::string text =
            printed([&] { EXPECT_EQ(fs_read(h, rbuf_.data(), &length, frames, &count), -1); });
        EXPECT_TRUE(contains(
            text, "fatal error,cluster:" + std::to_string(static_cast<int>(bad[i])) + ",start :"))
            << i << "\n"
            << text;
    }
    int r = fs_read(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[3], 3, r, length, count, frames, rbuf_.data());
    r = fs_read_r(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[3], 3, r, length, count, frames, rbuf_.data());
    const std::string text =
        printed([&] { EXPECT_EQ(fs_read_r(h, rbuf_.data(), &length, frames, &count), -1); });
    EXPECT_TRUE(contains(text, "fatal error,cluster:-1,start :")) << text;
    fs_close(h, nullptr);

    // The disk goes on recording and reading.
    const struct tm next_tm = make_tm(2024, 6, 1, 12, 40, 0);
    const std::vector<Entry> more = record(next_tm, {1, 1}, whole_clusters(2));
    ASSERT_EQ(more.size(), 2u);
    const int h2 = open_reader(next_tm);
    ASSERT_GE(h2, 0);
    for (uint32_t n = 0; n < 2; n++) {
        r = fs_read(h2, rbuf_.data(), &length, frames, &count);
        EXPECT_EQ(r, static_cast<int>(kCluster)) << n;
        EXPECT_EQ(count, 1u) << n;
        expect_payload(n, rbuf_.data(), kCluster);
    }
    fs_close(h2, nullptr);
}

// ---- preload ---------------------------------------------------------------------------------

TEST_F(Read, PreloadWithoutDirectIoIsRefused) {
    start(0);
    const struct tm start_tm = make_tm(2024, 6, 1, 12, 0, 0);
    const std::vector<Entry> entries = record(start_tm, {1, 2}, {kCluster, 1000});
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    int on = 1;
    const std::string text = printed([&] { EXPECT_EQ(fs_set_preload(h, &on), -1); });
    EXPECT_TRUE(
        contains(text, "you must specific direct io in rec_init before you want use preload\n"))
        << text;
    EXPECT_EQ(fs_is_preload(h), 0);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < entries.size(); n++) {
        const int r = fs_read(h, rbuf_.data(), &length, frames, &count);
        expect_entry(entries[n], n, r, length, count, frames, rbuf_.data());
    }
    EXPECT_EQ(fs_preload(h), 0);
    fs_close(h, nullptr);
}

TEST_F(Read, PreloadedClusterIsReadFromTheBuffer) {
    start(kDirectIo);
    const struct tm start_tm = make_tm(2024, 6, 1, 13, 0, 0);
    const std::vector<Entry> entries = record(start_tm, {1, 2, 3}, {kCluster, 4242, 77777});
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    int on = 1;
    ASSERT_EQ(fs_set_preload(h, &on), 0);
    EXPECT_EQ(fs_is_preload(h), 1);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    int r = fs_read(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[0], 0, r, length, count, frames, rbuf_.data());
    EXPECT_EQ(g_file_ctx[h].preload_cluster, static_cast<int32_t>(entries[1].cluster));

    char load[64];
    snprintf(load, sizeof load, "load cacheid:%u, clusterid:%u", entries[0].cluster,
             entries[1].cluster);
    std::string text = printed([&] { EXPECT_EQ(fs_preload(h), 0); });
    EXPECT_TRUE(contains(text, load)) << text;
    EXPECT_EQ(g_file_ctx[h].preload_loaded, static_cast<int32_t>(entries[1].cluster));

    char use[64];
    snprintf(use, sizeof use, "use preload cache clusterid:%u len:%d", entries[1].cluster,
             static_cast<int>(entries[1].length));
    text = printed([&] { r = fs_read(h, rbuf_.data(), &length, frames, &count); });
    expect_entry(entries[1], 1, r, length, count, frames, rbuf_.data());
    EXPECT_TRUE(contains(text, use)) << text;
    EXPECT_FALSE(contains(text, "load cacheid")) << text;

    // The last entry has no next cluster: preload then loads nothing.
    r = fs_read(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[2], 2, r, length, count, frames, rbuf_.data());
    EXPECT_EQ(g_file_ctx[h].preload_cluster, -1);
    text = printed([&] { EXPECT_EQ(fs_preload(h), 0); });
    EXPECT_FALSE(contains(text, "load cacheid")) << text;
    EXPECT_EQ(g_file_ctx[h].preload_loaded, static_cast<int32_t>(entries[2].cluster));

    // Backward reads go through the buffer too and return the same bytes.
    r = fs_read_r(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[2], 2, r, length, count, frames, rbuf_.data());
    r = fs_read_r(h, rbuf_.data(), &length, frames, &count);
    expect_entry(entries[1], 1, r, length, count, frames, rbuf_.data());
    EXPECT_EQ(g_file_ctx[h].preload_loaded, static_cast<int32_t>(entries[1].cluster));

    EXPECT_EQ(fs_set_preload(h, nullptr), 0);
    EXPECT_EQ(fs_is_preload(h), 0);
    EXPECT_EQ(g_file_ctx[h].preload_loaded, -1);
    ASSERT_EQ(fs_set_preload(h, &on), 0);
    fs_close(h, nullptr);
    EXPECT_EQ(g_file_ctx[h].preload_buf, nullptr);
    EXPECT_EQ(g_file_ctx[h].preload_cluster, -1);
    EXPECT_EQ(g_file_ctx[h].preload_loaded, -1);
}

TEST_F(Read, PreloadFromAnotherThreadWhileReading) {
    start(kDirectIo);
    const struct tm start_tm = make_tm(2024, 6, 1, 14, 0, 0);
    constexpr uint32_t kClusters = 24;
    const std::vector<Entry> entries =
        record(start_tm, frame_pattern(kClusters), varied_lengths(kClusters));
    const int h = open_reader(start_tm);
    ASSERT_GE(h, 0);
    int on = 1;
    ASSERT_EQ(fs_set_preload(h, &on), 0);
    std::atomic<bool> done{false};
    std::thread daemon([&] {
        while (!done.load()) fs_preload(h);
    });
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    for (uint32_t n = 0; n < kClusters; n++) {
        const int r = fs_read(h, rbuf_.data(), &length, frames, &count);
        expect_entry(entries[n], n, r, length, count, frames, rbuf_.data());
    }
    EXPECT_EQ(fs_read(h, rbuf_.data(), &length, frames, &count), 0);
    done = true;
    daemon.join();
    fs_close(h, nullptr);
}

// ---- key frames ------------------------------------------------------------------------------

class KeyFrames : public Read {
  protected:
    void SetUp() override {
        Read::SetUp();
        start(0);
        start_tm_ = make_tm(2024, 6, 2, 9, 0, 0);
        base_ = secs(start_tm_);
        entries_ = record(start_tm_, kNavCounts, whole_clusters(kNavCounts.size()));
        ASSERT_EQ(entries_.size(), kNavCounts.size());
        h_ = open_reader(start_tm_);
        ASSERT_GE(h_, 0);
    }

    // A key-frame call returned cluster n's key frame i.
    void expect_kframe(int result, uint32_t n, uint32_t i, uint32_t offset) {
        EXPECT_EQ(result, static_cast<int>(kCluster)) << n << "/" << i;
        EXPECT_EQ(offset, nav_frame(n, i, base_).frame_offset) << n << "/" << i;
        expect_payload(n, rbuf_.data(), kCluster);
    }

    struct tm start_tm_;
    time_t base_ = 0;
    std::vector<Entry> entries_;
    int h_ = -1;
    uint32_t offset_ = 0;
};

TEST_F(KeyFrames, NextStepsOverTheFirstClusterAndWalksEveryKeyFrame) {
    // Expected (cluster, key frame) pairs: cluster 0 is stepped over on a fresh stream; clusters
    // without key frames are skipped.
    const std::vector<std::pair<uint32_t, uint32_t>> want = {{2, 0}, {2, 1}, {2, 2}, {3, 0},
                                                             {6, 0}, {6, 1}, {7, 0}};
    std::string text;
    for (const auto &[n, i] : want) {
        int r = 0;
        text = printed([&] { r = fs_getnextkframe(h_, rbuf_.data(), &offset_); });
        expect_kframe(r, n, i, offset_);
    }
    text = printed([&] { EXPECT_EQ(fs_getnextkframe(h_, rbuf_.data(), &offset_), 0); });
    EXPECT_TRUE(contains(text, "end of file,ret:0 len:0 kcount:0")) << text;
    EXPECT_EQ(fs_ltell(h_, nullptr), static_cast<int64_t>(kNavCounts.size()) * kCluster);

    // Walking back returns the first key frame of each earlier cluster with key frames, then
    // stops at the first cluster.
    const std::vector<uint32_t> back = {7, 6, 3, 2, 0};
    for (uint32_t n : back) {
        const int r = fs_getprekframe(h_, rbuf_.data(), &offset_);
        expect_kframe(r, n, 0, offset_);
    }
    text = printed([&] { EXPECT_EQ(fs_getprekframe(h_, rbuf_.data(), &offset_), -1); });
    EXPECT_TRUE(contains(text, "seek err fd :" + std::to_string(h_))) << text;
    EXPECT_EQ(fs_ltell(h_, nullptr), 0);
}

TEST_F(KeyFrames, RepeatedNextStaysInTheClusterWithGrowingOffsets) {
    ASSERT_EQ(fs_lseek(h_, 2 * static_cast<int64_t>(kCluster), SEEK_SET, nullptr),
              2 * static_cast<int64_t>(kCluster));
    fs_reset_kframe_context(h_);
    EXPECT_EQ(g_file_ctx[h_].kf_count, 3u);
    EXPECT_EQ(g_file_ctx[h_].kf_cur, 0u);
    EXPECT_EQ(g_file_ctx[h_].kf_pos, 2ull * kCluster);
    EXPECT_EQ(memcmp(g_file_ctx[h_].kf_frames, entries_[2].frames, 3 * sizeof(kframe)), 0);
    uint32_t last = 0;
    for (uint32_t i = 0; i < 3; i++) {
        std::string text;
        int r = 0;
        text = printed([&] { r = fs_getnextkframe(h_, rbuf_.data(), &offset_); });
        expect_kframe(r, 2, i, offset_);
        EXPECT_TRUE(contains(text, "kcontext count:3 cur:" + std::to_string(i))) << text;
        if (i > 0) {
            EXPECT_GT(offset_, last);
        }
        last = offset_;
        EXPECT_EQ(fs_ltell(h_, nullptr), 2 * static_cast<int64_t>(kCluster));
    }
    const int r = fs_getnextkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 3, 0, offset_);
}

TEST_F(KeyFrames, CurrentFindsTheFirstKeyFrameAndKeepsThePosition) {
    // On a fresh stream: the first cluster's first key frame.
    int r = fs_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 0, 0, offset_);
    EXPECT_EQ(fs_ltell(h_, nullptr), 0);
    // From cluster 4 (no key frames, nor has 5): cluster 6's, and back to cluster 4.
    const int64_t at4 = 4 * static_cast<int64_t>(kCluster);
    ASSERT_EQ(fs_lseek(h_, at4, SEEK_SET, nullptr), at4);
    r = fs_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 6, 0, offset_);
    EXPECT_EQ(fs_ltell(h_, nullptr), at4);
    // From cluster 1 (none): cluster 2's.
    ASSERT_EQ(fs_lseek(h_, kCluster, SEEK_SET, nullptr), kCluster);
    r = fs_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 2, 0, offset_);
    EXPECT_EQ(fs_ltell(h_, nullptr), kCluster);
    // At the end of the recording: 0.
    const int64_t end = static_cast<int64_t>(kNavCounts.size()) * kCluster;
    ASSERT_EQ(fs_lseek(h_, end, SEEK_SET, nullptr), end);
    const std::string text =
        printed([&] { EXPECT_EQ(fs_getcurkframe(h_, rbuf_.data(), &offset_), 0); });
    EXPECT_TRUE(contains(text, "end of file")) << text;
}

TEST_F(KeyFrames, TimeSeekThenWalkBackInsideTheCluster) {
    int32_t seq = -1;
    const time_t want = base_ + 2 * 10 + 2;  // cluster 2, key frame 2
    EXPECT_EQ(fs_tseek(h_, static_cast<int32_t>(want), SEEK_SET, &seq), want);
    EXPECT_EQ(seq, 2);
    uint32_t tseq = 0;
    EXPECT_EQ(fs_ttell(h_, &tseq), want);
    EXPECT_EQ(tseq, 2u);
    uint32_t off = 0;
    EXPECT_EQ(fs_ltell(h_, &off), 2 * static_cast<int64_t>(kCluster));
    EXPECT_EQ(off, nav_frame(2, 2, base_).frame_offset);
    fs_reset_kframe_context(h_);
    // The current key frame is the one the seek reached.
    int r = fs_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 2, 2, offset_);
    // Backward: key frames 2 and 1 of the cluster, then the previous cluster with key frames.
    r = fs_getprekframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 2, 2, offset_);
    r = fs_getprekframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 2, 1, offset_);
    r = fs_getprekframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 0, 0, offset_);
    EXPECT_EQ(fs_ltell(h_, nullptr), 0);
}

TEST_F(KeyFrames, ReadingMakesTheContextStale) {
    int r = fs_getcurkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 0, 0, offset_);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    ASSERT_EQ(fs_read(h_, rbuf_.data(), &length, frames, &count), static_cast<int>(kCluster));
    ASSERT_EQ(fs_read(h_, rbuf_.data(), &length, frames, &count), static_cast<int>(kCluster));
    // At cluster 2 now: the context of cluster 0 no longer counts; next steps on to cluster 3.
    r = fs_getnextkframe(h_, rbuf_.data(), &offset_);
    expect_kframe(r, 3, 0, offset_);
}

// ---- seeking -----------------------------------------------------------------------------

TEST_F(KeyFrames, SeeksByPositionAndTime) {
    uint32_t off = 99;
    EXPECT_EQ(fs_ltell(h_, &off), 0);
    EXPECT_EQ(off, 0u);
    // Into cluster 2 at byte 5: the first key frame after it is key frame 1.
    const int64_t at = 2 * static_cast<int64_t>(kCluster) + 5;
    EXPECT_EQ(fs_lseek(h_, at, SEEK_SET, &off), 2 * static_cast<int64_t>(kCluster));
    EXPECT_EQ(off, 5u);
    uint32_t seq = 0;
    EXPECT_EQ(fs_ttell(h_, &seq), base_ + 21);
    EXPECT_EQ(seq, 1u);
    // Relative moves count payload bytes; whole clusters here.
    EXPECT_EQ(fs_lseek(h_, kCluster, SEEK_CUR, &off), 3 * static_cast<int64_t>(kCluster));
    EXPECT_EQ(fs_lseek(h_, -2 * static_cast<int64_t>(kCluster), SEEK_CUR, &off), kCluster);
    EXPECT_EQ(off, 0u);
    // By time: cluster 6's second key frame.
    int32_t tseq = -1;
    EXPECT_EQ(fs_tseek(h_, static_cast<int32_t>(base_ + 61), SEEK_SET, &tseq), base_ + 61);
    EXPECT_EQ(tseq, 1);
    EXPECT_EQ(fs_ltell(h_, nullptr), 6 * static_cast<int64_t>(kCluster));
    // Refusals pass through with the index layer's words.
    std::string text = printed([&] {
        EXPECT_EQ(fs_lseek(h_, 0, 3, nullptr), -1);
        EXPECT_EQ(fs_lseek(h_, 0, -1, nullptr), -1);
        EXPECT_EQ(fs_tseek(h_, 0, 7, &tseq), -1);
        EXPECT_EQ(fs_tseek(h_, 0, SEEK_SET, nullptr), -1);
    });
    EXPECT_TRUE(contains(text, "invalid mod:3")) << text;
    EXPECT_TRUE(contains(text, "invalid mod:-1")) << text;
    EXPECT_TRUE(contains(text, "invalid mod:7")) << text;
    EXPECT_TRUE(contains(text, "invalid param")) << text;
    // A time before the start is refused.
    text = printed(
        [&] { EXPECT_EQ(fs_tseek(h_, static_cast<int32_t>(base_ - 1), SEEK_SET, &tseq), -1); });
    EXPECT_TRUE(contains(text, "is less than start time")) << text;
    EXPECT_EQ(fs_ltell(h_, nullptr), 6 * static_cast<int64_t>(kCluster));
}

}  // namespace
