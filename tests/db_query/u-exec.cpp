// Search execution against a slow reference: a generated index of about 5,000 records, a table of searches
// each with the predicate that decides it from the language's definitions, and the real search through
// db_query_search must agree under every sort. Then thread-count determinism, arrays built in bulk or
// one by one, cancellation that must give back every borrowed byte, and the query's events.
#include "exec_table.h"

#include <thread>

#include "os/os.h"

struct ExecTest : ::testing::Test {
    static ref_index_t idx;
    static void SetUpTestSuite() { idx.build(5000, 7); }
    static void TearDownTestSuite() { idx.destroy(); }
    db_query_t *q = nullptr;
    void SetUp() override { q = db_query_create(idx.db, false, nullptr, nullptr); }
    void TearDown() override { db_destroy_query(q); }

    // The reference's answer in the order of the scanned name arrays: folders, then files.
    std::vector<db_ref_t> expected(const pred_t &pred) {
        std::vector<db_ref_t> out;
        for (const mem_array_t *a : {&idx.db->folders, &idx.db->files})
            for (uint32_t i = 0; i < a->count; i++) {
                db_ref_t r = mem_array_get(a, i);
                if (pred(idx.recs[idx.at[r]]))
                    out.push_back(r);
            }
        return out;
    }
};
ref_index_t ExecTest::idx;

TEST_F(ExecTest, TableAgreesWithTheReferenceInNameOrder) {
    for (const exec_case_t &c : exec_table()) {
        SCOPED_TRACE(c.search);
        exec_run(q, c.search.c_str(), 0, c.bits);
        std::vector<db_ref_t> want = expected(c.pred);
        std::vector<db_ref_t> got = exec_results(q);
        ASSERT_EQ(got.size(), want.size());
        EXPECT_TRUE(got == want);
        EXPECT_EQ(db_get_folder_result_count(q) + db_get_file_result_count(q), (int) want.size());
        // Every other sort gives the same set (the order is the sort test's business).
        std::sort(want.begin(), want.end());
        for (int sort = 1; sort <= DB_SORT_MAX; sort++) {
            exec_run(q, c.search.c_str(), sort, c.bits);
            got = exec_results(q);
            std::sort(got.begin(), got.end());
            ASSERT_TRUE(got == want) << "sort " << sort;
        }
    }
}

// Under every sort the set is the reference's and each array is in the sort's order, folders ahead of
// files exactly when the sort ascends.
// filelist: with full-path entries: some records' paths as written, in upper case, and with their
// diacritics stripped, under each pair of the case and diacritics flags.
TEST_F(ExecTest, FileListPathsFollowTheTermsFlags) {
    std::mt19937 rng(12);
    std::vector<std::string> entries;
    for (int k = 0; k < 12; k++) {
        const ref_record_t &r = idx.recs[1 + rng() % (idx.recs.size() - 1)];
        std::string e = r.path;
        if (k % 3 == 1)
            for (char &ch : e)
                ch = (char) toupper((unsigned char) ch);
        if (k % 3 == 2)
            e = ref_fold(e, true, false);
        entries.push_back(e);
    }
    std::string list;
    for (const std::string &e : entries)
        list += (list.empty() ? "" : "|") + e;
    for (uint32_t bits :
         {0u, (uint32_t) SEARCH_CASE, (uint32_t) SEARCH_DIACRITICS, SEARCH_CASE | SEARCH_DIACRITICS}) {
        SCOPED_TRACE(bits);
        bool c = bits & SEARCH_CASE, d = bits & SEARCH_DIACRITICS;
        exec_run(q, ("filelist:\"" + list + "\"").c_str(), 0, bits);
        std::set<std::string> folded;
        for (const std::string &e : entries)
            folded.insert(ref_fold(e, c, d));
        std::vector<db_ref_t> want =
            expected([&](const ref_record_t &r) { return folded.count(ref_fold(r.path, c, d)) != 0; });
        EXPECT_GE(want.size(), bits == 0 ? 12u : 4u);
        EXPECT_TRUE(exec_results(q) == want);
    }
}

TEST_F(ExecTest, EverySortKeepsTheSetAndOrdersIt) {
    const char *searches[] = {"", "readme", "ext:so;a", "empty:", "!abc size:<2000"};
    auto table = exec_table();
    for (const char *search : searches) {
        pred_t pred;
        for (auto &c : table)
            if (!pred && c.search == search && c.bits == 0)
                pred = c.pred;
        if (!pred)
            pred = [](const ref_record_t &r) { return !ref_contains(r.name, "abc") && r.size < 2000; };
        std::vector<db_ref_t> want = expected(pred);
        std::sort(want.begin(), want.end());
        for (int sort = 0; sort <= DB_SORT_MAX; sort++) {
            SCOPED_TRACE(std::string(search) + " sort " + std::to_string(sort));
            exec_run(q, search, sort);
            EXPECT_EQ(db_get_sort(q), sort);
            // A history column lists its ascending form as the descending one reversed.
            EXPECT_EQ(q->folders_first, db_head_kind_of_sort(sort) ? (sort & 1) != 0 : (sort & 1) == 0);
            std::vector<db_ref_t> got = exec_results(q);
            std::vector<db_ref_t> set = got;
            std::sort(set.begin(), set.end());
            ASSERT_TRUE(set == want);
            static const int orders[] = {DB_ORDER_NAME,
                                         DB_ORDER_PATH,
                                         DB_ORDER_SIZE,
                                         DB_ORDER_EXTENSION,
                                         -1,
                                         DB_ORDER_DATE_CREATED,
                                         DB_ORDER_DATE_MODIFIED,
                                         DB_ORDER_ATTRIBUTES,
                                         -1,
                                         -1,
                                         -1,
                                         DB_ORDER_DATE_ACCESSED,
                                         -1};
            int order = orders[sort / 2];
            if (order < 0)
                continue;
            for (int folder = 1; folder >= 0; folder--) {
                const mem_array_t *a = folder ? &q->folder_results : &q->file_results;
                for (uint32_t i = 1; i < a->count; i++) {
                    db_ref_t x = mem_array_get(a, i - 1), y = mem_array_get(a, i);
                    int c = (order == DB_ORDER_EXTENSION && folder)
                                ? db_name_compare(x, y)
                                : db_compare(idx.db, (db_order_t) order, folder, x, y);
                    ASSERT_EQ(c < 0, (sort & 1) == 0) << i;
                }
            }
        }
    }
}

TEST_F(ExecTest, DirectionChangeReversesInPlaceAndRowsFollow) {
    exec_run(q, "readme", DB_SORT_SIZE);
    std::vector<db_ref_t> up = exec_results(q);
    exec_run(q, "readme", DB_SORT_SIZE + 1);
    std::vector<db_ref_t> down = exec_results(q);
    // Descending: files first, then folders, each array reversed.
    std::vector<db_ref_t> want(q->file_results.count + q->folder_results.count);
    ASSERT_EQ(up.size(), down.size());
    uint32_t nf = q->folder_results.count, nfile = q->file_results.count;
    for (uint32_t i = 0; i < nfile; i++)
        EXPECT_EQ(down[i], up[nf + nfile - 1 - i]);
    for (uint32_t i = 0; i < nf; i++)
        EXPECT_EQ(down[nfile + i], up[nf - 1 - i]);
    // A sort job alone, and the row getters past either end.
    db_sort(q, DB_SORT_SIZE, 0, 0);
    db_wait(idx.db, "test");
    event_dispatch();
    EXPECT_TRUE(exec_results(q) == up);
    str_t s;
    str_init(&s);
    EXPECT_EQ(db_get_result_name(q, (int) up.size(), &s), 0);
    EXPECT_EQ(s.len, 0);
    EXPECT_EQ(db_is_folder_result(q, -1), 1);
    EXPECT_EQ(db_query_get_total_result_size(q), UINT64_MAX);
    str_kill(&s);
}

TEST_F(ExecTest, CountTakesTheTopOfTheRequestedOrder) {
    exec_run(q, "readme");
    std::vector<db_ref_t> all = exec_results(q);
    exec_run(q, "count:5 readme");
    std::vector<db_ref_t> top = exec_results(q);
    ASSERT_EQ(top.size(), 5u);
    EXPECT_TRUE(std::equal(top.begin(), top.end(), all.begin()));
    exec_run(q, "readme", 1);
    std::vector<db_ref_t> all_down = exec_results(q);
    exec_run(q, "count:5 readme", 1);
    std::vector<db_ref_t> top_down = exec_results(q);
    ASSERT_EQ(top_down.size(), 5u);
    EXPECT_TRUE(std::equal(top_down.begin(), top_down.end(), all_down.begin()));
    exec_run(q, "count:0");
    EXPECT_EQ(db_get_result_count(q), 0);
}

TEST_F(ExecTest, OneRecordEvaluatorAgreesWithTheScan) {
    const char *searches[] = {"empty:", "child:readme", "childcount:2", "dupe:", "readme | size:<50"};
    db_eval_scratch_t s;
    db_eval_scratch_init(&s);
    for (const char *search : searches) {
        SCOPED_TRACE(search);
        exec_run(q, search);
        std::set<db_ref_t> got;
        for (db_ref_t r : exec_results(q))
            got.insert(r);
        for (auto &r : idx.recs) {
            bool m = r.folder ? db_query_is_folder_match(q, r.ref, &s) : db_query_is_file_match(q, r.ref, &s);
            ASSERT_EQ(m, got.count(r.ref) == 1) << r.path;
        }
    }
    db_eval_scratch_kill(&s);
}

TEST_F(ExecTest, DupeFindsEqualKeysOfTheSameKind) {
    std::map<std::pair<bool, std::string>, int> names;
    std::map<std::pair<bool, uint64_t>, int> sizes;
    for (auto &r : idx.recs) {
        names[{r.folder, ref_lb(r.name)}]++;
        sizes[{r.folder, r.size}]++;
    }
    exec_run(q, "dupe:");
    EXPECT_TRUE(exec_results(q) == expected([&](const ref_record_t &r) {
                    return names[{r.folder, ref_lb(r.name)}] > 1;
                }));
    exec_run(q, "sizedupe:");
    EXPECT_TRUE(exec_results(q) == expected([&](const ref_record_t &r) {
                    return sizes[{r.folder, r.size}] > 1;
                }));
}

// ---- threads, arrays, cancellation -----------------------------------------------------------------------

static int eight_cpus() {
    return 8;
}

struct ExecBigTest : ::testing::Test {
    static ref_index_t idx;
    static void SetUpTestSuite() { idx.build(200000, 11); }
    static void TearDownTestSuite() { idx.destroy(); }
};
ref_index_t ExecBigTest::idx;

TEST_F(ExecBigTest, ResultsDoNotDependOnTheThreadCount) {
    os_hooks.processor_count = eight_cpus;
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    const char *searches[] = {"readme",
                              "!abc",
                              "*.so",
                              "ext:so;a",
                              "empty:",
                              "child:lib",
                              "childcount:2..5",
                              "regex:^r",
                              "dupe:",
                              "size:<100 | attrib:h",
                              "path:doc"};
    for (const char *search : searches) {
        std::vector<db_ref_t> first;
        for (int t : {1, 2, 8}) {
            SCOPED_TRACE(std::string(search) + " threads " + std::to_string(t));
            max_threads = t;
            exec_run(q, search, 0);
            std::vector<db_ref_t> got = exec_results(q);
            // Several workers really ran (folder-only searches scan the 50,000 folders alone: four).
            EXPECT_EQ(q->workers_used > 1, t > 1);
            if (t == 1)
                first = got;
            else
                EXPECT_TRUE(got == first);
        }
    }
    // The whole reference table, each row under a sort of its own so that the sorts that start from the
    // scan's order see every thread count too.
    std::vector<exec_case_t> table = exec_table();
    for (size_t i = 0; i < table.size(); i++) {
        const exec_case_t &c = table[i];
        int sort = (int) (i % (DB_SORT_MAX + 1));
        std::vector<db_ref_t> first;
        for (int t : {1, 2, 8}) {
            SCOPED_TRACE(c.search + " sort " + std::to_string(sort) + " threads " + std::to_string(t));
            max_threads = t;
            exec_run(q, c.search.c_str(), sort, c.bits);
            std::vector<db_ref_t> got = exec_results(q);
            if (t == 1)
                first = got;
            else
                ASSERT_TRUE(got == first);
        }
    }
    max_threads = 0;
    db_destroy_query(q);
    os_hooks_reset();
}

TEST(ExecArrays, BulkAndSingleInsertsGiveTheSameAnswers) {
    ref_index_t bulk, single;
    bulk.build(3000, 5, true);
    single.build(3000, 5, false);
    db_query_t *a = db_query_create(bulk.db, false, nullptr, nullptr);
    db_query_t *b = db_query_create(single.db, false, nullptr, nullptr);
    std::vector<exec_case_t> table = exec_table();
    for (size_t i = 0; i < table.size(); i++) {
        const char *search = table[i].search.c_str();
        uint32_t bits = table[i].bits;
        for (int sort : {0, (int) (i % (DB_SORT_MAX + 1))}) {
            exec_run(a, search, sort, bits);
            exec_run(b, search, sort, bits);
            std::vector<std::string> pa, pb;
            for (db_ref_t r : exec_results(a))
                pa.push_back(bulk.recs[bulk.at[r]].path);
            for (db_ref_t r : exec_results(b))
                pb.push_back(single.recs[single.at[r]].path);
            EXPECT_TRUE(pa == pb) << search << " " << sort;
        }
    }
    db_destroy_query(a);
    db_destroy_query(b);
    bulk.destroy();
    single.destroy();
}

// Every byte of every record (its optional front words, parent, name length, name, data block), for a
// check that the index is whole: the pre-passes and the sorts borrow name lengths and parents.
static std::vector<uint8_t> snapshot(const ref_index_t &idx) {
    std::vector<uint8_t> s;
    for (auto &r : idx.recs) {
        uint32_t len;
        db_record_name(r.ref, &len);
        bool root = db_record_parent(r.ref) == 0;
        uint32_t front = (root ? 4u : 0u) + (len >= DB_LONG_NAME ? 4u : 0u);
        uint32_t size = r.folder ? db_folder_record_size(&idx.db->structure, DB_FS_FOLDER, root, len)
                                 : db_file_record_size(&idx.db->structure, root, len);
        const uint8_t *p = db_ptr(r.ref) - front;
        s.insert(s.end(), p, p + size);
    }
    return s;
}

TEST_F(ExecBigTest, CancelAnywhereLeavesTheIndexWhole) {
    std::vector<uint8_t> before = snapshot(idx);
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    exec_run(q, "readme");
    uint32_t old_count = (uint32_t) db_get_result_count(q);
    const char *searches[] = {"empty:", "child:readme", "childcount:3", "regex:a.*b.*c", "readme"};
    std::mt19937 rng(3);
    for (int round = 0; round < 20; round++) {
        const char *search = searches[round % 5];
        SCOPED_TRACE(search);
        db_query_search(q, false, false, false, false, false, false, false, search, 0, "", 0, 0, 0, false);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        db_cancel_query(q);
        event_dispatch();
        ASSERT_TRUE(snapshot(idx) == before);
    }
    // A sort cancelled keeps the results; the direction that was sorted stays.
    exec_run(q, "readme", DB_SORT_TYPE);
    int sort = db_get_sort(q);
    db_sort(q, DB_SORT_NAME + 1, 0, 0);
    db_cancel_query(q);
    event_dispatch();
    EXPECT_EQ(db_get_result_count(q), (int) old_count);
    EXPECT_TRUE(db_get_sort(q) == sort || db_get_sort(q) == DB_SORT_NAME + 1);
    EXPECT_TRUE(snapshot(idx) == before);
    // Every sort cancelled at some moment of its work: the results stay complete and the index whole.
    for (int round = 0; round < 2; round++) {
        for (int s = 1; s <= DB_SORT_MAX; s++) {
            SCOPED_TRACE("sort " + std::to_string(s));
            exec_run(q, round ? "!abc" : "", s ^ 1);
            int count = db_get_result_count(q);
            db_sort(q, s, 0, 0);
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
            db_cancel_query(q);
            event_dispatch();
            ASSERT_EQ(db_get_result_count(q), count);
            ASSERT_TRUE(db_get_sort(q) == s || db_get_sort(q) == (s ^ 1));
            ASSERT_TRUE(snapshot(idx) == before);
        }
    }
    db_destroy_query(q);
}

// ---- the query's entry and events ----------------------------------------------------------------------

TEST(ExecEntry, PendingSearchRunsWhenTheIndexBecomesReady) {
    ref_index_t idx;
    idx.build(500, 9);
    idx.db->is_loaded = false;
    std::vector<int> codes;
    auto proc = [](void *user, int code, db_query_t *) { ((std::vector<int> *) user)->push_back(code); };
    db_query_t *q = db_query_create(idx.db, false, proc, &codes);
    EXPECT_EQ(
        db_query_search(q, false, false, false, false, false, false, false, "readme", 0, "", 0, 0, 0, false),
        0);
    EXPECT_TRUE(q->pending.active);
    EXPECT_EQ(db_get_result_count(q), 0);
    idx.db->is_loaded = true;
    db_queries_idle(idx.db);
    db_wait(idx.db, "test");
    _db_ready_proc(idx.db);
    event_dispatch();
    EXPECT_FALSE(q->pending.active);
    EXPECT_GT(db_get_result_count(q), 0);
    EXPECT_NE(std::find(codes.begin(), codes.end(), DB_QUERY_RESULTS), codes.end());
    // A hidden empty search gives nothing; a filter is ANDed on the search.
    db_query_search(q, false, false, false, false, false, true, false, "", 0, "", 0, 0, 0, false);
    db_wait(idx.db, "test");
    EXPECT_EQ(db_get_result_count(q), 0);
    exec_run(q, "readme", 0, 0, "file:");
    for (db_ref_t r : exec_results(q))
        EXPECT_FALSE(idx.recs[idx.at[r]].folder);
    db_destroy_query(q);
    idx.destroy();
}

// A sort asked for while the index loads waits and runs from the ready event; the owner hears the job's
// end, the results and the ready code, in that order of kinds; a new query of an index whose run history
// is on its way is told to draw its rows again.
TEST(ExecEntry, PendingSortRunsWhenTheIndexBecomesReady) {
    ref_index_t idx;
    idx.build(600, 13);
    std::vector<int> codes;
    auto proc = [](void *user, int code, db_query_t *) { ((std::vector<int> *) user)->push_back(code); };
    db_query_t *q = db_query_create(idx.db, false, proc, &codes);
    exec_run(q, "readme", 0);
    std::vector<db_ref_t> by_name = exec_results(q);
    idx.db->is_loaded = false;
    db_sort(q, DB_SORT_NAME + 1, 0, 0);
    EXPECT_TRUE(q->pending_sort.active);
    EXPECT_EQ(q->current_sort, DB_SORT_NAME);
    idx.db->is_loaded = true;
    codes.clear();
    db_queries_idle(idx.db);
    EXPECT_FALSE(q->pending_sort.active);
    db_wait(idx.db, "test");
    _db_ready_proc(idx.db);
    event_dispatch();
    std::reverse(by_name.begin(), by_name.end());
    EXPECT_TRUE(exec_results(q) == by_name);
    auto first = [&](int code) { return std::find(codes.begin(), codes.end(), code) - codes.begin(); };
    ASSERT_LT(first(DB_QUERY_JOB_ENDED), (long) codes.size());
    EXPECT_LT(first(DB_QUERY_JOB_ENDED), first(DB_QUERY_RESULTS));
    EXPECT_LT(first(DB_QUERY_RESULTS), first(DB_QUERY_READY));
    idx.db->load_run_history_pending = true;
    std::vector<int> other;
    db_query_t *q2 = db_query_create(idx.db, false, proc, &other);
    event_dispatch();
    EXPECT_EQ(std::count(other.begin(), other.end(), DB_QUERY_ROWS), 1);
    db_destroy_query(q2);
    db_destroy_query(q);
    idx.destroy();
}

// The table's rows combined: each row's NOT, and pairs of rows ANDed and ORed inside groups, so that the
// decision graph (De Morgan under NOT, the kind-only constants) is checked against plain logic.
TEST_F(ExecTest, CombinationsAgreeWithTheReference) {
    std::vector<exec_case_t> rows;
    for (const exec_case_t &c : exec_table())
        if (c.bits == 0 && !c.search.empty())
            rows.push_back(c);
    std::vector<exec_case_t> combos;
    for (const exec_case_t &a : rows) {
        pred_t pa = a.pred;
        combos.push_back({"!<" + a.search + ">", 0, [pa](const ref_record_t &r) { return !pa(r); }});
    }
    size_t n = rows.size();
    for (size_t i = 0; i < n; i++) {
        const exec_case_t &a = rows[i], &b = rows[(i * 7 + 3) % n], &c = rows[(i * 13 + 5) % n];
        pred_t pa = a.pred, pb = b.pred, pc = c.pred;
        combos.push_back({"<" + a.search + "> <" + b.search + ">", 0,
                          [pa, pb](const ref_record_t &r) { return pa(r) && pb(r); }});
        combos.push_back({"<" + a.search + "> | <" + c.search + ">", 0,
                          [pa, pc](const ref_record_t &r) { return pa(r) || pc(r); }});
        combos.push_back({"<" + b.search + "> !<" + c.search + ">", 0,
                          [pb, pc](const ref_record_t &r) { return pb(r) && !pc(r); }});
    }
    EXPECT_GE(combos.size() + exec_table().size(), 300u);
    // Each under a sort of its own, every sort number many times: name order exactly, the others as sets
    // (their orders are the sort tests' business).
    for (size_t i = 0; i < combos.size(); i++) {
        const exec_case_t &c = combos[i];
        int sort = (int) (i % (DB_SORT_MAX + 1));
        SCOPED_TRACE(c.search + " sort " + std::to_string(sort));
        exec_run(q, c.search.c_str(), sort);
        std::vector<db_ref_t> got = exec_results(q), want = expected(c.pred);
        if (sort) {
            std::sort(got.begin(), got.end());
            std::sort(want.begin(), want.end());
        }
        ASSERT_TRUE(got == want);
    }
}
