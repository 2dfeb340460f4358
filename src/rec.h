// SPDX-License-Identifier: MIT
// Recording API: the host's interface over all disks (lifecycle, the daemon thread with hot-plug
// and disk rotation, stream handles). Exported functions are in recstore.h; this header adds the
// internal pieces shared with the tests.
#ifndef RECSTORE_REC_H
#define RECSTORE_REC_H

#include "recstore.h"

#ifdef __cplusplus
extern "C" {
#endif

// One disk pass of the daemon: hot-plug, choice of the current disk, disk and block changes under
// the disk-table lock, then recycling and the periodic deletion. Returns 0.
int do_disk_loop(void);
// Recycling of the earliest block over the disks of group 0, when every disk is full.
int rec_overlap(void);
// The earliest block over the disks of group 0 (its disk and stored time), or -1.
int rec_earliest(int *disk, int *time);
// Up to max in-use blocks older than t (seconds) over the disks of group 0, or -1.
int rec_before(int t, block_entry *list, int max);
// Total number of data blocks of the disks of group 0, or -1.
int do_rec_get_max_block_count(void);
// Frees the in-use blocks older than t that have timed out; the candidates examined, or -1.
int do_rec_del_block_before(int t);
// Deletes the blocks and index files older than t (seconds since the epoch). 0.
int do_rec_del_before(int t);
// Makes a find slot ready for a search as rec_find_open does: cursors and counts cleared, in use,
// room for maxcount results. 0, or -1 when the result space cannot be had (the slot stays in use).
int do_rec_find_prepare(rec_find_slot *slot, int maxcount);
// Orders a slot's results by a sort mode of rec_find_open (1 channel, 2 start time, 3 channel then
// start time within each channel's run; anything else keeps the order found).
void do_rec_find_sort(rec_find_slot *slot, int sortmode);

#ifdef __cplusplus
}

namespace recstore {

constexpr int kRecTicksPerPass = 40;            // ticks of get_tick_count between disk passes
constexpr unsigned kRecTurnMicros = 10000;      // the daemon's sleep per turn
constexpr int kRecFullRemain = 16384;           // clusters left below which every disk is full
constexpr int kRecTimeValidAfter = 1577808000;  // 2020-01-01 00:00 at UTC+8
constexpr int kRecMaxChannel = 63;
constexpr int kRecSortByChannel = 1;  // rec_find_open sort modes
constexpr int kRecSortByTime = 2;
constexpr int kRecSortByChannelThenTime = 3;
constexpr int kRecCalendarDays = 31;  // entries of a month view

}  // namespace recstore
#endif

#endif
