// The recstore tool's demo, short: two disks formatted and brought up, four channels recorded
// for five seconds with a disk change and a block change on the way, recordings played back and
// verified, everything taken down again. Runs in its own rig, since the demo attaches its disks.
#include <gtest/gtest.h>

#include <string>

#include "recording.h"
#include "rig.h"

using recording_test::contains;

namespace {

TEST(ToolDemo, RecordsChangesDiskAndBlockAndVerifiesThePlayBack) {
    ASSERT_TRUE(rig::active());
    std::string out;
    const int status =
        rig::run(std::string(RECSTORE_TOOL) + " demo --seconds 5 --channels 4 2>&1", &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(contains(out, "fs_format -> 0")) << out;
    EXPECT_TRUE(contains(out, "  fs_adddisk(0)      /dev/hd/sdb  -> 0\n")) << out;
    EXPECT_TRUE(contains(out, "daemon running, recording to sda block 3\n")) << out;
    EXPECT_TRUE(contains(out, "recording starts on sda block 3\n")) << out;
    EXPECT_TRUE(contains(out, "disk change: sda -> sdb block 1\n")) << out;
    EXPECT_TRUE(contains(out, "block change on sdb: block 1 -> block 2\n")) << out;
    EXPECT_TRUE(contains(out, "  recorded           4 channels, ")) << out;
    EXPECT_TRUE(contains(out, "; 3 of 3 verified byte for byte\n")) << out;
    EXPECT_FALSE(contains(out, "FAILED")) << out;
    EXPECT_TRUE(contains(out, "\ndemo done")) << out;
    // The demo unplugged its disks: nothing of them is left attached or mounted.
    EXPECT_EQ(rig::sh("ls /dev/hd"), "");
    EXPECT_FALSE(contains(rig::sh("cat /proc/mounts"), "/dev/hd/sd"))
        << rig::sh("cat /proc/mounts");
}

TEST(ToolDemo, RefusesBadOptions) {
    std::string out;
    EXPECT_EQ(rig::run(std::string(RECSTORE_TOOL) + " demo --channels 65 2>&1", &out), 2) << out;
    EXPECT_TRUE(contains(out, "--channels takes 1 to 64")) << out;
    EXPECT_EQ(rig::run(std::string(RECSTORE_TOOL) + " demo --seconds 0 2>&1", &out), 2) << out;
}

}  // namespace
