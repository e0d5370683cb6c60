// The HTTP server: a search page whose result tables sort and page themselves, browsing of the indexed
// folders, downloads of indexed files, a JSON form of both, and static pages from the user's folder. Each
// connection reads one request and gets one answer; then it closes.
//
// Invariants:
// - Everything here runs on the main thread: the one query, the waiting queue and every connection.
// - The server serves one search at a time. A connection whose search waits is on the waiting queue; the
//   one whose search or sort runs is running; a connection that closes leaves the queue, and if it was
//   running its search is cancelled.
// - No file is opened for a request before its path was canonicalised; a file outside the home folder is
//   only sent when it is in the index and downloads are allowed.
// - The socket layer reaches a connection only through http_connection_open, _receive, _tick and _close,
//   and the connection reaches the socket only through its sink: the protocol needs no socket to be tested.
#pragma once

#include <cstddef>
#include <cstdint>

#include "db/db.h"
#include "db_query/db_query.h"
#include "http/http_internal.h"
#include "os/os.h"

struct net_server_t;

// The named fragments, in the order of their keys in the replacement file.
enum http_fragment_id_t {
    HTTP_F_HEAD_BEGIN,
    HTTP_F_HEAD_END,
    HTTP_F_RESULT_TR,
    HTTP_F_RESULT_TR2,
    HTTP_F_RESULT_TD,
    HTTP_F_RESULT_TD2,
    HTTP_F_RESULT_NOBR,
    HTTP_F_RESULT_A,
    HTTP_F_RESULT_A2,
    HTTP_F_RESULT_ICON,
    HTTP_F_RESULT_ICON2,
    HTTP_F_RESULT_A_END,
    HTTP_F_RESULT_TD_END,
    HTTP_F_RESULT_NOBR_END,
    HTTP_F_RESULT_TR_END,
    HTTP_F_BODY_END,
    HTTP_F_ERROR1,
    HTTP_F_ERROR2,
    HTTP_F_ERROR3,
    HTTP_F_PATH_INDEX_OF,
    HTTP_F_PATH_INDEX_OF2,
    HTTP_F_PATH_UPDIR,
    HTTP_F_PATH_UPDIR2,
    HTTP_F_PATH_UPDIR3,
    HTTP_F_QUERY_NUMRESULTS,
    HTTP_F_QUERY_NUMRESULTS2,
    HTTP_F_QUERY_PAGE,
    HTTP_F_QUERY_PREV,
    HTTP_F_QUERY_PREV2,
    HTTP_F_QUERY_PREV3,
    HTTP_F_QUERY_NAV,
    HTTP_F_QUERY_CUR,
    HTTP_F_QUERY_CUR2,
    HTTP_F_QUERY_NUM,
    HTTP_F_QUERY_NUM2,
    HTTP_F_QUERY_NUM3,
    HTTP_F_QUERY_NEXT,
    HTTP_F_QUERY_NEXT2,
    HTTP_F_QUERY_NEXT3,
    HTTP_F_QUERY_PAGE_END,
    HTTP_F_TB_CENTER,
    HTTP_F_TB_LOGO,
    HTTP_F_TB_LOGO2,
    HTTP_F_TB_LOGO3,
    HTTP_F_TB_FORM,
    HTTP_F_TB_FORM2,
    HTTP_F_TB_FORM3,
    HTTP_F_TB_FORM4,
    HTTP_F_TB_FORM5,
    HTTP_F_TB_FORM6,
    HTTP_F_TB_FORM7,
    HTTP_F_TB_FORM8,
    HTTP_F_TB_TABLE,
    HTTP_F_TH_TD,
    HTTP_F_TH_TD2,
    HTTP_F_TH_TD3,
    HTTP_F_TH_TD4,
    HTTP_F_TH_NOBR,
    HTTP_F_TH_UPDOWN,
    HTTP_F_TH_UPDOWN2,
    HTTP_F_TH_NOBR_END,
    HTTP_F_TH_A_END,
    HTTP_F_TH_TD_END,
    HTTP_F_THS_TR,
    HTTP_F_THS_LINE,
    HTTP_F_THS_LINE2,
    HTTP_F_THS_TR_END,
    HTTP_F_TE_END,
    HTTP_FRAGMENT_COUNT
};

// Default texts and the user's replacements (section HTTP_SERVER_STRINGS of file_name, when it names a
// readable file) into fragments[HTTP_FRAGMENT_COUNT], each a heap copy freed by http_fragments_free.
void http_fragments_load(char **fragments, const char *file_name);
void http_fragments_free(char **fragments);
const char *http_fragment_name(int id);

// Where a connection's answer goes. The socket layer fills it; tests collect into memory.
struct http_sink_t {
    void *context;
    // Queues bytes (copied) for sending.
    void (*send)(void *context, const char *bytes, size_t n);
    // Sends size bytes of the open file f from start behind what is queued, then ends the answer. Takes
    // the handle, whatever happens.
    void (*send_file)(void *context, os_file_t f, uint64_t start, uint64_t size);
    // Whether the send queue has room for more; a long table waits for http_connection_writable when not.
    // Null: always.
    bool (*room)(void *context);
    // Ends the answer: the connection closes once the queue has gone out. It must not close the
    // connection from inside the call; the close comes later through http_connection_close.
    void (*end)(void *context);
    // One line for the log, belonging to this connection. May be null.
    void (*log)(void *context, const char *text);
};

struct http_server_t;

struct http_connection_t {
    http_connection_t *next, *prev;             // the server's list
    http_connection_t *queue_next, *queue_prev; // the waiting queue
    http_server_t *server;
    http_session_t session;
    http_sink_t sink;
    bool queued;
    bool request_done;    // the request ended; no more bytes are read
    bool end_of_response; // the answer has been handed whole to the sink
    // A table being written a block at a time as the peer takes it: rows [row, row_end) are still to
    // come. A search keeps the query (it stays running) until its last row is out.
    int streaming; // HTTP_STREAM_*
    uint32_t row, row_end, first, total;
    uint32_t *children; // a folder's children, folders first; owned
    uint32_t child_folders;
    uint32_t stall_row, stall_since; // where a streaming answer stood at the tick it last moved
};

enum { HTTP_STREAM_NONE, HTTP_STREAM_SEARCH, HTTP_STREAM_FOLDER };

// What the server reads at start; the texts are owned copies.
struct http_settings_t {
    char *username;
    char *password;
    char *home;         // the folder of static pages, resolved (never empty)
    char *default_page; // file served for "/", or empty
    char *header;       // extra header lines, CR LF each, or empty
    char *title_format; // empty: "$s?{$s - }$t"
    bool allow_download;
    bool show_drive_labels;
    uint32_t items_per_page;
    // Where the root list's labels come from: os_volume_label, or a test's own; null shows no labels.
    bool (*volume_label)(const char *root, str_t *out);
};

struct http_server_t {
    db_t *db;
    db_query_t *query;
    char *last_search;
    bool last_match_case, last_match_whole_word, last_match_path, last_match_diacritics, last_match_regex;
    uint32_t last_sort;
    bool last_valid;
    http_connection_t *waiting_head, *waiting_tail;
    http_connection_t *running;
    http_connection_t *first, *last;
    char *fragments[HTTP_FRAGMENT_COUNT];
    http_settings_t settings;
    uint64_t program_time; // FILETIME of the program file: the time stamp of the built-in resources
    // Server log lines that belong to no connection. May be null.
    void (*log)(void *context, const char *text);
    void *log_context;
};

// Settings from the configuration, with home resolved to the data folder's "HTTP Server" when empty.
void http_settings_from_config(http_settings_t *s);
void http_settings_kill(http_settings_t *s);

// A server over db that takes settings (moved in: the server frees them) and reads the fragments from
// fragments_file. Never null; destroyed with http_server_destroy, which closes every connection.
http_server_t *http_server_create(db_t *db, http_settings_t *settings, const char *fragments_file);
void http_server_destroy(http_server_t *server);

// A connection accepted at tick now. The sink is copied. Never null.
http_connection_t *http_connection_open(http_server_t *server, const http_sink_t *sink, uint32_t now);
// Bytes received. May answer at once, or queue a search whose answer comes from the query's callback.
void http_connection_receive(http_connection_t *c, const char *bytes, size_t n);
// The send queue has room again: a table that waited goes on.
void http_connection_writable(http_connection_t *c);
// The timer: a request not ended in time is answered 408 and ended; a search answer that a peer has
// stopped taking for as long gives up the query when others wait for it (its peer gets a cut answer).
void http_connection_tick(http_connection_t *c, uint32_t now);
// The peer went away or the answer went out: unlinks the connection, cancels its search if it runs, and
// frees it.
void http_connection_close(http_connection_t *c);

// Starts, restarts or stops the server as the settings say (at start-up and after a change of options);
// returns whether it runs. parent_window owns a message box where the platform has one, else null.
bool http_server_apply_settings(void *parent_window);
// Stops the server if it runs (at shutdown).
void http_server_shutdown();
// The socket side of the running server (its listeners and connections), or null. Owned by the server;
// valid until the next apply or shutdown.
net_server_t *http_server_net();
