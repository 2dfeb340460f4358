// Disk aging as the tests use it: the aging helpers without the error argument, their failures
// reported to the running GoogleTest test. The functions that succeed or fail give an assertion
// result that carries the reason, so ASSERT_TRUE(aging::fill_block(...)) prints it.
#ifndef RECSTORE_TEST_AGING_CHECKS_H
#define RECSTORE_TEST_AGING_CHECKS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "aging.h"

namespace aging {

::testing::AssertionResult make_image(const std::string &path, uint64_t bytes);
::testing::AssertionResult set_block_entry(const char *data_partition_path, uint32_t block_id,
                                           uint32_t entry);
::testing::AssertionResult set_cluster_entry(const char *data_partition_path, uint32_t block_id,
                                             uint32_t index, uint32_t entry);
::testing::AssertionResult fill_block(const char *data_partition_path, uint32_t block_id,
                                      uint32_t leave_free, uint32_t seq);
// The entry, or kUnreadableEntry after a failure added to the running test.
uint32_t read_entry(const char *data_partition_path, uint32_t map_cluster, uint32_t index);

}  // namespace aging

#endif
