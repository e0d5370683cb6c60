// The replaceable calls: every caller goes through os_hooks, so a test can pin the clock, the time zone,
// the locale and the processor count, and inject read faults, without the code under test knowing.
#include "os/os_internal.h"

os_hooks_t os_hooks = {os_real_filetime_now,
                       os_real_filetime_to_local,
                       os_real_local_to_filetime,
                       os_real_processor_count,
                       os_real_locale_get,
                       nullptr,
                       nullptr,
                       nullptr};

void os_hooks_reset() {
    os_hooks.filetime_now = os_real_filetime_now;
    os_hooks.filetime_to_local = os_real_filetime_to_local;
    os_hooks.local_to_filetime = os_real_local_to_filetime;
    os_hooks.processor_count = os_real_processor_count;
    os_hooks.locale_get = os_real_locale_get;
    os_hooks.file_read = nullptr;
    os_hooks.file_read_at = nullptr;
    os_hooks.heap_free_fails = nullptr;
}

uint64_t os_filetime_now() {
    return os_hooks.filetime_now();
}

bool os_filetime_to_local(uint64_t ft, os_systemtime_t *out) {
    return os_hooks.filetime_to_local(ft, out);
}

bool os_local_to_filetime(const os_systemtime_t *local, uint64_t *ft) {
    return os_hooks.local_to_filetime(local, ft);
}

int os_processor_count() {
    int n = os_hooks.processor_count();
    // A broken hook or platform answer must not make callers divide work by zero.
    return n < 1 ? 1 : n;
}

void os_locale_get(os_locale_id_t id, str_t *out) {
    os_hooks.locale_get(id, out);
}
