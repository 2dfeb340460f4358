// recstore format, up, down: disk preparation and the plug-in and plug-out orders on real
// devices.
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "cli.h"
#include "commands.h"
#include "recstore.h"
#include "session.h"

namespace tool {

namespace {

// Checks the disk words of up/down/format; usage status or -1 when fine.
int check_disks(const char *cmd, const Args &args) {
    if (args.words.empty()) return usage_error(cmd, "give at least one disk, e.g. /dev/hd/sda");
    for (const std::string &dev : args.words) {
        int disk = -1;
        if (!disk_node(dev, &disk)) {
            return usage_error(
                cmd, "\"" + dev + "\" is not a disk node: use /dev/hd/sda ... /dev/hd/sdh");
        }
    }
    // Nothing is started (no cache mount, no command line) for a disk that is not there.
    for (const std::string &dev : args.words) {
        if (access(dev.c_str(), F_OK) != 0) {
            return failure(cmd, dev +
                                    " does not exist: is the disk plugged in? On a development "
                                    "machine run the tool inside the disk rig");
        }
    }
    if (!is_root()) {
        return failure(cmd,
                       "needs root (it partitions, checks and mounts the disk); on a "
                       "development machine run it inside the disk rig: sudo "
                       "tests/rig/rig-run build/native/tools/recstore ...");
    }
    return -1;
}

}  // namespace

int cmd_format(int argc, char **argv) {
    constexpr const char *kCmd = "format";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore format DEV --yes\n\n"
            "Prepares a disk for recording and ERASES it: partitions it (MBR up to 512 GiB, GPT\n"
            "above: system, index, raw data), builds the file systems (fs_format), then brings it\n"
            "up once to give it a magic file and fresh maps (fs_cleardisk) and takes it down.\n"
            "--yes is required: it confirms that everything on DEV may be lost.\n\n"
            "exit status: 0 formatted, 1 a step failed, 2 usage.\n");
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {}, {"--yes"}, &args, &error)) return usage_error(kCmd, error);
    if (args.words.size() != 1) return usage_error(kCmd, "give exactly one disk");
    if (!args.has("--yes")) {
        return usage_error(kCmd, "formatting erases " + args.words[0] + ": add --yes to confirm");
    }
    const int bad = check_disks(kCmd, args);
    if (bad >= 0) return bad;
    const std::string dev = args.words[0];
    printf("formatting %s...\n", dev.c_str());
    fflush(stdout);
    ProgressTicker ticker(stdout, "formatting " + dev);
    const int formatted = fs_format(dev.c_str());
    ticker.stop();
    if (formatted != 0) {
        return failure(kCmd, "fs_format " + dev +
                                 " failed: the device cannot be opened or parted/mkfs.ext4 is "
                                 "missing (see the messages above)");
    }
    Session s;
    if (!s.start(&error)) return failure(kCmd, error);
    int disk = -1;
    disk_node(dev, &disk);
    if (fs_mount(dev.c_str()) != 0 || fs_opendisk(dev.c_str()) != disk || fs_cleardisk(disk) != 0) {
        fs_closedisk(disk);
        fs_umount(dev.c_str());
        return failure(kCmd, "the new disk's magic file and maps could not be written");
    }
    // The magic file is read back: the version printed is the one on the disk.
    const std::string version = index_check_magic(disk) == 0 ? fs_version(disk) : "";
    if (version.empty()) {
        fs_closedisk(disk);
        fs_umount(dev.c_str());
        return failure(kCmd, "the new disk's magic file cannot be read back");
    }
    fs_closedisk(disk);
    fs_umount(dev.c_str());
    printf("%s formatted: format %s, magic file and fresh maps written\n", dev.c_str(),
           version.c_str());
    return kExitOk;
}

namespace {

const char *kUpDownNote =
    "Each recstore invocation is its own process: the library's disk table lives only as long as\n"
    "the process, while the mounts it leaves stay in the mount namespace. \"up\" therefore leaves\n"
    "the index partition mounted and the maps checked and written; \"down\" unmounts. Use them in\n"
    "a script inside one rig namespace, e.g.:\n"
    "  sudo tests/rig/rig-run sh -c 'recstore up /dev/hd/sda && recstore inspect /dev/hd/sda'\n";

}  // namespace

int cmd_up(int argc, char **argv) {
    constexpr const char *kCmd = "up";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore up DEV...\n\n"
            "Brings disks up in the plug-in order and prints each step's result: fs_umount,\n"
            "fs_chk, fs_mount, fs_opendisk, (a new disk without magic file: fs_cleardisk once),\n"
            "fs_datazone_init, the cache load, fs_chkdata (with repair), fs_adddisk(0).\n\n%s\n"
            "exit status: 0 all up, 1 a step failed, 2 usage.\n",
            kUpDownNote);
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {}, {}, &args, &error)) return usage_error(kCmd, error);
    const int bad = check_disks(kCmd, args);
    if (bad >= 0) return bad;
    Session s;
    if (!s.start(&error)) return failure(kCmd, error);
    for (const std::string &dev : args.words) {
        printf("bringing %s up:\n", dev.c_str());
        if (!s.bring_up(dev, true, &error)) return failure(kCmd, error);
        int disk = -1;
        disk_node(dev, &disk);
        printf("%s is up (format %s); the index partition stays mounted\n", dev.c_str(),
               fs_version(disk));
    }
    // The process ends here: the disk table goes with it, the mounts stay.
    for (int d = 0; d < RECSTORE_MAX_DISKS; d++) {
        if (g_disk[d].devname[0] == '\0') continue;
        fs_removedisk(0, d);
        fs_datazone_exit(d);
        fs_closedisk(d);
    }
    rec_exit();
    return kExitOk;
}

int cmd_down(int argc, char **argv) {
    constexpr const char *kCmd = "down";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore down DEV...\n\n"
            "Takes disks down in the plug-out order: fs_removedisk, fs_datazone_exit,\n"
            "fs_closedisk, fs_umount (the index partition, and /mnt/img when it is this "
            "disk's).\n\n"
            "%s\nexit status: 0 all down, 1 a step failed, 2 usage.\n",
            kUpDownNote);
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {}, {}, &args, &error)) return usage_error(kCmd, error);
    const int bad = check_disks(kCmd, args);
    if (bad >= 0) return bad;
    int failed = 0;
    for (const std::string &dev : args.words) {
        printf("taking %s down:\n", dev.c_str());
        const int r = fs_umount(dev.c_str());
        printf("  %-18s %-12s -> %d\n", "fs_umount", dev.c_str(), r);
        if (fs_ismounted(dev.c_str()) == 1) {
            fprintf(stderr, "recstore down: %s is still mounted (busy?)\n", dev.c_str());
            failed++;
        }
    }
    return failed == 0 ? kExitOk : kExitFailed;
}

}  // namespace tool
