// SPDX-License-Identifier: MIT
// Disk rig helpers for tests: attach sparse image files as real loop-backed disks under
// /dev/hd, partition them, plug them out and back in. Only usable inside the rig that
// tests/rig/rig-run sets up (a private mount namespace with its own /dev/hd and /mnt). In tests,
// every failure throws std::runtime_error saying what went wrong; programs outside the tests (the
// tool, the benchmarks) use the try_ forms, which report the failure by return value instead.
#pragma once

#include <cstdint>
#include <string>

#include "recstore.h"

namespace rig {

// One disk of the rig: an image file in the rig directory attached to a loop device and seen by
// the library as the whole-disk node /dev/hd/sd<letter>.
struct Disk {
    char letter = 0;         // 'a' to 'h': the disk's device letter
    std::string image;       // backing image file in the rig directory
    std::string loop;        // loop device it is attached to ("" while unplugged)
    std::string node;        // whole-disk node, "/dev/hd/sd" + letter
    uint64_t bytes = 0;      // size of the image in bytes
    bool direct_io = false;  // loop device attached with direct I/O
};

// Largest number of disks a recorder has, and their letters.
constexpr int kMaxDisks = RECSTORE_MAX_DISKS;
constexpr char kFirstLetter = 'a';
constexpr char kLastLetter = 'h';

// True when RECSTORE_RIG_DIR is set and this process runs inside the rig's namespace.
bool active();

// The rig directory (RECSTORE_RIG_DIR); throws when not set.
std::string dir();

// Creates a sparse image of `bytes` named after the letter in the rig directory, attaches it to
// a free loop device with partition scanning, makes /dev/hd/sd<letter> and runs udevstart.
// The image of an unplugged disk of the same letter is replaced; a plugged one is refused.
Disk attach(char letter, uint64_t bytes, bool direct_io = false);

// Runs the rig's udevstart: partition nodes follow the kernel's partitions.
void udev();

// Plug-out: removes the disk's /dev/hd nodes, unmounts whatever of it is mounted in this
// namespace and detaches its loop device. The image stays for replug(). A loop device still held
// open (the library's descriptors on a disk pulled under it) is freed by the kernel when the last
// holder closes it; unplug waits up to 2 s for that unless wait_detached is false (replug() takes
// a free loop device, so a pulled disk can come back at once).
void unplug(Disk &disk, bool wait_detached = true);

// Plug-in again of an unplugged disk: the same image on a (possibly different) loop device,
// nodes back.
void replug(Disk &disk);

// The standard three partitions made directly with parted (MBR: "0 128M", "128M 8GB",
// "8GB 100%"), for tests that need a partitioned disk without the library; nodes follow.
void partition_simple(const Disk &disk);

// Path of partition `number` of the disk ("/dev/hd/sda" + "2").
std::string partition(const Disk &disk, int number);

// Runs a shell command and returns its standard output and error. A non-zero status throws.
std::string sh(const std::string &command);

// Runs a shell command and returns its exit status (-1 when it could not run or was killed);
// its output goes to `output` when given. Never throws.
int run(const std::string &command, std::string *output = nullptr);

// Quotes a word for the shell.
std::string quote(const std::string &word);

// The same operations reporting failure by return value: true when done; false with the reason
// in *error (when given) otherwise. They never throw.
bool try_attach(char letter, uint64_t bytes, bool direct_io, Disk *out, std::string *error);
bool try_unplug(Disk &disk, std::string *error);
bool try_partition_simple(const Disk &disk, std::string *error);

}  // namespace rig
