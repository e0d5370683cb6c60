// Exclude patterns: the kind each form gets, and what each kind matches, against names and full paths.
#include "build_fixture.h"

struct exclude_case_t {
    const char *pattern;
    uint32_t kind;
    const char *stored;
    const char *name;
    const char *path;
    bool match;
};

TEST(Exclude, KindsAndMatches) {
    text_init_tables();
    const exclude_case_t cases[] = {
        {"/data/tmp", DB_EXCLUDE_PATH, "/data/tmp", "tmp", "/data/tmp", true},
        {"/data/tmp", DB_EXCLUDE_PATH, "/data/tmp", "x", "/DATA/Tmp/x", true},
        {"/data/tmp", DB_EXCLUDE_PATH, "/data/tmp", "tmp2", "/data/tmp2", false},
        {"Thumbs.db", DB_EXCLUDE_NAME, "Thumbs.db", "THUMBS.DB", "/a/THUMBS.DB", true},
        {"Thumbs.db", DB_EXCLUDE_NAME, "Thumbs.db", "Thumbs.db2", "/a/Thumbs.db2", false},
        {"R\xC3\x89SUM\xC3\x89", DB_EXCLUDE_NAME, "R\xC3\x89SUM\xC3\x89", "r\xC3\xA9sum\xC3\xA9", "/r", true},
        {"a?c", DB_EXCLUDE_WILDCARD, "a?c", "ABC", "/ABC", true},
        {"a*b*c", DB_EXCLUDE_WILDCARD, "a*b*c", "axxbyyc", "/axxbyyc", true},
        {"a**b?", DB_EXCLUDE_WILDCARD, "a**b?", "aXXbZ", "/aXXbZ", true},
        {"*", DB_EXCLUDE_ALL, "*", "anything", "/anything", true},
        {"*.TMP", DB_EXCLUDE_ENDS, ".TMP", "file.tmp", "/file.tmp", true},
        {"*.TMP", DB_EXCLUDE_ENDS, ".TMP", "file.tmp.txt", "/file.tmp.txt", false},
        {"cache*", DB_EXCLUDE_BEGINS, "cache", "Cache2", "/Cache2", true},
        {"cache*", DB_EXCLUDE_BEGINS, "cache", "mycache", "/mycache", false},
        {"*old*", DB_EXCLUDE_CONTAINS, "old", "the-OLD-one", "/the-OLD-one", true},
        {"*old*", DB_EXCLUDE_CONTAINS, "old", "new", "/new", false},
        {"*OLD*", DB_EXCLUDE_CONTAINS, "OLD", "the-old-one", "/the-old-one", true},
        {"Cache*", DB_EXCLUDE_BEGINS, "Cache", "cACHE", "/cACHE", true},
        {"/Data/Tmp", DB_EXCLUDE_PATH, "/Data/Tmp", "x", "/data/tmp/x", true},
        {"A**B?", DB_EXCLUDE_WILDCARD, "A**B?", "axxbZ", "/axxbZ", true},
        {"*/build/*.o", DB_EXCLUDE_PATH_WILDCARD, "*/build/*.o", "x.o", "/src/build/x.o", true},
        {"*/build/*.o", DB_EXCLUDE_PATH_WILDCARD, "*/build/*.o", "x.o", "/src/x.o", false},
        {"*/Build/**.O", DB_EXCLUDE_PATH_WILDCARD, "*/Build/**.O", "x.o", "/src/build/x.o", true},
        {"regex:^te?mp[0-9]+$", DB_EXCLUDE_REGEX, "^te?mp[0-9]+$", "TEMP42", "/TEMP42", true},
        {"regex:^te?mp[0-9]+$", DB_EXCLUDE_REGEX, "^te?mp[0-9]+$", "temp", "/temp", false},
        {"regex:^TEMP$", DB_EXCLUDE_REGEX, "^TEMP$", "temp", "/temp", true},
        {"regex:(", DB_EXCLUDE_REGEX, "(", "(", "/(", false}, // doesn't compile: matches nothing
        {"regex:\xC3\xA9t\xC3\xA9", DB_EXCLUDE_REGEX, "\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89", "/x", true},
        {"regex:x", DB_EXCLUDE_REGEX, "x", "bad\xFFx", "/bad", true}, // invalid UTF-8 in a name still matches
    };
    void *md = db_exclude_match_data_create();
    for (const exclude_case_t &c : cases) {
        std::string pattern = sep(c.pattern), stored = c.kind >= DB_EXCLUDE_REGEX ? c.stored : sep(c.stored);
        std::string path = sep(c.path);
        db_exclude_item_t *list = nullptr;
        db_exclude_add(&list, pattern.data(), (uint32_t) pattern.size());
        ASSERT_NE(list, nullptr);
        SCOPED_TRACE(pattern + " against " + c.name);
        EXPECT_EQ(list->kind, c.kind);
        EXPECT_EQ(std::string(list->text, list->length), stored);
        EXPECT_EQ(db_exclude_item_match(list, md, c.name, (uint32_t) strlen(c.name), path.data(),
                                        (uint32_t) path.size()),
                  c.match);
        // The form a database file keeps, kind and stored text, must match the same when loaded.
        db_exclude_add_stored(&list->next, list->kind, list->text, list->length);
        EXPECT_EQ(db_exclude_item_match(list->next, md, c.name, (uint32_t) strlen(c.name), path.data(),
                                        (uint32_t) path.size()),
                  c.match)
            << "stored form";
        db_exclude_t e = {};
        e.folders = list;
        db_exclude_kill(&e);
    }
    db_exclude_match_data_destroy(md);
}

#ifndef _WIN32
TEST(Exclude, RegexWithASeparatorLooksAtThePath) {
    db_exclude_item_t *list = nullptr;
    const char *p = "regex:^/home/[^/]+/\\.cache";
    db_exclude_add(&list, p, (uint32_t) strlen(p));
    EXPECT_EQ(list->kind, (uint32_t) DB_EXCLUDE_PATH_REGEX);
    void *md = db_exclude_match_data_create();
    EXPECT_TRUE(db_exclude_item_match(list, md, ".cache", 6, "/home/me/.cache", 15));
    EXPECT_FALSE(db_exclude_item_match(list, md, ".cache", 6, "/srv/me/.cache", 14));
    // Without a path nothing of the path kinds can match.
    EXPECT_FALSE(db_exclude_item_match(list, md, ".cache", 6, nullptr, 0));
    db_exclude_match_data_destroy(md);
    db_exclude_t e = {};
    e.files = list;
    db_exclude_kill(&e);
}
#endif

class ExcludeBuild : public BuildTest {};

TEST_F(ExcludeBuild, SettingsBecomeListsAndFlags) {
    *vec_push(&config_exclude_folders) = heap_text(sep("/var/cache/"));
    *vec_push(&config_exclude_folders) = heap_text("node_modules");
    set_text(&exclude_files, " *.tmp ; ;~*");
    set_text(&include_only_files, "*.txt");
    exclude_hidden_files_and_folders = 1;
    config_frozen_t f;
    config_freeze(&f);
    db_exclude_t e;
    db_exclude_build(&e, &f);
    ASSERT_NE(e.folders, nullptr);
    EXPECT_EQ(std::string(e.folders->text), sep("/var/cache")); // the trailing separator is dropped
    EXPECT_TRUE(e.folder_needs_path);
    EXPECT_FALSE(e.file_needs_path);
    int files = 0;
    for (auto *i = e.files; i; i = i->next)
        files++;
    EXPECT_EQ(files, 2);
    EXPECT_TRUE(e.exclude_hidden);
    void *md = db_exclude_match_data_create();
    // Include-only: a file that matches no included pattern is out, as is one that an exclude matches.
    EXPECT_FALSE(db_exclude_file(&e, md, "a.txt", 5, nullptr, 0));
    EXPECT_TRUE(db_exclude_file(&e, md, "a.doc", 5, nullptr, 0));
    EXPECT_TRUE(db_exclude_file(&e, md, "~a.txt", 6, nullptr, 0));
    EXPECT_TRUE(db_exclude_attributes(&e, OS_ATTR_HIDDEN));
    EXPECT_FALSE(db_exclude_attributes(&e, OS_ATTR_SYSTEM));
    db_exclude_match_data_destroy(md);

    // A list switched off keeps only the hidden and system flags.
    db_exclude_t off;
    f.exclude_list_enabled = 0;
    db_exclude_build(&off, &f);
    EXPECT_EQ(off.folders, nullptr);
    EXPECT_EQ(off.files, nullptr);
    EXPECT_TRUE(off.exclude_hidden);
    // Removing items loosens the rules; adding them doesn't.
    EXPECT_TRUE(db_exclude_looser(&e, &off));
    EXPECT_FALSE(db_exclude_looser(&off, &e));
    EXPECT_FALSE(db_exclude_list_equal(e.files, off.files));
    db_exclude_kill(&e);
    db_exclude_kill(&off);
    config_frozen_kill(&f);
}
