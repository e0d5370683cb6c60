// Standard streams and the process's own figures on Windows.
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <cstring>

#include <psapi.h>

static HANDLE _os_std_handle(int stream) {
    return GetStdHandle(stream == OS_STDERR ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
}

bool os_std_write(int stream, const void *data, size_t n) {
    HANDLE h = _os_std_handle(stream);
    if (h == INVALID_HANDLE_VALUE || h == nullptr)
        return false;
    const char *p = (const char *) data;
    while (n > 0) {
        DWORD chunk = n > 0x40000000u ? 0x40000000u : (DWORD) n;
        DWORD done = 0;
        if (!WriteFile(h, p, chunk, &done, nullptr) || done == 0)
            return false;
        p += done;
        n -= done;
    }
    return true;
}

bool os_std_is_terminal(int stream) {
    DWORD mode;
    return GetConsoleMode(_os_std_handle(stream), &mode) != 0;
}

uint64_t os_peak_memory() {
    PROCESS_MEMORY_COUNTERS pmc;
    memset(&pmc, 0, sizeof pmc);
    pmc.cb = sizeof pmc;
    if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &pmc, sizeof pmc))
        return 0;
    return (uint64_t) pmc.PeakWorkingSetSize;
}

uint32_t os_fixed_drives() {
    DWORD present = GetLogicalDrives();
    uint32_t fixed = 0;
    for (int i = 0; i < 26; i++) {
        if (!(present & (1u << i)))
            continue;
        wchar_t root[4] = {(wchar_t) (L'A' + i), L':', L'\\', 0};
        if (GetDriveTypeW(root) == DRIVE_FIXED)
            fixed |= 1u << i;
    }
    return fixed;
}
