/* Partition capacity and read-only records. */
#ifndef RES_MOM_PART_H
#define RES_MOM_PART_H

#include <stdint.h>

#include "qn_mom.h"

int res_mom_vol_handler(uint32_t op, void *data);
int res_mom_ro_handler(uint32_t op, void *data);
int res_mom_scan_vol_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_vol_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_ro_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_ro_cb(void *ctx, qn_mom_reply_t *reply);

#endif
