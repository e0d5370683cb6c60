// The rebuild's folder scan: the folder module's scan with the index's excludes, its items handed to the
// rebuild in scan order as they are found. Folder excludes apply during the walk, so that an excluded tree is
// never entered; file excludes are the merge's business, as for every other source.
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

struct _stream_ctx_t {
    db_scan_proc_t proc;
    void *ctx;
};

static uintptr_t _stream_proc(void *c, uintptr_t parent, bool folder, bool, const char *name, uint32_t len,
                              const os_file_info_t *fd) {
    _stream_ctx_t *s = (_stream_ctx_t *) c;
    return s->proc(s->ctx, parent, folder, name, len, fd);
}

// The scan streams straight into the rebuild's records: the scan holds one small record per folder and
// never the files, so that a build of a large tree needs little beyond the records it makes. A scan that
// fails delivers nothing.
bool db_folder_scan_default(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc, void *ctx) {
    _scan_ctx_t sc = {exclude, db_exclude_match_data_create()};
    scan_options_t options = {exclude->exclude_hidden, exclude->exclude_system, _scan_exclude, &sc, 0};
    _stream_ctx_t stream = {proc, ctx};
    bool ok = folder_scan_each(path, &options, nullptr, _stream_proc, &stream);
    db_exclude_match_data_destroy(sc.match_data);
    return ok;
}
