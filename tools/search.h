// SPDX-License-Identifier: MIT
// The search and the month calendar over every disk that is up, as the find and calendar
// commands and the demo use them.
#ifndef RECSTORE_TOOL_SEARCH_H
#define RECSTORE_TOOL_SEARCH_H

#include <time.h>

#include <string>
#include <vector>

#include "report.h"

namespace tool {

// Every recording of the channels in `mask` and of `type` that overlaps [from, to], sorted by
// channel then start. The cache search hands out only the mode and the size of a recording, so
// each one found is opened once to complete its disk, end and counts. False with *error.
bool search_recordings(const struct tm &from, const struct tm &to, uint64_t mask, int type,
                       std::vector<FoundRecording> *out, std::string *error);

// The days of a month holding recordings of the channels in `mask`.
bool month_calendar(uint64_t mask, int year, int month, unsigned char (&days)[kCalendarDays],
                    std::string *error);

}  // namespace tool

#endif
