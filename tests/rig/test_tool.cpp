// SPDX-License-Identifier: MIT
// The recstore tool on a real rig disk: its usage errors, "check" on a healthy disk and on disks
// damaged on purpose (each damage reported by kind, with the count), "check --repair", and
// "inspect" on the disk and on its image file. The tool runs as a child process in this test's
// rig namespace; the test brings the disk up and records through the library itself.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "aging_checks.h"
#include "capture.h"
#include "formatted_disks.h"
#include "fs_tools.h"
#include "recording.h"
#include "rig.h"
#include "test_util.h"

using namespace recording_test;
using recstore_test::LogMask;

namespace {

const bool g_disks_registered = (use_formatted_disks(1), true);

constexpr int kChannels[] = {1, 2, 3};
constexpr uint32_t kClustersEach = 3;
constexpr uint32_t kStrayCluster = 1000;  // a free cluster of block 1 (index in its map)

// Runs the tool with the arguments; its exit status, its output (both streams) in *out.
int tool(const std::string &args, std::string *out) {
    out->clear();
    return rig::run(std::string(RECSTORE_EMULATOR) + RECSTORE_TOOL + " " + args + " 2>&1", out);
}

struct tm start_of(int channel) {
    return make_tm(2026, 11, 22, 10, 0, channel);
}

class Tool : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, 0), 0);
        bring_up(0, true);
        ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
        ASSERT_EQ(fs_getblockid(0), kBlock1);
        for (int ch : kChannels) record(ch);
    }
    void TearDown() override {
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    void record(int channel) {
        const struct tm t = start_of(channel);
        const rec_param p = param_of(channel, t, 0);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < kClustersEach; n++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(channel), n);
            kframe frames[RECSTORE_MAX_KFRAMES] = {};
            const uint32_t count = frames_of(n, secs(t), frames);
            ASSERT_EQ(fs_write(h, buf_.data(), kCluster, frames, count),
                      static_cast<int>(kCluster));
        }
        fs_close(h, nullptr);
    }

    std::string check(int expected_status) {
        std::string out;
        EXPECT_EQ(tool("check /dev/hd/sda", &out), expected_status) << out;
        return out;
    }

    Cluster buf_;
    std::unique_ptr<LogMask> quiet_;
};

using recstore_test::occurrences;

// ---- usage ---------------------------------------------------------------------------------

TEST(ToolUsage, RefusesBadArgumentsWithAUsageStatusAndSaysWhatToDo) {
    std::string out;
    EXPECT_EQ(tool("", &out), 2) << out;
    EXPECT_TRUE(contains(out, "usage: recstore COMMAND")) << out;
    EXPECT_EQ(tool("nosuch", &out), 2) << out;
    EXPECT_TRUE(contains(out, "unknown command \"nosuch\"")) << out;
    // check gives the usage status of file-system checkers, 16; every other command 2.
    EXPECT_EQ(tool("check", &out), 16) << out;
    EXPECT_TRUE(contains(out, "give exactly one disk")) << out;
    EXPECT_EQ(tool("check /dev/sda", &out), 16) << out;
    EXPECT_TRUE(contains(out, "\"/dev/sda\" is not a disk node")) << out;
    EXPECT_EQ(tool("check /dev/hd/sda --fix", &out), 16) << out;
    EXPECT_TRUE(contains(out, "unknown option \"--fix\"")) << out;
    EXPECT_EQ(tool("record --channel 64", &out), 2) << out;
    EXPECT_TRUE(contains(out, "--channel takes channels 0-63")) << out;
    EXPECT_EQ(tool("play --channel 1 --start yesterday", &out), 2) << out;
    EXPECT_EQ(tool("format /dev/hd/sdb", &out), 2) << out;
    EXPECT_TRUE(contains(out, "add --yes")) << out;
    EXPECT_EQ(tool("calendar 2026 13", &out), 2) << out;
}

TEST(ToolUsage, EveryCommandHasHelp) {
    for (const char *cmd : {"format", "up", "down", "record", "play", "inspect", "check", "find",
                            "calendar", "demo"}) {
        std::string out;
        EXPECT_EQ(tool(std::string(cmd) + " --help", &out), 0) << cmd << out;
        EXPECT_TRUE(contains(out, std::string("usage: recstore ") + cmd)) << out;
    }
}

TEST(ToolUsage, CheckOfAMissingDiskFails) {
    std::string out;
    EXPECT_EQ(tool("check /dev/hd/sdh", &out), 8) << out;
    EXPECT_TRUE(
        contains(out, "recstore check: /dev/hd/sdh does not exist: is the disk plugged in?"))
        << out;
    EXPECT_EQ(tool("inspect /dev/hd/sdh", &out), 1) << out;
    EXPECT_TRUE(contains(out, "recstore inspect: /dev/hd/sdh does not exist")) << out;
    EXPECT_FALSE(exists("/mnt/sdh")) << "nothing was made for the missing disk";
}

// ---- check ---------------------------------------------------------------------------------

TEST_F(Tool, CheckFindsNothingOnAHealthyDisk) {
    const std::string out = check(0);
    EXPECT_TRUE(contains(out, "3 index files, 3 links, cache /mnt/cache/sda")) << out;
    EXPECT_TRUE(contains(out, "0 inconsistencies found\n")) << out;
    EXPECT_FALSE(contains(out, "inconsistency [")) << out;
}

TEST_F(Tool, CheckReportsARemovedIndexFileAndRepairsWhatIsSafe) {
    const struct tm t = start_of(2);
    ASSERT_EQ(unlink(index_name(0, 2, t, 0).c_str()), 0);
    std::string out = check(4);
    // Its link, its cache tag and its clusters are left over.
    EXPECT_TRUE(contains(out, "inconsistency [stale-link] " + link_name(0, kBlock1, 2, t, 0) +
                                  " -> ../../02/2026/11/22/00/0220261122100002_00: the index "
                                  "file is gone\n"))
        << out;
    EXPECT_TRUE(contains(out, "inconsistency [stale-tag] " + cache_file(0, 2, t, 0))) << out;
    EXPECT_EQ(occurrences(out, "inconsistency [unreferenced-cluster] block 1: busy clusters "), 1u)
        << out;
    EXPECT_TRUE(contains(out, "3 inconsistencies found (2 of them repairable with --repair)\n"))
        << out;

    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 4) << out;
    EXPECT_TRUE(contains(out, "repaired: removed the stale link " + link_name(0, kBlock1, 2, t, 0)))
        << out;
    EXPECT_TRUE(contains(out, "repaired: rewrote " + cache_file(0, 2, t, 0))) << out;
    EXPECT_TRUE(contains(out, "1 inconsistency left after repair\n")) << out;
    EXPECT_FALSE(exists(link_name(0, kBlock1, 2, t, 0)));

    out = check(4);
    EXPECT_TRUE(contains(out, "1 inconsistency found (0 of them repairable")) << out;
    EXPECT_TRUE(contains(out, "[unreferenced-cluster]")) << out;
}

// A power cut between the creation of an index file and its header's write-back leaves an empty
// file: it holds no footage, so the repair removes it with its link.
TEST_F(Tool, CheckRemovesAnEmptyIndexFileWithItsLink) {
    const struct tm t = start_of(3);
    ASSERT_EQ(truncate(index_name(0, 3, t, 0).c_str(), 0), 0);
    std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [empty-index] " + index_name(0, 3, t, 0) +
                                  ": an empty index file (its header never reached the disk)\n"))
        << out;
    EXPECT_FALSE(contains(out, "[bad-header]")) << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 4) << out;
    EXPECT_TRUE(contains(out, "repaired: removed " + index_name(0, 3, t, 0) + "\n")) << out;
    EXPECT_TRUE(contains(out, "repaired: removed " + link_name(0, kBlock1, 3, t, 0) + "\n")) << out;
    EXPECT_FALSE(exists(index_name(0, 3, t, 0)));
    EXPECT_FALSE(exists(link_name(0, kBlock1, 3, t, 0)));
    out = check(4);
    EXPECT_FALSE(contains(out, "[empty-index]")) << out;
    EXPECT_FALSE(contains(out, "[stale-link]")) << out;
}

// A power cut while a recording is open leaves its header counting none of the entries that
// reached the disk, and may leave part of an entry at the end: the repair recounts the header
// from the sound entries and cuts the unfinished entry off.
TEST_F(Tool, CheckRecountsCountersAndCutsAnUnfinishedEntry) {
    const struct tm t = start_of(1);
    const std::string path = index_name(0, 1, t, 0);
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const unsigned char zeros[16] = {};
    ASSERT_EQ(pwrite(fd, zeros, 4, 108), 4);  // entry count
    ASSERT_EQ(pwrite(fd, zeros, 8, 112), 8);  // byte count
    ASSERT_EQ(pwrite(fd, zeros, 4, 120), 4);  // key-frame count
    const unsigned char tail[100] = {1, 2, 3};
    ASSERT_GT(lseek(fd, 0, SEEK_END), 0);
    ASSERT_EQ(write(fd, tail, sizeof tail), static_cast<ssize_t>(sizeof tail));
    close(fd);
    std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [counters] " + path + ": header counts 0 entries"))
        << out;
    EXPECT_TRUE(contains(out, "inconsistency [partial-entry] " + path +
                                  ": 100 bytes of an unfinished entry at the end\n"))
        << out;
    EXPECT_TRUE(contains(out, "2 inconsistencies found (2 of them repairable with --repair)\n"))
        << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 1) << out;
    EXPECT_TRUE(contains(out, "repaired: recounted the header of " + path + ": ")) << out;
    EXPECT_TRUE(contains(out, "repaired: cut what follows the last entry off " + path + "\n"))
        << out;
    out = check(0);
    EXPECT_TRUE(contains(out, "0 inconsistencies found\n")) << out;
}

// A power cut between the creation of an index file and its link leaves a recording that no
// block's link directory names, which recycling would never clear: the repair links it into the
// block its header names.
TEST_F(Tool, CheckLinksAnIndexFileWithoutALink) {
    const struct tm t = start_of(2);
    const std::string link = link_name(0, kBlock1, 2, t, 0);
    ASSERT_EQ(unlink(link.c_str()), 0);
    std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [no-link] " + index_name(0, 2, t, 0) +
                                  ": no link in any block's link directory\n"))
        << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found (1 of them repairable with --repair)\n"))
        << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 1) << out;
    EXPECT_TRUE(contains(out, "repaired: linked " + index_name(0, 2, t, 0) + " into block 1\n"))
        << out;
    EXPECT_TRUE(exists(link));
    out = check(0);
    EXPECT_TRUE(contains(out, "0 inconsistencies found\n")) << out;
}

// A power cut can leave an index file ending in zeros (its size reached the disk, its last
// entries did not): the recording ends before them, and the repair cuts them off.
TEST_F(Tool, CheckCutsZerosAfterTheLastEntry) {
    const struct tm t = start_of(2);
    const std::string path = index_name(0, 2, t, 0);
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const off_t end = lseek(fd, 0, SEEK_END);
    ASSERT_GT(end, 0);
    ASSERT_EQ(ftruncate(fd, end + 2 * 204), 0);
    close(fd);
    std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [zero-tail] " + path +
                                  ": 408 bytes of zeros after the last entry (a power cut's "
                                  "torn end)\n"))
        << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found (1 of them repairable with --repair)\n"))
        << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 1) << out;
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, end);
    out = check(0);
    EXPECT_TRUE(contains(out, "0 inconsistencies found\n")) << out;
}

TEST_F(Tool, CheckReportsAStrayLink) {
    const struct tm t = start_of(5);
    const std::string link = link_name(0, kBlock1, 5, t, 0);
    ASSERT_EQ(symlink("../../05/2026/11/22/00/0520261122100005_00", link.c_str()), 0);
    const std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [stale-link] " + link + " -> ")) << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found (1 of them repairable")) << out;
}

TEST_F(Tool, CheckReportsABusyClusterNoEntryPointsTo) {
    const std::string part = data_partition(0);
    ASSERT_TRUE(
        aging::set_cluster_entry(part.c_str(), kBlock1, kStrayCluster, aging::busy_entry(0x1234)));
    const std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [unreferenced-cluster] block 1: busy cluster " +
                                  std::to_string(kFirstData + kStrayCluster) +
                                  " no index entry points to\n"))
        << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found")) << out;
}

TEST_F(Tool, CheckReportsAWrongBlockMapState) {
    const std::string part = data_partition(0);
    // An empty block marked busy with an older sequence than the current block's.
    ASSERT_TRUE(aging::set_block_entry(part.c_str(), kBlock3, aging::busy_entry(1000)));
    const std::string out = check(4);
    EXPECT_TRUE(contains(out,
                         "inconsistency [block-state] block 3: busy in the block map "
                         "(0x800003e8) with 131072 free clusters, but block 1 is the "
                         "current one\n"))
        << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found")) << out;
}

TEST_F(Tool, CheckReportsAnEntryIntoAFreeCluster) {
    // The cluster of channel 1's first entry freed in the map behind the recording's back.
    const std::vector<Entry> entries = entries_of(0, 1, start_of(1), 0);
    ASSERT_EQ(entries.size(), kClustersEach);
    const std::string part = data_partition(0);
    ASSERT_TRUE(aging::set_cluster_entry(part.c_str(), kBlock1, entries[0].cluster - kFirstData,
                                         aging::free_entry(0)));
    const std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [bad-entry] " + index_name(0, 1, start_of(1), 0) +
                                  " entry 0: cluster " + std::to_string(entries[0].cluster) +
                                  " is free in block 1's cluster map\n"))
        << out;
}

TEST_F(Tool, CheckReportsAStaleCacheTagAndRewritesItFromTheIndexFile) {
    const struct tm t = start_of(3);
    const std::string cache = cache_file(0, 3, t, 0);
    std::vector<uint64_t> tags = tags_in(cache);
    ASSERT_EQ(tags.size(), 1u);
    const uint64_t good = tags[0];
    // The duration's low bits (bits 20-31 of the low word) changed: the tag no longer matches.
    const uint64_t stale = good ^ (0x7ull << 20);
    {
        const int fd = open(cache.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0);
        unsigned char b[8];
        recstore::le64_store(b, stale);
        ASSERT_EQ(write(fd, b, sizeof b), 8);
        close(fd);
    }
    std::string out = check(4);
    EXPECT_TRUE(contains(out, "inconsistency [stale-tag] " + cache)) << out;
    EXPECT_TRUE(contains(out, ": differs from " + file_name(3, t, 0))) << out;
    EXPECT_TRUE(contains(out, "1 inconsistency found (1 of them repairable")) << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 1) << out;
    EXPECT_TRUE(contains(out, "0 inconsistencies left after repair\n")) << out;
    tags = tags_in(cache);
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0], good);
    check(0);
}

TEST_F(Tool, CheckReportsARecordingMissingFromTheCacheAndAddsItsTag) {
    const struct tm t = start_of(1);
    const std::string cache = cache_file(0, 1, t, 0);
    const std::vector<uint64_t> before = tags_in(cache);
    ASSERT_EQ(before.size(), 1u);
    ASSERT_EQ(unlink(cache.c_str()), 0);
    std::string out = check(4);
    EXPECT_TRUE(contains(
        out, "inconsistency [stale-tag] " + index_name(0, 1, t, 0) + ": no tag in " + cache + "\n"))
        << out;
    ASSERT_EQ(tool("check /dev/hd/sda --repair", &out), 1) << out;
    EXPECT_EQ(tags_in(cache), before);
}

// ---- inspect -------------------------------------------------------------------------------

TEST_F(Tool, InspectShowsTheDiskWithItsCurrentBlockAndRecordings) {
    std::string out;
    ASSERT_EQ(tool("inspect /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out, "3 blocks of 131072 clusters")) << out;
    EXPECT_TRUE(contains(out, "      1  C..\n")) << out;
    EXPECT_TRUE(contains(out, "<- current")) << out;
    EXPECT_TRUE(contains(out, "counters: 9 busy, ")) << out;
    EXPECT_TRUE(contains(out, "index partition: format 7.0.0.0, 3 index files, 3 links")) << out;
    EXPECT_TRUE(contains(out, "        2  2026-11-22           1         3")) << out;
    EXPECT_TRUE(contains(out, "cache: /mnt/cache/sda: 3 cache files, 3 tags")) << out;
}

TEST_F(Tool, InspectReadsAnImageFileWithoutTheDisk) {
    take_down(0);
    rig::sh("sync");
    std::string out;
    ASSERT_EQ(tool("inspect " + g_disks[0].image, &out), 0) << out;
    EXPECT_TRUE(contains(out, "partition table mbr")) << out;
    EXPECT_TRUE(contains(out, "3 blocks of 131072 clusters")) << out;
    EXPECT_TRUE(contains(out, "counters: 9 busy, ")) << out;
    EXPECT_TRUE(contains(out, "index partition: format 7.0.0.0, 3 index files, 3 links")) << out;
    ASSERT_EQ(tool("inspect --maps " + g_disks[0].image, &out), 0) << out;
    EXPECT_TRUE(contains(out, "counters: 9 busy, ")) << out;
    EXPECT_FALSE(contains(out, "index partition")) << out;
    EXPECT_EQ(rig::sh("losetup -a | grep -F " + rig::quote(g_disks[0].image) +
                      " | grep -c offset || true"),
              "0\n")
        << "the read-only loop view is detached";
}

}  // namespace
