#!/usr/bin/env python3
"""Writes src/text/fold_tables.cpp: the three folding maps of the text layer.

Usage: python3 tools/gen_fold.py [--data /usr/share/unicode] [--out src/text/fold_tables.cpp] [--stats]

Input is the Unicode character database as Debian's unicode-data package installs it (UnicodeData.txt and
DerivedAge.txt). The maps are frozen at the repertoire of Unicode 6.1 (every code point whose DerivedAge
is 6.1 or older), so that a newer database gives the same tables and an index sorts the same everywhere.

lower map       simple lower-case mapping of the BMP, keys from U+00C0, with U+0130 mapped to plain 'i'.
base map        first code point of the compatibility decomposition (NFKD), keeping case.
lower base map  the same, lower-cased.

The base maps then take the overrides below (letters with a stroke or hook, Latin-1 signs, look-alike
modifier letters, digraphs, a few script vowels, halfwidth and fullwidth forms). An override also applies
to the value the decomposition produces, so a key that decomposes to an overridden letter (U+01FE to
U+00D8, U+FFE0 to U+00A2) lands where that letter lands.

Rows whose value equals the key are left out. The base maps are restricted to keys from U+00A0 and leave
out two families the plain rule would add without helping a name search: the precomposed Hangul syllables
(U+AC00..U+D7A3, which would each fold to their leading consonant; only the ones that have a circled form
fold, to that form) and the CJK compatibility ideographs and radicals, which are ideographs in their own
right for a reader of names (U+2E80..U+2FDF, U+F900..U+FAFF). A code point that an override makes the
target of another row keeps no row of its own, so that every fold is idempotent.
"""
import argparse
import sys

HANGUL_FIRST, HANGUL_LAST = 0xAC00, 0xD7A3


def load(data):
    chars = {}
    with open(f"{data}/UnicodeData.txt", encoding="utf-8") as f:
        ranges = {}
        for line in f:
            fld = line.rstrip("\n").split(";")
            cp = int(fld[0], 16)
            name = fld[1]
            if name.endswith(", First>"):
                ranges[name[1:-8]] = cp
                continue
            if name.endswith(", Last>"):
                start = ranges[name[1:-7]]
                for c in range(start, cp + 1):
                    chars[c] = (name, "", "")
                continue
            chars[cp] = (name, fld[5], fld[13])
    ages = {}
    with open(f"{data}/DerivedAge.txt", encoding="utf-8") as f:
        for line in f:
            line = line.split("#")[0].strip()
            if not line:
                continue
            rng, age = [x.strip() for x in line.split(";")]
            major, minor = age.split(".")
            v = (int(major), int(minor))
            if ".." in rng:
                a, b = [int(x, 16) for x in rng.split("..")]
            else:
                a = b = int(rng, 16)
            for c in range(a, b + 1):
                ages[c] = v
    return chars, ages


def nfkd_first(chars, cp):
    """First code point of the full compatibility decomposition."""
    while True:
        if HANGUL_FIRST <= cp <= HANGUL_LAST:
            return 0x1100 + (cp - HANGUL_FIRST) // (21 * 28)
        dec = chars.get(cp, ("", "", ""))[1]
        if not dec:
            return cp
        parts = dec.split()
        if parts[0].startswith("<"):
            parts = parts[1:]
        cp = int(parts[0], 16)


def simple_lower(chars, cp, ages):
    """The 6.1 mapping: a mapping to a letter added later (Cherokee's small letters, 8.0) did not exist."""
    if cp == 0x130:
        return 0x69
    low = chars.get(cp, ("", "", ""))[2]
    if not low or ages.get(int(low, 16), (99, 0)) > (6, 1):
        return cp
    return int(low, 16)


def overrides():
    """(base, lower base) overrides: key -> value; None keeps the key as it stands (no row)."""
    b, lb = {}, {}

    def both(key, base_value, lower_value=None):
        b[key] = base_value
        lb[key] = base_value if lower_value is None else lower_value

    # Letters with a stroke, bar or hook and ligatures without a decomposition.
    for key, ch in [(0xD8, "O"), (0xC6, "A"), (0x110, "D"), (0x126, "H"), (0x141, "L"), (0x152, "O"),
                    (0x166, "T"), (0x1E2, "A"), (0x1FC, "A"), (0x1E4, "G")]:
        both(key, ord(ch), ord(ch.lower()))
    for key, ch in [(0x192, "f"), (0xE6, "a"), (0xF8, "o"), (0x111, "d"), (0x127, "h"), (0x131, "i"),
                    (0x142, "l"), (0x153, "o"), (0x167, "t"), (0x180, "b"), (0x19A, "l"), (0x1AB, "t"),
                    (0x1B6, "z"), (0x261, "g")]:
        both(key, ord(ch))
    # Latin-1 signs to the nearest ASCII.
    for key, ch in [(0xA0, " "), (0xA1, "!"), (0xA2, "c"), (0xA4, "$"), (0xA5, "Y"), (0xA6, "|"),
                    (0xA9, "C"), (0xAB, "<"), (0xAD, "-"), (0xAE, "R"), (0xB7, "."), (0xBB, ">"),
                    (0xA8, " "), (0xAF, " "), (0xB4, " "), (0xB8, " ")]:
        both(key, ord(ch), ord(ch.lower()))
    # Modifier letters and combining marks that look like ASCII.
    for key, ch in [(0x2B9, "'"), (0x2BC, "'"), (0x2C8, "'"), (0x2BA, '"'), (0x2C6, "^"), (0x302, "^"),
                    (0x2CB, "`"), (0x300, "`"), (0x303, "~"), (0x2CD, "_"), (0x331, "_"), (0x332, "_")]:
        both(key, ord(ch))
    # Digraphs keep their two-letter identity.
    for key, base_value in [(0x1C4, 0x1F1), (0x1C5, 0x1F2), (0x1C6, 0x1F3), (0x1F1, None), (0x1F2, None),
                            (0x1F3, None)]:
        both(key, base_value, 0x1F3)
    for capital, small in [(0x1C7, 0x1C9), (0x1CA, 0x1CC)]:
        for key in (capital, capital + 1, small):
            both(key, None, small)
    both(0x132, None, 0x133)
    both(0x133, None, None)
    # Roman numerals of more than one letter keep their identity.
    for key in [0x2161, 0x2162, 0x2163, 0x2165, 0x2166, 0x2167, 0x2168, 0x216A, 0x216B]:
        both(key, None, key + 0x10)
        both(key + 0x10, None, None)
    # Script vowels, a Tibetan stack.
    for key, value in [(0xCC0, 0xCD5), (0xCC7, 0xCD5), (0xCC8, 0xCD6), (0xCCA, 0xCC2), (0xDDD, 0xDDC),
                       (0xE33, 0xE32), (0xEB3, 0xEB2), (0xB48, 0xB47), (0xF43, 0xF42)]:
        both(key, value)
    # Fullwidth signs.
    for key, value in [(0xFFE0, ord("c")), (0xFFE1, 0xA3), (0xFFE2, 0xAC), (0xFFE4, ord("|")),
                       (0xFFE6, 0x20A9), (0xFFE8, 0x2502), (0xFFE9, 0x2190), (0xFFEA, 0x2191),
                       (0xFFEB, 0x2192), (0xFFEC, 0x2193), (0xFFED, 0x25A0), (0xFFEE, 0x25CB)]:
        both(key, value)
    return b, lb


def circled_hangul(chars):
    """Precomposed syllable -> its circled form, for the circled forms of one consonant and one vowel."""
    out = {}
    for cp in range(0x3260, 0x3280):
        dec = chars.get(cp, ("", "", ""))[1].split()
        if len(dec) == 3 and dec[0] == "<circle>":
            lead, vowel = int(dec[1], 16), int(dec[2], 16)
            if 0x1100 <= lead <= 0x1112 and 0x1161 <= vowel <= 0x1175:
                syllable = HANGUL_FIRST + ((lead - 0x1100) * 21 + (vowel - 0x1161)) * 28
                out[syllable] = cp
    return out


def through(over, cp):
    """Where an override sends a decomposition's code point; None in the table means it stays."""
    v = over.get(cp)
    return cp if v is None else v


def excluded(cp):
    return HANGUL_FIRST <= cp <= HANGUL_LAST or 0x2E80 <= cp <= 0x2FDF or 0xF900 <= cp <= 0xFAFF


def build(chars, ages, plain=False):
    in_repertoire = [c for c in range(0x10000) if c in chars and ages.get(c, (99, 0)) <= (6, 1)]
    lower = {}
    for c in in_repertoire:
        if c >= 0xC0:
            v = simple_lower(chars, c, ages)
            if v != c:
                lower[c] = v
    ob, olb = ({}, {}) if plain else overrides()
    circled = {} if plain else circled_hangul(chars)
    base, lbase = {}, {}
    for c in in_repertoire:
        if c < 0xA0 or (not plain and excluded(c) and c not in circled):
            continue
        if c in circled:
            bv = lv = circled[c]
        else:
            first = nfkd_first(chars, c)
            bv = ob[c] if c in ob else through(ob, first)
            if bv is None:
                bv = c
            if c in olb:
                lv = olb[c]
            else:
                lv = through(olb, first)
                lv = through(olb, simple_lower(chars, lv, ages))
            if lv is None:
                lv = c
        if bv != c and bv <= 0xFFFF:
            base[c] = bv
        if lv != c and lv <= 0xFFFF:
            lbase[c] = lv
    if not plain:
        # An override's target folds to itself (the circled Hangul forms, U+0DDC), so that a term folded
        # once matches the names it was folded from.
        for m in (base, lbase):
            for target in set(m.values()) & set(m):
                del m[target]
    return lower, base, lbase


def family(cp):
    blocks = [(0x00A0, 0x024F, "Latin"), (0x0250, 0x036F, "IPA, modifiers, combining marks"),
              (0x0370, 0x052F, "Greek, Cyrillic"), (0x0530, 0x1CFF, "other scripts"),
              (0x1D00, 0x1DBF, "phonetic extensions"), (0x1E00, 0x1FFF, "Latin and Greek extended"),
              (0x2000, 0x2BFF, "punctuation, letterlike, numbers, enclosed"),
              (0x2C00, 0x2DFF, "Glagolitic, Latin-C, Coptic, Georgian"),
              (0x2E80, 0x2FDF, "CJK radicals"), (0x3000, 0x31FF, "CJK symbols, kana, jamo"),
              (0x3200, 0x33FF, "enclosed and squared CJK"), (0xA000, 0xABFF, "Yi ... Latin-D"),
              (0xAC00, 0xD7A3, "Hangul syllables"), (0xF900, 0xFAFF, "CJK compatibility ideographs"),
              (0xFB00, 0xFDFF, "Latin/Hebrew/Arabic presentation forms"),
              (0xFE00, 0xFEFF, "variation, vertical, small, Arabic forms B"),
              (0xFF00, 0xFFEF, "halfwidth and fullwidth forms")]
    for lo, hi, name in blocks:
        if lo <= cp <= hi:
            return name
    return "other"


def stats(chars, ages, maps):
    plain = build(chars, ages, plain=True)
    names = ["lower", "base", "lower base"]
    for i in range(3):
        print(f"{names[i]}: {len(maps[i])} rows (plain rule over keys from U+00A0: {len(plain[i])})",
              file=sys.stderr)
    for i in (1, 2):
        by = {}
        for c in set(plain[i]) | set(maps[i]):
            f = family(c)
            a, b = by.get(f, (0, 0))
            by[f] = (a + (c in plain[i]), b + (c in maps[i]))
        print(f"  {names[i]} by family: plain / generated", file=sys.stderr)
        for f, (a, b) in sorted(by.items(), key=lambda x: -x[1][0]):
            print(f"    {a:6} {b:6}  {f}", file=sys.stderr)
        same = sum(1 for c, v in maps[i].items() if plain[i].get(c) == v)
        print(f"  rows equal to the plain rule: {same}", file=sys.stderr)


def emit(out, maps, command):
    names = ["lower", "base", "lower_base"]
    with open(out, "w", encoding="utf-8", newline="\n") as f:
        f.write("// Generated by tools/gen_fold.py from the Unicode character database; do not edit.\n")
        f.write(f"// Command: {command}\n")
        f.write("// Sorted key and value arrays of the three folding maps, searched by binary search.\n")
        f.write('#include "text/fold_tables.h"\n\n')
        for name, m in zip(names, maps):
            keys = sorted(m)
            for what, seq in (("keys", keys), ("values", [m[k] for k in keys])):
                f.write(f"const uint16_t text_fold_{name}_{what}[{len(keys)}] = {{\n")
                for i in range(0, len(seq), 13):
                    f.write("    " + ", ".join(f"0x{v:04X}" for v in seq[i:i + 13]) + ",\n")
                f.write("};\n")
            f.write(f"const int text_fold_{name}_count = {len(keys)};\n")
            if name != names[-1]:
                f.write("\n")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--data", default="/usr/share/unicode")
    ap.add_argument("--out", default="src/text/fold_tables.cpp")
    ap.add_argument("--stats", action="store_true")
    args = ap.parse_args()
    chars, ages = load(args.data)
    maps = build(chars, ages)
    emit(args.out, maps, "python3 tools/gen_fold.py --data /usr/share/unicode --out src/text/fold_tables.cpp")
    if args.stats:
        stats(chars, ages, maps)


if __name__ == "__main__":
    main()
