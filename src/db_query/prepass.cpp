// Pre-passes: work done once per search on the query thread before any worker starts, so that a worker
// answers empty:, child:, the child counts, the duplicates and filelist: with an array lookup. The first
// three borrow index bytes (a folder's name-length byte, its parent reference) as counters and give them
// back before returning, whatever happened, cancellation included.
#include <algorithm>
#include <cstring>

#include "db_query/exec_internal.h"
#include "db_query/query_internal.h"
#include "mem/mem.h"
#include "text/text.h"

// Calls f(record, position) for each element of the array in order.
template <typename F>
static void _each(const mem_array_t *a, F f) {
    uint32_t pos = 0;
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++)
            f(items[i], pos++);
    }
}

// Stops early (returns false) when the search was cancelled; checked per record.
template <typename F>
static bool _each_cancellable(db_query_t *q, const mem_array_t *a, F f) {
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            if (q->cancel_search)
                return false;
            f(items[i]);
        }
    }
    return true;
}

static db_prepass_t *_add(db_query_t *q, const db_op_t *op) {
    db_prepass_t *p = (db_prepass_t *) mem_alloc(sizeof *p);
    memset(p, 0, sizeof *p);
    p->op = op;
    p->next = q->prepasses;
    q->prepasses = p;
    return p;
}

// ---- empty: and child: ----------------------------------------------------------------------------------

// The name-length byte of every folder of the scanned array becomes a mark: start, then set by the
// children, then exchanged with the saved bytes so that the records are whole again and the array holds
// the marks by position. child_pattern null: empty: (marks start at 1, any child clears its parent's);
// else child: (marks start at 0, a child whose name matches sets its parent's).
static void _marks(db_query_t *q, const db_op_t *op, const mem_array_t *folders,
                   const db_text_match_t *child_pattern) {
    db_prepass_t *p = _add(q, op);
    uint32_t n = folders->count;
    p->marks = (uint8_t *) mem_alloc(n ? n : 1);
    uint8_t start = child_pattern ? 0 : 1;
    _each(folders, [&](db_ref_t r, uint32_t pos) {
        uint8_t *b = db_ptr(r) + 4;
        p->marks[pos] = *b;
        *b = start;
    });
    db_eval_scratch_t s;
    db_eval_scratch_init(&s);
    // Folders' own lengths are borrowed now: their names are read with the saved byte.
    uint32_t pos = 0;
    bool whole = _each_cancellable(q, folders, [&](db_ref_t r) {
        uint32_t at = pos++;
        db_ref_t parent = db_record_parent(r);
        if (!parent)
            return;
        if (!child_pattern) {
            db_ptr(parent)[4] = 0;
            return;
        }
        uint32_t len = p->marks[at];
        if (len == DB_LONG_NAME)
            len = *(const uint32_t *) (db_ptr(r) - 4);
        if (db_eval_pattern(&s, child_pattern, (const char *) db_ptr(r) + 5, len))
            db_ptr(parent)[4] = 1;
    });
    if (whole) {
        _each_cancellable(q, &q->db->files, [&](db_ref_t r) {
            db_ref_t parent = db_record_parent(r);
            if (!parent)
                return;
            if (!child_pattern) {
                db_ptr(parent)[4] = 0;
                return;
            }
            uint32_t len;
            const char *name = db_record_name(r, &len);
            if (db_eval_pattern(&s, child_pattern, name, len))
                db_ptr(parent)[4] = 1;
        });
    }
    db_eval_scratch_kill(&s);
    _each(folders, [&](db_ref_t r, uint32_t at) {
        uint8_t *b = db_ptr(r) + 4;
        uint8_t mark = *b;
        *b = p->marks[at];
        p->marks[at] = mark;
    });
}

// ---- child counts ------------------------------------------------------------------------------------

// Each folder's parent reference is saved and replaced by a count of 0; the children increment their
// parent's count, folders through their saved reference; then references come back and the counts stay.
static void _child_counts(db_query_t *q, const db_op_t *op, const mem_array_t *folders) {
    db_prepass_t *p = _add(q, op);
    uint32_t n = folders->count;
    p->counts = (uint32_t *) mem_alloc((n ? n : 1) * sizeof(uint32_t));
    _each(folders, [&](db_ref_t r, uint32_t pos) {
        uint32_t *field = (uint32_t *) db_ptr(r);
        p->counts[pos] = *field;
        *field = 0;
    });
    uint32_t code = op->op & ~1u;
    bool count_files = code == 368 || code == 370;
    bool count_folders = code == 368 || code == 372;
    bool whole = true;
    if (count_folders) {
        uint32_t pos = 0;
        whole = _each_cancellable(q, folders, [&](db_ref_t) {
            db_ref_t parent = p->counts[pos++];
            if (parent)
                ++*(uint32_t *) db_ptr(parent);
        });
    }
    if (whole && count_files) {
        _each_cancellable(q, &q->db->files, [&](db_ref_t r) {
            db_ref_t parent = db_record_parent(r);
            if (parent)
                ++*(uint32_t *) db_ptr(parent);
        });
    }
    _each(folders, [&](db_ref_t r, uint32_t pos) {
        uint32_t *field = (uint32_t *) db_ptr(r);
        uint32_t count = *field;
        *field = p->counts[pos];
        p->counts[pos] = count;
    });
}

// ---- duplicates --------------------------------------------------------------------------------------

struct dupe_ctx_t {
    db_query_t *q;
    uint32_t k; // 0 name, 1 name part, 2 size, 3 date created, 4 date modified, 5 date accessed, 6 attributes
    bool folder;
};

static const char *_stem(db_ref_t r, uint32_t *len) {
    const char *name = db_record_name(r, len);
    for (uint32_t i = *len; i-- > 0;) {
        if (name[i] == '.') {
            *len = i;
            break;
        }
    }
    return name;
}

static uint64_t _dupe_value(const dupe_ctx_t *c, db_ref_t r) {
    static const db_field_t fields[7] = {
        DB_FIELD_SIZE,          DB_FIELD_SIZE,          DB_FIELD_SIZE,      DB_FIELD_DATE_CREATED,
        DB_FIELD_DATE_MODIFIED, DB_FIELD_DATE_ACCESSED, DB_FIELD_ATTRIBUTES};
    return c->folder ? db_folder_get(c->q->db, r, fields[c->k]) : db_file_get(c->q->db, r, fields[c->k]);
}

static int _dupe_key_compare(void *ctx, uint32_t a, uint32_t b) {
    const dupe_ctx_t *c = (const dupe_ctx_t *) ctx;
    if (c->k <= 1) {
        uint32_t la, lb;
        const char *na = c->k ? _stem(a, &la) : db_record_name(a, &la);
        const char *nb = c->k ? _stem(b, &lb) : db_record_name(b, &lb);
        return utf8_compare_lower_base(na, la, nb, lb);
    }
    uint64_t va = _dupe_value(c, a), vb = _dupe_value(c, b);
    return va < vb ? -1 : va > vb;
}

// The records of the kind whose key another record shares. When the scan walks the very array that groups
// the keys (name duplicates in name order, the usual case), a mark per position of that array, so that a
// worker's test is one byte; otherwise the records sorted by reference, for a binary search.
static void _dupes(db_query_t *q, const db_op_t *op, bool folder, const mem_array_t *scanned) {
    db_prepass_t *p = _add(q, op);
    dupe_ctx_t c = {q, (uint32_t) (op->op - 174) / 2, folder};
    // Name order and the value orders group equal keys already (their first level is the key); name
    // parts and attribute letters don't, and are sorted here.
    static const int orders[7] = {
        DB_ORDER_NAME,          -1, DB_ORDER_SIZE, DB_ORDER_DATE_CREATED, DB_ORDER_DATE_MODIFIED,
        DB_ORDER_DATE_ACCESSED, -1};
    const mem_array_t *a = folder ? &q->db->folders : &q->db->files;
    const mem_array_t *grouped =
        orders[c.k] >= 0 ? db_array(q->db, (db_order_t) orders[c.k], folder) : nullptr;
    if (grouped && grouped->count == a->count)
        a = grouped;
    else
        grouped = nullptr;
    uint32_t n = a->count;
    mem_ref_t *all = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    _each(a, [&](db_ref_t r, uint32_t pos) { all[pos] = r; });
    if (!grouped)
        os_qsort_ex(all, n, &c, _dupe_key_compare);
    // Each neighbouring pair compared once: a record is a duplicate when it equals either neighbour.
    uint8_t *dupe = (uint8_t *) mem_alloc(n ? n : 1);
    memset(dupe, 0, n ? n : 1);
    for (uint32_t i = 0; i + 1 < n; i++) {
        if (_dupe_key_compare(&c, all[i], all[i + 1]) == 0)
            dupe[i] = dupe[i + 1] = 1;
    }
    if (grouped && grouped == scanned) {
        p->marks = dupe;
        mem_free(all);
        return;
    }
    p->set = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    for (uint32_t i = 0; i < n; i++)
        if (dupe[i])
            p->set[p->set_count++] = all[i];
    mem_free(dupe);
    mem_free(all);
    os_qsort(p->set, p->set_count, mem_ref_compare);
}

bool db_prepass_dupe_test(db_query_t *q, const db_op_t *op, bool folder, db_ref_t record, int64_t index) {
    for (const db_prepass_t *p = q->prepasses; p; p = p->next) {
        if (p->op != op)
            continue;
        if (p->marks && index >= 0)
            return p->marks[index] != 0;
        if (!p->marks)
            return mem_refs_find(p->set, p->set_count, record) != UINT32_MAX;
        break; // marks by position, and no position: ask the index
    }
    // Outside a scan: any other record of the kind with an equal key.
    dupe_ctx_t c = {q, (uint32_t) ((op->op & ~1u) - 174) / 2, folder};
    bool hit = false;
    _each(folder ? &q->db->folders : &q->db->files,
          [&](db_ref_t r, uint32_t) { hit |= r != record && _dupe_key_compare(&c, r, record) == 0; });
    return hit;
}

// ---- the whole set --------------------------------------------------------------------------------------

void db_prepass_free(db_prepass_t *p) {
    mem_free(p->marks);
    mem_free(p->counts);
    mem_free(p->set);
    mem_free(p->text);
    mem_free(p->names);
    mem_free(p->paths);
}

void db_prepass_free_all(db_query_t *q) {
    while (q->prepasses) {
        db_prepass_t *p = q->prepasses;
        q->prepasses = p->next;
        db_prepass_free(p);
        mem_free(p);
    }
}

void db_prepass_run(db_query_t *q, const db_op_t *chain, const mem_array_t *array, bool folder) {
    for (const db_op_t *op = chain; op && !q->cancel_search; op = op->list_next) {
        uint32_t code = op->op & ~1u;
        if (folder && code == 194)
            _marks(q, op, array, nullptr);
        else if (folder && code == 366)
            _marks(q, op, array, (const db_text_match_t *) db_op_payload(op));
        else if (folder && code >= 368 && code <= 372)
            _child_counts(q, op, array);
        else if (code >= 174 && code <= 186)
            _dupes(q, op, folder, array);
        else if (op->op >= 384 && op->op <= 387)
            db_prepass_filelist_build(_add(q, op), (const db_op_filelist_t *) db_op_payload(op));
    }
}
