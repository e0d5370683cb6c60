// The scan: the folder items of the result double as the work list, so walking them in order visits
// every folder once, parents before children, with no second structure to allocate.
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

void scan_item_path(const scan_item_t *item, str_t *out) {
    size_t total = 0;
    for (const scan_item_t *p = item; p; p = p->parent) {
        total += p->name_len + 1;
    }
    str_reserve(out, (int) total + 1);
    // Written from the end, so the walk up the parents needs no second pass or stack.
    char *end = out->ptr + total - 1;
    char *w = end;
    for (const scan_item_t *p = item; p; p = p->parent) {
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

static bool _excluded(const scan_options_t *o, const str_t *path, size_t name_at, const os_file_info_t *fd,
                      bool folder) {
    if ((o->exclude_hidden && (fd->attributes & OS_ATTR_HIDDEN)) ||
        (o->exclude_system && (fd->attributes & OS_ATTR_SYSTEM))) {
        return true;
    }
    return o->exclude && o->exclude(o->exclude_ctx, path->ptr, (size_t) path->len, path->ptr + name_at,
                                    (size_t) path->len - name_at, fd, folder);
}

// Lists one folder: its folders go on the result's folder list (which is the work list), its files on
// the file list.
static void _scan_folder(scan_result_t *r, scan_item_t *folder, const scan_options_t *o, str_t *path) {
    scan_item_path(folder, path);
    if (path->len == 0) {
        str_set(path, OS_SEP_STR); // the Linux root, named by the empty text
    }
    os_dir_t *dir = os_dir_open(path->ptr);
    if (!dir) {
        return;
    }
    if (path->len == 0 || path->ptr[path->len - 1] != OS_SEP) {
        str_cat_char(path, OS_SEP);
    }
    int32_t base = path->len;
    os_dir_entry_t e;
    while (os_dir_next(dir, &e)) {
        path->len = base;
        str_cat(path, e.name, (int) e.name_len);
        // A junction or folder link carries the folder bit: it is a folder to the excludes and in the
        // result, as in a created file list, but what it points at is not this tree's and isn't entered.
        bool is_folder = e.is_folder || (e.is_link && (e.info.attributes & OS_ATTR_DIRECTORY));
        if (_excluded(o, path, (size_t) base, &e.info, is_folder)) {
            continue;
        }
        scan_item_t *it = _item_new(r, folder, e.name, e.name_len, &e.info);
        if (is_folder) {
            it->link = !e.is_folder;
            it->fd.size = 0;
            _append(&r->folders_first, &r->folders_last, it);
            r->folder_count++;
        } else {
            _append(&r->files_first, &r->files_last, it);
            r->file_count++;
        }
    }
    os_dir_close(dir);
}

bool folder_scan(const char *path, const scan_options_t *options, scan_result_t *r) {
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
    // The Linux root "/" is named by the empty text, so that its children's paths come out as "/usr".
    uint32_t root_len = (top.len == 1 && top.ptr[0] == '/') ? 0 : (uint32_t) top.len;
    r->root = _item_new(r, nullptr, top.ptr, root_len, &fd);
    str_t work;
    str_init(&work);
    _scan_folder(r, r->root, options, &work);
    for (scan_item_t *f = r->folders_first; f; f = f->next) {
        if (!f->link) {
            _scan_folder(r, f, options, &work);
        }
    }
    str_kill(&work);
    str_kill(&top);
    uint64_t us = (os_counter() - start) * 1000000 / os_counter_frequency();
    debug_printf("scan completed in %f seconds\n", (int) us);
    return true;
}
