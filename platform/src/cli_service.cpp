/* The command-line service stand-in: graphs added by the program per mode,
 * run for operator sessions (cli_sessions.cpp) on a Unix socket in the run
 * directory (cli_files.cpp), every request handled as a task of the
 * program's event loop.  Built-in commands: configure terminal, end, exit,
 * quit, do (exec commands from configuration mode), show running-config,
 * write memory, undebug all / no debug all.  Lines starting with "!" are
 * comments.  The saved startup configuration is replayed in configuration
 * mode once the loop runs. */
#include "cli_internal.h"
#include "qn_cli.h"
#include "qn_cli_parse.h"
#include "qn_cli_proto.h"
#include "qn_cli_standin.h"
#include "qn_platform_config.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace {

struct service {
    qn_thread_master *master = nullptr;
    std::string name;
    std::string socket_path;
    std::string startup_path;
    int listen_fd = -1;
    int idle_timeout = QN_CLI_IDLE_TIMEOUT_DEF;
    qn_zlog_category_t *log = nullptr;
    std::map<int, std::vector<const cli_node *const *>> modes;
    std::vector<void (*)(int)> debug_switches;
    /* Runtime graphs of the built-in words, rebuilt when commands are added. */
    std::deque<cli_node> nodes;
    std::deque<std::vector<const cli_node *>> arrays;
    cli_roots exec_roots, config_roots, exec_no_roots, do_roots;
};

service *svc = nullptr;
std::string *current_out = nullptr;      /* output of the command being run */
std::vector<std::string> *current_gen = nullptr; /* lines being generated */
cli_session_state *current_session = nullptr;

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
        current_session->config = true;
    return 0;
}

int cmd_end(cli_parse_block *)
{
    if (current_session)
        current_session->config = false;
    return 0;
}

int cmd_exit(cli_parse_block *)
{
    if (current_session)
        current_session->ended = true;
    return 0;
}

/* The configuration in the form the operator can paste back: framed by
 * comment lines and "end", also when every setting is at its default. */
int cmd_show_running(cli_parse_block *)
{
    cli_printf("!\n");
    for (const std::string &line : generate(CLI_GEN_RUNNING))
        cli_printf("%s\n", line.c_str());
    cli_printf("!\nend\n");
    return 0;
}

int cmd_write_memory(cli_parse_block *)
{
    std::string text;
    for (const std::string &line : generate(CLI_GEN_STARTUP))
        text += line + "\n";
    std::string why;
    if (!cli_startup_write(svc->startup_path, text, why)) {
        CLI_LOG(QN_ZLOG_LEVEL_ERROR, "write memory: cannot write %s: %s.", svc->startup_path.c_str(), why.c_str());
        cli_printf("%% Cannot write %s: %s.\n", svc->startup_path.c_str(), why.c_str());
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
    const cli_node *const *exit_eol = array_of({eol(cmd_exit)});
    const cli_node *const *off = array_of({keyword("all", "Disable all debugging", array_of({eol(cmd_debug_all_off)}))});
    const cli_node *show = keyword(
        "show", "Show running system information",
        merged(CLI_MODE_EXEC_SHOW,
               {keyword("running-config", "Current operating configuration", array_of({eol(cmd_show_running)}))}));
    const cli_node *debug = keyword("debug", "Debugging functions", merged(CLI_MODE_DEBUG));
    const cli_node *debug_no = keyword("debug", "Debugging functions", merged(CLI_MODE_DEBUG, {gate(CLI_NODE_NO, off)}));
    /* What "do" runs from configuration mode: the exec commands that do not
     * change the session's mode. */
    std::vector<const cli_node *> exec_commands = {
        show,
        debug,
        keyword("undebug", "Disable debugging functions", off),
        keyword("write", "Write running configuration to memory",
                array_of({keyword("memory", "Write to the startup configuration", array_of({eol(cmd_write_memory)}))})),
    };
    std::vector<const cli_node *> exec_all = exec_commands;
    exec_all.push_back(keyword("configure", "Enter configuration mode",
                               array_of({keyword("terminal", "Configure from the terminal",
                                                 array_of({eol(cmd_configure)}))})));
    exec_all.push_back(keyword("exit", "Exit from the shell", exit_eol));
    exec_all.push_back(keyword("quit", "Exit from the shell", exit_eol));
    svc->exec_roots = {array_of(exec_all)};
    svc->do_roots = {array_of(exec_commands)};
    svc->exec_no_roots = {array_of({debug_no})};
    /* "do" itself only shows in help: the line after it is run as an exec
     * line (see split_line), which also covers "do no debug ...". */
    svc->config_roots = {merged(CLI_MODE_CONFIG, {keyword("end", "Exit to the exec mode", end_eol),
                                                  keyword("exit", "Exit from configuration mode", end_eol),
                                                  keyword("quit", "Exit from configuration mode", end_eol),
                                                  keyword("do", "Run an exec command", nullptr), show})};
}

/* How a line is to be parsed once its leading prefix words are taken off. */
struct line_split {
    const cli_roots *roots = nullptr;
    uint32_t prefix = CLI_PREFIX_NONE;
    size_t offset = 0;       /* where `rest` starts in the line, for the caret */
    std::string rest;
    bool ran_do = false;     /* "do" was given: `rest` is an exec line */
    std::string refusal;     /* set when the prefix word itself is ambiguous */
};

bool starts_with(const std::string &word, const std::string &part)
{
    return word.compare(0, part.size(), part) == 0;
}

/* The prefix word ("no", "default", "do") that `token` stands for, in full or
 * as an abbreviation no other word of the mode shares; empty when none.  Sets
 * `ambiguous` when the token could be more than one word. */
std::string prefix_word(const std::string &token, bool config, const cli_roots &roots, bool &ambiguous)
{
    std::vector<std::string> words = {"no"};
    if (config) {
        words.push_back("default");
        words.push_back("do");
    }
    std::vector<std::string> matches;
    for (const std::string &w : words) {
        if (token == w)
            return w;
        if (starts_with(w, token))
            matches.push_back(w);
    }
    if (matches.empty())
        return "";
    size_t others = 0;
    for (const cli_help_item &item : cli_parse_help(roots, "", CLI_PREFIX_NONE)) {
        bool is_prefix_word = false;
        for (const std::string &w : words)
            is_prefix_word = is_prefix_word || item.word == w;
        if (!is_prefix_word && item.word[0] != '<' && starts_with(item.word, token))
            ++others;
    }
    if (matches.size() == 1 && others == 0)
        return matches[0];
    ambiguous = true;
    return "";
}

/* Takes the leading "do" (configuration mode) and "no" / "default" off a
 * line and picks the graphs the rest is parsed against. */
line_split split_line(bool config, const std::string &line)
{
    line_split s;
    s.rest = line;
    for (;;) {
        const cli_roots &roots = s.ran_do ? svc->do_roots : config ? svc->config_roots : svc->exec_roots;
        s.roots = &roots;
        auto tokens = cli_tokens(s.rest);
        if (tokens.empty())
            return s;
        bool ambiguous = false;
        std::string word = prefix_word(tokens[0].first, config, roots, ambiguous);
        if (ambiguous) {
            s.refusal = "% Ambiguous command: \"" + line.substr(0, s.offset + tokens[0].second + tokens[0].first.size()) +
                        "\"\n";
            return s;
        }
        if (word.empty())
            return s;
        size_t cut = tokens[0].second + tokens[0].first.size();
        s.offset += cut;
        s.rest = s.rest.substr(cut);
        if (word == "do") {
            s.ran_do = true;
            config = false;
            continue;
        }
        s.prefix = word == "no" ? CLI_PREFIX_NO : CLI_PREFIX_DEFAULT;
        if (!config && s.prefix == CLI_PREFIX_NO)
            s.roots = &svc->exec_no_roots;
        return s;
    }
}

bool printable(const std::string &line)
{
    for (unsigned char c : line)
        if ((c < 0x20 && c != '\t') || c == 0x7f)
            return false;
    return true;
}

/* A comment line: "!" as its first non-blank character, as in saved
 * configurations. */
bool comment(const std::string &line)
{
    size_t first = line.find_first_not_of(" \t");
    return first != std::string::npos && line[first] == '!';
}

/* Runs one operator line: status 0 done, 1 refused. */
int run_line(cli_session_state &st, const std::string &line, std::string &out)
{
    if (!printable(line)) {
        out += "% Invalid characters in command line.\n";
        return QN_CLI_STATUS_REFUSED;
    }
    if (comment(line))
        return QN_CLI_STATUS_DONE;
    line_split s = split_line(st.config, line);
    if (!s.refusal.empty()) {
        out += s.refusal;
        return QN_CLI_STATUS_REFUSED;
    }
    if (cli_tokens(s.rest).empty() && s.prefix == CLI_PREFIX_NONE) {
        if (!s.ran_do)
            return QN_CLI_STATUS_DONE;
        out += "% Incomplete command.\n";
        return QN_CLI_STATUS_REFUSED;
    }
    cli_parse_result r = cli_parse_line(*s.roots, s.rest, s.prefix, s.offset);
    if (r.status != CLI_PARSE_OK) {
        out += r.refusal;
        return QN_CLI_STATUS_REFUSED;
    }
    current_out = &out;
    current_session = &st;
    r.pb.ctx = &out;
    int ret = r.eol->handler ? r.eol->handler(&r.pb) : 0;
    current_out = nullptr;
    current_session = nullptr;
    return ret < 0 ? QN_CLI_STATUS_REFUSED : QN_CLI_STATUS_DONE;
}

/* What may come next after `typed`.  While the first word is being typed,
 * the prefix words are offered with the commands. */
std::vector<cli_help_item> next_words(const cli_session_state &st, const std::string &typed)
{
    auto tokens = cli_tokens(typed);
    bool partial = !typed.empty() && typed.back() != ' ' && typed.back() != '\t';
    if (tokens.empty() || (tokens.size() == 1 && partial)) {
        std::string part = tokens.empty() ? "" : tokens[0].first;
        const cli_roots &roots = st.config ? svc->config_roots : svc->exec_roots;
        std::vector<cli_help_item> items = cli_parse_help(roots, typed, CLI_PREFIX_NONE);
        std::vector<cli_help_item> prefixes = {{"no", "Negate a command or set its defaults"}};
        if (st.config)
            prefixes.push_back({"default", "Set a command to its defaults"});
        for (const cli_help_item &p : prefixes)
            if (starts_with(p.word, part))
                items.push_back(p);
        return items;
    }
    line_split s = split_line(st.config, typed);
    if (!s.refusal.empty())
        return {};
    return cli_parse_help(*s.roots, s.rest, s.prefix);
}

std::string help_text(const cli_session_state &st, const std::string &typed)
{
    std::string out;
    for (const cli_help_item &item : next_words(st, typed)) {
        char line[512];
        snprintf(line, sizeof line, "  %-20s %s\n", item.word.c_str(), item.help.c_str());
        out += line;
    }
    if (out.empty())
        out = "% Unrecognized command\n";
    return out;
}

std::string complete_text(const cli_session_state &st, const std::string &typed)
{
    std::string out;
    for (const cli_help_item &item : next_words(st, typed))
        if (item.word[0] != '<')
            out += item.word + "\n";
    return out;
}

int replay_startup(qn_thread *)
{
    std::vector<std::string> lines;
    std::string why;
    if (!cli_startup_read(svc->startup_path, lines, why)) {
        fprintf(stderr, "startup configuration not replayed: %s\n", why.c_str());
        CLI_LOG(QN_ZLOG_LEVEL_ERROR, "startup configuration not replayed: %s.", why.c_str());
        return 0;
    }
    int number = 0;
    for (const std::string &line : lines) {
        ++number;
        cli_session_state st;
        st.config = true;
        std::string out;
        if (run_line(st, line, out) != QN_CLI_STATUS_DONE) {
            fprintf(stderr, "%s:%d: refused: %s\n%s", svc->startup_path.c_str(), number, line.c_str(), out.c_str());
            CLI_LOG(QN_ZLOG_LEVEL_ERROR, "%s:%d: refused: %s", svc->startup_path.c_str(), number, line.c_str());
        }
    }
    return 0;
}

} // namespace

int cli_service_request(cli_session_state &st, const std::string &verb, const std::string &text, std::string &out)
{
    if (verb == "exec")
        return run_line(st, text, out);
    if (verb == "help") {
        out = help_text(st, text);
        return QN_CLI_STATUS_DONE;
    }
    if (verb == "complete") {
        out = complete_text(st, text);
        return QN_CLI_STATUS_DONE;
    }
    out = "% Unknown request.\n";
    return QN_CLI_STATUS_REFUSED;
}

void cli_service_log(int level, const char *file, const char *func, long line, const char *fmt, ...)
{
    if (!svc)
        return;
    if (!svc->log)
        svc->log = qn_zlog_init(svc->name.c_str());
    if (!svc->log)
        return;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    qndf_zlog(svc->log, file, strlen(file), func, strlen(func), line, level, "%s", text);
}

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
    svc->idle_timeout = cfg->cli_idle_timeout;
    std::string why;
    int fd = cli_socket_create(svc->socket_path, why);
    if (fd < 0) {
        fprintf(stderr, "cli socket not created: %s\n", why.c_str());
        return -1;
    }
    if (svc->listen_fd >= 0)
        close(svc->listen_fd);
    svc->listen_fd = fd;
    build_graphs();
    return 0;
}

int cli_client_ready(void)
{
    if (!svc || svc->listen_fd < 0)
        return -1;
    if (listen(svc->listen_fd, 32) != 0)
        return -1;
    build_graphs();
    if (cli_sessions_start(svc->master, svc->listen_fd, svc->idle_timeout) != 0)
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
    cli_session_state st;
    st.config = config_mode;
    return run_line(st, line, *out);
}
