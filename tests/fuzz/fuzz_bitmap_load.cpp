// Fuzz target: arbitrary bytes as a map cluster. The first two bytes choose the entry count, the
// next bytes are the map (possibly shorter than the count needs), and the tail drives a sequence
// of list operations that keeps to the bitmap's contract (a node is put only after it was taken
// off its list). Loading must classify any 32-bit values, a short map must fail cleanly, and the
// lists and counts must stay consistent through gets, tests, puts, deletes and a final clear.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "bitmap.h"
#include "fs_tools.h"
#include "recstore.h"

namespace {

enum class Where : uint8_t { Free, Busy, Err, None };

int map_fd() {
    static int fd = memfd_create("fuzz_bitmap_load", 0);
    return fd;
}

Where where_of(uint32_t entry) {
    if (entry < 0x40000000u) return Where::Free;
    if ((entry >> 30) == 2) return Where::Busy;
    return Where::Err;
}

// Length of a list, bounded so that a broken (cyclic) list is caught instead of looping.
uint32_t list_length(const bitmap_list &head, uint32_t bound) {
    uint32_t n = 0;
    for (const bitmap_list *p = head.next; p != &head; p = p->next) {
        if (++n > bound) abort();
    }
    return n;
}

void check_counts(cluster_bitmap *bm) {
    if (list_length(bm->free_list, bm->count) != bm->free_bits) abort();
    if (list_length(bm->busy_list, bm->count) != bm->busy_bits) abort();
    if (list_length(bm->err_list, bm->count) != bm->err_bits) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    loglevel = 0;  // keep the fuzzer's output readable
    modulemask = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int fd = map_fd();
    if (fd < 0 || size < 2) return 0;
    const int count = static_cast<int16_t>(recstore::le16_load(data)) % 4100;  // may be <= 0
    data += 2;
    size -= 2;
    const size_t map_bytes = count > 0 ? std::min<size_t>(size, static_cast<size_t>(count) * 4) : 0;
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, data, map_bytes, 0) != static_cast<ssize_t>(map_bytes)) {
        return 0;
    }
    const uint8_t *ops = data + map_bytes;
    const size_t nops = size - map_bytes;

    cluster_bitmap bm;
    if (bitmap_init(&bm, count, fd, 0) != 0) {
        if (bm.vals != nullptr || bm.nodes != nullptr || bm.node_of != nullptr || bm.count != 0) {
            abort();
        }
        return 0;
    }
    check_counts(&bm);
    std::vector<Where> where(bm.count);
    for (uint32_t i = 0; i < bm.count; ++i) where[i] = where_of(bm.vals[i]);

    for (size_t i = 0; i + 2 < nops; i += 3) {
        const uint8_t op = ops[i] % 10;
        const uint32_t id =
            static_cast<uint32_t>(recstore::le16_load(ops + i + 1)) % (bm.count + 2);
        const uint32_t value = static_cast<uint32_t>(ops[i + 2]) * 0x01010101u;
        int got = -1;
        switch (op) {
            case 0:
                got = bitmap_free_get(&bm);
                break;
            case 1:
                got = bitmap_busy_get(&bm);
                break;
            case 2:
                got = bitmap_err_get(&bm);
                break;
            case 3:
                (void)bitmap_free_test(&bm);
                break;
            case 4:
            case 5:
            case 6:
                if (id < bm.count && where[id] == Where::None) {
                    const int r = op == 4   ? bitmap_free_put(&bm, id, value)
                                  : op == 5 ? bitmap_busy_put(&bm, id, value)
                                            : bitmap_err_put(&bm, id, value);
                    if (r == 0)
                        where[id] = op == 4 ? Where::Free : op == 5 ? Where::Busy : Where::Err;
                } else if (id >= bm.count) {
                    if (bitmap_free_put(&bm, id, value) != -1) abort();
                }
                break;
            case 7:
                if (id < bm.count && where[id] != Where::None) {
                    const int r = where[id] == Where::Free   ? bitmap_free_del(&bm, id)
                                  : where[id] == Where::Busy ? bitmap_busy_del(&bm, id)
                                                             : bitmap_err_del(&bm, id);
                    if (r != 0) abort();
                    where[id] = Where::None;
                } else {
                    (void)bitmap_busy_del(&bm, id);  // on no list or beyond the map: refused
                }
                break;
            case 8:
                (void)bitmap_val(&bm, id);
                (void)bitmap_is_free(&bm, id);
                (void)bitmap_is_busy(&bm, id);
                (void)bitmap_is_err(&bm, id);
                break;
            default:
                (void)bitmap_is_free_empty(&bm);
                (void)bitmap_is_busy_empty(&bm);
                (void)bitmap_is_err_empty(&bm);
                break;
        }
        if (op <= 2 && got >= 0) {
            if (static_cast<uint32_t>(got) >= bm.count) abort();
            where[static_cast<uint32_t>(got)] = Where::None;
        }
        check_counts(&bm);
    }

    if (bitmap_clear(&bm) != 0) abort();
    check_counts(&bm);
    uint32_t off_lists = 0;
    for (Where w : where) off_lists += w == Where::None ? 1 : 0;
    if (bm.busy_bits != 0 || bm.err_bits != 0 || bm.free_bits + off_lists != bm.count) abort();
    bitmap_exit(&bm);
    return 0;
}
