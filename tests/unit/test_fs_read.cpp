// Reading without disks: the refusals of the read, preload, key-frame and seek functions for
// handles outside the table, free slots, slots without an index and null pointers, and the
// preload switch with and without direct I/O.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "recstore.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr int kNoCache = 4;
constexpr int kDirectIo = 2;
constexpr unsigned kAllLevels = 0xB;
constexpr int kDisk = 2;  // opened in the table, nothing behind it
constexpr int kSlot = 5;  // a slot made to point at that disk without an index
constexpr size_t kPage = 4096;
constexpr uint32_t kClusterBytes = RECSTORE_CLUSTER_SIZE;

using recstore_test::contains;

template <typename Fn>
std::string printed(Fn fn) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fn();
    return out.stop();
}

const std::vector<int> kBadHandles = {-1, INT_MIN, RECSTORE_STREAMS, RECSTORE_STREAMS + 1, INT_MAX};

class FsRead : public ::testing::Test {
  protected:
    void start(int flags) {
        ASSERT_EQ(fs_init(0, 0, flags), 0);
        LogMask quiet(0, 0);
        ASSERT_EQ(fs_opendisk("/dev/hd/sdc"), kDisk);
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        fs_set_preload(kSlot, nullptr);
        g_file_ctx[kSlot].disk_id = -1;
        g_file_ctx[kSlot].preload_cluster = -1;
        fs_closedisk(kDisk);
        fs_exit();
    }
    // The slot's disk is open but the slot holds no index.
    void point_slot_at_disk() { g_file_ctx[kSlot].disk_id = kDisk; }

    std::vector<unsigned char> buf_ = std::vector<unsigned char>(kClusterBytes);
    uint32_t length_ = 0;
    uint32_t count_ = 0;
    uint32_t offset_ = 0;
    kframe frames_[RECSTORE_MAX_KFRAMES] = {};
};

TEST_F(FsRead, HandlesOutsideTheTableAreRefused) {
    start(kNoCache);
    for (int h : kBadHandles) {
        const std::string fd = "invalid fd :" + std::to_string(h);
        std::string text =
            printed([&] { EXPECT_EQ(fs_read(h, buf_.data(), &length_, frames_, &count_), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        text =
            printed([&] { EXPECT_EQ(fs_read_r(h, buf_.data(), &length_, frames_, &count_), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        for (auto fn : {fs_getcurkframe, fs_getnextkframe, fs_getprekframe}) {
            text = printed([&] { EXPECT_EQ(fn(h, buf_.data(), &offset_), -1); });
            EXPECT_TRUE(contains(text, fd)) << text;
        }
        text = printed([&] { EXPECT_EQ(fs_ltell(h, &offset_), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        text = printed([&] { EXPECT_EQ(fs_ttell(h, &offset_), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        text = printed([&] { EXPECT_EQ(fs_lseek(h, 0, SEEK_SET, &offset_), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        int32_t seq = 0;
        text = printed([&] { EXPECT_EQ(fs_tseek(h, 0, SEEK_SET, &seq), -1); });
        EXPECT_TRUE(contains(text, fd)) << text;
        // The preload functions: -1, "not a preload stream", the handle itself.
        int on = 1;
        EXPECT_EQ(fs_set_preload(h, &on), -1);
        EXPECT_EQ(fs_is_preload(h), 0);
        EXPECT_EQ(fs_preload(h), h);
        fs_reset_kframe_context(h);
    }
}

TEST_F(FsRead, AFreeSlotHasNoDisk) {
    start(kNoCache);
    std::string text =
        printed([&] { EXPECT_EQ(fs_read(kSlot, buf_.data(), &length_, frames_, &count_), -1); });
    EXPECT_TRUE(contains(text, "disk -1 not open")) << text;
    text = printed([&] { EXPECT_EQ(fs_getnextkframe(kSlot, buf_.data(), &offset_), -1); });
    EXPECT_TRUE(contains(text, "disk -1 not open")) << text;
    text = printed([&] { EXPECT_EQ(fs_preload(kSlot), -1); });
    EXPECT_TRUE(contains(text, "disk -1 not open")) << text;
    fs_reset_kframe_context(kSlot);
    EXPECT_EQ(g_file_ctx[kSlot].kf_count, 0u);
}

TEST_F(FsRead, ASlotWithoutIndexHasNotBeenOpened) {
    start(kNoCache);
    point_slot_at_disk();
    std::string text = printed([&] {
        EXPECT_EQ(fs_read(kSlot, buf_.data(), &length_, frames_, &count_), -1);
        EXPECT_EQ(fs_read_r(kSlot, buf_.data(), &length_, frames_, &count_), -1);
        EXPECT_EQ(fs_getcurkframe(kSlot, buf_.data(), &offset_), -1);
        EXPECT_EQ(fs_getprekframe(kSlot, buf_.data(), &offset_), -1);
        EXPECT_EQ(fs_ltell(kSlot, nullptr), -1);
        EXPECT_EQ(fs_ttell(kSlot, nullptr), -1);
        EXPECT_EQ(fs_lseek(kSlot, 0, SEEK_SET, nullptr), -1);
        int32_t seq = 0;
        EXPECT_EQ(fs_tseek(kSlot, 0, SEEK_SET, &seq), -1);
    });
    size_t seen = 0;
    for (size_t at = text.find("had not opened yet"); at != std::string::npos;
         at = text.find("had not opened yet", at + 1))
        seen++;
    EXPECT_EQ(seen, 8u) << text;
    // Without a buffer nothing is preloaded.
    EXPECT_EQ(fs_preload(kSlot), 0);
}

TEST_F(FsRead, SwitchingPreloadNeedsDirectIo) {
    start(kNoCache);
    point_slot_at_disk();
    int on = 1;
    const std::string text = printed([&] { EXPECT_EQ(fs_set_preload(kSlot, &on), -1); });
    EXPECT_TRUE(
        contains(text, "you must specific direct io in rec_init before you want use preload\n"))
        << text;
    EXPECT_EQ(fs_is_preload(kSlot), 0);
    EXPECT_EQ(g_file_ctx[kSlot].preload_buf, nullptr);
    // Disabling is always allowed.
    EXPECT_EQ(fs_set_preload(kSlot, nullptr), 0);
}

TEST_F(FsRead, PreloadBufferIsOnePageAlignedCluster) {
    start(kNoCache | kDirectIo);
    point_slot_at_disk();
    int on = 1;
    EXPECT_EQ(fs_set_preload(kSlot, &on), 0);
    EXPECT_EQ(fs_is_preload(kSlot), 1);
    uint8_t *buf = g_file_ctx[kSlot].preload_buf;
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buf) % kPage, 0u);
    EXPECT_EQ(g_file_ctx[kSlot].preload_loaded, -1);
    memset(buf, 0x5a, kClusterBytes);  // the whole cluster is ours (ASan checks the bound)
    // Enabling again keeps the same buffer.
    EXPECT_EQ(fs_set_preload(kSlot, &on), 0);
    EXPECT_EQ(g_file_ctx[kSlot].preload_buf, buf);
    // A preload without an index handle is refused with the stream's number.
    g_file_ctx[kSlot].preload_cluster = 300;
    std::string text = printed([&] { fs_preload(kSlot); });
    EXPECT_TRUE(contains(text, "fd:5 index handle err")) << text;
    // The last entry's "no next cluster" loads nothing and says nothing.
    g_file_ctx[kSlot].preload_cluster = -1;
    text = printed([&] { EXPECT_EQ(fs_preload(kSlot), 0); });
    EXPECT_EQ(text, "");
    EXPECT_EQ(g_file_ctx[kSlot].preload_loaded, -1);
    EXPECT_EQ(fs_set_preload(kSlot, nullptr), 0);
    EXPECT_EQ(fs_is_preload(kSlot), 0);
    EXPECT_EQ(g_file_ctx[kSlot].preload_buf, nullptr);
    EXPECT_EQ(g_file_ctx[kSlot].preload_loaded, -1);
}

}  // namespace
