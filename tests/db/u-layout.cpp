// The database file byte for byte: for each kind of source a small index is written out by hand, field by
// field, with names that share prefixes, repeat, and sit directly under their source. The hand-made bytes
// must load into exactly the records and arrays they describe, and the same index built through the
// record functions must save to exactly those bytes.
#include "db_fixture.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "debug/debug.h"

namespace fsys = std::filesystem;

namespace {

// Little-endian, unaligned, as the file wants it; written without any of the stream code.
struct bytes_t {
    std::string b;
    void u8(uint32_t v) { b += (char) (uint8_t) v; }
    void u32(uint32_t v) {
        for (int i = 0; i < 4; i++)
            u8(v >> (8 * i));
    }
    void u64(uint64_t v) {
        u32((uint32_t) v);
        u32((uint32_t) (v >> 32));
    }
    void len(uint32_t v) {
        if (v < 255) {
            u8(v);
        } else {
            u8(255);
            u32(v);
        }
    }
    void raw(const std::string &s) { b += s; }
    void str(const std::string &s) {
        len((uint32_t) s.size());
        raw(s);
    }
};

const uint64_t k_unknown = ~0ull;

// A folder or file of the small index. parent: an index into the folders, or -1 for the source itself.
struct rec_t {
    int parent;
    std::string name;
    uint64_t size;
    uint64_t frn_low, frn_high; // folders of volumes only
    uint32_t children;          // what a load must count for a folder of a volume
};

// The shape shared by every kind: a root, a folder and a child that extends its name, a name repeated
// under two parents (stored with nothing new), and files likewise. In name order, as the file keeps them.
// The root names all sort before "z".
const uint32_t k_word = 0x2121; // sizes of files and folders, arrays by path and by size

struct layout_t {
    uint32_t type;
    std::string root;
    std::vector<rec_t> folders, files;
    // Positions in `folders` and `files` of the arrays the word asks for, in the file's order.
    std::vector<uint32_t> frn_order, folders_by_path, folders_by_size, files_by_path, files_by_size;
};

layout_t make_layout(uint32_t type, const std::string &root) {
    layout_t l;
    l.type = type;
    l.root = root;
    // FRNs whose order by the high half differs from that by the low half, so that a ReFS FRN compared
    // from the wrong end, or an NTFS FRN read with the wrong width, shows.
    l.folders = {
        {-1, root, 500, 0x0000000000000005ull, 0x30, 2},       // 0: two folders, one file
        {0, "zap", k_unknown, 0x0000000000000101ull, 0x10, 2}, // 1: zapper, zip; a file
        {1, "zapper", 10, 0x00000000000000FFull, 0x20, 0},     {0, "zip", 10, 0x0000000000000200ull, 0x00, 0},
        {1, "zip", 7, 0x0000000000000100ull, 0x40, 0}, // the same name under another parent
    };
    l.files = {
        {0, "note", 3, 0, 0, 0},
        {1, "notes", 1, 0, 0, 0},
        {4, "notes", 2, 0, 0, 0},
    };
    l.folders[1].children = 3; // zapper, zip, notes
    l.folders[4].children = 1; // notes
    l.folders[0].children = 3; // zap, zip, note
    if (type == DB_FS_FILE_LIST)
        l.files.push_back({-1, "top.txt", 0, 0, 0, 0}); // directly under the list: parent F + 0
    if (type == DB_FS_NTFS)
        l.frn_order = {0, 2, 4, 1, 3}; // by the 64-bit value alone
    else if (type == DB_FS_REFS)
        l.frn_order = {3, 1, 2, 0, 4}; // by the high half first
    // The parent's path decides before the name: root; zap and zip under it; zapper and zip under zap.
    l.folders_by_path = {0, 1, 3, 2, 4};
    // Unknown first, then 7, then 10 twice in name order, then 500.
    l.folders_by_size = {1, 4, 2, 3, 0};
    // A file without a folder has the shortest path of all.
    if (type == DB_FS_FILE_LIST) {
        l.files_by_path = {3, 0, 1, 2};
        l.files_by_size = {3, 1, 2, 0};
    } else {
        l.files_by_path = {0, 1, 2};
        l.files_by_size = {1, 2, 0};
    }
    return l;
}

// The previous name minus `cut` bytes plus the new ones: the longest shared prefix is kept.
void delta(bytes_t &o, const std::string &prev, const std::string &name) {
    size_t keep = 0;
    while (keep < prev.size() && keep < name.size() && prev[keep] == name[keep])
        keep++;
    if (name == prev) {
        o.len(0);
        return;
    }
    o.len((uint32_t) (name.size() - keep));
    o.len((uint32_t) (prev.size() - keep));
    o.raw(name.substr(keep));
}

void source_record(bytes_t &o, const layout_t &l) {
    o.len(l.type);
    o.u8(l.type == DB_FS_REFS ? 1 : 0); // out of date
    switch (l.type) {
    case DB_FS_NTFS:
    case DB_FS_REFS:
        o.str("\\\\?\\Volume{7}\\");
        o.str(l.root);
        o.str(l.type == DB_FS_NTFS ? l.root + "\\sub" : "");
        o.str(l.type == DB_FS_REFS ? "D:\\a;D:\\b" : "");
        o.u64(0x1122334455667788ull); // journal id
        o.u64(0x0000000000ABCDEFull); // next USN
        break;
    case DB_FS_FILE_LIST:
        o.str("/lists/x.swl");
        o.u64(133000000000000000ull); // last write time
        break;
    case DB_FS_FOLDER:
        o.str(l.root);
        o.u64(134000000000000000ull); // next update
        break;
    }
}

std::string hand_bytes(const layout_t &l) {
    const uint32_t F = (uint32_t) l.folders.size(), N = (uint32_t) l.files.size();
    bytes_t o;
    o.raw("SWDb");
    o.u32(0x01070014);
    o.u32(k_word);
    o.u32(F);
    o.u32(N);
    o.len(1);
    source_record(o, l);
    o.u8(2); // exclude system items
    o.len(1);
    o.u8(1); // a name
    o.str("Temp");
    o.len(2);
    o.u8(5); // ends with: kept as written, without its star
    o.str(".Bak");
    o.u8(9);
    o.str("^x\\d$");
    o.len(0);
    for (const rec_t &f : l.folders)
        o.u32(f.parent < 0 ? F + 0 : (uint32_t) f.parent);
    std::string prev;
    for (const rec_t &f : l.folders) {
        delta(o, prev, f.name);
        prev = f.name;
        o.u64(f.size);
        if (l.type == DB_FS_NTFS) {
            o.u64(f.frn_low);
        } else if (l.type == DB_FS_REFS) {
            o.u64(f.frn_low);
            o.u64(f.frn_high);
        }
    }
    prev.clear();
    for (const rec_t &f : l.files) {
        o.u32(f.parent < 0 ? F + 0 : (uint32_t) f.parent);
        delta(o, prev, f.name);
        prev = f.name;
        o.u64(f.size);
    }
    o.u32(l.type == DB_FS_NTFS ? F : 0);
    if (l.type == DB_FS_NTFS)
        for (uint32_t i : l.frn_order)
            o.u32(i);
    o.u32(l.type == DB_FS_REFS ? F : 0);
    if (l.type == DB_FS_REFS)
        for (uint32_t i : l.frn_order)
            o.u32(i);
    for (const auto *a : {&l.folders_by_path, &l.folders_by_size, &l.files_by_path, &l.files_by_size})
        for (uint32_t i : *a)
            o.u32(i);
    return o.b;
}

struct layout_row_t {
    const char *what;
    uint32_t type;
    const char *root;
};

const layout_row_t k_rows[] = {
    {"NTFS", DB_FS_NTFS, "C:"},
    {"ReFS", DB_FS_REFS, "D:"},
    {"file list", DB_FS_FILE_LIST, "/lists"},
    {"folder", DB_FS_FOLDER, "/srv"},
};

uint64_t frn_part(const uint8_t *frn, int half) {
    uint64_t v;
    memcpy(&v, frn + 8 * half, 8);
    return v;
}

std::string slurp(const std::string &path) {
    std::ifstream f(fsys::path(path), std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

class Layout : public ::testing::Test {
  protected:
    void SetUp() override {
        debug_init();
        text_init_tables();
    }
};

// Checks every record, source field, pattern and array of a loaded index against the layout.
void expect_index(db_t *db, const layout_t &l) {
    ASSERT_EQ(db->fs_count, 1u);
    ASSERT_EQ(db->folders.count, l.folders.size());
    ASSERT_EQ(db->files.count, l.files.size());
    EXPECT_EQ(db->structure.word, k_word);
    const db_fs_t *fs = db->fs_first;
    EXPECT_EQ(fs->type, l.type);
    EXPECT_EQ(fs->out_of_date, l.type == DB_FS_REFS);
    if (l.type == DB_FS_NTFS || l.type == DB_FS_REFS) {
        EXPECT_STREQ(fs->guid, "\\\\?\\Volume{7}\\");
        EXPECT_EQ(std::string(fs->path), l.root);
        EXPECT_EQ(fs->journal_id, 0x1122334455667788ull);
        EXPECT_EQ(fs->next_usn, 0x0000000000ABCDEFull);
        if (l.type == DB_FS_NTFS) {
            EXPECT_EQ(std::string(fs->root), l.root + "\\sub");
        } else {
            EXPECT_STREQ(fs->include_only, "D:\\a;D:\\b");
        }
    } else if (l.type == DB_FS_FILE_LIST) {
        EXPECT_STREQ(fs->filename, "/lists/x.swl");
        EXPECT_EQ(fs->last_write_time, 133000000000000000ull);
    } else {
        EXPECT_EQ(std::string(fs->path), l.root);
    }
    const db_exclude_t *e = &db->exclude;
    EXPECT_FALSE(e->exclude_hidden);
    EXPECT_TRUE(e->exclude_system);
    ASSERT_TRUE(e->folders && e->files && e->files->next);
    EXPECT_EQ(e->folders->kind, 1u);
    EXPECT_STREQ(e->folders->text, "Temp");
    EXPECT_EQ(e->files->kind, 5u);
    EXPECT_STREQ(e->files->text, ".Bak");
    EXPECT_STREQ(e->files->next->text, "^x\\d$");
    EXPECT_NE(e->files->next->regex, nullptr);
    EXPECT_EQ(e->include_only_files, nullptr);

    bool volume = l.type == DB_FS_NTFS || l.type == DB_FS_REFS;
    for (size_t i = 0; i < l.folders.size(); i++) {
        const rec_t &w = l.folders[i];
        db_ref_t r = mem_array_get(&db->folders, (uint32_t) i);
        SCOPED_TRACE("folder " + std::to_string(i));
        EXPECT_EQ(rec_name(r), w.name);
        if (w.parent < 0) {
            EXPECT_EQ(db_record_parent(r), 0u);
            EXPECT_EQ(db_record_fs_index(r), 0u);
        } else {
            EXPECT_EQ(db_record_parent(r), mem_array_get(&db->folders, (uint32_t) w.parent));
        }
        EXPECT_EQ(db_folder_get(db, r, DB_FIELD_SIZE), w.size);
        const uint8_t *frn = db_record_frn(db, r);
        ASSERT_EQ(frn != nullptr, volume);
        if (frn) {
            EXPECT_EQ(frn_part(frn, 0), w.frn_low);
            if (l.type == DB_FS_REFS) {
                EXPECT_EQ(frn_part(frn, 1), w.frn_high);
            }
            EXPECT_EQ(db_folder_child_count(db, r), w.children);
        }
    }
    for (size_t i = 0; i < l.files.size(); i++) {
        const rec_t &w = l.files[i];
        db_ref_t r = mem_array_get(&db->files, (uint32_t) i);
        SCOPED_TRACE("file " + std::to_string(i));
        EXPECT_EQ(rec_name(r), w.name);
        if (w.parent < 0) {
            EXPECT_EQ(db_record_parent(r), 0u);
            EXPECT_EQ(db_record_fs_index(r), 0u);
        } else {
            EXPECT_EQ(db_record_parent(r), mem_array_get(&db->folders, (uint32_t) w.parent));
        }
        EXPECT_EQ(db_file_get(db, r, DB_FIELD_SIZE), w.size);
    }
    auto expect_array = [](const mem_array_t *a, const mem_array_t *of, const std::vector<uint32_t> &want,
                           const char *what) {
        ASSERT_EQ(a->count, want.size()) << what;
        for (size_t i = 0; i < want.size(); i++)
            EXPECT_EQ(mem_array_get(a, (uint32_t) i), mem_array_get(of, want[i])) << what << " " << i;
    };
    expect_array(&db->ntfs_folders, &db->folders,
                 l.type == DB_FS_NTFS ? l.frn_order : std::vector<uint32_t>{}, "ntfs_folders");
    expect_array(&db->refs_folders, &db->folders,
                 l.type == DB_FS_REFS ? l.frn_order : std::vector<uint32_t>{}, "refs_folders");
    expect_array(&db->folders_by_path, &db->folders, l.folders_by_path, "folders_by_path");
    expect_array(&db->folders_by_size, &db->folders, l.folders_by_size, "folders_by_size");
    expect_array(&db->files_by_path, &db->files, l.files_by_path, "files_by_path");
    expect_array(&db->files_by_size, &db->files, l.files_by_size, "files_by_size");
}

// The same index made through the record functions, its arrays filled in the layout's orders.
void build(db_t *db, const layout_t &l) {
    db_fs_t *fs = db_fs_add(db, l.type);
    fs->out_of_date = l.type == DB_FS_REFS;
    if (l.type == DB_FS_NTFS || l.type == DB_FS_REFS) {
        db_fs_set_text(&fs->guid, "\\\\?\\Volume{7}\\");
        db_fs_set_text(&fs->path, l.root.c_str());
        if (l.type == DB_FS_NTFS)
            db_fs_set_text(&fs->root, (l.root + "\\sub").c_str());
        else
            db_fs_set_text(&fs->include_only, "D:\\a;D:\\b");
        fs->journal_id = 0x1122334455667788ull;
        fs->next_usn = 0x0000000000ABCDEFull;
    } else if (l.type == DB_FS_FILE_LIST) {
        db_fs_set_text(&fs->filename, "/lists/x.swl");
        fs->last_write_time = 133000000000000000ull;
    } else {
        db_fs_set_text(&fs->path, l.root.c_str());
        fs->next_update = 134000000000000000ull;
    }
    db->exclude.exclude_system = true;
    db_exclude_add(&db->exclude.folders, "Temp", 4);
    db_exclude_item_t **tail = db_exclude_add(&db->exclude.files, "*.Bak", 5);
    db_exclude_add(tail, "regex:^x\\d$", 11);

    std::vector<db_ref_t> folders, files;
    for (const rec_t &f : l.folders) {
        db_ref_t r = db_folder_new(db, fs, f.parent < 0 ? 0 : folders[(size_t) f.parent], f.name.data(),
                                   (uint32_t) f.name.size());
        db_folder_set(db, r, DB_FIELD_SIZE, f.size);
        if (uint8_t *frn = db_record_frn(db, r)) {
            memcpy(frn, &f.frn_low, 8);
            if (l.type == DB_FS_REFS)
                memcpy(frn + 8, &f.frn_high, 8);
        }
        folders.push_back(r);
    }
    for (const rec_t &f : l.files) {
        db_ref_t r = db_file_new(db, fs, f.parent < 0 ? 0 : folders[(size_t) f.parent], f.name.data(),
                                 (uint32_t) f.name.size());
        db_file_set(db, r, DB_FIELD_SIZE, f.size);
        files.push_back(r);
    }
    auto fill = [](mem_array_t *a, const std::vector<db_ref_t> &recs, const std::vector<uint32_t> &order) {
        if (order.empty())
            return;
        mem_array_alloc_bulk(a, (uint32_t) order.size());
        for (size_t i = 0; i < order.size(); i++)
            *mem_array_bulk_slot(a, (uint32_t) i) = recs[order[i]];
    };
    std::vector<uint32_t> identity_f(folders.size()), identity_n(files.size());
    for (uint32_t i = 0; i < identity_f.size(); i++)
        identity_f[i] = i;
    for (uint32_t i = 0; i < identity_n.size(); i++)
        identity_n[i] = i;
    fill(&db->folders, folders, identity_f);
    fill(&db->files, files, identity_n);
    fill(l.type == DB_FS_NTFS ? &db->ntfs_folders : &db->refs_folders, folders,
         l.type == DB_FS_NTFS || l.type == DB_FS_REFS ? l.frn_order : std::vector<uint32_t>{});
    fill(&db->folders_by_path, folders, l.folders_by_path);
    fill(&db->folders_by_size, folders, l.folders_by_size);
    fill(&db->files_by_path, files, l.files_by_path);
    fill(&db->files_by_size, files, l.files_by_size);
    db->has_content = true;
}

// The layout's orders are the index's own: otherwise the bytes above would describe an index that no
// rebuild makes, and a load that accepted them would prove little.
void expect_sorted(db_t *db, const mem_array_t *a, db_order_t order, bool folder, const char *what) {
    for (uint32_t i = 1; i < a->count; i++)
        EXPECT_LT(db_compare(db, order, folder, mem_array_get(a, i - 1), mem_array_get(a, i)), 0)
            << what << " at " << i;
}

} // namespace

TEST_F(Layout, HandMadeBytesLoadAsTheRecordsTheyDescribe) {
    for (const layout_row_t &row : k_rows) {
        SCOPED_TRACE(row.what);
        layout_t l = make_layout(row.type, row.root);
        std::string bytes = hand_bytes(l);
        db_holder_t h(0);
        ASSERT_TRUE(db_file_load_memory(h.db, bytes.data(), bytes.size(), false, nullptr));
        ASSERT_NO_FATAL_FAILURE(expect_index(h.db, l));
        expect_sorted(h.db, &h.db->folders, DB_ORDER_NAME, true, "folders");
        expect_sorted(h.db, &h.db->files, DB_ORDER_NAME, false, "files");
        expect_sorted(h.db, &h.db->folders_by_path, DB_ORDER_PATH, true, "folders by path");
        expect_sorted(h.db, &h.db->files_by_path, DB_ORDER_PATH, false, "files by path");
        expect_sorted(h.db, &h.db->folders_by_size, DB_ORDER_SIZE, true, "folders by size");
        expect_sorted(h.db, &h.db->files_by_size, DB_ORDER_SIZE, false, "files by size");
        expect_sorted(h.db, &h.db->ntfs_folders, DB_ORDER_FRN, true, "NTFS FRNs");
        expect_sorted(h.db, &h.db->refs_folders, DB_ORDER_FRN, true, "ReFS FRNs");
    }
}

TEST_F(Layout, IndexSavesToTheHandMadeBytes) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    // A name of this run's own, as other runs may share the temporary folder.
    std::string p = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP_STR + "sw-layout-" +
                    std::to_string(std::random_device()()) + ".db";
    str_kill(&tmp);
    for (const layout_row_t &row : k_rows) {
        SCOPED_TRACE(row.what);
        layout_t l = make_layout(row.type, row.root);
        db_holder_t h(k_word);
        build(h.db, l);
        ASSERT_TRUE(db_file_save(h.db, p.c_str(), p.c_str(), false));
        std::string want = hand_bytes(l), got = slurp(p);
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < want.size(); i++)
            ASSERT_EQ((int) (uint8_t) got[i], (int) (uint8_t) want[i]) << "first difference at byte " << i;
    }
    fsys::remove(fsys::path(p));
}
