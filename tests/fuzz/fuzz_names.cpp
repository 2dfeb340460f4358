// SPDX-License-Identifier: MIT
// Fuzzes every parser of names found on disks and in the cache (index files, links, cache
// files, device and mount names) and the cache-tag decoder with arbitrary bytes.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "fs_tools.h"
#include "recstore.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    loglevel = 0;  // the parsers' messages are not what is being tested
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint32_t lo = 0, hi = 0;
    if (size >= 8) {
        memcpy(&lo, data, 4);
        memcpy(&hi, data + 4, 4);
    }
    std::string text(reinterpret_cast<const char *>(data), size);  // NUL-terminated copy
    const char *s = text.c_str();

    int disk = 0, channel = 0, type = 0, block = 0, mode = 0;
    unsigned total = 0;
    struct tm start = {}, end = {};
    filename_to_record(s, &channel, &start, &type);
    fullname_to_record(s, &disk, &channel, &start, &type);
    linkname_to_record(s, &disk, &block, &channel, &start, &type);
    cachefullname_to_record(s, &disk, &channel, &start, &type);
    cachetag_to_record(s, 0, lo, hi, &disk, &channel, &start, &end, &type, &mode, &total);
    todiskid(s);

    char small[12], path[RECSTORE_PATH_LEN];
    mount_point(s, small, sizeof small);
    mount_point(s, path, sizeof path);
    dev_name(s, small, sizeof small);
    tocachename(path, sizeof path, s);
    mk_parent(s, sizeof small, small);
    mk_parent(s, sizeof path, path);
    concat_path_file(path, sizeof path, s, s);
    last_char_is(s, '/');

    struct tm t = {};
    t.tm_hour = static_cast<int>(lo % 24);
    match_cachetag(lo, hi, &t);
    before_cachetag(lo, hi, &t);
    struct tm e = {};
    e.tm_year = 124;
    e.tm_mday = 1;
    filename_to_cachetag(&e, lo, hi, s);
    return 0;
}
