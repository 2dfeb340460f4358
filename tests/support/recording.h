// Helpers of the recording tests on rig disks: constants of a 200 GiB disk's data zone, names of
// a recording's index file, link and cache file, cache-file tags, page-aligned clusters and a
// deterministic payload with key frames.
#ifndef RECSTORE_TEST_RECORDING_H
#define RECSTORE_TEST_RECORDING_H

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fs_tools.h"
#include "recstore.h"
#include "test_util.h"

namespace recording_test {

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint32_t kCluster = RECSTORE_CLUSTER_SIZE;
constexpr uint32_t kNoBlock = 0xFFFFFFFFu;
constexpr int kNoCache = 4;
constexpr int kReadOnly = 1;
constexpr int kDirectIo = 2;
constexpr int kCacheInodes = 4096;
constexpr unsigned kCacheMib = 8;
constexpr uint32_t kFirstData = 257;  // first data cluster of a 200 GiB disk's zone
constexpr uint32_t kBlock1 = 1;       // block ids: the map cluster of the block
constexpr uint32_t kBlock2 = 2;
constexpr uint32_t kBlock3 = 3;
constexpr unsigned kAllLevels = 0xB;

using recstore_test::contains;

inline bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

inline std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline struct tm make_tm(int year, int mon, int day, int hour, int min, int sec) {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    time_t s = timegm(&t);
    gmtime_r(&s, &t);
    return t;
}

inline time_t secs(struct tm t) {
    return timegm(&t);
}

inline rec_param param_of(int channel, const struct tm &start, int type) {
    rec_param p;
    memset(&p, 0, sizeof p);
    to_fs_tm(&start, &p.start);
    p.channel = static_cast<uint32_t>(channel);
    p.type = static_cast<uint32_t>(type);
    return p;
}

inline std::string index_name(int disk, int channel, const struct tm &start, int type) {
    char buf[RECSTORE_PATH_LEN];
    mk_idx_fullname(disk, buf, sizeof buf, channel, &start, type);
    return buf;
}

inline std::string file_name(int channel, const struct tm &start, int type) {
    char buf[RECSTORE_PATH_LEN];
    mk_idx_filename(buf, sizeof buf, channel, &start, type);
    return buf;
}

inline std::string link_name(int disk, uint32_t block, int channel, const struct tm &start,
                             int type) {
    char buf[RECSTORE_PATH_LEN];
    mk_idx_linkname(disk, buf, sizeof buf, static_cast<int>(block),
                    file_name(channel, start, type).c_str());
    return buf;
}

inline std::string cache_file(int disk, int channel, const struct tm &start, int type) {
    char dir[RECSTORE_PATH_LEN];
    char cache[RECSTORE_PATH_LEN];
    mk_idx_fullpath(disk, dir, sizeof dir, channel, &start, type);
    tocachename(cache, sizeof cache, dir);
    return std::string(cache) + "cache";
}

inline std::vector<uint64_t> tags_in(const std::string &path) {
    const std::string bytes = slurp(path);
    std::vector<uint64_t> tags;
    for (size_t at = 0; at + 8 <= bytes.size(); at += 8) {
        tags.push_back(
            recstore::le64_load(reinterpret_cast<const unsigned char *>(bytes.data()) + at));
    }
    return tags;
}

// A page-aligned cluster buffer.
struct Cluster {
    Cluster() {
        void *p = nullptr;
        if (posix_memalign(&p, 4096, kCluster) == 0) mem.reset(static_cast<unsigned char *>(p));
    }
    struct Free {
        void operator()(unsigned char *p) const { free(p); }
    };
    std::unique_ptr<unsigned char, Free> mem;
    unsigned char *data() { return mem.get(); }
};

// Deterministic payload of cluster `n` of stream `s`.
inline void fill_payload(unsigned char *buf, uint32_t s, uint32_t n) {
    uint32_t x = s * 2654435761u + n * 40503u + 1;
    for (uint32_t i = 0; i < kCluster; i += 4) {
        x = x * 1664525u + 1013904223u;
        memcpy(buf + i, &x, 4);
    }
}

// Key frames of cluster n: 1 + n % 3 frames, one second apart from base + n.
inline uint32_t frames_of(uint32_t n, time_t base, kframe *frames) {
    const uint32_t count = 1 + n % 3;
    for (uint32_t i = 0; i < count; i++) {
        frames[i].frame_offset = i * 100000u + n % 512;
        frames[i].frame_time = static_cast<uint32_t>(base + n + i);
    }
    return count;
}

// One index entry of a recording as read back.
struct Entry {
    uint32_t cluster = 0;
    uint32_t length = 0;
    uint32_t frame_count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
};

// Every index entry of a recording, read through a reader stream of the disk layer.
inline std::vector<Entry> entries_of(int disk, int channel, const struct tm &start, int type) {
    std::vector<Entry> out;
    const rec_param p = param_of(channel, start, type);
    const int h = fs_open(disk, &p, 0, 0, 0, nullptr);
    EXPECT_GE(h, 0);
    if (h < 0) return out;
    const int idx = g_file_ctx[h].idx;
    for (;;) {
        Entry e;
        const int r = index_read(idx, &e.cluster, &e.length, e.frames, &e.frame_count, nullptr);
        if (r != index_size()) break;
        out.push_back(e);
    }
    fs_close(h, nullptr);
    return out;
}

}  // namespace recording_test

#endif
