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
