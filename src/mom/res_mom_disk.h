/* Flash lifetime records. */
#ifndef RES_MOM_DISK_H
#define RES_MOM_DISK_H

#include <stdint.h>

#include "qn_mom.h"

int res_mom_disk_handler(uint32_t op, void *data);
int res_mom_scan_disk_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_disk_cb(void *ctx, qn_mom_reply_t *reply);

#endif
