// recstore: command-line tool over librecstore.so for recorder firmware engineers. Each
// subcommand drives the library the way a recorder's application does, or reads a disk without
// changing it (inspect, check). Disks are the recorder's whole-disk nodes /dev/hd/sda ... sdh;
// on a development machine run the tool inside the disk rig (tests/rig/rig-run).
#include <stdio.h>
#include <string.h>

#include "cli.h"
#include "commands.h"

namespace {

// One subcommand: its name, a one-line summary and what runs it.
struct Command {
    const char *name;
    const char *summary;
    int (*run)(int argc, char **argv);
};

int cmd_help(int argc, char **argv);

constexpr Command kCommands[] = {
    {"format", "partition and format a disk, give it fresh maps (erases it)", tool::cmd_format},
    {"up", "bring disks up in the plug-in order (check, mount, maps)", tool::cmd_up},
    {"down", "take disks down in the plug-out order", tool::cmd_down},
    {"record", "record a synthetic camera stream on the disks", tool::cmd_record},
    {"play", "play a recording back, verify the tool's synthetic payload", tool::cmd_play},
    {"inspect", "show a disk or disk image: geometry, block map, recordings (read-only)",
     tool::cmd_inspect},
    {"check", "check a disk's maps, index files, links and cache against each other",
     tool::cmd_check},
    {"find", "search the recordings", tool::cmd_find},
    {"calendar", "print the days of a month that hold recordings", tool::cmd_calendar},
    {"demo", "the whole recorder in the disk rig: two disks, 16 channels, play-back, rotation",
     tool::cmd_demo},
    {"help", "show this help", cmd_help},
};

void usage(FILE *out) {
    fprintf(out, "usage: recstore COMMAND [ARGS]\n\ncommands:\n");
    for (const Command &c : kCommands) fprintf(out, "  %-9s %s\n", c.name, c.summary);
    fprintf(
        out,
        "\n\"recstore COMMAND --help\" tells more about one command. Exit status: 0 ok,\n"
        "1 failure, 2 usage (check: 0 clean, 1 repaired, 4 left, 8 operational error,\n"
        "16 usage). Options take \"--opt VALUE\" or \"--opt=VALUE\"; \"--\" ends them. The\n"
        "library's messages go to standard error, the tool's output to standard output.\n"
        "Commands that touch disks need root; on a development machine\n"
        "run them inside the disk rig: sudo tests/rig/rig-run build/native/tools/recstore ...\n");
}

int cmd_help(int, char **) {
    usage(stdout);
    return tool::kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    tool::prepare_process();
    if (argc < 2) {
        usage(stderr);
        return tool::kExitUsage;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) return cmd_help(0, nullptr);
    if (strcmp(argv[1], "--version") == 0) {
        printf("%s\n", tool::version_line().c_str());
        return tool::kExitOk;
    }
    for (const Command &c : kCommands) {
        if (strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "recstore: unknown command \"%s\"\n\n", argv[1]);
    usage(stderr);
    return tool::kExitUsage;
}
