// SPDX-License-Identifier: MIT
// Fault sweep through the I/O table: each workload (record and close, read back, delete, search,
// block change, disk change, recycle, bring-up) runs once clean to count the system calls it
// makes, then once for every N with its Nth call failed: EIO, then ENOSPC, then a short count
// (transfers only), then EINTR. After each run: no hang, no descriptor, stream slot, index slot or
// lock left behind, every result is the documented value or negative, what was acknowledged still
// reads back byte for byte (a deleted recording is whole or gone), and a clean recording works
// again. Two formatted 200 GiB loop-backed disks (the second for the disk change), brought up in
// the plug-in order; calls are counted on the workload's thread.
//
// RECSTORE_SWEEP=full fails every N of record, read, delete and bring-up; the default run takes
// every third N of the transfers of record, read and delete and every N of their other calls, and
// every fourth N of bring-up (each case checks and mounts the disk). Search, block change, disk
// change and recycle take every N.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "fs_tools.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr uint32_t kClusters = 3;  // clusters of one swept recording
constexpr int kHangSeconds = 60;   // a workload run longer than this has hung
constexpr int kChannel = 5;        // channel of the swept recordings
constexpr int kType = 1;           // type of the swept recordings

// ---- the injector --------------------------------------------------------------------------

enum class Fault { kEio, kEnospc, kShort, kEintr };
const char *const kFaultNames[] = {"EIO", "ENOSPC", "short count", "EINTR"};

struct Injector {
    int target = 0;  // fail this call (1-based); 0: count only
    Fault fault = Fault::kEio;
    int calls = 0;                   // calls counted so far
    std::vector<bool> transfer;      // per call of the clean run: a read or write
    std::vector<std::string> names;  // per call of the clean run: the entry
    std::string fired;               // the call that failed, "" when none did
};

Injector g_inj;
thread_local bool t_counted = false;  // set on the workload's thread while it runs

// True when this call is the one to fail; the fault to inject in *f.
bool draw(const char *name, bool is_transfer, Fault *f) {
    if (!t_counted) return false;
    const int n = ++g_inj.calls;
    if (g_inj.target == 0) {
        g_inj.transfer.push_back(is_transfer);
        g_inj.names.push_back(name);
    }
    if (n != g_inj.target) return false;
    if (g_inj.fault == Fault::kShort && !is_transfer) return false;
    g_inj.fired = name;
    *f = g_inj.fault;
    return true;
}

int errno_of(Fault f) {
    return f == Fault::kEnospc ? ENOSPC : f == Fault::kEintr ? EINTR : EIO;
}

// Every entry that returns a number: fails with -1 and the fault's errno.
template <typename Sig, recstore::IoCall<Sig> recstore::IoCalls::*M>
struct Hook;
template <typename R, typename... A, recstore::IoCall<R(A...)> recstore::IoCalls::*M>
struct Hook<R(A...), M> {
    static const char *name;
    static R fn(A... a) {
        Fault f;
        if (draw(name, false, &f)) {
            errno = errno_of(f);
            return static_cast<R>(-1);
        }
        return (recstore::io_calls().*M).real()(a...);
    }
    static void install() { (recstore::io_calls().*M).set(fn); }
};
template <typename R, typename... A, recstore::IoCall<R(A...)> recstore::IoCalls::*M>
const char *Hook<R(A...), M>::name = "call";

// close releases the descriptor even when it reports an error, as Linux does.
int hook_close(int fd) {
    Fault f;
    const int r = recstore::io_calls().close.real()(fd);
    if (draw("close", false, &f) && r == 0) {
        errno = errno_of(f);
        return -1;
    }
    return r;
}

// The transfers: the call, or its failure. A short count moves half of what was asked (the first
// buffer of a vector), as `shorter` does; the other faults give -1 with their errno.
template <typename Full, typename Shorter>
ssize_t transfer(const char *name, Full full, Shorter shorter) {
    Fault f;
    if (!draw(name, true, &f)) return full();
    if (f != Fault::kShort) {
        errno = errno_of(f);
        return -1;
    }
    return shorter();
}

// A shortened copy of a vector: its first buffer, or half of it when it is the only one.
std::vector<struct iovec> shortened(const struct iovec *iov, int cnt) {
    std::vector<struct iovec> v(iov, iov + 1);
    if (cnt == 1) v[0].iov_len /= 2;
    return v;
}

ssize_t hook_read(int fd, void *b, size_t n) {
    const auto real = recstore::io_calls().read.real();
    return transfer(
        "read", [&] { return real(fd, b, n); }, [&] { return real(fd, b, n / 2); });
}
ssize_t hook_write(int fd, const void *b, size_t n) {
    const auto real = recstore::io_calls().write.real();
    return transfer(
        "write", [&] { return real(fd, b, n); }, [&] { return real(fd, b, n / 2); });
}
ssize_t hook_pread(int fd, void *b, size_t n, off64_t pos) {
    const auto real = recstore::io_calls().pread64.real();
    return transfer(
        "pread64", [&] { return real(fd, b, n, pos); }, [&] { return real(fd, b, n / 2, pos); });
}
ssize_t hook_pwrite(int fd, const void *b, size_t n, off64_t pos) {
    const auto real = recstore::io_calls().pwrite64.real();
    return transfer(
        "pwrite64", [&] { return real(fd, b, n, pos); }, [&] { return real(fd, b, n / 2, pos); });
}
ssize_t hook_readv(int fd, const struct iovec *iov, int cnt) {
    const auto real = recstore::io_calls().readv.real();
    return transfer(
        "readv", [&] { return real(fd, iov, cnt); },
        [&] { return real(fd, shortened(iov, cnt).data(), 1); });
}
ssize_t hook_writev(int fd, const struct iovec *iov, int cnt) {
    const auto real = recstore::io_calls().writev.real();
    return transfer(
        "writev", [&] { return real(fd, iov, cnt); },
        [&] { return real(fd, shortened(iov, cnt).data(), 1); });
}
ssize_t hook_preadv(int fd, const struct iovec *iov, int cnt, off64_t pos) {
    const auto real = recstore::io_calls().preadv64.real();
    return transfer(
        "preadv64", [&] { return real(fd, iov, cnt, pos); },
        [&] { return real(fd, shortened(iov, cnt).data(), 1, pos); });
}
ssize_t hook_pwritev(int fd, const struct iovec *iov, int cnt, off64_t pos) {
    const auto real = recstore::io_calls().pwritev64.real();
    return transfer(
        "pwritev64", [&] { return real(fd, iov, cnt, pos); },
        [&] { return real(fd, shortened(iov, cnt).data(), 1, pos); });
}

template <typename T>
struct SigOf;
template <typename S>
struct SigOf<recstore::IoCall<S>> {
    using type = S;
};

#define HOOK(member)                                                                          \
    do {                                                                                      \
        using H =                                                                             \
            Hook<SigOf<std::remove_reference_t<decltype(recstore::io_calls().member)>>::type, \
                 &recstore::IoCalls::member>;                                                 \
        H::name = #member;                                                                    \
        H::install();                                                                         \
    } while (0)

void install_injector() {
    recstore::IoCalls &io = recstore::io_calls();
    HOOK(open);
    io.close.set(hook_close);
    io.read.set(hook_read);
    io.write.set(hook_write);
    io.pread64.set(hook_pread);
    io.pwrite64.set(hook_pwrite);
    io.readv.set(hook_readv);
    io.writev.set(hook_writev);
    io.preadv64.set(hook_preadv);
    io.pwritev64.set(hook_pwritev);
    HOOK(lseek64);
    HOOK(fsync);
    HOOK(fdatasync);
    HOOK(syncfs);
    HOOK(sync_file_range);
    HOOK(ftruncate64);
    HOOK(fstat64);
    HOOK(stat64);
    HOOK(lstat64);
    HOOK(statfs);
    HOOK(statfs64);
    HOOK(access);
    HOOK(futimes);
    HOOK(unlink);
    HOOK(remove);
    HOOK(rmdir);
    HOOK(mkdir);
    HOOK(symlink);
    HOOK(readlink);
    HOOK(rename);
}

// ---- what must hold after every run ---------------------------------------------------------

int open_descriptors() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (readdir(d) != nullptr) n++;
    closedir(d);
    return n;
}

bool lock_free(pthread_mutex_t &m) {
    if (pthread_mutex_trylock(&m) != 0) return false;
    pthread_mutex_unlock(&m);
    return true;
}

class FaultSweep : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
        bring_up(0, true);
        ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
        install_injector();
        descriptors_ = open_descriptors();
    }
    void TearDown() override {
        recstore::io_calls().reset_all();
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    struct tm start_of(int run) const {
        return make_tm(2024, 9, 1, 0, 0, 0 + run * 60);
    }

    // Runs the workload on a thread of its own with the Nth call armed; a hang ends the test
    // binary, since the stuck thread cannot be taken back.
    template <typename F>
    void run(int target, Fault fault, F workload) {
        g_inj.target = target;
        g_inj.fault = fault;
        g_inj.calls = 0;
        g_inj.fired.clear();
        auto done = std::async(std::launch::async, [&] {
            t_counted = true;
            workload();
            t_counted = false;
        });
        if (done.wait_for(std::chrono::seconds(kHangSeconds)) != std::future_status::ready) {
            fprintf(stderr, "HANG: %s of call %d (%s) did not return in %d s\n",
                    kFaultNames[static_cast<int>(fault)], target, g_inj.fired.c_str(),
                    kHangSeconds);
            fflush(stderr);
            _exit(1);
        }
        done.get();
        g_inj.target = 0;
    }

    // Nothing left behind: slots, descriptors, locks.
    void expect_nothing_held(const std::string &what) {
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            EXPECT_EQ(g_file_ctx[h].idx, -1) << what << ": stream slot " << h << " left open";
        }
        for (int i = 0; i < RECSTORE_INDEX_HANDLES; i++) {
            EXPECT_EQ(g_idx_ctx[i].fd, -1) << what << ": index slot " << i << " left open";
        }
        EXPECT_EQ(open_descriptors(), descriptors_) << what << ": descriptors leaked";
        EXPECT_TRUE(lock_free(g_fslock)) << what << ": g_fslock held";
        EXPECT_TRUE(lock_free(g_disk[0].lock)) << what << ": the disk's mutex held";
        EXPECT_TRUE(lock_free(g_cachelock)) << what << ": g_cachelock held";
    }

    // Records kClusters clusters and closes; the number acknowledged in *acked. Every result
    // must be the documented success or negative.
    void record(int run, uint32_t *acked, std::string *bad) {
        *acked = 0;
        acked_seqs_.clear();
        const struct tm t = start_of(run);
        const rec_param p = param_of(kChannel, t, kType);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
        if (h < -1 || h >= RECSTORE_STREAMS) *bad += "fs_open returned " + std::to_string(h);
        if (h < 0) return;
        for (uint32_t n = 0; n < kClusters; n++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(run), n);
            kframe frames[RECSTORE_MAX_KFRAMES];
            const uint32_t count = frames_of(n, secs(t), frames);
            const int r = fs_write(h, buf_.data(), kCluster, frames, count);
            if (r == static_cast<int>(kCluster)) {
                if (*acked == n) (*acked)++;
                acked_seqs_.push_back(n);
            } else if (r >= 0) {
                *bad += "fs_write returned " + std::to_string(r);
            }
        }
        struct tm end = t;
        end.tm_sec += 30;
        fs_close(h, &end);
    }

    // The entries of a recording (none when it does not open), with each payload compared.
    // *whole: every entry read back and held the payload it was written with.
    uint32_t read_back(int run, bool *whole) {
        *whole = true;
        const rec_param p = param_of(kChannel, start_of(run), kType);
        held_seqs_.clear();
        const int h = fs_open(0, &p, 0, 0, 0, nullptr);
        if (h < 0) return 0;
        uint32_t n = 0;
        for (;; n++) {
            uint32_t length = 0, count = 0;
            kframe frames[RECSTORE_MAX_KFRAMES];
            const int r = fs_read(h, got_.data(), &length, frames, &count);
            if (r == 0) break;
            if (r < 0) {
                *whole = false;
                break;
            }
            int held = -1;
            for (uint32_t k = 0; k < kClusters && length == kCluster; k++) {
                fill_payload(buf_.data(), static_cast<uint32_t>(run), k);
                if (memcmp(got_.data(), buf_.data(), kCluster) == 0) held = static_cast<int>(k);
            }
            held_seqs_.push_back(held);
            if (held != static_cast<int>(n)) *whole = false;  // read on: which write it holds
        }
        fs_close(h, nullptr);
        return n;
    }

    // A clean recording still works after the fault.
    void expect_recording_works(int run, const std::string &what) {
        uint32_t acked = 0;
        std::string bad;
        record(run, &acked, &bad);
        EXPECT_EQ(acked, kClusters) << what << ": recording no longer works " << bad;
        bool whole = false;
        EXPECT_EQ(read_back(run, &whole), kClusters) << what;
        EXPECT_TRUE(whole) << what;
    }

    // Calls of one clean run of the workload, and which of them are transfers.
    template <typename F>
    int count_calls(F workload, std::vector<bool> *transfers) {
        g_inj.transfer.clear();
        g_inj.names.clear();
        run(0, Fault::kEio, workload);
        *transfers = g_inj.transfer;
        return g_inj.calls;
    }

    // The Ns of a sweep: every call, or in the bounded run every third transfer.
    static bool swept(int n, const std::vector<bool> &transfers) {
        const char *v = getenv("RECSTORE_SWEEP");
        const bool full = v != nullptr && strcmp(v, "full") == 0;
        const bool transfer =
            static_cast<size_t>(n - 1) < transfers.size() && transfers[static_cast<size_t>(n - 1)];
        return full || !transfer || n % 3 == 0;
    }

    // The acknowledged writes of the last record(), and which write each entry read back by
    // the last read_back() holds (-1: none of them).
    std::vector<uint32_t> acked_seqs_;
    std::vector<int> held_seqs_;
    Cluster buf_;
    Cluster got_;
    int descriptors_ = 0;
    int next_run_ = 0;
    std::unique_ptr<LogMask> quiet_;
};

// The case, with the calls of the clean run around the failed one.
std::string case_name(const char *workload, Fault f, int n) {
    std::string around;
    for (int k = std::max(1, n - 3); k <= n + 3 && k <= static_cast<int>(g_inj.names.size()); k++) {
        around +=
            (k == n ? " [" : " ") + g_inj.names[static_cast<size_t>(k - 1)] + (k == n ? "]" : "");
    }
    return std::string(workload) + " with " + kFaultNames[static_cast<int>(f)] + " at call " +
           std::to_string(n) + " (" + g_inj.fired + "; calls" + around + ")";
}

// ---- the sweeps ------------------------------------------------------------------------------

TEST_F(FaultSweep, RecordAndClose) {
    std::vector<bool> transfers;
    uint32_t acked = 0;
    std::string bad;
    // The first recording makes the directories; the counted one is like every swept one.
    record(next_run_++, &acked, &bad);
    const int clean_run = next_run_++;
    const int calls = count_calls([&] { record(clean_run, &acked, &bad); }, &transfers);
    ASSERT_EQ(acked, kClusters) << bad;
    ASSERT_GT(calls, 0);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (!swept(n, transfers)) continue;
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            const int r = next_run_++;
            acked = 0;
            bad.clear();
            run(n, f, [&] { record(r, &acked, &bad); });
            const std::string what = case_name("record", f, n);
            cases++;
            EXPECT_TRUE(bad.empty()) << what << ": " << bad;
            expect_nothing_held(what);
            bool whole = false;
            read_back(r, &whole);
            // What was acknowledged reads back in order, byte for byte, and no entry leads to
            // anything but a write of this recording.
            const std::vector<uint32_t> acks = acked_seqs_;
            size_t found = 0;
            for (int held : held_seqs_) {
                EXPECT_GE(held, 0) << what << ": an entry leads to other data";
                if (found < acks.size() && held == static_cast<int>(acks[found])) found++;
            }
            EXPECT_EQ(found, acks.size())
                << what << ": acknowledged clusters lost (" << held_seqs_.size() << " entries, "
                << acks.size() << " acknowledged)";
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    expect_recording_works(next_run_++, "after the sweep");
    printf("fault sweep record: calls=%d cases=%d\n", calls, cases);
}

TEST_F(FaultSweep, ReadBack) {
    const int run_id = next_run_++;
    uint32_t acked = 0;
    std::string bad;
    record(run_id, &acked, &bad);
    ASSERT_EQ(acked, kClusters) << bad;
    std::vector<bool> transfers;
    bool whole = false;
    uint32_t entries = 0;
    const int calls = count_calls([&] { entries = read_back(run_id, &whole); }, &transfers);
    ASSERT_EQ(entries, kClusters);
    ASSERT_TRUE(whole);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (!swept(n, transfers)) continue;
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            bool ok = false;
            run(n, f, [&] { read_back(run_id, &ok); });
            const std::string what = case_name("read", f, n);
            cases++;
            expect_nothing_held(what);
            // A failed read never costs the recording: it reads back whole afterwards.
            EXPECT_EQ(read_back(run_id, &ok), kClusters) << what;
            EXPECT_TRUE(ok) << what;
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    expect_recording_works(next_run_++, "after the sweep");
    printf("fault sweep read: calls=%d cases=%d\n", calls, cases);
}

TEST_F(FaultSweep, DeleteIsAllOrNothing) {
    // One clean run counts the calls of a deletion.
    auto make = [&](int r) {
        uint32_t acked = 0;
        std::string bad;
        record(r, &acked, &bad);
        ASSERT_EQ(acked, kClusters) << bad;
    };
    auto del = [&](int r, int *result) {
        record_name name;
        memset(&name, 0, sizeof name);
        name.disk_id = 0;
        name.channel = kChannel;
        name.start = start_of(r);
        name.type = kType;
        *result = fs_delete(0, &name);
    };
    const int first = next_run_++;
    make(first);
    std::vector<bool> transfers;
    int result = 0;
    const int calls = count_calls([&] { del(first, &result); }, &transfers);
    ASSERT_EQ(result, 0);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (!swept(n, transfers)) continue;
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            const int r = next_run_++;
            make(r);
            run(n, f, [&] { del(r, &result); });
            const std::string what = case_name("delete", f, n);
            cases++;
            EXPECT_TRUE(result == 0 || result == -1) << what << ": fs_delete returned " << result;
            expect_nothing_held(what);
            bool whole = false;
            const uint32_t entries = read_back(r, &whole);
            // Whole, or gone.
            EXPECT_TRUE(entries == 0 || (entries == kClusters && whole))
                << what << ": " << entries << " entries came back";
            if (result == 0) {
                EXPECT_EQ(entries, 0u) << what << ": deleted, still there";
            }
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    expect_recording_works(next_run_++, "after the sweep");
    printf("fault sweep delete: calls=%d cases=%d\n", calls, cases);
}

}  // namespace

namespace {

// The recordings of the sweep's channel that a search finds on disk 0.
int found_by_search(int *result) {
    const struct tm s = make_tm(2024, 9, 1, 0, 0, 0);
    const struct tm e = make_tm(2024, 9, 2, 0, 0, 0);
    *result = fs_find(0, &s, &e, 0, 1u << kChannel, 0, kType, 0xFF, 15, 100000, nullptr, nullptr);
    return *result;
}

TEST_F(FaultSweep, SearchFailsCleanly) {
    uint32_t acked = 0;
    std::string bad;
    for (int i = 0; i < 3; i++) {
        record(next_run_++, &acked, &bad);
        ASSERT_EQ(acked, kClusters) << bad;
    }
    std::vector<bool> transfers;
    int result = 0;
    const int calls = count_calls([&] { found_by_search(&result); }, &transfers);
    ASSERT_EQ(result, 3);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            run(n, f, [&] { found_by_search(&result); });
            const std::string what = case_name("search", f, n);
            cases++;
            EXPECT_TRUE(result >= -1 && result <= 3) << what << ": fs_find returned " << result;
            expect_nothing_held(what);
            // A failed search costs nothing: the next one finds everything.
            EXPECT_EQ(found_by_search(&result), 3) << what;
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    printf("fault sweep search: calls=%d cases=%d\n", calls, cases);
}

// The current block of disk 0, kNoBlock when there is none.
uint32_t current_block(int disk = 0) {
    recstore::MutexGuard guard(g_disk[disk].lock);
    const dz_block *cur = g_dz_ctx[disk].cur_block;
    return cur == nullptr ? kNoBlock : cur->block_id;
}

// Frees every block but the current one, so that the disk's three blocks last for any number of
// changes.
void free_other_blocks() {
    const uint32_t cur = current_block();
    for (uint32_t b = kBlock1; b <= kBlock3; b++) {
        if (b != cur) {
            EXPECT_EQ(fs_clear(0, b), 0) << "block " << b;
        }
    }
}

TEST_F(FaultSweep, BlockChangeKeepsRecordingsAndRecordingGoesOn) {
    uint32_t acked = 0;
    std::string bad;
    std::vector<bool> transfers;
    const int calls = count_calls([] { fs_changeblock(0, 0, 0); }, &transfers);
    ASSERT_GT(calls, 0);
    free_other_blocks();
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            const int kept = next_run_++;
            record(kept, &acked, &bad);
            ASSERT_EQ(acked, kClusters) << bad;
            run(n, f, [] { fs_changeblock(0, 0, 0); });
            const std::string what = case_name("block change", f, n);
            cases++;
            expect_nothing_held(what);
            bool whole = false;
            EXPECT_EQ(read_back(kept, &whole), kClusters) << what;
            EXPECT_TRUE(whole) << what;
            // Recording goes on, at the latest after the next (clean) change, as the daemon's
            // next pass makes it. A block whose stamp could not be written stays out of use
            // until the disk is brought up again; this small disk has no other block left then.
            uint32_t got = 0;
            record(next_run_++, &got, &bad);
            if (got != kClusters) {
                fs_changeblock(0, 0, 0);
                if (current_block() == kNoBlock) {
                    take_down(0);
                    bring_up(0, false);
                    fs_changeblock(0, 0, 0);
                    descriptors_ = open_descriptors();
                }
                expect_recording_works(next_run_++, what + ", after a clean change");
            }
            free_other_blocks();
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    printf("fault sweep block change: calls=%d cases=%d\n", calls, cases);
}

TEST_F(FaultSweep, RecycleIsAllOrNothing) {
    // One clean recycle counts the calls: two recordings in the current block, a block change,
    // then the freeing of the block they are in.
    uint32_t acked = 0;
    std::string bad;
    auto fill_and_change = [&](int *first) -> uint32_t {
        *first = next_run_;
        for (int i = 0; i < 2; i++) {
            record(next_run_++, &acked, &bad);
            EXPECT_EQ(acked, kClusters) << bad;
        }
        return current_block();
    };
    int first = 0;
    uint32_t block = fill_and_change(&first);
    ASSERT_NE(block, kNoBlock);
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    std::vector<bool> transfers;
    int result = 0;
    const int calls = count_calls([&] { result = fs_clear(0, block); }, &transfers);
    ASSERT_EQ(result, 0);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            block = fill_and_change(&first);
            ASSERT_NE(block, kNoBlock);
            ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
            run(n, f, [&] { result = fs_clear(0, block); });
            const std::string what = case_name("recycle", f, n);
            cases++;
            EXPECT_TRUE(result == 0 || result == -1) << what << ": fs_clear returned " << result;
            expect_nothing_held(what);
            for (int r = first; r < first + 2; r++) {
                bool whole = false;
                const uint32_t entries = read_back(r, &whole);
                EXPECT_TRUE(entries == 0 || (entries == kClusters && whole))
                    << what << ": recording " << r << " came back with " << entries << " entries";
            }
            // A clean retry frees the block, and recording goes on.
            EXPECT_EQ(fs_clear(0, block), 0) << what;
            for (int r = first; r < first + 2; r++) {
                bool whole = false;
                EXPECT_EQ(read_back(r, &whole), 0u) << what << ": recycled, still there";
            }
            expect_recording_works(next_run_++, what);
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    printf("fault sweep recycle: calls=%d cases=%d\n", calls, cases);
}

// ---- disk change -----------------------------------------------------------------------------

// One cluster recorded on disk 1 and read back; true when both worked.
bool records_on_disk1(int run, Cluster *buf, Cluster *got) {
    const struct tm t = make_tm(2024, 9, 2, 0, 0, run % 60);
    const rec_param p = param_of(kChannel, t, kType);
    const int h = fs_open(1, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
    if (h < 0) return false;
    fill_payload(buf->data(), static_cast<uint32_t>(run), 0);
    kframe frames[RECSTORE_MAX_KFRAMES];
    const uint32_t count = frames_of(0, secs(t), frames);
    const bool written = fs_write(h, buf->data(), kCluster, frames, count) == int(kCluster);
    fs_close(h, nullptr);
    const int r = fs_open(1, &p, 0, 0, 0, nullptr);
    if (r < 0) return false;
    uint32_t length = 0, n = 0;
    const bool read = fs_read(r, got->data(), &length, frames, &n) > 0 && length == kCluster &&
                      memcmp(got->data(), buf->data(), kCluster) == 0;
    fs_close(r, nullptr);
    return written && read;
}

// A change from disk 0 to disk 1 (fs_changeblock across disks) with call N failed: the
// recordings of disk 0 read back whole, nothing is left behind, and recording on disk 1 works at
// the latest after a clean change.
TEST_F(FaultSweep, DiskChangeKeepsRecordingsAndRecordingGoesOn) {
    bring_up(1, true);
    descriptors_ = open_descriptors();
    uint32_t acked = 0;
    std::string bad;
    // Disk 1 without a current block and with every block free again (its three blocks would
    // otherwise be used up by the changes).
    auto reset_disk1 = [] {
        {
            recstore::MutexGuard guard(g_disk[1].lock);
            if (g_dz_ctx[1].cur_block != nullptr) block_free(1);
        }
        for (uint32_t b = kBlock1; b <= kBlock3; b++) EXPECT_EQ(fs_clear(1, b), 0) << "block " << b;
    };
    std::vector<bool> transfers;
    const int calls = count_calls([] { fs_changeblock(0, 1, 0); }, &transfers);
    ASSERT_GT(calls, 0);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            // Back to recording on disk 0.
            reset_disk1();
            if (current_block(0) == kNoBlock) fs_changeblock(0, 0, 0);
            free_other_blocks();
            const int kept = next_run_++;
            record(kept, &acked, &bad);
            ASSERT_EQ(acked, kClusters) << bad;
            run(n, f, [] { fs_changeblock(0, 1, 0); });
            const std::string what = case_name("disk change", f, n);
            cases++;
            expect_nothing_held(what);
            EXPECT_TRUE(lock_free(g_disk[1].lock)) << what << ": disk 1's mutex held";
            bool whole = false;
            EXPECT_EQ(read_back(kept, &whole), kClusters) << what;
            EXPECT_TRUE(whole) << what;
            if (!records_on_disk1(next_run_++, &buf_, &got_)) {
                // A block whose map read failed is put in error and stays out of use; this small
                // disk may have none left then, so it is made anew.
                if (current_block(1) == kNoBlock) {
                    reset_disk1();
                    take_down(1);
                    bring_up(1, true);
                    descriptors_ = open_descriptors();
                }
                fs_changeblock(1, 1, 0);
                EXPECT_TRUE(records_on_disk1(next_run_++, &buf_, &got_))
                    << what << ": recording on disk 1 no longer works after a clean change";
            }
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    printf("fault sweep disk change: calls=%d cases=%d\n", calls, cases);
    reset_disk1();
    take_down(1);
}

// ---- bring-up ------------------------------------------------------------------------------

// The plug-in order on disk 0, each step only when the one before it succeeded, as the daemon's
// hot-plug runs it. Every result must be the documented success or -1.
void plug_in(std::string *bad) {
    const char *dev = g_disks[0].node.c_str();
    auto check = [bad](const char *step, int r, int ok) {
        if (r != ok && r != -1) *bad += std::string(step) + " returned " + std::to_string(r) + "; ";
        return r == ok;
    };
    if (!check("fs_umount", fs_umount(dev), 0)) return;
    if (!check("fs_chk", fs_chk(dev), 0)) return;
    if (!check("fs_mount", fs_mount(dev), 0)) return;
    if (!check("fs_opendisk", fs_opendisk(dev), 0)) return;
    if (!check("fs_datazone_init", fs_datazone_init(0), 0)) return;
    check("fs_adddisk", fs_adddisk(0, 0), 0);
}

// Each case checks the disk and mounts it (about a second): the bounded run takes every fourth N.
constexpr int kBringUpStride = 4;

bool full_sweep() {
    const char *v = getenv("RECSTORE_SWEEP");
    return v != nullptr && strcmp(v, "full") == 0;
}

// Bring-up with call N failed. The disk holds a closed recording and one whose writer went away
// with the disk (its header never finalised, its entries not counted: bring-up reads them to keep
// their clusters busy). After each run, and a clean plug-out and plug-in: both recordings read
// back whole, a new recording does not reuse their clusters, and nothing is left behind.
TEST_F(FaultSweep, BringUpFailsCleanly) {
    uint32_t acked = 0;
    std::string bad;
    // The disk's state before every run: one closed recording, one left open by a pulled disk.
    auto prepare = [&](int *closed, int *open) {
        *closed = next_run_++;
        record(*closed, &acked, &bad);
        ASSERT_EQ(acked, kClusters) << bad;
        *open = next_run_++;
        const struct tm t = start_of(*open);
        const rec_param p = param_of(kChannel, t, kType);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < kClusters; n++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(*open), n);
            kframe frames[RECSTORE_MAX_KFRAMES];
            const uint32_t count = frames_of(n, secs(t), frames);
            ASSERT_EQ(fs_write(h, buf_.data(), kCluster, frames, count), int(kCluster));
        }
        take_down(0);
        fs_close(h, nullptr);  // the disk is gone: the slot is freed, the header left as it was
    };
    int closed = 0, open = 0;
    prepare(&closed, &open);
    const int down_descriptors = open_descriptors();
    std::vector<bool> transfers;
    const int calls = count_calls([&] { plug_in(&bad); }, &transfers);
    ASSERT_GT(calls, 0);
    ASSERT_EQ(bad, "");
    fs_changeblock(0, 0, 0);
    int cases = 0;
    for (Fault f : {Fault::kEio, Fault::kEnospc, Fault::kShort, Fault::kEintr}) {
        for (int n = 1; n <= calls; n++) {
            if (f == Fault::kShort && !transfers[static_cast<size_t>(n - 1)]) continue;
            if (!full_sweep() && n % kBringUpStride != 0) continue;
            prepare(&closed, &open);
            if (HasFatalFailure()) return;
            bad.clear();
            run(n, f, [&] { plug_in(&bad); });
            const std::string what = case_name("bring-up", f, n);
            cases++;
            EXPECT_EQ(bad, "") << what;
            take_down(0);
            EXPECT_EQ(open_descriptors(), down_descriptors) << what << ": descriptors leaked";
            EXPECT_TRUE(lock_free(g_disk[0].lock)) << what << ": the disk's mutex held";
            bring_up(0, false);
            fs_changeblock(0, 0, 0);
            for (int r : {closed, open}) {
                bool whole = false;
                EXPECT_EQ(read_back(r, &whole), kClusters) << what << ": recording " << r;
                EXPECT_TRUE(whole) << what << ": recording " << r;
            }
            expect_recording_works(next_run_++, what);
            for (int r : {closed, open}) {
                bool whole = false;
                EXPECT_EQ(read_back(r, &whole), kClusters) << what << ": recording " << r;
                EXPECT_TRUE(whole) << what << ": recording " << r << " overwritten";
            }
            free_other_blocks();
            if (HasFailure()) break;
        }
        if (HasFailure()) break;
    }
    printf("fault sweep bring-up: calls=%d cases=%d\n", calls, cases);
}

}  // namespace
