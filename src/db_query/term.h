// Search terms and compiled ops: the road from one line of query text to the two op chains (folders and
// files) that the scan runs.
//
// Invariants:
// - Every string is a valid search: parsing has no error path, and compiling a term always yields one
//   folder op and one file op.
// - Terms form a decision graph: `next` is taken when a term matched, `notnext` when it failed; null
//   means the whole search succeeded (next) or failed (notnext) on that path. Links only point forward
//   in creation order (`list_next`), so a graph always ends.
// - An op is one heap block: the head below and its payload behind it. Each op kind has one opcode for
//   itself and one for its NOT; opcodes never exceed DB_OP_MAX. The op lists of a db_search_t own every
//   op, and an op owns what its payload points at (compiled patterns, arrays).
// - Terms live only while a search is compiled; ops live until db_search_kill.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/arena.h"
#include "mem/array.h"
#include "text/text.h"

struct str_t;
struct db_t;

// ---- term flags ----------------------------------------------------------------------------------------

enum : uint32_t {
    TERM_CASE = 0x0001,               // match case
    TERM_WHOLEWORD = 0x0002,          // whole word
    TERM_PATH = 0x0004,               // match against the full path instead of the name
    TERM_DIACRITICS = 0x0008,         // match diacritics
    TERM_FILEONLY = 0x0010,           // the term can only be true of files
    TERM_FOLDERONLY = 0x0020,         // the term can only be true of folders
    TERM_ASCII = 0x0040,              // the ASCII fast path may be used
    TERM_WILDCARDS = 0x0100,          // '*' and '?' are wildcards
    TERM_EXACT = 0x0200,              // whole-filename match
    TERM_NOT = 0x0400,                // result is inverted
    TERM_REGEX = 0x0800,              // text is a regular expression
    TERM_WILDCARD_WHOLE = 0x1000,     // wildcards match the whole name rather than anywhere
    TERM_MAYBE_FUNCTION = 0x2000,     // raw text was [a-z0-9]* up to ':' or the end: may be a function
    TERM_WILDCARDS_EXPLICIT = 0x4000, // wildcards: was given (read by the content and tag functions)
    TERM_NOT_FILE = 0x8000,           // inverted once TERM_FILEONLY is in force
    TERM_NOT_FOLDER = 0x10000,        // inverted once TERM_FOLDERONLY is in force
};
// What NOT toggles: the result and the two kind-only inversions.
#define TERM_NOT_ALL 0x18400u

// The small flag set callers pass for a search or a filter.
enum : uint32_t {
    SEARCH_CASE = 0x01,
    SEARCH_WHOLEWORD = 0x02,
    SEARCH_PATH = 0x04,
    SEARCH_DIACRITICS = 0x08,
    SEARCH_REGEX = 0x10,
};

// ---- ops -----------------------------------------------------------------------------------------------

#define DB_OP_TRUE  0
#define DB_OP_FALSE 1
#define DB_OP_MAX   387

// What an op's payload holds; the scan reads it by opcode, the dump and the free by kind.
enum db_op_kind_t : uint8_t {
    DB_OPK_NONE,     // constants and tests without argument
    DB_OPK_TEXT,     // db_op_text_t
    DB_OPK_RANGE64,  // db_op_range64_t
    DB_OPK_RANGE32,  // db_op_range32_t
    DB_OPK_MASK,     // db_op_mask_t: attributes
    DB_OPK_COUNT,    // db_op_count_t
    DB_OPK_EXT,      // db_op_ext_t
    DB_OPK_PATTERN,  // db_text_match_t
    DB_OPK_REGEX,    // db_op_regex_t
    DB_OPK_FOLDERS,  // db_op_folders_t: infolder and path roots
    DB_OPK_FILELIST, // db_op_filelist_t
    DB_OPK_IMAGE,    // db_op_image_t
    DB_OPK_FRN,      // db_op_frn_t
};

struct db_op_t {
    db_op_t *list_next; // all ops of this kind (folder or file) in creation order
    db_op_t *next;      // taken when the test is true; null: the record passes
    db_op_t *notnext;   // taken when the test is false; null: the record fails
    uint16_t op;        // the opcode
    uint8_t is_filter;  // copied from the term
    uint8_t kind;       // db_op_kind_t
    uint32_t size;      // payload bytes behind the head
};

inline void *db_op_payload(db_op_t *op) {
    return op + 1;
}
inline const void *db_op_payload(const db_op_t *op) {
    return op + 1;
}

// Text ops: families 2..161 and 296..325. T is folded as the term's flags say; offset is where the
// compare starts in the record's text (an absolute path prefix compares the full path from 0).
struct db_op_text_t {
    uint32_t len;
    uint32_t offset;
    char *text; // points behind this struct, zero-terminated
};

struct db_op_range64_t {
    uint64_t low, high;
};

struct db_op_range32_t {
    uint32_t min, max;
};

struct db_op_mask_t {
    uint32_t mask;
};

// count: the limit, and the scan's cache of the result chunk in use.
struct db_op_count_t {
    uint32_t limit;
    uint32_t base;
    void *chunk_end;
    void *chunk_list;
};

// ext: items sorted for the search; with no empty item each pointer is at the item's last byte (the
// suffix search compares from the end), else at its first.
struct db_op_ext_item_t {
    uint32_t len;
    const char *ptr;
};
struct db_op_ext_t {
    uint32_t count;
    uint8_t has_empty;
    db_op_ext_item_t *items; // behind this struct, then the bytes
};

// A compiled string pattern: a matcher in a folding over folded bytes, or a regular expression, or
// nothing that can match (a pattern the regex engine refused).
struct db_text_match_t {
    text_matcher_t match; // null for a regex or a refused pattern
    void *regex;          // pcre2_code, owned; null unless a regex
    uint8_t family;       // text_family_t, or 0xFF for a regex
    uint8_t folding;      // text_folding_t
    uint8_t never;        // the pattern was refused: nothing matches
    uint32_t len;
    char *text; // folded pattern bytes, zero-terminated, behind the op's struct
};

// regex ops 226..229.
struct db_op_regex_t {
    void *code; // pcre2_code, owned
    uint32_t len;
    char *text; // the pattern as written
};

// infolder (280..285) and path roots (230..295): the folded text and the folders found, sorted by
// reference for the binary search on a record's parent chain.
struct db_op_folders_t {
    uint32_t count;
    uint32_t len;       // bytes of text
    char *text;         // the folded path text, behind this struct
    mem_ref_t *folders; // heap, owned; null when count is 0
    uint8_t *include;   // mixed root list only: 1 where the entry itself counts; heap, owned, or null
};

// filelist 384..387: the raw text; the scan splits and sorts the entries when it starts.
struct db_op_filelist_t {
    uint8_t folding; // text_folding_t of the term's case and diacritics flags
    uint32_t len;
    char *text;
    mem_array_t sorted; // filled by the scan's pre-pass
};

// Image dimensions 348/349: mode 1 (<), 2 (>), 3 (ranges), 4 landscape, 5 portrait.
struct db_op_image_t {
    uint32_t mode;
    uint32_t width_min, width_max;
    uint32_t height_min, height_max;
};

// frn: the records that have the reference on some volume source, found when the search was compiled
// and sorted by reference, so that the scan's test is a binary search on the record itself.
struct db_op_frn_t {
    uint64_t low, high; // the 128-bit reference
    uint32_t hits;      // records found for it when the search was compiled
    mem_ref_t *records; // heap, owned; null when hits is 0
};

// True when record is one of the op's records (the test of op 336; 337 is its NOT).
bool db_op_frn_test(const db_op_frn_t *f, mem_ref_t record);

struct db_fs_t;
// How a volume source answers for a file reference: the parent folder's reference and the file's name.
// NTFS references use low alone; ReFS ones both halves. Returns 1 when found, 0 when the volume has no
// such file, -1 when the volume can't be asked. The default asks the mounted volume through
// os_volume_file_by_id; tests put their own in. Whatever it says, a folder that the index holds with the
// reference is found too, so folders need no volume at all.
typedef int (*db_frn_resolve_t)(const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t *parent_low,
                                uint64_t *parent_high, str_t *name);
extern db_frn_resolve_t db_frn_resolve;
// The default: the mounted volume named by the source's GUID path, else by its path.
int db_frn_resolve_volume(const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t *parent_low,
                          uint64_t *parent_high, str_t *name);

// ---- terms ---------------------------------------------------------------------------------------------

struct db_term_t {
    db_term_t *next;
    db_term_t *notnext;
    db_term_t *list_next;
    db_op_t *fileop;
    db_op_t *folderop;
    uint32_t flags;
    uint8_t is_filter;
    uint32_t len; // bytes of text (a "#0:" escape can put a zero inside)
    char *text;   // unquoted, unescaped, zero-terminated; lives in the same block
};

// ---- the compiled search -------------------------------------------------------------------------------

struct db_search_t {
    db_t *db;           // the index the parse-time lookups read, or null (they then find nothing)
    uint32_t structure; // the index's structure word: which columns and sorted arrays exist

    db_op_t *folder_ops; // first op of the folder chain (the chain starts at the list's first op)
    db_op_t *folder_last;
    db_op_t *file_ops;
    db_op_t *file_last;

    // What the scan must provide, set by the functions.
    bool needs_fileinfo;
    uint32_t fileinfo_mask;
    bool needs_type;
    bool needs_single_thread;
    bool flip_for_count;
};

// Fileinfo mask bits the on-demand ops ask for.
enum : uint32_t {
    DB_FILEINFO_SIZE = 0x01,
    DB_FILEINFO_DATE_MODIFIED = 0x02,
    DB_FILEINFO_DATE_CREATED = 0x04,
    DB_FILEINFO_DATE_ACCESSED = 0x08,
    DB_FILEINFO_ATTRIBUTES = 0x10,
    DB_FILEINFO_CONTENT = 0x20,
    DB_FILEINFO_IMAGE = 0x40,
    DB_FILEINFO_TAGS = 0x80,
};

// An empty search over db (may be null; the structure word is then the default one).
void db_search_init(db_search_t *s, db_t *db);
// Frees every op and what it owns; s is empty afterwards.
void db_search_kill(db_search_t *s);

// The parser's start flags for a caller's SEARCH_* bits, with the settings' wildcard-whole and ASCII bits.
uint32_t db_search_start_flags(uint32_t bits);

// Parses one line into a term list (the first term; never null: the emptiest line is one empty term).
// The caller frees it with db_terms_free unless it goes on to db_search_link.
db_term_t *db_term_parse_all(const char *text, uint32_t flags, int is_filter);
// Parses a search and, unless empty, a filter, and joins the filter behind every successful end of the
// search, so that it is ANDed on the whole search.
db_term_t *db_search_parse(const char *search, uint32_t search_bits, const char *filter,
                           uint32_t filter_bits);
void db_terms_free(db_term_t *first);

// Compiles each term into its folder op and file op, appended to s's chains in list order.
void db_search_compile_terms(db_search_t *s, db_term_t *first);
// Logs the terms (when the log is on), links each op's next and notnext as the terms are linked, and
// frees the terms.
void db_search_link(db_search_t *s, db_term_t *first);
// The whole road: parse, compile, link. With hide_empty and an empty search, both chains are one op 1.
void db_search_compile(db_search_t *s, const char *search, uint32_t search_bits, const char *filter,
                       uint32_t filter_bits, bool hide_empty);

// One term's compile step (the function recognisers, then text forms). Exposed for the functions file.
void db_search_compile_term(db_search_t *s, db_term_t *t);

// A stable text form of compiled terms, one line each, with terms and links named by position:
//   #0 flags 00141 next #1 notnext - folder 34 "abc" file 34 "abc" text "abc"
void db_terms_dump(const db_term_t *first, str_t *out);
// An op's opcode and payload in the same form.
void db_op_dump(const db_op_t *op, str_t *out);

// The type text of a record where the platform's shell has none to give (Linux): "File folder" for a
// folder, "<EXT> File" for a file with an extension (the text behind the last '.', ASCII letters
// upper-cased), "File" without one. type: matches its pattern against this text.
void db_type_text_fixed(const char *name, uint32_t len, bool folder, str_t *out);

// Compiles a string pattern for the functions that take one (type:, child:, content and tags ...).
// The text is copied; the pattern lives in the op payload the caller sized with db_text_match_size.
size_t db_text_match_size(uint32_t flags, const char *text, size_t len);
void term_pattern_compile(uint32_t flags, const char *text, size_t len, db_text_match_t *pattern,
                          char *storage);
// Runs a pattern on a counted text (parse-time use: type texts). A regex allocates its own match data.
bool db_text_match_run(const db_text_match_t *pattern, const char *text, size_t len);
void db_text_match_free(db_text_match_t *pattern);
