// The cursor parsers the query language, the settings and the file lists are made of, and the extension
// and file-name helpers. Both '\\' and '/' end a path component here, on
// every platform, so that a list written on one system reads the same on the other.
#include "os/os.h"
#include "text/text.h"

namespace {

inline bool _is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline bool _is_sep(char c) {
    return c == '\\' || c == '/';
}

} // namespace

bool text_skip_prefix(const char **cursor, const char *literal) {
    const char *s = *cursor;
    for (; *literal; s++, literal++) {
        if (*s != *literal) {
            return false;
        }
    }
    *cursor = s;
    return true;
}

bool text_skip_prefix_nocase(const char **cursor, const char *literal) {
    const char *s = *cursor;
    for (; *literal; s++, literal++) {
        if (ascii_lower[(uint8_t) *s] != (uint8_t) *literal) {
            return false;
        }
    }
    *cursor = s;
    return true;
}

const char *text_skip_space(const char *text) {
    while (*text == ' ' || *text == '\t' || *text == '\r' || *text == '\n') {
        text++;
    }
    return text;
}

uint64_t text_parse_u64_commas(const char **cursor) {
    const char *s = *cursor;
    if (!_is_digit(*s)) {
        return 0;
    }
    uint64_t v = 0;
    for (;;) {
        if (_is_digit(*s)) {
            v = v * 10 + (uint64_t) (*s - '0');
            s++;
        } else if (*s == ',' && _is_digit(s[1])) {
            s++;
        } else {
            break;
        }
    }
    *cursor = s;
    return v;
}

uint64_t text_parse_digits(const char **cursor, int max) {
    const char *s = *cursor;
    uint64_t v = 0;
    int n = 0;
    while (n < max && _is_digit(s[n])) {
        v = v * 10 + (uint64_t) (s[n] - '0');
        n++;
    }
    *cursor = s + n;
    return v;
}

int text_hex_digit(char c) {
    if (_is_digit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

int text_parse_int(const char *text) {
    bool negative = false;
    if (*text == '-') {
        negative = true;
        text++;
    }
    uint32_t v = 0;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        for (text += 2; text_hex_digit(*text) >= 0; text++) {
            v = v * 16 + (uint32_t) text_hex_digit(*text);
        }
    } else {
        for (; _is_digit(*text); text++) {
            v = v * 10 + (uint32_t) (*text - '0');
        }
    }
    return (int) (negative ? 0u - v : v);
}

const char *text_get_extension(const char *name) {
    const char *dot = nullptr, *s = name;
    for (; *s; s++) {
        if (*s == '.') {
            dot = s;
        } else if (_is_sep(*s)) {
            dot = nullptr;
        }
    }
    return dot ? dot + 1 : s;
}

const char *text_get_extension_counted(const char *name, size_t len, size_t *ext_len) {
    for (size_t i = len; i > 0; i--) {
        char c = name[i - 1];
        if (c == '.') {
            *ext_len = len - i;
            return name + i;
        }
        if (_is_sep(c)) {
            break;
        }
    }
    *ext_len = 0;
    return nullptr;
}

size_t text_filename_offset(const char *path, size_t len) {
    for (size_t i = len; i > 0; i--) {
        if (_is_sep(path[i - 1])) {
            return i;
        }
    }
    return 0;
}

const char *text_filename(const char *path) {
    const char *name = path;
    for (const char *s = path; *s; s++) {
        if (_is_sep(*s)) {
            name = s + 1;
        }
    }
    return name;
}
