/* SPDX-License-Identifier: MIT */
/*
 * Reference host for librecstore.so.
 *
 * The library does not carry its own calendar arithmetic, clock or process launcher: the program
 * that loads it must define the seven functions and two globals below (they are undefined in the
 * library and resolved when the program is loaded). This static library is what a recorder's
 * host would supply; tests, tools and the demo link it whole.
 *
 * All calendar arithmetic here is UTC: no time zone is applied anywhere.
 */
#ifndef RECSTORE_HOST_H
#define RECSTORE_HOST_H

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Compares the calendar fields (year, month, day, hour, minute, second, in that order of
 * significance): negative when a is earlier than b, 0 when equal, positive when later. Fields are
 * compared as given, without normalising. */
int tm_cmp(const struct tm *a, const struct tm *b);

/* Seconds from a to b (b minus a), both read as UTC and normalised first. */
int tm_diff(const struct tm *a, const struct tm *b);

/* Writes into out the time `seconds` after base (negative goes back), normalised so that every
 * field is in range and the day of week and day of year are right. out may be base. */
void tm_offset_sec(const struct tm *base, int seconds, struct tm *out);

/* Days of the month: year as a full number (2024), month 1-12. 0 for a month outside 1-12. */
int daysofmonth(int year, int month);

/* Seconds since the epoch of t read as UTC (timegm); the scale of the seconds passed to seeks. */
long mktime_abs(const struct tm *t);

/* Monotonic milliseconds (CLOCK_MONOTONIC); the unit argument is ignored. */
uint64_t get_tick_count(int unit);

/* Runs command with "/bin/sh -c" through posix_spawn (no fork of a large process) and waits for
 * it. Returns the wait status as system(3) does: -1 when the shell cannot be started; for a null
 * command, non-zero when a shell is available. */
int pip_system(const char *command);

/* Log masks read by the library: loglevel bits 0x1 error, 0x2 warning, 0x8 information (values of
 * 0x10000 and more also make the library use system(3)); modulemask bit 0x200 is the library's.
 * Defaults: errors and warnings (0x3), module bit set (0x200). */
extern uint32_t loglevel;
extern uint32_t modulemask;

/* Number of commands pip_system has launched since the program started (a host statistic). */
extern unsigned recstore_host_pip_system_calls;

#ifdef __cplusplus
}
#endif

#endif
