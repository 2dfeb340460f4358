// The recording API without disks: start and end, the daemon's start and stop, the settings
// (period, forced deletion, overlap, clock), the refusals of bad handles, channels and null
// pointers with their messages, and the choice of a disk when there is none.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "capture.h"
#include "rec.h"
#include "recstore.h"
#include "test_util.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

constexpr int kNoCache = 4;
constexpr unsigned kAllLevels = 0xB;
constexpr int kCreate = 0x40;
constexpr int kValidClock = 1700000000;
constexpr int kInvalidClock = 1577808000;

using recstore_test::contains;

template <typename Fn>
std::string printed(Fn fn) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    fn();
    return out.stop();
}

struct tm some_time() {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = 124;
    t.tm_mon = 4;
    t.tm_mday = 17;
    t.tm_hour = 8;
    return t;
}

int s_clock = 0;
time_t fixed_clock(time_t *out) {
    if (out != nullptr) *out = s_clock;
    return s_clock;
}

class RecApi : public ::testing::Test {
  protected:
    void SetUp() override {
        LogMask quiet(0, 0);
        ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    }
    void TearDown() override {
        LogMask quiet(0, 0);
        rec_shutdown_deamon();
        rec_exit();
    }
};

TEST_F(RecApi, InitResetsTheContext) {
    EXPECT_EQ(rec_is_inited(), 1);
    EXPECT_EQ(g_recctx.curdiskid, -1);
    EXPECT_EQ(g_recctx.overlap, 1);
    EXPECT_EQ(g_recctx.period, -1);
    EXPECT_EQ(g_recctx.force, 0);
    for (const rec_stream_slot &s : g_recctx.streams) {
        EXPECT_EQ(s.disk_id, -1);
        EXPECT_EQ(s.handle, -1);
    }
    for (const rec_find_slot &f : g_recctx.finds) EXPECT_EQ(f.in_use, 0);
}

TEST_F(RecApi, InitPrintsTheBuild) {
    rec_exit();
    const std::string out = printed([] { ASSERT_EQ(rec_init(0, 0, kNoCache), 0); });
    EXPECT_TRUE(contains(out, "filesystem compile at ")) << out;
}

TEST_F(RecApi, ExitClearsInited) {
    rec_set_period(7200);
    rec_exit();
    EXPECT_EQ(rec_is_inited(), 0);
    EXPECT_EQ(g_recctx.curdiskid, -1);
    EXPECT_EQ(g_recctx.period, 7200);  // kept by the end
    ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
    EXPECT_EQ(g_recctx.period, -1);  // reset by the start
}

TEST_F(RecApi, ShutdownWithoutBringupReturnsMinusOne) {
    EXPECT_EQ(rec_shutdown_deamon(), -1);
}

TEST_F(RecApi, DaemonStartsAndStops) {
    LogMask quiet(0, 0);
    ASSERT_EQ(rec_bringup_deamon(), 0);
    usleep(100000);
    EXPECT_EQ(rec_shutdown_deamon(), 0);
    EXPECT_EQ(rec_shutdown_deamon(), -1);
    EXPECT_EQ(g_recctx.curdiskid, -1);
}

TEST_F(RecApi, DaemonWithNullContextReturnsAtOnce) {
    EXPECT_EQ(rec_daemon(nullptr), nullptr);
}

TEST_F(RecApi, PeriodAboveAnHourOnly) {
    EXPECT_EQ(rec_set_period(3600), 0);
    EXPECT_EQ(g_recctx.period, -1);
    EXPECT_EQ(rec_set_period(3601), 1);
    EXPECT_EQ(g_recctx.period, 3601);
    EXPECT_EQ(rec_set_period(-5), 0);
    EXPECT_EQ(g_recctx.period, 3601);
    EXPECT_EQ(do_rec_period_is_valid(3600), 0);
    EXPECT_EQ(do_rec_period_is_valid(3601), 1);
}

TEST_F(RecApi, ClockValidAfter2020) {
    EXPECT_EQ(do_rec_time_is_valid(kInvalidClock), 0);
    EXPECT_EQ(do_rec_time_is_valid(kInvalidClock + 1), 1);
    EXPECT_EQ(do_rec_time_is_valid(0), 0);
}

TEST_F(RecApi, PeriodicActionOnlyWhenForced) {
    ASSERT_EQ(rec_set_period(86400), 1);
    EXPECT_EQ(do_rec_test_period(kValidClock), 0);  // never by itself
    rec_force(1);
    EXPECT_EQ(do_rec_test_period(kInvalidClock), 0);  // clock not set: waits
    EXPECT_EQ(g_recctx.force, 1);
    EXPECT_EQ(do_rec_test_period(kValidClock), 1);
    EXPECT_EQ(g_recctx.force, 0);
    EXPECT_EQ(do_rec_test_period(kValidClock), 0);  // once per rec_force
}

TEST_F(RecApi, ForcedPeriodWaitsForAValidClockInTheDaemon) {
    LogMask quiet(0, 0);
    s_clock = kInvalidClock;
    rec_set_time_pfn(fixed_clock);
    ASSERT_EQ(rec_set_period(86400), 1);
    rec_force(1);
    for (int i = 0; i < 3; i++) EXPECT_EQ(do_disk_loop(), 0);
    EXPECT_EQ(g_recctx.force, 1);
    s_clock = kValidClock;
    EXPECT_EQ(do_disk_loop(), 0);
    EXPECT_EQ(g_recctx.force, 0);
}

TEST_F(RecApi, OverlapAndClockAreStored) {
    EXPECT_EQ(rec_setoverlap(0), 0);
    EXPECT_EQ(g_recctx.overlap, 0);
    EXPECT_EQ(rec_setoverlap(1), 0);
    EXPECT_EQ(g_recctx.overlap, 1);
    rec_set_time_pfn(fixed_clock);
    EXPECT_EQ(g_rec_pfn_time, &fixed_clock);
    rec_exit();
    EXPECT_EQ(g_rec_pfn_time, nullptr);
    ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
}

TEST_F(RecApi, LockDiskIsTheDiskTableLock) {
    ASSERT_EQ(rec_lockdisk(), 0);
    EXPECT_NE(pthread_rwlock_trywrlock(&g_diskrwlock), 0);
    ASSERT_EQ(rec_unlockdisk(), 0);
    ASSERT_EQ(pthread_rwlock_trywrlock(&g_diskrwlock), 0);
    pthread_rwlock_unlock(&g_diskrwlock);
}

TEST_F(RecApi, OpenRefusesChannelsAndNullStart) {
    const struct tm t = some_time();
    std::string out = printed([&] { EXPECT_EQ(rec_open(64, &t, 0, 0, 0, 0, kCreate, 0), -1); });
    EXPECT_TRUE(contains(out, "invalid param channel:64\n")) << out;
    out = printed([&] { EXPECT_EQ(rec_open(-1, &t, 0, 0, 0, 0, kCreate, 0), -1); });
    EXPECT_TRUE(contains(out, "invalid param channel:-1\n")) << out;
    out = printed([&] { EXPECT_EQ(rec_open(3, nullptr, 0, 0, 0, 0, kCreate, 0), -1); });
    EXPECT_TRUE(contains(out, "invalid param channel:3\n")) << out;
}

TEST_F(RecApi, OpenWithoutCurrentDiskFails) {
    const struct tm t = some_time();
    std::string out = printed([&] { EXPECT_EQ(rec_open(63, &t, 0, 0, 0, 0, kCreate, 0), -1); });
    EXPECT_TRUE(contains(out, "invalid cur disk id:-1\n")) << out;
    out = printed([&] { EXPECT_EQ(rec_open(63, &t, 0, 0, 0, 0, 0, 0), -1); });
    EXPECT_TRUE(contains(out, "not found the record channel:63 time:")) << out;
    for (const rec_stream_slot &s : g_recctx.streams) EXPECT_EQ(s.handle, -1);
}

TEST_F(RecApi, OpenBeforeInitFails) {
    rec_exit();
    const struct tm t = some_time();
    const std::string out =
        printed([&] { EXPECT_EQ(rec_open(1, &t, 0, 0, 0, 0, kCreate, 0), -1); });
    EXPECT_TRUE(contains(out, "disk is not inited\n")) << out;
    ASSERT_EQ(rec_init(0, 0, kNoCache), 0);
}

TEST_F(RecApi, HandlesOutOfRangeAreRefused) {
    unsigned char buf[16] = {};
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    recordinfo info;
    record_alarm alarm = {};
    for (int h : {128, -1, 1000}) {
        std::string out = printed([&] {
            EXPECT_EQ(rec_write(h, buf, 16, frames, 1), -1);
            EXPECT_EQ(rec_stat(h, &info), -1);
            EXPECT_EQ(rec_chmod(h, 1), -1);
            EXPECT_EQ(rec_sync(h), -1);
            EXPECT_EQ(rec_get_ext(h, buf, 16), -1);
            EXPECT_EQ(rec_insertalarm(h, &alarm), -1);
            rec_close(h, nullptr);
        });
        size_t count = 0;
        for (size_t at = out.find("invalid fd\n"); at != std::string::npos;
             at = out.find("invalid fd\n", at + 1)) {
            count++;
        }
        EXPECT_EQ(count, 7u) << out;
    }
}

TEST_F(RecApi, NullPointersAreRefused) {
    unsigned char buf[16] = {};
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    const std::string out = printed([&] {
        EXPECT_EQ(rec_write(0, nullptr, 16, frames, 1), -1);
        EXPECT_EQ(rec_write(0, buf, 16, nullptr, 1), -1);
        EXPECT_EQ(rec_stat(0, nullptr), -1);
        EXPECT_EQ(rec_insertalarm(0, nullptr), -1);
    });
    size_t count = 0;
    for (size_t at = out.find("NULL ptr\n"); at != std::string::npos;
         at = out.find("NULL ptr\n", at + 1)) {
        count++;
    }
    EXPECT_EQ(count, 4u) << out;
}

TEST_F(RecApi, FreeSlotIsRejectedByTheStreamLayer) {
    LogMask quiet(0, 0);
    recordinfo info;
    EXPECT_LT(rec_stat(5, &info), 0);
    EXPECT_LT(rec_sync(5), 0);
    rec_close(5, nullptr);
    EXPECT_EQ(g_recctx.streams[5].handle, -1);
}

TEST_F(RecApi, NoDiskMeansNoCurrentDisk) {
    std::string out = printed([] { EXPECT_EQ(rec_diskcurrent(), -1); });
    EXPECT_TRUE(contains(out, "no disk found\n")) << out;
    out = printed([] { EXPECT_EQ(rec_changedisk(1), -1); });
    EXPECT_TRUE(contains(out, "current diskerr\n")) << out;
    EXPECT_EQ(g_recctx.curdiskid, -1);
}

int s_before_calls = 0;
void count_before(int, int, void *) {
    s_before_calls++;
}

TEST_F(RecApi, ChangeDiskWithoutDiskCallsNothing) {
    LogMask quiet(0, 0);
    fs_exphandle_ex ex;
    memset(&ex, 0, sizeof ex);
    ex.rec_word0 = reinterpret_cast<void *>(&count_before);
    rec_set_exphandle_ex(&ex);
    EXPECT_EQ(rec_get_exphandle_ex()->rec_word0, reinterpret_cast<void *>(&count_before));
    s_before_calls = 0;
    EXPECT_EQ(rec_changedisk(1), -1);
    EXPECT_EQ(s_before_calls, 0);
    rec_set_exphandle_ex(nullptr);
}

void simple_cb(void *, void *) {}

TEST_F(RecApi, ExceptionHandlersAreStoredAndInstalled) {
    rec_exphandle set;
    for (int i = 0; i < 6; i++)
        set.words[i] = reinterpret_cast<void *>(static_cast<uintptr_t>(i + 1));
    set.words[0] = reinterpret_cast<void *>(&simple_cb);
    set.words[1] = reinterpret_cast<void *>(&simple_cb);
    rec_exphandle old;
    memset(&old, 0xFF, sizeof old);
    EXPECT_EQ(rec_set_exphandle(&old, &set), &old);
    for (void *w : old.words) EXPECT_EQ(w, nullptr);
    EXPECT_EQ(g_fsexp.before, &simple_cb);
    EXPECT_EQ(g_fsexp.after, &simple_cb);
    EXPECT_EQ(g_fsexp.arg, set.words[2]);
    rec_exphandle again;
    rec_set_exphandle(&again, &set);
    EXPECT_EQ(memcmp(&again, &set, sizeof set), 0);
    rec_clear_exphandle();
    EXPECT_EQ(g_fsexp.before, nullptr);
    for (void *w : g_recctx.exphandle) EXPECT_EQ(w, nullptr);
    LogMask quiet(0, 0);
    EXPECT_EQ(rec_set_exphandle(nullptr, &set), nullptr);
}

TEST_F(RecApi, DumpReportsTheContext) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    {
        LogMask quiet(0, 0);
        rec_dump(fds[1]);
        rec_dump(-1);
    }
    close(fds[1]);
    char buf[512] = {};
    const ssize_t n = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    ASSERT_GT(n, 0);
    EXPECT_TRUE(contains(buf, "inited?:1 curdiskid:-1 alldiskfull?:1\n")) << buf;
}

TEST_F(RecApi, CacheQueriesWithoutDisks) {
    EXPECT_EQ(rec_is_cache_loaded(), 1);  // no disk of group 0 lacks its cache
    EXPECT_EQ(rec_is_cache_readonly(), cache_is_readonly());
}

TEST_F(RecApi, NoDiskToRecycle) {
    const std::string out = printed([] { EXPECT_EQ(rec_overlap(), -1); });
    EXPECT_TRUE(contains(out, "invalid block id\n")) << out;
    int disk = 7;
    EXPECT_EQ(rec_earliest(&disk, nullptr), -1);
    EXPECT_EQ(do_rec_get_max_block_count(), 0);
    EXPECT_EQ(do_rec_del_block_before(kValidClock), -1);
}

}  // namespace

namespace {

TEST_F(RecApi, ReadingAndSeekingRefuseBadHandlesAndNullPointers) {
    unsigned char buf[16] = {};
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    uint32_t length = 0;
    uint32_t count = 0;
    uint32_t offset = 0;
    int32_t seq = 0;
    struct tm t;
    std::string out = printed([&] {
        EXPECT_EQ(rec_read(128, buf, &length, frames, &count), -1);
        EXPECT_EQ(rec_read_r(128, buf, &length, frames, &count), -1);
        EXPECT_EQ(rec_set_preload(128, buf), -1);
        EXPECT_EQ(rec_getcurkframe(128, buf, &offset), -1);
        EXPECT_EQ(rec_getnextkframe(128, buf, &offset), -1);
        EXPECT_EQ(rec_getprekframe(128, buf, &offset), -1);
        EXPECT_EQ(rec_ltell(128, &offset), -1);
        EXPECT_EQ(rec_ttell(128, &t), -1);
        EXPECT_EQ(rec_lseek(128, 0, 0), -1);
        EXPECT_EQ(rec_tseek(128, 0, 0, &seq), -1);
    });
    size_t fds = 0;
    for (size_t at = out.find("invalid fd\n"); at != std::string::npos;
         at = out.find("invalid fd\n", at + 1)) {
        fds++;
    }
    EXPECT_EQ(fds, 10u) << out;
    out = printed([&] {
        EXPECT_EQ(rec_read(0, nullptr, &length, frames, &count), -1);
        EXPECT_EQ(rec_read(0, buf, nullptr, frames, &count), -1);
        EXPECT_EQ(rec_read(0, buf, &length, nullptr, &count), -1);
        EXPECT_EQ(rec_read(0, buf, &length, frames, nullptr), -1);
        EXPECT_EQ(rec_read_r(0, buf, &length, frames, nullptr), -1);
        EXPECT_EQ(rec_getcurkframe(0, nullptr, &offset), -1);
        EXPECT_EQ(rec_getnextkframe(0, buf, nullptr), -1);
        EXPECT_EQ(rec_getprekframe(0, buf, nullptr), -1);
        EXPECT_EQ(rec_tseek(0, 0, 0, nullptr), -1);
    });
    size_t nulls = 0;
    for (size_t at = out.find("NULL ptr\n"); at != std::string::npos;
         at = out.find("NULL ptr\n", at + 1)) {
        nulls++;
    }
    EXPECT_EQ(nulls, 9u) << out;
    // A free slot passes -1 to the stream layer, which refuses it.
    LogMask quiet(0, 0);
    EXPECT_LT(rec_read(0, buf, &length, frames, &count), 0);
    EXPECT_LT(rec_ltell(0, &offset), 0);
    EXPECT_LT(rec_lseek(0, 0, 7), 0);
}

TEST_F(RecApi, PreloadStepWithoutStreamsDoesNothing) {
    LogMask mask(kAllLevels);
    StdoutCapture out;
    do_rec_preload();
    EXPECT_EQ(out.stop(), "");
}

}  // namespace
