// recstore inspect: a read-only look at one disk or disk image: partitions, geometry, format
// version, the block map as a grid, per-block cluster counts, the cache state and the recordings
// per channel and day.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "bitmap.h"
#include "cli.h"
#include "commands.h"
#include "disk_view.h"
#include "fs_tools.h"

namespace tool {

namespace {

constexpr const char *kCmd = "inspect";
constexpr int kGridColumns = 32;
constexpr int kFillBar = 20;
const char *const kRoles[] = {"system", "index", "data"};

const char *version_of(uint32_t magic) {
    switch (magic) {
        case RECSTORE_MAGIC_V7:
            return "7.0.0.0";
        case RECSTORE_MAGIC_V6:
            return "6.0.0.0";
        case RECSTORE_MAGIC_V5:
            return "5.0.0.0";
        case RECSTORE_MAGIC_V1:
            return "1.0.0.2";
        default:
            return nullptr;
    }
}

// The block the library records into: the busy one with the latest sequence that still has
// free clusters (0 when none).
uint32_t current_block(const ZoneMaps &z) {
    uint32_t best = 0, best_seq = 0;
    for (uint32_t b = 1; b <= z.block_count; b++) {
        const uint32_t e = z.block_map[b - 1];
        if (!recstore::entry_is_busy(e) || count_block(z.cluster_maps[b - 1]).free == 0) continue;
        if (best == 0 || recstore::entry_value(e) >= best_seq) {
            best = b;
            best_seq = recstore::entry_value(e);
        }
    }
    return best;
}

char grid_char(const ZoneMaps &z, uint32_t b, uint32_t current) {
    const uint32_t e = z.block_map[b - 1];
    const BlockCounts c = count_block(z.cluster_maps[b - 1]);
    if (b == current) return 'C';
    if (recstore::entry_is_err(e)) return 'E';
    if (recstore::entry_is_busy(e)) return 'B';
    return c.busy + c.error > 0 ? 'p' : '.';
}

void print_maps(const ZoneMaps &z) {
    printf(
        "data zone: %s, %u clusters of 512 KiB, %u block%s of 131072 clusters (64 GiB), "
        "data from cluster %u\n",
        human_size(z.partition_bytes).c_str(), z.cluster_count, z.block_count,
        z.block_count == 1 ? "" : "s", z.data_start);
    const uint32_t current = current_block(z);
    printf("\nblock map (C current, B busy/full, p partly used, . empty, E error):\n");
    for (uint32_t b = 1; b <= z.block_count; b++) {
        if ((b - 1) % kGridColumns == 0) printf("  %5u  ", b);
        putchar(grid_char(z, b, current));
        if (b % kGridColumns == 0 || b == z.block_count) putchar('\n');
    }
    printf(
        "\n  block  state  %-*s  fill   busy    free  error  sequence (block taken)  "
        "newest cluster\n",
        kFillBar + 2, "");
    uint64_t busy = 0, free_count = 0, errors = 0;
    for (uint32_t b = 1; b <= z.block_count; b++) {
        const uint32_t e = z.block_map[b - 1];
        const BlockCounts c = count_block(z.cluster_maps[b - 1]);
        busy += c.busy;
        free_count += c.free;
        errors += c.error;
        const uint32_t total = c.busy + c.free + c.error;
        const double fill = total ? 100.0 * (c.busy + c.error) / total : 0.0;
        char bar[kFillBar + 1];
        const int filled = static_cast<int>(fill * kFillBar / 100.0 + 0.5);
        for (int i = 0; i < kFillBar; i++) bar[i] = i < filled ? '#' : '.';
        bar[kFillBar] = '\0';
        printf("  %5u  %-5s  [%s] %5.1f%% %6u  %6u  %5u  %-22s  %s%s\n", b, entry_state_name(e),
               bar, fill, c.busy, c.free, c.error, stamp_date(recstore::entry_value(e)).c_str(),
               stamp_date(c.newest).c_str(), b == current ? "  <- current" : "");
    }
    printf("\ncounters: %llu busy, %llu free, %llu error clusters; %s used of %s\n",
           static_cast<unsigned long long>(busy), static_cast<unsigned long long>(free_count),
           static_cast<unsigned long long>(errors),
           human_size(busy * RECSTORE_CLUSTER_SIZE).c_str(),
           human_size(static_cast<uint64_t>(z.block_count) * RECSTORE_CLUSTERS_PER_BLOCK *
                      RECSTORE_CLUSTER_SIZE)
               .c_str());
}

// Recordings grouped by channel and day.
struct DayTotals {
    int recordings = 0;
    uint64_t clusters = 0;
    uint64_t bytes = 0;
    std::string first, last;
};

void print_index(const IndexTree &tree) {
    const char *v = version_of(tree.magic);
    printf("\nindex partition: format %s, %zu index files, %zu links\n",
           v ? v : "unknown (no valid magic file)", tree.recordings.size(), tree.links.size());
    std::map<std::pair<int, std::string>, DayTotals> days;
    for (const Recording &r : tree.recordings) {
        const std::string start = format_tm(r.start);
        DayTotals &d = days[{r.channel, start.substr(0, 10)}];
        d.recordings++;
        d.clusters += r.entries.size();
        d.bytes += r.header_ok ? r.info.total_bytes : 0;
        const std::string clock = start.substr(11);
        if (d.first.empty() || clock < d.first) d.first = clock;
        std::string end = clock;
        if (r.header_ok && r.info.entry_count > 0) {
            struct tm t;
            from_fs_tm(&t, &r.info.end_time);
            end = format_tm(t).substr(11);
        }
        if (end > d.last) d.last = end;
    }
    if (days.empty()) {
        printf("  no recordings\n");
        return;
    }
    printf("  channel  day         recordings  clusters        size  from      to\n");
    for (const auto &d : days) {
        printf("  %7d  %s  %10d  %8llu  %10s  %s  %s\n", d.first.first, d.first.second.c_str(),
               d.second.recordings, static_cast<unsigned long long>(d.second.clusters),
               human_size(d.second.bytes).c_str(), d.second.first.c_str(), d.second.last.c_str());
    }
}

void print_cache(int disk) {
    const std::string root = std::string("/mnt/cache/sd") + static_cast<char>('a' + disk);
    struct stat st;
    if (stat(root.c_str(), &st) != 0) {
        printf("\ncache: %s does not exist (not loaded in this namespace)\n", root.c_str());
        return;
    }
    std::string out;
    run_command({"find", root, "-name", "cache", "-type", "f"}, &out);
    size_t files = 0;
    uint64_t tags = 0;
    for (size_t at = 0; at < out.size();) {
        const size_t nl = out.find('\n', at);
        const std::string path = out.substr(at, nl - at);
        if (!path.empty() && stat(path.c_str(), &st) == 0) {
            files++;
            tags += static_cast<uint64_t>(st.st_size) / 8;
        }
        if (nl == std::string::npos) break;
        at = nl + 1;
    }
    printf(
        "\ncache: %s: %zu cache files, %llu tags; loaded in this process: no (another process "
        "holds the disk)\n",
        root.c_str(), files, static_cast<unsigned long long>(tags));
}

void help() {
    printf(
        "usage: recstore inspect DEV|IMAGE [--maps]\n\n"
        "Shows a disk without changing it: the partition table, the data zone's geometry, the\n"
        "block map as a grid (C current, B busy, p partly used, . empty, E error) and per\n"
        "block its fill, cluster counts and sequence as a date, the counters, the format\n"
        "version, the cache state and the recordings per channel and day.\n\n"
        "DEV is /dev/hd/sda ... /dev/hd/sdh: the data partition is read through DEV3, the index\n"
        "partition where it is mounted (/mnt/sdX) or mounted read-only there for the look.\n"
        "IMAGE is a whole-disk image file (MBR or GPT): the maps are read at the data\n"
        "partition's offset; the index partition is attached read-only through a loop device\n"
        "and mounted in a private directory, which needs root inside the disk rig.\n\n"
        "  --maps   only the partitions and the maps (no index partition, no root needed)\n\n"
        "exit status: 0 shown, 1 the disk or image cannot be read, 2 usage.\n");
}

int inspect_device(const std::string &dev, int disk, bool maps_only) {
    // Nothing is mounted for a disk that is not there.
    if (access(dev.c_str(), F_OK) != 0) {
        return failure(kCmd, dev +
                                 " does not exist: is the disk plugged in? On a development "
                                 "machine run the tool inside the disk rig");
    }
    const std::string part = dev + "3";
    recstore::FdGuard fd(open(part.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        return failure(kCmd, "cannot open " + part + ": " + strerror(errno) +
                                 " (plugged in? formatted? root?)");
    }
    char mnt[RECSTORE_PATH_LEN];
    mount_point(dev.c_str(), mnt, sizeof mnt);
    std::string error;
    IndexMount index;
    IndexTree tree;
    if (!maps_only && (!index.open(dev + "2", mnt, false, &error) ||
                       !load_index_tree(mnt, disk, &tree, &error))) {
        return failure(kCmd, "index partition: " + error + " (use --maps to see only the maps)");
    }
    // The maps' layout follows the format version; with --maps it is read where it is mounted.
    const uint32_t magic = maps_only ? read_magic(mnt) : tree.magic;
    const int64_t bytes = blockdev_size(disk, fd.get());
    ZoneMaps zone;
    if (bytes <= 0 ||
        !load_zone_maps(fd.get(), 0, static_cast<uint64_t>(bytes), magic, &zone, &error)) {
        return failure(kCmd, part + ": " + (error.empty() ? "cannot be sized" : error));
    }
    printf("disk %s, data partition %s\n", dev.c_str(), part.c_str());
    print_maps(zone);
    if (maps_only) return kExitOk;
    print_index(tree);
    print_cache(disk);
    return kExitOk;
}

int inspect_image(const std::string &image, bool maps_only) {
    recstore::FdGuard fd(open(image.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return failure(kCmd, "cannot open " + image + ": " + strerror(errno));
    const int64_t bytes = blockdev_size(0, fd.get());
    std::vector<PartitionSpan> parts;
    std::string kind, error;
    if (bytes <= 0 ||
        !read_partition_table(fd.get(), static_cast<uint64_t>(bytes), &parts, &kind, &error)) {
        return failure(kCmd, image + ": " + (error.empty() ? "cannot be sized" : error) +
                                 " (is it a formatted whole-disk image?)");
    }
    printf("image %s, %s, partition table %s\n", image.c_str(),
           human_size(static_cast<uint64_t>(bytes)).c_str(), kind.c_str());
    for (size_t i = 0; i < parts.size(); i++) {
        printf("  %zu %-6s offset %14llu  size %14llu (%s)\n", i + 1, i < 3 ? kRoles[i] : "?",
               static_cast<unsigned long long>(parts[i].offset),
               static_cast<unsigned long long>(parts[i].bytes), human_size(parts[i].bytes).c_str());
    }
    if (parts.size() < 3) return failure(kCmd, image + ": fewer than three partitions");
    // The index partition, when it can be looked at: a read-only loop device over its part of
    // the image, mounted read-only in a private directory.
    const bool with_index = !maps_only && in_rig();
    LoopView loop;
    IndexTree tree;
    char dir[] = "/tmp/recstore-inspect.XXXXXX";
    bool made_dir = false;
    int status = kExitOk;
    {
        IndexMount index;
        if (with_index) {
            if (!loop.open(image, parts[1].offset, parts[1].bytes, &error)) {
                return failure(kCmd, error);
            }
            if (mkdtemp(dir) == nullptr) {
                return failure(kCmd, std::string("mkdtemp: ") + strerror(errno));
            }
            made_dir = true;
            if (!index.open(loop.device(), dir, false, &error) ||
                !load_index_tree(dir, 0, &tree, &error)) {
                status = failure(kCmd, "index partition: " + error);
            }
        }
        ZoneMaps zone;
        if (!load_zone_maps(fd.get(), parts[2].offset, parts[2].bytes, tree.magic, &zone, &error)) {
            status = failure(kCmd, image + " data partition: " + error);
        } else {
            print_maps(zone);
            if (status == kExitOk && with_index) print_index(tree);
        }
    }
    if (made_dir) rmdir(dir);
    if (!maps_only && !with_index) {
        printf(
            "\nindex partition: skipped (mounting it from an image needs root inside the disk "
            "rig; --maps shows only the maps)\n");
    }
    return status;
}

}  // namespace

int cmd_inspect(int argc, char **argv) {
    // A read-only view: the library's readers would report what this command reports itself
    // (headers without extension, missing magic files) as errors.
    loglevel = 0;
    if (wants_help(argc, argv)) {
        help();
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {}, {"--maps"}, &args, &error)) return usage_error(kCmd, error);
    if (args.words.size() != 1) {
        return usage_error(kCmd, "give exactly one disk (/dev/hd/sdX) or disk image file");
    }
    const std::string target = args.words[0];
    int disk = -1;
    if (disk_node(target, &disk)) return inspect_device(target, disk, args.has("--maps"));
    struct stat st;
    if (stat(target.c_str(), &st) != 0) return failure(kCmd, target + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode)) {
        return usage_error(kCmd, target + " is neither a disk node /dev/hd/sdX nor an image file");
    }
    return inspect_image(target, args.has("--maps"));
}

}  // namespace tool
