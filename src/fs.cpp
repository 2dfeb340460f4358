// Disk management: the disk table g_disk with its per-disk mutexes, the disk groups, the
// library-wide mode flags, and the preparation of a disk (partitioning, formatting, checking and
// mounting through the external tools).
#include "fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <utility>
#include <array>
#include <cstdarg>
#include <memory>

#include "fs_tools.h"

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
        case 0x10101013u:
            return "1.0.0.2";
        case 0x50202023u:
            return "5.0.0.0";
        case 0x60282013u:
            return "6.0.0.0";
        case 0x702a2013u:
            return "7.0.0.0";
        default:
            return "";
    }
}

// ---------------------------------------------------------------------------------------------
// Disk preparation.
//
// Every command line handed to the shell is built from a device name that passed
// is_disk_node_name() (or from the library's own constants), so nothing a caller names can reach
// the shell beyond "/dev/hd/sd" plus one letter a-h.

namespace {

using recstore::FdGuard;
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
    void operator()(DIR *dir) const { closedir(dir); }
};
struct PipeCloser {
    void operator()(FILE *pipe) const { pclose(pipe); }
};

bool path_exists(const char *path) {
    return access(path, F_OK) == 0;
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
    std::unique_ptr<FILE, PipeCloser> pipe(popen(cmd, "r"));
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
    sync();
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
    sync();
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
        sync();
    }
    // One inode per 4096 bytes: the index partition holds many small index files.
    if (build_cmd(cmd, sizeof cmd, "%s -i 4096 -j -F %s2\n", mkfs, dev)) run_cmd(cmd);
    sync();
    return 0;
}

// The disk's size in bytes, or -1 when the device cannot be opened read-write.
int64_t open_and_measure(int disk_id, const char *dev) {
    FdGuard fd(open(dev, O_RDWR | O_CLOEXEC | O_LARGEFILE));
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
        sync();
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
    sync();
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
    if (result == 0) sync();
    return result;
}

int fs_mount(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    if (mount_locked(disk_id, dev) != 0) return -1;
    sync();
    return 0;
}

int fs_umount(const char *dev) {
    const int disk_id = recstore::checked_disk_id(dev);
    if (disk_id < 0) return -1;
    umount_locked(disk_id, dev);
    sync();
    return 0;
}

int fs_probe(char (*list)[RECSTORE_PATH_LEN], int *count) {
    if (list == nullptr || count == nullptr) return -1;
    std::array<DiskPath, RECSTORE_PROBE_MAX> found{};
    int n = 0;
    std::unique_ptr<DIR, DirCloser> dir(opendir(kDiskDir));
    if (dir) {
        while (const struct dirent *entry = readdir(dir.get())) {
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
