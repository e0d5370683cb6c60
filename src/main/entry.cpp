// The process entry. Both platforms hand main_run nothing but the show command: the command line is read
// whole from the platform, never from the C runtime's split of it.
#include "main/main.h"

// The show command of a plain start (SW_SHOWNORMAL).
#define ENTRY_SHOW_NORMAL 1

#ifdef _WIN32
int wmain(int argc, wchar_t **argv) {
    (void) argc;
    (void) argv;
    return main_run(ENTRY_SHOW_NORMAL);
}
#else
int main(int argc, char **argv) {
    (void) argc;
    (void) argv;
    return main_run(ENTRY_SHOW_NORMAL);
}
#endif
