// SPDX-License-Identifier: MIT
// The formatted disks of a rig test program: attached and formatted once before the first test.
#include "formatted_disks.h"

#include <unistd.h>

#include "capture.h"

namespace recording_test {

using recstore_test::StdoutCapture;

std::vector<rig::Disk> g_disks;

namespace {

constexpr uint64_t kDiskBytes = 200ull << 30;

class FormattedDisks : public ::testing::Environment {
  public:
    explicit FormattedDisks(int count) : count_(count) {}
    void SetUp() override {
        ASSERT_TRUE(rig::active()) << "run this program through tests/rig/rig-run as root";
        g_disks.resize(static_cast<size_t>(count_));
        for (int i = 0; i < count_; i++) {
            g_disks[static_cast<size_t>(i)] = rig::attach(static_cast<char>('a' + i), kDiskBytes);
            StdoutCapture out;
            const int result = fs_format(g_disks[static_cast<size_t>(i)].node.c_str());
            const std::string text = out.stop();
            ASSERT_EQ(result, 0) << text;
        }
    }
    void TearDown() override {
        for (rig::Disk &d : g_disks) {
            if (d.loop.empty()) continue;
            try {
                rig::unplug(d);
            } catch (const std::exception &e) {
                ADD_FAILURE() << e.what();
            }
            unlink(d.image.c_str());
        }
    }

  private:
    int count_;
};

}  // namespace

void use_formatted_disks(int count) {
    ::testing::AddGlobalTestEnvironment(new FormattedDisks(count));
}

}  // namespace recording_test
