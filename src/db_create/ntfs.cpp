// The NTFS branch of the build: a source's volume opened and its file table read by the NTFS reader, each
// name handed to the build as a volume entry. On Linux a source's guid may name a block device or an
// image file; on Windows it names the volume device.
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "ntfs/ntfs.h"
#include "text/text.h"

struct _volume_t {
    os_file_t handle;
    ntfs_boot_info_t info;
};

// The path the volume is opened by: the guid where there is one, the drive path otherwise.
static const char *_volume_path(const db_build_source_t *src) {
    if (src->guid && *src->guid)
        return src->guid;
    return src->path ? src->path : "";
}

static void *_open(const db_build_source_t *src) {
    const char *path = _volume_path(src);
    os_file_t h = os_open_volume(path, OS_VOLUME_READ, false);
    if (h == OS_FILE_INVALID) {
        // The service route that could open it for us comes with the service; until then a refused
        // volume stays unread.
        if (os_last_error() == os_error_access_denied())
            debug_printf("access denied %s\n", path);
        return nullptr;
    }
    _volume_t *v = (_volume_t *) mem_alloc(sizeof(_volume_t));
    v->handle = h;
    if (!ntfs_read_boot_sector(h, &v->info)) {
        os_file_close(h);
        mem_free(v);
        return nullptr;
    }
    return v;
}

// No journal is followed yet: the journal monitor that would replay changes made during the read isn't
// part of this build. Reporting "no journal" would mark every monitored volume out of date and stop its
// re-use, so the position is given as the start of an empty journal.
static bool _query_journal(void *volume, uint64_t *journal_id, uint64_t *next_usn) {
    (void) volume;
    *journal_id = 0;
    *next_usn = 0;
    return true;
}

struct _read_t {
    db_build_ctx_t *ctx;
    char *name; // UTF-8 of the name in hand; a name is at most 255 units, 3 bytes each
};

static void _entry(void *user, const ntfs_file_record_t *r) {
    _read_t *rd = (_read_t *) user;
    char *end = utf16_to_utf8_counted(rd->name, r->name, r->name_length);
    db_volume_entry_t e;
    e.frn_low = r->frn;
    e.frn_high = 0;
    e.parent_frn_low = r->parent_frn;
    e.parent_frn_high = 0;
    e.name = rd->name;
    e.name_len = (uint32_t) (end - rd->name);
    e.fd.size = r->size;
    e.fd.date_modified = r->date_modified;
    e.fd.date_created = r->date_created;
    e.fd.date_accessed = r->date_accessed;
    e.fd.attributes = r->attributes;
    db_build_volume_entry(rd->ctx, &e);
}

static bool _read(void *volume, db_build_ctx_t *ctx) {
    _volume_t *v = (_volume_t *) volume;
    _read_t rd = {ctx, (char *) mem_alloc(256 * 4 + 1)};
    ntfs_enum_mft(v->handle, &v->info, NTFS_WANT_ALL, &rd, _entry);
    mem_free(rd.name);
    return true;
}

static void _close(void *volume) {
    _volume_t *v = (_volume_t *) volume;
    os_file_close(v->handle);
    mem_free(v);
}

const db_volume_reader_t db_ntfs_volume_reader = {_open, _query_journal, _read, _close};

void db_ntfs_source_add(const char *volume, const char *name) {
    config_vec_t<config_volume_t> *v = &config_ntfs_volumes;
    if (v->count == v->cap) {
        v->cap = v->cap ? v->cap * 2 : 4;
        v->items = (config_volume_t *) mem_realloc(v->items, (size_t) v->cap * sizeof(config_volume_t));
    }
    config_volume_t *c = &v->items[v->count++];
    memset(c, 0, sizeof(*c));
    c->guid = mem_dup(volume, strlen(volume));
    c->path = mem_dup(name, strlen(name));
    c->root = mem_dup("", 0);
    c->include_only = mem_dup("", 0);
    c->include = 1;
    c->monitor = 0;
}
