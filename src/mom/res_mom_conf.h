/* Configuration and debug-level records in QN_MOM_DEV_DB. */
#ifndef RES_MOM_CONF_H
#define RES_MOM_CONF_H

#include <stdint.h>

#include "qn_mom.h"
#include "proto/p_utils.pb-c.h"

int res_mom_conf_handler(uint32_t op);
int res_mom_dbg_handler(uint32_t op);
int res_mom_scan_conf_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_conf_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_dbg_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_dbg_cb(void *ctx, qn_mom_reply_t *reply);

/* Entry points of the configuration and debug commands: publish the whole
 * record (master only). */
int res_mom_conf_send(void);
int res_mom_dbg_send(void);
/* Applies a received configuration record to the local settings. */
void res_mom_conf_chg(const PUtils__StovigSmplIntrl *record);

#endif
