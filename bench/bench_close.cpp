// SPDX-License-Identifier: MIT
// What the durability of closed recordings and the payload-before-entry order cost.
//   close_flush: recordings opened, given two clusters and closed through fs_open/fs_write/
//     fs_close (direct payload I/O), with the close's flushes of the index file and its
//     directories, against the same with every fsync of the library made a no-op through the
//     I/O table (the close as it was before it flushed). Recordings per second and the median
//     close time.
//   buffered_order: 1 and 8 streams writing whole clusters with buffered payload I/O, with the
//   range
//     flush of each cluster before its entry, against the same with the range flush made a no-op
//     (the order left to the page cache); the zone is fsynced at the end of both. MiB/s and
//     machine CPU seconds per GiB.
// Rounds with and without alternate (the order flips every round); medians and ratios.
//
// Runs inside the disk rig only (tests/rig/rig-run bench_close): a loop-backed 200 GiB disk
// attached with direct I/O on the loop device, formatted and brought up by the library.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr int kRounds = 10;                 // rounds per side, alternated
constexpr int kRecordingsPerRound = 40;     // close_flush: recordings per round
constexpr uint32_t kClustersPerRec = 2;     // close_flush: clusters per recording
constexpr int kStreamCounts[] = {1, 8};     // buffered_order: streams
constexpr uint32_t kClustersPerRun = 1024;  // buffered_order: clusters per round (512 MiB)
constexpr int kCacheInodes = 65536;
constexpr unsigned kCacheMib = 16;
constexpr int kDirectIoFlag = 2;
constexpr int kLoadWaitMs = 10000;

int nop_fsync(int) {
    return 0;
}

int nop_range(int, off64_t, off64_t, unsigned) {
    return 0;
}

bool wait_loaded() {
    for (int waited = 0; waited < kLoadWaitMs; waited += 10) {
        if (cache_is_loaded(0)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool bring_up(const rig::Disk &disk, int flags) {
    if (fs_init(kCacheInodes, kCacheMib, flags) != 0) return false;
    const char *dev = disk.node.c_str();
    fs_umount(dev);
    if (fs_mount(dev) != 0 || fs_opendisk(dev) != 0) return false;
    if (fs_cleardisk(0) != 0) return false;
    cache_set_loaded(0, 0);
    if (fs_datazone_init(0) != 0 || !wait_loaded()) return false;
    if (fs_adddisk(0, 0) != 0) return false;
    return block_alloc(0) == 1;
}

void take_down(const rig::Disk &disk) {
    fs_removedisk(0, 0);
    fs_datazone_exit(0);
    fs_closedisk(0);
    fs_umount(disk.node.c_str());
    fs_exit();
}

// A distinct start time for the n-th recording of the benchmark.
rec_param param_n(int n, int channel) {
    rec_param p;
    memset(&p, 0, sizeof p);
    p.start.tm_year = 124;
    p.start.tm_mon = 0;
    p.start.tm_mday = 1 + n / 1440;
    p.start.tm_hour = (n / 60) % 24;
    p.start.tm_min = n % 60;
    p.channel = static_cast<uint32_t>(channel);
    return p;
}

// ---- close_flush ----

struct CloseRound {
    double recs_per_sec = 0;
    std::vector<double> close_ms;
};

CloseRound close_round(int *counter, const unsigned char *buf, bool *ok) {
    CloseRound r;
    const double t0 = now_sec();
    for (int i = 0; i < kRecordingsPerRound; i++) {
        const int n = (*counter)++;
        const rec_param p = param_n(n, n % RECSTORE_MAX_CHANNELS);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr);
        if (h < 0) {
            *ok = false;
            return r;
        }
        kframe frames[RECSTORE_MAX_KFRAMES] = {{0, 1704067200u + static_cast<uint32_t>(n)}};
        for (uint32_t c = 0; c < kClustersPerRec; c++) {
            if (fs_write(h, buf, kCluster, frames, 1) != static_cast<int>(kCluster)) *ok = false;
        }
        const double c0 = now_sec();
        fs_close(h, nullptr);
        r.close_ms.push_back((now_sec() - c0) * 1000);
    }
    r.recs_per_sec = kRecordingsPerRound / (now_sec() - t0);
    return r;
}

struct CloseResult {
    double with_rate = 0, without_rate = 0, with_ms = 0, without_ms = 0;
};

bool bench_close_flush(const rig::Disk &disk, CloseResult *out) {
    if (!bring_up(disk, kDirectIoFlag)) {
        fprintf(stderr, "cannot bring the disk up\n");
        return false;
    }
    Buffer buf = aligned_cluster(3);
    int counter = 0;
    bool ok = true;
    std::vector<double> with_rate, without_rate, with_ms, without_ms;
    auto with = [&] {
        CloseRound r = close_round(&counter, buf.get(), &ok);
        with_rate.push_back(r.recs_per_sec);
        with_ms.insert(with_ms.end(), r.close_ms.begin(), r.close_ms.end());
    };
    auto without = [&] {
        recstore::IoOverride<int(int)> nop(recstore::io_calls().fsync, nop_fsync);
        CloseRound r = close_round(&counter, buf.get(), &ok);
        without_rate.push_back(r.recs_per_sec);
        without_ms.insert(without_ms.end(), r.close_ms.begin(), r.close_ms.end());
    };
    interleave(kRounds, ok, with, without);
    take_down(disk);
    out->with_rate = median(with_rate);
    out->without_rate = median(without_rate);
    out->with_ms = median(with_ms);
    out->without_ms = median(without_ms);
    return ok;
}

// ---- buffered_order ----

bool write_streams(int streams, int *counter) {
    std::vector<std::thread> threads;
    std::vector<int> ok(static_cast<size_t>(streams), 1);
    const int first = *counter;
    *counter += streams;
    for (int s = 0; s < streams; s++) {
        threads.emplace_back([s, first, streams, &ok] {
            Buffer buf = aligned_cluster(static_cast<unsigned>(s));
            const rec_param p = param_n(first + s, s);
            const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr);
            if (h < 0 || !buf) {
                ok[static_cast<size_t>(s)] = 0;
                return;
            }
            kframe frames[RECSTORE_MAX_KFRAMES] = {{0, 1704067200u}};
            for (uint32_t n = 0; n < kClustersPerRun / static_cast<uint32_t>(streams); n++) {
                frames[0].frame_time++;
                if (fs_write(h, buf.get(), kCluster, frames, 1) != static_cast<int>(kCluster))
                    ok[static_cast<size_t>(s)] = 0;
            }
            fs_close(h, nullptr);
        });
    }
    for (std::thread &t : threads) t.join();
    datazone_sync(0);
    return std::all_of(ok.begin(), ok.end(), [](int v) { return v != 0; });
}

struct OrderResult {
    int streams = 0;
    double with_mibs = 0, without_mibs = 0, with_cpu = 0, without_cpu = 0;
};

bool bench_buffered_order(const rig::Disk &disk, int streams, OrderResult *out) {
    if (!bring_up(disk, 0)) {
        fprintf(stderr, "cannot bring the disk up\n");
        return false;
    }
    const double gib = static_cast<double>(kClustersPerRun) * kCluster / static_cast<double>(kGiB);
    int counter = 0;
    bool ok = true;
    std::vector<double> with_mibs, without_mibs, with_cpu, without_cpu;
    auto with = [&] {
        const Sample s = measure([&] { ok = write_streams(streams, &counter) && ok; });
        with_mibs.push_back(gib * 1024 / s.wall);
        with_cpu.push_back(s.cpu / gib);
    };
    auto without = [&] {
        recstore::IoOverride<int(int, off64_t, off64_t, unsigned)> nop(
            recstore::io_calls().sync_file_range, nop_range);
        const Sample s = measure([&] { ok = write_streams(streams, &counter) && ok; });
        without_mibs.push_back(gib * 1024 / s.wall);
        without_cpu.push_back(s.cpu / gib);
    };
    interleave(kRounds, ok, with, without);
    take_down(disk);
    out->streams = streams;
    out->with_mibs = median(with_mibs);
    out->without_mibs = median(without_mibs);
    out->with_cpu = median(with_cpu);
    out->without_cpu = median(without_cpu);
    return ok;
}

int run() {
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    loglevel = 0;  // no per-call messages in the timings
    rig::Disk disk;
    if (!bench::attach_disk('a', 200 * kGiB, true, &disk)) return 1;
    {
        recstore_test::StdoutCapture quiet;
        if (fs_format(disk.node.c_str()) != 0) {
            fprintf(stderr, "%s", quiet.stop().c_str());
            bench::unplug_disk(disk);
            return 1;
        }
    }
    CloseResult c;
    std::vector<OrderResult> orders;
    bool ok;
    {
        // The library's own plain messages (mounts, closes) are not part of the report.
        recstore_test::StdoutCapture quiet;
        ok = bench_close_flush(disk, &c);
        for (int streams : kStreamCounts) {
            OrderResult o;
            ok = ok && bench_buffered_order(disk, streams, &o);
            orders.push_back(o);
        }
        quiet.stop();
    }
    bench::unplug_disk(disk);
    unlink(disk.image.c_str());
    if (!ok) {
        fprintf(stderr, "a write, open or bring-up failed\n");
        return 1;
    }
    printf("\n%d interleaved rounds per side; medians\n", kRounds);
    printf("close: %d recordings of %u clusters per round, direct payload I/O\n",
           kRecordingsPerRound, kClustersPerRec);
    printf("| close | recordings/s | median close ms |\n|---|---|---|\n");
    printf("| flushed | %.1f | %.2f |\n| not flushed | %.1f | %.2f |\n", c.with_rate, c.with_ms,
           c.without_rate, c.without_ms);
    printf("buffered writes: %u clusters (%u MiB) per round\n", kClustersPerRun,
           kClustersPerRun / 2);
    printf("| streams | payload before entry | MiB/s | CPU s/GiB |\n|---|---|---|---|\n");
    for (const OrderResult &o : orders) {
        printf("| %d | range flush | %.1f | %.3f |\n| %d | none | %.1f | %.3f |\n", o.streams,
               o.with_mibs, o.with_cpu, o.streams, o.without_mibs, o.without_cpu);
    }
    printf(
        "bench close_flush: flushed_recs_per_s=%.1f unflushed_recs_per_s=%.1f ratio=%.2f "
        "flushed_close_ms=%.2f unflushed_close_ms=%.2f\n",
        c.with_rate, c.without_rate, c.with_rate / c.without_rate, c.with_ms, c.without_ms);
    printf("bench buffered_order:");
    for (const OrderResult &o : orders) {
        printf(" s%d_flushed_mib_s=%.1f s%d_unflushed_mib_s=%.1f s%d_ratio=%.2f", o.streams,
               o.with_mibs, o.streams, o.without_mibs, o.streams, o.with_mibs / o.without_mibs);
    }
    printf("\n");
    return 0;
}

}  // namespace

int main() {
    try {
        return run();
    } catch (const std::exception &e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
