// Arbitrary patterns and names through every wildcard form in every folding. Besides the sanitizers it
// checks how the forms nest: a whole match is also a prefix, anchored and contained match; an anchored
// match is a word match and a prefix match; and a pattern without wildcards matches whole exactly when
// the plain equality matcher says so.
#include "text/text.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

// The recursion of '*' is exponential in the number of stars by design (one per run after
// normalisation); cap the input so that one run stays short.
const size_t MAX_NAME = 64;
const size_t MAX_PATTERN = 24;
const int MAX_STARS = 4;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    text_folding_t folding = (text_folding_t) (data[0] % TEXT_FOLD_COUNT);
    size_t plen = data[1] % (MAX_PATTERN + 1);
    data += 2;
    size -= 2;
    if (plen > size) {
        plen = size;
    }
    std::string typed((const char *) data, plen);
    std::string name((const char *) data + plen, size - plen);
    if (name.size() > MAX_NAME) {
        name.resize(MAX_NAME);
    }
    typed = typed.c_str(); // patterns are zero-terminated text
    int stars = 0;
    for (char c : typed) {
        stars += c == '*';
    }
    if (stars > MAX_STARS) {
        return 0;
    }
    int wildcards = text_wildcard_normalize(typed.data());
    typed.resize(strlen(typed.c_str()));
    size_t flen = term_fold_length(typed.data(), typed.size(), folding);
    std::string pat(flen, '\0');
    term_fold_write(pat.data(), typed.data(), typed.size(), folding);

    auto run = [&](text_family_t f) {
        return text_matcher(f, folding)(name.data(), name.size(), pat.data(), pat.size());
    };
    bool whole = run(TEXT_MATCH_WILDCARD_WHOLE);
    bool prefix = run(TEXT_MATCH_WILDCARD_PREFIX);
    bool contains = run(TEXT_MATCH_WILDCARD_CONTAINS);
    bool anchored = run(TEXT_MATCH_WILDCARD_WORD_ANCHORED);
    bool word = run(TEXT_MATCH_WILDCARD_WORD_CONTAINS);
    check(!whole || (prefix && anchored));
    check(!prefix || contains);
    check(!anchored || (prefix && word));
    check(!word || contains);
    // An overlong sequence can fold into a real '*' or '?', so wildcards are counted after folding.
    if (wildcards == 0 && pat.find_first_of("*?") == std::string::npos) {
        check(whole == run(TEXT_MATCH_EQUAL));
    }

    std::string both = typed;
    if (text_strip_star_both(both.data())) {
        check(both.size() > strlen(both.c_str()));
    }
    return 0;
}
