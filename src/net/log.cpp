// The server log file: one entry per call, the file opened and closed each time so that no handle is
// kept, and trimmed at its head once it reaches its size limit.
#include <cstring>

#include "config/config.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "net/net.h"
#include "os/os.h"

void net_log_path(const net_proto_t *proto, str_t *out) {
    const char *name = *proto->log_file_name;
    if (name && name[0]) {
        config_resolve_path(name, out);
        return;
    }
    str_t folder, rel;
    str_init(&folder);
    str_init(&rel);
    config_settings_folder(&folder);
    str_printf(&rel, "Logs/%s.txt", proto->log_base);
    str_path_cat(out, folder.ptr, folder.len, rel.ptr, rel.len);
    str_kill(&rel);
    str_kill(&folder);
}

// Reads the whole file into a new block; null when it can't be read.
static char *_net_log_read(const char *path, uint64_t *size) {
    os_file_t f = os_file_open(path, OS_OPEN_READ | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID) {
        return nullptr;
    }
    uint64_t n = os_file_size(f);
    char *data = n == UINT64_MAX ? nullptr : (char *) mem_try_alloc((size_t) n + 1);
    uint64_t got = 0;
    while (data && got < n) {
        int64_t r = os_file_read(f, data + got, (size_t) (n - got));
        if (r <= 0) {
            break;
        }
        got += (uint64_t) r;
    }
    os_file_close(f);
    if (data && got != n) {
        mem_free(data);
        return nullptr;
    }
    *size = n;
    return data;
}

bool net_log_trim(const char *path, int64_t max_size, int64_t delta_size) {
    if (max_size < 1 || delta_size < 1 || max_size < delta_size) {
        return false;
    }
    os_file_info_t info;
    if (!os_get_file_info(path, &info) || info.size == UINT64_MAX || (int64_t) info.size < max_size) {
        return false;
    }
    uint64_t size;
    char *data = _net_log_read(path, &size);
    if (!data) {
        return false;
    }
    // The first line end after which no more than max - delta bytes are left.
    uint64_t keep_from = size;
    for (uint64_t i = 0; i + 1 < size; i++) {
        if (data[i] == '\r' && data[i + 1] == '\n' && size - (i + 2) <= (uint64_t) (max_size - delta_size)) {
            keep_from = i + 2;
            break;
        }
    }
    str_t tmp;
    str_init(&tmp);
    str_printf(&tmp, "%s.tmp", path);
    os_file_t f = os_file_open(tmp.ptr, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    bool ok = f != OS_FILE_INVALID;
    if (ok) {
        uint64_t n = size - keep_from;
        ok = n == 0 || os_file_write(f, data + keep_from, (size_t) n) == (int64_t) n;
        os_file_close(f);
        ok = ok && os_file_rename_over(tmp.ptr, path);
        if (!ok) {
            os_file_delete(tmp.ptr);
        }
    }
    str_kill(&tmp);
    mem_free(data);
    return ok;
}

// The folder part of a path, for making it when missing.
static void _net_log_folder(const char *path, str_t *out) {
    const char *slash = nullptr;
    for (const char *p = path; *p; p++) {
        if (*p == '/' || *p == '\\') {
            slash = p;
        }
    }
    str_set_n(out, path, slash ? (int) (slash - path) : 0);
}

void net_log_v(net_server_t *server, net_conn_t *c, const char *format, va_list args) {
    const net_proto_t *proto = server->proto;
    if (!*proto->logging_enabled) {
        return;
    }
    str_t text, path, line;
    str_init(&text);
    str_init(&path);
    str_init(&line);
    str_vprintf(&text, format, args);
    net_log_path(proto, &path);
    net_log_trim(path.ptr, *proto->log_max_size, *proto->log_delta_size);
    // The debug log takes the entry as one line of its own, whatever line end the protocol's text has.
    str_set(&line, text.ptr);
    while (line.len && (line.ptr[line.len - 1] == '\n' || line.ptr[line.len - 1] == '\r')) {
        line.ptr[--line.len] = 0;
    }
    debug_printf("%s\n", line.ptr);
    os_systemtime_t t;
    if (!os_filetime_to_local(os_filetime_now(), &t)) {
        memset(&t, 0, sizeof(t));
    }
    str_printf(&line, "%04d-%02d-%02d %02d:%02d:%02d: ", t.year, t.month, t.day, t.hour, t.minute, t.second);
    if (c) {
        str_t peer;
        str_init(&peer);
        os_net_addr_text(&c->peer, &peer);
        str_cat_printf(&line, "%u: %s: ", (unsigned) c->socket, peer.ptr);
        str_kill(&peer);
    }
    str_cat(&line, text.ptr, text.len);
    os_file_t f =
        os_file_open(path.ptr, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_APPEND | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID) {
        str_t folder;
        str_init(&folder);
        _net_log_folder(path.ptr, &folder);
        if (folder.len > 0) {
            os_folder_create_path(folder.ptr);
        }
        str_kill(&folder);
        f = os_file_open(path.ptr, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_APPEND | OS_OPEN_SHARE_READ);
    }
    if (f != OS_FILE_INVALID) {
        os_file_write(f, line.ptr, (size_t) line.len);
        os_file_close(f);
    }
    str_kill(&line);
    str_kill(&path);
    str_kill(&text);
}

void net_log(net_server_t *server, net_conn_t *c, const char *format, ...) {
    va_list args;
    va_start(args, format);
    net_log_v(server, c, format, args);
    va_end(args);
}
