// Disk aging: raw little-endian map entries written straight into a data partition. Failures are
// returned with a message, never reported to a test framework.
#include "aging.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "fs_tools.h"

namespace aging {

namespace {

off64_t position(uint32_t cluster, uint32_t index) {
    return static_cast<off64_t>(cluster) * kClusterBytes +
           static_cast<off64_t>(index) * recstore::kEntryBytes;
}

bool fail(std::string *error, const std::string &why) {
    if (error != nullptr) *error = "aging: " + why;
    return false;
}

bool write_at(const char *path, off64_t pos, const void *data, size_t n, std::string *error) {
    recstore::PlainFdGuard fd(open(path, O_WRONLY | O_LARGEFILE));
    if (fd.get() < 0) return fail(error, std::string("cannot open ") + path);
    const ssize_t got = pwrite64(fd.get(), data, n, pos);
    if (got != static_cast<ssize_t>(n)) {
        return fail(error, "short write at " + std::to_string(pos) + " of " + path);
    }
    return true;
}

}  // namespace

bool make_image(const std::string &path, uint64_t bytes, std::string *error) {
    recstore::PlainFdGuard fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE, 0644));
    if (fd.get() < 0) return fail(error, "cannot create " + path);
    if (ftruncate64(fd.get(), static_cast<off64_t>(bytes)) != 0) {
        return fail(error, "cannot size " + path);
    }
    return true;
}

bool set_block_entry(const char *data_partition_path, uint32_t block_id, uint32_t entry,
                     std::string *error) {
    if (block_id < 1) return fail(error, "block ids start at 1");
    unsigned char raw[recstore::kEntryBytes];
    recstore::le32_store(raw, entry);
    return write_at(data_partition_path, position(0, block_id - 1), raw, sizeof(raw), error);
}

bool set_cluster_entry(const char *data_partition_path, uint32_t block_id, uint32_t index,
                       uint32_t entry, std::string *error) {
    if (block_id < 1 || index >= kClustersPerBlock) {
        return fail(error,
                    "bad block " + std::to_string(block_id) + " or index " + std::to_string(index));
    }
    unsigned char raw[recstore::kEntryBytes];
    recstore::le32_store(raw, entry);
    return write_at(data_partition_path, position(block_id, index), raw, sizeof(raw), error);
}

bool read_entry(const char *data_partition_path, uint32_t map_cluster, uint32_t index,
                uint32_t *entry, std::string *error) {
    *entry = kUnreadableEntry;
    recstore::PlainFdGuard fd(open(data_partition_path, O_RDONLY | O_LARGEFILE));
    if (fd.get() < 0) return fail(error, std::string("cannot open ") + data_partition_path);
    unsigned char raw[recstore::kEntryBytes];
    const ssize_t got = pread64(fd.get(), raw, sizeof(raw), position(map_cluster, index));
    if (got != static_cast<ssize_t>(sizeof(raw))) {
        return fail(error, "cannot read entry " + std::to_string(index) + " of cluster " +
                               std::to_string(map_cluster));
    }
    *entry = recstore::le32_load(raw);
    return true;
}

bool fill_block(const char *data_partition_path, uint32_t block_id, uint32_t leave_free,
                uint32_t seq, std::string *error) {
    if (block_id < 1 || leave_free > kClustersPerBlock) {
        return fail(error, "bad block " + std::to_string(block_id) + " or leave_free " +
                               std::to_string(leave_free));
    }
    std::vector<unsigned char> map(kClusterBytes, 0);
    const uint32_t busy = kClustersPerBlock - leave_free;
    for (uint32_t k = 0; k < busy; ++k) {
        recstore::le32_store(&map[k * recstore::kEntryBytes], busy_entry(seq));
    }
    return write_at(data_partition_path, position(block_id, 0), map.data(), map.size(), error) &&
           set_block_entry(data_partition_path, block_id, busy_entry(seq), error);
}

}  // namespace aging
