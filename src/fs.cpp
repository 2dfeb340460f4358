// SPDX-License-Identifier: MIT
// Disk management and streams: the disk table g_disk with its per-disk mutexes, the disk groups,
// the library-wide mode flags, the preparation of a disk (partitioning, formatting, checking and
// mounting through the external tools), bringing a disk's data zone up and the fullness tests;
// the stream table with opening, writing and closing recordings, block changes with the host's
// callbacks, and the deletion of recordings and of whole blocks.
//
// File map, in order:
//   (head) The disk table g_disk and group table g_grp with the mode flags, and fs_version.
//   Disk preparation: external tools, partitioning, formatting, checking, mounting, probing and
//     the system-partition tests (fs_format, fs_chk, fs_mount, fs_umount, fs_probe).
//   The disk table, groups and fullness: g_diskrwlock, the stream table g_file_ctx with g_fslock,
//     the exception-handler words, fs_init/exit, opening and closing disks, bringing a data zone
//     up and down, fullness tests, groups, fs_lockdisk/fs_unlockdisk.
//   Streams: fs_open (current block, index file, block link, cache tag), fs_write, fs_close and
//     the small per-stream operations.
//   Reading: fs_read, fs_read_r, preload, tell and seek, key-frame navigation.
//   Block change and the host's exception callbacks: fs_changeblock and the handler setters.
//   Deletion: fs_delete, fs_delete_index_before, fs_clear and the block tests of recycling
//     (fs_block_timeout, fs_earliest, fs_before).
//   Search and calendar of one disk: fs_find, fs_get_calendar and their index-tree actions.
#include "fs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <utility>
#include <array>
#include <vector>
#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "bitmap.h"
#include "cache.h"
#include "data_zone.h"
#include "fs_tools.h"
#include "fstype_old.h"
#include "index.h"

fs_disk_info g_disk[RECSTORE_MAX_DISKS];
fs_group g_grp[RECSTORE_MAX_GROUPS];
int g_fs_rdonly = 0;
int g_fs_directio = 0;
int g_fs_usecache = 1;
int g_max_duration_in_sec = 7200;

namespace {

// The disk mutexes must be usable from the moment the library is loaded: disk preparation takes
// them before the disk layer is initialised.
struct DiskTableInit {
    DiskTableInit() {
        for (auto &d : g_disk) pthread_mutex_init(&d.lock, nullptr);
        for (auto &g : g_grp) g = fs_group{};
    }
};
const DiskTableInit g_disk_table_init;

}  // namespace

static_assert(sizeof(datazone_info) == 184, "datazone_info is 184 bytes on every platform");
static_assert(offsetof(datazone_info, totalsize) == 128, "datazone_info layout");
static_assert(offsetof(datazone_info, cluster_size) == 144, "datazone_info layout");
static_assert(offsetof(datazone_info, data_count) == 180, "datazone_info layout");
#if defined(__arm__)
static_assert(sizeof(fs_disk_info) == 560, "a disk table entry is 560 bytes on the target");
static_assert(offsetof(fs_disk_info, idx_statfs) == 276, "disk table entry layout");
static_assert(offsetof(fs_disk_info, dz_info) == 344, "disk table entry layout");
static_assert(offsetof(fs_disk_info, lock) == 528, "disk table entry layout");
static_assert(offsetof(fs_disk_info, opened_flag) == 552, "disk table entry layout");
#endif
static_assert(offsetof(fs_disk_info, devname) == 20, "disk table entry layout");
static_assert(offsetof(fs_disk_info, idx_root) == 148, "disk table entry layout");

const char *fs_version(int disk_id) {
    if (!recstore::valid_disk_id(disk_id)) return "";
    switch (g_magic[disk_id]) {
        case RECSTORE_MAGIC_V1:
            return "1.0.0.2";
        case RECSTORE_MAGIC_V5:
            return "5.0.0.0";
        case RECSTORE_MAGIC_V6:
            return "6.0.0.0";
        case RECSTORE_MAGIC_V7:
            return "7.0.0.0";
        default:
            return "";
    }
}

const char *recstore_version(void) {
    return RECSTORE_VERSION_STRING;
}

// ---------------------------------------------------------------------------------------------
// Disk preparation.
//
// Every command line handed to the shell is built from a device name that passed
// is_disk_node_name() (or from the library's own constants), so nothing a caller names can reach
// the shell beyond "/dev/hd/sd" plus one letter a-h.

namespace {

using recstore::FdGuard;
using recstore::io_calls;
using recstore::io_dprintf;
using recstore::MutexGuard;

constexpr const char *kImgMountDir = "/mnt/img";   // system partition of one disk at a time
constexpr const char *kAppMountDir = "/mnt/app";   // the recorder's application image
constexpr const char *kSystemLoop = "/dev/loop0";  // what /mnt/app is mounted from
constexpr const char *kLogFileName = "/mnt/img/fs.log";
constexpr const char *kDiskDir = "/dev/hd/";
constexpr char kDiskPrefix[] = "/dev/hd/sd";
constexpr size_t kDiskPrefixLen = sizeof kDiskPrefix - 1;
constexpr char kFirstDiskLetter = 'a';
constexpr const char *kFsType = "ext4";
constexpr const char *kFsckTool = "fsck.ext4";
constexpr const char *kMkfsTool = "mkfs.ext4";

constexpr size_t kCmdLen = 512;           // one command line
constexpr size_t kHelpLineLen = 256;      // one line of a tool's help text
constexpr int kMaxPartedPartitions = 8;   // partitions removed before relabelling
constexpr int kNodeTries = 8;             // waits for the partition nodes to appear
constexpr long kNodeWaitNs = 500000000L;  // 500 ms between those waits
constexpr int kFsckCorrected = 1;         // fsck: errors corrected
constexpr int kFsckCorrectedReboot = 2;   // fsck: errors corrected, reboot advised

// Where external tools are looked for, in this order. The application image comes first so that
// a recorder can ship its own versions.
constexpr const char *kToolDirs[] = {"/mnt/app", ".",         "/usr/local/bin", "/usr/local/sbin",
                                     "/usr/bin", "/usr/sbin", "/bin",           "/sbin"};

// The three partition nodes of a disk.
struct PartitionNodes {
    char sys[RECSTORE_PATH_LEN];   // partition 1
    char idx[RECSTORE_PATH_LEN];   // partition 2
    char data[RECSTORE_PATH_LEN];  // partition 3
};

PartitionNodes partition_nodes(const char *dev) {
    PartitionNodes nodes;
    snprintf(nodes.sys, sizeof nodes.sys, "%s1", dev);
    snprintf(nodes.idx, sizeof nodes.idx, "%s2", dev);
    snprintf(nodes.data, sizeof nodes.data, "%s3", dev);
    return nodes;
}

// Deleters for the directory stream and the command pipe.
struct DirCloser {
    void operator()(DIR *dir) const { io_calls().closedir(dir); }
};
struct PipeCloser {
    void operator()(FILE *pipe) const { io_calls().pclose(pipe); }
};

bool path_exists(const char *path) {
    return io_calls().access(path, F_OK) == 0;
}

bool all_partitions_exist(const PartitionNodes &nodes) {
    return path_exists(nodes.sys) && path_exists(nodes.idx) && path_exists(nodes.data);
}

void sleep_between_tries() {
    struct timespec ts = {0, kNodeWaitNs};
    nanosleep(&ts, nullptr);
}

// Formats a command line into buf; false (nothing to run) when it would not fit.
bool build_cmd(char *buf, size_t n, const char *format, ...) __attribute__((format(printf, 3, 4)));
bool build_cmd(char *buf, size_t n, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    const int len = vsnprintf(buf, n, format, ap);
    va_end(ap);
    if (len < 0 || static_cast<size_t>(len) >= n) {
        FS_LOG_ERR("command line too long\n");
        buf[0] = '\0';
        return false;
    }
    return true;
}

// Prints the command line, then runs it; the command's status, or -1 when it could not be built.
int run_cmd(char *cmd) {
    if (cmd[0] == '\0') return -1;
    FS_LOG_PLAIN("%s\n", cmd);
    return fs_system(cmd);
}

// The exit code of a command from its wait status; -1 when it did not exit normally.
int exit_code(int status) {
    if (status < 0 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// Tool names are plain file names: letters, digits, '.', '_' and '-', not "." or "..".
bool is_tool_name(const char *tool) {
    if (tool == nullptr || tool[0] == '\0' || tool[0] == '-') return false;
    if (strcmp(tool, ".") == 0 || strcmp(tool, "..") == 0) return false;
    for (const char *c = tool; *c != '\0'; c++) {
        const bool ok = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') ||
                        (*c >= '0' && *c <= '9') || *c == '.' || *c == '_' || *c == '-';
        if (!ok) return false;
    }
    return true;
}

// True when the tool's help text has a line that mentions "fix".
bool help_mentions_fix(const char *tool_path) {
    char cmd[kCmdLen];
    if (!build_cmd(cmd, sizeof cmd, "%s -h | grep fix", tool_path)) return false;
    std::unique_ptr<FILE, PipeCloser> pipe(io_calls().popen(cmd, "r"));
    if (!pipe) return false;
    bool fix = false;
    char line[kHelpLineLen];
    while (fgets(line, sizeof line, pipe.get()) != nullptr) {
        if (strstr(line, "fix") != nullptr) fix = true;
    }
    return fix;
}

// Runs a tool found by fs_get_cmd without arguments, then flushes the file systems.
void run_tool_if_found(const char *tool) {
    char cmd[kCmdLen];
    if (fs_get_cmd(tool, cmd, sizeof cmd) != 0) return;
    run_cmd(cmd);
    io_calls().sync();
}

// Removes every partition, writes the label the disk's size calls for and makes the system,
// index and data partitions. parted's own failures are not detected. -1 without parted.
int partition_disk(const char *dev, uint64_t disk_bytes) {
    char parted[kCmdLen];
    if (fs_get_cmd("parted", parted, sizeof parted) != 0) {
        FS_LOG_PLAIN("does not support parted\n");
        return -1;
    }
    char cmd[kCmdLen];
    for (int n = 1; n <= kMaxPartedPartitions; n++) {
        if (build_cmd(cmd, sizeof cmd, "%s -s %s rm %d\n", parted, dev, n)) run_cmd(cmd);
    }
    const recstore::DiskLayout layout = recstore::disk_layout_for_size(disk_bytes);
    FS_LOG_PLAIN("disksize:%llu use %s\n", static_cast<unsigned long long>(disk_bytes),
                 layout.kind);
    if (build_cmd(cmd, sizeof cmd, "%s -s %s mklabel %s\n", parted, dev, layout.label)) {
        run_cmd(cmd);
    }
    if (build_cmd(cmd, sizeof cmd, "%s -s %s mkpart primary 0 128M\n", parted, dev)) run_cmd(cmd);
    if (build_cmd(cmd, sizeof cmd, "%s -s %s mkpart primary 128M %s\n", parted, dev,
                  layout.index_end)) {
        run_cmd(cmd);
    }
    if (build_cmd(cmd, sizeof cmd, "%s -s %s mkpart primary %s 100%% \n", parted, dev,
                  layout.index_end)) {
        run_cmd(cmd);
    }
    if (build_cmd(cmd, sizeof cmd, "%s -s %s print\n", parted, dev)) run_cmd(cmd);
    io_calls().sync();
    return 0;
}

// Has the kernel and udev re-read the partition table until the three nodes exist.
bool wait_for_nodes_after_format(const PartitionNodes &nodes) {
    for (int attempt = 0; attempt < kNodeTries; attempt++) {
        FS_LOG_PLAIN("notify to kernel the change of partion table\n");
        run_tool_if_found("partprobe");
        run_tool_if_found("udevstart");
        sleep_between_tries();
        FS_LOG_PLAIN("try to check %s for %d times\n", nodes.sys, attempt);
        if (all_partitions_exist(nodes)) return true;
    }
    return false;
}

// Builds the ext4 file systems: partition 1 unless the system runs from it, always partition 2.
int build_filesystems(const char *dev, bool system_on_disk) {
    FS_LOG_PLAIN("building filesystem\n");
    char mkfs[kCmdLen];
    if (fs_get_cmd(kMkfsTool, mkfs, sizeof mkfs) != 0) {
        FS_LOG_PLAIN("does not support %s\n", kMkfsTool);
        return -1;
    }
    char cmd[kCmdLen];
    if (!system_on_disk) {
        if (build_cmd(cmd, sizeof cmd, "%s -j -F %s1\n", mkfs, dev)) run_cmd(cmd);
        io_calls().sync();
    }
    // One inode per 4096 bytes: the index partition holds many small index files.
    if (build_cmd(cmd, sizeof cmd, "%s -i 4096 -j -F %s2\n", mkfs, dev)) run_cmd(cmd);
    io_calls().sync();
    return 0;
}

// The disk's size in bytes, or -1 when the device cannot be opened read-write.
int64_t open_and_measure(int disk_id, const char *dev) {
    FdGuard fd(io_calls().open(dev, O_RDWR | O_CLOEXEC | O_LARGEFILE, 0));
    if (fd.get() < 0) {
        FS_LOG_PLAIN("open dev:%s error\n", dev);
        return -1;
    }
    const int64_t size = blockdev_size(disk_id, fd.get());
    return size > 0 ? size : 0;
}

// Has the kernel re-read the partition table until the three nodes exist (before a check).
bool wait_for_nodes_before_check(const PartitionNodes &nodes) {
    for (int attempt = 0; attempt < kNodeTries; attempt++) {
        FS_LOG_INFO("notify to kernel the change of partion table\n");
        char cmd[kCmdLen];
        if (fs_get_cmd("partprobe", cmd, sizeof cmd) == 0) {
            FS_LOG_PLAIN("%s\n\n", cmd);
            fs_system(cmd);
        }
        io_calls().sync();
        sleep_between_tries();
        FS_LOG_PLAIN("try to check %s %s for %d times\n", nodes.sys, nodes.idx, attempt);
        if (all_partitions_exist(nodes)) return true;
    }
    return false;
}

// The file-system check itself, under the disk's mutex.
int check_index_partition(int disk_id, const char *dev, const PartitionNodes &nodes) {
    MutexGuard guard(g_disk[disk_id].lock);
    char mnt[RECSTORE_PATH_LEN] = "";
    mount_point(dev, mnt, sizeof mnt);
    if (find_mount_point(mnt, nullptr)) {
        FS_LOG_INFO("must umount :%s before check\n", mnt);
        return 0;
    }
    char cmd[kCmdLen];
    if (!build_cmd(cmd, sizeof cmd, "%s -y %s", kFsckTool, nodes.idx)) return -1;
    const int code = exit_code(run_cmd(cmd));
    if (code == 0) return 0;
    if (code == kFsckCorrected) {
        FS_LOG_WARN("File system errors corrected\n");
        return 0;
    }
    if (code == kFsckCorrectedReboot) {
        FS_LOG_WARN("File system errors corrected, system should be rebooted\n");
        return 0;
    }
    return -1;
}

// Runs the mount command and, when it fails, the remount variant; the last status.
int mount_or_remount(const char *options, const char *node, const char *dir) {
    char cmd[kCmdLen];
    if (!build_cmd(cmd, sizeof cmd, "mount -t %s -o %s %s %s", kFsType, options, node, dir)) {
        return -1;
    }
    int status = run_cmd(cmd);
    if (status == 0) return 0;
    if (!build_cmd(cmd, sizeof cmd, "mount -t %s -o remount,%s %s %s", kFsType, options, node,
                   dir)) {
        return -1;
    }
    status = run_cmd(cmd);
    if (status != 0) FS_LOG_PLAIN("mount return :%d\n", status);
    return status;
}

// Mounting under the disk's mutex; sync follows outside it.
int mount_locked(int disk_id, const char *dev) {
    MutexGuard guard(g_disk[disk_id].lock);
    const PartitionNodes nodes = partition_nodes(dev);
    if (is_img_mounted() != 1) {
        // A failing system partition does not stop the index partition from being mounted.
        mount_or_remount("noatime,nodiratime", nodes.sys, kImgMountDir);
    }
    if (!fs_log_is_inited()) fs_log_init(kLogFileName);
    char mnt[RECSTORE_PATH_LEN] = "";
    mount_point(dev, mnt, sizeof mnt);
    // mkdir_recursive creates the directories that end in '/', so the mount point gets one.
    char mnt_dir[RECSTORE_PATH_LEN + 1];
    snprintf(mnt_dir, sizeof mnt_dir, "%s/", mnt);
    mkdir_recursive(mnt_dir);
    io_calls().sync();
    // Only the index partition is mounted with data=writeback: its files are rewritten often
    // and their contents are made consistent by the index layer itself.
    if (mount_or_remount("noatime,nodiratime,data=writeback", nodes.idx, mnt) != 0) return -1;
    return 0;
}

void umount_locked(int disk_id, const char *dev) {
    MutexGuard guard(g_disk[disk_id].lock);
    if (fs_log_is_inited()) fs_log_exit();
    char cmd[kCmdLen];
    if (!is_running_on_hd(dev) && is_img_mounted_on_hd(dev)) {
        if (build_cmd(cmd, sizeof cmd, "umount -f %s\n", kImgMountDir) && run_cmd(cmd) < 0) {
            FS_LOG_PLAIN("umount system partion error\n");
        }
    }
    char mnt[RECSTORE_PATH_LEN] = "";
    mount_point(dev, mnt, sizeof mnt);
    if (build_cmd(cmd, sizeof cmd, "umount -f %s\n", mnt) && run_cmd(cmd) < 0) {
        FS_LOG_PLAIN("umount error\n");
    }
}

// One entry of a probe list.
using DiskPath = std::array<char, RECSTORE_PATH_LEN>;

// Orders probed disks by disk id (compare_disk). At most eight entries: insertion sort.
void sort_by_disk_id(DiskPath *paths, int n) {
    for (int i = 1; i < n; i++) {
        for (int j = i; j > 0 && todiskid(paths[j - 1].data()) > todiskid(paths[j].data()); j--) {
            std::swap(paths[j - 1], paths[j]);
        }
    }
}

}  // namespace

namespace recstore {

DiskLayout disk_layout_for_size(uint64_t disk_bytes) {
    if (disk_bytes <= kMbrMaxDiskBytes) return DiskLayout{false, "mbr", "msdos", "8GB"};
    return DiskLayout{true, "gpt", "gpt", "32GB"};
}

bool is_disk_node_name(const char *dev) {
    if (dev == nullptr || strncmp(dev, kDiskPrefix, kDiskPrefixLen) != 0) return false;
    const char letter = dev[kDiskPrefixLen];
    return letter >= kFirstDiskLetter && letter < kFirstDiskLetter + RECSTORE_MAX_DISKS &&
           dev[kDiskPrefixLen + 1] == '\0';
}

int checked_disk_id(const char *dev) {
    const int disk_id = fs_diskid(dev);
    if (!valid_disk_id(disk_id)) {
        FS_LOG_ERR("invalid disk id:%d\n", disk_id);
        return -1;
    }
    if (!is_disk_node_name(dev)) {
        FS_LOG_ERR("invalid disk device name\n");
        return -1;
    }
    return disk_id;
}

}  // namespace recstore

int fs_diskid(const char *dev) {
    if (dev == nullptr) return -1;
    return todiskid(dev);
}

const char *fs_devname(int disk_id) {
    if (!recstore::valid_disk_id(disk_id) || g_disk[disk_id].devname[0] == '\0') return nullptr;
    return g_disk[disk_id].devname;
}

int fs_get_cmd(const char *tool, char *out, size_t size) {
    if (!is_tool_name(tool) || out == nullptr || size == 0) return -1;
    char path[RECSTORE_PATH_LEN];
    bool found = false;
    for (const char *dir : kToolDirs) {
        const int len = snprintf(path, sizeof path, "%s/%s", dir, tool);
        if (len > 0 && static_cast<size_t>(len) < sizeof path && path_exists(path)) {
            found = true;
            break;
        }
    }
    if (!found) return -1;
    // parted asks questions even in script mode (a label that does not fit the disk, a start
    // that cannot be aligned); versions that can be told to fix things get " -f".
    const bool fix = strcasecmp(tool, "parted") == 0 && help_mentions_fix(path);
    const int len = fix ? snprintf(out, size, "%s -f", path) : snprintf(out, size, "%s", path);
    if (len < 0 || static_cast<size_t>(len) >= size) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int fs_format(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    const int64_t disk_bytes = open_and_measure(disk_id, dev);
    if (disk_bytes < 0) return -1;

    MutexGuard guard(g_disk[disk_id].lock);
    const bool system_on_disk = is_running_on_hd(dev) != 0;
    if (!system_on_disk) {
        FS_LOG_PLAIN("system is not running on %s,parted it\n", dev);
        if (partition_disk(dev, static_cast<uint64_t>(disk_bytes)) != 0) return -1;
    } else {
        // The running system's partition 1 and the table that holds it stay as they are.
        FS_LOG_PLAIN("running on hd :%s,not need to parted\n", dev);
    }
    // Nodes that never appear leave the file systems unbuilt; the later check and mount report
    // the disk then.
    if (!wait_for_nodes_after_format(partition_nodes(dev))) return 0;
    return build_filesystems(dev, system_on_disk);
}

int fs_chk(const char *dev) {
    if (g_fs_rdonly) {
        FS_LOG_PLAIN("fs_chkdata readonly\n");
        return -1;
    }
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    const PartitionNodes nodes = partition_nodes(dev);
    if (!wait_for_nodes_before_check(nodes)) return 0;
    const int result = check_index_partition(disk_id, dev, nodes);
    if (result == 0) io_calls().sync();
    return result;
}

int fs_mount(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    if (mount_locked(disk_id, dev) != 0) return -1;
    io_calls().sync();
    return 0;
}

int fs_umount(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    umount_locked(disk_id, dev);
    io_calls().sync();
    return 0;
}

int fs_probe(char (*list)[RECSTORE_PATH_LEN], int *count) {
    if (list == nullptr || count == nullptr) return -1;
    std::array<DiskPath, RECSTORE_PROBE_MAX> found{};
    int n = 0;
    std::unique_ptr<DIR, DirCloser> dir(io_calls().opendir(kDiskDir));
    if (dir) {
        while (const struct dirent *entry = io_calls().readdir(dir.get())) {
            char path[RECSTORE_PATH_LEN];
            const int len = snprintf(path, sizeof path, "%s%s", kDiskDir, entry->d_name);
            if (len < 0 || static_cast<size_t>(len) >= sizeof path) continue;
            // Whole disks only: partitions and names outside sda..sdh are never listed.
            if (!recstore::is_disk_node_name(path) || n >= RECSTORE_PROBE_MAX) continue;
            snprintf(found[static_cast<size_t>(n)].data(), RECSTORE_PATH_LEN, "%s", path);
            n++;
        }
    }
    sort_by_disk_id(found.data(), n);
    memcpy(list, found.data(), sizeof found);
    *count = n;
    return 0;
}

int is_img_mounted_on_hd(const char *dev) {
    if (!recstore::is_disk_node_name(dev)) return 0;
    const PartitionNodes nodes = partition_nodes(dev);
    return find_mount_pair(nodes.sys, kImgMountDir, nullptr) ? 1 : 0;
}

int is_running_on_hd(const char *dev) {
    if (!is_img_mounted_on_hd(dev)) return 0;
    return find_mount_pair(kSystemLoop, kAppMountDir, nullptr) ? 1 : 0;
}

int is_img_mounted(void) {
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
    if (fs_probe(list, &count) != 0) {
        FS_LOG_PLAIN("probe err\n");
        return -1;
    }
    for (int i = 0; i < count; i++) {
        if (is_img_mounted_on_hd(list[i])) return 1;
    }
    return 0;
}

int fs_ismounted(const char *dev) {
    if (!recstore::is_disk_node_name(dev)) return 0;
    char mnt[RECSTORE_PATH_LEN] = "";
    mount_point(dev, mnt, sizeof mnt);
    return find_mount_point(mnt, nullptr) ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// The disk table, groups and fullness.
//
// Each entry's mutex guards that disk's entry, data zone and index. The group table is changed
// under the mutex of the disk being added or removed. g_diskrwlock is the coarser lock the
// recording layer holds around disk rotation.

pthread_rwlock_t g_diskrwlock = PTHREAD_RWLOCK_INITIALIZER;
fs_file_ctx g_file_ctx[RECSTORE_STREAMS];
pthread_mutex_t g_fslock = PTHREAD_MUTEX_INITIALIZER;
fs_exphandle g_fsexp;
fs_exphandle_ex g_fsexp_ex;

namespace {
// Streams whose disk was taken down while they were open. Such a slot stays taken, since the host
// still holds its handle, but no operation reaches a disk through it any more (a disk plugged in
// again may have the same id); fs_close frees it. Set and cleared under g_fslock, read without.
std::atomic<bool> g_stream_disk_gone[RECSTORE_STREAMS];

// One lock per stream slot for what a stream's reads share with other threads: the preload
// buffer and its fields (the daemon's preload step fills the buffer, fs_set_preload frees it),
// the key-frame context and the slot's fields as fs_open and fs_close set them. Reads hold it
// instead of g_fslock, so that a read waiting seconds on a slow disk stalls no stream of another
// disk. Taken after g_fslock where both are held (fs_open, fs_close, fs_set_preload,
// fs_is_preload); the payload I/O lock is taken under it.
std::mutex g_stream_read_lock[RECSTORE_STREAMS];
}  // namespace

static_assert(sizeof(rec_param) == 60, "rec_param is 60 bytes on every platform");
static_assert(offsetof(rec_param, channel) == 44, "rec_param layout");
static_assert(offsetof(rec_param, attr_a) == 48, "rec_param layout");
static_assert(offsetof(rec_param, attr_b) == 50, "rec_param layout");
static_assert(offsetof(rec_param, attr_c) == 52, "rec_param layout");
static_assert(offsetof(rec_param, type) == 56, "rec_param layout");
static_assert(offsetof(fs_find_record, channel) == 44, "found record begins as rec_param");
static_assert(offsetof(fs_find_record, type) == 56, "found record begins as rec_param");
static_assert(offsetof(fs_find_record, disk_id) == 60, "found record layout");
static_assert(offsetof(fs_find_record, end) == 64, "found record layout");
static_assert(sizeof(fs_find_record) == 108, "found record layout");
#if defined(__arm__)
static_assert(sizeof(fs_exphandle) == 12, "three words on the target");
static_assert(sizeof(fs_exphandle_ex) == 24, "six words on the target");
#endif

namespace {

using recstore::MutexGuard;
using recstore::valid_disk_id;

constexpr uint32_t kNoBlock = 0xFFFFFFFFu;  // "no block": all ones
constexpr int kRdonlyFlag = RECSTORE_FS_RDONLY;
constexpr int kDirectioFlag = RECSTORE_FS_DIRECTIO;
constexpr int kNocacheFlag = RECSTORE_FS_NOCACHE;
constexpr uint32_t kNoGroup = RECSTORE_NO_GROUP;

bool valid_grp(int grp) {
    return grp >= 0 && grp < RECSTORE_MAX_GROUPS;
}

// Refuses a bad disk id with the table's message.
bool check_disk_id(int disk_id) {
    if (valid_disk_id(disk_id)) return true;
    FS_LOG_ERR("invalid disk id:%d\n", disk_id);
    return false;
}

bool check_grp(int grp) {
    if (valid_grp(grp)) return true;
    FS_LOG_ERR("invalid grp id:%d\n", grp);
    return false;
}

// A disk is open once fs_opendisk has entered its device path.
bool disk_is_open(int disk_id) {
    return valid_disk_id(disk_id) && g_disk[disk_id].devname[0] != '\0';
}

// Empties an entry; its mutex is made anew (nobody may hold it: the layer is starting or ending).
void reset_disk_entry(fs_disk_info &d) {
    memset(&d, 0, sizeof d);
    pthread_mutex_init(&d.lock, nullptr);
}

// Marks every stream slot free, releasing preload buffers a previous run left.
void reset_stream_table() {
    MutexGuard guard(g_fslock);
    for (int h = 0; h < RECSTORE_STREAMS; h++) {
        std::lock_guard<std::mutex> reading(g_stream_read_lock[h]);
        fs_file_ctx &f = g_file_ctx[h];
        free(f.preload_buf);
        memset(&f, 0, sizeof f);
        f.disk_id = -1;
        f.idx = -1;
        f.preload_cluster = -1;
        f.preload_loaded = -1;
    }
    for (std::atomic<bool> &gone : g_stream_disk_gone) gone.store(false);
}

// Slots are free from the moment the library is loaded.
struct StreamTableInit {
    StreamTableInit() {
        for (fs_file_ctx &f : g_file_ctx) {
            f.disk_id = -1;
            f.idx = -1;
            f.preload_cluster = -1;
            f.preload_loaded = -1;
        }
    }
};
const StreamTableInit g_stream_table_init;

void reset_tables() {
    for (fs_group &g : g_grp) g = fs_group{};
    for (fs_disk_info &d : g_disk) reset_disk_entry(d);
    reset_stream_table();
}

// The disk's index mount point appears in the mount table.
bool index_is_mounted(const fs_disk_info &d, char *mnt, size_t n) {
    mnt[0] = '\0';
    mount_point(d.devname, mnt, n);
    return mnt[0] != '\0' && find_mount_point(mnt, nullptr) == 1;
}

// do_fs_isdiskfull with the disk's mutex held.
int disk_full_locked(int disk_id, int threshold, bool with_index) {
    const int idx_full = with_index ? index_isfull(disk_id) : 0;
    const int dz_full = datazone_is_full_prepare(disk_id, threshold);
    if (idx_full == 0 && dz_full == 0) return 0;
    const int free_count = datazone_free_count(disk_id);
    const int free_empty = datazone_is_free_empty(disk_id);
    if (with_index) {
        FS_LOG_INFO("disk :%d is full,index full:%d free count:%d free:%d\n", disk_id, idx_full,
                    free_count, free_empty);
    } else {
        FS_LOG_INFO("disk :%d is full,free count:%d free:%d\n", disk_id, free_count, free_empty);
    }
    return 1;
}

}  // namespace

int fs_init(int cache_inodes, unsigned cache_mib, int flags) {
    reset_tables();
    index_init();
    g_fs_rdonly = (flags & kRdonlyFlag) != 0 ? 1 : 0;
    g_fs_directio = (flags & kDirectioFlag) != 0 ? 1 : 0;
    g_fs_usecache = (flags & kNocacheFlag) != 0 ? 0 : 1;
    if (g_fs_usecache && cache_init(cache_inodes, cache_mib, g_fs_rdonly) != 0) {
        FS_LOG_ERR("cache initialize err\n");
        return -1;
    }
    return 0;
}

void fs_exit(void) {
    if (g_fs_usecache) cache_exit();
    index_exit();
    reset_tables();
}

int fs_opendisk(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    fs_disk_info &d = g_disk[disk_id];
    MutexGuard guard(d.lock);
    if (strcmp(d.devname, dev) != 0) {
        snprintf(d.devname, sizeof d.devname, "%s", dev);
        d.diskid = static_cast<uint32_t>(disk_id);
        FS_LOG_INFO("open disk:%d\n", disk_id);
        d.opened_flag = 0;
    } else {
        FS_LOG_INFO("%s had been opened\n", dev);
    }
    return disk_id;
}

namespace {

// Blocks of the disk that may hold a recording still open at a power cut: every block stamped
// within the longest recording before the latest stamp, then the latest block stamped before that
// (it was current when the oldest of those recordings began). Latest first.
std::vector<uint32_t> recent_blocks(int disk_id) {
    datazone_info info;
    std::vector<std::pair<uint32_t, uint32_t>> stamped;  // (stamp, block id)
    if (datazone_getinfo(disk_id, &info) != 0) return {};
    for (uint32_t i = 0; i < info.block_count; i++) {
        const uint32_t id = info.block_start + i;
        const uint32_t stamp = recstore::entry_value(block_val(disk_id, id));
        if (stamp != 0) stamped.emplace_back(stamp, id);
    }
    std::sort(stamped.begin(), stamped.end(), std::greater<>());
    // Stamps count 4-second steps; one step more on each side for rounding.
    const int64_t span = g_max_duration_in_sec / 4 + 2;
    std::vector<uint32_t> out;
    for (const auto &b : stamped) {
        out.push_back(b.second);
        if (static_cast<int64_t>(b.first) + span < static_cast<int64_t>(stamped[0].first)) break;
    }
    return out;
}

// After a power cut an index entry can be on the disk while the map word of its cluster is not:
// the maps are made durable before every header flush and by the daemon within a second, but the
// kernel may write an index page sooner. The start-up check then reads the block that was current
// as partly free, and it would hand out exactly those clusters again, lowest first. So before
// any block is current, the clusters named by entries that no header counts yet, in the
// recordings linked in the blocks recent enough to hold one still open, are put busy. A recording
// closed cleanly costs an open, a header read and an fstat. The disk's mutex is held.
void keep_named_clusters_busy(int disk_id) {
    std::vector<uint32_t> clusters;
    for (uint32_t block : recent_blocks(disk_id)) {
        char dir[RECSTORE_PATH_LEN];
        mk_idx_linkpath(disk_id, dir, sizeof dir, static_cast<int>(block));
        if (dir[0] == '\0') continue;
        DIR *d = io_calls().opendir(dir);
        if (d == nullptr) continue;  // no recording was ever linked there
        while (struct dirent64 *e = io_calls().readdir64(d)) {
            if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
            char link[RECSTORE_PATH_LEN];
            if (snprintf(link, sizeof link, "%s/%s", dir, e->d_name) >=
                static_cast<int>(sizeof link))
                continue;
            recstore::index_uncounted_clusters(disk_id, link, &clusters);
        }
        io_calls().closedir(d);
    }
    if (clusters.empty()) return;
    const int kept = recstore::datazone_keep_busy(disk_id, clusters.data(), clusters.size());
    if (kept < 0) FS_LOG_ERR("disk:%d the maps could not be checked against the index\n", disk_id);
}

}  // namespace

void fs_closedisk(int disk_id) {
    if (!check_disk_id(disk_id)) return;
    fs_disk_info &d = g_disk[disk_id];
    MutexGuard guard(d.lock);
    d.opened_flag = 0;
    memset(d.devname, 0, sizeof d.devname);
    d.inited = 0;
}

int fs_datazone_init(int disk_id) {
    if (!check_disk_id(disk_id)) return -1;
    FS_LOG_INFO("initialized disk:%d datazone\n", disk_id);
    fs_disk_info &d = g_disk[disk_id];
    {
        MutexGuard guard(d.lock);
        if (d.devname[0] == '\0') {
            FS_LOG_ERR("disk %d not open\n", disk_id);
            return -1;
        }
        if (index_check_magic(disk_id) != 0) {
            FS_LOG_ERR("index_check_magic:%s\n", d.devname);
            return -1;
        }
        char mnt[RECSTORE_PATH_LEN];
        if (!index_is_mounted(d, mnt, sizeof mnt)) {
            FS_LOG_ERR("disk had not mounted:%s\n", mnt);
            return -1;
        }
        if (datazone_init(disk_id, g_fs_directio) != 0) {
            FS_LOG_ERR("datazone initialized failed\n");
            d.inited = 0;
            return -1;
        }
        if (!g_fs_rdonly) keep_named_clusters_busy(disk_id);
        d.inited = 1;
        if (g_fs_usecache) cache_load(d.devname);
    }
    FS_LOG_PLAIN("disk:%d filesystem version:%s\n", disk_id, fs_version(disk_id));
    return 0;
}

void fs_datazone_exit(int disk_id) {
    if (!check_disk_id(disk_id)) return;
    fs_disk_info &d = g_disk[disk_id];
    char dev[sizeof d.devname];
    {
        MutexGuard guard(d.lock);
        memcpy(dev, d.devname, sizeof dev);
    }
    // The cache loader reads the disk's entry and index tree: it leaves before they go (it may
    // take the disk's mutex in the file it reads, so that is not held while waiting).
    if (g_fs_usecache && dev[0] != '\0') recstore::cache_stop_loader(dev);
    MutexGuard guard(d.lock);
    if (g_fs_usecache && d.devname[0] != '\0') cache_unload(d.devname);
    datazone_exit(disk_id);
    d.inited = 0;
}

int fs_datazone_is_inited(int disk_id) {
    if (!check_disk_id(disk_id)) return 0;
    MutexGuard guard(g_disk[disk_id].lock);
    return datazone_is_inited(disk_id);
}

int fs_disk_is_inited(int disk_id) {
    if (!check_disk_id(disk_id)) return 0;
    return static_cast<int>(g_disk[disk_id].inited);
}

int fs_cleardisk(int disk_id) {
    if (!check_disk_id(disk_id)) return -1;
    fs_disk_info &d = g_disk[disk_id];
    io_calls().sync();
    {
        MutexGuard guard(d.lock);
        if (d.devname[0] == '\0') {
            FS_LOG_ERR("disk %d not open\n", disk_id);
            return -1;
        }
        if (index_clear(disk_id) != 0 || datazone_clear(disk_id) != 0) return -1;
        index_erase_magic(disk_id);
        if (index_write_magic(disk_id) != 0) return -1;
        if (g_fs_usecache) cache_clear(d.devname);
    }
    io_calls().sync();
    return 0;
}

int fs_chkdata(int disk_id, int fix) {
    if (g_fs_rdonly) {
        FS_LOG_PLAIN("fs_chkdata readonly\n");
        return -1;
    }
    if (!check_disk_id(disk_id)) return -1;
    MutexGuard guard(g_disk[disk_id].lock);
    const int idx = index_chk(disk_id, fix);
    const int dz = datazone_chk(disk_id, fix);
    return idx == 0 && dz == 0 ? 0 : -1;
}

int fs_getdiskinfo(int disk_id, fs_disk_info *out) {
    if (!check_disk_id(disk_id)) return -1;
    fs_disk_info &d = g_disk[disk_id];
    MutexGuard guard(d.lock);
    if (out == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (!d.inited) {
        FS_LOG_INFO("disk not inited:%d\n", disk_id);
        return 0;
    }
    if (datazone_getinfo(disk_id, &d.dz_info) != 0) {
        FS_LOG_ERR("datazone_getinfo err\n");
        return 0;
    }
    idx_root(disk_id, d.idx_root, sizeof d.idx_root);
    if (io_calls().statfs(d.idx_root, &d.idx_statfs) != 0) {
        FS_LOG_ERR("statfs err\n");
        return 0;
    }
    d.magic_ok = index_check_magic(disk_id) == 0 ? 1 : 0;
    memcpy(out, &d, sizeof *out);
    return 0;
}

int do_fs_isdiskfull(int disk_id, int threshold) {
    if (!check_disk_id(disk_id)) return 1;
    MutexGuard guard(g_disk[disk_id].lock);
    if (!g_disk[disk_id].inited) {
        FS_LOG_ERR("disk not inited:%d\n", disk_id);
        return 1;
    }
    return disk_full_locked(disk_id, threshold, true);
}

int fs_isdiskfull(int disk_id) {
    if (!check_disk_id(disk_id)) return 1;
    MutexGuard guard(g_disk[disk_id].lock);
    if (!g_disk[disk_id].inited) return 1;
    return disk_full_locked(disk_id, 0, false);
}

int fs_isalldiskfull(int disk_id, int threshold) {
    if (g_fs_usecache && cache_isfull() == 1) {
        FS_LOG_ERR("cache is full\n");
        return 1;
    }
    // A negative disk id asks about group 0 only; an id of 8 or more is refused.
    if (disk_id >= 0 && check_disk_id(disk_id) && do_fs_isdiskfull(disk_id, threshold) == 0) {
        return 0;
    }
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (fs_getdisk(0, ids, &count) != 0) {
        FS_LOG_ERR("get szdiskid err\n");
        return 1;
    }
    for (int i = 0; i < count; i++) {
        if (do_fs_isdiskfull(ids[i], threshold) == 0) return 0;
    }
    return 1;
}

int fs_isblockfull(int disk_id) {
    if (!check_disk_id(disk_id)) return 1;
    MutexGuard guard(g_disk[disk_id].lock);
    return block_is_free_empty(disk_id) != 0 ? 1 : 0;
}

int fs_timenotify(int disk_id) {
    return check_disk_id(disk_id) ? 0 : -1;
}

int fs_adddisk(int grp, int disk_id) {
    if (!check_grp(grp) || !check_disk_id(disk_id)) return -1;
    fs_disk_info &d = g_disk[disk_id];
    fs_group &g = g_grp[grp];
    MutexGuard guard(d.lock);
    for (int slot = 0; slot < RECSTORE_MAX_DISKS; slot++) {
        if (g.slots[slot] != nullptr) continue;
        d.grp = static_cast<uint32_t>(grp);
        g.slots[slot] = &d;
        g.count++;
        FS_LOG_INFO("add disk :%d to slot:%d\n", disk_id, slot);
        return 0;
    }
    return -1;
}

int fs_removedisk(int grp, int disk_id) {
    if (!check_grp(grp) || !check_disk_id(disk_id)) return -1;
    fs_group &g = g_grp[grp];
    MutexGuard guard(g_disk[disk_id].lock);
    for (fs_disk_info *&slot : g.slots) {
        if (slot == nullptr || slot->diskid != static_cast<uint32_t>(disk_id)) continue;
        slot->grp = kNoGroup;
        slot = nullptr;
        g.count--;
        return 0;
    }
    return -1;
}

int fs_getgrp(int disk_id) {
    if (!check_disk_id(disk_id)) return static_cast<int>(kNoGroup);
    return static_cast<int>(g_disk[disk_id].grp);
}

int fs_getdisk(int grp, int *ids, int *count) {
    if (!check_grp(grp)) return -1;
    if (ids == nullptr || count == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    int n = 0;
    for (const fs_disk_info *slot : g_grp[grp].slots) {
        if (slot != nullptr) ids[n++] = static_cast<int>(slot->diskid);
    }
    *count = n;
    return 0;
}

int fs_lockdisk(void) {
    return pthread_rwlock_wrlock(&g_diskrwlock);
}

int fs_unlockdisk(void) {
    return pthread_rwlock_unlock(&g_diskrwlock);
}

int fs_is_readonly(void) {
    return g_fs_rdonly;
}

int fs_use_cache(void) {
    return g_fs_usecache;
}

void fs_set_max_record_duration(int seconds) {
    if (seconds <= 0) {
        FS_LOG_ERR("invalid record duration:%d\n", seconds);
        return;
    }
    g_max_duration_in_sec = seconds;
}

int fs_get_max_record_duration(void) {
    return g_max_duration_in_sec;
}

// ---------------------------------------------------------------------------------------------
// Streams: open, write, close and the small per-stream operations.
//
// g_fslock serialises the stream table (open, close, extension reads); the disk's mutex is held
// only around cluster allocation. Payload and index entry are written outside both locks: one
// stream is written by one thread at a time while different streams write in parallel.

namespace {

constexpr int kBlockWaitTries = 20;           // waits for a current block at open
constexpr long kBlockWaitNs = 100000000L;     // 100 ms between them
constexpr uint32_t kCacheRefreshWrites = 16;  // writes between two cache-tag refreshes
constexpr size_t kPageSize = 4096;
constexpr size_t kTimeText = 32;        // asctime_r needs 26 bytes
constexpr uint32_t kMaxNameType = 99;   // index, link and cache names hold the type in 2 digits
constexpr int64_t kMaxNameYear = 9999;  // and the year in 4
constexpr int64_t kTmYearBase = 1900;

bool valid_handle(int handle) {
    return handle >= 0 && handle < RECSTORE_STREAMS;
}

// The checks every per-stream operation makes: handle range, disk open, index present.
bool check_stream(int handle) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid fd :%d", handle);
        return false;
    }
    const fs_file_ctx &f = g_file_ctx[handle];
    if (!disk_is_open(f.disk_id) || g_stream_disk_gone[handle].load()) {
        FS_LOG_ERR("disk %d not open", f.disk_id);
        return false;
    }
    if (f.idx < 0) {
        FS_LOG_ERR("had not opened yet");
        return false;
    }
    return true;
}

struct tm tm_from(const fs_tm &t) {
    struct tm out;
    memset(&out, 0, sizeof out);
    from_fs_tm(&out, &t);
    return out;
}

const char *asc(const struct tm &t, char (&buf)[kTimeText]) {
    if (asctime_r(&t, buf) == nullptr) snprintf(buf, sizeof buf, "?\n");
    return buf;
}

// Enters (or re-enters) a recording's tag into the cache from its record info.
void cache_enter(int disk_id, const recordinfo &info) {
    struct tm start = tm_from(info.start_time);
    struct tm end = tm_from(info.end_time);
    cache_create(disk_id, static_cast<int>(info.channel), &start, &end, static_cast<int>(info.type),
                 info.mode, static_cast<uint32_t>(info.total_bytes));
}

void cache_forget(int disk_id, const recordinfo &info) {
    struct tm start = tm_from(info.start_time);
    cache_delete(disk_id, static_cast<int>(info.channel), &start, static_cast<int>(info.type));
}

bool is_writer(int idx) {
    const int flags = index_getflag(idx);
    return flags >= 0 && (flags & O_CREAT) != 0;
}

// Clears what readers use for key-frame navigation.
void clear_kf(fs_file_ctx &f) {
    memset(f.kf_frames, 0, sizeof f.kf_frames);
    f.kf_cur = 0;
    f.kf_count = 0;
    f.kf_pos = 0;
}

// Frees a stream slot touching no disk (its disk is gone, or fs_close has finished the
// recording): the index descriptor is closed without rewriting the header (the next open
// repairs one left unfinished), the preload buffer freed. g_fslock and
// the stream's read lock held.
void release_stream_of_gone_disk(int handle) {
    fs_file_ctx &f = g_file_ctx[handle];
    free(f.preload_buf);
    f.preload_buf = nullptr;
    f.preload_cluster = -1;
    f.preload_loaded = -1;
    clear_kf(f);
    if (f.idx >= 0) recstore::do_index_release(f.idx);
    f.cache_writes = 0;
    f.idx = -1;
    g_stream_disk_gone[handle].store(false);
}

// True when the names of a new recording read back as that recording. A longer type or year
// shifts every later field of the names, and recycling would then miss the recording.
bool names_hold(const rec_param &p) {
    if (p.type > kMaxNameType) {
        FS_LOG_ERR("record type %u out of range 0-%u\n", p.type, kMaxNameType);
        return false;
    }
    const int64_t year = static_cast<int64_t>(p.start.tm_year) + kTmYearBase;
    if (year < 0 || year > kMaxNameYear) {
        FS_LOG_ERR("record year %lld out of range 0-%lld\n", static_cast<long long>(year),
                   static_cast<long long>(kMaxNameYear));
        return false;
    }
    return true;
}

// Links and caches a recording just created in the slot.
void register_new_recording(int disk_id, uint32_t block, const rec_param &p, const struct tm &start,
                            int idx) {
    char name[RECSTORE_PATH_LEN];
    char relative[RECSTORE_PATH_LEN];
    mk_idx_filename(name, sizeof name, static_cast<int>(p.channel), &start,
                    static_cast<int>(p.type));
    mk_idx_fullname_relative(relative, sizeof relative, static_cast<int>(p.channel), &start,
                             static_cast<int>(p.type));
    if (fs_create_link(disk_id, block, name, relative) != 0) {
        FS_LOG_ERR("create link err:diskid:%d filename:%s fullname:%s\n", disk_id, name, relative);
    }
    if (!fs_use_cache()) return;
    recordinfo info;
    if (index_stat(idx, &info) == 0) cache_enter(disk_id, info);
}

// Direct I/O needs a page-aligned source; a caller's buffer that is not aligned is copied into
// a per-thread cluster buffer first.
struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

const void *aligned_source(const void *buffer) {
    if (!g_fs_directio || reinterpret_cast<uintptr_t>(buffer) % kPageSize == 0) return buffer;
    thread_local std::unique_ptr<void, FreeDeleter> bounce;
    if (!bounce) {
        void *p = nullptr;
        if (posix_memalign(&p, kPageSize, RECSTORE_CLUSTER_SIZE) != 0) return buffer;
        bounce.reset(p);
    }
    memcpy(bounce.get(), buffer, RECSTORE_CLUSTER_SIZE);
    return bounce.get();
}

// A tag cannot end before it starts: such an end time is taken as the start, so that the
// recording keeps its tag (with a duration of 0) and searches still find it.
void keep_tag_duration(recordinfo &info) {
    const struct tm start = tm_from(info.start_time);
    const struct tm end = tm_from(info.end_time);
    if (tm_cmp(&start, &end) <= 0) return;
    FS_LOG_WARN("end time before start, channel:%d type:%d kept with duration 0\n",
                static_cast<int>(info.channel), static_cast<int>(info.type));
    info.end_time = info.start_time;
}

// Every seventeenth write replaces the stream's cache tag with the current state.
void refresh_cache_tag(fs_file_ctx &f) {
    if (f.cache_writes < kCacheRefreshWrites) {
        f.cache_writes++;
        return;
    }
    recordinfo info;
    if (is_writer(f.idx) && index_stat(f.idx, &info) == 0) {
        cache_forget(f.disk_id, info);
        cache_enter(f.disk_id, info);
    }
    f.cache_writes = 0;
}

}  // namespace

uint32_t fs_getblockid(int disk_id) {
    if (!check_disk_id(disk_id)) return kNoBlock;
    for (int attempt = 0; attempt < kBlockWaitTries; attempt++) {
        int block = -1;
        {
            MutexGuard guard(g_disk[disk_id].lock);
            block = block_get_current(disk_id);
        }
        if (block != -1) return static_cast<uint32_t>(block);
        struct timespec ts = {0, kBlockWaitNs};
        nanosleep(&ts, nullptr);
    }
    FS_LOG_ERR("waiting for current block reach the max count");
    return kNoBlock;
}

int fs_create_link(int disk_id, uint32_t block_id, const char *name, const char *target) {
    if (!check_disk_id(disk_id)) return -1;
    if (name == nullptr || target == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    char dir[RECSTORE_PATH_LEN + 1];
    mk_idx_linkpath(disk_id, dir, RECSTORE_PATH_LEN, static_cast<int>(block_id));
    if (io_calls().access(dir, F_OK) != 0) {
        // mkdir_recursive makes the directories that end in '/'.
        const size_t len = strlen(dir);
        dir[len] = '/';
        dir[len + 1] = '\0';
        mkdir_recursive(dir);
    }
    char link[RECSTORE_PATH_LEN] = "";
    mk_idx_linkname(disk_id, link, sizeof link, static_cast<int>(block_id), name);
    if (link[0] == '\0' || io_calls().symlink(target, link) != 0) {
        perror("symlink");
        return -1;
    }
    return 0;
}

int fs_open(int disk_id, const rec_param *param, int flags, uint32_t mode, uint32_t attr_d,
            const ext_desc *ext) {
    if (!check_disk_id(disk_id)) return -1;
    if (param == nullptr || param->channel >= RECSTORE_MAX_CHANNELS) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    if (!disk_is_open(disk_id)) {
        FS_LOG_ERR("disk %d not open", disk_id);
        return -1;
    }
    if ((flags & O_CREAT) != 0 && !names_hold(*param)) return -1;
    MutexGuard guard(g_fslock);
    int handle = -1;
    for (int i = 0; i < RECSTORE_STREAMS; i++) {
        if (g_file_ctx[i].idx < 0) {
            handle = i;
            break;
        }
    }
    if (handle < 0) {
        FS_LOG_ERR("reach the max count");
        return -1;
    }
    fs_file_ctx &f = g_file_ctx[handle];
    const bool creating = (flags & O_CREAT) != 0;
    uint32_t block = kNoBlock;
    if (creating) {
        block = fs_getblockid(disk_id);
        // A recording outside every block would never be recycled, nor its link directory.
        if (block == kNoBlock) {
            FS_LOG_ERR("no current block on disk %d, recording refused\n", disk_id);
            return -1;
        }
        FS_LOG_INFO("create a record diskid: %d, blockid:%d \n", disk_id, static_cast<int>(block));
    }
    const struct tm start = tm_from(param->start);
    const int channel = static_cast<int>(param->channel);
    const int type = static_cast<int>(param->type);
    const int idx = index_open(disk_id, block, &start, channel, type, param->attr_a, param->attr_b,
                               param->attr_c, flags, mode, attr_d, ext);
    if (idx < 0) {
        char text[kTimeText];
        FS_LOG_ERR("index_open err,diskid :%d blockid :%d channel:%d time:%s\n", disk_id,
                   static_cast<int>(block), channel, asc(start, text));
        return -1;
    }
    if (creating) register_new_recording(disk_id, block, *param, start, idx);
    // The daemon's preload step reads the slot under its read lock, without g_fslock.
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    f.idx = idx;
    f.disk_id = disk_id;
    f.block_id = block;
    clear_kf(f);
    f.cache_writes = 0;
    f.preload_cluster = -1;
    f.preload_loaded = -1;
    f.preload_buf = nullptr;
    return handle;
}

// Frees a cluster whose payload could not be written: no entry names it yet. (A cluster whose
// entry write failed stays busy until its block is recycled: part of the entry may have reached
// the index file.)
static void give_back_cluster(int disk_id, int cluster) {
    MutexGuard guard(g_disk[disk_id].lock);
    datazone_free(disk_id, cluster);
}

int fs_write(int handle, const void *buffer, uint32_t length, const kframe *frames,
             uint32_t count) {
    if (g_fs_rdonly) {
        FS_LOG_PLAIN("fs_write readonly\n");
        return -1;
    }
    if (!check_stream(handle)) return -1;
    if (frames == nullptr || buffer == nullptr) {
        FS_LOG_ERR_ALWAYS("invalid param");
        return -1;
    }
    // A frame table holds 24 descriptors and a cluster 524288 bytes: more would overrun them.
    if (count > RECSTORE_MAX_KFRAMES || length > RECSTORE_CLUSTER_SIZE) {
        FS_LOG_ERR("invalid param:%u frames %u bytes\n", count, length);
        return -1;
    }
    fs_file_ctx &f = g_file_ctx[handle];
    const int disk_id = f.disk_id;
    int cluster = -1;
    {
        MutexGuard guard(g_disk[disk_id].lock);
        cluster = datazone_alloc(disk_id);
    }
    if (cluster == -1) {
        FS_LOG_ERR("data alloc err");
        return -5;
    }
    const int written = datazone_write(disk_id, cluster, aligned_source(buffer));
    if (written < 0) {
        FS_LOG_ERR("data write err");
        give_back_cluster(disk_id, cluster);
        return written;
    }
    // The entry below makes the cluster reachable: a buffered payload must be on the device
    // first, or a power cut could leave the entry naming a cluster that holds other data.
    if (!g_fs_directio && recstore::datazone_flush_cluster(disk_id, cluster) != 0) {
        FS_LOG_ERR("data flush err");
        give_back_cluster(disk_id, cluster);
        return -1;
    }
    const int entry = index_write(f.idx, static_cast<uint32_t>(cluster), length, frames, count);
    if (entry < 0) {
        FS_LOG_ERR("index write err");
        return entry;
    }
    index_clear_offset(f.idx);
    if (fs_use_cache()) refresh_cache_tag(f);
    return static_cast<int>(length);
}

namespace {

// The first step of fs_close, under g_fslock and the stream's read lock: frees the preload buffer
// and key-frame context and refreshes a writer's cache tag. The index handle still to finish and
// release, or -1 when the slot is free now (its disk went away) or was not open.
int begin_close(int handle, const struct tm *end) {
    fs_file_ctx &f = g_file_ctx[handle];
    MutexGuard guard(g_fslock);
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    if (!disk_is_open(f.disk_id) || g_stream_disk_gone[handle].load()) {
        FS_LOG_ERR("disk %d not open", f.disk_id);
        // The disk went away under the stream: free the slot and its index handle all the same.
        release_stream_of_gone_disk(handle);
        return -1;
    }
    free(f.preload_buf);
    f.preload_buf = nullptr;
    f.preload_cluster = -1;
    f.preload_loaded = -1;
    clear_kf(f);
    if (f.idx < 0) return -1;
    recordinfo info;
    if (fs_use_cache() && is_writer(f.idx) && index_stat(f.idx, &info) == 0) {
        cache_forget(f.disk_id, info);
        if (end != nullptr) to_fs_tm(end, &info.end_time);
        keep_tag_duration(info);
        cache_enter(f.disk_id, info);
    }
    return f.idx;
}

}  // namespace

void fs_close(int handle, const struct tm *end) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid fd :%d", handle);
        return;
    }
    const int idx = begin_close(handle, end);
    if (idx < 0) return;
    // A writer's flushes run with no lock held, so that a disk taking seconds for them stalls no
    // open, close or read of another stream; the slot and its index handle stay taken (this
    // thread owns them) until the release below. A disk taken down meanwhile is not touched.
    const int disk_id = g_file_ctx[handle].disk_id;
    if (!g_stream_disk_gone[handle].load()) {
        // The close makes the recording's entries durable; the map words of their clusters go to
        // the disk first, or a cut between the two would leave entries into clusters the maps
        // call free, handed out again after bring-up.
        if (is_writer(idx)) recstore::datazone_flush_maps(disk_id);
        recstore::index_finish(idx, end);
    }
    MutexGuard guard(g_fslock);
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    release_stream_of_gone_disk(handle);
}

namespace recstore {

int streams_lose_disk(int disk_id) {
    MutexGuard guard(g_fslock);
    int count = 0;
    for (int h = 0; h < RECSTORE_STREAMS; h++) {
        const fs_file_ctx &f = g_file_ctx[h];
        if (f.idx < 0 || f.disk_id != disk_id || g_stream_disk_gone[h].load()) continue;
        g_stream_disk_gone[h].store(true);
        count++;
    }
    return count;
}

}  // namespace recstore

int fs_get_ext(int handle, void *buffer, int size) {
    if (!check_stream(handle)) return -1;
    MutexGuard guard(g_fslock);
    return index_get_ext(g_file_ctx[handle].idx, buffer, size);
}

int fs_chmod(int handle, uint32_t mode) {
    if (g_fs_rdonly) {
        FS_LOG_PLAIN("fs_chmod readonly\n");
        return -1;
    }
    if (!check_stream(handle)) return -1;
    const fs_file_ctx &f = g_file_ctx[handle];
    recordinfo info;
    const bool have = fs_use_cache() && index_stat(f.idx, &info) == 0;
    // The header flushed below counts every entry written: their map words go first.
    recstore::datazone_flush_maps(f.disk_id);
    if (index_chmod(f.idx, mode) != 0) {
        FS_LOG_ERR("index chmod err");
        return -1;
    }
    if (have) {
        cache_forget(f.disk_id, info);
        info.mode = mode;
        cache_enter(f.disk_id, info);
    }
    return 0;
}

int fs_stat(int handle, recordinfo *out) {
    if (!check_stream(handle)) return -1;
    if (out == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    if (index_stat(g_file_ctx[handle].idx, out) != 0) {
        FS_LOG_ERR("had not opened yet");
        return -1;
    }
    return 0;
}

int fs_insertalarm(int handle, const record_alarm *alarm) {
    if (!check_stream(handle)) return -1;
    if (alarm == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    // The header flushed with the alarm counts every entry written: their map words go first.
    recstore::datazone_flush_maps(g_file_ctx[handle].disk_id);
    return index_insertalarm(g_file_ctx[handle].idx, alarm);
}

void recstore::fs_flush_changed_maps() {
    struct Flushed {
        int64_t at_ms = 0;  // time of the last flush
        uint32_t free = 0;  // free clusters then: a change means the maps were written
        uint32_t busy = 0;  // busy clusters then
    };
    static Flushed s_flushed[RECSTORE_MAX_DISKS];  // the daemon's thread only
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t now = static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    for (int d = 0; d < RECSTORE_MAX_DISKS; d++) {
        Flushed &f = s_flushed[d];
        uint32_t free = 0;
        uint32_t busy = 0;
        {
            // The disk's state and its counters move under its mutex (open, close, allocation).
            MutexGuard guard(g_disk[d].lock);
            if (!disk_is_open(d) || g_disk[d].inited == 0) continue;
            free = static_cast<uint32_t>(datazone_free_count(d));
            busy = static_cast<uint32_t>(datazone_busy_count(d));
        }
        if ((free == f.free && busy == f.busy) || now - f.at_ms < kMapFlushMillis) continue;
        f = Flushed{now, free, busy};
        recstore::datazone_flush_maps(d);
    }
}

int fs_sync(int handle) {
    if (!check_stream(handle)) return -1;
    const fs_file_ctx &f = g_file_ctx[handle];
    // The data zone (payload and maps) first: the header flushed after it counts entries whose
    // clusters the maps then already hold busy.
    const int synced = datazone_sync(f.disk_id);
    index_flush_info(f.idx);
    return synced;
}

int fs_sync_cache(int handle) {
    if (!valid_handle(handle)) {
        FS_LOG_ERR("invalid fd :%d", handle);
        return -1;
    }
    fs_file_ctx &f = g_file_ctx[handle];
    if (f.idx < 0) return -1;
    f.cache_writes = kCacheRefreshWrites;
    return 0;
}

int fs_access(int disk_id, const rec_param *param) {
    if (!check_disk_id(disk_id)) return -1;
    if (param == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    if (!disk_is_open(disk_id)) return -1;
    const struct tm start = tm_from(param->start);
    char name[RECSTORE_PATH_LEN];
    mk_idx_fullname(disk_id, name, sizeof name, static_cast<int>(param->channel), &start,
                    static_cast<int>(param->type));
    return name[0] != '\0' && io_calls().access(name, F_OK) == 0 ? 0 : -1;
}

void fs_dump(int fd, int disk_id) {
    if (fd < 0 || disk_id < 0) return;
    if (!check_disk_id(disk_id)) return;
    io_dprintf(fd, "diskid:%d disk_inited?:%d dz_inited?:%d disk_full?:%d\n", disk_id,
               fs_disk_is_inited(disk_id), fs_datazone_is_inited(disk_id), fs_isdiskfull(disk_id));
    std::unique_ptr<fs_disk_info> info(new fs_disk_info());
    if (fs_getdiskinfo(disk_id, info.get()) == 0 && info->inited) {
        const fs_disk_info &d = *info;
        io_dprintf(fd, "inited?:%d formatted?:%d magic:%x diskid:%d groupid:%d path:%s\n",
                   static_cast<int>(d.inited), static_cast<int>(d.magic_ok), g_magic[disk_id],
                   static_cast<int>(d.diskid), static_cast<int>(d.grp), d.devname);
        const struct statfs &s = d.idx_statfs;
        io_dprintf(fd, "index part:%s %ux %ux %lux %lux %lux %lux %lux\n", d.idx_root,
                   static_cast<unsigned>(s.f_type), static_cast<unsigned>(s.f_bsize),
                   static_cast<unsigned long>(s.f_blocks), static_cast<unsigned long>(s.f_bfree),
                   static_cast<unsigned long>(s.f_bavail), static_cast<unsigned long>(s.f_files),
                   static_cast<unsigned long>(s.f_ffree));
        const datazone_info &z = d.dz_info;
        io_dprintf(fd,
                   "dzone part:%s dz_size:%llu dz_left:%llu cluster_size:%u clusters_per_block:%u "
                   "start:%u count:%u bm_start:%u bm_count:%u blk_start:%u blk_count:%u "
                   "dat_start:%u dat_count:%u\n",
                   z.name, static_cast<unsigned long long>(z.totalsize),
                   static_cast<unsigned long long>(z.freesize), z.cluster_size, z.cluster_perblock,
                   z.cluster_start, z.cluster_count, z.bm_start, z.bm_count, z.block_start,
                   z.block_count, z.data_start, z.data_count);
    }
    datazone_dump(fd, disk_id);
}

// ---------------------------------------------------------------------------------------------
// Reading: one cluster per call, forward or backward, through the stream's preload buffer when
// direct I/O is on; key-frame navigation and seeking by position and by time.
//
// fs_read, fs_read_r, the preload functions and the key-frame reads hold the stream's read lock
// from the index read to the end of the data read, so that the index position, the preload fields
// and the buffer change together; they do not hold g_fslock, so a read waiting on a slow disk
// stalls no open, close or read of another stream. One stream is read and navigated by one thread
// at a time; the lock is what the daemon's preload step and fs_set_preload share with it.

namespace {

constexpr uint32_t kNoNextCluster = 0xFFFFFFFFu;  // the next-cluster answer after the last entry
constexpr int32_t kNothingLoaded = -1;            // preload fields with no cluster
constexpr int64_t kClusterStep = RECSTORE_CLUSTER_SIZE;
constexpr int kFullEntry = recstore::kIndexEntrySize;  // what a read of a whole entry returns

bool read_args_present(const void *buffer, const uint32_t *length, const kframe *frames,
                       const uint32_t *count) {
    if (buffer != nullptr && length != nullptr && frames != nullptr && count != nullptr)
        return true;
    FS_LOG_ERR("invalid param");
    return false;
}

// An entry read from a damaged index file could name more payload than a cluster holds or more
// key frames than a table holds; copying it would overrun the caller's buffers.
bool entry_in_range(uint32_t length, uint32_t count) {
    if (length <= RECSTORE_CLUSTER_SIZE && count <= RECSTORE_MAX_KFRAMES) return true;
    FS_LOG_ERR("index entry out of range: length:%u frames:%u", length, count);
    return false;
}

// Loads a cluster into the stream's preload buffer with direct I/O; the stream's read lock is held.
int disk_to_cache_locked(int handle, uint32_t cluster) {
    fs_file_ctx &f = g_file_ctx[handle];
    if (cluster == kNoNextCluster || f.preload_buf == nullptr) return -1;
    if (f.idx < 0) {
        FS_LOG_ERR("fd:%d index handle err", handle);
        return -1;
    }
    if (f.preload_loaded == static_cast<int32_t>(cluster)) return 0;
    const int got = datazone_read_direct(f.disk_id, static_cast<int>(cluster), f.preload_buf);
    if (got != static_cast<int>(RECSTORE_CLUSTER_SIZE)) {
        FS_LOG_ERR("data read err cacheid:%u, clusterid:%u",
                   static_cast<uint32_t>(f.preload_loaded), cluster);
        return -1;
    }
    FS_LOG_INFO("load cacheid:%u, clusterid:%u", static_cast<uint32_t>(f.preload_loaded), cluster);
    f.preload_loaded = static_cast<int32_t>(cluster);
    return 0;
}

// Reads the entry's cluster into the caller's buffer, from the preload buffer when it can be
// loaded there; the stream's read lock is held. The payload length or a negative value.
int read_entry_cluster_locked(int handle, uint32_t cluster, void *buffer, uint32_t length) {
    fs_file_ctx &f = g_file_ctx[handle];
    if (disk_to_cache_locked(handle, cluster) == 0) {
        if (f.preload_loaded != static_cast<int32_t>(cluster)) {
            FS_LOG_ERR("load cluster:%u cache error", cluster);
            return -1;
        }
        memcpy(buffer, f.preload_buf, length);
        FS_LOG_INFO("use preload cache clusterid:%u len:%d", cluster, static_cast<int>(length));
        return static_cast<int>(length);
    }
    const int got = fs_datazone_read(handle, f.disk_id, static_cast<int>(cluster), buffer);
    if (got < 0 || static_cast<int64_t>(got) < static_cast<int64_t>(length)) {
        FS_LOG_ERR("data read err");
        return got < 0 ? got : -1;
    }
    return static_cast<int>(length);
}

}  // namespace

int fs_read(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count) {
    if (!check_stream(handle) || !read_args_present(buffer, length, frames, count)) return -1;
    fs_file_ctx &f = g_file_ctx[handle];
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    *count = 0;
    uint32_t cluster = 0;
    uint32_t next = kNoNextCluster;
    const int r = index_read(f.idx, &cluster, length, frames, count, &next);
    if (r == 0) {
        FS_LOG_INFO("index_read end of file");
        return 0;
    }
    if (r != kFullEntry) {
        FS_LOG_ERR("index read err");
        return r < 0 ? r : -1;
    }
    f.preload_cluster = static_cast<int32_t>(next);
    if (!entry_in_range(*length, *count)) return -1;
    index_clear_offset(f.idx);
    return read_entry_cluster_locked(handle, cluster, buffer, *length);
}

int fs_read_r(int handle, void *buffer, uint32_t *length, kframe *frames, uint32_t *count) {
    if (!check_stream(handle) || !read_args_present(buffer, length, frames, count)) return -1;
    fs_file_ctx &f = g_file_ctx[handle];
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    *count = 0;
    uint32_t cluster = 0;
    const int r = index_read_r(f.idx, &cluster, length, frames, count);
    if (r == 0) {
        FS_LOG_INFO("end of file");
        return 0;
    }
    if (r != kFullEntry) {
        FS_LOG_ERR("index read err");
        return r < 0 ? r : -1;
    }
    if (!entry_in_range(*length, *count)) return -1;
    index_clear_offset(f.idx);
    const int got = fs_datazone_read(handle, f.disk_id, static_cast<int>(cluster), buffer);
    if (got < 0 || static_cast<int64_t>(got) < static_cast<int64_t>(*length)) {
        FS_LOG_ERR("data read err");
        return got < 0 ? got : -1;
    }
    return static_cast<int>(*length);
}

int fs_set_preload(int handle, const void *on) {
    if (!valid_handle(handle)) return -1;
    MutexGuard guard(g_fslock);
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    fs_file_ctx &f = g_file_ctx[handle];
    if (on == nullptr) {
        free(f.preload_buf);
        f.preload_buf = nullptr;
        f.preload_loaded = kNothingLoaded;
        return 0;
    }
    if (!g_fs_directio) {
        FS_LOG_PLAIN("you must specific direct io in rec_init before you want use preload\n");
        return -1;
    }
    if (f.preload_buf == nullptr) {
        void *p = nullptr;
        if (posix_memalign(&p, static_cast<size_t>(getpagesize()), RECSTORE_CLUSTER_SIZE) != 0) {
            FS_LOG_ERR("preload buffer alloc err");
            return -1;
        }
        f.preload_buf = static_cast<uint8_t *>(p);
        f.preload_loaded = kNothingLoaded;
    }
    return 0;
}

int fs_is_preload(int handle) {
    if (!valid_handle(handle)) return 0;
    MutexGuard guard(g_fslock);
    std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
    return g_file_ctx[handle].preload_buf != nullptr ? 1 : 0;
}

int fs_preload(int handle) {
    if (!valid_handle(handle)) return handle;
    // A stream busy reading loads what it needs itself: the caller (the daemon) does not wait
    // for a read that a slow disk may hold for seconds.
    std::unique_lock<std::mutex> reading(g_stream_read_lock[handle], std::try_to_lock);
    if (!reading.owns_lock()) return 0;
    const fs_file_ctx &f = g_file_ctx[handle];
    if (!disk_is_open(f.disk_id)) {
        FS_LOG_ERR("disk %d not open", f.disk_id);
        return -1;
    }
    if (f.preload_buf == nullptr) return 0;
    // What the load answers does not matter to the caller: the next read loads again if needed.
    disk_to_cache_locked(handle, static_cast<uint32_t>(f.preload_cluster));
    return 0;
}

int64_t fs_ltell(int handle, uint32_t *offset) {
    if (!check_stream(handle)) return -1;
    return index_ltell(g_file_ctx[handle].idx, offset);
}

int64_t fs_ttell(int handle, uint32_t *seq) {
    if (!check_stream(handle)) return -1;
    return index_ttell(g_file_ctx[handle].idx, seq);
}

int64_t fs_lseek(int handle, int64_t offset, int whence, uint32_t *offset_out) {
    if (!check_stream(handle)) return -1;
    return index_lseek(g_file_ctx[handle].idx, offset, whence, offset_out);
}

int64_t fs_tseek(int handle, int32_t sec, int whence, int32_t *seq) {
    if (!check_stream(handle)) return -1;
    if (seq == nullptr) {
        FS_LOG_ERR("invalid param");
        return -1;
    }
    return index_tseek(g_file_ctx[handle].idx, sec, whence, seq);
}

namespace {

// The key frame the context stands at, as the signed value it is (a backward walk takes it
// below 0).
int64_t kf_cur_of(const fs_file_ctx &f) {
    return static_cast<int32_t>(f.kf_cur);
}

int64_t kf_count_of(const fs_file_ctx &f) {
    return static_cast<int32_t>(f.kf_count);
}

int64_t kf_pos_of(const fs_file_ctx &f) {
    return static_cast<int64_t>(f.kf_pos);
}

bool kf_pos_current(const fs_file_ctx &f) {
    const int64_t pos = index_ltell(f.idx, nullptr);
    return pos >= 0 && pos == kf_pos_of(f);
}

// The context still describes the entry at the position with a key frame left at kf_cur.
bool forward_context_valid(const fs_file_ctx &f) {
    const int64_t cur = kf_cur_of(f);
    return cur >= 0 && kf_count_of(f) > cur && kf_pos_current(f);
}

bool backward_context_valid(const fs_file_ctx &f) {
    const int64_t cur = kf_cur_of(f);
    return kf_count_of(f) > cur && cur > 0 && kf_pos_current(f);
}

void log_context(const fs_file_ctx &f) {
    FS_LOG_INFO("kcontext count:%d cur:%d pos:%lld", static_cast<int>(kf_count_of(f)),
                static_cast<int>(kf_cur_of(f)), static_cast<long long>(kf_pos_of(f)));
}

void reset_context(fs_file_ctx &f) {
    uint32_t cluster = 0;
    uint32_t length = 0;
    uint32_t count = 0;
    const int r = index_get(f.idx, &cluster, &length, f.kf_frames, &count);
    f.kf_count = r == kFullEntry && count <= RECSTORE_MAX_KFRAMES ? count : 0;
    uint32_t seq = 0;
    index_get_seqoffset(f.idx, &seq);
    f.kf_cur = seq;
    f.kf_pos = static_cast<uint64_t>(index_ltell(f.idx, nullptr));
    FS_LOG_INFO("reset kframe count:%d, cur:%d, pos: %lld\n", static_cast<int>(kf_count_of(f)),
                static_cast<int>(kf_cur_of(f)), static_cast<long long>(kf_pos_of(f)));
}

// The entry at the position, peeked into the context's frame table.
struct PeekedEntry {
    int result = 0;  // as index_get: 204, 0 at the end, or a failure
    uint32_t cluster = 0;
    uint32_t length = 0;
};

PeekedEntry peek_into_context(fs_file_ctx &f) {
    PeekedEntry e;
    uint32_t count = 0;
    e.result = index_get(f.idx, &e.cluster, &e.length, f.kf_frames, &count);
    if (e.result > 0 && e.result != kFullEntry) e.result = -1;
    if (e.result == kFullEntry && !entry_in_range(e.length, count)) e.result = -1;
    f.kf_count = e.result == kFullEntry ? count : 0;
    return e;
}

// Moves the stream by `steps` whole clusters of payload (negative: backward). Going back from the
// first entry is refused here: there is no entry before it.
bool cluster_steps(const fs_file_ctx &f, int64_t steps) {
    if (steps < 0 && index_ltell(f.idx, nullptr) < kClusterStep) return false;
    return index_lseek(f.idx, steps * kClusterStep, SEEK_CUR, nullptr) >= 0;
}

// Reads the entry's cluster and gives the offset of the key frame at kf_cur. The payload length
// or a negative value.
int deliver_key_frame(int handle, const PeekedEntry &e, void *buffer, uint32_t *offset) {
    fs_file_ctx &f = g_file_ctx[handle];
    const int64_t cur = kf_cur_of(f);
    if (cur < 0 || cur >= kf_count_of(f)) {
        FS_LOG_ERR("kframe out of range fd:%d cur:%d count:%d", handle, static_cast<int>(cur),
                   static_cast<int>(kf_count_of(f)));
        return -1;
    }
    int got = -1;
    {
        // The read may go through the stream's preload buffer, which the daemon's preload step
        // fills and fs_set_preload frees under the stream's read lock.
        std::lock_guard<std::mutex> reading(g_stream_read_lock[handle]);
        got = fs_datazone_read(handle, f.disk_id, static_cast<int>(e.cluster), buffer);
    }
    if (got < 0 || static_cast<int64_t>(got) < static_cast<int64_t>(e.length)) {
        FS_LOG_ERR("data read err");
        return got < 0 ? got : -1;
    }
    *offset = f.kf_frames[cur].frame_offset;
    return static_cast<int>(e.length);
}

bool check_kframe_call(int handle, const void *buffer, const uint32_t *offset) {
    if (!check_stream(handle)) return false;
    if (buffer != nullptr && offset != nullptr) return true;
    FS_LOG_ERR("invalid param");
    return false;
}

void log_delivered(int handle, const void *buffer, const fs_file_ctx &f, uint32_t offset) {
    FS_LOG_INFO("id:%d,buf:%p count:%d,cur:%d, pos:%lld, offset:%d", handle, buffer,
                static_cast<int>(kf_count_of(f)), static_cast<int>(kf_cur_of(f)),
                static_cast<long long>(kf_pos_of(f)), static_cast<int>(offset));
}

}  // namespace

void fs_reset_kframe_context(int handle) {
    if (!valid_handle(handle) || g_file_ctx[handle].idx < 0) return;
    reset_context(g_file_ctx[handle]);
}

int fs_getcurkframe(int handle, void *buffer, uint32_t *offset) {
    if (!check_kframe_call(handle, buffer, offset)) return -1;
    fs_file_ctx &f = g_file_ctx[handle];
    if (forward_context_valid(f)) {
        log_context(f);
    } else {
        reset_context(f);
    }
    for (int64_t steps = 0;; steps++) {
        const PeekedEntry e = peek_into_context(f);
        if (e.result == 0) {
            FS_LOG_INFO("end of file");
            return 0;
        }
        if (e.result < 0) {
            FS_LOG_ERR("index read err");
            return e.result;
        }
        if (f.kf_count > 0) {
            const int r = deliver_key_frame(handle, e, buffer, offset);
            if (r < 0) return r;
            // Back to where the call found the stream.
            if (steps > 0 && !cluster_steps(f, -steps)) {
                FS_LOG_ERR("seek err fd :%d", handle);
                return -1;
            }
            return r;
        }
        if (!cluster_steps(f, 1)) {
            FS_LOG_ERR("seek err fd :%d", handle);
            return -1;
        }
        reset_context(f);
    }
}

int fs_getnextkframe(int handle, void *buffer, uint32_t *offset) {
    if (!check_kframe_call(handle, buffer, offset)) return -1;
    fs_file_ctx &f = g_file_ctx[handle];
    if (forward_context_valid(f)) {
        log_context(f);
    } else {
        // A context that does not describe the position always moves on to the next cluster.
        if (!cluster_steps(f, 1)) {
            FS_LOG_ERR("seek err fd :%d", handle);
            return -1;
        }
        FS_LOG_INFO("fs_getnextkframe lseek \n");
        reset_context(f);
    }
    for (;;) {
        const PeekedEntry e = peek_into_context(f);
        if (e.result == 0) {
            FS_LOG_INFO("end of file,ret:%d len:%d kcount:%d", e.result, static_cast<int>(e.length),
                        static_cast<int>(kf_count_of(f)));
            return 0;
        }
        if (e.result < 0) {
            FS_LOG_ERR("index read err,ret:%d", e.result);
            return e.result;
        }
        if (f.kf_count > 0) {
            const int r = deliver_key_frame(handle, e, buffer, offset);
            if (r < 0) return r;
            log_delivered(handle, buffer, f, *offset);
            f.kf_cur++;
            return r;
        }
        if (!cluster_steps(f, 1)) {
            FS_LOG_ERR("seek err fd :%d pos:%lld", handle,
                       static_cast<long long>(index_ltell(f.idx, nullptr)));
            return -1;
        }
        reset_context(f);
        FS_LOG_INFO("fs_getnextkframe loop lseek pos:%lld", static_cast<long long>(kf_pos_of(f)));
    }
}

int fs_getprekframe(int handle, void *buffer, uint32_t *offset) {
    if (!check_kframe_call(handle, buffer, offset)) return -1;
    fs_file_ctx &f = g_file_ctx[handle];
    if (backward_context_valid(f)) {
        log_context(f);
    } else {
        if (!cluster_steps(f, -1)) {
            FS_LOG_ERR("seek err fd :%d", handle);
            return -1;
        }
        FS_LOG_INFO("fs_getprekframe lseek \n");
        reset_context(f);
    }
    for (;;) {
        const PeekedEntry e = peek_into_context(f);
        if (e.result == 0) {
            FS_LOG_INFO("end of file");
            return 0;
        }
        if (e.result < 0) {
            FS_LOG_ERR("index read err");
            return e.result;
        }
        if (f.kf_count > 0) {
            const int r = deliver_key_frame(handle, e, buffer, offset);
            if (r < 0) return r;
            log_delivered(handle, buffer, f, *offset);
            f.kf_cur--;
            return r;
        }
        if (!cluster_steps(f, -1)) {
            FS_LOG_ERR("seek err fd :%d", handle);
            return -1;
        }
        FS_LOG_INFO("fs_getprekframe loop lseek \n");
        reset_context(f);
    }
}

// ---------------------------------------------------------------------------------------------
// Block change and the host's exception callbacks.
//
// Each disk's mutex is held only around its own block operation, never both at once, and the
// callbacks run with no lock held, so that they may close and reopen streams.

int fs_changeblock(int old_disk, int new_disk, int cause) {
    if (!check_disk_id(old_disk) || !check_disk_id(new_disk)) return 0;
    unsigned char buf[RECSTORE_EXP_BUF];
    memset(buf, 0, sizeof buf);
    const fs_exphandle_ex ex = g_fsexp_ex;
    const fs_exphandle simple = g_fsexp;
    if (ex.before != nullptr) {
        ex.before(old_disk, new_disk, -1, -1, ex.ctx);
    } else if (simple.before != nullptr) {
        simple.before(simple.arg, buf);
    }
    int old_block = -1;
    {
        MutexGuard guard(g_disk[old_disk].lock);
        old_block = block_get_current(old_disk);
        if (old_block != -1) block_free(old_disk);
    }
    int new_block = -1;
    {
        MutexGuard guard(g_disk[new_disk].lock);
        new_block = block_alloc(new_disk);
        // The block map marks the new block busy on the disk before any of its clusters is handed
        // out: a block that still reads free after a power cut is chosen again at bring-up, and
        // would hand out clusters that surviving recordings name.
        if (new_block != -1) datazone_sync_bm(new_disk);
    }
    if (new_block != -1) {
        if (new_disk != old_disk) {
            MutexGuard guard(g_disk[old_disk].lock);
            datazone_sync_bm(old_disk);
        }
        fs_log_file("change blk olddisk:[%d %u] => newdisk:[%d %u] cb:%d ok\n", old_disk,
                    static_cast<unsigned>(old_block), new_disk, static_cast<unsigned>(new_block),
                    cause);
    } else {
        fs_log_file("change blk olddisk:[%d %u] => newdisk:[%d %u] cb:%d alloc failed\n", old_disk,
                    static_cast<unsigned>(old_block), new_disk, static_cast<unsigned>(new_block),
                    cause);
    }
    if (ex.after != nullptr) {
        ex.after(old_disk, new_disk, old_block, new_block, ex.ctx);
    } else if (simple.after != nullptr) {
        simple.after(simple.arg, buf);
    }
    return 0;
}

fs_exphandle *fs_set_exphandle(fs_exphandle *old, const fs_exphandle *new_handlers) {
    if (old == nullptr || new_handlers == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return old;
    }
    *old = g_fsexp;
    g_fsexp = *new_handlers;
    return old;
}

void fs_clear_exphandle(void) {
    g_fsexp = fs_exphandle{};
}

void fs_set_exphandle_ex(const fs_exphandle_ex *handlers) {
    g_fsexp_ex = handlers != nullptr ? *handlers : fs_exphandle_ex{};
}

fs_exphandle_ex *fs_get_exphandle_ex(void) {
    return &g_fsexp_ex;
}

// ---------------------------------------------------------------------------------------------
// Deletion: one recording, everything before a time, and everything of one block.

namespace {

// Directory levels as fullname_to_record counts the fields it read.
constexpr int kLevelChannel = 2;
constexpr int kLevelYear = 3;
constexpr int kLevelMonth = 4;
constexpr int kLevelDay = 5;
constexpr int kLevelType = 6;
constexpr int kLevelFile = 7;
constexpr int kLinkFields = 10;  // a whole link name
constexpr int kWalkStop = 0;
constexpr int kWalkGo = 1;
constexpr int kWalkSkip = 2;
constexpr int kRemoveTree = 7;  // remove_file: directories with contents, missing is fine
constexpr int kTmBaseYear = 1900;

struct tm utc_of(time_t t) {
    struct tm out;
    memset(&out, 0, sizeof out);
    gmtime_r(&t, &out);
    return out;
}

// The first second of the year, month or day the directory level names.
struct tm first_second(const struct tm &parsed, int level) {
    struct tm first;
    memset(&first, 0, sizeof first);
    first.tm_year = parsed.tm_year;
    first.tm_mon = level >= kLevelMonth ? parsed.tm_mon : 0;
    first.tm_mday = level >= kLevelDay ? parsed.tm_mday : 1;
    return first;
}

void log_out_of_range(const struct tm &parsed, int level) {
    const int year = parsed.tm_year + kTmBaseYear;
    const int mon = parsed.tm_mon + 1;
    if (level == kLevelYear) {
        FS_LOG_INFO("year :%d out of range\n", year);
    } else if (level == kLevelMonth) {
        FS_LOG_INFO("year:%d mon :%d out of range\n", year, mon);
    } else {
        FS_LOG_INFO("year:%d mon :%d day:%d out of range\n", year, mon, parsed.tm_mday);
    }
}

// Removes dir and its parents while they are empty and lie below root.
void remove_empty_dirs_upward(const char *dir, const char *root) {
    char root_slash[RECSTORE_PATH_LEN + 1];
    snprintf(root_slash, sizeof root_slash, "%s/", root);
    char cur[RECSTORE_PATH_LEN];
    char parent[RECSTORE_PATH_LEN];
    snprintf(cur, sizeof cur, "%s", dir);
    while (strcmp(cur, root_slash) > 0) {
        if (rm_empty_dir(cur) != 0) return;
        mk_parent(cur, sizeof parent, parent);
        if (strcmp(parent, cur) == 0) return;
        snprintf(cur, sizeof cur, "%s", parent);
    }
}

// The clusters listed in an open index file's entries. false when an entry is missing.
bool clusters_of(int idx, uint32_t entries, std::vector<uint32_t> *out) {
    for (uint32_t i = 0; i < entries; i++) {
        uint32_t cluster = 0;
        uint32_t length = 0;
        uint32_t frame_count = 0;
        kframe frames[RECSTORE_MAX_KFRAMES];
        if (index_read(idx, &cluster, &length, frames, &frame_count, nullptr) <
            static_cast<int>(index_size())) {
            return false;
        }
        out->push_back(cluster);
    }
    return true;
}

// Makes the removals made so far on the disk's index partition durable, by flushing the directory
// `dir` (or, when a removal took it away, its nearest surviving parent). Freed clusters may reach
// the disk only after the removals that stop recordings from naming them, or a power cut would
// bring recordings back pointing into space handed out again. The index partition journals its
// metadata in order, so the commit that makes the last removal durable carries every earlier one.
// Only metadata is written: the entries of recordings still being written stay in the page cache
// (a flush of the whole partition would write them ahead of their clusters' map words). false,
// reported, on failure.
bool commit_removals(int disk_id, const char *dir) {
    char root[RECSTORE_PATH_LEN];
    idx_root(disk_id, root, sizeof root);
    if (root[0] == '\0' || dir == nullptr) return false;
    char cur[RECSTORE_PATH_LEN];
    char parent[RECSTORE_PATH_LEN];
    snprintf(cur, sizeof cur, "%s", dir);
    struct stat64 st;
    // Walk up to the first directory that is still there, never above the partition's root.
    while (strncmp(cur, root, strlen(root)) == 0 && strcmp(cur, root) != 0 &&
           io_calls().lstat64(cur, &st) != 0 && errno == ENOENT) {
        mk_parent(cur, sizeof parent, parent);
        if (strcmp(parent, cur) == 0) break;
        snprintf(cur, sizeof cur, "%s", parent);
    }
    FdGuard fd(io_calls().open(cur, O_RDONLY | O_DIRECTORY, 0));
    if (fd.get() < 0 || io_calls().fsync(fd.get()) != 0) {
        FS_LOG_ERR("index partition flush failed:%s\n", cur);
        perror("fsync");
        return false;
    }
    return true;
}

// Walks one channel's cache directory and then its index directory, removing what began before t.
void delete_channel_before(int disk_id, int channel, time_t *t) {
    char chn[RECSTORE_PATH_LEN];
    mk_idx_chnpath(disk_id, chn, sizeof chn, channel);
    if (chn[0] == '\0') return;
    if (fs_use_cache()) {
        char cache[RECSTORE_PATH_LEN];
        tocachename(cache, sizeof cache, chn);
        fs_log_file("fs_delete_index_before cachename:%s t:%d\n", cache, static_cast<int>(*t));
        find_recursive_nostat(cache, DT_DIR, 1, 0, 0, cache_del_before_action,
                              cache_del_before_action, t, nullptr);
    }
    fs_log_file("fs_delete_index_before path:%s t:%d\n", chn, static_cast<int>(*t));
    find_recursive_nostat(chn, DT_DIR, 1, 0, 0, file_delete_index_before_action,
                          file_delete_index_before_action, t, nullptr);
}

}  // namespace

int fs_delete(int disk_id, const record_name *record) {
    if (g_fs_rdonly) {
        FS_LOG_ERR("fs_delete readonly\n");
        return -1;
    }
    if (!check_disk_id(disk_id)) return -1;
    if (record == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    int idx = -1;
    {
        MutexGuard guard(g_fslock);
        idx = index_open(disk_id, kNoBlock, &record->start, record->channel, record->type, 0, 0, 0,
                         0, 0, 0, nullptr);
    }
    if (idx < 0) return -1;
    recordinfo info;
    std::vector<uint32_t> clusters;
    const bool ok = index_stat(idx, &info) == 0 && clusters_of(idx, info.entry_count, &clusters);
    {
        MutexGuard guard(g_fslock);
        index_close(idx, nullptr);
    }
    if (!ok) return -1;
    if (index_del(disk_id, &record->start, record->channel, record->type) != 0) return -1;
    // The removal is durable before the clusters are freed (see commit_removals); if it cannot be
    // made so, the clusters stay busy until their block is recycled.
    char dir[RECSTORE_PATH_LEN];
    mk_idx_fullpath(disk_id, dir, sizeof dir, static_cast<int>(record->channel), &record->start,
                    static_cast<int>(record->type));
    if (!commit_removals(disk_id, dir)) return -1;
    for (uint32_t cluster : clusters) {
        MutexGuard guard(g_disk[disk_id].lock);
        datazone_free(disk_id, static_cast<int>(cluster));
    }
    if (fs_use_cache()) {
        struct tm start = record->start;
        cache_delete(disk_id, record->channel, &start, record->type);
    }
    return 0;
}

int fs_delete_index_before(time_t t) {
    if (g_fs_rdonly) {
        FS_LOG_ERR("fs_delete readonly\n");
        return -1;
    }
    int ids[RECSTORE_MAX_DISKS];
    int count = 0;
    if (fs_getdisk(0, ids, &count) != 0) {
        FS_LOG_ERR("get diskid err\n");
        return -1;
    }
    if (count == 0) {
        FS_LOG_ERR("diskcount 0\n");
        return -1;
    }
    for (int i = 0; i < count; i++) {
        for (int channel = 0; channel < RECSTORE_MAX_CHANNELS; channel++) {
            delete_channel_before(ids[i], channel, &t);
        }
    }
    return 0;
}

int file_delete_index_before_action(const char *path, void *t) {
    if (path == nullptr || t == nullptr) return kWalkSkip;
    if (strstr(path, "link") != nullptr) return kWalkSkip;
    int disk_id = 0;
    int channel = 0;
    int type = 0;
    struct tm parsed;
    memset(&parsed, 0, sizeof parsed);
    const int level = fullname_to_record(path, &disk_id, &channel, &parsed, &type);
    if (level <= 0) {
        FS_LOG_ERR("invalid level\n");
        return kWalkSkip;
    }
    if (level <= kLevelChannel || level == kLevelType) return kWalkGo;
    const struct tm before = utc_of(*static_cast<time_t *>(t));
    char before_text[kTimeText];
    asc(before, before_text);
    if (level < kLevelFile) {
        const struct tm first = first_second(parsed, level);
        if (tm_cmp(&first, &before) > 0) {
            log_out_of_range(parsed, level);
            return kWalkSkip;
        }
        FS_LOG_INFO("be care of file name:%s before:%s", path, before_text);
        return kWalkGo;
    }
    if (tm_cmp(&parsed, &before) > 0) {
        FS_LOG_INFO("time out of range:%s", path);
        return kWalkSkip;
    }
    if (io_calls().remove(path) == 0) {
        FS_LOG_INFO("del file name:%s before:%s ok\n", path, before_text);
    } else {
        FS_LOG_INFO("del file name:%s before:%s error:%s\n", path, before_text, strerror(errno));
    }
    return kWalkGo;
}

// Recordings still reachable through a block's link directory: links whose index file exists,
// or cannot be told not to. 0 when none is left or the directory is gone, -1 when it cannot be
// listed.
static int recordings_left(const char *dir) {
    DIR *d = io_calls().opendir(dir);
    if (d == nullptr) return errno == ENOENT ? 0 : -1;
    int left = 0;
    while (struct dirent64 *e = io_calls().readdir64(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        char link[RECSTORE_PATH_LEN];
        if (snprintf(link, sizeof link, "%s/%s", dir, e->d_name) >= static_cast<int>(sizeof link))
            continue;
        int disk_id = -1, block_id = 0, channel = 0, type = 0;
        struct tm start;
        memset(&start, 0, sizeof start);
        if (linkname_to_record(link, &disk_id, &block_id, &channel, &start, &type) < kLinkFields ||
            !valid_disk_id(disk_id)) {
            continue;  // not a recording's link: removed with the directory
        }
        char name[RECSTORE_PATH_LEN];
        mk_idx_fullname(disk_id, name, sizeof name, channel, &start, type);
        struct stat64 st;
        if (name[0] != '\0' && (io_calls().lstat64(name, &st) == 0 || errno != ENOENT)) left++;
    }
    io_calls().closedir(d);
    return left;
}

// Whether fs_clear leaves the directories and cache tags of the removed recordings to one pass
// per index directory after the walk (true) or deals with them after each recording (false).
static std::atomic<bool> g_clear_gathered{true};

void recstore::fs_set_clear_gathered(bool gathered) {
    g_clear_gathered.store(gathered, std::memory_order_relaxed);
}

namespace {

// The cache tags of one cache file that a recycle drops. The day is the first member so that
// the rewrite's predicate, which is handed that struct tm, reaches the whole record.
struct CacheDrop {
    struct tm day;  // first member: see drop_cleared_tag
    std::vector<struct tm> starts;
};
static_assert(std::is_standard_layout<CacheDrop>::value, "the day converts to its record");

// Rewrite predicate: 0 (drop) for a tag that any of the removed recordings' starts matches, as
// one cache_delete per recording would have dropped it.
int drop_cleared_tag(uint32_t lo, uint32_t hi, const struct tm *day) {
    const auto *drop = reinterpret_cast<const CacheDrop *>(day);
    for (const struct tm &start : drop->starts) {
        if (match_cachetag(lo, hi, &start) == 0) return 0;
    }
    return -1;
}

// One index directory that lost recordings in a recycle.
struct ClearedLeaf {
    std::string path;  // as mk_idx_fullpath makes it
    int disk_id;
    int channel;
    int type;
    CacheDrop drop;
};

// What the walk of a link directory leaves for after it: the index directories that lost
// recordings, in the order they were first met, and the starts removed from each.
struct ClearBatch {
    std::vector<ClearedLeaf> leaves;
    std::unordered_map<std::string, size_t> at;
};

// A recording reached through its link in a block's link directory.
struct LinkedRecording {
    int disk_id = -1;
    int channel = 0;
    int type = 0;
    struct tm start = {};
    char leaf[RECSTORE_PATH_LEN] = {};  // its index directory
};

// Removes the index file a link names, then the link. false (nothing more to tidy) when path is
// not a recording's link, or when its index file could not be removed: the link then stays, so
// that fs_clear sees the recording is left.
bool remove_linked_recording(const char *path, const struct stat *st, LinkedRecording *r) {
    if (path == nullptr || st == nullptr || !S_ISLNK(st->st_mode)) return false;
    int block_id = 0;
    if (linkname_to_record(path, &r->disk_id, &block_id, &r->channel, &r->start, &r->type) <
            kLinkFields ||
        !valid_disk_id(r->disk_id)) {
        return false;
    }
    char name[RECSTORE_PATH_LEN];
    mk_idx_fullname(r->disk_id, name, sizeof name, r->channel, &r->start, r->type);
    if (name[0] != '\0' && io_calls().remove(name) != 0 && errno != ENOENT) return false;
    io_calls().remove(path);
    mk_idx_fullpath(r->disk_id, r->leaf, sizeof r->leaf, r->channel, &r->start, r->type);
    return true;
}

// The empty directories above one recording and its cache tag, right away.
void tidy_after_recording(int disk_id, int channel, const struct tm &start, int type,
                          const char *leaf) {
    char root[RECSTORE_PATH_LEN];
    idx_root(disk_id, root, sizeof root);
    if (leaf[0] != '\0' && root[0] != '\0') remove_empty_dirs_upward(leaf, root);
    if (fs_use_cache()) {
        struct tm copy = start;
        cache_delete(disk_id, channel, &copy, type);
    }
}

// Files the recording for the pass after the walk; false when memory ran out (nothing filed).
bool gather(ClearBatch *batch, int disk_id, int channel, const struct tm &start, int type,
            const char *leaf) {
    try {
        auto found = batch->at.find(leaf);
        if (found == batch->at.end()) {
            batch->leaves.push_back(
                ClearedLeaf{leaf, disk_id, channel, type, CacheDrop{start, {}}});
            found = batch->at.emplace(leaf, batch->leaves.size() - 1).first;
        }
        batch->leaves[found->second].drop.starts.push_back(start);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// The pass after the walk: per index directory, the directories left empty above it (removed
// upward as after its last recording), then one rewrite of its cache file dropping every
// removed recording's tag.
void tidy_gathered(const ClearBatch &batch) {
    for (const ClearedLeaf &leaf : batch.leaves) {
        char root[RECSTORE_PATH_LEN];
        idx_root(leaf.disk_id, root, sizeof root);
        if (!leaf.path.empty() && root[0] != '\0')
            remove_empty_dirs_upward(leaf.path.c_str(), root);
        if (fs_use_cache()) {
            do_cache_delete_cond(leaf.disk_id, leaf.channel, &leaf.drop.day, leaf.type,
                                 drop_cleared_tag);
        }
    }
}

// Walk action of the gathered recycle (user: the ClearBatch): removes a recording's index file
// and link as file_delete_link_action does and files the rest for tidy_gathered.
int file_delete_link_gathered_action(const char *path, struct stat *st, void *user) {
    if (user == nullptr) return kWalkGo;
    LinkedRecording r;
    if (!remove_linked_recording(path, st, &r)) return kWalkGo;
    if (!gather(static_cast<ClearBatch *>(user), r.disk_id, r.channel, r.start, r.type, r.leaf)) {
        tidy_after_recording(r.disk_id, r.channel, r.start, r.type, r.leaf);
    }
    return kWalkGo;
}

}  // namespace

int fs_clear(int disk_id, uint32_t block_id) {
    if (g_fs_rdonly) {
        FS_LOG_ERR("fs_clear readonly\n");
        return -1;
    }
    if (!check_disk_id(disk_id)) return -1;
    if (block_id == kNoBlock) {
        FS_LOG_ERR("invalid block id\n");
        return -1;
    }
    {
        // The current block's map is held in memory: clearing it would leave the two apart.
        MutexGuard guard(g_disk[disk_id].lock);
        const dz_block *cur = g_dz_ctx[disk_id].cur_block;
        if (cur != nullptr && cur->block_id == block_id) {
            FS_LOG_ERR("block %u is the current block\n", block_id);
            return -1;
        }
    }
    char dir[RECSTORE_PATH_LEN];
    mk_idx_linkpath(disk_id, dir, sizeof dir, static_cast<int>(block_id));
    if (dir[0] == '\0') return -1;
    fs_log_file("remove link :%s\n", dir);
    if (g_clear_gathered.load(std::memory_order_relaxed)) {
        ClearBatch batch;
        find_recursive(dir, 1, 0, 0, file_delete_link_gathered_action, nullptr, &batch, nullptr);
        tidy_gathered(batch);
    } else {
        find_recursive(dir, 1, 0, 0, file_delete_link_action, nullptr, nullptr, nullptr);
    }
    // A recording the walk could not remove (an I/O error on its file, its link or the listing)
    // still points into the block: freeing it would hand its clusters out again.
    const int left = recordings_left(dir);
    if (left != 0) {
        FS_LOG_ERR("block %u not freed: %s\n", block_id,
                   left < 0 ? "its link directory cannot be listed"
                            : "recordings in it could not be removed");
        return -1;
    }
    remove_file(dir, kRemoveTree);
    // Every removal above is durable before the block is freed (see commit_removals): the link
    // directory went last, so flushing what holds it commits them all.
    if (!commit_removals(disk_id, dir)) {
        FS_LOG_ERR("block %u not freed: the index partition cannot be flushed\n", block_id);
        return -1;
    }
    MutexGuard guard(g_disk[disk_id].lock);
    block_clear(disk_id, block_id);
    datazone_sync_bm(disk_id);
    return 0;
}

int file_delete_link_action(const char *path, struct stat *st, void * /*user*/) {
    LinkedRecording r;
    if (remove_linked_recording(path, st, &r))
        tidy_after_recording(r.disk_id, r.channel, r.start, r.type, r.leaf);
    return kWalkGo;
}

int file_compare_link_action(const char *path, struct stat *st, void *t) {
    if (path == nullptr || st == nullptr || t == nullptr || !S_ISLNK(st->st_mode)) return kWalkGo;
    int disk_id = -1;
    int block_id = 0;
    int channel = 0;
    int type = 0;
    struct tm start;
    memset(&start, 0, sizeof start);
    if (linkname_to_record(path, &disk_id, &block_id, &channel, &start, &type) < kLinkFields) {
        return kWalkGo;
    }
    const time_t when = *static_cast<time_t *>(t);
    const struct tm limit = utc_of(when);
    if (tm_cmp(&start, &limit) < 0) return kWalkGo;
    FS_LOG_INFO("find file:%s later than specific time:%lu\n", path,
                static_cast<unsigned long>(when));
    return kWalkStop;
}

int fs_block_timeout(const block_entry *latest, const block_entry *cur, time_t t) {
    if (latest == nullptr || static_cast<int32_t>(latest->disk) < 0 ||
        latest->block_id == kNoBlock) {
        return 1;
    }
    if (cur == nullptr) return 1;
    const unsigned long when = static_cast<unsigned long>(t);
    if (latest->seq == cur->seq && valid_disk_id(static_cast<int>(cur->disk))) {
        char dir[RECSTORE_PATH_LEN];
        mk_idx_linkpath(static_cast<int>(cur->disk), dir, sizeof dir,
                        static_cast<int>(cur->block_id));
        time_t limit = t;
        if (dir[0] != '\0' && find_recursive(dir, 1, 0, 0, file_compare_link_action, nullptr,
                                             &limit, nullptr) == kWalkStop) {
            FS_LOG_INFO(
                "find some record in:%s later than time:%lu, latest [%d %u %u], cur [%d %u %u]\n",
                dir, when, static_cast<int>(latest->disk), latest->block_id, latest->seq,
                static_cast<int>(cur->disk), cur->block_id, cur->seq);
            return 0;
        }
    }
    FS_LOG_INFO("fs_block_timeout latest [%d %u %u], cur [%d %u %u]\n",
                static_cast<int>(latest->disk), latest->block_id, latest->seq,
                static_cast<int>(cur->disk), cur->block_id, cur->seq);
    return 1;
}

int fs_earliest(int disk_id, uint32_t *seq) {
    if (!check_disk_id(disk_id)) return -1;
    MutexGuard guard(g_disk[disk_id].lock);
    return block_earliest(disk_id, seq);
}

int fs_before(int disk_id, int32_t t, block_entry *out, int max) {
    if (!check_disk_id(disk_id)) return -1;
    MutexGuard guard(g_disk[disk_id].lock);
    return block_before(disk_id, t, out, max);
}

// ---------------------------------------------------------------------------------------------
// Search and calendar of one disk: walks of the index tree channel by channel, over the tmpfs
// cache when it is in use (the cache-side actions are in cache.cpp), otherwise over the index
// partition.

namespace {

constexpr int kDayLastHour = 23;
constexpr int kDayLastMinute = 59;
constexpr int kDayLastSecond = 59;
constexpr int kLastMonthOfYear = 11;  // tm_mon of December
constexpr int kMonthLastDay = 31;     // every month's directory is taken to end on day 31
constexpr int kCacheMaskBits = 32;    // the cache walks build their channel mask in 32 bits
constexpr uint64_t kChannel31Mask = 0xFFFFFFFF80000000ull;  // the sign-extended bit 31
constexpr size_t kStatsText = 512;                          // rendered walk statistics
constexpr uint64_t kClusterBytes = RECSTORE_CLUSTER_SIZE;
constexpr int64_t kExtBlockBytes = RECSTORE_EXT_MAX_LEN;  // extension block after the header

// The first second of the year, month or day a directory names.
struct tm dir_first_second(const struct tm &parsed, int level) {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = parsed.tm_year;
    t.tm_mon = level >= recstore::kCatLevelMonth ? parsed.tm_mon : 0;
    t.tm_mday = level >= recstore::kCatLevelDay ? parsed.tm_mday : 1;
    return t;
}

// The last second of the year, month (always day 31) or day a directory names.
struct tm dir_last_second(const struct tm &parsed, int level) {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = parsed.tm_year;
    t.tm_mon = level >= recstore::kCatLevelMonth ? parsed.tm_mon : kLastMonthOfYear;
    t.tm_mday = level >= recstore::kCatLevelDay ? parsed.tm_mday : kMonthLastDay;
    t.tm_hour = kDayLastHour;
    t.tm_min = kDayLastMinute;
    t.tm_sec = kDayLastSecond;
    return t;
}

// mktime of a copy (mktime normalises its argument), as the search's messages print times.
int mktime_of(const struct tm &t) {
    struct tm copy = t;
    return static_cast<int>(mktime(&copy));
}

bool any_match_rule(int flags, const struct tm &rs, const struct tm &re, const struct tm &start,
                    const struct tm &end) {
    const int s = tm_cmp(&rs, &start);
    const int e = tm_cmp(&re, &end);
    if ((flags & RECSTORE_MATCH_BEGINS_INSIDE) && s >= 0 && e >= 0) return true;
    if ((flags & RECSTORE_MATCH_ENDS_INSIDE) && s <= 0 && e <= 0) return true;
    if ((flags & RECSTORE_MATCH_INSIDE) && s >= 0 && e <= 0) return true;
    if ((flags & RECSTORE_MATCH_COVERS) && s <= 0 && e >= 0) return true;
    return false;
}

// Entries and extension mark of an index file from its size alone: the header of the disk's
// format, then whole entries; a remainder means a 2048-byte extension block after the header.
void status_from_size(int disk_id, int64_t size, recordinfo *info) {
    const int64_t header = sizeof_recordinfo_disk(disk_id);
    const int64_t entry = index_size();
    int64_t entries = 0;
    if (size >= header && entry > 0) {
        int64_t rest = size - header;
        if (size >= header + kExtBlockBytes && rest % entry != 0) {
            rest -= kExtBlockBytes;
            info->ext_magic = RECSTORE_EXT_MAGIC;
        }
        entries = rest / entry;
    }
    info->total_bytes = static_cast<uint64_t>(entries) * kClusterBytes;
}

// The span of an index file from its time stamps (closing sets access time to the start and
// modification time to the end); false when they do not give a usable span.
bool span_from_stamps(const struct stat *st, int64_t *span) {
    if (st == nullptr) return false;
    const int64_t diff = static_cast<int64_t>(st->st_mtime) - static_cast<int64_t>(st->st_atime);
    if (diff < 0 || diff >= static_cast<int64_t>(fs_get_max_record_duration())) return false;
    *span = diff;
    return true;
}

// One index file met by the search walk.
int find_index_file(const struct stat *st, fs_find_req *req, int channel, const struct tm &start,
                    int type) {
    char text[kTimeText];
    if (tm_cmp(&start, &req->end) > 0) {
        FS_LOG_INFO("time out of range\n");
        return kWalkGo;
    }
    fs_find_record found;
    memset(&found, 0, sizeof found);
    recordinfo info;
    memset(&info, 0, sizeof info);
    found.channel = static_cast<uint32_t>(channel);
    found.disk_id = req->disk;
    int64_t span = 0;
    const bool fast = (req->matchflags & RECSTORE_MATCH_FAST) != 0;
    if (fast && span_from_stamps(st, &span)) {
        struct tm end;
        tm_offset_sec(&start, static_cast<int>(span), &end);
        to_fs_tm(&start, &found.start);
        to_fs_tm(&end, &found.end);
        found.type = static_cast<uint32_t>(type);
        status_from_size(req->disk, static_cast<int64_t>(st->st_size), &info);
        // The mode is not known without opening the file: no mode filter on this path.
        recstore::find_offer(req, found, info, 0, false);
        return kWalkGo;
    }
    rec_param p;
    memset(&p, 0, sizeof p);
    to_fs_tm(&start, &p.start);
    p.channel = static_cast<uint32_t>(channel);
    p.type = static_cast<uint32_t>(type);
    const int h = fs_open(req->disk, &p, O_RDONLY, static_cast<uint32_t>(req->modmask), 0, nullptr);
    if (h < 0) {
        FS_LOG_INFO("open err\n");
        return kWalkGo;
    }
    const int stat_result = fs_stat(h, &info);
    fs_close(h, nullptr);
    if (stat_result != 0) return kWalkGo;
    if ((info.mode & static_cast<uint32_t>(req->modmask)) == 0) {
        FS_LOG_INFO("wanted mod:%d,finded:%d\n", req->modmask, static_cast<int>(info.mode));
        return kWalkGo;
    }
    if (fast) {
        FS_LOG_INFO("invalid mtime:%ld or atime:%ld => %s\n",
                    st ? static_cast<long>(st->st_mtime) : 0L,
                    st ? static_cast<long>(st->st_atime) : 0L, asc(start, text));
    }
    found.start = info.start_time;
    found.end = info.end_time;
    found.channel = info.channel;
    found.type = info.type;
    recstore::find_offer(req, found, info, static_cast<int>(info.mode), false);
    return kWalkGo;
}

// Level 2 of an index-partition walk: the exact channel test, with the search's or the
// calendar's message.
enum class Walk { search, calendar };
bool file_channel_ok(uint64_t chanbits, int channel, Walk walk) {
    if (recstore::channel_selected(chanbits, channel)) return true;
    if (walk == Walk::search) {
        FS_LOG_INFO("chnbits :%lld finded :%d\n", static_cast<long long>(chanbits), channel);
    } else {
        FS_LOG_INFO("chanbits :%lld found :%d\n", static_cast<long long>(chanbits), channel);
    }
    return false;
}

// True when the fields of t are a calendar time as it is (not one that normalising would move).
bool is_calendar_time(const struct tm &t) {
    struct tm moved;
    tm_offset_sec(&t, 0, &moved);
    return tm_cmp(&t, &moved) == 0;
}

// Only a whole index file name (channel, start and type read, a channel of 0-63 and a real
// calendar time) names a recording; shorter or impossible names are strays and passed over.
bool whole_index_name(int level, int channel, const struct tm &start) {
    if (level >= recstore::kCatLevelIndexName && channel >= 0 && channel < RECSTORE_MAX_CHANNELS &&
        is_calendar_time(start)) {
        return true;
    }
    FS_LOG_INFO("not an index file, level:%d\n", level);
    return false;
}

// The part of the walk over an index partition that search and calendar share: link paths are
// passed over, directory levels get their verdict from the channel, range and type tests, and an
// index file's name is read into the recording it names. True with channel, start and type of
// an index file to judge; false with the walk's verdict in *verdict otherwise.
struct NamedRecording {
    int channel = -1;
    int type = -1;
    struct tm start = {};
};

template <typename Request>
bool index_path_names_recording(const char *path, const Request &req, Walk walk, int *verdict,
                                NamedRecording *rec) {
    *verdict = kWalkSkip;
    if (strstr(path, "link") != nullptr) return false;
    int disk_id = -1;
    const int level = fullname_to_record(path, &disk_id, &rec->channel, &rec->start, &rec->type);
    if (level <= 0) {
        FS_LOG_ERR("invalid level\n");
        return false;
    }
    if (level == recstore::kCatLevelDisk) {
        *verdict = kWalkGo;
        return false;
    }
    if (level == recstore::kCatLevelChannel) {
        *verdict = file_channel_ok(req.chanbits, rec->channel, walk) ? kWalkGo : kWalkSkip;
        return false;
    }
    if (level < recstore::kCatLevelFile) {
        *verdict = recstore::catalogue_dir_verdict(level, rec->start, rec->type, req.start, req.end,
                                                   req.substream);
        return false;
    }
    if (!whole_index_name(level, rec->channel, rec->start)) return false;
    tm_offset_sec(&rec->start, 0, &rec->start);  // the name gives no weekday: fill it for messages
    return true;
}

// The calendar request of one day: its first and last second moved by the C library's timezone.
void calendar_day(fs_calendar_req *req, int year, int month, int day) {
    struct tm first;
    memset(&first, 0, sizeof first);
    first.tm_year = year - kTmBaseYear;
    first.tm_mon = month - 1;
    first.tm_mday = day;
    struct tm last = first;
    last.tm_hour = kDayLastHour;
    last.tm_min = kDayLastMinute;
    last.tm_sec = kDayLastSecond;
    // Index names carry UTC times; the host's day is local, so its bounds move by seconds west.
    const int west = static_cast<int>(timezone);
    tm_offset_sec(&first, west, &req->start);
    tm_offset_sec(&last, west, &req->end);
}

// Walks one channel of the calendar's day.
void calendar_channel(fs_calendar_req *req, int channel, find_debug *stats) {
    char chn[RECSTORE_PATH_LEN];
    mk_idx_chnpath(req->disk, chn, sizeof chn, channel);
    if (chn[0] == '\0') return;
    if (fs_use_cache()) {
        char cache[RECSTORE_PATH_LEN];
        tocachename(cache, sizeof cache, chn);
        if (cache[0] == '\0') return;
        find_recursive_nostat(cache, DT_DIR, 1, 0, 0, cache_calendar_action, cache_calendar_action,
                              req, nullptr);
        return;
    }
    find_recursive_nostat(chn, DT_DIR, 1, 0, 0, file_calendar_action, file_calendar_action, req,
                          stats);
}

// Walks one channel of a search.
void find_channel(fs_find_req *req, int channel, find_debug *stats) {
    char chn[RECSTORE_PATH_LEN];
    mk_idx_chnpath(req->disk, chn, sizeof chn, channel);
    if (chn[0] == '\0') return;
    if (fs_use_cache()) {
        char cache[RECSTORE_PATH_LEN];
        tocachename(cache, sizeof cache, chn);
        if (cache[0] == '\0') return;
        find_recursive(cache, 1, 0, 0, cache_findaction, cache_findaction, req, nullptr);
        return;
    }
    find_recursive(chn, 1, 0, 0, file_findaction, file_findaction, req, stats);
}

// The disk checks shared by search and calendar.
bool catalogue_disk_ok(int disk_id) {
    if (!check_disk_id(disk_id)) return false;
    if (!fs_disk_is_inited(disk_id)) {
        FS_LOG_ERR("disk %d not init\n", disk_id);
        return false;
    }
    return true;
}

}  // namespace

namespace recstore {

uint64_t cache_channel_mask(int channel) {
    // The cache walks have always built the mask as (int)1 << channel and widened it to 64 bits:
    // bit 31 sign-extends over bits 32-63 and wider shifts give no bit at all. Recordings of
    // channels 32-63 are therefore only found without the cache; this is kept deliberately and
    // computed here without shifting into the sign bit.
    if (channel < 0 || channel >= kCacheMaskBits) return 0;
    if (channel == kCacheMaskBits - 1) return kChannel31Mask;
    return 1ull << channel;
}

bool channel_selected(uint64_t chanbits, int channel) {
    return channel >= 0 && channel < RECSTORE_MAX_CHANNELS && ((chanbits >> channel) & 1u) != 0;
}

int catalogue_dir_verdict(int level, const struct tm &parsed, int type, const struct tm &start,
                          const struct tm &end, int substream) {
    if (level == kCatLevelType) {
        if (type == substream) return kWalkGo;
        FS_LOG_INFO("substream not match:%d :%d\n", substream, type);
        return kWalkSkip;
    }
    const struct tm first = dir_first_second(parsed, level);
    const struct tm last = dir_last_second(parsed, level);
    if (tm_cmp(&last, &start) >= 0 && tm_cmp(&first, &end) <= 0) return kWalkGo;
    log_out_of_range(parsed, level);
    return kWalkSkip;
}

bool calendar_day_found(const fs_calendar_req &req) {
    if (req.found != 1) return false;
    FS_LOG_PLAIN("reach max count:%d %d\n", req.found, 1);
    return true;
}

int calendar_report(fs_calendar_req *req, const char *path) {
    if (req->callback != nullptr && req->callback(req, req->context) != 1) return kWalkSkip;
    FS_LOG_PLAIN("find calendar chn:%llx name:%s\n", static_cast<unsigned long long>(req->chanbits),
                 path);
    req->found = 1;
    return kWalkStop;
}

bool find_reached_max(const fs_find_req &req) {
    if (req.count < req.maxcount) return false;
    FS_LOG_PLAIN("reach max count:%d %d\n", req.count, req.maxcount);
    return true;
}

int find_offer(fs_find_req *req, const fs_find_record &found, const recordinfo &info, int mode,
               bool check_mode) {
    const int type = static_cast<int>(found.type);
    if (type != req->substream) {
        FS_LOG_INFO("wanted substream:%d,finded:%d\n", req->substream, type);
        return kWalkGo;
    }
    if (check_mode && (mode & req->modmask) == 0) {
        FS_LOG_INFO("wanted mod:%d,finded:%d\n", req->modmask, mode);
        return kWalkGo;
    }
    const struct tm rs = tm_from(found.start);
    const struct tm re = tm_from(found.end);
    if (tm_cmp(&rs, &re) > 0) {
        FS_LOG_INFO("start time:%d > end time:%d\n", mktime_of(rs), mktime_of(re));
        return kWalkGo;
    }
    if (tm_cmp(&re, &req->start) < 0 || tm_cmp(&rs, &req->end) > 0) {
        FS_LOG_INFO(
            "rec end time:%d < find start time:%d \n rec start time:%d > find end time :%d\n",
            mktime_of(re), mktime_of(req->start), mktime_of(rs), mktime_of(req->end));
        return kWalkGo;
    }
    if (!any_match_rule(req->matchflags, rs, re, req->start, req->end)) {
        char a[kTimeText], b[kTimeText], c[kTimeText], d[kTimeText];
        FS_LOG_INFO("find not suitable record\n");
        FS_LOG_INFO("rec start:%s", asc(rs, a));
        FS_LOG_INFO("rec end:%s", asc(re, b));
        FS_LOG_INFO("find start:%s", asc(req->start, c));
        FS_LOG_INFO("find end:%s", asc(req->end, d));
        return kWalkGo;
    }
    if (req->callback != nullptr && req->callback(&found, &info, req->context) != 1) {
        return kWalkSkip;
    }
    req->count++;
    return kWalkGo;
}

}  // namespace recstore

int fs_find(int disk, const struct tm *start, const struct tm *end, int /*ignored*/,
            uint32_t chan_lo, uint32_t chan_hi, int substream, int modmask, int matchflags,
            int maxcount, fs_find_cb callback, void *context) {
    if (!catalogue_disk_ok(disk)) return -1;
    if (start == nullptr || end == nullptr) {
        FS_LOG_ERR("invalid param\n");
        return -1;
    }
    if (tm_cmp(start, end) > 0) {
        char a[kTimeText], b[kTimeText];
        FS_LOG_ERR("start larger than end\n");
        FS_LOG_ERR("start:%s", asc(*start, a));
        FS_LOG_ERR("end:%s", asc(*end, b));
        return -1;
    }
    fs_find_req req;
    memset(&req, 0, sizeof req);
    req.disk = disk;
    req.chanbits = (static_cast<uint64_t>(chan_hi) << 32) | chan_lo;
    req.substream = substream;
    req.modmask = modmask;
    req.matchflags = matchflags;
    req.count = 0;
    req.maxcount = maxcount;
    req.start = *start;
    req.end = *end;
    req.callback = callback;
    req.context = context;
    find_debug stats;
    memset(&stats, 0, sizeof stats);
    for (int channel = 0; channel < RECSTORE_MAX_CHANNELS; channel++) {
        if (!recstore::channel_selected(req.chanbits, channel)) continue;
        FS_LOG_INFO("find channel:%d,mod:%d\n", channel, matchflags);
        find_channel(&req, channel, &stats);
    }
    char text[kStatsText] = "";
    FS_LOG_PLAIN("fs_find:%s\n", find_debug_tostring(&stats, text, sizeof text));
    return req.count;
}

int file_findaction(const char *path, struct stat *st, void *request) {
    if (path == nullptr || request == nullptr) return kWalkSkip;
    fs_find_req *req = static_cast<fs_find_req *>(request);
    if (recstore::find_reached_max(*req)) return kWalkStop;
    int verdict = kWalkSkip;
    NamedRecording rec;
    if (!index_path_names_recording(path, *req, Walk::search, &verdict, &rec)) return verdict;
    return find_index_file(st, req, rec.channel, rec.start, rec.type);
}

int fs_get_calendar(int disk, int /*ignored*/, uint32_t chan_lo, uint32_t chan_hi, int year,
                    int month, fs_calendar_cb callback, void *context) {
    if (!catalogue_disk_ok(disk)) return -1;
    if (month < 1 || month > kLastMonthOfYear + 1) {
        FS_LOG_ERR("invalid mon %d\n", month);
        return -1;
    }
    const uint64_t chanbits = (static_cast<uint64_t>(chan_hi) << 32) | chan_lo;
    const int days = daysofmonth(year, month);
    for (int d = 1; d <= days; d++) {
        fs_calendar_req req;
        memset(&req, 0, sizeof req);
        req.disk = disk;
        req.chanbits = chanbits;
        req.day = d - 1;
        req.callback = callback;
        req.context = context;
        calendar_day(&req, year, month, d);
        char a[kTimeText], b[kTimeText];
        FS_LOG_PLAIN("caledar find start:%s", asc(req.start, a));
        FS_LOG_PLAIN("caledar find end:%s", asc(req.end, b));
        find_debug stats;
        memset(&stats, 0, sizeof stats);
        for (int channel = 0; channel < RECSTORE_MAX_CHANNELS; channel++) {
            if (recstore::channel_selected(chanbits, channel))
                calendar_channel(&req, channel, &stats);
        }
        char text[kStatsText] = "";
        FS_LOG_PLAIN("fs_find:%s\n", find_debug_tostring(&stats, text, sizeof text));
    }
    return 0;
}

int file_calendar_action(const char *path, void *request) {
    if (path == nullptr || request == nullptr) return kWalkSkip;
    fs_calendar_req *req = static_cast<fs_calendar_req *>(request);
    if (recstore::calendar_day_found(*req)) return kWalkStop;
    int verdict = kWalkSkip;
    NamedRecording rec;
    if (!index_path_names_recording(path, *req, Walk::calendar, &verdict, &rec)) return verdict;
    if (tm_cmp(&req->start, &rec.start) > 0 || tm_cmp(&rec.start, &req->end) > 0) {
        char text[kTimeText];
        FS_LOG_INFO("time out of range:%s", asc(rec.start, text));
        return kWalkSkip;
    }
    return recstore::calendar_report(req, path);
}
