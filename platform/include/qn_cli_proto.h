/* Wire format between the operator shell and the command-line service on its
 * Unix socket.  Request: one line "<verb> <text>\n" with verb exec, help or
 * complete.  Reply: "<status> <mode> <length>\n" and `length` bytes of text.
 * Status 0 means done, 1 refused, 2 the service ends the session (too many
 * sessions, a peer it does not serve, idle too long): the text says why and
 * the connection closes after it.  Mode is the session's mode afterwards:
 * exec, config, or closed when the command ended the session (exit, quit). */
#ifndef QN_CLI_PROTO_H
#define QN_CLI_PROTO_H

#include <stddef.h>

/* The longest request line the service reads, newline included. */
#define QN_CLI_MAX_LINE 4096
/* Sessions served at once; more are refused. */
#define QN_CLI_MAX_SESSIONS 16
/* Replies a session may have waiting for its client to read them; a client
 * that lets more pile up has stopped reading and is disconnected.  One reply
 * is always taken whole, however long. */
#define QN_CLI_MAX_PENDING_OUTPUT (256 * 1024)
/* Seconds without a request after which a session is closed (0: never). */
#define QN_CLI_IDLE_TIMEOUT_DEF 600

#define QN_CLI_STATUS_DONE 0
#define QN_CLI_STATUS_REFUSED 1
#define QN_CLI_STATUS_CLOSED 2

#define QN_CLI_MODE_EXEC "exec"
#define QN_CLI_MODE_CONFIG "config"
#define QN_CLI_MODE_CLOSED "closed"

#define QN_CLI_SOCKET_NAME "cli.sock"
#define QN_CLI_STARTUP_NAME "startup-config"
/* The startup configuration before the last "write memory". */
#define QN_CLI_STARTUP_SAVED_SUFFIX ".sav"

#endif
