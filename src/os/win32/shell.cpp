// Known folders on Windows: the table of os_shell.h through SHGetKnownFolderPath, and every other name
// through the shell's own parser of "shell:" names; type texts through SHGetFileInfoW.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_shell.h"
#include "os/win32/wide.h"

#include <string.h>

// The known-folder ids are defined here rather than taken from uuid.lib.
#include <initguid.h>
#include <knownfolders.h>
#include <shellapi.h>
#include <shlobj.h>
#include <winioctl.h>

struct _known_t {
    const char *names[4];
    const GUID *id; // null: the temporary folder
};

static const _known_t _known[] = {
    {{"Desktop"}, &FOLDERID_Desktop},
    {{"Personal", "Documents", "My Documents"}, &FOLDERID_Documents},
    {{"Downloads"}, &FOLDERID_Downloads},
    {{"My Music", "Music"}, &FOLDERID_Music},
    {{"My Pictures", "Pictures"}, &FOLDERID_Pictures},
    {{"My Video", "Videos", "Video"}, &FOLDERID_Videos},
    {{"Templates"}, &FOLDERID_Templates},
    {{"Public"}, &FOLDERID_Public},
    {{"Screenshots"}, &FOLDERID_Screenshots},
    {{"Profile", "UsersFilesFolder"}, &FOLDERID_Profile},
    {{"UserProfiles"}, &FOLDERID_UserProfiles},
    {{"AppData", "Roaming AppData"}, &FOLDERID_RoamingAppData},
    {{"Local AppData", "LocalAppData"}, &FOLDERID_LocalAppData},
    {{"Cache"}, &FOLDERID_InternetCache},
    {{"Programs"}, &FOLDERID_Programs},
    {{"Common Programs"}, &FOLDERID_CommonPrograms},
    {{"Startup"}, &FOLDERID_Startup},
    {{"Common Startup"}, &FOLDERID_CommonStartup},
    {{"Fonts"}, &FOLDERID_Fonts},
    {{"RecycleBinFolder", "Trash"}, &FOLDERID_RecycleBinFolder},
    {{"Temp"}, nullptr},
};

static bool _same_name(const char *a, size_t n, const char *b) {
    return strlen(b) == n && _strnicmp(a, b, n) == 0;
}

static void _strip_trailing(str_t *s) {
    // "C:\" keeps its separator: without it "C:" means the current folder of drive C.
    while (s->len > 1 && (s->ptr[s->len - 1] == '\\' || s->ptr[s->len - 1] == '/') &&
           !(s->len == 3 && s->ptr[1] == ':')) {
        s->ptr[--s->len] = 0;
    }
}

static bool _by_id(const GUID *id, str_t *out) {
    wchar_t *path = nullptr;
    // KF_FLAG_DONT_VERIFY: a folder the user deleted still has its place.
    HRESULT hr = SHGetKnownFolderPath(*id, KF_FLAG_DONT_VERIFY, nullptr, &path);
    bool ok = SUCCEEDED(hr) && path && path[0];
    if (ok) {
        os_utf8_from_wide(out, path);
    }
    CoTaskMemFree(path);
    return ok;
}

// The shell's parser knows names outside the table (and the localised ones); only a result that is a
// file-system folder counts.
static bool _by_parser(const char *name, size_t n, str_t *out) {
    str_t text;
    str_init(&text);
    str_set(&text, "shell:");
    str_cat(&text, name, (int) n);
    os_wide_t w;
    os_wide_init(&w, text.ptr, text.len);
    str_kill(&text);
    PIDLIST_ABSOLUTE pidl = nullptr;
    SFGAOF attributes = 0;
    bool ok = false;
    if (SUCCEEDED(SHParseDisplayName(w.ptr, nullptr, &pidl, 0, &attributes)) && pidl) {
        wchar_t path[MAX_PATH + 1];
        // Wine answers a name it doesn't know with a null class id ("::{0000...}"): only a path counts.
        if (SHGetPathFromIDListW(pidl, path) && path[0]) {
            os_utf8_from_wide(out, path);
            ok = os_path_is_absolute(out->ptr);
        }
        CoTaskMemFree(pidl);
    }
    os_wide_kill(&w);
    return ok;
}

bool os_known_folder(const char *name, str_t *out) {
    str_set(out, "");
    if (!name) {
        return false;
    }
    if (_strnicmp(name, "shell:", 6) == 0) {
        name += 6;
    }
    size_t n = strlen(name);
    while (n > 0 && (name[n - 1] == '/' || name[n - 1] == '\\')) {
        n--;
    }
    if (!n) {
        return false;
    }
    bool ok = false;
    bool in_table = false;
    for (const _known_t &k : _known) {
        for (const char *alias : k.names) {
            if (!in_table && alias && _same_name(name, n, alias)) {
                in_table = true;
                if (k.id) {
                    ok = _by_id(k.id, out);
                } else {
                    os_temp_folder(out);
                    ok = out->len > 0;
                }
            }
        }
    }
    if (!in_table) {
        ok = _by_parser(name, n, out);
    }
    if (!ok) {
        str_set(out, "");
        return false;
    }
    _strip_trailing(out);
    return true;
}

// ---- files by reference --------------------------------------------------------------------------------

// The volume's top folder: any handle on the volume serves OpenFileById as its hint, and the top folder
// opens without the rights that the volume itself asks for.
static HANDLE _volume_hint(const char *volume) {
    str_t path;
    str_init(&path);
    str_set(&path, volume);
    if (path.len && path.ptr[path.len - 1] != '\\') {
        str_cat_char(&path, '\\');
    }
    os_wide_t w;
    os_wide_init(&w, path.ptr, path.len);
    str_kill(&path);
    HANDLE h = CreateFileW(w.ptr, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    os_wide_kill(&w);
    return h;
}

// The parent and the name out of a change-journal record of version 2 (64-bit references) or 3 (128-bit).
static bool _usn_record(const uint8_t *rec, DWORD got, uint64_t *parent_low, uint64_t *parent_high,
                        str_t *name) {
    if (got < 8) {
        return false;
    }
    DWORD length;
    WORD major;
    memcpy(&length, rec, 4);
    memcpy(&major, rec + 4, 2);
    size_t parent_at = major == 3 ? 24 : 16, names_at = major == 3 ? 72 : 56;
    if ((major != 2 && major != 3) || length > got || length < names_at + 4) {
        return false;
    }
    WORD name_bytes, name_offset;
    memcpy(parent_low, rec + parent_at, 8);
    if (major == 3) {
        memcpy(parent_high, rec + parent_at + 8, 8);
    }
    memcpy(&name_bytes, rec + names_at, 2);
    memcpy(&name_offset, rec + names_at + 2, 2);
    if ((size_t) name_offset + name_bytes > length) {
        return false;
    }
    wchar_t units[256];
    int n = name_bytes / 2 < 255 ? name_bytes / 2 : 255;
    memcpy(units, rec + name_offset, (size_t) n * 2);
    os_utf8_from_wide(name, units, n);
    return true;
}

int os_volume_file_by_id(const char *volume, uint64_t low, uint64_t high, uint64_t *parent_low,
                         uint64_t *parent_high, str_t *name) {
    *parent_low = *parent_high = 0;
    str_set(name, "");
    HANDLE hint = volume && volume[0] ? _volume_hint(volume) : INVALID_HANDLE_VALUE;
    if (hint == INVALID_HANDLE_VALUE) {
        return -1;
    }
    FILE_ID_DESCRIPTOR id = {};
    id.dwSize = sizeof id;
    if (high) {
        id.Type = ExtendedFileIdType;
        memcpy(id.ExtendedFileId.Identifier, &low, 8);
        memcpy(id.ExtendedFileId.Identifier + 8, &high, 8);
    } else {
        id.Type = FileIdType;
        id.FileId.QuadPart = (LONGLONG) low;
    }
    HANDLE file =
        OpenFileById(hint, &id, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                     nullptr, FILE_FLAG_BACKUP_SEMANTICS);
    CloseHandle(hint);
    if (file == INVALID_HANDLE_VALUE) {
        return 0;
    }
    // Versions 2 and 3 are asked for: ReFS answers only with the 128-bit form.
    struct {
        WORD min_major, max_major;
    } versions = {2, 3};
    alignas(8) uint8_t buf[1024];
    DWORD got = 0;
    BOOL ok = DeviceIoControl(file, FSCTL_READ_FILE_USN_DATA, &versions, sizeof versions, buf, sizeof buf,
                              &got, nullptr);
    CloseHandle(file);
    return ok && _usn_record(buf, got, parent_low, parent_high, name) ? 1 : 0;
}

bool os_shell_type_text(const char *name, bool folder, str_t *out) {
    str_set(out, "");
    os_wide_t w;
    os_wide_init(&w, name ? name : "");
    SHFILEINFOW info;
    memset(&info, 0, sizeof info);
    // By attributes alone, so that the answer is the kind's and no file has to exist.
    DWORD attributes = folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    DWORD_PTR ok =
        SHGetFileInfoW(w.ptr, attributes, &info, sizeof info, SHGFI_USEFILEATTRIBUTES | SHGFI_TYPENAME);
    os_wide_kill(&w);
    if (ok && info.szTypeName[0]) {
        os_utf8_from_wide(out, info.szTypeName, (int) wcslen(info.szTypeName));
    }
    return out->len > 0;
}

bool os_shell_content_type(const char *extension, str_t *out) {
    str_set(out, "");
    if (!extension || !*extension || strlen(extension) > 200) {
        return false;
    }
    str_t key;
    str_init(&key);
    str_printf(&key, ".%s", extension);
    os_wide_t w;
    os_wide_init(&w, key.ptr);
    str_kill(&key);
    wchar_t value[256];
    DWORD size = sizeof value;
    LSTATUS r = RegGetValueW(HKEY_CLASSES_ROOT, w.ptr, L"Content Type", RRF_RT_REG_SZ, nullptr, value, &size);
    os_wide_kill(&w);
    if (r != ERROR_SUCCESS || size < 2 * sizeof(wchar_t)) {
        return false;
    }
    os_utf8_from_wide(out, value, -1);
    return true;
}
