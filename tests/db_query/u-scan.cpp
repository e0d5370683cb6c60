// The byte filter of the plain-word scan against the folding matchers it stands in for: every answer,
// after a high-byte name went on to the matcher as the scan sends it, must be the matcher's. Names of
// every length around the 16-byte load, terms shorter and longer than one load, matches at both ends,
// near misses that pass the first/last byte test, mixed case and non-ASCII letters that fold to ASCII.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "db_query/scan.h"
#include "mem/arena.h"
#include "text/text.h"

namespace {

const text_folding_t FOLDINGS[] = {TEXT_FOLD_EXACT, TEXT_FOLD_ASCII, TEXT_FOLD_LOWER, TEXT_FOLD_LOWER_BASE,
                                   TEXT_FOLD_BASE};

// The scan's answer for one name: the filter, then the matcher for the names it hands on.
bool scan_answer(const db_scan_term_t *t, text_matcher_t match, const std::string &folded,
                 const uint8_t *name, uint32_t len, size_t avail) {
    db_scan_answer_t a = db_scan_contains(t, name, len, avail);
    if (a == DB_SCAN_HIGH)
        return match((const char *) name, len, folded.data(), folded.size());
    return a == DB_SCAN_HIT;
}

std::string fold(const std::string &term, text_folding_t f) {
    std::string out(term_fold_length(term.data(), term.size(), f), '\0');
    term_fold_write(&out[0], term.data(), term.size(), f);
    return out;
}

// Names built from the term's own bytes in both cases, so that first/last-byte candidates are common and
// most of them fail in the middle; some carry é (0xC3 0xA9) or the Kelvin sign, which lowers to 'k'.
std::vector<std::string> names_for(const std::string &term) {
    std::vector<std::string> names;
    uint32_t seed = 12345;
    auto next = [&seed]() { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7FFF; };
    for (uint32_t len = 0; len <= 40; len++) {
        for (int variant = 0; variant < 8; variant++) {
            std::string n;
            while (n.size() < len) {
                uint32_t r = next() % 16;
                if (r < 9 && !term.empty()) {
                    char c = term[next() % term.size()];
                    n += (char) (r & 1 ? ascii_upper[(uint8_t) c] : c);
                } else if (r < 12) {
                    n += "x.-"[r - 9];
                } else if (r == 12 && variant >= 6) {
                    n += "\xC3\xA9";
                } else if (r == 13 && variant >= 6) {
                    n += "\xE2\x84\xAA";
                } else {
                    n += 'k';
                }
            }
            n.resize(len);
            // Whole matches at the start, the end and in between, once exactly and once upper case.
            if (variant >= 2 && variant < 6 && len >= term.size()) {
                size_t at = variant == 2   ? 0
                            : variant == 3 ? len - term.size()
                                           : next() % (len - term.size() + 1);
                std::string put = term;
                if (variant == 5)
                    for (char &c : put)
                        c = (char) ascii_upper[(uint8_t) c];
                n.replace(at, term.size(), put);
            }
            names.push_back(n);
        }
    }
    return names;
}

struct ScanCase {
    const char *term;
};

const ScanCase TERMS[] = {
    {"k"},
    {"K"},
    {"."},
    {"ab"},
    {"kk"},
    {"a.B"},
    {"kkk"},
    {"copyright-notice"},
    {"copyright-notices"},
    {"aaaaaaaaaaaaaaaa"},
    {"AbCdEfGhIjKlMnOpQ"},
};

} // namespace

// Each name three ways: at the end of a buffer of its own length (the byte loop; an over-read there is an
// address error under the sanitizer), followed by slack of term bytes that a wrong mask would count as a
// match (the vector form), and again at the very end of an arena block, where the next block may not be
// mapped at all.
TEST(Scan, AgreesWithTheFoldingMatchers) {
    uint8_t *block = (uint8_t *) mem_ptr(mem_arena_alloc_block());
    for (const ScanCase &c : TERMS) {
        for (text_folding_t f : FOLDINGS) {
            std::string folded = fold(c.term, f);
            db_scan_term_t t;
            ASSERT_TRUE(db_scan_term_init(&t, folded.data(), (uint32_t) folded.size(), f));
            text_matcher_t match = text_matcher(TEXT_MATCH_CONTAINS, f);
            int hits = 0;
            for (const std::string &n : names_for(c.term)) {
                uint32_t len = (uint32_t) n.size();
                bool want = match(n.data(), len, folded.data(), folded.size());
                hits += want;
                std::vector<uint8_t> tight(n.begin(), n.end());
                std::string padded = n + std::string(16, c.term[0]) + c.term;
                uint8_t *at_end = block + MEM_ARENA_BLOCK - len;
                memcpy(at_end, n.data(), len);
                SCOPED_TRACE("term '" + std::string(c.term) + "' folding " + std::to_string((int) f) +
                             " name '" + n + "'");
                EXPECT_EQ(scan_answer(&t, match, folded, tight.data(), len, len), want);
                EXPECT_EQ(scan_answer(&t, match, folded, (const uint8_t *) padded.data(), len, padded.size()),
                          want);
                EXPECT_EQ(scan_answer(&t, match, folded, at_end, len, db_scan_block_avail(at_end)), want);
            }
            EXPECT_GT(hits, 0) << c.term; // the names do exercise the hit side
        }
    }
    mem_arena_free_block(mem_ref(block));
}

// The filter only serves what it can decide: a term with a non-ASCII byte, or none at all, stays with the
// matcher; the exact and ASCII foldings never hand a name on, the decoding foldings hand on every name
// with a high byte, hit or not.
TEST(Scan, HighBytesGoToTheMatcher) {
    db_scan_term_t t;
    EXPECT_FALSE(db_scan_term_init(&t, "", 0, TEXT_FOLD_LOWER));
    EXPECT_FALSE(db_scan_term_init(&t, "r\xC3\xA9", 3, TEXT_FOLD_LOWER));
    struct row_t {
        text_folding_t folding;
        const char *name;
        db_scan_answer_t want;
    } rows[] = {
        {TEXT_FOLD_EXACT, "caf\xC3\xA9 abc", DB_SCAN_HIT},
        {TEXT_FOLD_EXACT, "caf\xC3\xA9 ABC", DB_SCAN_MISS},
        {TEXT_FOLD_ASCII, "caf\xC3\xA9 ABC", DB_SCAN_HIT},
        {TEXT_FOLD_ASCII, "caf\xC3\xA9", DB_SCAN_MISS},
        {TEXT_FOLD_LOWER, "abc caf\xC3\xA9", DB_SCAN_HIGH},
        {TEXT_FOLD_LOWER, "0123456789abcdefghijklmnopqrstuvwxyz\xC3\xA9", DB_SCAN_HIGH},
        {TEXT_FOLD_LOWER_BASE, "abc", DB_SCAN_HIT},
        {TEXT_FOLD_BASE, "ABC", DB_SCAN_MISS},
        {TEXT_FOLD_BASE, "\xC3\xA9", DB_SCAN_HIGH},
    };
    for (const row_t &r : rows) {
        ASSERT_TRUE(db_scan_term_init(&t, "abc", 3, r.folding));
        std::string padded = std::string(r.name) + std::string(16, 'a');
        uint32_t len = (uint32_t) strlen(r.name);
        EXPECT_EQ(db_scan_contains(&t, (const uint8_t *) r.name, len, len), r.want) << r.name;
        EXPECT_EQ(db_scan_contains(&t, (const uint8_t *) padded.data(), len, padded.size()), r.want)
            << r.name;
    }
}

// ---- the single-op loops against the evaluator ------------------------------------------------------------

#include "db_query/exec_internal.h"
#include "exec_reference.h"
#include "os/os.h"

namespace {

int eight_processors() {
    return 8;
}

// A generated tree of about 72,000 records (enough folders that the per-folder walk is shared by workers
// too) plus records that the loops find hard: a chain 40 folders deep whose names end and start with
// pieces of the path terms (a term that runs across a separator), folders with a high byte at the start or
// the end of their name above plain ones, names that are empty, one byte, or longer than a 16-byte load,
// and case and diacritic variants of the path terms' words.
struct LoopIndex {
    ref_index_t idx;
    std::vector<std::string> folder_paths; // absolute paths of a few folders, for prefix searches

    void build() {
        idx.build(72000, 23);
        db_fs_t *fs = idx.db->fs_table[0];
        db_ref_t root = idx.recs[0].ref;
        auto folder = [&](db_ref_t parent, const std::string &name) {
            db_ref_t r = db_folder_new(idx.db, fs, parent, name.data(), (uint32_t) name.size());
            idx.add(r, true);
            return r;
        };
        auto file = [&](db_ref_t parent, const std::string &name) {
            idx.add(db_file_new(idx.db, fs, parent, name.data(), (uint32_t) name.size()), false);
        };
        static const char *pieces[] = {"share",
                                       "SHARE",
                                       "sh\xC3\xA1re",
                                       "usr",
                                       "doc",
                                       "Doc",
                                       "d\xC3\xB3"
                                       "c",
                                       "are",
                                       "e",
                                       "",
                                       "x"};
        static const char *leaves[] = {"doc",
                                       "DOC",
                                       "d",
                                       "oc",
                                       "",
                                       "readme.so",
                                       "lib.SO.1",
                                       "x.tar.gz",
                                       "\xC3\xA9t\xC3\xA9.so",
                                       "copyright",
                                       "a.b.c.d.e.f.g.h.i.j.k.so",
                                       "doc\xE2\x84\xAA"};
        db_ref_t at = root;
        for (int depth = 0; depth < 40; depth++) {
            std::string name = pieces[depth % 11];
            if (name.empty())
                name = "z" + std::to_string(depth); // a folder has a name; files below may not
            at = folder(at, name + (depth % 3 == 0 ? "" : std::to_string(depth)));
            for (const char *leaf : leaves)
                file(at, leaf);
            if (depth < 4)
                folder_paths.push_back(idx.recs[idx.at[at]].path);
        }
        // High bytes at either end of a folder name, with the term's pieces right beside them.
        db_ref_t hi = folder(root, "\xC3\xA9share");
        db_ref_t hi2 = folder(hi, "doc\xC3\xA9");
        file(hi2, "doc");
        file(hi, "doc");
        db_ref_t lo = folder(root, "share");
        file(lo, "doc");
        file(lo, "Doc.so");
        file(folder(lo, "doc"), "x");
        // The arrays again, now over every record.
        for (int f = 0; f <= 1; f++)
            for (int o = 0; o < DB_ORDER_FRN; o++) {
                mem_array_t *a = db_array(idx.db, (db_order_t) o, f != 0);
                if (a) {
                    mem_array_kill(a);
                    memset(a, 0, sizeof *a);
                }
            }
        idx.arrays(true);
    }
};

std::vector<db_ref_t> run(db_query_t *q, const std::string &search, int sort, uint32_t bits) {
    exec_run(q, search.c_str(), sort, bits);
    return exec_results(q);
}

} // namespace

// Each search once through the evaluator alone, then through the loops at one, two and eight workers,
// under name order and under an order that scans another array: the same records in the same order.
// Every search of the table must also be served by a loop (checked on the compiled chain), so that a
// compile change can't quietly leave a row testing the evaluator against itself.
TEST(ScanLoops, AgreeWithTheEvaluator) {
    os_hooks.processor_count = eight_processors;
    LoopIndex li;
    li.build();
    db_query_t *q = db_query_create(li.idx.db, false, nullptr, nullptr);
    const std::string S(1, OS_SEP);
    struct row_t {
        std::string search;
        uint32_t bits;
        bool loop; // a loop serves the file chain
    };
    std::vector<row_t> rows = {
        // Names: the byte filter, starts, ends, equality, wildcards and whole words, NOT forms.
        {"doc", 0, true},
        {"DOC", SEARCH_CASE, true},
        {"!doc", 0, true},
        {"*.so", 0, true},
        {"*.SO", SEARCH_CASE, true},
        {"*.so", SEARCH_DIACRITICS, true},
        {"!*.so", 0, true},
        {"readme*", 0, true},
        {"*.txt", 0, true},
        {"*.TXT", SEARCH_CASE, true},
        {"*e.tar.gz", 0, true},
        {"exact:doc", 0, true},
        {"exact:doc", SEARCH_CASE | SEARCH_DIACRITICS, true},
        {"startwith:d", 0, true},
        {"endwith:c", 0, true},
        {"endwith:k", 0, true}, // the Kelvin sign lowers to k
        {"a?c", 0, true},
        {"ww:lib", 0, true},
        {"\xC3\xA9t\xC3\xA9*", 0, true},
        // Full paths: terms across separators, at the start, at the end, in other foldings.
        {"path:share" + S + "doc", 0, true},
        {"path:SHARE" + S + "DOC", 0, true},
        {"path:share" + S + "doc", SEARCH_CASE, true},
        {"path:share" + S + "doc", SEARCH_DIACRITICS, true},
        {"path:share" + S + "doc", SEARCH_CASE | SEARCH_DIACRITICS, true},
        {"!path:share" + S + "doc", 0, true},
        {"path:e" + S + "d", 0, true},
        {"path:" + S, 0, true},
        {"path:doc" + S, 0, true},
        {"path:" + S + "doc" + S + "x", 0, true},
        {"path:are" + S + "doc" + S, 0, true},
        {"path:usr", 0, true},
        {"path:" + std::string(300, 'e'), 0, false}, // longer than the automaton takes
        {"path:sh\xC3\xA1re", 0, true},              // folds to ASCII
        {"path:\xCE\xB1\xCE\xB8", 0, false},         // not pure ASCII: the evaluator
        {"path:" + S + "doc" + S + "x", SEARCH_CASE, true},
        {"path:" + S + "SHARE", 0, true},
        {S + "share" + S + "doc*", 0, true},
        {S + "sh\xC3\xA1re" + S + "d*", SEARCH_DIACRITICS, false}, // not pure ASCII: the evaluator
        // Path components: starting, ending, whole, and at the root.
        {"path:doc" + S, 0, true},
        {"path:" + S + "doc", 0, true},
        {"path:" + S + "sh", SEARCH_CASE, true},
        {"path:" + S + "doc" + S, 0, true},
        {"path:e" + S, SEARCH_DIACRITICS, true},
        {"!path:" + S + "doc" + S, 0, true},
        {"usr" + S + "share", 0, true}, // a separator makes it a path term
        // ext: lists, suffix and plain, and their NOT.
        {"ext:so", 0, true},
        {"ext:so;a;gz", 0, true},
        {"ext:tar.gz", 0, true},
        {"ext:;txt", 0, true},
        {"!ext:so", 0, true},
        {"ext:SO", SEARCH_CASE, true},
        {"ext:so", SEARCH_DIACRITICS, true},
        {"ext:\xC3\xA9t\xC3\xA9", 0, true}, // folds to ASCII
        {"ext:\xC3\xA9t\xC3\xA9", SEARCH_DIACRITICS, false},
        // Regular expressions on names.
        {"regex:^lib.*\\.so(\\.[0-9]+)?$", 0, true},
        {"regex:D.C", SEARCH_CASE, true},
        {"!regex:[0-9]", 0, true},
        // A byte every match must hold lets a name without it fail early; letters don't, for their case.
        {"regex:[a-z]\\.s", 0, true},
        {"!regex:[a-z]_[a-z]", 0, true},
        {"regex:c[0-9]*k", 0, true},
    };
    // Prefixes: below a folder, the folder itself counting or not, several levels down.
    for (const std::string &p : li.folder_paths) {
        rows.push_back({p + S, 0, true});
        rows.push_back({"!" + p + S, 0, true});
        rows.push_back({p + "*", 0, true});
    }
    for (const row_t &r : rows) {
        for (int sort : {(int) DB_SORT_NAME, DB_SORT_SIZE + 1}) {
            SCOPED_TRACE("search '" + r.search + "' bits " + std::to_string(r.bits) + " sort " +
                         std::to_string(sort));
            db_scan_loops_enabled = false;
            max_threads = 1;
            std::vector<db_ref_t> want = run(q, r.search, sort, r.bits);
            db_scan_loops_enabled = true;
            db_scan_loop_t loop;
            EXPECT_EQ(db_scan_loop_prepare(&loop, q, q->search.file_ops, false, nullptr), r.loop);
            db_scan_loop_free(&loop);
            for (int t : {1, 2, 8}) {
                max_threads = t;
                std::vector<db_ref_t> got = run(q, r.search, sort, r.bits);
                EXPECT_EQ(q->workers_used > 1, t > 1) << "threads " << t;
                EXPECT_TRUE(got == want)
                    << "threads " << t << ": " << got.size() << " results, want " << want.size();
            }
        }
    }
    max_threads = 0;
    db_destroy_query(q);
    li.idx.destroy();
    os_hooks_reset();
}

// Name duplicates are marked by position when the scan walks the name array itself and kept as a set of
// records otherwise (another column's array, a reversed copy for count:): every way gives the records
// whose folded name another record of the same kind shares.
TEST(ScanLoops, DuplicatesByPositionOrBySet) {
    ref_index_t idx;
    idx.build(6000, 31);
    std::map<std::pair<bool, std::string>, int> names;
    for (auto &r : idx.recs)
        names[{r.folder, ref_lb(r.name)}]++;
    std::set<db_ref_t> want;
    for (auto &r : idx.recs)
        if (names[{r.folder, ref_lb(r.name)}] > 1)
            want.insert(r.ref);
    ASSERT_FALSE(want.empty());
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    for (int sort : {(int) DB_SORT_NAME, DB_SORT_NAME + 1, (int) DB_SORT_SIZE, DB_SORT_PATH + 1}) {
        SCOPED_TRACE("sort " + std::to_string(sort));
        std::vector<db_ref_t> got = run(q, "dupe:", sort, 0);
        EXPECT_EQ(std::set<db_ref_t>(got.begin(), got.end()), want);
        EXPECT_EQ(got.size(), want.size());
        // The first ten of a descending order: count: scans reversed copies.
        got = run(q, "count:10 dupe:", sort, 0);
        EXPECT_EQ(got.size(), 10u);
        for (db_ref_t r : got)
            EXPECT_EQ(want.count(r), 1u);
    }
    db_destroy_query(q);
    idx.destroy();
}
