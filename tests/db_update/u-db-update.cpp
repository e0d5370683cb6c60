// The live update against a model: thousands of random facts (adds, removals, renames within and across
// folders, moves of folders with their subtrees, new sizes and dates) applied to an index and to a plain
// model of the tree. Every few steps each array of the index must equal that of an index built fresh from
// the model, folder sizes and child counts included, and open queries must equal a fresh search.
#include "update_fixture.h"

namespace {

struct model_case_t {
    const char *label;
    uint32_t word;
    uint32_t fs_type;
    int32_t threads; // max_threads; the processor count is 4, so subtree scans may use 2
    uint32_t folders, files;
    int ops;
    uint32_t seed;
    int bulk; // db_update_subtree_bulk: 0 by cost, 1 every subtree in one pass per array
};

void PrintTo(const model_case_t &c, std::ostream *o) {
    *o << c.label;
}

// Names with case and diacritic variants, so that name order's deeper levels decide; ".tmp" files and
// "skip" folders are excluded.
const char *const name_pool[] = {"readme",   "README", "ReadMe",   "r\xC3\xA9sum\xC3\xA9",
                                 "resume",   "a",      "A",        "b.txt",
                                 "B.TXT",    "x.c",    "lib",      "Lib",
                                 "data",     "e",      "\xC3\xA9", "\xC3\x89",
                                 "notes.md", "z"};

struct ModelRun {
    const model_case_t &c;
    std::mt19937 rng;
    model_t m;
    db_t *db = nullptr;
    db_fs_t *fs = nullptr;
    std::vector<db_query_t *> queries;
    db_query_t *fresh = nullptr;
    int steps = 0;

    explicit ModelRun(const model_case_t &mc) : c(mc), rng(mc.seed) {}

    std::string name(bool folder) {
        std::string s = name_pool[rng() % (sizeof name_pool / sizeof *name_pool)];
        if (rng() % 2)
            s += std::to_string(rng() % 40);
        if (!folder && rng() % 12 == 0)
            s += ".tmp";
        // Now and then a name long enough to carry its length in front of the record.
        if (rng() % 60 == 0)
            s += std::string(250 + rng() % 20, 'L');
        if (folder && rng() % 15 == 0)
            s = (rng() % 2 ? "skip" : "Skip") + s;
        return s;
    }
    static bool excluded(bool folder, const std::string &n) {
        std::string l = n;
        for (char &ch : l)
            ch = (char) tolower((unsigned char) ch);
        return folder ? l.rfind("skip", 0) == 0 : l.size() >= 4 && l.compare(l.size() - 4, 4, ".tmp") == 0;
    }
    uint64_t value(uint64_t range, uint64_t base) {
        return rng() % 10 == 0 ? DB_UNKNOWN : base + rng() % range;
    }
    db_fd_t fd(bool folder) {
        db_fd_t f;
        f.size = folder ? DB_UNKNOWN : value(5000, 0);
        f.date_created = value(1000, 130000000000000000ull);
        f.date_modified = value(1000, 130000000000000000ull);
        f.date_accessed = value(1000, 130000000000000000ull);
        f.attributes = (folder ? 0x10u : 0x20u) | (rng() % 3 == 0 ? 0x02u : 0u) | (rng() % 5 == 0 ? 1u : 0u);
        if (rng() % 10 == 0)
            f.attributes = 0;
        return f;
    }
    // Only the date modified, as a folder's details change when its content does.
    db_fd_t parent_fd() {
        db_fd_t f = {DB_UNKNOWN, 130000000000000000ull + rng() % 1000, DB_UNKNOWN, DB_UNKNOWN, 0};
        return f;
    }
    void model_write(int i, const db_fd_t *f) {
        if (!f)
            return;
        model_node_t &n = m.nodes[i];
        if (!n.folder && f->size != DB_UNKNOWN)
            n.size = f->size;
        if (f->date_created != DB_UNKNOWN)
            n.dc = f->date_created;
        if (f->date_modified != DB_UNKNOWN)
            n.dm = f->date_modified;
        if (f->date_accessed != DB_UNKNOWN)
            n.da = f->date_accessed;
        if (f->attributes)
            n.attributes = f->attributes;
    }

    bool frn_source() const { return c.fs_type == DB_FS_NTFS || c.fs_type == DB_FS_REFS; }
    db_frn128_t frn128(int i) const { return {m.nodes[i].frn, m.nodes[i].frn * 7}; }
    db_ref_t folder_ref(int i) { return db_folder_find_by_path(db, m.path(i).c_str()); }

    void build() {
        int root = m.add(true, -1, model_root_name());
        m.nodes[root].dm = 130000000000000000ull;
        std::vector<int> folders = {root};
        for (uint32_t k = 0; k < c.folders + c.files; k++) {
            bool folder = k < c.folders;
            int parent = folders[rng() % folders.size()];
            std::string n = name(folder);
            if (excluded(folder, n) || m.child(parent, n) >= 0)
                continue;
            int i = m.add(folder, parent, n);
            db_fd_t f = fd(folder);
            model_write(i, &f);
            if (folder)
                folders.push_back(i);
        }
        db = fresh_index(m, c.word, c.fs_type);
        fs = db->fs_first;
        db->is_loaded = true;
        db_exclude_item_t **tail = db_exclude_add(&db->exclude.folders, "skip*", 5);
        (void) tail;
        db_exclude_add(&db->exclude.files, "*.tmp", 5);
        static const char *const searches[] = {"", "readme", "a", "size:>2500", "e", ""};
        static const int sorts[] = {DB_SORT_NAME,      DB_SORT_SIZE + 1,
                                    DB_SORT_PATH,      DB_SORT_DATE_MODIFIED + 1,
                                    DB_SORT_EXTENSION, DB_SORT_ATTRIBUTES};
        for (size_t k = 0; k < sizeof sorts / sizeof *sorts; k++) {
            queries.push_back(db_query_create(db, false, nullptr, nullptr));
            run(queries.back(), searches[k], sorts[k]);
        }
        fresh = db_query_create(db, false, nullptr, nullptr);
    }

    static void run(db_query_t *q, const char *search, int sort) {
        db_query_search(q, false, false, false, false, false, false, false, search, 0, "", sort, 0, 0, false);
        db_wait(q->db, "test");
        event_dispatch();
    }
    static std::vector<db_ref_t> results(db_query_t *q) {
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

    void check(const std::string &when) {
        db_t *f = fresh_index(m, c.word, c.fs_type);
        expect_same_arrays(db, f, c.fs_type, when);
        db_destroy(f);
        static const char *const searches[] = {"", "readme", "a", "size:>2500", "e", ""};
        for (size_t k = 0; k < queries.size(); k++) {
            run(fresh, searches[k], queries[k]->current_sort);
            ASSERT_TRUE(results(queries[k]) == results(fresh))
                << when << ": query " << k << " has " << db_get_result_count(queries[k])
                << " rows, a new search " << db_get_result_count(fresh);
        }
    }

    // ---- the operations, each applied to the index by one of its forms and to the model ------------------

    int pick(bool folder, bool root_too = true) {
        std::vector<int> v = m.alive(folder);
        if (!root_too)
            v.erase(std::remove_if(v.begin(), v.end(), [&](int i) { return m.nodes[i].parent < 0; }),
                    v.end());
        return v.empty() ? -1 : v[rng() % v.size()];
    }

    void file_add() {
        int p = pick(true);
        std::string n = name(false);
        int there = m.child(p, n);
        if (there >= 0 && m.nodes[there].folder)
            return;
        db_fd_t f = fd(false), pf = parent_fd();
        db_change_t ch = {&f, rng() % 3 ? nullptr : &pf, nullptr, 0};
        db_ref_t r;
        if (c.fs_type == DB_FS_NTFS)
            r = db_file_add(db, fs, m.nodes[p].frn, n.data(), (uint32_t) n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            r = db_file_add_refs(db, fs, frn128(p), n.data(), (uint32_t) n.size(), &ch);
        else if (rng() % 2)
            r = db_file_add_in(db, fs, folder_ref(p), n.data(), (uint32_t) n.size(), &ch);
        else
            r = db_file_add_path(db, fs, (m.path(p) + OS_SEP + n).c_str(), &ch);
        model_write(p, ch.parent_fd);
        if (excluded(false, n)) {
            EXPECT_EQ(r, 0u);
            return;
        }
        ASSERT_NE(r, 0u);
        if (there >= 0) // an add of what exists leaves it as it is
            return;
        model_write(m.add(false, p, n), &f);
    }

    void file_remove() {
        int i = pick(false);
        if (i < 0)
            return;
        int p = m.nodes[i].parent;
        const std::string &n = m.nodes[i].name;
        db_fd_t pf = parent_fd();
        db_change_t ch = {nullptr, rng() % 3 ? nullptr : &pf, nullptr, 0};
        bool ok;
        if (c.fs_type == DB_FS_NTFS)
            ok = db_file_remove(db, fs, m.nodes[p].frn, n.data(), (uint32_t) n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            ok = db_file_remove_refs(db, fs, frn128(p), n.data(), (uint32_t) n.size(), &ch);
        else if (rng() % 2)
            ok = db_file_remove_in(db, fs, folder_ref(p), n.data(), (uint32_t) n.size(), &ch);
        else
            ok = db_file_remove_path(db, m.path(i).c_str(), &ch);
        ASSERT_TRUE(ok) << m.path(i);
        m.nodes[i].alive = false;
        model_write(p, ch.parent_fd);
    }

    std::string case_flip(std::string s) {
        for (char &ch : s)
            if (isalpha((unsigned char) ch)) {
                ch = (char) (isupper((unsigned char) ch) ? tolower(ch) : toupper(ch));
                break;
            }
        return s;
    }

    void file_rename() {
        int i = pick(false);
        if (i < 0)
            return;
        int old_p = m.nodes[i].parent;
        int new_p = rng() % 2 ? old_p : pick(true);
        std::string old_n = m.nodes[i].name;
        std::string new_n = rng() % 8 == 0 ? case_flip(old_n) : name(false);
        if (m.child(new_p, new_n) >= 0)
            return;
        db_fd_t f = fd(false), pf = parent_fd(), opf = parent_fd();
        db_change_t ch = {rng() % 3 ? nullptr : &f, rng() % 3 ? nullptr : &pf, rng() % 3 ? nullptr : &opf, 0};
        db_ref_t r;
        if (c.fs_type == DB_FS_NTFS)
            r = db_file_rename(db, fs, m.nodes[old_p].frn, old_n.data(), (uint32_t) old_n.size(),
                               m.nodes[new_p].frn, new_n.data(), (uint32_t) new_n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            r = db_file_rename_refs(db, fs, frn128(old_p), old_n.data(), (uint32_t) old_n.size(),
                                    frn128(new_p), new_n.data(), (uint32_t) new_n.size(), &ch);
        else if (rng() % 2)
            r = db_file_rename_in(db, fs, folder_ref(old_p), old_n.data(), (uint32_t) old_n.size(),
                                  folder_ref(new_p), new_n.data(), (uint32_t) new_n.size(), &ch);
        else
            r = db_file_rename_path(db, fs, m.path(i).c_str(), (m.path(new_p) + OS_SEP + new_n).c_str(), &ch);
        model_write(new_p, ch.parent_fd);
        model_write(old_p, ch.old_parent_fd);
        if (excluded(false, new_n)) {
            EXPECT_EQ(r, 0u);
            m.nodes[i].alive = false;
            return;
        }
        ASSERT_NE(r, 0u);
        m.nodes[i].parent = new_p;
        m.nodes[i].name = new_n;
        model_write(i, ch.fd);
    }

    void file_update() {
        int i = pick(false);
        if (i < 0)
            return;
        int p = m.nodes[i].parent;
        const std::string n = m.nodes[i].name;
        db_fd_t f = fd(false), pf = parent_fd();
        db_change_t ch = {&f, rng() % 3 ? nullptr : &pf, nullptr, 0};
        bool ok;
        if (c.fs_type == DB_FS_NTFS)
            ok = db_file_update(db, fs, m.nodes[p].frn, n.data(), (uint32_t) n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            ok = db_file_update_refs(db, fs, frn128(p), n.data(), (uint32_t) n.size(), &ch);
        else if (rng() % 2)
            ok = db_file_update_in(db, fs, folder_ref(p), n.data(), (uint32_t) n.size(), &ch);
        else
            ok = db_file_update_path(db, m.path(i).c_str(), &ch);
        ASSERT_TRUE(ok);
        model_write(i, &f);
        model_write(p, ch.parent_fd);
    }

    void folder_add() {
        int p = pick(true);
        std::string n = name(true);
        if (m.child(p, n) >= 0)
            return;
        db_fd_t f = fd(true), pf = parent_fd();
        db_change_t ch = {&f, rng() % 3 ? nullptr : &pf, nullptr, 0};
        uint64_t frn = m.next_frn;
        db_ref_t r;
        if (c.fs_type == DB_FS_NTFS)
            r = db_folder_add(db, fs, frn, m.nodes[p].frn, n.data(), (uint32_t) n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            r = db_folder_add_refs(db, fs, {frn, frn * 7}, frn128(p), n.data(), (uint32_t) n.size(), &ch);
        else if (rng() % 2)
            r = db_folder_add_in(db, fs, folder_ref(p), n.data(), (uint32_t) n.size(), &ch);
        else
            r = db_folder_add_path(db, fs, (m.path(p) + OS_SEP + n).c_str(), &ch);
        model_write(p, ch.parent_fd);
        if (excluded(true, n)) {
            EXPECT_EQ(r, 0u);
            return;
        }
        ASSERT_NE(r, 0u);
        model_write(m.add(true, p, n), &f);
    }

    size_t alive_count() const {
        size_t n = 0;
        for (const auto &x : m.nodes)
            n += x.alive;
        return n;
    }

    // The records of a folder's subtree, itself included.
    size_t subtree_size(int top) const {
        size_t n = 0;
        for (size_t i = 0; i < m.nodes.size(); i++)
            n += m.nodes[i].alive && m.below((int) i, top);
        return n;
    }

    void folder_remove() {
        int i = pick(true, false);
        // Whole subtrees go, but not most of the tree at once, which would leave the rest of the run little
        // to work on.
        if (i < 0 || subtree_size(i) * 8 > alive_count())
            return;
        int p = m.nodes[i].parent;
        db_fd_t pf = parent_fd();
        db_change_t ch = {nullptr, rng() % 3 ? nullptr : &pf, nullptr, 0};
        bool ok;
        if (c.fs_type == DB_FS_NTFS)
            ok = db_folder_remove(db, fs, m.nodes[i].frn, &ch);
        else if (c.fs_type == DB_FS_REFS)
            ok = db_folder_remove_refs(db, fs, frn128(i), &ch);
        else if (rng() % 2)
            ok = db_folder_remove_in(db, fs, folder_ref(p), m.nodes[i].name.data(),
                                     (uint32_t) m.nodes[i].name.size(), &ch);
        else
            ok = db_folder_remove_path(db, m.path(i).c_str(), &ch);
        ASSERT_TRUE(ok);
        m.kill(i);
        model_write(p, ch.parent_fd);
    }

    void folder_rename() {
        int i = pick(true, false);
        if (i < 0)
            return;
        int old_p = m.nodes[i].parent;
        int new_p = rng() % 3 == 0 ? old_p : pick(true);
        std::string old_n = m.nodes[i].name;
        std::string new_n = rng() % 6 == 0 ? old_n : rng() % 8 == 0 ? case_flip(old_n) : name(true);
        if (new_p == old_p && new_n == old_n)
            return;
        int there = m.child(new_p, new_n);
        if (there >= 0 && there != i)
            return;
        bool into_child = m.below(new_p, i);
        if ((into_child || excluded(true, new_n)) && subtree_size(i) * 8 > alive_count())
            return;
        db_fd_t f = fd(true), pf = parent_fd(), opf = parent_fd();
        db_change_t ch = {rng() % 3 ? nullptr : &f, rng() % 3 ? nullptr : &pf, rng() % 3 ? nullptr : &opf, 0};
        db_ref_t r;
        if (c.fs_type == DB_FS_NTFS)
            r = db_folder_rename(db, fs, m.nodes[i].frn, m.nodes[new_p].frn, new_n.data(),
                                 (uint32_t) new_n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            r = db_folder_rename_refs(db, fs, frn128(i), frn128(new_p), new_n.data(), (uint32_t) new_n.size(),
                                      &ch);
        else if (rng() % 2)
            r = db_folder_rename_in(db, fs, folder_ref(old_p), old_n.data(), (uint32_t) old_n.size(),
                                    folder_ref(new_p), new_n.data(), (uint32_t) new_n.size(), &ch);
        else
            r = db_folder_rename_path(db, fs, m.path(i).c_str(), (m.path(new_p) + OS_SEP + new_n).c_str(),
                                      &ch);
        if (into_child) {
            // The index can't hold the cycle: the folder leaves with all it holds.
            EXPECT_EQ(r, 0u);
            m.kill(i);
            return;
        }
        model_write(new_p, ch.parent_fd);
        model_write(old_p, ch.old_parent_fd);
        if (excluded(true, new_n)) {
            EXPECT_EQ(r, 0u);
            m.kill(i);
            return;
        }
        ASSERT_NE(r, 0u);
        m.nodes[i].parent = new_p;
        m.nodes[i].name = new_n;
        model_write(i, ch.fd);
    }

    void folder_update() {
        int i = pick(true, false);
        if (i < 0)
            return;
        int p = m.nodes[i].parent;
        const std::string n = m.nodes[i].name;
        db_fd_t f = fd(true);
        db_change_t ch = {&f, nullptr, nullptr, 0};
        bool ok;
        if (c.fs_type == DB_FS_NTFS)
            ok = db_folder_update(db, fs, m.nodes[p].frn, n.data(), (uint32_t) n.size(), &ch);
        else if (c.fs_type == DB_FS_REFS)
            ok = db_folder_update_refs(db, fs, frn128(p), n.data(), (uint32_t) n.size(), &ch);
        else if (rng() % 2)
            ok = db_folder_update_in(db, fs, folder_ref(p), n.data(), (uint32_t) n.size(), &ch);
        else
            ok = db_folder_update_path(db, m.path(i).c_str(), &ch);
        ASSERT_TRUE(ok);
        model_write(i, &f);
    }

    void step() {
        int k = (int) (rng() % 100);
        if (k < 20)
            file_add();
        else if (k < 32)
            file_remove();
        else if (k < 52)
            file_rename();
        else if (k < 66)
            file_update();
        else if (k < 76)
            folder_add();
        else if (k < 80)
            folder_remove();
        else if (k < 92)
            folder_rename();
        else
            folder_update();
        steps++;
    }

    void finish() {
        for (db_query_t *q : queries)
            db_destroy_query(q);
        db_destroy_query(fresh);
        event_dispatch();
        db_destroy(db);
        event_dispatch();
    }
};

class ModelTest : public ::testing::TestWithParam<model_case_t> {
  protected:
    void SetUp() override {
        update_test_init();
        os_hooks_reset();
        os_hooks.processor_count = [] { return 4; };
        max_threads = GetParam().threads;
        find_subfolders_and_files_max_threads = 0;
        db_update_subtree_bulk = GetParam().bulk;
    }
    void TearDown() override {
        os_hooks_reset();
        max_threads = 0;
        db_update_subtree_bulk = 0;
    }
};

TEST_P(ModelTest, EveryArraySizeCountAndQueryStaysAsAFreshBuildWouldHaveIt) {
    const model_case_t &c = GetParam();
    ModelRun run(c);
    run.build();
    run.check("start");
    for (int k = 0; k < c.ops && !HasFatalFailure(); k++) {
        run.step();
        ASSERT_EQ(run.db->files.count, run.m.alive(false).size()) << "step " << k;
        ASSERT_EQ(run.db->folders.count, run.m.alive(true).size()) << "step " << k;
        if (k % 40 == 39)
            run.check("step " + std::to_string(k));
    }
    run.check("end");
    // The run must have had a tree to work on to the end.
    EXPECT_GT(run.m.alive(false).size(), c.files / 5);
    run.finish();
}

// Subtree scans split `folders` and `files` by chunks: the larger trees have several chunks, so that with
// two threads each scan really runs on two.
const model_case_t model_cases[] = {
    {"all_arrays_ntfs_1_thread", 0x7F3F, DB_FS_NTFS, 1, 400, 900, 1500, 1},
    {"all_arrays_ntfs_2_threads", 0x7F3F, DB_FS_NTFS, 2, 1300, 2200, 600, 2},
    {"all_arrays_folder_1_thread", 0x7F3F, DB_FS_FOLDER, 1, 400, 900, 1500, 3},
    {"all_arrays_folder_2_threads", 0x7F3F, DB_FS_FOLDER, 2, 1300, 2200, 600, 4},
    {"all_arrays_refs", 0x7F3F, DB_FS_REFS, 2, 300, 600, 800, 5},
    {"default_ntfs_1_thread", DB_STRUCTURE_DEFAULT, DB_FS_NTFS, 1, 400, 900, 1500, 6},
    {"default_folder_2_threads", DB_STRUCTURE_DEFAULT, DB_FS_FOLDER, 2, 1300, 2200, 600, 7},
    // Small trees never pay for a pass over whole arrays: forced, the same runs test that path.
    {"all_arrays_ntfs_one_pass", 0x7F3F, DB_FS_NTFS, 2, 300, 700, 600, 8, 1},
    {"default_folder_one_pass", DB_STRUCTURE_DEFAULT, DB_FS_FOLDER, 1, 300, 700, 600, 9, 1},
};

INSTANTIATE_TEST_SUITE_P(Live, ModelTest, ::testing::ValuesIn(model_cases),
                         [](const ::testing::TestParamInfo<model_case_t> &i) {
                             return std::string(i.param.label);
                         });

} // namespace
