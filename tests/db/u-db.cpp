// The index as a whole: an index built by hand over three sources and searched, the job slot with its
// wait and end-of-job handling, status text, sources and excludes.
#include "db_fixture.h"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <pcre2.h>

#include "main/main.h"
#include "os/os.h"

// The index posts its end-of-job events through the real event queue; there is no main loop in this test
// binary, so a test runs the queue itself where it says.
static int pending_events(void *) {
    return event_pending_count();
}

static int run_events() {
    return event_dispatch();
}

// ---- an index built by hand ----------------------------------------------------------------------------

struct built_index_t {
    db_holder_t h;
    std::vector<db_ref_t> folders, files;
    std::map<db_ref_t, std::string> flat; // expected flat path of every record, made while building

    built_index_t() : h(DB_STRUCTURE_DEFAULT) {
        std::mt19937 rng(11);
        db_fs_t *ntfs = db_fs_add(h.db, DB_FS_NTFS);
        db_fs_t *tree = db_fs_add(h.db, DB_FS_FOLDER);
        db_fs_t *list = db_fs_add(h.db, DB_FS_FILE_LIST);
        db_fs_set_text(&ntfs->path, "C:");
        db_fs_set_text(&tree->path, "/");
        std::string long_root = "/srv/" + std::string(290, 'L');
        add_folder(ntfs, 0, "C:");
        add_folder(tree, 0, "");
        add_folder(list, 0, long_root);
        std::set<std::pair<db_ref_t, std::string>> used;
        while (folders.size() < 1500) {
            db_ref_t parent = folders[rng() % folders.size()];
            std::string name = random_name(rng);
            if (used.insert({parent, name}).second)
                add_folder(db_record_fs(h.db, parent), parent, name);
        }
        used.clear();
        while (files.size() < 4000) {
            db_ref_t parent = folders[rng() % folders.size()];
            std::string name = random_name(rng);
            if (!used.insert({parent, name}).second)
                continue;
            db_ref_t f = h.file(db_record_fs(h.db, parent), parent, name);
            db_file_set(h.db, f, DB_FIELD_SIZE, rng() % 1000);
            flat[f] = flat[parent] + OS_SEP + name;
            files.push_back(f);
        }
    }

    void add_folder(const db_fs_t *fs, db_ref_t parent, const std::string &name) {
        db_ref_t r = h.folder(fs, parent, name);
        flat[r] = parent ? flat[parent] + OS_SEP + name : name;
        folders.push_back(r);
    }

    // Fills the array in bulk from the records sorted by cmp, as a load or rebuild does.
    template <typename Cmp>
    static void fill(mem_array_t *a, std::vector<db_ref_t> recs, Cmp cmp) {
        std::sort(recs.begin(), recs.end(), [&](db_ref_t x, db_ref_t y) { return cmp(x, y) < 0; });
        mem_array_alloc_bulk(a, (uint32_t) recs.size());
        for (uint32_t i = 0; i < recs.size(); i++)
            *mem_array_bulk_slot(a, i) = recs[i];
    }
};

static int name_key_compare(mem_ref_t element, const void *key) {
    const std::string *name = (const std::string *) key;
    uint32_t len;
    const char *n = db_record_name(element, &len);
    return utf8_compare_lower_base(n, len, name->data(), name->size());
}

TEST(Index, BuiltByHandSortedFoundAndWalkedToItsPath) {
    built_index_t b;
    db_t *db = b.h.db;
    built_index_t::fill(&db->folders, b.folders, db_name_compare);
    built_index_t::fill(&db->files, b.files, db_name_compare);
    built_index_t::fill(&db->files_by_path, b.files, db_path_name_compare);
    ASSERT_TRUE(mem_array_check(&db->files));
    ASSERT_EQ(db->files.count, 4000u);
    ASSERT_EQ(db->folders.count, 1500u);

    // Every array is strictly increasing in its order, walked through the array itself.
    int chunk = 0, pos = -1;
    db_ref_t prev = 0, cur;
    while ((cur = mem_array_next(&db->files, &chunk, &pos))) {
        if (prev) {
            ASSERT_LT(db_name_compare(prev, cur), 0);
        }
        prev = cur;
    }

    // Find by name alone (the order is case and diacritic blind first, so this binary search is exact
    // about the fold), then by record, then walk to the full path.
    const std::string sep(1, OS_SEP);
    for (size_t i = 0; i < b.files.size(); i += 3) {
        db_ref_t want = b.files[i];
        std::string name = rec_name(want);
        db_ref_t hit = mem_array_find(&db->files, name_key_compare, &name);
        ASSERT_NE(hit, 0u) << name;
        uint32_t hl;
        const char *hn = db_record_name(hit, &hl);
        ASSERT_EQ(utf8_compare_lower_base(hn, hl, name.data(), name.size()), 0);
        db_key_t key = {db, want, DB_ORDER_NAME, false, false};
        ASSERT_EQ(mem_array_find(&db->files, db_key_compare, &key), want);
        ASSERT_EQ(full_path(want), b.flat[want]);
        key.order = DB_ORDER_PATH;
        ASSERT_EQ(mem_array_find(&db->files_by_path, db_key_compare, &key), want);
    }
    for (db_ref_t f : b.folders) {
        db_key_t key = {db, f, DB_ORDER_NAME, true, false};
        ASSERT_EQ(mem_array_find(&db->folders, db_key_compare, &key), f);
    }

    // The path array reads as the sorted flat strings of the parents' paths, and within one folder as
    // the sorted names: a folder's files come before the files of its subfolders.
    std::string last_parent, last_name;
    for (uint32_t i = 0; i < db->files_by_path.count; i++) {
        db_ref_t f = mem_array_get(&db->files_by_path, i);
        std::string parent = full_path(db_record_parent(f)), name = rec_name(f);
        if (i) {
            int c =
                utf8_compare_lower_base(last_parent.data(), last_parent.size(), parent.data(), parent.size());
            ASSERT_LE(c, 0) << last_parent << " | " << parent;
            if (c == 0) {
                ASSERT_LE(
                    utf8_compare_lower_base(last_name.data(), last_name.size(), name.data(), name.size()), 0);
            }
        }
        last_parent = parent;
        last_name = name;
    }
    // Names in the tree source come out as absolute paths; the long root keeps its whole name.
    int tree_files = 0, list_files = 0;
    for (db_ref_t f : b.files) {
        uint32_t fs = db_record_fs_index(f);
        std::string p = full_path(f);
        if (fs == 1) {
            ASSERT_EQ(p.compare(0, 1, sep), 0) << p;
            tree_files++;
        } else if (fs == 2) {
            ASSERT_EQ(p.compare(0, 5 + 290, "/srv/" + std::string(290, 'L')), 0);
            list_files++;
        }
    }
    EXPECT_GT(tree_files, 100);
    EXPECT_GT(list_files, 100);
    db_arrays_kill(db);
    EXPECT_EQ(db->files.count, 0u);
}

// ---- the job slot --------------------------------------------------------------------------------------

struct job_probe_t {
    std::atomic<int> runs{0};
    std::atomic<bool> finished{false};
    uint32_t sleep_ms = 0;
};

static void probe_proc(db_t *, void *arg) {
    job_probe_t *p = (job_probe_t *) arg;
    if (p->sleep_ms)
        os_sleep_ms(p->sleep_ms);
    p->runs++;
    p->finished = true;
}

TEST(JobSlot, WaitReturnsOnlyWhenTheJobHasEnded) {
    run_events();
    db_holder_t h;
    job_probe_t probe;
    probe.sleep_ms = 60;
    db_job_start(h.db, "test", DB_JOB_OTHER, nullptr, probe_proc, &probe, OS_PRIORITY_NORMAL);
    EXPECT_TRUE(db_job_running(h.db));
    EXPECT_EQ(h.db->busy, 1u);
    db_wait(h.db, "test_wait");
    EXPECT_TRUE(probe.finished) << "db_wait returned while the job was still running";
    EXPECT_FALSE(db_job_running(h.db));
    EXPECT_TRUE(os_event_wait(h.db->job_done, 0));
    EXPECT_EQ(h.db->busy, 1u) << "the job ends only when its ready event runs on the main thread";
    EXPECT_EQ(pending_events(h.db), 1);
    EXPECT_EQ(run_events(), 1);
    EXPECT_EQ(h.db->busy, 0u);
    db_wait(h.db, "idle"); // nothing to wait for
}

TEST(JobSlot, ReadyProcWaitsForAThreadThatHasJustPosted) {
    run_events();
    db_holder_t h;
    job_probe_t probe;
    db_job_start(h.db, "test", DB_JOB_OTHER, nullptr, probe_proc, &probe, OS_PRIORITY_NORMAL);
    // Run the ready event as soon as it is posted, without db_wait first: it must wait for the thread to
    // park and leave the slot empty.
    while (pending_events(h.db) == 0)
        os_sleep_ms(1);
    run_events();
    EXPECT_FALSE(db_job_running(h.db));
    EXPECT_EQ(h.db->busy, 0u);
    EXPECT_EQ(probe.runs, 1);
}

TEST(JobSlot, JobsQueueBehindEachOtherAndBusyCountsThem) {
    run_events();
    db_holder_t h;
    job_probe_t a, b;
    a.sleep_ms = 30;
    db_job_start(h.db, "first", DB_JOB_SEARCH, nullptr, probe_proc, &a, OS_PRIORITY_NORMAL);
    db_job_start(h.db, "second", DB_JOB_SORT, nullptr, probe_proc, &b, OS_PRIORITY_NORMAL);
    EXPECT_TRUE(a.finished) << "starting a job waits for the one in the slot";
    EXPECT_EQ(h.db->busy, 2u);
    EXPECT_EQ(h.db->job_kind, (uint32_t) DB_JOB_SORT);
    db_wait(h.db, "test");
    EXPECT_EQ(run_events(), 2);
    EXPECT_EQ(h.db->busy, 0u);
    EXPECT_EQ(a.runs + b.runs, 2);
}

TEST(JobSlot, WaitRaisesALowPriorityJob) {
    run_events();
    db_holder_t h;
    job_probe_t probe;
    probe.sleep_ms = 20;
    db_job_start(h.db, "low", DB_JOB_OTHER, nullptr, probe_proc, &probe, OS_PRIORITY_BELOW_NORMAL);
    EXPECT_EQ(h.db->job_priority, OS_PRIORITY_BELOW_NORMAL);
    db_wait(h.db, "test");
    EXPECT_EQ(h.db->job_priority, OS_PRIORITY_NORMAL);
    run_events();
}

TEST(JobSlot, DestroyWaitsAndRemovesPendingEvents) {
    run_events();
    db_t *db = db_create(nullptr);
    job_probe_t probe;
    probe.sleep_ms = 20;
    db_job_start(db, "test", DB_JOB_OTHER, nullptr, probe_proc, &probe, OS_PRIORITY_NORMAL);
    db_destroy(db);
    EXPECT_TRUE(probe.finished);
    EXPECT_EQ(pending_events(db), 0) << "a ready event for a destroyed index would touch freed memory";
}

// ---- status, sources, excludes -------------------------------------------------------------------------

TEST(Index, StatusTextIsSetFormattedAndCleared) {
    db_holder_t h;
    str_t s;
    str_init(&s);
    db_get_status(h.db, &s);
    EXPECT_STREQ(s.ptr, "");
    db_set_status(h.db, "Scanning %s: %d%%", "C:", 42);
    db_get_status(h.db, &s);
    EXPECT_STREQ(s.ptr, "Scanning C:: 42%");
    db_set_status(h.db, nullptr);
    db_get_status(h.db, &s);
    EXPECT_STREQ(s.ptr, "");
    str_kill(&s);
}

TEST(Index, CreateSourcesAndExcludes) {
    db_t *db = db_create("list.swl");
    EXPECT_STREQ(db->remote_name, "list.swl");
    EXPECT_FALSE(db->is_loaded);
    EXPECT_EQ(db->busy, 0u);
    std::vector<db_fs_t *> fs;
    for (int i = 0; i < 20; i++) // past the first growth of the table
        fs.push_back(db_fs_add(db, (uint32_t) (i % DB_FS_TYPE_COUNT)));
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(fs[i]->index, (uint32_t) i);
        EXPECT_EQ(db_fs_get(db, (uint32_t) i), fs[i]);
        EXPECT_EQ(fs[i]->db, db);
        EXPECT_EQ(fs[i]->change_state, -1);
    }
    EXPECT_EQ(db_fs_get(db, 20), nullptr);
    EXPECT_EQ(db->fs_first, fs[0]);
    EXPECT_EQ(db->fs_last, fs[19]);
    EXPECT_EQ(fs[18]->next, fs[19]);
    db_fs_set_text(&fs[0]->guid, "\\\\?\\Volume{1234}\\");
    db_fs_set_text(&fs[0]->guid, "\\\\?\\Volume{5678}\\");
    EXPECT_STREQ(fs[0]->guid, "\\\\?\\Volume{5678}\\");
    db_fs_set_text(&fs[0]->guid, "");
    EXPECT_EQ(fs[0]->guid, nullptr);
    db_fs_set_text(&fs[1]->filename, "a.swl");

    // Exclude items with texts and a compiled pattern are freed with the index (the leak checker tells).
    for (int i = 0; i < 3; i++) {
        db_exclude_item_t *it = (db_exclude_item_t *) mem_alloc(sizeof(db_exclude_item_t));
        memset(it, 0, sizeof(*it));
        it->text = mem_dup("*.tmp", 5);
        it->length = 5;
        if (i == 1) {
            int err;
            PCRE2_SIZE off;
            it->regex = pcre2_compile((PCRE2_SPTR) "^a.*b$", PCRE2_ZERO_TERMINATED,
                                      PCRE2_UTF | PCRE2_CASELESS, &err, &off, nullptr);
            ASSERT_NE(it->regex, nullptr);
        }
        db_exclude_item_t **list = i == 0   ? &db->exclude.folders
                                   : i == 1 ? &db->exclude.files
                                            : &db->exclude.include_only_files;
        it->next = *list;
        *list = it;
    }
    db_destroy(db);
}
