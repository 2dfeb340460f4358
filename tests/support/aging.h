// Disk aging for tests, the tool's demo and the benchmarks: writes map entries straight into a
// data partition (an image file or a device node), as if months of recording had happened, so
// that a fill, a change and a recycling of blocks take a handful of real writes.
//
// Layout assumed (that of the data zone): cluster 0 is the block map, entry i at byte 4 * i is
// block id 1 + i; cluster `block_id` is that block's cluster map, entry k at byte 4 * k is data
// cluster k of the block. Entries are little-endian u32: bits 31-30 the state (00 free, 10 busy,
// 11 or 01 error), bits 29-0 the value (a sequence or a time stamp, seconds >> 2).
//
// Age the partition while its data zone is stopped (before datazone_init or after datazone_exit):
// a running zone keeps its maps in memory and would not see the change. Every function returns
// false and says why in *error when it fails; it uses no test framework, so that the tool's demo
// and the benchmarks can age disks too (aging_checks.h has the forms tests assert on).
#ifndef RECSTORE_TEST_AGING_H
#define RECSTORE_TEST_AGING_H

#include <cstdint>
#include <string>

#include "bitmap.h"
#include "recstore.h"

namespace aging {

constexpr uint32_t kClusterBytes = RECSTORE_CLUSTER_SIZE;            // one cluster
constexpr uint32_t kClustersPerBlock = RECSTORE_CLUSTERS_PER_BLOCK;  // entries of a cluster map
constexpr uint32_t kBusy = recstore::kEntryBusyBit;                  // state bits of a busy entry
constexpr uint32_t kError = recstore::kEntryErrBits;  // state bits of an entry in error
constexpr uint32_t kValueMask = recstore::kEntryValueMask;
constexpr uint32_t kStateShift = recstore::kEntryStateShift;  // entry >> kStateShift: the state
// What read_entry gives for an entry it could not read.
constexpr uint32_t kUnreadableEntry = 0xFFFFFFFFu;

// Entry words as the maps hold them.
constexpr uint32_t free_entry(uint32_t value) {
    return recstore::make_free_entry(value);
}
constexpr uint32_t busy_entry(uint32_t value) {
    return recstore::make_busy_entry(value);
}
constexpr uint32_t err_entry(uint32_t value) {
    return recstore::make_err_entry(value);
}

// Creates (or truncates) a sparse file of `bytes` bytes, e.g. a 200 GiB data partition image.
bool make_image(const std::string &path, uint64_t bytes, std::string *error);

// Writes the raw block map entry of block `block_id` (1 for the first block).
bool set_block_entry(const char *data_partition_path, uint32_t block_id, uint32_t entry,
                     std::string *error);

// Writes the raw entry `index` (0..131071) of block `block_id`'s cluster map.
bool set_cluster_entry(const char *data_partition_path, uint32_t block_id, uint32_t index,
                       uint32_t entry, std::string *error);

// Reads one raw map entry into *entry: entry `index` of map cluster `map_cluster` (0 = block
// map). *entry is kUnreadableEntry when it cannot be read.
bool read_entry(const char *data_partition_path, uint32_t map_cluster, uint32_t index,
                uint32_t *entry, std::string *error);

// Ages a whole block with one 512 KiB write: the first 131072 - leave_free clusters busy with
// value `seq` (their allocation stamp), the last leave_free clusters free with value 0, and the
// block's own entry busy with sequence `seq`. leave_free 0 gives a full block; the start-up check
// turns a partly used block's busy entry free, and the block is then resumed before empty ones.
bool fill_block(const char *data_partition_path, uint32_t block_id, uint32_t leave_free,
                uint32_t seq, std::string *error);

}  // namespace aging

#endif
