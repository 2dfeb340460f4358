// Printers of the search results and the month calendar.
#include "report.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "cli.h"
#include "fs_tools.h"

namespace tool {

namespace {

time_t seconds_of(const fs_tm &t) {
    struct tm b;
    memset(&b, 0, sizeof b);
    b.tm_year = t.tm_year;
    b.tm_mon = t.tm_mon;
    b.tm_mday = t.tm_mday;
    b.tm_hour = t.tm_hour;
    b.tm_min = t.tm_min;
    b.tm_sec = t.tm_sec;
    return timegm(&b);
}

std::string time_text(const fs_tm &t) {
    char text[80];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
             t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

uint64_t bytes_of(const rec_find_info &i) {
    return static_cast<uint64_t>(i.total_bytes_hi) << 32 | i.total_bytes_lo;
}

long duration_of(const FoundRecording &f) {
    return static_cast<long>(seconds_of(f.info.end_time) - seconds_of(f.record.start));
}

}  // namespace

std::string format_find_table(const std::vector<FoundRecording> &found) {
    std::string out;
    char line[200];
    snprintf(line, sizeof line, "%-7s %-4s %-19s  %-19s  %9s  %10s  %s\n", "channel", "type",
             "start", "end", "duration", "size", "disk");
    out += line;
    uint64_t total = 0;
    for (const FoundRecording &f : found) {
        const uint64_t bytes = bytes_of(f.info);
        total += bytes;
        snprintf(line, sizeof line, "%7u %4u %-19s  %-19s  %9s  %10s  sd%c\n", f.record.channel,
                 f.record.type, time_text(f.record.start).c_str(),
                 time_text(f.info.end_time).c_str(), format_duration(duration_of(f)).c_str(),
                 human_size(bytes).c_str(),
                 recstore::valid_disk_id(f.info.disk_id) ? static_cast<char>('a' + f.info.disk_id)
                                                         : '?');
        out += line;
    }
    snprintf(line, sizeof line, "%zu recording%s, %s\n", found.size(), found.size() == 1 ? "" : "s",
             human_size(total).c_str());
    out += line;
    return out;
}

std::string format_find_json(const std::vector<FoundRecording> &found) {
    std::string out = "[";
    char item[400];
    for (size_t i = 0; i < found.size(); i++) {
        const FoundRecording &f = found[i];
        snprintf(item, sizeof item,
                 "%s\n  {\"channel\": %u, \"type\": %u, \"start\": \"%s\", \"end\": \"%s\", "
                 "\"duration_s\": %ld, \"bytes\": %llu, \"disk\": %d, \"clusters\": %u, "
                 "\"key_frames\": %u}",
                 i == 0 ? "" : ",", f.record.channel, f.record.type,
                 time_text(f.record.start).c_str(), time_text(f.info.end_time).c_str(),
                 duration_of(f), static_cast<unsigned long long>(bytes_of(f.info)), f.info.disk_id,
                 f.info.entry_count, f.info.frame_count);
        out += item;
    }
    out += found.empty() ? "]\n" : "\n]\n";
    return out;
}

std::string format_calendar(int year, int month, const unsigned char (&days)[kCalendarDays]) {
    static const char *const kMonths[] = {"January",   "February", "March",    "April",
                                          "May",       "June",     "July",     "August",
                                          "September", "October",  "November", "December"};
    if (year < 1970 || year > 2099 || month < 1 || month > 12) return "";
    struct tm first;
    memset(&first, 0, sizeof first);
    first.tm_year = year - 1900;
    first.tm_mon = month - 1;
    first.tm_mday = 1;
    const time_t start = timegm(&first);
    struct tm next = first;
    next.tm_mon += 1;
    const int length = static_cast<int>((timegm(&next) - start) / 86400);
    gmtime_r(&start, &first);
    const int lead = (first.tm_wday + 6) % 7;  // Monday first

    std::string out;
    char line[64];
    snprintf(line, sizeof line, "%s %d\n", kMonths[month - 1], year);
    out += line;
    out += " Mo  Tu  We  Th  Fr  Sa  Su\n";
    int column = 0;
    for (int i = 0; i < lead; i++, column++) out += "    ";
    std::string marked;
    int count = 0;
    for (int d = 1; d <= length; d++) {
        const bool has = (days[d - 1] & 1) != 0;
        snprintf(line, sizeof line, " %2d%c", d, has ? '*' : ' ');
        out += line;
        if (has) {
            marked += (count == 0 ? " " : ", ") + std::to_string(d);
            count++;
        }
        if (++column == 7 || d == length) {
            while (!out.empty() && out.back() == ' ') out.pop_back();
            out += "\n";
            column = 0;
        }
    }
    snprintf(line, sizeof line, "%d day%s with recordings (*)", count, count == 1 ? "" : "s");
    out += line;
    out += count > 0 ? ":" + marked + "\n" : "\n";
    return out;
}

}  // namespace tool
