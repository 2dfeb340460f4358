// The README's minimal recorder in C (host/example.c) on a freshly formatted rig disk: it brings
// the disk up, records one channel, plays it back, finds it and shuts down, exiting 0 only when
// every step gave what it should.
#include <gtest/gtest.h>

#include <string>

#include "recording.h"
#include "rig.h"

namespace {

using recording_test::contains;
using recording_test::kGiB;

// The example and the tool as a shell starts them: under the emulator in a cross build.
const std::string kExample = std::string(RECSTORE_EMULATOR) + RECSTORE_EXAMPLE;
const std::string kTool = std::string(RECSTORE_EMULATOR) + RECSTORE_TOOL;

TEST(Example, RecordsPlaysBackAndFindsOneChannel) {
    ASSERT_TRUE(rig::active());
    rig::Disk disk = rig::attach('a', 200 * kGiB);
    std::string out;
    ASSERT_EQ(rig::run(kTool + " format /dev/hd/sda --yes 2>&1", &out), 0) << out;
    const int status = rig::run(kExample + " /dev/hd/sda 2>&1", &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(contains(out, "played back 3 clusters, 3 with the bytes written\n")) << out;
    EXPECT_TRUE(contains(out, "found 1 recording(s) of channel 3 on 17 May 2024\n")) << out;
    EXPECT_FALSE(contains(rig::sh("cat /proc/mounts"), "/dev/hd/sda2"))
        << "the example took its disk down";
    rig::unplug(disk);
    ASSERT_EQ(rig::run(kExample + " 2>&1", &out), 2) << out;
    EXPECT_TRUE(contains(out, "usage: ")) << out;
}

}  // namespace
