// Shared pieces of the recstore tool's subcommands.
#include "cli.h"

#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>

#include "recstore.h"
#include "rig.h"

namespace tool {

bool Args::has(const std::string &flag) const {
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

std::string Args::value(const std::string &name, const std::string &fallback) const {
    const auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
}

bool parse_args(int argc, char **argv, const std::vector<std::string> &value_options,
                const std::vector<std::string> &flags, Args *out, std::string *error) {
    // Option i is returned as kFirstOption + i (above every character code); the names keep the
    // dashes, the table takes them without.
    constexpr int kFirstOption = 256;
    std::vector<std::string> names;
    std::vector<struct option> table;
    for (const std::string &v : value_options) names.push_back(v);
    for (const std::string &f : flags) names.push_back(f);
    for (size_t i = 0; i < names.size(); i++) {
        const bool takes_value = i < value_options.size();
        table.push_back({names[i].c_str() + 2, takes_value ? required_argument : no_argument,
                         nullptr, kFirstOption + static_cast<int>(i)});
    }
    table.push_back({nullptr, 0, nullptr, 0});
    auto option_name = [&](int code) -> const std::string * {
        const int i = code - kFirstOption;
        return i >= 0 && static_cast<size_t>(i) < names.size() ? &names[static_cast<size_t>(i)]
                                                               : nullptr;
    };
    // getopt_long keeps its position in globals: start from scratch on every call. "-" hands
    // the words back in order (whatever POSIXLY_CORRECT says), ":" leaves the errors to us.
    optind = 0;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "-:", table.data(), nullptr)) != -1) {
        const std::string word = argv[optind - 1] == nullptr ? "" : argv[optind - 1];
        if (c == 1) {
            out->words.push_back(optarg);
        } else if (const std::string *name = option_name(c)) {
            if (static_cast<size_t>(c - kFirstOption) < value_options.size()) {
                out->values[*name] = optarg;
            } else {
                out->flags.push_back(*name);
            }
        } else if (c == ':') {
            const std::string *name = option_name(optopt);
            *error = "option " + (name ? *name : word) + " needs a value";
            return false;
        } else if (const std::string *flag = option_name(optopt)) {
            *error = "option " + *flag + " takes no value";
            return false;
        } else if (optopt != 0) {
            *error = std::string("unknown option \"-") + static_cast<char>(optopt) + "\"";
            return false;
        } else {
            *error = "unknown option \"" + word.substr(0, word.find('=')) + "\"";
            return false;
        }
    }
    for (int i = optind; i < argc; i++) out->words.push_back(argv[i]);
    return true;
}

std::string version_line() {
    return std::string("recstore ") + recstore_version();
}

bool wants_help(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--") == 0) return false;  // words only from here on
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return true;
    }
    return false;
}

int usage_error(const char *command, const std::string &message) {
    fprintf(stderr, "recstore %s: %s\n(\"recstore %s --help\" shows the usage)\n", command,
            message.c_str(), command);
    return kExitUsage;
}

int failure(const char *command, const std::string &message) {
    fflush(stdout);
    fprintf(stderr, "recstore %s: %s\n", command, message.c_str());
    return kExitFailed;
}

bool parse_long(const std::string &text, long min, long max, long *out) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    const long v = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max) return false;
    *out = v;
    return true;
}

bool parse_time(const std::string &text, struct tm *out) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    char sep = 0;
    int used = 0;
    const int n =
        sscanf(text.c_str(), "%4d-%2d-%2d%c%2d:%2d:%2d%n", &y, &mo, &d, &sep, &h, &mi, &s, &used);
    if (n == 7 && static_cast<size_t>(used) != text.size()) return false;
    if (n != 7) {
        s = 0;
        used = 0;
        if (sscanf(text.c_str(), "%4d-%2d-%2d%c%2d:%2d%n", &y, &mo, &d, &sep, &h, &mi, &used) !=
                6 ||
            static_cast<size_t>(used) != text.size()) {
            return false;
        }
    }
    if ((sep != ' ' && sep != 'T') || y < 1970 || y > 2099 || mo < 1 || mo > 12 || d < 1 ||
        d > 31 || h > 23 || mi > 59 || s > 59 || h < 0 || mi < 0 || s < 0) {
        return false;
    }
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_sec = s;
    const time_t secs = timegm(&t);
    gmtime_r(&secs, out);
    return out->tm_mday == d;  // 31 April and the like are refused
}

std::string format_tm(const struct tm &t) {
    char text[80];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
             t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

std::string format_epoch(time_t seconds) {
    struct tm t;
    gmtime_r(&seconds, &t);
    return format_tm(t);
}

std::string format_duration(long seconds) {
    char text[32];
    if (seconds < 0) seconds = 0;
    if (seconds >= 3600) {
        snprintf(text, sizeof text, "%ldh%02ldm%02lds", seconds / 3600, seconds / 60 % 60,
                 seconds % 60);
    } else if (seconds >= 60) {
        snprintf(text, sizeof text, "%ldm%02lds", seconds / 60, seconds % 60);
    } else {
        snprintf(text, sizeof text, "%lds", seconds);
    }
    return text;
}

std::string human_size(uint64_t bytes) {
    char text[32];
    if (bytes >= kGiB) {
        snprintf(text, sizeof text, "%.1f GiB", static_cast<double>(bytes) / kGiB);
    } else if (bytes >= kMiB) {
        snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / kMiB);
    } else if (bytes >= 1024) {
        snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(bytes) / 1024);
    } else {
        snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    }
    return text;
}

bool disk_node(const std::string &dev, int *disk) {
    static const std::string prefix = "/dev/hd/sd";
    if (dev.size() != prefix.size() + 1 || dev.compare(0, prefix.size(), prefix) != 0) return false;
    const char letter = dev.back();
    if (letter < 'a' || letter > 'h') return false;
    *disk = letter - 'a';
    return true;
}

bool is_root() {
    return geteuid() == 0;
}

bool in_rig() {
    const char *dir = getenv("RECSTORE_RIG_DIR");
    return dir != nullptr && dir[0] != '\0' && is_root() && rig::active();
}

namespace {

std::string g_start_dir;  // the working directory the tool was started in

// The library's messages, on standard error: plain ones as they are, the others after the name
// of the part of the library that printed them.
void log_to_stderr(void *, uint32_t level, const char *module, const char *text) {
    if (level == RECSTORE_LOG_PLAIN) {
        fputs(text, stderr);
    } else {
        fprintf(stderr, "[%s] %s", module, text);
    }
}

}  // namespace

void prepare_process() {
    fflush(stdout);
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE *out = own >= 0 ? fdopen(own, "w") : nullptr;
    if (out != nullptr && dup2(STDERR_FILENO, STDOUT_FILENO) == STDOUT_FILENO) {
        stdout = out;
    } else if (out != nullptr) {
        fclose(out);
    }
    recstore_set_log_handler(log_to_stderr, nullptr);
    char dir[PATH_MAX];
    if (getcwd(dir, sizeof dir) != nullptr) g_start_dir = dir;
    if (chdir("/") != 0) perror("recstore: chdir /");
}

std::string from_start_dir(const std::string &path) {
    if (path.empty() || path[0] == '/' || g_start_dir.empty()) return path;
    return g_start_dir + "/" + path;
}

ProgressLine::ProgressLine(FILE *out) : out_(out), terminal_(isatty(fileno(out)) == 1) {}

void ProgressLine::update(const std::string &text) {
    if (!terminal_) return;
    // Spaces wipe what a longer line before left behind.
    const size_t pad = width_ > text.size() ? width_ - text.size() : 0;
    fprintf(out_, "\r%s%*s", text.c_str(), static_cast<int>(pad), "");
    fflush(out_);
    width_ = text.size();
    dirty_ = true;
}

void ProgressLine::finish() {
    if (!dirty_) return;
    fputc('\n', out_);
    fflush(out_);
    dirty_ = false;
    width_ = 0;
}

ProgressTicker::ProgressTicker(FILE *out, const std::string &label) : line_(out), label_(label) {
    if (!line_.shown()) return;
    thread_ = std::thread([this] {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> hold(lock_);
        for (long seconds = 0; !stopping_; seconds++) {
            line_.update(label_ + ": " + std::to_string(seconds) + " s");
            wake_.wait_until(hold, start + std::chrono::seconds(seconds + 1),
                             [this] { return stopping_; });
        }
        line_.finish();
    });
}

ProgressTicker::~ProgressTicker() {
    stop();
}

void ProgressTicker::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::string json_string(const std::string &text) {
    std::string out = "\"";
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

int run_command(const std::vector<std::string> &argv, std::string *output) {
    int pipe_fd[2] = {-1, -1};
    if (output != nullptr && pipe2(pipe_fd, O_CLOEXEC) != 0) return -1;
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (output != nullptr) {
            dup2(pipe_fd[1], 1);
            dup2(pipe_fd[1], 2);
        }
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    if (output != nullptr) {
        close(pipe_fd[1]);
        char buf[4096];
        ssize_t n;
        while ((n = read(pipe_fd[0], buf, sizeof buf)) > 0)
            output->append(buf, static_cast<size_t>(n));
        close(pipe_fd[0]);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// "a,b" into words.
std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> out;
    size_t at = 0;
    while (at <= text.size()) {
        const size_t comma = text.find(',', at);
        out.push_back(text.substr(at, comma == std::string::npos ? std::string::npos : comma - at));
        if (comma == std::string::npos) break;
        at = comma + 1;
    }
    return out;
}

// "3", "0-3" or "1,2,5" into channel numbers.
bool channels_of(const std::string &text, std::vector<int> *out) {
    for (const std::string &part : split(text)) {
        const size_t dash = part.find('-');
        long lo = 0, hi = 0;
        if (dash == std::string::npos) {
            if (!parse_long(part, 0, 63, &lo)) return false;
            hi = lo;
        } else if (!parse_long(part.substr(0, dash), 0, 63, &lo) ||
                   !parse_long(part.substr(dash + 1), 0, 63, &hi) || hi < lo) {
            return false;
        }
        for (long c = lo; c <= hi; c++) out->push_back(static_cast<int>(c));
    }
    return !out->empty();
}

bool channel_mask_of(const std::string &text, uint64_t *mask) {
    std::vector<int> channels;
    if (!channels_of(text, &channels)) return false;
    *mask = 0;
    for (int c : channels) *mask |= 1ull << c;
    return true;
}

}  // namespace tool
