// The tokeniser and the switch table's name rules.
#include "cl/cl.h"
#include "mem/mem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

// Tokens of a line as "text" or "[text]" for a quoted token, joined by '|'.
std::string tokens(const char *line) {
    std::string r;
    str_t tok;
    str_init(&tok);
    bool quoted;
    const char *p = line;
    while ((p = cl_next_token(p, &tok, &quoted)) != nullptr) {
        if (!r.empty()) {
            r += "|";
        }
        std::string t(tok.ptr, (size_t) tok.len);
        r += quoted ? "[" + t + "]" : t;
    }
    str_kill(&tok);
    return r;
}

TEST(Token, QuotesBlanksAndTripleQuotes) {
    const struct {
        const char *line;
        const char *expected;
    } cases[] = {
        {"", ""},
        {" \t\r\n ", ""},
        {"a b", "a|b"},
        {"  a\t\tb\r\nc  ", "a|b|c"},
        {"\"a b\" c", "[a b]|c"},
        {"x\"a b\"y z", "[xa by]|z"},
        {"\"\"", "[]"},
        {"\"\" a", "[]|a"},
        {"\"\"\"", "[\"]"},
        {"\"\"\"a\"\"\"", "[\"a\"]"},
        {"\"a \"\"\" b\"", "[a \" b]"},
        {"\"unterminated quote", "[unterminated quote]"},
        {"a\"\"b", "[ab]"},
        {"-s \"\"", "-s|[]"},
        {"\"tab\there\"", "[tab\there]"},
        {"é \"ü ö\"", "é|[ü ö]"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(tokens(c.line), c.expected) << "line: " << c.line;
    }
}

TEST(Token, NullLineHasNoTokens) {
    str_t tok;
    str_init(&tok);
    bool quoted = true;
    EXPECT_EQ(cl_next_token(nullptr, &tok, &quoted), nullptr);
    EXPECT_FALSE(quoted);
    EXPECT_EQ(tok.len, 0);
    str_kill(&tok);
}

// Arguments written by cl_quote_arg and joined by blanks must come back one for one, whatever they hold.
TEST(Token, QuotedArgumentsReadBackUnchanged) {
    const std::vector<std::string> args = {
        "plain",   "",      " ",      "a b",         "\"",        "\"\"",        "\"\"\"", "\"\"\"\"",
        "\"x\"",   "\" \"", "a\"b c", "C:\\dir 1\\", "tab\there", "line\r\nend", "\\\"",   "-s",
        "\"\"\"q", " lead", "trail ", "x\"",         "\"y",       "é ü",
    };
    str_t line, tok;
    str_init(&line);
    str_init(&tok);
    for (const std::string &a : args) {
        str_clear(&line);
        cl_quote_arg(&line, "first");
        str_cat_char(&line, ' ');
        cl_quote_arg(&line, a.c_str());
        str_cat_char(&line, ' ');
        cl_quote_arg(&line, a.c_str());
        std::vector<std::string> got;
        bool quoted;
        const char *p = line.ptr;
        while ((p = cl_next_token(p, &tok, &quoted)) != nullptr) {
            got.push_back(std::string(tok.ptr, (size_t) tok.len));
        }
        EXPECT_EQ(got, (std::vector<std::string>{"first", a, a})) << "line: " << line.ptr;
    }
    // Only what needs quotes gets them: a switch must stay a switch.
    str_clear(&line);
    cl_quote_arg(&line, "-case");
    EXPECT_STREQ(line.ptr, "-case");
    str_kill(&tok);
    str_kill(&line);
}

TEST(SwitchTable, EveryTypeAndUniqueNames) {
    std::set<int> types;
    std::set<std::string> bare;
    for (const cl_switch_t &row : cl_switches) {
        types.insert(row.type);
        // Lower case only: matching folds the token, never the name.
        for (const char *c = row.name; *c; c++) {
            EXPECT_FALSE(*c >= 'A' && *c <= 'Z') << row.name;
        }
        EXPECT_EQ(strstr(row.name, "--"), nullptr) << row.name;
        // Hyphens may be left out of a token, so names must differ without them too, or a token could
        // name two rows.
        std::string b;
        for (const char *c = row.name; *c; c++) {
            if (*c != '-') {
                b += *c;
            }
        }
        EXPECT_TRUE(bare.insert(b).second) << "two names read as " << b;
    }
    EXPECT_EQ(types.size(), 14u);
    EXPECT_EQ(*types.begin(), 0);
    EXPECT_EQ(*types.rbegin(), 13);
}

TEST(SwitchTable, NameMatchingRule) {
    const struct {
        const char *name;
        const char *text;
        bool match;
    } cases[] = {
        {"run-as-admin", "run-as-admin", true},
        {"run-as-admin", "runasadmin", true},
        {"run-as-admin", "run-asadmin", true},
        {"run-as-admin", "RUNASADMIN", true},
        {"is-run-as", "isrunas", true},
        {"run-as-admin", "run-as-admi", false},
        {"run-as-admin", "run-as-admins", false},
        {"run-as-admin", "run--as-admin", false},
        {"run-as-admin", "-run-as-admin", false},
        {"runas", "run-as", false},
        {"?", "?", true},
        {"n", "", false},
        {"n", "n", true},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(cl_name_matches(c.name, c.text, (int) strlen(c.text)), c.match)
            << c.name << " / " << c.text;
    }
}

TEST(SwitchTable, LookupForms) {
    const struct {
        const char *text;
        const char *name; // null: unknown
        int form;
    } cases[] = {
        {"verbose", "verbose", CL_FORM_BARE},
        {"no-verbose", "verbose", CL_FORM_OFF},
        {"noverbose", "verbose", CL_FORM_OFF},
        {"no-app-data", "app-data", CL_FORM_OFF},
        {"no-db", "no-db", CL_FORM_BARE},
        {"install-service", "install-service", CL_FORM_BARE},
        {"install-url-protocol", "url-protocol", CL_FORM_ON},
        {"uninstallurlprotocol", "url-protocol", CL_FORM_OFF},
        {"uninstall-user", "uninstall-user", CL_FORM_BARE},
        {"uninstall", "uninstall", CL_FORM_BARE},
        {"enable-run-as-admin", "run-as-admin", CL_FORM_ON},
        {"disable-update-notification", "update-notification", CL_FORM_OFF},
        {"no-install-service", nullptr, 0},
        {"no-no-db", nullptr, 0},
        {"install-verbose", nullptr, 0},
        {"enable-url-protocol", nullptr, 0},
        {"no-", nullptr, 0},
    };
    for (const auto &c : cases) {
        int form = -1;
        const cl_switch_t *row = cl_switch_lookup(c.text, (int) strlen(c.text), &form);
        if (!c.name) {
            EXPECT_EQ(row, nullptr) << c.text;
            continue;
        }
        ASSERT_NE(row, nullptr) << c.text;
        EXPECT_STREQ(row->name, c.name) << c.text;
        EXPECT_EQ(form, c.form) << c.text;
    }
}

} // namespace
