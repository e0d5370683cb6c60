// The orders of the index arrays. Each is a strict total order over distinct records: every level only
// breaks the ties of the one before, and the last levels (bytes, source index) tell any two distinct
// records apart, so that a binary search finds exactly one record.
#include "db/db.h"

#include <cstring>

#include "mem/mem.h"
#include "text/text.h"

// ---- parent chains as flat strings ---------------------------------------------------------------------

#define CHAIN_STACK 256

enum { FOLD_LOWER_BASE, FOLD_LOWER, FOLD_BYTES };

// A parent chain, root first. Short chains live in the frame; deeper ones on the heap.
struct _chain_t {
    db_ref_t *items;
    uint32_t depth;
    db_ref_t stack[CHAIN_STACK];
};

static void _chain_build(_chain_t *c, db_ref_t folder) {
    uint32_t depth = 0;
    db_ref_t r = folder;
    // One walk fills the frame's array from the leaf; only a chain too deep for it is walked a second
    // time, into a heap block of the right size.
    for (; r && depth < CHAIN_STACK; r = db_record_parent(r))
        c->stack[depth++] = r;
    if (!r) {
        for (uint32_t i = 0, j = depth - 1; i < j; i++, j--) {
            db_ref_t t = c->stack[i];
            c->stack[i] = c->stack[j];
            c->stack[j] = t;
        }
        c->items = c->stack;
        c->depth = depth;
        return;
    }
    for (; r; r = db_record_parent(r))
        depth++;
    c->items = (db_ref_t *) mem_alloc(depth * sizeof(db_ref_t));
    c->depth = depth;
    uint32_t i = depth;
    for (r = folder; r; r = db_record_parent(r))
        c->items[--i] = r;
}

static void _chain_kill(_chain_t *c) {
    if (c->items != c->stack)
        mem_free(c->items);
}

// A read position in the flat string of a chain: component comp, bytes p .. end of its name still to
// read, and OS_SEP between components.
struct _cursor_t {
    const db_ref_t *items;
    uint32_t depth;
    uint32_t comp;
    const uint8_t *p;
    const uint8_t *end;
};

static void _cursor_load(_cursor_t *c, uint32_t comp) {
    uint32_t len;
    const char *name = db_record_name(c->items[comp], &len);
    c->comp = comp;
    c->p = (const uint8_t *) name;
    c->end = c->p + len;
}

static bool _cursor_at_end(const _cursor_t *c) {
    return c->p == c->end && c->comp + 1 == c->depth;
}

static int64_t _cursor_remaining(const _cursor_t *c) {
    int64_t n = c->end - c->p;
    for (uint32_t i = c->comp + 1; i < c->depth; i++) {
        uint32_t len;
        db_record_name(c->items[i], &len);
        n += 1 + len;
    }
    return n;
}

// Bytes of the sequence that a byte starts under the decoding rule (1 for ASCII and for bytes that start
// nothing).
static inline int _sequence_length(uint32_t b) {
    if ((b & 0xE0) == 0xC0)
        return 2;
    if ((b & 0xF0) == 0xE0)
        return 3;
    if ((b & 0xF8) == 0xF0)
        return 4;
    return 1;
}

// Moves one byte on in the flat string; the separator behind a component is one byte.
static inline void _cursor_step(_cursor_t *c) {
    if (c->p < c->end)
        c->p++;
    else
        _cursor_load(c, c->comp + 1);
}

// A sequence cut by the end of its component is decoded as the flat string has it: its continuation
// bytes are the separator and the next name's first bytes, exactly as a full path string would give.
static uint32_t _cursor_decode_across(_cursor_t *c) {
    uint8_t buf[4] = {0, 0, 0, 0};
    size_t n = 0;
    _cursor_t t = *c;
    while (n < 4 && !_cursor_at_end(&t)) {
        buf[n++] = t.p < t.end ? *t.p : (uint8_t) OS_SEP;
        _cursor_step(&t);
    }
    int len;
    uint32_t cp = text_decode(buf, n, &len);
    for (int i = 0; i < len; i++)
        _cursor_step(c);
    return cp;
}

// The next character of the flat string under the folding; the caller checked that there is one.
template <int FOLD>
static inline uint32_t _cursor_next(_cursor_t *c) {
    if (c->p == c->end) {
        _cursor_load(c, c->comp + 1);
        return (uint8_t) OS_SEP;
    }
    uint32_t b = *c->p;
    if (FOLD == FOLD_BYTES || b < 0x80) {
        c->p++;
        return FOLD == FOLD_BYTES ? b : ascii_lower[b];
    }
    uint32_t cp;
    if (_sequence_length(b) <= c->end - c->p) {
        int len;
        cp = text_decode(c->p, (size_t) (c->end - c->p), &len);
        c->p += len;
    } else {
        cp = _cursor_decode_across(c);
    }
    return FOLD == FOLD_LOWER ? text_fold_lower(cp) : text_fold_lower_base(cp);
}

static int _clamp_int(int64_t v) {
    return v < 0 ? (v < INT32_MIN ? INT32_MIN : (int) v) : (v > INT32_MAX ? INT32_MAX : (int) v);
}

// Components 0 .. k-1 are the same records on both sides, so the flat strings agree through the separator
// behind component k-1. Decoding from the start, either the decoder lands exactly on component k, or a
// sequence that began in the shared part reaches into it: then both sides must start at that sequence's
// lead byte, which is returned as component and offset.
static void _sync_point(const db_ref_t *items, uint32_t k, uint32_t *comp, uint32_t *off) {
    uint32_t j = 0, i = 0, len;
    db_record_name(items[0], &len);
    while (j < k) {
        if (i == len) { // the separator
            j++;
            i = 0;
            if (j < k)
                db_record_name(items[j], &len);
            continue;
        }
        const uint8_t *name = (const uint8_t *) db_record_name(items[j], &len);
        uint32_t need = (uint32_t) _sequence_length(name[i]);
        if (name[i] < 0x80 || need == 1 || need <= len - i) {
            i += name[i] < 0x80 ? 1 : need;
            continue;
        }
        // The sequence crosses the separator: count what the shared part still holds behind this byte.
        uint64_t shared = (len - i) + 1;
        for (uint32_t m = j + 1; m < k && shared < need; m++) {
            uint32_t l;
            db_record_name(items[m], &l);
            shared += l + 1;
        }
        if (shared < need) {
            *comp = j;
            *off = i;
            return;
        }
        for (uint32_t t = 0; t < need; t++) {
            if (i < len) {
                i++;
            } else {
                j++;
                i = 0;
                db_record_name(items[j], &len);
            }
        }
    }
    *comp = k;
    *off = 0;
}

template <int FOLD>
static int _chains_compare(const _chain_t *a, const _chain_t *b) {
    // Components that are the same record on both sides give the same bytes: start behind them.
    uint32_t k = 0;
    while (k < a->depth && k < b->depth && a->items[k] == b->items[k])
        k++;
    _cursor_t ca = {a->items, a->depth, 0, nullptr, nullptr};
    _cursor_t cb = {b->items, b->depth, 0, nullptr, nullptr};
    if (k == a->depth || k == b->depth) {
        // One chain is the other's ancestor: its string is a prefix of the other's.
        int64_t ra = 0, rb = 0;
        if (k < a->depth) {
            _cursor_load(&ca, k);
            ra = 1 + _cursor_remaining(&ca);
        }
        if (k < b->depth) {
            _cursor_load(&cb, k);
            rb = 1 + _cursor_remaining(&cb);
        }
        return _clamp_int(ra - rb);
    }
    uint32_t comp = 0, off = 0;
    if (k > 0 && FOLD != FOLD_BYTES)
        _sync_point(a->items, k, &comp, &off);
    else
        comp = k;
    _cursor_load(&ca, comp);
    _cursor_load(&cb, comp);
    ca.p += off;
    cb.p += off;
    for (;;) {
        if (_cursor_at_end(&ca) || _cursor_at_end(&cb))
            return _clamp_int(_cursor_remaining(&ca) - _cursor_remaining(&cb));
        uint32_t va = _cursor_next<FOLD>(&ca);
        uint32_t vb = _cursor_next<FOLD>(&cb);
        if (va != vb)
            return (int) va - (int) vb;
    }
}

template <int FOLD>
static int _path_compare(db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    // No parent sorts before any parent.
    if (!a)
        return -(int) (db_record_depth(b) + 1);
    if (!b)
        return 1;
    _chain_t ca, cb;
    _chain_build(&ca, a);
    _chain_build(&cb, b);
    int c = _chains_compare<FOLD>(&ca, &cb);
    _chain_kill(&ca);
    _chain_kill(&cb);
    return c;
}

int db_path_compare_lower_base(db_ref_t a, db_ref_t b) {
    return _path_compare<FOLD_LOWER_BASE>(a, b);
}

int db_path_compare_lower(db_ref_t a, db_ref_t b) {
    return _path_compare<FOLD_LOWER>(a, b);
}

int db_path_compare_bytes(db_ref_t a, db_ref_t b) {
    return _path_compare<FOLD_BYTES>(a, b);
}

// ---- name and path order -------------------------------------------------------------------------------

static int _bytes_compare(const char *a, uint32_t alen, const char *b, uint32_t blen) {
    int c = memcmp(a, b, alen < blen ? alen : blen);
    if (c)
        return c;
    return (int) alen - (int) blen;
}

static int _fs_compare(db_ref_t a, db_ref_t b) {
    uint32_t fa = db_record_fs_index(a), fb = db_record_fs_index(b);
    return (fa > fb) - (fa < fb);
}

int db_name_compare(db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    uint32_t la, lb;
    const char *na = db_record_name(a, &la);
    const char *nb = db_record_name(b, &lb);
    int c = utf8_compare_lower_base(na, la, nb, lb);
    if (c)
        return c;
    db_ref_t pa = db_record_parent(a), pb = db_record_parent(b);
    if ((c = db_path_compare_lower_base(pa, pb)))
        return c;
    if ((c = utf8_compare_lower(na, la, nb, lb)))
        return c;
    if ((c = db_path_compare_lower(pa, pb)))
        return c;
    if ((c = _bytes_compare(na, la, nb, lb)))
        return c;
    if ((c = db_path_compare_bytes(pa, pb)))
        return c;
    return _fs_compare(a, b);
}

int db_name_compare_desc(db_ref_t a, db_ref_t b) {
    return db_name_compare(b, a);
}

int db_path_name_compare(db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    uint32_t la, lb;
    const char *na = db_record_name(a, &la);
    const char *nb = db_record_name(b, &lb);
    db_ref_t pa = db_record_parent(a), pb = db_record_parent(b);
    int c = db_path_compare_lower_base(pa, pb);
    if (c)
        return c;
    if ((c = utf8_compare_lower_base(na, la, nb, lb)))
        return c;
    if ((c = db_path_compare_lower(pa, pb)))
        return c;
    if ((c = utf8_compare_lower(na, la, nb, lb)))
        return c;
    if ((c = db_path_compare_bytes(pa, pb)))
        return c;
    if ((c = _bytes_compare(na, la, nb, lb)))
        return c;
    return _fs_compare(a, b);
}

int db_path_name_compare_desc(db_ref_t a, db_ref_t b) {
    return db_path_name_compare(b, a);
}

// ---- value orders --------------------------------------------------------------------------------------

int db_attribute_letters(uint32_t attributes, char *out) {
    static const struct {
        uint32_t bit;
        char letter;
    } letters[] = {{0x0001, 'R'}, {0x0002, 'H'}, {0x0004, 'S'}, {0x0010, 'D'}, {0x0020, 'A'},
                   {0x0040, 'V'}, {0x0080, 'N'}, {0x0100, 'T'}, {0x0200, 'P'}, {0x0400, 'L'},
                   {0x0800, 'C'}, {0x1000, 'O'}, {0x2000, 'I'}, {0x4000, 'E'}};
    int n = 0;
    for (const auto &l : letters)
        if (attributes & l.bit)
            out[n++] = l.letter;
    return n;
}

int db_value_level_compare(const db_t *db, bool folder, db_field_t field, db_ref_t a, db_ref_t b) {
    uint64_t va = folder ? db_folder_get(db, a, field) : db_file_get(db, a, field);
    uint64_t vb = folder ? db_folder_get(db, b, field) : db_file_get(db, b, field);
    int c;
    if (field == DB_FIELD_ATTRIBUTES) {
        char la[16], lb[16];
        int na = db_attribute_letters((uint32_t) va, la);
        int nb = db_attribute_letters((uint32_t) vb, lb);
        c = _bytes_compare(la, (uint32_t) na, lb, (uint32_t) nb);
    } else {
        // Adding one turns unknown (all ones) into 0, below every known value, and keeps the order of
        // the known ones, which can't be all ones.
        va += 1;
        vb += 1;
        c = (va > vb) - (va < vb);
    }
    return c;
}

int db_value_compare(const db_t *db, bool folder, db_field_t field, db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    int c = db_value_level_compare(db, folder, field, a, b);
    return c ? c : db_name_compare(a, b);
}

const char *db_name_extension(const char *name, uint32_t len, uint32_t *ext_len) {
    for (uint32_t i = len; i > 0; i--) {
        if (name[i - 1] == '.') {
            *ext_len = len - i;
            return name + i;
        }
    }
    *ext_len = 0;
    return name + len;
}

int db_extension_level_compare(db_ref_t a, db_ref_t b) {
    uint32_t la, lb, ea, eb;
    const char *na = db_record_name(a, &la);
    const char *nb = db_record_name(b, &lb);
    const char *xa = db_name_extension(na, la, &ea);
    const char *xb = db_name_extension(nb, lb, &eb);
    return utf8_compare_lower_base(xa, ea, xb, eb);
}

int db_extension_compare(db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    int c = db_extension_level_compare(a, b);
    return c ? c : db_name_compare(a, b);
}

int db_frn_compare(const db_t *db, db_ref_t a, db_ref_t b) {
    if (a == b)
        return 0;
    const uint8_t *fa = db_record_frn(db, a);
    const uint8_t *fb = db_record_frn(db, b);
    const db_fs_t *sa = db_record_fs(db, a);
    bool refs = sa && sa->type == DB_FS_REFS;
    uint64_t la = 0, lb = 0, ha = 0, hb = 0;
    if (fa) {
        memcpy(&la, fa, 8);
        if (refs)
            memcpy(&ha, fa + 8, 8);
    }
    if (fb) {
        memcpy(&lb, fb, 8);
        if (refs)
            memcpy(&hb, fb + 8, 8);
    }
    if (ha != hb)
        return ha < hb ? -1 : 1;
    if (la != lb)
        return la < lb ? -1 : 1;
    return _fs_compare(a, b);
}

// ---- dispatch ------------------------------------------------------------------------------------------

int db_compare(const db_t *db, db_order_t order, bool folder, db_ref_t a, db_ref_t b) {
    switch (order) {
    case DB_ORDER_NAME:
        return db_name_compare(a, b);
    case DB_ORDER_PATH:
        return db_path_name_compare(a, b);
    case DB_ORDER_SIZE:
        return db_value_compare(db, folder, DB_FIELD_SIZE, a, b);
    case DB_ORDER_DATE_CREATED:
        return db_value_compare(db, folder, DB_FIELD_DATE_CREATED, a, b);
    case DB_ORDER_DATE_MODIFIED:
        return db_value_compare(db, folder, DB_FIELD_DATE_MODIFIED, a, b);
    case DB_ORDER_DATE_ACCESSED:
        return db_value_compare(db, folder, DB_FIELD_DATE_ACCESSED, a, b);
    case DB_ORDER_ATTRIBUTES:
        return db_value_compare(db, folder, DB_FIELD_ATTRIBUTES, a, b);
    case DB_ORDER_EXTENSION:
        // Folders have no extension: they keep name order.
        return folder ? db_name_compare(a, b) : db_extension_compare(a, b);
    case DB_ORDER_FRN:
        return db_frn_compare(db, a, b);
    default:
        return db_name_compare(a, b);
    }
}

int db_compare_desc(const db_t *db, db_order_t order, bool folder, db_ref_t a, db_ref_t b) {
    return db_compare(db, order, folder, b, a);
}

int db_key_compare(mem_ref_t element, const void *key) {
    const db_key_t *k = (const db_key_t *) key;
    if (k->descending)
        return db_compare(k->db, (db_order_t) k->order, k->folder, k->record, element);
    return db_compare(k->db, (db_order_t) k->order, k->folder, element, k->record);
}

mem_array_t *db_array(db_t *db, db_order_t order, bool folder) {
    uint32_t w = db->structure.word;
    switch (order) {
    case DB_ORDER_NAME:
        return folder ? &db->folders : &db->files;
    case DB_ORDER_PATH:
        if (!(w & DB_STRUCTURE_FAST_PATH))
            return nullptr;
        return folder ? &db->folders_by_path : &db->files_by_path;
    case DB_ORDER_SIZE:
        if (!(w & DB_STRUCTURE_FAST_SIZE))
            return nullptr;
        if (folder)
            return (w & DB_STRUCTURE_FOLDER_SIZE) ? &db->folders_by_size : nullptr;
        return &db->files_by_size;
    case DB_ORDER_DATE_CREATED:
        if (!(w & DB_STRUCTURE_FAST_DATE_CREATED))
            return nullptr;
        return folder ? &db->folders_by_date_created : &db->files_by_date_created;
    case DB_ORDER_DATE_MODIFIED:
        if (!(w & DB_STRUCTURE_FAST_DATE_MODIFIED))
            return nullptr;
        return folder ? &db->folders_by_date_modified : &db->files_by_date_modified;
    case DB_ORDER_DATE_ACCESSED:
        if (!(w & DB_STRUCTURE_FAST_DATE_ACCESSED))
            return nullptr;
        return folder ? &db->folders_by_date_accessed : &db->files_by_date_accessed;
    case DB_ORDER_ATTRIBUTES:
        if (!(w & DB_STRUCTURE_FAST_ATTRIBUTES))
            return nullptr;
        return folder ? &db->folders_by_attributes : &db->files_by_attributes;
    case DB_ORDER_EXTENSION:
        if (folder || !(w & DB_STRUCTURE_FAST_EXTENSION))
            return nullptr;
        return &db->files_by_extension;
    default:
        return nullptr;
    }
}

mem_array_t *db_frn_array(db_t *db, uint32_t fs_type) {
    if (fs_type == DB_FS_NTFS)
        return &db->ntfs_folders;
    if (fs_type == DB_FS_REFS)
        return &db->refs_folders;
    return nullptr;
}
