// SPDX-License-Identifier: MIT
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

// Whether the library ever initialised a data zone. The maps of a zone it initialised and never
// used are as blank as those of a partition it never touched: the index partition's magic file,
// written together with the fresh maps, tells them apart.
enum class ZoneState {
    InUse,          // valid magic file, clusters busy or in error
    Empty,          // valid magic file, every block and cluster free
    Uninitialised,  // no valid magic file and blank maps: never initialised
    NoMagic,        // no valid magic file, yet the maps hold entries
    Undetermined,   // blank maps, magic file not read
};

bool maps_blank(const ZoneMaps &z) {
    for (uint32_t e : z.block_map) {
        if (e != 0) return false;
    }
    for (const std::vector<uint32_t> &m : z.cluster_maps) {
        for (uint32_t e : m) {
            if (e != 0) return false;
        }
    }
    return true;
}

bool all_free(const ZoneMaps &z) {
    for (uint32_t b = 1; b <= z.block_count; b++) {
        if (recstore::entry_is_busy(z.block_map[b - 1]) ||
            recstore::entry_is_err(z.block_map[b - 1]))
            return false;
        const BlockCounts c = count_block(z.cluster_maps[b - 1]);
        if (c.busy + c.error > 0) return false;
    }
    return true;
}

// magic_known: the index partition was read (magic is its magic file's value, 0 when missing).
ZoneState zone_state(const ZoneMaps &z, bool magic_known, uint32_t magic) {
    const bool valid = version_of(magic) != nullptr;
    if (valid) return all_free(z) ? ZoneState::Empty : ZoneState::InUse;
    const bool blank = maps_blank(z);
    if (!magic_known) return blank ? ZoneState::Undetermined : ZoneState::InUse;
    return blank ? ZoneState::Uninitialised : ZoneState::NoMagic;
}

// How a state is named: a word for --json and a sentence for the text report.
struct StateNames {
    const char *word;
    const char *text;
};

StateNames state_names(ZoneState s) {
    switch (s) {
        case ZoneState::InUse:
            return {"in-use", "in use"};
        case ZoneState::Empty:
            return {"empty", "empty (initialised, every block and cluster free)"};
        case ZoneState::Uninitialised:
            return {"uninitialised",
                    "never initialised (no valid magic file on the index partition, blank maps)"};
        case ZoneState::NoMagic:
            return {"no-magic",
                    "no valid magic file on the index partition, but the maps hold entries"};
        default:
            return {"undetermined",
                    "blank maps: never initialised or initialised and empty (the index "
                    "partition's magic file, not read, would tell)"};
    }
}

void print_maps(const ZoneMaps &z, ZoneState state) {
    printf(
        "data zone: %s, %u clusters of 512 KiB, %u block%s of 131072 clusters (64 GiB), "
        "data from cluster %u\n",
        human_size(z.partition_bytes).c_str(), z.cluster_count, z.block_count,
        z.block_count == 1 ? "" : "s", z.data_start);
    printf("data zone state: %s\n", state_names(state).text);
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

std::string json_maps(const ZoneMaps &z, ZoneState state) {
    const uint32_t current = current_block(z);
    char text[400];
    snprintf(text, sizeof text,
             "{\"bytes\": %llu, \"clusters\": %u, \"blocks\": %u, \"data_start\": %u, "
             "\"state\": \"%s\", \"current_block\": %u, \"block_list\": [",
             static_cast<unsigned long long>(z.partition_bytes), z.cluster_count, z.block_count,
             z.data_start, state_names(state).word, current);
    std::string out = text;
    uint64_t busy = 0, free_count = 0, errors = 0;
    for (uint32_t b = 1; b <= z.block_count; b++) {
        const uint32_t e = z.block_map[b - 1];
        const BlockCounts c = count_block(z.cluster_maps[b - 1]);
        busy += c.busy;
        free_count += c.free;
        errors += c.error;
        snprintf(text, sizeof text,
                 "%s\n      {\"block\": %u, \"state\": %s, \"entry\": %u, \"busy\": %u, "
                 "\"free\": %u, \"error\": %u, \"taken\": %s, \"newest\": %s}",
                 b == 1 ? "" : ",", b, json_string(entry_state_name(e)).c_str(), e, c.busy, c.free,
                 c.error, json_string(stamp_date(recstore::entry_value(e))).c_str(),
                 json_string(stamp_date(c.newest)).c_str());
        out += text;
    }
    snprintf(text, sizeof text, "%s], \"busy\": %llu, \"free\": %llu, \"error\": %llu}",
             z.block_count > 0 ? "\n    " : "", static_cast<unsigned long long>(busy),
             static_cast<unsigned long long>(free_count), static_cast<unsigned long long>(errors));
    return out + text;
}

// Recordings grouped by channel and day.
struct DayTotals {
    int recordings = 0;
    uint64_t clusters = 0;
    uint64_t bytes = 0;
    std::string first, last;
};

using Days = std::map<std::pair<int, std::string>, DayTotals>;

Days days_of(const IndexTree &tree) {
    Days days;
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
    return days;
}

std::string json_index(const IndexTree &tree) {
    const char *v = version_of(tree.magic);
    char text[300];
    snprintf(text, sizeof text,
             "{\"format\": %s, \"magic\": %u, \"index_files\": %zu, \"links\": %zu, "
             "\"days\": [",
             v ? json_string(v).c_str() : "null", tree.magic, tree.recordings.size(),
             tree.links.size());
    std::string out = text;
    bool first = true;
    for (const auto &d : days_of(tree)) {
        snprintf(text, sizeof text,
                 "%s\n      {\"channel\": %d, \"day\": %s, \"recordings\": %d, "
                 "\"clusters\": %llu, \"bytes\": %llu, \"from\": %s, \"to\": %s}",
                 first ? "" : ",", d.first.first, json_string(d.first.second).c_str(),
                 d.second.recordings, static_cast<unsigned long long>(d.second.clusters),
                 static_cast<unsigned long long>(d.second.bytes),
                 json_string(d.second.first).c_str(), json_string(d.second.last).c_str());
        out += text;
        first = false;
    }
    return out + (first ? "]}" : "\n    ]}");
}

void print_index(const IndexTree &tree) {
    const char *v = version_of(tree.magic);
    printf("\nindex partition: format %s, %zu index files, %zu links\n",
           v ? v : "unknown (no valid magic file)", tree.recordings.size(), tree.links.size());
    const Days days = days_of(tree);
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

// What the tmpfs cache holds for one disk.
struct CacheSummary {
    std::string root;
    bool exists = false;
    size_t files = 0;
    uint64_t tags = 0;
};

CacheSummary cache_of(int disk) {
    CacheSummary c;
    c.root = std::string("/mnt/cache/sd") + static_cast<char>('a' + disk);
    struct stat st;
    if (stat(c.root.c_str(), &st) != 0) return c;
    c.exists = true;
    std::string out;
    run_command({"find", c.root, "-name", "cache", "-type", "f"}, &out);
    for (size_t at = 0; at < out.size();) {
        const size_t nl = out.find('\n', at);
        const std::string path = out.substr(at, nl - at);
        if (!path.empty() && stat(path.c_str(), &st) == 0) {
            c.files++;
            c.tags += static_cast<uint64_t>(st.st_size) / 8;
        }
        if (nl == std::string::npos) break;
        at = nl + 1;
    }
    return c;
}

std::string json_cache(const CacheSummary &c) {
    if (!c.exists) return "{\"root\": " + json_string(c.root) + ", \"exists\": false}";
    return "{\"root\": " + json_string(c.root) +
           ", \"exists\": true, \"files\": " + std::to_string(c.files) +
           ", \"tags\": " + std::to_string(c.tags) + "}";
}

void print_cache(int disk) {
    const CacheSummary c = cache_of(disk);
    if (!c.exists) {
        printf("\ncache: %s does not exist (not loaded in this namespace)\n", c.root.c_str());
        return;
    }
    printf(
        "\ncache: %s: %zu cache files, %llu tags; loaded in this process: no (another process "
        "holds the disk)\n",
        c.root.c_str(), c.files, static_cast<unsigned long long>(c.tags));
}

void help() {
    printf(
        "usage: recstore inspect [--maps] [--json] DEV|IMAGE\n\n"
        "Shows a disk without changing it: the partition table, the data zone's geometry and\n"
        "state, the block map as a grid (C current, B busy, p partly used, . empty, E error)\n"
        "and per block its fill, cluster counts and sequence as a date, the counters, the\n"
        "format version, the cache state and the recordings per channel and day.\n\n"
        "The data zone's state tells a zone the library never initialised (no valid magic file\n"
        "on the index partition, blank maps) from an empty one (initialised, every cluster\n"
        "free) and from one in use.\n\n"
        "DEV is /dev/hd/sda ... /dev/hd/sdh: the data partition is read through DEV3, the index\n"
        "partition where it is mounted (/mnt/sdX) or mounted read-only there for the look.\n"
        "IMAGE is a whole-disk image file (MBR or GPT): the maps are read at the data\n"
        "partition's offset; the index partition is attached read-only through a loop device\n"
        "and mounted in a private directory, which needs root inside the disk rig.\n\n"
        "  --maps   only the partitions and the maps (no index partition, no root needed)\n"
        "  --json   print one JSON object (target, partitions, data_zone with its state and\n"
        "           blocks, index, cache) instead of the text\n\n"
        "exit status: 0 shown, 1 the disk or image cannot be read, 2 usage.\n");
}

// What inspect found, for the JSON form: each part is a JSON value, "" when not looked at.
struct JsonReport {
    std::string target;
    std::string kind;  // "disk" or "image"
    std::string partitions = "null";
    std::string data_zone = "null";
    std::string index = "null";
    std::string cache = "null";

    void print() const {
        printf(
            "{\n  \"target\": %s,\n  \"kind\": %s,\n  \"partitions\": %s,\n"
            "  \"data_zone\": %s,\n  \"index\": %s,\n  \"cache\": %s\n}\n",
            json_string(target).c_str(), json_string(kind).c_str(), partitions.c_str(),
            data_zone.c_str(), index.c_str(), cache.c_str());
    }
};

int inspect_device(const std::string &dev, int disk, bool maps_only, bool json) {
    // Nothing is mounted for a disk that is not there.
    if (access(dev.c_str(), F_OK) != 0) {
        return failure(kCmd, dev +
                                 " does not exist: is the disk plugged in? On a development "
                                 "machine run the tool inside the disk rig");
    }
    const std::string part = dev + "3";
    recstore::PlainFdGuard fd(open(part.c_str(), O_RDONLY | O_LARGEFILE | O_CLOEXEC));
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
    const ZoneState state = zone_state(zone, !maps_only, magic);
    if (json) {
        JsonReport r;
        r.target = dev;
        r.kind = "disk";
        r.data_zone = json_maps(zone, state);
        if (!maps_only) {
            r.index = json_index(tree);
            r.cache = json_cache(cache_of(disk));
        }
        r.print();
        return kExitOk;
    }
    printf("disk %s, data partition %s\n", dev.c_str(), part.c_str());
    print_maps(zone, state);
    if (maps_only) return kExitOk;
    print_index(tree);
    print_cache(disk);
    return kExitOk;
}

int inspect_image(const std::string &image, bool maps_only, bool json) {
    recstore::PlainFdGuard fd(open(image.c_str(), O_RDONLY | O_LARGEFILE | O_CLOEXEC));
    if (fd.get() < 0) return failure(kCmd, "cannot open " + image + ": " + strerror(errno));
    const int64_t bytes = blockdev_size(0, fd.get());
    std::vector<PartitionSpan> parts;
    std::string kind, error;
    if (bytes <= 0 ||
        !read_partition_table(fd.get(), static_cast<uint64_t>(bytes), &parts, &kind, &error)) {
        return failure(kCmd, image + ": " + (error.empty() ? "cannot be sized" : error) +
                                 " (is it a formatted whole-disk image?)");
    }
    JsonReport report;
    report.target = image;
    report.kind = "image";
    report.partitions = "{\"table\": " + json_string(kind) +
                        ", \"bytes\": " + std::to_string(bytes) + ", \"list\": [";
    for (size_t i = 0; i < parts.size(); i++) {
        report.partitions += std::string(i == 0 ? "" : ", ") +
                             "{\"number\": " + std::to_string(i + 1) +
                             ", \"role\": " + json_string(i < 3 ? kRoles[i] : "?") +
                             ", \"offset\": " + std::to_string(parts[i].offset) +
                             ", \"bytes\": " + std::to_string(parts[i].bytes) + "}";
    }
    report.partitions += "]}";
    if (!json) {
        printf("image %s, %s, partition table %s\n", image.c_str(),
               human_size(static_cast<uint64_t>(bytes)).c_str(), kind.c_str());
        for (size_t i = 0; i < parts.size(); i++) {
            printf("  %zu %-6s offset %14llu  size %14llu (%s)\n", i + 1, i < 3 ? kRoles[i] : "?",
                   static_cast<unsigned long long>(parts[i].offset),
                   static_cast<unsigned long long>(parts[i].bytes),
                   human_size(parts[i].bytes).c_str());
        }
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
            const ZoneState state = zone_state(zone, with_index && status == kExitOk, tree.magic);
            if (json) {
                report.data_zone = json_maps(zone, state);
                if (status == kExitOk && with_index) report.index = json_index(tree);
            } else {
                print_maps(zone, state);
                if (status == kExitOk && with_index) print_index(tree);
            }
        }
    }
    if (made_dir) rmdir(dir);
    if (json) {
        if (status == kExitOk) report.print();
        return status;
    }
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
    if (!parse_args(argc, argv, {}, {"--maps", "--json"}, &args, &error)) {
        return usage_error(kCmd, error);
    }
    if (args.words.size() != 1) {
        return usage_error(kCmd, "give exactly one disk (/dev/hd/sdX) or disk image file");
    }
    const bool json = args.has("--json");
    int disk = -1;
    if (disk_node(args.words[0], &disk)) {
        return inspect_device(args.words[0], disk, args.has("--maps"), json);
    }
    const std::string target = from_start_dir(args.words[0]);
    // The 64-bit form: on the 32-bit target a plain stat of an image of 2 GiB or more fails.
    struct stat64 st;
    if (stat64(target.c_str(), &st) != 0) return failure(kCmd, target + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode)) {
        return usage_error(kCmd, target + " is neither a disk node /dev/hd/sdX nor an image file");
    }
    return inspect_image(target, args.has("--maps"), json);
}

}  // namespace tool
