// The recstore tool's disk commands on a rig disk of their own: format, up and down, record and
// play (with the verification catching a changed byte), and check after a recording made by the
// tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "recording.h"
#include "rig.h"

using recording_test::contains;

namespace {

constexpr uint64_t kDiskBytes = 200ull * 1024 * 1024 * 1024;
constexpr uint64_t kFirstDataCluster = 257;  // first data cluster of a 200 GiB disk
constexpr uint64_t kCluster = RECSTORE_CLUSTER_SIZE;

int tool(const std::string &args, std::string *out) {
    out->clear();
    return rig::run(std::string(RECSTORE_EMULATOR) + RECSTORE_TOOL + " " + args + " 2>&1", out);
}

bool mounted(const std::string &what) {
    return contains(rig::sh("cat /proc/mounts"), what);
}

class ToolCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        disk_ = rig::attach('a', kDiskBytes);
    }
    void TearDown() override {
        rig::run("umount /mnt/sda /mnt/img");
        rig::unplug(disk_);
        unlink(disk_.image.c_str());
    }
    rig::Disk disk_;
};

TEST_F(ToolCommands, FormatUpDownRecordPlayAndCheck) {
    std::string out;
    ASSERT_EQ(tool("format /dev/hd/sda --yes", &out), 0) << out;
    EXPECT_TRUE(
        contains(out, "/dev/hd/sda formatted: format 7.0.0.0, magic file and fresh maps written"))
        << out;

    ASSERT_EQ(tool("up /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out, "  fs_datazone_init   /dev/hd/sda  -> 0\n")) << out;
    EXPECT_TRUE(contains(out, "  fs_adddisk(0)      /dev/hd/sda  -> 0\n")) << out;
    EXPECT_FALSE(contains(out, "fs_cleardisk")) << "a formatted disk is not new: " << out;
    EXPECT_TRUE(mounted("/dev/hd/sda2 /mnt/sda ")) << "up leaves the index mounted";
    ASSERT_EQ(tool("down /dev/hd/sda", &out), 0) << out;
    EXPECT_FALSE(mounted("/mnt/sda ")) << out;

    ASSERT_EQ(tool("record --disk /dev/hd/sda --channel 3 --seconds 4 --mbps 4 --fast", &out), 0)
        << out;
    EXPECT_FALSE(contains(out, "\r")) << "no progress line rewritten in place into a pipe";
    const size_t at = out.find("channel  3  start \"");
    ASSERT_NE(at, std::string::npos) << out;
    const std::string start = out.substr(at + 19, 19);
    EXPECT_TRUE(contains(out, "recorded ")) << out;
    EXPECT_FALSE(mounted("/mnt/sda ")) << "record takes its disks down again";

    ASSERT_EQ(tool("play --disk /dev/hd/sda --channel 3 --start \"" + start + "\"", &out), 0)
        << out;
    EXPECT_TRUE(contains(out, "channel 3, recording \"" + start + "\"")) << out;
    EXPECT_TRUE(contains(out, "every byte verified")) << out;
    // 4 Mbit/s for 4 s: 2 MB in 512 KiB clusters, a key frame per second or two.
    EXPECT_TRUE(contains(out, "  read 4 clusters, ") || contains(out, "  read 5 clusters, "))
        << out;

    ASSERT_EQ(tool("play --disk /dev/hd/sda --channel 3 --tseek 2", &out), 0) << out;
    EXPECT_TRUE(contains(out, "  time seek to ")) << out;
    EXPECT_TRUE(contains(out, "(a key frame of the stream)")) << out;
    EXPECT_TRUE(contains(out, "every byte verified")) << out;

    // The recording is found by channel and time, and its day is marked in the month view.
    ASSERT_EQ(tool("find --disk /dev/hd/sda --channels 3", &out), 0) << out;
    EXPECT_TRUE(contains(out, "      3    0 " + start + "  ")) << out;
    EXPECT_TRUE(contains(out, "sda\n1 recording, ")) << out;
    ASSERT_EQ(tool("find --disk /dev/hd/sda --channels 0-2,4-63", &out), 0) << out;
    EXPECT_TRUE(contains(out, "0 recordings, 0 B")) << out;
    ASSERT_EQ(tool("find --disk /dev/hd/sda --channels 3 --json", &out), 0) << out;
    EXPECT_TRUE(contains(out, "{\"channel\": 3, \"type\": 0, \"start\": \"" + start)) << out;
    const std::string year = start.substr(0, 4), month = start.substr(5, 2);
    const int day = std::stoi(start.substr(8, 2));
    ASSERT_EQ(tool("calendar " + year + " " + std::to_string(std::stoi(month)) +
                       " --disk /dev/hd/sda --channels 3",
                   &out),
              0)
        << out;
    EXPECT_TRUE(contains(out, "1 day with recordings (*): " + std::to_string(day))) << out;

    ASSERT_EQ(tool("check /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out, "1 index files, 1 links")) << out;
    EXPECT_TRUE(contains(out, "0 inconsistencies found")) << out;

    ASSERT_EQ(tool("record --disk /dev/hd/sdc --channel 4", &out), 1) << out;
    EXPECT_TRUE(contains(out,
                         "recstore record: /dev/hd/sdc does not exist: is the disk plugged "
                         "in?"))
        << out;
    EXPECT_FALSE(mounted("/mnt/cache")) << "nothing was started for a missing disk";
    ASSERT_EQ(tool("up /dev/hd/sdc", &out), 1) << out;
    EXPECT_TRUE(contains(out, "recstore up: /dev/hd/sdc does not exist")) << out;
    ASSERT_EQ(tool("play --disk /dev/hd/sda --channel 4", &out), 1) << out;
    EXPECT_TRUE(contains(out, "recstore play: channel 4 has no recording")) << out;
}

// Runs the tool with standard output piped into python3's JSON checker; its standard error (the
// library's messages) is kept apart. The checker's status is returned; the tool's is in *status
// and the pretty-printed JSON in *json.
int tool_json(const std::string &args, int *status, std::string *json) {
    const std::string dir = rig::dir();
    const std::string command = "{ " + std::string(RECSTORE_TOOL) + " " + args + " 2>" + dir +
                                "/tool.err; echo $? >" + dir + "/tool.status; } | python3 -m " +
                                "json.tool";
    const int checked = rig::run(command, json);
    *status = std::stoi(rig::sh("cat " + dir + "/tool.status"));
    return checked;
}

TEST_F(ToolCommands, JsonOnStandardOutputIsValidWithTheLibrarysMessagesOnStandardError) {
    std::string out;
    ASSERT_EQ(tool("format /dev/hd/sda --yes", &out), 0) << out;
    ASSERT_EQ(tool("record --disk=/dev/hd/sda --channel=5 --seconds=2 --mbps=4 --fast", &out), 0)
        << out;
    int status = -1;
    std::string json;
    EXPECT_EQ(tool_json("find --json --disk /dev/hd/sda", &status, &json), 0) << json;
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(json, "\"channel\": 5,")) << json;
    // Bringing the disk up made the library talk: all of it went to standard error.
    EXPECT_NE(rig::sh("cat " + rig::dir() + "/tool.err"), "");

    EXPECT_EQ(tool_json("check --json /dev/hd/sda", &status, &json), 0) << json;
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(json, "\"index_files\": 1,")) << json;
    EXPECT_TRUE(contains(json, "\"findings\": [],")) << json;

    EXPECT_EQ(tool_json("inspect --json /dev/hd/sda", &status, &json), 0) << json;
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(json, "\"state\": \"in-use\",")) << json;
    EXPECT_TRUE(contains(json, "\"format\": \"7.0.0.0\",")) << json;
    EXPECT_TRUE(contains(json, "\"channel\": 5,")) << json;

    EXPECT_EQ(tool_json("inspect --json --maps " + disk_.image, &status, &json), 0) << json;
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(json, "\"kind\": \"image\",")) << json;
}

TEST_F(ToolCommands, OptionsTakeEqualsValuesAndStopAtDoubleDash) {
    std::string out;
    ASSERT_EQ(tool("format --yes -- /dev/hd/sda", &out), 0) << out;
    EXPECT_EQ(tool("check --repair=yes /dev/hd/sda", &out), 16) << out;
    EXPECT_TRUE(contains(out, "option --repair takes no value")) << out;
    EXPECT_EQ(tool("find --disk", &out), 2) << out;
    EXPECT_TRUE(contains(out, "option --disk needs a value")) << out;
    // After "--" a word that looks like an option is a word.
    EXPECT_EQ(tool("check -- --help", &out), 16) << out;
    EXPECT_TRUE(contains(out, "\"--help\" is not a disk node")) << out;
    EXPECT_EQ(tool("check -- /dev/hd/sda", &out), 0) << out;
}

TEST_F(ToolCommands, InspectTellsANeverInitialisedDataZoneFromAnEmptyOne) {
    std::string out;
    ASSERT_EQ(tool("format /dev/hd/sda --yes", &out), 0) << out;
    ASSERT_EQ(tool("inspect /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(
        contains(out, "data zone state: empty (initialised, every block and cluster free)\n"))
        << out;
    // Without the magic file written with the fresh maps, the blank maps are those of a zone the
    // library never initialised.
    ASSERT_EQ(rig::run("mkdir -p /mnt/sda && mount /dev/hd/sda2 /mnt/sda && rm /mnt/sda/magic && "
                       "umount /mnt/sda"),
              0);
    ASSERT_EQ(tool("inspect /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out, "data zone state: never initialised (no valid magic file")) << out;
    ASSERT_EQ(tool("inspect --json /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out, "\"state\": \"uninitialised\"")) << out;
    // Read without the index partition, blank maps cannot be told apart.
    ASSERT_EQ(tool("inspect --maps /dev/hd/sda", &out), 0) << out;
    EXPECT_TRUE(contains(out,
                         "data zone state: blank maps: never initialised or initialised "
                         "and empty"))
        << out;
}

TEST_F(ToolCommands, PlayFindsAChangedByte) {
    std::string out;
    ASSERT_EQ(tool("format /dev/hd/sda --yes", &out), 0) << out;
    ASSERT_EQ(tool("record --disk /dev/hd/sda --channel 7 --seconds 2 --mbps 4 --fast", &out), 0)
        << out;
    {
        // One byte of the first data cluster, the recording's first, changed on the partition.
        const int fd = open("/dev/hd/sda3", O_WRONLY);
        ASSERT_GE(fd, 0);
        const unsigned char junk = 0x5A;
        EXPECT_EQ(pwrite(fd, &junk, 1, static_cast<off_t>(kFirstDataCluster * kCluster + 5000)), 1);
        fsync(fd);
        close(fd);
    }
    EXPECT_EQ(tool("play --disk /dev/hd/sda --channel 7", &out), 1) << out;
    EXPECT_TRUE(contains(out,
                         "recstore play: cluster 1: frame at offset 0 differs from what was "
                         "written"))
        << out;
}

TEST_F(ToolCommands, InspectReadsTheGptTableOfALargeDiskImage) {
    // Above 512 GiB a disk gets a GPT label and a 32GB index partition.
    rig::Disk large = rig::attach('b', 3 * kDiskBytes);
    std::string out;
    EXPECT_EQ(tool("format /dev/hd/sdb --yes", &out), 0) << out;
    rig::unplug(large);
    EXPECT_EQ(tool("inspect " + large.image, &out), 0) << out;
    EXPECT_TRUE(contains(out, "600.0 GiB, partition table gpt\n")) << out;
    EXPECT_TRUE(contains(out, "  2 index  offset      128000512  size    31872000000")) << out;
    EXPECT_TRUE(contains(out, "index partition: format 7.0.0.0, 0 index files, 0 links")) << out;
    EXPECT_TRUE(contains(out, "counters: 0 busy, ")) << out;
    unlink(large.image.c_str());
}

}  // namespace
