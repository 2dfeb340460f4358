// SPDX-License-Identifier: MIT
// The data zone on a sparse 200 GiB image file standing in for partition 3 of disk 0: geometry,
// start-up check and repair, the choice of the current block, cluster allocation and freeing,
// whole-cluster I/O, the counters, refusals and fault handling.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "data_zone.h"
#include "fs_tools.h"
#include "recstore.h"
#include "test_util.h"

// Fault injection: every cluster transfer of the library is a positioned read or write of the
// I/O seam, which the DataZone tests replace. When armed, a read of the chosen cluster comes back
// short and a write to the chosen cluster fails with EIO.
namespace {

constexpr off64_t kClusterBytes = 524288;

int g_short_read_cluster = -1;
int g_fail_write_cluster = -1;
std::atomic<int> g_pread_calls{0};   // every positioned read of the library is counted
std::atomic<int> g_pwrite_calls{0};  // and every positioned write

ssize_t faulty_pread(int fd, void *buf, size_t n, off64_t pos) {
    ++g_pread_calls;
    if (pos / kClusterBytes == g_short_read_cluster && n > 1) n /= 2;
    return recstore::io_calls().pread64.real()(fd, buf, n, pos);
}

ssize_t faulty_pwrite(int fd, const void *buf, size_t n, off64_t pos) {
    ++g_pwrite_calls;
    if (pos / kClusterBytes == g_fail_write_cluster) {
        errno = EIO;
        return -1;
    }
    return recstore::io_calls().pwrite64.real()(fd, buf, n, pos);
}

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr uint64_t kGiB = 1ull << 30;
constexpr uint64_t kTiB = 1ull << 40;
constexpr int kCluster = RECSTORE_CLUSTER_SIZE;
constexpr int kPerBlock = RECSTORE_CLUSTERS_PER_BLOCK;
constexpr uint32_t kMagic16T = RECSTORE_MAGIC_V7;
constexpr uint32_t kMagic8T = RECSTORE_MAGIC_V6;
constexpr uint32_t kMagic4T = 0x12345678u;

using recstore_test::contains;

// Turns the library's event log on for a scope. The log file lives under /mnt/img, which must
// not exist outside the rig: the lines then reach standard output only.
class EventLog {
  public:
    EventLog() {
        if (access("/mnt/img", F_OK) == 0) {
            ADD_FAILURE() << "/mnt/img exists; refusing to write the real event log";
            return;
        }
        fs_log_init("/mnt/img/fs.log");
    }
    ~EventLog() { fs_log_exit(); }
};

class DataZone : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/var/tmp/recstore-dz.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        for (int d = 0; d < RECSTORE_MAX_DISKS; ++d) {
            g_dz_ctx[d].fd_rw = g_dz_ctx[d].fd_rd = g_dz_ctx[d].fd_wr = -1;
            g_dz_ctx[d].fd_rd_direct = 0;
        }
        std::snprintf(g_disk[0].devname, sizeof(g_disk[0].devname), "%s/sda", dir_.c_str());
        image_ = dir_ + "/sda3";
        saved_magic_ = g_magic[0];
        g_magic[0] = kMagic16T;
        g_fs_rdonly = 0;
        g_short_read_cluster = -1;
        g_fail_write_cluster = -1;
        ASSERT_TRUE(aging::make_image(image_, 200 * kGiB));
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        if (g_dz_ctx[0].fd_rw > 0) datazone_exit(0);
        g_fs_rdonly = 0;
        g_magic[0] = saved_magic_;
        g_short_read_cluster = -1;
        g_fail_write_cluster = -1;
        unlink(image_.c_str());
        rmdir(dir_.c_str());
        g_disk[0].devname[0] = '\0';
    }
    const char *img() const { return image_.c_str(); }
    int init(int directio = 0) {
        LogMask quiet(0, 0);
        return datazone_init(0, directio);
    }
    void restart() {
        LogMask quiet(0, 0);
        datazone_exit(0);
        ASSERT_EQ(datazone_init(0, 0), 0);
    }
    const datazone_info &info() const { return g_dz_ctx[0].info; }

    std::string dir_, image_;
    uint32_t saved_magic_ = 0;
    // The seam's positioned reads and writes go through the fault injectors above.
    recstore::IoOverride<ssize_t(int, void *, size_t, off64_t)> reads_{recstore::io_calls().pread64,
                                                                       faulty_pread};
    recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> writes_{
        recstore::io_calls().pwrite64, faulty_pwrite};
};

// ---------------------------------------------------------------------------------------------
// Geometry.

// Runs first (registration order): the records as the library was loaded.
TEST(DataZoneRecord, InitialContents) {
    for (int d = 0; d < RECSTORE_MAX_DISKS; ++d) {
        const datazone_ctx &z = g_dz_ctx[d];
        EXPECT_EQ(z.fd_rw, -1);
        EXPECT_EQ(z.fd_rd, -1);
        EXPECT_EQ(z.fd_rd_direct, 0);
        EXPECT_EQ(z.fd_wr, -1);
        EXPECT_EQ(z.cur_block, nullptr);
        EXPECT_EQ(z.block_map.vals, nullptr);
        EXPECT_EQ(z.info.block_count, 0u);
        EXPECT_EQ(z.busy_count + z.free_count + z.err_count, 0u);
    }
    LogMask quiet(0, 0);
    EXPECT_EQ(datazone_is_inited(3), 0);
    std::vector<unsigned char> buf(kCluster);
    EXPECT_EQ(datazone_read_direct(3, 300, buf.data()), -1);
}

TEST(DataZoneGeometry, ReservedSlotsFollowTheLargestSupportedDisk) {
    recstore::DzGeometry g{};
    ASSERT_TRUE(recstore::dz_compute_geometry(200 * kGiB, 16 * kTiB, &g));
    EXPECT_EQ(g.reserved, 256u);
    EXPECT_EQ(g.cluster_count, 409600u);
    EXPECT_EQ(g.data_start, 257u);
    EXPECT_EQ(g.block_count, (409600u - 257u) >> 17);
    EXPECT_EQ(g.data_count, g.block_count << 17);
    ASSERT_TRUE(recstore::dz_compute_geometry(200 * kGiB, 8 * kTiB, &g));
    EXPECT_EQ(g.reserved, 128u);
    EXPECT_EQ(g.data_start, 129u);
    ASSERT_TRUE(recstore::dz_compute_geometry(200 * kGiB, 4 * kTiB, &g));
    EXPECT_EQ(g.reserved, 64u);
    EXPECT_EQ(g.data_start, 65u);
}

TEST(DataZoneGeometry, FourTerabyteClassDisk) {
    recstore::DzGeometry g{};
    ASSERT_TRUE(recstore::dz_compute_geometry(4 * kTiB, 4 * kTiB, &g));
    EXPECT_EQ(g.data_start, 65u);
    EXPECT_EQ(g.block_count, (8388608u - 65u) >> 17);
    EXPECT_EQ(g.block_count, 63u);
}

TEST(DataZoneGeometry, TooFewClustersForABlockGiveNoBlock) {
    recstore::DzGeometry g{};
    const uint64_t bytes = (1ull + 256 + kPerBlock - 1) << 19;
    ASSERT_TRUE(recstore::dz_compute_geometry(bytes, 16 * kTiB, &g));
    EXPECT_EQ(g.block_count, 0u);
    EXPECT_EQ(g.data_count, 0u);
    ASSERT_TRUE(recstore::dz_compute_geometry(bytes + (1u << 19), 16 * kTiB, &g));
    EXPECT_EQ(g.block_count, 1u);
}

TEST(DataZoneGeometry, PartitionSmallerThanTheMapsIsRefusedBeforeWrapping) {
    LogMask errors(0x1);
    StdoutCapture cap;
    recstore::DzGeometry g{};
    g.block_count = 12345;
    EXPECT_FALSE(recstore::dz_compute_geometry(256ull << 19, 16 * kTiB, &g));
    EXPECT_FALSE(recstore::dz_compute_geometry(0, 16 * kTiB, &g));
    EXPECT_EQ(g.block_count, 12345u);  // untouched
    EXPECT_TRUE(
        contains(cap.stop(), "data partition too small: 256 clusters, at least 257 needed\n"));
    EXPECT_TRUE(recstore::dz_compute_geometry(257ull << 19, 16 * kTiB, &g));
    EXPECT_EQ(g.block_count, 0u);
}

TEST(DataZoneGeometry, LargerPartitionThanSupportedUsesAtMostTheReservedSlots) {
    LogMask quiet(0, 0);
    recstore::DzGeometry g{};
    ASSERT_TRUE(recstore::dz_compute_geometry(5 * kTiB, 4 * kTiB, &g));
    EXPECT_EQ(g.block_count, 64u);  // block maps 1..64 stay below data_start 65
    EXPECT_EQ(g.data_start, 65u);
}

TEST(DataZoneGeometry, GeometryForEachFormatOfAPartition) {
    const struct {
        uint32_t magic;
        uint32_t data_start;
    } cases[] = {{RECSTORE_MAGIC_V7, 257},
                 {RECSTORE_MAGIC_V6, 129},
                 {RECSTORE_MAGIC_V5, 65},
                 {RECSTORE_MAGIC_V1, 65}};
    for (const auto &c : cases) {
        datazone_info out;
        std::memset(&out, 0xAB, sizeof out);
        ASSERT_EQ(datazone_geometry_for(c.magic, 200 * kGiB, &out), 0) << std::hex << c.magic;
        EXPECT_STREQ(out.name, "");
        EXPECT_EQ(out.totalsize, 200 * kGiB);
        EXPECT_EQ(out.freesize, 0u);
        EXPECT_EQ(out.cluster_size, 524288u);
        EXPECT_EQ(out.cluster_perblock, 131072u);
        EXPECT_EQ(out.cluster_start, 0u);
        EXPECT_EQ(out.cluster_count, 409600u);
        EXPECT_EQ(out.bm_start, 0u);
        EXPECT_EQ(out.bm_count, 1u);
        EXPECT_EQ(out.block_start, 1u);
        EXPECT_EQ(out.data_start, c.data_start);
        EXPECT_EQ(out.block_count, (409600u - c.data_start) >> 17);
        EXPECT_EQ(out.data_count, out.block_count << 17);
    }
}

TEST(DataZoneGeometry, GeometryForRefusesUnknownMagicNullOutputAndSmallPartitions) {
    LogMask errors(0x1);
    StdoutCapture cap;
    datazone_info out;
    std::memset(&out, 0, sizeof out);
    out.block_count = 12345;
    EXPECT_EQ(datazone_geometry_for(0, 200 * kGiB, &out), -1);
    EXPECT_EQ(datazone_geometry_for(0x12345678u, 200 * kGiB, &out), -1);
    EXPECT_EQ(datazone_geometry_for(RECSTORE_MAGIC_V7, 200 * kGiB, nullptr), -1);
    EXPECT_EQ(datazone_geometry_for(RECSTORE_MAGIC_V7, 256ull << 19, &out), -1);
    EXPECT_EQ(out.block_count, 12345u);  // untouched
    const std::string text = cap.stop();
    EXPECT_TRUE(contains(text, "unknown magic:12345678\n")) << text;
    EXPECT_TRUE(contains(text, "data partition too small: 256 clusters, at least 257 needed\n"))
        << text;
}

TEST_F(DataZone, GeometryForTheDiskMagicIsThatOfTheStartedZone) {
    for (uint32_t magic : {kMagic16T, kMagic8T, RECSTORE_MAGIC_V5}) {
        g_magic[0] = magic;
        ASSERT_EQ(init(), 0);
        datazone_info expected = info();
        std::memset(expected.name, 0, sizeof expected.name);
        expected.freesize = 0;
        datazone_info out;
        std::memset(&out, 0xAB, sizeof out);
        ASSERT_EQ(datazone_geometry_for(magic, 200 * kGiB, &out), 0);
        EXPECT_EQ(std::memcmp(&out, &expected, sizeof out), 0) << std::hex << magic;
        LogMask quiet(0, 0);
        datazone_exit(0);
    }
}

TEST_F(DataZone, InitLaysOutTheZoneByTheDiskMagic) {
    const struct {
        uint32_t magic;
        uint32_t data_start;
    } cases[] = {{kMagic16T, 257}, {kMagic8T, 129}, {kMagic4T, 65}};
    for (const auto &c : cases) {
        g_magic[0] = c.magic;
        ASSERT_EQ(init(), 0);
        EXPECT_EQ(info().data_start, c.data_start);
        EXPECT_EQ(info().block_count, (409600u - c.data_start) >> 17);
        EXPECT_EQ(info().data_count, info().block_count << 17);
        EXPECT_EQ(info().cluster_count, 409600u);
        EXPECT_EQ(info().cluster_size, 524288u);
        EXPECT_EQ(info().cluster_perblock, 131072u);
        EXPECT_EQ(info().bm_start, 0u);
        EXPECT_EQ(info().bm_count, 1u);
        EXPECT_EQ(info().block_start, 1u);
        EXPECT_EQ(info().totalsize, 200 * kGiB);
        EXPECT_STREQ(info().name, img());
        LogMask quiet(0, 0);
        datazone_exit(0);
    }
}

TEST_F(DataZone, InitLogsTheGeometryToTheEventLog) {
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    ASSERT_EQ(datazone_init(0, 0), 0);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]diskid:0 name:" + image_ +
                                  " totalsize:214748364800 cluster size:524288 cluster "
                                  "perblock:131072 fs_rdonly:0\n"))
        << out;
    EXPECT_TRUE(contains(out,
                         "]bm_start:0 bm_count:1 block_start:1 block_count:3 data_start:257 "
                         "data_count:393216\n"))
        << out;
    EXPECT_TRUE(contains(out, "]block:1 free:1 busy:0 val:0x0\n")) << out;
    EXPECT_TRUE(contains(out, "]disk:0 block:3 val:0x0 [b:0 f:131072 e:0] full free\n")) << out;
    EXPECT_TRUE(contains(out, "]total busycount:0,freecount:393216, errcount:0\n")) << out;
}

TEST_F(DataZone, PartitionWithoutAWholeBlockFailsToStart) {
    ASSERT_TRUE(aging::make_image(image_, (1ull + 256 + kPerBlock - 1) << 19));
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "NULL ptr or count is :0\n")) << out;
    EXPECT_TRUE(contains(out, "bitmap_init err\n")) << out;
    EXPECT_EQ(g_dz_ctx[0].fd_rw, -1);
    EXPECT_EQ(g_dz_ctx[0].fd_rd, -1);
    EXPECT_EQ(g_dz_ctx[0].fd_wr, -1);
}

TEST_F(DataZone, PartitionSmallerThanTheMapsIsRefused) {
    ASSERT_TRUE(aging::make_image(image_, 100ull << 19));
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "data partition too small: 100 clusters, at least 257 needed\n"))
        << out;
    EXPECT_EQ(g_dz_ctx[0].fd_rw, -1);
    EXPECT_EQ(g_dz_ctx[0].block_map.vals, nullptr);
    EXPECT_EQ(datazone_clear(0), -1);
}

TEST_F(DataZone, MissingPartitionIsNotInitialised) {
    unlink(img());
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), -1);
    EXPECT_TRUE(contains(cap.stop(), "not initialized:0 -1 -1 -1\n"));
    EXPECT_EQ(datazone_is_inited(0), 0);
    ASSERT_TRUE(aging::make_image(image_, 200 * kGiB));  // for TearDown
}

TEST_F(DataZone, SecondInitSaysAlreadyInitialised) {
    ASSERT_EQ(init(), 0);
    LogMask info(0x8);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), 0);
    EXPECT_TRUE(contains(cap.stop(), "]:\x1b[0mhad already initialized id:0\n"));
}

TEST_F(DataZone, ExitZeroesTheRecordAndInitWorksAgain) {
    ASSERT_EQ(init(), 0);
    {
        LogMask quiet(0, 0);
        datazone_exit(0);
    }
    EXPECT_EQ(g_dz_ctx[0].fd_rw, 0);
    EXPECT_EQ(g_dz_ctx[0].fd_wr, 0);
    EXPECT_EQ(g_dz_ctx[0].info.block_count, 0u);
    EXPECT_EQ(g_dz_ctx[0].block_map.vals, nullptr);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(info().block_count, 3u);
}

// ---------------------------------------------------------------------------------------------
// Blocks.

TEST_F(DataZone, FreshDiskStartsWithTheFirstBlock) {
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(datazone_free_count(0), 3 * kPerBlock);
    EXPECT_EQ(datazone_busy_count(0), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(block_current(0), 1);
    uint32_t seq = 12345;
    EXPECT_EQ(block_earliest(0, &seq), -1);
    EXPECT_EQ(seq, 12345u);
}

TEST_F(DataZone, BlockAllocStampsTheBlockBusyWithTheClock) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    const uint32_t before = static_cast<uint32_t>(time(nullptr)) >> 2;
    ASSERT_EQ(block_alloc(0), 1);
    const uint32_t after = static_cast<uint32_t>(time(nullptr)) >> 2;
    const uint32_t entry = aging::read_entry(img(), 0, 0);
    EXPECT_EQ(entry >> aging::kStateShift, 2u);
    EXPECT_GE(entry & aging::kValueMask, before);
    EXPECT_LE(entry & aging::kValueMask, after);
    EXPECT_EQ(g_dz_ctx[0].cur_block->seq, entry & aging::kValueMask);
    EXPECT_EQ(block_get_current(0), 1);
    EXPECT_EQ(block_val(0, 1), entry);
    EXPECT_EQ(block_val(0, 4), 0xFFFFFFFFu);
    EXPECT_EQ(block_val(0, 0), 0xFFFFFFFFu);
    // A loaded current block is kept.
    LogMask info(0x8);
    StdoutCapture cap;
    EXPECT_EQ(block_alloc(0), 1);
    EXPECT_TRUE(contains(cap.stop(), "must unload block before load a new block\n"));
}

TEST_F(DataZone, BlockAllocWritesItsEventLines) {
    ASSERT_EQ(init(), 0);
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    ASSERT_EQ(block_alloc(0), 1);
    const std::string out = cap.stop();
    char line[128];
    std::snprintf(line, sizeof(line), "]put diskid:0 blockid 1 to busy,seq:%x\n",
                  g_dz_ctx[0].cur_block->seq);
    EXPECT_TRUE(contains(out, "]find first free block[0 1]\n")) << out;
    EXPECT_TRUE(contains(out, line)) << out;
    std::snprintf(line, sizeof(line), "]load disk:0 block:1 b:0 f:131072 e:0 seq:%x ok\n",
                  g_dz_ctx[0].cur_block->seq);
    EXPECT_TRUE(contains(out, line)) << out;
}

TEST_F(DataZone, AllocationInAFreshBlockIsAscending) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int start = static_cast<int>(info().data_start);
    EXPECT_EQ(datazone_alloc(0), start);
    EXPECT_EQ(datazone_alloc(0), start + 1);
    EXPECT_EQ(datazone_alloc(0), start + 2);
    EXPECT_EQ(datazone_busy_count(0), 3);
    EXPECT_EQ(datazone_free_count(0), 3 * kPerBlock - 3);
    for (uint32_t k = 0; k < 3; ++k)
        EXPECT_EQ(aging::read_entry(img(), 1, k) >> aging::kStateShift, 2u);
    EXPECT_EQ(aging::read_entry(img(), 1, 3), 0u);
    EXPECT_EQ(datazone_val(0, start + 1) >> aging::kStateShift, 2u);
    EXPECT_EQ(datazone_val(0, start + 3), 0u);
}

TEST_F(DataZone, FreedClusterIsAllocatedAgainFirst) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int start = static_cast<int>(info().data_start);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(datazone_alloc(0), start + i);
    const uint32_t stamped = datazone_val(0, start + 2);
    ASSERT_EQ(datazone_free(0, start + 2), 0);
    EXPECT_EQ(datazone_busy_count(0), 3);
    EXPECT_EQ(aging::read_entry(img(), 1, 2), stamped & aging::kValueMask);  // free, value kept
    EXPECT_EQ(datazone_alloc(0), start + 2);
    EXPECT_EQ(datazone_alloc(0), start + 4);
    // Freeing twice is refused; the lists stay whole.
    ASSERT_EQ(datazone_free(0, start + 4), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_free(0, start + 4), -1);
    EXPECT_TRUE(contains(cap.stop(), "already freed:" + std::to_string(start + 4) + "\n"));
    EXPECT_EQ(datazone_alloc(0), start + 4);
    EXPECT_EQ(datazone_alloc(0), start + 5);
}

TEST_F(DataZone, FreeAndValRefuseClustersOutsideTheCurrentBlock) {
    ASSERT_EQ(init(), 0);
    const int start = static_cast<int>(info().data_start);
    LogMask errors(0x1);
    {
        StdoutCapture cap;
        EXPECT_EQ(datazone_free(0, start), -1);
        EXPECT_EQ(datazone_val(0, start), 0xFFFFFFFFu);
        EXPECT_TRUE(contains(cap.stop(), "cur block is not loaded\n"));
    }
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(block_alloc(0), 1);
    }
    StdoutCapture cap;
    EXPECT_EQ(datazone_free(0, start - 1), -1);
    EXPECT_EQ(datazone_free(0, start + kPerBlock), -1);
    EXPECT_EQ(datazone_val(0, -5), 0xFFFFFFFFu);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "ivalid clusterid:" + std::to_string(start - 1) + "\n")) << out;
    EXPECT_TRUE(contains(out, "ivalid clusterid:" + std::to_string(start + kPerBlock) + "\n"))
        << out;
    EXPECT_TRUE(contains(out, "ivalid clusterid:-5\n")) << out;
}

TEST_F(DataZone, StopAndStartResumesThePartlyUsedBlock) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 1000));  // block 1 full
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 2);
    const int start2 = static_cast<int>(info().data_start + kPerBlock);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(datazone_alloc(0), start2 + i);
    EXPECT_EQ(aging::read_entry(img(), 0, 1) >> aging::kStateShift,
              2u);  // block 2 busy while current

    EventLog log;
    StdoutCapture cap;
    restart();
    const std::string out = cap.stop();
    const uint32_t entry2 = aging::read_entry(img(), 0, 1);
    EXPECT_EQ(entry2 >> aging::kStateShift, 0u);  // partly used: free again, sequence kept
    EXPECT_NE(entry2 & aging::kValueMask, 0u);
    char line[128];
    std::snprintf(line, sizeof(line), "]chk err diskid:0 blockid:2 val:%x busy=>free...\n",
                  entry2 | 0x80000000u);
    EXPECT_TRUE(contains(out, line)) << out;
    EXPECT_TRUE(contains(out, "]fixed\n")) << out;
    EXPECT_EQ(aging::read_entry(img(), 0, 0), aging::busy_entry(1000u));  // full block stays busy
    EXPECT_EQ(datazone_busy_count(0), kPerBlock + 3);

    EXPECT_EQ(block_current(0), 2);
    ASSERT_EQ(block_alloc(0), 2);
    EXPECT_EQ(datazone_alloc(0), start2 + 3);
}

TEST_F(DataZone, LaterOfTwoPartlyUsedBlocksIsResumed) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 100, 1000));
    ASSERT_TRUE(aging::fill_block(img(), 3, 100, 2000));
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 1000u);
    EXPECT_EQ(aging::read_entry(img(), 0, 2), 2000u);
    EXPECT_EQ(block_current(0), 3);
    uint32_t seq = 0;
    EXPECT_EQ(block_earliest(0, &seq), 1);
    EXPECT_EQ(seq, 1000u);
    ASSERT_EQ(block_alloc(0), 3);
    EXPECT_EQ(datazone_alloc(0),
              static_cast<int>(info().data_start + 2 * kPerBlock + kPerBlock - 100));
    // The current block is left out of the earliest search.
    EXPECT_EQ(block_earliest(0, &seq), 1);
}

TEST_F(DataZone, FullBlockMarkedFreeOrInErrorIsTurnedBusy) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 500));
    ASSERT_TRUE(aging::set_block_entry(img(), 1, aging::free_entry(500)));
    ASSERT_TRUE(aging::fill_block(img(), 2, 0, 600));
    ASSERT_TRUE(aging::set_block_entry(img(), 2, aging::err_entry(600)));
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    ASSERT_EQ(datazone_init(0, 0), 0);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]chk err diskid:0 blockid:1 val:1f4 free=>busy...\n")) << out;
    EXPECT_TRUE(contains(out, "]chk err diskid:0 blockid:2 val:c0000258 err=>busy...\n")) << out;
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0x800001F4u);
    EXPECT_EQ(aging::read_entry(img(), 0, 1), 0x80000258u);
    EXPECT_EQ(bitmap_busy_bits(&g_dz_ctx[0].block_map), 2u);
    EXPECT_EQ(bitmap_free_bits(&g_dz_ctx[0].block_map), 1u);
    EXPECT_EQ(bitmap_err_bits(&g_dz_ctx[0].block_map), 0u);
}

TEST_F(DataZone, CheckWithoutFixingOnlyReports) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 10, 500));  // partly used, entry busy
    ASSERT_EQ(init(), 0);                               // the start-up check fixes it
    ASSERT_TRUE(aging::set_block_entry(img(), 1, aging::busy_entry(500)));
    restart();
    ASSERT_TRUE(aging::set_block_entry(img(), 1, aging::busy_entry(500)));
    // The in-memory block map says free now; make it say busy again through the bitmap.
    cluster_bitmap *bm = &g_dz_ctx[0].block_map;
    ASSERT_EQ(bitmap_free_del(bm, 0), 0);
    ASSERT_EQ(bitmap_busy_put(bm, 0, 500), 0);
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    EXPECT_EQ(datazone_chk(0, 0), 0);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]chk err diskid:0 blockid:1 val:800001f4 busy=>free...\n")) << out;
    EXPECT_FALSE(contains(out, "fixed")) << out;
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0x800001F4u);
    EXPECT_EQ(datazone_chk(0, 1), 0);
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0x1F4u);
}

TEST_F(DataZone, UnsetClockSequenceIsReported) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 200));  // stamped by a clock near 0
    ASSERT_TRUE(aging::set_cluster_entry(img(), 1, 5, aging::busy_entry(400)));
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    ASSERT_EQ(datazone_init(0, 0), 0);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]chk diskid:0 blockid:1 i:5 val:800000c8 => 0...\n")) << out;
    EXPECT_EQ(aging::read_entry(img(), 1, 5), 0x80000190u);  // nothing changed
}

TEST_F(DataZone, BlockBeforeListsOlderBlocksInAscendingOrder) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 2000));
    ASSERT_TRUE(aging::fill_block(img(), 2, 0, 1000));
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    block_entry out[4];
    EXPECT_EQ(block_before(0, 4000, out, 4), 0);  // not greater than any sequence * 4
    ASSERT_EQ(block_before(0, 4001, out, 4), 1);
    EXPECT_EQ(out[0].block_id, 2u);
    ASSERT_EQ(block_before(0, 1000000, out, 4), 2);
    EXPECT_EQ(out[0].block_id, 2u);
    EXPECT_EQ(out[0].seq, 1000u);
    EXPECT_EQ(out[1].block_id, 1u);
    EXPECT_EQ(out[1].disk, 0u);
    EXPECT_EQ(block_before(0, 1000000, out, 1), 1);
    EXPECT_EQ(out[0].block_id, 2u);
    uint32_t seq = 0;
    EXPECT_EQ(block_earliest(0, &seq), 2);
    EXPECT_EQ(seq, 1000u);
}

TEST_F(DataZone, BlockUltimateWritesItsEventLines) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 0x2000));
    ASSERT_TRUE(aging::fill_block(img(), 2, 0, 0x1000));
    ASSERT_EQ(init(), 0);
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    block_entry out[2];
    ASSERT_EQ(block_ultimate(0, block_filter_not_allfree_and_not_current, nullptr, 1, out, 2), 2);
    const std::string out_text = cap.stop();
    EXPECT_TRUE(contains(out_text, "]find latest disk:0 block:1 time:2000 count:2\n")) << out_text;
    EXPECT_TRUE(contains(out_text, "]->disk:0 block:1 time:2000\n")) << out_text;
    EXPECT_TRUE(contains(out_text, "]->disk:0 block:2 time:1000\n")) << out_text;
}

TEST_F(DataZone, BlockClearOfABusyBlock) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 777));
    ASSERT_TRUE(aging::set_cluster_entry(img(), 1, 9, aging::err_entry(5)));
    ASSERT_EQ(init(), 0);
    const int free_before = datazone_free_count(0);
    const int busy_before = datazone_busy_count(0);
    EXPECT_EQ(busy_before, 131071);
    EXPECT_EQ(g_dz_ctx[0].err_count, 1u);
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    block_clear(0, 1);
    const std::string out = cap.stop();
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 777u);  // free, old sequence kept
    EXPECT_EQ(datazone_free_count(0), free_before + kPerBlock);
    EXPECT_EQ(datazone_busy_count(0), 0);
    EXPECT_EQ(g_dz_ctx[0].err_count, 0u);
    EXPECT_EQ(aging::read_entry(img(), 1, 0), 777u);
    EXPECT_EQ(aging::read_entry(img(), 1, 9), 5u);
    EXPECT_TRUE(contains(out,
                         "]bitmap_clear disk:0 block:1 e:1=>0 b:131071=>0 f:0=>131072 "
                         "[e:1=>0 b:131071=>0 f:262144=>393216]\n"))
        << out;
    EXPECT_TRUE(contains(out, "]block_clear disk:0 block:1 busy val:0x80000309 b:0 f:3 e:0\n"))
        << out;
    // Its sequence survives, so it still counts as taken before a later time.
    block_entry list[3];
    EXPECT_EQ(block_before(0, 777 * 4 + 1, list, 3), 1);
    EXPECT_EQ(block_current(0), 1);  // free and empty: the first free block
}

// A block whose entry is in error, and one whose entry is free but whose clusters are partly used,
// are both cleared: the entry ends free with its value, and each case has its event line.
TEST_F(DataZone, BlockClearOfBlocksInErrorOrFree) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 100, 300));
    ASSERT_TRUE(aging::set_block_entry(img(), 1, aging::err_entry(300)));  // stays in error
    ASSERT_TRUE(aging::fill_block(img(), 2, 100, 400));  // turned free by the start-up check
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(aging::read_entry(img(), 0, 0), 0xC000012Cu);
    ASSERT_EQ(aging::read_entry(img(), 0, 1), 0x190u);
    EXPECT_EQ(datazone_busy_count(0), 2 * 130972);
    EventLog log;
    LogMask info(0x8);
    StdoutCapture cap;
    block_clear(0, 1);
    block_clear(0, 2);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]block_clear disk:0 block:1 err val:0xc000012c b:0 f:3 e:0\n"))
        << out;
    // Putting the free entry free again says so, unprefixed, and goes on.
    EXPECT_TRUE(contains(out, "\nbitmap_free_put id:1,val:0x190\n")) << out;
    EXPECT_TRUE(contains(out, "]block_clear disk:0 block:2 free val:0x190 b:0 f:3 e:0\n")) << out;
    EXPECT_TRUE(contains(out,
                         "]bitmap_clear disk:0 block:2 e:0=>0 b:130972=>0 f:100=>131072 "
                         "[e:0=>0 b:130972=>0 f:262244=>393216]\n"))
        << out;
    EXPECT_TRUE(contains(out, "]:\x1b[0munload:2 start:131329 count:131072\n")) << out;
    EXPECT_FALSE(contains(out, "fatal error")) << out;
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0x12Cu);
    EXPECT_EQ(aging::read_entry(img(), 0, 1), 0x190u);
    EXPECT_EQ(aging::read_entry(img(), 1, 0), 300u);
    EXPECT_EQ(datazone_free_count(0), 3 * kPerBlock);
    EXPECT_EQ(bitmap_free_bits(&g_dz_ctx[0].block_map), 3u);
    EXPECT_EQ(bitmap_err_bits(&g_dz_ctx[0].block_map), 0u);
}

// Counters that disagree with the maps (less than one block free after a clear) are reported
// unprefixed whatever the masks, with a dump of every block to the event log.
TEST_F(DataZone, BlockClearReportsLessThanABlockFree) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 100, 300));
    ASSERT_EQ(init(), 0);
    g_dz_ctx[0].free_count = 0;
    EventLog log;
    LogMask quiet(0, 0);
    StdoutCapture cap;
    block_clear(0, 1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "\nfatal error disk:0 free count:130972\n")) << out;
    EXPECT_TRUE(contains(out, "]disk:0 block:1 val:0x12c [b:0 f:131072 e:0] full free\n")) << out;
    EXPECT_TRUE(contains(out, "]disk:0 block:2 val:0x0 [b:0 f:131072 e:0] full free\n")) << out;
    EXPECT_TRUE(contains(out, "]disk:0 block:3 val:0x0 [b:0 f:131072 e:0] full free\n")) << out;
    EXPECT_EQ(datazone_free_count(0), 130972);
}

// The earliest search traces each candidate and logs what it found.
TEST_F(DataZone, BlockEarliestWritesItsEventLines) {
    ASSERT_TRUE(aging::fill_block(img(), 2, 0, 0x300));
    ASSERT_TRUE(aging::fill_block(img(), 3, 0, 0x200));
    ASSERT_EQ(init(), 0);
    EventLog log;
    LogMask info(0x8);
    StdoutCapture cap;
    uint32_t seq = 0;
    ASSERT_EQ(block_earliest(0, &seq), 3);
    EXPECT_EQ(seq, 0x200u);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]:\x1b[0mseq:0 diskid:0,id:1,time:c00\n")) << out;
    EXPECT_TRUE(contains(out, "]:\x1b[0mseq:1 diskid:0,id:2,time:800\n")) << out;
    EXPECT_TRUE(contains(out, "]find earliest disk:0 block:3 time:200 count:1\n")) << out;
    EXPECT_TRUE(contains(out, "]->disk:0 block:3 time:200\n")) << out;
    EXPECT_FALSE(contains(out, "->disk:0 block:2")) << out;
}

TEST_F(DataZone, BlockClearRefusesTheCurrentBlock) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    ASSERT_EQ(datazone_alloc(0), 257);
    LogMask errors(0x1);
    StdoutCapture cap;
    block_clear(0, 1);
    EXPECT_TRUE(contains(cap.stop(), "block_clear current block:1\n"));
    EXPECT_EQ(aging::read_entry(img(), 1, 0) >> aging::kStateShift, 2u);
}

TEST_F(DataZone, FullCurrentBlockMovesToTheNextBlock) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 2, 1000));
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int start = static_cast<int>(info().data_start);
    EXPECT_EQ(datazone_alloc(0), start + 131070);
    EXPECT_EQ(datazone_alloc(0), start + 131071);
    EXPECT_EQ(block_is_free_empty(0), 1);
    EXPECT_EQ(datazone_is_free_empty(0), 0);  // other blocks are free
    {
        LogMask errors(0x1);
        StdoutCapture cap;
        EXPECT_EQ(datazone_alloc(0), -1);
        EXPECT_TRUE(contains(cap.stop(), "cur block is full\n"));
    }
    ASSERT_EQ(block_free(0), 0);
    ASSERT_EQ(datazone_sync_bm(0), 0);
    EXPECT_EQ(block_alloc(0), 2);
    EXPECT_EQ(datazone_alloc(0), start + kPerBlock);
}

TEST_F(DataZone, NoCurrentBlockMessages) {
    ASSERT_EQ(init(), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(block_get_current(0), -1);
    EXPECT_EQ(block_is_free_empty(0), 1);
    EXPECT_EQ(block_is_busy_empty(0), 1);
    EXPECT_EQ(block_free(0), -1);
    EXPECT_EQ(datazone_alloc(0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cur block is not load\n")) << out;
    EXPECT_TRUE(contains(out, "not loaded:0\n")) << out;
    EXPECT_TRUE(contains(out, "block is not loaded\n")) << out;
}

TEST_F(DataZone, AllBlocksFullMeansNoBlock) {
    for (uint32_t b = 1; b <= 3; ++b) ASSERT_TRUE(aging::fill_block(img(), b, 0, 100 * b));
    ASSERT_EQ(init(), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(block_current(0), -1);
    EXPECT_EQ(block_alloc(0), -1);
    EXPECT_TRUE(contains(cap.stop(), "block is full\n"));
    EXPECT_EQ(datazone_is_free_empty(0), 1);
    EXPECT_EQ(datazone_is_full_prepare(0, 0), 1);
    uint32_t seq = 0;
    LogMask quiet(0, 0);
    EXPECT_EQ(block_earliest(0, &seq), 1);
    EXPECT_EQ(seq, 100u);
}

TEST_F(DataZone, BlockIdsOutsideTheZoneAreRefused) {
    ASSERT_EQ(init(), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(block_load(0, 0), nullptr);  // the block map itself
    EXPECT_EQ(block_load(0, 4), nullptr);  // a reserved slot
    EXPECT_EQ(block_load(0, 0xFFFFFFFFu), nullptr);
    block_clear(0, 300);
    block_unload(nullptr);
    do_block_chk(nullptr, 1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "invalid block id:0\n")) << out;
    EXPECT_TRUE(contains(out, "invalid block id:4\n")) << out;
    EXPECT_TRUE(contains(out, "load block :300 err\n")) << out;
    EXPECT_TRUE(contains(out, "NULL ptr\n")) << out;
    EXPECT_EQ(aging::read_entry(img(), 4, 0), 0u);
    EXPECT_EQ(datazone_free_count(0), 3 * kPerBlock);
}

TEST(BlockList, EarliestAndLatestSkipEmptyEntries) {
    block_entry list[] = {{0xFFFFFFFFu, 5, 1}, {1, 3, 50}, {2, 0xFFFFFFFFu, 2},
                          {0, 7, 0x90000000u}, {3, 9, 50}, {4, 2, 60}};
    EXPECT_EQ(blk_seq_earliest(list, 6), &list[1]);  // first of the ties
    EXPECT_EQ(blk_seq_latest(list, 6), &list[3]);    // compared unsigned
    block_entry empty[] = {{0xFFFFFFFFu, 1, 1}, {0, 0xFFFFFFFFu, 1}};
    EXPECT_EQ(blk_seq_earliest(empty, 2), nullptr);
    EXPECT_EQ(blk_seq_latest(nullptr, 3), nullptr);
    block_entry a{0, 1, 10}, b{0, 2, 20};
    EXPECT_LT(compareblock(&a, &b), 0);
    EXPECT_GT(compareblock_r(&a, &b), 0);
}

// ---------------------------------------------------------------------------------------------
// Cluster I/O and accounting.

TEST_F(DataZone, WriteThenReadAClusterBuffered) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int id = datazone_alloc(0);
    std::vector<unsigned char> out(kCluster), in(kCluster, 0);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<unsigned char>(i * 7 + 3);
    EXPECT_EQ(datazone_write(0, id, out.data()), kCluster);
    EXPECT_EQ(datazone_sync(0), 0);
    EXPECT_EQ(datazone_read(0, id, in.data()), kCluster);
    EXPECT_EQ(in, out);
    // It sits at byte id * 524288 of the partition.
    const int fd = open(img(), O_RDONLY);
    unsigned char first[2] = {0, 0};
    ASSERT_EQ(pread64(fd, first, 2, static_cast<off64_t>(id) * kCluster), 2);
    close(fd);
    EXPECT_EQ(first[0], out[0]);
    EXPECT_EQ(first[1], out[1]);
}

TEST_F(DataZone, DirectReadIsRefusedWithoutDirectIO) {
    ASSERT_EQ(init(0), 0);
    EXPECT_EQ(g_dz_ctx[0].fd_rd_direct, -1);
    void *buf = nullptr;
    ASSERT_EQ(posix_memalign(&buf, 4096, kCluster), 0);
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_read_direct(0, 257, buf), -1);
    EXPECT_TRUE(contains(cap.stop(), "]:\x1b[0mnot inited to directio:0\n"));
    free(buf);
}

// A stream's cluster read goes through its preload buffer only with direct I/O and a buffer.
TEST_F(DataZone, StreamReadUsesThePreloadBufferWithDirectIO) {
    ASSERT_EQ(init(1), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int id = datazone_alloc(0);
    void *raw = nullptr;
    ASSERT_EQ(posix_memalign(&raw, 4096, kCluster), 0);
    std::unique_ptr<unsigned char, decltype(&free)> cluster(static_cast<unsigned char *>(raw),
                                                            free);
    for (size_t i = 0; i < kCluster; ++i) cluster.get()[i] = static_cast<unsigned char>(i * 13 + 1);
    ASSERT_EQ(datazone_write(0, id, cluster.get()), kCluster);
    ASSERT_EQ(posix_memalign(&raw, 4096, kCluster), 0);
    std::unique_ptr<unsigned char, decltype(&free)> preload(static_cast<unsigned char *>(raw),
                                                            free);
    const int saved_directio = g_fs_directio;
    fs_file_ctx &stream = g_file_ctx[5];
    const fs_file_ctx saved = stream;
    std::vector<unsigned char> out(kCluster, 0);

    // No preload buffer: a plain buffered read.
    g_fs_directio = 1;
    stream.preload_buf = nullptr;
    stream.preload_loaded = -1;
    EXPECT_EQ(fs_datazone_read(5, 0, id, out.data()), kCluster);
    EXPECT_EQ(0, memcmp(out.data(), cluster.get(), kCluster));
    EXPECT_EQ(stream.preload_loaded, -1);

    // With a buffer and direct I/O: read into the buffer, remembered, copied out.
    stream.preload_buf = preload.get();
    std::fill(out.begin(), out.end(), 0);
    EXPECT_EQ(fs_datazone_read(5, 0, id, out.data()), kCluster);
    EXPECT_EQ(stream.preload_loaded, id);
    EXPECT_EQ(0, memcmp(out.data(), cluster.get(), kCluster));
    EXPECT_EQ(0, memcmp(preload.get(), cluster.get(), kCluster));

    // Into the preload buffer itself: nothing to copy.
    memset(preload.get(), 0, kCluster);
    stream.preload_loaded = -1;
    EXPECT_EQ(fs_datazone_read(5, 0, id, preload.get()), kCluster);
    EXPECT_EQ(stream.preload_loaded, id);
    EXPECT_EQ(0, memcmp(preload.get(), cluster.get(), kCluster));

    // Direct I/O off: buffered, the preload buffer left alone.
    g_fs_directio = 0;
    memset(preload.get(), 0, kCluster);
    stream.preload_loaded = -1;
    EXPECT_EQ(fs_datazone_read(5, 0, id, out.data()), kCluster);
    EXPECT_EQ(stream.preload_loaded, -1);
    EXPECT_EQ(preload.get()[1], 0);

    // A failed read leaves the remembered cluster as it was.
    g_fs_directio = 1;
    stream.preload_loaded = id;
    EXPECT_EQ(fs_datazone_read(5, 0, 3, out.data()), -1);
    EXPECT_EQ(stream.preload_loaded, id);
    EXPECT_EQ(fs_datazone_read(RECSTORE_STREAMS, 0, id, out.data()), -1);
    EXPECT_EQ(fs_datazone_read(-1, 0, id, out.data()), -1);
    EXPECT_EQ(fs_datazone_read(5, 0, id, nullptr), -1);

    stream = saved;
    g_fs_directio = saved_directio;
}

TEST_F(DataZone, OutOfRangeClustersAreRefusedWithoutTouchingTheDevice) {
    ASSERT_EQ(init(), 0);
    std::vector<unsigned char> buf(kCluster, 0xA5);
    LogMask quiet(0, 0);  // the line is printed without the gate
    g_pread_calls = 0;
    g_pwrite_calls = 0;
    StdoutCapture cap;
    EXPECT_EQ(datazone_read(0, 256, buf.data()), -1);
    EXPECT_EQ(datazone_read(0, 257 + 393216, buf.data()), -1);
    EXPECT_EQ(datazone_write(0, 0, buf.data()), -1);  // the block map
    EXPECT_EQ(datazone_write(0, -1, buf.data()), -1);
    const std::string out = cap.stop();
    EXPECT_EQ(out,
              "fatal error,cluster:256,start :257 count:393216\n"
              "fatal error,cluster:393473,start :257 count:393216\n"
              "fatal error,cluster:0,start :257 count:393216\n"
              "fatal error,cluster:-1,start :257 count:393216\n");
    EXPECT_EQ(g_pread_calls, 0);
    EXPECT_EQ(g_pwrite_calls, 0);
    for (unsigned char c : buf) ASSERT_EQ(c, 0xA5);
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0u);  // the map was not overwritten
}

TEST_F(DataZone, FullPrepareAnswersFullAtTheThreshold) {
    ASSERT_EQ(init(), 0);
    const int free = datazone_free_count(0);
    EXPECT_EQ(datazone_is_full_prepare(0, free), 1);  // even with every block free
    EXPECT_EQ(datazone_is_full_prepare(0, free - 1), 0);
    EXPECT_EQ(datazone_is_free_empty(0), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(datazone_is_full_prepare(9, 0), 1);
    EXPECT_EQ(datazone_is_full_prepare(1, -5), 1);  // uninitialised: full
}

TEST_F(DataZone, GetinfoCopiesTheGeometryAndFreeBytes) {
    ASSERT_EQ(init(), 0);
    datazone_info out;
    std::memset(&out, 0xFF, sizeof(out));
    ASSERT_EQ(datazone_getinfo(0, &out), 0);
    EXPECT_EQ(out.freesize, 3ull * kPerBlock * kCluster);
    EXPECT_EQ(out.totalsize, 200 * kGiB);
    EXPECT_EQ(out.data_start, 257u);
    EXPECT_EQ(std::memcmp(&out, &g_dz_ctx[0].info, sizeof(out)), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(datazone_getinfo(0, nullptr), -1);
}

TEST_F(DataZone, DumpWritesOneLine) {
    ASSERT_EQ(init(), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    ASSERT_EQ(datazone_alloc(0), 257);
    char name[] = "/var/tmp/recstore-dump.XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    EXPECT_GT(datazone_dump(fd, 0), 0);
    EXPECT_EQ(datazone_dump(-1, 0), -1);
    EXPECT_EQ(datazone_dump(fd, -1), -1);
    char text[256] = {0};
    ASSERT_GT(pread(fd, text, sizeof(text) - 1, 0), 0);
    close(fd);
    EXPECT_STREQ(text,
                 "datazone blk_cur:1, blk_earliest:-1 seq:0 free_empty?:0 busy_empty?:0 "
                 "busy_count:1 free_count:393215\n");
}

TEST_F(DataZone, ClearZeroesEveryMap) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 0, 1000));
    ASSERT_TRUE(aging::fill_block(img(), 3, 7, 3000));
    ASSERT_TRUE(aging::set_cluster_entry(img(), 4, 0, 0xDEADBEEF));  // reserved slot: untouched
    ASSERT_EQ(datazone_clear(0), 0);
    for (uint32_t b = 0; b < 3; ++b) EXPECT_EQ(aging::read_entry(img(), 0, b), 0u);
    for (uint32_t b = 1; b <= 3; ++b) {
        EXPECT_EQ(aging::read_entry(img(), b, 0), 0u);
        EXPECT_EQ(aging::read_entry(img(), b, 131071), 0u);
    }
    EXPECT_EQ(aging::read_entry(img(), 4, 0), 0xDEADBEEFu);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(datazone_free_count(0), 3 * kPerBlock);
}

// ---------------------------------------------------------------------------------------------
// Read-only mode, refusals and faults.

TEST_F(DataZone, ReadOnlyStartsWithoutMapsAndRefusesBlocks) {
    ASSERT_TRUE(aging::fill_block(img(), 1, 10, 1000));  // would be repaired in read-write mode
    g_fs_rdonly = 1;
    g_pread_calls = 0;
    g_pwrite_calls = 0;
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(g_pread_calls, 0);   // no map was read
    EXPECT_EQ(g_pwrite_calls, 0);  // nor written
    EXPECT_EQ(g_dz_ctx[0].block_map.vals, nullptr);
    EXPECT_EQ(g_dz_ctx[0].block_map.count, 0u);
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0x800003E8u);  // nothing written
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(block_alloc(0), -1);
    EXPECT_EQ(block_current(0), -1);
    EXPECT_EQ(block_val(0, 1), 0xFFFFFFFFu);
    block_clear(0, 1);
    EXPECT_EQ(datazone_alloc(0), -1);
    uint32_t seq = 0;
    EXPECT_EQ(block_earliest(0, &seq), -1);  // nothing is known without the block map
    block_entry list[2];
    EXPECT_EQ(block_before(0, 1 << 30, list, 2), 0);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "block_alloc readonly:0\n")) << out;
    EXPECT_TRUE(contains(out, "block_current readonly:0\n")) << out;
    EXPECT_TRUE(contains(out, "block_val readonly:0\n")) << out;
    EXPECT_TRUE(contains(out, "block_clear readonly:0\n")) << out;
    EXPECT_EQ(datazone_is_free_empty(0), 1);
    std::vector<unsigned char> buf(kCluster);
    EXPECT_EQ(datazone_read(0, 257, buf.data()), kCluster);  // reading still works
}

TEST_F(DataZone, BadDiskIdsAreRefusedEverywhere) {
    LogMask errors(0x1);
    std::vector<unsigned char> buf(kCluster);
    for (int disk : {8, 9, -1, 1000}) {
        StdoutCapture cap;
        uint32_t seq = 0;
        block_entry list[1];
        EXPECT_EQ(datazone_init(disk, 0), -1);
        datazone_exit(disk);
        EXPECT_EQ(datazone_is_inited(disk), 0);
        EXPECT_EQ(datazone_getinfo(disk, nullptr), -1);
        EXPECT_EQ(datazone_clear(disk), -1);
        EXPECT_EQ(block_load(disk, 1), nullptr);
        EXPECT_EQ(block_alloc(disk), -1);
        EXPECT_EQ(block_free(disk), -1);
        EXPECT_EQ(block_current(disk), -1);
        EXPECT_EQ(block_get_current(disk), -1);
        EXPECT_EQ(block_is_free_empty(disk), 1);
        EXPECT_EQ(block_val(disk, 1), 0xFFFFFFFFu);
        EXPECT_EQ(block_earliest(disk, &seq), -1);
        EXPECT_EQ(block_before(disk, 100, list, 1), 0);
        block_clear(disk, 1);
        EXPECT_EQ(datazone_alloc(disk), -1);
        EXPECT_EQ(datazone_free(disk, 300), -1);
        EXPECT_EQ(datazone_val(disk, 300), 0xFFFFFFFFu);
        EXPECT_EQ(datazone_read(disk, 300, buf.data()), -1);
        EXPECT_EQ(datazone_read_direct(disk, 300, buf.data()), -1);
        EXPECT_EQ(datazone_write(disk, 300, buf.data()), -1);
        EXPECT_EQ(datazone_sync(disk), -1);
        EXPECT_EQ(datazone_sync_bm(disk), -1);
        EXPECT_EQ(datazone_busy_count(disk), -1);
        EXPECT_EQ(datazone_free_count(disk), -1);
        EXPECT_EQ(datazone_is_free_empty(disk), 0);
        const std::string out = cap.stop();
        EXPECT_TRUE(contains(out, "invalid disk id:" + std::to_string(disk) + "\n")) << out;
        EXPECT_FALSE(contains(out, "not initialized")) << out;
        StdoutCapture cap2;
        EXPECT_EQ(datazone_chk(disk, 1), -1);
        EXPECT_TRUE(contains(cap2.stop(), "]:\x1b[0minvalid disk id\n"));
    }
}

TEST_F(DataZone, UninitialisedDisksAreRefused) {
    LogMask errors(0x1);
    std::vector<unsigned char> buf(kCluster);
    StdoutCapture cap;
    EXPECT_EQ(datazone_is_inited(1), 0);
    EXPECT_EQ(block_alloc(1), -1);
    EXPECT_EQ(datazone_alloc(1), -1);
    EXPECT_EQ(datazone_read(1, 300, buf.data()), -1);
    EXPECT_EQ(datazone_read_direct(1, 300, buf.data()), -1);
    EXPECT_EQ(datazone_write(1, 300, buf.data()), -1);
    EXPECT_EQ(datazone_free_count(1), -1);
    EXPECT_EQ(datazone_chk(1, 1), -1);
    EXPECT_EQ(datazone_is_free_empty(1), 1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]:\x1b[0mnot initialized:1 -1 -1 -1\n")) << out;
    EXPECT_FALSE(contains(out, "invalid disk id")) << out;
}

// Every operation that takes a disk id, each called on its own: the id check is made by each of
// them, not just by one of a sequence.
struct DiskOp {
    const char *name;
    void (*call)(int disk);
};

unsigned char g_io_buf[kCluster];

const DiskOp kDiskOps[] = {
    {"datazone_exit", [](int d) { datazone_exit(d); }},
    {"datazone_is_inited", [](int d) { EXPECT_EQ(datazone_is_inited(d), 0); }},
    {"datazone_getinfo",
     [](int d) {
         datazone_info out;
         EXPECT_EQ(datazone_getinfo(d, &out), -1);
     }},
    {"block_load", [](int d) { EXPECT_EQ(block_load(d, 1), nullptr); }},
    {"block_alloc", [](int d) { EXPECT_EQ(block_alloc(d), -1); }},
    {"block_free", [](int d) { EXPECT_EQ(block_free(d), -1); }},
    {"block_current", [](int d) { EXPECT_EQ(block_current(d), -1); }},
    {"block_get_current", [](int d) { EXPECT_EQ(block_get_current(d), -1); }},
    {"block_is_free_empty", [](int d) { EXPECT_EQ(block_is_free_empty(d), 1); }},
    {"block_is_busy_empty", [](int d) { EXPECT_EQ(block_is_busy_empty(d), 1); }},
    {"block_val", [](int d) { EXPECT_EQ(block_val(d, 1), 0xFFFFFFFFu); }},
    {"block_earliest",
     [](int d) {
         uint32_t seq = 77;
         EXPECT_EQ(block_earliest(d, &seq), -1);
         EXPECT_EQ(seq, 77u);
     }},
    {"block_before",
     [](int d) {
         block_entry list[1];
         EXPECT_EQ(block_before(d, 100, list, 1), 0);
     }},
    {"block_clear", [](int d) { block_clear(d, 1); }},
    {"datazone_alloc", [](int d) { EXPECT_EQ(datazone_alloc(d), -1); }},
    {"datazone_free", [](int d) { EXPECT_EQ(datazone_free(d, 300), -1); }},
    {"datazone_val", [](int d) { EXPECT_EQ(datazone_val(d, 300), 0xFFFFFFFFu); }},
    {"datazone_read", [](int d) { EXPECT_EQ(datazone_read(d, 300, g_io_buf), -1); }},
    {"datazone_read_direct", [](int d) { EXPECT_EQ(datazone_read_direct(d, 300, g_io_buf), -1); }},
    {"datazone_write", [](int d) { EXPECT_EQ(datazone_write(d, 300, g_io_buf), -1); }},
    {"datazone_sync", [](int d) { EXPECT_EQ(datazone_sync(d), -1); }},
    {"datazone_sync_bm", [](int d) { EXPECT_EQ(datazone_sync_bm(d), -1); }},
    {"datazone_busy_count", [](int d) { EXPECT_EQ(datazone_busy_count(d), -1); }},
    {"datazone_free_count", [](int d) { EXPECT_EQ(datazone_free_count(d), -1); }},
    {"datazone_is_full_prepare", [](int d) { EXPECT_EQ(datazone_is_full_prepare(d, 0), 1); }},
};

TEST_F(DataZone, EachOperationReportsABadDiskIdItself) {
    for (int disk : {8, 9, -1, 1000}) {
        const std::string line =
            "]:\x1b[0minvalid disk id:" + std::to_string(disk) + "\n";  // after the red prefix
        for (const DiskOp &op : kDiskOps) {
            SCOPED_TRACE(std::string(op.name) + " disk " + std::to_string(disk));
            LogMask errors(0x1);
            StdoutCapture cap;
            op.call(disk);
            const std::string out = cap.stop();
            EXPECT_TRUE(contains(out, "\x1b[0;31m[data_zone.cpp:")) << out;
            EXPECT_TRUE(contains(out, line)) << out;
            EXPECT_FALSE(contains(out, "not initialized")) << out;
        }
        // The exceptions of their own: answers without -1, or a shorter message.
        LogMask errors(0x1);
        StdoutCapture cap;
        EXPECT_EQ(datazone_is_free_empty(disk), 0);
        EXPECT_EQ(datazone_init(disk, 0), -1);
        EXPECT_EQ(datazone_clear(disk), -1);
        const std::string out = cap.stop();
        size_t n = 0;
        for (size_t at = out.find(line); at != std::string::npos; at = out.find(line, at + 1)) ++n;
        EXPECT_EQ(n, 3u) << out;
        StdoutCapture cap2;
        EXPECT_EQ(datazone_chk(disk, 1), -1);
        const std::string chk = cap2.stop();
        ASSERT_NE(chk.find("]:"), std::string::npos) << chk;
        EXPECT_EQ(chk.substr(chk.find("]:")), "]:\x1b[0minvalid disk id\n");
    }
}

// Error messages pass the host's level gate: with the error bit off, or this library's module bit
// off, a refusal prints nothing.
TEST_F(DataZone, RefusalsAreGatedByTheHostsLogMasks) {
    for (const auto &mask : {std::pair<unsigned, unsigned>{0x8, 0x200}, {0xF, 0x100}}) {
        LogMask gate(mask.first, mask.second);
        StdoutCapture cap;
        EXPECT_EQ(datazone_alloc(8), -1);
        EXPECT_EQ(datazone_free_count(1), -1);
        EXPECT_EQ(cap.stop(), "");
    }
}

TEST_F(DataZone, EachOperationReportsAnUninitialisedDiskItself) {
    for (const DiskOp &op : kDiskOps) {
        SCOPED_TRACE(op.name);
        LogMask errors(0x1);
        StdoutCapture cap;
        op.call(1);
        const std::string out = cap.stop();
        EXPECT_TRUE(contains(out, "]:\x1b[0mnot initialized:1 -1 -1 -1\n")) << out;
        EXPECT_FALSE(contains(out, "invalid disk id")) << out;
    }
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_is_free_empty(1), 1);  // full when in doubt
    EXPECT_EQ(datazone_chk(1, 1), -1);
    EXPECT_TRUE(contains(cap.stop(), "]:\x1b[0mnot initialized:1 -1 -1 -1\n"));
    EXPECT_EQ(g_dz_ctx[1].fd_rw, -1);  // nothing was opened on its behalf
}

TEST_F(DataZone, GarbageMapsLoadAndAreRepaired) {
    std::mt19937 rng(2026);
    std::vector<unsigned char> junk(kCluster);
    for (auto &b : junk) b = static_cast<unsigned char>(rng());
    const int fd = open(img(), O_RDWR);
    ASSERT_GE(fd, 0);
    for (int cluster : {0, 1, 2, 3}) {
        ASSERT_EQ(pwrite64(fd, junk.data(), junk.size(), static_cast<off64_t>(cluster) * kCluster),
                  static_cast<ssize_t>(junk.size()));
        std::shuffle(junk.begin(), junk.end(), rng);
    }
    close(fd);
    ASSERT_EQ(init(), 0);
    const datazone_ctx &z = g_dz_ctx[0];
    EXPECT_EQ(z.busy_count + z.free_count + z.err_count, 3u * kPerBlock);
    EXPECT_EQ(bitmap_free_bits(&g_dz_ctx[0].block_map) + bitmap_busy_bits(&g_dz_ctx[0].block_map) +
                  bitmap_err_bits(&g_dz_ctx[0].block_map),
              3u);
    // Every block still has free clusters, so no block entry is left busy.
    for (uint32_t b = 0; b < 3; ++b)
        EXPECT_NE(aging::read_entry(img(), 0, b) >> aging::kStateShift, 2u);
    // The repairs reached the disk: a second start finds nothing left to fix.
    {
        EventLog log;
        LogMask quiet(0, 0);
        StdoutCapture cap;
        restart();
        const std::string out = cap.stop();
        EXPECT_FALSE(contains(out, "fixed\n")) << out;
        EXPECT_TRUE(contains(out, "]total busycount:")) << out;
    }
    // The next block is the free one with the latest sequence (all hold used clusters), and its
    // first free cluster is handed out.
    int expect_block = -1;
    uint32_t best_seq = 0;
    for (uint32_t b = 0; b < 3; ++b) {
        const uint32_t e = aging::read_entry(img(), 0, b);
        if (e >> aging::kStateShift != 0) continue;
        if (expect_block < 0 || (e & aging::kValueMask) > best_seq) {
            expect_block = static_cast<int>(b + 1);
            best_seq = e & aging::kValueMask;
        }
    }
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), expect_block);
    ASSERT_GT(expect_block, 0) << "the garbage left no free block";
    uint32_t k = 0;
    while (aging::read_entry(img(), static_cast<uint32_t>(expect_block), k) >> aging::kStateShift !=
           0)
        ++k;
    const int cluster = datazone_alloc(0);
    EXPECT_EQ(cluster, static_cast<int>(info().data_start +
                                        static_cast<uint32_t>(expect_block - 1) * kPerBlock + k));
    EXPECT_EQ(
        aging::read_entry(img(), static_cast<uint32_t>(expect_block), k) >> aging::kStateShift, 2u);
}

TEST_F(DataZone, ShortReadOfABlockMapFailsCleanly) {
    g_short_read_cluster = 2;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "read_cluster :262144\n")) << out;
    EXPECT_TRUE(contains(out,
                         "bitmap_init:2 blockstart:1 blockcount:3 datastart:131329 "
                         "datacount:131072\n"))
        << out;
    EXPECT_TRUE(contains(out, "block_load err diskid:0 blockid:2\n")) << out;
    const datazone_ctx &z = g_dz_ctx[0];
    EXPECT_EQ(z.fd_rw, -1);
    EXPECT_EQ(z.fd_rd, -1);
    EXPECT_EQ(z.fd_wr, -1);
    EXPECT_EQ(z.block_map.vals, nullptr);
    EXPECT_EQ(z.block_map.count, 0u);
    EXPECT_EQ(z.cur_block, nullptr);
    EXPECT_EQ(datazone_is_inited(0), 0);
    g_short_read_cluster = -1;
    EXPECT_EQ(init(), 0);
}

// The chosen block's map cannot be read: that block is put in error in the block map, once and
// with a line in the event log, and the next block becomes current instead of every change
// failing on it.
TEST_F(DataZone, BlockAllocPutsAnUnreadableBlockInErrorAndTakesTheNext) {
    ASSERT_EQ(init(), 0);
    g_short_read_cluster = 1;
    LogMask errors(0xB);
    StdoutCapture cap;
    EXPECT_EQ(block_alloc(0), 2);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]:\x1b[0mpcurblock err\n")) << out;
    ASSERT_NE(g_dz_ctx[0].cur_block, nullptr);
    EXPECT_EQ(g_dz_ctx[0].cur_block->block_id, 2u);
    EXPECT_TRUE(recstore::entry_is_err(aging::read_entry(img(), 0, 0)));
    EXPECT_EQ(bitmap_free_bits(&g_dz_ctx[0].block_map), 1u);
    g_short_read_cluster = -1;
    LogMask quiet(0, 0);
    EXPECT_EQ(block_alloc(0), 2);
}

// Stamping the block busy fails (the block map cannot be written): -1, no current block, and the
// entry is on no list until the next start, so that it is not taken again meanwhile.
TEST_F(DataZone, BlockAllocFailsWhenTheStampCannotBeWritten) {
    ASSERT_EQ(init(), 0);
    g_fail_write_cluster = 0;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(block_alloc(0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]:\x1b[0mput busy disk:0 block:1 err\n")) << out;
    EXPECT_EQ(g_dz_ctx[0].cur_block, nullptr);
    EXPECT_EQ(aging::read_entry(img(), 0, 0), 0u);
    cluster_bitmap *bm = &g_dz_ctx[0].block_map;
    EXPECT_EQ(bitmap_free_bits(bm) + bitmap_busy_bits(bm) + bitmap_err_bits(bm), 2u);
    g_fail_write_cluster = -1;
    LogMask quiet(0, 0);
    EXPECT_EQ(block_alloc(0), 2);
    restart();  // the next start sees block 1 free again (and block 2, never written to)
    EXPECT_EQ(bitmap_free_bits(&g_dz_ctx[0].block_map), 3u);
    EXPECT_EQ(block_current(0), 1);
}

TEST_F(DataZone, ShortReadOfTheBlockMapFailsCleanly) {
    g_short_read_cluster = 0;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_init(0, 0), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "read_cluster :6\n")) << out;
    EXPECT_TRUE(contains(out, "bitmap_init err\n")) << out;
    EXPECT_EQ(g_dz_ctx[0].fd_rw, -1);
}

}  // namespace
