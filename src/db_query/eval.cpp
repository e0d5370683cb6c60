// One op on one record: the semantics of every opcode in one routine, which both the scan workers and
// the live update run. Ops that a pre-pass serves read the pre-pass's data by the record's position in
// the scanned array; outside a scan they look at the index directly.
#include <cstring>

#include "db_query/db_query.h"
#include "db_query/exec_internal.h"
#include "db_query/query_internal.h"
#include "mem/mem.h"
#include "text/text.h"

#include <pcre2.h>

// ---- the provider that knows nothing -----------------------------------------------------------------

static uint64_t _unknown_value(db_query_t *, db_ref_t, bool, db_query_value_t what) {
    return what == DB_QV_ATTRIBUTES ? 0 : DB_UNKNOWN;
}
static bool _unknown_text(db_query_t *, db_ref_t, db_query_text_t, str_t *) {
    return false;
}

db_query_provider_t db_query_provider = {_unknown_value, _unknown_text};

void db_query_provider_reset() {
    db_query_provider.value = _unknown_value;
    db_query_provider.text = _unknown_text;
}

// ---- scratch ------------------------------------------------------------------------------------------

void db_eval_scratch_init(db_eval_scratch_t *s) {
    memset(s, 0, sizeof *s);
    str_init(&s->path);
}

void db_eval_scratch_kill(db_eval_scratch_t *s) {
    str_kill(&s->path);
    if (s->match_data)
        pcre2_match_data_free((pcre2_match_data *) s->match_data);
    s->match_data = nullptr;
}

// The full path of the record, built once for each record however many path ops it reaches.
static void _path(db_eval_scratch_t *s, db_ref_t record, const char **text, size_t *len) {
    if (s->path_record != record) {
        db_get_full_path(&s->path, record);
        s->path_record = record;
    }
    *text = s->path.ptr;
    *len = (size_t) s->path.len;
}

static void _subject(db_eval_scratch_t *s, db_ref_t record, bool path, const char **text, size_t *len) {
    if (path) {
        _path(s, record, text, len);
        return;
    }
    uint32_t n;
    *text = db_record_name(record, &n);
    *len = n;
}

static bool _regex(db_eval_scratch_t *s, void *code, const char *text, size_t len) {
    if (!s->match_data)
        s->match_data = pcre2_match_data_create(32, nullptr);
    return pcre2_match((pcre2_code *) code, (PCRE2_SPTR) text, len, 0, 0, (pcre2_match_data *) s->match_data,
                       nullptr) >= 0;
}

bool db_eval_pattern(db_eval_scratch_t *s, const db_text_match_t *m, const char *text, size_t len) {
    if (m->never)
        return false;
    if (m->regex)
        return _regex(s, m->regex, text, len);
    return m->match && m->match(text, len, m->text, m->len);
}

// ---- text families --------------------------------------------------------------------------------------

bool db_text_op(uint32_t op, db_text_op_t *t, bool *neg) {
    struct range_t {
        uint32_t first, last;
        bool ascii, has_ww;
        text_family_t plain, word;
    };
    static const range_t ranges[] = {
        {2, 33, false, true, TEXT_MATCH_CONTAINS, TEXT_MATCH_WORD_CONTAINS},
        {34, 41, true, true, TEXT_MATCH_CONTAINS, TEXT_MATCH_WORD_CONTAINS},
        {42, 57, false, false, TEXT_MATCH_EQUAL, TEXT_MATCH_EQUAL},
        {58, 61, true, false, TEXT_MATCH_EQUAL, TEXT_MATCH_EQUAL},
        {62, 93, false, true, TEXT_MATCH_WILDCARD_CONTAINS, TEXT_MATCH_WILDCARD_WORD_CONTAINS},
        {94, 101, true, true, TEXT_MATCH_WILDCARD_CONTAINS, TEXT_MATCH_WILDCARD_WORD_CONTAINS},
        {102, 117, false, false, TEXT_MATCH_WILDCARD_WHOLE, TEXT_MATCH_WILDCARD_WHOLE},
        {118, 121, true, false, TEXT_MATCH_WILDCARD_WHOLE, TEXT_MATCH_WILDCARD_WHOLE},
        {122, 137, false, false, TEXT_MATCH_STARTWITH, TEXT_MATCH_STARTWITH},
        {138, 141, true, false, TEXT_MATCH_STARTWITH, TEXT_MATCH_STARTWITH},
        {142, 157, false, false, TEXT_MATCH_ENDWITH, TEXT_MATCH_ENDWITH},
        {158, 161, true, false, TEXT_MATCH_ENDWITH, TEXT_MATCH_ENDWITH},
    };
    for (const range_t &r : ranges) {
        if (op < r.first || op > r.last)
            continue;
        uint32_t x = op - r.first;
        bool ww = r.has_ww && (x & 1);
        if (r.has_ww)
            x >>= 1;
        if (r.ascii) {
            t->folding = TEXT_FOLD_ASCII;
        } else {
            t->folding = text_folding_for((x & 1) != 0, (x & 2) != 0);
            x >>= 2;
        }
        t->path = (x & 1) != 0;
        *neg = (x & 2) != 0;
        t->family = ww ? r.word : r.plain;
        // The word matcher has no ASCII form; the lower form gives its answers for an ASCII term.
        if (t->folding == TEXT_FOLD_ASCII && t->family == TEXT_MATCH_WORD_CONTAINS)
            t->folding = TEXT_FOLD_LOWER;
        return true;
    }
    return false;
}

text_folding_t db_ten_family(uint32_t op, uint32_t base, bool *neg) {
    uint32_t x = op - base;
    if (x >= 8) {
        *neg = (x - 8) != 0;
        return TEXT_FOLD_ASCII;
    }
    *neg = (x & 4) != 0;
    return text_folding_for((x & 1) != 0, (x & 2) != 0);
}

// ---- ext: ----------------------------------------------------------------------------------------------

// Items match from the end of the name, only behind a '.': some '.' of the name has the item behind it.
static bool _ext_suffix(const db_op_ext_t *e, text_folding_t folding, const char *name, size_t len) {
    text_matcher_t equal = text_matcher(TEXT_MATCH_EQUAL, folding);
    for (size_t dot = len; dot-- > 0;) {
        if (name[dot] != '.')
            continue;
        for (uint32_t i = 0; i < e->count; i++) {
            const char *item = e->items[i].ptr - e->items[i].len + 1;
            if (equal(name + dot + 1, len - dot - 1, item, e->items[i].len))
                return true;
        }
    }
    return false;
}

// With an empty item the extension is cut first and compared whole.
static bool _ext_plain(const db_op_ext_t *e, text_folding_t folding, const char *name, size_t len) {
    uint32_t ext_len;
    const char *ext = db_name_extension(name, (uint32_t) len, &ext_len);
    text_matcher_t equal = text_matcher(TEXT_MATCH_EQUAL, folding);
    for (uint32_t i = 0; i < e->count; i++) {
        if (equal(ext, ext_len, e->items[i].ptr, e->items[i].len))
            return true;
    }
    return false;
}

// ---- path roots and components ----------------------------------------------------------------------

// Path root families: a few pointer compares up the parent chain, no text.
static bool _root_test(const db_op_folders_t *f, uint32_t family, db_ref_t record) {
    switch (family) {
    case FAMILY_ROOT_MIXED: {
        uint32_t at = mem_refs_find(f->folders, f->count, record);
        if (at != UINT32_MAX && f->include && f->include[at])
            return true;
        for (db_ref_t p = db_record_parent(record); p; p = db_record_parent(p))
            if (mem_refs_find(f->folders, f->count, p) != UINT32_MAX)
                return true;
        return false;
    }
    case FAMILY_ROOTS_SELF:
        if (mem_refs_find(f->folders, f->count, record) != UINT32_MAX)
            return true;
        [[fallthrough]];
    case FAMILY_ROOTS_BELOW:
        for (db_ref_t p = db_record_parent(record); p; p = db_record_parent(p))
            if (mem_refs_find(f->folders, f->count, p) != UINT32_MAX)
                return true;
        return false;
    case FAMILY_ROOT_SELF:
        if (f->count && record == f->folders[0])
            return true;
        [[fallthrough]];
    case FAMILY_ROOT_BELOW:
        if (!f->count)
            return false;
        for (db_ref_t p = db_record_parent(record); p; p = db_record_parent(p))
            if (p == f->folders[0])
                return true;
        return false;
    default:
        return false;
    }
}

// Components: T without its separators against each name of the chain; the root, whose name may hold
// separators, against T as written, by contains.
static bool _component_test(const db_op_text_t *t, uint32_t family, text_folding_t folding, db_ref_t record) {
    const char *body = t->text;
    size_t blen = t->len;
    if (blen && body[0] == OS_SEP)
        body++, blen--;
    if (family != FAMILY_COMPONENT_START && blen && body[blen - 1] == OS_SEP)
        blen--;
    text_family_t match = family == FAMILY_COMPONENT_START ? TEXT_MATCH_STARTWITH
                          : family == FAMILY_COMPONENT_END ? TEXT_MATCH_ENDWITH
                                                           : TEXT_MATCH_EQUAL;
    text_matcher_t part = text_matcher(match, folding);
    text_matcher_t root = text_matcher(TEXT_MATCH_CONTAINS, folding);
    db_ref_t r = family == FAMILY_COMPONENT_START ? record : db_record_parent(record);
    for (; r; r = db_record_parent(r)) {
        uint32_t n;
        const char *name = db_record_name(r, &n);
        if (!db_record_parent(r))
            return root(name, n, t->text, t->len);
        if (part(name, n, body, blen))
            return true;
    }
    return false;
}

// ---- pre-pass ops outside a scan -------------------------------------------------------------------------

static const db_prepass_t *_prepass(const db_query_t *q, const db_op_t *op) {
    for (const db_prepass_t *p = q->prepasses; p; p = p->next)
        if (p->op == op)
            return p;
    return nullptr;
}

struct child_tally_t {
    uint32_t files, folders;
    bool pattern_hit;
};

// The direct children of a folder, found by walking both arrays: the live update's slow road.
static void _children(db_query_t *q, db_ref_t folder, const db_text_match_t *pattern, db_eval_scratch_t *s,
                      child_tally_t *out) {
    memset(out, 0, sizeof *out);
    mem_array_t *arrays[2] = {&q->db->folders, &q->db->files};
    for (int k = 0; k < 2; k++) {
        const mem_array_t *a = arrays[k];
        for (uint32_t c = 0; c < a->chunk_count; c++) {
            const mem_array_chunk_t *chunk = a->table[c];
            const mem_ref_t *items = mem_array_chunk_items(chunk);
            for (uint32_t i = 0; i < chunk->n; i++) {
                if (db_record_parent(items[i]) != folder)
                    continue;
                (k ? out->files : out->folders)++;
                if (pattern) {
                    uint32_t n;
                    const char *name = db_record_name(items[i], &n);
                    out->pattern_hit |= db_eval_pattern(s, pattern, name, n);
                }
            }
        }
    }
}

// ---- dupe: outside a scan ---------------------------------------------------------------------------------

static bool _range32(const db_op_t *op, uint64_t v) {
    const db_op_range32_t *r = (const db_op_range32_t *) db_op_payload(op);
    return v >= r->min && v <= r->max;
}

static bool _range64(const db_op_t *op, uint64_t v) {
    const db_op_range64_t *r = (const db_op_range64_t *) db_op_payload(op);
    return v >= r->low && v <= r->high;
}

// A column value: from the record when the index holds it, else from the provider.
static uint64_t _column(db_query_t *q, db_ref_t r, bool folder, db_field_t field) {
    const db_structure_t *st = &q->db->structure;
    if ((folder ? st->folder_offset : st->file_offset)[field] >= 0)
        return folder ? db_folder_get(q->db, r, field) : db_file_get(q->db, r, field);
    static const db_query_value_t map[DB_FIELD_COUNT] = {DB_QV_SIZE, DB_QV_DATE_CREATED, DB_QV_DATE_MODIFIED,
                                                         DB_QV_DATE_ACCESSED, DB_QV_ATTRIBUTES};
    return db_query_provider.value(q, r, folder, map[field]);
}

// The name of the file list that holds a record: the last part of the list's file name, or empty.
static void _filelist_name(db_query_t *q, db_ref_t r, const char **text, size_t *len) {
    db_fs_t *fs = db_record_fs(q->db, r);
    *text = "", *len = 0;
    if (!fs || fs->type != DB_FS_FILE_LIST || !fs->filename)
        return;
    const char *name = fs->filename;
    for (const char *p = fs->filename; *p; p++)
        if (*p == '\\' || *p == '/')
            name = p + 1;
    *text = name, *len = strlen(name);
}

static bool _filelist(db_query_t *q, const db_op_t *op, db_ref_t record, db_eval_scratch_t *s) {
    const db_prepass_t *p = _prepass(q, op);
    db_prepass_t local;
    if (!p) {
        // Outside a scan the entries are split for this one record.
        memset(&local, 0, sizeof local);
        db_prepass_filelist_build(&local, (const db_op_filelist_t *) db_op_payload(op));
        p = &local;
    }
    uint32_t nlen;
    const char *name = db_record_name(record, &nlen);
    const char *path = nullptr;
    size_t plen = 0;
    if (p->path_count)
        _path(s, record, &path, &plen);
    bool hit = db_prepass_filelist_test(p, name, nlen, path, plen);
    if (p == &local)
        db_prepass_free(&local);
    return hit;
}

static bool _image(db_query_t *q, const db_op_t *op, db_ref_t record) {
    const db_op_image_t *im = (const db_op_image_t *) db_op_payload(op);
    uint64_t w = db_query_provider.value(q, record, false, DB_QV_WIDTH);
    uint64_t h = db_query_provider.value(q, record, false, DB_QV_HEIGHT);
    if (w == DB_UNKNOWN || h == DB_UNKNOWN)
        return false;
    switch (im->mode) {
    case 1:
        return w < im->width_min || h < im->height_min;
    case 2:
        return w > im->width_max || h > im->height_max;
    case 3:
        return w >= im->width_min && w <= im->width_max && h >= im->height_min && h <= im->height_max;
    case 4:
        return w > h;
    case 5:
        return h > w;
    default:
        return false;
    }
}

static bool _provider_text(db_query_t *q, const db_op_t *op, db_ref_t record, db_query_text_t what,
                           db_eval_scratch_t *s) {
    str_t text;
    str_init(&text);
    bool hit = db_query_provider.text(q, record, what, &text) &&
               db_eval_pattern(s, (const db_text_match_t *) db_op_payload(op), text.ptr, (size_t) text.len);
    str_kill(&text);
    return hit;
}

// The test of an op without its NOT: the op's even partner. Each family's odd member is the NOT of the
// even one, so the caller flips the answer.
static bool _eval_positive(db_query_t *q, const db_op_t *op, uint32_t code, bool folder, db_ref_t record,
                           db_eval_scratch_t *s, int64_t index) {
    const void *payload = db_op_payload(op);
    switch (code) {
    case 172:
        return db_record_parent(record) == 0;
    case 174:
    case 176:
    case 178:
    case 180:
    case 182:
    case 184:
    case 186:
        return db_prepass_dupe_test(q, op, folder, record, index);
    case 188:
        return _range32(op, db_record_fs_index(record));
    case 194: {
        if (!folder)
            return false;
        const db_prepass_t *p = _prepass(q, op);
        if (p && index >= 0)
            return p->marks[index] != 0;
        child_tally_t t;
        _children(q, record, nullptr, s, &t);
        return t.files + t.folders == 0;
    }
    case 196:
        return _range32(op, db_record_depth(record));
    case 198:
        return !folder && _range64(op, db_query_provider.value(q, record, false, DB_QV_SIZE));
    case 200:
    case 202:
    case 204:
    case 206: {
        static const db_field_t fields[4] = {DB_FIELD_SIZE, DB_FIELD_DATE_MODIFIED, DB_FIELD_DATE_CREATED,
                                             DB_FIELD_DATE_ACCESSED};
        return _range64(op, _column(q, record, folder, fields[(code - 200) / 2]));
    }
    case 208: {
        uint32_t mask = ((const db_op_mask_t *) payload)->mask;
        return ((uint32_t) _column(q, record, folder, DB_FIELD_ATTRIBUTES) & mask) == mask;
    }
    case 210: {
        uint32_t mask = ((const db_op_mask_t *) payload)->mask;
        return ((uint32_t) db_query_provider.value(q, record, folder, DB_QV_ATTRIBUTES) & mask) == mask;
    }
    case 212:
        return _range64(op, db_query_provider.value(q, record, folder, DB_QV_DATE_MODIFIED));
    case 214:
    case 216:
    case 218: {
        uint64_t m = _column(q, record, folder, DB_FIELD_DATE_MODIFIED);
        uint64_t c = _column(q, record, folder, DB_FIELD_DATE_CREATED);
        return code == 214 ? m == c : code == 216 ? m >= c : m > c;
    }
    case 220:
        return _range64(op, db_query_provider.value(q, record, folder, DB_QV_DATE_CREATED));
    case 222: {
        if (folder)
            return false;
        uint32_t n;
        const char *name = db_record_name(record, &n);
        str_t type;
        str_init(&type);
        db_type_text_fixed(name, n, false, &type);
        bool hit = db_eval_pattern(s, (const db_text_match_t *) payload, type.ptr, (size_t) type.len);
        str_kill(&type);
        return hit;
    }
    case 224: {
        const char *text;
        size_t len;
        _filelist_name(q, record, &text, &len);
        return db_eval_pattern(s, (const db_text_match_t *) payload, text, len);
    }
    case 280:
        return false;
    case 282: {
        const db_op_folders_t *f = (const db_op_folders_t *) payload;
        return f->count && db_record_parent(record) == f->folders[0];
    }
    case 284: {
        const db_op_folders_t *f = (const db_op_folders_t *) payload;
        db_ref_t parent = db_record_parent(record);
        return parent && mem_refs_find(f->folders, f->count, parent) != UINT32_MAX;
    }
    case 326:
        return _range64(op, db_query_provider.value(q, record, folder, DB_QV_DATE_RECENTLY_CHANGED));
    case 328:
        return _range32(op, db_query_provider.value(q, record, folder, DB_QV_RUN_COUNT));
    case 330:
        return _range64(op, db_query_provider.value(q, record, folder, DB_QV_DATE_RUN));
    case 332:
        return _range64(op, db_query_provider.value(q, record, folder, DB_QV_DATE_ACCESSED));
    case 334:
        return s->found < ((const db_op_count_t *) payload)->limit;
    case 336:
        return db_op_frn_test((const db_op_frn_t *) payload, record);
    case 338:
    case 340:
    case 342:
    case 344:
    case 346:
        return !folder && _provider_text(q, op, record, DB_QT_CONTENT, s);
    case 348:
        return !folder && _image(q, op, record);
    case 350:
        return !folder && _range32(op, db_query_provider.value(q, record, false, DB_QV_TRACK));
    case 352:
        return !folder && _range32(op, db_query_provider.value(q, record, false, DB_QV_YEAR));
    case 354:
    case 356:
    case 358:
    case 360:
    case 362:
        return !folder &&
               _provider_text(q, op, record, (db_query_text_t) (DB_QT_TITLE + (code - 354) / 2), s);
    case 364:
        return !folder && _range32(op, db_query_provider.value(q, record, false, DB_QV_BIT_DEPTH));
    case 366:
    case 368:
    case 370:
    case 372: {
        if (!folder)
            return false;
        const db_prepass_t *p = _prepass(q, op);
        if (p && index >= 0) {
            if (code == 366)
                return p->marks[index] != 0;
            return _range32(op, p->counts[index]);
        }
        child_tally_t t;
        _children(q, record, code == 366 ? (const db_text_match_t *) payload : nullptr, s, &t);
        if (code == 366)
            return t.pattern_hit;
        return _range32(op, code == 368 ? t.files + t.folders : code == 370 ? t.files : t.folders);
    }
    default:
        return false;
    }
}

bool _db_query_eval_op(db_query_t *q, const db_op_t *op, bool folder, db_ref_t record, db_eval_scratch_t *s,
                       int64_t index) {
    uint32_t code = op->op;
    if (code == DB_OP_TRUE)
        return true;
    if (code == DB_OP_FALSE)
        return false;
    // Ops that exist only for files answer false in the folder worker; the folder-only ones answer their
    // constant in the file worker.
    if (folder && ((code >= 162 && code <= 171) || code == 198 || code == 199 || code == 222 || code == 223 ||
                   (code >= 338 && code <= 365) || (code >= 374 && code <= 383)))
        return false;
    if (!folder && (code == 194 || code == 366 || (code >= 368 && code <= 373)))
        return false;
    if (!folder && (code == 195 || code == 367))
        return true;
    bool neg = false;
    db_text_op_t t;
    if (db_text_op(code, &t, &neg)) {
        const db_op_text_t *pt = (const db_op_text_t *) db_op_payload(op);
        const char *text;
        size_t len;
        _subject(s, record, t.path, &text, &len);
        text_matcher_t m = text_matcher(t.family, t.folding);
        return (len >= pt->offset && m(text + pt->offset, len - pt->offset, pt->text, pt->len)) != neg;
    }
    if ((code >= 162 && code <= 171) || (code >= 374 && code <= 383)) {
        bool suffix = code <= 171;
        text_folding_t f = db_ten_family(code, suffix ? 162 : 374, &neg);
        uint32_t n;
        const char *name = db_record_name(record, &n);
        const db_op_ext_t *e = (const db_op_ext_t *) db_op_payload(op);
        return (suffix ? _ext_suffix(e, f, name, n) : _ext_plain(e, f, name, n)) != neg;
    }
    if (code >= 230 && code <= 279) {
        uint32_t base = 230 + (code - 230) / 10 * 10;
        db_ten_family(code, base, &neg);
        return _root_test((const db_op_folders_t *) db_op_payload(op), base, record) != neg;
    }
    if (code >= 286 && code <= 295) {
        db_ten_family(code, 286, &neg);
        return neg;
    }
    if (code >= 296 && code <= 325) {
        uint32_t base = 296 + (code - 296) / 10 * 10;
        text_folding_t f = db_ten_family(code, base, &neg);
        return _component_test((const db_op_text_t *) db_op_payload(op), base, f, record) != neg;
    }
    // Families whose NOT bit is not the lowest: the path bit (or the file list's path bit) comes first.
    if (code >= 384)
        return _filelist(q, op, record, s) != (code >= 386);
    if (code >= 190 && code <= 193) {
        const char *text;
        size_t len;
        _subject(s, record, (code & 1) != 0, &text, &len);
        return _range32(op, utf8_utf16_length_counted(text, len)) != (code >= 192);
    }
    if (code >= 226 && code <= 229) {
        const char *text;
        size_t len;
        _subject(s, record, (code & 1) != 0, &text, &len);
        return _regex(s, ((const db_op_regex_t *) db_op_payload(op))->code, text, len) != (code >= 228);
    }
    // Every remaining family pairs an even test with its odd NOT; 214..219 pair 214/215, 216/217,
    // 218/219, which the same rule covers.
    return _eval_positive(q, op, code & ~1u, folder, record, s, index) != ((code & 1) != 0);
}

bool db_query_eval_chain(db_query_t *q, const db_op_t *op, bool folder, db_ref_t record, db_eval_scratch_t *s,
                         int64_t index) {
    s->path_record = 0;
    for (;;) {
        bool hit = _db_query_eval_op(q, op, folder, record, s, index);
        const db_op_t *next = hit ? op->next : op->notnext;
        if (!next)
            return hit;
        op = next;
    }
}

bool db_query_is_folder_match(db_query_t *q, db_ref_t folder, db_eval_scratch_t *s) {
    if (!q->search.folder_ops)
        return false;
    s->found = (uint32_t) (q->folder_results.count + q->file_results.count);
    return db_query_eval_chain(q, q->search.folder_ops, true, folder, s, -1);
}

bool db_query_is_file_match(db_query_t *q, db_ref_t file, db_eval_scratch_t *s) {
    if (!q->search.file_ops)
        return false;
    s->found = (uint32_t) (q->folder_results.count + q->file_results.count);
    return db_query_eval_chain(q, q->search.file_ops, false, file, s, -1);
}
