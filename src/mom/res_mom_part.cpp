/* Partition capacity and read-only records: one handler per record kind,
 * the master's subscription and scan callbacks. */
#include "mom/res_mom_part.h"
#include "mom/res_mom_main.h"
#include "misc/res_zlog.h"

#include "proto/p_utils.pb-c.h"

namespace {

int res_mom_part_handler(uint32_t op, void *data, bool ro)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
    PUtils__StovigPartRo rorec = P_UTILS__STOVIG_PART_RO__INIT;
    vol.index = &index;
    rorec.index = &index;
    const ProtobufCMessage *rec = ro ? &rorec.base : &vol.base;
    int ret = 0;
    switch (op) {
    case RES_MOM_OP_SEND:
        if (!data)
            return -1;
        ret = res_mom_send_not_built(ro ? "PUtils__StovigPartRo" : "PUtils__StovigPartInfo");
        break;
    case RES_MOM_OP_DEL: {
        if (!data)
            return -1;
        const int32_t *idx = static_cast<const int32_t *>(data);
        index.t_devid = idx[0];
        index.t_slotid = idx[1];
        index.t_sslotid = idx[2];
        ret = qn_mom_del(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, 0);
        break;
    }
    case RES_MOM_OP_SCAN:
        ret = qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, ro ? res_mom_scan_ro_cb : res_mom_scan_vol_cb,
                          nullptr);
        break;
    case RES_MOM_OP_SUB:
        ret = qn_mom_subscribe(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, ro ? res_mom_sub_ro_cb : res_mom_sub_vol_cb,
                               nullptr);
        break;
    default:
        break;
    }
    if (ro)
        RES_VERBOSE("%s part read-only from mom with ret[%d]", res_mom_op_name[op], ret);
    else
        RES_VERBOSE("%s part volume from mom with ret[%d]", res_mom_op_name[op], ret);
    return ret;
}

} // namespace

int res_mom_vol_handler(uint32_t op, void *data)
{
    return res_mom_part_handler(op, data, false);
}

int res_mom_ro_handler(uint32_t op, void *data)
{
    return res_mom_part_handler(op, data, true);
}

int res_mom_sub_vol_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe part volume success");
        res_mom_sub_flag |= RES_MOM_SUB_VOL;
        res_mom_vol_handler(RES_MOM_OP_SCAN, nullptr);
        return 0;
    }
    if (res_mom_save_not_built("PUtils__StovigPartInfo", reply->type) != 0)
        RES_DBG("subscribe partition capacity save fialed.");
    return 0;
}

int res_mom_scan_vol_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan over");
        return 0;
    }
    if (res_mom_save_not_built("PUtils__StovigPartInfo", reply->type) != 0)
        RES_ERR("scan partition capacity save fialed.");
    return 0;
}

int res_mom_sub_ro_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe part read-only success");
        res_mom_sub_flag |= RES_MOM_SUB_RO;
        res_mom_ro_handler(RES_MOM_OP_SCAN, nullptr);
        return 0;
    }
    int ret = res_mom_save_not_built("PUtils__StovigPartRo", reply->type);
    if (ret != 0)
        RES_ERR("save read-only information with ret[%d].", ret);
    return 0;
}

int res_mom_scan_ro_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan over");
        return 0;
    }
    int ret = res_mom_save_not_built("PUtils__StovigPartRo", reply->type);
    if (ret != 0)
        RES_ERR("scan partition readonly save failed.");
    return ret;
}
