/* qn-stovig-cli's connection to the daemon's command socket: finding the
 * socket, refusing one that another user could have planted, and the
 * request/reply exchange of the wire protocol (qn_cli_proto.h). */
#ifndef QN_STOVIG_CLI_CONNECTION_H
#define QN_STOVIG_CLI_CONNECTION_H

#include <csignal>
#include <string>

struct cli_reply {
    int status = 2;          /* QN_CLI_STATUS_*; 2 also when the connection is lost */
    std::string mode = "exec";
    std::string text;
    bool lost = false;       /* no reply: the connection broke */
    bool sent = false;       /* the request reached the socket before it broke */
};

/* The socket of the daemon of this TMPDIR, or STOVIG_CONFIG's [cli] socket. */
std::string cli_socket_path();

/* Connects after checking that the socket and its directory belong to root or
 * to the user running the shell and that others cannot write them, and that
 * the process serving it is root's or the user's.  False with the reason. */
bool cli_connect(std::string &why);

void cli_disconnect();

bool cli_connected();

/* True when the service has closed the connection or has sent something
 * unasked (a parting reply), found without waiting; `parting` gets its text. */
bool cli_dropped(std::string &parting);

/* One request and its reply.  When a signal handler has set `*interrupted`,
 * a wait that the signal broke gives up with `lost` set (the caller then
 * closes the connection: its reply would come late). */
cli_reply cli_request(const std::string &verb, const std::string &text, volatile sig_atomic_t *interrupted = nullptr);

#endif
