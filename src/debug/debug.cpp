// The log's two sinks, its lock, the banner and the fatal path.
#include "debug/debug.h"

#include <atomic>
#include <cstring>

#include "mem/mem.h"
#include "os/os.h"

bool debug_verbose = false;
bool debug_banner_app_data = false;
bool debug_banner_service = false;

// Text of the version line besides the four numbers: the edition, the processor architecture the build
// is for and a further suffix for special builds.
#define DEBUG_EDITION      ""
#define DEBUG_ARCHITECTURE "x64"
#define DEBUG_BUILD_SUFFIX ""

static os_lock_t log_lock;
static bool log_lock_made = false;
static os_file_t log_file = OS_FILE_INVALID;
static bool console_on = false;
// Read without the lock by every call: the one test a disabled log costs.
static std::atomic<bool> log_active{false};
static std::atomic<uint64_t> counter_frequency{0};
static std::atomic<bool> in_fatal{false};

void debug_init() {
    if (log_lock_made) {
        return;
    }
    os_lock_init(&log_lock);
    log_lock_made = true;
}

static void _debug_update_active() {
    log_active.store(log_file != OS_FILE_INVALID || console_on);
}

void debug_kill() {
    if (!log_lock_made) {
        return;
    }
    os_lock_enter(&log_lock);
    if (log_file != OS_FILE_INVALID) {
        os_file_close(log_file);
        log_file = OS_FILE_INVALID;
    }
    console_on = false;
    _debug_update_active();
    os_lock_leave(&log_lock);
}

bool debug_set_console(bool on) {
    debug_init();
    os_lock_guard guard(&log_lock);
    if (on && !console_on) {
        console_on = os_console_open();
    } else if (!on) {
        console_on = false;
    }
    _debug_update_active();
    return console_on == on;
}

bool debug_open_log_path(const char *path) {
    debug_init();
    os_lock_guard guard(&log_lock);
    if (log_file != OS_FILE_INVALID) {
        return true;
    }
    log_file = os_file_open(path, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE | OS_OPEN_SHARE_READ);
    _debug_update_active();
    return log_file != OS_FILE_INVALID;
}

bool debug_open_log(bool is_service) {
    const char *name = is_service ? "Sablewatch Service Debug Log.txt" : "Sablewatch Debug Log.txt";
    str_t folder, path;
    str_init(&folder);
    str_init(&path);
    os_temp_folder(&folder);
    str_path_cat(&path, folder.ptr, folder.len, name, (int) strlen(name));
    bool ok = debug_open_log_path(path.ptr);
    str_kill(&path);
    str_kill(&folder);
    return ok;
}

void debug_close_log() {
    if (!log_lock_made) {
        return;
    }
    os_lock_guard guard(&log_lock);
    if (log_file != OS_FILE_INVALID) {
        os_file_close(log_file);
        log_file = OS_FILE_INVALID;
    }
    _debug_update_active();
}

bool debug_is_active() {
    return log_active.load(std::memory_order_relaxed);
}

uint32_t debug_color_attribute(int32_t mask) {
    uint32_t m = (uint32_t) mask;
    if (m <= 0x00FFFFFFu) {
        return 0;
    }
    bool red = (m >> 16) & 0xFF;
    bool green = (m >> 8) & 0xFF;
    bool blue = m & 0xFF;
    uint32_t attribute = red ? 12 : 8;
    if (green) {
        attribute = red ? 14 : 10;
    }
    if (blue) {
        attribute |= 1;
    }
    return attribute;
}

// Writes the stamp and the text to the file. The stamp is taken here, under the lock, so that stamps
// never go backwards down the file. Nothing here allocates: the fatal path of the allocator comes
// through this function.
static void _debug_write_file(const char *text, int len) {
    os_systemtime_t st = {};
    if (!os_filetime_to_local(os_filetime_now(), &st)) {
        st = os_systemtime_t{};
    }
    char stamp[64];
    int n = text_format_args(stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d: ", st.year, st.month, st.day,
                             st.hour, st.minute, st.second, st.milliseconds);
    os_file_write(log_file, stamp, (size_t) n);
    bool lone_lf = len > 0 && text[len - 1] == '\n' && (len < 2 || text[len - 2] != '\r');
    if (lone_lf) {
        os_file_write(log_file, text, (size_t) (len - 1));
        os_file_write(log_file, "\r\n", 2);
    } else if (len > 0) {
        os_file_write(log_file, text, (size_t) len);
    }
    os_file_flush(log_file);
}

// Writes one formatted line to every open sink under the log lock.
static void _debug_write(int32_t mask, const char *text, int len) {
    os_lock_guard guard(&log_lock);
    if (log_file != OS_FILE_INVALID) {
        _debug_write_file(text, len);
    }
    if (console_on) {
        os_console_write(text, len, debug_color_attribute(mask));
    }
}

void debug_color_vprintf(int32_t mask, const char *fmt, va_list args) {
    if (!log_active.load(std::memory_order_relaxed)) {
        return;
    }
    // The message is formatted before the lock is taken: formatting may allocate, and an allocation that
    // fails ends in debug_fatal, which must be able to take the lock itself.
    str_t s;
    str_init(&s);
    str_vprintf(&s, fmt, args);
    _debug_write(mask, s.ptr, s.len);
    str_kill(&s);
}

void debug_vprintf(const char *fmt, va_list args) {
    debug_color_vprintf(0, fmt, args);
}

void debug_printf(const char *fmt, ...) {
    if (!log_active.load(std::memory_order_relaxed)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    debug_color_vprintf(0, fmt, args);
    va_end(args);
}

void debug_color_printf(int32_t mask, const char *fmt, ...) {
    if (!log_active.load(std::memory_order_relaxed)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    debug_color_vprintf(mask, fmt, args);
    va_end(args);
}

void debug_banner() {
    if (!debug_is_active()) {
        return;
    }
    str_t s;
    str_init(&s);
    debug_printf("Sablewatch\n");
    debug_printf("Version %d.%d.%d.%d%s (%s)%s\n", DEBUG_VERSION_MAJOR, DEBUG_VERSION_MINOR,
                 DEBUG_VERSION_REVISION, DEBUG_VERSION_BUILD, DEBUG_EDITION, DEBUG_ARCHITECTURE,
                 DEBUG_BUILD_SUFFIX);
    os_platform_name(&s);
    debug_printf("%s\n", s.ptr);
    debug_printf("Processors %d\n", os_processor_count());
    debug_printf("IsAdmin %d\n", os_is_admin() ? 1 : 0);
    debug_printf("AppData %d\n", debug_banner_app_data ? 1 : 0);
    debug_printf("Service %d\n", debug_banner_service ? 1 : 0);
    os_command_line(&s);
    debug_printf("cmdline %s\n", s.ptr);
    str_kill(&s);
}

char *debug_fatal_line(const char *file, int line, const char *function, const char *fmt, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int n = text_format(nullptr, fmt, measure);
    va_end(measure);
    // The heap may be what failed, so nothing here may end in mem_alloc's own fatal path.
    char *message = (char *) mem_try_alloc((size_t) n + 1);
    if (!message) {
        return nullptr;
    }
    va_list write;
    va_copy(write, args);
    text_format(message, fmt, write);
    va_end(write);
    const char *pattern = "%s(%d): %s(): Fatal error: %s";
    int total = text_format_args(nullptr, pattern, file, line, function, message);
    char *out = (char *) mem_try_alloc((size_t) total + 1);
    if (out) {
        text_format_args(out, pattern, file, line, function, message);
    }
    mem_free(message);
    return out;
}

void debug_fatal(const char *file, int line, const char *function, const char *fmt, ...) {
    // A fault inside the fatal path (out of memory while formatting) must not loop or wait on the log
    // lock that this thread may already hold: the second entry shows the bare format and leaves.
    if (in_fatal.exchange(true)) {
        os_show_fatal(fmt);
        os_exit(1);
    }
    va_list args;
    va_start(args, fmt);
    char *text = debug_fatal_line(file, line, function, fmt, args);
    va_end(args);
    const char *shown = text ? text : fmt;
    if (log_active.load() && log_lock_made) {
        int len = (int) strlen(shown);
        char *with_lf = (char *) mem_try_alloc((size_t) len + 2);
        if (with_lf) {
            memcpy(with_lf, shown, (size_t) len);
            with_lf[len] = '\n';
            with_lf[len + 1] = 0;
            _debug_write((int32_t) 0xFFFF0000, with_lf, len + 1);
        } else {
            _debug_write((int32_t) 0xFFFF0000, shown, len);
        }
    }
    os_show_fatal(shown);
    os_exit(1);
}

uint32_t debug_now_us() {
    uint64_t frequency = counter_frequency.load(std::memory_order_relaxed);
    if (!frequency) {
        frequency = os_counter_frequency();
        if (!frequency) {
            return 1;
        }
        counter_frequency.store(frequency, std::memory_order_relaxed);
    }
    uint64_t c = os_counter();
    // Split so that the multiplication can't overflow for any counter value.
    uint64_t us = (c / frequency) * 1000000u + (c % frequency) * 1000000u / frequency;
    return (uint32_t) us;
}
