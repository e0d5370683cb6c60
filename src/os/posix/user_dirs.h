// The text of user-dirs.dirs, read apart from the file so that its parser can be driven from a buffer
// (the fuzz target does).
//
// Invariants:
// - Only lines of the form XDG_<key>_DIR=value count, after leading blanks; a line starting with '#' is a
//   comment. The last such line with a value of a known form wins, as when a shell sources the file.
// - A value is "$HOME", "$HOME/..." or "/...", in double quotes (backslash escapes a byte) or bare up to
//   the end of the line without trailing blanks or CR. Any other form is passed over.
#pragma once

#include <cstddef>

struct str_t;

// Looks up XDG_<key>_DIR in text (len bytes, no terminator needed). True with out set to the absolute
// path, $HOME expanded from the environment, with no trailing '/' (unless it is "/" itself); false, with
// out as it was, when no line sets the key to a value of a known form. The caller owns out.
bool os_user_dirs_find(const char *text, size_t len, const char *key, str_t *out);
