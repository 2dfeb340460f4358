// SPDX-License-Identifier: MIT
// Recording throughput: N streams (1, 8, 64) each writing whole 512 KiB clusters through
// fs_write (allocation under the disk's mutex, payload, index entry, cache tag) on a formatted
// disk, with buffered payload I/O and with O_DIRECT (fs_init flag 2), side by side with a plain
// writer that writes the same number of 512 KiB clusters sequentially with O_DIRECT to the same
// data partition. Reports MiB/s, their ratio and the CPU seconds per GiB of both, CPU counted
// machine-wide from /proc/stat; medians of several runs.
//
// Runs inside the disk rig only (tests/rig/rig-run bench_write): a loop-backed 200 GiB disk
// attached with direct I/O on the loop device, formatted and brought up by the library.
#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr uint32_t kClustersPerRun = 1024;  // 512 MiB per run and configuration
constexpr int kRuns = 3;
constexpr int kStreamCounts[] = {1, 8, 64};
constexpr int kCacheInodes = 65536;
constexpr unsigned kCacheMib = 16;
constexpr int kDirectIoFlag = 2;
constexpr int kLoadWaitMs = 10000;

bool wait_loaded() {
    for (int waited = 0; waited < kLoadWaitMs; waited += 10) {
        if (cache_is_loaded(0)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// A fresh, empty disk 0 with block 1 current: every run writes the same clusters.
bool reset_disk() {
    fs_datazone_exit(0);
    if (fs_cleardisk(0) != 0) return false;
    cache_set_loaded(0, 0);
    if (fs_datazone_init(0) != 0 || !wait_loaded()) return false;
    return block_alloc(0) == 1;
}

bool bring_up(const rig::Disk &disk, int flags) {
    if (fs_init(kCacheInodes, kCacheMib, flags) != 0) return false;
    const char *dev = disk.node.c_str();
    fs_umount(dev);
    if (fs_mount(dev) != 0 || fs_opendisk(dev) != 0) return false;
    if (fs_cleardisk(0) != 0) return false;
    cache_set_loaded(0, 0);
    if (fs_datazone_init(0) != 0 || !wait_loaded()) return false;
    return fs_adddisk(0, 0) == 0;
}

void take_down(const rig::Disk &disk) {
    fs_removedisk(0, 0);
    fs_datazone_exit(0);
    fs_closedisk(0);
    fs_umount(disk.node.c_str());
    fs_exit();
}

// N streams share kClustersPerRun clusters; false when a write failed.
bool write_streams(int streams, int run) {
    std::vector<std::thread> threads;
    std::vector<int> ok(static_cast<size_t>(streams), 1);
    const uint32_t per_stream = kClustersPerRun / static_cast<uint32_t>(streams);
    for (int s = 0; s < streams; s++) {
        threads.emplace_back([s, run, per_stream, &ok] {
            Buffer buf = aligned_cluster(static_cast<unsigned>(s));
            rec_param p;
            memset(&p, 0, sizeof p);
            p.start.tm_year = 124;
            p.start.tm_mon = 0;
            p.start.tm_mday = 1 + run;
            p.start.tm_hour = s / 60;
            p.start.tm_min = s % 60;
            p.channel = static_cast<uint32_t>(s % RECSTORE_MAX_CHANNELS);
            const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr);
            if (h < 0 || !buf) {
                ok[static_cast<size_t>(s)] = 0;
                return;
            }
            kframe frames[RECSTORE_MAX_KFRAMES] = {{0, 1704067200u}};
            for (uint32_t n = 0; n < per_stream; n++) {
                frames[0].frame_time++;
                if (fs_write(h, buf.get(), kCluster, frames, 1) != static_cast<int>(kCluster)) {
                    ok[static_cast<size_t>(s)] = 0;
                }
            }
            fs_close(h, nullptr);
        });
    }
    for (std::thread &t : threads) t.join();
    datazone_sync(0);
    return std::all_of(ok.begin(), ok.end(), [](int v) { return v != 0; });
}

struct Row {
    const char *mode;
    int streams;
    double fs_mibs, raw_mibs, fs_cpu_gib, raw_cpu_gib;
};

bool run_mode(const rig::Disk &disk, const char *mode, int flags, std::vector<Row> &rows) {
    if (!bring_up(disk, flags)) {
        fprintf(stderr, "cannot bring the disk up (%s)\n", mode);
        return false;
    }
    const std::string partition = disk.node + "3";
    Buffer raw_buf = aligned_cluster(7);
    const double gib = static_cast<double>(kClustersPerRun) * kCluster / static_cast<double>(kGiB);
    const double mib = gib * 1024;
    bool ok = true;
    for (int streams : kStreamCounts) {
        std::vector<double> fs_rate, raw_rate, fs_cpu, raw_cpu;
        for (int run = 0; run < kRuns && ok; run++) {
            if (!reset_disk()) {
                fprintf(stderr, "cannot reset the disk\n");
                ok = false;
                break;
            }
            Sample f, r;
            auto fs_part = [&] { f = measure([&] { ok = write_streams(streams, run) && ok; }); };
            auto raw_part = [&] {
                r = measure(
                    [&] { ok = write_raw(partition, raw_buf.get(), kClustersPerRun) && ok; });
            };
            // Alternate the order so that neither side always follows the other.
            if (run % 2 == 0) {
                fs_part();
                raw_part();
            } else {
                raw_part();
                fs_part();
            }
            fs_rate.push_back(mib / f.wall);
            raw_rate.push_back(mib / r.wall);
            fs_cpu.push_back(f.cpu / gib);
            raw_cpu.push_back(r.cpu / gib);
        }
        if (!ok) break;
        rows.push_back(
            Row{mode, streams, median(fs_rate), median(raw_rate), median(fs_cpu), median(raw_cpu)});
        const Row &row = rows.back();
        fprintf(stderr,
                "%-9s %3d streams: fs_write %7.1f MiB/s, raw O_DIRECT %7.1f MiB/s, ratio %.2f, "
                "CPU s/GiB %.3f vs %.3f\n",
                row.mode, row.streams, row.fs_mibs, row.raw_mibs, row.fs_mibs / row.raw_mibs,
                row.fs_cpu_gib, row.raw_cpu_gib);
        fflush(stdout);
    }
    take_down(disk);
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
    std::vector<Row> rows;
    bool ok;
    {
        // The library's own plain messages (mounts, closes) are not part of the report.
        recstore_test::StdoutCapture quiet;
        ok = run_mode(disk, "buffered", 0, rows) && run_mode(disk, "O_DIRECT", kDirectIoFlag, rows);
        quiet.stop();
    }
    bench::unplug_disk(disk);
    unlink(disk.image.c_str());
    printf("\n%d runs of %u clusters (%u MiB) per configuration; medians\n", kRuns, kClustersPerRun,
           kClustersPerRun / 2);
    printf(
        "| payload I/O | streams | fs_write MiB/s | raw O_DIRECT MiB/s | ratio | fs_write CPU "
        "s/GiB | raw CPU s/GiB |\n|---|---|---|---|---|---|---|\n");
    for (const Row &r : rows) {
        printf("| %s | %d | %.1f | %.1f | %.2f | %.3f | %.3f |\n", r.mode, r.streams, r.fs_mibs,
               r.raw_mibs, r.fs_mibs / r.raw_mibs, r.fs_cpu_gib, r.raw_cpu_gib);
    }
    printf("\n");
    for (const Row &r : rows) {
        printf(
            "bench write: mode=%s streams=%d fs_mibs=%.1f raw_mibs=%.1f ratio=%.2f "
            "fs_cpu_s_per_gib=%.3f raw_cpu_s_per_gib=%.3f\n",
            r.mode, r.streams, r.fs_mibs, r.raw_mibs, r.fs_mibs / r.raw_mibs, r.fs_cpu_gib,
            r.raw_cpu_gib);
    }
    return ok ? 0 : 1;
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
