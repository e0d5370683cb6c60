// What the parts of the STP server share: the verbs that live outside the session file, the data
// connection and the result stream.
#pragma once

#include "stp/stp.h"

// Wrong-password reply delay; 0 answers at once (tests, fuzzing).
extern uint32_t stp_login_delay_ms;

// Resolves a path argument against the session's folder and looks it up in the index.
bool stp_resolve_node(stp_session_t *s, const char *arg, str_t *path, stp_node_t *node);

// The data connection verbs and transfers (data.cpp).
void stp_port(stp_session_t *s, const char *arg);
void stp_eprt(stp_session_t *s, const char *arg);
void stp_pasv(stp_session_t *s, const char *arg);
void stp_epsv(stp_session_t *s, const char *arg);
void stp_list(stp_session_t *s, const char *arg);
void stp_mlsd(stp_session_t *s, const char *arg);
void stp_mlst(stp_session_t *s, const char *arg);
void stp_retr(stp_session_t *s, const char *arg);
// Closes the data socket and passive listener, stops the reader, frees the transfer; back to no mode.
void stp_data_close(stp_session_t *s);

// The SABLEWATCH verb and the result stream (query.cpp).
void stp_query_verb(stp_session_t *s, const char *arg);
// Sends results while the control connection has room; ends the stream with "200 End.".
void stp_query_stream(stp_session_t *s);
