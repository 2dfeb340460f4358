// SPDX-License-Identifier: MIT
// Helpers of the rig tests that run the recording layer's daemon: bounded waits for a condition
// the daemon brings about, reads of the disk table under its lock, and the current disk.
#ifndef RECSTORE_TEST_REC_DAEMON_H
#define RECSTORE_TEST_REC_DAEMON_H

#include <chrono>
#include <functional>
#include <pthread.h>
#include <thread>

#include "recstore.h"

namespace recording_test {

constexpr int kDaemonWaitMs = 20000;  // far more than the few passes any change needs
constexpr int kDaemonPollMs = 10;

// Polls pred every 10 ms for at most ms milliseconds; pred's last answer.
inline bool wait_for(const std::function<bool()> &pred, int ms = kDaemonWaitMs) {
    for (int waited = 0; waited < ms; waited += kDaemonPollMs) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(kDaemonPollMs));
    }
    return pred();
}

// Runs fn under the disk-table lock, as a host reads the disk table while the daemon runs.
template <typename Fn>
auto locked(Fn fn) -> decltype(fn()) {
    rec_lockdisk();
    auto result = fn();
    rec_unlockdisk();
    return result;
}

// The disk's current block, read under the disk's mutex: the daemon changes blocks under it and
// not under the disk-table lock (its callbacks run with no library lock held).
inline int current_block(int disk) {
    pthread_mutex_lock(&g_disk[disk].lock);
    const int block = block_get_current(disk);
    pthread_mutex_unlock(&g_disk[disk].lock);
    return block;
}

// The disk new recordings go to (the daemon changes it).
inline int current_disk() {
    return __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_SEQ_CST);
}

}  // namespace recording_test

#endif
