// The macro pass: filters and bookmarks named in a search line are replaced by their own searches
// before the line is parsed, and environment variables are expanded when the setting asks for it.
//
// Invariants:
// - Macros are recognised only at a word start outside quotes; text inside quotes is copied unchanged.
// - Expansion nests (a macro's search may name another macro) to a depth of 64; deeper text is copied
//   as it stands, so a macro that names itself ends; past 1 MiB of output nothing more is expanded either.
// - The pass never fails; it only copies or replaces.
#pragma once

#include <cstdint>

#include "db_query/term.h"

struct str_t;

// A filter or bookmark as the macro pass sees it. For a bookmark, macro may be "name<param>": then
// "name:" takes an argument that replaces every "param:" in the search.
struct db_macro_t {
    const char *macro;  // the name typed before ':'
    const char *search; // what it stands for
    uint32_t flags;     // SEARCH_CASE .. SEARCH_REGEX
    bool use_flags;     // write the flags ahead of the search
};

// Expands text into out (replacing out's text).
void db_expand_search(str_t *out, const char *text, const db_macro_t *filters, int filter_count,
                      const db_macro_t *bookmarks, int bookmark_count);
// Replaces every %NAME% of a set environment variable with its value, as the system's expansion does;
// unknown names and a lone '%' stay as they are.
void db_expand_environment(str_t *text);
// Both steps as the search window runs them: macros, then the environment when the setting is on.
void db_expand_all(str_t *out, const char *text, const db_macro_t *filters, int filter_count,
                   const db_macro_t *bookmarks, int bookmark_count);
