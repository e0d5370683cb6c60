// Result sort: the walk of an index array and the comparison sort must give the same order, each
// direction change is a reversal, and folders without sizes keep name order ahead of every file.
#include "exec_reference.h"

static std::vector<std::string> paths(ref_index_t &idx, db_query_t *q) {
    std::vector<std::string> out;
    for (db_ref_t r : exec_results(q))
        out.push_back(idx.recs[idx.at[r]].path);
    return out;
}

// The same tree twice: with every sorted array, and with the columns alone, where each sort compares.
TEST(ExecSort, ArrayWalkAndComparisonSortAgree) {
    ref_index_t walk, compare;
    walk.build(3000, 33);
    compare.build(3000, 33, true, 0x003Fu);
    db_query_t *a = db_query_create(walk.db, false, nullptr, nullptr);
    db_query_t *b = db_query_create(compare.db, false, nullptr, nullptr);
    for (const char *search : {"", "readme", "!abc"}) {
        for (int sort : {2, 3, 4, 5, 6, 7, 10, 11, 12, 13, 14, 15, 22, 23}) {
            SCOPED_TRACE(std::string(search) + " " + std::to_string(sort));
            exec_run(a, search, sort);
            exec_run(b, search, sort);
            ASSERT_TRUE(paths(walk, a) == paths(compare, b));
            EXPECT_EQ(db_get_sort(b), sort);
            // Then a direction change, and back to a sort the compare index has no array for.
            db_sort(a, sort ^ 1, 0, 0);
            db_sort(b, sort ^ 1, 0, 0);
            db_wait(walk.db, "test"), db_wait(compare.db, "test");
            event_dispatch();
            ASSERT_TRUE(paths(walk, a) == paths(compare, b));
        }
    }
    db_destroy_query(a);
    db_destroy_query(b);
    walk.destroy();
    compare.destroy();
}

TEST(ExecSort, UnknownSizesFirstAndFoldersWithoutSizesByName) {
    ref_index_t idx;
    // Sizes of files only, with their array: folders have no size column.
    idx.build(2000, 35, true, 0x0101u);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    exec_run(q, "", DB_SORT_SIZE);
    std::vector<db_ref_t> rows = exec_results(q);
    size_t folders = q->folder_results.count;
    for (size_t i = 1; i < folders; i++)
        ASSERT_LT(db_name_compare(rows[i - 1], rows[i]), 0);
    bool known_seen = false;
    for (size_t i = folders; i < rows.size(); i++) {
        uint64_t size = idx.recs[idx.at[rows[i]]].size;
        if (size != DB_UNKNOWN) {
            known_seen = true;
        } else {
            ASSERT_FALSE(known_seen) << "an unknown size after a known one";
        }
        if (i > folders && size == idx.recs[idx.at[rows[i - 1]]].size) {
            ASSERT_LT(db_name_compare(rows[i - 1], rows[i]), 0);
        }
    }
    // Descending: files first, unknown sizes last, folders at the end in reverse name order.
    exec_run(q, "", DB_SORT_SIZE + 1);
    std::vector<db_ref_t> down = exec_results(q);
    ASSERT_EQ(down.size(), rows.size());
    EXPECT_EQ(idx.recs[idx.at[down[q->file_results.count - 1]]].size, DB_UNKNOWN);
    EXPECT_EQ(down.back(), rows.front());
    db_destroy_query(q);
    idx.destroy();
}

TEST(ExecSort, TypeSortOfFoldersIsANameSort) {
    ref_index_t idx;
    idx.build(1500, 37);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    exec_run(q, "folder:", DB_SORT_TYPE);
    std::vector<db_ref_t> rows = exec_results(q);
    ASSERT_GT(rows.size(), 10u);
    for (size_t i = 1; i < rows.size(); i++)
        ASSERT_LT(db_name_compare(rows[i - 1], rows[i]), 0);
    db_destroy_query(q);
    idx.destroy();
}
