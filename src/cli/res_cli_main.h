/* The storage commands on the command-line service: configuration (storage
 * ... set), display (show storage ...) and the debug switch (debug stovig). */
#ifndef RES_CLI_MAIN_H
#define RES_CLI_MAIN_H

#include "qn_cli.h"

/* Mask of the generation flags a handler tests. */
#define RES_CLI_GEN_MASK 18

#define RES_CLI_FLAG_INTERVAL 4
#define RES_CLI_FLAG_THRESHOLD 8

int res_cli_init(void);

int cfg_res_io_set_cmd(struct cli_parse_block *pb);
int cfg_res_ro_set_cmd(struct cli_parse_block *pb);
int cfg_res_cap_set_cmd(struct cli_parse_block *pb);
int cfg_res_disk_set_cmd(struct cli_parse_block *pb);
int cfg_res_dbg_cmd(struct cli_parse_block *pb);
int cfg_res_show_cmd(struct cli_parse_block *pb);
int cfg_res_show_set_cmd(struct cli_parse_block *pb);
/* "show storage <item> json" */
int cfg_res_show_json_cmd(struct cli_parse_block *pb);

#endif
