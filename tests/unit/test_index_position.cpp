// SPDX-License-Identifier: MIT
// Positioning inside an open recording: stream positions (ltell/lseek by payload bytes), frame
// times (ttell/tseek) and the frame-position accessors, on recordings built in temporary files,
// including damaged entries that must neither crash nor hang the walks.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "fstype_old.h"
#include "index.h"
#include "recstore.h"
#include "test_util.h"

using namespace recstore;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

using recstore_test::utc_tm;

constexpr uint32_t T = 1715933350u;  // 2024-05-17 08:09:10 UTC: time of the first key frame
constexpr int64_t kCluster = RECSTORE_CLUSTER_SIZE;

struct EntryPlan {
    uint32_t length;
    std::vector<std::pair<uint32_t, uint32_t>> frames;  // offset, time
};

// The recording used by most tests: lengths 1000, 2000, 3000, 4000 (no key frame), 500.
const std::vector<EntryPlan> kEntries = {
    {1000, {{100, T + 0}, {500, T + 1}}},
    {2000, {{0, T + 2}, {800, T + 3}, {1500, T + 4}}},
    {3000, {{200, T + 5}}},
    {4000, {}},
    {500, {{50, T + 8}}},
};

class IndexPosition : public ::testing::Test {
  protected:
    void SetUp() override {
        index_init();
        g_magic[0] = RECSTORE_MAGIC_V7;
        char name[] = "/tmp/recstore-pos.XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = name;
        start_ = utc_tm(T - 10);
    }
    void TearDown() override {
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        g_magic[0] = 0;
        unlink(path_.c_str());
    }
    index_open_args args(int flags, const ext_desc *ext = nullptr) {
        index_open_args a;
        a.start = &start_;
        a.channel = 1;
        a.type = 0;
        a.flags = flags;
        a.ext = ext;
        return a;
    }
    // Writes the recording, closes it with its end time and opens it for reading.
    int recording(const std::vector<EntryPlan> &entries, uint32_t end,
                  const ext_desc *ext = nullptr) {
        const int w = do_index_attach(open(path_.c_str(), O_RDWR), args(O_CREAT | O_RDWR, ext));
        EXPECT_GE(w, 0);
        uint32_t cluster = 100;
        for (const EntryPlan &e : entries) {
            kframe fr[kMaxKframes] = {};
            for (size_t i = 0; i < e.frames.size(); ++i)
                fr[i] = kframe{e.frames[i].first, e.frames[i].second};
            EXPECT_EQ(
                index_write(w, cluster++, e.length, fr, static_cast<uint32_t>(e.frames.size())),
                204);
        }
        const struct tm end_tm = utc_tm(end);
        index_close(w, &end_tm);
        return reader();
    }
    int reader() { return do_index_attach(open(path_.c_str(), O_RDWR), args(O_RDWR)); }
    static uint32_t seq_of(int h) {
        uint32_t s = 0xDEAD;
        index_get_seqoffset(h, &s);
        return s;
    }
    static uint32_t offset_of(int h) {
        uint32_t o = 0xDEAD;
        index_get_offset(h, &o);
        return o;
    }
    // Appends raw bytes to the file.
    void append(const void *data, size_t n) {
        const int fd = open(path_.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, data, n), static_cast<ssize_t>(n));
        close(fd);
    }

    std::string path_;
    struct tm start_ {};
};

}  // namespace

// ---- ltell / lseek -------------------------------------------------------------------------

TEST_F(IndexPosition, LtellAfterOpenIsZero) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    uint32_t off = 0xFFFF;
    EXPECT_EQ(index_ltell(h, &off), 0);
    EXPECT_EQ(off, 0u);
}

TEST_F(IndexPosition, LtellCountsWholeClusters) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    lseek64(g_idx_ctx[h].fd, 3 * 204, SEEK_CUR);
    EXPECT_EQ(index_ltell(h, nullptr), 3 * kCluster);
}

TEST_F(IndexPosition, LtellBeforeTheFirstEntryIsRefused) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    lseek64(g_idx_ctx[h].fd, 100, SEEK_SET);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_ltell(h, nullptr), -1);
    EXPECT_NE(cap.stop().find("invalid pos :100,size:8336"), std::string::npos);
}

TEST_F(IndexPosition, SeekToZeroLandsOnTheFirstEntry) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    lseek64(g_idx_ctx[h].fd, 2 * 204, SEEK_CUR);
    uint32_t off = 0xFFFF;
    EXPECT_EQ(index_lseek(h, 0, SEEK_SET, &off), 0);
    EXPECT_EQ(off, 0u);
    EXPECT_EQ(offset_of(h), 0u);
    EXPECT_EQ(seq_of(h), 0u) << "the first frame lies after offset 0";
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 8336);
}

TEST_F(IndexPosition, SumOfTwoLengthsLandsOnTheThirdEntry) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    index_set_offset(h, 77, nullptr, 0);
    EXPECT_EQ(index_lseek(h, 3000, SEEK_SET, nullptr), 2 * kCluster);
    EXPECT_EQ(offset_of(h), 0u);
    EXPECT_EQ(seq_of(h), 0u);
}

TEST_F(IndexPosition, OneByteLessLandsOnTheSecondEntry) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    uint32_t off = 0;
    EXPECT_EQ(index_lseek(h, 2999, SEEK_SET, &off), kCluster);
    EXPECT_EQ(off, 1999u);
    EXPECT_EQ(offset_of(h), 1999u);
    EXPECT_EQ(seq_of(h), 3u) << "no frame of the entry starts after 1999";
    EXPECT_EQ(index_lseek(h, 1200, SEEK_SET, nullptr), kCluster);
    EXPECT_EQ(offset_of(h), 200u);
    EXPECT_EQ(seq_of(h), 1u) << "frame 1 (at 800) is the first after 200";
    EXPECT_EQ(index_lseek(h, 1000, SEEK_SET, nullptr), kCluster);
    EXPECT_EQ(offset_of(h), 0u);
}

TEST_F(IndexPosition, SeekPastTheEndFails) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    EXPECT_EQ(index_lseek(h, 10500, SEEK_SET, nullptr), 5 * kCluster) << "exactly the end";
    EXPECT_EQ(index_lseek(h, 10501, SEEK_SET, nullptr), -1);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_lseek(h, int64_t{1} << 40, SEEK_SET, nullptr), -1);
    EXPECT_NE(cap.stop().find("offset is too long:1099511627776,size:10500"), std::string::npos);
    EXPECT_EQ(index_lseek(h, -1, SEEK_SET, nullptr), -1);
}

TEST_F(IndexPosition, RelativeSeeksForwardAndBackward) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 1000, SEEK_SET, nullptr), kCluster);
    // Forward from the start of the current entry.
    EXPECT_EQ(index_lseek(h, 2000, SEEK_CUR, nullptr), 2 * kCluster);
    // Backward: one whole entry.
    EXPECT_EQ(index_lseek(h, -2000, SEEK_CUR, nullptr), kCluster);
    EXPECT_EQ(offset_of(h), 0u);
    // Backward into the middle of the first entry.
    ASSERT_EQ(index_lseek(h, 3000, SEEK_SET, nullptr), 2 * kCluster);
    EXPECT_EQ(index_lseek(h, -2500, SEEK_CUR, nullptr), 0);
    EXPECT_EQ(offset_of(h), 500u);
    EXPECT_EQ(seq_of(h), 2u);
    // Backward past the first entry fails.
    ASSERT_EQ(index_lseek(h, 3000, SEEK_SET, nullptr), 2 * kCluster);
    EXPECT_EQ(index_lseek(h, -1000000, SEEK_CUR, nullptr), -1);
    // Forward past the end fails with its message.
    ASSERT_EQ(index_lseek(h, 0, SEEK_SET, nullptr), 0);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_lseek(h, 20000, SEEK_CUR, nullptr), -1);
    EXPECT_NE(cap.stop().find("index get err"), std::string::npos);
}

TEST_F(IndexPosition, BackwardWalkStopsAtTheFirstEntry) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 3000, SEEK_SET, nullptr), 2 * kCluster);
    LogMask mask(0x1);
    StdoutCapture cap;
    // One byte more than the two entries before: the walk would reach into the header.
    EXPECT_EQ(index_lseek(h, -3001, SEEK_CUR, nullptr), -1);
    EXPECT_NE(cap.stop().find("read_r err or over"), std::string::npos);
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 8336) << "left on the first entry";
    EXPECT_EQ(index_lseek(h, -3000, SEEK_CUR, nullptr), -1);
}

TEST_F(IndexPosition, BackwardStepOfAWholeCluster) {
    std::vector<EntryPlan> full = {{524288, {{0, T}}}, {524288, {{0, T + 1}}}, {524288, {}}};
    const int h = recording(full, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 2 * kCluster, SEEK_SET, nullptr), 2 * kCluster);
    EXPECT_EQ(index_lseek(h, -kCluster, SEEK_CUR, nullptr), kCluster);
    EXPECT_EQ(index_lseek(h, -kCluster, SEEK_CUR, nullptr), 0);
    EXPECT_EQ(index_lseek(h, kCluster, SEEK_CUR, nullptr), kCluster);
}

TEST_F(IndexPosition, SeekModes) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_lseek(h, 0, 2, nullptr), -1);
    EXPECT_EQ(index_lseek(h, 0, 3, nullptr), -1);
    EXPECT_EQ(index_lseek(h, 0, -1, nullptr), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("had not implement"), std::string::npos);
    EXPECT_NE(out.find("invalid mod:3"), std::string::npos);
    EXPECT_NE(out.find("invalid mod:-1"), std::string::npos);
}

TEST_F(IndexPosition, HeaderSizesOfOtherLayouts) {
    g_magic[0] = RECSTORE_MAGIC_V1;
    int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 896);
    EXPECT_EQ(index_ltell(h, nullptr), 0);
    EXPECT_EQ(index_lseek(h, 1000, SEEK_SET, nullptr), kCluster);
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 896 + 204);
    do_index_release(h);
    ASSERT_EQ(truncate(path_.c_str(), 0), 0);

    g_magic[0] = RECSTORE_MAGIC_V7;
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const ext_desc ext{1, 8, data};
    h = recording(kEntries, T + 20, &ext);
    ASSERT_GE(h, 0);
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 10384);
    EXPECT_EQ(index_ltell(h, nullptr), 0);
    EXPECT_EQ(index_lseek(h, 3000, SEEK_SET, nullptr), 2 * kCluster);
    EXPECT_EQ(lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR), 10384 + 2 * 204);
}

// ---- ttell / tseek -------------------------------------------------------------------------

TEST_F(IndexPosition, TtellGivesTheCurrentFrameTime) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    uint32_t seq = 0xFF;
    EXPECT_EQ(index_ttell(h, &seq), T + 0);
    EXPECT_EQ(seq, 0u);
    ASSERT_EQ(index_lseek(h, 1200, SEEK_SET, nullptr), kCluster);
    EXPECT_EQ(index_ttell(h, &seq), T + 3);
    EXPECT_EQ(seq, 1u);
    ASSERT_EQ(index_lseek(h, 2999, SEEK_SET, nullptr), kCluster);
    EXPECT_EQ(index_ttell(h, &seq), T + 2) << "seq past the frames: frame 0";
    EXPECT_EQ(seq, 3u);
}

TEST_F(IndexPosition, TtellOnAnEntryWithoutFramesGivesUp) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 6000, SEEK_SET, nullptr), 3 * kCluster);
    LogMask mask(0xB);
    StdoutCapture cap;
    EXPECT_EQ(index_ttell(h, nullptr), -1);
    EXPECT_NE(cap.stop().find("cur block had no kframe,try to seek forword"), std::string::npos);
    EXPECT_EQ(index_ltell(h, nullptr), 3 * kCluster) << "the position did not move";
}

TEST_F(IndexPosition, TimeSeekBeforeTheFirstFrame) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 1200, SEEK_SET, nullptr), kCluster);
    int32_t seq = -7;
    LogMask mask(0xB);
    StdoutCapture cap;
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T - 5), SEEK_SET, &seq), T + 0);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("sec:" + std::to_string(T - 5) +
                       " is less than first time:" + std::to_string(T) + "\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(seq, -7) << "not stored";
    EXPECT_EQ(seq_of(h), 1u) << "seq unchanged";
    EXPECT_EQ(offset_of(h), 200u) << "offset unchanged";
}

TEST_F(IndexPosition, TimeSeekToAFrame) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    int32_t seq = -1;
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T + 3), SEEK_SET, &seq), T + 3);
    EXPECT_EQ(seq, 1);
    EXPECT_EQ(seq_of(h), 1u);
    EXPECT_EQ(offset_of(h), 800u);
    EXPECT_EQ(index_ltell(h, nullptr), kCluster);
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T + 6), SEEK_SET, &seq), T + 8)
        << "the next frame at or after the time";
    EXPECT_EQ(index_ltell(h, nullptr), 4 * kCluster);
    EXPECT_EQ(seq, 0);
    EXPECT_EQ(offset_of(h), 50u);
}

TEST_F(IndexPosition, TimeSeekAfterTheLastFrame) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T + 15), SEEK_SET, nullptr), T + 20)
        << "the end time";
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T + 20), SEEK_SET, nullptr), T + 20);
}

TEST_F(IndexPosition, TimeSeekOutsideTheRecording) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T + 21), SEEK_SET, nullptr), -1);
    EXPECT_EQ(index_tseek(h, static_cast<int32_t>(T - 11), SEEK_SET, nullptr), -1);
    EXPECT_EQ(index_tseek(h, -5, SEEK_SET, nullptr), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("sec:" + std::to_string(T + 21) +
                       " is less than start time:" + std::to_string(T - 10) +
                       " or larger than end time :" + std::to_string(T + 20) + "\n"),
              std::string::npos)
        << out;
}

TEST_F(IndexPosition, RelativeTimeSeekForward) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 1000, SEEK_SET, nullptr), kCluster);
    int32_t seq = -1;
    EXPECT_EQ(index_tseek(h, 3, SEEK_CUR, &seq), T + 5) << "base T+2, target T+5";
    EXPECT_EQ(seq, 0);
    EXPECT_EQ(index_ltell(h, nullptr), 2 * kCluster);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_tseek(h, 3, SEEK_CUR, &seq), T + 8) << "over the entry without frames";
    EXPECT_NE(cap.stop().find("cur block had no kframe,try to seek forword\n"), std::string::npos);
    EXPECT_EQ(index_tseek(h, 100, SEEK_CUR, &seq), T + 20) << "past the end: the end time";
}

TEST_F(IndexPosition, RelativeTimeSeekBackward) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    ASSERT_EQ(index_lseek(h, 10000, SEEK_SET, nullptr), 4 * kCluster);
    int32_t seq = -1;
    EXPECT_EQ(index_tseek(h, -1, SEEK_CUR, &seq), T + 8) << "target = base + 1 - 1";
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_tseek(h, -4, SEEK_CUR, &seq), T + 5) << "target T+5";
    EXPECT_NE(cap.stop().find("cur block had not kframe,try to seek forword\n"), std::string::npos);
    EXPECT_EQ(index_ltell(h, nullptr), 2 * kCluster);
    EXPECT_EQ(seq, 0);
    EXPECT_EQ(index_tseek(h, -3, SEEK_CUR, &seq), T + 3) << "base T+5, target T+3: last first";
    EXPECT_EQ(seq, 1);
    EXPECT_EQ(index_ltell(h, nullptr), kCluster);
}

TEST_F(IndexPosition, TimeSeekModes) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_tseek(h, 5, 2, nullptr), -1);
    EXPECT_EQ(cap.stop().find("had not implement"), std::string::npos) << "silent when positive";
    StdoutCapture cap2;
    EXPECT_EQ(index_tseek(h, 0, 2, nullptr), -1);
    EXPECT_EQ(index_tseek(h, 0, 3, nullptr), -1);
    EXPECT_EQ(index_tseek(h, 0, -2, nullptr), -1);
    const std::string out = cap2.stop();
    EXPECT_NE(out.find("had not implement\n"), std::string::npos);
    EXPECT_NE(out.find("invalid mod:3\n"), std::string::npos);
    EXPECT_NE(out.find("invalid mod:-2\n"), std::string::npos);
}

// ---- accessors -----------------------------------------------------------------------------

TEST_F(IndexPosition, OffsetAccessors) {
    const int h = recording(kEntries, T + 20);
    ASSERT_GE(h, 0);
    const kframe fr[3] = {{100, 0}, {500, 0}, {900, 0}};
    index_set_offset(h, 600, fr, 3);
    EXPECT_EQ(offset_of(h), 600u);
    EXPECT_EQ(seq_of(h), 2u);
    index_set_offset(h, 524288, fr, 3);
    EXPECT_EQ(offset_of(h), 600u) << "524288 changes nothing";
    EXPECT_EQ(seq_of(h), 2u);
    index_set_offset(h, 50, fr, 0);
    EXPECT_EQ(seq_of(h), 0u);
    EXPECT_EQ(offset_of(h), 50u);
    index_set_offset(h, 950, fr, 3);
    EXPECT_EQ(seq_of(h), 3u) << "none after: the count";
    index_set_offset(h, 60, fr, 25);
    EXPECT_EQ(seq_of(h), 0u);
    index_set_offset(h, 60, nullptr, 3);
    EXPECT_EQ(seq_of(h), 0u);

    kframe table[kMaxKframes] = {};
    table[23].frame_offset = 4242;
    table[5].frame_offset = 55;
    index_set_seqoffset(h, 5, table, 1);
    EXPECT_EQ(seq_of(h), 5u);
    EXPECT_EQ(offset_of(h), 55u);
    index_set_seqoffset(h, 24, table, 1);
    EXPECT_EQ(seq_of(h), 5u) << "above 23 changes nothing";
    index_set_seqoffset(h, 23, table, 1);
    EXPECT_EQ(offset_of(h), 4242u);
    index_clear_offset(h);
    EXPECT_EQ(seq_of(h), 0u);
    EXPECT_EQ(offset_of(h), 0u);
}

// ---- damaged entries -----------------------------------------------------------------------

TEST_F(IndexPosition, GarbageEntriesNeitherCrashNorHang) {
    const int w = do_index_attach(open(path_.c_str(), O_RDWR), args(O_CREAT | O_RDWR));
    ASSERT_GE(w, 0);
    const kframe fr[kMaxKframes] = {{10, T}};
    ASSERT_EQ(index_write(w, 1, 1000, fr, 1), 204);
    const struct tm end = utc_tm(T + 30);
    index_close(w, &end);
    // Entries with 1000 frames, a length above a cluster, all ones, zero length, then half an
    // entry.
    std::vector<uint8_t> junk(4 * 204 + 100, 0xFF);
    le32_store(junk.data() + 8, 1000);
    le32_store(junk.data() + 204 + 4, 0x7FFFFFFF);
    le32_store(junk.data() + 204 + 8, 0x80000000u);
    le32_store(junk.data() + 3 * 204 + 4, 0);
    le32_store(junk.data() + 3 * 204 + 8, 0);
    append(junk.data(), junk.size());
    // The header claims more bytes than there are, so that the bound check lets seeks through.
    const int fd = open(path_.c_str(), O_RDWR);
    uint8_t total[8];
    le64_store(total, uint64_t{1} << 40);
    ASSERT_EQ(pwrite(fd, total, 8, 112), 8);
    close(fd);

    const int h = reader();
    ASSERT_GE(h, 0);
    for (int64_t off : {int64_t{0}, int64_t{999}, int64_t{1000}, int64_t{5000}, int64_t{1} << 33}) {
        index_lseek(h, off, SEEK_SET, nullptr);
        index_ttell(h, nullptr);
        index_lseek(h, off, SEEK_CUR, nullptr);
        index_lseek(h, -off, SEEK_CUR, nullptr);
        index_ltell(h, nullptr);
    }
    for (int32_t s : {0, 1, 5, 100, -1, -100}) {
        index_lseek(h, 1000, SEEK_SET, nullptr);
        index_tseek(h, static_cast<int32_t>(T) + s, SEEK_SET, nullptr);
        index_tseek(h, s, SEEK_CUR, nullptr);
        uint32_t seq = 0;
        index_ttell(h, &seq);
        EXPECT_LE(seq, 24u);
    }
    // The damage stays behind the sound entry: it is still reached and read.
    EXPECT_EQ(index_lseek(h, 999, SEEK_SET, nullptr), 0);
    EXPECT_EQ(offset_of(h), 999u);
    uint32_t cid = 0, len = 0, cnt = 0;
    kframe got[kMaxKframes];
    EXPECT_EQ(index_get(h, &cid, &len, got, &cnt), 204);
    EXPECT_EQ(cid, 1u);
    EXPECT_EQ(len, 1000u);
    EXPECT_EQ(index_ttell(h, nullptr), T);
}
