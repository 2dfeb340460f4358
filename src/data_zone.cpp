// SPDX-License-Identifier: MIT
// The data zone of a disk: its raw data partition cut into 512 KiB clusters and 64 GiB blocks,
// with the block map in cluster 0 and one cluster map per block. This module opens, lays out,
// checks and repairs a zone at start, chooses and stamps the current block, finds the earliest
// blocks for recycling, clears blocks, allocates and frees clusters, moves whole clusters in and
// out and keeps the zone-wide busy, free and error counts. No lock is taken here: the disk layer
// serialises the calls per disk.
//
// File map, in order:
//   The zone table and the payload I/O lock: g_io_lock (one read-write lock per disk, shared by
//     payload I/O, exclusive in datazone_exit), its guard and g_dz_ctx.
//   Small helpers: id and range checks, descriptor handling, the start-up block scan, logging.
//   Geometry: dz_compute_geometry.
//   Layout and initialisation: datazone_init/exit, do_block_chk, datazone_chk, datazone_getinfo,
//     datazone_dump and datazone_clear.
//   Block manager: block_load/unload, the current block (block_current, block_alloc, block_free,
//     block_get_current), the block filters, block_ultimate, block_earliest/before, the sequence
//     helpers, block_clear and do_block_dump.
//   Cluster I/O and accounting: datazone_alloc/free/val, whole-cluster reads and writes,
//     datazone_keep_busy (bring-up's repair of map words a power cut lost), sync, the zone-wide
//     counts and fullness tests, and fs_datazone_read (a stream's read through
//     its preload buffer).
#include "data_zone.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "bitmap.h"
#include "fs.h"  // mode flags and the stream table read by fs_datazone_read
#include "fs_tools.h"

using namespace recstore;

// ---------------------------------------------------------------------------------------------
// The zone table and the payload I/O lock.

namespace {

// A block whose sequence is at most this (seconds / 4) was stamped by a clock that was not set;
// the start-up check reports its clusters stamped later.
constexpr uint32_t kUnsetClockSeq = 360;
constexpr mode_t kOpenMode = 0777;
constexpr uint32_t kNoEntry = 0xFFFFFFFFu;

constexpr datazone_ctx initial_ctx() {
    datazone_ctx c{};
    c.fd_rw = -1;
    c.fd_rd = -1;
    c.fd_rd_direct = 0;  // not negative, but the initialised test refuses the record anyway
    c.fd_wr = -1;
    return c;
}

// Payload reads and writes run without the disk's mutex (allocation is the only step that needs
// it), so a disk taken down at plug-out could close a descriptor under a running write, and the
// number could be reused by another file. Payload I/O holds this lock shared; datazone_exit holds
// it exclusively while it closes the descriptors.
pthread_rwlock_t g_io_lock[RECSTORE_MAX_DISKS] = {
    PTHREAD_RWLOCK_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER,
    PTHREAD_RWLOCK_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER,
    PTHREAD_RWLOCK_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER};

class IoGuard {
  public:
    IoGuard(int disk, bool exclusive) : lock_(valid_disk_id(disk) ? &g_io_lock[disk] : nullptr) {
        if (lock_ == nullptr) return;
        if (exclusive) {
            pthread_rwlock_wrlock(lock_);
        } else {
            pthread_rwlock_rdlock(lock_);
        }
    }
    ~IoGuard() {
        if (lock_ != nullptr) pthread_rwlock_unlock(lock_);
    }
    IoGuard(const IoGuard &) = delete;
    IoGuard &operator=(const IoGuard &) = delete;

  private:
    pthread_rwlock_t *lock_;
};

}  // namespace

datazone_ctx g_dz_ctx[RECSTORE_MAX_DISKS] = {initial_ctx(), initial_ctx(), initial_ctx(),
                                             initial_ctx(), initial_ctx(), initial_ctx(),
                                             initial_ctx(), initial_ctx()};

#if defined(__arm__)
static_assert(sizeof(dz_block) == 80, "a loaded block record is 80 bytes on the target");
#endif
static_assert(sizeof(block_entry) == 12, "a block list entry is three words");
static_assert(sizeof(datazone_info) == 184, "datazone_info is 184 bytes");

namespace {

// ---------------------------------------------------------------------------------------------
// Small helpers.

datazone_ctx &zone(int disk) {
    return g_dz_ctx[disk];
}

uint32_t now_seq() {
    return static_cast<uint32_t>(std::time(nullptr)) >> 2;
}

bool check_id(int disk) {
    if (valid_disk_id(disk)) return true;
    FS_LOG_ERR("invalid disk id:%d\n", disk);
    return false;
}

// The id and initialisation checks every operation taking a disk id starts with.
bool check_disk(int disk) {
    return check_id(disk) && datazone_is_inited(disk) == 1;
}

bool check_writable(int disk, const char *format) {
    if (!g_fs_rdonly) return true;
    FS_LOG_ERR(format, disk);
    return false;
}

bool block_id_valid(const datazone_info &info, uint32_t id) {
    return id >= info.block_start && id - info.block_start < info.block_count;
}

bool in_data_area(const datazone_info &info, int id) {
    if (id < 0) return false;
    const uint32_t c = static_cast<uint32_t>(id);
    return c >= info.data_start && c - info.data_start < info.data_count;
}

bool in_block(const dz_block &b, int id) {
    if (id < 0) return false;
    const uint32_t c = static_cast<uint32_t>(id);
    return c >= b.data_start && c - b.data_start < b.data_count;
}

// A block is current when it is the loaded current block of the same disk.
bool is_current(int disk, uint32_t index) {
    const datazone_ctx &z = zone(disk);
    const dz_block *cur = z.cur_block;
    return cur != nullptr && cur->block_id == index + z.info.block_start &&
           cur->disk == static_cast<uint32_t>(disk);
}

uint32_t block_entry_at(int disk, uint32_t index) {
    return bitmap_val(&zone(disk).block_map, index);
}

// Whether a block's cluster map holds busy or error clusters (loads the map).
bool block_has_used_clusters(int disk, uint32_t index) {
    dz_block *b = block_load(disk, zone(disk).info.block_start + index);
    if (b == nullptr) return false;
    const bool used = b->clusters.busy_bits + b->clusters.err_bits > 0;
    block_unload(b);
    return used;
}

void close_fd(int &fd, int lowest_open) {
    if (fd >= lowest_open) io_calls().close(fd);
    fd = -1;
}

// Failure exit of datazone_init: every descriptor that opened is closed again.
int init_failed(datazone_ctx &z) {
    close_fd(z.fd_rw, 1);
    close_fd(z.fd_wr, 1);
    close_fd(z.fd_rd, 1);
    close_fd(z.fd_rd_direct, 1);
    return -1;
}

void open_descriptors(datazone_ctx &z, const char *path, int directio) {
    z.fd_rw = io_calls().open(path, O_RDWR | O_LARGEFILE, kOpenMode);
    z.fd_rd = io_calls().open(path, O_RDONLY | O_LARGEFILE, kOpenMode);
    if (directio) {
        z.fd_rd_direct = io_calls().open(path, O_RDONLY | O_LARGEFILE | O_DIRECT, kOpenMode);
        z.fd_wr = io_calls().open(path, O_RDWR | O_LARGEFILE | O_DIRECT, kOpenMode);
    } else {
        z.fd_rd_direct = -1;
        z.fd_wr = io_calls().open(path, O_RDWR | O_LARGEFILE, kOpenMode);
    }
}

// The zone's description from its geometry; freesize stays 0.
void fill_geometry(datazone_info &i, const char *path, uint64_t total, const DzGeometry &g) {
    std::memset(&i, 0, sizeof(i));
    std::snprintf(i.name, sizeof(i.name), "%s", path);
    i.totalsize = total;
    i.cluster_size = kClusterSize;
    i.cluster_perblock = kClustersPerBlock;
    i.cluster_start = 0;
    i.cluster_count = g.cluster_count;
    i.bm_start = kBlockMapCluster;
    i.bm_count = kBlockMapClusters;
    i.block_start = kFirstBlockId;
    i.block_count = g.block_count;
    i.data_start = g.data_start;
    i.data_count = g.data_count;
}

void fill_info(int disk, datazone_ctx &z, const char *path, uint64_t total, const DzGeometry &g) {
    datazone_info &i = z.info;
    fill_geometry(i, path, total, g);
    fs_log_file(
        "diskid:%d name:%s totalsize:%llu cluster size:%u cluster perblock:%u fs_rdonly:%d\n", disk,
        i.name, static_cast<unsigned long long>(i.totalsize), i.cluster_size, i.cluster_perblock,
        g_fs_rdonly);
    fs_log_file(
        "bm_start:%u bm_count:%u block_start:%u block_count:%u data_start:%u data_count:%u\n",
        i.bm_start, i.bm_count, i.block_start, i.block_count, i.data_start, i.data_count);
}

// Loads every block once at start: sums the counts, logs it and repairs its block entry.
bool scan_blocks(int disk, datazone_ctx &z) {
    for (uint32_t i = 0; i < z.info.block_count; ++i) {
        const uint32_t id = z.info.block_start + i;
        dz_block *b = block_load(disk, id);
        if (b == nullptr) {
            FS_LOG_ERR("block_load err diskid:%d blockid:%d\n", disk, static_cast<int>(id));
            return false;
        }
        z.busy_count += b->clusters.busy_bits;
        z.free_count += b->clusters.free_bits;
        z.err_count += b->clusters.err_bits;
        do_block_dump(b);
        do_block_chk(b, 1);
        block_unload(b);
    }
    return true;
}

// Reports, once, the first busy cluster stamped after a block whose sequence came from an unset
// clock. Nothing is changed.
void report_unset_clock(const dz_block *block, uint32_t entry) {
    const cluster_bitmap &m = block->clusters;
    int i = 0;
    for (const bitmap_list *pos = m.busy_list.next; pos != &m.busy_list; pos = pos->next, ++i) {
        const uint32_t id = reinterpret_cast<const bitmap_node *>(pos)->id;
        if (entry_value(m.vals[id]) > kUnsetClockSeq) {
            fs_log_file("chk diskid:%d blockid:%d i:%d val:%x => %x...\n",
                        static_cast<int>(block->disk), static_cast<int>(block->block_id), i, entry,
                        0u);
            return;
        }
    }
}

void dump_all_blocks(int disk) {
    const datazone_info &info = zone(disk).info;
    for (uint32_t i = 0; i < info.block_count; ++i) {
        dz_block *b = block_load(disk, info.block_start + i);
        if (b == nullptr) continue;
        do_block_dump(b);
        block_unload(b);
    }
}

int read_whole_cluster(int fd, int disk, int id, void *buf) {
    const datazone_info &info = zone(disk).info;
    if (!in_data_area(info, id)) {
        FS_LOG_PLAIN("fatal error,cluster:%d,start :%d count:%d\n", id,
                     static_cast<int>(info.data_start), static_cast<int>(info.data_count));
        return -1;
    }
    return static_cast<int>(read_cluster(fd, id, 0, buf, kClusterSize));
}

const char *state_word(uint32_t entry) {
    if (entry_is_busy(entry)) return "busy";
    if (entry_is_free(entry)) return "free";
    return "err";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Geometry.

bool recstore::dz_compute_geometry(uint64_t partition_bytes, uint64_t max_disk_bytes,
                                   DzGeometry *out) {
    const uint64_t clusters64 = partition_bytes >> kClusterShift;
    const uint32_t cluster_count =
        clusters64 > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(clusters64);
    const uint32_t reserved = static_cast<uint32_t>(
        static_cast<uint32_t>(max_disk_bytes >> kClusterShift) >> kBlockShift);
    // Checked before the subtraction below, which would otherwise wrap.
    if (cluster_count < 1 + reserved) {
        FS_LOG_ERR("data partition too small: %u clusters, at least %u needed\n", cluster_count,
                   1 + reserved);
        return false;
    }
    uint32_t block_count = (cluster_count - 1 - reserved) >> kBlockShift;
    if (block_count > reserved) {
        FS_LOG_WARN("data partition larger than supported: %u blocks, %u used\n", block_count,
                    reserved);
        block_count = reserved;
    }
    out->cluster_count = cluster_count;
    out->reserved = reserved;
    out->block_count = block_count;
    out->data_start = 1 + reserved;
    out->data_count = block_count << kBlockShift;
    return true;
}

int datazone_geometry_for(uint32_t magic, uint64_t data_bytes, datazone_info *out) {
    if (out == nullptr) return -1;
    if (magic != RECSTORE_MAGIC_V7 && magic != RECSTORE_MAGIC_V6 && magic != RECSTORE_MAGIC_V5 &&
        magic != RECSTORE_MAGIC_V1) {
        FS_LOG_ERR("unknown magic:%x\n", magic);
        return -1;
    }
    DzGeometry g{};
    if (!dz_compute_geometry(data_bytes, max_disk_bytes_for_magic(magic), &g)) return -1;
    fill_geometry(*out, "", data_bytes, g);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Layout and initialisation.

int datazone_is_inited(int disk_id) {
    if (!check_id(disk_id)) return 0;
    const datazone_ctx &z = zone(disk_id);
    if (z.fd_rw >= 0 && z.fd_rd >= 0 && z.fd_wr >= 0) return 1;
    FS_LOG_ERR("not initialized:%d %d %d %d\n", disk_id, z.fd_rw, z.fd_rd, z.fd_wr);
    return 0;
}

int datazone_init(int disk_id, int directio) {
    if (!check_id(disk_id)) return -1;
    datazone_ctx &z = zone(disk_id);
    if (z.fd_rw > 0 && z.fd_wr > 0 && z.fd_rd > 0) {
        FS_LOG_INFO("had already initialized id:%d\n", disk_id);
        return 0;
    }
    char path[RECSTORE_PATH_LEN] = {0};
    data_partion(disk_id, path, sizeof(path));
    open_descriptors(z, path, directio);
    if (z.fd_rw < 0 || z.fd_wr < 0 || z.fd_rd < 0) {
        FS_LOG_ERR("not initialized:%d %d %d %d\n", disk_id, z.fd_rw, z.fd_rd, z.fd_wr);
        return init_failed(z);
    }

    z.cur_block = nullptr;
    z.busy_count = z.free_count = z.err_count = 0;
    const int64_t total = blockdev_size(disk_id, z.fd_rw);
    DzGeometry g{};
    if (total <= 0 || !dz_compute_geometry(static_cast<uint64_t>(total),
                                           get_max_supported_disk_size(disk_id), &g)) {
        FS_LOG_ERR("invalid data partition:%s size:%lld\n", path, static_cast<long long>(total));
        return init_failed(z);
    }
    fill_info(disk_id, z, path, static_cast<uint64_t>(total), g);

    std::memset(&z.block_map, 0, sizeof(z.block_map));
    if (g_fs_rdonly) return 0;  // no map is read, verified or written

    if (bitmap_init(&z.block_map, static_cast<int>(z.info.block_count), z.fd_rw, z.info.bm_start) !=
        0) {
        FS_LOG_ERR("bitmap_init err\n");
        return init_failed(z);
    }
    for (uint32_t i = 0; i < z.info.block_count; ++i) {
        fs_log_file("block:%d free:%d busy:%d val:0x%x\n", static_cast<int>(i + z.info.block_start),
                    bitmap_is_free(&z.block_map, i), bitmap_is_busy(&z.block_map, i),
                    bitmap_val(&z.block_map, i));
    }
    if (!scan_blocks(disk_id, z)) {
        bitmap_exit(&z.block_map);
        z.busy_count = z.free_count = z.err_count = 0;
        return init_failed(z);
    }
    fs_log_file("total busycount:%d,freecount:%d, errcount:%d\n", static_cast<int>(z.busy_count),
                static_cast<int>(z.free_count), static_cast<int>(z.err_count));
    return 0;
}

void datazone_exit(int disk_id) {
    IoGuard io(disk_id, true);
    if (!check_disk(disk_id)) return;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block != nullptr) block_unload(z.cur_block);
    z.cur_block = nullptr;
    bitmap_exit(&z.block_map);
    // A stopped record holds descriptors 0; never close descriptor 0 on its behalf.
    close_fd(z.fd_rw, 1);
    close_fd(z.fd_rd, 1);
    close_fd(z.fd_rd_direct, 1);
    close_fd(z.fd_wr, 1);
    std::memset(&z, 0, sizeof(z));
}

void do_block_chk(dz_block *block, int fix) {
    if (block == nullptr || !valid_disk_id(static_cast<int>(block->disk))) {
        FS_LOG_ERR("NULL ptr\n");
        return;
    }
    const int disk = static_cast<int>(block->disk);
    datazone_ctx &z = zone(disk);
    cluster_bitmap *bm = &z.block_map;
    if (bm->vals == nullptr || !block_id_valid(z.info, block->block_id)) {
        FS_LOG_ERR("null ptr\n");
        return;
    }
    const uint32_t index = block->block_id - z.info.block_start;
    const uint32_t entry = bitmap_val(bm, index);
    const int id = static_cast<int>(block->block_id);

    const uint32_t seq = entry_value(entry);
    if (seq >= 1 && seq <= kUnsetClockSeq) report_unset_clock(block, entry);

    const bool full = bitmap_is_free_empty(&block->clusters) == 1;
    if (full && entry_is_free(entry)) {
        fs_log_file("chk err diskid:%d blockid:%d val:%x free=>busy...\n", disk, id, entry);
        if (fix) {
            fs_log_file("fixed\n");
            if (bitmap_free_del(bm, index) == 0) bitmap_busy_put(bm, index, entry);
        }
    } else if (full && entry_is_err(entry)) {
        fs_log_file("chk err diskid:%d blockid:%d val:%x err=>busy...\n", disk, id, entry);
        if (fix) {
            fs_log_file("fixed\n");
            if (bitmap_err_del(bm, index) == 0) bitmap_busy_put(bm, index, entry);
        }
    } else if (!full && entry_is_busy(entry)) {
        fs_log_file("chk err diskid:%d blockid:%d val:%x busy=>free...\n", disk, id, entry);
        if (fix) {
            fs_log_file("fixed\n");
            if (bitmap_busy_del(bm, index) == 0) bitmap_free_put(bm, index, entry);
        }
    }
    datazone_sync_bm(disk);
}

int datazone_chk(int disk_id, int fix) {
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id\n");
        return -1;
    }
    if (datazone_is_inited(disk_id) != 1) return -1;
    const datazone_info &info = zone(disk_id).info;
    for (uint32_t i = 0; i < info.block_count; ++i) {
        dz_block *b = block_load(disk_id, info.block_start + i);
        if (b == nullptr) return -1;
        do_block_chk(b, fix);
        block_unload(b);
    }
    return 0;
}

int datazone_getinfo(int disk_id, datazone_info *out) {
    if (!check_disk(disk_id)) return -1;
    if (out == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    datazone_ctx &z = zone(disk_id);
    const int64_t total = blockdev_size(disk_id, z.fd_rw);
    z.info.totalsize = total > 0 ? static_cast<uint64_t>(total) : 0;
    z.info.freesize = static_cast<uint64_t>(z.free_count) * kClusterSize;
    std::memcpy(out, &z.info, sizeof(*out));
    return 0;
}

int datazone_dump(int fd, int disk_id) {
    if (fd < 0 || disk_id < 0) return -1;
    if (!check_id(disk_id)) return -1;
    uint32_t seq = 0;
    const int earliest = block_earliest(disk_id, &seq);
    return io_dprintf(fd,
                      "datazone blk_cur:%d, blk_earliest:%d seq:%d free_empty?:%d busy_empty?:%d "
                      "busy_count:%d free_count:%d\n",
                      block_get_current(disk_id), earliest, static_cast<int>(seq),
                      block_is_free_empty(disk_id), block_is_busy_empty(disk_id),
                      datazone_busy_count(disk_id), datazone_free_count(disk_id));
}

int datazone_clear(int disk_id) {
    if (!check_id(disk_id)) return -1;
    std::vector<unsigned char> zero(kClusterSize, 0);
    char path[RECSTORE_PATH_LEN] = {0};
    data_partion(disk_id, path, sizeof(path));
    FdGuard fd(io_calls().open(path, O_RDWR | O_LARGEFILE, kOpenMode));
    if (fd.get() < 0) {
        FS_LOG_ERR("perror\n");
        perror("open");
        FS_LOG_ERR("invalid disk id:%d\n", disk_id);
        return -1;
    }
    const int64_t total = blockdev_size(disk_id, fd.get());
    DzGeometry g{};
    if (total <= 0 || !dz_compute_geometry(static_cast<uint64_t>(total),
                                           get_max_supported_disk_size(disk_id), &g)) {
        FS_LOG_ERR("invalid data partition:%s size:%lld\n", path, static_cast<long long>(total));
        return -1;
    }
    // The cluster maps of every block first, the block map last.
    for (uint32_t c = 1; c <= g.block_count + 1; ++c) {
        const uint32_t cluster = c <= g.block_count ? c : kBlockMapCluster;
        const ssize_t n =
            write_cluster(fd.get(), static_cast<int>(cluster), 0, zero.data(), zero.size());
        if (n != static_cast<ssize_t>(zero.size())) {
            FS_LOG_ERR("clear cluster:%u err:%d\n", cluster, static_cast<int>(n));
            return -1;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Block manager.

dz_block *block_load(int disk_id, uint32_t block_id) {
    if (!check_disk(disk_id)) return nullptr;
    const datazone_ctx &z = zone(disk_id);
    const datazone_info &info = z.info;
    if (!block_id_valid(info, block_id)) {
        FS_LOG_ERR("invalid block id:%d\n", static_cast<int>(block_id));
        return nullptr;
    }
    const uint32_t index = block_id - info.block_start;
    const uint32_t first = index * kClustersPerBlock;
    const uint32_t clusters =
        info.data_count > first + kClustersPerBlock ? kClustersPerBlock : info.data_count - first;
    if (z.fd_rw < 0) {
        FS_LOG_ERR("fd err\n");
        return nullptr;
    }
    auto *b = new (std::nothrow) dz_block{};
    if (b == nullptr) {
        FS_LOG_ERR("malloc\n");
        return nullptr;
    }
    const uint32_t data_start = info.data_start + first;
    if (bitmap_init(&b->clusters, static_cast<int>(clusters), z.fd_rw, block_id) != 0) {
        delete b;
        FS_LOG_ERR("bitmap_init:%d blockstart:%d blockcount:%d datastart:%d datacount:%d\n",
                   static_cast<int>(block_id), static_cast<int>(info.block_start),
                   static_cast<int>(info.block_count), static_cast<int>(data_start),
                   static_cast<int>(clusters));
        return nullptr;
    }
    b->disk = static_cast<uint32_t>(disk_id);
    b->block_id = block_id;
    b->data_start = data_start;
    b->data_count = clusters;
    FS_LOG_INFO("bitmap_init:%d blockstart:%d blockcount:%d datastart:%d datacount:%d\n",
                static_cast<int>(block_id), static_cast<int>(info.block_start),
                static_cast<int>(info.block_count), static_cast<int>(data_start),
                static_cast<int>(clusters));
    return b;
}

void block_unload(dz_block *block) {
    if (block == nullptr) {
        FS_LOG_ERR("NULL ptr\n");
        return;
    }
    FS_LOG_INFO("unload:%d start:%d count:%d\n", static_cast<int>(block->block_id),
                static_cast<int>(block->data_start), static_cast<int>(block->data_count));
    bitmap_exit(&block->clusters);
    delete block;
}

int block_current(int disk_id) {
    if (!check_disk(disk_id) || !check_writable(disk_id, "block_current readonly:%d\n")) return -1;
    datazone_ctx &z = zone(disk_id);
    if (bitmap_is_free_empty(&z.block_map)) {
        FS_LOG_ERR("block is full\n");
        return -1;
    }
    block_entry latest{};
    if (block_ultimate(disk_id, block_filter_halffree_and_not_current, nullptr, 1, &latest, 1) >
        0) {
        return static_cast<int>(latest.block_id);
    }
    for (uint32_t i = 0; i < z.info.block_count; ++i) {
        if (bitmap_is_free(&z.block_map, i)) {
            const int id = static_cast<int>(i + z.info.block_start);
            fs_log_file("find first free block[%d %d]\n", disk_id, id);
            return id;
        }
    }
    return -1;
}

namespace {

// Puts a block whose cluster map cannot be read in error in the block map (in memory at once, and
// written through when the map still takes writes), with one clear line in the event log (which
// also prints it), so that no block change chooses it again.
void set_block_unreadable(int disk_id, uint32_t block_id) {
    datazone_ctx &z = zone(disk_id);
    const uint32_t index = block_id - z.info.block_start;
    const uint32_t value = entry_value(bitmap_val(&z.block_map, index));
    if (bitmap_is_free(&z.block_map, index)) bitmap_free_del(&z.block_map, index);
    const bool written = bitmap_err_put(&z.block_map, index, value) == 0;
    fs_log_file("disk:%d block:%d map cannot be read: block put in error%s\n", disk_id,
                static_cast<int>(block_id), written ? "" : " (in memory only)");
}

}  // namespace

int block_alloc(int disk_id) {
    if (!check_disk(disk_id) || !check_writable(disk_id, "block_alloc readonly:%d\n")) return -1;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block != nullptr) {
        FS_LOG_INFO("must unload block before load a new block\n");
        return static_cast<int>(z.cur_block->block_id);
    }
    if (bitmap_is_free_empty(&z.block_map)) {
        FS_LOG_ERR("block is full\n");
        return -1;
    }
    int id = -1;
    dz_block *b = nullptr;
    while (b == nullptr) {
        id = block_current(disk_id);
        if (id < 0) {
            FS_LOG_ERR("get current error\n");
            return -1;
        }
        b = block_load(disk_id, static_cast<uint32_t>(id));
        if (b == nullptr) {
            FS_LOG_ERR("pcurblock err\n");
            // Otherwise every later change would choose the same block again and fail.
            set_block_unreadable(disk_id, static_cast<uint32_t>(id));
        }
    }
    const uint32_t index = static_cast<uint32_t>(id) - z.info.block_start;
    bitmap_free_del(&z.block_map, index);
    const uint32_t seq = now_seq();
    fs_log_file("put diskid:%d blockid %d to busy,seq:%x\n", disk_id, id, seq);
    if (bitmap_busy_put(&z.block_map, index, seq) != 0) {
        FS_LOG_ERR("put busy disk:%d block:%d err\n", disk_id, id);
        block_unload(b);  // the entry stays off every list until the next start
        return -1;
    }
    b->seq = seq;
    z.cur_block = b;
    fs_log_file("load disk:%d block:%d b:%d f:%d e:%d seq:%x ok\n", disk_id, id,
                static_cast<int>(b->clusters.busy_bits), static_cast<int>(b->clusters.free_bits),
                static_cast<int>(b->clusters.err_bits), seq);
    return id;
}

int block_free(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block == nullptr) {
        FS_LOG_ERR("not loaded:%d\n", disk_id);
        return -1;
    }
    block_unload(z.cur_block);
    z.cur_block = nullptr;
    return 0;
}

int block_get_current(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    const dz_block *cur = zone(disk_id).cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("cur block is not load\n");
        return -1;
    }
    return static_cast<int>(cur->block_id);
}

int block_is_free_empty(int disk_id) {
    if (!check_disk(disk_id)) return 1;
    dz_block *cur = zone(disk_id).cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("cur block is not load\n");
        return 1;
    }
    return bitmap_is_free_empty(&cur->clusters);
}

int block_is_busy_empty(int disk_id) {
    if (!check_disk(disk_id)) return 1;
    dz_block *cur = zone(disk_id).cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("cur block is not load\n");
        return 1;
    }
    return bitmap_is_busy_empty(&cur->clusters);
}

uint32_t block_val(int disk_id, uint32_t block_id) {
    if (!check_disk(disk_id) || !check_writable(disk_id, "block_val readonly:%d\n")) {
        return kNoEntry;
    }
    datazone_ctx &z = zone(disk_id);
    if (!block_id_valid(z.info, block_id)) return kNoEntry;
    return bitmap_val(&z.block_map, block_id - z.info.block_start);
}

int compareblock(const void *a, const void *b) {
    const auto *x = static_cast<const block_entry *>(a);
    const auto *y = static_cast<const block_entry *>(b);
    return static_cast<int32_t>(x->seq - y->seq);
}

int compareblock_r(const void *a, const void *b) {
    return compareblock(b, a);
}

int block_filter_not_allfree_and_not_current(int disk, uint32_t index, void * /*arg*/,
                                             uint32_t /*count*/) {
    const uint32_t entry = block_entry_at(disk, index);
    if (entry_value(entry) == 0 || is_current(disk, index)) return 0;
    if (!entry_is_free(entry)) return 1;
    return block_has_used_clusters(disk, index) ? 1 : 0;
}

int block_filter_halffree_and_not_current(int disk, uint32_t index, void * /*arg*/,
                                          uint32_t /*count*/) {
    const uint32_t entry = block_entry_at(disk, index);
    if (!entry_is_free(entry) || entry_value(entry) == 0 || is_current(disk, index)) return 0;
    return block_has_used_clusters(disk, index) ? 1 : 0;
}

int block_filter_before_and_not_current(int disk, uint32_t index, void *arg, uint32_t /*count*/) {
    if (arg == nullptr) return 0;
    const int64_t t = *static_cast<const int32_t *>(arg);
    const int64_t taken = static_cast<int32_t>(entry_value(block_entry_at(disk, index)) << 2);
    return taken > 0 && taken < t && !is_current(disk, index) ? 1 : 0;
}

int block_ultimate(int disk_id, block_filter filter, void *arg, int latest, block_entry *out,
                   int max) {
    if (!check_disk(disk_id)) return -1;
    const datazone_ctx &z = zone(disk_id);
    if (z.block_map.vals == nullptr) {  // read-only: the block map is not loaded
        FS_LOG_ERR("null ptr\n");
        return -1;
    }
    const datazone_info &info = z.info;
    std::array<block_entry, kMaxBlocks> list{};
    uint32_t n = 0;
    for (uint32_t i = 0; i < info.block_count && n < list.size(); ++i) {
        if (filter != nullptr && filter(disk_id, i, arg, info.block_count) == 0) continue;
        const uint32_t seq = entry_value(block_entry_at(disk_id, i));
        list[n] = block_entry{static_cast<uint32_t>(disk_id), info.block_start + i, seq};
        FS_LOG_INFO("seq:%d diskid:%d,id:%d,time:%x\n", static_cast<int>(n), disk_id,
                    static_cast<int>(i), seq << 2);
        ++n;
    }
    if (n == 0) return 0;
    std::qsort(list.data(), n, sizeof(block_entry), latest ? compareblock_r : compareblock);
    const uint32_t wanted = max > 0 ? static_cast<uint32_t>(max) : 0;
    const uint32_t count = out == nullptr ? 0 : std::min(n, wanted);
    fs_log_file("find %s disk:%d block:%d time:%x count:%d\n", latest ? "latest" : "earliest",
                disk_id, static_cast<int>(list[0].block_id), list[0].seq, static_cast<int>(count));
    for (uint32_t i = 0; i < count; ++i) {
        out[i] = list[i];
        fs_log_file("->disk:%d block:%d time:%x\n", static_cast<int>(list[i].disk),
                    static_cast<int>(list[i].block_id), list[i].seq);
    }
    return static_cast<int>(count);
}

int block_earliest(int disk_id, uint32_t *seq) {
    block_entry e{};
    if (block_ultimate(disk_id, block_filter_not_allfree_and_not_current, nullptr, 0, &e, 1) != 1) {
        return -1;
    }
    if (seq != nullptr) *seq = e.seq;
    return static_cast<int>(e.block_id);
}

int block_before(int disk_id, int32_t time, block_entry *out, int max) {
    const int n = block_ultimate(disk_id, block_filter_before_and_not_current, &time, 0, out, max);
    return n < 0 ? 0 : n;
}

namespace {

bool entry_empty(const block_entry &e) {
    return static_cast<int32_t>(e.disk) < 0 || e.block_id == 0xFFFFFFFFu;
}

block_entry *seq_extreme(block_entry *list, int count, bool latest) {
    if (list == nullptr) return nullptr;
    block_entry *best = nullptr;
    for (int i = 0; i < count; ++i) {
        block_entry *e = &list[i];
        if (entry_empty(*e)) continue;
        if (best == nullptr || (latest ? e->seq > best->seq : e->seq < best->seq)) best = e;
    }
    return best;
}

}  // namespace

block_entry *blk_seq_earliest(block_entry *list, int count) {
    return seq_extreme(list, count, false);
}

block_entry *blk_seq_latest(block_entry *list, int count) {
    return seq_extreme(list, count, true);
}

void block_clear(int disk_id, uint32_t block_id) {
    if (!check_disk(disk_id) || !check_writable(disk_id, "block_clear readonly:%d\n")) return;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block != nullptr && z.cur_block->block_id == block_id) {
        // Its loaded map would no longer match the disk.
        FS_LOG_ERR("block_clear current block:%d\n", static_cast<int>(block_id));
        return;
    }
    dz_block *b = block_load(disk_id, block_id);
    if (b == nullptr) {
        FS_LOG_ERR("load block :%d err\n", static_cast<int>(block_id));
        return;
    }
    cluster_bitmap *m = &b->clusters;
    const uint32_t e0 = m->err_bits, b0 = m->busy_bits, f0 = m->free_bits;
    const uint32_t ze0 = z.err_count, zb0 = z.busy_count, zf0 = z.free_count;
    z.err_count -= e0;
    z.busy_count -= b0;
    z.free_count += e0 + b0;
    bitmap_clear(m);
    fs_log_file(
        "bitmap_clear disk:%d block:%d e:%d=>%d b:%d=>%d f:%d=>%d [e:%d=>%d b:%d=>%d f:%d=>%d]\n",
        disk_id, static_cast<int>(block_id), static_cast<int>(e0), static_cast<int>(m->err_bits),
        static_cast<int>(b0), static_cast<int>(m->busy_bits), static_cast<int>(f0),
        static_cast<int>(m->free_bits), static_cast<int>(ze0), static_cast<int>(z.err_count),
        static_cast<int>(zb0), static_cast<int>(z.busy_count), static_cast<int>(zf0),
        static_cast<int>(z.free_count));
    block_unload(b);

    cluster_bitmap *bm = &z.block_map;
    const uint32_t index = block_id - z.info.block_start;
    const uint32_t entry = bitmap_val(bm, index);
    int taken;
    if (entry_is_busy(entry)) {
        taken = bitmap_busy_del(bm, index);
    } else if (entry_is_free(entry)) {
        taken = bitmap_free_del(bm, index);
    } else {
        taken = bitmap_err_del(bm, index);
    }
    if (taken == 0) bitmap_free_put(bm, index, entry);
    fs_log_file("block_clear disk:%d block:%d %s val:0x%x b:%d f:%d e:%d\n", disk_id,
                static_cast<int>(block_id), state_word(entry), entry,
                static_cast<int>(bm->busy_bits), static_cast<int>(bm->free_bits),
                static_cast<int>(bm->err_bits));

    if (z.free_count < kClustersPerBlock) {
        FS_LOG_PLAIN("fatal error disk:%d free count:%d\n", disk_id,
                     static_cast<int>(z.free_count));
        dump_all_blocks(disk_id);
    }
}

void do_block_dump(dz_block *block) {
    if (g_fs_rdonly || block == nullptr || !valid_disk_id(static_cast<int>(block->disk))) return;
    const int disk = static_cast<int>(block->disk);
    const datazone_info &info = zone(disk).info;
    const uint32_t entry = block_id_valid(info, block->block_id)
                               ? block_entry_at(disk, block->block_id - info.block_start)
                               : kNoEntry;
    const cluster_bitmap &m = block->clusters;
    const char *state = m.free_bits == 0 ? "busy" : m.busy_bits == 0 ? "full free" : "part free";
    fs_log_file("disk:%d block:%d val:0x%x [b:%d f:%d e:%d] %s\n", disk,
                static_cast<int>(block->block_id), entry, static_cast<int>(m.busy_bits),
                static_cast<int>(m.free_bits), static_cast<int>(m.err_bits), state);
}

// ---------------------------------------------------------------------------------------------
// Cluster I/O and accounting.

int datazone_alloc(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    datazone_ctx &z = zone(disk_id);
    dz_block *cur = z.cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("block is not loaded\n");
        return -1;
    }
    if (bitmap_is_free_empty(&cur->clusters)) {
        FS_LOG_ERR("cur block is full\n");
        return -1;
    }
    const int index = bitmap_free_get(&cur->clusters);
    if (index < 0) {
        FS_LOG_ERR("cluster id err\n");
        return -1;
    }
    // The cluster is handed out even when the map write fails: its payload is what matters.
    bitmap_busy_put(&cur->clusters, static_cast<uint32_t>(index), now_seq());
    ++z.busy_count;
    --z.free_count;
    return static_cast<int>(cur->data_start + static_cast<uint32_t>(index));
}

int datazone_free(int disk_id, int cluster_id) {
    if (!check_disk(disk_id)) return -1;
    datazone_ctx &z = zone(disk_id);
    if (!in_data_area(z.info, cluster_id)) {
        FS_LOG_ERR("ivalid clusterid:%d\n", cluster_id);
        return -1;
    }
    dz_block *cur = z.cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("cur block is not loaded\n");
        return -1;
    }
    do_block_dump(cur);
    if (!in_block(*cur, cluster_id)) {
        FS_LOG_ERR("ivalid clusterid:%d\n", cluster_id);
        return -1;
    }
    cluster_bitmap *m = &cur->clusters;
    const uint32_t index = static_cast<uint32_t>(cluster_id) - cur->data_start;
    // A second free of the same cluster would put a node on the free list twice.
    if (bitmap_is_free(m, index)) {
        FS_LOG_ERR("already freed:%d\n", cluster_id);
        return -1;
    }
    // The node leaves the busy list without the list's count changing: the block's busy count
    // keeps counting it until the block is loaded again.
    bitmap_unlink_keep_count(m, index);
    if (bitmap_free_put(m, index, bitmap_val(m, index)) != 0) {
        FS_LOG_ERR("already freed:%d\n", cluster_id);
        return -1;
    }
    --z.busy_count;
    ++z.free_count;
    return 0;
}

uint32_t datazone_val(int disk_id, int cluster_id) {
    if (!check_disk(disk_id)) return kNoEntry;
    datazone_ctx &z = zone(disk_id);
    if (!in_data_area(z.info, cluster_id)) {
        FS_LOG_ERR("ivalid clusterid:%d\n", cluster_id);
        return kNoEntry;
    }
    dz_block *cur = z.cur_block;
    if (cur == nullptr) {
        FS_LOG_ERR("cur block is not loaded\n");
        return kNoEntry;
    }
    if (!in_block(*cur, cluster_id)) {
        FS_LOG_ERR("ivalid clusterid:%d\n", cluster_id);
        return kNoEntry;
    }
    return bitmap_val(&cur->clusters, static_cast<uint32_t>(cluster_id) - cur->data_start);
}

int datazone_read(int disk_id, int cluster_id, void *buf) {
    IoGuard io(disk_id, false);
    if (!check_disk(disk_id)) return -1;
    return read_whole_cluster(zone(disk_id).fd_rd, disk_id, cluster_id, buf);
}

int datazone_read_direct(int disk_id, int cluster_id, void *buf) {
    IoGuard io(disk_id, false);
    if (!check_disk(disk_id)) return -1;
    const int fd = zone(disk_id).fd_rd_direct;
    if (fd < 0) {
        FS_LOG_ERR("not inited to directio:%d\n", disk_id);
        return -1;
    }
    return read_whole_cluster(fd, disk_id, cluster_id, buf);
}

int datazone_write(int disk_id, int cluster_id, const void *buf) {
    IoGuard io(disk_id, false);
    if (!check_disk(disk_id)) return -1;
    const datazone_ctx &z = zone(disk_id);
    if (!in_data_area(z.info, cluster_id)) {
        FS_LOG_PLAIN("fatal error,cluster:%d,start :%d count:%d\n", cluster_id,
                     static_cast<int>(z.info.data_start), static_cast<int>(z.info.data_count));
        return -1;
    }
    const ssize_t n = write_cluster(z.fd_wr, cluster_id, 0, buf, kClusterSize);
    // Part of a cluster is no payload: the caller must not reference the cluster.
    if (n >= 0 && n != static_cast<ssize_t>(kClusterSize)) {
        FS_LOG_ERR("short write cluster:%d %d of %d bytes\n", cluster_id, static_cast<int>(n),
                   static_cast<int>(kClusterSize));
        return -1;
    }
    return static_cast<int>(n);
}

int recstore::datazone_holds_cluster(int disk_id, uint32_t cluster_id) {
    if (!valid_disk_id(disk_id)) return -1;
    IoGuard io(disk_id, false);
    const datazone_ctx &z = zone(disk_id);
    if (z.info.data_count == 0) return -1;
    return cluster_id >= z.info.data_start && cluster_id - z.info.data_start < z.info.data_count;
}

int recstore::datazone_flush_cluster(int disk_id, int cluster_id) {
    IoGuard io(disk_id, false);
    if (!check_disk(disk_id)) return -1;
    const datazone_ctx &z = zone(disk_id);
    if (!in_data_area(z.info, cluster_id)) return -1;
    const off64_t at = static_cast<off64_t>(cluster_id) * kClusterSize;
    constexpr unsigned kWholeRange =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    int r;
    do {
        r = io_calls().sync_file_range(z.fd_wr, at, kClusterSize, kWholeRange);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        FS_LOG_ERR("cluster flush failed:%d\n", cluster_id);
        perror("sync_file_range");
        return -1;
    }
    return 0;
}

namespace {

// Flushes one descriptor of the zone; false (reported) when the flush failed.
bool synced_fd(int fd) {
    if (fd < 0 || io_calls().fsync(fd) == 0) return true;
    perror("fsync");
    return false;
}

}  // namespace

int recstore::datazone_keep_busy(int disk_id, const uint32_t *clusters, size_t n) {
    if (!check_disk(disk_id) || !check_writable(disk_id, "datazone_keep_busy readonly:%d\n"))
        return -1;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block != nullptr) {
        FS_LOG_ERR("disk:%d has a current block\n", disk_id);
        return -1;
    }
    std::vector<uint32_t> sorted(clusters, clusters + n);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    int kept = 0;
    size_t i = 0;
    while (i < sorted.size()) {
        if (!in_data_area(z.info, static_cast<int>(sorted[i]))) {
            ++i;
            continue;
        }
        const uint32_t index = (sorted[i] - z.info.data_start) / kClustersPerBlock;
        dz_block *b = block_load(disk_id, z.info.block_start + index);
        if (b == nullptr) return -1;
        int put = 0;
        for (; i < sorted.size() && in_block(*b, static_cast<int>(sorted[i])); ++i) {
            const uint32_t at = sorted[i] - b->data_start;
            if (bitmap_is_free(&b->clusters, at) != 1) continue;
            if (bitmap_free_del(&b->clusters, at) != 0 ||
                bitmap_busy_put(&b->clusters, at, now_seq()) != 0) {
                block_unload(b);
                return -1;
            }
            ++put;
            ++z.busy_count;
            --z.free_count;
        }
        if (put > 0) {
            fs_log_file(
                "disk:%d block:%d: %d clusters named by index entries were free in the map, "
                "put busy\n",
                disk_id, static_cast<int>(b->block_id), put);
            do_block_chk(b, 1);  // a block the repair filled reads busy again (and flushes)
        }
        block_unload(b);
        kept += put;
    }
    if (kept > 0 && !synced_fd(z.fd_rw)) return -1;
    return kept;
}

int datazone_sync(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    const datazone_ctx &z = zone(disk_id);
    bool synced = synced_fd(z.fd_wr);  // every descriptor is flushed, even after a failure
    synced = synced_fd(z.fd_rd) && synced;
    synced = synced_fd(z.fd_rw) && synced;
    return synced ? 0 : -1;
}

int datazone_sync_bm(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    return synced_fd(zone(disk_id).fd_rw) ? 0 : -1;
}

int recstore::datazone_flush_maps(int disk_id) {
    IoGuard io(disk_id, false);
    if (!check_disk(disk_id)) return -1;
    return synced_fd(zone(disk_id).fd_rw) ? 0 : -1;
}

int datazone_busy_count(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    return static_cast<int>(zone(disk_id).busy_count);
}

int datazone_free_count(int disk_id) {
    if (!check_disk(disk_id)) return -1;
    return static_cast<int>(zone(disk_id).free_count);
}

int datazone_is_free_empty(int disk_id) {
    if (!check_id(disk_id)) return 0;
    if (datazone_is_inited(disk_id) != 1) return 1;
    datazone_ctx &z = zone(disk_id);
    if (z.cur_block != nullptr && bitmap_is_free_empty(&z.cur_block->clusters) == 0) return 0;
    return bitmap_is_free_empty(&z.block_map);
}

int datazone_is_full_prepare(int disk_id, int threshold) {
    if (static_cast<int64_t>(datazone_free_count(disk_id)) <= static_cast<int64_t>(threshold)) {
        return 1;
    }
    return datazone_is_free_empty(disk_id);
}

int fs_datazone_read(int handle, int disk_id, int cluster_id, void *buf) {
    if (handle < 0 || handle >= RECSTORE_STREAMS) {
        FS_LOG_ERR("invalid fd :%d", handle);
        return -1;
    }
    if (buf == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    fs_file_ctx &stream = g_file_ctx[handle];
    if (stream.preload_buf == nullptr || !g_fs_directio) {
        return datazone_read(disk_id, cluster_id, buf);
    }
    const int got = datazone_read_direct(disk_id, cluster_id, stream.preload_buf);
    if (got < 1) return got;
    stream.preload_loaded = cluster_id;
    if (buf != stream.preload_buf) memcpy(buf, stream.preload_buf, static_cast<size_t>(got));
    return got;
}
