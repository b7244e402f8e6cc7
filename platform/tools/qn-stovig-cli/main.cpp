/* qn-stovig-cli: the operator shell of qn-stovig.  It connects to the
 * command-line socket of the daemon of the same TMPDIR (or STOVIG_CONFIG's
 * [cli] socket) and runs commands: given with -c (repeatable, in order), read
 * from standard input when it is not a terminal, or typed at a prompt with
 * history, "?" help, TAB completion and Ctrl-C to clear the line.
 *
 * Exit status: 0; 1 when a command was refused; 2 when the daemon cannot be
 * reached, the connection is lost or the daemon ends the session. */
#include "connection.h"

#include "qn_cli_proto.h"

#include <histedit.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char *lost_text = "% Connection to qn-stovig lost.\n";

std::string mode = QN_CLI_MODE_EXEC;
volatile sig_atomic_t sigint_seen = 0;
bool line_cancelled = false;

enum outcome { DONE = 0, REFUSED = 1, LOST = 2, ENDED = 3 };

void on_sigint(int)
{
    sigint_seen = 1;
}

const char *prompt(EditLine *)
{
    return mode == QN_CLI_MODE_CONFIG ? "stovig(config)# " : "stovig# ";
}

/* Runs one line and prints what it gave.  In interactive use the caret of a
 * refusal lines up under the prompt, otherwise the line is echoed above it.
 * `unsent` tells that the connection was found broken before the line went
 * out (interactive use reports that itself, it may send the line again). */
outcome run(const std::string &line, bool interactive, bool *unsent = nullptr)
{
    if (unsent)
        *unsent = false;
    if (line.find_first_of("\r\n") != std::string::npos) {
        fputs("% Invalid characters in command line.\n", stderr);
        return REFUSED;
    }
    cli_reply r = cli_request("exec", line, &sigint_seen);
    if (r.lost) {
        if (unsent)
            *unsent = !r.sent;
        if (!(interactive && (sigint_seen || !r.sent)))
            fputs(lost_text, stderr);
        return LOST;
    }
    if (r.mode != QN_CLI_MODE_CLOSED)
        mode = r.mode;
    if (r.status == QN_CLI_STATUS_DONE) {
        fputs(r.text.c_str(), stdout);
        fflush(stdout);
        return r.mode == QN_CLI_MODE_CLOSED ? ENDED : DONE;
    }
    if (r.status == QN_CLI_STATUS_CLOSED) {
        fputs(r.text.c_str(), stderr);
        return LOST;
    }
    if (!interactive && r.text.find('^') != std::string::npos)
        fprintf(stderr, "%s\n", line.c_str());
    else if (interactive && r.text.find('^') != std::string::npos)
        fprintf(stderr, "%*s", static_cast<int>(strlen(prompt(nullptr))), "");
    fputs(r.text.c_str(), stderr);
    return REFUSED;
}

/* Commands from -c or standard input: run in order, a refused one does not
 * stop the rest; "exit" or "quit" in exec mode ends the script. */
int run_script(const std::vector<std::string> &commands, bool from_stdin)
{
    int worst = 0;
    size_t next = 0;
    std::string line;
    for (;;) {
        if (from_stdin) {
            if (!std::getline(std::cin, line))
                break;
        } else {
            if (next == commands.size())
                break;
            line = commands[next++];
        }
        if (from_stdin && line.find_first_not_of(" \t") == std::string::npos)
            continue;
        std::string parting;
        if (cli_dropped(parting)) {
            fputs(parting.empty() ? lost_text : parting.c_str(), stderr);
            return 2;
        }
        outcome o = run(line, false);
        if (o == LOST)
            return 2;
        if (o == ENDED)
            break;
        if (o > worst)
            worst = o;
    }
    return worst;
}

/* After the session ended under the operator (the daemon restarted or closed
 * an idle session, or Ctrl-C gave up waiting for a reply): one new
 * connection, back in the mode the operator was in, and said so.  False,
 * with a line on standard error, when that fails. */
bool reconnect()
{
    std::string was = mode, why;
    mode = QN_CLI_MODE_EXEC;
    if (!cli_connect(why)) {
        fprintf(stderr, "%% %s\n", why.c_str());
        return false;
    }
    if (was == QN_CLI_MODE_CONFIG) {
        cli_reply r = cli_request("exec", "configure terminal");
        if (r.lost || r.status != QN_CLI_STATUS_DONE) {
            fputs(r.lost ? lost_text : r.text.c_str(), stderr);
            cli_disconnect();
            return false;
        }
        mode = r.mode;
    }
    fputs("% Reconnected to qn-stovig.\n", stderr);
    return true;
}

std::string current_line(EditLine *el)
{
    const LineInfo *li = el_line(el);
    return std::string(li->buffer, static_cast<size_t>(li->cursor - li->buffer));
}

unsigned char on_help(EditLine *el, int)
{
    std::string typed = current_line(el);
    cli_reply r = cli_request("help", typed);
    printf("?\n%s", r.lost ? lost_text : r.text.c_str());
    return CC_REDISPLAY;
}

unsigned char on_complete(EditLine *el, int)
{
    std::string typed = current_line(el);
    cli_reply r = cli_request("complete", typed);
    std::vector<std::string> words;
    size_t pos = 0, nl;
    while ((nl = r.text.find('\n', pos)) != std::string::npos) {
        words.push_back(r.text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    size_t start = typed.find_last_of(" \t");
    std::string partial = start == std::string::npos ? typed : typed.substr(start + 1);
    /* One word completes the partial one in place; a word that does not
     * extend what was typed is only listed. */
    if (words.size() == 1 && words[0].size() >= partial.size() &&
        words[0].compare(0, partial.size(), partial) == 0) {
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

/* Ctrl-C: the line is left on the screen marked "^C" and dropped, and a new
 * prompt follows, as in the network shells operators know. */
unsigned char on_cancel(EditLine *el, int)
{
    const LineInfo *li = el_line(el);
    el_cursor(el, static_cast<int>(li->lastchar - li->cursor));
    el_insertstr(el, "^C");
    line_cancelled = true;
    el_push(el, "\r");
    return CC_REFRESH;
}

int interactive()
{
    /* Outside line editing a Ctrl-C gives up waiting for a reply. */
    struct sigaction sa = {};
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);

    EditLine *el = el_init("qn-stovig-cli", stdin, stdout, stderr);
    History *hist = history_init();
    HistEvent ev;
    history(hist, &ev, H_SETSIZE, 500);
    el_set(el, EL_PROMPT, prompt);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_HIST, history, hist);
    /* While editing, Ctrl-C is a key of the line editor, not a signal. */
    el_set(el, EL_SETTY, "-d", "-isig", NULL);
    el_set(el, EL_ADDFN, "stovig-help", "List what may come next", on_help);
    el_set(el, EL_ADDFN, "stovig-complete", "Complete the word", on_complete);
    el_set(el, EL_ADDFN, "stovig-cancel", "Drop the line", on_cancel);
    el_set(el, EL_BIND, "?", "stovig-help", NULL);
    el_set(el, EL_BIND, "^I", "stovig-complete", NULL);
    el_set(el, EL_BIND, "^C", "stovig-cancel", NULL);
    int status = 0;
    for (;;) {
        line_cancelled = false;
        sigint_seen = 0;
        /* The line editor's terminal mode (Ctrl-C a key) before the prompt
         * shows, not only once the first key is read: a key typed right after
         * the prompt must not meet the ordinary mode. */
        el_set(el, EL_PREP_TERM, 1);
        int count;
        const char *text = el_gets(el, &count);
        if (!text || count <= 0) {
            if (sigint_seen) {
                fputs("\n", stdout);
                continue;
            }
            break;
        }
        if (line_cancelled)
            continue;
        std::string line(text);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        history(hist, &ev, H_ENTER, line.c_str());
        std::string parting;
        if (!cli_connected()) {
            /* Closed here after an interrupted wait: back the same way as
             * after a daemon restart, in the mode the operator was in. */
            if (!reconnect()) {
                status = 2;
                break;
            }
        } else if (cli_dropped(parting)) {
            fputs(parting.empty() ? lost_text : parting.c_str(), stderr);
            if (!reconnect()) {
                status = 2;
                break;
            }
        }
        bool unsent;
        outcome o = run(line, true, &unsent);
        if (o == LOST && sigint_seen) {
            fputs("% Interrupted.\n", stderr);
            cli_disconnect();
            continue;
        }
        if (o == LOST && unsent) {
            /* Dropped just before the line went out: it never ran. */
            fputs(lost_text, stderr);
            if (reconnect()) {
                o = run(line, true);
                if (o == ENDED)
                    break;
                if (o != LOST)
                    continue;
            }
        }
        if (o == LOST) {
            status = 2;
            break;
        }
        if (o == ENDED)
            break;
    }
    history_end(hist);
    el_end(el);
    return status;
}

void usage(FILE *to)
{
    fprintf(to, "usage: qn-stovig-cli [-c COMMAND]...\n"
                "  -c COMMAND  run COMMAND (repeatable, run in order; \"configure terminal\" enters\n"
                "              configuration mode for the commands after it, \"exit\" ends the script)\n"
                "Without -c, commands are read from standard input, or typed at a prompt on a terminal\n"
                "(\"?\" lists what may come next, TAB completes, Ctrl-C clears the line, \"exit\" leaves).\n"
                "Lines starting with \"!\" are comments.  The daemon is the one of the same TMPDIR.\n"
                "Exit status: 0, 1 when a command was refused, 2 when the daemon cannot be reached or\n"
                "the connection to it is lost.\n");
}

} // namespace

int main(int argc, char **argv)
{
    /* A daemon that closes first must give a message, not a silent death. */
    signal(SIGPIPE, SIG_IGN);
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
    if (!cli_connect(why)) {
        fprintf(stderr, "%% %s\n", why.c_str());
        return 2;
    }
    if (commands.empty() && isatty(STDIN_FILENO))
        return interactive();
    return run_script(commands, commands.empty());
}
