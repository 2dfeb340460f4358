// SPDX-License-Identifier: MIT
// Small helpers shared by the tests: building broken-down times, scratch directories and whole
// file reads.
#ifndef RECSTORE_TEST_UTIL_H
#define RECSTORE_TEST_UTIL_H

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace recstore_test {

// A broken-down time from calendar values as people write them (year 2024, month 1-12).
struct tm make_tm(int year, int mon1, int mday, int hour = 0, int min = 0, int sec = 0);

// The broken-down UTC time of a count of seconds since 1970.
struct tm utc_tm(uint32_t secs);

// A scratch directory under /tmp, removed with its contents when the object goes away.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The whole content of a file ("" when it cannot be read).
std::string read_file(const std::string &path);

// Creates or replaces a file with the given content.
void write_file(const std::string &path, const std::string &content = "");

// True when `part` occurs in `text`.
bool contains(const std::string &text, const std::string &part);

// How many times `part` occurs in `text`, overlapping occurrences included.
size_t occurrences(const std::string &text, const std::string &part);

}  // namespace recstore_test

#endif
