/* Configuration and debug-level records: every node but the master listens
 * to both and reads them once when its subscription is confirmed. */
#include "mom/res_mom_conf.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_data.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include "proto/p_dev.pb-c.h"
#include "proto/p_utils.pb-c.h"

namespace {

/* Applies a received debug record; whether the level changed. */
bool res_mom_apply_dbg(const PUtils__StovigDbg *dbg)
{
    return res_set_debug_level(dbg->dbg_level) == 0;
}

/* The two record kinds share their handler and callbacks; their lines carry
 * the name of the entry point that was called (res_mom_conf_handler,
 * res_mom_sub_dbg_cb, ...). */
#define RES_CONF_ERR(fmt, ...) \
    res_log(RES_CH_BOTH, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, RES_SRC_FILE, fn, __LINE__, fmt, ##__VA_ARGS__)
#define RES_CONF_DBG(fmt, ...) \
    res_log(RES_CH_BOTH, RES_GATE_DBG, QN_ZLOG_LEVEL_DEBUG, RES_SRC_FILE, fn, __LINE__, fmt, ##__VA_ARGS__)

/* Both records of QN_MOM_DEV_DB with their (empty) index: the pattern of a
 * scan or subscription, or the record a send fills. */
struct res_mom_dev_db_records {
    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigSmplIntrl conf = P_UTILS__STOVIG_SMPL_INTRL__INIT;
    PUtils__StovigDbg debug = P_UTILS__STOVIG_DBG__INIT;
};

/* What sets the configuration record and the debug record apart, one
 * constant per kind: its subscription bit, its callbacks, how it is sent and
 * applied, and the words of its log lines. */
struct res_mom_dev_db_kind {
    uint32_t sub_bit;
    qn_mom_cb_t scan_cb;
    qn_mom_cb_t sub_cb;
    /* The kind's entry point, called again to scan once subscribed. */
    int (*handler)(uint32_t op);
    ProtobufCMessage *(*record)(res_mom_dev_db_records *r);
    /* Fills the record from the local state and stores it. */
    int (*send)(res_mom_dev_db_records *r);
    /* Applies a received record to the local state. */
    void (*apply)(const char *fn, const ProtobufCMessage *value);
    const char *what;         /* "conf", "debug" in the handler's line */
    const char *subscribed;   /* confirmation lines */
    const char *unsubscribed;
};

int res_mom_conf_store(res_mom_dev_db_records *r)
{
    r->conf.io_intr = static_cast<uint32_t>(io_interval);
    r->conf.io_thrshd = static_cast<uint32_t>(io_threshold);
    r->conf.part_ro_intr = static_cast<uint32_t>(ro_interval);
    r->conf.part_cap_intr = static_cast<uint32_t>(cap_interval);
    r->conf.part_cap_thrshd = static_cast<uint32_t>(cap_threshold);
    r->conf.dsk_lf_intr = static_cast<uint32_t>(disk_interval);
    r->conf.dsk_lf_thrshd = static_cast<uint32_t>(disk_threshold);
    return qn_mom_hmset(res_mom_client, QN_MOM_DEV_DB, &r->conf.base, 0, 0);
}

int res_mom_dbg_store(res_mom_dev_db_records *r)
{
    r->debug.dbg_level = res_dbg_level;
    return qn_mom_set(res_mom_client, QN_MOM_DEV_DB, &r->debug.base, 0, 0);
}

void res_mom_conf_apply(const char *, const ProtobufCMessage *value)
{
    res_mom_conf_chg(reinterpret_cast<const PUtils__StovigSmplIntrl *>(value));
}

void res_mom_dbg_apply(const char *fn, const ProtobufCMessage *value)
{
    auto *rec = reinterpret_cast<const PUtils__StovigDbg *>(value);
    /* Only a level of 0 to 5 is taken, so it prints the same signed or not. */
    if (res_mom_apply_dbg(rec))
        RES_CONF_DBG("set debug mode to %u.", rec->dbg_level);
}

/* Each kind's record among the handler's two. */
ProtobufCMessage *res_mom_conf_record(res_mom_dev_db_records *r) { return &r->conf.base; }
ProtobufCMessage *res_mom_dbg_record(res_mom_dev_db_records *r) { return &r->debug.base; }

const res_mom_dev_db_kind res_mom_conf_kind = {
    RES_MOM_SUB_CONF, res_mom_scan_conf_cb, res_mom_sub_conf_cb, res_mom_conf_handler, res_mom_conf_record,
    res_mom_conf_store, res_mom_conf_apply, "conf", "subscribe PUtils__StovigSmplIntrl success",
    "unsubscribe PUtils__StovigSmplIntrl success"};
const res_mom_dev_db_kind res_mom_dbg_kind = {
    RES_MOM_SUB_DBG, res_mom_scan_dbg_cb, res_mom_sub_dbg_cb, res_mom_dbg_handler, res_mom_dbg_record,
    res_mom_dbg_store, res_mom_dbg_apply, "debug", "subscribe PUtils__StovigDbg success",
    "unsubscribe PUtils__StovigDbg success"};

int res_mom_dev_db_handler(const char *fn, uint32_t op, const res_mom_dev_db_kind &kind)
{
    if (!RES_MOM_OP_VALID(op))
        return -1;
    if (!(res_mom_conn_flag & RES_MOM_CONN_DEV_READY)) {
        RES_CONF_ERR("QN_MOM_DEV_DB is not connect ready.");
        return -1;
    }
    res_mom_dev_db_records records;
    records.conf.index = records.debug.index = &records.index;
    const ProtobufCMessage *pattern = kind.record(&records);
    int ret = 0;
    switch (op) {
    case RES_MOM_OP_SEND:
        if (res_local_node.role != P_DEV__DM_ROLE_E__DM_ROLE_MASTER) {
            RES_CONF_DBG("current node is not master, ignore send conf.");
            ret = 0;
            break;
        }
        ret = kind.send(&records);
        break;
    case RES_MOM_OP_SCAN:
        ret = qn_mom_scan(res_mom_client, QN_MOM_DEV_DB, pattern, 0, kind.scan_cb, nullptr);
        break;
    case RES_MOM_OP_SUB:
        ret = qn_mom_subscribe(res_mom_client, QN_MOM_DEV_DB, pattern, 0, kind.sub_cb, nullptr);
        break;
    case RES_MOM_OP_UNSUB:
        ret = qn_mom_unsubscribe(res_mom_client, QN_MOM_DEV_DB, pattern, 0, kind.sub_cb, nullptr);
        break;
    default:
        break;
    }
    RES_CONF_DBG("%s %s from mom with ret[%d]", res_mom_op_name[op], kind.what, ret);
    return ret;
}

int res_mom_sub_dev_db_cb(const char *fn, qn_mom_reply_t *reply, const res_mom_dev_db_kind &kind)
{
    if (!res_mom_reply_ok(RES_SRC_FILE, fn, reply))
        return -1;
    switch (reply->type) {
    case RES_MOM_KIND_SUBSCRIBED:
        RES_CONF_DBG("%s", kind.subscribed);
        res_mom_sub_flag |= kind.sub_bit;
        /* Fetch the current value. */
        return kind.handler(RES_MOM_OP_SCAN);
    case RES_MOM_KIND_UNSUBSCRIBED:
        RES_CONF_DBG("%s", kind.unsubscribed);
        res_mom_sub_flag &= ~kind.sub_bit;
        return 0;
    case RES_MOM_KIND_VALUE:
    case RES_MOM_KIND_VALUE_FIELDS:
        if (!reply->res || reply->res->error) {
            RES_CONF_ERR("res is invalid.");
            return -1;
        }
        if (!reply->res->value) {
            RES_CONF_DBG("get configure from QN_MOM_MONITOR_DB value is NULL.");
            return 0;
        }
        kind.apply(fn, reply->res->value);
        return 0;
    default:
        RES_CONF_ERR("msg is invalid.");
        return -1;
    }
}

int res_mom_scan_dev_db_cb(const char *fn, qn_mom_reply_t *reply, const res_mom_dev_db_kind &kind)
{
    int step = res_mom_scan_step(RES_SRC_FILE, fn, reply, "scan over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    if (!reply->res || !reply->res->value) {
        RES_CONF_DBG("get null obj");
        return 0;
    }
    kind.apply(fn, reply->res->value);
    return 0;
}

} // namespace

void res_mom_conf_chg(const PUtils__StovigSmplIntrl *record)
{
    if (!record)
        return;
    /* The intervals travel as unsigned words; -100 (closed) comes back as is. */
    int32_t v = static_cast<int32_t>(record->io_intr);
    if (v != io_interval)
        res_mon_reset_io_intr(v);
    v = static_cast<int32_t>(record->io_thrshd);
    if (v != io_threshold) {
        RES_DBG("reset io threshold from %d to %d.", io_threshold, v);
        io_threshold = v;
    }
    v = static_cast<int32_t>(record->part_ro_intr);
    if (v != ro_interval)
        res_mon_reset_ro_intr(v);
    v = static_cast<int32_t>(record->part_cap_intr);
    if (v != cap_interval)
        res_mon_reset_cap_intr(v);
    v = static_cast<int32_t>(record->part_cap_thrshd);
    if (v != cap_threshold) {
        RES_DBG("reset cap threshold from %d to %d.", cap_threshold, v);
        cap_threshold = v;
    }
    v = static_cast<int32_t>(record->dsk_lf_intr);
    if (v != disk_interval)
        res_mon_reset_disk_intr(v, res_disk_type);
    v = static_cast<int32_t>(record->dsk_lf_thrshd);
    if (v != disk_threshold) {
        /* kept: the lifetime threshold's line says "cap", as it always has. */
        RES_DBG("reset cap threshold from %d to %d.", disk_threshold, v);
        res_mon_set_lifetime_threshold(v);
    }
}

int res_mom_conf_send(void)
{
    return res_mom_conf_handler(RES_MOM_OP_SEND);
}

int res_mom_dbg_send(void)
{
    return res_mom_dbg_handler(RES_MOM_OP_SEND);
}

int res_mom_conf_handler(uint32_t op)
{
    return res_mom_dev_db_handler(__func__, op, res_mom_conf_kind);
}

int res_mom_dbg_handler(uint32_t op)
{
    return res_mom_dev_db_handler(__func__, op, res_mom_dbg_kind);
}

int res_mom_sub_conf_cb(void *, qn_mom_reply_t *reply)
{
    return res_mom_sub_dev_db_cb(__func__, reply, res_mom_conf_kind);
}

int res_mom_sub_dbg_cb(void *, qn_mom_reply_t *reply)
{
    return res_mom_sub_dev_db_cb(__func__, reply, res_mom_dbg_kind);
}

int res_mom_scan_conf_cb(void *, qn_mom_reply_t *reply)
{
    return res_mom_scan_dev_db_cb(__func__, reply, res_mom_conf_kind);
}

int res_mom_scan_dbg_cb(void *, qn_mom_reply_t *reply)
{
    return res_mom_scan_dev_db_cb(__func__, reply, res_mom_dbg_kind);
}
