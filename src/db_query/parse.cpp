// The search-line parser: a loop over a stack of frames rather than recursion, so that no input, however
// deeply nested, can exhaust the thread's stack. Each open construct (group, operator, NOT, modifier) is
// a frame; closing it wires the terms it covers into the decision graph.
#include <cstring>

#include "config/config.h"
#include "db_query/query_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"

enum {
    FRAME_GROUP,
    FRAME_OR,
    FRAME_AND,
    FRAME_NOT,
    FRAME_MODIFIER,
    FRAME_FILTER_MODIFIER,
};

#define LEVEL_MODIFIER 3

struct db_term_frame_t {
    db_term_frame_t *below;
    db_term_t *term; // current term when pushed: a binary operator's left operand
    db_term_t *tail; // last term of the list when pushed: the operand of the frame starts behind it
    int level;
    int type;
    uint32_t flags; // the running flags when pushed
    uint32_t set;   // a modifier's bits to set and to clear
    uint32_t clear;
};

struct db_term_parser_t {
    const char *cursor;
    uint32_t flags;
    int is_filter;
    int depth;
    db_term_frame_t *top;
    int level;
    db_term_t *current; // first term of the operand just finished
    db_term_t *first;
    db_term_t *last;
    int or_level;
    int and_level;
    bool round;
    bool literal;
};

struct modifier_t {
    const char *literal;
    uint32_t set;
    uint32_t clear;
};

static const modifier_t modifiers[] = {
    {"wholefilename:", 0x1200, 0},
    {"wfn:", 0x1200, 0},
    {"exact:", 0x1200, 0},
    {"nowholefilename:", 0, 0x1200},
    {"nowfn:", 0, 0x1200},
    {"noexact:", 0, 0x1200},
    {"file:", 0x10, 0x18020},
    {"files:", 0x10, 0x18020},
    {"nofolders:", 0x10, 0x18020},
    {"folders:", 0x20, 0x18010},
    {"folder:", 0x20, 0x18010},
    {"nofiles:", 0x20, 0x18010},
    {"nofileonly:", 0, 0x10},
    {"nofolderonly:", 0, 0x20},
    {"path:", 0x4, 0},
    {"nopath:", 0, 0x4},
    {"case:", 0x1, 0},
    {"nocase:", 0, 0x1},
    {"regex:", 0x800, 0},
    {"noregex:", 0, 0x800},
    {"diacritics:", 0x8, 0},
    {"nodiacritics:", 0, 0x8},
    {"wholeword:", 0x2, 0},
    {"ww:", 0x2, 0},
    {"wholewords:", 0x2, 0},
    {"nowholeword:", 0, 0x2},
    {"noww:", 0, 0x2},
    {"nowholewords:", 0, 0x2},
    {"utf8:", 0, 0x40},
    {"noascii:", 0, 0x40},
    {"ascii:", 0x40, 0},
    {"wildcards:", 0x4100, 0},
    {"nowildcards:", 0, 0x4100},
};

// These change the running flags, so terms are born with them (and function arguments see them).
static const modifier_t filter_modifiers[] = {
    {"filtercase:", 0x1, 0},       {"nofiltercase:", 0, 0x1},       {"filterpath:", 0x4, 0},
    {"nofilterpath:", 0, 0x4},     {"filterwholeword:", 0x2, 0},    {"nofilterwholeword:", 0, 0x2},
    {"filterdiacritics:", 0x8, 0}, {"nofilterdiacritics:", 0, 0x8}, {"filterregex:", 0x800, 0},
    {"nofilterregex:", 0, 0x800},
};

static bool _is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static bool _prefix(const char *p, const char *literal, size_t *n) {
    size_t len = strlen(literal);
    if (strncmp(p, literal, len) != 0) {
        return false;
    }
    *n = len;
    return true;
}

// A word operator (NOT, AND, OR) counts only when something that ends an operand follows it. Returns
// the bytes to skip (with the white space behind it), 0 when the word is not an operator here.
static size_t _word_operator(const db_term_parser_t *ps, const char *p, const char *word) {
    size_t n;
    if (!ps->literal || !_prefix(p, word, &n)) {
        return 0;
    }
    char c = p[n];
    if (_is_space(c)) {
        const char *q = text_skip_space(p + n);
        return (size_t) (q - p);
    }
    bool ok = c == 0 || c == '<' || c == '|' || (c == '>' && ps->depth > 0) ||
              (c == ')' && ps->depth > 0 && ps->round) || (c == '(' && ps->round);
    return ok ? n : 0;
}

// An OR token behind the white space at p: '|' or the word OR. Returns the bytes from p to behind the
// token and its white space, or 0.
static size_t _or_token(const db_term_parser_t *ps, const char *p) {
    const char *q = text_skip_space(p);
    if (*q == '|') {
        return (size_t) (text_skip_space(q + 1) - p);
    }
    size_t n = _word_operator(ps, q, "OR");
    return n ? (size_t) (q - p) + n : 0;
}

static void _push(db_term_parser_t *ps, int type, int level) {
    db_term_frame_t *f = (db_term_frame_t *) mem_alloc(sizeof(db_term_frame_t));
    memset(f, 0, sizeof *f);
    f->below = ps->top;
    f->term = ps->current;
    f->tail = ps->last;
    f->level = ps->level;
    f->type = type;
    f->flags = ps->flags;
    ps->top = f;
    ps->level = level;
}

static db_term_t *_first_after(const db_term_parser_t *ps, db_term_t *tail) {
    return tail ? tail->list_next : ps->first;
}

static void _append(db_term_parser_t *ps, db_term_t *t) {
    if (ps->last) {
        ps->last->list_next = t;
    } else {
        ps->first = t;
    }
    ps->last = t;
}

static db_term_t *_term_new(const char *text, size_t len, uint32_t flags, int is_filter) {
    db_term_t *t = (db_term_t *) mem_alloc(sizeof(db_term_t) + len + 1);
    memset(t, 0, sizeof *t);
    t->text = (char *) (t + 1);
    if (text) {
        memcpy(t->text, text, len);
    }
    t->text[len] = 0;
    t->len = (uint32_t) len;
    t->flags = flags;
    t->is_filter = (uint8_t) is_filter;
    return t;
}

static void _read_term(db_term_parser_t *ps) {
    const char *p = ps->cursor;
    uint32_t maybe;
    size_t len = term_read(&p, nullptr, ps->depth, ps->round, &maybe);
    db_term_t *t = _term_new(nullptr, len, ps->flags | maybe, ps->is_filter);
    p = ps->cursor;
    term_read(&p, t->text, ps->depth, ps->round, &maybe);
    ps->cursor = p;
    _append(ps, t);
    ps->current = t;
}

// Tests the prefixes that may open an operand. True when one was taken (a frame was pushed).
static bool _operand_prefix(db_term_parser_t *ps) {
    const char *p = ps->cursor;
    size_t n = 0;
    if (*p == '!' && allow_exclamation_point_not) {
        n = 1;
    } else if (!_prefix(p, "not:", &n)) {
        n = _word_operator(ps, p, "NOT");
    }
    if (n) {
        ps->cursor = p + n;
        _push(ps, FRAME_NOT, LEVEL_MODIFIER);
        return true;
    }
    if (*p == '<' || (*p == '(' && ps->round)) {
        ps->cursor = p + 1;
        _push(ps, FRAME_GROUP, 0);
        ps->depth++;
        return true;
    }
    for (const modifier_t &m : modifiers) {
        if (_prefix(p, m.literal, &n)) {
            ps->cursor = p + n;
            _push(ps, FRAME_MODIFIER, LEVEL_MODIFIER);
            ps->top->set = m.set, ps->top->clear = m.clear;
            return true;
        }
    }
    for (const modifier_t &m : filter_modifiers) {
        if (_prefix(p, m.literal, &n)) {
            ps->cursor = p + n;
            _push(ps, FRAME_FILTER_MODIFIER, LEVEL_MODIFIER);
            ps->flags = (ps->flags | m.set) & ~m.clear;
            return true;
        }
    }
    return false;
}

// Wires the left operand's open ends to the right operand: every term from left up to (not including)
// right whose link is still null.
static void _link_open_ends(db_term_t *left, db_term_t *right, bool on_success) {
    for (db_term_t *t = left; t && t != right; t = t->list_next) {
        db_term_t **link = on_success ? &t->next : &t->notnext;
        if (!*link) {
            *link = right;
        }
    }
}

// Closes the top frame. False when there was none: the parse is complete.
static bool _pop(db_term_parser_t *ps) {
    db_term_frame_t *f = ps->top;
    if (!f) {
        return false;
    }
    ps->top = f->below;
    ps->level = f->level;
    ps->flags = f->flags;
    db_term_t *operand = _first_after(ps, f->tail);
    switch (f->type) {
    case FRAME_GROUP:
        ps->depth--;
        if (*ps->cursor == '>' || (*ps->cursor == ')' && ps->round)) {
            ps->cursor++;
        }
        ps->current = operand;
        break;
    case FRAME_OR:
    case FRAME_AND:
        _link_open_ends(f->term, operand, f->type == FRAME_AND);
        ps->current = f->term;
        break;
    case FRAME_NOT:
        // De Morgan on the graph: inverting every term and swapping its exits turns "a and b" into
        // "not a or not b" without new nodes.
        for (db_term_t *t = operand; t; t = t->list_next) {
            t->flags ^= TERM_NOT_ALL;
            if (t != ps->last) {
                db_term_t *swap = t->next;
                t->next = t->notnext;
                t->notnext = swap;
            }
        }
        ps->current = operand;
        break;
    case FRAME_MODIFIER:
        for (db_term_t *t = operand; t; t = t->list_next) {
            t->flags = (t->flags | f->set) & ~f->clear;
        }
        ps->current = operand;
        break;
    case FRAME_FILTER_MODIFIER:
        ps->current = operand;
        break;
    default:
        debug_fatal("db_query.c", 0, "_db_query_term_parse_all", "invalid db query term parse frame pop %d",
                    f->type);
    }
    mem_free(f);
    return true;
}

// After an operand: close frames, or open the next binary operator. Returns true when the parser must
// read another operand, false when the line is complete.
static bool _combine(db_term_parser_t *ps) {
    for (;;) {
        const char *p = ps->cursor;
        if (ps->depth > 0 && (*p == '>' || (*p == ')' && ps->round))) {
            if (!_pop(ps)) {
                return false;
            }
            continue;
        }
        if (ps->level > ps->or_level && _or_token(ps, p)) {
            _pop(ps);
            continue;
        }
        if (*p && ps->level <= ps->or_level) {
            size_t n = _or_token(ps, p);
            if (n) {
                ps->cursor = p + n;
                _push(ps, FRAME_OR, ps->or_level);
                return true;
            }
        }
        if (*p && ps->level <= ps->and_level) {
            const char *q = text_skip_space(p);
            size_t n = _word_operator(ps, q, "AND");
            ps->cursor = q + n;
            _push(ps, FRAME_AND, ps->and_level);
            return true;
        }
        if (!_pop(ps)) {
            return false;
        }
    }
}

db_term_t *db_term_parse_all(const char *text, uint32_t flags, int is_filter) {
    db_term_parser_t ps;
    memset(&ps, 0, sizeof ps);
    ps.cursor = text_skip_space(text);
    ps.flags = flags;
    ps.is_filter = is_filter;
    ps.round = allow_round_bracket_parenthesis != 0;
    ps.literal = allow_literal_operators != 0;
    ps.or_level = operator_precedence == 1 ? 1 : 2;
    ps.and_level = operator_precedence == 1 ? 2 : 1;
    if (flags & TERM_REGEX) {
        // A regular expression is the whole line, white space and operators included.
        db_term_t *t = _term_new(text, strlen(text), flags, is_filter);
        return t;
    }
    for (;;) {
        while (_operand_prefix(&ps)) {
        }
        _read_term(&ps);
        if (!_combine(&ps)) {
            break;
        }
    }
    return ps.first;
}

void db_terms_free(db_term_t *first) {
    while (first) {
        db_term_t *next = first->list_next;
        mem_free(first);
        first = next;
    }
}

uint32_t db_search_start_flags(uint32_t bits) {
    uint32_t flags = TERM_WILDCARDS;
    if (match_whole_filename_when_using_wildcards) {
        flags |= TERM_WILDCARD_WHOLE;
    }
    if (fast_ascii_search) {
        flags |= TERM_ASCII;
    }
    flags |= bits & (SEARCH_CASE | SEARCH_WHOLEWORD | SEARCH_PATH | SEARCH_DIACRITICS);
    if (bits & SEARCH_REGEX) {
        flags |= TERM_REGEX;
    }
    return flags;
}

db_term_t *db_search_parse(const char *search, uint32_t search_bits, const char *filter,
                           uint32_t filter_bits) {
    db_term_t *first = db_term_parse_all(search ? search : "", db_search_start_flags(search_bits), 0);
    if (!filter || !*filter) {
        return first;
    }
    db_term_t *filter_first = db_term_parse_all(filter, db_search_start_flags(filter_bits), 1);
    // Every successful end of the search continues into the filter; a failed filter term stops the
    // record, so the filter is ANDed on the whole search.
    db_term_t *last = first;
    for (db_term_t *t = first; t; t = t->list_next) {
        if (!t->next) {
            t->next = filter_first;
        }
        last = t;
    }
    last->list_next = filter_first;
    return first;
}
