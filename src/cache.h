// SPDX-License-Identifier: MIT
// Index cache on tmpfs: internal helpers shared by the cache module, the search and calendar
// scans and the fuzz target. The exported functions are declared in recstore.h.
#ifndef RECSTORE_CACHE_H
#define RECSTORE_CACHE_H

#include <stddef.h>
#include <stdint.h>

#include "recstore.h"

#ifdef __cplusplus
extern "C" {
#endif

// Reads the next whole tag of a cache file. 1 when a tag was read, 0 at the end of the file or
// at a partial tail (fewer than 8 bytes left, which is dropped), -1 on a read error.
int do_cache_read_tag(int fd, uint32_t *lo, uint32_t *hi);

// Appends one tag (8 little-endian bytes, low word first). The number of bytes written, or -1.
int do_cache_write_tag(int fd, uint32_t lo, uint32_t hi);

// Rewrites cachefile through tmpfile, dropping the tags for which pred (when given) returns 0 for
// (tag, t); an empty result is removed. -1 when cachefile does not exist, either file cannot be
// opened, a tag cannot be written (the original is then kept) or the result cannot be read back.
// The caller holds g_cachelock.
int do_cache_rewrite(const char *cachefile, const char *tmpfile, cache_tag_pred pred,
                     const struct tm *t);

// Removes empty directories upward from dir while the path still sorts after root (root itself
// is never removed); stops at the first directory that is not empty.
void do_cache_prune_dirs(const char *dir, const char *root);

#ifdef __cplusplus
}

namespace recstore {

constexpr size_t kCacheTagSize = 8;  // one tag in a cache file
constexpr const char *kCacheRoot = "/mnt/cache/";
constexpr const char *kCacheFileName = "cache";
constexpr const char *kCacheTmpName = "cachetmp";

// Stops the cache loader of device, if one runs, before its next index file, and waits until it
// has left (the disk then stays not loaded). The loader reads the disk's table entry and index
// tree, which plug-out is about to take away. Must be called with no disk mutex held: the loader
// may take one in the file it is reading.
void cache_stop_loader(const char *device);

// The on-file form of a tag: lo in bytes 0-3, hi in bytes 4-7, each little-endian.
void cache_tag_to_bytes(uint32_t lo, uint32_t hi, unsigned char (&out)[kCacheTagSize]);
void cache_tag_from_bytes(const unsigned char (&in)[kCacheTagSize], uint32_t *lo, uint32_t *hi);

// How the loader reads each recording's header and appends its tag: with one read of the index
// file when the header is final, opening the recording only for a header it must repair, and
// through the leaf's cache file held open while the walk stays in that leaf (true, the default);
// or by opening every recording and appending each tag with cache_create (false, the plain load
// that the equivalence test and the rebuild benchmark compare with). The tags, cache files and
// messages are the same either way. Takes effect for loads started afterwards; no lock.
void cache_set_fast_load(bool fast);

}  // namespace recstore
#endif

#endif
