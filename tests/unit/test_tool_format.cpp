// The recstore tool's printers (the search-result table and JSON, the month calendar) and its
// shared command-line pieces: option parsing, JSON strings and the progress line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cli.h"
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

// ---- option parsing ------------------------------------------------------------------------

// argv of a subcommand from words (argv[0] is the command's name).
struct Argv {
    explicit Argv(std::vector<std::string> words) : words_(std::move(words)) {
        for (std::string &w : words_) ptrs_.push_back(&w[0]);
        ptrs_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(words_.size()); }
    char **argv() { return ptrs_.data(); }

  private:
    std::vector<std::string> words_;
    std::vector<char *> ptrs_;
};

bool parse(std::vector<std::string> words, tool::Args *args, std::string *error) {
    Argv a(std::move(words));
    return tool::parse_args(a.argc(), a.argv(), {"--disk", "--seconds"}, {"--json", "--fast"}, args,
                            error);
}

TEST(ToolOptions, ValuesSeparateOrAfterEqualsFlagsAndWordsMixed) {
    tool::Args args;
    std::string error;
    ASSERT_TRUE(parse({"find", "--disk", "/dev/hd/sda", "w1", "--seconds=5", "--json", "w2"}, &args,
                      &error))
        << error;
    EXPECT_EQ(args.value("--disk"), "/dev/hd/sda");
    EXPECT_EQ(args.value("--seconds"), "5");
    EXPECT_TRUE(args.has("--json"));
    EXPECT_FALSE(args.has("--fast"));
    EXPECT_EQ(args.words, (std::vector<std::string>{"w1", "w2"}));
}

TEST(ToolOptions, OptionsAfterWordsCountEvenWithPosixlyCorrectSet) {
    setenv("POSIXLY_CORRECT", "1", 1);
    tool::Args args;
    std::string error;
    const bool ok = parse({"check", "/dev/hd/sda", "--json", "w2"}, &args, &error);
    unsetenv("POSIXLY_CORRECT");
    ASSERT_TRUE(ok) << error;
    EXPECT_TRUE(args.has("--json"));
    EXPECT_EQ(args.words, (std::vector<std::string>{"/dev/hd/sda", "w2"}));
}

TEST(ToolOptions, DoubleDashEndsTheOptions) {
    tool::Args args;
    std::string error;
    ASSERT_TRUE(parse({"check", "--fast", "--", "--json", "-x"}, &args, &error)) << error;
    EXPECT_TRUE(args.has("--fast"));
    EXPECT_FALSE(args.has("--json"));
    EXPECT_EQ(args.words, (std::vector<std::string>{"--json", "-x"}));
    Argv help({"check", "--", "--help"});
    EXPECT_FALSE(tool::wants_help(help.argc(), help.argv()));
    Argv asked({"check", "--help", "--"});
    EXPECT_TRUE(tool::wants_help(asked.argc(), asked.argv()));
}

TEST(ToolOptions, ErrorsSayWhatIsWrong) {
    tool::Args args;
    std::string error;
    EXPECT_FALSE(parse({"find", "--nosuch"}, &args, &error));
    EXPECT_EQ(error, "unknown option \"--nosuch\"");
    EXPECT_FALSE(parse({"find", "--nosuch=3"}, &args, &error));
    EXPECT_EQ(error, "unknown option \"--nosuch\"");
    EXPECT_FALSE(parse({"find", "-q"}, &args, &error));
    EXPECT_EQ(error, "unknown option \"-q\"");
    EXPECT_FALSE(parse({"find", "--disk"}, &args, &error));
    EXPECT_EQ(error, "option --disk needs a value");
    EXPECT_FALSE(parse({"find", "--json=1"}, &args, &error));
    EXPECT_EQ(error, "option --json takes no value");
    // A second parse starts afresh.
    tool::Args again;
    ASSERT_TRUE(parse({"find", "--json"}, &again, &error)) << error;
    EXPECT_TRUE(again.has("--json"));
}

TEST(ToolJson, StringsAreQuotedAndEscaped) {
    EXPECT_EQ(tool::json_string("plain"), "\"plain\"");
    EXPECT_EQ(tool::json_string("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
}

// ---- progress line -------------------------------------------------------------------------

std::string read_all(int fd) {
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

TEST(ToolProgress, NothingAndNoCarriageReturnWhenNotATerminal) {
    FILE *file = tmpfile();
    ASSERT_NE(file, nullptr);
    {
        tool::ProgressLine line(file);
        EXPECT_FALSE(line.shown());
        line.update("  1.0 s  4 channels");
        line.update("  2.0 s  4 channels");
        line.finish();
        tool::ProgressTicker ticker(file, "checking");
        ticker.stop();
    }
    fflush(file);
    rewind(file);
    const std::string out = read_all(fileno(file));
    fclose(file);
    EXPECT_EQ(out.find('\r'), std::string::npos) << out;
    EXPECT_EQ(out, "");
}

TEST(ToolProgress, RewritesTheLineInPlaceOnATerminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    FILE *term = fdopen(slave, "w");
    ASSERT_NE(term, nullptr);
    {
        tool::ProgressLine line(term);
        EXPECT_TRUE(line.shown());
        line.update("longer line");
        line.update("short");
        line.finish();
    }
    fclose(term);
    fcntl(master, F_SETFL, O_NONBLOCK);
    const std::string out = read_all(master);
    close(master);
    // The terminal turns the final newline into "\r\n".
    EXPECT_EQ(out, "\rlonger line\rshort      \r\n") << out;
}

}  // namespace
