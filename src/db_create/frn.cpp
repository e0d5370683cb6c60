// The FRN conversion of a volume source: readers name each record's parent by its file reference
// number; this turns those numbers into parent records, and then limits the source to its root folder
// or its included folders.
#include <cstdlib>
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "text/text.h"

struct _frn_t {
    uint64_t low, high;
};

struct _conv_t {
    db_job_t *job;
    uint32_t type;
};

static _frn_t _frn(const db_job_t *job, uint32_t type, db_ref_t folder) {
    _frn_t f = {0, 0};
    const uint8_t *p = db_build_frn(job, type, folder);
    memcpy(&f.low, p, 8);
    if (type == DB_FS_REFS)
        memcpy(&f.high, p + 8, 8);
    return f;
}

// The parent's FRN, read before the parent field is overwritten.
static _frn_t _parent_frn(const db_job_t *job, uint32_t type, bool folder, db_ref_t r) {
    _frn_t f = {0, 0};
    const uint8_t *p = db_build_parent_frn(job, type, folder, r);
    if (type == DB_FS_NTFS) {
        uint32_t high;
        memcpy(&high, p, 4);
        f.low = (uint64_t) high << 32 | db_record_parent(r);
    } else {
        memcpy(&f.low, p, 8);
        memcpy(&f.high, p + 8, 8);
    }
    return f;
}

static int _frn_cmp(_frn_t a, _frn_t b) {
    if (a.high != b.high)
        return a.high < b.high ? -1 : 1;
    if (a.low != b.low)
        return a.low < b.low ? -1 : 1;
    return 0;
}

static int _by_frn(void *c, uint32_t a, uint32_t b) {
    _conv_t *cv = (_conv_t *) c;
    // Equal FRNs keep the reader's order (the sort is stable), so the same one wins at every build.
    return _frn_cmp(_frn(cv->job, cv->type, a), _frn(cv->job, cv->type, b));
}

static db_ref_t _lookup(_conv_t *cv, const db_ref_t *sorted, uint32_t n, _frn_t key) {
    if (key.low == 0 && key.high == 0)
        return DB_BUILD_TOP;
    uint32_t lo = 0, hi = n;
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        if (_frn_cmp(_frn(cv->job, cv->type, sorted[mid]), key) < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < n && _frn_cmp(_frn(cv->job, cv->type, sorted[lo]), key) == 0 ? sorted[lo] : 0;
}

static void _set_parent(db_ref_t r, db_ref_t p) {
    memcpy(db_ptr(r), &p, 4);
}

// A new top record for the source: a copy of the found folder's name (or the given one), data and FRN.
static db_ref_t _new_top(db_job_t *job, db_build_source_t *src, db_ref_t found, const char *name,
                         uint32_t len) {
    db_build_ctx_t ctx = {job, &job->stack, &job->folder_list, &job->file_list, src, 0, 0};
    os_file_info_t fd = {0, 0, 0, 0, 0};
    db_ref_t top = db_build_folder_new(&ctx, DB_BUILD_TOP, name, len, &fd);
    const db_structure_t *s = &job->structure;
    uint32_t frn_size = src->type == DB_FS_NTFS ? 8 : 16;
    memcpy(db_record_data(top), db_record_data(found), s->folder_data_size + frn_size);
    return top;
}

// Moves every child of from (folders of the flat array and files of the source) to to.
static void _repoint(db_job_t *job, db_build_source_t *src, db_ref_t from, db_ref_t to) {
    for (uint32_t i = 0; i < src->folder_count; i++)
        if (db_record_parent(src->folders[i]) == from)
            _set_parent(src->folders[i], to);
    for (uint32_t i = 0; i < src->file_count; i++) {
        db_ref_t f = mem_list_get(&job->file_list, src->file_first + i);
        if (db_record_parent(f) == from)
            _set_parent(f, to);
    }
}

static void _limit_to_root(db_job_t *job, db_build_source_t *src) {
    uint32_t start = debug_now_us();
    str_t folded, path;
    str_init(&folded);
    str_init(&path);
    term_fold(&folded, src->root, strlen(src->root), TEXT_FOLD_LOWER);
    for (uint32_t i = 0; i < src->folder_count; i++) {
        db_ref_t f = src->folders[i];
        if (!db_build_path(&path, f) ||
            text_compare_lower(path.ptr, (size_t) path.len, folded.ptr, (size_t) folded.len))
            continue;
        debug_printf("found root %t\n", path.ptr, path.len);
        const char *name = src->path ? src->path : "";
        db_ref_t top = _new_top(job, src, f, name, (uint32_t) strlen(name));
        // The old top loses its mark, so everything outside the root is left without a top.
        for (uint32_t k = 0; k < src->folder_count; k++)
            if (db_record_parent(src->folders[k]) == DB_BUILD_TOP)
                _set_parent(src->folders[k], 0);
        _set_parent(f, 0);
        _repoint(job, src, f, top);
        break;
    }
    debug_printf("find root: %f seconds\n", (int) (debug_now_us() - start));
    str_kill(&folded);
    str_kill(&path);
}

static int _str_cmp_lower(const void *a, const void *b) {
    return utf8_strcmp_lower(*(char *const *) a, *(char *const *) b);
}

static void _limit_to_includes(db_job_t *job, db_build_source_t *src) {
    uint32_t start = debug_now_us();
    config_vec_t<char *> list = {};
    config_list_parse(src->include_only, &list);
    debug_printf("create ntfs root list: %f seconds\n", (int) (debug_now_us() - start));
    qsort(list.items, (size_t) list.count, sizeof(char *), _str_cmp_lower);
    for (int i = 0; i < list.count; i++)
        debug_printf("find %d %t\n", i, list.items[i], (int) strlen(list.items[i]));
    debug_printf("allocate and sort root list: %f seconds\n", (int) (debug_now_us() - start));
    db_ref_t *found = (db_ref_t *) mem_alloc(((size_t) list.count + 1) * sizeof(db_ref_t));
    db_ref_t *tops = (db_ref_t *) mem_alloc(((size_t) list.count + 1) * sizeof(db_ref_t));
    memset(found, 0, ((size_t) list.count + 1) * sizeof(db_ref_t));
    str_t path;
    str_init(&path);
    int hits = 0;
    for (uint32_t i = 0; i < src->folder_count && hits < list.count; i++) {
        if (!db_build_path(&path, src->folders[i]))
            continue;
        const char *key = path.ptr;
        char **hit = (char **) bsearch(&key, list.items, (size_t) list.count, sizeof(char *), _str_cmp_lower);
        if (!hit || found[hit - list.items])
            continue;
        debug_printf("include only %t\n", path.ptr, path.len);
        found[hit - list.items] = src->folders[i];
        tops[hit - list.items] = _new_top(job, src, src->folders[i], path.ptr, (uint32_t) path.len);
        hits++;
    }
    debug_printf("find include onlys: %f seconds\n", (int) (debug_now_us() - start));
    for (int i = 0; i < list.count; i++)
        if (!found[i])
            debug_printf("could not find root %d %t\n", i, list.items[i], (int) strlen(list.items[i]));
    debug_printf("new root count %d\n", hits);
    debug_printf("rebuild root list with existing roots: %f seconds\n", (int) (debug_now_us() - start));
    // Everything that isn't under an included folder is left without a top.
    for (uint32_t i = 0; i < src->folder_count; i++)
        if (db_record_parent(src->folders[i]) == DB_BUILD_TOP)
            _set_parent(src->folders[i], 0);
    for (int i = 0; i < list.count; i++)
        if (found[i]) {
            _repoint(job, src, found[i], tops[i]);
            _set_parent(found[i], 0);
        }
    debug_printf("resort root list: %f seconds\n", (int) (debug_now_us() - start));
    str_kill(&path);
    mem_free(found);
    mem_free(tops);
    config_strings_free(&list);
}

void db_build_convert_volume(db_job_t *job, db_build_source_t *src) {
    uint32_t start = debug_now_us();
    _conv_t cv = {job, src->type};
    src->folders = (db_ref_t *) mem_alloc(((size_t) src->folder_count + 1) * sizeof(db_ref_t));
    for (uint32_t i = 0; i < src->folder_count; i++)
        src->folders[i] = mem_list_get(&job->folder_list, src->folder_first + i);
    os_qsort_ex(src->folders, src->folder_count, &cv, _by_frn);
    // Each parent FRN is read before the field it partly lives in is overwritten; the binary search reads
    // only the FRN fields, which stay.
    for (uint32_t i = 0; i < src->folder_count; i++) {
        db_ref_t f = src->folders[i];
        _set_parent(f, _lookup(&cv, src->folders, src->folder_count, _parent_frn(job, src->type, true, f)));
    }
    for (uint32_t i = 0; i < src->file_count; i++) {
        db_ref_t f = mem_list_get(&job->file_list, src->file_first + i);
        db_ref_t p = _lookup(&cv, src->folders, src->folder_count, _parent_frn(job, src->type, false, f));
        // A file is never a top record of a volume.
        _set_parent(f, p == DB_BUILD_TOP ? 0 : p);
    }
    debug_printf("convert parent frn to parent pointers: %f seconds\n", (int) (debug_now_us() - start));
    bool reused = src->existing && !src->existing->out_of_date;
    if (!reused && src->type == DB_FS_NTFS && src->root)
        _limit_to_root(job, src);
    if (!reused && src->include_only)
        _limit_to_includes(job, src);
}
