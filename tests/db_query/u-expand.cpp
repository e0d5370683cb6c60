// The macro pass: filters and bookmarks replaced by their searches at word starts only, flags written
// ahead of a filter's search, bookmark arguments, nesting depth, and environment expansion.
#include <gtest/gtest.h>

#include <string>

#include "config/config.h"
#include "db_query/expand.h"
#include "mem/mem.h"
#include "os/os.h"

static std::string expand(const char *text, const db_macro_t *filters, int nf,
                          const db_macro_t *bookmarks = nullptr, int nb = 0) {
    str_t out;
    str_init(&out);
    db_expand_search(&out, text, filters, nf, bookmarks, nb);
    std::string s(out.ptr, (size_t) out.len);
    str_kill(&out);
    return s;
}

TEST(Expand, FiltersAtWordStartsOnly) {
    const db_macro_t filters[] = {
        {"audio", "ext:mp3;wav", 0, false},
        {"pic", "ext:jpg", SEARCH_CASE | SEARCH_REGEX, true},
    };
    struct {
        const char *in, *out;
    } rows[] = {
        {"audio:", "<<ext:mp3;wav >>"},
        {"audio:abc", "<<ext:mp3;wav >>abc"},
        {"x audio:", "x <<ext:mp3;wav >>"},
        {"!audio:", "!<<ext:mp3;wav >>"},
        {"a|audio:", "a|<<ext:mp3;wav >>"},
        {"<audio:>", "<<<ext:mp3;wav >>>"},
        {"case:audio:", "case:<<ext:mp3;wav >>"},
        // Not at a word start, not followed by ':', or quoted: copied.
        {"xaudio:", "xaudio:"},
        {"audio", "audio"},
        {"\"audio:\"", "\"audio:\""},
        {"Audio:", "Audio:"},
        {"pic:", "<filtercase:nofilterpath:nofilterwholeword:nofilterdiacritics:filterregex:<ext:jpg >>"},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(expand(r.in, filters, 2), r.out) << r.in;
    }
}

TEST(Expand, NestingStopsAtDepth) {
    // A macro that names itself expands 64 levels deep and then stops.
    const db_macro_t self[] = {{"me", "me:", 0, false}};
    std::string out = expand("me:", self, 1);
    size_t opens = 0;
    for (char c : out) {
        opens += c == '<';
    }
    EXPECT_EQ(opens, 2u * 64);
    EXPECT_NE(out.find("me:"), std::string::npos);
    // Nested macros expand inside each other.
    const db_macro_t two[] = {{"outer", "inner: x", 0, false}, {"inner", "y", 0, false}};
    EXPECT_EQ(expand("outer:", two, 2), "<<<<y >> x >>");
}

TEST(Expand, BookmarkArguments) {
    const db_macro_t bookmarks[] = {
        {"big<n>", "size:>n: ext:n:", 0, false},
        {"home", "/home/", 0, false},
    };
    struct {
        const char *in, *out;
    } rows[] = {
        {"big:10mb", "<<size:>10mb ext:10mb >>"},
        {"big:10mb abc", "<<size:>10mb ext:10mb >> abc"},
        {"big:<1 2> abc", "<<size:>1 2 ext:1 2 >> abc"},
        {"big:\"a b\"|c", "<<size:>\"a b\" ext:\"a b\" >>|c"},
        {"big:", "<<size:> ext: >>"},
        {"home:", "<</home/ >>"},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(expand(r.in, nullptr, 0, bookmarks, 2), r.out) << r.in;
    }
}

TEST(Expand, Environment) {
    str_t s;
    str_init(&s);
    // PATH is set in every test environment, on both platforms.
    str_t path;
    str_init(&path);
    ASSERT_TRUE(os_getenv("PATH", &path));
    str_set(&s, "a %PATH% b %SW_SURELY_UNSET_VARIABLE% 100% %");
    db_expand_environment(&s);
    std::string want = std::string("a ") + path.ptr + " b %SW_SURELY_UNSET_VARIABLE% 100% %";
    EXPECT_EQ(std::string(s.ptr, (size_t) s.len), want);
    // The setting decides whether the combined pass expands at all.
    uint8_t saved = expand_environment_variables;
    expand_environment_variables = 0;
    db_expand_all(&s, "%PATH%", nullptr, 0, nullptr, 0);
    EXPECT_STREQ(s.ptr, "%PATH%");
    expand_environment_variables = 1;
    db_expand_all(&s, "%PATH%", nullptr, 0, nullptr, 0);
    EXPECT_STREQ(s.ptr, path.ptr);
    expand_environment_variables = saved;
    str_kill(&s);
    str_kill(&path);
}

TEST(Expand, GrowthIsBounded) {
    // Each level doubles the text: without a bound 64 levels would never finish.
    const db_macro_t bookmarks[] = {{"bm<p>", "p: p:", 0, false}};
    std::string out =
        expand("bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:<bm:x"
               ">>>>>>>>>>>>>>>>>>>>>>",
               nullptr, 0, bookmarks, 1);
    EXPECT_GT(out.size(), 1000u);
    EXPECT_LT(out.size(), 64u << 20);
}
