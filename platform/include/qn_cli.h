/* Command-line service client.  A program plugs static parse graphs into the
 * service per mode; the service parses operator lines against them and calls
 * the end-of-line handlers, which print through cli_printf().  The stand-in
 * serves the graphs on a Unix socket in the run directory, where the operator
 * shell qn-stovig-cli connects. */
#ifndef QN_CLI_H
#define QN_CLI_H

#include <stdbool.h>
#include <stdint.h>

#include "qn_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Modes a graph is added to. */
#define CLI_MODE_EXEC_SHOW 6   /* hangs under "show" */
#define CLI_MODE_DEBUG 17      /* hangs under "debug" (and "no debug") */
#define CLI_MODE_CONFIG 28     /* top level of configuration mode */

/* Prefix of the parsed line. */
#define CLI_PREFIX_NONE 0
#define CLI_PREFIX_NO 1
#define CLI_PREFIX_DEFAULT 2

/* Generation flags: set in cli_parse_block.gen when the service asks a handler
 * for its saved-configuration lines instead of running the command. */
#define CLI_GEN_RUNNING 0x02
#define CLI_GEN_STARTUP 0x10
#define CLI_GEN_MASK (CLI_GEN_RUNNING | CLI_GEN_STARTUP)

#define CLI_PB_NUMS 4

/* What parsing gathered for one command. */
struct cli_parse_block {
    uint32_t prefix;               /* CLI_PREFIX_* */
    uint32_t flags;                /* bits set by matched keywords */
    int64_t nums[CLI_PB_NUMS];     /* numbers, by the slot their node names */
    uint32_t gen;                  /* CLI_GEN_* when generating configuration */
    int32_t subcode;               /* the end-of-line node's sub-command code */
    void *ctx;                     /* the service's output context */
};

typedef int (*cli_handler_t)(struct cli_parse_block *pb);
typedef bool (*cli_test_t)(const struct cli_parse_block *pb);

enum cli_node_kind {
    CLI_NODE_KEYWORD,  /* word, help; sets `flag` in pb->flags when matched */
    CLI_NODE_NUMBER,   /* help, min..max; stored into pb->nums[slot] */
    CLI_NODE_EOL,      /* the command may end here: handler(pb) with subcode */
    CLI_NODE_NO,       /* passes only for a line given with "no" */
    CLI_NODE_DEFAULT,  /* passes only for a line given with "default" */
    CLI_NODE_GENERATE, /* configuration-generation hook: handler(pb) with pb->gen set */
    CLI_NODE_TEST,     /* passes only when test(pb) is true */
};

struct cli_node {
    enum cli_node_kind kind;
    const char *word;
    const char *help;
    int64_t min;
    int64_t max;
    int slot;
    uint32_t flag;
    cli_handler_t handler;
    int32_t subcode;
    cli_test_t test;
    const struct cli_node *const *next; /* alternatives that follow, null-terminated */
};

/* Starts the client for `name` on the loop.  0, or negative. */
int cli_client_init(const char *name, struct qn_thread_master *master);
/* All commands are added: start serving.  Replays the saved startup
 * configuration once the loop runs. */
int cli_client_ready(void);
/* Adds the graph `root` (alternatives, null-terminated) to `mode`.  False on
 * failure (unknown mode, client not started). */
bool cli_add_command(int mode, const struct cli_node *const *root, const char *name);
/* Prints to the operator running the current command. */
int cli_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* Appends one saved-configuration line (no newline needed) while generating. */
int c2p_printf(int kind, struct cli_parse_block *pb, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
/* Registers a debug switch; `off(kind)` is called with kind 2 when the
 * operator switches all debugging off ("undebug all"). */
int sys_add_debug(const char *name, int a, int b, int c, void (*off)(int kind), int d);

#ifdef __cplusplus
}
#endif

#endif
