// The .ini parser and the number parser.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "config/config.h"

namespace {

struct IniHolder {
    ini_t *ini;
    explicit IniHolder(const std::string &text, const char *section = "Sablewatch")
        : ini(ini_parse(text.c_str(), section)) {}
    ~IniHolder() { ini_free(ini); }
    std::string get(const char *key) {
        const char *v = ini_get(ini, key, nullptr);
        return v ? v : "<absent>";
    }
};

TEST(Ini, SectionRules) {
    // Keys before the header and in other sections are ignored; the name is case-blind; a header ends the
    // section before it; the text behind ']' does not matter.
    IniHolder h("before=1\n"
                "[Other]\nother=2\n"
                "[sablewatch]\nlower=3\n"
                "[Second]\nsecond=4\n"
                "[SABLEWATCH] trailing\nupper=5\n");
    EXPECT_EQ(h.get("before"), "<absent>");
    EXPECT_EQ(h.get("other"), "<absent>");
    EXPECT_EQ(h.get("lower"), "3");
    EXPECT_EQ(h.get("second"), "<absent>");
    EXPECT_EQ(h.get("upper"), "5");
    EXPECT_EQ(h.ini->count, 2);

    // A section whose name only begins like ours is another section.
    IniHolder longer("[Sablewatch2]\nkey=1\n");
    EXPECT_EQ(longer.ini->count, 0);
}

TEST(Ini, LinesAndValues) {
    IniHolder h("\xEF\xBB\xBF[Sablewatch]\r\n"
                "# comment=1\r\n"
                "; comment=2\r\n"
                "no equals sign\r\n"
                "trail=with blanks  \r\n"
                " lead=1\r\n"
                "lead2= x\r\n"
                "eq=a=b=c\r\n"
                "cr=lone\rcr\r\n"
                "crcr=two\r\r\n"
                "empty=\n"
                "last=no line end");
    EXPECT_EQ(h.get("# comment"), "<absent>");
    EXPECT_EQ(h.get("; comment"), "<absent>");
    EXPECT_EQ(h.get("trail"), "with blanks  ");
    EXPECT_EQ(h.get(" lead"), "1");
    EXPECT_EQ(h.get("lead"), "<absent>");
    EXPECT_EQ(h.get("lead2"), " x");
    EXPECT_EQ(h.get("eq"), "a=b=c");
    EXPECT_EQ(h.get("cr"), "lone\rcr");
    EXPECT_EQ(h.get("crcr"), "two\r");
    EXPECT_EQ(h.get("empty"), "");
    EXPECT_EQ(h.get("last"), "no line end");
    EXPECT_EQ(h.ini->count, 8);
}

TEST(Ini, ByteOrderMarkOnlyAtStart) {
    // The mark is skipped only as the file's first bytes; so a header right behind it is still the section.
    IniHolder h("\xEF\xBB\xBF[Sablewatch]\nk=1\n");
    EXPECT_EQ(h.get("k"), "1");
    IniHolder no_section("\xEF\xBB\xBFk=1\n");
    EXPECT_EQ(no_section.ini->count, 0);
}

TEST(Ini, LaterDuplicateWinsWithFoldedKeys) {
    IniHolder h("[Sablewatch]\nKey=first\nother=x\nKEY=second\nkey=third\nzeta=1\nZeta=2\n");
    EXPECT_EQ(h.get("key"), "third");
    EXPECT_EQ(h.get("kEy"), "third");
    EXPECT_EQ(h.get("zeta"), "2");
    EXPECT_EQ(h.ini->count, 3);
    // Stored keys are folded.
    for (int i = 0; i < h.ini->count; i++) {
        for (const char *p = h.ini->pairs[i].key; *p; p++) {
            EXPECT_FALSE(*p >= 'A' && *p <= 'Z');
        }
    }
}

TEST(Ini, NoKeyLinesIsEmpty) {
    for (const char *text :
         {"", "[Sablewatch]\n", "; only comments\n[Sablewatch]\n# x=1\nnothing\n", "[Other]\na=1\n"}) {
        IniHolder h(text);
        EXPECT_EQ(h.ini->count, 0) << text;
        EXPECT_EQ(h.get("a"), "<absent>");
    }
}

// Many random lines with duplicate keys in mixed case, checked against a map that keeps the last value of
// each folded key: this is what a stable sort with a broken merge or an unstable tie-break gets wrong.
TEST(Ini, RandomFilesAgainstModel) {
    std::mt19937 rng(1234);
    for (int round = 0; round < 50; round++) {
        std::map<std::string, std::string> model;
        std::string text = "[Sablewatch]\r\n";
        int lines = (int) (rng() % 400);
        for (int i = 0; i < lines; i++) {
            std::string key;
            int len = 1 + (int) (rng() % 3);
            for (int j = 0; j < len; j++) {
                char c = "abcABC_1"[rng() % 8];
                key += c;
            }
            std::string value = std::to_string(rng() % 1000) + (rng() % 2 ? " " : "");
            std::string folded = key;
            for (char &c : folded) {
                c = (c >= 'A' && c <= 'Z') ? (char) (c + 32) : c;
            }
            model[folded] = value;
            text += key + "=" + value + (rng() % 2 ? "\r\n" : "\n");
        }
        IniHolder h(text);
        ASSERT_EQ(h.ini->count, (int) model.size());
        int i = 0;
        for (auto &kv : model) {
            EXPECT_EQ(h.ini->pairs[i].key, kv.first);
            EXPECT_EQ(h.ini->pairs[i].value, kv.second);
            std::string upper = kv.first;
            for (char &c : upper) {
                c = (c >= 'a' && c <= 'z') ? (char) (c - 32) : c;
            }
            EXPECT_EQ(h.get(upper.c_str()), kv.second);
            i++;
        }
        EXPECT_EQ(h.get("missing"), "<absent>");
    }
}

TEST(Number, Parser) {
    struct {
        const char *text;
        int32_t value;
    } cases[] = {
        {"0", 0},
        {"42", 42},
        {"-6", -6},
        {"+7", 7},
        {"0x1F", 31},
        {"0X1f", 31},
        {"0xffffffff", -1},
        {"-0x10", -16},
        {"12abc", 12},
        {"0x12g", 0x12},
        {"abc", 0},
        {"", 0},
        {" 5", 0},
        {"-", 0},
        {"0x", 0},
        {"2147483647", 2147483647},
        {"4294967297", 1}, // wraps to 32 bits
        {"-2147483648", (int32_t) 0x80000000},
        {"08", 8},
    };
    for (auto &c : cases) {
        EXPECT_EQ(config_parse_number(c.text), c.value) << c.text;
    }
}

} // namespace
