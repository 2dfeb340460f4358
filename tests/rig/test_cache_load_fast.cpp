// SPDX-License-Identifier: MIT
// Rig test of the cache loader's direct header read: on index trees of many random recordings
// (closed ones, ones with an extension area, unfinished headers the loader repairs with or
// without entries, headers and extension areas cut short, empty and stray files), on current and
// version-1 disks, the load that reads final headers directly, appends through held-open cache
// files and walks by the listing's entry types leaves the same cache tree (names and bytes), the
// same index tree (repairs included) and the same messages as the load that opens every recording
// and appends each tag with cache_create; also when the listing cannot type its entries, and
// when another thread replaces a leaf's cache file while the loader holds it open.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cache.h"
#include "capture.h"
#include "fs_tools.h"
#include "index.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

constexpr unsigned kLogAll = 0xB;
constexpr int kRecordings = 600;
constexpr int kLoadWaitMs = 60000;
constexpr const char *kIndexRoot = "/mnt/sda";
constexpr const char *kPristine = "/mnt/sda.pristine";
constexpr const char *kCacheTree = "/mnt/cache/sda";
constexpr int kHeader = 8336;      // current header without extension
constexpr int kExtHeader = 10384;  // with the extension area
constexpr int kV1Header = 896;

// Every file and directory under root, relative name -> contents ("<dir>" for directories).
using Tree = std::map<std::string, std::string>;

Tree snapshot(const std::string &root) {
    Tree tree;
    namespace fs = std::filesystem;
    if (!fs::exists(root)) return tree;
    for (const auto &e : fs::recursive_directory_iterator(root)) {
        const std::string name = e.path().string().substr(root.size());
        if (e.is_symlink()) {
            tree[name] = "<link>" + fs::read_symlink(e.path()).string();
        } else if (e.is_directory()) {
            tree[name] = "<dir>";
        } else {
            std::ifstream in(e.path(), std::ios::binary);
            std::stringstream ss;
            ss << in.rdbuf();
            tree[name] = ss.str();
        }
    }
    return tree;
}

// The only part of a load's messages that may differ between two runs: its duration.
std::string normalised(std::string out) {
    const std::string mark = "cache load finished use:";
    for (size_t at = out.find(mark); at != std::string::npos; at = out.find(mark, at + 1)) {
        const size_t digits = at + mark.size();
        size_t end = digits;
        while (end < out.size() && isdigit(static_cast<unsigned char>(out[end]))) end++;
        out.replace(digits, end - digits, "N");
    }
    return out;
}

struct tm random_start(std::mt19937 &rng) {
    struct tm t = {};
    t.tm_year = 2025 - 1900;
    t.tm_mon = static_cast<int>(rng() % 3);
    t.tm_mday = 1 + static_cast<int>(rng() % 28);
    t.tm_hour = static_cast<int>(rng() % 24);
    t.tm_min = static_cast<int>(rng() % 60);
    t.tm_sec = static_cast<int>(rng() % 60);
    return t;
}

std::string index_name(int channel, const struct tm &start, int type) {
    char name[RECSTORE_PATH_LEN];
    mk_idx_fullname(0, name, sizeof name, channel, &start, type);
    return name;
}

void cut_file(const std::string &name, off_t size) {
    ASSERT_EQ(truncate(name.c_str(), size), 0) << name << ": " << strerror(errno);
}

enum class Kind { closed, with_ext, unfinished, unfinished_empty, short_header, short_ext, empty };

Kind random_kind(std::mt19937 &rng, bool v1) {
    const unsigned r = rng() % 100;
    if (r < 45) return Kind::closed;
    if (r < 60) return v1 ? Kind::closed : Kind::with_ext;
    if (r < 72) return Kind::unfinished;
    if (r < 80) return Kind::unfinished_empty;
    if (r < 90) return Kind::short_header;
    if (r < 95) return v1 ? Kind::short_header : Kind::short_ext;
    return Kind::empty;
}

// Writes one random recording of the given kind.
void write_recording(std::mt19937 &rng, bool v1, Kind kind, int channel, const struct tm &start,
                     int type) {
    const std::string name = index_name(channel, start, type);
    if (kind == Kind::empty) {
        char dir[RECSTORE_PATH_LEN];
        mk_idx_fullpath(0, dir, sizeof dir, channel, &start, type);
        rig::sh(std::string("mkdir -p ") + dir + " && : > " + name);
        return;
    }
    std::vector<uint32_t> ext_words(1 + rng() % 512);
    for (uint32_t &w : ext_words) w = static_cast<uint32_t>(rng());
    ext_desc ext = {static_cast<uint32_t>(rng()), static_cast<int32_t>(ext_words.size() * 4),
                    ext_words.data()};
    const bool with_ext = kind == Kind::with_ext || kind == Kind::short_ext;
    const int h = index_open(0, 7, &start, channel, type, 1, 2, 3, O_CREAT | O_RDWR,
                             static_cast<uint32_t>(rng() % 0x200), 4, with_ext ? &ext : nullptr);
    ASSERT_GE(h, 0) << name;
    const int entries = kind == Kind::unfinished_empty ? 0 : static_cast<int>(rng() % 6);
    struct tm s = start;
    const uint32_t first = static_cast<uint32_t>(timegm(&s));
    for (int i = 0; i < entries; i++) {
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = 1 + rng() % 3;
        for (uint32_t f = 0; f < count; f++) frames[f] = kframe{f * 4096, first + 10 * i + f};
        ASSERT_GE(index_write(h, 300 + static_cast<uint32_t>(i), 524288, frames, count), 0);
    }
    if (kind == Kind::unfinished || kind == Kind::unfinished_empty) {
        // The writer went away without finalising the header.
        recstore::do_index_release(h);
        return;
    }
    struct tm end;
    tm_offset_sec(&start, static_cast<int>(rng() % 7200), &end);
    index_close(h, &end);
    if (kind == Kind::short_header) {
        const int header = v1 ? kV1Header : kHeader;
        cut_file(name, static_cast<off_t>(rng() % static_cast<unsigned>(header)));
    } else if (kind == Kind::short_ext) {
        cut_file(name, kHeader + static_cast<off_t>(rng() % (kExtHeader - kHeader)));
    }
}

// Opens of files under the index root for writing and for reading only, counted at the seam.
std::atomic<int> g_rw_opens{0};
std::atomic<int> g_ro_opens{0};
int counting_open(const char *path, int flags, mode_t mode) {
    if (strncmp(path, "/mnt/sda/", 9) == 0) {
        ((flags & O_ACCMODE) == O_RDONLY ? g_ro_opens : g_rw_opens)++;
    }
    return recstore::io_default::open(path, flags, mode);
}

// A listing that cannot type its entries, as on a file system without entry types.
struct dirent64 *untyped_readdir(DIR *dir) {
    struct dirent64 *e = ::readdir64(dir);
    if (e != nullptr) e->d_type = DT_UNKNOWN;
    return e;
}

struct LoadResult {
    Tree cache;
    Tree index;
    std::string messages;
    int rw_opens = 0;
    int ro_opens = 0;
};

bool wait_loaded() {
    for (int waited = 0; waited < kLoadWaitMs; waited += 10) {
        if (cache_is_loaded(0)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Loads the disk's cache from a fresh copy of the pristine index tree.
LoadResult load(bool fast, bool untyped = false) {
    LoadResult r;
    rig::sh(std::string("rm -rf ") + kIndexRoot + " && cp -a " + kPristine + " " + kIndexRoot);
    recstore::cache_set_fast_load(fast);
    cache_set_loaded(0, 0);
    g_rw_opens = 0;
    g_ro_opens = 0;
    {
        recstore::IoOverride<int(const char *, int, mode_t)> count(recstore::io_calls().open,
                                                                   counting_open);
        recstore::IoOverride<struct dirent64 *(DIR *)> types(
            recstore::io_calls().readdir64, untyped ? untyped_readdir : ::readdir64);
        LogMask mask(kLogAll);
        StdoutCapture cap;
        EXPECT_EQ(cache_load("/dev/hd/sda"), 0);
        const bool loaded = wait_loaded();
        r.messages = normalised(cap.stop());
        EXPECT_TRUE(loaded) << "the loader did not finish in time";
    }
    recstore::cache_set_fast_load(true);
    r.rw_opens = g_rw_opens;
    r.ro_opens = g_ro_opens;
    r.cache = snapshot(kCacheTree);
    r.index = snapshot(kIndexRoot);
    return r;
}

void expect_same_trees(const Tree &fast, const Tree &plain, const char *what) {
    EXPECT_EQ(fast.size(), plain.size()) << what;
    for (const auto &[name, bytes] : plain) {
        auto it = fast.find(name);
        if (it == fast.end()) {
            ADD_FAILURE() << what << ": only the plain load has " << name;
            continue;
        }
        EXPECT_TRUE(it->second == bytes) << what << ": " << name << " differs";
    }
    for (const auto &[name, bytes] : fast) {
        if (plain.count(name) == 0) ADD_FAILURE() << what << ": only the fast load has " << name;
    }
}

// Makes disk 0 a current or a version-1 disk.
void write_magic(bool v1) {
    if (v1) {
        const uint8_t magic[4] = {0x13, 0x10, 0x10, 0x10};
        std::ofstream(std::string(kIndexRoot) + "/magic", std::ios::binary)
            .write(reinterpret_cast<const char *>(magic), 4);
        g_magic[0] = RECSTORE_MAGIC_V1;
    } else {
        ASSERT_EQ(index_write_magic(0), 0);
        g_magic[0] = RECSTORE_MAGIC_V7;
    }
}

class CacheLoadFast : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run this test through tests/rig/rig-run";
        StdoutCapture cap;
        ASSERT_EQ(fs_init(100000, 16, 0), 0) << cap.stop();
        ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
        cap.stop();
        ASSERT_EQ(mkdir(kIndexRoot, 0755), 0);
    }
    void TearDown() override {
        recstore::cache_set_fast_load(true);
        StdoutCapture cap;
        fs_exit();
        cap.stop();
        rig::run(std::string("rm -rf /mnt/cache ") + kIndexRoot + " " + kPristine);
        for (unsigned i = 0; i < RECSTORE_MAX_DISKS; i++) g_cache_loaded[i] = 0;
        for (auto &d : g_disk) d.devname[0] = '\0';
    }
};

}  // namespace

TEST_P(CacheLoadFast, SameCacheIndexTreeAndMessagesAsOpeningEveryRecording) {
    const bool v1 = GetParam();
    write_magic(v1);
    std::mt19937 rng(v1 ? 1234u : 4321u);
    std::set<std::string> used;
    std::map<Kind, int> made;
    {
        StdoutCapture quiet;
        for (int i = 0; i < kRecordings; i++) {
            const int channel = static_cast<int>(rng() % RECSTORE_MAX_CHANNELS);
            const int type = static_cast<int>(rng() % 4);
            const struct tm start = random_start(rng);
            if (!used.insert(index_name(channel, start, type)).second) continue;
            const Kind kind = random_kind(rng, v1);
            write_recording(rng, v1, kind, channel, start, type);
            made[kind]++;
        }
        // Strays the loader passes over: a file not named like a recording and the link tree.
        rig::sh("mkdir -p /mnt/sda/03/2025/01/02/00 && : > /mnt/sda/03/2025/01/02/00/notes");
        rig::sh("mkdir -p /mnt/sda/link/00000007");
        quiet.stop();
    }
    ASSERT_FALSE(HasFailure());
    EXPECT_GT(made[Kind::unfinished], 0);
    EXPECT_GT(made[Kind::short_header], 0);
    if (!v1) {
        EXPECT_GT(made[Kind::with_ext], 0);
    }
    rig::sh(std::string("cp -a ") + kIndexRoot + " " + kPristine);

    const LoadResult fast = load(true);
    const LoadResult plain = load(false);
    const LoadResult untyped = load(true, true);

    EXPECT_GT(plain.cache.size(), static_cast<size_t>(kRecordings / 20));
    expect_same_trees(fast.cache, plain.cache, "cache tree");
    expect_same_trees(fast.index, plain.index, "index tree");
    EXPECT_EQ(fast.messages, plain.messages);
    // Directories the listing does not type are walked all the same.
    expect_same_trees(untyped.cache, plain.cache, "cache tree, untyped listing");
    expect_same_trees(untyped.index, plain.index, "index tree, untyped listing");
    EXPECT_EQ(untyped.messages, plain.messages);
    EXPECT_TRUE(recstore_test::contains(plain.messages, "cache load finished use:N sec"));
    // The fast load opened for writing only the recordings whose header it could not take as
    // it is; the plain one opened every recording so.
    EXPECT_GT(plain.rw_opens, kRecordings * 9 / 10);
    EXPECT_LT(fast.rw_opens, plain.rw_opens / 2);
    EXPECT_GT(fast.ro_opens, kRecordings / 2);
}

namespace {

// Replaces the cache file a descriptor names by a copy, as a rewrite by another thread does (the
// old file removed, the copy renamed into its place), on the `g_replace_at`th status call of a
// cache file through the seam.
std::atomic<int> g_cache_fstats{0};
int g_replace_at = 0;

std::string fd_target(int fd) {
    char link[64], target[RECSTORE_PATH_LEN] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

int replacing_fstat(int fd, struct stat64 *st) {
    const std::string file = fd_target(fd);
    if (file.size() > 6 && file.compare(file.size() - 6, 6, "/cache") == 0 &&
        ++g_cache_fstats == g_replace_at) {
        rig::sh("cp " + file + " " + file + ".copy && rm " + file + " && mv " + file + ".copy " +
                file);
    }
    return ::fstat64(fd, st);
}

}  // namespace

TEST_P(CacheLoadFast, LeafFileReplacedDuringTheLoadKeepsEveryTag) {
    const bool v1 = GetParam();
    write_magic(v1);
    std::mt19937 rng(99);
    {
        StdoutCapture quiet;
        // One leaf: channel 5, one day, type 0.
        for (int i = 0; i < 20; i++) {
            struct tm start = {};
            start.tm_year = 2025 - 1900;
            start.tm_mon = 4;
            start.tm_mday = 9;
            start.tm_hour = i;
            start.tm_min = 3;
            write_recording(rng, v1, Kind::closed, 5, start, 0);
        }
        quiet.stop();
    }
    ASSERT_FALSE(HasFailure());
    rig::sh(std::string("cp -a ") + kIndexRoot + " " + kPristine);
    const LoadResult plain = load(false);
    ASSERT_EQ(plain.cache.count("/05/2025/05/09/00/cache"), 1u);
    EXPECT_EQ(plain.cache.at("/05/2025/05/09/00/cache").size(), 20u * 8);
    // Status call 1 is the append after opening the file; from 2 on each is the test whether the
    // held file is still the leaf's, made after another thread may have had g_cachelock.
    for (int at : {2, 7}) {
        g_cache_fstats = 0;
        g_replace_at = at;
        LoadResult fast;
        {
            recstore::IoOverride<int(int, struct stat64 *)> replace(recstore::io_calls().fstat64,
                                                                    replacing_fstat);
            fast = load(true);
        }
        EXPECT_GE(g_cache_fstats.load(), at) << "the file was never replaced";
        expect_same_trees(fast.cache, plain.cache, "cache tree");
        EXPECT_EQ(fast.messages, plain.messages);
    }
}

INSTANTIATE_TEST_SUITE_P(Versions, CacheLoadFast, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &p) {
                             return p.param ? std::string("Version1") : std::string("Current");
                         });
