// Folding of a search term, done once when the search is compiled so that the matchers fold only the
// name side. A fold can change the byte length of a character, hence a measuring and a writing pass that
// walk the text the same way.
#include "mem/mem.h"
#include "text/fold_policy.h"

namespace {

// Calls emit(code point or byte, is_byte) for every character of text in the folding; a byte is written
// as it stands, a code point in its shortest UTF-8 form.
template <class F>
void _term_walk(const char *text, size_t len, text_folding_t folding, F emit) {
    const uint8_t *p = (const uint8_t *) text;
    size_t i = 0;
    while (i < len) {
        uint8_t c = p[i];
        if (folding == TEXT_FOLD_EXACT) {
            emit(c, true);
            i++;
            continue;
        }
        if (c < 0x80) {
            emit(folding == TEXT_FOLD_BASE ? c : ascii_lower[c], true);
            i++;
            continue;
        }
        int n;
        uint32_t cp = text_decode(p + i, len - i, &n);
        switch (folding) {
        case TEXT_FOLD_BASE:
            cp = text_fold_base(cp);
            break;
        case TEXT_FOLD_LOWER_BASE:
            cp = text_fold_lower_base(cp);
            break;
        default:
            cp = text_fold_lower(cp);
            break;
        }
        emit(cp, false);
        i += (size_t) n;
    }
}

} // namespace

text_folding_t text_folding_for(bool match_case, bool match_diacritics) {
    if (match_case) {
        return match_diacritics ? TEXT_FOLD_EXACT : TEXT_FOLD_BASE;
    }
    return match_diacritics ? TEXT_FOLD_LOWER : TEXT_FOLD_LOWER_BASE;
}

size_t term_fold_length(const char *text, size_t len, text_folding_t folding) {
    size_t n = 0;
    _term_walk(text, len, folding,
               [&](uint32_t v, bool is_byte) { n += is_byte ? 1 : (size_t) text_encoded_length(v); });
    return n;
}

size_t term_fold_write(char *dest, const char *text, size_t len, text_folding_t folding) {
    size_t n = 0;
    _term_walk(text, len, folding, [&](uint32_t v, bool is_byte) {
        if (is_byte) {
            dest[n++] = (char) v;
        } else {
            n += (size_t) text_encode(v, dest + n);
        }
    });
    return n;
}

void term_fold(str_t *out, const char *text, size_t len, text_folding_t folding) {
    size_t n = term_fold_length(text, len, folding);
    // The text may live in out itself, so fold into a scratch block first when it is not small.
    char small[STR_INLINE];
    char *buf = n <= sizeof(small) ? small : (char *) mem_alloc(n);
    term_fold_write(buf, text, len, folding);
    str_set_n(out, buf, (int) n);
    if (buf != small) {
        mem_free(buf);
    }
}
