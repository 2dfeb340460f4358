// recstore demo: the tool's main job inside the disk rig (tests/rig/rig-run).
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <fstream>
#include <string>

#include "cli.h"
#include "commands.h"
#include "recstore.h"
#include "rig.h"

namespace tool {

namespace {

constexpr uint64_t kDemoDiskBytes = 200 * kGiB;
constexpr char kDemoLetter = 'a';
constexpr int kPartitions = 3;
constexpr const char *kDemoLog = "/tmp/recstore-demo.log";
constexpr const char *kRigCommand = "sudo scripts/demo (or: sudo tests/rig/rig-run build/native/tools/recstore demo)";


// Sends what the library and its tools print (descriptors 1 and 2) to a log file while a step
// runs; afterwards the command lines the library ran are shown from it.
class StepOutput {
  public:
    explicit StepOutput(const std::string &log) : log_(log) {
        fflush(stdout);
        fflush(stderr);
        start_ = file_size();
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) return;
        saved_out_ = dup(1);
        saved_err_ = dup(2);
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
    }
    ~StepOutput() { restore(); }
    StepOutput(const StepOutput &) = delete;
    StepOutput &operator=(const StepOutput &) = delete;

    // Restores the terminal and prints the command lines of this step.
    void show_commands() {
        restore();
        std::ifstream in(log_);
        in.seekg(static_cast<std::streamoff>(start_));
        std::string line;
        while (std::getline(in, line)) {
            if (is_command(line)) printf("      $ %s\n", line.c_str());
        }
    }

  private:
    // The library prints every command line before it runs it; tool output looks different.
    static bool is_command(const std::string &line) {
        if (line.rfind("mount ", 0) == 0 || line.rfind("umount ", 0) == 0 ||
            line.rfind("fsck.ext4 ", 0) == 0) {
            return true;
        }
        // A found tool's path: an executable file ("/dev/hd/sda2: clean" is fsck's report).
        const std::string word = line.substr(0, line.find(' '));
        return word.rfind("/", 0) == 0 && access(word.c_str(), X_OK) == 0;
    }
    uint64_t file_size() const {
        std::ifstream in(log_, std::ios::ate | std::ios::binary);
        return in ? static_cast<uint64_t>(in.tellg()) : 0;
    }
    void restore() {
        if (saved_out_ < 0) return;
        fflush(stdout);
        fflush(stderr);
        dup2(saved_out_, 1);
        dup2(saved_err_, 2);
        close(saved_out_);
        close(saved_err_);
        saved_out_ = saved_err_ = -1;
    }

    std::string log_;
    uint64_t start_ = 0;
    int saved_out_ = -1;
    int saved_err_ = -1;
};

// Runs one library step with its output in the log, then prints the step's result line.
template <typename Step>
int step(const std::string &log, const char *what, Step run) {
    printf("%s\n", what);
    fflush(stdout);
    StepOutput out(log);
    const int result = run();
    out.show_commands();
    printf("    -> %d\n", result);
    return result;
}

void print_probe() {
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
    const int result = fs_probe(list, &count);
    printf("fs_probe: %d, %d disk(s):", result, count);
    for (int i = 0; i < count; i++) printf(" %s", list[i]);
    printf("\n");
}

void print_partitions(const char *dev) {
    printf("partitions of %s:\n", dev);
    const char *roles[kPartitions] = {"system", "index", "data"};
    for (int n = 1; n <= kPartitions; n++) {
        char node[RECSTORE_PATH_LEN];
        snprintf(node, sizeof node, "%s%d", dev, n);
        const int fd = open(node, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            printf("    %s  (missing)\n", node);
            continue;
        }
        const int64_t bytes = blockdev_size(fs_diskid(dev), fd);
        close(fd);
        printf("    %s  %-6s %12s  (%lld bytes)\n", node, roles[n - 1],
               human_size(static_cast<uint64_t>(bytes)).c_str(), static_cast<long long>(bytes));
    }
}

void print_check(const char *call, const char *arg, int value) {
    char label[RECSTORE_PATH_LEN];
    snprintf(label, sizeof label, "%s(%s)", call, arg);
    printf("    %-36s = %d\n", label, value);
}

void print_mount_checks(const char *dev, const char *mnt) {
    printf("mount checks:\n");
    print_check("fs_ismounted", dev, fs_ismounted(dev));
    print_check("is_img_mounted", "", is_img_mounted());
    print_check("is_img_mounted_on_hd", dev, is_img_mounted_on_hd(dev));
    print_check("is_running_on_hd", dev, is_running_on_hd(dev));
    print_check("find_mount_point", mnt, find_mount_point(mnt, nullptr));
    print_check("find_mount_point", "/mnt/img", find_mount_point("/mnt/img", nullptr));
}

void print_version(int disk_id) {
    const char *version = fs_version(disk_id);
    if (version[0] == '\0') {
        printf("fs_version(%d) = \"\" (no format magic yet: the index layer writes it)\n", disk_id);
    } else {
        printf("fs_version(%d) = \"%s\"\n", disk_id, version);
    }
}

// Brings the demo disk up and down; false when a step failed.
bool demo_disk(rig::Disk &disk, const std::string &log) {
    const char *dev = disk.node.c_str();
    const std::string mnt = "/mnt/sd" + std::string(1, disk.letter);
    bool ok = true;

    print_probe();
    printf("formatting %s (%s)...\n", dev, human_size(disk.bytes).c_str());
    ok &= step(log, "  fs_format", [&] { return fs_format(dev); }) == 0;
    print_partitions(dev);
    printf("checking %s2...\n", dev);
    ok &= step(log, "  fs_chk", [&] { return fs_chk(dev); }) == 0;
    printf("mounting %s1 on /mnt/img and %s2 on %s...\n", dev, dev, mnt.c_str());
    ok &= step(log, "  fs_mount", [&] { return fs_mount(dev); }) == 0;
    print_mount_checks(dev, mnt.c_str());
    ok &= fs_ismounted(dev) == 1 && is_img_mounted() == 1;
    print_version(fs_diskid(dev));
    printf("unmounting %s...\n", dev);
    step(log, "  fs_umount", [&] { return fs_umount(dev); });
    print_mount_checks(dev, mnt.c_str());
    ok &= fs_ismounted(dev) == 0 && is_img_mounted() == 0;
    return ok;
}

}  // namespace

int cmd_demo(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore demo\n\n"
            "Inside the disk rig (root, loop devices, a private mount namespace) attaches a\n"
            "200 GiB sparse disk as /dev/hd/sda and brings it up through the library: probe,\n"
            "format (parted, mkfs.ext4), check (fsck.ext4), mount, the mount tests, unmount.\n"
            "Run it as:\n  %s\n",
            kRigCommand);
        return kExitOk;
    }
    if (!in_rig()) {
        printf(
            "recstore demo needs the disk rig: root, loop devices and a private mount\n"
            "namespace, so that nothing of the machine's own /dev and /mnt is touched.\n"
            "Run it from the source tree as:\n  %s\n",
            kRigCommand);
        return kExitUsage;
    }
    // The rig directory goes when the rig ends: the log is kept in /tmp for a look afterwards.
    const std::string log = kDemoLog;
    if (FILE *f = fopen(kDemoLog, "w")) fclose(f);
    rig::Disk disk;
    try {
        printf("attaching a %s sparse disk as /dev/hd/sd%c...\n",
               human_size(kDemoDiskBytes).c_str(), kDemoLetter);
        disk = rig::attach(kDemoLetter, kDemoDiskBytes);
        printf("    %s on %s (image %s)\n", disk.node.c_str(), disk.loop.c_str(),
               disk.image.c_str());
    } catch (const std::exception &e) {
        fprintf(stderr, "recstore demo: %s\n", e.what());
        return kExitFailed;
    }
    const bool ok = demo_disk(disk, log);
    printf("detaching %s...\n", disk.node.c_str());
    try {
        rig::unplug(disk);
        unlink(disk.image.c_str());
    } catch (const std::exception &e) {
        fprintf(stderr, "recstore demo: %s\n", e.what());
        return kExitFailed;
    }
    printf("%s (full library and tool output: %s)\n", ok ? "demo done" : "demo FAILED",
           log.c_str());
    return ok ? kExitOk : kExitFailed;
}

}  // namespace tool
