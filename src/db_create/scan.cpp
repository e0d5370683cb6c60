// The rebuild's folder scan: the folder module's scan with the index's excludes, its items handed to the
// rebuild in scan order. Folder excludes apply during the walk, so that an excluded tree is never
// entered; file excludes are the merge's business, as for every other source.
#include "db_create/db_create.h"
#include "folder/folder.h"

db_folder_scan_t db_folder_scan = db_folder_scan_default;

struct _scan_ctx_t {
    const db_exclude_t *exclude;
    void *match_data;
};

static bool _scan_exclude(void *c, const char *path, size_t path_len, const char *name, size_t name_len,
                          const os_file_info_t *fd, bool folder) {
    _scan_ctx_t *ctx = (_scan_ctx_t *) c;
    return folder && db_exclude_folder(ctx->exclude, ctx->match_data, name, (uint32_t) name_len, path,
                                       (uint32_t) path_len);
}

bool db_folder_scan_default(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc, void *ctx) {
    _scan_ctx_t sc = {exclude, db_exclude_match_data_create()};
    scan_options_t options = {exclude->exclude_hidden, exclude->exclude_system, _scan_exclude, &sc};
    scan_result_t r;
    scan_result_init(&r);
    bool ok = folder_scan(path, &options, &r);
    db_exclude_match_data_destroy(sc.match_data);
    // The root stands for the source itself: its children are the source's top records (handle 0).
    // Folders come before what they hold, so each parent's handle is known when its children are.
    for (scan_item_t *it = r.folders_first; ok && it; it = it->next)
        it->tag = proc(ctx, it->parent->tag, true, it->name, it->name_len, &it->fd);
    for (scan_item_t *it = r.files_first; ok && it; it = it->next)
        proc(ctx, it->parent->tag, false, it->name, it->name_len, &it->fd);
    scan_result_kill(&r);
    return ok;
}
