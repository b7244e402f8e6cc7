/* Partition capacity and read-only records: the node publishes both from its
 * partition table, the master folds them into its node store and writes the
 * operator lines on flag changes. */
#ifndef RES_MOM_PART_H
#define RES_MOM_PART_H

#include <stdint.h>

#include "qn_mom.h"
#include "proto/p_utils.pb-c.h"

struct res_mom_node;

int res_mom_vol_handler(uint32_t op, void *data);
int res_mom_ro_handler(uint32_t op, void *data);
int res_mom_scan_vol_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_vol_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_scan_ro_cb(void *ctx, qn_mom_reply_t *reply);
int res_mom_sub_ro_cb(void *ctx, qn_mom_reply_t *reply);

/* Send entries of the partition timers: "SEND" with the number of rows. */
int res_mom_part_vol_send(int32_t count);
int res_mom_part_ro_send(int32_t count);

/* Entry array for `count` table rows: PUtils__PartInfo * (kind 0) or
 * PUtils__PartRo * (any other kind), strings referencing the table.  Null
 * on allocation failure. */
void **res_mom_part_info_set(int32_t count, int kind);
int res_mom_part_vol_set(PUtils__StovigPartInfo *message, int32_t count);
int res_mom_part_ro_set(PUtils__StovigPartRo *message, int32_t count);

int res_mom_save_vol(const PUtils__StovigPartInfo *message);
int res_mom_save_part_vol(struct res_mom_node *node, const PUtils__StovigPartInfo *message);
int res_mom_save_ro(const PUtils__StovigPartRo *message);
int res_mom_save_part_ro(struct res_mom_node *node, const PUtils__StovigPartRo *message);

#endif
