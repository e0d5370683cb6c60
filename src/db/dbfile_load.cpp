// Reading the index back from its file: indexes become references, delta-coded names are rebuilt, the
// sorted arrays are taken as they stand, so that a load sorts nothing.
//
// The file is outside input. Every count is trusted only as far as the data behind it goes: buffers
// grow with what is read, loops stop at the stream's first error, a parent chain that loops is refused,
// and no record can be larger than the pool serves. A failure returns false at once; the caller clears
// whatever was built.
#include <cstring>

#include "config/config.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"

#define UNRESOLVED 0xFFFFFFFFu
#define VISITING   0xFFFFFFFEu

struct _reader_t {
    db_t *db;
    os_file_stream_t *s;
    const db_load_settings_t *settings;
    uint32_t F, N, S;
    uint32_t *raw;    // raw parent value of each folder
    uint32_t *fs_of;  // source index of each folder
    uint8_t *seen;    // one bit per record, for the duplicate check of the arrays
    mem_ref_t *files; // file records while they are read; the array is laid out once they are all in
    uint32_t files_cap;
    // Flat copies of the two record arrays: the sorted arrays name records by index in a random order,
    // and one flat lookup costs less than a walk through the chunk table.
    mem_ref_t *folder_refs;
    bool counts_children; // some source is a volume, whose folders count their children
};

// ---- the source records --------------------------------------------------------------------------------

static bool _same(const char *a, const char *b) {
    return strcmp(a ? a : "", b ? b : "") == 0;
}

// A settings path in the form the index keeps its sources in (resolved, no trailing separator), so that
// "/srv/tree/" finds the source "/srv/tree" as the rebuild that made it did.
static bool _same_path(const char *setting, const char *stored) {
    str_t resolved;
    str_init(&resolved);
    db_build_resolve_path(&resolved, setting);
    bool same = _same(resolved.ptr, stored);
    str_kill(&resolved);
    return same;
}

static void _match_volume(const _reader_t *r, db_fs_t *fs) {
    fs->monitor = false;
    fs->load_recent_changes = false;
    const config_frozen_t *c = r->settings ? r->settings->config : nullptr;
    if (!c)
        return;
    const config_vec_t<config_volume_t> *list = fs->type == DB_FS_NTFS ? &c->ntfs_volumes : &c->refs_volumes;
    for (int i = 0; i < list->count; i++) {
        const config_volume_t *v = &list->items[i];
        if (_same(v->guid, fs->guid) && _same(v->path, fs->path) && _same(v->root, fs->root)) {
            fs->monitor = v->monitor != 0;
            fs->load_recent_changes = v->load_recent_changes != 0;
            return;
        }
    }
}

static void _match_file_list(const _reader_t *r, db_fs_t *fs) {
    fs->monitor = true;
    const config_frozen_t *c = r->settings ? r->settings->config : nullptr;
    for (int i = 0; c && i < c->filelists.count; i++) {
        if (_same_path(c->filelists.items[i].filename, fs->filename)) {
            fs->monitor = c->filelists.items[i].monitor != 0;
            return;
        }
    }
}

static void _match_folder(const _reader_t *r, db_fs_t *fs) {
    fs->monitor = true;
    fs->buffer_size = 65536;
    fs->rescan_if_full = false;
    fs->update_type = DB_UPDATE_DAILY;
    fs->update_value = 3;
    const config_frozen_t *c = r->settings ? r->settings->config : nullptr;
    if (!c)
        return;
    for (int i = 0; i < c->folders.count; i++) {
        const config_folder_t *f = &c->folders.items[i];
        if (!_same_path(f->path, fs->path))
            continue;
        fs->monitor = f->monitor != 0;
        fs->buffer_size = (uint32_t) f->buffer_size;
        fs->rescan_if_full = f->rescan_if_full != 0;
        db_folder_schedule(f, &fs->update_type, &fs->update_value);
        break;
    }
    // With rescan_asap a scheduled folder is rescanned soon after every start; otherwise the schedule
    // goes on from now.
    if (c->folder_update_rescan_asap)
        fs->next_update = 0;
    else
        fs->next_update = db_folder_next_update(fs->update_type, fs->update_value, os_filetime_now());
}

static void _read_text(os_file_stream_t *s, char **field) {
    str_t t;
    str_init(&t);
    os_stream_read_string(s, &t);
    db_fs_set_text(field, t.ptr);
    str_kill(&t);
}

static void _read_sources(_reader_t *r) {
    os_file_stream_t *s = r->s;
    r->S = os_stream_read_len(s);
    for (uint32_t i = 0; i < r->S && !s->error; i++) {
        uint32_t type = os_stream_read_len(s);
        db_fs_t *fs = db_fs_add(r->db, type);
        fs->out_of_date = os_stream_read_u8(s);
        switch (type) {
        case DB_FS_NTFS:
        case DB_FS_REFS:
            r->counts_children = true;
            _read_text(s, &fs->guid);
            _read_text(s, &fs->path);
            _read_text(s, &fs->root);
            _read_text(s, &fs->include_only);
            fs->journal_id = os_stream_read_u64(s);
            fs->next_usn = os_stream_read_u64(s);
            _match_volume(r, fs);
            break;
        case DB_FS_FILE_LIST:
            _read_text(s, &fs->filename);
            fs->last_write_time = os_stream_read_u64(s);
            _match_file_list(r, fs);
            break;
        case DB_FS_FOLDER:
            _read_text(s, &fs->path);
            fs->next_update = os_stream_read_u64(s);
            _match_folder(r, fs);
            break;
        default:
            debug_printf("invalid index type %d\n", (int) type);
            s->error = true;
            break;
        }
    }
}

// ---- the exclude lists ---------------------------------------------------------------------------------

static bool _needs_path(const db_exclude_item_t *list) {
    for (; list; list = list->next)
        if (list->kind == 0 || list->kind == 8 || list->kind == 10)
            return true;
    return false;
}

static void _read_patterns(os_file_stream_t *s, db_exclude_item_t **list) {
    db_exclude_item_t **tail = list;
    uint32_t n = os_stream_read_len(s);
    str_t text;
    str_init(&text);
    for (uint32_t i = 0; i < n && !s->error; i++) {
        uint32_t kind = os_stream_read_u8(s);
        os_stream_read_string_max(s, &text, 0x7FFFFFFFu);
        // Added as the settings add theirs, so that a regular expression is compiled now and one that
        // doesn't compile stays a text that matches nothing.
        tail = db_exclude_add_stored(tail, kind, text.ptr, (uint32_t) text.len);
    }
    str_kill(&text);
}

static void _read_excludes(_reader_t *r) {
    db_exclude_t *e = &r->db->exclude;
    uint8_t flags = os_stream_read_u8(r->s);
    e->exclude_hidden = (flags & 1) != 0;
    e->exclude_system = (flags & 2) != 0;
    _read_patterns(r->s, &e->folders);
    _read_patterns(r->s, &e->files);
    _read_patterns(r->s, &e->include_only_files);
    e->folder_needs_path = _needs_path(e->folders);
    e->file_needs_path = _needs_path(e->files) || _needs_path(e->include_only_files);
}

// ---- parents -------------------------------------------------------------------------------------------

static bool _check_parent(const _reader_t *r, uint32_t v) {
    if ((uint64_t) v < (uint64_t) r->F + r->S)
        return true;
    debug_printf("invalid parent folder index %d >= %d + %d\n", (int) v, (int) r->F, (int) r->S);
    return false;
}

// The raw parents, grown with the data: a folder count that the file can't back costs nothing.
static bool _read_parents(_reader_t *r) {
    uint32_t cap = 0;
    for (uint32_t i = 0; i < r->F; i++) {
        if (i == cap) {
            cap = r->F - cap < 65536 || cap > r->F / 2 ? r->F : (cap ? cap * 2 : 65536);
            r->raw = (uint32_t *) mem_realloc(r->raw, (size_t) cap * 4);
        }
        r->raw[i] = os_stream_read_u32(r->s);
        if (r->s->error || !_check_parent(r, r->raw[i]))
            return false;
    }
    return true;
}

// Each folder's source, found once for all by walking the raw parents with memory of what was resolved,
// so the work is linear; a chain that comes back to itself is damage, not a tree.
static bool _resolve_sources(_reader_t *r) {
    uint32_t *fs_of = r->fs_of = (uint32_t *) mem_alloc((size_t) r->F * 4 + 4);
    memset(fs_of, 0xFF, (size_t) r->F * 4);
    for (uint32_t i = 0; i < r->F; i++) {
        uint32_t j = i;
        while (fs_of[j] == UNRESOLVED && r->raw[j] < r->F) {
            fs_of[j] = VISITING;
            j = r->raw[j];
        }
        if (fs_of[j] == VISITING) {
            debug_printf("invalid parent folder chain at folder %u\n", j);
            return false;
        }
        if (fs_of[j] == UNRESOLVED)
            fs_of[j] = r->raw[j] - r->F;
        uint32_t fs = fs_of[j];
        for (uint32_t k = i; fs_of[k] == VISITING; k = r->raw[k])
            fs_of[k] = fs;
    }
    return true;
}

// ---- records -------------------------------------------------------------------------------------------

static uint32_t _folder_tail(uint32_t type) {
    return type == DB_FS_NTFS ? 8 : type == DB_FS_REFS ? 16 : 0;
}

// `add`, `cut` and the resulting name length, checked against the previous name.
static bool _read_delta(_reader_t *r, uint32_t prev_len, uint32_t *add, uint32_t *keep, bool folder) {
    *add = os_stream_read_len(r->s);
    uint32_t cut = *add ? os_stream_read_len(r->s) : 0;
    if (cut > prev_len) {
        debug_printf(folder ? "Invalid folder code offset %d > %d.\n" : "Invalid file code offset %d > %d.\n",
                     (int) cut, (int) prev_len);
        return false;
    }
    *keep = prev_len - cut;
    if ((uint64_t) *keep + *add > DB_POOL_LARGE_MAX) {
        debug_printf("invalid name length %u\n", *keep + *add);
        return false;
    }
    return !r->s->error;
}

// Lays out a record: [fs index] [long name length] parent, name_len, the kept part of the previous name
// and the new bytes read from the stream. Returns the reference of the parent field, with data behind.
static db_ref_t _record(_reader_t *r, uint32_t total, bool root, uint32_t fs_index, uint32_t parent,
                        const char *prev, uint32_t keep, uint32_t add) {
    if (total > DB_POOL_LARGE_MAX) {
        debug_printf("invalid record size %u\n", total);
        return 0;
    }
    uint8_t *p = db_ptr(db_record_alloc(r->db, total));
    if (root) {
        memcpy(p, &fs_index, 4);
        p += 4;
    }
    uint32_t len = keep + add;
    if (len >= DB_LONG_NAME) {
        memcpy(p, &len, 4);
        p += 4;
    }
    memcpy(p, &parent, 4);
    p[4] = (uint8_t) (len >= DB_LONG_NAME ? DB_LONG_NAME : len);
    if (keep)
        memcpy(p + 5, prev, keep);
    os_read(r->s, p + 5 + keep, add);
    return db_ref(p);
}

static bool _read_folders(_reader_t *r) {
    db_t *db = r->db;
    const db_structure_t *st = &db->structure;
    mem_array_alloc_bulk(&db->folders, r->F);
    r->folder_refs = (mem_ref_t *) mem_alloc((size_t) r->F * 4 + 4);
    const char *prev = "";
    uint32_t prev_len = 0;
    for (uint32_t i = 0; i < r->F; i++) {
        uint32_t add, keep;
        if (!_read_delta(r, prev_len, &add, &keep, true))
            return false;
        bool root = r->raw[i] >= r->F;
        uint32_t type = db_fs_get(db, r->fs_of[i])->type;
        uint32_t total = db_folder_record_size(st, type, root, keep + add);
        db_ref_t rec = _record(r, total, root, r->fs_of[i], r->raw[i], prev, keep, add);
        if (!rec)
            return false;
        uint8_t *data = db_record_data(rec);
        os_read(r->s, data, st->folder_data_size + _folder_tail(type));
        // The child count is not stored: the files and the FRN arrays rebuild it below.
        if (_folder_tail(type))
            memset(data + st->folder_data_size + _folder_tail(type), 0, 4);
        *mem_array_bulk_slot(&db->folders, i) = rec;
        r->folder_refs[i] = rec;
        prev = db_record_name(rec, &prev_len);
        if (r->s->error)
            return false;
    }
    uint32_t start = debug_now_us();
    for (uint32_t i = 0; i < r->F; i++) {
        uint32_t raw = r->raw[i];
        *(uint32_t *) db_ptr(r->folder_refs[i]) = raw < r->F ? r->folder_refs[raw] : 0;
    }
    debug_printf("convert all folder parent indexes into folder parent folders %f seconds\n",
                 (int) (debug_now_us() - start));
    return true;
}

// One more child for a folder of a volume source; other folders keep no count.
static void _count_child(_reader_t *r, uint32_t folder_index) {
    if (!r->counts_children)
        return;
    uint32_t type = db_fs_get(r->db, r->fs_of[folder_index])->type;
    if (type != DB_FS_NTFS && type != DB_FS_REFS)
        return;
    db_ref_t folder = r->folder_refs[folder_index];
    uint8_t *count = db_record_data(folder) + r->db->structure.folder_data_size + _folder_tail(type);
    uint32_t n;
    memcpy(&n, count, 4);
    n++;
    memcpy(count, &n, 4);
}

static bool _read_file(_reader_t *r, const char **prev, uint32_t *prev_len, db_ref_t *out) {
    db_t *db = r->db;
    uint32_t v = os_stream_read_u32(r->s);
    if (r->s->error || !_check_parent(r, v))
        return false;
    uint32_t add, keep;
    if (!_read_delta(r, *prev_len, &add, &keep, false))
        return false;
    bool root = v >= r->F;
    db_ref_t parent = root ? 0 : r->folder_refs[v];
    uint32_t total = db_file_record_size(&db->structure, root, keep + add);
    db_ref_t rec = _record(r, total, root, root ? v - r->F : 0, parent, *prev, keep, add);
    if (!rec)
        return false;
    os_read(r->s, db_record_data(rec), db->structure.file_data_size);
    if (!root)
        _count_child(r, v);
    *prev = db_record_name(rec, prev_len);
    *out = rec;
    return !r->s->error;
}

static bool _read_files(_reader_t *r) {
    const char *prev = "";
    uint32_t prev_len = 0;
    for (uint32_t i = 0; i < r->N; i++) {
        if (i == r->files_cap) {
            uint32_t cap = r->files_cap;
            r->files_cap = r->N - cap < 65536 || cap > r->N / 2 ? r->N : (cap ? cap * 2 : 65536);
            r->files = (mem_ref_t *) mem_realloc(r->files, (size_t) r->files_cap * 4);
        }
        if (!_read_file(r, &prev, &prev_len, &r->files[i]))
            return false;
    }
    if (r->N) {
        mem_array_alloc_bulk(&r->db->files, r->N);
        for (uint32_t i = 0; i < r->N; i++)
            *mem_array_bulk_slot(&r->db->files, i) = r->files[i];
    }
    return true;
}

// ---- arrays --------------------------------------------------------------------------------------------

#define ARRAY_BATCH 4096

// Reads count indexes into a, each naming a distinct record of flat (folders or files, n of them).
// type_only: for the FRN arrays, the source type every element must have, else -1. The indexes come in
// batches, so that the stream is asked once for thousands of them.
static bool _read_array(_reader_t *r, mem_array_t *a, uint32_t count, const mem_ref_t *flat, uint32_t n,
                        bool folder, int type_only) {
    memset(r->seen, 0, (size_t) n / 8 + 1);
    if (count)
        mem_array_alloc_bulk(a, count);
    uint8_t batch[ARRAY_BATCH * 4];
    for (uint32_t done = 0; done < count;) {
        uint32_t k = count - done < ARRAY_BATCH ? count - done : ARRAY_BATCH;
        os_read(r->s, batch, (size_t) k * 4);
        if (r->s->error)
            return false;
        for (uint32_t j = 0; j < k; j++, done++) {
            const uint8_t *b = batch + 4 * j;
            uint32_t v =
                (uint32_t) b[0] | (uint32_t) b[1] << 8 | (uint32_t) b[2] << 16 | (uint32_t) b[3] << 24;
            bool bad = v >= n || (r->seen[v / 8] & (1 << (v % 8)));
            if (!bad && type_only >= 0)
                bad = db_fs_get(r->db, r->fs_of[v])->type != (uint32_t) type_only;
            if (bad) {
                debug_printf(folder ? "invalid folder index %u\n" : "invalid file index %u\n", v);
                return false;
            }
            r->seen[v / 8] |= (uint8_t) (1 << (v % 8));
            *mem_array_bulk_slot(a, done) = flat[v];
            if (type_only >= 0 && r->raw[v] < r->F)
                _count_child(r, r->raw[v]);
        }
    }
    return true;
}

static bool _read_frn_array(_reader_t *r, mem_array_t *a, uint32_t type) {
    uint32_t count = os_stream_read_u32(r->s);
    if (r->s->error)
        return false;
    if (count > r->F) {
        debug_printf("invalid folder count %u\n", count);
        return false;
    }
    return _read_array(r, a, count, r->folder_refs, r->F, true, (int) type);
}

static bool _read_arrays(_reader_t *r) {
    uint32_t most = r->F > r->N ? r->F : r->N;
    r->seen = (uint8_t *) mem_alloc((size_t) most / 8 + 1);
    if (!_read_frn_array(r, &r->db->ntfs_folders, DB_FS_NTFS) ||
        !_read_frn_array(r, &r->db->refs_folders, DB_FS_REFS))
        return false;
    mem_array_t *arrays[8];
    int n = db_file_arrays(r->db, true, arrays);
    for (int i = 0; i < n && r->F; i++)
        if (!_read_array(r, arrays[i], r->F, r->folder_refs, r->F, true, -1))
            return false;
    n = db_file_arrays(r->db, false, arrays);
    for (int i = 0; i < n && r->N; i++)
        if (!_read_array(r, arrays[i], r->N, r->files, r->N, false, -1))
            return false;
    return true;
}

// ---- the body ------------------------------------------------------------------------------------------

static bool _read_header(_reader_t *r) {
    os_file_stream_t *s = r->s;
    if (os_stream_read_u32(s) != DB_FILE_MAGIC) {
        debug_printf("invalid db magic\n");
        return false;
    }
    if (os_stream_read_u32(s) != DB_FILE_VERSION) {
        debug_printf("unsupported db version\n");
        return false;
    }
    db_structure_set(&r->db->structure, os_stream_read_u32(s));
    r->F = os_stream_read_u32(s);
    r->N = os_stream_read_u32(s);
    debug_printf("Loading structure %08x: %d folders, %d files...\n", r->db->structure.word, (int) r->F,
                 (int) r->N);
    return !s->error;
}

static bool _read_body(_reader_t *r) {
    if (!_read_header(r))
        return false;
    _read_sources(r);
    // Later: unless read_only or monitor_pause is set, the watchers of the folder sources whose monitor
    // is set start here, before their records come in, so that no change is missed.
    _read_excludes(r);
    if (r->s->error)
        return false;
    if (r->F) {
        if (!_read_parents(r) || !_resolve_sources(r) || !_read_folders(r))
            return false;
    }
    if (!_read_files(r))
        return false;
    return _read_arrays(r) && !r->s->error;
}

bool db_file_read(db_t *db, os_file_stream_t *s, const db_load_settings_t *settings) {
    _reader_t r;
    memset(&r, 0, sizeof(r));
    r.db = db;
    r.s = s;
    r.settings = settings;
    bool ok = _read_body(&r);
    mem_free(r.raw);
    mem_free(r.fs_of);
    mem_free(r.seen);
    mem_free(r.files);
    mem_free(r.folder_refs);
    return ok;
}

void db_file_clear(db_t *db) {
    db_arrays_kill(db);
    db_pool_kill(&db->pool);
    db_pool_init(&db->pool);
    db_fs_kill_all(db);
    db_exclude_kill(&db->exclude);
    db->has_content = false;
}

static bool _load_stream(db_t *db, os_file_stream_t *s, bool init_ok, const db_load_settings_t *settings) {
    bool ok = init_ok && !s->error && db_file_read(db, s, settings) && os_stream_read_finish(s);
    os_stream_kill(s);
    if (!ok)
        db_file_clear(db);
    return ok;
}

bool db_file_load(db_t *db, const char *path, bool compressed, const db_load_settings_t *settings) {
    os_file_t f = os_file_open(path, OS_OPEN_READ | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID) {
        // A missing file is the normal first start: the index stays empty and a rebuild follows.
        db_file_clear(db);
        return false;
    }
    os_file_stream_t s;
    bool init_ok = os_stream_init_read(&s, f, compressed);
    bool ok = _load_stream(db, &s, init_ok, settings);
    os_file_close(f);
    return ok;
}

bool db_file_load_memory(db_t *db, const void *data, size_t size, bool compressed,
                         const db_load_settings_t *settings) {
    os_file_stream_t s;
    bool init_ok = os_stream_init_memory(&s, data, size, compressed);
    return _load_stream(db, &s, init_ok, settings);
}
