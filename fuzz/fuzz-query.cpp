// Any bytes are a valid search: parse, compile, dump and free them under every parser setting the
// first byte selects, as a search and as a filter, against no index or a small one (so that the
// parse-time lookups of path roots, infolder:, shell: and frn: walk records), and expand them as macros.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/config.h"
#include "db/db.h"
#include "db_query/expand.h"
#include "db_query/literal.h"
#include "db_query/term.h"
#include "mem/mem.h"
#include "os/os.h"

// A folder source and an NTFS volume with folder references, built once.
static db_t *_index() {
    static db_t *db = nullptr;
    if (db) {
        return db;
    }
    db = db_create(nullptr);
    db_fs_t *folder = db_fs_add(db, DB_FS_FOLDER);
    db_fs_t *ntfs = db_fs_add(db, DB_FS_NTFS);
    const char *top = OS_SEP == '/' ? "" : "C:";
    db_ref_t root = db_folder_new(db, folder, 0, top, (uint32_t) strlen(top));
    db_ref_t usr = db_folder_new(db, folder, root, "usr", 3);
    db_ref_t file = db_file_new(db, folder, usr, "ls", 2);
    db_ref_t volume = db_folder_new(db, ntfs, 0, "D:", 2);
    db_ref_t docs = db_folder_new(db, ntfs, volume, "docs", 4);
    uint64_t frn[2] = {5, 0x20};
    memcpy(db_record_frn(db, volume), &frn[0], 8);
    memcpy(db_record_frn(db, docs), &frn[1], 8);
    for (db_ref_t r : {root, usr, volume, docs}) {
        mem_array_push(&db->folders, r);
    }
    mem_array_push(&db->ntfs_folders, volume);
    mem_array_push(&db->ntfs_folders, docs);
    mem_array_push(&db->files, file);
    return db;
}

// The clock the date words read: UTC as the local zone and a "now" taken from the input, so that runs
// repeat and the calendar counts are tried from every day of the calendar, not from the day of the run.
static uint64_t _now;
static uint64_t _fixed_now() {
    return _now;
}
static bool _to_local(uint64_t ft, os_systemtime_t *out) {
    return os_filetime_to_system(ft, out);
}
static bool _from_local(const os_systemtime_t *local, uint64_t *ft) {
    return os_system_to_filetime(local, ft);
}

// A counted range from now, built from three bytes. A coming one starts now and ends no earlier, a past
// one starts no later than now and stays open to the future. A count of months or years that stays
// inside the calendar's years ends on a real instant: never open, never 0, whatever the day of the month.
static void _check_count(const uint8_t *b) {
    static const struct {
        const char *word;
        int months;
    } units[] = {{"months", 1}, {"years", 12}, {"days", 0}, {"weeks", 0}};
    bool coming = b[0] & 1;
    unsigned n = b[1] | (unsigned) (b[0] >> 1) << 8;
    const auto &unit = units[b[2] & 3];
    char text[64];
    snprintf(text, sizeof text, "%s %u %s", coming ? "next" : "last", n, unit.word);
    const char *p = text;
    db_range64_t r;
    date_literal_parse(&p, &r, true);
    bool ok = !*p && (coming ? r.low == _now && r.high >= _now : r.low <= _now && r.high == DB_OPEN_HIGH);
    os_systemtime_t st;
    if (ok && unit.months && n && os_filetime_to_system(_now, &st)) {
        int64_t index = (int64_t) st.year * 12 + st.month - 1 + (coming ? 1 : -1) * (int64_t) n * unit.months;
        int64_t year = index / 12;
        if (year > 1601 && year < 30827) {
            ok = coming ? r.high != DB_OPEN_HIGH && r.high > _now : r.low != 0 && r.low < _now;
        }
    }
    if (!ok) {
        abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    os_hooks.filetime_now = _fixed_now;
    os_hooks.filetime_to_local = _to_local;
    os_hooks.local_to_filetime = _from_local;
    // The last eleven bytes (when there are so many) pick the day, before the calendar's last year, and
    // a count to check from it.
    _now = 133547580000000000ull; // 2024-03-13
    if (size >= 13) {
        uint64_t v;
        memcpy(&v, data + size - 11, 8);
        _now = v % 0x7FFE000000000000ull; // early in 30826
        _check_count(data + size - 3);
    }
    uint8_t settings = data[0], bits = data[1];
    std::string text((const char *) data + 2, size - 2);
    operator_precedence = settings & 1;
    allow_literal_operators = (settings >> 1) & 1;
    allow_round_bracket_parenthesis = (settings >> 2) & 1;
    allow_exclamation_point_not = (settings >> 3) & 1;
    match_whole_filename_when_using_wildcards = (settings >> 4) & 1;
    fast_ascii_search = (settings >> 5) & 1;
    match_path_when_search_contains_path_separator = (settings >> 6) & 1;

    // The search text ends at the first zero, as it does for every caller.
    const char *search = text.c_str();
    size_t split = strlen(search) / 2;
    std::string filter(search + split);
    db_search_t s;
    db_search_init(&s, (settings & 0x80) ? _index() : nullptr);
    db_term_t *terms =
        db_search_parse(search, bits & 0x1F, (bits & 0x80) ? filter.c_str() : nullptr, bits >> 3);
    db_search_compile_terms(&s, terms);
    str_t out;
    str_init(&out);
    db_terms_dump(terms, &out);
    db_search_link(&s, terms);
    db_search_kill(&s);

    db_range64_t r;
    const char *p = search;
    date_literal_parse(&p, &r, true);
    p = search;
    size_literal_parse(&p, &r, true);

    db_macro_t filters[2] = {{"a", "a: b|c", SEARCH_CASE, true}, {"x", "y:z", 0, false}};
    db_macro_t bookmarks[1] = {{"bm<p>", "p: p:", 0, false}};
    db_expand_search(&out, search, filters, 2, bookmarks, 1);
    db_expand_environment(&out);
    str_kill(&out);
    return 0;
}
