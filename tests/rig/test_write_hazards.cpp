// SPDX-License-Identifier: MIT
// Write paths under conditions that must not cost a recording or hand out space that a
// recording still references: names the name parsers cannot read back, end times before the
// start, index headers cut by a power loss, a full index partition, short payload and header
// writes and failed fsyncs (injected through the library's I/O table), and a disk without a current
// block. One formatted 200 GiB loop-backed disk brought up in the plug-in order.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
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
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

// ---- injected I/O failures -----------------------------------------------------------------
// Each injector replaces one entry of the library's I/O table for the lifetime of an
// IoOverride and passes every other call to the real system call.

// While set, the next payload write of a whole cluster stores half of it.
std::atomic<bool> g_short_payload{false};
// While set, the next write of a whole 8336-byte index header stores 4000 bytes of it.
std::atomic<bool> g_short_header{false};

ssize_t short_payload_pwrite(int fd, const void *buf, size_t n, off64_t pos) {
    const auto real = recstore::io_calls().pwrite64.real();
    if (n == kCluster && g_short_payload.exchange(false)) return real(fd, buf, n / 2, pos);
    return real(fd, buf, n, pos);
}

ssize_t short_header_write(int fd, const void *buf, size_t n) {
    const auto real = recstore::io_calls().write.real();
    if (n == 8336 && g_short_header.exchange(false)) return real(fd, buf, 4000);
    return real(fd, buf, n);
}

// Every fsync fails with EIO.
int failing_fsync(int) {
    errno = EIO;
    return -1;
}

class WriteHazards : public ::testing::Test {
  protected:
    // Starts the layer, brings disk 0 up fresh and, when asked, makes block 1 current.
    void start(bool current_block = true) {
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
        bring_up(0, true);
        if (current_block) {
            ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
        }
    }
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        if (!filler_.empty()) unlink(filler_.c_str());
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    int create(int channel, const struct tm &start, int type) {
        const rec_param p = param_of(channel, start, type);
        return fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
    }

    int open_reader(int channel, const struct tm &start, int type) {
        const rec_param p = param_of(channel, start, type);
        return fs_open(0, &p, 0, 0, 0, nullptr);
    }

    // Writes cluster n of stream s with its key frames; the fs_write result.
    int write_cluster_n(int h, uint32_t s, uint32_t n, time_t base) {
        fill_payload(buf_.data(), s, n);
        kframe frames[RECSTORE_MAX_KFRAMES];
        const uint32_t count = frames_of(n, base, frames);
        return fs_write(h, buf_.data(), kCluster, frames, count);
    }

    recordinfo stat_of(int h) {
        recordinfo info;
        memset(&info, 0, sizeof info);
        EXPECT_EQ(fs_stat(h, &info), 0);
        return info;
    }

    // Takes every free block of the index partition of disk 0 with a filler file.
    void fill_index_partition() {
        filler_ = "/mnt/sda/filler";
        const int fd = open(filler_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        struct statfs64 sf;
        ASSERT_EQ(statfs64("/mnt/sda", &sf), 0);
        const off64_t margin = 64ll << 20;
        const off64_t bulk = static_cast<off64_t>(sf.f_bfree) * sf.f_bsize - margin;
        if (bulk > 0) {
            ASSERT_EQ(posix_fallocate64(fd, 0, bulk), 0);
        }
        ASSERT_EQ(lseek64(fd, 0, SEEK_END) >= 0, true);
        std::vector<char> chunk(4096, 'f');
        for (;;) {
            const ssize_t n = write(fd, chunk.data(), chunk.size());
            if (n < static_cast<ssize_t>(chunk.size())) break;
        }
        fsync(fd);
        close(fd);
    }

    Cluster buf_;
    std::string filler_;
    std::unique_ptr<LogMask> quiet_;
};

// ---- the tests -----------------------------------------------------------------------------

// A type of three digits or a year of five would make names that read back as another
// recording: the open is refused and nothing is left on the disk.
TEST_F(WriteHazards, OpenRefusesTypesAndYearsThatNamesCannotHold) {
    start();
    const struct tm t = make_tm(2024, 7, 1, 10, 0, 0);
    LogMask mask(kAllLevels);
    {
        StdoutCapture out;
        EXPECT_EQ(create(4, t, 100), -1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "record type 100 out of range 0-99")) << text;
    }
    EXPECT_FALSE(exists(index_name(0, 4, t, 100)));
    EXPECT_FALSE(exists(link_name(0, kBlock1, 4, t, 100)));
    const struct tm far = make_tm(10000, 1, 1, 0, 0, 0);
    {
        StdoutCapture out;
        EXPECT_EQ(create(4, far, 1), -1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "record year 10000 out of range 0-9999")) << text;
    }
    EXPECT_FALSE(exists(index_name(0, 4, far, 1)));
    // The largest values the names hold still open.
    const int h = create(4, make_tm(9999, 12, 31, 23, 59, 59), 99);
    EXPECT_GE(h, 0);
    if (h >= 0) fs_close(h, nullptr);
    for (int s = 0; s < RECSTORE_STREAMS; s++) EXPECT_EQ(g_file_ctx[s].idx, -1) << s;
}

// A writer closed with an end time before its start keeps a cache tag (a duration of 0), so
// that searches still find the recording; the index file's end time is written as given.
TEST_F(WriteHazards, CloseWithEndBeforeStartKeepsTheRecordingFindable) {
    start();
    const struct tm t = make_tm(2024, 7, 2, 12, 30, 0);
    const time_t base = secs(t);
    const int h = create(6, t, 2);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 20; n++) ASSERT_EQ(write_cluster_n(h, 3, n, base), int(kCluster));
    const struct tm before = make_tm(2024, 7, 2, 12, 0, 0);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fs_close(h, &before);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "end time before start")) << text;
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 6, t, 2));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0] & 0xFFFFF, 12u * 3600 + 30 * 60);
    EXPECT_EQ((tags[0] >> 20) & 0xFFFF, 0u);
    struct stat64 st;
    ASSERT_EQ(stat64(index_name(0, 6, t, 2).c_str(), &st), 0);
    struct tm e = before;
    EXPECT_EQ(st.st_mtime, mktime(&e));
}

// An index header cut by a power loss is decoded as far as it goes and rewritten whole, so the
// recording still opens; one too short to tell its start is refused with a message.
TEST_F(WriteHazards, OpenRepairsAHeaderCutShort) {
    start();
    const struct tm t = make_tm(2024, 7, 3, 9, 15, 0);
    const int h = create(8, t, 5);
    ASSERT_GE(h, 0);
    fs_close(h, nullptr);
    const std::string name = index_name(0, 8, t, 5);
    ASSERT_EQ(truncate(name.c_str(), 4000), 0);
    {
        LogMask mask(kAllLevels);
        StdoutCapture out;
        const int r = open_reader(8, t, 5);
        const std::string text = out.stop();
        ASSERT_GE(r, 0) << text;
        EXPECT_TRUE(contains(text, "short header:4000 of 8336 bytes, repaired")) << text;
        const recordinfo info = stat_of(r);
        EXPECT_EQ(info.channel, 8u);
        EXPECT_EQ(info.type, 5u);
        EXPECT_EQ(info.mode, 0x15u);
        EXPECT_EQ(info.block_id, kBlock1);
        EXPECT_EQ(info.entry_count, 0u);
        EXPECT_EQ(info.start_time.tm_min, 15);
        EXPECT_EQ(info.end_time.tm_min, 15);
        uint32_t cluster = 0, length = 0, count = 0;
        kframe frames[RECSTORE_MAX_KFRAMES];
        EXPECT_NE(index_read(g_file_ctx[r].idx, &cluster, &length, frames, &count, nullptr),
                  index_size());
        fs_close(r, nullptr);
    }
    struct stat64 st;
    ASSERT_EQ(stat64(name.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 8336);
    const int again = open_reader(8, t, 5);
    EXPECT_GE(again, 0);
    if (again >= 0) fs_close(again, nullptr);

    // 30 bytes do not reach the start time.
    ASSERT_EQ(truncate(name.c_str(), 30), 0);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(open_reader(8, t, 5), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "short header:30 of 8336 bytes holds no start time")) << text;
    for (int s = 0; s < RECSTORE_STREAMS; s++) EXPECT_EQ(g_file_ctx[s].idx, -1) << s;
}

// On a full index partition a write whose entry does not fit fails, and the file is cut back to
// its last whole entry so that later entries stay aligned.
TEST_F(WriteHazards, AFullIndexPartitionFailsTheWriteAndKeepsEntriesWhole) {
    start();
    const struct tm t = make_tm(2024, 7, 4, 18, 0, 0);
    const time_t base = secs(t);
    const int h = create(9, t, 0);
    ASSERT_GE(h, 0);
    fill_index_partition();
    uint32_t written = 0;
    int failures = 0;
    for (uint32_t n = 0; n < 40; n++) {
        const int r = write_cluster_n(h, 4, n, base);
        if (r == static_cast<int>(kCluster)) {
            written++;
        } else {
            EXPECT_LT(r, 0) << n;
            failures++;
        }
    }
    EXPECT_GT(failures, 0);
    EXPECT_EQ(stat_of(h).entry_count, written);
    const std::string name = index_name(0, 9, t, 0);
    struct stat64 st;
    ASSERT_EQ(stat64(name.c_str(), &st), 0);
    EXPECT_EQ((st.st_size - 8336) % 204, 0) << st.st_size;
    EXPECT_EQ((st.st_size - 8336) / 204, written) << st.st_size;
    fs_close(h, nullptr);
    const std::vector<Entry> entries = entries_of(0, 9, t, 0);
    ASSERT_EQ(entries.size(), written);
    for (uint32_t n = 0; n < written; n++) EXPECT_EQ(entries[n].length, kCluster) << n;
}

// A payload write that stores less than the cluster fails the write and adds no entry; a failed
// fsync fails fs_sync.
TEST_F(WriteHazards, AShortPayloadWriteAndAFailedSyncAreReported) {
    start();
    const struct tm t = make_tm(2024, 7, 5, 6, 0, 0);
    const time_t base = secs(t);
    const int h = create(10, t, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 5, 0, base), static_cast<int>(kCluster));
    int r = 0;
    {
        const recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> cut(
            recstore::io_calls().pwrite64, short_payload_pwrite);
        g_short_payload = true;
        r = write_cluster_n(h, 5, 1, base);
        EXPECT_FALSE(g_short_payload) << "no payload write of a whole cluster was seen";
        g_short_payload = false;
    }
    EXPECT_LT(r, 0);
    EXPECT_EQ(stat_of(h).entry_count, 1u);
    EXPECT_EQ(fs_sync(h), 0);
    int synced = 0;
    {
        const recstore::IoOverride<int(int)> fail(recstore::io_calls().fsync, failing_fsync);
        synced = fs_sync(h);
    }
    EXPECT_EQ(synced, -1);
    fs_close(h, nullptr);
}

// A payload write that fails gives its cluster back: no entry names it, and the space would
// otherwise stay busy until the block is recycled.
TEST_F(WriteHazards, AFailedPayloadWriteGivesItsClusterBack) {
    start();
    const struct tm t = make_tm(2024, 7, 5, 7, 0, 0);
    const time_t base = secs(t);
    const int h = create(12, t, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 6, 0, base), static_cast<int>(kCluster));
    const int free_before = datazone_free_count(0);
    int r = 0;
    {
        const recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> cut(
            recstore::io_calls().pwrite64, short_payload_pwrite);
        g_short_payload = true;
        r = write_cluster_n(h, 6, 1, base);
        g_short_payload = false;
    }
    EXPECT_LT(r, 0);
    EXPECT_EQ(datazone_free_count(0), free_before) << "the failed write's cluster stayed busy";
    EXPECT_EQ(stat_of(h).entry_count, 1u);
    ASSERT_EQ(write_cluster_n(h, 6, 1, base), static_cast<int>(kCluster));
    EXPECT_EQ(datazone_free_count(0), free_before - 1);
    fs_close(h, nullptr);
}

// A close whose index-file flush fails says so, frees its slot, and the recording still reads
// back from the page cache.
TEST_F(WriteHazards, AFailedFlushAtCloseIsReported) {
    start();
    const struct tm t = make_tm(2024, 7, 5, 8, 0, 0);
    const time_t base = secs(t);
    const int h = create(13, t, 0);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 2; n++)
        ASSERT_EQ(write_cluster_n(h, 7, n, base), static_cast<int>(kCluster));
    std::string text;
    {
        LogMask mask(kAllLevels);
        StdoutCapture out;
        const recstore::IoOverride<int(int)> fail(recstore::io_calls().fsync, failing_fsync);
        fs_close(h, nullptr);
        text = out.stop();
    }
    EXPECT_TRUE(contains(text, "closed recording not flushed")) << text;
    for (int s = 0; s < RECSTORE_STREAMS; s++) EXPECT_EQ(g_file_ctx[s].idx, -1) << s;
    EXPECT_EQ(entries_of(0, 13, t, 0).size(), 2u);
}

// Without a current block a recording would be created in block 0xFFFFFFFF, with a link
// directory that no recycling clears: the open is refused after the wait and leaves nothing.
TEST_F(WriteHazards, OpenWithoutACurrentBlockIsRefused) {
    start(false);
    const struct tm t = make_tm(2024, 7, 6, 7, 8, 9);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    EXPECT_EQ(create(11, t, 0), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "waiting for current block reach the max count")) << text;
    EXPECT_TRUE(contains(text, "no current block on disk 0, recording refused")) << text;
    EXPECT_FALSE(exists(index_name(0, 11, t, 0)));
    EXPECT_FALSE(exists("/mnt/sda/link/-0000001"));
    for (int s = 0; s < RECSTORE_STREAMS; s++) EXPECT_EQ(g_file_ctx[s].idx, -1) << s;
}

// A new recording whose header write stores only part of the header is refused and leaves no
// index file: entries written after a cut header would be read as part of it.
TEST_F(WriteHazards, ACreateWhoseHeaderWriteIsCutIsRefused) {
    start();
    const struct tm t = make_tm(2024, 7, 7, 3, 4, 5);
    LogMask mask(kAllLevels);
    StdoutCapture out;
    int h = 0;
    {
        const recstore::IoOverride<ssize_t(int, const void *, size_t)> cut(
            recstore::io_calls().write, short_header_write);
        g_short_header = true;
        h = create(12, t, 0);
        EXPECT_FALSE(g_short_header) << "no header write was seen";
        g_short_header = false;
    }
    const std::string text = out.stop();
    EXPECT_EQ(h, -1);
    EXPECT_TRUE(contains(text, "short header write:4000 of 8336 bytes")) << text;
    EXPECT_FALSE(exists(index_name(0, 12, t, 0)));
    EXPECT_FALSE(exists(link_name(0, kBlock1, 12, t, 0)));
    for (int s = 0; s < RECSTORE_STREAMS; s++) EXPECT_EQ(g_file_ctx[s].idx, -1) << s;
}

}  // namespace
