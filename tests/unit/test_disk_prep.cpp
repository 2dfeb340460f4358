// Disk preparation without devices: the size -> label decision, the checks on device names and
// disk ids that keep bad names away from every command line, the tool search order and the
// parted " -f" decision, the version strings, and the read-only refusal of the check.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "fs.h"
#include "recstore.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr uint64_t kMbrLimit = 512 * kGiB;

bool exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// --- the label decision ----------------------------------------------------------------------

TEST(DiskLayout, LimitIs512GiB) {
    EXPECT_EQ(recstore::kMbrMaxDiskBytes, 549755813888ull);
}

TEST(DiskLayout, Exactly512GiBGetsMbrAnd8GB) {
    const recstore::DiskLayout layout = recstore::disk_layout_for_size(kMbrLimit);
    EXPECT_FALSE(layout.gpt);
    EXPECT_STREQ(layout.label, "msdos");
    EXPECT_STREQ(layout.kind, "mbr");
    EXPECT_STREQ(layout.index_end, "8GB");
}

TEST(DiskLayout, OneByteMoreGetsGptAnd32GB) {
    const recstore::DiskLayout layout = recstore::disk_layout_for_size(kMbrLimit + 1);
    EXPECT_TRUE(layout.gpt);
    EXPECT_STREQ(layout.label, "gpt");
    EXPECT_STREQ(layout.kind, "gpt");
    EXPECT_STREQ(layout.index_end, "32GB");
}

TEST(DiskLayout, SmallAndLargeDisks) {
    EXPECT_FALSE(recstore::disk_layout_for_size(0).gpt);
    EXPECT_FALSE(recstore::disk_layout_for_size(200 * kGiB).gpt);
    EXPECT_FALSE(recstore::disk_layout_for_size(kMbrLimit - 1).gpt);
    EXPECT_TRUE(recstore::disk_layout_for_size(kMbrLimit + 512).gpt);
    EXPECT_TRUE(recstore::disk_layout_for_size(600 * kGiB).gpt);
    EXPECT_TRUE(recstore::disk_layout_for_size(16 * 1024 * kGiB).gpt);
}

// --- device names and disk ids ---------------------------------------------------------------

TEST(DiskNames, WholeDiskNodesOfEightDisks) {
    for (char c = 'a'; c <= 'h'; c++) {
        const std::string dev = std::string("/dev/hd/sd") + c;
        EXPECT_TRUE(recstore::is_disk_node_name(dev.c_str())) << dev;
        EXPECT_EQ(recstore::checked_disk_id(dev.c_str()), c - 'a') << dev;
    }
}

TEST(DiskNames, EverythingElseIsRefused) {
    const char *bad[] = {"/dev/hd/sd;",
                         "/dev/hd/sdz",
                         "/dev/hd/sdi",
                         "/dev/hd/sd",
                         "/dev/hd/sda1",
                         "/dev/hd/sda;reboot",
                         "/dev/hd/sda ",
                         "/dev/sda",
                         "/dev/hd/sdA",
                         "dev/hd/sda",
                         "",
                         "/dev/hd/sd`"};
    LogMask quiet(0);
    for (const char *dev : bad) {
        EXPECT_FALSE(recstore::is_disk_node_name(dev)) << dev;
        EXPECT_EQ(recstore::checked_disk_id(dev), -1) << dev;
    }
    EXPECT_FALSE(recstore::is_disk_node_name(nullptr));
    EXPECT_EQ(recstore::checked_disk_id(nullptr), -1);
}

TEST(DiskNames, DiskIdOfDevicePath) {
    EXPECT_EQ(fs_diskid(nullptr), -1);
    EXPECT_EQ(fs_diskid("/dev/hd/sda"), 0);
    EXPECT_EQ(fs_diskid("/dev/hd/sdc"), 2);
    EXPECT_EQ(fs_diskid("/dev/hd/sdh"), 7);
    EXPECT_EQ(fs_diskid("/dev/hd/sd;"), ';' - 'a');  // -38: negative, refused by every user
}

TEST(DiskNames, BadIdIsReportedAsError) {
    LogMask errors(RECSTORE_LOG_ERROR);
    StdoutCapture out;
    EXPECT_EQ(recstore::checked_disk_id("/dev/hd/sd;"), -1);
    const std::string text = out.stop();
    EXPECT_NE(text.find("invalid disk id:-38\n"), std::string::npos) << text;
}

TEST(DiskNames, DevnameOfTheDiskTable) {
    EXPECT_EQ(fs_devname(-1), nullptr);
    EXPECT_EQ(fs_devname(8), nullptr);
    EXPECT_EQ(fs_devname(-38), nullptr);
    char saved[RECSTORE_PATH_LEN];
    memcpy(saved, g_disk[3].devname, sizeof saved);
    g_disk[3].devname[0] = '\0';
    EXPECT_EQ(fs_devname(3), nullptr);
    snprintf(g_disk[3].devname, sizeof g_disk[3].devname, "%s", "/dev/hd/sdd");
    ASSERT_NE(fs_devname(3), nullptr);
    EXPECT_STREQ(fs_devname(3), "/dev/hd/sdd");
    memcpy(g_disk[3].devname, saved, sizeof saved);
}

// Bad names never reach a command: the operations fail before anything is printed but the
// error, and no tool runs.
TEST(Refusals, BadNamesNeverReachACommand) {
    const char *bad[] = {"/dev/hd/sd;", "/dev/hd/sdz", "/dev/hd/sda;touch /tmp/x", "/dev/hd/sda1",
                         nullptr};
    LogMask all(0xffff);
    for (const char *dev : bad) {
        StdoutCapture out;
        EXPECT_EQ(fs_format(dev), -1);
        EXPECT_EQ(fs_chk(dev), -1);
        EXPECT_EQ(fs_mount(dev), -1);
        EXPECT_EQ(fs_umount(dev), -1);
        EXPECT_EQ(is_running_on_hd(dev), 0);
        EXPECT_EQ(is_img_mounted_on_hd(dev), 0);
        EXPECT_EQ(fs_ismounted(dev), 0);
        const std::string text = out.stop();
        const std::string shown = dev ? dev : "(null)";
        EXPECT_EQ(text.find("parted"), std::string::npos) << shown << "\n" << text;
        EXPECT_EQ(text.find("mount -t"), std::string::npos) << shown << "\n" << text;
        EXPECT_EQ(text.find("umount"), std::string::npos) << shown << "\n" << text;
        EXPECT_EQ(text.find("fsck"), std::string::npos) << shown << "\n" << text;
        EXPECT_EQ(text.find("notify"), std::string::npos) << shown << "\n" << text;
        EXPECT_NE(text.find("invalid disk"), std::string::npos) << shown << "\n" << text;
    }
}

TEST(Refusals, FormatOfAMissingDeviceFailsAtOpen) {
    if (exists("/dev/hd/sdh")) {
        GTEST_SKIP() << "/dev/hd/sdh exists on this machine";
    }
    StdoutCapture out;
    EXPECT_EQ(fs_format("/dev/hd/sdh"), -1);
    EXPECT_EQ(out.stop(), "open dev:/dev/hd/sdh error\n");
}

TEST(Refusals, CheckInReadOnlyMode) {
    const int saved = g_fs_rdonly;
    g_fs_rdonly = 1;
    StdoutCapture out;
    const int result = fs_chk("/dev/hd/sda");
    const std::string text = out.stop();
    g_fs_rdonly = saved;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(text, "fs_chkdata readonly\n");
}

TEST(Refusals, ProbeNeedsItsOutputs) {
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
    EXPECT_EQ(fs_probe(nullptr, &count), -1);
    EXPECT_EQ(fs_probe(list, nullptr), -1);
}

TEST(Probe, NoDiskDirectoryGivesNoDisks) {
    if (exists("/dev/hd")) {
        GTEST_SKIP() << "/dev/hd exists on this machine";
    }
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 5;
    EXPECT_EQ(fs_probe(list, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(is_img_mounted(), 0);
}

// --- version strings -------------------------------------------------------------------------

TEST(Version, ByMagic) {
    const uint32_t saved = g_magic[2];
    const struct {
        uint32_t magic;
        const char *version;
    } cases[] = {{RECSTORE_MAGIC_V7, "7.0.0.0"},
                 {RECSTORE_MAGIC_V6, "6.0.0.0"},
                 {RECSTORE_MAGIC_V5, "5.0.0.0"},
                 {RECSTORE_MAGIC_V1, "1.0.0.2"},
                 {0u, ""},
                 {0x12345678u, ""}};
    for (const auto &c : cases) {
        g_magic[2] = c.magic;
        EXPECT_STREQ(fs_version(2), c.version) << std::hex << c.magic;
    }
    g_magic[2] = saved;
    EXPECT_STREQ(fs_version(8), "");
    EXPECT_STREQ(fs_version(-1), "");
    EXPECT_STREQ(fs_version(-38), "");
}

// --- tool search -----------------------------------------------------------------------------

// Runs each test in a fresh temporary directory (the "." of the tool search).
class ToolSearch : public ::testing::Test {
  protected:
    void SetUp() override {
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        old_cwd_ = cwd;
        char tmpl[] = "/tmp/recstore-tools.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_EQ(chdir(dir_.c_str()), 0);
    }
    void TearDown() override {
        if (!old_cwd_.empty()) {
            EXPECT_EQ(chdir(old_cwd_.c_str()), 0);
        }
        for (const std::string &name : made_) unlink((dir_ + "/" + name).c_str());
        if (!dir_.empty()) rmdir(dir_.c_str());
    }
    // A shell script named `name` in "." whose -h output is `help`.
    void fake_tool(const std::string &name, const std::string &help) {
        const std::string path = dir_ + "/" + name;
        std::ofstream f(path);
        f << "#!/bin/sh\ncat <<'HELP'\n" << help << "\nHELP\n";
        f.close();
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
        made_.push_back(name);
    }
    // Skips when the recorder's application directory would win over ".".
    bool app_has(const std::string &name) { return exists("/mnt/app/" + name); }

    std::string get(const char *tool, int *result) {
        char out[RECSTORE_PATH_LEN] = "untouched";
        *result = fs_get_cmd(tool, out, sizeof out);
        return out;
    }

    std::string old_cwd_, dir_;
    std::vector<std::string> made_;
};

TEST_F(ToolSearch, CurrentDirectoryComesBeforeSystemDirectories) {
    if (app_has("sh")) {
        GTEST_SKIP() << "/mnt/app/sh exists";
    }
    ASSERT_TRUE(exists("/usr/bin/sh") || exists("/bin/sh"));
    fake_tool("sh", "nothing");
    int result = -2;
    EXPECT_EQ(get("sh", &result), "./sh");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, UsrBinComesBeforeBin) {
    if (app_has("sh")) {
        GTEST_SKIP() << "/mnt/app/sh exists";
    }
    if (!exists("/usr/bin/sh") || !exists("/bin/sh")) {
        GTEST_SKIP() << "needs /usr/bin/sh and /bin/sh";
    }
    int result = -2;
    EXPECT_EQ(get("sh", &result), "/usr/bin/sh");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, UsrSbinComesBeforeSbin) {
    if (app_has("mkfs.ext4")) {
        GTEST_SKIP() << "/mnt/app/mkfs.ext4 exists";
    }
    if (!exists("/usr/sbin/mkfs.ext4")) {
        GTEST_SKIP() << "needs /usr/sbin/mkfs.ext4";
    }
    if (exists("/usr/local/bin/mkfs.ext4") || exists("/usr/local/sbin/mkfs.ext4") ||
        exists("/usr/bin/mkfs.ext4")) {
        GTEST_SKIP() << "mkfs.ext4 is also in an earlier directory";
    }
    int result = -2;
    EXPECT_EQ(get("mkfs.ext4", &result), "/usr/sbin/mkfs.ext4");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, MissingToolIsNotFound) {
    int result = 0;
    get("recstore-no-such-tool", &result);
    EXPECT_EQ(result, -1);
}

TEST_F(ToolSearch, FakeToolInCurrentDirectory) {
    fake_tool("recstore-fake-tool", "usage: fake");
    int result = -2;
    EXPECT_EQ(get("recstore-fake-tool", &result), "./recstore-fake-tool");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, PartedThatMentionsFixGetsDashF) {
    if (app_has("parted")) {
        GTEST_SKIP() << "/mnt/app/parted exists";
    }
    fake_tool("parted", "  -s, --script   never prompts\n  -f, --fix   fix instead of abort");
    int result = -2;
    EXPECT_EQ(get("parted", &result), "./parted -f");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, PartedWithoutFixIsBare) {
    if (app_has("parted")) {
        GTEST_SKIP() << "/mnt/app/parted exists";
    }
    fake_tool("parted", "  -s, --script   never prompts\n  -v, --version");
    int result = -2;
    EXPECT_EQ(get("parted", &result), "./parted");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, PartedNameIsComparedWithoutCase) {
    if (app_has("PARTED")) {
        GTEST_SKIP() << "/mnt/app/PARTED exists";
    }
    fake_tool("PARTED", "  -f, --fix");
    int result = -2;
    EXPECT_EQ(get("PARTED", &result), "./PARTED -f");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, OtherToolsNeverGetDashF) {
    fake_tool("recstore-fixer", "  -f, --fix");
    int result = -2;
    EXPECT_EQ(get("recstore-fixer", &result), "./recstore-fixer");
    EXPECT_EQ(result, 0);
}

TEST_F(ToolSearch, BadToolNamesAndSmallBuffers) {
    fake_tool("recstore-fake-tool", "usage");
    const char *bad[] = {
        "a;b",  "../recstore-fake-tool", "./recstore-fake-tool", "a/b", "", ".", "..", "-h", "a b",
        "$(id)"};
    for (const char *tool : bad) {
        char out[RECSTORE_PATH_LEN];
        EXPECT_EQ(fs_get_cmd(tool, out, sizeof out), -1) << tool;
    }
    char out[RECSTORE_PATH_LEN];
    EXPECT_EQ(fs_get_cmd(nullptr, out, sizeof out), -1);
    EXPECT_EQ(fs_get_cmd("recstore-fake-tool", nullptr, 64), -1);
    EXPECT_EQ(fs_get_cmd("recstore-fake-tool", out, 0), -1);
    char small[8];
    EXPECT_EQ(fs_get_cmd("recstore-fake-tool", small, sizeof small), -1);
    EXPECT_EQ(small[0], '\0');
}

}  // namespace
