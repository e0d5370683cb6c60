// The live update's edge cases one by one, the lines it logs when a fact can't be applied, the search of
// records by path, the thread count of subtree scans, the changed-records event, and the end of an index
// whose array contradicts itself.
#include "update_fixture.h"

#include "db/dbfile.h"

#include <filesystem>
#include <functional>

namespace {

// Whether the log holds the line whole: from a line's start (behind the time stamp) to its end.
bool has_line(const std::string &log, const std::string &line) {
    for (size_t at = log.find(": " + line); at != std::string::npos; at = log.find(": " + line, at + 1)) {
        size_t end = at + 2 + line.size();
        if (end == log.size() || log[end] == '\r' || log[end] == '\n')
            return true;
    }
    return false;
}

// A small tree from relative paths ('/' separates; a trailing '/' makes a folder), under one NTFS source
// with FRNs from 0x100 in the order the folders appear; every file has size 10 unless the path says
// "=<size>" at its end.
struct small_t {
    model_t m;
    db_t *db = nullptr;
    db_fs_t *fs = nullptr;
    uint32_t fs_type;
    uint32_t word;

    small_t(const std::vector<std::string> &paths, uint32_t w = 0x7F3F, uint32_t type = DB_FS_NTFS)
        : fs_type(type), word(w) {
        update_test_init();
        m.add(true, -1, model_root_name());
        m.nodes[0].dm = 1000;
        for (const std::string &p : paths)
            add_path(p);
        db = fresh_index(m, word, fs_type);
        fs = db->fs_first;
        db->is_loaded = true;
    }
    ~small_t() {
        event_dispatch();
        db_destroy(db);
        event_dispatch();
    }
    void add_path(std::string p) {
        uint64_t size = 10;
        size_t eq = p.find('=');
        if (eq != std::string::npos) {
            size = p.substr(eq + 1) == "?" ? DB_UNKNOWN : std::stoull(p.substr(eq + 1));
            p = p.substr(0, eq);
        }
        int parent = 0;
        size_t at = 0;
        while (at < p.size()) {
            size_t end = p.find('/', at);
            bool folder = end != std::string::npos;
            std::string part = p.substr(at, (folder ? end : p.size()) - at);
            int i = m.child(parent, part);
            if (i < 0) {
                i = m.add(folder, parent, part);
                m.nodes[i].dm = 1000;
                if (!folder)
                    m.nodes[i].size = size;
            }
            parent = i;
            at = folder ? end + 1 : p.size();
        }
    }
    // The model node of a relative path.
    int node(const std::string &rel) const {
        int at = 0;
        size_t pos = 0;
        while (pos <= rel.size() && at >= 0) {
            size_t end = rel.find('/', pos);
            if (end == std::string::npos)
                end = rel.size();
            at = m.child(at, rel.substr(pos, end - pos));
            pos = end + 1;
        }
        return at;
    }
    uint64_t frn(const std::string &rel) const {
        return rel.empty() ? DB_NTFS_ROOT_FRN : m.nodes[node(rel)].frn;
    }
    std::string abs(const std::string &rel) const {
        std::string s = model_root_name();
        if (!rel.empty())
            s += OS_SEP + sep(rel);
        return s;
    }
    static std::string sep(std::string s) {
        for (char &c : s)
            if (c == '/')
                c = OS_SEP;
        return s;
    }
    db_ref_t folder(const std::string &rel) { return db_folder_find_by_path(db, abs(rel).c_str()); }
    db_ref_t file(const std::string &rel) { return db_file_find_by_path(db, abs(rel).c_str()); }
    uint64_t size_of(const std::string &rel) { return db_folder_get(db, folder(rel), DB_FIELD_SIZE); }
    // The index equals a fresh build of the model.
    void expect_model(const std::string &when) {
        db_t *f = fresh_index(m, word, fs_type);
        expect_same_arrays(db, f, fs_type, when);
        db_destroy(f);
    }
};

// ---- the edge cases of the operations ------------------------------------------------------------------

TEST(LiveEdge, MovingAFolderIntoItsOwnChildRemovesItWithItsSubtree) {
    small_t t({"a/b/c/f.txt", "a/g.txt", "h.txt"});
    log_capture_t log;
    uint64_t a = t.frn("a");
    EXPECT_EQ(db_folder_rename(t.db, t.fs, a, t.frn("a/b/c"), "a", 1, nullptr), 0u);
    EXPECT_NE(
        log.text().find("unable to rename ntfs folder: " + std::string(16 - 3, '0') + "100: move into child"),
        std::string::npos);
    t.m.kill(t.node("a"));
    t.expect_model("after the move into a child");
    EXPECT_EQ(t.size_of(""), 10u);
    EXPECT_EQ(db_folder_child_count(t.db, t.folder("")), 1u);
}

TEST(LiveEdge, ACaseOnlyRenameMakesANewRecordBesideTheOldOneWhichLeaves) {
    small_t t({"d/readme.txt", "d/README.md", "d/x/"});
    db_ref_t old = t.file("d/readme.txt");
    db_ref_t r =
        db_file_rename(t.db, t.fs, t.frn("d"), "readme.txt", 10, t.frn("d"), "ReadMe.txt", 10, nullptr);
    ASSERT_NE(r, 0u);
    EXPECT_EQ(t.file("d/readme.txt"), 0u);
    EXPECT_EQ(t.file("d/ReadMe.txt"), r);
    (void) old;
    t.m.nodes[t.node("d/readme.txt")].name = "ReadMe.txt";
    t.expect_model("after the case-only rename");
    EXPECT_EQ(db_folder_child_count(t.db, t.folder("d")), 3u);
}

TEST(LiveEdge, AFolderExcludedByItsNewNameLosesItsSubtree) {
    small_t t({"src/a/b.c=5", "src/c.c=7", "doc/x.md=1"});
    db_exclude_add(&t.db->exclude.folders, "build*", 6);
    EXPECT_EQ(db_folder_rename(t.db, t.fs, t.frn("src"), DB_NTFS_ROOT_FRN, "build", 5, nullptr), 0u);
    t.m.kill(t.node("src"));
    t.expect_model("after the rename to an excluded name");
    EXPECT_EQ(t.size_of(""), 1u);
    // A path pattern excludes descendants that a move brings under it, while the moved folder passes.
    small_t u({"keep/old/f.txt=3", "keep/g.txt=4", "dst/"});
    db_exclude_add(&u.db->exclude.folders, u.abs("dst/keep/old").c_str(),
                   (uint32_t) u.abs("dst/keep/old").size());
    // The summary flag is what a build of the rules sets; these rules were added by hand.
    u.db->exclude.folder_needs_path = true;
    {
        log_capture_t log;
        EXPECT_NE(db_folder_rename(u.db, u.fs, u.frn("keep"), u.frn("dst"), "keep", 4, nullptr), 0u);
        std::string text = log.text();
        EXPECT_NE(text.find("find excluded"), std::string::npos);
        EXPECT_NE(text.find("exclude old"), std::string::npos);
        EXPECT_NE(text.find("renamed 1 subfolders and 2 files from " + u.abs("dst/keep")), std::string::npos);
    }
    u.m.kill(u.node("keep/old"));
    u.m.nodes[u.node("keep")].parent = u.node("dst");
    u.expect_model("after the move under an excluded path");
    EXPECT_EQ(u.size_of("dst"), 4u);
    EXPECT_EQ(db_folder_child_count(u.db, u.folder("dst/keep")), 1u);
}

TEST(LiveEdge, RemovingAnEmptyCountedFolderScansNothing) {
    small_t t({"empty/", "full/a/b.txt", "c.txt"});
    log_capture_t log;
    ASSERT_TRUE(db_folder_remove(t.db, t.fs, t.frn("empty"), nullptr));
    EXPECT_EQ(log.text().find("remove subfolders and files from"), std::string::npos);
    EXPECT_EQ(log.text().find("parent backup count"), std::string::npos);
    ASSERT_TRUE(db_folder_remove(t.db, t.fs, t.frn("full"), nullptr));
    std::string text = log.text();
    EXPECT_NE(text.find("remove ntfs folder full with children"), std::string::npos);
    EXPECT_NE(text.find("parent backup count 2"), std::string::npos);
    EXPECT_NE(text.find("removed 1 subfolders and 1 files from " + t.abs("full")), std::string::npos);
    t.m.kill(t.node("empty"));
    t.m.kill(t.node("full"));
    t.expect_model("after both removals");
}

TEST(LiveEdge, AFileOfUnknownSizeLeavesItsParentsSizes) {
    small_t t({"a/b/x.txt=100"});
    db_ref_t b = t.folder("a/b");
    mem_array_kill(&t.db->changed_records);
    t.db->changed_event_pending = true; // no event is posted for what follows
    db_fd_t fd = {DB_UNKNOWN, 2000, DB_UNKNOWN, DB_UNKNOWN, 0x20};
    db_change_t ch = {&fd, nullptr, nullptr, 0};
    ASSERT_NE(db_file_add(t.db, t.fs, t.frn("a/b"), "y.txt", 5, &ch), 0u);
    EXPECT_EQ(db_folder_get(t.db, b, DB_FIELD_SIZE), 100u);
    EXPECT_EQ(t.size_of(""), 100u);
    EXPECT_EQ(t.db->changed_records.count, 0u) << "no folder's size moved";
    // Known, it counts all the way up; removed, it goes again.
    fd.size = 23;
    ASSERT_TRUE(db_file_update(t.db, t.fs, t.frn("a/b"), "y.txt", 5, &ch));
    EXPECT_EQ(t.size_of(""), 123u);
    EXPECT_EQ(t.db->changed_records.count, 4u) << "the file and its three folders";
    ASSERT_TRUE(db_file_remove(t.db, t.fs, t.frn("a/b"), "x.txt", 5, nullptr));
    EXPECT_EQ(t.size_of("a"), 23u);
    t.db->changed_event_pending = false;
}

// With the record taken out of an array by hand, any operation that touched that array would find it
// missing, which is fatal: so an update that survives did not touch it.
TEST(LiveEdge, ADateModifiedUpdateTouchesNeitherTheSizeNorTheNameArray) {
    small_t t({"a/x.txt=5", "a/y.txt=6"});
    db_ref_t x = t.file("a/x.txt");
    db_key_t by_size = {t.db, x, (uint8_t) DB_ORDER_SIZE, false, false};
    db_key_t by_name = {t.db, x, (uint8_t) DB_ORDER_NAME, false, false};
    ASSERT_EQ(mem_array_find_remove(&t.db->files_by_size, db_key_compare, &by_size), x);
    ASSERT_EQ(mem_array_find_remove(&t.db->files, db_key_compare, &by_name), x);
    db_fd_t fd = {5, 999999, DB_UNKNOWN, DB_UNKNOWN, 0}; // the same size, a new date modified
    db_file_update_record(t.db, x, &fd, 0);
    EXPECT_EQ(db_file_get(t.db, x, DB_FIELD_DATE_MODIFIED), 999999u);
    ASSERT_TRUE(mem_array_insert_sorted(&t.db->files_by_size, db_key_compare, &by_size, x));
    ASSERT_TRUE(mem_array_insert_sorted(&t.db->files, db_key_compare, &by_name, x));
    t.m.nodes[t.node("a/x.txt")].dm = 999999;
    t.expect_model("after the date-only update");
}

TEST(LiveEdge, AnAddOfARecordThatExistsLeavesTheCount) {
    small_t t({"a/x.txt=5", "a/sub/"});
    db_ref_t x = t.file("a/x.txt");
    db_fd_t fd = {77, 1, 1, 1, 0x20};
    db_change_t ch = {&fd, nullptr, nullptr, 0};
    EXPECT_EQ(db_file_add(t.db, t.fs, t.frn("a"), "x.txt", 5, &ch), x);
    EXPECT_EQ(db_folder_add(t.db, t.fs, t.frn("a/sub"), t.frn("a"), "sub", 3, &ch), t.folder("a/sub"));
    EXPECT_EQ(db_folder_add_in(t.db, nullptr, t.folder("a"), "sub", 3, &ch), 0u)
        << "an NTFS folder needs its FRN";
    EXPECT_EQ(db_folder_child_count(t.db, t.folder("a")), 2u);
    EXPECT_EQ(db_file_get(t.db, x, DB_FIELD_SIZE), 5u) << "the record stays as it was";
    t.expect_model("after the repeated adds");
}

TEST(LiveEdge, AFolderNameTakenUnderANewFrnKeepsItsRecordAndTakesTheFrn) {
    small_t t({"a/x.txt"});
    db_ref_t a = t.folder("a");
    log_capture_t log;
    EXPECT_EQ(db_folder_add(t.db, t.fs, 0x999, DB_NTFS_ROOT_FRN, "a", 1, nullptr), a);
    EXPECT_NE(log.text().find("folder name a found, yet FRN 0x0000000000000999 does not exists"),
              std::string::npos);
    EXPECT_EQ(db_find_folder_by_frn(t.db, t.fs, 0x999), a);
    EXPECT_EQ(db_find_folder_by_frn(t.db, t.fs, t.frn("a")), 0u);
    t.m.nodes[t.node("a")].frn = 0x999;
    t.expect_model("after the FRN change");
}

// A folder renamed onto a name that a folder under another FRN holds: that folder takes the FRN, and the
// two subtrees, which both hold "x", are not merged.
TEST(LiveEdge, AFolderRenamedOntoAnotherFoldersNameDoesNotMergeTheirSubtrees) {
    small_t t({"a/x=4", "b/x=5"});
    uint64_t a = t.frn("a");
    EXPECT_EQ(db_folder_rename(t.db, t.fs, a, DB_NTFS_ROOT_FRN, "b", 1, nullptr), t.folder("b"));
    t.m.kill(t.node("a"));
    t.m.nodes[t.node("b")].frn = a;
    t.expect_model("after the rename onto b");
    EXPECT_EQ(t.size_of(""), 5u);
}

// ---- lines for facts that can't be applied -------------------------------------------------------------

TEST(LiveEdge, FactsThatCantBeAppliedAreLoggedAndDropped) {
    small_t t({"a/x.txt", "b/"});
    struct row_t {
        std::function<bool()> apply; // true when the operation reported success
        const char *line;
    };
    uint64_t a = t.frn("a"), b = t.frn("b");
    const row_t rows[] = {
        {[&] { return db_file_add(t.db, t.fs, 0xAB, "n.txt", 5, nullptr) != 0; },
         "unable to add ntfs file: n.txt: parent 00000000000000ab not found"},
        {[&] { return db_file_remove(t.db, t.fs, a, "none", 4, nullptr); },
         "unable to remove file: none: file not found"},
        {[&] { return db_file_update(t.db, t.fs, a, "none", 4, nullptr); },
         "unable to update file: none: file not found"},
        {[&] { return db_folder_remove(t.db, t.fs, 0x77, nullptr); },
         "unable to remove ntfs folder: 0000000000000077: file not found"},
        {[&] { return db_folder_update(t.db, t.fs, a, "none", 4, nullptr); },
         "unable to update ntfs folder: none: folder not found"},
        {[&] { return db_folder_rename(t.db, t.fs, 0x88, b, "new", 3, nullptr) == 0; },
         "unable to rename ntfs folder: 0000000000000088: not found"},
        {[&] { return db_folder_rename(t.db, t.fs, a, 0x66, "a", 1, nullptr) != 0; },
         "unable to rename ntfs folder: 0000000000000100: new parent not found"},
    };
    for (const row_t &row : rows) {
        log_capture_t log;
        EXPECT_FALSE(row.apply()) << row.line;
        EXPECT_TRUE(has_line(log.text(), row.line)) << log.text();
    }
    // The rename of an unknown folder made it; the rename to a missing parent removed "a".
    t.m.add(true, t.node("b"), "new");
    t.m.nodes.back().frn = 0x88;
    t.m.kill(t.node("a"));
    t.expect_model("after the failed facts");
}

TEST(LiveEdge, ARenameFallsBackOnAnAddWhenTheOldRecordIsUnknown) {
    small_t t({"a/", "b/"});
    ASSERT_NE(db_file_rename(t.db, t.fs, t.frn("a"), "ghost", 5, t.frn("b"), "real", 4, nullptr), 0u);
    ASSERT_NE(db_file_rename(t.db, t.fs, 0x5555, "ghost", 5, t.frn("a"), "real2", 5, nullptr), 0u);
    t.add_path("b/real");
    t.add_path("a/real2");
    t.m.nodes[t.node("b/real")].size = DB_UNKNOWN;
    t.m.nodes[t.node("a/real2")].size = DB_UNKNOWN;
    t.m.nodes[t.node("b/real")].dm = DB_UNKNOWN;
    t.m.nodes[t.node("a/real2")].dm = DB_UNKNOWN;
    t.expect_model("after the renames of unknown files");
}

// ---- finding -------------------------------------------------------------------------------------------

TEST(LiveFind, PathsFindExactlyTheirRecord) {
    small_t t({"d/readme", "d/README",
               "d/R\xC3\xA9"
               "adme",
               "e/readme", "d/sub/readme", "readme"},
              0x7F3F, DB_FS_FOLDER);
    struct row_t {
        const char *rel;
        bool found;
    } rows[] = {{"d/readme", true},
                {"d/README", true},
                {"d/R\xC3\xA9"
                 "adme",
                 true},
                {"e/readme", true},
                {"d/sub/readme", true},
                {"readme", true},
                {"d/ReadMe", false},
                {"e/README", false},
                {"x/readme", false},
                {"d/sub", false}};
    for (const row_t &row : rows) {
        db_ref_t r = t.file(row.rel);
        EXPECT_EQ(r != 0, row.found) << row.rel;
        if (r) {
            EXPECT_EQ(full_path_of(r), t.abs(row.rel));
        }
    }
    EXPECT_EQ(t.folder(""), db_record_root(t.file("d/readme")));
    EXPECT_EQ(full_path_of(t.folder("d/sub")), t.abs("d/sub"));
    EXPECT_EQ(t.folder("d/readme"), 0u);
    // By parent and name, the same exactness.
    db_ref_t d = t.folder("d");
    EXPECT_EQ(db_file_find(t.db, nullptr, d, "README", 6), t.file("d/README"));
    EXPECT_EQ(db_file_find(t.db, nullptr, d, "ReadMe", 6), 0u);
}

TEST(LiveFind, SubtreeScansUseTheThreadsTheRuleAllows) {
    struct row_t {
        uint32_t chunks;
        int32_t max_threads, find_max;
        int processors;
        uint32_t want;
    } rows[] = {
        {1, 0, 0, 8, 1},   // one chunk, one thread
        {10, 0, 0, 8, 4},  // half the processors
        {3, 0, 0, 8, 3},   // never more than the chunks
        {10, 2, 0, 8, 2},  // max_threads caps
        {10, 0, 6, 8, 6},  // the subtree setting replaces the half
        {10, 0, 16, 8, 8}, // but not beyond the processors
        {10, 3, 6, 8, 3},  // the smaller of both settings
        {10, 0, 0, 1, 1},  // half of one is none: the chunks and processors decide
        {0, 0, 0, 8, 1},   // an empty array still runs on the calling thread
    };
    for (const row_t &r : rows)
        EXPECT_EQ(db_update_thread_count(r.chunks, r.max_threads, r.find_max, r.processors), r.want)
            << r.chunks << " " << r.max_threads << " " << r.find_max << " " << r.processors;
}

// ---- queries -------------------------------------------------------------------------------------------

struct event_count_t {
    int selection = 0, results = 0;
};
void count_event(void *user, int code, db_query_t *) {
    event_count_t *c = (event_count_t *) user;
    if (code == DB_QUERY_SELECTION)
        c->selection++;
    if (code == DB_QUERY_RESULTS)
        c->results++;
}

void search(db_query_t *q, const char *text, int sort = DB_SORT_NAME) {
    db_query_search(q, false, false, false, false, false, false, false, text, 0, "", sort, 0, 0, false);
    db_wait(q->db, "test");
    event_dispatch();
}

TEST(LiveQuery, ARenamedRecordKeepsItsSelectionWhileItStillMatches) {
    small_t t({"a/readme.1", "a/readme.2", "a/other", "b/"});
    db_query_t *q = db_query_create(t.db, false, nullptr, nullptr);
    search(q, "readme");
    ASSERT_EQ(db_get_result_count(q), 2);
    int row = db_get_result_index_from_filename(q, t.abs("a/readme.2").c_str());
    ASSERT_GE(row, 0);
    db_select_result(q, row);
    db_itemref_t ref = {};
    db_itemref_set(q, &ref, row);
    // Moved and renamed, still a match: selected and remembered under its new name.
    db_ref_t r = db_file_rename(t.db, t.fs, t.frn("a"), "readme.2", 8, t.frn("b"), "readme.0", 8, nullptr);
    ASSERT_NE(r, 0u);
    ASSERT_EQ(db_get_selection_count(q), 1);
    int at = db_get_selection_result_index(q, 0);
    db_ref_t got;
    bool folder;
    ASSERT_TRUE(_db_result_at(q, at, &got, &folder));
    EXPECT_EQ(got, r);
    EXPECT_EQ(at, 0) << "readme.0 sorts first";
    EXPECT_EQ(db_itemref_get(q, &ref), 0);
    // A folder's rename keeps the selection of what it holds.
    db_select_result(q, 1);
    ASSERT_NE(db_folder_rename(t.db, t.fs, t.frn("a"), DB_NTFS_ROOT_FRN, "c", 1, nullptr), 0u);
    EXPECT_EQ(db_get_selection_count(q), 2);
    EXPECT_EQ(db_get_result_count(q), 2);
    // Renamed to what no longer matches: it leaves both.
    ASSERT_NE(db_file_rename(t.db, t.fs, t.frn("b"), "readme.0", 8, t.frn("b"), "zzz", 3, nullptr), 0u);
    EXPECT_EQ(db_get_result_count(q), 1);
    EXPECT_EQ(db_get_selection_count(q), 1);
    EXPECT_EQ(db_itemref_get(q, &ref), -1);
    db_itemref_destroy(q, &ref);
    db_destroy_query(q);
}

TEST(LiveQuery, ChangedRecordsReachTheQueriesThatShowThemOnce) {
    small_t t({"a/readme", "a/other", "b/zzz"});
    event_count_t shows, hides;
    db_query_t *q = db_query_create(t.db, false, count_event, &shows);
    db_query_t *other = db_query_create(t.db, false, count_event, &hides);
    search(q, "readme");
    search(other, "zzz");
    shows = hides = {};
    db_fd_t fd = {DB_UNKNOWN, 5555, DB_UNKNOWN, DB_UNKNOWN, 0};
    db_change_t ch = {&fd, nullptr, nullptr, 0};
    ASSERT_TRUE(db_file_update(t.db, t.fs, t.frn("a"), "readme", 6, &ch));
    fd.date_modified = 6666;
    ASSERT_TRUE(db_file_update(t.db, t.fs, t.frn("a"), "readme", 6, &ch));
    EXPECT_EQ(t.db->changed_records.count, 1u);
    EXPECT_TRUE(t.db->changed_event_pending);
    event_dispatch();
    EXPECT_EQ(shows.selection, 1);
    EXPECT_EQ(hides.selection, 0);
    EXPECT_EQ(t.db->changed_records.count, 0u);
    EXPECT_FALSE(t.db->changed_event_pending);
    // A value nobody shows changes: nobody hears of it, and the next change posts a new event.
    ASSERT_TRUE(db_file_update(t.db, t.fs, t.frn("a"), "other", 5, &ch));
    event_dispatch();
    EXPECT_EQ(shows.selection, 1);
    EXPECT_EQ(hides.selection, 0);
    EXPECT_EQ(t.db->changed_records.count, 0u);
    db_destroy_query(q);
    db_destroy_query(other);
}

// ---- corruption ----------------------------------------------------------------------------------------

TEST(LiveDeathTest, AnArrayThatContradictsItselfEndsTheProcessAfterDeletingTheIndexFile) {
#ifdef _WIN32
    GTEST_SKIP() << "the fatal path shows a message box on Windows";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    small_t t({"a/x.txt=5"});
    // The index file where the settings put it, in a scratch folder.
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    // The death test's child runs this again in a process of its own: the folder's name must not depend
    // on the process.
    std::string folder = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP + "sw-update-corrupt";
    str_kill(&tmp);
    std::filesystem::create_directories(folder);
    config_defaults();
    config_set_folders(folder.c_str(), folder.c_str());
    str_t name;
    str_init(&name);
    db_file_name(&name, false, false);
    std::string file(name.ptr, (size_t) name.len);
    str_kill(&name);
    std::ofstream(file) << "index";
    ASSERT_TRUE(std::filesystem::exists(file));

    db_ref_t x = t.file("a/x.txt");
    // The record is missing from the size array: the update can't take it out.
    db_key_t key = {t.db, x, (uint8_t) DB_ORDER_SIZE, false, false};
    ASSERT_EQ(mem_array_find_remove(&t.db->files_by_size, db_key_compare, &key), x);
    db_fd_t fd = {6, DB_UNKNOWN, DB_UNKNOWN, DB_UNKNOWN, 0};
    EXPECT_DEATH(
        {
            debug_set_console(true);
            db_file_update_record(t.db, x, &fd, 0);
        },
        "corrupt file size array");
    EXPECT_DEATH(db_file_update_record(t.db, x, &fd, 0),
                 "_db_corrupt\\(\\): Fatal error: Sablewatch database is corrupt\\.");
    EXPECT_FALSE(std::filesystem::exists(file));
    ASSERT_TRUE(mem_array_insert_sorted(&t.db->files_by_size, db_key_compare, &key, x));
    config_kill();
    std::filesystem::remove_all(folder);
}

} // namespace
