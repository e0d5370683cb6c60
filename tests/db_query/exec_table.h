// The table of searches that every way into the index must answer alike: each row a search, the flags
// it runs under, and the predicate that decides each record of the generated reference index from the
// language's definitions. Execution tests check the predicates; the servers' tests check that their
// answers equal the in-process search row by row.
#pragma once

#include "exec_reference.h"

#include "os/os.h"

using pred_t = std::function<bool(const ref_record_t &)>;

struct exec_case_t {
    std::string search;
    uint32_t bits;
    pred_t pred;
};

inline std::vector<exec_case_t> exec_table() {
    const char S = OS_SEP;
    auto name_has = [](const char *t) {
        return [t](const ref_record_t &r) { return ref_contains(r.name, t); };
    };
    auto is_file = [](const ref_record_t &r) { return !r.folder; };
    auto stem_eq = [](const ref_record_t &r, const char *t) { return ref_lb(r.name) == ref_lb(t); };
    std::vector<exec_case_t> t = {
        {"", 0, [](const ref_record_t &) { return true; }},
        {"readme", 0, name_has("readme")},
        {"README", 0, name_has("readme")},
        {"resume", 0, name_has("resume")},
        {"r\xC3\xA9sum\xC3\xA9", 0, name_has("resume")},
        {"\xCE\xB1\xCE\xB8\xCE\xB7\xCE\xBD\xCE\xB1", 0, name_has("\xCE\xB1\xCE\xB8\xCE\xB7\xCE\xBD\xCE\xB1")},
        {"\xD0\x9C\xD0\x9E\xD0\xA1", 0, name_has("\xD0\xBC\xD0\xBE\xD1\x81")},
        {"\xE6\x9D\xB1", 0, name_has("\xE6\x9D\xB1")},
        {"readme", SEARCH_CASE,
         [](const ref_record_t &r) {
             return ref_fold(r.name, true, false).find("readme") != std::string::npos;
         }},
        {"r\xC3\xA9sum\xC3\xA9", SEARCH_DIACRITICS,
         [](const ref_record_t &r) {
             return ref_fold(r.name, false, true).find("r\xC3\xA9sum\xC3\xA9") != std::string::npos;
         }},
        {"resume", SEARCH_DIACRITICS,
         [](const ref_record_t &r) {
             return ref_fold(r.name, false, true).find("resume") != std::string::npos;
         }},
        {"R\xC3\x89SUM\xC3\x89", SEARCH_CASE | SEARCH_DIACRITICS,
         [](const ref_record_t &r) { return r.name.find("R\xC3\x89SUM\xC3\x89") != std::string::npos; }},
        {"case:ReadMe", 0,
         [](const ref_record_t &r) {
             return ref_fold(r.name, true, false).find("ReadMe") != std::string::npos;
         }},
        {"!readme", 0, [](const ref_record_t &r) { return !ref_contains(r.name, "readme"); }},
        // One-byte and negated terms in the case-sensitive foldings: the scan's byte filter must hand
        // every name with a high byte to the matcher, and a negated op takes the records between hits.
        {"e", 0, name_has("e")},
        {"!e", SEARCH_CASE,
         [](const ref_record_t &r) { return ref_fold(r.name, true, false).find('e') == std::string::npos; }},
        {"!ReadMe", SEARCH_CASE | SEARCH_DIACRITICS,
         [](const ref_record_t &r) { return r.name.find("ReadMe") == std::string::npos; }},
        {"readme abc", 0,
         [](const ref_record_t &r) { return ref_contains(r.name, "readme") && ref_contains(r.name, "abc"); }},
        {"readme | abc", 0,
         [](const ref_record_t &r) { return ref_contains(r.name, "readme") || ref_contains(r.name, "abc"); }},
        {"!<readme | abc>", 0,
         [](const ref_record_t &r) {
             return !ref_contains(r.name, "readme") && !ref_contains(r.name, "abc");
         }},
        {"<readme | abc> !txt", 0,
         [](const ref_record_t &r) {
             return (ref_contains(r.name, "readme") || ref_contains(r.name, "abc")) &&
                    !ref_contains(r.name, "txt");
         }},
        {"file:", 0, is_file},
        {"folder:", 0, [](const ref_record_t &r) { return r.folder; }},
        {"file:readme", 0, [](const ref_record_t &r) { return !r.folder && ref_contains(r.name, "readme"); }},
        {"!file:readme", 0,
         [](const ref_record_t &r) { return r.folder || !ref_contains(r.name, "readme"); }},
        {"folder:!abc", 0, [](const ref_record_t &r) { return r.folder && !ref_contains(r.name, "abc"); }},
        {"*.so", 0,
         [](const ref_record_t &r) {
             return ref_lb(r.name).size() >= 3 && ref_lb(r.name).rfind(".so") == ref_lb(r.name).size() - 3;
         }},
        {"readme*", 0, [](const ref_record_t &r) { return ref_lb(r.name).rfind("readme", 0) == 0; }},
        {"*abc*", 0, name_has("abc")},
        {"a?c", 0,
         [](const ref_record_t &r) {
             // One wildcard and whole-name matching: three code points, a, any, c.
             std::string n = ref_lb(r.name);
             std::vector<uint32_t> cps;
             for (size_t i = 0; i < n.size();) {
                 int len;
                 cps.push_back(text_decode((const uint8_t *) n.data() + i, n.size() - i, &len));
                 i += (size_t) len;
             }
             return cps.size() == 3 && cps[0] == 'a' && cps[2] == 'c';
         }},
        {"exact:abc", 0, [=](const ref_record_t &r) { return stem_eq(r, "abc"); }},
        {"startwith:read", 0, [](const ref_record_t &r) { return ref_lb(r.name).rfind("read", 0) == 0; }},
        {"endwith:.txt", 0,
         [](const ref_record_t &r) {
             std::string n = ref_lb(r.name);
             return n.size() >= 4 && n.compare(n.size() - 4, 4, ".txt") == 0;
         }},
        {"ww:lib", 0,
         [](const ref_record_t &r) {
             std::string n = ref_lb(r.name);
             for (size_t i = n.find("lib"); i != std::string::npos; i = n.find("lib", i + 1)) {
                 bool left = i == 0 || !text_is_word_byte((uint8_t) n[i - 1]);
                 bool right = i + 3 == n.size() || !text_is_word_byte((uint8_t) n[i + 3]);
                 if (left && right)
                     return true;
             }
             return false;
         }},
        {"ext:so", 0, [](const ref_record_t &r) { return !r.folder && ref_lb(ref_ext(r.name)) == "so"; }},
        {"ext:so;a", 0,
         [](const ref_record_t &r) {
             return !r.folder && (ref_lb(ref_ext(r.name)) == "so" || ref_lb(ref_ext(r.name)) == "a");
         }},
        {"ext:gz", 0, [](const ref_record_t &r) { return !r.folder && ref_lb(ref_ext(r.name)) == "gz"; }},
        {"ext:", 0, [](const ref_record_t &r) { return !r.folder && ref_ext(r.name).empty(); }},
        {"ext:;txt", 0,
         [](const ref_record_t &r) {
             return !r.folder && (ref_ext(r.name).empty() || ref_lb(ref_ext(r.name)) == "txt");
         }},
        {"!ext:txt", 0, [](const ref_record_t &r) { return r.folder || ref_lb(ref_ext(r.name)) != "txt"; }},
        {"ext:ete", 0, [](const ref_record_t &r) { return !r.folder && ref_lb(ref_ext(r.name)) == "ete"; }},
        {"root:", 0, [](const ref_record_t &r) { return r.parent == 0; }},
        {"!root:", 0, [](const ref_record_t &r) { return r.parent != 0; }},
        {"parents:3", 0, [](const ref_record_t &r) { return r.depth == 3; }},
        {"depth:>10", 0, [](const ref_record_t &r) { return r.depth > 10; }},
        {"parents:2..4", 0, [](const ref_record_t &r) { return r.depth >= 2 && r.depth <= 4; }},
        {"len:6", 0,
         [](const ref_record_t &r) { return utf8_utf16_length_counted(r.name.data(), r.name.size()) == 6; }},
        {"len:>20", 0,
         [](const ref_record_t &r) { return utf8_utf16_length_counted(r.name.data(), r.name.size()) > 20; }},
        {"fsi:0", 0, [](const ref_record_t &) { return true; }},
        {"fsi:1", 0, [](const ref_record_t &) { return false; }},
        {"size:<100", 0, [](const ref_record_t &r) { return r.size < 100; }},
        {"size:>=4000", 0, [](const ref_record_t &r) { return r.size >= 4000 && r.size != DB_UNKNOWN; }},
        {"!size:>=4000", 0, [](const ref_record_t &r) { return !(r.size >= 4000 && r.size != DB_UNKNOWN); }},
        {"attrib:h", 0, [](const ref_record_t &r) { return (r.attributes & 2) != 0; }},
        {"attrib:rh", 0, [](const ref_record_t &r) { return (r.attributes & 3) == 3; }},
        {"!attrib:r", 0, [](const ref_record_t &r) { return !(r.attributes & 1); }},
        {"dm:dc:", 0, [](const ref_record_t &r) { return r.dm == r.dc; }},
        {"dm:>dc:", 0, [](const ref_record_t &r) { return r.dm > r.dc; }},
        {"dc:>=dm:", 0, [](const ref_record_t &r) { return r.dm <= r.dc; }},
        {"empty:", 0, [](const ref_record_t &r) { return r.folder && r.child_files + r.child_folders == 0; }},
        {"!empty:", 0,
         [](const ref_record_t &r) { return !r.folder || r.child_files + r.child_folders > 0; }},
        {"empty: !file:", 0,
         [](const ref_record_t &r) { return r.folder && r.child_files + r.child_folders == 0; }},
        {"childcount:3", 0,
         [](const ref_record_t &r) { return r.folder && r.child_files + r.child_folders == 3; }},
        {"childfilecount:>5", 0, [](const ref_record_t &r) { return r.folder && r.child_files > 5; }},
        {"childfoldercount:0", 0, [](const ref_record_t &r) { return r.folder && r.child_folders == 0; }},
        {"!childfoldercount:0", 0, [](const ref_record_t &r) { return !r.folder || r.child_folders != 0; }},
        {"child:readme", 0,
         [](const ref_record_t &r) {
             if (!r.folder)
                 return false;
             for (auto &c : r.child_names)
                 if (ref_contains(c, "readme"))
                     return true;
             return false;
         }},
        {"child:*.so empty:", 0, [](const ref_record_t &) { return false; }},
        {"regex:^read", 0, [](const ref_record_t &r) { return ref_lb(r.name).rfind("read", 0) == 0; }},
        {"regex:\\.so$", 0,
         [](const ref_record_t &r) {
             std::string n = ref_lb(r.name);
             return n.size() >= 3 && n.compare(n.size() - 3, 3, ".so") == 0;
         }},
        {"!regex:[0-9]", 0,
         [](const ref_record_t &r) { return r.name.find_first_of("0123456789") == std::string::npos; }},
        {"type:\"TXT File\"", 0,
         [](const ref_record_t &r) { return !r.folder && ref_lb(ref_ext(r.name)) == "txt"; }},
        {"runcount:>0", 0, [](const ref_record_t &) { return false; }},
        {"!runcount:>0", 0, [](const ref_record_t &) { return true; }},
        {"content:abc", 0, [](const ref_record_t &) { return false; }},
        {"!content:abc", 0, [](const ref_record_t &) { return true; }},
        {"file:!content:abc", 0, [](const ref_record_t &r) { return !r.folder; }},
        {"width:>10", 0, [](const ref_record_t &) { return false; }},
    };
    // Path forms: the full path decides.
    std::string doc = std::string(1, S) + "doc" + S;
    t.push_back({"path:" + std::string(1, S) + "doc", 0, [](const ref_record_t &r) {
                     std::string p = ref_lb(r.path);
                     for (size_t i = p.find(S); i != std::string::npos; i = p.find(S, i + 1))
                         if (p.compare(i + 1, 3, "doc") == 0)
                             return true;
                     return false;
                 }});
    if (S == '/') {
        // On Linux a leading separator makes the text absolute: everything below the top folder doc.
        t.push_back({doc, 0, [doc](const ref_record_t &r) { return ref_lb(r.path).rfind(doc, 0) == 0; }});
    } else {
        t.push_back({doc, 0, [doc](const ref_record_t &r) {
                         // Some component above the record is exactly "doc".
                         std::string p = ref_lb(r.path);
                         size_t last = p.rfind(S);
                         return last != std::string::npos &&
                                (p.substr(0, last) + S).find(doc) != std::string::npos;
                     }});
    }
    t.push_back({std::string("doc") + S, 0, [](const ref_record_t &r) {
                     // Some component above the record ends with "doc".
                     for (db_ref_t p = r.parent; p && db_record_parent(p); p = db_record_parent(p)) {
                         uint32_t n;
                         const char *raw = db_record_name(p, &n);
                         std::string name = ref_lb(std::string(raw, n));
                         if (name.size() >= 3 && name.compare(name.size() - 3, 3, "doc") == 0)
                             return true;
                     }
                     return false;
                 }});
    t.push_back(
        {"path:share", SEARCH_PATH, [](const ref_record_t &r) { return ref_contains(r.path, "share"); }});
    t.push_back({"share", SEARCH_PATH, [](const ref_record_t &r) { return ref_contains(r.path, "share"); }});
    t.push_back(
        {"nopath:share", SEARCH_PATH, [](const ref_record_t &r) { return ref_contains(r.name, "share"); }});
    // filelist: names, compared the way the term's case and diacritics flags say.
    for (uint32_t bits :
         {0u, (uint32_t) SEARCH_CASE, (uint32_t) SEARCH_DIACRITICS, SEARCH_CASE | SEARCH_DIACRITICS}) {
        static const char *const list[] = {"readme.txt", "README", "r\xC3\xA9sum\xC3\xA9.md", "ABC.so",
                                           "Lib"};
        bool c = bits & SEARCH_CASE, d = bits & SEARCH_DIACRITICS;
        t.push_back({"filelist:\"readme.txt|README|r\xC3\xA9sum\xC3\xA9.md|ABC.so|Lib\"", bits,
                     [c, d](const ref_record_t &r) {
                         for (const char *e : list)
                             if (ref_fold(r.name, c, d) == ref_fold(e, c, d))
                                 return true;
                         return false;
                     }});
    }
    t.push_back({"!filelist:\"readme.txt|lib\"", 0, [](const ref_record_t &r) {
                     return ref_lb(r.name) != "readme.txt" && ref_lb(r.name) != "lib";
                 }});
    return t;
}
