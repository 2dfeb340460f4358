// Disk management and streams: the disk table, groups and mode flags, the preparation of a disk
// (partitioning, formatting, checking, mounting), recording streams, block changes and deletion.
// Exported functions are in recstore.h.
#ifndef RECSTORE_FS_H
#define RECSTORE_FS_H

#include "recstore.h"

#ifdef __cplusplus
namespace recstore {

// Disks up to this size get an MBR label and an index partition up to 8GB; larger disks get a
// GPT label (MBR cannot address them) and an index partition up to 32GB.
constexpr uint64_t kMbrMaxDiskBytes = 549755813888ull;  // 512 GiB

// How a disk of a given size is partitioned.
struct DiskLayout {
    bool gpt;               // GPT label (else MBR)
    const char *kind;       // "mbr" or "gpt", as printed
    const char *label;      // parted's label name: "msdos" or "gpt"
    const char *index_end;  // end of the index partition and start of the data partition
};

// The layout for a disk of disk_bytes bytes.
DiskLayout disk_layout_for_size(uint64_t disk_bytes);

// True when dev is exactly a whole-disk node "/dev/hd/sd" plus one letter a-h. Only such names
// are ever probed, opened or put into a command line.
bool is_disk_node_name(const char *dev);

// The disk id of dev when dev is a valid whole-disk node name, else -1 (reported as an error).
int checked_disk_id(const char *dev);

}  // namespace recstore
#endif

#endif
