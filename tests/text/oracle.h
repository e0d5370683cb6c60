// A slow, obviously-correct model of the text layer for the tests to compare against: names are decoded
// into lists of characters first, every character is folded through a std::map built from the rows of the
// folding maps, and matching is done on those lists. It shares no code with the library except the rows
// themselves, which u-fold.cpp checks on their own.
#pragma once

#include "text/text.h"

#include <cctype>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace oracle {

// One decoded character: value, byte offset and byte length.
struct ch_t {
    uint32_t cp;
    size_t off;
    size_t len;
};

// The decoding rule written out from the description, without the library's helper.
inline ch_t decode_at(const std::string &s, size_t i) {
    uint8_t c = (uint8_t) s[i];
    size_t left = s.size() - i;
    int need = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (need == 1) {
        return {c, i, 1};
    }
    if (need == 0 || left < (size_t) need) {
        return {0, i, 1};
    }
    static const uint32_t lead_mask[5] = {0, 0, 0x1F, 0x0F, 0x07};
    uint32_t cp = c & lead_mask[need];
    for (int k = 1; k < need; k++) {
        cp = cp * 64 + ((uint8_t) s[i + k] % 64);
    }
    return {cp, i, (size_t) need};
}

// The chain of characters from byte start to the end.
inline std::vector<ch_t> chars_from(const std::string &s, size_t start) {
    std::vector<ch_t> out;
    for (size_t i = start; i < s.size();) {
        ch_t c = decode_at(s, i);
        out.push_back(c);
        i += c.len;
    }
    return out;
}

// Backwards: up to three continuation bytes, then a lead announcing exactly that length.
inline ch_t decode_before(const std::string &s, size_t begin, size_t end) {
    uint8_t last = (uint8_t) s[end - 1];
    if (last < 0x80) {
        return {last, end - 1, 1};
    }
    size_t k = 1;
    while (k < 4 && end - k > begin && ((uint8_t) s[end - k] >> 6) == 2) {
        k++;
    }
    uint8_t lead = (uint8_t) s[end - k];
    int announced = (lead >> 5) == 6 ? 2 : (lead >> 4) == 14 ? 3 : (lead >> 3) == 30 ? 4 : 0;
    if (k < 2 || announced != (int) k) {
        return {0, end - 1, 1};
    }
    ch_t c = decode_at(s.substr(0, end), end - k);
    return c;
}

inline std::vector<ch_t> chars_backwards(const std::string &s) {
    std::vector<ch_t> out;
    for (size_t e = s.size(); e > 0;) {
        ch_t c = decode_before(s, 0, e);
        out.push_back(c);
        e -= c.len;
    }
    return out;
}

inline const std::map<uint32_t, uint32_t> &map_of(text_map_t which) {
    static std::map<uint32_t, uint32_t> maps[3];
    std::map<uint32_t, uint32_t> &m = maps[which];
    if (m.empty()) {
        text_fold_map_t t = text_fold_map(which);
        for (int i = 0; i < t.count; i++) {
            m[t.keys[i]] = t.values[i];
        }
    }
    return m;
}

inline uint32_t map_fold(text_map_t which, uint32_t cp) {
    const auto &m = map_of(which);
    auto it = m.find(cp);
    return it == m.end() ? cp : it->second;
}

inline uint8_t lower_ascii(uint8_t c) {
    return c >= 'A' && c <= 'Z' ? (uint8_t) (c + 32) : c;
}

// The value a name character takes in a decoding folding: ASCII by the case rule, others by the map.
inline uint32_t name_value(text_folding_t f, uint8_t first_byte, uint32_t cp) {
    if (first_byte < 0x80) {
        return f == TEXT_FOLD_BASE ? first_byte : lower_ascii(first_byte);
    }
    switch (f) {
    case TEXT_FOLD_LOWER:
        return map_fold(TEXT_MAP_LOWER, cp);
    case TEXT_FOLD_LOWER_BASE:
        return map_fold(TEXT_MAP_LOWER_BASE, cp);
    case TEXT_FOLD_BASE:
        return map_fold(TEXT_MAP_BASE, cp);
    default:
        return cp;
    }
}

inline bool decoding(text_folding_t f) {
    return f == TEXT_FOLD_LOWER || f == TEXT_FOLD_LOWER_BASE || f == TEXT_FOLD_BASE;
}

// One character of the name at byte i against one of the term at byte j; on success the byte counts
// they take. Exact compares one byte, ASCII one lowered byte; the others compare folded characters.
inline bool char_equal(text_folding_t f, const std::string &name, size_t i, const std::string &term, size_t j,
                       size_t *ni, size_t *tj) {
    uint8_t n = (uint8_t) name[i], t = (uint8_t) term[j];
    if (f == TEXT_FOLD_EXACT || f == TEXT_FOLD_ASCII) {
        *ni = *tj = 1;
        return f == TEXT_FOLD_EXACT ? n == t : (n < 0x80 && lower_ascii(n) == t);
    }
    ch_t a = decode_at(name, i), b = decode_at(term, j);
    *ni = a.len;
    *tj = b.len;
    return name_value(f, n, a.cp) == b.cp;
}

// The term matched from byte s; the end of the match in *end. Bytes left in the name must cover the bytes
// left in the term after every character.
inline bool match_at(text_folding_t f, const std::string &name, size_t s, const std::string &term,
                     size_t *end) {
    size_t i = s, j = 0;
    while (j < term.size()) {
        if (name.size() - i < term.size() - j) {
            return false;
        }
        size_t a, b;
        if (!char_equal(f, name, i, term, j, &a, &b)) {
            return false;
        }
        i += a;
        j += b;
    }
    if (name.size() < i) {
        return false;
    }
    *end = i;
    return true;
}

inline bool contains(text_folding_t f, const std::string &name, const std::string &term) {
    size_t end;
    for (size_t s = 0; s + term.size() <= name.size(); s++) {
        if (match_at(f, name, s, term, &end)) {
            return true;
        }
    }
    return term.empty();
}

inline bool startwith(text_folding_t f, const std::string &name, const std::string &term) {
    size_t end;
    return term.size() <= name.size() && match_at(f, name, 0, term, &end);
}

// Equal: the two lists of values are the same list.
inline std::vector<uint32_t> values(text_folding_t f, const std::string &s, bool fold) {
    std::vector<uint32_t> v;
    if (f == TEXT_FOLD_EXACT || f == TEXT_FOLD_ASCII) {
        for (uint8_t c : s) {
            v.push_back(fold && f == TEXT_FOLD_ASCII ? (c < 0x80 ? lower_ascii(c) : 0x100) : c);
        }
        return v;
    }
    for (ch_t c : chars_from(s, 0)) {
        v.push_back(fold ? name_value(f, (uint8_t) s[c.off], c.cp) : c.cp);
    }
    return v;
}

inline bool equal(text_folding_t f, const std::string &name, const std::string &term) {
    return values(f, name, true) == values(f, term, false);
}

// Ends with: the term's characters read backwards are a prefix of the name's read backwards.
inline bool endwith(text_folding_t f, const std::string &name, const std::string &term) {
    if (term.size() > name.size()) {
        return false;
    }
    if (!decoding(f)) {
        for (size_t k = 1; k <= term.size(); k++) {
            uint8_t n = (uint8_t) name[name.size() - k], t = (uint8_t) term[term.size() - k];
            if (f == TEXT_FOLD_EXACT ? n != t : !(n < 0x80 && lower_ascii(n) == t)) {
                return false;
            }
        }
        return true;
    }
    std::vector<ch_t> a = chars_backwards(name), b = chars_backwards(term);
    if (b.size() > a.size()) {
        return false;
    }
    for (size_t k = 0; k < b.size(); k++) {
        if (name_value(f, (uint8_t) name[a[k].off], a[k].cp) != b[k].cp) {
            return false;
        }
    }
    return true;
}

inline bool word_byte(uint8_t c) {
    return c >= 0x80 || isalnum(c) || c == '_';
}

inline bool word_contains(text_folding_t f, const std::string &name, const std::string &term) {
    if (term.empty()) {
        return true;
    }
    for (size_t s = 0; s + term.size() <= name.size(); s++) {
        size_t end;
        if (!match_at(f, name, s, term, &end)) {
            continue;
        }
        bool left = !word_byte((uint8_t) term[0]) || s == 0 || !word_byte((uint8_t) name[s - 1]);
        bool right =
            !word_byte((uint8_t) term.back()) || end == name.size() || !word_byte((uint8_t) name[end]);
        if (left && right) {
            return true;
        }
    }
    return false;
}

enum wild_end_t { WHOLE, PREFIX, ANCHORED };

// The set of (pattern byte, text byte) states reachable from the start, explored breadth-first: a
// different shape from the library's recursion that reaches the same answers.
inline bool wildcard_from(text_folding_t f, wild_end_t mode, const std::string &text, size_t start,
                          const std::string &pat) {
    size_t n = text.size(), m = pat.size();
    std::vector<std::vector<char>> seen(m + 1, std::vector<char>(n + 1, 0));
    std::vector<std::pair<size_t, size_t>> work = {{0, start}};
    seen[0][start] = 1;
    auto push = [&](size_t j, size_t i) {
        if (!seen[j][i]) {
            seen[j][i] = 1;
            work.push_back({j, i});
        }
    };
    auto next = [&](size_t i) { return i + decode_at(text, i).len; };
    while (!work.empty()) {
        auto [j, i] = work.back();
        work.pop_back();
        if (j == m) {
            bool ok = mode == PREFIX || i == n;
            if (mode == ANCHORED) {
                ok = m == 0 || !word_byte((uint8_t) pat[m - 1]) || i == n || !word_byte((uint8_t) text[i]);
            }
            if (ok) {
                return true;
            }
            continue;
        }
        char c = pat[j];
        if (c == '*') {
            if (j + 1 == m) {
                return true;
            }
            for (size_t k = i;; k = next(k)) {
                push(j + 1, k);
                if (k >= n) {
                    break;
                }
            }
            continue;
        }
        if (i == n) {
            continue;
        }
        if (c == '?') {
            push(j + 1, next(i));
            continue;
        }
        size_t a, b;
        if (char_equal(f, text, i, pat, j, &a, &b)) {
            push(j + b, i + a);
        }
    }
    return false;
}

inline bool wildcard(text_family_t family, text_folding_t f, const std::string &text,
                     const std::string &pat) {
    std::vector<size_t> starts;
    for (size_t i = 0;; i += decode_at(text, i).len) {
        starts.push_back(i);
        if (i >= text.size()) {
            break;
        }
    }
    switch (family) {
    case TEXT_MATCH_WILDCARD_WHOLE:
        return wildcard_from(f, WHOLE, text, 0, pat);
    case TEXT_MATCH_WILDCARD_PREFIX:
        return wildcard_from(f, PREFIX, text, 0, pat);
    case TEXT_MATCH_WILDCARD_WORD_ANCHORED:
        return wildcard_from(f, ANCHORED, text, 0, pat);
    case TEXT_MATCH_WILDCARD_CONTAINS:
        for (size_t s : starts) {
            if (wildcard_from(f, PREFIX, text, s, pat)) {
                return true;
            }
        }
        return false;
    default:
        for (size_t s : starts) {
            bool may_start =
                s == 0 || pat.empty() || !word_byte((uint8_t) pat[0]) || !word_byte((uint8_t) text[s - 1]);
            if (may_start && wildcard_from(f, ANCHORED, text, s, pat)) {
                return true;
            }
        }
        return false;
    }
}

inline bool match(text_family_t family, text_folding_t f, const std::string &name, const std::string &term) {
    switch (family) {
    case TEXT_MATCH_CONTAINS:
        return contains(f, name, term);
    case TEXT_MATCH_EQUAL:
        return equal(f, name, term);
    case TEXT_MATCH_STARTWITH:
        return startwith(f, name, term);
    case TEXT_MATCH_ENDWITH:
        return endwith(f, name, term);
    case TEXT_MATCH_WORD_CONTAINS:
        return word_contains(f, name, term);
    default:
        return wildcard(family, f, name, term);
    }
}

// The term folding written out: decode, fold through the maps, encode the shortest form by hand.
inline std::string fold_term(text_folding_t f, const std::string &s) {
    std::string out;
    if (f == TEXT_FOLD_EXACT) {
        return s;
    }
    for (ch_t c : chars_from(s, 0)) {
        uint8_t first = (uint8_t) s[c.off];
        uint32_t v = name_value(f == TEXT_FOLD_ASCII ? TEXT_FOLD_LOWER : f, first, c.cp);
        if (v < 0x80) {
            out += (char) v;
        } else if (v < 0x800) {
            out += (char) (0xC0 | (v >> 6));
            out += (char) (0x80 | (v & 63));
        } else if (v < 0x10000) {
            out += (char) (0xE0 | (v >> 12));
            out += (char) (0x80 | ((v >> 6) & 63));
            out += (char) (0x80 | (v & 63));
        } else {
            out += (char) (0xF0 | ((v >> 18) & 7));
            out += (char) (0x80 | ((v >> 12) & 63));
            out += (char) (0x80 | ((v >> 6) & 63));
            out += (char) (0x80 | (v & 63));
        }
    }
    return out;
}

// Pieces that names are built from: ASCII of both cases, separators, letters that fold (with diacritics,
// dotted and dotless i, sharp s, digraphs, ligatures, the Kelvin and Angstrom signs, fullwidth forms),
// 4-byte code points, and invalid bytes (stray continuation, 0xFF, a lead byte cut short).
inline const std::vector<std::string> &pieces() {
    static const std::vector<std::string> p = {"a",
                                               "A",
                                               "b",
                                               "e",
                                               "E",
                                               "i",
                                               "I",
                                               "k",
                                               "K",
                                               "s",
                                               "S",
                                               "z",
                                               "0",
                                               "7",
                                               "_",
                                               "-",
                                               ".",
                                               " ",
                                               "'",
                                               "~",
                                               "\xC3\xA9",
                                               "\xC3\x89",
                                               "\xC3\x9F",
                                               "\xE1\xBA\x9E",
                                               "\xC4\xB1",
                                               "\xC4\xB0",
                                               "\xC3\x86",
                                               "\xC3\xA6",
                                               "\xC7\x85",
                                               "\xC7\x84",
                                               "\xC7\x86",
                                               "\xC7\xB3",
                                               "\xE2\x84\xAA",
                                               "\xE2\x84\xAB",
                                               "\xC3\x85",
                                               "\xC3\xA5",
                                               "\xEF\xAC\x81",
                                               "\xEF\xBC\xA1",
                                               "\xEF\xBD\x81",
                                               "\xF0\x9D\x90\x80",
                                               "\xF0\x9F\x98\x80",
                                               "\xE2\x85\xA1",
                                               "\xE2\x85\xB1",
                                               "\xC2\xA0",
                                               "\xCE\xA3",
                                               "\xCF\x83",
                                               "\xCF\x82",
                                               "\xD0\x96",
                                               "\xD0\xB6",
                                               "\xEA\xB0\x80",
                                               "\xE3\x89\xAE",
                                               "\xEF\xBF\xA0",
                                               "\x80",
                                               "\xFF",
                                               "\xC3",
                                               "\xE2\x84",
                                               "\xF0\x9F\x98",
                                               "\xC1\x81"};
    return p;
}

inline std::string random_name(std::mt19937 &rng, int max_pieces) {
    std::string s;
    int n = (int) (rng() % (unsigned) (max_pieces + 1));
    for (int k = 0; k < n; k++) {
        s += pieces()[rng() % pieces().size()];
    }
    return s;
}

} // namespace oracle
