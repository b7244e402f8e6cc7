/* How old each node's figures are: the store notes when each kind of record
 * reached a node, and the outputs turn that into an age. */
#ifndef RES_MOM_AGE_H
#define RES_MOM_AGE_H

#include <stdint.h>

#include "mom/res_mom_data.h"

/* Milliseconds on the monotonic clock (never goes back with the wall clock). */
uint64_t res_mom_age_now_ms(void);
/* Notes that a record of `kind` for `node` was saved just now. */
void res_mom_node_mark_rx(struct res_mom_node *node, enum res_mom_rec_kind kind);
/* Seconds since `node` last received a record of `kind` as seen at `now_ms`,
 * or -1 when it never has. */
double res_mom_node_age_s(const struct res_mom_node *node, enum res_mom_rec_kind kind, uint64_t now_ms);
/* Name of a record kind as the outputs spell it: "io", "capacity",
 * "readonly", "lifetime". */
const char *res_mom_rec_kind_name(enum res_mom_rec_kind kind);

#endif
