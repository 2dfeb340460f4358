// SPDX-License-Identifier: MIT
// The tool's synthetic camera stream: 25 frames a second, a key frame every 1 or 2 seconds, a
// bitrate of 2-8 Mbit/s chosen per channel. Frames are packed into 512 KiB clusters the way a
// recorder packs them: a cluster is handed over when the next frame would not fit. Every frame
// starts with a small header and carries a pattern derived from (channel, frame number), so that
// a cluster read back can be verified byte for byte without knowing where it came from.
#ifndef RECSTORE_TOOL_SYNTHETIC_H
#define RECSTORE_TOOL_SYNTHETIC_H

#include <time.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "recstore.h"

namespace tool {

constexpr int kFramesPerSecond = 25;
constexpr uint32_t kKeyFrameMagic = 0x4b455946u;    // "FYEK" little-endian: a key frame
constexpr uint32_t kDeltaFrameMagic = 0x454d5246u;  // a frame between key frames
constexpr uint32_t kFrameHeaderBytes = 20;

// One frame's header as it is stored at the frame's first byte (little-endian words).
struct FrameHeader {
    uint32_t magic;    // kKeyFrameMagic or kDeltaFrameMagic
    uint32_t channel;  // channel 0-63
    uint32_t number;   // frame number since the stream started
    uint32_t bytes;    // whole frame, header included
    uint32_t time;     // seconds since the epoch (UTC) of the frame
};

// How one channel's camera behaves.
struct StreamProfile {
    int channel = 0;
    uint32_t bits_per_second = 4000000;
    int key_every_seconds = 1;
};

// How a channel behaves: bitrate 2-8 Mbit/s and key frames every 1-2 s, chosen from the channel
// (and seed) so that runs are repeatable; mbps > 0 forces the bitrate.
StreamProfile profile_for_channel(int channel, uint32_t seed, int mbps);

// A page-aligned cluster buffer.
struct AlignedCluster {
    AlignedCluster();
    unsigned char *data() { return mem.get(); }
    struct Free {
        void operator()(unsigned char *p) const;
    };
    std::unique_ptr<unsigned char, Free> mem;
};

// Writes one finished cluster: (buffer, payload bytes, key-frame table, key frames). Returns
// true when it was stored.
using ClusterSink = std::function<bool(const unsigned char *, uint32_t, const kframe *, uint32_t)>;

// Produces one channel's frames in time order and packs them into clusters.
class StreamWriter {
  public:
    StreamWriter(const StreamProfile &profile, time_t start);
    // Produces every frame due up to `elapsed` seconds after the start; hands each full cluster
    // to sink. False when sink refused a cluster (the cluster is kept for the next call).
    bool produce_until(double elapsed, const ClusterSink &sink);
    // Hands over the partly filled cluster, if any.
    bool flush(const ClusterSink &sink);
    uint64_t frames() const { return next_frame_; }
    uint64_t clusters() const { return clusters_; }
    uint64_t bytes() const { return bytes_; }
    uint64_t key_frames() const { return key_frames_; }
    const StreamProfile &profile() const { return profile_; }

  private:
    uint32_t frame_bytes(uint64_t number) const;
    bool hand_over(const ClusterSink &sink);

    StreamProfile profile_;
    time_t start_;
    uint64_t next_frame_ = 0;
    AlignedCluster cluster_;
    uint32_t used_ = 0;
    kframe frames_[RECSTORE_MAX_KFRAMES] = {};
    uint32_t frame_count_ = 0;
    uint64_t clusters_ = 0, bytes_ = 0, key_frames_ = 0;
};

// What verifying clusters found.
struct VerifyStats {
    uint64_t clusters = 0;
    uint64_t bytes = 0;
    uint64_t frames = 0;
    uint64_t key_frames = 0;
    uint64_t foreign_clusters = 0;  // clusters not in the tool's format (not verified)
    uint64_t bad_clusters = 0;      // clusters in the tool's format with wrong bytes
    uint32_t first_time = 0, last_time = 0;
};

// Verifies one cluster read back: every frame's header and pattern, and that each key-frame
// descriptor points at a key frame of that time. channel < 0 accepts any channel. False with
// *error when something differs; a cluster not in the tool's format counts as foreign (true).
bool verify_cluster(const unsigned char *buf, uint32_t length, const kframe *frames, uint32_t count,
                    int channel, VerifyStats *stats, std::string *error);

// Reads a frame header at buf (length bytes available); false when there is none.
bool read_frame_header(const unsigned char *buf, uint32_t length, FrameHeader *out);

}  // namespace tool

#endif
