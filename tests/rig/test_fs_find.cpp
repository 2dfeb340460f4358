// Search and calendar of one disk on real disks inside the rig. A catalogue of a few thousand
// short recordings over 64 channels, two types, several modes and several days (across midnight,
// a month boundary and a leap day) is written once on two disks. Every search and calendar is
// compared with a brute-force answer computed from what was written: through the tmpfs cache
// (whose channel test is narrowed to 32 bits) and over the index partition without the cache,
// with and without the fast path that takes a recording's span from its index file's stamps.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kDisks = 2;
constexpr int kRandomRecordings = 2400;
constexpr int kMaxCount = 1 << 30;
constexpr int kAllFlags = 15;
constexpr int kFast = 0x10;
constexpr uint32_t kExtMagic = 0x5A7C36D8u;
constexpr int kDay = 86400;

// ---- what was written ------------------------------------------------------------------------

struct Rec {
    int disk;
    int channel;
    int type;
    time_t start;
    time_t end;
    uint32_t mode;
    uint32_t clusters;
    bool ext;
};

std::vector<Rec> g_recs;
bool g_built = false;
int g_flags = -1;  // mode flags of the running library, -1 when it is not running

struct tm utc(time_t t) {
    struct tm out;
    memset(&out, 0, sizeof out);
    gmtime_r(&t, &out);
    return out;
}

time_t at(int year, int mon, int day, int hour = 0, int min = 0, int sec = 0) {
    return secs(make_tm(year, mon, day, hour, min, sec));
}

time_t midnight_of(time_t t) {
    return t - ((t % kDay) + kDay) % kDay;
}

std::string asctime_of(time_t t) {
    struct tm tm = utc(t);
    char buf[32];
    asctime_r(&tm, buf);
    return buf;
}

using recstore_test::occurrences;

// ---- one found recording, as the callback saw it ---------------------------------------------

struct Found {
    int disk;
    int channel;
    int type;
    time_t start;
    time_t end;
    uint32_t mode;
    uint64_t total_bytes;
    uint32_t ext_magic;
    uint32_t entry_count;
    uint32_t info_channel;
    uint32_t info_type;
    std::tuple<int, int, int, time_t, time_t, uint32_t, uint64_t, uint32_t, uint32_t, uint32_t,
               uint32_t>
    key() const {
        return std::make_tuple(disk, channel, type, start, end, mode, total_bytes, ext_magic,
                               entry_count, info_channel, info_type);
    }
    bool operator<(const Found &o) const { return key() < o.key(); }
    bool operator==(const Found &o) const { return key() == o.key(); }
};

std::ostream &operator<<(std::ostream &os, const Found &f) {
    return os << "{disk " << f.disk << " ch " << f.channel << " type " << f.type << " " << f.start
              << "-" << f.end << " mode " << f.mode << " bytes " << f.total_bytes << " ext "
              << f.ext_magic << " entries " << f.entry_count << " ich " << f.info_channel
              << " itype " << f.info_type << "}";
}

struct Collector {
    std::vector<Found> found;
    int result = 1;  // what the callback answers
    int calls = 0;
};

time_t secs_of(const fs_tm &t) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    from_fs_tm(&tm, &t);
    return secs(tm);
}

int collect(const fs_find_record *rec, const recordinfo *info, void *context) {
    Collector *c = static_cast<Collector *>(context);
    c->calls++;
    Found f;
    f.disk = rec->disk_id;
    f.channel = static_cast<int>(rec->channel);
    f.type = static_cast<int>(rec->type);
    f.start = secs_of(rec->start);
    f.end = secs_of(rec->end);
    f.mode = info->mode;
    f.total_bytes = info->total_bytes;
    f.ext_magic = info->ext_magic;
    f.entry_count = info->entry_count;
    f.info_channel = info->channel;
    f.info_type = info->type;
    c->found.push_back(f);
    return c->result;
}

// ---- the brute-force answer ------------------------------------------------------------------

enum class Walk { cache, file, fast };

struct Query {
    uint64_t chans;
    time_t start;
    time_t end;
    int type;
    int modmask;
    int flags;
};

std::ostream &operator<<(std::ostream &os, const Query &q) {
    return os << "{chans 0x" << std::hex << q.chans << std::dec << " " << q.start << "-" << q.end
              << " type " << q.type << " modmask " << q.modmask << " flags " << q.flags << "}";
}

bool exact_selects(uint64_t chans, int channel) {
    return ((chans >> channel) & 1u) != 0;
}

// The cache's test of a channel directory, written out independently: bit n for channels 0-30,
// any bit from 31 up for channel 31, never for channels 32-63.
bool cache_dir_selects(uint64_t chans, int channel) {
    if (channel < 31) return ((chans >> channel) & 1u) != 0;
    if (channel == 31) return (chans >> 31) != 0;
    return false;
}

// A cache walk visits only the channels whose bit is set and then applies the directory test:
// channels 32-63 are never found, the others as their bit says.
bool cache_selects(uint64_t chans, int channel) {
    return exact_selects(chans, channel) && cache_dir_selects(chans, channel);
}

bool rule_holds(int flags, time_t rs, time_t re, time_t s, time_t e) {
    return ((flags & 1) && rs >= s && re >= e) || ((flags & 2) && rs <= s && re <= e) ||
           ((flags & 4) && rs >= s && re <= e) || ((flags & 8) && rs <= s && re >= e);
}

// Whether the recording is reported by a walk of the disk for the query. The walks reach a
// recording through the day directory of its start, which is pruned when that day lies wholly
// before the range: a recording that began the day before the range is not reached.
bool selected(const Rec &r, const Query &q, Walk walk) {
    const bool chan =
        walk == Walk::cache ? cache_selects(q.chans, r.channel) : exact_selects(q.chans, r.channel);
    if (!chan || r.type != q.type) return false;
    if (walk != Walk::fast && (r.mode & static_cast<uint32_t>(q.modmask)) == 0) return false;
    if (midnight_of(r.start) + kDay - 1 < q.start) return false;
    if (r.end < q.start || r.start > q.end) return false;
    return rule_holds(q.flags, r.start, r.end, q.start, q.end);
}

Found expected_found(const Rec &r, Walk walk) {
    Found f;
    f.disk = r.disk;
    f.channel = r.channel;
    f.type = r.type;
    f.start = r.start;
    f.end = r.end;
    const uint64_t bytes = uint64_t(r.clusters) * kCluster;
    f.mode = 0;
    f.total_bytes = bytes;
    f.ext_magic = r.ext ? kExtMagic : 0;
    f.entry_count = 0;
    f.info_channel = 0;
    f.info_type = 0;
    if (walk == Walk::cache) {
        f.mode = r.mode & 0xFF;
        f.total_bytes = bytes & 0xFFFF0000u;
        f.ext_magic = 0;
    } else if (walk == Walk::file) {
        f.mode = r.mode;
        f.entry_count = r.clusters;
        f.info_channel = static_cast<uint32_t>(r.channel);
        f.info_type = static_cast<uint32_t>(r.type);
    }
    return f;
}

std::vector<Found> brute(int disk, const Query &q, Walk walk) {
    std::vector<Found> out;
    for (const Rec &r : g_recs) {
        if (r.disk == disk && selected(r, q, walk)) out.push_back(expected_found(r, walk));
    }
    std::sort(out.begin(), out.end());
    return out;
}

// The calendar's brute force: the days (0-based) of the month the walk reports for the disk.
std::set<int> brute_calendar(int disk, uint64_t chans, int year, int month, bool cache, long west) {
    std::set<int> days;
    const int n = daysofmonth(year, month);
    for (int d = 1; d <= n; d++) {
        const time_t s = at(year, month, d) + west;
        const time_t e = at(year, month, d, 23, 59, 59) + west;
        for (const Rec &r : g_recs) {
            if (r.disk != disk || r.type != 0) continue;
            const bool chan =
                cache ? cache_selects(chans, r.channel) : exact_selects(chans, r.channel);
            if (!chan) continue;
            const time_t t = cache ? midnight_of(r.start) : r.start;
            if (t >= s && t <= e) days.insert(d - 1);
        }
    }
    return days;
}

// ---- calling the library ---------------------------------------------------------------------

std::vector<Found> run_find(int disk, const Query &q, int *result, Collector *c = nullptr) {
    Collector local;
    Collector &col = c ? *c : local;
    const struct tm s = utc(q.start);
    const struct tm e = utc(q.end);
    *result = fs_find(disk, &s, &e, q.type, static_cast<uint32_t>(q.chans),
                      static_cast<uint32_t>(q.chans >> 32), q.type, q.modmask, q.flags, kMaxCount,
                      collect, &col);
    std::vector<Found> out = col.found;
    std::sort(out.begin(), out.end());
    return out;
}

struct Days {
    std::vector<int> days;  // in the order reported
    std::vector<int> disks;
    int result = 1;
};

int collect_day(fs_calendar_req *req, void *context) {
    Days *d = static_cast<Days *>(context);
    d->days.push_back(req->day);
    d->disks.push_back(req->disk);
    return d->result;
}

std::set<int> run_calendar(int disk, uint64_t chans, int year, int month, int *result,
                           Days *out = nullptr) {
    Days local;
    Days &d = out ? *out : local;
    *result = fs_get_calendar(disk, 0, static_cast<uint32_t>(chans),
                              static_cast<uint32_t>(chans >> 32), year, month, collect_day, &d);
    return std::set<int>(d.days.begin(), d.days.end());
}

// ---- writing the catalogue -------------------------------------------------------------------

void write_rec(const Rec &r, Cluster &buf) {
    const struct tm start = utc(r.start);
    rec_param p = param_of(r.channel, start, r.type);
    std::vector<unsigned char> ext_data(64, 0x5A);
    ext_desc ext{7, static_cast<int32_t>(ext_data.size()), ext_data.data()};
    const int h = fs_open(r.disk, &p, O_CREAT | O_RDWR, r.mode, 0, r.ext ? &ext : nullptr);
    ASSERT_GE(h, 0) << r.channel << " " << r.start;
    for (uint32_t n = 0; n < r.clusters; n++) {
        fill_payload(buf.data(), static_cast<uint32_t>(r.channel), n);
        kframe frames[RECSTORE_MAX_KFRAMES];
        const uint32_t count = frames_of(n, r.start, frames);
        ASSERT_EQ(fs_write(h, buf.data(), kCluster, frames, count), int(kCluster));
    }
    const struct tm end = utc(r.end);
    fs_close(h, &end);
}

// Recordings placed for single cases, on disk 0 unless said.
constexpr int kLeapChannel = 5;     // one type-0 recording on every day of February 2024
constexpr int kTouchChannel = 7;    // 2024-03-05 10:00:00 - 10:10:00
constexpr int kType1Channel = 9;    // 2024-03-10: only a type-1 recording
constexpr int kWideChannel = 35;    // 2024-03-12: the only recording of a channel above 31
constexpr int kZoneChannel = 11;    // 2024-03-20 00:30 and 2024-03-22 12:00
constexpr int kStampChannel = 13;   // 2024-03-25: recordings with clusters, one with extension
constexpr int kGarbageChannel = 3;  // strays are put into this channel's trees

std::vector<Rec> make_catalogue() {
    std::vector<Rec> recs;
    std::set<std::tuple<int, int, time_t, int>> keys;
    auto add = [&](const Rec &r) {
        if (keys.insert(std::make_tuple(r.disk, r.channel, r.start, r.type)).second) {
            recs.push_back(r);
        }
    };
    for (int d = 1; d <= 29; d++) {
        add({0, kLeapChannel, 0, at(2024, 2, d, 12), at(2024, 2, d, 12, 1), 0x1, 0, false});
    }
    add({0, kTouchChannel, 0, at(2024, 3, 5, 10), at(2024, 3, 5, 10, 10), 0x1, 0, false});
    add({0, kType1Channel, 1, at(2024, 3, 10, 8), at(2024, 3, 10, 8, 30), 0x1, 0, false});
    add({0, kWideChannel, 0, at(2024, 3, 12, 9), at(2024, 3, 12, 9, 30), 0x1, 0, false});
    add({0, kZoneChannel, 0, at(2024, 3, 20, 0, 30), at(2024, 3, 20, 0, 31), 0x1, 0, false});
    add({0, kZoneChannel, 0, at(2024, 3, 22, 12), at(2024, 3, 22, 12, 5), 0x1, 0, false});
    add({0, kStampChannel, 0, at(2024, 3, 25, 10), at(2024, 3, 25, 10, 20), 0x40, 2, true});
    add({0, kStampChannel, 0, at(2024, 3, 25, 11), at(2024, 3, 25, 11, 20), 0x40, 1, false});
    add({0, kStampChannel, 0, at(2024, 3, 25, 12), at(2024, 3, 25, 12, 0), 0x40, 0, false});

    // The random part: 2024-02-27 to 2024-03-02, so across a leap day and a month boundary.
    std::mt19937 rng(20240229);
    const uint32_t modes[] = {0x1, 0x2, 0x4, 0x21, 0x80};
    const time_t first = at(2024, 2, 27);
    for (int i = 0; i < kRandomRecordings; i++) {
        Rec r;
        r.disk = static_cast<int>(rng() % kDisks);
        r.channel = static_cast<int>(rng() % RECSTORE_MAX_CHANNELS);
        r.type = rng() % 10 < 7 ? 0 : 1;
        const time_t day = first + static_cast<time_t>(rng() % 5) * kDay;
        if (rng() % 8 == 0) {
            // Late in the day and long enough to run past midnight.
            r.start = day + kDay - 1800 + static_cast<time_t>(rng() % 1800);
            r.end = r.start + 600 + static_cast<time_t>(rng() % 3000);
        } else {
            r.start = day + static_cast<time_t>(rng() % kDay);
            r.end = r.start + static_cast<time_t>(rng() % 3000);
        }
        r.mode = modes[rng() % 5];
        r.clusters = rng() % 60 == 0 ? 1 : 0;
        r.ext = false;
        add(r);
    }
    return recs;
}

// ---- the library's runs ----------------------------------------------------------------------

void stop_library() {
    if (g_flags < 0) return;
    LogMask quiet(0, 0);
    for (int h = 0; h < RECSTORE_STREAMS; h++) {
        if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
    }
    for (int d = kDisks - 1; d >= 0; d--) take_down(d);
    fs_exit();
    g_flags = -1;
}

// Runs the library with the given flags on the two disks; the first run writes the catalogue.
void use_flags(int flags) {
    if (g_flags == flags) return;
    stop_library();
    LogMask quiet(0, 0);
    ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags), 0);
    g_flags = flags;
    for (int d = 0; d < kDisks; d++) {
        bring_up(d, !g_built);
        if (::testing::Test::HasFatalFailure()) return;
    }
    if (g_built) return;
    for (int d = 0; d < kDisks; d++) {
        ASSERT_EQ(fs_changeblock(d, d, 0), 0);
        ASSERT_EQ(fs_getblockid(d), kBlock1);
    }
    g_recs = make_catalogue();
    Cluster buf;
    for (const Rec &r : g_recs) {
        write_rec(r, buf);
        if (::testing::Test::HasFatalFailure()) return;
    }
    g_built = true;
}

class Library : public ::testing::Environment {
  public:
    void TearDown() override { stop_library(); }
};
const bool g_library_registered = (::testing::AddGlobalTestEnvironment(new Library), true);

// The requests every walk is compared on.
std::vector<Query> queries() {
    const uint64_t all = ~0ull;
    const uint64_t low = 0xFFFFFFFFull;
    const uint64_t c31 = 1ull << 31;
    const uint64_t c32 = 1ull << 32;
    const uint64_t c40 = 1ull << 40;
    const uint64_t c63 = 1ull << 63;
    const uint64_t some = (1ull << 0) | (1ull << 6) | (1ull << 17) | c31 | c40 | c63;
    const time_t d28 = at(2024, 2, 28);
    const time_t d29 = at(2024, 2, 29);
    const time_t m1 = at(2024, 3, 1);
    std::vector<Query> q;
    const std::pair<time_t, time_t> ranges[] = {
        {d28 + 8 * 3600, d28 + 14 * 3600},   // inside one day
        {d28 + 23 * 3600, d29 + 2 * 3600},   // across midnight
        {d29 + 20 * 3600, m1 + 6 * 3600},    // across the month boundary
        {at(2024, 2, 26), at(2024, 3, 3)},   // the whole catalogue
        {d29 + 12 * 3600, d29 + 12 * 3600},  // one instant
        {m1, m1 + 30 * 60},                  // the first half hour of a month
    };
    const uint64_t masks[] = {all, low, c31, c32, c40, c63, some, c31 | c32};
    for (const auto &r : ranges) {
        for (uint64_t m : masks) q.push_back({m, r.first, r.second, 0, 0xFF, kAllFlags});
    }
    for (int flags : {0, 1, 2, 4, 8, 15}) {
        for (const auto &r : ranges) q.push_back({all, r.first, r.second, 0, 0xFF, flags});
    }
    for (int modmask : {0x1, 0x2, 0x4, 0x20, 0x80, 0x06}) {
        q.push_back({all, ranges[3].first, ranges[3].second, 0, modmask, kAllFlags});
        q.push_back({some, ranges[1].first, ranges[1].second, 1, modmask, 5});
    }
    for (const auto &r : ranges) q.push_back({all, r.first, r.second, 1, 0xFF, kAllFlags});
    return q;
}

class FindFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        use_flags(flags());
        ASSERT_TRUE(g_built);
        quiet_ = std::make_unique<LogMask>(0, 0);
    }
    void TearDown() override { quiet_.reset(); }
    virtual int flags() const = 0;

    // Compares every request of the set on both disks with the brute force for the walk.
    void compare_all(Walk walk) {
        int nonempty = 0;
        for (const Query &base : queries()) {
            Query q = base;
            if (walk == Walk::fast) q.flags |= kFast;
            for (int disk = 0; disk < kDisks; disk++) {
                int result = 0;
                const std::vector<Found> got = run_find(disk, q, &result);
                const std::vector<Found> want = brute(disk, q, walk);
                ASSERT_EQ(result, static_cast<int>(want.size())) << q << " disk " << disk;
                ASSERT_EQ(got, want) << q << " disk " << disk;
                if (!want.empty()) nonempty++;
            }
        }
        // The request set is only worth something if a good part of it finds recordings.
        EXPECT_GT(nonempty, static_cast<int>(queries().size()) / 2);
    }

    std::unique_ptr<LogMask> quiet_;
};

class FindCache : public FindFixture {
  protected:
    int flags() const override { return 0; }
};

class FindFile : public FindFixture {
  protected:
    int flags() const override { return kNoCache; }
};

// ---- the comparisons ---------------------------------------------------------------------------

TEST_F(FindCache, EveryRequestMatchesTheBruteForceWithTheNarrowedChannelTest) {
    ASSERT_TRUE(fs_use_cache());
    compare_all(Walk::cache);
    // The narrowing is visible: of channels 31 and 40 only 31 is found, though both have
    // recordings that the exact test finds.
    const Query all_days{
        (1ull << 31) | (1ull << 40), at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags};
    const std::vector<Found> exact = brute(0, all_days, Walk::file);
    int result = -1;
    const std::vector<Found> got = run_find(0, all_days, &result);
    ASSERT_FALSE(got.empty());
    ASSERT_GT(exact.size(), got.size());
    size_t of_31 = 0;
    for (const Found &f : exact) of_31 += f.channel == 31 ? 1 : 0;
    EXPECT_EQ(got.size(), of_31);
    for (const Found &f : got) EXPECT_EQ(f.channel, 31) << f;
}

TEST_F(FindCache, CallbackNotAcceptingStopsTheCacheFileAndIsNotCounted) {
    const Query q{~0ull, at(2024, 2, 27), at(2024, 3, 2, 23, 59, 59), 0, 0xFF, kAllFlags};
    Collector c;
    c.result = 0;
    int result = -1;
    run_find(0, q, &result, &c);
    EXPECT_EQ(result, 0);
    // One call per cache file (channel, day, type) holding a match: the first refusal ends the
    // reading of that file.
    std::set<std::tuple<int, time_t>> leaves;
    for (const Found &f : brute(0, q, Walk::cache))
        leaves.insert({f.channel, midnight_of(f.start)});
    EXPECT_EQ(c.calls, static_cast<int>(leaves.size()));
    EXPECT_GT(c.calls, 10);
    // A callback answering 2 is no different.
    Collector c2;
    c2.result = 2;
    run_find(0, q, &result, &c2);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(c2.calls, c.calls);
}

// ---- edge cases of the search (cache) ---------------------------------------------------------

TEST_F(FindCache, ChannelFortyFindsNothingThroughTheCache) {
    const Query q{1ull << 40, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags};
    ASSERT_FALSE(brute(0, q, Walk::file).empty()) << "channel 40 has recordings";
    for (int disk = 0; disk < kDisks; disk++) {
        int result = -1;
        EXPECT_TRUE(run_find(disk, q, &result).empty());
        EXPECT_EQ(result, 0);
    }
}

TEST_F(FindCache, StartEqualToEndAndTouchingRecordings) {
    const time_t s = at(2024, 3, 5, 10);
    const time_t e = at(2024, 3, 5, 10, 10);
    const uint64_t ch = 1ull << kTouchChannel;
    int result = -1;
    // The range is one instant: inside, at the start and at the end of the recording.
    for (time_t t : {s, s + 300, e}) {
        const std::vector<Found> got = run_find(0, {ch, t, t, 0, 0xFF, kAllFlags}, &result);
        ASSERT_EQ(result, 1) << t;
        EXPECT_EQ(got[0].start, s);
        EXPECT_EQ(got[0].end, e);
    }
    // The recording touches the range at one instant only: its end is the range's start, or its
    // start is the range's end.
    EXPECT_EQ(run_find(0, {ch, e, e + 3600, 0, 0xFF, kAllFlags}, &result).size(), 1u);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(run_find(0, {ch, s - 3600, s, 0, 0xFF, kAllFlags}, &result).size(), 1u);
    EXPECT_EQ(result, 1);
    // One second further away it does not overlap.
    EXPECT_TRUE(run_find(0, {ch, e + 1, e + 3600, 0, 0xFF, kAllFlags}, &result).empty());
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(run_find(0, {ch, s - 3600, s - 1, 0, 0xFF, kAllFlags}, &result).empty());
    EXPECT_EQ(result, 0);
}

TEST_F(FindCache, MatchFlagsZeroFindsNothingAndFifteenEveryOverlap) {
    const Query none{~0ull, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, 0};
    const Query every{~0ull, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags};
    int result = -1;
    EXPECT_TRUE(run_find(0, none, &result).empty());
    EXPECT_EQ(result, 0);
    // Fifteen: every overlapping recording the cache can reach (type, modes and channels apart).
    const std::vector<Found> got = run_find(0, every, &result);
    size_t overlapping = 0;
    for (const Rec &r : g_recs) {
        if (r.disk == 0 && r.type == 0 && cache_selects(~0ull, r.channel) && r.end >= every.start &&
            r.start <= every.end) {
            overlapping++;
        }
    }
    EXPECT_EQ(got.size(), overlapping);
    EXPECT_GT(overlapping, 200u);
}

TEST_F(FindCache, MaxCountZeroStopsEveryChannelAtOnce) {
    const uint64_t chans = (1ull << 2) | (1ull << 40) | (1ull << 63);
    const struct tm s = utc(at(2024, 2, 26));
    const struct tm e = utc(at(2024, 3, 3));
    StdoutCapture out;
    const int result =
        fs_find(0, &s, &e, 0, static_cast<uint32_t>(chans), static_cast<uint32_t>(chans >> 32), 0,
                0xFF, kAllFlags, 0, collect, nullptr);
    const std::string text = out.stop();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(occurrences(text, "reach max count:0 0\n"), 3u) << text;
    EXPECT_EQ(occurrences(text, "reach max count:"), 3u) << text;
}

TEST_F(FindCache, MaxCountIsTestedWhenTheWalkEntersAPath) {
    const Query q{1ull << 20, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags};
    const std::vector<Found> all = brute(1, q, Walk::cache);
    ASSERT_GT(all.size(), 3u);
    const struct tm s = utc(q.start);
    const struct tm e = utc(q.end);
    Collector c;
    StdoutCapture out;
    const int result = fs_find(1, &s, &e, 0, 1u << 20, 0, 0, 0xFF, kAllFlags, 1, collect, &c);
    const std::string text = out.stop();
    // At least one, at most the recordings of the first cache file read; then the walk ends.
    EXPECT_GE(result, 1);
    EXPECT_LT(result, static_cast<int>(all.size()));
    EXPECT_EQ(occurrences(text, "reach max count:"), 1u) << text;
    EXPECT_EQ(c.calls, result);
}

// ---- argument checks --------------------------------------------------------------------------

TEST_F(FindCache, ArgumentChecksOfTheSearch) {
    LogMask mask(kAllLevels);
    const struct tm s = utc(at(2024, 3, 1, 10));
    const struct tm e = utc(at(2024, 3, 1, 9));
    {
        StdoutCapture out;
        EXPECT_EQ(fs_find(8, &e, &s, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr), -1);
        EXPECT_TRUE(contains(out.stop(), "invalid disk id:8\n"));
    }
    {
        StdoutCapture out;
        EXPECT_EQ(fs_find(-1, &e, &s, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr), -1);
        EXPECT_TRUE(contains(out.stop(), "invalid disk id:-1\n"));
    }
    {
        StdoutCapture out;
        EXPECT_EQ(fs_find(2, &e, &s, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr), -1);
        EXPECT_TRUE(contains(out.stop(), "disk 2 not init\n"));
    }
    {
        StdoutCapture out;
        EXPECT_EQ(fs_find(0, nullptr, &s, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr),
                  -1);
        EXPECT_EQ(fs_find(0, &e, nullptr, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr),
                  -1);
        EXPECT_EQ(occurrences(out.stop(), "invalid param\n"), 2u);
    }
    {
        // Start after end: three error lines with the two times.
        StdoutCapture out;
        EXPECT_EQ(fs_find(0, &s, &e, 0, ~0u, ~0u, 0, 0xFF, kAllFlags, 10, collect, nullptr), -1);
        const std::string text = out.stop();
        const std::string red = "\e[0;31m[fs.cpp:";
        EXPECT_EQ(occurrences(text, red), 3u) << text;
        EXPECT_TRUE(contains(text, "]:\e[0mstart larger than end\n")) << text;
        EXPECT_TRUE(contains(text, "]:\e[0mstart:" + asctime_of(at(2024, 3, 1, 10)))) << text;
        EXPECT_TRUE(contains(text, "]:\e[0mend:" + asctime_of(at(2024, 3, 1, 9)))) << text;
        EXPECT_FALSE(contains(text, "fs_find:")) << text;
    }
    {
        // A good request prints the walk statistics line and its channels.
        StdoutCapture out;
        EXPECT_GE(fs_find(0, &e, &s, 0, 1u << 6, 0, 0, 0xFF, kAllFlags, 10, nullptr, nullptr), 0);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "find channel:6,mod:15\n")) << text;
        EXPECT_EQ(occurrences(text, "find channel:"), 1u) << text;
        EXPECT_EQ(occurrences(text, "fs_find:"), 1u) << text;
    }
}

TEST_F(FindCache, ArgumentChecksOfTheCalendar) {
    LogMask mask(kAllLevels);
    int result = 0;
    {
        StdoutCapture out;
        run_calendar(8, ~0ull, 2024, 3, &result);
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(contains(out.stop(), "invalid disk id:8\n"));
    }
    {
        StdoutCapture out;
        run_calendar(3, ~0ull, 2024, 3, &result);
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(contains(out.stop(), "disk 3 not init\n"));
    }
    for (int month : {0, 13, -1}) {
        StdoutCapture out;
        Days d;
        run_calendar(0, ~0ull, 2024, month, &result, &d);
        const std::string text = out.stop();
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(contains(text, "invalid mon " + std::to_string(month) + "\n")) << text;
        EXPECT_TRUE(d.days.empty());
        EXPECT_FALSE(contains(text, "caledar find start:")) << text;
    }
}

// ---- the calendar (cache) ---------------------------------------------------------------------

void compare_calendars(bool cache) {
    const uint64_t masks[] = {
        ~0ull,      0xFFFFFFFFull, 1ull << 31,           1ull << 35,
        1ull << 40, 1ull << 63,    1ull << kLeapChannel, 1ull << kType1Channel};
    const std::pair<int, int> months[] = {{2024, 2}, {2024, 3}, {2024, 1}, {2023, 2}};
    for (uint64_t m : masks) {
        for (const auto &ym : months) {
            for (int disk = 0; disk < kDisks; disk++) {
                int result = -1;
                Days d;
                const std::set<int> got = run_calendar(disk, m, ym.first, ym.second, &result, &d);
                EXPECT_EQ(result, 0);
                EXPECT_EQ(got, brute_calendar(disk, m, ym.first, ym.second, cache, 0))
                    << std::hex << m << std::dec << " " << ym.first << "-" << ym.second << " disk "
                    << disk;
                EXPECT_EQ(d.days.size(), got.size()) << "each day is reported once";
                for (int x : d.disks) EXPECT_EQ(x, disk);
            }
        }
    }
}

TEST_F(FindCache, CalendarMatchesTheBruteForce) {
    compare_calendars(true);
}

TEST_F(FindCache, FebruaryOfALeapYearHasTwentyNineDays) {
    int result = -1;
    Days d;
    StdoutCapture out;
    const std::set<int> got = run_calendar(0, 1ull << kLeapChannel, 2024, 2, &result, &d);
    const std::string text = out.stop();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(occurrences(text, "caledar find start:"), 29u);
    EXPECT_EQ(occurrences(text, "caledar find end:"), 29u);
    // The leap channel has a type-0 recording on every day: 29 callbacks, days 0 to 28.
    EXPECT_EQ(got.size(), 29u);
    EXPECT_EQ(d.days.size(), 29u);
    EXPECT_EQ(*got.begin(), 0);
    EXPECT_EQ(*got.rbegin(), 28);
    EXPECT_EQ(got, brute_calendar(0, 1ull << kLeapChannel, 2024, 2, true, 0));
    // Every channel: each of the 29 days is tested, and the first day of each printed range is
    // the day asked for.
    StdoutCapture out2;
    run_calendar(0, ~0ull, 2023, 2, &result);
    EXPECT_EQ(occurrences(out2.stop(), "caledar find start:"), 28u);
    StdoutCapture out3;
    run_calendar(0, ~0ull, 2024, 2, &result);
    const std::string t3 = out3.stop();
    EXPECT_TRUE(contains(t3, "caledar find start:" + asctime_of(at(2024, 2, 29)))) << t3;
    EXPECT_TRUE(contains(t3, "caledar find end:" + asctime_of(at(2024, 2, 29, 23, 59, 59))));
}

// The days of March from the 4th on (index 3): the random recordings stop at 2 March, and a
// timezone moves them by one day at most.
std::set<int> placed_days(const std::set<int> &days) {
    std::set<int> out;
    for (int d : days) {
        if (d >= 3) out.insert(d);
    }
    return out;
}

TEST_F(FindCache, DayOfOnlyTypeOneRecordingsIsNotReported) {
    int result = -1;
    const std::set<int> got = run_calendar(0, 1ull << kType1Channel, 2024, 3, &result);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(placed_days(got).empty());
    EXPECT_EQ(got, brute_calendar(0, 1ull << kType1Channel, 2024, 3, true, 0));
    // The same day holds a type-1 recording that a type-1 search finds.
    const Query q{
        1ull << kType1Channel, at(2024, 3, 10), at(2024, 3, 10, 23, 59, 59), 1, 0xFF, kAllFlags};
    EXPECT_EQ(run_find(0, q, &result).size(), 1u);
}

TEST_F(FindCache, DayOfChannelThirtyFiveOnlyIsNotReported) {
    int result = -1;
    EXPECT_TRUE(run_calendar(0, 1ull << kWideChannel, 2024, 3, &result).empty());
    EXPECT_EQ(result, 0);
    ASSERT_EQ(placed_days(brute_calendar(0, 1ull << kWideChannel, 2024, 3, false, 0)),
              (std::set<int>{11}));
    // With channel 31 asked as well, only channel 31's days are reported.
    const std::set<int> got =
        run_calendar(0, (1ull << kWideChannel) | (1ull << 31), 2024, 3, &result);
    EXPECT_EQ(got, brute_calendar(0, 1ull << 31, 2024, 3, false, 0));
    EXPECT_EQ(got.count(11), 0u);
}

TEST_F(FindCache, CalendarCallbackNotAcceptingLeavesTheDayUnreported) {
    Days d;
    d.result = 0;
    int result = -1;
    StdoutCapture out;
    run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result, &d);
    const std::string text = out.stop();
    EXPECT_EQ(result, 0);
    const std::set<int> want = brute_calendar(0, 1ull << kZoneChannel, 2024, 3, true, 0);
    EXPECT_EQ(placed_days(want), (std::set<int>{19, 21}));
    // Every day is offered to the callback once (one cache file each) and none is reported.
    EXPECT_EQ(std::set<int>(d.days.begin(), d.days.end()), want);
    EXPECT_EQ(d.days.size(), want.size());
    EXPECT_FALSE(contains(text, "find calendar chn:")) << text;
    Days ok;
    StdoutCapture out2;
    run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result, &ok);
    const std::string text2 = out2.stop();
    EXPECT_EQ(occurrences(text2, "find calendar chn:"), want.size()) << text2;
    EXPECT_TRUE(
        contains(text2, "find calendar chn:800 name:/mnt/cache/sda/11/2024/03/20/00/cache\n"))
        << text2;
}

// The host's timezone moves the compared day: the cache compares the midnight of each cache
// file's date, the index-partition walk each recording's own start.
class Timezone {
  public:
    explicit Timezone(const char *tz) {
        const char *old = getenv("TZ");
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~Timezone() {
        if (had_) {
            setenv("TZ", old_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

  private:
    bool had_ = false;
    std::string old_;
};

TEST_F(FindCache, TimezoneMovesTheDayByTheCacheFilesMidnight) {
    Timezone tz("XYZ+1");  // one hour west of UTC
    ASSERT_EQ(timezone, 3600);
    int result = -1;
    Days d;
    StdoutCapture out;
    const std::set<int> got = run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result, &d);
    const std::string text = out.stop();
    // Day 20 (index 19) runs from 20 March 01:00 to 21 March 00:59:59 UTC.
    EXPECT_TRUE(contains(text, "caledar find start:" + asctime_of(at(2024, 3, 20, 1)))) << text;
    EXPECT_TRUE(contains(text, "caledar find end:" + asctime_of(at(2024, 3, 21, 0, 59, 59))));
    // Cache files of 20 and 22 March: their midnights fall in the moved days 19 and 21.
    EXPECT_EQ(placed_days(got), (std::set<int>{18, 20}));
    EXPECT_EQ(got, brute_calendar(0, 1ull << kZoneChannel, 2024, 3, true, 3600));
    Timezone east("XYZ-1");
    ASSERT_EQ(timezone, -3600);
    const std::set<int> got_east = run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result);
    EXPECT_EQ(placed_days(got_east), (std::set<int>{19, 21}));
    EXPECT_EQ(got_east, brute_calendar(0, 1ull << kZoneChannel, 2024, 3, true, -3600));
}

// ---- strays and garbage in the trees ----------------------------------------------------------

void write_bytes(const std::string &path, const std::vector<unsigned char> &bytes) {
    FILE *f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    const size_t written = bytes.empty() ? 0 : fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    ASSERT_EQ(written, bytes.size()) << path;
}

void make_dirs(const std::string &path) {
    std::vector<char> p(path.begin(), path.end());
    p.push_back('\0');
    mkdir_recursive(p.data());
}

// The day directory ("YYYY/MM/DD/") of a type-0 recording of the garbage channel on disk 0, so
// that strays in its leaf do not make a day appear that has no recording.
std::string garbage_day() {
    for (const Rec &r : g_recs) {
        if (r.disk == 0 && r.channel == kGarbageChannel && r.type == 0) {
            const struct tm t = utc(r.start);
            char buf[32];
            snprintf(buf, sizeof buf, "%04d/%02d/%02d/", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
            return buf;
        }
    }
    ADD_FAILURE() << "no type-0 recording of the garbage channel";
    return "2024/02/28/";
}

// Strays under a root (the disk's cache or index tree) in the garbage channel's directories.
std::vector<std::string> plant_strays(const std::string &root, bool cache) {
    const std::string ch = root + "/03/";
    const std::string day = garbage_day();
    const std::string leaf = ch + day + "00/";
    std::vector<std::string> made;
    auto file = [&](const std::string &p, const std::vector<unsigned char> &bytes) {
        write_bytes(p, bytes);
        made.push_back(p);
    };
    auto dir = [&](const std::string &p) {
        make_dirs(p);
        made.push_back(p);
    };
    dir(ch + "zz99/");
    dir(ch + "2024/xx/");
    dir(ch + "2024/02/yy/");
    dir(leaf + "subdir/");
    dir(ch + day + "77/");
    file(ch + "stray", {1, 2, 3});
    file(ch + "zz99/deeper", {1});
    file(ch + "2024/stray", {});
    file(ch + "2024/02/stray", {9});
    file(ch + day + "stray", {9});
    // Read as a cache file in the cache tree: one tag of mode 0, never wanted.
    file(leaf + "05", {1, 2, 3, 4, 5, 0, 0, 0});
    file(leaf + "subdir/0320240228120000_00", {});
    file(leaf + "0320240228995959_00", {});
    file(leaf + "9920240228120000_00", {});
    file(leaf + "garbage_name", {0xFF});
    file(ch + day + "77/cache", {0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0, 0, 0});
    if (cache) {
        // Garbage tags: a time of day past the day's end with mode 0 (never wanted), a tag of
        // all ones but mode 0, and a partial tag at the end.
        file(leaf + "junk", {0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F,
                             0xF0, 0xFF, 0x0F, 1, 2, 3});
        dir(leaf + "cachedir/");
        file(leaf + "cachedir/cache", {0, 0, 0, 0, 0x10, 0, 0, 0});
    }
    return made;
}

void remove_strays(const std::vector<std::string> &made) {
    for (auto it = made.rbegin(); it != made.rend(); ++it) remove_file(it->c_str(), 7);
}

void garbage_searches(Walk walk) {
    const Query qs[] = {
        {1ull << kGarbageChannel, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags},
        {(1ull << kGarbageChannel) | 0xF0, at(2024, 2, 28), at(2024, 2, 28, 23, 59, 59), 0, 0xFF,
         kAllFlags},
        {~0ull, at(2024, 2, 28, 11), at(2024, 2, 28, 13), 0, 0x7, 15},
    };
    for (const Query &base : qs) {
        Query q = base;
        if (walk == Walk::fast) q.flags |= kFast;
        int result = -1;
        EXPECT_EQ(run_find(0, q, &result), brute(0, q, walk)) << q;
        EXPECT_EQ(result, static_cast<int>(brute(0, q, walk).size()));
    }
    int result = -1;
    const bool cache = walk == Walk::cache;
    EXPECT_EQ(run_calendar(0, 1ull << kGarbageChannel, 2024, 2, &result),
              brute_calendar(0, 1ull << kGarbageChannel, 2024, 2, cache, 0));
    EXPECT_EQ(run_calendar(0, ~0ull, 2024, 2, &result),
              brute_calendar(0, ~0ull, 2024, 2, cache, 0));
}

TEST_F(FindCache, StraysAndGarbageTagsInTheCacheTreeAreSkipped) {
    const std::vector<std::string> made = plant_strays("/mnt/cache/sda", true);
    garbage_searches(Walk::cache);
    remove_strays(made);
}

// ---- the same over the index partition ----------------------------------------------------------

TEST_F(FindFile, EveryRequestMatchesTheBruteForceWithTheExactChannelTest) {
    ASSERT_FALSE(fs_use_cache());
    compare_all(Walk::file);
}

TEST_F(FindFile, EveryRequestMatchesTheBruteForceOnTheFastPath) {
    compare_all(Walk::fast);
}

TEST_F(FindFile, ChannelFortyFindsItsRecordingsWithoutTheCache) {
    const Query q{1ull << 40, at(2024, 2, 26), at(2024, 3, 3), 0, 0xFF, kAllFlags};
    int result = -1;
    const std::vector<Found> got = run_find(0, q, &result);
    EXPECT_FALSE(got.empty());
    EXPECT_EQ(got, brute(0, q, Walk::file));
    for (const Found &f : got) EXPECT_EQ(f.channel, 40);
}

TEST_F(FindFile, CallbackNotAcceptingIsNotCountedAndTheWalkGoesOn) {
    const Query q{~0ull, at(2024, 2, 28), at(2024, 2, 29), 0, 0xFF, kAllFlags};
    Collector c;
    c.result = 0;
    int result = -1;
    run_find(1, q, &result, &c);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(c.calls, static_cast<int>(brute(1, q, Walk::file).size()));
    EXPECT_GT(c.calls, 10);
}

TEST_F(FindFile, MaxCountZeroStopsEveryChannelAtOnce) {
    const uint64_t chans = (1ull << 2) | (1ull << 40) | (1ull << 63);
    const struct tm s = utc(at(2024, 2, 26));
    const struct tm e = utc(at(2024, 3, 3));
    StdoutCapture out;
    const int result =
        fs_find(0, &s, &e, 0, static_cast<uint32_t>(chans), static_cast<uint32_t>(chans >> 32), 0,
                0xFF, kAllFlags, 0, collect, nullptr);
    const std::string text = out.stop();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(occurrences(text, "reach max count:0 0\n"), 3u) << text;
}

TEST_F(FindFile, StartEqualToEndAndTouchingRecordings) {
    const time_t s = at(2024, 3, 5, 10);
    const time_t e = at(2024, 3, 5, 10, 10);
    const uint64_t ch = 1ull << kTouchChannel;
    for (int fast : {0, kFast}) {
        int result = -1;
        for (time_t t : {s, s + 300, e}) {
            const std::vector<Found> got =
                run_find(0, {ch, t, t, 0, 0xFF, kAllFlags | fast}, &result);
            ASSERT_EQ(result, 1) << t;
            EXPECT_EQ(got[0].end, e);
        }
        EXPECT_EQ(run_find(0, {ch, e, e + 60, 0, 0xFF, kAllFlags | fast}, &result).size(), 1u);
        EXPECT_TRUE(run_find(0, {ch, e + 1, e + 60, 0, 0xFF, kAllFlags | fast}, &result).empty());
        EXPECT_TRUE(run_find(0, {ch, s - 60, s, 0, 0xFF, 0 | fast}, &result).empty());
    }
}

TEST_F(FindFile, FastPathTakesTheSpanAndSizeFromTheIndexFile) {
    const time_t day = at(2024, 3, 25);
    const Query q{1ull << kStampChannel, day, day + kDay - 1, 0, 0x1, kAllFlags | kFast};
    int result = -1;
    // The mode filter (0x1 against the recordings' 0x40) is not applied on the fast path.
    const std::vector<Found> got = run_find(0, q, &result);
    ASSERT_EQ(result, 3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].end - got[0].start, 20 * 60);
    EXPECT_EQ(got[0].total_bytes, 2ull * kCluster);
    EXPECT_EQ(got[0].ext_magic, kExtMagic);
    EXPECT_EQ(got[0].mode, 0u);
    EXPECT_EQ(got[1].total_bytes, 1ull * kCluster);
    EXPECT_EQ(got[1].ext_magic, 0u);
    EXPECT_EQ(got[2].total_bytes, 0u);
    EXPECT_EQ(got[2].start, got[2].end);
    // Without the fast path the mode filter applies.
    Query slow = q;
    slow.flags = kAllFlags;
    EXPECT_TRUE(run_find(0, slow, &result).empty());
    slow.modmask = 0x40;
    const std::vector<Found> opened = run_find(0, slow, &result);
    ASSERT_EQ(opened.size(), 3u);
    EXPECT_EQ(opened[0].mode, 0x40u);
    EXPECT_EQ(opened[0].entry_count, 2u);
    EXPECT_EQ(opened[0].ext_magic, kExtMagic);

    // Stamps that do not give a span (access after modification) send the search to the file.
    const std::string name = index_name(0, kStampChannel, utc(at(2024, 3, 25, 11)), 0);
    struct stat before;
    ASSERT_EQ(stat(name.c_str(), &before), 0);
    struct timeval tv[2] = {{before.st_mtime + 5, 0}, {before.st_mtime, 0}};
    ASSERT_EQ(utimes(name.c_str(), tv), 0);
    {
        LogMask mask(kAllLevels);
        StdoutCapture out;
        const std::vector<Found> mixed = run_find(0, q, &result);
        const std::string text = out.stop();
        ASSERT_EQ(mixed.size(), 2u) << text;  // the third is opened and its mode 0x40 is refused
        EXPECT_TRUE(contains(text, "wanted mod:1,finded:64\n")) << text;
        Query wanted = q;
        wanted.modmask = 0x40;
        StdoutCapture out2;
        const std::vector<Found> all = run_find(0, wanted, &result);
        const std::string text2 = out2.stop();
        ASSERT_EQ(all.size(), 3u);
        EXPECT_EQ(all[1].mode, 0x40u);
        EXPECT_EQ(all[1].end - all[1].start, 20 * 60);
        const std::string line = "invalid mtime:" + std::to_string(before.st_mtime) +
                                 " or atime:" + std::to_string(before.st_mtime + 5) + " => " +
                                 asctime_of(at(2024, 3, 25, 11)) + "\n";
        EXPECT_TRUE(contains(text2, line)) << text2 << "\nwanted:\n" << line;
    }
    // A span as long as the longest recording allowed is not believed either.
    struct timeval longer[2] = {{before.st_mtime - fs_get_max_record_duration(), 0},
                                {before.st_mtime, 0}};
    ASSERT_EQ(utimes(name.c_str(), longer), 0);
    Query wanted = q;
    wanted.modmask = 0x40;
    const std::vector<Found> all = run_find(0, wanted, &result);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].end - all[1].start, 20 * 60);
    EXPECT_EQ(all[1].mode, 0x40u);
    // Stamps one second short of it are believed.
    struct timeval shorter[2] = {{before.st_mtime - fs_get_max_record_duration() + 1, 0},
                                 {before.st_mtime, 0}};
    ASSERT_EQ(utimes(name.c_str(), shorter), 0);
    const std::vector<Found> believed = run_find(0, wanted, &result);
    ASSERT_EQ(believed.size(), 3u);
    EXPECT_EQ(believed[1].end - believed[1].start, fs_get_max_record_duration() - 1);
    EXPECT_EQ(believed[1].mode, 0u);
    struct timeval back[2] = {{before.st_atime, 0}, {before.st_mtime, 0}};
    ASSERT_EQ(utimes(name.c_str(), back), 0);
}

TEST_F(FindFile, CalendarMatchesTheBruteForce) {
    compare_calendars(false);
}

TEST_F(FindFile, DayOfChannelThirtyFiveIsReportedWithoutTheCache) {
    int result = -1;
    const std::set<int> got = run_calendar(0, 1ull << kWideChannel, 2024, 3, &result);
    EXPECT_EQ(placed_days(got), (std::set<int>{11}));
    EXPECT_EQ(got, brute_calendar(0, 1ull << kWideChannel, 2024, 3, false, 0));
    EXPECT_TRUE(placed_days(run_calendar(0, 1ull << kType1Channel, 2024, 3, &result)).empty());
}

TEST_F(FindFile, TimezoneMovesTheDayByEachRecordingsStart) {
    Timezone tz("XYZ+1");
    ASSERT_EQ(timezone, 3600);
    int result = -1;
    Days d;
    StdoutCapture out;
    const std::set<int> got = run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result, &d);
    const std::string text = out.stop();
    // 20 March 00:30 belongs to the moved day 19; 22 March 12:00 to day 22.
    EXPECT_EQ(placed_days(got), (std::set<int>{18, 21})) << text;
    EXPECT_EQ(got, brute_calendar(0, 1ull << kZoneChannel, 2024, 3, false, 3600));
    EXPECT_TRUE(contains(text,
                         "find calendar chn:800 name:/mnt/sda/11/2024/03/20/00/"
                         "1120240320003000_00\n"))
        << text;
    Timezone east("XYZ-1");
    const std::set<int> got_east = run_calendar(0, 1ull << kZoneChannel, 2024, 3, &result);
    EXPECT_EQ(placed_days(got_east), (std::set<int>{19, 21}));
    EXPECT_EQ(got_east, brute_calendar(0, 1ull << kZoneChannel, 2024, 3, false, -3600));
}

TEST_F(FindFile, StraysAndGarbageNamesInTheIndexTreeAreSkipped) {
    const std::vector<std::string> made = plant_strays("/mnt/sda", false);
    garbage_searches(Walk::file);
    garbage_searches(Walk::fast);
    remove_strays(made);
}

}  // namespace
