/* Parts of the command-line service stand-in, shared between its files:
 * cli_service.cpp (graphs, built-in commands, running a line) and
 * cli_sessions.cpp (the operator sessions on the socket); the files on disk
 * are cli_files.cpp's (qn_cli_files.h). */
#ifndef QN_CLI_INTERNAL_H
#define QN_CLI_INTERNAL_H

#include "qn_cli_files.h"
#include "qn_thread.h"
#include "qn_zlog.h"

#include <string>
#include <vector>

/* What the service remembers of one session between its requests. */
struct cli_session_state {
    bool config = false; /* configuration mode, else exec mode */
    bool ended = false;  /* the operator ended the session (exit, quit) */
};

/* Runs one request ("exec", "help" or "complete" and its text) of a session;
 * the reply text goes to `out`.  Returns the reply status
 * (QN_CLI_STATUS_DONE or QN_CLI_STATUS_REFUSED). */
int cli_service_request(cli_session_state &st, const std::string &verb, const std::string &text, std::string &out);

/* A line of the service in the program's debug log (level QN_ZLOG_LEVEL_*). */
void cli_service_log(int level, const char *file, const char *func, long line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
#define CLI_LOG(level, fmt, ...) cli_service_log(level, __FILE_NAME__, __func__, __LINE__, fmt, ##__VA_ARGS__)

/* Serves sessions on the listening socket `listen_fd` on the loop `master`;
 * a session without a request for `idle_timeout` seconds is closed (0:
 * never).  0, or -1. */
int cli_sessions_start(qn_thread_master *master, int listen_fd, int idle_timeout);

#endif
