#!/usr/bin/env python3
"""Draws the HTTP server's built-in resources and writes them as files and as one C++ source.

Usage: http_resources.py OUT_FOLDER CPP_FILE

The style sheet, the pictures (GIF) and the icon (ICO holding a PNG) are drawn here from small pixel maps,
with nothing but the standard library, so that the program carries pictures of its own. Run it again after
a change and commit both outputs; the build compiles the C++ source.
"""
import os
import struct
import sys
import zlib

# ---- palette and pixel maps ------------------------------------------------------------------------------

PALETTE = {
    ".": None,  # transparent
    "k": (0x33, 0x33, 0x33),  # outline
    "y": (0xF2, 0xC1, 0x4E),  # folder body
    "Y": (0xE0, 0xA8, 0x2E),  # folder tab and shade
    "w": (0xFF, 0xFF, 0xFF),  # page
    "g": (0x9A, 0xA4, 0xB0),  # page lines, fold
    "b": (0x2B, 0x6C, 0xB0),  # accent blue
    "B": (0x1B, 0x4A, 0x7F),  # dark blue
    "l": (0xD6, 0xE6, 0xF5),  # light blue
    "s": (0x66, 0x66, 0x66),  # arrows
}

FOLDER = [
    "................",
    "................",
    ".kkkkk..........",
    "kYYYYYk.........",
    "kYYYYYYkkkkkkkk.",
    "kYYYYYYYYYYYYYYk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kyyyyyyyyyyyyyyk",
    "kYYYYYYYYYYYYYYk",
    ".kkkkkkkkkkkkkk.",
    "................",
]

FILE = [
    "..kkkkkkkk......",
    "..kwwwwwwkk.....",
    "..kwwwwwwkgk....",
    "..kwwwwwwkggk...",
    "..kwwwwwwkkkkk..",
    "..kwgggggwwwwk..",
    "..kwwwwwwwwwwk..",
    "..kwggggggggwk..",
    "..kwwwwwwwwwwk..",
    "..kwggggggggwk..",
    "..kwwwwwwwwwwk..",
    "..kwggggggggwk..",
    "..kwwwwwwwwwwk..",
    "..kwwwwwwwwwwk..",
    "..kkkkkkkkkkkk..",
    "................",
]

UPDIR = [
    "................",
    "................",
    ".kkkkk..........",
    "kYYYYYk.........",
    "kYYYYYYkkkkkkkk.",
    "kYYYYYYYYYYYYYYk",
    "kyyyyyyBByyyyyyk",
    "kyyyyyBBBByyyyyk",
    "kyyyyBBBBBByyyyk",
    "kyyyBBBBBBBByyyk",
    "kyyyyyyBByyyyyyk",
    "kyyyyyyBByyyyyyk",
    "kyyyyyyBByyyyyyk",
    "kYYYYYYYYYYYYYYk",
    ".kkkkkkkkkkkkkk.",
    "................",
]

UP = [
    "...s...",
    "..sss..",
    ".sssss.",
    "sssssss",
]

DOWN = list(reversed(UP))

# The favicon: a magnifying glass over a page corner, in the accent colours.
FAVICON = [
    "................",
    "....BBBBB.......",
    "...BlllllB......",
    "..BllwwwllB.....",
    "..BlwwwwwlB.....",
    "..BlwwwwwlB.....",
    "..BlwwwwwlB.....",
    "..BllwwwllB.....",
    "...BlllllB......",
    "....BBBBBbb.....",
    "..........bbb...",
    "...........bbb..",
    "............bbb.",
    ".............bb.",
    "................",
    "................",
]

# A 5 by 7 pixel font for the logo's letters.
FONT = {
    "S": [".####", "#....", "#....", ".###.", "....#", "....#", "####."],
    "a": [".....", ".....", ".###.", "....#", ".####", "#...#", ".####"],
    "b": ["#....", "#....", "####.", "#...#", "#...#", "#...#", "####."],
    "l": [".##..", "..#..", "..#..", "..#..", "..#..", "..#..", ".###."],
    "e": [".....", ".....", ".###.", "#...#", "#####", "#....", ".###."],
    "w": [".....", ".....", "#...#", "#...#", "#.#.#", "#.#.#", ".#.#."],
    "t": ["..#..", "..#..", "#####", "..#..", "..#..", "..#..", "...##"],
    "c": [".....", ".....", ".####", "#....", "#....", "#....", ".####"],
    "h": ["#....", "#....", "####.", "#...#", "#...#", "#...#", "#...#"],
}


def logo():
    """The product name at twice the font size beside the favicon's glass at twice its size."""
    scale = 2
    text = "Sablewatch"
    glass = [row.replace("w", "w") for row in FAVICON]
    width = 16 * scale + 6 + len(text) * 6 * scale
    height = 16 * scale
    rows = [["."] * width for _ in range(height)]
    for y, row in enumerate(glass):
        for x, ch in enumerate(row):
            for dy in range(scale):
                for dx in range(scale):
                    rows[y * scale + dy][x * scale + dx] = ch
    left = 16 * scale + 6
    top = (height - 7 * scale) // 2 + 2
    for i, ch in enumerate(text):
        glyph = FONT[ch]
        for y, row in enumerate(glyph):
            for x, bit in enumerate(row):
                if bit == "#":
                    for dy in range(scale):
                        for dx in range(scale):
                            rows[top + y * scale + dy][left + (i * 6 + x) * scale + dx] = "B" if i == 0 else "k"
    return ["".join(r) for r in rows]


# ---- GIF -------------------------------------------------------------------------------------------------

def gif(pixmap):
    """A GIF89a with a global colour table of the palette and one transparent index.

    The image data is LZW with a clear code before the table would grow past the first code width, so
    every code has the same width: valid for every decoder, and small enough at these sizes."""
    keys = [k for k in PALETTE if PALETTE[k] is not None]
    colours = [PALETTE[k] for k in keys] + [(0xFF, 0xFF, 0xFF)]  # the last index is transparent
    transparent = len(colours) - 1
    size_bits = 1
    while (1 << size_bits) < len(colours):
        size_bits += 1
    size_bits = max(size_bits, 2)
    table = colours + [(0, 0, 0)] * ((1 << size_bits) - len(colours))
    index = {k: i for i, k in enumerate(keys)}
    pixels = [transparent if ch == "." else index[ch] for row in pixmap for ch in row]
    height, width = len(pixmap), len(pixmap[0])

    out = bytearray(b"GIF89a")
    out += struct.pack("<HHBBB", width, height, 0x80 | ((size_bits - 1) << 4) | (size_bits - 1), 0, 0)
    for r, g, b in table:
        out += bytes((r, g, b))
    out += bytes((0x21, 0xF9, 4, 0x01, 0, 0, transparent, 0))  # graphic control: transparency
    out += b"\x2C" + struct.pack("<HHHHB", 0, 0, width, height, 0)

    min_code = size_bits
    clear, end = 1 << min_code, (1 << min_code) + 1
    width_bits = min_code + 1
    # Literal codes only: the table grows by one for each code after the first, so a clear code every
    # (2^width - 2^min - 2) pixels keeps the width fixed.
    per_clear = (1 << width_bits) - (1 << min_code) - 2
    codes = []
    for i, p in enumerate(pixels):
        if i % per_clear == 0:
            codes.append(clear)
        codes.append(p)
    codes.append(end)
    data, acc, nbits = bytearray(), 0, 0
    for code in codes:
        acc |= code << nbits
        nbits += width_bits
        while nbits >= 8:
            data.append(acc & 0xFF)
            acc >>= 8
            nbits -= 8
    if nbits:
        data.append(acc & 0xFF)
    out.append(min_code)
    for i in range(0, len(data), 255):
        block = data[i:i + 255]
        out.append(len(block))
        out += block
    out += b"\x00\x3B"
    return bytes(out)


# ---- PNG and ICO -----------------------------------------------------------------------------------------

def png(pixmap):
    height, width = len(pixmap), len(pixmap[0])
    raw = bytearray()
    for row in pixmap:
        raw.append(0)
        for ch in row:
            c = PALETTE[ch]
            raw += bytes((0, 0, 0, 0)) if c is None else bytes((c[0], c[1], c[2], 255))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF)

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(bytes(raw), 9)) + chunk(b"IEND", b""))


def ico(pixmap):
    image = png(pixmap)
    header = struct.pack("<HHH", 0, 1, 1)
    entry = struct.pack("<BBBBHHII", 16, 16, 0, 0, 1, 32, len(image), 6 + 16)
    return header + entry + image


# ---- the style sheet -------------------------------------------------------------------------------------

CSS = """body { font-family: Arial, Helvetica, sans-serif; font-size: 12px; color: #222; background: #fff; margin: 16px; }
a { color: #1b4a7f; text-decoration: none; }
a:hover { text-decoration: underline; }
img { border: 0; }
.logo { margin: 8px 0 4px 0; }
.searchbox { font-size: 14px; padding: 4px 6px; border: 1px solid #9aa4b0; border-radius: 3px; }
.searchbox:focus { outline: none; border-color: #2b6cb0; box-shadow: 0 0 0 2px #d6e6f5; }
.indexof, .numresults { font-size: 12px; color: #555; margin: 12px 0 6px 0; text-align: left; }
.updir { padding: 2px 4px 6px 4px; text-align: left; }
.nameheader, .pathheader, .sizeheader, .modifiedheader { font-weight: bold; padding: 4px; white-space: nowrap; }
.nameheader, .pathheader { text-align: left; }
.sizeheader, .modifiedheader { text-align: right; }
.nameheader a, .pathheader a, .sizeheader a, .modifiedheader a { color: #222; }
.folder, .file { text-align: left; padding: 2px 4px; }
.pathdata { text-align: left; padding: 2px 4px; color: #555; }
.sizedata, .modifieddata { text-align: right; padding: 2px 4px; white-space: nowrap; color: #444; }
.trdata1 { background: #fff; }
.trdata2 { background: #f6f8fa; }
.trdata1:hover, .trdata2:hover { background: #eee; }
.icon { width: 16px; height: 16px; vertical-align: middle; margin-right: 4px; }
.updown { vertical-align: middle; margin-left: 4px; }
.lineshadow { background: #c8ced6; padding: 0; }
.nobr { white-space: nowrap; }
.nav { margin: 0 3px; }
.nav a, .prevnext a { padding: 2px 5px; border: 1px solid #d6e6f5; border-radius: 3px; }
.nav b { padding: 2px 5px; border: 1px solid #2b6cb0; border-radius: 3px; background: #d6e6f5; }
.prevnext { margin: 0 8px; }
"""

# URL name, content type, resource number, bytes.
def resources():
    return [
        ("main.css", "text/css", 103, CSS.encode()),
        ("sablewatch.gif", "image/gif", 104, gif(logo())),
        ("file.gif", "image/gif", 105, gif(FILE)),
        ("folder.gif", "image/gif", 106, gif(FOLDER)),
        ("up.gif", "image/gif", 107, gif(UP)),
        ("down.gif", "image/gif", 108, gif(DOWN)),
        ("updir.gif", "image/gif", 109, gif(UPDIR)),
        ("favicon.ico", "image/x-icon", 110, ico(FAVICON)),
    ]


def cpp(items):
    out = ["// Written by tools/http_resources.py; change the drawings there and run it again.",
           '#include "http/serve.h"', ""]
    for name, _, number, data in items:
        out.append("static const unsigned char _r%d[] = {" % number)
        for i in range(0, len(data), 20):
            out.append("    " + ", ".join("0x%02x" % b for b in data[i:i + 20]) + ",")
        out.append("};")
    out.append("")
    out.append("static const http_resource_t _resources[] = {")
    for name, kind, number, data in items:
        out.append('    {"%s", "%s", _r%d, %d},' % (name, kind, number, len(data)))
    out.append("};")
    out.append("")
    out.append("const http_resource_t *http_resource_find(const char *name) {")
    out.append("    for (const http_resource_t &r : _resources) {")
    out.append("        if (ascii_stricmp(name, r.name) == 0) {")
    out.append("            return &r;")
    out.append("        }")
    out.append("    }")
    out.append("    return nullptr;")
    out.append("}")
    return "\n".join(out) + "\n"


def main():
    folder, source = sys.argv[1], sys.argv[2]
    os.makedirs(folder, exist_ok=True)
    items = resources()
    for name, _, _, data in items:
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
    text = cpp(items).replace('#include "http/serve.h"', '#include "http/serve.h"\n#include "text/text.h"')
    with open(source, "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
