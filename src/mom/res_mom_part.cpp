/* Partition capacity and read-only records: one handler per record kind, the
 * node's publishers reading the partition table, and the master's saving of
 * received records with its warning and recovery lines. */
#include "mom/res_mom_age.h"
#include "misc/res_health.h"
#include "mom/res_mom_part.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_main.h"
#include "misc/res_heap.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"

#include "qn_ndm.h"
#include "qn_zlog.h"

#include <cstdlib>
#include <cstring>

namespace {

/* Both partition records with their index: the pattern of a delete, scan
 * or subscription, or the record a send fills. */
struct res_mom_part_records {
    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
    PUtils__StovigPartRo ro = P_UTILS__STOVIG_PART_RO__INIT;
};

/* What sets the capacity record and the read-only record apart, one
 * constant per kind: its callbacks, how it is built from the table and the
 * word of the handler's line. */
struct res_mom_part_kind {
    const char *what; /* "volume", "read-only" */
    qn_mom_cb_t scan_cb;
    qn_mom_cb_t sub_cb;
    ProtobufCMessage *(*record)(res_mom_part_records *r);
    /* Builds the record from the first `count` table rows and stores it. */
    int (*set)(res_mom_part_records *r, int32_t count);
};

/* Each kind's record among the handler's two. */
ProtobufCMessage *res_mom_part_vol_record(res_mom_part_records *r) { return &r->vol.base; }
ProtobufCMessage *res_mom_part_ro_record(res_mom_part_records *r) { return &r->ro.base; }

int res_mom_part_vol_store(res_mom_part_records *r, int32_t count)
{
    return res_mom_part_vol_set(&r->vol, count);
}

int res_mom_part_ro_store(res_mom_part_records *r, int32_t count)
{
    return res_mom_part_ro_set(&r->ro, count);
}

const res_mom_part_kind res_mom_part_vol_kind = {"volume", res_mom_scan_vol_cb, res_mom_sub_vol_cb,
                                                 res_mom_part_vol_record, res_mom_part_vol_store};
const res_mom_part_kind res_mom_part_ro_kind = {"read-only", res_mom_scan_ro_cb, res_mom_sub_ro_cb,
                                                res_mom_part_ro_record, res_mom_part_ro_store};

int res_mom_part_handler(uint32_t op, void *data, const res_mom_part_kind &kind)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    res_mom_part_records records;
    records.vol.index = records.ro.index = &records.index;
    const ProtobufCMessage *rec = kind.record(&records);
    int ret = 0;
    switch (op) {
    case RES_MOM_OP_SEND:
        if (!data)
            return -1;
        ret = kind.set(&records, *static_cast<const int32_t *>(data));
        break;
    case RES_MOM_OP_DEL: {
        if (!data)
            return -1;
        const int32_t *idx = static_cast<const int32_t *>(data);
        records.index.t_devid = idx[0];
        records.index.t_slotid = idx[1];
        records.index.t_sslotid = idx[2];
        ret = qn_mom_del(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, 0);
        break;
    }
    case RES_MOM_OP_SCAN:
        ret = qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, kind.scan_cb, nullptr);
        break;
    case RES_MOM_OP_SUB:
        ret = qn_mom_subscribe(res_mom_client, QN_MOM_MONITOR_DB, rec, 0, kind.sub_cb, nullptr);
        break;
    default:
        break;
    }
    RES_VERBOSE("%s part %s from mom with ret[%d]", res_mom_op_name[op], kind.what, ret);
    return ret;
}

/* An entry of either kind for a table row, initialised by `init`, with the
 * fields both kinds take (strings referencing the table); null when it
 * cannot be allocated. */
template <typename Entry>
Entry *res_mom_part_entry(void (*init)(Entry *), const struct res_part_info *row)
{
    auto *e = static_cast<Entry *>(malloc(sizeof(Entry)));
    if (!e)
        return nullptr;
    init(e);
    e->part_path = const_cast<char *>(row->path);
    e->part_uname = const_cast<char *>(row->name);
    e->exist = row->mounted;
    return e;
}

/* Writes the capacity line of a changed flag: the warning, or its
 * recovery. */
void res_part_vol_warning_task(const char *node_name, const char *uname, const PUtils__PartInfo *e)
{
    char usage[32] = {0};
    char threshold[32] = {0};
    float ratio = static_cast<float>(e->use_vol) / static_cast<float>(e->total_vol) * 100.0f;
    at_snprintf(usage, sizeof usage, "%.2f", ratio);
    at_snprintf(threshold, sizeof threshold, "%.2f", static_cast<double>(cap_threshold));
    if (e->flag == RES_HEALTH_WARNING)
        RES_EVENT("%s High partition %s usage: %s%%, the capacity threshold is %s%%.", node_name, uname, usage,
                  threshold);
    else if (e->flag == RES_HEALTH_RECOVERED)
        RES_EVENT("%s Partition %s usage returned to normal: %s%%, the capacity threshold is %s%%.", node_name,
                  uname, usage, threshold);
}

/* Writes the read-only line of a changed flag: the warning, or its
 * recovery. */
void res_part_ro_warning_task(const char *node_name, const char *uname, uint32_t flag)
{
    if (flag == RES_HEALTH_WARNING)
        RES_EVENT("%s Partition %s is readonly.", node_name, uname);
    else if (flag == RES_HEALTH_RECOVERED)
        RES_EVENT("%s Partition %s read and write returned to normal.", node_name, uname);
}

/* Number of table rows an entry array covers. */
int32_t res_mom_part_rows(int32_t count)
{
    if (count <= 0)
        return 0;
    return count < RES_PART_NUM ? count : RES_PART_NUM;
}

} // namespace

int res_mom_vol_handler(uint32_t op, void *data)
{
    return res_mom_part_handler(op, data, res_mom_part_vol_kind);
}

int res_mom_ro_handler(uint32_t op, void *data)
{
    return res_mom_part_handler(op, data, res_mom_part_ro_kind);
}

int res_mom_part_vol_send(int32_t count)
{
    return res_mom_vol_handler(RES_MOM_OP_SEND, &count);
}

int res_mom_part_ro_send(int32_t count)
{
    return res_mom_ro_handler(RES_MOM_OP_SEND, &count);
}

void **res_mom_part_info_set(int32_t count, int kind)
{
    int32_t rows = res_mom_part_rows(count);
    /* Owned until complete: a failure frees whatever was built. */
    auto entries = res_entries_alloc<void>(static_cast<size_t>(rows));
    if (!entries) {
        RES_ERR("malloc error reason");
        return nullptr;
    }
    for (int32_t i = 0; i < rows; ++i) {
        const struct res_part_info *row = &res_part_table[i];
        void *e;
        if (kind == 0) {
            PUtils__PartInfo *v = res_mom_part_entry(p_utils__part_info__init, row);
            if (v) {
                v->total_vol = row->total_kb;
                v->use_vol = row->used_kb;
                v->flag = row->usage_state;
                v->vol_visible = row->check_usage;
            }
            e = v;
        } else {
            PUtils__PartRo *r = res_mom_part_entry(p_utils__part_ro__init, row);
            if (r) {
                r->ro_flag = row->ro_state;
                r->ro_visible = row->check_usage;
            }
            e = r;
        }
        if (!e) {
            RES_ERR("malloc error reason");
            return nullptr;
        }
        entries.get()[i] = e;
    }
    return entries.release();
}

namespace {

/* Stores a capacity or read-only record with the built entries (taken
 * over, freed on return) under the local index, once the local identity is
 * complete.  The result of the store, or 0 when not ready. */
template <typename Record>
int res_mom_part_publish(Record *message, void **built, int32_t count)
{
    int32_t rows = res_mom_part_rows(count);
    res_entries<void> entries(built, res_entries_free<void>{static_cast<size_t>(rows)});
    int ret = 0;
    if (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) {
        res_mom_fill_local_index(message->index);
        message->n_info = static_cast<size_t>(rows);
        message->info = reinterpret_cast<decltype(message->info)>(entries.get());
        ret = qn_mom_set(res_mom_client, QN_MOM_MONITOR_DB, &message->base, 0, 0);
        message->n_info = 0;
        message->info = nullptr;
    }
    return ret;
}

} // namespace

int res_mom_part_vol_set(PUtils__StovigPartInfo *message, int32_t count)
{
    void **entries = res_mom_part_info_set(count, 0);
    if (!entries) {
        RES_ERR("can't set part volume.");
        return -1;
    }
    return res_mom_part_publish(message, entries, count);
}

int res_mom_part_ro_set(PUtils__StovigPartRo *message, int32_t count)
{
    void **entries = res_mom_part_info_set(count, 1);
    if (!entries) {
        RES_ERR("can't set part readonly.");
        return -1;
    }
    return res_mom_part_publish(message, entries, count);
}

namespace {

/* Lines of the shared saving loop, under the name of the saver that runs it. */
#define RES_PART_SAVE_ERR(fmt, ...) \
    res_log(RES_CH_BOTH, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, RES_SRC_FILE, fn, __LINE__, fmt, ##__VA_ARGS__)

/* The loop both partition savers share: each received entry finds (or
 * creates) the node's partition by path and `apply` folds the kind's fields
 * in, with the node's slot name for its line; then partitions no longer
 * listed go.  A record without entries is logged as `empty` (when given)
 * and `failed`; a partition that cannot be had ends the save there, logged
 * as "can't get <what> by path[...]." and `failed`. */
template <typename Entry, typename Apply>
void res_mom_part_save_each(const char *fn, struct res_mom_node *node, Entry *const *info, size_t n,
                            const char *what, const char *empty, const char *failed, Apply apply)
{
    if (n < 1 || !info) {
        if (empty)
            RES_PART_SAVE_ERR("%s", empty);
        RES_PART_SAVE_ERR("%s", failed);
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        const Entry *e = info[i];
        const char *path = e->part_path ? e->part_path : "";
        const char *uname = e->part_uname ? e->part_uname : "";
        struct res_mom_part_node *p =
            res_mom_get_part_node_by_path(&node->part_list, path, static_cast<int>(strlen(path)));
        if (!p) {
            RES_PART_SAVE_ERR("can't get %s by path[%s].", what, path);
            RES_PART_SAVE_ERR("%s", failed);
            return;
        }
        char node_name[RES_MOM_NAME_LEN] = {0};
        ndm_get_user_slot_name(node->devid, node->user_slot, 0, node_name, sizeof node_name);
        apply(p, e, node_name, uname);
        at_snprintf(p->part_uname, sizeof p->part_uname, "%s", uname);
        p->exist = e->exist;
        p->seen = 1;
    }
    res_mom_sweep_seen<struct res_mom_part_node>(&node->part_list);
}

} // namespace

int res_mom_save_part_vol(struct res_mom_node *node, const PUtils__StovigPartInfo *message)
{
    res_mom_part_save_each(__func__, node, message->info, message->n_info, "node", nullptr,
                           "save node part capacity informaion failed.",
                           [](struct res_mom_part_node *p, const PUtils__PartInfo *e, const char *node_name,
                              const char *uname) {
                               if (e->flag != p->vol_flag)
                                   res_part_vol_warning_task(node_name, uname, e);
                               p->total_vol = e->total_vol;
                               p->use_vol = e->use_vol;
                               p->vol_flag = e->flag;
                               p->vol_visible = e->vol_visible;
                           });
    return 0;
}

int res_mom_save_vol(const PUtils__StovigPartInfo *message)
{
    if (!message) {
        RES_WARN("get role from TUNNER_DB value is NULL.");
        return -1;
    }
    struct res_mom_node *node = res_mom_get_node_by_index(message->index);
    if (!node) {
        RES_ERR("can't get node from list.");
        return -1;
    }
    res_mom_node_mark_rx(node, RES_MOM_REC_VOL);
    return res_mom_save_part_vol(node, message);
}

int res_mom_save_part_ro(struct res_mom_node *node, const PUtils__StovigPartRo *message)
{
    res_mom_part_save_each(__func__, node, message->info, message->n_info, "part node",
                           "info or num is not invalid.", "save node part readonly failed.",
                           [](struct res_mom_part_node *p, const PUtils__PartRo *e, const char *node_name,
                              const char *uname) {
                               if (e->ro_flag != p->ro_flag)
                                   res_part_ro_warning_task(node_name, uname, e->ro_flag);
                               p->ro_flag = e->ro_flag;
                               p->ro_visible = e->ro_visible;
                           });
    return 0;
}

int res_mom_save_ro(const PUtils__StovigPartRo *message)
{
    if (!message) {
        RES_DBG("MOM msg value is NULL.");
        return 0;
    }
    struct res_mom_node *node = res_mom_get_node_by_index(message->index);
    if (!node) {
        RES_ERR("get node from list failed.");
        return -1;
    }
    res_mom_node_mark_rx(node, RES_MOM_REC_RO);
    return res_mom_save_part_ro(node, message);
}

int res_mom_sub_vol_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe part volume success", RES_MOM_SUB_VOL);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE) {
        res_mom_vol_handler(RES_MOM_OP_SCAN, nullptr);
        return 0;
    }
    auto *rec = reinterpret_cast<const PUtils__StovigPartInfo *>(res_mom_reply_record(reply));
    if (res_mom_save_vol(rec) != 0)
        RES_DBG("subscribe partition capacity save fialed.");
    return 0;
}

int res_mom_scan_vol_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    auto *rec = reinterpret_cast<const PUtils__StovigPartInfo *>(res_mom_reply_record(reply));
    if (res_mom_save_vol(rec) != 0)
        RES_ERR("scan partition capacity save fialed.");
    return 0;
}

int res_mom_sub_ro_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe part read-only success", RES_MOM_SUB_RO);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE) {
        res_mom_ro_handler(RES_MOM_OP_SCAN, nullptr);
        return 0;
    }
    auto *rec = reinterpret_cast<const PUtils__StovigPartRo *>(res_mom_reply_record(reply));
    int ret = res_mom_save_ro(rec);
    if (ret != 0)
        RES_ERR("save read-only information with ret[%d].", ret);
    return 0;
}

int res_mom_scan_ro_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    auto *rec = reinterpret_cast<const PUtils__StovigPartRo *>(res_mom_reply_record(reply));
    int ret = res_mom_save_ro(rec);
    if (ret != 0)
        RES_ERR("scan partition readonly save failed.");
    return ret;
}
