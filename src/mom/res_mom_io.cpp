/* I/O records: the master subscribes to and scans every node's I/O record,
 * and follows the upgrade and ISSU state records, which hold back I/O
 * warnings while the device is being upgraded. */
#include "mom/res_mom_age.h"
#include "misc/res_health.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_enum.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_stale.h"
#include "mom/res_mom_data.h"
#include "misc/res_heap.h"
#include "misc/res_saturate.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"

#include "proto/p_utils.pb-c.h"
#include "qn_ndm.h"
#include "qn_zlog.h"

#include <cstdlib>
#include <cstring>

/* The compressed swap device's journal thread, left out of the process list. */
#define RES_IO_SKIP_NAME "jbd2/zram0-8"
#define RES_IO_SKIP_LEN 12

uint32_t res_mom_upgrade_flag = 0;

/* The I/O record carries its health flag as a double. */
constexpr double RES_IO_FLAG_WARNING = static_cast<double>(RES_HEALTH_WARNING);
constexpr double RES_IO_FLAG_RECOVERED = static_cast<double>(RES_HEALTH_RECOVERED);

namespace {

bool res_mom_io_skipped(const struct xxxid_stats *s)
{
    return s->name && strlen(s->name) >= RES_IO_SKIP_LEN && strncmp(s->name, RES_IO_SKIP_NAME, RES_IO_SKIP_LEN) == 0;
}

} // namespace

int res_mom_io_send(uint32_t count)
{
    return res_mom_io_handler(RES_MOM_OP_SEND, &count);
}

int res_mom_io_set(PUtils__StovigIo *message, uint32_t count)
{
    if (!io_device_list) {
        RES_ERR("dev_list empty.");
        return -1;
    }
    size_t n_disks = 0;
    for (struct io_device *d = io_device_list; d; d = d->next)
        if (d->exist && d->is_disk == 1)
            ++n_disks;
    if (n_disks == 0) {
        RES_DBG("no disk i/o information is valid.");
        return 0;
    }
    /* Both lists are freed on every return below, the record only
     * borrowing them for the store. */
    auto disks = res_entries_alloc<PUtils__DiskIo>(n_disks);
    if (!disks) {
        RES_ERR("malloc disk i/o list error");
        return -5;
    }
    size_t i = 0;
    for (struct io_device *d = io_device_list; d && i < n_disks; d = d->next) {
        if (!(d->exist && d->is_disk == 1))
            continue;
        auto *e = static_cast<PUtils__DiskIo *>(malloc(sizeof(PUtils__DiskIo)));
        if (!e) {
            RES_ERR("malloc disk i/o infor node error");
            return -5;
        }
        p_utils__disk_io__init(e);
        e->disk_name = d->name;
        /* Sectors of 512 bytes per second, published as KB per second. */
        e->io_read = d->rsec_rate / 2;
        e->io_write = d->wsec_rate / 2;
        e->io_util = d->util;
        e->io_flag = static_cast<double>(d->io_warn_state);
        disks.get()[i++] = e;
    }
    auto procs = res_entries_alloc<PUtils__ProcIo>(count);
    if (!procs) {
        RES_ERR("malloc process i/o list error");
        return -5;
    }
    struct xxxid_stats_arr *sample = res_mon_io_top_current();
    struct xxxid_stats **order = sample ? (sample->sor ? sample->sor : sample->arr) : nullptr;
    size_t avail = (sample && order && sample->length > 0) ? static_cast<size_t>(sample->length) : 0;
    size_t n_procs = 0;
    bool skipped = false;
    for (size_t pos = 0; pos < count; ++pos) {
        size_t src = skipped ? pos + 1 : pos;
        if (src >= avail)
            break;
        if (!skipped) {
            res_mon_xxxid_resolve(order[src]);
            if (res_mom_io_skipped(order[src])) {
                skipped = true;
                ++src;
                if (src >= avail)
                    break;
            }
        }
        struct xxxid_stats *s = order[src];
        res_mon_xxxid_resolve(s);
        auto *e = static_cast<PUtils__ProcIo *>(malloc(sizeof(PUtils__ProcIo)));
        if (!e) {
            RES_ERR("malloc process i/o node error");
            return -5;
        }
        p_utils__proc_io__init(e);
        e->proc_id = s->tid;
        e->proc_name = s->name ? s->name : res_xxxid_unknown;
        e->io_read = s->read_val;
        e->io_write = s->write_val;
        e->io_swap = s->swapin_val;
        e->io_util = s->blkio_val;
        e->cmd = s->cmdline ? s->cmdline : res_xxxid_unknown;
        procs.get()[n_procs++] = e;
    }
    int ret = 0;
    if (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) {
        res_mom_fill_local_index(message->index);
        message->n_disk_io_info = n_disks;
        message->disk_io_info = disks.get();
        message->n_proc_io_info = n_procs;
        message->proc_io_info = procs.get();
        ret = qn_mom_set(res_mom_client, QN_MOM_MONITOR_DB, &message->base, 0, 0);
        RES_VERBOSE("set IO information with ret[%d].", ret);
        message->n_disk_io_info = 0;
        message->disk_io_info = nullptr;
        message->n_proc_io_info = 0;
        message->proc_io_info = nullptr;
    }
    return ret;
}

int res_disk_io_warning_save_task(struct res_mom_node *node, const PUtils__StovigIo *message)
{
    if (message->n_disk_io_info < 1 || !message->disk_io_info) {
        RES_ERR("save device node disk io failed[%d].", -1);
        return -1;
    }
    char node_name[RES_MOM_NAME_LEN] = {0};
    ndm_get_user_slot_name(node->devid, node->user_slot, 0, node_name, sizeof node_name);
    for (size_t i = 0; i < message->n_disk_io_info; ++i) {
        const PUtils__DiskIo *e = message->disk_io_info[i];
        const char *name = e->disk_name ? e->disk_name : "";
        struct res_mom_disk_io_node *d =
            res_mom_get_disk_io_node_by_name(&node->disk_io_list, name, static_cast<int>(strlen(name)));
        if (!d) {
            RES_ERR("can't get node by name[%s].", name);
            break;
        }
        /* A disk seen for the first time counts as normal. */
        if (d->io_flag == RES_HEALTH_OK)
            d->io_flag = RES_HEALTH_RECOVERED;
        double n = e->io_flag;
        /* The line's last words: a warning's usage or a recovery. */
        const char *change = nullptr;
        if (n != static_cast<double>(d->io_flag)) {
            if (res_mom_upgrade_flag != 0) {
                /* While upgrading only recoveries get through; a new warning
                 * waits for the first record after the gate opens. */
                if (n == RES_IO_FLAG_RECOVERED) {
                    d->io_flag = RES_HEALTH_RECOVERED;
                    change = "returned to normal";
                }
            } else {
                d->io_flag = res_sat_u32_from_double(n);
                if (n == RES_IO_FLAG_WARNING)
                    change = "usage";
                else if (n == RES_IO_FLAG_RECOVERED)
                    change = "returned to normal";
            }
        }
        if (change) {
            char rd[32] = {0}, wr[32] = {0}, use[32] = {0};
            at_snprintf(rd, sizeof rd, "%.2f", e->io_read);
            at_snprintf(wr, sizeof wr, "%.2f", e->io_write);
            at_snprintf(use, sizeof use, "%.2f", e->io_util);
            RES_EVENT("%s High disk %s I/O read: %s KBps I/O write: %s KBps I/O %s: %s%%.", node_name, name, rd, wr,
                      change, use);
        }
        d->io_read = e->io_read;
        d->io_write = e->io_write;
        d->io_util = e->io_util;
        d->seen = 1;
    }
    res_mom_sweep_seen<struct res_mom_disk_io_node>(&node->disk_io_list);
    return 0;
}

int res_mom_save_proc_io(struct res_mom_node *node, const PUtils__StovigIo *message)
{
    if (message->n_proc_io_info < 1 || !message->proc_io_info) {
        RES_ERR("save device node process io failed[%d].", -1);
        return -1;
    }
    res_mom_clear_proc_io_list(&node->proc_io_list);
    for (size_t i = 0; i < message->n_proc_io_info; ++i) {
        const PUtils__ProcIo *e = message->proc_io_info[i];
        struct res_mom_proc_io_node p;
        memset(&p, 0, sizeof p);
        p.proc_id = e->proc_id;
        at_snprintf(p.proc_name, sizeof p.proc_name, "%s", e->proc_name ? e->proc_name : "");
        p.io_read = e->io_read;
        p.io_write = e->io_write;
        p.io_swap = e->io_swap;
        p.io_util = e->io_util;
        at_snprintf(p.cmd, sizeof p.cmd, "%s", e->cmd ? e->cmd : "");
        if (res_mom_add_node_proc_io_list(&p, &node->proc_io_list) != 0)
            RES_ERR("add process[%d] io information failed.", static_cast<int>(e->proc_id));
    }
    return 0;
}

int res_mom_save_io(const PUtils__StovigIo *message)
{
    if (!message) {
        RES_DBG("get IO from MONITOR_DB value is NULL.");
        return 0;
    }
    struct res_mom_node *node = res_mom_get_node_by_index(message->index);
    if (!node) {
        RES_ERR("device is not exist in list.");
        return 0;
    }
    res_mom_node_mark_rx(node, RES_MOM_REC_IO);
    res_disk_io_warning_save_task(node, message);
    res_mom_save_proc_io(node, message);
    return 0;
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
        ret = res_mom_io_set(&io, *static_cast<const uint32_t *>(data));
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
    int step = RES_MOM_SUB_STEP(reply, "subscribe io success", RES_MOM_SUB_IO);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE)
        return res_mom_io_handler(RES_MOM_OP_SCAN, nullptr);
    auto *rec = reinterpret_cast<const PUtils__StovigIo *>(res_mom_reply_record(reply));
    int ret = res_mom_save_io(rec);
    /* Only a change is a fresh report: a scan hands back the last record of
     * a node that has gone quiet as well. */
    if (rec)
        res_mom_stale_io_report(rec->index);
    return ret;
}

int res_mom_scan_io_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan i/o over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    res_mom_save_io(reinterpret_cast<const PUtils__StovigIo *>(res_mom_reply_record(reply)));
    return 0;
}

namespace {

/* The upgrade and the ISSU records share their reading of a reply value;
 * only the end of two of its lines tells them apart. */
struct res_mom_gate_kind {
    /* kept: the ISSU lines end in a newline of their own, the upgrade
     * lines do not. */
    const char *line_end;
};

const res_mom_gate_kind res_mom_upgrade_gate = {""};
const res_mom_gate_kind res_mom_issu_gate = {"\n"};

/* The record carried by a reply value, or null; -1 in *bad when the value is
 * not usable at all. */
const ProtobufCMessage *res_mom_gate_record(int event, void *value, const res_mom_gate_kind &kind, int *bad)
{
    *bad = 0;
    if (event == RES_MOM_KIND_VALUE_DIRECT || event == RES_MOM_KIND_SCAN_VALUE)
        return static_cast<const ProtobufCMessage *>(value);
    if (event == RES_MOM_KIND_VALUE || event == RES_MOM_KIND_VALUE_FIELDS) {
        auto *res = static_cast<qn_mom_res_t *>(value);
        if (!res || res->error) {
            RES_ERR("res unexpected, error!%s", kind.line_end);
            *bad = 1;
            return nullptr;
        }
        return res->value;
    }
    RES_DBG("ignore cmd:%d%s", event, kind.line_end);
    *bad = 1;
    return nullptr;
}

} // namespace

int res_mom_save_upgrade_flag(int event, void *value)
{
    int bad;
    auto *rec = reinterpret_cast<const PUtils__UpgradeGlobalStatus *>(res_mom_gate_record(event, value, res_mom_upgrade_gate, &bad));
    if (bad)
        return -1;
    if (!rec) {
        RES_ERR("get role from TUNNER_DB value is NULL.");
        return 0;
    }
    const int32_t status = res_mom_enum_value(rec->status);
    RES_DBG("upgrade flag : %d", status);
    if (status != P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT) {
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
    auto *rec = reinterpret_cast<const PUtils__IssuNGlobalInfo *>(res_mom_gate_record(event, value, res_mom_issu_gate, &bad));
    if (bad)
        return -1;
    if (!rec) {
        RES_ERR("get role from TUNNER_DB value is NULL.");
        return 0;
    }
    const int32_t state = res_mom_enum_value(rec->state);
    RES_DBG("issu upgrade flag : %d", state);
    if (state != P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_INIT) {
        RES_DBG("it is issu upgrading now");
        res_mom_upgrade_flag |= RES_MOM_GATE_ISSU;
    } else {
        res_mom_upgrade_flag &= ~RES_MOM_GATE_ISSU;
    }
    return 0;
}

int res_mom_sub_upgrade_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe upgrade global success", 0);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE) {
        PUtils__UpgradeGlobalStatus pattern = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
        return qn_mom_scan(res_mom_client, RES_MOM_UPGRADE_DB, &pattern.base, 0, res_mom_scan_upgrade_cb, nullptr);
    }
    return res_mom_save_upgrade_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_scan_upgrade_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan upgrade info over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    return res_mom_save_upgrade_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_sub_issu_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SUB_STEP(reply, "subscribe issu global success", 0);
    if (step == RES_MOM_STEP_INVALID)
        return -1;
    if (step == RES_MOM_STEP_DONE) {
        PUtils__IssuNGlobalInfo pattern = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
        return qn_mom_scan(res_mom_client, QN_MOM_MONITOR_DB, &pattern.base, 0, res_mom_scan_issu_cb, nullptr);
    }
    return res_mom_save_issu_flag(reply->type, res_mom_reply_value(reply));
}

int res_mom_scan_issu_cb(void *, qn_mom_reply_t *reply)
{
    int step = RES_MOM_SCAN_STEP(reply, "scan issu info over");
    if (step != RES_MOM_STEP_RECORD)
        return step;
    return res_mom_save_issu_flag(reply->type, res_mom_reply_value(reply));
}
