// SPDX-License-Identifier: MIT
// The batched entry walk of index_lseek and index_tseek against the one-entry-per-read walk:
// on many random recordings (full and short clusters, equal and falling frame times, entries
// without key frames or with a damaged frame count, a partial entry at the end, a file that
// grows between seeks) the same random seeks, made once each way on two handles of the same
// file, must give the same results, positions, key frames, offsets and messages.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "capture.h"
#include "fs_tools.h"
#include "fstype_old.h"
#include "index.h"
#include "recstore.h"
#include "test_util.h"

using namespace recstore;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

using recstore_test::utc_tm;

constexpr uint32_t T = 1715933350u;  // 2024-05-17 08:09:10 UTC
constexpr int64_t kCluster = RECSTORE_CLUSTER_SIZE;

// What one call left behind on one handle.
struct Outcome {
    int64_t result = 0;
    int32_t seq_out = 0;
    uint32_t offset_out = 0;
    int64_t fd_pos = 0;
    uint32_t seq = 0;
    uint32_t offset = 0;
    std::string messages;
    bool operator==(const Outcome &o) const {
        return result == o.result && seq_out == o.seq_out && offset_out == o.offset_out &&
               fd_pos == o.fd_pos && seq == o.seq && offset == o.offset && messages == o.messages;
    }
};

std::string describe(const Outcome &o) {
    return "result " + std::to_string(o.result) + " seq_out " + std::to_string(o.seq_out) +
           " offset_out " + std::to_string(o.offset_out) + " fd at " + std::to_string(o.fd_pos) +
           " seq " + std::to_string(o.seq) + " offset " + std::to_string(o.offset) + " messages [" +
           o.messages + "]";
}

// Everything written to standard error (the system-call failure reports) while it lives.
class StderrCapture {
  public:
    StderrCapture() {
        fflush(stderr);
        char name[] = "/tmp/recstore-seekb-err.XXXXXX";
        file_ = mkstemp(name);
        unlink(name);
        saved_ = dup(2);
        dup2(file_, 2);
    }
    ~StderrCapture() { stop(); }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;
    std::string stop() {
        if (saved_ < 0) return text_;
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        saved_ = -1;
        char buf[4096];
        ssize_t n;
        lseek(file_, 0, SEEK_SET);
        while ((n = read(file_, buf, sizeof buf)) > 0) text_.append(buf, static_cast<size_t>(n));
        close(file_);
        return text_;
    }

  private:
    int file_ = -1;
    int saved_ = -1;
    std::string text_;
};

enum class Op { lseek_set, lseek_cur, tseek_set, tseek_cur, ltell, ttell, count };

class SeekBatches : public ::testing::Test {
  protected:
    void SetUp() override {
        index_init();
        g_magic[0] = RECSTORE_MAGIC_V7;
        char name[] = "/tmp/recstore-seekb.XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = name;
    }
    void TearDown() override {
        index_set_seek_batched(true);
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        g_magic[0] = 0;
        unlink(path_.c_str());
    }
    index_open_args args(int flags) {
        index_open_args a;
        a.start = &start_;
        a.channel = 1;
        a.type = 0;
        a.flags = flags;
        return a;
    }
    int open_handle(int flags) { return do_index_attach(open(path_.c_str(), O_RDWR), args(flags)); }

    // Appends `n` random entries through the writer handle; times move on from *t.
    void write_entries(int w, int n, uint32_t *t) {
        std::uniform_int_distribution<int> pct(0, 99);
        for (int e = 0; e < n; ++e) {
            kframe fr[kMaxKframes] = {};
            const uint32_t length = pct(random_) < 80
                                        ? static_cast<uint32_t>(kCluster)
                                        : static_cast<uint32_t>(random_() % (kCluster + 1));
            uint32_t count = static_cast<uint32_t>(random_() % 4);
            const int shape = pct(random_);
            if (shape < 3) count = 0;
            if (shape >= 3 && shape < 5) count = kMaxKframes;
            uint32_t offset = 0;
            for (uint32_t i = 0; i < count; ++i) {
                offset += static_cast<uint32_t>(random_() % 50000);
                fr[i] = kframe{offset, *t};
                const int step = pct(random_);
                if (step < 60) *t += 1;   // one second on
                if (step >= 90) *t -= 1;  // a frame earlier than the one before
                // Else the same second again.
            }
            ASSERT_EQ(index_write(w, 100 + static_cast<uint32_t>(e), length, fr, count), 204);
            if (shape >= 97) {
                // A damaged frame count in the entry just written.
                const int64_t at = lseek64(g_idx_ctx[w].fd, 0, SEEK_CUR) - 204 + 8;
                uint8_t bad[4];
                le32_store(bad, shape == 99 ? 0xFFFFFFFFu : 30u);
                ASSERT_EQ(pwrite64(g_idx_ctx[w].fd, bad, 4, at), 4);
            }
        }
    }
    void append_partial_entry() {
        const int fd = open(path_.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        const std::vector<uint8_t> junk(1 + random_() % 203, 0x5A);
        ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
        close(fd);
    }

    Outcome run(int h, bool batched, Op op, int64_t arg) {
        index_set_seek_batched(batched);
        Outcome o;
        o.seq_out = -77;
        o.offset_out = 0xABCD;
        {
            LogMask mask(0xFF);
            StdoutCapture out;
            StderrCapture err;
            switch (op) {
                case Op::lseek_set:
                    o.result = index_lseek(h, arg, SEEK_SET, &o.offset_out);
                    break;
                case Op::lseek_cur:
                    o.result = index_lseek(h, arg, SEEK_CUR, &o.offset_out);
                    break;
                case Op::tseek_set:
                    o.result = index_tseek(h, static_cast<int32_t>(arg), SEEK_SET, &o.seq_out);
                    break;
                case Op::tseek_cur:
                    o.result = index_tseek(h, static_cast<int32_t>(arg), SEEK_CUR, &o.seq_out);
                    break;
                case Op::ltell:
                    o.result = index_ltell(h, &o.offset_out);
                    break;
                default:
                    o.result = index_ttell(h, reinterpret_cast<uint32_t *>(&o.seq_out));
                    break;
            }
            o.messages = out.stop() + "|" + err.stop();
        }
        o.fd_pos = lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR);
        index_get_seqoffset(h, &o.seq);
        index_get_offset(h, &o.offset);
        return o;
    }

    // A random call with its argument, around the recording's bytes and times.
    std::pair<Op, int64_t> draw(int64_t bytes, uint32_t first, uint32_t last) {
        const Op op = static_cast<Op>(random_() % static_cast<int>(Op::count));
        const int64_t span = bytes + 2 * kCluster;
        const int64_t secs = static_cast<int64_t>(last) - first + 20;
        switch (op) {
            case Op::lseek_set:
                return {op, static_cast<int64_t>(random_() % span) - kCluster / 4};
            case Op::lseek_cur:
                return {op, static_cast<int64_t>(random_() % (2 * span)) - span};
            case Op::tseek_set:
                return {op,
                        static_cast<int64_t>(first) - 10 + static_cast<int64_t>(random_() % secs)};
            case Op::tseek_cur:
                return {op, static_cast<int64_t>(random_() % (2 * secs)) - secs};
            default:
                return {op, 0};
        }
    }

    // Makes the same `calls` random calls on a plain and a batched handle of the file.
    void compare(int plain, int batched, int calls, int64_t bytes, uint32_t first, uint32_t last) {
        for (int c = 0; c < calls; ++c) {
            const auto call = draw(bytes, first, last);
            const Outcome a = run(plain, false, call.first, call.second);
            const Outcome b = run(batched, true, call.first, call.second);
            (a.result < 0 ? failures_ : successes_)++;
            ASSERT_TRUE(a == b) << "call " << c << " op " << static_cast<int>(call.first) << " arg "
                                << call.second << "\nplain:   " << describe(a)
                                << "\nbatched: " << describe(b);
        }
    }

    int successes_ = 0, failures_ = 0;
    std::mt19937 random_{20261125};
    std::string path_;
    struct tm start_ {};
};

}  // namespace

// Closed recordings of random length and shape, some with a partial entry at the end.
TEST_F(SeekBatches, ClosedRecordingsGiveTheSameSeeks) {
    for (int rec = 0; rec < 40; ++rec) {
        start_ = utc_tm(T - 5);
        ASSERT_EQ(truncate(path_.c_str(), 0), 0);
        const int w = open_handle(O_CREAT | O_RDWR);
        ASSERT_GE(w, 0);
        uint32_t t = T;
        const int entries =
            rec % 5 == 0 ? static_cast<int>(random_() % 5) : 1 + static_cast<int>(random_() % 2600);
        write_entries(w, entries, &t);
        const int64_t bytes = static_cast<int64_t>(g_idx_ctx[w].info->total_bytes);
        const struct tm end = utc_tm(t + 3);
        index_close(w, &end);
        if (rec % 4 == 1) append_partial_entry();
        const int plain = open_handle(O_RDWR);
        const int batched = open_handle(O_RDWR);
        ASSERT_GE(plain, 0);
        ASSERT_GE(batched, 0);
        compare(plain, batched, 150, bytes, T, t + 3);
        do_index_release(plain);
        do_index_release(batched);
    }
    // The draws reach both the positions found and the refusals.
    EXPECT_GT(successes_, 1000);
    EXPECT_GT(failures_, 500);
}

// A recording still being written: entries are appended between the seeks.
TEST_F(SeekBatches, GrowingRecordingGivesTheSameSeeks) {
    start_ = utc_tm(T - 5);
    const int w = open_handle(O_CREAT | O_RDWR);
    ASSERT_GE(w, 0);
    uint32_t t = T;
    write_entries(w, 50, &t);
    index_flush_info(w);
    const int plain = open_handle(O_RDWR);
    const int batched = open_handle(O_RDWR);
    ASSERT_GE(plain, 0);
    ASSERT_GE(batched, 0);
    for (int round = 0; round < 30; ++round) {
        write_entries(w, 1 + static_cast<int>(random_() % 300), &t);
        // The readers' records follow the writer's, as a reader of a live recording sees them.
        *g_idx_ctx[plain].info = *g_idx_ctx[w].info;
        *g_idx_ctx[batched].info = *g_idx_ctx[w].info;
        compare(plain, batched, 40, static_cast<int64_t>(g_idx_ctx[w].info->total_bytes), T, t);
    }
}

// A read of a batch that fails leaves the entry to the one-entry read: same results.
TEST_F(SeekBatches, FailedBatchReadFallsBackToTheEntryRead) {
    start_ = utc_tm(T - 5);
    const int w = open_handle(O_CREAT | O_RDWR);
    ASSERT_GE(w, 0);
    uint32_t t = T;
    write_entries(w, 700, &t);
    const int64_t bytes = static_cast<int64_t>(g_idx_ctx[w].info->total_bytes);
    const struct tm end = utc_tm(t + 3);
    index_close(w, &end);
    const int plain = open_handle(O_RDWR);
    const int batched = open_handle(O_RDWR);
    ASSERT_GE(plain, 0);
    ASSERT_GE(batched, 0);
    IoOverride<ssize_t(int, void *, size_t, off64_t)> fail(
        io_calls().pread64, [](int, void *, size_t, off64_t) -> ssize_t {
            errno = EIO;
            return -1;
        });
    compare(plain, batched, 200, bytes, T, t + 3);
}
