// Every line the program logs ends in its own line end: the logger adds none, so a format without "\n"
// runs into the next line of the log. The sources are read as text: each call of the logger, or of a
// function that hands its format on to the logger, is found, and each literal that can be its format is
// checked.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fsys = std::filesystem;

namespace {

// The tree's root: the nearest folder above this source file, or above the working folder, that holds
// the logger's header.
fsys::path find_root() {
    std::vector<fsys::path> starts = {fsys::path(__FILE__).parent_path(), fsys::current_path()};
    for (fsys::path p : starts) {
        std::error_code ec;
        p = fsys::absolute(p, ec);
        for (; !p.empty(); p = p.parent_path()) {
            if (fsys::exists(p / "src" / "debug" / "debug.h", ec))
                return p;
            if (p == p.parent_path())
                break;
        }
    }
    return {};
}

// The text with comments blanked out (line breaks kept, so that positions still give line numbers) and
// string and character literals left as they are.
std::string strip_comments(const std::string &s) {
    std::string o = s;
    for (size_t i = 0; i < o.size(); i++) {
        char c = o[i];
        if (c == '"' || c == '\'') {
            for (i++; i < o.size() && o[i] != c; i++)
                if (o[i] == '\\')
                    i++;
        } else if (c == '/' && i + 1 < o.size() && o[i + 1] == '/') {
            for (; i < o.size() && o[i] != '\n'; i++)
                o[i] = ' ';
        } else if (c == '/' && i + 1 < o.size() && o[i + 1] == '*') {
            for (; i + 1 < o.size() && !(o[i] == '*' && o[i + 1] == '/'); i++)
                if (o[i] != '\n')
                    o[i] = ' ';
            o[i] = o[i + 1] = ' ';
        }
    }
    return o;
}

bool ident_char(char c) {
    return isalnum((unsigned char) c) || c == '_';
}

// The arguments of the call whose '(' is at open, split at the top-level commas; end gets the position
// of the closing parenthesis.
std::vector<std::string> call_args(const std::string &s, size_t open, size_t *end) {
    std::vector<std::string> args(1);
    int depth = 0;
    for (size_t i = open; i < s.size(); i++) {
        char c = s[i];
        if (c == '"' || c == '\'') {
            size_t from = i;
            for (i++; i < s.size() && s[i] != c; i++)
                if (s[i] == '\\')
                    i++;
            args.back() += s.substr(from, i - from + 1);
            continue;
        }
        if (c == '(' || c == '[' || c == '{') {
            if (depth++ == 0)
                continue;
        } else if (c == ')' || c == ']' || c == '}') {
            if (--depth == 0) {
                *end = i;
                return args;
            }
        } else if (c == ',' && depth == 1) {
            args.emplace_back();
            continue;
        }
        args.back() += c;
    }
    *end = s.size();
    return args;
}

// Each run of adjacent string literals in an argument, as one text with its escapes as written.
std::vector<std::string> literal_runs(const std::string &arg) {
    std::vector<std::string> runs;
    bool in_run = false;
    for (size_t i = 0; i < arg.size(); i++) {
        char c = arg[i];
        if (c == '"') {
            size_t from = ++i;
            for (; i < arg.size() && arg[i] != '"'; i++)
                if (arg[i] == '\\')
                    i++;
            if (!in_run)
                runs.emplace_back();
            runs.back() += arg.substr(from, i - from);
            in_run = true;
        } else if (c == '\'') {
            for (i++; i < arg.size() && arg[i] != '\''; i++)
                if (arg[i] == '\\')
                    i++;
            in_run = false;
        } else if (!isspace((unsigned char) c)) {
            in_run = false;
        }
    }
    return runs;
}

std::string trim(const std::string &s) {
    size_t a = s.find_first_not_of(" \t\r\n"), b = s.find_last_not_of(" \t\r\n");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// The last identifier of a parameter declaration ("const char *format" gives "format").
std::string param_name(const std::string &decl) {
    std::string d = trim(decl);
    size_t e = d.size();
    while (e > 0 && !ident_char(d[e - 1]))
        e--;
    size_t b = e;
    while (b > 0 && ident_char(d[b - 1]))
        b--;
    return d.substr(b, e - b);
}

struct source_t {
    std::string name, text;
};

struct call_t {
    const source_t *src;
    size_t at; // where the function's name begins
    std::vector<std::string> args;
};

// Every call of a function named name (not a member, not a declaration or definition of it).
std::vector<call_t> calls_of(const std::vector<source_t> &sources, const std::string &name) {
    std::vector<call_t> out;
    for (const source_t &src : sources) {
        const std::string &s = src.text;
        for (size_t at = s.find(name); at != std::string::npos; at = s.find(name, at + 1)) {
            size_t after = at + name.size();
            if ((at > 0 && (ident_char(s[at - 1]) || s[at - 1] == '.' || s[at - 1] == '>')) ||
                after >= s.size() || ident_char(s[after]))
                continue;
            size_t open = after;
            while (open < s.size() && isspace((unsigned char) s[open]))
                open++;
            if (open >= s.size() || s[open] != '(')
                continue;
            size_t end;
            std::vector<std::string> args = call_args(s, open, &end);
            // A definition or declaration: a return type stands before the name on its line.
            size_t line = s.rfind('\n', at);
            std::string before = trim(s.substr(line == std::string::npos ? 0 : line + 1,
                                               at - (line == std::string::npos ? 0 : line + 1)));
            if (!before.empty() && ident_char(before.back()) && before != "return")
                continue;
            out.push_back({&src, at, args});
        }
    }
    return out;
}

// The function whose body holds position at: its name and its parameters. Functions start at the
// beginning of a line in this tree.
bool enclosing_function(const std::string &s, size_t at, std::string *name,
                        std::vector<std::string> *params) {
    int depth = 0;
    for (size_t i = at; i-- > 0;) {
        char c = s[i];
        if (c == '}')
            depth++;
        else if (c == '{' && depth-- == 0) {
            size_t close = s.rfind(')', i);
            if (close == std::string::npos)
                return false;
            int d = 0;
            size_t open = close;
            for (; open-- > 0;) {
                if (s[open] == ')')
                    d++;
                else if (s[open] == '(' && d-- == 0)
                    break;
            }
            size_t e = open;
            while (e > 0 && isspace((unsigned char) s[e - 1]))
                e--;
            size_t b = e;
            while (b > 0 && ident_char(s[b - 1]))
                b--;
            *name = s.substr(b, e - b);
            size_t end;
            *params = call_args(s, open, &end);
            // A lambda or a control statement is no function of its own; look further out.
            if (*name == "if" || *name == "for" || *name == "while" || *name == "switch" || name->empty()) {
                depth = 0;
                continue;
            }
            return true;
        }
    }
    return false;
}

std::vector<source_t> read_sources(const fsys::path &root) {
    std::vector<source_t> out;
    for (const auto &e : fsys::recursive_directory_iterator(root / "src")) {
        std::string ext = e.path().extension().string();
        if (!e.is_regular_file() || (ext != ".cpp" && ext != ".h"))
            continue;
        std::ifstream f(e.path(), std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        out.push_back({fsys::relative(e.path(), root).generic_string(), strip_comments(ss.str())});
    }
    return out;
}

// The logger's entry points with the position of their format, and every function that passes one of
// its own parameters to such a position, found until no new one turns up.
std::map<std::string, size_t> log_functions(const std::vector<source_t> &sources) {
    std::map<std::string, size_t> fns = {{"debug_printf", 0}, {"debug_color_printf", 1}};
    for (bool grew = true; grew;) {
        grew = false;
        std::map<std::string, size_t> found;
        for (const auto &fn : fns) {
            for (const call_t &c : calls_of(sources, fn.first)) {
                if (c.args.size() <= fn.second)
                    continue;
                std::string format = trim(c.args[fn.second]);
                if (format.empty() || !std::all_of(format.begin(), format.end(), ident_char))
                    continue;
                std::string name;
                std::vector<std::string> params;
                if (!enclosing_function(c.src->text, c.at, &name, &params))
                    continue;
                for (size_t i = 0; i < params.size(); i++)
                    if (param_name(params[i]) == format && !fns.count(name))
                        found[name] = i;
            }
        }
        for (const auto &f : found)
            grew |= fns.insert(f).second;
    }
    return fns;
}

int line_of(const std::string &s, size_t at) {
    return 1 + (int) std::count(s.begin(), s.begin() + (long) at, '\n');
}

// The literals a format argument can be: those written in it, or, for a local variable, those of its
// initialiser ("const char *line = ntfs ? "..." : "...";" a little above the call).
std::vector<std::string> format_runs(const std::string &text, size_t at, const std::string &arg) {
    std::vector<std::string> runs = literal_runs(arg);
    std::string name = trim(arg);
    if (!runs.empty() || name.empty() || !std::all_of(name.begin(), name.end(), ident_char))
        return runs;
    size_t from = at > 2000 ? at - 2000 : 0;
    for (size_t i = text.rfind(name, at); i != std::string::npos && i >= from && i > 0;
         i = text.rfind(name, i - 1)) {
        size_t after = i + name.size();
        if (ident_char(text[i - 1]) || ident_char(text[after]))
            continue;
        std::string rest = trim(text.substr(after, 4));
        if (rest.empty() || rest[0] != '=' || (rest.size() > 1 && rest[1] == '='))
            continue;
        return literal_runs(text.substr(after, text.find(';', after) - after));
    }
    return runs;
}

bool ends_in_line_end(const std::string &run) {
    return run.size() >= 2 && run.compare(run.size() - 2, 2, "\\n") == 0;
}

} // namespace

TEST(LogLines, EveryFormatEndsInALineEnd) {
    fsys::path root = find_root();
    if (root.empty())
        GTEST_SKIP() << "the source tree isn't reachable from here";
    std::vector<source_t> sources = read_sources(root);
    std::map<std::string, size_t> fns = log_functions(sources);
    // The wrappers of the tree must be found, or their callers' formats go unchecked.
    EXPECT_TRUE(fns.count("_verbose_drop")) << "a wrapper that hands its format on was not recognised";

    int checked = 0;
    for (const auto &fn : fns) {
        for (const call_t &c : calls_of(sources, fn.first)) {
            if (c.args.size() <= fn.second)
                continue;
            for (const std::string &run : format_runs(c.src->text, c.at, c.args[fn.second])) {
                checked++;
                if (ends_in_line_end(run))
                    continue;
                ADD_FAILURE() << c.src->name << ":" << line_of(c.src->text, c.at) << ": " << fn.first << "(\""
                              << run << "\") has no line end";
            }
        }
    }
    // The scan must have seen the logger at work, or it proves nothing.
    EXPECT_GT(checked, 100);
}
