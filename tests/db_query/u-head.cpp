// The head list: with a test history lending entries, a history sort shows the results that have an entry
// as those entries in the side list's order, ahead of the rest when descending and behind them (the whole
// list reversed) when ascending; the rest stand in name order; a sort back gives the records back to
// their arrays; selection and remembered rows follow records between the head list and the arrays.
#include "exec_reference.h"

// Run history entries: [count][record][is folder]; recent change entries: [record][is folder][pad][date],
// so that each kind is read at its own offsets.
struct test_history_t {
    std::map<db_ref_t, uint32_t> count;
    std::map<db_ref_t, uint32_t> date;
    std::map<db_ref_t, mem_ref_t> run_entry, recent_entry;
    mem_array_t by_count = {}, by_date = {};
};
static test_history_t *history;

static const mem_array_t *test_side_list(db_t *, int sort) {
    return (sort & ~1) == DB_SORT_DATE_RECENTLY_CHANGED ? &history->by_date : &history->by_count;
}

static uint64_t test_value(db_query_t *, db_ref_t record, bool, db_query_value_t what) {
    auto &m = what == DB_QV_RUN_COUNT ? history->count : history->date;
    if (what != DB_QV_RUN_COUNT && what != DB_QV_DATE_RECENTLY_CHANGED)
        return DB_UNKNOWN;
    auto it = m.find(record);
    return it == m.end() ? DB_UNKNOWN : it->second;
}

struct HeadTest : ::testing::Test {
    ref_index_t idx;
    test_history_t h;
    db_query_t *q = nullptr;

    void SetUp() override {
        idx.build(1500, 77);
        history = &h;
        std::mt19937 rng(77);
        std::vector<std::pair<uint32_t, mem_ref_t>> runs, recents;
        for (auto &r : idx.recs) {
            if (rng() % 6 == 0) {
                uint32_t count = rng() % 5 + 1;
                mem_ref_t e = db_record_alloc(idx.db, 12);
                uint8_t *p = db_ptr(e);
                memcpy(p, &count, 4), memcpy(p + 4, &r.ref, 4), p[8] = r.folder;
                h.count[r.ref] = count, h.run_entry[r.ref] = e;
                runs.push_back({count, e});
            }
            if (rng() % 7 == 0) {
                uint32_t date = rng() % 1000;
                mem_ref_t e = db_record_alloc(idx.db, 12);
                uint8_t *p = db_ptr(e);
                memcpy(p, &r.ref, 4), p[4] = r.folder, memcpy(p + 8, &date, 4);
                h.date[r.ref] = date, h.recent_entry[r.ref] = e;
                recents.push_back({date, e});
            }
        }
        for (auto *list : {&runs, &recents}) {
            std::sort(list->begin(), list->end());
            std::vector<mem_ref_t> v;
            for (auto &x : *list)
                v.push_back(x.second);
            mem_array_from_flat(list == &runs ? &h.by_count : &h.by_date, v.data(), (uint32_t) v.size());
        }
        db_query_history = {test_side_list, {4, 0}, {8, 4}};
        db_query_provider.value = test_value;
        q = db_query_create(idx.db, false, nullptr, nullptr);
    }
    void TearDown() override {
        db_destroy_query(q);
        db_query_history_reset();
        db_query_provider_reset();
        mem_array_kill(&h.by_count);
        mem_array_kill(&h.by_date);
        idx.destroy();
    }

    // The rows a history sort must give, built from the name-sorted results: the descending form is the
    // side list's entries of result records from its end, then folders and files without an entry.
    std::vector<db_ref_t> expected(const std::vector<db_ref_t> &by_name, int sort) {
        bool recent = (sort & ~1) == DB_SORT_DATE_RECENTLY_CHANGED;
        const mem_array_t *side = recent ? &h.by_date : &h.by_count;
        auto &entries = recent ? h.recent_entry : h.run_entry;
        std::set<db_ref_t> in(by_name.begin(), by_name.end());
        std::vector<db_ref_t> rows;
        for (uint32_t i = side->count; i-- > 0;) {
            mem_ref_t e = mem_array_get(side, i);
            db_ref_t r;
            memcpy(&r, db_ptr(e) + (recent ? 0 : 4), 4);
            if (in.count(r))
                rows.push_back(r);
        }
        for (db_ref_t r : by_name)
            if (!entries.count(r))
                rows.push_back(r);
        if ((sort & 1) == 0)
            std::reverse(rows.begin(), rows.end());
        return rows;
    }
};

TEST_F(HeadTest, HistorySortsLeadWithEntriesAndAscendingIsTheReverse) {
    exec_run(q, "readme", 0);
    std::vector<db_ref_t> by_name = exec_results(q);
    ASSERT_GT(by_name.size(), 100u);
    for (int sort : {19, 18, 21, 20, 25, 24}) {
        SCOPED_TRACE(sort);
        // Straight from a search, and as a sort of results in another order.
        exec_run(q, "readme", sort);
        std::vector<db_ref_t> want = expected(by_name, sort);
        EXPECT_TRUE(exec_results(q) == want);
        EXPECT_GT(q->head_results.count, 0u);
        exec_run(q, "readme", DB_SORT_SIZE);
        db_sort(q, sort, 0, 0);
        db_wait(idx.db, "test");
        EXPECT_TRUE(exec_results(q) == want);
        // Rows of the head list tell their kind and value; the others have none.
        bool recent = (sort & ~1) == DB_SORT_DATE_RECENTLY_CHANGED;
        for (int i = 0; i < (int) want.size(); i++) {
            const ref_record_t &x = idx.recs[idx.at[want[i]]];
            ASSERT_EQ(db_is_folder_result(q, i), (int) x.folder) << i;
            uint64_t v = recent ? db_get_result_date_recently_changed(q, i) : db_get_result_run_count(q, i);
            auto &m = recent ? h.date : h.count;
            ASSERT_EQ(v, m.count(want[i]) ? m[want[i]] : 0u) << i;
            ASSERT_EQ(_db_result_index_of(q, want[i], x.folder), i);
        }
    }
    // Back to name order: the head records are in their arrays again.
    db_sort(q, DB_SORT_NAME, 0, 0);
    db_wait(idx.db, "test");
    EXPECT_EQ(q->head_results.count, 0u);
    EXPECT_TRUE(exec_results(q) == by_name);
}

TEST_F(HeadTest, SelectionAndRememberedRowsMoveBetweenHeadAndArrays) {
    exec_run(q, "", 0);
    std::vector<db_ref_t> by_name = exec_results(q);
    // One record with a run history entry, one without, both selected and remembered in name order.
    int with = -1, without = -1;
    for (int i = 0; i < (int) by_name.size() && (with < 0 || without < 0); i++)
        (h.run_entry.count(by_name[i]) ? with : without) = i;
    ASSERT_TRUE(with >= 0 && without >= 0);
    db_select_result(q, with);
    db_select_result(q, without);
    db_itemref_t ref = {};
    db_itemref_set(q, &ref, with);
    for (int sort : {19, 18, 21, 0, 19}) {
        SCOPED_TRACE(sort);
        db_sort(q, sort, 0, 0);
        db_wait(idx.db, "test");
        std::vector<db_ref_t> rows = exec_results(q);
        std::vector<int> selected_rows;
        for (int i = 0; i < (int) rows.size(); i++)
            if (db_is_result_selected(q, i))
                selected_rows.push_back(i);
        ASSERT_EQ(selected_rows.size(), 2u);
        EXPECT_EQ(std::set<db_ref_t>({rows[selected_rows[0]], rows[selected_rows[1]]}),
                  std::set<db_ref_t>({by_name[with], by_name[without]}));
        // In result order, whichever of the two now stands in the head list.
        EXPECT_EQ(db_get_selection_result_index(q, 0), selected_rows[0]);
        EXPECT_EQ(db_get_selection_result_index(q, 1), selected_rows[1]);
        EXPECT_EQ(rows[db_itemref_get(q, &ref)], by_name[with]);
    }
    // In the head list rows are selected, inverted and ranged like any other.
    int head = (int) q->head_results.count;
    ASSERT_GT(head, 3);
    db_deselect_all(q);
    db_select_result_range(q, 0, 3);
    EXPECT_EQ(db_get_selection_count(q), 3);
    EXPECT_EQ(db_deselect_result(q, 1), 1);
    EXPECT_EQ(db_is_result_selected(q, 1), 0);
    db_invert_all_selection(q);
    EXPECT_EQ(db_get_selection_count(q), (int) by_name.size() - 2);
    db_sort(q, DB_SORT_NAME, 0, 0);
    db_wait(idx.db, "test");
    EXPECT_EQ(db_get_selection_count(q), (int) by_name.size() - 2);
    db_itemref_destroy(q, &ref);
}

// Until a history lends its lists there is no head list: a history sort is the name order, the ascending
// form reversed, and every value 0.
TEST(HeadDefault, NoHistoryNoHead) {
    ref_index_t idx;
    idx.build(800, 3);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    exec_run(q, "readme", 0);
    std::vector<db_ref_t> by_name = exec_results(q);
    exec_run(q, "readme", DB_SORT_RUN_COUNT + 1);
    EXPECT_TRUE(exec_results(q) == by_name);
    exec_run(q, "readme", DB_SORT_RUN_COUNT);
    std::reverse(by_name.begin(), by_name.end());
    EXPECT_TRUE(exec_results(q) == by_name);
    EXPECT_EQ(db_get_result_run_count(q, 0), 0u);
    db_destroy_query(q);
    idx.destroy();
}
