// SPDX-License-Identifier: MIT
// Read-only views of a disk for the inspect and check commands: the raw data partition's maps
// (read with pread at the partition's offset, from a device or from a disk image), the
// partition table of an image, and the index tree of a mounted index partition.
#ifndef RECSTORE_TOOL_DISK_VIEW_H
#define RECSTORE_TOOL_DISK_VIEW_H

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "recstore.h"

namespace tool {

// One partition of a disk image: where it lies in the image.
struct PartitionSpan {
    uint64_t offset = 0;  // bytes from the start of the image
    uint64_t bytes = 0;   // length
};

// Reads an MBR or GPT partition table from a whole-disk image (512-byte sectors). kind is
// "mbr" or "gpt". False with *error when there is none or it is malformed.
bool read_partition_table(int fd, uint64_t image_bytes, std::vector<PartitionSpan> *parts,
                          std::string *kind, std::string *error);

// The maps of a data zone as they are on the partition.
struct ZoneMaps {
    uint64_t partition_bytes = 0;                     // size of the data partition
    uint32_t cluster_count = 0;                       // whole clusters on it
    uint32_t block_count = 0;                         // whole 64 GiB blocks
    uint32_t data_start = 0;                          // first data cluster
    std::vector<uint32_t> block_map;                  // entry per block (block id 1 first)
    std::vector<std::vector<uint32_t>> cluster_maps;  // per block, entry per cluster

    // Block id (1..block_count) of a data cluster, 0 outside the data area.
    uint32_t block_of(uint32_t cluster) const;
    // First data cluster of a block id.
    uint32_t first_cluster(uint32_t block_id) const;
};

// Per-block counts of a cluster map.
struct BlockCounts {
    uint32_t busy = 0;
    uint32_t free = 0;
    uint32_t error = 0;
    uint32_t newest = 0;  // largest busy value (allocation stamp, seconds >> 2)
};
BlockCounts count_block(const std::vector<uint32_t> &map);

// Loads the maps of a data partition at `offset` (bytes) in the open file or device fd, whose
// length is `bytes`. The number of reserved block slots follows the largest disk the format
// supports, from the magic value of the disk's index partition (see known_magic). Only reads.
// False with *error when it cannot hold a data zone or a read fails.
bool load_zone_maps(int fd, uint64_t offset, uint64_t bytes, uint32_t magic, ZoneMaps *out,
                    std::string *error);

// The magic value itself when it names a format, else the current format's (0: not read).
uint32_t known_magic(uint32_t magic);

// Reads the magic value of an index root's magic file; 0 when there is none.
uint32_t read_magic(const std::string &root);

// Map entry states as shown to people.
const char *entry_state_name(uint32_t entry);
// An allocation stamp (seconds >> 2) as a date; "-" for 0.
std::string stamp_date(uint32_t value);

// One recording's index file as read from the index tree.
struct Recording {
    std::string path;      // full path of the index file
    std::string relative;  // path below the index root: CC/YYYY/MM/DD/TT/name
    std::string name;      // file name
    int channel = 0;
    struct tm start = {};
    int type = 0;
    bool header_ok = false;            // the header could be read
    recordinfo info = {};              // the header
    uint64_t file_bytes = 0;           // size of the index file
    uint32_t header_bytes = 0;         // header size
    std::vector<index_entry> entries;  // every whole entry of the file
    uint32_t partial_tail = 0;         // bytes of a partial entry at the end
    uint64_t zero_tail = 0;  // bytes from the first all-zero entry on (a power cut's torn end)
    std::vector<uint32_t> link_blocks;  // blocks whose link directory links to this file
};

// One link under link/BBBBBBBB/.
struct LinkInfo {
    std::string path;      // the link itself
    uint32_t block = 0;    // block of its directory
    bool name_ok = false;  // the name is a recording's file name
    std::string target;    // what it points to ("" when it is no symbolic link)
    bool resolves = false;
    int recording = -1;  // index into IndexTree::recordings, -1 when none
};

// What the index partition holds.
struct IndexTree {
    std::string root;
    uint32_t magic = 0;  // the magic file's value, 0 when missing
    std::vector<Recording> recordings;
    std::vector<LinkInfo> links;
    std::vector<std::string> strays;  // files that are no index file, no link, no magic
};

// Walks an index root (mounted index partition). disk_id selects the header layout together
// with the magic value. Only reads. False with *error when the root cannot be read.
bool load_index_tree(const std::string &root, int disk_id, IndexTree *out, std::string *error);

// The index partition mounted while the object lives: uses an existing mount at `dir`, or mounts
// `device` there (read-only unless writable) and unmounts it again at the end.
class IndexMount {
  public:
    IndexMount() = default;
    ~IndexMount();
    IndexMount(const IndexMount &) = delete;
    IndexMount &operator=(const IndexMount &) = delete;
    bool open(const std::string &device, const std::string &dir, bool writable, std::string *error);
    bool mounted_here() const { return mounted_; }

  private:
    std::string dir_;
    bool mounted_ = false;
    bool made_dir_ = false;
};

// A read-only loop device over part of an image (root only); detached at the end.
class LoopView {
  public:
    LoopView() = default;
    ~LoopView();
    LoopView(const LoopView &) = delete;
    LoopView &operator=(const LoopView &) = delete;
    bool open(const std::string &image, uint64_t offset, uint64_t bytes, std::string *error);
    const std::string &device() const { return device_; }

  private:
    std::string device_;
};

}  // namespace tool

#endif
