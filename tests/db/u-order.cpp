// The orders of the index: each comparator against an oracle built from flat path strings and the text
// layer's comparisons, the strict total order property over random trees, and the rules that are easy to
// get subtly wrong (flat string against tree, unknown values, deep chains).
#include "db_fixture.h"

// A random forest over three sources with tricky names, never two records with the same name under the
// same parent (that would be the same path, which the index never holds twice).
struct forest_t {
    db_holder_t h;
    std::vector<db_ref_t> folders, files;
    db_fs_t *fs[3];

    explicit forest_t(uint32_t word, uint32_t seed, int n_folders, int n_files) : h(word) {
        std::mt19937 rng(seed);
        fs[0] = db_fs_add(h.db, DB_FS_NTFS);
        fs[1] = db_fs_add(h.db, DB_FS_FOLDER);
        fs[2] = db_fs_add(h.db, DB_FS_REFS);
        std::set<std::pair<db_ref_t, std::string>> used;
        // Two sources share a root name, so whole paths repeat across sources.
        const char *roots[3] = {"C:", "", "C:"};
        for (int i = 0; i < 3; i++)
            folders.push_back(h.folder(fs[i], 0, roots[i]));
        while ((int) folders.size() < n_folders) {
            db_ref_t parent = folders[rng() % folders.size()];
            std::string name = random_name(rng);
            if (!used.insert({parent, name}).second)
                continue;
            folders.push_back(h.folder(db_record_fs(h.db, parent), parent, name));
        }
        used.clear();
        while ((int) files.size() < n_files) {
            db_ref_t parent = folders[rng() % folders.size()];
            std::string name = random_name(rng);
            if (!used.insert({parent, name}).second)
                continue;
            db_ref_t f = h.file(db_record_fs(h.db, parent), parent, name);
            db_file_set(h.db, f, DB_FIELD_SIZE, rng() % 4 == 0 ? DB_UNKNOWN : rng() % 5);
            db_file_set(h.db, f, DB_FIELD_DATE_MODIFIED, rng() % 3 == 0 ? DB_UNKNOWN : rng() % 3);
            db_file_set(h.db, f, DB_FIELD_ATTRIBUTES, rng() & 0x7FF7);
            files.push_back(f);
        }
        // FRNs unique within a source and repeating across sources; ReFS values differ in both halves.
        uint64_t next_frn[3] = {0, 0, 0};
        for (db_ref_t f : folders) {
            uint8_t *frn = db_record_frn(h.db, f);
            uint32_t src = db_record_fs_index(f);
            if (!frn)
                continue;
            uint64_t n = next_frn[src]++;
            uint64_t lo = n * 0x9E3779B97F4A7C15ull, hi = n % 7;
            memcpy(frn, &lo, 8);
            if (db_record_fs(h.db, f)->type == DB_FS_REFS)
                memcpy(frn + 8, &hi, 8);
        }
    }
};

typedef int (*text_cmp_t)(const char *, size_t, const char *, size_t);

static int bytes_cmp(const char *a, size_t al, const char *b, size_t bl) {
    int c = memcmp(a, b, std::min(al, bl));
    return c ? c : (int) al - (int) bl;
}

// A parent level of the oracle: no parent first, then the flat strings under the folding.
static int parent_level(db_ref_t pa, db_ref_t pb, text_cmp_t cmp) {
    if (pa == pb)
        return 0;
    if (!pa || !pb)
        return pa ? 1 : -1;
    std::string a = flat_path(pa), b = flat_path(pb);
    return sgn(cmp(a.data(), a.size(), b.data(), b.size()));
}

// The seven levels of name order (path_first false) or path order (true), written from the description
// with whole strings.
static int oracle(db_ref_t a, db_ref_t b, bool path_first) {
    std::string na = rec_name(a), nb = rec_name(b);
    db_ref_t pa = db_record_parent(a), pb = db_record_parent(b);
    auto name_level = [&](text_cmp_t cmp) { return sgn(cmp(na.data(), na.size(), nb.data(), nb.size())); };
    const text_cmp_t folds[3] = {utf8_compare_lower_base, utf8_compare_lower, bytes_cmp};
    for (text_cmp_t f : folds) {
        int first = path_first ? parent_level(pa, pb, f) : name_level(f);
        if (first)
            return first;
        int second = path_first ? name_level(f) : parent_level(pa, pb, f);
        if (second)
            return second;
    }
    uint32_t fa = db_record_fs_index(a), fb = db_record_fs_index(b);
    return (fa > fb) - (fa < fb);
}

TEST(Order, NameAndPathOrdersAgreeWithTheOracle) {
    forest_t f(DB_STRUCTURE_DEFAULT, 1, 400, 1500);
    std::mt19937 rng(2);
    for (const auto *set : {&f.folders, &f.files}) {
        for (int i = 0; i < 20000; i++) {
            db_ref_t a = (*set)[rng() % set->size()], b = (*set)[rng() % set->size()];
            // Pairs with equal names are where the parent levels decide: draw them often.
            if (i % 2) {
                for (int k = 0; k < 50 && rec_name(a) != rec_name(b); k++)
                    b = (*set)[rng() % set->size()];
            }
            ASSERT_EQ(sgn(db_name_compare(a, b)), oracle(a, b, false))
                << flat_path(a) << " | " << flat_path(b);
            ASSERT_EQ(sgn(db_path_name_compare(a, b)), oracle(a, b, true))
                << flat_path(a) << " | " << flat_path(b);
        }
    }
}

TEST(Order, PathComparesAreTheFlatStringsUnderEachFolding) {
    forest_t f(DB_STRUCTURE_DEFAULT, 3, 600, 0);
    std::mt19937 rng(4);
    for (int i = 0; i < 20000; i++) {
        db_ref_t a = f.folders[rng() % f.folders.size()], b = f.folders[rng() % f.folders.size()];
        std::string pa = flat_path(a), pb = flat_path(b);
        EXPECT_EQ(sgn(db_path_compare_lower_base(a, b)),
                  sgn(utf8_compare_lower_base(pa.data(), pa.size(), pb.data(), pb.size())))
            << pa << " | " << pb;
        EXPECT_EQ(sgn(db_path_compare_lower(a, b)),
                  sgn(utf8_compare_lower(pa.data(), pa.size(), pb.data(), pb.size())))
            << pa << " | " << pb;
        EXPECT_EQ(sgn(db_path_compare_bytes(a, b)),
                  sgn(bytes_cmp(pa.data(), pa.size(), pb.data(), pb.size())))
            << pa << " | " << pb;
    }
}

TEST(Order, EveryComparatorIsAStrictTotalOrder) {
    forest_t f(0x7F3F, 5, 300, 1200);
    std::mt19937 rng(6);
    db_t *db = f.h.db;
    expect_strict_total_order(f.files, db_name_compare, rng, "name, files");
    expect_strict_total_order(f.folders, db_name_compare, rng, "name, folders");
    expect_strict_total_order(f.files, db_path_name_compare, rng, "path, files");
    expect_strict_total_order(f.folders, db_path_name_compare, rng, "path, folders");
    expect_strict_total_order(f.files, db_extension_compare, rng, "extension");
    for (int field = 0; field < DB_FIELD_COUNT; field++) {
        auto cmp = [&](db_ref_t a, db_ref_t b) {
            return db_value_compare(db, false, (db_field_t) field, a, b);
        };
        expect_strict_total_order(f.files, cmp, rng, "value");
    }
    std::vector<db_ref_t> ntfs, refs;
    for (db_ref_t r : f.folders) {
        uint32_t type = db_record_fs(db, r)->type;
        if (type == DB_FS_NTFS)
            ntfs.push_back(r);
        else if (type == DB_FS_REFS)
            refs.push_back(r);
    }
    auto frn = [&](db_ref_t a, db_ref_t b) { return db_frn_compare(db, a, b); };
    expect_strict_total_order(ntfs, frn, rng, "frn, NTFS");
    expect_strict_total_order(refs, frn, rng, "frn, ReFS");
    // Descending forms are the ascending ones with the arguments swapped, over every order.
    for (int o = 0; o < DB_ORDER_COUNT; o++) {
        bool folder = o == DB_ORDER_FRN; // FRNs exist only on folders
        const std::vector<db_ref_t> &set = folder ? ntfs : f.files;
        for (int i = 0; i < 500; i++) {
            db_ref_t a = set[rng() % set.size()], b = set[rng() % set.size()];
            ASSERT_EQ(db_compare_desc(db, (db_order_t) o, folder, a, b),
                      db_compare(db, (db_order_t) o, folder, b, a));
        }
    }
}

TEST(Order, TieBreakChainKeepsCaseAndDiacriticsApart) {
    db_holder_t h;
    db_fs_t *fs = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t root = h.folder(fs, 0, "R");
    std::vector<std::string> names = {"r\xC3\xA9sum\xC3\xA9", "resume", "Resume", "RESUME",
                                      "R\xC3\xA9sum\xC3\xA9", "README", "readme", "resumes"};
    std::vector<db_ref_t> recs;
    for (const auto &n : names)
        recs.push_back(h.file(fs, root, n));
    std::sort(recs.begin(), recs.end(), [](db_ref_t a, db_ref_t b) { return db_name_compare(a, b) < 0; });
    std::vector<std::string> got;
    for (db_ref_t r : recs)
        got.push_back(rec_name(r));
    // Case and diacritics blind first (readme < resume* < resumes), then diacritics count (e before é),
    // then bytes (upper case first).
    std::vector<std::string> want = {
        "README", "readme", "RESUME", "Resume", "resume", "R\xC3\xA9sum\xC3\xA9", "r\xC3\xA9sum\xC3\xA9",
        "resumes"};
    EXPECT_EQ(got, want);
}

TEST(Order, SameNameDecidedByParentsThenSource) {
    db_holder_t h;
    db_fs_t *fs0 = db_fs_add(h.db, DB_FS_FOLDER);
    db_fs_t *fs1 = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t r0 = h.folder(fs0, 0, "R"), r1 = h.folder(fs1, 0, "R");
    db_ref_t up = h.folder(fs0, r0, "Docs"), low = h.folder(fs0, r0, "docs");
    db_ref_t a = h.file(fs0, up, "x"), b = h.file(fs0, low, "x");
    EXPECT_LT(db_name_compare(a, b), 0) << "parents differ only in case: upper case first";
    db_ref_t c = h.file(fs0, r0, "x"), d = h.file(fs1, r1, "x");
    EXPECT_LT(db_name_compare(c, d), 0) << "same path in two sources: source 0 first";
    EXPECT_GT(db_name_compare(d, c), 0);
    EXPECT_LT(db_name_compare(c, a), 0) << "a shorter parent path is a prefix and sorts first";
    db_ref_t top = h.file(fs1, 0, "x");
    EXPECT_LT(db_name_compare(top, c), 0) << "no parent sorts before any parent";
}

TEST(Order, PathOrderIsTheFlatStringNotTheTree) {
    db_holder_t h;
    db_fs_t *fs = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t root = h.folder(fs, 0, "R");
    db_ref_t a = h.folder(fs, root, "a"), a_b = h.folder(fs, root, "a b");
    db_ref_t a_c = h.folder(fs, a, "c");
    // "R<sep>a b" against "R<sep>a<sep>c": ' ' sorts before either separator, so "a b" comes first,
    // though a tree walk would finish "a" first.
    EXPECT_LT(db_path_compare_bytes(a_b, a_c), 0);
    EXPECT_LT(db_path_compare_lower_base(a_b, a_c), 0);
    db_ref_t x1 = h.file(fs, a_b, "x"), x2 = h.file(fs, a_c, "x");
    EXPECT_LT(db_path_name_compare(x1, x2), 0);
    // A chain that is the other's prefix sorts first; no parent sorts before every chain.
    EXPECT_LT(db_path_compare_lower_base(a, a_c), 0);
    EXPECT_GT(db_path_compare_lower_base(a_c, a), 0);
    EXPECT_EQ(db_path_compare_bytes(0, a_c), -3) << "minus the other chain's component count";
    EXPECT_EQ(db_path_compare_bytes(a_c, 0), 1);
    EXPECT_EQ(db_path_compare_bytes(a_c, a_c), 0);
    // The path order of folders puts a folder before its contents.
    EXPECT_LT(db_path_name_compare(a, a_c), 0);
    EXPECT_LT(db_path_name_compare(root, a), 0);
}

TEST(Order, DeepChainsGoThroughTheHeap) {
    db_holder_t h;
    db_fs_t *fs0 = db_fs_add(h.db, DB_FS_FOLDER), *fs1 = db_fs_add(h.db, DB_FS_FOLDER);
    // Two chains of 300 levels under different roots with the same names, differing only at the
    // bottom; and a third that shares 280 levels with the first and then branches.
    db_ref_t a = h.folder(fs0, 0, "R"), b = h.folder(fs1, 0, "R");
    std::vector<db_ref_t> chain_a;
    for (int i = 0; i < 299; i++) {
        std::string n(1, (char) ('A' + i % 10));
        a = h.folder(fs0, a, n);
        b = h.folder(fs1, b, n);
        chain_a.push_back(a);
    }
    db_ref_t a_end = h.folder(fs0, a, "m"), b_end = h.folder(fs1, b, "M");
    db_ref_t c = chain_a[279];
    for (int i = 0; i < 40; i++)
        c = h.folder(fs0, c, "K");
    EXPECT_EQ(db_record_depth(a_end), 300u);
    EXPECT_EQ(db_path_compare_lower_base(a_end, b_end), 0);
    EXPECT_EQ(db_path_compare_lower(a_end, b_end), 0);
    EXPECT_GT(db_path_compare_bytes(a_end, b_end), 0) << "'m' after 'M'";
    std::string pc = flat_path(c), pa = flat_path(a_end);
    EXPECT_EQ(sgn(db_path_compare_lower_base(c, a_end)),
              sgn(utf8_compare_lower_base(pc.data(), pc.size(), pa.data(), pa.size())));
    db_ref_t fa = h.file(fs0, a_end, "f"), fb = h.file(fs1, b_end, "f");
    EXPECT_GT(db_name_compare(fa, fb), 0);
    EXPECT_LT(db_name_compare(fb, fa), 0);
    EXPECT_EQ(db_path_compare_bytes(0, a_end), -301);
}

TEST(Order, UnknownValuesSortLowestAndTiesGoToNames) {
    db_holder_t h(0x3F);
    db_fs_t *fs = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t root = h.folder(fs, 0, "R");
    struct row_t {
        const char *name;
        uint64_t size;
    };
    const row_t rows[] = {{"e", 5},          {"d", DB_UNKNOWN}, {"c", 0}, {"b", DB_UNKNOWN - 1},
                          {"a", DB_UNKNOWN}, {"f", 5}};
    std::vector<db_ref_t> recs;
    for (const row_t &r : rows) {
        db_ref_t f = h.file(fs, root, r.name);
        db_file_set(h.db, f, DB_FIELD_SIZE, r.size);
        db_file_set(h.db, f, DB_FIELD_DATE_CREATED, r.size);
        recs.push_back(f);
    }
    for (db_field_t field : {DB_FIELD_SIZE, DB_FIELD_DATE_CREATED}) {
        std::vector<db_ref_t> s = recs;
        std::sort(s.begin(), s.end(),
                  [&](db_ref_t a, db_ref_t b) { return db_value_compare(h.db, false, field, a, b) < 0; });
        std::string order;
        for (db_ref_t r : s)
            order += rec_name(r);
        EXPECT_EQ(order, "adcefb");
    }
    // A folder order reads the folder offsets: here folder sizes exist too.
    db_ref_t f1 = h.folder(fs, root, "f1"), f2 = h.folder(fs, root, "f2");
    db_folder_set(h.db, f1, DB_FIELD_SIZE, 9);
    db_folder_set(h.db, f2, DB_FIELD_SIZE, 1);
    EXPECT_GT(db_value_compare(h.db, true, DB_FIELD_SIZE, f1, f2), 0);
}

TEST(Order, AttributeLettersAndExtensions) {
    char buf[16];
    int n = db_attribute_letters(0xFFFFFFFF, buf);
    EXPECT_EQ(std::string(buf, n), "RHSDAVNTPLCOIE");
    n = db_attribute_letters(0x20 | 0x01, buf);
    EXPECT_EQ(std::string(buf, n), "RA");
    EXPECT_EQ(db_attribute_letters(0x08, buf), 0) << "the volume label bit has no letter";

    db_holder_t h(0x7F3F);
    db_fs_t *fs = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t root = h.folder(fs, 0, "R");
    auto file = [&](const char *name, uint32_t attr) {
        db_ref_t f = h.file(fs, root, name);
        db_file_set(h.db, f, DB_FIELD_ATTRIBUTES, attr);
        return f;
    };
    db_ref_t r = file("r", 0x01), ra = file("ra", 0x21), hh = file("h", 0x02), none = file("z", 0);
    auto attr = [&](db_ref_t a, db_ref_t b) {
        return db_value_compare(h.db, false, DB_FIELD_ATTRIBUTES, a, b);
    };
    EXPECT_LT(attr(none, hh), 0) << "no letters first";
    EXPECT_LT(attr(hh, r), 0) << "\"H\" before \"R\" bytewise, although 0x02 > 0x01";
    EXPECT_LT(attr(r, ra), 0) << "\"R\" is a prefix of \"RA\"";

    auto ext = [](const char *name) {
        uint32_t len;
        const char *e = db_name_extension(name, (uint32_t) strlen(name), &len);
        return std::string(e, len);
    };
    EXPECT_EQ(ext(".bashrc"), "bashrc") << "a name that begins with its only dot";
    EXPECT_EQ(ext("x.tar.gz"), "gz");
    EXPECT_EQ(ext("noext"), "");
    EXPECT_EQ(ext("trailing."), "");
    db_ref_t noext = file("b", 0), txt_b = file("b.TXT", 0), txt_a = file("a.txt", 0), gz = file("a.gz", 0);
    db_ref_t accent = file("c.t\xE1\xBA\x8Bt", 0); // x with a dot above
    EXPECT_LT(db_extension_compare(noext, gz), 0) << "empty extension first";
    EXPECT_LT(db_extension_compare(gz, txt_a), 0);
    EXPECT_LT(db_extension_compare(txt_a, txt_b), 0) << "same extension without case: name decides";
    EXPECT_LT(db_extension_compare(txt_b, accent), 0) << "same extension without diacritics: name decides";
}

TEST(Order, FrnOrderAcrossSources) {
    db_holder_t h;
    db_fs_t *n0 = db_fs_add(h.db, DB_FS_NTFS), *n1 = db_fs_add(h.db, DB_FS_NTFS),
            *rf = db_fs_add(h.db, DB_FS_REFS);
    auto set_frn = [&](db_ref_t f, uint64_t lo, uint64_t hi) {
        uint8_t *p = db_record_frn(h.db, f);
        memcpy(p, &lo, 8);
        if (db_record_fs(h.db, f)->type == DB_FS_REFS)
            memcpy(p + 8, &hi, 8);
    };
    db_ref_t a = h.folder(n0, 0, "C:"), b = h.folder(n1, 0, "D:");
    set_frn(a, 0x0005000000000005ull, 0);
    set_frn(b, 0x0005000000000005ull, 0);
    EXPECT_LT(db_frn_compare(h.db, a, b), 0) << "the same FRN in two sources: the source index decides";
    db_ref_t c = h.folder(n1, b, "x");
    set_frn(c, 0x8000000000000000ull, 0);
    EXPECT_GT(db_frn_compare(h.db, c, a), 0) << "unsigned";
    db_ref_t r1 = h.folder(rf, 0, "E:"), r2 = h.folder(rf, r1, "y");
    set_frn(r1, 0xFFFFFFFFFFFFFFFFull, 1);
    set_frn(r2, 0, 2);
    EXPECT_LT(db_frn_compare(h.db, r1, r2), 0) << "ReFS compares the high half first";
}

TEST(Order, KeyCompareFindsInSortedArrays) {
    forest_t f(0x7F3F, 9, 200, 3000);
    db_t *db = f.h.db;
    for (int o : {DB_ORDER_NAME, DB_ORDER_PATH, DB_ORDER_SIZE, DB_ORDER_EXTENSION, DB_ORDER_ATTRIBUTES}) {
        for (bool desc : {false, true}) {
            std::vector<db_ref_t> s = f.files;
            std::sort(s.begin(), s.end(), [&](db_ref_t a, db_ref_t b) {
                return (desc ? db_compare_desc(db, (db_order_t) o, false, a, b)
                             : db_compare(db, (db_order_t) o, false, a, b)) < 0;
            });
            mem_array_t arr;
            mem_array_init(&arr);
            mem_array_from_flat(&arr, s.data(), (uint32_t) s.size());
            for (size_t i = 0; i < s.size(); i += 7) {
                db_key_t key = {db, s[i], (uint8_t) o, false, desc};
                ASSERT_EQ(mem_array_find(&arr, db_key_compare, &key), s[i])
                    << "order " << o << " desc " << desc;
            }
            mem_array_kill(&arr);
        }
    }
}

TEST(Order, EachLevelDecidesInItsTurn) {
    db_holder_t h;
    db_fs_t *fs0 = db_fs_add(h.db, DB_FS_FOLDER), *fs1 = db_fs_add(h.db, DB_FS_FOLDER);
    db_ref_t r0 = h.folder(fs0, 0, "R"), r1 = h.folder(fs1, 0, "R");
    auto in = [&](db_fs_t *fs, db_ref_t root, const char *folder, const char *name) {
        return h.file(fs, h.folder(fs, root, folder), name);
    };
    struct row_t {
        const char *folder_a, *name_a, *folder_b, *name_b;
        int name_order, path_order; // expected signs
    };
    const row_t rows[] = {
        // Names without case and diacritics first in name order, parents first in path order.
        {"z", "a", "a", "b", -1, 1},
        // Equal without both; with diacritics the name decides in name order, the parent in path order.
        {"a", "\xC3\xA9", "\xC3\xA1", "e", 1, -1},
        // Equal without case; bytes: the name decides in name order, the parent in path order.
        {"A", "b", "a", "B", 1, -1},
        // Same parent text, names differ only in case: upper case first in both.
        {"q", "X", "q", "x", -1, -1},
    };
    for (const row_t &r : rows) {
        db_ref_t a = in(fs0, r0, r.folder_a, r.name_a), b = in(fs0, r0, r.folder_b, r.name_b);
        EXPECT_EQ(sgn(db_name_compare(a, b)), r.name_order) << r.folder_a << "/" << r.name_a;
        EXPECT_EQ(sgn(db_path_name_compare(a, b)), r.path_order) << r.folder_a << "/" << r.name_a;
        EXPECT_EQ(sgn(db_name_compare(b, a)), -r.name_order);
    }
    // The same path in two sources: only the source index tells them apart, in both orders.
    db_ref_t a = in(fs1, r1, "same", "f"), b = in(fs0, r0, "same", "f");
    EXPECT_GT(db_name_compare(a, b), 0);
    EXPECT_GT(db_path_name_compare(a, b), 0);
}
