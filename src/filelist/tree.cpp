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
