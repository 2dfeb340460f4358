// The recstore tool's printers: the search-result table and JSON, and the month calendar.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "report.h"

namespace {

fs_tm fs_time(int year, int mon, int day, int hour, int min, int sec) {
    fs_tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    return t;
}

tool::FoundRecording found(int channel, int type, fs_tm start, fs_tm end, uint64_t bytes,
                           int disk) {
    tool::FoundRecording f;
    memset(&f, 0, sizeof f);
    f.record.start = start;
    f.record.channel = static_cast<uint32_t>(channel);
    f.record.type = static_cast<uint32_t>(type);
    f.info.disk_id = disk;
    f.info.channel = static_cast<uint32_t>(channel);
    f.info.start_time = start;
    f.info.end_time = end;
    f.info.total_bytes_lo = static_cast<uint32_t>(bytes);
    f.info.total_bytes_hi = static_cast<uint32_t>(bytes >> 32);
    f.info.entry_count = 12;
    f.info.frame_count = 30;
    return f;
}

TEST(ToolFormat, FindTableHasOneLinePerRecordingAndATotal) {
    const std::vector<tool::FoundRecording> list = {
        found(3, 0, fs_time(2026, 11, 22, 10, 0, 0), fs_time(2026, 11, 22, 10, 2, 5),
              6 * 1024 * 1024, 0),
        found(12, 1, fs_time(2026, 11, 22, 23, 30, 0), fs_time(2026, 11, 23, 1, 0, 1),
              5ull * 1024 * 1024 * 1024, 1),
    };
    EXPECT_EQ(tool::format_find_table(list),
              "channel type start                end                   duration        size  disk\n"
              "      3    0 2026-11-22 10:00:00  2026-11-22 10:02:05      2m05s     6.0 MiB  sda\n"
              "     12    1 2026-11-22 23:30:00  2026-11-23 01:00:01   1h30m01s     5.0 GiB  sdb\n"
              "2 recordings, 5.0 GiB\n");
}

TEST(ToolFormat, FindTableOfNoRecordings) {
    EXPECT_EQ(tool::format_find_table({}),
              "channel type start                end                   duration        size  disk\n"
              "0 recordings, 0 B\n");
}

TEST(ToolFormat, FindTableShowsAnOutOfRangeDiskAsQuestionMark) {
    const std::string text = tool::format_find_table(
        {found(0, 0, fs_time(2026, 1, 1, 0, 0, 0), fs_time(2026, 1, 1, 0, 0, 9), 100, 9)});
    EXPECT_NE(text.find("         9s       100 B  sd?\n"), std::string::npos) << text;
    EXPECT_NE(text.find("1 recording, 100 B\n"), std::string::npos) << text;
}

TEST(ToolFormat, FindJsonListsEveryField) {
    EXPECT_EQ(tool::format_find_json({found(3, 0, fs_time(2026, 11, 22, 10, 0, 0),
                                            fs_time(2026, 11, 22, 10, 0, 42), 5000000000ull, 2)}),
              "[\n  {\"channel\": 3, \"type\": 0, \"start\": \"2026-11-22 10:00:00\", \"end\": "
              "\"2026-11-22 10:00:42\", \"duration_s\": 42, \"bytes\": 5000000000, \"disk\": 2, "
              "\"clusters\": 12, \"key_frames\": 30}\n]\n");
    EXPECT_EQ(tool::format_find_json({}), "[]\n");
}

TEST(ToolFormat, CalendarMarksTheDaysWithRecordings) {
    unsigned char days[tool::kCalendarDays] = {};
    days[0] = 1;   // 1st
    days[21] = 1;  // 22nd
    days[29] = 3;  // 30th: only bit 0 counts, the others are ignored
    days[30] = 1;  // 31st: November has 30 days, ignored
    days[10] = 2;  // bit 0 clear: no recording
    EXPECT_EQ(tool::format_calendar(2026, 11, days),
              "November 2026\n"
              " Mo  Tu  We  Th  Fr  Sa  Su\n"
              "                          1*\n"
              "  2   3   4   5   6   7   8\n"
              "  9  10  11  12  13  14  15\n"
              " 16  17  18  19  20  21  22*\n"
              " 23  24  25  26  27  28  29\n"
              " 30*\n"
              "3 days with recordings (*): 1, 22, 30\n");
}

TEST(ToolFormat, CalendarOfALeapFebruaryStartingOnMonday) {
    unsigned char days[tool::kCalendarDays] = {};
    days[28] = 1;  // 29 February 2028
    const std::string text = tool::format_calendar(2028, 2, days);
    EXPECT_EQ(text,
              "February 2028\n"
              " Mo  Tu  We  Th  Fr  Sa  Su\n"
              "      1   2   3   4   5   6\n"
              "  7   8   9  10  11  12  13\n"
              " 14  15  16  17  18  19  20\n"
              " 21  22  23  24  25  26  27\n"
              " 28  29*\n"
              "1 day with recordings (*): 29\n");
}

TEST(ToolFormat, CalendarWithoutRecordingsAndOutOfRangeMonths) {
    unsigned char days[tool::kCalendarDays] = {};
    const std::string text = tool::format_calendar(2027, 2, days);
    EXPECT_NE(text.find("0 days with recordings (*)\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" 22  23  24  25  26  27  28\n"), std::string::npos) << text;
    EXPECT_EQ(tool::format_calendar(2026, 0, days), "");
    EXPECT_EQ(tool::format_calendar(2026, 13, days), "");
    EXPECT_EQ(tool::format_calendar(1969, 5, days), "");
}

}  // namespace
