// Helpers for the command-line tests: a cl_t written out as one line of its non-default fields, and the
// expansion of the placeholders that the expected lines use for what differs between platforms.
#pragma once

#include "cl/cl.h"
#include "mem/mem.h"
#include "os/os.h"

#include <cstdio>
#include <string>

// The folder that relative paths of the tests are resolved against, in the platform's form.
inline const char *test_base() {
    return OS_SEP == '\\' ? "C:\\base" : "/base";
}

inline std::string test_exe_folder() {
    str_t s;
    str_init(&s);
    os_exe_folder(&s);
    std::string r(s.ptr, (size_t) s.len);
    str_kill(&s);
    return r;
}

// {B} is the base folder, {/} the platform's separator, {E} the executable's folder.
inline std::string test_expand(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text.compare(i, 3, "{B}") == 0) {
            out += test_base();
            i += 2;
        } else if (text.compare(i, 3, "{/}") == 0) {
            out += OS_SEP;
            i += 2;
        } else if (text.compare(i, 3, "{E}") == 0) {
            out += test_exe_folder();
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Every field that differs from its value after an empty command line, in the order of cl_t, as
// "name=value" separated by "; ". Lists write one entry per item.
inline std::string test_describe(const cl_t *cl) {
    std::string s;
    auto add = [&s](const char *name, const std::string &value) {
        if (!s.empty()) {
            s += "; ";
        }
        s += name;
        s += "=";
        s += value;
    };
    auto hex = [](uint32_t v) {
        char b[16];
        snprintf(b, sizeof b, "0x%x", v);
        return std::string(b);
    };
    auto text = [&add](const char *name, const char *v) {
        if (v) {
            add(name, v);
        }
    };
    auto num = [&add](const char *name, int64_t v, int64_t unset) {
        if (v != unset) {
            add(name, std::to_string(v));
        }
    };
    if (cl->flags) {
        add("flags", hex(cl->flags));
    }
    if (cl->on) {
        add("on", hex(cl->on));
    }
    if (cl->off) {
        add("off", hex(cl->off));
    }
    text("instance", cl->instance);
    text("config", cl->config);
    text("db", cl->db);
    text("file_list", cl->file_list);
    text("edit", cl->edit);
    text("bookmark", cl->bookmark);
    text("filter", cl->filter);
    text("install", cl->install);
    text("install_options", cl->install_options);
    text("uninstall", cl->uninstall);
    text("connect", cl->connect);
    text("install_config", cl->install_config);
    text("service_pipe_name", cl->service_pipe_name);
    text("svc_pipe_name", cl->svc_pipe_name);
    text("svc_security_descriptor", cl->svc_security_descriptor);
    text("install_service_pipe_name", cl->install_service_pipe_name);
    text("install_service_security_descriptor", cl->install_service_security_descriptor);
    text("select", cl->select);
    num("language", cl->language, -1);
    num("install_language", cl->install_language, -1);
    num("link_type", cl->link_type, 1);
    num("load_delay", cl->load_delay, 0);
    num("service_op", cl->service_op, 0);
    num("client_service_op", cl->client_service_op, 0);
    num("sort_dir", cl->sort_dir, 0);
    num("sort", cl->sort, -1);
    num("thumbnail_size", cl->thumbnail_size, 0);
    num("file_op", cl->file_op, 0);
    num("focus", cl->focus, 0);
    if (cl->save_install_options) {
        add("install_options_value", std::to_string(cl->install_options_value));
    }
    for (const cl_journal_op_t *j = cl->journal_ops; j; j = j->next) {
        add("journal", std::to_string(j->op) + "," + j->volume + "," + std::to_string(j->max_size) + "," +
                           std::to_string(j->allocation_delta));
    }
    for (const cl_search_part_t *p = cl->search_parts; p; p = p->next) {
        add("part", std::to_string(p->kind) + ":" + p->text);
    }
    text("create_file_list_filename", cl->create_file_list_filename);
    text("create_file_list_path", cl->create_file_list_path);
    text("create_file_list_exclude_files", cl->create_file_list_exclude_files);
    text("create_file_list_exclude_folders", cl->create_file_list_exclude_folders);
    text("create_file_list_include_only_files", cl->create_file_list_include_only_files);
    int count = 0;
    for (const cl_path_t *f = cl->file_op_paths; f; f = f->next) {
        add("path", f->path);
        count++;
    }
    if (count != cl->file_op_path_count) {
        add("BAD_COUNT", std::to_string(cl->file_op_path_count));
    }
    return s;
}

// Parses a line that has no program name in front, against the test base, and describes the result.
inline std::string test_parse(const char *line) {
    cl_t *cl = cl_parse(line, test_base(), true);
    std::string r = test_describe(cl);
    cl_free(cl);
    return r;
}
