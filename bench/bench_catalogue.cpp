// SPDX-License-Identifier: MIT
// Finding recordings in a large catalogue: 100,000 recordings of 64 channels over 30 days, made
// through the library itself on one loop-backed disk (each opened with rec_open and closed with
// an end time; one in a hundred holds one cluster of payload, the rest none). Measured, side by
// side in one run:
//   - search latency through rec_find_open (one channel / all channels, one day / the month) and
//     the month calendar through rec_get_calendar, with the tmpfs cache, without it (walking the
//     index partition; with and without the time-stamp fast path), and against the same
//     catalogue held in SQLite as one table indexed by (channel, start);
//   - the time the cache loader needs to rebuild the disk's cache at bring-up;
//   - the time to recycle the block holding the catalogue (rec_overlap).
// Reports medians and 99th percentiles in milliseconds. The cache rebuild is measured both ways
// in the same run: reading each final header directly and opening every recording (the plain
// load), in interleaved rounds with a warm page cache, then with the caches dropped first.
//
// With the argument "recycle" it measures recycling only: a block of exactly 10,000 recordings
// freed the current way and the plain way in interleaved rounds, and one full cluster map cleared
// both ways.
//
// Runs inside the disk rig only: tests/rig/rig-run build/native/bench/bench_catalogue [recycle]
#include <fcntl.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "cache.h"
#include "capture.h"
#include "fs.h"
#include "fs_tools.h"
#include "bitmap.h"
#include "recstore.h"
#include "rec.h"
#include "rig.h"

namespace {

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr int kDefaultRecordings = 100000;
// RECSTORE_BENCH_RECORDINGS makes a smaller catalogue, for a quick trial of the program.
int g_recordings = kDefaultRecordings;
constexpr int kChannels = 64;
constexpr int kDays = 30;
constexpr int kPerChannelDay = 53;  // 64 x 30 x 53 > 100,000: the last day is partly used
constexpr int kSpacingMin = 27;     // one recording every 27 minutes per channel
constexpr int kDurationMin = 25;    // each lasts 25 minutes
constexpr int kPayloadEvery = 100;  // one recording in a hundred holds one cluster
constexpr int kYear = 2026;
constexpr int kMonth = 10;  // October 2026, 31 days; the catalogue fills days 1-30
constexpr int kCacheInodes = 65536;
constexpr unsigned kCacheMib = 16;
constexpr int kWaitMs = 60000;
constexpr int kMaxResults = 200000;
constexpr int kSortByChannelThenTime = 3;
constexpr int kAllMatches = 0xF;
constexpr int kFastPath = 0x10;
constexpr int kAnyMode = 0xFF;

double now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) * 1e-6;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

struct tm day_start(int day) {
    struct tm t {};
    t.tm_year = kYear - 1900;
    t.tm_mon = kMonth - 1;
    t.tm_mday = day;
    const time_t s = timegm(&t);
    gmtime_r(&s, &t);
    return t;
}

struct tm plus_sec(const struct tm &base, long sec) {
    struct tm copy = base;
    const time_t s = timegm(&copy) + sec;
    struct tm out {};
    gmtime_r(&s, &out);
    return out;
}

// Recording i of the catalogue: channel, day (1-30) and start.
struct Planned {
    int channel;
    struct tm start;
    struct tm end;
};

Planned planned(int i) {
    const int channel = i % kChannels;
    const int k = i / kChannels;
    const int day = 1 + k / kPerChannelDay;
    const int slot = k % kPerChannelDay;
    Planned p{};
    p.channel = channel;
    p.start = plus_sec(day_start(day), static_cast<long>(slot) * kSpacingMin * 60 + channel);
    p.end = plus_sec(p.start, kDurationMin * 60L);
    return p;
}

bool wait_for(const std::function<bool()> &pred) {
    for (int waited = 0; waited < kWaitMs; waited += 5) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

// The plug-in order of a recorder for disk 0; fresh erases the disk first.
// Detaches the rig disk; a failure is reported on standard error.
void unplug_rig_disk(rig::Disk &disk) {
    std::string error;
    if (!rig::try_unplug(disk, &error)) {
        fprintf(stderr, "cannot unplug %s: %s\n", disk.node.c_str(), error.c_str());
    }
}

bool plug_in(const rig::Disk &disk, bool fresh, double *cache_ms) {
    const char *dev = disk.node.c_str();
    fs_umount(dev);
    if (fs_chk(dev) != 0 || fs_mount(dev) != 0 || fs_opendisk(dev) != 0) return false;
    if (fresh && fs_cleardisk(0) != 0) return false;
    cache_set_loaded(0, 0);
    const double t0 = now_ms();
    if (fs_datazone_init(0) != 0) return false;
    if (fs_use_cache() && !wait_for([] { return cache_is_loaded(0) != 0; })) return false;
    if (cache_ms != nullptr) *cache_ms = now_ms() - t0;
    return fs_chkdata(0, 1) == 0 && fs_adddisk(0, 0) == 0;
}

void plug_out(const rig::Disk &disk) {
    fs_removedisk(0, 0);
    fs_datazone_exit(0);
    fs_closedisk(0);
    fs_umount(disk.node.c_str());
}

bool start_library(const rig::Disk &disk, int flags, bool fresh, double *cache_ms) {
    if (rec_init(kCacheInodes, kCacheMib, flags) != 0) return false;
    if (!plug_in(disk, fresh, cache_ms)) return false;
    if (rec_bringup_deamon() != 0) return false;
    return wait_for([] { return __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_SEQ_CST) == 0; });
}

void stop_library(const rig::Disk &disk) {
    rec_shutdown_deamon();
    plug_out(disk);
    rec_exit();
}

// Makes the catalogue through rec_open / rec_write / rec_close; recordings per second.
bool build_catalogue(double *per_sec) {
    void *p = nullptr;
    if (posix_memalign(&p, 4096, kCluster) != 0) return false;
    std::unique_ptr<unsigned char, decltype(&free)> buf(static_cast<unsigned char *>(p), &free);
    memset(buf.get(), 0x5A, kCluster);
    const double t0 = now_ms();
    for (int i = 0; i < g_recordings; i++) {
        const Planned r = planned(i);
        const int mode = 1 << (i % 3);
        const int h = rec_open(r.channel, &r.start, 0, 0, 0, 0, RECSTORE_REC_CREATE | O_RDWR, mode);
        if (h < 0) {
            fprintf(stderr, "rec_open failed at recording %d\n", i);
            return false;
        }
        if (i % kPayloadEvery == 0) {
            struct tm s = r.start;
            kframe frames[RECSTORE_MAX_KFRAMES] = {};
            frames[0].frame_time = static_cast<uint32_t>(timegm(&s));
            if (rec_write(h, buf.get(), static_cast<int>(kCluster), frames, 1) !=
                static_cast<int>(kCluster)) {
                fprintf(stderr, "rec_write failed at recording %d\n", i);
                return false;
            }
        }
        rec_close(h, &r.end);
        if ((i + 1) % 10000 == 0) {
            fprintf(stderr, "\rcatalogue: %d of %d recordings", i + 1, g_recordings);
        }
    }
    fprintf(stderr, "\n");
    *per_sec = g_recordings / ((now_ms() - t0) / 1e3);
    return true;
}

// One query kind: a channel mask and a range.
struct Query {
    const char *name;
    bool one_channel;
    bool whole_month;
};

constexpr Query kQueries[] = {
    {"one channel, one day", true, false},
    {"all channels, one day", false, false},
    {"one channel, month", true, true},
    {"all channels, month", false, true},
};

struct Target {
    int channel;
    int day;
};

std::vector<Target> targets(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<Target> out;
    for (int i = 0; i < n; i++) {
        out.push_back(
            Target{static_cast<int>(rng() % kChannels), 1 + static_cast<int>(rng() % kDays)});
    }
    return out;
}

void range_of(const Query &q, const Target &t, struct tm *start, struct tm *end) {
    if (q.whole_month) {
        *start = day_start(1);
        *end = plus_sec(day_start(31), 86399);
    } else {
        *start = day_start(t.day);
        *end = plus_sec(*start, 86399);
    }
}

// Latencies of the library's search for one query kind; the result count of the last call.
std::vector<double> library_search(const Query &q, const std::vector<Target> &ts, int matchflags,
                                   int *found) {
    std::vector<double> ms;
    for (const Target &t : ts) {
        struct tm start, end;
        range_of(q, t, &start, &end);
        const uint64_t mask = q.one_channel ? (1ull << t.channel) : ~0ull;
        const double t0 = now_ms();
        const int h = rec_find_open(&start, &end, mask, 0, kAnyMode, matchflags, kMaxResults,
                                    kSortByChannelThenTime);
        if (h < 0) return {};
        *found = rec_find_getcounts(h);
        rec_find_close(h);
        ms.push_back(now_ms() - t0);
    }
    return ms;
}

std::vector<double> library_calendar(int n, int *days_found) {
    std::vector<double> ms;
    for (int i = 0; i < n; i++) {
        unsigned char days[31];
        const double t0 = now_ms();
        if (rec_get_calendar(0xFFFFFFFFu, 0xFFFFFFFFu, kYear, kMonth, days) != 0) return {};
        ms.push_back(now_ms() - t0);
        *days_found = 0;
        for (unsigned char d : days) *days_found += d & 1;
        if (getenv("RECSTORE_BENCH_DEBUG")) {
            for (unsigned char d : days) fprintf(stderr, "%d", d);
            fprintf(stderr, " days\n");
        }
    }
    return ms;
}

// ---- the same catalogue in SQLite ----

struct Sqlite {
    sqlite3 *db = nullptr;
    ~Sqlite() {
        if (db != nullptr) sqlite3_close(db);
    }
    bool exec(const char *sql) {
        char *err = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
        fprintf(stderr, "sqlite: %s\n", err ? err : "?");
        sqlite3_free(err);
        return false;
    }
};

bool sqlite_build(Sqlite &s, const std::string &path) {
    unlink(path.c_str());
    if (sqlite3_open(path.c_str(), &s.db) != SQLITE_OK) return false;
    if (!s.exec("CREATE TABLE rec(channel INTEGER, start INTEGER, end INTEGER, type INTEGER, "
                "mode INTEGER, disk INTEGER, size INTEGER);"
                "CREATE INDEX rec_channel_start ON rec(channel, start);"
                "BEGIN")) {
        return false;
    }
    sqlite3_stmt *ins = nullptr;
    if (sqlite3_prepare_v2(s.db, "INSERT INTO rec VALUES(?,?,?,0,?,0,?)", -1, &ins, nullptr) !=
        SQLITE_OK) {
        return false;
    }
    for (int i = 0; i < g_recordings; i++) {
        Planned r = planned(i);
        sqlite3_bind_int(ins, 1, r.channel);
        sqlite3_bind_int64(ins, 2, timegm(&r.start));
        sqlite3_bind_int64(ins, 3, timegm(&r.end));
        sqlite3_bind_int(ins, 4, 1 << (i % 3));
        sqlite3_bind_int(ins, 5, i % kPayloadEvery == 0 ? static_cast<int>(kCluster) : 0);
        if (sqlite3_step(ins) != SQLITE_DONE) return false;
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    return s.exec("COMMIT; ANALYZE");
}

// The same question as the library's search with match flags 15: overlapping the range, type 0,
// any mode, ordered by channel then start; every row is read out.
std::vector<double> sqlite_search(Sqlite &s, const Query &q, const std::vector<Target> &ts,
                                  int *found) {
    const char *one =
        "SELECT channel,start,end,mode,size FROM rec WHERE channel=? AND start<=? AND end>=? "
        "AND type=0 ORDER BY channel,start";
    const char *all =
        "SELECT channel,start,end,mode,size FROM rec WHERE start<=? AND end>=? AND type=0 "
        "ORDER BY channel,start";
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(s.db, q.one_channel ? one : all, -1, &st, nullptr) != SQLITE_OK) {
        return {};
    }
    std::vector<double> ms;
    for (const Target &t : ts) {
        struct tm start, end;
        range_of(q, t, &start, &end);
        const double t0 = now_ms();
        int k = 1;
        if (q.one_channel) sqlite3_bind_int(st, k++, t.channel);
        sqlite3_bind_int64(st, k++, timegm(&end));
        sqlite3_bind_int64(st, k, timegm(&start));
        int n = 0;
        long long sink = 0;
        while (sqlite3_step(st) == SQLITE_ROW) {
            sink += sqlite3_column_int64(st, 1);
            n++;
        }
        sqlite3_reset(st);
        ms.push_back(now_ms() - t0);
        *found = n + static_cast<int>(sink & 0);
    }
    sqlite3_finalize(st);
    return ms;
}

std::vector<double> sqlite_calendar(Sqlite &s, int n, int *days_found) {
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(s.db,
                           "SELECT DISTINCT start/86400 FROM rec WHERE start>=? AND start<=? "
                           "AND type=0",
                           -1, &st, nullptr) != SQLITE_OK) {
        return {};
    }
    std::vector<double> ms;
    struct tm first = day_start(1);
    const long long from = timegm(&first);
    const long long to = from + 31LL * 86400 - 1;
    for (int i = 0; i < n; i++) {
        const double t0 = now_ms();
        sqlite3_bind_int64(st, 1, from);
        sqlite3_bind_int64(st, 2, to);
        unsigned char days[31] = {};
        while (sqlite3_step(st) == SQLITE_ROW) {
            const long long d = sqlite3_column_int64(st, 0) - from / 86400;
            if (d >= 0 && d < 31) days[d] = 1;
        }
        sqlite3_reset(st);
        ms.push_back(now_ms() - t0);
        *days_found = 0;
        for (unsigned char d : days) *days_found += d;
    }
    sqlite3_finalize(st);
    return ms;
}

struct Row {
    std::string what;
    std::string how;
    int found;
    int samples;
    double median;
    double p99;
};

// A row's text as one word of a summary line: runs of anything but letters and digits become
// one underscore.
std::string key_word(const std::string &text) {
    std::string out;
    for (const char c : text) {
        const bool word = isalnum(static_cast<unsigned char>(c)) != 0;
        if (word) {
            out += c;
        } else if (!out.empty() && out.back() != '_') {
            out += '_';
        }
    }
    while (!out.empty() && out.back() == '_') out.pop_back();
    return out;
}

void add_row(std::vector<Row> &rows, const std::string &what, const std::string &how,
             const std::vector<double> &ms, int found) {
    rows.push_back(Row{what, how, found, static_cast<int>(ms.size()), percentile(ms, 0.5),
                       percentile(ms, 0.99)});
    const Row &r = rows.back();
    fprintf(stderr, "%-24s %-26s %7d found  %3d runs  median %9.3f ms  p99 %9.3f ms\n",
            r.what.c_str(), r.how.c_str(), r.found, r.samples, r.median, r.p99);
}

// Sample counts: the walks over the index partition of a whole month take seconds each.
int samples_for(const Query &q, bool index_walk) {
    if (index_walk && q.whole_month) return 3;
    return index_walk ? 10 : 30;
}

void measure_library(std::vector<Row> &rows, const char *how, bool index_walk, int matchflags) {
    for (const Query &q : kQueries) {
        int found = 0;
        const std::vector<double> ms =
            library_search(q, targets(samples_for(q, index_walk), 7), matchflags, &found);
        add_row(rows, q.name, how, ms, found);
    }
}

// Rebuild rates of the disk's cache (recordings per second), from cache_load to cache_is_loaded.
struct RebuildRates {
    double fast = 0;       // warm, final headers read directly: median of the rounds
    double plain = 0;      // warm, every recording opened: median of the rounds
    double fast_cold = 0;  // caches dropped first: median of the rounds
    double plain_cold = 0;
};

constexpr int kRebuildRounds = 5;
constexpr int kColdRounds = 2;  // each after dropping the page, dentry and inode caches

bool wait_loaded_fine() {
    for (int waited_us = 0; waited_us < kWaitMs * 1000; waited_us += 200) {
        if (cache_is_loaded(0) != 0) return true;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return cache_is_loaded(0) != 0;
}

// One rebuild of disk 0's cache the given way; recordings per second, 0 when it failed.
double rebuild_once(const rig::Disk &disk, bool fast, bool cold) {
    recstore::cache_set_fast_load(fast);
    if (cold) rig::sh("sync && echo 3 > /proc/sys/vm/drop_caches");
    cache_set_loaded(0, 0);
    const double t0 = now_ms();
    const bool ok = cache_load(disk.node.c_str()) == 0 && wait_loaded_fine();
    const double ms = now_ms() - t0;
    recstore::cache_set_fast_load(true);
    return ok ? g_recordings / (ms / 1e3) : 0;
}

// The library is up with disk 0 and its cache loaded (the rounds keep it loaded).
bool measure_rebuild(const rig::Disk &disk, RebuildRates *r) {
    std::vector<double> fast, plain;
    bool ok = true;
    bench::interleave(
        kRebuildRounds, ok,
        [&] {
            fast.push_back(rebuild_once(disk, true, false));
            ok = ok && fast.back() > 0;
        },
        [&] {
            plain.push_back(rebuild_once(disk, false, false));
            ok = ok && plain.back() > 0;
        });
    if (!ok) return false;
    r->fast = bench::median(fast);
    r->plain = bench::median(plain);
    std::vector<double> fast_cold, plain_cold;
    bench::interleave(
        kColdRounds, ok, [&] { fast_cold.push_back(rebuild_once(disk, true, true)); },
        [&] { plain_cold.push_back(rebuild_once(disk, false, true)); });
    r->fast_cold = bench::median(fast_cold);
    r->plain_cold = bench::median(plain_cold);
    return r->fast_cold > 0 && r->plain_cold > 0;
}

int run() {
    if (const char *n = getenv("RECSTORE_BENCH_RECORDINGS")) {
        g_recordings = std::max(kChannels, std::min(kDefaultRecordings, atoi(n)));
    }
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    loglevel = 0;
    rig::Disk disk;
    std::string error;
    if (!rig::try_attach('a', 200 * kGiB, false, &disk, &error)) {
        fprintf(stderr, "cannot attach a rig disk: %s\n", error.c_str());
        return 1;
    }
    std::vector<Row> rows;
    double per_sec = 0, cache_ms = 0, recycle_ms = 0;
    RebuildRates rebuild;
    int recycled_files = 0;
    bool ok = true;
    {
        recstore_test::StdoutCapture quiet;
        ok = fs_format(disk.node.c_str()) == 0;
        // Build the catalogue with the cache in use, as a recorder does.
        ok = ok && start_library(disk, 0, true, nullptr) && build_catalogue(&per_sec);
        if (ok) stop_library(disk);
        // With the cache: bring-up rebuilds it from the index tree.
        ok = ok && start_library(disk, 0, false, &cache_ms);
        ok = ok && measure_rebuild(disk, &rebuild);
        quiet.stop();
    }
    if (!ok) {
        fprintf(stderr, "could not build the catalogue\n");
        unplug_rig_disk(disk);
        return 1;
    }
    fprintf(stderr, "catalogue: %d recordings at %.0f per second; cache rebuilt in %.0f ms\n",
            g_recordings, per_sec, cache_ms);
    Sqlite sq;
    const std::string db = rig::dir() + "/catalogue.db";
    {
        recstore_test::StdoutCapture quiet;
        measure_library(rows, "cache", false, kAllMatches);
        int days = 0;
        std::vector<double> ms = library_calendar(30, &days);
        add_row(rows, "calendar of the month", "cache", ms, days);
        stop_library(disk);
        ok = start_library(disk, RECSTORE_FS_NOCACHE, false, nullptr);
        if (ok) {
            measure_library(rows, "index files", true, kAllMatches);
            measure_library(rows, "index files, fast path", true, kAllMatches | kFastPath);
            ms = library_calendar(10, &days);
            add_row(rows, "calendar of the month", "index files", ms, days);
            stop_library(disk);
        }
        ok = ok && sqlite_build(sq, db);
        quiet.stop();
    }
    if (!ok) {
        fprintf(stderr, "a measurement failed\n");
        unplug_rig_disk(disk);
        return 1;
    }
    for (const Query &q : kQueries) {
        int found = 0;
        const std::vector<double> ms =
            sqlite_search(sq, q, targets(samples_for(q, false), 7), &found);
        add_row(rows, q.name, "SQLite", ms, found);
    }
    int days = 0;
    const std::vector<double> calendar_ms = sqlite_calendar(sq, 30, &days);
    add_row(rows, "calendar of the month", "SQLite", calendar_ms, days);
    {
        // Recycling the block that holds the whole catalogue: every recording's index file, link
        // and cache tag goes, and the block's clusters are freed.
        recstore_test::StdoutCapture quiet;
        ok = start_library(disk, 0, false, nullptr);
        if (ok) {
            // The daemon is stopped so that only the measured call works on the disk; the block
            // holding the catalogue stops being current, as it would have when it filled.
            rec_shutdown_deamon();
            fs_changeblock(0, 0, 1);
            const double t0 = now_ms();
            const int r = rec_overlap();
            recycle_ms = now_ms() - t0;
            ok = r == 0;
            // Every recording of the catalogue is gone with its block.
            struct tm start = day_start(1), end = plus_sec(day_start(31), 86399);
            const int h =
                rec_find_open(&start, &end, ~0ull, 0, kAnyMode, kAllMatches, kMaxResults, 0);
            recycled_files = h >= 0 ? g_recordings - rec_find_getcounts(h) : -1;
            if (h >= 0) rec_find_close(h);
            ok = ok && recycled_files == g_recordings;
            plug_out(disk);
            rec_exit();
        }
        quiet.stop();
    }
    unplug_rig_disk(disk);
    unlink(disk.image.c_str());
    unlink(db.c_str());
    printf("\n%d recordings, %d channels, %d days; latencies in ms\n\n", g_recordings, kChannels,
           kDays);
    printf("| query | how | results | runs | median ms | p99 ms |\n|---|---|---|---|---|---|\n");
    for (const Row &r : rows) {
        printf("| %s | %s | %d | %d | %.3f | %.3f |\n", r.what.c_str(), r.how.c_str(), r.found,
               r.samples, r.median, r.p99);
    }
    printf("\ncatalogue made through rec_open/rec_close: %.0f recordings/s\n", per_sec);
    printf("cache rebuilt at bring-up (fs_datazone_init to cache_is_loaded): %.0f ms\n", cache_ms);
    printf(
        "cache rebuild (cache_load to cache_is_loaded), recordings/s, median of %d interleaved "
        "rounds, warm: direct header reads %.0f, opening every recording %.0f (%.2fx); caches "
        "dropped first, median of %d: %.0f and %.0f\n",
        kRebuildRounds, rebuild.fast, rebuild.plain, rebuild.fast / rebuild.plain, kColdRounds,
        rebuild.fast_cold, rebuild.plain_cold);
    if (ok) {
        printf("recycling the block holding %d recordings (rec_overlap): %.0f ms\n", recycled_files,
               recycle_ms);
    } else {
        printf("recycling failed\n");
    }
    printf("\n");
    for (const Row &r : rows) {
        printf("bench catalogue: query=%s how=%s results=%d runs=%d median_ms=%.3f p99_ms=%.3f\n",
               key_word(r.what).c_str(), key_word(r.how).c_str(), r.found, r.samples, r.median,
               r.p99);
    }
    printf("bench catalogue_build: recordings=%d made_per_s=%.0f cache_rebuild_ms=%.0f\n",
           g_recordings, per_sec, cache_ms);
    printf(
        "bench cache_rebuild: recordings=%d fast_per_s=%.0f plain_per_s=%.0f ratio=%.2f "
        "cold_per_s=%.0f plain_cold_per_s=%.0f\n",
        g_recordings, rebuild.fast, rebuild.plain, rebuild.fast / rebuild.plain, rebuild.fast_cold,
        rebuild.plain_cold);
    if (ok) {
        printf("bench recycle: recordings=%d ms=%.0f ms_per_recording=%.4f\n", recycled_files,
               recycle_ms, recycle_ms / recycled_files);
    }
    return ok ? 0 : 1;
}

// Recycling a block of exactly kRecycleRecordings recordings the current way (the map cleared
// with one write, the directories and cache tags tidied once per index directory) and the plain
// way (every map word written on its own, everything tidied after each recording), in
// interleaved rounds. Each round formats the disk, makes the recordings in the first block, moves
// the current block on and times one rec_overlap.
constexpr int kRecycleRecordings = 10000;
constexpr int kRecycleRounds = 6;
// Clearing one full cluster map (every entry busy, as in a block that filled up), both ways.
constexpr int kMapRounds = 10;
constexpr uint32_t kMapEntries = kCluster / 4;

void set_recycle_batched(bool batched) {
    recstore::bitmap_set_clear_batched(batched);
    recstore::fs_set_clear_gathered(batched);
}

// One recycle of a freshly made block; its wall time in ms, or a negative value on failure.
double recycle_once(rig::Disk &disk, bool batched) {
    recstore_test::StdoutCapture quiet;
    double per_sec = 0;
    if (!start_library(disk, 0, true, nullptr) || !build_catalogue(&per_sec)) return -1;
    rec_shutdown_deamon();
    fs_changeblock(0, 0, 1);
    set_recycle_batched(batched);
    const double t0 = now_ms();
    const int r = rec_overlap();
    const double ms = now_ms() - t0;
    set_recycle_batched(true);
    struct tm start = day_start(1), end = plus_sec(day_start(31), 86399);
    const int h = rec_find_open(&start, &end, ~0ull, 0, kAnyMode, kAllMatches, kMaxResults, 0);
    const int left = h >= 0 ? rec_find_getcounts(h) : -1;
    if (h >= 0) rec_find_close(h);
    plug_out(disk);
    rec_exit();
    return r == 0 && left == 0 ? ms : -1;
}

// bitmap_clear alone on a full map held in a file of the rig's directory: its ms, or a negative
// value on failure.
double clear_full_map(const std::string &path, bool batched) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return -1;
    std::vector<unsigned char> raw(kCluster);
    for (uint32_t i = 0; i < kMapEntries; i++) {
        recstore::le32_store(&raw[i * 4], recstore::make_busy_entry(i + 1));
    }
    double ms = -1;
    cluster_bitmap bm;
    if (pwrite(fd, raw.data(), raw.size(), 0) == static_cast<ssize_t>(raw.size()) &&
        bitmap_init(&bm, static_cast<int>(kMapEntries), fd, 0) == 0) {
        recstore::bitmap_set_clear_batched(batched);
        const double t0 = now_ms();
        const int r = bitmap_clear(&bm);
        ms = now_ms() - t0;
        recstore::bitmap_set_clear_batched(true);
        if (r != 0 || bm.free_bits != kMapEntries) ms = -1;
        bitmap_exit(&bm);
    }
    close(fd);
    unlink(path.c_str());
    return ms;
}

int run_recycle() {
    g_recordings = kRecycleRecordings;
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    loglevel = 0;
    rig::Disk disk;
    std::string error;
    if (!rig::try_attach('a', 200 * kGiB, false, &disk, &error)) {
        fprintf(stderr, "cannot attach a rig disk: %s\n", error.c_str());
        return 1;
    }
    {
        recstore_test::StdoutCapture quiet;
        if (fs_format(disk.node.c_str()) != 0) {
            quiet.stop();
            fprintf(stderr, "cannot format the rig disk\n");
            unplug_rig_disk(disk);
            return 1;
        }
    }
    int rounds = kRecycleRounds;
    // RECSTORE_BENCH_ROUNDS: fewer (or more) rounds, for a quick trial.
    if (const char *n = getenv("RECSTORE_BENCH_ROUNDS")) rounds = std::max(1, atoi(n));
    std::vector<double> fast, plain, map_fast, map_plain;
    bool ok = true;
    auto side = [&](bool batched, std::vector<double> &out) {
        const double ms = recycle_once(disk, batched);
        if (ms < 0) ok = false;
        out.push_back(ms);
        fprintf(stderr, "recycle %s: %.1f ms\n", batched ? "current" : "plain", ms);
    };
    auto current_side = [&] { side(true, fast); };
    auto plain_side = [&] { side(false, plain); };
    bench::interleave(rounds, ok, current_side, plain_side);
    unplug_rig_disk(disk);
    unlink(disk.image.c_str());
    const std::string map = rig::dir() + "/map";
    auto map_side = [&](bool batched, std::vector<double> &out) {
        const double ms = clear_full_map(map, batched);
        if (ms < 0) ok = false;
        out.push_back(ms);
    };
    auto map_current = [&] { map_side(true, map_fast); };
    auto map_plain_side = [&] { map_side(false, map_plain); };
    bench::interleave(kMapRounds, ok, map_current, map_plain_side);
    if (!ok) {
        fprintf(stderr, "recycling failed\n");
        return 1;
    }
    const double ms = bench::median(fast), plain_ms = bench::median(plain);
    const double map_ms = bench::median(map_fast), map_plain_ms = bench::median(map_plain);
    printf(
        "recycling a block of %d recordings (rec_overlap), medians of %d interleaved rounds: "
        "%.1f ms (plain %.1f ms)\n",
        kRecycleRecordings, static_cast<int>(fast.size()), ms, plain_ms);
    printf(
        "clearing a full cluster map (%u busy entries), medians of %d interleaved rounds: "
        "%.2f ms (plain %.2f ms)\n",
        kMapEntries, static_cast<int>(map_fast.size()), map_ms, map_plain_ms);
    printf("bench recycle_10k: ms=%.1f ms_per_recording=%.4f plain_ms=%.1f ratio=%.3f\n", ms,
           ms / kRecycleRecordings, plain_ms, ms / plain_ms);
    printf("bench recycle_map: entries=%u ms=%.2f plain_ms=%.2f ratio=%.3f\n", kMapEntries, map_ms,
           map_plain_ms, map_ms / map_plain_ms);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        if (argc > 1 && strcmp(argv[1], "recycle") == 0) return run_recycle();
        return run();
    } catch (const std::exception &e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
