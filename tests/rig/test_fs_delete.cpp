// Deletion on a real disk inside the rig: clearing a block through its link directory, deleting
// everything that began before a time from the cache and the index partition, deleting one
// recording with its clusters, and the block searches recycling relies on.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "recstore.h"
#include "recording.h"
#include "formatted_disks.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

// ---- the disks -----------------------------------------------------------------------------

const bool g_disks_registered = (use_formatted_disks(1), true);

class Delete : public ::testing::Test {
  protected:
    void start(int flags) {
        quiet_ = std::make_unique<LogMask>(0, 0);
        ASSERT_EQ(fs_init(kCacheInodes, kCacheMib, flags), 0);
        bring_up(0, true);
        ASSERT_EQ(fs_changeblock(0, 0, 0), 0);
        ASSERT_EQ(fs_getblockid(0), kBlock1);
    }
    void SetUp() override { ASSERT_TRUE(rig::active()); }
    void TearDown() override {
        LogMask quiet(0, 0);
        for (int h = 0; h < RECSTORE_STREAMS; h++) {
            if (g_file_ctx[h].idx >= 0) fs_close(h, nullptr);
        }
        take_down(0);
        fs_exit();
        quiet_.reset();
    }

    // Writes a whole recording: `clusters` clusters from start, closed at start + duration.
    void record(int channel, const struct tm &start, int type, uint32_t clusters,
                int duration = 60) {
        rec_param p = param_of(channel, start, type);
        const int h = fs_open(0, &p, O_CREAT | O_RDWR, 0x21, 0, nullptr);
        ASSERT_GE(h, 0);
        for (uint32_t n = 0; n < clusters; n++) {
            fill_payload(buf_.data(), static_cast<uint32_t>(channel), n);
            kframe frames[RECSTORE_MAX_KFRAMES];
            const uint32_t count = frames_of(n, secs(start), frames);
            ASSERT_EQ(fs_write(h, buf_.data(), kCluster, frames, count), int(kCluster));
        }
        struct tm end;
        time_t e = secs(start) + duration;
        gmtime_r(&e, &end);
        fs_close(h, &end);
    }

    std::vector<uint32_t> clusters_of(int channel, const struct tm &start, int type) {
        std::vector<uint32_t> out;
        rec_param p = param_of(channel, start, type);
        const int h = fs_open(0, &p, 0, 0, 0, nullptr);
        EXPECT_GE(h, 0);
        if (h < 0) return out;
        for (;;) {
            uint32_t cluster = 0, length = 0, count = 0;
            kframe frames[RECSTORE_MAX_KFRAMES];
            if (index_read(g_file_ctx[h].idx, &cluster, &length, frames, &count, nullptr) !=
                index_size()) {
                break;
            }
            out.push_back(cluster);
        }
        fs_close(h, nullptr);
        return out;
    }

    Cluster buf_;
    std::unique_ptr<LogMask> quiet_;
};

std::string log_file() {
    return slurp("/mnt/img/log.log");
}

TEST_F(Delete, ClearOfABlockRemovesExactlyItsRecordings) {
    start(0);
    const struct tm a = make_tm(2024, 5, 17, 8, 0, 0);
    const struct tm b = make_tm(2024, 5, 17, 9, 0, 0);
    const struct tm c = make_tm(2024, 5, 17, 10, 0, 0);
    const struct tm d = make_tm(2024, 5, 18, 0, 0, 0);
    record(1, a, 0, 4);
    record(2, b, 0, 3);
    ASSERT_EQ(fs_changeblock(0, 0, 1), 0);
    ASSERT_EQ(fs_getblockid(0), kBlock2);
    record(1, c, 0, 2);
    record(3, d, 0, 2);
    EXPECT_TRUE(exists("/mnt/sda/link/00000001"));
    EXPECT_EQ(tags_in(cache_file(0, 1, a, 0)).size(), 2u);

    uint32_t seq = 0;
    EXPECT_EQ(fs_earliest(0, &seq), static_cast<int>(kBlock1));
    EXPECT_NE(seq, 0u);
    const int free_before = datazone_free_count(0);
    const int busy_before = datazone_busy_count(0);

    // The current block is never cleared: its map is held in memory.
    EXPECT_EQ(fs_clear(0, kBlock2), -1);
    EXPECT_TRUE(exists(index_name(0, 1, c, 0)));

    ASSERT_EQ(fs_clear(0, kBlock1), 0);
    EXPECT_FALSE(exists(index_name(0, 1, a, 0)));
    EXPECT_FALSE(exists(index_name(0, 2, b, 0)));
    EXPECT_FALSE(exists("/mnt/sda/link/00000001"));
    EXPECT_FALSE(exists("/mnt/sda/02")) << "empty directories of channel 2 stay behind";
    EXPECT_TRUE(exists("/mnt/sda/01/2024/05/17/00"));
    EXPECT_TRUE(exists(index_name(0, 1, c, 0)));
    EXPECT_TRUE(exists(index_name(0, 3, d, 0)));
    EXPECT_TRUE(exists(link_name(0, kBlock2, 1, c, 0)));
    EXPECT_TRUE(exists(link_name(0, kBlock2, 3, d, 0)));
    // Cache: channel 1 keeps C's tag only, channel 2's cache tree is gone.
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 1, a, 0));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0] & 0xFFFFF, 10u * 3600);
    EXPECT_FALSE(exists(cache_file(0, 2, b, 0)));
    EXPECT_FALSE(exists("/mnt/cache/sda/02"));
    // The block is free again with its sequence; its 7 clusters are free.
    const uint32_t entry = aging::read_entry(data_partition(0).c_str(), 0, 0);
    EXPECT_EQ(entry >> aging::kStateShift, 0u);
    EXPECT_EQ(entry & aging::kValueMask, seq);
    EXPECT_EQ(datazone_free_count(0), free_before + 7);
    EXPECT_EQ(datazone_busy_count(0), busy_before - 7);
    EXPECT_EQ(aging::read_entry(data_partition(0).c_str(), kBlock1, 0) >> aging::kStateShift, 0u);
    EXPECT_TRUE(contains(log_file(), "remove link :/mnt/sda/link/00000001\n"));
    EXPECT_EQ(fs_earliest(0, &seq), -1);
    // The cleared block keeps its sequence, so a search by time still finds it.
    block_entry found[4];
    EXPECT_EQ(fs_before(0, static_cast<int32_t>(time(nullptr) + 100), found, 4), 1);
    EXPECT_EQ(found[0].block_id, kBlock1);
}

TEST_F(Delete, BlockTimeoutLooksForLaterRecordingsInTheCurrentBlock) {
    start(0);
    const struct tm c = make_tm(2024, 5, 17, 10, 0, 0);
    const struct tm d = make_tm(2024, 5, 18, 0, 0, 0);
    record(1, c, 0, 1);
    record(3, d, 0, 1);
    const uint32_t seq = aging::read_entry(data_partition(0).c_str(), 0, 0) & aging::kValueMask;
    block_entry cur{0, kBlock1, seq};
    block_entry latest{0, kBlock1, seq};
    LogMask mask(0xB);
    StdoutCapture out;
    EXPECT_EQ(fs_block_timeout(&latest, &cur, secs(make_tm(2024, 5, 17, 12, 0, 0))), 0);
    EXPECT_EQ(fs_block_timeout(&latest, &cur, secs(make_tm(2024, 5, 19, 0, 0, 0))), 1);
    block_entry older{0, kBlock2, seq - 1};
    EXPECT_EQ(fs_block_timeout(&older, &cur, secs(make_tm(2024, 5, 17, 12, 0, 0))), 1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text,
                         "find file:/mnt/sda/link/00000001/0320240518000000_00 later than "
                         "specific time:"))
        << text;
    EXPECT_TRUE(contains(text, "find some record in:/mnt/sda/link/00000001 later than time:"))
        << text;
    EXPECT_TRUE(contains(text, "fs_block_timeout latest [0 1 " + std::to_string(seq) +
                                   "], cur [0 1 " + std::to_string(seq) + "]\n"))
        << text;
}

TEST_F(Delete, DeleteBeforeATimeWalksCacheThenIndex) {
    start(0);
    const struct tm r1 = make_tm(2024, 5, 15, 10, 0, 0);
    const struct tm r2 = make_tm(2024, 5, 16, 10, 0, 0);
    const struct tm r3 = make_tm(2024, 5, 16, 12, 0, 0);
    const struct tm r4 = make_tm(2024, 5, 17, 10, 0, 0);
    const struct tm r5 = make_tm(2023, 12, 31, 23, 0, 0);
    record(4, r1, 0, 1);
    record(4, r2, 0, 1);
    record(4, r3, 0, 1);
    record(4, r4, 0, 1);
    record(5, r5, 1, 1);
    const time_t t = secs(make_tm(2024, 5, 16, 11, 0, 0));
    const size_t log_before = log_file().size();
    ASSERT_EQ(fs_delete_index_before(t), 0);
    EXPECT_FALSE(exists(index_name(0, 4, r1, 0)));
    EXPECT_FALSE(exists(index_name(0, 4, r2, 0)));
    EXPECT_TRUE(exists(index_name(0, 4, r3, 0)));
    EXPECT_TRUE(exists(index_name(0, 4, r4, 0)));
    EXPECT_FALSE(exists(index_name(0, 5, r5, 1)));
    // Links and clusters are left to recycling.
    EXPECT_TRUE(exists(link_name(0, kBlock1, 4, r1, 0)));
    // Cache: the 15th and 2023 are gone, the 16th keeps 12:00, the 17th is unchanged.
    EXPECT_FALSE(exists(cache_file(0, 4, r1, 0)));
    EXPECT_FALSE(exists(cache_file(0, 5, r5, 1)));
    const std::vector<uint64_t> day16 = tags_in(cache_file(0, 4, r2, 0));
    ASSERT_EQ(day16.size(), 1u);
    EXPECT_EQ(day16[0] & 0xFFFFF, 12u * 3600);
    EXPECT_EQ(tags_in(cache_file(0, 4, r4, 0)).size(), 1u);
    // Both trees, the cache first.
    const std::string log = log_file().substr(log_before);
    const std::string tail = " t:" + std::to_string(static_cast<int>(t)) + "\n";
    const size_t cache_line =
        log.find("fs_delete_index_before cachename:/mnt/cache/sda/04/" + tail);
    const size_t index_line = log.find("fs_delete_index_before path:/mnt/sda/04/" + tail);
    ASSERT_NE(cache_line, std::string::npos) << log;
    ASSERT_NE(index_line, std::string::npos) << log;
    EXPECT_LT(cache_line, index_line);
    EXPECT_NE(log.find("fs_delete_index_before path:/mnt/sda/63/" + tail), std::string::npos);
}

TEST_F(Delete, DeleteBeforeATimeWithTheCacheOff) {
    start(kNoCache);
    const struct tm r1 = make_tm(2024, 5, 15, 10, 0, 0);
    const struct tm r2 = make_tm(2024, 5, 17, 10, 0, 0);
    record(6, r1, 0, 1);
    record(6, r2, 0, 1);
    const size_t log_before = log_file().size();
    LogMask mask(0xB);
    StdoutCapture out;
    ASSERT_EQ(fs_delete_index_before(secs(make_tm(2024, 5, 16, 0, 0, 0))), 0);
    const std::string text = out.stop();
    EXPECT_FALSE(exists(index_name(0, 6, r1, 0)));
    EXPECT_TRUE(exists(index_name(0, 6, r2, 0)));
    const std::string log = log_file().substr(log_before);
    EXPECT_TRUE(contains(log, "fs_delete_index_before path:/mnt/sda/06/")) << log;
    EXPECT_FALSE(contains(log, "cachename:")) << log;
    EXPECT_TRUE(contains(text, "del file name:" + index_name(0, 6, r1, 0) + " before:")) << text;
    EXPECT_TRUE(contains(text, "year:2024 mon :5 day:17 out of range\n")) << text;
}

TEST_F(Delete, DeleteFreesTheClustersOfOneRecording) {
    start(0);
    const struct tm e = make_tm(2024, 9, 1, 1, 0, 0);
    const struct tm keep = make_tm(2024, 9, 1, 2, 0, 0);
    record(7, e, 0, 5);
    record(7, keep, 0, 2);
    const std::vector<uint32_t> clusters = clusters_of(7, e, 0);
    ASSERT_EQ(clusters.size(), 5u);
    const int busy = datazone_busy_count(0);
    // A second tag of the same start second (a replaced recording) goes with it.
    struct tm s = e, later = e;
    later.tm_min = 30;
    ASSERT_EQ(cache_create(0, 7, &s, &later, 0, 1, 0), 0);
    ASSERT_EQ(tags_in(cache_file(0, 7, e, 0)).size(), 3u);

    record_name r{};
    r.disk_id = 0;
    r.channel = 7;
    r.start = e;
    r.type = 0;
    ASSERT_EQ(fs_delete(0, &r), 0);
    EXPECT_FALSE(exists(index_name(0, 7, e, 0)));
    EXPECT_TRUE(exists(index_name(0, 7, keep, 0)));
    EXPECT_EQ(datazone_busy_count(0), busy - 5);
    for (uint32_t c : clusters)
        EXPECT_EQ(datazone_val(0, static_cast<int>(c)) >> aging::kStateShift, 0u) << c;
    const std::vector<uint64_t> tags = tags_in(cache_file(0, 7, e, 0));
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0] & 0xFFFFF, 2u * 3600);
    // The freed clusters are handed out again.
    EXPECT_EQ(datazone_free_count(0) > 0, true);

    // Gone: -1.
    EXPECT_EQ(fs_delete(0, &r), -1);
}

TEST_F(Delete, DeleteIgnoresAMissingCacheFile) {
    start(0);
    const struct tm e = make_tm(2024, 9, 2, 1, 0, 0);
    record(8, e, 0, 2);
    ASSERT_EQ(unlink(cache_file(0, 8, e, 0).c_str()), 0);
    record_name r{};
    r.channel = 8;
    r.start = e;
    EXPECT_EQ(fs_delete(0, &r), 0);
    EXPECT_FALSE(exists(index_name(0, 8, e, 0)));
    EXPECT_FALSE(exists("/mnt/sda/08")) << "empty directories stay behind";
}

TEST_F(Delete, DeleteWithTheCacheOff) {
    start(kNoCache);
    const struct tm e = make_tm(2024, 9, 3, 1, 0, 0);
    record(9, e, 0, 3);
    const int busy = datazone_busy_count(0);
    record_name r{};
    r.channel = 9;
    r.start = e;
    EXPECT_EQ(fs_delete(0, &r), 0);
    EXPECT_EQ(datazone_busy_count(0), busy - 3);
    EXPECT_FALSE(exists(index_name(0, 9, e, 0)));
}

}  // namespace
