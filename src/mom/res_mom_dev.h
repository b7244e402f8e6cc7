/* Device and card tracking: the card records add and remove nodes, the role
 * record sets the local role and starts the master duties. */
#ifndef RES_MOM_DEV_H
#define RES_MOM_DEV_H

#include <stdint.h>

#include "proto/p_dev.pb-c.h"
#include "qn_mom.h"

int res_mom_card_info_handler(uint32_t op);
int res_mom_role_handler(uint32_t op);
int res_mom_dev_info_handle(const PDev__CardInfo *card);
int res_mom_card_info_sub_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_card_info_scan_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_role_cb(void *ctx, qn_mom_reply_t *reply);
/* Cancels a pending read of the records for newly listed nodes (tests). */
void res_mom_dev_timers_cancel(void);

#endif
