// Highlighting: for each kind of term, which bytes of a row's name and path are marked. The marks are
// shown as brackets around each marked run, so that a case reads as the row would look.
#include "exec_reference.h"

static std::string bracketed(const db_highlight_t &h) {
    std::string out;
    bool on = false;
    for (int i = 0; i < h.text.len; i++) {
        bool m = h.mask.ptr[i] != 0;
        if (m != on)
            out += m ? '[' : ']';
        on = m;
        out += h.text.ptr[i];
    }
    if (on)
        out += ']';
    return out;
}

struct highlight_case_t {
    const char *search;
    uint32_t bits;
    const char *row;  // the row's path below the root, '/' between names
    int mode;         // 0 name, 1 path
    const char *want; // the text with its marked runs in brackets
};

TEST(Highlight, EachTermKindMarksWhereItMatched) {
    ref_index_t idx;
    idx.build_paths({"Docs/README.txt", "Docs/readme.txt", "Docs/notes.txt",
                     "Docs/R\xC3\xA9sum\xC3\xA9_final.doc", "Docs/resume.txt", "Docs/a readme b.md",
                     "Docs/readmes.md", "share/doc/\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1.txt",
                     "share/doc/copyright", "share/Docs/x.tar.gz"});
    const char S[] = {OS_SEP, 0};
    std::string docs_path =
        std::string(OS_SEP == '/' ? "/" : "C:") + (OS_SEP == '/' ? "" : S) + "share" + S + "doc";
    const highlight_case_t cases[] = {
        // Plain terms: every occurrence, folded the term's way.
        {"read", 0, "Docs/README.txt", 0, "[READ]ME.txt"},
        {"e", 0, "Docs/readme.txt", 0, "r[e]adm[e].txt"},
        {"resume", 0, "Docs/R\xC3\xA9sum\xC3\xA9_final.doc", 0, "[R\xC3\xA9sum\xC3\xA9]_final.doc"},
        {"r\xC3\xA9sum\xC3\xA9", SEARCH_DIACRITICS, "Docs/R\xC3\xA9sum\xC3\xA9_final.doc", 0,
         "[R\xC3\xA9sum\xC3\xA9]_final.doc"},
        {"resume", SEARCH_DIACRITICS, "Docs/resume.txt", 0, "[resume].txt"},
        {"README", SEARCH_CASE, "Docs/README.txt", 0, "[README].txt"},
        {"\xCE\xB1\xCE\xB8\xCE\xB7\xCE\xBD\xCE\xB1", 0,
         "share/doc/\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1.txt", 0,
         "[\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1].txt"},
        // Negated and failed terms mark nothing; only the true side of an OR does.
        {"!notes", 0, "Docs/readme.txt", 0, "readme.txt"},
        {"zzz | read", 0, "Docs/readme.txt", 0, "[read]me.txt"},
        {"read txt", 0, "Docs/readme.txt", 0, "[read]me.[txt]"},
        // A function beside a term marks nothing of its own.
        {"dupe: read", 0, "Docs/readme.txt", 0, "[read]me.txt"},
        // Anchored forms.
        {"readme", SEARCH_WHOLEWORD, "Docs/a readme b.md", 0, "a [readme] b.md"},
        {"startwith:rea", 0, "Docs/readme.txt", 0, "[rea]dme.txt"},
        {"endwith:.TXT", 0, "Docs/readme.txt", 0, "readme[.txt]"},
        {"exact:readme.txt", 0, "Docs/readme.txt", 0, "[readme.txt]"},
        {"ext:txt", 0, "Docs/notes.txt", 0, "notes.[txt]"},
        {"ext:gz", 0, "share/Docs/x.tar.gz", 0, "x.tar.[gz]"},
        // Wildcards: what the literals and '?' took, never what a star spanned.
        {"*.txt", 0, "Docs/notes.txt", 0, "notes[.txt]"},
        {"re?d*", 0, "Docs/readme.txt", 0, "[read]me.txt"},
        {"n*s.t?t", 0, "Docs/notes.txt", 0, "[n]ote[s.txt]"},
        // Regular expressions: each match.
        {"regex:^r.a", 0, "Docs/readme.txt", 0, "[rea]dme.txt"},
        {"regex:e", 0, "Docs/readme.txt", 0, "r[e]adm[e].txt"},
        // A path term marks the path and the name alike.
        {"doc", SEARCH_PATH, "share/doc/copyright", 1, nullptr},
        {"path:share", 0, "share/doc/copyright", 0, "copyright"},
    };
    db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
    db_highlight_t name, path;
    db_highlight_init(&name), db_highlight_init(&path);
    for (const highlight_case_t &c : cases) {
        SCOPED_TRACE(c.search);
        exec_run(q, c.search, 0, c.bits);
        std::string full = std::string(OS_SEP == '/' ? "" : "C:") + S + c.row;
        std::replace(full.begin(), full.end(), '/', OS_SEP);
        int row = db_get_result_index_from_filename(q, full.c_str());
        ASSERT_GE(row, 0) << full;
        ASSERT_TRUE(_db_get_highlighted_result(q, row, &name, &path, 2));
        // The path case: the one "doc" of the path; the root's own name holds none.
        std::string want = c.want ? c.want : docs_path.substr(0, docs_path.size() - 3) + "[doc]";
        EXPECT_EQ(bracketed(c.mode == 0 ? name : path), want);
        // The two texts are the row's own.
        EXPECT_EQ(std::string(name.text.ptr, (size_t) name.text.len), full.substr(full.rfind(OS_SEP) + 1));
        EXPECT_EQ(std::string(path.text.ptr, (size_t) path.text.len), full.substr(0, full.rfind(OS_SEP)));
    }
    // A row out of range empties what was asked.
    EXPECT_FALSE(_db_get_highlighted_result(q, 1000, &name, nullptr, 0));
    EXPECT_EQ(name.text.len, 0);
    db_highlight_kill(&name), db_highlight_kill(&path);
    db_destroy_query(q);
    idx.destroy();
}
