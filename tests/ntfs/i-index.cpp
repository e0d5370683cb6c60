// The index built from an NTFS image: every source rule of the build applied to what the reader gives,
// compared with ntfsls's listing of the same image.
// The images are made and listed with ntfs-3g's tools, which exist on Linux only; the Windows build reads
// the same images through a mapped drive (i-wine.cpp).
#ifndef _WIN32
#include "db/dbfile.h"
#include "db_create/build_fixture.h"
#include "ntfs/oracle.h"

namespace {

// Counts the volume opens, so that a test can tell a re-use from a fresh read.
int opens = 0;
void *counting_open(const db_build_source_t *s) {
    opens++;
    return db_ntfs_volume_reader.open(s);
}
const db_volume_reader_t counting_reader = {counting_open, db_ntfs_volume_reader.query_journal,
                                            db_ntfs_volume_reader.read, db_ntfs_volume_reader.close};

class NtfsIndexTest : public BuildTest {
  protected:
    std::string img;
    std::vector<oracle_entry_t> want;

    void SetUp() override {
        BuildTest::SetUp();
        img = image_path(image_matrix()[1]);
        ASSERT_FALSE(img.empty());
        want = oracle_listing(img);
        opens = 0;
        db_ntfs_reader = &counting_reader;
    }

    // ntfsls's paths under the source's root name, split into folders and files, keeping those for which
    // keep says yes.
    template <typename F>
    void expected(const std::string &top, std::set<std::string> *folders, std::set<std::string> *files,
                  F keep) {
        folders->insert(top);
        for (const auto &e : want)
            if (keep(e))
                (e.folder ? folders : files)->insert(top + e.path);
    }
};

TEST_F(NtfsIndexTest, IndexListsWhatNtfslsLists) {
    db_ntfs_source_add(img.c_str(), "vol");
    rebuild();
    std::set<std::string> folders, files;
    expected("vol", &folders, &files, [](const oracle_entry_t &) { return true; });
    EXPECT_EQ(folder_set(), folders);
    EXPECT_EQ(file_set(), files);
    EXPECT_EQ(opens, 1);
    // Sizes and dates came through: the manifest's file with a set time and size.
    int c = 0, pos = -1;
    bool seen = false;
    for (db_ref_t r; (r = mem_array_next(&db->files, &c, &pos));) {
        if (path_of(r) != "vol/docs/readme.txt")
            continue;
        seen = true;
        EXPECT_EQ(db_file_get(db, r, DB_FIELD_SIZE), 12u);
        EXPECT_EQ(filetime_seconds(db_file_get(db, r, DB_FIELD_DATE_MODIFIED)), 1551675967);
    }
    EXPECT_TRUE(seen);
    // Every folder of the volume is in the FRN array, and the root holds its children.
    EXPECT_EQ((size_t) db->ntfs_folders.count, folders.size());
}

TEST_F(NtfsIndexTest, HiddenAndSystemExcludedWhenAsked) {
    exclude_hidden_files_and_folders = 1;
    exclude_system_files_and_folders = 1;
    db_ntfs_source_add(img.c_str(), "vol");
    rebuild();
    std::set<std::string> files = file_set(), folders = folder_set();
    EXPECT_FALSE(files.count("vol/hidden.txt"));
    EXPECT_FALSE(files.count("vol/sys.dat"));
    // A hidden folder goes with all it holds.
    EXPECT_FALSE(folders.count("vol/hiddendir"));
    EXPECT_FALSE(files.count("vol/hiddendir/inside.txt"));
    EXPECT_TRUE(files.count("vol/docs/readme.txt"));
}

TEST_F(NtfsIndexTest, UnchangedSourceIsReusedAndAForcedRebuildReadsAgain) {
    db_ntfs_source_add(img.c_str(), "vol");
    rebuild();
    std::set<std::string> files = file_set(), folders = folder_set();
    std::string log = at("rebuild.log");
    ASSERT_TRUE(debug_open_log_path(log.c_str()));
    rebuild(false);
    debug_close_log();
    EXPECT_EQ(opens, 1);
    EXPECT_EQ(file_set(), files);
    EXPECT_EQ(folder_set(), folders);
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("using existing NTFS index vol"), std::string::npos);
    rebuild(true);
    EXPECT_EQ(opens, 2);
    EXPECT_EQ(file_set(), files);
}

// The saved index keeps the FRN list of the source's folders, so that a loaded index re-uses the source
// without reading the volume, with the same records.
TEST_F(NtfsIndexTest, SavedIndexKeepsTheFrnListAndIsReusedAfterALoad) {
    db_ntfs_source_add(img.c_str(), "vol");
    rebuild();
    std::set<std::string> files = file_set(), folders = folder_set();
    uint32_t frn_count = db->ntfs_folders.count;
    std::string saved = at("index.db");
    db_file_set_command_line(saved.c_str(), nullptr, false, false);
    db_save(db, false);
    db_destroy(db);
    db = db_create(nullptr);
    db_load(db, 0);
    bool settled = settle();
    db_file_set_command_line(nullptr, nullptr, false, false);
    ASSERT_TRUE(settled);
    EXPECT_EQ(db->ntfs_folders.count, frn_count);
    EXPECT_EQ(file_set(), files);
    rebuild(false);
    EXPECT_EQ(opens, 1) << "the loaded source was re-used, not read again";
    EXPECT_EQ(file_set(), files);
    EXPECT_EQ(folder_set(), folders);
}

TEST_F(NtfsIndexTest, RootLimitsTheSourceToOneFolder) {
    add_volume(img, "vol", "vol/docs");
    rebuild();
    std::set<std::string> folders, files;
    expected("vol", &folders, &files, [](const oracle_entry_t &e) { return e.path.rfind("/docs/", 0) == 0; });
    // The root folder's children now hang from the source's top record.
    std::set<std::string> want_files, want_folders = {"vol"};
    for (const auto &f : files)
        want_files.insert("vol" + f.substr(strlen("vol/docs")));
    for (const auto &f : folders)
        if (f != "vol")
            want_folders.insert("vol" + f.substr(strlen("vol/docs")));
    ASSERT_GT(want_files.size(), 3u);
    EXPECT_EQ(file_set(), want_files);
    EXPECT_EQ(folder_set(), want_folders);
}

TEST_F(NtfsIndexTest, IncludeOnlyKeepsTheNamedFoldersAsTops) {
    add_volume(img, "vol", "", "vol/media,vol/names,vol/nowhere");
    rebuild();
    std::set<std::string> folders, files;
    for (const auto &e : want)
        if (e.path.rfind("/media/", 0) == 0 || e.path.rfind("/names/", 0) == 0)
            (e.folder ? folders : files).insert("vol" + e.path);
    folders.insert("vol/media");
    folders.insert("vol/names");
    ASSERT_GT(files.size(), 5u);
    EXPECT_EQ(file_set(), files);
    EXPECT_EQ(folder_set(), folders);
}

TEST_F(NtfsIndexTest, AVolumeThatIsNotNtfsLeavesTheSourceEmpty) {
    std::string junk = file("junk.img", std::string(65536, 'x'));
    db_ntfs_source_add(junk.c_str(), "junk");
    rebuild();
    EXPECT_TRUE(file_set().empty());
    EXPECT_EQ(opens, 1);
}

} // namespace

#endif
