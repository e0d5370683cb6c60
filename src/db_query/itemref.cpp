// Remembered items: rows that the owner keeps across new searches and sorts (the focused row, a selection
// anchor). Each is on the query's list, for the resets after a change of results, and in a tree ordered
// by (record, address), so that the live update finds the refs of one record without a walk. A ref keeps
// its record and a cached row; the row is only trusted while it still holds that record.
#include <cstdint>

#include "db_query/exec_internal.h"

bool db_query_index_ready(const db_t *db);

// Tree order: by record, then by the ref's own address, so that two refs of one record are distinct keys.
static int _order(const db_itemref_t *a, db_ref_t record, const db_itemref_t *b) {
    if (record != b->record)
        return record < b->record ? -1 : 1;
    if (a == b)
        return 0;
    return (uintptr_t) a < (uintptr_t) b ? -1 : 1;
}

static void _tree_insert(db_query_t *q, db_itemref_t *ref) {
    ref->tree_left = ref->tree_right = nullptr;
    db_itemref_t **at = &q->itemrefs_root;
    while (*at)
        at = _order(ref, ref->record, *at) < 0 ? &(*at)->tree_left : &(*at)->tree_right;
    *at = ref;
}

// Takes ref out of the tree: its slot gets the smallest node of its right subtree, or its left child.
static void _tree_remove(db_query_t *q, db_itemref_t *ref) {
    db_itemref_t **at = &q->itemrefs_root;
    while (*at && *at != ref)
        at = _order(ref, ref->record, *at) < 0 ? &(*at)->tree_left : &(*at)->tree_right;
    if (!*at)
        return;
    if (!ref->tree_right) {
        *at = ref->tree_left;
    } else {
        db_itemref_t **min = &ref->tree_right;
        while ((*min)->tree_left)
            min = &(*min)->tree_left;
        db_itemref_t *m = *min;
        *min = m->tree_right;
        m->tree_left = ref->tree_left;
        m->tree_right = ref->tree_right;
        *at = m;
    }
    ref->tree_left = ref->tree_right = nullptr;
}

static bool _linked(const db_query_t *q, const db_itemref_t *ref) {
    return ref->prev || q->itemrefs_head == ref;
}

static void _unlink(db_query_t *q, db_itemref_t *ref) {
    _tree_remove(q, ref);
    if (ref->prev)
        ref->prev->next = ref->next;
    else
        q->itemrefs_head = ref->next;
    if (ref->next)
        ref->next->prev = ref->prev;
    else
        q->itemrefs_tail = ref->prev;
    ref->next = ref->prev = nullptr;
}

void db_itemref_set(db_query_t *q, db_itemref_t *ref, int index) {
    db_ref_t record = 0;
    bool folder;
    if (db_query_index_ready(q->db)) {
        db_wait(q->db, "db_itemref_set");
        if (!_db_result_at(q, index, &record, &folder))
            record = 0;
    }
    if (_linked(q, ref))
        _unlink(q, ref);
    ref->record = record;
    ref->index = record ? index : -1;
    ref->prev = q->itemrefs_tail;
    if (q->itemrefs_tail)
        q->itemrefs_tail->next = ref;
    else
        q->itemrefs_head = ref;
    q->itemrefs_tail = ref;
    _tree_insert(q, ref);
}

// The row of record in either kind's array; the found row must hold the record itself, since a folder
// and a file of the same name and place compare equal.
static int _lookup(db_query_t *q, db_ref_t record) {
    for (int folder = 1; folder >= 0; folder--) {
        int at = _db_result_index_of(q, record, folder);
        db_ref_t r;
        bool f;
        if (at >= 0 && _db_result_at(q, at, &r, &f) && r == record)
            return at;
    }
    return -1;
}

int db_itemref_get(db_query_t *q, db_itemref_t *ref) {
    if (!db_query_index_ready(q->db))
        return -1;
    db_wait(q->db, "db_itemref_get");
    if (!ref->record || ref->index == -1)
        return -1;
    db_ref_t r;
    bool folder;
    if (ref->index >= 0 && _db_result_at(q, ref->index, &r, &folder) && r == ref->record)
        return ref->index;
    ref->index = _lookup(q, ref->record);
    return ref->index;
}

void db_itemref_destroy(db_query_t *q, db_itemref_t *ref) {
    if (_linked(q, ref))
        _unlink(q, ref);
    ref->record = 0;
    ref->index = -1;
}

void db_itemrefs_reset(db_query_t *q, int32_t index) {
    for (db_itemref_t *r = q->itemrefs_head; r; r = r->next)
        r->index = index;
}

// Every ref of the record, found by a descent to the first of them and an in-order walk while they last.
static void _mark(db_itemref_t *node, db_ref_t record) {
    while (node) {
        if (record < node->record) {
            node = node->tree_left;
        } else if (record > node->record) {
            node = node->tree_right;
        } else {
            node->index = -2;
            _mark(node->tree_left, record);
            node = node->tree_right;
        }
    }
}

void db_itemrefs_record_changed(db_query_t *q, db_ref_t record) {
    _mark(q->itemrefs_root, record);
}

void db_itemrefs_record_replaced(db_query_t *q, db_ref_t old_record, db_ref_t new_record) {
    // The list, not the tree: a ref changes its key here, and refs are few.
    for (db_itemref_t *r = q->itemrefs_head; r; r = r->next) {
        if (r->record != old_record)
            continue;
        _tree_remove(q, r);
        r->record = new_record;
        r->index = -2;
        _tree_insert(q, r);
    }
}
