// Random searches against a small real index: the first two bytes choose the caller's flags and the sort,
// the rest is the search text. Whatever the search, it must end, its results must be records of the
// index, and afterwards every byte of every record must be what it was: the scan's pre-passes and the
// sort's sentinel walk borrow name-length bytes and parents, and nothing else may change.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "db/db.h"
#include "db_query/db_query.h"
#include "main/main.h"
#include "mem/mem.h"
#include "text/text.h"

struct fuzz_index_t {
    db_t *db;
    std::vector<db_ref_t> records;
    std::vector<bool> is_folder;
    std::vector<uint8_t> snapshot;
};

// Every byte of every record: its optional front words, parent, name length, name and data block.
static std::vector<uint8_t> _bytes(const fuzz_index_t *x) {
    std::vector<uint8_t> s;
    for (size_t i = 0; i < x->records.size(); i++) {
        db_ref_t r = x->records[i];
        uint32_t len;
        db_record_name(r, &len);
        bool root = db_record_parent(r) == 0;
        uint32_t front = (root ? 4u : 0u) + (len >= DB_LONG_NAME ? 4u : 0u);
        uint32_t size = x->is_folder[i] ? db_folder_record_size(&x->db->structure, DB_FS_FOLDER, root, len)
                                        : db_file_record_size(&x->db->structure, root, len);
        const uint8_t *p = db_ptr(r) - front;
        s.insert(s.end(), p, p + size);
    }
    return s;
}

static void _arrays(fuzz_index_t *x, const std::vector<db_ref_t> &folders,
                    const std::vector<db_ref_t> &files) {
    for (int folder = 1; folder >= 0; folder--) {
        const std::vector<db_ref_t> &src = folder ? folders : files;
        for (int o = 0; o < DB_ORDER_FRN; o++) {
            mem_array_t *a = db_array(x->db, (db_order_t) o, folder);
            if (!a)
                continue;
            for (db_ref_t r : src) {
                db_key_t key = {x->db, r, (uint8_t) o, folder != 0, false};
                mem_array_insert_sorted(a, db_key_compare, &key, r);
            }
        }
    }
}

static fuzz_index_t *_index() {
    static fuzz_index_t *x = nullptr;
    if (x)
        return x;
    text_init_tables();
    event_init();
    x = new fuzz_index_t;
    x->db = db_create(nullptr);
    db_structure_set(&x->db->structure, 0x7F3Fu);
    x->db->is_loaded = true;
    db_fs_t *fs = db_fs_add(x->db, DB_FS_FOLDER);
    static const char *names[] = {"usr",    "Doc",      "r\xC3\xA9sum\xC3\xA9",     "a.txt", "B.TXT",
                                  "lib.so", "x.tar.gz", "\xE6\x9D\xB1\xE4\xBA\xAC", "\xFF",  "empty",
                                  "abc",    "ABC"};
    std::vector<db_ref_t> folders, files;
    const char *top = OS_SEP == '/' ? "" : "C:";
    db_ref_t root = db_folder_new(x->db, fs, 0, top, (uint32_t) strlen(top));
    folders.push_back(root);
    uint32_t seed = 1;
    for (int i = 0; i < 300; i++) {
        seed = seed * 1103515245u + 12345u;
        db_ref_t parent = folders[(seed >> 8) % folders.size()];
        std::string name = names[(seed >> 4) % 12] + std::to_string(i);
        bool folder = (seed >> 16) % 3 == 0;
        db_ref_t r = folder ? db_folder_new(x->db, fs, parent, name.data(), (uint32_t) name.size())
                            : db_file_new(x->db, fs, parent, name.data(), (uint32_t) name.size());
        (folder ? folders : files).push_back(r);
        if (!folder)
            db_file_set(x->db, r, DB_FIELD_SIZE, (seed >> 3) % 7 == 0 ? DB_UNKNOWN : seed % 1000);
    }
    _arrays(x, folders, files);
    x->records = folders;
    x->records.insert(x->records.end(), files.begin(), files.end());
    x->is_folder.assign(folders.size(), true);
    x->is_folder.resize(x->records.size(), false);
    x->snapshot = _bytes(x);
    return x;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > 512)
        return 0;
    fuzz_index_t *x = _index();
    uint8_t flags = data[0];
    int sort = data[1] % (DB_SORT_MAX + 1);
    std::string search((const char *) data + 2, size - 2);
    db_query_t *q = db_query_create(x->db, false, nullptr, nullptr);
    db_query_search(q, flags & 1, flags & 2, flags & 4, flags & 8, flags & 16, flags & 32, false,
                    search.c_str(), 0, (flags & 64) ? "file:" : "", sort, 0, 0, (flags & 128) != 0);
    if (flags & 128)
        db_cancel_query(q);
    db_wait(x->db, "fuzz");
    event_dispatch();
    std::set<db_ref_t> all(x->records.begin(), x->records.end());
    int n = db_get_result_count(q);
    for (int i = 0; i < n; i++) {
        db_ref_t r;
        bool folder;
        if (!_db_result_at(q, i, &r, &folder) || !all.count(r))
            abort();
    }
    db_destroy_query(q);
    event_dispatch();
    if (_bytes(x) != x->snapshot)
        abort();
    return 0;
}
