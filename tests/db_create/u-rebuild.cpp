// The rebuild from end to end: folder sources read from real trees, file lists, volume file tables
// delivered by a stand-in reader, and what the merge must drop, keep and compute.
#include "build_fixture.h"

#include <random>

#include "db/dbfile.h"
#include "db_create/filelist_monitor.h"
#include "os/os_dir.h"

#ifndef _WIN32
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#endif

// ---- a stand-in volume reader --------------------------------------------------------------------------

struct fake_entry_t {
    uint64_t frn, parent;
    std::string name;
    bool folder;
    uint64_t size;
    uint32_t attributes;
};

static std::map<std::string, std::vector<fake_entry_t>> g_volumes; // by guid
static int g_volume_reads;

static void *fake_open(const db_build_source_t *src) {
    auto it = g_volumes.find(src->guid ? src->guid : "");
    return it == g_volumes.end() ? nullptr : &it->second;
}
static bool fake_journal(void *, uint64_t *id, uint64_t *usn) {
    *id = 7;
    *usn = 100;
    return true;
}
static bool fake_read(void *vol, db_build_ctx_t *ctx) {
    g_volume_reads++;
    for (const fake_entry_t &e : *(std::vector<fake_entry_t> *) vol) {
        db_volume_entry_t d = {};
        d.frn_low = e.frn;
        d.parent_frn_low = e.parent;
        d.name = e.name.data();
        d.name_len = (uint32_t) e.name.size();
        d.fd = {e.folder ? 0 : e.size, 1000, 2000, 3000, e.attributes | (e.folder ? OS_ATTR_DIRECTORY : 0)};
        db_build_volume_entry(ctx, &d);
    }
    return true;
}
static void fake_close(void *) {}
static const db_volume_reader_t fake_reader = {fake_open, fake_journal, fake_read, fake_close};

class RebuildTest : public BuildTest {
  protected:
    void SetUp() override {
        BuildTest::SetUp();
        g_volumes.clear();
        g_volume_reads = 0;
        db_ntfs_reader = &fake_reader;
    }
};

static const uint64_t ROOT = DB_NTFS_ROOT_FRN;

// ---- folder sources ------------------------------------------------------------------------------------

TEST_F(RebuildTest, FolderSourceHoldsTheTreeOnDisk) {
    index_folder_size = 1;
    std::string top = root + OS_SEP_STR + "tree";
    file("tree/a.txt", "12345");
    file("tree/sub/b.bin", "123");
    file("tree/sub/deeper/c", "1234567");
    fs::create_directories(top + "/empty");
    add_folder_source(top + OS_SEP_STR); // a trailing separator names the same folder
    rebuild();

    // What the tree holds, walked independently of the scan.
    std::set<std::string> want_folders = {top}, want_files;
    for (auto &e : fs::recursive_directory_iterator(top))
        (e.is_directory() ? want_folders : want_files).insert(e.path().string());
    EXPECT_EQ(folder_set(), want_folders);
    EXPECT_EQ(file_set(), want_files);

    db_ref_t top_rec = 0;
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &c, &pos));)
        if (path_of(r) == top)
            top_rec = r;
    ASSERT_NE(top_rec, 0u);
    EXPECT_EQ(db_record_parent(top_rec), 0u);
    ASSERT_EQ(db->fs_count, 1u);
    EXPECT_EQ(db_record_fs(db, top_rec), db->fs_first);
    EXPECT_EQ(db->fs_first->type, (uint32_t) DB_FS_FOLDER);
    // Folder sizes add up everything below.
    EXPECT_EQ(db_folder_get(db, top_rec, DB_FIELD_SIZE), 15u);
    EXPECT_TRUE(mem_array_check(&db->folders));
    EXPECT_EQ(db->files_by_path.count, db->files.count);
}

TEST_F(RebuildTest, HiddenAndExcludedItemsOfAFolderSourceAreLeftOut) {
    exclude_hidden_files_and_folders = 1;
    config_exclude_folders.items = nullptr;
    *vec_push(&config_exclude_folders) = heap_text("cache");
    set_text(&exclude_files, "*.tmp");
    file("t/keep.txt");
    // Hidden by its name on Linux, by its attribute on Windows.
    os_set_file_attributes(file("t/.hidden").c_str(), OS_ATTR_HIDDEN);
    file("t/x.TMP");
    file("t/cache/inside.txt");
    file("t/sub/cache");
    add_folder_source(at("t"));
    rebuild();
    std::set<std::string> files = file_set();
    EXPECT_EQ(files, (std::set<std::string>{at("t/keep.txt"), at("t/sub/cache")}));
    EXPECT_EQ(folder_set(), (std::set<std::string>{at("t"), at("t/sub")}));
}

TEST_F(RebuildTest, UnchangedSourcesAreReusedAndStructureChangesReadAgain) {
    file("r/one.txt", "1");
    add_folder_source(at("r"));
    rebuild();
    ASSERT_EQ(file_set().count(at("r/one.txt")), 1u);
    fs::remove(at("r/one.txt"));
    file("r/two.txt");

    // Only a new sorted array: the records come from the old index, not from the disk.
    fast_extension_sort = 1;
    rebuild();
    EXPECT_EQ(file_set(), (std::set<std::string>{at("r/one.txt")}));
    EXPECT_EQ(db->files_by_extension.count, 1u);

    // A new field can't be copied from the old records: everything is read again.
    index_date_created = 1;
    bool recent = false, monitor = false;
    EXPECT_TRUE(db_is_rebuild_required(db, &recent, &monitor));
    EXPECT_TRUE(db->fs_first->out_of_date);
    rebuild();
    EXPECT_EQ(file_set(), (std::set<std::string>{at("r/two.txt")}));
    EXPECT_FALSE(db->fs_first->out_of_date);
}

TEST_F(RebuildTest, ForcedRebuildReadsEverySourceAgain) {
    file("f/a");
    add_folder_source(at("f"));
    rebuild();
    file("f/b");
    rebuild(false);
    EXPECT_EQ(file_set().count(at("f/b")), 0u);
    rebuild(true);
    EXPECT_EQ(file_set().count(at("f/b")), 1u);
}

// ---- the job slot around a rebuild -----------------------------------------------------------------------

static void count_proc(db_t *, void *arg) {
    (*(int *) arg)++;
}

TEST_F(RebuildTest, RebuildAfterALoadLeavesTheJobSlotIdle) {
    file("t/a.txt");
    add_folder_source(at("t"));
    rebuild();
    std::string saved = at("index.db");
    db_file_set_command_line(saved.c_str(), nullptr, false, false);
    db_save(db, false);
    db_destroy(db);
    db = db_create(nullptr);
    // A setting that the saved index doesn't serve: the load's end starts a rebuild in its place.
    fast_extension_sort = 1;
    db_load(db, 0);
    for (int i = 0; i < 100 && (!db->is_loaded || db_job_running(db)); i++) {
        db_wait(db, "test");
        event_dispatch();
    }
    db_file_set_command_line(nullptr, nullptr, false, false);
    ASSERT_TRUE(db->is_loaded);
    EXPECT_EQ(db->files_by_extension.count, 1u) << "the rebuild that followed the load has run";
    EXPECT_EQ(db->busy, 0u);
    // A later job's end must get past its first step: it is what runs the deferred work.
    int runs = 0;
    db_job_start(db, "test", DB_JOB_OTHER, nullptr, count_proc, &runs, OS_PRIORITY_NORMAL);
    db_wait(db, "test");
    event_dispatch();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(db->busy, 0u);
}

// ---- sources that exist but can't be read --------------------------------------------------------------

// A list file that is there but that no one can open, root included, for as long as this lives. On Linux
// a socket stands at its path: it has details, and open refuses it. On Windows the list is held open
// without sharing, as an editor that locks it does.
struct unopenable_list_t {
    os_file_t held = OS_FILE_INVALID;
    int socket_fd = -1;
    explicit unopenable_list_t(const std::string &path) {
#ifdef _WIN32
        held = os_file_open(path.c_str(), OS_OPEN_READ);
        EXPECT_NE(held, OS_FILE_INVALID);
#else
        fs::remove(path);
        socket_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        EXPECT_LT(path.size(), sizeof(a.sun_path));
        memcpy(a.sun_path, path.c_str(), std::min(path.size(), sizeof(a.sun_path) - 1));
        EXPECT_EQ(bind(socket_fd, (sockaddr *) &a, sizeof(a)), 0);
#endif
        EXPECT_TRUE(os_file_exists(path.c_str()));
        os_file_t f = os_file_open_sequential(path.c_str());
        EXPECT_EQ(f, OS_FILE_INVALID) << "the list could still be opened";
        os_file_close(f);
    }
    ~unopenable_list_t() {
        os_file_close(held);
#ifndef _WIN32
        close(socket_fd);
#endif
    }
};

// A folder that can be described but not listed, for as long as this lives. Root lists every folder, so
// a root process gives up its effective user for the time, on every thread (the rebuild's too).
struct unlistable_folder_t {
    std::string path;
    bool dropped = false;
    explicit unlistable_folder_t(const std::string &p) : path(p) {
#ifndef _WIN32
        chmod(path.c_str(), 0700);
        if (geteuid() == 0) {
            chmod(fs::path(path).parent_path().c_str(), 0755);
            dropped = seteuid(65534) == 0;
            EXPECT_TRUE(dropped);
        } else {
            chmod(path.c_str(), 0);
        }
#endif
    }
    bool works() {
        os_file_info_t info;
        os_dir_t *d = os_dir_open(path.c_str());
        os_dir_close(d);
        return d == nullptr && os_get_file_info(path.c_str(), &info);
    }
    ~unlistable_folder_t() {
#ifndef _WIN32
        if (dropped) {
            EXPECT_EQ(seteuid(0), 0);
        }
        chmod(path.c_str(), 0755);
#endif
    }
};

TEST_F(RebuildTest, UnopenableListKeepsItsRecordsAndAsksForNoRebuild) {
    std::string list = file("l.swl", "Filename,Size\r\n/d/a.txt,1\r\n");
    std::string other = file("never.swl", "Filename,Size\r\n/e/b.txt,1\r\n");
    add_filelist(list);
    rebuild();
    ASSERT_EQ(file_set(), (std::set<std::string>{sep("/d/a.txt")}));
    {
        unopenable_list_t locked(list), never(other);
        // A list that has never been read is added too: it stays empty.
        add_filelist(other);
        db_rebuild(db, true);
        EXPECT_TRUE(settle()) << "the index rebuilds again and again";
        EXPECT_EQ(file_set(), (std::set<std::string>{sep("/d/a.txt")}));
        ASSERT_EQ(db->fs_count, 2u);
        EXPECT_TRUE(db->fs_first->out_of_date);
        EXPECT_TRUE(db->fs_first->next->out_of_date);
        EXPECT_FALSE(db_is_rebuild_required(db, nullptr, nullptr));
        EXPECT_FALSE(_db_filelists_is_change(db));
    }
    // Readable again: the next check sees it, and the rebuild reads both lists.
    for (const std::string &p : {list, other})
        fs::remove(p);
    file("l.swl", "Filename,Size\r\n/d/a.txt,1\r\n");
    file("never.swl", "Filename,Size\r\n/e/b.txt,1\r\n");
    EXPECT_TRUE(db_is_rebuild_required(db, nullptr, nullptr));
    db_rebuild(db, false);
    EXPECT_TRUE(settle());
    EXPECT_EQ(file_set(), (std::set<std::string>{sep("/d/a.txt"), sep("/e/b.txt")}));
    EXPECT_FALSE(db->fs_first->out_of_date);
}

TEST_F(RebuildTest, UnlistableFolderKeepsItsRecordsAndAsksForNoRebuild) {
    file("t/a.txt");
    add_folder_source(at("t"));
    rebuild();
    ASSERT_EQ(file_set(), (std::set<std::string>{at("t/a.txt")}));
    {
        unlistable_folder_t locked(at("t"));
        if (!locked.works())
            GTEST_SKIP() << "this platform gives no way to make a folder unlistable to its owner";
        db_rebuild(db, true);
        EXPECT_TRUE(settle()) << "the index rebuilds again and again";
        EXPECT_EQ(file_set(), (std::set<std::string>{at("t/a.txt")}));
        EXPECT_EQ(folder_set(), (std::set<std::string>{at("t")}));
        EXPECT_TRUE(db->fs_first->out_of_date);
        EXPECT_FALSE(db_is_rebuild_required(db, nullptr, nullptr));
    }
    file("t/b.txt");
    EXPECT_TRUE(db_is_rebuild_required(db, nullptr, nullptr));
    db_rebuild(db, false);
    EXPECT_TRUE(settle());
    EXPECT_EQ(file_set(), (std::set<std::string>{at("t/a.txt"), at("t/b.txt")}));
}

// ---- sources named through links ----------------------------------------------------------------------

TEST_F(RebuildTest, SourcesNamedThroughLinksAreReadAndDatedByWhatTheyName) {
    file("real/a.txt");
    file("real/sub/b.txt");
    std::string list = file("lists/l.swl", "Filename\r\n/x/y.txt\r\n");
    fs::last_write_time(list, fs::last_write_time(list) - std::chrono::hours(48));
    std::error_code ec;
    fs::create_directory_symlink(at("real"), at("linked"), ec);
    if (!ec)
        fs::create_symlink(list, at("l-link.swl"), ec);
    if (ec)
        GTEST_SKIP() << "no symbolic links here: " << ec.message();
    add_folder_source(at("linked"));
    add_filelist(at("l-link.swl"));
    rebuild();
    EXPECT_EQ(file_set(),
              (std::set<std::string>{at("linked/a.txt"), at("linked/sub/b.txt"), sep("/x/y.txt")}));
    db_fs_t *l = db->fs_first;
    ASSERT_EQ(l->type, (uint32_t) DB_FS_FILE_LIST);
    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(list.c_str(), &info));
    EXPECT_EQ(l->last_write_time, info.date_modified);
    EXPECT_FALSE(_db_filelists_is_change(db));
    // An edit of the list, not of the link, is what counts.
    fs::last_write_time(list, fs::last_write_time(list) + std::chrono::hours(1));
    EXPECT_TRUE(_db_filelists_is_change(db));
}

// ---- file lists ----------------------------------------------------------------------------------------

TEST_F(RebuildTest, FileListRowsBecomeOneTreeWithoutDuplicates) {
    exclude_system_files_and_folders = 1;
    std::string list = file("l.swl", "Filename,Size,Attributes\r\n"
                                     "/data/a.txt,10,32\r\n"
                                     "/data/a.txt,10,32\r\n" // the same row twice
                                     "/data/sys.bin,5,4\r\n" // system
                                     "/data/sub/,0,16\r\n"
                                     "/data/sub/b,7,32\r\n");
    add_filelist(list);
    rebuild();
    EXPECT_EQ(file_set(), (std::set<std::string>{sep("/data/a.txt"), sep("/data/sub/b")}));
    EXPECT_EQ(folder_set(), (std::set<std::string>{sep("/"), sep("/data"), sep("/data/sub")}));
    ASSERT_EQ(db->fs_count, 1u);
    EXPECT_EQ(db->fs_first->type, (uint32_t) DB_FS_FILE_LIST);
    EXPECT_NE(db->fs_first->last_write_time, 0u);
}

TEST_F(RebuildTest, FileListNamesTooLongForARecordAreLeftOutNotFatal) {
    // Longer than the pool's largest block; the longest a record holds; long enough for a large record.
    const std::string huge(70000, 'h'), most(DB_NAME_MAX, 'm'), longish(300, 'l');
    std::string list = file("long.swl", "Filename,Size\r\n"
                                        "/d/" +
                                            huge +
                                            "/under.txt,1\r\n"
                                            "/d/" +
                                            huge +
                                            "/deeper/more.txt,1\r\n"
                                            "/d/" +
                                            huge +
                                            ",1\r\n"
                                            "/d/" +
                                            most +
                                            ",2\r\n"
                                            "/d/" +
                                            longish +
                                            "/x,3\r\n"
                                            "/d/ok.txt,4\r\n");
    add_filelist(list);
    rebuild();
    EXPECT_EQ(file_set(),
              (std::set<std::string>{sep("/d/" + most), sep("/d/" + longish + "/x"), sep("/d/ok.txt")}));
    EXPECT_EQ(folder_set(), (std::set<std::string>{sep("/"), sep("/d"), sep("/d/" + longish)}));
    EXPECT_TRUE(mem_array_check(&db->files));
}

// ---- volumes -------------------------------------------------------------------------------------------

TEST_F(RebuildTest, VolumeParentsOrphansCyclesAndDuplicates) {
    g_volumes["vol1"] = {
        {ROOT, ROOT, ".", true, 0, 0},
        {100, ROOT, "a", true, 0, 0},
        {101, 100, "f1", false, 4, 0},
        {102, 100, "f1", false, 4, 0},  // same name in the same folder: a duplicate
        {200, 999, "lost", true, 0, 0}, // parent not in the table: an orphan
        {201, 200, "under-lost", false, 1, 0},
        {300, 301, "c1", true, 0, 0}, // a cycle of two folders
        {301, 300, "c2", true, 0, 0},
        {302, 301, "in-cycle", false, 1, 0},
        {400, 0, "no-parent", false, 1, 0}, // parent FRN 0: skipped by the reader rules
        {100, ROOT, "a-again", true, 0, 0}, // a second folder with FRN 100: a duplicate
        {500, ROOT, "hidden", false, 1, OS_ATTR_HIDDEN},
    };
    g_volumes["vol2"] = {{ROOT, ROOT, ".", true, 0, 0}, {100, ROOT, "a", true, 0, 0}};
    exclude_hidden_files_and_folders = 1;
    add_volume("vol1", "C:");
    add_volume("vol2", "D:");
    rebuild();
    std::string s = OS_SEP_STR;
    EXPECT_EQ(folder_set(), (std::set<std::string>{"C:", "C:" + s + "a", "D:", "D:" + s + "a"}));
    EXPECT_EQ(file_set(), (std::set<std::string>{"C:" + s + "a" + s + "f1"}));
    // Folders with the same FRN on two volumes are both kept, in FRN order then source order.
    ASSERT_EQ(db->ntfs_folders.count, 4u);
    std::vector<std::string> by_frn = array_paths(&db->ntfs_folders);
    EXPECT_EQ(by_frn[0], "C:" + s + "a");
    EXPECT_EQ(by_frn[1], "D:" + s + "a");
    // Child counts count what the index holds.
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &c, &pos));) {
        std::string p = path_of(r);
        uint32_t want = p == "C:" ? 1 : p == "C:" + s + "a" ? 1 : p == "D:" ? 1 : 0;
        EXPECT_EQ(db_folder_child_count(db, r), want) << p;
    }
    EXPECT_EQ(db->fs_first->journal_id, 0u); // no monitor asked for: no journal position taken
}

TEST_F(RebuildTest, VolumeRootLimitsTheSource) {
    std::string s = OS_SEP_STR;
    g_volumes["v"] = {
        {ROOT, ROOT, ".", true, 0, 0}, {10, ROOT, "Users", true, 0, 0},   {11, 10, "me", true, 0, 0},
        {12, 11, "doc", false, 3, 0},  {20, ROOT, "Windows", true, 0, 0}, {21, 20, "x.dll", false, 1, 0},
    };
    add_volume("v", "C:", "c:" + s + "users");
    rebuild();
    EXPECT_EQ(folder_set(), (std::set<std::string>{"C:", "C:" + s + "me"}));
    EXPECT_EQ(file_set(), (std::set<std::string>{"C:" + s + "me" + s + "doc"}));
}

TEST_F(RebuildTest, VolumeIncludeOnlyKeepsTheNamedFolders) {
    std::string s = OS_SEP_STR;
    g_volumes["v"] = {
        {ROOT, ROOT, ".", true, 0, 0},  {10, ROOT, "keep", true, 0, 0}, {11, 10, "k.txt", false, 1, 0},
        {20, ROOT, "drop", true, 0, 0}, {21, 20, "d.txt", false, 1, 0}, {22, ROOT, "top.txt", false, 1, 0},
    };
    add_volume("v", "C:", "", "C:" + s + "keep,C:" + s + "missing");
    rebuild();
    EXPECT_EQ(folder_set(), (std::set<std::string>{"C:" + s + "keep"}));
    EXPECT_EQ(file_set(), (std::set<std::string>{"C:" + s + "keep" + s + "k.txt"}));
}

TEST_F(RebuildTest, ReusedVolumeKeepsItsRecordsWithoutReading) {
    g_volumes["v"] = {{ROOT, ROOT, ".", true, 0, 0}, {10, ROOT, "a", true, 0, 0}, {11, 10, "f", false, 9, 0}};
    add_volume("v", "C:");
    index_folder_size = 1;
    rebuild();
    EXPECT_EQ(g_volume_reads, 1);
    fast_extension_sort = 1;
    rebuild();
    EXPECT_EQ(g_volume_reads, 1);
    EXPECT_EQ(file_set().size(), 1u);
    EXPECT_EQ(db->ntfs_folders.count, 2u);
    db_ref_t a = mem_array_get(&db->ntfs_folders, 1);
    EXPECT_EQ(db_folder_get(db, a, DB_FIELD_SIZE), 9u);
    EXPECT_EQ(db_folder_child_count(db, a), 1u);
}

TEST_F(RebuildTest, FolderOfUnknownSizesHasSizeZero) {
    index_folder_size = 1;
    g_volumes["v"] = {
        {ROOT, ROOT, ".", true, 0, 0}, {10, ROOT, "a", true, 0, 0}, {11, 10, "f", false, DB_UNKNOWN, 0}};
    add_volume("v", "C:");
    rebuild();
    db_ref_t a = mem_array_get(&db->ntfs_folders, 1);
    EXPECT_EQ(db_folder_get(db, a, DB_FIELD_SIZE), 0u);
}

// ---- determinism ---------------------------------------------------------------------------------------

static std::vector<std::vector<std::string>> all_arrays(db_t *db) {
    std::vector<std::vector<std::string>> out;
    for (int o = 0; o < DB_ORDER_FRN; o++)
        for (int folder = 0; folder < 2; folder++) {
            mem_array_t *a = db_array(db, (db_order_t) o, folder != 0);
            out.push_back(a ? array_paths(a) : std::vector<std::string>{});
        }
    out.push_back(array_paths(&db->ntfs_folders));
    return out;
}

TEST_F(RebuildTest, ArraysDoNotDependOnTheThreadCount) {
    os_hooks.processor_count = [] { return 8; };
    fast_date_created_sort = index_date_created = 1;
    fast_attributes_sort = index_attributes = 1;
    fast_extension_sort = index_folder_size = 1;
    std::mt19937 rng(5);
    std::vector<fake_entry_t> v = {{ROOT, ROOT, ".", true, 0, 0}};
    const char *names[] = {"a", "A", "b.txt", "B.TXT", "r\xC3\xA9sum\xC3\xA9", "resume", "x.tar.gz", "z"};
    for (uint64_t i = 0; i < 2000; i++)
        v.push_back({1000 + i, i < 40 ? ROOT : 1000 + rng() % 40, names[rng() % 8] + std::to_string(i % 97),
                     true, 0, 0});
    for (uint64_t i = 0; i < 140000; i++)
        v.push_back({0, 1000 + rng() % 2000, names[rng() % 8] + std::to_string(rng() % 500), false,
                     rng() % 5000, (uint32_t) (rng() % 4) * 0x20});
    g_volumes["v"] = v;
    add_volume("v", "C:");
    std::vector<std::vector<std::string>> first;
    for (int threads : {1, 2, 8}) {
        max_threads = threads;
        rebuild(true);
        auto arrays = all_arrays(db);
        if (first.empty())
            first = arrays;
        else
            EXPECT_TRUE(arrays == first) << "max_threads " << threads;
    }
    EXPECT_GT(first[0].size(), 100000u);
}
