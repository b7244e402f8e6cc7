/* I/O records and the upgrade gate. */
#ifndef RES_MOM_IO_H
#define RES_MOM_IO_H

#include <stdint.h>

#include "qn_mom.h"
#include "proto/p_utils.pb-c.h"

/* Upgrade gate values. */
#define RES_MOM_GATE_UPGRADE 2u
#define RES_MOM_GATE_ISSU 1u
extern uint32_t res_mom_upgrade_flag;

struct res_mom_node;

int res_mom_io_handler(uint32_t op, void *data);
/* Send entry of the I/O timer: "SEND" with the number of processes. */
int res_mom_io_send(uint32_t count);
int res_mom_io_set(PUtils__StovigIo *message, uint32_t count);
int res_mom_save_io(const PUtils__StovigIo *message);
int res_disk_io_warning_save_task(struct res_mom_node *node, const PUtils__StovigIo *message);
int res_mom_save_proc_io(struct res_mom_node *node, const PUtils__StovigIo *message);
int res_mom_scan_io_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_io_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_save_upgrade_flag(int event, void *value);
int res_mom_save_issu_flag(int event, void *value);
int res_mom_sub_upgrade_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_upgrade_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_issu_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_issu_cb(void *ctx, qn_mom_reply_t *reply);

#endif
