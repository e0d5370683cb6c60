// Parse-time lookups against a small index built by hand: infolder: and path roots find the right folders
// by full path under the term's folding, and pick the op family from what they found.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "db/db.h"
#include "db_query/term.h"
#include "mem/mem.h"

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
