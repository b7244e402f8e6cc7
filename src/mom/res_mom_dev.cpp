/* Device and card tracking. */
#include "mom/res_mom_dev.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_enum.h"
#include "mom/res_mom_part.h"
#include "misc/res_zlog.h"

#include <cstdlib>

namespace {

struct qn_thread *res_mom_rescan_thread = nullptr;

/* Records of a node that came before its card record were not kept (no
 * node to keep them in): once the node is listed, the record kinds already
 * subscribed are read again, one read for every node listed in the same
 * second. */
int res_mom_records_rescan(struct qn_thread *)
{
    res_mom_rescan_thread = nullptr;
    RES_DBG("new node listed, read the records on the bus again.");
    if (res_mom_sub_flag & RES_MOM_SUB_IO)
        res_mom_io_handler(RES_MOM_OP_SCAN, nullptr);
    if (res_mom_sub_flag & RES_MOM_SUB_RO)
        res_mom_ro_handler(RES_MOM_OP_SCAN, nullptr);
    if (res_mom_sub_flag & RES_MOM_SUB_VOL)
        res_mom_vol_handler(RES_MOM_OP_SCAN, nullptr);
    if (res_mom_sub_flag & RES_MOM_SUB_DISK)
        res_mom_disk_handler(RES_MOM_OP_SCAN, nullptr);
    return 0;
}

void res_mom_records_rescan_soon(void)
{
    const uint32_t records = RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
    if (res_mom_rescan_thread || !(res_mom_sub_flag & records))
        return;
    res_mom_rescan_thread =
        qn_thread_add_timer_withname(res_mom_master, res_mom_records_rescan, nullptr, 1, "res_rescan_time");
}

} // namespace

void res_mom_dev_timers_cancel(void)
{
    qn_thread_cancel(res_mom_rescan_thread);
    res_mom_rescan_thread = nullptr;
}

int res_mom_card_info_handler(uint32_t op)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    PDev__CardInfo pattern = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
    pattern.index = &index;
    int ret = 0;
    if (op == RES_MOM_OP_SCAN) {
        ret = qn_mom_scan(res_mom_client, QN_MOM_TUNNER_DB, &pattern.base, 0, res_mom_card_info_scan_cb, nullptr);
    } else if (op == RES_MOM_OP_SUB) {
        /* Only the online state matters here. */
        static const uint32_t fields[1] = {7};
        ret = qn_mom_subscribe_field(res_mom_client, QN_MOM_TUNNER_DB, &pattern.base, 0, fields,
                                     res_mom_card_info_sub_cb, nullptr, 1);
    }
    RES_DBG("%s handle card_info with ret[%d].", res_mom_op_name[op], ret);
    return ret;
}

int res_mom_role_handler(uint32_t op)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    if (op != RES_MOM_OP_SUB)
        return 0;
    PDev__DpLibGrole pattern = P_DEV__DP_LIB_GROLE__INIT;
    return qn_mom_subscribe(res_mom_client, QN_MOM_TUNNER_DB, &pattern.base, 0, res_mom_sub_role_cb, nullptr);
}

int res_mom_dev_info_handle(const PDev__CardInfo *card)
{
    if (!card || !card->index)
        return 0;
    const int32_t index[3] = {card->index->devid, card->index->slotid, card->index->sslotid};
    if (card->is_online == 1) {
        if (res_mom_get_node_by_index2(index))
            return 0;
        struct res_mom_node *node = res_mom_malloc_node_init();
        if (!node) {
            RES_ERR("malloc device node infor err.");
            return 0;
        }
        node->devid = index[0];
        node->slotid = index[1];
        node->sslotid = index[2];
        node->user_slot = card->user_slot;
        if (res_mom_add_node_info_list(node) != 0) {
            RES_ERR("add new device node into list failed.");
            free(node);
        } else {
            res_mom_records_rescan_soon();
        }
    } else if (card->is_online == 0) {
        RES_DBG("detect deivce [%d,%d,%d] offline.", index[0], index[1], index[2]);
        if (res_mom_clear_node_by_index(index) != 0)
            RES_ERR("delete device[%d,%d,%d] failed.", index[0], index[1], index[2]);
        /* kept: the lifetime record stays in the bus when a card goes
         * offline; only the I/O, read-only and capacity records go. */
        int32_t del_index[3] = {index[0], index[1], index[2]};
        res_mom_io_handler(RES_MOM_OP_DEL, del_index);
        res_mom_ro_handler(RES_MOM_OP_DEL, del_index);
        res_mom_vol_handler(RES_MOM_OP_DEL, del_index);
    }
    return 0;
}

int res_mom_card_info_sub_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe card info success", RES_MOM_SUB_CARD);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE) {
        /* Learn the cards that are already online. */
        if (res_mom_card_info_handler(RES_MOM_OP_SCAN) != 0)
            RES_ERR("scan online device failed.");
        return 0;
    }
    if (reply->type == RES_MOM_KIND_VALUE || reply->type == RES_MOM_KIND_VALUE_FIELDS) {
        if (!reply->res || reply->res->error) {
            RES_ERR("res is invalid.");
            return -1;
        }
        auto *card = reinterpret_cast<const PDev__CardInfo *>(reply->res->value);
        if (!card || !card->index) {
            RES_ERR("ignore device event due to card_obj is NULL.");
            return 0;
        }
        return res_mom_dev_info_handle(card);
    }
    RES_ERR("msg is invalid.");
    return -1;
}

int res_mom_card_info_scan_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    if (!reply->res || reply->res->error) {
        RES_ERR("res is invalid.");
        return -1;
    }
    auto *card = reinterpret_cast<const PDev__CardInfo *>(reply->res->value);
    if (!card) {
        RES_DBG("get null obj");
        return 0;
    }
    return res_mom_dev_info_handle(card);
}

int res_mom_sub_role_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe device role success", RES_MOM_SUB_ROLE);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE)
        return 0;
    if (reply->type == RES_MOM_KIND_VALUE || reply->type == RES_MOM_KIND_VALUE_FIELDS) {
        if (!reply->res || reply->res->error) {
            RES_ERR("res is invalid.");
            return -1;
        }
        auto *role = reinterpret_cast<const PDev__DpLibGrole *>(reply->res->value);
        if (!role) {
            RES_WARN("get role from QN_TUNNER_DB value is NULL.");
            return 0;
        }
        const int32_t my_grole = res_mom_enum_value(role->my_grole);
        RES_DBG("get role[%d].", my_grole);
        int32_t old = res_local_node.role;
        res_local_node.role = my_grole;
        if (my_grole == P_DEV__DM_ROLE_E__DM_ROLE_MASTER && old != P_DEV__DM_ROLE_E__DM_ROLE_MASTER)
            res_mom_master_handle();
        return 0;
    }
    RES_ERR("msg is invalid.");
    return -1;
}
