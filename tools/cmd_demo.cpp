// SPDX-License-Identifier: MIT
// recstore demo: the recorder's whole job inside the disk rig (tests/rig/rig-run). Two 200 GiB
// sparse disks are formatted and brought up in the plug-in order, the daemon starts, N channels
// of a synthetic camera stream are recorded for a set time with a live progress line, a few
// recordings are played back by time seek and key frame with every byte verified, and the disks
// are aged beforehand so that a block change and a disk change happen within the run. At the end
// sdb is taken down, aged full and brought up again, so that every disk is full and the daemon
// recycles the earliest block while recording goes on. The summary gives only figures measured
// in this run.
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "aging.h"
#include "cli.h"
#include "commands.h"
#include "fs_tools.h"
#include "recorder.h"
#include "recstore.h"
#include "report.h"
#include "rig.h"
#include "search.h"
#include "session.h"

namespace tool {

namespace {

constexpr const char *kCmd = "demo";
constexpr uint64_t kDemoDiskBytes = 200 * kGiB;
constexpr char kLetters[] = {'a', 'b'};
constexpr int kDisks = 2;
constexpr const char *kDemoLog = "/tmp/recstore-demo.log";
constexpr const char *kRigCommand =
    "sudo scripts/demo (or: sudo tests/rig/rig-run build/native/tools/recstore demo)";
constexpr int kDefaultChannels = 16;
constexpr int kDefaultSeconds = 60;
constexpr int kPlayBacks = 3;
constexpr uint32_t kMinFree = 4;  // clusters left free in an aged block, at least
constexpr uint32_t kBlock1 = 1, kBlock2 = 2, kBlock3 = 3;
constexpr time_t kDay = 86400;
constexpr int kRecycleSeconds = 2;     // recording after the recycling
constexpr double kClusterFill = 0.97;  // payload share of a cluster, roughly

using Clock = std::chrono::steady_clock;

double since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// The terminal, while the library's own output (descriptors 1 and 2) goes to the log file.
class Terminal {
  public:
    explicit Terminal(const std::string &log) : log_(log) {
        fflush(stdout);
        fflush(stderr);
        out_ = fdopen(dup(fileno(stdout)), "w");
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            saved_out_ = dup(1);
            saved_err_ = dup(2);
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
    }
    ~Terminal() {
        fflush(stdout);
        fflush(stderr);
        if (out_ != nullptr) {
            fflush(out_);
            fclose(out_);
        }
        if (saved_out_ >= 0) {
            dup2(saved_out_, 1);
            close(saved_out_);
        }
        if (saved_err_ >= 0) {
            dup2(saved_err_, 2);
            close(saved_err_);
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    FILE *out() const { return out_ != nullptr ? out_ : stderr; }
    // Bytes of the log so far: where a step's output starts.
    uint64_t mark() const {
        fflush(stdout);
        std::ifstream in(log_, std::ios::ate | std::ios::binary);
        return in ? static_cast<uint64_t>(in.tellg()) : 0;
    }
    // Shows the command lines the library ran since mark.
    void show_commands(uint64_t from) const {
        fflush(stdout);
        std::ifstream in(log_);
        in.seekg(static_cast<std::streamoff>(from));
        std::string line;
        while (std::getline(in, line)) {
            if (is_command(line)) fprintf(out(), "      $ %s\n", line.c_str());
        }
    }

  private:
    // The library prints every command line before it runs it; tool output looks different.
    static bool is_command(const std::string &line) {
        if (line.rfind("mount ", 0) == 0 || line.rfind("umount ", 0) == 0 ||
            line.rfind("fsck.ext4 ", 0) == 0) {
            return true;
        }
        const std::string word = line.substr(0, line.find(' '));
        return word.rfind("/", 0) == 0 && access(word.c_str(), X_OK) == 0;
    }

    std::string log_;
    FILE *out_ = nullptr;
    int saved_out_ = -1;
    int saved_err_ = -1;
};

// Clusters the run is expected to fill: the channels' bitrates over the time.
uint64_t expected_clusters(int channels, int seconds) {
    uint64_t bits = 0;
    for (int c = 0; c < channels; c++) bits += profile_for_channel(c, 1, 0).bits_per_second;
    const double bytes = static_cast<double>(bits) / 8 * seconds;
    return static_cast<uint64_t>(bytes / (RECSTORE_CLUSTER_SIZE * kClusterFill)) + 1;
}

struct Plan {
    uint32_t sda_free = 0;  // free clusters left in sda's last block: the disk change
    uint32_t sdb_free = 0;  // free clusters left in sdb's first block: the block change
};

// Ages a disk as if it had recorded before: sda with blocks 1 and 2 full and block 3 nearly
// full, sdb with block 1 nearly full, so that recording changes disk after about a third of the
// run and block after two thirds. False with the reason in *error when a map cannot be written.
bool age(int disk, const std::string &part, const Plan &plan, std::string *error) {
    const time_t now = time(nullptr);
    const uint32_t two_days_ago = static_cast<uint32_t>((now - 2 * kDay) >> 2);
    const uint32_t yesterday = static_cast<uint32_t>((now - kDay) >> 2);
    if (disk == 0) {
        return aging::fill_block(part.c_str(), kBlock1, 0, two_days_ago, error) &&
               aging::fill_block(part.c_str(), kBlock2, 0, two_days_ago + 1, error) &&
               aging::fill_block(part.c_str(), kBlock3, plan.sda_free, yesterday, error);
    }
    return aging::fill_block(part.c_str(), kBlock1, plan.sdb_free, yesterday + 1, error);
}

struct Figures {
    double format_seconds[kDisks] = {};
    double bring_up_seconds = 0;
    RecordResult rec;
    uint64_t played_clusters = 0, played_bytes = 0, played_key_frames = 0, played_frames = 0;
    double play_seconds = 0;
    int played = 0, verified = 0;
    size_t found = 0;       // recordings the search returned
    size_t found_made = 0;  // recordings made that the search returned
    double search_ms = 0;
    int calendar_days = 0;  // days marked in the month view
    double calendar_ms = 0;
    bool recycled = false;           // the daemon freed a block with every disk full
    int recycled_disk = -1;          // the disk of the block it freed
    int recycled_block = -1;         // the block it freed
    uint32_t recycled_clusters = 0;  // free clusters it gained
    size_t recycled_gone = 0;        // recordings that vanished with the block
    double recycled_at = 0;          // seconds into the extra recording
    uint64_t after_clusters = 0;     // clusters written after the recycling began
};

void print_summary(FILE *out, const Figures &f, int channels) {
    int block_changes = 0, disk_changes = 0;
    for (const std::string &e : f.rec.events) {
        block_changes += e.find("block change") != std::string::npos ? 1 : 0;
        disk_changes += e.find("disk change") != std::string::npos ? 1 : 0;
    }
    fprintf(out, "\nsummary (measured in this run):\n");
    fprintf(out, "  format             sda %.1f s, sdb %.1f s (parted, mkfs.ext4)\n",
            f.format_seconds[0], f.format_seconds[1]);
    fprintf(out, "  bring-up           %.1f s for both disks (check, mount, maps, cache)\n",
            f.bring_up_seconds);
    fprintf(out,
            "  recorded           %d channels, %zu recordings, %llu clusters, %s, %llu key "
            "frames in %.1f s\n",
            channels, f.rec.recordings.size(), static_cast<unsigned long long>(f.rec.clusters),
            human_size(f.rec.bytes).c_str(), static_cast<unsigned long long>(f.rec.key_frames),
            f.rec.seconds);
    fprintf(out, "  write rate         %.1f MB/s on average (the streams' own pace)\n",
            f.rec.seconds > 0 ? static_cast<double>(f.rec.bytes) / 1e6 / f.rec.seconds : 0.0);
    const uint64_t calls = f.rec.clusters + static_cast<uint64_t>(f.rec.refused_writes);
    fprintf(out, "  rec_write          %llu calls, %.2f ms on average, %.1f ms the longest\n",
            static_cast<unsigned long long>(calls),
            calls > 0 ? f.rec.write_seconds * 1e3 / static_cast<double>(calls) : 0.0,
            f.rec.longest_write * 1e3);
    fprintf(out,
            "  changes            %d disk change(s), %d block change(s); %d write(s) refused "
            "on a full disk\n",
            disk_changes, block_changes, f.rec.refused_writes);
    fprintf(out,
            "  played back        %d recordings, %llu clusters, %s, %llu frames, %llu key "
            "frames; %d of %d verified byte for byte\n",
            f.played, static_cast<unsigned long long>(f.played_clusters),
            human_size(f.played_bytes).c_str(), static_cast<unsigned long long>(f.played_frames),
            static_cast<unsigned long long>(f.played_key_frames), f.verified, f.played);
    fprintf(out,
            "  search             %zu recordings found in %.1f ms; %zu of the %zu made among "
            "them\n",
            f.found, f.search_ms, f.found_made, f.rec.recordings.size());
    fprintf(out, "  calendar           %d day(s) marked in %.1f ms\n", f.calendar_days,
            f.calendar_ms);
    if (f.recycled) {
        fprintf(out,
                "  recycling          sd%c block %d freed (%u clusters, %zu recordings gone) at "
                "%.1f s after the daemon's start; %llu clusters written on\n",
                'a' + f.recycled_disk, f.recycled_block, f.recycled_clusters, f.recycled_gone,
                f.recycled_at, static_cast<unsigned long long>(f.after_clusters));
    } else {
        fprintf(out, "  recycling          not seen\n");
    }
    fprintf(
        out,
        "  read rate          %.1f MB/s (seek, key frame, read and verify; mostly from the page "
        "cache)\n",
        f.play_seconds > 0 ? static_cast<double>(f.played_bytes) / 1e6 / f.play_seconds : 0.0);
}

// The recordings to play back: the first of the first channel, one that began after the disk
// change, and the last one made.
std::vector<MadeRecording> pick_playbacks(const std::vector<MadeRecording> &made) {
    std::vector<MadeRecording> out;
    auto add = [&](const MadeRecording &m) {
        for (const MadeRecording &o : out) {
            if (o.channel == m.channel && timegm(const_cast<struct tm *>(&o.start)) ==
                                              timegm(const_cast<struct tm *>(&m.start))) {
                return;
            }
        }
        if (m.clusters > 0 && static_cast<int>(out.size()) < kPlayBacks) out.push_back(m);
    };
    if (!made.empty()) add(made.front());
    for (const MadeRecording &m : made) {
        if (m.disk == 1) {
            add(m);
            break;
        }
    }
    if (!made.empty()) add(made.back());
    for (const MadeRecording &m : made) add(m);
    return out;
}

double ms_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Searches every channel over the run's time on both disks and prints the table; every
// recording made must be found. Then the month view of the run's month.
bool search_and_calendar(FILE *out, const std::vector<MadeRecording> &made, Figures *f) {
    if (made.empty()) return false;
    struct tm from = made.front().start, to = made.front().start;
    for (const MadeRecording &m : made) {
        struct tm a = m.start, b = from, c = to;
        if (timegm(&a) < timegm(&b)) from = m.start;
        if (timegm(&a) > timegm(&c)) to = m.start;
    }
    time_t last = timegm(&to) + 86400;
    gmtime_r(&last, &to);
    fprintf(out,
            "\nsearching every channel of both disks (rec_find_open, sorted by channel and "
            "start):\n");
    std::vector<FoundRecording> found;
    std::string error;
    Clock::time_point t0 = Clock::now();
    bool ok = search_recordings(from, to, ~0ull, 0, &found, &error);
    f->search_ms = ms_since(t0);
    if (!ok) {
        fprintf(out, "recstore demo: %s\n", error.c_str());
        return false;
    }
    fputs(format_find_table(found).c_str(), out);
    f->found = found.size();
    for (const MadeRecording &m : made) {
        fs_tm want;
        to_fs_tm(&m.start, &want);
        for (const FoundRecording &r : found) {
            if (static_cast<int>(r.record.channel) == m.channel &&
                memcmp(&r.record.start, &want, sizeof want) == 0) {
                f->found_made++;
                break;
            }
        }
    }
    if (f->found_made != made.size()) {
        fprintf(out, "recstore demo: the search missed %zu of the recordings made\n",
                made.size() - f->found_made);
        ok = false;
    }
    const int year = from.tm_year + 1900, month = from.tm_mon + 1;
    fprintf(out, "\nthe month view of every channel (rec_get_calendar):\n");
    unsigned char days[kCalendarDays] = {};
    t0 = Clock::now();
    if (!month_calendar(~0ull, year, month, days, &error)) {
        fprintf(out, "recstore demo: %s\n", error.c_str());
        return false;
    }
    f->calendar_ms = ms_since(t0);
    fputs(format_calendar(year, month, days).c_str(), out);
    for (unsigned char d : days) f->calendar_days += d & 1;
    if ((days[from.tm_mday - 1] & 1) == 0) {
        fprintf(out, "recstore demo: the day of the first recording is not marked\n");
        ok = false;
    }
    return ok;
}

bool play_back(FILE *out, const std::vector<MadeRecording> &made, Figures *f) {
    bool ok = true;
    fprintf(out, "\nplaying back by time seek and key frame, verifying every byte:\n");
    const Clock::time_point t0 = Clock::now();
    for (const MadeRecording &m : pick_playbacks(made)) {
        PlayResult r;
        const bool good = play_recording(m.channel, m.start, kSeekMiddle, &r);
        f->played++;
        f->played_clusters += r.stats.clusters;
        f->played_bytes += r.stats.bytes;
        f->played_frames += r.stats.frames;
        f->played_key_frames += r.stats.key_frames;
        const bool verified =
            good && r.stats.foreign_clusters == 0 && (r.seek_target < 0 || r.key_frame_ok);
        f->verified += verified ? 1 : 0;
        fprintf(out, "  channel %2d on sd%c, recorded %s\n", m.channel, 'a' + m.disk,
                format_tm(m.start).c_str());
        if (r.seek_target >= 0) {
            fprintf(out, "    rec_tseek %s -> key frame of %s (offset %u)%s\n",
                    format_epoch(static_cast<time_t>(r.seek_target)).c_str() + 11,
                    format_epoch(static_cast<time_t>(r.seek_landed)).c_str() + 11, r.key_offset,
                    r.key_frame_ok ? "" : " NOT A KEY FRAME");
        }
        fprintf(out, "    read %llu clusters, %s, %llu frames, %llu key frames: %s\n",
                static_cast<unsigned long long>(r.stats.clusters),
                human_size(r.stats.bytes).c_str(), static_cast<unsigned long long>(r.stats.frames),
                static_cast<unsigned long long>(r.stats.key_frames),
                verified ? "every byte verified" : ("FAILED: " + r.error).c_str());
        ok &= verified;
    }
    f->play_seconds = since(t0);
    return ok;
}

// Marks every free cluster of a block's cluster map busy with `stamp`; the run's clusters keep
// their entries.
bool fill_free_clusters(const std::string &part, uint32_t block, uint32_t stamp) {
    std::vector<unsigned char> map(aging::kClusterBytes);
    recstore::PlainFdGuard fd(open(part.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) return false;
    const off64_t at = static_cast<off64_t>(block) * aging::kClusterBytes;
    bool ok = pread64(fd.get(), map.data(), aging::kClusterBytes, at) == aging::kClusterBytes;
    for (size_t k = 0; k < map.size(); k += recstore::kEntryBytes) {
        const uint32_t e = recstore::le32_load(&map[k]);
        if ((e & aging::kError) == 0) recstore::le32_store(&map[k], aging::busy_entry(stamp));
    }
    ok = ok && pwrite64(fd.get(), map.data(), aging::kClusterBytes, at) == aging::kClusterBytes;
    return ok;
}

// Every recording on the disks over a wide span around now; false with a message on out.
bool search_all(FILE *out, std::vector<FoundRecording> *found) {
    const time_t now = time(nullptr);
    const time_t a = now - 7 * kDay, b = now + kDay;
    struct tm from, to;
    gmtime_r(&a, &from);
    gmtime_r(&b, &to);
    std::string error;
    if (search_recordings(from, to, ~0ull, 0, found, &error)) return true;
    fprintf(out, "recstore demo: %s\n", error.c_str());
    return false;
}

// Free clusters of a disk's data zone, read under the disk's lock the daemon frees blocks under.
uint32_t free_clusters(int disk) {
    pthread_mutex_lock(&g_disk[disk].lock);
    const int n = datazone_free_count(disk);
    pthread_mutex_unlock(&g_disk[disk].lock);
    return n > 0 ? static_cast<uint32_t>(n) : 0;
}

// The disk id the session gave to a device node, -1 when it is not up.
int disk_of(const Session &s, const std::string &node) {
    for (int d : s.disks()) {
        if (node == g_disk[d].devname) return d;
    }
    return -1;
}

// Takes sdb down while the daemon runs, fills its remaining free blocks and the free clusters
// of its current block (stamped now, so they stay the newest), and brings it up again: every
// disk is full. The daemon must then free the earliest block of all disks, and recording must
// go on into it. Everything printed is read back from the disks.
bool recycle(FILE *out, Session &s, const std::vector<rig::Disk> &disks, int channels, Figures *f) {
    fprintf(out,
            "\nrecycling: sdb down in the plug-out order, its free blocks aged full, up again\n");
    std::vector<FoundRecording> before;
    if (!search_all(out, &before)) return false;
    const std::string node = disks[1].node, part = node + "3";
    const int sdb = disk_of(s, node);
    if (sdb < 0) {
        fprintf(out, "recstore demo: sdb is not up\n");
        return false;
    }
    datazone_info info;
    if (datazone_getinfo(sdb, &info) != 0) return false;
    // The daemon rests while sdb is away: sda alone is full and must not be recycled before every
    // disk is full again, and the disk table changes only while nobody reads it.
    rec_shutdown_deamon();
    rec_lockdisk();
    const int current = current_block(sdb);
    s.take_down(sdb, true);
    rec_unlockdisk();
    const uint32_t stamp = static_cast<uint32_t>(time(nullptr) >> 2);
    std::string error;
    bool ok = true;
    for (uint32_t b = 1; ok && b <= info.block_count; b++) {
        uint32_t entry = 0;
        ok = aging::read_entry(part.c_str(), 0, b - 1, &entry, &error);
        if (!ok) break;
        const bool busy = (entry & aging::kError) == aging::kBusy;
        if (static_cast<int>(b) == current) {
            ok = fill_free_clusters(part, b, stamp);
            if (ok && !busy) {
                ok = aging::set_block_entry(part.c_str(), b, aging::busy_entry(stamp), &error);
            }
        } else if (!busy) {
            ok = aging::fill_block(part.c_str(), b, 0, stamp, &error);
        }
    }
    uint32_t free_before[RECSTORE_MAX_DISKS] = {};
    ok = ok && s.bring_up(node, true, &error);
    if (!ok) {
        fprintf(out, "recstore demo: sdb could not be aged and brought up again %s\n",
                error.c_str());
        return false;
    }
    for (int d : s.disks()) free_before[d] = free_clusters(d);
    fprintf(out, "every disk full: the daemon starts again (rec_bringup_deamon)\n");
    const Clock::time_point t0 = Clock::now();
    if (rec_bringup_deamon() != 0) {
        fprintf(out, "recstore demo: the daemon could not be started again\n");
        return false;
    }
    int freed_disk = -1;
    for (int i = 0; i < 2000 && freed_disk < 0; i++) {
        for (size_t k = 0; k < s.disks().size() && freed_disk < 0; k++) {
            const int d = s.disks()[k];
            if (free_clusters(d) >= free_before[d] + aging::kClustersPerBlock) freed_disk = d;
        }
        if (freed_disk < 0) usleep(10000);
    }
    if (freed_disk < 0) {
        fprintf(out, "recstore demo: every disk full, but the daemon freed no block within 20 s\n");
        return false;
    }
    f->recycled_at = since(t0);
    f->recycled_disk = freed_disk;
    f->recycled_clusters = free_clusters(freed_disk) - free_before[freed_disk];
    // The freed block: the one the daemon takes up as the current block of that disk, the only
    // one with room there.
    for (int i = 0; i < 2000 && f->recycled_block < 0; i++) {
        rec_lockdisk();
        if (current_disk() == freed_disk) f->recycled_block = current_block(freed_disk);
        rec_unlockdisk();
        if (f->recycled_block < 0) usleep(10000);
    }
    std::vector<FoundRecording> after;
    if (!search_all(out, &after)) return false;
    f->recycled_gone = before.size() > after.size() ? before.size() - after.size() : 0;
    fprintf(out,
            "recycling: every disk full; the daemon freed sd%c block %d (%zu recordings, %u "
            "clusters) %.1f s later\n",
            'a' + freed_disk, f->recycled_block, f->recycled_gone, f->recycled_clusters,
            f->recycled_at);
    RecordOptions opt;
    for (int c = 0; c < channels; c++) opt.channels.push_back(c);
    opt.seconds = kRecycleSeconds;
    RecordResult r;
    ok = record_streams(opt, &r);
    for (const std::string &e : r.events) fprintf(out, "  %s\n", e.c_str());
    f->after_clusters = r.clusters;
    f->recycled = ok && r.clusters > 0;
    if (f->recycled) {
        fprintf(out, "recycling: recording went on, %llu clusters in %.1f s\n",
                static_cast<unsigned long long>(r.clusters), r.seconds);
    } else {
        fprintf(out, "recstore demo: recording did not go on after recycling: %s\n",
                r.error.c_str());
    }
    return f->recycled;
}

void help() {
    printf(
        "usage: recstore demo [--channels N] [--seconds S]\n\n"
        "The recorder's whole job inside the disk rig (root, loop devices, a private mount\n"
        "namespace), in about two minutes at the defaults:\n"
        "  - attaches two 200 GiB sparse disks as /dev/hd/sda and /dev/hd/sdb and formats them;\n"
        "  - ages them (sda nearly full, sdb's first block nearly full) so that a disk change\n"
        "    and a block change happen during the run;\n"
        "  - rec_init, both disks up in the plug-in order, the daemon;\n"
        "  - records N channels (default %d) of a synthetic camera stream for S seconds\n"
        "    (default %d): a key frame every 1-2 s, 2-8 Mbit/s per channel, a cluster written\n"
        "    when the next frame would not fit; a progress line once a second on a terminal;\n"
        "  - plays a few recordings back by time seek and key frame, verifying every byte;\n"
        "  - searches them and prints the month view;\n"
        "  - takes sdb down, ages its free blocks full and brings it up again: with every disk\n"
        "    full the daemon frees the earliest block and recording goes on for 2 s more;\n"
        "  - prints a summary of the figures measured, takes everything down again.\n"
        "The library's own output goes to %s. Run it as:\n  %s\n\n"
        "exit status: 0 done, 1 a step failed, 2 usage or not in the rig.\n",
        kDefaultChannels, kDefaultSeconds, kDemoLog, kRigCommand);
}

// Attaches and formats the demo disks.
bool prepare_disks(Terminal &term, std::vector<rig::Disk> *disks, Figures *f) {
    FILE *out = term.out();
    for (int i = 0; i < kDisks; i++) {
        fprintf(out, "attaching a %s sparse disk as /dev/hd/sd%c",
                human_size(kDemoDiskBytes).c_str(), kLetters[i]);
        rig::Disk disk;
        std::string error;
        if (!rig::try_attach(kLetters[i], kDemoDiskBytes, false, &disk, &error)) {
            fprintf(out, "\nrecstore demo: %s\n", error.c_str());
            return false;
        }
        disks->push_back(disk);
        fprintf(out, " (%s)\n", disks->back().loop.c_str());
    }
    for (int i = 0; i < kDisks; i++) {
        const std::string &dev = (*disks)[i].node;
        fprintf(out, "formatting %s...\n", dev.c_str());
        fflush(out);
        const uint64_t from = term.mark();
        const Clock::time_point t0 = Clock::now();
        const int r = fs_format(dev.c_str());
        f->format_seconds[i] = since(t0);
        if (i == 0) term.show_commands(from);
        fprintf(out, "    fs_format -> %d (%.1f s)\n", r, f->format_seconds[i]);
        if (r != 0) return false;
    }
    return true;
}

int run_demo(Terminal &term, int channels, int seconds) {
    FILE *out = term.out();
    Figures f;
    std::vector<rig::Disk> disks;
    bool ok = prepare_disks(term, &disks, &f);
    if (ok) {
        const uint64_t clusters = expected_clusters(channels, seconds);
        Plan plan;
        plan.sda_free = std::max<uint32_t>(kMinFree, static_cast<uint32_t>(clusters / 3));
        plan.sdb_free = std::max<uint32_t>(kMinFree, static_cast<uint32_t>(clusters / 3));
        fprintf(out,
                "aging: sda blocks 1-2 full, block 3 with %u free clusters; sdb block 1 with "
                "%u free clusters (about %llu clusters will be recorded)\n",
                plan.sda_free, plan.sdb_free, static_cast<unsigned long long>(clusters));
        Session s;
        s.set_output(out);
        std::string error;
        fprintf(out, "rec_init, then each disk up in the plug-in order:\n");
        const Clock::time_point t0 = Clock::now();
        ok = s.start(&error);
        for (int i = 0; ok && i < kDisks; i++) {
            const std::string part = disks[i].node + "3";
            std::string aging_error;
            ok = s.bring_up(disks[i].node, true, &error,
                            [&, i] { age(i, part, plan, &aging_error); });
            if (ok && !aging_error.empty()) {
                error = aging_error;
                ok = false;
            }
        }
        f.bring_up_seconds = since(t0);
        ok = ok && s.start_daemon(&error);
        if (ok) {
            rec_lockdisk();
            const int disk = current_disk();
            const int block = current_block(disk);
            rec_unlockdisk();
            fprintf(out, "daemon running, recording to sd%c block %d\n", 'a' + disk, block);
            fprintf(out, "\nrecording %d channels for %d s:\n", channels, seconds);
            RecordOptions opt;
            for (int c = 0; c < channels; c++) opt.channels.push_back(c);
            opt.seconds = seconds;
            ProgressLine progress(out);
            opt.progress = [&progress](const RecordProgress &p) {
                char line[160];
                snprintf(line, sizeof line,
                         "  %5.1f s  %2d channels  %8.1f MB  %6.1f MB/s  sd%c block %d", p.elapsed,
                         p.channels, static_cast<double>(p.bytes) / 1e6,
                         p.elapsed > 0 ? static_cast<double>(p.bytes) / 1e6 / p.elapsed : 0.0,
                         p.disk >= 0 ? 'a' + p.disk : '?', p.block);
                progress.update(line);
            };
            ok = record_streams(opt, &f.rec);
            progress.finish();
            for (const std::string &e : f.rec.events) fprintf(out, "  %s\n", e.c_str());
            if (!ok) fprintf(out, "recstore demo: %s\n", f.rec.error.c_str());
            ok &= play_back(out, f.rec.recordings, &f);

            ok &= search_and_calendar(out, f.rec.recordings, &f);
            ok = ok && recycle(out, s, disks, channels, &f);
        } else {
            fprintf(out, "recstore demo: %s\n", error.c_str());
        }
        fprintf(out, "\ntaking the disks down in the plug-out order\n");
        s.finish();
        print_summary(out, f, channels);
    }
    for (rig::Disk &d : disks) {
        std::string error;
        if (rig::try_unplug(d, &error)) {
            unlink(d.image.c_str());
        } else {
            fprintf(out, "recstore demo: %s\n", error.c_str());
            ok = false;
        }
    }
    fprintf(out, "\n%s (the library's own output: %s)\n", ok ? "demo done" : "demo FAILED",
            kDemoLog);
    return ok ? kExitOk : kExitFailed;
}

}  // namespace

int cmd_demo(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        help();
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {"--channels", "--seconds"}, {}, &args, &error)) {
        return usage_error(kCmd, error);
    }
    long channels = kDefaultChannels, seconds = kDefaultSeconds;
    if (args.values.count("--channels") &&
        !parse_long(args.value("--channels"), 1, RECSTORE_MAX_CHANNELS, &channels)) {
        return usage_error(kCmd, "--channels takes 1 to 64");
    }
    if (args.values.count("--seconds") && !parse_long(args.value("--seconds"), 1, 3600, &seconds)) {
        return usage_error(kCmd, "--seconds takes 1 to 3600");
    }
    if (!is_root()) {
        printf(
            "recstore demo must run as root: it attaches loop devices and mounts file systems\n"
            "in a private mount namespace (the disk rig). Run it from the source tree as:\n  %s\n",
            kRigCommand);
        return kExitUsage;
    }
    if (!in_rig()) {
        printf(
            "recstore demo needs the disk rig: loop devices and a private mount namespace, so\n"
            "that nothing of the machine's own /dev and /mnt is touched. Run it as:\n  %s\n",
            kRigCommand);
        return kExitUsage;
    }
    Terminal term(kDemoLog);
    return run_demo(term, static_cast<int>(channels), static_cast<int>(seconds));
}

}  // namespace tool
