// Folder enumeration on Windows: FindFirstFileExW with the basic information level (no short names) and
// large fetches, falling back to the plain call where the platform refuses those flags.
#include "mem/mem.h"
#include "os/os_dir.h"
#include "os/win32/wide.h"

#include <string.h>

#ifndef IO_REPARSE_TAG_SYMLINK
#define IO_REPARSE_TAG_SYMLINK 0xA000000CL
#endif
#ifndef IO_REPARSE_TAG_MOUNT_POINT
#define IO_REPARSE_TAG_MOUNT_POINT 0xA0000003L
#endif

// Paths at or above this many units get the "\\?\" form, which lifts the MAX_PATH limit.
#define OS_DIR_LONG_PATH 240

struct os_dir_t {
    HANDLE find;
    bool have_pending; // data holds an entry not yet delivered (the one FindFirstFileExW returned)
    WIN32_FIND_DATAW data;
    str_t name;
};

// The search pattern "<path>\*", in the extended form when the path is long.
static void _os_dir_pattern(str_t *out, const char *path) {
    str_clear(out);
    size_t n = strlen(path);
    bool long_path = n >= OS_DIR_LONG_PATH;
    if (long_path && path[0] == '\\' && path[1] == '\\' && path[2] != '?') {
        str_cat_z(out, "\\\\?\\UNC");
        str_cat(out, path + 1, (int) n - 1);
    } else if (long_path && path[1] == ':') {
        str_cat_z(out, "\\\\?\\");
        str_cat(out, path, (int) n);
    } else {
        str_cat(out, path, (int) n);
    }
    if (long_path) {
        // The extended form is passed to the file system untouched, so it must use backslashes only.
        for (int i = 0; i < out->len; i++) {
            if (out->ptr[i] == '/') {
                out->ptr[i] = '\\';
            }
        }
    }
    if (out->len == 0 || (out->ptr[out->len - 1] != '\\' && out->ptr[out->len - 1] != '/')) {
        str_cat_char(out, '\\');
    }
    str_cat_char(out, '*');
}

os_dir_t *os_dir_open(const char *path) {
    str_t pattern;
    str_init(&pattern);
    _os_dir_pattern(&pattern, path);
    os_wide_t w;
    os_wide_init(&w, pattern.ptr, pattern.len);
    str_kill(&pattern);
    os_dir_t *d = (os_dir_t *) mem_alloc(sizeof(os_dir_t));
    d->find = FindFirstFileExW(w.ptr, FindExInfoBasic, &d->data, FindExSearchNameMatch, nullptr,
                               FIND_FIRST_EX_LARGE_FETCH);
    if (d->find == INVALID_HANDLE_VALUE && GetLastError() == ERROR_INVALID_PARAMETER) {
        d->find = FindFirstFileW(w.ptr, &d->data);
    }
    os_wide_kill(&w);
    if (d->find == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        mem_free(d);
        SetLastError(error);
        return nullptr;
    }
    d->have_pending = true;
    str_init(&d->name);
    return d;
}

void os_dir_close(os_dir_t *dir) {
    if (!dir) {
        return;
    }
    FindClose(dir->find);
    str_kill(&dir->name);
    mem_free(dir);
}

static uint64_t _os_dir_filetime(const FILETIME *ft) {
    return ((uint64_t) ft->dwHighDateTime << 32) | ft->dwLowDateTime;
}

bool os_dir_next(os_dir_t *dir, os_dir_entry_t *entry) {
    for (;;) {
        if (!dir->have_pending && !FindNextFileW(dir->find, &dir->data)) {
            return false;
        }
        dir->have_pending = false;
        const WIN32_FIND_DATAW *f = &dir->data;
        const wchar_t *n = f->cFileName;
        if (n[0] == L'.' && (n[1] == 0 || (n[1] == L'.' && n[2] == 0))) {
            continue;
        }
        os_utf8_from_wide(&dir->name, n);
        entry->name = dir->name.ptr;
        entry->name_len = (uint32_t) dir->name.len;
        uint32_t a = f->dwFileAttributes;
        bool reparse = (a & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
        entry->is_link = reparse && (f->dwReserved0 == (DWORD) IO_REPARSE_TAG_SYMLINK ||
                                     f->dwReserved0 == (DWORD) IO_REPARSE_TAG_MOUNT_POINT);
        entry->is_folder = (a & FILE_ATTRIBUTE_DIRECTORY) && !entry->is_link;
        entry->info.attributes = a;
        entry->info.size =
            (a & FILE_ATTRIBUTE_DIRECTORY) ? 0 : ((uint64_t) f->nFileSizeHigh << 32) | f->nFileSizeLow;
        entry->info.date_modified = _os_dir_filetime(&f->ftLastWriteTime);
        entry->info.date_created = _os_dir_filetime(&f->ftCreationTime);
        entry->info.date_accessed = _os_dir_filetime(&f->ftLastAccessTime);
        return true;
    }
}

os_file_t os_file_open_sequential(const char *path) {
    os_wide_t w;
    os_wide_init(&w, path);
    HANDLE h = CreateFileW(w.ptr, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    os_wide_kill(&w);
    return (os_file_t) h;
}
