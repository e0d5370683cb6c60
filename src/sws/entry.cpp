// The entry of sws. Both platforms read the command line whole from the platform, as the main program
// does, so that one quoting rule holds for both.
#include "sws/sws.h"

#ifdef _WIN32
int wmain(int argc, wchar_t **argv) {
    (void) argc;
    (void) argv;
    return sws_main();
}
#else
int main(int argc, char **argv) {
    (void) argc;
    (void) argv;
    return sws_main();
}
#endif
