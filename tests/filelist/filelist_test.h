// Helpers shared by the list tests: reading a table from a text, and a tree callback that records every
// record it is given with its full path, so tests compare paths rather than callback sequences.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filelist/filelist.h"
#include "mem/mem.h"

struct tree_node {
    size_t parent; // index + 1 of the parent node, 0 for the top
    filelist_kind_t kind;
    std::string name;
    std::string path; // names from the top joined with the list's separator
    os_file_info_t fd;
};

struct tree_record {
    std::vector<tree_node> nodes;
    char sep;
};

inline uintptr_t tree_record_proc(void *ctx, uintptr_t parent, filelist_kind_t kind, const char *name,
                                  uint32_t len, const os_file_info_t *fd) {
    tree_record *r = (tree_record *) ctx;
    tree_node n;
    n.parent = parent;
    n.kind = kind;
    n.name.assign(name, len);
    n.path = parent ? r->nodes[parent - 1].path + r->sep + n.name : n.name;
    n.fd = *fd;
    r->nodes.push_back(n);
    return r->nodes.size();
}

// Reads text as a list whose folder is base, with the separator rules of sep.
inline int read_list_text(filelist_t *list, const std::string &text, const char *base,
                          filelist_options_t options = {}) {
    csv_t *csv = csv_open_memory(text.data(), text.size());
    int status = filelist_read_csv(list, csv, base, &options);
    csv_close(csv);
    return status;
}

// Reads text and runs the tree step, returning every record made.
inline std::vector<tree_node> tree_of_text(const std::string &text, const char *base, char sep,
                                           filelist_options_t options = {}) {
    filelist_t list;
    filelist_init(&list, sep);
    read_list_text(&list, text, base, options);
    tree_record r;
    r.sep = sep;
    filelist_tree(&list, tree_record_proc, &r);
    filelist_kill(&list);
    return r.nodes;
}

// "F path", "D path" or "I path" for each record: file, named folder, implied folder.
inline std::vector<std::string> tree_lines(const std::vector<tree_node> &nodes) {
    std::vector<std::string> out;
    for (const tree_node &n : nodes) {
        const char *k = n.kind == FILELIST_FILE ? "F " : (n.kind == FILELIST_FOLDER ? "D " : "I ");
        out.push_back(k + n.path);
    }
    return out;
}
