// The STP server: the program's own query protocol over FTP. A client logs in as to an FTP server,
// browses the indexed tree as a read-only file system, downloads indexed files, and searches the index
// with the SABLEWATCH verb, whose results come back on the control connection.
//
// Invariants:
// - The server lives on the socket machinery of src/net (one stp_session_t per control connection, in
//   net_conn_t.session); everything but the file readers runs on the main thread.
// - Only what is in the index is ever listed or sent: a path is resolved inside the indexed tree, never
//   against a real folder, and ".." can't climb above its top.
// - Nothing but USER, PASS, QUIT and NOOP is carried out before login when a user name or password is
//   set.
// - A session's own query (made when first needed) keeps its results between pages; a new line aborts a
//   query whose answer is still due.
#pragma once

#include <cstdint>

#include "mem/mem.h"
#include "os/os_net.h"

struct net_conn_t;
struct net_server_t;
struct db_query_t;
struct os_raw_thread_t;
struct os_event_t;
struct stp_transfer_t;
struct os_main_timer_t;

enum { STP_LOGIN_NONE = 0, STP_LOGIN_BAD_USER = 1, STP_LOGIN_GOOD_USER = 2, STP_LOGIN_DONE = 3 };
enum { STP_DATA_NONE = 0, STP_DATA_PORT = 1, STP_DATA_PASSIVE = 2, STP_DATA_EPRT = 3 };
enum { STP_TRANSFER_NONE = 0, STP_TRANSFER_LIST = 1, STP_TRANSFER_RETR = 2, STP_TRANSFER_MLSD = 3 };

// The search parameters that a run compares with the last run's.
struct stp_search_t {
    bool match_case, match_whole_word, match_path, match_diacritics, match_regex, hide_empty_search_results;
    bool size_column, attributes_column, date_modified_column, date_created_column, path_column,
        file_list_filename_column, date_recently_changed_column;
    uint32_t filter_flags;
    int32_t sort;
};

struct stp_session_t {
    net_conn_t *conn;
    uint64_t restart_offset;
    db_query_t *query;
    bool query_pending;
    int login_state;
    bool ipv6;
    str_t cwd; // index form: the platform's separator, no leading one; empty is the top
    bool utf8;
    bool quit;

    stp_search_t now;
    str_t search, filter_search;
    uint32_t offset, count;
    stp_search_t last;
    str_t last_search, last_filter_search;
    bool last_valid;

    // The result stream in progress: the next result to send and the end of the window. Paused while
    // the send queue is full.
    bool streaming;
    uint32_t stream_next, stream_end;

    // Data connection.
    int data_mode;
    bool data_connected;
    os_socket_t passive_listener;
    os_net_addr_t port_address; // modes 1 and 3
    int transfer;
    os_socket_t data_socket;
    bool transfer_done;
    stp_transfer_t *xfer;

    // A wrong password's reply waits out the delay with reading paused.
    os_main_timer_t *login_delay;
};

// ---- the server ----------------------------------------------------------------------------------------

// The running server, or null.
extern net_server_t *stp_server;
// Starts the server from the settings unless it runs or allow_stp_server is off.
void _stp_server_start(void *parent_window);
void _stp_server_stop();
// Start-up and after the options change: stops when stp_server_enabled is off, restarts when the port or
// bindings changed. Returns whether the server runs.
bool stp_server_apply_settings(void *parent_window);
bool _stp_server_bind(str_t *error_text, const char *address);

// ---- a session -----------------------------------------------------------------------------------------

// Logs one entry for the session (null: the server's own).
void _stp_log(stp_session_t *session, const char *format, ...);
// Queues bytes on the control connection; final reply lines are logged.
void _stp_send(stp_session_t *session, const char *bytes, uint32_t length);
void _stp_sendf(stp_session_t *session, const char *format, ...);

// Makes the session of a new connection and sends the welcome text.
void stp_session_open(net_conn_t *c);
// One control line (its LF already cut; a CR before it is cut here).
void stp_session_line(net_conn_t *c, char *line, uint32_t len);
// Ends the session: "Disconnected.", the data state closed, the query destroyed, all freed.
void stp_session_close(net_conn_t *c);
// The control connection may take more: a paused result stream goes on.
void stp_session_writable(net_conn_t *c);
// Messages for data sockets (passive listener reached, data socket events, reader posts).
void stp_session_message(net_server_t *server, uint32_t message, os_socket_t s, uint32_t event, int error);

// The welcome text from the setting (or the default), %n %v %% expanded, as 220 reply lines.
void stp_welcome_text(const char *setting, str_t *out);

// ---- paths ---------------------------------------------------------------------------------------------

// The argument resolved against cwd into index form: "/" leads from the top, "/" and "\" both separate
// on Windows, "." is dropped and ".." removes the component before it, never going above the top.
void stp_path_resolve(const char *cwd, const char *arg, str_t *out);
// "/" + the index form with '/' between components.
void stp_path_display(const char *path, str_t *out);
// LIST's argument cleaned of options and quotes: see the listing code.
void stp_list_argument(const char *arg, str_t *out);

// ---- the indexed tree ----------------------------------------------------------------------------------

struct db_t;
// A place in the indexed tree: a folder or file record, or a folder that exists only as part of a
// source's path (the top, "home" above a source "/home/me").
struct stp_node_t {
    int kind; // 0 none, 1 virtual folder, 2 folder record, 3 file record
    uint32_t record;
};
bool stp_tree_lookup(db_t *db, const char *path, stp_node_t *out);
// Calls each for every child of a folder node, folders and files, with the child's name.
void stp_tree_list(db_t *db, const char *path, const stp_node_t *node,
                   void (*each)(void *context, const char *name, uint32_t len, bool folder, uint32_t record),
                   void *context);
// Size and date modified of a node, DB_UNKNOWN when the index doesn't hold them.
uint64_t stp_tree_size(db_t *db, const stp_node_t *node);
uint64_t stp_tree_date_modified(db_t *db, const stp_node_t *node);
