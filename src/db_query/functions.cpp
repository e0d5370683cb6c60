// The search functions: each recogniser compares its own literal prefixes byte-exactly, reads its
// argument with the tolerant parsers, and appends one folder op and one file op. The recognisers run in
// a fixed order; the first that takes the term wins.
#include <cstdlib>
#include <cstring>

#include "db/db.h"
#include "db_query/literal.h"
#include "db_query/query_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os_shell.h"
#include "text/text.h"

void db_type_text_fixed(const char *name, uint32_t len, bool folder, str_t *out) {
    if (folder) {
        str_set(out, "File folder");
        return;
    }
    uint32_t ext_len = 0;
    const char *ext = db_name_extension(name, len, &ext_len);
    str_clear(out);
    for (uint32_t i = 0; i < ext_len; i++) {
        uint8_t c = (uint8_t) ext[i];
        str_cat_char(out, c < 0x80 ? (char) ascii_upper[c] : (char) c);
    }
    str_cat_z(out, ext_len ? " File" : "File");
}

// The argument behind the first of the literals that begins the term, or null.
static const char *_arg(const db_term_t *t, const char *const *literals) {
    for (; *literals; literals++) {
        size_t n = strlen(*literals);
        if (strncmp(t->text, *literals, n) == 0) {
            return t->text + n;
        }
    }
    return nullptr;
}

static uint32_t _not(const db_term_t *t) {
    return (t->flags & TERM_NOT) ? 1 : 0;
}

// Both chains the same payload-less opcode pair.
static void _pair_both(db_search_t *s, db_term_t *t, uint32_t base) {
    db_op_new(s, true, t, base + _not(t), DB_OPK_NONE, 0);
    db_op_new(s, false, t, base + _not(t), DB_OPK_NONE, 0);
}

static db_op_t *_range32(db_search_t *s, bool folder, db_term_t *t, uint32_t opcode, uint32_t min,
                         uint32_t max) {
    db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_RANGE32, sizeof(db_op_range32_t));
    db_op_range32_t *r = (db_op_range32_t *) db_op_payload(op);
    r->min = min, r->max = max;
    return op;
}

static db_op_t *_range64(db_search_t *s, bool folder, db_term_t *t, uint32_t opcode,
                         const db_range64_t *range) {
    db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_RANGE64, sizeof(db_op_range64_t));
    db_op_range64_t *r = (db_op_range64_t *) db_op_payload(op);
    r->low = range->low, r->high = range->high;
    return op;
}

static db_op_t *_pattern(db_search_t *s, bool folder, db_term_t *t, uint32_t opcode, const char *text) {
    size_t len = strlen(text);
    size_t storage = db_text_match_size(t->flags, text, len);
    db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_PATTERN, sizeof(db_text_match_t) + storage);
    db_text_match_t *m = (db_text_match_t *) db_op_payload(op);
    term_pattern_compile(t->flags, text, len, m, (char *) (m + 1));
    return op;
}

// ---- argument-less functions ---------------------------------------------------------------------------

static bool _root(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"root:", nullptr};
    if (!_arg(t, l)) {
        return false;
    }
    _pair_both(s, t, 172);
    return true;
}

static bool _empty(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"empty:", nullptr};
    if (!_arg(t, l)) {
        return false;
    }
    db_op_new(s, true, t, 194 + _not(t), DB_OPK_NONE, 0);
    db_op_constant(s, false, t);
    return true;
}

// The duplicate family: the test looks for a neighbour with an equal key in the column's sorted array,
// so without that array (or the column) in the index the function is a constant.
static bool _dupe(db_search_t *s, db_term_t *t) {
    static const struct {
        const char *literals[4];
        uint32_t k;
        uint32_t folder_mask, file_mask;
    } family[] = {
        {{"dupe:"}, 0, 0, 0},
        {{"namepartdupe:", "dupenamepart:"}, 1, 0, 0},
        {{"sizedupe:", "dupesize:"}, 2, 0x120, 0x101},
        {{"datecreateddupe:", "dcdupe:", "dupedc:"}, 3, 0x202, 0x202},
        {{"datemodifieddupe:", "dmdupe:", "dupedm:"}, 4, 0x404, 0x404},
        {{"dateaccesseddupe:", "dadupe:", "dupeda:"}, 5, 0x808, 0x808},
        {{"attributesdupe:", "attribdupe:", "dupeattrib:"}, 6, 0x1010, 0x1010},
    };
    for (const auto &f : family) {
        if (!_arg(t, f.literals)) {
            continue;
        }
        uint32_t opcode = 174 + 2 * f.k + _not(t);
        for (int folder = 1; folder >= 0; folder--) {
            uint32_t mask = folder ? f.folder_mask : f.file_mask;
            if ((s->structure & mask) == mask) {
                db_op_new(s, folder, t, opcode, DB_OPK_NONE, 0);
            } else {
                db_op_constant(s, folder, t);
            }
        }
        return true;
    }
    return false;
}

// ---- ext: and filelist: --------------------------------------------------------------------------------

static int _ext_compare_tail(const void *a, const void *b) {
    const db_op_ext_item_t *x = (const db_op_ext_item_t *) a, *y = (const db_op_ext_item_t *) b;
    return utf8_compare_tail(x->ptr + x->len, x->len, y->ptr + y->len, y->len);
}
static int _ext_compare_bytes(const void *a, const void *b) {
    const db_op_ext_item_t *x = (const db_op_ext_item_t *) a, *y = (const db_op_ext_item_t *) b;
    int c = memcmp(x->ptr, y->ptr, x->len < y->len ? x->len : y->len);
    return c ? c : (int) x->len - (int) y->len;
}

// Insertion sort: extension lists are a handful of items, and this needs no platform sort.
static void _ext_sort(db_op_ext_item_t *items, uint32_t n, int (*cmp)(const void *, const void *)) {
    for (uint32_t i = 1; i < n; i++) {
        db_op_ext_item_t v = items[i];
        uint32_t j = i;
        while (j > 0 && cmp(&items[j - 1], &v) > 0) {
            items[j] = items[j - 1];
            j--;
        }
        items[j] = v;
    }
}

static bool _ext(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"ext:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    size_t len = strlen(arg);
    text_folding_t folding = db_term_folding(t->flags, arg, len);
    // Items are cut in the folded text, since folding can turn other signs into ';'. A trailing ';'
    // does not add an empty item, but an empty list is one.
    str_t folded;
    str_init(&folded);
    term_fold(&folded, arg, len, folding);
    uint32_t count = 1;
    for (int i = 0; i < folded.len; i++) {
        count += folded.ptr[i] == ';';
    }
    if (folded.len && folded.ptr[folded.len - 1] == ';') {
        count--;
    }
    size_t size = sizeof(db_op_ext_t) + count * sizeof(db_op_ext_item_t) + (size_t) folded.len + 1;
    db_op_constant(s, true, t);
    db_op_t *op = db_op_new(s, false, t, 0, DB_OPK_EXT, size);
    db_op_ext_t *e = (db_op_ext_t *) db_op_payload(op);
    e->items = (db_op_ext_item_t *) (e + 1);
    char *bytes = (char *) (e->items + count);
    size_t folded_len = (size_t) folded.len;
    memcpy(bytes, folded.ptr, folded_len);
    bytes[folded_len] = 0;
    str_kill(&folded);
    const char *p = bytes, *stop = bytes + (folded_len);
    for (uint32_t i = 0; i < count; i++) {
        const char *end = (const char *) memchr(p, ';', (size_t) (stop - p));
        size_t item_len = end ? (size_t) (end - p) : (size_t) (stop - p);
        e->items[i].ptr = p;
        e->items[i].len = (uint32_t) item_len;
        e->has_empty |= item_len == 0;
        p += item_len + 1;
    }
    e->count = count;
    uint32_t c = (t->flags & TERM_CASE) ? 1 : 0, d = (t->flags & TERM_DIACRITICS) ? 1 : 0;
    bool ascii = folding == TEXT_FOLD_ASCII;
    if (e->has_empty) {
        _ext_sort(e->items, count, _ext_compare_bytes);
        op->op = (uint16_t) (ascii ? 382 + _not(t) : 374 + c + 2 * d + 4 * _not(t));
    } else {
        // The suffix search compares from the end of the name, so items are ordered by their tails and
        // point at their last byte.
        _ext_sort(e->items, count, _ext_compare_tail);
        for (uint32_t i = 0; i < count; i++) {
            e->items[i].ptr += e->items[i].len - 1;
        }
        op->op = (uint16_t) (ascii ? 170 + _not(t) : 162 + c + 2 * d + 4 * _not(t));
    }
    return true;
}

static bool _filelist(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"filelist:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    size_t len = strlen(arg);
    uint32_t q = memchr(arg, OS_SEP, len) ? 1 : 0;
    for (int folder = 1; folder >= 0; folder--) {
        db_op_t *op = db_op_new(s, folder, t, 384 + q + 2 * _not(t), DB_OPK_FILELIST,
                                sizeof(db_op_filelist_t) + len + 1);
        db_op_filelist_t *f = (db_op_filelist_t *) db_op_payload(op);
        f->text = (char *) (f + 1);
        f->folding = (uint8_t) text_folding_for(t->flags & TERM_CASE, t->flags & TERM_DIACRITICS);
        memcpy(f->text, arg, len);
        f->len = (uint32_t) len;
        mem_array_init(&f->sorted);
    }
    return true;
}

// ---- integer ranges ------------------------------------------------------------------------------------

static bool _int_range_both(db_search_t *s, db_term_t *t, const char *const *literals, uint32_t opcode) {
    const char *arg = _arg(t, literals);
    if (!arg) {
        return false;
    }
    uint32_t min, max;
    cmp_range_parse(&arg, &min, &max);
    _range32(s, true, t, opcode, min, max);
    _range32(s, false, t, opcode, min, max);
    return true;
}

static bool _fsi(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"fsi:", nullptr};
    return _int_range_both(s, t, l, 188 + _not(t));
}

static bool _len(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"len:", nullptr};
    return _int_range_both(s, t, l, 190 + ((t->flags & TERM_PATH) ? 1 : 0) + 2 * _not(t));
}

static bool _parents(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"parents:", "depth:", nullptr};
    return _int_range_both(s, t, l, 196 + _not(t));
}

static bool _runcount(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"runcount:", nullptr};
    return _int_range_both(s, t, l, 328 + _not(t));
}

// Folder-only counts: files take the constant.
static bool _child_counts(db_search_t *s, db_term_t *t) {
    static const char *const count[] = {"childcount:", nullptr};
    static const char *const files[] = {"childfilecount:", nullptr};
    static const char *const folders[] = {"childfoldercount:", nullptr};
    const char *const *lists[3] = {count, files, folders};
    for (uint32_t i = 0; i < 3; i++) {
        const char *arg = _arg(t, lists[i]);
        if (!arg) {
            continue;
        }
        uint32_t min, max;
        cmp_range_parse(&arg, &min, &max);
        _range32(s, true, t, 368 + 2 * i + _not(t), min, max);
        db_op_constant(s, false, t);
        return true;
    }
    return false;
}

// ---- size and dates ------------------------------------------------------------------------------------

static bool _size(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"size:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    int cmp = cmp_parse(&arg);
    db_range64_t r;
    size_literal_parse(&arg, &r, true);
    cmp_apply64(cmp, &r.low, &r.high, DB_OPEN_HIGH);
    bool sizes = (s->structure & DB_STRUCTURE_SIZE) != 0;
    if (sizes && (s->structure & DB_STRUCTURE_FOLDER_SIZE)) {
        _range64(s, true, t, 200 + _not(t), &r);
    } else {
        db_op_constant(s, true, t);
    }
    if (sizes) {
        _range64(s, false, t, 200 + _not(t), &r);
    } else {
        _range64(s, false, t, 198 + _not(t), &r);
        s->needs_fileinfo = true;
        s->fileinfo_mask |= DB_FILEINFO_SIZE;
    }
    return true;
}

// dm:dc: and its compare forms: the two columns of one record against each other. mine_first says the
// term began with date modified.
static bool _date_columns(db_search_t *s, db_term_t *t, const char *arg, bool modified_first) {
    const char *p = arg;
    int cmp = cmp_parse(&p);
    static const char *const created[] = {"datecreated:", "dc:", nullptr};
    static const char *const modified[] = {"datemodified:", "dm:", nullptr};
    const char *const *other = modified_first ? created : modified;
    bool found = false;
    for (const char *const *o = other; *o; o++) {
        if (strncmp(p, *o, strlen(*o)) == 0) {
            found = true;
        }
    }
    if (!found) {
        return false;
    }
    // Opcodes read "date modified <rel> date created"; a term written the other way round mirrors the
    // relation.
    static const uint32_t modified_ops[6] = {214, 216, 218, 219, 217, 214};
    static const uint32_t created_ops[6] = {214, 219, 217, 216, 218, 214};
    uint32_t opcode = (modified_first ? modified_ops : created_ops)[cmp];
    if (t->flags & TERM_NOT) {
        opcode ^= 1;
    }
    db_op_new(s, true, t, opcode, DB_OPK_NONE, 0);
    db_op_new(s, false, t, opcode, DB_OPK_NONE, 0);
    return true;
}

static void _date_range_both(db_search_t *s, db_term_t *t, const char *arg, uint32_t opcode) {
    int cmp = cmp_parse(&arg);
    db_range64_t r;
    date_literal_parse(&arg, &r, true);
    cmp_apply64(cmp, &r.low, &r.high, DB_OPEN_HIGH);
    _range64(s, true, t, opcode, &r);
    _range64(s, false, t, opcode, &r);
}

// A date column: the indexed op when the index holds it, else the on-demand one.
static bool _date_column(db_search_t *s, db_term_t *t, const char *const *literals, uint32_t bit,
                         uint32_t indexed, uint32_t on_demand, uint32_t fileinfo, int columns) {
    const char *arg = _arg(t, literals);
    if (!arg) {
        return false;
    }
    if (columns && _date_columns(s, t, arg, columns > 0)) {
        return true;
    }
    bool in_index = (s->structure & bit) != 0;
    if (!in_index) {
        s->needs_fileinfo = true;
        s->fileinfo_mask |= fileinfo;
    }
    _date_range_both(s, t, arg, (in_index ? indexed : on_demand) + _not(t));
    return true;
}

static bool _datemodified(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"datemodified:", "dm:", nullptr};
    return _date_column(s, t, l, DB_STRUCTURE_DATE_MODIFIED, 202, 212, DB_FILEINFO_DATE_MODIFIED, 1);
}

static bool _datecreated(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"datecreated:", "dc:", nullptr};
    return _date_column(s, t, l, DB_STRUCTURE_DATE_CREATED, 204, 220, DB_FILEINFO_DATE_CREATED, -1);
}

static bool _dateaccessed(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"dateaccessed:", "da:", nullptr};
    return _date_column(s, t, l, DB_STRUCTURE_DATE_ACCESSED, 206, 332, DB_FILEINFO_DATE_ACCESSED, 0);
}

static bool _date_plain(db_search_t *s, db_term_t *t, const char *const *literals, uint32_t opcode) {
    const char *arg = _arg(t, literals);
    if (!arg) {
        return false;
    }
    _date_range_both(s, t, arg, opcode + _not(t));
    return true;
}

static bool _recentchange(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"recentchange:", "rc:", "drc:", nullptr};
    return _date_plain(s, t, l, 326);
}

static bool _daterun(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"daterun:", "dr:", nullptr};
    return _date_plain(s, t, l, 330);
}

// ---- type:, child:, content and tags -------------------------------------------------------------------

static bool _type(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"type:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    // Folders all share one type text, so their answer is known now.
    db_op_t *file = nullptr;
    db_op_t *folder = db_op_new(s, true, t, DB_OP_FALSE, DB_OPK_NONE, 0);
    file = _pattern(s, false, t, 222 + _not(t), arg);
    const db_text_match_t *m = (const db_text_match_t *) db_op_payload(file);
    // The index keeps the shell's folder type (in the user's language); without one, folders show the
    // fixed text.
    str_t folder_text;
    str_init(&folder_text);
    if (s->db && s->db->folder_type) {
        str_set(&folder_text, s->db->folder_type);
    } else {
        db_type_text_fixed("", 0, true, &folder_text);
    }
    bool match = db_text_match_run(m, folder_text.ptr, (size_t) folder_text.len);
    str_kill(&folder_text);
    folder->op = (uint16_t) ((match != (_not(t) != 0)) ? DB_OP_TRUE : DB_OP_FALSE);
    s->needs_type = true;
    return true;
}

static bool _child(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"child:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    _pattern(s, true, t, 366 + _not(t), arg);
    db_op_constant(s, false, t);
    return true;
}

static bool _filelistfilename(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"filelistfilename:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    _pattern(s, true, t, 224 + _not(t), arg);
    _pattern(s, false, t, 224 + _not(t), arg);
    return true;
}

// A file-only function: folders take the constant, files the op; these read file contents or
// metadata in result order and so keep the scan on one thread.
// Contents and tags are free text where '*' and '?' are usually meant literally: their patterns use
// wildcards only when wildcards: was written.
static void _content_pattern(db_search_t *s, db_term_t *t, uint32_t opcode, const char *arg) {
    uint32_t saved = t->flags;
    if (!(t->flags & TERM_WILDCARDS_EXPLICIT)) {
        t->flags &= ~TERM_WILDCARDS;
    }
    _pattern(s, false, t, opcode, arg);
    t->flags = saved;
}

static void _file_only_start(db_search_t *s, db_term_t *t, uint32_t fileinfo) {
    db_op_constant(s, true, t);
    s->needs_single_thread = true;
    s->needs_fileinfo = true;
    s->fileinfo_mask |= fileinfo;
}

static bool _content_family(db_search_t *s, db_term_t *t) {
    static const struct {
        const char *literals[6];
        uint32_t opcode;
    } content[] = {
        {{"content:"}, 338},
        {{"ansicontent:", "contenta:"}, 344},
        {{"utf16content:", "utf16lecontent:", "wcharcontent:", "unicodecontent:", "contentw:"}, 340},
        {{"utf16becontent:"}, 342},
        {{"utf8content:"}, 346},
    };
    for (const auto &c : content) {
        const char *arg = _arg(t, c.literals);
        if (arg) {
            _file_only_start(s, t, DB_FILEINFO_CONTENT);
            _content_pattern(s, t, c.opcode + _not(t), arg);
            return true;
        }
    }
    static const struct {
        const char *literals[3];
        uint32_t opcode;
    } tags[] = {
        {{"title:"}, 354}, {{"artist:"}, 356}, {{"album:"}, 358}, {{"comment:"}, 360}, {{"genre:"}, 362}};
    for (const auto &g : tags) {
        const char *arg = _arg(t, g.literals);
        if (arg) {
            _file_only_start(s, t, DB_FILEINFO_TAGS);
            _content_pattern(s, t, g.opcode + _not(t), arg);
            return true;
        }
    }
    static const struct {
        const char *literals[3];
        uint32_t opcode;
        uint32_t fileinfo;
    } numbers[] = {{{"track:"}, 350, DB_FILEINFO_TAGS},
                   {{"year:"}, 352, DB_FILEINFO_TAGS},
                   {{"bitdepth:"}, 364, DB_FILEINFO_IMAGE}};
    for (const auto &g : numbers) {
        const char *arg = _arg(t, g.literals);
        if (arg) {
            uint32_t min, max;
            cmp_range_parse(&arg, &min, &max);
            _file_only_start(s, t, g.fileinfo);
            _range32(s, false, t, g.opcode + _not(t), min, max);
            return true;
        }
    }
    return false;
}

static db_op_image_t *_image_op(db_search_t *s, db_term_t *t, uint32_t mode) {
    _file_only_start(s, t, DB_FILEINFO_IMAGE);
    db_op_t *op = db_op_new(s, false, t, 348 + _not(t), DB_OPK_IMAGE, sizeof(db_op_image_t));
    db_op_image_t *im = (db_op_image_t *) db_op_payload(op);
    im->mode = mode;
    im->width_min = im->height_min = 0;
    im->width_max = im->height_max = 0xFFFFFFFF;
    return im;
}

// One "w[x|X|*h]" pair of the dimension form.
static void _dimension_pair(const char **p, uint32_t *w, uint32_t *h, bool *has_h) {
    *w = (uint32_t) text_parse_u64_commas(p);
    *has_h = false;
    if (**p == 'x' || **p == 'X' || **p == '*') {
        (*p)++;
        *h = (uint32_t) text_parse_u64_commas(p);
        *has_h = true;
    }
}

static bool _image(db_search_t *s, db_term_t *t) {
    static const char *const width[] = {"width:", "wide:", nullptr};
    static const char *const height[] = {"height:", "high:", nullptr};
    static const char *const dimension[] = {"dimension:", "dimensions:", nullptr};
    static const char *const orientation[] = {"orientation:", nullptr};
    const char *arg;
    uint32_t min, max;
    if ((arg = _arg(t, width))) {
        cmp_range_parse(&arg, &min, &max);
        db_op_image_t *im = _image_op(s, t, 3);
        im->width_min = min, im->width_max = max;
        return true;
    }
    if ((arg = _arg(t, height))) {
        cmp_range_parse(&arg, &min, &max);
        db_op_image_t *im = _image_op(s, t, 3);
        im->height_min = min, im->height_max = max;
        return true;
    }
    if ((arg = _arg(t, dimension))) {
        int cmp = cmp_parse(&arg);
        db_op_image_t *im = _image_op(s, t, cmp == CMP_GT ? 2 : cmp == CMP_LT ? 1 : 3);
        if (!*arg) {
            return true;
        }
        uint32_t w, h = 0;
        bool has_h;
        _dimension_pair(&arg, &w, &h, &has_h);
        im->width_min = im->width_max = w;
        if (has_h) {
            im->height_min = im->height_max = h;
        }
        if (text_skip_prefix(&arg, "..") || text_skip_prefix(&arg, "-")) {
            _dimension_pair(&arg, &w, &h, &has_h);
            im->width_max = w;
            im->height_max = has_h ? h : 0xFFFFFFFF;
        }
        return true;
    }
    if ((arg = _arg(t, orientation))) {
        uint32_t mode = strcmp(arg, "landscape") == 0 ? 4 : strcmp(arg, "portrait") == 0 ? 5 : 0;
        if (!mode) {
            db_op_constant(s, true, t);
            db_op_constant(s, false, t);
        } else {
            _image_op(s, t, mode);
        }
        return true;
    }
    return false;
}

// ---- count:, frn:, attributes:, startwith:, endwith: ---------------------------------------------------

static bool _count(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"count:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    uint32_t limit = (uint32_t) text_parse_u64_commas(&arg);
    for (int folder = 1; folder >= 0; folder--) {
        db_op_t *op = db_op_new(s, folder, t, 334 + _not(t), DB_OPK_COUNT, sizeof(db_op_count_t));
        ((db_op_count_t *) db_op_payload(op))->limit = limit;
    }
    s->needs_single_thread = true;
    s->flip_for_count = true;
    return true;
}

// ---- frn: ---------------------------------------------------------------------------------------------

// The hexadecimal argument (an optional 0x) as a 128-bit value; digits beyond 32 push the top ones out.
static void _frn_parse(const char *arg, uint64_t *low, uint64_t *high) {
    if (arg[0] == '0' && (arg[1] == 'x' || arg[1] == 'X')) {
        arg += 2;
    }
    *low = *high = 0;
    for (;; arg++) {
        char c = *arg;
        int v = text_hex_digit(c);
        if (v < 0) {
            break;
        }
        *high = (*high << 4) | (*low >> 60);
        *low = (*low << 4) | (uint64_t) v;
    }
}

struct frn_hits_t {
    mem_ref_t *refs;
    uint32_t count, cap;
};

static void _hit(frn_hits_t *h, mem_ref_t r) {
    for (uint32_t i = 0; i < h->count; i++) {
        if (h->refs[i] == r) {
            return;
        }
    }
    if (h->count == h->cap) {
        h->cap = h->cap ? h->cap * 2 : 4;
        h->refs = (mem_ref_t *) mem_realloc(h->refs, h->cap * sizeof(mem_ref_t));
    }
    h->refs[h->count++] = r;
}

// True when folder r belongs to fs and carries the reference (low, high).
static bool _frn_equal(db_t *db, const db_fs_t *fs, mem_ref_t r, uint64_t low, uint64_t high) {
    const uint8_t *frn = db_record_frn(db, r);
    if (!frn || db_record_fs_index(r) != fs->index) {
        return false;
    }
    uint64_t l = 0, h = 0;
    memcpy(&l, frn, 8);
    if (fs->type == DB_FS_REFS) {
        memcpy(&h, frn + 8, 8);
    }
    return l == low && h == high;
}

// The folder of source fs whose reference is (low, high), or 0. The FRN arrays hold the folders of every
// volume source; the walk checks the source too, since two volumes share small references.
static mem_ref_t _folder_by_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high) {
    bool refs = fs->type == DB_FS_REFS;
    if (!refs && high) {
        return 0;
    }
    const mem_array_t *a = refs ? &db->refs_folders : &db->ntfs_folders;
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            mem_ref_t r = items[i];
            if (_frn_equal(db, fs, r, low, high)) {
                return r;
            }
        }
    }
    return 0;
}

// Every record of the array directly under parent with that exact name.
static void _children_named(const mem_array_t *a, mem_ref_t parent, const char *name, int len,
                            frn_hits_t *hits) {
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            uint32_t n;
            const char *rn = db_record_name(items[i], &n);
            if (db_record_parent(items[i]) == parent && (int) n == len && memcmp(rn, name, n) == 0) {
                _hit(hits, items[i]);
            }
        }
    }
}

int db_frn_resolve_volume(const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t *parent_low,
                          uint64_t *parent_high, str_t *name) {
    const char *volume = fs->guid ? fs->guid : fs->path;
    return os_volume_file_by_id(volume, low, fs->type == DB_FS_REFS ? high : 0, parent_low, parent_high,
                                name);
}

db_frn_resolve_t db_frn_resolve = db_frn_resolve_volume;

// One volume source: the volume names the file's parent and name, and the index's folder with that
// parent reference holds the record. The index's own folder references find a folder without the volume
// (Linux reads volumes from images, and a volume may be offline).
static void _frn_source(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, frn_hits_t *hits) {
    bool refs = fs->type == DB_FS_REFS;
    str_t name;
    str_init(&name);
    uint64_t parent_low = 0, parent_high = 0;
    int found = db_frn_resolve ? db_frn_resolve(fs, low, high, &parent_low, &parent_high, &name) : -1;
    if (found < 0) {
        debug_printf("frn: invalid volume handle\n");
    } else if (found == 0) {
        debug_printf(refs ? "no refs FSCTL_READ_FILE_USN_DATA\n" : "NO file from frn %d\n", (int) fs->index);
    } else {
        if (refs) {
            debug_printf("REFS parent frn %016I64x%016I64x %t\n", parent_high, parent_low, name.ptr,
                         name.len);
        } else {
            debug_printf("NTFS parent frn %016I64x %t\n", parent_low, name.ptr, name.len);
        }
        mem_ref_t parent = _folder_by_frn(db, fs, parent_low, parent_high);
        if (parent) {
            _children_named(&db->folders, parent, name.ptr, name.len, hits);
            _children_named(&db->files, parent, name.ptr, name.len, hits);
        }
    }
    if (mem_ref_t folder = _folder_by_frn(db, fs, low, high)) {
        _hit(hits, folder);
    }
    str_kill(&name);
}

static int _ref_order(const void *a, const void *b) {
    mem_ref_t x = *(const mem_ref_t *) a, y = *(const mem_ref_t *) b;
    return x < y ? -1 : x > y;
}

bool db_op_frn_test(const db_op_frn_t *f, mem_ref_t record) {
    return mem_refs_find(f->records, f->hits, record) != UINT32_MAX;
}

static bool _frn(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"frn:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    uint64_t low, high;
    _frn_parse(arg, &low, &high);
    frn_hits_t hits = {};
    if (s->db) {
        for (const db_fs_t *fs = s->db->fs_first; fs; fs = fs->next) {
            if (fs->type == DB_FS_NTFS || fs->type == DB_FS_REFS) {
                _frn_source(s->db, fs, low, high, &hits);
            }
        }
    }
    if (hits.count > 1) {
        qsort(hits.refs, hits.count, sizeof(mem_ref_t), _ref_order);
    }
    for (int folder = 1; folder >= 0; folder--) {
        db_op_t *op = db_op_new(s, folder, t, 336 + _not(t), DB_OPK_FRN, sizeof(db_op_frn_t));
        db_op_frn_t *f = (db_op_frn_t *) db_op_payload(op);
        f->low = low, f->high = high;
        f->hits = hits.count;
        if (hits.count) {
            f->records = (mem_ref_t *) mem_alloc(hits.count * sizeof(mem_ref_t));
            memcpy(f->records, hits.refs, hits.count * sizeof(mem_ref_t));
        }
    }
    mem_free(hits.refs);
    return true;
}

static bool _attributes(db_search_t *s, db_term_t *t) {
    static const char *const l[] = {"attributes:", "attribute:", "attrib:", nullptr};
    const char *arg = _arg(t, l);
    if (!arg) {
        return false;
    }
    static const struct {
        char letter;
        uint32_t bit;
    } letters[] = {{'a', 0x20},   {'c', 0x800}, {'d', 0x10},  {'e', 0x4000}, {'h', 0x02},
                   {'i', 0x2000}, {'l', 0x400}, {'n', 0x80},  {'o', 0x1000}, {'p', 0x200},
                   {'r', 0x01},   {'s', 0x04},  {'t', 0x100}, {'v', 0x40}};
    uint32_t mask = 0;
    for (const char *p = arg; *p; p++) {
        char c = (char) ascii_lower[(uint8_t) *p];
        for (const auto &x : letters) {
            if (x.letter == c) {
                mask |= x.bit;
            }
        }
    }
    bool indexed = (s->structure & DB_STRUCTURE_ATTRIBUTES) != 0;
    if (!indexed) {
        s->needs_fileinfo = true;
        s->fileinfo_mask |= DB_FILEINFO_ATTRIBUTES;
    }
    for (int folder = 1; folder >= 0; folder--) {
        db_op_t *op =
            db_op_new(s, folder, t, (indexed ? 208 : 210) + _not(t), DB_OPK_MASK, sizeof(db_op_mask_t));
        ((db_op_mask_t *) db_op_payload(op))->mask = mask;
    }
    return true;
}

static bool _startwith_endwith(db_search_t *s, db_term_t *t) {
    static const char *const start[] = {"startwith:", nullptr};
    static const char *const end[] = {"endwith:", nullptr};
    const char *arg = _arg(t, start);
    uint32_t family = FAMILY_STARTWITH;
    if (!arg) {
        arg = _arg(t, end);
        family = FAMILY_ENDWITH;
    }
    if (!arg) {
        return false;
    }
    size_t len = t->len - (size_t) (arg - t->text);
    uint32_t opcode = db_family_opcode(family, t->flags, arg, len);
    db_op_text(s, true, t, opcode, arg, len, 0);
    db_op_text(s, false, t, opcode, arg, len, 0);
    return true;
}

// ---- the recogniser order ------------------------------------------------------------------------------

bool db_query_infolder(db_search_t *s, db_term_t *t);
bool db_query_shell(db_search_t *s, db_term_t *t);

bool db_query_functions(db_search_t *s, db_term_t *t) {
    typedef bool (*recogniser_t)(db_search_t *, db_term_t *);
    static const recogniser_t order[] = {
        _root,
        _empty,
        _dupe,
        _ext,
        _filelist,
        _fsi,
        _len,
        _parents,
        _size,
        _type,
        db_query_shell,
        _content_family,
        _image,
        _child,
        _child_counts,
        _datemodified,
        _dateaccessed,
        _recentchange,
        _runcount,
        _daterun,
        _count,
        _frn,
        _datecreated,
        _attributes,
        _startwith_endwith,
        _filelistfilename,
        db_query_infolder,
    };
    for (recogniser_t r : order) {
        if (r(s, t)) {
            return true;
        }
    }
    return false;
}
