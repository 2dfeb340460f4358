// SPDX-License-Identifier: MIT
// The data zone: layout and start-up of a disk's raw data partition, the block manager (current
// block, sequences, earliest blocks, clearing) and whole-cluster payload I/O with the zone-wide
// counters. Exported operations are declared in recstore.h; this header adds the geometry.
#ifndef RECSTORE_DATA_ZONE_H
#define RECSTORE_DATA_ZONE_H

#include <cstdint>

#include "recstore.h"

namespace recstore {

constexpr uint32_t kClusterSize = RECSTORE_CLUSTER_SIZE;             // 512 KiB
constexpr uint32_t kClusterShift = RECSTORE_CLUSTER_SHIFT;           // bytes -> clusters
constexpr uint32_t kClustersPerBlock = RECSTORE_CLUSTERS_PER_BLOCK;  // 64 GiB per block
constexpr uint32_t kBlockShift = 17;                                 // clusters -> blocks
constexpr uint32_t kBlockMapCluster = 0;                             // bm_start
constexpr uint32_t kBlockMapClusters = 1;                            // bm_count
constexpr uint32_t kFirstBlockId = 1;                                // block_start
// Reserved block slots for the largest supported disk (16 TiB): no zone has more blocks.
constexpr uint32_t kMaxBlocks = 256;

static_assert(kClusterSize == 1u << kClusterShift, "cluster size and shift agree");
static_assert(kClustersPerBlock == 1u << kBlockShift, "block size and shift agree");

// Geometry of a data zone, computed from the partition size and the largest supported disk.
struct DzGeometry {
    uint32_t cluster_count;  // whole clusters on the partition
    uint32_t reserved;       // reserved block slots R
    uint32_t block_count;    // whole blocks
    uint32_t data_start;     // 1 + R
    uint32_t data_count;     // block_count << 17
};

// Fills out and returns true, or reports why the partition cannot hold a data zone and returns
// false: a partition of fewer than 1 + R clusters. A partition larger than the supported size
// gets at most R blocks, since block map clusters beyond R would overlap the data area.
bool dz_compute_geometry(uint64_t partition_bytes, uint64_t max_disk_bytes, DzGeometry *out);

// Makes the block and cluster maps durable (fsync of the map descriptor) under the zone's I/O
// lock taken shared, so that it needs no disk mutex and writers keep allocating meanwhile. 0, or
// -1 for a bad id, a zone not open or a failed fsync (reported).
int datazone_flush_maps(int disk_id);

// Whether a cluster id lies in the disk's data area: 1 inside, 0 outside, -1 for a bad id or a
// zone that is not up. Takes the I/O lock shared (datazone_exit clears the geometry under it
// held exclusive); needs no disk mutex.
int datazone_holds_cluster(int disk_id, uint32_t cluster_id);

// Writes one payload cluster's bytes from the page cache to the device and waits until they are
// there (sync_file_range over the cluster on the payload descriptor; with direct I/O nothing is
// cached and the call returns at once). 0, or -1 for a bad id, a zone not open, a cluster
// outside the data area or a failed flush (reported). The device's own volatile cache is not
// flushed. Needs no disk mutex: takes the I/O lock shared.
int datazone_flush_cluster(int disk_id, int cluster_id);

// Puts busy, in the maps on the disk, each of the n listed clusters that its block's map calls
// free (ids outside the data area are skipped), with one line in the event log per block, and
// makes the maps durable when one changed; the zone-wide counts follow. For bring-up, before any
// block is current: the current block's map is in memory and is not touched. The number of
// clusters put busy, or -1 for a bad id, a zone not open, a current block or a map that cannot be
// read or written. The disk's mutex must be held.
int datazone_keep_busy(int disk_id, const uint32_t *clusters, size_t n);

}  // namespace recstore

#endif
