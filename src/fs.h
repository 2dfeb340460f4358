// SPDX-License-Identifier: MIT
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

// Longest time the maps of a disk being recorded to stay behind in the page cache: index entries
// written meanwhile cannot reach the disk before the kernel's write-back expiry (30 s by
// default) unless flushed, and a close flushes the maps first.
constexpr int kMapFlushMillis = 1000;

// Flushes the maps of every open disk whose maps changed since their last flush at least
// kMapFlushMillis ago (datazone_flush_maps: no disk mutex). Called by the daemon after each pass.
void fs_flush_changed_maps();

// How fs_clear deals with what each removed recording leaves behind (the index directories left
// empty, its cache tag): gathered during the walk and done once per index directory afterwards
// (true, the default: one rewrite of each cache file, one upward removal per directory), or after
// each recording as it is removed (false, the plain walk that the equivalence test and the
// recycling benchmark compare with). The index tree, the cache tree and fs_clear's result and
// messages end the same either way. While the gathered walk runs, a search through the cache may
// still list recordings whose index files are already gone (opening one fails, as it does in the
// plain walk's shorter window); the walk holds each removed recording's start in memory until it
// ends (and falls back on the plain handling when memory runs out).
// Takes effect for clears started afterwards; no lock.
void fs_set_clear_gathered(bool gathered);

// Marks every open stream of a disk being taken down (pulled) as having lost its disk: from then
// on every operation on such a stream fails as on a disk not open, even when a disk plugged in
// later gets the same id, and fs_close frees its stream slot and index handle (closing the index
// descriptor without rewriting the header) instead of keeping them. Returns the number of streams
// marked. Takes g_fslock (must not be held). Nothing reaches the disk.
int streams_lose_disk(int disk_id);

// ---- shared by the search and calendar walks over the cache tree and the index partition ----

// Directory levels of the index and cache trees, as the name parsers count the fields they read.
constexpr int kCatLevelDisk = 1;
constexpr int kCatLevelChannel = 2;
constexpr int kCatLevelYear = 3;
constexpr int kCatLevelMonth = 4;
constexpr int kCatLevelDay = 5;
constexpr int kCatLevelType = 6;
constexpr int kCatLevelFile = 7;        // a cache file; for the index tree, the start of a name
constexpr int kCatLevelIndexName = 12;  // an index file name read far enough to name a recording

// The channel bit as the cache walks test it: a one-bit mask built as a 32-bit signed value and
// widened to 64 bits, so channels 32-63 never match and channel 31 matches any bit from 31 up.
uint64_t cache_channel_mask(int channel);
// The exact 64-bit test of the index-partition walks (and of the channel loops).
bool channel_selected(uint64_t chanbits, int channel);

// Verdict on a year, month, day or type directory (levels 3-6) of a walk over [start, end]:
// 1 when it may hold what is wanted, else 2 with the level's message.
int catalogue_dir_verdict(int level, const struct tm &parsed, int type, const struct tm &start,
                          const struct tm &end, int substream);

// The calendar's stop once its day is reported: true (with the message) when found is set.
bool calendar_day_found(const fs_calendar_req &req);
// Reports the day of a calendar walk through the callback: 0 (stop the walk, day found) or 2 when
// the callback did not accept it.
int calendar_report(fs_calendar_req *req, const char *path);

// The search's "reach max count" stop: true (with the message) when the request is full.
bool find_reached_max(const fs_find_req &req);

// The last checks of a search on one recording whose times are known (type, mode when asked,
// start after end, overlap, match rules), then the callback and the count. 2 when the callback
// asked to stop (not counted), else 1.
int find_offer(fs_find_req *req, const fs_find_record &found, const recordinfo &info, int mode,
               bool check_mode);

}  // namespace recstore
#endif

#endif
