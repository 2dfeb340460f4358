// SPDX-License-Identifier: MIT
// Unit tests of the reference host: the calendar arithmetic, clock and process launcher that a
// recorder's application supplies to the library.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "recstore_host.h"
#include "test_util.h"

using recstore_test::make_tm;

TEST(Host, CompareOrdersByCalendarFields) {
    struct tm a = make_tm(2024, 5, 17, 8, 9, 10);
    struct tm b = a;
    EXPECT_EQ(tm_cmp(&a, &b), 0);
    b.tm_sec = 11;
    EXPECT_LT(tm_cmp(&a, &b), 0);
    EXPECT_GT(tm_cmp(&b, &a), 0);
    struct tm c = make_tm(2023, 12, 31, 23, 59, 59);
    EXPECT_GT(tm_cmp(&a, &c), 0);
    c.tm_wday = 3;  // day of week is not a calendar field of the comparison
    struct tm d = make_tm(2023, 12, 31, 23, 59, 59);
    EXPECT_EQ(tm_cmp(&c, &d), 0);
}

TEST(Host, DiffIsSecondsFromAToB) {
    struct tm a = make_tm(2024, 2, 28, 23, 0, 0);
    struct tm b = make_tm(2024, 3, 1, 1, 0, 0);
    EXPECT_EQ(tm_diff(&a, &b), 26 * 3600);  // 2024 is a leap year
    EXPECT_EQ(tm_diff(&b, &a), -26 * 3600);
}

TEST(Host, OffsetNormalisesAcrossMonthsAndYears) {
    struct tm t = make_tm(2023, 12, 31, 23, 59, 30);
    struct tm out;
    tm_offset_sec(&t, 45, &out);
    EXPECT_EQ(out.tm_year, 124);
    EXPECT_EQ(out.tm_mon, 0);
    EXPECT_EQ(out.tm_mday, 1);
    EXPECT_EQ(out.tm_hour, 0);
    EXPECT_EQ(out.tm_min, 0);
    EXPECT_EQ(out.tm_sec, 15);
    EXPECT_EQ(out.tm_wday, 1);       // 1 January 2024 was a Monday
    tm_offset_sec(&out, -45, &out);  // out may be the base itself
    EXPECT_EQ(tm_cmp(&out, &t), 0);
}

TEST(Host, DaysOfMonth) {
    EXPECT_EQ(daysofmonth(2024, 2), 29);
    EXPECT_EQ(daysofmonth(2023, 2), 28);
    EXPECT_EQ(daysofmonth(1900, 2), 28);
    EXPECT_EQ(daysofmonth(2000, 2), 29);
    EXPECT_EQ(daysofmonth(2024, 1), 31);
    EXPECT_EQ(daysofmonth(2024, 4), 30);
    EXPECT_EQ(daysofmonth(2024, 12), 31);
    EXPECT_EQ(daysofmonth(2024, 0), 0);
    EXPECT_EQ(daysofmonth(2024, 13), 0);
}

TEST(Host, MktimeAbsIsUtc) {
    struct tm epoch = make_tm(1970, 1, 1);
    EXPECT_EQ(mktime_abs(&epoch), 0);
    struct tm t = make_tm(2024, 5, 17, 8, 9, 10);
    EXPECT_EQ(mktime_abs(&t), 1715933350L);
}

TEST(Host, TickIsMonotonicMilliseconds) {
    uint64_t a = get_tick_count(1);
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
    uint64_t b = get_tick_count(1);
    EXPECT_GE(b, a + 20);
}

TEST(Host, PipSystemReturnsStatusLikeSystem) {
    unsigned before = recstore_host_pip_system_calls;
    int status = pip_system("exit 7");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(pip_system("true"), 0);
    EXPECT_EQ(recstore_host_pip_system_calls, before + 2);
    status = pip_system("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_NE(pip_system(nullptr), 0);  // a shell is available
}

TEST(Host, DefaultMasksShowErrorsAndWarningsOfTheLibrary) {
    EXPECT_EQ(loglevel, 0x3u);
    EXPECT_EQ(modulemask & 0x200u, 0x200u);
}
