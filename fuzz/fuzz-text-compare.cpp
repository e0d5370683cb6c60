// Arbitrary bytes through the comparisons and the term folding. Beyond "no crash, no sanitizer report" it
// checks what the index's sort and the search rely on: every order is antisymmetric, the zero-terminated
// order agrees with the counted one, and a name compares equal to its own folded form.
#include "mem/mem.h"
#include "text/text.h"

#include <cstdlib>
#include <cstring>

namespace {

int sign(int v) {
    return (v > 0) - (v < 0);
}

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

typedef int (*cmp_t)(const char *, size_t, const char *, size_t);

int tail(const char *a, size_t alen, const char *b, size_t blen) {
    return utf8_compare_tail(a + alen, alen, b + blen, blen);
}

// Folds name into a fresh heap block; the caller frees it.
char *fold(const char *name, size_t len, text_folding_t f, size_t *out_len) {
    size_t n = term_fold_length(name, len, f);
    char *buf = (char *) malloc(n + 1);
    check(term_fold_write(buf, name, len, f) == n);
    *out_len = n;
    return buf;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    size_t split = data[0] % size;
    const char *a = (const char *) data + 1;
    size_t alen = split > 0 ? split - 1 : 0;
    const char *b = (const char *) data + 1 + alen;
    size_t blen = size - 1 - alen;

    const cmp_t orders[] = {utf8_compare_lower_base, utf8_compare_lower, tail};
    for (cmp_t cmp : orders) {
        check(sign(cmp(a, alen, b, blen)) == -sign(cmp(b, blen, a, alen)));
        check(cmp(a, alen, a, alen) == 0);
    }

    // The zero-terminated form, on copies cut at their first zero byte.
    char *za = (char *) malloc(alen + 1), *zb = (char *) malloc(blen + 1);
    memcpy(za, a, alen);
    za[alen] = 0;
    memcpy(zb, b, blen);
    zb[blen] = 0;
    check(utf8_strcmp_lower(za, zb) == utf8_compare_lower(za, strlen(za), zb, strlen(zb)));
    // ascii_stricmp takes its second text as already lower case: against the ASCII-lowered copy it is
    // equal exactly when no byte falls outside ASCII (0xFF maps to itself).
    size_t zlen = strlen(za);
    char *lowered = (char *) malloc(zlen + 1);
    bool plain = true;
    for (size_t i = 0; i <= zlen; i++) {
        uint8_t c = (uint8_t) za[i];
        lowered[i] = (char) (c >= 'A' && c <= 'Z' ? c + 32 : c);
        plain = plain && (c < 0x80 || c == 0xFF);
    }
    check((ascii_stricmp(za, lowered) == 0) == plain);
    free(lowered);

    // A name equals its own folded form, and two names are equal under a fold exactly when one name
    // equals the other's folded form.
    const text_folding_t foldings[] = {TEXT_FOLD_LOWER, TEXT_FOLD_LOWER_BASE, TEXT_FOLD_BASE};
    typedef int (*name_cmp_t)(const char *, size_t, const char *, size_t);
    const name_cmp_t against[] = {text_compare_lower, text_compare_lower_base, text_compare_base};
    const text_matcher_t equal[] = {text_equal_lower, text_equal_lower_base, text_equal_base};
    for (int k = 0; k < 3; k++) {
        size_t fa_len, fb_len;
        char *fa = fold(a, alen, foldings[k], &fa_len);
        char *fb = fold(b, blen, foldings[k], &fb_len);
        check(against[k](a, alen, fa, fa_len) == 0);
        check(equal[k](a, alen, fa, fa_len));
        check(text_startwith_exact(fa, fa_len, "", 0));
        if (k < 2) {
            cmp_t order = k == 0 ? utf8_compare_lower : utf8_compare_lower_base;
            check((order(a, alen, b, blen) == 0) == (against[k](a, alen, fb, fb_len) == 0));
        }
        // Every matcher on arbitrary bytes, for the sanitizers.
        for (int family = 0; family < TEXT_MATCH_WILDCARD_WHOLE; family++) {
            text_matcher_t m = text_matcher((text_family_t) family, foldings[k]);
            if (m) {
                m(a, alen, fb, fb_len);
            }
        }
        free(fa);
        free(fb);
    }
    for (int family = 0; family < TEXT_MATCH_WILDCARD_WHOLE; family++) {
        text_matcher_t m = text_matcher((text_family_t) family, TEXT_FOLD_EXACT);
        check(m(a, alen, a, alen)); // every plain family finds a name in itself
        text_matcher_t ascii = text_matcher((text_family_t) family, TEXT_FOLD_ASCII);
        if (ascii) {
            ascii(a, alen, b, blen);
        }
    }

    // The converters: lengths agree with what is written.
    uint16_t *w = (uint16_t *) malloc((alen + 1) * sizeof(uint16_t));
    size_t units = utf8_to_utf16_counted(w, a, alen);
    check(units <= alen);
    size_t back = utf16_utf8_length_counted(w, units);
    char *u8 = (char *) malloc(back + 1);
    check(utf16_to_utf8_counted(u8, w, units) == u8 + back);
    free(u8);
    free(w);
    free(za);
    free(zb);
    return 0;
}
