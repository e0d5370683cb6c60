// sws's arguments: one table of switches over the program's own tokeniser, so that a line quoted for the
// main program reads the same here. Words that are no switch are the search.
#include <cstring>

#include "cl/cl.h"
#include "db_query/db_query.h"
#include "mem/mem.h"
#include "os/os.h"
#include "sws/sws.h"

const char sws_usage[] =
    "Usage: sws [options] [--] SEARCH...\n"
    "Finds files and folders by name. The words of SEARCH are joined with blanks into one search.\n"
    "\n"
    "Sources (several may be given; without any, and without -db, the program's own index file is\n"
    "searched, built from the whole file system and saved on first use):\n"
    "  -filelist FILE        a file list (.swl)\n"
    "  -folder DIR           a folder and all below it\n"
    "  -ntfs VOLUME          an NTFS volume, image file or block device\n"
    "  -db FILE              load this database file as the index\n"
    "  -save-db FILE         save the index to FILE after building or loading it\n"
    "  -config FILE          settings file whose index_*, fast_*_sort, exclude and match keys apply\n"
    "\n"
    "Matching (each also as -no-...):\n"
    "  -case, -whole-word (-ww), -match-path (-path), -diacritics, -regex\n"
    "\n"
    "Order and paging:\n"
    "  -sort NAME[-ascending|-descending]   Name, Path, Size, Extension, Type, Date Modified,\n"
    "                        Date Created, Date Accessed, Attributes, Date Recently Changed, Run Count,\n"
    "                        Date Run, File List Filename\n"
    "  -sort-ascending, -sort-descending\n"
    "  -offset N (-o N)      skip the first N results\n"
    "  -max-results N (-n N) write at most N results\n"
    "\n"
    "Output (default: one full path per line, UTF-8, LF; in it and in -tsv a tab, CR, LF in a name is\n"
    "written as \\t \\r \\n and \\ as \\\\ on Linux; on Windows as |t |r |n and | as ||):\n"
    "  -csv, -tsv, -json     a table with the full path (Filename) and the chosen columns:\n"
    "  -name, -path-column, -size, -date-modified, -date-created, -date-accessed, -attributes,\n"
    "  -extension            (dates in ISO 8601 UTC)\n"
    "  -swl                  a file list (dates as FILETIME)\n"
    "  -count                only the number of results\n"
    "  -get-total-size       only the total size of the file results\n"
    "  -stats                load or build, records, search, sort and memory figures on standard error\n"
    "  -h, -help             this text\n"
    "\n"
    "Exit status: 0 success (also with no results), 1 bad arguments, 2 a source could not be read,\n"
    "3 a database file that is not valid.\n";

namespace {

enum kind_t {
    K_SOURCE, // one argument: a source of arg's kind
    K_FILE,   // one argument: a path into a text field
    K_MATCH,  // a match flag on (or off with "no-")
    K_SORT,   // one argument: the column, maybe with its direction
    K_DIR,    // the sort direction
    K_NUMBER, // one argument: offset or maximum
    K_FORMAT, // the output form
    K_COLUMN, // a column
    K_FLAG,   // a plain switch
};

struct switch_t {
    const char *name;
    kind_t kind;
    int arg; // the source kind, field, flag or value the row sets
};

enum { F_DB, F_SAVE_DB, F_CONFIG };
enum { M_CASE, M_WHOLE_WORD, M_PATH, M_DIACRITICS, M_REGEX };
enum { N_OFFSET, N_MAX };
enum { G_COUNT, G_TOTAL_SIZE, G_STATS, G_HELP };

const switch_t switches[] = {
    {"filelist", K_SOURCE, SWS_SOURCE_FILELIST},
    {"file-list", K_SOURCE, SWS_SOURCE_FILELIST},
    {"folder", K_SOURCE, SWS_SOURCE_FOLDER},
    {"ntfs", K_SOURCE, SWS_SOURCE_NTFS},
    {"db", K_FILE, F_DB},
    {"save-db", K_FILE, F_SAVE_DB},
    {"config", K_FILE, F_CONFIG},
    {"case", K_MATCH, M_CASE},
    {"whole-word", K_MATCH, M_WHOLE_WORD},
    {"ww", K_MATCH, M_WHOLE_WORD},
    {"match-path", K_MATCH, M_PATH},
    {"path", K_MATCH, M_PATH},
    {"diacritics", K_MATCH, M_DIACRITICS},
    {"regex", K_MATCH, M_REGEX},
    {"sort", K_SORT, 0},
    {"sort-ascending", K_DIR, 1},
    {"sort-descending", K_DIR, -1},
    {"offset", K_NUMBER, N_OFFSET},
    {"o", K_NUMBER, N_OFFSET},
    {"max-results", K_NUMBER, N_MAX},
    {"n", K_NUMBER, N_MAX},
    {"csv", K_FORMAT, SWS_FORMAT_CSV},
    {"tsv", K_FORMAT, SWS_FORMAT_TSV},
    {"json", K_FORMAT, SWS_FORMAT_JSON},
    {"swl", K_FORMAT, SWS_FORMAT_SWL},
    {"name", K_COLUMN, SWS_COL_NAME},
    {"path-column", K_COLUMN, SWS_COL_PATH},
    {"size", K_COLUMN, SWS_COL_SIZE},
    {"date-modified", K_COLUMN, SWS_COL_DATE_MODIFIED},
    {"date-created", K_COLUMN, SWS_COL_DATE_CREATED},
    {"date-accessed", K_COLUMN, SWS_COL_DATE_ACCESSED},
    {"attributes", K_COLUMN, SWS_COL_ATTRIBUTES},
    {"extension", K_COLUMN, SWS_COL_EXTENSION},
    {"count", K_FLAG, G_COUNT},
    {"get-total-size", K_FLAG, G_TOTAL_SIZE},
    {"stats", K_FLAG, G_STATS},
    {"h", K_FLAG, G_HELP},
    {"help", K_FLAG, G_HELP},
    {"?", K_FLAG, G_HELP},
};

// The sort number of each column as cl_sort_column numbers them.
const int column_sorts[] = {
    DB_SORT_NAME,
    DB_SORT_PATH,
    DB_SORT_SIZE,
    DB_SORT_EXTENSION,
    DB_SORT_TYPE,
    DB_SORT_DATE_MODIFIED,
    DB_SORT_DATE_CREATED,
    DB_SORT_DATE_ACCESSED,
    DB_SORT_ATTRIBUTES,
    DB_SORT_DATE_RECENTLY_CHANGED,
    DB_SORT_RUN_COUNT,
    DB_SORT_DATE_RUN,
    DB_SORT_FILE_LIST_FILENAME,
};

// The parse's state: the tokens still to read and where the search words gather.
struct parser_t {
    const char *p;
    str_t token;
    bool quoted;
    str_t search;
    sws_source_t **source_tail;
};

bool next_token(parser_t *ps) {
    const char *next = cl_next_token(ps->p, &ps->token, &ps->quoted);
    if (!next)
        return false;
    ps->p = next;
    return true;
}

void add_word(parser_t *ps) {
    if (ps->search.len)
        str_cat_char(&ps->search, ' ');
    str_cat(&ps->search, ps->token.ptr, ps->token.len);
}

// The switch a token names: "-x" or "--x", '_' read as '-'; null when the token is no switch.
const switch_t *find_switch(const str_t *token, bool *negated) {
    const char *t = token->ptr;
    int n = token->len;
    *negated = false;
    if (n < 2 || t[0] != '-')
        return nullptr;
    t++, n--;
    if (t[0] == '-')
        t++, n--;
    char name[32];
    if (n <= 0 || n >= (int) sizeof name)
        return nullptr;
    for (int i = 0; i < n; i++)
        name[i] = t[i] == '_' ? '-' : t[i];
    name[n] = 0;
    const char *lookup = name;
    if (strncmp(name, "no-", 3) == 0) {
        lookup = name + 3;
        *negated = true;
    }
    for (const switch_t &s : switches) {
        if (strcmp(s.name, lookup) == 0) {
            // Only a match flag turns off.
            if (*negated && s.kind != K_MATCH)
                return nullptr;
            return &s;
        }
    }
    *negated = false;
    return nullptr;
}

bool equal_nocase(const char *a, const char *b, int n) {
    for (int i = 0; i < n; i++) {
        char x = a[i] >= 'A' && a[i] <= 'Z' ? (char) (a[i] + 32) : a[i];
        if (x != b[i])
            return false;
    }
    return true;
}

bool parse_number(const char *text, uint64_t *out) {
    if (!*text)
        return false;
    uint64_t v = 0;
    for (const char *p = text; *p; p++) {
        if (*p < '0' || *p > '9')
            return false;
        uint64_t d = (uint64_t) (*p - '0');
        if (v > (UINT64_MAX - d) / 10)
            return false;
        v = v * 10 + d;
    }
    *out = v;
    return true;
}

// Whether text names the column "Name" (cl_sort_column answers 0 for it and for anything unknown).
bool names_name_column(const char *text, int len) {
    char folded[8];
    int n = 0;
    for (int i = 0; i < len; i++) {
        char c = text[i];
        if (c == ' ' || c == '-' || c == '_')
            continue;
        if (n == 4)
            return false;
        folded[n++] = (char) (c >= 'A' && c <= 'Z' ? c + 32 : c);
    }
    return n == 4 && memcmp(folded, "name", 4) == 0;
}

bool parse_sort(sws_options_t *o, const char *text, int len, str_t *error) {
    static const struct {
        const char *suffix;
        int dir;
    } suffixes[] = {{"-ascending", 1}, {"ascending", 1}, {"-descending", -1}, {"descending", -1}};
    for (const auto &s : suffixes) {
        int n = (int) strlen(s.suffix);
        if (len > n && equal_nocase(text + len - n, s.suffix, n)) {
            o->sort_dir = s.dir;
            len -= n;
            break;
        }
    }
    int column = cl_sort_column(text, len);
    if (column == 0 && !names_name_column(text, len)) {
        str_printf(error, "-sort %s: no such column", text);
        return false;
    }
    o->sort = column_sorts[column];
    return true;
}

void set_text(char **slot, const char *text, int len) {
    mem_free(*slot);
    *slot = mem_dup(text, (size_t) len);
}

void add_source(parser_t *ps, sws_source_kind_t kind, const char *cwd) {
    sws_source_t *s = (sws_source_t *) mem_alloc(sizeof *s);
    memset(s, 0, sizeof *s);
    s->kind = kind;
    if (kind == SWS_SOURCE_NTFS) {
        // A volume is named as the system names it ("C:", "/dev/sdb1"), an image file by its path.
        set_text(&s->path, ps->token.ptr, ps->token.len);
    } else {
        str_t abs;
        str_init(&abs);
        cl_path_absolute(&abs, ps->token.ptr, cwd, OS_SEP);
        set_text(&s->path, abs.ptr, abs.len);
        str_kill(&abs);
    }
    *ps->source_tail = s;
    ps->source_tail = &s->next;
}

// One switch with its argument, if it takes one. False with the reason in error.
bool apply_switch(sws_options_t *o, parser_t *ps, const switch_t *s, bool negated, const char *cwd,
                  str_t *error) {
    bool takes_arg = s->kind == K_SOURCE || s->kind == K_FILE || s->kind == K_SORT || s->kind == K_NUMBER;
    str_t name;
    str_init(&name);
    str_set_n(&name, ps->token.ptr, ps->token.len);
    bool ok = true;
    if (takes_arg && !next_token(ps)) {
        str_printf(error, "%s: expects an argument", name.ptr);
        ok = false;
    } else if (s->kind == K_SOURCE) {
        add_source(ps, (sws_source_kind_t) s->arg, cwd);
    } else if (s->kind == K_FILE) {
        str_t abs;
        str_init(&abs);
        cl_path_absolute(&abs, ps->token.ptr, cwd, OS_SEP);
        char **slot = s->arg == F_DB ? &o->db : s->arg == F_SAVE_DB ? &o->save_db : &o->config;
        set_text(slot, abs.ptr, abs.len);
        str_kill(&abs);
    } else if (s->kind == K_MATCH) {
        int *flags[] = {&o->match_case, &o->match_whole_word, &o->match_path, &o->match_diacritics,
                        &o->match_regex};
        *flags[s->arg] = negated ? 0 : 1;
    } else if (s->kind == K_SORT) {
        ok = parse_sort(o, ps->token.ptr, ps->token.len, error);
    } else if (s->kind == K_DIR) {
        o->sort_dir = s->arg;
    } else if (s->kind == K_NUMBER) {
        uint64_t v;
        ok = parse_number(ps->token.ptr, &v);
        if (!ok)
            str_printf(error, "%s %s: not a whole number", name.ptr, ps->token.ptr);
        else if (s->arg == N_OFFSET)
            o->offset = v;
        else
            o->max_results = v;
    } else if (s->kind == K_FORMAT) {
        if (o->format != SWS_FORMAT_PLAIN && o->format != (sws_format_t) s->arg) {
            str_printf(error, "%s: only one of -csv, -tsv, -json and -swl may be given", name.ptr);
            ok = false;
        }
        o->format = (sws_format_t) s->arg;
    } else if (s->kind == K_COLUMN) {
        o->columns |= (uint32_t) s->arg;
    } else if (s->arg == G_COUNT) {
        o->count = true;
    } else if (s->arg == G_TOTAL_SIZE) {
        o->total_size = true;
    } else if (s->arg == G_STATS) {
        o->stats = true;
    } else {
        o->help = true;
    }
    str_kill(&name);
    return ok;
}

// The combinations that can't mean anything, once the whole line is read.
bool check(const sws_options_t *o, str_t *error) {
    if (o->db && o->sources) {
        str_set(error, "-db loads an index and a source builds one: give one or the other");
        return false;
    }
    if (o->columns && (o->format == SWS_FORMAT_PLAIN || o->format == SWS_FORMAT_SWL)) {
        str_set(error, "column switches need -csv, -tsv or -json");
        return false;
    }
    if (o->count && o->total_size) {
        str_set(error, "-count and -get-total-size each print one number: give one of them");
        return false;
    }
    return true;
}

} // namespace

bool sws_parse(sws_options_t *o, const char *command_line, const char *cwd, str_t *error) {
    memset(o, 0, sizeof *o);
    o->match_case = o->match_whole_word = o->match_path = o->match_diacritics = o->match_regex = SWS_UNSET;
    o->sort = DB_SORT_NAME;
    o->max_results = UINT64_MAX;
    parser_t ps;
    ps.p = command_line;
    str_init(&ps.token);
    str_init(&ps.search);
    ps.source_tail = &o->sources;
    bool ok = true;
    bool words_only = false;
    // The program's own name comes first.
    next_token(&ps);
    while (ok && next_token(&ps)) {
        if (words_only || ps.quoted) {
            add_word(&ps);
            continue;
        }
        if (ps.token.len == 2 && memcmp(ps.token.ptr, "--", 2) == 0) {
            words_only = true;
            continue;
        }
        bool negated;
        const switch_t *s = find_switch(&ps.token, &negated);
        if (s) {
            ok = apply_switch(o, &ps, s, negated, cwd, error);
        } else if (ps.token.len > 1 && ps.token.ptr[0] == '-') {
            str_printf(error, "%t: unknown switch (sws -help lists them; -- ends the switches)", ps.token.ptr,
                       ps.token.len);
            ok = false;
        } else {
            add_word(&ps);
        }
    }
    o->search = mem_dup(ps.search.ptr ? ps.search.ptr : "", (size_t) ps.search.len);
    str_kill(&ps.token);
    str_kill(&ps.search);
    return ok && (o->help || check(o, error));
}

void sws_options_kill(sws_options_t *o) {
    for (sws_source_t *s = o->sources; s;) {
        sws_source_t *next = s->next;
        mem_free(s->path);
        mem_free(s);
        s = next;
    }
    mem_free(o->db);
    mem_free(o->save_db);
    mem_free(o->config);
    mem_free(o->search);
    memset(o, 0, sizeof *o);
}
