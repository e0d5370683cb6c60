// Files on Windows: handles from CreateFileW, positional access through an OVERLAPPED offset on a
// synchronous handle, and file data read from the directory entry so that asking about a file never
// opens it.
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <winioctl.h>

os_file_t os_file_open(const char *path, int flags) {
    DWORD access = 0;
    if (flags & OS_OPEN_READ) {
        access |= GENERIC_READ;
    }
    if (flags & OS_OPEN_WRITE) {
        // Append-only access makes every write land at the end, whatever the file pointer says.
        access |= (flags & OS_OPEN_APPEND) ? (FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE)
                                           : GENERIC_WRITE;
    }
    DWORD share = (flags & OS_OPEN_SHARE_ALL)    ? FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE
                  : (flags & OS_OPEN_SHARE_READ) ? FILE_SHARE_READ
                                                 : 0;
    DWORD attributes = FILE_ATTRIBUTE_NORMAL | ((flags & OS_OPEN_SEQUENTIAL) ? FILE_FLAG_SEQUENTIAL_SCAN : 0);
    DWORD disposition = OPEN_EXISTING;
    if ((flags & OS_OPEN_CREATE) && (flags & OS_OPEN_TRUNCATE)) {
        disposition = CREATE_ALWAYS;
    } else if (flags & OS_OPEN_CREATE) {
        disposition = OPEN_ALWAYS;
    } else if (flags & OS_OPEN_TRUNCATE) {
        disposition = TRUNCATE_EXISTING;
    }
    os_wide_t w;
    os_wide_init(&w, path);
    HANDLE h = CreateFileW(w.ptr, access, share, nullptr, disposition, attributes, nullptr);
    os_wide_kill(&w);
    return (os_file_t) h;
}

void os_file_close(os_file_t f) {
    if (f != OS_FILE_INVALID) {
        CloseHandle((HANDLE) f);
    }
}

// ReadFile and WriteFile take 32-bit counts: larger requests go in pieces of 1 GiB.
#define OS_IO_PIECE (1u << 30)

static int64_t _os_read(HANDLE h, bool positional, uint64_t offset, void *buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        DWORD piece = (DWORD) (n - done > OS_IO_PIECE ? OS_IO_PIECE : n - done);
        DWORD got = 0;
        OVERLAPPED ov = {};
        uint64_t at = offset + done;
        ov.Offset = (DWORD) at;
        ov.OffsetHigh = (DWORD) (at >> 32);
        if (!ReadFile(h, (char *) buf + done, piece, &got, positional ? &ov : nullptr)) {
            // Reading at an offset past the end reports the end as an error.
            if (GetLastError() == ERROR_HANDLE_EOF) {
                break;
            }
            return done ? (int64_t) done : -1;
        }
        if (got == 0) {
            break;
        }
        done += got;
    }
    return (int64_t) done;
}

static int64_t _os_write(HANDLE h, bool positional, uint64_t offset, const void *buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        DWORD piece = (DWORD) (n - done > OS_IO_PIECE ? OS_IO_PIECE : n - done);
        DWORD put = 0;
        OVERLAPPED ov = {};
        uint64_t at = offset + done;
        ov.Offset = (DWORD) at;
        ov.OffsetHigh = (DWORD) (at >> 32);
        if (!WriteFile(h, (const char *) buf + done, piece, &put, positional ? &ov : nullptr) || put == 0) {
            return -1;
        }
        done += put;
    }
    return (int64_t) done;
}

int64_t os_file_read(os_file_t f, void *buf, size_t n) {
    if (os_hooks.file_read) {
        return os_hooks.file_read(f, buf, n);
    }
    return _os_read((HANDLE) f, false, 0, buf, n);
}

int64_t os_file_write(os_file_t f, const void *buf, size_t n) {
    return _os_write((HANDLE) f, false, 0, buf, n);
}

int64_t os_file_read_at(os_file_t f, uint64_t offset, void *buf, size_t n) {
    if (os_hooks.file_read_at) {
        return os_hooks.file_read_at(f, offset, buf, n);
    }
    return _os_read((HANDLE) f, true, offset, buf, n);
}

int64_t os_file_write_at(os_file_t f, uint64_t offset, const void *buf, size_t n) {
    return _os_write((HANDLE) f, true, offset, buf, n);
}

bool os_file_seek(os_file_t f, uint64_t offset) {
    LARGE_INTEGER li;
    li.QuadPart = (LONGLONG) offset;
    return SetFilePointerEx((HANDLE) f, li, nullptr, FILE_BEGIN) != 0;
}

uint64_t os_file_size(os_file_t f) {
    LARGE_INTEGER li;
    if (GetFileSizeEx((HANDLE) f, &li)) {
        return (uint64_t) li.QuadPart;
    }
    // A volume handle has no file size; the disk driver knows the length.
    GET_LENGTH_INFORMATION info;
    DWORD got = 0;
    if (DeviceIoControl((HANDLE) f, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &info, sizeof(info), &got,
                        nullptr)) {
        return (uint64_t) info.Length.QuadPart;
    }
    return UINT64_MAX;
}

bool os_file_flush(os_file_t f) {
    return FlushFileBuffers((HANDLE) f) != 0;
}

bool os_file_truncate(os_file_t f, uint64_t size) {
    // SetEndOfFile cuts at the file pointer: move it there and back.
    LARGE_INTEGER zero = {}, old, at;
    if (!SetFilePointerEx((HANDLE) f, zero, &old, FILE_CURRENT)) {
        return false;
    }
    at.QuadPart = (LONGLONG) size;
    bool ok = SetFilePointerEx((HANDLE) f, at, nullptr, FILE_BEGIN) && SetEndOfFile((HANDLE) f);
    SetFilePointerEx((HANDLE) f, old, nullptr, FILE_BEGIN);
    return ok;
}

uint32_t os_last_error() {
    return GetLastError();
}

void os_error_text(uint32_t code, str_t *out) {
    wchar_t buf[512];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                             buf, 512, nullptr);
    // System texts end in a full stop and CR LF, which a log line doesn't want.
    while (n > 0 && (buf[n - 1] == '\r' || buf[n - 1] == '\n' || buf[n - 1] == ' ' || buf[n - 1] == '.')) {
        n--;
    }
    if (n == 0) {
        str_printf(out, "error %u", code);
        return;
    }
    os_utf8_from_wide(out, buf, (int) n);
}

bool os_file_rename_over(const char *from, const char *to) {
    os_wide_t a, b;
    os_wide_init(&a, from);
    os_wide_init(&b, to);
    bool ok = MoveFileExW(a.ptr, b.ptr, MOVEFILE_REPLACE_EXISTING) != 0;
    os_wide_kill(&a);
    os_wide_kill(&b);
    return ok;
}

bool os_file_rename(const char *from, const char *to) {
    os_wide_t a, b;
    os_wide_init(&a, from);
    os_wide_init(&b, to);
    bool ok = MoveFileW(a.ptr, b.ptr) != 0;
    os_wide_kill(&a);
    os_wide_kill(&b);
    return ok;
}

bool os_file_delete(const char *path) {
    os_wide_t w;
    os_wide_init(&w, path);
    bool ok = DeleteFileW(w.ptr) != 0;
    os_wide_kill(&w);
    return ok;
}

bool os_folder_create(const char *path) {
    os_wide_t w;
    os_wide_init(&w, path);
    bool ok = CreateDirectoryW(w.ptr, nullptr) != 0;
    os_wide_kill(&w);
    return ok;
}

bool os_folder_delete(const char *path) {
    os_wide_t w;
    os_wide_init(&w, path);
    bool ok = RemoveDirectoryW(w.ptr) != 0;
    os_wide_kill(&w);
    return ok;
}

static uint64_t _os_ft(FILETIME ft) {
    return ((uint64_t) ft.dwHighDateTime << 32) | ft.dwLowDateTime;
}

// A volume root has no directory entry of its own, so FindFirstFileW can't describe it: "C:", "C:\",
// "\\server\share\", "\\?\Volume{...}\".
static bool _os_path_is_root(const wchar_t *p, int n) {
    while (n > 0 && (p[n - 1] == L'\\' || p[n - 1] == L'/')) {
        n--;
    }
    if (n == 2 && p[1] == L':') {
        return true;
    }
    if (n >= 2 && (p[0] == L'\\' || p[0] == L'/') && (p[1] == L'\\' || p[1] == L'/')) {
        // After the two leading separators: server and share for UNC, or "?" and a volume name.
        int parts = 0;
        for (int i = 2; i < n; i++) {
            if (p[i] == L'\\' || p[i] == L'/') {
                parts++;
            }
        }
        return parts <= 1;
    }
    return false;
}

static void _os_file_info_unknown(os_file_info_t *info) {
    info->size = UINT64_MAX;
    info->date_modified = UINT64_MAX;
    info->date_created = UINT64_MAX;
    info->date_accessed = UINT64_MAX;
    info->attributes = 0;
}

bool os_get_file_info(const char *path, os_file_info_t *info) {
    _os_file_info_unknown(info);
    os_wide_t w;
    os_wide_init(&w, path);
    bool ok = false;
    // Wildcards would turn the lookup into a pattern search and describe some other file.
    if (w.len && !wcspbrk(w.ptr, L"*?")) {
        if (_os_path_is_root(w.ptr, w.len)) {
            WIN32_FILE_ATTRIBUTE_DATA d;
            if (GetFileAttributesExW(w.ptr, GetFileExInfoStandard, &d)) {
                info->size = ((uint64_t) d.nFileSizeHigh << 32) | d.nFileSizeLow;
                info->date_modified = _os_ft(d.ftLastWriteTime);
                info->date_created = _os_ft(d.ftCreationTime);
                info->date_accessed = _os_ft(d.ftLastAccessTime);
                info->attributes = d.dwFileAttributes;
                ok = true;
            }
        } else {
            WIN32_FIND_DATAW d;
            HANDLE h = FindFirstFileW(w.ptr, &d);
            if (h != INVALID_HANDLE_VALUE) {
                FindClose(h);
                info->size = ((uint64_t) d.nFileSizeHigh << 32) | d.nFileSizeLow;
                info->date_modified = _os_ft(d.ftLastWriteTime);
                info->date_created = _os_ft(d.ftCreationTime);
                info->date_accessed = _os_ft(d.ftLastAccessTime);
                info->attributes = d.dwFileAttributes;
                ok = true;
            }
        }
    }
    os_wide_kill(&w);
    if (ok && (info->attributes & OS_ATTR_DIRECTORY)) {
        info->size = UINT64_MAX;
    }
    return ok;
}

bool os_get_target_info(const char *path, os_file_info_t *info) {
    os_file_info_t own;
    if (!os_get_file_info(path, &own)) {
        _os_file_info_unknown(info);
        return false;
    }
    if (!(own.attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
        *info = own;
        return true;
    }
    // A link's directory entry describes the link; opening it without FILE_FLAG_OPEN_REPARSE_POINT
    // reaches the target, which the handle then describes. Attribute access alone needs no sharing.
    _os_file_info_unknown(info);
    os_wide_t w;
    os_wide_init(&w, path);
    HANDLE h =
        CreateFileW(w.ptr, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    os_wide_kill(&w);
    if (h == INVALID_HANDLE_VALUE) {
        return false;
    }
    BY_HANDLE_FILE_INFORMATION d;
    bool ok = GetFileInformationByHandle(h, &d) != 0;
    CloseHandle(h);
    if (ok) {
        info->size = (d.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                         ? UINT64_MAX
                         : ((uint64_t) d.nFileSizeHigh << 32) | d.nFileSizeLow;
        info->date_modified = _os_ft(d.ftLastWriteTime);
        info->date_created = _os_ft(d.ftCreationTime);
        info->date_accessed = _os_ft(d.ftLastAccessTime);
        info->attributes = d.dwFileAttributes;
    }
    return ok;
}

static DWORD _os_attributes_of(const char *path) {
    os_wide_t w;
    os_wide_init(&w, path);
    DWORD a = GetFileAttributesW(w.ptr);
    os_wide_kill(&w);
    return a;
}

bool os_file_exists(const char *path) {
    DWORD a = _os_attributes_of(path);
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool os_folder_exists(const char *path) {
    DWORD a = _os_attributes_of(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool os_file_set_times(os_file_t f, uint64_t created, uint64_t accessed, uint64_t modified) {
    FILETIME c, a, m;
    c.dwLowDateTime = (DWORD) created;
    c.dwHighDateTime = (DWORD) (created >> 32);
    a.dwLowDateTime = (DWORD) accessed;
    a.dwHighDateTime = (DWORD) (accessed >> 32);
    m.dwLowDateTime = (DWORD) modified;
    m.dwHighDateTime = (DWORD) (modified >> 32);
    return SetFileTime((HANDLE) f, created == UINT64_MAX ? nullptr : &c,
                       accessed == UINT64_MAX ? nullptr : &a, modified == UINT64_MAX ? nullptr : &m) != 0;
}

bool os_set_file_attributes(const char *path, uint32_t attributes) {
    os_wide_t w;
    os_wide_init(&w, path);
    bool ok = SetFileAttributesW(w.ptr, attributes) != 0;
    os_wide_kill(&w);
    return ok;
}
