// SPDX-License-Identifier: MIT
// Repeats every failed check at the very end of a test program's output. The rig tests print a
// lot of library log on purpose; when a run fails, CTest and CI keep only the tail of that output,
// so the failures themselves must come last to be seen.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

class FailureSummary : public ::testing::EmptyTestEventListener {
  public:
    void OnTestStart(const ::testing::TestInfo &info) override {
        current_ = std::string(info.test_suite_name()) + "." + info.name();
    }
    void OnTestEnd(const ::testing::TestInfo &) override { current_ = "(outside a test)"; }

    // Called with GoogleTest's own lock held: it must not ask the UnitTest for anything.
    void OnTestPartResult(const ::testing::TestPartResult &result) override {
        if (!result.failed()) return;
        std::string where = current_ + " at ";
        where += result.file_name() ? result.file_name() : "?";
        where += ":" + std::to_string(result.line_number());
        failures_.push_back(where + "\n" + result.message());
    }

    void OnTestProgramEnd(const ::testing::UnitTest &) override {
        if (failures_.empty()) return;
        std::fflush(stdout);
        std::printf("\n==== %zu failed check(s), repeated here:\n", failures_.size());
        for (const std::string &f : failures_) std::printf("---- %s\n", f.c_str());
        std::fflush(stdout);
    }

  private:
    std::string current_ = "(outside a test)";
    std::vector<std::string> failures_;
};

// Registered before main runs; GoogleTest owns the listener from here on.
const bool g_registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new FailureSummary);
    return true;
}();

}  // namespace
