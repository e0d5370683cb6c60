// The tree step: a list names paths, the index needs parent links. The items are sorted so that every
// folder comes before what it holds and what it holds is one run; one pass then keeps a chain of the open
// folders and compares each path with that chain only, never searching.
#include "filelist/filelist.h"

#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"

// Index of the first byte where a and b differ, or n when their first n bytes agree. Eight bytes are
// compared at a time: paths share long prefixes, so a byte loop spends most of its time in agreement.
static size_t _mismatch(const char *a, const char *b, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x, y;
        memcpy(&x, a + i, 8);
        memcpy(&y, b + i, 8);
        if (x != y) {
            // The lowest differing bit of the little-endian word lies in the first differing byte.
            return i + (size_t) (__builtin_ctzll(x ^ y) >> 3);
        }
    }
    while (i < n && a[i] == b[i]) {
        i++;
    }
    return i;
}

// The separator sorts before every other byte, so "a\b" comes before "a b" and "a!": otherwise a folder's
// contents would be split by its neighbours' names.
int filelist_path_compare(const char *a, size_t alen, const char *b, size_t blen, char sep) {
    size_t n = alen < blen ? alen : blen;
    size_t i = _mismatch(a, b, n);
    if (i < n) {
        uint8_t x = (uint8_t) a[i];
        uint8_t y = (uint8_t) b[i];
        int kx = x == (uint8_t) sep ? 0 : x + 1;
        int ky = y == (uint8_t) sep ? 0 : y + 1;
        return kx - ky;
    }
    return alen < blen ? -1 : (alen > blen ? 1 : 0);
}

// ---- the sort ------------------------------------------------------------------------------------------

struct _sort_ctx_t {
    filelist_item_t *const *items;
    char sep;
};

static bool _item_less(const filelist_item_t *a, const filelist_item_t *b, char sep) {
    return filelist_path_compare(a->path, a->path_len, b->path, b->path_len, sep) < 0;
}

static int _index_compare(void *c, uint32_t a, uint32_t b) {
    const _sort_ctx_t *s = (const _sort_ctx_t *) c;
    const filelist_item_t *x = s->items[a], *y = s->items[b];
    return filelist_path_compare(x->path, x->path_len, y->path, y->path_len, s->sep);
}

// A stable merge sort of item numbers on the pool's threads. It skips every merge whose halves are
// already in order, so a list sorted by plain bytes, which differs from the tree order only where a
// name holds a byte below the separator, costs little more than one pass. Rows of one path keep their
// file order, as they do when the list needs no sort at all.
static void _sort_items(filelist_item_t **items, size_t n, char sep) {
    uint32_t *order = (uint32_t *) mem_alloc((n ? n : 1) * sizeof(uint32_t));
    for (size_t i = 0; i < n; i++) {
        order[i] = (uint32_t) i;
    }
    _sort_ctx_t ctx = {items, sep};
    os_qsort_ex(order, n, &ctx, _index_compare);
    filelist_item_t **sorted = (filelist_item_t **) mem_alloc((n ? n : 1) * sizeof(filelist_item_t *));
    for (size_t i = 0; i < n; i++) {
        sorted[i] = items[order[i]];
    }
    memcpy(items, sorted, n * sizeof(filelist_item_t *));
    mem_free(sorted);
    mem_free(order);
}

// ---- the walk ------------------------------------------------------------------------------------------

// One open folder: its name (pointing into an item's path, which lives as long as the list), where the
// name ends in the paths that hold it (the same offset in all of them, since they agree up to there), and
// what the callback called it.
struct _chain_level_t {
    const char *name;
    uint32_t len;
    uint32_t end;
    uintptr_t handle;
};

struct _chain_t {
    _chain_level_t *levels;
    uint32_t depth;
    uint32_t cap;
};

static void _chain_push(_chain_t *c, const char *name, uint32_t len, uint32_t end, uintptr_t handle) {
    if (c->depth == c->cap) {
        c->cap = c->cap ? c->cap * 2 : 64;
        c->levels = (_chain_level_t *) mem_realloc(c->levels, c->cap * sizeof(_chain_level_t));
    }
    c->levels[c->depth++] = {name, len, end, handle};
}

static uintptr_t _chain_top(const _chain_t *c) {
    return c->depth ? c->levels[c->depth - 1].handle : 0;
}

static const os_file_info_t _implied_fd = {0, UINT64_MAX, UINT64_MAX, UINT64_MAX, OS_ATTR_DIRECTORY};

static size_t _path_start(const filelist_item_t *item, char sep) {
    return item->path_len >= 2 && item->path[0] == sep && item->path[1] == sep ? 2 : 0;
}

// The chain holds the folders of the item walked before (and that item itself when it was a folder), so
// every component of this path that ends, with its separator, inside the bytes both paths share is
// already open at its level: only the rest is compared with the chain.
static void _walk_item(_chain_t *chain, const filelist_item_t *item, const filelist_item_t *before, char sep,
                       filelist_tree_proc_t proc, void *ctx) {
    const char *p = item->path;
    size_t len = item->path_len;
    size_t start = _path_start(item, sep);
    size_t shared = 0;
    if (before && _path_start(before, sep) == start) {
        shared = _mismatch(before->path, p, len < before->path_len ? len : before->path_len);
    }
    const char *last = nullptr;
    for (size_t k = len; k > start; k--) {
        if (p[k - 1] == sep) {
            last = p + k - 1;
            break;
        }
    }
    const char *name = last ? last + 1 : p + start;
    if (last) {
        // The folders of the path: the components of [start, last), one more than its separators. Those
        // whose separator lies in the shared bytes are open already and need no look.
        size_t last_at = (size_t) (last - p);
        uint32_t level = 0;
        while (level < chain->depth && chain->levels[level].end < shared &&
               chain->levels[level].end <= last_at) {
            level++;
        }
        size_t pos = level ? (size_t) chain->levels[level - 1].end + 1 : start;
        bool matching = true;
        while (pos <= last_at) {
            const char *c = p + pos;
            const char *e = (const char *) memchr(c, sep, (size_t) (last - c));
            if (!e) {
                e = last;
            }
            uint32_t n = (uint32_t) (e - c);
            uint32_t end = (uint32_t) (e - p);
            if (matching && level < chain->depth && chain->levels[level].len == n &&
                memcmp(chain->levels[level].name, c, n) == 0) {
                // The level takes this path's offset: the next path is compared with this one.
                chain->levels[level].end = end;
                level++;
            } else {
                if (matching) {
                    chain->depth = level;
                    matching = false;
                }
                uintptr_t h = proc(ctx, _chain_top(chain), FILELIST_IMPLIED_FOLDER, c, n, &_implied_fd);
                _chain_push(chain, c, n, end, h);
                level++;
            }
            pos = (size_t) end + 1;
        }
        if (matching) {
            chain->depth = level;
        }
    } else {
        chain->depth = 0;
    }
    uint32_t name_len = (uint32_t) (p + len - name);
    if (name_len == 0) {
        return;
    }
    bool folder = item->flags & FILELIST_ITEM_FOLDER;
    uintptr_t h =
        proc(ctx, _chain_top(chain), folder ? FILELIST_FOLDER : FILELIST_FILE, name, name_len, &item->fd);
    if (folder) {
        _chain_push(chain, name, name_len, (uint32_t) len, h);
    }
}

void filelist_tree(filelist_t *list, filelist_tree_proc_t proc, void *ctx) {
    size_t n = list->count;
    filelist_item_t **items = (filelist_item_t **) mem_alloc((n ? n : 1) * sizeof(filelist_item_t *));
    size_t i = 0;
    for (filelist_item_t *it = list->first; it; it = it->next) {
        items[i++] = it;
    }
    // Lists written by this program or by a sorted listing are in the tree order already: one linear check
    // spares the sort, and leaves the same order a stable sort would.
    bool sorted = true;
    for (i = 1; i < n && sorted; i++) {
        sorted = !_item_less(items[i], items[i - 1], list->sep);
    }
    if (!sorted) {
        _sort_items(items, n, list->sep);
    }
    _chain_t chain = {};
    for (i = 0; i < n; i++) {
        _walk_item(&chain, items[i], i ? items[i - 1] : nullptr, list->sep, proc, ctx);
    }
    mem_free(chain.levels);
    mem_free(items);
    debug_printf("done\n");
}

// ---- the tree while reading ----------------------------------------------------------------------------

// Each folder path the rows have named or implied, once: its parent folder, its name, and the record that
// holds what lies below the path. In the sorted walk that holder is decided by the last row of exactly
// this path: a folder row's own record, or, when the last such row is a file, a folder made implied after
// them all. So a later row of the path can change the holder; the earlier record is remembered, and what
// it holds moves over at the end.
struct _folder_t {
    uint32_t parent; // 1-based index of the parent folder, 0 for the list's top
    uint32_t name;   // offset in the name buffer
    uint32_t len;
    uint32_t hash;
    uintptr_t handle;  // the holder
    bool named;        // the holder is a folder row's record; false while it is implied
    bool cut;          // the last row of this path was a file: the next content needs an implied holder
    bool used;         // some row lies below the path
    uint64_t children; // one bit for each hash of the folders directly below it, so that a file row
                       // whose name is no folder's here is seen without a look into the table
};

// One open level of the previous row's folder: the folder and where its name ends in that row's path.
struct _open_t {
    uint32_t folder;
    uint32_t end;
};

struct _replaced_t {
    uintptr_t handle;
    uint32_t folder;
};

struct filelist_stream_t {
    filelist_sink_t sink;
    char sep;
    _folder_t *folders;
    uint32_t folder_count, folder_cap;
    char *names;
    size_t names_len, names_cap;
    uint32_t *slots; // open addressing: 1-based folder indexes, 0 empty; at most half full
    uint32_t slot_mask;
    _open_t *open;
    uint32_t depth, open_cap;
    str_t prev;        // the previous row's folder part, with its last separator
    size_t prev_start; // where its first component begins (0, or 2 for a server path)
    _replaced_t *replaced;
    uint32_t replaced_count, replaced_cap;
    uint64_t top_children;
};

static uint64_t _bit(uint32_t hash) {
    return 1ull << (hash >> 26);
}

static uint32_t _name_hash(uint32_t parent, const char *name, uint32_t len) {
    uint64_t h = 0xcbf29ce484222325ull ^ ((uint64_t) parent * 0x9E3779B97F4A7C15ull);
    for (uint32_t i = 0; i < len; i++)
        h = (h ^ (uint8_t) name[i]) * 0x100000001b3ull;
    return (uint32_t) (h ^ (h >> 32));
}

static void _slots_grow(filelist_stream_t *s) {
    uint32_t count = (s->slot_mask + 1) * 2;
    uint32_t *slots = (uint32_t *) mem_alloc(count * sizeof(uint32_t));
    memset(slots, 0, count * sizeof(uint32_t));
    for (uint32_t i = 0; i < s->folder_count; i++) {
        uint32_t h = s->folders[i].hash & (count - 1);
        while (slots[h])
            h = (h + 1) & (count - 1);
        slots[h] = i + 1;
    }
    mem_free(s->slots);
    s->slots = slots;
    s->slot_mask = count - 1;
}

// The folder of this parent and name, or 0; *slot_out gets the slot where it would go.
static uint32_t _find(const filelist_stream_t *s, uint32_t parent, const char *name, uint32_t len,
                      uint32_t hash, uint32_t *slot_out) {
    uint32_t h = hash & s->slot_mask;
    for (uint32_t f; (f = s->slots[h]); h = (h + 1) & s->slot_mask) {
        const _folder_t *e = &s->folders[f - 1];
        if (e->hash == hash && e->parent == parent && e->len == len &&
            memcmp(s->names + e->name, name, len) == 0)
            return f;
    }
    *slot_out = h;
    return 0;
}

static uint32_t _add_folder(filelist_stream_t *s, uint32_t slot, uint32_t parent, const char *name,
                            uint32_t len, uint32_t hash, uintptr_t handle, bool named) {
    if (s->folder_count == s->folder_cap) {
        s->folder_cap = s->folder_cap ? s->folder_cap * 2 : 1024;
        s->folders = (_folder_t *) mem_realloc(s->folders, s->folder_cap * sizeof(_folder_t));
    }
    if (s->names_len + len > s->names_cap) {
        s->names_cap = (s->names_cap + len) * 2;
        s->names = (char *) mem_realloc(s->names, s->names_cap);
    }
    memcpy(s->names + s->names_len, name, len);
    s->folders[s->folder_count] = {parent, (uint32_t) s->names_len, len, hash, handle, named, false, false,
                                   false};
    if (parent) {
        s->folders[parent - 1].children |= _bit(hash);
    } else {
        s->top_children |= _bit(hash);
    }
    s->names_len += len;
    s->slots[slot] = ++s->folder_count;
    if (2 * (uint64_t) s->folder_count > s->slot_mask)
        _slots_grow(s);
    return s->folder_count;
}

static uintptr_t _handle(const filelist_stream_t *s, uint32_t folder) {
    return folder ? s->folders[folder - 1].handle : 0;
}

static void _open_push(filelist_stream_t *s, uint32_t folder, uint32_t end) {
    if (s->depth == s->open_cap) {
        s->open_cap = s->open_cap ? s->open_cap * 2 : 64;
        s->open = (_open_t *) mem_realloc(s->open, s->open_cap * sizeof(_open_t));
    }
    s->open[s->depth++] = {folder, end};
}

static void _replace(filelist_stream_t *s, uint32_t folder, uintptr_t handle, bool named) {
    if (s->replaced_count == s->replaced_cap) {
        s->replaced_cap = s->replaced_cap ? s->replaced_cap * 2 : 16;
        s->replaced = (_replaced_t *) mem_realloc(s->replaced, s->replaced_cap * sizeof(_replaced_t));
    }
    _folder_t *e = &s->folders[folder - 1];
    s->replaced[s->replaced_count++] = {e->handle, folder};
    e->handle = handle;
    e->named = named;
}

// Content of a path whose last row was a file: an implied holder, made now unless the holder is one.
static void _reopen(filelist_stream_t *s, uint32_t folder) {
    _folder_t *e = &s->folders[folder - 1];
    e->cut = false;
    if (!e->named) {
        return;
    }
    uintptr_t h = s->sink.proc(s->sink.ctx, _handle(s, e->parent), FILELIST_IMPLIED_FOLDER,
                               s->names + e->name, e->len, &_implied_fd);
    _replace(s, folder, h, false);
}

filelist_stream_t *filelist_stream_create(const filelist_sink_t *sink, char sep) {
    filelist_stream_t *s = (filelist_stream_t *) mem_alloc(sizeof(filelist_stream_t));
    memset(s, 0, sizeof(*s));
    s->sink = *sink;
    s->sep = sep;
    s->slot_mask = 1023;
    s->slots = (uint32_t *) mem_alloc(1024 * sizeof(uint32_t));
    memset(s->slots, 0, 1024 * sizeof(uint32_t));
    // Never null, so that empty names (the Linux top folder) compare and copy like any other.
    s->names_cap = 4096;
    s->names = (char *) mem_alloc(s->names_cap);
    str_init(&s->prev);
    return s;
}

// The folder that holds a row, made of the components of p[start, last): those the previous row shared
// byte for byte stay open; each further one is looked up under its parent, and made (implied) when no
// row has reached it yet. Returns the 1-based folder, 0 for the top.
static uint32_t _open_folder(filelist_stream_t *s, const char *p, size_t start, size_t last) {
    size_t shared = 0;
    if (s->prev_start == start && s->prev.len > 0) {
        size_t n = last + 1 < (size_t) s->prev.len ? last + 1 : (size_t) s->prev.len;
        shared = _mismatch(s->prev.ptr, p, n);
        if (shared == last + 1 && (size_t) s->prev.len == last + 1)
            return s->depth ? s->open[s->depth - 1].folder : 0; // the same folder as the row before
    }
    uint32_t level = 0;
    while (level < s->depth && s->open[level].end < shared)
        level++;
    s->depth = level;
    size_t pos = level ? (size_t) s->open[level - 1].end + 1 : start;
    uint32_t folder = level ? s->open[level - 1].folder : 0;
    while (pos <= last) {
        const char *c = p + pos;
        const char *e = (const char *) memchr(c, s->sep, last - pos);
        size_t end = e ? (size_t) (e - p) : last;
        uint32_t n = (uint32_t) (end - pos), slot = 0;
        uint32_t hash = _name_hash(folder, c, n);
        uint32_t found = _find(s, folder, c, n, hash, &slot);
        if (!found) {
            uintptr_t h =
                s->sink.proc(s->sink.ctx, _handle(s, folder), FILELIST_IMPLIED_FOLDER, c, n, &_implied_fd);
            found = _add_folder(s, slot, folder, c, n, hash, h, false);
        }
        if (s->folders[found - 1].cut) {
            _reopen(s, found);
        }
        s->folders[found - 1].used = true;
        folder = found;
        _open_push(s, folder, (uint32_t) end);
        pos = end + 1;
    }
    str_set_n(&s->prev, p, (int) last + 1);
    s->prev_start = start;
    return folder;
}

void filelist_stream_row(filelist_stream_t *s, const char *p, size_t len, const os_file_info_t *fd,
                         uint8_t flags) {
    size_t start = len >= 2 && p[0] == s->sep && p[1] == s->sep ? 2 : 0;
    const char *last = nullptr;
    for (size_t k = len; k > start && !last; k--) {
        if (p[k - 1] == s->sep) {
            last = p + k - 1;
        }
    }
    uint32_t parent = 0;
    size_t name_at = start;
    if (last) {
        parent = _open_folder(s, p, start, (size_t) (last - p));
        name_at = (size_t) (last - p) + 1;
    } else {
        s->depth = 0;
        str_clear(&s->prev);
    }
    uint32_t n = (uint32_t) (len - name_at);
    if (n == 0)
        return;
    const char *name = p + name_at;
    uint64_t siblings = parent ? s->folders[parent - 1].children : s->top_children;
    if (!(flags & FILELIST_ITEM_FOLDER)) {
        s->sink.proc(s->sink.ctx, _handle(s, parent), FILELIST_FILE, name, n, fd);
        // A file of a folder's path ends that folder's hold on what comes below the path.
        if (!siblings) {
            return;
        }
        uint32_t slot = 0, hash = _name_hash(parent, name, n);
        uint32_t found = siblings & _bit(hash) ? _find(s, parent, name, n, hash, &slot) : 0;
        if (found) {
            s->folders[found - 1].cut = true;
        }
        return;
    }
    uint32_t slot = 0, hash = _name_hash(parent, name, n);
    uint32_t found = _find(s, parent, name, n, hash, &slot);
    if (!found) {
        uintptr_t h = s->sink.proc(s->sink.ctx, _handle(s, parent), FILELIST_FOLDER, name, n, fd);
        _add_folder(s, slot, parent, name, n, hash, h, true);
        return;
    }
    _folder_t *e = &s->folders[found - 1];
    e->cut = false;
    if (!e->named) {
        // An implied holder that a row names: the same record, with the row's details.
        e->named = true;
        s->sink.name(s->sink.ctx, e->handle, fd);
        return;
    }
    _replace(s, found, s->sink.proc(s->sink.ctx, _handle(s, parent), FILELIST_FOLDER, name, n, fd), true);
}

void filelist_stream_finish(filelist_stream_t *s) {
    // Paths whose last row was a file while rows lie below them: their holder is implied. Parents come
    // before their folders, so each is made under its parent's final holder.
    for (uint32_t i = 1; i <= s->folder_count; i++) {
        if (s->folders[i - 1].cut && s->folders[i - 1].used) {
            _reopen(s, i);
        }
    }
    for (uint32_t i = 0; i < s->replaced_count; i++)
        s->sink.move(s->sink.ctx, s->replaced[i].handle, s->folders[s->replaced[i].folder - 1].handle);
    mem_free(s->folders);
    mem_free(s->names);
    mem_free(s->slots);
    mem_free(s->open);
    mem_free(s->replaced);
    str_kill(&s->prev);
    mem_free(s);
    debug_printf("done\n");
}
