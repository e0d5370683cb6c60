// A request from its bytes: line assembly with limits, the request line, the two headers we read, the
// query string and the path. The session is a function of the bytes it was given and nothing else, which
// is what lets the tests and the fuzzer drive it without a socket.
#include <cstring>

#include "http/http_internal.h"
#include "os/os.h"
#include "text/text.h"

void http_session_init(http_session_t *s, const char *username, const char *password, uint32_t items_per_page,
                       uint32_t now) {
    memset(s, 0, sizeof *s);
    s->username = username ? username : "";
    s->password = password ? password : "";
    s->count = items_per_page;
    s->sort_ascending = true;
    s->started = now;
}

void http_session_kill(http_session_t *s) {
    mem_free(s->line);
    mem_free(s->target);
    mem_free(s->search);
    s->line = s->target = s->search = nullptr;
}

bool http_session_timed_out(const http_session_t *s, uint32_t now) {
    return !s->done && now - s->started >= (uint32_t) HTTP_REQUEST_TIMEOUT_MS;
}

// One whole line (CR already dropped). Returns true when it was the blank line that ends the request.
static bool _session_line(http_session_t *s, const char *line) {
    s->lines++;
    if (!*line) {
        return true;
    }
    if (s->lines == 1) {
        http_parse_request_line(s, line);
    } else {
        http_parse_header(s, line);
    }
    return false;
}

static http_feed_t _refuse(http_session_t *s, int status) {
    s->done = true;
    s->status = status;
    return HTTP_FEED_TOO_LONG;
}

http_feed_t http_session_feed(http_session_t *s, const char *bytes, size_t n) {
    if (s->done) {
        return HTTP_FEED_MORE;
    }
    if (!s->line) {
        s->line = (char *) mem_alloc(HTTP_MAX_REQUEST_LINE + 2);
    }
    for (size_t i = 0; i < n; i++) {
        char c = bytes[i];
        if (++s->head_bytes > HTTP_MAX_HEADER_BYTES) {
            return _refuse(s, 431);
        }
        if (c != '\n') {
            // The limit is on the line's text; its CR may stand one byte behind it.
            if (s->line_len >= HTTP_MAX_REQUEST_LINE &&
                !(s->line_len == HTTP_MAX_REQUEST_LINE && c == '\r')) {
                return _refuse(s, s->lines == 0 ? 414 : 431);
            }
            s->line[s->line_len++] = c;
            continue;
        }
        if (s->line_len > 0 && s->line[s->line_len - 1] == '\r') {
            s->line_len--;
        }
        s->line[s->line_len] = 0;
        s->line_len = 0;
        if (_session_line(s, s->line)) {
            s->done = true;
            return HTTP_FEED_REQUEST;
        }
    }
    return HTTP_FEED_MORE;
}

// The line's first word matches word (compared without regard to case) and is followed by a blank or
// the end; *rest is set behind the blanks that follow.
static bool _first_word(const char *line, const char *word, const char **rest) {
    size_t n = strlen(word);
    for (size_t i = 0; i < n; i++) {
        char c = line[i];
        if (c >= 'A' && c <= 'Z') {
            c = (char) (c - 'A' + 'a');
        }
        if (c != word[i]) {
            return false;
        }
    }
    const char *p = line + n;
    if (*p && *p != ' ' && *p != '\t' && word[n - 1] != ':') {
        return false;
    }
    while (*p == ' ' || *p == '\t') {
        p++;
    }
    *rest = p;
    return true;
}

bool http_parse_request_line(http_session_t *s, const char *line) {
    const char *rest;
    if (!_first_word(line, "get", &rest)) {
        return false;
    }
    const char *end = rest;
    while (*end && *end != ' ' && *end != '\t') {
        end++;
    }
    mem_free(s->target);
    s->target = mem_dup(rest, (size_t) (end - rest));
    return true;
}

void http_parse_header(http_session_t *s, const char *line) {
    const char *rest;
    if (_first_word(line, "authorization:", &rest)) {
        s->authorized = http_auth_check(rest, s->username, s->password);
    } else if (_first_word(line, "range:", &rest)) {
        http_parse_range(s, rest);
    }
}

static int _base64_value(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+' || c == '-') {
        return 62;
    }
    if (c == '/' || c == '_') {
        return 63;
    }
    return 0;
}

bool http_auth_check(const char *value, const char *username, const char *password) {
    if (strncmp(value, "Basic ", 6) != 0) {
        return false;
    }
    size_t user_len = strlen(username), pass_len = strlen(password);
    bool in_password = false;
    size_t matched = 0; // bytes of the user name or of the password matched so far
    uint32_t bits = 0;
    int nbits = 0;
    for (const char *p = value + 6; *p; p++) {
        bits = (bits << 6) | (uint32_t) _base64_value(*p);
        nbits += 6;
        if (nbits < 8) {
            continue;
        }
        nbits -= 8;
        char byte = (char) ((bits >> nbits) & 0xFF);
        if (!in_password) {
            if (user_len > 0 && matched < user_len) {
                if (byte != username[matched++]) {
                    return false;
                }
            } else if (byte == ':') {
                in_password = true;
                matched = 0;
            } else if (user_len > 0) {
                return false;
            }
        } else if (matched < pass_len) {
            if (byte != password[matched++]) {
                return false;
            }
        } else if (byte != 0) {
            // Zero bytes come from padding; anything else is a longer password than ours.
            return false;
        }
    }
    return in_password && matched == pass_len;
}

// Decimal digits at *p into *value; false when there are none or they overflow 64 bits.
static bool _parse_u64(const char **p, uint64_t *value) {
    const char *q = *p;
    uint64_t v = 0;
    while (*q >= '0' && *q <= '9') {
        uint64_t d = (uint64_t) (*q - '0');
        if (v > (UINT64_MAX - d) / 10) {
            return false;
        }
        v = v * 10 + d;
        q++;
    }
    if (q == *p) {
        return false;
    }
    *p = q;
    *value = v;
    return true;
}

bool http_parse_range(http_session_t *s, const char *value) {
    const char *p = value;
    if (!text_skip_prefix_nocase(&p, "bytes=")) {
        return false;
    }
    uint64_t start, last;
    if (!_parse_u64(&p, &start) || *p++ != '-') {
        return false;
    }
    uint64_t size = 0;
    if (*p >= '0' && *p <= '9') {
        // A last byte before the first is no range at all; the whole file goes out with 200.
        if (!_parse_u64(&p, &last) || last < start || last - start == UINT64_MAX) {
            return false;
        }
        size = last + 1 - start;
    }
    s->range = true;
    s->range_start = start;
    s->range_size = size;
    return true;
}

// A decimal parameter value; digits stop at the first other byte and a value too large for 32 bits
// saturates, so "offset=99999999999" means past the end rather than a small wrapped number.
static uint32_t _parse_u32(const char *text) {
    uint64_t v = 0;
    for (const char *p = text; *p >= '0' && *p <= '9'; p++) {
        v = v * 10 + (uint64_t) (*p - '0');
        if (v > UINT32_MAX) {
            return UINT32_MAX;
        }
    }
    return (uint32_t) v;
}

static bool _name_is(const char *name, const char *a, const char *b = nullptr, const char *c = nullptr) {
    return strcmp(name, a) == 0 || (b && strcmp(name, b) == 0) || (c && strcmp(name, c) == 0);
}

static void _query_pair(http_session_t *s, const char *name, char *value) {
    http_percent_decode(value, true);
    uint32_t number = _parse_u32(value);
    if (_name_is(name, "s", "q", "search")) {
        mem_free(s->search);
        s->search = mem_dup(value, strlen(value));
    } else if (_name_is(name, "o", "offset")) {
        s->offset = number;
    } else if (_name_is(name, "c", "n", "count")) {
        s->count = number;
        s->count_given = true;
    } else if (_name_is(name, "j", "json")) {
        s->json = number != 0;
    } else if (_name_is(name, "i", "case")) {
        s->match_case = number != 0;
    } else if (_name_is(name, "w", "wholeword")) {
        s->match_whole_word = number != 0;
    } else if (_name_is(name, "p", "path")) {
        s->match_path = number != 0;
    } else if (_name_is(name, "r", "regex")) {
        s->match_regex = number != 0;
    } else if (_name_is(name, "m", "diacritics")) {
        s->match_diacritics = number != 0;
    } else if (_name_is(name, "path_column")) {
        s->path_column = number != 0;
    } else if (_name_is(name, "size_column")) {
        s->size_column = number != 0;
    } else if (_name_is(name, "date_modified_column")) {
        s->date_modified_column = number != 0;
    } else if (_name_is(name, "ascending")) {
        s->sort_ascending = number != 0;
    } else if (_name_is(name, "sort")) {
        for (uint32_t column = HTTP_COLUMN_NAME; column <= HTTP_COLUMN_DATE_MODIFIED; column++) {
            if (strcmp(value, http_sort_name(column)) == 0) {
                s->sort_column = column;
            }
        }
    }
}

void http_parse_query(http_session_t *s, char *query) {
    char *p = query;
    while (*p) {
        // A name runs to the next "=", "&" included; without one the rest is no parameter.
        char *eq = strchr(p, '=');
        if (!eq) {
            break;
        }
        *eq = 0;
        char *value = eq + 1;
        char *amp = strchr(value, '&');
        char *next = amp ? amp + 1 : value + strlen(value);
        if (amp) {
            *amp = 0;
        }
        _query_pair(s, p, value);
        p = next;
    }
    if (s->json && !s->count_given) {
        s->count = UINT32_MAX;
    }
    s->sort = http_sort_number(s->sort_column, s->sort_ascending);
}

uint32_t http_sort_number(uint32_t column, bool ascending) {
    static const uint32_t numbers[] = {0, 2, 4, 12};
    return numbers[column <= HTTP_COLUMN_DATE_MODIFIED ? column : 0] + (ascending ? 0 : 1);
}

const char *http_sort_name(uint32_t column) {
    static const char *const names[] = {"name", "path", "size", "date_modified"};
    return names[column <= HTTP_COLUMN_DATE_MODIFIED ? column : 0];
}

http_route_t http_route(http_session_t *s, str_t *path) {
    str_clear(path);
    if (!s->target || s->target[0] != '/') {
        return HTTP_ROUTE_BAD_REQUEST;
    }
    if ((s->username[0] || s->password[0]) && !s->authorized) {
        return HTTP_ROUTE_UNAUTHORIZED;
    }
    char *hash = strchr(s->target, '#');
    if (hash) {
        *hash = 0;
    }
    char none[1] = {0};
    char *question = strchr(s->target, '?');
    if (question) {
        *question = 0;
    }
    http_parse_query(s, question ? question + 1 : none);
    char *raw = s->target + 1;
    if (s->search && !*raw) {
        return HTTP_ROUTE_SEARCH;
    }
    size_t len = http_percent_decode(raw, false);
    return http_path_canonicalise(raw, len, OS_SEP, path) ? HTTP_ROUTE_PATH : HTTP_ROUTE_NOT_FOUND;
}

// Appends one component, or resolves it when it is "." or "..". start is where the leading separators
// end: ".." never takes anything before it.
static void _path_component(str_t *out, int start, char sep, const char *c, size_t n) {
    if (n == 0 || (n == 1 && c[0] == '.')) {
        return;
    }
    if (n == 2 && c[0] == '.' && c[1] == '.') {
        int i = out->len;
        while (i > start && out->ptr[i - 1] != sep) {
            i--;
        }
        out->len = i > start ? i - 1 : start;
        out->ptr[out->len] = 0;
        return;
    }
    if (out->len > start) {
        str_cat_char(out, sep);
    }
    str_cat(out, c, (int) n);
}

bool http_path_canonicalise(const char *path, size_t len, char sep, str_t *out) {
    str_clear(out);
    if (memchr(path, 0, len) || !http_utf8_valid(path, len)) {
        return false;
    }
    // On Windows "/" was turned into the separator before; both count here, so that no encoded form of
    // either slips past as part of a name.
    auto is_sep = [sep](char c) { return c == sep || c == '/'; };
    // A full path keeps its leading separator; on Windows a UNC name keeps both of its two.
    size_t leading = sep == '\\' ? 2 : 1, i = 0;
    while (i < len && i < leading && is_sep(path[i])) {
        str_cat_char(out, sep);
        i++;
    }
    int start = out->len;
    while (i < len) {
        size_t j = i;
        while (j < len && !is_sep(path[j])) {
            j++;
        }
        size_t n = j - i;
        bool dots = (n == 1 && path[i] == '.') || (n == 2 && path[i] == '.' && path[i + 1] == '.');
        if (sep == '\\' && !dots) {
            // Windows drops trailing dots and blanks from a component when it opens a path. A name made
            // of nothing else (".. ", "...") could become a climb there: it names nothing here.
            while (n > 0 && (path[i + n - 1] == '.' || path[i + n - 1] == ' ')) {
                n--;
            }
            if (n == 0 && j > i) {
                str_clear(out);
                return false;
            }
        }
        _path_component(out, start, sep, path + i, n);
        i = j + 1;
    }
    return true;
}
