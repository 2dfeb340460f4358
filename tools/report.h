// SPDX-License-Identifier: MIT
// Printers of the search results and the month calendar. They take what the recording API
// hands out (rec_param and rec_find_info pairs, a 31-byte day array) and return the text.
#ifndef RECSTORE_TOOL_REPORT_H
#define RECSTORE_TOOL_REPORT_H

#include <string>
#include <vector>

#include "recstore.h"

namespace tool {

// One search result as the recording API returns it.
struct FoundRecording {
    rec_param record;    // start, channel, type
    rec_find_info info;  // disk, end, sizes
};

constexpr int kCalendarDays = 31;  // entries of a calendar's day array

// A table with one line per recording: channel, type, start, end, duration, size, disk; then a
// line with the number of recordings and their total size.
std::string format_find_table(const std::vector<FoundRecording> &found);

// The same as a JSON array of objects (channel, type, start, end, duration_s, bytes, disk,
// clusters, key_frames); times as "YYYY-MM-DD HH:MM:SS".
std::string format_find_json(const std::vector<FoundRecording> &found);

// A month grid (weeks from Monday) with the days whose bit 0 is set in days[day - 1] marked
// with '*', then the list of those days. year e.g. 2026, month 1-12; "" for a month out of range.
std::string format_calendar(int year, int month, const unsigned char (&days)[kCalendarDays]);

}  // namespace tool

#endif
