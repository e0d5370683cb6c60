// Shared helpers of the index tests: an index built by hand, names with the differences that the orders
// must tell apart, and flat path strings made independently of the code under test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "db/db.h"
#include "mem/mem.h"
#include "text/text.h"

inline std::string rec_name(db_ref_t r) {
    uint32_t len;
    const char *n = db_record_name(r, &len);
    return std::string(n, len);
}

// The flat string of a record's path: names from the root joined with the separator, with no special
// case for a root named "" (the comparators see exactly this string).
inline std::string flat_path(db_ref_t r) {
    std::vector<db_ref_t> chain;
    for (db_ref_t p = r; p; p = db_record_parent(p))
        chain.push_back(p);
    std::string s;
    for (size_t i = chain.size(); i-- > 0;) {
        s += rec_name(chain[i]);
        if (i)
            s += OS_SEP;
    }
    return s;
}

inline std::string full_path(db_ref_t r) {
    str_t s;
    str_init(&s);
    db_get_full_path(&s, r);
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

inline int sgn(int v) {
    return (v > 0) - (v < 0);
}

// An index on the heap with a chosen structure; destroyed with the fixture.
struct db_holder_t {
    db_t *db;
    explicit db_holder_t(uint32_t word = DB_STRUCTURE_DEFAULT) {
        text_init_tables();
        db = db_create(nullptr);
        db_structure_set(&db->structure, word);
    }
    ~db_holder_t() { db_destroy(db); }
    db_ref_t folder(const db_fs_t *fs, db_ref_t parent, const std::string &name) {
        return db_folder_new(db, fs, parent, name.data(), (uint32_t) name.size());
    }
    db_ref_t file(const db_fs_t *fs, db_ref_t parent, const std::string &name) {
        return db_file_new(db, fs, parent, name.data(), (uint32_t) name.size());
    }
};

// Names that differ only in case, only in diacritics, in both, by a prefix, by invalid bytes and by a
// code point beyond the folding tables.
inline const std::vector<std::string> &tricky_names() {
    static const std::vector<std::string> names = {
        "a",
        "A",
        "\xC3\xA1",
        "\xC3\x81",
        "b",
        "B",
        "ab",
        "aB",
        "a b",
        "a-b",
        "e",
        "E",
        "\xC3\xA9",
        "\xC3\x89",
        "resume",
        "Resume",
        "RESUME",
        "r\xC3\xA9sum\xC3\xA9",
        "R\xC3\xA9sum\xC3\xA9",
        "readme",
        "README",
        "ReadMe",
        "a.txt",
        "A.TXT",
        "b.Txt",
        ".bashrc",
        "x.tar.gz",
        "noext",
        "\xFF",
        "a\xFF",
        "\xF0\x9F\x98\x80",
        "\xF0\x9F\x98\x81",
        "\xC3\x9F",
        "ss",
        "z",
        "Z",
        "\xC7\x84",
        "\xC7\x85",
        "\xC7\x86",
        "1",
        "10",
        "9",
        "_",
        "~",
        "a\xC3",
        "\xE2\x82",
        "\xF0\x9F",
        "\xC3",
    };
    return names;
}

// A random name: one or two tricky parts, sometimes with a suffix, sometimes long (255+ bytes).
inline std::string random_name(std::mt19937 &rng) {
    const auto &t = tricky_names();
    std::string s = t[rng() % t.size()];
    if (rng() % 3 == 0)
        s += t[rng() % t.size()];
    if (rng() % 5 == 0)
        s += std::to_string(rng() % 50);
    if (rng() % 40 == 0)
        s += std::string(250 + rng() % 20, (char) ('a' + rng() % 3));
    return s;
}

// Checks that cmp is a strict total order over the records: antisymmetric, zero only for the same
// record, and transitive along the sorted sequence (every earlier element sorts before every later one,
// tested on sampled triples).
template <typename Cmp>
void expect_strict_total_order(std::vector<db_ref_t> recs, Cmp cmp, std::mt19937 &rng, const char *what) {
    SCOPED_TRACE(what);
    for (int i = 0; i < 4000 && recs.size() > 1; i++) {
        db_ref_t a = recs[rng() % recs.size()], b = recs[rng() % recs.size()];
        int ab = cmp(a, b), ba = cmp(b, a);
        ASSERT_EQ(sgn(ab), -sgn(ba)) << rec_name(a) << " / " << rec_name(b);
        ASSERT_EQ(ab == 0, a == b) << flat_path(a) << " / " << flat_path(b);
    }
    std::sort(recs.begin(), recs.end(), [&](db_ref_t a, db_ref_t b) { return cmp(a, b) < 0; });
    for (size_t i = 1; i < recs.size(); i++)
        ASSERT_LT(cmp(recs[i - 1], recs[i]), 0) << flat_path(recs[i - 1]) << " / " << flat_path(recs[i]);
    for (int n = 0; n < 4000 && recs.size() > 2; n++) {
        size_t i = rng() % recs.size(), j = rng() % recs.size();
        if (i > j)
            std::swap(i, j);
        if (i == j)
            continue;
        ASSERT_LT(cmp(recs[i], recs[j]), 0) << flat_path(recs[i]) << " / " << flat_path(recs[j]);
        ASSERT_GT(cmp(recs[j], recs[i]), 0);
    }
}
