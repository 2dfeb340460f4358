// The GoogleTest forms of the disk aging helpers.
#include "aging_checks.h"

namespace aging {

namespace {

::testing::AssertionResult checked(bool ok, const std::string &error) {
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << error;
}

}  // namespace

::testing::AssertionResult make_image(const std::string &path, uint64_t bytes) {
    std::string error;
    const bool ok = make_image(path, bytes, &error);
    return checked(ok, error);
}

::testing::AssertionResult set_block_entry(const char *data_partition_path, uint32_t block_id,
                                           uint32_t entry) {
    std::string error;
    const bool ok = set_block_entry(data_partition_path, block_id, entry, &error);
    return checked(ok, error);
}

::testing::AssertionResult set_cluster_entry(const char *data_partition_path, uint32_t block_id,
                                             uint32_t index, uint32_t entry) {
    std::string error;
    const bool ok = set_cluster_entry(data_partition_path, block_id, index, entry, &error);
    return checked(ok, error);
}

::testing::AssertionResult fill_block(const char *data_partition_path, uint32_t block_id,
                                      uint32_t leave_free, uint32_t seq) {
    std::string error;
    const bool ok = fill_block(data_partition_path, block_id, leave_free, seq, &error);
    return checked(ok, error);
}

uint32_t read_entry(const char *data_partition_path, uint32_t map_cluster, uint32_t index) {
    std::string error;
    uint32_t entry = kUnreadableEntry;
    if (!read_entry(data_partition_path, map_cluster, index, &entry, &error)) {
        ADD_FAILURE() << error;
    }
    return entry;
}

}  // namespace aging
