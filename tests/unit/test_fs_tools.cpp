// Unit tests of the foundations: messages and their gates, host utilities, time conversion, walk
// statistics, the name scheme and cache tags, path helpers, directory walking and removal, mount
// table lookups, cluster I/O and bit helpers. Everything here runs without root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "capture.h"
#include "test_util.h"
#include "fs_tools.h"
#include "recstore.h"
#include "recstore_host.h"

using recstore_test::LogMask;
using recstore_test::make_tm;
using recstore_test::StdoutCapture;
using recstore_test::TempDir;

namespace {

constexpr unsigned kAllLevels = 0xB;  // errors, warnings, information

// Replaces every run of digits that follows "cpp:" or "line:" by "N", so that messages can be
// compared whole without depending on source line numbers.
std::string without_line_numbers(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        out += text[i];
        bool after_file = i >= 3 && text.compare(i - 3, 4, "cpp:") == 0;
        bool after_line = i >= 4 && text.compare(i - 4, 5, "line:") == 0;
        if ((after_file || after_line) && i + 1 < text.size() && isdigit(text[i + 1])) {
            out += 'N';
            while (i + 1 < text.size() && isdigit(text[i + 1])) i++;
        }
    }
    return out;
}

void touch(const std::string &path, const std::string &content = "") {
    recstore_test::write_file(path, content);
}

class DiskNames : public ::testing::Test {
  protected:
    void SetUp() override {
        snprintf(g_disk[0].devname, sizeof g_disk[0].devname, "/dev/hd/sda");
        snprintf(g_disk[2].devname, sizeof g_disk[2].devname, "/dev/hd/sdc");
    }
    void TearDown() override {
        g_disk[0].devname[0] = '\0';
        g_disk[2].devname[0] = '\0';
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Messages and host utilities
// ---------------------------------------------------------------------------------------------

TEST(Messages, ErrorHasRedPrefixWithFileAndLine) {
    LogMask mask(kAllLevels);
    StdoutCapture cap;
    char buf[16] = "x";
    disk_root(9, buf, sizeof buf);
    std::string out = cap.stop();
    EXPECT_EQ(without_line_numbers(out), "\x1b[0;31m[fs_tools.cpp:N]:\x1b[0minvalid disk id:9\n");
    EXPECT_STREQ(buf, "");
}

TEST(Messages, GatedByModuleBitAndLevel) {
    char buf[16];
    {
        LogMask mask(kAllLevels, 0x100);  // library's bit clear
        StdoutCapture cap;
        disk_root(9, buf, sizeof buf);
        EXPECT_EQ(cap.stop(), "");
    }
    {
        LogMask mask(RECSTORE_LOG_WARNING | RECSTORE_LOG_INFO);  // no error bit
        StdoutCapture cap;
        disk_root(9, buf, sizeof buf);
        EXPECT_EQ(cap.stop(), "");
    }
}

TEST(Messages, WarningAndInfoPrefixes) {
    LogMask mask(kAllLevels);
    StdoutCapture cap;
    FS_LOG_WARN("w%d\n", 1);
    FS_LOG_INFO("i%d\n", 2);
    FS_LOG_PLAIN("plain\n");
    std::string out = cap.stop();
    EXPECT_EQ(without_line_numbers(out),
              "\x1b[1;33m[test_fs_tools.cpp:N]:\x1b[0mw1\n"
              "\x1b[0;32m[test_fs_tools.cpp:N]:\x1b[0mi2\nplain\n");
}

TEST(Messages, PlainLinesIgnoreTheGate) {
    LogMask mask(0, 0);
    StdoutCapture cap;
    FS_LOG_PLAIN("always %s\n", "printed");
    EXPECT_EQ(cap.stop(), "always printed\n");
}

// What a host's log handler received.
struct Received {
    uint32_t level;
    std::string module;
    std::string text;
};

void collect(void *user, uint32_t level, const char *module, const char *text) {
    static_cast<std::vector<Received> *>(user)->push_back({level, module, text});
}

TEST(LogHandler, ReceivesLevelModuleAndTextInsteadOfStandardOutput) {
    LogMask mask(kAllLevels);
    std::vector<Received> got;
    char buf[16];
    {
        StdoutCapture cap;
        recstore_set_log_handler(collect, &got);
        disk_root(9, buf, sizeof buf);
        FS_LOG_WARN("w%d\n", 1);
        FS_LOG_PLAIN("plain %s\n", "line");
        recstore_set_log_handler(nullptr, nullptr);
        EXPECT_EQ(cap.stop(), "") << "nothing goes to standard output while a handler is set";
    }
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].level, RECSTORE_LOG_ERROR);
    EXPECT_EQ(got[0].module, "fs_tools.cpp");
    EXPECT_EQ(got[0].text, "invalid disk id:9\n");
    EXPECT_EQ(got[1].level, RECSTORE_LOG_WARNING);
    EXPECT_EQ(got[1].module, "test_fs_tools.cpp");
    EXPECT_EQ(got[1].text, "w1\n");
    EXPECT_EQ(got[2].level, RECSTORE_LOG_PLAIN);
    EXPECT_EQ(got[2].module, "recstore");
    EXPECT_EQ(got[2].text, "plain line\n");

    // Uninstalled: the same bytes as before on standard output, and the handler hears nothing.
    StdoutCapture cap;
    disk_root(9, buf, sizeof buf);
    FS_LOG_PLAIN("plain %s\n", "line");
    EXPECT_EQ(without_line_numbers(cap.stop()),
              "\x1b[0;31m[fs_tools.cpp:N]:\x1b[0minvalid disk id:9\nplain line\n");
    EXPECT_EQ(got.size(), 3u);
}

TEST(LogHandler, KeepsTheGateAndLongMessagesWhole) {
    std::vector<Received> got;
    recstore_set_log_handler(collect, &got);
    {
        LogMask mask(kAllLevels, 0x100);  // library's bit clear: the handler hears nothing
        FS_LOG_ERR("gated\n");
    }
    LogMask mask(kAllLevels);
    const std::string longer(3000, 'x');
    FS_LOG_INFO("%s\n", longer.c_str());
    recstore_set_log_handler(nullptr, nullptr);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].level, RECSTORE_LOG_INFO);
    EXPECT_EQ(got[0].text, longer + "\n");
}

void count_message(void *user, uint32_t, const char *, const char *) {
    static_cast<std::atomic<int> *>(user)->fetch_add(1);
}

TEST(LogHandler, MayBeChangedWhileOtherThreadsLog) {
    LogMask mask(kAllLevels);
    std::atomic<int> first{0}, second{0};
    recstore_set_log_handler(count_message, &first);
    constexpr int kMessages = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < kMessages; i++) FS_LOG_PLAIN("m%d\n", i);
        });
    }
    for (int i = 0; i < 100; i++) {
        recstore_set_log_handler(count_message, i % 2 ? &first : &second);
    }
    recstore_set_log_handler(count_message, &first);
    for (std::thread &t : threads) t.join();
    recstore_set_log_handler(nullptr, nullptr);
    EXPECT_EQ(first.load() + second.load(), 2 * kMessages) << "every message reached one handler";
}

TEST(Messages, AssertionPrintsAndAborts) {
    EXPECT_DEATH({ FS_ASSERT(1 == 2); }, "");
    // The text goes to standard output: check it from a child process.
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipefd[1], 1);
        FS_ASSERT(sizeof(int) == 1);
        _exit(0);
    }
    close(pipefd[1]);
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = read(pipefd[0], buf, sizeof buf)) > 0) out.append(buf, n);
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(without_line_numbers(out),
              "assert expression: sizeof(int) == 1,at file:test_fs_tools.cpp,line:N\nhalt\n");
}

TEST(LogFile, DisabledPrintsNothingAndFails) {
    fs_log_exit();
    EXPECT_EQ(fs_log_is_inited(), 0);
    StdoutCapture cap;
    EXPECT_EQ(fs_log_file("a message %d\n", 1), -1);
    EXPECT_EQ(cap.stop(), "");
}

TEST(LogFile, InitIgnoresPathAndEnables) {
    EXPECT_EQ(fs_log_init("/mnt/img/fs.log"), 0);
    EXPECT_EQ(fs_log_is_inited(), 1);
    EXPECT_EQ(g_plog_inited, 1u);
    fs_log_exit();
    EXPECT_EQ(g_plog_inited, 0u);
}

TEST(FsSystem, BelowDebugLevelUsesHostLauncher) {
    LogMask mask(0x3);
    unsigned before = recstore_host_pip_system_calls;
    char cmd[] = "exit 3";
    int status = fs_system(cmd);
    EXPECT_EQ(recstore_host_pip_system_calls, before + 1);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(FsSystem, DebugLevelUsesSystem) {
    LogMask mask(0x10000);
    unsigned before = recstore_host_pip_system_calls;
    char cmd[] = "exit 5";
    int status = fs_system(cmd);
    EXPECT_EQ(recstore_host_pip_system_calls, before);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST(FsTm, RoundTripKeepsNineFieldsAndZeroesTheLastTwo) {
    struct tm src = make_tm(2024, 5, 17, 8, 9, 10);
    src.tm_wday = 5;
    src.tm_yday = 137;
    src.tm_isdst = 1;
    src.tm_gmtoff = 7200;
    src.tm_zone = "CEST";
    fs_tm stored;
    memset(&stored, 0xA5, sizeof stored);
    EXPECT_EQ(to_fs_tm(&src, &stored), &stored);
    EXPECT_EQ(stored.zero[0], 0);
    EXPECT_EQ(stored.zero[1], 0);
    struct tm back;
    memset(&back, 0, sizeof back);
    back.tm_gmtoff = 42;
    from_fs_tm(&back, &stored);
    EXPECT_EQ(back.tm_sec, 10);
    EXPECT_EQ(back.tm_min, 9);
    EXPECT_EQ(back.tm_hour, 8);
    EXPECT_EQ(back.tm_mday, 17);
    EXPECT_EQ(back.tm_mon, 4);
    EXPECT_EQ(back.tm_year, 124);
    EXPECT_EQ(back.tm_wday, 5);
    EXPECT_EQ(back.tm_yday, 137);
    EXPECT_EQ(back.tm_isdst, 1);
    EXPECT_EQ(back.tm_gmtoff, 42);  // members beyond the nine are left as they were
}

TEST(FsTm, NullPointersDoNothing) {
    fs_tm stored;
    memset(&stored, 0x5A, sizeof stored);
    EXPECT_EQ(to_fs_tm(nullptr, &stored), &stored);
    EXPECT_EQ(stored.tm_sec, 0x5A5A5A5A);
    EXPECT_EQ(to_fs_tm(nullptr, nullptr), nullptr);
    from_fs_tm(nullptr, &stored);
    struct tm t = make_tm(2000, 1, 1);
    from_fs_tm(&t, nullptr);
    EXPECT_EQ(t.tm_year, 100);
}

TEST(WalkStats, InfoAverageIsIntegerDivision) {
    find_debug_info info = {3, 10, 6, 1};
    char buf[64] = {0};
    EXPECT_EQ(find_debug_info_tostring(&info, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "3 10 3 6 1");
}

TEST(WalkStats, ZeroCountsLeaveDestinationAsCleared) {
    find_debug stats = {};
    char buf[64] = {0};
    find_debug_tostring(&stats, buf, sizeof buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, '\0'));
    find_debug_info zero = {};
    strcpy(buf, "kept");
    find_debug_info_tostring(&zero, buf, sizeof buf);
    find_debug_info_tostring(nullptr, buf, sizeof buf);
    find_debug_tostring(nullptr, buf, sizeof buf);
    EXPECT_STREQ(buf, "kept");
}

TEST(WalkStats, KindsWithCountsAreLabelledInOrder) {
    find_debug stats = {};
    stats.stat = {2, 8, 5, 3};
    stats.fileops = {1, 4, 4, 4};
    char buf[256] = {0};
    find_debug_tostring(&stats, buf, sizeof buf);
    EXPECT_STREQ(buf, "stat:[2 8 4 5 3] fileops:[1 4 4 4 4] ");
}

TEST(WalkStats, OutputIsBoundedByTheBuffer) {
    find_debug stats = {};
    stats.stat = {2, 8, 5, 3};
    stats.readdir = {2, 8, 5, 3};
    char buf[24];
    memset(buf, 0, sizeof buf);
    char guard[8];
    memset(guard, 'G', sizeof guard);
    find_debug_tostring(&stats, buf, 16);
    EXPECT_EQ(strlen(buf), 15u);
    EXPECT_EQ(std::string(guard, sizeof guard), std::string(8, 'G'));
}

TEST(WalkStats, FillTracksCountTotalMaxMin) {
    find_debug_info info = {0, 0, 0, 0xFFFFFFFFu};
    do_fill_find_debug_info(&info, 5);
    do_fill_find_debug_info(&info, 2);
    do_fill_find_debug_info(&info, 9);
    EXPECT_EQ(info.count, 3u);
    EXPECT_EQ(info.total, 16u);
    EXPECT_EQ(info.max, 9u);
    EXPECT_EQ(info.min, 2u);
    do_fill_find_debug_info(nullptr, 1);  // nothing for a null record
}

// ---------------------------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------------------------

TEST_F(DiskNames, DeviceAndPartitions) {
    char buf[RECSTORE_PATH_LEN];
    EXPECT_STREQ(disk_root(0, buf, sizeof buf), "/dev/hd/sda");
    EXPECT_STREQ(sys_partion(0, buf, sizeof buf), "/dev/hd/sda1");
    EXPECT_STREQ(idx_partion(0, buf, sizeof buf), "/dev/hd/sda2");
    EXPECT_STREQ(data_partion(2, buf, sizeof buf), "/dev/hd/sdc3");
    EXPECT_STREQ(idx_root(2, buf, sizeof buf), "/mnt/sdc");
    EXPECT_STREQ(idx_linkroot(0, buf, sizeof buf), "/mnt/sda/link");
}

TEST_F(DiskNames, IndexTree) {
    char buf[RECSTORE_PATH_LEN];
    struct tm t = make_tm(2024, 5, 17, 8, 9, 10);
    EXPECT_STREQ(mk_idx_chnpath(0, buf, sizeof buf, 3), "/mnt/sda/03/");
    EXPECT_STREQ(mk_idx_yearpath(0, buf, sizeof buf, 3, &t), "/mnt/sda/03/2024/");
    EXPECT_STREQ(mk_idx_monpath(0, buf, sizeof buf, 3, &t), "/mnt/sda/03/2024/05/");
    EXPECT_STREQ(mk_idx_daypath(0, buf, sizeof buf, 3, &t), "/mnt/sda/03/2024/05/17/");
    EXPECT_STREQ(mk_idx_fullpath(0, buf, sizeof buf, 3, &t, 0), "/mnt/sda/03/2024/05/17/00/");
    EXPECT_STREQ(mk_idx_filename(buf, sizeof buf, 3, &t, 0), "0320240517080910_00");
    EXPECT_STREQ(mk_idx_fullname(0, buf, sizeof buf, 3, &t, 0),
                 "/mnt/sda/03/2024/05/17/00/0320240517080910_00");
    EXPECT_STREQ(mk_idx_fullname_relative(buf, sizeof buf, 3, &t, 1),
                 "../../03/2024/05/17/01/0320240517080910_01");
}

TEST_F(DiskNames, LinkTree) {
    char buf[RECSTORE_PATH_LEN];
    EXPECT_STREQ(mk_idx_linkpath(0, buf, sizeof buf, 2), "/mnt/sda/link/00000002");
    EXPECT_STREQ(mk_idx_linkname(0, buf, sizeof buf, 2, "0320240517080910_00"),
                 "/mnt/sda/link/00000002/0320240517080910_00");
}

TEST_F(DiskNames, BuildersCutLikeSnprintf) {
    char buf[12];
    memset(buf, 'X', sizeof buf);
    struct tm t = make_tm(2024, 5, 17, 8, 9, 10);
    mk_idx_fullname(0, buf, 10, 3, &t, 0);
    EXPECT_STREQ(buf, "/mnt/sda/");
    EXPECT_EQ(buf[10], 'X');
    EXPECT_EQ(buf[11], 'X');
}

TEST_F(DiskNames, BadDiskIdsAreRefused) {
    LogMask mask(kAllLevels);
    char buf[RECSTORE_PATH_LEN];
    struct tm t = make_tm(2024, 5, 17);
    int bad = todiskid("/dev/hd/sd;");
    EXPECT_EQ(bad, ';' - 'a');
    EXPECT_EQ(bad, -38);
    for (int id : {bad, -1, 8, 97, -97}) {
        StdoutCapture cap;
        strcpy(buf, "unchanged");
        EXPECT_STREQ(disk_root(id, buf, sizeof buf), "");
        EXPECT_STREQ(data_partion(id, buf, sizeof buf), "");
        EXPECT_STREQ(idx_root(id, buf, sizeof buf), "");
        EXPECT_STREQ(mk_idx_fullname(id, buf, sizeof buf, 1, &t, 0), "");
        EXPECT_STREQ(mk_idx_linkpath(id, buf, sizeof buf, 1), "");
        std::string out = cap.stop();
        EXPECT_NE(out.find("invalid disk id:" + std::to_string(id) + "\n"), std::string::npos)
            << out;
    }
}

TEST(Names, ToDiskId) {
    EXPECT_EQ(todiskid("/dev/hd/sdc"), 2);
    EXPECT_EQ(todiskid("/dev/hd/sda"), 0);
    EXPECT_EQ(todiskid("/dev/hd/sdh"), 7);
    EXPECT_EQ(todiskid("/dev/hd/sd"), -97);  // nothing read
    EXPECT_EQ(todiskid("garbage"), -97);
    EXPECT_EQ(todiskid(nullptr), -97);
}

TEST(Names, MountPointAndDevName) {
    char buf[RECSTORE_PATH_LEN];
    EXPECT_STREQ(mount_point("/dev/hd/sdc", buf, sizeof buf), "/mnt/sdc");
    strcpy(buf, "untouched");
    EXPECT_EQ(mount_point("/dev/sd", buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_STREQ(dev_name("/mnt/sdb", buf, sizeof buf), "/dev/hd/sdb");
    const char *shortname = "/mnt";
    EXPECT_EQ(dev_name(shortname, buf, sizeof buf), shortname);
}

TEST(Names, LongDeviceWordIsCutAtTheScratchSize) {
    char buf[RECSTORE_PATH_LEN];
    EXPECT_STREQ(mount_point("/dev/hd/sdabcdefghijklmnopqrstuvwxyz", buf, sizeof buf),
                 "/mnt/sdabcdefghijklm");
    EXPECT_STREQ(dev_name("/mnt/0123456789abcdefghij", buf, sizeof buf), "/dev/hd/0123456789abcde");
}

TEST(Names, CacheName) {
    char buf[RECSTORE_PATH_LEN];
    EXPECT_STREQ(tocachename(buf, sizeof buf, "/mnt/sda/03/2024/05/17/00/"),
                 "/mnt/cache/sda/03/2024/05/17/00/");
    LogMask mask(0);
    EXPECT_STREQ(tocachename(buf, sizeof buf, "/only-one"), "");
    EXPECT_STREQ(tocachename(buf, sizeof buf, nullptr), "");
}

TEST(Parsers, FileName) {
    int channel = -1, type = -1;
    struct tm t = {};
    EXPECT_EQ(filename_to_record("0320240517080910_02", &channel, &t, &type), 8);
    EXPECT_EQ(channel, 3);
    EXPECT_EQ(type, 2);
    EXPECT_EQ(t.tm_year, 124);
    EXPECT_EQ(t.tm_mon, 4);
    EXPECT_EQ(t.tm_mday, 17);
    EXPECT_EQ(t.tm_hour, 8);
    EXPECT_EQ(t.tm_min, 9);
    EXPECT_EQ(t.tm_sec, 10);
}

TEST(Parsers, YearAndMonthAreAdjustedWhateverTheCount) {
    int channel = 0, type = 0;
    struct tm t = {};
    t.tm_year = 2000;
    t.tm_mon = 1;
    EXPECT_EQ(filename_to_record("07", &channel, &t, &type), 1);
    EXPECT_EQ(t.tm_year, 100);
    EXPECT_EQ(t.tm_mon, 0);
}

TEST(Parsers, FullName) {
    int disk = -1, channel = -1, type = -1;
    struct tm t = {};
    EXPECT_EQ(fullname_to_record("/mnt/sdb/03/2024/05/17/01/0320240517080910_01", &disk, &channel,
                                 &t, &type),
              14);
    EXPECT_EQ(disk, 1);
    EXPECT_EQ(channel, 3);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(t.tm_year, 124);
    EXPECT_EQ(t.tm_sec, 10);
}

TEST(Parsers, LinkPathIsNotAnIndexName) {
    int disk, channel, type, block;
    struct tm t = {};
    EXPECT_LT(fullname_to_record("/mnt/sda/link/00000002/0320240517080910_00", &disk, &channel, &t,
                                 &type),
              12);
    EXPECT_LT(linkname_to_record("/mnt/sda/03/2024/05/17/00/0320240517080910_00", &disk, &block,
                                 &channel, &t, &type),
              10);
}

TEST(Parsers, LinkName) {
    int disk = -1, channel = -1, type = -1, block = -1;
    struct tm t = {};
    EXPECT_EQ(linkname_to_record("/mnt/sdc/link/00000129/6320241231235958_01", &disk, &block,
                                 &channel, &t, &type),
              10);
    EXPECT_EQ(disk, 2);
    EXPECT_EQ(block, 129);
    EXPECT_EQ(channel, 63);
    EXPECT_EQ(t.tm_year, 124);
    EXPECT_EQ(t.tm_mon, 11);
    EXPECT_EQ(t.tm_mday, 31);
    EXPECT_EQ(t.tm_sec, 58);
    EXPECT_EQ(type, 1);
}

TEST(Parsers, CacheFullNameLeavesTimeOfDay) {
    int disk = -1, channel = -1, type = -1;
    struct tm day = {};
    day.tm_hour = 13;
    EXPECT_EQ(cachefullname_to_record("/mnt/cache/sda/05/2024/02/29/00/cache", &disk, &channel,
                                      &day, &type),
              7);
    EXPECT_EQ(disk, 0);
    EXPECT_EQ(channel, 5);
    EXPECT_EQ(day.tm_year, 124);
    EXPECT_EQ(day.tm_mon, 1);
    EXPECT_EQ(day.tm_mday, 29);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(day.tm_hour, 13);
    // A long last word is read into the 8-byte scratch only up to five characters.
    EXPECT_EQ(cachefullname_to_record("/mnt/cache/sda/05/2024/02/29/00/cachetmp-long-name", &disk,
                                      &channel, &day, &type),
              7);
}

TEST(Parsers, GarbageGivesPartialCountsWithoutCrashing) {
    int disk, channel, type, block;
    struct tm t = {};
    const char *garbage[] = {"",
                             "/",
                             "/mnt/sd",
                             "/mnt/sdz/99999999999999999999",
                             "/mnt/cache/",
                             "%s%s%n",
                             "\xff\xfe/mnt/sda/03",
                             "/mnt/sda/-1/-200/-3/-4/-5/-6"};
    for (const char *g : garbage) {
        EXPECT_LE(filename_to_record(g, &channel, &t, &type), 8);
        EXPECT_LE(fullname_to_record(g, &disk, &channel, &t, &type), 14);
        EXPECT_LE(linkname_to_record(g, &disk, &block, &channel, &t, &type), 10);
        EXPECT_LE(cachefullname_to_record(g, &disk, &channel, &t, &type), 7);
    }
    LogMask mask(0);
    EXPECT_EQ(filename_to_record(nullptr, &channel, &t, &type), 0);
    EXPECT_EQ(fullname_to_record("/mnt/sda", nullptr, &channel, &t, &type), 0);
}

// ---------------------------------------------------------------------------------------------
// Cache tags
// ---------------------------------------------------------------------------------------------

namespace {

struct DecodedTag {
    int rc, disk, channel, type, mode;
    unsigned total;
    struct tm start, end;
};

DecodedTag decode(uint64_t tag, const char *file = "/mnt/cache/sdb/07/2024/05/17/00/cache") {
    DecodedTag d = {};
    d.rc = cachetag_to_record(file, 0, static_cast<uint32_t>(tag), static_cast<uint32_t>(tag >> 32),
                              &d.disk, &d.channel, &d.start, &d.end, &d.type, &d.mode, &d.total);
    return d;
}

}  // namespace

TEST(CacheTag, RoundTrip) {
    struct tm end = make_tm(2024, 5, 17, 9, 10, 11);
    uint64_t tag = filename_to_cachetag(&end, 0x1A5, 0x12345678u, "0720240517080910_00");
    uint32_t lo = static_cast<uint32_t>(tag), hi = static_cast<uint32_t>(tag >> 32);
    EXPECT_EQ(lo & 0xFFFFF, 8u * 3600 + 9 * 60 + 10);
    EXPECT_EQ(hi >> 28, 0u);  // bits 60-63 are zero
    DecodedTag d = decode(tag);
    ASSERT_EQ(d.rc, 0);
    EXPECT_EQ(d.disk, 1);
    EXPECT_EQ(d.channel, 7);
    EXPECT_EQ(d.mode, 0xA5);          // low 8 bits of the mode
    EXPECT_EQ(d.total, 0x12340000u);  // the low 16 bits are not kept
    struct tm want_start = make_tm(2024, 5, 17, 8, 9, 10);
    EXPECT_EQ(tm_cmp(&d.start, &want_start), 0);
    EXPECT_EQ(tm_cmp(&d.end, &end), 0);
}

TEST(CacheTag, GoldenBits) {
    struct tm end = make_tm(2024, 5, 17, 0, 0, 0);
    tm_offset_sec(&end, 1 + 0x1234, &end);  // duration 0x1234
    uint64_t tag = filename_to_cachetag(&end, 0x3C, 0xABCD0000u, "0020240517000001_00");
    // lo: duration's low 12 bits << 20 | second of day; hi: duration >> 12 | bytes | mode << 4
    EXPECT_EQ(static_cast<uint32_t>(tag), (0x234u << 20) | 1u);
    EXPECT_EQ(static_cast<uint32_t>(tag >> 32), 0x1u | (0xABCDu << 12) | (0x3Cu << 4));
}

TEST(CacheTag, DurationWrapsModulo65536) {
    struct tm end = make_tm(2024, 5, 17, 0, 0, 0);
    tm_offset_sec(&end, 70000, &end);
    LogMask mask(0);
    uint64_t tag = filename_to_cachetag(&end, 0, 0, "0020240517000000_00");
    DecodedTag d = decode(tag);
    ASSERT_EQ(d.rc, 0);
    EXPECT_EQ(tm_diff(&d.start, &d.end), 4464);
}

TEST(CacheTag, EndBeforeStartGivesZeroDurationAndChangesEnd) {
    LogMask mask(kAllLevels);
    struct tm end = make_tm(2024, 5, 17, 7, 0, 0);
    StdoutCapture cap;
    uint64_t tag = filename_to_cachetag(&end, 0, 0, "0020240517080910_00");
    EXPECT_NE(cap.stop().find("fs start time >end time\n"), std::string::npos);
    struct tm start = make_tm(2024, 5, 17, 8, 9, 10);
    EXPECT_EQ(tm_cmp(&end, &start), 0);
    EXPECT_EQ(
        ((static_cast<uint32_t>(tag) >> 20) | (static_cast<uint32_t>(tag >> 32) << 12)) & 0xFFFF,
        0u);
}

TEST(CacheTag, BadPathFails) {
    LogMask mask(kAllLevels);
    StdoutCapture cap;
    DecodedTag d = decode(1, "/somewhere/else");
    EXPECT_EQ(d.rc, -1);
    EXPECT_NE(cap.stop().find("cachefullname_to_record error:/somewhere/else\n"),
              std::string::npos);
}

TEST(CacheTag, OutOfDayRangeIsReportedAndDecoded) {
    LogMask mask(kAllLevels);
    StdoutCapture cap;
    uint32_t lo = (100u << 20) | 86399u;  // starts at 23:59:59 and lasts 100 s
    DecodedTag d = decode(lo);
    EXPECT_EQ(d.rc, 0);
    EXPECT_NE(cap.stop().find("error start time:86399 end time:86499\n"), std::string::npos);
    EXPECT_EQ(d.end.tm_mday, 18);
}

TEST(CacheTag, MatchAndBefore) {
    struct tm t = make_tm(2024, 5, 17, 1, 2, 3);
    uint32_t same = 3723, earlier = 3722;
    EXPECT_EQ(match_cachetag(same, 0, &t), 0);
    EXPECT_EQ(before_cachetag(same, 0, &t), -1);
    EXPECT_EQ(match_cachetag(earlier, 0, &t), -1);
    EXPECT_EQ(before_cachetag(earlier, 0, &t), 0);
    EXPECT_EQ(match_cachetag(same | (5u << 20), 0xFFF, &t), 0);  // only the time of day counts
}

// ---------------------------------------------------------------------------------------------
// Path helpers
// ---------------------------------------------------------------------------------------------

TEST(PathHelpers, ConcatPathFile) {
    char buf[64];
    EXPECT_STREQ(concat_path_file(buf, sizeof buf, "/a/", "//b"), "/a/b");
    EXPECT_STREQ(concat_path_file(buf, sizeof buf, nullptr, "b"), "/b");
    EXPECT_STREQ(concat_path_file(buf, sizeof buf, "/a", "b"), "/a/b");
    EXPECT_EQ(concat_subpath_file(buf, sizeof buf, "/a", "."), nullptr);
    EXPECT_EQ(concat_subpath_file(buf, sizeof buf, "/a", ".."), nullptr);
    EXPECT_STREQ(concat_subpath_file(buf, sizeof buf, "/a", "..."), "/a/...");
}

TEST(PathHelpers, MkParent) {
    char buf[64];
    EXPECT_STREQ(mk_parent("/a/b/c", sizeof buf, buf), "/a/b/");
    EXPECT_STREQ(mk_parent("/a/b/c/", sizeof buf, buf), "/a/b/");
    EXPECT_STREQ(mk_parent("name", sizeof buf, buf), "name");
    EXPECT_STREQ(mk_parent("/", sizeof buf, buf), "/");
}

TEST(PathHelpers, MkParentRefusesAPathLongerThanTheBuffer) {
    LogMask mask(kAllLevels);
    char buf[8];
    StdoutCapture cap;
    EXPECT_STREQ(mk_parent("/a/b/c/d/e/f", sizeof buf, buf), "");
    EXPECT_NE(cap.stop().find("mk_parent"), std::string::npos);
}

TEST(PathHelpers, LastCharIs) {
    const char *s = "/a/";
    EXPECT_EQ(last_char_is(s, '/'), s + 2);
    EXPECT_EQ(last_char_is("/a", '/'), nullptr);
    EXPECT_EQ(last_char_is("", '/'), nullptr);
    EXPECT_EQ(last_char_is(nullptr, '/'), nullptr);
}

TEST(PathHelpers, MkdirRecursiveCreatesEveryLevelAndRestoresThePath) {
    TempDir dir;
    std::string p = dir / "x//y/z/";
    std::vector<char> path(p.begin(), p.end());
    path.push_back('\0');
    EXPECT_EQ(mkdir_recursive(path.data()), 0);
    EXPECT_STREQ(path.data(), p.c_str());
    struct stat st;
    ASSERT_EQ(stat((dir / "x/y/z").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST(PathHelpers, MkdirRecursiveStopsAtAFile) {
    TempDir dir;
    touch(dir / "file");
    std::string p = dir / "file/sub/";
    std::vector<char> path(p.begin(), p.end());
    path.push_back('\0');
    EXPECT_EQ(mkdir_recursive(path.data()), 0);
    struct stat st;
    EXPECT_NE(stat((dir / "file/sub").c_str(), &st), 0);
}

TEST(PathHelpers, DirEmptyAndRemoval) {
    TempDir dir;
    mkdir((dir / "empty").c_str(), 0777);
    mkdir((dir / "full").c_str(), 0777);
    touch(dir / "full/f");
    EXPECT_EQ(is_dir_empty((dir / "empty").c_str()), 1);
    EXPECT_EQ(is_dir_empty((dir / "full").c_str()), 0);
    EXPECT_EQ(is_dir_empty((dir / "missing").c_str()), 1);
    EXPECT_EQ(rm_empty_dir((dir / "full").c_str()), -1);
    EXPECT_EQ(rm_empty_dir((dir / "empty").c_str()), 0);
    struct stat st;
    EXPECT_NE(stat((dir / "empty").c_str(), &st), 0);
}

// ---------------------------------------------------------------------------------------------
// Directory walking and removal
// ---------------------------------------------------------------------------------------------

namespace {

struct Visit {
    std::vector<std::string> files, dirs;
    std::string stop_at_file;  // file action returns 0 here
    std::string skip_dir;      // directory action returns 2 here
    std::string stop_at_dir;   // directory action returns 0 here
};

std::string leaf(const char *path) {
    std::string p = path;
    return p.substr(p.find_last_of('/') + 1);
}

int on_file(const char *path, struct stat *, void *user) {
    auto *v = static_cast<Visit *>(user);
    v->files.push_back(leaf(path));
    return v->files.back() == v->stop_at_file ? 0 : 1;
}

int on_dir(const char *path, struct stat *, void *user) {
    auto *v = static_cast<Visit *>(user);
    v->dirs.push_back(leaf(path));
    if (v->dirs.back() == v->skip_dir) return 2;
    return v->dirs.back() == v->stop_at_dir ? 0 : 1;
}

int on_file_nostat(const char *path, void *user) {
    return on_file(path, nullptr, user);
}
int on_dir_nostat(const char *path, void *user) {
    return on_dir(path, nullptr, user);
}

// root/{a/{a1,a2}, b/{b1}, c}
void make_tree(const TempDir &dir) {
    mkdir((dir / "root").c_str(), 0777);
    mkdir((dir / "root/a").c_str(), 0777);
    mkdir((dir / "root/b").c_str(), 0777);
    touch(dir / "root/a/a1");
    touch(dir / "root/a/a2");
    touch(dir / "root/b/b1");
    touch(dir / "root/c");
}

std::set<std::string> as_set(const std::vector<std::string> &v) {
    return {v.begin(), v.end()};
}

}  // namespace

TEST(Walk, VisitsEveryFileAndDirectory) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    std::string root = dir / "root";
    EXPECT_EQ(find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &v, nullptr), 1);
    EXPECT_EQ(as_set(v.files), (std::set<std::string>{"a1", "a2", "b1", "c"}));
    EXPECT_EQ(as_set(v.dirs), (std::set<std::string>{"root", "a", "b"}));
    EXPECT_EQ(v.dirs.front(), "root");  // pre-order: the directory before its contents
}

TEST(Walk, UnreadablePathIsPassedOverAndTheWalkGoesOn) {
    TempDir dir;
    make_tree(dir);
    ASSERT_EQ(symlink((dir / "nowhere").c_str(), (dir / "root/dangling").c_str()), 0);
    Visit v;
    std::string root = dir / "root";
    // Following links, the dangling link's status cannot be read: it is skipped with result 1.
    EXPECT_EQ(find_recursive(&root[0], 1, 1, 0, on_file, on_dir, &v, nullptr), 1);
    EXPECT_EQ(as_set(v.files), (std::set<std::string>{"a1", "a2", "b1", "c"}));
    std::string missing = dir / "missing";
    EXPECT_EQ(find_recursive(&missing[0], 1, 0, 0, on_file, on_dir, &v, nullptr), 1);
}

TEST(Walk, LinksAreFilesWhenNotFollowed) {
    TempDir dir;
    make_tree(dir);
    ASSERT_EQ(symlink((dir / "root/a").c_str(), (dir / "root/link").c_str()), 0);
    Visit v;
    std::string root = dir / "root";
    find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &v, nullptr);
    EXPECT_EQ(as_set(v.files), (std::set<std::string>{"a1", "a2", "b1", "c", "link"}));
    Visit followed;
    find_recursive(&root[0], 1, 1, 0, on_file, on_dir, &followed, nullptr);
    EXPECT_EQ(followed.files.size(), 6u);  // a1 and a2 twice, through the link too
}

TEST(Walk, PreOrderSkipOfOneDirectoryKeepsItsSiblings) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    v.skip_dir = "a";
    std::string root = dir / "root";
    EXPECT_EQ(find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &v, nullptr), 1);
    EXPECT_EQ(as_set(v.files), (std::set<std::string>{"b1", "c"}));
    Visit nv;
    nv.skip_dir = "a";
    EXPECT_EQ(find_recursive_nostat(root.c_str(), DT_DIR, 1, 0, 0, on_file_nostat, on_dir_nostat,
                                    &nv, nullptr),
              1);
    EXPECT_EQ(as_set(nv.files), (std::set<std::string>{"b1", "c"}));
}

TEST(Walk, PreOrderStopEndsTheWalk) {
    TempDir dir;
    make_tree(dir);
    LogMask mask(kAllLevels);
    Visit v;
    v.stop_at_dir = "root";
    std::string root = dir / "root";
    StdoutCapture cap;
    EXPECT_EQ(find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &v, nullptr), 0);
    EXPECT_NE(cap.stop().find("dir action " + root + " end\n"), std::string::npos);
    EXPECT_TRUE(v.files.empty());
}

TEST(Walk, DepthFirstChildStopStillRunsTheDirectoryAction) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    v.stop_at_file = "b1";
    std::string sub = dir / "root/b";
    EXPECT_EQ(find_recursive(&sub[0], 1, 0, 1, on_file, on_dir, &v, nullptr), 1);
    EXPECT_EQ(v.dirs, (std::vector<std::string>{"b"}));
    Visit nv;
    nv.stop_at_file = "b1";
    EXPECT_EQ(find_recursive_nostat(sub.c_str(), DT_DIR, 1, 0, 1, on_file_nostat, on_dir_nostat,
                                    &nv, nullptr),
              1);
    EXPECT_EQ(nv.dirs, (std::vector<std::string>{"b"}));
    // Without a directory action the child's stop is the result.
    Visit w;
    w.stop_at_file = "b1";
    EXPECT_EQ(find_recursive(&sub[0], 1, 0, 1, on_file, nullptr, &w, nullptr), 0);
}

TEST(Walk, DepthFirstVisitsContentsBeforeTheDirectory) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    std::string root = dir / "root";
    find_recursive(&root[0], 1, 0, 1, on_file, on_dir, &v, nullptr);
    EXPECT_EQ(v.dirs.back(), "root");
}

TEST(Walk, NoRecursionGivesTheDirectoryActionOnly) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    std::string root = dir / "root";
    EXPECT_EQ(find_recursive(&root[0], 0, 0, 0, on_file, on_dir, &v, nullptr), 1);
    EXPECT_EQ(v.dirs, (std::vector<std::string>{"root"}));
    EXPECT_TRUE(v.files.empty());
    EXPECT_EQ(find_recursive(&root[0], 0, 0, 0, on_file, nullptr, &v, nullptr), 1);
}

TEST(Walk, NoStatTypeIsABitTest) {
    Visit v;
    // Without following links, any type with bit 1 or 3 set is a file, even a "directory" type
    // value that has one of them (DT_DIR | DT_CHR is 6, the block-device type).
    EXPECT_EQ(find_recursive_nostat("/x/blk", DT_BLK, 1, 0, 0, on_file_nostat, on_dir_nostat, &v,
                                    nullptr),
              1);
    EXPECT_EQ(find_recursive_nostat("/x/lnk", DT_LNK, 1, 0, 0, on_file_nostat, on_dir_nostat, &v,
                                    nullptr),
              1);
    EXPECT_EQ(find_recursive_nostat("/x/unknown", DT_UNKNOWN, 1, 0, 0, on_file_nostat,
                                    on_dir_nostat, &v, nullptr),
              1);
    EXPECT_EQ(v.files, (std::vector<std::string>{"blk", "lnk", "unknown"}));
    EXPECT_TRUE(v.dirs.empty());
}

TEST(Walk, NoStatWalksWithListingTypes) {
    TempDir dir;
    make_tree(dir);
    Visit v;
    std::string root = dir / "root";
    EXPECT_EQ(find_recursive_nostat(root.c_str(), DT_DIR, 1, 0, 0, on_file_nostat, on_dir_nostat,
                                    &v, nullptr),
              1);
    EXPECT_EQ(as_set(v.files), (std::set<std::string>{"a1", "a2", "b1", "c"}));
    EXPECT_EQ(as_set(v.dirs), (std::set<std::string>{"root", "a", "b"}));
}

TEST(Walk, StatisticsAreCountedOnlyWhenGiven) {
    TempDir dir;
    make_tree(dir);
    find_debug stats = {};
    Visit v;
    std::string root = dir / "root";
    find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &v, &stats);
    EXPECT_EQ(stats.stat.count, 7u);  // root, a, a1, a2, b, b1, c
    EXPECT_EQ(stats.opendir.count, 3u);
    EXPECT_EQ(stats.closedir.count, 3u);
    EXPECT_EQ(stats.readdir.count, 6u + 3u * 3u);  // six entries; ".", ".." and the end in each
    EXPECT_EQ(stats.dirops.count, 3u);
    EXPECT_EQ(stats.fileops.count, 4u);
    find_debug nostat = {};
    Visit w;
    find_recursive_nostat(root.c_str(), DT_DIR, 1, 0, 0, on_file_nostat, on_dir_nostat, &w,
                          &nostat);
    EXPECT_EQ(nostat.stat.count, 0u);
    EXPECT_EQ(nostat.fileops.count, 4u);
    EXPECT_EQ(nostat.dirops.count, 3u);
    Visit x;
    EXPECT_EQ(find_recursive(&root[0], 1, 0, 0, on_file, on_dir, &x, nullptr), 1);
    EXPECT_EQ(x.files.size(), 4u);
}

TEST(Remove, MissingPath) {
    LogMask mask(kAllLevels);
    TempDir dir;
    std::string missing = dir / "missing";
    EXPECT_EQ(remove_file(missing.c_str(), 4), 0);
    StdoutCapture cap;
    EXPECT_EQ(remove_file(missing.c_str(), 3), -1);
    EXPECT_NE(cap.stop().find("cannot remove `" + missing + "'"), std::string::npos);
}

TEST(Remove, DirectoryNeedsTheRecursiveFlag) {
    LogMask mask(kAllLevels);
    TempDir dir;
    make_tree(dir);
    std::string root = dir / "root";
    StdoutCapture cap;
    EXPECT_EQ(remove_file(root.c_str(), 4), -1);
    EXPECT_NE(cap.stop().find(root + ": is a directory"), std::string::npos);
    EXPECT_EQ(remove_file(root.c_str(), 1), 0);
    struct stat st;
    EXPECT_NE(lstat(root.c_str(), &st), 0);
}

TEST(Remove, FileAndLinkAreRemovedNotFollowed) {
    TempDir dir;
    make_tree(dir);
    ASSERT_EQ(symlink((dir / "root/a").c_str(), (dir / "lnk").c_str()), 0);
    EXPECT_EQ(remove_file((dir / "lnk").c_str(), 7), 0);
    struct stat st;
    EXPECT_EQ(stat((dir / "root/a/a1").c_str(), &st), 0);  // the link's target is kept
    EXPECT_EQ(remove_file((dir / "root/c").c_str(), 0), 0);
    EXPECT_EQ(remove_file((dir / "root").c_str(), 2), 0);
}

TEST(Remove, PathItCannotHandleIsReported) {
    LogMask mask(kAllLevels);
    StdoutCapture cap;
    EXPECT_EQ(remove_file(nullptr, 7), -1);
    EXPECT_EQ(remove_file("", 7), -1);
    EXPECT_EQ(remove_file("/proc/self/status", 7), -1);  // a file the kernel does not let go
    std::string out = cap.stop();
    EXPECT_NE(out.find("unable to remove /proc/self/status\n"), std::string::npos) << out;
}

// ---------------------------------------------------------------------------------------------
// Mount table, clusters, bits
// ---------------------------------------------------------------------------------------------

TEST(MountTable, LooksUpDirectoryOrDevice) {
    TempDir dir;
    std::string table = dir / "mounts";
    touch(table,
          "/dev/vda / ext4 rw 0 0\n"
          "tmpfs /mnt/cache tmpfs rw 0 0\n"
          "/dev/hd/sda2 /mnt/sda ext4 rw,noatime 0 0\n"
          "/dev/hd/sda1 /mnt/img ext4 rw 0 0\n");
    EXPECT_EQ(find_mount_point("/mnt/cache/", table.c_str()), 1);  // trailing '/' dropped
    EXPECT_EQ(find_mount_point("/", table.c_str()), 1);            // a single '/' is kept
    EXPECT_EQ(find_mount_point("/dev/hd/sda2", table.c_str()), 1);
    EXPECT_EQ(find_mount_point("/mnt/sdb", table.c_str()), 0);
    EXPECT_EQ(find_mount_point("/mnt/cach", table.c_str()), 0);  // exact equality only
    EXPECT_EQ(find_mount_pair("/dev/hd/sda1", "/mnt/img", table.c_str()), 1);
    EXPECT_EQ(find_mount_pair("/dev/hd/sda2", "/mnt/img", table.c_str()), 0);
    EXPECT_EQ(find_mount_point("/", (dir / "no-such-table").c_str()), 0);
    EXPECT_EQ(find_mount_point(nullptr, table.c_str()), 0);
}

TEST(MountTable, DefaultTableIsProcMounts) {
    EXPECT_EQ(find_mount_point("/", nullptr), 1);
    EXPECT_EQ(find_mount_point("/proc", nullptr), 1);
    EXPECT_EQ(find_mount_point("/no/such/mount/point", nullptr), 0);
}

TEST(Clusters, ReadAtClusterTimesSizePlusOffset) {
    TempDir dir;
    std::string image = dir / "data";
    int fd = open(image.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    const char marker[] = "MARK";
    ASSERT_EQ(pwrite(fd, marker, 4, 524292), 4);
    char buf[4] = {0};
    EXPECT_EQ(read_cluster(fd, 1, 4, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "MARK");
    EXPECT_EQ(write_cluster(fd, 2, 8, "DATA", 4), 4);
    char back[4] = {0};
    EXPECT_EQ(pread(fd, back, 4, 2 * 524288 + 8), 4);
    EXPECT_EQ(std::string(back, 4), "DATA");
    EXPECT_EQ(blockdev_size(0, fd), 2 * 524288 + 12);  // a regular file answers its size
    close(fd);
}

TEST(Clusters, FailedWriteReportsAndReturnsNegative) {
    StdoutCapture cap;
    EXPECT_LT(write_cluster(-1, 0, 0, "x", 1), 0);
    EXPECT_EQ(cap.stop(), "perror\n");
}

TEST(Clusters, FarClusterPositionsDoNotOverflow) {
    TempDir dir;
    int fd = open((dir / "sparse").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    // Cluster 0x7FFFFFFF starts just under 1 PiB: beyond what a file may hold, so the write is
    // refused by the kernel, but the position is computed without wrapping to a low offset.
    EXPECT_LT(write_cluster(fd, 0x7FFFFFFF, 0, "x", 1), 0);
    EXPECT_EQ(blockdev_size(0, fd), 0);
    // Cluster 8192 is 4 GiB in: far beyond 32 bits.
    EXPECT_EQ(write_cluster(fd, 8192, 1, "y", 1), 1);
    EXPECT_EQ(blockdev_size(0, fd), 8192LL * 524288 + 2);
    close(fd);
}

TEST(Bits, FindFirstBitCountsLowOnes) {
    EXPECT_EQ(find_first_bit(0), 0);
    EXPECT_EQ(find_first_bit(0x7), 3);
    EXPECT_EQ(find_first_bit(0xFFFFFFFFu), 32);
    EXPECT_EQ(find_first_bit(0xFFFF0FFFu), 12);
    EXPECT_EQ(find_first_bit(0x80000000u), 0);
}

TEST(MaxDiskSize, ByMagic) {
    LogMask mask(kAllLevels);
    uint32_t saved = g_magic[1];
    const uint64_t TiB = 1ull << 40;
    g_magic[1] = RECSTORE_MAGIC_V7;
    EXPECT_EQ(get_max_supported_disk_size(1), 16 * TiB);
    g_magic[1] = RECSTORE_MAGIC_V6;
    EXPECT_EQ(get_max_supported_disk_size(1), 8 * TiB);
    g_magic[1] = RECSTORE_MAGIC_V5;
    EXPECT_EQ(get_max_supported_disk_size(1), 4 * TiB);
    g_magic[1] = RECSTORE_MAGIC_V1;
    EXPECT_EQ(get_max_supported_disk_size(1), 4 * TiB);
    g_magic[1] = 0;
    {
        StdoutCapture cap;
        EXPECT_EQ(get_max_supported_disk_size(1), 16 * TiB);
        EXPECT_NE(cap.stop().find("fatal error disk is not inited:1\n"), std::string::npos);
    }
    for (int bad : {8, -1, 100}) {
        StdoutCapture cap;
        EXPECT_EQ(get_max_supported_disk_size(bad), 16 * TiB);
        EXPECT_NE(cap.stop().find("fatal error disk:" + std::to_string(bad) + "\n"),
                  std::string::npos);
    }
    g_magic[1] = saved;
}

// ---- little-endian codec ---------------------------------------------------------------------

constexpr unsigned char kLeBytes[8] = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
static_assert(recstore::le16_load(kLeBytes) == 0x0708u, "low byte first");
static_assert(recstore::le32_load(kLeBytes) == 0x05060708u, "low byte first");
static_assert(recstore::le64_load(kLeBytes) == 0x0102030405060708ull, "low byte first");

TEST(LittleEndian, StoresLowByteFirstAtAnyAlignment) {
    unsigned char buf[16];
    for (size_t at = 0; at < 8; at++) {
        memset(buf, 0xEE, sizeof buf);
        recstore::le64_store(buf + at, 0x0102030405060708ull);
        EXPECT_EQ(memcmp(buf + at, kLeBytes, 8), 0) << "offset " << at;
        EXPECT_EQ(recstore::le64_load(buf + at), 0x0102030405060708ull);
        recstore::le32_store(buf + at, 0xA1B2C3D4u);
        EXPECT_EQ(buf[at], 0xD4);
        EXPECT_EQ(buf[at + 3], 0xA1);
        EXPECT_EQ(recstore::le32_load(buf + at), 0xA1B2C3D4u);
        recstore::le16_store(buf + at, 0xBEEF);
        EXPECT_EQ(buf[at], 0xEF);
        EXPECT_EQ(buf[at + 1], 0xBE);
        EXPECT_EQ(recstore::le16_load(buf + at), 0xBEEF);
        EXPECT_EQ(buf[at + 8], 0xEE) << "nothing written past the field";
    }
}

TEST(DiskIds, ValidIdsAreZeroToSevenInBothForms) {
    EXPECT_TRUE(recstore::valid_disk_id(0));
    EXPECT_TRUE(recstore::valid_disk_id(RECSTORE_MAX_DISKS - 1));
    EXPECT_FALSE(recstore::valid_disk_id(-1));
    EXPECT_FALSE(recstore::valid_disk_id(RECSTORE_MAX_DISKS));
    EXPECT_TRUE(recstore::valid_disk_id(7u));
    EXPECT_FALSE(recstore::valid_disk_id(8u));
    EXPECT_FALSE(recstore::valid_disk_id(0xFFFFFFFFu));
}
