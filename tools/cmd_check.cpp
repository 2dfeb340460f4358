// SPDX-License-Identifier: MIT
// recstore check: the consistency checker of one disk. Reads the data partition's maps, the index
// tree and (when mounted) the tmpfs cache, and reports every place where they disagree. With
// --repair it changes only what is safe to change: stale links, stale cache tags, empty index
// files (with their links), header counters of sound entries and an unfinished last entry.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bitmap.h"
#include "cache.h"
#include "data_zone.h"
#include "cli.h"
#include "commands.h"
#include "disk_view.h"
#include "fs_tools.h"
#include "fstype_old.h"

namespace tool {

namespace {

constexpr const char *kCmd = "check";
constexpr size_t kTagBytes = recstore::kCacheTagSize;

// One inconsistency: its kind (a short word scripts can look for) and what was found.
struct Finding {
    std::string kind;
    std::string text;
    bool repairable = false;
};

// One repair attempt: whether it worked and what was done (or why not).
struct Repair {
    bool done = false;
    std::string text;
};

// A cache file and its tags.
struct CacheFile {
    std::string path;
    std::string leaf;  // index directory it mirrors, relative to the index root
    std::vector<uint64_t> tags;
};

class Checker {
  public:
    Checker(const ZoneMaps &zone, IndexTree &tree) : zone_(zone), tree_(tree) {}

    void run() {
        check_magic();
        check_recordings();
        check_references();
        check_links();
        check_block_map();
    }
    void check_cache(const std::string &cache_root);
    // Repairs what is safe; the number of repairs that failed. Each attempt is in repairs().
    int repair();
    const std::vector<Finding> &findings() const { return findings_; }
    const std::vector<Repair> &repairs() const { return repairs_; }

  private:
    void add(const char *kind, const std::string &text, bool repairable = false) {
        findings_.push_back({kind, text, repairable});
    }
    uint32_t block_seq(uint32_t block) const {
        return recstore::entry_value(zone_.block_map[block - recstore::kFirstBlockId]);
    }
    void check_magic();
    void check_recordings();
    void check_entries(const Recording &r);
    void check_references();
    void check_links();
    void check_block_map();
    bool relink(const std::string &path, uint32_t block, std::string *error) const;
    uint64_t expected_tag(const Recording &r) const;

    const ZoneMaps &zone_;
    IndexTree &tree_;
    std::vector<Finding> findings_;
    std::map<uint32_t, std::vector<std::string>> refs_;  // cluster -> "file entry i"
    std::vector<std::string> stale_links_;
    std::vector<std::string> empty_files_;  // empty index files and their links
    struct Recount {
        std::string path;
        uint32_t entries;
        uint64_t bytes;
        uint32_t frames;
    };
    std::vector<Recount> recounts_;  // headers whose counters are recounted from the entries
    std::vector<std::pair<std::string, uint64_t>> cut_tails_;  // files cut to whole entries
    std::vector<std::pair<std::string, uint32_t>> relinks_;    // files linked into a block again
    std::vector<CacheFile> cache_rewrites_;
    std::vector<Repair> repairs_;
};

void Checker::check_magic() {
    if (tree_.magic != RECSTORE_MAGIC_V7 && tree_.magic != RECSTORE_MAGIC_V6 &&
        tree_.magic != RECSTORE_MAGIC_V5 && tree_.magic != RECSTORE_MAGIC_V1) {
        add("magic", tree_.root + "/magic is missing or holds an unknown value");
    }
    for (const std::string &s : tree_.strays) {
        add("stray-file", s + " is neither an index file nor part of the link tree");
    }
}

void Checker::check_recordings() {
    for (size_t i = 0; i < tree_.recordings.size(); i++) {
        Recording &r = tree_.recordings[i];
        if (!r.header_ok && r.file_bytes == 0) {
            // Created, then cut before its header reached the disk: it holds no footage.
            add("empty-index", r.path + ": an empty index file (its header never reached the disk)",
                true);
            empty_files_.push_back(r.path);
            for (const LinkInfo &l : tree_.links) {
                if (l.recording == static_cast<int>(i)) empty_files_.push_back(l.path);
            }
            continue;
        }
        if (!r.header_ok) {
            add("bad-header", r.path + ": the header cannot be read (" +
                                  std::to_string(r.file_bytes) + " bytes)");
            continue;
        }
        const size_t before_entries = findings_.size();
        check_entries(r);
        // Counters that disagree with entries that are themselves sound are what a power cut
        // leaves of a recording still open (its header is rewritten only at close): recounted.
        const bool entries_sound = findings_.size() == before_entries;
        uint64_t bytes = 0;
        uint64_t frames = 0;
        for (const index_entry &e : r.entries) {
            bytes += e.length;
            frames += e.frame_count;
        }
        if (r.info.entry_count != r.entries.size() || r.info.total_bytes != bytes ||
            r.info.frame_count != frames) {
            char text[256];
            snprintf(text, sizeof text,
                     ": header counts %u entries, %llu bytes, %u key frames; the entries hold "
                     "%zu, %llu, %llu",
                     r.info.entry_count, static_cast<unsigned long long>(r.info.total_bytes),
                     r.info.frame_count, r.entries.size(), static_cast<unsigned long long>(bytes),
                     static_cast<unsigned long long>(frames));
            add("counters", r.path + text, entries_sound);
            if (entries_sound) {
                recounts_.push_back({r.path, static_cast<uint32_t>(r.entries.size()), bytes,
                                     static_cast<uint32_t>(frames)});
                // The cache check and its repair compare tags with the recounted header.
                r.info.entry_count = static_cast<uint32_t>(r.entries.size());
                r.info.total_bytes = bytes;
                r.info.frame_count = static_cast<uint32_t>(frames);
            }
        }
        if (r.zero_tail != 0) {
            // Zeros where entries should be: readers end the recording before them.
            add("zero-tail",
                r.path + ": " + std::to_string(r.zero_tail) +
                    " bytes of zeros after the last entry (a power cut's torn end)",
                true);
        }
        if (r.partial_tail != 0) {
            // Readers stop before it; cutting it off loses nothing.
            add("partial-entry",
                r.path + ": " + std::to_string(r.partial_tail) +
                    " bytes of an unfinished entry at the end",
                true);
        }
        if (r.zero_tail != 0 || r.partial_tail != 0) {
            cut_tails_.push_back({r.path, r.file_bytes - r.zero_tail - r.partial_tail});
        }
        if (r.link_blocks.empty()) {
            // A power cut between the creation of the file and its link: linked again into the
            // block its header names, recycling clears it with that block.
            const bool relink = r.header_ok && r.info.block_id >= recstore::kFirstBlockId &&
                                r.info.block_id < recstore::kFirstBlockId + zone_.block_count;
            add("no-link", r.path + ": no link in any block's link directory", relink);
            if (relink) relinks_.push_back({r.path, r.info.block_id});
        } else if (std::find(r.link_blocks.begin(), r.link_blocks.end(), r.info.block_id) ==
                   r.link_blocks.end()) {
            add("link-block", r.path + ": the header says block " +
                                  std::to_string(r.info.block_id) + ", the link is in block " +
                                  std::to_string(r.link_blocks[0]));
        }
        if (r.link_blocks.size() > 1) {
            add("link-block", r.path + ": linked from " + std::to_string(r.link_blocks.size()) +
                                  " block directories");
        }
    }
}

void Checker::check_entries(const Recording &r) {
    for (size_t i = 0; i < r.entries.size(); i++) {
        const uint32_t c = r.entries[i].cluster_id;
        const std::string where = r.path + " entry " + std::to_string(i);
        refs_[c].push_back(where);
        const uint32_t block = zone_.block_of(c);
        if (block == 0) {
            add("bad-entry",
                where + ": cluster " + std::to_string(c) + " lies outside the data area");
            continue;
        }
        const uint32_t state = zone_.cluster_maps[block - 1][c - zone_.first_cluster(block)];
        if (!recstore::entry_is_busy(state)) {
            add("bad-entry", where + ": cluster " + std::to_string(c) + " is " +
                                 entry_state_name(state) + " in block " + std::to_string(block) +
                                 "'s cluster map");
        }
        // A recording continues in the next current block when its block fills while it is open:
        // entries may lie in later blocks than its link's, never in earlier ones.
        if (!r.link_blocks.empty()) {
            const uint32_t linked = r.link_blocks[0];
            if (block != linked && linked >= 1 && linked <= zone_.block_count &&
                block_seq(block) < block_seq(linked)) {
                add("bad-entry", where + ": cluster " + std::to_string(c) + " is in block " +
                                     std::to_string(block) + ", older than block " +
                                     std::to_string(linked) + " its link is in");
            }
        }
    }
}

void Checker::check_references() {
    for (const auto &ref : refs_) {
        if (ref.second.size() < 2) continue;
        std::string text = "cluster " + std::to_string(ref.first) + " is referenced by " +
                           std::to_string(ref.second.size()) + " index entries:";
        for (const std::string &w : ref.second) text += " " + w + ";";
        add("shared-cluster", text);
    }
    for (uint32_t b = 1; b <= zone_.block_count; b++) {
        const std::vector<uint32_t> &map = zone_.cluster_maps[b - 1];
        const uint32_t first = zone_.first_cluster(b);
        uint32_t run_start = 0, run_len = 0;
        auto flush = [&] {
            if (run_len == 0) return;
            char text[160];
            snprintf(text, sizeof text, "block %u: busy cluster%s %u%s%s no index entry points to",
                     b, run_len > 1 ? "s" : "", run_start,
                     run_len > 1 ? ("-" + std::to_string(run_start + run_len - 1)).c_str() : "",
                     run_len > 1 ? (" (" + std::to_string(run_len) + ")").c_str() : "");
            add("unreferenced-cluster", text);
            run_len = 0;
        };
        for (uint32_t k = 0; k < map.size(); k++) {
            const uint32_t c = first + k;
            const bool lost = recstore::entry_is_busy(map[k]) && refs_.count(c) == 0;
            if (lost && run_len > 0 && run_start + run_len == c) {
                run_len++;
            } else {
                flush();
                if (lost) {
                    run_start = c;
                    run_len = 1;
                }
            }
        }
        flush();
    }
}

void Checker::check_links() {
    for (const LinkInfo &l : tree_.links) {
        if (!l.name_ok) {
            add("bad-link", l.path + ": not named after a recording");
        } else if (l.target.empty()) {
            add("bad-link", l.path + ": not a symbolic link");
        } else if (!l.resolves) {
            add("stale-link", l.path + " -> " + l.target + ": the index file is gone", true);
            stale_links_.push_back(l.path);
        } else if (l.recording < 0) {
            add("bad-link", l.path + " -> " + l.target + ": points outside the index tree");
        }
        if (l.block < 1 || l.block > zone_.block_count) {
            add("bad-link", l.path + ": block " + std::to_string(l.block) + " does not exist");
        }
    }
}

void Checker::check_block_map() {
    // The current block is marked busy while it is being filled and stays so until the next
    // start-up check: the busy block with the latest sequence may be partly free.
    uint32_t latest = 0, latest_seq = 0;
    for (uint32_t b = 1; b <= zone_.block_count; b++) {
        const uint32_t e = zone_.block_map[b - 1];
        if (recstore::entry_is_busy(e) && (latest == 0 || recstore::entry_value(e) >= latest_seq)) {
            latest = b;
            latest_seq = recstore::entry_value(e);
        }
    }
    for (uint32_t b = 1; b <= zone_.block_count; b++) {
        const uint32_t e = zone_.block_map[b - 1];
        const BlockCounts c = count_block(zone_.cluster_maps[b - 1]);
        char text[200];
        if (c.free == 0 && !recstore::entry_is_busy(e)) {
            snprintf(text, sizeof text,
                     "block %u: every cluster is used but the block map says %s (0x%08x)", b,
                     entry_state_name(e), e);
            add("block-state", text);
        } else if (c.free > 0 && recstore::entry_is_busy(e) && b != latest) {
            snprintf(text, sizeof text,
                     "block %u: busy in the block map (0x%08x) with %u free clusters, but block "
                     "%u is the current one",
                     b, e, c.free, latest);
            add("block-state", text);
        }
    }
}

uint64_t Checker::expected_tag(const Recording &r) const {
    struct tm end;
    from_fs_tm(&end, &r.info.end_time);
    struct tm start = r.start;
    if (r.info.entry_count == 0 || timegm(&end) < timegm(&start)) end = r.start;
    return filename_to_cachetag(&end, r.info.mode, static_cast<unsigned>(r.info.total_bytes),
                                r.name.c_str());
}

bool read_tags(const std::string &path, std::vector<uint64_t> *tags) {
    recstore::PlainFdGuard fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    unsigned char b[kTagBytes];
    while (read(fd.get(), b, sizeof b) == static_cast<ssize_t>(sizeof b)) {
        tags->push_back(recstore::le64_load(b));
    }
    return true;
}

void find_cache_files(const std::string &root, const std::string &rel,
                      std::vector<CacheFile> *out) {
    const std::string dir = rel.empty() ? root : root + "/" + rel;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent64 *e = readdir64(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names) {
        const std::string sub = rel.empty() ? n : rel + "/" + n;
        struct stat st;
        if (lstat((root + "/" + sub).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            find_cache_files(root, sub, out);
        } else if (n == "cache") {
            CacheFile f;
            f.path = root + "/" + sub;
            f.leaf = rel;
            read_tags(f.path, &f.tags);
            out->push_back(f);
        }
    }
}

std::string leaf_of(const Recording &r) {
    return r.relative.substr(0, r.relative.rfind('/'));
}

void Checker::check_cache(const std::string &cache_root) {
    std::vector<CacheFile> files;
    find_cache_files(cache_root, "", &files);
    std::vector<bool> tagged(tree_.recordings.size(), false);
    std::map<std::string, size_t> file_of_leaf;
    for (size_t f = 0; f < files.size(); f++) {
        CacheFile &cf = files[f];
        file_of_leaf[cf.leaf] = f;
        CacheFile fixed = cf;
        fixed.tags.clear();
        bool changed = false;
        for (uint64_t tag : cf.tags) {
            const uint32_t lo = static_cast<uint32_t>(tag), hi = static_cast<uint32_t>(tag >> 32);
            int match = -1;
            for (size_t k = 0; k < tree_.recordings.size(); k++) {
                const Recording &r = tree_.recordings[k];
                if (leaf_of(r) == cf.leaf && match_cachetag(lo, hi, &r.start) == 0) {
                    match = static_cast<int>(k);
                    break;
                }
            }
            char text[96];
            snprintf(text, sizeof text, " tag %08x:%08x", hi, lo);
            if (match < 0) {
                add("stale-tag", cf.path + text + ": no index file starts at that second", true);
                changed = true;
                continue;
            }
            if (tagged[match]) {
                add("stale-tag",
                    cf.path + text + ": a second tag of " + tree_.recordings[match].name, true);
                changed = true;
                continue;
            }
            tagged[match] = true;
            const Recording &r = tree_.recordings[match];
            if (!r.header_ok) {
                fixed.tags.push_back(tag);
                continue;
            }
            const uint64_t want = expected_tag(r);
            if (want != tag) {
                char more[64];
                snprintf(more, sizeof more, " (the index file gives %08x:%08x)",
                         static_cast<uint32_t>(want >> 32), static_cast<uint32_t>(want));
                add("stale-tag", cf.path + text + ": differs from " + r.name + more, true);
                changed = true;
            }
            fixed.tags.push_back(want);
        }
        if (changed) cache_rewrites_.push_back(fixed);
    }
    for (size_t k = 0; k < tree_.recordings.size(); k++) {
        const Recording &r = tree_.recordings[k];
        if (tagged[k] || !r.header_ok) continue;
        const std::string path = cache_root + "/" + leaf_of(r) + "/cache";
        add("stale-tag", r.path + ": no tag in " + path, true);
        auto pending = std::find_if(cache_rewrites_.begin(), cache_rewrites_.end(),
                                    [&](const CacheFile &f) { return f.path == path; });
        if (pending == cache_rewrites_.end()) {
            const auto it = file_of_leaf.find(leaf_of(r));
            CacheFile f =
                it == file_of_leaf.end() ? CacheFile{path, leaf_of(r), {}} : files[it->second];
            cache_rewrites_.push_back(f);
            pending = cache_rewrites_.end() - 1;
        }
        pending->tags.push_back(expected_tag(r));
    }
}

bool write_tags(const CacheFile &f) {
    // A recording without any tag in its directory may need the directory made first.
    const std::string dir = f.path.substr(0, f.path.rfind('/'));
    for (size_t at = dir.find('/', 1); at != std::string::npos; at = dir.find('/', at + 1)) {
        mkdir(dir.substr(0, at).c_str(), 0755);
    }
    mkdir(dir.c_str(), 0755);
    if (f.tags.empty()) return unlink(f.path.c_str()) == 0;
    const std::string tmp = dir + "/cachetmp";
    {
        recstore::PlainFdGuard fd(
            open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.get() < 0) return false;
        for (uint64_t tag : f.tags) {
            unsigned char b[kTagBytes];
            recstore::le64_store(b, tag);
            if (write(fd.get(), b, sizeof b) != static_cast<ssize_t>(sizeof b)) return false;
        }
    }
    return rename(tmp.c_str(), f.path.c_str()) == 0;
}

// Writes a header's entry, byte and key-frame counters in place and flushes the file.
bool write_counters(const std::string &path, uint32_t entries, uint64_t bytes, uint32_t frames) {
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0) return false;
    unsigned char count[4], total[8], keys[4];
    recstore::le32_store(count, entries);
    recstore::le64_store(total, bytes);
    recstore::le32_store(keys, frames);
    const bool ok = pwrite(fd, count, sizeof count, recstore::kOffEntryCount) == sizeof count &&
                    pwrite(fd, total, sizeof total, recstore::kOffTotalBytes) == sizeof total &&
                    pwrite(fd, keys, sizeof keys, recstore::kOffFrameCount) == sizeof keys &&
                    fsync(fd) == 0;
    const int saved = errno;
    close(fd);
    errno = saved;
    return ok;
}

// Links an index file into a block's link directory as the library does: the link is named after
// the file and points to "../../" plus the file's path below the index root.
bool Checker::relink(const std::string &path, uint32_t block, std::string *error) const {
    const std::string &root = tree_.root;
    if (path.compare(0, root.size() + 1, root + "/") != 0) {
        *error = "not below " + root;
        return false;
    }
    char dir[64];
    snprintf(dir, sizeof dir, "/link/%08u", block);
    const std::string link_dir = root + dir;
    if (mkdir((root + "/link").c_str(), 0777) != 0 && errno != EEXIST) {
        *error = strerror(errno);
        return false;
    }
    if (mkdir(link_dir.c_str(), 0777) != 0 && errno != EEXIST) {
        *error = strerror(errno);
        return false;
    }
    const std::string name = path.substr(path.rfind('/') + 1);
    const std::string target = "../../" + path.substr(root.size() + 1);
    if (symlink(target.c_str(), (link_dir + "/" + name).c_str()) != 0) {
        *error = strerror(errno);
        return false;
    }
    return true;
}

int Checker::repair() {
    int failed = 0;
    auto done = [this, &failed](bool ok, const std::string &text) {
        repairs_.push_back({ok, text});
        failed += ok ? 0 : 1;
    };
    for (const std::string &l : stale_links_) {
        if (unlink(l.c_str()) == 0) {
            done(true, "removed the stale link " + l);
        } else {
            done(false, "cannot remove " + l + ": " + strerror(errno));
        }
    }
    for (const std::string &e : empty_files_) {
        if (unlink(e.c_str()) == 0) {
            done(true, "removed " + e);
        } else {
            done(false, "cannot remove " + e + ": " + strerror(errno));
        }
    }
    for (const Recount &c : recounts_) {
        if (write_counters(c.path, c.entries, c.bytes, c.frames)) {
            done(true, "recounted the header of " + c.path + ": " + std::to_string(c.entries) +
                           " entries");
        } else {
            done(false, "cannot rewrite the header of " + c.path + ": " + strerror(errno));
        }
    }
    for (const auto &t : cut_tails_) {
        if (truncate(t.first.c_str(), static_cast<off_t>(t.second)) == 0) {
            done(true, "cut what follows the last entry off " + t.first);
        } else {
            done(false, "cannot cut " + t.first + ": " + strerror(errno));
        }
    }
    for (const auto &l : relinks_) {
        std::string error;
        if (relink(l.first, l.second, &error)) {
            done(true, "linked " + l.first + " into block " + std::to_string(l.second));
        } else {
            done(false, "cannot link " + l.first + ": " + error);
        }
    }
    for (const CacheFile &f : cache_rewrites_) {
        if (write_tags(f)) {
            done(true, "rewrote " + f.path + " with " + std::to_string(f.tags.size()) +
                           " tag(s) taken from the index files");
        } else {
            done(false, "cannot rewrite " + f.path + ": " + strerror(errno));
        }
    }
    return failed;
}

void help() {
    printf(
        "usage: recstore check [--repair] [--json] DEV\n\n"
        "Checks one disk (DEV is /dev/hd/sda ... /dev/hd/sdh) and reports every inconsistency\n"
        "between its data maps, its index files, its links and the cache:\n"
        "  - every busy cluster is referenced by exactly one index entry;\n"
        "  - every index entry points into a busy cluster of its link's block (or of a later\n"
        "    block, where a recording continued after a block change);\n"
        "  - every link resolves to an index file and every index file has a link;\n"
        "  - every cache tag matches its index file (when /mnt/cache/sdX exists);\n"
        "  - block-map states match the cluster maps (a full block is busy; only the current\n"
        "    block may be busy while partly free);\n"
        "  - each header's counters match its entries.\n"
        "Each finding is printed as \"inconsistency [KIND] what was found\", then the count.\n"
        "Read-only by default: the index partition is used where it is mounted (/mnt/sdX) or\n"
        "mounted read-only there for the check (root). Run it on a disk that is not being\n"
        "recorded to: an open recording's cache tag lags behind its index file.\n\n"
        "  --repair   fix what is safe: remove stale links and empty index files (a power cut\n"
        "             before their header was written; they hold no footage), recount header\n"
        "             counters from sound entries, cut zeros or an unfinished entry after the\n"
        "             last entry off, link an index file without a link into the block\n"
        "             its header names, rewrite stale cache tags from the index files.\n"
        "             Everything else is only reported.\n"
        "  --json     print the result as one JSON object (device, counts, findings with kind,\n"
        "             text and repairable, repairs, left, status) instead of the text.\n\n"
        "exit status, as file-system checkers give it:\n"
        "  0   no inconsistency\n"
        "  1   inconsistencies found and all of them repaired (--repair)\n"
        "  4   inconsistencies left: found without --repair, or not repairable\n"
        "  8   operational error: the disk or one of its partitions could not be read\n"
        "  16  usage error\n");
}

// The check's outcome as text, the way people read it.
void print_text(const std::string &dev, const ZoneMaps &zone, const IndexTree &tree,
                const std::string &cache, const Checker &checker, bool repaired, int left) {
    printf("checked %s: %u blocks in the data zone, %zu index files, %zu links, cache %s\n",
           dev.c_str(), zone.block_count, tree.recordings.size(), tree.links.size(),
           cache.empty() ? "not mounted (not checked)" : cache.c_str());
    int repairable = 0;
    for (const Finding &f : checker.findings()) {
        printf("inconsistency [%s] %s\n", f.kind.c_str(), f.text.c_str());
        repairable += f.repairable ? 1 : 0;
    }
    const int found = static_cast<int>(checker.findings().size());
    printf("%d inconsistenc%s found", found, found == 1 ? "y" : "ies");
    if (found > 0) printf(" (%d of them repairable with --repair)", repairable);
    printf("\n");
    if (!repaired) return;
    for (const Repair &r : checker.repairs()) {
        printf("%s: %s\n", r.done ? "repaired" : "NOT repaired", r.text.c_str());
    }
    printf("%d inconsistenc%s left after repair\n", left, left == 1 ? "y" : "ies");
}

// The same as one JSON object.
void print_json(const std::string &dev, const ZoneMaps &zone, const IndexTree &tree,
                const std::string &cache, const Checker &checker, bool repaired, int left,
                int status) {
    printf("{\n  \"device\": %s,\n  \"blocks\": %u,\n  \"index_files\": %zu,\n  \"links\": %zu,\n",
           json_string(dev).c_str(), zone.block_count, tree.recordings.size(), tree.links.size());
    printf("  \"cache\": %s,\n  \"findings\": [",
           cache.empty() ? "null" : json_string(cache).c_str());
    const std::vector<Finding> &findings = checker.findings();
    for (size_t i = 0; i < findings.size(); i++) {
        printf("%s\n    {\"kind\": %s, \"text\": %s, \"repairable\": %s}", i == 0 ? "" : ",",
               json_string(findings[i].kind).c_str(), json_string(findings[i].text).c_str(),
               findings[i].repairable ? "true" : "false");
    }
    printf("%s],\n  \"repairs\": [", findings.empty() ? "" : "\n  ");
    const std::vector<Repair> &repairs = checker.repairs();
    for (size_t i = 0; i < repairs.size(); i++) {
        printf("%s\n    {\"done\": %s, \"text\": %s}", i == 0 ? "" : ",",
               repairs[i].done ? "true" : "false", json_string(repairs[i].text).c_str());
    }
    printf("%s],\n  \"found\": %zu,\n  \"repaired\": %s,\n  \"left\": %d,\n  \"status\": %d\n}\n",
           repairs.empty() ? "" : "\n  ", findings.size(), repaired ? "true" : "false", left,
           status);
}

// Reports a failure to read or check the disk.
int operational(const std::string &message) {
    failure(kCmd, message);
    return kCheckOperational;
}

int usage(const std::string &message) {
    usage_error(kCmd, message);
    return kCheckUsage;
}

}  // namespace

int cmd_check(int argc, char **argv) {
    // A read-only view: the library's readers would report what this command reports itself
    // (headers without extension, missing magic files) as errors.
    loglevel = 0;
    if (wants_help(argc, argv)) {
        help();
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {}, {"--repair", "--json"}, &args, &error)) return usage(error);
    if (args.words.size() != 1) return usage("give exactly one disk, e.g. /dev/hd/sda");
    const std::string dev = args.words[0];
    int disk = -1;
    if (!disk_node(dev, &disk)) {
        return usage("\"" + dev + "\" is not a disk node: use /dev/hd/sda ... /dev/hd/sdh");
    }
    const bool repair = args.has("--repair");
    // Nothing is mounted for a disk that is not there.
    if (access(dev.c_str(), F_OK) != 0) {
        return operational(dev +
                           " does not exist: is the disk plugged in? On a development machine "
                           "run the tool inside the disk rig");
    }

    ProgressTicker ticker(stdout, "checking " + dev);
    char mnt[RECSTORE_PATH_LEN];
    mount_point(dev.c_str(), mnt, sizeof mnt);
    IndexMount index;
    if (!index.open(dev + "2", mnt, repair, &error)) return operational(error);
    IndexTree tree;
    if (!load_index_tree(mnt, disk, &tree, &error)) return operational(error);
    ZoneMaps zone;
    {
        const std::string part = dev + "3";
        recstore::PlainFdGuard fd(open(part.c_str(), O_RDONLY | O_LARGEFILE | O_CLOEXEC));
        if (fd.get() < 0) {
            return operational("cannot open the data partition " + part + ": " + strerror(errno) +
                               " (is the disk plugged in and formatted?)");
        }
        const int64_t bytes = blockdev_size(disk, fd.get());
        if (bytes <= 0) return operational("cannot size " + part);
        if (!load_zone_maps(fd.get(), 0, static_cast<uint64_t>(bytes), tree.magic, &zone, &error)) {
            return operational(part + ": " + error);
        }
    }
    Checker checker(zone, tree);
    checker.run();
    const std::string cache_root = std::string("/mnt/cache/sd") + static_cast<char>('a' + disk);
    struct stat st;
    const bool cache = stat(cache_root.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if (cache) checker.check_cache(cache_root);

    int repairable = 0;
    for (const Finding &f : checker.findings()) repairable += f.repairable ? 1 : 0;
    const int found = static_cast<int>(checker.findings().size());
    const bool repaired = repair && found > 0;
    int left = found;
    if (repaired) left = found - repairable + checker.repair();
    ticker.stop();
    const int status = found == 0 ? kCheckClean : left == 0 ? kCheckFixed : kCheckLeft;
    if (args.has("--json")) {
        print_json(dev, zone, tree, cache ? cache_root : "", checker, repaired, left, status);
    } else {
        print_text(dev, zone, tree, cache ? cache_root : "", checker, repaired, left);
    }
    return status;
}

}  // namespace tool
