// The search and calendar API over all disks, inside the disk rig: recordings made on two
// formatted disks are found through rec_find_open with every sort mode, paged forward and
// backward as a whole and per channel, cut at maxcount in disk order, handed out as 60-byte
// records that reopen the recording and 128-byte records that agree with rec_stat; the month
// view ORs the days of both disks.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
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

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kAllMatches = 0xF;
constexpr int kAnyMode = 0xFF;
constexpr int kMany = 1000;

// One recording made by the test.
struct Made {
    int disk;
    int channel;
    struct tm start;
    struct tm end;
    int mode;
    uint32_t clusters;
};

struct tm at(int day, int hour, int min) {
    return make_tm(2024, 2, day, hour, min, 0);
}

class RecFind : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, flags()), 0);
        bring_up(0, true);
        bring_up(1, true);
        // No daemon runs here: each disk gets its first block as current by hand.
        for (int d = 0; d < 2; d++) ASSERT_EQ(block_alloc(d), static_cast<int>(kBlock1));
    }

    void TearDown() override {
        for (int h = 0; h < RECSTORE_FIND_SLOTS; h++) rec_find_close(h);
        take_down(1);
        take_down(0);
        rec_exit();
    }

    virtual int flags() const { return 0; }

  public:
    // A recording on a disk through the disk layer, with `clusters` clusters of payload.
    Made make(int disk, int channel, const struct tm &start, int minutes, int mode,
              uint32_t clusters = 0) {
        Made m{disk, channel, start, start, mode, clusters};
        m.end.tm_min += minutes;
        time_t s = timegm(&m.end);
        gmtime_r(&s, &m.end);
        const rec_param p = param_of(channel, start, 0);
        const int h =
            fs_open(disk, &p, O_CREAT | O_RDWR, static_cast<uint32_t>(mode), 0x77, nullptr);
        EXPECT_GE(h, 0);
        if (h < 0) return m;
        Cluster buf;
        for (uint32_t n = 0; n < clusters; n++) {
            fill_payload(buf.data(), static_cast<uint32_t>(channel), n);
            kframe frames[RECSTORE_MAX_KFRAMES] = {};
            const uint32_t count = frames_of(n, secs(start), frames);
            EXPECT_EQ(fs_write(h, buf.data(), kCluster, frames, count), static_cast<int>(kCluster));
        }
        fs_close(h, &m.end);
        made_.push_back(m);
        return m;
    }

    // Every result of an open search, paged forward in pages of 7.
    static std::vector<std::pair<rec_param, rec_find_info>> all_of(int h) {
        std::vector<std::pair<rec_param, rec_find_info>> out;
        rec_param recs[7];
        rec_find_info infos[7];
        for (;;) {
            const int n = rec_find_next(h, recs, infos, 7);
            EXPECT_GE(n, 0);
            if (n <= 0) break;
            for (int i = 0; i < n; i++) out.emplace_back(recs[i], infos[i]);
        }
        return out;
    }

    std::vector<Made> made_;
};

void sort_modes_paging_and_records(RecFind &t);

TEST_F(RecFind, SortModesPagingAndTheRecordsHandedOut) {
    sort_modes_paging_and_records(*this);
}

void sort_modes_paging_and_records(RecFind &t) {
    // Disk 0: channels 5 and 1; disk 1: channels 2 and 1. Start times interleave across disks.
    t.make(0, 5, at(10, 8, 0), 30, 1, 2);
    t.make(0, 1, at(10, 9, 0), 30, 2);
    t.make(0, 1, at(10, 7, 0), 30, 4, 1);
    t.make(1, 2, at(10, 6, 0), 30, 1);
    t.make(1, 1, at(10, 8, 30), 30, 1, 1);
    t.make(1, 2, at(10, 10, 0), 30, 2);
    const struct tm start = at(10, 0, 0);
    const struct tm end = at(10, 23, 59);
    const uint64_t mask = (1ull << 1) | (1ull << 2) | (1ull << 5);

    // Mode 0: disk by disk, as found.
    int h = rec_find_open(&start, &end, mask, 0, kAnyMode, kAllMatches, kMany, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(rec_find_getcounts(h), 6);
    auto found = RecFind::all_of(h);
    ASSERT_EQ(found.size(), 6u);
    // Disk 0's channels 1, 1, 5 come before disk 1's channels 1, 2, 2.
    const uint32_t disk_order[] = {1, 1, 5, 1, 2, 2};
    for (size_t i = 0; i < 6; i++) EXPECT_EQ(found[i].first.channel, disk_order[i]) << i;
    rec_find_close(h);

    // Mode 2: by start time over both disks.
    h = rec_find_open(&start, &end, mask, 0, kAnyMode, kAllMatches, kMany, 2);
    ASSERT_GE(h, 0);
    found = RecFind::all_of(h);
    ASSERT_EQ(found.size(), 6u);
    for (size_t i = 1; i < found.size(); i++) {
        struct tm a, b;
        from_fs_tm(&a, &found[i - 1].first.start);
        from_fs_tm(&b, &found[i].first.start);
        EXPECT_LT(secs(a), secs(b)) << i;
    }
    rec_find_close(h);

    // Mode 3: by channel, each channel's run by time; the channel functions page the runs.
    h = rec_find_open(&start, &end, mask, 0, kAnyMode, kAllMatches, kMany, 3);
    ASSERT_GE(h, 0);
    found = RecFind::all_of(h);
    ASSERT_EQ(found.size(), 6u);
    const uint32_t want_channels[] = {1, 1, 1, 2, 2, 5};
    for (size_t i = 0; i < 6; i++) EXPECT_EQ(found[i].first.channel, want_channels[i]) << i;
    EXPECT_EQ(rec_find_channel_getcounts(h, 1), 3);
    EXPECT_EQ(rec_find_channel_getcounts(h, 2), 2);
    EXPECT_EQ(rec_find_channel_getcounts(h, 5), 1);
    EXPECT_EQ(rec_find_channel_getcounts(h, 3), 0);
    rec_param recs[4];
    rec_find_info infos[4];
    ASSERT_EQ(rec_find_channel_next(h, 1, recs, infos, 4), 3);
    for (int i = 0; i < 3; i++) EXPECT_EQ(recs[i].channel, 1u);
    struct tm first;
    from_fs_tm(&first, &recs[0].start);
    EXPECT_EQ(secs(first), secs(at(10, 7, 0)));
    EXPECT_EQ(rec_find_channel_next(h, 1, recs, infos, 4), 0);
    rec_find_channel_toend(h, 2);
    ASSERT_EQ(rec_find_channel_prev(h, 2, recs, infos, 4), 2);
    EXPECT_EQ(recs[0].channel, 2u);
    EXPECT_EQ(recs[1].channel, 2u);

    // Each record reopens its recording; its second piece agrees with rec_stat.
    rec_find_reset(h);
    found = RecFind::all_of(h);
    for (const auto &r : found) {
        struct tm s;
        from_fs_tm(&s, &r.first.start);
        const int rh = rec_open(static_cast<int>(r.first.channel), &s,
                                static_cast<int>(r.first.type), 0, 0, 0, 0, 0);
        ASSERT_GE(rh, 0);
        recordinfo info;
        ASSERT_EQ(rec_stat(rh, &info), 0);
        // Both searches give the mode and the payload size; the walk over the index files
        // gives the whole record info, the cache search leaves the rest zero.
        EXPECT_EQ(r.second.mode, info.mode);
        EXPECT_EQ(r.second.total_bytes_lo, static_cast<uint32_t>(info.total_bytes));
        EXPECT_EQ(r.second.total_bytes_hi, static_cast<uint32_t>(info.total_bytes >> 32));
        EXPECT_EQ(r.second.has_ext, 0u);
        if (fs_use_cache()) {
            EXPECT_EQ(r.second.disk_id, 0);
            EXPECT_EQ(r.second.channel, 0u);
            EXPECT_EQ(r.second.entry_count, 0u);
            EXPECT_EQ(r.second.attr_d, 0u);
        } else {
            EXPECT_EQ(g_recctx.streams[rh].disk_id, r.second.disk_id);
            EXPECT_EQ(r.second.channel, info.channel);
            EXPECT_EQ(r.second.entry_count, info.entry_count);
            EXPECT_EQ(r.second.frame_count, info.frame_count);
            EXPECT_EQ(r.second.attr_d, 0x77u);
            EXPECT_EQ(memcmp(&r.second.start_time, &info.start_time, sizeof info.start_time), 0);
            EXPECT_EQ(memcmp(&r.second.end_time, &info.end_time, sizeof info.end_time), 0);
        }
        rec_close(rh, nullptr);
    }
    rec_find_close(h);
}

TEST_F(RecFind, MaxcountIsSharedByTheDisksInOrder) {
    // 15 matching recordings on disk 0, 10 on disk 1.
    for (int i = 0; i < 15; i++) make(0, 3, at(11, 1, i * 2), 1, 1);
    for (int i = 0; i < 10; i++) make(1, 3, at(11, 2, i * 2), 1, 1);
    const struct tm start = at(11, 0, 0);
    const struct tm end = at(11, 23, 0);
    LogMask loud(kAllLevels);
    StdoutCapture out;
    const int h = rec_find_open(&start, &end, 1ull << 3, 0, kAnyMode, kAllMatches, 10, 0);
    const std::string text = out.stop();
    ASSERT_GE(h, 0);
    EXPECT_EQ(rec_find_getcounts(h), 10);
    const auto found = all_of(h);
    ASSERT_EQ(found.size(), 10u);
    for (const auto &r : found) EXPECT_EQ(r.second.disk_id, 0) << "disk 1 contributes nothing";
    EXPECT_NE(text.find("pctx->count:10,pctx->maxcount:10\n"), std::string::npos) << text;
    // toend, then the last three in ascending order; the cursor ends before them.
    rec_find_toend(h);
    rec_param recs[3];
    rec_find_info infos[3];
    ASSERT_EQ(rec_find_prev(h, recs, infos, 3), 3);
    EXPECT_EQ(memcmp(&recs[0], &found[7].first, sizeof recs[0]), 0);
    EXPECT_EQ(memcmp(&recs[2], &found[9].first, sizeof recs[0]), 0);
    EXPECT_EQ(g_recctx.finds[h].cursor, 6);
    rec_find_close(h);
}

TEST_F(RecFind, NinthSearchRefusedAndBadInput) {
    make(0, 0, at(12, 1, 0), 5, 1);
    const struct tm start = at(12, 0, 0);
    const struct tm end = at(12, 23, 0);
    std::vector<int> handles;
    for (int i = 0; i < RECSTORE_FIND_SLOTS; i++) {
        const int h = rec_find_open(&start, &end, 1, 0, kAnyMode, kAllMatches, 4, 0);
        ASSERT_EQ(h, i);
        EXPECT_EQ(rec_find_getcounts(h), 1);
        handles.push_back(h);
    }
    {
        StdoutCapture out;
        EXPECT_EQ(rec_find_open(&start, &end, 1, 0, kAnyMode, kAllMatches, 4, 0), -1);
        const std::string text = out.stop();
        EXPECT_NE(text.find("reach the max find count"), std::string::npos) << text;
    }
    rec_find_close(3);
    EXPECT_EQ(rec_find_open(&start, &end, 1, 0, kAnyMode, kAllMatches, 4, 0), 3);
    {
        StdoutCapture out;
        EXPECT_EQ(rec_find_open(nullptr, &end, 1, 0, kAnyMode, kAllMatches, 4, 0), -1);
        EXPECT_EQ(rec_find_open(&start, nullptr, 1, 0, kAnyMode, kAllMatches, 4, 0), -1);
        const std::string text = out.stop();
        EXPECT_NE(text.find("invalid param\n"), std::string::npos) << text;
    }
    // A range that ends before it starts finds nothing on any disk.
    rec_find_close(7);
    const int h = rec_find_open(&end, &start, 1, 0, kAnyMode, kAllMatches, 4, 0);
    ASSERT_EQ(h, 7);
    EXPECT_EQ(rec_find_getcounts(h), 0);
    EXPECT_EQ(rec_find_getcounts(RECSTORE_FIND_SLOTS), -1);
    EXPECT_EQ(rec_find_channel_getcounts(0, RECSTORE_MAX_CHANNELS), -1);
}

TEST_F(RecFind, CalendarOfBothDisks) {
    make(0, 4, at(3, 10, 0), 5, 1);
    make(1, 4, at(29, 23, 0), 5, 1);
    make(1, 40, at(15, 10, 0), 5, 1);
    unsigned char days[32];
    memset(days, 0xEE, sizeof days);
    ASSERT_EQ(rec_get_calendar(1u << 4, 0, 2024, 2, days), 0);
    for (int d = 0; d < 29; d++) {
        EXPECT_EQ(days[d], (d == 2 || d == 28) ? 1 : 0) << "day " << d + 1;
    }
    EXPECT_EQ(days[29], 0xEE) << "February 2024 has 29 days";
    // Channel 40 is found through the cache only by the narrowed channel test: never.
    memset(days, 0, sizeof days);
    ASSERT_EQ(rec_get_calendar(0, 1u << 8, 2024, 2, days), 0);
    EXPECT_EQ(days[14], fs_use_cache() ? 0 : 1);
}

TEST_F(RecFind, CalendarOfAThirtyOneDayMonth) {
    make(0, 0, make_tm(2026, 10, 1, 0, 0, 0), 25, 1);
    make(0, 63, make_tm(2026, 10, 17, 12, 0, 9), 25, 1);
    make(1, 5, make_tm(2026, 10, 31, 23, 30, 0), 25, 1);
    unsigned char days[31];
    memset(days, 0xEE, sizeof days);
    LogMask loud(kAllLevels);
    StdoutCapture out;
    ASSERT_EQ(rec_get_calendar(0xFFFFFFFFu, 0xFFFFFFFFu, 2026, 10, days), 0);
    const std::string text = out.stop();
    for (int d = 0; d < 31; d++) {
        const bool want = d == 0 || d == 30 || (d == 16 && !fs_use_cache());
        EXPECT_EQ(days[d], want ? 1 : 0) << "day " << d + 1 << "\n" << text;
    }
}

// The same searches without the cache: the walks over the index partitions.
class RecFindNoCache : public RecFind {
  protected:
    int flags() const override { return RECSTORE_FS_NOCACHE; }
};

TEST_F(RecFindNoCache, SortModesPagingAndTheWholeRecordInfo) {
    sort_modes_paging_and_records(*this);
}

TEST_F(RecFindNoCache, CalendarAndSearchOverTheIndexFiles) {
    make(0, 40, at(15, 10, 0), 5, 1);
    make(1, 41, at(16, 10, 0), 5, 1);
    unsigned char days[31] = {};
    ASSERT_EQ(rec_get_calendar(0, 3u << 8, 2024, 2, days), 0);
    EXPECT_EQ(days[14], 1);
    EXPECT_EQ(days[15], 1);
    const struct tm start = at(1, 0, 0);
    const struct tm end = at(29, 23, 59);
    const int h = rec_find_open(&start, &end, 3ull << 40, 0, kAnyMode, kAllMatches, kMany, 3);
    ASSERT_GE(h, 0);
    EXPECT_EQ(rec_find_getcounts(h), 2);
    EXPECT_EQ(rec_find_channel_getcounts(h, 40), 1);
    EXPECT_EQ(rec_find_channel_getcounts(h, 41), 1);
    rec_find_close(h);
}

TEST(RecFindLifecycle, NothingWithoutTheLibrary) {
    ASSERT_TRUE(rig::active());
    const struct tm start = at(1, 0, 0);
    unsigned char days[31];
    EXPECT_EQ(rec_find_open(&start, &start, 1, 0, kAnyMode, kAllMatches, 4, 0), -1);
    EXPECT_EQ(rec_get_calendar(1, 0, 2024, 2, days), -1);
}

}  // namespace
