// SPDX-License-Identifier: MIT
// Clearing a block with the gathered walk (empty directories and cache tags dealt with once per
// index directory after the walk) against the plain walk (after each recording): on random
// layouts of recordings over channels, days, types and two blocks (so that some index
// directories and cache files keep recordings of the other block) both leave the same index
// tree, the same cache tree with the same tags, the same maps and counts, the same result and
// messages; also when removing some index files fails.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "formatted_disks.h"
#include "fs.h"
#include "fs_tools.h"
#include "recording.h"
#include "recstore.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kLayouts = 6;

// One recording of a layout.
struct Planned {
    int channel;
    struct tm start;
    int type;
    uint32_t clusters;
    bool second_block;
};

// Recordings over 6 channels, 3 days, 2 types; a third of them go to the second block, often
// into an index directory that the first block's recordings share.
std::vector<Planned> layout(unsigned seed) {
    std::mt19937 rng(seed);
    std::set<std::string> names;
    std::vector<Planned> out;
    const int n = 40 + static_cast<int>(rng() % 80);
    for (int i = 0; i < n; i++) {
        Planned p{};
        p.channel = static_cast<int>(rng() % 6);
        p.start = make_tm(2024, 5, 15 + static_cast<int>(rng() % 3), static_cast<int>(rng() % 24),
                          static_cast<int>(rng() % 60), static_cast<int>(rng() % 60));
        p.type = static_cast<int>(rng() % 2);
        p.clusters = rng() % 4 == 0 ? 1 : 0;
        p.second_block = rng() % 3 == 0;
        if (!names.insert(file_name(p.channel, p.start, p.type)).second) continue;
        out.push_back(p);
    }
    // The second block's recordings are made after the first block's.
    std::stable_partition(out.begin(), out.end(), [](const Planned &p) { return !p.second_block; });
    return out;
}

// Every path below `root` (directories marked with a trailing '/'), with the tags of cache files.
void snapshot(const std::string &root, const std::string &rel,
              std::map<std::string, std::string> *out) {
    DIR *d = opendir((root + rel).c_str());
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    for (const std::string &name : names) {
        const std::string path = rel + "/" + name;
        struct stat st;
        if (lstat((root + path).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            (*out)[path + "/"] = "";
            snapshot(root, path, out);
        } else if (name == "cache") {
            (*out)[path] = slurp(root + path);
        } else {
            (*out)[path] = S_ISLNK(st.st_mode) ? "link" : "file";
        }
    }
}

// The messages without what depends on the wall clock: the time stamps of the log lines and the
// block's sequence (taken from the clock when the block was started).
std::string timeless(const std::string &messages) {
    std::string out;
    for (size_t i = 0; i < messages.size();) {
        // "[mm/dd/yy hh:mm:ss]": 19 characters with '/' ' ' ':' where a log line's stamp has them.
        static const char kShape[] = "[00/00/00 00:00:00]";
        const size_t stamp = sizeof kShape - 1;
        bool is_stamp = i + stamp <= messages.size();
        for (size_t k = 0; is_stamp && k < stamp; k++) {
            const char c = messages[i + k];
            is_stamp =
                kShape[k] == '0' ? isdigit(static_cast<unsigned char>(c)) != 0 : c == kShape[k];
        }
        if (is_stamp) {
            out += "[time]";
            i += stamp;
            continue;
        }
        if (messages.compare(i, 6, "val:0x") == 0) {
            out += "val:seq";
            i += 6;
            while (i < messages.size() && isxdigit(static_cast<unsigned char>(messages[i]))) i++;
            continue;
        }
        out += messages[i++];
    }
    return out;
}

// What a clear leaves behind.
struct Outcome {
    int result = 0;
    std::string messages;
    std::map<std::string, std::string> index_tree, cache_tree;
    int free_count = 0, busy_count = 0;
    uint32_t block_state = 0;
    std::vector<unsigned char> cluster_map;
};

// Removals of index files whose name holds this text fail with EIO (empty: none fails).
std::string g_failing;
int (*g_real_remove)(const char *) = nullptr;

int faulty_remove(const char *path) {
    if (!g_failing.empty() && strstr(path, g_failing.c_str()) != nullptr &&
        strstr(path, "/link/") == nullptr) {
        errno = EIO;
        return -1;
    }
    return g_real_remove(path);
}

class RecycleGathered : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        recstore::fs_set_clear_gathered(true);
        LogMask quiet(0, 0);
        take_down(0);
        fs_exit();
    }

    void record(const Planned &p) {
        rec_param param = param_of(p.channel, p.start, p.type);
        const int h = fs_open(0, &param, O_CREAT | O_RDWR, 0x21, 0, nullptr);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < p.clusters; n++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(p.channel), n);
            kframe frames[RECSTORE_MAX_KFRAMES];
            const uint32_t count = frames_of(n, secs(p.start), frames);
            ASSERT_EQ(fs_write(h, buf_.data(), kCluster, frames, count), int(kCluster));
        }
        struct tm end;
        const time_t e = secs(p.start) + 60;
        gmtime_r(&e, &end);
        fs_close(h, &end);
    }

    // Makes the layout on a fresh disk and clears the first block one way or the other.
    Outcome run(const std::vector<Planned> &plan, bool gathered, const std::string &failing) {
        Outcome o;
        {
            LogMask quiet(0, 0);
            EXPECT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
            bring_up(0, true);
            EXPECT_EQ(fs_changeblock(0, 0, 0), 0);
            EXPECT_EQ(fs_getblockid(0), static_cast<int>(kBlock1));
            bool moved = false;
            for (const Planned &p : plan) {
                if (p.second_block && !moved) {
                    EXPECT_EQ(fs_changeblock(0, 0, 1), 0);
                    moved = true;
                }
                record(p);
            }
            if (!moved) {
                EXPECT_EQ(fs_changeblock(0, 0, 1), 0);
            }
        }
        recstore::fs_set_clear_gathered(gathered);
        g_failing = failing;
        g_real_remove = recstore::io_calls().remove.get();
        {
            recstore::IoOverride<int(const char *)> faults(recstore::io_calls().remove,
                                                           faulty_remove);
            LogMask all(kAllLevels);
            StdoutCapture cap;
            o.result = fs_clear(0, kBlock1);
            o.messages = timeless(cap.stop());
        }
        g_failing.clear();
        recstore::fs_set_clear_gathered(true);
        snapshot("/mnt/sda", "", &o.index_tree);
        snapshot("/mnt/cache/sda", "", &o.cache_tree);
        o.free_count = datazone_free_count(0);
        o.busy_count = datazone_busy_count(0);
        o.block_state = aging::read_entry(data_partition(0).c_str(), 0, 0) >> aging::kStateShift;
        o.cluster_map.resize(kCluster);
        const int fd = open(data_partition(0).c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        if (fd >= 0) {
            EXPECT_EQ(
                pread(fd, o.cluster_map.data(), kCluster, static_cast<off_t>(kBlock1) * kCluster),
                static_cast<ssize_t>(kCluster));
            close(fd);
        }
        // The entries' states only: their values are times of the run (little-endian words, the
        // state in the top bits of the last byte).
        for (size_t i = 0; i < o.cluster_map.size(); i++) {
            o.cluster_map[i] = i % 4 == 3 ? o.cluster_map[i] & 0xC0 : 0;
        }
        LogMask quiet(0, 0);
        take_down(0);
        fs_exit();
        return o;
    }

    void compare(const std::vector<Planned> &plan, const std::string &failing, int expected) {
        const Outcome p = run(plan, false, failing);
        const Outcome g = run(plan, true, failing);
        EXPECT_EQ(p.result, expected);
        EXPECT_EQ(p.result, g.result);
        EXPECT_EQ(p.messages, g.messages);
        EXPECT_TRUE(p.index_tree == g.index_tree);
        EXPECT_TRUE(p.cache_tree == g.cache_tree);
        EXPECT_EQ(p.free_count, g.free_count);
        EXPECT_EQ(p.busy_count, g.busy_count);
        EXPECT_EQ(p.block_state, g.block_state);
        EXPECT_TRUE(p.cluster_map == g.cluster_map);
        // Something was there to compare: the other block's recordings, or the left one.
        EXPECT_FALSE(p.index_tree.empty());
        for (const auto &entry : p.index_tree) {
            if (g.index_tree.count(entry.first) == 0)
                ADD_FAILURE() << "only plain: " << entry.first;
        }
        for (const auto &entry : g.index_tree) {
            if (p.index_tree.count(entry.first) == 0)
                ADD_FAILURE() << "only gathered: " << entry.first;
        }
    }

    Cluster buf_;
};

TEST_F(RecycleGathered, RandomLayoutsEndTheSameAsThePlainWalk) {
    for (int i = 0; i < kLayouts && !HasFailure(); i++) {
        SCOPED_TRACE("layout " + std::to_string(i));
        compare(layout(1000 + static_cast<unsigned>(i)), "", 0);
    }
}

TEST_F(RecycleGathered, FailedRemovalsEndTheSameAsThePlainWalk) {
    const std::vector<Planned> plan = layout(77);
    const auto first =
        std::find_if(plan.begin(), plan.end(), [](const Planned &p) { return !p.second_block; });
    ASSERT_NE(first, plan.end());
    // One index file of the first block cannot be removed: the block is not freed, its other
    // recordings are gone, the failing one keeps its link, directory and cache tag.
    compare(plan, file_name(first->channel, first->start, first->type), -1);
}

}  // namespace
