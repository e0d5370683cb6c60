// A generated index and a slow, obvious reference for searches over it: every record carries its full
// path and columns as plain strings and numbers, and each search of the table decides each record by a
// predicate written from the language's definitions, with no op, array or pre-pass in sight.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "db/db.h"
#include "db_query/db_query.h"
#include "main/main.h"
#include "mem/mem.h"
#include "text/text.h"

// Every column and every fast array: each sort has an array and each function its column.
#define EXEC_STRUCTURE 0x7F3Fu

struct ref_record_t {
    db_ref_t ref;
    bool folder;
    std::string name, path; // path: the full path as the index shows it
    db_ref_t parent;
    uint32_t depth;
    uint64_t size, dm, dc, da;
    uint32_t attributes;
    uint32_t child_files = 0, child_folders = 0;
    std::vector<std::string> child_names;
};

// Decodes, folds with the map and re-encodes: the folding rules of the text layer, applied the slow way.
inline std::string ref_fold(const std::string &s, bool match_case, bool diacritics) {
    std::string out;
    const uint8_t *p = (const uint8_t *) s.data();
    size_t left = s.size();
    while (left) {
        int n;
        uint32_t cp = text_decode(p, left, &n);
        if (cp < 0x80) {
            if (!match_case && cp >= 'A' && cp <= 'Z')
                cp += 32;
        } else if (!match_case && !diacritics) {
            cp = text_fold_lower_base(cp);
        } else if (!match_case) {
            cp = text_fold_lower(cp);
        } else if (!diacritics) {
            cp = text_fold_base(cp);
        }
        char buf[4];
        out.append(buf, (size_t) text_encode(cp, buf));
        p += n;
        left -= (size_t) n;
    }
    return out;
}

inline std::string ref_lb(const std::string &s) {
    return ref_fold(s, false, false);
}
inline bool ref_contains(const std::string &hay, const std::string &needle) {
    return ref_lb(hay).find(ref_lb(needle)) != std::string::npos;
}
inline std::string ref_ext(const std::string &name) {
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

struct ref_index_t {
    db_t *db = nullptr;
    std::vector<ref_record_t> recs;
    std::map<db_ref_t, size_t> at;

    // n records under one source, names from several scripts with case and diacritic variants, up to
    // 14 levels deep; about a tenth of the sizes and dates unknown.
    void build(uint32_t n, uint32_t seed, bool bulk = true, uint32_t structure = EXEC_STRUCTURE) {
        text_init_tables();
        db = db_create(nullptr);
        db_structure_set(&db->structure, structure);
        db->is_loaded = true;
        db_fs_t *fs = db_fs_add(db, DB_FS_FOLDER);
        std::mt19937 rng(seed);
        static const char *words[] = {"readme",
                                      "README",
                                      "ReadMe",
                                      "r\xC3\xA9sum\xC3\xA9",
                                      "R\xC3\x89SUM\xC3\x89",
                                      "resume",
                                      "\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1",
                                      "\xCE\xB1\xCE\xB8\xCE\xB7\xCE\xBD\xCE\xB1",
                                      "\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0",
                                      "\xD0\xBC\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0",
                                      "\xE6\x9D\xB1\xE4\xBA\xAC",
                                      "copyright",
                                      "lib",
                                      "doc",
                                      "share",
                                      "usr",
                                      "abc",
                                      "ABC",
                                      "a b",
                                      "x_y",
                                      "na\xC3\xAFve",
                                      "naive",
                                      "test",
                                      "data"};
        static const char *exts[] = {
            "", ".txt", ".TXT", ".so", ".a", ".tar.gz", ".c", ".h", ".\xC3\xA9t\xC3\xA9", ".md"};
        const size_t nw = sizeof words / sizeof *words, ne = sizeof exts / sizeof *exts;
        std::vector<db_ref_t> folders;
        std::set<std::pair<db_ref_t, std::string>> taken;
        db_ref_t root = db_folder_new(db, fs, 0, OS_SEP == '/' ? "" : "C:", OS_SEP == '/' ? 0 : 2);
        add(root, true);
        folders.push_back(root);
        for (uint32_t i = 1; i < n; i++) {
            bool folder = rng() % 4 == 0;
            db_ref_t parent = folders[rng() % folders.size()];
            if (db_record_depth(parent) >= 14)
                parent = root;
            std::string name = words[rng() % nw];
            if (rng() % 3 == 0)
                name += words[rng() % nw];
            if (rng() % 4 == 0)
                name += std::to_string(rng() % 100);
            if (!folder)
                name += exts[rng() % ne];
            // A folder holds each name once.
            if (!taken.insert({parent, name}).second) {
                i--;
                continue;
            }
            db_ref_t r = folder ? db_folder_new(db, fs, parent, name.data(), (uint32_t) name.size())
                                : db_file_new(db, fs, parent, name.data(), (uint32_t) name.size());
            auto col = [&](db_field_t f, uint64_t v) {
                if (folder)
                    db_folder_set(db, r, f, v);
                else
                    db_file_set(db, r, f, v);
            };
            col(DB_FIELD_SIZE, rng() % 10 == 0 ? DB_UNKNOWN : rng() % 5000);
            col(DB_FIELD_DATE_MODIFIED, rng() % 10 == 0 ? DB_UNKNOWN : 130000000000000000ull + rng() % 1000);
            col(DB_FIELD_DATE_CREATED, rng() % 10 == 0 ? DB_UNKNOWN : 130000000000000000ull + rng() % 1000);
            col(DB_FIELD_DATE_ACCESSED, rng() % 10 == 0 ? DB_UNKNOWN : 130000000000000000ull + rng() % 1000);
            col(DB_FIELD_ATTRIBUTES,
                (folder ? 0x10u : 0x20u) | (rng() % 3 == 0 ? 0x02u : 0u) | (rng() % 5 == 0 ? 1u : 0u));
            add(r, folder);
            if (folder)
                folders.push_back(r);
        }
        for (auto &x : recs) {
            if (!x.parent)
                continue;
            ref_record_t &p = recs[at[x.parent]];
            (x.folder ? p.child_folders : p.child_files)++;
            p.child_names.push_back(x.name);
        }
        arrays(bulk);
    }

    // An index of exactly these relative paths under one root ('/' separates; a trailing '/' makes a
    // folder), every folder on the way made once.
    void build_paths(const std::vector<std::string> &paths, uint32_t structure = EXEC_STRUCTURE) {
        text_init_tables();
        db = db_create(nullptr);
        db_structure_set(&db->structure, structure);
        db->is_loaded = true;
        db_fs_t *fs = db_fs_add(db, DB_FS_FOLDER);
        db_ref_t root = db_folder_new(db, fs, 0, OS_SEP == '/' ? "" : "C:", OS_SEP == '/' ? 0 : 2);
        add(root, true);
        std::map<std::string, db_ref_t> made;
        for (const std::string &path : paths) {
            db_ref_t parent = root;
            size_t at = 0;
            while (at < path.size()) {
                size_t end = path.find('/', at);
                bool folder = end != std::string::npos;
                if (!folder)
                    end = path.size();
                std::string part = path.substr(at, end - at), key = path.substr(0, end);
                if (!made.count(key)) {
                    db_ref_t r = folder ? db_folder_new(db, fs, parent, part.data(), (uint32_t) part.size())
                                        : db_file_new(db, fs, parent, part.data(), (uint32_t) part.size());
                    add(r, folder);
                    made[key] = r;
                }
                parent = made[key];
                at = end + 1;
            }
        }
        arrays(true);
    }

    void add(db_ref_t r, bool folder) {
        ref_record_t x;
        x.ref = r, x.folder = folder, x.parent = db_record_parent(r), x.depth = db_record_depth(r);
        uint32_t len;
        const char *name = db_record_name(r, &len);
        x.name.assign(name, len);
        x.path = x.parent ? recs[at[x.parent]].path + OS_SEP + x.name : x.name;
        if (!x.parent && OS_SEP == '/' && x.name.empty())
            x.path = "/";
        if (x.parent && !recs[at[x.parent]].parent && OS_SEP == '/' && recs[at[x.parent]].name.empty())
            x.path = "/" + x.name;
        auto get = [&](db_field_t f) { return folder ? db_folder_get(db, r, f) : db_file_get(db, r, f); };
        x.size = get(DB_FIELD_SIZE), x.dm = get(DB_FIELD_DATE_MODIFIED), x.dc = get(DB_FIELD_DATE_CREATED);
        x.da = get(DB_FIELD_DATE_ACCESSED), x.attributes = (uint32_t) get(DB_FIELD_ATTRIBUTES);
        at[r] = recs.size();
        recs.push_back(x);
    }

    // The sorted arrays, in bulk from a full sort or by one insertion at a time.
    void arrays(bool bulk) {
        for (int folder = 1; folder >= 0; folder--) {
            std::vector<db_ref_t> refs;
            for (auto &x : recs)
                if (x.folder == (folder != 0))
                    refs.push_back(x.ref);
            for (int o = 0; o < DB_ORDER_FRN; o++) {
                mem_array_t *a = db_array(db, (db_order_t) o, folder);
                if (!a)
                    continue;
                if (bulk) {
                    std::vector<db_ref_t> v = refs;
                    std::sort(v.begin(), v.end(), [&](db_ref_t x, db_ref_t y) {
                        return db_compare(db, (db_order_t) o, folder, x, y) < 0;
                    });
                    mem_array_from_flat(a, v.data(), (uint32_t) v.size());
                } else {
                    for (db_ref_t r : refs) {
                        db_key_t key = {db, r, (uint8_t) o, folder != 0, false};
                        mem_array_insert_sorted(a, db_key_compare, &key, r);
                    }
                }
            }
        }
    }

    // What the index's update does with one record: into (or out of) every sorted array of its kind.
    void place(db_ref_t r, bool folder) {
        add(r, folder);
        for (int o = 0; o < DB_ORDER_FRN; o++) {
            mem_array_t *a = db_array(db, (db_order_t) o, folder);
            db_key_t key = {db, r, (uint8_t) o, folder, false};
            if (a)
                mem_array_insert_sorted(a, db_key_compare, &key, r);
        }
    }
    void unplace(db_ref_t r, bool folder) {
        for (int o = 0; o < DB_ORDER_FRN; o++) {
            mem_array_t *a = db_array(db, (db_order_t) o, folder);
            db_key_t key = {db, r, (uint8_t) o, folder, false};
            if (a)
                mem_array_find_remove(a, db_key_compare, &key);
        }
    }

    void destroy() {
        if (db)
            db_destroy(db);
        db = nullptr;
        recs.clear();
        at.clear();
    }
};

// Runs a search to its end on the test's thread: the job is joined and the events it posted are run.
inline void exec_run(db_query_t *q, const char *search, int sort = 0, uint32_t bits = 0,
                     const char *filter = "", uint32_t filter_bits = 0) {
    db_query_search(q, bits & SEARCH_CASE, bits & SEARCH_WHOLEWORD, bits & SEARCH_PATH,
                    bits & SEARCH_DIACRITICS, bits & SEARCH_REGEX, false, false, search, filter_bits, filter,
                    sort, 0, 0, false);
    db_wait(q->db, "test");
    event_dispatch();
}

// The records of the results in result order.
inline std::vector<db_ref_t> exec_results(db_query_t *q) {
    std::vector<db_ref_t> out;
    int n = db_get_result_count(q);
    for (int i = 0; i < n; i++) {
        db_ref_t r;
        bool folder;
        if (_db_result_at(q, i, &r, &folder))
            out.push_back(r);
    }
    return out;
}
