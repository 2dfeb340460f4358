// Unit tests of the search and calendar walk actions on the paths that decide by name alone (no
// file is opened): the channel tests of the cache walks (narrowed to a 32-bit signed mask) and of
// the index-partition walks (exact), the year, month, day and type ranges, the stops, and the
// calendar's report of a day from a cache file's or an index file's name.
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "capture.h"
#include "recording.h"
#include "recstore.h"
#include "test_util.h"

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

using recording_test::make_tm;

constexpr unsigned kLogAll = 0xB;

using recstore_test::contains;

fs_find_req find_req(uint64_t chanbits) {
    fs_find_req r;
    memset(&r, 0, sizeof r);
    r.disk = 0;
    r.chanbits = chanbits;
    r.substream = 0;
    r.modmask = 0xFF;
    r.matchflags = 15;
    r.maxcount = 100;
    r.start = make_tm(2024, 2, 28, 10, 0, 0);
    r.end = make_tm(2024, 2, 28, 12, 0, 0);
    return r;
}

fs_calendar_req calendar_req(uint64_t chanbits) {
    fs_calendar_req r;
    memset(&r, 0, sizeof r);
    r.chanbits = chanbits;
    r.day = 27;
    r.start = make_tm(2024, 2, 28, 0, 0, 0);
    r.end = make_tm(2024, 2, 28, 23, 59, 59);
    return r;
}

int cache_find(const char *path, fs_find_req *r) {
    return cache_findaction(path, nullptr, r);
}

int file_find(const char *path, fs_find_req *r) {
    return file_findaction(path, nullptr, r);
}

TEST(FindActions, CacheChannelTestIsASignExtendedThirtyTwoBitMask) {
    // Channels 0-30: their own bit.
    fs_find_req r = find_req(1ull << 5);
    EXPECT_EQ(cache_find("/mnt/cache/sda/05", &r), 1);
    EXPECT_EQ(cache_find("/mnt/cache/sda/06", &r), 2);
    r = find_req(1ull << 30);
    EXPECT_EQ(cache_find("/mnt/cache/sda/30", &r), 1);
    // Channel 31: bit 31 or any bit above it.
    for (int bit : {31, 32, 35, 40, 63}) {
        r = find_req(1ull << bit);
        EXPECT_EQ(cache_find("/mnt/cache/sda/31", &r), 1) << bit;
    }
    r = find_req(1ull << 30);
    EXPECT_EQ(cache_find("/mnt/cache/sda/31", &r), 2);
    // Channels 32-63: never, whatever the bits.
    r = find_req(~0ull);
    for (const char *p : {"/mnt/cache/sda/32", "/mnt/cache/sda/40", "/mnt/cache/sda/63"}) {
        EXPECT_EQ(cache_find(p, &r), 2) << p;
    }
    // Channels outside 0-63 read from a garbage name: never.
    EXPECT_EQ(cache_find("/mnt/cache/sda/99", &r), 2);
    EXPECT_EQ(cache_find("/mnt/cache/sda/-1", &r), 2);

    LogMask mask(kLogAll);
    StdoutCapture out;
    r = find_req(1ull << 35);
    EXPECT_EQ(cache_find("/mnt/cache/sda/35", &r), 2);
    EXPECT_TRUE(contains(out.stop(), "chanbits :34359738368 finded :35\n"));
}

TEST(FindActions, FileChannelTestIsExact) {
    fs_find_req r = find_req(1ull << 35);
    EXPECT_EQ(file_find("/mnt/sda/35", &r), 1);
    EXPECT_EQ(file_find("/mnt/sda/31", &r), 2);
    r = find_req(1ull << 63);
    EXPECT_EQ(file_find("/mnt/sda/63", &r), 1);
    EXPECT_EQ(file_find("/mnt/sda/99", &r), 2);
    LogMask mask(kLogAll);
    StdoutCapture out;
    r = find_req(1ull << 35);
    EXPECT_EQ(file_find("/mnt/sda/31", &r), 2);
    EXPECT_TRUE(contains(out.stop(), "chnbits :34359738368 finded :31\n"));
}

TEST(FindActions, CalendarChannelTests) {
    fs_calendar_req r = calendar_req(1ull << 35);
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/31", &r), 1);
    EXPECT_EQ(file_calendar_action("/mnt/sda/31", &r), 2);
    EXPECT_EQ(file_calendar_action("/mnt/sda/35", &r), 1);
    LogMask mask(kLogAll);
    StdoutCapture out;
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/35", &r), 2);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "chanbits :34359738368 found :35\n")) << text;
}

TEST(FindActions, DirectoryRangesAndTypeOfTheSearch) {
    LogMask mask(kLogAll);
    for (bool cache : {true, false}) {
        const std::string root = cache ? "/mnt/cache/sda/05" : "/mnt/sda/05";
        auto act = [&](const std::string &rest, fs_find_req *r) {
            const std::string p = root + rest;
            return cache ? cache_find(p.c_str(), r) : file_find(p.c_str(), r);
        };
        fs_find_req r = find_req(1ull << 5);
        StdoutCapture out;
        EXPECT_EQ(act("", &r), 1);
        EXPECT_EQ(act("/2024", &r), 1);
        EXPECT_EQ(act("/2023", &r), 2);
        EXPECT_EQ(act("/2025", &r), 2);
        EXPECT_EQ(act("/2024/02", &r), 1);
        EXPECT_EQ(act("/2024/03", &r), 2);
        EXPECT_EQ(act("/2024/02/28", &r), 1);
        EXPECT_EQ(act("/2024/02/27", &r), 2);
        EXPECT_EQ(act("/2024/02/29", &r), 2);
        EXPECT_EQ(act("/2024/02/28/00", &r), 1);
        EXPECT_EQ(act("/2024/02/28/01", &r), 2);
        // Strays at the directory levels are judged by what their names read as.
        EXPECT_EQ(act("/2024/stray", &r), 1);
        EXPECT_EQ(act("/zz", &r), 1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "year :2023 out of range\n")) << text;
        EXPECT_TRUE(contains(text, "year :2025 out of range\n")) << text;
        EXPECT_TRUE(contains(text, "year:2024 mon :3 out of range\n")) << text;
        EXPECT_TRUE(contains(text, "year:2024 mon :2 day:27 out of range\n")) << text;
        EXPECT_TRUE(contains(text, "year:2024 mon :2 day:29 out of range\n")) << text;
        EXPECT_TRUE(contains(text, "substream not match:0 :1\n")) << text;
        EXPECT_EQ(r.count, 0);
    }
    // The range reaches the last second of a day, month and year directory.
    fs_find_req r = find_req(1ull << 5);
    r.start = make_tm(2023, 12, 31, 23, 59, 59);
    r.end = r.start;
    EXPECT_EQ(cache_find("/mnt/cache/sda/05/2023/12/31", &r), 1);
    EXPECT_EQ(cache_find("/mnt/cache/sda/05/2024", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/05/2023/12", &r), 1);
    // ... and the first second.
    r.start = make_tm(2024, 1, 1, 0, 0, 0);
    r.end = r.start;
    EXPECT_EQ(cache_find("/mnt/cache/sda/05/2024/01/01", &r), 1);
    EXPECT_EQ(file_find("/mnt/sda/05/2023", &r), 2);
}

TEST(FindActions, UnparsableAndLinkPaths) {
    LogMask mask(kLogAll);
    fs_find_req r = find_req(~0ull);
    StdoutCapture out;
    EXPECT_EQ(cache_find("/tmp/elsewhere", &r), 2);
    EXPECT_EQ(file_find("/tmp/elsewhere", &r), 2);
    EXPECT_EQ(cache_find("", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/link", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/link/00000001/0520240228100000_00", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/05/2024/02/28/00/link", &r), 2);
    // Index names cut short or impossible are strays: passed over without opening anything.
    EXPECT_EQ(file_find("/mnt/sda/05/2024/02/28/00/05", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/05/2024/02/28/00/0520240228", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/05/2024/02/28/00/0520240228109999_00", &r), 2);
    EXPECT_EQ(file_find("/mnt/sda/05/2024/02/28/00/9920240228100000_00", &r), 2);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "invalid level\n")) << text;
    EXPECT_EQ(r.count, 0);
    EXPECT_EQ(cache_find(nullptr, &r), 2);
    EXPECT_EQ(file_find(nullptr, &r), 2);
    EXPECT_EQ(cache_calendar_action(nullptr, &r), 2);
    EXPECT_EQ(file_calendar_action("/mnt/sda/05", nullptr), 2);
}

TEST(FindActions, MaxCountStopsBeforeTheName) {
    fs_find_req r = find_req(~0ull);
    r.count = 3;
    r.maxcount = 3;
    StdoutCapture out;
    EXPECT_EQ(cache_find("/mnt/cache/sda/05", &r), 0);
    EXPECT_EQ(file_find("/mnt/sda/link", &r), 0);
    EXPECT_EQ(cache_find("/tmp/elsewhere", &r), 0);
    const std::string text = out.stop();
    EXPECT_NE(text.find("reach max count:3 3\nreach max count:3 3\nreach max count:3 3\n"),
              std::string::npos)
        << text;
    r.maxcount = 4;
    EXPECT_EQ(file_find("/mnt/sda/05", &r), 1);
}

struct DayLog {
    std::vector<int> days;
    int answer = 1;
};

int on_day(fs_calendar_req *r, void *context) {
    DayLog *log = static_cast<DayLog *>(context);
    log->days.push_back(r->day);
    return log->answer;
}

TEST(FindActions, CalendarReportsADayFromACacheFileName) {
    DayLog log;
    fs_calendar_req r = calendar_req(1ull << 5);
    r.callback = on_day;
    r.context = &log;
    StdoutCapture out;
    // Another date: out of range, not reported.
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/05/2024/02/27/00/cache", &r), 2);
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/05/2024/02/28/01", &r), 2);
    EXPECT_TRUE(log.days.empty());
    // A callback that does not accept leaves the day open.
    log.answer = 0;
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/05/2024/02/28/00/cache", &r), 2);
    EXPECT_EQ(r.found, 0);
    log.answer = 1;
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/05/2024/02/28/00/cache", &r), 0);
    EXPECT_EQ(r.found, 1);
    EXPECT_EQ(log.days, (std::vector<int>{27, 27}));
    // Reported once: every further path ends the walk at once.
    EXPECT_EQ(cache_calendar_action("/mnt/cache/sda/06", &r), 0);
    EXPECT_EQ(file_calendar_action("/mnt/sda/06", &r), 0);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "find calendar chn:20 name:/mnt/cache/sda/05/2024/02/28/00/cache\n"))
        << text;
    EXPECT_NE(text.find("reach max count:1 1\nreach max count:1 1\n"), std::string::npos) << text;
    EXPECT_EQ(log.days.size(), 2u);
}

TEST(FindActions, CalendarReportsADayFromAnIndexFileStart) {
    DayLog log;
    fs_calendar_req r = calendar_req(1ull << 5);
    r.callback = on_day;
    r.context = &log;
    r.start = make_tm(2024, 2, 28, 1, 0, 0);
    r.end = make_tm(2024, 2, 29, 0, 59, 59);
    LogMask mask(kLogAll);
    StdoutCapture out;
    EXPECT_EQ(file_calendar_action("/mnt/sda/05/2024/02/28/00/0520240228003000_00", &r), 2);
    EXPECT_EQ(file_calendar_action("/mnt/sda/05/2024/02/28/00/05", &r), 2);
    EXPECT_EQ(r.found, 0);
    EXPECT_EQ(file_calendar_action("/mnt/sda/05/2024/02/29/00/0520240229005959_00", &r), 0);
    EXPECT_EQ(r.found, 1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "time out of range:Wed Feb 28 00:30:00 2024\n")) << text;
    EXPECT_TRUE(contains(text,
                         "find calendar chn:20 name:/mnt/sda/05/2024/02/29/00/"
                         "0520240229005959_00\n"))
        << text;
    EXPECT_EQ(log.days, (std::vector<int>{27}));
}

}  // namespace
