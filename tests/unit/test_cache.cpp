// Unit tests of the index cache that need no mounted tmpfs: the on-file form of a tag, reading
// and appending tags, the rewrite of a cache file through "cachetmp" and the removal of empty
// directories (on a scratch directory under /tmp), the loaded flags, read-only mode, refused
// input and the parts of the removal walk that decide without touching the cache tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cache.h"
#include "capture.h"
#include "fs_tools.h"
#include "recstore.h"
#include "test_util.h"

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

constexpr unsigned kLogAll = 0xB;

using recstore_test::contains;

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<unsigned char> read_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
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

std::vector<unsigned char> concat(std::initializer_list<std::vector<unsigned char>> parts) {
    std::vector<unsigned char> all;
    for (const auto &p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
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

// The tag of a recording of channel 3, type 0 that starts at the given time of 17 May 2024.
uint64_t tag_at(int hour, int min, int sec, int duration, unsigned mode = 1,
                unsigned bytes = 0x40000) {
    struct tm start = make_tm(2024, 5, 17, hour, min, sec);
    struct tm end;
    tm_offset_sec(&start, duration, &end);
    char name[64];
    mk_idx_filename(name, sizeof name, 3, &start, 0);
    return filename_to_cachetag(&end, mode, bytes, name);
}

// A scratch directory under /tmp holding a leaf directory sda/03/2024/05/17/00/ as the cache
// tree has it, removed with everything in it at the end.
class CacheFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/recstore-cache-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        base_ = tmpl;
        root_ = base_ + "/sda/";
        leaf_ = root_ + "03/2024/05/17/00/";
        ASSERT_EQ(system(("mkdir -p " + leaf_).c_str()), 0);
        file_ = leaf_ + "cache";
        tmp_ = leaf_ + "cachetmp";
    }
    void TearDown() override { remove_file(base_.c_str(), 7); }
    std::string base_, root_, leaf_, file_, tmp_;
};

class CacheState : public ::testing::Test {
  protected:
    void TearDown() override {
        g_cache_rdonly = 0;
        for (unsigned i = 0; i < RECSTORE_MAX_DISKS; i++) g_cache_loaded[i] = 0;
        g_disk[0].devname[0] = '\0';
    }
};

}  // namespace

TEST(CacheTag, OnFileFormIsLittleEndianLowWordFirst) {
    unsigned char bytes[recstore::kCacheTagSize];
    recstore::cache_tag_to_bytes(0x04030201u, 0x08070605u, bytes);
    for (int i = 0; i < 8; i++) EXPECT_EQ(bytes[i], i + 1) << i;
    uint32_t lo = 0, hi = 0;
    recstore::cache_tag_from_bytes(bytes, &lo, &hi);
    EXPECT_EQ(lo, 0x04030201u);
    EXPECT_EQ(hi, 0x08070605u);
}

TEST_F(CacheFiles, AppendedTagIsEightBytesAndReadsBack) {
    uint64_t tag = tag_at(8, 9, 10, 3600, 0x1AB, 0x12345678);
    int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(do_cache_write_tag(fd, static_cast<uint32_t>(tag), static_cast<uint32_t>(tag >> 32)),
              8);
    close(fd);
    EXPECT_EQ(read_bytes(file_), tag_bytes(tag));

    fd = open(file_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    uint32_t lo = 0, hi = 0;
    EXPECT_EQ(do_cache_read_tag(fd, &lo, &hi), 1);
    EXPECT_EQ((static_cast<uint64_t>(hi) << 32) | lo, tag);
    EXPECT_EQ(do_cache_read_tag(fd, &lo, &hi), 0);
    close(fd);
}

TEST_F(CacheFiles, PartialTailIsNotATag) {
    std::vector<unsigned char> bytes = concat({tag_bytes(tag_at(1, 0, 0, 10)), {1, 2, 3, 4, 5}});
    write_bytes(file_, bytes);
    int fd = open(file_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    uint32_t lo = 0, hi = 0;
    EXPECT_EQ(do_cache_read_tag(fd, &lo, &hi), 1);
    EXPECT_EQ(do_cache_read_tag(fd, &lo, &hi), 0);
    close(fd);
}

TEST_F(CacheFiles, RewriteWithoutPredicateKeepsEveryTag) {
    std::vector<unsigned char> bytes =
        concat({tag_bytes(tag_at(1, 0, 0, 10)), tag_bytes(tag_at(2, 0, 0, 20))});
    write_bytes(file_, bytes);
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(read_bytes(file_), bytes);
    EXPECT_FALSE(exists(tmp_));
}

TEST_F(CacheFiles, RewriteDropsTruncatedTail) {
    // 13 bytes: one whole tag and five bytes of a second one.
    std::vector<unsigned char> first = tag_bytes(tag_at(1, 0, 0, 10));
    write_bytes(file_, concat({first, {9, 9, 9, 9, 9}}));
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(read_bytes(file_), first);
}

TEST_F(CacheFiles, RewriteOfEmptyFileRemovesIt) {
    write_bytes(file_, {});
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), nullptr, nullptr), 0);
    EXPECT_FALSE(exists(file_));
    EXPECT_FALSE(exists(tmp_));
}

TEST_F(CacheFiles, MatchDropsEveryTagOfTheSameStartSecond) {
    uint64_t a = tag_at(8, 0, 0, 100), b = tag_at(8, 0, 0, 900), other = tag_at(8, 0, 1, 100);
    write_bytes(file_, concat({tag_bytes(a), tag_bytes(other), tag_bytes(b)}));
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0);
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), match_cachetag, &start), 0);
    EXPECT_EQ(read_bytes(file_), tag_bytes(other));
}

TEST_F(CacheFiles, BeforeKeepsTagsAtOrAfterTheTimeOfDay) {
    uint64_t early = tag_at(11, 59, 59, 10), equal = tag_at(12, 0, 0, 10),
             late = tag_at(13, 0, 0, 1);
    write_bytes(file_, concat({tag_bytes(late), tag_bytes(early), tag_bytes(equal)}));
    struct tm t = make_tm(2024, 5, 17, 12, 0, 0);
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), before_cachetag, &t), 0);
    EXPECT_EQ(read_bytes(file_), concat({tag_bytes(late), tag_bytes(equal)}));
}

TEST_F(CacheFiles, StaleTmpFileLeavesNoOldTags) {
    // A "cachetmp" longer than the result, as an interrupted rewrite could leave it.
    write_bytes(tmp_, std::vector<unsigned char>(64, 0xEE));
    std::vector<unsigned char> one = tag_bytes(tag_at(3, 0, 0, 10));
    write_bytes(file_, one);
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(read_bytes(file_), one);
}

TEST_F(CacheFiles, MissingFileIsReportedAndNothingIsCreated) {
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), match_cachetag, nullptr), -1);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache file :" + file_ + " not exist\n")) << out;
    EXPECT_FALSE(exists(file_));
    EXPECT_FALSE(exists(tmp_));
}

TEST_F(CacheFiles, TmpFileThatCannotBeOpenedKeepsTheOriginal) {
    std::vector<unsigned char> one = tag_bytes(tag_at(3, 0, 0, 10));
    write_bytes(file_, one);
    ASSERT_EQ(mkdir(tmp_.c_str(), 0755), 0);  // a directory cannot be opened for writing
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(do_cache_rewrite(file_.c_str(), tmp_.c_str(), nullptr, nullptr), -1);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "cache file :" + file_ + " open err\n")) << out;
    EXPECT_EQ(read_bytes(file_), one);
}

TEST_F(CacheFiles, PruneRemovesEmptyDirectoriesUpToTheRoot) {
    do_cache_prune_dirs(leaf_.c_str(), root_.c_str());
    EXPECT_FALSE(exists(root_ + "03"));
    EXPECT_TRUE(exists(root_));
}

TEST_F(CacheFiles, PruneStopsAtTheFirstDirectoryThatIsNotEmpty) {
    ASSERT_EQ(mkdir((root_ + "03/2024/05/18").c_str(), 0755), 0);
    do_cache_prune_dirs(leaf_.c_str(), root_.c_str());
    EXPECT_FALSE(exists(root_ + "03/2024/05/17"));
    EXPECT_TRUE(exists(root_ + "03/2024/05/18"));
}

TEST_F(CacheFiles, PruneLeavesADirectoryHoldingAFile) {
    write_bytes(file_, tag_bytes(tag_at(3, 0, 0, 10)));
    do_cache_prune_dirs(leaf_.c_str(), root_.c_str());
    EXPECT_TRUE(exists(file_));
}

TEST_F(CacheFiles, PruneNeverLeavesTheRoot) {
    // A directory outside the root is never touched, even when it is empty and sorts after it.
    std::string outside = base_ + "/sdb/03/";
    ASSERT_EQ(system(("mkdir -p " + outside).c_str()), 0);
    do_cache_prune_dirs(outside.c_str(), root_.c_str());
    EXPECT_TRUE(exists(outside));
}

TEST_F(CacheState, LoadedFlagsAndTheirResult) {
    EXPECT_EQ(cache_is_loaded(0), 0);
    EXPECT_EQ(cache_set_loaded(2, 1), -1);  // stored, and still -1
    EXPECT_EQ(cache_is_loaded(2), 1);
    EXPECT_EQ(g_cache_loaded[2], 1);
    EXPECT_EQ(cache_set_loaded(7, 1), -1);
    EXPECT_EQ(cache_is_loaded(7), 1);
    EXPECT_EQ(cache_set_loaded(8, 1), -1);  // refused, nothing stored
    EXPECT_EQ(cache_is_loaded(8), 0);
    EXPECT_EQ(cache_set_loaded(static_cast<unsigned>(-1), 1), -1);
    EXPECT_EQ(cache_is_loaded(static_cast<unsigned>(-1)), 0);
    for (unsigned i = 0; i < RECSTORE_MAX_DISKS; i++) {
        EXPECT_EQ(g_cache_loaded[i], i == 2 || i == 7 ? 1 : 0) << i;
    }
}

TEST_F(CacheState, ReadOnlyModeWritesNothing) {
    g_cache_rdonly = 1;
    snprintf(g_disk[0].devname, sizeof g_disk[0].devname, "/dev/hd/sda");
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0), end = make_tm(2024, 5, 17, 9, 0, 0);
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_is_readonly(), 1);
    EXPECT_EQ(cache_create(0, 3, &start, &end, 0, 1, 0x10000), 0);
    EXPECT_EQ(cache_load("/dev/hd/sda"), 0);
    EXPECT_EQ(cache_clear("/dev/hd/sda"), 0);
    EXPECT_EQ(cache_unload("/dev/hd/sda"), 0);
    EXPECT_EQ(do_cache_delete_cond(0, 3, &start, 0, nullptr), 0);
    EXPECT_EQ(cache_delete(0, 3, &start, 0), 0);
    time_t t = 1715932800;
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024", &t), 0);
    std::string out = cap.stop();
    size_t count = 0;
    for (size_t at = out.find("cache readonly\n"); at != std::string::npos;
         at = out.find("cache readonly\n", at + 1)) {
        count++;
    }
    EXPECT_EQ(count, 7u) << out;
    EXPECT_EQ(cache_is_loaded(0), 0);  // no loader ran
}

TEST_F(CacheState, StartAfterEndIsRefusedEvenReadOnly) {
    struct tm start = make_tm(2024, 5, 17, 9, 0, 0), end = make_tm(2024, 5, 17, 8, 0, 0);
    g_cache_rdonly = 1;
    EXPECT_EQ(cache_create(0, 3, &start, &end, 0, 1, 0), -1);
    g_cache_rdonly = 0;
    EXPECT_EQ(cache_create(0, 3, &start, &end, 0, 1, 0), -1);
}

TEST_F(CacheState, BadArgumentsAreRefusedBeforeAnyPathIsBuilt) {
    struct tm start = make_tm(2024, 5, 17, 8, 0, 0), end = make_tm(2024, 5, 17, 9, 0, 0);
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_create(0, 3, nullptr, &end, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(0, 3, &start, nullptr, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(RECSTORE_MAX_DISKS, 3, &start, &end, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(-1, 3, &start, &end, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(0, RECSTORE_MAX_CHANNELS, &start, &end, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(0, -1, &start, &end, 0, 1, 0), -1);
    EXPECT_EQ(cache_create(0, 3, &start, &end, 100, 1, 0), -1);
    EXPECT_EQ(cache_create(0, 3, &start, &end, 0, 1, 0), -1);  // disk 0 is not open
    EXPECT_EQ(do_cache_delete_cond(0, 3, nullptr, 0, nullptr), -1);
    EXPECT_EQ(cache_delete(9, 3, &start, 0), -1);
    EXPECT_EQ(cache_delete(0, 3, &start, 0), -1);  // disk 0 is not open
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "invalid disk id:8\n")) << out;
    EXPECT_TRUE(contains(out, "invalid disk id:-1\n")) << out;
    EXPECT_TRUE(contains(out, "invalid channel:64\n")) << out;
    EXPECT_TRUE(contains(out, "invalid type:100\n")) << out;
    EXPECT_TRUE(contains(out, "disk 0 not open\n")) << out;
}

TEST_F(CacheState, DeviceNamesOutsideTheDiskNodesAreRefused) {
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_clear(nullptr), -1);
    EXPECT_EQ(cache_clear("/dev/hd/sda/../.."), -1);
    EXPECT_EQ(cache_clear("/dev/hd/sdz"), -1);
    EXPECT_EQ(cache_unload("/dev/sda"), -1);
    EXPECT_EQ(cache_load("/dev/hd/sdi"), -1);
    EXPECT_EQ(cache_load(nullptr), -1);
    EXPECT_EQ(proc_cache_load(const_cast<char *>("/dev/hd/")), nullptr);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "invalid device:/dev/hd/sda/../..\n")) << out;
    EXPECT_TRUE(contains(out, "invalid device:(null)\n")) << out;
    for (unsigned i = 0; i < RECSTORE_MAX_DISKS; i++) EXPECT_EQ(cache_is_loaded(i), 0);
}

TEST_F(CacheState, DumpWritesTheThreeFlags) {
    cache_set_loaded(1, 1);
    char path[] = "/tmp/recstore-cache-dump-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    cache_dump(fd, 1);
    cache_dump(fd, 9);
    cache_dump(-1, 1);
    cache_dump(fd, -1);
    close(fd);
    std::string text;
    {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        text = ss.str();
    }
    unlink(path);
    // The cache is not mounted in a unit test, so it is never full.
    EXPECT_EQ(text, "cache full?:0 rdonly?:0 loaded?:1cache full?:0 rdonly?:0 loaded?:0");
}

TEST_F(CacheState, DeleteBeforeDoesNothing) {
    EXPECT_EQ(cache_delete_before(), 0);
}

TEST_F(CacheState, RemovalWalkDecidesLevelsWithoutTouchingTheTree) {
    time_t t = 1715947200;  // 2024-05-17 12:00:00 UTC
    LogMask mask(kLogAll);
    StdoutCapture cap;
    EXPECT_EQ(cache_del_before_action(nullptr, &t), 0);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda", nullptr), 0);
    EXPECT_EQ(cache_del_before_action("/tmp/elsewhere", &t), 2);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda", &t), 1);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03", &t), 1);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024/05/17/00", &t), 1);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2025", &t), 2);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024/06", &t), 2);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024/05/18", &t), 2);
    EXPECT_EQ(cache_del_before_action("/mnt/cache/sda/03/2024/05/18/00/cache", &t), 2);
    std::string out = cap.stop();
    EXPECT_TRUE(contains(out, "invalid level\n")) << out;
    EXPECT_TRUE(contains(out, "year :2025 out of range\n")) << out;
    EXPECT_TRUE(contains(out, "year:2024 mon :6 out of range\n")) << out;
    EXPECT_TRUE(contains(out, "year:2024 mon :5 day:18 out of range\n")) << out;
}
