// The database file: the stream and its codes, the file name rules, an index built by hand written and
// read back record for record and array for array (plain and compressed), hand-made files that break one
// rule each, cut and damaged files, hostile lengths, and the save and load as the program runs them.
#include "db_fixture.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "config/config.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "main/main.h"

namespace fsys = std::filesystem;

// ---- scratch files and the log -------------------------------------------------------------------------

static std::string slurp(const std::string &path) {
    std::ifstream f(fsys::path(path), std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

static void spill(const std::string &path, const std::string &bytes) {
    std::ofstream f(fsys::path(path), std::ios::binary | std::ios::trunc);
    f << bytes;
}

// A folder of its own for each test and a log that the test can read back.
// These tests are about the file; whether settings call for a rebuild is the index build's own test. Here
// only an empty load asks for one, and asking is all that happens.
static bool rebuild_required_when_empty(db_t *db) {
    return !db->has_content;
}
static void rebuild_not_started(db_t *) {}

class DbFile : public ::testing::Test {
  protected:
    std::string dir, log_path;
    db_file_rebuild_ops_t saved_ops;
    void SetUp() override {
        saved_ops = db_file_rebuild_ops;
        db_file_rebuild_ops = {rebuild_required_when_empty, rebuild_not_started};
        debug_init();
        text_init_tables();
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
        // Other runs of these tests may share the temporary folder: each run's folders carry a tag of
        // their own, so that one run never removes another's files.
        static const std::string run =
            std::to_string(std::random_device()()) + "-" +
            std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
        dir = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP_STR + "sw-dbfile-" + run + "-" + info->name();
        str_kill(&tmp);
        fsys::remove_all(fsys::path(dir));
        fsys::create_directories(fsys::path(dir));
        log_path = path("log.txt");
        debug_close_log();
        debug_open_log_path(log_path.c_str());
    }
    void TearDown() override {
        os_hooks_reset();
        db_file_rebuild_ops = saved_ops;
        debug_close_log();
        db_file_set_command_line(nullptr, nullptr, false, false);
        std::error_code ec;
        fsys::remove_all(fsys::path(dir), ec);
    }
    std::string path(const std::string &name) { return dir + OS_SEP_STR + name; }
    std::string log_text() { return slurp(log_path); }
};

// ---- an index built by hand ----------------------------------------------------------------------------

static const struct {
    mem_array_t db_t::*array;
    db_order_t order;
    bool folder;
} k_arrays[] = {
    {&db_t::folders_by_path, DB_ORDER_PATH, true},
    {&db_t::files_by_path, DB_ORDER_PATH, false},
    {&db_t::folders_by_size, DB_ORDER_SIZE, true},
    {&db_t::files_by_size, DB_ORDER_SIZE, false},
    {&db_t::folders_by_date_created, DB_ORDER_DATE_CREATED, true},
    {&db_t::files_by_date_created, DB_ORDER_DATE_CREATED, false},
    {&db_t::folders_by_date_modified, DB_ORDER_DATE_MODIFIED, true},
    {&db_t::files_by_date_modified, DB_ORDER_DATE_MODIFIED, false},
    {&db_t::folders_by_date_accessed, DB_ORDER_DATE_ACCESSED, true},
    {&db_t::files_by_date_accessed, DB_ORDER_DATE_ACCESSED, false},
    {&db_t::folders_by_attributes, DB_ORDER_ATTRIBUTES, true},
    {&db_t::files_by_attributes, DB_ORDER_ATTRIBUTES, false},
    {&db_t::files_by_extension, DB_ORDER_EXTENSION, false},
};

static void add_item(db_exclude_item_t **list, uint32_t kind, const std::string &text) {
    while (*list)
        list = &(*list)->next;
    db_exclude_add_stored(list, kind, text.data(), (uint32_t) text.size());
}

// Five sources (NTFS, ReFS, a file list, a folder, the folder "/" with its empty root name), folders and
// files with random names and data, names of 254 to 256 bytes, a long root name, the same name under two
// parents, files directly under the file list, and every sorted array that the word asks for.
struct built_t {
    db_holder_t h;
    std::vector<db_ref_t> folders, files;
    std::mt19937 rng;

    built_t(uint32_t word, int folder_count, int file_count, uint32_t seed, bool long_names = true)
        : h(word), rng(seed) {
        db_t *db = h.db;
        db_fs_t *ntfs = db_fs_add(db, DB_FS_NTFS);
        db_fs_set_text(&ntfs->guid, "\\\\?\\Volume{0c5e1d2a}\\");
        db_fs_set_text(&ntfs->path, "C:");
        ntfs->journal_id = 0x1122334455667788ull;
        ntfs->next_usn = 0x99AABBCCDDEEFF00ull;
        db_fs_t *refs = db_fs_add(db, DB_FS_REFS);
        db_fs_set_text(&refs->guid, "\\\\?\\Volume{refs}\\");
        db_fs_set_text(&refs->path, "D:");
        db_fs_set_text(&refs->root, "D:\\sub");
        db_fs_set_text(&refs->include_only, "D:\\sub\\a;D:\\sub\\b");
        refs->out_of_date = 1;
        refs->journal_id = 7;
        refs->next_usn = 8;
        db_fs_t *list = db_fs_add(db, DB_FS_FILE_LIST);
        db_fs_set_text(&list->filename, "/lists/some list.swl");
        list->last_write_time = 132000000000000000ull;
        db_fs_t *tree = db_fs_add(db, DB_FS_FOLDER);
        db_fs_set_text(&tree->path, "/srv/tree");
        tree->next_update = 133000000000000000ull;
        db_fs_t *top = db_fs_add(db, DB_FS_FOLDER);
        db_fs_set_text(&top->path, "/");

        db_ref_t c = folder(ntfs, 0, "C:"), d = folder(refs, 0, "D:");
        folder(list, 0, "/lists/" + std::string(long_names ? 290 : 1, 'L'));
        folder(tree, 0, "/srv/tree");
        folder(top, 0, "");
        folder(ntfs, c, "same");
        folder(refs, d, "same");
        if (long_names) {
            folder(ntfs, c, std::string(254, 'n'));
            folder(ntfs, c, std::string(255, 'n'));
            folder(refs, d, std::string(256, 'n'));
        }
        std::set<std::pair<db_ref_t, std::string>> used;
        while ((int) folders.size() < folder_count) {
            db_ref_t parent = folders[rng() % folders.size()];
            std::string name = random_name(rng).substr(0, long_names ? std::string::npos : 12);
            if (used.insert({parent, name}).second)
                folder(db_record_fs(db, parent), parent, name);
        }
        used.clear();
        while ((int) files.size() < file_count) {
            std::string name = random_name(rng).substr(0, long_names ? std::string::npos : 12);
            bool under_list = rng() % 8 == 0;
            db_ref_t parent = under_list ? 0 : folders[rng() % folders.size()];
            if (!used.insert({parent, name}).second)
                continue;
            db_ref_t f = h.file(parent ? db_record_fs(db, parent) : list, parent, name);
            for (int k = 0; k < DB_FIELD_COUNT; k++)
                db_file_set(db, f, (db_field_t) k, value(k));
            files.push_back(f);
        }
        db->exclude.exclude_hidden = true;
        add_item(&db->exclude.folders, 0, "C:\\Windows");
        add_item(&db->exclude.folders, 9, "^tmp$");
        add_item(&db->exclude.files, 5, ".bak");
        add_item(&db->exclude.files, 10, "a\\\\b");
        add_item(&db->exclude.include_only_files, 2, "*.t?t");
        db->exclude.folder_needs_path = db->exclude.file_needs_path = true;
        fill_arrays();
        db->has_content = true;
    }

    uint64_t value(int field) {
        if (rng() % 7 == 0)
            return field == DB_FIELD_ATTRIBUTES ? 0 : DB_UNKNOWN;
        return field == DB_FIELD_ATTRIBUTES ? rng() % 0x2000 : ((uint64_t) rng() << 20) ^ rng();
    }

    db_ref_t folder(const db_fs_t *fs, db_ref_t parent, const std::string &name) {
        db_ref_t r = h.folder(fs, parent, name);
        for (int k = 0; k < DB_FIELD_COUNT; k++)
            db_folder_set(h.db, r, (db_field_t) k, value(k));
        if (uint8_t *frn = db_record_frn(h.db, r)) {
            // Duplicate FRNs across the sources test that the FRN order keeps them apart.
            for (int i = 0; i < (fs->type == DB_FS_NTFS ? 8 : 16); i++)
                frn[i] = (uint8_t) (rng() % 4);
        }
        folders.push_back(r);
        return r;
    }

    template <typename Cmp>
    static void fill(mem_array_t *a, std::vector<db_ref_t> recs, Cmp cmp) {
        std::sort(recs.begin(), recs.end(), [&](db_ref_t x, db_ref_t y) { return cmp(x, y) < 0; });
        if (recs.empty())
            return;
        mem_array_alloc_bulk(a, (uint32_t) recs.size());
        for (uint32_t i = 0; i < recs.size(); i++)
            *mem_array_bulk_slot(a, i) = recs[i];
    }

    void fill_arrays() {
        db_t *db = h.db;
        fill(&db->folders, folders, db_name_compare);
        fill(&db->files, files, db_name_compare);
        mem_array_t *wanted[2][8];
        int n[2] = {db_file_arrays(db, false, wanted[0]), db_file_arrays(db, true, wanted[1])};
        for (const auto &k : k_arrays) {
            mem_array_t *a = &(db->*k.array);
            if (std::find(wanted[k.folder], wanted[k.folder] + n[k.folder], a) ==
                wanted[k.folder] + n[k.folder])
                continue;
            fill(a, k.folder ? folders : files,
                 [&](db_ref_t x, db_ref_t y) { return db_compare(db, k.order, k.folder, x, y); });
        }
        // The FRN arrays, and the child counts that a load must rebuild from them and from the files.
        std::vector<db_ref_t> by_type[4];
        for (db_ref_t f : folders)
            by_type[db_record_fs(db, f)->type].push_back(f);
        fill(&db->ntfs_folders, by_type[DB_FS_NTFS],
             [&](db_ref_t x, db_ref_t y) { return db_frn_compare(db, x, y); });
        fill(&db->refs_folders, by_type[DB_FS_REFS],
             [&](db_ref_t x, db_ref_t y) { return db_frn_compare(db, x, y); });
        std::map<db_ref_t, uint32_t> children;
        for (int t : {DB_FS_NTFS, DB_FS_REFS})
            for (db_ref_t f : by_type[t])
                if (db_record_parent(f))
                    children[db_record_parent(f)]++;
        for (db_ref_t f : files)
            if (db_record_parent(f))
                children[db_record_parent(f)]++;
        for (auto &c : children)
            db_folder_set_child_count(db, c.first, c.second);
    }
};

// ---- the dump: the whole index as text -----------------------------------------------------------------

static std::string hex(const void *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; i++) {
        uint8_t b = ((const uint8_t *) p)[i];
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

static std::string text(const char *t) {
    return t ? std::string("\"") + t + "\"" : "null";
}

static std::map<db_ref_t, uint32_t> positions(const mem_array_t *a) {
    std::map<db_ref_t, uint32_t> m;
    for (uint32_t i = 0; i < a->count; i++)
        m[mem_array_get(a, i)] = i;
    return m;
}

static void dump_record(std::ostringstream &o, db_t *db, db_ref_t r, bool folder,
                        std::map<db_ref_t, uint32_t> &folder_at) {
    uint32_t len;
    const char *name = db_record_name(r, &len);
    db_ref_t parent = db_record_parent(r);
    o << (parent ? "parent " + std::to_string(folder_at.at(parent))
                 : "fs " + std::to_string(db_record_fs_index(r)))
      << " name " << len << ":" << hex(name, len) << " data "
      << hex(db_record_data(r), folder ? db->structure.folder_data_size : db->structure.file_data_size);
    if (folder) {
        const db_fs_t *fs = db_record_fs(db, r);
        if (const uint8_t *frn = db_record_frn(db, r))
            o << " frn " << hex(frn, fs->type == DB_FS_NTFS ? 8 : 16);
        o << " children " << db_folder_child_count(db, r);
    }
    o << "\n";
}

static void dump_array(std::ostringstream &o, const char *name, const mem_array_t *a,
                       std::map<db_ref_t, uint32_t> &at) {
    EXPECT_TRUE(a->count == 0 || mem_array_check(a)) << name;
    o << name << " " << a->count << ":";
    for (uint32_t i = 0; i < a->count; i++)
        o << " " << at.at(mem_array_get(a, i));
    o << "\n";
}

// Every stored field of the index, with references written as positions in `folders` and `files`.
static std::string dump(db_t *db) {
    std::ostringstream o;
    o << std::hex << "structure " << db->structure.word << std::dec << " sources " << db->fs_count << "\n";
    for (const db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        o << "fs " << fs->index << " type " << fs->type << " ood " << (int) fs->out_of_date;
        if (fs->type == DB_FS_NTFS || fs->type == DB_FS_REFS)
            o << " " << text(fs->guid) << " " << text(fs->path) << " " << text(fs->root) << " "
              << text(fs->include_only) << " " << fs->journal_id << " " << fs->next_usn;
        else if (fs->type == DB_FS_FILE_LIST)
            o << " " << text(fs->filename) << " " << fs->last_write_time;
        else
            o << " " << text(fs->path) << " " << fs->next_update;
        o << "\n";
    }
    const db_exclude_t *e = &db->exclude;
    o << "exclude " << e->exclude_hidden << e->exclude_system << e->folder_needs_path << e->file_needs_path
      << "\n";
    for (const db_exclude_item_t *list : {e->folders, e->files, e->include_only_files}) {
        o << "list";
        for (const db_exclude_item_t *i = list; i; i = i->next)
            o << " " << i->kind << ":" << std::string(i->text, i->length) << ":" << (i->regex != nullptr);
        o << "\n";
    }
    auto folder_at = positions(&db->folders), file_at = positions(&db->files);
    for (uint32_t i = 0; i < db->folders.count; i++) {
        o << "folder " << i << " ";
        dump_record(o, db, mem_array_get(&db->folders, i), true, folder_at);
    }
    for (uint32_t i = 0; i < db->files.count; i++) {
        o << "file " << i << " ";
        dump_record(o, db, mem_array_get(&db->files, i), false, folder_at);
    }
    dump_array(o, "folders", &db->folders, folder_at);
    dump_array(o, "files", &db->files, file_at);
    dump_array(o, "ntfs_folders", &db->ntfs_folders, folder_at);
    dump_array(o, "refs_folders", &db->refs_folders, folder_at);
    for (const auto &k : k_arrays)
        dump_array(o, k.folder ? "folder array" : "file array", &(db->*k.array),
                   k.folder ? folder_at : file_at);
    return o.str();
}

// Compares two dumps line by line, so that a failure names the first record that differs.
static void expect_same(const std::string &want, const std::string &got) {
    std::istringstream a(want), b(got);
    std::string la, lb;
    int line = 1;
    while (std::getline(a, la)) {
        ASSERT_TRUE((bool) std::getline(b, lb)) << "missing from line " << line << ": " << la;
        ASSERT_EQ(la, lb) << "line " << line;
        line++;
    }
    ASSERT_FALSE((bool) std::getline(b, lb)) << "extra line " << line << ": " << lb;
}

static bool is_empty(const db_t *db) {
    return db->fs_count == 0 && db->folders.count == 0 && db->files.count == 0 &&
           db->ntfs_folders.count == 0 && db->exclude.folders == nullptr && !db->has_content;
}

// ---- the stream ----------------------------------------------------------------------------------------

TEST_F(DbFile, StreamCodesRoundTripAcrossBuffersPlainAndCompressed) {
    const uint32_t lens[] = {0, 1, 254, 255, 256, 65535, 0xFFFFFFFEu};
    const std::string strings[] = {"", "a", std::string(300, 'x'), std::string(70000, 'y')};
    std::string blob(200000, 0);
    for (size_t i = 0; i < blob.size(); i++)
        blob[i] = (char) (i * 7 + i / 300);
    for (bool compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        std::string p = path("stream.bin");
        os_file_t f = os_file_open(p.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
        os_file_stream_t s;
        ASSERT_TRUE(os_stream_init_write(&s, f, compressed));
        for (uint32_t v : lens)
            os_stream_write_len(&s, v);
        for (const std::string &t : strings)
            os_stream_write_string(&s, t.data(), (uint32_t) t.size());
        os_stream_write_u64(&s, 0x0102030405060708ull);
        os_write(&s, blob.data(), blob.size());
        ASSERT_TRUE(os_stream_flush(&s));
        os_stream_kill(&s);
        os_file_close(f);

        std::string bytes = slurp(p);
        if (!compressed) {
            // The short form below 255, else 255 and four bytes, little-endian.
            ASSERT_EQ(bytes.substr(0, 9), std::string("\x00\x01\xFE\xFF\xFF\x00\x00\x00\xFF", 9));
        } else {
            ASSERT_EQ(bytes.substr(0, 4), "BZh9");
            ASSERT_LT(bytes.size(), blob.size());
        }
        os_file_stream_t r;
        ASSERT_TRUE(os_stream_init_memory(&r, bytes.data(), bytes.size(), compressed));
        for (uint32_t v : lens)
            EXPECT_EQ(os_stream_read_len(&r), v);
        str_t t;
        str_init(&t);
        for (const std::string &want : strings) {
            os_stream_read_string(&r, &t);
            EXPECT_EQ(std::string(t.ptr, (size_t) t.len), want);
        }
        EXPECT_EQ(os_stream_read_u64(&r), 0x0102030405060708ull);
        std::string back(blob.size(), 0);
        os_read(&r, back.data(), back.size());
        EXPECT_TRUE(back == blob);
        EXPECT_FALSE(r.error);
        EXPECT_TRUE(os_stream_read_finish(&r));
        // Past the end: zeros and the sticky flag.
        uint32_t past = 0xDEADBEEF;
        os_read(&r, &past, 4);
        EXPECT_EQ(past, 0u);
        EXPECT_TRUE(r.error);
        os_stream_kill(&r);
        str_kill(&t);
    }
}

TEST_F(DbFile, StreamDamagedLengthAndFailedWrites) {
    // A string length of all ones marks damage: empty text, error set, nothing allocated for it.
    const char damaged[] = "\xFF\xFF\xFF\xFF\xFF"
                           "abc";
    os_file_stream_t r;
    os_stream_init_memory(&r, damaged, sizeof(damaged) - 1, false);
    str_t t;
    str_init(&t);
    str_set(&t, "old");
    os_stream_read_string(&r, &t);
    EXPECT_EQ(t.len, 0);
    EXPECT_TRUE(r.error);
    os_stream_kill(&r);
    // A length far beyond the data fails at the end of the data, with memory for the data only.
    const char hostile[] = "\xFF\xF0\xFF\xFF\x7F"
                           "abc";
    os_stream_init_memory(&r, hostile, sizeof(hostile) - 1, false);
    os_stream_read_string(&r, &t);
    EXPECT_EQ(t.len, 0);
    EXPECT_TRUE(r.error);
    EXPECT_LE(t.cap, 65536 * 2);
    os_stream_kill(&r);
    str_kill(&t);

    // A file that can't be written: the first full buffer fails, later writes do nothing.
    std::string p = path("readonly.bin");
    spill(p, "x");
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_READ);
    os_file_stream_t s;
    os_stream_init_write(&s, f, false);
    std::string big(3 * 65536, 'z');
    os_write(&s, big.data(), big.size());
    EXPECT_TRUE(s.error);
    EXPECT_FALSE(os_stream_flush(&s));
    os_stream_kill(&s);
    os_file_close(f);
    EXPECT_EQ(slurp(p), "x");
    EXPECT_NE(log_text().find("os_write(): "), std::string::npos);
}

// ---- the file name -------------------------------------------------------------------------------------

// Sets (or with null removes) an environment variable for the rest of the process, and puts the old value
// back when it goes out of scope.
struct env_pin_t {
    std::string name, old;
    bool had;
    env_pin_t(const char *n, const char *value) : name(n) {
        const char *v = getenv(n);
        had = v != nullptr;
        old = v ? v : "";
        set(value);
    }
    ~env_pin_t() { set(had ? old.c_str() : nullptr); }
    void set(const char *value) {
#ifdef _WIN32
        // "NAME=" removes the variable, which is what an empty value means to the name rules as well.
        std::string kv = name + "=" + (value ? value : "");
        _putenv(kv.c_str());
#else
        if (value)
            setenv(name.c_str(), value, 1);
        else
            unsetenv(name.c_str());
#endif
    }
};

TEST_F(DbFile, FileNameRules) {
    std::string exe = path("exe"), user = path("user"), local = path("local"), own = path("own.db");
    std::string absolute = path("elsewhere"), sep = OS_SEP_STR;
    config_set_folders(exe.c_str(), user.c_str());
    uint8_t saved_app_data = app_data;
    char *saved_location = db_location;
    env_pin_t computer("COMPUTERNAME", "box"), host("HOSTNAME", "other"), user_name("USERNAME", "me"),
        login("USER", "someone"), appdata("LOCALAPPDATA", local.c_str());
    struct row_t {
        const char *what;
        const char *db_switch, *instance, *location;
        bool app_data, temporary, multi;
        const char *computer, *user_name; // null: the variable is removed
        std::string want;
    };
    const row_t rows[] = {
        {"plain", nullptr, nullptr, "", false, false, false, "box", "me", exe + sep + "Sablewatch.db"},
        {"temporary", nullptr, nullptr, "", false, true, false, "box", "me", exe + sep + "Sablewatch.db.tmp"},
        {"multi-user", nullptr, nullptr, "", false, false, true, "box", "me",
         exe + sep + "Sablewatch.box.me.db"},
        // Without the Windows names the POSIX ones serve; without either a name part is empty.
        {"multi-user, other names", nullptr, nullptr, "", false, false, true, nullptr, nullptr,
         exe + sep + "Sablewatch.other.someone.db"},
        {"instance escaped", nullptr, "a:b*c", "", false, true, false, "box", "me",
         exe + sep + "Sablewatch-a%3Ab%2Ac.db.tmp"},
        {"relative location", nullptr, nullptr, "sub", false, false, false, "box", "me",
         exe + sep + "sub" + sep + "Sablewatch.db"},
        {"absolute location", nullptr, nullptr, absolute.c_str(), false, false, false, "box", "me",
         absolute + sep + "Sablewatch.db"},
        {"app data", nullptr, nullptr, "", true, false, false, "box", "me",
         local + sep + "Sablewatch" + sep + "Sablewatch.db"},
        // The switch gives the whole name, for the temporary file as well.
        {"switch", own.c_str(), "x", "", false, false, true, "box", "me", own},
        {"switch, temporary", own.c_str(), nullptr, "", false, true, false, "box", "me", own},
    };
    for (const row_t &r : rows) {
        computer.set(r.computer);
        user_name.set(r.user_name);
        db_file_set_command_line(r.db_switch, r.instance, false, false);
        app_data = r.app_data;
        db_location = (char *) r.location;
        str_t s;
        str_init(&s);
        db_file_name(&s, r.temporary, r.multi);
        EXPECT_EQ(std::string(s.ptr, (size_t) s.len), r.want) << r.what;
        str_kill(&s);
    }
    // Without a local application data folder the per-user folder serves.
    appdata.set(nullptr);
    app_data = 1;
    db_location = nullptr;
    db_file_set_command_line(nullptr, nullptr, false, false);
    str_t s;
    str_init(&s);
    db_file_name(&s, false, false);
    EXPECT_EQ(std::string(s.ptr, (size_t) s.len), user + sep + "Sablewatch.db");
    str_kill(&s);
    app_data = saved_app_data;
    db_location = saved_location;
    config_set_folders(nullptr, nullptr);
}

// ---- write and read back -------------------------------------------------------------------------------

TEST_F(DbFile, BuiltIndexLoadsBackRecordForRecordPlainAndCompressed) {
    struct row_t {
        uint32_t word;
        int folders, files;
        bool sources_only; // no records and no arrays: the header, sources, excludes and two zero counts
    };
    // No arrays beyond name order; the default; every field and every array; an index of sources alone.
    const row_t rows[] = {
        {0x0000u, 600, 1500, false},
        {DB_STRUCTURE_DEFAULT, 600, 1500, false},
        {0x7F3Fu, 600, 1500, false},
        {DB_STRUCTURE_DEFAULT, 0, 0, true},
    };
    for (const row_t &r : rows) {
        built_t b(r.word, r.folders, r.files, r.word + 1);
        if (r.sources_only)
            db_arrays_kill(b.h.db);
        std::string want = dump(b.h.db);
        for (bool compressed : {false, true}) {
            SCOPED_TRACE(::testing::Message() << std::hex << r.word << " compressed " << compressed
                                              << " sources only " << r.sources_only);
            std::string final_name = path("index.db"), temporary = path("index.db.tmp");
            ASSERT_TRUE(db_file_save(b.h.db, final_name.c_str(), temporary.c_str(), compressed));
            EXPECT_FALSE(fsys::exists(fsys::path(temporary)));
            // The save gave every parent back.
            ASSERT_NO_FATAL_FAILURE(expect_same(want, dump(b.h.db)));
            db_holder_t loaded(0);
            ASSERT_TRUE(db_file_load(loaded.db, final_name.c_str(), compressed, nullptr));
            ASSERT_NO_FATAL_FAILURE(expect_same(want, dump(loaded.db)));
            // The other setting of db_compress reads the file as something else: a failed load.
            db_holder_t other(0);
            EXPECT_FALSE(db_file_load(other.db, final_name.c_str(), !compressed, nullptr));
            EXPECT_TRUE(is_empty(other.db));
        }
    }
    EXPECT_NE(log_text().find("invalid db magic"), std::string::npos);
    // A missing file is a failed load that leaves nothing.
    db_holder_t h(0);
    EXPECT_FALSE(db_file_load(h.db, path("missing.db").c_str(), false, nullptr));
    EXPECT_TRUE(is_empty(h.db));
}

// ---- hand-made files -----------------------------------------------------------------------------------

// A small file written byte by byte in the documented layout, with knobs that break one rule each.
struct craft_t {
    uint32_t magic = DB_FILE_MAGIC, version = DB_FILE_VERSION;
    uint32_t type = DB_FS_FOLDER;
    uint32_t folder_parent = 1; // F + 0: the root of source 0
    uint32_t folder_cut = 0;
    uint32_t file_cut = 1;
    uint32_t file_parent = 0;
    uint32_t ntfs_count = 0;
    uint32_t folder_element = 0, file_element = 1;
    uint32_t guid_len = 2;

    static void u32(std::string &o, uint32_t v) {
        for (int i = 0; i < 4; i++)
            o += (char) (v >> (8 * i));
    }
    static void len(std::string &o, uint32_t v) {
        if (v < 255) {
            o += (char) v;
        } else {
            o += '\xFF';
            u32(o, v);
        }
    }
    std::string bytes() const {
        std::string o;
        u32(o, magic);
        u32(o, version);
        u32(o, 0x2000); // the path arrays only, no data fields
        u32(o, 1);      // F
        u32(o, 2);      // N
        len(o, 1);      // S
        len(o, type);
        o += '\0';
        len(o, guid_len); // the folder's path
        o += "/r";
        u32(o, 7); // next_update, 64 bits
        u32(o, 0);
        o += '\x01'; // exclude hidden
        len(o, 1);   // one excluded folder
        o += '\x09';
        len(o, 3);
        o += "^x$";
        len(o, 0);
        len(o, 0);
        u32(o, folder_parent);
        len(o, 2); // "/r": add 2
        len(o, folder_cut);
        o += "/r";
        u32(o, file_parent); // "f" in folder 0
        len(o, 1);
        len(o, 0);
        o += "f";
        u32(o, 1); // "g" directly under source 0 (F + 0)
        len(o, 1);
        len(o, file_cut);
        o += "g";
        u32(o, ntfs_count);
        u32(o, 0); // refs count
        u32(o, folder_element);
        u32(o, file_element);
        u32(o, 0);
        return o;
    }
};

TEST_F(DbFile, EachBrokenRuleOfAHandMadeFileFailsWithItsText) {
    craft_t good;
    db_holder_t h(0);
    std::string bytes = good.bytes();
    ASSERT_TRUE(db_file_load_memory(h.db, bytes.data(), bytes.size(), false, nullptr)) << log_text();
    // A regular expression is compiled on load; the rest of a valid file is the layout test's.
    ASSERT_NE(h.db->exclude.folders, nullptr);
    EXPECT_NE(h.db->exclude.folders->regex, nullptr);

    struct row_t {
        const char *what;
        void (*breaks)(craft_t *);
        const char *words;
    };
    const row_t rows[] = {
        {"magic", [](craft_t *c) { c->magic = 0x62445754; }, "invalid db magic"},
        {"version", [](craft_t *c) { c->version = 0x01070013; }, "unsupported db version"},
        {"source type", [](craft_t *c) { c->type = 9; }, "invalid index type 9"},
        {"folder parent", [](craft_t *c) { c->folder_parent = 2; }, "invalid parent folder index 2 >= 1 + 1"},
        {"folder parent loop", [](craft_t *c) { c->folder_parent = 0; }, "invalid parent folder chain"},
        {"file parent", [](craft_t *c) { c->file_parent = 5; }, "invalid parent folder index 5 >= 1 + 1"},
        {"folder delta", [](craft_t *c) { c->folder_cut = 1; }, "Invalid folder code offset 1 > 0."},
        {"file delta", [](craft_t *c) { c->file_cut = 2; }, "Invalid file code offset 2 > 1."},
        {"folder element", [](craft_t *c) { c->folder_element = 1; }, "invalid folder index 1"},
        {"file element", [](craft_t *c) { c->file_element = 2; }, "invalid file index 2"},
        {"file element twice", [](craft_t *c) { c->file_element = 0; }, "invalid file index 0"},
        {"NTFS element of a folder source", [](craft_t *c) { c->ntfs_count = 1; }, "invalid folder index 0"},
        {"string length", [](craft_t *c) { c->guid_len = 0xFFFFFFFF; }, "invalid string length"},
    };
    for (const row_t &r : rows) {
        craft_t c;
        r.breaks(&c);
        std::string b = c.bytes();
        debug_close_log();
        debug_open_log_path(log_path.c_str());
        EXPECT_FALSE(db_file_load_memory(h.db, b.data(), b.size(), false, nullptr)) << r.what;
        EXPECT_TRUE(is_empty(h.db)) << r.what;
        EXPECT_NE(log_text().find(r.words), std::string::npos) << r.what << "\n" << log_text();
    }
}

// ---- damage --------------------------------------------------------------------------------------------

TEST_F(DbFile, CutAfterEveryByteOrWithAByteFlippedNeverCrashes) {
    // Short names keep the file, and so the number of loads, small.
    built_t b(0x7F3F, 14, 24, 5, false);
    std::string want = dump(b.h.db);
    db_holder_t h(0);
    for (bool compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        std::string p = path("small.db");
        ASSERT_TRUE(db_file_save(b.h.db, p.c_str(), p.c_str(), compressed));
        std::string bytes = slurp(p);
        ASSERT_TRUE(db_file_load_memory(h.db, bytes.data(), bytes.size(), compressed, nullptr));
        db_file_clear(h.db);
        // Every byte of the plain file. Each compressed load sets up a 3.6 MB decompressor, so there the
        // test takes every seventh byte and the whole tail, where the stream's end and checksum lie.
        size_t size = bytes.size();
        auto next = [&](size_t i) { return !compressed || i + 48 >= size ? i + 1 : i + 7; };
        for (size_t cut = 0; cut < size; cut = next(cut)) {
            std::string part = bytes.substr(0, cut);
            ASSERT_FALSE(db_file_load_memory(h.db, part.data(), part.size(), compressed, nullptr)) << cut;
            ASSERT_TRUE(is_empty(h.db)) << cut;
        }
        int failed = 0;
        for (size_t i = 0; i < size; i = next(i)) {
            std::string bad = bytes;
            bad[i] = (char) (bad[i] ^ 0xFF);
            if (!db_file_load_memory(h.db, bad.data(), bad.size(), compressed, nullptr)) {
                ASSERT_TRUE(is_empty(h.db)) << i;
                failed++;
                continue;
            }
            // The plain format has no checksum of its own, so a flipped name or data byte can load; but
            // then it must show, as every byte of the file stands for something in the index. bzip2's
            // checksums let through only flips that decode to the same bytes (the code length of a
            // symbol that never occurs, for one), so a compressed load that succeeds is the index itself.
            if (compressed)
                ASSERT_EQ(dump(h.db), want) << "byte " << i;
            else
                ASSERT_NE(dump(h.db), want) << "byte " << i << " was ignored";
            db_file_clear(h.db);
        }
        EXPECT_GT(failed, 0);
    }
}

TEST_F(DbFile, HostileCountsCostNoMoreThanTheirData) {
    size_t blocks = mem_arena_blocks_in_use();
    craft_t c;
    std::string good = c.bytes();
    std::string header = good.substr(0, 12);
    struct row_t {
        const char *what;
        std::string bytes;
    };
    // Counts far beyond the data behind them: every record is read until the data runs out.
    std::string huge_folders = good, huge_files = good;
    huge_folders.replace(12, 4, "\xF0\xFF\xFF\xFF");
    huge_files.replace(16, 4, "\xF0\xFF\xFF\xFF");
    std::string huge_sources = header + std::string(8, '\0') + std::string("\xFF\xF0\xFF\xFF\xFF", 5);
    std::string huge_patterns =
        header + std::string(8, '\0') + std::string("\x00\x00\xFF\xFF\xFF\xFF\xFF", 7);
    std::string huge_name = good;
    // The folder's add becomes 0x7FFFFFF0: refused before any record is made.
    size_t at = good.find(std::string("\x02\x00/r", 4), 40);
    ASSERT_NE(at, std::string::npos);
    huge_name.replace(at, 1, std::string("\xFF\xF0\xFF\xFF\x7F", 5));
    const row_t rows[] = {{"folders", huge_folders},
                          {"files", huge_files},
                          {"sources", huge_sources},
                          {"patterns", huge_patterns},
                          {"name", huge_name}};
    db_holder_t h(0);
    for (const row_t &r : rows) {
        EXPECT_FALSE(db_file_load_memory(h.db, r.bytes.data(), r.bytes.size(), false, nullptr)) << r.what;
        EXPECT_TRUE(is_empty(h.db)) << r.what;
        EXPECT_LE(mem_arena_blocks_in_use(), blocks + 4) << r.what;
    }
}

// ---- the save and the load as the program runs them ----------------------------------------------------

TEST_F(DbFile, SaveReplacesTheFileAndAFailedSaveKeepsTheOldOne) {
    built_t b(DB_STRUCTURE_DEFAULT, 50, 80, 9);
    std::string final_name = path("keep.db");
    spill(final_name, "old contents");
    // The temporary file's folder can't be made: a file stands where it should be.
    spill(path("blocker"), "x");
    std::string blocked = path("blocker") + OS_SEP_STR + "keep.db.tmp";
    EXPECT_FALSE(db_file_save(b.h.db, final_name.c_str(), blocked.c_str(), false));
    EXPECT_EQ(slurp(final_name), "old contents");
    EXPECT_NE(log_text().find("failed to save " + blocked), std::string::npos);
    // A temporary file in a folder that doesn't exist yet: the folder is made, the old file replaced.
    std::string temporary = path("new") + OS_SEP_STR + "keep.db.tmp";
    ASSERT_TRUE(db_file_save(b.h.db, final_name.c_str(), temporary.c_str(), false));
    EXPECT_EQ(slurp(final_name).substr(0, 4), "SWDb");
}

// Runs what the main loop would run after a load job: the wait, then the two posted events.
static void finish_load(db_t *db) {
    db_wait(db, "test");
    event_remove(_db_load_complete_proc, db);
    event_remove(_db_ready_proc, db);
    _db_load_complete_proc(db);
    _db_ready_proc(db);
}

TEST_F(DbFile, SaveAndLoadJobThroughTheCommandLineName) {
    built_t b(DB_STRUCTURE_DEFAULT, 120, 300, 13);
    std::string want = dump(b.h.db);
    std::string p = path("job.db");

    // -read-only and -no-db write nothing.
    db_file_set_command_line(p.c_str(), nullptr, false, true);
    db_save(b.h.db, false);
    db_file_set_command_line(p.c_str(), nullptr, true, false);
    db_save(b.h.db, false);
    EXPECT_FALSE(fsys::exists(fsys::path(p)));

    db_file_set_command_line(p.c_str(), nullptr, false, false);
    db_save(b.h.db, false);
    ASSERT_TRUE(fsys::exists(fsys::path(p)));
    EXPECT_NE(log_text().find("db_save_local 120 folders, 300 files"), std::string::npos);

    db_holder_t loaded(0);
    db_load(loaded.db, 0);
    finish_load(loaded.db);
    EXPECT_TRUE(loaded.db->is_loaded);
    EXPECT_TRUE(loaded.db->has_content);
    EXPECT_EQ(loaded.db->busy, 0u);
    // The settings know none of these folders: each takes the defaults, and with rescan_asap on its next
    // update is due at once; the file's value is what the dump compares.
    for (db_fs_t *fs = loaded.db->fs_first; fs; fs = fs->next) {
        if (fs->type != DB_FS_FOLDER)
            continue;
        EXPECT_TRUE(fs->monitor);
        EXPECT_EQ(fs->buffer_size, 65536u);
        EXPECT_EQ(fs->update_type, (uint32_t) DB_UPDATE_DAILY);
        EXPECT_EQ(fs->update_value, 3u);
        EXPECT_EQ(fs->next_update, 0u);
        fs->next_update = db_fs_get(b.h.db, fs->index)->next_update;
    }
    expect_same(want, dump(loaded.db));

    std::string log = log_text();
    EXPECT_NE(log.find("loaded 120 folders, 300 files, in "), std::string::npos);
    EXPECT_EQ(log.find("load complete: rebuild required"), std::string::npos);

    // A file that isn't there: an empty index that asks for a rebuild.
    db_file_set_command_line(path("none.db").c_str(), nullptr, false, false);
    db_holder_t fresh(0);
    db_load(fresh.db, 0);
    finish_load(fresh.db);
    EXPECT_TRUE(fresh.db->is_loaded);
    EXPECT_FALSE(fresh.db->has_content);
    EXPECT_NE(log_text().find("load complete: rebuild required"), std::string::npos);

    // -no-db: no job at all.
    db_file_set_command_line(p.c_str(), nullptr, true, false);
    db_holder_t none(0);
    db_load(none.db, 0);
    EXPECT_FALSE(db_job_running(none.db));
    EXPECT_NE(log_text().find("no db file"), std::string::npos);
}

// ---- the settings that a load takes over ---------------------------------------------------------------

// A zone one hour east of UTC without daylight saving, and a fixed now (Wednesday 2024-03-27 10:00 UTC,
// 11:00 local), so that a schedule comes out the same on every machine and on every day of the year.
static const uint64_t k_minute = 600000000ull, k_hour = 60 * k_minute;
static uint64_t utc(int year, int month, int day, int hour) {
    os_systemtime_t st = {year, month, 0, day, hour, 0, 0, 0};
    uint64_t ft = 0;
    EXPECT_TRUE(os_system_to_filetime(&st, &ft));
    return ft;
}
static uint64_t pinned_now() {
    return utc(2024, 3, 27, 10);
}
static bool plus_one_to_local(uint64_t ft, os_systemtime_t *out) {
    return os_filetime_to_system(ft + k_hour, out);
}
static bool plus_one_from_local(const os_systemtime_t *local, uint64_t *ft) {
    if (!os_system_to_filetime(local, ft))
        return false;
    *ft -= k_hour;
    return true;
}

// A path that is absolute on this platform.
static std::string abs_path(const char *p) {
    std::string s = p;
    for (char &c : s)
        if (c == '/')
            c = OS_SEP;
#ifdef _WIN32
    s = "C:" + s;
#endif
    return s;
}

TEST_F(DbFile, LoadTakesOverTheSettingsOfEachSourceItFinds) {
    os_hooks.filetime_now = pinned_now;
    os_hooks.filetime_to_local = plus_one_to_local;
    os_hooks.local_to_filetime = plus_one_from_local;

    // The index as a rebuild stores its sources: resolved paths without a trailing separator, the top
    // folder of the file system as an empty name (a drive as "C:").
    db_holder_t h(0);
    db_fs_t *vol = db_fs_add(h.db, DB_FS_NTFS);
    db_fs_set_text(&vol->guid, "\\\\?\\Volume{1}\\");
    db_fs_set_text(&vol->path, "C:");
    db_fs_t *other_vol = db_fs_add(h.db, DB_FS_REFS);
    db_fs_set_text(&other_vol->guid, "\\\\?\\Volume{2}\\");
    db_fs_set_text(&other_vol->path, "E:");
    db_fs_t *list = db_fs_add(h.db, DB_FS_FILE_LIST);
    db_fs_set_text(&list->filename, abs_path("/lists/a.swl").c_str());
    db_fs_t *unlisted_list = db_fs_add(h.db, DB_FS_FILE_LIST);
    db_fs_set_text(&unlisted_list->filename, abs_path("/lists/gone.swl").c_str());
    db_fs_t *tree = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_set_text(&tree->path, abs_path("/srv/tree").c_str());
#ifdef _WIN32
    const char *top_stored = "C:", *top_setting = "C:\\";
#else
    const char *top_stored = "", *top_setting = "/";
#endif
    db_fs_t *top = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_set_text(&top->path, top_stored);
    db_fs_t *unlisted = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_set_text(&unlisted->path, abs_path("/srv/gone").c_str());
    for (db_fs_t *fs = h.db->fs_first; fs; fs = fs->next)
        fs->next_update = 5; // what the file says; kept only when the settings have nothing to say
    h.db->has_content = true;
    std::string p = path("settings.db");
    ASSERT_TRUE(db_file_save(h.db, p.c_str(), p.c_str(), false));

    // The settings name the folders as a user writes them: with a trailing separator, and "/" itself.
    std::string tree_setting = abs_path("/srv/tree/"), list_setting = abs_path("/lists/a.swl");
    config_volume_t volumes[] = {{(char *) "\\\\?\\Volume{1}\\", (char *) "C:", nullptr, nullptr, 1, 1, 1}};
    config_filelist_t lists[] = {{(char *) list_setting.c_str(), 0}};
    config_folder_t folders[] = {
        {(char *) tree_setting.c_str(), 0, 4096, 1, 1, 0, 0, 45, 0}, // every 45 minutes
        {(char *) top_setting, 1, 8192, 0, 2, 0, 12, 6, 1},          // every day at 12:00
    };
    config_frozen_t c;
    memset(&c, 0, sizeof(c));
    c.ntfs_volumes = {volumes, 1, 1};
    c.filelists = {lists, 1, 1};
    c.folders = {folders, 2, 2};

    struct want_t {
        uint32_t index;
        bool monitor;
        uint32_t buffer_size;
        bool rescan_if_full;
        uint32_t update_type, update_value;
        uint64_t next_update; // with rescan_asap off
    };
    const uint64_t now = pinned_now();
    const want_t want[] = {
        {4, false, 4096, true, DB_UPDATE_INTERVAL, 45, now + 45 * k_minute},
        {5, true, 8192, false, DB_UPDATE_DAILY, 12, utc(2024, 3, 27, 11)},
        // Not in the settings: watched, daily at 3:00, which has passed today.
        {6, true, 65536, false, DB_UPDATE_DAILY, 3, utc(2024, 3, 28, 2)},
    };
    for (uint8_t asap : {1, 0}) {
        SCOPED_TRACE(asap ? "rescan asap" : "schedule from now");
        c.folder_update_rescan_asap = asap;
        db_load_settings_t settings = {&c, false};
        db_holder_t loaded(0);
        ASSERT_TRUE(db_file_load(loaded.db, p.c_str(), false, &settings)) << log_text();
        db_t *db = loaded.db;
        EXPECT_TRUE(db_fs_get(db, 0)->monitor);
        EXPECT_TRUE(db_fs_get(db, 0)->load_recent_changes);
        EXPECT_FALSE(db_fs_get(db, 1)->monitor) << "a volume the settings don't name isn't watched";
        EXPECT_FALSE(db_fs_get(db, 1)->load_recent_changes);
        EXPECT_FALSE(db_fs_get(db, 2)->monitor);
        EXPECT_TRUE(db_fs_get(db, 3)->monitor) << "a file list the settings don't name is watched";
        for (const want_t &w : want) {
            const db_fs_t *fs = db_fs_get(db, w.index);
            SCOPED_TRACE(fs->path ? fs->path : "(top)");
            EXPECT_EQ(fs->monitor, w.monitor);
            EXPECT_EQ(fs->buffer_size, w.buffer_size);
            EXPECT_EQ(fs->rescan_if_full, w.rescan_if_full);
            EXPECT_EQ(fs->update_type, w.update_type);
            EXPECT_EQ(fs->update_value, w.update_value);
            EXPECT_EQ(fs->next_update, asap ? 0 : w.next_update);
        }
    }
    // Without settings a load keeps the file's times.
    db_holder_t bare(0);
    ASSERT_TRUE(db_file_load(bare.db, p.c_str(), false, nullptr));
    EXPECT_EQ(db_fs_get(bare.db, 4)->next_update, 5u);
    os_hooks_reset();
}

// ---- the fuzzer's seeds --------------------------------------------------------------------------------

// The tree's root: the nearest folder above this source file, or above the working folder, that holds
// the fuzz targets.
static fsys::path source_root() {
    for (fsys::path p : {fsys::path(__FILE__).parent_path(), fsys::current_path()}) {
        std::error_code ec;
        for (p = fsys::absolute(p, ec); !p.empty() && p != p.parent_path(); p = p.parent_path())
            if (fsys::exists(p / "fuzz" / "fuzz-dbload.cpp", ec))
                return p;
    }
    return {};
}

// The seeds of the database loader's fuzzer: a small valid index for each mix of structure bits and
// exclude flags, plain and compressed, each behind the byte by which the fuzzer chooses compression.
// With SW_WRITE_FUZZ_CORPUS set to a folder the seeds are written there; otherwise those in the tree must
// be exactly these, so that a change of the format can't leave the fuzzer with seeds it rejects at once.
TEST_F(DbFile, FuzzSeedsAreValidIndexesOfEachFlagMix) {
    // No arrays; the default; every field without arrays; folder sizes with their array; everything.
    const uint32_t words[] = {0x0000, DB_STRUCTURE_DEFAULT, 0x003F, 0x0121, 0x7F3F};
    const char *out_dir = getenv("SW_WRITE_FUZZ_CORPUS");
    fsys::path root = source_root(),
               tree_dir = root.empty() ? fsys::path() : root / "fuzz" / "corpus" / "fuzz-dbload";
    int compared = 0;
    for (size_t i = 0; i < sizeof(words) / sizeof(words[0]); i++) {
        // Long names (the 32-bit length forms) in every other seed; short ones keep the rest small.
        built_t b(words[i], 10, 16, (uint32_t) i + 100, i % 2 == 1);
        b.h.db->exclude.exclude_hidden = (i & 1) != 0;
        b.h.db->exclude.exclude_system = (i & 2) != 0;
        std::string want = dump(b.h.db);
        for (bool compressed : {false, true}) {
            char name[64];
            snprintf(name, sizeof(name), "index-%04x-%s", words[i], compressed ? "bz2" : "plain");
            SCOPED_TRACE(name);
            std::string p = path("seed.db");
            ASSERT_TRUE(db_file_save(b.h.db, p.c_str(), p.c_str(), compressed));
            std::string seed = std::string(1, compressed ? '\x01' : '\x00') + slurp(p);
            db_holder_t loaded(0);
            ASSERT_TRUE(
                db_file_load_memory(loaded.db, seed.data() + 1, seed.size() - 1, compressed, nullptr));
            ASSERT_NO_FATAL_FAILURE(expect_same(want, dump(loaded.db)));
            EXPECT_LT(seed.size(), 8192u);
            if (out_dir && *out_dir) {
                fsys::create_directories(fsys::path(out_dir));
                spill((fsys::path(out_dir) / name).string(), seed);
            } else if (!tree_dir.empty()) {
                EXPECT_TRUE(slurp((tree_dir / name).string()) == seed)
                    << "fuzz/corpus/fuzz-dbload/" << name
                    << " is not what this test makes: run it with "
                       "SW_WRITE_FUZZ_CORPUS=fuzz/corpus/fuzz-dbload";
                compared++;
            }
        }
    }
    if (!out_dir && tree_dir.empty()) {
        std::cout << "note: the source tree isn't reachable from here; the seeds were only loaded\n";
    } else if (!out_dir) {
        EXPECT_EQ(compared, 10);
    }
}
