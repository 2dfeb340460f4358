// SPDX-License-Identifier: MIT
// Clearing a cluster map with one write against the plain clear that writes every freed entry on
// its own: on many random maps (states, values, list orders scrambled by takes and puts, garbage
// past the map's end) both leave the same map cluster byte for byte, the same values, lists,
// counts, result and messages; a failing or short write ends as the plain clear ends.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "bitmap.h"
#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"

namespace {

using recstore::io_calls;
using recstore::IoOverride;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr uint32_t kEntries = RECSTORE_CLUSTERS_PER_BLOCK;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr uint32_t kPlainCluster = 0;    // the map the plain clear works on
constexpr uint32_t kBatchedCluster = 1;  // its copy, cleared with one write
constexpr int kRandomMaps = 60;

using PwriteFn = ssize_t (*)(int, const void *, size_t, off64_t);

// What a clear leaves in memory and the line it prints.
struct Outcome {
    int result = 0;
    std::string out;
    std::vector<uint32_t> vals, busy, free, err;
    uint32_t busy_bits = 0, free_bits = 0, err_bits = 0;
};

std::vector<uint32_t> ids_of(const bitmap_list &head) {
    std::vector<uint32_t> ids;
    for (const bitmap_list *p = head.next; p != &head; p = p->next) {
        ids.push_back(reinterpret_cast<const bitmap_node *>(p)->id);
    }
    return ids;
}

// One random entry: mostly busy with a cluster value, some free, some in error (both forms).
uint32_t random_entry(std::mt19937 &rng, unsigned busy_percent) {
    const uint32_t value = rng() & recstore::kEntryValueMask;
    const unsigned roll = rng() % 100;
    if (roll < busy_percent) return recstore::make_busy_entry(value);
    switch (rng() % 4) {
        case 0:
            return recstore::make_err_entry(value);
        case 1:
            return value | recstore::kEntryErrTestBit;  // state 01, also an error
        default:
            return value;
    }
}

class BitmapClearBatches : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/var/tmp/recstore-bitmap-clear.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/map";
        ASSERT_TRUE(aging::make_image(path_, 2ull * kCluster));
        fd_ = open(path_.c_str(), O_RDWR | O_LARGEFILE);
        ASSERT_GE(fd_, 0);
        std::memset(&plain_, 0, sizeof plain_);
        std::memset(&batched_, 0, sizeof batched_);
    }
    void TearDown() override {
        bitmap_exit(&plain_);
        bitmap_exit(&batched_);
        recstore::bitmap_set_clear_batched(true);
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    // Writes the same raw cluster (the map and whatever follows it) to both map clusters.
    void write_both(const std::vector<uint32_t> &words) {
        std::vector<unsigned char> raw(kCluster);
        for (uint32_t i = 0; i < kEntries; ++i) recstore::le32_store(&raw[i * 4], words[i]);
        for (uint32_t c : {kPlainCluster, kBatchedCluster}) {
            ASSERT_EQ(pwrite64(fd_, raw.data(), raw.size(), static_cast<off64_t>(c) * kCluster),
                      static_cast<ssize_t>(raw.size()));
        }
    }
    std::vector<unsigned char> cluster_bytes(uint32_t c) {
        std::vector<unsigned char> b(kCluster);
        EXPECT_EQ(pread64(fd_, b.data(), b.size(), static_cast<off64_t>(c) * kCluster),
                  static_cast<ssize_t>(b.size()));
        return b;
    }

    // Loads both maps and scrambles their lists the same way: entries taken off the free list
    // made busy or in error, busy ones deleted and put back free, as recording and faults do.
    void load_and_scramble(uint32_t count, unsigned seed, int ops) {
        ASSERT_EQ(bitmap_init(&plain_, static_cast<int>(count), fd_, kPlainCluster), 0);
        ASSERT_EQ(bitmap_init(&batched_, static_cast<int>(count), fd_, kBatchedCluster), 0);
        LogMask quiet(0, 0);
        StdoutCapture cap;
        for (cluster_bitmap *bm : {&plain_, &batched_}) {
            std::mt19937 rng(seed);
            for (int i = 0; i < ops; ++i) {
                const uint32_t value = rng() & recstore::kEntryValueMask;
                switch (rng() % 3) {
                    case 0: {
                        const int id = bitmap_free_get(bm);
                        if (id >= 0) bitmap_busy_put(bm, static_cast<uint32_t>(id), value);
                        break;
                    }
                    case 1: {
                        const int id = bitmap_free_get(bm);
                        if (id >= 0) bitmap_err_put(bm, static_cast<uint32_t>(id), value);
                        break;
                    }
                    default: {
                        const int id = bitmap_busy_get(bm);
                        if (id >= 0) bitmap_free_put(bm, static_cast<uint32_t>(id), value);
                        break;
                    }
                }
            }
        }
        cap.stop();
    }

    static Outcome clear(cluster_bitmap *bm, bool batched) {
        recstore::bitmap_set_clear_batched(batched);
        Outcome o;
        {
            LogMask all(0xFF);
            StdoutCapture cap;
            o.result = bitmap_clear(bm);
            o.out = cap.stop();
        }
        recstore::bitmap_set_clear_batched(true);
        o.vals.assign(bm->vals, bm->vals + bm->count);
        o.busy = ids_of(bm->busy_list);
        o.free = ids_of(bm->free_list);
        o.err = ids_of(bm->err_list);
        o.busy_bits = bm->busy_bits;
        o.free_bits = bm->free_bits;
        o.err_bits = bm->err_bits;
        return o;
    }

    void expect_same(const Outcome &p, const Outcome &b, const std::string &what) {
        EXPECT_EQ(p.result, b.result) << what;
        // A failed write names its map cluster, the one thing that differs between the two.
        std::string out = b.out;
        const std::string other = "clusterid:" + std::to_string(kBatchedCluster) + ",";
        const std::string same = "clusterid:" + std::to_string(kPlainCluster) + ",";
        for (size_t at = out.find(other); at != std::string::npos; at = out.find(other, at)) {
            out.replace(at, other.size(), same);
        }
        EXPECT_EQ(p.out, out) << what;
        EXPECT_TRUE(p.vals == b.vals) << what;
        EXPECT_TRUE(p.busy == b.busy) << what;
        EXPECT_TRUE(p.free == b.free) << what;
        EXPECT_TRUE(p.err == b.err) << what;
        EXPECT_EQ(p.busy_bits, b.busy_bits) << what;
        EXPECT_EQ(p.free_bits, b.free_bits) << what;
        EXPECT_EQ(p.err_bits, b.err_bits) << what;
        EXPECT_TRUE(cluster_bytes(kPlainCluster) == cluster_bytes(kBatchedCluster)) << what;
    }

    std::string dir_, path_;
    int fd_ = -1;
    cluster_bitmap plain_, batched_;
};

TEST_F(BitmapClearBatches, RandomMapsEndTheSameAsThePlainClear) {
    std::mt19937 rng(20261125);
    for (int round = 0; round < kRandomMaps; ++round) {
        // Full maps (a block's cluster map), small ones (a block map) and everything between.
        uint32_t count = kEntries;
        if (round % 3 == 1) count = 1 + rng() % 64;
        if (round % 3 == 2) count = 1 + rng() % kEntries;
        const unsigned busy_percent = round % 5 == 0 ? 100 : round % 5 == 1 ? 0 : rng() % 100;
        std::vector<uint32_t> words(kEntries);
        for (uint32_t i = 0; i < kEntries; ++i) {
            // Past the map's end: garbage that neither clear may touch.
            words[i] = i < count ? random_entry(rng, busy_percent) : rng();
        }
        // Now and then a map that is busy in one stretch only, as a block filled in order.
        if (round % 7 == 3) {
            const uint32_t from = rng() % count, to = from + rng() % (count - from);
            for (uint32_t i = 0; i < count; ++i) {
                words[i] = i >= from && i <= to ? recstore::make_busy_entry(i) : i;
            }
        }
        write_both(words);
        load_and_scramble(count, rng(), static_cast<int>(rng() % 2000));
        const Outcome p = clear(&plain_, false);
        const Outcome b = clear(&batched_, true);
        expect_same(p, b, "round " + std::to_string(round) + " count " + std::to_string(count));
        EXPECT_EQ(p.result, 0);
        EXPECT_EQ(p.busy_bits + p.err_bits, 0u);
        bitmap_exit(&plain_);
        bitmap_exit(&batched_);
        if (HasFailure()) break;
    }
}

TEST_F(BitmapClearBatches, MemoryOutOfStepWithTheMapEndsAsInThePlainClear) {
    // Left by puts whose writes failed: a busy-list node whose value says free (both clears print
    // the repeated-put line), and between two busy entries a free entry whose value in memory is
    // not the map's (only the entries a clear frees are written: the map keeps its bytes).
    std::vector<uint32_t> words(kEntries, 0);
    words[1] = recstore::make_busy_entry(1);
    words[3] = recstore::make_busy_entry(7);
    words[9] = recstore::make_busy_entry(9);
    write_both(words);
    ASSERT_EQ(bitmap_init(&plain_, 16, fd_, kPlainCluster), 0);
    ASSERT_EQ(bitmap_init(&batched_, 16, fd_, kBatchedCluster), 0);
    for (cluster_bitmap *bm : {&plain_, &batched_}) {
        bm->vals[3] = 7;
        bm->vals[5] = 0x1234;
    }
    const Outcome p = clear(&plain_, false);
    const Outcome b = clear(&batched_, true);
    EXPECT_NE(p.out.find("bitmap_free_put id:3,val:0x7\n"), std::string::npos) << p.out;
    EXPECT_EQ(aging::read_entry(path_.c_str(), kBatchedCluster, 5), 0u);
    expect_same(p, b, "out of step");
}

// Writes that fail (or write only part) make the batched clear fall back on the plain one.
ssize_t g_fail_from_bytes = 0;  // writes of at least this many bytes fail
bool g_short = false;           // ... by writing half and reporting it, instead of EIO
PwriteFn g_real_pwrite = nullptr;

ssize_t faulty_pwrite(int fd, const void *buf, size_t n, off64_t at) {
    if (static_cast<ssize_t>(n) >= g_fail_from_bytes) {
        if (!g_short) {
            errno = EIO;
            return -1;
        }
        return g_real_pwrite(fd, buf, n / 2, at);
    }
    return g_real_pwrite(fd, buf, n, at);
}

TEST_F(BitmapClearBatches, FailingWritesEndAsInThePlainClear) {
    g_real_pwrite = io_calls().pwrite64.get();
    struct Case {
        ssize_t fail_from;
        bool short_write;
    };
    // Only the one large write fails (EIO or short); every write fails.
    for (const Case c : {Case{8, false}, Case{8, true}, Case{1, false}}) {
        std::mt19937 rng(static_cast<unsigned>(c.fail_from) + (c.short_write ? 100 : 0));
        std::vector<uint32_t> words(kEntries);
        for (uint32_t i = 0; i < kEntries; ++i) words[i] = i < 256 ? random_entry(rng, 60) : 0;
        write_both(words);
        load_and_scramble(256, rng(), 100);
        g_fail_from_bytes = c.fail_from;
        g_short = c.short_write;
        Outcome p, b;
        {
            IoOverride<ssize_t(int, const void *, size_t, off64_t)> faults(io_calls().pwrite64,
                                                                           faulty_pwrite);
            p = clear(&plain_, false);
            b = clear(&batched_, true);
        }
        expect_same(p, b, "fail from " + std::to_string(c.fail_from));
        bitmap_exit(&plain_);
        bitmap_exit(&batched_);
    }
}

ssize_t failing_pread(int, void *, size_t, off64_t) {
    errno = EIO;
    return -1;
}

TEST_F(BitmapClearBatches, FailingReadEndsAsThePlainClear) {
    std::mt19937 rng(5);
    std::vector<uint32_t> words(kEntries);
    for (uint32_t i = 0; i < kEntries; ++i) words[i] = i < 512 ? random_entry(rng, 50) : 0;
    write_both(words);
    load_and_scramble(512, rng(), 100);
    Outcome p, b;
    {
        IoOverride<ssize_t(int, void *, size_t, off64_t)> faults(io_calls().pread64, failing_pread);
        p = clear(&plain_, false);
        b = clear(&batched_, true);
    }
    expect_same(p, b, "failing read");
    EXPECT_EQ(b.busy_bits + b.err_bits, 0u);
}

}  // namespace
