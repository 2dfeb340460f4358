// SPDX-License-Identifier: MIT
// Memory of the library at a full recorder's size: eight disks up (mounted, data zones open with
// their current block loaded, caches built, the daemon running) and 128 streams open (64 writers
// that have written a cluster each, 64 readers that have read one). Reports the heap in use and
// the resident set, each against the same process before rec_init (the baseline of the run),
// and the heap per disk. All threads allocate from one malloc arena (M_ARENA_MAX 1) so that the
// heap counters of mallinfo2 see every allocation. The disks are sparse 200 GiB loop images (3
// data blocks each).
//
// Runs inside the disk rig only: tests/rig/rig-run build/native/bench/bench_memory (about a
// minute, mostly formatting). On the 32-bit ARM build it runs the same way under qemu-arm.
#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr int kDisks = 8;
constexpr int kWriters = 64;
constexpr int kReaders = 64;
constexpr int kCreate = 0x40 | O_RDWR;
constexpr double kMiB = 1024.0 * 1024.0;

// Heap bytes in use: small blocks of the arena and blocks mapped on their own.
double heap_bytes() {
    const struct mallinfo2 m = mallinfo2();
    return static_cast<double>(m.uordblks) + static_cast<double>(m.hblkhd);
}

// Resident set of the process, from /proc/self/status.
double rss_bytes() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) * 1024.0;
    }
    return 0;
}

struct tm start_of(int channel, int day) {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = 125;
    t.tm_mon = 2;
    t.tm_mday = day;
    t.tm_hour = 8;
    t.tm_min = channel % 60;
    t.tm_sec = channel / 60;
    return t;
}

const char *g_failed = "";  // the step that failed

bool step(bool ok, const char *what) {
    if (!ok && g_failed[0] == '\0') g_failed = what;
    return ok;
}

bool disk_up(int i, const rig::Disk &d) {
    const char *dev = d.node.c_str();
    fs_umount(dev);
    if (!step(fs_mount(dev) == 0, "fs_mount") || !step(fs_opendisk(dev) == i, "fs_opendisk") ||
        !step(fs_cleardisk(i) == 0, "fs_cleardisk")) {
        return false;
    }
    cache_set_loaded(static_cast<unsigned>(i), 0);
    if (!step(fs_datazone_init(i) == 0, "fs_datazone_init")) return false;
    for (int waited = 0; cache_is_loaded(static_cast<unsigned>(i)) == 0; waited += 5) {
        if (!step(waited <= kBenchWaitMs, "waiting for the cache")) return false;
        usleep(5000);
    }
    return step(fs_chkdata(i, 1) == 0, "fs_chkdata") && step(fs_adddisk(0, i) == 0, "fs_adddisk");
}

// One recording per writer channel, closed; then the 64 writers and the 64 readers open.
bool open_streams(std::vector<int> *handles) {
    Buffer buf = aligned_cluster(7);
    kframe frames[RECSTORE_MAX_KFRAMES] = {{0, 1740816000u}};
    for (int ch = 0; ch < kReaders; ch++) {
        const struct tm t = start_of(ch, 1);
        const int h = rec_open(ch, &t, 0, 0, 0, 0, kCreate, 0);
        if (!step(h >= 0, "rec_open of a recording") ||
            !step(rec_write(h, buf.get(), static_cast<int>(kCluster), frames, 1) >= 0,
                  "rec_write")) {
            return false;
        }
        rec_close(h, nullptr);
    }
    for (int ch = 0; ch < kWriters; ch++) {
        const struct tm t = start_of(ch, 2);
        const int h = rec_open(ch, &t, 0, 0, 0, 0, kCreate, 0);
        if (!step(h >= 0, "rec_open of a writer")) return false;
        handles->push_back(h);
        if (rec_write(h, buf.get(), static_cast<int>(kCluster), frames, 1) < 0) return false;
    }
    for (int ch = 0; ch < kReaders; ch++) {
        const struct tm t = start_of(ch, 1);
        const int h = rec_open(ch, &t, 0, 0, 0, 0, O_RDONLY, 0);
        if (!step(h >= 0, "rec_open of a reader")) return false;
        handles->push_back(h);
        uint32_t length = 0, count = 0;
        kframe got[RECSTORE_MAX_KFRAMES];
        if (!step(rec_read(h, buf.get(), &length, got, &count) >= 0, "rec_read")) return false;
    }
    return true;
}

int run() {
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    mallopt(M_ARENA_MAX, 1);
    loglevel = 0;
    std::vector<rig::Disk> disks(kDisks);
    for (int i = 0; i < kDisks; i++) {
        if (!attach_disk(static_cast<char>('a' + i), 200 * kGiB, false, &disks[i])) return 1;
        recstore_test::StdoutCapture quiet;
        if (fs_format(disks[i].node.c_str()) != 0) {
            fprintf(stderr, "formatting %s failed\n", disks[i].node.c_str());
            return 1;
        }
        fprintf(stderr, "\rformatted %d of %d disks", i + 1, kDisks);
    }
    fprintf(stderr, "\n");
    const double heap0 = heap_bytes(), rss0 = rss_bytes();
    double heap_disks = 0, rss_disks = 0, heap_all = 0, rss_all = 0;
    int loaded = 0;  // disks with a block loaded
    bool ok = true;
    std::vector<int> handles;
    {
        recstore_test::StdoutCapture quiet;
        ok = step(rec_init(kBenchCacheInodes, kBenchCacheMib, 0) == 0, "rec_init");
        for (int i = 0; ok && i < kDisks; i++) ok = disk_up(i, disks[i]);
        ok = ok && step(rec_bringup_deamon() == 0, "rec_bringup_deamon") &&
             step(wait_until(current_block_ready), "waiting for a current block");
        heap_disks = heap_bytes();
        rss_disks = rss_bytes();
        ok = ok && open_streams(&handles);
        heap_all = heap_bytes();
        rss_all = rss_bytes();
        for (int i = 0; i < kDisks; i++) loaded += g_dz_ctx[i].cur_block != nullptr ? 1 : 0;
        for (int h : handles) rec_close(h, nullptr);
        rec_shutdown_deamon();
        for (int i = kDisks - 1; i >= 0; i--) {
            fs_removedisk(0, i);
            fs_datazone_exit(i);
            fs_closedisk(i);
            fs_umount(disks[i].node.c_str());
        }
        rec_exit();
    }
    for (rig::Disk &d : disks) {
        unplug_disk(d);
        unlink(d.image.c_str());
    }
    if (!ok) {
        fprintf(stderr, "bringing the disks up or opening the streams failed: %s\n", g_failed);
        return 1;
    }
    const double heap = (heap_all - heap0) / kMiB, rss = (rss_all - rss0) / kMiB;
    printf(
        "\n%d disks up (%d with a block loaded), %zu streams open (%d writers, %d readers); "
        "%zu-bit build\n",
        kDisks, loaded, handles.size(), kWriters, kReaders, sizeof(void *) * 8);
    printf("| state | heap MiB | RSS MiB |\n|---|---|---|\n");
    printf("| before rec_init (baseline) | %.2f | %.2f |\n", heap0 / kMiB, rss0 / kMiB);
    printf("| disks up, daemon running | +%.2f | +%.2f |\n", (heap_disks - heap0) / kMiB,
           (rss_disks - rss0) / kMiB);
    printf("| and %zu streams open | +%.2f | +%.2f |\n", handles.size(), heap, rss);
    printf(
        "\nbench memory: bits=%zu disks=%d blocks_loaded=%d streams=%zu heap_mib=%.2f "
        "rss_mib=%.2f heap_per_disk_mib=%.2f heap_streams_mib=%.2f\n",
        sizeof(void *) * 8, kDisks, loaded, handles.size(), heap, rss,
        (heap_disks - heap0) / kMiB / kDisks, (heap_all - heap_disks) / kMiB);
    return 0;
}

}  // namespace

int main() {
    try {
        return run();
    } catch (const std::exception &e) {
        fprintf(stderr, "bench_memory: %s\n", e.what());
        return 1;
    }
}
