// The string buffers: where the text lives after each growth, that the text survives appends, that a
// source inside the buffer itself is safe, and the path and UTF-16 forms.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mem/mem.h"
#include "os/os.h"

static std::string text(const str_t &s) {
    return std::string(s.ptr, (size_t) s.len);
}

// The invariant every operation must keep.
static void expect_sound(const str_t &s) {
    EXPECT_EQ(s.ptr == s.inline_buf, s.cap <= 260);
    EXPECT_GE(s.cap, s.len + 1);
    EXPECT_EQ(s.ptr[s.len], 0);
}

TEST(Str, SetSizesInlineThenWholeBlocks) {
    str_t s;
    str_init(&s);
    EXPECT_EQ(s.cap, 260);
    EXPECT_EQ(s.len, 0);
    EXPECT_EQ(s.ptr[0], 0);
    struct {
        size_t len;
        int cap;
    } steps[] = {{259, 260}, {260, 65536}, {65535, 65536}, {65536, 131072}, {10, 131072}, {200000, 262144}};
    for (auto &st : steps) {
        std::string t(st.len, (char) ('a' + st.len % 26));
        str_set(&s, t.c_str());
        EXPECT_EQ(s.cap, st.cap) << st.len;
        EXPECT_EQ(text(s), t);
        expect_sound(s);
    }
    str_kill(&s);
    EXPECT_EQ(s.cap, 0);
    str_kill(&s);
    // Straight from the inline buffer to the largest text one block holds.
    std::string edge(65535, 'e');
    str_init(&s);
    str_set(&s, edge.c_str());
    EXPECT_EQ(s.cap, 65536);
    str_kill(&s);
}

TEST(Str, CatGrowsToPowersOfTwoAndKeepsText) {
    str_t s;
    str_init(&s);
    std::string model;
    str_cat(&s, "", 0);
    EXPECT_EQ(s.len, 0);
    std::string chunk(100, 'x');
    for (int i = 0; i < 2; i++) {
        str_cat(&s, chunk.c_str(), 100);
        model += chunk;
    }
    EXPECT_EQ(s.cap, 260);
    str_cat(&s, chunk.c_str(), 59);
    model.append(chunk, 0, 59);
    EXPECT_EQ(s.cap, 260) << "259 bytes stay inline";
    str_cat(&s, "y", 1);
    model += "y";
    EXPECT_EQ(s.cap, 512) << "260 bytes need 261 with the terminator";
    for (int i = 0; i < 30; i++) {
        std::string part(37 * i + 1, (char) ('a' + i));
        str_cat(&s, part.c_str(), (int) part.size());
        model += part;
        int need = (int) model.size() + 1;
        EXPECT_GE(s.cap, need);
        EXPECT_EQ(s.cap & (s.cap - 1), 0) << "power of two";
        EXPECT_LT(s.cap / 2, need) << "the next power of two, not more";
    }
    EXPECT_EQ(text(s), model);
    expect_sound(s);
    str_kill(&s);
}

TEST(Str, ZeroStateAndClear) {
    str_t s = {};
    // Appending nothing to a buffer without storage leaves it without storage.
    str_cat(&s, "abc", 0);
    EXPECT_EQ(s.cap, 0);
    str_clear(&s);
    EXPECT_EQ(s.cap, 260);
    EXPECT_EQ(s.ptr, s.inline_buf);
    expect_sound(s);
    str_kill(&s);
    str_cat(&s, "abc", 3);
    EXPECT_EQ(text(s), "abc");
    expect_sound(s);
    str_kill(&s);
    str_set(&s, "after kill");
    EXPECT_EQ(text(s), "after kill");
    // Clearing keeps a heap block.
    std::string big(1000, 'q');
    str_set(&s, big.c_str());
    str_clear(&s);
    EXPECT_EQ(s.cap, 65536);
    EXPECT_EQ(s.len, 0);
    expect_sound(s);
    str_kill(&s);
}

// A source inside the buffer must survive the growth that frees the old block (the sanitizer build
// reports a use after free otherwise).
TEST(Str, SourceInsideItself) {
    str_t s;
    str_init(&s);
    str_set(&s, "0123456789");
    str_set(&s, s.ptr + 3);
    EXPECT_EQ(text(s), "3456789");
    std::string model = text(s);
    for (int i = 0; i < 16; i++) {
        str_cat(&s, s.ptr, s.len);
        model += model;
    }
    EXPECT_EQ(text(s), model);
    str_set_n(&s, s.ptr + 1, 5);
    EXPECT_EQ(text(s), model.substr(1, 5));
    str_kill(&s);
}

TEST(Str, PathCat) {
    str_t s;
    str_init(&s);
    std::string sep(1, OS_SEP);
    struct {
        const char *a, *b, *want_tail;
        bool sep;
    } cases[] = {{"C:", "Windows", "Windows", true}, {"C:\\", "Windows", "Windows", false},
                 {"/usr", "bin", "bin", true},       {"/usr/", "bin", "bin", false},
                 {"", "name", "name", false},        {"dir", "", "", true}};
    for (auto &c : cases) {
        str_path_cat(&s, c.a, (int) strlen(c.a), c.b, (int) strlen(c.b));
        std::string want = std::string(c.a) + (c.sep ? sep : "") + c.want_tail;
        EXPECT_EQ(text(s), want) << c.a << " + " << c.b;
        expect_sound(s);
    }
    // The usual form: the path is the buffer's own text, here across the growth out of the inline buffer.
    str_set(&s, "root");
    std::string model = "root";
    for (int i = 0; i < 60; i++) {
        str_path_cat(&s, s.ptr, s.len, "component", 9);
        model += sep + "component";
    }
    EXPECT_EQ(text(s), model);
    expect_sound(s);
    str_kill(&s);
}

TEST(Str, FromUtf16AndBack) {
    str_t s;
    str_init(&s);
    const uint16_t w[] = {'A', 0xe9, 0xd83d, 0xde00, 0xdfff, 0xd800, 0};
    str_set_wide(&s, w);
    EXPECT_EQ(text(s), "A\xc3\xa9\xf0\x9f\x98\x80\xed\xbf\xbf\xed\xa0\x80");
    str_set_wide_n(&s, w, 3);
    EXPECT_EQ(text(s), "A\xc3\xa9\xed\xa0\xbd");
    // A long wide text leaves the inline buffer under the assignment rule.
    std::u16string long_w(300, u'\u00e9');
    str_set_wide(&s, (const uint16_t *) long_w.c_str());
    EXPECT_EQ(s.len, 600);
    EXPECT_EQ(s.cap, 65536);

    wstr_t ws;
    wstr_init(&ws);
    wstr_set_utf8(&ws, "A\xc3\xa9\xf0\x9f\x98\x80", -1);
    ASSERT_EQ(ws.len, 4);
    EXPECT_EQ(ws.ptr[0], 'A');
    EXPECT_EQ(ws.ptr[1], 0xe9);
    EXPECT_EQ(ws.ptr[2], 0xd83d);
    EXPECT_EQ(ws.ptr[3], 0xde00);
    EXPECT_EQ(ws.ptr[4], 0);
    // Bytes that do not decode become one 0 unit each: a stray continuation, and a three-byte lead cut
    // by the count (the zero-terminated form cuts it at the zero).
    wstr_set_utf8(&ws, "\x80z\xe2\x82", 4);
    ASSERT_EQ(ws.len, 4);
    EXPECT_EQ(ws.ptr[0], 0);
    EXPECT_EQ(ws.ptr[1], 'z');
    EXPECT_EQ(ws.ptr[2], 0);
    EXPECT_EQ(ws.ptr[3], 0);
    wstr_set_utf8(&ws, "\xe2\x82", -1);
    EXPECT_EQ(ws.len, 2);
    // Round trip of well-formed text through both forms.
    const char *round = "Pfad/\xe6\x97\xa5\xe6\x9c\xac/\xf0\x90\x8d\x88.txt";
    wstr_set_utf8(&ws, round, -1);
    str_set_wide(&s, ws.ptr);
    EXPECT_EQ(text(s), round);
    wstr_cat(&ws, ws.ptr, ws.len);
    str_set_wide(&s, ws.ptr);
    EXPECT_EQ(text(s), std::string(round) + round);
    wstr_clear(&ws);
    EXPECT_EQ(ws.len, 0);
    wstr_kill(&ws);
    str_kill(&s);
}

TEST(Mem, DupAndAlloc) {
    char *d = mem_dup("abcdef", 3);
    EXPECT_STREQ(d, "abc");
    mem_free(d);
    d = mem_dup(nullptr, 0);
    EXPECT_STREQ(d, "");
    mem_free(d);
    void *p = mem_try_alloc(16);
    ASSERT_NE(p, nullptr);
    p = mem_realloc(p, 1 << 20);
    ((char *) p)[(1 << 20) - 1] = 1;
    mem_free(p);
    mem_free(nullptr);
    char *v = (char *) mem_virtual_alloc(1 << 16);
    for (int i = 0; i < 1 << 16; i += 4096) {
        EXPECT_EQ(v[i], 0);
    }
    v[100] = 5;
    mem_virtual_free(v, 1 << 16);
}

// The sanitizer's allocator would end the process itself on an impossible size; the program's own rule
// is what is under test.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

TEST(MemDeath, OutOfMemoryIsFatalWithItsWords) {
#ifdef _WIN32
    GTEST_SKIP() << "the fatal path shows a message box on Windows";
#endif
    EXPECT_EQ(mem_try_alloc(SIZE_MAX / 2), nullptr);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(mem_alloc(SIZE_MAX / 2), "mem\\.c.734.*mem_alloc.*out of memory");
}
