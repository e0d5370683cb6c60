// Result access and selection: rows resolve the same whether read in sequence or at random, a record finds
// its row back, and the selection follows its records through sorts and new searches, in result order.
#include "exec_reference.h"

struct ResultTest : ::testing::Test {
    static ref_index_t idx;
    static void SetUpTestSuite() { idx.build(4000, 21); }
    static void TearDownTestSuite() { idx.destroy(); }
    db_query_t *q = nullptr;
    void SetUp() override { q = db_query_create(idx.db, false, nullptr, nullptr); }
    void TearDown() override { db_destroy_query(q); }

    std::vector<db_ref_t> selected() {
        std::vector<db_ref_t> out;
        int n = db_get_selection_count(q);
        for (int i = 0; i < n; i++) {
            db_ref_t r;
            bool folder;
            int at = db_get_selection_result_index(q, i);
            if (at >= 0 && _db_result_at(q, at, &r, &folder))
                out.push_back(r);
            else
                out.push_back(0);
        }
        return out;
    }
};
ref_index_t ResultTest::idx;

TEST_F(ResultTest, RowsResolveTheSameInSequenceAndAtRandomAndFindTheirIndexBack) {
    for (int sort : {0, 1, 5, 6, 9, 11}) {
        SCOPED_TRACE(sort);
        exec_run(q, "!abc", sort);
        std::vector<db_ref_t> seq = exec_results(q);
        ASSERT_GT(seq.size(), 1000u);
        std::mt19937 rng(sort);
        for (int k = 0; k < 500; k++) {
            int i = (int) (rng() % seq.size());
            db_ref_t r;
            bool folder;
            ASSERT_TRUE(_db_result_at(q, i, &r, &folder));
            ASSERT_EQ(r, seq[i]);
            ASSERT_EQ(folder, idx.recs[idx.at[r]].folder);
            ASSERT_EQ(_db_result_index_of(q, r, folder), i);
        }
        // Folders lead an ascending list and close a descending one.
        db_ref_t first, last;
        bool ff, lf;
        _db_result_at(q, 0, &first, &ff);
        _db_result_at(q, (int) seq.size() - 1, &last, &lf);
        EXPECT_EQ(ff, (sort & 1) == 0);
        EXPECT_EQ(lf, (sort & 1) != 0);
        str_t s;
        str_init(&s);
        ASSERT_EQ(db_get_result_full_path_name(q, 3, &s), 1);
        EXPECT_EQ(std::string(s.ptr, (size_t) s.len), idx.recs[idx.at[seq[3]]].path);
        str_kill(&s);
    }
}

TEST_F(ResultTest, SelectionFollowsItsRecordsThroughSortsAndSearches) {
    exec_run(q, "readme", 0);
    std::vector<db_ref_t> rows = exec_results(q);
    ASSERT_GT(rows.size(), 20u);
    EXPECT_EQ(db_select_result(q, 5), 1);
    EXPECT_EQ(db_select_result(q, 5), 0);
    EXPECT_EQ(db_select_result(q, 2), 1);
    EXPECT_EQ(db_select_result(q, (int) rows.size() - 1), 1);
    EXPECT_EQ(db_select_result(q, (int) rows.size()), 0);
    // In result order whatever the order of the clicks.
    std::vector<db_ref_t> want = {rows[2], rows[5], rows.back()};
    EXPECT_TRUE(selected() == want);
    // A sort moves the rows; the same records stay selected at their new rows, in the new order.
    exec_run(q, "readme", DB_SORT_SIZE + 1);
    std::vector<db_ref_t> got = selected();
    EXPECT_EQ(std::set<db_ref_t>(got.begin(), got.end()), std::set<db_ref_t>(want.begin(), want.end()));
    for (size_t i = 1; i < got.size(); i++)
        EXPECT_LT(db_get_selection_result_index(q, (int) i - 1), db_get_selection_result_index(q, (int) i));
    // A search that still matches keeps them; one that doesn't drops them; clear_selection drops all.
    std::string exact = "exact:\"" + idx.recs[idx.at[rows[5]]].name + "\"";
    exec_run(q, exact.c_str(), 0);
    std::vector<db_ref_t> still;
    for (db_ref_t r : exec_results(q))
        if (std::find(want.begin(), want.end(), r) != want.end())
            still.push_back(r);
    EXPECT_FALSE(still.empty());
    EXPECT_TRUE(selected() == still);
    db_query_search(q, false, false, false, false, false, false, true, "readme", 0, "", 0, 0, 0, false);
    db_wait(idx.db, "test");
    EXPECT_EQ(db_get_selection_count(q), 0);
}

TEST_F(ResultTest, RangesInvertAndAll) {
    exec_run(q, "resume", 1);
    int n = db_get_result_count(q);
    ASSERT_GT(n, 30);
    db_select_result_range(q, 10, 5);
    db_select_result(q, 3);
    EXPECT_EQ(db_get_selection_count(q), 6);
    for (int i = 0; i < n; i++)
        ASSERT_EQ(db_is_result_selected(q, i), i == 3 || (i >= 10 && i < 15)) << i;
    db_invert_all_selection(q);
    EXPECT_EQ(db_get_selection_count(q), n - 6);
    EXPECT_EQ(db_invert_result_selection(q, 3), 1);
    EXPECT_EQ(db_is_result_selected(q, 3), 1);
    db_select_all(q);
    EXPECT_EQ(db_get_selection_count(q), n);
    for (int i = 0; i < n; i++)
        ASSERT_EQ(db_get_selection_result_index(q, i), i);
    uint64_t total = 0;
    for (auto &r : idx.recs)
        if (!r.folder && ref_contains(r.name, "resume") && r.size != DB_UNKNOWN)
            total += r.size;
    EXPECT_EQ(db_query_get_total_selection_size(q), total);
    db_deselect_all(q);
    EXPECT_EQ(db_get_selection_count(q), 0);
    EXPECT_EQ(db_deselect_result(q, 0), 0);
}

TEST_F(ResultTest, TotalSizeOnlyWhenAsked) {
    db_query_search(q, false, false, false, false, false, false, false, "readme", 0, "", 0, 0, 0, true);
    db_wait(idx.db, "test");
    uint64_t total = 0;
    for (auto &r : idx.recs)
        if (!r.folder && ref_contains(r.name, "readme") && r.size != DB_UNKNOWN)
            total += r.size;
    EXPECT_EQ(db_query_get_total_result_size(q), total);
    exec_run(q, "readme");
    EXPECT_EQ(db_query_get_total_result_size(q), UINT64_MAX);
}

// ---- events to every query
// ---------------------------------------------------------------------------------

struct event_log_t {
    std::vector<int> codes;
    int count(int code) const { return (int) std::count(codes.begin(), codes.end(), code); }
};

static void log_event(void *user, int code, db_query_t *) {
    ((event_log_t *) user)->codes.push_back(code);
}

TEST_F(ResultTest, StatusAndJobEndReachEveryQuery) {
    event_log_t a, b;
    db_query_t *qa = db_query_create(idx.db, false, log_event, &a);
    db_query_t *qb = db_query_create(idx.db, false, log_event, &b);
    event_dispatch();
    a.codes.clear(), b.codes.clear();
    // A status text set (from any thread) is told to each query once the main thread runs its events.
    db_set_status(idx.db, "Loading database...");
    EXPECT_EQ(a.count(DB_QUERY_STATUS), 0);
    event_dispatch();
    EXPECT_EQ(a.count(DB_QUERY_STATUS), 1);
    EXPECT_EQ(b.count(DB_QUERY_STATUS), 1);
    db_set_status(idx.db, nullptr);
    event_dispatch();
    EXPECT_EQ(b.count(DB_QUERY_STATUS), 2);
    // A job's end reaches every query through the wait that gives its thread back, whoever waited, and
    // only once: a second wait has no job to end.
    a.codes.clear(), b.codes.clear();
    db_query_search(qa, false, false, false, false, false, false, false, "readme", 0, "", 0, 0, 0, false);
    db_wait(idx.db, "test");
    db_wait(idx.db, "test");
    EXPECT_EQ(a.count(DB_QUERY_JOB_ENDED), 1);
    EXPECT_EQ(b.count(DB_QUERY_JOB_ENDED), 1);
    db_destroy_query(qa);
    db_destroy_query(qb);
    event_dispatch();
}

// ---- remembered items -------------------------------------------------------------------------------------

TEST_F(ResultTest, RememberedItemsFollowTheirRecordAndLeaveWithIt) {
    exec_run(q, "readme", 0);
    std::vector<db_ref_t> rows = exec_results(q);
    ASSERT_GT(rows.size(), 50u);
    db_itemref_t a = {}, b = {}, out_of_range = {};
    db_itemref_set(q, &a, 7);
    db_itemref_set(q, &b, (int) rows.size() - 1);
    db_itemref_set(q, &out_of_range, (int) rows.size());
    EXPECT_EQ(db_itemref_get(q, &a), 7);
    EXPECT_EQ(db_itemref_get(q, &out_of_range), -1);
    // A new sort moves the rows: each ref finds its record at its new row.
    exec_run(q, "readme", DB_SORT_SIZE + 1);
    for (db_itemref_t *r : {&a, &b}) {
        int at = db_itemref_get(q, r);
        ASSERT_GE(at, 0);
        db_ref_t got;
        bool folder;
        ASSERT_TRUE(_db_result_at(q, at, &got, &folder));
        EXPECT_EQ(got, r->record);
    }
    // A search that no longer holds the record: gone. One that holds it again finds it again.
    std::string only_b = "exact:\"" + idx.recs[idx.at[b.record]].name + "\"";
    exec_run(q, only_b.c_str(), 0);
    EXPECT_EQ(db_itemref_get(q, &a) >= 0,
              ref_lb(idx.recs[idx.at[a.record]].name) == ref_lb(idx.recs[idx.at[b.record]].name));
    EXPECT_GE(db_itemref_get(q, &b), 0);
    exec_run(q, "readme", 0);
    EXPECT_EQ(db_itemref_get(q, &a), 7);
    // A search that clears the selection forgets every row, even one still in the results.
    db_query_search(q, false, false, false, false, false, false, true, "readme", 0, "", 0, 0, 0, false);
    db_wait(idx.db, "test");
    EXPECT_EQ(db_itemref_get(q, &a), -1);
    db_itemref_destroy(q, &a);
    db_itemref_destroy(q, &b);
    db_itemref_destroy(q, &out_of_range);
    EXPECT_EQ(q->itemrefs_head, nullptr);
    EXPECT_EQ(q->itemrefs_root, nullptr);
}

// Many refs, several on one record, set and destroyed in random order: a change of one record reaches
// exactly its refs, which a broken tree (a lost subtree, a ref left behind) would not.
TEST_F(ResultTest, RecordChangeReachesExactlyItsRefs) {
    exec_run(q, "", 0);
    int n = db_get_result_count(q);
    std::mt19937 rng(4);
    std::vector<db_itemref_t> refs(300);
    for (auto &r : refs)
        r = {};
    for (auto &r : refs)
        db_itemref_set(q, &r, (int) (rng() % 40));
    // Some are set again on another row: they must move in the tree, not be linked twice.
    for (size_t i = 0; i < refs.size(); i += 3)
        db_itemref_set(q, &refs[i], (int) (rng() % 40));
    std::vector<size_t> order(refs.size());
    for (size_t i = 0; i < order.size(); i++)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<bool> live(refs.size(), true);
    for (size_t k = 0; k < order.size() / 2; k++) {
        db_itemref_destroy(q, &refs[order[k]]);
        live[order[k]] = false;
    }
    size_t listed = 0;
    for (db_itemref_t *r = q->itemrefs_head; r; r = r->next)
        listed++;
    EXPECT_EQ(listed, refs.size() / 2);
    for (int row = 0; row < 40 && row < n; row++) {
        db_ref_t record;
        bool folder;
        ASSERT_TRUE(_db_result_at(q, row, &record, &folder));
        db_itemrefs_reset(q, row + 100000);
        db_itemrefs_record_changed(q, record);
        for (size_t i = 0; i < refs.size(); i++) {
            if (!live[i])
                continue;
            ASSERT_EQ(refs[i].index == -2, refs[i].record == record) << row << " " << i;
        }
    }
    for (size_t i = 0; i < refs.size(); i++)
        if (live[i])
            db_itemref_destroy(q, &refs[i]);
    EXPECT_EQ(q->itemrefs_root, nullptr);
}

// ---- more of a row ----------------------------------------------------------------------------------------

TEST_F(ResultTest, RowTextsPathsAndGhosts) {
    exec_run(q, "", 0);
    int n = db_get_result_count(q);
    str_t s;
    str_init(&s);
    std::mt19937 rng(8);
    for (int k = 0; k < 300; k++) {
        int i = (int) (rng() % (uint32_t) n);
        db_ref_t r;
        bool folder;
        ASSERT_TRUE(_db_result_at(q, i, &r, &folder));
        const ref_record_t &x = idx.recs[idx.at[r]];
        db_get_result_extension(q, i, &s);
        EXPECT_EQ(std::string(s.ptr, (size_t) s.len), x.folder ? "" : ref_ext(x.name)) << x.name;
        // Every row is found again by its path, in any case as long as no other path differs only so.
        EXPECT_EQ(db_get_result_index_from_filename(q, x.path.c_str()), i) << x.path;
        EXPECT_EQ(db_get_result_file_list_filename(q, i, &s), 1);
        EXPECT_EQ(s.len, 0);
        EXPECT_EQ(db_get_result_run_count(q, i), 0u);
    }
    std::string missing = idx.recs[1].path + OS_SEP + "no such name";
    EXPECT_EQ(db_get_result_index_from_filename(q, missing.c_str()), -1);
    // Found in the index but not in these results.
    exec_run(q, "readme", 0);
    for (auto &x : idx.recs)
        if (!ref_contains(x.name, "readme") && x.parent) {
            EXPECT_EQ(db_get_result_index_from_filename(q, x.path.c_str()), -1);
            break;
        }
    // Ghosts are the records selected when they were made, whatever the rows do afterwards.
    db_select_result_range(q, 3, 4);
    db_ghost_selection(q);
    db_deselect_all(q);
    std::set<int> rows;
    for (int i = 0; i < db_get_result_count(q); i++)
        if (db_is_ghost_result(q, i))
            rows.insert(i);
    EXPECT_EQ(rows, (std::set<int>{3, 4, 5, 6}));
    db_clear_ghosts(q);
    EXPECT_EQ(db_is_ghost_result(q, 3), 0);
    str_kill(&s);
}

// Type-ahead against a walk of the rows: in name order the first row from start whose name is not below
// the text (each kind's array is in name order), in any other order the first whose name begins with it;
// both wrap to the top once.
TEST_F(ResultTest, TypeAheadFindsTheNearestRowAndWraps) {
    auto walk = [&](const std::string &text, int start, bool by_name) {
        int n = db_get_result_count(q);
        for (int pass = 0; pass < 2; pass++) {
            for (int i = pass ? 0 : start; i < (pass ? start : n); i++) {
                db_ref_t r;
                bool folder;
                _db_result_at(q, i, &r, &folder);
                const std::string &name = idx.recs[idx.at[r]].name;
                bool hit =
                    by_name ? utf8_compare_lower_base(name.data(), name.size(), text.data(), text.size()) >= 0
                            : ref_lb(name).compare(0, ref_lb(text).size(), ref_lb(text)) == 0;
                if (hit)
                    return i;
            }
        }
        return -1;
    };
    const char *texts[] = {"r", "RE", "read", "r\xC3\xA9s", "zzz", "a", "\xCE\xB1", "", "data1"};
    for (int sort : {0, 5}) {
        exec_run(q, "!abc", sort);
        int n = db_get_result_count(q);
        for (const char *t : texts)
            for (int start : {0, 1, n / 3, n / 2, n - 2}) {
                SCOPED_TRACE(std::string(t) + " sort " + std::to_string(sort) + " from " +
                             std::to_string(start));
                EXPECT_EQ(db_find_nearest_string_match_result(q, t, (int) strlen(t), start),
                          walk(t, start, sort == 0));
            }
    }
    // Folders named share..., files named readme...: from the first file nothing is at or above "s", so
    // the search wraps to the first folder at the top.
    exec_run(q, "<folder: regex:^share> | <file: regex:^readme>", 0);
    int folders = db_get_folder_result_count(q);
    ASSERT_GT(folders, 0);
    ASSERT_GT(db_get_file_result_count(q), 0);
    EXPECT_EQ(db_find_nearest_string_match_result(q, "s", 1, folders), 0);
    EXPECT_EQ(db_find_nearest_string_match_result(q, "t", 1, folders), -1);
}

// ---- live results
// ------------------------------------------------------------------------------------------

// Records added and removed one at a time, as the index's update does, keep each query's results equal
// to a fresh search's under its own sort; the selection, the ghosts and the remembered rows let a removed
// record go; a count: limit stays full.
TEST(LiveResults, AddedAndRemovedRecordsKeepEachQueryAsAFreshSearch) {
    ref_index_t idx;
    idx.build(1500, 19);
    event_log_t log;
    const int sorts[] = {DB_SORT_NAME, DB_SORT_SIZE + 1, DB_SORT_PATH, DB_SORT_DATE_MODIFIED + 1};
    std::vector<db_query_t *> live;
    for (int sort : sorts) {
        live.push_back(db_query_create(idx.db, false, log_event, &log));
        exec_run(live.back(), "readme", sort);
    }
    db_query_t *limited = db_query_create(idx.db, false, nullptr, nullptr);
    exec_run(limited, "count:5 readme", 0);
    db_query_t *fresh = db_query_create(idx.db, false, nullptr, nullptr);
    auto check = [&](const char *when) {
        for (size_t k = 0; k < live.size(); k++) {
            exec_run(fresh, "readme", sorts[k]);
            EXPECT_TRUE(exec_results(live[k]) == exec_results(fresh)) << when << " sort " << sorts[k];
        }
        EXPECT_EQ(db_get_result_count(limited), 5);
    };
    std::mt19937 rng(19);
    std::vector<db_ref_t> folders;
    for (auto &r : idx.recs)
        if (r.folder)
            folders.push_back(r.ref);
    db_fs_t *fs = idx.db->fs_first;
    std::vector<std::pair<db_ref_t, bool>> added;
    for (int i = 0; i < 60; i++) {
        bool folder = i % 4 == 0;
        std::string name = (i % 3 ? "ReadMe_new" : "other") + std::to_string(i) + (folder ? "" : ".txt");
        db_ref_t parent = folders[rng() % folders.size()];
        db_ref_t r = folder ? db_folder_new(idx.db, fs, parent, name.data(), (uint32_t) name.size())
                            : db_file_new(idx.db, fs, parent, name.data(), (uint32_t) name.size());
        (folder ? db_folder_set : db_file_set)(idx.db, r, DB_FIELD_SIZE, rng() % 3000);
        (folder ? db_folder_set : db_file_set)(idx.db, r, DB_FIELD_DATE_MODIFIED,
                                               130000000000000000ull + rng() % 999);
        idx.place(r, folder);
        db_queries_record_added(idx.db, r, folder);
        added.push_back({r, folder});
    }
    log.codes.clear();
    event_dispatch();
    EXPECT_EQ(log.count(DB_QUERY_RESULTS), (int) live.size());
    check("after adding");
    // A selected, remembered, ghosted record goes: it leaves all three; the other selected row stays.
    db_query_t *q = live[0];
    int row = -1;
    for (int i = 0; i < db_get_result_count(q) && row < 0; i++) {
        db_ref_t r;
        bool f;
        _db_result_at(q, i, &r, &f);
        if (r == added[1].first)
            row = i;
    }
    ASSERT_GE(row, 0);
    db_select_result(q, row);
    db_select_result(q, row == 0 ? 1 : 0);
    db_ghost_selection(q);
    db_itemref_t ref = {};
    db_itemref_set(q, &ref, row);
    for (auto &[r, folder] : added) {
        if (r == added[1].first || rng() % 2) {
            db_queries_record_removed(idx.db, r, folder);
            idx.unplace(r, folder);
        }
    }
    check("after removing");
    EXPECT_EQ(db_get_selection_count(q), 1);
    EXPECT_EQ(db_itemref_get(q, &ref), -1);
    int ghosts = 0;
    for (int i = 0; i < db_get_result_count(q); i++)
        ghosts += db_is_ghost_result(q, i);
    EXPECT_EQ(ghosts, 1);
    db_itemref_destroy(q, &ref);
    for (db_query_t *x : live)
        db_destroy_query(x);
    db_destroy_query(limited);
    db_destroy_query(fresh);
    event_dispatch();
    idx.destroy();
}

// The selection's total size follows single rows in and out, and is summed again when a new result set
// takes selected records away.
TEST_F(ResultTest, SelectionTotalFollowsRowsAndNewResults) {
    exec_run(q, "readme", 0);
    auto size_of = [&](int row) {
        db_ref_t r;
        bool folder;
        _db_result_at(q, row, &r, &folder);
        const ref_record_t &x = idx.recs[idx.at[r]];
        return x.folder || x.size == DB_UNKNOWN ? 0 : x.size;
    };
    auto sum_selected = [&]() {
        uint64_t total = 0;
        for (int i = 0; i < db_get_result_count(q); i++)
            if (db_is_result_selected(q, i))
                total += size_of(i);
        return total;
    };
    int n = db_get_result_count(q);
    for (int row : {n - 1, n - 3, n - 5, n - 7, 0})
        db_select_result(q, row);
    EXPECT_EQ(db_query_get_total_selection_size(q), sum_selected());
    db_deselect_result(q, n - 3);
    db_invert_result_selection(q, n - 9);
    EXPECT_EQ(db_query_get_total_selection_size(q), sum_selected());
    // Keep only the names of two selected files: the others leave the selection and its total.
    db_ref_t a, b;
    bool fa, fb;
    _db_result_at(q, n - 1, &a, &fa);
    _db_result_at(q, n - 5, &b, &fb);
    std::string two =
        "exact:\"" + idx.recs[idx.at[a]].name + "\" | exact:\"" + idx.recs[idx.at[b]].name + "\"";
    uint64_t want = size_of(n - 1) + size_of(n - 5);
    exec_run(q, two.c_str(), 0);
    EXPECT_GE(db_get_selection_count(q), 2);
    EXPECT_EQ(db_query_get_total_selection_size(q), sum_selected());
    if (db_get_selection_count(q) == 2) {
        EXPECT_EQ(db_query_get_total_selection_size(q), want);
    }
}
