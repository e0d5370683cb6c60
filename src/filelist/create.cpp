// -create-file-list: a depth-first walk of one folder tree through the platform's directory listing,
// filtered as it goes, held in memory in the order found, and written out as a list when the walk ends
// (so that a list written inside the tree does not list itself half-written).
#include "filelist/create.h"

#include <cstring>

#include "config/config_vars.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "filelist/filelist.h"
#include "mem/mem.h"
#include "mem/stack.h"
#include "os/os_dir.h"
#include "text/text.h"

// ---- filters -------------------------------------------------------------------------------------------

void filelist_filter_init(filelist_filter_t *f, const char *list) {
    f->items = nullptr;
    db_exclude_item_t **tail = &f->items;
    const char *p = list ? list : "";
    while (*p) {
        const char *e = strchr(p, ';');
        if (!e) {
            e = p + strlen(p);
        }
        if (e > p) {
            db_exclude_item_t **at = tail;
            tail = db_exclude_add(tail, p, (uint32_t) (e - p));
            db_exclude_item_t *item = *at;
            // Here any separator in a regular expression makes it look at the path, escaped or not.
            if (item->kind == DB_EXCLUDE_REGEX || item->kind == DB_EXCLUDE_PATH_REGEX) {
                bool path = memchr(item->text, OS_SEP, item->length) != nullptr;
                item->kind = path ? DB_EXCLUDE_PATH_REGEX : DB_EXCLUDE_REGEX;
            }
        }
        p = *e ? e + 1 : e;
    }
}

void filelist_filter_kill(filelist_filter_t *f) {
    db_exclude_t e = {};
    e.files = f->items;
    db_exclude_kill(&e);
    f->items = nullptr;
}

bool filelist_filter_match(const filelist_filter_t *f, void *match_data, const char *name, uint32_t len,
                           const char *path, uint32_t plen) {
    for (const db_exclude_item_t *item = f->items; item; item = item->next) {
        // The index's exclude rule takes a plain path as the folder and all below it; here it names one
        // item, so that a files filter that names a folder's path leaves that folder's files listed.
        if (item->kind == DB_EXCLUDE_PATH) {
            if (text_compare_lower(path, plen, item->match, item->match_length) == 0) {
                return true;
            }
        } else if (db_exclude_item_match(item, match_data, name, len, path, plen)) {
            return true;
        }
    }
    return false;
}

// ---- the walk ------------------------------------------------------------------------------------------

struct _item_t {
    _item_t *next;
    os_file_info_t fd;
    uint32_t path_len;
    char path[1];
};

struct _level_t {
    os_dir_t *dir;
    int path_len; // the folder's own path length; its entries are appended behind it
};

struct _walk_t {
    filelist_filter_t exclude_files;
    filelist_filter_t exclude_folders;
    filelist_filter_t include_only;
    void *match_data;
    mem_stack_t pool;
    _item_t *first;
    _item_t *last;
    size_t count;
    _level_t *levels;
    int depth;
    int cap;
};

static void _add(_walk_t *w, const str_t *path, const os_file_info_t *fd) {
    _item_t *it = (_item_t *) mem_stack_alloc(&w->pool, offsetof(_item_t, path) + (size_t) path->len + 1);
    it->next = nullptr;
    it->fd = *fd;
    // The find data's form: a date the platform doesn't keep is 0, which the row leaves out.
    if (it->fd.date_modified == UINT64_MAX) {
        it->fd.date_modified = 0;
    }
    if (it->fd.date_created == UINT64_MAX) {
        it->fd.date_created = 0;
    }
    if (it->fd.date_accessed == UINT64_MAX) {
        it->fd.date_accessed = 0;
    }
    it->path_len = (uint32_t) path->len;
    memcpy(it->path, path->ptr, (size_t) path->len + 1);
    if (w->last) {
        w->last->next = it;
    } else {
        w->first = it;
    }
    w->last = it;
    w->count++;
}

static void _push(_walk_t *w, os_dir_t *dir, int path_len) {
    if (w->depth == w->cap) {
        w->cap = w->cap ? w->cap * 2 : 32;
        w->levels = (_level_t *) mem_realloc(w->levels, (size_t) w->cap * sizeof(_level_t));
    }
    w->levels[w->depth++] = {dir, path_len};
}

// Whether an entry is kept, with its full path in path and its name at name_at.
static bool _keep(_walk_t *w, const str_t *path, int name_at, bool folder) {
    const char *name = path->ptr + name_at;
    uint32_t len = (uint32_t) (path->len - name_at);
    if (folder) {
        return !filelist_filter_match(&w->exclude_folders, w->match_data, name, len, path->ptr,
                                      (uint32_t) path->len);
    }
    if (w->include_only.items &&
        !filelist_filter_match(&w->include_only, w->match_data, name, len, path->ptr, (uint32_t) path->len)) {
        return false;
    }
    return !filelist_filter_match(&w->exclude_files, w->match_data, name, len, path->ptr,
                                  (uint32_t) path->len);
}

// Pre-order: each entry is listed as it is found and a folder is entered at once, so a folder's
// contents follow it directly. One open listing per level, held on an explicit stack rather than the
// call stack, as trees can be deeper than a thread's stack likes.
static bool _walk(_walk_t *w, const char *folder) {
    str_t path;
    str_init(&path);
    str_set(&path, folder);
    if (path.len > 0 && (path.ptr[path.len - 1] == OS_SEP || path.ptr[path.len - 1] == '/')) {
        path.ptr[--path.len] = 0;
    }
    // The Linux top "/" is "" once its separator is gone, and every path below it starts with one.
    os_dir_t *top = os_dir_open(path.len ? path.ptr : OS_SEP_STR);
    if (!top) {
        debug_printf("create file list: failed to open %s %u\n", folder, os_last_error());
        str_kill(&path);
        return false;
    }
    _push(w, top, path.len);
    os_dir_entry_t e;
    while (w->depth) {
        _level_t *level = &w->levels[w->depth - 1];
        path.len = level->path_len;
        path.ptr[path.len] = 0;
        if (!os_dir_next(level->dir, &e)) {
            os_dir_close(level->dir);
            w->depth--;
            continue;
        }
        str_cat_char(&path, OS_SEP);
        int name_at = path.len;
        str_cat(&path, e.name, (int) e.name_len);
        // A folder junction carries the folder bit: it is filtered as a folder, but never entered.
        bool is_folder = e.is_folder || (e.info.attributes & OS_ATTR_DIRECTORY);
        if (!_keep(w, &path, name_at, is_folder)) {
            continue;
        }
        _add(w, &path, &e.info);
        if (e.is_folder) {
            os_dir_t *sub = os_dir_open(path.ptr);
            if (sub) {
                _push(w, sub, path.len);
            }
        }
    }
    str_kill(&path);
    return true;
}

static bool _write(_walk_t *w, const char *list_path) {
    filelist_writer_t out;
    if (!filelist_writer_open(&out, list_path)) {
        debug_printf("create file list: failed to create %s %u\n", list_path, os_last_error());
        return false;
    }
    size_t cut = 0;
    if (file_list_relative_paths && w->count) {
        const char **paths = (const char **) mem_alloc(w->count * sizeof(char *));
        size_t i = 0;
        for (const _item_t *it = w->first; it; it = it->next) {
            paths[i++] = it->path;
        }
        cut = filelist_relative_prefix(list_path, paths, w->count);
        mem_free(paths);
    }
    filelist_write_header(&out);
    for (const _item_t *it = w->first; it; it = it->next) {
        filelist_write_row(&out, FILELIST_ROW_CREATE, it->path + cut, it->path_len - cut, &it->fd);
    }
    // A failed write is not this command's concern: the list is as complete as the disk allowed.
    filelist_writer_close(&out);
    return true;
}

bool filelist_create(const char *list_path, const char *folder, const char *exclude_files,
                     const char *exclude_folders, const char *include_only_files) {
    _walk_t w = {};
    filelist_filter_init(&w.exclude_files, exclude_files);
    filelist_filter_init(&w.exclude_folders, exclude_folders);
    filelist_filter_init(&w.include_only, include_only_files);
    w.match_data = db_exclude_match_data_create();
    mem_stack_init(&w.pool);
    uint32_t start = debug_now_us();
    bool ok = _walk(&w, folder);
    filelist_filter_kill(&w.exclude_files);
    filelist_filter_kill(&w.exclude_folders);
    filelist_filter_kill(&w.include_only);
    db_exclude_match_data_destroy(w.match_data);
    mem_free(w.levels);
    if (ok) {
        ok = _write(&w, list_path);
        debug_printf("create file list: %d items in %f seconds\n", (int) w.count,
                     (int) (debug_now_us() - start));
    }
    mem_stack_kill(&w.pool);
    return ok;
}
