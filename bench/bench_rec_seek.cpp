// SPDX-License-Identifier: MIT
// Seek latency through the recording API: one two-hour recording at 4 Mbit/s (500000 bytes per
// second, 6866 clusters of 512 KiB, a key frame at every whole second, so one or two per
// cluster) is written once through rec_write; a reader then seeks to random targets over the
// whole recording with rec_tseek (absolute time, whence 0) and rec_lseek (absolute payload
// offset, whence 0), each call timed on its own. Reports the median, 99th percentile and maximum
// of each, in microseconds, per round; several rounds.
//
// Runs inside the disk rig only (tests/rig/rig-run bench_rec_seek): a loop-backed 200 GiB disk,
// formatted, brought up by the library in the plug-in order, the daemon running as on a recorder.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr uint64_t kBytesPerSecond = 500000;  // 4 Mbit/s
constexpr uint32_t kSeconds = 7200;           // two hours
constexpr uint32_t kClusters = static_cast<uint32_t>(kBytesPerSecond * kSeconds / kCluster);
constexpr int kSeeksPerRound = 500;
constexpr int kRounds = 3;
constexpr int kCreate = 0x40 | O_RDWR;
constexpr int kChannel = 7;
constexpr time_t kBase = 1735718400;  // 2025-01-01 08:00 UTC

// Key frames of cluster n: one at every whole second whose first byte falls in the cluster.
uint32_t frames_of(uint32_t n, kframe *frames) {
    const uint64_t first = static_cast<uint64_t>(n) * kCluster;
    const uint64_t end = first + kCluster;
    uint32_t count = 0;
    for (uint64_t s = (first + kBytesPerSecond - 1) / kBytesPerSecond;
         s * kBytesPerSecond < end && count < RECSTORE_MAX_KFRAMES; s++) {
        frames[count].frame_offset = static_cast<uint32_t>(s * kBytesPerSecond - first);
        frames[count].frame_time = static_cast<uint32_t>(kBase + s);
        count++;
    }
    return count;
}

struct tm tm_of(time_t t) {
    struct tm out;
    gmtime_r(&t, &out);
    return out;
}

// The recording, written once with the same payload in every cluster.
bool write_recording() {
    Buffer buf = aligned_cluster(3);
    const struct tm start = tm_of(kBase);
    const int h = rec_open(kChannel, &start, 0, 0, 0, 0, kCreate, 0);
    if (h < 0 || !buf) return false;
    bool ok = true;
    for (uint32_t n = 0; n < kClusters && ok; n++) {
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = frames_of(n, frames);
        ok = rec_write(h, buf.get(), static_cast<int>(kCluster), frames, static_cast<int>(count)) ==
             static_cast<int>(kCluster);
    }
    const struct tm end = tm_of(kBase + kSeconds);
    rec_close(h, &end);
    datazone_sync(0);
    return ok;
}

struct Stats {
    double median_us, p99_us, max_us;
};

Stats stats_of(const std::vector<double> &us) {
    return Stats{median(us), percentile(us, 0.99), percentile(us, 1.0)};
}

int run() {
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    loglevel = 0;  // no per-call messages in the timings
    rig::Disk disk;
    if (!bench::attach_disk('a', 200 * kGiB, true, &disk)) return 1;
    std::vector<Stats> tseek, lseek;
    bool ok = true;
    double write_sec = 0;
    {
        recstore_test::StdoutCapture quiet;
        if (fs_format(disk.node.c_str()) != 0 || !rec_start(disk, 0)) {
            const std::string text = quiet.stop();
            fprintf(stderr, "cannot prepare the disk\n%s", text.c_str());
            bench::unplug_disk(disk);
            unlink(disk.image.c_str());
            return 1;
        }
        const double t0 = now_sec();
        ok = write_recording();
        write_sec = now_sec() - t0;
        const struct tm start_tm = tm_of(kBase);
        const int h = ok ? rec_open(kChannel, &start_tm, 0, 0, 0, 0, 0, 0) : -1;
        recordinfo info;
        ok = h >= 0 && rec_stat(h, &info) == 0 && info.entry_count == kClusters;
        std::mt19937 random(12345);
        std::uniform_int_distribution<uint32_t> second(0, kSeconds - 1);
        std::uniform_int_distribution<uint64_t> offset(0, info.total_bytes - 1);
        for (int round = 0; round < kRounds && ok; round++) {
            std::vector<double> t_us, l_us;
            for (int i = 0; i < kSeeksPerRound && ok; i++) {
                const int32_t target = static_cast<int32_t>(kBase + second(random));
                int32_t seq = -1;
                double t0s = now_sec();
                const int64_t got = rec_tseek(h, target, SEEK_SET, &seq);
                t_us.push_back((now_sec() - t0s) * 1e6);
                // The key frame at or after the target: never more than a second later.
                ok = got >= target && got <= target + 1;
                const int64_t at = static_cast<int64_t>(offset(random));
                t0s = now_sec();
                const int64_t pos = rec_lseek(h, at, SEEK_SET);
                l_us.push_back((now_sec() - t0s) * 1e6);
                ok = ok && pos == at / kCluster * kCluster;
            }
            tseek.push_back(stats_of(t_us));
            lseek.push_back(stats_of(l_us));
        }
        if (h >= 0) rec_close(h, nullptr);
        rec_stop(disk);
        quiet.stop();
    }
    bench::unplug_disk(disk);
    unlink(disk.image.c_str());
    if (!ok) {
        fprintf(stderr, "the recording could not be written or a seek landed wrong\n");
        return 1;
    }
    printf("\nrecording: %u clusters (%u s at %llu bytes/s), written in %.1f s\n", kClusters,
           kSeconds, static_cast<unsigned long long>(kBytesPerSecond), write_sec);
    printf("%d random absolute seeks per function and round\n", kSeeksPerRound);
    printf(
        "| round | rec_tseek median us | rec_tseek p99 us | rec_tseek max us | rec_lseek median us "
        "| rec_lseek p99 us | rec_lseek max us |\n|---|---|---|---|---|---|---|\n");
    for (int r = 0; r < kRounds; r++) {
        printf("| %d | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f |\n", r + 1, tseek[r].median_us,
               tseek[r].p99_us, tseek[r].max_us, lseek[r].median_us, lseek[r].p99_us,
               lseek[r].max_us);
    }
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
