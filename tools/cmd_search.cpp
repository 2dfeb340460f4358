// SPDX-License-Identifier: MIT
// recstore find, calendar: the search over all disks and the month calendar, from the shell. Both
// bring the disks up (rec_init and the plug-in order), ask, print and take the disks down.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "report.h"
#include "search.h"
#include "session.h"

namespace tool {

int cmd_find(int argc, char **argv) {
    constexpr const char *kCmd = "find";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore find [--disk DEV[,DEV...]] [--channels LIST] [--from TIME] [--to "
            "TIME] "
            "[--type N] [--json]\n\n"
            "Searches the recordings of every disk that is up and prints one line per recording:\n"
            "channel, type, start, end, duration, size, disk (--json: a JSON array). LIST is\n"
            "e.g. 3, 0-7 or 1,4,9 (default all); TIME is \"YYYY-MM-DD HH:MM:SS\" (UTC); the\n"
            "type defaults to 0. Without --disk every disk under /dev/hd is brought up.\n"
            "The search goes through the tmpfs cache, whose channel test covers channels 0-31:\n"
            "recordings of channels 32-63 are not found this way (a recorder with more than 32\n"
            "channels searches without the cache).\n\n"
            "exit status: 0 searched, 1 failure, 2 usage.\n");
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {"--disk", "--channels", "--from", "--to", "--type"}, {"--json"},
                    &args, &error)) {
        return usage_error(kCmd, error);
    }
    uint64_t mask = ~0ull;
    if (args.values.count("--channels") && !channel_mask_of(args.value("--channels"), &mask)) {
        return usage_error(kCmd, "--channels takes channels 0-63: 3, 0-7 or 1,4,9");
    }
    struct tm from, to;
    if (!parse_time(args.value("--from", "1970-01-01 00:00:00"), &from) ||
        !parse_time(args.value("--to", "2099-12-31 23:59:59"), &to)) {
        return usage_error(kCmd, "times are \"YYYY-MM-DD HH:MM:SS\" (UTC)");
    }
    long type = 0;
    if (args.values.count("--type") && !parse_long(args.value("--type"), 0, 99, &type)) {
        return usage_error(kCmd, "--type takes a record type 0-99");
    }
    std::vector<std::string> disks;
    if (!disks_of(args, &disks, &error)) return usage_error(kCmd, error);
    if (!disks_present(disks, &error)) return failure(kCmd, error);
    if (!is_root()) return need_root(kCmd);
    Session s;
    if (!bring_up_all(s, disks, &error)) return failure(kCmd, error);
    std::vector<FoundRecording> found;
    if (!search_recordings(from, to, mask, static_cast<int>(type), &found, &error)) {
        return failure(kCmd, error);
    }
    const std::string text =
        std::find(args.flags.begin(), args.flags.end(), "--json") != args.flags.end()
            ? format_find_json(found)
            : format_find_table(found);
    fputs(text.c_str(), stdout);
    return kExitOk;
}

int cmd_calendar(int argc, char **argv) {
    constexpr const char *kCmd = "calendar";
    if (wants_help(argc, argv)) {
        printf(
            "usage: recstore calendar YEAR MONTH [--disk DEV[,DEV...]] [--channels LIST]\n\n"
            "Prints the month as a grid, Monday first, with the days that hold recordings of the\n"
            "channels marked '*' (LIST e.g. 3, 0-7 or 1,4,9; default all).\n\n"
            "exit status: 0 printed, 1 failure, 2 usage.\n");
        return kExitOk;
    }
    Args args;
    std::string error;
    if (!parse_args(argc, argv, {"--disk", "--channels"}, {}, &args, &error)) {
        return usage_error(kCmd, error);
    }
    long year = 0, month = 0;
    if (args.words.size() != 2 || !parse_long(args.words[0], 1970, 2099, &year) ||
        !parse_long(args.words[1], 1, 12, &month)) {
        return usage_error(kCmd, "give YEAR (1970-2099) and MONTH (1-12)");
    }
    uint64_t mask = ~0ull;
    if (args.values.count("--channels") && !channel_mask_of(args.value("--channels"), &mask)) {
        return usage_error(kCmd, "--channels takes channels 0-63: 3, 0-7 or 1,4,9");
    }
    std::vector<std::string> disks;
    if (!disks_of(args, &disks, &error)) return usage_error(kCmd, error);
    if (!disks_present(disks, &error)) return failure(kCmd, error);
    if (!is_root()) return need_root(kCmd);
    Session s;
    if (!bring_up_all(s, disks, &error)) return failure(kCmd, error);
    unsigned char days[kCalendarDays] = {};
    if (!month_calendar(mask, static_cast<int>(year), static_cast<int>(month), days, &error)) {
        return failure(kCmd, error);
    }
    fputs(format_calendar(static_cast<int>(year), static_cast<int>(month), days).c_str(), stdout);
    return kExitOk;
}

}  // namespace tool
