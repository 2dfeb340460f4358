// The search and the month calendar over every disk that is up: rec_find_open paged to the end,
// each result completed from its record info, and rec_get_calendar.
#include "search.h"

#include <string.h>

#include "recstore.h"

namespace tool {

namespace {

constexpr int kMaxResults = 100000;
constexpr int kPage = 64;
constexpr int kAnyMode = 0xFF;
constexpr int kOverlapping = RECSTORE_MATCH_BEGINS_INSIDE | RECSTORE_MATCH_ENDS_INSIDE |
                             RECSTORE_MATCH_INSIDE | RECSTORE_MATCH_COVERS;
constexpr int kByChannelThenTime = 3;

// Fills the record info of one result from the recording itself (disk, end, counts).
bool complete(FoundRecording *r) {
    struct tm start;
    from_fs_tm(&start, &r->record.start);
    const int h = rec_open(static_cast<int>(r->record.channel), &start,
                           static_cast<int>(r->record.type), 0, 0, 0, 0, 0);
    if (h < 0) return false;
    recordinfo info;
    const bool ok = rec_stat(h, &info) == 0;
    if (ok) {
        rec_find_info &f = r->info;
        f.disk_id = g_recctx.streams[h].disk_id;
        f.channel = info.channel;
        f.start_time = info.start_time;
        f.end_time = info.end_time;
        f.mode = info.mode;
        f.entry_count = info.entry_count;
        f.total_bytes_lo = static_cast<uint32_t>(info.total_bytes);
        f.total_bytes_hi = static_cast<uint32_t>(info.total_bytes >> 32);
        f.frame_count = info.frame_count;
        f.attr_d = info.attr_d;
        f.has_ext = info.ext_magic == RECSTORE_EXT_MAGIC ? 1 : 0;
    }
    rec_close(h, nullptr);
    return ok;
}

}  // namespace

bool search_recordings(const struct tm &from, const struct tm &to, uint64_t mask, int type,
                       std::vector<FoundRecording> *out, std::string *error) {
    const int h = rec_find_open(&from, &to, mask, type, kAnyMode, kOverlapping, kMaxResults,
                                kByChannelThenTime);
    if (h < 0) {
        *error =
            "the search could not be opened (is the library up, and are fewer than eight "
            "searches open?)";
        return false;
    }
    rec_param recs[kPage];
    rec_find_info infos[kPage];
    for (;;) {
        const int n = rec_find_next(h, recs, infos, kPage);
        if (n <= 0) break;
        for (int i = 0; i < n; i++) out->push_back(FoundRecording{recs[i], infos[i]});
    }
    rec_find_close(h);
    int lost = 0;
    for (FoundRecording &r : *out) {
        if (!complete(&r)) lost++;
    }
    if (lost > 0) {
        *error = std::to_string(lost) + " recording(s) found could not be opened";
        return false;
    }
    return true;
}

bool month_calendar(uint64_t mask, int year, int month, unsigned char (&days)[kCalendarDays],
                    std::string *error) {
    memset(days, 0, sizeof days);
    if (rec_get_calendar(static_cast<uint32_t>(mask), static_cast<uint32_t>(mask >> 32), year,
                         month, days) != 0) {
        *error = "the calendar could not be read (is the library up?)";
        return false;
    }
    return true;
}

}  // namespace tool
