// A private index over one named list: it reads that list and nothing the settings configure, tells why
// it is empty through its status, and never writes a file.
#include "build_fixture.h"

#include "db/dbfile.h"
#include "filelist/filelist.h"

class PrivateListTest : public BuildTest {
  protected:
    db_t *priv = nullptr;

    void TearDown() override {
        db_destroy(priv);
        BuildTest::TearDown();
    }
    // Opens the list as a window would and runs the load to its end.
    void open(const std::string &list) {
        priv = db_create(list.c_str());
        db_load(priv, 0);
        for (int i = 0; i < 100 && !priv->is_loaded; i++) {
            db_wait(priv, "test");
            event_dispatch();
        }
        ASSERT_TRUE(priv->is_loaded);
    }
    std::vector<std::string> files() { return array_paths(&priv->files); }
};

TEST_F(PrivateListTest, StatusTellsWhyTheIndexIsEmpty) {
    struct {
        const char *name;
        const char *text; // null: no file at all
        int status;
        size_t files;
    } cases[] = {
        {"missing", nullptr, FILELIST_OPEN_FAILED, 0},
        {"empty file", "", FILELIST_NO_FILENAME, 0},
        {"no filename column", "Name,Size\r\nx,1\r\n", FILELIST_NO_FILENAME, 0},
        {"good", "Size,filename\r\n1,a.txt\r\n2,sub\\b.txt\r\n", FILELIST_OK, 2},
    };
    for (const auto &c : cases) {
        std::string list = at(std::string("lists/") + c.name + ".swl");
        if (c.text)
            file(std::string("lists/") + c.name + ".swl", c.text);
        open(list);
        EXPECT_EQ(priv->filelist_status, c.status) << c.name;
        EXPECT_EQ(files().size(), c.files) << c.name;
        db_destroy(priv);
        priv = nullptr;
    }
}

TEST_F(PrivateListTest, ReadsOnlyItsListAndWritesNoFile) {
    // Settings that name other sources, which a private index must not read.
    file("tree/in-folder.txt");
    add_folder_source(at("tree"));
    file("other.swl", "Filename\r\nelsewhere.txt\r\n");
    add_filelist(at("other.swl"));
    set_text(&db_location, root);

    std::string list = file("mine.swl", "Filename\r\nmine.txt\r\n");
    open(at("mine.swl"));
    EXPECT_EQ(files(), std::vector<std::string>{at("mine.txt")});
    ASSERT_NE(priv->fs_first, nullptr);
    EXPECT_EQ(priv->fs_first->next, nullptr);
    EXPECT_EQ(priv->filelist_monitor, nullptr) << "a private index is never watched";

    db_save(priv, true);
    for (const auto &e : fs::directory_iterator(root))
        EXPECT_EQ(e.path().extension().string().find(".db"), std::string::npos) << e.path();
}
