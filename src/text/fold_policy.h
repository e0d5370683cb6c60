// Folding policies for the hot loops of the matchers and comparisons. Each policy says how one name byte
// that is ASCII compares with a term byte, whether a non-ASCII name sequence is decoded at all, and which
// map folds a decoded code point. The templates in match.cpp and wildcard.cpp are instantiated once per
// policy so that the inner loop has no indirect call.
#pragma once

#include "text/text.h"

struct fold_exact_t {
    static constexpr bool decodes = false;
    static bool byte_equal(uint8_t name, uint8_t term) { return name == term; }
    static uint8_t ascii(uint8_t c) { return c; }
    static uint32_t fold(uint32_t cp) { return cp; }
};

// ascii_lower on the name only and no decoding: the term is pure ASCII and already lower case.
struct fold_ascii_t {
    static constexpr bool decodes = false;
    static bool byte_equal(uint8_t name, uint8_t term) { return ascii_lower[name] == term; }
    static uint8_t ascii(uint8_t c) { return ascii_lower[c]; }
    static uint32_t fold(uint32_t cp) { return cp; }
};

struct fold_lower_t {
    static constexpr bool decodes = true;
    static bool byte_equal(uint8_t name, uint8_t term) { return ascii_lower[name] == term; }
    static uint8_t ascii(uint8_t c) { return ascii_lower[c]; }
    static uint32_t fold(uint32_t cp) { return text_fold_lower(cp); }
};

struct fold_lower_base_t {
    static constexpr bool decodes = true;
    static bool byte_equal(uint8_t name, uint8_t term) { return ascii_lower[name] == term; }
    static uint8_t ascii(uint8_t c) { return ascii_lower[c]; }
    static uint32_t fold(uint32_t cp) { return text_fold_lower_base(cp); }
};

// Case counts: ASCII name bytes are compared as they stand. A non-ASCII byte never passes the byte test,
// or the lead byte of one letter could pair with the lead byte of another and their continuation bytes
// would then both decode to 0 and compare equal.
struct fold_base_t {
    static constexpr bool decodes = true;
    static bool byte_equal(uint8_t name, uint8_t term) { return name < 0x80 && name == term; }
    static uint8_t ascii(uint8_t c) { return c; }
    static uint32_t fold(uint32_t cp) { return text_fold_base(cp); }
};

// Compares the character of name at *i with the character of term at *j and, when they are equal under
// the policy, advances both past them. The cheap byte test comes first; only a non-ASCII name byte that
// failed it is decoded and folded, against the term's character decoded as it stands.
// Value and length of the character at p (left bytes remain): ASCII through the policy's byte map, anything
// else decoded and folded.
template <class P>
inline uint32_t fold_char(const uint8_t *p, size_t left, int *len) {
    if (p[0] < 0x80) {
        *len = 1;
        return P::ascii(p[0]);
    }
    return P::fold(text_decode(p, left, len));
}

template <class P>
inline bool fold_step(const uint8_t *name, size_t len, size_t *i, const uint8_t *term, size_t tlen,
                      size_t *j) {
    uint8_t n = name[*i];
    if (P::byte_equal(n, term[*j])) {
        *i += 1;
        *j += 1;
        return true;
    }
    if (!P::decodes || n < 0x80) {
        return false;
    }
    int nl, tl;
    uint32_t a = P::fold(text_decode(name + *i, len - *i, &nl));
    uint32_t b = text_decode(term + *j, tlen - *j, &tl);
    if (a != b) {
        return false;
    }
    *i += (size_t) nl;
    *j += (size_t) tl;
    return true;
}
