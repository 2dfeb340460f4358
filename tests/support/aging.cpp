// Disk aging for tests: raw little-endian map entries written straight into a data partition.
#include "aging.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include <gtest/gtest.h>

namespace aging {

namespace {

void store_le32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

uint32_t load_le32(const unsigned char *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

off64_t position(uint32_t cluster, uint32_t index) {
    return static_cast<off64_t>(cluster) * kClusterBytes + static_cast<off64_t>(index) * 4;
}

bool write_at(const char *path, off64_t pos, const void *data, size_t n) {
    const int fd = open(path, O_WRONLY | O_LARGEFILE);
    if (fd < 0) {
        ADD_FAILURE() << "aging: cannot open " << path;
        return false;
    }
    const ssize_t got = pwrite64(fd, data, n, pos);
    close(fd);
    if (got != static_cast<ssize_t>(n)) {
        ADD_FAILURE() << "aging: short write at " << pos << " of " << path;
        return false;
    }
    return true;
}

}  // namespace

bool make_image(const std::string &path, uint64_t bytes) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE, 0644);
    if (fd < 0) {
        ADD_FAILURE() << "aging: cannot create " << path;
        return false;
    }
    const bool ok = ftruncate64(fd, static_cast<off64_t>(bytes)) == 0;
    close(fd);
    if (!ok) ADD_FAILURE() << "aging: cannot size " << path;
    return ok;
}

bool set_block_entry(const char *data_partition_path, uint32_t block_id, uint32_t entry) {
    if (block_id < 1) {
        ADD_FAILURE() << "aging: block ids start at 1";
        return false;
    }
    unsigned char raw[4];
    store_le32(raw, entry);
    return write_at(data_partition_path, position(0, block_id - 1), raw, sizeof(raw));
}

bool set_cluster_entry(const char *data_partition_path, uint32_t block_id, uint32_t index,
                       uint32_t entry) {
    if (block_id < 1 || index >= kClustersPerBlock) {
        ADD_FAILURE() << "aging: bad block " << block_id << " or index " << index;
        return false;
    }
    unsigned char raw[4];
    store_le32(raw, entry);
    return write_at(data_partition_path, position(block_id, index), raw, sizeof(raw));
}

uint32_t read_entry(const char *data_partition_path, uint32_t map_cluster, uint32_t index) {
    const int fd = open(data_partition_path, O_RDONLY | O_LARGEFILE);
    if (fd < 0) {
        ADD_FAILURE() << "aging: cannot open " << data_partition_path;
        return 0xFFFFFFFFu;
    }
    unsigned char raw[4];
    const ssize_t got = pread64(fd, raw, sizeof(raw), position(map_cluster, index));
    close(fd);
    if (got != static_cast<ssize_t>(sizeof(raw))) {
        ADD_FAILURE() << "aging: cannot read entry " << index << " of cluster " << map_cluster;
        return 0xFFFFFFFFu;
    }
    return load_le32(raw);
}

bool fill_block(const char *data_partition_path, uint32_t block_id, uint32_t leave_free,
                uint32_t seq) {
    if (block_id < 1 || leave_free > kClustersPerBlock) {
        ADD_FAILURE() << "aging: bad block " << block_id << " or leave_free " << leave_free;
        return false;
    }
    std::vector<unsigned char> map(kClusterBytes, 0);
    const uint32_t busy = kClustersPerBlock - leave_free;
    for (uint32_t k = 0; k < busy; ++k) store_le32(&map[k * 4], busy_entry(seq));
    return write_at(data_partition_path, position(block_id, 0), map.data(), map.size()) &&
           set_block_entry(data_partition_path, block_id, busy_entry(seq));
}

}  // namespace aging
