// SPDX-License-Identifier: MIT
// Record-info on-disk format: the layout constants of the index-file header in its two forms
// (the 896-byte version-1 header and the current 8336-byte header with its optional 2048-byte
// extension area) and of the 204-byte index entry, plus the inline codecs between those bytes
// and the in-memory records. Everything on disk is little-endian and encoded byte by byte, so the
// same bytes come out on every platform.
#ifndef RECSTORE_FSTYPE_OLD_H
#define RECSTORE_FSTYPE_OLD_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "fs_tools.h"  // from_fs_tm, the broken-down time conversion
#include "recstore.h"

namespace recstore {

constexpr int kRecordInfoSize = 8336;      // current header without extension
constexpr int kExtAreaSize = 2048;         // extension area after the current header
constexpr int kRecordInfoExtSize = 10384;  // current header with extension area
constexpr int kRecordInfoV1Size = 896;     // version-1 header
constexpr int kIndexEntrySize = 204;       // one index entry
constexpr int kEntryHeadSize = 12;         // cluster id, length, frame count
constexpr int kMaxKframes = RECSTORE_MAX_KFRAMES;
constexpr int kFramesSize = kMaxKframes * 8;  // 192
constexpr int kMaxAlarms = RECSTORE_MAX_ALARMS;
constexpr int kAlarmSize = 136;   // current layout alarm record
constexpr int kAlarmV1Size = 12;  // version-1 alarm record
constexpr int kMaxExtLen = RECSTORE_EXT_MAX_LEN;
constexpr uint32_t kExtMagic = RECSTORE_EXT_MAGIC;
constexpr const char *kVersion1 = "1.0.0.2";  // the only version with the 896-byte header

// Byte offsets of the current header (identical to the fields of recordinfo).
constexpr int kOffDiskId = 0;
constexpr int kOffBlockId = 4;
constexpr int kOffChannel = 8;
constexpr int kOffStart = 12;
constexpr int kOffEnd = 56;
constexpr int kOffMode = 100;
constexpr int kOffOpenFlags = 104;
constexpr int kOffEntryCount = 108;
constexpr int kOffTotalBytes = 112;
constexpr int kOffFrameCount = 120;
constexpr int kOffAlarmCount = 124;
constexpr int kOffAlarms = 128;
constexpr int kOffAttrA = 8288;
constexpr int kOffAttrB = 8290;
constexpr int kOffAttrC = 8292;
constexpr int kOffType = 8296;
constexpr int kOffAttrD = 8300;
constexpr int kOffExtMagic = 8304;
constexpr int kOffExtType = 8308;
constexpr int kOffExtLen = 8312;
constexpr int kOffReserved = 8316;
constexpr int kReservedSize = 20;

// Byte offsets of the version-1 header where they differ from the current one.
constexpr int kV1OffAttrA = 848;
constexpr int kV1OffAttrB = 850;
constexpr int kV1OffAttrC = 852;
constexpr int kV1OffReserved = 856;
constexpr int kV1ReservedSize = 40;

static_assert(sizeof(kframe) == 8, "a key-frame descriptor is two words");
static_assert(sizeof(record_alarm) == kAlarmSize, "an alarm record is 136 bytes");
static_assert(sizeof(index_entry) == kIndexEntrySize, "an index entry is 204 bytes");
static_assert(offsetof(index_entry, frames) == kEntryHeadSize, "entry head is three words");
static_assert(sizeof(recordinfo) == kRecordInfoSize, "recordinfo is the 8336-byte header");
static_assert(offsetof(recordinfo, disk_id) == kOffDiskId, "recordinfo layout");
static_assert(offsetof(recordinfo, block_id) == kOffBlockId, "recordinfo layout");
static_assert(offsetof(recordinfo, channel) == kOffChannel, "recordinfo layout");
static_assert(offsetof(recordinfo, start_time) == kOffStart, "recordinfo layout");
static_assert(offsetof(recordinfo, end_time) == kOffEnd, "recordinfo layout");
static_assert(offsetof(recordinfo, mode) == kOffMode, "recordinfo layout");
static_assert(offsetof(recordinfo, open_flags) == kOffOpenFlags, "recordinfo layout");
static_assert(offsetof(recordinfo, entry_count) == kOffEntryCount, "recordinfo layout");
static_assert(offsetof(recordinfo, total_bytes) == kOffTotalBytes, "recordinfo layout");
static_assert(offsetof(recordinfo, frame_count) == kOffFrameCount, "recordinfo layout");
static_assert(offsetof(recordinfo, alarm_count) == kOffAlarmCount, "recordinfo layout");
static_assert(offsetof(recordinfo, alarms) == kOffAlarms, "recordinfo layout");
static_assert(offsetof(recordinfo, attr_a) == kOffAttrA, "recordinfo layout");
static_assert(offsetof(recordinfo, attr_b) == kOffAttrB, "recordinfo layout");
static_assert(offsetof(recordinfo, attr_c) == kOffAttrC, "recordinfo layout");
static_assert(offsetof(recordinfo, type) == kOffType, "recordinfo layout");
static_assert(offsetof(recordinfo, attr_d) == kOffAttrD, "recordinfo layout");
static_assert(offsetof(recordinfo, ext_magic) == kOffExtMagic, "recordinfo layout");
static_assert(offsetof(recordinfo, ext_type) == kOffExtType, "recordinfo layout");
static_assert(offsetof(recordinfo, ext_len) == kOffExtLen, "recordinfo layout");
static_assert(offsetof(recordinfo, reserved) == kOffReserved, "recordinfo layout");
static_assert(kOffAlarms + kMaxAlarms * kAlarmSize == kOffAttrA, "alarms end at attr_a");
static_assert(kOffAlarms + kMaxAlarms * kAlarmV1Size == kV1OffAttrA, "v1 alarms end at 848");
static_assert(kV1OffReserved + kV1ReservedSize == kRecordInfoV1Size, "v1 header is 896 bytes");
static_assert(kRecordInfoSize + kExtAreaSize == kRecordInfoExtSize, "extension area size");

// Alarm record of the version-1 header (12 bytes on disk).
struct alarm_v1 {
    uint32_t alarm_a;  // first alarm word
    uint32_t alarm_b;  // second alarm word
    uint32_t value;    // the alarm value of the recording's channel
};

// Staging record of the version-1 header: its fields in on-disk order.
struct recordinfo_v1 {
    uint32_t disk_id;                   // disk of the recording
    uint32_t block_id;                  // data block the recording was created in
    uint32_t channel;                   // channel number
    fs_tm start_time;                   // start of the recording
    fs_tm end_time;                     // time of the latest frame written
    uint32_t mode;                      // attribute word
    uint32_t open_flags;                // open(2) flags of the last open
    uint32_t entry_count;               // index entries written
    uint64_t total_bytes;               // sum of the payload lengths
    uint32_t frame_count;               // sum of the key-frame counts
    uint32_t alarm_count;               // alarms used
    alarm_v1 alarms[kMaxAlarms];        // alarm records
    uint16_t attr_a;                    // creation attribute
    uint16_t attr_b;                    // creation attribute
    uint32_t attr_c;                    // creation attribute
    uint8_t reserved[kV1ReservedSize];  // written as zeros
};

// ---- times -----------------------------------------------------------------------------------

// Nine words of the broken-down time, then two zero words (the stored form is always clean).
inline void put_fs_tm(uint8_t *p, const fs_tm &t) {
    const int32_t words[9] = {t.tm_sec,  t.tm_min,  t.tm_hour, t.tm_mday, t.tm_mon,
                              t.tm_year, t.tm_wday, t.tm_yday, t.tm_isdst};
    for (int i = 0; i < 9; ++i) le32_store(p + 4 * i, static_cast<uint32_t>(words[i]));
    le32_store(p + 36, 0);
    le32_store(p + 40, 0);
}
inline fs_tm get_fs_tm(const uint8_t *p) {
    fs_tm t{};
    int32_t *words[9] = {&t.tm_sec,  &t.tm_min,  &t.tm_hour, &t.tm_mday, &t.tm_mon,
                         &t.tm_year, &t.tm_wday, &t.tm_yday, &t.tm_isdst};
    for (int i = 0; i < 9; ++i) *words[i] = static_cast<int32_t>(le32_load(p + 4 * i));
    return t;
}
// struct tm with every member cleared, then the nine stored fields.
inline struct tm tm_of(const fs_tm &t) {
    struct tm out {};
    from_fs_tm(&out, &t);
    return out;
}
// True when seconds through year are all zero: the end time of a recording without frames.
inline bool fs_tm_unset(const fs_tm &t) {
    return t.tm_sec == 0 && t.tm_min == 0 && t.tm_hour == 0 && t.tm_mday == 0 && t.tm_mon == 0 &&
           t.tm_year == 0;
}

// ---- current header --------------------------------------------------------------------------

// Fills the 8336-byte current header from the in-memory record.
inline void rec_info_to_inner(const recordinfo *in, uint8_t *out) {
    le32_store(out + kOffDiskId, in->disk_id);
    le32_store(out + kOffBlockId, in->block_id);
    le32_store(out + kOffChannel, in->channel);
    put_fs_tm(out + kOffStart, in->start_time);
    put_fs_tm(out + kOffEnd, in->end_time);
    le32_store(out + kOffMode, in->mode);
    le32_store(out + kOffOpenFlags, in->open_flags);
    le32_store(out + kOffEntryCount, in->entry_count);
    le64_store(out + kOffTotalBytes, in->total_bytes);
    le32_store(out + kOffFrameCount, in->frame_count);
    le32_store(out + kOffAlarmCount, static_cast<uint32_t>(in->alarm_count));
    for (int i = 0; i < kMaxAlarms; ++i) {
        uint8_t *a = out + kOffAlarms + i * kAlarmSize;
        le32_store(a, in->alarms[i].alarm_a);
        le32_store(a + 4, in->alarms[i].alarm_b);
        memcpy(a + 8, in->alarms[i].alarm_data, RECSTORE_ALARM_DATA);
    }
    le16_store(out + kOffAttrA, in->attr_a);
    le16_store(out + kOffAttrB, in->attr_b);
    le32_store(out + kOffAttrC, in->attr_c);
    le32_store(out + kOffType, in->type);
    le32_store(out + kOffAttrD, in->attr_d);
    le32_store(out + kOffExtMagic, in->ext_magic);
    le32_store(out + kOffExtType, in->ext_type);
    le32_store(out + kOffExtLen, in->ext_len);
    memcpy(out + kOffReserved, in->reserved, kReservedSize);
}

// The fields both header layouts keep at the same offsets, from the disk id to the alarm count.
inline void decode_head_fields(const uint8_t *in, recordinfo *out) {
    out->disk_id = le32_load(in + kOffDiskId);
    out->block_id = le32_load(in + kOffBlockId);
    out->channel = le32_load(in + kOffChannel);
    out->start_time = get_fs_tm(in + kOffStart);
    out->end_time = get_fs_tm(in + kOffEnd);
    out->mode = le32_load(in + kOffMode);
    out->open_flags = le32_load(in + kOffOpenFlags);
    out->entry_count = le32_load(in + kOffEntryCount);
    out->total_bytes = le64_load(in + kOffTotalBytes);
    out->frame_count = le32_load(in + kOffFrameCount);
    out->alarm_count = static_cast<int32_t>(le32_load(in + kOffAlarmCount));
}

// Fills every field of the record from an 8336-byte current header.
inline void inner_to_rec_info(const uint8_t *in, recordinfo *out) {
    decode_head_fields(in, out);
    for (int i = 0; i < kMaxAlarms; ++i) {
        const uint8_t *a = in + kOffAlarms + i * kAlarmSize;
        out->alarms[i].alarm_a = le32_load(a);
        out->alarms[i].alarm_b = le32_load(a + 4);
        memcpy(out->alarms[i].alarm_data, a + 8, RECSTORE_ALARM_DATA);
    }
    out->attr_a = le16_load(in + kOffAttrA);
    out->attr_b = le16_load(in + kOffAttrB);
    out->attr_c = le32_load(in + kOffAttrC);
    out->type = le32_load(in + kOffType);
    out->attr_d = le32_load(in + kOffAttrD);
    out->ext_magic = le32_load(in + kOffExtMagic);
    out->ext_type = le32_load(in + kOffExtType);
    out->ext_len = le32_load(in + kOffExtLen);
    memcpy(out->reserved, in + kOffReserved, kReservedSize);
}

// ---- version-1 header ------------------------------------------------------------------------

// Byte position, inside a recordinfo, of 32-bit word `word` of alarm `alarm`'s data. The data
// area holds 32 words; larger word numbers reach into the following alarm records.
inline size_t alarm_word_pos(int alarm, uint32_t word) {
    return static_cast<size_t>(kOffAlarms) + static_cast<size_t>(alarm) * kAlarmSize + 8u +
           4u * static_cast<size_t>(word);
}
// True when that word still lies inside the alarm records (never past the last alarm).
inline bool alarm_word_fits(int alarm, uint32_t word) {
    return word < RECSTORE_MAX_CHANNELS && alarm_word_pos(alarm, word) + 4 <= kOffAttrA;
}

// Stages the record into version-1 order. The alarm value of each alarm is data word `channel`
// (zero for channels of 64 or more, and where that word would lie past the last alarm).
inline void rec_info_to_v1(const recordinfo *in, recordinfo_v1 *out) {
    memset(out, 0, sizeof *out);
    out->disk_id = in->disk_id;
    out->block_id = in->block_id;
    out->channel = in->channel;
    out->start_time = in->start_time;
    out->end_time = in->end_time;
    out->mode = in->mode;
    out->open_flags = in->open_flags;
    out->entry_count = in->entry_count;
    out->total_bytes = in->total_bytes;
    out->frame_count = in->frame_count;
    out->alarm_count = static_cast<uint32_t>(in->alarm_count);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(in);
    for (int i = 0; i < kMaxAlarms; ++i) {
        out->alarms[i].alarm_a = in->alarms[i].alarm_a;
        out->alarms[i].alarm_b = in->alarms[i].alarm_b;
        if (alarm_word_fits(i, in->channel)) {
            uint32_t v;
            memcpy(&v, bytes + alarm_word_pos(i, in->channel), 4);
            out->alarms[i].value = v;
        }
    }
    out->attr_a = in->attr_a;
    out->attr_b = in->attr_b;
    out->attr_c = in->attr_c;
}

// Fills an 896-byte version-1 header from the staging record (reserved bytes zero).
inline void rec_info_v1_to_inner(const recordinfo_v1 *in, uint8_t *out) {
    memset(out, 0, kRecordInfoV1Size);
    le32_store(out + kOffDiskId, in->disk_id);
    le32_store(out + kOffBlockId, in->block_id);
    le32_store(out + kOffChannel, in->channel);
    put_fs_tm(out + kOffStart, in->start_time);
    put_fs_tm(out + kOffEnd, in->end_time);
    le32_store(out + kOffMode, in->mode);
    le32_store(out + kOffOpenFlags, in->open_flags);
    le32_store(out + kOffEntryCount, in->entry_count);
    le64_store(out + kOffTotalBytes, in->total_bytes);
    le32_store(out + kOffFrameCount, in->frame_count);
    le32_store(out + kOffAlarmCount, in->alarm_count);
    for (int i = 0; i < kMaxAlarms; ++i) {
        uint8_t *a = out + kOffAlarms + i * kAlarmV1Size;
        le32_store(a, in->alarms[i].alarm_a);
        le32_store(a + 4, in->alarms[i].alarm_b);
        le32_store(a + 8, in->alarms[i].value);
    }
    le16_store(out + kV1OffAttrA, in->attr_a);
    le16_store(out + kV1OffAttrB, in->attr_b);
    le32_store(out + kV1OffAttrC, in->attr_c);
}

// Decodes an 896-byte version-1 header into the record. type, attr_d, the extension words and
// the reserved bytes stay as the caller had them. Each alarm value goes to data word `channel`;
// for channels 32 to 63 that is a word of the following alarm record. A value that would land
// past the last alarm record is dropped; the result is false when that happened.
inline bool inner_v1_to_rec_info(const uint8_t *in, recordinfo *out) {
    decode_head_fields(in, out);
    out->attr_a = le16_load(in + kV1OffAttrA);
    out->attr_b = le16_load(in + kV1OffAttrB);
    out->attr_c = le32_load(in + kV1OffAttrC);
    bool all_stored = true;
    uint8_t *bytes = reinterpret_cast<uint8_t *>(out);
    for (int i = 0; i < kMaxAlarms; ++i) {
        const uint8_t *a = in + kOffAlarms + i * kAlarmV1Size;
        out->alarms[i].alarm_a = le32_load(a);
        out->alarms[i].alarm_b = le32_load(a + 4);
        if (out->channel >= RECSTORE_MAX_CHANNELS) continue;
        if (!alarm_word_fits(i, out->channel)) {
            all_stored = false;
            continue;
        }
        const uint32_t v = le32_load(a + 8);
        memcpy(bytes + alarm_word_pos(i, out->channel), &v, 4);
    }
    return all_stored;
}

// ---- index entry -----------------------------------------------------------------------------

inline void entry_head_to_inner(uint32_t cluster_id, uint32_t length, uint32_t count,
                                uint8_t *out) {
    le32_store(out, cluster_id);
    le32_store(out + 4, length);
    le32_store(out + 8, count);
}
inline void frames_to_inner(const kframe *frames, uint8_t *out) {
    for (int i = 0; i < kMaxKframes; ++i) {
        le32_store(out + 8 * i, frames[i].frame_offset);
        le32_store(out + 8 * i + 4, frames[i].frame_time);
    }
}
inline void inner_to_frames(const uint8_t *in, kframe *frames) {
    for (int i = 0; i < kMaxKframes; ++i) {
        frames[i].frame_offset = le32_load(in + 8 * i);
        frames[i].frame_time = le32_load(in + 8 * i + 4);
    }
}

// One entry from its head (cluster id, length, key-frame count) and its key-frame table, the
// inverse of entry_head_to_inner and frames_to_inner.
inline void decode_entry(const uint8_t *head, const uint8_t *table, uint32_t *cluster_id,
                         uint32_t *length, uint32_t *frame_count, kframe *frames) {
    *cluster_id = le32_load(head);
    *length = le32_load(head + 4);
    *frame_count = le32_load(head + 8);
    inner_to_frames(table, frames);
}

}  // namespace recstore

#endif
