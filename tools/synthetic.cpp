// The tool's synthetic camera stream and its verifier.
#include "synthetic.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "fs_tools.h"

namespace tool {

namespace {

constexpr uint32_t kClusterBytes = RECSTORE_CLUSTER_SIZE;
constexpr uint32_t kKeyFrameWeight = 4;  // a key frame is as large as four other frames
constexpr int kMinMbps = 2;
constexpr int kMaxMbps = 8;

uint32_t mix(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

// The pattern of a frame's body: a xorshift sequence seeded from (channel, frame number).
void fill_body(unsigned char *p, uint32_t n, uint32_t channel, uint32_t number) {
    uint32_t x = mix(channel * 0x9E3779B1u ^ number * 0x85EBCA77u) | 1u;
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        memcpy(p + i, &x, 4);
    }
    for (; i < n; i++) p[i] = static_cast<unsigned char>(i);
}

bool body_matches(const unsigned char *p, uint32_t n, uint32_t channel, uint32_t number) {
    uint32_t x = mix(channel * 0x9E3779B1u ^ number * 0x85EBCA77u) | 1u;
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        if (memcmp(p + i, &x, 4) != 0) return false;
    }
    for (; i < n; i++) {
        if (p[i] != static_cast<unsigned char>(i)) return false;
    }
    return true;
}

}  // namespace

StreamProfile profile_for_channel(int channel, uint32_t seed, int mbps) {
    const uint32_t h = mix(static_cast<uint32_t>(channel) * 2654435761u ^ seed);
    StreamProfile s;
    s.channel = channel;
    const int chosen = kMinMbps + static_cast<int>(h % (kMaxMbps - kMinMbps + 1));
    s.bits_per_second = static_cast<uint32_t>(mbps > 0 ? mbps : chosen) * 1000000u;
    s.key_every_seconds = 1 + static_cast<int>((h >> 8) % 2);
    return s;
}

AlignedCluster::AlignedCluster() {
    void *p = nullptr;
    if (posix_memalign(&p, 4096, kClusterBytes) == 0) {
        mem.reset(static_cast<unsigned char *>(p));
        memset(p, 0, kClusterBytes);
    }
}

void AlignedCluster::Free::operator()(unsigned char *p) const {
    free(p);
}

StreamWriter::StreamWriter(const StreamProfile &profile, time_t start)
    : profile_(profile), start_(start) {}

uint32_t StreamWriter::frame_bytes(uint64_t number) const {
    const uint32_t gop = static_cast<uint32_t>(profile_.key_every_seconds * kFramesPerSecond);
    const uint64_t gop_bytes = static_cast<uint64_t>(profile_.bits_per_second / 8) *
                               static_cast<uint32_t>(profile_.key_every_seconds);
    const uint32_t delta = static_cast<uint32_t>(gop_bytes / (gop - 1 + kKeyFrameWeight));
    const uint32_t bytes = number % gop == 0 ? delta * kKeyFrameWeight : delta;
    return std::max(bytes, kFrameHeaderBytes);
}

bool StreamWriter::hand_over(const ClusterSink &sink) {
    if (used_ == 0) return true;
    if (!sink(cluster_.data(), used_, frames_, frame_count_)) return false;
    clusters_++;
    bytes_ += used_;
    used_ = 0;
    frame_count_ = 0;
    memset(frames_, 0, sizeof frames_);
    return true;
}

bool StreamWriter::produce_until(double elapsed, const ClusterSink &sink) {
    const uint32_t gop = static_cast<uint32_t>(profile_.key_every_seconds * kFramesPerSecond);
    while (static_cast<double>(next_frame_) / kFramesPerSecond <= elapsed) {
        const uint64_t n = next_frame_;
        const uint32_t size = frame_bytes(n);
        const bool key = n % gop == 0;
        if (used_ + size > kClusterBytes || (key && frame_count_ == RECSTORE_MAX_KFRAMES)) {
            if (!hand_over(sink)) return false;
        }
        const uint32_t t =
            static_cast<uint32_t>(start_ + static_cast<time_t>(n / kFramesPerSecond));
        unsigned char *p = cluster_.data() + used_;
        recstore::le32_store(p, key ? kKeyFrameMagic : kDeltaFrameMagic);
        recstore::le32_store(p + 4, static_cast<uint32_t>(profile_.channel));
        recstore::le32_store(p + 8, static_cast<uint32_t>(n));
        recstore::le32_store(p + 12, size);
        recstore::le32_store(p + 16, t);
        fill_body(p + kFrameHeaderBytes, size - kFrameHeaderBytes,
                  static_cast<uint32_t>(profile_.channel), static_cast<uint32_t>(n));
        if (key) {
            frames_[frame_count_].frame_offset = used_;
            frames_[frame_count_].frame_time = t;
            frame_count_++;
            key_frames_++;
        }
        used_ += size;
        next_frame_++;
    }
    return true;
}

bool StreamWriter::flush(const ClusterSink &sink) {
    return hand_over(sink);
}

bool read_frame_header(const unsigned char *buf, uint32_t length, FrameHeader *out) {
    if (length < kFrameHeaderBytes) return false;
    out->magic = recstore::le32_load(buf);
    out->channel = recstore::le32_load(buf + 4);
    out->number = recstore::le32_load(buf + 8);
    out->bytes = recstore::le32_load(buf + 12);
    out->time = recstore::le32_load(buf + 16);
    return (out->magic == kKeyFrameMagic || out->magic == kDeltaFrameMagic) &&
           out->bytes >= kFrameHeaderBytes && out->bytes <= length;
}

bool verify_cluster(const unsigned char *buf, uint32_t length, const kframe *frames, uint32_t count,
                    int channel, VerifyStats *stats, std::string *error) {
    FrameHeader h;
    if (length > kClusterBytes || count > RECSTORE_MAX_KFRAMES) {
        *error = "cluster length " + std::to_string(length) + " or key frames " +
                 std::to_string(count) + " out of range";
        stats->bad_clusters++;
        return false;
    }
    stats->clusters++;
    stats->bytes += length;
    if (!read_frame_header(buf, length, &h)) {
        stats->foreign_clusters++;
        return true;
    }
    uint32_t at = 0;
    uint32_t keys_seen = 0;
    while (at < length) {
        if (!read_frame_header(buf + at, length - at, &h) ||
            (channel >= 0 && h.channel != static_cast<uint32_t>(channel)) ||
            !body_matches(buf + at + kFrameHeaderBytes, h.bytes - kFrameHeaderBytes, h.channel,
                          h.number)) {
            *error = "frame at offset " + std::to_string(at) + " differs from what was written";
            stats->bad_clusters++;
            return false;
        }
        if (h.magic == kKeyFrameMagic) {
            if (keys_seen >= count || frames[keys_seen].frame_offset != at ||
                frames[keys_seen].frame_time != h.time) {
                *error = "key frame at offset " + std::to_string(at) +
                         " is not in the cluster's key-frame table";
                stats->bad_clusters++;
                return false;
            }
            keys_seen++;
            stats->key_frames++;
        }
        if (stats->first_time == 0) stats->first_time = h.time;
        stats->last_time = h.time;
        stats->frames++;
        at += h.bytes;
    }
    if (keys_seen != count) {
        *error = "the key-frame table lists " + std::to_string(count) +
                 " key frames, the cluster holds " + std::to_string(keys_seen);
        stats->bad_clusters++;
        return false;
    }
    return true;
}

}  // namespace tool
