/* I/O records: the master subscribes to and scans every node's I/O record,
 * and follows the upgrade and ISSU state records, which hold back I/O
 * warnings while the device is being upgraded. */
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "misc/res_zlog.h"

#include "proto/p_utils.pb-c.h"

uint32_t res_mom_upgrade_flag = 0;

void *res_mom_reply_value(qn_mom_reply_t *reply)
{
    if (!reply)
        return nullptr;
    if (reply->type == RES_MOM_KIND_VALUE_DIRECT || reply->type == RES_MOM_KIND_SCAN_VALUE)
        return reply->res ? reply->res->value : nullptr;
    return reply->res;
}

int res_mom_io_handler(uint32_t op, void *data)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    PUtils__StovigIo io = P_UTILS__STOVIG_IO__INIT;
    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    io.index = &index;
    int ret = 0;
    switch (op) {
    case RES_MOM_OP_SEND:
        if (!data)
            return -1;
        ret = res_mom_send_not_built("PUtils__StovigIo");
        break;
    case RES_MOM_OP_DEL: {
        if (!data)
            return -1;
        const int32_t *idx = static_cast<const int32_t *>(data);
        index.t_devid = idx[0];
        index.t_slotid = idx[1];
        index.t_sslotid = idx[2];
        ret = qn_mom_del(res_mom_client, QN_MOM_MONITOR_DB, &io.base, 0, 0);
        break;
    }
    case RES_MOM_OP_SCAN:
        ret = qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, &io.base, 0, res_mom_scan_io_cb, nullptr);
        break;
    case RES_MOM_OP_SUB: {
        PUtils__IssuNGlobalInfo issu = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
        PUtils__UpgradeGlobalStatus upgrade = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
        ret = qn_mom_subscribe(res_mom_client, QN_MOM_MONITOR_DB, &io.base, 0, res_mom_sub_io_cb, nullptr);
        ret |= qn_mom_subscribe(res_mom_client, QN_MOM_MONITOR_DB, &issu.base, 0, res_mom_sub_issu_cb, nullptr);
        ret |= qn_mom_subscribe(res_mom_client, RES_MOM_UPGRADE_DB, &upgrade.base, 0, res_mom_sub_upgrade_cb,
                                nullptr);
        break;
    }
    default:
        break;
    }
    RES_VERBOSE("%s io from mom with ret[%d]", res_mom_op_name[op], ret);
    return ret;
}

int res_mom_sub_io_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe io success");
        res_mom_sub_flag |= RES_MOM_SUB_IO;
        return res_mom_io_handler(RES_MOM_OP_SCAN, nullptr);
    }
    return res_mom_save_not_built("PUtils__StovigIo", reply->type);
}

int res_mom_scan_io_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan i/o over");
        return 0;
    }
    res_mom_save_not_built("PUtils__StovigIo", reply->type);
    return 0;
}

namespace {

/* The record carried by a reply value, or null; -1 in *bad when the value is
 * not usable at all. */
const ProtobufCMessage *res_mom_gate_record(int event, void *value, bool issu, int *bad)
{
    *bad = 0;
    if (event == RES_MOM_KIND_VALUE_DIRECT || event == RES_MOM_KIND_SCAN_VALUE)
        return static_cast<const ProtobufCMessage *>(value);
    if (event == RES_MOM_KIND_VALUE || event == RES_MOM_KIND_VALUE_FIELDS) {
        auto *res = static_cast<qn_mom_res_t *>(value);
        if (!res || res->error) {
            RES_ERR(issu ? "res unexpected, error!\n" : "res unexpected, error!");
            *bad = 1;
            return nullptr;
        }
        return res->value;
    }
    RES_DBG(issu ? "ignore cmd:%d\n" : "ignore cmd:%d", event);
    *bad = 1;
    return nullptr;
}

} // namespace

int res_mom_save_upgrade_flag(int event, void *value)
{
    int bad;
    auto *rec = reinterpret_cast<const PUtils__UpgradeGlobalStatus *>(res_mom_gate_record(event, value, false, &bad));
    if (bad)
        return -1;
    if (!rec) {
        RES_ERR("get role from TUNNER_DB value is NULL.");
        return 0;
    }
    RES_DBG("upgrade flag : %d", static_cast<int>(rec->status));
    if (rec->status != P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT) {
        RES_DBG("it is upgrading now");
        res_mom_upgrade_flag |= RES_MOM_GATE_UPGRADE;
    } else {
        res_mom_upgrade_flag &= ~RES_MOM_GATE_UPGRADE;
    }
    return 0;
}

int res_mom_save_issu_flag(int event, void *value)
{
    int bad;
    auto *rec = reinterpret_cast<const PUtils__IssuNGlobalInfo *>(res_mom_gate_record(event, value, true, &bad));
    if (bad)
        return -1;
    if (!rec) {
        RES_ERR("get role from TUNNER_DB value is NULL.");
        return 0;
    }
    RES_DBG("issu upgrade flag : %d", static_cast<int>(rec->state));
    if (rec->state != P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_INIT) {
        RES_DBG("it is issu upgrading now");
        res_mom_upgrade_flag |= RES_MOM_GATE_ISSU;
    } else {
        res_mom_upgrade_flag &= ~RES_MOM_GATE_ISSU;
    }
    return 0;
}

int res_mom_sub_upgrade_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe upgrade global success");
        PUtils__UpgradeGlobalStatus pattern = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
        return qn_mom_scan(res_mom_client, RES_MOM_UPGRADE_DB, &pattern.base, 0, res_mom_scan_upgrade_cb, nullptr);
    }
    return res_mom_save_upgrade_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_scan_upgrade_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan upgrade info over");
        return 0;
    }
    return res_mom_save_upgrade_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_sub_issu_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe issu global success");
        PUtils__IssuNGlobalInfo pattern = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
        return qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, &pattern.base, 0, res_mom_scan_issu_cb, nullptr);
    }
    return res_mom_save_issu_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_scan_issu_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan issu info over");
        return 0;
    }
    return res_mom_save_issu_flag(reply->type, res_mom_reply_value(reply));
}
