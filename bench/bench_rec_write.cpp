// SPDX-License-Identifier: MIT
// Recording throughput through the recording API: 64 channels, one thread each (as a recorder
// runs one thread per camera), each opening its recording with rec_open on the current disk
// chosen by the daemon and writing whole 512 KiB clusters with one key frame each through
// rec_write, then rec_close; the run ends with datazone_sync. Buffered payload I/O (rec_init mode
// 0) and direct I/O (mode 2). Baseline measured in the same run: a plain writer that writes the
// same number of clusters sequentially with O_DIRECT to the same data partition. Reports MiB/s,
// their ratio and the CPU seconds per GiB of both sides, CPU counted machine-wide from
// /proc/stat; medians of several runs.
//
// Runs inside the disk rig only (tests/rig/rig-run bench_rec_write): a loop-backed 200 GiB disk
// attached with direct I/O on the loop device, formatted once; every run starts the library
// afresh (rec_init, the plug-in order with the disk cleared, the daemon) so that every run
// writes the same clusters.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr int kChannels = 64;
constexpr uint32_t kClustersPerChannel = 32;
constexpr uint32_t kClustersPerRun = kChannels * kClustersPerChannel;  // 1 GiB per run
constexpr int kRuns = 5;
constexpr int kDirectIoMode = 2;
constexpr int kCreate = 0x40 | O_RDWR;

// 64 channels, one thread each; false when an open or a write failed.
bool record_channels(int run) {
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int ch = 0; ch < kChannels; ch++) {
        threads.emplace_back([ch, run, &failures] {
            Buffer buf = aligned_cluster(static_cast<unsigned>(ch));
            struct tm start;
            memset(&start, 0, sizeof start);
            start.tm_year = 125;
            start.tm_mon = 0;
            start.tm_mday = 1 + run;
            start.tm_hour = 8;
            start.tm_min = ch % 60;
            const int h = rec_open(ch, &start, 0, 0, 0, 0, kCreate, 0);
            if (h < 0 || !buf) {
                failures++;
                return;
            }
            kframe frames[RECSTORE_MAX_KFRAMES] = {{0, 1735718400u}};
            for (uint32_t n = 0; n < kClustersPerChannel; n++) {
                frames[0].frame_time++;
                if (rec_write(h, buf.get(), static_cast<int>(kCluster), frames, 1) !=
                    static_cast<int>(kCluster)) {
                    failures++;
                }
            }
            rec_close(h, nullptr);
        });
    }
    for (std::thread &t : threads) t.join();
    datazone_sync(0);
    return failures.load() == 0;
}

struct Row {
    const char *mode;
    double rec_mibs, raw_mibs, rec_cpu_gib, raw_cpu_gib;
};

bool run_mode(const rig::Disk &disk, const char *name, int mode, std::vector<Row> &rows) {
    const std::string partition = disk.node + "3";
    Buffer raw_buf = aligned_cluster(7);
    const double gib = static_cast<double>(kClustersPerRun) * kCluster / static_cast<double>(kGiB);
    const double mib = gib * 1024;
    std::vector<double> rec_rate, raw_rate, rec_cpu, raw_cpu;
    for (int run = 0; run < kRuns; run++) {
        if (!rec_start(disk, mode)) {
            fprintf(stderr, "cannot start the library (%s)\n", name);
            rec_stop(disk);
            return false;
        }
        bool ok = true;
        Sample r, w;
        auto rec_part = [&] { r = measure([&] { ok = record_channels(run) && ok; }); };
        auto raw_part = [&] {
            w = measure([&] { ok = write_raw(partition, raw_buf.get(), kClustersPerRun) && ok; });
        };
        // Alternate the order so that neither side always follows the other.
        if (run % 2 == 0) {
            rec_part();
            raw_part();
        } else {
            raw_part();
            rec_part();
        }
        rec_stop(disk);
        if (!ok) {
            fprintf(stderr, "a write failed (%s, run %d)\n", name, run);
            return false;
        }
        rec_rate.push_back(mib / r.wall);
        raw_rate.push_back(mib / w.wall);
        rec_cpu.push_back(r.cpu / gib);
        raw_cpu.push_back(w.cpu / gib);
        fprintf(stderr, "%-9s run %d: rec_write %7.1f MiB/s, raw %7.1f MiB/s\n", name, run,
                rec_rate.back(), raw_rate.back());
    }
    rows.push_back(Row{name, median(rec_rate), median(raw_rate), median(rec_cpu), median(raw_cpu)});
    return true;
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
        ok = run_mode(disk, "buffered", 0, rows) && run_mode(disk, "direct", kDirectIoMode, rows);
        quiet.stop();
    }
    bench::unplug_disk(disk);
    unlink(disk.image.c_str());
    printf("\n%d channels (one thread each), %u clusters (%u MiB) per run, %d runs; medians\n",
           kChannels, kClustersPerRun, kClustersPerRun / 2, kRuns);
    printf(
        "| payload I/O | rec_write MiB/s | raw O_DIRECT MiB/s | ratio | rec_write CPU s/GiB | raw "
        "CPU s/GiB |\n|---|---|---|---|---|---|\n");
    for (const Row &r : rows) {
        printf("| %s | %.1f | %.1f | %.2f | %.3f | %.3f |\n", r.mode, r.rec_mibs, r.raw_mibs,
               r.rec_mibs / r.raw_mibs, r.rec_cpu_gib, r.raw_cpu_gib);
    }
    printf("\n");
    for (const Row &r : rows) {
        printf(
            "bench rec_write: mode=%s channels=%d rec_mibs=%.1f raw_mibs=%.1f ratio=%.2f "
            "rec_cpu_s_per_gib=%.3f raw_cpu_s_per_gib=%.3f\n",
            r.mode, kChannels, r.rec_mibs, r.raw_mibs, r.rec_mibs / r.raw_mibs, r.rec_cpu_gib,
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
