/* SPDX-License-Identifier: MIT */
/*
 * recstore: recording storage for network video recorders.
 *
 * The only public header of librecstore.so. It declares the exported functions, the records they
 * exchange with the host and the exported global tables. It compiles as C99 and as C++.
 *
 * The library stores each camera channel's audio/video stream on up to eight local disks. Each
 * disk carries a system partition, an ext4 index partition (one index file per recording) and a
 * raw data partition managed in 512 KiB clusters and 64 GiB blocks.
 *
 * Conventions: 0 or a non-negative count/handle is success, a negative value is failure (-1 unless
 * a function documents another code). Disk ids are 0 to 7, channels 0 to 63.
 *
 * Errors. Besides -1, two codes are fixed: -2 from rec_write when the handle's disk is full
 * (nothing written) and -5 from fs_write when no cluster can be allocated. Stream reads and writes
 * pass on a short byte count or the negative result of the layer below. Index entry reads and
 * writes return 204 for a whole entry and 0 at the end of the file. Functions answering an unsigned
 * "none" give 0xFFFFFFFF. Yes/no tests give 1 or 0, and every fullness test answers 1 (full) for a
 * doubtful disk. Name parsers give the number of fields read. Walk actions answer 0 stop, 1 go on,
 * 2 do not descend. Functions returning void report failures only in the log. Nothing is synced
 * unless a contract says so ("fsyncs", "syncs").
 *
 * Threads and locks.
 * - Any thread may call the rec_* functions and the per-disk fs_* functions. One stream handle and
 *   one find handle are used by one thread at a time.
 * - Each disk's mutex, g_disk[id].lock, guards its table entry, data-zone maps and cluster
 *   allocation. The fs_* functions take it themselves; it is not recursive, so never call them with
 *   it held. The datazone_*, block_*, bitmap_* and index_* functions take no lock of their own
 *   ("caller holds the disk's mutex" where it matters); only payload reads and writes and
 *   datazone_exit use an internal per-disk I/O lock, so payload I/O needs no disk mutex.
 * - g_fslock guards the stream table and the index handle table: fs_open, fs_close, fs_get_ext,
 *   fs_read, fs_read_r and the preload functions take it. g_cachelock guards the cache files.
 *   Lock order: g_diskrwlock, the recording context's stream lock, g_fslock, a disk's mutex,
 *   g_cachelock. The find lock only guards taking and freeing find handles.
 * - g_diskrwlock (fs_lockdisk, rec_lockdisk) is held by the daemon for each disk pass, in which
 *   hot-plug, rec_diskcurrent, the choice of a disk or block change and the fullness tests run.
 *   The host holds it around its own changes of the disk table and groups (plug-in and plug-out
 *   sequences, fs_adddisk, fs_removedisk) while the daemon runs. It is not recursive. The daemon
 *   makes the disk or block change it chose (rec_changedisk's callbacks, fs_changeblock and its
 *   callbacks) after releasing it, so the block- and disk-change callbacks run with no library
 *   lock held and may take it.
 * - The daemon thread (rec_daemon) runs the disk passes, then outside the lock the recycling of the
 *   oldest block and the periodic deletion, and between passes do_rec_preload (fs_preload). Each
 *   fs_datazone_init starts a detached loader thread (proc_cache_load) that fills the disk's cache.
 * - rec_init, rec_exit, fs_init and fs_exit reset global tables and re-create locks: call them only
 *   while no other library thread runs.
 */
#ifndef RECSTORE_H
#define RECSTORE_H

/* Version of this header and of the library built with it (see also recstore_version()). */
#define RECSTORE_VERSION_MAJOR 0
#define RECSTORE_VERSION_MINOR 1
#define RECSTORE_VERSION_PATCH 0
#define RECSTORE_VERSION_STRING "0.1.0"

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <time.h>

/* Host-visible records and prototypes (struct statfs in fs_disk_info, struct stat in the walk
 * actions, time_t in the time callbacks) have the layout of the 32-bit off_t and time_t that the
 * library is built with on 32-bit targets. A host built with 64-bit off_t or time_t there would
 * disagree with the library on these layouts, so it is refused at compile time. */
#if ((defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4) || defined(__ILP32__) || \
     defined(__arm__)) &&                                                              \
    !defined(__x86_64__)
#if (defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64) || defined(__USE_FILE_OFFSET64)
#error \
    "recstore.h: _FILE_OFFSET_BITS=64 changes off_t, struct stat and struct statfs on this 32-bit target, but librecstore.so uses the 32-bit layouts; build the host without _FILE_OFFSET_BITS=64 (use the explicit *64 interfaces, e.g. open with O_LARGEFILE and pread64, for large files)"
#elif (defined(_TIME_BITS) && _TIME_BITS == 64) || defined(__USE_TIME_BITS64)
#error \
    "recstore.h: _TIME_BITS=64 changes time_t on this 32-bit target, but librecstore.so uses the 32-bit time_t; build the host without _TIME_BITS=64 and _FILE_OFFSET_BITS=64"
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version, "0.1.0" (RECSTORE_VERSION_STRING of the build). */
const char *recstore_version(void);

/* ============================================================================================
 * Limits shared by every module.
 * ========================================================================================== */
#define RECSTORE_MAX_DISKS 8           /* disk ids 0..7 */
#define RECSTORE_MAX_CHANNELS 64       /* channels 0..63 */
#define RECSTORE_MAX_GROUPS 3          /* disk groups 0..2; 3 means "in no group" */
#define RECSTORE_PATH_LEN 128          /* callers' path buffers */
#define RECSTORE_CLUSTER_SIZE 0x80000u /* one data cluster: 512 KiB */
#define RECSTORE_CLUSTER_SHIFT 19
#define RECSTORE_MODULE_BIT 0x200u /* this library's bit in the host's modulemask */
#define RECSTORE_LOG_ERROR 0x1u    /* loglevel bits */
#define RECSTORE_LOG_WARNING 0x2u
#define RECSTORE_LOG_INFO 0x8u
#define RECSTORE_LOG_USE_SYSTEM 0x10000u /* loglevel at or above: fs_system uses system(3) */

/* ============================================================================================
 * Supplied by the host (undefined in librecstore.so, resolved from the loading program).
 * A reference implementation is in host/recstore_host.h.
 * ========================================================================================== */
/* Negative, zero or positive as a is earlier than, equal to or later than b (calendar fields). */
int tm_cmp(const struct tm *a, const struct tm *b);
/* Seconds from a to b, that is b minus a. */
int tm_diff(const struct tm *a, const struct tm *b);
/* out = base + seconds, normalised; out may be base. */
void tm_offset_sec(const struct tm *base, int seconds, struct tm *out);
/* Days of the month, year and month in the form the host passes to the calendar functions. */
int daysofmonth(int year, int month);
/* Seconds since the epoch for t, on the scale of the seconds the host passes to time seeks. */
long mktime_abs(const struct tm *t);
/* Monotonic 64-bit tick counter; the library always passes 1. */
uint64_t get_tick_count(int unit);
/* Runs a shell command line; returns its status as system(3) does. */
int pip_system(const char *command);
/* Host log masks: loglevel bits 0x1 error, 0x2 warning, 0x8 information; modulemask 0x200. */
extern uint32_t loglevel;
extern uint32_t modulemask;

/* ============================================================================================
 * Shared records.
 * ========================================================================================== */

/* A broken-down time as stored on disk and in host-visible records: the nine fields of struct tm
 * in their order, then two words that are always 0. 44 bytes on every platform. */
typedef struct fs_tm {
    int32_t tm_sec;   /* seconds 0-60 */
    int32_t tm_min;   /* minutes 0-59 */
    int32_t tm_hour;  /* hours 0-23 */
    int32_t tm_mday;  /* day of month 1-31 */
    int32_t tm_mon;   /* month 0-11 */
    int32_t tm_year;  /* years since 1900 */
    int32_t tm_wday;  /* day of week 0-6 */
    int32_t tm_yday;  /* day of year 0-365 */
    int32_t tm_isdst; /* daylight-saving flag */
    int32_t zero[2];  /* always 0 (where struct tm keeps its UTC offset and zone name) */
} fs_tm;

/* Timing statistics of one kind of directory-walk step. */
typedef struct find_debug_info {
    uint32_t count; /* steps measured */
    uint32_t total; /* sum of their durations, in ticks */
    uint32_t max;   /* longest */
    uint32_t min;   /* shortest */
} find_debug_info;

/* Timing statistics of one directory walk, by kind of step. */
typedef struct find_debug {
    find_debug_info stat;
    find_debug_info opendir;
    find_debug_info readdir;
    find_debug_info closedir;
    find_debug_info dirops;
    find_debug_info fileops;
} find_debug;

/* The fields an index-file, link or cache name encodes. */
typedef struct record_name {
    int disk_id;     /* letter of the device name minus 'a' */
    int channel;     /* camera channel */
    struct tm start; /* start of the recording */
    int type;        /* record type */
    int block_id;    /* data block (link names only) */
} record_name;

/* Geometry and sizes of one data zone (the raw data partition). 184 bytes on every platform. */
typedef struct datazone_info {
    char name[128];            /* data partition's device path */
    uint64_t totalsize;        /* partition size in bytes */
    uint64_t freesize;         /* free bytes (filled by datazone_getinfo) */
    uint32_t cluster_size;     /* 524288 */
    uint32_t cluster_perblock; /* 131072 */
    uint32_t cluster_start;    /* always 0 */
    uint32_t cluster_count;    /* whole clusters on the partition */
    uint32_t bm_start;         /* cluster of the block map: 0 */
    uint32_t bm_count;         /* clusters of the block map: 1 */
    uint32_t block_start;      /* cluster holding block 0's cluster map: 1 */
    uint32_t block_count;      /* whole blocks */
    uint32_t data_start;       /* first data cluster: 1 + reserved block slots */
    uint32_t data_count;       /* data clusters: block_count << 17 */
} datazone_info;

/* One entry of the disk table g_disk (560 bytes on the 32-bit ARM target). */
typedef struct fs_disk_info {
    uint32_t inited;          /* 1 after the data zone was initialised */
    uint32_t magic_ok;        /* 1 when the disk's magic file is valid (fs_getdiskinfo) */
    uint32_t reserved0;       /* not used */
    uint32_t diskid;          /* disk id, set when opened */
    uint32_t grp;             /* group 0-2, 3 = none */
    char devname[128];        /* device path, "/dev/hd/sd" plus a letter */
    char idx_root[128];       /* index root path (fs_getdiskinfo) */
    struct statfs idx_statfs; /* statistics of the index root (fs_getdiskinfo) */
    uint32_t reserved1;       /* not used */
    datazone_info dz_info;    /* data-zone geometry (fs_getdiskinfo) */
    pthread_mutex_t lock;     /* the disk's mutex */
    uint32_t opened_flag;     /* cleared on open and close */
    uint32_t reserved2;       /* not used */
} fs_disk_info;

/* A disk group: a count and eight slots referring to disk table entries. */
typedef struct fs_group {
    uint32_t count;
    fs_disk_info *slots[RECSTORE_MAX_DISKS];
} fs_group;

/* ============================================================================================
 * Host utilities and logging.
 * ========================================================================================== */
/* Event-log switch, set by fs_mount and cleared by fs_umount on any thread; read and written
 * atomically, no lock. */
extern uint32_t g_plog_inited; /* 1 while the log file "/mnt/img/log.log" is enabled */

/* Enables the event log; path is ignored (the log is always "/mnt/img/log.log"). Always 0.
 * Atomic flag, no lock, no I/O. */
int fs_log_init(const char *path);
/* 1 while the event log is enabled, else 0. No lock, no I/O. */
int fs_log_is_inited(void);
/* Disables the event log. No lock, no I/O. */
void fs_log_exit(void);
/* Time-stamped message to standard output and the log file: 0, or -1 (nothing printed) while the
 * log is disabled; a log file that cannot be opened is reported and only standard output gets
 * the line. Opens, appends to and closes "/mnt/img/log.log" on each call, emptying it past 2
 * MiB; not synced. No lock: lines of concurrent callers may interleave. */
int fs_log_file(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Runs an external command through the host's pip_system, or system(3) when loglevel is 0x10000
 * or more; the command's status as system(3) reports it. Blocks until the command ends; no lock. */
int fs_system(char *command);
/* Copies the nine calendar fields of src into dst (dst's other fields are left as they are);
 * nothing for a null argument. No I/O. */
void from_fs_tm(struct tm *dst, const fs_tm *src);
/* Copies the nine calendar fields of src into dst and zeroes its two extra words; returns dst
 * (untouched when src is null). */
fs_tm *to_fs_tm(const struct tm *src, fs_tm *dst);
/* Renders "count total average max min" into dst (at most n bytes); returns dst, untouched when
 * info is null or counted nothing. */
char *find_debug_info_tostring(const find_debug_info *info, char *dst, size_t n);
/* Appends "kind:[count total average max min] " for every kind of step that counted something to
 * the string dst already holds (n bytes in all; start from ""). Returns dst. */
char *find_debug_tostring(const find_debug *stats, char *dst, size_t n);
/* Level handed to a log handler for the messages printed without prefix and gate. */
#define RECSTORE_LOG_PLAIN 0x0u
/* Receives each library message instead of standard output: level (RECSTORE_LOG_ERROR, _WARNING,
 * _INFO or _PLAIN), module (source file's base name; "recstore" for plain messages, "event" for
 * event-log lines), text (as printed, newline included, without the colour prefix). Called from
 * any library thread, the daemon included, possibly concurrently; must not call the library. */
typedef void (*recstore_log_fn)(void *user, uint32_t level, const char *module, const char *text);
/* Sends every later message to fn(user, ...); NULL restores standard output. Thread-safe. */
void recstore_set_log_handler(recstore_log_fn fn, void *user);

/* ============================================================================================
 * Path and name scheme. Builders write at most n bytes (snprintf semantics) and return dst.
 * A disk id outside 0-7 is refused: the builder reports it and leaves dst an empty string.
 * ========================================================================================== */
/* Device path of the disk from the disk table ("" while the disk is not open). Reads
 * g_disk[disk_id].devname without the disk's mutex; no I/O. */
char *disk_root(int disk_id, char *dst, size_t n);
/* Partition 1 (system) of the disk: its device path followed by "1" (only "1" while the disk is
 * not open). */
char *sys_partion(int disk_id, char *dst, size_t n);
/* Partition 2 (index) of the disk: its device path followed by "2" (only "2" while the disk is
 * not open). */
char *idx_partion(int disk_id, char *dst, size_t n);
/* Partition 3 (raw data) of the disk: its device path followed by "3" (only "3" while the disk
 * is not open). */
char *data_partion(int disk_id, char *dst, size_t n);
/* Mount point of a device path: "/mnt/" plus the word after "/dev/hd/" (at most 15 characters),
 * e.g. "/mnt/sda". dst is left untouched when dev is null or shorter than 9 characters. Returns
 * dst. */
char *mount_point(const char *dev, char *dst, size_t n);
/* Device path of a mount point: "/dev/hd/" plus the word after "/mnt/" (at most 15 characters).
 * Returns mnt itself, dst untouched, when mnt is null or shorter than 6 characters; else dst. */
const char *dev_name(const char *mnt, char *dst, size_t n);
/* Index root of the disk: the mount point of its device path, e.g. "/mnt/sda"; "" for a bad id
 * or a disk that is not open. */
char *idx_root(int disk_id, char *dst, size_t n);
/* Root of the block link directories: the index root plus "/link"; "" when the disk has no index
 * root. */
char *idx_linkroot(int disk_id, char *dst, size_t n);
/* Channel directory "<index root>/CC/"; "" when the disk has no index root. */
char *mk_idx_chnpath(int disk_id, char *dst, size_t n, int channel);
/* Year directory "<index root>/CC/YYYY/"; "" for a null time (reported) or no index root. */
char *mk_idx_yearpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
/* Month directory "<index root>/CC/YYYY/MM/" (month 1-12); "" for a null time or no index root. */
char *mk_idx_monpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
/* Day directory "<index root>/CC/YYYY/MM/DD/"; "" for a null time or no index root. */
char *mk_idx_daypath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
/* Leaf directory "<index root>/CC/YYYY/MM/DD/TT/" that holds the recording's index file; "" for
 * a null time or no index root. */
char *mk_idx_fullpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type);
/* Index file name "CCYYYYMMDDhhmmss_TT" of a recording, without directory; "" for a null time
 * (reported). */
char *mk_idx_filename(char *dst, size_t n, int channel, const struct tm *t, int type);
/* Path of a recording's index file: leaf directory plus file name; "" for a null time or no
 * index root. */
char *mk_idx_fullname(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type);
/* The index file's path seen from a block's link directory, "../../CC/YYYY/MM/DD/TT/<file
 * name>": the target of its link. "" for a null time. */
char *mk_idx_fullname_relative(char *dst, size_t n, int channel, const struct tm *t, int type);
/* Link directory of a block: "<index root>/link/" plus the block id in eight digits, without
 * trailing slash; "" when the disk has no index root. */
char *mk_idx_linkpath(int disk_id, char *dst, size_t n, int block_id);
/* Path of a recording's link in a block's link directory: link directory, "/", filename; "" for
 * a null filename or no index root. */
char *mk_idx_linkname(int disk_id, char *dst, size_t n, int block_id, const char *filename);
/* Disk id of a device path: the letter after "/dev/hd/sd" minus 'a'. Not checked: any other name
 * gives a value outside 0-7 (-97 for null or no match), which callers refuse. */
int todiskid(const char *dev);
/* Cache path of an index path: "/mnt/cache/" plus what follows its second '/' ("/mnt/sda/01/"
 * gives "/mnt/cache/sda/01/"); "" (reported) for a path with fewer than two '/'. Returns dst. */
char *tocachename(char *dst, size_t n, const char *path);
/* Parses an index file name (mk_idx_filename) into channel, start (tm_year since 1900, tm_mon
 * 0-11) and type: the number of fields read, 8 for a whole name; 0 for a null argument
 * (reported). No I/O. */
int filename_to_record(const char *name, int *channel, struct tm *start, int *type);
/* Parses a path "/mnt/sdX/CC/YYYY/MM/DD/TT/<file name>" into disk id, channel, start and type:
 * the number of fields read (1 disk, 2 channel, 3 year, 4 month, 5 day, 6 type, 7 or more inside
 * the file name, 14 for a whole index file path); 0 for a null argument. */
int fullname_to_record(const char *path, int *disk_id, int *channel, struct tm *start, int *type);
/* Parses a link path "/mnt/sdX/link/BBBBBBBB/<file name>" into disk id, block id, channel, start
 * and type: the number of fields read, 10 for a whole link; 0 for a null argument. */
int linkname_to_record(const char *path, int *disk_id, int *block_id, int *channel,
                       struct tm *start, int *type);
/* Parses a cache path "/mnt/cache/sdX/CC/YYYY/MM/DD/TT/cache" into disk id, channel, day and
 * type: the number of fields read (1 disk ... 6 type, 7 with the file name); 0 for a null
 * argument. */
int cachefullname_to_record(const char *path, int *disk_id, int *channel, struct tm *day,
                            int *type);
/* The 8-byte cache tag of a recording from its index file name and end time: lo bits 0-19 the
 * start second of the day, lo bits 20-31 and hi bits 0-3 the duration in seconds (modulo 65536),
 * hi bits 4-11 the low byte of mode, hi bits 12-27 bits 16-31 of total_bytes. An end before the
 * start is reported and *end set to the start. 0 for a null argument. No I/O. */
uint64_t filename_to_cachetag(struct tm *end, unsigned mode, unsigned total_bytes,
                              const char *filename);
/* Decodes a tag of the cache file cachefile: disk, channel, day and type from the path; start,
 * end, mode and total_bytes (bits 16-31 only) from the tag. 0, or -1 for a null argument or a
 * path that does not parse; a span leaving its day is reported but decoded. The second argument
 * is ignored. */
int cachetag_to_record(const char *cachefile, int ignored, uint32_t lo, uint32_t hi, int *disk_id,
                       int *channel, struct tm *start, struct tm *end, int *type, int *mode,
                       unsigned *total_bytes);
/* Rewrite predicate: 0 (drop) when the tag starts at t's second of the day, else -1 (keep); -1
 * for a null t. */
int match_cachetag(uint32_t lo, uint32_t hi, const struct tm *t);
/* Rewrite predicate: 0 (drop) when the tag starts before t's second of the day, else -1 (keep);
 * -1 for a null t. */
int before_cachetag(uint32_t lo, uint32_t hi, const struct tm *t);
/* Copies src into dst cut after its last '/' that is not the final character: the parent
 * directory with its slash (a path without such a '/' is copied whole). "" (reported) when src
 * is null or does not fit in n bytes. Returns dst. */
char *mk_parent(const char *src, size_t n, char *dst);
/* Creates, mode 0777, every directory of path that ends with '/' (the part after the last '/' is
 * not created); stops at the first failure, reported with perror. Always 0. path is changed
 * during the call and restored. Not synced. */
int mkdir_recursive(char *path);
/* Pointer to the last character of s when it is c, else NULL (also for null or ""). */
char *last_char_is(const char *s, int c);
/* path, '/', file into dst (n bytes), without doubling a slash that ends path and with the
 * leading slashes of file dropped; a null part counts as "". Returns dst. */
char *concat_path_file(char *dst, size_t n, const char *path, const char *file);
/* As concat_path_file, but NULL (dst untouched) when file is "." or "..". */
char *concat_subpath_file(char *dst, size_t n, const char *path, const char *file);
/* 1 when the directory holds nothing but "." and "..", or cannot be opened (or path is null);
 * else 0. */
int is_dir_empty(const char *path);
/* Removes the directory when is_dir_empty finds it empty: 0 (also when rmdir fails or the path
 * cannot be opened), -1 when it holds entries. */
int rm_empty_dir(const char *path);

/* ============================================================================================
 * Directory walking and removal.
 * A callback result of 0 stops the walk; 2 from a pre-order directory action skips its contents.
 * ========================================================================================== */
typedef int (*find_action)(const char *path, struct stat *st, void *user);
typedef int (*find_action_nostat)(const char *path, void *user);

/* Walks path (lstat, or stat with follow_links). A file, or a link not followed, goes to
 * file_action and its result is returned. A directory goes to dir_action (before its entries, or
 * after them with depth_first) and, with recurse, each entry is walked in listing order; then 0
 * when an action stopped the walk, else 1. 1 for a null path or one that cannot be stat'ed or
 * opened. Entries whose path exceeds 255 bytes are reported and passed over. stats, when given,
 * gets the timing of each step. No lock; the actions run on the caller's thread. */
int find_recursive(char *path, int recurse, int follow_links, int depth_first,
                   find_action file_action, find_action dir_action, void *user, find_debug *stats);
/* As find_recursive without stat calls: entry_type is the listing type of path (DT_DIR for a top
 * directory). A type with bit 2 (a directory) and, unless follow_links, without bits 1 and 3 is
 * walked as a directory; any other type goes to file_action. The actions get no status record. */
int find_recursive_nostat(const char *path, unsigned char entry_type, int recurse, int follow_links,
                          int depth_first, find_action_nostat file_action,
                          find_action_nostat dir_action, void *user, find_debug *stats);
/* Removes path (a link itself, not its target). flags: 1 or 2 remove directories with their
 * contents; 4 a missing path is a success. 0, or -1 (reported) when something could not be
 * removed, a directory without flag 1 or 2 included; the other entries of a directory are still
 * tried. No lock; not synced. */
int remove_file(const char *path, int flags);

/* ============================================================================================
 * Mounts, block devices and raw cluster I/O.
 * ========================================================================================== */
/* 1 when a mount's directory or device equals path (one trailing '/' of path ignored) in table
 * ("/proc/mounts" when null), else 0; also 0 for a null path or a table that cannot be read. No
 * lock. */
int find_mount_point(const char *path, const char *table);
/* 1 when the mount table (null: "/proc/mounts") has exactly this device on this directory (one
 * trailing '/' of each ignored), else 0; also 0 for a null argument or an unreadable table. No
 * lock. */
int find_mount_pair(const char *device, const char *dir, const char *table);
/* Size in bytes of an open block device (BLKGETSIZE64, else BLKSSZGET x BLKGETSIZE, failures
 * reported with perror) or of a regular file such as a disk image; 0 when every request fails.
 * disk_id is not used. No lock. */
int64_t blockdev_size(int disk_id, int fd);
/* Largest disk the disk's format supports, from g_magic (read without a lock): 16 TiB for
 * version 7, 8 TiB for version 6, 4 TiB for older formats; 16 TiB, reported, for a bad id or a
 * magic value of 0. No I/O. */
uint64_t get_max_supported_disk_size(int disk_id);
/* pread64 of n bytes at byte cluster x 524288 + offset into buf: the bytes read (short at the
 * end of the device) or -1 with errno set. No lock. */
ssize_t read_cluster(int fd, int cluster, int offset, void *buf, size_t n);
/* pwrite64 of n bytes from buf at byte cluster x 524288 + offset: the bytes written (possibly
 * short) or -1, reported with perror. Not synced; no lock. */
ssize_t write_cluster(int fd, int cluster, int offset, const void *buf, size_t n);
/* Number of consecutive 1 bits at the bottom of word (index of the lowest clear bit; 32 for
 * 0xFFFFFFFF). */
int find_first_bit(uint32_t word);

/* ============================================================================================
 * Disk table, groups and mode flags.
 * ========================================================================================== */
/* The disk table, indexed by disk id. Each entry is guarded by its own mutex `lock`, which the
 * fs_* functions take; the inited flag and device path are also read without it. */
extern fs_disk_info g_disk[RECSTORE_MAX_DISKS];
/* The disk groups. fs_adddisk and fs_removedisk change them under the disk's mutex, readers take
 * no lock: while the daemon runs, the host changes them under g_diskrwlock. */
extern fs_group g_grp[RECSTORE_MAX_GROUPS];
/* Mode flags, set by fs_init before other threads use the library and only read afterwards,
 * without a lock. g_max_duration_in_sec is written by fs_set_max_record_duration, also without a
 * lock. */
extern int g_fs_rdonly;           /* mode flag 1: read-only */
extern int g_fs_directio;         /* mode flag 2: payload I/O with O_DIRECT */
extern int g_fs_usecache;         /* 1 unless mode flag 4 (no cache) */
extern int g_max_duration_in_sec; /* longest duration of one recording file, default 7200 */

/* ---- disk table, groups and fullness ---- */
#define RECSTORE_NO_GROUP 3  /* g_disk[].grp of a disk in no group */
#define RECSTORE_FS_RDONLY 1 /* fs_init mode flags */
#define RECSTORE_FS_DIRECTIO 2
#define RECSTORE_FS_NOCACHE 4

/* Starts the disk layer: zeroes the disk table (re-creating every disk mutex), the groups and
 * the stream table (under g_fslock), marks every index handle free, takes the mode flags
 * (RECSTORE_FS_*) and, unless the cache is off, mounts the tmpfs cache with cache_inodes inodes
 * and cache_mib MiB per disk (an external command). 0, or -1 when the cache cannot be set up.
 * Call when no other thread uses the library. */
int fs_init(int cache_inodes, unsigned cache_mib, int flags);
/* Ends the disk layer: unmounts the cache (after the cache loaders finished), closes every index
 * file without finalising it and empties the disk, group and stream tables. Data zones are not
 * closed here: call fs_datazone_exit for each disk first. Call when no other thread uses the
 * library. */
void fs_exit(void);
/* Enters a disk into the table (device path and id; the entry is kept when the same path was
 * entered before): its disk id, or -1 for a bad name. Takes the disk's mutex; no I/O. */
int fs_opendisk(const char *dev);
/* Removes the disk from the table: device path, inited and opened flags cleared. Nothing for a
 * bad id. Takes the disk's mutex; no I/O. The data zone stays open: fs_datazone_exit first. */
void fs_closedisk(int disk_id);
/* Brings a mounted disk's data zone up: checks the magic file (g_magic set), that the index
 * partition is mounted, opens and checks the data zone (datazone_init, which repairs and fsyncs
 * the block map), sets inited and starts the cache loader thread. 0, or -1 for a bad id, a disk
 * not open, an invalid magic file, an unmounted index partition or a data zone that cannot be
 * opened. Takes the disk's mutex (must not be held). */
int fs_datazone_init(int disk_id);
/* Takes a disk's data zone down: stops the disk's cache loader and waits for it to leave, removes
 * its cache tree (when the cache is used), closes the data zone (waiting for running payload I/O)
 * and clears inited. Nothing for a bad id. Takes the disk's mutex (not held while waiting for the
 * loader); writes nothing to the disk. */
void fs_datazone_exit(int disk_id);
/* 1 when the disk's data zone is open, else 0 (also a bad id; reported). Takes the disk's mutex;
 * no I/O. */
int fs_datazone_is_inited(int disk_id);
/* The disk's inited flag: 1 after fs_datazone_init succeeded, else 0 (also for a bad id). No
 * lock; no I/O. */
int fs_disk_is_inited(int disk_id);
/* Erases every recording of a disk and gives it a fresh magic file and fresh maps: syncs, then
 * under the disk's mutex removes the index and link trees, zeroes every map cluster of the data
 * partition, rewrites the magic file (version 7) and removes the cache tree, and syncs again. 0,
 * or -1 for a bad id, a disk not open or a failed step. A data zone that is open keeps its old
 * maps in memory: use it on a disk that is not initialised. */
int fs_cleardisk(int disk_id);
/* Checks the block map of the disk against every block's cluster map and, with fix, corrects the
 * block map (written; each block's check fsyncs the maps). 0, or -1 in read-only mode, for a bad
 * id, a data zone not open or a block that cannot be loaded. Takes the disk's mutex. */
int fs_chkdata(int disk_id, int fix);
/* Refreshes the disk's entry (data-zone sizes, index root and its statfs, magic file check) and
 * copies it to out. 0, or -1 for a bad id or null out; also 0, with out left untouched, when the
 * disk is not initialised or a step fails. Takes the disk's mutex; reads the device size and the
 * magic file. */
int fs_getdiskinfo(int disk_id, fs_disk_info *out);
/* 1 when the disk's data zone has no free cluster, or its current block has none (or none is
 * loaded) and no block is free; also 1 for a bad id or a disk not initialised. 0 otherwise. The
 * index partition is not looked at. Takes the disk's mutex; no I/O. */
int fs_isdiskfull(int disk_id);
/* 1 when the index partition is full (index_isfull) or the data zone has threshold free clusters
 * or fewer or nothing left to allocate; also 1, reported, for a bad id or a disk not
 * initialised. 0 otherwise. Takes the disk's mutex; statfs of the index root. */
int do_fs_isdiskfull(int disk_id, int threshold);
/* 0 when disk_id (if 0-7) or any disk of group 0 is not full by do_fs_isdiskfull with threshold,
 * else 1; 1 at once when the cache is used and full. A negative disk_id asks about group 0 only.
 * Takes each disk's mutex in turn; reads the groups without a lock. */
int fs_isalldiskfull(int disk_id, int threshold);
/* 1 when the disk's current block has no free cluster, none is loaded or the id is bad; else 0.
 * Takes the disk's mutex; no I/O. */
int fs_isblockfull(int disk_id);
/* Does nothing: 0, or -1 for a bad disk id. */
int fs_timenotify(int disk_id);
/* Puts the disk into the first free slot of group grp (a disk already there is added again) and
 * records the group in its entry. 0, or -1 for a bad group or id or a full group. Takes the
 * disk's mutex; while the daemon runs, hold g_diskrwlock (rec_lockdisk) around it. */
int fs_adddisk(int grp, int disk_id);
/* Empties the slot of group grp that holds the disk and sets its group to 3 (none). 0, or -1 for
 * a bad group or id or a disk not in the group. Takes the disk's mutex; while the daemon runs,
 * hold g_diskrwlock around it. */
int fs_removedisk(int grp, int disk_id);
/* The group recorded in the disk's entry: 0-2, 3 after fs_removedisk (an entry never added reads
 * 0, as fs_init zeroes the table); 3 for a bad id. No lock. */
int fs_getgrp(int disk_id);
/* Disk ids of the group's occupied slots, in slot order, into ids (8 entries) and their number
 * into count. 0, or -1 for a bad group or a null argument. No lock (see g_grp). */
int fs_getdisk(int grp, int *ids, int *count);
/* Held for writing by the daemon during each disk pass and by the host through fs_lockdisk or
 * rec_lockdisk; no other library function takes it. */
extern pthread_rwlock_t g_diskrwlock; /* the disk table as a whole, always taken for writing */
/* Takes g_diskrwlock for writing: pthread_rwlock_wrlock's result (0). Not recursive: never call
 * it from a callback the daemon runs during its pass. */
int fs_lockdisk(void);
/* Releases g_diskrwlock: pthread_rwlock_unlock's result (0). */
int fs_unlockdisk(void);
/* g_fs_rdonly: 1 in read-only mode, else 0. */
int fs_is_readonly(void);
/* g_fs_usecache: 1 unless the cache is off. */
int fs_use_cache(void);
/* Sets g_max_duration_in_sec, the longest span the fast file search trusts; a value of 0 or less
 * is refused (reported). No lock. */
void fs_set_max_record_duration(int seconds);
/* g_max_duration_in_sec (default 7200). */
int fs_get_max_record_duration(void);

/* ---- disk preparation ---- */
/* Version string of a disk's format, from its magic value (g_magic, read without a lock):
 * "7.0.0.0", "6.0.0.0", "5.0.0.0", "1.0.0.2", or "" for an unknown magic or a bad disk id. */
const char *fs_version(int disk_id);

/* A disk is a whole-disk node "/dev/hd/sd" followed by one letter a-h (disk ids 0-7); its
 * partitions are that path followed by 1 (system), 2 (index) and 3 (raw data). Any other name is
 * refused (-1, or 0 for the yes/no tests) before it reaches a command line. */
#define RECSTORE_PROBE_MAX 8 /* entries of a probe list, RECSTORE_PATH_LEN bytes each */

/* Partitions the disk with parted (unless the system runs from it) and builds the ext4 file
 * systems of partitions 1 and 2 (only 2 when the system runs from it), syncing after each step.
 * 0, also when the partition nodes never appear (file systems not built); -1 for a bad name,
 * when the device cannot be opened or a tool is missing. Takes the disk's mutex (must not be
 * held) for the partitioning and formatting. */
int fs_format(const char *dev);
/* Checks the index partition's file system with fsck.ext4 under the disk's mutex; 0 when it is
 * clean, was repaired, is mounted (nothing done) or its nodes never appeared; -1 for a bad name,
 * another fsck result or in read-only mode. Syncs after a success. */
int fs_chk(const char *dev);
/* Under the disk's mutex, mounts partition 1 on "/mnt/img" when no disk's is there, enables the
 * log file and mounts the index partition on the disk's mount point (mount, then remount);
 * syncs. 0, or -1 for a bad name or when the index partition cannot be mounted. */
int fs_mount(const char *dev);
/* Under the disk's mutex, disables the log file, unmounts "/mnt/img" when this disk's partition
 * 1 is there (and the system does not run from it) and unmounts the index partition (failures
 * only reported); syncs. 0, or -1 for a bad name. */
int fs_umount(const char *dev);
/* Finds an external tool in "/mnt/app", ".", "/usr/local/bin", "/usr/local/sbin", "/usr/bin",
 * "/usr/sbin", "/bin", "/sbin" and writes its command into out ("parted" gets " -f" when its
 * help text, got by running it, mentions "fix"). 0 found, -1 not found, a bad name or out too
 * small. No lock. */
int fs_get_cmd(const char *tool, char *out, size_t size);
/* Lists the whole-disk nodes under "/dev/hd/", sorted by disk id, into list (at most
 * RECSTORE_PROBE_MAX entries, the rest zeroed) and their number into count. 0 (-1 only for null
 * arguments). No lock. */
int fs_probe(char (*list)[RECSTORE_PATH_LEN], int *count);
/* 1 when the system runs from this disk: its partition 1 on "/mnt/img" and "/dev/loop0" on
 * "/mnt/app" in "/proc/mounts"; else 0 (also for a bad name). */
int is_running_on_hd(const char *dev);
/* 1 when this disk's partition 1 is mounted on "/mnt/img"; else 0 (also for a bad name). Reads
 * "/proc/mounts". */
int is_img_mounted_on_hd(const char *dev);
/* 1 when some probed disk's partition 1 is mounted on "/mnt/img", 0 when none, -1 when probing
 * fails. */
int is_img_mounted(void);
/* 1 when the disk's index mount point is in "/proc/mounts"; else 0 (also for a bad name). */
int fs_ismounted(const char *dev);
/* Device path held in the disk table for this disk, or NULL for a bad id or an empty entry. Read
 * without the disk's mutex. */
const char *fs_devname(int disk_id);
/* Disk id of a device path (the letter after "/dev/hd/sd" minus 'a'); -1 for a null path. The
 * result may be outside 0-7 for a bad name: callers refuse it. */
int fs_diskid(const char *dev);

/* ---- end of disk preparation ---- */

/* ============================================================================================
 * Cluster bitmaps and the data zone.
 *
 * The data partition is an array of 512 KiB clusters. Cluster 0 is the block map (one entry per
 * block), cluster 1 + i is the cluster map of block i (one entry per data cluster of the block),
 * and the data area starts after the reserved block slots. A map entry is a little-endian u32:
 * bits 31-30 the state (00 free, 10 busy, 01 or 11 error), bits 29-0 the value (time >> 2).
 * ========================================================================================== */
#define RECSTORE_CLUSTERS_PER_BLOCK 0x20000u /* 131072 clusters: a block is 64 GiB */

/* A link of a circular doubly linked list (also used as a list head). */
typedef struct bitmap_list {
    struct bitmap_list *next;
    struct bitmap_list *prev;
} bitmap_list;

/* One node per map entry; `list` comes first so that a list link is also the node. */
typedef struct bitmap_node {
    bitmap_list list; /* link on the busy, free or error list */
    uint32_t id;      /* the entry's index in its map */
} bitmap_node;

/* The in-memory form of one map cluster (60 bytes on the 32-bit target). Never copy a loaded
 * bitmap by value: its list heads point at themselves. */
typedef struct cluster_bitmap {
    int fd;                /* descriptor the entries are read and written through */
    uint32_t map_cluster;  /* cluster number of the on-disk map */
    uint32_t *vals;        /* copy of the entries, in host byte order */
    bitmap_node *nodes;    /* one node per entry */
    uint32_t count;        /* number of entries */
    bitmap_node **node_of; /* node of entry id; null when the entry has no node */
    bitmap_list busy_list; /* busy entries */
    bitmap_list free_list; /* free entries */
    bitmap_list err_list;  /* entries in error */
    uint32_t busy_bits;    /* nodes on busy_list */
    uint32_t free_bits;    /* nodes on free_list */
    uint32_t err_bits;     /* nodes on err_list */
} cluster_bitmap;

/* Zeroes *bm and loads the count entries (1 to 131072) of the map in cluster through fd, putting
 * each entry's node on the list of its state; bm keeps fd for later writes. 0, or -1 for a null
 * bm, a bad count, no memory or a short read (nothing left allocated). Reads the map, writes
 * nothing; no lock (callers hold the disk's mutex). */
int bitmap_init(cluster_bitmap *bm, int count, int fd, uint32_t cluster);
/* Frees the entries and nodes and zeroes *bm; nothing for null. No I/O. */
void bitmap_exit(cluster_bitmap *bm);
/* Raw entry id from memory, or 0xFFFFFFFF when the bitmap is not loaded or id is beyond it
 * (reported). No I/O. */
uint32_t bitmap_val(cluster_bitmap *bm, uint32_t id);
/* Takes the first node off the free list and lowers the free count (memory only, the map is not
 * written): its id, or -1 when the list is empty or the bitmap is not loaded. */
int bitmap_free_get(cluster_bitmap *bm);
/* Takes the first node off the busy list and lowers the busy count (memory only): its id, or -1
 * when the list is empty or the bitmap is not loaded. */
int bitmap_busy_get(cluster_bitmap *bm);
/* Takes the first node off the error list and lowers the error count (memory only): its id, or
 * -1 when the list is empty or the bitmap is not loaded. */
int bitmap_err_get(cluster_bitmap *bm);
/* Id of the first node on the free list, left there; -1 when the list is empty or the bitmap is
 * not loaded. No I/O. */
int bitmap_free_test(cluster_bitmap *bm);
/* Id of the first node on the busy list, left there; -1 when the list is empty or the bitmap is
 * not loaded. No I/O. */
int bitmap_busy_test(cluster_bitmap *bm);
/* Id of the first node on the error list, left there; -1 when the list is empty or the bitmap is
 * not loaded. No I/O. */
int bitmap_err_test(cluster_bitmap *bm);
/* Makes entry id free with value (bits 29-0), writes the 4-byte entry to the map at once (not
 * synced) and puts the node at the head of the free list, counted. The node must be off every
 * list (a get or del first). 0, or -1 when the bitmap is not loaded, id has no node or the write
 * fails (the entry in memory is then changed, the node not listed). */
int bitmap_free_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
/* Makes entry id busy (state 10) with value, writes it to the map at once (not synced) and puts
 * the node at the head of the busy list, counted. The node must be off every list. 0, or -1 as
 * bitmap_free_put. */
int bitmap_busy_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
/* Makes entry id in error (state 11) with value, writes it to the map at once (not synced) and
 * puts the node at the head of the error list, counted. The node must be off every list. 0, or
 * -1 as bitmap_free_put. */
int bitmap_err_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
/* Unlinks node id from the list it is on and lowers the free count (name the list the node is
 * on). Memory only. 0, or -1 when not loaded, id has no node or the node is on no list. */
int bitmap_free_del(cluster_bitmap *bm, uint32_t id);
/* Unlinks node id from its list and lowers the busy count. Memory only. 0, or -1 when not
 * loaded, id has no node or the node is on no list. */
int bitmap_busy_del(cluster_bitmap *bm, uint32_t id);
/* Unlinks node id from its list and lowers the error count. Memory only. 0, or -1 when not
 * loaded, id has no node or the node is on no list. */
int bitmap_err_del(cluster_bitmap *bm, uint32_t id);
/* Makes every busy and error entry free, keeping its value: each is written to the map (not
 * synced) and moved to the free list. 0, or -1 when not loaded or a write failed. */
int bitmap_clear(cluster_bitmap *bm);
/* 1 when entry id is free (state 00) in memory, else 0 (also not loaded or id beyond the map). */
int bitmap_is_free(cluster_bitmap *bm, uint32_t id);
/* 1 when entry id is busy (state 10) in memory, else 0. */
int bitmap_is_busy(cluster_bitmap *bm, uint32_t id);
/* 1 when entry id is in error (state 01 or 11) in memory, else 0. */
int bitmap_is_err(cluster_bitmap *bm, uint32_t id);
/* 1 when the free list is empty (also when not loaded, reported), else 0; an empty list with a
 * non-zero count is reported. */
int bitmap_is_free_empty(cluster_bitmap *bm);
/* 1 when the busy list is empty (also when not loaded, reported), else 0; an empty list with a
 * non-zero count is reported. */
int bitmap_is_busy_empty(cluster_bitmap *bm);
/* 1 when the error list is empty (also when not loaded, reported), else 0; an empty list with a
 * non-zero count is reported. */
int bitmap_is_err_empty(cluster_bitmap *bm);
/* Nodes counted on the free list; 0 when not loaded (reported). */
uint32_t bitmap_free_bits(cluster_bitmap *bm);
/* Nodes counted on the busy list; 0 when not loaded (reported). */
uint32_t bitmap_busy_bits(cluster_bitmap *bm);
/* Nodes counted on the error list; 0 when not loaded (reported). */
uint32_t bitmap_err_bits(cluster_bitmap *bm);
/* Unlinks a node that is on a list and poisons its links (next 0x100100, prev 0x200200). */
void list_del(bitmap_list *entry);

/* A loaded block (80 bytes on the 32-bit target). */
typedef struct dz_block {
    uint32_t disk;           /* disk id */
    uint32_t block_id;       /* cluster number of the block's map cluster */
    uint32_t data_start;     /* first data cluster of the block */
    uint32_t data_count;     /* data clusters in the block */
    cluster_bitmap clusters; /* the block's cluster map */
    uint32_t seq;            /* sequence given when the block was made current */
} dz_block;

/* One block in a list of blocks across disks. Empty when disk is negative (as int32) or
 * block_id is 0xFFFFFFFF. */
typedef struct block_entry {
    uint32_t disk;
    uint32_t block_id;
    uint32_t seq;
} block_entry;

/* Per-disk data-zone record. */
typedef struct datazone_ctx {
    int fd_rw;                /* buffered read-write: every map read and write */
    int fd_rd;                /* buffered read-only: datazone_read */
    int fd_rd_direct;         /* O_DIRECT read-only, -1 without direct I/O */
    int fd_wr;                /* payload writes, O_DIRECT when direct I/O is on */
    datazone_info info;       /* geometry and sizes */
    cluster_bitmap block_map; /* the block map (cluster 0) */
    dz_block *cur_block;      /* the current block, or null */
    uint32_t busy_count;      /* busy clusters of the zone */
    uint32_t free_count;      /* free clusters of the zone */
    uint32_t err_count;       /* clusters in error */
} datazone_ctx;

/* Per-disk data-zone records, indexed by disk id, guarded by the disk's mutex (g_disk[].lock);
 * payload reads and writes use the descriptors under an internal per-disk I/O lock instead. */
extern datazone_ctx g_dz_ctx[RECSTORE_MAX_DISKS];

/* Block filters of block_ultimate: (disk, block index, argument, block count) -> 1 keep, 0 drop. */
typedef int (*block_filter)(int disk, uint32_t index, void *arg, uint32_t count);

/* Opens the disk's data partition (read-write, read-only and payload descriptors; O_DIRECT ones
 * with directio), computes the geometry and, unless read-only, loads the block map and every
 * block's cluster map, sums the counts and repairs block-map entries that disagree with their
 * cluster map (written and fsynced). 0, also when already open; -1 for a bad id, an open
 * failure, a partition too small or a map that cannot be read (descriptors closed again). Caller
 * holds the disk's mutex. Writes the event log. */
int datazone_init(int disk_id, int directio);
/* Unloads the current block, frees the block map, closes the descriptors and zeroes the record;
 * waits for running payload reads and writes (takes the I/O lock exclusively). Nothing for a bad
 * id or a zone not open. Caller holds the disk's mutex. Writes nothing. */
void datazone_exit(int disk_id);
/* 1 when the zone's read-write, read-only and write descriptors are open, else 0 (reported; also
 * for a bad id). No lock, no I/O. */
int datazone_is_inited(int disk_id);
/* Loads every block's cluster map and checks its block-map entry (do_block_chk with fix). 0, or
 * -1 for a bad id, a zone not open or a block that cannot be loaded (the check stops there).
 * Caller holds the disk's mutex. */
int datazone_chk(int disk_id, int fix);
/* Checks the block's block-map entry against its cluster map: a block without free cluster must
 * be busy, one with free clusters free. A mismatch goes to the event log and, with fix, is
 * corrected in the block map (written). Always fsyncs the map descriptor. Nothing for a null
 * block or a block map not loaded. Caller holds the disk's mutex. */
void do_block_chk(dz_block *block, int fix);
/* Copies the zone's geometry to out, with totalsize re-read from the device and freesize = free
 * clusters x 524288 (both also stored in the zone). 0, or -1 for a bad id, a zone not open or
 * null out. Caller holds the disk's mutex. */
int datazone_getinfo(int disk_id, datazone_info *out);
/* Geometry of a data partition of data_bytes on a disk whose magic file holds magic (one of the
 * RECSTORE_MAGIC_ values): fills *out as datazone_getinfo would (name empty, freesize 0) and
 * returns 0; -1 for an unknown magic, a null out or a partition too small for a data zone. */
int datazone_geometry_for(uint32_t magic, uint64_t data_bytes, datazone_info *out);
/* Writes one line on the zone's current block, earliest block and counts to fd: dprintf's
 * result, or -1 for a negative fd or a bad id. Caller holds the disk's mutex (the maps are read;
 * the earliest-block search writes the event log). */
int datazone_dump(int fd, int disk_id);
/* Zeroes every map cluster of the disk's data partition, each block's cluster map first and the
 * block map last, through a descriptor of its own (geometry from the device size and g_magic).
 * 0, or -1 for a bad id, an open failure, a partition too small or a short write. Not synced. An
 * open zone keeps its old maps in memory. */
int datazone_clear(int disk_id);

/* Reads the cluster map of block block_id (the cluster number of its map) into a new dz_block
 * owned by the caller (block_unload). NULL for a bad id, a zone not open, a block id outside the
 * zone, no memory or a failed read. Caller holds the disk's mutex; writes nothing. */
dz_block *block_load(int disk_id, uint32_t block_id);
/* Frees a block from block_load; nothing (reported) for null. No I/O. */
void block_unload(dz_block *block);
/* Makes a current block: loads the block that block_current chooses and stamps it busy with the
 * clock's sequence in the block map (written, not synced). Its block id; the loaded current
 * block's id when there is one already; -1 in read-only mode, for a bad id or a zone not open,
 * when no block is free, or the block cannot be stamped. A chosen block whose cluster map cannot
 * be read is put in error in the block map (written through; logged once) and the next choice is
 * tried. Caller holds the disk's mutex. */
int block_alloc(int disk_id);
/* Unloads the current block: its map in memory is dropped, the map on disk stays as written. 0,
 * or -1 for a bad id, a zone not open or no current block. Caller holds the disk's mutex; no
 * I/O. */
int block_free(int disk_id);
/* Chooses, without loading or changing anything, the block block_alloc would make current: the
 * latest-stamped non-current block that is free in the block map but holds used clusters, else
 * the first free block. Its block id, or -1 in read-only mode, for a bad id, a zone not open or
 * no free block. Unlike block_get_current it does not return the loaded current block. Caller
 * holds the disk's mutex; reads candidate cluster maps; writes the event log. */
int block_current(int disk_id);
/* Block id of the loaded current block, or -1 (reported) when none is loaded, for a bad id or a
 * zone not open. Caller holds the disk's mutex; no I/O. */
int block_get_current(int disk_id);
/* 1 when the current block has no free cluster, also when none is loaded, for a bad id or a zone
 * not open; else 0. Caller holds the disk's mutex; no I/O. */
int block_is_free_empty(int disk_id);
/* 1 when the current block has no busy cluster on its list, also when none is loaded, for a bad
 * id or a zone not open; else 0. Caller holds the disk's mutex; no I/O. */
int block_is_busy_empty(int disk_id);
/* Raw block-map entry of block block_id, or 0xFFFFFFFF for a bad id, a zone not open, read-only
 * mode (reported) or a block id outside the zone. Caller holds the disk's mutex; no I/O. */
uint32_t block_val(int disk_id, uint32_t block_id);
/* Block id of the earliest-stamped block in use (busy or in error, or free with used clusters)
 * that is not current; its sequence into *seq when seq is given. -1 when there is none or
 * block_ultimate fails. Caller holds the disk's mutex; loads the cluster maps of free blocks;
 * writes the event log. */
int block_earliest(int disk_id, uint32_t *seq);
/* Stamped non-current blocks taken before time (seconds since the epoch; sequence x 4, after 0),
 * earliest first, up to max into out: their number, 0 also on failure. Caller holds the disk's
 * mutex; writes the event log. */
int block_before(int disk_id, int32_t time, block_entry *out, int max);
/* Lists the blocks that filter keeps (all without filter) sorted by sequence, earliest first
 * (latest first with latest), and copies up to max into out. The number copied (0 for null out),
 * or -1 for a bad id, a zone not open or no block map loaded (read-only). Caller holds the
 * disk's mutex; writes the result to the event log. */
int block_ultimate(int disk_id, block_filter filter, void *arg, int latest, block_entry *out,
                   int max);
/* The non-empty entry with the lowest sequence (the first of equals), or NULL for a null or
 * empty list. No lock. */
block_entry *blk_seq_earliest(block_entry *list, int count);
/* The non-empty entry with the highest sequence (the first of equals), or NULL for a null or
 * empty list. No lock. */
block_entry *blk_seq_latest(block_entry *list, int count);
/* Frees every cluster of a block that is not current: its busy and error entries become free
 * keeping their stamps, its block-map entry becomes free keeping its sequence (all written, not
 * synced) and the zone counts move them to free. Nothing (reported) in read-only mode, for a bad
 * id, a zone not open, the current block or a block that cannot be loaded. Caller holds the
 * disk's mutex; writes the event log. */
void block_clear(int disk_id, uint32_t block_id);
/* Writes one line on the block's state to the event log; nothing in read-only mode or for a null
 * block. Caller holds the disk's mutex. */
void do_block_dump(dz_block *block);
/* qsort comparator of block_entry by sequence, earliest first (the signed difference of the
 * sequences). */
int compareblock(const void *a, const void *b);
/* qsort comparator of block_entry by sequence, latest first. */
int compareblock_r(const void *a, const void *b);
/* Filter of block_earliest: 1 for a stamped non-current block that is busy or in error, or free
 * with busy or error clusters (its cluster map is loaded to tell); else 0. index counts blocks
 * from 0; arg and count are not used. */
int block_filter_not_allfree_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);
/* Filter of block_current: 1 for a stamped non-current block that is free in the block map but
 * has busy or error clusters (its cluster map is loaded); else 0. */
int block_filter_halffree_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);
/* Filter of block_before; arg: pointer to an int32_t time in seconds. 1 for a non-current block
 * stamped after 0 and before that time, else 0 (also for null arg). */
int block_filter_before_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);

/* Takes a free cluster of the current block and stamps it busy with the clock's sequence (map
 * entry written, not synced; a failed write still hands it out); the zone's counts move it from
 * free to busy. The absolute cluster id, or -1 for a bad id, a zone not open, no current block
 * or no free cluster in it. Caller holds the disk's mutex. */
int datazone_alloc(int disk_id);
/* Frees a cluster of the current block: its entry becomes free keeping its stamp (written, not
 * synced) and the zone's counts move it; the block's own busy count keeps it until the block is
 * loaded again. 0, or -1 for a bad id, a zone not open, no current block, a cluster outside the
 * current block, a cluster already free or a failed write. Clusters of other blocks are freed
 * only by block_clear. Caller holds the disk's mutex. */
int datazone_free(int disk_id, int cluster_id);
/* Raw cluster-map entry of a cluster of the current block, or 0xFFFFFFFF for a bad id, a zone
 * not open, no current block or a cluster outside it (reported). Caller holds the disk's mutex;
 * no I/O. */
uint32_t datazone_val(int disk_id, int cluster_id);
/* Reads one whole cluster (524288 bytes) into buf through the buffered read-only descriptor: the
 * bytes read (short at the partition's end), or -1 for a bad id, a zone not open, a cluster
 * outside the data area ("fatal error" printed) or a read error. Needs no disk mutex: takes the
 * disk's I/O lock shared. */
int datazone_read(int disk_id, int cluster_id, void *buf);
/* As datazone_read through the O_DIRECT descriptor (buf page-aligned); -1 also when the zone was
 * opened without direct I/O. */
int datazone_read_direct(int disk_id, int cluster_id, void *buf);
/* Writes one whole cluster from buf through the payload descriptor (O_DIRECT with direct I/O:
 * buf page-aligned): the bytes written, or -1 for a bad id, a zone not open, a cluster outside
 * the data area, a write error or a short write (reported). Not synced. Needs no disk mutex:
 * takes the I/O lock shared. */
int datazone_write(int disk_id, int cluster_id, const void *buf);
/* fsyncs the zone's payload, read-only and map descriptors (all of them, even after a failure).
 * 0, or -1 for a bad id, a zone not open or a failed fsync (reported with perror). Takes no
 * lock. */
int datazone_sync(int disk_id);
/* fsyncs the map descriptor (block and cluster maps). 0, or -1 for a bad id, a zone not open or
 * a failed fsync (reported). Takes no lock; the fs_* callers hold the disk's mutex. */
int datazone_sync_bm(int disk_id);
/* Busy clusters of the zone as counted in memory, or -1 for a bad id or a zone not open. Caller
 * holds the disk's mutex for a consistent value; no I/O. */
int datazone_busy_count(int disk_id);
/* Free clusters of the zone as counted in memory, or -1 for a bad id or a zone not open. Caller
 * holds the disk's mutex for a consistent value; no I/O. */
int datazone_free_count(int disk_id);
/* 1 when nothing can be allocated without a new block and no block is free: the current block
 * (if any) has no free cluster and the block map has no free block; also 1 for a zone not open.
 * 0 otherwise, and 0 (reported) for a bad id. Caller holds the disk's mutex; no I/O. */
int datazone_is_free_empty(int disk_id);
/* 1 when the zone has threshold free clusters or fewer (a bad id or a zone not open counts as -1
 * free) or datazone_is_free_empty answers 1; else 0. Caller holds the disk's mutex; no I/O. */
int datazone_is_full_prepare(int disk_id, int threshold);
/* A stream's read of one cluster: through the stream's page-aligned preload buffer with O_DIRECT
 * when the stream has one and direct I/O is on (the buffer then holds that cluster), otherwise
 * datazone_read. Bytes read, or a negative value (-1 for a bad handle or null buf). Touches the
 * stream's preload fields, which the daemon's preload step fills and fs_set_preload frees: callers
 * hold the stream's read lock (one per stream slot, inside the library). */
int fs_datazone_read(int handle, int disk_id, int cluster_id, void *buf);

/* ---- end of data zone ---- */

/* ============================================================================================
 * Record-info format and index files.
 * ========================================================================================== */
#define RECSTORE_MAX_KFRAMES 24        /* key-frame descriptors per index entry */
#define RECSTORE_MAX_ALARMS 60         /* alarm records per recording */
#define RECSTORE_ALARM_DATA 128        /* data bytes of one alarm record */
#define RECSTORE_INDEX_HANDLES 128     /* index handles 0..127 */
#define RECSTORE_EXT_MAGIC 0x5a7c36d8u /* ext_magic value: an extension area follows the header */
#define RECSTORE_EXT_MAX_LEN 2048      /* largest extension, also the size of the extension area */
#define RECSTORE_MAGIC_V7 0x702a2013u  /* magic file values and their versions: "7.0.0.0" */
#define RECSTORE_MAGIC_V6 0x60282013u  /* "6.0.0.0" */
#define RECSTORE_MAGIC_V5 0x50202023u  /* "5.0.0.0" */
#define RECSTORE_MAGIC_V1 0x10101013u  /* "1.0.0.2": index files with the 896-byte header */

/* One key-frame descriptor of an index entry (8 bytes on disk). */
typedef struct kframe {
    uint32_t frame_offset; /* byte offset of the key frame inside its cluster */
    uint32_t frame_time;   /* seconds since the epoch (UTC) */
} kframe;

/* One alarm record of a recording (136 bytes on disk), stored verbatim. */
typedef struct record_alarm {
    uint32_t alarm_a;                        /* first alarm word */
    uint32_t alarm_b;                        /* second alarm word */
    uint8_t alarm_data[RECSTORE_ALARM_DATA]; /* alarm data */
} record_alarm;

/* The record info of one recording: the fields of the current on-disk index-file header, in its
 * order and widths (8336 bytes, little-endian). */
typedef struct recordinfo {
    uint32_t disk_id;     /* disk of the recording, 0-7 */
    uint32_t block_id;    /* data block the recording was created in */
    uint32_t channel;     /* channel number */
    fs_tm start_time;     /* start of the recording */
    fs_tm end_time;       /* time of the latest frame written; zero until the first entry */
    uint32_t mode;        /* attribute word (creation, index_chmod) */
    uint32_t open_flags;  /* open(2) flags of the last open; O_CREAT marks a writer */
    uint32_t entry_count; /* index entries written */
    uint64_t total_bytes; /* sum of the entries' payload lengths */
    uint32_t frame_count; /* sum of the entries' key-frame counts */
    int32_t alarm_count;  /* alarms used, 0-60 */
    record_alarm alarms[RECSTORE_MAX_ALARMS]; /* alarm records */
    uint16_t attr_a;                          /* creation attribute, verbatim */
    uint16_t attr_b;                          /* creation attribute, verbatim */
    uint32_t attr_c;                          /* creation attribute, verbatim */
    uint32_t type;                            /* record type */
    uint32_t attr_d;                          /* creation attribute, verbatim */
    uint32_t ext_magic;   /* RECSTORE_EXT_MAGIC when an extension area follows the header */
    uint32_t ext_type;    /* caller's type of the extension data */
    uint32_t ext_len;     /* extension bytes, 1-2048 */
    uint8_t reserved[20]; /* copied through unchanged */
} recordinfo;

/* One index entry (204 bytes on disk): one data cluster of a recording. */
typedef struct index_entry {
    uint32_t cluster_id;                 /* data-zone cluster holding the payload */
    uint32_t length;                     /* payload bytes in that cluster */
    uint32_t frame_count;                /* key frames starting in the cluster, 0-24 */
    kframe frames[RECSTORE_MAX_KFRAMES]; /* key-frame descriptors */
} index_entry;

/* Extension data given when a recording is created. */
typedef struct ext_desc {
    uint32_t type;    /* caller's type of the data */
    int32_t len;      /* bytes, 1-2048, a multiple of 4 */
    const void *data; /* the data */
} ext_desc;

/* One slot of the index handle table. */
typedef struct handle_slot {
    int32_t fd;       /* open index file, -1 when the slot is free */
    uint32_t seq;     /* key frame within the current entry */
    uint32_t offset;  /* byte offset within the current entry's cluster */
    recordinfo *info; /* the open recording's record info, owned by the slot */
    uint8_t *ext;     /* the slot's copy of the extension data, or null */
} handle_slot;

/* Called after a header with extension is written, so the slot keeps its own copy. */
typedef void (*ext_callback)(const void *data, int len, handle_slot *slot, void *scratch);

/* g_magic: each disk's magic value, set by index_check_magic (under the disk's mutex in the fs_*
 * callers) and read without a lock. g_idx_ctx: no lock of its own; index handles are opened and
 * closed under g_fslock and each open handle is used by one thread at a time. */
extern uint32_t g_magic[RECSTORE_MAX_DISKS];          /* magic value of each disk's magic file */
extern handle_slot g_idx_ctx[RECSTORE_INDEX_HANDLES]; /* the index handles */

/* -- record-info format: header sizes, header codecs and entry I/O -- */
/* Header bytes of an index file on the disk: 896 on a version-1 disk (by its magic value), else
 * 8336; 8336 for a bad id (reported). No I/O. */
int sizeof_recordinfo_disk(int disk_id);
/* Header bytes of the record's file: 10384 when it carries an extension area (ext_magic), else
 * as sizeof_recordinfo_disk of its disk; 8336 for null. No I/O. */
int sizeof_recordinfo(const recordinfo *info);
/* Reads a header at fd's position into out in the disk's layout. With an extension area its data
 * is copied into slot (when given) and the position stays after it; without one the position is
 * moved back to the end of the 8336-byte header. The bytes read, 0 at end of file, or -1 (bad
 * id, null out, read error). No lock. */
ssize_t read_recordinfo(int disk_id, int fd, recordinfo *out, handle_slot *slot);
/* Writes info as a header at fd's position: the version-1 layout on such disks; else the
 * 8336-byte header, or, when ext gives usable data (1-2048 bytes, a multiple of 4), info's
 * extension fields set from it and header plus 2048-byte extension area, then cb(data, len,
 * slot, scratch) when given. write(2)'s result, or -1 for a bad id or null info. Not synced; no
 * lock. */
ssize_t write_recordinfo(int disk_id, int fd, recordinfo *info, const ext_desc *ext,
                         ext_callback cb, handle_slot *slot);
/* Rewrites the header at offset 0 from info (version-1 layout, or the 8336-byte header; an
 * extension area is left as it is): pwrite's result, or -1 for a bad id or null info. Not
 * synced; no lock. */
ssize_t pwrite_recordinfo(int disk_id, int fd, const recordinfo *info);
/* Marks info as carrying an extension of ext_len bytes (1-2048) of type ext_type; nothing
 * (reported) for null info or a bad length. */
void do_ext_fill(recordinfo *info, uint32_t ext_type, int ext_len);
/* The extension length recorded in info (one that is not a multiple of 4 is reported but
 * returned), or -1 when info is null or carries no extension. */
int do_ext_get_len(const recordinfo *info);
/* Replaces the slot's copy of the extension data with len bytes of data (malloc; left null when
 * that fails); nothing for null arguments or len outside 1-2048. */
void do_index_copy_ext(const void *data, int len, handle_slot *slot);
/* Reads the entry at the index file's position into the arguments (frames: a table of 24); with
 * advance the position moves past it. next_cluster_id, when given, gets the cluster of the entry
 * at the position after the read (0xFFFFFFFF at the end). 204; 0 at end of file and, with
 * advance, at an entry of zeros or, past the entries the header counts, at one that cannot
 * belong to the recording (what a power cut leaves past its real end: a cluster outside the
 * data area, key frames over an hour before the start), the position then staying before it
 * (reads in place serve the seek and key-frame walks and return such entries as read); a short
 * count; or -1 (bad handle,
 * null argument, handle not open, read error). Any other entry is returned as read, damaged or
 * not (more than 24 frames or 524288 bytes are the caller's to refuse). Takes the zone's I/O
 * lock shared to learn its bounds. No other lock: one thread per handle. */
int do_index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                  uint32_t *frame_count, uint32_t *next_cluster_id, int advance);
/* Writes one entry (cluster, payload length, count and the whole 24-descriptor table) at the
 * position, moving past it with advance, and adds it to the record in memory (entries, bytes,
 * frames; end time from the last frame when that is 0-180 s after the old one). 204, or -1 (bad
 * handle, null frames, handle not open, count above 24, write error, short write: the file is
 * then cut back to the entry's start when the write ended it). Not synced; the header on disk is
 * not rewritten. */
int do_index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                   uint32_t frame_count, int advance);

/* -- index files -- */
/* Marks every index handle free (fd -1) without closing or freeing anything. Always 0. Call
 * before handles are used and after index_exit (fs_init does). */
int index_init(void);
/* Closes every index file and frees every handle's record without finalising a writer (no header
 * rewrite), then zeroes the table: index_init must run before handles are used again. Call when
 * no handle is in use. */
void index_exit(void);
/* Bytes of one index entry: 204. */
int index_size(void);
/* Writes the current format's magic value (version 7) at the start of the disk's magic file
 * "<index root>/magic", creating it. 0, or -1 for a bad id, a disk without index root, or an
 * open or write failure. Not synced; g_magic is not changed. */
int index_write_magic(int disk_id);
/* Reads the disk's magic file and stores a known value (versions 7, 6, 5, 1) in
 * g_magic[disk_id]. 0, or -1 for a bad id, no index root, a missing or short file or an unknown
 * value (g_magic unchanged). No lock. */
int index_check_magic(int disk_id);
/* Removes the disk's magic file, trying up to 12 times with a sync after each attempt (reported
 * when it stays). Nothing for a bad id or no index root. g_magic is not changed. */
void index_erase_magic(int disk_id);
/* Opens (flags with O_CREAT: creates) a recording's index file; flags 0 means O_RDWR. Creating
 * makes the missing directories and writes the header from the arguments (with ext, also the
 * extension area). Opening reads the header; one cut short keeps the fields it holds (the type
 * from the name when cut off), gets zero counters and the start as end time, and is written back
 * whole unless another handle holds the recording with O_CREAT (refused when it does not reach
 * the start time). One whose end time lies before its start is repaired from the entries
 * (written back only when no open handle, this one with the flags its header records included,
 * holds the recording with O_CREAT): the entries are walked from the first up to the first one
 * that cannot belong to the recording (more than 24 frames or 524288 bytes, a cluster outside the
 * data area, key frames over an hour before the start or more than 180 s before the previous
 * entry's) and only those count; when written back, the file is cut after them. The position is
 * then at the first entry. The handle 0-127, or -1 (bad id, null start, no free handle, open, read
 * or write failure, a new header written only in part: a file made by this open is then removed).
 * Not synced. No lock: callers serialise opens and closes with g_fslock. */
int index_open(int disk_id, uint32_t block_id, const struct tm *start, int channel, int type,
               uint16_t attr_a, uint16_t attr_b, uint32_t attr_c, int flags, uint32_t mode,
               uint32_t attr_d, const ext_desc *ext);
/* Frees the handle. For a writer (O_CREAT) it first sets the end time to end when given (else
 * keeps the last frame's), rewrites the header at offset 0, sets the file's access and
 * modification times to start and end, and before returning makes the recording durable: fsync
 * of the index file, then fsync of every directory from the index root down to the file's and
 * of the link root and the block directory that holds the recording's link. A failed flush is
 * reported and the handle is freed all the same. Only a report for a bad or free handle. No
 * lock: callers hold g_fslock. */
void index_close(int handle, const struct tm *end);
/* Copies the handle's extension data into buffer, at most size and 2048 bytes: the count, or -1
 * for a bad handle, null buffer, size 0 or less, a handle not open or no extension. No I/O. */
int index_get_ext(int handle, void *buffer, int size);
/* The open flags recorded for the handle (O_CREAT marks a writer), or -1 for a bad or free
 * handle. No I/O. */
int index_getflag(int handle);
/* Removes the disk's 64 channel trees and its link tree from the index partition. 0, or -1 for a
 * bad id; removal failures are only reported. Not synced. */
int index_clear(int disk_id);
/* Checks nothing: 0, or -1 for a bad disk id. */
int index_chk(int disk_id, int unused);
/* Reads the entry at the position and moves past it; next_cluster_id (optional) gets the
 * following entry's cluster, 0xFFFFFFFF after the last. 204, 0 at the end, a short count or -1
 * (see do_index_read). */
int index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
               uint32_t *frame_count, uint32_t *next_cluster_id);
/* Reads the entry at the position without moving: 204, 0 at the end, a short count or -1 (see
 * do_index_read). */
int index_get(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
              uint32_t *frame_count);
/* Steps back one entry and reads it, leaving the position at its start, so that repeated calls
 * walk backwards. 204, a short count, or -1 (also at the first entry, position unchanged). */
int index_read_r(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                 uint32_t *frame_count);
/* Writes an entry at the position and moves past it (do_index_write): 204 or -1. A short write
 * (a full partition) is reported and gives -1; the file is cut back to the entry's start when the
 * write ended it, and the position stays there, so later entries stay aligned. Not synced. */
int index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                uint32_t frame_count);
/* Steps back one entry and overwrites it, leaving the position at its start; the record's counts
 * grow as for a new entry. 204, a short count, or -1 (also at the first entry). Not synced. */
int index_write_r(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                  uint32_t frame_count);
/* Removes the recording's index file, then the directories it leaves empty up to the index root.
 * 0, or -1 for a bad id, null start or a failed remove (reported). Links, cache tags and
 * clusters are not touched; not synced. */
int index_del(int disk_id, const struct tm *start, int channel, int type);
/* Copies the handle's record info as held in memory (with this session's writes) to out. 0, or
 * -1 for a bad handle, null out or a handle not open. No I/O. */
int index_stat(int handle, recordinfo *out);
/* Rewrites the header at offset 0 from the record in memory (pwrite_recordinfo): its result, or
 * -1 for a bad or free handle. Not synced. */
int index_write_info(int handle);
/* Rewrites the header (index_write_info) and fsyncs the index file: 0, or -1 (reported with
 * perror) when the rewrite or the fsync failed. */
int index_flush_info(int handle);
/* Sets the record's mode and flushes the header (rewritten and fsynced). 0, or -1 for a bad or
 * free handle or a failed rewrite. */
int index_chmod(int handle, uint32_t mode);
/* Appends an alarm record (60 at most) and flushes the header (rewritten and fsynced). 0, or -1
 * for a bad handle, null alarm, a handle not open, no room (or a damaged count) or a failed
 * rewrite. */
int index_insertalarm(int handle, const record_alarm *alarm);
/* 1 when an open handle holds a recording of this disk and channel starting at start (any type),
 * else 0 (also for a bad id or null start). Scans the handles without a lock. */
int index_isopen(int disk_id, const struct tm *start, int channel);
/* 1 when the index partition has 512 MiB or less free or 128 free inodes or fewer (written to
 * the event log), and for a bad id; 0 otherwise, also when statfs of the index root fails. No
 * lock. */
int index_isfull(int disk_id);

/* -- positioning inside an open recording -- */
/* Position as payload bytes: entries before the position x 524288; *offset (when given) gets the
 * offset inside the current cluster. -1 for a bad or free handle or a position inside the
 * header. No lock. */
int64_t index_ltell(int handle, uint32_t *offset);
/* Moves by payload bytes, entry by entry by their lengths: whence SEEK_SET from the first entry,
 * SEEK_CUR forward or (negative offset) backward; lands on the entry holding the target with the
 * in-cluster offset and key frame set. The new index_ltell position (offset_out as its *offset),
 * or -1 for a bad or free handle, a record whose byte count is below offset / 524288 x 204 (a
 * loose bound), SEEK_END or another whence, a negative SEEK_SET offset or running off either end
 * (the position may have moved). */
int64_t index_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out);
/* Time (seconds since the epoch) of the current key frame of the entry at the position (its
 * first frame when the recorded index lies beyond the table); *seq (when given) gets the frame
 * index. An entry without key frames is read again up to 4 times. -1 for a bad or free handle,
 * at the end or on a read failure. No lock. */
int64_t index_ttell(int handle, uint32_t *seq);
/* Moves by time. SEEK_SET: to the first key frame at or after sec (seconds since the epoch),
 * which must lie between the record's start and end; sec before every frame returns the first
 * frame's time, the position at the first entry. SEEK_CUR: sec seconds forward (first frame at
 * or after) or backward (last frame at or before) from the current entry's first frame. Sets
 * position, key frame and offset and *seq (when given). The key frame's time, the end (forward)
 * or start (backward) time when the entries run out, or -1 for a bad or free handle, a bad or
 * SEEK_END whence, a time out of range or a read failure. */
int64_t index_tseek(int handle, int32_t sec, int whence, int32_t *seq);
/* Sets the handle's in-cluster offset and key frame index: the number of frames (count 1-24) at
 * or before offset, 0 without frames. Nothing for a bad handle or an offset of a cluster or
 * more. Memory only. */
void index_set_offset(int handle, uint32_t offset, const kframe *frames, int count);
/* *offset = the handle's in-cluster offset; nothing for a bad handle or null offset. */
void index_get_offset(int handle, uint32_t *offset);
/* Zeroes the handle's key frame index and in-cluster offset; nothing for a bad handle. */
void index_clear_offset(int handle);
/* Sets key frame index seq (below 24) and the in-cluster offset to frames[seq]'s; count is not
 * used. Nothing for a bad handle, null frames or seq of 24 or more. */
void index_set_seqoffset(int handle, uint32_t seq, const kframe *frames, int count);
/* *seq = the handle's key frame index; nothing for a bad handle or null seq. */
void index_get_seqoffset(int handle, uint32_t *seq);

/* ---- end of index ---- */

/* ============================================================================================
 * Index cache on tmpfs.
 * The tmpfs mounted on "/mnt/cache/" mirrors each disk's index tree: every leaf directory
 * (channel, day, type) has a file "cache" holding one 8-byte tag per recording (layout in
 * filename_to_cachetag), stored as eight little-endian bytes, low word first.
 * ========================================================================================== */
/* g_cache_rdonly is set by cache_init and g_cache_loaded by cache_set_loaded, both read and
 * written atomically without a lock. g_cachelock comes last in the lock order (after g_fslock
 * and the disk mutexes); the cache search runs its callback under it. */
extern int g_cache_rdonly;                     /* 1 when the cache was initialised read-only */
extern int g_cache_loaded[RECSTORE_MAX_DISKS]; /* 1 once a disk's cache has been built */
extern pthread_mutex_t g_cachelock;            /* guards every read, append, rewrite and clear */

/* Decides a tag's fate in a cache-file rewrite: 0 drops it, anything else keeps it
 * (match_cachetag, before_cachetag). */
typedef int (*cache_tag_pred)(uint32_t lo, uint32_t hi, const struct tm *t);

/* Mounts the tmpfs: size = disks found by fs_probe (1 when none or more than 8) x size_mib MiB,
 * nr_inodes = inodes, through fs_system (mount, then remount). Read-only mode and a tmpfs
 * already mounted mount nothing (0). 0, or -1 when neither mount nor remount succeeded (or
 * inodes <= 0, size_mib 0 or a size that does not fit an int: refused). Sets g_cache_rdonly. */
int cache_init(int inodes, unsigned size_mib, int readonly);
/* Waits for every cache loader thread to finish, then unmounts the tmpfs ("umount -f"): the
 * command's result; 0 in read-only mode or when it is not mounted. */
int cache_exit(void);
/* Starts a detached thread rebuilding the cache of device ("/dev/hd/sd" plus a letter a-h) from
 * its index tree (proc_cache_load). 0 when started (or read-only), -1 when refused or not
 * started. The caller may hold the disk's mutex; the thread takes g_fslock and g_cachelock. */
int cache_load(const char *device);
/* The loader's body: clears the disk's cache, walks its index tree doing what buildcache does
 * for each entry (the tags appended through each leaf's cache file held open while the walk
 * stays in it, each append under g_cachelock), then marks the disk loaded. Returns NULL. Runs on
 * the loader thread; takes no lock of its own. */
void *proc_cache_load(void *device);
/* Walk action of the loader: mirrors directories into the cache and appends one tag per index
 * file (its header read directly when final, else through fs_open, which repairs it, under
 * g_fslock; appended with cache_create under g_cachelock); 2 for paths holding "link" (not
 * descended), else 1, also when a file fails. */
int buildcache(const char *path, struct stat *st, void *user);
/* As cache_clear (nothing, 0, in read-only mode); the loaded flag stays as it is. Takes
 * g_cachelock. */
int cache_unload(const char *device);
/* Removes the disk's cache tree /mnt/cache/sdX under g_cachelock. 0 (also without doing anything
 * in read-only mode), or -1 for a device name that is refused. */
int cache_clear(const char *device);
/* Appends the tag of one recording to its cache file, creating the leaf directory and file when
 * missing (a short write is cut off again). -1 when start is later than end (even in read-only
 * mode), for bad arguments or when the file cannot be opened; else 0 (read-only: nothing
 * written). Only the low 8 bits of mode and bits 16-31 of total_bytes are kept. Takes
 * g_cachelock. */
int cache_create(int disk_id, int channel, const struct tm *start, const struct tm *end, int type,
                 unsigned mode, uint32_t total_bytes);
/* Stores the loaded flag of a disk atomically (nothing, reported, for an index above 7). Always
 * -1. */
int cache_set_loaded(unsigned disk_id, int value);
/* The loaded flag of a disk (atomic read), 0 for an index above 7. */
int cache_is_loaded(unsigned disk_id);
/* 1 when the mounted tmpfs has at most one free block or inode (written to the event log); 0
 * when not mounted, statfs fails or it has no such limit. No lock. */
int cache_isfull(void);
/* 1 when the cache was initialised read-only, else 0. */
int cache_is_readonly(void);
/* Writes "cache full?:%d rdonly?:%d loaded?:%d" (no newline) to fd; nothing for a negative
 * argument. */
void cache_dump(int fd, int disk_id);

/* -- removal of tags and cache files -- */
/* Rewrites the cache file of (disk, channel, t's day, type) through "cachetmp", dropping the
 * tags for which pred returns 0 (none without pred); an empty result is removed, then the empty
 * directories above it up to the disk's cache root. 0 (also, doing nothing, in read-only mode),
 * or -1 for bad arguments, a missing file or an open, read or write failure (the file then stays
 * as it was). Takes g_cachelock. */
int do_cache_delete_cond(int disk_id, int channel, const struct tm *t, int type,
                         cache_tag_pred pred);
/* Drops every tag of the cache file that starts at the same second of the day as start
 * (do_cache_delete_cond with match_cachetag): 0 or -1. Takes g_cachelock. */
int cache_delete(int disk_id, int channel, const struct tm *start, int type);
/* Walk action (find_recursive_nostat) over a channel's cache tree: removes what lies before the
 * time *(const time_t *)t (UTC) and rewrites t's own day. Walk verdicts 0 (also for null
 * arguments and in read-only mode), 1, 2. Only the rewrite takes g_cachelock: whole earlier
 * directories and files are removed without it. */
int cache_del_before_action(const char *path, void *t);
/* Does nothing; 0. */
int cache_delete_before(void);

/* ---- end of cache ---- */

/* ============================================================================================
 * Streams: one recording on one disk, opened for writing or reading.
 * ========================================================================================== */
#define RECSTORE_STREAMS 128 /* stream handles 0..127 */

/* Open parameters of a recording (60 bytes on every platform). */
typedef struct rec_param {
    fs_tm start;      /* start of the recording */
    uint32_t channel; /* channel 0-63 */
    uint16_t attr_a;  /* creation attributes, stored verbatim in the record info */
    uint16_t attr_b;
    uint32_t attr_c;
    uint32_t type; /* record type */
} rec_param;

/* One slot of the stream table. A slot is free while idx is negative. */
typedef struct fs_file_ctx {
    int32_t disk_id;                        /* disk of the stream */
    uint32_t block_id;                      /* block the recording was created in; ~0 for readers */
    int32_t idx;                            /* index handle, -1 when the slot is free */
    uint32_t reserved;                      /* not used */
    kframe kf_frames[RECSTORE_MAX_KFRAMES]; /* frame table of the current entry */
    uint32_t kf_cur;                        /* current frame within that entry */
    uint32_t kf_count;                      /* frames in that entry */
    uint64_t kf_pos;                        /* stream position of that entry */
    uint32_t cache_writes;                  /* writes since the cache tag was refreshed, 0-16 */
    int32_t preload_cluster;                /* cluster requested for preload, -1 when none */
    int32_t preload_loaded;                 /* cluster held in preload_buf, -1 when none */
    uint8_t *preload_buf;                   /* page-aligned preload buffer owned by the slot */
} fs_file_ctx;

/* The stream table. g_fslock guards taking and freeing slots; each slot's read lock (inside the
 * library, taken after g_fslock) guards its preload fields and key-frame context and is held while
 * fs_open and fs_close set the slot; the other fields of an open slot belong to the one thread
 * using the stream. */
extern fs_file_ctx g_file_ctx[RECSTORE_STREAMS];
/* Taken by fs_open, fs_close, fs_get_ext, fs_set_preload, fs_is_preload and around the index
 * opens of fs_delete (reads hold only their stream's read lock); while held, a stream's read lock,
 * a disk's mutex and g_cachelock may be taken, never the reverse. */
extern pthread_mutex_t g_fslock; /* guards g_file_ctx */

/* Opens a recording: with O_CREAT in flags it is created in the disk's current block (index file
 * header written, not synced; link; cache tag), otherwise it is opened for reading. The stream
 * handle, or -1 for a bad id, null param, a channel above 63, a disk not open, no free stream or
 * index_open's failure; creating also gives -1 (reported) for a type above 99 or a year outside
 * 0-9999, which the names cannot hold. Takes g_fslock (must not be held); creating waits up to
 * 2 s for a current block under the disk's mutex and is refused (reported) without one. Link
 * and cache failures are only reported. */
int fs_open(int disk_id, const rec_param *param, int flags, uint32_t mode, uint32_t attr_d,
            const ext_desc *ext);
/* Frees the handle and its preload buffer. For a writer it finalises the header (end time: the
 * given one, or the last frame's when null; rewritten; file times set), makes the index file, its
 * directories and its link durable before returning (see index_close), and replaces
 * the cache tag with the final one (an end time before the start gives a tag of duration 0, with
 * a warning, so that the recording stays findable). Nothing for a bad handle. When the stream's
 * disk is no longer open, or was taken down (pulled) while the stream was open, the slot and its
 * index handle are freed all the same, touching no disk: the index descriptor is closed without
 * rewriting the header, which the next open repairs. Takes g_fslock (then the stream's read lock
 * and g_cachelock) to free the preload buffer and refresh the tag, and again to free the slot; a
 * writer's map flush, header rewrite and fsyncs run between the two with no lock held, so that a
 * slow disk stalls no other stream. */
void fs_close(int handle, const struct tm *end);
/* Stores one whole cluster (a 524288-byte buffer) with its index entry. frames is a whole table
 * of RECSTORE_MAX_KFRAMES descriptors, of which the first count are used. length; -5 when no
 * cluster can be allocated; -1 in read-only mode, for a bad or closed stream, null buffer or
 * frames, count above 24 or length above 524288; else the negative result of the failed payload
 * or entry write, a short write of either counting as failed (the allocated cluster then stays
 * busy; a short entry is cut off the index file so later entries stay aligned), or -1 when
 * buffered payload could not be flushed. In buffered payload mode the cluster is written back
 * to the device and waited for (sync_file_range) before its entry is written, so that an entry
 * never reaches the disk before its payload; with direct I/O the payload is on the device when
 * its write returns. Takes the disk's mutex only to allocate; payload and entry are written
 * unlocked (one thread per stream); the entry is not synced. Every 17th write replaces the
 * cache tag (g_cachelock). */
int fs_write(int handle, const void *buffer, uint32_t length, const kframe *frames, uint32_t count);
/* Current block of the disk, looking up to 20 times 100 ms apart, each time under the disk's
 * mutex (must not be held); 0xFFFFFFFF when none appears or for a bad id. */
uint32_t fs_getblockid(int disk_id);
/* Links a recording (index file name, path relative to the link directory) into a block's link
 * directory, creating the directory when missing. 0, or -1 for a bad id, a null argument or a
 * failed symlink (reported). Not synced; no lock. */
int fs_create_link(int disk_id, uint32_t block_id, const char *name, const char *target);
/* Copies the stream's extension data into buffer (index_get_ext): the byte count, or -1 for a
 * bad stream or no extension. Takes g_fslock. */
int fs_get_ext(int handle, void *buffer, int size);
/* Sets the recording's mode: header rewritten and fsynced, cache tag replaced with the new mode
 * (g_cachelock). 0, or -1 in read-only mode, for a bad or closed stream or a failed rewrite. No
 * g_fslock. */
int fs_chmod(int handle, uint32_t mode);
/* Copies the stream's record info as held in memory (index_stat): 0, or -1 for a bad or closed
 * stream or null out. No lock, no I/O. */
int fs_stat(int handle, recordinfo *out);
/* Appends an alarm to the recording (index_insertalarm: header rewritten and fsynced): 0, or -1
 * for a bad or closed stream, null alarm or no room. No lock. */
int fs_insertalarm(int handle, const record_alarm *alarm);
/* fsyncs the disk's data-zone descriptors, then rewrites and fsyncs the stream's header (the
 * maps and payload are thus durable before the entries the header counts): datazone_sync's
 * result (a failed header flush is only reported); -1 for a bad or closed stream. No lock. */
int fs_sync(int handle);
/* Makes the next fs_write refresh the stream's cache tag. 0, or -1 for a bad or free handle. No
 * lock. */
int fs_sync_cache(int handle);
/* 0 when the recording's index file exists on the disk, else -1 (also for a bad id, null param
 * or a disk not open). No lock; access(2) only. */
int fs_access(int disk_id, const rec_param *param);
/* Writes the disk's state (flags, table entry, index statistics, data zone) to fd; nothing for a
 * negative fd or a bad id. Takes the disk's mutex several times (must not be held). */
void fs_dump(int fd, int disk_id);

/* ---- block change and the host's exception callbacks ---- */
#define RECSTORE_EXP_BUF 512 /* bytes of the buffer handed to the simple callbacks */

/* Simple callbacks: (user argument, 512-byte buffer shared by the before and after calls). */
typedef void (*fs_exp_cb)(void *arg, void *buf);
typedef struct fs_exphandle {
    fs_exp_cb before; /* before a block change, or null */
    fs_exp_cb after;  /* after it, or null */
    void *arg;        /* user argument of both */
} fs_exphandle;

/* Extended callbacks: (old disk, new disk, old block, new block, user context); blocks are -1
 * before the change and the new block is -1 after a failed allocation. */
typedef void (*fs_exp_ex_cb)(int old_disk, int new_disk, int old_block, int new_block, void *ctx);
typedef struct fs_exphandle_ex {
    void *rec_word0;     /* held for the recording API */
    void *rec_word1;     /* held for the recording API */
    fs_exp_ex_cb before; /* before a block change, or null */
    fs_exp_ex_cb after;  /* after it, or null */
    void *rec_word4;     /* held for the recording API */
    void *ctx;           /* user context of both */
} fs_exphandle_ex;

/* The simple block-change callbacks (fs_set_exphandle, rec_set_exphandle): written without a
 * lock, copied by fs_changeblock when it starts. */
extern fs_exphandle g_fsexp;
/* The extended callbacks with the disk-change words (fs_set_exphandle_ex): written without a
 * lock, read by fs_changeblock and rec_changedisk. */
extern fs_exphandle_ex g_fsexp_ex;

/* Ends the old disk's current block and makes a new current block on the new disk (which may be
 * the same), calling the host before and after: the extended callbacks when set, else the simple
 * ones. Takes each disk's mutex only around its own step and calls back with none held (the
 * daemon calls it with no lock held either). On success both disks' maps are fsynced; the change
 * goes to the event log. The cause is only logged. Always 0 (nothing done for a bad id). */
int fs_changeblock(int old_disk, int new_disk, int cause);
/* Copies the current simple callbacks into old and installs new; returns old (nothing done for a
 * null argument). No lock. */
fs_exphandle *fs_set_exphandle(fs_exphandle *old, const fs_exphandle *new_handlers);
/* Removes the simple callbacks. No lock. */
void fs_clear_exphandle(void);
/* Installs the extended callbacks (a copy of all six words); null clears them. No lock. */
void fs_set_exphandle_ex(const fs_exphandle_ex *handlers);
/* The installed extended callbacks (g_fsexp_ex); never null. */
fs_exphandle_ex *fs_get_exphandle_ex(void);

/* ---- deletion of recordings and blocks ---- */
/* Deletes one recording (record: start time, channel and type): removes the index file and the
 * directories it empties, makes that durable (syncfs of the index partition), then frees the
 * clusters its entries name that lie in the disk's current block (others stay busy until their
 * block is cleared), and drops its cache tag. Its link stays. 0, or -1 in read-only mode, for a
 * bad id, null record, an index file that cannot be opened or read whole (the file is kept and
 * nothing is freed), a failed remove, or a failed flush (the clusters then stay busy).
 * Takes g_fslock around the open and close, the disk's mutex per cluster, then g_cachelock. */
int fs_delete(int disk_id, const record_name *record);
/* Deletes every index file of the group-0 disks that starts at or before t (seconds since the
 * epoch, UTC), and the cache tags that start before it. Clusters, links and empty directories
 * stay. 0, or -1 in read-only mode or when group 0 is empty. Takes g_cachelock for cache
 * rewrites only. */
int fs_delete_index_before(time_t t);
/* Walk action of fs_delete_index_before over an index tree; user: pointer to a time_t. Removes
 * an index file that starts at or before it; 2 (skip) for link paths, unreadable names and
 * directories that start after it, else 1. */
int file_delete_index_before_action(const char *path, void *t);
/* Removes every recording created in a block (through its link directory: index files, links,
 * emptied directories, cache tags) and frees the block: block_clear and an fsync of the maps
 * under the disk's mutex (must not be held). 0, or -1 in read-only mode, for a bad id, block
 * 0xFFFFFFFF, the current block or no index root. The removals are made durable (syncfs of the
 * index partition) before the block is freed. Also -1, with the block left in use, when a
 * recording of the block could not be removed, its link directory cannot be listed or the index
 * partition cannot be flushed (an I/O error): freeing the block would hand out clusters a
 * recording may still reference after a power cut. */
int fs_clear(int disk_id, uint32_t block_id);
/* Walk action of fs_clear over a link directory (user unused): for a link naming a recording,
 * removes its index file, the link, the directories left empty and the cache tag (g_cachelock);
 * when the index file cannot be removed (other than missing) the link and the rest stay.
 * Always 1. */
int file_delete_link_action(const char *path, struct stat *st, void *user);
/* Walk action over a link directory; t: pointer to a time_t. 0 (stop) at the first recording
 * that starts at or after it, else 1. */
int file_compare_link_action(const char *path, struct stat *st, void *t);
/* 1 when the block cur may be recycled for age: there is no latest block, cur is null, or cur is
 * not the latest block (another sequence) or holds no recording starting at or after t. 0 when
 * cur has the latest block's sequence and its link directory names a recording starting at or
 * after t. */
int fs_block_timeout(const block_entry *latest, const block_entry *cur, time_t t);
/* block_earliest under the disk's mutex: the earliest in-use non-current block (its sequence
 * into *seq), or -1. */
int fs_earliest(int disk_id, uint32_t *seq);
/* block_before under the disk's mutex: the number of blocks stamped before t (seconds) written
 * to out, earliest first; -1 for a bad id. */
int fs_before(int disk_id, int32_t t, block_entry *out, int max);

/* ---- search and calendar of one disk ---- */
#define RECSTORE_MATCH_BEGINS_INSIDE 0x1 /* rec start >= start and rec end >= end */
#define RECSTORE_MATCH_ENDS_INSIDE 0x2   /* rec start <= start and rec end <= end */
#define RECSTORE_MATCH_INSIDE 0x4        /* rec start >= start and rec end <= end */
#define RECSTORE_MATCH_COVERS 0x8        /* rec start <= start and rec end >= end */
#define RECSTORE_MATCH_FAST 0x10         /* file search: times from the index file's time stamps */

/* A recording found by fs_find. Its first 60 bytes are laid out as rec_param (start time, channel,
 * type at word 14), so the search API keeps them as they are and a host can reopen the recording
 * with them. */
typedef struct fs_find_record {
    fs_tm start;      /* words 0-10: start of the recording */
    uint32_t channel; /* word 11 */
    uint16_t attr_a;  /* word 12: 0 (the attributes are in the record info) */
    uint16_t attr_b;
    uint32_t attr_c; /* word 13: 0 */
    uint32_t type;   /* word 14: record type */
    int32_t disk_id; /* word 15: disk the recording was found on */
    fs_tm end;       /* words 16-26: end of the recording */
} fs_find_record;

/* Called for every accepted recording with the found record, its status (as fs_stat fills it;
 * a cache search fills only mode and total_bytes, the file search's fast path only total_bytes
 * and ext_magic) and the request's context. 1 goes on; anything else is not counted. */
typedef int (*fs_find_cb)(const fs_find_record *found, const recordinfo *info, void *context);

/* One search of one disk (the user data of its walk). */
typedef struct fs_find_req {
    int disk;          /* disk index 0-7 */
    uint64_t chanbits; /* bit n selects channel n */
    int substream;     /* wanted type */
    int modmask;       /* wanted modes: any common bit */
    int matchflags;    /* RECSTORE_MATCH_* */
    int count;         /* recordings accepted so far */
    int maxcount;      /* limit on count */
    struct tm start;   /* range */
    struct tm end;
    fs_find_cb callback; /* may be null */
    void *context;
} fs_find_req;

/* Finds the recordings of a disk by channel set, type, modes and range; the number accepted, or
 * -1 for a bad id, a disk not initialised, null times or start after end. The fourth argument is
 * ignored. Walks each channel's cache tree when the cache is used (then channels 32-63 are never
 * found, and the callback runs under g_cachelock), else its index tree (index files opened
 * through fs_open, g_fslock). Stops at maxcount. The callback runs on the caller's thread. */
int fs_find(int disk, const struct tm *start, const struct tm *end, int ignored, uint32_t chan_lo,
            uint32_t chan_hi, int substream, int modmask, int matchflags, int maxcount,
            fs_find_cb callback, void *context);
/* Walk action of fs_find over a cache tree; request: fs_find_req. Directories get the channel,
 * range and type tests; a cache file's tags are offered to the request under g_cachelock. 1 go
 * on, 2 do not descend (or the callback refused), 0 stop at maxcount. */
int cache_findaction(const char *path, struct stat *st, void *request);
/* Walk action of fs_find over an index partition; request: fs_find_req. The same tests; an index
 * file is judged from its time stamps and size (RECSTORE_MATCH_FAST, when they give a span
 * shorter than the longest duration) or by opening it (fs_open, g_fslock). Verdicts as
 * cache_findaction. */
int file_findaction(const char *path, struct stat *st, void *request);

struct fs_calendar_req;
/* Reports a day: the request tells day (0-based), disk and chanbits. 1 marks it reported. */
typedef int (*fs_calendar_cb)(struct fs_calendar_req *request, void *context);

/* The calendar request of one day. */
typedef struct fs_calendar_req {
    int disk;                /* disk index 0-7 */
    uint64_t chanbits;       /* bit n selects channel n */
    int day;                 /* day of the month - 1 */
    int substream;           /* wanted type: always 0 */
    int found;               /* 1 once the day has been reported */
    struct tm start;         /* first second of the day, moved by timezone */
    struct tm end;           /* last second of the day, moved by timezone */
    fs_calendar_cb callback; /* may be null */
    void *context;
} fs_calendar_req;

/* Reports each day of the month (year e.g. 2024, month 1-12) that holds a type-0 recording of
 * one of the channels. 0, or -1 for a bad id, a disk not initialised or a bad month. The second
 * argument is ignored. The callback runs on the caller's thread; no lock is taken and no index
 * or cache file is read, only names. */
int fs_get_calendar(int disk, int ignored, uint32_t chan_lo, uint32_t chan_hi, int year, int month,
                    fs_calendar_cb callback, void *context);
/* Walk action of fs_get_calendar over a cache tree; request: fs_calendar_req. A cache file dated
 * within the day reports it (0, stop); directories get the channel, range and type tests (1 go
 * on, 2 skip). */
int cache_calendar_action(const char *path, void *request);
/* Walk action of fs_get_calendar over an index partition; request: fs_calendar_req. An index
 * file name starting within the day reports it (0, stop); other verdicts as
 * cache_calendar_action. */
int file_calendar_action(const char *path, void *request);

/* ---- reading, preload, key frames and seeking ---- */
/* Reads the next cluster of a reader: the whole cluster into buffer (524288 bytes), its payload
 * length, its key-frame table (RECSTORE_MAX_KFRAMES descriptors) and count. The length, 0 at the
 * end of the recording, or a negative value (-1 for a bad or closed stream, a null argument, an
 * entry out of range or a short data read). Takes the stream's read lock for the whole call (not
 * g_fslock, so that a slow disk stalls no other stream); with a preload buffer the cluster is
 * read through it (O_DIRECT) unless it holds it already. */
int fs_read(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* Reads the cluster before the position and stays at its start, so that repeated calls walk
 * backwards. The length, or a negative value (-1 at the first entry). Takes the stream's read
 * lock, not g_fslock. */
int fs_read_r(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* Gives the stream a one-cluster page-aligned preload buffer (on non-null) or frees it. 0, or -1
 * for a bad handle, without direct I/O (message printed) or when the buffer cannot be allocated.
 * Takes g_fslock, then the stream's read lock. */
int fs_set_preload(int handle, const void *on);
/* 1 when the stream has a preload buffer, else 0. Takes g_fslock, then the stream's read lock. */
int fs_is_preload(int handle);
/* Loads the cluster after the one last read into the preload buffer with O_DIRECT (run by the
 * daemon). 0 whatever the load gives; -1 when the stream's disk is not open; the handle itself
 * when it is out of range. Takes the stream's read lock if it is free and otherwise returns 0 at
 * once without loading (a read in progress loads what it needs itself); never g_fslock. */
int fs_preload(int handle);
/* Takes the key-frame context anew from the entry at the position; nothing for a bad or free
 * handle. No lock: one thread per stream. */
void fs_reset_kframe_context(int handle);
/* The key frame the context stands at, or the first one from the position on: its whole cluster
 * into buffer, the key frame's offset inside it into *offset; the position is left where it was
 * (not when the end is reached). The cluster's payload length, 0 at the end, or a negative value
 * (-1 for a bad or closed stream or a null argument). One thread per stream; the stream's read
 * lock is taken around the payload read. */
int fs_getcurkframe(int handle, void *buffer, uint32_t *offset);
/* The next key frame: the whole cluster holding it into buffer and its offset into *offset; the
 * position moves to that cluster. The payload length, 0 at the end, or a negative value. One
 * thread per stream; the stream's read lock is taken around the payload read. */
int fs_getnextkframe(int handle, void *buffer, uint32_t *offset);
/* The previous key frame, walking back cluster by cluster: the whole cluster into buffer and its
 * offset into *offset. The payload length, 0 at the end, or a negative value (-1 at the first
 * cluster). One thread per stream; the stream's read lock is taken around the payload read. */
int fs_getprekframe(int handle, void *buffer, uint32_t *offset);
/* Position of the stream (index_ltell: entries x 524288, in-cluster offset in *offset); -1 for a
 * bad or closed stream. No lock. */
int64_t fs_ltell(int handle, uint32_t *offset);
/* Time of the current key frame (index_ttell), in seconds; -1 for a bad or closed stream. No
 * lock. */
int64_t fs_ttell(int handle, uint32_t *seq);
/* Moves by payload bytes (index_lseek, whence 0 or 1): the new position, or -1. No lock. */
int64_t fs_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out);
/* Moves by seconds (index_tseek): the key frame's time, or -1, also for a bad stream or a null
 * seq. No lock. */
int64_t fs_tseek(int handle, int32_t sec, int whence, int32_t *seq);

/* ---- end of streams ---- */

/* ============================================================================================
 * Recording API: the host's interface over all disks. Lifecycle, the daemon thread (hot-plug,
 * disk and block changes), stream handles 0..127 mapped onto the disks' streams.
 * ========================================================================================== */
#define RECSTORE_REC_SLOTS 128   /* recording handles 0..127 */
#define RECSTORE_FIND_SLOTS 8    /* find handles 0..7 */
#define RECSTORE_REC_CREATE 0x40 /* open flag: create a new recording (O_CREAT) */
#define RECSTORE_PERIOD_MIN 3600 /* rec_set_period accepts only longer periods (seconds) */

/* One recording handle: the disk and the stream handle of the disk layer; both -1 when free. */
typedef struct rec_stream_slot {
    int disk_id;
    int handle;
} rec_stream_slot;

/* The second piece of a search result as the host receives it (128 bytes). */
typedef struct rec_find_info {
    int32_t disk_id;         /* disk of the recording (its record info) */
    uint32_t channel;        /* channel 0-63 */
    fs_tm start_time;        /* start of the recording */
    fs_tm end_time;          /* end of the recording */
    uint32_t mode;           /* mode bits */
    uint32_t entry_count;    /* clusters */
    uint32_t total_bytes_lo; /* payload bytes, low word */
    uint32_t total_bytes_hi; /* payload bytes, high word */
    uint32_t frame_count;    /* key frames */
    uint32_t attr_d;         /* creation attribute */
    uint32_t has_ext;        /* 1 when the record info carries an extension area */
    uint32_t reserved;       /* not written */
} rec_find_info;

/* One search result (192 bytes): the first 60 bytes of the found record (a rec_param), one word
 * not written, then the 128 bytes handed out as rec_find_info. */
typedef struct rec_find_result {
    rec_param record;   /* words 0-14 */
    uint32_t unused;    /* word 15 */
    rec_find_info info; /* words 16-47 */
} rec_find_result;

/* One find handle 0-7; in_use 0 when free. */
typedef struct rec_find_slot {
    uint32_t in_use;            /* 1 while the slot belongs to an open search */
    int32_t max_count;          /* capacity of results */
    int32_t count;              /* results stored */
    int32_t channel_count[64];  /* results stored per channel */
    int32_t cursor;             /* position of the whole-list cursor */
    int32_t channel_cursor[64]; /* each channel's cursor, inside that channel's run */
    rec_find_result *results;   /* max_count results, owned by the search */
} rec_find_slot;

/* The recording context (one per process). */
typedef struct rec_ctx {
    int inited;                  /* 1 between rec_init and rec_exit */
    int curdiskid;               /* disk new recordings go to; -1 when none */
    void *exphandle[6];          /* copy of the host's handler set (rec_set_exphandle) */
    pthread_t thread;            /* the daemon; (pthread_t)-1 when none was started */
    int running;                 /* 1 while the daemon is to keep running */
    pthread_mutex_t stream_lock; /* guards streams */
    pthread_mutex_t find_lock;   /* guards finds */
    rec_stream_slot streams[RECSTORE_REC_SLOTS];
    rec_find_slot finds[RECSTORE_FIND_SLOTS];
    int overlap; /* 1: full disks are recycled from their oldest blocks */
    int period;  /* age in seconds of the periodic deletion; -1 none */
    int force;   /* 1: run the periodic deletion on the next disk pass */
} rec_ctx;

/* The host's handler set for rec_set_exphandle: words 0-2 are the simple block-change callbacks
 * installed with fs_set_exphandle (before, after, user argument); words 3-5 are kept unchanged. */
typedef struct rec_exphandle {
    void *words[6];
} rec_exphandle;

/* Disk-change callbacks of rec_changedisk, held in the extended handler set: rec_word0 before
 * the change, rec_word1 after it, rec_word4 the user word passed to both. */
typedef void (*rec_disk_cb)(int old_disk, int new_disk, void *user);

/* Optional clock of the host: seconds since the epoch, called with a null argument. */
typedef time_t (*rec_time_fn)(time_t *out);

/* The recording context: its stream slots are taken and freed under stream_lock, its find slots
 * under find_lock; its single words are read and written atomically, without a lock. */
extern rec_ctx g_recctx;
/* The known disks (g_devname, g_diskcount) are written by rec_init and by the daemon's hot-plug
 * pass under g_diskrwlock; g_rec_pfn_time is read and written atomically. */
extern char g_devname[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN]; /* disks of the last probe */
extern int g_diskcount;                                       /* valid entries of g_devname */
extern rec_time_fn g_rec_pfn_time;                            /* null: time(2) */

/* ---- lifecycle, daemon and hot-plug ---- */
/* Resets the context, starts the disk layer (fs_init with the same arguments) and records the
 * disks present now; they are not brought up. Turns recycling on and the periodic deletion off.
 * 0, or -1 when fs_init fails. Call when no other library thread runs (it re-creates the stream
 * and find locks). */
int rec_init(int cache_inodes, unsigned cache_mib_per_disk, int mode_flags);
/* Ends the disk layer (fs_exit), frees the results of open searches and clears the context. Stop
 * the daemon, close the streams and take the disks down first. */
void rec_exit(void);
/* 1 between rec_init and rec_exit, else 0. No lock. */
int rec_is_inited(void);
/* Starts the daemon thread: pthread_create's result, 0 when started. Call once, after rec_init. */
int rec_bringup_deamon(void);
/* Stops and joins the daemon (waits for its current pass); -1 when none was started, else the
 * join's result. */
int rec_shutdown_deamon(void);
/* The daemon's loop; context is &g_recctx. Every 40 ticks a disk pass (not in read-only mode):
 * hot-plug, current disk, disk and block changes under g_diskrwlock, then recycling and the
 * periodic deletion outside it; otherwise a preload step. Sleeps 10 ms per turn until stopped.
 * Returns NULL. */
void *rec_daemon(void *context);
/* Plug-out, then plug-in, of the disks whose presence changed since the last probe: 0, or -1
 * when either failed. The daemon runs it under g_diskrwlock; the host holds rec_lockdisk. */
int rec_diskhotplug(void);
/* Brings up every probed disk not yet known (unmount, check, mount, open, data zone, data check,
 * group 0), then takes the probe as the known list. 0, or -1 when the probe fails or a data zone
 * cannot be brought up (the list is kept; retried on the next pass). Runs external commands; the
 * steps take each disk's mutex. */
int rec_plugin(void);
/* Takes down every known disk the probe no longer lists (no longer current, out of group 0, data
 * zone closed, closed, unmounted), then takes the probe as the known list. 0, or -1 when the
 * probe fails or a name has no valid disk id. */
int rec_plugout(void);
/* Periods of more than 3600 s are stored (1); others are refused (0). Atomic, no lock. The
 * deletion runs when forced (rec_force). */
int rec_set_period(int seconds);
/* Sets the force flag: the next disk pass runs the periodic deletion (when a period is set and
 * the clock is valid) and clears it. Atomic, no lock. */
void rec_force(int flag);
/* Turns the recycling of full disks on (non-zero) or off. Always 0. Atomic, no lock. */
int rec_setoverlap(int flag);
/* Installs the host's clock used by the periodic deletion (null: time(2)). Atomic, no lock. */
void rec_set_time_pfn(rec_time_fn fn);
/* 1 when seconds is more than 3600, else 0. */
int do_rec_period_is_valid(int seconds);
/* 1 when t (seconds since the epoch) is after 1577808000 (the start of 2020 at UTC+8), else 0. */
int do_rec_time_is_valid(int t);
/* 1 when now is a valid time later than the period and the force flag is set (the flag is then
 * cleared and the event logged); else 0. */
int do_rec_test_period(int now);
/* Takes g_diskrwlock for writing (fs_lockdisk), keeping the daemon's pass out: 0. Not recursive:
 * never call it from a callback the daemon runs. */
int rec_lockdisk(void);
/* Releases g_diskrwlock (fs_unlockdisk): 0. */
int rec_unlockdisk(void);
/* Writes the library's state and every probed disk's cache and disk state to fd; nothing for a
 * negative fd. Takes each disk's mutex in turn. */
void rec_dump(int fd);

/* ---- streams and disk rotation ---- */
/* Opens a recording: flags with RECSTORE_REC_CREATE create it on the current disk, otherwise it
 * is looked up on the disks of group 0. The handle 0-127, or -1 for a channel outside 0-63, null
 * start, the library not initialised, no free handle, no current disk or a full one, a recording
 * not found or fs_open's failure. Takes the stream lock, then g_fslock (fs_open). */
int rec_open_v2(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d, const ext_desc *ext);
/* rec_open_v2 without extension data. */
int rec_open_v1(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d);
/* rec_open_v1 with attr_d 0. */
int rec_open(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
             int flags, int mode);
/* Closes the handle's stream (fs_close: header finalised, cache tag replaced) and frees the
 * handle; nothing for a bad handle. Takes the stream lock to free the handle, then (not holding
 * it) g_fslock through fs_close. */
void rec_close(int h, const struct tm *end);
/* One whole cluster (see fs_write): length, -5 when no cluster is left, or another negative
 * value. -2, without writing, when the handle's disk is full (fs_isdiskfull); -1 for a bad
 * handle or null buffer or frames. No lock of its own. */
int rec_write(int h, const void *buffer, int length, const kframe *frames, int count);
/* fs_get_ext on the handle's stream; -1 for a bad handle. */
int rec_get_ext(int h, void *buffer, int size);
/* fs_chmod on the handle's stream (header rewritten and fsynced); -1 for a bad handle. */
int rec_chmod(int h, int mode);
/* fs_stat on the handle's stream; -1 for a bad handle or null st. */
int rec_stat(int h, recordinfo *st);
/* fs_insertalarm on the handle's stream; -1 for a bad handle or null alarm. */
int rec_insertalarm(int h, const record_alarm *alarm);
/* fs_sync on the handle's stream (header and data zone fsynced); -1 for a bad handle. */
int rec_sync(int h);
/* fs_read on the handle's stream; -1 for a bad handle or a null argument. */
int rec_read(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* fs_read_r on the handle's stream; -1 for a bad handle or a null argument. */
int rec_read_r(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* fs_set_preload on the handle's stream; -1 for a bad handle. */
int rec_set_preload(int h, const void *on);
/* fs_getcurkframe on the handle's stream; -1 for a bad handle or a null argument. */
int rec_getcurkframe(int h, void *buffer, uint32_t *offset);
/* fs_getnextkframe on the handle's stream; -1 for a bad handle or a null argument. */
int rec_getnextkframe(int h, void *buffer, uint32_t *offset);
/* fs_getprekframe on the handle's stream; -1 for a bad handle or a null argument. */
int rec_getprekframe(int h, void *buffer, uint32_t *offset);
/* fs_ltell on the handle's stream; -1 for a bad handle. */
int64_t rec_ltell(int h, uint32_t *offset);
/* Time of the current key frame in seconds (as fs_ttell); also into *t (UTC) when t is given. -1
 * for a bad handle. */
int64_t rec_ttell(int h, struct tm *t);
/* fs_lseek on the handle's stream (no in-cluster offset out); -1 for a bad handle. */
int64_t rec_lseek(int h, int64_t offset, int whence);
/* fs_tseek on the handle's stream; -1 for a bad handle or a null out. */
int64_t rec_tseek(int h, int32_t sec, int whence, int32_t *out);
/* One preload step: fs_preload for every open handle. Run by the daemon between passes; reads
 * the slots without the stream lock. */
void do_rec_preload(void);
/* Makes every open stream refresh its cache tag on its next write. Returns the result for stream
 * 127 (-1 when it is free). */
int rec_sync_cache(void);
/* cache_is_readonly(): 1 when the cache is read-only. */
int rec_is_cache_readonly(void);
/* 1 when every disk of group 0 has its cache loaded (also when the group is empty), else 0. No
 * lock. */
int rec_is_cache_loaded(void);
/* Copies the stored handler set into old, stores new and installs its simple callbacks
 * (fs_set_exphandle). Returns old; nothing done for a null argument. No lock. */
rec_exphandle *rec_set_exphandle(rec_exphandle *old, const rec_exphandle *new_handlers);
/* Removes the simple callbacks and clears the stored handler set. No lock. */
void rec_clear_exphandle(void);
/* fs_set_exphandle_ex: installs (null: clears) the extended callbacks. */
void rec_set_exphandle_ex(const fs_exphandle_ex *handlers);
/* fs_get_exphandle_ex: the installed extended callbacks, never null. */
fs_exphandle_ex *rec_get_exphandle_ex(void);
/* The first disk of group 0 that is not full (fs_isdiskfull), or -1 when the group is empty or
 * all its disks are full. Takes each disk's mutex in turn; the daemon calls it under
 * g_diskrwlock. */
int rec_diskcurrent(void);
/* Moves recording to the disk rec_diskcurrent chooses (the current disk becomes -1 when there is
 * none): the disk callbacks rec_word0 before and rec_word1 after fs_changeblock. 0, or -1 when
 * there is none. Takes no lock of its own besides the disk mutexes; the daemon chooses the disk
 * under g_diskrwlock and makes the change, callbacks included, after releasing it. */
int rec_changedisk(int overlap);

/* ---- search and calendar over all disks ---- */
/* Opens a search over every initialised disk: handle 0-7, or -1 for null times, the library not
 * initialised, a negative maxcount, no free find handle or no memory. sortmode 1 by channel, 2
 * by start time, 3 by channel then start time, else in the order found. maxcount bounds the
 * results over all disks. Takes the find lock to take the handle; fs_find runs outside it. */
int rec_find_open(const struct tm *start, const struct tm *end, uint64_t chanbits, int type,
                  int modmask, int matchflags, int maxcount, int sortmode);
/* Pages of results: up to n from the cursor into recs (60-byte records) and infos (128-byte
 * records), moving the cursor on. The number copied, or -1 for a bad handle, null arrays or a
 * cursor before the first result. No lock: one thread per search. */
int rec_find_next(int h, rec_param *recs, rec_find_info *infos, int n);
/* Up to n results backward from the cursor, stored so that the arrays end in ascending order;
 * the cursor moves back. The number copied, or -1 for a bad handle, null arrays or a cursor at
 * or past the end. */
int rec_find_prev(int h, rec_param *recs, rec_find_info *infos, int n);
/* Results stored by the search, or -1 for a bad handle. */
int rec_find_getcounts(int h);
/* Moves the cursor to the first result; nothing for a bad handle. */
void rec_find_reset(int h);
/* Moves the cursor to the last result (for rec_find_prev); nothing for a bad handle. */
void rec_find_toend(int h);
/* rec_find_next on one channel's run of the results (after sort mode 1 or 3) with its own
 * cursor; -1 also for a channel outside 0-63. */
int rec_find_channel_next(int h, int channel, rec_param *recs, rec_find_info *infos, int n);
/* rec_find_prev on one channel's run with its own cursor; -1 also for a channel outside 0-63. */
int rec_find_channel_prev(int h, int channel, rec_param *recs, rec_find_info *infos, int n);
/* Results of one channel, or -1 for a bad handle or a channel outside 0-63. */
int rec_find_channel_getcounts(int h, int channel);
/* Moves one channel's cursor to its first result. */
void rec_find_channel_reset(int h, int channel);
/* Moves one channel's cursor to its last result. */
void rec_find_channel_toend(int h, int channel);
/* Frees the search's results and its handle. Takes the find lock. */
void rec_find_close(int h);
/* Marks bit 0 of days[d - 1] for every day d of the month holding a type-0 recording of the
 * channels (low and high words of the mask); days is cleared first for the month's days. 0, or
 * -1 when the library is not initialised, days is null or the month has more than 31 days. Runs
 * fs_get_calendar on every initialised disk. */
int rec_get_calendar(uint32_t chan_lo, uint32_t chan_hi, int year, int month, unsigned char *days);
/* The callback rec_find_open gives fs_find (slot: rec_find_slot *): stores one result, 1; 0 when
 * the slot is full or null or the channel is above 63. With the cache it runs under g_cachelock
 * and yields now and then. */
int rec_action(const fs_find_record *found, const recordinfo *info, void *slot);
/* The callback rec_get_calendar gives fs_get_calendar (days array): marks bit 0 of
 * days[request->day], 1; 0 for null arguments or a day outside 0-30. */
int do_rec_get_calendar_action(fs_calendar_req *request, void *days);
/* qsort comparator of rec_find_result by channel. */
int rec_channel_compare(const void *a, const void *b);
/* qsort comparator of rec_find_result by start time (tm_cmp). */
int rec_time_compare(const void *a, const void *b);

/* ---- recycling ---- */
/* Deletes one recording (fs_delete) on every disk of group 0: 0 when at least one disk deleted
 * it, -1 otherwise or for a null record. */
int rec_delete(const record_name *record);
/* Does nothing; 0. */
int rec_mark_old(void);

/* ---- end of recording API ---- */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* RECSTORE_H */
