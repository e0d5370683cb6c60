// The platform layer: the one neutral interface through which the rest of the program reaches the
// operating system. src/os/posix/*.cpp and src/os/win32/*.cpp implement it, one file per topic with the
// same names on both sides; CMake picks the folder. Nothing outside src/os includes <windows.h> or a
// POSIX header (the Windows-only modules excepted).
//
// Invariants:
// - All text crossing this interface is UTF-8, zero-terminated. Windows converts to UTF-16 inside.
// - Paths use the platform's separator ('\\' on Windows, '/' on Linux); OS_SEP names it.
// - Functions return 0, false or an invalid handle on failure and never abort, except where a comment says
//   that failure is fatal (the callers have no recovery path there, and the fatal line names the function).
// - Calls that tests must control (clock, time zone, locale values, processor count, file reads for fault
//   injection) go through the replaceable table os_hooks; os_hooks_reset() puts the real ones back.
#pragma once

#include <cstddef>
#include <cstdint>

#ifdef _WIN32
#define OS_SEP     '\\'
#define OS_SEP_STR "\\"
#else
#define OS_SEP     '/'
#define OS_SEP_STR "/"
#endif

struct str_t;

// ---- process -------------------------------------------------------------------------------------------

// Initialises the layer: platform version, processor count, resolved entry points. Call once, first.
void os_init();
void os_kill();

// Logical processor count (through os_hooks, so tests can pretend to have 1, 2 or 8).
int os_processor_count();

// True on Windows when the process token is elevated; false on Linux unless the effective user is root.
bool os_is_admin();

// Platform name and version for the log banner: e.g. "Windows NT 10.0" or "Linux 6.1.0".
void os_platform_name(str_t *out);
// Processor's brand string, or "unknown".
void os_processor_name(str_t *out);

// The program's command line as UTF-8 (Windows: GetCommandLineW; Linux: /proc/self/cmdline re-quoted).
void os_command_line(str_t *out);
// Appends one argument to out so that the Windows command-line rules (CommandLineToArgvW) read it back
// unchanged: quoted when empty or holding a blank or a quote, with backslashes doubled only where they
// precede a quote.
void os_quote_arg(str_t *out, const char *arg);

// Never returns. Ends the process with the code.
[[noreturn]] void os_exit(int code);

// Shows a fatal text to the user: a message box on Windows (on a thread of its own that the caller waits
// for), standard error on Linux.
void os_show_fatal(const char *text);

// Environment variable, or false when unset.
bool os_getenv(const char *name, str_t *out);

// ---- console -------------------------------------------------------------------------------------------

// Opens a console for the log: on Windows a new console window (FreeConsole, AllocConsole; a standard
// output that was a file or a pipe is kept; the screen buffer is made 80 columns by 4,096 rows). False when
// no console could be made. On Linux standard error is the console: always true.
bool os_console_open();
// Writes len bytes of UTF-8 (several lines allowed) to the console. attribute is a Windows console
// attribute (blue 1, green 2, red 4, intensity 8); 0 and 7 mean the normal colour. Windows: to a console
// with WriteConsoleW, the attribute set around the text and restored after, each LF or CR LF written as
// CR LF; to a file or a pipe the bytes with CR LF line ends. Linux: to standard error, in ANSI colours only
// when it is a terminal.
void os_console_write(const char *utf8, int len, uint32_t attribute);

// ---- code pages ----------------------------------------------------------------------------------------

// The UTF-8 text in the system's ANSI code page, replacing out: on Windows the code page of CP_ACP; on
// Linux the code set of the user's locale (LC_ALL, LC_CTYPE, LANG as setlocale reads them), which on most
// systems is UTF-8 itself and then takes the bytes as they are. A character the code page lacks, and a byte
// that isn't UTF-8, become '?'. For the old protocols whose clients can't take UTF-8.
void os_text_to_ansi(str_t *out, const char *utf8, size_t len);
// The same into Windows code page code_page (1252, 437 ...); Linux converts to "CP<code_page>" through the
// C library. False, with out empty, when the system has no such code page.
bool os_text_to_code_page(str_t *out, const char *utf8, size_t len, uint32_t code_page);
// The way back: text in the system's ANSI code page (or in code_page) as UTF-8, replacing out. A byte the
// code page doesn't define becomes '?'.
void os_text_from_ansi(str_t *out, const char *ansi, size_t len);
bool os_text_from_code_page(str_t *out, const char *text, size_t len, uint32_t code_page);

// ---- files ---------------------------------------------------------------------------------------------

typedef intptr_t os_file_t;
#define OS_FILE_INVALID ((os_file_t) -1)

enum {
    OS_OPEN_READ = 1,        // read access
    OS_OPEN_WRITE = 2,       // write access
    OS_OPEN_CREATE = 4,      // create if missing
    OS_OPEN_TRUNCATE = 8,    // empty on open (with CREATE: create always)
    OS_OPEN_SHARE_READ = 16, // others may read while we hold it (Windows share mode; no effect on Linux)
    OS_OPEN_APPEND = 32,     // writes go to the end
    // Others may read, write, rename and delete the file while we read it (Windows share mode; no effect
    // on Linux): for reading files that belong to the user and must never be held against them.
    OS_OPEN_SHARE_ALL = 64,
    OS_OPEN_SEQUENTIAL = 128, // read from start to end: the system may read ahead further
};

// Opens a file; OS_FILE_INVALID on failure, with os_last_error() telling why.
os_file_t os_file_open(const char *path, int flags);
void os_file_close(os_file_t f);
// Sequential read and write at the file pointer. Return bytes done, or -1 on error.
int64_t os_file_read(os_file_t f, void *buf, size_t n);
int64_t os_file_write(os_file_t f, const void *buf, size_t n);
// Positional read and write; do not move the file pointer on Linux (pread), may on Windows.
int64_t os_file_read_at(os_file_t f, uint64_t offset, void *buf, size_t n);
int64_t os_file_write_at(os_file_t f, uint64_t offset, const void *buf, size_t n);
bool os_file_seek(os_file_t f, uint64_t offset);
// Size in bytes, or UINT64_MAX on failure.
uint64_t os_file_size(os_file_t f);
bool os_file_flush(os_file_t f);
bool os_file_truncate(os_file_t f, uint64_t size);

// The last platform error code of this thread (GetLastError or errno).
uint32_t os_last_error();
// A readable text for an error code.
void os_error_text(uint32_t code, str_t *out);

// Renames, replacing an existing target (MoveFileExW with MOVEFILE_REPLACE_EXISTING; rename(2)).
bool os_file_rename_over(const char *from, const char *to);
// Renames only if the target does not exist.
bool os_file_rename(const char *from, const char *to);
bool os_file_delete(const char *path);
bool os_folder_create(const char *path);
// Creates every missing folder of the path; true if it exists afterwards.
bool os_folder_create_path(const char *path);
bool os_folder_delete(const char *path);

// Attributes with Windows values; see DESIGN.md for the Linux mapping.
enum {
    OS_ATTR_READONLY = 0x01,
    OS_ATTR_HIDDEN = 0x02,
    OS_ATTR_SYSTEM = 0x04,
    OS_ATTR_DIRECTORY = 0x10,
    OS_ATTR_ARCHIVE = 0x20,
    OS_ATTR_NORMAL = 0x80,
    OS_ATTR_REPARSE_POINT = 0x400,
};

// What a file or folder is, with unknown values all ones (times, size) or 0 (attributes).
struct os_file_info_t {
    uint64_t size;
    uint64_t date_modified; // FILETIME
    uint64_t date_created;
    uint64_t date_accessed;
    uint32_t attributes;
};

// Does not follow a final symbolic link. False if the path does not exist or can't be read; info then
// holds all ones with attributes 0. A folder's size is never taken from the disk: it is all ones. A birth
// time the file system does not keep is all ones.
bool os_get_file_info(const char *path, os_file_info_t *info);
// The same for what a final symbolic link (or, on Windows, a junction) points at: its target's dates,
// size and attributes. A path that is no link gives what os_get_file_info gives. False when the target
// can't be reached (a dangling link).
bool os_get_target_info(const char *path, os_file_info_t *info);
// Sets a file's times (FILETIME); UINT64_MAX leaves that time as it is. Linux can't set the birth time
// and ignores created. False on failure.
bool os_file_set_times(os_file_t f, uint64_t created, uint64_t accessed, uint64_t modified);
// Sets the attributes that the platform keeps: all of them on Windows; on Linux only OS_ATTR_READONLY
// (it clears or restores the write bits; hidden follows the name, the rest the file's type).
bool os_set_file_attributes(const char *path, uint32_t attributes);
bool os_file_exists(const char *path);
bool os_folder_exists(const char *path);

// Folder for temporary files, with a trailing separator removed (GetTempPathW; $TMPDIR or /tmp).
void os_temp_folder(str_t *out);
// Folder that holds the running executable, without a trailing separator.
void os_exe_folder(str_t *out);
// Full path of the running executable.
void os_exe_path(str_t *out);
// Per-user settings folder: %APPDATA%\Sablewatch on Windows, $XDG_CONFIG_HOME/Sablewatch or
// ~/.config/Sablewatch on Linux. Not created.
void os_app_data_folder(str_t *out);
// Current working folder.
void os_current_folder(str_t *out);
// True for an absolute path on this platform.
bool os_path_is_absolute(const char *path);

// ---- volumes -------------------------------------------------------------------------------------------

// A volume is read as a file handle (os_file_t): an open volume device ("\\.\C:" on Windows), a block
// device, or a plain file that holds an image of a volume. Reads go through os_file_read_at, so the
// fault-injection hook covers them; callers read whole sectors at sector-aligned offsets, which a raw
// device demands and an image file doesn't mind.

enum { OS_VOLUME_READ = 1, OS_VOLUME_WRITE = 2 };

// Opens a volume: strips one trailing slash or backslash, logs "open volume %S", opens with sharing for
// read and write, open-existing (overlapped when asked, Windows only). On Windows a path beginning
// "\\?\volume{" or "\\.\" is then asked whether it is mounted; a failure other than "invalid function"
// (which Wine and image files give) logs "volume %s is locked or not mounted.", closes the handle and
// fails. Returns OS_FILE_INVALID on failure, with os_last_error() telling why; close with os_file_close.
os_file_t os_open_volume(const char *path, int access, bool overlapped);
// The error code os_last_error() gives when access to a volume is refused (ERROR_ACCESS_DENIED, EACCES).
uint32_t os_error_access_denied();

// The device's sector size: from the drive geometry, logged "sector size %d". A handle that has no
// geometry (an image file, or Wine's answer of invalid parameter or function) gives 512, the size the
// program falls back on. Any other failure logs "failed to read drive geometry %u" and gives 0.
uint32_t os_volume_sector_size(os_file_t volume);

// The NTFS file record of one file, asked of the file system (FSCTL_GET_NTFS_FILE_RECORD). out gets up to
// *size bytes of the record, *size becomes the number of bytes given, and *got_frn the reference of the
// record returned, which is the nearest in-use record at or below the one asked for. False when the platform
// or the handle can't answer (always on Linux, and for image files), with os_last_error() telling why; the
// caller then reads the record from the volume itself.
bool os_volume_ntfs_file_record(os_file_t volume, uint64_t frn, void *out, uint32_t *size, uint64_t *got_frn);

// The label of the volume whose root is root ("C:", "C:\\", a mount folder; on Linux a mount point),
// replacing out. False, with out empty, when root is not the root of a volume, or the volume has no label
// or won't tell. Windows: GetVolumeInformationW. Linux: the name under /dev/disk/by-label of the block
// device mounted there.
bool os_volume_label(const char *root, str_t *out);

// ---- virtual memory ------------------------------------------------------------------------------------

// Reserves address space without committing it. Returns null on failure.
void *os_vm_reserve(size_t size);
// Commits zeroed pages inside a reservation. False on failure.
bool os_vm_commit(void *ptr, size_t size);
// Gives pages back inside a reservation, keeping the range reserved.
void os_vm_decommit(void *ptr, size_t size);
// Releases a whole reservation made by os_vm_reserve.
void os_vm_release(void *ptr, size_t size);
// Fresh zeroed, committed pages outside any reservation (VirtualAlloc / mmap). Null on failure.
void *os_vm_alloc(size_t size);
void os_vm_free(void *ptr, size_t size);

// The heap every small block of the program comes from: the process heap on Windows, the C heap on
// Linux. Alloc and realloc return null on failure (realloc then keeps the old block; a null ptr
// allocates). Free returns false when the heap refuses the block, with os_last_error saying why; the C
// heap never refuses, but os_hooks.heap_free_fails can make it. Free of null does nothing and succeeds.
void *os_heap_alloc(size_t size);
void *os_heap_realloc(void *ptr, size_t size);
bool os_heap_free(void *ptr);
// The heap's handle as a number, for log lines (0 for the C heap).
uintptr_t os_heap_handle();

// ---- locks, events, raw threads ------------------------------------------------------------------------

// A lock (critical section / mutex). Storage is opaque and lives where the caller puts it.
struct os_lock_t {
    alignas(16) unsigned char opaque[64];
};
void os_lock_init(os_lock_t *lock);
void os_lock_kill(os_lock_t *lock);
void os_lock_enter(os_lock_t *lock);
void os_lock_leave(os_lock_t *lock);

// Scoped guard for a lock.
struct os_lock_guard {
    os_lock_t *lock;
    explicit os_lock_guard(os_lock_t *l) : lock(l) { os_lock_enter(lock); }
    ~os_lock_guard() { os_lock_leave(lock); }
    os_lock_guard(const os_lock_guard &) = delete;
    os_lock_guard &operator=(const os_lock_guard &) = delete;
};

// Manual-reset event. Creation failure is fatal (function "os_event_create").
struct os_event_t;
os_event_t *os_event_create(bool initially_set);
void os_event_destroy(os_event_t *e);
void os_event_set(os_event_t *e);
void os_event_reset(os_event_t *e);
// Waits up to timeout_ms (OS_INFINITE for ever). True if the event was set.
bool os_event_wait(os_event_t *e, uint32_t timeout_ms);
#define OS_INFINITE 0xFFFFFFFFu

typedef void (*os_thread_proc_t)(void *arg);

// A real thread outside the pool. Null on failure.
struct os_raw_thread_t;
os_raw_thread_t *os_raw_thread_start(os_thread_proc_t proc, void *arg);
void os_raw_thread_join(os_raw_thread_t *t);
enum { OS_PRIORITY_NORMAL = 0, OS_PRIORITY_BELOW_NORMAL = -1, OS_PRIORITY_IDLE = -15 };
void os_raw_thread_set_priority(os_raw_thread_t *t, int priority);

// The thread pool. os_thread_create returns a pooled thread running proc(arg); failure to start a real
// thread is fatal. os_thread_destroy waits for proc to return, then parks the thread for reuse while the
// setting reuse_threads is on, or ends it. os_thread_pool_kill ends every parked thread.
struct os_thread_t;
os_thread_t *os_thread_create(os_thread_proc_t proc, void *arg);
void os_thread_destroy(os_thread_t *t);
void os_thread_set_priority(os_thread_t *t, int priority);
void os_thread_pool_kill();
// Number of parked threads waiting for reuse (for tests and the log).
int os_thread_pool_parked_count();
// Read by os_thread_destroy; the settings module sets it.
extern bool reuse_threads;

// ---- sorting -------------------------------------------------------------------------------------------

// Stable sorts of 32-bit references (record references, list entries). Comparators are tested only for
// sign. os_qsort splits the array among up to ceil(count / 65536) threads of the pool, capped by
// max_threads (when not 0) and the processor count, sorts each slice privately and merges the slices
// stably, so that the result never depends on the number of threads. The buffers come from the heap;
// running out is fatal.
typedef int (*os_compare_t)(uint32_t a, uint32_t b);
typedef int (*os_compare_ex_t)(void *context, uint32_t a, uint32_t b);
void os_qsort(uint32_t *array, size_t count, os_compare_t compare);
void os_qsort_ex(uint32_t *array, size_t count, void *context, os_compare_ex_t compare);
// The single-thread top-down stable merge sort behind it.
void os_merge_sort(uint32_t *array, size_t count, os_compare_t compare);
void os_merge_sort_ex(uint32_t *array, size_t count, void *context, os_compare_ex_t compare);
// The setting max_threads: 0 means as many as the processors allow. Defined here, set by the settings.
extern int32_t max_threads;

void os_sleep_ms(uint32_t ms);
uint32_t os_thread_id();

// ---- time ----------------------------------------------------------------------------------------------

// A broken-down time, as SYSTEMTIME.
struct os_systemtime_t {
    int year, month, day_of_week, day, hour, minute, second, milliseconds;
};

// Now as a FILETIME (100 ns since 1601, UTC). Replaceable.
uint64_t os_filetime_now();
// UTC FILETIME to local broken-down time, and back; false when out of range. Replaceable (time zone).
bool os_filetime_to_local(uint64_t ft, os_systemtime_t *out);
bool os_local_to_filetime(const os_systemtime_t *local, uint64_t *ft);
// UTC conversions without any zone. False when out of range.
bool os_filetime_to_system(uint64_t ft, os_systemtime_t *out);
bool os_system_to_filetime(const os_systemtime_t *st, uint64_t *ft);
// The number of days of a month (1..12) of the Gregorian calendar, leap years counted.
int os_days_in_month(int year, int month);

// The high-resolution counter and its frequency per second.
uint64_t os_counter();
uint64_t os_counter_frequency();
// Milliseconds since some start point, wrapping (GetTickCount).
uint32_t os_tick_ms();

// ---- locale --------------------------------------------------------------------------------------------

// Locale values the program asks for, as Windows' GetLocaleInfoW gives them for the user default. On Linux
// they are derived from the C library's locale data for the user's environment (LC_ALL, LC_TIME, LANG ...
// as setlocale(LC_ALL, "") reads them; the process's own C locale is never switched): pictures are
// translated from the strftime forms into Windows pictures. A value the platform can't give falls back to
// the text in the comment. Every read goes through os_hooks.locale_get, so tests pin them.
enum os_locale_id_t {
    OS_LOCALE_DATE_SEPARATOR,    // "/"
    OS_LOCALE_TIME_SEPARATOR,    // ":"
    OS_LOCALE_SHORT_DATE,        // "dd/MM/yyyy" style picture
    OS_LOCALE_TIME_FORMAT,       // "HH:mm:ss" style picture
    OS_LOCALE_DECIMAL,           // "."
    OS_LOCALE_THOUSAND,          // ","
    OS_LOCALE_FIRST_DAY_OF_WEEK, // "0" Monday .. "6" Sunday
    OS_LOCALE_DATE_ORDER,        // "0" M-D-Y, "1" D-M-Y, "2" Y-M-D; empty when the locale has none
    OS_LOCALE_AM,                // "AM"; empty in a locale with a 24-hour clock
    OS_LOCALE_PM,                // "PM"; likewise
    // The last year that a two-digit year may stand for ("2049"): 49 is 2049, 50 is 1950. Windows asks
    // the user's calendar (CAL_ITWODIGITYEARMAX); the C library has no such setting, so Linux gives
    // Windows' own default, which keeps a search's meaning the same on both platforms.
    OS_LOCALE_TWO_DIGIT_YEAR_MAX,
    // Twelve month names from January, twelve short ones, then seven day names and seven short ones from
    // Monday, as Windows numbers them: OS_LOCALE_MONTH_NAME + 0 is January, OS_LOCALE_DAY_NAME + 6 Sunday.
    OS_LOCALE_MONTH_NAME,
    OS_LOCALE_MONTH_ABBREV = OS_LOCALE_MONTH_NAME + 12,
    OS_LOCALE_DAY_NAME = OS_LOCALE_MONTH_ABBREV + 12,
    OS_LOCALE_DAY_ABBREV = OS_LOCALE_DAY_NAME + 7,
    OS_LOCALE_COUNT = OS_LOCALE_DAY_ABBREV + 7
};
// The user default's value (through os_hooks). An id out of range gives "".
void os_locale_get(os_locale_id_t id, str_t *out);
// The same value for a named locale, outside the hooks: a C library locale name on Linux ("de_DE.UTF-8",
// "C"), a locale name on Windows ("de-DE"). False, with out empty, when the platform doesn't know the
// locale; an id out of range gives true and "".
bool os_locale_get_named(const char *name, os_locale_id_t id, str_t *out);

// ---- replaceable calls ---------------------------------------------------------------------------------

struct os_hooks_t {
    uint64_t (*filetime_now)();
    bool (*filetime_to_local)(uint64_t ft, os_systemtime_t *out);
    bool (*local_to_filetime)(const os_systemtime_t *local, uint64_t *ft);
    int (*processor_count)();
    void (*locale_get)(os_locale_id_t id, str_t *out);
    // Fault injection for file reads: called instead of the platform read when non-null.
    int64_t (*file_read)(os_file_t f, void *buf, size_t n);
    // The same for positional reads (volume and image readers), null for the platform read.
    int64_t (*file_read_at)(os_file_t f, uint64_t offset, void *buf, size_t n);
    // Fault injection for the heap: when non-null and true for a block, os_heap_free fails on it as a
    // heap that refuses the block would, leaving the block alone.
    bool (*heap_free_fails)(void *ptr);
};
extern os_hooks_t os_hooks;
void os_hooks_reset();

// ---- standard streams and the process's own figures ----------------------------------------------------
// For the command-line front-end, whose output is data that scripts read: bytes go out unchanged (no text
// mode turns LF into CR LF), and progress is drawn only where a person watches.

enum { OS_STDOUT = 1, OS_STDERR = 2 };
// Writes all n bytes to standard output or standard error. False when a write failed (a closed pipe, a
// full disk); the caller decides whether that ends its work.
bool os_std_write(int stream, const void *data, size_t n);
// Whether the stream is a terminal (on Windows a console).
bool os_std_is_terminal(int stream);
// The process's peak resident memory in bytes (VmHWM; the peak working set), 0 when the system doesn't say.
uint64_t os_peak_memory();
// The fixed drives as a mask, bit 0 for A: to bit 25 for Z:. 0 where the system has no drive letters.
uint32_t os_fixed_drives();
