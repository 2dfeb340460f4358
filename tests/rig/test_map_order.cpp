// SPDX-License-Identifier: MIT
// The order in which cluster maps and index entries reach the disk. An entry that is durable
// while the map word of its cluster is not would, after a power cut, name a cluster the maps call
// free, and recording after bring-up would overwrite it. So the maps are flushed before every
// flush that makes entries durable (a writer's close, fs_sync), and the daemon flushes changed
// maps within a second. The other way round, a deletion or a recycled block makes the removal of
// the index files durable before it frees their clusters, by flushing a directory and not the whole
// partition (which would write open recordings' entries ahead of their map words). A block change
// writes the new block's busy mark through before any of its clusters is handed out. The flushes
// are recorded through the library's I/O table. One formatted 200 GiB loop-backed disk brought up
// in the plug-in order, direct payload I/O.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "bitmap.h"
#include "capture.h"
#include "formatted_disks.h"
#include "fs.h"
#include "fs_tools.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

std::mutex g_log_lock;
std::vector<int> g_fsyncs;  // descriptors fsynced, in order

int logging_fsync(int fd) {
    {
        std::lock_guard<std::mutex> guard(g_log_lock);
        g_fsyncs.push_back(fd);
    }
    return recstore::io_calls().fsync.real()(fd);
}

// Position of the first fsync of fd in the log, -1 when there is none.
int first_fsync(int fd) {
    std::lock_guard<std::mutex> guard(g_log_lock);
    for (size_t i = 0; i < g_fsyncs.size(); i++) {
        if (g_fsyncs[i] == fd) return static_cast<int>(i);
    }
    return -1;
}

// Events of a deletion, in order: "remove", "dirflush" (an fsync of a directory), "map" (a
// write into the maps); "mapflush" and "syncfs" wherever they come.
std::vector<std::string> g_events;
int g_maps_fd = -1;

void note(const char *what) {
    std::lock_guard<std::mutex> guard(g_log_lock);
    g_events.push_back(what);
}
// Removals on the index partition (the cache's own files do not count).
bool on_index_partition(const char *path) {
    return strncmp(path, "/mnt/sd", 7) == 0;
}
int noting_remove(const char *path) {
    if (on_index_partition(path)) note("remove");
    return recstore::io_calls().remove.real()(path);
}
int noting_unlink(const char *path) {
    if (on_index_partition(path)) note("remove");
    return recstore::io_calls().unlink.real()(path);
}
int noting_fsync(int fd) {
    struct stat st;
    if (fd == g_maps_fd) {
        note("mapflush");
    } else if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        note("dirflush");
    }
    return recstore::io_calls().fsync.real()(fd);
}
int noting_syncfs(int fd) {
    note("syncfs");
    return recstore::io_calls().syncfs.real()(fd);
}
ssize_t noting_pwrite(int fd, const void *buf, size_t n, off64_t pos) {
    if (fd == g_maps_fd) note("map");
    return recstore::io_calls().pwrite64.real()(fd, buf, n, pos);
}

// Position of the first event `what` at or after `from` (-1: none), and of the last one.
int first_event(const std::string &what, size_t from = 0) {
    for (size_t i = from; i < g_events.size(); i++) {
        if (g_events[i] == what) return static_cast<int>(i);
    }
    return -1;
}
int last_event(const std::string &what) {
    for (size_t i = g_events.size(); i > 0; i--) {
        if (g_events[i - 1] == what) return static_cast<int>(i - 1);
    }
    return -1;
}

// Records the removals, index-partition flushes and map writes of a deletion.
class DeletionEvents {
  public:
    explicit DeletionEvents(int maps_fd)
        : remove_(recstore::io_calls().remove, noting_remove),
          unlink_(recstore::io_calls().unlink, noting_unlink),
          syncfs_(recstore::io_calls().syncfs, noting_syncfs),
          fsync_(recstore::io_calls().fsync, noting_fsync),
          pwrite_(recstore::io_calls().pwrite64, noting_pwrite) {
        g_events.clear();
        g_maps_fd = maps_fd;
    }

  private:
    recstore::IoOverride<int(const char *)> remove_;
    recstore::IoOverride<int(const char *)> unlink_;
    recstore::IoOverride<int(int)> syncfs_;
    recstore::IoOverride<int(int)> fsync_;
    recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> pwrite_;
};

// The removals are flushed after the last of them and before the first map write that frees.
void expect_removals_durable_first(const char *what) {
    const int removed = last_event("remove");
    ASSERT_GE(removed, 0) << what << ": nothing removed";
    const int flushed = first_event("dirflush", static_cast<size_t>(removed));
    const int freed = first_event("map", static_cast<size_t>(removed));
    EXPECT_GE(flushed, 0) << what << ": no directory was flushed after the removals";
    EXPECT_GE(freed, 0) << what << ": no map write after the removals";
    EXPECT_EQ(first_event("map"), freed) << what << ": a map was written before a removal";
    // A flush of the whole partition would also write the entries of recordings still open,
    // ahead of their clusters' map words.
    EXPECT_EQ(first_event("syncfs"), -1) << what << ": the whole index partition was flushed";
    if (flushed >= 0 && freed >= 0) {
        EXPECT_LT(flushed, freed) << what << ": clusters freed before the removals were durable";
    }
}

class MapOrder : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, kDirectIo), 0);
        bring_up(0, true);
        ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
        g_fsyncs.clear();
    }
    void TearDown() override {
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    // A writer with n clusters written; its handle.
    int writer(int channel, uint32_t n) {
        const struct tm t = make_tm(2024, 10, 1, 8, 0, channel);
        const rec_param p = param_of(channel, t, 0);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
        EXPECT_GE(h, 0);
        if (h < 0) return h;
        for (uint32_t k = 0; k < n; k++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(channel), k);
            kframe frames[RECSTORE_MAX_KFRAMES];
            const uint32_t count = frames_of(k, secs(t), frames);
            EXPECT_EQ(fs_write(h, buf_.data(), kCluster, frames, count), int(kCluster));
        }
        return h;
    }

    int maps_fd() const { return g_dz_ctx[0].fd_rw; }
    static int index_fd(int h) { return g_idx_ctx[g_file_ctx[h].idx].fd; }

    Cluster buf_;
    std::unique_ptr<LogMask> quiet_;
};

// A writer's close flushes the maps, before anything that makes its entries durable.
TEST_F(MapOrder, CloseFlushesTheMapsBeforeTheIndexFile) {
    const int h = writer(3, 2);
    ASSERT_GE(h, 0);
    const int idx_fd = index_fd(h);
    recstore::IoOverride<int(int)> hook(recstore::io_calls().fsync, logging_fsync);
    fs_close(h, nullptr);
    const int maps = first_fsync(maps_fd());
    const int index = first_fsync(idx_fd);
    EXPECT_GE(maps, 0) << "the close did not flush the maps";
    if (index >= 0) {
        EXPECT_LT(maps, index) << "the index file was flushed before the maps";
    }
}

// fs_sync flushes the data zone (payload and maps) before the header it rewrites.
TEST_F(MapOrder, SyncFlushesTheMapsBeforeTheHeader) {
    const int h = writer(4, 2);
    ASSERT_GE(h, 0);
    const int idx_fd = index_fd(h);
    {
        recstore::IoOverride<int(int)> hook(recstore::io_calls().fsync, logging_fsync);
        EXPECT_EQ(fs_sync(h), 0);
    }
    const int maps = first_fsync(maps_fd());
    const int index = first_fsync(idx_fd);
    ASSERT_GE(maps, 0);
    ASSERT_GE(index, 0);
    EXPECT_LT(maps, index) << "the header was flushed before the maps";
    fs_close(h, nullptr);
}

// The daemon's flush: nothing while the maps are unchanged, the maps once clusters were taken.
TEST_F(MapOrder, ChangedMapsAreFlushedAfterEachPass) {
    recstore::IoOverride<int(int)> hook(recstore::io_calls().fsync, logging_fsync);
    recstore::fs_flush_changed_maps();  // the first look at the disk takes its state
    const int h = writer(5, 1);
    ASSERT_GE(h, 0);
    usleep((recstore::kMapFlushMillis + 100) * 1000);
    g_fsyncs.clear();
    recstore::fs_flush_changed_maps();
    EXPECT_GE(first_fsync(maps_fd()), 0) << "changed maps were not flushed";
    g_fsyncs.clear();
    usleep((recstore::kMapFlushMillis + 100) * 1000);
    recstore::fs_flush_changed_maps();
    EXPECT_EQ(first_fsync(maps_fd()), -1) << "unchanged maps were flushed again";
    fs_close(h, nullptr);
}

// Deleting one recording: its index file's removal is durable before its clusters are freed.
TEST_F(MapOrder, DeleteMakesTheRemovalDurableBeforeFreeing) {
    const int h = writer(6, 3);
    ASSERT_GE(h, 0);
    fs_close(h, nullptr);
    record_name name;
    memset(&name, 0, sizeof name);
    name.channel = 6;
    name.start = make_tm(2024, 10, 1, 8, 0, 6);
    {
        DeletionEvents events(maps_fd());
        ASSERT_EQ(fs_delete(0, &name), 0);
    }
    expect_removals_durable_first("fs_delete");
}

// Freeing a block: every removal of its recordings is durable before the block is freed.
TEST_F(MapOrder, ClearMakesTheRemovalsDurableBeforeFreeing) {
    for (int ch = 7; ch < 9; ch++) {
        const int h = writer(ch, 2);
        ASSERT_GE(h, 0);
        fs_close(h, nullptr);
    }
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    {
        DeletionEvents events(maps_fd());
        ASSERT_EQ(fs_clear(0, kBlock1), 0);
    }
    expect_removals_durable_first("fs_clear");
}

// Deleting while another recording is being written: the deletion flushes no file of the open
// recording, so none of its entries is made durable ahead of its clusters' map words.
TEST_F(MapOrder, DeleteLeavesOpenRecordingsAlone) {
    const int done = writer(10, 2);
    ASSERT_GE(done, 0);
    fs_close(done, nullptr);
    const int open = writer(11, 2);
    ASSERT_GE(open, 0);
    const int open_fd = index_fd(open);
    record_name name;
    memset(&name, 0, sizeof name);
    name.channel = 10;
    name.start = make_tm(2024, 10, 1, 8, 0, 10);
    {
        DeletionEvents events(maps_fd());
        recstore::IoOverride<int(int)> hook(recstore::io_calls().fsync, logging_fsync);
        ASSERT_EQ(fs_delete(0, &name), 0);
    }
    EXPECT_EQ(first_event("syncfs"), -1) << "the whole index partition was flushed";
    EXPECT_EQ(first_fsync(open_fd), -1) << "the open recording's index file was flushed";
    fs_close(open, nullptr);
}

// Writes into the maps and their flushes during a block change, in order: "bm" (a block-map
// word), "cm" (a cluster-map word), "flush".
std::vector<std::string> g_map_events;
ssize_t noting_map_pwrite(int fd, const void *buf, size_t n, off64_t pos) {
    if (fd == g_maps_fd) {
        std::lock_guard<std::mutex> guard(g_log_lock);
        g_map_events.push_back(pos < static_cast<off64_t>(RECSTORE_CLUSTER_SIZE) ? "bm" : "cm");
    }
    return recstore::io_calls().pwrite64.real()(fd, buf, n, pos);
}
int noting_map_fsync(int fd) {
    if (fd == g_maps_fd) {
        std::lock_guard<std::mutex> guard(g_log_lock);
        g_map_events.push_back("flush");
    }
    return recstore::io_calls().fsync.real()(fd);
}

// A block change writes the new block's busy mark through before any of its clusters is handed
// out, even to a writer that keeps trying while the block changes: a block that still reads free
// after a power cut is chosen again at bring-up and would hand out clusters recordings name.
TEST_F(MapOrder, BlockChangeFlushesTheBlockMapBeforeHandingOut) {
    const int h = writer(12, 1);
    ASSERT_GE(h, 0);
    g_maps_fd = maps_fd();
    g_map_events.clear();
    std::atomic<bool> stop{false};
    {
        recstore::IoOverride<ssize_t(int, const void *, size_t, off64_t)> pw(
            recstore::io_calls().pwrite64, noting_map_pwrite);
        recstore::IoOverride<int(int)> fs(recstore::io_calls().fsync, noting_map_fsync);
        std::thread keep_writing([&] {
            Cluster buf;
            for (uint32_t k = 1; !stop.load() && k < 64; k++) {
                fill_payload(buf.data(), 12, k);
                kframe frames[RECSTORE_MAX_KFRAMES];
                const uint32_t count = frames_of(k, 0, frames);
                fs_write(h, buf.data(), kCluster, frames, count);  // -5 while no block is current
            }
        });
        EXPECT_EQ(fs_changeblock(0, 0, 0), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stop.store(true);
        keep_writing.join();
    }
    fs_close(h, nullptr);
    std::lock_guard<std::mutex> guard(g_log_lock);
    size_t busy_mark = g_map_events.size();
    for (size_t i = 0; i < g_map_events.size(); i++) {
        if (g_map_events[i] == "bm") busy_mark = i;
    }
    ASSERT_LT(busy_mark, g_map_events.size()) << "the block change wrote no block-map word";
    bool flushed = false;
    for (size_t i = busy_mark; i < g_map_events.size(); i++) {
        if (g_map_events[i] == "flush") flushed = true;
        if (g_map_events[i] == "cm") {
            EXPECT_TRUE(flushed) << "a cluster of the new block was handed out (event " << i
                                 << ") before its busy mark was flushed";
            break;
        }
    }
    EXPECT_GE(block_get_current(0), 0);
}

// Byte offset of a data cluster's word in its block's cluster map on the data partition.
off64_t map_word_at(const datazone_info &info, uint32_t cluster) {
    const uint32_t rel = cluster - info.data_start;
    const uint32_t block = info.block_start + rel / info.cluster_perblock;
    return static_cast<off64_t>(block) * RECSTORE_CLUSTER_SIZE +
           static_cast<off64_t>(rel % info.cluster_perblock) * 4;
}

// The power cut made by hand: the disk goes away under the open writer (its header never
// finalised, its entries on the disk) and the map words of `lost` clusters read free again.
void cut_under_writer(int h, const datazone_info &info, const std::vector<uint32_t> &lost) {
    take_down(0);
    fs_close(h, nullptr);  // the disk is gone: the slot is freed, the header left as it was
    const int fd = open(data_partition(0).c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    for (uint32_t c : lost) {
        const uint32_t never_used = 0;
        EXPECT_EQ(pwrite64(fd, &never_used, sizeof never_used, map_word_at(info, c)), 4);
    }
    EXPECT_EQ(fsync(fd), 0);
    close(fd);
}

// Each cluster's map word on the data partition is busy.
void expect_busy_on_disk(const datazone_info &info, const std::vector<uint32_t> &clusters) {
    const int fd = open(data_partition(0).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    for (uint32_t c : clusters) {
        uint32_t word = 0;
        EXPECT_EQ(pread64(fd, &word, sizeof word, map_word_at(info, c)), 4);
        EXPECT_TRUE(recstore::entry_is_busy(word))
            << "cluster " << c << " named by a surviving entry is free in the map";
    }
    close(fd);
}

// After a power cut the entries of a recording still being written can be on the disk while the
// map words of their clusters are not: the start-up check then reads the block as partly free.
// Bring-up keeps the clusters those entries name busy, so recording afterwards does not hand them
// out again.
TEST_F(MapOrder, BringUpKeepsClustersOfUncountedEntriesBusy) {
    const int channel = 13;
    const struct tm start = make_tm(2024, 10, 1, 8, 0, channel);
    const int h = writer(channel, 4);
    ASSERT_GE(h, 0);
    std::vector<uint32_t> named;
    for (const Entry &e : entries_of(0, channel, start, 0)) named.push_back(e.cluster);
    ASSERT_EQ(named.size(), 4u);
    datazone_info info;
    ASSERT_EQ(datazone_getinfo(0, &info), 0);
    cut_under_writer(h, info, named);
    bring_up(0, false);
    expect_busy_on_disk(info, named);
    ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
    for (int i = 0; i < 16; i++) {
        const int c = datazone_alloc(0);
        ASSERT_GE(c, 0);
        for (uint32_t n : named) {
            EXPECT_NE(static_cast<uint32_t>(c), n)
                << "cluster " << c << " named by a surviving entry handed out";
        }
    }
}

// The same for a recording that began in the block before: it has no link in the block it went
// on into, and bring-up finds it through the earlier block's links.
TEST_F(MapOrder, BringUpKeepsClustersOfARecordingFromTheBlockBefore) {
    const int channel = 14;
    const struct tm start = make_tm(2024, 10, 1, 8, 0, channel);
    const int h = writer(channel, 2);
    ASSERT_GE(h, 0);
    ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
    ASSERT_NE(block_get_current(0), static_cast<int>(kBlock1));
    for (uint32_t k = 2; k < 4; k++) {
        fill_payload(buf_.data(), channel, k);
        kframe frames[RECSTORE_MAX_KFRAMES];
        const uint32_t count = frames_of(k, secs(start), frames);
        ASSERT_EQ(fs_write(h, buf_.data(), kCluster, frames, count), int(kCluster));
    }
    std::vector<uint32_t> later;
    const std::vector<Entry> entries = entries_of(0, channel, start, 0);
    ASSERT_EQ(entries.size(), 4u);
    for (size_t i = 2; i < entries.size(); i++) later.push_back(entries[i].cluster);
    datazone_info info;
    ASSERT_EQ(datazone_getinfo(0, &info), 0);
    cut_under_writer(h, info, later);
    bring_up(0, false);
    expect_busy_on_disk(info, later);
}

}  // namespace
