// Shared pieces of the recstore tool's subcommands: exit codes, option parsing, times and sizes
// as people read them, disk node names and external commands.
#ifndef RECSTORE_TOOL_CLI_H
#define RECSTORE_TOOL_CLI_H

#include <stdio.h>
#include <time.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tool {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Exit status of check, as file-system checkers give it: the bits add up.
constexpr int kCheckClean = 0;        // nothing found
constexpr int kCheckFixed = 1;        // inconsistencies found and all of them repaired
constexpr int kCheckLeft = 4;         // inconsistencies left (found without --repair, or unfixable)
constexpr int kCheckOperational = 8;  // the disk could not be read or checked
constexpr int kCheckUsage = 16;       // usage error

constexpr uint64_t kMiB = 1024ull * 1024;
constexpr uint64_t kGiB = 1024 * kMiB;

// Parsed command line of one subcommand: words, options with a value, flags.
struct Args {
    std::vector<std::string> words;
    std::map<std::string, std::string> values;
    std::vector<std::string> flags;
    bool has(const std::string &flag) const;
    std::string value(const std::string &name, const std::string &fallback = "") const;
};

// Parses argv[1..] of a subcommand with getopt_long. value_options take the next word
// ("--seconds 5" or "--seconds=5"); flags take none. Options and words may be mixed; after "--"
// everything is a word. Unknown options, a missing value or a value given to a flag: false and
// *error says which.
bool parse_args(int argc, char **argv, const std::vector<std::string> &value_options,
                const std::vector<std::string> &flags, Args *out, std::string *error);

// "recstore 0.1.0": the tool's name and the version of the library it runs on.
std::string version_line();

// True when --help or -h is among the arguments (before a "--").
bool wants_help(int argc, char **argv);

// Prints "recstore CMD: message" and the pointer to --help on stderr; returns kExitUsage.
int usage_error(const char *command, const std::string &message);
// Prints "recstore CMD: message" on stderr; returns kExitFailed.
int failure(const char *command, const std::string &message);

// A whole decimal number in [min, max]; false for anything else.
bool parse_long(const std::string &text, long min, long max, long *out);

// "YYYY-MM-DD HH:MM:SS" (or with a 'T'), UTC; seconds may be left out. False when malformed.
bool parse_time(const std::string &text, struct tm *out);
std::string format_tm(const struct tm &t);  // "YYYY-MM-DD HH:MM:SS"
std::string format_epoch(time_t seconds);   // the same, from seconds since the epoch (UTC)
std::string format_duration(long seconds);  // "1h02m03s", "2m05s", "7s"
std::string human_size(uint64_t bytes);     // "1.5 GiB", "12.0 MiB", "3.5 KiB", "512 B"

// "a,b" into words.
std::vector<std::string> split(const std::string &text);
// "3", "0-3" or "1,2,5" into channel numbers 0-63; false when malformed or empty.
bool channels_of(const std::string &text, std::vector<int> *out);
// The same as a 64-bit channel mask.
bool channel_mask_of(const std::string &text, uint64_t *mask);

// True for a whole-disk node "/dev/hd/sd" plus one letter a-h; its disk id then in *disk.
bool disk_node(const std::string &dev, int *disk);

// True when running as root.
bool is_root();
// True inside the disk rig's private namespace (tests/rig/rig-run).
bool in_rig();

// Prepares the process for the subcommands: the library's messages go to standard error, and
// so does everything else written to descriptor 1 (the external commands the library runs):
// standard output carries the tool's own output only, e.g. JSON. Then the working directory
// becomes "/" (the library looks for external tools in the working directory first), after
// remembering the one the tool was started in.
void prepare_process();
// A path given on the command line, made absolute against the directory the tool started in.
std::string from_start_dir(const std::string &path);

// A progress line rewritten in place (carriage return) while out is a terminal; nothing at all
// when it is not, so that logs and pipes never receive carriage returns.
class ProgressLine {
  public:
    explicit ProgressLine(FILE *out);
    bool shown() const { return terminal_; }
    void update(const std::string &text);
    // Ends the line (a newline when anything was shown).
    void finish();

  private:
    FILE *out_;
    bool terminal_;
    bool dirty_ = false;
    size_t width_ = 0;
};

// While it lives, a progress line "LABEL: N s" on a terminal, updated every second from a
// thread of its own (for single long steps such as formatting a disk or reading the maps of a
// large one). Nothing when out is not a terminal. stop() ends the line before the result.
class ProgressTicker {
  public:
    ProgressTicker(FILE *out, const std::string &label);
    ~ProgressTicker();
    ProgressTicker(const ProgressTicker &) = delete;
    ProgressTicker &operator=(const ProgressTicker &) = delete;
    void stop();

  private:
    ProgressLine line_;
    std::string label_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

// A JSON string literal of text (quoted, with escapes).
std::string json_string(const std::string &text);

// Runs argv without a shell; its exit status, or -1 when it could not run. Output goes to
// *output when given (standard output and error), else to the terminal.
int run_command(const std::vector<std::string> &argv, std::string *output = nullptr);

}  // namespace tool

#endif
