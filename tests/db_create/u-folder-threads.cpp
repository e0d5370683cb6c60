// A folder source's index doesn't depend on how many threads listed the tree: the saved file is the same
// byte for byte with 1, 2 and 8, and it holds exactly the tree. Names that fold to the same text, names
// in several scripts and many small folders make every sort and the duplicate walk see the records in the
// order the scan delivered them.
#include "build_fixture.h"

#include "db/dbfile.h"

namespace {

std::string read_bytes(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

class FolderThreadsTest : public BuildTest {};

TEST_F(FolderThreadsTest, IndexIsTheSameWhateverTheThreadCount) {
    index_folder_size = 1;
    const char *names[] = {"Alpha",        "alpha",        "ALPHA.txt", "\xC3\xA4rger",
                           "\xC3\x84rger", "\xE6\x97\xA5", "b c",       "x.tar.gz"};
    for (int d = 0; d < 60; d++) {
        std::string dir = "t/d" + std::to_string(d % 7) + "/e" + std::to_string(d);
        for (int i = 0; i < 8; i++)
            file(dir + "/" + names[i] + std::to_string(d % 3), std::string((size_t) (d + i), 'x'));
        fs::create_directories(fs::path(root) / (dir + "/" + names[d % 8]));
    }
    add_folder_source(at("t"));
    std::set<std::string> want_folders, want_files;
    want_folders.insert(at("t"));
    for (auto &e : fs::recursive_directory_iterator(at("t")))
        (e.is_directory() ? want_folders : want_files).insert(e.path().string());

    std::string first;
    for (int threads : {1, 2, 8}) {
        max_threads = threads;
        rebuild(true);
        EXPECT_EQ(folder_set(), want_folders) << threads << " threads";
        EXPECT_EQ(file_set(), want_files) << threads << " threads";
        std::string saved = at("index-" + std::to_string(threads) + ".db");
        ASSERT_TRUE(db_file_save(db, saved.c_str(), (saved + ".tmp").c_str(), false));
        std::string bytes = read_bytes(saved);
        os_file_delete(saved.c_str());
        ASSERT_FALSE(bytes.empty());
        if (first.empty())
            first = bytes;
        else
            EXPECT_TRUE(bytes == first) << threads << " threads give another file";
    }
}

} // namespace
