// SPDX-License-Identifier: MIT
// The library as a recorder runs it.
#include "session.h"

#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "recstore.h"

namespace tool {

namespace {

constexpr int kWaitSteps = 1000;  // 10 s in steps of 10 ms
constexpr auto kWaitStep = std::chrono::milliseconds(10);

template <typename Ready>
bool wait_for(Ready ready) {
    for (int i = 0; i < kWaitSteps; i++) {
        if (ready()) return true;
        std::this_thread::sleep_for(kWaitStep);
    }
    return ready();
}

}  // namespace

void Session::say(bool verbose, const char *step, const std::string &dev, int result) const {
    if (!verbose) return;
    fprintf(out_, "  %-18s %-12s -> %d\n", step, dev.c_str(), result);
    fflush(out_);
}

int current_disk() {
    return __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_SEQ_CST);
}

int current_block(int disk) {
    if (disk < 0 || disk >= RECSTORE_MAX_DISKS) return -1;
    pthread_mutex_lock(&g_disk[disk].lock);
    const int block = block_get_current(disk);
    pthread_mutex_unlock(&g_disk[disk].lock);
    return block;
}

Session::~Session() {
    finish();
}

bool Session::start(std::string *error) {
    if (rec_init(kCacheInodes, kCacheMibPerDisk, 0) != 0) {
        *error = "rec_init failed: the cache tmpfs on /mnt/cache could not be mounted";
        return false;
    }
    started_ = true;
    return true;
}

bool Session::bring_up(const std::string &dev, bool verbose, std::string *error,
                       const std::function<void()> &age) {
    int disk = -1;
    if (!disk_node(dev, &disk)) {
        *error = "\"" + dev + "\" is not a disk node (/dev/hd/sda ... /dev/hd/sdh)";
        return false;
    }
    if (access(dev.c_str(), F_OK) != 0) {
        *error = dev + " does not exist: is the disk plugged in?";
        return false;
    }
    say(verbose, "fs_umount", dev, fs_umount(dev.c_str()));
    say(verbose, "fs_chk", dev, fs_chk(dev.c_str()));
    const int mounted = fs_mount(dev.c_str());
    say(verbose, "fs_mount", dev, mounted);
    if (mounted != 0) {
        *error =
            "fs_mount " + dev + " failed: is the disk formatted (recstore format " + dev + ")?";
        return false;
    }
    const int opened = fs_opendisk(dev.c_str());
    say(verbose, "fs_opendisk", dev, opened);
    if (opened != disk) {
        *error = "fs_opendisk " + dev + " failed";
        fs_umount(dev.c_str());
        return false;
    }
    disks_.push_back(disk);
    if (index_check_magic(disk) != 0) {
        // A disk without its magic file is new: it is erased once and gets fresh maps.
        const int cleared = fs_cleardisk(disk);
        say(verbose, "fs_cleardisk (new)", dev, cleared);
        if (cleared != 0) {
            *error = "fs_cleardisk " + dev + " failed";
            return false;
        }
    }
    if (age) age();
    cache_set_loaded(static_cast<unsigned>(disk), 0);
    const int inited = fs_datazone_init(disk);
    say(verbose, "fs_datazone_init", dev, inited);
    if (inited != 0) {
        *error = "fs_datazone_init " + dev + " failed: the data partition's maps cannot be read";
        return false;
    }
    if (fs_use_cache()) wait_for([&] { return cache_is_loaded(static_cast<unsigned>(disk)) != 0; });
    say(verbose, "fs_chkdata", dev, fs_chkdata(disk, 1));
    const int added = fs_adddisk(0, disk);
    say(verbose, "fs_adddisk(0)", dev, added);
    if (added != 0) {
        *error = "fs_adddisk " + dev + " failed";
        return false;
    }
    return true;
}

void Session::take_down(int disk, bool verbose) {
    if (g_disk[disk].devname[0] == '\0') return;
    const std::string dev = g_disk[disk].devname;
    say(verbose, "fs_removedisk(0)", dev, fs_removedisk(0, disk));
    fs_datazone_exit(disk);
    say(verbose, "fs_datazone_exit", dev, 0);
    fs_closedisk(disk);
    say(verbose, "fs_closedisk", dev, 0);
    say(verbose, "fs_umount", dev, fs_umount(dev.c_str()));
    disks_.erase(std::remove(disks_.begin(), disks_.end(), disk), disks_.end());
}

bool Session::start_daemon(std::string *error) {
    if (rec_bringup_deamon() != 0) {
        *error = "the daemon thread could not be started";
        return false;
    }
    daemon_ = true;
    const bool ready = wait_for([] {
        rec_lockdisk();
        const int d = current_disk();
        const bool ready = d >= 0 && fs_isblockfull(d) == 0;
        rec_unlockdisk();
        return ready;
    });
    if (!ready) *error = "the daemon found no disk with room to record (are all disks full?)";
    return ready;
}

void Session::finish() {
    if (daemon_) rec_shutdown_deamon();
    daemon_ = false;
    if (!started_) return;
    for (int h = 0; h < RECSTORE_REC_SLOTS; h++) {
        if (g_recctx.streams[h].handle >= 0) rec_close(h, nullptr);
    }
    const std::vector<int> disks = disks_;
    for (auto it = disks.rbegin(); it != disks.rend(); ++it) take_down(*it, false);
    rec_exit();
    started_ = false;
}

// The disks to bring up: --disk a,b or every disk node present.
bool disks_of(const Args &args, std::vector<std::string> *out, std::string *error) {
    if (args.values.count("--disk")) {
        for (const std::string &d : split(args.value("--disk"))) {
            int id = -1;
            if (!disk_node(d, &id)) {
                *error = "\"" + d + "\" is not a disk node: use /dev/hd/sda ... /dev/hd/sdh";
                return false;
            }
            out->push_back(d);
        }
        return true;
    }
    char list[RECSTORE_PROBE_MAX][RECSTORE_PATH_LEN];
    int count = 0;
    fs_probe(list, &count);
    for (int i = 0; i < count; i++) out->push_back(list[i]);
    if (out->empty()) *error = "no disk under /dev/hd: plug one in or name it with --disk";
    return !out->empty();
}

// Nothing is started (no cache mount) for a disk that is not there.
bool disks_present(const std::vector<std::string> &disks, std::string *error) {
    for (const std::string &d : disks) {
        if (access(d.c_str(), F_OK) != 0) {
            *error = d +
                     " does not exist: is the disk plugged in? On a development machine run "
                     "the tool inside the disk rig";
            return false;
        }
    }
    return true;
}

int need_root(const char *cmd) {
    return failure(cmd,
                   "needs root (it mounts the disks and writes their maps); on a development "
                   "machine run it inside the disk rig: sudo tests/rig/rig-run "
                   "build/native/tools/recstore ...");
}

bool bring_up_all(Session &s, const std::vector<std::string> &disks, std::string *error) {
    if (!s.start(error)) return false;
    for (const std::string &d : disks) {
        if (!s.bring_up(d, false, error)) return false;
    }
    return true;
}

}  // namespace tool
