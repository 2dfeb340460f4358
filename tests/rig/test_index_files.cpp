// Index files under a disk's index root (/mnt/sda inside the rig's private /mnt): the magic
// file, creating, reopening and closing recordings (file times), the handle limit, repair of a
// file left by a killed writer, deletion with removal of the emptied directories, clearing a disk
// and the fullness of the index partition.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "fstype_old.h"
#include "index.h"
#include "recstore.h"
#include "rig.h"

using namespace recstore;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

constexpr uint32_t kBase = 1715933350u;  // 2024-05-17 08:09:10 UTC
constexpr const char *kRoot = "/mnt/sda";
constexpr const char *kName = "/mnt/sda/03/2024/05/17/01/0320240517080910_01";

struct tm utc(uint32_t secs) {
    const time_t t = static_cast<time_t>(secs);
    struct tm out {};
    gmtime_r(&t, &out);
    return out;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<uint8_t> file_bytes(const std::string &path) {
    std::vector<uint8_t> b;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) return b;
    int c;
    while ((c = fgetc(f)) != EOF) b.push_back(static_cast<uint8_t>(c));
    fclose(f);
    return b;
}

void write_file(const std::string &path, const void *data, size_t n) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, data, n), static_cast<ssize_t>(n));
    close(fd);
}

class IndexFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run inside the disk rig (tests/rig/rig-run)";
        index_init();
        ASSERT_TRUE(mkdir(kRoot, 0755) == 0 || errno == EEXIST);
        snprintf(g_disk[0].devname, sizeof g_disk[0].devname, "/dev/hd/sda");
        snprintf(g_disk[1].devname, sizeof g_disk[1].devname, "/dev/hd/sdb");
        g_magic[0] = RECSTORE_MAGIC_V7;
        start_ = utc(kBase);
    }
    void TearDown() override {
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        if (rig::active()) remove_file(kRoot, 7);
        g_disk[0].devname[0] = '\0';
        g_disk[1].devname[0] = '\0';
        g_magic[0] = 0;
    }
    int create(const struct tm *start, int channel = 3, int type = 1) {
        return index_open(0, 7, start, channel, type, 1, 2, 3, O_CREAT | O_RDWR, 0x10, 4, nullptr);
    }
    int open_reader(const struct tm *start, int channel = 3, int type = 1) {
        return index_open(0, 0xFFFFFFFFu, start, channel, type, 0, 0, 0, 0, 0, 0, nullptr);
    }
    static void write_entries(int h, int n, uint32_t first_time) {
        for (int i = 0; i < n; ++i) {
            kframe fr[kMaxKframes] = {};
            fr[0] = kframe{0, first_time + 2 * static_cast<uint32_t>(i)};
            fr[1] = kframe{4096, first_time + 2 * static_cast<uint32_t>(i) + 1};
            ASSERT_EQ(index_write(h, 100 + static_cast<uint32_t>(i), 524288, fr, 2), 204);
        }
    }
    struct tm start_ {};
};

}  // namespace

// ---- magic file ----------------------------------------------------------------------------

TEST_F(IndexFiles, MagicFileIsWrittenCheckedAndErased) {
    g_magic[0] = 0;
    ASSERT_EQ(index_write_magic(0), 0);
    const std::vector<uint8_t> b = file_bytes("/mnt/sda/magic");
    ASSERT_EQ(b.size(), 4u);
    EXPECT_EQ(b, (std::vector<uint8_t>{0x13, 0x20, 0x2a, 0x70}));
    EXPECT_EQ(g_magic[0], 0u) << "writing does not touch the table";
    ASSERT_EQ(index_check_magic(0), 0);
    EXPECT_EQ(g_magic[0], RECSTORE_MAGIC_V7);
    EXPECT_STREQ(fs_version(0), "7.0.0.0");

    const uint8_t v1[4] = {0x13, 0x10, 0x10, 0x10};
    write_file("/mnt/sda/magic", v1, 4);
    ASSERT_EQ(index_check_magic(0), 0);
    EXPECT_STREQ(fs_version(0), "1.0.0.2");
    EXPECT_EQ(sizeof_recordinfo_disk(0), 896);

    LogMask mask(0xB);
    {
        const uint8_t bad[4] = {1, 2, 3, 4};
        write_file("/mnt/sda/magic", bad, 4);
        StdoutCapture cap;
        EXPECT_EQ(index_check_magic(0), -1);
        EXPECT_NE(cap.stop().find("magic number is not matched"), std::string::npos);
        EXPECT_EQ(g_magic[0], RECSTORE_MAGIC_V1) << "unchanged";
    }
    {
        write_file("/mnt/sda/magic", v1, 3);
        StdoutCapture cap;
        EXPECT_EQ(index_check_magic(0), -1);
        EXPECT_NE(cap.stop().find("read magic err"), std::string::npos);
    }
    {
        StdoutCapture cap;
        index_erase_magic(0);
        EXPECT_NE(cap.stop().find("remove magic file:/mnt/sda/magic"), std::string::npos);
        EXPECT_FALSE(exists("/mnt/sda/magic"));
    }
    {
        StdoutCapture cap;
        index_erase_magic(0);
        EXPECT_EQ(cap.stop().find("remove magic file"), std::string::npos) << "nothing to do";
        EXPECT_EQ(index_check_magic(0), -1);
    }
}

TEST_F(IndexFiles, MagicFileRefusals) {
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_check_magic(0), -1);
    EXPECT_EQ(index_write_magic(1), -1) << "no /mnt/sdb";
    EXPECT_EQ(index_write_magic(8), -1);
    EXPECT_EQ(index_write_magic(-1), -1);
    EXPECT_EQ(index_check_magic(8), -1);
    EXPECT_EQ(index_check_magic(-8), -1);
    index_erase_magic(8);
    index_erase_magic(-1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("open magic :/mnt/sda/magic err"), std::string::npos) << out;
    EXPECT_NE(out.find("diskid:1 open magic :/mnt/sdb/magic err\n"), std::string::npos) << out;
    EXPECT_NE(out.find("invalid disk:8"), std::string::npos) << out;
    EXPECT_NE(out.find("invalid disk:-8"), std::string::npos) << out;
}

// ---- creating, reopening, closing ------------------------------------------------------------

TEST_F(IndexFiles, CreateReopenAndCloseSetsFileTimes) {
    const int h = create(&start_);
    ASSERT_GE(h, 0);
    struct stat st;
    ASSERT_EQ(stat(kName, &st), 0) << "named by channel, start and type";
    EXPECT_EQ(st.st_size, 8336);
    EXPECT_EQ(index_isopen(0, &start_, 3), 1);
    EXPECT_EQ(index_isopen(0, &start_, 4), 0);
    write_entries(h, 3, kBase + 1);
    struct tm end = utc(kBase + 60);
    StdoutCapture cap;
    index_close(h, &end);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("close channel:3 type:1 fd:"), std::string::npos) << out;
    EXPECT_NE(out.find(" endtime:05/17/24 08:10:10\n"), std::string::npos) << out;
    EXPECT_EQ(index_isopen(0, &start_, 3), 0);

    ASSERT_EQ(stat(kName, &st), 0);
    EXPECT_EQ(st.st_size, 8336 + 3 * 204);
    struct tm s_copy = start_, e_copy = end;
    EXPECT_EQ(st.st_atime, mktime(&s_copy));
    EXPECT_EQ(st.st_mtime, mktime(&e_copy)) << "modification time = end of the recording";

    const int r = open_reader(&start_);
    ASSERT_GE(r, 0);
    EXPECT_EQ(index_getflag(r), O_RDWR);
    recordinfo info;
    ASSERT_EQ(index_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 3u);
    EXPECT_EQ(info.total_bytes, 3u * 524288u);
    EXPECT_EQ(info.frame_count, 6u);
    EXPECT_EQ(info.block_id, 7u);
    EXPECT_EQ(info.attr_d, 4u);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 60));
    EXPECT_EQ(index_ltell(r, nullptr), 0);
    index_close(r, nullptr);
    ASSERT_EQ(stat(kName, &st), 0);
    EXPECT_EQ(st.st_mtime, mktime(&e_copy)) << "a reader leaves the file as it was";
}

TEST_F(IndexFiles, CloseWithoutEndKeepsTheLastFrameTime) {
    const int h = create(&start_);
    ASSERT_GE(h, 0);
    write_entries(h, 2, kBase + 5);
    index_close(h, nullptr);
    const int r = open_reader(&start_);
    ASSERT_GE(r, 0);
    recordinfo info;
    ASSERT_EQ(index_stat(r, &info), 0);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 8));
}

TEST_F(IndexFiles, ReplacingAnExistingFileIsLogged) {
    const int h = create(&start_);
    ASSERT_GE(h, 0);
    index_close(h, nullptr);
    fs_log_init("/mnt/img/fs.log");
    StdoutCapture cap;
    const int again = create(&start_);
    const std::string out = cap.stop();
    fs_log_exit();
    ASSERT_GE(again, 0);
    EXPECT_NE(out.find(std::string("replace existed index:") + kName + "\n"), std::string::npos)
        << out;
}

TEST_F(IndexFiles, OpeningAMissingRecordingFails) {
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(open_reader(&start_), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find(std::string("channel :3,time:Fri May 17 08:09:10 2024\n,name:") + kName),
              std::string::npos)
        << out;
    for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) ASSERT_EQ(g_idx_ctx[h].fd, -1);
}

TEST_F(IndexFiles, OpenRefusals) {
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_open(8, 0, &start_, 3, 1, 0, 0, 0, O_CREAT | O_RDWR, 0, 0, nullptr), -1);
    EXPECT_EQ(index_open(-1, 0, &start_, 3, 1, 0, 0, 0, O_CREAT | O_RDWR, 0, 0, nullptr), -1);
    EXPECT_EQ(index_open(0, 0, nullptr, 3, 1, 0, 0, 0, O_CREAT | O_RDWR, 0, 0, nullptr), -1);
    EXPECT_EQ(index_chk(8, 0), -1);
    EXPECT_EQ(index_chk(-1, 0), -1);
    EXPECT_EQ(index_chk(7, 0), 0);
    EXPECT_EQ(index_isopen(9, &start_, 3), 0);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("invalid disk id"), std::string::npos);
    EXPECT_NE(out.find("invalid param"), std::string::npos);
}

TEST_F(IndexFiles, OddChannelsAndTypesStayBounded) {
    for (int v : {-1, RECSTORE_MAX_CHANNELS, 1000000, INT32_MIN}) {
        const int h = create(&start_, v, v);
        if (h >= 0) index_close(h, nullptr);
    }
    struct tm odd = start_;
    odd.tm_year = 900000;
    odd.tm_mon = -40;
    const int h = create(&odd, 3, 1);
    if (h >= 0) index_close(h, nullptr);
    SUCCEED();
}

TEST_F(IndexFiles, The129thOpenFailsAndLeavesNoFile) {
    for (int i = 0; i < RECSTORE_INDEX_HANDLES; ++i) {
        const struct tm t = utc(kBase + static_cast<uint32_t>(i));
        ASSERT_EQ(create(&t), i);
    }
    const struct tm extra = utc(kBase + 1000);
    char name[128];
    mk_idx_fullname(0, name, sizeof name, 3, &extra, 1);
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(create(&extra), -1);
    EXPECT_NE(cap.stop().find("reach the max count"), std::string::npos);
    EXPECT_FALSE(exists(name));
}

TEST_F(IndexFiles, Version1DiskFiles) {
    g_magic[0] = RECSTORE_MAGIC_V1;
    const int h = create(&start_);
    ASSERT_GE(h, 0);
    write_entries(h, 2, kBase);
    index_close(h, nullptr);
    struct stat st;
    ASSERT_EQ(stat(kName, &st), 0);
    EXPECT_EQ(st.st_size, 896 + 2 * 204);
    const int r = open_reader(&start_);
    ASSERT_GE(r, 0);
    recordinfo info;
    ASSERT_EQ(index_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 2u);
    EXPECT_EQ(info.type, 0u) << "version 1 has no type";
    EXPECT_EQ(index_lseek(r, 524288, SEEK_SET, nullptr), 524288);
}

// ---- repair --------------------------------------------------------------------------------

TEST_F(IndexFiles, WriterKilledBetweenEntries) {
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        close(go[1]);
        const int h = create(&start_);
        for (uint32_t i = 0; h >= 0; ++i) {
            kframe fr[kMaxKframes] = {};
            fr[0] = kframe{0, kBase + 10 * i};
            if (index_write(h, 300 + i, 524288, fr, 1) != 204) break;
            char c = 'w';
            if (write(ready[1], &c, 1) != 1) break;
            if (read(go[0], &c, 1) != 1) break;
        }
        _exit(1);
    }
    close(ready[1]);
    close(go[0]);
    char c;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        if (i < 3) {
            ASSERT_EQ(write(go[1], "g", 1), 1);
        }
    }
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    close(ready[0]);
    close(go[1]);

    const std::vector<uint8_t> before = file_bytes(kName);
    ASSERT_EQ(before.size(), 8336u + 4 * 204);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = open_reader(&start_);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    // The header's own creator flag makes the opening slot count as the writer: the record is
    // repaired in memory, the header on disk stays for the next writer or repair.
    EXPECT_NE(out.find("found :3 Fri May 17 08:09:10 2024\n"), std::string::npos) << out;
    EXPECT_NE(out.find("start:"), std::string::npos) << out;
    recordinfo info;
    ASSERT_EQ(index_stat(r, &info), 0);
    EXPECT_EQ(info.entry_count, 4u);
    EXPECT_EQ(info.total_bytes, 4u * 524288u);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 30));
    EXPECT_EQ(file_bytes(kName), before);
    EXPECT_EQ(index_ltell(r, nullptr), 0);
    EXPECT_EQ(index_getflag(r), O_RDWR);
}

TEST_F(IndexFiles, UnfinishedHeaderWithoutWriterIsRewritten) {
    const int w = create(&start_);
    ASSERT_GE(w, 0);
    write_entries(w, 3, kBase + 1);
    do_index_release(w);  // gone without closing
    // A header whose open flags carry no creator: no slot matches in the writer search.
    const int fd = open(kName, O_RDWR);
    ASSERT_GE(fd, 0);
    uint8_t word[4];
    le32_store(word, O_RDWR);
    ASSERT_EQ(pwrite(fd, word, 4, 104), 4);
    close(fd);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = open_reader(&start_);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    EXPECT_NE(out.find("not found :3 "), std::string::npos) << out;
    EXPECT_NE(out.find("try to fix start:"), std::string::npos) << out;
    EXPECT_NE(out.find("done\n"), std::string::npos) << out;
    const std::vector<uint8_t> b = file_bytes(kName);
    EXPECT_EQ(le32_load(b.data() + 108), 3u);
    EXPECT_EQ(le64_load(b.data() + 112), 3u * 524288u);
    EXPECT_EQ(le32_load(b.data() + 56), 16u) << "end 08:09:16 from the last frame";
}

TEST_F(IndexFiles, UnfinishedHeaderHeldByAWriterIsLeftAlone) {
    const int w = create(&start_);
    ASSERT_GE(w, 0);
    write_entries(w, 2, kBase + 1);
    const std::vector<uint8_t> before = file_bytes(kName);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = open_reader(&start_);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    EXPECT_NE(out.find("found :3 "), std::string::npos) << out;
    EXPECT_EQ(out.find("try to fix"), std::string::npos) << out;
    EXPECT_EQ(file_bytes(kName), before);
    index_close(r, nullptr);
    struct tm end = utc(kBase + 9);
    index_close(w, &end);
    EXPECT_EQ(le32_load(file_bytes(kName).data() + 108), 2u) << "the writer finalises it";
}

// ---- deleting and clearing -----------------------------------------------------------------

TEST_F(IndexFiles, DeleteRemovesEmptiedDirectoriesUpToTheRoot) {
    ASSERT_EQ(index_write_magic(0), 0);
    int h = create(&start_, 3, 1);
    ASSERT_GE(h, 0);
    index_close(h, nullptr);
    h = create(&start_, 3, 2);
    ASSERT_GE(h, 0);
    index_close(h, nullptr);

    ASSERT_EQ(index_del(0, &start_, 3, 1), 0);
    EXPECT_FALSE(exists(kName));
    EXPECT_FALSE(exists("/mnt/sda/03/2024/05/17/01"));
    EXPECT_TRUE(exists("/mnt/sda/03/2024/05/17/02"));

    ASSERT_EQ(index_del(0, &start_, 3, 2), 0);
    EXPECT_FALSE(exists("/mnt/sda/03"));
    EXPECT_TRUE(exists("/mnt/sda/magic"));
    EXPECT_TRUE(exists(kRoot));

    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_del(0, &start_, 3, 2), -1);
    EXPECT_EQ(index_del(8, &start_, 3, 2), -1);
    EXPECT_EQ(index_del(-2, &start_, 3, 2), -1);
    EXPECT_EQ(index_del(0, nullptr, 3, 2), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("perror\n"), std::string::npos);
    EXPECT_NE(out.find("invalid disk id:8"), std::string::npos);
    EXPECT_NE(out.find("invalid disk id:-2"), std::string::npos);
    EXPECT_NE(out.find("invalid param"), std::string::npos);
}

TEST_F(IndexFiles, ClearRemovesChannelsAndLinks) {
    ASSERT_EQ(index_write_magic(0), 0);
    for (int ch : {0, 5, 63}) {
        const int h = create(&start_, ch, 0);
        ASSERT_GE(h, 0);
        index_close(h, nullptr);
    }
    ASSERT_EQ(mkdir("/mnt/sda/link", 0755), 0);
    ASSERT_EQ(mkdir("/mnt/sda/link/00000007", 0755), 0);
    ASSERT_EQ(symlink("../../05/x", "/mnt/sda/link/00000007/0520240517080910_00"), 0);
    ASSERT_EQ(index_clear(0), 0);
    EXPECT_FALSE(exists("/mnt/sda/00"));
    EXPECT_FALSE(exists("/mnt/sda/05"));
    EXPECT_FALSE(exists("/mnt/sda/63"));
    EXPECT_FALSE(exists("/mnt/sda/link"));
    EXPECT_TRUE(exists("/mnt/sda/magic"));
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_clear(8), -1);
    EXPECT_EQ(index_clear(-1), -1);
    EXPECT_NE(cap.stop().find("invalid disk id"), std::string::npos);
}

// ---- fullness ------------------------------------------------------------------------------

namespace {

// A tmpfs of the given size and inode count on the index root, unmounted at the end.
class ScopedTmpfs {
  public:
    ScopedTmpfs(const char *dir, const std::string &options) : dir_(dir) {
        ok_ = mount("rig-idx", dir, "tmpfs", 0, options.c_str()) == 0;
    }
    ~ScopedTmpfs() {
        if (ok_) umount2(dir_, 0);
    }
    bool ok() const { return ok_; }

  private:
    const char *dir_;
    bool ok_ = false;
};

}  // namespace

TEST_F(IndexFiles, FullnessOfTheIndexPartition) {
    fs_log_init("/mnt/img/fs.log");
    {
        ScopedTmpfs fs(kRoot, "size=524288k,nr_inodes=1000");
        ASSERT_TRUE(fs.ok());
        StdoutCapture cap;
        EXPECT_EQ(index_isfull(0), 1) << "512 MiB free is full";
        EXPECT_NE(cap.stop().find("disk0 index is full,free size :536870912 freeblock is :131072, "
                                  "blksize: 4096, free inode is:999\n"),
                  std::string::npos);
    }
    {
        ScopedTmpfs fs(kRoot, "size=524292k,nr_inodes=1000");
        ASSERT_TRUE(fs.ok());
        LogMask mask(0xB);
        StdoutCapture cap;
        EXPECT_EQ(index_isfull(0), 0) << "one block more is not";
        EXPECT_NE(cap.stop().find("disk:0 free size :536875008 freeblock is :131073, blksize: "
                                  "4096,free inode is:999\n"),
                  std::string::npos);
    }
    {
        ScopedTmpfs fs(kRoot, "size=1g,nr_inodes=129");
        ASSERT_TRUE(fs.ok());
        EXPECT_EQ(index_isfull(0), 1) << "128 free inodes are full";
    }
    fs_log_exit();
    EXPECT_EQ(index_isfull(2), 0) << "no index root: statfs fails";
    EXPECT_EQ(index_isfull(8), 1);
    EXPECT_EQ(index_isfull(-1), 1);
}
