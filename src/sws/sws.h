// sws: the command-line search client. It builds or loads an index in its own process, runs one search
// through db_query_search as every other front-end does, and writes the results to standard output in a
// form that scripts read back: plain paths, CSV, TSV, JSON or a file list.
//
// Invariants:
// - Standard output carries results only; errors, progress and figures go to standard error. Every error
//   is one line that says what failed and where, and the exit status says which kind it was.
// - No output form can be split wrongly: names holding a line end or a tab are escaped (plain, TSV),
//   quoted (CSV, JSON), or left out of a file list with a warning, since a list row cannot hold them.
// - The options own every text they hold (heap blocks from mem_dup); sws_options_kill frees them.
// - The index, its load, build and save, and the main-thread events are the program's own (src/main,
//   src/db, src/db_create): sws only chooses the sources and the file and waits for the answer.
#pragma once

#include <cstdint>

#include "mem/mem.h"

struct db_t;
struct db_query_t;

// Exit statuses.
enum {
    SWS_EXIT_OK = 0,           // also when nothing was found
    SWS_EXIT_USAGE = 1,        // bad arguments
    SWS_EXIT_SOURCE = 2,       // a source, a settings file or an output file could not be read or written
    SWS_EXIT_DATABASE = 3,     // a database file that is not valid
    SWS_EXIT_INTERRUPTED = 130 // ended by a signal before the answer was complete
};

// Where the index comes from. The running-instance kind joins here when the program can be asked over
// IPC: it will be a source of its own that skips the index build.
enum sws_source_kind_t { SWS_SOURCE_FILELIST, SWS_SOURCE_FOLDER, SWS_SOURCE_NTFS };

struct sws_source_t {
    sws_source_t *next;
    sws_source_kind_t kind;
    char *path; // made absolute, except an NTFS volume name, which stands as given
};

enum sws_format_t { SWS_FORMAT_PLAIN, SWS_FORMAT_CSV, SWS_FORMAT_TSV, SWS_FORMAT_JSON, SWS_FORMAT_SWL };

// Columns beside the full path, in the order they are written.
enum {
    SWS_COL_NAME = 0x01,
    SWS_COL_PATH = 0x02,
    SWS_COL_SIZE = 0x04,
    SWS_COL_DATE_MODIFIED = 0x08,
    SWS_COL_DATE_CREATED = 0x10,
    SWS_COL_DATE_ACCESSED = 0x20,
    SWS_COL_ATTRIBUTES = 0x40,
    SWS_COL_EXTENSION = 0x80,
};
#define SWS_COL_COUNT 8

// A match switch that was not given keeps the settings' value.
enum { SWS_UNSET = -1 };

struct sws_options_t {
    sws_source_t *sources; // in command-line order
    char *db;              // -db: load this file instead of building
    char *save_db;         // -save-db: write the index here
    char *config;          // -config: the settings file
    int match_case, match_whole_word, match_path, match_diacritics, match_regex; // 0, 1 or SWS_UNSET
    int sort;                                                                    // DB_SORT_* ascending form
    int sort_dir; // 1 ascending, -1 descending, 0 the column's default (ascending)
    uint64_t offset;
    uint64_t max_results; // UINT64_MAX: all
    sws_format_t format;
    uint32_t columns; // SWS_COL_*
    bool count;
    bool total_size;
    bool stats;
    bool help;
    char *search; // the words joined with blanks
};

// ---- arguments
// ---------------------------------------------------------------------------------------------

// Reads a whole command line (the program's name first, quoted by the program's own rule) into o, with
// relative paths made absolute against cwd. Returns true, or false with the one-line reason in error
// (no "sws: " prefix); o then holds what was read so far and must still be killed.
bool sws_parse(sws_options_t *o, const char *command_line, const char *cwd, str_t *error);
void sws_options_kill(sws_options_t *o);
// The usage text.
extern const char sws_usage[];

// ---- output --------------------------------------------------------------------------------------------

// One result as the writers see it. Texts are counted, not terminated; unknown sizes and dates are all
// ones.
struct sws_row_t {
    const char *full_path;
    uint32_t full_path_len;
    const char *name;
    uint32_t name_len;
    const char *path; // the folder that holds it: full_path without the name and its separator
    uint32_t path_len;
    bool folder;
    uint64_t size;
    uint64_t date_modified, date_created, date_accessed;
    uint32_t attributes;
};

// A buffered writer to standard output (or, in tests, to nothing but its buffer).
struct sws_out_t {
    str_t buffer;
    bool to_stdout;   // flush into standard output when the buffer grows past 64 KiB
    bool failed;      // a write failed (a closed pipe): output stops, the work goes on to its end
    uint32_t skipped; // rows a file list could not hold
};
void sws_out_init(sws_out_t *w, bool to_stdout);
// Writes what is buffered. False when a write failed now or before.
bool sws_out_flush(sws_out_t *w);
void sws_out_kill(sws_out_t *w);

// The header of a form (nothing for plain output), each row, and the end (JSON closes its document).
void sws_write_begin(sws_out_t *w, sws_format_t format, uint32_t columns);
void sws_write_row(sws_out_t *w, sws_format_t format, uint32_t columns, const sws_row_t *row, bool first);
void sws_write_end(sws_out_t *w, sws_format_t format);

// Text escapes, public for their tests. Plain and TSV: tab, CR and LF as the escape byte and t, r, n, the
// escape byte doubled; it is '\' on Linux and '|' on Windows, where '\' is the separator. CSV: the field in
// double quotes, each quote doubled, when it holds a comma, a quote, CR or LF. JSON: a string in double
// quotes; bytes that are not UTF-8 become U+FFFD so that the document stays valid.
void sws_escape_plain(str_t *out, const char *text, uint32_t len);
void sws_escape_csv(str_t *out, const char *text, uint32_t len);
void sws_escape_json(str_t *out, const char *text, uint32_t len);
// A FILETIME as ISO 8601 UTC, "2024-05-01T10:20:30Z", with seven digits of fraction when it has one.
// Returns false (and writes nothing) for an unknown or unrepresentable date.
bool sws_iso_date(str_t *out, uint64_t filetime);

// ---- the program
// -------------------------------------------------------------------------------------------

// The whole process: arguments from the platform's command line, settings, sources, index, search,
// output. Returns the exit status.
int sws_main();
