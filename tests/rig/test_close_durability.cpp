// SPDX-License-Identifier: MIT
// What reaches the disk when, for recordings that must survive a power cut: a writer's close
// flushes the index file and the directories that make it reachable before it returns; in
// buffered payload mode a cluster's payload is on the device before the index entry that names
// it is written (both recorded through the library's I/O table, and proved by copying the disk
// image right after a close and bringing the copy up); an index file that a cut left ending in
// zeros or in another file's blocks is repaired without them and read up to its real end. One
// formatted 200 GiB loop-backed disk brought up in the plug-in order, and a copy of it.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
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

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

// ---- the call recorder ---------------------------------------------------------------------
// Remembers the path of every descriptor opened through the table and logs, in order, the
// writes, flushes and range flushes made on them.

std::mutex g_mu;
std::map<int, std::string> g_paths;
std::vector<std::string> g_log;

std::string path_of(int fd) {
    const auto it = g_paths.find(fd);
    return it == g_paths.end() ? "?" : it->second;
}

void note(const std::string &event) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_log.push_back(event);
}

int recording_open(const char *path, int flags, mode_t mode) {
    const int fd = recstore::io_calls().open.real()(path, flags, mode);
    if (fd >= 0) {
        std::lock_guard<std::mutex> lock(g_mu);
        g_paths[fd] = path;
    }
    return fd;
}

int recording_fsync(int fd) {
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_log.push_back("fsync " + path_of(fd));
    }
    return recstore::io_calls().fsync.real()(fd);
}

int recording_fdatasync(int fd) {
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_log.push_back("fdatasync " + path_of(fd));
    }
    return recstore::io_calls().fdatasync.real()(fd);
}

ssize_t recording_write(int fd, const void *buf, size_t n) {
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_log.push_back("write " + path_of(fd) + " " + std::to_string(n));
    }
    return recstore::io_calls().write.real()(fd, buf, n);
}

// An index entry: the cluster it names is the first word of its first part.
ssize_t recording_writev(int fd, const struct iovec *iov, int count) {
    if (count >= 1 && iov[0].iov_len >= 4) {
        const uint32_t cluster =
            recstore::le32_load(static_cast<const unsigned char *>(iov[0].iov_base));
        note("entry " + std::to_string(cluster));
    }
    return recstore::io_calls().writev.real()(fd, iov, count);
}

int recording_range(int fd, off64_t at, off64_t len, unsigned flags) {
    constexpr unsigned kAll =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if ((flags & kAll) == kAll && len == kCluster && at % kCluster == 0)
        note("range " + std::to_string(at / kCluster));
    return recstore::io_calls().sync_file_range.real()(fd, at, len, flags);
}

// Position of the first event equal to `what` at or after `from`; -1 when there is none.
long find_event(const std::vector<std::string> &log, const std::string &what, long from = 0) {
    for (long i = from; i < static_cast<long>(log.size()); i++) {
        if (log[i] == what) return i;
    }
    return -1;
}

std::string joined(const std::vector<std::string> &log) {
    std::string out;
    for (const std::string &e : log) out += e + "\n";
    return out;
}

std::string without_slash(std::string dir) {
    while (!dir.empty() && dir.back() == '/') dir.pop_back();
    return dir;
}

class CloseDurability : public ::testing::Test {
  protected:
    void start(int flags) {
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags), 0);
        bring_up(0, true);
        ASSERT_EQ(block_alloc(0), static_cast<int>(kBlock1));
        std::lock_guard<std::mutex> lock(g_mu);
        g_paths.clear();
        g_log.clear();
    }
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    int create(int channel, const struct tm &start, int type) {
        const rec_param p = param_of(channel, start, type);
        return fs_open(0, &p, O_CREAT | O_RDWR, 0x15, 0, nullptr);
    }

    int write_cluster_n(int h, uint32_t s, uint32_t n, time_t base) {
        fill_payload(buf_.data(), s, n);
        kframe frames[RECSTORE_MAX_KFRAMES];
        const uint32_t count = frames_of(n, base, frames);
        return fs_write(h, buf_.data(), kCluster, frames, count);
    }

    std::vector<std::string> log() {
        std::lock_guard<std::mutex> lock(g_mu);
        return g_log;
    }

    Cluster buf_;
    std::unique_ptr<LogMask> quiet_;
};

// ---- the tests -----------------------------------------------------------------------------

// Closing a new recording flushes its index file after the header is rewritten, then the
// directories on the way from the index root to the file and the block directory of its link,
// all before the close returns.
TEST_F(CloseDurability, CloseFlushesTheIndexFileAndItsDirectories) {
    start(0);
    const struct tm t = make_tm(2024, 8, 1, 10, 0, 0);
    const time_t base = secs(t);
    recstore::IoOverride<int(const char *, int, mode_t)> o(recstore::io_calls().open,
                                                           recording_open);
    recstore::IoOverride<int(int)> f(recstore::io_calls().fsync, recording_fsync);
    recstore::IoOverride<int(int)> d(recstore::io_calls().fdatasync, recording_fdatasync);
    recstore::IoOverride<ssize_t(int, const void *, size_t)> w(recstore::io_calls().write,
                                                               recording_write);
    const int h = create(3, t, 1);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 4; n++) ASSERT_EQ(write_cluster_n(h, 1, n, base), int(kCluster));
    const size_t before_close = log().size();
    fs_close(h, nullptr);
    const std::vector<std::string> events = log();
    const std::vector<std::string> closing(events.begin() + before_close, events.end());
    const std::string text = joined(closing);

    const std::string file = index_name(0, 3, t, 1);
    const long header = find_event(closing, "write " + file + " 8336");
    ASSERT_GE(header, 0) << text;
    const long flushed = std::max(find_event(closing, "fsync " + file, header),
                                  find_event(closing, "fdatasync " + file, header));
    EXPECT_GT(flushed, header) << text;

    char root[RECSTORE_PATH_LEN], dir[RECSTORE_PATH_LEN];
    idx_root(0, root, sizeof root);
    mk_idx_fullpath(0, dir, sizeof dir, 3, &t, 1);
    // Every directory from the file's up to the index root.
    for (std::string p = without_slash(dir); p.size() >= strlen(root);
         p = p.substr(0, p.rfind('/'))) {
        EXPECT_GE(find_event(closing, "fsync " + p), 0) << p << "\n" << text;
        if (p == root) break;
    }
    char link_root[RECSTORE_PATH_LEN], link_dir[RECSTORE_PATH_LEN];
    idx_linkroot(0, link_root, sizeof link_root);
    mk_idx_linkpath(0, link_dir, sizeof link_dir, static_cast<int>(kBlock1));
    EXPECT_GE(find_event(closing, "fsync " + std::string(link_dir)), 0) << text;
    EXPECT_GE(find_event(closing, "fsync " + std::string(link_root)), 0) << text;
    EXPECT_TRUE(exists(link_name(0, kBlock1, 3, t, 1)));
}

// A reader's close writes and flushes nothing.
TEST_F(CloseDurability, ReaderCloseFlushesNothing) {
    start(0);
    const struct tm t = make_tm(2024, 8, 2, 11, 0, 0);
    const int h = create(4, t, 1);
    ASSERT_GE(h, 0);
    ASSERT_EQ(write_cluster_n(h, 2, 0, secs(t)), int(kCluster));
    fs_close(h, nullptr);
    const rec_param p = param_of(4, t, 1);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    recstore::IoOverride<int(int)> f(recstore::io_calls().fsync, recording_fsync);
    fs_close(r, nullptr);
    EXPECT_TRUE(log().empty()) << joined(log());
}

// Buffered payload mode: the payload of every cluster is written back to the device and waited
// for before the index entry that names the cluster is written.
TEST_F(CloseDurability, BufferedPayloadReachesTheDeviceBeforeItsEntry) {
    start(0);
    const struct tm t = make_tm(2024, 8, 3, 12, 0, 0);
    const time_t base = secs(t);
    const int h = create(5, t, 1);
    ASSERT_GE(h, 0);
    {
        recstore::IoOverride<ssize_t(int, const struct iovec *, int)> v(recstore::io_calls().writev,
                                                                        recording_writev);
        recstore::IoOverride<int(int, off64_t, off64_t, unsigned)> r(
            recstore::io_calls().sync_file_range, recording_range);
        for (uint32_t n = 0; n < 6; n++) ASSERT_EQ(write_cluster_n(h, 3, n, base), int(kCluster));
    }
    const std::vector<std::string> events = log();
    const std::string text = joined(events);
    int entries = 0;
    for (long i = 0; i < static_cast<long>(events.size()); i++) {
        if (events[i].rfind("entry ", 0) != 0) continue;
        entries++;
        const std::string cluster = events[i].substr(6);
        const long flushed = find_event(events, "range " + cluster);
        EXPECT_GE(flushed, 0) << "cluster " << cluster << "\n" << text;
        EXPECT_LT(flushed, i) << "cluster " << cluster << "\n" << text;
    }
    EXPECT_EQ(entries, 6) << text;
    fs_close(h, nullptr);
    const std::vector<Entry> read = entries_of(0, 5, t, 1);
    EXPECT_EQ(read.size(), 6u);
}

// Direct payload mode: the payload is on the device when the write returns, so no range flush
// is added to the write path.
TEST_F(CloseDurability, DirectPayloadAddsNoRangeFlush) {
    start(kDirectIo);
    const struct tm t = make_tm(2024, 8, 4, 13, 0, 0);
    const int h = create(6, t, 1);
    ASSERT_GE(h, 0);
    {
        recstore::IoOverride<int(int, off64_t, off64_t, unsigned)> r(
            recstore::io_calls().sync_file_range, recording_range);
        for (uint32_t n = 0; n < 3; n++)
            ASSERT_EQ(write_cluster_n(h, 4, n, secs(t)), int(kCluster));
    }
    EXPECT_TRUE(log().empty()) << joined(log());
    fs_close(h, nullptr);
}

// ---- a power cut right after a close ----
// The disk image is copied while the disk is still up, right after the close returned: the copy
// holds what the loop device had been given, not what still sat in the kernel's page cache for
// the index partition or the data partition. The copy is then plugged in as a new disk and
// brought up in the plug-in order.

class CutAfterClose : public CloseDurability {
  protected:
    void TearDown() override {
        LogMask quiet(0, 0);
        drop_copy();
        CloseDurability::TearDown();
    }

    // Copies disk 0's image at once, then plugs the copy in as disk 'b'.
    void cut_into_copy() {
        const std::string cut = rig::dir() + "/cut.img";
        rig::sh("cp --sparse=always " + rig::quote(g_disks[0].image) + " " + rig::quote(cut));
        copy_ = rig::attach('b', g_disks[0].bytes);
        rig::unplug(copy_);
        rig::sh("mv " + rig::quote(cut) + " " + rig::quote(copy_.image));
        rig::replug(copy_);
    }

    // Disk 0 taken down; the copy brought up in the plug-in order in its place. Its disk id.
    int bring_up_copy() {
        take_down(0);
        const char *dev = copy_.node.c_str();
        fs_umount(dev);
        EXPECT_EQ(fs_chk(dev), 0);
        EXPECT_EQ(fs_mount(dev), 0);
        const int id = fs_opendisk(dev);
        EXPECT_GE(id, 0);
        if (id < 0) return id;
        cache_set_loaded(static_cast<unsigned>(id), 0);
        EXPECT_EQ(fs_datazone_init(id), 0);
        EXPECT_TRUE(wait_cache_loaded(id));
        EXPECT_EQ(fs_adddisk(0, id), 0);
        copy_id_ = id;
        return id;
    }

    void drop_copy() {
        if (copy_id_ >= 0 && g_disk[copy_id_].devname[0] != '\0') {
            fs_removedisk(0, copy_id_);
            fs_datazone_exit(copy_id_);
            fs_closedisk(copy_id_);
            fs_umount(copy_.node.c_str());
        }
        copy_id_ = -1;
        if (!copy_.loop.empty()) rig::unplug(copy_);
        if (!copy_.image.empty()) unlink(copy_.image.c_str());
        copy_ = rig::Disk();
    }

    // Records `clusters` clusters on channel 9 from `t` with the payload of stream `seed` and
    // closes; what was on the disk before the recording is first flushed, so that only the
    // recording itself is at stake. Each test takes its own seed: a fresh disk hands out the same
    // clusters again, and an earlier test's payload must not pass for this one's.
    void record_and_close(const struct tm &t, uint32_t clusters, uint32_t seed) {
        sync();
        const int h = create(9, t, 3);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < clusters; n++)
            ASSERT_EQ(write_cluster_n(h, seed, n, secs(t)), int(kCluster));
        fs_close(h, nullptr);
    }

    // The recording reads back whole from the copy: every cluster's length, key frames and
    // payload.
    void expect_whole(int id, const struct tm &t, uint32_t clusters, uint32_t seed) {
        const rec_param p = param_of(9, t, 3);
        const int r = fs_open(id, &p, 0, 0, 0, nullptr);
        ASSERT_GE(r, 0) << "the closed recording is gone";
        recordinfo info;
        ASSERT_EQ(fs_stat(r, &info), 0);
        EXPECT_EQ(info.entry_count, clusters);
        Cluster got, want;
        uint32_t n = 0;
        for (;; n++) {
            uint32_t length = 0, count = 0;
            kframe frames[RECSTORE_MAX_KFRAMES], wanted[RECSTORE_MAX_KFRAMES];
            const int res = fs_read(r, got.data(), &length, frames, &count);
            if (res <= 0 || n >= clusters) break;
            EXPECT_EQ(res, int(kCluster)) << n;
            EXPECT_EQ(count, frames_of(n, secs(t), wanted)) << n;
            fill_payload(want.data(), seed, n);
            EXPECT_EQ(memcmp(got.data(), want.data(), kCluster), 0) << "cluster " << n;
        }
        EXPECT_EQ(n, clusters);
        fs_close(r, nullptr);
        EXPECT_TRUE(exists(link_name(id, kBlock1, 9, t, 3)));
    }

    rig::Disk copy_;
    int copy_id_ = -1;
};

// Direct payload I/O: a recording closed just before the cut reads back whole.
TEST_F(CutAfterClose, DirectPayloadRecordingSurvives) {
    start(kDirectIo);
    const struct tm t = make_tm(2024, 8, 20, 9, 0, 0);
    record_and_close(t, 6, 21);
    cut_into_copy();
    const int id = bring_up_copy();
    ASSERT_GE(id, 0);
    expect_whole(id, t, 6, 21);
}

// Buffered payload I/O: the same, the payload having reached the device before its entries.
TEST_F(CutAfterClose, BufferedPayloadRecordingSurvives) {
    start(0);
    const struct tm t = make_tm(2024, 8, 21, 9, 0, 0);
    record_and_close(t, 6, 22);
    cut_into_copy();
    const int id = bring_up_copy();
    ASSERT_GE(id, 0);
    expect_whole(id, t, 6, 22);
}

// ---- index files torn by a power cut ----

constexpr size_t kHeader = 8336;
constexpr size_t kEntry = 204;

std::string read_bytes(const std::string &path, off_t at, size_t n) {
    std::string out(n, '\0');
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return std::string();
    const ssize_t got = pread(fd, &out[0], n, at);
    close(fd);
    out.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return out;
}

bool write_bytes(const std::string &path, off_t at, const std::string &bytes) {
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0) return false;
    const ssize_t n = pwrite(fd, bytes.data(), bytes.size(), at);
    close(fd);
    return n == static_cast<ssize_t>(bytes.size());
}

off_t size_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Every payload read back through a reader stream: the fs_read results, the last being the
// one that ended the loop.
std::vector<int> read_all(int channel, const struct tm &start, int type) {
    std::vector<int> results;
    const rec_param p = param_of(channel, start, type);
    const int h = fs_open(0, &p, 0, 0, 0, nullptr);
    EXPECT_GE(h, 0);
    if (h < 0) return results;
    Cluster buf;
    for (int i = 0; i < 64; i++) {
        uint32_t length = 0, count = 0;
        kframe frames[RECSTORE_MAX_KFRAMES];
        const int r = fs_read(h, buf.data(), &length, frames, &count);
        results.push_back(r);
        if (r <= 0) break;
    }
    fs_close(h, nullptr);
    return results;
}

class TornIndexFile : public CloseDurability {
  protected:
    // Records `clusters` clusters on channel 7 from `t`, keeps the header as it was written at
    // creation (the state a power cut leaves it in before the close), closes and puts that
    // header back. The file's name.
    std::string unfinished(const struct tm &t, uint32_t clusters) {
        const int h = create(7, t, 2);
        EXPECT_GE(h, 0);
        const std::string name = index_name(0, 7, t, 2);
        const std::string created = read_bytes(name, 0, kHeader);
        EXPECT_EQ(created.size(), kHeader);
        for (uint32_t n = 0; n < clusters; n++)
            EXPECT_EQ(write_cluster_n(h, 7, n, secs(t)), int(kCluster));
        fs_close(h, nullptr);
        EXPECT_TRUE(write_bytes(name, 0, created));
        return name;
    }
};

// Zeros past the last entry (the file's size reached the disk, its last blocks did not): the
// repaired header counts only the real entries, and reading ends cleanly after them.
TEST_F(TornIndexFile, ZerosPastTheLastEntryAreNotAdopted) {
    start(0);
    const struct tm t = make_tm(2024, 8, 10, 8, 0, 0);
    const std::string name = unfinished(t, 5);
    const off_t real_end = static_cast<off_t>(kHeader + 5 * kEntry);
    ASSERT_EQ(size_of(name), real_end);
    ASSERT_TRUE(write_bytes(name, real_end, std::string(3 * kEntry + 100, '\0')));

    const std::vector<Entry> entries = entries_of(0, 7, t, 2);
    EXPECT_EQ(entries.size(), 5u);
    const rec_param p = param_of(7, t, 2);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    recordinfo info;
    ASSERT_EQ(fs_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 5u);
    fs_close(r, nullptr);
    const std::vector<int> reads = read_all(7, t, 2);
    ASSERT_EQ(reads.size(), 6u);
    for (size_t i = 0; i < 5; i++) EXPECT_EQ(reads[i], int(kCluster)) << i;
    EXPECT_EQ(reads[5], 0);
}

// A block of an older index file past the last entry (a recycled block that kept its old
// bytes): its entry names a cluster of the data area with key frames from two days before.
// It is not adopted; the recording ends at its own last entry.
TEST_F(TornIndexFile, AStaleEntryPastTheLastEntryIsNotAdopted) {
    start(0);
    const struct tm old = make_tm(2024, 8, 9, 8, 0, 0);
    const int o = create(1, old, 2);
    ASSERT_GE(o, 0);
    for (uint32_t n = 0; n < 3; n++) ASSERT_EQ(write_cluster_n(o, 1, n, secs(old)), int(kCluster));
    fs_close(o, nullptr);
    const std::string stale = read_bytes(index_name(0, 1, old, 2), kHeader + kEntry, kEntry);
    ASSERT_EQ(stale.size(), kEntry);

    const struct tm t = make_tm(2024, 8, 11, 8, 0, 0);
    const std::string name = unfinished(t, 4);
    const off_t real_end = static_cast<off_t>(kHeader + 4 * kEntry);
    ASSERT_TRUE(write_bytes(name, real_end, stale + stale));

    const std::vector<Entry> entries = entries_of(0, 7, t, 2);
    ASSERT_EQ(entries.size(), 4u);
    const rec_param p = param_of(7, t, 2);
    const int r = fs_open(0, &p, 0, 0, 0, nullptr);
    ASSERT_GE(r, 0);
    recordinfo info;
    ASSERT_EQ(fs_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 4u);
    struct tm end;
    from_fs_tm(&end, &info.end_time);
    // Cluster 3 holds the last frames: 1 + 3 % 3 = 1 frame, at start + 3.
    EXPECT_EQ(secs(end), secs(t) + 3);
    fs_close(r, nullptr);
    const std::vector<int> reads = read_all(7, t, 2);
    ASSERT_EQ(reads.size(), 5u);
    for (size_t i = 0; i < 4; i++) EXPECT_EQ(reads[i], int(kCluster)) << i;
    EXPECT_EQ(reads[4], 0);
}

// A closed recording whose last entries never reached the disk (the header did): reading ends
// cleanly at the first zeroed entry instead of failing on cluster 0.
TEST_F(TornIndexFile, ReadingEndsCleanlyAtZeroedEntries) {
    start(0);
    const struct tm t = make_tm(2024, 8, 12, 8, 0, 0);
    const int h = create(7, t, 2);
    ASSERT_GE(h, 0);
    for (uint32_t n = 0; n < 5; n++) ASSERT_EQ(write_cluster_n(h, 7, n, secs(t)), int(kCluster));
    fs_close(h, nullptr);
    const std::string name = index_name(0, 7, t, 2);
    ASSERT_TRUE(
        write_bytes(name, static_cast<off_t>(kHeader + 3 * kEntry), std::string(2 * kEntry, '\0')));
    const std::vector<int> reads = read_all(7, t, 2);
    ASSERT_EQ(reads.size(), 4u);
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(reads[i], int(kCluster)) << i;
    EXPECT_EQ(reads[3], 0);
}

}  // namespace
