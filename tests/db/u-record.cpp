// Records: the structure word, the byte layout and size of each kind of record, field access, full paths,
// and the pool they come from.
#include "db_fixture.h"

#include <map>

#include "config/config.h"
#include "mem/arena.h"

// ---- the structure word --------------------------------------------------------------------------------

TEST(Structure, SettingsGiveTheWordWithItsConditions) {
    struct row_t {
        const char *what;
        void (*change)(db_settings_t *);
        uint32_t word;
    };
    const row_t rows[] = {
        {"defaults", [](db_settings_t *) {}, 0x2505},
        {"folder size with size", [](db_settings_t *s) { s->index_folder_size = true; }, 0x2525},
        {"folder size without size stores no size",
         [](db_settings_t *s) {
             s->index_size = false;
             s->index_folder_size = true;
         },
         0x2404},
        {"fast sorts need their field",
         [](db_settings_t *s) {
             s->index_date_modified = false;
             s->fast_date_created_sort = true;
             s->fast_date_accessed_sort = true;
             s->fast_attributes_sort = true;
         },
         0x2101},
        {"every field and array",
         [](db_settings_t *s) {
             s->index_folder_size = s->index_date_created = s->index_date_accessed = s->index_attributes =
                 true;
             s->fast_date_created_sort = s->fast_date_accessed_sort = s->fast_attributes_sort = true;
             s->fast_extension_sort = true;
         },
         0x7F3F},
        {"nothing", [](db_settings_t *s) { memset(s, 0, sizeof(*s)); }, 0},
    };
    for (const row_t &r : rows) {
        db_settings_t s;
        db_settings_default(&s);
        r.change(&s);
        db_structure_t st;
        db_structure_from_settings(&st, &s);
        EXPECT_EQ(st.word, r.word) << r.what;
    }
}

TEST(Structure, WordFromTheSettingVariables) {
    uint8_t *vars[] = {&index_size, &index_folder_size, &fast_size_sort, &fast_extension_sort};
    uint8_t saved[4];
    for (int i = 0; i < 4; i++)
        saved[i] = *vars[i];
    index_size = 1;
    index_folder_size = 1;
    fast_size_sort = 1;
    fast_extension_sort = 1;
    db_structure_t st;
    db_structure_from_config(&st);
    EXPECT_EQ(st.word & 0x4121u, 0x4121u);
    index_size = 0;
    db_structure_from_config(&st);
    EXPECT_EQ(st.word & 0x0121u, 0u) << "without file sizes neither size bit nor the size array";
    for (int i = 0; i < 4; i++)
        *vars[i] = saved[i];
}

TEST(Structure, OffsetsFollowTheFixedFieldOrder) {
    db_structure_t s;
    db_structure_set(&s, 0x2505);
    EXPECT_EQ(s.file_data_size, 16u);
    EXPECT_EQ(s.folder_data_size, 8u);
    EXPECT_EQ(s.file_offset[DB_FIELD_SIZE], 0);
    EXPECT_EQ(s.file_offset[DB_FIELD_DATE_MODIFIED], 8);
    EXPECT_EQ(s.folder_offset[DB_FIELD_SIZE], -1);
    EXPECT_EQ(s.folder_offset[DB_FIELD_DATE_MODIFIED], 0);

    db_structure_set(&s, 0x3F);
    const int8_t all[DB_FIELD_COUNT] = {0, 8, 16, 24, 32};
    for (int f = 0; f < DB_FIELD_COUNT; f++) {
        EXPECT_EQ(s.file_offset[f], all[f]);
        EXPECT_EQ(s.folder_offset[f], all[f]);
    }
    EXPECT_EQ(s.file_data_size, 36u);
    EXPECT_EQ(s.folder_data_size, 36u);

    // Folder size without file size: the folder bit alone stores nothing anywhere.
    db_structure_set(&s, 0x20 | 0x02 | 0x10);
    EXPECT_EQ(s.folder_offset[DB_FIELD_SIZE], -1);
    EXPECT_EQ(s.file_offset[DB_FIELD_SIZE], -1);
    EXPECT_EQ(s.file_offset[DB_FIELD_DATE_CREATED], 0);
    EXPECT_EQ(s.file_offset[DB_FIELD_ATTRIBUTES], 8);
    EXPECT_EQ(s.file_data_size, 12u);
    EXPECT_EQ(s.folder_data_size, 12u);
}

TEST(Structure, ArraysExistAsTheWordSays) {
    db_holder_t h(0x2505);
    EXPECT_NE(db_array(h.db, DB_ORDER_SIZE, false), nullptr);
    EXPECT_EQ(db_array(h.db, DB_ORDER_SIZE, true), nullptr) << "no folder sizes, no folder size array";
    EXPECT_NE(db_array(h.db, DB_ORDER_DATE_MODIFIED, true), nullptr);
    EXPECT_EQ(db_array(h.db, DB_ORDER_DATE_CREATED, false), nullptr);
    EXPECT_EQ(db_array(h.db, DB_ORDER_EXTENSION, false), nullptr);
    EXPECT_EQ(db_array(h.db, DB_ORDER_PATH, true), &h.db->folders_by_path);
    db_structure_set(&h.db->structure, 0x7F3F);
    EXPECT_EQ(db_array(h.db, DB_ORDER_SIZE, true), &h.db->folders_by_size);
    EXPECT_EQ(db_array(h.db, DB_ORDER_EXTENSION, false), &h.db->files_by_extension);
    EXPECT_EQ(db_array(h.db, DB_ORDER_EXTENSION, true), nullptr);
    EXPECT_EQ(db_frn_array(h.db, DB_FS_REFS), &h.db->refs_folders);
    EXPECT_EQ(db_frn_array(h.db, DB_FS_FOLDER), nullptr);
}

// ---- record layout and sizes ---------------------------------------------------------------------------

// Bytes between two consecutive allocations of a fresh pool: what the first one really took.
static uint32_t allocated_bytes(db_holder_t &h, db_ref_t first_block_start) {
    db_ref_t next = db_record_alloc(h.db, 4);
    return (next - first_block_start) * 4;
}

TEST(Record, DefaultFileRecordTakes26BytesAllocated28) {
    db_holder_t h;
    db_fs_t *fs = db_fs_add(h.db, DB_FS_NTFS);
    db_ref_t root = h.folder(fs, 0, "C:");
    db_ref_t mark = db_record_alloc(h.db, 4);
    db_ref_t f = h.file(fs, root, "a.txt");
    EXPECT_EQ(db_file_record_size(&h.db->structure, false, 5), 4u + 1 + 5 + 16);
    EXPECT_EQ(f, mark + 1) << "an ordinary record has nothing in front of its parent field";
    EXPECT_EQ(allocated_bytes(h, f), 28u);

    const uint8_t *p = db_ptr(f);
    uint32_t parent;
    memcpy(&parent, p, 4);
    EXPECT_EQ(parent, root);
    EXPECT_EQ(p[4], 5);
    EXPECT_EQ(memcmp(p + 5, "a.txt", 5), 0);
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(p[10 + i], 0xFF) << "size and date start unknown";
    EXPECT_EQ(db_file_get(h.db, f, DB_FIELD_SIZE), DB_UNKNOWN);
}

TEST(Record, SizeRules) {
    db_structure_t s;
    db_structure_set(&s, 0x2505); // files 16 bytes of data, folders 8
    struct row_t {
        bool folder;
        uint32_t fs_type;
        bool root;
        uint32_t name_len;
        uint32_t size;
    };
    const row_t rows[] = {
        {false, DB_FS_NTFS, false, 5, 26},
        {false, DB_FS_NTFS, true, 5, 30},
        {false, DB_FS_NTFS, false, 254, 275},
        {false, DB_FS_NTFS, false, 255, 280},
        {false, DB_FS_NTFS, true, 300, 329},
        {true, DB_FS_FOLDER, false, 3, 16},
        {true, DB_FS_FILE_LIST, true, 2, 19},
        {true, DB_FS_NTFS, false, 3, 28},
        {true, DB_FS_REFS, false, 3, 36},
        {true, DB_FS_NTFS, true, 255, 5 + 255 + 8 + 12 + 8},
        {true, DB_FS_REFS, true, 2, 5 + 2 + 8 + 20 + 4},
    };
    for (const row_t &r : rows) {
        uint32_t got = r.folder ? db_folder_record_size(&s, r.fs_type, r.root, r.name_len)
                                : db_file_record_size(&s, r.root, r.name_len);
        EXPECT_EQ(got, r.size) << (r.folder ? "folder" : "file") << " type " << r.fs_type << " root "
                               << r.root << " len " << r.name_len;
    }
}

TEST(Record, LongNamesAndRootPrefixes) {
    db_holder_t h;
    db_fs_t *fs0 = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_t *fs1 = db_fs_add(h.db, DB_FS_FOLDER);
    std::string n254(254, 'x'), n255(255, 'y'), n300(300, 'z');

    db_ref_t root = h.folder(fs1, 0, n300); // a root with a long name: fs in front of long_name_len
    const uint8_t *p = db_ptr(root);
    EXPECT_EQ(p[4], 255);
    EXPECT_EQ(*(const uint32_t *) (p - 4), 300u);
    EXPECT_EQ(*(const uint32_t *) (p - 8), 1u);
    EXPECT_EQ(db_record_fs_index(root), 1u);
    EXPECT_EQ(db_record_fs(h.db, root), fs1);

    db_ref_t a = h.folder(fs1, root, n254);
    db_ref_t b = h.file(fs1, a, n255);
    EXPECT_EQ(db_ptr(a)[4], 254);
    EXPECT_EQ(db_ptr(b)[4], 255);
    EXPECT_EQ(*(const uint32_t *) (db_ptr(b) - 4), 255u);
    EXPECT_EQ(rec_name(a), n254);
    EXPECT_EQ(rec_name(b), n255);
    EXPECT_EQ(db_record_fs(h.db, b), fs1) << "found through the long-named root";
    EXPECT_EQ(db_record_depth(b), 2u);

    db_ref_t top = h.file(fs0, 0, "top.txt"); // a file directly under its source keeps fs itself
    EXPECT_EQ(db_record_fs(h.db, top), fs0);
    EXPECT_EQ(db_record_root(b), root);
}

TEST(Record, FieldsAndFolderTailsStayInTheirOwnBytes) {
    db_holder_t h(0x3F);
    db_fs_t *ntfs = db_fs_add(h.db, DB_FS_NTFS);
    db_fs_t *refs = db_fs_add(h.db, DB_FS_REFS);
    db_fs_t *list = db_fs_add(h.db, DB_FS_FILE_LIST);
    std::vector<db_ref_t> folders, files;
    for (db_fs_t *fs : {ntfs, refs, list}) {
        db_ref_t root = h.folder(fs, 0, "R");
        folders.push_back(root);
        for (int i = 0; i < 6; i++) {
            folders.push_back(h.folder(fs, root, std::string(i * 60 + 1, 'f')));
            files.push_back(h.file(fs, root, std::string(i * 60 + 1, 'g')));
        }
    }
    // Distinct values in every field of every record, then read them all back: a wrong offset or size
    // shows up as a neighbour's value.
    uint64_t v = 1;
    for (db_ref_t r : folders) {
        for (int f = 0; f < DB_FIELD_COUNT; f++)
            db_folder_set(h.db, r, (db_field_t) f, v++);
        uint8_t *frn = db_record_frn(h.db, r);
        if (frn)
            memset(frn, (int) (v & 0x7F), db_record_fs(h.db, r)->type == DB_FS_REFS ? 16 : 8);
        db_folder_set_child_count(h.db, r, (uint32_t) v++);
    }
    for (db_ref_t r : files)
        for (int f = 0; f < DB_FIELD_COUNT; f++)
            db_file_set(h.db, r, (db_field_t) f, v++);
    v = 1;
    for (db_ref_t r : folders) {
        for (int f = 0; f < DB_FIELD_COUNT; f++)
            EXPECT_EQ(db_folder_get(h.db, r, (db_field_t) f), v++);
        const db_fs_t *fs = db_record_fs(h.db, r);
        uint8_t *frn = db_record_frn(h.db, r);
        if (fs->type == DB_FS_FILE_LIST) {
            EXPECT_EQ(frn, nullptr);
            EXPECT_EQ(db_folder_child_count(h.db, r), 0u);
            v++;
        } else {
            ASSERT_NE(frn, nullptr);
            int width = fs->type == DB_FS_REFS ? 16 : 8;
            for (int i = 0; i < width; i++)
                EXPECT_EQ(frn[i], (uint8_t) (v & 0x7F));
            EXPECT_EQ(db_folder_child_count(h.db, r), (uint32_t) v++);
        }
    }
    for (db_ref_t r : files)
        for (int f = 0; f < DB_FIELD_COUNT; f++)
            EXPECT_EQ(db_file_get(h.db, r, (db_field_t) f), f == DB_FIELD_ATTRIBUTES ? (uint32_t) v++ : v++);
}

TEST(Record, AbsentFieldsReadUnknownAndIgnoreWrites) {
    db_holder_t h(0x2505);
    db_fs_t *fs = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t root = h.folder(fs, 0, "R");
    db_ref_t f = h.file(fs, root, "f");
    db_folder_set(h.db, root, DB_FIELD_SIZE, 5);
    db_file_set(h.db, f, DB_FIELD_ATTRIBUTES, 0x20);
    db_file_set(h.db, f, DB_FIELD_DATE_CREATED, 7);
    EXPECT_EQ(db_folder_get(h.db, root, DB_FIELD_SIZE), DB_UNKNOWN);
    EXPECT_EQ(db_file_get(h.db, f, DB_FIELD_ATTRIBUTES), 0u);
    EXPECT_EQ(db_file_get(h.db, f, DB_FIELD_DATE_CREATED), DB_UNKNOWN);
    EXPECT_EQ(rec_name(f), "f");
    EXPECT_EQ(db_record_parent(f), root);
}

TEST(Record, FullPaths) {
    db_holder_t h;
    db_fs_t *top = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_t *drive = db_fs_add(h.db, DB_FS_NTFS);
    db_ref_t slash = h.folder(top, 0, "");
    db_ref_t usr = h.folder(top, slash, "usr");
    db_ref_t bin = h.folder(top, usr, "bin");
    db_ref_t ls = h.file(top, bin, "ls");
    const std::string sep(1, OS_SEP);
    EXPECT_EQ(full_path(ls), sep + "usr" + sep + "bin" + sep + "ls");
    EXPECT_EQ(full_path(usr), sep + "usr");
    EXPECT_EQ(full_path(slash), sep) << "the top of the tree alone";

    db_ref_t c = h.folder(drive, 0, "C:");
    std::string deep_name(400, 'd');
    db_ref_t d = c;
    std::string expect = "C:";
    for (int i = 0; i < 300; i++) { // longer than any inline string buffer
        d = h.folder(drive, d, i % 7 ? "x" : deep_name);
        expect += sep + (i % 7 ? "x" : deep_name);
    }
    EXPECT_EQ(full_path(d), expect);
    EXPECT_EQ(full_path(c), "C:");
}

TEST(Record, DeleteGivesTheExactSizeBack) {
    db_holder_t h;
    db_fs_t *ntfs = db_fs_add(h.db, DB_FS_NTFS);
    db_ref_t root = h.folder(ntfs, 0, std::string(260, 'r'));
    db_ref_t a = h.folder(ntfs, root, "abc");
    db_ref_t b = h.file(ntfs, root, std::string(255, 'n'));
    db_ref_t root_block = root - 2, a_block = a, b_block = b - 1; // references of the allocations' starts
    db_folder_delete(h.db, a);
    db_file_delete(h.db, b);
    // The same sizes come back from the same places: the pool filed each under its exact size.
    EXPECT_EQ(db_record_alloc(h.db, db_folder_record_size(&h.db->structure, DB_FS_NTFS, false, 3)), a_block);
    EXPECT_EQ(db_record_alloc(h.db, db_file_record_size(&h.db->structure, false, 255)), b_block);
    db_folder_delete(h.db, root);
    EXPECT_EQ(db_record_alloc(h.db, db_folder_record_size(&h.db->structure, DB_FS_NTFS, true, 260)),
              root_block);
}

// ---- the pool ------------------------------------------------------------------------------------------

struct pool_holder_t {
    db_pool_t pool;
    pool_holder_t() { db_pool_init(&pool); }
    ~pool_holder_t() { db_pool_kill(&pool); }
};

TEST(Pool, FreeListsReuseExactSizeClasses) {
    pool_holder_t h;
    db_ref_t a12 = db_pool_alloc(&h.pool, 12);
    db_ref_t a16 = db_pool_alloc(&h.pool, 16);
    db_ref_t a13 = db_pool_alloc(&h.pool, 13);
    EXPECT_EQ(a16, a12 + 3);
    EXPECT_EQ(a13, a16 + 4);
    db_pool_free(&h.pool, a12, 12);
    db_pool_free(&h.pool, a16, 16);
    EXPECT_EQ(db_pool_alloc(&h.pool, 16), a16) << "16 takes the freed 16, not the freed 12";
    EXPECT_EQ(db_pool_alloc(&h.pool, 9), a12) << "9 rounds to 12";
    db_pool_free(&h.pool, a13, 13);
    EXPECT_EQ(db_pool_alloc(&h.pool, 15), a13) << "13 and 15 share the class of 16";
    db_ref_t fresh = db_pool_alloc(&h.pool, 12);
    EXPECT_NE(fresh, a12);
    EXPECT_NE(fresh, a16);
}

TEST(Pool, BlockRestGoesToTheFreeListOfItsSize) {
    pool_holder_t h;
    // A block serves 65,532 bytes behind its link word; leave 40 of them.
    uint32_t used = 0;
    db_ref_t first = db_pool_alloc(&h.pool, 252);
    used += 252;
    while (used + 252 <= 65532 - 40)
        db_pool_alloc(&h.pool, 252), used += 252;
    uint32_t rest = 65532 - used;
    db_ref_t small = db_pool_alloc(&h.pool, rest - 40);
    ASSERT_EQ(h.pool.block_count, 1u);
    db_ref_t big = db_pool_alloc(&h.pool, 100);
    EXPECT_EQ(h.pool.block_count, 2u) << "100 bytes don't fit in the 40 left";
    db_ref_t reused = db_pool_alloc(&h.pool, 40);
    EXPECT_EQ(reused, small + (rest - 40) / 4) << "the 40-byte rest was filed, not lost";
    EXPECT_EQ(h.pool.block_count, 2u);
    (void) first;
    (void) big;
}

TEST(Pool, LargeRecordsAreListedAndReused) {
    pool_holder_t h;
    db_ref_t r[5];
    for (int i = 0; i < 5; i++)
        r[i] = db_pool_alloc(&h.pool, 256 + i * 100);
    EXPECT_EQ(h.pool.large_count, 5u);
    auto walk = [&](std::vector<db_ref_t> *fwd, std::vector<db_ref_t> *back) {
        for (db_ref_t x = h.pool.large_first; x; x = ((uint32_t *) db_ptr(x))[1])
            fwd->push_back(x + 2);
        for (db_ref_t x = h.pool.large_last; x; x = ((uint32_t *) db_ptr(x))[0])
            back->push_back(x + 2);
    };
    db_pool_free(&h.pool, r[2], 456);
    db_pool_free(&h.pool, r[0], 256);
    db_pool_free(&h.pool, r[4], 656);
    std::vector<db_ref_t> fwd, back;
    walk(&fwd, &back);
    EXPECT_EQ(fwd, (std::vector<db_ref_t>{r[1], r[3]}));
    EXPECT_EQ(back, (std::vector<db_ref_t>{r[3], r[1]}));
    EXPECT_EQ(h.pool.large_count, 2u);
    EXPECT_EQ(db_pool_alloc(&h.pool, 450), r[2]) << "same 64-byte class as 456";
    EXPECT_EQ(db_pool_alloc(&h.pool, 300), r[0]) << "300 + header rounds like 256 + header";
    db_ref_t huge = db_pool_alloc(&h.pool, DB_POOL_LARGE_MAX);
    memset(db_ptr(huge), 0x5A, DB_POOL_LARGE_MAX);
    fwd.clear();
    back.clear();
    walk(&fwd, &back);
    EXPECT_EQ(fwd.size(), 5u);
    EXPECT_EQ(fwd.back(), huge);
}

TEST(Pool, EverythingComesFromTheArenaAndGoesBack) {
    size_t before = mem_arena_blocks_in_use();
    {
        pool_holder_t h;
        std::mt19937 rng(7);
        std::vector<std::pair<db_ref_t, uint32_t>> live;
        std::map<db_ref_t, uint32_t> owner;
        for (int i = 0; i < 20000; i++) {
            if (!live.empty() && rng() % 3 == 0) {
                size_t k = rng() % live.size();
                auto [ref, size] = live[k];
                // The record still holds its own stamp: nothing else was handed its bytes.
                for (uint32_t j = 0; j < size; j++)
                    ASSERT_EQ(db_ptr(ref)[j], (uint8_t) ref) << "record " << ref << " byte " << j;
                db_pool_free(&h.pool, ref, size);
                live[k] = live.back();
                live.pop_back();
                continue;
            }
            uint32_t size = rng() % 8 == 0 ? 256 + rng() % 2000 : 1 + rng() % 255;
            db_ref_t ref = db_pool_alloc(&h.pool, size);
            ASSERT_NE(ref, 0u);
            ASSERT_EQ(((uintptr_t) db_ptr(ref)) % 4, 0u);
            memset(db_ptr(ref), (uint8_t) ref, size);
            live.push_back({ref, size});
        }
        // Every reference lies inside a block of the pool's chain, and the chain's blocks are the arena's.
        std::vector<db_ref_t> blocks;
        for (db_ref_t b = h.pool.block_first; b; b = *(uint32_t *) db_ptr(b))
            blocks.push_back(b);
        EXPECT_EQ(blocks.size(), h.pool.block_count);
        EXPECT_EQ(mem_arena_blocks_in_use(), before + blocks.size());
        for (auto [ref, size] : live) {
            bool inside = false;
            for (db_ref_t b : blocks)
                inside |= ref > b && (uint64_t) (ref - b) * 4 + size <= MEM_ARENA_BLOCK;
            ASSERT_TRUE(inside) << ref;
        }
    }
    EXPECT_EQ(mem_arena_blocks_in_use(), before) << "the pool goes whole";
}
