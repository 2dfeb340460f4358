// SPDX-License-Identifier: MIT
// Index cache on tmpfs: a memory-resident mirror of every disk's index tree under "/mnt/cache/",
// one file of 8-byte tags per leaf directory (channel, day, type), so that search, calendar and
// deletion need not open every index file on disk. This module mounts and unmounts the tmpfs,
// runs the per-disk loader thread that rebuilds a disk's cache from its index tree, appends tags,
// rewrites cache files to drop tags, and removes the cache files that lie before a time.
//
// File map, in order:
//   Helpers: leaf paths, tag appends (also through the loader's held-open leaf file), the mount
//     command, the loader-thread count (g_loaders_lock), the loader's per-file work (a final
//     header read directly, else through a stream), pruning before a time, the rewrite copy and
//     the tag byte codec.
//   Tag I/O and rewriting: do_cache_read_tag, do_cache_write_tag, do_cache_rewrite,
//     do_cache_prune_dirs.
//   Mounting: cache_init, cache_exit (which waits for the loaders).
//   Loading a disk's cache: cache_load (starts the detached loader), proc_cache_load and its
//     walk actions, buildcache, cache_unload, cache_clear.
//   Tags: cache_create (and the loader's form of it), cache_set_fast_load, the loaded, full and
//     read-only queries.
//   Removing tags and cache files: do_cache_delete_cond, cache_delete, cache_del_before_action.
//   Search and calendar over a channel's cache tree: cache_findaction (scans under
//     g_cachelock), cache_calendar_action.
// g_cachelock guards every read, append, rewrite and removal of cache files.
#include "cache.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <new>

#include "fs.h"
#include "fs_tools.h"
#include "index.h"

using recstore::FdGuard;
using recstore::io_calls;
using recstore::io_dprintf;
using recstore::kCacheTagSize;
using recstore::MutexGuard;
using recstore::valid_disk_id;

int g_cache_rdonly = 0;
int g_cache_loaded[RECSTORE_MAX_DISKS] = {0};
pthread_mutex_t g_cachelock = PTHREAD_MUTEX_INITIALIZER;

// ---------------------------------------------------------------------------------------------
// Helpers: paths, tag appends, mounting, the loader-thread count, pruning and the rewrite copy
// ---------------------------------------------------------------------------------------------

namespace {

constexpr size_t kPath = RECSTORE_PATH_LEN;  // every path and command line is built in this size
constexpr int kRemoveTree = 7;               // remove_file: directories with contents, missing ok
constexpr mode_t kCacheFileMode = 0666;      // cache files and "cachetmp" (the umask applies)
constexpr int kMaxPruneLevels = 16;          // deeper than any cache tree
constexpr int kIndexFileFields = 12;         // fullname_to_record fields that name an index file
constexpr int kMaxType = 99;                 // types are printed as two digits in names
constexpr int kLevelDisk = 1;                // cachefullname_to_record levels
constexpr int kLevelChannel = 2;
constexpr int kLevelYear = 3;
constexpr int kLevelMonth = 4;
constexpr int kLevelDay = 5;
constexpr int kLevelType = 6;
constexpr int kWalkStop = 0;  // walk verdicts
constexpr int kWalkContinue = 1;
constexpr int kWalkSkip = 2;
constexpr int kLastMday = 31;  // a month's last second is taken as day 31, 23:59:59
constexpr int kLastMonth = 11;

bool cache_rdonly() {
    return __atomic_load_n(&g_cache_rdonly, __ATOMIC_ACQUIRE) != 0;
}

bool path_exists(const char *path) {
    struct stat64 st;
    return io_calls().stat64(path, &st) == 0;
}

// A directory itself, not a link to one.
bool is_directory(const char *path) {
    struct stat64 st;
    return io_calls().lstat64(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Copies "prefix + suffix" into dst; false (reported) when it does not fit.
bool join_path(char *dst, size_t n, const char *prefix, const char *suffix) {
    int len = snprintf(dst, n, "%s%s", prefix, suffix);
    if (len < 0 || static_cast<size_t>(len) >= n) {
        FS_LOG_ERR("path too long:%s%s\n", prefix, suffix);
        dst[0] = '\0';
        return false;
    }
    return true;
}

// Only whole-disk names "/dev/hd/sd" plus a letter a-h ever become cache paths: anything else
// could name a directory outside the disk's cache tree.
bool valid_device(const char *device) {
    if (recstore::is_disk_node_name(device)) return true;
    FS_LOG_ERR("invalid device:%s\n", device ? device : "(null)");
    return false;
}

// Disk, channel and type of a cache leaf directory, refused when they cannot name one.
bool valid_leaf(int disk_id, int channel, int type) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d\n", disk_id);
        return false;
    }
    if (channel < 0 || channel >= RECSTORE_MAX_CHANNELS) {
        FS_LOG_ERR("invalid channel:%d\n", channel);
        return false;
    }
    if (type < 0 || type > kMaxType) {
        FS_LOG_ERR("invalid type:%d\n", type);
        return false;
    }
    return true;
}

// The cache paths of one leaf directory (disk, channel, day of t, type).
struct LeafPaths {
    char root[kPath];  // the disk's cache root, "/mnt/cache/sdX/"
    char dir[kPath];   // the leaf's cache directory, ending with '/'
    char file[kPath];  // dir + "cache"
    char tmp[kPath];   // dir + "cachetmp"
};

bool leaf_paths(int disk_id, int channel, const struct tm *t, int type, LeafPaths *p) {
    char index_root[kPath];
    char index_dir[kPath];
    idx_root(disk_id, index_root, sizeof index_root);
    mk_idx_fullpath(disk_id, index_dir, sizeof index_dir, channel, t, type);
    if (index_root[0] == '\0' || index_dir[0] == '\0') {
        FS_LOG_ERR("disk %d not open\n", disk_id);
        return false;
    }
    char cache_root[kPath];
    tocachename(cache_root, sizeof cache_root, index_root);
    tocachename(p->dir, sizeof p->dir, index_dir);
    return cache_root[0] != '\0' && p->dir[0] != '\0' &&
           join_path(p->root, sizeof p->root, cache_root, "/") &&
           join_path(p->file, sizeof p->file, p->dir, recstore::kCacheFileName) &&
           join_path(p->tmp, sizeof p->tmp, p->dir, recstore::kCacheTmpName);
}

// Creates dir (which ends with '/') and its missing parents.
void make_dir(const char *dir) {
    if (path_exists(dir)) return;
    char buf[kPath];
    snprintf(buf, sizeof buf, "%s", dir);
    mkdir_recursive(buf);
}

// Appends one tag. A short write is reported and the partial bytes are cut off again, so that
// the tags appended later stay on 8-byte boundaries.
void append_tag_after(int fd, uint64_t tag, off64_t before) {
    int n = do_cache_write_tag(fd, static_cast<uint32_t>(tag), static_cast<uint32_t>(tag >> 32));
    if (n == static_cast<int>(kCacheTagSize)) return;
    perror("write");
    if (n > 0 && before >= 0 && io_calls().ftruncate64(fd, before) < 0) perror("ftruncate");
}

// before: the file's size, -1 when unknown.
void append_tag(int fd, uint64_t tag) {
    struct stat64 st;
    append_tag_after(fd, tag, io_calls().fstat64(fd, &st) == 0 ? st.st_size : -1);
}

// The cache file a loader appends to, kept open while its walk stays in one leaf directory, so
// that each tag costs one status call and one write instead of a directory test, an open, a
// status call, a write and a close.
struct LeafAppender {
    char file[kPath] = "";
    FdGuard fd;
};

// Opens the leaf's cache file for appending, making its directory first. Called with
// g_cachelock held. -1 (reported) when it cannot be opened.
int open_leaf_file(const LeafPaths &paths) {
    make_dir(paths.dir);
    int fd =
        io_calls().open(paths.file, O_WRONLY | O_CREAT | O_APPEND | O_LARGEFILE, kCacheFileMode);
    if (fd < 0) FS_LOG_ERR("open file :%s err\n", paths.file);
    return fd;
}

// Appends the tag to the leaf's cache file, through the appender's descriptor while it still
// names that file: one a rewrite replaced, or a clear or prune removed, has no link left and is
// opened again (its directory made again), as a fresh append would. Called with g_cachelock held.
int append_through(LeafAppender *app, const LeafPaths &paths, uint64_t tag) {
    struct stat64 st;
    if (app->fd.get() >= 0 && strcmp(app->file, paths.file) == 0 &&
        io_calls().fstat64(app->fd.get(), &st) == 0 && st.st_nlink > 0) {
        append_tag_after(app->fd.get(), tag, st.st_size);
        return 0;
    }
    app->fd.reset(open_leaf_file(paths));
    app->file[0] = '\0';
    if (app->fd.get() < 0) return -1;
    snprintf(app->file, sizeof app->file, "%s", paths.file);
    append_tag(app->fd.get(), tag);
    return 0;
}

// Disks the probe finds; 1 when it finds none or more than a recorder has.
int probed_disk_count() {
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
    if (fs_probe(list, &count) != 0) count = 0;
    if (count <= 0 || count > RECSTORE_PROBE_MAX) {
        count = 1;
        FS_LOG_PLAIN("cache initialize for :%d disk\n", count);
    }
    return count;
}

// An inode count or size of 0 would mount a tmpfs without limit, which statfs then reports as
// having no free blocks or inodes: refuse them, and sizes whose MiB count does not fit an int.
bool valid_cache_size(int inodes, unsigned size_mib, int disks) {
    if (inodes > 0 && size_mib > 0 && size_mib <= static_cast<unsigned>(INT_MAX / disks)) {
        return true;
    }
    FS_LOG_ERR("invalid cache size:%u MiB per disk, %d disks, inodes:%d\n", size_mib, disks,
               inodes);
    return false;
}

int mount_cache(int size, int inodes) {
    char cmd[kPath];
    snprintf(cmd, sizeof cmd,
             "mount -t tmpfs -o size=%dm,nr_inodes=%d -o noatime,nodiratime  tmpfs %s", size,
             inodes, recstore::kCacheRoot);
    FS_LOG_PLAIN("cache mount:%s\n", cmd);
    if (fs_system(cmd) == 0) return 0;
    snprintf(cmd, sizeof cmd,
             "mount -t tmpfs -o size=%dm,nr_inodes=%d -o noatime,nodiratime -o remount tmpfs %s",
             size, inodes, recstore::kCacheRoot);
    FS_LOG_PLAIN("cache remount:%s\n", cmd);
    return fs_system(cmd) == 0 ? 0 : -1;
}

// The loader thread owns a copy of the device name, so that the caller's buffer may go away.
struct LoaderArg {
    char device[kPath];
};

// Loader threads still running. They are detached, so the library counts them: cache_exit waits
// for the last one, so that no loader still walks a disk's index tree, writes into the cache or
// logs through the host's masks once the disk layer has stopped.
pthread_mutex_t g_loaders_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_loaders_done = PTHREAD_COND_INITIALIZER;
int g_loaders = 0;
int g_disk_loaders[RECSTORE_MAX_DISKS];               // per disk, under g_loaders_lock
std::atomic<bool> g_loader_stop[RECSTORE_MAX_DISKS];  // set by plug-out, read by the loader
thread_local int t_loader_disk = -1;                  // the disk a loader thread walks

void loader_started(int disk) {
    MutexGuard guard(g_loaders_lock);
    ++g_loaders;
    if (valid_disk_id(disk)) ++g_disk_loaders[disk];
}

void loader_finished(int disk) {
    MutexGuard guard(g_loaders_lock);
    if (valid_disk_id(disk)) --g_disk_loaders[disk];
    --g_loaders;
    pthread_cond_broadcast(&g_loaders_done);
}

bool loader_stopped() {
    return valid_disk_id(t_loader_disk) && g_loader_stop[t_loader_disk].load();
}

void wait_for_loaders() {
    MutexGuard guard(g_loaders_lock);
    while (g_loaders > 0) pthread_cond_wait(&g_loaders_done, &g_loaders_lock);
}

// Counts a loader thread as finished when it leaves, after everything else it did.
struct LoaderCount {
    int disk;
    ~LoaderCount() { loader_finished(disk); }
};

void *cache_load_thread(void *arg) {
    std::unique_ptr<LoaderArg> owned(static_cast<LoaderArg *>(arg));
    LoaderCount counted{todiskid(owned->device)};
    t_loader_disk = counted.disk;
    return proc_cache_load(owned->device);
}

int load_action(const char *path, struct stat *st, void *user);
int load_dir_action(const char *path, void *user);
int load_file_action(const char *path, void *user);

// Mirrors one directory of the index tree.
void mirror_directory(const char *path) {
    char cache_dir[kPath];
    tocachename(cache_dir, sizeof cache_dir, path);
    char with_slash[kPath];
    if (cache_dir[0] == '\0' || !join_path(with_slash, sizeof with_slash, cache_dir, "/")) return;
    make_dir(with_slash);
}

// The loader reads final headers directly unless a test or benchmark asks for the plain load.
std::atomic<bool> g_fast_load{true};

// The header of one recording read through a stream opened for reading, which repairs a header
// never finalised. False (reported) when the recording cannot be opened or stated.
bool stat_through_stream(int disk_id, const rec_param &param, recordinfo *info) {
    int handle = fs_open(disk_id, &param, 0, 0, 0, nullptr);
    if (handle < 0) {
        FS_LOG_ERR("fs open err\n");
        return false;
    }
    int stat_result = fs_stat(handle, info);
    fs_close(handle, nullptr);
    if (stat_result < 0) {
        FS_LOG_ERR("fs stat err\n");
        return false;
    }
    return true;
}

// The header of one recording: read directly from the file the stream would open (its name is
// built from the disk like the stream's, so a disk closed meanwhile is met the same way) when it
// is final, else through the stream. A channel the stream refuses is left to it, with its message.
bool read_recording_header(int disk_id, const rec_param &param, int channel, const struct tm &start,
                           int type, recordinfo *info) {
    if (g_fast_load.load(std::memory_order_relaxed) && param.channel < RECSTORE_MAX_CHANNELS) {
        char name[kPath] = "";
        mk_idx_fullname(disk_id, name, sizeof name, channel, &start, type);
        if (recstore::index_read_header(disk_id, name, info) == 1) return true;
    }
    return stat_through_stream(disk_id, param, info);
}

int loader_cache_create(LeafAppender *app, int disk_id, int channel, const struct tm *start,
                        const struct tm *end, int type, unsigned mode, uint32_t total_bytes);

// Appends the tag of one index file: through the loader's held-open leaf file when app is given,
// else with cache_create.
void cache_index_file(const char *path, LeafAppender *app) {
    int disk_id = -1, channel = 0, type = 0;
    struct tm start = {};
    int level = fullname_to_record(path, &disk_id, &channel, &start, &type);
    if (level < kIndexFileFields) {
        FS_LOG_INFO("level:%d\n", level);
        return;
    }
    rec_param param = {};
    to_fs_tm(&start, &param.start);
    param.channel = static_cast<uint32_t>(channel);
    param.type = static_cast<uint32_t>(type);
    std::unique_ptr<recordinfo> info(new (std::nothrow) recordinfo());
    if (!info) {
        FS_LOG_ERR("fs stat err\n");
        return;
    }
    if (!read_recording_header(disk_id, param, channel, start, type, info.get())) return;
    struct tm rec_start = {}, rec_end = {};
    from_fs_tm(&rec_start, &info->start_time);
    from_fs_tm(&rec_end, &info->end_time);
    const uint32_t bytes = static_cast<uint32_t>(info->total_bytes);
    const int created =
        app ? loader_cache_create(app, disk_id, channel, &rec_start, &rec_end, type, info->mode,
                                  bytes)
            : cache_create(disk_id, channel, &rec_start, &rec_end, type, info->mode, bytes);
    if (created < 0) FS_LOG_ERR("cache open err\n");
}

// The first and last second of a year, month or day directory of a cache tree.
void directory_span(int level, const struct tm &day, struct tm *first, struct tm *last) {
    *first = {};
    first->tm_year = day.tm_year;
    first->tm_mon = level >= kLevelMonth ? day.tm_mon : 0;
    first->tm_mday = level >= kLevelDay ? day.tm_mday : 1;
    *last = *first;
    last->tm_mon = level >= kLevelMonth ? day.tm_mon : kLastMonth;
    last->tm_mday = level >= kLevelDay ? day.tm_mday : kLastMday;
    last->tm_hour = 23;
    last->tm_min = 59;
    last->tm_sec = 59;
}

void log_out_of_range(int level, const struct tm &day) {
    int year = day.tm_year + 1900, mon = day.tm_mon + 1;
    if (level == kLevelYear) {
        FS_LOG_INFO("year :%d out of range\n", year);
    } else if (level == kLevelMonth) {
        FS_LOG_INFO("year:%d mon :%d out of range\n", year, mon);
    } else {
        FS_LOG_INFO("year:%d mon :%d day:%d out of range\n", year, mon, day.tm_mday);
    }
}

struct tm midnight_of(const struct tm &t) {
    struct tm m = t;
    m.tm_sec = m.tm_min = m.tm_hour = 0;
    return m;
}

// A year, month or day directory of the cache: skipped when it starts after t, removed whole
// when it ends before t's day.
int prune_directory_before(const char *path, int level, const struct tm &day, const struct tm &t,
                           const char *when) {
    struct tm first, last;
    directory_span(level, day, &first, &last);
    if (tm_cmp(&first, &t) > 0) {
        log_out_of_range(level, day);
        return kWalkSkip;
    }
    struct tm t_day = midnight_of(t);
    if (tm_cmp(&last, &t_day) < 0) {
        FS_LOG_INFO("remove cache file:%s before:%s\n", path, when);
        remove_file(path, kRemoveTree);
    }
    FS_LOG_INFO("be care of file name:%s before:%s", path, when);
    return kWalkContinue;
}

// A cache file: skipped when its day starts after t, rewritten without the tags before t's time
// of day when it is t's day, removed when its day is earlier.
int prune_file_before(const char *path, int disk_id, int channel, const struct tm &day, int type,
                      const struct tm &t, const char *when) {
    struct tm file_day = midnight_of(day);
    struct tm t_day = midnight_of(t);
    if (tm_cmp(&file_day, &t) > 0) return kWalkSkip;
    if (tm_cmp(&file_day, &t_day) == 0) {
        do_cache_delete_cond(disk_id, channel, &t, type, before_cachetag);
        return kWalkContinue;
    }
    FS_LOG_INFO("remove cache file:%s before:%s\n", path, when);
    remove_file(path, kRemoveTree);
    return kWalkContinue;
}

// Copies the tags of in that pred keeps (all without pred) to out, then cuts out to what was
// copied: "cachetmp" is opened without truncation, and a copy left by an interrupted rewrite must
// not contribute its old tags. False (reported) when a tag cannot be read or written.
bool copy_kept_tags(int in, int out, cache_tag_pred pred, const struct tm *t) {
    off64_t written = 0;
    uint32_t lo = 0, hi = 0;
    int status;
    while ((status = do_cache_read_tag(in, &lo, &hi)) == 1) {
        if (pred && pred(lo, hi, t) == 0) continue;
        if (do_cache_write_tag(out, lo, hi) != static_cast<int>(kCacheTagSize)) {
            perror("write cache tag");
            return false;
        }
        written += static_cast<off64_t>(kCacheTagSize);
    }
    if (status < 0) {
        perror("read cache tag");
        return false;
    }
    if (io_calls().ftruncate64(out, written) < 0) {
        perror("ftruncate");
        return false;
    }
    return true;
}

// Puts the finished copy in place of the cache file; an empty result is removed.
int replace_with_copy(const char *cachefile, const char *tmpfile) {
    if (io_calls().remove(cachefile) < 0) perror("remove");
    if (io_calls().rename(tmpfile, cachefile) < 0) perror("rename");
    struct stat64 st;
    if (io_calls().stat64(cachefile, &st) < 0) {
        perror("stat");
        return -1;
    }
    if (st.st_size == 0) io_calls().remove(cachefile);
    return 0;
}

}  // namespace

namespace recstore {

void cache_tag_to_bytes(uint32_t lo, uint32_t hi, unsigned char (&out)[kCacheTagSize]) {
    le32_store(out, lo);
    le32_store(out + 4, hi);
}

void cache_tag_from_bytes(const unsigned char (&in)[kCacheTagSize], uint32_t *lo, uint32_t *hi) {
    *lo = le32_load(in);
    *hi = le32_load(in + 4);
}

}  // namespace recstore

// ---------------------------------------------------------------------------------------------
// Tag I/O and rewriting
// ---------------------------------------------------------------------------------------------

int do_cache_read_tag(int fd, uint32_t *lo, uint32_t *hi) {
    if (!lo || !hi) return -1;
    unsigned char bytes[kCacheTagSize];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = io_calls().read(fd, bytes + got, sizeof bytes - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) return 0;  // end of file, or a partial tail that is dropped
        got += static_cast<size_t>(n);
    }
    recstore::cache_tag_from_bytes(bytes, lo, hi);
    return 1;
}

int do_cache_write_tag(int fd, uint32_t lo, uint32_t hi) {
    unsigned char bytes[kCacheTagSize];
    recstore::cache_tag_to_bytes(lo, hi, bytes);
    ssize_t n;
    do {
        n = io_calls().write(fd, bytes, sizeof bytes);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

int do_cache_rewrite(const char *cachefile, const char *tmpfile, cache_tag_pred pred,
                     const struct tm *t) {
    if (!cachefile || !tmpfile) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (!path_exists(cachefile)) {
        FS_LOG_INFO("cache file :%s not exist\n", cachefile);
        return -1;
    }
    FdGuard in(io_calls().open(cachefile, O_RDONLY | O_LARGEFILE, 0));
    FdGuard out(in.get() < 0
                    ? -1
                    : io_calls().open(tmpfile, O_WRONLY | O_CREAT | O_LARGEFILE, kCacheFileMode));
    if (in.get() < 0 || out.get() < 0) {
        FS_LOG_ERR("cache file :%s open err\n", cachefile);
        return -1;
    }
    // On any failure the half-written "cachetmp" is dropped and the cache file stays as it was.
    if (!copy_kept_tags(in.get(), out.get(), pred, t)) {
        out.reset();
        io_calls().remove(tmpfile);
        return -1;
    }
    in.reset();
    out.reset();
    return replace_with_copy(cachefile, tmpfile);
}

void do_cache_prune_dirs(const char *dir, const char *root) {
    if (!dir || !root) return;
    char cur[kPath];
    if (!join_path(cur, sizeof cur, dir, "")) return;
    size_t root_len = strlen(root);
    for (int level = 0; level < kMaxPruneLevels; level++) {
        if (strncmp(cur, root, root_len) != 0 || strcmp(cur, root) <= 0) return;
        if (rm_empty_dir(cur) != 0) return;
        char parent[kPath];
        mk_parent(cur, sizeof parent, parent);
        if (parent[0] == '\0' || strcmp(parent, cur) == 0) return;
        memcpy(cur, parent, sizeof cur);
    }
}

// ---------------------------------------------------------------------------------------------
// Mounting
// ---------------------------------------------------------------------------------------------

int cache_init(int inodes, unsigned size_mib, int readonly) {
    int disks = probed_disk_count();
    make_dir(recstore::kCacheRoot);
    __atomic_store_n(&g_cache_rdonly, readonly ? 1 : 0, __ATOMIC_RELEASE);
    if (readonly) {
        FS_LOG_INFO("cache initialize readonly\n");
        return 0;
    }
    if (find_mount_point(recstore::kCacheRoot, nullptr)) {
        FS_LOG_INFO("cache had already mounted\n");
        return 0;
    }
    if (!valid_cache_size(inodes, size_mib, disks)) return -1;
    return mount_cache(disks * static_cast<int>(size_mib), inodes);
}

int cache_exit(void) {
    wait_for_loaders();
    if (cache_rdonly()) return 0;
    if (!find_mount_point(recstore::kCacheRoot, nullptr)) {
        FS_LOG_INFO("cache had already unmounted\n");
        return 0;
    }
    char cmd[kPath];
    snprintf(cmd, sizeof cmd, "umount -f %s", recstore::kCacheRoot);
    return fs_system(cmd);
}

// ---------------------------------------------------------------------------------------------
// Loading a disk's cache
// ---------------------------------------------------------------------------------------------

int cache_load(const char *device) {
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return 0;
    }
    if (!valid_device(device)) return -1;
    std::unique_ptr<LoaderArg> arg(new (std::nothrow) LoaderArg());
    if (!arg) return -1;
    snprintf(arg->device, sizeof arg->device, "%s", device);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int disk = todiskid(device);
    loader_started(disk);
    int rc = pthread_create(&thread, &attr, cache_load_thread, arg.get());
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        loader_finished(disk);
        FS_LOG_ERR("cache load thread err:%s\n", strerror(rc));
        return -1;
    }
    arg.release();  // now owned by the thread
    return 0;
}

void *proc_cache_load(void *device_arg) {
    const char *device = static_cast<const char *>(device_arg);
    if (!valid_device(device)) return nullptr;
    time_t begin = time(nullptr);
    cache_clear(device);
    char root[kPath] = "";
    mount_point(device, root, sizeof root);
    // The plain load appends each tag with cache_create.
    LeafAppender app;
    LeafAppender *held = g_fast_load.load(std::memory_order_relaxed) ? &app : nullptr;
    if (held && is_directory(root)) {
        // The directory listing's entry types stand in for a status call per entry.
        find_recursive_nostat(root, DT_DIR, 1, 0, 0, load_file_action, load_dir_action, held,
                              nullptr);
    } else {
        find_recursive(root, 1, 0, 0, load_action, load_action, held, nullptr);
    }
    app.fd.reset();
    if (loader_stopped()) return nullptr;  // the disk is being taken down: not loaded
    FS_LOG_PLAIN("cache load finished use:%d sec\n", static_cast<int>(time(nullptr) - begin));
    cache_set_loaded(static_cast<unsigned>(todiskid(device)), 1);
    return nullptr;
}

void recstore::cache_stop_loader(const char *device) {
    const int disk = todiskid(device);
    if (!valid_disk_id(disk)) return;
    MutexGuard guard(g_loaders_lock);
    g_loader_stop[disk].store(true);
    while (g_disk_loaders[disk] > 0) pthread_cond_wait(&g_loaders_done, &g_loaders_lock);
    g_loader_stop[disk].store(false);
}

namespace {

int build_entry(const char *path, const struct stat *st, LeafAppender *app) {
    if (!path) return kWalkContinue;
    if (loader_stopped()) return kWalkStop;
    // The link tree of the data blocks is never mirrored.
    if (strstr(path, "link")) return kWalkSkip;
    if (st && S_ISDIR(st->st_mode)) {
        mirror_directory(path);
        return kWalkContinue;
    }
    cache_index_file(path, app);
    return kWalkContinue;  // one bad file never stops the build
}

// The loader's walk action: buildcache with the loader's held-open leaf file (user).
int load_action(const char *path, struct stat *st, void *user) {
    return build_entry(path, st, static_cast<LeafAppender *>(user));
}

// The walk without status calls: directories as the listing types them.
int load_dir_action(const char *path, void *user) {
    struct stat st = {};
    st.st_mode = S_IFDIR;
    return load_action(path, &st, user);
}

// A file as the listing types it. Anything that is not named like an index file is looked at
// once more: a directory the listing could not type is walked as the walk with status calls
// would (mirrored and descended).
int load_file_action(const char *path, void *user) {
    int disk_id = -1, channel = 0, type = 0;
    struct tm start = {};
    if (path && !strstr(path, "link") &&
        fullname_to_record(path, &disk_id, &channel, &start, &type) < kIndexFileFields &&
        is_directory(path)) {
        char copy[kPath];
        snprintf(copy, sizeof copy, "%s", path);
        find_recursive(copy, 1, 0, 0, load_action, load_action, user, nullptr);
        return kWalkContinue;
    }
    struct stat st = {};
    st.st_mode = S_IFREG;
    return load_action(path, &st, user);
}

}  // namespace

int buildcache(const char *path, struct stat *st, void * /*user*/) {
    return build_entry(path, st, nullptr);
}

int cache_unload(const char *device) {
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return 0;
    }
    return cache_clear(device);
}

int cache_clear(const char *device) {
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return 0;
    }
    if (!valid_device(device)) return -1;
    char mnt[kPath] = "";
    mount_point(device, mnt, sizeof mnt);
    char cache_dir[kPath];
    tocachename(cache_dir, sizeof cache_dir, mnt);
    if (cache_dir[0] == '\0') return -1;
    MutexGuard guard(g_cachelock);
    // The second pass catches what the first could not remove.
    remove_file(cache_dir, kRemoveTree);
    remove_file(cache_dir, kRemoveTree);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Tags
// ---------------------------------------------------------------------------------------------

namespace {

// The leaf paths and the tag of a recording's cache entry. 1 when they are made; else the result
// cache_create gives (0 when the cache is read-only, -1 when refused, reported).
int prepare_tag(int disk_id, int channel, const struct tm *start, const struct tm *end, int type,
                unsigned mode, uint32_t total_bytes, LeafPaths *paths, uint64_t *tag) {
    if (!start || !end) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (tm_cmp(start, end) > 0) return -1;
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return 0;
    }
    if (!valid_leaf(disk_id, channel, type) || !leaf_paths(disk_id, channel, start, type, paths)) {
        return -1;
    }
    char name[kPath];
    mk_idx_filename(name, sizeof name, channel, start, type);
    struct tm end_copy = *end;  // the tag builder may change the end time it is given
    *tag = filename_to_cachetag(&end_copy, mode, total_bytes, name);
    return 1;
}

// cache_create for the loader: the same checks, tag and messages, appended through the loader's
// held-open leaf file.
int loader_cache_create(LeafAppender *app, int disk_id, int channel, const struct tm *start,
                        const struct tm *end, int type, unsigned mode, uint32_t total_bytes) {
    LeafPaths paths;
    uint64_t tag = 0;
    int prepared = prepare_tag(disk_id, channel, start, end, type, mode, total_bytes, &paths, &tag);
    if (prepared != 1) return prepared;
    MutexGuard guard(g_cachelock);
    return append_through(app, paths, tag);
}

}  // namespace

int cache_create(int disk_id, int channel, const struct tm *start, const struct tm *end, int type,
                 unsigned mode, uint32_t total_bytes) {
    LeafPaths paths;
    uint64_t tag = 0;
    int prepared = prepare_tag(disk_id, channel, start, end, type, mode, total_bytes, &paths, &tag);
    if (prepared != 1) return prepared;
    // The directory is made under the lock too, so that a rewrite emptying the leaf or a clear
    // cannot remove it between its creation and the append.
    MutexGuard guard(g_cachelock);
    FdGuard fd(open_leaf_file(paths));
    if (fd.get() < 0) return -1;
    append_tag(fd.get(), tag);
    return 0;
}

void recstore::cache_set_fast_load(bool fast) {
    g_fast_load.store(fast);
}

int cache_set_loaded(unsigned disk_id, int value) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%u\n", disk_id);
        return -1;
    }
    __atomic_store_n(&g_cache_loaded[disk_id], value, __ATOMIC_RELEASE);
    return -1;  // callers ignore the result; it has always been -1
}

int cache_is_loaded(unsigned disk_id) {
    if (!valid_disk_id(disk_id)) return 0;
    return __atomic_load_n(&g_cache_loaded[disk_id], __ATOMIC_ACQUIRE);
}

int cache_isfull(void) {
    if (!find_mount_point(recstore::kCacheRoot, nullptr)) return 0;
    struct statfs64 sf;
    if (io_calls().statfs64(recstore::kCacheRoot, &sf) != 0) return 0;
    // A tmpfs without a block or inode limit reports 0 total and 0 free of it: never full.
    bool blocks_full = sf.f_blocks != 0 && sf.f_bfree <= 1;
    bool inodes_full = sf.f_files != 0 && sf.f_ffree <= 1;
    if (!blocks_full && !inodes_full) return 0;
    fs_log_file("cache full,freeblock :%ld,free innode:%ld\n", static_cast<long>(sf.f_bfree),
                static_cast<long>(sf.f_ffree));
    return 1;
}

int cache_is_readonly(void) {
    return __atomic_load_n(&g_cache_rdonly, __ATOMIC_ACQUIRE);
}

void cache_dump(int fd, int disk_id) {
    if (fd < 0 || disk_id < 0) return;
    io_dprintf(fd, "cache full?:%d rdonly?:%d loaded?:%d", cache_isfull(), cache_is_readonly(),
               cache_is_loaded(static_cast<unsigned>(disk_id)));
}

// ---------------------------------------------------------------------------------------------
// Removing tags and cache files
// ---------------------------------------------------------------------------------------------

int do_cache_delete_cond(int disk_id, int channel, const struct tm *t, int type,
                         cache_tag_pred pred) {
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return 0;
    }
    if (!t) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    LeafPaths paths;
    if (!valid_leaf(disk_id, channel, type) || !leaf_paths(disk_id, channel, t, type, &paths)) {
        return -1;
    }
    MutexGuard guard(g_cachelock);
    if (do_cache_rewrite(paths.file, paths.tmp, pred, t) < 0) return -1;
    do_cache_prune_dirs(paths.dir, paths.root);
    return 0;
}

int cache_delete(int disk_id, int channel, const struct tm *start, int type) {
    return do_cache_delete_cond(disk_id, channel, start, type, match_cachetag);
}

int cache_del_before_action(const char *path, void *user) {
    if (!path || !user) {
        FS_LOG_ERR("invalid param\n");
        return kWalkStop;
    }
    if (cache_rdonly()) {
        FS_LOG_INFO("cache readonly\n");
        return kWalkStop;
    }
    time_t seconds = *static_cast<const time_t *>(user);
    struct tm t = {};
    gmtime_r(&seconds, &t);
    char when[64] = "";
    asctime_r(&t, when);
    int disk_id = -1, channel = 0, type = 0;
    struct tm day = {};
    int level = cachefullname_to_record(path, &disk_id, &channel, &day, &type);
    if (level <= 0) {
        FS_LOG_ERR("invalid level\n");
        return kWalkSkip;
    }
    if (level == kLevelDisk || level == kLevelChannel || level == kLevelType) return kWalkContinue;
    if (level < kLevelType) return prune_directory_before(path, level, day, t, when);
    return prune_file_before(path, disk_id, channel, day, type, t, when);
}

int cache_delete_before(void) {
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Search and calendar over a channel's cache tree
// ---------------------------------------------------------------------------------------------

namespace {

// Level 2 of a cache walk: the narrowed channel test of the cache (see cache_channel_mask).
bool cache_channel_ok(uint64_t chanbits, int channel) {
    return (chanbits & recstore::cache_channel_mask(channel)) != 0;
}

// Reads every tag of one cache file and offers its recording to the search. The scan holds
// g_cachelock so that it never sees a file half rewritten; the callback runs under it.
int do_cache_find_scan(const char *path, fs_find_req *req) {
    MutexGuard guard(g_cachelock);
    FdGuard fd(io_calls().open(path, O_RDONLY | O_LARGEFILE, 0));
    if (fd.get() < 0) {
        FS_LOG_ERR("open %s err\n", path);
        return kWalkSkip;
    }
    uint32_t lo = 0, hi = 0;
    int status = 0;
    while ((status = do_cache_read_tag(fd.get(), &lo, &hi)) == 1) {
        int disk_id = -1, channel = -1, type = -1, mode = 0;
        unsigned total_bytes = 0;
        struct tm start = {}, end = {};
        if (cachetag_to_record(path, 0, lo, hi, &disk_id, &channel, &start, &end, &type, &mode,
                               &total_bytes) != 0) {
            return kWalkSkip;
        }
        fs_find_record found;
        memset(&found, 0, sizeof found);
        to_fs_tm(&start, &found.start);
        to_fs_tm(&end, &found.end);
        found.channel = static_cast<uint32_t>(channel);
        found.type = static_cast<uint32_t>(type);
        found.disk_id = disk_id;
        recordinfo info;
        memset(&info, 0, sizeof info);
        info.mode = static_cast<uint32_t>(mode);
        info.total_bytes = total_bytes;
        if (recstore::find_offer(req, found, info, mode, true) == kWalkSkip) return kWalkSkip;
    }
    if (status < 0) perror("read");
    return kWalkContinue;
}

}  // namespace

namespace {

// The part of the walk over a cache tree that search and calendar share: directory levels get
// their verdict from the channel, range and type tests. True with the day of a cache file; false
// with the walk's verdict in *verdict otherwise.
template <typename Request>
bool cache_path_is_file(const char *path, const Request &req, bool calendar, int *verdict,
                        struct tm *day) {
    *verdict = kWalkSkip;
    int disk_id = -1, channel = -1, type = -1;
    const int level = cachefullname_to_record(path, &disk_id, &channel, day, &type);
    if (level <= 0) {
        FS_LOG_ERR("invalid level\n");
        return false;
    }
    if (level == kLevelDisk) {
        *verdict = kWalkContinue;
        return false;
    }
    if (level == kLevelChannel) {
        if (cache_channel_ok(req.chanbits, channel)) {
            *verdict = kWalkContinue;
        } else if (calendar) {
            FS_LOG_INFO("chanbits :%lld found :%d\n", static_cast<long long>(req.chanbits),
                        channel);
        } else {
            FS_LOG_INFO("chanbits :%lld finded :%d\n", static_cast<long long>(req.chanbits),
                        channel);
        }
        return false;
    }
    if (level <= kLevelType) {
        *verdict =
            recstore::catalogue_dir_verdict(level, *day, type, req.start, req.end, req.substream);
        return false;
    }
    return true;
}

}  // namespace

int cache_findaction(const char *path, struct stat *st, void *request) {
    if (!path || !request) return kWalkSkip;
    fs_find_req *req = static_cast<fs_find_req *>(request);
    if (recstore::find_reached_max(*req)) return kWalkStop;
    int verdict = kWalkSkip;
    struct tm day = {};
    if (!cache_path_is_file(path, *req, false, &verdict, &day)) return verdict;
    // Nothing of the cache lives below its files: a directory here is a stray, not entered.
    if (st && S_ISDIR(st->st_mode)) return kWalkSkip;
    return do_cache_find_scan(path, req);
}

int cache_calendar_action(const char *path, void *request) {
    if (!path || !request) return kWalkSkip;
    fs_calendar_req *req = static_cast<fs_calendar_req *>(request);
    if (recstore::calendar_day_found(*req)) return kWalkStop;
    int verdict = kWalkSkip;
    struct tm day = {};
    if (!cache_path_is_file(path, *req, true, &verdict, &day)) return verdict;
    // Only the date of the cache file counts, at its midnight: the file is never read.
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    if (tm_cmp(&req->start, &day) > 0 || tm_cmp(&day, &req->end) > 0) {
        FS_LOG_INFO("time out of range\n");
        return kWalkSkip;
    }
    return recstore::calendar_report(req, path);
}
