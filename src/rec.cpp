// SPDX-License-Identifier: MIT
// Recording API: the interface the recorder application uses over all disks. It owns the
// recording context g_recctx (the 128 recording handles and 8 find slots with their locks), the
// library's start and end, and the daemon thread that follows disks plugged in and out, chooses
// the disk recordings go to, changes block and disk when they fill, recycles the oldest block
// when every disk is full and runs the forced periodic deletion. Every stream operation is
// forwarded to the stream of the disk layer that the handle maps to.
//
// File map, in order (banners "/* ---- name ---- */"):
//   (head) g_recctx, the device list g_devname/g_diskcount and the clock hook g_rec_pfn_time.
//   internal helpers: atomic word access, the disk-table guard, probing, plug-in and plug-out of
//     one disk, the daemon's rotation step, stream-slot and open helpers.
//   lifecycle: rec_init, rec_exit, rec_is_inited.
//   daemon: rec_bringup_deamon/rec_shutdown_deamon, rec_daemon, do_disk_loop, hot-plug.
//   settings: period, force, overlap, clock hook, rec_lockdisk/rec_unlockdisk, rec_dump.
//   opening and closing: rec_open_v2 (and its older forms), rec_close.
//   operations on a handle: write, read, stat, alarms, key frames, tell and seek.
//   whole-library operations: preload step, cache queries, exception handlers.
//   disk rotation: rec_diskcurrent, rec_changedisk.
//   recycling, as the daemon's pass runs it: rec_earliest, rec_overlap, rec_before and the
//     age deletion.
//   deleting one recording: rec_delete.
//   search over all disks: find slots, rec_find_open and paging.
//   calendar over all disks: rec_get_calendar.
#include "rec.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "cache.h"
#include "data_zone.h"
#include "fs.h"
#include "fs_tools.h"

using recstore::io_dprintf;
using recstore::MutexGuard;

// The build time printed at start: the compiler's own, unless the build gives a fixed one
// (reproducible builds, in the same formats "Mmm dd yyyy" and "hh:mm:ss").
#ifndef RECSTORE_BUILD_DATE
#define RECSTORE_BUILD_DATE __DATE__
#endif
#ifndef RECSTORE_BUILD_TIME
#define RECSTORE_BUILD_TIME __TIME__
#endif

rec_ctx g_recctx;
char g_devname[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
int g_diskcount = 0;
rec_time_fn g_rec_pfn_time = nullptr;

static_assert(sizeof(rec_find_info) == 128, "second piece of a result: 128 bytes");
static_assert(offsetof(rec_find_info, start_time) == 8, "result words 18-28");
static_assert(offsetof(rec_find_info, end_time) == 52, "result words 29-39");
static_assert(offsetof(rec_find_info, mode) == 96, "result word 40");
static_assert(offsetof(rec_find_info, total_bytes_lo) == 104, "result words 42-43");
static_assert(offsetof(rec_find_info, has_ext) == 120, "result word 46");
static_assert(sizeof(rec_find_result) == 192, "a result is 48 words");
static_assert(offsetof(rec_find_result, info) == 64, "second piece from byte 64");

/* ---- internal helpers ---- */

namespace {

constexpr int kNoDisk = -1;
constexpr int kNoHandle = -1;
constexpr uint32_t kBlockInUse = 0xC0000000u;  // either top bit of a block value
constexpr uint32_t kNoBlockId = 0xFFFFFFFFu;
constexpr int kSecondsPerStoredUnit = 4;  // block times count units of 4 seconds
constexpr size_t kTimeText = 64;          // "%x %X" of a local time
constexpr size_t kAsctimeText = 32;       // asctime_r needs 26 bytes

const pthread_t kNoThread = static_cast<pthread_t>(-1);

// The tick of the daemon's last disk pass; 0 at load, so the first pass is immediate. Only the
// daemon thread touches it.
uint64_t s_last_pass_tick = 0;

// Words of the context that the host writes and the daemon reads without a lock.
template <typename T>
T load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}
template <typename T>
void store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

// Holds the disk-table lock for the lifetime of the guard.
class DiskTableLock {
  public:
    DiskTableLock() { fs_lockdisk(); }
    ~DiskTableLock() { fs_unlockdisk(); }
    DiskTableLock(const DiskTableLock &) = delete;
    DiskTableLock &operator=(const DiskTableLock &) = delete;
};

// A probe list of the disk layer.
struct ProbeList {
    char names[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
};

bool probe(ProbeList &list) {
    memset(list.names, 0, sizeof list.names);
    list.count = 0;
    if (fs_probe(list.names, &list.count) != 0) {
        FS_LOG_ERR("fs_probe err\n");
        return false;
    }
    if (list.count < 0 || list.count > RECSTORE_PROBE_MAX) list.count = 0;
    return true;
}

bool in_list(const char (*names)[RECSTORE_PATH_LEN], int count, const char *name) {
    for (int i = 0; i < count; i++) {
        if (strncmp(names[i], name, RECSTORE_PATH_LEN) == 0) return true;
    }
    return false;
}

void copy_name(char *dst, const char *src) {
    snprintf(dst, RECSTORE_PATH_LEN, "%s", src);
}

// Makes the probed list the known device list and reports every entry.
void replace_devlist(const ProbeList &list, const char *format) {
    memset(g_devname, 0, sizeof g_devname);
    for (int i = 0; i < list.count; i++) copy_name(g_devname[i], list.names[i]);
    g_diskcount = list.count;
    for (int i = 0; i < g_diskcount; i++) FS_LOG_INFO(format, i, g_devname[i]);
}

void reset_slots() {
    for (rec_stream_slot &s : g_recctx.streams) {
        store(s.disk_id, kNoDisk);
        store(s.handle, kNoHandle);
    }
    // A search left open (or a failed open that kept its slot) gives its result space back.
    for (rec_find_slot &f : g_recctx.finds) {
        free(f.results);
        memset(&f, 0, sizeof f);
    }
}

// The resets shared by start and end.
void reset_context() {
    store(g_recctx.curdiskid, kNoDisk);
    g_recctx.thread = kNoThread;
    memset(g_recctx.exphandle, 0, sizeof g_recctx.exphandle);
    reset_slots();
}

bool valid_handle(int h) {
    if (h < 0 || h >= RECSTORE_REC_SLOTS) {
        FS_LOG_ERR("invalid fd\n");
        return false;
    }
    return true;
}

// The stream handle of the disk layer behind a recording handle (-1 for a free slot).
int stream_of(int h) {
    return load(g_recctx.streams[h].handle);
}

bool null_ptr(const void *p) {
    if (p == nullptr) {
        FS_LOG_ERR("NULL ptr\n");
        return true;
    }
    return false;
}

time_t now_seconds() {
    rec_time_fn fn = load(g_rec_pfn_time);
    return fn != nullptr ? fn(nullptr) : time(nullptr);
}

// A time in seconds as the event log shows it: "%x %X" in local time.
const char *time_text(time_t t, char *buf, size_t n) {
    struct tm tm;
    buf[0] = '\0';
    if (localtime_r(&t, &tm) != nullptr) strftime(buf, n, "%x %X", &tm);
    return buf;
}

time_t stored_to_seconds(uint32_t stored) {
    return static_cast<time_t>(stored) * kSecondsPerStoredUnit;
}

// A block's state word, read under the disk's mutex that guards the block map.
uint32_t locked_block_val(int disk, uint32_t block_id) {
    if (!recstore::valid_disk_id(disk)) return kNoBlockId;
    MutexGuard guard(g_disk[disk].lock);
    return block_val(disk, block_id);
}

bool group0_disks(int *ids, int *count) {
    *count = 0;
    if (fs_getdisk(0, ids, count) != 0) {
        FS_LOG_ERR("get diskid err\n");
        return false;
    }
    if (*count < 0 || *count > RECSTORE_MAX_DISKS) *count = 0;
    return true;
}

// Brings one newly probed disk up in the plug-in order. False when its data zone cannot be
// initialised: the pass stops and the disk is tried again on the next one.
bool bring_up_disk(const char *dev) {
    FS_LOG_INFO("probed disk :%s plug in\n", dev);
    const int known = fs_diskid(dev);
    if (recstore::valid_disk_id(known) && fs_disk_is_inited(known) && fs_getgrp(known) == 0) {
        // Brought up by an earlier pass that stopped at a later disk: already in use.
        return true;
    }
    fs_umount(dev);
    fs_chk(dev);
    if (fs_mount(dev) != 0) FS_LOG_ERR("mount err\n");
    const int disk = fs_opendisk(dev);
    if (fs_datazone_init(disk) != 0) {
        FS_LOG_ERR("fs init err\n");
        return false;
    }
    if (fs_chkdata(disk, 1) < 0) FS_LOG_ERR("fs fix data err\n");
    fs_adddisk(0, disk);
    return true;
}

// Takes one vanished disk down in the plug-out order. False for a name without a valid disk id.
bool take_down_disk(const char *dev) {
    FS_LOG_INFO("probed disk :%s plug out\n", dev);
    const int disk = fs_diskid(dev);
    if (!recstore::valid_disk_id(disk)) return false;
    int expected = disk;
    __atomic_compare_exchange_n(&g_recctx.curdiskid, &expected, kNoDisk, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    // Streams still open on it keep their handles until the host closes them; they no longer
    // reach any disk, and closing them frees their slots.
    recstore::streams_lose_disk(disk);
    fs_removedisk(0, disk);
    fs_datazone_exit(disk);
    fs_closedisk(disk);
    fs_umount(dev);
    return true;
}

void call_disk_cb(void *word, int old_disk, int new_disk, void *user) {
    if (word == nullptr) return;
    reinterpret_cast<rec_disk_cb>(word)(old_disk, new_disk, user);
}

// The daemon's step 4, decided during the pass: a new disk when the current one is full, else a
// new block when its block is full. The change itself, with the host's callbacks, is made once the
// pass has released the disk-table lock (make_rotation), so that a callback may take that lock or
// wait for a host thread that takes it.
struct Rotation {
    enum class Kind { kNone, kDisk, kBlock };
    Kind kind = Kind::kNone;
    int old_disk = kNoDisk;
    int new_disk = kNoDisk;
    int overlap = 0;
};

// Chooses the disk recording moves to and makes it current (-1 when there is none, reported).
// Under g_diskrwlock when the daemon runs it: rec_diskcurrent reads the group table.
int choose_next_disk() {
    const int new_disk = rec_diskcurrent();
    store(g_recctx.curdiskid, new_disk);
    if (new_disk < 0) FS_LOG_ERR("current diskerr\n");
    return new_disk;
}

// The second half of a disk change, with no library lock held: the disk callbacks around the
// block change. 0, or -1 when the block change failed.
int finish_disk_change(int old_disk, int new_disk, int overlap) {
    const fs_exphandle_ex *ex = fs_get_exphandle_ex();
    call_disk_cb(ex->rec_word0, old_disk, new_disk, ex->rec_word4);
    if (fs_changeblock(old_disk, new_disk, overlap) != 0) {
        FS_LOG_ERR("change block err\n");
        return -1;
    }
    call_disk_cb(ex->rec_word1, old_disk, new_disk, ex->rec_word4);
    fs_log_file("change disk:%d=>%d\n", old_disk, new_disk);
    return 0;
}

Rotation plan_rotation() {
    Rotation r;
    const int disk = load(g_recctx.curdiskid);
    r.overlap = load(g_recctx.overlap);
    r.old_disk = disk;
    if (fs_isdiskfull(disk)) {
        if (disk >= 0) fs_log_file("disk:%d full\n", disk);
        r.new_disk = choose_next_disk();
        if (r.new_disk >= 0) r.kind = Rotation::Kind::kDisk;
    } else if (fs_isblockfull(disk)) {
        fs_log_file("disk:%d block:%d full\n", disk, block_get_current(disk));
        r.new_disk = disk;
        r.kind = Rotation::Kind::kBlock;
    }
    return r;
}

// Makes the change plan_rotation decided; no library lock is held, so the host's callbacks may
// call into the library, rec_lockdisk included.
void make_rotation(const Rotation &r) {
    switch (r.kind) {
        case Rotation::Kind::kDisk:
            finish_disk_change(r.old_disk, r.new_disk, r.overlap);
            break;
        case Rotation::Kind::kBlock:
            fs_changeblock(r.old_disk, r.new_disk, r.overlap);
            break;
        case Rotation::Kind::kNone:
            break;
    }
}

rec_param make_param(int channel, const struct tm *start, int type, int attr_a, int attr_b,
                     int attr_c) {
    rec_param p;
    memset(&p, 0, sizeof p);
    to_fs_tm(start, &p.start);
    p.channel = static_cast<uint32_t>(channel);
    p.attr_a = static_cast<uint16_t>(attr_a);
    p.attr_b = static_cast<uint16_t>(attr_b);
    p.attr_c = static_cast<uint32_t>(attr_c);
    p.type = static_cast<uint32_t>(type);
    return p;
}

int first_free_slot() {
    for (int i = 0; i < RECSTORE_REC_SLOTS; i++) {
        if (load(g_recctx.streams[i].handle) < 0) return i;
    }
    return -1;
}

// Opens a new recording on the current disk: the stream handle and its disk, or -1.
int open_for_writing(const rec_param &p, int flags, int mode, int attr_d, const ext_desc *ext,
                     int *disk) {
    const int cur = load(g_recctx.curdiskid);
    if (cur < 0) {
        FS_LOG_ERR("invalid cur disk id:%d\n", cur);
        return -1;
    }
    if (fs_isdiskfull(cur)) {
        FS_LOG_ERR("disk is full :%d\n", cur);
        return -1;
    }
    *disk = cur;
    return fs_open(cur, &p, flags, static_cast<uint32_t>(mode), static_cast<uint32_t>(attr_d), ext);
}

// Opens an existing recording on the first disk of group 0 that holds it, or -1.
int open_for_reading(const rec_param &p, const struct tm *start, int flags, int mode, int attr_d,
                     int *disk) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (!group0_disks(ids, &count)) return -1;
    for (int i = 0; i < count; i++) {
        if (ids[i] >= 0 && fs_access(ids[i], &p) == 0) {
            *disk = ids[i];
            return fs_open(ids[i], &p, flags, static_cast<uint32_t>(mode),
                           static_cast<uint32_t>(attr_d), nullptr);
        }
    }
    char text[kAsctimeText];
    if (asctime_r(start, text) == nullptr) text[0] = '\0';
    FS_LOG_ERR("not found the record channel:%d time:%s\n", static_cast<int>(p.channel), text);
    return -1;
}

}  // namespace

/* ---- lifecycle ---- */

int rec_init(int cache_inodes, unsigned cache_mib_per_disk, int mode_flags) {
    reset_context();
    store(g_recctx.period, -1);
    store(g_recctx.force, 0);
    memset(g_devname, 0, sizeof g_devname);
    g_diskcount = 0;
    store(g_rec_pfn_time, static_cast<rec_time_fn>(nullptr));
    pthread_mutex_init(&g_recctx.stream_lock, nullptr);
    pthread_mutex_init(&g_recctx.find_lock, nullptr);
    if (fs_init(cache_inodes, cache_mib_per_disk, mode_flags) < 0) return -1;
    // The disks present now are only recorded: the host brings them up itself, and the daemon
    // treats only later changes as plug events.
    ProbeList list;
    if (probe(list)) {
        for (int i = 0; i < list.count; i++) copy_name(g_devname[i], list.names[i]);
        g_diskcount = list.count;
    }
    store(g_recctx.inited, 1);
    store(g_recctx.overlap, 1);
    store(g_recctx.period, -1);
    store(g_recctx.force, 0);
    FS_LOG_PLAIN("filesystem compile at %s %s\n", RECSTORE_BUILD_DATE, RECSTORE_BUILD_TIME);
    return 0;
}

void rec_exit(void) {
    fs_exit();
    reset_context();
    store(g_recctx.inited, 0);
    store(g_rec_pfn_time, static_cast<rec_time_fn>(nullptr));
}

int rec_is_inited(void) {
    return load(g_recctx.inited);
}

/* ---- daemon ---- */

int rec_bringup_deamon(void) {
    store(g_recctx.running, 1);
    pthread_t thread;
    const int rc = pthread_create(&thread, nullptr, rec_daemon, &g_recctx);
    if (rc == 0) g_recctx.thread = thread;
    return rc;
}

int rec_shutdown_deamon(void) {
    store(g_recctx.running, 0);
    const pthread_t thread = g_recctx.thread;
    if (thread == 0 || thread == kNoThread) return -1;
    const int rc = pthread_join(thread, nullptr);
    g_recctx.thread = kNoThread;
    return rc;
}

void *rec_daemon(void *context) {
    auto *ctx = static_cast<rec_ctx *>(context);
    if (ctx == nullptr) return nullptr;
    while (load(ctx->running) != 0) {
        const uint64_t tick = get_tick_count(1);
        if (tick >= s_last_pass_tick + recstore::kRecTicksPerPass) {
            s_last_pass_tick = tick;
            if (!fs_is_readonly()) {
                do_disk_loop();
                recstore::fs_flush_changed_maps();
            }
        } else {
            do_rec_preload();
        }
        usleep(recstore::kRecTurnMicros);
    }
    return nullptr;
}

int do_disk_loop(void) {
    bool all_full = false;
    {
        Rotation rotation;
        {
            DiskTableLock lock;
            rec_diskhotplug();
            if (load(g_recctx.curdiskid) < 0) store(g_recctx.curdiskid, rec_diskcurrent());
            rotation = plan_rotation();
        }
        // The host's block- and disk-change callbacks run with no library lock held.
        make_rotation(rotation);
        // The group table is read while the host may be adding a disk under the same lock.
        DiskTableLock lock;
        all_full = fs_isalldiskfull(load(g_recctx.curdiskid), recstore::kRecFullRemain) != 0;
    }
    if (all_full && load(g_recctx.overlap) != 0) {
        fs_log_file("all disk full remain:%d\n", recstore::kRecFullRemain);
        rec_overlap();
    }
    const int now = static_cast<int>(now_seconds());
    const int period = load(g_recctx.period);
    if (do_rec_period_is_valid(period) && do_rec_test_period(now)) do_rec_del_before(now - period);
    return 0;
}

int rec_diskhotplug(void) {
    return rec_plugout() | rec_plugin();
}

int rec_plugin(void) {
    ProbeList list;
    if (!probe(list)) return -1;
    bool any_new = false;
    for (int i = 0; i < list.count; i++) {
        if (in_list(g_devname, g_diskcount, list.names[i])) continue;
        any_new = true;
        if (!bring_up_disk(list.names[i])) return -1;
    }
    if (!any_new) return 0;
    replace_devlist(list, "after plug in disk:%d is %s\n");
    return 0;
}

int rec_plugout(void) {
    ProbeList list;
    if (!probe(list)) return -1;
    bool any_gone = false;
    for (int i = 0; i < g_diskcount; i++) {
        if (in_list(list.names, list.count, g_devname[i])) continue;
        any_gone = true;
        if (!take_down_disk(g_devname[i])) return -1;
    }
    if (!any_gone) return 0;
    replace_devlist(list, "after plug out disk:%d is %s\n");
    return 0;
}

/* ---- settings ---- */

int do_rec_period_is_valid(int seconds) {
    return seconds > RECSTORE_PERIOD_MIN ? 1 : 0;
}

int do_rec_time_is_valid(int t) {
    return t > recstore::kRecTimeValidAfter ? 1 : 0;
}

int rec_set_period(int seconds) {
    if (!do_rec_period_is_valid(seconds)) return 0;
    store(g_recctx.period, seconds);
    return 1;
}

void rec_force(int flag) {
    store(g_recctx.force, flag);
}

int rec_setoverlap(int flag) {
    store(g_recctx.overlap, flag);
    return 0;
}

void rec_set_time_pfn(rec_time_fn fn) {
    store(g_rec_pfn_time, fn);
}

int do_rec_test_period(int now) {
    if (!do_rec_time_is_valid(now)) return 0;
    const int period = load(g_recctx.period);
    if (now <= period) return 0;
    if (load(g_recctx.force) == 0) return 0;
    fs_log_file("force to execute period action %lu %d\n", static_cast<unsigned long>(now), period);
    store(g_recctx.force, 0);
    return 1;
}

int rec_lockdisk(void) {
    return fs_lockdisk();
}

int rec_unlockdisk(void) {
    return fs_unlockdisk();
}

void rec_dump(int fd) {
    if (fd < 0) return;
    io_dprintf(fd, "inited?:%d curdiskid:%d alldiskfull?:%d\n", load(g_recctx.inited),
               load(g_recctx.curdiskid), fs_isalldiskfull(-1, recstore::kRecFullRemain));
    ProbeList list;
    if (!probe(list)) return;
    for (int i = 0; i < list.count; i++) {
        const char *dev = list.names[i];
        const int disk = fs_diskid(dev);
        io_dprintf(fd, "probe disk:%s diskid:%d version:%s mounted?:%d\n", dev, disk,
                   fs_version(disk), fs_ismounted(dev));
        cache_dump(fd, disk);
        fs_dump(fd, disk);
    }
}

/* ---- opening and closing ---- */

int rec_open_v2(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d, const ext_desc *ext) {
    if (channel < 0 || channel > recstore::kRecMaxChannel || start == nullptr) {
        FS_LOG_ERR("invalid param channel:%d\n", channel);
        return -1;
    }
    if (!rec_is_inited()) {
        FS_LOG_ERR("disk is not inited\n");
        return -1;
    }
    const rec_param p = make_param(channel, start, type, attr_a, attr_b, attr_c);
    MutexGuard guard(g_recctx.stream_lock);
    const int slot = first_free_slot();
    if (slot < 0) {
        FS_LOG_ERR("reach the max count\n");
        return -1;
    }
    int disk = kNoDisk;
    const int handle = (flags & RECSTORE_REC_CREATE) != 0
                           ? open_for_writing(p, flags, mode, attr_d, ext, &disk)
                           : open_for_reading(p, start, flags, mode, attr_d, &disk);
    if (handle < 0) {
        if (disk >= 0) FS_LOG_ERR("channel:%d,handle:%d,fd:%d\n", channel, slot, handle);
        return -1;
    }
    store(g_recctx.streams[slot].disk_id, disk);
    store(g_recctx.streams[slot].handle, handle);
    return slot;
}

int rec_open_v1(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
                int flags, int mode, int attr_d) {
    return rec_open_v2(channel, start, type, attr_a, attr_b, attr_c, flags, mode, attr_d, nullptr);
}

int rec_open(int channel, const struct tm *start, int type, int attr_a, int attr_b, int attr_c,
             int flags, int mode) {
    return rec_open_v1(channel, start, type, attr_a, attr_b, attr_c, flags, mode, 0);
}

void rec_close(int h, const struct tm *end) {
    if (!valid_handle(h)) return;
    int handle = kNoHandle;
    {
        // The slot is emptied under the lock and the stream closed after it: a close that waits
        // seconds on a slow disk holds up no open or close of another handle. The stream stays
        // taken in the disk layer until fs_close frees it.
        MutexGuard guard(g_recctx.stream_lock);
        rec_stream_slot &s = g_recctx.streams[h];
        handle = load(s.handle);
        store(s.disk_id, kNoDisk);
        store(s.handle, kNoHandle);
    }
    fs_close(handle, end);
}

/* ---- operations on a handle ---- */

int rec_write(int h, const void *buffer, int length, const kframe *frames, int count) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(frames)) return -1;
    if (fs_isdiskfull(load(g_recctx.streams[h].disk_id))) return -2;
    return fs_write(stream_of(h), buffer, static_cast<uint32_t>(length), frames,
                    static_cast<uint32_t>(count));
}

int rec_get_ext(int h, void *buffer, int size) {
    if (!valid_handle(h)) return -1;
    return fs_get_ext(stream_of(h), buffer, size);
}

int rec_chmod(int h, int mode) {
    if (!valid_handle(h)) return -1;
    return fs_chmod(stream_of(h), static_cast<uint32_t>(mode));
}

int rec_stat(int h, recordinfo *st) {
    if (!valid_handle(h) || null_ptr(st)) return -1;
    return fs_stat(stream_of(h), st);
}

int rec_insertalarm(int h, const record_alarm *alarm) {
    if (!valid_handle(h) || null_ptr(alarm)) return -1;
    return fs_insertalarm(stream_of(h), alarm);
}

int rec_sync(int h) {
    if (!valid_handle(h)) return -1;
    return fs_sync(stream_of(h));
}

int rec_read(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(length) || null_ptr(frames) ||
        null_ptr(count)) {
        return -1;
    }
    return fs_read(stream_of(h), buffer, length, frames, count);
}

int rec_read_r(int h, void *buffer, uint32_t *length, kframe *frames, uint32_t *count) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(length) || null_ptr(frames) ||
        null_ptr(count)) {
        return -1;
    }
    return fs_read_r(stream_of(h), buffer, length, frames, count);
}

int rec_set_preload(int h, const void *on) {
    if (!valid_handle(h)) return -1;
    return fs_set_preload(stream_of(h), on);
}

int rec_getcurkframe(int h, void *buffer, uint32_t *offset) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(offset)) return -1;
    return fs_getcurkframe(stream_of(h), buffer, offset);
}

int rec_getnextkframe(int h, void *buffer, uint32_t *offset) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(offset)) return -1;
    return fs_getnextkframe(stream_of(h), buffer, offset);
}

int rec_getprekframe(int h, void *buffer, uint32_t *offset) {
    if (!valid_handle(h) || null_ptr(buffer) || null_ptr(offset)) return -1;
    return fs_getprekframe(stream_of(h), buffer, offset);
}

int64_t rec_ltell(int h, uint32_t *offset) {
    if (!valid_handle(h)) return -1;
    return fs_ltell(stream_of(h), offset);
}

int64_t rec_ttell(int h, struct tm *t) {
    if (!valid_handle(h)) return -1;
    const int64_t seconds = fs_ttell(stream_of(h), nullptr);
    if (seconds >= 0 && t != nullptr) {
        const time_t when = static_cast<time_t>(seconds);
        gmtime_r(&when, t);
    }
    return seconds;
}

int64_t rec_lseek(int h, int64_t offset, int whence) {
    if (!valid_handle(h)) return -1;
    return fs_lseek(stream_of(h), offset, whence, nullptr);
}

int64_t rec_tseek(int h, int32_t sec, int whence, int32_t *out) {
    if (!valid_handle(h) || null_ptr(out)) return -1;
    return fs_tseek(stream_of(h), sec, whence, out);
}

/* ---- whole-library operations ---- */

void do_rec_preload(void) {
    // Slots are read without the stream lock: the stream layer checks a handle that was closed
    // meanwhile under its own lock.
    for (const rec_stream_slot &s : g_recctx.streams) {
        const int handle = load(s.handle);
        if (handle >= 0) fs_preload(handle);
    }
}

int rec_sync_cache(void) {
    int rc = 0;
    for (int i = 0; i < RECSTORE_STREAMS; i++) rc = fs_sync_cache(i);
    return rc;
}

int rec_is_cache_readonly(void) {
    return cache_is_readonly();
}

int rec_is_cache_loaded(void) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (fs_getdisk(0, ids, &count) != 0) return 0;
    for (int i = 0; i < count && i < RECSTORE_MAX_DISKS; i++) {
        if (!cache_is_loaded(static_cast<unsigned>(ids[i]))) return 0;
    }
    return 1;
}

rec_exphandle *rec_set_exphandle(rec_exphandle *old, const rec_exphandle *new_handlers) {
    if (null_ptr(old) || null_ptr(new_handlers)) return old;
    memcpy(old->words, g_recctx.exphandle, sizeof old->words);
    memcpy(g_recctx.exphandle, new_handlers->words, sizeof g_recctx.exphandle);
    fs_exphandle simple;
    simple.before = reinterpret_cast<fs_exp_cb>(new_handlers->words[0]);
    simple.after = reinterpret_cast<fs_exp_cb>(new_handlers->words[1]);
    simple.arg = new_handlers->words[2];
    fs_exphandle previous;
    fs_set_exphandle(&previous, &simple);
    return old;
}

void rec_clear_exphandle(void) {
    fs_clear_exphandle();
    memset(g_recctx.exphandle, 0, sizeof g_recctx.exphandle);
}

void rec_set_exphandle_ex(const fs_exphandle_ex *handlers) {
    fs_set_exphandle_ex(handlers);
}

fs_exphandle_ex *rec_get_exphandle_ex(void) {
    return fs_get_exphandle_ex();
}

/* ---- disk rotation ---- */

int rec_diskcurrent(void) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (!group0_disks(ids, &count)) return -1;
    if (count == 0) {
        FS_LOG_ERR("no disk found\n");
        return -1;
    }
    if (fs_isalldiskfull(-1, 0)) {
        FS_LOG_ERR("all is full\n");
        return -1;
    }
    for (int i = 0; i < count; i++) {
        if (ids[i] >= 0 && !fs_isdiskfull(ids[i])) return ids[i];
    }
    return -1;
}

int rec_changedisk(int overlap) {
    const int old_disk = load(g_recctx.curdiskid);
    const int new_disk = choose_next_disk();
    if (new_disk < 0) return -1;
    return finish_disk_change(old_disk, new_disk, overlap);
}

/* ---- recycling, as the daemon's pass runs it ---- */

int rec_earliest(int *disk, int *time) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (!group0_disks(ids, &count)) return -1;
    block_entry list[RECSTORE_MAX_DISKS];
    int n = 0;
    for (int i = 0; i < count; i++) {
        const int d = ids[i];
        if (d < 0) continue;
        if (!fs_disk_is_inited(d)) {
            FS_LOG_ERR("disk:%d is not inited\n", d);
            continue;
        }
        uint32_t seq = 0;
        const int block = fs_earliest(d, &seq);
        if (block == -1) continue;
        list[n] = block_entry{static_cast<uint32_t>(d), static_cast<uint32_t>(block), seq};
        char text[kTimeText];
        fs_log_file("earliest block in disk:%d is:%d time:%s\n", d, block,
                    time_text(stored_to_seconds(seq), text, sizeof text));
        n++;
    }
    if (n == 0) return -1;
    qsort(list, static_cast<size_t>(n), sizeof list[0], compareblock);
    if (disk != nullptr) *disk = static_cast<int>(list[0].disk);
    if (time != nullptr) *time = static_cast<int>(list[0].seq);
    return static_cast<int>(list[0].block_id);
}

int rec_overlap(void) {
    int disk = -1;
    int stored = 0;
    const int block = rec_earliest(&disk, &stored);
    char text[kTimeText];
    fs_log_file("overlap disk:%d block:%d time:%s\n", disk, block,
                time_text(stored_to_seconds(static_cast<uint32_t>(stored)), text, sizeof text));
    if (block == -1) {
        FS_LOG_ERR("invalid block id\n");
        return -1;
    }
    return fs_clear(disk, static_cast<uint32_t>(block));
}

int do_rec_get_max_block_count(void) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (fs_getdisk(0, ids, &count) != 0) return -1;
    int total = 0;
    for (int i = 0; i < count && i < RECSTORE_MAX_DISKS; i++) {
        if (!recstore::valid_disk_id(ids[i])) continue;
        // The data zone's counters change under the disk's mutex while streams write.
        MutexGuard guard(g_disk[ids[i]].lock);
        datazone_info info;
        if (datazone_getinfo(ids[i], &info) == 0) total += static_cast<int>(info.block_count);
    }
    return total;
}

int rec_before(int t, block_entry *list, int max) {
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (list == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (!group0_disks(ids, &count) || count == 0) return -1;
    int n = 0;
    for (int i = 0; i < count; i++) {
        if (n >= max) {
            FS_LOG_INFO("reach max blkcount:%d %d\n", n, max);
            break;
        }
        const int d = ids[i];
        if (d < 0) continue;
        if (!fs_disk_is_inited(d)) {
            FS_LOG_ERR("disk:%d is not inited\n", d);
            continue;
        }
        const int got = fs_before(d, t, list + n, max - n);
        if (got < 1) {
            FS_LOG_ERR("disk:%d fs_before failed count:%d %d\n", d, got, max - n);
            continue;
        }
        for (int k = n; k < n + got; k++) {
            char before[kTimeText];
            char when[kTimeText];
            fs_log_file("block before:%s in disk:%d is:%d time:%s val:0x%x\n",
                        time_text(t, before, sizeof before), d, static_cast<int>(list[k].block_id),
                        time_text(stored_to_seconds(list[k].seq), when, sizeof when),
                        locked_block_val(d, list[k].block_id));
        }
        n += got;
    }
    return n;
}

// Frees one candidate block of the age deletion when it is in use and has timed out.
static void del_candidate(const block_entry &c, const block_entry &latest, int t) {
    if (static_cast<int>(c.disk) < 0 || c.block_id == kNoBlockId) {
        FS_LOG_ERR("invalid disk:%d or block id:%d\n", static_cast<int>(c.disk),
                   static_cast<int>(c.block_id));
        return;
    }
    const int disk = static_cast<int>(c.disk);
    const uint32_t val = locked_block_val(disk, c.block_id);
    if (val == kNoBlockId) {
        FS_LOG_ERR("invalid block val, disk:%d blk:%d seq:%d \n", disk,
                   static_cast<int>(c.block_id), static_cast<int>(c.seq));
        return;
    }
    if ((val & kBlockInUse) == 0 || !fs_block_timeout(&latest, &c, t)) return;
    char when[kTimeText];
    char before[kTimeText];
    fs_log_file(
        "del [%d %d %d] latest:[%d %d %d] time:%s before:%s\n", disk, static_cast<int>(c.block_id),
        static_cast<int>(c.seq), static_cast<int>(latest.disk), static_cast<int>(latest.block_id),
        static_cast<int>(latest.seq), time_text(stored_to_seconds(c.seq), when, sizeof when),
        time_text(t, before, sizeof before));
    fs_clear(disk, c.block_id);
}

int do_rec_del_block_before(int t) {
    const int max = do_rec_get_max_block_count();
    if (max < 1) return -1;
    std::vector<block_entry> list(static_cast<size_t>(max), block_entry{kNoBlockId, kNoBlockId, 0});
    const int n = rec_before(t, list.data(), max);
    if (n < 1) {
        FS_LOG_ERR("rec_before %lu count error\n", static_cast<unsigned long>(t));
        return -1;
    }
    const block_entry *found = blk_seq_latest(list.data(), n);
    if (found == nullptr) {
        FS_LOG_ERR("platest is null, t:%lu\n", static_cast<unsigned long>(t));
        return -1;
    }
    const block_entry latest = *found;
    char before[kTimeText];
    fs_log_file("latest disk:%d block:%d before:%s\n", static_cast<int>(latest.disk),
                static_cast<int>(latest.block_id), time_text(t, before, sizeof before));
    for (int i = 0; i < n; i++) del_candidate(list[static_cast<size_t>(i)], latest, t);
    return n;
}

int do_rec_del_before(int t) {
    do_rec_del_block_before(t);
    fs_delete_index_before(t);
    return 0;
}

/* ---- deleting one recording ---- */

int rec_delete(const record_name *record) {
    if (record == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (!group0_disks(ids, &count)) return -1;
    // A recording lives on one disk; asking every disk of the group finds it wherever it is.
    int deleted = 0;
    for (int i = 0; i < count; i++) {
        if (ids[i] >= 0 && fs_delete(ids[i], record) == 0) deleted++;
    }
    return deleted > 0 ? 0 : -1;
}

int rec_mark_old(void) {
    return 0;
}

/* ---- search over all disks ---- */

namespace {

constexpr size_t kRecordBytes = sizeof(rec_param);    // first piece of a result: 60 bytes
constexpr size_t kInfoBytes = sizeof(rec_find_info);  // second piece: 128 bytes
constexpr uint32_t kYieldMask = 0xFFu;                // yield on every 256th stored result
constexpr int kChannels = RECSTORE_MAX_CHANNELS;

static_assert(kRecordBytes == 60, "first piece of a result: 60 bytes");
static_assert(offsetof(rec_find_result, record) == 0, "result words 0-14");

// Results stored by every search of the process; the collecting callback yields on every 256th.
uint32_t s_stored_results = 0;

bool valid_find_handle(int h) {
    if (h < 0 || h >= RECSTORE_FIND_SLOTS) {
        FS_LOG_ERR("invalid find handle:%d\n", h);
        return false;
    }
    return true;
}

bool valid_find_channel(int channel) {
    if (channel < 0 || channel >= kChannels) {
        FS_LOG_ERR("invalid channel:%d\n", channel);
        return false;
    }
    return true;
}

// The first index of a channel's run: the results of all lower channels come before it.
int channel_run_start(const rec_find_slot &slot, int channel) {
    int start = 0;
    for (int c = 0; c < channel; c++) start += slot.channel_count[c];
    return start;
}

void copy_result(const rec_find_result &r, rec_param *rec, rec_find_info *info) {
    memcpy(rec, &r.record, kRecordBytes);
    memcpy(info, &r.info, kInfoBytes);
}

// Copies forward from *cursor, a run of `count` results starting at `base`. k, or -1.
int page_forward(const rec_find_slot &slot, int base, int count, int *cursor, rec_param *recs,
                 rec_find_info *infos, int n) {
    if (null_ptr(recs) || null_ptr(infos)) return -1;
    const int64_t left = static_cast<int64_t>(count) - *cursor;
    const int k = static_cast<int>(left < n ? left : n);
    if (k < 0) return -1;
    if (k > 0 && (*cursor < 0 || slot.results == nullptr)) {
        // A cursor moved before the first result (rec_find_prev may leave it at -1).
        FS_LOG_ERR("find cursor:%d out of results:%d\n", *cursor, count);
        return -1;
    }
    for (int i = 0; i < k; i++) {
        copy_result(slot.results[base + *cursor], &recs[i], &infos[i]);
        (*cursor)++;
    }
    return k;
}

// Copies backward from *cursor into the arrays' ends, so that they end in ascending order. k, or
// -1.
int page_backward(const rec_find_slot &slot, int base, int count, int *cursor, rec_param *recs,
                  rec_find_info *infos, int n) {
    if (null_ptr(recs) || null_ptr(infos)) return -1;
    const int k = *cursor < n ? *cursor + 1 : n;
    if (k < 0) return -1;
    if (k > 0 && (*cursor >= count || slot.results == nullptr)) {
        // A cursor at the end of the results (after rec_find_next reached it) or past them.
        FS_LOG_ERR("find cursor:%d out of results:%d\n", *cursor, count);
        return -1;
    }
    for (int i = 1; i <= k; i++) {
        copy_result(slot.results[base + *cursor], &recs[k - i], &infos[k - i]);
        (*cursor)--;
    }
    return k;
}

void fill_result(rec_find_result &r, const fs_find_record &found, const recordinfo &info) {
    memcpy(&r.record, &found, kRecordBytes);
    rec_find_info &out = r.info;
    out.disk_id = static_cast<int32_t>(info.disk_id);
    out.channel = info.channel;
    out.start_time = info.start_time;
    out.end_time = info.end_time;
    out.mode = info.mode;
    out.entry_count = info.entry_count;
    out.total_bytes_lo = static_cast<uint32_t>(info.total_bytes);
    out.total_bytes_hi = static_cast<uint32_t>(info.total_bytes >> 32);
    out.frame_count = info.frame_count;
    out.attr_d = info.attr_d;
    out.has_ext = info.ext_magic == RECSTORE_EXT_MAGIC ? 1 : 0;
}

// Takes the lowest free find slot under the find lock and makes it ready: its number, or -1.
int take_find_slot(int maxcount) {
    MutexGuard guard(g_recctx.find_lock);
    for (int h = 0; h < RECSTORE_FIND_SLOTS; h++) {
        rec_find_slot &slot = g_recctx.finds[h];
        if (slot.in_use != 0) continue;
        if (do_rec_find_prepare(&slot, maxcount) != 0) {
            FS_LOG_ERR("malloc result space failed\n");
            return -1;
        }
        return h;
    }
    FS_LOG_ERR("reach the max find count\n");
    return -1;
}

}  // namespace

int do_rec_find_prepare(rec_find_slot *slot, int maxcount) {
    if (slot == nullptr) return -1;
    slot->cursor = 0;
    slot->count = 0;
    memset(slot->channel_count, 0, sizeof slot->channel_count);
    memset(slot->channel_cursor, 0, sizeof slot->channel_cursor);
    slot->max_count = maxcount;
    slot->in_use = 1;
    free(slot->results);
    slot->results = nullptr;
    // Counted in 64 bits: on a 32-bit target a large count would wrap the size.
    const uint64_t bytes = static_cast<uint64_t>(maxcount) * sizeof(rec_find_result);
    if (maxcount < 0 || bytes > SIZE_MAX) return -1;
    // Zeroed, so that the words a result leaves unwritten read as 0.
    slot->results = static_cast<rec_find_result *>(
        calloc(maxcount > 0 ? static_cast<size_t>(maxcount) : 1, sizeof(rec_find_result)));
    return slot->results != nullptr ? 0 : -1;
}

void do_rec_find_sort(rec_find_slot *slot, int sortmode) {
    if (slot == nullptr || slot->results == nullptr || slot->count <= 1) return;
    const size_t size = sizeof(rec_find_result);
    if (sortmode == recstore::kRecSortByChannel) {
        qsort(slot->results, static_cast<size_t>(slot->count), size, rec_channel_compare);
    } else if (sortmode == recstore::kRecSortByTime) {
        qsort(slot->results, static_cast<size_t>(slot->count), size, rec_time_compare);
    } else if (sortmode == recstore::kRecSortByChannelThenTime) {
        qsort(slot->results, static_cast<size_t>(slot->count), size, rec_channel_compare);
        int start = 0;
        for (int c = 0; c < kChannels; c++) {
            const int run = slot->channel_count[c];
            if (run > 1)
                qsort(slot->results + start, static_cast<size_t>(run), size, rec_time_compare);
            start += run;
        }
    }
}

int rec_find_open(const struct tm *start, const struct tm *end, uint64_t chanbits, int type,
                  int modmask, int matchflags, int maxcount, int sortmode) {
    if (start == nullptr || end == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (!rec_is_inited()) {
        FS_LOG_ERR("disk is not inited\n");
        return -1;
    }
    if (maxcount < 0) {
        FS_LOG_ERR("invalid max count:%d\n", maxcount);
        return -1;
    }
    const int h = take_find_slot(maxcount);
    if (h < 0) return -1;
    rec_find_slot *slot = &g_recctx.finds[h];
    const uint32_t lo = static_cast<uint32_t>(chanbits);
    const uint32_t hi = static_cast<uint32_t>(chanbits >> 32);
    // Every disk gets the whole maxcount: the slot's own count is the common bound.
    for (int disk = 0; disk < RECSTORE_MAX_DISKS; disk++) {
        if (!fs_disk_is_inited(disk)) continue;
        fs_find(disk, start, end, type, lo, hi, type, modmask, matchflags, maxcount, rec_action,
                slot);
    }
    do_rec_find_sort(slot, sortmode);
    return h;
}

int rec_action(const fs_find_record *found, const recordinfo *info, void *ctx) {
    auto *slot = static_cast<rec_find_slot *>(ctx);
    if (slot == nullptr) {
        FS_LOG_INFO("pctx is null\n");
        return 0;
    }
    if (found == nullptr || info == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    const uint32_t channel = found->channel;
    if (channel >= static_cast<uint32_t>(kChannels)) {
        FS_LOG_ERR("channel err :%d\n", static_cast<int>(channel));
        return 0;
    }
    if (slot->count >= slot->max_count || slot->results == nullptr) {
        FS_LOG_INFO("pctx->count:%d,pctx->maxcount:%d\n", slot->count, slot->max_count);
        return 0;
    }
    fill_result(slot->results[slot->count], *found, *info);
    slot->count++;
    slot->channel_count[channel]++;
    const uint32_t before = __atomic_fetch_add(&s_stored_results, 1u, __ATOMIC_RELAXED);
    // Long searches hold the cache lock: let other threads in now and then.
    if ((before & kYieldMask) == 0 && fs_use_cache()) usleep(0);
    return 1;
}

int rec_find_next(int h, rec_param *recs, rec_find_info *infos, int n) {
    if (!valid_find_handle(h)) return -1;
    rec_find_slot &slot = g_recctx.finds[h];
    return page_forward(slot, 0, slot.count, &slot.cursor, recs, infos, n);
}

int rec_find_prev(int h, rec_param *recs, rec_find_info *infos, int n) {
    if (!valid_find_handle(h)) return -1;
    rec_find_slot &slot = g_recctx.finds[h];
    return page_backward(slot, 0, slot.count, &slot.cursor, recs, infos, n);
}

int rec_find_getcounts(int h) {
    if (!valid_find_handle(h)) return -1;
    return g_recctx.finds[h].count;
}

void rec_find_reset(int h) {
    if (!valid_find_handle(h)) return;
    g_recctx.finds[h].cursor = 0;
}

void rec_find_toend(int h) {
    if (!valid_find_handle(h)) return;
    rec_find_slot &slot = g_recctx.finds[h];
    slot.cursor = slot.count - 1;
}

int rec_find_channel_next(int h, int channel, rec_param *recs, rec_find_info *infos, int n) {
    if (!valid_find_handle(h) || !valid_find_channel(channel)) return -1;
    rec_find_slot &slot = g_recctx.finds[h];
    return page_forward(slot, channel_run_start(slot, channel), slot.channel_count[channel],
                        &slot.channel_cursor[channel], recs, infos, n);
}

int rec_find_channel_prev(int h, int channel, rec_param *recs, rec_find_info *infos, int n) {
    if (!valid_find_handle(h) || !valid_find_channel(channel)) return -1;
    rec_find_slot &slot = g_recctx.finds[h];
    return page_backward(slot, channel_run_start(slot, channel), slot.channel_count[channel],
                         &slot.channel_cursor[channel], recs, infos, n);
}

int rec_find_channel_getcounts(int h, int channel) {
    if (!valid_find_handle(h) || !valid_find_channel(channel)) return -1;
    return g_recctx.finds[h].channel_count[channel];
}

void rec_find_channel_reset(int h, int channel) {
    if (!valid_find_handle(h) || !valid_find_channel(channel)) return;
    g_recctx.finds[h].channel_cursor[channel] = 0;
}

void rec_find_channel_toend(int h, int channel) {
    if (!valid_find_handle(h) || !valid_find_channel(channel)) return;
    rec_find_slot &slot = g_recctx.finds[h];
    slot.channel_cursor[channel] = slot.channel_count[channel] - 1;
}

void rec_find_close(int h) {
    if (!valid_find_handle(h)) return;
    MutexGuard guard(g_recctx.find_lock);
    rec_find_slot &slot = g_recctx.finds[h];
    free(slot.results);
    memset(&slot, 0, sizeof slot);
}

int rec_channel_compare(const void *a, const void *b) {
    const uint32_t x = static_cast<const rec_find_result *>(a)->record.channel;
    const uint32_t y = static_cast<const rec_find_result *>(b)->record.channel;
    return x > y ? 1 : (x < y ? -1 : 0);
}

int rec_time_compare(const void *a, const void *b) {
    struct tm x;
    struct tm y;
    from_fs_tm(&x, &static_cast<const rec_find_result *>(a)->record.start);
    from_fs_tm(&y, &static_cast<const rec_find_result *>(b)->record.start);
    return tm_cmp(&x, &y);
}

/* ---- calendar over all disks ---- */

int rec_get_calendar(uint32_t chan_lo, uint32_t chan_hi, int year, int month, unsigned char *days) {
    if (!rec_is_inited()) return -1;
    if (null_ptr(days)) return -1;
    int n = daysofmonth(year, month);
    if (n > recstore::kRecCalendarDays) {
        FS_LOG_ERR("invalid days of month:%d\n", n);
        return -1;
    }
    if (n > 0) memset(days, 0, static_cast<size_t>(n));
    for (int disk = 0; disk < RECSTORE_MAX_DISKS; disk++) {
        if (!fs_disk_is_inited(disk)) continue;
        fs_get_calendar(disk, 0, chan_lo, chan_hi, year, month, do_rec_get_calendar_action, days);
    }
    return 0;
}

int do_rec_get_calendar_action(fs_calendar_req *request, void *days) {
    if (request == nullptr || days == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return 0;
    }
    const int day = request->day;
    if (day < 0 || day >= recstore::kRecCalendarDays) {
        FS_LOG_PLAIN("index error:%d\n", day);
        return 0;
    }
    static_cast<unsigned char *>(days)[day] |= 1;
    return 1;
}
