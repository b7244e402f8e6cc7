/* I/O records and the upgrade gate. */
#ifndef RES_MOM_IO_H
#define RES_MOM_IO_H

#include <stdint.h>

#include "qn_mom.h"

/* Upgrade gate values. */
#define RES_MOM_GATE_UPGRADE 2u
#define RES_MOM_GATE_ISSU 1u
extern uint32_t res_mom_upgrade_flag;

int res_mom_io_handler(uint32_t op, void *data);
int res_mom_scan_io_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_io_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_save_upgrade_flag(int event, void *value);
int res_mom_save_issu_flag(int event, void *value);
int res_mom_sub_upgrade_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_upgrade_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_issu_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_issu_cb(void *ctx, qn_mom_reply_t *reply);

/* The value of a reply as the save functions take it: the record itself for
 * kinds 1 and 24, the nested result for kinds 4 and 6. */
void *res_mom_reply_value(qn_mom_reply_t *reply);

#endif
