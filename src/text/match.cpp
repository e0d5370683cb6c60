// The plain matchers: contains, equal, starts with, ends with and whole word, each in every folding. One
// template per family over a folding policy, instantiated by the table at the end, keeps the inner loops
// free of indirect calls.
#include "text/fold_policy.h"

namespace {

// Matches the whole term at byte s of name; on success *end is the byte behind the match. The bytes left
// in the name must cover the bytes left in the term at every step: a fold that shortened the name's side
// can make an attempt fail early, which is accepted for the speed of the test.
template <class P>
inline bool _match_at(const uint8_t *name, size_t len, size_t s, const uint8_t *term, size_t tlen,
                      size_t *end) {
    size_t i = s, j = 0;
    if constexpr (!P::decodes) {
        for (; j < tlen; i++, j++) {
            if (!P::byte_equal(name[i], term[j])) {
                return false;
            }
        }
        *end = i;
        return true;
    }
    while (j < tlen) {
        if (!fold_step<P>(name, len, &i, term, tlen, &j)) {
            return false;
        }
        if (len - i < tlen - j) {
            return false;
        }
    }
    *end = i;
    return true;
}

// Start positions step by one byte: a term that begins with ASCII can't match at a continuation byte
// (it fails the ASCII test) and one that begins with a folded code point only matches at lead bytes,
// since a continuation byte decodes to 0.
template <class P>
bool _contains(const char *name, size_t len, const char *term, size_t tlen) {
    const uint8_t *n = (const uint8_t *) name, *t = (const uint8_t *) term;
    if (tlen == 0) {
        return true;
    }
    if (tlen > len) {
        return false;
    }
    size_t end;
    uint8_t first = t[0];
    // A continuation byte decodes to 0, so it can only start a match of a term that begins with 0.
    int first_len;
    bool skip_continuations = text_decode(t, tlen, &first_len) != 0;
    if (first < 0x80) {
        // The bytes that pass the cheap test for an ASCII first byte: itself and, where case does not
        // count, its upper-case form. Everything else is a candidate only as a lead byte.
        uint8_t alt = P::byte_equal(ascii_upper[first], first) ? ascii_upper[first] : first;
        uint8_t lowest_lead = P::decodes ? (skip_continuations ? 0xC0 : 0x80) : 0xFF;
        for (size_t s = 0; len - s >= tlen; s++) {
            uint8_t c = n[s];
            if (c != first && c != alt && (c < lowest_lead || !P::decodes)) {
                continue;
            }
            if (_match_at<P>(n, len, s, t, tlen, &end)) {
                return true;
            }
        }
        return false;
    }
    for (size_t s = 0; len - s >= tlen; s++) {
        uint8_t c = n[s];
        if (!P::byte_equal(c, first) && (!P::decodes || c < 0x80 || (skip_continuations && c < 0xC0))) {
            continue;
        }
        if (_match_at<P>(n, len, s, t, tlen, &end)) {
            return true;
        }
    }
    return false;
}

template <class P>
bool _startwith(const char *name, size_t len, const char *term, size_t tlen) {
    size_t end;
    return tlen <= len && _match_at<P>((const uint8_t *) name, len, 0, (const uint8_t *) term, tlen, &end);
}

template <class P>
bool _equal(const char *name, size_t len, const char *term, size_t tlen) {
    const uint8_t *n = (const uint8_t *) name, *t = (const uint8_t *) term;
    if constexpr (!P::decodes) {
        if (len != tlen) {
            return false;
        }
    }
    size_t i = 0, j = 0;
    while (i < len && j < tlen) {
        if (!fold_step<P>(n, len, &i, t, tlen, &j)) {
            return false;
        }
    }
    return i == len && j == tlen;
}

// Walks both from the end. A term longer in bytes than the name fails before any folding.
template <class P>
bool _endwith(const char *name, size_t len, const char *term, size_t tlen) {
    const uint8_t *n = (const uint8_t *) name, *t = (const uint8_t *) term;
    if (tlen > len) {
        return false;
    }
    size_t i = len, j = tlen;
    while (j > 0) {
        if (i == 0) {
            return false;
        }
        uint8_t c = n[i - 1];
        if (P::byte_equal(c, t[j - 1])) {
            i--;
            j--;
            continue;
        }
        if (!P::decodes || c < 0x80) {
            return false;
        }
        int nl, tl;
        uint32_t a = P::fold(text_decode_back(n, n + i, &nl));
        uint32_t b = text_decode_back(t, t + j, &tl);
        if (a != b) {
            return false;
        }
        i -= (size_t) nl;
        j -= (size_t) tl;
    }
    return true;
}

// A boundary is needed only on a side where the term itself ends in a word character.
template <class P>
bool _word_contains(const char *name, size_t len, const char *term, size_t tlen) {
    const uint8_t *n = (const uint8_t *) name, *t = (const uint8_t *) term;
    if (tlen == 0) {
        return true;
    }
    if (tlen > len) {
        return false;
    }
    bool left_word = text_is_word_byte(t[0]), right_word = text_is_word_byte(t[tlen - 1]);
    size_t end;
    for (size_t s = 0; len - s >= tlen; s++) {
        if (left_word && s > 0 && text_is_word_byte(n[s - 1])) {
            continue;
        }
        if (!_match_at<P>(n, len, s, t, tlen, &end)) {
            continue;
        }
        if (!right_word || end == len || !text_is_word_byte(n[end])) {
            return true;
        }
    }
    return false;
}

} // namespace

#define TEXT_MATCHER_DEFINE(family, impl)                                                                    \
    bool family##_exact(const char *name, size_t len, const char *term, size_t tlen) {                       \
        return impl<fold_exact_t>(name, len, term, tlen);                                                    \
    }                                                                                                        \
    bool family##_ascii(const char *name, size_t len, const char *term, size_t tlen) {                       \
        return impl<fold_ascii_t>(name, len, term, tlen);                                                    \
    }                                                                                                        \
    bool family##_lower(const char *name, size_t len, const char *term, size_t tlen) {                       \
        return impl<fold_lower_t>(name, len, term, tlen);                                                    \
    }                                                                                                        \
    bool family##_lower_base(const char *name, size_t len, const char *term, size_t tlen) {                  \
        return impl<fold_lower_base_t>(name, len, term, tlen);                                               \
    }                                                                                                        \
    bool family##_base(const char *name, size_t len, const char *term, size_t tlen) {                        \
        return impl<fold_base_t>(name, len, term, tlen);                                                     \
    }

TEXT_MATCHER_DEFINE(text_contains, _contains)
TEXT_MATCHER_DEFINE(text_equal, _equal)
TEXT_MATCHER_DEFINE(text_startwith, _startwith)
TEXT_MATCHER_DEFINE(text_endwith, _endwith)

bool text_word_contains_exact(const char *name, size_t len, const char *term, size_t tlen) {
    return _word_contains<fold_exact_t>(name, len, term, tlen);
}
bool text_word_contains_lower(const char *name, size_t len, const char *term, size_t tlen) {
    return _word_contains<fold_lower_t>(name, len, term, tlen);
}
bool text_word_contains_lower_base(const char *name, size_t len, const char *term, size_t tlen) {
    return _word_contains<fold_lower_base_t>(name, len, term, tlen);
}
bool text_word_contains_base(const char *name, size_t len, const char *term, size_t tlen) {
    return _word_contains<fold_base_t>(name, len, term, tlen);
}

#define TEXT_MATCHER_ROW(family)                                                                             \
    { family##_exact, family##_ascii, family##_lower, family##_lower_base, family##_base }

text_matcher_t text_matcher(text_family_t family, text_folding_t folding) {
    static const text_matcher_t table[TEXT_MATCH_COUNT][TEXT_FOLD_COUNT] = {
        TEXT_MATCHER_ROW(text_contains),
        TEXT_MATCHER_ROW(text_equal),
        TEXT_MATCHER_ROW(text_startwith),
        TEXT_MATCHER_ROW(text_endwith),
        {text_word_contains_exact, nullptr, text_word_contains_lower, text_word_contains_lower_base,
         text_word_contains_base},
        TEXT_MATCHER_ROW(wildcard_whole),
        TEXT_MATCHER_ROW(wildcard_prefix),
        TEXT_MATCHER_ROW(wildcard_contains),
        TEXT_MATCHER_ROW(wildcard_word_anchored),
        TEXT_MATCHER_ROW(wildcard_word_contains),
    };
    if ((unsigned) family >= TEXT_MATCH_COUNT || (unsigned) folding >= TEXT_FOLD_COUNT) {
        return nullptr;
    }
    return table[family][folding];
}
