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
     defined(__arm__)) &&                                                                   \
    !defined(__x86_64__)
#if (defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64) || defined(__USE_FILE_OFFSET64)
#error "recstore.h: _FILE_OFFSET_BITS=64 changes off_t, struct stat and struct statfs on this 32-bit target, but librecstore.so uses the 32-bit layouts; build the host without _FILE_OFFSET_BITS=64 (use the explicit *64 interfaces, e.g. open with O_LARGEFILE and pread64, for large files)"
#elif (defined(_TIME_BITS) && _TIME_BITS == 64) || defined(__USE_TIME_BITS64)
#error "recstore.h: _TIME_BITS=64 changes time_t on this 32-bit target, but librecstore.so uses the 32-bit time_t; build the host without _TIME_BITS=64 and _FILE_OFFSET_BITS=64"
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
extern uint32_t g_plog_inited; /* 1 while the log file "/mnt/img/log.log" is enabled */

int fs_log_init(const char *path);
int fs_log_is_inited(void);
void fs_log_exit(void);
/* Time-stamped message to standard output and the log file; -1 when the log is disabled. */
int fs_log_file(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Runs an external command through the host's pip_system, or system(3) when debugging. */
int fs_system(char *command);
void from_fs_tm(struct tm *dst, const fs_tm *src);
fs_tm *to_fs_tm(const struct tm *src, fs_tm *dst);
char *find_debug_info_tostring(const find_debug_info *info, char *dst, size_t n);
char *find_debug_tostring(const find_debug *stats, char *dst, size_t n);

/* ============================================================================================
 * Path and name scheme. Builders write at most n bytes (snprintf semantics) and return dst.
 * A disk id outside 0-7 is refused: the builder reports it and leaves dst an empty string.
 * ========================================================================================== */
char *disk_root(int disk_id, char *dst, size_t n);
char *sys_partion(int disk_id, char *dst, size_t n);
char *idx_partion(int disk_id, char *dst, size_t n);
char *data_partion(int disk_id, char *dst, size_t n);
char *mount_point(const char *dev, char *dst, size_t n);
const char *dev_name(const char *mnt, char *dst, size_t n);
char *idx_root(int disk_id, char *dst, size_t n);
char *idx_linkroot(int disk_id, char *dst, size_t n);
char *mk_idx_chnpath(int disk_id, char *dst, size_t n, int channel);
char *mk_idx_yearpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
char *mk_idx_monpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
char *mk_idx_daypath(int disk_id, char *dst, size_t n, int channel, const struct tm *t);
char *mk_idx_fullpath(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type);
char *mk_idx_filename(char *dst, size_t n, int channel, const struct tm *t, int type);
char *mk_idx_fullname(int disk_id, char *dst, size_t n, int channel, const struct tm *t, int type);
char *mk_idx_fullname_relative(char *dst, size_t n, int channel, const struct tm *t, int type);
char *mk_idx_linkpath(int disk_id, char *dst, size_t n, int block_id);
char *mk_idx_linkname(int disk_id, char *dst, size_t n, int block_id, const char *filename);
int todiskid(const char *dev);
char *tocachename(char *dst, size_t n, const char *path);
int filename_to_record(const char *name, int *channel, struct tm *start, int *type);
int fullname_to_record(const char *path, int *disk_id, int *channel, struct tm *start, int *type);
int linkname_to_record(const char *path, int *disk_id, int *block_id, int *channel,
                       struct tm *start, int *type);
int cachefullname_to_record(const char *path, int *disk_id, int *channel, struct tm *day,
                            int *type);
uint64_t filename_to_cachetag(struct tm *end, unsigned mode, unsigned total_bytes,
                              const char *filename);
int cachetag_to_record(const char *cachefile, int ignored, uint32_t lo, uint32_t hi, int *disk_id,
                       int *channel, struct tm *start, struct tm *end, int *type, int *mode,
                       unsigned *total_bytes);
int match_cachetag(uint32_t lo, uint32_t hi, const struct tm *t);
int before_cachetag(uint32_t lo, uint32_t hi, const struct tm *t);
char *mk_parent(const char *src, size_t n, char *dst);
int mkdir_recursive(char *path);
char *last_char_is(const char *s, int c);
char *concat_path_file(char *dst, size_t n, const char *path, const char *file);
char *concat_subpath_file(char *dst, size_t n, const char *path, const char *file);
int is_dir_empty(const char *path);
int rm_empty_dir(const char *path);

/* ============================================================================================
 * Directory walking and removal.
 * A callback result of 0 stops the walk; 2 from a pre-order directory action skips its contents.
 * ========================================================================================== */
typedef int (*find_action)(const char *path, struct stat *st, void *user);
typedef int (*find_action_nostat)(const char *path, void *user);

int find_recursive(char *path, int recurse, int follow_links, int depth_first,
                   find_action file_action, find_action dir_action, void *user, find_debug *stats);
int find_recursive_nostat(const char *path, unsigned char entry_type, int recurse, int follow_links,
                          int depth_first, find_action_nostat file_action,
                          find_action_nostat dir_action, void *user, find_debug *stats);
/* flags: 1 or 2 remove directories with their contents; 4 a missing path is a success. */
int remove_file(const char *path, int flags);

/* ============================================================================================
 * Mounts, block devices and raw cluster I/O.
 * ========================================================================================== */
/* 1 when a mount's directory or device equals path (table null: "/proc/mounts"), else 0. */
int find_mount_point(const char *path, const char *table);
/* 1 when a mount has exactly this device on this directory, else 0. */
int find_mount_pair(const char *device, const char *dir, const char *table);
/* Size in bytes of an open block device (or of a regular file, such as a disk image). */
int64_t blockdev_size(int disk_id, int fd);
uint64_t get_max_supported_disk_size(int disk_id);
ssize_t read_cluster(int fd, int cluster, int offset, void *buf, size_t n);
ssize_t write_cluster(int fd, int cluster, int offset, const void *buf, size_t n);
/* Number of consecutive 1 bits at the bottom of word (index of the lowest clear bit). */
int find_first_bit(uint32_t word);

/* ============================================================================================
 * Disk table, groups and mode flags.
 * ========================================================================================== */
extern fs_disk_info g_disk[RECSTORE_MAX_DISKS];
extern fs_group g_grp[RECSTORE_MAX_GROUPS];
extern int g_fs_rdonly;           /* mode flag 1: read-only */
extern int g_fs_directio;         /* mode flag 2: payload I/O with O_DIRECT */
extern int g_fs_usecache;         /* 1 unless mode flag 4 (no cache) */
extern int g_max_duration_in_sec; /* longest duration of one recording file, default 7200 */

/* ---- disk table, groups and fullness ---- */
#define RECSTORE_NO_GROUP 3  /* g_disk[].grp of a disk in no group */
#define RECSTORE_FS_RDONLY 1 /* fs_init mode flags */
#define RECSTORE_FS_DIRECTIO 2
#define RECSTORE_FS_NOCACHE 4

/* Starts the disk layer: zeroes the disk table, the groups and the stream table, starts the index
 * layer, takes the mode flags (RECSTORE_FS_*) and, unless the cache is off, mounts the tmpfs cache
 * with cache_inodes inodes and cache_mib MiB per disk. 0, or -1 when the cache cannot be set up. */
int fs_init(int cache_inodes, unsigned cache_mib, int flags);
void fs_exit(void);
/* Enters a disk into the table: its disk id, or -1 for a bad name. */
int fs_opendisk(const char *dev);
void fs_closedisk(int disk_id);
/* Brings a mounted disk's data zone up (valid magic file, index mounted) and starts the cache
 * load. 0 or -1. */
int fs_datazone_init(int disk_id);
void fs_datazone_exit(int disk_id);
int fs_datazone_is_inited(int disk_id);
int fs_disk_is_inited(int disk_id);
/* Erases every recording of a disk and gives it a fresh magic file and fresh maps. 0 or -1. */
int fs_cleardisk(int disk_id);
int fs_chkdata(int disk_id, int fix);
/* Copies the disk's table entry (with data-zone, index-root and magic information) to out. */
int fs_getdiskinfo(int disk_id, fs_disk_info *out);
/* Fullness tests: 1 full (or doubtful), 0 not full. */
int fs_isdiskfull(int disk_id);
int do_fs_isdiskfull(int disk_id, int threshold);
int fs_isalldiskfull(int disk_id, int threshold);
int fs_isblockfull(int disk_id);
int fs_timenotify(int disk_id);
int fs_adddisk(int grp, int disk_id);
int fs_removedisk(int grp, int disk_id);
int fs_getgrp(int disk_id);
/* Disk ids of the group's occupied slots, in slot order, into ids (8 entries) and their number. */
int fs_getdisk(int grp, int *ids, int *count);
extern pthread_rwlock_t g_diskrwlock; /* the disk table as a whole, always taken for writing */
int fs_lockdisk(void);
int fs_unlockdisk(void);
int fs_is_readonly(void);
int fs_use_cache(void);
void fs_set_max_record_duration(int seconds);
int fs_get_max_record_duration(void);

/* ---- disk preparation ---- */
/* Version string of a disk's format, from its magic value: "7.0.0.0", "6.0.0.0", "5.0.0.0",
 * "1.0.0.2", or "" for an unknown magic or a bad disk id. */
const char *fs_version(int disk_id);

/* A disk is a whole-disk node "/dev/hd/sd" followed by one letter a-h (disk ids 0-7); its
 * partitions are that path followed by 1 (system), 2 (index) and 3 (raw data). Any other name is
 * refused (-1, or 0 for the yes/no tests) before it reaches a command line. */
#define RECSTORE_PROBE_MAX 8 /* entries of a probe list, RECSTORE_PATH_LEN bytes each */

/* Partitions the disk (unless the system runs from it), builds the file systems of partitions 1
 * and 2 (only 2 when the system runs from it). 0, or -1 when the device cannot be opened or a
 * tool is missing. */
int fs_format(const char *dev);
/* Checks the index partition's file system with fsck.ext4; 0 when it is clean, was repaired, is
 * mounted (nothing done) or its nodes never appeared; -1 otherwise or in read-only mode. */
int fs_chk(const char *dev);
/* Mounts partition 1 on "/mnt/img" when no disk's is there, enables the log file and mounts the
 * index partition on the disk's mount point. 0, or -1 when the index partition cannot be mounted.
 */
int fs_mount(const char *dev);
/* Disables the log file, unmounts "/mnt/img" when this disk's partition 1 is there (and the
 * system does not run from it) and unmounts the index partition. 0, or -1 for a bad name. */
int fs_umount(const char *dev);
/* Finds an external tool in "/mnt/app", ".", "/usr/local/bin", "/usr/local/sbin", "/usr/bin",
 * "/usr/sbin", "/bin", "/sbin" and writes its command into out ("parted" gets " -f" when it
 * supports it). 0 found, -1 not found (or a bad name, or out too small). */
int fs_get_cmd(const char *tool, char *out, size_t size);
/* Lists the whole-disk nodes under "/dev/hd/", sorted by disk id, into list (at most
 * RECSTORE_PROBE_MAX entries) and their number into count. 0 (-1 only for null arguments). */
int fs_probe(char (*list)[RECSTORE_PATH_LEN], int *count);
/* 1 when the system runs from this disk: its partition 1 on "/mnt/img" and "/dev/loop0" on
 * "/mnt/app"; else 0. */
int is_running_on_hd(const char *dev);
/* 1 when this disk's partition 1 is mounted on "/mnt/img"; else 0. */
int is_img_mounted_on_hd(const char *dev);
/* 1 when some disk's partition 1 is mounted on "/mnt/img", 0 when none, -1 when probing fails. */
int is_img_mounted(void);
/* 1 when the disk's index mount point is mounted; else 0. */
int fs_ismounted(const char *dev);
/* Device path held in the disk table for this disk, or NULL for a bad id or an empty entry. */
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

int bitmap_init(cluster_bitmap *bm, int count, int fd, uint32_t cluster);
void bitmap_exit(cluster_bitmap *bm);
/* Raw entry, or 0xFFFFFFFF. */
uint32_t bitmap_val(cluster_bitmap *bm, uint32_t id);
int bitmap_free_get(cluster_bitmap *bm);
int bitmap_busy_get(cluster_bitmap *bm);
int bitmap_err_get(cluster_bitmap *bm);
int bitmap_free_test(cluster_bitmap *bm);
int bitmap_busy_test(cluster_bitmap *bm);
int bitmap_err_test(cluster_bitmap *bm);
int bitmap_free_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
int bitmap_busy_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
int bitmap_err_put(cluster_bitmap *bm, uint32_t id, uint32_t value);
int bitmap_free_del(cluster_bitmap *bm, uint32_t id);
int bitmap_busy_del(cluster_bitmap *bm, uint32_t id);
int bitmap_err_del(cluster_bitmap *bm, uint32_t id);
int bitmap_clear(cluster_bitmap *bm);
int bitmap_is_free(cluster_bitmap *bm, uint32_t id);
int bitmap_is_busy(cluster_bitmap *bm, uint32_t id);
int bitmap_is_err(cluster_bitmap *bm, uint32_t id);
int bitmap_is_free_empty(cluster_bitmap *bm);
int bitmap_is_busy_empty(cluster_bitmap *bm);
int bitmap_is_err_empty(cluster_bitmap *bm);
uint32_t bitmap_free_bits(cluster_bitmap *bm);
uint32_t bitmap_busy_bits(cluster_bitmap *bm);
uint32_t bitmap_err_bits(cluster_bitmap *bm);
/* Unlinks a node and poisons its links (next 0x100100, prev 0x200200). */
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

extern datazone_ctx g_dz_ctx[RECSTORE_MAX_DISKS];

/* Block filters of block_ultimate: (disk, block index, argument, block count) -> 1 keep, 0 drop. */
typedef int (*block_filter)(int disk, uint32_t index, void *arg, uint32_t count);

int datazone_init(int disk_id, int directio);
void datazone_exit(int disk_id);
int datazone_is_inited(int disk_id);
int datazone_chk(int disk_id, int fix);
void do_block_chk(dz_block *block, int fix);
int datazone_getinfo(int disk_id, datazone_info *out);
/* Geometry of a data partition of data_bytes on a disk whose magic file holds magic (one of the
 * RECSTORE_MAGIC_ values): fills *out as datazone_getinfo would (name empty, freesize 0) and
 * returns 0; -1 for an unknown magic, a null out or a partition too small for a data zone. */
int datazone_geometry_for(uint32_t magic, uint64_t data_bytes, datazone_info *out);
int datazone_dump(int fd, int disk_id);
int datazone_clear(int disk_id);

dz_block *block_load(int disk_id, uint32_t block_id);
void block_unload(dz_block *block);
int block_alloc(int disk_id);
int block_free(int disk_id);
int block_current(int disk_id);
int block_get_current(int disk_id);
int block_is_free_empty(int disk_id);
int block_is_busy_empty(int disk_id);
/* Raw block map entry, or 0xFFFFFFFF. */
uint32_t block_val(int disk_id, uint32_t block_id);
int block_earliest(int disk_id, uint32_t *seq);
/* time: seconds since the epoch; blocks taken before it (and after 0) are listed. */
int block_before(int disk_id, int32_t time, block_entry *out, int max);
int block_ultimate(int disk_id, block_filter filter, void *arg, int latest, block_entry *out,
                   int max);
block_entry *blk_seq_earliest(block_entry *list, int count);
block_entry *blk_seq_latest(block_entry *list, int count);
void block_clear(int disk_id, uint32_t block_id);
void do_block_dump(dz_block *block);
int compareblock(const void *a, const void *b);
int compareblock_r(const void *a, const void *b);
int block_filter_not_allfree_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);
int block_filter_halffree_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);
/* arg: pointer to an int32_t time in seconds. */
int block_filter_before_and_not_current(int disk, uint32_t index, void *arg, uint32_t count);

int datazone_alloc(int disk_id);
int datazone_free(int disk_id, int cluster_id);
/* Raw cluster map entry of a cluster of the current block, or 0xFFFFFFFF. */
uint32_t datazone_val(int disk_id, int cluster_id);
int datazone_read(int disk_id, int cluster_id, void *buf);
int datazone_read_direct(int disk_id, int cluster_id, void *buf);
int datazone_write(int disk_id, int cluster_id, const void *buf);
int datazone_sync(int disk_id);
int datazone_sync_bm(int disk_id);
int datazone_busy_count(int disk_id);
int datazone_free_count(int disk_id);
int datazone_is_free_empty(int disk_id);
int datazone_is_full_prepare(int disk_id, int threshold);
/* A stream's read of one cluster: through the stream's page-aligned preload buffer with O_DIRECT
 * when the stream has one and direct I/O is on (the buffer then holds that cluster), otherwise
 * datazone_read. Bytes read, or a negative value. */
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

extern uint32_t g_magic[RECSTORE_MAX_DISKS];          /* magic value of each disk's magic file */
extern handle_slot g_idx_ctx[RECSTORE_INDEX_HANDLES]; /* the index handles */

/* -- record-info format: header sizes, header codecs and entry I/O -- */
int sizeof_recordinfo_disk(int disk_id);
int sizeof_recordinfo(const recordinfo *info);
ssize_t read_recordinfo(int disk_id, int fd, recordinfo *out, handle_slot *slot);
ssize_t write_recordinfo(int disk_id, int fd, recordinfo *info, const ext_desc *ext,
                         ext_callback cb, handle_slot *slot);
ssize_t pwrite_recordinfo(int disk_id, int fd, const recordinfo *info);
void do_ext_fill(recordinfo *info, uint32_t ext_type, int ext_len);
int do_ext_get_len(const recordinfo *info);
void do_index_copy_ext(const void *data, int len, handle_slot *slot);
int do_index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                  uint32_t *frame_count, uint32_t *next_cluster_id, int advance);
int do_index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                   uint32_t frame_count, int advance);

/* -- index files -- */
int index_init(void);
void index_exit(void);
int index_size(void);
int index_write_magic(int disk_id);
int index_check_magic(int disk_id);
void index_erase_magic(int disk_id);
/* Opens (flags with O_CREAT: creates) a recording's index file; flags 0 means O_RDWR.
 * Returns the handle 0-127 or -1. */
int index_open(int disk_id, uint32_t block_id, const struct tm *start, int channel, int type,
               uint16_t attr_a, uint16_t attr_b, uint32_t attr_c, int flags, uint32_t mode,
               uint32_t attr_d, const ext_desc *ext);
void index_close(int handle, const struct tm *end);
int index_get_ext(int handle, void *buffer, int size);
int index_getflag(int handle);
int index_clear(int disk_id);
int index_chk(int disk_id, int unused);
int index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
               uint32_t *frame_count, uint32_t *next_cluster_id);
int index_get(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
              uint32_t *frame_count);
int index_read_r(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                 uint32_t *frame_count);
int index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                uint32_t frame_count);
int index_write_r(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                  uint32_t frame_count);
int index_del(int disk_id, const struct tm *start, int channel, int type);
int index_stat(int handle, recordinfo *out);
int index_write_info(int handle);
int index_flush_info(int handle);
int index_chmod(int handle, uint32_t mode);
int index_insertalarm(int handle, const record_alarm *alarm);
int index_isopen(int disk_id, const struct tm *start, int channel);
int index_isfull(int disk_id);

/* -- positioning inside an open recording -- */
int64_t index_ltell(int handle, uint32_t *offset);
int64_t index_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out);
int64_t index_ttell(int handle, uint32_t *seq);
int64_t index_tseek(int handle, int32_t sec, int whence, int32_t *seq);
void index_set_offset(int handle, uint32_t offset, const kframe *frames, int count);
void index_get_offset(int handle, uint32_t *offset);
void index_clear_offset(int handle);
void index_set_seqoffset(int handle, uint32_t seq, const kframe *frames, int count);
void index_get_seqoffset(int handle, uint32_t *seq);

/* ---- end of index ---- */

/* ============================================================================================
 * Index cache on tmpfs.
 * The tmpfs mounted on "/mnt/cache/" mirrors each disk's index tree: every leaf directory
 * (channel, day, type) has a file "cache" holding one 8-byte tag per recording (layout in
 * filename_to_cachetag), stored as eight little-endian bytes, low word first.
 * ========================================================================================== */
extern int g_cache_rdonly;                     /* 1 when the cache was initialised read-only */
extern int g_cache_loaded[RECSTORE_MAX_DISKS]; /* 1 once a disk's cache has been built */
extern pthread_mutex_t g_cachelock;            /* guards every read, append, rewrite and clear */

/* Decides a tag's fate in a cache-file rewrite: 0 drops it, anything else keeps it
 * (match_cachetag, before_cachetag). */
typedef int (*cache_tag_pred)(uint32_t lo, uint32_t hi, const struct tm *t);

/* Mounts the tmpfs: size = disks found by fs_probe (1 when none or more than 8) x size_mib MiB,
 * nr_inodes = inodes. Read-only mode mounts nothing. 0, or -1 when neither mount nor remount
 * succeeded (or inodes <= 0, size_mib 0 or a size that does not fit an int: refused). */
int cache_init(int inodes, unsigned size_mib, int readonly);
/* Unmounts the tmpfs ("umount -f"); the command's result, else 0. */
int cache_exit(void);
/* Starts a detached thread rebuilding the cache of device ("/dev/hd/sd" plus a letter a-h) from
 * its index tree. 0 when started (or read-only), -1 when refused or not started. */
int cache_load(const char *device);
/* The loader's body: clears the disk's cache, walks its index tree with buildcache, then marks
 * the disk loaded. Returns NULL. */
void *proc_cache_load(void *device);
/* Walk action of the loader: mirrors directories, appends one tag per index file; 2 for paths
 * holding "link" (not descended), else 1. */
int buildcache(const char *path, struct stat *st, void *user);
/* As cache_clear (nothing in read-only mode); the loaded flag stays as it is. */
int cache_unload(const char *device);
/* Removes the disk's cache tree /mnt/cache/sdX. 0, or -1 for a device name that is refused. */
int cache_clear(const char *device);
/* Appends the tag of one recording to its cache file. -1 when start is later than end (even in
 * read-only mode), for bad arguments or when the file cannot be opened; else 0. Only the low 8
 * bits of mode and bits 16-31 of total_bytes are kept. */
int cache_create(int disk_id, int channel, const struct tm *start, const struct tm *end, int type,
                 unsigned mode, uint32_t total_bytes);
/* Stores the loaded flag of a disk (nothing for an index above 7). Always -1. */
int cache_set_loaded(unsigned disk_id, int value);
/* The loaded flag of a disk, 0 for an index above 7. */
int cache_is_loaded(unsigned disk_id);
/* 1 when the mounted tmpfs has at most one free block or inode (logged to the log file). */
int cache_isfull(void);
int cache_is_readonly(void);
/* Writes "cache full?:%d rdonly?:%d loaded?:%d" to fd; nothing for a negative argument. */
void cache_dump(int fd, int disk_id);

/* -- removal of tags and cache files -- */
/* Rewrites the cache file of (disk, channel, t's day, type) through "cachetmp", dropping the tags
 * for which pred returns 0 (none without pred); an empty result is removed, then the empty
 * directories above it up to the disk's cache root. 0, or -1 (missing file, open failure). */
int do_cache_delete_cond(int disk_id, int channel, const struct tm *t, int type,
                         cache_tag_pred pred);
/* Drops every tag starting at the same second of the day as start. */
int cache_delete(int disk_id, int channel, const struct tm *start, int type);
/* Walk action (find_recursive_nostat) over a channel's cache tree: removes what lies before the
 * time *(const time_t *)t (UTC) and rewrites t's own day. Walk verdicts 0, 1, 2. */
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

extern fs_file_ctx g_file_ctx[RECSTORE_STREAMS];
extern pthread_mutex_t g_fslock; /* guards g_file_ctx */

/* Opens a recording: with O_CREAT in flags it is created in the disk's current block (index file,
 * link, cache tag); otherwise it is opened for reading. The stream handle, or -1. */
int fs_open(int disk_id, const rec_param *param, int flags, uint32_t mode, uint32_t attr_d,
            const ext_desc *ext);
/* Finalises the header (end time: the given one, or the last frame's when null) and frees the
 * handle. */
void fs_close(int handle, const struct tm *end);
/* Stores one whole cluster (a 524288-byte buffer) with its index entry. frames is a whole table
 * of RECSTORE_MAX_KFRAMES descriptors, of which the first count are used. length, -5 when no
 * cluster can be allocated, or another negative value. */
int fs_write(int handle, const void *buffer, uint32_t length, const kframe *frames, uint32_t count);
/* Current block of the disk, waiting up to 20 x 100 ms for one; 0xFFFFFFFF when none. */
uint32_t fs_getblockid(int disk_id);
/* Links a recording (index file name, path relative to the index root) into a block's link
 * directory. 0 or -1. */
int fs_create_link(int disk_id, uint32_t block_id, const char *name, const char *target);
int fs_get_ext(int handle, void *buffer, int size);
int fs_chmod(int handle, uint32_t mode);
int fs_stat(int handle, recordinfo *out);
int fs_insertalarm(int handle, const record_alarm *alarm);
int fs_sync(int handle);
/* Makes the next fs_write refresh the stream's cache tag. */
int fs_sync_cache(int handle);
/* 0 when the recording's index file exists on the disk, else -1. */
int fs_access(int disk_id, const rec_param *param);
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

extern fs_exphandle g_fsexp;
extern fs_exphandle_ex g_fsexp_ex;

/* Ends the old disk's current block and makes a new current block on the new disk (which may be
 * the same), calling the host before and after. The cause is only logged. Always 0. */
int fs_changeblock(int old_disk, int new_disk, int cause);
/* Copies the current simple callbacks into old and installs new; returns old. */
fs_exphandle *fs_set_exphandle(fs_exphandle *old, const fs_exphandle *new_handlers);
void fs_clear_exphandle(void);
/* Installs the extended callbacks (a copy of all six words); null clears them. */
void fs_set_exphandle_ex(const fs_exphandle_ex *handlers);
fs_exphandle_ex *fs_get_exphandle_ex(void);

/* ---- deletion of recordings and blocks ---- */
/* Deletes one recording (record: start time, channel and type) and frees its clusters. 0 or -1. */
int fs_delete(int disk_id, const record_name *record);
/* Deletes every index file and cache tag of the group-0 disks that starts before t (seconds since
 * the epoch, UTC). 0 or -1. */
int fs_delete_index_before(time_t t);
/* Walk action of fs_delete_index_before over an index tree; user: pointer to a time_t. */
int file_delete_index_before_action(const char *path, void *t);
/* Removes every recording created in a block (through its link directory) and frees the block. */
int fs_clear(int disk_id, uint32_t block_id);
int file_delete_link_action(const char *path, struct stat *st, void *user);
/* user: pointer to a time_t; 0 (stop) at the first recording that starts at or after it. */
int file_compare_link_action(const char *path, struct stat *st, void *t);
/* 1 when the current block holds nothing that starts at or after t (or there is no latest block),
 * else 0. */
int fs_block_timeout(const block_entry *latest, const block_entry *cur, time_t t);
int fs_earliest(int disk_id, uint32_t *seq);
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
 * -1. The fourth argument is ignored. */
int fs_find(int disk, const struct tm *start, const struct tm *end, int ignored, uint32_t chan_lo,
            uint32_t chan_hi, int substream, int modmask, int matchflags, int maxcount,
            fs_find_cb callback, void *context);
/* Walk actions of fs_find over the cache tree and over the index partition; request: fs_find_req.
 * 1 go on, 2 do not descend (or next entry), 0 stop. */
int cache_findaction(const char *path, struct stat *st, void *request);
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
 * one of the channels. 0, or -1 on a bad argument. The second argument is ignored. */
int fs_get_calendar(int disk, int ignored, uint32_t chan_lo, uint32_t chan_hi, int year, int month,
                    fs_calendar_cb callback, void *context);
/* Walk actions of fs_get_calendar (find_recursive_nostat); request: fs_calendar_req. */
int cache_calendar_action(const char *path, void *request);
int file_calendar_action(const char *path, void *request);

/* ---- reading, preload, key frames and seeking ---- */
/* Reads the next cluster of a reader: the whole cluster into buffer (524288 bytes), its payload
 * length, its key-frame table (RECSTORE_MAX_KFRAMES descriptors) and count. The length, 0 at the
 * end of the recording, or a negative value. */
int fs_read(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* Reads the cluster before the position and stays at its start, so that repeated calls walk
 * backwards. The length, or a negative value (-1 at the first entry). */
int fs_read_r(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
/* Gives the stream a one-cluster preload buffer (on non-null; needs direct I/O) or frees it. */
int fs_set_preload(int handle, const void *on);
/* 1 when the stream has a preload buffer, else 0. */
int fs_is_preload(int handle);
/* Loads the cluster after the one last read into the preload buffer (run by the daemon). */
int fs_preload(int handle);
/* Takes the key-frame context anew from the entry at the position. */
void fs_reset_kframe_context(int handle);
/* Current, next and previous key frame: the whole cluster holding it into buffer and the key
 * frame's offset inside it. The cluster's payload length, 0 at the end, or a negative value. */
int fs_getcurkframe(int handle, void *buffer, uint32_t *offset);
int fs_getnextkframe(int handle, void *buffer, uint32_t *offset);
int fs_getprekframe(int handle, void *buffer, uint32_t *offset);
/* Position (entries x 524288, offset inside the cluster in *offset) and time of the current key
 * frame; moves by payload bytes (whence 0 or 1) or by seconds (seq required). As index_ltell,
 * index_ttell, index_lseek and index_tseek. */
int64_t fs_ltell(int handle, uint32_t *offset);
int64_t fs_ttell(int handle, uint32_t *seq);
int64_t fs_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out);
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

extern rec_ctx g_recctx;
extern char g_devname[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN]; /* disks of the last probe */
extern int g_diskcount;                                       /* valid entries of g_devname */
extern rec_time_fn g_rec_pfn_time;                            /* null: time(2) */

/* ---- lifecycle, daemon and hot-plug ---- */
/* Resets the context, starts the disk layer (fs_init with the same arguments) and records the
 * disks present now; they are not brought up. 0, or -1 when fs_init fails. */
int rec_init(int cache_inodes, unsigned cache_mib_per_disk, int mode_flags);
/* Ends the disk layer. Stop the daemon first. */
void rec_exit(void);
int rec_is_inited(void);
/* Starts the daemon thread; the thread creation's result. */
int rec_bringup_deamon(void);
/* Stops and joins the daemon; -1 when none was started, else the join's result. */
int rec_shutdown_deamon(void);
/* The daemon's loop; context is &g_recctx. Returns 0. */
void *rec_daemon(void *context);
int rec_diskhotplug(void);
int rec_plugin(void);
int rec_plugout(void);
/* Periods of more than 3600 s are stored (1); others are refused (0). */
int rec_set_period(int seconds);
void rec_force(int flag);
int rec_setoverlap(int flag);
void rec_set_time_pfn(rec_time_fn fn);
int do_rec_period_is_valid(int seconds);
int do_rec_time_is_valid(int t);
int do_rec_test_period(int now);
int rec_lockdisk(void);
int rec_unlockdisk(void);
void rec_dump(int fd);

/* ---- streams and disk rotation ---- */
/* Opens a recording: flags with RECSTORE_REC_CREATE create it on the current disk, otherwise it
 * is looked up on the disks of group 0. The handle 0-127, or -1. */
int rec_open_v2(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d, const ext_desc *ext);
int rec_open_v1(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d);
int rec_open(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
             int flags, int mode);
void rec_close(int h, const struct tm *end);
/* One whole cluster (see fs_write). -2, without writing, when the handle's disk is full. */
int rec_write(int h, const void *buffer, int length, const kframe *frames, int count);
int rec_get_ext(int h, void *buffer, int size);
int rec_chmod(int h, int mode);
int rec_stat(int h, recordinfo *st);
int rec_insertalarm(int h, const record_alarm *alarm);
int rec_sync(int h);
/* Reading, preload, key frames and seeking: as fs_read ... fs_tseek on the handle's stream. */
int rec_read(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
int rec_read_r(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count);
int rec_set_preload(int h, const void *on);
int rec_getcurkframe(int h, void *buffer, uint32_t *offset);
int rec_getnextkframe(int h, void *buffer, uint32_t *offset);
int rec_getprekframe(int h, void *buffer, uint32_t *offset);
int64_t rec_ltell(int h, uint32_t *offset);
/* Time of the current key frame in seconds (as fs_ttell); also into *t (UTC) when t is given. */
int64_t rec_ttell(int h, struct tm *t);
int64_t rec_lseek(int h, int64_t offset, int whence);
int64_t rec_tseek(int h, int32_t sec, int whence, int32_t *out);
void do_rec_preload(void);
int rec_sync_cache(void);
int rec_is_cache_readonly(void);
int rec_is_cache_loaded(void);
/* Copies the stored handler set into old, stores new and installs its simple callbacks. Returns
 * old. */
rec_exphandle *rec_set_exphandle(rec_exphandle *old, const rec_exphandle *new_handlers);
void rec_clear_exphandle(void);
void rec_set_exphandle_ex(const fs_exphandle_ex *handlers);
fs_exphandle_ex *rec_get_exphandle_ex(void);
/* The first disk of group 0 that is not full, or -1. */
int rec_diskcurrent(void);
/* Moves recording to the disk rec_diskcurrent chooses. 0, or -1 when there is none. */
int rec_changedisk(int overlap);

/* ---- search and calendar over all disks ---- */
/* Opens a search over every initialised disk: handle 0-7, or -1. sortmode 1 by channel, 2 by
 * start time, 3 by channel then start time, else in the order found. */
int rec_find_open(const struct tm *start, const struct tm *end, uint64_t chanbits, int type,
                  int modmask, int matchflags, int maxcount, int sortmode);
/* Pages of results: up to n into recs (60-byte records) and infos (128-byte records). The number
 * copied, or -1. */
int rec_find_next(int h, rec_param *recs, rec_find_info *infos, int n);
int rec_find_prev(int h, rec_param *recs, rec_find_info *infos, int n);
int rec_find_getcounts(int h);
void rec_find_reset(int h);
void rec_find_toend(int h);
/* The same on one channel's run of the results (after sort mode 1 or 3). */
int rec_find_channel_next(int h, int channel, rec_param *recs, rec_find_info *infos, int n);
int rec_find_channel_prev(int h, int channel, rec_param *recs, rec_find_info *infos, int n);
int rec_find_channel_getcounts(int h, int channel);
void rec_find_channel_reset(int h, int channel);
void rec_find_channel_toend(int h, int channel);
void rec_find_close(int h);
/* Marks bit 0 of days[d - 1] for every day d of the month holding a recording of the channels
 * (low and high words of the mask). 0, or -1 when the library is not initialised. */
int rec_get_calendar(uint32_t chan_lo, uint32_t chan_hi, int year, int month, unsigned char *days);
/* The callbacks given to fs_find (slot: rec_find_slot *) and fs_get_calendar (days array). */
int rec_action(const fs_find_record *found, const recordinfo *info, void *slot);
int do_rec_get_calendar_action(fs_calendar_req *request, void *days);
/* qsort comparators of rec_find_result: by channel, by start time. */
int rec_channel_compare(const void *a, const void *b);
int rec_time_compare(const void *a, const void *b);

/* ---- recycling ---- */
/* Deletes one recording on every disk of group 0. 0, or -1. */
int rec_delete(const record_name *record);
/* Does nothing; 0. */
int rec_mark_old(void);

/* ---- end of recording API ---- */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* RECSTORE_H */
