// SPDX-License-Identifier: MIT
// The library as a recorder runs it, for the commands that record, play or bring disks up:
// rec_init, the plug-in order per disk, the daemon, and everything undone in reverse at the end.
#ifndef RECSTORE_TOOL_SESSION_H
#define RECSTORE_TOOL_SESSION_H

#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

namespace tool {

constexpr int kCacheInodes = 65536;
constexpr unsigned kCacheMibPerDisk = 16;

class Session {
  public:
    Session() = default;
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // rec_init with the cache. False with *error.
    bool start(std::string *error);
    // The plug-in order on one disk: fs_umount, fs_chk, fs_mount, fs_opendisk, (a new disk: one
    // fs_cleardisk), fs_datazone_init, the cache load, fs_chkdata, fs_adddisk(0). Each step is
    // printed when verbose. `age`, when given, runs while the data zone is still stopped (the
    // demo ages a disk there). False with *error naming the step that failed.
    bool bring_up(const std::string &dev, bool verbose, std::string *error,
                  const std::function<void()> &age = nullptr);
    // Where the steps are printed (standard output by default).
    void set_output(FILE *out) { out_ = out; }
    // The plug-out order: fs_removedisk, fs_datazone_exit, fs_closedisk, fs_umount.
    void take_down(int disk, bool verbose);
    // Starts the daemon and waits until it has chosen a disk with a current block.
    bool start_daemon(std::string *error);
    // Closes every recording handle, stops the daemon, takes every disk down, rec_exit.
    void finish();
    const std::vector<int> &disks() const { return disks_; }

  private:
    void say(bool verbose, const char *step, const std::string &dev, int result) const;

    FILE *out_ = stdout;
    bool started_ = false;
    bool daemon_ = false;
    std::vector<int> disks_;
};

struct Args;

// The disks a command brings up: --disk a,b or every disk node present. False with *error.
bool disks_of(const Args &args, std::vector<std::string> *out, std::string *error);
// True when every disk node exists; nothing is started (no cache mount) for a missing disk.
bool disks_present(const std::vector<std::string> &disks, std::string *error);
// The message and exit status of a command run without root.
int need_root(const char *cmd);
// rec_init and the plug-in order on every disk.
bool bring_up_all(Session &s, const std::vector<std::string> &disks, std::string *error);

// The disk the recording layer records to now (-1 when none).
int current_disk();
// The disk's current block (-1 when none), read under the disk's mutex: the daemon changes blocks
// under it, with no disk-table lock held.
int current_block(int disk);

}  // namespace tool

#endif
