// SPDX-License-Identifier: MIT
// Foundations of the library: message printing and the event log file, the external-command
// wrapper, broken-down time conversion, walk statistics, the naming of every device, partition,
// directory, file, link and cache entry (with the cache tag codec), directory walking and
// removal, mount-table lookups, block-device sizes and raw cluster I/O.
//
// File map, in order:
//   (head) Layout checks of the shared records, constants and small helpers.
//   The I/O seam: the table of every system call the library makes (io_calls), its defaults,
//     reset_all and io_dprintf.
//   Messages: the host's log handler (recstore_set_log_handler), fs_log_msg, fs_log_plain,
//     fs_assert_fail.
//   Host utilities and the event log: fs_log_init/exit/file, fs_system, fs_tm conversion, walk
//     statistics text.
//   Device, partition and index-tree names: disk_root, *_partion, mount_point, idx_root, the
//     mk_idx_* builders, todiskid, tocachename.
//   Name parsers: filename_to_record, fullname_to_record, linkname_to_record and the cache forms.
//   Cache tags: the 8-byte tag codec and its match predicates.
//   Path helpers: mk_parent, mkdir_recursive, path joins, empty-directory removal.
//   Directory walking: the timed walk helpers, find_recursive(_nostat), remove_file.
//   Mount table, block devices, clusters: mount lookups, blockdev_size, the supported disk size,
//     read_cluster and write_cluster.
#include "fs_tools.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <mntent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "fs.h"     // g_disk: the device names every disk path is built from
#include "index.h"  // g_magic: the disk format that bounds the supported size

using recstore::valid_disk_id;

static_assert(sizeof(fs_tm) == 44, "fs_tm is eleven 32-bit words");
static_assert(offsetof(fs_tm, tm_isdst) == 32, "fs_tm keeps struct tm's field order");
static_assert(offsetof(fs_tm, zero) == 36, "fs_tm ends with two zero words");
static_assert(sizeof(find_debug_info) == 16, "four 32-bit counters");
static_assert(sizeof(find_debug) == 96, "six kinds of walk step");
static_assert(sizeof(datazone_info) == 184, "datazone_info is 184 bytes on every platform");
static_assert(offsetof(datazone_info, totalsize) == 128, "datazone_info layout");
static_assert(offsetof(datazone_info, freesize) == 136, "datazone_info layout");
static_assert(offsetof(datazone_info, cluster_size) == 144, "datazone_info layout");
static_assert(offsetof(datazone_info, data_count) == 180, "datazone_info layout");
static_assert(offsetof(fs_disk_info, devname) == 20, "disk table entry layout");
static_assert(offsetof(fs_disk_info, idx_root) == 148, "disk table entry layout");
#if defined(__arm__)
// The host copies whole disk table entries: keep the target's 560-byte layout.
static_assert(sizeof(struct statfs) == 64, "32-bit statfs record");
static_assert(sizeof(pthread_mutex_t) == 24, "32-bit mutex");
static_assert(sizeof(fs_disk_info) == 560, "a disk table entry is 560 bytes on the target");
static_assert(offsetof(fs_disk_info, idx_statfs) == 276, "disk table entry layout");
static_assert(offsetof(fs_disk_info, reserved1) == 340, "disk table entry layout");
static_assert(offsetof(fs_disk_info, dz_info) == 344, "disk table entry layout");
static_assert(offsetof(fs_disk_info, lock) == 528, "disk table entry layout");
static_assert(offsetof(fs_disk_info, opened_flag) == 552, "disk table entry layout");
#endif

namespace {

constexpr const char *kLogFile = "/mnt/img/log.log";
constexpr off64_t kLogFileMax = 0x200000;  // the log restarts empty past 2 MiB
constexpr size_t kScratchWord = 16;        // device word of "/dev/hd/%s" and "/mnt/%s"
constexpr size_t kNameBuf = 128;           // mount-table names are compared in 128-byte buffers
constexpr size_t kMntStrings = 4096;       // string buffer of one mount-table entry
constexpr size_t kWalkPath = 256;          // child paths of a directory walk
constexpr uint64_t kTiB = 0x10000000000ull;

const char *base_name(const char *file) {
    const char *slash = strrchr(file, '/');
    return slash ? slash + 1 : file;
}

bool gate_open(uint32_t level) {
    return (modulemask & RECSTORE_MODULE_BIT) != 0 && (loglevel & level) != 0;
}

const char *prefix_for(uint32_t level) {
    switch (level) {
        case RECSTORE_LOG_ERROR:
            return "\e[0;31m[%s:%d]:\e[0m";
        case RECSTORE_LOG_WARNING:
            return "\e[1;33m[%s:%d]:\e[0m";
        default:
            return "\e[0;32m[%s:%d]:\e[0m";
    }
}

// Empties dst (when it has room) and returns it: what a builder gives for a refused input.
char *refuse(char *dst, size_t n) {
    if (dst && n > 0) dst[0] = '\0';
    return dst;
}

// Subtracts without the undefined behaviour of a signed overflow on garbage input.
int wrap_sub(int v, int d) {
    return static_cast<int>(static_cast<unsigned>(v) - static_cast<unsigned>(d));
}

// Year and month as names print them: four-digit year, month 1-12.
int name_year(const struct tm *t) {
    return wrap_sub(t->tm_year, -1900);
}
int name_mon(const struct tm *t) {
    return wrap_sub(t->tm_mon, -1);
}

void adjust_parsed(struct tm *t) {
    t->tm_year = wrap_sub(t->tm_year, 1900);
    t->tm_mon = wrap_sub(t->tm_mon, 1);
}

uint32_t tick_now() {
    return static_cast<uint32_t>(get_tick_count(1));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The I/O seam
// ---------------------------------------------------------------------------------------------

namespace recstore {

// The defaults that are not plain C library functions: with the table in fs_tools.h, the only
// direct system calls of the library (tests/unit/check_io_seam.sh checks that).
// io-seam-defaults-begin
namespace io_default {

int open(const char *path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}

int ioctl(int fd, unsigned long request, void *arg) {
    return ::ioctl(fd, request, arg);
}

int host_system(const char *command) {
    return ::pip_system(command);
}

}  // namespace io_default
// io-seam-defaults-end

namespace {

// The table starts with every default in place before any code of the library runs.
IoCalls g_io_calls;

}  // namespace

IoCalls &io_calls() {
    return g_io_calls;
}

// Every entry of IoCalls is reset here; the size check catches an entry added without a line.
void IoCalls::reset_all() {
    constexpr size_t kEntries = 44;
    static_assert(sizeof(IoCalls) == kEntries * sizeof(IoCall<int(int)>), "reset every entry");
    open.reset();
    close.reset();
    read.reset();
    write.reset();
    pread64.reset();
    pwrite64.reset();
    readv.reset();
    writev.reset();
    preadv64.reset();
    pwritev64.reset();
    lseek64.reset();
    fsync.reset();
    fdatasync.reset();
    syncfs.reset();
    sync_file_range.reset();
    ftruncate64.reset();
    ioctl.reset();
    vdprintf.reset();
    fstat64.reset();
    stat64.reset();
    lstat64.reset();
    statfs.reset();
    statfs64.reset();
    access.reset();
    futimes.reset();
    unlink.reset();
    remove.reset();
    rmdir.reset();
    mkdir.reset();
    symlink.reset();
    readlink.reset();
    rename.reset();
    opendir.reset();
    readdir.reset();
    readdir64.reset();
    closedir.reset();
    sync.reset();
    setmntent.reset();
    getmntent_r.reset();
    endmntent.reset();
    system.reset();
    host_system.reset();
    popen.reset();
    pclose.reset();
}

int io_dprintf(int fd, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    const int n = io_calls().vdprintf(fd, format, ap);
    va_end(ap);
    return n;
}

}  // namespace recstore

using recstore::io_calls;

// Every function below is declared with C linkage in recstore.h or fs_tools.h.

// ---------------------------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------------------------

namespace {

constexpr const char *kPlainModule = "recstore";  // module of the messages printed plain
constexpr const char *kEventModule = "event";     // module of the event log's lines
constexpr size_t kLogText = 512;                  // messages up to this size need no allocation

// A host's log handler as installed. Sinks are never freed: a thread that loaded one may still be
// calling it while the host installs another. Each keeps the one installed before it reachable.
struct LogSink {
    recstore_log_fn fn;
    void *user;
    const LogSink *older;
};
std::atomic<const LogSink *> g_log_sink{nullptr};  // the handler in use, null: standard output
const LogSink *g_log_sinks = nullptr;              // every sink made, newest first (under lock)
pthread_mutex_t g_log_sinks_lock = PTHREAD_MUTEX_INITIALIZER;

const LogSink *log_sink() {
    return g_log_sink.load(std::memory_order_acquire);
}

std::string format_text(const char *format, va_list ap) {
    va_list again;
    va_copy(again, ap);
    char small[kLogText];
    const int n = vsnprintf(small, sizeof small, format, ap);
    std::string text;
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        text.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&text[0], text.size(), format, again);
        text.resize(static_cast<size_t>(n));
    }
    va_end(again);
    return text;
}

void deliver(const LogSink *sink, uint32_t level, const char *module, const char *format,
             va_list ap) {
    const std::string text = format_text(format, ap);
    sink->fn(sink->user, level, module, text.c_str());
}

}  // namespace

void recstore_set_log_handler(recstore_log_fn fn, void *user) {
    if (fn == nullptr) {
        g_log_sink.store(nullptr, std::memory_order_release);
        return;
    }
    recstore::MutexGuard hold(g_log_sinks_lock);
    LogSink *sink = new LogSink{fn, user, g_log_sinks};
    g_log_sinks = sink;
    g_log_sink.store(sink, std::memory_order_release);
}

// The one place that prints the coloured "[file:line]:" prefix, or hands the message to the
// host's handler when one is installed.
static void log_prefixed(uint32_t level, const char *file, int line, const char *format,
                         va_list ap) {
    if (const LogSink *sink = log_sink()) {
        deliver(sink, level, base_name(file), format, ap);
        return;
    }
    printf(prefix_for(level), base_name(file), line);
    vprintf(format, ap);
    fflush(stdout);
}

void fs_log_msg(uint32_t level, const char *file, int line, const char *format, ...) {
    if (!gate_open(level)) return;
    va_list ap;
    va_start(ap, format);
    log_prefixed(level, file, line, format, ap);
    va_end(ap);
}

void fs_log_msg_always(uint32_t level, const char *file, int line, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    log_prefixed(level, file, line, format, ap);
    va_end(ap);
}

void fs_log_plain(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    if (const LogSink *sink = log_sink()) {
        deliver(sink, RECSTORE_LOG_PLAIN, kPlainModule, format, ap);
        va_end(ap);
        return;
    }
    vprintf(format, ap);
    va_end(ap);
    fflush(stdout);
}

void fs_assert_fail(const char *expr, const char *file, int line) {
    if (const LogSink *sink = log_sink()) {
        const std::string text = std::string("assert expression: ") + expr +
                                 ",at file:" + base_name(file) + ",line:" + std::to_string(line) +
                                 "\nhalt\n";
        sink->fn(sink->user, RECSTORE_LOG_ERROR, base_name(file), text.c_str());
        abort();
    }
    printf("assert expression: %s,at file:%s,line:%d\n", expr, base_name(file), line);
    printf("halt\n");
    fflush(stdout);
    abort();
}

// ---------------------------------------------------------------------------------------------
// Host utilities and the event log
// ---------------------------------------------------------------------------------------------

// Set by a mount of the system partition (on any thread) while the daemon logs: read and written
// atomically.
uint32_t g_plog_inited = 0;

int fs_log_init(const char * /*path: the log is always kLogFile*/) {
    __atomic_store_n(&g_plog_inited, 1u, __ATOMIC_RELEASE);
    return 0;
}

int fs_log_is_inited(void) {
    return static_cast<int>(__atomic_load_n(&g_plog_inited, __ATOMIC_ACQUIRE));
}

void fs_log_exit(void) {
    __atomic_store_n(&g_plog_inited, 0u, __ATOMIC_RELEASE);
}

int fs_log_file(const char *format, ...) {
    if (!fs_log_is_inited()) return -1;
    recstore::FdGuard file(
        io_calls().open(kLogFile, O_RDWR | O_CREAT | O_APPEND | O_LARGEFILE, 0777));
    if (file.get() < 0) perror("open log");
    if (file.get() >= 0) {
        struct stat64 st;
        if (io_calls().fstat64(file.get(), &st) == 0 && st.st_size > kLogFileMax) {
            if (io_calls().ftruncate64(file.get(), 0) < 0) perror("ftruncate");
            io_calls().lseek64(file.get(), 0, SEEK_SET);
        }
    }
    char stamp[64] = {0};
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "%x %X", &local);

    const LogSink *sink = log_sink();
    if (sink == nullptr) {
        fflush(stdout);  // keep the order of buffered and direct writes to descriptor 1
        recstore::io_dprintf(1, "[%s]", stamp);
    }
    if (file.get() > 0) recstore::io_dprintf(file.get(), "[%s]", stamp);
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    if (sink != nullptr) {
        const std::string text = "[" + std::string(stamp) + "]" + format_text(format, ap);
        sink->fn(sink->user, RECSTORE_LOG_PLAIN, kEventModule, text.c_str());
    } else {
        io_calls().vdprintf(1, format, ap);
    }
    if (file.get() > 0) io_calls().vdprintf(file.get(), format, again);
    va_end(again);
    va_end(ap);
    return 0;
}

int fs_system(char *command) {
    if (loglevel < RECSTORE_LOG_USE_SYSTEM) return io_calls().host_system(command);
    fflush(stdout);
    return io_calls().system(command);
}

namespace {

// Copies the nine calendar fields; struct tm and fs_tm name them alike.
template <typename To, typename From>
void copy_calendar_fields(To *dst, const From *src) {
    dst->tm_sec = src->tm_sec;
    dst->tm_min = src->tm_min;
    dst->tm_hour = src->tm_hour;
    dst->tm_mday = src->tm_mday;
    dst->tm_mon = src->tm_mon;
    dst->tm_year = src->tm_year;
    dst->tm_wday = src->tm_wday;
    dst->tm_yday = src->tm_yday;
    dst->tm_isdst = src->tm_isdst;
}

}  // namespace

void from_fs_tm(struct tm *dst, const fs_tm *src) {
    if (!dst || !src) return;
    copy_calendar_fields(dst, src);
}

fs_tm *to_fs_tm(const struct tm *src, fs_tm *dst) {
    if (!src || !dst) return dst;
    copy_calendar_fields(dst, src);
    dst->zero[0] = 0;
    dst->zero[1] = 0;
    return dst;
}

char *find_debug_info_tostring(const find_debug_info *info, char *dst, size_t n) {
    if (!info || info->count == 0 || !dst) return dst;
    snprintf(dst, n, "%u %u %u %u %u", info->count, info->total, info->total / info->count,
             info->max, info->min);
    return dst;
}

char *find_debug_tostring(const find_debug *stats, char *dst, size_t n) {
    if (!stats || !dst || n == 0) return dst;
    const struct {
        const char *label;
        const find_debug_info *info;
    } kinds[] = {{"stat", &stats->stat},       {"opendir", &stats->opendir},
                 {"readdir", &stats->readdir}, {"closedir", &stats->closedir},
                 {"dirops", &stats->dirops},   {"fileops", &stats->fileops}};
    for (const auto &k : kinds) {
        if (k.info->count == 0) continue;
        char text[128] = {0};
        find_debug_info_tostring(k.info, text, sizeof text);
        size_t used = strnlen(dst, n);
        if (used + 1 >= n) break;
        snprintf(dst + used, n - used, "%s:[%s] ", k.label, text);
    }
    return dst;
}

// ---------------------------------------------------------------------------------------------
// Device, partition and index-tree names
// ---------------------------------------------------------------------------------------------

char *disk_root(int disk_id, char *dst, size_t n) {
    if (!dst) return dst;
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d\n", disk_id);
        return refuse(dst, n);
    }
    snprintf(dst, n, "%s", g_disk[disk_id].devname);
    return dst;
}

static char *partition_name(int disk_id, char *dst, size_t n, int number) {
    if (!dst) return dst;
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d\n", disk_id);
        return refuse(dst, n);
    }
    snprintf(dst, n, "%s%d", g_disk[disk_id].devname, number);
    return dst;
}

char *sys_partion(int disk_id, char *dst, size_t n) {
    return partition_name(disk_id, dst, n, 1);
}
char *idx_partion(int disk_id, char *dst, size_t n) {
    return partition_name(disk_id, dst, n, 2);
}
char *data_partion(int disk_id, char *dst, size_t n) {
    return partition_name(disk_id, dst, n, 3);
}

char *mount_point(const char *dev, char *dst, size_t n) {
    if (!dev || !dst || strlen(dev) < 9) return dst;
    // The word after "/dev/hd/" is read into a 16-byte scratch: a longer word is cut there.
    char word[kScratchWord] = {0};
    sscanf(dev, "/dev/hd/%15s", word);
    snprintf(dst, n, "/mnt/%s", word);
    return dst;
}

const char *dev_name(const char *mnt, char *dst, size_t n) {
    if (!mnt || strlen(mnt) < 6) return mnt;
    if (!dst) return dst;
    char word[kScratchWord] = {0};
    sscanf(mnt, "/mnt/%15s", word);
    snprintf(dst, n, "/dev/hd/%s", word);
    return dst;
}

char *idx_root(int disk_id, char *dst, size_t n) {
    if (!dst) return dst;
    char dev[RECSTORE_PATH_LEN];
    disk_root(disk_id, dev, sizeof dev);
    refuse(dst, n);  // a disk without a device path has no index root
    return mount_point(dev, dst, n);
}

char *idx_linkroot(int disk_id, char *dst, size_t n) {
    if (!dst) return dst;
    char root[RECSTORE_PATH_LEN];
    idx_root(disk_id, root, sizeof root);
    if (root[0] == '\0') return refuse(dst, n);
    snprintf(dst, n, "%s/link", root);
    return dst;
}

// Index root of disk_id into root; false (dst emptied) when the disk or the time is refused.
static bool tree_root(int disk_id, char *root, size_t size, char *dst, size_t n, const struct tm *t,
                      bool need_time) {
    if (!dst) return false;
    if (need_time && !t) {
        FS_LOG_ERR("invalid param\n");
        refuse(dst, n);
        return false;
    }
    idx_root(disk_id, root, size);
    if (root[0] == '\0') {
        refuse(dst, n);
        return false;
    }
    return true;
}

char *mk_idx_chnpath(int disk_id, char *dst, size_t n, int channel) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, nullptr, false)) return dst;
    snprintf(dst, n, "%s/%02d/", root, channel);
    return dst;
}

char *mk_idx_yearpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, t, true)) return dst;
    snprintf(dst, n, "%s/%02d/%04d/", root, channel, name_year(t));
    return dst;
}

char *mk_idx_monpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, t, true)) return dst;
    snprintf(dst, n, "%s/%02d/%04d/%02d/", root, channel, name_year(t), name_mon(t));
    return dst;
}

char *mk_idx_daypath(int disk_id, char *dst, size_t n, int channel, const struct tm *t) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, t, true)) return dst;
    snprintf(dst, n, "%s/%02d/%04d/%02d/%02d/", root, channel, name_year(t), name_mon(t),
             t->tm_mday);
    return dst;
}

char *mk_idx_fullpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, t, true)) return dst;
    snprintf(dst, n, "%s/%02d/%04d/%02d/%02d/%02d/", root, channel, name_year(t), name_mon(t),
             t->tm_mday, type);
    return dst;
}

char *mk_idx_filename(char *dst, size_t n, int channel, const struct tm *t, int type) {
    if (!dst) return dst;
    if (!t) {
        FS_LOG_ERR("invalid param\n");
        return refuse(dst, n);
    }
    snprintf(dst, n, "%02d%04d%02d%02d%02d%02d%02d_%02d", channel, name_year(t), name_mon(t),
             t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec, type);
    return dst;
}

char *mk_idx_fullname(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type) {
    char root[RECSTORE_PATH_LEN];
    if (!tree_root(disk_id, root, sizeof root, dst, n, t, true)) return dst;
    snprintf(dst, n, "%s/%02d/%04d/%02d/%02d/%02d/%02d%04d%02d%02d%02d%02d%02d_%02d", root, channel,
             name_year(t), name_mon(t), t->tm_mday, type, channel, name_year(t), name_mon(t),
             t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec, type);
    return dst;
}

char *mk_idx_fullname_relative(char *dst, size_t n, int channel, const struct tm *t, int type) {
    if (!dst) return dst;
    if (!t) {
        FS_LOG_ERR("invalid param\n");
        return refuse(dst, n);
    }
    snprintf(dst, n, "../../%02d/%04d/%02d/%02d/%02d/%02d%04d%02d%02d%02d%02d%02d_%02d", channel,
             name_year(t), name_mon(t), t->tm_mday, type, channel, name_year(t), name_mon(t),
             t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec, type);
    return dst;
}

char *mk_idx_linkpath(int disk_id, char *dst, size_t n, int block_id) {
    if (!dst) return dst;
    char root[RECSTORE_PATH_LEN];
    idx_linkroot(disk_id, root, sizeof root);
    if (root[0] == '\0') return refuse(dst, n);
    snprintf(dst, n, "%s/%08d", root, block_id);
    return dst;
}

char *mk_idx_linkname(int disk_id, char *dst, size_t n, int block_id, const char *filename) {
    if (!dst) return dst;
    char root[RECSTORE_PATH_LEN];
    idx_linkroot(disk_id, root, sizeof root);
    if (root[0] == '\0' || !filename) return refuse(dst, n);
    snprintf(dst, n, "%s/%08d/%s", root, block_id, filename);
    return dst;
}

int todiskid(const char *dev) {
    char letter = 0;
    if (dev) sscanf(dev, "/dev/hd/sd%c", &letter);
    return letter - 'a';
}

char *tocachename(char *dst, size_t n, const char *path) {
    if (!dst) return dst;
    const char *first = path ? strchr(path, '/') : nullptr;
    const char *second = first ? strchr(first + 1, '/') : nullptr;
    if (!second) {
        FS_LOG_ERR("no cache name for path:%s\n", path ? path : "(null)");
        return refuse(dst, n);
    }
    snprintf(dst, n, "/mnt/cache/%s", second + 1);
    return dst;
}

// ---------------------------------------------------------------------------------------------
// Name parsers: each returns how many fields it converted and never reads past the string.
// ---------------------------------------------------------------------------------------------

int filename_to_record(const char *name, int *channel, struct tm *start, int *type) {
    if (!name || !channel || !start || !type) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    int count =
        sscanf(name, "%02d%04d%02d%02d%02d%02d%02d_%02d", channel, &start->tm_year, &start->tm_mon,
               &start->tm_mday, &start->tm_hour, &start->tm_min, &start->tm_sec, type);
    adjust_parsed(start);
    return count < 0 ? 0 : count;
}

int fullname_to_record(const char *path, int *disk_id, int *channel, struct tm *start, int *type) {
    if (!path || !disk_id || !channel || !start || !type) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    char letter = 0;
    int count = sscanf(path, "/mnt/sd%c/%02d/%04d/%02d/%02d/%02d/%02d%04d%02d%02d%02d%02d%02d_%02d",
                       &letter, channel, &start->tm_year, &start->tm_mon, &start->tm_mday, type,
                       channel, &start->tm_year, &start->tm_mon, &start->tm_mday, &start->tm_hour,
                       &start->tm_min, &start->tm_sec, type);
    *disk_id = letter - 'a';
    adjust_parsed(start);
    return count < 0 ? 0 : count;
}

int linkname_to_record(const char *path, int *disk_id, int *block_id, int *channel,
                       struct tm *start, int *type) {
    if (!path || !disk_id || !block_id || !channel || !start || !type) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    char letter = 0;
    int count = sscanf(path, "/mnt/sd%c/link/%08d/%02d%04d%02d%02d%02d%02d%02d_%02d", &letter,
                       block_id, channel, &start->tm_year, &start->tm_mon, &start->tm_mday,
                       &start->tm_hour, &start->tm_min, &start->tm_sec, type);
    *disk_id = letter - 'a';
    adjust_parsed(start);
    return count < 0 ? 0 : count;
}

int cachefullname_to_record(const char *path, int *disk_id, int *channel, struct tm *day,
                            int *type) {
    if (!path || !disk_id || !channel || !day || !type) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    char letter = 0;
    char word[8] = {0};  // the cache file's own name; "%5s" stores at most 6 bytes
    int count = sscanf(path, "/mnt/cache/sd%c/%02d/%04d/%02d/%02d/%02d/%5s", &letter, channel,
                       &day->tm_year, &day->tm_mon, &day->tm_mday, type, word);
    *disk_id = letter - 'a';
    adjust_parsed(day);
    return count < 0 ? 0 : count;
}

// ---------------------------------------------------------------------------------------------
// Cache tags
// ---------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t kTagDayMask = 0xFFFFF;  // bits 0-19: start second of the day
constexpr int kTagDurShift = 20;           // duration's low 12 bits in lo bits 20-31
constexpr uint32_t kTagDurMask = 0xFFFF;   // duration kept modulo 65536
constexpr uint32_t kSecondsPerDay = 86400;

int seconds_of_day(const struct tm *t) {
    return t->tm_sec + 60 * t->tm_min + 3600 * t->tm_hour;
}

}  // namespace

uint64_t filename_to_cachetag(struct tm *end, unsigned mode, unsigned total_bytes,
                              const char *filename) {
    if (!end || !filename) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    struct tm start = {};
    int channel = 0, type = 0;
    filename_to_record(filename, &channel, &start, &type);
    if (tm_cmp(&start, end) > 0) {
        FS_LOG_ERR("fs start time >end time\n");
        *end = start;
    }
    struct tm midnight = start;
    midnight.tm_sec = midnight.tm_min = midnight.tm_hour = 0;
    uint32_t day_sec = static_cast<uint32_t>(tm_diff(&midnight, &start));
    uint32_t duration = static_cast<uint32_t>(tm_diff(&start, end));
    uint32_t lo = (duration << kTagDurShift) | (day_sec & kTagDayMask);
    uint32_t hi = ((duration >> 12) & 15u) | ((total_bytes >> 16) << 12) | ((mode * 16u) & 0xFF0u);
    return (static_cast<uint64_t>(hi) << 32) | lo;
}

int cachetag_to_record(const char *cachefile, int /*ignored*/, uint32_t lo, uint32_t hi,
                       int *disk_id, int *channel, struct tm *start, struct tm *end, int *type,
                       int *mode, unsigned *total_bytes) {
    if (!cachefile || !disk_id || !channel || !start || !end || !type || !mode || !total_bytes) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (cachefullname_to_record(cachefile, disk_id, channel, start, type) <= 0) {
        FS_LOG_ERR("cachefullname_to_record error:%s\n", cachefile);
        return -1;
    }
    uint32_t day_sec = lo & kTagDayMask;
    uint32_t duration = ((lo >> kTagDurShift) | (hi << 12)) & kTagDurMask;
    *mode = static_cast<int>((hi >> 4) & 0xFF);
    *total_bytes = ((hi >> 12) & 0xFFFF) << 16;
    if (!(day_sec < kSecondsPerDay && day_sec + duration < kSecondsPerDay + 1)) {
        FS_LOG_ERR("error start time:%d end time:%d\n", static_cast<int>(day_sec),
                   static_cast<int>(day_sec + duration));
    }
    start->tm_sec = start->tm_min = start->tm_hour = 0;
    tm_offset_sec(start, static_cast<int>(day_sec), start);
    tm_offset_sec(start, static_cast<int>(duration), end);
    return 0;
}

int match_cachetag(uint32_t lo, uint32_t /*hi*/, const struct tm *t) {
    if (!t) return -1;
    return static_cast<int>(lo & kTagDayMask) == seconds_of_day(t) ? 0 : -1;
}

int before_cachetag(uint32_t lo, uint32_t /*hi*/, const struct tm *t) {
    if (!t) return -1;
    return static_cast<int>(lo & kTagDayMask) < seconds_of_day(t) ? 0 : -1;
}

// ---------------------------------------------------------------------------------------------
// Path helpers
// ---------------------------------------------------------------------------------------------

char *mk_parent(const char *src, size_t n, char *dst) {
    if (!dst) return dst;
    if (!src || strlen(src) >= n) {
        // The copy would not fit in the caller's buffer: refuse rather than overrun it.
        FS_LOG_ERR("mk_parent: path does not fit in %u bytes\n", static_cast<unsigned>(n));
        return refuse(dst, n);
    }
    memmove(dst, src, strlen(src) + 1);
    size_t len = strlen(dst);
    for (size_t i = len >= 2 ? len - 1 : 0; i-- > 0;) {
        if (dst[i] == '/') {
            dst[i + 1] = '\0';
            break;
        }
    }
    return dst;
}

int mkdir_recursive(char *path) {
    if (!path) return 0;
    char *p = path;
    while ((p = strchr(p, '/')) != nullptr) {
        while (*p == '/') p++;
        char saved = *p;
        *p = '\0';
        bool stop = false;
        if (io_calls().mkdir(path, 0777) < 0) {
            if (errno != EEXIST) {
                perror("mkdir");
                stop = true;
            } else {
                struct stat64 st;
                if (io_calls().stat64(path, &st) == 0 && !S_ISDIR(st.st_mode)) {
                    errno = ENOTDIR;
                    perror("mkdir");
                    stop = true;
                }
            }
        }
        *p = saved;
        if (stop || saved == '\0') break;
    }
    return 0;
}

char *last_char_is(const char *s, int c) {
    if (!s || !*s) return nullptr;
    const char *last = s + strlen(s) - 1;
    return *last == static_cast<char>(c) ? const_cast<char *>(last) : nullptr;
}

char *concat_path_file(char *dst, size_t n, const char *path, const char *file) {
    if (!dst) return dst;
    if (!path) path = "";
    if (!file) file = "";
    while (*file == '/') file++;
    const char *sep = last_char_is(path, '/') ? "" : "/";
    snprintf(dst, n, "%s%s%s", path, sep, file);
    return dst;
}

char *concat_subpath_file(char *dst, size_t n, const char *path, const char *file) {
    if (file && (strcmp(file, ".") == 0 || strcmp(file, "..") == 0)) return nullptr;
    return concat_path_file(dst, n, path, file);
}

int is_dir_empty(const char *path) {
    DIR *dir = path ? io_calls().opendir(path) : nullptr;
    if (!dir) return 1;
    int empty = 1;
    while (struct dirent64 *de = io_calls().readdir64(dir)) {
        if (strcmp(de->d_name, ".") != 0 && strcmp(de->d_name, "..") != 0) {
            empty = 0;
            break;
        }
    }
    io_calls().closedir(dir);
    return empty;
}

int rm_empty_dir(const char *path) {
    if (!is_dir_empty(path)) return -1;
    if (path) io_calls().rmdir(path);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Directory walking
// ---------------------------------------------------------------------------------------------

void do_fill_find_debug_info(find_debug_info *info, unsigned duration) {
    if (!info) return;
    info->count++;
    info->total += duration;
    if (duration > info->max) info->max = duration;
    if (duration < info->min) info->min = duration;
}

namespace {

// Times one step into one kind of the statistics when statistics are kept.
template <typename Step>
auto timed(find_debug *stats, find_debug_info find_debug::*kind, Step step) -> decltype(step()) {
    if (!stats) return step();
    uint32_t t0 = tick_now();
    auto result = step();
    do_fill_find_debug_info(&(stats->*kind), tick_now() - t0);
    return result;
}

// The callbacks receive the classic status record; it is filled from the 64-bit one so that
// large inode numbers or sizes on the 32-bit target do not make the status read fail.
struct stat stat_for_callback(const struct stat64 &s) {
    struct stat st;
    memset(&st, 0, sizeof st);
    st.st_dev = static_cast<decltype(st.st_dev)>(s.st_dev);
    st.st_ino = static_cast<decltype(st.st_ino)>(s.st_ino);
    st.st_mode = s.st_mode;
    st.st_nlink = static_cast<decltype(st.st_nlink)>(s.st_nlink);
    st.st_uid = s.st_uid;
    st.st_gid = s.st_gid;
    st.st_rdev = static_cast<decltype(st.st_rdev)>(s.st_rdev);
    st.st_size = static_cast<decltype(st.st_size)>(s.st_size);
    st.st_blksize = static_cast<decltype(st.st_blksize)>(s.st_blksize);
    st.st_blocks = static_cast<decltype(st.st_blocks)>(s.st_blocks);
    st.st_atim = s.st_atim;
    st.st_mtim = s.st_mtim;
    st.st_ctim = s.st_ctim;
    return st;
}

bool child_path(char *dst, const char *dir, const char *name) {
    if (strlen(dir) + strlen(name) + 2 > kWalkPath) {
        FS_LOG_ERR("path too long:%s/%s\n", dir, name);
        return false;
    }
    return concat_subpath_file(dst, kWalkPath, dir, name) != nullptr;
}

}  // namespace

DIR *do_opendir(const char *path, find_debug *stats) {
    return timed(stats, &find_debug::opendir, [&] { return io_calls().opendir(path); });
}

struct dirent64 *do_readdir(DIR *dir, find_debug *stats) {
    return timed(stats, &find_debug::readdir, [&] { return io_calls().readdir64(dir); });
}

int do_closedir(DIR *dir, find_debug *stats) {
    return timed(stats, &find_debug::closedir, [&] { return io_calls().closedir(dir); });
}

int do_fileAction(find_action action, const char *path, struct stat *st, void *user,
                  find_debug *stats) {
    if (!action) return 1;
    return timed(stats, &find_debug::fileops, [&] { return action(path, st, user); });
}

int do_dirAction(find_action action, const char *path, struct stat *st, void *user,
                 find_debug *stats) {
    if (!action) return 1;
    return timed(stats, &find_debug::dirops, [&] { return action(path, st, user); });
}

int do_fileAction_nostat(find_action_nostat action, const char *path, void *user,
                         find_debug *stats) {
    if (!action) return 1;
    return timed(stats, &find_debug::fileops, [&] { return action(path, user); });
}

int do_dirAction_nostat(find_action_nostat action, const char *path, void *user,
                        find_debug *stats) {
    if (!action) return 1;
    return timed(stats, &find_debug::dirops, [&] { return action(path, user); });
}

namespace {

// The directory part shared by both walkers: the pre-order action, the children, then the
// post-order action. dir_action() runs the caller's directory action (1 when there is none);
// walk_child(path, listing type) walks one child.
template <typename DirAction, typename WalkChild>
int walk_directory(const char *path, int depth_first, bool has_dir_action, DirAction dir_action,
                   WalkChild walk_child, find_debug *stats) {
    if (!depth_first && has_dir_action) {
        int status = dir_action();
        if (status == 0) {
            FS_LOG_INFO("dir action %s end\n", path);
            return 0;
        }
        if (status == 2) return 1;
    }
    DIR *dir = do_opendir(path, stats);
    if (!dir) return 1;
    int status = 1;
    while (struct dirent64 *de = do_readdir(dir, stats)) {
        char child[kWalkPath];
        if (!child_path(child, path, de->d_name)) continue;
        if (walk_child(child, de->d_type) == 0) {
            status = 0;
            break;
        }
    }
    do_closedir(dir, stats);
    if (depth_first && has_dir_action) {
        if (dir_action() != 0) return 1;
        FS_LOG_INFO("dir action %s end\n", path);
        return 0;
    }
    return status;
}

}  // namespace

int find_recursive(char *path, int recurse, int follow_links, int depth_first,
                   find_action file_action, find_action dir_action, void *user, find_debug *stats) {
    if (!path) return 1;
    struct stat64 st64;
    int r = timed(stats, &find_debug::stat, [&] {
        return follow_links ? io_calls().stat64(path, &st64) : io_calls().lstat64(path, &st64);
    });
    if (r != 0) return 1;
    struct stat st = stat_for_callback(st64);
    if (!follow_links && S_ISLNK(st.st_mode)) {
        return do_fileAction(file_action, path, &st, user, stats);
    }
    if (!S_ISDIR(st.st_mode)) return do_fileAction(file_action, path, &st, user, stats);
    if (!recurse) return do_dirAction(dir_action, path, &st, user, stats);
    return walk_directory(
        path, depth_first, dir_action != nullptr,
        [&] { return do_dirAction(dir_action, path, &st, user, stats); },
        [&](char *child, unsigned char) {
            return find_recursive(child, 1, follow_links, depth_first, file_action, dir_action,
                                  user, stats);
        },
        stats);
}

int find_recursive_nostat(const char *path, unsigned char entry_type, int recurse, int follow_links,
                          int depth_first, find_action_nostat file_action,
                          find_action_nostat dir_action, void *user, find_debug *stats) {
    if (!path) return 1;
    // The entry type is tested bit by bit, as the directory listing reports it: every type with
    // bit 1 or bit 3 set (regular files, links, devices, sockets) counts as a file.
    if (!follow_links && (entry_type & 10) != 0) {
        return do_fileAction_nostat(file_action, path, user, stats);
    }
    if ((entry_type & 4) == 0) return do_fileAction_nostat(file_action, path, user, stats);
    if (!recurse) return do_dirAction_nostat(dir_action, path, user, stats);
    return walk_directory(
        path, depth_first, dir_action != nullptr,
        [&] { return do_dirAction_nostat(dir_action, path, user, stats); },
        [&](char *child, unsigned char type) {
            return find_recursive_nostat(child, type, 1, follow_links, depth_first, file_action,
                                         dir_action, user, stats);
        },
        stats);
}

int remove_file(const char *path, int flags) {
    if (!path || !*path) {
        FS_LOG_ERR("cannot remove `%s'", path ? path : "(null)");
        return -1;
    }
    struct stat64 st;
    if (io_calls().lstat64(path, &st) < 0) {
        if (errno == ENOENT) {
            if (flags & 4) return 0;
            FS_LOG_ERR("cannot remove `%s'", path);
            return -1;
        }
        FS_LOG_ERR("unable to stat `%s'", path);
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        if (io_calls().remove(path) < 0) {
            FS_LOG_ERR("unable to remove %s\n", path);
            return -1;
        }
        return 0;
    }
    if ((flags & 3) == 0) {
        FS_LOG_ERR("%s: is a directory", path);
        return -1;
    }
    DIR *dir = io_calls().opendir(path);
    if (!dir) {
        FS_LOG_ERR("unable to open `%s'", path);
        return -1;
    }
    int status = 0;
    while (struct dirent64 *de = io_calls().readdir64(dir)) {
        if (strcmp(de->d_name, ".") == 0 || strcmp(de->d_name, "..") == 0) continue;
        std::string child = path;
        if (child.back() != '/') child += '/';
        child += de->d_name;
        if (remove_file(child.c_str(), flags) < 0) status = -1;
    }
    if (io_calls().closedir(dir) < 0) {
        FS_LOG_ERR("unable to close %s\n", path);
        return -1;
    }
    if (io_calls().rmdir(path) < 0) {
        FS_LOG_ERR("unable to remove %s\n", path);
        return -1;
    }
    return status;
}

// ---------------------------------------------------------------------------------------------
// Mount table, block devices, clusters
// ---------------------------------------------------------------------------------------------

namespace {

// Copies a name for comparison with the mount table, dropping one trailing '/' (not from "/").
void mount_name(char (&dst)[kNameBuf], const char *src) {
    snprintf(dst, sizeof dst, "%s", src);
    size_t len = strlen(dst);
    if (len > 1 && dst[len - 1] == '/') dst[len - 1] = '\0';
}

template <typename Match>
int scan_mounts(const char *table, Match match) {
    FILE *f = io_calls().setmntent(table ? table : "/proc/mounts", "r");
    if (!f) return 0;
    struct mntent entry;
    char strings[kMntStrings];
    int found = 0;
    while (io_calls().getmntent_r(f, &entry, strings, sizeof strings)) {
        if (match(entry)) {
            found = 1;
            break;
        }
    }
    io_calls().endmntent(f);
    return found;
}

}  // namespace

int find_mount_point(const char *path, const char *table) {
    if (!path) return 0;
    char name[kNameBuf];
    mount_name(name, path);
    return scan_mounts(table, [&](const struct mntent &e) {
        return strcmp(e.mnt_dir, name) == 0 || strcmp(e.mnt_fsname, name) == 0;
    });
}

int find_mount_pair(const char *device, const char *dir, const char *table) {
    if (!device || !dir) return 0;
    char dev_buf[kNameBuf], dir_buf[kNameBuf];
    mount_name(dev_buf, device);
    mount_name(dir_buf, dir);
    return scan_mounts(table, [&](const struct mntent &e) {
        return strcmp(e.mnt_fsname, dev_buf) == 0 && strcmp(e.mnt_dir, dir_buf) == 0;
    });
}

int64_t blockdev_size(int /*disk_id*/, int fd) {
    struct stat64 st;
    if (io_calls().fstat64(fd, &st) == 0 && S_ISREG(st.st_mode))
        return static_cast<int64_t>(st.st_size);

    uint64_t bytes = 0;
    if (io_calls().ioctl(fd, BLKGETSIZE64, &bytes) == 0) return static_cast<int64_t>(bytes);
    perror("size64");
    int sector = 512;
    if (io_calls().ioctl(fd, BLKSSZGET, &sector) < 0) {
        perror("setor");
        sector = 512;
    }
    FS_LOG_INFO("sector size:%d\n", sector);
    unsigned long sectors = 0;
    uint64_t size = 0;
    if (io_calls().ioctl(fd, BLKGETSIZE, &sectors) == 0) {
        size = static_cast<uint64_t>(sectors) * static_cast<uint64_t>(sector);
    } else {
        perror("size");
    }
    FS_LOG_INFO("turn to BLKGETSIZE %llu\n", static_cast<unsigned long long>(size));
    return static_cast<int64_t>(size);
}

uint64_t recstore::max_disk_bytes_for_magic(uint32_t magic) {
    switch (magic) {
        case RECSTORE_MAGIC_V7:
            return 16 * kTiB;
        case RECSTORE_MAGIC_V6:
            return 8 * kTiB;
        default:
            return 4 * kTiB;
    }
}

uint64_t get_max_supported_disk_size(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("fatal error disk:%d\n", disk_id);
        return 16 * kTiB;
    }
    if (g_magic[disk_id] == 0) {
        FS_LOG_ERR("fatal error disk is not inited:%d\n", disk_id);
        return 16 * kTiB;
    }
    return recstore::max_disk_bytes_for_magic(g_magic[disk_id]);
}

static off64_t cluster_position(int cluster, int offset) {
    return static_cast<off64_t>(cluster) * RECSTORE_CLUSTER_SIZE + offset;
}

ssize_t read_cluster(int fd, int cluster, int offset, void *buf, size_t n) {
    return io_calls().pread64(fd, buf, n, cluster_position(cluster, offset));
}

ssize_t write_cluster(int fd, int cluster, int offset, const void *buf, size_t n) {
    ssize_t r = io_calls().pwrite64(fd, buf, n, cluster_position(cluster, offset));
    if (r < 0) {
        FS_LOG_PLAIN("perror\n");
        perror("write");
    }
    return r;
}

int find_first_bit(uint32_t word) {
    int bit = 0;
    while (bit < 32 && (word & (1u << bit)) != 0) bit++;
    return bit;
}
