// Disk preparation on real loop-backed disks inside the rig: partitioning by disk size (MBR and
// 8GB up to 512 GiB, GPT and 32GB above), the ext4 file systems, the check, the mounts with their
// options, the probe of whole disks, a disk the system runs from, and the tool search in the
// recorder's application directory.
#include <mntent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "capture.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint64_t kMbrLimit = 512 * kGiB;  // 549755813888 bytes
constexpr uint64_t kSector = 512;
constexpr uint64_t kSystemEnd = 128000000ull;      // "128M"
constexpr uint64_t kMbrIndexEnd = 8000000000ull;   // "8GB"
constexpr uint64_t kGptIndexEnd = 32000000000ull;  // "32GB"
constexpr uint64_t kBoundaryFuzz = 500000000ull;   // parted's rounding range of a "GB" position
constexpr uint64_t kSmallFuzz = 1000000ull;        // ... of an "M" position

using recstore_test::contains;

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::string s;
    std::getline(in, s);
    return s;
}

// Start and length in bytes of a partition, as the kernel sees it.
struct Extent {
    uint64_t start = 0;
    uint64_t bytes = 0;
    uint64_t end() const { return start + bytes; }
};

Extent partition_extent(const rig::Disk &disk, int number) {
    const std::string loop = disk.loop.substr(disk.loop.rfind('/') + 1);
    const std::string base = "/sys/class/block/" + loop + "/" + loop + "p" + std::to_string(number);
    Extent e;
    e.start = std::strtoull(read_file(base + "/start").c_str(), nullptr, 10) * kSector;
    e.bytes = std::strtoull(read_file(base + "/size").c_str(), nullptr, 10) * kSector;
    return e;
}

// The mount of `source` on `dir` in this namespace, with its options ("" when absent).
bool find_mount(const std::string &source, const std::string &dir, std::string *options) {
    FILE *table = setmntent("/proc/self/mounts", "r");
    if (table == nullptr) return false;
    bool found = false;
    struct mntent entry;
    char buf[4096];
    while (getmntent_r(table, &entry, buf, sizeof buf) != nullptr) {
        if (source == entry.mnt_fsname && dir == entry.mnt_dir) {
            found = true;
            if (options) *options = entry.mnt_opts;
        }
    }
    endmntent(table);
    return found;
}

bool has_option(const std::string &options, const std::string &opt) {
    return contains("," + options + ",", "," + opt + ",");
}

std::string tool_cmd(const char *tool) {
    char cmd[RECSTORE_PATH_LEN] = "";
    EXPECT_EQ(fs_get_cmd(tool, cmd, sizeof cmd), 0) << tool;
    return cmd;
}

class DiskPrep : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run this program through tests/rig/rig-run as root";
    }
    void TearDown() override {
        for (rig::Disk &d : disks_) {
            try {
                if (!d.loop.empty()) rig::unplug(d);
            } catch (const std::exception &e) {
                ADD_FAILURE() << e.what();
            }
            unlink(d.image.c_str());
        }
        if (fs_log_is_inited()) fs_log_exit();
    }
    rig::Disk &attach(char letter, uint64_t bytes) {
        disks_.push_back(rig::attach(letter, bytes));
        return disks_.back();
    }

    // Formats the disk through the library and checks the commands it printed for the label.
    std::string format(const rig::Disk &disk, bool gpt) {
        StdoutCapture out;
        const int result = fs_format(disk.node.c_str());
        const std::string text = out.stop();
        EXPECT_EQ(result, 0) << text;
        const std::string parted = tool_cmd("parted") + " -s " + disk.node;
        const std::string end = gpt ? "32GB" : "8GB";
        const std::string mkfs = tool_cmd("mkfs.ext4");
        const std::string expected[] = {
            "system is not running on " + disk.node + ",parted it\n",
            parted + " rm 1\n\n",
            parted + " rm 8\n\n",
            "disksize:" + std::to_string(disk.bytes) + (gpt ? " use gpt\n" : " use mbr\n"),
            parted + (gpt ? " mklabel gpt\n\n" : " mklabel msdos\n\n"),
            parted + " mkpart primary 0 128M\n\n",
            parted + " mkpart primary 128M " + end + "\n\n",
            parted + " mkpart primary " + end + " 100% \n\n",
            parted + " print\n\n",
            "notify to kernel the change of partion table\n",
            "try to check " + disk.node + "1 for 0 times\n",
            "building filesystem\n",
            mkfs + " -j -F " + disk.node + "1\n\n",
            mkfs + " -i 4096 -j -F " + disk.node + "2\n\n",
        };
        size_t at = 0;
        for (const std::string &line : expected) {
            const size_t pos = text.find(line, at);
            EXPECT_NE(pos, std::string::npos) << "missing or out of order: " << line << "\n"
                                              << text;
            if (pos != std::string::npos) at = pos + line.size();
        }
        return text;
    }

    // Checks the partition table: label, partition 1 to 128M, partition 2 to the index end,
    // partition 3 to the end of the disk.
    void expect_layout(const rig::Disk &disk, bool gpt) {
        const std::string table = rig::sh("parted -s " + disk.node + " unit B print");
        EXPECT_TRUE(contains(table, gpt ? "Partition Table: gpt" : "Partition Table: msdos"))
            << table;
        const Extent p1 = partition_extent(disk, 1), p2 = partition_extent(disk, 2),
                     p3 = partition_extent(disk, 3);
        const uint64_t index_end = gpt ? kGptIndexEnd : kMbrIndexEnd;
        EXPECT_NEAR(static_cast<double>(p1.end()), static_cast<double>(kSystemEnd),
                    static_cast<double>(kSmallFuzz));
        EXPECT_LE(p1.end(), p2.start);
        EXPECT_NEAR(static_cast<double>(p2.end()), static_cast<double>(index_end),
                    static_cast<double>(kBoundaryFuzz));
        EXPECT_LE(p2.end(), p3.start);
        EXPECT_NEAR(static_cast<double>(p3.start), static_cast<double>(index_end),
                    static_cast<double>(kBoundaryFuzz));
        EXPECT_LE(p3.end(), disk.bytes);
        EXPECT_GE(p3.end() + 2 * 1024 * 1024, disk.bytes);  // to the end, less GPT's backup
    }

    // The index partition holds one inode per 4096 bytes.
    void expect_index_inodes(const rig::Disk &disk) {
        const std::string info = rig::sh("dumpe2fs -h " + disk.node + "2 2>/dev/null");
        const size_t at = info.find("Inode count:");
        ASSERT_NE(at, std::string::npos) << info;
        const uint64_t inodes = std::strtoull(info.c_str() + at + 12, nullptr, 10);
        const uint64_t bytes = partition_extent(disk, 2).bytes;
        EXPECT_NEAR(static_cast<double>(inodes * 4096), static_cast<double>(bytes),
                    static_cast<double>(bytes) * 0.02);
    }

    // Check, mount, the mount tests, the check refused while mounted, unmount.
    void check_mount_umount(const rig::Disk &disk) {
        const std::string mnt = "/mnt/sd" + std::string(1, disk.letter);
        {
            StdoutCapture out;
            const int result = fs_chk(disk.node.c_str());
            const std::string text = out.stop();
            EXPECT_EQ(result, 0) << text;
            EXPECT_TRUE(contains(text, "fsck.ext4 -y " + disk.node + "2\n")) << text;
        }
        {
            StdoutCapture out;
            const int result = fs_mount(disk.node.c_str());
            const std::string text = out.stop();
            EXPECT_EQ(result, 0) << text;
            EXPECT_TRUE(
                contains(text, "mount -t ext4 -o noatime,nodiratime " + disk.node + "1 /mnt/img\n"))
                << text;
            EXPECT_TRUE(contains(text, "mount -t ext4 -o noatime,nodiratime,data=writeback " +
                                           disk.node + "2 " + mnt + "\n"))
                << text;
        }
        std::string sys_opts, idx_opts;
        ASSERT_TRUE(find_mount(disk.node + "1", "/mnt/img", &sys_opts));
        ASSERT_TRUE(find_mount(disk.node + "2", mnt, &idx_opts));
        EXPECT_TRUE(has_option(sys_opts, "noatime")) << sys_opts;
        EXPECT_TRUE(has_option(sys_opts, "nodiratime")) << sys_opts;
        EXPECT_FALSE(has_option(sys_opts, "data=writeback")) << sys_opts;
        EXPECT_TRUE(has_option(idx_opts, "noatime")) << idx_opts;
        EXPECT_TRUE(has_option(idx_opts, "nodiratime")) << idx_opts;
        EXPECT_TRUE(has_option(idx_opts, "data=writeback")) << idx_opts;

        EXPECT_EQ(fs_ismounted(disk.node.c_str()), 1);
        EXPECT_EQ(is_img_mounted(), 1);
        EXPECT_EQ(is_img_mounted_on_hd(disk.node.c_str()), 1);
        EXPECT_EQ(is_running_on_hd(disk.node.c_str()), 0);
        EXPECT_EQ(fs_log_is_inited(), 1);
        EXPECT_EQ(find_mount_point(mnt.c_str(), nullptr), 1);

        {
            LogMask info(RECSTORE_LOG_INFO);
            StdoutCapture out;
            const int result = fs_chk(disk.node.c_str());
            const std::string text = out.stop();
            EXPECT_EQ(result, 0) << text;
            EXPECT_TRUE(contains(text, "must umount :" + mnt + " before check\n")) << text;
            EXPECT_FALSE(contains(text, "fsck.ext4")) << text;
        }
        {
            StdoutCapture out;
            EXPECT_EQ(fs_umount(disk.node.c_str()), 0);
            const std::string text = out.stop();
            EXPECT_TRUE(contains(text, "umount -f /mnt/img\n\n")) << text;
            EXPECT_TRUE(contains(text, "umount -f " + mnt + "\n\n")) << text;
        }
        EXPECT_FALSE(find_mount(disk.node + "1", "/mnt/img", nullptr));
        EXPECT_FALSE(find_mount(disk.node + "2", mnt, nullptr));
        EXPECT_EQ(fs_ismounted(disk.node.c_str()), 0);
        EXPECT_EQ(is_img_mounted(), 0);
        EXPECT_EQ(fs_log_is_inited(), 0);
    }

    std::deque<rig::Disk> disks_;
};

TEST_F(DiskPrep, SmallDiskGetsMbrAnd8GB) {
    rig::Disk &disk = attach('a', 200 * kGiB);
    format(disk, false);
    expect_layout(disk, false);
    expect_index_inodes(disk);
    check_mount_umount(disk);
}

TEST_F(DiskPrep, LargeDiskGetsGptAnd32GB) {
    rig::Disk &disk = attach('b', 600 * kGiB);
    format(disk, true);
    expect_layout(disk, true);
    check_mount_umount(disk);
}

TEST_F(DiskPrep, Exactly512GiBGetsMbr) {
    rig::Disk &disk = attach('c', kMbrLimit);
    format(disk, false);
    expect_layout(disk, false);
}

TEST_F(DiskPrep, OneSectorMoreThan512GiBGetsGpt) {
    rig::Disk &disk = attach('d', kMbrLimit + kSector);
    format(disk, true);
    expect_layout(disk, true);
}

// A disk the system runs from (its partition 1 on /mnt/img, the application image /dev/loop0 on
// /mnt/app) keeps its table and partition 1; only partition 2 is rebuilt, and unmounting leaves
// the system partition alone.
TEST_F(DiskPrep, RunningSystemDiskKeepsTableAndSystemPartition) {
    rig::Disk &disk = attach('e', 200 * kGiB);
    const std::string dir = rig::dir();
    rig::partition_simple(disk);
    rig::sh("mkfs.ext4 -q -F " + disk.node + "1 && mkfs.ext4 -q -F " + disk.node + "2");
    const Extent before[] = {partition_extent(disk, 1), partition_extent(disk, 2),
                             partition_extent(disk, 3)};
    rig::sh("mkdir -p " + dir + "/p2 && mount " + disk.node + "2 " + dir + "/p2 && touch " + dir +
            "/p2/old-index && umount " + dir + "/p2");
    rig::sh("mount " + disk.node + "1 /mnt/img && touch /mnt/img/system-file");
    // The application image: a tmpfs named /dev/loop0 that still holds the rig's tools.
    rig::sh("mkdir -p " + dir + "/app && cp -a /mnt/app/. " + dir +
            "/app/ && mount -t tmpfs /dev/loop0 /mnt/app && cp -a " + dir + "/app/. /mnt/app/");
    EXPECT_EQ(is_running_on_hd(disk.node.c_str()), 1);

    StdoutCapture out;
    const int result = fs_format(disk.node.c_str());
    const std::string text = out.stop();
    EXPECT_EQ(result, 0) << text;
    EXPECT_TRUE(contains(text, "running on hd :" + disk.node + ",not need to parted\n")) << text;
    EXPECT_FALSE(contains(text, "mklabel")) << text;
    EXPECT_FALSE(contains(text, " rm 1")) << text;
    EXPECT_FALSE(contains(text, " -j -F " + disk.node + "1")) << text;
    EXPECT_TRUE(contains(text, " -i 4096 -j -F " + disk.node + "2\n\n")) << text;

    for (int n = 1; n <= 3; n++) {
        const Extent now = partition_extent(disk, n);
        EXPECT_EQ(now.start, before[n - 1].start) << "partition " << n;
        EXPECT_EQ(now.bytes, before[n - 1].bytes) << "partition " << n;
    }
    EXPECT_EQ(access("/mnt/img/system-file", F_OK), 0) << "partition 1 was rebuilt";
    rig::sh("mount " + disk.node + "2 " + dir + "/p2");
    EXPECT_NE(access((dir + "/p2/old-index").c_str(), F_OK), 0) << "partition 2 was not rebuilt";
    rig::sh("umount " + dir + "/p2");

    // Unmounting the running disk leaves its system partition mounted.
    ASSERT_EQ(fs_mount(disk.node.c_str()), 0);
    EXPECT_EQ(fs_umount(disk.node.c_str()), 0);
    EXPECT_TRUE(find_mount(disk.node + "1", "/mnt/img", nullptr));
    EXPECT_FALSE(find_mount(disk.node + "2", "/mnt/sde", nullptr));

    rig::sh("umount /mnt/app && umount /mnt/img");
    EXPECT_EQ(is_running_on_hd(disk.node.c_str()), 0);
}

// Only whole disks sda..sdh are listed, sorted by disk id; other nodes are never used. The disks
// appear in the order g, h, f, which is out of order whether the directory lists its entries in
// the order they were made or in the reverse.
TEST_F(DiskPrep, ProbeListsWholeDisksOnly) {
    rig::Disk &g = attach('g', 16 * kGiB);
    rig::Disk &h = attach('h', 16 * kGiB);
    rig::Disk &f = attach('f', 16 * kGiB);
    rig::partition_simple(f);
    struct stat st;
    ASSERT_EQ(stat(f.node.c_str(), &st), 0);
    const std::string numbers =
        std::to_string(major(st.st_rdev)) + " " + std::to_string(minor(st.st_rdev));
    struct Fakes {
        const char *names[4] = {"/dev/hd/sd;", "/dev/hd/sdz", "/dev/hd/sdab", "/dev/hd/sdf9"};
        ~Fakes() {
            for (const char *name : names) unlink(name);
        }
    } fakes;
    for (const char *fake : fakes.names) rig::sh(std::string("mknod '") + fake + "' b " + numbers);

    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    memset(list, 'x', sizeof list);
    int count = -1;
    EXPECT_EQ(fs_probe(list, &count), 0);
    ASSERT_EQ(count, 3);
    EXPECT_STREQ(list[0], f.node.c_str());
    EXPECT_STREQ(list[1], g.node.c_str());
    EXPECT_STREQ(list[2], h.node.c_str());
    EXPECT_EQ(list[3][0], '\0');
    EXPECT_EQ(is_img_mounted(), 0);

    StdoutCapture out;
    EXPECT_EQ(fs_format("/dev/hd/sd;"), -1);
    EXPECT_EQ(fs_format("/dev/hd/sdz"), -1);
    EXPECT_EQ(fs_chk("/dev/hd/sd;"), -1);
    EXPECT_EQ(fs_mount("/dev/hd/sdz"), -1);
    EXPECT_EQ(fs_umount("/dev/hd/sd;"), -1);
    const std::string text = out.stop();
    EXPECT_FALSE(contains(text, "parted")) << text;
    EXPECT_FALSE(contains(text, "mount -t")) << text;
    EXPECT_FALSE(contains(text, "umount")) << text;
    EXPECT_FALSE(contains(text, "fsck")) << text;
}

// A partitioned disk without file systems: the index mount fails and fs_mount says so.
TEST_F(DiskPrep, MountWithoutFileSystemsFails) {
    rig::Disk &disk = attach('h', 16 * kGiB);
    rig::partition_simple(disk);
    StdoutCapture out;
    const int result = fs_mount(disk.node.c_str());
    const std::string text = out.stop();
    EXPECT_EQ(result, -1) << text;
    EXPECT_TRUE(contains(text, "mount -t ext4 -o remount,noatime,nodiratime,data=writeback " +
                                   disk.node + "2 /mnt/sdh\n"))
        << text;
    EXPECT_TRUE(contains(text, "mount return :")) << text;
    EXPECT_EQ(fs_ismounted(disk.node.c_str()), 0);
    fs_umount(disk.node.c_str());
}

// fsck.ext4 is run by name: a stand-in first in PATH returns each status in turn. 0, 1 and 2 are
// success (1 and 2 with a warning), anything else a failure.
TEST_F(DiskPrep, CheckStatuses) {
    rig::Disk &disk = attach('b', 16 * kGiB);
    rig::partition_simple(disk);
    const std::string bin = rig::dir() + "/fakebin";
    rig::sh("mkdir -p " + bin + " && printf '#!/bin/sh\\necho \"$*\" >" + bin +
            "/args\\nexit $(cat " + bin + "/status)\\n' >" + bin + "/fsck.ext4 && chmod 755 " +
            bin + "/fsck.ext4");
    const std::string old_path = getenv("PATH");
    setenv("PATH", (bin + ":" + old_path).c_str(), 1);
    const struct {
        int status;
        int result;
        const char *warning;
    } cases[] = {{0, 0, nullptr},
                 {1, 0, "File system errors corrected\n"},
                 {2, 0, "File system errors corrected, system should be rebooted\n"},
                 {4, -1, nullptr},
                 {8, -1, nullptr}};
    LogMask warnings(RECSTORE_LOG_WARNING);
    for (const auto &c : cases) {
        rig::sh("echo " + std::to_string(c.status) + " >" + bin + "/status");
        StdoutCapture out;
        const int result = fs_chk(disk.node.c_str());
        const std::string text = out.stop();
        EXPECT_EQ(result, c.result) << "status " << c.status << "\n" << text;
        EXPECT_TRUE(contains(text, "fsck.ext4 -y " + disk.node + "2\n")) << text;
        EXPECT_EQ(contains(text, "File system errors corrected"), c.warning != nullptr) << text;
        if (c.warning) {
            EXPECT_TRUE(contains(text, c.warning)) << text;
        }
        EXPECT_EQ(rig::sh("cat " + bin + "/args"), "-y " + disk.node + "2\n");
    }
    setenv("PATH", old_path.c_str(), 1);
}

// A disk without partitions: the check waits for the nodes, then gives up without checking.
TEST_F(DiskPrep, CheckWithoutPartitionNodesSkips) {
    rig::Disk &disk = attach('a', 1 * kGiB);
    StdoutCapture out;
    const int result = fs_chk(disk.node.c_str());
    const std::string text = out.stop();
    EXPECT_EQ(result, 0) << text;
    EXPECT_TRUE(contains(text, "try to check " + disk.node + "1 " + disk.node + "2 for 7 times\n"))
        << text;
    EXPECT_FALSE(contains(text, "fsck.ext4")) << text;
}

// The recorder's application directory comes first, and parted gets " -f" only when its help
// mentions "fix".
TEST_F(DiskPrep, ToolsInApplicationDirectory) {
    EXPECT_EQ(tool_cmd("partprobe"), "/mnt/app/partprobe");
    EXPECT_EQ(tool_cmd("udevstart"), "/mnt/app/udevstart");

    rig::sh(
        "printf '#!/bin/sh\\necho \"  -f, --fix    fix instead of abort\"\\n' >/mnt/app/parted"
        " && chmod 755 /mnt/app/parted");
    EXPECT_EQ(tool_cmd("parted"), "/mnt/app/parted -f");
    rig::sh("printf '#!/bin/sh\\necho \"  -s, --script   never prompts\"\\n' >/mnt/app/parted");
    EXPECT_EQ(tool_cmd("parted"), "/mnt/app/parted");
    unlink("/mnt/app/parted");
    EXPECT_NE(tool_cmd("parted"), "/mnt/app/parted");
}

}  // namespace
