// The process on Windows: start-up, identity, the command line, the fatal message box and ending.
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <cpuid.h>
#include <cstring>

void os_init() {}

void os_kill() {
    os_thread_pool_kill();
}

int os_real_processor_count() {
    DWORD n = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
    if (n == 0) {
        SYSTEM_INFO si;
        GetSystemInfo(&si);
        n = si.dwNumberOfProcessors;
    }
    return n > 0 ? (int) n : 1;
}

bool os_is_admin() {
    HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        return false;
    }
    TOKEN_ELEVATION elevation = {};
    DWORD got = 0;
    bool admin = GetTokenInformation(token, TokenElevation, &elevation, sizeof(elevation), &got) &&
                 elevation.TokenIsElevated != 0;
    CloseHandle(token);
    return admin;
}

void os_platform_name(str_t *out) {
    // GetVersionEx reports what the manifest allows; the kernel's own call tells the truth.
    typedef LONG(WINAPI * rtl_get_version_t)(OSVERSIONINFOW *);
    OSVERSIONINFOW vi = {};
    vi.dwOSVersionInfoSize = sizeof(vi);
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    rtl_get_version_t get =
        ntdll ? (rtl_get_version_t) (void *) GetProcAddress(ntdll, "RtlGetVersion") : nullptr;
    if (!get || get(&vi) != 0) {
        str_set(out, "Windows");
        return;
    }
    str_printf(out, "Windows%s %d.%d", vi.dwPlatformId == VER_PLATFORM_WIN32_NT ? " NT" : "",
               (int) vi.dwMajorVersion, (int) vi.dwMinorVersion);
}

void os_processor_name(str_t *out) {
    unsigned int regs[12];
    unsigned int a, b, c, d;
    if (!__get_cpuid(0x80000000, &a, &b, &c, &d) || a < 0x80000004) {
        str_set(out, "unknown");
        return;
    }
    for (unsigned int i = 0; i < 3; i++) {
        __get_cpuid(0x80000002 + i, &regs[i * 4], &regs[i * 4 + 1], &regs[i * 4 + 2], &regs[i * 4 + 3]);
    }
    char name[49];
    memcpy(name, regs, 48);
    name[48] = 0;
    const char *start = name;
    while (*start == ' ') {
        start++;
    }
    int n = (int) strlen(start);
    while (n > 0 && start[n - 1] == ' ') {
        n--;
    }
    if (n == 0) {
        str_set(out, "unknown");
        return;
    }
    str_set_n(out, start, n);
}

void os_command_line(str_t *out) {
    os_utf8_from_wide(out, GetCommandLineW());
}

void os_exit(int code) {
    ExitProcess((UINT) code);
}

static DWORD WINAPI _os_fatal_box_proc(void *arg) {
    os_wide_t *w = (os_wide_t *) arg;
    MessageBoxW(nullptr, w->ptr, L"Sablewatch", MB_OK | MB_ICONERROR | MB_TOPMOST);
    return 0;
}

void os_show_fatal(const char *text) {
    os_wide_t w;
    os_wide_init(&w, text);
    // A thread of its own, so that the failing thread's window procedures can't run inside the box's
    // message loop.
    HANDLE h = CreateThread(nullptr, 0, _os_fatal_box_proc, &w, 0, nullptr);
    if (h) {
        WaitForSingleObject(h, INFINITE);
        CloseHandle(h);
    } else {
        _os_fatal_box_proc(&w);
    }
    os_wide_kill(&w);
}
