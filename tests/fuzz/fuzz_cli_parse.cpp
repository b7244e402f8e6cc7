/* Operator lines against the daemon's own command graphs, through the
 * platform's parser (cli_parse_line, help and completion); lines that parse
 * run their handlers as the service would.
 *
 * The graphs are private to the daemon's command module and reach the
 * service through cli_add_command(); this harness is linked with a small
 * service of its own (the client calls below) that keeps them, in place of
 * the socket service, which a fuzzer cannot drive line by line. */
#include "fuzz_common.h"

#include "cli/res_cli_main.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include "qn_cli.h"
#include "qn_cli_parse.h"
#include "qn_thread.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<const cli_node *const *> mode_roots[CLI_MODE_CONFIG + 1];
std::string output;

int append(const char *fmt, va_list ap)
{
    char buf[4096];
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    if (output.size() < (1u << 20))
        output += buf;
    return n;
}

} // namespace

extern "C" {

int cli_client_init(const char *, struct qn_thread_master *)
{
    return 0;
}

int cli_client_ready(void)
{
    return 0;
}

bool cli_add_command(int mode, const struct cli_node *const *root, const char *)
{
    if (!root || (mode != CLI_MODE_EXEC_SHOW && mode != CLI_MODE_DEBUG && mode != CLI_MODE_CONFIG))
        return false;
    mode_roots[mode].push_back(root);
    return true;
}

int cli_printf(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = append(fmt, ap);
    va_end(ap);
    return n;
}

int c2p_printf(int, struct cli_parse_block *, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = append(fmt, ap);
    va_end(ap);
    return n;
}

int sys_add_debug(const char *, int, int, int, void (*)(int), int)
{
    return 0;
}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        fuzz_open_log();
        res_master = qn_thread_master_create();
        /* A storage type whose lifetime reset runs no commands. */
        res_disk_type = RES_DISK_SSD;
        res_mon_init(RES_DISK_SSD);
        if (res_cli_init() != 0)
            abort();
        return true;
    }();
    (void)ready;
    std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
    std::string line;
    while (std::getline(in, line)) {
        /* The mode a line runs in, as the shell's prompt would have it. */
        int mode = CLI_MODE_CONFIG;
        uint32_t prefix = CLI_PREFIX_NONE;
        std::string rest = line;
        auto strip = [&rest](const char *word) {
            size_t n = strlen(word);
            if (rest.compare(0, n, word) == 0 && (rest.size() == n || rest[n] == ' ')) {
                rest = rest.substr(rest.size() == n ? n : n + 1);
                return true;
            }
            return false;
        };
        if (strip("no"))
            prefix = CLI_PREFIX_NO;
        else if (strip("default"))
            prefix = CLI_PREFIX_DEFAULT;
        if (strip("show"))
            mode = CLI_MODE_EXEC_SHOW;
        else if (strip("debug"))
            mode = CLI_MODE_DEBUG;
        const cli_roots &roots = mode_roots[mode];
        cli_parse_help(roots, rest, prefix);
        cli_parse_complete(roots, rest, prefix);
        cli_parse_result r = cli_parse_line(roots, rest, prefix, line.size() - rest.size());
        if (r.status == CLI_PARSE_OK && r.eol && r.eol->handler) {
            r.pb.ctx = nullptr;
            r.eol->handler(&r.pb);
        }
    }
    /* And the configuration lines that the settings now generate. */
    for (const cli_node *gen : cli_parse_generators(mode_roots[CLI_MODE_CONFIG])) {
        cli_parse_block pb{};
        pb.gen = CLI_GEN_RUNNING;
        if (gen->handler)
            gen->handler(&pb);
    }
    output.clear();
    res_dbg_level = 0;
    return 0;
}
