/* Flash lifetime records: handler and the master's subscription and scan
 * callbacks. */
#include "mom/res_mom_disk.h"
#include "mom/res_mom_main.h"
#include "misc/res_zlog.h"

#include "proto/p_utils.pb-c.h"

int res_mom_disk_handler(uint32_t op, void *data)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigDiskInfo disk = P_UTILS__STOVIG_DISK_INFO__INIT;
    disk.index = &index;
    switch (op) {
    case RES_MOM_OP_SEND:
        if (!data)
            return -1;
        return res_mom_send_not_built("PUtils__StovigDiskInfo");
    case RES_MOM_OP_DEL: {
        if (!data)
            return -1;
        const int32_t *idx = static_cast<const int32_t *>(data);
        index.t_devid = idx[0];
        index.t_slotid = idx[1];
        index.t_sslotid = idx[2];
        return qn_mom_del(res_mom_client, QN_MOM_MONITOR_DB, &disk.base, 0, 0);
    }
    case RES_MOM_OP_SCAN:
        return qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, &disk.base, 0, res_mom_scan_disk_cb, nullptr);
    case RES_MOM_OP_SUB:
        return qn_mom_subscribe(res_mom_client, QN_MOM_MONITOR_DB, &disk.base, 0, res_mom_sub_disk_cb, nullptr);
    default:
        return 0;
    }
}

int res_mom_sub_disk_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->type == RES_MOM_KIND_SUBSCRIBED) {
        RES_DBG("subscribe io success");
        res_mom_sub_flag |= RES_MOM_SUB_DISK;
        return res_mom_disk_handler(RES_MOM_OP_SCAN, nullptr);
    }
    return res_mom_save_not_built("PUtils__StovigDiskInfo", reply->type);
}

int res_mom_scan_disk_cb(void *, qn_mom_reply_t *reply)
{
    if (!reply || reply->error) {
        RES_ERR("msg is invalid.");
        return -1;
    }
    if (reply->scan_state == RES_MOM_SCAN_OVER) {
        RES_DBG("scan disk lft over");
        return 0;
    }
    return res_mom_save_not_built("PUtils__StovigDiskInfo", reply->type);
}
