// The fast sorts of the merge against a plain stable sort with the index's own comparators, over trees
// made to defeat their shortcuts: names equal under folding (case, accents), names that are prefixes of
// each other, long shared prefixes beyond the eight-character key, invalid bytes, folders whose paths
// fold alike, deep chains, exact duplicates, and values that are all unknown or mostly equal.
#include "../db/db_fixture.h"
#include "build_fixture.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"

#include <functional>
#include <regex>
#include <sstream>

namespace {

struct tree_t {
    db_holder_t h;
    std::vector<db_ref_t> folders, files;

    tree_t(uint32_t seed, int n_folders, int n_files, bool known_values) {
        std::mt19937 rng(seed);
        db_fs_t *fs[2] = {db_fs_add(h.db, DB_FS_FOLDER), db_fs_add(h.db, DB_FS_FILE_LIST)};
        folders.push_back(h.folder(fs[0], 0, ""));
        folders.push_back(h.folder(fs[1], 0, ""));
        // A chain deeper than any frame-sized buffer of the comparators.
        db_ref_t deep = folders[0];
        for (int i = 0; i < 300; i++) {
            deep = h.folder(fs[0], deep, i % 2 ? "Deep" : "deep");
            folders.push_back(deep);
        }
        // Two folders whose paths fold alike, holding names that fold alike: the orders must then look
        // past the folded parent to the parents' case, in the order each comparator says.
        db_ref_t pair[2] = {h.folder(fs[0], folders[0], "Case"), h.folder(fs[0], folders[0], "case")};
        for (db_ref_t f : pair) {
            folders.push_back(f);
            for (const char *n : {"f", "F", "\xC3\xA9", "\xC3\x89", "e", "g"})
                files.push_back(h.file(fs[0], f, n));
            folders.push_back(h.folder(fs[0], f, "sub"));
            folders.push_back(h.folder(fs[0], f, "SUB"));
        }
        while ((int) folders.size() < n_folders) {
            db_ref_t parent = folders[rng() % folders.size()];
            folders.push_back(h.folder(db_record_fs(h.db, parent), parent, name(rng)));
        }
        while ((int) files.size() < n_files) {
            db_ref_t parent = folders[rng() % folders.size()];
            db_ref_t f = h.file(db_record_fs(h.db, parent), parent, name(rng));
            if (known_values) {
                db_file_set(h.db, f, DB_FIELD_SIZE, rng() % 4 == 0 ? DB_UNKNOWN : rng() % 5);
                db_file_set(h.db, f, DB_FIELD_DATE_MODIFIED, rng() % 3 == 0 ? DB_UNKNOWN : rng() % 3);
            }
            files.push_back(f);
        }
        // Exact duplicates (same parent, same name): only the order they came in tells them apart.
        for (int i = 0; i < 20 && !files.empty(); i++) {
            db_ref_t f = files[rng() % files.size()];
            uint32_t len;
            const char *n = db_record_name(f, &len);
            db_ref_t parent = db_record_parent(f);
            files.push_back(h.file(db_record_fs(h.db, parent), parent, std::string(n, len)));
        }
        std::shuffle(files.begin(), files.end(), rng);
        std::shuffle(folders.begin(), folders.end(), rng);
    }

    // Short tricky names, and the same names behind a long common prefix so that the keys tie.
    static std::string name(std::mt19937 &rng) {
        const std::vector<std::string> &t = tricky_names();
        std::string n = t[rng() % t.size()];
        switch (rng() % 4) {
        case 0:
            return "libexample-common" + n;
        case 1:
            return n + t[rng() % t.size()];
        default:
            return n;
        }
    }
};

// The build's name order: the index's name order, then the parent reference, stable.
bool name_less(db_ref_t a, db_ref_t b) {
    int c = db_name_compare(a, b);
    if (c)
        return c < 0;
    return db_record_parent(a) < db_record_parent(b);
}

std::vector<db_ref_t> plain_sort(std::vector<db_ref_t> v, const std::function<int(db_ref_t, db_ref_t)> &cmp) {
    std::stable_sort(v.begin(), v.end(), [&](db_ref_t a, db_ref_t b) { return cmp(a, b) < 0; });
    return v;
}

std::vector<db_ref_t> by_name(std::vector<db_ref_t> v) {
    std::stable_sort(v.begin(), v.end(), name_less);
    return v;
}

struct ranks_t {
    db_build_ranks_t r;
    explicit ranks_t(const std::vector<db_ref_t> &folders) {
        db_build_ranks_init(&r, folders.data(), (uint32_t) folders.size(), nullptr, nullptr, 0);
    }
    ~ranks_t() { db_build_ranks_kill(&r); }
};

} // namespace

TEST(BuildSort, RanksFollowTheFoldedPathOrder) {
    tree_t t(1, 400, 0, false);
    ranks_t ranks(t.folders);
    EXPECT_EQ(db_build_rank(&ranks.r, 0), 0u);
    uint32_t members = 0;
    for (uint32_t r = 1; r <= ranks.r.rank_count; r++)
        members += ranks.r.class_size[r];
    EXPECT_EQ(members, t.folders.size());
    // Some folders fold alike ("deep" and "Deep" chains, "a" and "A"), so classes of several exist.
    EXPECT_LT(ranks.r.rank_count, t.folders.size());
    for (size_t i = 0; i < t.folders.size(); i += 7) {
        for (size_t j = 0; j < t.folders.size(); j += 5) {
            db_ref_t a = t.folders[i], b = t.folders[j];
            int want = sgn(db_path_compare_lower_base(a, b));
            int got = sgn((int) db_build_rank(&ranks.r, a) - (int) db_build_rank(&ranks.r, b));
            ASSERT_EQ(got, want) << flat_path(a) << " / " << flat_path(b);
        }
    }
    db_ref_t stranger = t.h.folder(db_record_fs(t.h.db, t.folders[0]), 0, "x");
    EXPECT_EQ(db_build_rank(&ranks.r, stranger), UINT32_MAX);
}

TEST(BuildSort, NameSortEqualsTheComparatorSort) {
    for (uint32_t seed : {2u, 3u, 4u}) {
        tree_t t(seed, 300, 3000, false);
        ranks_t ranks(t.folders);
        for (const std::vector<db_ref_t> *input : {&t.folders, &t.files}) {
            std::vector<db_ref_t> want = by_name(*input);
            std::vector<db_ref_t> ranked = *input, unranked = *input;
            db_build_sort_names(ranked.data(), (uint32_t) ranked.size(), &ranks.r);
            db_build_sort_names(unranked.data(), (uint32_t) unranked.size(), nullptr);
            EXPECT_EQ(ranked, want) << "seed " << seed;
            EXPECT_EQ(unranked, want) << "seed " << seed;
        }
    }
}

TEST(BuildSort, NameSortOnTwoThreadsEqualsOneThread) {
    // Enough records for the two-thread split, with many names that tie on the key.
    tree_t t(5, 2000, 70000, false);
    ranks_t ranks(t.folders);
    std::vector<db_ref_t> want = by_name(t.files);
    int32_t saved = max_threads;
    for (int32_t threads : {1, 2}) {
        max_threads = threads;
        std::vector<db_ref_t> got = t.files;
        db_build_sort_names(got.data(), (uint32_t) got.size(), &ranks.r);
        EXPECT_EQ(got, want) << threads << " threads";
    }
    max_threads = saved;
}

TEST(BuildSort, PathOrderEqualsTheComparatorSort) {
    for (uint32_t seed : {6u, 7u}) {
        tree_t t(seed, 300, 3000, false);
        ranks_t ranks(t.folders);
        for (const std::vector<db_ref_t> *input : {&t.folders, &t.files}) {
            std::vector<db_ref_t> names = by_name(*input);
            std::vector<db_ref_t> want = plain_sort(names, db_path_name_compare);
            std::vector<db_ref_t> got(names.size());
            db_build_path_order(names.data(), (uint32_t) names.size(), &ranks.r, got.data());
            EXPECT_EQ(got, want) << "seed " << seed;
        }
    }
}

TEST(BuildSort, PathOrderWithAnUnrankedParentFallsBackToTheFullSort) {
    tree_t t(8, 100, 500, false);
    std::vector<db_ref_t> some(t.folders.begin(), t.folders.begin() + 50);
    ranks_t ranks(some);
    std::vector<db_ref_t> names = by_name(t.files);
    std::vector<db_ref_t> got(names.size());
    db_build_path_order(names.data(), (uint32_t) names.size(), &ranks.r, got.data());
    EXPECT_EQ(got, plain_sort(names, db_path_name_compare));
}

TEST(BuildSort, ValueOrdersEqualTheComparatorSort) {
    for (bool known : {false, true}) {
        tree_t t(9, 200, 3000, known);
        std::vector<db_ref_t> names = by_name(t.files);
        for (db_order_t order : {DB_ORDER_SIZE, DB_ORDER_DATE_MODIFIED, DB_ORDER_DATE_CREATED,
                                 DB_ORDER_ATTRIBUTES, DB_ORDER_EXTENSION, DB_ORDER_NAME}) {
            for (bool folder : {false, true}) {
                const std::vector<db_ref_t> &input = folder ? by_name(t.folders) : names;
                auto cmp = [&](db_ref_t a, db_ref_t b) { return db_compare(t.h.db, order, folder, a, b); };
                std::vector<db_ref_t> got(input.size());
                db_build_value_order(t.h.db, order, folder, input.data(), (uint32_t) input.size(),
                                     got.data());
                EXPECT_EQ(got, plain_sort(input, cmp))
                    << "order " << order << " folder " << folder << " known " << known;
            }
        }
    }
}

TEST(BuildSort, AttributeOrderComparesLetters) {
    tree_t t(10, 50, 400, false);
    std::mt19937 rng(10);
    // Bits without a letter make values that differ but compare equal.
    const uint32_t values[] = {0, 0x20, 0x1, 0x21, 0x8000, 0x8020, 0x10000, 0x2};
    for (db_ref_t f : t.files)
        db_file_set(t.h.db, f, DB_FIELD_ATTRIBUTES, values[rng() % 8]);
    std::vector<db_ref_t> names = by_name(t.files);
    auto cmp = [&](db_ref_t a, db_ref_t b) { return db_compare(t.h.db, DB_ORDER_ATTRIBUTES, false, a, b); };
    std::vector<db_ref_t> got(names.size());
    db_build_value_order(t.h.db, DB_ORDER_ATTRIBUTES, false, names.data(), (uint32_t) names.size(),
                         got.data());
    EXPECT_EQ(got, plain_sort(names, cmp));
}

TEST(BuildSort, MapKeepsEveryKey) {
    db_build_map_t m;
    db_build_map_init(&m, 5000);
    for (uint32_t i = 1; i <= 5000; i++)
        db_build_map_put(&m, i * 4096, i);
    db_build_map_put(&m, 4096, 77);
    EXPECT_EQ(db_build_map_get(&m, 4096), 77u);
    for (uint32_t i = 2; i <= 5000; i++)
        ASSERT_EQ(db_build_map_get(&m, i * 4096), i);
    EXPECT_EQ(db_build_map_get(&m, 4097), UINT32_MAX);
    db_build_map_kill(&m);
}

// ---- the arrays and log of a whole merge ---------------------------------------------------------------

class BuildMergeTest : public BuildTest {};

// The extension array alone, without any other derived order: it must be filled, or the index holds a
// structure bit without its array and every save refuses it.
TEST_F(BuildMergeTest, ExtensionArrayAloneIsFilled) {
    fast_size_sort = fast_date_modified_sort = fast_path_sort = 0;
    fast_extension_sort = 1;
    add_filelist(file("l.swl", "Filename\r\n"
                               "/e/b.txt\r\n/e/a.TXT\r\n/e/noext\r\n/e/.profile\r\n/e/z.tar.gz\r\n"
                               "/e/c.c\r\n/e/sub/d.txt\r\n"));
    rebuild();
    ASSERT_EQ(db->structure.word & 0x3F00, 0u);
    ASSERT_EQ(db->files.count, 7u);
    ASSERT_EQ(db->files_by_extension.count, db->files.count);
    std::vector<db_ref_t> got;
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->files_by_extension, &c, &pos));)
        got.push_back(r);
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end(), [&](db_ref_t a, db_ref_t b) {
        return db_compare(db, DB_ORDER_EXTENSION, false, a, b) < 0;
    }));
    std::string saved = at("x.db");
    EXPECT_TRUE(db_file_save(db, saved.c_str(), (saved + ".tmp").c_str(), false));
}

// Every line the merge logs about what it drops is a line of its own: one time stamp, at its start.
TEST_F(BuildMergeTest, DropLinesEndTheirLine) {
    // Not beside the list: the list's monitor would take each log line for a change of the list.
    fs::create_directories(at("log"));
    std::string log = at("log/merge.log");
    ASSERT_TRUE(debug_open_log_path(log.c_str()));
    bool verbose = debug_verbose;
    debug_verbose = true;
    config_exclude_folders.items = nullptr;
    *vec_push(&config_exclude_folders) = heap_text("gone");
    set_text(&exclude_files, "*.tmp");
    add_filelist(file("l.swl", "Filename,Attributes\r\n"
                               "/r/d,16\r\n/r/d,16\r\n/r/d/x.txt\r\n" // a folder named twice
                               "/r/e/y.txt\r\n/r/e/y.txt\r\n"         // a file named twice
                               "/r/e/skip.tmp\r\n"                    // an excluded file
                               "/r/gone/z.txt\r\n"));                 // under an excluded folder
    rebuild();
    debug_verbose = verbose;
    debug_close_log();
    std::ifstream in(log, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char *want : {"found folder name dupe d", "found file name dupe y.txt",
                             "excluded file: skip.tmp", "excluded folder: gone", "null parent file: z.txt"})
        EXPECT_NE(text.find(want), std::string::npos) << want;
    const std::regex stamp("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}: ");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        auto n = std::distance(std::sregex_iterator(line.begin(), line.end(), stamp), std::sregex_iterator());
        EXPECT_EQ(n, 1) << line;
    }
}
