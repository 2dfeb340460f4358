// Record-info format: golden bytes of the current and version-1 headers and of the index entry,
// the header sizes by disk version, and the extension words.
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "capture.h"
#include "fstype_old.h"
#include "recstore.h"

using namespace recstore;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

fs_tm make_time(int base) {
    fs_tm t{};
    t.tm_sec = base + 1;
    t.tm_min = base + 2;
    t.tm_hour = base + 3;
    t.tm_mday = base + 4;
    t.tm_mon = base + 5;
    t.tm_year = base + 6;
    t.tm_wday = base + 7;
    t.tm_yday = base + 8;
    t.tm_isdst = base + 9;
    t.zero[0] = 0x55;  // never reaches the disk
    t.zero[1] = 0x66;
    return t;
}

// A record whose every field holds a distinct value.
recordinfo sample_record() {
    recordinfo r;
    memset(&r, 0, sizeof r);
    r.disk_id = 3;
    r.block_id = 0x11223344;
    r.channel = 5;
    r.start_time = make_time(10);
    r.end_time = make_time(20);
    r.mode = 0xA1A2A3A4;
    r.open_flags = 0x42;
    r.entry_count = 77;
    r.total_bytes = 0x0102030405060708ull;
    r.frame_count = 999;
    r.alarm_count = 2;
    for (int i = 0; i < kMaxAlarms; ++i) {
        r.alarms[i].alarm_a = 0x1000u + static_cast<uint32_t>(i);
        r.alarms[i].alarm_b = 0x2000u + static_cast<uint32_t>(i);
        for (int j = 0; j < RECSTORE_ALARM_DATA; ++j)
            r.alarms[i].alarm_data[j] = static_cast<uint8_t>(i + j);
    }
    r.attr_a = 0xBEEF;
    r.attr_b = 0xCAFE;
    r.attr_c = 0xDEADBEEF;
    r.type = 9;
    r.attr_d = 0x0BADF00D;
    r.ext_magic = RECSTORE_EXT_MAGIC;
    r.ext_type = 0x77;
    r.ext_len = 64;
    for (int i = 0; i < 20; ++i) r.reserved[i] = static_cast<uint8_t>(0xF0 + i);
    return r;
}

void expect_time_at(const std::vector<uint8_t> &b, size_t off, int base) {
    for (int w = 0; w < 9; ++w)
        EXPECT_EQ(le32_load(b.data() + off + 4 * w), static_cast<uint32_t>(base + 1 + w));
    EXPECT_EQ(le32_load(b.data() + off + 36), 0u) << "stored times end with two zero words";
    EXPECT_EQ(le32_load(b.data() + off + 40), 0u);
}

}  // namespace

TEST(FstypeOld, RecordLayoutSizes) {
    EXPECT_EQ(sizeof(recordinfo), 8336u);
    EXPECT_EQ(offsetof(recordinfo, type), 8296u);
    EXPECT_EQ(offsetof(recordinfo, ext_magic), 8304u);
    EXPECT_EQ(sizeof(index_entry), 204u);
    EXPECT_EQ(sizeof(record_alarm), 136u);
    EXPECT_EQ(sizeof(recordinfo_v1), 896u);
    EXPECT_EQ(offsetof(recordinfo_v1, attr_a), 848u);
}

TEST(FstypeOld, CurrentHeaderGoldenBytes) {
    const recordinfo r = sample_record();
    std::vector<uint8_t> b(kRecordInfoSize, 0xEE);
    rec_info_to_inner(&r, b.data());
    EXPECT_EQ(le32_load(b.data()), 3u);
    EXPECT_EQ(le32_load(b.data() + 4), 0x11223344u);
    EXPECT_EQ(le32_load(b.data() + 8), 5u);
    expect_time_at(b, 12, 10);
    expect_time_at(b, 56, 20);
    EXPECT_EQ(le32_load(b.data() + 100), 0xA1A2A3A4u);
    EXPECT_EQ(le32_load(b.data() + 104), 0x42u);
    EXPECT_EQ(le32_load(b.data() + 108), 77u);
    EXPECT_EQ(le64_load(b.data() + 112), 0x0102030405060708ull);
    EXPECT_EQ(b[112], 0x08) << "little-endian";
    EXPECT_EQ(le32_load(b.data() + 120), 999u);
    EXPECT_EQ(le32_load(b.data() + 124), 2u);
    for (int i : {0, 1, 30, 59}) {
        const size_t a = 128 + 136 * static_cast<size_t>(i);
        EXPECT_EQ(le32_load(b.data() + a), 0x1000u + static_cast<uint32_t>(i));
        EXPECT_EQ(le32_load(b.data() + a + 4), 0x2000u + static_cast<uint32_t>(i));
        EXPECT_EQ(b[a + 8], static_cast<uint8_t>(i));
        EXPECT_EQ(b[a + 8 + 127], static_cast<uint8_t>(i + 127));
    }
    EXPECT_EQ(le16_load(b.data() + 8288), 0xBEEF);
    EXPECT_EQ(le16_load(b.data() + 8290), 0xCAFE);
    EXPECT_EQ(le32_load(b.data() + 8292), 0xDEADBEEFu);
    EXPECT_EQ(le32_load(b.data() + 8296), 9u);
    EXPECT_EQ(le32_load(b.data() + 8300), 0x0BADF00Du);
    EXPECT_EQ(le32_load(b.data() + 8304), 0x5a7c36d8u);
    EXPECT_EQ(b[8304], 0xd8);
    EXPECT_EQ(le32_load(b.data() + 8308), 0x77u);
    EXPECT_EQ(le32_load(b.data() + 8312), 64u);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(b[8316 + static_cast<size_t>(i)], static_cast<uint8_t>(0xF0 + i));
}

TEST(FstypeOld, CurrentHeaderRoundTrip) {
    const recordinfo r = sample_record();
    std::vector<uint8_t> b(kRecordInfoSize);
    rec_info_to_inner(&r, b.data());
    recordinfo back;
    memset(&back, 0xAB, sizeof back);
    inner_to_rec_info(b.data(), &back);
    recordinfo want = r;
    want.start_time.zero[0] = want.start_time.zero[1] = 0;
    want.end_time.zero[0] = want.end_time.zero[1] = 0;
    EXPECT_EQ(memcmp(&back, &want, sizeof want), 0);
}

TEST(FstypeOld, Version1GoldenBytes) {
    recordinfo r = sample_record();
    // Alarm value of channel 5: data word 5 of each alarm.
    for (int i = 0; i < kMaxAlarms; ++i) {
        const uint32_t v = 0xA0000000u + static_cast<uint32_t>(i);
        memcpy(r.alarms[i].alarm_data + 4 * 5, &v, 4);
    }
    recordinfo_v1 staged;
    rec_info_to_v1(&r, &staged);
    std::vector<uint8_t> b(kRecordInfoV1Size, 0xEE);
    rec_info_v1_to_inner(&staged, b.data());
    EXPECT_EQ(le32_load(b.data()), 3u);
    EXPECT_EQ(le32_load(b.data() + 4), 0x11223344u);
    EXPECT_EQ(le32_load(b.data() + 8), 5u);
    expect_time_at(b, 12, 10);
    expect_time_at(b, 56, 20);
    EXPECT_EQ(le32_load(b.data() + 100), 0xA1A2A3A4u);
    EXPECT_EQ(le32_load(b.data() + 104), 0x42u);
    EXPECT_EQ(le32_load(b.data() + 108), 77u);
    EXPECT_EQ(le64_load(b.data() + 112), 0x0102030405060708ull);
    EXPECT_EQ(le32_load(b.data() + 120), 999u);
    EXPECT_EQ(le32_load(b.data() + 124), 2u);
    for (int i : {0, 1, 59}) {
        const size_t a = 128 + 12 * static_cast<size_t>(i);
        EXPECT_EQ(le32_load(b.data() + a), 0x1000u + static_cast<uint32_t>(i));
        EXPECT_EQ(le32_load(b.data() + a + 4), 0x2000u + static_cast<uint32_t>(i));
        EXPECT_EQ(le32_load(b.data() + a + 8), 0xA0000000u + static_cast<uint32_t>(i));
    }
    EXPECT_EQ(le16_load(b.data() + 848), 0xBEEF);
    EXPECT_EQ(le16_load(b.data() + 850), 0xCAFE);
    EXPECT_EQ(le32_load(b.data() + 852), 0xDEADBEEFu);
    for (size_t i = 856; i < 896; ++i) EXPECT_EQ(b[i], 0) << "reserved byte " << i;
}

TEST(FstypeOld, Version1DecodeKeepsCallerFields) {
    recordinfo r = sample_record();
    recordinfo_v1 staged;
    rec_info_to_v1(&r, &staged);
    staged.alarms[3].value = 0x12345678;
    std::vector<uint8_t> b(kRecordInfoV1Size);
    rec_info_v1_to_inner(&staged, b.data());

    recordinfo out;
    memset(&out, 0, sizeof out);
    out.type = 44;
    out.attr_d = 55;
    EXPECT_TRUE(inner_v1_to_rec_info(b.data(), &out));
    EXPECT_EQ(out.type, 44u);
    EXPECT_EQ(out.attr_d, 55u);
    EXPECT_EQ(out.ext_magic, 0u);
    EXPECT_EQ(out.channel, 5u);
    EXPECT_EQ(out.attr_c, 0xDEADBEEFu);
    EXPECT_EQ(out.alarms[3].alarm_a, 0x1003u);
    uint32_t v;
    memcpy(&v, out.alarms[3].alarm_data + 4 * 5, 4);
    EXPECT_EQ(v, 0x12345678u);
}

TEST(FstypeOld, Version1HighChannelReachesNextAlarmButNotPastTheLast) {
    std::vector<uint8_t> b(kRecordInfoV1Size, 0);
    le32_store(b.data() + 8, 40);  // channel 40: word 40 lies in the next alarm's words
    for (int i = 0; i < kMaxAlarms; ++i) le32_store(b.data() + 128 + 12 * i + 8, 0x100u + i);
    le16_store(b.data() + 848, 0x1234);
    recordinfo out;
    memset(&out, 0, sizeof out);
    EXPECT_FALSE(inner_v1_to_rec_info(b.data(), &out)) << "the last alarm's value is dropped";
    // Alarm 0's value lands in alarm 1: data word 40 of alarm 0 is byte 160 of its data; after
    // its 128 data bytes come alarm 1's two words (8 bytes), so it is byte 24 of alarm 1's data.
    uint32_t v;
    memcpy(&v, out.alarms[1].alarm_data + 24, 4);
    EXPECT_EQ(v, 0x100u);
    memcpy(&v, out.alarms[59].alarm_data + 24, 4);
    EXPECT_EQ(v, 0x100u + 58);
    EXPECT_EQ(out.attr_a, 0x1234) << "nothing written into the words after the alarms";
    EXPECT_EQ(out.attr_b, 0);
    EXPECT_EQ(out.attr_c, 0u);
    EXPECT_EQ(out.type, 0u);

    // Staging reads the same words back, and zero for the last alarm.
    recordinfo_v1 staged;
    rec_info_to_v1(&out, &staged);
    EXPECT_EQ(staged.alarms[0].value, 0x100u);
    EXPECT_EQ(staged.alarms[58].value, 0x100u + 58);
    EXPECT_EQ(staged.alarms[59].value, 0u);
}

TEST(FstypeOld, Version1ChannelAbove63StoresNoAlarmValue) {
    std::vector<uint8_t> b(kRecordInfoV1Size, 0);
    le32_store(b.data() + 8, 64);
    for (int i = 0; i < kMaxAlarms; ++i) le32_store(b.data() + 128 + 12 * i + 8, 0xFFFFFFFFu);
    recordinfo out;
    memset(&out, 0, sizeof out);
    EXPECT_TRUE(inner_v1_to_rec_info(b.data(), &out));
    for (int i = 0; i < kMaxAlarms; ++i)
        for (int j = 0; j < RECSTORE_ALARM_DATA; ++j) ASSERT_EQ(out.alarms[i].alarm_data[j], 0);
}

TEST(FstypeOld, EntryGoldenBytes) {
    kframe frames[kMaxKframes];
    for (int i = 0; i < kMaxKframes; ++i) {
        frames[i].frame_offset = 0x100u * static_cast<uint32_t>(i);
        frames[i].frame_time = 1700000000u + static_cast<uint32_t>(i);
    }
    std::vector<uint8_t> b(kIndexEntrySize);
    entry_head_to_inner(0x00ABCDEF, 524288, 24, b.data());
    frames_to_inner(frames, b.data() + 12);
    EXPECT_EQ(le32_load(b.data()), 0x00ABCDEFu);
    EXPECT_EQ(le32_load(b.data() + 4), 524288u);
    EXPECT_EQ(le32_load(b.data() + 8), 24u);
    EXPECT_EQ(le32_load(b.data() + 12), 0u);
    EXPECT_EQ(le32_load(b.data() + 16), 1700000000u);
    EXPECT_EQ(le32_load(b.data() + 12 + 23 * 8), 0x1700u);
    EXPECT_EQ(le32_load(b.data() + 12 + 23 * 8 + 4), 1700000023u);
    kframe back[kMaxKframes];
    inner_to_frames(b.data() + 12, back);
    EXPECT_EQ(memcmp(back, frames, sizeof frames), 0);
}

TEST(FstypeOld, HeaderSizeByDiskVersion) {
    g_magic[0] = RECSTORE_MAGIC_V1;
    g_magic[1] = RECSTORE_MAGIC_V7;
    g_magic[2] = RECSTORE_MAGIC_V5;
    g_magic[3] = 0x12345678;
    EXPECT_EQ(sizeof_recordinfo_disk(0), 896);
    EXPECT_EQ(sizeof_recordinfo_disk(1), 8336);
    EXPECT_EQ(sizeof_recordinfo_disk(2), 8336);
    EXPECT_EQ(sizeof_recordinfo_disk(3), 8336) << "unknown versions use the current layout";

    recordinfo r;
    memset(&r, 0, sizeof r);
    r.disk_id = 0;
    EXPECT_EQ(sizeof_recordinfo(&r), 896);
    r.disk_id = 1;
    EXPECT_EQ(sizeof_recordinfo(&r), 8336);
    r.ext_magic = RECSTORE_EXT_MAGIC;
    r.ext_len = 6;
    EXPECT_EQ(sizeof_recordinfo(&r), 10384) << "whatever ext_len is";
    r.disk_id = 0;
    EXPECT_EQ(sizeof_recordinfo(&r), 10384);
    for (int i = 0; i < 4; ++i) g_magic[i] = 0;
}

TEST(FstypeOld, HeaderSizeRefusals) {
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(sizeof_recordinfo_disk(8), 8336);
    EXPECT_EQ(sizeof_recordinfo_disk(-1), 8336);
    EXPECT_EQ(sizeof_recordinfo(nullptr), 8336);
    recordinfo r;
    memset(&r, 0, sizeof r);
    r.disk_id = 0xFFFFFFFFu;
    EXPECT_EQ(sizeof_recordinfo(&r), 8336);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("sizeof_recordinfo disk id:8"), std::string::npos) << out;
    EXPECT_NE(out.find("sizeof_recordinfo disk id:-1"), std::string::npos) << out;
    EXPECT_NE(out.find("NULL ptr"), std::string::npos) << out;
}

TEST(FstypeOld, ExtensionWords) {
    LogMask mask(0x3);
    recordinfo r;
    memset(&r, 0, sizeof r);
    {
        StdoutCapture cap;
        do_ext_fill(&r, 5, 2049);
        do_ext_fill(&r, 5, 0);
        do_ext_fill(nullptr, 5, 8);
        EXPECT_EQ(do_ext_get_len(&r), -1);
        EXPECT_EQ(do_ext_get_len(nullptr), -1);
        const std::string out = cap.stop();
        EXPECT_NE(out.find("extlen:2049"), std::string::npos) << out;
        EXPECT_NE(out.find("extlen:0"), std::string::npos) << out;
        EXPECT_NE(out.find("nullptr"), std::string::npos) << out;
        EXPECT_NE(out.find("magic:0x0 have no ext"), std::string::npos) << out;
    }
    EXPECT_EQ(r.ext_magic, 0u) << "a refused length changes nothing";
    do_ext_fill(&r, 5, 2048);
    EXPECT_EQ(r.ext_magic, RECSTORE_EXT_MAGIC);
    EXPECT_EQ(r.ext_type, 5u);
    EXPECT_EQ(do_ext_get_len(&r), 2048);
    r.ext_len = 6;
    StdoutCapture cap;
    EXPECT_EQ(do_ext_get_len(&r), 6) << "an unaligned length is still used";
    EXPECT_NE(cap.stop().find("len:6 must be align to 4"), std::string::npos);
}

TEST(FstypeOld, CopyExtension) {
    handle_slot slot{-1, 0, 0, nullptr, nullptr};
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    do_index_copy_ext(data, 0, &slot);
    EXPECT_EQ(slot.ext, nullptr);
    do_index_copy_ext(data, 2049, &slot);
    EXPECT_EQ(slot.ext, nullptr);
    do_index_copy_ext(nullptr, 8, &slot);
    EXPECT_EQ(slot.ext, nullptr);
    do_index_copy_ext(data, 8, nullptr);
    do_index_copy_ext(data, 8, &slot);
    ASSERT_NE(slot.ext, nullptr);
    EXPECT_EQ(memcmp(slot.ext, data, 8), 0);
    do_index_copy_ext(data + 4, 4, &slot);  // replaces the previous copy
    EXPECT_EQ(memcmp(slot.ext, data + 4, 4), 0);
    free(slot.ext);
}
