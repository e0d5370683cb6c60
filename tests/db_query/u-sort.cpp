// Result sort: the walk of an index array and the comparison sort must give the same order, each
// direction change is a reversal, and folders without sizes keep name order ahead of every file.
#include "db_query/exec_internal.h"
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

// Sorts the query's results by sort on the test's thread and runs the events.
static void sort_now(ref_index_t &idx, db_query_t *q, int sort) {
    db_sort(q, sort, 0, 0);
    db_wait(idx.db, "test");
    event_dispatch();
}

// The whole result order against the record comparator of the installed sort (which already runs
// backwards for a descending sort): folders and files each in
// strictly increasing order (a total order admits only one such sequence), folders ahead of files exactly
// for an ascending sort.
static void expect_in_sort_order(ref_index_t &idx, db_query_t *q, const std::vector<db_ref_t> &rows) {
    size_t folders = q->folder_results.count;
    bool ascending = (db_get_sort(q) & 1) == 0;
    size_t first_folder = ascending ? 0 : rows.size() - folders;
    for (size_t i = 0; i < rows.size(); i++) {
        bool folder = i >= first_folder && i < first_folder + folders;
        ASSERT_EQ(idx.recs[idx.at[rows[i]]].folder, folder) << i;
        if (i && idx.recs[idx.at[rows[i - 1]]].folder == folder) {
            int d = db_query_result_compare(q, folder, rows[i - 1], rows[i]);
            ASSERT_LT(d, 0) << "rows " << i - 1 << " and " << i;
        }
    }
}

// Columns without arrays (all stored, and none stored so that every value is unknown), from results that
// stand in name order, reversed name order and another column's order.
TEST(ExecSort, KeyedSortGivesTheComparatorOrderFromAnyStart) {
    for (uint32_t structure : {0x003Fu, 0x0000u}) {
        ref_index_t idx;
        idx.build(2500, 41, true, structure);
        db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
        for (const char *search : {"", "readme", "!abc"}) {
            for (int start : {0, 1, 2, 13}) {
                for (int sort : {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 22, 23}) {
                    SCOPED_TRACE(std::to_string(structure) + " '" + search + "' " + std::to_string(start) +
                                 " -> " + std::to_string(sort));
                    exec_run(q, search, start);
                    std::vector<db_ref_t> before = exec_results(q);
                    sort_now(idx, q, sort);
                    EXPECT_EQ(db_get_sort(q), sort);
                    EXPECT_TRUE(q->sorted);
                    std::vector<db_ref_t> rows = exec_results(q);
                    ASSERT_EQ(rows.size(), before.size());
                    std::sort(before.begin(), before.end());
                    std::vector<db_ref_t> same = rows;
                    std::sort(same.begin(), same.end());
                    ASSERT_TRUE(same == before);
                    expect_in_sort_order(idx, q, rows);
                }
            }
        }
        db_destroy_query(q);
        idx.destroy();
    }
}

// Enough records for the merge of several slices, with many equal keys (a few extensions, unknown dates).
TEST(ExecSort, KeyedSortOrderDoesNotDependOnTheThreadCount) {
    ref_index_t idx;
    idx.build(140000, 43, true, 0x003Fu);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    int32_t saved = max_threads;
    for (int sort : {7, 10, 15}) {
        std::vector<db_ref_t> first;
        for (int threads : {1, 2, 8}) {
            SCOPED_TRACE(std::to_string(sort) + " at " + std::to_string(threads));
            max_threads = threads;
            exec_run(q, "", DB_SORT_NAME);
            sort_now(idx, q, sort);
            std::vector<db_ref_t> rows = exec_results(q);
            if (first.empty()) {
                expect_in_sort_order(idx, q, rows);
                first = rows;
            } else {
                ASSERT_TRUE(rows == first);
            }
        }
    }
    max_threads = saved;
    db_destroy_query(q);
    idx.destroy();
}

// A column that the index doesn't store comes from the provider: its values decide the order, and a
// cancel while they are read leaves the results as they stood, marked unsorted, under the old sort.
static db_query_t *provided_query;
static uint32_t provided_calls, provided_cancel_at;
static uint64_t provided_value(db_query_t *q, db_ref_t r, bool, db_query_value_t what) {
    if (what != DB_QV_DATE_CREATED)
        return DB_UNKNOWN;
    if (++provided_calls == provided_cancel_at)
        provided_query->cancel_sort = true;
    uint64_t v = (r * 2654435761u) % 7;
    (void) q;
    return v ? v * 1000 : DB_UNKNOWN;
}

TEST(ExecSort, ProvidedValuesAreSortedAndACancelKeepsTheOldOrder) {
    ref_index_t idx;
    idx.build(3000, 47, true, 0x0001u);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    provided_query = q;
    db_query_provider.value = provided_value;

    exec_run(q, "", DB_SORT_PATH + 1);
    std::vector<db_ref_t> before = exec_results(q);
    provided_calls = 0, provided_cancel_at = 500;
    db_wait(idx.db, "test");
    _db_set_sort(q, DB_SORT_DATE_CREATED);
    EXPECT_FALSE(q->sorted);
    EXPECT_EQ(db_get_sort(q), DB_SORT_PATH + 1);
    EXPECT_TRUE(exec_results(q) == before);

    q->cancel_sort = false;
    provided_cancel_at = 0;
    for (int sort : {(int) DB_SORT_DATE_CREATED, DB_SORT_DATE_CREATED + 1}) {
        sort_now(idx, q, sort);
        std::vector<db_ref_t> rows = exec_results(q);
        ASSERT_EQ(rows.size(), before.size());
        expect_in_sort_order(idx, q, rows);
        // Straight from the provider's values: unknown lowest, ties in name order, all backwards when
        // descending.
        if (sort & 1)
            std::reverse(rows.begin(), rows.end());
        for (size_t i = 1; i < rows.size(); i++) {
            if (idx.recs[idx.at[rows[i - 1]]].folder != idx.recs[idx.at[rows[i]]].folder)
                continue;
            uint64_t a = provided_value(q, rows[i - 1], false, DB_QV_DATE_CREATED) + 1;
            uint64_t b = provided_value(q, rows[i], false, DB_QV_DATE_CREATED) + 1;
            ASSERT_LE(a, b) << i;
            if (a == b) {
                ASSERT_LT(db_name_compare(rows[i - 1], rows[i]), 0) << i;
            }
        }
    }
    db_query_provider_reset();
    db_destroy_query(q);
    idx.destroy();
}

// Values from disk are read in path order, each record once, so that a disk is walked folder by folder;
// with or without the index's path array the order read is the same, and so is the sort.
static std::vector<db_ref_t> asked;
static uint64_t recording_value(db_query_t *, db_ref_t r, bool, db_query_value_t what) {
    if (what != DB_QV_DATE_CREATED && what != DB_QV_ATTRIBUTES)
        return what == DB_QV_ATTRIBUTES ? 0 : DB_UNKNOWN;
    asked.push_back(r);
    return what == DB_QV_ATTRIBUTES ? (r * 2654435761u) % 5 : (r * 2654435761u) % 11 * 100;
}

TEST(ExecSort, ValuesFromDiskAreReadInPathOrder) {
    db_query_provider.value = recording_value;
    std::vector<std::vector<std::string>> sorted_by;
    for (uint32_t structure : {0x0001u, 0x2001u}) {
        ref_index_t idx;
        idx.build(2500, 61, true, structure);
        db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
        for (int sort : {(int) DB_SORT_DATE_CREATED, DB_SORT_ATTRIBUTES + 1}) {
            SCOPED_TRACE(std::to_string(structure) + " sort " + std::to_string(sort));
            exec_run(q, "!abc", DB_SORT_NAME);
            size_t n = exec_results(q).size();
            asked.clear();
            sort_now(idx, q, sort);
            // Folders, then files, each kind in path order, every result once.
            ASSERT_EQ(asked.size(), n);
            EXPECT_EQ(std::set<db_ref_t>(asked.begin(), asked.end()).size(), n);
            for (size_t i = 1; i < asked.size(); i++) {
                bool fa = idx.recs[idx.at[asked[i - 1]]].folder, fb = idx.recs[idx.at[asked[i]]].folder;
                if (fa == fb) {
                    ASSERT_LT(db_path_name_compare(asked[i - 1], asked[i]), 0) << i;
                } else {
                    ASSERT_TRUE(fa && !fb) << i;
                }
            }
            sorted_by.push_back(paths(idx, q));
        }
        db_destroy_query(q);
        idx.destroy();
    }
    EXPECT_TRUE(sorted_by[0] == sorted_by[2]);
    EXPECT_TRUE(sorted_by[1] == sorted_by[3]);
    db_query_provider_reset();
}

// File list filename: records on no list first, then by the last part of their list's file name without
// regard to case (not by its folder), ties in name order; descending is all of that backwards.
TEST(ExecSort, FileListFilenameOrdersByTheListsOwnName) {
    text_init_tables();
    db_t *db = db_create(nullptr);
    db_structure_set(&db->structure, 0x0001u);
    db->is_loaded = true;
    const char *lists[] = {nullptr, "/z/lists/b-list.txt", "/a/A-LIST.csv", "/m/c.txt"};
    std::vector<std::pair<db_ref_t, bool>> recs;
    std::map<db_ref_t, std::string> list_of;
    std::mt19937 rng(5);
    for (const char *list : lists) {
        db_fs_t *fs = db_fs_add(db, list ? DB_FS_FILE_LIST : DB_FS_FOLDER);
        if (list)
            db_fs_set_text(&fs->filename, list);
        db_ref_t root = db_folder_new(db, fs, 0, "root", 4);
        recs.push_back({root, true});
        std::vector<db_ref_t> folders = {root};
        for (int i = 0; i < 120; i++) {
            bool folder = i % 5 == 0;
            std::string name =
                std::string(i % 2 ? "Item" : "item") + std::to_string(rng() % 40) + "_" + std::to_string(i);
            db_ref_t parent = folders[rng() % folders.size()];
            db_ref_t r = folder ? db_folder_new(db, fs, parent, name.data(), (uint32_t) name.size())
                                : db_file_new(db, fs, parent, name.data(), (uint32_t) name.size());
            recs.push_back({r, folder});
            if (folder)
                folders.push_back(r);
        }
        for (size_t i = recs.size() - 121; i < recs.size(); i++)
            list_of[recs[i].first] = list ? strrchr(list, '/') + 1 : "";
    }
    for (int folder = 1; folder >= 0; folder--) {
        std::vector<db_ref_t> v;
        for (auto &[r, f] : recs)
            if (f == (folder != 0))
                v.push_back(r);
        std::sort(v.begin(), v.end(), [](db_ref_t a, db_ref_t b) { return db_name_compare(a, b) < 0; });
        mem_array_from_flat(folder ? &db->folders : &db->files, v.data(), (uint32_t) v.size());
    }
    auto before = [&](db_ref_t a, db_ref_t b) {
        const std::string &la = list_of[a], &lb = list_of[b];
        if (la.empty() != lb.empty())
            return la.empty();
        int d = utf8_strcmp_lower(la.c_str(), lb.c_str());
        return d ? d < 0 : db_name_compare(a, b) < 0;
    };
    db_query_t *q = db_query_create(db, false, nullptr, nullptr);
    for (int sort : {(int) DB_SORT_FILE_LIST_FILENAME, DB_SORT_FILE_LIST_FILENAME + 1}) {
        exec_run(q, "", sort);
        for (int folder = 1; folder >= 0; folder--) {
            std::vector<db_ref_t> want;
            for (auto &[r, f] : recs)
                if (f == (folder != 0))
                    want.push_back(r);
            std::sort(want.begin(), want.end(), before);
            if (sort & 1)
                std::reverse(want.begin(), want.end());
            const mem_array_t *a = folder ? &q->folder_results : &q->file_results;
            std::vector<db_ref_t> got;
            for (uint32_t i = 0; i < a->count; i++)
                got.push_back(mem_array_get(a, i));
            EXPECT_TRUE(got == want) << sort << " folder " << folder;
        }
        // The list's name as a row gives it.
        str_t s;
        str_init(&s);
        for (int i = 0; i < db_get_result_count(q); i++) {
            db_ref_t r;
            bool f;
            _db_result_at(q, i, &r, &f);
            db_get_result_file_list_filename(q, i, &s);
            const char *list = db_record_fs(db, r)->filename;
            ASSERT_EQ(std::string(s.ptr, (size_t) s.len), list ? list : "");
        }
        str_kill(&s);
    }
    db_destroy_query(q);
    db_destroy(db);
}
