// SPDX-License-Identifier: MIT
// Index files: the handle table, the per-disk magic file, creation and reopening of a
// recording's index file (repairing a header that was never finalised), entries, header
// rewriting, deletion and positioning. Exported functions are in recstore.h; this header adds the
// internal entry points that work on an already open descriptor (used by index_open and by the
// tests, which exercise the format on plain temporary files).
#ifndef RECSTORE_INDEX_H
#define RECSTORE_INDEX_H

#include <time.h>

#include <vector>

#include "recstore.h"

namespace recstore {

// What index_open is asked for, besides the file itself.
struct index_open_args {
    int disk_id = 0;                   // disk of the recording (selects the header layout)
    uint32_t block_id = 0;             // data block the recording is created in
    const struct tm *start = nullptr;  // start of the recording
    int channel = 0;                   // channel number
    int type = 0;                      // record type
    uint16_t attr_a = 0;               // creation attributes, stored verbatim
    uint16_t attr_b = 0;
    uint32_t attr_c = 0;
    int flags = 0;      // open(2) flags; O_CREAT creates
    uint32_t mode = 0;  // attribute word
    uint32_t attr_d = 0;
    const ext_desc *ext = nullptr;  // extension data for a new file, or null
    bool existed = false;           // the file existed before it was opened (creating)
};

// Takes the lowest free slot and gives it a zeroed record. -1 when none is free.
int do_index_take_slot();
// Closes the slot's descriptor, frees its record and extension copy and frees the slot.
void do_index_release(int handle);
// What index_close does before it frees the slot: for a writer, the header rewrite, the file's
// times and the flushes that make the closed recording durable; nothing for a reader. 0, or -1
// (reported) for a bad or free handle. Touches only the handle's own slot and files, so a caller
// may run it without g_fslock (the slot stays taken: only do_index_release, under g_fslock, frees
// it); index_close is index_finish followed by do_index_release.
int index_finish(int handle, const struct tm *end);
// Prepares a taken slot for the open descriptor fd (the slot owns fd from now on): writes the new
// header when creating, else reads the header and repairs it when it was never finalised.
// Returns the handle, or -1 after releasing the slot.
int do_index_setup(int handle, int fd, const index_open_args &args);
// do_index_take_slot followed by do_index_setup; closes fd when no slot is free.
int do_index_attach(int fd, const index_open_args &args);

// How the walks of index_lseek and index_tseek read the entries: in batches of up to 1024
// entries per read (true, the default) or one entry per read (false, the plain walk that the
// equivalence tests and the seek benchmark compare with). Results, positions and messages are
// the same either way; a partial entry, the end of the file and read errors are always met by the
// one-entry read. Takes effect for walks started afterwards; no lock.
void index_set_seek_batched(bool batched);

// Appends to `out` the non-zero cluster named by every whole entry of the index file at `path`
// (a link is followed) that its header does not count. A writer's close, fs_sync and every other
// header flush make the maps durable first, so the clusters of counted entries are busy in the
// maps on the disk; entries past the count may, after a power cut, name clusters whose map words
// never reached the disk (or be a torn tail's garbage: callers use the answer only to keep
// clusters busy). 0, or -1 when the file cannot be opened or read (reported). No lock; no slot.
int index_uncounted_clusters(int disk_id, const char *path, std::vector<uint32_t> *out);

// Reads the header of the index file at `path` of disk `disk_id` without a handle: one open for
// reading, one positioned read of the header, and, when that header is whole and final (start <=
// end, so that opening the recording would take it as it is), the open's own read and decode of
// it (from the page cache), then the close. 1 in that case: *out then holds what index_stat of
// the recording opened for reading would give (extension data aside), and the messages the open's
// read makes (a dropped version-1 alarm word, no or a misaligned extension) have been made, from
// the same place. 0, with nothing reported, when the file cannot be opened or read, holds less
// than a whole header, or its header is not final: the caller opens the recording instead, which
// repairs or reports it. (0 also when a writer changed the header between the two reads; the
// read's messages have then been made once already.) Writes nothing; no lock; no handle slot.
int index_read_header(int disk_id, const char *path, recordinfo *out);

}  // namespace recstore

#endif
