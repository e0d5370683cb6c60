// Parse-time lookups against a small index built by hand: infolder: and path roots find the right folders
// by full path under the term's folding, and pick the op family from what they found.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "db/db.h"
#include "db_query/term.h"
#include "mem/mem.h"
#include "os/os_shell.h"

static const char sep = OS_SEP;

struct LookupTest : ::testing::Test {
    db_t *db = nullptr;
    mem_ref_t root = 0, usr = 0, bin = 0, home = 0, home_usr = 0, twin_root = 0, twin_usr = 0, data = 0;
    // The top of the first source as a path prefix: "" on Linux (its root is named ""), "C:" on Windows.
    const char *top = sep == '/' ? "" : "C:";

    mem_ref_t folder(db_fs_t *fs, mem_ref_t parent, const char *name) {
        mem_ref_t r = db_folder_new(db, fs, parent, name, (uint32_t) strlen(name));
        mem_array_push(&db->folders, r);
        return r;
    }

    void SetUp() override {
        db = db_create(nullptr);
        db_fs_t *fs = db_fs_add(db, DB_FS_FOLDER);
        db_fs_t *twin = db_fs_add(db, DB_FS_FOLDER);
        db_fs_t *other = db_fs_add(db, DB_FS_FOLDER);
        root = folder(fs, 0, top);
        usr = folder(fs, root, "usr");
        bin = folder(fs, usr, "bin");
        home = folder(fs, root, "home");
        home_usr = folder(fs, home, "Usr");
        // A second source with the same top: its folders have the same full paths.
        twin_root = folder(twin, 0, top);
        twin_usr = folder(twin, twin_root, "usr");
        data = folder(other, 0, sep == '/' ? "/data" : "D:");
        folder(other, data, "x");
        mem_ref_t file = db_file_new(db, fs, bin, "ls", 2);
        mem_array_push(&db->files, file);
    }
    void TearDown() override { db_destroy(db); }

    // prefix, the top, then tail with '/' turned into the platform's separator. (Built in a plain buffer:
    // string concatenation trips a false warning of the Windows compiler at -O3.)
    std::string path(const char *tail, const char *prefix = "") {
        char buf[256];
        snprintf(buf, sizeof buf, "%s%s%s", prefix, top, tail);
        for (char *c = buf; *c; c++) {
            if (*c == '/') {
                *c = sep;
            }
        }
        return std::string(buf);
    }

    // Compiles one term and returns its folder op's opcode and folders.
    uint16_t lookup(const std::string &search, std::vector<mem_ref_t> *found) {
        db_search_t s;
        db_search_init(&s, db);
        db_search_compile(&s, search.c_str(), 0, nullptr, 0, false);
        uint16_t op = s.folder_ops->op;
        found->clear();
        if (s.folder_ops->kind == DB_OPK_FOLDERS) {
            const db_op_folders_t *f = (const db_op_folders_t *) db_op_payload(s.folder_ops);
            for (uint32_t i = 0; i < f->count; i++) {
                found->push_back(f->folders[i]);
            }
            // The file chain holds its own copy of the same list.
            const db_op_folders_t *g = (const db_op_folders_t *) db_op_payload(s.file_ops);
            EXPECT_EQ(g->count, f->count);
            if (f->count) {
                EXPECT_NE(g->folders, f->folders);
            }
        }
        db_search_kill(&s);
        return op;
    }
};

static std::vector<mem_ref_t> sorted(std::vector<mem_ref_t> v) {
    std::sort(v.begin(), v.end());
    return v;
}

TEST_F(LookupTest, InFolder) {
    std::vector<mem_ref_t> found;
    EXPECT_EQ(lookup(path("/home/usr", "infolder:"), &found), 282);
    EXPECT_EQ(found, std::vector<mem_ref_t>{home_usr});
    // Folding by the term's flags, one trailing separator dropped.
    EXPECT_EQ(lookup(path("/HOME/usr/", "infolder:"), &found), 282);
    EXPECT_EQ(found, std::vector<mem_ref_t>{home_usr});
    EXPECT_EQ(lookup(path("/home/usr", "case:infolder:"), &found), 280);
    EXPECT_EQ(lookup(path("/home/Usr", "case:infolder:"), &found), 282);
    // Two sources hold the same path: both folders, sorted for the binary search.
    EXPECT_EQ(lookup(path("/usr", "parent:"), &found), 284);
    EXPECT_EQ(found, sorted({usr, twin_usr}));
    EXPECT_EQ(lookup(path("/missing", "nosubfolders:"), &found), 280);
    EXPECT_EQ(lookup(path("/missing", "!infolder:"), &found), 281);
    EXPECT_EQ(lookup(path("/usr/bin", "!infolder:"), &found), 283);
    EXPECT_EQ(found, std::vector<mem_ref_t>{bin});
    // Empty: the records that have no parent.
    EXPECT_EQ(lookup("infolder:", &found), 282);
    EXPECT_EQ(found, std::vector<mem_ref_t>{0});
}

// type: decides every folder when the search is compiled, by the folder type text the index keeps (the
// shell's, in the user's language), and by the fixed text where the index has none.
TEST_F(LookupTest, TypeDecidesFoldersByTheIndexFolderType) {
    std::vector<mem_ref_t> found;
    // Windows' shell always names the folder type; Linux has no shell to ask.
    if (sep == '\\') {
        ASSERT_NE(db->folder_type, nullptr);
        EXPECT_EQ(lookup(std::string("exact:type:\"") + db->folder_type + "\"", &found), DB_OP_TRUE);
    } else {
        EXPECT_EQ(db->folder_type, nullptr);
    }
    static const struct {
        const char *folder_type; // null: the index has none
        const char *search;
        uint16_t op;
    } rows[] = {
        {"Dateiordner", "type:dateiordner", DB_OP_TRUE},
        {"Dateiordner", "type:ordner", DB_OP_TRUE},
        {"Dateiordner", "type:*ordner", DB_OP_TRUE},
        {"Dateiordner", "type:\"file folder\"", DB_OP_FALSE},
        {"Dateiordner", "type:folder", DB_OP_FALSE},
        {"Dateiordner", "!type:ordner", DB_OP_FALSE},
        {"Dateiordner", "!type:folder", DB_OP_TRUE},
        {"Dateiordner", "case:type:dateiordner", DB_OP_FALSE},
        {"Dossier de fichiers", "type:dossier", DB_OP_TRUE},
        {nullptr, "type:\"file folder\"", DB_OP_TRUE},
        {nullptr, "type:dateiordner", DB_OP_FALSE},
    };
    for (const auto &row : rows) {
        mem_free(db->folder_type);
        db->folder_type = row.folder_type ? mem_dup(row.folder_type, strlen(row.folder_type)) : nullptr;
        EXPECT_EQ(lookup(row.search, &found), row.op)
            << row.search << " with " << (row.folder_type ? row.folder_type : "no folder type");
    }
}

TEST_F(LookupTest, PathRoots) {
    std::vector<mem_ref_t> found;
    // A path ending in a separator: the folders of that path, for their children only.
    EXPECT_EQ(lookup(path("/usr/"), &found), 240);
    EXPECT_EQ(found, sorted({usr, twin_usr}));
    EXPECT_EQ(lookup(path("/home/USR/"), &found), 260);
    EXPECT_EQ(found, std::vector<mem_ref_t>{home_usr});
    EXPECT_EQ(lookup(path("/home/usr/*"), &found), 260);
    EXPECT_EQ(lookup(path("/nothing/"), &found), 286);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(lookup(path("/nothing/", "!"), &found), 290);
    // Diacritics on with an ASCII path: the ASCII form of the family.
    EXPECT_EQ(lookup(path("/home/usr/", "diacritics:"), &found), 268);
    // A source whose root is named by a path: the root itself, for its children.
    EXPECT_EQ(lookup(sep == '/' ? "/data/" : "D:\\", &found), 260);
    EXPECT_EQ(found, std::vector<mem_ref_t>{data});
}

TEST_F(LookupTest, AbsolutePathWithoutTrailingSeparatorIsAPrefix) {
    std::vector<mem_ref_t> found;
    // Not a root shape: a startwith on the full path.
    EXPECT_EQ(lookup(path("/usr/bi"), &found), 126);
    EXPECT_TRUE(found.empty());
}

// ---- shell: --------------------------------------------------------------------------------------------

// The folder chain of an absolute path in the first source: its top is the fixture's root, each further
// component a folder made when missing. Returns the last one.
static mem_ref_t chain(LookupTest *t, db_fs_t *fs, const std::string &full) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t i = 0; i <= full.size(); i++) {
        if (i == full.size() || full[i] == sep) {
            parts.push_back(full.substr(start, i - start));
            start = i + 1;
        }
    }
    if (parts.empty() || parts[0] != t->top) {
        return 0;
    }
    mem_ref_t at = t->root;
    for (size_t i = 1; i < parts.size(); i++) {
        if (!parts[i].empty()) {
            at = t->folder(fs, at, parts[i].c_str());
        }
    }
    return at;
}

TEST_F(LookupTest, ShellNamesSearchBelowTheKnownFolder) {
    str_t known;
    str_init(&known);
    ASSERT_TRUE(os_known_folder("Downloads", &known));
    std::string downloads(known.ptr, (size_t) known.len);
    str_kill(&known);
    mem_ref_t leaf = chain(this, db_fs_get(db, 0), downloads);
    if (!leaf) {
        GTEST_SKIP() << "the downloads folder " << downloads << " is not on the first drive";
    }
    std::vector<mem_ref_t> found;
    // The folder itself is the one entry, for its children: the same op as the path with a separator.
    EXPECT_EQ(lookup("shell:downloads", &found), 260);
    EXPECT_EQ(found, std::vector<mem_ref_t>{leaf});
    EXPECT_EQ(lookup(downloads + sep, &found), 260);
    EXPECT_EQ(found, std::vector<mem_ref_t>{leaf});
    EXPECT_EQ(lookup("shell:Downloads", &found), 260);
    EXPECT_EQ(lookup("!shell:downloads", &found), 264);
    EXPECT_EQ(found, std::vector<mem_ref_t>{leaf});
    // Known to the platform but not in the index, and unknown: a root search that found nothing.
    EXPECT_EQ(lookup("shell:templates", &found), 286);
    EXPECT_EQ(lookup("shell:no-such-folder", &found), 286);
    EXPECT_EQ(lookup("!shell:no-such-folder", &found), 290);
}

// ---- frn: ----------------------------------------------------------------------------------------------

// A volume's answers by hand: the file 0x100 lies in the folder 0x20 under the name "report.txt"; on the
// ReFS volume the file (7, 0x100) lies in the folder (7, 0x20). Every other reference is refused.
static int fake_resolve(const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t *parent_low,
                        uint64_t *parent_high, str_t *name) {
    if (low != 0x100 || high != (fs->type == DB_FS_REFS ? 7u : 0u)) {
        return 0;
    }
    *parent_low = 0x20;
    *parent_high = high;
    str_set(name, "report.txt");
    return 1;
}

// A volume that can't be opened.
static int offline(const db_fs_t *, uint64_t, uint64_t, uint64_t *, uint64_t *, str_t *) {
    return -1;
}

struct FrnTest : LookupTest {
    db_fs_t *ntfs = nullptr, *ntfs2 = nullptr, *refs = nullptr;
    mem_ref_t c = 0, docs = 0, report = 0, other_report = 0, c2 = 0, docs2 = 0, e = 0, refs_docs = 0,
              refs_report = 0;

    mem_ref_t volume_folder(db_fs_t *fs, mem_ref_t parent, const char *name, uint64_t low, uint64_t high) {
        mem_ref_t r = folder(fs, parent, name);
        uint8_t *frn = db_record_frn(db, r);
        memcpy(frn, &low, 8);
        if (fs->type == DB_FS_REFS) {
            memcpy(frn + 8, &high, 8);
        }
        mem_array_push(fs->type == DB_FS_REFS ? &db->refs_folders : &db->ntfs_folders, r);
        return r;
    }
    mem_ref_t file(db_fs_t *fs, mem_ref_t parent, const char *name) {
        mem_ref_t r = db_file_new(db, fs, parent, name, (uint32_t) strlen(name));
        mem_array_push(&db->files, r);
        return r;
    }

    void SetUp() override {
        LookupTest::SetUp();
        ntfs = db_fs_add(db, DB_FS_NTFS);
        ntfs2 = db_fs_add(db, DB_FS_NTFS);
        refs = db_fs_add(db, DB_FS_REFS);
        c = volume_folder(ntfs, 0, "C:", 5, 0);
        docs = volume_folder(ntfs, c, "docs", 0x20, 0);
        mem_ref_t old = volume_folder(ntfs, c, "old", 0x21, 0);
        report = file(ntfs, docs, "report.txt");
        file(ntfs, docs, "Report.txt");
        other_report = file(ntfs, old, "report.txt");
        // A second volume with the same small references.
        c2 = volume_folder(ntfs2, 0, "F:", 5, 0);
        docs2 = volume_folder(ntfs2, c2, "docs", 0x20, 0);
        e = volume_folder(refs, 0, "E:", 5, 7);
        refs_docs = volume_folder(refs, e, "docs", 0x20, 7);
        refs_report = file(refs, refs_docs, "report.txt");
    }
    void TearDown() override {
        db_frn_resolve = db_frn_resolve_volume;
        LookupTest::TearDown();
    }

    // Compiles the search; returns the folder op's opcode and the records it found.
    uint16_t frn(const char *search, std::vector<mem_ref_t> *found) {
        db_search_t s;
        db_search_init(&s, db);
        db_search_compile(&s, search, 0, nullptr, 0, false);
        uint16_t op = s.folder_ops->op;
        found->clear();
        EXPECT_EQ(s.folder_ops->kind, DB_OPK_FRN);
        const db_op_frn_t *f = (const db_op_frn_t *) db_op_payload(s.folder_ops);
        const db_op_frn_t *g = (const db_op_frn_t *) db_op_payload(s.file_ops);
        EXPECT_EQ(f->hits, g->hits);
        for (uint32_t i = 0; i < f->hits; i++) {
            found->push_back(f->records[i]);
            // The scan's test finds each of them, in both chains.
            EXPECT_TRUE(db_op_frn_test(f, f->records[i]));
            EXPECT_TRUE(db_op_frn_test(g, f->records[i]));
        }
        // And nothing else of the index.
        for (mem_ref_t r : {root, usr, c, docs, report, other_report, c2, docs2, e, refs_docs, refs_report}) {
            bool listed = std::find(found->begin(), found->end(), r) != found->end();
            EXPECT_EQ(db_op_frn_test(f, r), listed) << search << " record " << r;
        }
        db_search_kill(&s);
        return op;
    }
};

TEST_F(FrnTest, WithoutTheVolumeTheIndexFindsFoldersByReference) {
    db_frn_resolve = offline;
    std::vector<mem_ref_t> found;
    // Both NTFS volumes hold a folder 0x20; the ReFS one only with a high half of 7.
    EXPECT_EQ(frn("frn:0x20", &found), 336);
    EXPECT_EQ(found, sorted({docs, docs2}));
    EXPECT_EQ(frn("frn:70000000000000020", &found), 336);
    EXPECT_EQ(found, std::vector<mem_ref_t>{refs_docs});
    EXPECT_EQ(frn("!frn:5", &found), 337);
    EXPECT_EQ(found, sorted({c, c2}));
    // A file can't be found without asking the volume.
    EXPECT_EQ(frn("frn:100", &found), 336);
    EXPECT_TRUE(found.empty());
    // The default asks the mounted volume; these sources name none, and the folders are still found.
    db_frn_resolve = db_frn_resolve_volume;
    EXPECT_EQ(frn("frn:0x20", &found), 336);
    EXPECT_EQ(found, sorted({docs, docs2}));
}

TEST_F(FrnTest, TheVolumeNamesTheParentAndTheName) {
    db_frn_resolve = fake_resolve;
    std::vector<mem_ref_t> found;
    // The name is compared exactly, and only under the folder with the parent's reference; the second
    // NTFS volume has that folder but no such file, and the ReFS volume refuses the 64-bit reference.
    EXPECT_EQ(frn("frn:0x100", &found), 336);
    EXPECT_EQ(found, std::vector<mem_ref_t>{report});
    EXPECT_EQ(frn("frn:0x70000000000000100", &found), 336);
    EXPECT_EQ(found, std::vector<mem_ref_t>{refs_report});
    // A reference the volume refuses still finds a folder that the index knows by it.
    EXPECT_EQ(frn("frn:0x21", &found), 336);
    EXPECT_EQ(found.size(), 1u);
    EXPECT_EQ(frn("frn:0x999", &found), 336);
    EXPECT_TRUE(found.empty());
}
