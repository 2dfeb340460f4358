// SPDX-License-Identifier: MIT
// Recording and playing synthetic camera streams through the recording API.
#include "recorder.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "cli.h"
#include "recstore.h"
#include "session.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kFastStep = 1.0 / kFramesPerSecond;
constexpr double kGiveUpSeconds = 10.0;  // a cluster that cannot be stored this long stops it
constexpr auto kPause = std::chrono::milliseconds(5);
// Mode bits of the recordings made: a plain continuous recording. Searches select recordings by
// a mask of mode bits, so a recording of mode 0 would never be found.
constexpr int kContinuousMode = 0x1;

double since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct Channel {
    explicit Channel(const StreamProfile &profile, time_t start) : writer(profile, start) {}
    StreamWriter writer;
    int handle = -1;
    int recording = -1;       // index into the result's recordings
    double stuck_since = -1;  // time the first refused attempt of the pending cluster
};

class Recorder {
  public:
    Recorder(const RecordOptions &o, RecordResult *r) : opt_(o), res_(r) {}
    bool run();

  private:
    bool store(Channel &c, const unsigned char *buf, uint32_t len, const kframe *frames,
               uint32_t count);
    bool open_recording(Channel &c, const unsigned char *buf, uint32_t len);
    void watch_rotation(double elapsed);
    bool tick(double elapsed, bool last);

    const RecordOptions &opt_;
    RecordResult *res_;
    std::vector<std::unique_ptr<Channel>> channels_;
    double now_ = 0;
    int last_disk_ = -2, last_block_ = -2;
};

bool Recorder::open_recording(Channel &c, const unsigned char *buf, uint32_t len) {
    rec_lockdisk();
    const int disk = current_disk();
    const bool full = disk < 0 || fs_isdiskfull(disk) == 1;
    rec_unlockdisk();
    if (full) return false;  // the daemon is changing disk
    FrameHeader h;
    time_t t = time(nullptr);
    if (read_frame_header(buf, len, &h)) t = static_cast<time_t>(h.time);
    struct tm start;
    gmtime_r(&t, &start);
    const int handle = rec_open_v2(c.writer.profile().channel, &start, 0, 0, 0, 0,
                                   RECSTORE_REC_CREATE | O_RDWR, kContinuousMode, 0, nullptr);
    if (handle < 0) return false;
    c.handle = handle;
    MadeRecording m;
    m.channel = c.writer.profile().channel;
    m.start = start;
    m.disk = g_recctx.streams[handle].disk_id;
    res_->recordings.push_back(m);
    c.recording = static_cast<int>(res_->recordings.size()) - 1;
    return true;
}

bool Recorder::store(Channel &c, const unsigned char *buf, uint32_t len, const kframe *frames,
                     uint32_t count) {
    if (c.handle < 0 && !open_recording(c, buf, len)) return false;
    const Clock::time_point before = Clock::now();
    const int written =
        rec_write(c.handle, buf, static_cast<int>(len), frames, static_cast<int>(count));
    const double took = since(before);
    res_->write_seconds += took;
    res_->longest_write = std::max(res_->longest_write, took);
    if (written == static_cast<int>(len)) {
        res_->clusters++;
        res_->bytes += len;
        res_->key_frames += count;
        res_->recordings[c.recording].clusters++;
        c.stuck_since = -1;
        return true;
    }
    if (c.stuck_since < 0) c.stuck_since = now_;
    if (written == -2) {
        // The disk is full: this recording ends, the next one starts on the disk the daemon
        // moves to.
        res_->refused_writes++;
        rec_close(c.handle, nullptr);
        c.handle = -1;
    }
    return false;
}

void Recorder::watch_rotation(double elapsed) {
    // The daemon picks the disk under the disk-table lock and changes blocks under the disk's
    // mutex: read each under its own lock.
    rec_lockdisk();
    const int disk = current_disk();
    const int block = disk >= 0 ? current_block(disk) : -1;
    rec_unlockdisk();
    // Between the end of a block and the next one there is no current block: not a change.
    if (block < 0 && last_disk_ != -2) return;
    if (disk == last_disk_ && block == last_block_) return;
    char text[128];
    if (last_disk_ == -2) {
        snprintf(text, sizeof text, "%6.1f s  recording starts on sd%c block %d", elapsed,
                 disk >= 0 ? 'a' + disk : '?', block);
    } else if (disk != last_disk_) {
        snprintf(text, sizeof text, "%6.1f s  disk change: sd%c -> sd%c block %d", elapsed,
                 last_disk_ >= 0 ? 'a' + last_disk_ : '?', disk >= 0 ? 'a' + disk : '?', block);
    } else {
        snprintf(text, sizeof text, "%6.1f s  block change on sd%c: block %d -> block %d", elapsed,
                 disk >= 0 ? 'a' + disk : '?', last_block_, block);
    }
    res_->events.push_back(text);
    last_disk_ = disk;
    last_block_ = block;
}

bool Recorder::tick(double elapsed, bool last) {
    for (auto &c : channels_) {
        Channel &ch = *c;
        const ClusterSink sink = [&](const unsigned char *b, uint32_t l, const kframe *f,
                                     uint32_t n) { return store(ch, b, l, f, n); };
        ch.writer.produce_until(elapsed, sink);
        if (last) ch.writer.flush(sink);
        if (ch.stuck_since >= 0 && now_ - ch.stuck_since > kGiveUpSeconds) {
            res_->error = "channel " + std::to_string(ch.writer.profile().channel) +
                          ": no cluster could be stored for " +
                          std::to_string(static_cast<int>(kGiveUpSeconds)) +
                          " s (are all disks full and recycling off?)";
            return false;
        }
    }
    return true;
}

bool Recorder::run() {
    const time_t start = time(nullptr);
    for (int ch : opt_.channels) {
        channels_.push_back(
            std::make_unique<Channel>(profile_for_channel(ch, opt_.seed, opt_.mbps), start));
    }
    const Clock::time_point t0 = Clock::now();
    double stream_time = 0, next_report = 0;
    bool ok = true;
    while (ok) {
        now_ = since(t0);
        stream_time = opt_.realtime ? now_ : stream_time + kFastStep;
        const bool last = stream_time >= opt_.seconds;
        if (last) stream_time = opt_.seconds;
        ok = tick(stream_time, false);
        watch_rotation(stream_time);
        if (opt_.progress && (stream_time >= next_report || last)) {
            RecordProgress p;
            p.elapsed = stream_time;
            p.bytes = res_->bytes;
            p.channels = static_cast<int>(channels_.size());
            p.disk = last_disk_;
            p.block = last_block_;
            opt_.progress(p);
            next_report += 1.0;
        }
        if (last) break;
        if (opt_.realtime) std::this_thread::sleep_for(kPause);
    }
    // What is left of each stream goes out, waiting for a disk or block change if need be.
    while (ok) {
        now_ = since(t0);
        ok = tick(opt_.seconds, true);
        bool pending = false;
        for (auto &c : channels_) pending |= c->stuck_since >= 0;
        if (!pending) break;
        std::this_thread::sleep_for(kPause);
    }
    for (auto &c : channels_) {
        if (c->handle >= 0) rec_close(c->handle, nullptr);
        c->handle = -1;
    }
    res_->seconds = since(t0);
    return ok;
}

}  // namespace

bool record_streams(const RecordOptions &options, RecordResult *result) {
    Recorder r(options, result);
    return r.run();
}

bool play_recording(int channel, const struct tm &start, int64_t seek_to, PlayResult *result) {
    const int h = rec_open_v2(channel, &start, 0, 0, 0, 0, 0, 0, 0, nullptr);
    if (h < 0) {
        result->error = "no recording of channel " + std::to_string(channel) + " starts at " +
                        format_tm(start) + " on the disks that are up";
        return false;
    }
    AlignedCluster buf;
    bool ok = true;
    if (seek_to == kSeekMiddle) {
        recordinfo info;
        struct tm end;
        struct tm begin = start;
        seek_to = kSeekNone;
        if (rec_stat(h, &info) == 0 && info.entry_count > 0) {
            from_fs_tm(&end, &info.end_time);
            seek_to = (static_cast<int64_t>(timegm(&begin)) + timegm(&end)) / 2;
        }
    }
    if (seek_to >= 0) {
        result->seek_target = seek_to;
        int32_t seq = 0;
        const int64_t landed = rec_tseek(h, static_cast<int32_t>(seek_to), SEEK_SET, &seq);
        if (landed < 0) {
            result->error = "rec_tseek to " + format_epoch(static_cast<time_t>(seek_to)) +
                            " failed: the time lies outside the recording";
            rec_close(h, nullptr);
            return false;
        }
        result->seek_landed = landed;
        uint32_t offset = 0;
        const int len = rec_getcurkframe(h, buf.data(), &offset);
        FrameHeader fh;
        result->key_offset = offset;
        result->key_frame_ok =
            len > 0 && offset < static_cast<uint32_t>(len) &&
            read_frame_header(buf.data() + offset, static_cast<uint32_t>(len) - offset, &fh) &&
            fh.magic == kKeyFrameMagic && fh.channel == static_cast<uint32_t>(channel);
        if (result->key_frame_ok) result->seek_landed = fh.time;
    }
    for (;;) {
        uint32_t length = 0, count = 0;
        kframe frames[RECSTORE_MAX_KFRAMES];
        const int r = rec_read(h, buf.data(), &length, frames, &count);
        if (r == 0) break;
        if (r < 0) {
            result->error =
                "rec_read failed after " + std::to_string(result->stats.clusters) + " clusters";
            ok = false;
            break;
        }
        std::string why;
        if (!verify_cluster(buf.data(), length, frames, count, channel, &result->stats, &why)) {
            result->error = "cluster " + std::to_string(result->stats.clusters) + ": " + why;
            ok = false;
            break;
        }
    }
    rec_close(h, nullptr);
    return ok;
}

}  // namespace tool
