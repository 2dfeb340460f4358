// The README's minimal recorder in C (host/example.c) on a freshly formatted rig disk: it brings
// the disk up, records one channel, plays it back, finds it and shuts down, exiting 0 only when
// every step gave what it should. RECSTORE_EXAMPLE_PROGRAM and RECSTORE_TOOL_PROGRAM in the
// environment name other builds of the two programs (the installed ones, for the install check).
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include "recording.h"
#include "rig.h"

namespace {

using recording_test::contains;
using recording_test::kGiB;

// The program named by the environment variable, or the one of this build, as a shell starts
// it: under the emulator in a cross build.
std::string program(const char *variable, const char *built) {
    const char *given = getenv(variable);
    return std::string(RECSTORE_EMULATOR) + (given != nullptr && *given != '\0' ? given : built);
}

TEST(Example, RecordsPlaysBackAndFindsOneChannel) {
    ASSERT_TRUE(rig::active());
    const std::string tool = program("RECSTORE_TOOL_PROGRAM", RECSTORE_TOOL);
    const std::string example = program("RECSTORE_EXAMPLE_PROGRAM", RECSTORE_EXAMPLE);
    rig::Disk disk = rig::attach('a', 200 * kGiB);
    std::string out;
    ASSERT_EQ(rig::run(tool + " format /dev/hd/sda --yes 2>&1", &out), 0) << out;
    const int status = rig::run(example + " /dev/hd/sda 2>&1", &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(contains(out, "played back 3 clusters, 3 with the bytes written\n")) << out;
    EXPECT_TRUE(contains(out, "found 1 recording(s) of channel 3 on 17 May 2024\n")) << out;
    EXPECT_FALSE(contains(rig::sh("cat /proc/mounts"), "/dev/hd/sda2"))
        << "the example took its disk down";
    rig::unplug(disk);
    ASSERT_EQ(rig::run(example + " 2>&1", &out), 2) << out;
    EXPECT_TRUE(contains(out, "usage: ")) << out;
}

}  // namespace
