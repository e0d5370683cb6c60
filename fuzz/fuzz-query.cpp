// Any bytes are a valid search: parse, compile, dump and free them under every parser setting the
// first byte selects, as a search and as a filter, and expand them as macros.
#include <cstdint>
#include <cstring>
#include <string>

#include "config/config.h"
#include "db_query/expand.h"
#include "db_query/literal.h"
#include "db_query/term.h"
#include "mem/mem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    uint8_t settings = data[0], bits = data[1];
    std::string text((const char *) data + 2, size - 2);
    operator_precedence = settings & 1;
    allow_literal_operators = (settings >> 1) & 1;
    allow_round_bracket_parenthesis = (settings >> 2) & 1;
    allow_exclamation_point_not = (settings >> 3) & 1;
    match_whole_filename_when_using_wildcards = (settings >> 4) & 1;
    fast_ascii_search = (settings >> 5) & 1;
    match_path_when_search_contains_path_separator = (settings >> 6) & 1;

    // The search text ends at the first zero, as it does for every caller.
    const char *search = text.c_str();
    size_t split = strlen(search) / 2;
    std::string filter(search + split);
    db_search_t s;
    db_search_init(&s, nullptr);
    db_term_t *terms =
        db_search_parse(search, bits & 0x1F, (bits & 0x80) ? filter.c_str() : nullptr, bits >> 3);
    db_search_compile_terms(&s, terms);
    str_t out;
    str_init(&out);
    db_terms_dump(terms, &out);
    db_search_link(&s, terms);
    db_search_kill(&s);

    db_range64_t r;
    const char *p = search;
    date_literal_parse(&p, &r, true);
    p = search;
    size_literal_parse(&p, &r, true);

    db_macro_t filters[2] = {{"a", "a: b|c", SEARCH_CASE, true}, {"x", "y:z", 0, false}};
    db_macro_t bookmarks[1] = {{"bm<p>", "p: p:", 0, false}};
    db_expand_search(&out, search, filters, 2, bookmarks, 1);
    db_expand_environment(&out);
    str_kill(&out);
    return 0;
}
