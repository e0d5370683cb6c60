// Making a list of a folder tree (-create-file-list), and turning a list file into the text of a search
// for its names.
//
// Invariants:
// - A filter list is split at ';' and each non-empty item taken as it stands. An item beginning "regex:"
//   is a regular expression, one holding '*' or '?' a wildcard, any other a name compared with case
//   folded. Each matches the item's name alone, or its full path when the item holds the platform's
//   separator ('\\' on Windows, '/' on Linux). A plain path is the whole path of one item, compared with
//   case folded: it does not reach what lies below the folder it names.
// - The walk never follows a link: a symbolic link or folder junction is listed, not entered.
// - Paths in a written list use the platform's separator; they are relative to the list's folder only
//   when file_list_relative_paths is on and every path lies below that folder.
#pragma once

#include <cstdint>

#include "db/db.h"

struct str_t;

// One filter list, parsed.
struct filelist_filter_t {
    db_exclude_item_t *items; // owned; null for an empty list
};

// Parses a ';' list (null or "" gives an empty filter).
void filelist_filter_init(filelist_filter_t *f, const char *list);
void filelist_filter_kill(filelist_filter_t *f);
// Whether any item matches: name items against name, path items against path. match_data comes from
// db_exclude_match_data_create and belongs to the calling thread.
bool filelist_filter_match(const filelist_filter_t *f, void *match_data, const char *name, uint32_t len,
                           const char *path, uint32_t plen);

// Walks the tree at folder depth first (one trailing separator dropped; the top itself is not listed)
// and writes the list to list_path: a folder matching exclude_folders is neither listed nor entered; a
// file is listed when it matches include_only_files (if that list isn't empty) and no item of
// exclude_files. Every filter may be null. Rows come in the order found, written after the whole walk.
// False when the top folder can't be listed (nothing is written then) or list_path can't be created; a
// write that fails later is not reported.
bool filelist_create(const char *list_path, const char *folder, const char *exclude_files,
                     const char *exclude_folders, const char *include_only_files);

// Replaces out with the names of a list file joined by '|', each '|' inside a name written as "#124:"
// in double quotes. A ".swl" or ".csv" file (any case) is read as a table: its "filename" column, each
// value resolved against the file's folder like a list row; no such column gives an empty text. Any
// other file is read as lines ending at CR LF, LF or a lone CR, one name per line. Empty names are left
// out. False, with out empty, when the file can't be opened.
bool filelist_to_search(str_t *out, const char *path);
