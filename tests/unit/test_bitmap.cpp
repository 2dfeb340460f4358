// Cluster bitmaps over a map cluster in a sparse image file: loading and classification, the
// three lists and their order, write-through of every put, clearing, and refusals.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
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

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr uint32_t kEntries = RECSTORE_CLUSTERS_PER_BLOCK;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;

class Bitmap : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/var/tmp/recstore-bitmap.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/map";
        ASSERT_TRUE(aging::make_image(path_, 2ull * kCluster));
        fd_ = open(path_.c_str(), O_RDWR | O_LARGEFILE);
        ASSERT_GE(fd_, 0);
        std::memset(&bm_, 0, sizeof(bm_));
    }
    void TearDown() override {
        bitmap_exit(&bm_);
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    void put_raw(uint32_t cluster, uint32_t index, uint32_t entry) {
        unsigned char raw[4];
        recstore::le32_store(raw, entry);
        ASSERT_EQ(pwrite64(fd_, raw, 4, static_cast<off64_t>(cluster) * kCluster + index * 4), 4);
    }
    std::vector<unsigned char> bytes_at(off64_t pos, size_t n) {
        std::vector<unsigned char> b(n);
        EXPECT_EQ(pread64(fd_, b.data(), n, pos), static_cast<ssize_t>(n));
        return b;
    }
    // Ids of a list from head to tail.
    static std::vector<uint32_t> ids_of(const bitmap_list &head) {
        std::vector<uint32_t> ids;
        for (const bitmap_list *p = head.next; p != &head; p = p->next) {
            ids.push_back(reinterpret_cast<const bitmap_node *>(p)->id);
        }
        return ids;
    }

    std::string dir_, path_;
    int fd_ = -1;
    cluster_bitmap bm_;
};

TEST_F(Bitmap, ZeroedClusterLoadsAllFreeInAscendingOrder) {
    ASSERT_EQ(bitmap_init(&bm_, kEntries, fd_, 0), 0);
    EXPECT_EQ(bitmap_free_bits(&bm_), kEntries);
    EXPECT_EQ(bitmap_busy_bits(&bm_), 0u);
    EXPECT_EQ(bitmap_err_bits(&bm_), 0u);
    const std::vector<uint32_t> ids = ids_of(bm_.free_list);
    ASSERT_EQ(ids.size(), kEntries);
    for (uint32_t i = 0; i < kEntries; ++i) ASSERT_EQ(ids[i], i);
    EXPECT_EQ(bitmap_free_test(&bm_), 0);
    EXPECT_EQ(bitmap_free_get(&bm_), 0);
    EXPECT_EQ(bitmap_free_get(&bm_), 1);
    EXPECT_EQ(bitmap_free_bits(&bm_), kEntries - 2);
}

TEST_F(Bitmap, LoadClassifiesByTopBits) {
    put_raw(0, 0, 0x00000007);  // free
    put_raw(0, 1, 0x80000011);  // busy
    put_raw(0, 2, 0xC0000022);  // error
    put_raw(0, 3, 0x40000005);  // 01: error, never written so
    ASSERT_EQ(bitmap_init(&bm_, 8, fd_, 0), 0);
    EXPECT_EQ(bitmap_busy_bits(&bm_), 1u);
    EXPECT_EQ(bitmap_err_bits(&bm_), 2u);
    EXPECT_EQ(bitmap_free_bits(&bm_), 5u);
    EXPECT_EQ(bitmap_is_err(&bm_, 3), 1);
    EXPECT_EQ(bitmap_is_free(&bm_, 3), 0);
    EXPECT_EQ(bitmap_is_busy(&bm_, 3), 0);
    EXPECT_EQ(bitmap_is_busy(&bm_, 1), 1);
    EXPECT_EQ(bitmap_is_err(&bm_, 2), 1);
    EXPECT_EQ(bitmap_val(&bm_, 3), 0x40000005u);
    EXPECT_EQ(ids_of(bm_.err_list), (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(ids_of(bm_.busy_list), (std::vector<uint32_t>{1}));
    EXPECT_EQ(bitmap_busy_test(&bm_), 1);
    EXPECT_EQ(bitmap_err_test(&bm_), 2);
}

TEST_F(Bitmap, BusyPutWritesLittleEndianWordAtItsOffset) {
    ASSERT_EQ(bitmap_init(&bm_, kEntries, fd_, 1), 0);
    ASSERT_EQ(bitmap_free_get(&bm_), 0);
    const int id = bitmap_free_get(&bm_);
    ASSERT_EQ(id, 1);
    ASSERT_EQ(bitmap_busy_put(&bm_, id, 0xC1234567u), 0);
    // (v & 0x3FFFFFFF) | 0x80000000 = 0x81234567, little-endian at byte 4 * id of cluster 1.
    EXPECT_EQ(bytes_at(kCluster + 4, 4), (std::vector<unsigned char>{0x67, 0x45, 0x23, 0x81}));
    EXPECT_EQ(bytes_at(kCluster, 4), (std::vector<unsigned char>{0, 0, 0, 0}));
    EXPECT_EQ(bitmap_val(&bm_, 1), 0x81234567u);
    EXPECT_EQ(bitmap_busy_test(&bm_), 1);
    EXPECT_EQ(bitmap_busy_bits(&bm_), 1u);

    ASSERT_EQ(bitmap_busy_del(&bm_, 1), 0);
    ASSERT_EQ(bitmap_err_put(&bm_, 1, 0x5), 0);
    EXPECT_EQ(bytes_at(kCluster + 4, 4), (std::vector<unsigned char>{0x05, 0, 0, 0xC0}));
    ASSERT_EQ(bitmap_err_del(&bm_, 1), 0);
    ASSERT_EQ(bitmap_free_put(&bm_, 1, 0xC0000005u), 0);
    EXPECT_EQ(bytes_at(kCluster + 4, 4), (std::vector<unsigned char>{0x05, 0, 0, 0}));
}

TEST_F(Bitmap, JustFreedEntryIsTakenNext) {
    ASSERT_EQ(bitmap_init(&bm_, 64, fd_, 0), 0);
    for (int i = 0; i < 5; ++i) {
        const int id = bitmap_free_get(&bm_);
        ASSERT_EQ(id, i);
        ASSERT_EQ(bitmap_busy_put(&bm_, id, 100), 0);
    }
    ASSERT_EQ(bitmap_busy_del(&bm_, 2), 0);
    ASSERT_EQ(bitmap_free_put(&bm_, 2, bitmap_val(&bm_, 2)), 0);
    EXPECT_EQ(bitmap_free_get(&bm_), 2);
    EXPECT_EQ(bitmap_free_get(&bm_), 5);
}

TEST_F(Bitmap, RepeatedPutPrintsAnUngatedLineAndSucceeds) {
    put_raw(0, 1, 0x80000009);
    put_raw(0, 2, 0xC0000003);
    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    ASSERT_EQ(bitmap_free_get(&bm_), 0);
    ASSERT_EQ(bitmap_busy_get(&bm_), 1);
    ASSERT_EQ(bitmap_err_get(&bm_), 2);
    LogMask quiet(0, 0);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_free_put(&bm_, 0, 0x12), 0);
    EXPECT_EQ(bitmap_busy_put(&bm_, 1, 0x13), 0);
    EXPECT_EQ(bitmap_err_put(&bm_, 2, 0x14), 0);
    EXPECT_EQ(cap.stop(),
              "bitmap_free_put id:0,val:0x0\n"
              "bitmap_busy_put id:1,val:0x80000009\n"
              "bitmap_err_put id:2,val:0xc0000003\n");
    EXPECT_EQ(bitmap_val(&bm_, 0), 0x12u);
    EXPECT_EQ(bitmap_val(&bm_, 1), 0x80000013u);
    EXPECT_EQ(bitmap_val(&bm_, 2), 0xC0000014u);
}

TEST_F(Bitmap, ClearFreesBusyAndErrorEntriesKeepingValues) {
    put_raw(0, 0, 0x80000111);
    put_raw(0, 5, 0xC0000222);
    put_raw(0, 6, 0x40000333);
    put_raw(0, 9, 0x80000444);
    ASSERT_EQ(bitmap_init(&bm_, 16, fd_, 0), 0);
    ASSERT_EQ(bitmap_clear(&bm_), 0);
    EXPECT_EQ(bitmap_busy_bits(&bm_), 0u);
    EXPECT_EQ(bitmap_err_bits(&bm_), 0u);
    EXPECT_EQ(bitmap_free_bits(&bm_), 16u);
    EXPECT_EQ(bitmap_is_busy_empty(&bm_), 1);
    EXPECT_EQ(bitmap_is_err_empty(&bm_), 1);
    EXPECT_EQ(ids_of(bm_.free_list).size(), 16u);
    EXPECT_EQ(aging::read_entry(path_.c_str(), 0, 0), 0x111u);
    EXPECT_EQ(aging::read_entry(path_.c_str(), 0, 5), 0x222u);
    EXPECT_EQ(aging::read_entry(path_.c_str(), 0, 6), 0x333u);
    EXPECT_EQ(aging::read_entry(path_.c_str(), 0, 9), 0x444u);
    // Reloading sees the same.
    bitmap_exit(&bm_);
    ASSERT_EQ(bitmap_init(&bm_, 16, fd_, 0), 0);
    EXPECT_EQ(bitmap_free_bits(&bm_), 16u);
}

TEST_F(Bitmap, ListDelPoisonsTheLinks) {
    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    ASSERT_EQ(bitmap_free_get(&bm_), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bm_.nodes[0].list.next), 0x100100u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bm_.nodes[0].list.prev), 0x200200u);
    ASSERT_EQ(bitmap_free_del(&bm_, 2), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bm_.nodes[2].list.next), 0x100100u);
    EXPECT_EQ(ids_of(bm_.free_list), (std::vector<uint32_t>{1, 3}));
    EXPECT_EQ(bitmap_free_bits(&bm_), 2u);
}

TEST_F(Bitmap, InitRefusesBadCounts) {
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_init(&bm_, 0, fd_, 0), -1);
    EXPECT_EQ(bitmap_init(&bm_, -1, fd_, 0), -1);
    EXPECT_EQ(bitmap_init(&bm_, 131073, fd_, 0), -1);
    EXPECT_EQ(bitmap_init(nullptr, 4, fd_, 0), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("]:\x1b[0mNULL ptr or count is :0\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0minvalid count:-1\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0minvalid count:131073\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\x1b[0;31m[bitmap.cpp:"), std::string::npos) << out;
    EXPECT_EQ(bm_.vals, nullptr);
    EXPECT_EQ(bm_.count, 0u);
}

TEST_F(Bitmap, ShortReadFailsAndReleasesEverything) {
    ASSERT_EQ(ftruncate64(fd_, 100), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_init(&bm_, 64, fd_, 0), -1);
    EXPECT_NE(cap.stop().find("read_cluster :100\n"), std::string::npos);
    EXPECT_EQ(bm_.vals, nullptr);
    EXPECT_EQ(bm_.nodes, nullptr);
    EXPECT_EQ(bm_.node_of, nullptr);
    EXPECT_EQ(bm_.count, 0u);
    EXPECT_EQ(bm_.free_bits, 0u);
    EXPECT_EQ(bitmap_free_get(&bm_), -1);
}

TEST_F(Bitmap, InfoLineAfterLoad) {
    put_raw(1, 0, 0x80000001);
    put_raw(1, 1, 0xC0000001);
    LogMask info(0x8);
    StdoutCapture cap;
    ASSERT_EQ(bitmap_init(&bm_, 10, fd_, 1), 0);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("\x1b[0;32m[bitmap.cpp:"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0mid:1, b:1,f:8,e:1\n"), std::string::npos) << out;
}

TEST_F(Bitmap, MissingArraysAndNodesAreRefused) {
    LogMask all(0xB);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_val(&bm_, 0), 0xFFFFFFFFu);
    EXPECT_EQ(bitmap_free_get(&bm_), -1);
    EXPECT_EQ(bitmap_busy_test(&bm_), -1);
    EXPECT_EQ(bitmap_free_put(&bm_, 0, 1), -1);
    EXPECT_EQ(bitmap_busy_del(&bm_, 0), -1);
    EXPECT_EQ(bitmap_clear(&bm_), -1);
    EXPECT_EQ(bitmap_is_free(&bm_, 0), 0);
    EXPECT_EQ(bitmap_is_free_empty(&bm_), 1);
    EXPECT_EQ(bitmap_free_bits(&bm_), 0u);
    EXPECT_EQ(bitmap_free_get(nullptr), -1);
    EXPECT_EQ(bitmap_is_busy_empty(nullptr), 1);
    EXPECT_EQ(bitmap_err_bits(nullptr), 0u);
    std::string out = cap.stop();
    EXPECT_NE(out.find("]:\x1b[0mnull ptr\n"), std::string::npos) << out;

    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    StdoutCapture cap2;
    EXPECT_EQ(bitmap_val(&bm_, 4), 0xFFFFFFFFu);
    EXPECT_EQ(bitmap_busy_put(&bm_, 7, 1), -1);
    EXPECT_EQ(bitmap_err_del(&bm_, 1000000), -1);
    EXPECT_EQ(bitmap_is_busy(&bm_, 4), 0);
    out = cap2.stop();
    EXPECT_NE(out.find("\x1b[1;33m[bitmap.cpp:"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0mpnode is null,id:4\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0mpnode is null,id:7\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0mpnode is null,id:1000000\n"), std::string::npos) << out;
    EXPECT_EQ(aging::read_entry(path_.c_str(), 1, 3), 0u);  // nothing written past the map
}

TEST_F(Bitmap, DeletingANodeThatIsOnNoListIsRefused) {
    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    ASSERT_EQ(bitmap_free_get(&bm_), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(bitmap_free_del(&bm_, 0), -1);
    EXPECT_EQ(bitmap_free_bits(&bm_), 3u);
    EXPECT_EQ(ids_of(bm_.free_list), (std::vector<uint32_t>{1, 2, 3}));
}

TEST_F(Bitmap, EmptinessTestsReportMismatchedCounts) {
    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    EXPECT_EQ(bitmap_is_free_empty(&bm_), 0);
    bm_.busy_bits = 5;
    bm_.err_bits = 6;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_is_busy_empty(&bm_), 1);
    EXPECT_EQ(bitmap_is_err_empty(&bm_), 1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("]:\x1b[0mfree bit:5\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]:\x1b[0muser bit:6\n"), std::string::npos) << out;
}

TEST_F(Bitmap, FailedWriteKeepsTheNewValueAndLeavesTheNodeOffTheLists) {
    const int ro = open(path_.c_str(), O_RDONLY | O_LARGEFILE);
    ASSERT_GE(ro, 0);
    ASSERT_EQ(bitmap_init(&bm_, 8, ro, 1), 0);
    ASSERT_EQ(bitmap_free_get(&bm_), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(bitmap_busy_put(&bm_, 0, 0x77), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("write_cluster fd :" + std::to_string(ro) + ",clusterid:1,offset:0\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(bitmap_val(&bm_, 0), 0x80000077u);
    EXPECT_EQ(bitmap_busy_bits(&bm_), 0u);
    EXPECT_EQ(bitmap_is_busy_empty(&bm_), 1);
    bitmap_exit(&bm_);
    close(ro);
}

TEST_F(Bitmap, GarbageLoadsWithConsistentCounts) {
    std::mt19937 rng(12345);
    std::vector<unsigned char> junk(4 * 4096);
    for (auto &b : junk) b = static_cast<unsigned char>(rng());
    ASSERT_EQ(pwrite64(fd_, junk.data(), junk.size(), 0), static_cast<ssize_t>(junk.size()));
    ASSERT_EQ(bitmap_init(&bm_, 4096, fd_, 0), 0);
    uint32_t free = 0, busy = 0, err = 0;
    for (uint32_t i = 0; i < 4096; ++i) {
        const uint32_t v = aging::read_entry(path_.c_str(), 0, i);
        ASSERT_EQ(bitmap_val(&bm_, i), v);
        const uint32_t top = v >> 30;
        if (top == 0)
            ++free;
        else if (top == 2)
            ++busy;
        else
            ++err;
    }
    EXPECT_EQ(bitmap_free_bits(&bm_), free);
    EXPECT_EQ(bitmap_busy_bits(&bm_), busy);
    EXPECT_EQ(bitmap_err_bits(&bm_), err);
    EXPECT_EQ(ids_of(bm_.free_list).size(), free);
    EXPECT_EQ(ids_of(bm_.busy_list).size(), busy);
    EXPECT_EQ(ids_of(bm_.err_list).size(), err);
    ASSERT_EQ(bitmap_clear(&bm_), 0);
    EXPECT_EQ(bitmap_free_bits(&bm_), 4096u);
}

TEST_F(Bitmap, NullNodeAtAListHeadAborts) {
    ASSERT_EQ(bitmap_init(&bm_, 4, fd_, 0), 0);
    bitmap_list saved = bm_.free_list;
    bm_.free_list.next = nullptr;
    EXPECT_EXIT(
        {
            dup2(2, 1);  // the assertion is printed on standard output
            bitmap_free_get(&bm_);
        },
        ::testing::KilledBySignal(SIGABRT),
        "assert expression: pnode != NULL,at file:bitmap.cpp,line:[0-9]+\nhalt\n");
    bm_.free_list = saved;
}

}  // namespace
