// SPDX-License-Identifier: MIT
// Recording and playing synthetic camera streams through the recording API (rec_open_v2,
// rec_write, rec_close, rec_tseek, rec_getcurkframe, rec_read), shared by record, play and demo.
#ifndef RECSTORE_TOOL_RECORDER_H
#define RECSTORE_TOOL_RECORDER_H

#include <time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "synthetic.h"

namespace tool {

// One recording made.
struct MadeRecording {
    int channel = 0;
    struct tm start = {};
    int disk = -1;
    uint64_t clusters = 0;
};

// What the recorder reports about once a second.
struct RecordProgress {
    double elapsed = 0;  // seconds since the start
    uint64_t bytes = 0;  // payload bytes written so far
    int channels = 0;    // channels recording
    int disk = -1;       // current disk
    int block = -1;      // its current block
};

struct RecordOptions {
    std::vector<int> channels;
    int seconds = 10;
    int mbps = 0;          // 0: 2-8 Mbit/s chosen per channel
    bool realtime = true;  // frames are produced at the wall clock's pace
    uint32_t seed = 1;
    std::function<void(const RecordProgress &)> progress;  // may be empty
};

struct RecordResult {
    uint64_t bytes = 0, clusters = 0, key_frames = 0;
    double seconds = 0;  // wall-clock time the recording took
    std::vector<MadeRecording> recordings;
    std::vector<std::string> events;  // block and disk changes seen, with their time
    int refused_writes = 0;           // writes refused because a disk was full
    double write_seconds = 0;         // time spent inside rec_write, all calls
    double longest_write = 0;         // the longest rec_write call, seconds
    std::string error;                // set when the recording stopped early
};

// Records the channels' synthetic streams through the recording API. The daemon must be
// running. False with result->error when a cluster could not be stored for several seconds.
bool record_streams(const RecordOptions &options, RecordResult *result);

struct PlayResult {
    VerifyStats stats;
    int64_t seek_target = -1;   // seconds since the epoch asked for, -1 for none
    int64_t seek_landed = -1;   // time of the key frame the seek landed on
    uint32_t key_offset = 0;    // its offset in its cluster
    bool key_frame_ok = false;  // a key frame of the tool's format was found there
    std::string error;
};

constexpr int64_t kSeekNone = -1;    // play from the start
constexpr int64_t kSeekMiddle = -2;  // seek to the middle of the recording

// Opens a recording for reading, seeks to `seek_to` (seconds since the epoch, or kSeekNone, or
// kSeekMiddle), checks the key frame there, and reads it to the end, verifying
// every cluster. False with result->error.
bool play_recording(int channel, const struct tm &start, int64_t seek_to, PlayResult *result);

}  // namespace tool

#endif
