// SPDX-License-Identifier: MIT
// Fuzz target: arbitrary bytes as a cache file. The first byte chooses the rewrite's predicate
// (none, same start second, start before a time of day) and the next three the time of day; the
// rest is the file, written into a leaf directory sda/03/2024/05/17/00/ of a scratch cache tree
// under /tmp. The rewrite through "cachetmp" must keep exactly the whole tags the predicate keeps,
// in their order, drop a partial tail, remove an empty result and leave no "cachetmp"; removing
// empty directories must stop at the disk's root. Every kept tag is decoded back into a record.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "cache.h"
#include "recstore.h"

namespace {

constexpr size_t kHeader = 4;  // predicate selector and three bytes of time of day
constexpr const char *kDecodeName = "/mnt/cache/sda/03/2024/05/17/00/cache";  // parsed only

struct Tree {
    std::string base, root, leaf, file, tmp;
};

// Made once and never destroyed, so that the clean-up at exit can still read it.
const Tree &tree() {
    static const Tree *t = [] {
        Tree *made = new Tree();
        char tmpl[] = "/tmp/fuzz_cache_file-XXXXXX";
        if (!mkdtemp(tmpl)) abort();
        made->base = tmpl;
        made->root = made->base + "/sda/";
        made->leaf = made->root + "03/2024/05/17/00/";
        made->file = made->leaf + "cache";
        made->tmp = made->leaf + "cachetmp";
        return made;
    }();
    static const bool cleanup = atexit([] { remove_file(tree().base.c_str(), 7); }) == 0;
    (void)cleanup;
    return *t;
}

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<uint8_t> read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void decode(uint32_t lo, uint32_t hi) {
    int disk = -1, channel = -1, type = -1, mode = -1;
    unsigned bytes = 1;
    struct tm start = {}, end = {};
    if (cachetag_to_record(kDecodeName, 0, lo, hi, &disk, &channel, &start, &end, &type, &mode,
                           &bytes) != 0) {
        abort();
    }
    if (disk != 0 || channel != 3 || type != 0) abort();
    if (mode < 0 || mode > 0xFF || (bytes & 0xFFFFu) != 0) abort();
    if (tm_cmp(&start, &end) > 0) abort();  // durations are never negative
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    loglevel = 0;  // keep the fuzzer's output readable
    modulemask = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < kHeader) return 0;
    const Tree &t = tree();
    cache_tag_pred preds[] = {nullptr, match_cachetag, before_cachetag};
    cache_tag_pred pred = preds[data[0] % 3];
    uint32_t day_sec = (data[1] | data[2] << 8 | static_cast<uint32_t>(data[3]) << 16) % 90000;
    struct tm when = {};
    when.tm_year = 124;
    when.tm_mon = 4;
    when.tm_mday = 17;
    when.tm_hour = static_cast<int>(day_sec / 3600);
    when.tm_min = static_cast<int>(day_sec / 60 % 60);
    when.tm_sec = static_cast<int>(day_sec % 60);
    data += kHeader;
    size -= kHeader;

    char leaf[RECSTORE_PATH_LEN];
    snprintf(leaf, sizeof leaf, "%s", t.leaf.c_str());
    mkdir_recursive(leaf);
    {
        std::ofstream out(t.file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    }

    // What the rewrite must keep: the whole tags the predicate does not drop.
    std::vector<uint8_t> expected;
    for (size_t at = 0; at + recstore::kCacheTagSize <= size; at += recstore::kCacheTagSize) {
        unsigned char bytes[recstore::kCacheTagSize];
        memcpy(bytes, data + at, sizeof bytes);
        uint32_t lo = 0, hi = 0;
        recstore::cache_tag_from_bytes(bytes, &lo, &hi);
        if (pred && pred(lo, hi, &when) == 0) continue;
        expected.insert(expected.end(), bytes, bytes + sizeof bytes);
        decode(lo, hi);
    }

    if (do_cache_rewrite(t.file.c_str(), t.tmp.c_str(), pred, &when) != 0) abort();
    if (exists(t.tmp)) abort();
    if (expected.empty()) {
        if (exists(t.file)) abort();
    } else if (read_all(t.file) != expected) {
        abort();
    }

    do_cache_prune_dirs(t.leaf.c_str(), t.root.c_str());
    if (!exists(t.root)) abort();
    if (exists(t.leaf) == expected.empty()) abort();  // only an empty leaf goes
    return 0;
}
