/* The command-line service stand-in: graphs added by the program per mode,
 * operator sessions on a Unix socket in the run directory (owner only), every
 * request handled as a task of the program's event loop.  Built-in commands:
 * configure terminal, end, exit, show running-config, write memory, undebug
 * all / no debug all.  The saved startup configuration is replayed in
 * configuration mode once the loop runs. */
#include "qn_cli.h"
#include "qn_cli_parse.h"
#include "qn_cli_proto.h"
#include "qn_cli_standin.h"
#include "qn_platform_config.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

enum session_mode { MODE_EXEC, MODE_CONFIG };

struct session {
    int fd = -1;
    std::string in;
    session_mode mode = MODE_EXEC;
};

struct service {
    qn_thread_master *master = nullptr;
    std::string name;
    std::string socket_path;
    std::string startup_path;
    int listen_fd = -1;
    std::map<int, std::vector<const cli_node *const *>> modes;
    std::vector<void (*)(int)> debug_switches;
    std::map<int, std::unique_ptr<session>> sessions;
    /* Runtime graphs of the built-in words, rebuilt when commands are added. */
    std::deque<cli_node> nodes;
    std::deque<std::vector<const cli_node *>> arrays;
    cli_roots exec_roots, config_roots, exec_no_roots;
};

service *svc = nullptr;
std::string *current_out = nullptr;      /* output of the command being run */
std::vector<std::string> *current_gen = nullptr; /* lines being generated */
session *current_session = nullptr;

const cli_node *const *array_of(std::vector<const cli_node *> items)
{
    items.push_back(nullptr);
    svc->arrays.push_back(std::move(items));
    return svc->arrays.back().data();
}

const cli_node *keyword(const char *word, const char *help, const cli_node *const *next)
{
    cli_node n{};
    n.kind = CLI_NODE_KEYWORD;
    n.word = word;
    n.help = help;
    n.next = next;
    svc->nodes.push_back(n);
    return &svc->nodes.back();
}

const cli_node *gate(cli_node_kind kind, const cli_node *const *next)
{
    cli_node n{};
    n.kind = kind;
    n.next = next;
    svc->nodes.push_back(n);
    return &svc->nodes.back();
}

const cli_node *eol(cli_handler_t handler)
{
    cli_node n{};
    n.kind = CLI_NODE_EOL;
    n.handler = handler;
    svc->nodes.push_back(n);
    return &svc->nodes.back();
}

/* All alternatives of the graphs of one mode, as one array. */
const cli_node *const *merged(int mode, std::vector<const cli_node *> extra = {})
{
    std::vector<const cli_node *> items;
    for (const cli_node *const *root : svc->modes[mode])
        for (const cli_node *const *p = root; *p; ++p)
            items.push_back(*p);
    items.insert(items.end(), extra.begin(), extra.end());
    return array_of(items);
}

std::vector<std::string> generate(uint32_t flag)
{
    std::vector<std::string> lines;
    current_gen = &lines;
    for (const cli_node *g : cli_parse_generators(svc->modes[CLI_MODE_CONFIG])) {
        cli_parse_block pb{};
        pb.gen = flag;
        if (g->handler)
            g->handler(&pb);
    }
    current_gen = nullptr;
    return lines;
}

int cmd_configure(cli_parse_block *)
{
    if (current_session)
        current_session->mode = MODE_CONFIG;
    return 0;
}

int cmd_end(cli_parse_block *)
{
    if (current_session)
        current_session->mode = MODE_EXEC;
    return 0;
}

int cmd_show_running(cli_parse_block *)
{
    for (const std::string &line : generate(CLI_GEN_RUNNING))
        cli_printf("%s\n", line.c_str());
    return 0;
}

int cmd_write_memory(cli_parse_block *)
{
    std::string tmp = svc->startup_path + ".new";
    {
        std::ofstream f(tmp, std::ios::trunc);
        for (const std::string &line : generate(CLI_GEN_STARTUP))
            f << line << "\n";
        if (!f) {
            cli_printf("%% Cannot write %s.\n", svc->startup_path.c_str());
            return -1;
        }
    }
    if (rename(tmp.c_str(), svc->startup_path.c_str()) != 0) {
        cli_printf("%% Cannot write %s: %s.\n", svc->startup_path.c_str(), strerror(errno));
        return -1;
    }
    cli_printf("[OK]\n");
    return 0;
}

int cmd_debug_all_off(cli_parse_block *)
{
    for (auto off : svc->debug_switches)
        off(2);
    cli_printf("All possible debugging has been turned off\n");
    return 0;
}

void build_graphs()
{
    svc->nodes.clear();
    svc->arrays.clear();
    const cli_node *const *end_eol = array_of({eol(cmd_end)});
    const cli_node *const *off = array_of({keyword("all", "Disable all debugging", array_of({eol(cmd_debug_all_off)}))});
    const cli_node *show = keyword(
        "show", "Show running system information",
        merged(CLI_MODE_EXEC_SHOW,
               {keyword("running-config", "Current operating configuration", array_of({eol(cmd_show_running)}))}));
    const cli_node *debug = keyword("debug", "Debugging functions", merged(CLI_MODE_DEBUG));
    const cli_node *debug_no = keyword("debug", "Debugging functions", merged(CLI_MODE_DEBUG, {gate(CLI_NODE_NO, off)}));
    svc->exec_roots = {array_of({
        show,
        debug,
        keyword("undebug", "Disable debugging functions", off),
        keyword("configure", "Enter configuration mode",
                array_of({keyword("terminal", "Configure from the terminal", array_of({eol(cmd_configure)}))})),
        keyword("write", "Write running configuration to memory",
                array_of({keyword("memory", "Write to the startup configuration", array_of({eol(cmd_write_memory)}))})),
    })};
    svc->exec_no_roots = {array_of({debug_no})};
    svc->config_roots = {merged(CLI_MODE_CONFIG, {keyword("end", "Exit to the exec mode", end_eol),
                                                  keyword("exit", "Exit from configuration mode", end_eol),
                                                  show})};
}

/* Splits a leading "no" (or, in configuration mode, "default") off a line. */
const cli_roots &roots_for(session_mode mode, std::string &line, uint32_t &prefix, size_t &offset)
{
    prefix = CLI_PREFIX_NONE;
    offset = 0;
    auto tokens = cli_tokens(line);
    if (!tokens.empty()) {
        const std::string &first = tokens[0].first;
        if (first == "no")
            prefix = CLI_PREFIX_NO;
        else if (first == "default" && mode == MODE_CONFIG)
            prefix = CLI_PREFIX_DEFAULT;
        if (prefix != CLI_PREFIX_NONE) {
            offset = tokens[0].second + first.size();
            line = line.substr(offset);
        }
    }
    if (mode == MODE_CONFIG)
        return svc->config_roots;
    return prefix == CLI_PREFIX_NO ? svc->exec_no_roots : svc->exec_roots;
}

bool printable(const std::string &line)
{
    for (unsigned char c : line)
        if ((c < 0x20 && c != '\t') || c == 0x7f)
            return false;
    return true;
}

/* Runs one operator line: status 0 done, 1 refused. */
int run_line(session &s, std::string line, std::string &out)
{
    if (!printable(line)) {
        out += "% Invalid characters in command line.\n";
        return 1;
    }
    uint32_t prefix;
    size_t offset;
    const cli_roots &roots = roots_for(s.mode, line, prefix, offset);
    if (cli_tokens(line).empty() && prefix == CLI_PREFIX_NONE)
        return 0;
    cli_parse_result r = cli_parse_line(roots, line, prefix, offset);
    if (r.status != CLI_PARSE_OK) {
        out += r.refusal;
        return 1;
    }
    current_out = &out;
    current_session = &s;
    r.pb.ctx = &out;
    int ret = r.eol->handler ? r.eol->handler(&r.pb) : 0;
    current_out = nullptr;
    current_session = nullptr;
    return ret < 0 ? 1 : 0;
}

std::string help_text(session &s, std::string typed)
{
    uint32_t prefix;
    size_t offset;
    const cli_roots &roots = roots_for(s.mode, typed, prefix, offset);
    std::string out;
    for (const cli_help_item &item : cli_parse_help(roots, typed, prefix)) {
        char line[512];
        snprintf(line, sizeof line, "  %-20s %s\n", item.word.c_str(), item.help.c_str());
        out += line;
    }
    if (out.empty())
        out = "% Unrecognized command\n";
    return out;
}

std::string complete_text(session &s, std::string typed)
{
    uint32_t prefix;
    size_t offset;
    const cli_roots &roots = roots_for(s.mode, typed, prefix, offset);
    std::string out;
    for (const std::string &w : cli_parse_complete(roots, typed, prefix))
        out += w + "\n";
    return out;
}

bool send_all(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool reply(session &s, int status, const std::string &text)
{
    std::string head = std::to_string(status) + (s.mode == MODE_CONFIG ? " config " : " exec ") +
                       std::to_string(text.size()) + "\n";
    return send_all(s.fd, head + text);
}

void close_session(int fd)
{
    svc->sessions.erase(fd);
    close(fd);
}

int on_session_readable(qn_thread *t);

void watch_session(int fd)
{
    if (!qn_thread_add_read(svc->master, on_session_readable, nullptr, fd, "cli_session"))
        close_session(fd);
}

/* Handles every complete request in the session's buffer; false when the
 * session must end. */
bool serve_requests(session &s)
{
    size_t nl;
    while ((nl = s.in.find('\n')) != std::string::npos) {
        std::string req = s.in.substr(0, nl);
        s.in.erase(0, nl + 1);
        size_t sp = req.find(' ');
        std::string verb = req.substr(0, sp);
        std::string text = sp == std::string::npos ? "" : req.substr(sp + 1);
        bool ok;
        if (verb == "exec") {
            std::string out;
            int status = run_line(s, text, out);
            ok = reply(s, status, out);
        } else if (verb == "help") {
            ok = reply(s, 0, help_text(s, text));
        } else if (verb == "complete") {
            ok = reply(s, 0, complete_text(s, text));
        } else {
            ok = reply(s, 1, "% Unknown request.\n");
        }
        if (!ok)
            return false;
    }
    if (s.in.size() >= QN_CLI_MAX_LINE) {
        reply(s, 1, "% Command line too long (at most " + std::to_string(QN_CLI_MAX_LINE - 1) + " characters).\n");
        return false;
    }
    return true;
}

int on_session_readable(qn_thread *t)
{
    int fd = QN_THREAD_FD(t);
    auto it = svc->sessions.find(fd);
    if (it == svc->sessions.end())
        return 0;
    char buf[2048];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        watch_session(fd);
        return 0;
    }
    if (n <= 0) {
        close_session(fd);
        return 0;
    }
    session &s = *it->second;
    s.in.append(buf, static_cast<size_t>(n));
    if (!serve_requests(s)) {
        close_session(fd);
        return 0;
    }
    watch_session(fd);
    return 0;
}

int on_listen_readable(qn_thread *)
{
    int fd = accept(svc->listen_fd, nullptr, nullptr);
    if (fd >= 0) {
        struct timeval tv = {2, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        if (svc->sessions.size() >= QN_CLI_MAX_SESSIONS) {
            session refused;
            refused.fd = fd;
            reply(refused, 1, "% Too many sessions open, try again later.\n");
            close(fd);
        } else {
            auto s = std::make_unique<session>();
            s->fd = fd;
            svc->sessions[fd] = std::move(s);
            watch_session(fd);
        }
    }
    qn_thread_add_read(svc->master, on_listen_readable, nullptr, svc->listen_fd, "cli_listen");
    return 0;
}

int replay_startup(qn_thread *)
{
    std::ifstream f(svc->startup_path);
    if (!f)
        return 0;
    session s;
    s.mode = MODE_CONFIG;
    std::string line;
    int number = 0;
    while (std::getline(f, line)) {
        ++number;
        if (line.empty() || line[0] == '!')
            continue;
        std::string out;
        if (run_line(s, line, out) != 0)
            fprintf(stderr, "%s:%d: refused: %s\n%s", svc->startup_path.c_str(), number, line.c_str(), out.c_str());
        s.mode = MODE_CONFIG;
    }
    return 0;
}

} // namespace

extern "C" {

int cli_client_init(const char *name, qn_thread_master *master)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg || !name || !master)
        return -1;
    static service instance;
    svc = &instance;
    svc->master = master;
    svc->name = name;
    std::string run = qn_platform_run_dir();
    svc->socket_path = cfg->cli_socket.empty() ? run + QN_CLI_SOCKET_NAME : cfg->cli_socket;
    svc->startup_path = cfg->startup_file.empty() ? run + QN_CLI_STARTUP_NAME : cfg->startup_file;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (svc->socket_path.size() >= sizeof addr.sun_path) {
        fprintf(stderr, "cli socket path too long: %s\n", svc->socket_path.c_str());
        return -1;
    }
    strcpy(addr.sun_path, svc->socket_path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    unlink(svc->socket_path.c_str());
    mode_t old = umask(077);
    int r = bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    umask(old);
    if (r != 0 || chmod(svc->socket_path.c_str(), 0600) != 0) {
        int err = errno;
        close(fd);
        fprintf(stderr, "cli socket %s: %s\n", svc->socket_path.c_str(), strerror(err));
        return -err;
    }
    svc->listen_fd = fd;
    build_graphs();
    return 0;
}

int cli_client_ready(void)
{
    if (!svc || svc->listen_fd < 0)
        return -1;
    if (listen(svc->listen_fd, 32) != 0)
        return -errno;
    build_graphs();
    if (!qn_thread_add_read(svc->master, on_listen_readable, nullptr, svc->listen_fd, "cli_listen"))
        return -1;
    qn_thread_add_event(svc->master, replay_startup, nullptr, 0, "cli_startup_config");
    return 0;
}

bool cli_add_command(int mode, const cli_node *const *root, const char *)
{
    if (!svc || !root)
        return false;
    if (mode != CLI_MODE_EXEC_SHOW && mode != CLI_MODE_DEBUG && mode != CLI_MODE_CONFIG)
        return false;
    svc->modes[mode].push_back(root);
    build_graphs();
    return true;
}

int cli_printf(const char *fmt, ...)
{
    if (!current_out)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n > 0) {
        std::string text(static_cast<size_t>(n) + 1, '\0');
        vsnprintf(text.data(), text.size(), fmt, ap);
        text.pop_back();
        current_out->append(text);
    }
    va_end(ap);
    return n;
}

int c2p_printf(int, cli_parse_block *, const char *fmt, ...)
{
    if (!current_gen)
        return 0;
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    current_gen->push_back(line);
    return n;
}

int sys_add_debug(const char *, int, int, int, void (*off)(int), int)
{
    if (!svc || !off)
        return -1;
    svc->debug_switches.push_back(off);
    return 0;
}

} // extern "C"

int qn_cli_standin_run(const std::string &line, bool config_mode, std::string *out)
{
    if (!svc || !out)
        return 1;
    session s;
    s.mode = config_mode ? MODE_CONFIG : MODE_EXEC;
    return run_line(s, line, *out);
}
