// SPDX-License-Identifier: MIT
// Read-only views of a disk for the inspect and check commands.
#include "disk_view.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "bitmap.h"
#include "cli.h"
#include "data_zone.h"
#include "fs_tools.h"
#include "fstype_old.h"

namespace tool {

namespace {

constexpr uint64_t kSector = 512;
constexpr uint32_t kMbrTableAt = 446;  // four 16-byte entries
constexpr uint32_t kMbrEntryBytes = 16;
constexpr uint8_t kMbrProtectiveGpt = 0xEE;
constexpr int kMbrEntries = 4;
constexpr char kGptSignature[] = "EFI PART";
constexpr uint32_t kGptEntryFirstLba = 32;
constexpr uint32_t kGptEntryLastLba = 40;
constexpr uint32_t kGptMaxEntries = 128;
constexpr uint32_t kEntryBytesOnDisk = recstore::kIndexEntrySize;  // an index entry

bool pread_all(int fd, void *buf, size_t n, uint64_t at) {
    size_t done = 0;
    while (done < n) {
        const ssize_t r =
            pread64(fd, static_cast<char *>(buf) + done, n - done, static_cast<off64_t>(at + done));
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

bool read_gpt(int fd, std::vector<PartitionSpan> *parts, std::string *error) {
    unsigned char header[kSector];
    if (!pread_all(fd, header, sizeof header, kSector)) {
        *error = "cannot read the GPT header";
        return false;
    }
    if (memcmp(header, kGptSignature, 8) != 0) {
        *error = "protective MBR without a GPT header";
        return false;
    }
    const uint64_t table_lba = recstore::le64_load(header + 72);
    const uint32_t count = std::min(recstore::le32_load(header + 80), kGptMaxEntries);
    const uint32_t size = recstore::le32_load(header + 84);
    if (size < 128 || size > 4096) {
        *error = "GPT entry size out of range";
        return false;
    }
    std::vector<unsigned char> table(static_cast<size_t>(count) * size);
    if (!pread_all(fd, table.data(), table.size(), table_lba * kSector)) {
        *error = "cannot read the GPT entries";
        return false;
    }
    for (uint32_t i = 0; i < count; i++) {
        const unsigned char *e = table.data() + static_cast<size_t>(i) * size;
        const uint64_t first = recstore::le64_load(e + kGptEntryFirstLba);
        const uint64_t last = recstore::le64_load(e + kGptEntryLastLba);
        if (first == 0 || last < first) continue;
        parts->push_back({first * kSector, (last - first + 1) * kSector});
    }
    return true;
}

}  // namespace

bool read_partition_table(int fd, uint64_t image_bytes, std::vector<PartitionSpan> *parts,
                          std::string *kind, std::string *error) {
    unsigned char mbr[kSector];
    if (!pread_all(fd, mbr, sizeof mbr, 0)) {
        *error = "cannot read the first sector";
        return false;
    }
    if (mbr[510] != 0x55 || mbr[511] != 0xAA) {
        *error = "no partition table (no MBR signature in the first sector)";
        return false;
    }
    parts->clear();
    if (mbr[kMbrTableAt + 4] == kMbrProtectiveGpt) {
        *kind = "gpt";
        if (!read_gpt(fd, parts, error)) return false;
    } else {
        *kind = "mbr";
        for (int i = 0; i < kMbrEntries; i++) {
            const unsigned char *e = mbr + kMbrTableAt + i * kMbrEntryBytes;
            const uint64_t first = recstore::le32_load(e + 8);
            const uint64_t count = recstore::le32_load(e + 12);
            if (e[4] == 0 || count == 0) continue;
            parts->push_back({first * kSector, count * kSector});
        }
    }
    for (const PartitionSpan &p : *parts) {
        if (p.offset + p.bytes > image_bytes) {
            *error = "a partition reaches past the end of the image";
            return false;
        }
    }
    return true;
}

uint32_t ZoneMaps::block_of(uint32_t cluster) const {
    if (cluster < data_start) return 0;
    const uint32_t index = (cluster - data_start) >> recstore::kBlockShift;
    return index < block_count ? index + recstore::kFirstBlockId : 0;
}

uint32_t ZoneMaps::first_cluster(uint32_t block_id) const {
    return data_start + ((block_id - recstore::kFirstBlockId) << recstore::kBlockShift);
}

BlockCounts count_block(const std::vector<uint32_t> &map) {
    BlockCounts c;
    for (uint32_t e : map) {
        if (recstore::entry_is_err(e)) {
            c.error++;
        } else if (recstore::entry_is_busy(e)) {
            c.busy++;
            c.newest = std::max(c.newest, recstore::entry_value(e));
        } else {
            c.free++;
        }
    }
    return c;
}

namespace {

bool read_map(int fd, uint64_t offset, uint32_t cluster, uint32_t entries,
              std::vector<uint32_t> *out) {
    std::vector<unsigned char> raw(static_cast<size_t>(entries) * recstore::kEntryBytes);
    if (!pread_all(fd, raw.data(), raw.size(),
                   offset + static_cast<uint64_t>(cluster) * recstore::kClusterSize)) {
        return false;
    }
    out->resize(entries);
    for (uint32_t i = 0; i < entries; i++) (*out)[i] = recstore::le32_load(&raw[i * 4]);
    return true;
}

}  // namespace

uint32_t known_magic(uint32_t magic) {
    if (magic != RECSTORE_MAGIC_V7 && magic != RECSTORE_MAGIC_V6 && magic != RECSTORE_MAGIC_V5 &&
        magic != RECSTORE_MAGIC_V1) {
        return RECSTORE_MAGIC_V7;
    }
    return magic;
}

uint32_t read_magic(const std::string &root) {
    recstore::PlainFdGuard fd(open((root + "/magic").c_str(), O_RDONLY | O_CLOEXEC));
    unsigned char bytes[4];
    if (fd.get() < 0 || read(fd.get(), bytes, 4) != 4) return 0;
    return recstore::le32_load(bytes);
}

bool load_zone_maps(int fd, uint64_t offset, uint64_t bytes, uint32_t magic, ZoneMaps *out,
                    std::string *error) {
    datazone_info g{};
    if (datazone_geometry_for(known_magic(magic), bytes, &g) != 0) {
        *error = "the data partition is too small to hold a data zone (" + human_size(bytes) + ")";
        return false;
    }
    out->partition_bytes = bytes;
    out->cluster_count = g.cluster_count;
    out->block_count = g.block_count;
    out->data_start = g.data_start;
    if (!read_map(fd, offset, recstore::kBlockMapCluster, g.block_count, &out->block_map)) {
        *error = std::string("cannot read the block map: ") + strerror(errno);
        return false;
    }
    out->cluster_maps.assign(g.block_count, {});
    for (uint32_t b = 0; b < g.block_count; b++) {
        if (!read_map(fd, offset, recstore::kFirstBlockId + b, recstore::kClustersPerBlock,
                      &out->cluster_maps[b])) {
            *error = "cannot read the cluster map of block " + std::to_string(b + 1) + ": " +
                     strerror(errno);
            return false;
        }
    }
    return true;
}

const char *entry_state_name(uint32_t entry) {
    if (recstore::entry_is_err(entry)) return "error";
    return recstore::entry_is_busy(entry) ? "busy" : "free";
}

std::string stamp_date(uint32_t value) {
    if (value == 0) return "-";
    return format_epoch(static_cast<time_t>(value) << 2);
}

// ---------------------------------------------------------------------------------------------
// The index tree.

namespace {

bool list_dir(const std::string &dir, std::vector<std::string> *names) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return false;
    while (struct dirent64 *e = readdir64(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        names->push_back(e->d_name);
    }
    closedir(d);
    std::sort(names->begin(), names->end());
    return true;
}

bool is_dir(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void read_recording(int disk_id, Recording *r) {
    recstore::PlainFdGuard fd(open(r->path.c_str(), O_RDONLY | O_LARGEFILE | O_CLOEXEC));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) return;
    r->file_bytes = static_cast<uint64_t>(st.st_size);
    if (read_recordinfo(disk_id, fd.get(), &r->info, nullptr) <= 0) return;
    r->header_bytes = static_cast<uint32_t>(sizeof_recordinfo(&r->info));
    if (r->file_bytes < r->header_bytes) return;
    r->header_ok = true;
    const uint64_t body = r->file_bytes - r->header_bytes;
    r->partial_tail = static_cast<uint32_t>(body % kEntryBytesOnDisk);
    std::vector<unsigned char> raw(body - r->partial_tail);
    if (!raw.empty() && !pread_all(fd.get(), raw.data(), raw.size(), r->header_bytes)) {
        r->header_ok = false;
        return;
    }
    for (size_t at = 0; at + kEntryBytesOnDisk <= raw.size(); at += kEntryBytesOnDisk) {
        index_entry e;
        const unsigned char *p = raw.data() + at;
        // No entry is all zeros (none names cluster 0, the block map): the recording ends here,
        // as the library's playback ends it.
        if (std::all_of(p, p + kEntryBytesOnDisk, [](unsigned char b) { return b == 0; })) {
            r->zero_tail = raw.size() - at;
            break;
        }
        e.cluster_id = recstore::le32_load(p);
        e.length = recstore::le32_load(p + 4);
        e.frame_count = recstore::le32_load(p + 8);
        for (int k = 0; k < RECSTORE_MAX_KFRAMES; k++) {
            e.frames[k].frame_offset = recstore::le32_load(p + 12 + 8 * k);
            e.frames[k].frame_time = recstore::le32_load(p + 16 + 8 * k);
        }
        r->entries.push_back(e);
    }
}

// Channel directories: two digits.
bool channel_dir_name(const std::string &name) {
    return name.size() == 2 && isdigit(static_cast<unsigned char>(name[0])) &&
           isdigit(static_cast<unsigned char>(name[1]));
}

void walk_recordings(const std::string &root, const std::string &relative, int depth, int disk_id,
                     IndexTree *out) {
    std::vector<std::string> names;
    const std::string dir = relative.empty() ? root : root + "/" + relative;
    if (!list_dir(dir, &names)) return;
    for (const std::string &n : names) {
        const std::string rel = relative.empty() ? n : relative + "/" + n;
        const std::string path = root + "/" + rel;
        if (depth < 5) {
            if (is_dir(path)) {
                walk_recordings(root, rel, depth + 1, disk_id, out);
            } else {
                out->strays.push_back(path);
            }
            continue;
        }
        Recording r;
        r.path = path;
        r.relative = rel;
        r.name = n;
        if (is_dir(path) || filename_to_record(n.c_str(), &r.channel, &r.start, &r.type) < 8) {
            out->strays.push_back(path);
            continue;
        }
        read_recording(disk_id, &r);
        out->recordings.push_back(std::move(r));
    }
}

void walk_links(IndexTree *out) {
    const std::string link_root = out->root + "/link";
    std::vector<std::string> blocks;
    if (!list_dir(link_root, &blocks)) return;
    for (const std::string &b : blocks) {
        std::vector<std::string> names;
        const std::string dir = link_root + "/" + b;
        long block = 0;
        if (!parse_long(b, 0, INT_MAX, &block) || !list_dir(dir, &names)) {
            out->strays.push_back(dir);
            continue;
        }
        for (const std::string &n : names) {
            LinkInfo l;
            l.path = dir + "/" + n;
            l.block = static_cast<uint32_t>(block);
            int channel = 0, type = 0;
            struct tm start = {};
            l.name_ok = filename_to_record(n.c_str(), &channel, &start, &type) >= 8;
            char target[PATH_MAX];
            const ssize_t len = readlink(l.path.c_str(), target, sizeof target - 1);
            if (len > 0) {
                target[len] = '\0';
                l.target = target;
                struct stat st;
                l.resolves = stat(l.path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
            }
            out->links.push_back(l);
        }
    }
}

// Matches links to recordings by the file they resolve to.
void join_links(IndexTree *out) {
    for (size_t i = 0; i < out->links.size(); i++) {
        LinkInfo &l = out->links[i];
        if (!l.resolves) continue;
        char real_link[PATH_MAX];
        if (realpath(l.path.c_str(), real_link) == nullptr) continue;
        for (size_t k = 0; k < out->recordings.size(); k++) {
            char real_rec[PATH_MAX];
            if (realpath(out->recordings[k].path.c_str(), real_rec) == nullptr) continue;
            if (strcmp(real_rec, real_link) == 0) {
                l.recording = static_cast<int>(k);
                out->recordings[k].link_blocks.push_back(l.block);
                break;
            }
        }
    }
}

}  // namespace

bool load_index_tree(const std::string &root, int disk_id, IndexTree *out, std::string *error) {
    out->root = root;
    std::vector<std::string> top;
    if (!list_dir(root, &top)) {
        *error = "cannot read the index root " + root + ": " + strerror(errno);
        return false;
    }
    out->magic = read_magic(root);
    // The header layout follows the disk's magic value, as when the library reads it.
    g_magic[disk_id] = out->magic;
    for (const std::string &n : top) {
        if (channel_dir_name(n) && is_dir(root + "/" + n)) {
            walk_recordings(root, n, 1, disk_id, out);
        } else if (n != "link" && n != "magic" && n != "lost+found") {
            out->strays.push_back(root + "/" + n);
        }
    }
    walk_links(out);
    join_links(out);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Mounts and loop views.

bool IndexMount::open(const std::string &device, const std::string &dir, bool writable,
                      std::string *error) {
    dir_ = dir;
    if (find_mount_point(dir.c_str(), nullptr) == 1) return true;  // in use as it is
    if (!is_root()) {
        *error = dir + " is not mounted and mounting " + device + " needs root";
        return false;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        if (mkdir(dir.c_str(), 0755) != 0) {
            *error = "cannot make " + dir + ": " + strerror(errno);
            return false;
        }
        made_dir_ = true;
    }
    std::string output;
    const std::string options = writable ? "rw" : "ro,noload";
    if (run_command({"mount", "-t", "ext4", "-o", options, device, dir}, &output) != 0) {
        *error = "cannot mount " + device + " on " + dir + ": " + output;
        if (made_dir_) rmdir(dir.c_str());
        made_dir_ = false;
        return false;
    }
    mounted_ = true;
    return true;
}

IndexMount::~IndexMount() {
    if (mounted_) {
        std::string output;
        run_command({"umount", dir_}, &output);
    }
    if (made_dir_) rmdir(dir_.c_str());
}

bool LoopView::open(const std::string &image, uint64_t offset, uint64_t bytes, std::string *error) {
    std::string output;
    const int status = run_command({"losetup", "-f", "--show", "-r", "-o", std::to_string(offset),
                                    "--sizelimit", std::to_string(bytes), image},
                                   &output);
    while (!output.empty() && (output.back() == '\n' || output.back() == ' ')) output.pop_back();
    if (status != 0 || output.rfind("/dev/", 0) != 0) {
        *error = "cannot attach a read-only loop device: " + output;
        return false;
    }
    device_ = output;
    return true;
}

LoopView::~LoopView() {
    if (!device_.empty()) {
        std::string output;
        run_command({"losetup", "-d", device_}, &output);
    }
}

}  // namespace tool
