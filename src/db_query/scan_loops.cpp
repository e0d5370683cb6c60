// The single-op loops. Each hot family has a loop that decodes its op once and keeps the term in locals,
// and the families that read the full path or the parent chain work out what a folder contributes once
// per folder, before the workers start, so that a record costs one table lookup instead of a walk up its
// parents. A name or path the loop can't decide from its bytes alone (a byte of 0x80 and above in a
// folding that decodes) goes to the evaluator, so the answers are always the evaluator's.
#include <cstring>

#include "db_query/exec_internal.h"
#include "db_query/query_internal.h"
#include "mem/mem.h"
#include "text/text.h"

#include <pcre2.h>

bool db_scan_loops_enabled = true;

void db_scan_list_push(db_scan_list_t *l, mem_ref_t r) {
    if (l->n == l->cap) {
        l->cap = l->cap ? l->cap * 2 : MEM_ARRAY_CHUNK_SLOTS;
        l->items = (mem_ref_t *) mem_realloc(l->items, (size_t) l->cap * sizeof(mem_ref_t));
    }
    l->items[l->n++] = r;
}

static inline bool _has_high(const uint8_t *p, uint32_t len) {
    uint64_t any = 0;
    uint32_t i = 0;
    for (; i + 8 <= len; i += 8) {
        uint64_t w;
        memcpy(&w, p + i, 8);
        any |= w;
    }
    for (; i < len; i++)
        any |= p[i];
    return (any & 0x8080808080808080ull) != 0;
}

// ---- folder states ----------------------------------------------------------------------------------------

static inline uint32_t _hash(mem_ref_t r, uint32_t mask) {
    return (uint32_t) (((uint64_t) r * 0x9E3779B97F4A7C15ull) >> 40) & mask;
}

uint16_t db_folder_state(const db_folder_states_t *t, mem_ref_t folder) {
    if (!t->count)
        return 0;
    for (uint32_t i = _hash(folder, t->mask);; i = (i + 1) & t->mask) {
        mem_ref_t k = t->keys[i];
        if (k == folder)
            return t->values[i];
        if (!k)
            return 0;
    }
}

struct state_pair_t {
    mem_ref_t ref;
    uint16_t value;
};

// Growing arrays of pairs: the walk's stack of ancestors and the non-zero states found.
struct pair_list_t {
    state_pair_t *items;
    uint32_t n, cap;
};

static void _pairs_push(pair_list_t *l, mem_ref_t r, uint16_t v) {
    if (l->n == l->cap) {
        l->cap = l->cap ? l->cap * 2 : 64;
        l->items = (state_pair_t *) mem_realloc(l->items, (size_t) l->cap * sizeof(state_pair_t));
    }
    l->items[l->n++] = {r, v};
}

// At most half full, so that a miss (the usual lookup) ends after a slot or two. The lists are the
// workers' finds, in any order: each folder is in one of them.
static void _states_build(db_folder_states_t *t, const pair_list_t *found, uint32_t lists) {
    memset(t, 0, sizeof *t);
    uint32_t total = 0;
    for (uint32_t k = 0; k < lists; k++)
        total += found[k].n;
    if (!total)
        return;
    uint32_t slots = 16;
    while (slots < total * 2)
        slots *= 2;
    t->mask = slots - 1;
    t->count = total;
    t->keys = (mem_ref_t *) mem_alloc(slots * sizeof(mem_ref_t));
    t->values = (uint16_t *) mem_alloc(slots * sizeof(uint16_t));
    memset(t->keys, 0, slots * sizeof(mem_ref_t));
    for (uint32_t k = 0; k < lists; k++) {
        for (uint32_t j = 0; j < found[k].n; j++) {
            uint32_t i = _hash(found[k].items[j].ref, t->mask);
            while (t->keys[i])
                i = (i + 1) & t->mask;
            t->keys[i] = found[k].items[j].ref;
            t->values[i] = found[k].items[j].value;
        }
    }
}

static void _states_free(db_folder_states_t *t) {
    mem_free(t->keys);
    mem_free(t->values);
    memset(t, 0, sizeof *t);
}

// One worker's share of the folder walk: a range of chunks of the folder order, its own stack, its own
// finds.
template <typename F>
struct walk_part_t {
    db_query_t *q;
    const mem_array_t *order;
    uint32_t first_chunk, chunk_count;
    const F *step;
    pair_list_t found;
    os_thread_t *thread;
};

// Every folder's state from its parent's: step(parent_value, folder, is_root). Folders come in path order
// when the index keeps that array, where a parent always comes before its children and the ancestors of
// the folder at hand are the walk's stack; in any other order (or at a gap, such as the start of a
// worker's range) the chain of ancestors is worked out again from its root, which only costs time.
template <typename F>
static void _walk_range(walk_part_t<F> *w) {
    const F &step = *w->step;
    pair_list_t stack = {}, chain = {};
    for (uint32_t c = w->first_chunk; c < w->first_chunk + w->chunk_count; c++) {
        const mem_array_chunk_t *chunk = w->order->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            if (w->q->cancel_search)
                goto done;
            mem_ref_t f = items[i];
            mem_ref_t parent = db_record_parent(f);
            while (stack.n && stack.items[stack.n - 1].ref != parent)
                stack.n--;
            if (parent && !stack.n) {
                chain.n = 0;
                for (mem_ref_t a = parent; a; a = db_record_parent(a))
                    _pairs_push(&chain, a, 0);
                for (uint32_t k = chain.n; k-- > 0;) {
                    mem_ref_t a = chain.items[k].ref;
                    uint16_t above = stack.n ? stack.items[stack.n - 1].value : 0;
                    _pairs_push(&stack, a, step(above, a, k + 1 == chain.n));
                }
            }
            uint16_t v = step(parent ? stack.items[stack.n - 1].value : 0, f, parent == 0);
            _pairs_push(&stack, f, v);
            if (v)
                _pairs_push(&w->found, f, v);
        }
    }
done:
    mem_free(stack.items);
    mem_free(chain.items);
}

template <typename F>
static void _walk_proc(void *arg) {
    _walk_range((walk_part_t<F> *) arg);
}

// The walk over every folder, split among workers as a scan is (one per 16 chunks, within max_threads
// and the processors): what a folder gets depends only on its chain, never on who worked it out. Returns
// false when the search was cancelled (out is then empty).
template <typename F>
static bool _folder_walk(db_query_t *q, F step, db_folder_states_t *out) {
    memset(out, 0, sizeof *out);
    const mem_array_t *order = db_sort_array(q->db, DB_SORT_PATH, true);
    if (!order)
        order = &q->db->folders;
    uint32_t t = (order->chunk_count + 15) / 16;
    if (max_threads > 0 && t > (uint32_t) max_threads)
        t = (uint32_t) max_threads;
    if (t > (uint32_t) os_processor_count())
        t = (uint32_t) os_processor_count();
    if (t < 1)
        t = 1;
    walk_part_t<F> *parts = (walk_part_t<F> *) mem_alloc(t * sizeof(walk_part_t<F>));
    memset((void *) parts, 0, t * sizeof(walk_part_t<F>));
    for (uint32_t i = 0; i < t; i++) {
        walk_part_t<F> *w = &parts[i];
        w->q = q, w->order = order, w->step = &step;
        w->first_chunk = (uint32_t) ((uint64_t) order->chunk_count * i / t);
        w->chunk_count = (uint32_t) ((uint64_t) order->chunk_count * (i + 1) / t) - w->first_chunk;
        if (t > 1)
            w->thread = os_thread_create(_walk_proc<F>, w);
    }
    if (t == 1)
        _walk_range(&parts[0]);
    pair_list_t *found = (pair_list_t *) mem_alloc(t * sizeof(pair_list_t));
    for (uint32_t i = 0; i < t; i++) {
        if (parts[i].thread)
            os_thread_destroy(parts[i].thread);
        found[i] = parts[i].found;
    }
    bool done = !q->cancel_search;
    if (done)
        _states_build(out, found, t);
    for (uint32_t i = 0; i < t; i++)
        mem_free(found[i].items);
    mem_free(found);
    mem_free(parts);
    return done;
}

// ---- path "contains" and "starts with" --------------------------------------------------------------------

// A folder's state for a path term: the automaton's state after the folder's path and one separator (the
// start of every child's path), whether the folder's own path passes, and two ways out to the evaluator:
// a path with a high byte in a folding that decodes, and a root, whose own path is not its name alone.
// For "starts with" the state that has failed is kept as 0, so that only folders on the way to the term
// (and those below it) take a slot.
#define PATH_STATE     0x00FFu
#define PATH_OWN       0x0100u
#define PATH_DECODE    0x0200u
#define PATH_SELF_EVAL 0x0400u

// The term's automaton. "contains": state j means the last j bytes read are the term's first j. "starts
// with" (anchored): state j means the first j bytes were the term's, and len + 1 is the failed state. The
// state len (a hit) never leaves, nor does the failed state. With case off, upper-case letters move as
// their lower forms do.
static uint8_t *_dfa_build(const db_scan_term_t *st, bool anchored) {
    uint32_t m = st->len, rows = m + 2, dead = m + 1;
    uint8_t *d = (uint8_t *) mem_alloc((size_t) rows * 256);
    memset(d, anchored ? (int) dead : 0, (size_t) rows * 256);
    if (anchored) {
        for (uint32_t j = 0; j < m; j++)
            d[j * 256 + st->term[j]] = (uint8_t) (j + 1);
    } else {
        d[st->term[0]] = 1;
        uint32_t x = 0;
        for (uint32_t j = 1; j < m; j++) {
            memcpy(d + j * 256, d + x * 256, 256);
            d[j * 256 + st->term[j]] = (uint8_t) (j + 1);
            x = d[x * 256 + st->term[j]];
        }
    }
    memset(d + m * 256, (int) m, 256);
    if (st->case_blind)
        for (uint32_t j = 0; j < m; j++)
            for (uint32_t b = 'A'; b <= 'Z'; b++)
                d[j * 256 + b] = d[j * 256 + b + 32];
    return d;
}

static inline uint32_t _dfa_run(const uint8_t *d, uint32_t m, uint32_t s, const uint8_t *p, uint32_t len) {
    for (uint32_t i = 0; i < len && s != m; i++)
        s = d[s * 256 + p[i]];
    return s;
}

static bool _path_prepare(db_scan_loop_t *l, db_query_t *q) {
    if (l->len > 253)
        return false;
    bool anchored = l->family == TEXT_MATCH_STARTWITH;
    l->dfa = _dfa_build(&l->st, anchored);
    const uint8_t *d = l->dfa;
    uint32_t m = l->len, dead = anchored ? m + 1 : UINT32_MAX;
    bool decode = l->st.check_high;
    auto step = [d, m, dead, decode](uint16_t above, mem_ref_t f, bool root) -> uint16_t {
        uint32_t len;
        const uint8_t *name = (const uint8_t *) db_record_name(f, &len);
        uint16_t self = root ? PATH_SELF_EVAL : 0;
        if (above & PATH_DECODE)
            return PATH_DECODE;
        uint32_t s = above & PATH_STATE;
        if (!root && s == 0 && dead != UINT32_MAX)
            return 0; // failed above: nothing below can start with the term
        if (root)
            s = 0;
        if (s != m && decode && _has_high(name, len))
            return PATH_DECODE | self;
        s = _dfa_run(d, m, s, name, len);
        uint16_t own = s == m ? PATH_OWN : 0;
        if (s != dead)
            s = d[s * 256 + (uint8_t) OS_SEP];
        return (uint16_t) ((s == dead ? 0 : s) | own | self);
    };
    return _folder_walk(q, step, &l->states);
}

static bool _path_test(const db_scan_loop_t *l, db_query_t *q, mem_ref_t r, int64_t at,
                       db_eval_scratch_t *s) {
    if (l->folder) {
        uint16_t v = db_folder_state(&l->states, r);
        if (v & (PATH_DECODE | PATH_SELF_EVAL))
            return _db_query_eval_op(q, l->op, true, r, s, at);
        return ((v & PATH_OWN) != 0) != l->neg;
    }
    mem_ref_t parent = db_record_parent(r);
    if (!parent)
        return _db_query_eval_op(q, l->op, false, r, s, at);
    uint16_t v = db_folder_state(&l->states, parent);
    if (v & PATH_DECODE)
        return _db_query_eval_op(q, l->op, false, r, s, at);
    uint32_t state = v & PATH_STATE, m = l->len;
    bool anchored = l->family == TEXT_MATCH_STARTWITH;
    if (state == m)
        return !l->neg;
    if (state == 0 && anchored)
        return l->neg;
    uint32_t len;
    const uint8_t *name = (const uint8_t *) db_record_name(r, &len);
    db_scan_answer_t a;
    if (state == 0) {
        // No part of the term ends the folder's path: only the name can hold it.
        a = db_scan_contains(&l->st, name, len, db_scan_block_avail(name));
    } else if (l->st.check_high && _has_high(name, len)) {
        a = DB_SCAN_HIGH;
    } else {
        a = _dfa_run(l->dfa, m, state, name, len) == m ? DB_SCAN_HIT : DB_SCAN_MISS;
    }
    if (a == DB_SCAN_HIGH)
        return _db_query_eval_op(q, l->op, false, r, s, at);
    return (a == DB_SCAN_HIT) != l->neg;
}

// ---- path components --------------------------------------------------------------------------------------

// A folder's state for a component op: some folder of its chain up to and including itself passes, where a
// folder passes when its name matches the term's body and the root passes when its name holds the whole
// term; the evaluator's walk stops at the root either way.
#define COMPONENT_ANY 0x0001u

struct component_t {
    text_matcher_t part, root;
    const char *body;
    size_t blen;
};

static component_t _component(const db_scan_loop_t *l) {
    component_t c;
    c.body = l->text, c.blen = l->len;
    if (c.blen && c.body[0] == OS_SEP)
        c.body++, c.blen--;
    uint32_t base = 296 + (l->op->op - 296) / 10 * 10;
    if (base != FAMILY_COMPONENT_START && c.blen && c.body[c.blen - 1] == OS_SEP)
        c.blen--;
    c.part = text_matcher(base == FAMILY_COMPONENT_START ? TEXT_MATCH_STARTWITH
                          : base == FAMILY_COMPONENT_END ? TEXT_MATCH_ENDWITH
                                                         : TEXT_MATCH_EQUAL,
                          l->folding);
    c.root = text_matcher(TEXT_MATCH_CONTAINS, l->folding);
    return c;
}

static bool _component_prepare(db_scan_loop_t *l, db_query_t *q) {
    component_t c = _component(l);
    const char *text = l->text;
    uint32_t tlen = l->len;
    auto step = [c, text, tlen](uint16_t above, mem_ref_t f, bool root) -> uint16_t {
        uint32_t n;
        const char *name = db_record_name(f, &n);
        if (root)
            return c.root(name, n, text, tlen) ? COMPONENT_ANY : 0;
        return (above & COMPONENT_ANY) || c.part(name, n, c.body, c.blen) ? COMPONENT_ANY : 0;
    };
    return _folder_walk(q, step, &l->states);
}

// "Starts with" tests the record itself and its chain, the others only the chain above the record.
static bool _component_test(const db_scan_loop_t *l, const component_t *c, mem_ref_t r) {
    bool start = 296 + (l->op->op - 296) / 10 * 10 == FAMILY_COMPONENT_START;
    mem_ref_t parent = db_record_parent(r);
    bool hit;
    if (!start) {
        hit = parent && (db_folder_state(&l->states, parent) & COMPONENT_ANY);
    } else {
        uint32_t n;
        const char *name = db_record_name(r, &n);
        if (!parent)
            hit = c->root(name, n, l->text, l->len);
        else
            hit = c->part(name, n, c->body, c->blen) || (db_folder_state(&l->states, parent) & COMPONENT_ANY);
    }
    return hit != l->neg;
}

// ---- path roots -------------------------------------------------------------------------------------------

// A folder's state for a root op: it is an entry or lies below one, so that its children lie below one.
#define ROOT_UNDER 0x0001u

static bool _root_prepare(db_scan_loop_t *l, db_query_t *q) {
    const db_op_folders_t *f = (const db_op_folders_t *) db_op_payload(l->op);
    auto step = [f](uint16_t above, mem_ref_t folder, bool) -> uint16_t {
        if (above & ROOT_UNDER)
            return ROOT_UNDER;
        return mem_refs_find(f->folders, f->count, folder) != UINT32_MAX ? ROOT_UNDER : 0;
    };
    return _folder_walk(q, step, &l->states);
}

static bool _root_test(const db_scan_loop_t *l, mem_ref_t r) {
    const db_op_folders_t *f = (const db_op_folders_t *) db_op_payload(l->op);
    mem_ref_t parent = db_record_parent(r);
    bool below = parent && (db_folder_state(&l->states, parent) & ROOT_UNDER);
    if (!below) {
        uint32_t base = 230 + (l->op->op - 230) / 10 * 10;
        if (base == FAMILY_ROOT_MIXED) {
            uint32_t at = mem_refs_find(f->folders, f->count, r);
            below = at != UINT32_MAX && f->include && f->include[at];
        } else if (base == FAMILY_ROOTS_SELF || base == FAMILY_ROOT_SELF) {
            below = mem_refs_find(f->folders, f->count, r) != UINT32_MAX;
        }
    }
    return below != l->neg;
}

// ---- names ------------------------------------------------------------------------------------------------

static inline bool _ascii_eq(const uint8_t *a, const uint8_t *term, uint32_t n, bool blind) {
    if (!blind)
        return memcmp(a, term, n) == 0;
    for (uint32_t k = 0; k < n; k++)
        if (ascii_lower[a[k]] != term[k])
            return false;
    return true;
}

// Starts, ends and equality of a pure-ASCII term by bytes. The matchers walk the name from the end (ends)
// or the start (the others) and stop at the first ASCII byte that differs, decoding only where the name has
// a high byte; so does this, and where it meets a high byte that the folding decodes before the answer is
// known it leaves the name to the matcher (*decided false).
static bool _name_whole_test(const db_scan_loop_t *l, const uint8_t *name, uint32_t len, bool *decided) {
    *decided = true;
    const uint8_t *term = l->st.term;
    uint32_t tlen = l->st.len;
    bool blind = l->st.case_blind, decodes = l->st.check_high;
    if (len < tlen)
        return false;
    if (l->word_keep && len >= 8) {
        // A term of up to 8 bytes against the name's first or last 8 in one compare: a letter of the term
        // takes the name's byte with 0x20 set, which only its two cases give. A miss with no high byte in
        // the compared bytes is final; otherwise the byte walk below decides.
        uint64_t w;
        memcpy(&w, l->family == TEXT_MATCH_ENDWITH ? name + len - 8 : name, 8);
        if (((w | l->word_fold) & l->word_keep) == l->word_term)
            return true;
        if (!decodes || !(w & l->word_keep & 0x8080808080808080ull))
            return false;
    }
    if (l->family == TEXT_MATCH_ENDWITH) {
        const uint8_t *at = name + len - tlen;
        for (uint32_t k = tlen; k-- > 0;) {
            uint8_t c = at[k];
            if ((blind ? ascii_lower[c] : c) != term[k])
                return c >= 0x80 && decodes ? (*decided = false) : false;
        }
        return true;
    }
    for (uint32_t k = 0; k < tlen; k++) {
        uint8_t c = name[k];
        if ((blind ? ascii_lower[c] : c) != term[k])
            return c >= 0x80 && decodes ? (*decided = false) : false;
    }
    if (l->family == TEXT_MATCH_STARTWITH || len == tlen)
        return true;
    // Equality with name bytes left over: a high byte there might fold away.
    if (decodes && name[tlen] >= 0x80)
        *decided = false;
    return false;
}

// The records between marks of the byte filter are misses; a negated op takes them all.
static void _filter_chunk(const db_scan_loop_t *l, db_query_t *q, const mem_ref_t *items, uint32_t n,
                          db_scan_list_t *out) {
    uint32_t marks[MEM_ARRAY_CHUNK_SLOTS];
    uint32_t mark_count;
    uint32_t done = db_scan_records(&l->st, items, n, &q->cancel_search, marks, &mark_count);
    uint32_t next = 0; // the first record not yet pushed or passed over
    for (uint32_t k = 0; k < mark_count; k++) {
        uint32_t i = marks[k] & ~DB_SCAN_MARK_HIGH;
        if (l->neg)
            for (; next < i; next++)
                db_scan_list_push(out, items[next]);
        bool hit = true;
        if (marks[k] & DB_SCAN_MARK_HIGH) {
            uint32_t len;
            const char *name = db_record_name(items[i], &len);
            hit = l->match(name, len, l->text, l->len);
        }
        if (hit != l->neg)
            db_scan_list_push(out, items[i]);
        next = i + 1;
    }
    if (l->neg)
        for (; next < done; next++)
            db_scan_list_push(out, items[next]);
}

static bool _name_test(const db_scan_loop_t *l, mem_ref_t r) {
    uint32_t len;
    const char *name = db_record_name(r, &len);
    if (l->ascii && (l->family == TEXT_MATCH_STARTWITH || l->family == TEXT_MATCH_ENDWITH ||
                     l->family == TEXT_MATCH_EQUAL)) {
        bool decided;
        bool hit = _name_whole_test(l, (const uint8_t *) name, len, &decided);
        if (decided)
            return hit != l->neg;
    }
    return l->match(name, len, l->text, l->len) != l->neg;
}

// ---- ext: -------------------------------------------------------------------------------------------------

static bool _ext_items_ascii(const db_op_ext_t *e, bool suffix) {
    for (uint32_t i = 0; i < e->count; i++) {
        const char *item = suffix ? e->items[i].ptr - e->items[i].len + 1 : e->items[i].ptr;
        if (!text_is_ascii(item, e->items[i].len))
            return false;
    }
    return true;
}

// Suffix lists: the name ends with '.' and an item. Plain lists (with the empty item): the extension
// behind the last '.' equals an item.
static bool _ext_test(const db_scan_loop_t *l, db_query_t *q, mem_ref_t r, int64_t at, db_eval_scratch_t *s) {
    uint32_t len;
    const uint8_t *name = (const uint8_t *) db_record_name(r, &len);
    if (l->st.check_high && _has_high(name, len))
        return _db_query_eval_op(q, l->op, false, r, s, at);
    const db_op_ext_t *e = (const db_op_ext_t *) db_op_payload(l->op);
    bool blind = l->st.case_blind, hit = false;
    if (l->family == TEXT_MATCH_ENDWITH) {
        for (uint32_t i = 0; i < e->count && !hit; i++) {
            uint32_t n = e->items[i].len;
            hit = len > n && name[len - n - 1] == '.' &&
                  _ascii_eq(name + len - n, (const uint8_t *) e->items[i].ptr - n + 1, n, blind);
        }
    } else {
        uint32_t elen;
        const uint8_t *ext = (const uint8_t *) db_name_extension((const char *) name, len, &elen);
        for (uint32_t i = 0; i < e->count && !hit; i++)
            hit = e->items[i].len == elen && _ascii_eq(ext, (const uint8_t *) e->items[i].ptr, elen, blind);
    }
    return hit != l->neg;
}

// ---- regex ------------------------------------------------------------------------------------------------

// A byte that every match holds, where the engine can tell one and case can't change it (not a letter):
// a name without it fails without a call into the engine. -1: none.
static int _regex_required(void *code) {
    uint32_t type = 0, unit = 0;
    pcre2_code *c = (pcre2_code *) code;
    if (pcre2_pattern_info(c, PCRE2_INFO_LASTCODETYPE, &type) != 0 || type != 1 ||
        pcre2_pattern_info(c, PCRE2_INFO_LASTCODEUNIT, &unit) != 0)
        return -1;
    bool letter = (unit >= 'a' && unit <= 'z') || (unit >= 'A' && unit <= 'Z');
    return unit < 0x80 && !letter ? (int) unit : -1;
}

static bool _regex_test(const db_scan_loop_t *l, mem_ref_t r, db_eval_scratch_t *s) {
    uint32_t len;
    const char *name = db_record_name(r, &len);
    if (l->regex_byte >= 0 && !memchr(name, l->regex_byte, len))
        return l->neg;
    return db_eval_pattern(s, &l->regex, name, len) != l->neg;
}

// The one-word form of a short start or end: the term's bytes where the name's first (start) or last (end)
// bytes lie in a little-endian load of 8, the 0x20 bit of its letters when case is off, and which bytes
// count.
static void _word_init(db_scan_loop_t *l) {
    uint32_t shift = l->family == TEXT_MATCH_ENDWITH ? 8 - l->len : 0;
    l->word_term = l->word_fold = l->word_keep = 0;
    for (uint32_t k = 0; k < l->len; k++) {
        uint32_t at = (shift + k) * 8;
        uint8_t c = l->st.term[k];
        l->word_term |= (uint64_t) c << at;
        l->word_keep |= (uint64_t) 0xFF << at;
        if (l->st.case_blind && c >= 'a' && c <= 'z')
            l->word_fold |= (uint64_t) 0x20 << at;
    }
}

// ---- the choice -------------------------------------------------------------------------------------------

static bool _borrow(db_scan_loop_t *l, const db_scan_loop_t *other);

static bool _prepare_text(db_scan_loop_t *l, db_query_t *q, const db_op_t *op, const db_scan_loop_t *other) {
    db_text_op_t top;
    bool neg;
    if (!db_text_op(op->op, &top, &neg))
        return false;
    const db_op_text_t *t = (const db_op_text_t *) db_op_payload(op);
    if (t->offset)
        return false;
    l->neg = neg, l->family = top.family, l->folding = top.folding;
    l->text = t->text, l->len = t->len;
    l->match = text_matcher(top.family, top.folding);
    l->ascii = db_scan_term_init(&l->st, t->text, t->len, top.folding);
    if (!top.path) {
        l->kind = DB_SCAN_LOOP_NAME;
        if (l->ascii && l->len <= 8 && (l->family == TEXT_MATCH_STARTWITH || l->family == TEXT_MATCH_ENDWITH))
            _word_init(l);
        return true;
    }
    if ((top.family != TEXT_MATCH_CONTAINS && top.family != TEXT_MATCH_STARTWITH) || !l->ascii)
        return false;
    l->kind = DB_SCAN_LOOP_PATH;
    return _borrow(l, other) || _path_prepare(l, q);
}

// The folder and file chains of one term carry equal ops: the states of one serve the other.
static bool _borrow(db_scan_loop_t *l, const db_scan_loop_t *other) {
    if (!other || other->kind != l->kind || other->op->op != l->op->op || other->len != l->len ||
        other->op->kind != l->op->kind || other->op->size != l->op->size ||
        memcmp(db_op_payload(other->op), db_op_payload(l->op), sizeof(uint32_t)) != 0)
        return false;
    if (l->kind == DB_SCAN_LOOP_ROOT) {
        const db_op_folders_t *a = (const db_op_folders_t *) db_op_payload(l->op);
        const db_op_folders_t *b = (const db_op_folders_t *) db_op_payload(other->op);
        if (a->count != b->count ||
            (a->count && memcmp(a->folders, b->folders, a->count * sizeof(mem_ref_t))))
            return false;
    } else if (memcmp(l->text, other->text, l->len) != 0) {
        return false;
    }
    l->dfa = other->dfa;
    l->states = other->states;
    l->borrowed = true;
    return true;
}

bool db_scan_loop_prepare(db_scan_loop_t *l, db_query_t *q, const db_op_t *chain, bool folder,
                          const db_scan_loop_t *other) {
    memset(l, 0, sizeof *l);
    l->op = chain, l->folder = folder;
    if (!db_scan_loops_enabled || !chain || chain->next || chain->notnext)
        return false;
    uint32_t code = chain->op;
    bool ok = false;
    db_text_op_t top;
    bool text_neg;
    if (db_text_op(code, &top, &text_neg)) {
        ok = _prepare_text(l, q, chain, other);
    } else if (code >= 230 && code <= 279) {
        bool neg;
        db_ten_family(code, 230 + (code - 230) / 10 * 10, &neg);
        l->neg = neg;
        l->kind = DB_SCAN_LOOP_ROOT;
        ok = _borrow(l, other) || _root_prepare(l, q);
    } else if (code >= 296 && code <= 325) {
        bool neg;
        l->folding = db_ten_family(code, 296 + (code - 296) / 10 * 10, &neg);
        const db_op_text_t *t = (const db_op_text_t *) db_op_payload(chain);
        l->neg = neg, l->text = t->text, l->len = t->len;
        l->kind = DB_SCAN_LOOP_COMPONENT;
        ok = _borrow(l, other) || _component_prepare(l, q);
    } else if (!folder && ((code >= 162 && code <= 171) || (code >= 374 && code <= 383))) {
        bool suffix = code <= 171, neg;
        text_folding_t f = db_ten_family(code, suffix ? 162 : 374, &neg);
        const db_op_ext_t *e = (const db_op_ext_t *) db_op_payload(chain);
        if (_ext_items_ascii(e, suffix)) {
            l->neg = neg, l->folding = f;
            l->family = suffix ? TEXT_MATCH_ENDWITH : TEXT_MATCH_EQUAL;
            // The byte form's flags for this folding; the term itself is unused.
            db_scan_term_init(&l->st, "x", 1, f);
            l->kind = DB_SCAN_LOOP_EXT;
            ok = true;
        }
    } else if (code == 226 || code == 228) {
        l->neg = code == 228;
        l->regex.regex = ((const db_op_regex_t *) db_op_payload(chain))->code;
        l->regex.family = 0xFF;
        l->regex_byte = _regex_required(l->regex.regex);
        l->kind = DB_SCAN_LOOP_REGEX;
        ok = true;
    }
    if (!ok)
        l->kind = DB_SCAN_LOOP_NONE;
    return ok;
}

// One loop per family: the family's test is inlined into its own loop over the chunk. The arrays are in
// the order of a column, not of memory, so most records are cache misses: the record eight ahead is asked
// for while this one is tested, and the loops that look up a parent's state ask for its slot four ahead,
// once the record that names the parent has arrived.
#define LOOP_AHEAD  8
#define STATE_AHEAD 4

template <typename F>
static void _each(db_query_t *q, const mem_ref_t *items, uint32_t n, uint32_t base, db_scan_list_t *out,
                  const db_folder_states_t *states, F test) {
    for (uint32_t i = 0; i < n; i++) {
        if (q->cancel_search)
            return;
        if (i + LOOP_AHEAD < n)
            __builtin_prefetch(db_ptr(items[i + LOOP_AHEAD]));
        if (states && states->count && i + STATE_AHEAD < n) {
            mem_ref_t parent = db_record_parent(items[i + STATE_AHEAD]);
            uint32_t slot = _hash(parent, states->mask);
            __builtin_prefetch(states->keys + slot);
            __builtin_prefetch(states->values + slot);
        }
        if (test(items[i], (int64_t) base + i))
            db_scan_list_push(out, items[i]);
    }
}

void db_scan_loop_chunk(const db_scan_loop_t *l, db_query_t *q, const mem_ref_t *items, uint32_t n,
                        uint32_t base, db_scan_list_t *out, db_eval_scratch_t *s) {
    switch (l->kind) {
    case DB_SCAN_LOOP_NAME:
        if (l->family == TEXT_MATCH_CONTAINS && l->ascii)
            _filter_chunk(l, q, items, n, out);
        else
            _each(q, items, n, base, out, nullptr, [l](mem_ref_t r, int64_t) { return _name_test(l, r); });
        break;
    case DB_SCAN_LOOP_PATH:
        _each(q, items, n, base, out, &l->states,
              [l, q, s](mem_ref_t r, int64_t at) { return _path_test(l, q, r, at, s); });
        break;
    case DB_SCAN_LOOP_ROOT:
        _each(q, items, n, base, out, &l->states, [l](mem_ref_t r, int64_t) { return _root_test(l, r); });
        break;
    case DB_SCAN_LOOP_COMPONENT: {
        component_t c = _component(l);
        _each(q, items, n, base, out, &l->states,
              [l, &c](mem_ref_t r, int64_t) { return _component_test(l, &c, r); });
        break;
    }
    case DB_SCAN_LOOP_EXT:
        _each(q, items, n, base, out, nullptr,
              [l, q, s](mem_ref_t r, int64_t at) { return _ext_test(l, q, r, at, s); });
        break;
    case DB_SCAN_LOOP_REGEX:
        _each(q, items, n, base, out, nullptr, [l, s](mem_ref_t r, int64_t) { return _regex_test(l, r, s); });
        break;
    default:
        _each(q, items, n, base, out, nullptr, [l, q, s](mem_ref_t r, int64_t at) {
            return _db_query_eval_op(q, l->op, l->folder, r, s, at);
        });
        break;
    }
}

void db_scan_loop_free(db_scan_loop_t *l) {
    if (!l->borrowed) {
        mem_free(l->dfa);
        _states_free(&l->states);
    }
    l->dfa = nullptr;
    memset(&l->states, 0, sizeof l->states);
}
