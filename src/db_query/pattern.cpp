// String patterns of the functions that take one: a matcher chosen and the text folded once by the
// term's flags, or a regular expression.
#include <cstring>

#include "db_query/query_internal.h"
#include "mem/mem.h"

#include <pcre2.h>

size_t db_text_match_size(uint32_t flags, const char *text, size_t len) {
    // Folding never needs more than three bytes out for each byte in (a one-byte code point stays one
    // byte; two- and three-byte code points fold to at most three).
    return len * 3 + 1;
}

void term_pattern_compile(uint32_t flags, const char *text, size_t len, db_text_match_t *pattern,
                          char *storage) {
    memset(pattern, 0, sizeof *pattern);
    pattern->text = storage;
    if (flags & TERM_REGEX) {
        pattern->family = 0xFF;
        pattern->regex = db_regex_compile(text, len, (flags & TERM_CASE) != 0);
        pattern->never = pattern->regex == nullptr;
        memcpy(storage, text, len);
        storage[len] = 0;
        pattern->len = (uint32_t) len;
        return;
    }
    char *work = mem_dup(text, len);
    // The same reductions as a plain term's, so that a function's "*" matches all as the term "*" does.
    int wild = db_term_wildcards(&flags, work);
    size_t n = strlen(work);
    text_family_t family;
    char *body = work;
    if (wild && !(flags & TERM_WILDCARD_WHOLE)) {
        family = (flags & TERM_WHOLEWORD) ? TEXT_MATCH_WILDCARD_WORD_CONTAINS : TEXT_MATCH_WILDCARD_CONTAINS;
    } else if (wild && wild == 1 && n > 1 && work[0] == '*') {
        family = TEXT_MATCH_ENDWITH, body++, n--;
    } else if (wild && wild == 1 && n > 1 && work[n - 1] == '*') {
        family = TEXT_MATCH_STARTWITH, n--;
    } else if (wild) {
        family = TEXT_MATCH_WILDCARD_WHOLE;
    } else if (flags & TERM_WHOLEWORD) {
        family = TEXT_MATCH_WORD_CONTAINS;
    } else if (flags & TERM_EXACT) {
        family = TEXT_MATCH_EQUAL;
    } else {
        family = TEXT_MATCH_CONTAINS;
    }
    text_folding_t folding = db_term_folding(flags, body, n);
    if (folding == TEXT_FOLD_ASCII && family == TEXT_MATCH_WORD_CONTAINS) {
        folding = TEXT_FOLD_LOWER;
    }
    pattern->family = (uint8_t) family;
    pattern->folding = (uint8_t) folding;
    pattern->match = text_matcher(family, folding);
    pattern->len = (uint32_t) term_fold_write(storage, body, n, folding);
    storage[pattern->len] = 0;
    mem_free(work);
}

bool db_text_match_run(const db_text_match_t *pattern, const char *text, size_t len) {
    if (pattern->never) {
        return false;
    }
    if (pattern->regex) {
        pcre2_code *code = (pcre2_code *) pattern->regex;
        pcre2_match_data *md = pcre2_match_data_create_from_pattern(code, nullptr);
        int rc = pcre2_match(code, (PCRE2_SPTR) text, len, 0, 0, md, nullptr);
        pcre2_match_data_free(md);
        return rc >= 0;
    }
    return pattern->match && pattern->match(text, len, pattern->text, pattern->len);
}

void db_text_match_free(db_text_match_t *pattern) {
    pcre2_code_free((pcre2_code *) pattern->regex);
    pattern->regex = nullptr;
}
