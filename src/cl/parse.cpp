// Tokens, the walk over a command line, and what each switch writes into the cl_t.
#include "cl/cl.h"
#include "cl/cl_internal.h"

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"
#include "text/text.h"

#include <cstddef>
#include <cstring>

// The shell's Computer folder, which a folder context menu hands to -path: it names no folder.
static const char _cl_computer_folder[] = "::{20D04FE0-3AEA-1069-A2D8-08002B30309D}";

static cl_file_list_reader_t _cl_file_list_reader;

void cl_set_file_list_reader(cl_file_list_reader_t reader) {
    _cl_file_list_reader = reader;
}

static inline bool _cl_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

const char *cl_next_token(const char *p, str_t *out, bool *quoted) {
    str_clear(out);
    *quoted = false;
    if (!p) {
        return nullptr;
    }
    while (_cl_is_blank(*p)) {
        p++;
    }
    if (!*p) {
        return nullptr;
    }
    bool in_quotes = false;
    while (*p) {
        if (*p == '"') {
            *quoted = true;
            if (p[1] == '"' && p[2] == '"') {
                str_cat_char(out, '"');
                p += 3;
                continue;
            }
            in_quotes = !in_quotes;
            p++;
            continue;
        }
        if (!in_quotes && _cl_is_blank(*p)) {
            break;
        }
        str_cat_char(out, *p);
        p++;
    }
    return p;
}

void cl_quote_arg(str_t *out, const char *arg) {
    // The rule lives in the platform layer, which builds the program's own command line and its children's
    // by it; there must be only one.
    os_main_quote_arg(out, arg);
}

// ---- the parser's state --------------------------------------------------------------------------------

struct _cl_parser_t {
    cl_t *cl;
    const char *p;    // where the next token starts; null once the line is used up
    const char *base; // folder that relative paths are resolved against
    str_t token;
    str_t name;    // a switch token's name, with '_' made '-'
    str_t scratch; // paths and decoded texts on their way into the cl_t
};

static void _cl_error(_cl_parser_t *ps, const char *message) {
    debug_printf("%s\n", message);
    ps->cl->flags |= CL_FLAG_ERROR;
}

// Reads the next token whatever it looks like: an argument may begin with '-' or be quoted.
static bool _cl_next_argument(_cl_parser_t *ps) {
    bool quoted;
    ps->p = cl_next_token(ps->p, &ps->token, &quoted);
    return ps->p != nullptr;
}

static void _cl_set_text(char **field, const char *text, int len) {
    mem_free(*field);
    *field = mem_dup(text, (size_t) len);
}

static void _cl_set_str(char **field, const str_t *s) {
    _cl_set_text(field, s->ptr, s->len);
}

static void _cl_absolute(_cl_parser_t *ps, str_t *out, const char *path) {
    cl_path_absolute(out, path, ps->base, OS_SEP);
}

static void _cl_set_path(_cl_parser_t *ps, char **field, const char *path) {
    _cl_absolute(ps, &ps->scratch, path);
    _cl_set_str(field, &ps->scratch);
}

// A later part of the same kind takes the earlier one's place in the list; another kind goes last.
static void _cl_set_search_part(cl_t *cl, int kind, const char *text, int len) {
    cl_search_part_t **link = &cl->search_parts;
    for (; *link; link = &(*link)->next) {
        if ((*link)->kind == kind) {
            _cl_set_text(&(*link)->text, text, len);
            return;
        }
    }
    cl_search_part_t *part = (cl_search_part_t *) mem_alloc(sizeof(cl_search_part_t));
    part->next = nullptr;
    part->kind = kind;
    part->text = mem_dup(text, (size_t) len);
    *link = part;
}

static cl_journal_op_t *_cl_add_journal_op(cl_t *cl, int op, const str_t *volume) {
    cl_journal_op_t **link = &cl->journal_ops;
    while (*link) {
        link = &(*link)->next;
    }
    cl_journal_op_t *item = (cl_journal_op_t *) mem_alloc(sizeof(cl_journal_op_t));
    memset(item, 0, sizeof(*item));
    item->op = op;
    item->volume = mem_dup(volume->ptr, (size_t) volume->len);
    *link = item;
    return item;
}

// Byte sizes of a journal pass 4 GiB, so they need the 64-bit form of the settings file's number rule:
// an optional sign and decimal digits, or "0x" and hexadecimal digits, up to the first other character.
static uint64_t _cl_parse_u64(const char *s) {
    bool negative = false;
    if (*s == '-' || *s == '+') {
        negative = *s == '-';
        s++;
    }
    uint64_t v = 0;
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        for (s += 2;; s++) {
            int d = text_hex_digit(*s);
            if (d < 0) {
                break;
            }
            v = v * 16 + (uint64_t) d;
        }
    } else {
        for (; *s >= '0' && *s <= '9'; s++) {
            v = v * 10 + (uint64_t) (*s - '0');
        }
    }
    return negative ? 0 - v : v;
}

// ---- paths for the search parts ------------------------------------------------------------------------

static bool _cl_is_sep(char c) {
    return c == OS_SEP || (OS_SEP == '\\' && c == '/');
}

static void _cl_add_trailing_sep(str_t *s) {
    if (s->len > 0 && s->ptr[s->len - 1] != OS_SEP) {
        str_cat_char(s, OS_SEP);
    }
}

// Cuts the last component of an absolute path that ends in a separator, keeping the separator before it.
// A root ("C:\", "/") has nothing to cut and stays.
static void _cl_cut_last_component(str_t *s) {
    int end = s->len;
    while (end > 0 && s->ptr[end - 1] == OS_SEP) {
        end--;
    }
    int cut = end;
    while (cut > 0 && s->ptr[cut - 1] != OS_SEP) {
        cut--;
    }
    if (cut == 0) {
        return;
    }
    s->len = cut;
    s->ptr[cut] = 0;
}

static void _cl_strip_trailing_sep(str_t *s) {
    // The root of a POSIX path is the separator itself, and "C:\" keeps its separator so that it stays a
    // root and doesn't become the drive-relative "C:".
    while (s->len > 1 && s->ptr[s->len - 1] == OS_SEP && !(s->len == 3 && s->ptr[1] == ':')) {
        s->len--;
    }
    s->ptr[s->len] = 0;
}

static void _cl_path_part(_cl_parser_t *ps, int arg) {
    str_t *path = &ps->scratch;
    int n = (int) sizeof(_cl_computer_folder) - 1;
    if (ps->token.len == n && cl_ascii_equal_nocase(ps->token.ptr, _cl_computer_folder, n)) {
        str_clear(path);
    } else {
        _cl_absolute(ps, path, ps->token.ptr);
        if (arg == CL_ARG_PARENT_PATH) {
            _cl_add_trailing_sep(path);
            _cl_cut_last_component(path);
        } else if (arg == CL_ARG_FILENAME) {
            if (os_folder_exists(path->ptr)) {
                _cl_add_trailing_sep(path);
            } else {
                _cl_strip_trailing_sep(path);
            }
        } else {
            _cl_add_trailing_sep(path);
        }
    }
    _cl_set_search_part(ps->cl, CL_SEARCH_PATH, path->ptr, path->len);
}

static void _cl_name_part(_cl_parser_t *ps) {
    const char *t = ps->token.ptr;
    int end = ps->token.len;
    while (end > 0 && _cl_is_sep(t[end - 1])) {
        end--;
    }
    int start = end;
    while (start > 0 && !_cl_is_sep(t[start - 1])) {
        start--;
    }
    _cl_set_search_part(ps->cl, CL_SEARCH_NAME_PART, t + start, end - start);
}

static void _cl_search_file_list(_cl_parser_t *ps) {
    str_t *path = &ps->scratch;
    _cl_absolute(ps, path, ps->token.ptr);
    str_t names;
    str_init(&names);
    if (_cl_file_list_reader && _cl_file_list_reader(&names, path->ptr)) {
        _cl_set_search_part(ps->cl, CL_SEARCH_FILE_LIST, names.ptr, names.len);
    } else {
        _cl_set_search_part(ps->cl, CL_SEARCH_FILE_LIST, path->ptr, path->len);
    }
    str_kill(&names);
}

// "name-descending", "nameascending": the direction word goes and sets sort_dir, the rest names the column.
static void _cl_sort(cl_t *cl, const char *text, int len) {
    static const struct {
        const char *suffix;
        int dir;
    } suffixes[] = {{"-ascending", 1}, {"ascending", 1}, {"-descending", -1}, {"descending", -1}};
    for (const auto &s : suffixes) {
        int n = (int) strlen(s.suffix);
        if (len >= n && cl_ascii_equal_nocase(text + len - n, s.suffix, n)) {
            cl->sort_dir = s.dir;
            len -= n;
            break;
        }
    }
    cl->sort = cl_sort_column(text, len);
}

// ---- one switch ----------------------------------------------------------------------------------------

static void _cl_on(cl_t *cl, uint32_t bit, bool turn_off) {
    if (turn_off) {
        cl->off |= bit;
        cl->on &= ~bit;
    } else {
        cl->on |= bit;
        cl->off &= ~bit;
    }
}

// Takes every token left on the line as a path of a file operation: a shell may hand over thousands.
static void _cl_file_op(_cl_parser_t *ps, int op) {
    cl_t *cl = ps->cl;
    cl->file_op = op;
    cl_path_t **link = &cl->file_op_paths;
    while (*link) {
        link = &(*link)->next;
    }
    while (_cl_next_argument(ps)) {
        _cl_absolute(ps, &ps->scratch, ps->token.ptr);
        cl_path_t *item = (cl_path_t *) mem_alloc(sizeof(cl_path_t));
        item->next = nullptr;
        item->path = mem_dup(ps->scratch.ptr, (size_t) ps->scratch.len);
        *link = item;
        link = &item->next;
        cl->file_op_path_count++;
    }
}

// Returns false when the rest of the line belongs to the switch, which ends the parse.
static bool _cl_action(_cl_parser_t *ps, uint32_t action) {
    cl_t *cl = ps->cl;
    switch (action) {
    case CL_ACTION_LOCAL:
        mem_free(cl->file_list);
        cl->file_list = nullptr;
        cl->flags |= CL_FLAG_LOCAL;
        break;
    case CL_ACTION_DETAILS:
        cl->flags = (cl->flags | CL_FLAG_DETAILS) & ~CL_FLAG_THUMBNAILS;
        break;
    case CL_ACTION_THUMBNAILS:
        cl->flags = (cl->flags | CL_FLAG_THUMBNAILS) & ~CL_FLAG_DETAILS;
        break;
    case CL_ACTION_PATH_INSTANCE: {
        str_t folder;
        str_init(&folder);
        os_exe_folder(&folder);
        while (folder.len > 1 && folder.ptr[folder.len - 1] == OS_SEP) {
            folder.len--;
        }
        _cl_set_text(&cl->instance, folder.ptr, folder.len);
        str_kill(&folder);
        break;
    }
    case CL_ACTION_VERSION_INSTANCE:
        str_printf(&ps->scratch, "%d.%d.%d.%d", DEBUG_VERSION_MAJOR, DEBUG_VERSION_MINOR,
                   DEBUG_VERSION_REVISION, DEBUG_VERSION_BUILD);
        _cl_set_str(&cl->instance, &ps->scratch);
        break;
    case CL_ACTION_FOCUS_LAST_RUN:
    case CL_ACTION_FOCUS_MOST_RUN:
    case CL_ACTION_FOCUS_TOP:
    case CL_ACTION_FOCUS_BOTTOM:
    case CL_ACTION_FOCUS_RESULTS:
        cl->focus = CL_FOCUS_LAST_RUN + (int) (action - CL_ACTION_FOCUS_LAST_RUN);
        break;
    case CL_ACTION_MONITOR_PAUSE:
    case CL_ACTION_MONITOR_RESUME:
        _cl_on(cl, CL_ON_MONITOR_PAUSE, action == CL_ACTION_MONITOR_RESUME);
        break;
    case CL_ACTION_RENAME:
        _cl_file_op(ps, CL_FILE_OP_RENAME);
        return false;
    case CL_ACTION_MOVETO:
        _cl_file_op(ps, CL_FILE_OP_MOVETO);
        return false;
    case CL_ACTION_COPYTO:
        _cl_file_op(ps, CL_FILE_OP_COPYTO);
        return false;
    }
    return true;
}

// Arguments that only land in one field of the cl_t: a text as given, a path made absolute, or a number.
enum { _CL_FIELD_TEXT, _CL_FIELD_PATH, _CL_FIELD_NUMBER };

struct _cl_field_t {
    uint32_t arg;
    uint8_t kind;
    size_t offset; // of a char * field for texts and paths, of an int32_t field for numbers
};

#define _CL_FIELD(arg, kind, field)                                                                          \
    { arg, kind, offsetof(cl_t, field) }

static const _cl_field_t _cl_fields[] = {
    _CL_FIELD(CL_ARG_BOOKMARK, _CL_FIELD_TEXT, bookmark),
    _CL_FIELD(CL_ARG_CONFIG, _CL_FIELD_PATH, config),
    _CL_FIELD(CL_ARG_CONNECT, _CL_FIELD_TEXT, connect),
    _CL_FIELD(CL_ARG_CREATE_FILE_LIST_EXCLUDE_FILES, _CL_FIELD_TEXT, create_file_list_exclude_files),
    _CL_FIELD(CL_ARG_CREATE_FILE_LIST_EXCLUDE_FOLDERS, _CL_FIELD_TEXT, create_file_list_exclude_folders),
    _CL_FIELD(CL_ARG_CREATE_FILE_LIST_INCLUDE_ONLY_FILES, _CL_FIELD_TEXT,
              create_file_list_include_only_files),
    _CL_FIELD(CL_ARG_DB, _CL_FIELD_PATH, db),
    _CL_FIELD(CL_ARG_EDIT, _CL_FIELD_PATH, edit),
    _CL_FIELD(CL_ARG_FILE_LIST, _CL_FIELD_PATH, file_list),
    _CL_FIELD(CL_ARG_FILTER, _CL_FIELD_TEXT, filter),
    _CL_FIELD(CL_ARG_INSTALL, _CL_FIELD_PATH, install),
    _CL_FIELD(CL_ARG_INSTALL_CONFIG, _CL_FIELD_PATH, install_config),
    _CL_FIELD(CL_ARG_INSTALL_LANGUAGE, _CL_FIELD_NUMBER, install_language),
    _CL_FIELD(CL_ARG_INSTALL_OPTIONS, _CL_FIELD_TEXT, install_options),
    _CL_FIELD(CL_ARG_INSTALL_SERVICE_PIPE_NAME, _CL_FIELD_TEXT, install_service_pipe_name),
    _CL_FIELD(CL_ARG_INSTALL_SERVICE_SECURITY_DESCRIPTOR, _CL_FIELD_TEXT,
              install_service_security_descriptor),
    _CL_FIELD(CL_ARG_INSTANCE, _CL_FIELD_TEXT, instance),
    _CL_FIELD(CL_ARG_LANGUAGE, _CL_FIELD_NUMBER, language),
    _CL_FIELD(CL_ARG_LINK_TYPE, _CL_FIELD_NUMBER, link_type),
    _CL_FIELD(CL_ARG_LOAD_DELAY, _CL_FIELD_NUMBER, load_delay),
    _CL_FIELD(CL_ARG_SELECT, _CL_FIELD_PATH, select),
    _CL_FIELD(CL_ARG_SERVICE_PIPE_NAME, _CL_FIELD_TEXT, service_pipe_name),
    _CL_FIELD(CL_ARG_SVC_PIPE_NAME, _CL_FIELD_TEXT, svc_pipe_name),
    _CL_FIELD(CL_ARG_SVC_SECURITY_DESCRIPTOR, _CL_FIELD_TEXT, svc_security_descriptor),
    _CL_FIELD(CL_ARG_THUMBNAIL_SIZE, _CL_FIELD_NUMBER, thumbnail_size),
    _CL_FIELD(CL_ARG_UNINSTALL, _CL_FIELD_PATH, uninstall),
};

static bool _cl_field(_cl_parser_t *ps, uint32_t arg) {
    for (const _cl_field_t &f : _cl_fields) {
        if (f.arg != arg) {
            continue;
        }
        char *at = (char *) ps->cl + f.offset;
        if (f.kind == _CL_FIELD_NUMBER) {
            *(int32_t *) at = text_parse_int(ps->token.ptr);
        } else if (f.kind == _CL_FIELD_PATH) {
            _cl_set_path(ps, (char **) at, ps->token.ptr);
        } else {
            _cl_set_str((char **) at, &ps->token);
        }
        return true;
    }
    return false;
}

// The argument of a type 5 switch stands in ps->token.
static void _cl_argument(_cl_parser_t *ps, uint32_t arg) {
    cl_t *cl = ps->cl;
    if (_cl_field(ps, arg)) {
        return;
    }
    switch (arg) {
    case CL_ARG_DELETE_USN_JOURNAL:
        _cl_add_journal_op(cl, CL_JOURNAL_DELETE, &ps->token);
        break;
    case CL_ARG_FILENAME:
    case CL_ARG_PATH:
    case CL_ARG_PARENT_PATH:
        _cl_path_part(ps, (int) arg);
        break;
    case CL_ARG_PARENT:
        _cl_absolute(ps, &ps->scratch, ps->token.ptr);
        _cl_strip_trailing_sep(&ps->scratch);
        _cl_set_search_part(cl, CL_SEARCH_PARENT, ps->scratch.ptr, ps->scratch.len);
        break;
    case CL_ARG_NAME_PART:
        _cl_name_part(ps);
        break;
    case CL_ARG_SEARCH:
        _cl_set_search_part(cl, CL_SEARCH_TEXT, ps->token.ptr, ps->token.len);
        break;
    case CL_ARG_URL:
        cl_url_decode(&ps->scratch, ps->token.ptr);
        _cl_set_search_part(cl, CL_SEARCH_TEXT, ps->scratch.ptr, ps->scratch.len);
        break;
    case CL_ARG_SEARCH_FILE_LIST:
        _cl_search_file_list(ps);
        break;
    case CL_ARG_SAVE_INSTALL_OPTIONS:
        cl->save_install_options = true;
        cl->install_options_value = text_parse_int(ps->token.ptr);
        break;
    case CL_ARG_SORT:
        _cl_sort(cl, ps->token.ptr, ps->token.len);
        break;
    case CL_ARG_IGNORED_PORT:
        // Ports are the settings' business; the switches stay accepted so that old command lines run.
        break;
    }
}

static void _cl_uninstall_here(cl_t *cl) {
    str_t folder;
    str_init(&folder);
    os_exe_folder(&folder);
    _cl_set_str(&cl->uninstall, &folder);
    str_kill(&folder);
}

static bool _cl_create_file_list(_cl_parser_t *ps) {
    if (!_cl_next_argument(ps)) {
        _cl_error(ps, "expected argument for switch");
        return false;
    }
    _cl_set_path(ps, &ps->cl->create_file_list_filename, ps->token.ptr);
    if (!_cl_next_argument(ps)) {
        _cl_error(ps, "expected argument for switch");
        return false;
    }
    _cl_set_path(ps, &ps->cl->create_file_list_path, ps->token.ptr);
    return true;
}

static bool _cl_create_usn_journal(_cl_parser_t *ps) {
    if (!_cl_next_argument(ps)) {
        _cl_error(ps, "expected volume");
        return false;
    }
    cl_journal_op_t *op = _cl_add_journal_op(ps->cl, CL_JOURNAL_CREATE, &ps->token);
    if (!_cl_next_argument(ps)) {
        _cl_error(ps, "expected max-size");
        return false;
    }
    op->max_size = _cl_parse_u64(ps->token.ptr);
    if (!_cl_next_argument(ps)) {
        _cl_error(ps, "expected allocation-delta");
        return false;
    }
    op->allocation_delta = _cl_parse_u64(ps->token.ptr);
    return true;
}

// Carries out one switch. Returns false when the parse ends here.
static bool _cl_apply(_cl_parser_t *ps, const cl_switch_t *row, int form) {
    cl_t *cl = ps->cl;
    switch (row->type) {
    case CL_TYPE_FLAG:
        cl->flags |= row->value;
        return true;
    case CL_TYPE_ON_OFF:
    case CL_TYPE_INSTALL_ON_OFF:
        _cl_on(cl, row->value, form == CL_FORM_OFF);
        return true;
    case CL_TYPE_INSTALL_ITEM:
    case CL_TYPE_OPTION:
        // The bare name of an install item or an option is a switch without an effect: only a prefix
        // says which way to turn it.
        if (form != CL_FORM_BARE) {
            _cl_on(cl, row->value, form == CL_FORM_OFF);
        }
        return true;
    case CL_TYPE_ACTION:
        return _cl_action(ps, row->value);
    case CL_TYPE_ARGUMENT:
        if (!_cl_next_argument(ps)) {
            if (row->value == CL_ARG_UNINSTALL) {
                _cl_uninstall_here(cl);
                return false;
            }
            _cl_error(ps, "expected argument for switch");
            return false;
        }
        _cl_argument(ps, row->value);
        return true;
    case CL_TYPE_SERVICE:
        cl->service_op = (int32_t) row->value;
        return true;
    case CL_TYPE_LINK_TYPE:
        cl->link_type = (int32_t) row->value;
        return true;
    case CL_TYPE_FILE_LIST:
        return _cl_create_file_list(ps);
    case CL_TYPE_CLIENT_SERVICE:
        cl->client_service_op = (int32_t) row->value;
        return true;
    case CL_TYPE_SORT_ASCENDING:
        cl->sort_dir = 1;
        return true;
    case CL_TYPE_SORT_DESCENDING:
        cl->sort_dir = -1;
        return true;
    case CL_TYPE_USN_JOURNAL:
        return _cl_create_usn_journal(ps);
    }
    return true;
}

// Where '/' separates path components, "/usr/lib/x.swl" is a path, not a switch: a token that begins
// with '/' and names no switch is taken as a positional argument there instead of an unknown switch.
static bool _cl_slash_may_be_path(const str_t *token) {
    return OS_SEP == '/' && token->ptr[0] == '/';
}

// Returns false when the parse ends at this token.
static bool _cl_token(_cl_parser_t *ps, bool quoted) {
    str_t *tok = &ps->token;
    bool switch_like = !quoted && (tok->ptr[0] == '-' || tok->ptr[0] == '/');
    if (switch_like) {
        // The name is looked at in a copy: a token that turns out to be a path must keep its '_'.
        int skip = (tok->ptr[0] == '-' && tok->ptr[1] == '-') ? 2 : 1;
        str_t *name = &ps->name;
        str_set_n(name, tok->ptr + skip, tok->len - skip);
        for (int i = 0; i < name->len; i++) {
            if (name->ptr[i] == '_') {
                name->ptr[i] = '-';
            }
        }
        int form;
        const cl_switch_t *row = cl_switch_lookup(name->ptr, name->len, &form);
        if (row) {
            return _cl_apply(ps, row, form);
        }
        if (!_cl_slash_may_be_path(tok)) {
            debug_printf("unknown command line switch %s\n", tok->ptr);
            ps->cl->flags |= CL_FLAG_ERROR;
            return false;
        }
    }
    _cl_set_path(ps, &ps->cl->file_list, tok->ptr);
    return true;
}

static void _cl_defaults(cl_t *cl) {
    memset(cl, 0, sizeof(*cl));
    cl->language = -1;
    cl->install_language = -1;
    cl->link_type = 1;
    cl->sort = -1;
}

cl_t *cl_parse(const char *command_line, const char *base_directory, bool first_token_is_a_switch) {
    cl_t *cl = (cl_t *) mem_alloc(sizeof(cl_t));
    _cl_defaults(cl);
    if (!command_line) {
        command_line = "";
    }
    debug_printf("cl: %s\n", command_line);

    _cl_parser_t ps;
    ps.cl = cl;
    ps.p = command_line;
    str_init(&ps.token);
    str_init(&ps.name);
    str_init(&ps.scratch);
    str_t current;
    str_init(&current);
    if (base_directory) {
        ps.base = base_directory;
    } else {
        os_current_folder(&current);
        ps.base = current.ptr;
    }

    bool quoted;
    if (!first_token_is_a_switch) {
        ps.p = cl_next_token(ps.p, &ps.token, &quoted);
    }
    while ((ps.p = cl_next_token(ps.p, &ps.token, &quoted)) != nullptr) {
        if (!_cl_token(&ps, quoted)) {
            break;
        }
    }

    str_kill(&current);
    str_kill(&ps.scratch);
    str_kill(&ps.name);
    str_kill(&ps.token);
    return cl;
}

void cl_free(cl_t *cl) {
    if (!cl) {
        return;
    }
    char **texts[] = {&cl->instance,
                      &cl->config,
                      &cl->db,
                      &cl->file_list,
                      &cl->edit,
                      &cl->bookmark,
                      &cl->filter,
                      &cl->install,
                      &cl->install_options,
                      &cl->uninstall,
                      &cl->connect,
                      &cl->install_config,
                      &cl->service_pipe_name,
                      &cl->svc_pipe_name,
                      &cl->svc_security_descriptor,
                      &cl->install_service_pipe_name,
                      &cl->install_service_security_descriptor,
                      &cl->select,
                      &cl->create_file_list_filename,
                      &cl->create_file_list_path,
                      &cl->create_file_list_exclude_files,
                      &cl->create_file_list_exclude_folders,
                      &cl->create_file_list_include_only_files};
    for (char **t : texts) {
        mem_free(*t);
    }
    for (cl_search_part_t *p = cl->search_parts, *next; p; p = next) {
        next = p->next;
        mem_free(p->text);
        mem_free(p);
    }
    for (cl_journal_op_t *j = cl->journal_ops, *next; j; j = next) {
        next = j->next;
        mem_free(j->volume);
        mem_free(j);
    }
    for (cl_path_t *f = cl->file_op_paths, *next; f; f = next) {
        next = f->next;
        mem_free(f->path);
        mem_free(f);
    }
    mem_free(cl);
}
