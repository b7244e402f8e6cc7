/* Flash lifetime records. */
#ifndef RES_MOM_DISK_H
#define RES_MOM_DISK_H

#include <stdint.h>

#include "qn_mom.h"
#include "proto/p_utils.pb-c.h"

int res_mom_disk_handler(uint32_t op, void *data);
int res_mom_scan_disk_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_disk_cb(void *ctx, qn_mom_reply_t *reply);

/* Send entry of the lifetime timers: "SEND" with the number of rows. */
int res_mom_disk_send(int32_t count);
/* Publishes the first `count` rows of the lifetime table; `mode` is unused. */
int res_mom_disk_set(PUtils__StovigDiskInfo *message, int32_t count, int mode);
/* Folds a received lifetime record (a reply's event type and value) into the
 * node store. */
int res_mom_save_disk_lft(int event, void *value);

#endif
