/* qn-stovig-cli: the operator shell of qn-stovig.  It connects to the
 * command-line socket of the daemon of the same TMPDIR (or STOVIG_CONFIG's
 * [cli] socket) and runs commands: given with -c (repeatable, in order), read
 * from standard input when it is not a terminal, or typed at a prompt with
 * history, "?" help and TAB completion. */
#include "qn_cli_proto.h"
#include "qn_platform_config.h"

#include <histedit.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct reply {
    int status = 2; /* 0 done, 1 refused, 2 no answer */
    std::string mode = "exec";
    std::string text;
};

int conn = -1;
std::string mode = "exec";

std::string socket_path()
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (cfg && !cfg->cli_socket.empty())
        return cfg->cli_socket;
    return qn_platform_run_dir() + QN_CLI_SOCKET_NAME;
}

bool connect_daemon(std::string &why)
{
    std::string path = socket_path();
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        why = "socket path too long: " + path;
        return false;
    }
    strcpy(addr.sun_path, path.c_str());
    conn = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (conn < 0 || connect(conn, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        why = "cannot reach qn-stovig at " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool read_exact(std::string &out, size_t n)
{
    out.clear();
    char buf[4096];
    while (out.size() < n) {
        ssize_t r = read(conn, buf, std::min(sizeof buf, n - out.size()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        out.append(buf, static_cast<size_t>(r));
    }
    return true;
}

reply request(const std::string &verb, const std::string &text)
{
    reply r;
    std::string req = verb + " " + text + "\n";
    if (req.size() > QN_CLI_MAX_LINE) {
        r.status = 1;
        r.text = "% Command line too long (at most " + std::to_string(QN_CLI_MAX_LINE - 1) + " characters).\n";
        return r;
    }
    if (write(conn, req.data(), req.size()) != static_cast<ssize_t>(req.size())) {
        r.text = "% Connection to qn-stovig lost.\n";
        return r;
    }
    std::string head;
    char c;
    while (read(conn, &c, 1) == 1 && c != '\n' && head.size() < 64)
        head += c;
    int status = 0;
    char m[16] = {0};
    size_t len = 0;
    if (sscanf(head.c_str(), "%d %15s %zu", &status, m, &len) != 3 || !read_exact(r.text, len)) {
        r.status = 2;
        r.text = "% Connection to qn-stovig lost.\n";
        return r;
    }
    r.status = status;
    r.mode = m;
    mode = r.mode;
    return r;
}

const char *prompt(EditLine *)
{
    return mode == "config" ? "stovig(config)# " : "stovig# ";
}

/* Runs one line; in interactive use the caret of a refusal lines up under
 * the prompt, otherwise the line is echoed above it. */
int run(const std::string &line, bool interactive)
{
    if (line.find_first_of("\r\n") != std::string::npos) {
        fputs("% Invalid characters in command line.\n", stderr);
        return 1;
    }
    reply r = request("exec", line);
    if (r.status == 0) {
        fputs(r.text.c_str(), stdout);
        fflush(stdout);
        return 0;
    }
    if (!interactive && r.text.find('^') != std::string::npos)
        fprintf(stderr, "%s\n", line.c_str());
    else if (interactive && r.text.find('^') != std::string::npos)
        fprintf(stderr, "%*s", static_cast<int>(strlen(prompt(nullptr))), "");
    fputs(r.text.c_str(), stderr);
    return r.status;
}

std::string current_line(EditLine *el)
{
    const LineInfo *li = el_line(el);
    return std::string(li->buffer, static_cast<size_t>(li->cursor - li->buffer));
}

unsigned char on_help(EditLine *el, int)
{
    std::string typed = current_line(el);
    reply r = request("help", typed);
    printf("?\n%s", r.text.c_str());
    return CC_REDISPLAY;
}

unsigned char on_complete(EditLine *el, int)
{
    std::string typed = current_line(el);
    reply r = request("complete", typed);
    std::vector<std::string> words;
    size_t pos = 0, nl;
    while ((nl = r.text.find('\n', pos)) != std::string::npos) {
        words.push_back(r.text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    size_t start = typed.find_last_of(" \t");
    std::string partial = start == std::string::npos ? typed : typed.substr(start + 1);
    if (words.size() == 1) {
        std::string rest = words[0].substr(partial.size()) + " ";
        el_insertstr(el, rest.c_str());
        return CC_REFRESH;
    }
    if (words.empty())
        return CC_REFRESH_BEEP;
    printf("\n");
    for (const std::string &w : words)
        printf("%s  ", w.c_str());
    printf("\n");
    return CC_REDISPLAY;
}

int interactive()
{
    EditLine *el = el_init("qn-stovig-cli", stdin, stdout, stderr);
    History *hist = history_init();
    HistEvent ev;
    history(hist, &ev, H_SETSIZE, 500);
    el_set(el, EL_PROMPT, prompt);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_HIST, history, hist);
    el_set(el, EL_ADDFN, "stovig-help", "List what may come next", on_help);
    el_set(el, EL_ADDFN, "stovig-complete", "Complete the word", on_complete);
    el_set(el, EL_BIND, "?", "stovig-help", NULL);
    el_set(el, EL_BIND, "^I", "stovig-complete", NULL);
    int count;
    const char *text;
    while ((text = el_gets(el, &count)) != nullptr && count > 0) {
        std::string line(text);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        history(hist, &ev, H_ENTER, line.c_str());
        if ((line == "exit" || line == "quit") && mode == "exec")
            break;
        if (run(line, true) == 2)
            break;
    }
    history_end(hist);
    el_end(el);
    return 0;
}

void usage(FILE *to)
{
    fprintf(to, "usage: qn-stovig-cli [-c COMMAND]...\n"
                "  -c COMMAND  run COMMAND (repeatable, run in order; \"configure terminal\" enters\n"
                "              configuration mode for the commands after it)\n"
                "Without -c, commands are read from standard input, or typed at a prompt on a terminal\n"
                "(\"?\" lists what may come next, TAB completes).  The daemon is the one of the same TMPDIR.\n"
                "Exit status: 0, 1 when a command was refused, 2 when the daemon cannot be reached.\n");
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> commands;
    int opt;
    while ((opt = getopt(argc, argv, "c:h")) != -1) {
        if (opt == 'c') {
            commands.push_back(optarg);
        } else {
            usage(opt == 'h' ? stdout : stderr);
            return opt == 'h' ? 0 : 2;
        }
    }
    std::string why;
    if (!connect_daemon(why)) {
        fprintf(stderr, "%% %s\n", why.c_str());
        return 2;
    }
    if (commands.empty() && isatty(STDIN_FILENO))
        return interactive();
    int worst = 0;
    auto one = [&](const std::string &line) {
        int status = run(line, false);
        if (status > worst)
            worst = status;
        return status != 2;
    };
    if (!commands.empty()) {
        for (const std::string &c : commands)
            if (!one(c))
                break;
    } else {
        std::string line;
        while (std::getline(std::cin, line))
            if (line.find_first_not_of(" \t") != std::string::npos && !one(line))
                break;
    }
    return worst;
}
