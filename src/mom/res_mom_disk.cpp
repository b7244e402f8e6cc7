/* Flash lifetime records: the node publishes its lifetime table, the master
 * keeps every node's devices and writes a line when a verdict changes. */
#include "mom/res_mom_age.h"
#include "misc/res_health.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "misc/res_heap.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_main.h"

#include "qn_ndm.h"
#include "qn_zlog.h"

#include <cstdlib>
#include <cstring>

namespace {

/* Writes the lifetime line of a changed flag: the warning, or its
 * recovery. */
void res_lifetime_warning_save_task(const char *node_name, const char *name, const PUtils__DiskInfo *e)
{
    if (e->ltime_flag == RES_HEALTH_WARNING)
        RES_EVENT("%s The %s Chip's Lifetime Is %d, Shorter Than Config %d !", node_name, name,
                  static_cast<int32_t>(static_cast<uint32_t>(e->disk_left_life)), disk_threshold);
    else if (e->ltime_flag == RES_HEALTH_RECOVERED)
        RES_EVENT("%s The %s Chip's Lifetime recover health !", node_name, name);
}

} // namespace

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
        return res_mom_disk_set(&disk, *static_cast<const int32_t *>(data), 0);
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

int res_mom_disk_send(int32_t count)
{
    return res_mom_disk_handler(RES_MOM_OP_SEND, &count);
}

int res_mom_disk_set(PUtils__StovigDiskInfo *message, int32_t count, int)
{
    int32_t rows = count <= 0 ? 0 : (count < RES_DISK_INFO_NUM ? count : RES_DISK_INFO_NUM);
    /* Freed with every entry built so far on return. */
    auto entries = res_entries_alloc<PUtils__DiskInfo>(static_cast<size_t>(rows));
    if (!entries) {
        RES_ERR("malloc error reason");
        return -1;
    }
    int ret = 0;
    int32_t built = 0;
    bool complete = true;
    for (; built < rows; ++built) {
        auto *e = static_cast<PUtils__DiskInfo *>(malloc(sizeof(PUtils__DiskInfo)));
        if (!e) {
            RES_ERR("malloc error reason");
            complete = false;
            break;
        }
        const struct res_disk_info_t *row = &res_disk_info[built];
        p_utils__disk_info__init(e);
        e->disk_name = const_cast<char *>(row->name);
        e->disk_power_time = static_cast<uint64_t>(static_cast<int64_t>(row->disk_used_time));
        e->disk_left_life = static_cast<uint64_t>(static_cast<int64_t>(row->left_life));
        e->ltime_flag = row->flag;
        entries.get()[built] = e;
        RES_DBG("disk_info[%d]: disk_name = %s, disk_power_time = %d, disk_left_life = %d, ltime_flag = %d", built,
                e->disk_name, row->disk_used_time, row->left_life, e->ltime_flag);
    }
    if (complete && (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY)) {
        res_mom_fill_local_index(message->index);
        message->n_info = static_cast<size_t>(rows);
        message->info = entries.get();
        RES_DBG("qn_mom_set disk info begin");
        ret = qn_mom_set(res_mom_client, QN_MOM_MONITOR_DB, &message->base, 0, 0);
        message->n_info = 0;
        message->info = nullptr;
    }
    return ret;
}

int res_mom_save_disk_lft(int event, void *value)
{
    const PUtils__StovigDiskInfo *rec = nullptr;
    if (event == RES_MOM_KIND_VALUE_DIRECT || event == RES_MOM_KIND_SCAN_VALUE) {
        rec = static_cast<const PUtils__StovigDiskInfo *>(value);
    } else if (event == RES_MOM_KIND_VALUE || event == RES_MOM_KIND_VALUE_FIELDS) {
        auto *res = static_cast<qn_mom_res_t *>(value);
        if (!res || res->error) {
            RES_ERR("res unexpected, error!\n");
            return -1;
        }
        rec = reinterpret_cast<const PUtils__StovigDiskInfo *>(res->value);
    } else {
        RES_DBG("ignore cmd:%d\n", event);
        return -1;
    }
    if (!rec) {
        RES_DBG("get disk info from TUNNER_DB value is NULL.");
        return -1;
    }
    const int32_t idx[3] = {rec->index ? rec->index->t_devid : 0, rec->index ? rec->index->t_slotid : 0,
                            rec->index ? rec->index->t_sslotid : 0};
    struct res_mom_node *node = res_mom_get_node_by_index2(idx);
    if (!node) {
        RES_ERR("device is not exist in list.");
        return 0;
    }
    res_mom_node_mark_rx(node, RES_MOM_REC_LIFETIME);
    if (rec->n_info < 1 || !rec->info) {
        RES_ERR("save node lifetime capacity informaion failed.");
        return 0;
    }
    char node_name[RES_MOM_NAME_LEN] = {0};
    ndm_get_user_slot_name(node->devid, node->user_slot, 0, node_name, sizeof node_name);
    for (size_t i = 0; i < rec->n_info; ++i) {
        const PUtils__DiskInfo *e = rec->info[i];
        const char *name = e->disk_name ? e->disk_name : "";
        struct res_mom_lifetime_node *d =
            res_mom_get_lifetime_node_by_name(&node->lifetime_list, name, static_cast<int>(strlen(name)));
        if (!d) {
            RES_ERR("can't get node by name[%s].", name);
            break;
        }
        if (e->ltime_flag != d->flag)
            res_lifetime_warning_save_task(node_name, name, e);
        d->power_time = e->disk_power_time;
        d->left_lifetime = e->disk_left_life;
        d->flag = e->ltime_flag;
        d->seen = 1;
    }
    res_mom_sweep_seen<struct res_mom_lifetime_node>(&node->lifetime_list);
    return 0;
}

int res_mom_sub_disk_cb(void *, qn_mom_reply_t *reply)
{
    /* kept: the same text as the I/O subscription's. */
    int step = RES_MOM_SUB_STEP(reply, "subscribe io success", RES_MOM_SUB_DISK);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE)
        return res_mom_disk_handler(RES_MOM_OP_SCAN, nullptr);
    return res_mom_save_disk_lft(reply->type, res_mom_reply_value(reply));
}

int res_mom_scan_disk_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan disk lft over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    return res_mom_save_disk_lft(reply->type, res_mom_reply_value(reply));
}
