// SPDX-License-Identifier: MIT
// Captures what the code under test writes to standard output (descriptor 1), so that tests can
// check the library's messages byte for byte.
#ifndef RECSTORE_TEST_CAPTURE_H
#define RECSTORE_TEST_CAPTURE_H

#include <string>

namespace recstore_test {

class StdoutCapture {
  public:
    StdoutCapture();   // starts capturing
    ~StdoutCapture();  // stops capturing if still running
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    // Stops capturing and returns everything written since the start.
    std::string stop();

  private:
    int saved_fd_ = -1;
    int file_fd_ = -1;
    std::string text_;
};

// Sets the host's log masks for the lifetime of the object and restores them afterwards.
class LogMask {
  public:
    LogMask(unsigned level, unsigned module = 0x200);
    ~LogMask();

  private:
    unsigned saved_level_, saved_module_;
};

}  // namespace recstore_test

#endif
