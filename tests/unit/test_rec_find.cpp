// The search and calendar API without disks: the eight find slots and their refusals, the
// collecting callback filled directly (as the per-disk search calls it), the sort modes, paging
// through the whole list and through one channel's run, the byte layout of what the host
// receives, the marking of calendar days and the month view's clearing.
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "test_util.h"

// A refused allocation must come back as a null pointer under the sanitizers too: the failed
// allocation of a search's result space is what one test checks.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char *__tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

using recording_test::make_tm;

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr int kNoCache = 4;
constexpr unsigned kAllLevels = 0xB;
constexpr uint64_t kAllChannels = ~0ull;
constexpr int kAllModes = 0xFF;
constexpr int kEveryOverlap = 15;
constexpr unsigned char kUntouched = 0xEE;

using recstore_test::contains;

using recstore_test::occurrences;

template <typename Fn>
std::string printed(Fn fn) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fn();
    return out.stop();
}

// The found record of a recording of `channel` that starts `minute` minutes into 2024-05-17 08:00.
fs_find_record found_of(uint32_t channel, int minute, uint32_t type = 0) {
    fs_find_record f;
    memset(&f, 0, sizeof f);
    const struct tm start = make_tm(2024, 5, 17, 8, minute, 0);
    to_fs_tm(&start, &f.start);
    f.channel = channel;
    f.type = type;
    f.disk_id = 3;
    const struct tm end = make_tm(2024, 5, 17, 9, minute, 0);
    to_fs_tm(&end, &f.end);
    return f;
}

recordinfo info_of(const fs_find_record &f) {
    recordinfo info;
    memset(&info, 0, sizeof info);
    info.disk_id = static_cast<uint32_t>(f.disk_id);
    info.channel = f.channel;
    info.start_time = f.start;
    info.end_time = f.end;
    info.mode = 0x5;
    info.entry_count = f.start.tm_min + 1u;
    info.total_bytes = 0x0000000300001000ull + f.start.tm_min;
    info.frame_count = 7;
    info.attr_d = 0x44;
    return info;
}

// The minute (words 0-10's tm_min) and channel (word 11) of a 60-byte record the host received.
int minute_of(const rec_param &r) {
    return r.start.tm_min;
}

class RecFind : public ::testing::Test {
  protected:
    void SetUp() override {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
        start_ = make_tm(2024, 5, 17, 0, 0, 0);
        end_ = make_tm(2024, 5, 18, 0, 0, 0);
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        rec_exit();
    }

    // A search without disks: an open slot with room for maxcount results and none stored.
    int open(int maxcount, int sortmode = 0) {
        return rec_find_open(&start_, &end_, kAllChannels, 0, kAllModes, kEveryOverlap, maxcount,
                             sortmode);
    }

    // Stores one result through the collecting callback, as the per-disk search does.
    int add(int h, uint32_t channel, int minute) {
        const fs_find_record f = found_of(channel, minute);
        const recordinfo info = info_of(f);
        return rec_action(&f, &info, &g_recctx.finds[h]);
    }

    // A search holding `n` results of channel 2 at minutes 0..n-1, in that order.
    int open_with(int n, int maxcount) {
        const int h = open(maxcount);
        EXPECT_GE(h, 0);
        if (h < 0) return h;
        LogMask quiet(0, 0);
        for (int i = 0; i < n; i++) EXPECT_EQ(add(h, 2, i), 1);
        return h;
    }

    std::vector<int> minutes(const rec_param *recs, int n) {
        std::vector<int> out;
        for (int i = 0; i < n; i++) out.push_back(minute_of(recs[i]));
        return out;
    }

    struct tm start_;
    struct tm end_;
};

TEST_F(RecFind, OpenTakesTheLowestFreeSlot) {
    for (int i = 0; i < RECSTORE_FIND_SLOTS; i++) EXPECT_EQ(open(4), i);
    for (const rec_find_slot &s : g_recctx.finds) {
        EXPECT_EQ(s.in_use, 1u);
        EXPECT_EQ(s.max_count, 4);
        EXPECT_EQ(s.count, 0);
        EXPECT_NE(s.results, nullptr);
    }
    rec_find_close(3);
    EXPECT_EQ(g_recctx.finds[3].in_use, 0u);
    EXPECT_EQ(open(4), 3);
}

TEST_F(RecFind, NinthOpenIsRefused) {
    for (int i = 0; i < RECSTORE_FIND_SLOTS; i++) ASSERT_EQ(open(4), i);
    int h = 0;
    const std::string out = printed([&] { h = open(4); });
    EXPECT_EQ(h, -1);
    EXPECT_TRUE(contains(out, "reach the max find count\n")) << out;
}

TEST_F(RecFind, OpenRefusesNullTimesNegativeCountsAndAnUninitialisedLibrary) {
    std::string out = printed([&] {
        EXPECT_EQ(rec_find_open(nullptr, &end_, kAllChannels, 0, kAllModes, 15, 4, 0), -1);
    });
    EXPECT_TRUE(contains(out, "invalid param\n")) << out;
    out = printed([&] {
        EXPECT_EQ(rec_find_open(&start_, nullptr, kAllChannels, 0, kAllModes, 15, 4, 0), -1);
    });
    EXPECT_TRUE(contains(out, "invalid param\n")) << out;
    out = printed([&] { EXPECT_EQ(open(-1), -1); });
    EXPECT_TRUE(contains(out, "invalid max count:-1\n")) << out;
    for (const rec_find_slot &s : g_recctx.finds) EXPECT_EQ(s.in_use, 0u) << "no slot taken";
    rec_exit();
    EXPECT_EQ(open(4), -1);
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    }
}

TEST_F(RecFind, FailedAllocationKeepsTheSlotInUse) {
    int h = 0;
    // INT_MAX results of 192 bytes: more than the machine (or a 32-bit address space) holds.
    const std::string out = printed([&] { h = open(INT_MAX); });
    EXPECT_EQ(h, -1);
    EXPECT_TRUE(contains(out, "malloc result space failed\n")) << out;
    EXPECT_EQ(g_recctx.finds[0].in_use, 1u);
    EXPECT_EQ(g_recctx.finds[0].results, nullptr);
    EXPECT_EQ(open(4), 1) << "slot 0 stays taken";
    rec_find_close(0);
    EXPECT_EQ(open(4), 0);
    // Re-initialisation frees every slot too.
    EXPECT_EQ(open(INT_MAX), -1);
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    }
    for (const rec_find_slot &s : g_recctx.finds) {
        EXPECT_EQ(s.in_use, 0u);
        EXPECT_EQ(s.results, nullptr);
    }
}

TEST_F(RecFind, ExitAndInitFreeResultsStillHeld) {
    const int a = open_with(5, 8);
    const int b = open_with(3, 8);
    ASSERT_EQ(a, 0);
    ASSERT_EQ(b, 1);
    {
        LogMask quiet(0, 0);
        rec_exit();
    }
    for (const rec_find_slot &s : g_recctx.finds) {
        EXPECT_EQ(s.in_use, 0u);
        EXPECT_EQ(s.count, 0);
        EXPECT_EQ(s.results, nullptr);
    }
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    }
    ASSERT_EQ(open_with(2, 2), 0);
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);  // again, without rec_exit
    }
    EXPECT_EQ(g_recctx.finds[0].in_use, 0u);
    EXPECT_EQ(g_recctx.finds[0].results, nullptr);
}

TEST_F(RecFind, MaxCountTenOfTwentyFive) {
    const int h = open(10);
    ASSERT_GE(h, 0);
    int stored = 0;
    const std::string out = printed([&] {
        for (int i = 0; i < 25; i++) stored += add(h, static_cast<uint32_t>(i % 4), i);
    });
    EXPECT_EQ(stored, 10);
    EXPECT_EQ(rec_find_getcounts(h), 10);
    EXPECT_EQ(occurrences(out, "pctx->count:10,pctx->maxcount:10\n"), 15u) << out;
    int per_channel = 0;
    for (int c = 0; c < RECSTORE_MAX_CHANNELS; c++) per_channel += rec_find_channel_getcounts(h, c);
    EXPECT_EQ(per_channel, 10);
    EXPECT_EQ(rec_find_channel_getcounts(h, 0), 3);  // minutes 0, 4, 8
    EXPECT_EQ(rec_find_channel_getcounts(h, 1), 3);
    EXPECT_EQ(rec_find_channel_getcounts(h, 2), 2);
    EXPECT_EQ(rec_find_channel_getcounts(h, 3), 2);
}

TEST_F(RecFind, NextReturnsTheRemainderThenZero) {
    const int h = open_with(10, 10);
    rec_param recs[16];
    rec_find_info infos[16];
    EXPECT_EQ(rec_find_next(h, recs, infos, 4), 4);
    EXPECT_EQ(minutes(recs, 4), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(rec_find_next(h, recs, infos, 4), 4);
    EXPECT_EQ(minutes(recs, 4), (std::vector<int>{4, 5, 6, 7}));
    EXPECT_EQ(rec_find_next(h, recs, infos, 16), 2);
    EXPECT_EQ(minutes(recs, 2), (std::vector<int>{8, 9}));
    EXPECT_EQ(g_recctx.finds[h].cursor, 10);
    EXPECT_EQ(rec_find_next(h, recs, infos, 16), 0);
    EXPECT_EQ(rec_find_next(h, recs, infos, 0), 0);
    rec_find_reset(h);
    EXPECT_EQ(g_recctx.finds[h].cursor, 0);
    EXPECT_EQ(rec_find_next(h, recs, infos, 1), 1);
    EXPECT_EQ(minute_of(recs[0]), 0);
    EXPECT_EQ(rec_find_next(h, recs, infos, -1), -1) << "a negative count";
}

TEST_F(RecFind, ToEndThenPrevGivesTheLastResultsInOrder) {
    const int h = open_with(10, 10);
    rec_param recs[16];
    rec_find_info infos[16];
    rec_find_toend(h);
    EXPECT_EQ(g_recctx.finds[h].cursor, 9);
    EXPECT_EQ(rec_find_prev(h, recs, infos, 3), 3);
    EXPECT_EQ(minutes(recs, 3), (std::vector<int>{7, 8, 9}));
    EXPECT_EQ(infos[0].entry_count, 8u);
    EXPECT_EQ(infos[2].entry_count, 10u);
    EXPECT_EQ(g_recctx.finds[h].cursor, 6);
    // The rest back to the first: cursor 6 gives 7 results and ends before the first.
    EXPECT_EQ(rec_find_prev(h, recs, infos, 16), 7);
    EXPECT_EQ(minutes(recs, 7), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(g_recctx.finds[h].cursor, -1);
    EXPECT_EQ(rec_find_prev(h, recs, infos, 3), 0);
}

TEST_F(RecFind, EmptyResult) {
    const int h = open(10);
    ASSERT_GE(h, 0);
    rec_param recs[4];
    rec_find_info infos[4];
    EXPECT_EQ(rec_find_getcounts(h), 0);
    EXPECT_EQ(rec_find_next(h, recs, infos, 4), 0);
    rec_find_toend(h);
    EXPECT_EQ(g_recctx.finds[h].cursor, -1);
    EXPECT_EQ(rec_find_prev(h, recs, infos, 4), 0);
    EXPECT_EQ(g_recctx.finds[h].cursor, -1);
}

TEST_F(RecFind, CursorsOutsideTheResultsAreRefused) {
    const int h = open_with(10, 10);
    rec_param recs[16];
    rec_find_info infos[16];
    ASSERT_EQ(rec_find_next(h, recs, infos, 16), 10);
    // At the end of the results there is no result under the cursor to page back from.
    std::string out = printed([&] { EXPECT_EQ(rec_find_prev(h, recs, infos, 3), -1); });
    EXPECT_TRUE(contains(out, "find cursor:10 out of results:10\n")) << out;
    EXPECT_EQ(g_recctx.finds[h].cursor, 10);
    // Before the first result (where paging back ends) there is none to page forward from.
    rec_find_toend(h);
    ASSERT_EQ(rec_find_prev(h, recs, infos, 16), 10);
    ASSERT_EQ(g_recctx.finds[h].cursor, -1);
    out = printed([&] { EXPECT_EQ(rec_find_next(h, recs, infos, 3), -1); });
    EXPECT_TRUE(contains(out, "find cursor:-1 out of results:10\n")) << out;
    EXPECT_EQ(g_recctx.finds[h].cursor, -1);
    // An empty result moved to its end: nothing forward either.
    const int e = open(4);
    rec_find_toend(e);
    out = printed([&] { EXPECT_EQ(rec_find_next(e, recs, infos, 3), -1); });
    EXPECT_TRUE(contains(out, "find cursor:-1 out of results:0\n")) << out;
}

TEST_F(RecFind, ChannelsAbove63AreNeverStored) {
    const int h = open(10);
    ASSERT_GE(h, 0);
    for (uint32_t channel : {64u, 65u, 0xFFFFFFFFu}) {
        int r = 1;
        const std::string out = printed([&] { r = add(h, channel, 1); });
        EXPECT_EQ(r, 0);
        EXPECT_TRUE(
            contains(out, "channel err :" + std::to_string(static_cast<int>(channel)) + "\n"))
            << out;
    }
    EXPECT_EQ(rec_find_getcounts(h), 0);
    for (int c = 0; c < RECSTORE_MAX_CHANNELS; c++) EXPECT_EQ(rec_find_channel_getcounts(h, c), 0);
    EXPECT_EQ(add(h, 63, 1), 1);
    EXPECT_EQ(rec_find_channel_getcounts(h, 63), 1);
}

TEST_F(RecFind, NullSlotAndNullRecords) {
    const fs_find_record f = found_of(1, 1);
    const recordinfo info = info_of(f);
    int r = 1;
    std::string out = printed([&] { r = rec_action(&f, &info, nullptr); });
    EXPECT_EQ(r, 0);
    EXPECT_TRUE(contains(out, "pctx is null\n")) << out;
    const int h = open(4);
    out = printed([&] {
        EXPECT_EQ(rec_action(nullptr, &info, &g_recctx.finds[h]), 0);
        EXPECT_EQ(rec_action(&f, nullptr, &g_recctx.finds[h]), 0);
    });
    EXPECT_EQ(occurrences(out, "invalid param\n"), 2u) << out;
    EXPECT_EQ(rec_find_getcounts(h), 0);
    // A closed slot has no result space: nothing is stored into it.
    rec_find_close(h);
    out = printed([&] { EXPECT_EQ(rec_action(&f, &info, &g_recctx.finds[h]), 0); });
    EXPECT_TRUE(contains(out, "pctx->count:0,pctx->maxcount:0\n")) << out;
}

TEST_F(RecFind, SortByChannel) {
    const int h = open(16);
    const int channels[] = {9, 3, 40, 3, 0, 9, 63, 1};
    for (int i = 0; i < 8; i++) ASSERT_EQ(add(h, static_cast<uint32_t>(channels[i]), 50 - i), 1);
    do_rec_find_sort(&g_recctx.finds[h], 1);
    rec_param recs[8];
    rec_find_info infos[8];
    ASSERT_EQ(rec_find_next(h, recs, infos, 8), 8);
    const uint32_t want[] = {0, 1, 3, 3, 9, 9, 40, 63};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(recs[i].channel, want[i]) << i;
        EXPECT_EQ(infos[i].channel, want[i]) << "both pieces move together, " << i;
    }
}

TEST_F(RecFind, SortByStartTime) {
    const int h = open(16);
    const int mins[] = {30, 5, 59, 0, 17, 42, 1};
    for (int i = 0; i < 7; i++) ASSERT_EQ(add(h, static_cast<uint32_t>(i * 7), mins[i]), 1);
    // One more a day earlier at a later minute: the whole time counts, not the minute.
    fs_find_record early = found_of(5, 58);
    early.start.tm_mday = 16;
    const recordinfo info = info_of(early);
    ASSERT_EQ(rec_action(&early, &info, &g_recctx.finds[h]), 1);
    do_rec_find_sort(&g_recctx.finds[h], 2);
    rec_param recs[8];
    rec_find_info infos[8];
    ASSERT_EQ(rec_find_next(h, recs, infos, 8), 8);
    EXPECT_EQ(recs[0].start.tm_mday, 16);
    EXPECT_EQ(minutes(recs + 1, 7), (std::vector<int>{0, 1, 5, 17, 30, 42, 59}));
    for (int i = 0; i < 8; i++) EXPECT_EQ(infos[i].start_time.tm_min, recs[i].start.tm_min);
}

TEST_F(RecFind, OtherSortModesKeepTheOrderFound) {
    for (int mode : {0, 4, -1, 99}) {
        const int h = open(8);
        const int mins[] = {30, 5, 59, 0};
        const uint32_t chans[] = {7, 2, 9, 1};
        for (int i = 0; i < 4; i++) ASSERT_EQ(add(h, chans[i], mins[i]), 1);
        do_rec_find_sort(&g_recctx.finds[h], mode);
        rec_param recs[4];
        rec_find_info infos[4];
        ASSERT_EQ(rec_find_next(h, recs, infos, 4), 4);
        EXPECT_EQ(minutes(recs, 4), (std::vector<int>{30, 5, 59, 0})) << "mode " << mode;
        rec_find_close(h);
    }
}

// Channel 5: minutes 40, 10, 30, 20, 0; channel 2: 7, 3; channel 60: 1.
class RecFindChannels : public RecFind {
  protected:
    void SetUp() override {
        RecFind::SetUp();
        h_ = open(16);
        ASSERT_GE(h_, 0);
        const uint32_t chans[] = {5, 60, 5, 2, 5, 5, 2, 5};
        const int mins[] = {40, 1, 10, 7, 30, 20, 3, 0};
        for (int i = 0; i < 8; i++) ASSERT_EQ(add(h_, chans[i], mins[i]), 1);
        do_rec_find_sort(&g_recctx.finds[h_], 3);
    }
    int h_ = -1;
};

TEST_F(RecFindChannels, ModeThreeOrdersByChannelThenTime) {
    rec_param recs[8];
    rec_find_info infos[8];
    ASSERT_EQ(rec_find_next(h_, recs, infos, 8), 8);
    const uint32_t want_chan[] = {2, 2, 5, 5, 5, 5, 5, 60};
    const int want_min[] = {3, 7, 0, 10, 20, 30, 40, 1};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(recs[i].channel, want_chan[i]) << i;
        EXPECT_EQ(minute_of(recs[i]), want_min[i]) << i;
    }
}

TEST_F(RecFindChannels, PagingOneChannel) {
    EXPECT_EQ(rec_find_channel_getcounts(h_, 5), 5);
    EXPECT_EQ(rec_find_channel_getcounts(h_, 2), 2);
    EXPECT_EQ(rec_find_channel_getcounts(h_, 60), 1);
    EXPECT_EQ(rec_find_channel_getcounts(h_, 0), 0);
    rec_param recs[8];
    rec_find_info infos[8];
    EXPECT_EQ(rec_find_channel_next(h_, 5, recs, infos, 2), 2);
    EXPECT_EQ(minutes(recs, 2), (std::vector<int>{0, 10}));
    EXPECT_EQ(rec_find_channel_next(h_, 5, recs, infos, 8), 3);
    EXPECT_EQ(minutes(recs, 3), (std::vector<int>{20, 30, 40}));
    for (int i = 0; i < 3; i++) EXPECT_EQ(recs[i].channel, 5u);
    EXPECT_EQ(rec_find_channel_next(h_, 5, recs, infos, 8), 0);
    // The other channels' cursors and the whole-list cursor did not move.
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[2], 0);
    EXPECT_EQ(g_recctx.finds[h_].cursor, 0);
    EXPECT_EQ(rec_find_channel_next(h_, 60, recs, infos, 8), 1);
    EXPECT_EQ(recs[0].channel, 60u);
    EXPECT_EQ(minute_of(recs[0]), 1);
    // Back from the end of channel 5.
    rec_find_channel_toend(h_, 5);
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[5], 4);
    EXPECT_EQ(rec_find_channel_prev(h_, 5, recs, infos, 3), 3);
    EXPECT_EQ(minutes(recs, 3), (std::vector<int>{20, 30, 40}));
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[5], 1);
    EXPECT_EQ(rec_find_channel_prev(h_, 5, recs, infos, 3), 2);
    EXPECT_EQ(minutes(recs, 2), (std::vector<int>{0, 10}));
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[5], -1);
    EXPECT_EQ(rec_find_channel_prev(h_, 5, recs, infos, 3), 0);
    rec_find_channel_reset(h_, 5);
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[5], 0);
    EXPECT_EQ(rec_find_channel_next(h_, 2, recs, infos, 8), 2);
    EXPECT_EQ(minutes(recs, 2), (std::vector<int>{3, 7}));
    // An empty channel.
    rec_find_channel_toend(h_, 0);
    EXPECT_EQ(g_recctx.finds[h_].channel_cursor[0], -1);
    EXPECT_EQ(rec_find_channel_prev(h_, 0, recs, infos, 3), 0);
    rec_find_channel_reset(h_, 0);
    EXPECT_EQ(rec_find_channel_next(h_, 0, recs, infos, 3), 0);
    // Past the end of a channel's run the next channel's results are not handed out.
    rec_find_channel_reset(h_, 2);
    ASSERT_EQ(rec_find_channel_next(h_, 2, recs, infos, 8), 2);
    const std::string out =
        printed([&] { EXPECT_EQ(rec_find_channel_prev(h_, 2, recs, infos, 1), -1); });
    EXPECT_TRUE(contains(out, "find cursor:2 out of results:2\n")) << out;
}

TEST_F(RecFindChannels, ChannelsOutsideZeroTo63AreRefused) {
    rec_param recs[2];
    rec_find_info infos[2];
    for (int channel : {RECSTORE_MAX_CHANNELS, -1, 1000}) {
        const std::string out = printed([&] {
            EXPECT_EQ(rec_find_channel_next(h_, channel, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_channel_prev(h_, channel, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_channel_getcounts(h_, channel), -1);
            rec_find_channel_reset(h_, channel);
            rec_find_channel_toend(h_, channel);
        });
        EXPECT_EQ(occurrences(out, "invalid channel:" + std::to_string(channel) + "\n"), 5u) << out;
    }
    EXPECT_EQ(rec_find_getcounts(h_), 8);
}

TEST_F(RecFind, HandlesOutside0To7AreRefused) {
    ASSERT_EQ(open_with(3, 3), 0);
    rec_param recs[2];
    rec_find_info infos[2];
    for (int h : {8, -1, 1000, INT_MIN}) {
        const std::string out = printed([&] {
            EXPECT_EQ(rec_find_next(h, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_prev(h, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_getcounts(h), -1);
            rec_find_reset(h);
            rec_find_toend(h);
            EXPECT_EQ(rec_find_channel_next(h, 2, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_channel_prev(h, 2, recs, infos, 2), -1);
            EXPECT_EQ(rec_find_channel_getcounts(h, 2), -1);
            rec_find_channel_reset(h, 2);
            rec_find_channel_toend(h, 2);
            rec_find_close(h);
        });
        EXPECT_EQ(occurrences(out, "invalid find handle:" + std::to_string(h) + "\n"), 11u) << out;
    }
    EXPECT_EQ(rec_find_getcounts(0), 3) << "slot 0 untouched";
    EXPECT_EQ(g_recctx.finds[0].in_use, 1u);
}

TEST_F(RecFind, NullArraysAreRefused) {
    const int h = open_with(3, 3);
    rec_param recs[2];
    rec_find_info infos[2];
    const std::string out = printed([&] {
        EXPECT_EQ(rec_find_next(h, nullptr, infos, 2), -1);
        EXPECT_EQ(rec_find_next(h, recs, nullptr, 2), -1);
        EXPECT_EQ(rec_find_prev(h, nullptr, infos, 2), -1);
        EXPECT_EQ(rec_find_channel_next(h, 2, recs, nullptr, 2), -1);
        EXPECT_EQ(rec_find_channel_prev(h, 2, nullptr, infos, 2), -1);
    });
    EXPECT_EQ(occurrences(out, "NULL ptr\n"), 5u) << out;
    EXPECT_EQ(g_recctx.finds[h].cursor, 0);
    EXPECT_EQ(g_recctx.finds[h].channel_cursor[2], 0);
}

TEST_F(RecFind, WhatTheHostReceivesByteForByte) {
    const int h = open(4);
    // Words 0-14 of the found record with distinct values, word 15 (its disk) too.
    fs_find_record f;
    uint32_t words[sizeof f / 4];
    for (uint32_t i = 0; i < sizeof f / 4; i++) words[i] = 0x1000u + i;
    memcpy(&f, words, sizeof f);
    f.channel = 12;
    recordinfo info;
    memset(&info, 0xA5, sizeof info);
    info.disk_id = 6;
    info.channel = 12;
    for (int i = 0; i < 11; i++) {
        reinterpret_cast<int32_t *>(&info.start_time)[i] = 100 + i;
        reinterpret_cast<int32_t *>(&info.end_time)[i] = 200 + i;
    }
    info.mode = 0x81;
    info.entry_count = 4321;
    info.total_bytes = 0x1122334455667788ull;
    info.frame_count = 99;
    info.attr_d = 0xCAFE;
    info.ext_magic = RECSTORE_EXT_MAGIC;
    ASSERT_EQ(rec_action(&f, &info, &g_recctx.finds[h]), 1);
    info.ext_magic = 0x5a7c36d9u;
    ASSERT_EQ(rec_action(&f, &info, &g_recctx.finds[h]), 1);

    // The stored result: 48 words.
    const auto *raw = reinterpret_cast<const uint32_t *>(g_recctx.finds[h].results);
    for (int i = 0; i < 15; i++) EXPECT_EQ(raw[i], i == 11 ? 12u : 0x1000u + i) << "word " << i;
    EXPECT_EQ(raw[15], 0u) << "word 15 is not written";
    EXPECT_EQ(raw[16], 6u);
    EXPECT_EQ(raw[17], 12u);
    for (int i = 0; i < 11; i++) {
        EXPECT_EQ(raw[18 + i], 100u + i);
        EXPECT_EQ(raw[29 + i], 200u + i);
    }
    EXPECT_EQ(raw[40], 0x81u);
    EXPECT_EQ(raw[41], 4321u);
    EXPECT_EQ(raw[42], 0x55667788u);
    EXPECT_EQ(raw[43], 0x11223344u);
    EXPECT_EQ(raw[44], 99u);
    EXPECT_EQ(raw[45], 0xCAFEu);
    EXPECT_EQ(raw[46], 1u);
    EXPECT_EQ(raw[47], 0u) << "word 47 is not written";
    EXPECT_EQ(raw[48 + 46], 0u) << "any other extension mark: no extension";

    // The host's two arrays: 60 bytes from word 0, 128 bytes from word 16, at the same index.
    rec_param recs[3];
    rec_find_info infos[3];
    memset(recs, 0x5A, sizeof recs);
    memset(infos, 0x5A, sizeof infos);
    ASSERT_EQ(rec_find_next(h, recs, infos, 3), 2);
    EXPECT_EQ(sizeof recs[0], 60u);
    EXPECT_EQ(sizeof infos[0], 128u);
    for (int k = 0; k < 2; k++) {
        EXPECT_EQ(memcmp(&recs[k], raw + 48 * k, 60), 0) << k;
        EXPECT_EQ(memcmp(&infos[k], raw + 48 * k + 16, 128), 0) << k;
    }
    const unsigned char *untouched = reinterpret_cast<const unsigned char *>(&recs[2]);
    for (size_t i = 0; i < sizeof recs[2]; i++) ASSERT_EQ(untouched[i], 0x5A) << i;
    EXPECT_EQ(infos[0].disk_id, 6);
    EXPECT_EQ(infos[0].total_bytes_lo, 0x55667788u);
    EXPECT_EQ(infos[0].total_bytes_hi, 0x11223344u);
    EXPECT_EQ(infos[0].has_ext, 1u);
    EXPECT_EQ(infos[1].has_ext, 0u);
    // rec_find_prev copies the same pieces.
    rec_find_toend(h);
    ASSERT_EQ(rec_find_prev(h, recs, infos, 2), 2);
    EXPECT_EQ(memcmp(&recs[1], raw + 48, 60), 0);
    EXPECT_EQ(memcmp(&infos[1], raw + 48 + 16, 128), 0);
}

TEST_F(RecFind, ClosingClearsTheSlot) {
    const int h = open_with(4, 6);
    rec_param recs[2];
    rec_find_info infos[2];
    ASSERT_EQ(rec_find_next(h, recs, infos, 2), 2);
    rec_find_channel_toend(h, 2);
    rec_find_close(h);
    const rec_find_slot &s = g_recctx.finds[h];
    EXPECT_EQ(s.in_use, 0u);
    EXPECT_EQ(s.count, 0);
    EXPECT_EQ(s.cursor, 0);
    EXPECT_EQ(s.results, nullptr);
    for (int c = 0; c < RECSTORE_MAX_CHANNELS; c++) {
        EXPECT_EQ(s.channel_count[c], 0);
        EXPECT_EQ(s.channel_cursor[c], 0);
    }
    rec_find_close(h);  // twice is harmless
}

TEST_F(RecFind, Comparators) {
    rec_find_result a;
    rec_find_result b;
    memset(&a, 0, sizeof a);
    memset(&b, 0, sizeof b);
    a.record.channel = 3;
    b.record.channel = 40;
    EXPECT_EQ(rec_channel_compare(&a, &b), -1);
    EXPECT_EQ(rec_channel_compare(&b, &a), 1);
    EXPECT_EQ(rec_channel_compare(&a, &a), 0);
    const struct tm early = make_tm(2023, 12, 31, 23, 59, 59);
    const struct tm late = make_tm(2024, 1, 1, 0, 0, 0);
    to_fs_tm(&early, &a.record.start);
    to_fs_tm(&late, &b.record.start);
    EXPECT_LT(rec_time_compare(&a, &b), 0);
    EXPECT_GT(rec_time_compare(&b, &a), 0);
    EXPECT_EQ(rec_time_compare(&a, &a), 0);
}

TEST_F(RecFind, CalendarActionMarksDaysZeroTo30) {
    unsigned char days[32];
    memset(days, 0x80, sizeof days);
    fs_calendar_req req;
    memset(&req, 0, sizeof req);
    for (int d = 0; d <= 30; d++) {
        req.day = d;
        EXPECT_EQ(do_rec_get_calendar_action(&req, days), 1) << d;
    }
    for (int d = 0; d <= 30; d++) EXPECT_EQ(days[d], 0x81) << "bit 0 set, the rest kept, " << d;
    EXPECT_EQ(days[31], 0x80);
}

TEST_F(RecFind, CalendarActionRefusesDayIndex31) {
    unsigned char days[40];
    memset(days, 0, sizeof days);
    fs_calendar_req req;
    memset(&req, 0, sizeof req);
    for (int d : {31, 32, -1}) {
        req.day = d;
        int r = 1;
        std::string out;
        {
            // Plain: printed without prefix and whatever the log masks say.
            LogMask silent(0, 0);
            StdoutCapture cap;
            r = do_rec_get_calendar_action(&req, days);
            out = cap.stop();
        }
        EXPECT_EQ(r, 0);
        EXPECT_EQ(out, "index error:" + std::to_string(d) + "\n");
    }
    for (unsigned char b : days) EXPECT_EQ(b, 0);
    const std::string out = printed([&] {
        EXPECT_EQ(do_rec_get_calendar_action(nullptr, days), 0);
        EXPECT_EQ(do_rec_get_calendar_action(&req, nullptr), 0);
    });
    EXPECT_EQ(occurrences(out, "invalid param\n"), 2u) << out;
}

TEST_F(RecFind, CalendarOfFebruary2024ClearsTwentyNineBytes) {
    unsigned char days[32];
    memset(days, kUntouched, sizeof days);
    EXPECT_EQ(rec_get_calendar(0xFFFFFFFFu, 0xFFFFFFFFu, 2024, 2, days), 0);
    for (int d = 0; d < 29; d++) EXPECT_EQ(days[d], 0) << d;
    for (int d = 29; d < 32; d++) EXPECT_EQ(days[d], kUntouched) << d;
    memset(days, kUntouched, sizeof days);
    EXPECT_EQ(rec_get_calendar(1, 0, 2023, 2, days), 0);
    EXPECT_EQ(days[27], 0);
    EXPECT_EQ(days[28], kUntouched);
    memset(days, kUntouched, sizeof days);
    EXPECT_EQ(rec_get_calendar(1, 0, 2024, 12, days), 0);
    EXPECT_EQ(days[30], 0);
    EXPECT_EQ(days[31], kUntouched);
}

TEST_F(RecFind, CalendarRefusals) {
    unsigned char days[32];
    memset(days, kUntouched, sizeof days);
    const std::string out =
        printed([&] { EXPECT_EQ(rec_get_calendar(1, 0, 2024, 2, nullptr), -1); });
    EXPECT_TRUE(contains(out, "NULL ptr\n")) << out;
    {
        LogMask quiet(0, 0);
        rec_exit();
    }
    EXPECT_EQ(rec_get_calendar(1, 0, 2024, 2, days), -1);
    for (unsigned char b : days) EXPECT_EQ(b, kUntouched) << "nothing cleared before init";
    // Months outside 1..12 have no days: nothing is cleared.
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    }
    EXPECT_EQ(rec_get_calendar(1, 0, 2024, 13, days), 0);
    for (unsigned char b : days) EXPECT_EQ(b, kUntouched);
}

TEST_F(RecFind, DeleteAndMarkOld) {
    record_name r;
    memset(&r, 0, sizeof r);
    std::string out = printed([&] { EXPECT_EQ(rec_delete(nullptr), -1); });
    EXPECT_TRUE(contains(out, "invalid param\n")) << out;
    EXPECT_EQ(rec_delete(&r), -1) << "no disk holds it";
    EXPECT_EQ(rec_mark_old(), 0);
}

}  // namespace
