// The HTTP server's protocol half: what a connection has received (the request line, the two headers we
// read, the query parameters), the escapes every answer goes through, and the path rule that keeps a
// request inside a root. Nothing here touches a socket, a file or the index, so all of it can be fed
// bytes by a test or a fuzzer.
//
// Invariants:
// - A session never holds more than HTTP_MAX_REQUEST_LINE bytes of a partial line and never reads more
//   than HTTP_MAX_HEADER_BYTES of request head in all: a peer cannot make it allocate without bound.
// - Once http_session_feed has returned anything but HTTP_FEED_MORE, the session ignores further bytes:
//   one request, one answer, then the connection closes.
// - Every text written through http_cat_html, http_cat_json or http_cat_url is valid UTF-8 of its kind,
//   whatever bytes came in: bytes that do not decode become U+FFFD.
// - A path that leaves http_path_canonicalise has no "." or ".." component and no NUL, so joined behind a
//   root it names something inside that root.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/mem.h"

// Limits against peers that send too much or too slowly. A request line longer than any browser sends
// (they stop near 8 KiB) and a head larger than 64 KiB are refused; a request that has not ended this
// long after the connection was made is cut off, however slowly it keeps trickling in.
enum {
    HTTP_MAX_REQUEST_LINE = 16384,
    HTTP_MAX_HEADER_BYTES = 65536,
    HTTP_REQUEST_TIMEOUT_MS = 20000,
};

// Sort columns as the page links name them.
enum {
    HTTP_COLUMN_NAME = 0,
    HTTP_COLUMN_PATH = 1,
    HTTP_COLUMN_SIZE = 2,
    HTTP_COLUMN_DATE_MODIFIED = 3,
};

// What http_session_feed found.
enum http_feed_t {
    HTTP_FEED_MORE,     // the request hasn't ended yet
    HTTP_FEED_REQUEST,  // a blank line ended the request; answer it
    HTTP_FEED_TOO_LONG, // a line or the whole head went past its limit; answer with the session's status
};

// One connection's request, from its first byte to its answer. Zero it (http_session_init) before use and
// give it back with http_session_kill, which frees target and search.
struct http_session_t {
    // Line assembly: the bytes of the line not yet ended, and how many head bytes came in all.
    char *line;
    uint32_t line_len;
    uint32_t head_bytes;
    uint32_t lines;   // lines ended so far; the first is the request line
    bool done;        // a result other than HTTP_FEED_MORE was returned
    int status;       // the refusal's status when the feed gave HTTP_FEED_TOO_LONG
    uint32_t started; // tick of the accept, for the request time-out

    // Credentials the request is checked against; not owned, empty texts when none are set.
    const char *username;
    const char *password;

    // The request.
    char *target; // owned; null until a GET line gave one
    bool authorized;
    bool range;
    uint64_t range_start;
    uint64_t range_size; // 0: to the end of the file

    // Query parameters, with their start values.
    bool json;
    uint32_t offset;
    uint32_t count;
    bool count_given;
    uint32_t sort_column;
    bool sort_ascending;
    char *search; // owned, percent-decoded; null when no search parameter came
    bool match_case, match_whole_word, match_path, match_diacritics, match_regex;
    bool path_column, size_column, date_modified_column;
    uint32_t sort; // the query's sort number, from sort_column and sort_ascending
};

// Starts a session for a connection accepted at tick now, checking credentials username and password
// (both kept as pointers, null counts as empty) and with count starting at items_per_page.
void http_session_init(http_session_t *s, const char *username, const char *password, uint32_t items_per_page,
                       uint32_t now);
void http_session_kill(http_session_t *s);
// Takes n received bytes. Lines end at LF (a CR before it is dropped); the first is the request line,
// the others headers, and a blank one ends the request. Returns what the bytes completed.
http_feed_t http_session_feed(http_session_t *s, const char *bytes, size_t n);
// Whether a request still unfinished at tick now has run past its time.
bool http_session_timed_out(const http_session_t *s, uint32_t now);

// The request line: "GET <target> ...", the method compared without regard to case. Stores the target
// (replacing an earlier one) and returns true; any other line stores nothing and returns false.
bool http_parse_request_line(http_session_t *s, const char *line);
// One header line: only "authorization:" and "range:" change the session.
void http_parse_header(http_session_t *s, const char *line);
// Basic authorization: value is the header's value from "Basic " on. Decodes base64 on the fly (both
// alphabets, no padding rule) and compares each byte as it comes, so nothing is buffered. True when the
// user name (any name when username is empty) and ":" and the whole password were matched, with nothing
// but zero bits behind.
bool http_auth_check(const char *value, const char *username, const char *password);
// "bytes=a-b" or "bytes=a-"; false leaves the session without a range.
bool http_parse_range(http_session_t *s, const char *value);
// Parses the query string in place (the bytes of query are changed) into the session's parameters, then
// works out sort and, for JSON without a count, an unlimited count.
void http_parse_query(http_session_t *s, char *query);

// What the end of a request leads to.
enum http_route_t {
    HTTP_ROUTE_BAD_REQUEST,  // 400: no target, or one not starting with "/"
    HTTP_ROUTE_UNAUTHORIZED, // 401
    HTTP_ROUTE_SEARCH,       // a search answer
    HTTP_ROUTE_PATH,         // a file or folder answer for the canonical path
    HTTP_ROUTE_NOT_FOUND,    // 404 at once: the path can't name anything (NUL, bad UTF-8)
};
// Splits the target at "#" and "?", parses the query and, unless it is a search, percent-decodes and
// canonicalises the path into path (without its leading "/"). The target is changed in place.
http_route_t http_route(http_session_t *s, str_t *path);

// The sort number of the query from a column and a direction: name 0, path 2, size 4, date modified
// 12, plus 1 for descending.
uint32_t http_sort_number(uint32_t column, bool ascending);
// The parameter name of a sort column ("name", "path", "size", "date_modified").
const char *http_sort_name(uint32_t column);

// ---- texts ---------------------------------------------------------------------------------------------

// Percent-decoding in place: "%" and the two characters after it become one byte, a character that isn't
// a hex digit counting 0; with plus_blank, "+" becomes a blank. Returns the new length; the text is
// zero-terminated again (a decoded NUL stays inside it, so callers that care compare the length).
size_t http_percent_decode(char *text, bool plus_blank);
// Canonical form of a decoded path with sep as separator: "." dropped, ".." taking the component before
// it (never more than there are), runs of separators after the leading ones made one, no trailing one.
// Up to two leading separators stay (a Linux full path, a UNC name). With "\\" as separator trailing dots
// and blanks leave each component, as Windows drops them. False, with out emptied, for a path with a NUL
// (len counts it), bytes that are not UTF-8, or (Windows) a component of only dots and blanks.
bool http_path_canonicalise(const char *path, size_t len, char sep, str_t *out);
// Whether n bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool http_utf8_valid(const char *text, size_t n);

// Appends text escaped for HTML: & < > " as entities, malformed UTF-8 as U+FFFD.
void http_cat_html(str_t *out, const char *text, size_t n);
// Appends text as the inside of a JSON string: \\ and \" escaped, bytes below 0x20 as \u00XX, malformed
// UTF-8 as U+FFFD.
void http_cat_json(str_t *out, const char *text, size_t n);
// Appends text URL-encoded: letters, digits, bytes from 0x80, - . _ ~ ! ' ( ) * as they are, "/" too
// unless encode_slash, a blank as "+" when plus_blank, everything else as %XX. Malformed UTF-8 becomes
// U+FFFD first, so the link a browser builds from it decodes to valid text.
void http_cat_url(str_t *out, const char *text, size_t n, bool encode_slash, bool plus_blank);
