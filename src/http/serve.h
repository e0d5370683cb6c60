// The server's answers other than a search: response heads, errors, files (home folder, built-in
// resources, indexed files), folder listings, and the tables they use: content types and the resources.
#pragma once

#include <cstdint>

#include "http/http.h"
#include "http/page.h"

// One built-in resource: its URL name, content type and bytes.
struct http_resource_t {
    const char *name;
    const char *type;
    const unsigned char *bytes;
    uint32_t size;
};
// The resource of that name (compared without regard to case), or null.
const http_resource_t *http_resource_find(const char *name);

// The content type of a file name by its extension, replacing out: the type the system registers for it,
// else the built-in table's, else "application/octet-stream".
void http_content_type(const char *name, str_t *out);
// "Wed, 25 Nov 2026 07:05:20 GMT" for a FILETIME; empty for a time that has no such date.
void http_date(str_t *out, uint64_t filetime);

// Log line for the connection, formatted as str_printf.
void http_log(http_connection_t *c, const char *format, ...);

// The page buffer: begin, write, flush whole blocks as they fill, end sends the rest.
void http_page_begin(http_page_t *p, http_connection_t *c);
void http_page_flush(http_page_t *p, http_connection_t *c, bool all);
void http_page_end(http_page_t *p, http_connection_t *c);
// Ends the answer once.
void http_finish(http_connection_t *c);

// 400, 401, 404, 408, 414 or 431 with its body, then the end of the answer.
void http_send_error(http_connection_t *c, int status);
// The head of a generated page (HTML or JSON by the session).
void http_send_page_head(http_connection_t *c);
// A search answer: the page head now, the results when the query has them.
void http_search_answer(http_connection_t *c);
// A canonical path: the default page, a file, or a folder listing; 404 when none fits.
void http_path_answer(http_connection_t *c, str_t *path);
// A canonical path's record of that kind in the index; false when the index holds none (or isn't loaded).
bool http_find_record(http_server_t *server, const char *path, size_t len, bool folder, db_ref_t *record);
// A folder listing (the roots for the empty path); false when the folder isn't in the index.
bool http_folder_answer(http_connection_t *c, const str_t *path);
// One JSON result object, with the optional fields asked for; last leaves out the comma.
void http_json_row(http_page_t *p, const http_row_t *row, bool path, bool size, bool date, bool last);
// Writes the rows of a streaming table while the sink has room; ends the answer after the last one.
void http_stream_more(http_connection_t *c);
// The folder listing's row c->row, and what follows the last one.
void http_folder_row(http_connection_t *c, http_page_t *p, str_t *full, str_t *shown);
void http_folder_trailer(http_connection_t *c, http_page_t *p);
// The text of a JSON size or date: the number, or nothing when unknown.
void http_json_value(str_t *out, uint64_t value);
