// SPDX-License-Identifier: MIT
// Disks pulled while streams are open on them, many times over: every stream slot, index handle,
// recording handle and descriptor comes back once the host closes its handles, and recording
// still starts on the disk when it is plugged in again. The recording layer's own disk pass
// (do_disk_loop, what the daemon runs) notices each pull and each plug-in.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "formatted_disks.h"
#include "fs_tools.h"
#include "rec.h"
#include "recording.h"
#include "recstore.h"
#include "rec_daemon.h"
#include "rig.h"

namespace {

using namespace recording_test;

const bool g_disks_registered = (use_formatted_disks(2), true);

constexpr int kWrite = RECSTORE_REC_CREATE | O_RDWR;
// Each pull costs about 0.8 s on this rig, nearly all of it the plug-in's check and mounts: the
// test makes 70 pulls by default, and as many as RECSTORE_PULLS says when it is set (200 for the
// full run).
constexpr int kDefaultPulls = 70;

int pulls_to_make() {
    const char *text = getenv("RECSTORE_PULLS");
    const int n = text != nullptr ? atoi(text) : 0;
    return n > 0 ? n : kDefaultPulls;
}
constexpr int kWritersPerPull = 3;  // recordings open for writing at each pull
constexpr int kChannelCount = 64;

// Open descriptors of this process, with what each one is open on (for the failure message).
int open_descriptors(std::string *what = nullptr) {
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (const struct dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        count++;
        if (what == nullptr) continue;
        char target[256] = {};
        const std::string link = std::string("/proc/self/fd/") + e->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) < 0) target[0] = '?';
        *what += std::string(e->d_name) + " -> " + target + "\n";
    }
    closedir(dir);
    return count - 1;  // the directory's own descriptor
}

struct FreeSlots {
    int streams = 0;    // stream table of the disk layer
    int index = 0;      // index handles
    int recording = 0;  // recording handles of the API
    bool operator==(const FreeSlots &o) const {
        return streams == o.streams && index == o.index && recording == o.recording;
    }
};

FreeSlots free_slots() {
    FreeSlots s;
    recstore::MutexGuard guard(g_fslock);
    for (const fs_file_ctx &f : g_file_ctx) s.streams += f.idx < 0 ? 1 : 0;
    for (const handle_slot &h : g_idx_ctx) s.index += h.fd < 0 ? 1 : 0;
    for (const rec_stream_slot &r : g_recctx.streams) s.recording += r.handle < 0 ? 1 : 0;
    return s;
}

std::string text_of(const FreeSlots &s) {
    return "streams=" + std::to_string(s.streams) + " index=" + std::to_string(s.index) +
           " recording=" + std::to_string(s.recording);
}

// One pass of the recording layer's disk loop, as the daemon makes it (under the disk-table lock).
void disk_pass() {
    do_disk_loop();
}

int write_one(int h, unsigned char *buf, uint32_t s, uint32_t n, time_t base) {
    fill_payload(buf, s, n);
    kframe frames[RECSTORE_MAX_KFRAMES] = {};
    const uint32_t count = frames_of(n, base, frames);
    return rec_write(h, buf, static_cast<int>(kCluster), frames, static_cast<int>(count));
}

class DiskPull : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(rig::active());
        // The tag cache is off: its loader, started at every plug-in, would spend half a second
        // per pull walking the disk with streams and descriptors of its own.
        ASSERT_EQ(rec_init(0, kCacheMib, kNoCache), 0);
        bring_up(0, true);
        bring_up(1, true);
        disk_pass();
        ASSERT_GE(current_disk(), 0);
    }

    void TearDown() override {
        for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
            if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
        }
        for (rig::Disk &d : g_disks) {
            if (d.loop.empty()) rig::replug(d);
        }
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
};

TEST_F(DiskPull, PullsWithStreamsOpenLeakNothing) {
    Cluster buf;
    const FreeSlots slots_before = free_slots();
    const int fds_before = open_descriptors();
    ASSERT_GT(fds_before, 0);
    uint32_t serial = 0;
    const int pulls = pulls_to_make();
    for (int pull = 0; pull < pulls; pull++) {
        const int disk = current_disk();
        ASSERT_GE(disk, 0) << "pull " << pull;
        // A closed recording to read, then writers left open, and a reader of that recording.
        std::vector<int> open;
        const int ch0 = static_cast<int>(serial % kChannelCount);
        const struct tm start = make_tm(2025, 1, 1 + pull % 28, pull / 28, pull % 60, ch0 % 60);
        {
            const int h = rec_open(ch0, &start, 0, 0, 0, 0, kWrite, 0);
            ASSERT_GE(h, 0) << "pull " << pull;
            ASSERT_EQ(g_recctx.streams[h].disk_id, disk);
            ASSERT_EQ(write_one(h, buf.data(), serial, 0, secs(start)), static_cast<int>(kCluster));
            rec_close(h, nullptr);
        }
        for (int w = 0; w < kWritersPerPull; w++) {
            const int ch = (ch0 + 1 + w) % kChannelCount;
            const int h = rec_open(ch, &start, 0, 0, 0, 0, kWrite, 0);
            ASSERT_GE(h, 0) << "pull " << pull << " writer " << w;
            ASSERT_EQ(write_one(h, buf.data(), serial, 1, secs(start)), static_cast<int>(kCluster));
            open.push_back(h);
        }
        const int reader = rec_open(ch0, &start, 0, 0, 0, 0, 0, 0);
        ASSERT_GE(reader, 0) << "pull " << pull;
        open.push_back(reader);
        serial++;

        // The pull, and the pass that notices it.
        rig::unplug(g_disks[disk], false);
        disk_pass();
        ASSERT_EQ(fs_disk_is_inited(disk), 0) << "pull " << pull;
        ASSERT_NE(current_disk(), disk) << "pull " << pull;
        // Whatever the streams answer now, they do not reach a disk; the host closes them.
        for (int h : open) {
            uint32_t length = 0;
            uint32_t count = 0;
            kframe kf[RECSTORE_MAX_KFRAMES];
            EXPECT_LT(write_one(h, buf.data(), serial, 2, secs(start)), 0) << "pull " << pull;
            EXPECT_LE(rec_read(h, buf.data(), &length, kf, &count), 0) << "pull " << pull;
        }
        // Some handles are closed while the disk is gone; the others only once it is back with
        // the same id, when they must still not reach it.
        const size_t closed_while_gone = open.size() / 2;
        for (size_t i = 0; i < closed_while_gone; i++) rec_close(open[i], nullptr);
        rig::replug(g_disks[disk]);
        disk_pass();
        ASSERT_TRUE(fs_disk_is_inited(disk)) << "pull " << pull;
        for (size_t i = closed_while_gone; i < open.size(); i++) {
            EXPECT_LT(write_one(open[i], buf.data(), serial, 3, secs(start)), 0) << "pull " << pull;
            rec_close(open[i], nullptr);
        }
        const FreeSlots now = free_slots();
        ASSERT_TRUE(now == slots_before)
            << "pull " << pull << ": " << text_of(now) << ", before " << text_of(slots_before);
    }
    std::string descriptors;
    EXPECT_EQ(open_descriptors(&descriptors), fds_before) << descriptors;
    // Recording still starts, on both disks, and reads back.
    for (int disk = 0; disk < 2; disk++) {
        ASSERT_EQ(locked([] { return g_diskcount; }), 2);
        const struct tm start = make_tm(2026, 6, 1, 12, 0, disk);
        const int h = rec_open(60 + disk, &start, 0, 0, 0, 0, kWrite, 0);
        ASSERT_GE(h, 0);
        const int on = g_recctx.streams[h].disk_id;
        ASSERT_EQ(write_one(h, buf.data(), 9999, 0, secs(start)), static_cast<int>(kCluster));
        rec_close(h, nullptr);
        const int r = rec_open(60 + disk, &start, 0, 0, 0, 0, 0, 0);
        ASSERT_GE(r, 0);
        EXPECT_EQ(g_recctx.streams[r].disk_id, on);
        Cluster got;
        Cluster want;
        uint32_t length = 0;
        uint32_t count = 0;
        kframe kf[RECSTORE_MAX_KFRAMES];
        ASSERT_EQ(rec_read(r, got.data(), &length, kf, &count), static_cast<int>(kCluster));
        fill_payload(want.data(), 9999, 0);
        EXPECT_EQ(memcmp(got.data(), want.data(), kCluster), 0);
        rec_close(r, nullptr);
        // The other disk next.
        rig::unplug(g_disks[on], false);
        disk_pass();
        rig::replug(g_disks[on]);
        disk_pass();
    }
    EXPECT_TRUE(free_slots() == slots_before) << text_of(free_slots());
}

}  // namespace
