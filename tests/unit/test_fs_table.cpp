// The disk table without disks: mode flags of fs_init (the cache off), opening and closing
// entries, groups, the refusals of bad disk ids, group ids and stream handles, read-only mode,
// the exception-callback tables and a block change on disks without a data zone.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "recstore.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr int kNoCache = 4;
constexpr int kReadOnly = 1;
constexpr int kDirectIo = 2;
constexpr unsigned kAllLevels = 0xB;

using recstore_test::contains;

// Runs fn with every log gate open and returns what it printed.
template <typename Fn>
std::string printed(Fn fn) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fn();
    return out.stop();
}

rec_param some_param(int channel = 3) {
    rec_param p;
    memset(&p, 0, sizeof p);
    p.start.tm_year = 124;
    p.start.tm_mon = 4;
    p.start.tm_mday = 17;
    p.start.tm_hour = 8;
    p.channel = static_cast<uint32_t>(channel);
    return p;
}

class FsTable : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(fs_init(0, 0, kNoCache), 0); }
    void TearDown() override {
        LogMask quiet(0, 0);
        fs_clear_exphandle();
        fs_set_exphandle_ex(nullptr);
        fs_exit();
    }
};

TEST(FsRecords, OpenParametersAreSixtyBytes) {
    EXPECT_EQ(sizeof(rec_param), 60u);
    EXPECT_EQ(offsetof(rec_param, start), 0u);
    EXPECT_EQ(offsetof(rec_param, channel), 44u);
    EXPECT_EQ(offsetof(rec_param, attr_a), 48u);
    EXPECT_EQ(offsetof(rec_param, attr_b), 50u);
    EXPECT_EQ(offsetof(rec_param, attr_c), 52u);
    EXPECT_EQ(offsetof(rec_param, type), 56u);
}

TEST_F(FsTable, InitTakesTheModeFlags) {
    EXPECT_EQ(g_fs_rdonly, 0);
    EXPECT_EQ(g_fs_directio, 0);
    EXPECT_EQ(g_fs_usecache, 0);
    EXPECT_EQ(fs_use_cache(), 0);
    EXPECT_EQ(fs_is_readonly(), 0);
    fs_exit();
    ASSERT_EQ(fs_init(0, 0, kNoCache | kReadOnly | kDirectIo), 0);
    EXPECT_EQ(g_fs_rdonly, 1);
    EXPECT_EQ(g_fs_directio, 1);
    EXPECT_EQ(fs_is_readonly(), 1);
    EXPECT_EQ(fs_use_cache(), 0);
}

TEST_F(FsTable, InitEmptiesTablesAndFreesEveryStreamSlot) {
    for (const fs_file_ctx &f : g_file_ctx) {
        EXPECT_EQ(f.idx, -1);
        EXPECT_EQ(f.preload_buf, nullptr);
    }
    for (const fs_group &g : g_grp) EXPECT_EQ(g.count, 0u);
    for (const fs_disk_info &d : g_disk) {
        EXPECT_EQ(d.inited, 0u);
        EXPECT_EQ(d.grp, 0u);
        EXPECT_EQ(d.devname[0], '\0');
    }
    EXPECT_EQ(fs_get_max_record_duration(), 7200);
    fs_set_max_record_duration(3600);
    EXPECT_EQ(fs_get_max_record_duration(), 3600);
    fs_set_max_record_duration(-5);
    EXPECT_EQ(fs_get_max_record_duration(), 3600);
    fs_set_max_record_duration(7200);
}

TEST_F(FsTable, OpenTwiceKeepsTheEntry) {
    std::string text = printed([] { EXPECT_EQ(fs_opendisk("/dev/hd/sdc"), 2); });
    EXPECT_TRUE(contains(text, "open disk:2\n")) << text;
    EXPECT_STREQ(g_disk[2].devname, "/dev/hd/sdc");
    EXPECT_EQ(g_disk[2].diskid, 2u);
    text = printed([] { EXPECT_EQ(fs_opendisk("/dev/hd/sdc"), 2); });
    EXPECT_TRUE(contains(text, "/dev/hd/sdc had been opened\n")) << text;
    EXPECT_STREQ(fs_devname(2), "/dev/hd/sdc");
    fs_closedisk(2);
    EXPECT_EQ(g_disk[2].devname[0], '\0');
    EXPECT_EQ(fs_devname(2), nullptr);
}

TEST_F(FsTable, OpenRefusesNamesOutsideTheEightDisks) {
    std::string text = printed([] { EXPECT_EQ(fs_opendisk("/dev/hd/sdi"), -1); });
    EXPECT_TRUE(contains(text, "invalid disk id:8\n")) << text;
    text = printed([] { EXPECT_EQ(fs_opendisk(nullptr), -1); });
    EXPECT_TRUE(contains(text, "invalid disk id:-1\n")) << text;
    EXPECT_EQ(fs_opendisk("/dev/hd/sda/../../etc"), -1);
    for (const fs_disk_info &d : g_disk) EXPECT_EQ(d.devname[0], '\0');
}

TEST_F(FsTable, BadDiskIdsAreRefusedEverywhere) {
    for (int id : {-1, 8, 9, INT_MIN, INT_MAX}) {
        const std::string text = printed([id] {
            EXPECT_EQ(fs_datazone_init(id), -1);
            fs_datazone_exit(id);
            fs_closedisk(id);
            EXPECT_EQ(fs_datazone_is_inited(id), 0);
            EXPECT_EQ(fs_disk_is_inited(id), 0);
            EXPECT_EQ(fs_cleardisk(id), -1);
            EXPECT_EQ(fs_chkdata(id, 1), -1);
            fs_disk_info info;
            EXPECT_EQ(fs_getdiskinfo(id, &info), -1);
            EXPECT_EQ(fs_isdiskfull(id), 1);
            EXPECT_EQ(do_fs_isdiskfull(id, 0), 1);
            EXPECT_EQ(fs_isblockfull(id), 1);
            EXPECT_EQ(fs_timenotify(id), -1);
            EXPECT_EQ(fs_adddisk(0, id), -1);
            EXPECT_EQ(fs_removedisk(0, id), -1);
            EXPECT_EQ(fs_getgrp(id), 3);
            EXPECT_EQ(fs_getblockid(id), 0xFFFFFFFFu);
            const rec_param p = some_param();
            EXPECT_EQ(fs_open(id, &p, O_CREAT | O_RDWR, 0, 0, nullptr), -1);
            EXPECT_EQ(fs_access(id, &p), -1);
            EXPECT_EQ(fs_create_link(id, 1, "a", "b"), -1);
            record_name r{};
            EXPECT_EQ(fs_delete(id, &r), -1);
            EXPECT_EQ(fs_clear(id, 1), -1);
            uint32_t seq = 0;
            EXPECT_EQ(fs_earliest(id, &seq), -1);
            block_entry out[2];
            EXPECT_EQ(fs_before(id, 100, out, 2), -1);
            EXPECT_EQ(fs_changeblock(id, 0, 1), 0);
            EXPECT_EQ(fs_changeblock(0, id, 1), 0);
        });
        EXPECT_TRUE(contains(text, "invalid disk id:" + std::to_string(id) + "\n")) << text;
        EXPECT_FALSE(contains(text, "change blk")) << text;
    }
    EXPECT_EQ(g_grp[0].count, 0u);
}

TEST_F(FsTable, AGoodDiskIdNeedsNoDiskForTheTimeHook) {
    EXPECT_EQ(fs_timenotify(0), 0);
    EXPECT_EQ(fs_timenotify(7), 0);
}

TEST_F(FsTable, BadGroupIdsAreRefused) {
    int ids[8];
    int count = -1;
    for (int grp : {-1, 3, 100}) {
        const std::string text = printed([&] {
            EXPECT_EQ(fs_adddisk(grp, 0), -1);
            EXPECT_EQ(fs_removedisk(grp, 0), -1);
            EXPECT_EQ(fs_getdisk(grp, ids, &count), -1);
        });
        EXPECT_TRUE(contains(text, "invalid grp id:" + std::to_string(grp) + "\n")) << text;
    }
    EXPECT_EQ(count, -1);
    EXPECT_EQ(fs_getdisk(0, nullptr, &count), -1);
    EXPECT_EQ(fs_getdisk(0, ids, nullptr), -1);
}

TEST_F(FsTable, GroupsKeepSlotOrder) {
    const std::string text = printed([] {
        EXPECT_EQ(fs_opendisk("/dev/hd/sdb"), 1);
        EXPECT_EQ(fs_opendisk("/dev/hd/sde"), 4);
        EXPECT_EQ(fs_adddisk(0, 4), 0);
        EXPECT_EQ(fs_adddisk(0, 1), 0);
    });
    EXPECT_TRUE(contains(text, "add disk :4 to slot:0\n")) << text;
    EXPECT_TRUE(contains(text, "add disk :1 to slot:1\n")) << text;
    int ids[8] = {};
    int count = 0;
    ASSERT_EQ(fs_getdisk(0, ids, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(ids[0], 4);
    EXPECT_EQ(ids[1], 1);
    EXPECT_EQ(fs_getgrp(1), 0);
    EXPECT_EQ(g_grp[0].slots[0], &g_disk[4]);

    // A disk that is not in the group: -1, nothing changes.
    EXPECT_EQ(fs_removedisk(0, 6), -1);
    EXPECT_EQ(fs_removedisk(1, 4), -1);
    EXPECT_EQ(g_grp[0].count, 2u);

    EXPECT_EQ(fs_removedisk(0, 4), 0);
    EXPECT_EQ(fs_getgrp(4), 3);
    EXPECT_EQ(g_grp[0].slots[0], nullptr);
    ASSERT_EQ(fs_getdisk(0, ids, &count), 0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(ids[0], 1);
    // The freed first slot is taken again first.
    EXPECT_EQ(fs_adddisk(2, 4), 0);
    EXPECT_EQ(fs_getgrp(4), 2);
    EXPECT_EQ(g_grp[2].slots[0], &g_disk[4]);
}

TEST_F(FsTable, AGroupHoldsEightSlotsAndTakesADiskTwice) {
    ASSERT_EQ(fs_opendisk("/dev/hd/sdd"), 3);
    for (int i = 0; i < 8; i++) EXPECT_EQ(fs_adddisk(1, 3), 0) << i;
    EXPECT_EQ(g_grp[1].count, 8u);
    EXPECT_EQ(fs_adddisk(1, 3), -1);
    EXPECT_EQ(fs_removedisk(1, 3), 0);
    EXPECT_EQ(g_grp[1].slots[0], nullptr);
    EXPECT_EQ(g_grp[1].slots[1], &g_disk[3]);
    EXPECT_EQ(g_grp[1].count, 7u);
}

TEST_F(FsTable, DisksWithoutDataZoneCountAsFull) {
    ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
    ASSERT_EQ(fs_adddisk(0, 0), 0);
    std::string text = printed([] {
        EXPECT_EQ(fs_isdiskfull(0), 1);
        EXPECT_EQ(do_fs_isdiskfull(0, 10), 1);
        EXPECT_EQ(fs_isalldiskfull(0, 10), 1);
        EXPECT_EQ(fs_isalldiskfull(-1, 10), 1);
        EXPECT_EQ(fs_isblockfull(0), 1);
    });
    EXPECT_TRUE(contains(text, "disk not inited:0\n")) << text;
    fs_disk_info info;
    memset(&info, 0x5A, sizeof info);
    text = printed([&] { EXPECT_EQ(fs_getdiskinfo(0, &info), 0); });
    EXPECT_TRUE(contains(text, "disk not inited:0\n")) << text;
    EXPECT_EQ(info.inited, 0x5A5A5A5Au);  // nothing copied
    text = printed([] { EXPECT_EQ(fs_getdiskinfo(0, nullptr), -1); });
    EXPECT_TRUE(contains(text, "invalid param\n")) << text;
}

TEST_F(FsTable, EmptyGroupZeroIsFull) {
    EXPECT_EQ(fs_isalldiskfull(-1, 0), 1);
    EXPECT_EQ(fs_isalldiskfull(3, 0), 1);
}

TEST_F(FsTable, DataZoneInitNeedsAnOpenDiskAndItsMagicFile) {
    std::string text = printed([] { EXPECT_EQ(fs_datazone_init(0), -1); });
    EXPECT_TRUE(contains(text, "disk 0 not open")) << text;
    ASSERT_EQ(fs_opendisk("/dev/hd/sdh"), 7);
    text = printed([] { EXPECT_EQ(fs_datazone_init(7), -1); });
    EXPECT_TRUE(contains(text, "initialized disk:7 datazone\n")) << text;
    EXPECT_TRUE(contains(text, "index_check_magic:/dev/hd/sdh\n")) << text;
    EXPECT_EQ(fs_disk_is_inited(7), 0);
}

TEST_F(FsTable, StreamsOnDisksThatAreNotOpen) {
    const rec_param p = some_param();
    std::string text =
        printed([&] { EXPECT_EQ(fs_open(0, &p, O_CREAT | O_RDWR, 0, 0, nullptr), -1); });
    EXPECT_TRUE(contains(text, "disk 0 not open")) << text;
    text = printed([] { EXPECT_EQ(fs_open(0, nullptr, O_CREAT, 0, 0, nullptr), -1); });
    EXPECT_TRUE(contains(text, "invalid param")) << text;
    const rec_param bad_channel = some_param(RECSTORE_MAX_CHANNELS);
    ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
    text = printed([&] { EXPECT_EQ(fs_open(0, &bad_channel, 0, 0, 0, nullptr), -1); });
    EXPECT_TRUE(contains(text, "invalid param")) << text;
    // Not open: -1 without a word.
    fs_closedisk(0);
    text = printed([&] { EXPECT_EQ(fs_access(0, &p), -1); });
    EXPECT_EQ(text, "");
}

TEST_F(FsTable, HandlesOutsideTheTableAreRefused) {
    unsigned char cluster[16] = {};
    kframe frames[24] = {};
    recordinfo info;
    record_alarm alarm{};
    for (int h : {-1, RECSTORE_STREAMS, 1000, INT_MIN}) {
        const std::string text = printed([&] {
            EXPECT_EQ(fs_write(h, cluster, 16, frames, 0), -1);
            fs_close(h, nullptr);
            EXPECT_EQ(fs_stat(h, &info), -1);
            EXPECT_EQ(fs_get_ext(h, cluster, 4), -1);
            EXPECT_EQ(fs_chmod(h, 1), -1);
            EXPECT_EQ(fs_insertalarm(h, &alarm), -1);
            EXPECT_EQ(fs_sync(h), -1);
            EXPECT_EQ(fs_sync_cache(h), -1);
        });
        EXPECT_TRUE(contains(text, "invalid fd :" + std::to_string(h))) << text;
    }
}

TEST_F(FsTable, AFreeSlotIsNotAStream) {
    unsigned char cluster[16] = {};
    kframe frames[24] = {};
    recordinfo info;
    std::string text = printed([&] {
        EXPECT_EQ(fs_write(5, cluster, 16, frames, 0), -1);
        EXPECT_EQ(fs_stat(5, &info), -1);
    });
    EXPECT_TRUE(contains(text, "disk -1 not open")) << text;
    text = printed([] { EXPECT_EQ(fs_sync_cache(5), -1); });
    EXPECT_EQ(text, "");
    // A slot on an open disk without an index handle.
    ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
    g_file_ctx[5].disk_id = 0;
    text = printed([&] { EXPECT_EQ(fs_write(5, cluster, 16, frames, 0), -1); });
    EXPECT_TRUE(contains(text, "had not opened yet")) << text;
    g_file_ctx[5].disk_id = -1;
}

TEST_F(FsTable, ReadOnlyRefusesEveryChange) {
    fs_exit();
    ASSERT_EQ(fs_init(0, 0, kNoCache | kReadOnly), 0);
    unsigned char cluster[16] = {};
    kframe frames[24] = {};
    record_name r{};
    const std::string text = printed([&] {
        EXPECT_EQ(fs_write(0, cluster, 16, frames, 0), -1);
        EXPECT_EQ(fs_chmod(0, 1), -1);
        EXPECT_EQ(fs_chkdata(0, 1), -1);
        EXPECT_EQ(fs_delete(0, &r), -1);
        EXPECT_EQ(fs_delete_index_before(1000), -1);
        EXPECT_EQ(fs_clear(0, 1), -1);
    });
    EXPECT_TRUE(contains(text, "fs_write readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_chmod readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_chkdata readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_delete readonly\n")) << text;
    EXPECT_TRUE(contains(text, "fs_clear readonly\n")) << text;
}

TEST_F(FsTable, WriteReportsANullBufferEvenWithLoggingOff) {
    ASSERT_EQ(fs_opendisk("/dev/hd/sda"), 0);
    g_file_ctx[9].disk_id = 0;
    g_file_ctx[9].idx = 3;  // any index handle: the arguments are checked first
    kframe frames[24] = {};
    unsigned char cluster[16] = {};
    LogMask quiet(0, 0);
    StdoutCapture out;
    EXPECT_EQ(fs_write(9, nullptr, 16, frames, 0), -1);
    EXPECT_EQ(fs_write(9, cluster, 16, nullptr, 0), -1);
    const std::string text = out.stop();
    EXPECT_EQ(text.rfind("\e[0;31m[fs.cpp:", 0), 0u) << text;
    const std::string tail = "]:\e[0minvalid param";
    const size_t first = text.find(tail);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_NE(text.find(tail, first + tail.size()), std::string::npos) << text;
    g_file_ctx[9].idx = -1;
    g_file_ctx[9].disk_id = -1;
}

TEST_F(FsTable, DeletionNeedsDisksInGroupZero) {
    std::string text = printed([] { EXPECT_EQ(fs_delete_index_before(1000), -1); });
    EXPECT_TRUE(contains(text, "diskcount 0\n")) << text;
    text = printed([] { EXPECT_EQ(fs_clear(0, 0xFFFFFFFFu), -1); });
    EXPECT_TRUE(contains(text, "invalid block id\n")) << text;
    text = printed([] { EXPECT_EQ(fs_delete(0, nullptr), -1); });
    EXPECT_TRUE(contains(text, "invalid param\n")) << text;
}

TEST_F(FsTable, BlockTimeoutWithoutLatestBlock) {
    block_entry cur{0, 1, 5};
    EXPECT_EQ(fs_block_timeout(nullptr, &cur, 100), 1);
    block_entry none{0xFFFFFFFFu, 1, 5};
    EXPECT_EQ(fs_block_timeout(&none, &cur, 100), 1);
    block_entry no_block{0, 0xFFFFFFFFu, 5};
    EXPECT_EQ(fs_block_timeout(&no_block, &cur, 100), 1);
    // Different sequences: the current block is not the latest one, nothing is walked.
    block_entry latest{0, 2, 9};
    const std::string text = printed([&] { EXPECT_EQ(fs_block_timeout(&latest, &cur, 100), 1); });
    EXPECT_TRUE(contains(text, "fs_block_timeout latest [0 2 9], cur [0 1 5]\n")) << text;
}

TEST_F(FsTable, LockDiskIsAWriteLock) {
    EXPECT_EQ(fs_lockdisk(), 0);
    EXPECT_NE(pthread_rwlock_tryrdlock(&g_diskrwlock), 0);
    EXPECT_EQ(fs_unlockdisk(), 0);
    EXPECT_EQ(pthread_rwlock_tryrdlock(&g_diskrwlock), 0);
    EXPECT_EQ(pthread_rwlock_unlock(&g_diskrwlock), 0);
}

// ---- exception callbacks ----------------------------------------------------------------

struct Calls {
    std::vector<std::string> seen;
};

void simple_before(void *arg, void *buf) {
    auto *calls = static_cast<Calls *>(arg);
    const unsigned char *b = static_cast<unsigned char *>(buf);
    bool zero = true;
    for (int i = 0; i < 512; i++) zero = zero && b[i] == 0;
    calls->seen.push_back(zero ? "before zeroed" : "before dirty");
    memcpy(buf, "left for after", 15);
    static_cast<unsigned char *>(buf)[511] = 0x77;
}
void simple_after(void *arg, void *buf) {
    auto *calls = static_cast<Calls *>(arg);
    const char *b = static_cast<const char *>(buf);
    calls->seen.push_back(std::string("after ") + b +
                          (static_cast<unsigned char *>(buf)[511] == 0x77 ? " 511" : ""));
}
void ex_before(int od, int nd, int ob, int nb, void *ctx) {
    static_cast<Calls *>(ctx)->seen.push_back("ex before " + std::to_string(od) + " " +
                                              std::to_string(nd) + " " + std::to_string(ob) + " " +
                                              std::to_string(nb));
}
void ex_after(int od, int nd, int ob, int nb, void *ctx) {
    static_cast<Calls *>(ctx)->seen.push_back("ex after " + std::to_string(od) + " " +
                                              std::to_string(nd) + " " + std::to_string(ob) + " " +
                                              std::to_string(nb));
}

TEST_F(FsTable, SetExphandleSwapsTheThreeWords) {
    Calls calls;
    fs_exphandle mine{simple_before, simple_after, &calls};
    fs_exphandle old{};
    EXPECT_EQ(fs_set_exphandle(&old, &mine), &old);
    EXPECT_EQ(old.before, nullptr);
    EXPECT_EQ(g_fsexp.before, simple_before);
    EXPECT_EQ(g_fsexp.arg, &calls);
    fs_exphandle none{};
    EXPECT_EQ(fs_set_exphandle(&old, &none), &old);
    EXPECT_EQ(old.after, simple_after);
    EXPECT_EQ(g_fsexp.after, nullptr);
    // Null pointers change nothing.
    LogMask quiet(0, 0);
    EXPECT_EQ(fs_set_exphandle(nullptr, &mine), nullptr);
    EXPECT_EQ(fs_set_exphandle(&old, nullptr), &old);
    EXPECT_EQ(g_fsexp.before, nullptr);
    EXPECT_EQ(fs_set_exphandle(&old, &mine), &old);
    fs_clear_exphandle();
    EXPECT_EQ(g_fsexp.before, nullptr);
    EXPECT_EQ(g_fsexp.after, nullptr);
    EXPECT_EQ(g_fsexp.arg, nullptr);
}

TEST_F(FsTable, SetExphandleExCopiesSixWords) {
    Calls calls;
    int w0 = 0, w1 = 0, w4 = 0;
    fs_exphandle_ex ex{&w0, &w1, ex_before, ex_after, &w4, &calls};
    fs_set_exphandle_ex(&ex);
    ex.before = nullptr;  // a copy was taken
    fs_exphandle_ex *got = fs_get_exphandle_ex();
    EXPECT_EQ(got, &g_fsexp_ex);
    EXPECT_EQ(got->rec_word0, &w0);
    EXPECT_EQ(got->rec_word1, &w1);
    EXPECT_EQ(got->before, ex_before);
    EXPECT_EQ(got->after, ex_after);
    EXPECT_EQ(got->rec_word4, &w4);
    EXPECT_EQ(got->ctx, &calls);
    fs_set_exphandle_ex(nullptr);
    EXPECT_EQ(got->rec_word0, nullptr);
    EXPECT_EQ(got->before, nullptr);
    EXPECT_EQ(got->ctx, nullptr);
}

// The event-log lines reach standard output too; the log file itself exists only in the rig.
class EventLogOn {
  public:
    EventLogOn() {
        if (access("/mnt/img", F_OK) == 0) {
            ADD_FAILURE() << "/mnt/img exists; refusing to write the real event log";
            return;
        }
        fs_log_init("/mnt/img/log.log");
    }
    ~EventLogOn() { fs_log_exit(); }
};

TEST_F(FsTable, FailedChangeCallsSimpleCallbacksWithTheSameBuffer) {
    Calls calls;
    fs_exphandle mine{simple_before, simple_after, &calls};
    fs_exphandle old{};
    fs_set_exphandle(&old, &mine);
    EventLogOn log;
    const std::string text = printed([] { EXPECT_EQ(fs_changeblock(0, 0, 7), 0); });
    EXPECT_TRUE(contains(text,
                         "change blk olddisk:[0 4294967295] => newdisk:[0 4294967295] cb:7 "
                         "alloc failed\n"))
        << text;
    ASSERT_EQ(calls.seen.size(), 2u);
    EXPECT_EQ(calls.seen[0], "before zeroed");
    EXPECT_EQ(calls.seen[1], "after left for after 511");
    // The next change starts with a zeroed buffer again.
    calls.seen.clear();
    printed([] { fs_changeblock(1, 2, 0); });
    ASSERT_EQ(calls.seen.size(), 2u);
    EXPECT_EQ(calls.seen[0], "before zeroed");
}

TEST_F(FsTable, ExtendedCallbacksReplaceTheSimpleOnes) {
    Calls calls;
    fs_exphandle mine{simple_before, simple_after, &calls};
    fs_exphandle old{};
    fs_set_exphandle(&old, &mine);
    fs_exphandle_ex ex{nullptr, nullptr, ex_before, ex_after, nullptr, &calls};
    fs_set_exphandle_ex(&ex);
    EventLogOn log;
    const std::string text = printed([] { EXPECT_EQ(fs_changeblock(2, 5, 1), 0); });
    EXPECT_TRUE(contains(text,
                         "change blk olddisk:[2 4294967295] => newdisk:[5 4294967295] cb:1 "
                         "alloc failed\n"))
        << text;
    ASSERT_EQ(calls.seen.size(), 2u);
    EXPECT_EQ(calls.seen[0], "ex before 2 5 -1 -1");
    EXPECT_EQ(calls.seen[1], "ex after 2 5 -1 -1");
    // Only an extended after-callback: the simple before-callback still runs.
    calls.seen.clear();
    fs_exphandle_ex only_after{nullptr, nullptr, nullptr, ex_after, nullptr, &calls};
    fs_set_exphandle_ex(&only_after);
    printed([] { fs_changeblock(3, 3, 2); });
    ASSERT_EQ(calls.seen.size(), 2u);
    EXPECT_EQ(calls.seen[0], "before zeroed");
    EXPECT_EQ(calls.seen[1], "ex after 3 3 -1 -1");
}

TEST_F(FsTable, DumpWritesNothingForNegativeArguments) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fs_dump(-1, 0);
    fs_dump(fds[1], -1);
    {
        LogMask quiet(0, 0);
        fs_dump(fds[1], 0);
    }
    close(fds[1]);
    char buf[4096] = {};
    const ssize_t n = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf).rfind("diskid:0 disk_inited?:0 dz_inited?:0 disk_full?:1\n", 0), 0u)
        << buf;
}

}  // namespace
