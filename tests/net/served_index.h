// A server over the execution tests' reference index, run as the program runs it: each test has the main
// loop, and the program's index is the reference's for the test's length. The in-process answer of a
// search is at hand to hold the server's against, record by record.
//
// Invariants: serve_begin is the first call of a test's SetUp and serve_end the last of its TearDown;
// the index is built once for the suite and never changed by a test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "db_query/exec_table.h"
#include "debug/debug.h"
#include "main/main.h"
#include "net/loopback.h"

struct served_index_test : ::testing::Test {
    static inline ref_index_t idx;
    static void SetUpTestSuite() {
        event_init();
        idx.build(5000, 7);
    }
    static void TearDownTestSuite() { idx.destroy(); }
    // Results reach the servers as events, which the loop's wake-up hands out as in the program.
    static void wake() { event_dispatch(); }

    db_t *saved_db = nullptr;
    char bindings[16] = "127.0.0.1";

    void serve_begin(const char *class_name) {
        debug_init();
        static const os_main_procs_t procs = {wake, nullptr, nullptr};
        ASSERT_TRUE(os_main_loop_create(class_name, nullptr, &procs));
        saved_db = db;
        db = idx.db;
    }
    void serve_end() {
        db = saved_db;
        os_main_loop_destroy();
    }

    // The window [offset, offset + count) of the in-process answer to a search under a sort and flags, and
    // in *total the number of all its results.
    static std::vector<db_ref_t> answer(const std::string &search, int sort, uint32_t bits, uint32_t offset,
                                        uint32_t count, size_t *total) {
        db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
        exec_run(q, search.c_str(), sort, bits);
        std::vector<db_ref_t> all = exec_results(q);
        db_destroy_query(q);
        *total = all.size();
        std::vector<db_ref_t> out;
        for (uint64_t i = offset; i < all.size() && i < (uint64_t) offset + count; i++) {
            out.push_back(all[i]);
        }
        return out;
    }
    static const ref_record_t &record(db_ref_t r) { return idx.recs[idx.at[r]]; }
    // What a result's path column shows: the full path of its folder, empty for a root.
    static std::string folder_path(db_ref_t r) {
        const ref_record_t &x = record(r);
        return x.parent ? record(x.parent).path : std::string();
    }
};
