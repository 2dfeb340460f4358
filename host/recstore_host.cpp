// SPDX-License-Identifier: MIT
// Reference host: the calendar arithmetic, clock, process launcher and log masks that a
// recorder's application supplies to the library. UTC throughout.
#include "recstore_host.h"

#include <errno.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char **environ;

uint32_t loglevel = 0x3;
uint32_t modulemask = 0x200;
unsigned recstore_host_pip_system_calls = 0;

namespace {

time_t utc_seconds(const struct tm *t) {
    struct tm copy = *t;
    return timegm(&copy);
}

constexpr int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

bool is_leap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

}  // namespace

extern "C" {

int tm_cmp(const struct tm *a, const struct tm *b) {
    const int fa[] = {a->tm_year, a->tm_mon, a->tm_mday, a->tm_hour, a->tm_min, a->tm_sec};
    const int fb[] = {b->tm_year, b->tm_mon, b->tm_mday, b->tm_hour, b->tm_min, b->tm_sec};
    for (size_t i = 0; i < sizeof fa / sizeof fa[0]; i++) {
        if (fa[i] != fb[i]) return fa[i] < fb[i] ? -1 : 1;
    }
    return 0;
}

int tm_diff(const struct tm *a, const struct tm *b) {
    return static_cast<int>(utc_seconds(b) - utc_seconds(a));
}

void tm_offset_sec(const struct tm *base, int seconds, struct tm *out) {
    time_t t = utc_seconds(base) + seconds;
    struct tm result;
    gmtime_r(&t, &result);
    *out = result;
}

int daysofmonth(int year, int month) {
    if (month < 1 || month > 12) return 0;
    if (month == 2 && is_leap(year)) return 29;
    return kDaysInMonth[month - 1];
}

long mktime_abs(const struct tm *t) {
    return static_cast<long>(utc_seconds(t));
}

uint64_t get_tick_count(int /*unit*/) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

int pip_system(const char *command) {
    if (command == nullptr) return access("/bin/sh", X_OK) == 0 ? 1 : 0;
    char sh[] = "/bin/sh";
    char dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(command), nullptr};
    pid_t pid;
    __atomic_add_fetch(&recstore_host_pip_system_calls, 1u, __ATOMIC_RELAXED);
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // extern "C"
