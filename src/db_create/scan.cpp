// The built-in folder scan: a work list of folders walked with os_dir, folder excludes applied before a
// folder is entered, so that an excluded tree costs nothing.
#include <cstring>

#include "db_create/db_create.h"
#include "mem/mem.h"
#include "os/os_dir.h"

db_folder_scan_t db_folder_scan = db_folder_scan_default;

struct _work_t {
    char *path;
    uintptr_t handle;
};

bool db_folder_scan_default(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc, void *ctx) {
    os_dir_t *top = os_dir_open(path);
    if (!top)
        return false;
    os_dir_close(top);
    uint32_t cap = 64, n = 0;
    _work_t *work = (_work_t *) mem_alloc(cap * sizeof(_work_t));
    work[n++] = {mem_dup(path, strlen(path)), 0};
    void *md = db_exclude_match_data_create();
    str_t child;
    str_init(&child);
    while (n) {
        _work_t w = work[--n];
        os_dir_t *dir = os_dir_open(w.path);
        os_dir_entry_t e;
        while (dir && os_dir_next(dir, &e)) {
            if (db_exclude_attributes(exclude, e.info.attributes))
                continue;
            str_path_cat(&child, w.path, (int) strlen(w.path), e.name, (int) e.name_len);
            if (e.is_folder) {
                if (db_exclude_folder(exclude, md, e.name, e.name_len, child.ptr, (uint32_t) child.len))
                    continue;
                uintptr_t h = proc(ctx, w.handle, true, e.name, e.name_len, &e.info);
                if (n == cap) {
                    cap *= 2;
                    work = (_work_t *) mem_realloc(work, cap * sizeof(_work_t));
                }
                work[n++] = {mem_dup(child.ptr, (size_t) child.len), h};
            } else {
                proc(ctx, w.handle, false, e.name, e.name_len, &e.info);
            }
        }
        os_dir_close(dir);
        mem_free(w.path);
    }
    str_kill(&child);
    db_exclude_match_data_destroy(md);
    mem_free(work);
    return true;
}
