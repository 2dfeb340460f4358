// SPDX-License-Identifier: MIT
// Standard-output capture and log-mask scoping for the tests.
#include "capture.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>

#include "recstore.h"

namespace recstore_test {

StdoutCapture::StdoutCapture() {
    fflush(stdout);
    char name[] = "/tmp/recstore-capture.XXXXXX";
    file_fd_ = mkstemp(name);
    if (file_fd_ < 0) throw std::runtime_error("cannot create a capture file in /tmp");
    unlink(name);
    saved_fd_ = dup(1);
    dup2(file_fd_, 1);
}

StdoutCapture::~StdoutCapture() {
    if (saved_fd_ >= 0) stop();
}

std::string StdoutCapture::stop() {
    if (saved_fd_ < 0) return text_;
    fflush(stdout);
    dup2(saved_fd_, 1);
    close(saved_fd_);
    saved_fd_ = -1;
    lseek(file_fd_, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(file_fd_, buf, sizeof buf)) > 0) text_.append(buf, static_cast<size_t>(n));
    close(file_fd_);
    file_fd_ = -1;
    return text_;
}

LogMask::LogMask(unsigned level, unsigned module)
    : saved_level_(loglevel), saved_module_(modulemask) {
    loglevel = level;
    modulemask = module;
}

LogMask::~LogMask() {
    loglevel = saved_level_;
    modulemask = saved_module_;
}

}  // namespace recstore_test
