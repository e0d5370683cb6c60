// The tree step: a list names paths, the index needs parent links. The items are sorted so that every
// folder comes before what it holds and what it holds is one run; one pass then keeps a chain of the open
// folders and compares each path with that chain only, never searching.
#include "filelist/filelist.h"

#include <algorithm>
#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"

// The separator sorts before every other byte, so "a\b" comes before "a b" and "a!": otherwise a folder's
// contents would be split by its neighbours' names.
int filelist_path_compare(const char *a, size_t alen, const char *b, size_t blen, char sep) {
    size_t n = alen < blen ? alen : blen;
    for (size_t i = 0; i < n; i++) {
        uint8_t x = (uint8_t) a[i];
        uint8_t y = (uint8_t) b[i];
        if (x != y) {
            int kx = x == (uint8_t) sep ? 0 : x + 1;
            int ky = y == (uint8_t) sep ? 0 : y + 1;
            return kx - ky;
        }
    }
    return alen < blen ? -1 : (alen > blen ? 1 : 0);
}

// ---- the sort ------------------------------------------------------------------------------------------

// Below this many items one thread sorts faster than the start of several.
#define FILELIST_PARALLEL_MIN 65536
#define FILELIST_SORT_PARTS   8

struct _sort_part_t {
    filelist_item_t **items;
    size_t count;
    char sep;
};

static bool _item_less(const filelist_item_t *a, const filelist_item_t *b, char sep) {
    return filelist_path_compare(a->path, a->path_len, b->path, b->path_len, sep) < 0;
}

static void _sort_part_proc(void *arg) {
    _sort_part_t *p = (_sort_part_t *) arg;
    char sep = p->sep;
    std::sort(p->items, p->items + p->count,
              [sep](const filelist_item_t *a, const filelist_item_t *b) { return _item_less(a, b, sep); });
}

// Sorts parts on their own threads, then merges neighbours in rounds through a second array. The result
// is the same as one sort's: the order is total up to equal paths, whose relative order nobody sees.
static void _sort_items(filelist_item_t **items, size_t n, char sep) {
    int parts = os_processor_count();
    if (parts > FILELIST_SORT_PARTS) {
        parts = FILELIST_SORT_PARTS;
    }
    if (n < FILELIST_PARALLEL_MIN || parts < 2) {
        _sort_part_t whole = {items, n, sep};
        _sort_part_proc(&whole);
        return;
    }
    _sort_part_t part[FILELIST_SORT_PARTS];
    os_thread_t *threads[FILELIST_SORT_PARTS];
    size_t bounds[FILELIST_SORT_PARTS + 1];
    for (int i = 0; i <= parts; i++) {
        bounds[i] = n * (size_t) i / (size_t) parts;
    }
    for (int i = 0; i < parts; i++) {
        part[i] = {items + bounds[i], bounds[i + 1] - bounds[i], sep};
        threads[i] = os_thread_create(_sort_part_proc, &part[i]);
    }
    for (int i = 0; i < parts; i++) {
        os_thread_destroy(threads[i]);
    }
    filelist_item_t **spare = (filelist_item_t **) mem_alloc(n * sizeof(filelist_item_t *));
    filelist_item_t **from = items;
    filelist_item_t **to = spare;
    auto less = [sep](const filelist_item_t *a, const filelist_item_t *b) { return _item_less(a, b, sep); };
    for (int width = 1; width < parts; width *= 2) {
        for (int i = 0; i < parts; i += 2 * width) {
            size_t lo = bounds[i];
            size_t mid = bounds[std::min(i + width, parts)];
            size_t hi = bounds[std::min(i + 2 * width, parts)];
            std::merge(from + lo, from + mid, from + mid, from + hi, to + lo, less);
        }
        std::swap(from, to);
    }
    if (from != items) {
        memcpy(items, from, n * sizeof(filelist_item_t *));
    }
    mem_free(spare);
}

// ---- the walk ------------------------------------------------------------------------------------------

// One open folder: its name (pointing into an item's path, which lives as long as the list) and what the
// callback called it.
struct _chain_level_t {
    const char *name;
    uint32_t len;
    uintptr_t handle;
};

struct _chain_t {
    _chain_level_t *levels;
    uint32_t depth;
    uint32_t cap;
};

static void _chain_push(_chain_t *c, const char *name, uint32_t len, uintptr_t handle) {
    if (c->depth == c->cap) {
        c->cap = c->cap ? c->cap * 2 : 64;
        c->levels = (_chain_level_t *) mem_realloc(c->levels, c->cap * sizeof(_chain_level_t));
    }
    c->levels[c->depth++] = {name, len, handle};
}

static uintptr_t _chain_top(const _chain_t *c) {
    return c->depth ? c->levels[c->depth - 1].handle : 0;
}

static const os_file_info_t _implied_fd = {0, UINT64_MAX, UINT64_MAX, UINT64_MAX, OS_ATTR_DIRECTORY};

static void _walk_item(_chain_t *chain, const filelist_item_t *item, char sep, filelist_tree_proc_t proc,
                       void *ctx) {
    const char *p = item->path;
    size_t len = item->path_len;
    size_t start = len >= 2 && p[0] == sep && p[1] == sep ? 2 : 0;
    const char *last = nullptr;
    for (size_t k = len; k > start; k--) {
        if (p[k - 1] == sep) {
            last = p + k - 1;
            break;
        }
    }
    const char *name = last ? last + 1 : p + start;
    if (last) {
        // The folders of the path: the components of [start, last), one more than its separators.
        size_t pos = start;
        uint32_t level = 0;
        bool matching = true;
        for (;;) {
            const char *c = p + pos;
            const char *e = (const char *) memchr(c, sep, (size_t) (last - c));
            if (!e) {
                e = last;
            }
            uint32_t n = (uint32_t) (e - c);
            if (matching && level < chain->depth && chain->levels[level].len == n &&
                memcmp(chain->levels[level].name, c, n) == 0) {
                level++;
            } else {
                if (matching) {
                    chain->depth = level;
                    matching = false;
                }
                uintptr_t h = proc(ctx, _chain_top(chain), FILELIST_IMPLIED_FOLDER, c, n, &_implied_fd);
                _chain_push(chain, c, n, h);
                level++;
            }
            if (e == last) {
                break;
            }
            pos = (size_t) (e - p) + 1;
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
        _chain_push(chain, name, name_len, h);
    }
}

void filelist_tree(filelist_t *list, filelist_tree_proc_t proc, void *ctx) {
    size_t n = list->count;
    filelist_item_t **items = (filelist_item_t **) mem_alloc((n ? n : 1) * sizeof(filelist_item_t *));
    size_t i = 0;
    for (filelist_item_t *it = list->first; it; it = it->next) {
        items[i++] = it;
    }
    _sort_items(items, n, list->sep);
    _chain_t chain = {};
    for (i = 0; i < n; i++) {
        _walk_item(&chain, items[i], list->sep, proc, ctx);
    }
    mem_free(chain.levels);
    mem_free(items);
    debug_printf("done\n");
}
