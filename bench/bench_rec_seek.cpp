// SPDX-License-Identifier: MIT
// Seek latency through the recording API: one two-hour recording at 4 Mbit/s (500000 bytes per
// second, 6866 clusters of 512 KiB, a key frame at every whole second, so one or two per
// cluster) is written once through rec_write; a reader then seeks to random targets over the
// whole recording with rec_tseek (absolute time, whence 0) and rec_lseek (absolute payload
// offset, whence 0), each call timed on its own. Rounds alternate between the entry walk that
// reads its entries in batches (the library's default) and the plain walk of one entry per read
// (the baseline), so that both are measured in the same run. Then the same on a recording that is
// still being written: a second channel has written its first hour and a writer thread keeps
// appending clusters while the reader seeks within what was there when it opened. Reports the
// median, 99th percentile and maximum of each, in microseconds, per round, the medians of the
// rounds per walk and their ratio, and one summary line per figure.
//
// Runs inside the disk rig only (tests/rig/rig-run bench_rec_seek): a loop-backed 200 GiB disk,
// formatted, brought up by the library in the plug-in order, the daemon running as on a recorder.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "capture.h"
#include "index.h"
#include "recstore.h"
#include "rig.h"

namespace {

using namespace bench;

constexpr uint64_t kBytesPerSecond = 500000;  // 4 Mbit/s
constexpr uint32_t kSeconds = 7200;           // two hours
constexpr uint32_t kClusters = static_cast<uint32_t>(kBytesPerSecond * kSeconds / kCluster);
constexpr int kSeeksPerRound = 500;
constexpr int kRounds = 3;  // per walk, interleaved
constexpr int kCreate = 0x40 | O_RDWR;
constexpr int kChannel = 7;
constexpr int kLiveChannel = 8;
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

// Writes clusters [from, to) of the recording open for writing on handle h.
bool write_clusters(int h, const unsigned char *buf, uint32_t from, uint32_t to) {
    bool ok = true;
    for (uint32_t n = from; n < to && ok; n++) {
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = frames_of(n, frames);
        ok = rec_write(h, buf, static_cast<int>(kCluster), frames, static_cast<int>(count)) ==
             static_cast<int>(kCluster);
    }
    return ok;
}

// The recording, written once with the same payload in every cluster.
bool write_recording() {
    Buffer buf = aligned_cluster(3);
    const struct tm start = tm_of(kBase);
    const int h = rec_open(kChannel, &start, 0, 0, 0, 0, kCreate, 0);
    if (h < 0 || !buf) return false;
    const bool ok = write_clusters(h, buf.get(), 0, kClusters);
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

// The rounds of one walk on one recording.
struct Rounds {
    std::vector<Stats> tseek, lseek;
};

// One round of random absolute seeks on the open reader h over the first `seconds` seconds and
// `bytes` payload bytes; false when a seek lands wrong.
bool seek_round(int h, uint32_t seconds, uint64_t bytes, std::mt19937 &random, Rounds *out) {
    std::uniform_int_distribution<uint32_t> second(0, seconds - 1);
    std::uniform_int_distribution<uint64_t> offset(0, bytes - 1);
    std::vector<double> t_us, l_us;
    bool ok = true;
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
    out->tseek.push_back(stats_of(t_us));
    out->lseek.push_back(stats_of(l_us));
    return ok;
}

// Rounds alternating between the plain walk and the batched one, the plain walk first.
bool interleaved_rounds(int h, uint32_t seconds, uint64_t bytes, Rounds *plain, Rounds *batched) {
    std::mt19937 random(12345);
    bool ok = true;
    for (int round = 0; round < kRounds && ok; round++) {
        recstore::index_set_seek_batched(false);
        ok = seek_round(h, seconds, bytes, random, plain);
        recstore::index_set_seek_batched(true);
        ok = ok && seek_round(h, seconds, bytes, random, batched);
    }
    recstore::index_set_seek_batched(true);
    return ok;
}

// The recording still being written: its first half is written, a reader opens it and seeks
// within that half while a writer thread appends the second half.
bool live_rounds(Rounds *plain, Rounds *batched, uint32_t *seconds_out) {
    Buffer buf = aligned_cluster(5);
    const struct tm start = tm_of(kBase);
    const int w = rec_open(kLiveChannel, &start, 0, 0, 0, 0, kCreate, 0);
    if (w < 0 || !buf) return false;
    const uint32_t half = kClusters / 2;
    bool ok = write_clusters(w, buf.get(), 0, half);
    const int h = ok ? rec_open(kLiveChannel, &start, 0, 0, 0, 0, 0, 0) : -1;
    recordinfo info;
    ok = h >= 0 && rec_stat(h, &info) == 0 && info.entry_count >= half - 1;
    // Whole seconds whose key frame lies in the entries the reader sees.
    const uint32_t seconds = ok ? static_cast<uint32_t>(static_cast<uint64_t>(info.entry_count) *
                                                        kCluster / kBytesPerSecond) -
                                      1
                                : 0;
    std::atomic<bool> stop{false};
    std::atomic<bool> wrote{true};
    std::thread writer([&] {
        for (uint32_t n = half; n < kClusters && !stop.load(); n++)
            if (!write_clusters(w, buf.get(), n, n + 1)) {
                wrote = false;
                break;
            }
    });
    if (ok) ok = interleaved_rounds(h, seconds, info.total_bytes, plain, batched);
    stop = true;
    writer.join();
    if (h >= 0) rec_close(h, nullptr);
    const struct tm end = tm_of(kBase + kSeconds);
    rec_close(w, &end);
    *seconds_out = seconds;
    return ok && wrote.load();
}

std::vector<double> column(const std::vector<Stats> &v, double Stats::*field) {
    std::vector<double> out;
    for (const Stats &s : v) out.push_back(s.*field);
    return out;
}

void print_rounds(const char *what, const Rounds &plain, const Rounds &batched) {
    printf("\n%s: %d random absolute seeks per function and round, rounds interleaved\n", what,
           kSeeksPerRound);
    printf(
        "| round | walk | rec_tseek median us | rec_tseek p99 us | rec_tseek max us | "
        "rec_lseek median us | rec_lseek p99 us | rec_lseek max us |\n"
        "|---|---|---|---|---|---|---|---|\n");
    for (size_t r = 0; r < plain.tseek.size() && r < batched.tseek.size(); r++) {
        for (int b = 0; b < 2; b++) {
            const Rounds &x = b ? batched : plain;
            printf("| %zu | %s | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f |\n", r + 1,
                   b ? "batched" : "plain", x.tseek[r].median_us, x.tseek[r].p99_us,
                   x.tseek[r].max_us, x.lseek[r].median_us, x.lseek[r].p99_us, x.lseek[r].max_us);
        }
    }
}

// One summary line per walk, with the medians over the rounds, and one with the ratios.
void summary(const char *name, const Rounds &plain, const Rounds &batched) {
    double v[2][6];
    for (int b = 0; b < 2; b++) {
        const Rounds &x = b ? batched : plain;
        v[b][0] = median(column(x.tseek, &Stats::median_us));
        v[b][1] = median(column(x.tseek, &Stats::p99_us));
        v[b][2] = median(column(x.tseek, &Stats::max_us));
        v[b][3] = median(column(x.lseek, &Stats::median_us));
        v[b][4] = median(column(x.lseek, &Stats::p99_us));
        v[b][5] = median(column(x.lseek, &Stats::max_us));
        printf(
            "bench %s: walk=%s rounds=%zu tseek_p50_us=%.0f tseek_p99_us=%.0f tseek_max_us=%.0f "
            "lseek_p50_us=%.0f lseek_p99_us=%.0f lseek_max_us=%.0f\n",
            name, b ? "batched" : "plain", x.tseek.size(), v[b][0], v[b][1], v[b][2], v[b][3],
            v[b][4], v[b][5]);
    }
    printf(
        "bench %s: walk=ratio_batched_to_plain tseek_p50=%.3f tseek_p99=%.3f lseek_p50=%.3f "
        "lseek_p99=%.3f\n",
        name, v[1][0] / v[0][0], v[1][1] / v[0][1], v[1][3] / v[0][3], v[1][4] / v[0][4]);
}

int run() {
    if (!rig::active()) {
        fprintf(stderr, "run this benchmark through tests/rig/rig-run as root\n");
        return 1;
    }
    loglevel = 0;  // no per-call messages in the timings
    rig::Disk disk;
    if (!bench::attach_disk('a', 200 * kGiB, true, &disk)) return 1;
    Rounds plain, batched, live_plain, live_batched;
    uint32_t live_seconds = 0;
    bool ok = true, live_ok = true;
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
        if (ok) ok = interleaved_rounds(h, kSeconds, info.total_bytes, &plain, &batched);
        if (h >= 0) rec_close(h, nullptr);
        if (ok) live_ok = live_rounds(&live_plain, &live_batched, &live_seconds);
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
    print_rounds("closed recording", plain, batched);
    if (live_ok) {
        printf(
            "\nrecording still being written: the reader sees %u s, a writer appends behind it\n",
            live_seconds);
        print_rounds("recording being written", live_plain, live_batched);
    } else {
        fprintf(stderr, "the recording being written could not be read or a seek landed wrong\n");
    }
    printf("\n");
    summary("rec_seek", plain, batched);
    if (live_ok) summary("rec_seek_live", live_plain, live_batched);
    return live_ok ? 0 : 1;
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
