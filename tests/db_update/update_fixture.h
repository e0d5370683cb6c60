// Shared helpers of the live update tests: a plain model of a tree (nodes with names, parents and values,
// nothing sorted), an index built fresh from the model by the build's own sorts, and the comparison of
// every array of two indexes as sequences of paths and values.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "db_query/db_query.h"
#include "db_update/db_update.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "text/text.h"

inline void update_test_init() {
    static bool once = false;
    if (!once) {
        debug_init();
        text_init_tables();
        event_init();
        // SW_TEST_CONSOLE=1 shows the index's log while a test runs.
        if (getenv("SW_TEST_CONSOLE"))
            debug_set_console(true);
        once = true;
    }
}

inline std::string full_path_of(db_ref_t r) {
    str_t s;
    str_init(&s);
    db_get_full_path(&s, r);
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

// The root's name: a source path with separators in it, as a folder source's root has.
inline std::string model_root_name() {
    return OS_SEP == '/' ? "/srv/data" : "D:\\data";
}

struct model_node_t {
    bool folder;
    bool alive;
    int parent; // -1 for the root
    std::string name;
    uint64_t size, dc, dm, da; // a folder's size is derived, not stored here
    uint32_t attributes;
    uint64_t frn;
};

// The tree as the test believes it is. Folder sizes and child counts are computed from it on demand.
struct model_t {
    std::vector<model_node_t> nodes;
    uint64_t next_frn = 0x100;

    int add(bool folder, int parent, const std::string &name) {
        model_node_t n = {folder,     true,       parent,     name, folder ? 0 : DB_UNKNOWN,
                          DB_UNKNOWN, DB_UNKNOWN, DB_UNKNOWN, 0,    0};
        if (folder)
            n.frn = parent < 0 ? DB_NTFS_ROOT_FRN : next_frn++;
        nodes.push_back(n);
        return (int) nodes.size() - 1;
    }
    std::string path(int i) const {
        if (nodes[i].parent < 0)
            return nodes[i].name;
        return path(nodes[i].parent) + OS_SEP + nodes[i].name;
    }
    bool below(int i, int top) const {
        for (; i >= 0; i = nodes[i].parent)
            if (i == top)
                return true;
        return false;
    }
    // The alive child of parent with exactly this name, or -1.
    int child(int parent, const std::string &name) const {
        for (size_t i = 0; i < nodes.size(); i++)
            if (nodes[i].alive && nodes[i].parent == parent && nodes[i].name == name)
                return (int) i;
        return -1;
    }
    void kill(int top) {
        for (size_t i = 0; i < nodes.size(); i++)
            if (nodes[i].alive && below((int) i, top))
                nodes[i].alive = false;
    }
    uint64_t folder_size(int f) const {
        uint64_t sum = 0;
        for (size_t i = 0; i < nodes.size(); i++)
            if (nodes[i].alive && !nodes[i].folder && nodes[i].size != DB_UNKNOWN && below((int) i, f))
                sum += nodes[i].size;
        return sum;
    }
    uint32_t child_count(int f) const {
        uint32_t n = 0;
        for (const auto &x : nodes)
            n += x.alive && x.parent == f;
        return n;
    }
    std::vector<int> alive(bool folder) const {
        std::vector<int> out;
        for (size_t i = 0; i < nodes.size(); i++)
            if (nodes[i].alive && nodes[i].folder == folder)
                out.push_back((int) i);
        return out;
    }
};

// A line for a record: its path, kind and every value the index keeps, so that two indexes compare by
// content, not by address.
inline std::string describe(const db_t *db, db_ref_t r, bool folder) {
    auto get = folder ? db_folder_get : db_file_get;
    std::ostringstream o;
    o << (folder ? "D " : "F ") << full_path_of(r) << " |" << get(db, r, DB_FIELD_SIZE) << " "
      << get(db, r, DB_FIELD_DATE_CREATED) << " " << get(db, r, DB_FIELD_DATE_MODIFIED) << " "
      << get(db, r, DB_FIELD_DATE_ACCESSED) << " " << get(db, r, DB_FIELD_ATTRIBUTES);
    if (folder) {
        o << " c" << db_folder_child_count(db, r);
        if (const uint8_t *frn = db_record_frn(db, r)) {
            uint64_t v;
            memcpy(&v, frn, 8);
            o << " frn" << v;
        }
    }
    return o.str();
}

inline std::vector<std::string> describe_array(const db_t *db, const mem_array_t *a, bool folder) {
    std::vector<std::string> out;
    int c = 0, p = -1;
    for (db_ref_t r; (r = mem_array_next(a, &c, &p));)
        out.push_back(describe(db, r, folder));
    return out;
}

// An index made fresh from the model, as a build makes it: records, then the build's own sorts of names,
// paths and values.
inline db_t *fresh_index(const model_t &m, uint32_t word, uint32_t fs_type,
                         const db_exclude_t *exclude = nullptr) {
    db_t *db = db_create(nullptr);
    db_structure_set(&db->structure, word);
    db_fs_t *fs = db_fs_add(db, fs_type);
    (void) exclude;
    std::vector<db_ref_t> ref(m.nodes.size(), 0);
    std::vector<db_ref_t> folders, files;
    // Parents come before their children in the model's node order only when never moved, so make
    // records by depth.
    std::vector<int> order;
    for (size_t i = 0; i < m.nodes.size(); i++)
        if (m.nodes[i].alive)
            order.push_back((int) i);
    auto depth = [&](int i) {
        int d = 0;
        for (; m.nodes[i].parent >= 0; i = m.nodes[i].parent)
            d++;
        return d;
    };
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return depth(a) < depth(b); });
    for (int i : order) {
        const model_node_t &n = m.nodes[i];
        db_ref_t parent = n.parent < 0 ? 0 : ref[n.parent];
        db_ref_t r = n.folder ? db_folder_new(db, fs, parent, n.name.data(), (uint32_t) n.name.size())
                              : db_file_new(db, fs, parent, n.name.data(), (uint32_t) n.name.size());
        ref[i] = r;
        auto set = n.folder ? db_folder_set : db_file_set;
        set(db, r, DB_FIELD_SIZE, n.folder ? m.folder_size(i) : n.size);
        set(db, r, DB_FIELD_DATE_CREATED, n.dc);
        set(db, r, DB_FIELD_DATE_MODIFIED, n.dm);
        set(db, r, DB_FIELD_DATE_ACCESSED, n.da);
        set(db, r, DB_FIELD_ATTRIBUTES, n.attributes);
        if (n.folder) {
            if (uint8_t *frn = db_record_frn(db, r)) {
                memcpy(frn, &n.frn, 8);
                if (fs_type == DB_FS_REFS) {
                    uint64_t high = n.frn * 7;
                    memcpy(frn + 8, &high, 8);
                }
            }
            db_folder_set_child_count(db, r, m.child_count(i));
            folders.push_back(r);
        } else {
            files.push_back(r);
        }
    }
    db_build_ranks_t ranks;
    db_build_ranks_init(&ranks, folders.data(), (uint32_t) folders.size(), nullptr, nullptr, 0);
    for (int folder = 1; folder >= 0; folder--) {
        std::vector<db_ref_t> &v = folder ? folders : files;
        uint32_t n = (uint32_t) v.size();
        if (!n) // the arrays stay empty; the sorts want something to sort
            continue;
        db_build_sort_names(v.data(), n, &ranks);
        mem_array_from_flat(db_array(db, DB_ORDER_NAME, folder), v.data(), n);
        std::vector<db_ref_t> out(n + 1);
        for (int o = DB_ORDER_PATH; o < DB_ORDER_FRN; o++) {
            mem_array_t *a = db_array(db, (db_order_t) o, folder);
            if (!a)
                continue;
            if (o == DB_ORDER_PATH)
                db_build_path_order(v.data(), n, &ranks, out.data());
            else
                db_build_value_order(db, (db_order_t) o, folder, v.data(), n, out.data());
            mem_array_from_flat(a, out.data(), n);
        }
    }
    if (mem_array_t *a = db_frn_array(db, fs_type)) {
        std::vector<db_ref_t> v = folders;
        std::sort(v.begin(), v.end(), [&](db_ref_t x, db_ref_t y) { return db_frn_compare(db, x, y) < 0; });
        mem_array_from_flat(a, v.data(), (uint32_t) v.size());
    }
    db_build_ranks_kill(&ranks);
    return db;
}

// Every array of the two indexes, element by element, as paths and values.
inline void expect_same_arrays(db_t *live, db_t *fresh, uint32_t fs_type, const std::string &when) {
    for (int folder = 1; folder >= 0; folder--) {
        for (int o = DB_ORDER_NAME; o < DB_ORDER_FRN; o++) {
            mem_array_t *a = db_array(live, (db_order_t) o, folder),
                        *b = db_array(fresh, (db_order_t) o, folder);
            ASSERT_EQ(a == nullptr, b == nullptr);
            if (!a)
                continue;
            ASSERT_TRUE(mem_array_check(a)) << when;
            std::vector<std::string> x = describe_array(live, a, folder),
                                     y = describe_array(fresh, b, folder);
            if (x != y) {
                size_t i = 0;
                while (i < x.size() && i < y.size() && x[i] == y[i])
                    i++;
                FAIL() << when << ": order " << o << (folder ? " folders" : " files") << " differs at " << i
                       << " of " << x.size() << "/" << y.size() << "\n live:  " << (i < x.size() ? x[i] : "-")
                       << "\n fresh: " << (i < y.size() ? y[i] : "-");
            }
        }
    }
    mem_array_t *a = db_frn_array(live, fs_type), *b = db_frn_array(fresh, fs_type);
    if (fs_type == DB_FS_NTFS || fs_type == DB_FS_REFS) {
        ASSERT_TRUE(mem_array_check(a));
        EXPECT_EQ(describe_array(live, a, true), describe_array(fresh, b, true)) << when << ": FRN array";
    }
}

// Log lines written while an object of this lives, read back from a log file of its own.
struct log_capture_t {
    std::string path;
    log_capture_t() {
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        path = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP + "sw-update-log-" +
               std::to_string(os_thread_id()) + ".txt";
        str_kill(&tmp);
        debug_open_log_path(path.c_str());
    }
    std::string text() {
        std::ifstream in(path, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    ~log_capture_t() {
        debug_close_log();
        std::remove(path.c_str());
    }
};
