/* Wire format between the operator shell and the command-line service on its
 * Unix socket.  Request: one line "<verb> <text>\n" with verb exec, help or
 * complete.  Reply: "<status> <mode> <length>\n" and `length` bytes of text;
 * status 0 means done, 1 refused; mode is the session's mode afterwards
 * (exec or config). */
#ifndef QN_CLI_PROTO_H
#define QN_CLI_PROTO_H

#include <stddef.h>

/* The longest request line the service reads, newline included. */
#define QN_CLI_MAX_LINE 4096
/* Sessions served at once; more are refused. */
#define QN_CLI_MAX_SESSIONS 16

#define QN_CLI_SOCKET_NAME "cli.sock"
#define QN_CLI_STARTUP_NAME "startup-config"

#endif
