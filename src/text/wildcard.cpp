// Wildcard matching ('*' any run of characters, '?' exactly one code point) in every folding, and the
// pattern helpers the search compiler uses to reduce a pattern to a plain matcher where it can. Patterns
// are normalised (one '*' per run) and folded before they get here, which keeps the recursion of '*' as
// deep as the number of stars.
#include "text/fold_policy.h"

namespace {

enum wildcard_end_t { WILDCARD_WHOLE, WILDCARD_PREFIX, WILDCARD_ANCHORED };

inline size_t _wildcard_next(const uint8_t *text, size_t len, size_t i) {
    int n;
    text_decode(text + i, len - i, &n);
    return i + (size_t) n;
}

// What the end of the pattern at text position i means for each form.
inline bool _wildcard_done(wildcard_end_t mode, const uint8_t *text, size_t len, size_t i, const uint8_t *pat,
                           size_t plen) {
    switch (mode) {
    case WILDCARD_WHOLE:
        return i == len;
    case WILDCARD_PREFIX:
        return true;
    case WILDCARD_ANCHORED:
        break;
    }
    return plen == 0 || !text_is_word_byte(pat[plen - 1]) || i == len || !text_is_word_byte(text[i]);
}

template <class P>
bool _wildcard(wildcard_end_t mode, const uint8_t *text, size_t len, size_t i, const uint8_t *pat,
               size_t plen, size_t j) {
    while (j < plen) {
        uint8_t c = pat[j];
        if (c == '*') {
            if (j + 1 == plen) {
                return true;
            }
            if (i == len) {
                j++;
                continue;
            }
            for (;;) {
                if (_wildcard<P>(mode, text, len, i, pat, plen, j + 1)) {
                    return true;
                }
                if (i == len) {
                    return false;
                }
                i = _wildcard_next(text, len, i);
            }
        }
        if (i == len) {
            return false;
        }
        if (c == '?') {
            i = _wildcard_next(text, len, i);
            j++;
            continue;
        }
        if (!fold_step<P>(text, len, &i, pat, plen, &j)) {
            return false;
        }
    }
    return _wildcard_done(mode, text, len, i, pat, plen);
}

template <class P>
bool _wildcard_whole(const char *name, size_t len, const char *pat, size_t plen) {
    return _wildcard<P>(WILDCARD_WHOLE, (const uint8_t *) name, len, 0, (const uint8_t *) pat, plen, 0);
}

template <class P>
bool _wildcard_prefix(const char *name, size_t len, const char *pat, size_t plen) {
    return _wildcard<P>(WILDCARD_PREFIX, (const uint8_t *) name, len, 0, (const uint8_t *) pat, plen, 0);
}

template <class P>
bool _wildcard_word_anchored(const char *name, size_t len, const char *pat, size_t plen) {
    return _wildcard<P>(WILDCARD_ANCHORED, (const uint8_t *) name, len, 0, (const uint8_t *) pat, plen, 0);
}

// Tries every code-point start, the end of the text included.
template <class P>
bool _wildcard_contains(const char *name, size_t len, const char *pat, size_t plen) {
    const uint8_t *t = (const uint8_t *) name, *p = (const uint8_t *) pat;
    for (size_t i = 0;; i = _wildcard_next(t, len, i)) {
        if (_wildcard<P>(WILDCARD_PREFIX, t, len, i, p, plen, 0)) {
            return true;
        }
        if (i >= len) {
            return false;
        }
    }
}

// Starts at 0 and wherever a word may begin: after a non-word byte, or anywhere when the pattern itself
// does not begin with a word character.
template <class P>
bool _wildcard_word_contains(const char *name, size_t len, const char *pat, size_t plen) {
    const uint8_t *t = (const uint8_t *) name, *p = (const uint8_t *) pat;
    bool anywhere = plen == 0 || !text_is_word_byte(p[0]);
    for (size_t i = 0;; i = _wildcard_next(t, len, i)) {
        if ((i == 0 || anywhere || !text_is_word_byte(t[i - 1])) &&
            _wildcard<P>(WILDCARD_ANCHORED, t, len, i, p, plen, 0)) {
            return true;
        }
        if (i >= len) {
            return false;
        }
    }
}

} // namespace

#define WILDCARD_DEFINE(family, impl)                                                                        \
    bool family##_exact(const char *name, size_t len, const char *pat, size_t plen) {                        \
        return impl<fold_exact_t>(name, len, pat, plen);                                                     \
    }                                                                                                        \
    bool family##_ascii(const char *name, size_t len, const char *pat, size_t plen) {                        \
        return impl<fold_ascii_t>(name, len, pat, plen);                                                     \
    }                                                                                                        \
    bool family##_lower(const char *name, size_t len, const char *pat, size_t plen) {                        \
        return impl<fold_lower_t>(name, len, pat, plen);                                                     \
    }                                                                                                        \
    bool family##_lower_base(const char *name, size_t len, const char *pat, size_t plen) {                   \
        return impl<fold_lower_base_t>(name, len, pat, plen);                                                \
    }                                                                                                        \
    bool family##_base(const char *name, size_t len, const char *pat, size_t plen) {                         \
        return impl<fold_base_t>(name, len, pat, plen);                                                      \
    }

WILDCARD_DEFINE(wildcard_whole, _wildcard_whole)
WILDCARD_DEFINE(wildcard_prefix, _wildcard_prefix)
WILDCARD_DEFINE(wildcard_contains, _wildcard_contains)
WILDCARD_DEFINE(wildcard_word_anchored, _wildcard_word_anchored)
WILDCARD_DEFINE(wildcard_word_contains, _wildcard_word_contains)

int text_wildcard_normalize(char *pattern) {
    char *w = pattern;
    int wildcards = 0;
    for (const char *r = pattern; *r; r++) {
        if (*r == '*' && w > pattern && w[-1] == '*') {
            continue;
        }
        if (*r == '*' || *r == '?') {
            wildcards++;
        }
        *w++ = *r;
    }
    *w = 0;
    return wildcards;
}

bool text_strip_star_both(char *pattern) {
    size_t n = 0;
    while (pattern[n]) {
        n++;
    }
    if (n < 3 || pattern[0] != '*' || pattern[n - 1] != '*') {
        return false;
    }
    for (size_t i = 1; i + 1 < n; i++) {
        pattern[i - 1] = pattern[i];
    }
    pattern[n - 2] = 0;
    return true;
}

bool text_strip_star_front(char *pattern) {
    if (pattern[0] != '*') {
        return false;
    }
    size_t i = 0;
    do {
        pattern[i] = pattern[i + 1];
    } while (pattern[i++]);
    return true;
}

bool text_strip_star_back(char *pattern) {
    size_t n = 0;
    while (pattern[n]) {
        n++;
    }
    if (n == 0 || pattern[n - 1] != '*') {
        return false;
    }
    pattern[n - 1] = 0;
    return true;
}
