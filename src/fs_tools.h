// Foundations shared by every module: message printing with the host's level and module gates,
// assertions, host utilities, the path and name scheme, directory walking, mount-table lookups,
// block-device sizes and raw cluster I/O. Exported functions are declared in recstore.h; this
// header adds the internal helpers and the logging macros.
#ifndef RECSTORE_FS_TOOLS_H
#define RECSTORE_FS_TOOLS_H

#include <dirent.h>
#include <unistd.h>

#include "recstore.h"

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

// The ioctl through which blockdev_size sizes block devices. Tests may point it at a wrapper of
// the real call to emulate a device that refuses one of the size requests.
extern int (*fs_tools_blk_ioctl)(int fd, unsigned long request, void *arg);

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
namespace recstore {

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

// Owns a file descriptor and closes it when it goes out of scope.
class FdGuard {
  public:
    explicit FdGuard(int fd = -1) : fd_(fd) {}
    ~FdGuard() { reset(); }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

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
