/* The "show storage" output, printed from the node store. */
#ifndef RES_CLI_SHOW_H
#define RES_CLI_SHOW_H

#include <stdint.h>

#define RES_SHOW_IO 1
#define RES_SHOW_RO 2
#define RES_SHOW_CAPACITY 3
#define RES_SHOW_LIFETIME 4
#define RES_SHOW_ALL 5

typedef int (*res_cli_printer)(const char *fmt, ...);

/* 0 after printing, -4 when the node store holds no node, -1 for an item
 * outside 1..5 or no printer. */
int res_cli_show_storage(int32_t item, res_cli_printer print);

/* Whether the lifetime of this storage type can be shown: eMMC, or SSD with
 * the SMART tool present. */
bool res_cli_lifetime_supported(void);

#endif
