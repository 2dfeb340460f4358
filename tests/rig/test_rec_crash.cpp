// A recorder killed in the middle of recording: a child process brings two formatted disks up
// through the recording API, records eight channels at once (one thread each, deterministic
// payload, one to three key frames per cluster) and is killed with SIGKILL once every channel has
// written a known number of clusters. The parent then starts the library afresh on the same
// disks, without clearing them, and checks that every recording opens, that its header is
// repaired from its last key frame, that every cluster whose index entry was written reads back
// byte for byte, and that nothing beyond the written entries appears.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr int kChannels = 8;
constexpr int kType = 0;
constexpr uint32_t kMinClusters = 6;   // every channel has written this many before the kill
constexpr uint32_t kMaxClusters = 40;  // a channel that gets this far waits for the kill
constexpr int kWaitMs = 60000;

// Progress of the child, in memory shared with the parent. A channel's `started` is raised before
// each rec_write and its `done` after the write returned the payload length, so a kill leaves
// done <= entries on disk <= started.
struct Progress {
    std::atomic<uint32_t> started[kChannels];
    std::atomic<uint32_t> done[kChannels];
    std::atomic<int> ready;  // 1 once the child's library is up with a current disk
    std::atomic<int> error;  // a child-side failure: which step (see child_main)
};

uint32_t length_of(uint32_t n) {
    return kCluster - (n % 7) * 4096;
}

struct tm start_of(int channel) {
    return make_tm(2025, 7, 8, 9, 10, channel);
}

// Time of the last key frame of cluster n (frames_of: 1 + n % 3 frames, a second apart).
time_t last_frame_time(uint32_t n, time_t base) {
    return base + n + n % 3;
}

int threads_of_this_process() {
    int count = 0;
    DIR *d = opendir("/proc/self/task");
    if (d == nullptr) return -1;
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') count++;
    }
    closedir(d);
    return count;
}

// The threads the process has before the test starts any: 1 natively; under user-mode emulation
// the emulator's own helper threads too, which never run the program's code or hold its locks.
const int g_threads_at_start = threads_of_this_process();

// One channel of the child: records until killed (or until kMaxClusters, then waits).
void child_channel(Progress *p, int ch) {
    Cluster buf;
    const struct tm start = start_of(ch);
    const int h = rec_open_v2(ch, &start, kType, 1, 2, 3, kWrite, 0, 4, nullptr);
    if (h < 0 || buf.data() == nullptr) {
        p->error.store(10 + ch);
        return;
    }
    for (uint32_t n = 0; n < kMaxClusters; n++) {
        fill_payload(buf.data(), static_cast<uint32_t>(ch), n);
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = frames_of(n, secs(start), frames);
        p->started[ch].store(n + 1);
        const int r = rec_write(h, buf.data(), static_cast<int>(length_of(n)), frames,
                                static_cast<int>(count));
        if (r != static_cast<int>(length_of(n))) {
            p->error.store(20 + ch);
            return;
        }
        p->done[ch].store(n + 1);
    }
}

// The child: the library up on both disks (cleared), the daemon, eight recording threads. It
// never returns; the parent kills it.
[[noreturn]] void child_main(Progress *p) {
    loglevel = 0;
    if (rec_init(kCacheInodes, kCacheMib, 0) != 0) {
        p->error.store(1);
        _exit(1);
    }
    bring_up(0, true);
    bring_up(1, true);
    if (::testing::Test::HasFatalFailure() || rec_bringup_deamon() != 0) {
        p->error.store(2);
        _exit(1);
    }
    const bool current = wait_for(
        [] {
            const int d = __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_SEQ_CST);
            return d >= 0 && fs_isblockfull(d) == 0;
        },
        kWaitMs);
    if (!current) {
        p->error.store(3);
        _exit(1);
    }
    p->ready.store(1);
    std::vector<std::thread> writers;
    for (int ch = 0; ch < kChannels; ch++) writers.emplace_back(child_channel, p, ch);
    for (std::thread &t : writers) t.join();
    for (;;) pause();
}

class RecCrash : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        void *shared = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(shared, MAP_FAILED);
        progress_ = new (shared) Progress();
        for (int ch = 0; ch < kChannels; ch++) {
            progress_->started[ch].store(0);
            progress_->done[ch].store(0);
        }
        progress_->ready.store(0);
        progress_->error.store(0);
    }

    void TearDown() override {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        if (daemon_up_) rec_shutdown_deamon();
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        if (inited_) {
            take_down(1);
            take_down(0);
            rec_exit();
        }
        munmap(progress_, sizeof(Progress));
        loud_.reset();
    }

    uint32_t least_done() const {
        uint32_t least = kMaxClusters;
        for (int ch = 0; ch < kChannels; ch++) least = std::min(least, progress_->done[ch].load());
        return least;
    }

    // Forks the recorder and kills it once every channel has written kMinClusters clusters.
    void record_and_kill() {
        // The child must be a copy of a single-threaded process: no lock of the library or the
        // C library can then be held by a thread that does not exist in the child.
        ASSERT_GE(g_threads_at_start, 1);
        ASSERT_EQ(threads_of_this_process(), g_threads_at_start);
        fflush(nullptr);
        child_ = fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) child_main(progress_);
        const bool enough = wait_for(
            [this] {
                return progress_->error.load() != 0 || least_done() >= kMinClusters ||
                       waitpid(child_, nullptr, WNOHANG) == child_;
            },
            kWaitMs);
        ASSERT_EQ(kill(child_, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child_, &status, 0), child_);
        child_ = -1;
        ASSERT_EQ(progress_->error.load(), 0) << "the recorder failed before the kill";
        ASSERT_TRUE(enough) << "the recorder made no progress";
        ASSERT_TRUE(WIFSIGNALED(status)) << "the recorder ended by itself";
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
        ASSERT_GE(least_done(), kMinClusters);
    }

    // The library started afresh on the same disks, nothing cleared, the daemon running.
    void restart() {
        loud_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, 0), 0);
        inited_ = true;
        bring_up(0, false);
        bring_up(1, false);
        ASSERT_EQ(rec_bringup_deamon(), 0);
        daemon_up_ = true;
    }

    // One recording after the crash: opened through the API, header repaired from the last key
    // frame written, every written entry read back, nothing after it.
    void check_channel(int ch) {
        const uint32_t done = progress_->done[ch].load();
        const uint32_t started = progress_->started[ch].load();
        const struct tm start = start_of(ch);
        const time_t base = secs(start);
        const int h = rec_open(ch, &start, kType, 0, 0, 0, 0, 0);
        ASSERT_GE(h, 0) << "channel " << ch;
        recordinfo info;
        ASSERT_EQ(rec_stat(h, &info), 0);
        const uint32_t entries = info.entry_count;
        EXPECT_GE(entries, done) << "channel " << ch << ": a written entry is missing";
        EXPECT_LE(entries, started) << "channel " << ch << ": an entry that was never written";
        ASSERT_GE(entries, 1u);
        EXPECT_EQ(info.total_bytes, static_cast<uint64_t>(entries) * kCluster)
            << "the repair counts whole clusters";
        struct tm end;
        from_fs_tm(&end, &info.end_time);
        EXPECT_EQ(secs(end), last_frame_time(entries - 1, base))
            << "channel " << ch << ": end time from the last key frame of entry " << entries - 1;
        EXPECT_EQ(info.channel, static_cast<uint32_t>(ch));
        EXPECT_EQ(info.attr_d, 4u);

        Cluster got;
        Cluster want;
        for (uint32_t n = 0; n < entries; n++) {
            uint32_t length = 0;
            uint32_t count = 0;
            kframe kf[RECSTORE_MAX_KFRAMES];
            ASSERT_EQ(rec_read(h, got.data(), &length, kf, &count), static_cast<int>(length_of(n)))
                << "channel " << ch << " cluster " << n;
            kframe expected[RECSTORE_MAX_KFRAMES] = {};
            ASSERT_EQ(count, frames_of(n, base, expected));
            EXPECT_EQ(memcmp(kf, expected, count * sizeof(kframe)), 0);
            fill_payload(want.data(), static_cast<uint32_t>(ch), n);
            EXPECT_EQ(memcmp(got.data(), want.data(), length_of(n)), 0)
                << "channel " << ch << " cluster " << n;
        }
        uint32_t length = 0;
        uint32_t count = 0;
        kframe kf[RECSTORE_MAX_KFRAMES];
        EXPECT_EQ(rec_read(h, got.data(), &length, kf, &count), 0)
            << "channel " << ch << ": nothing after the last written entry";
        // The last key frame is where a time seek to the end lands.
        int32_t seq = -1;
        EXPECT_EQ(
            rec_tseek(h, static_cast<int32_t>(last_frame_time(entries - 1, base)), SEEK_SET, &seq),
            last_frame_time(entries - 1, base));
        rec_close(h, nullptr);
    }

    Progress *progress_ = nullptr;
    pid_t child_ = -1;
    bool inited_ = false;
    bool daemon_up_ = false;
    std::unique_ptr<LogMask> loud_;
};

TEST_F(RecCrash, KilledRecorderLeavesRepairableRecordings) {
    record_and_kill();
    restart();
    for (int ch = 0; ch < kChannels; ch++) check_channel(ch);
    // Recording goes on after the restart, after the recordings of the killed recorder.
    ASSERT_TRUE(wait_for(
        [] {
            rec_lockdisk();
            const int d = g_recctx.curdiskid;
            const bool ok = d >= 0 && fs_isblockfull(d) == 0;
            rec_unlockdisk();
            return ok;
        },
        kWaitMs));
    const struct tm later = make_tm(2025, 7, 8, 11, 0, 0);
    const int h = rec_open(3, &later, kType, 0, 0, 0, kWrite, 0);
    ASSERT_GE(h, 0);
    Cluster buf;
    fill_payload(buf.data(), 99, 0);
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    const uint32_t count = frames_of(0, secs(later), frames);
    EXPECT_EQ(rec_write(h, buf.data(), static_cast<int>(kCluster), frames, static_cast<int>(count)),
              static_cast<int>(kCluster));
    rec_close(h, nullptr);
    for (int ch = 0; ch < kChannels; ch++) check_channel(ch);
}

}  // namespace
