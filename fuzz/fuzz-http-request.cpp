// Fuzzes the HTTP request from its first byte to its route: the session fed in two reads cut where the
// first input byte says, then the route and its path.
//
// The session must never hold more than its limits, feeding the same bytes in one read or in two must
// end the same way, and a routed path must be valid UTF-8 without NUL and without a "." or ".." component,
// so that joined behind a root it stays inside; the same holds for the input as a path under Windows'
// separator and its rule for trailing dots and blanks. The escapes of the path must come out valid UTF-8.
#include <cstdlib>
#include <cstring>
#include <string>

#include "debug/debug.h"
#include "http/http_internal.h"
#include "mem/mem.h"
#include "os/os.h"

// No component may be "." or "..", nor (with Windows' separator) end in a dot or a blank, which Windows
// would drop on opening and so turn into one.
static void _check_path(const str_t *path, char sep = OS_SEP) {
    if (!http_utf8_valid(path->ptr, (size_t) path->len) || memchr(path->ptr, 0, (size_t) path->len)) {
        abort();
    }
    const char *p = path->ptr;
    const char *end = p + path->len;
    while (p < end) {
        const char *q = p;
        while (q < end && *q != sep && *q != '/') {
            q++;
        }
        std::string component(p, (size_t) (q - p));
        if (component == "." || component == ".." ||
            (sep == '\\' && !component.empty() && (component.back() == '.' || component.back() == ' '))) {
            abort();
        }
        p = q + 1;
    }
}

static http_feed_t _run(const uint8_t *data, size_t size, size_t cut, http_session_t *s) {
    http_session_init(s, "user", "pass", 32, 0);
    http_feed_t first = http_session_feed(s, (const char *) data, cut);
    http_feed_t second = http_session_feed(s, (const char *) data + cut, size - cut);
    if (s->line_len > HTTP_MAX_REQUEST_LINE + 1 || s->head_bytes > HTTP_MAX_HEADER_BYTES + 1) {
        abort();
    }
    return first != HTTP_FEED_MORE ? first : second;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = false;
    if (!ready) {
        debug_init();
        ready = true;
    }
    if (size == 0) {
        return 0;
    }
    size_t cut = data[0] % size;
    data++;
    size--;

    http_session_t whole, split;
    http_feed_t a = _run(data, size, size, &whole);
    http_feed_t b = _run(data, size, cut, &split);
    if (a != b || whole.authorized != split.authorized ||
        (whole.target == nullptr) != (split.target == nullptr) ||
        (whole.target && strcmp(whole.target, split.target) != 0)) {
        abort();
    }
    if (a == HTTP_FEED_REQUEST) {
        str_t path;
        str_init(&path);
        http_route_t route = http_route(&whole, &path);
        if (route == HTTP_ROUTE_PATH) {
            _check_path(&path);
            str_t out;
            str_init(&out);
            http_cat_html(&out, path.ptr, (size_t) path.len);
            http_cat_json(&out, path.ptr, (size_t) path.len);
            http_cat_url(&out, path.ptr, (size_t) path.len, true, true);
            if (!http_utf8_valid(out.ptr, (size_t) out.len)) {
                abort();
            }
            str_kill(&out);
        } else if (route == HTTP_ROUTE_SEARCH && !whole.search) {
            abort();
        }
        str_kill(&path);
    }
    http_session_kill(&whole);
    http_session_kill(&split);

    // The same bytes as a decoded path under Windows' rule, whatever platform this runs on.
    str_t windows;
    str_init(&windows);
    if (http_path_canonicalise((const char *) data, size, '\\', &windows)) {
        _check_path(&windows, '\\');
    }
    str_kill(&windows);
    return 0;
}
