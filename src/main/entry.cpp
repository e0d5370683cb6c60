// The process entry. Windows starts at wmain (linked with -municode) and converts its arguments to UTF-8;
// Linux arguments are bytes already.
#include "main/main.h"
#include "os/os_main.h"

// The show command of a plain start (SW_SHOWNORMAL).
#define ENTRY_SHOW_NORMAL 1

#ifdef _WIN32
int wmain(int argc, wchar_t **argv) {
    return main_run(argc, os_main_utf8_args(argc, argv), ENTRY_SHOW_NORMAL);
}
#else
int main(int argc, char **argv) {
    return main_run(argc, argv, ENTRY_SHOW_NORMAL);
}
#endif
