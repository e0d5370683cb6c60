// The scan. Listing a folder costs a system call or more per entry, and on a large tree that is nearly all
// of the time, so the listing is spread over threads while everything that decides what the result is
// stays on the calling thread:
//
// - The calling thread delivers. It takes the folders in one fixed order (breadth first: a folder's
//   contents in the order the platform lists them, and the folders below in the order they were
//   delivered), applies the excludes, hands each item to the caller, and queues each folder it delivered
//   for listing. So the items, their order and every call of the exclude test are the same whatever the
//   number of threads, and the exclude test runs on one thread only.
// - Workers list. They take queued folders from the front of the queue, which is also the order in which
//   the delivering thread needs them, and leave each folder's entries in a block. The blocks are a fixed
//   number per thread, made by the delivering thread at the start and handed back to be used again as
//   soon as their folder is delivered. So what is held at any time is the folders seen so far and a few
//   listings, never the tree; a worker with no free block waits, which keeps it from running far ahead of
//   delivery; and no memory is left behind in a worker thread's own heap.
// - The delivering thread lists too: the folder it waits for, when no one has taken it yet, and otherwise
//   the next one in the queue. With one thread it lists everything itself, in order, with no lock taken
//   by anyone else.
#include "folder/folder.h"

#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os_dir.h"

void scan_result_init(scan_result_t *r) {
    memset(r, 0, sizeof(*r));
    mem_stack_init(&r->pool);
}

void scan_result_kill(scan_result_t *r) {
    mem_stack_kill(&r->pool);
    memset(r, 0, sizeof(*r));
}

// The path of an item or a folder node: the names up the parent chain joined by the separator. Written
// from the end, so the walk up the parents needs no second pass or stack.
template <typename T>
static void _chain_path(const T *leaf, str_t *out) {
    size_t total = 1;
    for (const T *p = leaf; p; p = p->parent) {
        total += p->name_len + 1;
    }
    str_reserve(out, (int) total);
    char *end = out->ptr + total - 1;
    char *w = end;
    for (const T *p = leaf; p; p = p->parent) {
        w -= p->name_len;
        memcpy(w, p->name, p->name_len);
        if (p->parent) {
            *--w = OS_SEP;
        }
    }
    out->len = (int32_t) (end - w);
    memmove(out->ptr, w, (size_t) out->len);
    out->ptr[out->len] = 0;
}

void scan_item_path(const scan_item_t *item, str_t *out) {
    _chain_path(item, out);
}

// ---- listings ------------------------------------------------------------------------------------------

// One entry of a listing, packed in its block and aligned to 8 bytes; the name follows with a zero.
struct _entry_t {
    os_file_info_t info;
    uint32_t name_len;
    bool is_folder;
    bool is_link;
    char name[2];
};

// A folder's entries in the platform's order, in a block grown by doubling.
struct _listing_t {
    _listing_t *next_free; // in the free list
    uint32_t used;         // bytes of the block in use, this header included
    uint32_t capacity;
};

// Each thread's share of blocks, and their size. A block that a large folder grew goes back to the
// first size when it is handed back, so that one such folder doesn't keep its size in every block.
// Workers that ran out of blocks are woken only when half of them are free again, so that they list in
// batches rather than being woken for every folder delivered.
#define SCAN_BLOCKS_PER_THREAD 16
#define SCAN_BLOCK_SIZE        16384

static uint32_t _entry_size(uint32_t name_len) {
    return (uint32_t) ((offsetof(_entry_t, name) + name_len + 1 + 7) & ~(size_t) 7);
}

static _listing_t *_listing_add(_listing_t *l, const os_dir_entry_t *e) {
    uint32_t size = _entry_size(e->name_len);
    if (l->used + size > l->capacity) {
        uint32_t cap = l->capacity * 2;
        while (l->used + size > cap) {
            cap *= 2;
        }
        l = (_listing_t *) mem_realloc(l, cap);
        l->capacity = cap;
    }
    _entry_t *d = (_entry_t *) ((char *) l + l->used);
    d->info = e->info;
    d->name_len = e->name_len;
    d->is_folder = e->is_folder;
    d->is_link = e->is_link;
    memcpy(d->name, e->name, e->name_len);
    d->name[e->name_len] = 0;
    l->used += size;
    return l;
}

// A folder waiting to be listed, then delivered. Made by the delivering thread only and kept to the end
// of the scan, since the workers build paths from the chain of parents.
struct _node_t {
    _node_t *parent;
    _node_t *next;       // the queue, which is also the order of delivery
    _listing_t *listing; // once listed: the entries, none when the folder couldn't be read
    uintptr_t tag;       // what the caller made of the folder
    uint8_t state;       // under the lock
    uint32_t name_len;
    char name[1]; // the root's is the scanned path, "" for the Linux root
};

enum { SCAN_QUEUED, SCAN_CLAIMED, SCAN_LISTED };

static void _node_path(const _node_t *node, str_t *out) {
    _chain_path(node, out);
    if (out->len == 0) {
        str_set(out, OS_SEP_STR); // the Linux root, named by the empty text
    }
}

// Lists the folder into the block l, which may move as it grows; returns where it is. A folder that can't
// be read gives a block with no entries. path is scratch space.
static _listing_t *_list(const _node_t *node, str_t *path, _listing_t *l) {
    l->used = sizeof(_listing_t);
    _node_path(node, path);
    os_dir_t *dir = os_dir_open(path->ptr);
    if (!dir) {
        return l;
    }
    os_dir_entry_t e;
    while (os_dir_next(dir, &e)) {
        l = _listing_add(l, &e);
    }
    os_dir_close(dir);
    return l;
}

// ---- the shared state ----------------------------------------------------------------------------------

struct _scan_t {
    const scan_options_t *options;
    scan_proc_t proc;
    void *ctx;
    mem_stack_t nodes; // delivering thread only
    _listing_t *own;   // the delivering thread's block for the folder it needs next, never shared
    // Under lock: the front of the queue not yet taken (nodes before it are claimed or listed), the free
    // blocks, the folder the delivering thread waits for, and the end.
    os_lock_t lock;
    _node_t *front;
    _listing_t *free_blocks;
    uint32_t free_count;
    uint32_t block_count; // of the shared blocks
    _node_t *waiting_for;
    bool done;
    os_event_t *work;  // set while there may be work and a block to do it with, or at the end
    os_event_t *ready; // set when the folder waited for is listed
};

static _listing_t *_block_new() {
    _listing_t *l = (_listing_t *) mem_alloc(SCAN_BLOCK_SIZE);
    l->next_free = nullptr;
    l->used = sizeof(_listing_t);
    l->capacity = SCAN_BLOCK_SIZE;
    return l;
}

// A free block, or null when all are in use. Under the lock.
static _listing_t *_block_take(_scan_t *s) {
    _listing_t *l = s->free_blocks;
    if (l) {
        s->free_blocks = l->next_free;
        s->free_count--;
    }
    return l;
}

// Whether a waiting worker is worth waking: there are folders to list and blocks to list them into.
// Under the lock.
static bool _worth_waking(const _scan_t *s) {
    return s->front && s->free_count * 2 >= s->block_count;
}

// The next folder no one has taken, claimed, with a free block to list it into; null when there is no
// such folder or no free block. Under the lock.
static _node_t *_claim_next(_scan_t *s, _listing_t **block) {
    if (!s->free_blocks) {
        return nullptr;
    }
    while (s->front && s->front->state != SCAN_QUEUED) {
        s->front = s->front->next;
    }
    _node_t *n = s->front;
    if (n) {
        n->state = SCAN_CLAIMED;
        s->front = n->next;
        *block = _block_take(s);
    }
    return n;
}

static void _publish(_scan_t *s, _node_t *n, _listing_t *l) {
    os_lock_enter(&s->lock);
    n->listing = l;
    n->state = SCAN_LISTED;
    if (s->waiting_for == n) {
        os_event_set(s->ready);
    }
    os_lock_leave(&s->lock);
}

struct _worker_t {
    _scan_t *scan;
    os_thread_t *thread;
};

static void _worker_proc(void *arg) {
    _scan_t *s = ((_worker_t *) arg)->scan;
    str_t path;
    str_init(&path);
    for (;;) {
        os_lock_enter(&s->lock);
        _listing_t *block = nullptr;
        _node_t *n = _claim_next(s, &block);
        if (!n) {
            bool done = s->done;
            // Reset under the lock: a folder queued or a block handed back after this sets the event
            // again, so none is missed.
            if (!done) {
                os_event_reset(s->work);
            }
            os_lock_leave(&s->lock);
            if (done) {
                break;
            }
            os_event_wait(s->work, OS_INFINITE);
            continue;
        }
        os_lock_leave(&s->lock);
        _publish(s, n, _list(n, &path, block));
    }
    str_kill(&path);
}

// Makes sure the folder is listed: by itself, into its own block, when no one has taken it, else helping
// with the queue while a worker lists it. Its own block is what guarantees progress when every shared
// block waits for delivery. With no workers the lock is still taken, uncontended.
static void _await(_scan_t *s, _node_t *n, str_t *path) {
    for (;;) {
        os_lock_enter(&s->lock);
        if (n->state == SCAN_LISTED) {
            os_lock_leave(&s->lock);
            return;
        }
        _listing_t *block = nullptr;
        _node_t *take = nullptr;
        if (n->state == SCAN_QUEUED) {
            n->state = SCAN_CLAIMED;
            take = n;
            block = s->own;
        } else {
            take = _claim_next(s, &block);
        }
        if (take) {
            os_lock_leave(&s->lock);
            _listing_t *l = _list(take, path, block);
            if (block == s->own) {
                s->own = l;
            }
            _publish(s, take, l);
            continue;
        }
        s->waiting_for = n;
        os_event_reset(s->ready);
        os_lock_leave(&s->lock);
        os_event_wait(s->ready, OS_INFINITE);
    }
}

static bool _excluded(const scan_options_t *o, const str_t *path, size_t name_at, const os_file_info_t *fd,
                      bool folder) {
    if ((o->exclude_hidden && (fd->attributes & OS_ATTR_HIDDEN)) ||
        (o->exclude_system && (fd->attributes & OS_ATTR_SYSTEM))) {
        return true;
    }
    return o->exclude && o->exclude(o->exclude_ctx, path->ptr, (size_t) path->len, path->ptr + name_at,
                                    (size_t) path->len - name_at, fd, folder);
}

// A delivered folder's block goes back: the delivering thread's own to it, any other to the free list, in
// its first size.
static void _block_return(_scan_t *s, _listing_t *l) {
    bool own = l == s->own;
    if (l->capacity > SCAN_BLOCK_SIZE) {
        l = (_listing_t *) mem_realloc(l, SCAN_BLOCK_SIZE);
        l->capacity = SCAN_BLOCK_SIZE;
    }
    if (own) {
        s->own = l;
        return;
    }
    os_lock_enter(&s->lock);
    l->next_free = s->free_blocks;
    s->free_blocks = l;
    s->free_count++;
    if (_worth_waking(s)) {
        os_event_set(s->work);
    }
    os_lock_leave(&s->lock);
}

// Hands a listed folder's items to the caller and queues its folders. Returns the last node queued, which
// is where the next folders go. path is scratch space.
static _node_t *_deliver(_scan_t *s, _node_t *folder, _node_t *last, str_t *path) {
    _listing_t *l = folder->listing;
    folder->listing = nullptr;
    _node_path(folder, path);
    if (path->ptr[path->len - 1] != OS_SEP) {
        str_cat_char(path, OS_SEP);
    }
    int32_t base = path->len;
    _node_t *first = nullptr, *tail = nullptr;
    for (uint32_t at = sizeof(_listing_t); at < l->used;) {
        _entry_t *e = (_entry_t *) ((char *) l + at);
        at += _entry_size(e->name_len);
        path->len = base;
        str_cat(path, e->name, (int) e->name_len);
        // A junction or folder link carries the folder bit: it is a folder to the excludes and in the
        // result, as in a created file list, but what it points at is not this tree's and isn't entered.
        bool is_folder = e->is_folder || (e->is_link && (e->info.attributes & OS_ATTR_DIRECTORY));
        if (is_folder) {
            e->info.size = 0;
        }
        if (_excluded(s->options, path, (size_t) base, &e->info, is_folder)) {
            continue;
        }
        uintptr_t tag = s->proc(s->ctx, folder->tag, is_folder, !e->is_folder && is_folder, e->name,
                                e->name_len, &e->info);
        if (!e->is_folder) {
            continue;
        }
        _node_t *n = (_node_t *) mem_stack_alloc(&s->nodes, offsetof(_node_t, name) + e->name_len + 1);
        n->parent = folder;
        n->next = nullptr;
        n->listing = nullptr;
        n->tag = tag;
        n->state = SCAN_QUEUED;
        n->name_len = e->name_len;
        memcpy(n->name, e->name, e->name_len + 1);
        if (tail) {
            tail->next = n;
        } else {
            first = n;
        }
        tail = n;
    }
    _block_return(s, l);
    if (!first) {
        return last;
    }
    // The whole folder's worth goes on the queue under one taking of the lock.
    os_lock_enter(&s->lock);
    last->next = first;
    if (!s->front) {
        s->front = first;
    }
    if (_worth_waking(s)) {
        os_event_set(s->work);
    }
    os_lock_leave(&s->lock);
    return tail;
}

static uint32_t _thread_count(const scan_options_t *o) {
    uint32_t n = o->threads;
    if (n == 0) {
        n = max_threads > 0 ? (uint32_t) max_threads : (uint32_t) os_processor_count();
    }
    return n < 1 ? 1 : n > SCAN_MAX_THREADS ? SCAN_MAX_THREADS : n;
}

static void _run(_scan_t *s, _node_t *root) {
    uint32_t threads = _thread_count(s->options), workers = threads - 1;
    s->own = _block_new();
    // Made here, on the delivering thread, so that they come from its heap and go back to it.
    for (uint32_t i = 0; workers && i < threads * SCAN_BLOCKS_PER_THREAD; i++) {
        _listing_t *l = _block_new();
        l->next_free = s->free_blocks;
        s->free_blocks = l;
        s->free_count++;
        s->block_count++;
    }
    _worker_t *w = workers ? (_worker_t *) mem_alloc(workers * sizeof(_worker_t)) : nullptr;
    for (uint32_t i = 0; i < workers; i++) {
        w[i].scan = s;
        w[i].thread = os_thread_create(_worker_proc, &w[i]);
    }
    str_t path;
    str_init(&path);
    _node_t *last = root;
    for (_node_t *n = root; n; n = n->next) {
        _await(s, n, &path);
        last = _deliver(s, n, last, &path);
    }
    str_kill(&path);
    os_lock_enter(&s->lock);
    s->done = true;
    os_event_set(s->work);
    os_lock_leave(&s->lock);
    for (uint32_t i = 0; i < workers; i++) {
        os_thread_destroy(w[i].thread);
    }
    mem_free(w);
    while (s->free_blocks) {
        mem_free(_block_take(s));
    }
    mem_free(s->own);
}

bool folder_scan_each(const char *path, const scan_options_t *options, os_file_info_t *top_info,
                      scan_proc_t proc, void *ctx) {
    uint64_t start = os_counter();
    debug_printf("scanning %s...\n", path);
    size_t len = strlen(path);
    // "/" stays itself: its root is named by the empty text, and "" + "/" + name gives the full path.
    if (len > 1 && (path[len - 1] == '/' || path[len - 1] == OS_SEP)) {
        len--;
    }
    str_t top;
    str_init(&top);
    str_set_n(&top, path, (int) len);
    os_file_info_t fd;
    os_dir_t *probe = os_dir_open(top.len ? top.ptr : OS_SEP_STR);
    // A top folder named by a link is the folder it points at; only links below it are never entered.
    if (!probe || !os_get_target_info(top.len ? top.ptr : OS_SEP_STR, &fd)) {
        debug_printf("failed to open directory %d\n", (int) os_last_error());
        os_dir_close(probe);
        str_kill(&top);
        return false;
    }
    os_dir_close(probe);
    fd.size = 0;
    if (top_info) {
        *top_info = fd;
    }
    _scan_t s;
    memset(&s, 0, sizeof(s));
    s.options = options;
    s.proc = proc;
    s.ctx = ctx;
    mem_stack_init(&s.nodes);
    os_lock_init(&s.lock);
    s.work = os_event_create(false);
    s.ready = os_event_create(false);
    // The Linux root "/" is named by the empty text, so that its children's paths come out as "/usr".
    uint32_t root_len = (top.len == 1 && top.ptr[0] == '/') ? 0 : (uint32_t) top.len;
    _node_t *root = (_node_t *) mem_stack_alloc(&s.nodes, offsetof(_node_t, name) + root_len + 1);
    memset(root, 0, offsetof(_node_t, name));
    root->state = SCAN_QUEUED;
    root->name_len = root_len;
    memcpy(root->name, top.ptr, root_len);
    root->name[root_len] = 0;
    s.front = root;
    _run(&s, root);
    os_event_destroy(s.ready);
    os_event_destroy(s.work);
    os_lock_kill(&s.lock);
    mem_stack_kill(&s.nodes);
    str_kill(&top);
    uint64_t us = (os_counter() - start) * 1000000 / os_counter_frequency();
    debug_printf("scan completed in %f seconds\n", (int) us);
    return true;
}

// ---- the scan into a result ----------------------------------------------------------------------------

struct _result_ctx_t {
    scan_result_t *r;
    const char *top;
    uint32_t top_len;
    os_file_info_t top_info;
};

static scan_item_t *_item_new(scan_result_t *r, scan_item_t *parent, const char *name, uint32_t len,
                              const os_file_info_t *fd) {
    scan_item_t *it = (scan_item_t *) mem_stack_alloc(&r->pool, offsetof(scan_item_t, name) + len + 1);
    it->next = nullptr;
    it->parent = parent;
    it->tag = 0;
    it->link = false;
    it->fd = *fd;
    it->name_len = len;
    memcpy(it->name, name, len);
    it->name[len] = 0;
    return it;
}

static void _append(scan_item_t **first, scan_item_t **last, scan_item_t *it) {
    if (*last) {
        (*last)->next = it;
    } else {
        *first = it;
    }
    *last = it;
}

// The root item is made with the first item below it, or after the scan, once its details are known.
static scan_item_t *_result_root(_result_ctx_t *c) {
    if (!c->r->root) {
        c->r->root = _item_new(c->r, nullptr, c->top, c->top_len, &c->top_info);
    }
    return c->r->root;
}

static uintptr_t _result_proc(void *ctx, uintptr_t parent, bool folder, bool link, const char *name,
                              uint32_t len, const os_file_info_t *fd) {
    _result_ctx_t *c = (_result_ctx_t *) ctx;
    scan_result_t *r = c->r;
    scan_item_t *p = parent ? (scan_item_t *) parent : _result_root(c);
    scan_item_t *it = _item_new(r, p, name, len, fd);
    if (folder) {
        it->link = link;
        _append(&r->folders_first, &r->folders_last, it);
        r->folder_count++;
    } else {
        _append(&r->files_first, &r->files_last, it);
        r->file_count++;
    }
    return (uintptr_t) it;
}

bool folder_scan(const char *path, const scan_options_t *options, scan_result_t *r) {
    size_t len = strlen(path);
    if (len > 1 && (path[len - 1] == '/' || path[len - 1] == OS_SEP)) {
        len--;
    }
    _result_ctx_t c = {r, path, (len == 1 && path[0] == '/') ? 0 : (uint32_t) len, {}};
    if (!folder_scan_each(path, options, &c.top_info, _result_proc, &c)) {
        return false;
    }
    _result_root(&c);
    return true;
}
