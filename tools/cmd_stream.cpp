// recstore record, play: the recording API from the shell.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "disk_view.h"
#include "recorder.h"
#include "recstore.h"
#include "session.h"

namespace tool {

int cmd_record(int argc, char **argv) {
    constexpr const char *kCmd = "record";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore record --channel LIST [--disk DEV[,DEV...]] [--seconds N]\n"
            "                       [--mbps M] [--fast]\n\n"
            "Brings the disks up (rec_init and the plug-in order; default: every /dev/hd/sdX),\n"
            "starts the daemon and records a synthetic camera stream per channel through\n"
            "rec_open_v2 / rec_write / rec_close: 25 frames a second, a key frame every 1-2 s,\n"
            "2-8 Mbit/s chosen per channel (--mbps forces it), packed into 512 KiB clusters.\n"
            "LIST is e.g. 3, 0-15 or 1,4,9. --seconds is the stream time (default 10); frames\n"
            "are produced at the wall clock's pace unless --fast. Prints each recording's start:\n"
            "give it to \"recstore play\".\n\n"
            "exit status: 0 recorded, 1 failure, 2 usage.\n");
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {"--disk", "--channel", "--seconds", "--mbps"}, {"--fast"}, &args,
                    &error)) {
        return usage_error(kCmd, error);
    }
    RecordOptions opt;
    long seconds = 10, mbps = 0;
    if (!channels_of(args.value("--channel"), &opt.channels)) {
        return usage_error(kCmd, "--channel takes channels 0-63: 3, 0-15 or 1,4,9");
    }
    if (!parse_long(args.value("--seconds", "10"), 1, 86400, &seconds)) {
        return usage_error(kCmd, "--seconds takes 1 to 86400");
    }
    if (args.values.count("--mbps") && !parse_long(args.value("--mbps"), 1, 64, &mbps)) {
        return usage_error(kCmd, "--mbps takes 1 to 64 (Mbit/s)");
    }
    std::vector<std::string> disks;
    if (!disks_of(args, &disks, &error)) return usage_error(kCmd, error);
    if (!disks_present(disks, &error)) return failure(kCmd, error);
    if (!is_root()) return need_root(kCmd);
    opt.seconds = static_cast<int>(seconds);
    opt.mbps = static_cast<int>(mbps);
    opt.realtime = !args.has("--fast");
    ProgressLine progress(stdout);
    opt.progress = [&progress](const RecordProgress &p) {
        char line[160];
        snprintf(line, sizeof line, "%6.1f s  %d channels  %8.1f MB  disk sd%c block %d", p.elapsed,
                 p.channels, static_cast<double>(p.bytes) / 1e6, p.disk >= 0 ? 'a' + p.disk : '?',
                 p.block);
        progress.update(line);
    };
    Session s;
    if (!bring_up_all(s, disks, &error) || !s.start_daemon(&error)) return failure(kCmd, error);
    RecordResult result;
    const bool ok = record_streams(opt, &result);
    progress.finish();
    for (const std::string &e : result.events) printf("%s\n", e.c_str());
    for (const MadeRecording &m : result.recordings) {
        printf("channel %2d  start \"%s\"  on sd%c  %llu clusters\n", m.channel,
               format_tm(m.start).c_str(), 'a' + m.disk,
               static_cast<unsigned long long>(m.clusters));
    }
    printf("recorded %llu clusters, %s, %llu key frames in %.1f s (%.1f MB/s)\n",
           static_cast<unsigned long long>(result.clusters), human_size(result.bytes).c_str(),
           static_cast<unsigned long long>(result.key_frames), result.seconds,
           result.seconds > 0 ? static_cast<double>(result.bytes) / 1e6 / result.seconds : 0.0);
    s.finish();
    return ok ? kExitOk : failure(kCmd, result.error);
}

namespace {

// The recording of a channel holding time t (-1: the latest) on the disks that are up.
bool pick_recording(const Session &s, int channel, int64_t t, struct tm *start,
                    std::string *error) {
    bool found = false;
    int64_t best = -1;
    for (int disk : s.disks()) {
        char mnt[RECSTORE_PATH_LEN];
        mount_point(g_disk[disk].devname, mnt, sizeof mnt);
        IndexTree tree;
        std::string e;
        if (!load_index_tree(mnt, disk, &tree, &e)) continue;
        for (const Recording &r : tree.recordings) {
            if (r.channel != channel || r.type != 0 || !r.header_ok) continue;
            struct tm b = r.start, e_tm;
            from_fs_tm(&e_tm, &r.info.end_time);
            const int64_t from = timegm(&b);
            const int64_t to = r.info.entry_count ? static_cast<int64_t>(timegm(&e_tm)) : from;
            const bool fits = t < 0 ? from > best : (from <= t && t <= to);
            if (fits) {
                best = from;
                *start = r.start;
                found = true;
            }
        }
    }
    if (!found) {
        *error = t < 0 ? "channel " + std::to_string(channel) + " has no recording"
                       : "no recording of channel " + std::to_string(channel) + " holds " +
                             format_epoch(static_cast<time_t>(t));
    }
    return found;
}

}  // namespace

int cmd_play(int argc, char **argv) {
    constexpr const char *kCmd = "play";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore play --channel N [--start TIME] [--tseek SECONDS]\n"
            "                     [--disk DEV[,DEV...]]\n\n"
            "Brings the disks up (default: every /dev/hd/sdX), finds the channel's recording that\n"
            "holds TIME (\"YYYY-MM-DD HH:MM:SS\", UTC; default: its latest recording), seeks by\n"
            "time (rec_tseek) to TIME or to SECONDS after the recording's start, checks the key\n"
            "frame there (rec_getcurkframe) and reads on to the end (rec_read). Clusters in the\n"
            "tool's synthetic format are verified byte for byte. Prints clusters, bytes, frames\n"
            "and key frames read.\n\n"
            "exit status: 0 read (and verified), 1 failure or a difference, 2 usage.\n");
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {"--disk", "--channel", "--start", "--tseek"}, {}, &args, &error)) {
        return usage_error(kCmd, error);
    }
    long channel = 0, tseek = -1;
    if (!parse_long(args.value("--channel"), 0, 63, &channel)) {
        return usage_error(kCmd, "--channel takes one channel 0-63");
    }
    int64_t at = -1;
    if (args.values.count("--start")) {
        struct tm t;
        if (!parse_time(args.value("--start"), &t)) {
            return usage_error(kCmd, "--start takes \"YYYY-MM-DD HH:MM:SS\" (UTC)");
        }
        at = timegm(&t);
    }
    if (args.values.count("--tseek") && !parse_long(args.value("--tseek"), 0, 86400 * 31, &tseek)) {
        return usage_error(kCmd, "--tseek takes seconds after the recording's start");
    }
    std::vector<std::string> disks;
    if (!disks_of(args, &disks, &error)) return usage_error(kCmd, error);
    if (!disks_present(disks, &error)) return failure(kCmd, error);
    if (!is_root()) return need_root(kCmd);
    Session s;
    if (!bring_up_all(s, disks, &error)) return failure(kCmd, error);
    struct tm start;
    if (!pick_recording(s, static_cast<int>(channel), at, &start, &error)) {
        return failure(kCmd, error);
    }
    struct tm copy = start;
    const int64_t begin = timegm(&copy);
    int64_t seek = at > begin ? at : -1;
    if (tseek >= 0) seek = begin + tseek;
    PlayResult r;
    const bool ok = play_recording(static_cast<int>(channel), start, seek, &r);
    printf("channel %ld, recording \"%s\"\n", channel, format_tm(start).c_str());
    if (r.seek_target >= 0) {
        printf(
            "  time seek to %s: landed on the key frame of %s at offset %u (%s)\n",
            format_epoch(static_cast<time_t>(r.seek_target)).c_str(),
            format_epoch(static_cast<time_t>(r.seek_landed)).c_str(), r.key_offset,
            r.key_frame_ok ? "a key frame of the stream" : "not a key frame of the tool's format");
    }
    const VerifyStats &v = r.stats;
    printf("  read %llu clusters, %s, %llu frames, %llu key frames, %s .. %s\n",
           static_cast<unsigned long long>(v.clusters), human_size(v.bytes).c_str(),
           static_cast<unsigned long long>(v.frames), static_cast<unsigned long long>(v.key_frames),
           format_epoch(v.first_time).c_str(), format_epoch(v.last_time).c_str());
    if (v.foreign_clusters > 0) {
        printf("  %llu clusters are not in the tool's synthetic format: not verified\n",
               static_cast<unsigned long long>(v.foreign_clusters));
    } else if (ok) {
        printf("  every byte verified\n");
    }
    if (!ok) return failure(kCmd, r.error);
    return r.seek_target >= 0 && !r.key_frame_ok && v.foreign_clusters == 0
               ? failure(kCmd, "the time seek did not land on a key frame")
               : kExitOk;
}

}  // namespace tool
