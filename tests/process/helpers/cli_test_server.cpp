/* A program on the command-line service with one setting, to test the service
 * and the operator shell apart from the daemon:
 *   sample set interval <10-3600>     (config; "no" and "default" forms)
 *   show sample                       (prints the setting)
 *   debug sample                      (switched off by "undebug all") */
#include "qn_cli.h"
#include "qn_thread.h"

#include <cstdio>

namespace {

int interval = 30;
bool debugging = false;

bool plain(const cli_parse_block *pb)
{
    return pb->prefix == CLI_PREFIX_NONE;
}

int sample_set(cli_parse_block *pb)
{
    if (pb->gen & CLI_GEN_MASK) {
        if (interval == -1)
            c2p_printf(1, pb, "no sample set");
        else if (interval != 30)
            c2p_printf(1, pb, "sample set interval %d", interval);
        return 0;
    }
    if (pb->prefix == CLI_PREFIX_NO)
        interval = -1;
    else if (pb->prefix == CLI_PREFIX_DEFAULT)
        interval = 30;
    else
        interval = static_cast<int>(pb->nums[0]);
    cli_printf("Set sample interval %d seconds.\n", interval);
    return 0;
}

int show_sample(cli_parse_block *)
{
    cli_printf("Sample interval:    %d\nSample debugging:   %s\n", interval, debugging ? "on" : "off");
    return 0;
}

int debug_sample(cli_parse_block *pb)
{
    debugging = pb->prefix != CLI_PREFIX_NO;
    cli_printf("Set sample debug %s\n", debugging ? "on" : "off");
    return 0;
}

void debug_off(int kind)
{
    if (kind == 2)
        debugging = false;
}

const cli_node set_eol = {CLI_NODE_EOL, nullptr, nullptr, 0, 0, 0, 0, sample_set, 1, nullptr, nullptr};
const cli_node *const set_eol_list[] = {&set_eol, nullptr};
const cli_node num = {CLI_NODE_NUMBER, nullptr, "sample interval", 10, 3600, 0, 0, nullptr, 0, nullptr, set_eol_list};
const cli_node *const num_list[] = {&num, nullptr};
const cli_node interval_kw = {CLI_NODE_KEYWORD, "interval", "set sample interval", 0, 0, 0, 4, nullptr, 0, nullptr, num_list};
const cli_node *const interval_list[] = {&interval_kw, nullptr};
const cli_node no_gate = {CLI_NODE_NO, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, nullptr, set_eol_list};
const cli_node def_gate = {CLI_NODE_DEFAULT, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, nullptr, set_eol_list};
const cli_node plain_gate = {CLI_NODE_TEST, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, plain, interval_list};
const cli_node *const after_set[] = {&no_gate, &def_gate, &plain_gate, nullptr};
const cli_node set_kw = {CLI_NODE_KEYWORD, "set", "sample setting", 0, 0, 0, 0, nullptr, 0, nullptr, after_set};
const cli_node gen = {CLI_NODE_GENERATE, nullptr, nullptr, 0, 0, 0, 0, sample_set, 0, nullptr, nullptr};
const cli_node *const set_list[] = {&set_kw, &gen, nullptr};
const cli_node sample_cfg = {CLI_NODE_KEYWORD, "sample", "config sample item", 0, 0, 0, 0, nullptr, 0, nullptr, set_list};
const cli_node *const config_root[] = {&sample_cfg, nullptr};

const cli_node show_eol = {CLI_NODE_EOL, nullptr, nullptr, 0, 0, 0, 0, show_sample, 2, nullptr, nullptr};
const cli_node *const show_eol_list[] = {&show_eol, nullptr};
const cli_node sample_show = {CLI_NODE_KEYWORD, "sample", "Show the sample setting", 0, 0, 0, 0, nullptr, 0, nullptr, show_eol_list};
const cli_node *const show_root[] = {&sample_show, nullptr};

const cli_node dbg_eol = {CLI_NODE_EOL, nullptr, nullptr, 0, 0, 0, 0, debug_sample, 3, nullptr, nullptr};
const cli_node *const dbg_eol_list[] = {&dbg_eol, nullptr};
const cli_node sample_dbg = {CLI_NODE_KEYWORD, "sample", "Switch on sample debug", 0, 0, 0, 0, nullptr, 0, nullptr, dbg_eol_list};
const cli_node *const debug_root[] = {&sample_dbg, nullptr};

} // namespace

int main()
{
    qn_thread_master *master = qn_thread_master_create();
    if (!master || cli_client_init("sample", master) != 0) {
        fprintf(stderr, "cli_test_server: start failed\n");
        return 1;
    }
    if (!cli_add_command(CLI_MODE_CONFIG, config_root, "sample") ||
        !cli_add_command(CLI_MODE_EXEC_SHOW, show_root, "show sample") ||
        !cli_add_command(CLI_MODE_DEBUG, debug_root, "sample") || cli_client_ready() != 0) {
        fprintf(stderr, "cli_test_server: commands not added\n");
        return 1;
    }
    sys_add_debug("debug sample", 0, 0, 0, debug_off, 0);
    printf("ready\n");
    fflush(stdout);
    qn_thread t;
    while (qn_thread_fetch(master, &t))
        qn_thread_call(&t);
    return 0;
}
