// SPDX-License-Identifier: MIT
// Helpers shared by the recording benchmarks: wall and machine-wide CPU clocks, medians and
// percentiles, page-aligned cluster buffers, and the plain sequential O_DIRECT writer of a data
// partition that serves as the baseline of the write benchmarks.
#ifndef RECSTORE_BENCH_COMMON_H
#define RECSTORE_BENCH_COMMON_H

#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "recstore.h"
#include "rig.h"

namespace bench {

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr uint32_t kFirstDataCluster = 257;  // first data cluster of a 200 GiB disk

inline double now_sec() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Busy CPU time of the whole machine so far, in seconds (user, nice, system, irq and softirq of
// the "cpu" line of /proc/stat), so that the loop device's kernel work counts too. Steal is left
// out: on a virtual machine it is other machines' load.
inline double machine_cpu_sec() {
    FILE *f = fopen("/proc/stat", "r");
    if (f == nullptr) return 0;
    unsigned long long v[8] = {};
    const int n = fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2],
                         &v[3], &v[4], &v[5], &v[6], &v[7]);
    fclose(f);
    if (n != 8) return 0;
    const unsigned long long busy = v[0] + v[1] + v[2] + v[5] + v[6];  // v[7] is steal
    return static_cast<double>(busy) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The value below which `fraction` of the samples lie (0.5: the median).
inline double percentile(std::vector<double> v, double fraction) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t at = static_cast<size_t>(fraction * static_cast<double>(v.size()));
    if (at >= v.size()) at = v.size() - 1;
    return v[at];
}

inline double median(const std::vector<double> &v) {
    return percentile(v, 0.5);
}

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;

// A page-aligned cluster filled with a pattern that depends on `seed`.
inline Buffer aligned_cluster(unsigned seed) {
    void *p = nullptr;
    if (posix_memalign(&p, 4096, kCluster) != 0) return Buffer();
    auto *b = static_cast<unsigned char *>(p);
    for (uint32_t i = 0; i < kCluster; i++) b[i] = static_cast<unsigned char>(i * 31 + seed);
    return Buffer(b);
}

// One measured stretch: wall seconds and machine CPU seconds.
struct Sample {
    double wall = 0;
    double cpu = 0;
};

template <typename Fn>
Sample measure(Fn fn) {
    const double c0 = machine_cpu_sec();
    const double t0 = now_sec();
    fn();
    Sample s;
    s.wall = now_sec() - t0;
    s.cpu = machine_cpu_sec() - c0;
    return s;
}

// Runs `a` and `b` once per round while `ok` holds, alternating which goes first, so that
// neither side always follows the other.
template <typename A, typename B>
void interleave(int rounds, const bool &ok, A a, B b) {
    for (int round = 0; round < rounds && ok; round++) {
        if (round % 2 == 0) {
            a();
            b();
        } else {
            b();
            a();
        }
    }
}

// The plain writer: `clusters` clusters of 512 KiB written sequentially with O_DIRECT from the
// first data cluster of the partition on, then fsync.
inline bool write_raw(const std::string &partition, const unsigned char *buf, uint32_t clusters) {
    const int fd = open(partition.c_str(), O_WRONLY | O_DIRECT | O_LARGEFILE);
    if (fd < 0) return false;
    bool ok = true;
    for (uint32_t n = 0; n < clusters; n++) {
        const off64_t at = static_cast<off64_t>(kFirstDataCluster + n) * kCluster;
        if (pwrite64(fd, buf, kCluster, at) != static_cast<ssize_t>(kCluster)) ok = false;
    }
    fsync(fd);
    close(fd);
    return ok;
}

// ---- the recording layer on rig disk 0, for the benchmarks of the recording API ----

constexpr int kBenchCacheInodes = 65536;
constexpr unsigned kBenchCacheMib = 16;
constexpr int kBenchWaitMs = 20000;

inline bool wait_until(bool (*pred)()) {
    for (int waited = 0; waited < kBenchWaitMs; waited += 5) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

inline bool cache_loaded() {
    return cache_is_loaded(0) != 0;
}

inline bool current_block_ready() {
    rec_lockdisk();
    const int d = __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_ACQUIRE);
    const bool ok = d >= 0 && fs_isblockfull(d) == 0;
    rec_unlockdisk();
    return ok;
}

// rec_init (mode flags), disk 0 brought up in the plug-in order and cleared, the daemon with a
// current block.
inline bool rec_start(const rig::Disk &disk, int mode) {
    if (rec_init(kBenchCacheInodes, kBenchCacheMib, mode) != 0) return false;
    const char *dev = disk.node.c_str();
    fs_umount(dev);
    if (fs_mount(dev) != 0 || fs_opendisk(dev) != 0 || fs_cleardisk(0) != 0) return false;
    cache_set_loaded(0, 0);
    if (fs_datazone_init(0) != 0 || !wait_until(cache_loaded)) return false;
    if (fs_chkdata(0, 1) != 0 || fs_adddisk(0, 0) != 0) return false;
    if (rec_bringup_deamon() != 0) return false;
    return wait_until(current_block_ready);
}

// The daemon stopped, disk 0 taken down in the plug-out order, rec_exit.
inline void rec_stop(const rig::Disk &disk) {
    rec_shutdown_deamon();
    fs_removedisk(0, 0);
    fs_datazone_exit(0);
    fs_closedisk(0);
    fs_umount(disk.node.c_str());
    rec_exit();
}

// Attaches a rig disk; false, with the reason on standard error, when that fails.
inline bool attach_disk(char letter, uint64_t bytes, bool direct_io, rig::Disk *disk) {
    std::string error;
    if (rig::try_attach(letter, bytes, direct_io, disk, &error)) return true;
    fprintf(stderr, "cannot attach a rig disk: %s\n", error.c_str());
    return false;
}

// Plugs a rig disk out; a failure is reported on standard error.
inline void unplug_disk(rig::Disk &disk) {
    std::string error;
    if (!rig::try_unplug(disk, &error))
        fprintf(stderr, "cannot unplug %s: %s\n", disk.node.c_str(), error.c_str());
}

}  // namespace bench

#endif
