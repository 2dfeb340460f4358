// SPDX-License-Identifier: MIT
// Disk rig helpers for tests: loop-backed disks under /dev/hd inside the rig's private mount
// namespace (see tests/rig/rig-run). Disks are image files in the rig directory; rig-run
// detaches every loop device backed by them when the run ends, whatever the test did.

#include "rig.h"

#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace rig {
namespace {

constexpr const char *kDirEnv = "RECSTORE_RIG_DIR";
constexpr const char *kHdDir = "/dev/hd";
constexpr const char *kUdevstart = "/mnt/app/udevstart";
constexpr const char *kMountTable = "/proc/self/mounts";
constexpr const char *kRegistry = "disks";
constexpr size_t kMntBufBytes = 4096;
constexpr int kLoopTries = 4;
constexpr int kDetachPolls = 40;
constexpr useconds_t kDetachPollUs = 50000;
constexpr mode_t kNodeMode = 0660;
constexpr mode_t kImageMode = 0600;

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error("rig: " + what);
}

std::string errno_text() {
    return std::strerror(errno);
}

// A file descriptor closed when it goes out of scope.
class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// One entry of the mount table.
struct MountEntry {
    std::string source;
    std::string target;
    std::string type;
};

std::vector<MountEntry> mounts() {
    std::vector<MountEntry> out;
    FILE *table = ::setmntent(kMountTable, "r");
    if (table == nullptr) return out;
    struct mntent entry;
    std::vector<char> buf(kMntBufBytes);
    while (::getmntent_r(table, &entry, buf.data(), static_cast<int>(buf.size())) != nullptr) {
        out.push_back({entry.mnt_fsname, entry.mnt_dir, entry.mnt_type});
    }
    ::endmntent(table);
    return out;
}

// The 64-bit call: a disk image of hundreds of GiB overflows the 32-bit stat of the ARM build.
bool exists(const std::string &path) {
    struct stat64 st;
    return ::lstat64(path.c_str(), &st) == 0;
}

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// True when `name` is `prefix` followed by one or more digits (and, with `sep`, that separator
// first: "loop0" + "p" + "1").
bool is_numbered(const std::string &name, const std::string &prefix, const std::string &sep) {
    if (name.size() <= prefix.size() + sep.size()) return false;
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    if (name.compare(prefix.size(), sep.size(), sep) != 0) return false;
    const std::string digits = name.substr(prefix.size() + sep.size());
    return std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void check_letter(char letter) {
    if (letter < kFirstLetter || letter > kLastLetter) {
        fail(std::string("disk letter '") + letter + "' is not one of a to h");
    }
}

void require_active() {
    if (!active()) {
        fail("not inside the disk rig (run the test through tests/rig/rig-run as root)");
    }
}

std::string sysfs_name(const std::string &loop) {
    const size_t slash = loop.rfind('/');
    return slash == std::string::npos ? loop : loop.substr(slash + 1);
}

// The backing file of a loop device, "" when it is not attached.
std::string backing_file(const std::string &loop) {
    std::ifstream in("/sys/block/" + sysfs_name(loop) + "/loop/backing_file");
    std::string line;
    if (!in || !std::getline(in, line)) return "";
    return line;
}

// The loop device an image is attached to, "" when none.
std::string loop_of(const std::string &image) {
    DIR *d = ::opendir("/sys/block");
    if (d == nullptr) return "";
    std::string found;
    while (const struct dirent *e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (is_numbered(name, "loop", "") && backing_file(name) == image) found = "/dev/" + name;
    }
    ::closedir(d);
    return found;
}

// The rig's /dev has nodes for the first loop devices; one the kernel made later gets its node
// here, with the numbers sysfs gives.
void ensure_loop_node(const std::string &loop) {
    if (exists(loop)) return;
    std::ifstream in("/sys/block/" + sysfs_name(loop) + "/dev");
    unsigned maj = 0, min = 0;
    char colon = 0;
    if (!(in >> maj >> colon >> min) || colon != ':') fail("no sysfs entry for " + loop);
    if (::mknod(loop.c_str(), S_IFBLK | kNodeMode, makedev(maj, min)) != 0 && errno != EEXIST) {
        fail("cannot create " + loop + ": " + errno_text());
    }
}

bool kernel_has_partitions(const std::string &loop) {
    const std::string name = sysfs_name(loop);
    DIR *d = ::opendir(("/sys/block/" + name).c_str());
    if (d == nullptr) return false;
    bool found = false;
    while (const struct dirent *e = ::readdir(d)) {
        if (is_numbered(e->d_name, name, "p")) found = true;
    }
    ::closedir(d);
    return found;
}

// A disk plugged in shows up with its partitions. Kernels built without partition-table
// parsers (like some test machines') find none on their own, so the table is read here and its
// partitions are added; a disk without a table simply gets none.
void add_partitions(const std::string &loop) {
    if (kernel_has_partitions(loop)) return;
    run("partx -a " + quote(loop));
}

void attach_image(Disk &disk) {
    if (exists(disk.node)) fail(disk.node + " already exists");
    std::string loop;
    std::string last_error;
    for (int attempt = 0; attempt < kLoopTries && loop.empty(); ++attempt) {
        std::string next;
        if (run("losetup -f", &next) != 0) fail("no free loop device: " + trim(next));
        ensure_loop_node(trim(next));
        std::string out;
        const std::string cmd = std::string("losetup -f --show -P ") +
                                (disk.direct_io ? "--direct-io=on " : "") + quote(disk.image);
        if (run(cmd, &out) == 0) {
            loop = trim(out);
        } else {
            last_error = cmd + ": " + trim(out);
        }
    }
    if (loop.empty()) fail("cannot attach " + disk.image + " (" + last_error + ")");
    disk.loop = loop;
    add_partitions(loop);

    struct stat st;
    if (::stat(loop.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) {
        fail(loop + " is not a block device after attaching " + disk.image);
    }
    if (::mknod(disk.node.c_str(), S_IFBLK | kNodeMode, st.st_rdev) != 0) {
        fail("cannot create " + disk.node + ": " + errno_text());
    }

    // What rig-run's teardown reads besides the backing files of the loop devices.
    std::ofstream reg(dir() + "/" + kRegistry, std::ios::app);
    reg << disk.letter << ' ' << disk.loop << ' ' << disk.image << '\n';
    udev();
}

}  // namespace

bool active() {
    const char *rig_dir = std::getenv(kDirEnv);
    if (rig_dir == nullptr || rig_dir[0] == '\0') return false;
    struct stat st;
    if (::stat(rig_dir, &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    for (const MountEntry &m : mounts()) {
        if (m.target == kHdDir && m.type == "tmpfs") return true;
    }
    return false;
}

std::string dir() {
    const char *rig_dir = std::getenv(kDirEnv);
    if (rig_dir == nullptr || rig_dir[0] == '\0') fail(std::string(kDirEnv) + " is not set");
    return rig_dir;
}

std::string quote(const std::string &word) {
    std::string out = "'";
    for (char c : word) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

int run(const std::string &command, std::string *output) {
    const std::string full = "(" + command + ") 2>&1";
    FILE *pipe = ::popen(full.c_str(), "r");
    if (pipe == nullptr) return -1;
    std::string text;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) text.append(buf, n);
    const int status = ::pclose(pipe);
    if (output != nullptr) *output = text;
    if (status == -1 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

std::string sh(const std::string &command) {
    std::string out;
    const int status = run(command, &out);
    if (status != 0) {
        fail("command failed with status " + std::to_string(status) + ": " + command + "\n" + out);
    }
    return out;
}

Disk attach(char letter, uint64_t bytes, bool direct_io) {
    check_letter(letter);
    require_active();
    if (bytes == 0 || bytes > static_cast<uint64_t>(INT64_MAX)) {
        fail("image size " + std::to_string(bytes) + " is out of range");
    }
    Disk disk;
    disk.letter = letter;
    disk.bytes = bytes;
    disk.direct_io = direct_io;
    disk.image = dir() + "/sd" + letter + ".img";
    disk.node = std::string(kHdDir) + "/sd" + letter;
    // The image of a disk of this letter that was unplugged before is replaced by a blank one.
    const std::string holder = loop_of(disk.image);
    if (!holder.empty()) fail(disk.image + " is still attached to " + holder);
    if (::unlink(disk.image.c_str()) != 0 && errno != ENOENT) {
        fail("cannot remove the old " + disk.image + ": " + errno_text());
    }
    {
        Fd fd(::open(disk.image.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kImageMode));
        if (fd.get() < 0) fail("cannot create " + disk.image + ": " + errno_text());
        if (::ftruncate64(fd.get(), static_cast<off64_t>(bytes)) != 0) {
            fail("cannot size " + disk.image + " to " + std::to_string(bytes) +
                 " bytes: " + errno_text());
        }
    }
    attach_image(disk);
    return disk;
}

void udev() {
    require_active();
    sh(kUdevstart);
}

void unplug(Disk &disk, bool wait_detached) {
    require_active();
    if (disk.loop.empty()) fail(disk.node + " is not plugged in");
    const std::string hd_prefix = std::string(kHdDir) + "/sd" + disk.letter;

    // Whatever of the disk is mounted here, innermost mount first.
    std::vector<MountEntry> table = mounts();
    for (auto it = table.rbegin(); it != table.rend(); ++it) {
        const std::string &src = it->source;
        const bool ours = src == disk.node || is_numbered(src, hd_prefix, "") || src == disk.loop ||
                          is_numbered(src, disk.loop, "p");
        if (!ours) continue;
        if (::umount2(it->target.c_str(), 0) != 0 &&
            ::umount2(it->target.c_str(), MNT_DETACH) != 0) {
            fail("cannot unmount " + it->target + ": " + errno_text());
        }
    }

    // The nodes go, as when the recorder's udev sees the disk leave.
    DIR *hd = ::opendir(kHdDir);
    if (hd == nullptr) fail(std::string("cannot open ") + kHdDir + ": " + errno_text());
    std::vector<std::string> doomed;
    const std::string base = std::string("sd") + disk.letter;
    while (const struct dirent *e = ::readdir(hd)) {
        const std::string name = e->d_name;
        if (name == base || is_numbered(name, base, "")) doomed.push_back(name);
    }
    ::closedir(hd);
    for (const std::string &name : doomed) {
        const std::string path = std::string(kHdDir) + "/" + name;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            fail("cannot remove " + path + ": " + errno_text());
        }
    }

    // A loop device still held open (a descriptor on a partition) is released by the kernel
    // when the last holder closes it.
    sh("losetup -d " + quote(disk.loop));
    for (int i = 0; wait_detached && i < kDetachPolls && !backing_file(disk.loop).empty(); ++i) {
        ::usleep(kDetachPollUs);
    }
    disk.loop.clear();
}

void replug(Disk &disk) {
    require_active();
    check_letter(disk.letter);
    if (!disk.loop.empty()) fail(disk.node + " is still plugged in (" + disk.loop + ")");
    if (!exists(disk.image)) fail("image " + disk.image + " is gone");
    attach_image(disk);
}

void partition_simple(const Disk &disk) {
    require_active();
    const std::string parted = "parted -s " + quote(disk.node) + " ";
    sh(parted + "mklabel msdos");
    sh(parted + "mkpart primary 0 128M");
    sh(parted + "mkpart primary 128M 8GB");
    sh(parted + "mkpart primary 8GB 100%");
    udev();
}

std::string partition(const Disk &disk, int number) {
    return disk.node + std::to_string(number);
}

// ---- the forms that report by return value ---------------------------------------------------

namespace {

// Runs op; false with its failure's text in *error when it throws.
template <typename Op>
bool reported(Op op, std::string *error) {
    try {
        op();
        return true;
    } catch (const std::exception &e) {
        if (error != nullptr) *error = e.what();
        return false;
    }
}

}  // namespace

bool try_attach(char letter, uint64_t bytes, bool direct_io, Disk *out, std::string *error) {
    return reported([&] { *out = attach(letter, bytes, direct_io); }, error);
}

bool try_unplug(Disk &disk, std::string *error) {
    return reported([&] { unplug(disk); }, error);
}

bool try_partition_simple(const Disk &disk, std::string *error) {
    return reported([&] { partition_simple(disk); }, error);
}

}  // namespace rig
