// Stands in for the test framework's header when the tool's rig helpers are built without it:
// the disk-aging helpers report a failed step with ADD_FAILURE() << ..., which here prints the
// message on standard error, as the framework does for a failure outside a test.
#pragma once

#include <iostream>
#include <sstream>

namespace recstore_tool {

// One failure report: collects the streamed text and prints it as one line when done.
class FailureReport {
  public:
    FailureReport() = default;
    FailureReport(const FailureReport &) = delete;
    FailureReport &operator=(const FailureReport &) = delete;
    ~FailureReport() { std::cerr << text_.str() << '\n'; }

    template <typename T>
    FailureReport &operator<<(const T &value) {
        text_ << value;
        return *this;
    }

  private:
    std::ostringstream text_;
};

}  // namespace recstore_tool

#define ADD_FAILURE() ::recstore_tool::FailureReport()
