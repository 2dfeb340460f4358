// SPDX-License-Identifier: MIT
// Index files: the handle table, the per-disk magic file, creation and reopening of a
// recording's index file (repairing a header that was never finalised), entries, header
// rewriting, deletion and positioning inside a recording.
//
// An index file is a record-info header (896 bytes on version-1 disks, else 8336, or 10384 with
// an extension area) followed by one 204-byte entry per data cluster written. The header on disk
// is complete only once its writer closed it; a file whose end time is still unset is repaired
// from its entries by the next opener.
//
// File map, in order:
//   (head) g_magic, the handle table g_idx_ctx and small helpers.
//   Record-info format: header sizes per disk, the extension area, reading and writing headers.
//   Entries: index_write/read/get and their backward forms.
//   Handle table: index_init/exit, index_size, slot taking and release.
//   Opening, repairing and closing: index_open (with do_index_setup and the repair of a header
//     that was never finalised) and index_close.
//   Header fields of an open recording: extension, flags, stat, header flushes, mode, alarms,
//     index_isopen, index_chk.
//   Deleting and clearing: index_del, index_clear.
//   Entries a power cut may have left ahead of their maps: index_uncounted_clusters.
//   Magic file and fullness: index_write/check/erase_magic, index_isfull.
//   Positioning: offsets, ltell/lseek and ttell/tseek by key-frame time.
// No lock is taken here: the disk layer opens and closes handles under g_fslock, and a handle is
// used by one thread at a time.
#include "index.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>

#include "data_zone.h"  // datazone_holds_cluster: where a torn tail's entries point
#include "fs.h"         // fs_version, which tells a version-1 disk
#include "fs_tools.h"
#include "fstype_old.h"

using namespace recstore;

uint32_t g_magic[RECSTORE_MAX_DISKS];

// Every slot starts free (fd -1) from the moment the library is loaded.
#define RS_FREE_SLOT \
    { -1, 0, 0, nullptr, nullptr }
#define RS_FREE_SLOTS8                                                                  \
    RS_FREE_SLOT, RS_FREE_SLOT, RS_FREE_SLOT, RS_FREE_SLOT, RS_FREE_SLOT, RS_FREE_SLOT, \
        RS_FREE_SLOT, RS_FREE_SLOT
#define RS_FREE_SLOTS64                                                             \
    RS_FREE_SLOTS8, RS_FREE_SLOTS8, RS_FREE_SLOTS8, RS_FREE_SLOTS8, RS_FREE_SLOTS8, \
        RS_FREE_SLOTS8, RS_FREE_SLOTS8, RS_FREE_SLOTS8
handle_slot g_idx_ctx[RECSTORE_INDEX_HANDLES] = {RS_FREE_SLOTS64, RS_FREE_SLOTS64};
#undef RS_FREE_SLOTS64
#undef RS_FREE_SLOTS8
#undef RS_FREE_SLOT

namespace {

constexpr int kHandles = RECSTORE_INDEX_HANDLES;
constexpr int kPathLen = RECSTORE_PATH_LEN;
constexpr uint64_t kIndexFullBytes = 0x20000000ull;  // 512 MiB free or less: full
constexpr long kIndexFullInodes = 128;               // 128 free inodes or less: full
constexpr int kEraseMagicTries = 12;
constexpr int kMaxEndTimeStep = 180;  // seconds a new frame may lie after the end time
// Seconds a key frame may lie before its recording's start (frames kept from before the
// recording was opened) and still belong to it.
constexpr int64_t kMaxFrameLead = 3600;
constexpr int kWalkBatch = 256;   // entries read at once when a header is rebuilt
constexpr int kTtellRetries = 4;  // re-peeks of an entry without key frames
constexpr int kTextBuf = 64;
constexpr mode_t kFileMode = 0777;
constexpr int kRemoveAll = 7;  // remove_file: directories, contents, missing is fine

bool valid_handle(int handle) {
    return handle >= 0 && handle < kHandles;
}

// The slot of an open handle, or null when the handle is free (or the table was cleared).
handle_slot *open_slot(int handle) {
    handle_slot &s = g_idx_ctx[handle];
    return (s.fd >= 0 && s.info != nullptr) ? &s : nullptr;
}

bool disk_is_v1(int disk_id) {
    return strcmp(fs_version(disk_id), kVersion1) == 0;
}

void report_errno(const char *what) {
    FS_LOG_PLAIN("perror\n");
    perror(what);
}

// The text of asctime (ending in a newline), with out-of-range fields printed as "???".
const char *asc_text(const struct tm &t, char (&buf)[kTextBuf]) {
    static const char kDays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const char *day = (t.tm_wday >= 0 && t.tm_wday < 7) ? kDays[t.tm_wday] : "???";
    const char *mon = (t.tm_mon >= 0 && t.tm_mon < 12) ? kMonths[t.tm_mon] : "???";
    snprintf(buf, sizeof buf, "%.3s %.3s%3d %.2d:%.2d:%.2d %lld\n", day, mon, t.tm_mday, t.tm_hour,
             t.tm_min, t.tm_sec, 1900LL + t.tm_year);
    return buf;
}
const char *asc_text(const fs_tm &t, char (&buf)[kTextBuf]) {
    const struct tm full = tm_of(t);
    return asc_text(full, buf);
}

// "%x %X" of a stored time.
const char *xx_text(const fs_tm &t, char (&buf)[kTextBuf]) {
    const struct tm full = tm_of(t);
    if (strftime(buf, sizeof buf, "%x %X", &full) == 0) buf[0] = '\0';
    return buf;
}

int64_t cur_pos(int fd) {
    return io_calls().lseek64(fd, 0, SEEK_CUR);
}

// The key-frame count of an entry as an index bound: 0 to 24 whatever the file holds.
int usable_frames(uint32_t count) {
    const int32_t c = static_cast<int32_t>(count);
    if (c <= 0) return 0;
    return c > kMaxKframes ? kMaxKframes : c;
}

fs_tm fs_tm_from_secs(uint32_t secs) {
    const time_t t = static_cast<time_t>(secs);
    struct tm broken {};
    gmtime_r(&t, &broken);
    fs_tm out{};
    to_fs_tm(&broken, &out);
    return out;
}

int64_t secs_of(const fs_tm &t) {
    const struct tm full = tm_of(t);
    return mktime_abs(&full);
}

// Path of the disk's magic file; false (and an empty path) when the disk has no index root, so
// that nothing is ever created or removed outside one.
bool magic_path(int disk_id, char (&buf)[kPathLen]) {
    constexpr char kMagicName[] = "/magic";
    char root[kPathLen - sizeof kMagicName] = {};  // leaves room for the name
    idx_root(disk_id, root, sizeof root);
    buf[0] = '\0';
    if (root[0] == '\0') return false;
    snprintf(buf, sizeof buf, "%s%s", root, kMagicName);
    return true;
}

bool known_magic(uint32_t v) {
    return v == RECSTORE_MAGIC_V1 || v == RECSTORE_MAGIC_V5 || v == RECSTORE_MAGIC_V6 ||
           v == RECSTORE_MAGIC_V7;
}

void copy_ext_callback(const void *data, int len, handle_slot *slot, void * /*scratch*/) {
    do_index_copy_ext(data, len, slot);
}

}  // namespace

// ============================================================================================
// Record-info format
// ============================================================================================

int sizeof_recordinfo_disk(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("sizeof_recordinfo disk id:%d", disk_id);
        return kRecordInfoSize;
    }
    return disk_is_v1(disk_id) ? kRecordInfoV1Size : kRecordInfoSize;
}

int sizeof_recordinfo(const recordinfo *info) {
    if (info == nullptr) {
        FS_LOG_ERR("NULL ptr");
        return kRecordInfoSize;
    }
    if (info->ext_magic == kExtMagic) return kRecordInfoExtSize;
    return sizeof_recordinfo_disk(static_cast<int>(info->disk_id));
}

void do_ext_fill(recordinfo *info, uint32_t ext_type, int ext_len) {
    if (info == nullptr) {
        FS_LOG_ERR("nullptr");
        return;
    }
    if (ext_len < 1 || ext_len > kMaxExtLen) {
        FS_LOG_ERR("extlen:%d", ext_len);
        return;
    }
    info->ext_magic = kExtMagic;
    info->ext_type = ext_type;
    info->ext_len = static_cast<uint32_t>(ext_len);
}

int do_ext_get_len(const recordinfo *info) {
    if (info == nullptr) {
        FS_LOG_ERR("nullptr");
        return -1;
    }
    if (info->ext_magic != kExtMagic) {
        FS_LOG_ERR("magic:0x%x have no ext", info->ext_magic);
        return -1;
    }
    const int len = static_cast<int>(info->ext_len);
    if (len % 4 != 0) FS_LOG_WARN("len:%d must be align to 4", len);
    return len;
}

void do_index_copy_ext(const void *data, int len, handle_slot *slot) {
    if (slot == nullptr || data == nullptr || len < 1 || len > kMaxExtLen) return;
    free(slot->ext);
    slot->ext = static_cast<uint8_t *>(malloc(static_cast<size_t>(len)));
    if (slot->ext != nullptr) memcpy(slot->ext, data, static_cast<size_t>(len));
}

ssize_t read_recordinfo(int disk_id, int fd, recordinfo *out, handle_slot *slot) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("read_recordinfo disk id:%d", disk_id);
        return -1;
    }
    if (out == nullptr) {
        FS_LOG_ERR("nullptr");
        return -1;
    }
    if (disk_is_v1(disk_id)) {
        uint8_t buf[kRecordInfoV1Size] = {};
        const ssize_t n = io_calls().read(fd, buf, sizeof buf);
        if (n <= 0) return n;
        if (!inner_v1_to_rec_info(buf, out))
            FS_LOG_WARN("alarm word of channel %u lies past the last alarm, dropped", out->channel);
        return n;
    }
    static_assert(kRecordInfoExtSize < 16384, "header buffer stays small enough for the stack");
    uint8_t buf[kRecordInfoExtSize] = {};
    const ssize_t n = io_calls().read(fd, buf, sizeof buf);
    if (n <= 0) return n;
    inner_to_rec_info(buf, out);
    const int len = do_ext_get_len(out);
    // The magic alone says whether the extension area is there (and so where the entries
    // start); a garbage length that reads as negative is no reason to treat the area as entries.
    if (len >= 0 || out->ext_magic == kExtMagic) {
        do_index_copy_ext(buf + kRecordInfoSize, len, slot);
    } else if (io_calls().lseek64(fd, kRecordInfoSize, SEEK_SET) < 0) {
        report_errno("lseek64");
    }
    return n;
}

namespace {

// Encodes the version-1 header of the record.
void encode_v1(const recordinfo *info, uint8_t (&buf)[kRecordInfoV1Size]) {
    recordinfo_v1 staged;
    rec_info_to_v1(info, &staged);
    rec_info_v1_to_inner(&staged, buf);
}

// True when the descriptor asks for a usable extension; else logs why not.
bool ext_usable(const ext_desc *ext) {
    if (ext == nullptr) {
        FS_LOG_ERR("nullptr");
        return false;
    }
    if (ext->len < 1 || ext->len > kMaxExtLen || ext->data == nullptr) {
        FS_LOG_ERR("error len:%d", ext->len);
        return false;
    }
    if (ext->len % 4 != 0) {
        FS_LOG_ERR("len:%d must be align to 4", ext->len);
        return false;
    }
    return true;
}

}  // namespace

ssize_t write_recordinfo(int disk_id, int fd, recordinfo *info, const ext_desc *ext,
                         ext_callback cb, handle_slot *slot) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("write_recordinfo disk id:%d", disk_id);
        return -1;
    }
    if (info == nullptr) {
        FS_LOG_ERR("nullptr");
        return -1;
    }
    if (disk_is_v1(disk_id)) {
        uint8_t buf[kRecordInfoV1Size];
        encode_v1(info, buf);
        return io_calls().write(fd, buf, sizeof buf);
    }
    if (!ext_usable(ext)) {
        uint8_t buf[kRecordInfoSize];
        rec_info_to_inner(info, buf);
        return io_calls().write(fd, buf, sizeof buf);
    }
    do_ext_fill(info, ext->type, ext->len);
    uint8_t buf[kRecordInfoExtSize] = {};
    rec_info_to_inner(info, buf);
    memcpy(buf + kRecordInfoSize, ext->data, static_cast<size_t>(ext->len));
    const ssize_t n = io_calls().write(fd, buf, sizeof buf);
    if (cb != nullptr) {
        char scratch[4] = {};
        cb(ext->data, ext->len, slot, scratch);
    }
    return n;
}

ssize_t pwrite_recordinfo(int disk_id, int fd, const recordinfo *info) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("pwrite_recordinfo disk id:%d", disk_id);
        return -1;
    }
    if (info == nullptr) {
        FS_LOG_ERR("nullptr");
        return -1;
    }
    if (disk_is_v1(disk_id)) {
        uint8_t buf[kRecordInfoV1Size];
        encode_v1(info, buf);
        return io_calls().pwrite64(fd, buf, sizeof buf, 0);
    }
    // Rewrites never carry an extension descriptor; the message is part of every rewrite.
    FS_LOG_ERR("nullptr");
    uint8_t buf[kRecordInfoSize];
    rec_info_to_inner(info, buf);
    return io_calls().pwrite64(fd, buf, sizeof buf, 0);
}

// ============================================================================================
// Entries
// ============================================================================================

namespace {

// Start of a recording in seconds, in the frames' convention (broken-down UTC).
int64_t start_secs(const recordinfo *info) {
    struct tm t = tm_of(info->start_time);
    return static_cast<int64_t>(timegm(&t));
}

// True when an entry read from an index file can have been written for this recording, as far
// as where it points and when its frames lie: after a power cut the index file can end in zeros
// or in blocks that held other files (the partition keeps data and metadata apart), whose
// entries name a cluster outside the data area (zeros name cluster 0, the block map) or key
// frames from before the recording began. `prev` is the last key-frame time of the entries
// before it (0: none); a frame more than kMaxEndTimeStep seconds before it comes from another
// recording. The zone's bounds are used once it is up (its I/O lock is taken shared), else only
// cluster 0 is refused. The frames are looked at only when the count fits a table.
bool entry_belongs(const recordinfo *info, const uint8_t *head, const uint8_t *table,
                   int64_t prev) {
    const uint32_t cluster = le32_load(head);
    const uint32_t count = le32_load(head + 8);
    const int in_zone = datazone_holds_cluster(static_cast<int>(info->disk_id), cluster);
    if (in_zone == 0 || (in_zone < 0 && cluster == 0)) return false;
    if (count == 0 || count > static_cast<uint32_t>(kMaxKframes)) return true;
    kframe frames[kMaxKframes];
    inner_to_frames(table, frames);
    const int64_t floor =
        std::max(start_secs(info) - kMaxFrameLead, prev > 0 ? prev - kMaxEndTimeStep : INT64_MIN);
    for (uint32_t i = 0; i < count; i++) {
        if (static_cast<int64_t>(frames[i].frame_time) < floor) return false;
    }
    return true;
}

// entry_belongs, and the entry fits: at most 24 frames and one cluster of payload.
bool entry_plausible(const recordinfo *info, const uint8_t *head, const uint8_t *table,
                     int64_t prev) {
    const uint32_t length = le32_load(head + 4);
    const uint32_t count = le32_load(head + 8);
    if (count > static_cast<uint32_t>(kMaxKframes) || length > kClusterSize) return false;
    return entry_belongs(info, head, table, prev);
}

// Moves the end time to the last key frame of a new entry when that frame is plausible: the end
// time is still unset, or the frame lies 0 to 180 seconds after it.
void advance_end_time(recordinfo *info, const kframe *frames, uint32_t count) {
    if (count < 1) return;
    const fs_tm latest = fs_tm_from_secs(frames[count - 1].frame_time);
    if (fs_tm_unset(info->end_time)) {
        info->end_time = latest;
        return;
    }
    const struct tm end = tm_of(info->end_time);
    const struct tm now = tm_of(latest);
    if (tm_cmp(&now, &end) >= 0 && tm_diff(&end, &now) <= kMaxEndTimeStep) {
        info->end_time = latest;
        return;
    }
    char a[kTextBuf], b[kTextBuf];
    FS_LOG_PLAIN("channel:%d type:%d latest time:%s current time:%s\n",
                 static_cast<int>(info->channel), static_cast<int>(info->type),
                 xx_text(info->end_time, a), xx_text(latest, b));
}

// A short entry write (a full partition) would misalign every later entry: when it ended the
// file, the file is cut back to the entry's start and the position stays there.
void drop_partial_entry(int fd, int64_t at, ssize_t n) {
    FS_LOG_ERR("short entry write:%d of %d bytes at %lld\n", static_cast<int>(n), kIndexEntrySize,
               static_cast<long long>(at));
    struct stat64 st;
    if (io_calls().fstat64(fd, &st) == 0 && static_cast<int64_t>(st.st_size) == at + n &&
        io_calls().ftruncate64(fd, at) != 0)
        report_errno("ftruncate");
    if (io_calls().lseek64(fd, at, SEEK_SET) < 0) report_errno("lseek64");
}

}  // namespace

int do_index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                   uint32_t frame_count, int advance) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (frames == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    // The frame table holds 24 descriptors; a larger count would make every reader overrun it.
    if (frame_count > static_cast<uint32_t>(kMaxKframes)) {
        FS_LOG_ERR("frame count:%u above %d", frame_count, kMaxKframes);
        return -1;
    }
    uint8_t head[kEntryHeadSize];
    uint8_t table[kFramesSize];
    entry_head_to_inner(cluster_id, length, frame_count, head);
    frames_to_inner(frames, table);
    struct iovec iov[2] = {{head, sizeof head}, {table, sizeof table}};
    const int64_t at = cur_pos(s->fd);
    ssize_t n;
    do {
        n = advance ? io_calls().writev(s->fd, iov, 2) : io_calls().pwritev64(s->fd, iov, 2, at);
    } while (n < 0 && errno == EINTR);
    if (n >= 0 && n != kIndexEntrySize) {
        drop_partial_entry(s->fd, at, n);
        return -1;
    }
    if (n != kIndexEntrySize) {
        perror("writev");
        return static_cast<int>(n);
    }
    recordinfo *info = s->info;
    info->entry_count += 1;
    info->total_bytes += length;
    info->frame_count += frame_count;
    advance_end_time(info, frames, frame_count);
    return kIndexEntrySize;
}

namespace {

bool all_zero(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (p[i] != 0) return false;
    }
    return true;
}

// True when the entry read at file position `pos` is where the recording really ends.
bool torn_end(const handle_slot *s, int64_t pos, const uint8_t *head, const uint8_t *table) {
    if (all_zero(head, kEntryHeadSize) && all_zero(table, kFramesSize)) return true;
    const int64_t at = pos - sizeof_recordinfo(s->info);
    if (at < 0 || at / kIndexEntrySize < static_cast<int64_t>(s->info->entry_count)) return false;
    return !entry_belongs(s->info, head, table, 0);
}

}  // namespace

int do_index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                  uint32_t *frame_count, uint32_t *next_cluster_id, int advance) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (cluster_id == nullptr || length == nullptr || frames == nullptr || frame_count == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) {
        FS_LOG_ERR("fd error:%d", g_idx_ctx[handle].fd);
        return -1;
    }
    uint8_t head[kEntryHeadSize];
    uint8_t table[kFramesSize];
    struct iovec iov[2] = {{head, sizeof head}, {table, sizeof table}};
    const int64_t pos = cur_pos(s->fd);
    ssize_t n;
    do {
        n = advance ? io_calls().readv(s->fd, iov, 2) : io_calls().preadv64(s->fd, iov, 2, pos);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        perror("readv");
        return static_cast<int>(n);
    }
    if (n == 0) {
        FS_LOG_INFO("end of file");
        return 0;
    }
    if (n != kIndexEntrySize) {
        perror("readv");
        return static_cast<int>(n);
    }
    // What a power cut left past the recording's real end is not played: a forward read leaves
    // the position before it and the recording ends there. (Reads in place serve the key-frame
    // and seek walks, which judge entries themselves, as their batched forms do.) That is an entry
    // of zeros anywhere (no entry names cluster 0, the block map) or one that cannot belong to the
    // recording past the entries the header counts; a damaged entry inside them is the caller's to
    // refuse.
    if (advance && torn_end(s, pos, head, table)) {
        io_calls().lseek64(s->fd, pos, SEEK_SET);
        FS_LOG_INFO("end of recording at a torn entry");
        return 0;
    }
    decode_entry(head, table, cluster_id, length, frame_count, frames);
    if (next_cluster_id != nullptr) {
        const int64_t pos = cur_pos(s->fd);
        uint8_t next[kEntryHeadSize];
        *next_cluster_id = 0xFFFFFFFFu;
        if (pos >= 1 && io_calls().pread64(s->fd, next, sizeof next, pos) == kEntryHeadSize)
            *next_cluster_id = le32_load(next);
    }
    return kIndexEntrySize;
}

int index_read(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
               uint32_t *frame_count, uint32_t *next_cluster_id) {
    return do_index_read(handle, cluster_id, length, frames, frame_count, next_cluster_id, 1);
}

int index_get(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
              uint32_t *frame_count) {
    return do_index_read(handle, cluster_id, length, frames, frame_count, nullptr, 0);
}

int index_write(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                uint32_t frame_count) {
    return do_index_write(handle, cluster_id, length, frames, frame_count, 1);
}

namespace {

// Steps back one entry. True when the new position is a whole entry at or after the header;
// otherwise the step is undone (false, -1 to the caller). Seek failures are reported.
enum class StepBack { ok, before_header, failed };
StepBack step_back_entry(handle_slot *s) {
    const int64_t pos = io_calls().lseek64(s->fd, -kIndexEntrySize, SEEK_CUR);
    if (pos < 1) {
        report_errno("lseek64");
        return StepBack::failed;
    }
    if (pos >= sizeof_recordinfo(s->info)) return StepBack::ok;
    io_calls().lseek64(s->fd, kIndexEntrySize, SEEK_CUR);
    return StepBack::before_header;
}

}  // namespace

int index_read_r(int handle, uint32_t *cluster_id, uint32_t *length, kframe *frames,
                 uint32_t *frame_count) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (cluster_id == nullptr || length == nullptr || frames == nullptr || frame_count == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    if (step_back_entry(s) != StepBack::ok) return -1;
    return do_index_read(handle, cluster_id, length, frames, frame_count, nullptr, 0);
}

int index_write_r(int handle, uint32_t cluster_id, uint32_t length, const kframe *frames,
                  uint32_t frame_count) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (frames == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    if (step_back_entry(s) != StepBack::ok) return -1;
    return do_index_write(handle, cluster_id, length, frames, frame_count, 0);
}

// ============================================================================================
// Handle table
// ============================================================================================

int index_init(void) {
    for (handle_slot &s : g_idx_ctx) s = handle_slot{-1, 0, 0, nullptr, nullptr};
    return 0;
}

void index_exit(void) {
    for (handle_slot &s : g_idx_ctx) {
        if (s.fd > 0) io_calls().close(s.fd);
        free(s.info);
        free(s.ext);
    }
    memset(g_idx_ctx, 0, sizeof g_idx_ctx);
}

int index_size(void) {
    return kIndexEntrySize;
}

namespace recstore {

int do_index_take_slot() {
    for (int h = 0; h < kHandles; ++h) {
        handle_slot &s = g_idx_ctx[h];
        if (s.fd >= 0) continue;
        recordinfo *info = static_cast<recordinfo *>(malloc(sizeof(recordinfo)));
        if (info == nullptr) {
            FS_LOG_PLAIN("malloc info failed");
            return -1;
        }
        memset(info, 0, sizeof *info);
        free(s.info);
        free(s.ext);
        s = handle_slot{-1, 0, 0, info, nullptr};
        return h;
    }
    FS_LOG_ERR("reach the max count");
    return -1;
}

void do_index_release(int handle) {
    if (!valid_handle(handle)) return;
    handle_slot &s = g_idx_ctx[handle];
    if (s.fd >= 0) io_calls().close(s.fd);
    free(s.ext);
    free(s.info);
    s = handle_slot{-1, 0, 0, nullptr, nullptr};
}

}  // namespace recstore

// ============================================================================================
// Opening, repairing and closing
// ============================================================================================

namespace {

// Creating: fills the record from the arguments and writes the new header.
int create_header(int handle, const index_open_args &a, const char *name) {
    handle_slot &s = g_idx_ctx[handle];
    recordinfo *info = s.info;
    if (a.existed) fs_log_file("replace existed index:%s\n", name);
    to_fs_tm(a.start, &info->start_time);
    info->mode = a.mode;
    info->channel = static_cast<uint32_t>(a.channel);
    info->type = static_cast<uint32_t>(a.type);
    info->disk_id = static_cast<uint32_t>(a.disk_id);
    info->open_flags = static_cast<uint32_t>(a.flags);
    info->block_id = a.block_id;
    info->attr_a = a.attr_a;
    info->attr_b = a.attr_b;
    info->attr_c = a.attr_c;
    info->attr_d = a.attr_d;
    const ssize_t n = write_recordinfo(a.disk_id, s.fd, info, a.ext, copy_ext_callback, &s);
    if (n <= 0) {
        report_errno("write");
        do_index_release(handle);
        return -1;
    }
    // Entries written after a cut header would be read as part of it: refuse the recording.
    if (n != sizeof_recordinfo(info)) {
        FS_LOG_ERR("short header write:%d of %d bytes\n", static_cast<int>(n),
                   sizeof_recordinfo(info));
        if (!a.existed && io_calls().unlink(name) != 0) report_errno("unlink");
        do_index_release(handle);
        return -1;
    }
    return handle;
}

// Header bytes a complete file of this disk must hold, given the header read.
int64_t expected_header(int disk_id, const recordinfo *info) {
    if (disk_is_v1(disk_id)) return kRecordInfoV1Size;
    return info->ext_magic == kExtMagic ? kRecordInfoExtSize : kRecordInfoSize;
}

// True when an open slot other than a reader holds this recording for writing. The slot being
// opened takes part with the header just read.
bool writer_holds(const index_open_args &a) {
    const struct tm *start = a.start;
    for (handle_slot &s : g_idx_ctx) {
        if (s.fd < 0 || s.info == nullptr) continue;
        const recordinfo *info = s.info;
        const struct tm st = tm_of(info->start_time);
        if (info->channel == static_cast<uint32_t>(a.channel) && tm_cmp(&st, start) == 0 &&
            info->type == static_cast<uint32_t>(a.type) && (info->open_flags & O_CREAT) != 0)
            return true;
    }
    return false;
}

// Outcome of looking for the last entry that has key frames.
enum class LastFrames { found, none, failed };

// Walks the entries from the first on, in batches, up to the first one that cannot belong to
// the recording (entry_plausible) or the last whole one: *whole is the number of entries before
// that point. Among them, the last one whose frame count is 1 to 24 gives its number and frame
// table.
LastFrames find_last_frames(handle_slot &s, int64_t hdr, int64_t *entry, kframe *frames,
                            uint32_t *count, int64_t *whole) {
    struct stat64 st;
    if (io_calls().fstat64(s.fd, &st) != 0) {
        perror("stat");
        return LastFrames::failed;
    }
    const int64_t total = (static_cast<int64_t>(st.st_size) - hdr) / kIndexEntrySize;
    std::unique_ptr<uint8_t[]> batch(new (std::nothrow) uint8_t[kWalkBatch * kIndexEntrySize]);
    if (!batch) return LastFrames::failed;
    LastFrames result = LastFrames::none;
    int64_t prev = 0;
    int64_t k = 0;
    while (k < total) {
        const int64_t want = std::min<int64_t>(kWalkBatch, total - k);
        const ssize_t n = io_calls().pread64(s.fd, batch.get(), want * kIndexEntrySize,
                                             hdr + kIndexEntrySize * k);
        if (n < kIndexEntrySize) {
            perror("idx read eof");
            return LastFrames::failed;
        }
        const int64_t got = n / kIndexEntrySize;
        for (int64_t i = 0; i < got; i++, k++) {
            const uint8_t *head = batch.get() + i * kIndexEntrySize;
            const uint8_t *table = head + kEntryHeadSize;
            if (!entry_plausible(s.info, head, table, prev)) {
                *whole = k;
                return result;
            }
            const uint32_t c = le32_load(head + 8);
            if (c < 1 || c > static_cast<uint32_t>(kMaxKframes)) continue;
            inner_to_frames(table, frames);
            prev = frames[c - 1].frame_time;
            *entry = k;
            *count = c;
            result = LastFrames::found;
        }
    }
    *whole = k;
    return result;
}

// Cuts what follows the recording's last whole entry that belongs to it (zeros or other files'
// blocks left by a power cut, a torn entry), so that every reader ends there.
void cut_torn_tail(handle_slot &s, int64_t end) {
    struct stat64 st;
    if (io_calls().fstat64(s.fd, &st) != 0 || static_cast<int64_t>(st.st_size) <= end) return;
    FS_LOG_WARN("index file tail of %lld bytes past the last entry cut\n",
                static_cast<long long>(st.st_size) - static_cast<long long>(end));
    if (io_calls().ftruncate64(s.fd, end) != 0) report_errno("ftruncate");
}

// The repair failed: the file is still opened, positioned at its first entry.
int repair_failed(int handle, int64_t hdr, const index_open_args &a) {
    handle_slot &s = g_idx_ctx[handle];
    io_calls().lseek64(s.fd, hdr, SEEK_SET);
    char t1[kTextBuf], t2[kTextBuf];
    FS_LOG_ERR("try to fix end time %s - %s err,entering the failed process...\n",
               asc_text(s.info->start_time, t1), asc_text(s.info->end_time, t2));
    s.info->open_flags = static_cast<uint32_t>(a.flags);
    return handle;
}

// A header whose end time precedes its start was never finalised by its writer: rebuild the
// counters and the end time from the entries. The header on disk is rewritten only when no
// writer holds the file.
int repair_header(int handle, const index_open_args &a) {
    handle_slot &s = g_idx_ctx[handle];
    recordinfo *info = s.info;
    const int64_t hdr = sizeof_recordinfo(info);
    char t1[kTextBuf], t2[kTextBuf];
    const bool held = writer_holds(a);
    FS_LOG_INFO(held ? "found :%d %s" : "not found :%d %s", a.channel, asc_text(*a.start, t1));

    kframe frames[kMaxKframes];
    int64_t k = 0;
    uint32_t count = 0;
    int64_t whole = 0;
    switch (find_last_frames(s, hdr, &k, frames, &count, &whole)) {
        case LastFrames::failed:
            return repair_failed(handle, hdr, a);
        case LastFrames::none:
            FS_LOG_ERR("end time is equal to start time");
            info->end_time = info->start_time;
            return repair_failed(handle, hdr, a);
        case LastFrames::found:
            break;
    }
    info->entry_count = static_cast<uint32_t>(k + 1);
    info->total_bytes = static_cast<uint64_t>(k + 1) * kClusterSize;
    info->end_time = fs_tm_from_secs(frames[count - 1].frame_time);

    if (held) {
        FS_LOG_INFO("start:%s end:%s", asc_text(info->start_time, t1),
                    asc_text(info->end_time, t2));
        if (io_calls().lseek64(s.fd, hdr, SEEK_SET) < 0) return repair_failed(handle, hdr, a);
    } else {
        FS_LOG_INFO("try to fix start:%s end:%s...", asc_text(info->start_time, t1),
                    asc_text(info->end_time, t2));
        if (io_calls().lseek64(s.fd, 0, SEEK_SET) < 0) return repair_failed(handle, hdr, a);
        if (write_recordinfo(a.disk_id, s.fd, info, nullptr, nullptr, &s) <= 0) {
            perror("write");
            return repair_failed(handle, hdr, a);
        }
        cut_torn_tail(s, hdr + whole * kIndexEntrySize);
        // The plain header ends before an extension area: entries start after it.
        if (io_calls().lseek64(s.fd, hdr, SEEK_SET) < 0) return repair_failed(handle, hdr, a);
        FS_LOG_PLAIN("done\n");
    }
    info->open_flags = static_cast<uint32_t>(a.flags);
    return handle;
}

// A header cut short, as a power loss during its first write leaves it: the file holds no entry
// yet. The fields present are kept, the type comes from the name when it was cut off, the
// counters are zero and the end time is the start; the whole header is written again unless a
// writer holds the file. Without the start time the file cannot be told apart and is refused.
int repair_short_header(int handle, const index_open_args &a, ssize_t n) {
    handle_slot &s = g_idx_ctx[handle];
    recordinfo *info = s.info;
    const int64_t hdr = expected_header(a.disk_id, info);
    if (n < kOffEnd) {
        FS_LOG_ERR("short header:%d of %d bytes holds no start time\n", static_cast<int>(n),
                   static_cast<int>(hdr));
        do_index_release(handle);
        return -1;
    }
    if (!disk_is_v1(a.disk_id) && n < kOffType + 4) info->type = static_cast<uint32_t>(a.type);
    info->entry_count = 0;
    info->total_bytes = 0;
    info->frame_count = 0;
    info->end_time = info->start_time;
    info->open_flags = static_cast<uint32_t>(a.flags);  // the flags read are the cut writer's
    if (!writer_holds(a)) {
        if (io_calls().lseek64(s.fd, 0, SEEK_SET) < 0 ||
            write_recordinfo(a.disk_id, s.fd, info, nullptr, nullptr, &s) <= 0 ||
            io_calls().ftruncate64(s.fd, hdr) != 0) {
            report_errno("write");
            return repair_failed(handle, hdr, a);
        }
    }
    if (io_calls().lseek64(s.fd, hdr, SEEK_SET) < 0) return repair_failed(handle, hdr, a);
    FS_LOG_WARN("short header:%d of %d bytes, repaired\n", static_cast<int>(n),
                static_cast<int>(hdr));
    return handle;
}

// Opening an existing file: reads its header and repairs it when it was never finalised.
int load_header(int handle, const index_open_args &a) {
    handle_slot &s = g_idx_ctx[handle];
    recordinfo *info = s.info;
    const ssize_t n = read_recordinfo(a.disk_id, s.fd, info, &s);
    if (n <= 0) {
        report_errno("read");
        do_index_release(handle);
        return -1;
    }
    if (n < expected_header(a.disk_id, info)) {
        // Only a file that ends inside its header was cut by a power loss. A short read of a
        // longer file is a read error: repairing would cut the file to a header and lose every
        // entry, so the open fails and the file stays as it is.
        struct stat64 st = {};
        if (io_calls().fstat64(s.fd, &st) != 0 || st.st_size != n) {
            FS_LOG_ERR("header read %d bytes of a %lld-byte file, not repaired\n",
                       static_cast<int>(n), static_cast<long long>(st.st_size));
            do_index_release(handle);
            return -1;
        }
        return repair_short_header(handle, a, n);
    }
    const struct tm start = tm_of(info->start_time);
    const struct tm end = tm_of(info->end_time);
    if (tm_cmp(&start, &end) < 1) {
        info->open_flags = static_cast<uint32_t>(a.flags);
        return handle;
    }
    return repair_header(handle, a);
}

}  // namespace

namespace recstore {

int do_index_setup(int handle, int fd, const index_open_args &a) {
    g_idx_ctx[handle].fd = fd;
    if (a.flags & O_CREAT) {
        char name[kPathLen] = {};
        mk_idx_fullname(a.disk_id, name, sizeof name, a.channel, a.start, a.type);
        return create_header(handle, a, name);
    }
    return load_header(handle, a);
}

int do_index_attach(int fd, const index_open_args &args) {
    if (fd < 0 || !valid_disk_id(args.disk_id) || args.start == nullptr) {
        FS_LOG_ERR("invalid param");
        if (fd >= 0) io_calls().close(fd);
        return -1;
    }
    const int handle = do_index_take_slot();
    if (handle < 0) {
        if (fd >= 0) io_calls().close(fd);
        return -1;
    }
    return do_index_setup(handle, fd, args);
}

}  // namespace recstore

int index_open(int disk_id, uint32_t block_id, const struct tm *start, int channel, int type,
               uint16_t attr_a, uint16_t attr_b, uint32_t attr_c, int flags, uint32_t mode,
               uint32_t attr_d, const ext_desc *ext) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id");
        return -1;
    }
    if (start == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    const int handle = do_index_take_slot();
    if (handle < 0) return -1;

    index_open_args a;
    a.disk_id = disk_id;
    a.block_id = block_id;
    a.start = start;
    a.channel = channel;
    a.type = type;
    a.attr_a = attr_a;
    a.attr_b = attr_b;
    a.attr_c = attr_c;
    a.flags = flags == 0 ? O_RDWR : flags;
    a.mode = mode;
    a.attr_d = attr_d;
    a.ext = ext;

    char name[kPathLen] = {}, dir[kPathLen] = {};
    mk_idx_fullname(disk_id, name, sizeof name, channel, start, type);
    mk_idx_fullpath(disk_id, dir, sizeof dir, channel, start, type);
    a.existed = io_calls().access(name, F_OK) == 0;
    if (!a.existed) mkdir_recursive(dir);

    const int fd = io_calls().open(name, a.flags | O_LARGEFILE, kFileMode);
    if (fd < 0) {
        char t[kTextBuf];
        FS_LOG_ERR("channel :%d,time:%s,name:%s\n", channel, asc_text(*start, t), name);
        do_index_release(handle);
        return -1;
    }
    return do_index_setup(handle, fd, a);
}

namespace {

// Flushes one directory (its entries: names created in it) to the disk; false, reported, when
// it cannot be opened or flushed.
bool sync_directory(const char *path) {
    FdGuard fd(io_calls().open(path, O_RDONLY | O_DIRECTORY, 0));
    if (fd.get() < 0 || io_calls().fsync(fd.get()) != 0) {
        FS_LOG_ERR("directory flush failed:%s\n", path);
        report_errno("fsync");
        return false;
    }
    return true;
}

// Flushes `dir` and every parent up to and including `root`, so that each name on the way
// (possibly created for this recording) is on the disk. `dir` may end in '/'.
bool sync_directory_chain(const char *dir, const char *root) {
    char path[kPathLen];
    snprintf(path, sizeof path, "%s", dir);
    const size_t root_len = strlen(root);
    bool ok = true;
    size_t len = strlen(path);
    while (len > 0 && path[len - 1] == '/') path[--len] = '\0';
    while (len >= root_len) {
        ok = sync_directory(path) && ok;
        char *slash = strrchr(path, '/');
        if (slash == nullptr || len == root_len) break;
        *slash = '\0';
        len = strlen(path);
    }
    return ok;
}

// Makes a closed recording reachable after a power cut: the index file's data and size, the
// directories from the index root down to the file, and the block directory holding its link.
bool make_closed_durable(const handle_slot &s) {
    const recordinfo *info = s.info;
    bool ok = true;
    if (io_calls().fsync(s.fd) != 0) {
        report_errno("fsync");
        ok = false;
    }
    const int disk = static_cast<int>(info->disk_id);
    const struct tm start = tm_of(info->start_time);
    char root[kPathLen] = {}, dir[kPathLen] = {};
    idx_root(disk, root, sizeof root);
    mk_idx_fullpath(disk, dir, sizeof dir, static_cast<int>(info->channel), &start,
                    static_cast<int>(info->type));
    if (root[0] == '\0' || dir[0] == '\0') return false;
    ok = sync_directory_chain(dir, root) && ok;
    char link_root[kPathLen] = {}, link_dir[kPathLen] = {};
    idx_linkroot(disk, link_root, sizeof link_root);
    mk_idx_linkpath(disk, link_dir, sizeof link_dir, static_cast<int>(info->block_id));
    // A recording made outside every block has no link directory.
    if (link_dir[0] != '\0' && link_root[0] != '\0' && io_calls().access(link_dir, F_OK) == 0)
        ok = sync_directory_chain(link_dir, link_root) && ok;
    return ok;
}

}  // namespace

void index_close(int handle, const struct tm *end) {
    if (recstore::index_finish(handle, end) == 0) recstore::do_index_release(handle);
}

int recstore::index_finish(int handle, const struct tm *end) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) {
        FS_LOG_ERR("g_idx_ctx[handle].fd :%d", g_idx_ctx[handle].fd);
        return -1;
    }
    recordinfo *info = s->info;
    if (info->open_flags & O_CREAT) {
        if (end != nullptr) to_fs_tm(end, &info->end_time);
        char t[kTextBuf];
        FS_LOG_PLAIN("close channel:%d type:%d fd:%d endtime:%s\n", static_cast<int>(info->channel),
                     static_cast<int>(info->type), s->fd, xx_text(info->end_time, t));
        if (io_calls().lseek64(s->fd, 0, SEEK_SET) < 0) report_errno("lseek64");
        if (write_recordinfo(static_cast<int>(info->disk_id), s->fd, info, nullptr, nullptr, s) <=
            0)
            report_errno("write");
        struct tm st = tm_of(info->start_time);
        struct tm et = tm_of(info->end_time);
        struct timeval times[2] = {};
        {
            // Closes run in parallel (fs_close finishes a recording without g_fslock). mktime
            // reloads the C library's time-zone state, whose own lock the thread sanitizer cannot
            // see: the file times are computed one close at a time.
            static std::mutex s_mktime_lock;
            std::lock_guard<std::mutex> guard(s_mktime_lock);
            times[0].tv_sec = mktime(&st);
            times[1].tv_sec = mktime(&et);
        }
        if (io_calls().futimes(s->fd, times) != 0) perror("futimes");
        if (!make_closed_durable(*s)) FS_LOG_ERR("closed recording not flushed\n");
    }
    return 0;
}

// ============================================================================================
// Header fields of an open recording
// ============================================================================================

int index_get_ext(int handle, void *buffer, int size) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (buffer == nullptr || size <= 0) {
        FS_LOG_ERR("param error:%d", size);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) {
        FS_LOG_ERR("g_idx_ctx[handle].fd :%d", g_idx_ctx[handle].fd);
        return -1;
    }
    if (s->ext == nullptr) {
        FS_LOG_ERR("info or ext nullptr");
        return -1;
    }
    const int len = do_ext_get_len(s->info);
    if (len < 0) {
        FS_LOG_ERR("extlen error:%d", len);
        return -1;
    }
    // The copy never holds more than the extension area.
    int n = size < len ? size : len;
    if (n > kMaxExtLen) n = kMaxExtLen;
    memcpy(buffer, s->ext, static_cast<size_t>(n));
    return n;
}

int index_getflag(int handle) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) {
        FS_LOG_ERR("g_idx_ctx[handle].fd :%d", g_idx_ctx[handle].fd);
        return -1;
    }
    return static_cast<int>(s->info->open_flags);
}

int index_stat(int handle, recordinfo *out) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (out == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) {
        FS_LOG_ERR("err fd");
        return -1;
    }
    memcpy(out, s->info, sizeof *out);
    return 0;
}

int index_write_info(int handle) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    return static_cast<int>(pwrite_recordinfo(static_cast<int>(s->info->disk_id), s->fd, s->info));
}

int index_flush_info(int handle) {
    if (index_write_info(handle) > 0) {
        if (io_calls().fsync(g_idx_ctx[handle].fd) == 0) return 0;
        report_errno("fsync");
        return -1;
    }
    perror("flush_info");
    return -1;
}

int index_chmod(int handle, uint32_t mode) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    s->info->mode = mode;
    return index_flush_info(handle);
}

int index_insertalarm(int handle, const record_alarm *alarm) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    if (alarm == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    recordinfo *info = s->info;
    // A count read from a damaged file may lie outside 0..59: nothing can be stored then.
    if (info->alarm_count < 0 || info->alarm_count >= kMaxAlarms) return -1;
    info->alarms[info->alarm_count] = *alarm;
    info->alarm_count += 1;
    return index_flush_info(handle);
}

int index_isopen(int disk_id, const struct tm *start, int channel) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d", disk_id);
        return 0;
    }
    if (start == nullptr) return 0;
    for (int h = 0; h < kHandles; ++h) {
        const handle_slot *s = open_slot(h);
        if (s == nullptr) continue;
        const struct tm st = tm_of(s->info->start_time);
        if (s->info->disk_id == static_cast<uint32_t>(disk_id) &&
            s->info->channel == static_cast<uint32_t>(channel) && tm_cmp(&st, start) == 0)
            return 1;
    }
    return 0;
}

int index_chk(int disk_id, int /*unused*/) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id");
        return -1;
    }
    return 0;
}

// ============================================================================================
// Deleting and clearing
// ============================================================================================

int index_del(int disk_id, const struct tm *start, int channel, int type) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d", disk_id);
        return -1;
    }
    if (start == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    char name[kPathLen] = {};
    mk_idx_fullname(disk_id, name, sizeof name, channel, start, type);
    if (io_calls().remove(name) != 0) {
        report_errno("remove");
        return -1;
    }
    char root[kPathLen] = {}, dir[kPathLen] = {}, parent[kPathLen] = {};
    idx_root(disk_id, root, sizeof root);
    mk_idx_fullpath(disk_id, dir, sizeof dir, channel, start, type);
    // Remove the directories the recording leaves empty, up to (and not above) the index root.
    while (strcmp(dir, root) >= 1 && rm_empty_dir(dir) == 0) {
        mk_parent(dir, sizeof parent, parent);
        if (strcmp(parent, dir) == 0) break;
        snprintf(dir, sizeof dir, "%s", parent);
    }
    return 0;
}

int index_clear(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id");
        return -1;
    }
    char path[kPathLen] = {};
    for (int ch = 0; ch < RECSTORE_MAX_CHANNELS; ++ch) {
        mk_idx_chnpath(disk_id, path, sizeof path, ch);
        remove_file(path, kRemoveAll);
        remove_file(path, kRemoveAll);
    }
    idx_linkroot(disk_id, path, sizeof path);
    remove_file(path, kRemoveAll);
    remove_file(path, kRemoveAll);
    return 0;
}

namespace recstore {

int index_uncounted_clusters(int disk_id, const char *path, std::vector<uint32_t> *out) {
    if (!valid_disk_id(disk_id) || path == nullptr || out == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    FdGuard fd(io_calls().open(path, O_RDONLY, 0));
    if (fd.get() < 0 && errno == ENOENT) return 0;  // a link left by a deletion
    if (fd.get() < 0) {
        FS_LOG_ERR("cannot open %s\n", path);
        report_errno("open");
        return -1;
    }
    std::unique_ptr<recordinfo> info(new (std::nothrow) recordinfo{});
    if (!info) return -1;
    const ssize_t n = read_recordinfo(disk_id, fd.get(), info.get(), nullptr);
    if (n < 0) {
        report_errno("read");
        return -1;
    }
    const int64_t header = expected_header(disk_id, info.get());
    if (n < header) return 0;  // a file cut inside its header holds no entry
    struct stat64 st = {};
    if (io_calls().fstat64(fd.get(), &st) != 0) {
        report_errno("fstat");
        return -1;
    }
    // A count outside the file (a damaged header) counts nothing: every entry is read.
    int64_t from = header + static_cast<int64_t>(info->entry_count) * kIndexEntrySize;
    if (from > st.st_size || from < header) from = header;
    constexpr int kBatch = 64;  // entries per read
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[kBatch * kIndexEntrySize]);
    if (!buf) return -1;
    for (int64_t pos = from; pos + kIndexEntrySize <= st.st_size;) {
        const int64_t want = std::min<int64_t>(kBatch * kIndexEntrySize, st.st_size - pos);
        const ssize_t got = io_calls().pread64(fd.get(), buf.get(), static_cast<size_t>(want), pos);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            report_errno("pread");
            return -1;
        }
        if (got < kIndexEntrySize) break;
        const int whole = static_cast<int>(got / kIndexEntrySize);
        for (int i = 0; i < whole; i++) {
            const uint32_t cluster = le32_load(buf.get() + i * kIndexEntrySize);
            if (cluster != 0) out->push_back(cluster);
        }
        pos += static_cast<int64_t>(whole) * kIndexEntrySize;
    }
    return 0;
}

}  // namespace recstore

// ============================================================================================
// Magic file and fullness
// ============================================================================================

int index_write_magic(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk:%d", disk_id);
        return -1;
    }
    char path[kPathLen] = {};
    const bool named = magic_path(disk_id, path);
    FdGuard fd(named ? io_calls().open(path, O_RDWR | O_CREAT, kFileMode) : -1);
    if (fd.get() < 0) {
        FS_LOG_ERR("diskid:%d open magic :%s err\n", disk_id, path);
        perror("open");
        return -1;
    }
    uint8_t bytes[4];
    le32_store(bytes, RECSTORE_MAGIC_V7);
    if (io_calls().write(fd.get(), bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes)) {
        FS_LOG_ERR("write magic err");
        return -1;
    }
    return 0;
}

int index_check_magic(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk:%d", disk_id);
        return -1;
    }
    char path[kPathLen] = {};
    const bool named = magic_path(disk_id, path);
    FdGuard fd(named ? io_calls().open(path, O_RDONLY, 0) : -1);
    if (fd.get() < 0) {
        FS_LOG_ERR("open magic :%s err", path);
        return -1;
    }
    uint8_t bytes[4];
    if (io_calls().read(fd.get(), bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes)) {
        FS_LOG_ERR("read magic err");
        return -1;
    }
    const uint32_t value = le32_load(bytes);
    if (!known_magic(value)) {
        FS_LOG_ERR("magic number is not matched");
        return -1;
    }
    g_magic[disk_id] = value;
    return 0;
}

void index_erase_magic(int disk_id) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk:%d", disk_id);
        return;
    }
    char path[kPathLen] = {};
    if (!magic_path(disk_id, path)) return;
    for (int i = 0; i < kEraseMagicTries; ++i) {
        if (io_calls().access(path, F_OK) != 0 && errno == ENOENT) return;
        FS_LOG_INFO("remove magic file:%s", path);
        remove_file(path, kRemoveAll);
        remove_file(path, kRemoveAll);
        io_calls().sync();
    }
    FS_LOG_ERR("index_erase_magic %s reach max retry", path);
}

int index_isfull(int disk_id) {
    // A disk that cannot be named is doubtful, and doubtful disks count as full.
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d", disk_id);
        return 1;
    }
    char root[kPathLen] = {};
    idx_root(disk_id, root, sizeof root);
    struct statfs st;
    if (io_calls().statfs(root, &st) != 0) return 0;
    const uint64_t free_bytes = static_cast<uint64_t>(st.f_bsize) * st.f_bfree;
    const long free_blocks = static_cast<long>(st.f_bfree);
    const long free_inodes = static_cast<long>(st.f_ffree);
    if (free_bytes <= kIndexFullBytes || free_inodes <= kIndexFullInodes) {
        fs_log_file(
            "disk%d index is full,free size :%lld freeblock is :%ld, blksize: %d, free inode "
            "is:%ld\n",
            disk_id, static_cast<long long>(free_bytes), free_blocks, static_cast<int>(st.f_bsize),
            free_inodes);
        return 1;
    }
    FS_LOG_INFO("disk:%d free size :%lld freeblock is :%ld, blksize: %d,free inode is:%ld\n",
                disk_id, static_cast<long long>(free_bytes), free_blocks,
                static_cast<int>(st.f_bsize), free_inodes);
    return 0;
}

// ============================================================================================
// Positioning
// ============================================================================================

void index_set_offset(int handle, uint32_t offset, const kframe *frames, int count) {
    if (!valid_handle(handle)) return;
    if (offset >= RECSTORE_CLUSTER_SIZE) return;
    handle_slot &s = g_idx_ctx[handle];
    s.offset = offset;
    if (count < 1 || count > kMaxKframes || frames == nullptr) {
        s.seq = 0;
        return;
    }
    int k = 0;
    while (k < count && frames[k].frame_offset <= offset) ++k;
    s.seq = static_cast<uint32_t>(k);
}

void index_get_offset(int handle, uint32_t *offset) {
    if (valid_handle(handle) && offset != nullptr) *offset = g_idx_ctx[handle].offset;
}

void index_clear_offset(int handle) {
    if (!valid_handle(handle)) return;
    g_idx_ctx[handle].seq = 0;
    g_idx_ctx[handle].offset = 0;
}

void index_set_seqoffset(int handle, uint32_t seq, const kframe *frames, int /*count*/) {
    if (!valid_handle(handle) || frames == nullptr) return;
    if (seq >= static_cast<uint32_t>(kMaxKframes)) return;
    g_idx_ctx[handle].seq = seq;
    g_idx_ctx[handle].offset = frames[seq].frame_offset;
}

void index_get_seqoffset(int handle, uint32_t *seq) {
    if (valid_handle(handle) && seq != nullptr) *seq = g_idx_ctx[handle].seq;
}

int64_t index_ltell(int handle, uint32_t *offset) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    const int64_t pos = cur_pos(s->fd);
    const int64_t hdr = sizeof_recordinfo(s->info);
    if (pos < hdr) {
        FS_LOG_ERR("invalid pos :%lld,size:%lld", static_cast<long long>(pos),
                   static_cast<long long>(hdr));
        return -1;
    }
    if (offset != nullptr) *offset = s->offset;
    const int64_t result = (pos - hdr) / kIndexEntrySize * kClusterSize;
    FS_LOG_INFO("ltell pos :%lld", static_cast<long long>(result));
    return result;
}

namespace {

// Whether the walks below read entries in batches (the default) or one entry per read.
std::atomic<bool> g_seek_batched{true};

// One entry peeked at the current position.
struct Peek {
    int result = 0;
    uint32_t cluster_id = 0;
    uint32_t length = 0;
    uint32_t count = 0;
    kframe frames[kMaxKframes] = {};
};
Peek peek_entry(int handle) {
    Peek p;
    p.result = index_get(handle, &p.cluster_id, &p.length, p.frames, &p.count);
    return p;
}

bool step_entry(int fd, int64_t delta) {
    if (io_calls().lseek64(fd, delta, SEEK_CUR) < 0) {
        report_errno("lseek64");
        return false;
    }
    return true;
}

// Entries per read of a batched walk: 1024 x 204 bytes, a fifth of the entries of a two-hour
// recording at 4 Mbit/s.
constexpr int kWalkBatchEntries = 1024;

// The entry walk of the positioning functions. Unbatched, every peek is one index_get at the
// descriptor's position and every step one relative seek of the descriptor. Batched, the walk
// keeps its own position, serves whole entries from one read of up to kWalkBatchEntries entries,
// and moves the descriptor only when it hands control back (settle): before index_ltell, on
// return, and before any read that does not yield a whole entry (end of file, a partial entry, a
// read error), which it leaves to index_get so that results and messages stay those of the
// entry-by-entry walk.
class EntryWalk {
  public:
    explicit EntryWalk(int handle)
        : handle_(handle), fd_(g_idx_ctx[handle].fd), batched_(g_seek_batched) {
        if (batched_) pos_ = synced_ = cur_pos(fd_);
        batched_ = batched_ && pos_ >= 0;
    }
    EntryWalk(const EntryWalk &) = delete;
    EntryWalk &operator=(const EntryWalk &) = delete;
    ~EntryWalk() { settle(); }

    // The entry at the current position, as peek_entry would give it.
    Peek peek() {
        if (!batched_) return peek_entry(handle_);
        if (!buffered(pos_) && !fill()) {
            settle();
            return peek_entry(handle_);
        }
        Peek p;
        const uint8_t *e = buf_.get() + (pos_ - buf_pos_);
        decode_entry(e, e + kEntryHeadSize, &p.cluster_id, &p.length, &p.count, p.frames);
        p.result = kIndexEntrySize;
        return p;
    }

    // Moves by delta bytes, as step_entry would.
    bool step(int64_t delta) {
        if (!batched_) return step_entry(fd_, delta);
        if (pos_ + delta < 0) {
            // The seek fails as the unbatched one would, with its message; the position stays.
            settle();
            const bool ok = step_entry(fd_, delta);
            pos_ = synced_ = cur_pos(fd_);
            return ok;
        }
        pos_ += delta;
        backward_ = delta < 0;
        return true;
    }

    // The current position (the descriptor's position once synced).
    int64_t pos() const { return batched_ ? pos_ : cur_pos(fd_); }

    // Puts the descriptor at the walk's position; from here on index_get and the descriptor agree
    // until the next peek or step.
    void settle() {
        if (batched_ && synced_ != pos_ && io_calls().lseek64(fd_, pos_, SEEK_SET) == pos_)
            synced_ = pos_;
    }

  private:
    bool buffered(int64_t at) const {
        return buf_len_ > 0 && at >= buf_pos_ && at + kIndexEntrySize <= buf_pos_ + buf_len_;
    }
    // Reads the batch that holds the current position: starting there, or after a backward step
    // ending with it (as many whole entries before it as the file start allows). False unless the
    // current entry was read whole.
    bool fill() {
        constexpr size_t kBytes = static_cast<size_t>(kWalkBatchEntries) * kIndexEntrySize;
        if (!buf_) buf_.reset(new (std::nothrow) uint8_t[kBytes]);
        if (!buf_) return false;
        buf_len_ = 0;
        int64_t before = 0;
        if (backward_) {
            before = std::min<int64_t>(kWalkBatchEntries - 1, pos_ / kIndexEntrySize);
            before *= kIndexEntrySize;
        }
        const ssize_t n = io_calls().pread64(fd_, buf_.get(), kBytes, pos_ - before);
        if (n < before + kIndexEntrySize) return false;
        buf_pos_ = pos_ - before;
        buf_len_ = n;
        return true;
    }

    int handle_;
    int fd_;
    bool batched_;
    bool backward_ = false;
    int64_t pos_ = -1;
    int64_t synced_ = -1;
    // Allocated per walk, not kept per thread: a reader thread would otherwise pin 200 KiB for
    // its lifetime (tens of playback threads on a 32-bit recorder).
    std::unique_ptr<uint8_t[]> buf_;
    int64_t buf_pos_ = 0;
    int64_t buf_len_ = 0;
};

// Walks forward from the current entry through `remaining` payload bytes.
int64_t lseek_forward(int handle, int64_t remaining, bool relative, uint32_t *offset_out) {
    EntryWalk walk(handle);
    for (;;) {
        const Peek p = walk.peek();
        if (p.result < 1) {
            if (relative) FS_LOG_ERR("index get err");
            return -1;
        }
        remaining -= p.length;
        if (remaining == 0) {
            index_set_offset(handle, 0, nullptr, 0);
            if (!walk.step(kIndexEntrySize)) return -1;
            walk.settle();
            return index_ltell(handle, offset_out);
        }
        if (remaining < 0) {
            index_set_offset(handle, static_cast<uint32_t>(p.length + remaining), p.frames,
                             static_cast<int>(p.count));
            walk.settle();
            return index_ltell(handle, offset_out);
        }
        if (!walk.step(kIndexEntrySize)) return -1;
    }
}

// Walks backward from the current entry through `remaining` payload bytes.
int64_t lseek_backward(int handle, int64_t remaining, uint32_t *offset_out) {
    EntryWalk walk(handle);
    const int64_t hdr = sizeof_recordinfo(g_idx_ctx[handle].info);
    for (;;) {
        if (!walk.step(-kIndexEntrySize)) return -1;
        if (walk.pos() < hdr) {
            // Stepped back past the first entry: the bytes there are the header, not an entry.
            walk.step(kIndexEntrySize);
            FS_LOG_ERR("read_r err or over");
            return -1;
        }
        const Peek p = walk.peek();
        if (p.result < 1) {
            FS_LOG_ERR("read_r err or over");
            return -1;
        }
        remaining -= p.length;
        if (remaining == 0) {
            index_set_offset(handle, 0, nullptr, 0);
            walk.settle();
            return index_ltell(handle, offset_out);
        }
        if (remaining < 0) {
            index_set_offset(handle, static_cast<uint32_t>(p.length + remaining), p.frames,
                             static_cast<int>(p.count));
            walk.settle();
            return index_ltell(handle, offset_out);
        }
    }
}

}  // namespace

void recstore::index_set_seek_batched(bool batched) {
    g_seek_batched.store(batched);
}

int64_t index_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    // Compares the record's byte count with a count of entry bytes, as signed values so that a
    // backward offset always passes.
    const uint64_t total = s->info->total_bytes;
    const int64_t total_signed =
        total > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(total);
    if (total_signed < offset / kClusterSize * kIndexEntrySize) {
        FS_LOG_ERR("offset is too long:%lld,size:%lld", static_cast<long long>(offset),
                   static_cast<long long>(total_signed));
        return -1;
    }
    if (whence < 0 || whence >= 3) {
        FS_LOG_ERR("invalid mod:%d", whence);
        return -1;
    }
    FS_LOG_INFO("lseek mod :%d offset :%lld", whence, static_cast<long long>(offset));
    if (whence == SEEK_SET) {
        if (offset < 0) return -1;
        if (io_calls().lseek64(s->fd, sizeof_recordinfo(s->info), SEEK_SET) < 0) {
            report_errno("lseek64");
            return -1;
        }
        return lseek_forward(handle, offset, false, offset_out);
    }
    if (whence == SEEK_CUR) {
        if (offset >= 0) return lseek_forward(handle, offset, true, offset_out);
        if (offset == INT64_MIN) return -1;
        return lseek_backward(handle, -offset, offset_out);
    }
    if (offset < 1) FS_LOG_ERR("had not implement");
    return -1;
}

int64_t index_ttell(int handle, uint32_t *seq) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d", handle);
        return -1;
    }
    handle_slot *s = open_slot(handle);
    if (s == nullptr) return -1;
    Peek p = peek_entry(handle);
    if (p.result < 1) return -1;
    // The position does not move between peeks: only a concurrent rewrite of the entry can give
    // it frames, so the wait is bounded.
    for (int tries = 0; usable_frames(p.count) == 0; ++tries) {
        FS_LOG_INFO("cur block had no kframe,try to seek forword");
        if (tries == kTtellRetries) return -1;
        p = peek_entry(handle);
        if (p.result < 1) return -1;
    }
    const uint32_t cur = s->seq;
    const bool in_table = static_cast<int64_t>(usable_frames(p.count)) > static_cast<int64_t>(cur);
    const uint32_t t = in_table ? p.frames[cur].frame_time : p.frames[0].frame_time;
    if (seq != nullptr) *seq = cur;
    return t;
}

namespace {

// Takes frame i of the entry as the position reached.
int64_t take_frame(int handle, const Peek &p, int i, int32_t *seq) {
    index_set_seqoffset(handle, static_cast<uint32_t>(i), p.frames, static_cast<int>(p.count));
    if (seq != nullptr) *seq = i;
    return p.frames[i].frame_time;
}

int64_t tseek_absolute(int handle, int32_t sec, int32_t *seq) {
    handle_slot &s = g_idx_ctx[handle];
    const recordinfo *info = s.info;
    if (sec < 0) return -1;
    const fs_tm want = fs_tm_from_secs(static_cast<uint32_t>(sec));
    const struct tm w = tm_of(want), st = tm_of(info->start_time), et = tm_of(info->end_time);
    if (tm_cmp(&w, &st) < 0 || tm_cmp(&w, &et) > 0) {
        FS_LOG_ERR("sec:%d is less than start time:%ld or larger than end time :%ld\n", sec,
                   static_cast<long>(secs_of(info->start_time)),
                   static_cast<long>(secs_of(info->end_time)));
        return -1;
    }
    if (io_calls().lseek64(s.fd, sizeof_recordinfo(info), SEEK_SET) < 0) {
        report_errno("lseek64");
        return -1;
    }
    EntryWalk walk(handle);
    bool first = true;
    for (;;) {
        const Peek p = walk.peek();
        if (p.result < 0) return -1;
        if (p.result == 0) return secs_of(info->end_time);
        for (int i = 0; i < usable_frames(p.count); ++i) {
            const uint32_t t = p.frames[i].frame_time;
            if (first && t > static_cast<uint32_t>(sec)) {
                FS_LOG_INFO("sec:%d is less than first time:%d\n", sec, static_cast<int>(t));
                return t;
            }
            first = false;
            if (t >= static_cast<uint32_t>(sec)) {
                FS_LOG_INFO("sec:%d,i:%d,sec:%d\n", sec, i, static_cast<int>(t));
                return take_frame(handle, p, i, seq);
            }
        }
        if (!walk.step(kIndexEntrySize)) return -1;
    }
}

int64_t tseek_forward(int handle, int32_t sec, int32_t *seq) {
    handle_slot &s = g_idx_ctx[handle];
    EntryWalk walk(handle);
    bool have_base = false;
    int64_t target = 0;
    for (;;) {
        const Peek p = walk.peek();
        if (p.result < 0) return -1;
        if (p.result == 0) return secs_of(s.info->end_time);
        const int n = usable_frames(p.count);
        if (n == 0) FS_LOG_ERR("cur block had no kframe,try to seek forword\n");
        if (n > 0 && !have_base) {
            target = static_cast<int64_t>(p.frames[0].frame_time) + sec;
            have_base = true;
        }
        for (int i = 0; i < n; ++i)
            if (static_cast<int64_t>(p.frames[i].frame_time) >= target)
                return take_frame(handle, p, i, seq);
        if (!walk.step(kIndexEntrySize)) return -1;
    }
}

int64_t tseek_backward(int handle, int32_t sec, int32_t *seq) {
    handle_slot &s = g_idx_ctx[handle];
    EntryWalk walk(handle);
    bool have_base = false;
    int64_t target = 0;
    for (;;) {
        const Peek p = walk.peek();
        if (p.result < 0) {
            FS_LOG_ERR("read_r err");
            return -1;
        }
        if (p.result == 0) return secs_of(s.info->start_time);
        const int n = usable_frames(p.count);
        if (n == 0) FS_LOG_ERR("cur block had not kframe,try to seek forword\n");
        if (n > 0 && !have_base) {
            target = static_cast<int64_t>(p.frames[0].frame_time) + 1 + sec;
            have_base = true;
        }
        for (int i = n - 1; i >= 0; --i)
            if (static_cast<int64_t>(p.frames[i].frame_time) <= target)
                return take_frame(handle, p, i, seq);
        if (!walk.step(-kIndexEntrySize)) return -1;
    }
}

}  // namespace

int64_t index_tseek(int handle, int32_t sec, int whence, int32_t *seq) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid handle :%d\n", handle);
        return -1;
    }
    if (open_slot(handle) == nullptr) {
        FS_LOG_ERR("invalid fd :%d\n", g_idx_ctx[handle].fd);
        return -1;
    }
    if (whence < 0 || whence > 2) {
        FS_LOG_ERR("invalid mod:%d\n", whence);
        return -1;
    }
    if (whence == SEEK_SET) return tseek_absolute(handle, sec, seq);
    if (whence == SEEK_CUR)
        return sec >= 0 ? tseek_forward(handle, sec, seq) : tseek_backward(handle, sec, seq);
    if (sec > 0) return -1;
    FS_LOG_ERR("had not implement\n");
    return -1;
}

// ============================================================================================
// Reading a header without a handle
// ============================================================================================

namespace {

// True when the bytes read hold the whole header of this disk's layout and it is final (start
// <= end): what the open would take as it is, without a repair. Decodes into *scratch, silently.
bool whole_final_header(bool v1, const uint8_t *buf, ssize_t n, recordinfo *scratch) {
    memset(scratch, 0, sizeof *scratch);
    if (v1) {
        if (n < kRecordInfoV1Size) return false;
        inner_v1_to_rec_info(buf, scratch);
    } else {
        if (n < kRecordInfoSize) return false;
        inner_to_rec_info(buf, scratch);
        if (scratch->ext_magic == kExtMagic && n < kRecordInfoExtSize) return false;
    }
    const struct tm start = tm_of(scratch->start_time);
    const struct tm end = tm_of(scratch->end_time);
    return tm_cmp(&start, &end) < 1;
}

}  // namespace

int recstore::index_read_header(int disk_id, const char *path, recordinfo *out) {
    if (!valid_disk_id(disk_id) || path == nullptr || path[0] == '\0' || out == nullptr) return 0;
    const bool v1 = disk_is_v1(disk_id);
    FdGuard fd(io_calls().open(path, O_RDONLY | O_LARGEFILE, 0));
    if (fd.get() < 0) return 0;
    static_assert(kRecordInfoExtSize < 16384, "header buffer stays small enough for the stack");
    uint8_t buf[kRecordInfoExtSize];
    const ssize_t n =
        io_calls().pread64(fd.get(), buf, v1 ? kRecordInfoV1Size : kRecordInfoExtSize, 0);
    std::unique_ptr<recordinfo> peek(new (std::nothrow) recordinfo());
    if (!peek || !whole_final_header(v1, buf, n, peek.get())) return 0;
    // The open's own read and decode, from the page cache now: the same record and messages.
    memset(out, 0, sizeof *out);
    const ssize_t again = read_recordinfo(disk_id, fd.get(), out, nullptr);
    if (again != n || memcmp(out, peek.get(), sizeof *out) != 0) return 0;  // changed meanwhile
    out->open_flags = O_RDWR;  // as a recording opened for reading reports it
    return 1;
}
