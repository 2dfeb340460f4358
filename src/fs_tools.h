// SPDX-License-Identifier: MIT
// Foundations shared by every module: message printing with the host's level and module gates,
// assertions, host utilities, the path and name scheme, directory walking, mount-table lookups,
// block-device sizes and raw cluster I/O. Exported functions are declared in recstore.h; this
// header adds the internal helpers and the logging macros.
#ifndef RECSTORE_FS_TOOLS_H
#define RECSTORE_FS_TOOLS_H

#include <fcntl.h>
#include <dirent.h>
#include <mntent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include "recstore.h"

// I/O seam. Every system call the library makes on disks, partitions, index files, cache files,
// the event log, directories and the mount table, and every shell command it runs, goes through
// the table recstore::io_calls() (declared below); no other code of the library calls them
// directly. The defaults are the C library's calls (the host's pip_system for commands), so
// results, errno values and messages are those of the plain calls. Tests replace one entry at
// run time (recstore::IoOverride) to inject faults or count calls, and put it back afterwards.
// Thread safety: every entry is an atomic pointer read with relaxed ordering on each call, so an
// entry may be replaced while library threads run; a call already under way finishes with the
// function it loaded. Replacements must be thread-safe themselves when library threads may
// reach them.

#ifdef __cplusplus
extern "C" {
#endif

// Prints one message with the coloured "[file:line]:" prefix when the host's modulemask has the
// library's bit and loglevel has the message's level bit. Standard output is flushed afterwards.
void fs_log_msg(uint32_t level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
// The same message and prefix whatever the host's masks say: for the few errors that are always
// reported.
void fs_log_msg_always(uint32_t level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
// Prints a message without prefix and without the gate, then flushes standard output.
void fs_log_plain(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Prints the assertion line and "halt\n", then aborts the process.
void fs_assert_fail(const char *expr, const char *file, int line) __attribute__((noreturn));

// Walk helpers, timed into the statistics when stats is not null.
DIR *do_opendir(const char *path, find_debug *stats);
// Directory entries are read with the 64-bit interface: on the 32-bit target the plain one fails
// on file systems whose entry offsets or inode numbers do not fit in 32 bits.
struct dirent64 *do_readdir(DIR *dir, find_debug *stats);
int do_closedir(DIR *dir, find_debug *stats);
int do_fileAction(find_action action, const char *path, struct stat *st, void *user,
                  find_debug *stats);
int do_dirAction(find_action action, const char *path, struct stat *st, void *user,
                 find_debug *stats);
int do_fileAction_nostat(find_action_nostat action, const char *path, void *user,
                         find_debug *stats);
int do_dirAction_nostat(find_action_nostat action, const char *path, void *user, find_debug *stats);
void do_fill_find_debug_info(find_debug_info *info, unsigned duration);

#ifdef __cplusplus
}
#endif

#define FS_LOG_ERR(...) fs_log_msg(RECSTORE_LOG_ERROR, __FILE__, __LINE__, __VA_ARGS__)
#define FS_LOG_WARN(...) fs_log_msg(RECSTORE_LOG_WARNING, __FILE__, __LINE__, __VA_ARGS__)
#define FS_LOG_INFO(...) fs_log_msg(RECSTORE_LOG_INFO, __FILE__, __LINE__, __VA_ARGS__)
#define FS_LOG_ERR_ALWAYS(...) \
    fs_log_msg_always(RECSTORE_LOG_ERROR, __FILE__, __LINE__, __VA_ARGS__)
#define FS_LOG_PLAIN(...) fs_log_plain(__VA_ARGS__)
#define FS_ASSERT(expr) ((expr) ? (void)0 : fs_assert_fail(#expr, __FILE__, __LINE__))

#ifdef __cplusplus
#include <atomic>

namespace recstore {

// One replaceable entry of the I/O seam: a call of signature Sig, set to `real` at start.
template <typename Sig>
class IoCall;

template <typename R, typename... Args>
class IoCall<R(Args...)> {
  public:
    using Fn = R (*)(Args...);
    // Implicit, so that the table below reads as a list of defaults.
    constexpr IoCall(Fn real) : real_(real), current_(real) {}
    IoCall(const IoCall &) = delete;
    IoCall &operator=(const IoCall &) = delete;
    // Calls the current function; errno is left as that function leaves it.
    R operator()(Args... args) const { return current_.load(std::memory_order_relaxed)(args...); }
    // The current function.
    Fn get() const { return current_.load(std::memory_order_relaxed); }
    // The default function (the C library's call).
    Fn real() const { return real_; }
    // Replaces the current function; nullptr restores the default.
    void set(Fn fn) { current_.store(fn != nullptr ? fn : real_, std::memory_order_relaxed); }
    // Restores the default.
    void reset() { set(real_); }

  private:
    const Fn real_;
    std::atomic<Fn> current_;
};

// Defaults that are not plain C library functions.
// io-seam-defaults-begin
namespace io_default {
// open(2) with the mode always passed (it is only used with O_CREAT).
int open(const char *path, int flags, mode_t mode);
// ioctl(2) with a pointer argument, the only kind the library uses.
int ioctl(int fd, unsigned long request, void *arg);
// The host's command runner, pip_system, looked up only when a command runs.
int host_system(const char *command);
// close(2) for programs outside the library, which cannot reach the seam (PlainFdGuard).
inline int plain_close(int fd) {
    return ::close(fd);
}
}  // namespace io_default
// io-seam-defaults-end

// The table of every system call of the library; see the contract at the top of this file.
struct IoCalls {
    // Descriptors and transfers.
    IoCall<int(const char *, int, mode_t)> open{io_default::open};     // open a file or device
    IoCall<int(int)> close{::close};                                   // close a descriptor
    IoCall<ssize_t(int, void *, size_t)> read{::read};                 // read at the file offset
    IoCall<ssize_t(int, const void *, size_t)> write{::write};         // write at the file offset
    IoCall<ssize_t(int, void *, size_t, off64_t)> pread64{::pread64};  // read at a position
    // write at a position
    IoCall<ssize_t(int, const void *, size_t, off64_t)> pwrite64{::pwrite64};
    IoCall<ssize_t(int, const struct iovec *, int)> readv{::readv};    // vectored read
    IoCall<ssize_t(int, const struct iovec *, int)> writev{::writev};  // vectored write
    // vectored read at a position
    IoCall<ssize_t(int, const struct iovec *, int, off64_t)> preadv64{::preadv64};
    // vectored write at a position
    IoCall<ssize_t(int, const struct iovec *, int, off64_t)> pwritev64{::pwritev64};
    IoCall<off64_t(int, off64_t, int)> lseek64{::lseek64};  // move the file offset
    IoCall<int(int)> fsync{::fsync};                        // flush data and metadata
    IoCall<int(int)> fdatasync{::fdatasync};                // flush data
    IoCall<int(int)> syncfs{::syncfs};  // flush the file system that holds a descriptor
    // write back and/or wait for a byte range of a file or device
    IoCall<int(int, off64_t, off64_t, unsigned int)> sync_file_range{::sync_file_range};
    IoCall<int(int, off64_t)> ftruncate64{::ftruncate64};              // cut or extend a file
    IoCall<int(int, unsigned long, void *)> ioctl{io_default::ioctl};  // device requests (sizes)
    // formatted write to a descriptor (the event log, the dump functions)
    IoCall<int(int, const char *, va_list)> vdprintf{::vdprintf};
    // File status.
    IoCall<int(int, struct stat64 *)> fstat64{::fstat64};               // status of a descriptor
    IoCall<int(const char *, struct stat64 *)> stat64{::stat64};        // status, links followed
    IoCall<int(const char *, struct stat64 *)> lstat64{::lstat64};      // status of a link itself
    IoCall<int(const char *, struct statfs *)> statfs{::statfs};        // file system usage
    IoCall<int(const char *, struct statfs64 *)> statfs64{::statfs64};  // ditto, 64-bit counts
    IoCall<int(const char *, int)> access{::access};                    // existence and permissions
    IoCall<int(int, const struct timeval *)> futimes{::futimes};        // set access/modify times
    // Names.
    IoCall<int(const char *)> unlink{::unlink};                  // remove a file
    IoCall<int(const char *)> remove{::remove};                  // remove a file or empty dir
    IoCall<int(const char *)> rmdir{::rmdir};                    // remove an empty directory
    IoCall<int(const char *, mode_t)> mkdir{::mkdir};            // create a directory
    IoCall<int(const char *, const char *)> symlink{::symlink};  // create a symbolic link
    IoCall<ssize_t(const char *, char *, size_t)> readlink{::readlink};  // read a link's target
    IoCall<int(const char *, const char *)> rename{::rename};            // rename a file
    // Directories.
    IoCall<DIR *(const char *)> opendir{::opendir};           // open a directory listing
    IoCall<struct dirent *(DIR *)> readdir{::readdir};        // next entry
    IoCall<struct dirent64 *(DIR *)> readdir64{::readdir64};  // next entry, 64-bit fields
    IoCall<int(DIR *)> closedir{::closedir};                  // close a listing
    // Whole system.
    IoCall<void()> sync{::sync};  // write every dirty buffer of every file system
    // Mount table.
    IoCall<FILE *(const char *, const char *)> setmntent{::setmntent};  // open a mount table
    // next mount entry
    IoCall<struct mntent *(FILE *, struct mntent *, char *, int)> getmntent_r{::getmntent_r};
    IoCall<int(FILE *)> endmntent{::endmntent};  // close a mount table
    // Shell commands.
    IoCall<int(const char *)> system{::system};                      // run through /bin/sh
    IoCall<int(const char *)> host_system{io_default::host_system};  // run through the host
    IoCall<FILE *(const char *, const char *)> popen{::popen};       // run and read its output
    IoCall<int(FILE *)> pclose{::pclose};                            // wait for a popen command

    // Restores the default of every entry.
    void reset_all() __attribute__((visibility("default")));
};

// The library's one table.
IoCalls &io_calls() __attribute__((visibility("default")));

// dprintf(3) through the table's vdprintf.
int io_dprintf(int fd, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Replaces one entry for the lifetime of the guard, then puts back what was there before.
template <typename Sig>
class IoOverride {
  public:
    IoOverride(IoCall<Sig> &call, typename IoCall<Sig>::Fn fn) : call_(call), saved_(call.get()) {
        call_.set(fn);
    }
    ~IoOverride() { call_.set(saved_); }
    IoOverride(const IoOverride &) = delete;
    IoOverride &operator=(const IoOverride &) = delete;

  private:
    IoCall<Sig> &call_;
    typename IoCall<Sig>::Fn saved_;
};

// Little-endian loads and stores of the fixed-width fields of every on-disk and cache format,
// byte by byte: the same bytes on every host byte order, and no alignment needed.
constexpr uint16_t le16_load(const unsigned char *p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
constexpr uint32_t le32_load(const unsigned char *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
constexpr uint64_t le64_load(const unsigned char *p) {
    return static_cast<uint64_t>(le32_load(p)) | static_cast<uint64_t>(le32_load(p + 4)) << 32;
}
constexpr void le16_store(unsigned char *p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
constexpr void le32_store(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}
constexpr void le64_store(unsigned char *p, uint64_t v) {
    le32_store(p, static_cast<uint32_t>(v));
    le32_store(p + 4, static_cast<uint32_t>(v >> 32));
}

// Valid disk ids are 0..7; anything else (negative included) is refused by every function.
constexpr bool valid_disk_id(int disk_id) {
    return disk_id >= 0 && disk_id < RECSTORE_MAX_DISKS;
}
constexpr bool valid_disk_id(unsigned disk_id) {
    return disk_id < static_cast<unsigned>(RECSTORE_MAX_DISKS);
}

// Largest disk a format supports, from the magic value of the disk's magic file: 16 TiB for
// version 7, 8 TiB for version 6 and 4 TiB for every other value.
uint64_t max_disk_bytes_for_magic(uint32_t magic);

// Closes a descriptor through the I/O seam.
inline int seam_close(int fd) {
    return io_calls().close(fd);
}

// Owns a file descriptor and closes it with Close when it goes out of scope.
template <int (*Close)(int)>
class BasicFdGuard {
  public:
    explicit BasicFdGuard(int fd = -1) : fd_(fd) {}
    ~BasicFdGuard() { reset(); }
    BasicFdGuard(const BasicFdGuard &) = delete;
    BasicFdGuard &operator=(const BasicFdGuard &) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) Close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

// The library's guard: closes through the I/O seam, so that tests see every close.
using FdGuard = BasicFdGuard<seam_close>;
// The guard of programs that link only the exported API (the tool, the test kit): the seam is
// internal to the library, so they close directly.
using PlainFdGuard = BasicFdGuard<io_default::plain_close>;

// Holds a pthread mutex for the lifetime of the guard.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t &m) : m_(m) { pthread_mutex_lock(&m_); }
    ~MutexGuard() { pthread_mutex_unlock(&m_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    pthread_mutex_t &m_;
};

}  // namespace recstore
#endif

#endif
