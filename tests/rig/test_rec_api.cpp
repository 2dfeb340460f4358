// The recording API as a recorder uses it, inside the disk rig: two formatted 200 GiB disks
// brought up in the plug-in order, the daemon running, 16 channels recorded at once and checked
// on disk and through the read functions, the handle limits, disk rotation when the current disk
// fills (with the host's callbacks and -2 from a write on the full disk), hot-plug of a third
// disk (retried while its data zone cannot be initialised), plug-out of the current disk with
// streams open on it, and a restart that finds every recording again.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "aging_checks.h"
#include "capture.h"
#include "formatted_disks.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using recstore_test::LogMask;
using recstore_test::StdoutCapture;

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
constexpr int kChannels = 16;
constexpr uint32_t kClustersPerChannel = 12;
constexpr int kWaitMs = 20000;

// What the host's callbacks saw, from the daemon's thread.
struct CallbackLog {
    std::mutex lock;
    std::vector<std::string> calls;
    void add(const std::string &s) {
        std::lock_guard<std::mutex> g(lock);
        calls.push_back(s);
    }
    bool has(const std::string &s) {
        std::lock_guard<std::mutex> g(lock);
        for (const std::string &c : calls) {
            if (c == s) return true;
        }
        return false;
    }
};
CallbackLog g_callbacks;

void disk_before(int old_disk, int new_disk, void *user) {
    static_cast<CallbackLog *>(user)->add("disk before " + std::to_string(old_disk) + " " +
                                          std::to_string(new_disk));
}
void disk_after(int old_disk, int new_disk, void *user) {
    static_cast<CallbackLog *>(user)->add("disk after " + std::to_string(old_disk) + " " +
                                          std::to_string(new_disk));
}
void block_before(int old_disk, int new_disk, int, int, void *ctx) {
    static_cast<CallbackLog *>(ctx)->add("block before " + std::to_string(old_disk) + " " +
                                         std::to_string(new_disk));
}
void block_after(int old_disk, int new_disk, int, int new_block, void *ctx) {
    static_cast<CallbackLog *>(ctx)->add("block after " + std::to_string(old_disk) + " " +
                                         std::to_string(new_disk) + " " +
                                         std::to_string(new_block));
}

uint32_t length_of(uint32_t n) {
    return kCluster - (n % 5) * 4096;
}

struct tm start_of(int channel, int minute = 0) {
    return make_tm(2025, 3, 4, 10, minute, channel);
}

class RecRig : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        // The host's log masks are set once, before the daemon starts, and restored after it
        // stops: the daemon reads them on every message.
        loud_ = std::make_unique<LogMask>(kAllLevels);
    }

    // rec_init, both disks up (disk 0 aged by `age`), the host's callbacks, the daemon; waits
    // until the daemon has chosen a disk with a current block.
    void start(
        const std::function<void()> &age = [] {}, bool fresh = true) {
        ASSERT_EQ(rec_init(kCacheInodes, kCacheMib, 0), 0);
        ASSERT_EQ(g_diskcount, static_cast<int>(g_disks.size()));
        bring_up(0, fresh, age);
        bring_up(1, fresh);
        fs_exphandle_ex ex;
        memset(&ex, 0, sizeof ex);
        ex.rec_word0 = reinterpret_cast<void *>(&disk_before);
        ex.rec_word1 = reinterpret_cast<void *>(&disk_after);
        ex.rec_word4 = &g_callbacks;
        ex.before = block_before;
        ex.after = block_after;
        ex.ctx = &g_callbacks;
        rec_set_exphandle_ex(&ex);
        ASSERT_EQ(rec_bringup_deamon(), 0);
        daemon_up_ = true;
        ASSERT_TRUE(wait_for([] {
            const int d = current_disk();
            return d >= 0 && fs_isblockfull(d) == 0;
        }));
    }

    void stop() {
        if (daemon_up_) {
            EXPECT_EQ(rec_shutdown_deamon(), 0);
        }
        daemon_up_ = false;
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        rec_set_exphandle_ex(nullptr);
        for (int d = RECSTORE_MAX_DISKS - 1; d >= 0; d--) {
            if (g_disk[d].devname[0] == '\0') continue;
            const std::string dev = g_disk[d].devname;
            fs_removedisk(0, d);
            fs_datazone_exit(d);
            fs_closedisk(d);
            fs_umount(dev.c_str());
        }
        rec_exit();
    }

    void TearDown() override {
        stop();
        for (rig::Disk &d : g_disks) {
            if (d.loop.empty()) rig::replug(d);
        }
        for (rig::Disk &d : extra_) {
            if (!d.loop.empty()) rig::unplug(d);
            unlink(d.image.c_str());
        }
        loud_.reset();
    }

    // Writes cluster n of channel `s`'s payload; rec_write's result.
    static int write_n(int h, unsigned char *buf, uint32_t s, uint32_t n, time_t base) {
        fill_payload(buf, s, n);
        kframe frames[RECSTORE_MAX_KFRAMES] = {};
        const uint32_t count = frames_of(n, base, frames);
        return rec_write(h, buf, static_cast<int>(length_of(n)), frames, static_cast<int>(count));
    }

    // Records `clusters` clusters of channel ch through the API; the disk it went to.
    int record(int ch, const struct tm &start, uint32_t clusters) {
        Cluster buf;
        const int h = rec_open_v2(ch, &start, 0, 0x11, 0x22, 0x33, kWrite, 0x5, 0x44, nullptr);
        EXPECT_GE(h, 0) << "channel " << ch;
        if (h < 0) return -1;
        const int disk = g_recctx.streams[h].disk_id;
        for (uint32_t n = 0; n < clusters; n++) {
            EXPECT_EQ(write_n(h, buf.data(), static_cast<uint32_t>(ch), n, secs(start)),
                      static_cast<int>(length_of(n)))
                << "channel " << ch << " cluster " << n;
        }
        struct tm end = start;
        end.tm_min += 5;
        rec_close(h, &end);
        return disk;
    }

    // Checks a recording on `disk`: the index entries, the payload through the data zone and
    // through the API's reader, and the counters of rec_stat.
    void verify(int disk, int ch, const struct tm &start, uint32_t clusters) {
        const std::vector<Entry> entries = entries_of(disk, ch, start, 0);
        ASSERT_EQ(entries.size(), clusters) << "channel " << ch;
        Cluster want;
        std::vector<unsigned char> back(kCluster);
        uint64_t total = 0;
        uint32_t frames_total = 0;
        for (uint32_t n = 0; n < clusters; n++) {
            const Entry &e = entries[n];
            EXPECT_EQ(e.length, length_of(n));
            kframe kf[RECSTORE_MAX_KFRAMES];
            ASSERT_EQ(e.frame_count, frames_of(n, secs(start), kf));
            EXPECT_EQ(memcmp(e.frames, kf, e.frame_count * sizeof(kframe)), 0);
            ASSERT_EQ(datazone_read(disk, static_cast<int>(e.cluster), back.data()),
                      static_cast<int>(kCluster));
            fill_payload(want.data(), static_cast<uint32_t>(ch), n);
            EXPECT_EQ(memcmp(back.data(), want.data(), length_of(n)), 0)
                << "channel " << ch << " cluster " << n;
            total += length_of(n);
            frames_total += e.frame_count;
        }
        const int h = rec_open(ch, &start, 0, 0, 0, 0, 0, 0);
        ASSERT_GE(h, 0) << "channel " << ch;
        EXPECT_EQ(g_recctx.streams[h].disk_id, disk);
        recordinfo info;
        ASSERT_EQ(rec_stat(h, &info), 0);
        EXPECT_EQ(info.entry_count, clusters);
        EXPECT_EQ(info.total_bytes, total);
        EXPECT_EQ(info.frame_count, frames_total);
        EXPECT_EQ(info.channel, static_cast<uint32_t>(ch));
        EXPECT_EQ(info.attr_a, 0x11);
        EXPECT_EQ(info.attr_b, 0x22);
        EXPECT_EQ(info.attr_c, 0x33u);
        EXPECT_EQ(info.attr_d, 0x44u);
        EXPECT_EQ(info.mode, 0x5u);
        Cluster got;
        for (uint32_t n = 0; n < clusters; n++) {
            uint32_t length = 0;
            uint32_t count = 0;
            kframe kf[RECSTORE_MAX_KFRAMES];
            ASSERT_EQ(rec_read(h, got.data(), &length, kf, &count), static_cast<int>(length_of(n)));
            EXPECT_EQ(length, length_of(n));
            EXPECT_EQ(count, entries[n].frame_count);
            fill_payload(want.data(), static_cast<uint32_t>(ch), n);
            EXPECT_EQ(memcmp(got.data(), want.data(), length_of(n)), 0)
                << "read channel " << ch << " cluster " << n;
        }
        uint32_t length = 0;
        uint32_t count = 0;
        kframe kf[RECSTORE_MAX_KFRAMES];
        EXPECT_EQ(rec_read(h, got.data(), &length, kf, &count), 0) << "end of the recording";
        rec_close(h, nullptr);
        EXPECT_EQ(g_recctx.streams[h].handle, -1);
    }

    std::unique_ptr<LogMask> loud_;
    bool daemon_up_ = false;
    std::vector<rig::Disk> extra_;
};

TEST_F(RecRig, SixteenChannelsAtOnce) {
    start();
    const int disk = current_disk();
    ASSERT_EQ(disk, 0) << "the first disk of group 0 with room";
    std::vector<std::thread> writers;
    std::atomic<int> wrong_disk{0};
    for (int ch = 0; ch < kChannels; ch++) {
        writers.emplace_back([this, ch, disk, &wrong_disk] {
            if (record(ch, start_of(ch), kClustersPerChannel) != disk) wrong_disk++;
        });
    }
    for (std::thread &t : writers) t.join();
    EXPECT_EQ(wrong_disk.load(), 0);
    for (const rec_stream_slot &s : g_recctx.streams) EXPECT_EQ(s.handle, -1);
    for (int ch = 0; ch < kChannels; ch++) verify(disk, ch, start_of(ch), kClustersPerChannel);
    EXPECT_TRUE(exists(link_name(disk, fs_getblockid(disk), 3, start_of(3), 0)));
}

TEST_F(RecRig, HandleLimits) {
    start();
    Cluster buf;
    std::vector<int> handles;
    for (int i = 0; i < RECSTORE_REC_SLOTS; i++) {
        const struct tm t = make_tm(2025, 3, 5, 1, i / 60, i % 60);
        const int h = rec_open(i % 64, &t, 1, 0, 0, 0, kWrite, 0);
        ASSERT_EQ(h, i);
        handles.push_back(h);
    }
    const struct tm t = make_tm(2025, 3, 5, 2, 0, 0);
    {
        StdoutCapture out;
        EXPECT_EQ(rec_open(63, &t, 1, 0, 0, 0, kWrite, 0), -1);
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "reach the max count\n")) << text;
    }
    for (int i = 0; i < RECSTORE_REC_SLOTS; i++) {
        EXPECT_EQ(g_recctx.streams[i].disk_id, 0);
        EXPECT_GE(g_recctx.streams[i].handle, 0);
    }
    EXPECT_FALSE(exists(index_name(0, 63, t, 1)));
    rec_close(5, nullptr);
    const int again = rec_open(63, &t, 1, 0, 0, 0, kWrite, 0);
    EXPECT_EQ(again, 5) << "the lowest free slot";
    ASSERT_EQ(write_n(again, buf.data(), 1, 0, secs(t)), static_cast<int>(length_of(0)));
    // A frame table longer than a cluster holds is refused by the stream layer.
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    EXPECT_LT(rec_write(again, buf.data(), static_cast<int>(kCluster), frames, 25), 0);
    EXPECT_LT(rec_write(again, buf.data(), -1, frames, 1), 0);
    EXPECT_LT(rec_write(again, buf.data(), static_cast<int>(kCluster), frames, -1), 0);
    for (int h : handles) rec_close(h, nullptr);
    for (const rec_stream_slot &s : g_recctx.streams) EXPECT_EQ(s.handle, -1);
    // A missing recording is not found on any disk.
    const struct tm missing = make_tm(2025, 3, 6, 0, 0, 0);
    StdoutCapture out;
    EXPECT_EQ(rec_open(7, &missing, 0, 0, 0, 0, 0, 0), -1);
    const std::string text = out.stop();
    EXPECT_TRUE(contains(text, "not found the record channel:7 time:Thu Mar  6 00:00:00 2025\n"))
        << text;
}

TEST_F(RecRig, RotationToTheSecondDiskWhenTheFirstFills) {
    // Disk 0: blocks 1 and 2 full, block 3 with two free clusters.
    const std::string part = data_partition(0);
    start([&] {
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock1, 0, 1000));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock2, 0, 1001));
        ASSERT_TRUE(aging::fill_block(part.c_str(), kBlock3, 2, 1002));
    });
    ASSERT_EQ(current_disk(), 0);
    EXPECT_EQ(fs_getblockid(0), kBlock3);
    Cluster buf;
    const struct tm t = start_of(9);
    const int h = rec_open(9, &t, 0, 0, 0, 0, kWrite, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(g_recctx.streams[h].disk_id, 0);
    ASSERT_EQ(write_n(h, buf.data(), 9, 0, secs(t)), static_cast<int>(length_of(0)));
    ASSERT_EQ(write_n(h, buf.data(), 9, 1, secs(t)), static_cast<int>(length_of(1)));
    EXPECT_EQ(fs_isdiskfull(0), 1);
    EXPECT_EQ(write_n(h, buf.data(), 9, 2, secs(t)), -2);
    recordinfo info;
    ASSERT_EQ(rec_stat(h, &info), 0);
    EXPECT_EQ(info.entry_count, 2u) << "the refused write wrote nothing";
    // The daemon moves recording to disk 1 and tells the host.
    ASSERT_TRUE(wait_for([] { return current_disk() == 1 && fs_isblockfull(1) == 0; }));
    ASSERT_TRUE(wait_for([] { return g_callbacks.has("disk after 0 1"); }));
    EXPECT_TRUE(g_callbacks.has("disk before 0 1"));
    EXPECT_TRUE(g_callbacks.has("block before 0 1"));
    EXPECT_TRUE(g_callbacks.has("block after 0 1 1"));
    EXPECT_EQ(write_n(h, buf.data(), 9, 2, secs(t)), -2) << "the handle stays on the full disk";
    rec_close(h, nullptr);
    const std::string log = slurp("/mnt/img/log.log");
    EXPECT_TRUE(contains(log, "disk:0 full\n")) << log;
    EXPECT_TRUE(contains(log, "change disk:0=>1\n")) << log;
    // Recording continues on disk 1; each recording is found on the disk that holds it.
    const struct tm t2 = start_of(10);
    EXPECT_EQ(record(10, t2, 3), 1);
    verify(1, 10, t2, 3);
    const int r = rec_open(9, &t, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(r, 0);
    EXPECT_EQ(g_recctx.streams[r].disk_id, 0);
    rec_close(r, nullptr);
    // The full disk is passed over when a disk is chosen.
    EXPECT_EQ(rec_diskcurrent(), 1);
}

TEST_F(RecRig, HotPlugOfAThirdDiskAndPlugOutOfTheCurrentOne) {
    start();
    ASSERT_EQ(current_disk(), 0);
    // A third disk, formatted but without its magic file and maps yet: its data zone cannot be
    // initialised, so every pass tries it again and the device list stays as it was. It is
    // prepared under the disk-table lock, so that no pass sees it half made.
    {
        ASSERT_EQ(rec_lockdisk(), 0);
        extra_.push_back(rig::attach('c', 200 * kGiB));
        const int formatted = fs_format("/dev/hd/sdc");
        ASSERT_EQ(rec_unlockdisk(), 0);
        ASSERT_EQ(formatted, 0);
        // Watch the passes in short captures until two attempts have failed (bounded).
        std::string text;
        size_t tries = 0;
        for (int round = 0; round < kWaitMs / 200 && tries < 2; round++) {
            StdoutCapture out;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            text += out.stop();
            tries = 0;
            for (size_t at = text.find("fs init err\n"); at != std::string::npos;
                 at = text.find("fs init err\n", at + 1)) {
                tries++;
            }
        }
        ASSERT_EQ(rec_lockdisk(), 0);
        EXPECT_GE(tries, 2u) << text;
        EXPECT_TRUE(contains(text, "probed disk :/dev/hd/sdc plug in\n")) << text;
        EXPECT_EQ(g_diskcount, 2);
        // The last attempt left it mounted and open: give it a magic file and fresh maps.
        const int cleared = fs_cleardisk(2);
        fs_closedisk(2);
        ASSERT_EQ(rec_unlockdisk(), 0);
        ASSERT_EQ(cleared, 0);
    }
    ASSERT_TRUE(wait_for([] {
        return locked([] { return fs_disk_is_inited(2) && fs_getgrp(2) == 0 && g_diskcount == 3; });
    }));
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    ASSERT_EQ(locked([&] { return fs_getdisk(0, ids, &count); }), 0);
    EXPECT_EQ(count, 3);

    // Streams open on disk 0 when it goes away.
    Cluster buf;
    const struct tm t = start_of(20);
    const int h = rec_open(20, &t, 0, 0, 0, 0, kWrite, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(g_recctx.streams[h].disk_id, 0);
    ASSERT_EQ(write_n(h, buf.data(), 20, 0, secs(t)), static_cast<int>(length_of(0)));
    // The write is over before the disk goes (the disk-table lock orders it before the daemon's
    // next pass), so the stream is known to hold one entry when its disk disappears.
    locked([] { return 0; });
    {
        StdoutCapture out;
        rig::unplug(g_disks[0]);
        ASSERT_TRUE(wait_for(
            [] { return locked([] { return fs_getgrp(0) != 0 && current_disk() >= 0; }); }));
        const std::string text = out.stop();
        EXPECT_TRUE(contains(text, "probed disk :/dev/hd/sda plug out\n")) << text;
        EXPECT_TRUE(contains(text, "after plug out disk:0 is /dev/hd/sdb\n")) << text;
    }
    EXPECT_EQ(current_disk(), 1) << "the next pass chose another disk";
    EXPECT_EQ(locked([] { return g_diskcount; }), 2);
    EXPECT_EQ(locked([] { return fs_disk_is_inited(0); }), 0);
    EXPECT_LT(write_n(h, buf.data(), 20, 1, secs(t)), 0);
    recordinfo info;
    rec_stat(h, &info);  // whatever it answers, it must not crash
    rec_close(h, nullptr);
    EXPECT_EQ(g_recctx.streams[h].handle, -1);
    // The other disks keep recording.
    const struct tm t2 = start_of(21);
    EXPECT_EQ(record(21, t2, 2), 1);
    verify(1, 21, t2, 2);
}

TEST_F(RecRig, WritesRunningIntoAPlugOutFailCleanly) {
    start();
    ASSERT_EQ(current_disk(), 0);
    const struct tm t = start_of(22);
    const int h = rec_open(22, &t, 0, 0, 0, 0, kWrite, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(g_recctx.streams[h].disk_id, 0);
    // One writer keeps writing while the disk is taken away under it: every write either stores
    // its whole cluster or fails, and once it has failed the stream stays failed.
    constexpr int kMaxWrites = 400;
    std::atomic<int> written{0};
    std::atomic<int> bad_result{0};
    std::atomic<int> first_failure{-1};
    std::thread writer([&] {
        Cluster buf;
        for (int n = 0; n < kMaxWrites; n++) {
            const int r = write_n(h, buf.data(), 22, static_cast<uint32_t>(n), secs(t));
            if (r == static_cast<int>(length_of(static_cast<uint32_t>(n)))) {
                if (first_failure.load() >= 0) bad_result++;
                written++;
            } else if (r < 0) {
                if (first_failure.load() < 0) first_failure = n;
                if (n - first_failure.load() > 3) return;
            } else {
                bad_result++;
            }
        }
    });
    ASSERT_TRUE(wait_for([&] { return written.load() >= 3; }));
    rig::unplug(g_disks[0]);
    writer.join();
    EXPECT_GE(first_failure.load(), 3) << "the writes noticed the disk going";
    EXPECT_EQ(bad_result.load(), 0) << "no short write, no success after a failure";
    ASSERT_TRUE(
        wait_for([] { return locked([] { return fs_getgrp(0) != 0 && current_disk() >= 0; }); }));
    EXPECT_EQ(current_disk(), 1);
    rec_close(h, nullptr);
    EXPECT_EQ(g_recctx.streams[h].handle, -1);
    const struct tm t2 = start_of(23);
    EXPECT_EQ(record(23, t2, 2), 1);
    verify(1, 23, t2, 2);
}

TEST_F(RecRig, RestartFindsEveryRecording) {
    start();
    const int disk = current_disk();
    for (int ch = 0; ch < 4; ch++) EXPECT_EQ(record(ch, start_of(ch, 30), 5), disk);
    stop();
    start([] {}, false);
    for (int ch = 0; ch < 4; ch++) verify(disk, ch, start_of(ch, 30), 5);
    // New recordings go after the old ones.
    EXPECT_EQ(record(40, start_of(40, 31), 2), disk);
    verify(disk, 40, start_of(40, 31), 2);
}

}  // namespace
