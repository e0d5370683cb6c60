// The line reader and the table reader that every comma-separated file of the program is read with: file
// lists, bookmarks, filters, search and run history.
//
// Invariants:
// - A line ends at LF or at CR LF; the end is not delivered. A lone CR is data. A last line without an end
//   is a line. A line may be of any length and may span buffers, also between its CR and its LF.
// - A field is parsed in place, in the line buffer: no field allocates. The text a field returns stays
//   valid, with every earlier field of the same row, until the next line is read.
// - Field rules: a field that starts with '"' runs to the next lone '"', "" inside standing for one '"',
//   and what follows the closing quote up to the next comma is appended as it stands. Any other field runs
//   to the next comma or the end of the line, quotes kept. Fields never span lines. A comma at the very
//   end of a line opens no further field, and an empty line is a row with no fields.
// - The bytes EF BB BF at the start of the first line are a byte order mark and are skipped; nowhere else.
// - One thread uses a reader at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/mem.h"

// Reads up to n bytes into buf: the count read, 0 at the end, -1 on an error (taken as the end).
typedef int64_t (*line_reader_read_t)(void *handle, void *buf, size_t n);
// Releases the handle; called once by line_reader_kill.
typedef void (*line_reader_close_t)(void *handle);

#define LINE_READER_BUFFER 65536

struct line_reader_t {
    void *handle;
    line_reader_read_t read;
    line_reader_close_t close; // may be null
    char *buffer;
    size_t size;  // bytes of buffer
    size_t pos;   // next unread byte
    size_t avail; // bytes of buffer holding data
    bool eof;     // the read callback said there is no more
};

// Sets up a reader over handle with a heap buffer of buffer_size bytes (0 takes LINE_READER_BUFFER).
void line_reader_init(line_reader_t *r, void *handle, line_reader_read_t read, line_reader_close_t close,
                      size_t buffer_size);
// Calls the close callback, frees the buffer.
void line_reader_kill(line_reader_t *r);
// Replaces line with the next line, without its end. Returns 1 with a line (which may be empty), 0 when no
// data remain and nothing was gathered.
int line_reader_next(line_reader_t *r, str_t *line);

struct csv_t {
    line_reader_t reader;
    str_t line;
    char *cursor;    // where the next field starts, inside line
    char *end;       // end of the line's text
    int field_len;   // bytes of the field returned last
    bool loaded;     // the current row's line has been read
    bool row_done;   // every field of the current row was returned
    bool eof;        // a row was asked for and there was no line
    bool first_line; // the next line read is the file's first
};

// Opens a file for sequential reading, sharing it with writers. Null when it can't be opened. The caller
// closes the reader with csv_close.
csv_t *csv_open(const char *path);
// A reader over a copy of len bytes of memory (tests, fuzzing, texts already in memory). Never null.
csv_t *csv_open_memory(const void *data, size_t len);
// A reader over any source of bytes; close is called when the reader closes. Never null.
csv_t *csv_open_reader(void *handle, line_reader_read_t read, line_reader_close_t close);
// Closes the source and frees the reader. Null is ignored.
void csv_close(csv_t *csv);

// The next field of the current row, zero-terminated, or null at the end of the row. The first call of a
// row reads its line; at the end of the file it returns null and the row is not counted as finished. len,
// when not null, receives the field's byte count (a field may hold zero bytes of its own).
const char *csv_read_field(csv_t *csv, int *len = nullptr);
// Moves to the next row: 1 when there was a current row, 0 at the end of the file. A row left half-read
// is drained first, so that a caller may stop reading fields whenever it has what it wants.
int csv_next_row(csv_t *csv);
