// SPDX-License-Identifier: MIT
// Cluster bitmaps: the in-memory form of one on-disk map cluster (the block map or a block's
// cluster map) with a free, a busy and an error list, written through to the disk 4 bytes at a
// time (a clear in one read and one write). The exported operations are declared in recstore.h;
// this header adds the entry format.
#ifndef RECSTORE_BITMAP_H
#define RECSTORE_BITMAP_H

#include <cstdint>

#include "recstore.h"

namespace recstore {

// Map entry layout: bits 31-30 state, bits 29-0 value.
constexpr uint32_t kEntryValueMask = 0x3FFFFFFFu;
constexpr uint32_t kEntryBusyBit = 0x80000000u;     // state 10
constexpr uint32_t kEntryErrBits = 0xC0000000u;     // state 11, as written by bitmap_err_put
constexpr uint32_t kEntryErrTestBit = 0x40000000u;  // bit 30: error (01 or 11)
constexpr uint32_t kEntryStateShift = 30;
constexpr uint32_t kEntryBytes = 4;
// Entries of one map cluster: a map never spans more than its own cluster.
constexpr uint32_t kMaxMapEntries = RECSTORE_CLUSTER_SIZE / kEntryBytes;

// Poison written into the links of a node taken off its list.
constexpr uintptr_t kListPoisonNext = 0x100100u;
constexpr uintptr_t kListPoisonPrev = 0x200200u;

enum class EntryState : uint32_t { Free = 0, ErrorLow = 1, Busy = 2, Error = 3 };

constexpr EntryState entry_state(uint32_t entry) {
    return static_cast<EntryState>(entry >> kEntryStateShift);
}
constexpr uint32_t entry_value(uint32_t entry) {
    return entry & kEntryValueMask;
}
constexpr bool entry_is_free(uint32_t entry) {
    return entry < kEntryErrTestBit;
}
constexpr bool entry_is_busy(uint32_t entry) {
    return entry_state(entry) == EntryState::Busy;
}
constexpr bool entry_is_err(uint32_t entry) {
    return (entry & kEntryErrTestBit) != 0;
}
constexpr uint32_t make_free_entry(uint32_t value) {
    return value & kEntryValueMask;
}
constexpr uint32_t make_busy_entry(uint32_t value) {
    return (value & kEntryValueMask) | kEntryBusyBit;
}
constexpr uint32_t make_err_entry(uint32_t value) {
    return value | kEntryErrBits;
}

// Takes entry id's node off whatever list holds it without touching any count; false when the
// node is on no list. Used where an entry changes state without the list bookkeeping (a single
// cluster freed in the current block), so that the lists stay well formed.
bool bitmap_unlink_keep_count(cluster_bitmap *bm, uint32_t id);

// How bitmap_clear writes the map: the stretch from the first to the last entry it frees with one
// read and one write (true, the default; the entries between keep the bytes read), or each freed
// entry with a 4-byte write of its own (false, the plain clear that the equivalence test and the
// recycling benchmark compare with). The map on the disk, the values, the lists (order included),
// the counts and the messages end the same either way; when the one write fails nothing has changed
// yet and the clear is done entry by entry, so that an entry whose write fails ends as in the plain
// clear. Takes effect for clears started afterwards; no lock.
void bitmap_set_clear_batched(bool batched);

}  // namespace recstore

#endif
