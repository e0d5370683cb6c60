// Known folders on Linux: the shell's names mapped onto the XDG user folders and base folders (the table
// is in os_shell.h).
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_shell.h"
#include "os/posix/user_dirs.h"

#include <pthread.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

enum _kind_t {
    K_USER_DIR,    // an XDG user folder: key and default below $HOME
    K_HOME,        // $HOME
    K_HOME_PARENT, // the folder holding $HOME
    K_CONFIG,      // $XDG_CONFIG_HOME, with a sub-folder
    K_DATA,        // $XDG_DATA_HOME, with a sub-folder
    K_CACHE,       // $XDG_CACHE_HOME
    K_FIXED,       // a fixed system folder
    K_TEMP,        // the temporary folder
    K_PICTURES_SUB // a sub-folder of the pictures folder
};

struct _known_t {
    const char *names[4];
    _kind_t kind;
    const char *arg; // the XDG key, the sub-folder or the fixed path
    const char *def; // the default below $HOME of a user folder
};

static const _known_t _known[] = {
    {{"Desktop"}, K_USER_DIR, "DESKTOP", "Desktop"},
    {{"Personal", "Documents", "My Documents"}, K_USER_DIR, "DOCUMENTS", "Documents"},
    {{"Downloads"}, K_USER_DIR, "DOWNLOAD", "Downloads"},
    {{"My Music", "Music"}, K_USER_DIR, "MUSIC", "Music"},
    {{"My Pictures", "Pictures"}, K_USER_DIR, "PICTURES", "Pictures"},
    {{"My Video", "Videos", "Video"}, K_USER_DIR, "VIDEOS", "Videos"},
    {{"Templates"}, K_USER_DIR, "TEMPLATES", "Templates"},
    {{"Public"}, K_USER_DIR, "PUBLICSHARE", "Public"},
    {{"Screenshots"}, K_PICTURES_SUB, "Screenshots", nullptr},
    {{"Profile", "UsersFilesFolder"}, K_HOME, nullptr, nullptr},
    {{"UserProfiles"}, K_HOME_PARENT, nullptr, nullptr},
    {{"AppData", "Roaming AppData"}, K_CONFIG, nullptr, nullptr},
    {{"Local AppData", "LocalAppData"}, K_DATA, nullptr, nullptr},
    {{"Cache"}, K_CACHE, nullptr, nullptr},
    {{"Programs"}, K_DATA, "applications", nullptr},
    {{"Common Programs"}, K_FIXED, "/usr/share/applications", nullptr},
    {{"Startup"}, K_CONFIG, "autostart", nullptr},
    {{"Common Startup"}, K_FIXED, "/etc/xdg/autostart", nullptr},
    {{"Fonts"}, K_FIXED, "/usr/share/fonts", nullptr},
    {{"RecycleBinFolder", "Trash"}, K_DATA, "Trash/files", nullptr},
    {{"Temp"}, K_TEMP, nullptr, nullptr},
};

static void _strip_trailing(str_t *s) {
    while (s->len > 1 && s->ptr[s->len - 1] == '/') {
        s->ptr[--s->len] = 0;
    }
}

static void _home(str_t *out) {
    const char *home = getenv("HOME");
    if (home && home[0] == '/') {
        str_set(out, home);
    } else {
        struct passwd pw;
        struct passwd *found = nullptr;
        char buf[4096];
        bool ok = getpwuid_r(geteuid(), &pw, buf, sizeof(buf), &found) == 0 && found && found->pw_dir;
        str_set(out, ok ? found->pw_dir : "/");
    }
    _strip_trailing(out);
}

// An XDG base folder: the variable when it holds an absolute path, else the default below $HOME.
static void _base(str_t *out, const char *variable, const char *below_home) {
    const char *v = getenv(variable);
    if (v && v[0] == '/') {
        str_set(out, v);
        _strip_trailing(out);
        return;
    }
    _home(out);
    str_path_cat(out, out->ptr, out->len, below_home, (int) strlen(below_home));
}

// ---- user-dirs.dirs ------------------------------------------------------------------------------------

// One value of the file: "$HOME/..." or "/..." in quotes (or bare to the end of the line), with backslash
// escapes. False for any other form.
static bool _value(const char *p, const char *end, str_t *out) {
    str_t raw;
    str_init(&raw);
    if (p < end && *p == '"') {
        for (p++; p < end && *p != '"'; p++) {
            if (*p == '\\' && p + 1 < end) {
                p++;
            }
            str_cat_char(&raw, *p);
        }
    } else {
        while (end > p && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r')) {
            end--;
        }
        str_cat(&raw, p, (int) (end - p));
    }
    bool ok = true;
    if (strncmp(raw.ptr, "$HOME", 5) == 0 && (raw.ptr[5] == 0 || raw.ptr[5] == '/')) {
        _home(out);
        if (raw.ptr[5] == '/' && raw.ptr[6]) {
            str_path_cat(out, out->ptr, out->len, raw.ptr + 6, raw.len - 6);
        }
    } else if (raw.ptr[0] == '/') {
        str_set_n(out, raw.ptr, raw.len);
    } else {
        ok = false;
    }
    str_kill(&raw);
    if (ok) {
        _strip_trailing(out);
    }
    return ok;
}

bool os_user_dirs_find(const char *text, size_t len, const char *key, str_t *out) {
    str_t name;
    str_init(&name);
    str_printf(&name, "XDG_%s_DIR", key);
    bool found = false;
    const char *p = text, *stop = text + len;
    while (p < stop) {
        const char *eol = (const char *) memchr(p, '\n', (size_t) (stop - p));
        const char *line_end = eol ? eol : stop;
        const char *q = p;
        while (q < line_end && (*q == ' ' || *q == '\t')) {
            q++;
        }
        size_t n = (size_t) name.len;
        if (q < line_end && *q != '#' && (size_t) (line_end - q) > n && memcmp(q, name.ptr, n) == 0 &&
            q[n] == '=') {
            found |= _value(q + n + 1, line_end, out);
        }
        p = line_end + 1;
    }
    str_kill(&name);
    return found;
}

static void _user_dir(str_t *out, const char *key, const char *def) {
    str_t path, text;
    str_init(&path);
    str_init(&text);
    _base(&path, "XDG_CONFIG_HOME", ".config");
    str_path_cat(&path, path.ptr, path.len, "user-dirs.dirs", 14);
    os_file_t f = os_file_open(path.ptr, OS_OPEN_READ);
    bool found = false;
    if (f != OS_FILE_INVALID) {
        char buf[4096];
        int64_t n;
        // The file is a few hundred bytes; a runaway one is read no further than 1 MB.
        while (text.len < (1 << 20) && (n = os_file_read(f, buf, sizeof buf)) > 0) {
            str_cat(&text, buf, (int) n);
        }
        os_file_close(f);
        found = os_user_dirs_find(text.ptr, (size_t) text.len, key, out);
    }
    if (!found) {
        _home(out);
        str_path_cat(out, out->ptr, out->len, def, (int) strlen(def));
    }
    str_kill(&path);
    str_kill(&text);
}

// ---- names ---------------------------------------------------------------------------------------------

static bool _same_name(const char *a, size_t n, const char *b) {
    if (strlen(b) != n) {
        return false;
    }
    return strncasecmp(a, b, n) == 0;
}

static const _known_t *_lookup(const char *name) {
    if (strncasecmp(name, "shell:", 6) == 0) {
        name += 6;
    }
    size_t n = strlen(name);
    while (n > 0 && (name[n - 1] == '/' || name[n - 1] == '\\')) {
        n--;
    }
    for (const _known_t &k : _known) {
        for (const char *alias : k.names) {
            if (alias && _same_name(name, n, alias)) {
                return &k;
            }
        }
    }
    return nullptr;
}

static void _sub(str_t *out, const char *sub) {
    if (sub) {
        str_path_cat(out, out->ptr, out->len, sub, (int) strlen(sub));
    }
}

bool os_known_folder(const char *name, str_t *out) {
    str_set(out, "");
    const _known_t *k = name ? _lookup(name) : nullptr;
    if (!k) {
        return false;
    }
    switch (k->kind) {
    case K_USER_DIR:
        _user_dir(out, k->arg, k->def);
        break;
    case K_HOME:
        _home(out);
        break;
    case K_HOME_PARENT: {
        _home(out);
        char *slash = strrchr(out->ptr, '/');
        int keep = slash && slash != out->ptr ? (int) (slash - out->ptr) : 1;
        out->len = keep < out->len ? keep : out->len;
        out->ptr[out->len] = 0;
        break;
    }
    case K_CONFIG:
        _base(out, "XDG_CONFIG_HOME", ".config");
        _sub(out, k->arg);
        break;
    case K_DATA:
        _base(out, "XDG_DATA_HOME", ".local/share");
        _sub(out, k->arg);
        break;
    case K_CACHE:
        _base(out, "XDG_CACHE_HOME", ".cache");
        break;
    case K_FIXED:
        str_set(out, k->arg);
        break;
    case K_TEMP:
        os_temp_folder(out);
        break;
    case K_PICTURES_SUB:
        _user_dir(out, "PICTURES", "Pictures");
        _sub(out, k->arg);
        break;
    }
    return out->len > 0;
}

int os_volume_file_by_id(const char *, uint64_t, uint64_t, uint64_t *parent_low, uint64_t *parent_high,
                         str_t *name) {
    *parent_low = *parent_high = 0;
    str_set(name, "");
    return -1;
}

bool os_shell_type_text(const char *, bool, str_t *out) {
    str_set(out, "");
    return false;
}

// ---- media types ---------------------------------------------------------------------------------------

// /etc/mime.types: each line "type ext ext ...", '#' starting a comment. Read once into a table of
// (extension, type) sorted by extension; among equal extensions the file's order stays, so that the first
// type listed for one is the one found.
struct _mime_entry_t {
    char *ext;
    const char *type;
    size_t order;
};
static pthread_once_t _mime_once = PTHREAD_ONCE_INIT;
static _mime_entry_t *_mime;
static size_t _mime_count;

static int _mime_compare(const void *a, const void *b) {
    const _mime_entry_t *x = (const _mime_entry_t *) a, *y = (const _mime_entry_t *) b;
    int c = strcasecmp(x->ext, y->ext);
    return c ? c : (x->order < y->order ? -1 : x->order > y->order);
}

static void _mime_add(const char *type, const char *ext, size_t *cap) {
    if (_mime_count == *cap) {
        *cap = *cap ? *cap * 2 : 1024;
        _mime = (_mime_entry_t *) mem_realloc(_mime, *cap * sizeof *_mime);
    }
    _mime[_mime_count] = {mem_dup(ext, strlen(ext)), type, _mime_count};
    _mime_count++;
}

static void _mime_load() {
    FILE *f = fopen("/etc/mime.types", "re");
    if (!f) {
        return;
    }
    size_t cap = 0;
    char *line = nullptr;
    size_t line_cap = 0;
    while (getline(&line, &line_cap, f) > 0) {
        char *hash = strchr(line, '#');
        if (hash) {
            *hash = 0;
        }
        char *save = nullptr, *type = strtok_r(line, " \t\r\n", &save);
        char *word = type ? strtok_r(nullptr, " \t\r\n", &save) : nullptr;
        // The type is kept once for all its extensions, and only when it has one.
        const char *kept = word ? mem_dup(type, strlen(type)) : nullptr;
        for (; word; word = strtok_r(nullptr, " \t\r\n", &save)) {
            _mime_add(kept, word, &cap);
        }
    }
    free(line);
    fclose(f);
    if (_mime_count) {
        qsort(_mime, _mime_count, sizeof *_mime, _mime_compare);
    }
}

bool os_shell_content_type(const char *extension, str_t *out) {
    str_set(out, "");
    pthread_once(&_mime_once, _mime_load);
    if (!extension || !*extension || !_mime_count) {
        return false;
    }
    // The first entry of the extension: a lower bound over the sorted table.
    size_t lo = 0, hi = _mime_count;
    while (lo < hi) {
        size_t mid = lo + (hi - lo) / 2;
        if (strcasecmp(_mime[mid].ext, extension) < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    if (lo == _mime_count || strcasecmp(_mime[lo].ext, extension) != 0) {
        return false;
    }
    str_set(out, _mime[lo].type);
    return true;
}
