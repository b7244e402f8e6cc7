/* Operator sessions on the command socket.  The service shares the program's
 * one event loop, so it never waits for a client: every socket is
 * non-blocking, replies wait in a bounded buffer per session until the client
 * reads them, and a session takes its turn with a few requests at a time.  A
 * client that lets its buffer fill up has stopped reading and is
 * disconnected; a session without a request for the idle time is closed; a
 * peer that is neither root nor this process's user is refused. */
#include "cli_internal.h"
#include "qn_cli_proto.h"
#include "qn_thread_standin.h"

#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>

namespace {

/* Requests served in one turn of a session before the others get theirs. */
constexpr int requests_per_turn = 4;
/* Bytes read from a client in one turn. */
constexpr size_t read_chunk = 4096;

struct conn {
    int fd = -1;
    uid_t uid = 0;
    cli_session_state st;
    std::string in;              /* received, not yet served */
    std::string out;             /* replies not yet taken by the client */
    qn_thread *task = nullptr;   /* the armed read watch or queued next turn */
    struct event *write_ev = nullptr;
    struct event *idle_ev = nullptr;
    bool close_when_sent = false;
};

struct sessions {
    qn_thread_master *master = nullptr;
    struct event_base *base = nullptr;
    int listen_fd = -1;
    int idle_timeout = 0;
    std::map<int, std::unique_ptr<conn>> open;
    /* The disconnect line is written at most once a second, with a count of
     * the ones left out, so clients cannot flood the debug log. */
    std::chrono::steady_clock::time_point last_drop_line{};
    unsigned drops_untold = 0;
};

sessions *svc = nullptr;

int on_turn(qn_thread *t);

std::string reply_text(int status, const char *mode, const std::string &text)
{
    return std::to_string(status) + " " + mode + " " + std::to_string(text.size()) + "\n" + text;
}

const char *mode_word(const cli_session_state &st)
{
    if (st.ended)
        return QN_CLI_MODE_CLOSED;
    return st.config ? QN_CLI_MODE_CONFIG : QN_CLI_MODE_EXEC;
}

void close_conn(conn *c)
{
    if (c->task)
        qn_thread_cancel(c->task);
    if (c->write_ev)
        event_free(c->write_ev);
    if (c->idle_ev)
        event_free(c->idle_ev);
    int fd = c->fd;
    svc->open.erase(fd); /* frees c */
    close(fd);
}

/* Sends a final reply on a socket that is about to be closed; what does not
 * fit at once is dropped, the close tells the client anyway. */
void send_parting(int fd, int status, const char *mode, const std::string &text)
{
    std::string r = reply_text(status, mode, text);
    ssize_t n;
    do
        n = send(fd, r.data(), r.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
}

void on_writable(evutil_socket_t, short, void *arg);

/* Sends what the client will take now; false when the session was closed. */
bool flush(conn *c)
{
    while (!c->out.empty()) {
        ssize_t n = send(c->fd, c->out.data(), c->out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n <= 0) {
            close_conn(c);
            return false;
        }
        c->out.erase(0, static_cast<size_t>(n));
    }
    if (c->out.empty()) {
        if (c->write_ev)
            event_del(c->write_ev);
        if (c->close_when_sent) {
            close_conn(c);
            return false;
        }
        return true;
    }
    if (!c->write_ev)
        c->write_ev = event_new(svc->base, c->fd, EV_WRITE | EV_PERSIST, on_writable, c);
    if (!c->write_ev || event_add(c->write_ev, nullptr) != 0) {
        close_conn(c);
        return false;
    }
    return true;
}

void on_writable(evutil_socket_t, short, void *arg)
{
    flush(static_cast<conn *>(arg));
}

void note_drop(const conn &c, size_t pending)
{
    auto now = std::chrono::steady_clock::now();
    if (svc->last_drop_line != std::chrono::steady_clock::time_point{} &&
        now - svc->last_drop_line < std::chrono::seconds(1)) {
        ++svc->drops_untold;
        return;
    }
    CLI_LOG(QN_ZLOG_LEVEL_WARN,
            "cli session of uid %u stopped reading with %zu bytes of replies pending: disconnected "
            "(%u more since the last such line).",
            static_cast<unsigned>(c.uid), pending, svc->drops_untold);
    svc->last_drop_line = now;
    svc->drops_untold = 0;
}

/* Queues a reply; false when the client has stopped reading (the session is
 * then closed). */
bool queue_reply(conn *c, int status, const std::string &text)
{
    std::string r = reply_text(status, mode_word(c->st), text);
    if (!c->out.empty() && c->out.size() + r.size() > QN_CLI_MAX_PENDING_OUTPUT) {
        note_drop(*c, c->out.size());
        close_conn(c);
        return false;
    }
    c->out += r;
    return true;
}

void restart_idle_timer(conn *c)
{
    if (!c->idle_ev)
        return;
    struct timeval tv = {svc->idle_timeout, 0};
    event_add(c->idle_ev, &tv);
}

void on_idle(evutil_socket_t, short, void *arg)
{
    auto *c = static_cast<conn *>(arg);
    CLI_LOG(QN_ZLOG_LEVEL_DEBUG, "cli session of uid %u idle for %d seconds: closed.",
            static_cast<unsigned>(c->uid), svc->idle_timeout);
    if (c->out.empty())
        send_parting(c->fd, QN_CLI_STATUS_CLOSED, mode_word(c->st),
                     "% Session closed: no command for " + std::to_string(svc->idle_timeout) +
                         (svc->idle_timeout == 1 ? " second.\n" : " seconds.\n"));
    close_conn(c);
}

bool complete_request_waiting(const conn &c)
{
    return c.in.find('\n') != std::string::npos;
}

/* Arms the session's next turn: at once (through the loop, behind what is
 * ready) when requests are waiting, else when the client sends more. */
void schedule(conn *c)
{
    if (complete_request_waiting(*c))
        c->task = qn_thread_add_timer_withname(svc->master, on_turn, c, 0, "cli_session");
    else
        c->task = qn_thread_add_read(svc->master, on_turn, c, c->fd, "cli_session");
    if (!c->task)
        close_conn(c);
}

/* One turn of a session: read what the client sent if no request is waiting,
 * serve a few requests, send what the client takes. */
int on_turn(qn_thread *t)
{
    auto *c = static_cast<conn *>(QN_THREAD_ARG(t));
    c->task = nullptr;
    if (!complete_request_waiting(*c)) {
        char buf[read_chunk];
        ssize_t n = recv(c->fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            schedule(c);
            return 0;
        }
        if (n <= 0) {
            /* The client is done sending; it still gets what is pending. */
            if (n == 0 && !c->out.empty()) {
                c->close_when_sent = true;
                c->in.clear();
                flush(c);
            } else {
                close_conn(c);
            }
            return 0;
        }
        c->in.append(buf, static_cast<size_t>(n));
    }
    int served = 0;
    size_t nl;
    while (served < requests_per_turn && (nl = c->in.find('\n')) != std::string::npos) {
        std::string req = c->in.substr(0, nl);
        c->in.erase(0, nl + 1);
        size_t sp = req.find(' ');
        std::string verb = req.substr(0, sp);
        std::string text = sp == std::string::npos ? "" : req.substr(sp + 1);
        std::string out;
        int status = cli_service_request(c->st, verb, text, out);
        if (!queue_reply(c, status, out))
            return 0;
        ++served;
        if (c->st.ended) {
            c->close_when_sent = true;
            c->in.clear();
            break;
        }
    }
    if (served > 0)
        restart_idle_timer(c);
    if (!c->close_when_sent && !complete_request_waiting(*c) && c->in.size() >= QN_CLI_MAX_LINE) {
        c->in.clear();
        c->close_when_sent = true;
        if (!queue_reply(c, QN_CLI_STATUS_REFUSED,
                         "% Command line too long (at most " + std::to_string(QN_CLI_MAX_LINE - 1) +
                             " characters).\n"))
            return 0;
    }
    if (!flush(c))
        return 0;
    if (!c->close_when_sent)
        schedule(c);
    return 0;
}

/* Root and the daemon's own user may use the command line; the socket's mode
 * says the same, this holds even when the mode is changed. */
bool peer_allowed(int fd, uid_t *uid)
{
    struct ucred cred = {};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return false;
    *uid = cred.uid;
    return cred.uid == 0 || cred.uid == geteuid();
}

void admit(int fd)
{
    uid_t uid = static_cast<uid_t>(-1);
    if (!peer_allowed(fd, &uid)) {
        CLI_LOG(QN_ZLOG_LEVEL_WARN, "cli session of uid %d refused: only root and uid %u are served.",
                static_cast<int>(uid), static_cast<unsigned>(geteuid()));
        send_parting(fd, QN_CLI_STATUS_CLOSED, QN_CLI_MODE_EXEC,
                     "% Permission denied: uid " + std::to_string(static_cast<int>(uid)) +
                         " may not use this command line.\n");
        close(fd);
        return;
    }
    if (svc->open.size() >= QN_CLI_MAX_SESSIONS) {
        send_parting(fd, QN_CLI_STATUS_CLOSED, QN_CLI_MODE_EXEC,
                     "% Too many sessions: " + std::to_string(svc->open.size()) + " of " +
                         std::to_string(QN_CLI_MAX_SESSIONS) + " open, try again later.\n");
        close(fd);
        return;
    }
    auto c = std::make_unique<conn>();
    c->fd = fd;
    c->uid = uid;
    conn *raw = c.get();
    svc->open[fd] = std::move(c);
    if (svc->idle_timeout > 0) {
        raw->idle_ev = evtimer_new(svc->base, on_idle, raw);
        if (!raw->idle_ev) {
            close_conn(raw);
            return;
        }
        restart_idle_timer(raw);
    }
    schedule(raw);
}

int on_listen(qn_thread *)
{
    /* A bounded batch per turn: a connection flood takes turns too. */
    for (int i = 0; i < QN_CLI_MAX_SESSIONS; ++i) {
        int fd = accept4(svc->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            break;
        admit(fd);
    }
    if (!qn_thread_add_read(svc->master, on_listen, nullptr, svc->listen_fd, "cli_listen"))
        CLI_LOG(QN_ZLOG_LEVEL_ERROR, "cli socket no longer watched: new sessions are not served.");
    return 0;
}

} // namespace

int cli_sessions_start(qn_thread_master *master, int listen_fd, int idle_timeout)
{
    static sessions instance;
    svc = &instance;
    svc->master = master;
    svc->base = qn_thread_master_event_base(master);
    svc->listen_fd = listen_fd;
    svc->idle_timeout = idle_timeout;
    if (!svc->base)
        return -1;
    return qn_thread_add_read(master, on_listen, nullptr, listen_fd, "cli_listen") ? 0 : -1;
}
