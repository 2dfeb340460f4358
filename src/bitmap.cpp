// SPDX-License-Identifier: MIT
// Cluster bitmaps: one on-disk map cluster held in memory as raw entries plus a node per entry
// on one of three circular lists (busy, free, error). Taking or deleting a node is memory-only;
// every state change (a put) is written through to the map at once, 4 bytes at a time; clearing
// a map rewrites the stretch it changes with one read and one write.
//
// File map, in order:
//   List primitives and the helpers shared by the three lists: circular-list operations, the
//     node of an entry, the generic take, put, delete, emptiness test and count per list.
//   Loading, releasing and unlinking a map: bitmap_init reads the map cluster and sorts every
//     entry onto its list, bitmap_exit frees it, bitmap_unlink_keep_count and list_del.
//   Entries: bitmap_val and the get, test, put and del operations of each list.
//   Clearing, state tests and counts: bitmap_clear, bitmap_is_*, bitmap_*_bits.
// No lock is taken here; the data zone calls in with the disk's mutex held.
#include "bitmap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "fs_tools.h"

using namespace recstore;

// ---------------------------------------------------------------------------------------------
// List primitives and the helpers shared by the three lists
// ---------------------------------------------------------------------------------------------

namespace {

void list_init(bitmap_list *head) {
    head->next = head->prev = head;
}

bool list_empty(const bitmap_list *head) {
    return head->next == head;
}

void list_add_head(bitmap_list *entry, bitmap_list *head) {
    entry->next = head->next;
    entry->prev = head;
    head->next->prev = entry;
    head->next = entry;
}

void list_add_tail(bitmap_list *entry, bitmap_list *head) {
    entry->next = head;
    entry->prev = head->prev;
    head->prev->next = entry;
    head->prev = entry;
}

// A node can be unlinked only when it is on a list: a zeroed or poisoned node is not.
bool list_linked(const bitmap_list *entry) {
    return entry->next != nullptr && entry->prev != nullptr &&
           reinterpret_cast<uintptr_t>(entry->next) != kListPoisonNext &&
           reinterpret_cast<uintptr_t>(entry->prev) != kListPoisonPrev;
}

bitmap_node *to_node(bitmap_list *entry) {
    return reinterpret_cast<bitmap_node *>(entry);
}

bool loaded(const cluster_bitmap *bm) {
    return bm != nullptr && bm->vals != nullptr && bm->node_of != nullptr;
}

// The node of entry id, or null (also for an id beyond the map).
bitmap_node *node_at(const cluster_bitmap *bm, uint32_t id) {
    return id < bm->count ? bm->node_of[id] : nullptr;
}

enum class ListKind { Busy, Free, Err };

bitmap_list *list_of(cluster_bitmap *bm, ListKind kind) {
    switch (kind) {
        case ListKind::Busy:
            return &bm->busy_list;
        case ListKind::Free:
            return &bm->free_list;
        case ListKind::Err:
            break;
    }
    return &bm->err_list;
}

uint32_t *bits_of(cluster_bitmap *bm, ListKind kind) {
    switch (kind) {
        case ListKind::Busy:
            return &bm->busy_bits;
        case ListKind::Free:
            return &bm->free_bits;
        case ListKind::Err:
            break;
    }
    return &bm->err_bits;
}

ListKind kind_of_entry(uint32_t entry) {
    switch (entry_state(entry)) {
        case EntryState::Free:
            return ListKind::Free;
        case EntryState::Busy:
            return ListKind::Busy;
        default:
            return ListKind::Err;
    }
}

// Releases everything and leaves the bitmap as a zeroed record.
void release(cluster_bitmap *bm) {
    std::free(bm->node_of);
    std::free(bm->vals);
    std::free(bm->nodes);
    std::memset(bm, 0, sizeof(*bm));
}

// Head of a list, taken off it or only looked at.
int head_of(cluster_bitmap *bm, ListKind kind, bool take) {
    if (!loaded(bm)) return -1;
    bitmap_list *head = list_of(bm, kind);
    if (list_empty(head)) return -1;
    bitmap_node *pnode = to_node(head->next);
    FS_ASSERT(pnode != NULL);
    if (take) {
        list_del(&pnode->list);
        uint32_t *bits = bits_of(bm, kind);
        if (*bits > 0) --*bits;
    }
    return static_cast<int>(pnode->id);
}

// Line printed when an entry is put into the state it already has.
void report_repeated_put(uint32_t id, uint32_t old) {
    if (entry_is_free(old)) {
        FS_LOG_PLAIN("bitmap_free_put id:%d,val:0x%x\n", static_cast<int>(id), old);
    } else if (entry_is_busy(old)) {
        FS_LOG_PLAIN("bitmap_busy_put id:%d,val:0x%x\n", static_cast<int>(id), old);
    } else {
        FS_LOG_PLAIN("bitmap_err_put id:%d,val:0x%x\n", static_cast<int>(id), old);
    }
}

int put(cluster_bitmap *bm, uint32_t id, uint32_t entry, ListKind kind) {
    if (!loaded(bm)) return -1;
    bitmap_node *pnode = node_at(bm, id);
    if (pnode == nullptr) {
        FS_LOG_ERR("pnode is null,id:%d\n", static_cast<int>(id));
        return -1;
    }
    const uint32_t old = bm->vals[id];
    if (kind_of_entry(old) == kind) report_repeated_put(id, old);

    bm->vals[id] = entry;
    unsigned char raw[kEntryBytes];
    le32_store(raw, entry);
    const ssize_t n = write_cluster(bm->fd, static_cast<int>(bm->map_cluster),
                                    static_cast<int>(id * kEntryBytes), raw, sizeof(raw));
    if (n != static_cast<ssize_t>(sizeof(raw))) {
        FS_LOG_ERR("write_cluster fd :%d,clusterid:%d,offset:%d\n", bm->fd,
                   static_cast<int>(bm->map_cluster), static_cast<int>(id));
        return -1;
    }
    list_add_head(&pnode->list, list_of(bm, kind));
    ++*bits_of(bm, kind);
    return 0;
}

int del(cluster_bitmap *bm, uint32_t id, ListKind kind) {
    if (!loaded(bm)) return -1;
    bitmap_node *pnode = node_at(bm, id);
    if (pnode == nullptr) {
        FS_LOG_ERR("pnode is null,id:%d\n", static_cast<int>(id));
        return -1;
    }
    // Unlinking a node that is on no list would follow poisoned links.
    if (!list_linked(&pnode->list)) {
        FS_LOG_ERR("pnode is not on a list,id:%d\n", static_cast<int>(id));
        return -1;
    }
    list_del(&pnode->list);
    uint32_t *bits = bits_of(bm, kind);
    if (*bits > 0) --*bits;
    return 0;
}

// The busy list's message says "free bit" as well; the wording is kept.
void report_empty_with_count(ListKind kind, uint32_t count) {
    const int n = static_cast<int>(count);
    switch (kind) {
        case ListKind::Free:
            FS_LOG_ERR("free bit:%d\n", n);
            break;
        case ListKind::Busy:
            FS_LOG_ERR("free bit:%d\n", n);
            break;
        case ListKind::Err:
            FS_LOG_ERR("user bit:%d\n", n);
            break;
    }
}

int is_empty(cluster_bitmap *bm, ListKind kind) {
    if (!loaded(bm)) {
        FS_LOG_ERR("null ptr\n");
        return 1;
    }
    if (!list_empty(list_of(bm, kind))) return 0;
    const uint32_t bits = *bits_of(bm, kind);
    if (bits != 0) report_empty_with_count(kind, bits);
    return 1;
}

uint32_t bits(cluster_bitmap *bm, ListKind kind) {
    if (!loaded(bm)) {
        FS_LOG_ERR("null ptr\n");
        return 0;
    }
    return *bits_of(bm, kind);
}

// Whether bitmap_clear writes the map once (true) or one entry at a time (false).
bool g_clear_batched = true;

// Moves every node of a list to the free state, keeping the values, writing each entry on its
// own. False when a write failed.
bool clear_list(cluster_bitmap *bm, ListKind kind) {
    bool ok = true;
    bitmap_list *head = list_of(bm, kind);
    uint32_t *bits = bits_of(bm, kind);
    for (bitmap_list *pos = head->next, *next = pos->next; pos != head;
         pos = next, next = pos->next) {
        list_del(pos);
        if (*bits > 0) --*bits;
        const uint32_t id = to_node(pos)->id;
        if (bitmap_free_put(bm, id, bm->vals[id]) != 0) ok = false;
    }
    return ok;
}

// Appends the ids of a list's nodes, head first.
void ids_of_list(cluster_bitmap *bm, ListKind kind, std::vector<uint32_t> *out) {
    bitmap_list *head = list_of(bm, kind);
    for (bitmap_list *pos = head->next; pos != head; pos = pos->next) {
        out->push_back(to_node(pos)->id);
    }
}

// Writes the free form of every entry in `ids` with one read and one write of the stretch of the
// map cluster they span: the entries between them go back as they were read, so that the map ends
// byte for byte as the entry-by-entry writes leave it (even where an earlier failed write left
// memory and map apart). Nothing in memory changes. False, silently, when the read or the write
// failed or fell short or the buffer could not be had.
bool write_cleared_span(cluster_bitmap *bm, const std::vector<uint32_t> &ids) {
    const auto range = std::minmax_element(ids.begin(), ids.end());
    const uint32_t lo = *range.first, hi = *range.second;
    std::vector<unsigned char> raw;
    try {
        raw.resize((hi - lo + 1) * static_cast<size_t>(kEntryBytes));
    } catch (const std::bad_alloc &) {
        return false;
    }
    // Straight through the seam, without read_cluster's and write_cluster's reports: a failure
    // here is not the caller's to see, the entry-by-entry clear that follows reports its own.
    const off64_t at = static_cast<off64_t>(bm->map_cluster) * RECSTORE_CLUSTER_SIZE +
                       static_cast<off64_t>(lo) * kEntryBytes;
    const auto n = static_cast<ssize_t>(raw.size());
    if (io_calls().pread64(bm->fd, raw.data(), raw.size(), at) != n) return false;
    for (uint32_t id : ids) {
        le32_store(&raw[(id - lo) * kEntryBytes], make_free_entry(bm->vals[id]));
    }
    return io_calls().pwrite64(bm->fd, raw.data(), raw.size(), at) == n;
}

// The memory side of clearing entry id, as a successful bitmap_free_put leaves it after the
// node left its list: the same message for an entry already free, the value kept, the node at
// the head of the free list.
void free_in_memory(cluster_bitmap *bm, uint32_t id) {
    const uint32_t old = bm->vals[id];
    if (kind_of_entry(old) == ListKind::Free) report_repeated_put(id, old);
    bm->vals[id] = make_free_entry(old);
    list_add_head(&bm->node_of[id]->list, &bm->free_list);
    ++bm->free_bits;
}

// bitmap_clear with one write: the same entries, values, messages, list order and counts as
// clear_list on the busy and then the error list. When the write fails nothing has changed and
// the clear is done one entry at a time instead, so that a failing entry ends as it did there.
bool clear_batched(cluster_bitmap *bm) {
    std::vector<uint32_t> ids;
    try {
        ids.reserve(static_cast<size_t>(bm->busy_bits) + bm->err_bits);
        ids_of_list(bm, ListKind::Busy, &ids);
        ids_of_list(bm, ListKind::Err, &ids);
    } catch (const std::bad_alloc &) {
        ids.clear();
        ids.shrink_to_fit();
        const bool busy_ok = clear_list(bm, ListKind::Busy);
        return clear_list(bm, ListKind::Err) && busy_ok;
    }
    if (ids.empty()) return true;
    if (!write_cleared_span(bm, ids)) {
        const bool busy_ok = clear_list(bm, ListKind::Busy);
        return clear_list(bm, ListKind::Err) && busy_ok;
    }
    for (ListKind kind : {ListKind::Busy, ListKind::Err}) {
        bitmap_list *head = list_of(bm, kind);
        uint32_t *bits = bits_of(bm, kind);
        for (bitmap_list *pos = head->next, *next = pos->next; pos != head;
             pos = next, next = pos->next) {
            list_del(pos);
            if (*bits > 0) --*bits;
            free_in_memory(bm, to_node(pos)->id);
        }
    }
    return true;
}

}  // namespace

void recstore::bitmap_set_clear_batched(bool batched) {
    g_clear_batched = batched;
}

// ---------------------------------------------------------------------------------------------
// Loading, releasing and unlinking a map
// ---------------------------------------------------------------------------------------------

bool recstore::bitmap_unlink_keep_count(cluster_bitmap *bm, uint32_t id) {
    if (!loaded(bm)) return false;
    bitmap_node *pnode = node_at(bm, id);
    if (pnode == nullptr || !list_linked(&pnode->list)) return false;
    list_del(&pnode->list);
    return true;
}

void list_del(bitmap_list *entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = reinterpret_cast<bitmap_list *>(kListPoisonNext);
    entry->prev = reinterpret_cast<bitmap_list *>(kListPoisonPrev);
}

int bitmap_init(cluster_bitmap *bm, int count, int fd, uint32_t cluster) {
    if (bm != nullptr) std::memset(bm, 0, sizeof(*bm));
    if (bm == nullptr || count == 0) {
        FS_LOG_ERR("NULL ptr or count is :%d\n", count);
        return -1;
    }
    // A map is one cluster at most: a larger count would read into the next cluster.
    if (count < 0 || static_cast<uint32_t>(count) > kMaxMapEntries) {
        FS_LOG_ERR("invalid count:%d\n", count);
        return -1;
    }
    const uint32_t n = static_cast<uint32_t>(count);
    list_init(&bm->busy_list);
    list_init(&bm->free_list);
    list_init(&bm->err_list);
    bm->count = n;
    bm->vals = static_cast<uint32_t *>(std::calloc(n, sizeof(uint32_t)));
    bm->node_of = static_cast<bitmap_node **>(std::calloc(n, sizeof(bitmap_node *)));
    bm->nodes = static_cast<bitmap_node *>(std::calloc(n, sizeof(bitmap_node)));
    if (bm->vals == nullptr || bm->node_of == nullptr || bm->nodes == nullptr) {
        FS_LOG_ERR("malloc\n");
        release(bm);
        return -1;
    }

    const ssize_t got = read_cluster(fd, static_cast<int>(cluster), 0, bm->vals, n * kEntryBytes);
    if (got != static_cast<ssize_t>(n * kEntryBytes)) {
        FS_LOG_ERR("read_cluster :%d\n", static_cast<int>(got));
        release(bm);  // no node has been placed on a list yet
        return -1;
    }

    auto *raw = reinterpret_cast<unsigned char *>(bm->vals);
    for (uint32_t id = 0; id < n; ++id) {
        const uint32_t entry = le32_load(raw + id * kEntryBytes);
        bm->vals[id] = entry;
        bitmap_node *pnode = &bm->nodes[id];
        pnode->id = id;
        const ListKind kind = kind_of_entry(entry);
        list_add_tail(&pnode->list, list_of(bm, kind));
        ++*bits_of(bm, kind);
        bm->node_of[id] = pnode;
    }
    bm->fd = fd;
    bm->map_cluster = cluster;
    FS_LOG_INFO("id:%d, b:%d,f:%d,e:%d\n", static_cast<int>(cluster),
                static_cast<int>(bm->busy_bits), static_cast<int>(bm->free_bits),
                static_cast<int>(bm->err_bits));
    return 0;
}

void bitmap_exit(cluster_bitmap *bm) {
    if (bm == nullptr) return;
    if (bm->node_of != nullptr) std::memset(bm->node_of, 0, bm->count * sizeof(bitmap_node *));
    release(bm);
}

// ---------------------------------------------------------------------------------------------
// Entries: value, take, test, put and delete
// ---------------------------------------------------------------------------------------------

uint32_t bitmap_val(cluster_bitmap *bm, uint32_t id) {
    if (!loaded(bm)) {
        FS_LOG_ERR("null ptr\n");
        return 0xFFFFFFFFu;
    }
    if (node_at(bm, id) == nullptr) {
        FS_LOG_WARN("pnode is null,id:%d\n", static_cast<int>(id));
        return 0xFFFFFFFFu;
    }
    return bm->vals[id];
}

int bitmap_free_get(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Free, true);
}
int bitmap_busy_get(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Busy, true);
}
int bitmap_err_get(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Err, true);
}
int bitmap_free_test(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Free, false);
}
int bitmap_busy_test(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Busy, false);
}
int bitmap_err_test(cluster_bitmap *bm) {
    return head_of(bm, ListKind::Err, false);
}

int bitmap_free_put(cluster_bitmap *bm, uint32_t id, uint32_t value) {
    return put(bm, id, make_free_entry(value), ListKind::Free);
}
int bitmap_busy_put(cluster_bitmap *bm, uint32_t id, uint32_t value) {
    return put(bm, id, make_busy_entry(value), ListKind::Busy);
}
int bitmap_err_put(cluster_bitmap *bm, uint32_t id, uint32_t value) {
    return put(bm, id, make_err_entry(value), ListKind::Err);
}

int bitmap_free_del(cluster_bitmap *bm, uint32_t id) {
    return del(bm, id, ListKind::Free);
}
int bitmap_busy_del(cluster_bitmap *bm, uint32_t id) {
    return del(bm, id, ListKind::Busy);
}
int bitmap_err_del(cluster_bitmap *bm, uint32_t id) {
    return del(bm, id, ListKind::Err);
}

// ---------------------------------------------------------------------------------------------
// Clearing, state tests and counts
// ---------------------------------------------------------------------------------------------

int bitmap_clear(cluster_bitmap *bm) {
    if (!loaded(bm)) return -1;
    if (g_clear_batched) return clear_batched(bm) ? 0 : -1;
    const bool busy_ok = clear_list(bm, ListKind::Busy);
    const bool err_ok = clear_list(bm, ListKind::Err);
    return busy_ok && err_ok ? 0 : -1;
}

int bitmap_is_free(cluster_bitmap *bm, uint32_t id) {
    return loaded(bm) && id < bm->count && entry_is_free(bm->vals[id]) ? 1 : 0;
}
int bitmap_is_busy(cluster_bitmap *bm, uint32_t id) {
    return loaded(bm) && id < bm->count && entry_is_busy(bm->vals[id]) ? 1 : 0;
}
int bitmap_is_err(cluster_bitmap *bm, uint32_t id) {
    return loaded(bm) && id < bm->count && entry_is_err(bm->vals[id]) ? 1 : 0;
}

int bitmap_is_free_empty(cluster_bitmap *bm) {
    return is_empty(bm, ListKind::Free);
}
int bitmap_is_busy_empty(cluster_bitmap *bm) {
    return is_empty(bm, ListKind::Busy);
}
int bitmap_is_err_empty(cluster_bitmap *bm) {
    return is_empty(bm, ListKind::Err);
}

uint32_t bitmap_free_bits(cluster_bitmap *bm) {
    return bits(bm, ListKind::Free);
}
uint32_t bitmap_busy_bits(cluster_bitmap *bm) {
    return bits(bm, ListKind::Busy);
}
uint32_t bitmap_err_bits(cluster_bitmap *bm) {
    return bits(bm, ListKind::Err);
}

#if defined(__arm__)
static_assert(sizeof(bitmap_node) == 12, "a bitmap node is 12 bytes on the target");
static_assert(sizeof(cluster_bitmap) == 60, "a cluster bitmap is 60 bytes on the target");
#endif
static_assert(offsetof(bitmap_node, list) == 0, "a node's link is its first member");
