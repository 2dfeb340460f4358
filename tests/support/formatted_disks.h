// SPDX-License-Identifier: MIT
// A rig test program's formatted disks: 200 GiB loop-backed disks attached and formatted once
// for the whole program, and the plug-in and plug-out orders of the recording layer.
#ifndef RECSTORE_TEST_FORMATTED_DISKS_H
#define RECSTORE_TEST_FORMATTED_DISKS_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "recstore.h"
#include "rig.h"

namespace recording_test {

// The program's disks, /dev/hd/sda first; filled by the environment below.
extern std::vector<rig::Disk> g_disks;

// Registers a test environment that attaches `count` 200 GiB disks (letters a, b, ...) and
// formats them before the first test, and plugs them out after the last.
void use_formatted_disks(int count);

inline std::string data_partition(int disk) {
    return g_disks[disk].node + "3";
}

// Waits for the cache loader of a disk to finish (it is started by fs_datazone_init).
inline bool wait_cache_loaded(int disk) {
    for (int i = 0; i < 500; i++) {
        if (cache_is_loaded(static_cast<unsigned>(disk))) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// The plug-in order, as the recording layer runs it. A fresh disk goes through fs_cleardisk
// first so that its magic file and maps are new; `age` runs while the data zone is stopped.
template <typename Age>
void bring_up(int disk, bool fresh, Age age) {
    const std::string &dev = g_disks[disk].node;
    ASSERT_EQ(fs_umount(dev.c_str()), 0);
    ASSERT_EQ(fs_chk(dev.c_str()), fs_is_readonly() ? -1 : 0);
    ASSERT_EQ(fs_mount(dev.c_str()), 0);
    ASSERT_EQ(fs_opendisk(dev.c_str()), disk);
    if (fresh) {
        ASSERT_EQ(fs_cleardisk(disk), 0);
    }
    age();
    cache_set_loaded(static_cast<unsigned>(disk), 0);
    ASSERT_EQ(fs_datazone_init(disk), 0);
    if (fs_use_cache() && !fs_is_readonly()) {
        ASSERT_TRUE(wait_cache_loaded(disk));
    }
    if (!fs_is_readonly()) {
        ASSERT_EQ(fs_chkdata(disk, 1), 0);
    }
    ASSERT_EQ(fs_adddisk(0, disk), 0);
}

inline void bring_up(int disk, bool fresh) {
    bring_up(disk, fresh, [] {});
}

inline void take_down(int disk) {
    if (g_disk[disk].devname[0] == '\0') return;
    fs_removedisk(0, disk);
    fs_datazone_exit(disk);
    fs_closedisk(disk);
    fs_umount(g_disks[disk].node.c_str());
}

}  // namespace recording_test

#endif
