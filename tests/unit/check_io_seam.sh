#!/bin/sh
# Every system call of the library on disks, partitions, index and cache files, directories, the
# mount table and the shell goes through the I/O seam (recstore::io_calls() in src/fs_tools.h),
# so that tests can replace any of them at run time. This check fails when a source file of src/
# calls one directly: comments, string and character literals are stripped first, member calls
# (".name(", "->name(") and qualified calls ("std::remove(") are not counted, and the seam's own
# defaults between the io-seam-defaults-begin and io-seam-defaults-end markers are exempt.
# Before scanning, the scanner proves on planted samples that it finds a direct call and ignores
# the forms above.
# usage: check_io_seam.sh SRC_DIR
src=${1:?usage: check_io_seam.sh SRC_DIR}

# The calls that must go through the seam, and close relatives that must not creep in instead.
calls='open|open64|openat|creat|close|read|write|pread|pread64|pwrite|pwrite64|readv|writev'
calls="$calls|preadv|preadv64|preadv2|pwritev|pwritev64|pwritev2|lseek|lseek64|fsync|fdatasync"
calls="$calls|syncfs|sync|sync_file_range|ftruncate|ftruncate64|truncate|truncate64|fallocate"
calls="$calls|posix_fallocate|posix_fadvise|ioctl|fstat|fstat64|stat|stat64|lstat|lstat64"
calls="$calls|fstatat|statx|statfs|statfs64|fstatfs|fstatfs64|statvfs|access|faccessat|futimes"
calls="$calls|utimes|futimens|utimensat|unlink|unlinkat|remove|rmdir|mkdir|mkdirat|symlink"
calls="$calls|readlink|rename|renameat|opendir|fdopendir|readdir|readdir64|readdir_r|closedir"
calls="$calls|scandir|dprintf|vdprintf|fopen|fopen64|fdopen|freopen|setmntent|getmntent"
calls="$calls|getmntent_r|endmntent|system|popen|pclose|pip_system|mount|umount|umount2|mknod"

# Prints "file:line: name: text" for every direct call in the files given.
scan() {
    awk -v calls="$calls" '
    BEGIN {
        call_re = "(^|[^A-Za-z0-9_.:])(::)?(" calls ")[ \t]*\\("
        addr_re = "&[ \t]*(::)?(" calls ")([^A-Za-z0-9_]|$)"
        name_re = "(" calls ")"
    }
    FNR == 1 { state = "code"; exempt = 0 }
    {
        raw = $0
        if (raw ~ /io-seam-defaults-begin/) exempt = 1
        if (raw ~ /io-seam-defaults-end/) exempt = 0
        # Strip comments and literals, keeping the state across lines.
        out = ""
        n = length(raw)
        for (i = 1; i <= n; i++) {
            c = substr(raw, i, 1)
            d = substr(raw, i, 2)
            if (state == "block") {
                if (d == "*/") { state = "code"; i++; out = out " " }
                continue
            }
            if (state == "str" || state == "chr") {
                if (c == "\\") { i++; continue }
                if ((state == "str" && c == "\"") || (state == "chr" && c == "\047")) {
                    state = "code"; out = out "\"\""
                }
                continue
            }
            if (d == "//") break
            if (d == "/*") { state = "block"; i++; continue }
            if (c == "\"") { state = "str"; continue }
            # A quote right after a digit or letter is a digit separator, not a literal.
            if (c == "\047" && (i == 1 || substr(raw, i - 1, 1) !~ /[A-Za-z0-9_]/)) {
                state = "chr"; continue
            }
            out = out c
        }
        # A string or character literal ends with its line (no continued literals in src/).
        if (state == "str" || state == "chr") state = "code"
        if (exempt) next
        gsub(/->/, ".", out)
        rest = out
        while (match(rest, call_re) || match(rest, addr_re)) {
            hit = substr(rest, RSTART, RLENGTH)
            match(hit, name_re)
            printf "%s:%d: %s: %s\n", FILENAME, FNR, substr(hit, RSTART, RLENGTH), raw
            rest = ""
        }
    }' "$@"
}

status=0

# The scanner on planted samples: it must find every planted call and nothing else.
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
cat >"$tmp/planted.cpp" <<'EOF'
int a = open(path, O_RDONLY);
if (::close(fd) < 0) return;
    n = pread64 (fd, buf, sizeof buf, 0);
auto f = &fsync;
EOF
cat >"$tmp/clean.cpp" <<'EOF'
// open(path, O_RDONLY) in a comment
/* a block comment: close(fd);
   read(fd, buf, n); */
const char *s = "write(fd, buf, n)";
char q = '(';  const char *t = "\"remove(x)\"";
std::remove(v.begin(), v.end(), 0);
recstore::io_calls().open(path, O_RDONLY, 0);
p->sync();
int reader = do_read(fd) + fs_sync(1) + read_cluster(fd, 0, 0, buf, n);
long big = 1'000'000; int x = stat_of(h);
// io-seam-defaults-begin
int exempt = ::open(path, flags, mode);
// io-seam-defaults-end
EOF
found=$(scan "$tmp/planted.cpp" | wc -l)
if [ "$found" -ne 4 ]; then
    echo "FAIL: the scanner found $found of 4 planted direct calls:"
    scan "$tmp/planted.cpp"
    status=1
fi
if [ -n "$(scan "$tmp/clean.cpp")" ]; then
    echo "FAIL: the scanner reports calls that are not direct calls:"
    scan "$tmp/clean.cpp"
    status=1
fi

# The library's sources.
set -- "$src"/*.cpp "$src"/*.h
if [ ! -f "$1" ]; then
    echo "FAIL: no sources under $src"
    exit 1
fi
if ! grep -q io-seam-defaults-begin "$src/fs_tools.cpp"; then
    echo "FAIL: $src/fs_tools.cpp has no io-seam-defaults-begin marker"
    status=1
fi
hits=$(scan "$@")
if [ -n "$hits" ]; then
    echo "FAIL: direct system calls outside the I/O seam (use recstore::io_calls()):"
    echo "$hits"
    status=1
fi
[ $status -eq 0 ] && echo "io seam: $# source files, no direct system call outside the seam"
exit $status
