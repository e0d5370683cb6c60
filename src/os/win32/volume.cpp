// Volumes on Windows: a volume device ("\\.\C:") opened with CreateFileW, its sector size and NTFS
// records asked of the driver with DeviceIoControl. Wine, and a plain image file, answer several of these
// calls with "invalid function" or "invalid parameter"; those answers take the documented fallbacks.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <winioctl.h>

static bool _is_device_path(const wchar_t *p) {
    return wcsncmp(p, L"\\\\.\\", 4) == 0 || _wcsnicmp(p, L"\\\\?\\volume{", 11) == 0;
}

os_file_t os_open_volume(const char *path, int access, bool overlapped) {
    // A bare drive ("C:" or "C:\\") names the drive's current folder to CreateFileW; its volume is
    // "\\.\C:".
    char drive[] = "\\\\.\\C:";
    size_t plen = strlen(path);
    if ((plen == 2 || (plen == 3 && (path[2] == '\\' || path[2] == '/'))) && path[1] == ':') {
        drive[4] = path[0];
        path = drive;
    }
    os_wide_t w;
    os_wide_init(&w, path);
    size_t n = wcslen(w.ptr);
    if (n > 1 && (w.ptr[n - 1] == L'\\' || w.ptr[n - 1] == L'/'))
        w.ptr[--n] = 0;
    debug_printf("open volume %S\n", (const uint16_t *) w.ptr);
    DWORD rights = GENERIC_READ | ((access & OS_VOLUME_WRITE) ? GENERIC_WRITE : 0);
    HANDLE h = CreateFileW(w.ptr, rights, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           overlapped ? FILE_FLAG_OVERLAPPED : 0, nullptr);
    if (h != INVALID_HANDLE_VALUE && _is_device_path(w.ptr)) {
        DWORD got = 0;
        if (!DeviceIoControl(h, FSCTL_IS_VOLUME_MOUNTED, nullptr, 0, nullptr, 0, &got, nullptr)) {
            DWORD e = GetLastError();
            if (e != ERROR_INVALID_FUNCTION) {
                debug_printf("volume %s is locked or not mounted.\n", path);
                CloseHandle(h);
                SetLastError(e);
                h = INVALID_HANDLE_VALUE;
            }
        }
    }
    os_wide_kill(&w);
    return h == INVALID_HANDLE_VALUE ? OS_FILE_INVALID : (os_file_t) h;
}

uint32_t os_error_access_denied() {
    return ERROR_ACCESS_DENIED;
}

uint32_t os_volume_sector_size(os_file_t volume) {
    DISK_GEOMETRY g;
    DWORD got = 0;
    if (DeviceIoControl((HANDLE) volume, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &g, sizeof(g), &got,
                        nullptr) &&
        g.BytesPerSector) {
        debug_printf("sector size %d\n", (int) g.BytesPerSector);
        return g.BytesPerSector;
    }
    DWORD e = GetLastError();
    // An image file has no geometry. Windows answers invalid parameter or function; Wine, on a drive
    // mapped to an image, may answer "not supported", which is the same absence.
    if (e == ERROR_INVALID_PARAMETER || e == ERROR_INVALID_FUNCTION || e == ERROR_NOT_SUPPORTED) {
        debug_printf("sector size %d\n", 512);
        return 512;
    }
    debug_printf("failed to read drive geometry %u\n", (unsigned) e);
    return 0;
}

bool os_volume_ntfs_file_record(os_file_t volume, uint64_t frn, void *out, uint32_t *size,
                                uint64_t *got_frn) {
    NTFS_FILE_RECORD_INPUT_BUFFER in;
    in.FileReferenceNumber.QuadPart = (LONGLONG) (frn & 0xFFFFFFFFFFFFull);
    size_t want = offsetof(NTFS_FILE_RECORD_OUTPUT_BUFFER, FileRecordBuffer) + *size;
    NTFS_FILE_RECORD_OUTPUT_BUFFER *o = (NTFS_FILE_RECORD_OUTPUT_BUFFER *) mem_alloc(want);
    DWORD got = 0;
    bool ok = DeviceIoControl((HANDLE) volume, FSCTL_GET_NTFS_FILE_RECORD, &in, sizeof(in), o, (DWORD) want,
                              &got, nullptr) != 0;
    if (ok) {
        *got_frn = (uint64_t) o->FileReferenceNumber.QuadPart;
        uint32_t n = o->FileRecordLength < *size ? o->FileRecordLength : *size;
        memcpy(out, o->FileRecordBuffer, n);
        *size = n;
    }
    DWORD e = GetLastError();
    mem_free(o);
    if (!ok)
        SetLastError(e);
    return ok;
}

bool os_volume_label(const char *root, str_t *out) {
    str_set(out, "");
    // The call wants the root with its trailing backslash.
    str_t path;
    str_init(&path);
    str_set(&path, root);
    if (path.len == 0 || (path.ptr[path.len - 1] != '\\' && path.ptr[path.len - 1] != '/')) {
        str_cat_char(&path, '\\');
    }
    os_wide_t w;
    os_wide_init(&w, path.ptr);
    str_kill(&path);
    wchar_t label[MAX_PATH + 1];
    BOOL ok = GetVolumeInformationW(w.ptr, label, MAX_PATH + 1, nullptr, nullptr, nullptr, nullptr, 0);
    os_wide_kill(&w);
    if (!ok || !label[0]) {
        return false;
    }
    os_utf8_from_wide(out, label, -1);
    return true;
}
