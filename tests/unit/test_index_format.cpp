// SPDX-License-Identifier: MIT
// Record-info headers and index entries on real (temporary) files: header sizes and golden
// bytes, the extension rules, reading back, entries and end-time tracking, the handle checks,
// and the repair of a header that its writer never finalised (including a writer killed between
// two entries).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "fstype_old.h"
#include "index.h"
#include "recstore.h"
#include "test_util.h"

using namespace recstore;
using recstore_test::LogMask;
using recstore_test::StdoutCapture;

namespace {

using recstore_test::utc_tm;

constexpr uint32_t kBase = 1715933350u;  // 2024-05-17 08:09:10 UTC

// A temporary file that disappears with the object.
class TempFile {
  public:
    TempFile() {
        char name[] = "/tmp/recstore-idx.XXXXXX";
        fd_ = mkstemp(name);
        if (fd_ < 0) throw std::runtime_error("mkstemp");
        path_ = name;
    }
    ~TempFile() {
        close(fd_);
        unlink(path_.c_str());
    }
    int fd() const { return fd_; }
    int open_rw() const { return ::open(path_.c_str(), O_RDWR); }
    std::vector<uint8_t> bytes() const {
        struct stat st;
        fstat(fd_, &st);
        std::vector<uint8_t> b(static_cast<size_t>(st.st_size));
        if (!b.empty()) {
            EXPECT_EQ(pread(fd_, b.data(), b.size(), 0), st.st_size);
        }
        return b;
    }
    off_t size() const {
        struct stat st;
        fstat(fd_, &st);
        return st.st_size;
    }
    void write_at(off_t pos, const void *data, size_t n) const {
        ASSERT_EQ(pwrite(fd_, data, n, pos), static_cast<ssize_t>(n));
    }

  private:
    int fd_ = -1;
    std::string path_;
};

uint32_t le32(const std::vector<uint8_t> &b, size_t off) {
    return le32_load(b.data() + off);
}

// A frame table whose used descriptors are at offsets 1000, 2000, ... and at given times.
std::vector<kframe> frames_at(std::initializer_list<uint32_t> times) {
    std::vector<kframe> f(kMaxKframes, kframe{0, 0});
    uint32_t i = 0;
    for (uint32_t t : times) {
        f[i].frame_offset = 1000 * (i + 1);
        f[i].frame_time = t;
        ++i;
    }
    return f;
}

class IndexFormat : public ::testing::Test {
  protected:
    void SetUp() override {
        index_init();
        for (auto &m : g_magic) m = RECSTORE_MAGIC_V7;
        start_ = utc_tm(kBase);
    }
    void TearDown() override {
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        for (auto &m : g_magic) m = 0;
    }
    index_open_args args(int flags, const ext_desc *ext = nullptr) {
        index_open_args a;
        a.disk_id = 0;
        a.block_id = 7;
        a.start = &start_;
        a.channel = 3;
        a.type = 1;
        a.attr_a = 0x1111;
        a.attr_b = 0x2222;
        a.attr_c = 0x33333333;
        a.flags = flags;
        a.mode = 0x44;
        a.attr_d = 0x55555555;
        a.ext = ext;
        return a;
    }
    // Creates the recording on the temporary file (as a writer).
    int create(const TempFile &f, const ext_desc *ext = nullptr) {
        return do_index_attach(f.open_rw(), args(O_CREAT | O_RDWR, ext));
    }
    // Opens the temporary file as an existing recording.
    int reopen(const TempFile &f) { return do_index_attach(f.open_rw(), args(O_RDWR)); }
    static int64_t pos(int h) { return lseek64(g_idx_ctx[h].fd, 0, SEEK_CUR); }
    recordinfo stat_of(int h) {
        recordinfo r;
        EXPECT_EQ(index_stat(h, &r), 0);
        return r;
    }

    struct tm start_ {};
};

recordinfo blank_record() {
    recordinfo r;
    memset(&r, 0, sizeof r);
    r.channel = 2;
    r.type = 4;
    return r;
}

}  // namespace

// ---- headers -------------------------------------------------------------------------------

TEST_F(IndexFormat, PlainHeaderIs8336Bytes) {
    TempFile f;
    recordinfo r = blank_record();
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, nullptr, nullptr, nullptr), 8336);
    EXPECT_NE(cap.stop().find("nullptr"), std::string::npos);
    EXPECT_EQ(f.size(), 8336);
    std::vector<uint8_t> want(kRecordInfoSize);
    rec_info_to_inner(&r, want.data());
    EXPECT_EQ(f.bytes(), want);
}

TEST_F(IndexFormat, ExtensionOfSixBytesIsRefused) {
    TempFile f;
    recordinfo r = blank_record();
    const uint8_t data[6] = {1, 2, 3, 4, 5, 6};
    const ext_desc ext{9, 6, data};
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 8336);
    EXPECT_NE(cap.stop().find("len:6 must be align to 4"), std::string::npos);
    EXPECT_EQ(f.size(), 8336);
    EXPECT_EQ(r.ext_magic, 0u);
}

TEST_F(IndexFormat, ExtensionOf2048BytesIsAccepted) {
    TempFile f;
    recordinfo r = blank_record();
    std::vector<uint8_t> data(2048);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    const ext_desc ext{0x31, 2048, data.data()};
    handle_slot slot{-1, 0, 0, nullptr, nullptr};
    auto cb = [](const void *d, int len, handle_slot *s, void *) { do_index_copy_ext(d, len, s); };
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, cb, &slot), 10384);
    const std::vector<uint8_t> b = f.bytes();
    ASSERT_EQ(b.size(), 10384u);
    EXPECT_EQ(le32(b, 8304), 0x5a7c36d8u);
    EXPECT_EQ(le32(b, 8308), 0x31u);
    EXPECT_EQ(le32(b, 8312), 2048u);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), b.begin() + 8336));
    ASSERT_NE(slot.ext, nullptr);
    EXPECT_EQ(memcmp(slot.ext, data.data(), 2048), 0);
    free(slot.ext);
}

TEST_F(IndexFormat, ExtensionOf2049BytesIsRefused) {
    TempFile f;
    recordinfo r = blank_record();
    std::vector<uint8_t> data(2049, 1);
    const ext_desc ext{1, 2049, data.data()};
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 8336);
    EXPECT_NE(cap.stop().find("error len:2049"), std::string::npos);
    EXPECT_EQ(f.size(), 8336);
}

TEST_F(IndexFormat, ExtensionWithoutDataIsRefused) {
    TempFile f;
    recordinfo r = blank_record();
    const ext_desc ext{1, 8, nullptr};
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 8336);
    EXPECT_NE(cap.stop().find("error len:8"), std::string::npos);
}

TEST_F(IndexFormat, ShortExtensionIsFollowedByZeros) {
    TempFile f;
    recordinfo r = blank_record();
    const uint8_t data[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    const ext_desc ext{1, 8, data};
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 10384);
    const std::vector<uint8_t> b = f.bytes();
    ASSERT_EQ(b.size(), 10384u);
    EXPECT_EQ(b[8343], 9);
    for (size_t i = 8344; i < b.size(); ++i) ASSERT_EQ(b[i], 0) << i;
}

TEST_F(IndexFormat, Version1DiskWrites896Bytes) {
    g_magic[0] = RECSTORE_MAGIC_V1;
    TempFile f;
    recordinfo r = blank_record();
    const uint8_t data[8] = {};
    const ext_desc ext{1, 8, data};
    EXPECT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 896);
    EXPECT_EQ(f.size(), 896);
    EXPECT_EQ(pwrite_recordinfo(0, f.fd(), &r), 896);
    EXPECT_EQ(f.size(), 896);
}

TEST_F(IndexFormat, BadDiskIdsAreRefused) {
    TempFile f;
    recordinfo r = blank_record();
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(write_recordinfo(8, f.fd(), &r, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(write_recordinfo(-1, f.fd(), &r, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read_recordinfo(8, f.fd(), &r, nullptr), -1);
    EXPECT_EQ(read_recordinfo(-3, f.fd(), &r, nullptr), -1);
    EXPECT_EQ(pwrite_recordinfo(9, f.fd(), &r), -1);
    EXPECT_EQ(pwrite_recordinfo(INT32_MIN, f.fd(), &r), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("write_recordinfo disk id:8"), std::string::npos);
    EXPECT_NE(out.find("write_recordinfo disk id:-1"), std::string::npos);
    EXPECT_NE(out.find("read_recordinfo disk id:-3"), std::string::npos);
    EXPECT_NE(out.find("pwrite_recordinfo disk id:9"), std::string::npos);
    EXPECT_EQ(f.size(), 0);
}

TEST_F(IndexFormat, ReadingPlainHeaderLeavesPositionAtFirstEntry) {
    TempFile f;
    recordinfo r = blank_record();
    r.entry_count = 12;
    ASSERT_EQ(write_recordinfo(0, f.fd(), &r, nullptr, nullptr, nullptr), 8336);
    std::vector<uint8_t> entries(11 * 204, 0x5A);  // more than the extension area
    f.write_at(8336, entries.data(), entries.size());
    const int fd = f.open_rw();
    recordinfo back;
    memset(&back, 0, sizeof back);
    EXPECT_EQ(read_recordinfo(0, fd, &back, nullptr), 10384) << "reads as much as it can";
    EXPECT_EQ(lseek64(fd, 0, SEEK_CUR), 8336);
    EXPECT_EQ(back.entry_count, 12u);
    EXPECT_EQ(back.channel, 2u);
    close(fd);
}

TEST_F(IndexFormat, ReadingHeaderWithExtensionKeepsACopy) {
    TempFile f;
    recordinfo r = blank_record();
    const uint8_t data[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const ext_desc ext{5, 12, data};
    ASSERT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 10384);
    const int fd = f.open_rw();
    recordinfo back;
    memset(&back, 0, sizeof back);
    handle_slot slot{-1, 0, 0, nullptr, nullptr};
    EXPECT_EQ(read_recordinfo(0, fd, &back, &slot), 10384);
    EXPECT_EQ(lseek64(fd, 0, SEEK_CUR), 10384);
    EXPECT_EQ(back.ext_len, 12u);
    ASSERT_NE(slot.ext, nullptr);
    EXPECT_EQ(memcmp(slot.ext, data, 12), 0);
    free(slot.ext);
    close(fd);
}

TEST_F(IndexFormat, RewriteKeepsExtensionDataAndPosition) {
    TempFile f;
    recordinfo r = blank_record();
    const uint8_t data[8] = {7, 7, 7, 7, 7, 7, 7, 7};
    const ext_desc ext{5, 8, data};
    ASSERT_EQ(write_recordinfo(0, f.fd(), &r, &ext, nullptr, nullptr), 10384);
    r.entry_count = 99;
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(pwrite_recordinfo(0, f.fd(), &r), 8336);
    EXPECT_NE(cap.stop().find("nullptr"), std::string::npos) << "logged on every rewrite";
    EXPECT_EQ(lseek64(f.fd(), 0, SEEK_CUR), 10384);
    const std::vector<uint8_t> b = f.bytes();
    EXPECT_EQ(le32(b, 108), 99u);
    EXPECT_EQ(le32(b, 8304), 0x5a7c36d8u);
    EXPECT_EQ(b[8336], 7);
}

TEST_F(IndexFormat, Version1HeaderReadBack) {
    g_magic[0] = RECSTORE_MAGIC_V1;
    TempFile f;
    recordinfo r = blank_record();
    r.channel = 1;
    r.attr_c = 0xC0FFEE;
    const uint32_t v = 0xABCD;
    memcpy(r.alarms[4].alarm_data + 4, &v, 4);
    ASSERT_EQ(write_recordinfo(0, f.fd(), &r, nullptr, nullptr, nullptr), 896);
    EXPECT_EQ(le32(f.bytes(), 128 + 4 * 12 + 8), 0xABCDu);
    const int fd = f.open_rw();
    recordinfo back;
    memset(&back, 0, sizeof back);
    EXPECT_EQ(read_recordinfo(0, fd, &back, nullptr), 896);
    EXPECT_EQ(back.attr_c, 0xC0FFEEu);
    uint32_t got;
    memcpy(&got, back.alarms[4].alarm_data + 4, 4);
    EXPECT_EQ(got, 0xABCDu);
    close(fd);
}

// ---- entries -------------------------------------------------------------------------------

TEST_F(IndexFormat, FirstEntryFollowsEachHeaderLayout) {
    const uint8_t data[16] = {};
    const ext_desc ext{1, 16, data};
    struct Case {
        uint32_t magic;
        const ext_desc *ext;
        size_t first;
    } cases[] = {{RECSTORE_MAGIC_V7, nullptr, 8336},
                 {RECSTORE_MAGIC_V7, &ext, 10384},
                 {RECSTORE_MAGIC_V1, nullptr, 896},
                 {0, nullptr, 8336}};
    for (const Case &c : cases) {
        g_magic[0] = c.magic;
        TempFile f;
        const int h = create(f, c.ext);
        ASSERT_GE(h, 0);
        const auto fr = frames_at({kBase + 1, kBase + 2});
        EXPECT_EQ(index_write(h, 0x1234, 5000, fr.data(), 2), 204);
        EXPECT_EQ(index_write(h, 0x1235, 6000, fr.data(), 0), 204);
        const std::vector<uint8_t> b = f.bytes();
        ASSERT_EQ(b.size(), c.first + 2 * 204);
        EXPECT_EQ(le32(b, c.first), 0x1234u);
        EXPECT_EQ(le32(b, c.first + 4), 5000u);
        EXPECT_EQ(le32(b, c.first + 8), 2u);
        EXPECT_EQ(le32(b, c.first + 12), 1000u);
        EXPECT_EQ(le32(b, c.first + 16), kBase + 1);
        EXPECT_EQ(le32(b, c.first + 20), 2000u);
        EXPECT_EQ(le32(b, c.first + 204), 0x1235u);
        EXPECT_EQ(le32(b, c.first + 204 + 8), 0u);
        index_close(h, nullptr);
    }
}

TEST_F(IndexFormat, CreationFillsTheHeader) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    const std::vector<uint8_t> b = f.bytes();
    ASSERT_EQ(b.size(), 8336u);
    EXPECT_EQ(le32(b, 0), 0u);
    EXPECT_EQ(le32(b, 4), 7u);
    EXPECT_EQ(le32(b, 8), 3u);
    EXPECT_EQ(le32(b, 12), 10u) << "start seconds";
    EXPECT_EQ(le32(b, 12 + 20), 124u) << "start year";
    EXPECT_EQ(le32(b, 56 + 20), 0u) << "end time unset";
    EXPECT_EQ(le32(b, 100), 0x44u);
    EXPECT_EQ(le32(b, 104), static_cast<uint32_t>(O_CREAT | O_RDWR));
    EXPECT_EQ(le16_load(b.data() + 8288), 0x1111);
    EXPECT_EQ(le16_load(b.data() + 8290), 0x2222);
    EXPECT_EQ(le32(b, 8292), 0x33333333u);
    EXPECT_EQ(le32(b, 8296), 1u);
    EXPECT_EQ(le32(b, 8300), 0x55555555u);
    EXPECT_EQ(index_getflag(h), O_CREAT | O_RDWR);
    EXPECT_EQ(index_ltell(h, nullptr), 0);
}

TEST_F(IndexFormat, EndTimeFollowsPlausibleFrames) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    auto fr = frames_at({kBase + 5, kBase + 10});
    ASSERT_EQ(index_write(h, 1, 100, fr.data(), 2), 204);
    recordinfo r = stat_of(h);
    EXPECT_EQ(r.entry_count, 1u);
    EXPECT_EQ(r.total_bytes, 100u);
    EXPECT_EQ(r.frame_count, 2u);
    struct tm e = tm_of(r.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 10)) << "unset end time takes the frame";

    // 180 seconds later moves the end time.
    fr = frames_at({kBase + 190});
    ASSERT_EQ(index_write(h, 2, 200, fr.data(), 1), 204);
    r = stat_of(h);
    e = tm_of(r.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 190));

    // 181 seconds later does not, and says so.
    fr = frames_at({kBase + 371});
    {
        StdoutCapture cap;
        ASSERT_EQ(index_write(h, 3, 300, fr.data(), 1), 204);
        const std::string out = cap.stop();
        EXPECT_NE(out.find("channel:3 type:1 latest time:"), std::string::npos) << out;
        EXPECT_NE(out.find(" current time:"), std::string::npos) << out;
    }
    r = stat_of(h);
    e = tm_of(r.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 190));
    EXPECT_EQ(r.entry_count, 3u);
    EXPECT_EQ(r.total_bytes, 600u);

    // Earlier than the end time: unchanged, printed.
    fr = frames_at({kBase + 100});
    {
        StdoutCapture cap;
        ASSERT_EQ(index_write(h, 4, 1, fr.data(), 1), 204);
        EXPECT_NE(cap.stop().find("latest time:"), std::string::npos);
    }
    // No frames: counters only.
    {
        StdoutCapture cap;
        ASSERT_EQ(index_write(h, 5, 1, fr.data(), 0), 204);
        EXPECT_EQ(cap.stop().find("latest time:"), std::string::npos);
    }
    r = stat_of(h);
    e = tm_of(r.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 190));
    EXPECT_EQ(r.entry_count, 5u);
    EXPECT_EQ(r.frame_count, 5u);
}

TEST_F(IndexFormat, FrameCountAbove24IsRefused) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    const auto fr = frames_at({kBase});
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_write(h, 1, 1, fr.data(), 25), -1);
    EXPECT_NE(cap.stop().find("frame count:25"), std::string::npos);
    EXPECT_EQ(f.size(), 8336);
    EXPECT_EQ(stat_of(h).entry_count, 0u);
}

TEST_F(IndexFormat, ReadingEntriesAndTheNextClusterId) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    const auto fr = frames_at({kBase + 1, kBase + 2, kBase + 3});
    ASSERT_EQ(index_write(h, 10, 111, fr.data(), 3), 204);
    ASSERT_EQ(index_write(h, 11, 222, fr.data(), 1), 204);
    index_close(h, nullptr);

    const int r = reopen(f);
    ASSERT_GE(r, 0);
    uint32_t cid = 0, len = 0, cnt = 0, next = 0;
    kframe got[kMaxKframes];
    EXPECT_EQ(index_get(r, &cid, &len, got, &cnt), 204);
    EXPECT_EQ(cid, 10u);
    EXPECT_EQ(pos(r), 8336) << "peeking does not move";
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, &next), 204);
    EXPECT_EQ(cid, 10u);
    EXPECT_EQ(len, 111u);
    EXPECT_EQ(cnt, 3u);
    EXPECT_EQ(got[2].frame_offset, 3000u);
    EXPECT_EQ(got[2].frame_time, kBase + 3);
    EXPECT_EQ(next, 11u);
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, &next), 204);
    EXPECT_EQ(cid, 11u);
    EXPECT_EQ(next, 0xFFFFFFFFu) << "the last entry has no next cluster";
    LogMask mask(0xB);
    StdoutCapture cap;
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, &next), 0);
    EXPECT_NE(cap.stop().find("end of file"), std::string::npos);
}

TEST_F(IndexFormat, ReadingBackwardStopsAtTheFirstEntry) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    const auto fr = frames_at({kBase});
    for (uint32_t c = 20; c < 23; ++c) ASSERT_EQ(index_write(h, c, 1, fr.data(), 1), 204);
    uint32_t cid = 0, len = 0, cnt = 0;
    kframe got[kMaxKframes];
    for (uint32_t want = 22; want >= 20; --want) {
        ASSERT_EQ(index_read_r(h, &cid, &len, got, &cnt), 204);
        EXPECT_EQ(cid, want);
    }
    EXPECT_EQ(pos(h), 8336);
    EXPECT_EQ(index_read_r(h, &cid, &len, got, &cnt), -1);
    EXPECT_EQ(pos(h), 8336) << "stays at the first entry";

    // Rewriting in place: step forward one entry, rewrite the one before.
    lseek64(g_idx_ctx[h].fd, 204, SEEK_CUR);
    ASSERT_EQ(index_write_r(h, 77, 2, fr.data(), 1), 204);
    EXPECT_EQ(pos(h), 8336);
    EXPECT_EQ(le32(f.bytes(), 8336), 77u);
    EXPECT_EQ(f.size(), 8336 + 3 * 204);
    EXPECT_EQ(index_write_r(h, 78, 2, fr.data(), 1), -1) << "nothing before the first entry";
}

TEST_F(IndexFormat, AlarmsModeAndExtension) {
    TempFile f;
    const uint8_t data[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const ext_desc ext{3, 16, data};
    const int h = create(f, &ext);
    ASSERT_GE(h, 0);
    uint8_t buf[64] = {};
    EXPECT_EQ(index_get_ext(h, buf, sizeof buf), 16);
    EXPECT_EQ(memcmp(buf, data, 16), 0);
    EXPECT_EQ(index_get_ext(h, buf, 4), 4);

    EXPECT_EQ(index_chmod(h, 0x99), 0);
    EXPECT_EQ(le32(f.bytes(), 100), 0x99u);

    record_alarm alarm{};
    alarm.alarm_a = 0xA;
    alarm.alarm_b = 0xB;
    alarm.alarm_data[0] = 0xC;
    EXPECT_EQ(index_insertalarm(h, &alarm), 0);
    std::vector<uint8_t> b = f.bytes();
    EXPECT_EQ(le32(b, 124), 1u);
    EXPECT_EQ(le32(b, 128), 0xAu);
    EXPECT_EQ(b[136], 0xC);
    for (int i = 1; i < 60; ++i) ASSERT_EQ(index_insertalarm(h, &alarm), 0);
    b = f.bytes();
    EXPECT_EQ(index_insertalarm(h, &alarm), -1) << "60 alarms are the most";
    EXPECT_EQ(f.bytes(), b) << "nothing written";
    EXPECT_EQ(le32(b, 124), 60u);
}

TEST_F(IndexFormat, ExtensionRefusals) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    uint8_t buf[8];
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_get_ext(h, buf, sizeof buf), -1);
    EXPECT_EQ(index_get_ext(h, nullptr, 8), -1);
    EXPECT_EQ(index_get_ext(h, buf, 0), -1);
    EXPECT_EQ(index_get_ext(h, buf, -5), -1);
    EXPECT_EQ(index_get_ext(5, buf, 8), -1);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("info or ext nullptr"), std::string::npos);
    EXPECT_NE(out.find("param error:0"), std::string::npos);
    EXPECT_NE(out.find("param error:-5"), std::string::npos);
    EXPECT_NE(out.find("g_idx_ctx[handle].fd :-1"), std::string::npos);
}

TEST_F(IndexFormat, HandlesOutsideTheTableAreRefused) {
    uint32_t a = 0, b = 0, c = 0;
    kframe fr[kMaxKframes] = {};
    recordinfo r;
    record_alarm alarm{};
    LogMask mask(0x1);
    for (int h : {-1, RECSTORE_INDEX_HANDLES, INT32_MIN, INT32_MAX}) {
        StdoutCapture cap;
        EXPECT_EQ(index_read(h, &a, &b, fr, &c, nullptr), -1);
        EXPECT_EQ(index_get(h, &a, &b, fr, &c), -1);
        EXPECT_EQ(index_read_r(h, &a, &b, fr, &c), -1);
        EXPECT_EQ(index_write(h, 1, 1, fr, 0), -1);
        EXPECT_EQ(index_write_r(h, 1, 1, fr, 0), -1);
        EXPECT_EQ(index_stat(h, &r), -1);
        EXPECT_EQ(index_getflag(h), -1);
        EXPECT_EQ(index_chmod(h, 1), -1);
        EXPECT_EQ(index_insertalarm(h, &alarm), -1);
        EXPECT_EQ(index_write_info(h), -1);
        EXPECT_EQ(index_flush_info(h), -1);
        EXPECT_EQ(index_get_ext(h, &a, 4), -1);
        EXPECT_EQ(index_ltell(h, nullptr), -1);
        EXPECT_EQ(index_lseek(h, 0, 0, nullptr), -1);
        EXPECT_EQ(index_ttell(h, nullptr), -1);
        EXPECT_EQ(index_tseek(h, 0, 0, nullptr), -1);
        index_close(h, nullptr);
        index_set_offset(h, 1, fr, 1);
        index_set_seqoffset(h, 1, fr, 1);
        index_clear_offset(h);
        index_get_offset(h, &a);
        index_get_seqoffset(h, &a);
        const std::string out = cap.stop();
        EXPECT_NE(out.find("invalid handle :" + std::to_string(h)), std::string::npos) << out;
    }
}

TEST_F(IndexFormat, FreeSlotsAreRefused) {
    uint32_t a = 0, b = 0, c = 0;
    kframe fr[kMaxKframes] = {};
    recordinfo r;
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_read(4, &a, &b, fr, &c, nullptr), -1);
    EXPECT_EQ(index_write(4, 1, 1, fr, 0), -1);
    EXPECT_EQ(index_stat(4, &r), -1);
    EXPECT_EQ(index_getflag(4), -1);
    EXPECT_EQ(index_ltell(4, nullptr), -1);
    EXPECT_EQ(index_tseek(4, 0, 0, nullptr), -1);
    index_close(4, nullptr);
    const std::string out = cap.stop();
    EXPECT_NE(out.find("fd error:-1"), std::string::npos);
    EXPECT_NE(out.find("err fd"), std::string::npos);
    EXPECT_NE(out.find("invalid fd :-1"), std::string::npos);
    EXPECT_NE(out.find("g_idx_ctx[handle].fd :-1"), std::string::npos);
}

TEST_F(IndexFormat, NullParametersAreRefused) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    uint32_t a = 0;
    kframe fr[kMaxKframes] = {};
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(index_read(h, nullptr, &a, fr, &a, nullptr), -1);
    EXPECT_EQ(index_get(h, &a, &a, nullptr, &a), -1);
    EXPECT_EQ(index_write(h, 1, 1, nullptr, 0), -1);
    EXPECT_EQ(index_read_r(h, &a, nullptr, fr, &a), -1);
    EXPECT_EQ(index_stat(h, nullptr), -1);
    EXPECT_EQ(index_insertalarm(h, nullptr), -1);
    EXPECT_NE(cap.stop().find("invalid param"), std::string::npos);
}

TEST_F(IndexFormat, TableIsFullAfter128Handles) {
    std::vector<TempFile> files(RECSTORE_INDEX_HANDLES);
    for (int i = 0; i < RECSTORE_INDEX_HANDLES; ++i) ASSERT_EQ(create(files[i]), i);
    TempFile extra;
    LogMask mask(0x1);
    StdoutCapture cap;
    EXPECT_EQ(create(extra), -1);
    EXPECT_NE(cap.stop().find("reach the max count"), std::string::npos);
    index_close(5, nullptr);
    EXPECT_EQ(create(extra), 5) << "the lowest free slot";
}

TEST_F(IndexFormat, ExitZeroesTheTable) {
    TempFile f;
    ASSERT_GE(create(f), 0);
    index_exit();
    EXPECT_EQ(g_idx_ctx[0].fd, 0);
    EXPECT_EQ(g_idx_ctx[0].info, nullptr);
    EXPECT_EQ(g_idx_ctx[127].fd, 0);
    recordinfo r;
    EXPECT_EQ(index_stat(0, &r), -1) << "a cleared slot holds no recording";
    index_init();
    EXPECT_EQ(g_idx_ctx[0].fd, -1);
    EXPECT_EQ(index_size(), 204);
}

// ---- repair ------------------------------------------------------------------------------

namespace {

// Marks the header on disk as written by a reader: no O_CREAT in its open flags.
void clear_creator_flag(const TempFile &f) {
    uint8_t word[4];
    le32_store(word, O_RDWR);
    f.write_at(104, word, 4);
}

}  // namespace

TEST_F(IndexFormat, SoundFileOpensAtTheFirstEntry) {
    TempFile f;
    const int h = create(f);
    const auto fr = frames_at({kBase + 3});
    ASSERT_EQ(index_write(h, 1, 10, fr.data(), 1), 204);
    struct tm end = utc_tm(kBase + 3);
    index_close(h, &end);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = reopen(f);
    ASSERT_GE(r, 0);
    EXPECT_EQ(cap.stop().find("found :"), std::string::npos) << "no repair";
    EXPECT_EQ(pos(r), 8336);
    EXPECT_EQ(index_getflag(r), O_RDWR);
    EXPECT_EQ(stat_of(r).entry_count, 1u);
}

TEST_F(IndexFormat, UnfinishedHeaderIsRewrittenWhenNoWriterHoldsIt) {
    TempFile f;
    const int h = create(f);
    for (uint32_t i = 0; i < 4; ++i) {
        const auto fr = frames_at({kBase + 10 * i, kBase + 10 * i + 5});
        ASSERT_EQ(index_write(h, 100 + i, 1000, fr.data(), i == 3 ? 0 : 2), 204);
    }
    do_index_release(h);  // the writer vanishes without closing
    clear_creator_flag(f);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = reopen(f);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    EXPECT_NE(out.find("not found :3 Fri May 17 08:09:10 2024\n"), std::string::npos) << out;
    EXPECT_NE(out.find("try to fix start:"), std::string::npos) << out;
    EXPECT_NE(out.find("done\n"), std::string::npos) << out;
    const recordinfo info = stat_of(r);
    EXPECT_EQ(info.entry_count, 3u) << "up to the last entry with frames";
    EXPECT_EQ(info.total_bytes, 3u * 524288u);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 25));
    const std::vector<uint8_t> b = f.bytes();
    EXPECT_EQ(le32(b, 108), 3u);
    EXPECT_EQ(le64_load(b.data() + 112), 3u * 524288u);
    EXPECT_EQ(le32(b, 56), 35u) << "end seconds on disk (08:09:35)";
    EXPECT_EQ(pos(r), 8336);
    EXPECT_EQ(index_ltell(r, nullptr), 0);
    EXPECT_EQ(index_getflag(r), O_RDWR);
}

TEST_F(IndexFormat, UnfinishedHeaderIsLeftAloneWhileAWriterHoldsIt) {
    TempFile f;
    const int w = create(f);
    ASSERT_GE(w, 0);
    const auto fr = frames_at({kBase + 7});
    ASSERT_EQ(index_write(w, 1, 10, fr.data(), 1), 204);
    clear_creator_flag(f);  // only the slot of the writer can match now
    const std::vector<uint8_t> before = f.bytes();
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = reopen(f);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    EXPECT_NE(w, r);
    EXPECT_NE(out.find("found :3 "), std::string::npos) << out;
    EXPECT_EQ(out.find("not found"), std::string::npos) << out;
    EXPECT_NE(out.find("start:"), std::string::npos) << out;
    EXPECT_EQ(out.find("try to fix"), std::string::npos) << out;
    EXPECT_EQ(f.bytes(), before) << "the header on disk is the writer's business";
    EXPECT_EQ(stat_of(r).entry_count, 1u);
    EXPECT_EQ(pos(r), 8336);
}

TEST_F(IndexFormat, WriterKilledBetweenEntriesIsRepairedOnNextOpen) {
    TempFile f;
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        close(go[1]);
        const int h = create(f);
        for (uint32_t i = 0; h >= 0; ++i) {
            const auto fr = frames_at({kBase + 2 * i, kBase + 2 * i + 1});
            if (index_write(h, 500 + i, 524288, fr.data(), 2) != 204) break;
            char c = 'w';
            if (write(ready[1], &c, 1) != 1) break;
            if (read(go[0], &c, 1) != 1) break;  // blocks until killed
        }
        _exit(1);
    }
    close(ready[1]);
    close(go[0]);
    char c;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        if (i < 2) {
            ASSERT_EQ(write(go[1], "g", 1), 1);
        }
    }
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    close(ready[0]);
    close(go[1]);
    ASSERT_EQ(f.size(), 8336 + 3 * 204);
    const std::vector<uint8_t> before = f.bytes();
    EXPECT_EQ(le32(before, 108), 0u) << "the header was never finalised";

    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = reopen(f);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0);
    // The header read carries its creator's O_CREAT, so the slot being opened counts as the
    // writer: the record is repaired in memory and the header on disk is left as it was.
    EXPECT_NE(out.find("found :3 "), std::string::npos) << out;
    const recordinfo info = stat_of(r);
    EXPECT_EQ(info.entry_count, 3u);
    EXPECT_EQ(info.total_bytes, 3u * 524288u);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 5));
    EXPECT_EQ(f.bytes(), before);
    EXPECT_EQ(pos(r), 8336);
    uint32_t cid = 0, len = 0, cnt = 0;
    kframe got[kMaxKframes];
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, nullptr), 204);
    EXPECT_EQ(cid, 500u);
}

TEST_F(IndexFormat, FileWithoutFramesGetsItsStartAsEnd) {
    TempFile f;
    const int h = create(f);
    const auto fr = frames_at({});
    ASSERT_EQ(index_write(h, 1, 10, fr.data(), 0), 204);
    do_index_release(h);
    LogMask mask(0xB);
    StdoutCapture cap;
    const int r = reopen(f);
    const std::string out = cap.stop();
    ASSERT_GE(r, 0) << "still opened";
    EXPECT_NE(out.find("end time is equal to start time"), std::string::npos) << out;
    EXPECT_NE(out.find("try to fix end time Fri May 17 08:09:10 2024\n - Fri May 17 08:09:10 "
                       "2024\n err,entering the failed process...\n"),
              std::string::npos)
        << out;
    const recordinfo info = stat_of(r);
    EXPECT_EQ(memcmp(&info.end_time, &info.start_time, sizeof(fs_tm)), 0);
    EXPECT_EQ(pos(r), 8336);
}

TEST_F(IndexFormat, RepairSkipsGarbageAndPartialEntries) {
    TempFile f;
    const int h = create(f);
    auto fr = frames_at({kBase + 40});
    ASSERT_EQ(index_write(h, 1, 10, fr.data(), 1), 204);
    ASSERT_EQ(index_write(h, 2, 10, fr.data(), 0), 204);
    do_index_release(h);
    clear_creator_flag(f);
    // A third entry claiming 200 frames, then half an entry.
    uint8_t junk[204 + 100];
    memset(junk, 0xFF, sizeof junk);
    le32_store(junk + 8, 200);
    f.write_at(8336 + 2 * 204, junk, sizeof junk);
    const int r = reopen(f);
    ASSERT_GE(r, 0);
    const recordinfo info = stat_of(r);
    EXPECT_EQ(info.entry_count, 1u);
    struct tm e = tm_of(info.end_time);
    EXPECT_EQ(timegm(&e), static_cast<time_t>(kBase + 40));
}

TEST_F(IndexFormat, EmptyFilesAndHeadersWithoutStartAreRefused) {
    LogMask mask(0x1);
    {
        TempFile f;
        EXPECT_EQ(reopen(f), -1) << "empty file";
    }
    {
        TempFile f;
        std::vector<uint8_t> part(30, 0);
        f.write_at(0, part.data(), part.size());
        StdoutCapture cap;
        EXPECT_EQ(reopen(f), -1);
        EXPECT_NE(cap.stop().find("short header:30 of 8336 bytes holds no start time"),
                  std::string::npos);
    }
    {
        g_magic[0] = RECSTORE_MAGIC_V1;
        TempFile f;
        std::vector<uint8_t> part(40, 0);
        f.write_at(0, part.data(), part.size());
        EXPECT_EQ(reopen(f), -1);
    }
    for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) EXPECT_EQ(g_idx_ctx[h].fd, -1);
}

// A header cut by a power loss during its first write keeps what it holds and is written whole.
TEST_F(IndexFormat, ShortHeadersAreRepairedFromWhatIsThere) {
    LogMask mask(0xB);
    {
        TempFile f;
        ASSERT_GE(create(f), 0);
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        ASSERT_EQ(ftruncate(f.fd(), 5000), 0);
        StdoutCapture cap;
        const int r = reopen(f);
        const std::string out = cap.stop();
        ASSERT_GE(r, 0) << out;
        EXPECT_NE(out.find("short header:5000 of 8336 bytes, repaired"), std::string::npos) << out;
        const recordinfo info = stat_of(r);
        EXPECT_EQ(info.channel, 3u);
        EXPECT_EQ(info.type, 1u);
        EXPECT_EQ(info.block_id, 7u);
        EXPECT_EQ(info.mode, 0x44u);
        EXPECT_EQ(info.entry_count, 0u);
        EXPECT_EQ(memcmp(&info.end_time, &info.start_time, sizeof(fs_tm)), 0);
        EXPECT_EQ(pos(r), 8336);
        EXPECT_EQ(f.size(), 8336);
        EXPECT_EQ(le32(f.bytes(), 8296), 1u);
        do_index_release(r);
    }
    {
        TempFile f;
        const uint32_t data[2] = {0xAAAAAAAAu, 0xBBBBBBBBu};
        const ext_desc ext{9, 8, data};
        ASSERT_GE(create(f, &ext), 0);
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        ASSERT_EQ(ftruncate(f.fd(), 9000), 0);
        StdoutCapture cap;
        const int r = reopen(f);
        const std::string out = cap.stop();
        ASSERT_GE(r, 0) << out;
        EXPECT_NE(out.find("short header:9000 of 10384 bytes, repaired"), std::string::npos) << out;
        EXPECT_EQ(pos(r), 10384);
        EXPECT_EQ(f.size(), 10384);
        do_index_release(r);
    }
    {
        g_magic[0] = RECSTORE_MAGIC_V1;
        TempFile f;
        ASSERT_GE(create(f), 0);
        for (int h = 0; h < RECSTORE_INDEX_HANDLES; ++h) do_index_release(h);
        ASSERT_EQ(ftruncate(f.fd(), 500), 0);
        const int r = reopen(f);
        ASSERT_GE(r, 0);
        EXPECT_EQ(stat_of(r).channel, 3u);
        EXPECT_EQ(pos(r), 896);
        EXPECT_EQ(f.size(), 896);
        do_index_release(r);
    }
}

TEST_F(IndexFormat, GarbageExtensionLengthDoesNotOverrun) {
    // Start and end times are equal (all 0xA5), so the file counts as sound and opens; only a
    // length of 1 to 2048 gives the handle a copy of the extension, never more than 2048 bytes.
    const struct {
        uint32_t len;
        int copied;
    } cases[] = {{0u, -1},    {6u, 6},           {2048u, 2048},     {2049u, -1},
                 {4096u, -1}, {0x7FFFFFFFu, -1}, {0x80000000u, -1}, {0xFFFFFFFFu, -1}};
    for (const auto &c : cases) {
        TempFile f;
        std::vector<uint8_t> hdr(10384 + 204, 0xA5);
        le32_store(hdr.data() + 8304, RECSTORE_EXT_MAGIC);
        le32_store(hdr.data() + 8312, c.len);
        le32_store(hdr.data() + 108, 0);
        f.write_at(0, hdr.data(), hdr.size());
        const int r = reopen(f);
        ASSERT_GE(r, 0) << c.len;
        EXPECT_EQ(pos(r), 10384) << "entries follow the extension area, len " << c.len;
        std::vector<uint8_t> buf(4096, 0);
        LogMask quiet(0);
        EXPECT_EQ(index_get_ext(r, buf.data(), static_cast<int>(buf.size())), c.copied) << c.len;
        for (int i = 0; i < c.copied; ++i) ASSERT_EQ(buf[static_cast<size_t>(i)], 0xA5) << i;
        for (size_t i = c.copied > 0 ? static_cast<size_t>(c.copied) : 0; i < buf.size(); ++i)
            ASSERT_EQ(buf[i], 0) << "nothing copied past the extension, byte " << i;
        uint32_t cid = 0, len = 0, cnt = 0;
        kframe got[kMaxKframes];
        EXPECT_EQ(index_get(r, &cid, &len, got, &cnt), 204) << "the entry after the area";
        EXPECT_EQ(cid, 0xA5A5A5A5u);
        index_close(r, nullptr);
    }
}

TEST_F(IndexFormat, PartialLastEntryIsAShortRead) {
    TempFile f;
    const int h = create(f);
    ASSERT_GE(h, 0);
    const auto fr = frames_at({kBase});
    ASSERT_EQ(index_write(h, 1, 10, fr.data(), 1), 204);
    struct tm end = utc_tm(kBase + 1);
    index_close(h, &end);
    std::vector<uint8_t> half(100, 0x11);
    f.write_at(8336 + 204, half.data(), half.size());
    const int r = reopen(f);
    ASSERT_GE(r, 0);
    uint32_t cid = 0, len = 0, cnt = 0, next = 0;
    kframe got[kMaxKframes];
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, &next), 204);
    EXPECT_EQ(next, 0x11111111u) << "the head of the partial entry is there";
    EXPECT_EQ(index_get(r, &cid, &len, got, &cnt), 100) << "the short count is returned";
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, nullptr), 100);
    EXPECT_EQ(index_read(r, &cid, &len, got, &cnt, nullptr), 0);
    EXPECT_EQ(index_lseek(r, 10, SEEK_SET, nullptr), 524288);
    EXPECT_EQ(index_lseek(r, 11, SEEK_SET, nullptr), -1) << "the partial entry is no entry";
}
