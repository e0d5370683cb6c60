// File lists: reading a ".swl" table into items, turning the items into a folder tree, and writing lists.
// A reader knows nothing of the index: the tree step hands each folder and file to a callback, and the
// callback decides what to keep and how to name it for its children.
//
// Invariants:
// - Items hold resolved paths in one separator, the platform's (OS_SEP): a list written on the other
//   platform is turned over on reading (on Linux a Windows-absolute row, "X:..." or "\\server...", has its
//   backslashes made slashes; on Windows a row beginning with '/' has its slashes made backslashes), so
//   the tree step splits every path at one byte.
// - Every item lives in the list's pool and dies with filelist_kill; nothing is freed singly.
// - Details use the unknown forms: a size or date of all ones is unknown, attributes 0 are none. A folder
//   row's size is 0 whatever the row says; a folder made because a path needed it (an implied folder) has
//   size 0, unknown dates and attributes 0x10.
// - Duplicates are kept: two rows with one path give two items and two callbacks. Paths compare by exact
//   bytes, so names that differ only in case are different names.
// - No lock. Reading and the tree step run on one thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "filelist/csv.h"
#include "mem/stack.h"
#include "os/os.h"

struct str_t;

#define FILELIST_HEADER "Filename,Size,Date Modified,Date Created,Attributes\r\n"

// What a read reports: the status a private index keeps for its windows.
enum { FILELIST_OK = 0, FILELIST_NO_FILENAME = 1, FILELIST_OPEN_FAILED = 2 };

enum { FILELIST_ITEM_FOLDER = 128 };

struct filelist_item_t {
    filelist_item_t *next; // file order
    os_file_info_t fd;
    uint32_t path_len;
    uint8_t flags; // FILELIST_ITEM_FOLDER for a row with attribute 0x10
    char path[1];  // path_len bytes and a zero
};

struct filelist_t {
    mem_stack_t pool;
    filelist_item_t *first;
    filelist_item_t *last;
    uint32_t count;
    char sep; // the separator the paths are split at; OS_SEP unless a test asks for the other platform's
};

// What of the index's configuration applies while reading: rows with these attributes are left out.
struct filelist_options_t {
    bool exclude_hidden;
    bool exclude_system;
};

// An empty list for the platform's separator; sep may name the other one ('\\' or '/') so that tests can
// check one platform's rules on the other.
void filelist_init(filelist_t *list, char sep = OS_SEP);
// Frees every item.
void filelist_kill(filelist_t *list);

// Reads the list file at path, appending its accepted rows. Relative rows are resolved against the
// file's folder. Returns FILELIST_OPEN_FAILED when the file can't be opened, FILELIST_NO_FILENAME when it
// is empty or its header has no "Filename" column (nothing is appended then), else FILELIST_OK. Logs
// "items %d".
int filelist_read(filelist_t *list, const char *path, const filelist_options_t *options);
// The same over a table already open; base_dir is the folder for relative rows. The caller still owns
// and closes csv.
int filelist_read_csv(filelist_t *list, csv_t *csv, const char *base_dir, const filelist_options_t *options);

// ---- paths ---------------------------------------------------------------------------------------------

// The folder of a list file: its path up to, not including, the last separator ("" without one).
void filelist_base_dir(str_t *out, const char *list_path, char sep = OS_SEP);
// Whether a row's path stands on its own. Windows rules: its second byte is ':', or it begins with two
// backslashes, or a ':' comes before the first separator, or it begins with '/' (a Linux list). Linux
// rules: it begins with '/', or is Windows-absolute (second byte ':' or two leading backslashes).
bool filelist_path_is_absolute(const char *path, size_t len, char sep = OS_SEP);
// Resolves a row's path against base_dir into out: an absolute path is kept byte for byte but for the
// separator turn-over above; a path beginning with a separator joins the root of base_dir (drive, or
// server and share; "" on Linux); any other joins base_dir. A joined path is made canonical: "." and ".."
// components resolved (never above the root), runs of separators made one, separators made sep.
void filelist_resolve_path(str_t *out, const char *base_dir, const char *path, size_t len, char sep = OS_SEP);

// The tree order: bytes compared in turn, a path that has ended first, the separator before every other
// byte, else the lower byte first. A folder sorts before all it holds, and what one folder holds is one
// contiguous run.
int filelist_path_compare(const char *a, size_t alen, const char *b, size_t blen, char sep);

// ---- the tree step -------------------------------------------------------------------------------------

enum filelist_kind_t { FILELIST_FILE, FILELIST_FOLDER, FILELIST_IMPLIED_FOLDER };

// Called once per record the list makes. parent is what the callback returned for the parent folder, or
// 0 for the list's top (so a callback must never return 0 for a folder it keeps). The name is not
// zero-terminated and lives as long as the list. The return value names a folder to its children; it is
// ignored for files.
typedef uintptr_t (*filelist_tree_proc_t)(void *ctx, uintptr_t parent, filelist_kind_t kind, const char *name,
                                          uint32_t len, const os_file_info_t *fd);

// Sorts the items in the tree order (on several threads when there are many) and walks them once,
// calling proc for every folder, implied or named, before anything it holds. Two leading separators (a
// server path) are skipped, so the first component is the server. A path ending in a separator makes
// its folders and nothing more. Logs "done".
void filelist_tree(filelist_t *list, filelist_tree_proc_t proc, void *ctx);

// ---- the tree while reading ----------------------------------------------------------------------------
// The same tree as filelist_tree, built while the rows are read instead of from sorted items: no row is
// kept, so a list of millions of rows costs only its folders. Each row's folder is found by comparing the
// row with the one before; where they part, each further folder is looked up among the folders seen (a
// list sorted by plain bytes leaves a folder and comes back to it where a name holds a byte below the
// separator). Where rows of one path lie apart in the file, the sorted walk, which sees all rows of a path
// together and before what lies below it, gives the holder of that path's contents to the last row of
// exactly that path: a folder row's record, or a folder made implied after them all when that row is a
// file. The stream reaches the same tree by telling the sink more:
// - an implied folder that a later row names keeps its record and takes the row's details (name);
// - when a later row changes a path's holder, the new holder is a new record; at the end, move tells the
//   sink once for each earlier holder which record takes over what it holds.
// Records otherwise come in row order (folders before what they hold), so rows of one path keep their
// file order, and twins (one parent, one name) come in the order the sorted walk gives them.

struct filelist_sink_t {
    filelist_tree_proc_t proc;
    void (*name)(void *ctx, uintptr_t folder, const os_file_info_t *fd);
    void (*move)(void *ctx, uintptr_t from, uintptr_t to);
    void *ctx;
};

struct filelist_stream_t;

// A tree for one list; sep as for filelist_init. Never null; freed by filelist_stream_finish.
filelist_stream_t *filelist_stream_create(const filelist_sink_t *sink, char sep = OS_SEP);
// One accepted row: its resolved path, details and flags, as filelist_read would keep them in an item.
void filelist_stream_row(filelist_stream_t *s, const char *path, size_t len, const os_file_info_t *fd,
                         uint8_t flags);
// Reports the moves, frees the stream and logs "done".
void filelist_stream_finish(filelist_stream_t *s);

// Reads the list file at path straight into a tree: filelist_read and filelist_tree in one pass, with the
// same status, the same log lines, and the reports above. Nothing reaches the sink unless the result is
// FILELIST_OK.
int filelist_read_tree(const char *path, const filelist_options_t *options, const filelist_sink_t *sink,
                       char sep = OS_SEP);
// The same over a table already open (the caller closes it); base_dir is the folder for relative rows.
int filelist_read_tree_csv(csv_t *csv, const char *base_dir, const filelist_options_t *options,
                           const filelist_sink_t *sink, char sep = OS_SEP);

// ---- writing -------------------------------------------------------------------------------------------

#define FILELIST_WRITER_BUFFER 65536

// A buffered writer. A failed write sets failed and writing goes on; the caller asks at the end.
struct filelist_writer_t {
    os_file_t file;
    char *buffer;
    uint32_t pos;
    bool failed;
};

// Which row form: -create-file-list and the editor leave out an unknown (all ones) size and a zero date;
// the export of results leaves out unknown sizes and dates and writes a zero date as 0.
enum filelist_row_t { FILELIST_ROW_CREATE, FILELIST_ROW_EDITOR, FILELIST_ROW_EXPORT };

// Creates (or empties) the file. False when it can't be opened; the writer then holds nothing to kill.
bool filelist_writer_open(filelist_writer_t *w, const char *path);
void filelist_writer_write(filelist_writer_t *w, const char *bytes, size_t n);
// text_format's directives.
void filelist_writer_printf(filelist_writer_t *w, const char *format, ...);
// The text in double quotes with each double quote doubled.
void filelist_writer_quoted(filelist_writer_t *w, const char *text, size_t n);
// Writes what is buffered, closes the file and frees the buffer. True when every write succeeded.
bool filelist_writer_close(filelist_writer_t *w);

// FILELIST_HEADER.
void filelist_write_header(filelist_writer_t *w);
// One row: quoted path, size, date modified, date created, attributes, CR LF.
void filelist_write_row(filelist_writer_t *w, filelist_row_t form, const char *path, size_t len,
                        const os_file_info_t *fd);

// The byte count to cut from the front of every written path when relative paths are asked for: the
// list file's folder with its last separator, if every one of the count paths begins with exactly those
// bytes; 0 if even one doesn't (or count is 0).
size_t filelist_relative_prefix(const char *list_path, const char *const *paths, size_t count,
                                char sep = OS_SEP);
