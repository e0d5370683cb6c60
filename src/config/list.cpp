// List values: the comma lists of the settings file and the entry arrays built from parallel lists.
//
// A group of parallel lists describes one entry per position; the group's leading list decides how many
// entries there are, and a shorter companion list gives its documented default for the missing positions.
// Reading a group replaces the entries only when the file names the group's leading list, so that a file
// loaded on top of another leaves groups it does not mention alone.
#include "config/config_internal.h"

config_vec_t<config_volume_t> config_ntfs_volumes;
config_vec_t<config_volume_t> config_refs_volumes;
config_vec_t<char *> config_exclude_folders;
config_vec_t<config_filelist_t> config_filelists;
config_vec_t<config_folder_t> config_folders;
config_vec_t<config_connect_t> config_connect_history;
config_vec_t<config_rewrite_t> config_stp_client_rewrites;

static inline bool _list_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static char _list_unescape(char c) {
    switch (c) {
    case 'a':
        return '\a';
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    case '0':
        return 0;
    default:
        return c;
    }
}

void config_list_parse(const char *value, config_vec_t<char *> *out) {
    if (!*value) {
        return;
    }
    const char *p = value;
    str_t item;
    str_init(&item);
    for (;;) {
        str_clear(&item);
        while (_list_blank(*p)) {
            p++;
        }
        bool quoted = false;
        // Bytes up to keep survive the trimming of the item's end: anything quoted or not blank.
        int keep = 0;
        for (; *p; p++) {
            char c = *p;
            if (c == '"') {
                quoted = !quoted;
                keep = item.len;
                continue;
            }
            if (!quoted && (c == ',' || c == ';')) {
                break;
            }
            if (quoted && c == '\\') {
                if (!p[1]) {
                    p++; // a dangling backslash ends the value
                    break;
                }
                str_cat_char(&item, _list_unescape(*++p));
                keep = item.len;
                continue;
            }
            str_cat_char(&item, c);
            if (quoted || !_list_blank(c)) {
                keep = item.len;
            }
        }
        *config_vec_push(out) = mem_dup(item.ptr, (size_t) keep);
        if (!*p) {
            break;
        }
        p++;
    }
    str_kill(&item);
}

void config_strings_free(config_vec_t<char *> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i]);
    }
    config_vec_release(v);
}

static bool _list_needs_quotes(const char *item, bool only) {
    size_t n = strlen(item);
    if (n == 0) {
        return only;
    }
    if (_list_blank(item[0]) || _list_blank(item[n - 1])) {
        return true;
    }
    for (size_t i = 0; i < n; i++) {
        unsigned char c = (unsigned char) item[i];
        if (c == ',' || c == ';' || c == '"' || c < 0x20) {
            return true;
        }
    }
    return false;
}

void config_list_cat_item(str_t *out, const char *item, bool first, bool only) {
    if (!first) {
        str_cat_char(out, ',');
    }
    if (!_list_needs_quotes(item, only)) {
        str_cat_z(out, item);
        return;
    }
    static const char from[] = "\"\\\a\b\f\n\r\t\v";
    static const char to[] = "\"\\abfnrtv";
    str_cat_char(out, '"');
    for (const char *p = item; *p; p++) {
        const char *hit = strchr(from, *p);
        if (hit) {
            str_cat_char(out, '\\');
            str_cat_char(out, to[hit - from]);
        } else {
            str_cat_char(out, *p);
        }
    }
    str_cat_char(out, '"');
}

// ---- entry lists: free and copy --------------------------------------------------------------------------

void config_volumes_free(config_vec_t<config_volume_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].guid);
        mem_free(v->items[i].path);
        mem_free(v->items[i].root);
        mem_free(v->items[i].include_only);
    }
    config_vec_release(v);
}

void config_filelists_free(config_vec_t<config_filelist_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].filename);
    }
    config_vec_release(v);
}

void config_folders_free(config_vec_t<config_folder_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].path);
    }
    config_vec_release(v);
}

void config_connects_free(config_vec_t<config_connect_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].host);
        mem_free(v->items[i].username);
    }
    config_vec_release(v);
}

void config_rewrites_free(config_vec_t<config_rewrite_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].pattern);
        mem_free(v->items[i].substitution);
    }
    config_vec_release(v);
}

void config_volumes_copy(config_vec_t<config_volume_t> *to, const config_vec_t<config_volume_t> *from) {
    for (int i = 0; i < from->count; i++) {
        config_volume_t *e = config_vec_push(to);
        *e = from->items[i];
        e->guid = config_dup(e->guid);
        e->path = config_dup(e->path);
        e->root = config_dup(e->root);
        e->include_only = config_dup(e->include_only);
    }
}

void config_filelists_copy(config_vec_t<config_filelist_t> *to, const config_vec_t<config_filelist_t> *from) {
    for (int i = 0; i < from->count; i++) {
        config_filelist_t *e = config_vec_push(to);
        *e = from->items[i];
        e->filename = config_dup(e->filename);
    }
}

void config_folders_copy(config_vec_t<config_folder_t> *to, const config_vec_t<config_folder_t> *from) {
    for (int i = 0; i < from->count; i++) {
        config_folder_t *e = config_vec_push(to);
        *e = from->items[i];
        e->path = config_dup(e->path);
    }
}

void config_strings_copy(config_vec_t<char *> *to, const config_vec_t<char *> *from) {
    for (int i = 0; i < from->count; i++) {
        *config_vec_push(to) = config_dup(from->items[i]);
    }
}

// ---- reading the groups ----------------------------------------------------------------------------------

// One parsed list of a group; absent keys give no items, so every position takes its default.
struct _list_t {
    config_vec_t<char *> items;
};

static void _list_get(const ini_t *ini, const char *key, _list_t *l) {
    l->items = {};
    const char *v = ini_get(ini, key, nullptr);
    if (v) {
        config_list_parse(v, &l->items);
    }
}

static const char *_list_text(const _list_t *l, int i) {
    return i < l->items.count ? l->items.items[i] : "";
}

static int32_t _list_number(const _list_t *l, int i, int32_t missing) {
    return i < l->items.count ? config_parse_number(l->items.items[i]) : missing;
}

static void _lists_free(_list_t *lists, int n) {
    for (int i = 0; i < n; i++) {
        config_strings_free(&lists[i].items);
    }
}

// The seven volume lists share their suffixes between the NTFS and the ReFS group.
static const char *const _volume_suffix[7] = {
    "guids", "paths", "roots", "includes", "load_recent_changes", "include_onlys", "monitors",
};

static void _volumes_load(const ini_t *ini, const char *fs, config_vec_t<config_volume_t> *out) {
    _list_t l[7];
    str_t key;
    str_init(&key);
    for (int i = 0; i < 7; i++) {
        str_printf(&key, "%s_volume_%s", fs, _volume_suffix[i]);
        _list_get(ini, key.ptr, &l[i]);
    }
    str_printf(&key, "%s_volume_guids", fs);
    bool named = ini_get(ini, key.ptr, nullptr) != nullptr;
    str_printf(&key, "%s_volume_paths", fs);
    named = named || ini_get(ini, key.ptr, nullptr) != nullptr;
    str_kill(&key);
    if (named) {
        // An entry may lack its guid and be found by its path, so either list can be the longer.
        int n = l[0].items.count > l[1].items.count ? l[0].items.count : l[1].items.count;
        config_volumes_free(out);
        for (int i = 0; i < n; i++) {
            config_volume_t *e = config_vec_push(out);
            e->guid = config_dup(_list_text(&l[0], i));
            e->path = config_dup(_list_text(&l[1], i));
            e->root = config_dup(_list_text(&l[2], i));
            e->include = _list_number(&l[3], i, 1);
            e->load_recent_changes = _list_number(&l[4], i, 0);
            e->include_only = config_dup(_list_text(&l[5], i));
            e->monitor = _list_number(&l[6], i, 1);
        }
    }
    _lists_free(l, 7);
}

static void _filelists_load(const ini_t *ini) {
    _list_t l[2];
    _list_get(ini, "filelists", &l[0]);
    _list_get(ini, "filelist_monitor_changes", &l[1]);
    if (ini_get(ini, "filelists", nullptr)) {
        config_filelists_free(&config_filelists);
        for (int i = 0; i < l[0].items.count; i++) {
            config_filelist_t *e = config_vec_push(&config_filelists);
            e->filename = config_dup(_list_text(&l[0], i));
            e->monitor = _list_number(&l[1], i, 1);
        }
    }
    _lists_free(l, 2);
}

static const char *const _folder_keys[9] = {
    "folders",
    "folder_monitor_changes",
    "folder_buffer_size_list",
    "folder_rescan_if_full_list",
    "folder_update_types",
    "folder_update_days",
    "folder_update_ats",
    "folder_update_intervals",
    "folder_update_interval_types",
};

static void _folders_load(const ini_t *ini) {
    _list_t l[9];
    for (int i = 0; i < 9; i++) {
        _list_get(ini, _folder_keys[i], &l[i]);
    }
    if (ini_get(ini, "folders", nullptr)) {
        config_folders_free(&config_folders);
        for (int i = 0; i < l[0].items.count; i++) {
            config_folder_t *e = config_vec_push(&config_folders);
            e->path = config_dup(_list_text(&l[0], i));
            e->monitor = _list_number(&l[1], i, 1);
            e->buffer_size = _list_number(&l[2], i, 65536);
            e->rescan_if_full = _list_number(&l[3], i, 0);
            e->update_type = _list_number(&l[4], i, 2);
            e->update_day = _list_number(&l[5], i, 0);
            e->update_at = _list_number(&l[6], i, 3);
            e->update_interval = _list_number(&l[7], i, 6);
            e->update_interval_type = _list_number(&l[8], i, 1);
        }
    }
    _lists_free(l, 9);
}

static void _connects_load(const ini_t *ini) {
    _list_t l[4];
    _list_get(ini, "connect_history_hosts", &l[0]);
    _list_get(ini, "connect_history_ports", &l[1]);
    _list_get(ini, "connect_history_usernames", &l[2]);
    _list_get(ini, "connect_history_link_types", &l[3]);
    if (ini_get(ini, "connect_history_hosts", nullptr)) {
        config_connects_free(&config_connect_history);
        for (int i = 0; i < l[0].items.count; i++) {
            config_connect_t *e = config_vec_push(&config_connect_history);
            e->host = config_dup(_list_text(&l[0], i));
            e->port = _list_number(&l[1], i, 21);
            e->username = config_dup(_list_text(&l[2], i));
            e->link_type = _list_number(&l[3], i, 1);
        }
    }
    _lists_free(l, 4);
}

static void _rewrites_load(const ini_t *ini) {
    _list_t l[2];
    _list_get(ini, "stp_client_rewrite_patterns", &l[0]);
    _list_get(ini, "stp_client_rewrite_substitutions", &l[1]);
    if (ini_get(ini, "stp_client_rewrite_patterns", nullptr)) {
        config_rewrites_free(&config_stp_client_rewrites);
        for (int i = 0; i < l[0].items.count; i++) {
            config_rewrite_t *e = config_vec_push(&config_stp_client_rewrites);
            e->pattern = config_dup(_list_text(&l[0], i));
            e->substitution = config_dup(_list_text(&l[1], i));
        }
    }
    _lists_free(l, 2);
}

// A new exclude_folders value adds its items: a file loaded on top of another extends the excludes
// instead of replacing them. An item already in the list is not added twice.
static void _excludes_load(const ini_t *ini) {
    _list_t l;
    _list_get(ini, "exclude_folders", &l);
    for (int i = 0; i < l.items.count; i++) {
        bool known = false;
        for (int j = 0; j < config_exclude_folders.count && !known; j++) {
            known = strcmp(config_exclude_folders.items[j], l.items.items[i]) == 0;
        }
        if (!known) {
            *config_vec_push(&config_exclude_folders) = l.items.items[i];
            l.items.items[i] = nullptr;
        }
    }
    _lists_free(&l, 1);
}

void config_lists_load(const ini_t *ini) {
    _volumes_load(ini, "ntfs", &config_ntfs_volumes);
    _volumes_load(ini, "refs", &config_refs_volumes);
    _excludes_load(ini);
    _filelists_load(ini);
    _folders_load(ini);
    _connects_load(ini);
    _rewrites_load(ini);
}

// ---- writing the groups ----------------------------------------------------------------------------------

// Writes "<key>=" and one item per entry, got by a small accessor. Texts are cut at their first line feed
// by the quoting, which escapes it, so nothing is lost.
template <typename T, typename F>
static void _list_write(str_t *out, const char *key, const config_vec_t<T> *v, F item) {
    str_t number;
    str_init(&number);
    str_cat_z(out, key);
    str_cat_char(out, '=');
    for (int i = 0; i < v->count; i++) {
        config_list_cat_item(out, item(&v->items[i], &number), i == 0, v->count == 1);
    }
    str_cat(out, "\r\n", 2);
    str_kill(&number);
}

static const char *_num(str_t *s, int32_t v) {
    str_printf(s, "%d", v);
    return s->ptr;
}

static void _volumes_write(str_t *out, const char *fs, const config_vec_t<config_volume_t> *v) {
    str_t key;
    str_init(&key);
    for (int k = 0; k < 7; k++) {
        str_printf(&key, "%s_volume_%s", fs, _volume_suffix[k]);
        _list_write(out, key.ptr, v, [k](const config_volume_t *e, str_t *n) -> const char * {
            switch (k) {
            case 0:
                return e->guid;
            case 1:
                return e->path;
            case 2:
                return e->root;
            case 3:
                return _num(n, e->include);
            case 4:
                return _num(n, e->load_recent_changes);
            case 5:
                return e->include_only;
            default:
                return _num(n, e->monitor);
            }
        });
    }
    str_kill(&key);
}

static void _folders_write(str_t *out) {
    for (int k = 0; k < 9; k++) {
        _list_write(out, _folder_keys[k], &config_folders, [k](const config_folder_t *e, str_t *n) {
            const int32_t values[9] = {0,
                                       e->monitor,
                                       e->buffer_size,
                                       e->rescan_if_full,
                                       e->update_type,
                                       e->update_day,
                                       e->update_at,
                                       e->update_interval,
                                       e->update_interval_type};
            return k == 0 ? (const char *) e->path : _num(n, values[k]);
        });
    }
}

void config_lists_write(str_t *out) {
    _volumes_write(out, "ntfs", &config_ntfs_volumes);
    _volumes_write(out, "refs", &config_refs_volumes);
    _list_write(out, "exclude_folders", &config_exclude_folders, [](char *const *e, str_t *) { return *e; });
    _list_write(out, "filelists", &config_filelists,
                [](const config_filelist_t *e, str_t *) { return (const char *) e->filename; });
    _list_write(out, "filelist_monitor_changes", &config_filelists,
                [](const config_filelist_t *e, str_t *n) { return _num(n, e->monitor); });
    _folders_write(out);
    _list_write(out, "connect_history_hosts", &config_connect_history,
                [](const config_connect_t *e, str_t *) { return (const char *) e->host; });
    _list_write(out, "connect_history_ports", &config_connect_history,
                [](const config_connect_t *e, str_t *n) { return _num(n, e->port); });
    _list_write(out, "connect_history_usernames", &config_connect_history,
                [](const config_connect_t *e, str_t *) { return (const char *) e->username; });
    _list_write(out, "connect_history_link_types", &config_connect_history,
                [](const config_connect_t *e, str_t *n) { return _num(n, e->link_type); });
    _list_write(out, "stp_client_rewrite_patterns", &config_stp_client_rewrites,
                [](const config_rewrite_t *e, str_t *) { return (const char *) e->pattern; });
    _list_write(out, "stp_client_rewrite_substitutions", &config_stp_client_rewrites,
                [](const config_rewrite_t *e, str_t *) { return (const char *) e->substitution; });
}
