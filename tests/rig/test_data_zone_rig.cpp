// The data zone on partition 3 of a real loop-backed 200 GiB disk inside the rig: start-up on a
// block device, allocation, direct-I/O writes and reads of whole clusters, the event log, and
// the stop/start scenario (a partly used block is resumed), the choice between partly used
// blocks, clearing a busy block, and refusals that must not reach the device.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

// Every cluster transfer of the library is a positioned read or write of the I/O seam; the
// DataZoneRig tests count the ones that reach the device.
namespace {

std::atomic<int> g_cluster_reads{0};
std::atomic<int> g_cluster_writes{0};

ssize_t counted_pread(int fd, void *buf, size_t n, off64_t pos) {
    ++g_cluster_reads;
    return recstore::io_calls().pread64.real()(fd, buf, n, pos);
}

ssize_t counted_pwrite(int fd, const void *buf, size_t n, off64_t pos) {
    ++g_cluster_writes;
    return recstore::io_calls().pwrite64.real()(fd, buf, n, pos);
}

using recstore_test::StdoutCapture;

using recstore_test::LogMask;

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr uint32_t kPerBlock = RECSTORE_CLUSTERS_PER_BLOCK;
constexpr uint32_t kMagic16T = RECSTORE_MAGIC_V7;

using recstore_test::contains;

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A page-aligned cluster buffer, as direct I/O needs.
struct AlignedCluster {
    AlignedCluster() {
        if (posix_memalign(&p, 4096, kCluster) != 0) p = nullptr;
    }
    ~AlignedCluster() { free(p); }
    AlignedCluster(const AlignedCluster &) = delete;
    AlignedCluster &operator=(const AlignedCluster &) = delete;
    unsigned char *bytes() { return static_cast<unsigned char *>(p); }
    void *p = nullptr;
};

class DataZoneRig : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run this test through tests/rig/rig-run";
        disk_ = rig::attach('a', 200 * kGiB);
        rig::partition_simple(disk_);
        part_ = rig::partition(disk_, 3);
        ASSERT_EQ(access(part_.c_str(), F_OK), 0) << part_;
        std::snprintf(g_disk[0].devname, sizeof(g_disk[0].devname), "%s", disk_.node.c_str());
        g_magic[0] = kMagic16T;
        g_fs_rdonly = 0;
        const int fd = open(part_.c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        part_bytes_ = static_cast<uint64_t>(blockdev_size(0, fd));
        close(fd);
        LogMask quiet(0, 0);
        ASSERT_EQ(datazone_clear(0), 0);
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        if (g_dz_ctx[0].fd_rw > 0) datazone_exit(0);
        fs_log_exit();
        g_magic[0] = 0;
        g_disk[0].devname[0] = '\0';
        if (!disk_.loop.empty()) rig::unplug(disk_);
        if (!disk_.image.empty()) unlink(disk_.image.c_str());  // the next test attaches sda again
    }
    int init(int directio) {
        LogMask quiet(0, 0);
        return datazone_init(0, directio);
    }

    rig::Disk disk_;
    std::string part_;
    uint64_t part_bytes_ = 0;
    // The seam's positioned reads and writes are counted for the whole test.
    recstore::IoOverride<ssize_t(int, void *, size_t, off64_t)> reads_{recstore::io_calls().pread64,
                                                                       counted_pread};
    recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> writes_{
        recstore::io_calls().pwrite64, counted_pwrite};
};

TEST_F(DataZoneRig, StartsOnTheRealPartition) {
    ASSERT_EQ(init(1), 0);
    const datazone_info &info = g_dz_ctx[0].info;
    EXPECT_STREQ(info.name, part_.c_str());
    EXPECT_EQ(info.totalsize, part_bytes_);
    EXPECT_GT(part_bytes_, 190 * kGiB);
    const uint32_t clusters = static_cast<uint32_t>(part_bytes_ >> 19);
    EXPECT_EQ(info.cluster_count, clusters);
    EXPECT_EQ(info.data_start, 257u);
    EXPECT_EQ(info.block_count, (clusters - 257) >> 17);
    EXPECT_EQ(info.block_count, 3u);  // about 206 GB from 8GB to the end
    EXPECT_EQ(datazone_free_count(0), static_cast<int>(info.block_count * kPerBlock));
    EXPECT_GT(g_dz_ctx[0].fd_rd_direct, 0);
    datazone_info out;
    ASSERT_EQ(datazone_getinfo(0, &out), 0);
    EXPECT_EQ(out.totalsize, part_bytes_);
}

TEST_F(DataZoneRig, AllocatesAndMovesClustersWithDirectIo) {
    ASSERT_EQ(init(1), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int c0 = datazone_alloc(0);
    const int c1 = datazone_alloc(0);
    ASSERT_EQ(c0, 257);
    ASSERT_EQ(c1, 258);

    AlignedCluster out, in;
    ASSERT_NE(out.p, nullptr);
    ASSERT_NE(in.p, nullptr);
    for (uint32_t i = 0; i < kCluster; ++i) out.bytes()[i] = static_cast<unsigned char>(i * 13 + 1);
    EXPECT_EQ(datazone_write(0, c1, out.p), static_cast<int>(kCluster));
    EXPECT_EQ(datazone_sync(0), 0);
    std::memset(in.p, 0, kCluster);
    EXPECT_EQ(datazone_read_direct(0, c1, in.p), static_cast<int>(kCluster));
    EXPECT_EQ(std::memcmp(in.p, out.p, kCluster), 0);
    std::vector<unsigned char> plain(kCluster);
    EXPECT_EQ(datazone_read(0, c1, plain.data()), static_cast<int>(kCluster));
    EXPECT_EQ(std::memcmp(plain.data(), out.p, kCluster), 0);

    // On the device itself at byte c1 * 524288 of partition 3.
    const int fd = open(part_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned char head[16];
    ASSERT_EQ(pread64(fd, head, sizeof(head), static_cast<off64_t>(c1) * kCluster), 16);
    close(fd);
    EXPECT_EQ(std::memcmp(head, out.p, sizeof(head)), 0);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 1, 1) >> aging::kStateShift, 2u);
}

TEST_F(DataZoneRig, UnalignedDirectWriteFailsWithoutHarm) {
    ASSERT_EQ(init(1), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    const int c = datazone_alloc(0);
    std::vector<unsigned char> buf(kCluster + 1, 0x5A);
    // O_DIRECT refuses a buffer that is not page aligned; the count comes back negative.
    EXPECT_LT(datazone_write(0, c, buf.data() + 1), 0);
    EXPECT_EQ(datazone_busy_count(0), 1);
}

TEST_F(DataZoneRig, RestartResumesThePartlyUsedBlock) {
    ASSERT_TRUE(aging::fill_block(part_.c_str(), 1, 0, 5000));  // block 1 full
    ASSERT_EQ(init(1), 0);
    ASSERT_EQ(fs_log_init("/mnt/img/fs.log"), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 2);
    const int start2 = 257 + static_cast<int>(kPerBlock);
    AlignedCluster buf;
    ASSERT_NE(buf.p, nullptr);
    for (int i = 0; i < 3; ++i) {
        const int c = datazone_alloc(0);
        ASSERT_EQ(c, start2 + i);
        std::memset(buf.p, i + 1, kCluster);
        ASSERT_EQ(datazone_write(0, c, buf.p), static_cast<int>(kCluster));
    }
    datazone_exit(0);
    ASSERT_EQ(datazone_init(0, 1), 0);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 1) >> aging::kStateShift, 0u);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 0), aging::busy_entry(5000u));
    EXPECT_EQ(block_current(0), 2);
    ASSERT_EQ(block_alloc(0), 2);
    EXPECT_EQ(datazone_alloc(0), start2 + 3);
    EXPECT_EQ(datazone_read_direct(0, start2 + 1, buf.p), static_cast<int>(kCluster));
    EXPECT_EQ(buf.bytes()[0], 2);
    EXPECT_EQ(buf.bytes()[kCluster - 1], 2);

    const std::string log = slurp("/mnt/img/log.log");
    EXPECT_TRUE(contains(log, "busy=>free...\n")) << log;
    EXPECT_TRUE(contains(log, "]load disk:0 block:2 b:3 f:131069 e:0 seq:")) << log;
    EXPECT_TRUE(contains(log, "]total busycount:131075,freecount:262141, errcount:0\n")) << log;
}

TEST_F(DataZoneRig, ClearFormatsTheMapsOfTheDevice) {
    ASSERT_TRUE(aging::fill_block(part_.c_str(), 2, 10, 700));
    LogMask quiet(0, 0);
    ASSERT_EQ(datazone_clear(0), 0);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 1), 0u);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 2, 0), 0u);
    ASSERT_EQ(init(0), 0);
    EXPECT_EQ(datazone_busy_count(0), 0);
}

TEST_F(DataZoneRig, FreedClusterIsAllocatedAgainFirst) {
    ASSERT_EQ(init(1), 0);
    LogMask quiet(0, 0);
    ASSERT_EQ(block_alloc(0), 1);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(datazone_alloc(0), 257 + i);
    const uint32_t stamped = datazone_val(0, 259);
    ASSERT_EQ(stamped >> aging::kStateShift, 2u);
    g_cluster_writes = 0;
    g_cluster_reads = 0;
    ASSERT_EQ(datazone_free(0, 259), 0);
    EXPECT_EQ(g_cluster_writes, 1);  // one 4-byte map write
    EXPECT_EQ(aging::read_entry(part_.c_str(), 1, 2), stamped & aging::kValueMask);  // free, kept
    EXPECT_EQ(datazone_busy_count(0), 4);
    g_cluster_writes = 0;
    g_cluster_reads = 0;
    EXPECT_EQ(datazone_alloc(0), 259);
    EXPECT_EQ(g_cluster_writes, 1);  // allocation: one map write and no read
    EXPECT_EQ(g_cluster_reads, 0);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 1, 2) >> aging::kStateShift, 2u);
    EXPECT_EQ(datazone_alloc(0), 262);
    EXPECT_EQ(datazone_busy_count(0), 6);
}

// Two blocks left partly used (aged straight into their maps): the later one is resumed, the
// earlier one stays the first to recycle.
TEST_F(DataZoneRig, LaterOfTwoPartlyUsedBlocksIsResumed) {
    ASSERT_TRUE(aging::fill_block(part_.c_str(), 1, 50, 3000));
    ASSERT_TRUE(aging::fill_block(part_.c_str(), 2, 70, 4000));
    ASSERT_EQ(init(1), 0);
    LogMask quiet(0, 0);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 0), 3000u);  // turned free by the check
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 1), 4000u);
    EXPECT_EQ(block_current(0), 2);
    uint32_t seq = 0;
    EXPECT_EQ(block_earliest(0, &seq), 1);
    EXPECT_EQ(seq, 3000u);
    ASSERT_EQ(block_alloc(0), 2);
    const int first_free = 257 + static_cast<int>(kPerBlock) + static_cast<int>(kPerBlock - 70);
    EXPECT_EQ(datazone_alloc(0), first_free);
    AlignedCluster buf;
    ASSERT_NE(buf.p, nullptr);
    std::memset(buf.p, 0x3C, kCluster);
    EXPECT_EQ(datazone_write(0, first_free, buf.p), static_cast<int>(kCluster));
    // The resumed block carries a new sequence; block 1 is still the earliest.
    EXPECT_EQ(block_earliest(0, &seq), 1);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 1) >> aging::kStateShift, 2u);
}

TEST_F(DataZoneRig, BlockClearOfABusyBlock) {
    ASSERT_TRUE(aging::fill_block(part_.c_str(), 2, 0, 900));  // full, busy
    ASSERT_TRUE(aging::set_cluster_entry(part_.c_str(), 2, 17, aging::err_entry(3)));
    ASSERT_EQ(init(1), 0);
    ASSERT_EQ(fs_log_init("/mnt/img/fs.log"), 0);
    EXPECT_EQ(datazone_busy_count(0), static_cast<int>(kPerBlock - 1));
    EXPECT_EQ(g_dz_ctx[0].err_count, 1u);
    const int free_before = datazone_free_count(0);
    LogMask quiet(0, 0);
    block_clear(0, 2);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 0, 1), 900u);  // free, old sequence kept
    EXPECT_EQ(aging::read_entry(part_.c_str(), 2, 0), 900u);
    EXPECT_EQ(aging::read_entry(part_.c_str(), 2, 17), 3u);
    EXPECT_EQ(datazone_free_count(0), free_before + static_cast<int>(kPerBlock));
    EXPECT_EQ(datazone_busy_count(0), 0);
    EXPECT_EQ(g_dz_ctx[0].err_count, 0u);
    const std::string log = slurp("/mnt/img/log.log");
    EXPECT_TRUE(contains(log, "]block_clear disk:0 block:2 busy val:0x80000384 b:0 f:3 e:0\n"))
        << log;
    // After a restart the zone is all free again, and the cleared block keeps its sequence.
    datazone_exit(0);
    ASSERT_EQ(datazone_init(0, 1), 0);
    EXPECT_EQ(datazone_free_count(0), static_cast<int>(3 * kPerBlock));
    block_entry list[3];
    ASSERT_EQ(block_before(0, 900 * 4 + 1, list, 3), 1);
    EXPECT_EQ(list[0].block_id, 2u);
}

TEST_F(DataZoneRig, DirectReadIsRefusedWithoutDirectIo) {
    ASSERT_EQ(init(0), 0);
    EXPECT_EQ(g_dz_ctx[0].fd_rd_direct, -1);
    AlignedCluster buf;
    ASSERT_NE(buf.p, nullptr);
    std::memset(buf.p, 0x77, kCluster);
    g_cluster_reads = 0;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_read_direct(0, 257, buf.p), -1);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "\x1b[0;31m[data_zone.cpp:")) << out;
    EXPECT_TRUE(contains(out, "]:\x1b[0mnot inited to directio:0\n")) << out;
    EXPECT_EQ(g_cluster_reads, 0);
    EXPECT_EQ(buf.bytes()[0], 0x77);
    EXPECT_EQ(datazone_read(0, 257, buf.p), static_cast<int>(kCluster));  // buffered still reads
}

TEST_F(DataZoneRig, OutOfRangeClustersAreRefusedWithoutTouchingTheDevice) {
    ASSERT_EQ(init(1), 0);
    const datazone_info &info = g_dz_ctx[0].info;
    const int below = static_cast<int>(info.data_start) - 1;
    const int above = static_cast<int>(info.data_start + info.data_count);
    char line[96];
    std::snprintf(line, sizeof(line), "fatal error,cluster:%%d,start :%u count:%u\n",
                  info.data_start, info.data_count);
    char expect_below[96], expect_above[96];
    std::snprintf(expect_below, sizeof(expect_below), line, below);
    std::snprintf(expect_above, sizeof(expect_above), line, above);
    AlignedCluster buf;
    ASSERT_NE(buf.p, nullptr);
    std::memset(buf.p, 0xA5, kCluster);
    g_cluster_reads = 0;
    g_cluster_writes = 0;
    {
        LogMask quiet(0, 0);  // printed without the gate
        StdoutCapture cap;
        EXPECT_EQ(datazone_read(0, below, buf.p), -1);
        EXPECT_EQ(datazone_read(0, above, buf.p), -1);
        EXPECT_EQ(datazone_read_direct(0, below, buf.p), -1);
        EXPECT_EQ(datazone_read_direct(0, above, buf.p), -1);
        EXPECT_EQ(datazone_write(0, below, buf.p), -1);
        EXPECT_EQ(datazone_write(0, above, buf.p), -1);
        EXPECT_EQ(cap.stop(), std::string(expect_below) + expect_above + expect_below +
                                  expect_above + expect_below + expect_above);
    }
    EXPECT_EQ(g_cluster_reads, 0);
    EXPECT_EQ(g_cluster_writes, 0);
    for (uint32_t i = 0; i < kCluster; ++i) ASSERT_EQ(buf.bytes()[i], 0xA5) << i;
    // The last reserved slot (a block map position) was not written.
    EXPECT_EQ(aging::read_entry(part_.c_str(), static_cast<uint32_t>(below), 0), 0u);

    // Freeing and reading the map entry of such a cluster is refused too.
    {
        LogMask quiet(0, 0);
        ASSERT_EQ(block_alloc(0), 1);
    }
    g_cluster_writes = 0;
    LogMask errors(0x1);
    StdoutCapture cap;
    EXPECT_EQ(datazone_free(0, below), -1);
    EXPECT_EQ(datazone_free(0, above), -1);
    EXPECT_EQ(datazone_val(0, above), 0xFFFFFFFFu);
    const std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "]:\x1b[0mivalid clusterid:" + std::to_string(below) + "\n")) << out;
    EXPECT_TRUE(contains(out, "]:\x1b[0mivalid clusterid:" + std::to_string(above) + "\n")) << out;
    EXPECT_EQ(g_cluster_writes, 0);
    EXPECT_EQ(datazone_busy_count(0), 0);
}

}  // namespace
