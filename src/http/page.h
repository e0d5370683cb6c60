// Building an HTML page: the page under construction, the rows it shows, and the pieces of markup in the
// order a page uses them. Every text from the index or the request passes an escape on its way in.
#pragma once

#include <cstdint>

#include "http/http.h"

// A page being written for one connection: out gathers the bytes, which the server hands to the sink
// in blocks of about 64 KiB. out belongs to the function that writes the page.
struct http_page_t {
    http_server_t *server;
    const http_session_t *session;
    str_t out;
};

// One row of a table: a search result or a child of a folder. Texts are not owned.
struct http_row_t {
    bool folder;
    const char *name;
    uint32_t name_len;
    const char *path; // the folder that holds it
    uint32_t path_len;
    const char *full_path;
    uint32_t full_path_len;
    uint64_t size; // DB_UNKNOWN when not known
    uint64_t date_modified;
};

void http_page_cat(http_page_t *p, const char *text);
void http_page_html(http_page_t *p, const char *text, size_t n);
void http_page_html_z(http_page_t *p, const char *text);
// The title format expanded: "$s" the subject, "$t" the product, "$$" a dollar sign, and "$s?{...}"
// the inside only when the subject isn't empty. Empty format: "$s?{$s - }$t".
void http_page_title(str_t *out, const char *format, const char *subject);
// HEAD_BEGIN, the escaped title for subject, HEAD_END.
void http_page_head(http_page_t *p, const char *subject);
// The logo and the search box holding search, the hidden sort fields for a sort the index keeps, and
// the table's start.
void http_page_top(http_page_t *p, const char *search);
// The query part of a link to this search with another sort or offset, HTML-escaped: "?search=..." and
// only the parameters that differ from their start values.
void http_page_link(http_page_t *p, uint32_t column, bool ascending, uint32_t offset);
// "/" and the path URL-encoded with "/" between components (a URL from a file list as it is), escaped.
void http_page_path_link(http_page_t *p, const char *path, size_t n);
// The header row with sort links and the arrow on the current column: for a search (folder null) with
// the path column, else for the listing of folder (canonical path, "" for the roots).
void http_page_table_head(http_page_t *p, const char *folder);
// Appends a path URL-encoded, with "/" between its components, without a leading "/".
void http_cat_url_path(str_t *out, const char *path, size_t n);
// One row; index gives the alternating colour.
void http_page_row(http_page_t *p, const http_row_t *row, uint32_t index, bool search);
// The pages the bar lists (from 0, ascending, at most 10) for total results shown count at a time from
// offset; returns how many. count must not be 0.
uint32_t http_page_bar_pages(uint32_t total, uint32_t count, uint32_t offset, uint32_t *pages);
void http_page_bar(http_page_t *p, uint32_t total);

// Cell texts: a number with thousands separators, a size in kilobytes rounded up, a local date; unknown
// values write nothing.
void http_format_grouped(str_t *out, uint64_t value);
void http_format_size(str_t *out, uint64_t size);
void http_format_date(str_t *out, uint64_t filetime);
