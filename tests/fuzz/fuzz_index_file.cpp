// Fuzz target for the index-file reading path: the input becomes an index file (raw, or as a
// header prefix padded to the layout's size followed by entries), which is then read as a header
// on a plain descriptor, opened as a recording (with the repair of an unfinished header), walked
// entry by entry forward and backward and positioned by offset and by time. Nothing may crash,
// overrun a buffer or hang.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fstype_old.h"
#include "index.h"
#include "recstore.h"

using namespace recstore;

namespace {

constexpr uint32_t kMagics[4] = {RECSTORE_MAGIC_V7, RECSTORE_MAGIC_V1, RECSTORE_MAGIC_V5,
                                 0x12345678u};
constexpr size_t kMaxWalk = 4096;  // entries walked at most per direction

std::string g_path;

// Builds the file from the input. Byte 0 chooses the layout (bits 0-1), whether the input is
// taken raw (bit 2), whether the header gets an extension area (bit 3) and whether the end time
// is cleared so that the repair runs (bit 4). In the structured form, byte 1 gives the header
// prefix length in units of 64 bytes.
std::vector<uint8_t> build_file(const uint8_t *data, size_t size) {
    const uint8_t mode = data[0];
    if (mode & 4) return std::vector<uint8_t>(data + 1, data + size);
    const bool v1 = (mode & 3) == 1;
    size_t header = v1 ? kRecordInfoV1Size : kRecordInfoSize;
    if (!v1 && (mode & 8)) header = kRecordInfoExtSize;
    const size_t avail = size > 2 ? size - 2 : 0;
    size_t prefix = size > 1 ? static_cast<size_t>(data[1]) * 64 : 0;
    if (prefix > avail) prefix = avail;
    if (prefix > header) prefix = header;
    std::vector<uint8_t> file(header, 0);
    if (prefix > 0) memcpy(file.data(), data + 2, prefix);
    if (!v1 && (mode & 8)) le32_store(file.data() + kOffExtMagic, kExtMagic);
    if (mode & 16) memset(file.data() + kOffEnd, 0, 44);
    if (2 + prefix < size) file.insert(file.end(), data + 2 + prefix, data + size);
    return file;
}

bool store(const std::vector<uint8_t> &file) {
    const int fd = open(g_path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    const bool ok =
        file.empty() || write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size());
    close(fd);
    return ok;
}

void read_header_on_fd() {
    const int fd = open(g_path.c_str(), O_RDONLY);
    if (fd < 0) return;
    recordinfo info;
    memset(&info, 0, sizeof info);
    handle_slot slot{-1, 0, 0, nullptr, nullptr};
    read_recordinfo(0, fd, &info, &slot);
    sizeof_recordinfo(&info);
    do_ext_get_len(&info);
    free(slot.ext);
    close(fd);
}

void walk(int h, const uint8_t *data, size_t size) {
    uint32_t cid, len, cnt, next;
    kframe frames[kMaxKframes];
    for (size_t i = 0; i < kMaxWalk && index_read(h, &cid, &len, frames, &cnt, &next) > 0; ++i) {
    }
    for (size_t i = 0; i < kMaxWalk && index_read_r(h, &cid, &len, frames, &cnt) > 0; ++i) {
    }
    uint8_t ext[64];
    index_get_ext(h, ext, sizeof ext);
    index_ltell(h, nullptr);
    index_ttell(h, nullptr);
    // Positioning with values taken from the input's last bytes.
    for (size_t i = 0; i + 4 <= size && i < 64; i += 4) {
        const uint32_t v = le32_load(data + size - 4 - i);
        const int whence = static_cast<int>(v & 3);
        const int32_t sec = static_cast<int32_t>(v >> 2);
        uint32_t off = 0, seq = 0;
        int32_t tseq = 0;
        index_lseek(h, static_cast<int32_t>(v), whence, &off);
        index_lseek(h, -static_cast<int64_t>(v & 0xFFFFF), 1, &off);
        index_ttell(h, &seq);
        index_tseek(h, sec, whence, &tseq);
        index_tseek(h, (v & 4) ? -static_cast<int32_t>(v & 0xFF) : static_cast<int32_t>(v & 0xFF),
                    1, &tseq);
        index_ltell(h, &off);
        index_set_offset(h, v & 0xFFFFF, frames, static_cast<int>(v >> 27));
        index_set_seqoffset(h, v >> 26, frames, 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    loglevel = 0;
    modulemask = 0;
    // The library's unconditional lines are of no interest here; libFuzzer reports on stderr.
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
        dup2(null_fd, 1);
        close(null_fd);
    }
    char name[] = "/tmp/recstore-fuzz-idx.XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) abort();
    close(fd);
    g_path = name;
    index_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    g_magic[0] = kMagics[data[0] & 3];
    if (!store(build_file(data, size))) return 0;
    read_header_on_fd();

    const struct tm start = {};
    index_open_args args;
    args.start = &start;
    args.flags = O_RDWR;
    const int h = do_index_attach(open(g_path.c_str(), O_RDWR), args);
    if (h >= 0) {
        walk(h, data, size);
        do_index_release(h);
    }
    return 0;
}
