// Fuzzes the reader of the Linux user-folders file (user-dirs.dirs) with arbitrary text, for every key
// the known folders ask for.
//
// For any bytes: an answer is an absolute path without a trailing '/' (but for "/" itself), and no
// answer leaves the output as it was. A line appended behind the text that sets the key to a path must
// win, as the last line does when a shell sources the file; one that sets it to a form the reader
// passes over must change nothing.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "mem/mem.h"
#include "os/posix/user_dirs.h"

static const char *const _keys[] = {"DESKTOP",  "DOCUMENTS", "DOWNLOAD",  "MUSIC",
                                    "PICTURES", "VIDEOS",    "TEMPLATES", "PUBLICSHARE"};

// The answer for text, "?" standing for none.
static std::string _find(const char *text, size_t len, const char *key) {
    str_t out;
    str_init(&out);
    str_set(&out, "?");
    bool found = os_user_dirs_find(text, len, key, &out);
    std::string got(out.ptr, (size_t) out.len);
    str_kill(&out);
    if (found) {
        if (got.empty() || got[0] != '/' || (got.size() > 1 && got.back() == '/')) {
            __builtin_trap();
        }
    } else if (got != "?") {
        __builtin_trap();
    }
    return got;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = (const char *) data;
    for (const char *key : _keys) {
        // The fuzzer's own buffer, exactly sized, so that a read past its end is caught.
        std::string first = _find(text, size, key);

        std::string with_path(text, size);
        with_path += "\nXDG_" + std::string(key) + "_DIR=\"/fuzz/last \\\"line\\\"/\"\n";
        if (_find(with_path.data(), with_path.size(), key) != "/fuzz/last \"line\"") {
            __builtin_trap();
        }

        std::string with_other(text, size);
        with_other += "\nXDG_" + std::string(key) + "_DIR=relative/path\n";
        if (_find(with_other.data(), with_other.size(), key) != first) {
            __builtin_trap();
        }
    }
    return 0;
}
