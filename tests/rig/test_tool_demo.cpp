// The recstore tool's demo, short: two disks formatted and brought up, four channels recorded
// for five seconds with a disk change and a block change on the way, recordings played back and
// verified, found again by the search and the month view, the earliest block recycled once
// every disk is full, everything taken down again. Runs in its
// own rig, since the demo attaches its disks.
#include <gtest/gtest.h>

#include <string>

#include "recording.h"
#include "rig.h"

using recording_test::contains;

namespace {

// The tool as a shell starts it: under the emulator in a cross build.
const std::string kTool = std::string(RECSTORE_EMULATOR) + RECSTORE_TOOL;

TEST(ToolDemo, RecordsChangesDiskAndBlockAndVerifiesThePlayBack) {
    ASSERT_TRUE(rig::active());
    std::string out;
    const int status = rig::run(kTool + " demo --seconds 5 --channels 4 2>&1", &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_FALSE(contains(out, "\r")) << "the progress line is for terminals only";
    EXPECT_TRUE(contains(out, "fs_format -> 0")) << out;
    EXPECT_TRUE(contains(out, "  fs_adddisk(0)      /dev/hd/sdb  -> 0\n")) << out;
    EXPECT_TRUE(contains(out, "daemon running, recording to sda block 3\n")) << out;
    EXPECT_TRUE(contains(out, "recording starts on sda block 3\n")) << out;
    EXPECT_TRUE(contains(out, "disk change: sda -> sdb block 1\n")) << out;
    EXPECT_TRUE(contains(out, "block change on sdb: block 1 -> block 2\n")) << out;
    EXPECT_TRUE(contains(out, "  recorded           4 channels, ")) << out;
    EXPECT_TRUE(contains(out, "; 3 of 3 verified byte for byte\n")) << out;
    // Every recording made is found again by the search, and today is marked in the month view.
    const size_t at = out.find("  recorded           4 channels, ");
    ASSERT_NE(at, std::string::npos) << out;
    const std::string made = out.substr(at + 33, out.find(" recordings", at) - at - 33);
    EXPECT_TRUE(contains(out, "  search             " + made + " recordings found in ")) << out;
    EXPECT_TRUE(contains(out, "; " + made + " of the " + made + " made among them\n")) << out;
    EXPECT_TRUE(contains(out, "1 day with recordings (*): ") ||
                contains(out, "2 days with recordings (*): "))
        << out;
    // With every disk full the daemon recycles the earliest block, sda's aged block 1, which held
    // none of the run's recordings, and the recording goes on into it.
    EXPECT_TRUE(contains(out,
                         "recycling: every disk full; the daemon freed sda block 1 (0 "
                         "recordings, 131072 clusters) "))
        << out;
    EXPECT_TRUE(contains(out, "every disk full: the daemon starts again (rec_bringup_deamon)\n"))
        << out;
    EXPECT_TRUE(contains(out, "recording starts on sda block 1\n")) << out;
    EXPECT_TRUE(contains(out, "recycling: recording went on, ")) << out;
    EXPECT_TRUE(contains(out,
                         "  recycling          sda block 1 freed (131072 clusters, 0 "
                         "recordings gone) "))
        << out;
    EXPECT_FALSE(contains(out, "recycling: recording went on, 0 clusters")) << out;
    EXPECT_FALSE(contains(out, "FAILED")) << out;
    EXPECT_TRUE(contains(out, "\ndemo done")) << out;
    // The demo unplugged its disks: nothing of them is left attached or mounted.
    EXPECT_EQ(rig::sh("ls /dev/hd"), "");
    EXPECT_FALSE(contains(rig::sh("cat /proc/mounts"), "/dev/hd/sd"))
        << rig::sh("cat /proc/mounts");
}

TEST(ToolDemo, RefusesBadOptions) {
    std::string out;
    EXPECT_EQ(rig::run(kTool + " demo --channels 65 2>&1", &out), 2) << out;
    EXPECT_TRUE(contains(out, "--channels takes 1 to 64")) << out;
    EXPECT_EQ(rig::run(kTool + " demo --seconds 0 2>&1", &out), 2) << out;
}

}  // namespace
