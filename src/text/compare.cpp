// The comparisons: the name orders of the index (folded on both sides), a name against a term folded
// beforehand (folded on the name side only), the zero-terminated forms and the tail order of the
// extension list. Each returns the difference of the first differing pair of values, else the difference
// of the bytes left, so that a prefix sorts before its extensions.
#include "text/fold_policy.h"

namespace {

inline int _text_rest(size_t alen, size_t i, size_t blen, size_t j) {
    return (int) ((ptrdiff_t) (alen - i) - (ptrdiff_t) (blen - j));
}

template <class P>
int _text_compare_both(const char *a, size_t alen, const char *b, size_t blen) {
    const uint8_t *pa = (const uint8_t *) a, *pb = (const uint8_t *) b;
    size_t i = 0, j = 0;
    while (i < alen && j < blen) {
        uint8_t ca = pa[i], cb = pb[j];
        if (ca < 0x80 && cb < 0x80) {
            if (ascii_lower[ca] != ascii_lower[cb]) {
                return (int) ascii_lower[ca] - (int) ascii_lower[cb];
            }
            i++;
            j++;
            continue;
        }
        int la, lb;
        uint32_t va = fold_char<P>(pa + i, alen - i, &la);
        uint32_t vb = fold_char<P>(pb + j, blen - j, &lb);
        if (va != vb) {
            return (int) va - (int) vb;
        }
        i += (size_t) la;
        j += (size_t) lb;
    }
    return _text_rest(alen, i, blen, j);
}

// The term side is decoded as it stands: it was folded when the search was compiled.
template <class P>
int _text_compare_name(const char *name, size_t len, const char *folded, size_t flen) {
    const uint8_t *pa = (const uint8_t *) name, *pb = (const uint8_t *) folded;
    size_t i = 0, j = 0;
    while (i < len && j < flen) {
        int la, lb;
        uint32_t va = fold_char<P>(pa + i, len - i, &la);
        uint32_t vb = text_decode(pb + j, flen - j, &lb);
        if (va != vb) {
            return (int) va - (int) vb;
        }
        i += (size_t) la;
        j += (size_t) lb;
    }
    return _text_rest(len, i, flen, j);
}

size_t _text_strlen(const char *s) {
    size_t n = 0;
    while (s[n]) {
        n++;
    }
    return n;
}

} // namespace

int utf8_compare_lower_base(const char *a, size_t alen, const char *b, size_t blen) {
    return _text_compare_both<fold_lower_base_t>(a, alen, b, blen);
}

int utf8_compare_lower(const char *a, size_t alen, const char *b, size_t blen) {
    return _text_compare_both<fold_lower_t>(a, alen, b, blen);
}

int text_compare_lower(const char *name, size_t len, const char *folded, size_t flen) {
    return _text_compare_name<fold_lower_t>(name, len, folded, flen);
}

int text_compare_lower_base(const char *name, size_t len, const char *folded, size_t flen) {
    return _text_compare_name<fold_lower_base_t>(name, len, folded, flen);
}

int text_compare_base(const char *name, size_t len, const char *folded, size_t flen) {
    return _text_compare_name<fold_base_t>(name, len, folded, flen);
}

int utf8_strcmp_lower(const char *a, const char *b) {
    const uint8_t *pa = (const uint8_t *) a, *pb = (const uint8_t *) b;
    while (*pa && *pb) {
        int la, lb;
        uint32_t va, vb;
        if (*pa < 0x80) {
            va = ascii_lower[*pa];
            la = 1;
        } else {
            va = text_fold_lower(text_decode_z(pa, &la));
        }
        if (*pb < 0x80) {
            vb = ascii_lower[*pb];
            lb = 1;
        } else {
            vb = text_fold_lower(text_decode_z(pb, &lb));
        }
        if (va != vb) {
            return (int) va - (int) vb;
        }
        pa += la;
        pb += lb;
    }
    // Only the end of a string is measured, and only what is left of it.
    return _text_rest(_text_strlen((const char *) pa), 0, _text_strlen((const char *) pb), 0);
}

int ascii_stricmp(const char *a, const char *b) {
    const uint8_t *pa = (const uint8_t *) a, *pb = (const uint8_t *) b;
    while (ascii_lower[*pa] == *pb) {
        if (*pa == 0) {
            return 0;
        }
        pa++;
        pb++;
    }
    return (int) ascii_lower[*pa] - (int) *pb;
}

int utf8_compare_tail(const char *a_end, size_t alen, const char *b_end, size_t blen) {
    const uint8_t *ea = (const uint8_t *) a_end, *eb = (const uint8_t *) b_end;
    const uint8_t *ba = ea - alen, *bb = eb - blen;
    while (ea > ba && eb > bb) {
        int la, lb;
        uint32_t va = text_decode_back(ba, ea, &la);
        uint32_t vb = text_decode_back(bb, eb, &lb);
        if (va != vb) {
            return (int) va - (int) vb;
        }
        ea -= la;
        eb -= lb;
    }
    return _text_rest((size_t) (ea - ba), 0, (size_t) (eb - bb), 0);
}
