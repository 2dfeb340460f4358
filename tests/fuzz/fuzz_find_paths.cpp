// SPDX-License-Identifier: MIT
// Fuzzes the search and calendar walk actions with arbitrary paths below the cache and index
// roots and arbitrary requests: the name parsers, the level decisions, the channel tests and the
// calendar's report must take any name without reading or writing out of bounds. No disk is
// initialised, so index files are never opened; cache paths that do not exist fail to open.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "fs_tools.h"
#include "recstore.h"

namespace {

constexpr size_t kHeader = 24;  // bytes taken for the request before the path

int accept_found(const fs_find_record *, const recordinfo *, void *) {
    return 1;
}

int accept_day(fs_calendar_req *, void *) {
    return 1;
}

uint32_t word_at(const uint8_t *data, size_t at) {
    uint32_t w = 0;
    memcpy(&w, data + at, sizeof w);
    return w;
}

// A broken-down time from one word: fields in their ranges or somewhat beyond them.
struct tm time_of(uint32_t w) {
    struct tm t = {};
    t.tm_year = 100 + static_cast<int>(w % 40);
    t.tm_mon = static_cast<int>((w >> 6) % 13);
    t.tm_mday = static_cast<int>((w >> 10) % 33);
    t.tm_hour = static_cast<int>((w >> 16) % 25);
    t.tm_min = static_cast<int>((w >> 21) % 61);
    t.tm_sec = static_cast<int>((w >> 27) % 61);
    return t;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    loglevel = 0;  // the messages are not what is being tested
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < kHeader) return 0;
    const uint32_t sel = word_at(data, 0);
    const uint64_t chanbits = (static_cast<uint64_t>(word_at(data, 8)) << 32) | word_at(data, 4);
    const struct tm a = time_of(word_at(data, 12));
    const struct tm b = time_of(word_at(data, 16));
    const uint32_t misc = word_at(data, 20);
    static const char *const kRoots[] = {"/mnt/cache/sda/", "/mnt/sda/", "/mnt/cache/sd", "/mnt/sd",
                                         ""};
    std::string path = kRoots[(sel >> 8) % 5];
    path.append(reinterpret_cast<const char *>(data + kHeader), size - kHeader);
    const char *p = path.c_str();  // stops at the first NUL of the input

    fs_find_req find = {};
    find.disk = static_cast<int>(misc % 10);
    find.chanbits = chanbits;
    find.substream = static_cast<int>((misc >> 4) % 4);
    find.modmask = static_cast<int>((misc >> 8) & 0xFF);
    find.matchflags = static_cast<int>((misc >> 16) & 0xF);  // never the fast path: no stat
    find.maxcount = static_cast<int>((misc >> 20) % 8);
    find.start = a;
    find.end = b;
    find.callback = accept_found;

    fs_calendar_req cal = {};
    cal.disk = find.disk;
    cal.chanbits = chanbits;
    cal.day = static_cast<int>(misc % 31);
    cal.start = a;
    cal.end = b;
    cal.callback = (sel & 0x10000) ? accept_day : nullptr;

    switch (sel % 4) {
        case 0:
            cache_findaction(p, nullptr, &find);
            break;
        case 1:
            file_findaction(p, nullptr, &find);
            break;
        case 2:
            cache_calendar_action(p, &cal);
            break;
        default:
            file_calendar_action(p, &cal);
            break;
    }
    return 0;
}
