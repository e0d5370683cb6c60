// Fuzzes the settings parser and the load and save path behind it.
//
// Any bytes must parse without a fault into pairs sorted strictly by folded key, each found again by
// ini_get. Loading them and writing the settings back must give a text that is a fixed point: parsed,
// loaded and written again it comes out the same, byte for byte. The same bytes loaded through a real file
// must give the same settings as the parsed text.
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/config.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

static void _check_pairs(const ini_t *ini) {
    for (int i = 0; i < ini->count; i++) {
        if (i > 0 && strcmp(ini->pairs[i - 1].key, ini->pairs[i].key) >= 0) {
            abort();
        }
        if (ini_get(ini, ini->pairs[i].key, nullptr) != ini->pairs[i].value) {
            abort();
        }
    }
}

static std::string _load_and_write(const ini_t *ini) {
    config_defaults();
    config_load_ini(ini, false, true);
    str_t out;
    str_init(&out);
    config_write_text(&out, false);
    std::string text(out.ptr, (size_t) out.len);
    str_kill(&out);
    return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::string file_path;
    if (file_path.empty()) {
        debug_init();
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        file_path = std::string(tmp.ptr) + OS_SEP_STR + "sw-fuzz-ini.ini";
        str_kill(&tmp);
    }
    std::string text((const char *) data, size);

    ini_t *ini = ini_parse(text.c_str(), "Sablewatch");
    _check_pairs(ini);
    if (ini->count == 0) {
        // Nothing to load: the writer would only give the defaults, which the tests already cover.
        ini_free(ini);
        return 0;
    }
    std::string first = _load_and_write(ini);
    ini_free(ini);

    ini_t *again = ini_parse(first.c_str(), "Sablewatch");
    _check_pairs(again);
    std::string second = _load_and_write(again);
    ini_free(again);
    if (first != second) {
        abort();
    }

    os_file_t f = os_file_open(file_path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    if (f != OS_FILE_INVALID) {
        os_file_write(f, data, size);
        os_file_close(f);
        config_defaults();
        if (!config_load(file_path.c_str(), false, true)) {
            abort();
        }
        str_t out;
        str_init(&out);
        config_write_text(&out, false);
        if (std::string(out.ptr, (size_t) out.len) != first) {
            abort();
        }
        str_kill(&out);
    }
    return 0;
}
