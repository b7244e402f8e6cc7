/* The shell's side of the command socket.  The socket lives in a directory
 * that must belong to root or to the user running the shell: a socket served
 * from a directory another user created (say a /tmp/stovig made before the
 * daemon's first start) would capture the operator's commands and forge the
 * answers, so it is refused before anything is sent. */
#include "connection.h"

#include "qn_cli_proto.h"
#include "qn_platform_config.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int conn = -1;
std::string received; /* read from the socket, not yet taken as a reply */

bool trusted_owner(uid_t uid)
{
    return uid == 0 || uid == getuid() || uid == geteuid();
}

std::string owner_rule()
{
    return "it must belong to root or to uid " + std::to_string(getuid()) + " and be writable by nobody else";
}

/* Why a directory on the way could not be entered; for a user who is refused
 * the private run directory of a root daemon, the way in. */
std::string denied_text(int err, const std::string &dir)
{
    std::string text = strerror(err);
    struct stat st;
    if (err == EACCES && geteuid() != 0 && stat(dir.c_str(), &st) == 0 && st.st_uid == 0) {
        const char *tmpdir = getenv("TMPDIR");
        text += "; the daemon runs as root: run the shell as root, e.g. sudo ";
        if (tmpdir && *tmpdir)
            text += std::string("env TMPDIR=") + tmpdir + " ";
        text += "qn-stovig-cli";
    }
    return text;
}

/* Reads what is there (or, when `wait`, at least something); false at the
 * end of the stream or on an error (EINTR included, so a SIGINT ends a wait). */
bool read_some(bool wait)
{
    char buf[4096];
    ssize_t n = recv(conn, buf, sizeof buf, wait ? 0 : MSG_DONTWAIT);
    if (n == 0)
        errno = 0;
    if (n <= 0)
        return false;
    received.append(buf, static_cast<size_t>(n));
    return true;
}

/* Takes one complete reply off `received`; false while it is incomplete or
 * malformed (`bad` set for malformed). */
bool take_reply(cli_reply &r, bool &bad)
{
    bad = false;
    size_t nl = received.find('\n');
    if (nl == std::string::npos) {
        bad = received.size() > 64;
        return false;
    }
    int status = 0;
    char mode[16] = {0};
    size_t len = 0;
    std::string head = received.substr(0, nl);
    if (sscanf(head.c_str(), "%d %15s %zu", &status, mode, &len) != 3 || status < 0 || status > 2 ||
        len > (64u << 20)) {
        bad = true;
        return false;
    }
    if (received.size() - nl - 1 < len)
        return false;
    r.status = status;
    r.mode = mode;
    r.text = received.substr(nl + 1, len);
    r.lost = false;
    received.erase(0, nl + 1 + len);
    return true;
}

/* A reply the service sent before closing (too many sessions, idle too long),
 * if one is waiting. */
bool parting_reply(cli_reply &r)
{
    bool bad;
    while (!take_reply(r, bad)) {
        if (bad || !read_some(false))
            return false;
    }
    return true;
}

} // namespace

std::string cli_socket_path()
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (cfg && !cfg->cli_socket.empty())
        return cfg->cli_socket;
    return qn_platform_run_dir() + QN_CLI_SOCKET_NAME;
}

bool cli_connect(std::string &why)
{
    cli_disconnect();
    std::string path = cli_socket_path();
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);

    int dirfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirfd < 0) {
        if (errno == ELOOP || errno == ENOTDIR)
            why = "refusing " + path + ": its directory is not a directory (a symbolic link?); " + owner_rule();
        else
            why = "cannot reach qn-stovig at " + path + ": " + denied_text(errno, dir);
        return false;
    }
    struct stat st;
    bool ok = false;
    if (fstat(dirfd, &st) != 0)
        why = "cannot reach qn-stovig at " + path + ": " + strerror(errno);
    else if (!trusted_owner(st.st_uid))
        why = "refusing " + path + ": its directory belongs to uid " + std::to_string(st.st_uid) + "; " + owner_rule();
    else if (st.st_mode & (S_IWGRP | S_IWOTH))
        why = "refusing " + path + ": its directory is writable by others; " + owner_rule();
    else if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        why = "cannot reach qn-stovig at " + path + ": " + strerror(errno);
    else if (!S_ISSOCK(st.st_mode))
        why = "refusing " + path + ": not a socket";
    else if (!trusted_owner(st.st_uid))
        why = "refusing " + path + ": the socket belongs to uid " + std::to_string(st.st_uid) + "; " + owner_rule();
    else if (st.st_mode & (S_IWGRP | S_IWOTH))
        why = "refusing " + path + ": the socket is writable by others; " + owner_rule();
    else
        ok = true;
    if (!ok) {
        close(dirfd);
        return false;
    }

    /* Connect through the checked directory, not its path again. */
    std::string via = "/proc/self/fd/" + std::to_string(dirfd) + "/" + name;
    if (access("/proc/self/fd", X_OK) != 0)
        via = path;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (via.size() >= sizeof addr.sun_path) {
        close(dirfd);
        why = "socket path too long: " + path;
        return false;
    }
    memcpy(addr.sun_path, via.c_str(), via.size() + 1);
    conn = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int r = conn < 0 ? -1 : connect(conn, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    int err = errno;
    close(dirfd);
    if (r != 0) {
        why = "cannot reach qn-stovig at " + path + ": " + strerror(err);
        cli_disconnect();
        return false;
    }
    struct ucred cred = {};
    socklen_t len = sizeof cred;
    if (getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || !trusted_owner(cred.uid)) {
        why = "refusing " + path + ": it is served by a process of uid " + std::to_string(cred.uid) +
              ", not by root or uid " + std::to_string(getuid());
        cli_disconnect();
        return false;
    }
    return true;
}

void cli_disconnect()
{
    if (conn >= 0)
        close(conn);
    conn = -1;
    received.clear();
}

bool cli_connected()
{
    return conn >= 0;
}

bool cli_dropped(std::string &parting)
{
    parting.clear();
    if (conn < 0)
        return true;
    struct pollfd p = {conn, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR)))
        return false;
    cli_reply r;
    if (parting_reply(r))
        parting = r.text;
    return true;
}

cli_reply cli_request(const std::string &verb, const std::string &text, volatile sig_atomic_t *interrupted)
{
    cli_reply r;
    std::string req = verb + " " + text + "\n";
    if (req.size() > QN_CLI_MAX_LINE) {
        r.status = QN_CLI_STATUS_REFUSED;
        r.text = "% Command line too long (at most " + std::to_string(QN_CLI_MAX_LINE - 1) + " characters).\n";
        return r;
    }
    r.lost = true;
    if (conn < 0)
        return r;
    size_t done = 0;
    while (done < req.size()) {
        ssize_t n = send(conn, req.data() + done, req.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR && !(interrupted && *interrupted))
            continue;
        if (n <= 0) {
            /* The service may have said why it closed before we wrote. */
            cli_reply parting;
            if (parting_reply(parting) && parting.status == QN_CLI_STATUS_CLOSED)
                return parting;
            return r;
        }
        done += static_cast<size_t>(n);
    }
    r.sent = true;
    bool bad;
    while (!take_reply(r, bad)) {
        if (bad)
            return r;
        if (!read_some(true)) {
            if (errno == EINTR && !(interrupted && *interrupted))
                continue;
            return r;
        }
    }
    r.sent = true;
    return r;
}
