// The stable text form of compiled terms and ops: what the log shows and what tests compare.
#include <cstring>

#include "db_query/query_internal.h"
#include "mem/mem.h"

// Text in double quotes, with bytes outside printable ASCII as \xNN so that dumps stay one line.
static void _quoted(str_t *out, const char *text, size_t len) {
    str_cat_char(out, '"');
    for (size_t i = 0; i < len; i++) {
        uint8_t c = (uint8_t) text[i];
        if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') {
            str_cat_printf(out, "\\x%02x", c);
        } else {
            str_cat_char(out, (char) c);
        }
    }
    str_cat_char(out, '"');
}

void db_op_dump(const db_op_t *op, str_t *out) {
    str_cat_printf(out, "%u", (unsigned) op->op);
    const void *payload = db_op_payload(op);
    switch (op->kind) {
    case DB_OPK_TEXT: {
        const db_op_text_t *t = (const db_op_text_t *) payload;
        str_cat_char(out, ' ');
        _quoted(out, t->text, t->len);
        break;
    }
    case DB_OPK_RANGE64: {
        const db_op_range64_t *r = (const db_op_range64_t *) payload;
        str_cat_printf(out, " %I64u..%I64u", r->low, r->high);
        break;
    }
    case DB_OPK_RANGE32: {
        const db_op_range32_t *r = (const db_op_range32_t *) payload;
        str_cat_printf(out, " %u..%u", r->min, r->max);
        break;
    }
    case DB_OPK_MASK:
        str_cat_printf(out, " mask %x", ((const db_op_mask_t *) payload)->mask);
        break;
    case DB_OPK_COUNT:
        str_cat_printf(out, " limit %u", ((const db_op_count_t *) payload)->limit);
        break;
    case DB_OPK_EXT: {
        const db_op_ext_t *e = (const db_op_ext_t *) payload;
        str_cat_z(out, " [");
        for (uint32_t i = 0; i < e->count; i++) {
            const char *p = e->has_empty ? e->items[i].ptr : e->items[i].ptr + 1 - e->items[i].len;
            if (i) {
                str_cat_char(out, ';');
            }
            str_cat(out, p, (int) e->items[i].len);
        }
        str_cat_char(out, ']');
        break;
    }
    case DB_OPK_PATTERN: {
        const db_text_match_t *m = (const db_text_match_t *) payload;
        if (m->family == 0xFF) {
            str_cat_z(out, m->never ? " regex! " : " regex ");
        } else {
            static const char *const families[] = {"contains",      "equal",      "startwith",   "endwith",
                                                   "word",          "wild-whole", "wild-prefix", "wild",
                                                   "wild-anchored", "wild-word"};
            static const char *const foldings[] = {"exact", "ascii", "lower", "lowerbase", "base"};
            str_cat_printf(out, " %s/%s ", families[m->family], foldings[m->folding]);
        }
        _quoted(out, m->text, m->len);
        break;
    }
    case DB_OPK_REGEX: {
        const db_op_regex_t *r = (const db_op_regex_t *) payload;
        str_cat_z(out, " regex ");
        _quoted(out, r->text, r->len);
        break;
    }
    case DB_OPK_FOLDERS: {
        const db_op_folders_t *f = (const db_op_folders_t *) payload;
        str_cat_char(out, ' ');
        _quoted(out, f->text, f->len);
        str_cat_printf(out, " folders %u", f->count);
        break;
    }
    case DB_OPK_FILELIST: {
        const db_op_filelist_t *f = (const db_op_filelist_t *) payload;
        str_cat_char(out, ' ');
        _quoted(out, f->text, f->len);
        break;
    }
    case DB_OPK_IMAGE: {
        const db_op_image_t *im = (const db_op_image_t *) payload;
        str_cat_printf(out, " mode %u %u..%u x %u..%u", im->mode, im->width_min, im->width_max,
                       im->height_min, im->height_max);
        break;
    }
    case DB_OPK_FRN: {
        const db_op_frn_t *f = (const db_op_frn_t *) payload;
        str_cat_printf(out, " %I64x:%I64x", f->high, f->low);
        if (f->hits) {
            str_cat_printf(out, " hits %u", f->hits);
        }
        break;
    }
    default:
        break;
    }
}

static int _position(const db_term_t *first, const db_term_t *t) {
    int i = 0;
    for (const db_term_t *p = first; p; p = p->list_next, i++) {
        if (p == t) {
            return i;
        }
    }
    return -1;
}

static void _link(str_t *out, const db_term_t *first, const db_term_t *t) {
    if (t) {
        str_cat_printf(out, "#%d", _position(first, t));
    } else {
        str_cat_char(out, '-');
    }
}

void db_terms_dump(const db_term_t *first, str_t *out) {
    int i = 0;
    for (const db_term_t *t = first; t; t = t->list_next, i++) {
        str_cat_printf(out, "#%d flags %05x next ", i, t->flags);
        _link(out, first, t->next);
        str_cat_z(out, " notnext ");
        _link(out, first, t->notnext);
        if (t->folderop) {
            str_cat_z(out, " folder ");
            db_op_dump(t->folderop, out);
        }
        if (t->fileop) {
            str_cat_z(out, " file ");
            db_op_dump(t->fileop, out);
        }
        str_cat_z(out, " text ");
        _quoted(out, t->text, t->len);
        str_cat_char(out, '\n');
    }
}
