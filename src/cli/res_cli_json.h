/* "show storage <item> json": what the show output says, as one JSON
 * document that the operator's tools can read without parsing tables. */
#ifndef RES_CLI_JSON_H
#define RES_CLI_JSON_H

#include <stdint.h>

#include <string>

#include "cli/res_cli_show.h"

/* The document for `item` (RES_SHOW_*) as seen at `now_ms` on the monotonic
 * clock: an array of the store's nodes in show order, with only the sections
 * the item selects.  An item outside 1..5 gives an empty string. */
std::string res_cli_json_storage(int32_t item, uint64_t now_ms);

/* Prints the document and a newline through `print`.  0, -4 when the store
 * holds no node (after printing "[]"), -1 for an item outside 1..5 or no
 * printer, as the text form. */
int res_cli_show_storage_json(int32_t item, res_cli_printer print);

#endif
