// SPDX-License-Identifier: MIT
// Data-zone benchmark: the rate of cluster allocation (datazone_alloc: one 4-byte map write, no
// read) and the time to load a block's cluster map (block_load: one 512 KiB read and one pass),
// each with a baseline measured in the same run on the same descriptor: raw 4-byte pwrite64
// calls, and raw 512 KiB pread64 calls. Medians over several runs.
//
// Inside the disk rig (tests/rig/rig-run bench_datazone) it works on partition 3 of a
// loop-backed 200 GiB disk; elsewhere on a 200 GiB sparse image file under /var/tmp.
#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bitmap.h"
#include "recstore.h"
#include "rig.h"

namespace {

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr int kRuns = 7;
constexpr int kAllocsPerRun = 16000;  // 7 runs stay inside one 131072-cluster block
constexpr int kLoadsPerRun = 20;

double now_sec() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Target {
    std::string where;  // description for the report
    std::string cleanup_dir;
    rig::Disk disk;
};

bool prepare(Target &t) {
    if (rig::active()) {
        std::string error;
        if (!rig::try_attach('a', 200 * kGiB, false, &t.disk, &error) ||
            !rig::try_partition_simple(t.disk, &error)) {
            fprintf(stderr, "cannot prepare a rig disk: %s\n", error.c_str());
            return false;
        }
        std::snprintf(g_disk[0].devname, sizeof(g_disk[0].devname), "%s", t.disk.node.c_str());
        t.where = "rig: partition 3 of a loop-backed 200 GiB sparse disk (" + t.disk.loop + ")";
        return true;
    }
    char dir[] = "/var/tmp/recstore-bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) return false;
    t.cleanup_dir = dir;
    const std::string image = t.cleanup_dir + "/sda3";
    const int fd = open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate64(fd, static_cast<off64_t>(200 * kGiB)) != 0) return false;
    close(fd);
    std::snprintf(g_disk[0].devname, sizeof(g_disk[0].devname), "%s/sda", dir);
    t.where = "sparse 200 GiB image file " + image;
    return true;
}

void finish(Target &t) {
    if (g_dz_ctx[0].fd_rw > 0) datazone_exit(0);
    if (!t.cleanup_dir.empty()) {
        unlink((t.cleanup_dir + "/sda3").c_str());
        rmdir(t.cleanup_dir.c_str());
    }
    std::string error;
    if (!t.disk.loop.empty() && !rig::try_unplug(t.disk, &error)) {
        fprintf(stderr, "cannot unplug %s: %s\n", t.disk.node.c_str(), error.c_str());
    }
}

int run() {
    loglevel = 0;  // no per-call messages in the timings
    g_magic[0] = RECSTORE_MAGIC_V7;
    Target t;
    if (!prepare(t)) {
        std::fprintf(stderr, "cannot prepare the data partition\n");
        return 1;
    }
    if (datazone_clear(0) != 0 || datazone_init(0, 0) != 0 || block_alloc(0) != 1) {
        std::fprintf(stderr, "cannot start the data zone\n");
        finish(t);
        return 1;
    }
    const int fd = g_dz_ctx[0].fd_rw;
    const uint32_t spare_map = 2;  // block 2's cluster map: all zero, rewritten with zeros

    std::vector<double> alloc_rate, pwrite_rate, load_ms, pread_ms;
    std::vector<unsigned char> cluster(kCluster);
    const unsigned char zero[4] = {0, 0, 0, 0};
    for (int r = 0; r < kRuns; ++r) {
        double t0 = now_sec();
        for (int i = 0; i < kAllocsPerRun; ++i) {
            if (datazone_alloc(0) < 0) {
                std::fprintf(stderr, "allocation failed\n");
                finish(t);
                return 1;
            }
        }
        alloc_rate.push_back(kAllocsPerRun / (now_sec() - t0));

        t0 = now_sec();
        for (int i = 0; i < kAllocsPerRun; ++i) {
            const off64_t pos = static_cast<off64_t>(spare_map) * kCluster +
                                (i % RECSTORE_CLUSTERS_PER_BLOCK) * recstore::kEntryBytes;
            if (pwrite64(fd, zero, sizeof(zero), pos) != 4) return 1;
        }
        pwrite_rate.push_back(kAllocsPerRun / (now_sec() - t0));

        t0 = now_sec();
        for (int i = 0; i < kLoadsPerRun; ++i) block_unload(block_load(0, 2));
        load_ms.push_back((now_sec() - t0) * 1000.0 / kLoadsPerRun);

        t0 = now_sec();
        for (int i = 0; i < kLoadsPerRun; ++i) {
            if (pread64(fd, cluster.data(), kCluster, static_cast<off64_t>(spare_map) * kCluster) !=
                static_cast<ssize_t>(kCluster)) {
                return 1;
            }
        }
        pread_ms.push_back((now_sec() - t0) * 1000.0 / kLoadsPerRun);
    }

    const double a = median(alloc_rate), w = median(pwrite_rate);
    const double l = median(load_ms), p = median(pread_ms);
    std::printf("target: %s\n", t.where.c_str());
    std::printf("runs: %d (median reported), %d allocations and %d block loads per run\n", kRuns,
                kAllocsPerRun, kLoadsPerRun);
    std::printf("datazone_alloc:          %10.0f allocations/s\n", a);
    std::printf("baseline 4-byte pwrite64: %9.0f writes/s   ratio alloc/pwrite = %.2f\n", w, a / w);
    std::printf("block_load + unload:     %10.3f ms\n", l);
    std::printf("baseline 512 KiB pread64: %9.3f ms        ratio load/pread = %.2f\n", p, l / p);
    std::printf(
        "\nbench datazone_alloc: alloc_per_s=%.0f pwrite_per_s=%.0f ratio_alloc_to_pwrite=%.2f\n"
        "bench datazone_load: load_ms=%.3f pread_ms=%.3f ratio_load_to_pread=%.2f\n",
        a, w, a / w, l, p, l / p);
    finish(t);
    return 0;
}

}  // namespace

int main() {
    try {
        return run();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench_datazone: %s\n", e.what());
        return 1;
    }
}
