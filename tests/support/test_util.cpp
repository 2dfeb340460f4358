// SPDX-License-Identifier: MIT
// Helpers shared by the tests: broken-down times, scratch directories, whole-file reads.
#include "test_util.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "recstore.h"

namespace recstore_test {

struct tm make_tm(int year, int mon1, int mday, int hour, int min, int sec) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = mon1 - 1;
    t.tm_mday = mday;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    return t;
}

struct tm utc_tm(uint32_t secs) {
    const time_t t = static_cast<time_t>(secs);
    struct tm out {};
    gmtime_r(&t, &out);
    return out;
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/recstore-test.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot create a scratch directory in /tmp");
    path_ = tmpl;
}

TempDir::~TempDir() {
    remove_file(path_.c_str(), 7);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

size_t occurrences(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) n++;
    return n;
}

}  // namespace recstore_test
