// SPDX-License-Identifier: MIT
// Tests of the disk rig itself: the private namespace, loop-backed disks under /dev/hd, their
// partition nodes, file systems on them, plug-out and plug-in, the partprobe stand-in and the
// cleanup of runs that were killed.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <mntent.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "rig.h"

namespace {

constexpr uint64_t kGiB = 1024ull * 1024ull * 1024ull;
constexpr uint64_t kMbrDiskBytes = 200 * kGiB;
constexpr uint64_t kGptDiskBytes = 600 * kGiB;
constexpr uint64_t kSmallDiskBytes = 1 * kGiB;
// A fresh sparse image holds next to nothing.
constexpr uint64_t kSparseLimitBytes = 1024 * 1024;
constexpr int kPartitions = 3;

struct MountLine {
    std::string source, target, type;
};

std::vector<MountLine> read_mounts(const std::string &table) {
    std::vector<MountLine> out;
    FILE *f = setmntent(table.c_str(), "r");
    if (f == nullptr) return out;
    struct mntent entry;
    char buf[4096];
    while (getmntent_r(f, &entry, buf, sizeof buf) != nullptr) {
        out.push_back({entry.mnt_fsname, entry.mnt_dir, entry.mnt_type});
    }
    endmntent(f);
    return out;
}

// The type of what is mounted on `target` (the last mount there), "" when nothing.
std::string mounted_type(const std::string &table, const std::string &target) {
    std::string type;
    for (const MountLine &m : read_mounts(table)) {
        if (m.target == target) type = m.type;
    }
    return type;
}

bool mounted_from(const std::string &table, const std::string &source, const std::string &target,
                  const std::string &type) {
    for (const MountLine &m : read_mounts(table)) {
        if (m.source == source && m.target == target && m.type == type) return true;
    }
    return false;
}

std::string read_line(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// "major:minor" of a block node, "" when it is not one.
std::string node_numbers(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) return "";
    return std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
}

std::string loop_name(const rig::Disk &d) {
    return d.loop.substr(d.loop.rfind('/') + 1);
}

// "major:minor" the kernel gives partition n of the disk's loop device.
std::string kernel_partition(const rig::Disk &d, int n) {
    const std::string name = loop_name(d);
    return read_line("/sys/block/" + name + "/" + name + "p" + std::to_string(n) + "/dev");
}

uint64_t device_bytes(const std::string &node) {
    const int fd = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    uint64_t bytes = 0;
    if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) bytes = 0;
    close(fd);
    return bytes;
}

std::string rig_home() {
    const char *home = std::getenv("RECSTORE_RIG_HOME");
    return home != nullptr ? home : "";
}

void expect_partition_nodes(const rig::Disk &d) {
    for (int n = 1; n <= kPartitions; ++n) {
        const std::string node = rig::partition(d, n);
        const std::string kernel = kernel_partition(d, n);
        ASSERT_FALSE(kernel.empty()) << "the kernel has no partition " << n << " on " << d.loop;
        EXPECT_EQ(node_numbers(node), kernel) << node;
    }
}

void make_ext4(const std::string &node) {
    rig::sh("mkfs.ext4 -q -F -E lazy_itable_init=1,lazy_journal_init=1 " + rig::quote(node));
}

TEST(RigNamespace, MountsArePrivate) {
    ASSERT_TRUE(rig::active()) << "run this test through tests/rig/rig-run";
    EXPECT_EQ(mounted_type("/proc/self/mounts", "/dev/hd"), "tmpfs");
    EXPECT_EQ(mounted_type("/proc/self/mounts", "/mnt"), "tmpfs");
    EXPECT_EQ(mounted_type("/proc/self/mounts", "/dev"), "tmpfs");

    // The machine's initial namespace sees none of it.
    ASSERT_FALSE(read_mounts("/proc/1/mounts").empty());
    EXPECT_EQ(mounted_type("/proc/1/mounts", "/dev/hd"), "");
    EXPECT_NE(mounted_type("/proc/1/mounts", "/mnt"), "tmpfs");
    EXPECT_NE(mounted_type("/proc/1/mounts", "/dev"), "tmpfs");
    // rig-run itself (the rig's owner) stayed in the namespace it was started in.
    std::istringstream owner(read_line(rig::dir() + "/owner"));
    int owner_pid = 0;
    ASSERT_TRUE(owner >> owner_pid) << "no owner in " << rig::dir();
    char self_ns[64] = {0}, owner_ns[64] = {0};
    ASSERT_GT(readlink("/proc/self/ns/mnt", self_ns, sizeof self_ns - 1), 0);
    const std::string owner_link = "/proc/" + std::to_string(owner_pid) + "/ns/mnt";
    ASSERT_GT(readlink(owner_link.c_str(), owner_ns, sizeof owner_ns - 1), 0);
    EXPECT_STRNE(self_ns, owner_ns);

    // The real /dev, reachable through the rig directory, has no /dev/hd.
    const std::string real_dev = rig::dir() + "/dev.real";
    ASSERT_TRUE(exists(real_dev + "/null"));
    EXPECT_FALSE(exists(real_dev + "/hd"));

    // What the recorder's root file system provides.
    EXPECT_TRUE(exists("/mnt/img"));
    EXPECT_EQ(access("/mnt/app/udevstart", X_OK), 0);
    EXPECT_EQ(access("/mnt/app/partprobe", X_OK), 0);
    EXPECT_EQ(node_numbers("/dev/loop0"), "7:0");
}

TEST(RigNamespace, InactiveWithoutRigDirectory) {
    const std::string saved = rig::dir();
    ASSERT_EQ(unsetenv("RECSTORE_RIG_DIR"), 0);
    EXPECT_FALSE(rig::active());
    EXPECT_THROW(rig::attach('a', kSmallDiskBytes), std::runtime_error);
    ASSERT_EQ(setenv("RECSTORE_RIG_DIR", saved.c_str(), 1), 0);
    EXPECT_TRUE(rig::active());
}

TEST(RigDisk, RefusesBadLetters) {
    try {
        rig::attach('z', kSmallDiskBytes);
        FAIL() << "attach of sdz did not throw";
    } catch (const std::runtime_error &e) {
        EXPECT_NE(std::string(e.what()).find("letter"), std::string::npos) << e.what();
    }
    EXPECT_FALSE(exists("/dev/hd/sdz"));
}

TEST(RigDisk, MbrDiskPartitionsFormatsMountsAndReplugs) {
    rig::Disk d = rig::attach('a', kMbrDiskBytes);
    EXPECT_EQ(d.node, "/dev/hd/sda");
    EXPECT_EQ(d.bytes, kMbrDiskBytes);
    ASSERT_FALSE(d.loop.empty());
    EXPECT_EQ(node_numbers(d.node), node_numbers(d.loop));
    EXPECT_EQ(read_line("/sys/block/" + loop_name(d) + "/loop/backing_file"), d.image);
    EXPECT_EQ(device_bytes(d.node), kMbrDiskBytes);
    struct stat st;
    ASSERT_EQ(stat(d.image.c_str(), &st), 0);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512u, kSparseLimitBytes);

    // A second disk on the same letter is refused.
    EXPECT_THROW(rig::attach('a', kSmallDiskBytes), std::runtime_error);

    rig::partition_simple(d);
    EXPECT_NE(rig::sh("parted -s /dev/hd/sda print").find("Partition Table: msdos"),
              std::string::npos);
    expect_partition_nodes(d);
    EXPECT_FALSE(exists("/dev/hd/sda4"));

    // A stale node disappears and a wrong one is corrected on the next udevstart.
    ASSERT_EQ(mknod("/dev/hd/sda7", S_IFBLK | 0660, makedev(7, 0)), 0);
    ASSERT_EQ(unlink("/dev/hd/sda1"), 0);
    ASSERT_EQ(mknod("/dev/hd/sda1", S_IFBLK | 0660, makedev(1, 3)), 0);
    rig::udev();
    EXPECT_FALSE(exists("/dev/hd/sda7"));
    expect_partition_nodes(d);

    make_ext4(rig::partition(d, 2));
    ASSERT_EQ(mkdir("/mnt/sda", 0755), 0);
    rig::sh("mount -t ext4 /dev/hd/sda2 /mnt/sda");
    EXPECT_TRUE(mounted_from("/proc/mounts", "/dev/hd/sda2", "/mnt/sda", "ext4"));
    EXPECT_FALSE(mounted_from("/proc/1/mounts", "/dev/hd/sda2", "/mnt/sda", "ext4"));
    rig::sh("echo kept >/mnt/sda/probe && sync");

    rig::unplug(d);
    EXPECT_TRUE(d.loop.empty());
    EXPECT_FALSE(exists("/dev/hd/sda"));
    for (int n = 1; n <= kPartitions; ++n) EXPECT_FALSE(exists(rig::partition(d, n)));
    EXPECT_EQ(mounted_type("/proc/mounts", "/mnt/sda"), "");
    EXPECT_EQ(rig::sh("losetup -j " + rig::quote(d.image)), "");
    EXPECT_THROW(rig::unplug(d), std::runtime_error);

    rig::replug(d);
    ASSERT_FALSE(d.loop.empty());
    EXPECT_EQ(node_numbers(d.node), node_numbers(d.loop));
    expect_partition_nodes(d);
    rig::sh("mount -t ext4 /dev/hd/sda2 /mnt/sda");
    EXPECT_EQ(rig::sh("cat /mnt/sda/probe"), "kept\n");
    EXPECT_THROW(rig::replug(d), std::runtime_error);
    rig::unplug(d);
    EXPECT_EQ(mounted_type("/proc/mounts", "/mnt/sda"), "");

    // A new disk on the letter of an unplugged one is blank.
    rig::Disk fresh = rig::attach('a', kSmallDiskBytes);
    EXPECT_EQ(device_bytes(fresh.node), kSmallDiskBytes);
    EXPECT_FALSE(exists("/dev/hd/sda1"));
    EXPECT_EQ(kernel_partition(fresh, 1), "");
    rig::unplug(fresh);
}

TEST(RigDisk, LargeDiskTakesGptLabel) {
    rig::Disk d = rig::attach('b', kGptDiskBytes);
    EXPECT_EQ(device_bytes(d.node), kGptDiskBytes);
    const std::string parted = "parted -s /dev/hd/sdb ";
    rig::sh(parted + "mklabel gpt");
    rig::sh(parted + "mkpart primary 0 128M");
    rig::sh(parted + "mkpart primary 128M 32GB");
    rig::sh(parted + "mkpart primary 32GB 100%");
    EXPECT_NE(rig::sh(parted + "print").find("Partition Table: gpt"), std::string::npos);
    rig::udev();
    expect_partition_nodes(d);
    rig::unplug(d);
    EXPECT_EQ(rig::sh("losetup -j " + rig::quote(d.image)), "");
}

TEST(RigDisk, DirectIoAttach) {
    rig::Disk d = rig::attach('c', kSmallDiskBytes, true);
    EXPECT_EQ(read_line("/sys/block/" + loop_name(d) + "/loop/dio"), "1");
    rig::unplug(d);
}

TEST(RigTools, PartprobeTouchesOnlyRigDisks) {
    rig::Disk a = rig::attach('d', kMbrDiskBytes);
    rig::Disk b = rig::attach('e', kSmallDiskBytes);
    rig::partition_simple(a);

    // A whole-disk node that is not a loop device (here: a partition) is not a rig disk.
    struct stat part1;
    ASSERT_EQ(stat(rig::partition(a, 1).c_str(), &part1), 0);
    ASSERT_EQ(mknod("/dev/hd/sdh", S_IFBLK | 0660, part1.st_rdev), 0);

    // The wrapper hands the real program the loop devices of the rig's disks and nothing else.
    const std::string log = rig::dir() + "/partprobe.log";
    const std::string stub = rig::dir() + "/partprobe-stub";
    {
        std::ofstream out(stub);
        out << "#!/bin/sh\necho \"$*\" >>" << rig::quote(log) << "\n";
    }
    ASSERT_EQ(chmod(stub.c_str(), 0755), 0);
    const std::string env = "RECSTORE_RIG_PARTPROBE=" + rig::quote(stub) + " ";
    rig::sh(env + "/mnt/app/partprobe");
    std::ifstream in(log);
    std::vector<std::string> calls;
    for (std::string line; std::getline(in, line);) calls.push_back(line);
    EXPECT_EQ(calls, (std::vector<std::string>{a.loop, b.loop}));

    // With arguments it is the real program.
    rig::sh(env + "/mnt/app/partprobe -s /dev/hd/sdd");
    std::ifstream again(log);
    calls.clear();
    for (std::string line; std::getline(again, line);) calls.push_back(line);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2], "-s /dev/hd/sdd");
    ASSERT_EQ(unlink("/dev/hd/sdh"), 0);

    // For real, bare, with a partition mounted: it succeeds and the nodes still match.
    make_ext4(rig::partition(a, 2));
    ASSERT_EQ(mkdir("/mnt/sdd", 0755), 0);
    rig::sh("mount -t ext4 /dev/hd/sdd2 /mnt/sdd");
    rig::sh("/mnt/app/partprobe");
    expect_partition_nodes(a);
    EXPECT_TRUE(mounted_from("/proc/mounts", "/dev/hd/sdd2", "/mnt/sdd", "ext4"));

    // A partition removed behind the kernel's back (in the image file, not through the loop
    // device) goes away with the next bare run.
    rig::sh("umount /mnt/sdd");
    rig::sh("parted -s " + rig::quote(a.image) + " rm 3");
    rig::sh("blockdev --flushbufs " + rig::quote(a.loop));
    ASSERT_FALSE(kernel_partition(a, 3).empty());
    rig::sh("/mnt/app/partprobe");
    EXPECT_EQ(kernel_partition(a, 3), "");
    EXPECT_FALSE(exists("/dev/hd/sdd3"));
    EXPECT_EQ(node_numbers("/dev/hd/sdd2"), kernel_partition(a, 2));
    rig::unplug(a);
    rig::unplug(b);
}

TEST(RigRun, RefusesWithoutRoot) {
    ASSERT_FALSE(rig_home().empty());
    // The checkout may sit in a directory other users cannot enter: run a copy of the script
    // from a directory they can.
    char copy_dir[] = "/tmp/recstore-rigrun.XXXXXX";
    ASSERT_NE(mkdtemp(copy_dir), nullptr);
    const std::string copy = std::string(copy_dir) + "/rig-run";
    rig::sh("chmod 755 " + rig::quote(copy_dir) + " && cp " + rig::quote(rig_home() + "/rig-run") +
            " " + rig::quote(copy) + " && chmod 755 " + rig::quote(copy));
    std::string out;
    const int status = rig::run(
        "setpriv --reuid=65534 --regid=65534 --clear-groups " + rig::quote(copy) + " true", &out);
    rig::run("rm -rf " + rig::quote(copy_dir));
    EXPECT_EQ(status, 77) << out;
    EXPECT_NE(out.find("rig: needs root"), std::string::npos) << out;
}

TEST(RigRun, SweepsRigsOfKilledRuns) {
    ASSERT_FALSE(rig_home().empty());
    // A rig directory whose owner is gone, with an image still attached to a loop device.
    char stale_template[] = "/var/tmp/recstore-rig.XXXXXX";
    ASSERT_NE(mkdtemp(stale_template), nullptr);
    const std::string stale = stale_template;
    {
        std::ofstream owner(stale + "/owner");
        owner << "999999999 1\n";
    }
    const std::string image = stale + "/sdh.img";
    rig::sh("truncate -s 64M " + rig::quote(image));
    const std::string loop = rig::sh("losetup -f --show " + rig::quote(image));
    ASSERT_FALSE(loop.empty());

    std::string out;
    const int status = rig::run(rig::quote(rig_home() + "/rig-run") + " true", &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("removing stale rig " + stale), std::string::npos) << out;
    EXPECT_FALSE(exists(stale));
    const std::string left = rig::sh("losetup -j " + rig::quote(image));
    EXPECT_EQ(left, "");
    // Our own rig, whose owner lives, is left alone.
    EXPECT_TRUE(exists(rig::dir() + "/owner"));

    if (!left.empty()) rig::run("losetup -d " + loop);
    rig::run("rm -rf " + rig::quote(stale));
}

TEST(RigRun, KeepsTheExitStatus) {
    ASSERT_FALSE(rig_home().empty());
    std::string out;
    EXPECT_EQ(rig::run(rig::quote(rig_home() + "/rig-run") + " sh -c 'exit 5'", &out), 5) << out;
    EXPECT_EQ(rig::run(rig::quote(rig_home() + "/rig-run") +
                           " sh -c 'test -d /dev/hd && test -x /mnt/app/udevstart'",
                       &out),
              0)
        << out;
}

}  // namespace
