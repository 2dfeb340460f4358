// Rig tests of the index cache on a real tmpfs mounted by cache_init on /mnt/cache/ inside the
// rig's private /mnt: the mount command line and the mount's size, the remount fallback,
// read-only mode, the exact tag bytes appended, dropping tags and removing empty directories,
// the removal walk over several days, a full tmpfs, and the loader thread rebuilding a disk's
// cache from real index files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cache.h"
#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"
#include "rig.h"
#include "test_util.h"

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

constexpr unsigned kLogAll = 0xB;
constexpr uint64_t kGiB = 1ull << 30;
constexpr uint64_t kMiB = 1ull << 20;
constexpr const char *kLeaf = "/mnt/cache/sda/03/2024/05/17/00/";
constexpr const char *kLeafFile = "/mnt/cache/sda/03/2024/05/17/00/cache";
constexpr int kLoadWaitMs = 20000;  // the loader of a small tree finishes far sooner

using recstore_test::contains;

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<unsigned char> read_bytes(const std::string &path) {
    std::string s = slurp(path);
    return std::vector<unsigned char>(s.begin(), s.end());
}

void write_bytes(const std::string &path, const std::vector<unsigned char> &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

std::vector<unsigned char> tag_bytes(uint64_t tag) {
    std::vector<unsigned char> b(8);
    recstore::le64_store(b.data(), tag);
    return b;
}

std::vector<uint64_t> tags_of(const std::string &path) {
    std::vector<unsigned char> b = read_bytes(path);
    std::vector<uint64_t> tags;
    for (size_t at = 0; at + 8 <= b.size(); at += 8) {
        tags.push_back(recstore::le64_load(b.data() + at));
    }
    return tags;
}

struct tm make_tm(int year, int mon, int mday, int hour, int min, int sec) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = mday;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    return t;
}

// The tag that a recording of this channel, start, duration, type, mode and size must have.
uint64_t expected_tag(int channel, const struct tm &start, int duration, int type, unsigned mode,
                      unsigned bytes) {
    struct tm end;
    tm_offset_sec(&start, duration, &end);
    char name[64];
    mk_idx_filename(name, sizeof name, channel, &start, type);
    return filename_to_cachetag(&end, mode, bytes, name);
}

// Appends the tag of a recording through cache_create; its expected tag.
uint64_t add(int channel, const struct tm &start, int duration, int type = 0, unsigned mode = 1,
             unsigned bytes = 0x80000) {
    struct tm end;
    tm_offset_sec(&start, duration, &end);
    EXPECT_EQ(cache_create(0, channel, &start, &end, type, mode, bytes), 0);
    return expected_tag(channel, start, duration, type, mode, bytes);
}

std::string mount_line() {
    std::istringstream table(slurp("/proc/mounts"));
    std::string line;
    while (std::getline(table, line)) {
        if (contains(line, " /mnt/cache ")) return line;
    }
    return "";
}

// Puts a directory first in PATH for the lifetime of the object.
class PathPrefix {
  public:
    explicit PathPrefix(const std::string &dir) : saved_(getenv("PATH") ? getenv("PATH") : "") {
        setenv("PATH", (dir + ":" + saved_).c_str(), 1);
    }
    ~PathPrefix() { setenv("PATH", saved_.c_str(), 1); }

  private:
    std::string saved_;
};

// A "mount" that records its arguments and fails, except for a remount when remount_ok is set.
std::string fake_mount(bool remount_ok) {
    std::string bin = rig::dir() + "/fakebin";
    rig::sh("mkdir -p " + bin + " && rm -f " + bin + "/calls");
    std::ofstream script(bin + "/mount");
    script << "#!/bin/sh\necho \"$*\" >> " << bin << "/calls\n";
    if (remount_ok) script << "case \"$*\" in *remount*) exit 0 ;; esac\n";
    script << "exit 32\n";
    script.close();
    chmod((bin + "/mount").c_str(), 0755);
    return bin;
}

class CacheRig : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run this test through tests/rig/rig-run";
        ASSERT_EQ(mount_line(), "") << "a cache is still mounted";
        g_cache_rdonly = 0;
        snprintf(g_disk[0].devname, sizeof g_disk[0].devname, "/dev/hd/sda");
    }
    void TearDown() override {
        g_cache_rdonly = 0;
        if (!mount_line().empty()) rig::run("umount /mnt/cache");
        rig::run("rm -rf /mnt/cache /mnt/sda /mnt/img/log.log");
        for (unsigned i = 0; i < RECSTORE_MAX_DISKS; i++) g_cache_loaded[i] = 0;
        for (auto &d : g_disk) d.devname[0] = '\0';
        fs_log_exit();
        for (auto &disk : disks_) rig::unplug(disk);
    }
    void mount_cache(int inodes = 1000, unsigned mib = 4) {
        StdoutCapture cap;
        ASSERT_EQ(cache_init(inodes, mib, 0), 0) << cap.stop();
        ASSERT_NE(mount_line(), "");
    }
    std::vector<rig::Disk> disks_;
};

}  // namespace

// ---- mounting --------------------------------------------------------------------------------

TEST_F(CacheRig, MountsATmpfsSizedForTheProbedDisks) {
    disks_.push_back(rig::attach('a', kGiB));
    disks_.push_back(rig::attach('b', kGiB));
    StdoutCapture cap;
    int result = cache_init(1000, 3, 0);
    std::string out = cap.stop();
    EXPECT_EQ(result, 0) << out;
    EXPECT_TRUE(contains(out,
                         "cache mount:mount -t tmpfs -o size=6m,nr_inodes=1000 -o "
                         "noatime,nodiratime  tmpfs /mnt/cache/\n"))
        << out;
    EXPECT_FALSE(contains(out, "cache initialize for")) << out;
    std::string line = mount_line();
    EXPECT_TRUE(contains(line, "tmpfs /mnt/cache tmpfs ")) << line;
    EXPECT_TRUE(contains(line, "size=6144k")) << line;
    EXPECT_TRUE(contains(line, "nr_inodes=1000")) << line;
    EXPECT_TRUE(contains(line, "noatime")) << line;
    struct statfs sf;
    ASSERT_EQ(statfs("/mnt/cache", &sf), 0);
    EXPECT_EQ(static_cast<uint64_t>(sf.f_blocks) * static_cast<uint64_t>(sf.f_bsize), 6 * kMiB);
    EXPECT_EQ(sf.f_files, 1000u) << "the inode count is not multiplied by the disks";
    EXPECT_EQ(cache_isfull(), 0);

    StdoutCapture cap2;
    cache_exit();
    cap2.stop();
    EXPECT_EQ(mount_line(), "");
}

TEST_F(CacheRig, ProbeFindingNoDiskMountsACacheForOneDisk) {
    StdoutCapture cap;
    int result = cache_init(500, 4, 0);
    std::string out = cap.stop();
    EXPECT_EQ(result, 0) << out;
    EXPECT_TRUE(contains(out, "cache initialize for :1 disk\n")) << out;
    EXPECT_TRUE(contains(out,
                         "cache mount:mount -t tmpfs -o size=4m,nr_inodes=500 -o "
                         "noatime,nodiratime  tmpfs /mnt/cache/\n"))
        << out;
    EXPECT_TRUE(contains(mount_line(), "size=4096k")) << mount_line();
}

TEST_F(CacheRig, SecondInitFindsTheCacheMounted) {
    mount_cache();
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_init(1000, 4, 0), 0);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache had already mounted\n")) << out;
    EXPECT_FALSE(contains(out, "cache mount:")) << out;
}

TEST_F(CacheRig, FailedMountFallsBackToRemount) {
    std::string bin = fake_mount(true);
    PathPrefix path(bin);
    StdoutCapture cap;
    int result = cache_init(50, 2, 0);
    std::string out = cap.stop();
    EXPECT_EQ(result, 0) << out;
    EXPECT_TRUE(contains(out,
                         "cache mount:mount -t tmpfs -o size=2m,nr_inodes=50 -o "
                         "noatime,nodiratime  tmpfs /mnt/cache/\n"))
        << out;
    EXPECT_TRUE(contains(out,
                         "cache remount:mount -t tmpfs -o size=2m,nr_inodes=50 -o "
                         "noatime,nodiratime -o remount tmpfs /mnt/cache/\n"))
        << out;
    EXPECT_EQ(slurp(bin + "/calls"),
              "-t tmpfs -o size=2m,nr_inodes=50 -o noatime,nodiratime tmpfs /mnt/cache/\n"
              "-t tmpfs -o size=2m,nr_inodes=50 -o noatime,nodiratime -o remount tmpfs "
              "/mnt/cache/\n");
}

TEST_F(CacheRig, MountAndRemountBothFailing) {
    std::string bin = fake_mount(false);
    PathPrefix path(bin);
    StdoutCapture cap;
    int result = cache_init(50, 2, 0);
    std::string out = cap.stop();
    EXPECT_EQ(result, -1) << out;
    EXPECT_TRUE(contains(out, "cache remount:")) << out;
}

TEST_F(CacheRig, SizesThatWouldMountAnUnlimitedTmpfsAreRefused) {
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_init(0, 4, 0), -1);
    EXPECT_EQ(cache_init(-5, 4, 0), -1);
    EXPECT_EQ(cache_init(1000, 0, 0), -1);
    EXPECT_EQ(cache_init(1000, 0x80000000u, 0), -1);
    std::string out = cap.stop();
    EXPECT_FALSE(contains(out, "cache mount:")) << out;
    EXPECT_EQ(mount_line(), "");
}

TEST_F(CacheRig, ReadOnlyModeMountsAndWritesNothing) {
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_init(1000, 4, 1), 0);
    EXPECT_EQ(cache_is_readonly(), 1);
    struct tm start = make_tm(2024, 5, 17, 8, 9, 10), end = make_tm(2024, 5, 17, 9, 0, 0);
    EXPECT_EQ(cache_create(0, 3, &start, &end, 0, 1, 0x10000), 0);
    EXPECT_EQ(cache_create(0, 3, &end, &start, 0, 1, 0x10000), -1) << "start after end";
    EXPECT_EQ(cache_load("/dev/hd/sda"), 0);
    EXPECT_EQ(cache_delete(0, 3, &start, 0), 0);
    EXPECT_EQ(cache_exit(), 0);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache initialize readonly\n")) << out;
    EXPECT_TRUE(contains(out, "cache readonly\n")) << out;
    EXPECT_FALSE(contains(out, "cache mount:")) << out;
    EXPECT_EQ(mount_line(), "");
    EXPECT_TRUE(exists("/mnt/cache")) << "the mount point is made even so";
    EXPECT_FALSE(exists("/mnt/cache/sda"));
    EXPECT_EQ(cache_is_loaded(0), 0);
}

// ---- tags ------------------------------------------------------------------------------------

TEST_F(CacheRig, CreateAppendsTheExactTagBytes) {
    mount_cache();
    struct tm start = make_tm(2024, 5, 17, 8, 9, 10), end = make_tm(2024, 5, 17, 9, 10, 11);
    ASSERT_EQ(cache_create(0, 3, &start, &end, 0, 0x1AB, 0x12345678), 0);
    struct tm end_copy = end;
    uint64_t tag = filename_to_cachetag(&end_copy, 0x1AB, 0x12345678, "0320240517080910_00");
    EXPECT_EQ(read_bytes(kLeafFile), tag_bytes(tag));
    // The fields as the tag layout puts them.
    uint32_t lo = static_cast<uint32_t>(tag), hi = static_cast<uint32_t>(tag >> 32);
    EXPECT_EQ(lo & 0xFFFFF, 8u * 3600 + 9 * 60 + 10);
    EXPECT_EQ((hi >> 4) & 0xFF, 0xABu);
    EXPECT_EQ((hi >> 12) & 0xFFFF, 0x1234u);

    struct tm start2 = make_tm(2024, 5, 17, 10, 0, 0);
    uint64_t tag2 = add(3, start2, 60, 0, 2, 0x20000);
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{tag, tag2}));

    int disk = -1, channel = -1, type = -1, mode = 0;
    unsigned bytes = 0;
    struct tm s = {}, e = {};
    ASSERT_EQ(
        cachetag_to_record(kLeafFile, 0, lo, hi, &disk, &channel, &s, &e, &type, &mode, &bytes), 0);
    EXPECT_EQ(disk, 0);
    EXPECT_EQ(channel, 3);
    EXPECT_EQ(tm_cmp(&s, &start), 0);
    EXPECT_EQ(tm_cmp(&e, &end), 0);
    EXPECT_EQ(mode, 0xAB);
    EXPECT_EQ(bytes, 0x12340000u);
}

TEST_F(CacheRig, CreateForADiskThatIsNotOpenFails) {
    mount_cache();
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0), end = make_tm(2024, 5, 17, 9, 0, 0);
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_create(1, 3, &start, &end, 0, 1, 0), -1);
    EXPECT_TRUE(contains(cap.stop(), "disk 1 not open\n"));
    EXPECT_FALSE(exists("/mnt/cache/sdb"));
}

TEST_F(CacheRig, DeleteDropsEveryTagOfTheSameStartSecond) {
    mount_cache();
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0);
    add(3, start, 100);
    uint64_t other = add(3, make_tm(2024, 5, 17, 8, 0, 1), 100);
    add(3, start, 900, 0, 7);  // a second recording starting in the same second
    ASSERT_EQ(tags_of(kLeafFile).size(), 3u);
    EXPECT_EQ(cache_delete(0, 3, &start, 0), 0);
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{other}));
    EXPECT_FALSE(exists(std::string(kLeaf) + "cachetmp"));
}

TEST_F(CacheRig, RewriteWithoutPredicateKeepsTheFile) {
    mount_cache();
    add(3, make_tm(2024, 5, 17, 8, 0, 0), 100);
    add(3, make_tm(2024, 5, 17, 9, 0, 0), 100);
    std::vector<unsigned char> before = read_bytes(kLeafFile);
    struct tm day = make_tm(2024, 5, 17, 0, 0, 0);
    EXPECT_EQ(do_cache_delete_cond(0, 3, &day, 0, nullptr), 0);
    EXPECT_EQ(read_bytes(kLeafFile), before);
    EXPECT_FALSE(exists(std::string(kLeaf) + "cachetmp"));
}

TEST_F(CacheRig, EmptiedFileAndDirectoriesAreRemovedUpToTheDiskRoot) {
    mount_cache();
    struct tm a = make_tm(2024, 5, 17, 8, 0, 0), b = make_tm(2024, 5, 17, 9, 0, 0);
    add(3, a, 100);
    add(3, b, 100);
    add(4, a, 100);
    EXPECT_EQ(cache_delete(0, 3, &a, 0), 0);
    EXPECT_TRUE(exists(kLeafFile));
    EXPECT_EQ(cache_delete(0, 3, &b, 0), 0);
    EXPECT_FALSE(exists(kLeafFile));
    EXPECT_FALSE(exists("/mnt/cache/sda/03"));
    EXPECT_TRUE(exists("/mnt/cache/sda/04/2024/05/17/00/cache"));
    EXPECT_EQ(cache_delete(0, 4, &a, 0), 0);
    EXPECT_FALSE(exists("/mnt/cache/sda/04"));
    EXPECT_TRUE(exists("/mnt/cache/sda")) << "the disk's cache root stays";
}

TEST_F(CacheRig, EmptyFileIsRemovedByARewrite) {
    mount_cache();
    rig::sh(std::string("mkdir -p ") + kLeaf + " && : > " + kLeafFile);
    struct tm day = make_tm(2024, 5, 17, 0, 0, 0);
    EXPECT_EQ(do_cache_delete_cond(0, 3, &day, 0, nullptr), 0);
    EXPECT_FALSE(exists(kLeafFile));
    EXPECT_FALSE(exists("/mnt/cache/sda/03"));
}

TEST_F(CacheRig, MissingCacheFileChangesNothing) {
    mount_cache();
    add(3, make_tm(2024, 5, 17, 8, 0, 0), 100);
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0);
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_delete(0, 5, &start, 0), -1);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache file :/mnt/cache/sda/05/2024/05/17/00/cache not exist\n"))
        << out;
    EXPECT_FALSE(exists("/mnt/cache/sda/05"));
    EXPECT_EQ(tags_of(kLeafFile).size(), 1u);
}

TEST_F(CacheRig, GarbageAndTruncatedFilesAreReadWithoutHarm) {
    mount_cache();
    rig::sh(std::string("mkdir -p ") + kLeaf);
    std::vector<unsigned char> garbage = {0xde, 0xad, 0xbe, 0xef, 0x01, 0x02, 0x03,
                                          0x04, 0x05, 0x06, 0x07, 0x08, 0x09};  // 13 bytes
    write_bytes(kLeafFile, garbage);
    struct tm day = make_tm(2024, 5, 17, 0, 0, 0);
    EXPECT_EQ(do_cache_delete_cond(0, 3, &day, 0, nullptr), 0);
    EXPECT_EQ(read_bytes(kLeafFile),
              std::vector<unsigned char>(garbage.begin(), garbage.begin() + 8));

    std::mt19937 rng(7);
    std::vector<unsigned char> noise(1003);
    for (auto &c : noise) c = static_cast<unsigned char>(rng());
    write_bytes(kLeafFile, noise);
    struct tm noon = make_tm(2024, 5, 17, 12, 0, 0);
    EXPECT_EQ(do_cache_delete_cond(0, 3, &noon, 0, before_cachetag), 0);
    std::vector<uint64_t> kept = exists(kLeafFile) ? tags_of(kLeafFile) : std::vector<uint64_t>{};
    EXPECT_EQ(read_bytes(kLeafFile).size() % 8, 0u);
    for (uint64_t tag : kept) {
        EXPECT_NE(
            before_cachetag(static_cast<uint32_t>(tag), static_cast<uint32_t>(tag >> 32), &noon),
            0);
    }
}

TEST_F(CacheRig, LinkPathsAreNeverMirrored) {
    mount_cache();
    rig::sh("mkdir -p /mnt/sda/link/00000007 /mnt/sda/03link /mnt/sda/03");
    struct stat st;
    ASSERT_EQ(stat("/mnt/sda/link", &st), 0);
    EXPECT_EQ(buildcache("/mnt/sda/link", &st, nullptr), 2);
    EXPECT_EQ(buildcache("/mnt/sda/link/00000007", &st, nullptr), 2);
    EXPECT_EQ(buildcache("/mnt/sda/03link", &st, nullptr), 2);
    EXPECT_EQ(buildcache("/mnt/sda/03", &st, nullptr), 1);
    EXPECT_FALSE(exists("/mnt/cache/sda/link"));
    EXPECT_FALSE(exists("/mnt/cache/sda/03link"));
    EXPECT_TRUE(exists("/mnt/cache/sda/03"));
}

TEST_F(CacheRig, ClearRemovesTheDiskTreeOnly) {
    mount_cache();
    snprintf(g_disk[1].devname, sizeof g_disk[1].devname, "/dev/hd/sdb");
    add(3, make_tm(2024, 5, 17, 8, 0, 0), 100);
    struct tm s = make_tm(2024, 5, 17, 8, 0, 0), e = make_tm(2024, 5, 17, 9, 0, 0);
    ASSERT_EQ(cache_create(1, 3, &s, &e, 0, 1, 0), 0);
    EXPECT_EQ(cache_clear("/dev/hd/sda"), 0);
    EXPECT_FALSE(exists("/mnt/cache/sda"));
    EXPECT_TRUE(exists("/mnt/cache/sdb/03/2024/05/17/00/cache"));
    EXPECT_EQ(cache_unload("/dev/hd/sdb"), 0);
    EXPECT_FALSE(exists("/mnt/cache/sdb"));
    EXPECT_TRUE(exists("/mnt/cache"));
}

TEST_F(CacheRig, ConcurrentAppendsAndRewritesLoseNoTag) {
    mount_cache();
    constexpr int kThreads = 4, kPerThread = 50;
    std::vector<std::thread> writers;
    for (int w = 0; w < kThreads; w++) {
        writers.emplace_back([w] {
            for (int i = 0; i < kPerThread; i++) {
                struct tm s = make_tm(2024, 5, 17, 1, w, i), e = make_tm(2024, 5, 17, 2, 0, 0);
                cache_create(0, 3, &s, &e, 0, 1, 0);
            }
        });
    }
    // Rewrites that drop nothing (no tag starts at 23:00:00) run between the appends.
    std::thread rewriter([] {
        struct tm none = make_tm(2024, 5, 17, 23, 0, 0);
        for (int i = 0; i < 100; i++) cache_delete(0, 3, &none, 0);
    });
    for (auto &t : writers) t.join();
    rewriter.join();
    EXPECT_EQ(read_bytes(kLeafFile).size(), static_cast<size_t>(kThreads * kPerThread) * 8);
    std::vector<uint32_t> seconds;
    for (uint64_t tag : tags_of(kLeafFile)) seconds.push_back(static_cast<uint32_t>(tag) & 0xFFFFF);
    std::sort(seconds.begin(), seconds.end());
    std::vector<uint32_t> expected;
    for (int w = 0; w < kThreads; w++) {
        for (int i = 0; i < kPerThread; i++) expected.push_back(3600u + 60u * w + i);
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(seconds, expected);
}

TEST_F(CacheRig, AppendsNeverMeetALeafRemovedUnderThem) {
    mount_cache();
    // Two threads append a tag and drop it again; each drop may empty the file and remove the
    // leaf's directories while the other thread is about to append.
    auto churn = [](int minute, int *failures) {
        for (int i = 0; i < 200; i++) {
            struct tm s = make_tm(2024, 5, 17, 5, minute, i % 60),
                      e = make_tm(2024, 5, 17, 6, 0, 0);
            if (cache_create(0, 3, &s, &e, 0, 1, 0) != 0) ++*failures;
            cache_delete(0, 3, &s, 0);
        }
    };
    int failures_a = 0, failures_b = 0;
    std::thread a(churn, 1, &failures_a), b(churn, 2, &failures_b);
    a.join();
    b.join();
    EXPECT_EQ(failures_a, 0);
    EXPECT_EQ(failures_b, 0);
    EXPECT_FALSE(exists(kLeafFile));
    EXPECT_FALSE(exists("/mnt/cache/sda/03"));
}

// ---- removal before a time -------------------------------------------------------------------

TEST_F(CacheRig, RemovalWalkOverSeveralDays) {
    mount_cache();
    // t = 2024-05-17 12:00:00 UTC.
    time_t t = 1715947200;
    add(3, make_tm(2023, 12, 31, 23, 0, 0), 60);  // an earlier year
    add(3, make_tm(2024, 4, 30, 10, 0, 0), 60);   // an earlier month
    add(3, make_tm(2024, 5, 15, 10, 0, 0), 60);   // earlier days
    add(3, make_tm(2024, 5, 16, 23, 59, 0), 30);
    add(3, make_tm(2024, 5, 17, 8, 0, 0), 60);  // t's day: before t
    uint64_t at_t = add(3, make_tm(2024, 5, 17, 12, 0, 0), 60);
    uint64_t after_t = add(3, make_tm(2024, 5, 17, 13, 0, 0), 60);
    uint64_t next_day = add(3, make_tm(2024, 5, 18, 1, 0, 0), 60);
    uint64_t next_month = add(3, make_tm(2024, 6, 1, 1, 0, 0), 60);
    uint64_t next_year = add(3, make_tm(2025, 1, 1, 0, 0, 0), 60);
    uint64_t other_type = add(3, make_tm(2024, 5, 17, 9, 0, 0), 60, 1);

    LogMask mask(kLogAll);
    StdoutCapture cap;
    // A cache file of an earlier day reached by itself is removed; its directories stay.
    add(3, make_tm(2024, 5, 14, 10, 0, 0), 60);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024/05/14/00/cache", &t), 1);
    EXPECT_FALSE(exists("/mnt/cache/sda/03/2024/05/14/00/cache"));
    EXPECT_TRUE(exists("/mnt/cache/sda/03/2024/05/14/00"));
    int result =
        find_recursive_nostat("/mnt/cache/sda/03/", DT_DIR, 1, 0, 0, cache_del_before_action,
                              cache_del_before_action, &t, nullptr);
    std::string out = cap.stop();
    EXPECT_EQ(result, 1) << out;

    EXPECT_FALSE(exists("/mnt/cache/sda/03/2023")) << "a whole earlier year is removed";
    EXPECT_FALSE(exists("/mnt/cache/sda/03/2024/04")) << "a whole earlier month is removed";
    EXPECT_FALSE(exists("/mnt/cache/sda/03/2024/05/15/00/cache"));
    EXPECT_FALSE(exists("/mnt/cache/sda/03/2024/05/16/00/cache"));
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{at_t, after_t}));
    EXPECT_TRUE(tags_of("/mnt/cache/sda/03/2024/05/17/01/cache").empty())
        << "type 1 of t's day is rewritten too";
    (void)other_type;
    EXPECT_EQ(tags_of("/mnt/cache/sda/03/2024/05/18/00/cache"), (std::vector<uint64_t>{next_day}));
    EXPECT_EQ(tags_of("/mnt/cache/sda/03/2024/06/01/00/cache"),
              (std::vector<uint64_t>{next_month}));
    EXPECT_EQ(tags_of("/mnt/cache/sda/03/2025/01/01/00/cache"), (std::vector<uint64_t>{next_year}));

    EXPECT_TRUE(contains(out, "year :2025 out of range\n")) << out;
    EXPECT_TRUE(contains(out, "year:2024 mon :6 out of range\n")) << out;
    EXPECT_TRUE(contains(out, "year:2024 mon :5 day:18 out of range\n")) << out;
    EXPECT_TRUE(contains(out,
                         "remove cache file:/mnt/cache/sda/03/2023 before:Fri May 17 "
                         "12:00:00 2024\n"))
        << out;
    EXPECT_TRUE(contains(out, "remove cache file:/mnt/cache/sda/03/2024/05/15 before:")) << out;
    EXPECT_TRUE(contains(out, "be care of file name:/mnt/cache/sda/03/2024 before:")) << out;
    EXPECT_TRUE(contains(out, "remove cache file:/mnt/cache/sda/03/2024/05/14/00/cache before:"))
        << out;
    EXPECT_FALSE(exists("/mnt/cache/sda/03/2024/05/14")) << "removed whole by the walk";
}

// ---- a full tmpfs ----------------------------------------------------------------------------

TEST_F(CacheRig, FullOfInodes) {
    mount_cache(40, 1);
    fs_log_init("/mnt/img/fs.log");
    uint64_t tag = add(3, make_tm(2024, 5, 17, 8, 0, 0), 100);
    rig::sh("mkdir -p /mnt/cache/fill");
    for (int i = 0; i < 100; i++) {
        int fd = open(("/mnt/cache/fill/" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd < 0) break;
        close(fd);
    }
    StdoutCapture cap;
    EXPECT_EQ(cache_isfull(), 1);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache full,freeblock :")) << out;
    std::string log = slurp("/mnt/img/log.log");
    EXPECT_TRUE(contains(log, "cache full,freeblock :")) << log;
    EXPECT_TRUE(contains(log, ",free innode:0\n")) << log;

    // No inode for "cachetmp" or a new leaf: both fail, and the file keeps its tag.
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0);
    LogMask mask(kLogAll);
    StdoutCapture cap2;
    EXPECT_EQ(cache_delete(0, 3, &start, 0), -1);
    struct tm s = make_tm(2024, 5, 18, 8, 0, 0), e = make_tm(2024, 5, 18, 9, 0, 0);
    EXPECT_EQ(cache_create(0, 3, &s, &e, 0, 1, 0), -1);
    std::string out2 = cap2.stop();
    EXPECT_TRUE(contains(out2, "cache file :" + std::string(kLeafFile) + " open err\n")) << out2;
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{tag}));
}

TEST_F(CacheRig, FullOfBlocks) {
    mount_cache(1000, 1);
    fs_log_init("/mnt/img/fs.log");
    uint64_t tag = add(3, make_tm(2024, 5, 17, 8, 0, 0), 100);
    uint64_t tag2 = add(3, make_tm(2024, 5, 17, 9, 0, 0), 100);
    std::vector<char> chunk(4096, 'x');
    int fd = open("/mnt/cache/filler", O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    while (write(fd, chunk.data(), chunk.size()) > 0) {
    }
    // Fill the last partial page too, byte by byte.
    while (write(fd, chunk.data(), 1) > 0) {
    }
    close(fd);
    StdoutCapture cap;
    EXPECT_EQ(cache_isfull(), 1);
    cap.stop();
    EXPECT_TRUE(contains(slurp("/mnt/img/log.log"), "cache full,freeblock :0,free innode:"));

    // The rewrite cannot write "cachetmp": the cache file stays as it was.
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0);
    StdoutCapture cap2;
    EXPECT_EQ(cache_delete(0, 3, &start, 0), -1);
    cap2.stop();
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{tag, tag2}));
    EXPECT_FALSE(exists(std::string(kLeaf) + "cachetmp"));
    // Appending still fits in the file's page.
    uint64_t tag3 = add(3, make_tm(2024, 5, 17, 10, 0, 0), 100);
    EXPECT_EQ(tags_of(kLeafFile), (std::vector<uint64_t>{tag, tag2, tag3}));
    EXPECT_EQ(read_bytes(kLeafFile).size(), 24u);
}

// ---- the loader --------------------------------------------------------------------------------

namespace {

struct Recording {
    int channel;
    struct tm start;
    int duration;
    int type;
    unsigned mode;
    int entries;
};

// Writes one recording's index file with its entries and closes it with its end time.
void write_index_file(const Recording &r) {
    int h = index_open(0, 7, &r.start, r.channel, r.type, 1, 2, 3, O_CREAT | O_RDWR, r.mode, 4,
                       nullptr);
    ASSERT_GE(h, 0) << r.channel;
    for (int i = 0; i < r.entries; i++) {
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        struct tm start = r.start;
        frames[0] = kframe{0, static_cast<uint32_t>(timegm(&start)) + static_cast<uint32_t>(i)};
        ASSERT_GE(index_write(h, 100 + static_cast<uint32_t>(i), 524288, frames, 1), 0);
    }
    struct tm end;
    tm_offset_sec(&r.start, r.duration, &end);
    index_close(h, &end);
}

std::string cache_file_of(const Recording &r) {
    char dir[RECSTORE_PATH_LEN], cache_dir[RECSTORE_PATH_LEN];
    mk_idx_fullpath(0, dir, sizeof dir, r.channel, &r.start, r.type);
    tocachename(cache_dir, sizeof cache_dir, dir);
    return std::string(cache_dir) + "cache";
}

bool wait_loaded(unsigned disk) {
    for (int waited = 0; waited < kLoadWaitMs; waited += 20) {
        if (cache_is_loaded(disk)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

}  // namespace

TEST_F(CacheRig, LoaderRebuildsTheCacheFromTheIndexTree) {
    ASSERT_EQ(fs_init(1000, 4, 0), 0);
    ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
    snprintf(g_disk[1].devname, sizeof g_disk[1].devname, "/dev/hd/sdb");
    ASSERT_EQ(mkdir("/mnt/sda", 0755), 0);
    ASSERT_EQ(index_write_magic(0), 0);
    g_magic[0] = RECSTORE_MAGIC_V7;

    std::vector<Recording> recs = {
        {3, make_tm(2024, 5, 17, 8, 9, 10), 3600, 0, 0x1AB, 3},
        {3, make_tm(2024, 5, 17, 10, 0, 0), 600, 0, 0x02, 1},
        {3, make_tm(2024, 5, 17, 11, 0, 0), 70000, 1, 0x03, 2},  // duration wraps in the tag
        {3, make_tm(2024, 5, 18, 0, 0, 0), 59, 0, 0x04, 5},
        {12, make_tm(2023, 12, 31, 23, 0, 0), 120, 2, 0x05, 1},
    };
    for (const Recording &r : recs) write_index_file(r);
    // The link tree and anything else holding "link" is never mirrored.
    rig::sh(
        "mkdir -p /mnt/sda/link/00000007 /mnt/sda/20link/2024 && ln -s "
        "../../03/2024/05/17/00/0320240517080910_00 /mnt/sda/link/00000007/"
        "0320240517080910_00");
    // A stale cache of the disk is cleared by the load.
    rig::sh(
        "mkdir -p /mnt/cache/sda/40/2020/01/01/00 && : > /mnt/cache/sda/40/2020/01/01/00/cache");

    // A file named like an index file but holding nothing is passed over; the build goes on.
    rig::sh(
        "mkdir -p /mnt/sda/30/2024/05/17/00 && : > /mnt/sda/30/2024/05/17/00/3020240517010000_00");

    LogMask mask(kLogAll);
    StdoutCapture cap;
    ASSERT_EQ(cache_load("/dev/hd/sda"), 0);
    // Appends to another disk's cache run while the loader works.
    struct tm s = make_tm(2024, 5, 17, 8, 0, 0), e = make_tm(2024, 5, 17, 9, 0, 0);
    for (int i = 0; i < 20; i++) EXPECT_EQ(cache_create(1, 3, &s, &e, 0, 1, 0), 0);
    bool loaded = wait_loaded(0);
    std::string out = cap.stop();
    ASSERT_TRUE(loaded) << "the loader did not finish in time\n" << out;
    EXPECT_TRUE(contains(out, "cache load finished use:")) << out;
    EXPECT_TRUE(contains(out, "level:1\n")) << "the magic file is not an index file\n" << out;
    EXPECT_EQ(tags_of("/mnt/cache/sdb/03/2024/05/17/00/cache").size(), 20u);

    std::map<std::string, std::vector<uint64_t>> expected;
    for (const Recording &r : recs) {
        expected[cache_file_of(r)].push_back(
            expected_tag(r.channel, r.start, r.duration, r.type, r.mode,
                         static_cast<unsigned>(r.entries) * 524288u));
    }
    for (auto &[file, tags] : expected) {
        std::vector<uint64_t> got = tags_of(file);
        std::sort(got.begin(), got.end());
        std::sort(tags.begin(), tags.end());
        EXPECT_EQ(got, tags) << file;
    }
    EXPECT_FALSE(exists("/mnt/cache/sda/link"));
    EXPECT_FALSE(exists("/mnt/cache/sda/20link"));
    EXPECT_FALSE(exists("/mnt/cache/sda/40")) << "the old cache of the disk is gone";
    EXPECT_EQ(cache_is_loaded(1), 0);

    StdoutCapture cap2;
    fs_exit();
    cap2.stop();
    EXPECT_EQ(mount_line(), "");
}
