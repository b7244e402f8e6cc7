/* Bus connection and master role. */
#include "mom/res_mom_main.h"
#include "mom/res_mom_cap.h"
#include "mom/res_mom_conf.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_dev.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_part.h"
#include "mom/res_mom_stale.h"
#include "misc/res_zlog.h"

#include "proto/p_dev.pb-c.h"
#include "qn_ndm.h"

const char *const res_mom_op_name[12] = {"NA",   "SEND", "DEL",  "CLEAN", "GET",  "SCAN",
                                         "PUB",  "SUB",  "UNSUB", "SHOW", "SYNC", "ALL"};

bool res_mom_reply_ok(const char *file, const char *fn, const qn_mom_reply_t *reply)
{
    if (reply && !reply->error)
        return true;
    res_log(RES_CH_BOTH, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, file, fn, __LINE__, "msg is invalid.");
    return false;
}

int res_mom_sub_step(const char *file, const char *fn, const qn_mom_reply_t *reply, const char *subscribed,
                     uint32_t bit)
{
    if (!res_mom_reply_ok(file, fn, reply))
        return RES_MOM_STEP_INVALID;
    if (reply->type != RES_MOM_KIND_SUBSCRIBED)
        return RES_MOM_STEP_RECORD;
    res_log(RES_CH_BOTH, RES_GATE_DBG, QN_ZLOG_LEVEL_DEBUG, file, fn, __LINE__, "%s", subscribed);
    res_mom_sub_flag |= bit;
    return RES_MOM_STEP_DONE;
}

int res_mom_scan_step(const char *file, const char *fn, const qn_mom_reply_t *reply, const char *over)
{
    if (!res_mom_reply_ok(file, fn, reply))
        return RES_MOM_STEP_INVALID;
    if (reply->scan_state != RES_MOM_SCAN_OVER)
        return RES_MOM_STEP_RECORD;
    res_log(RES_CH_BOTH, RES_GATE_DBG, QN_ZLOG_LEVEL_DEBUG, file, fn, __LINE__, "%s", over);
    return RES_MOM_STEP_DONE;
}

const ProtobufCMessage *res_mom_reply_record(const qn_mom_reply_t *reply)
{
    if (!reply->res || reply->res->error)
        return nullptr;
    return reply->res->value;
}

void *res_mom_reply_value(qn_mom_reply_t *reply)
{
    if (!reply)
        return nullptr;
    if (reply->type == RES_MOM_KIND_VALUE_DIRECT || reply->type == RES_MOM_KIND_SCAN_VALUE)
        return reply->res ? reply->res->value : nullptr;
    return reply->res;
}

uint32_t res_mom_conn_flag = 0;
uint32_t res_mom_sub_flag = 0;
qn_mom_client_t *res_mom_client = nullptr;
struct qn_thread_master *res_mom_master = nullptr;

namespace {

/* The pending master timer, so that a second start while one is pending adds
 * no second timer. */
struct qn_thread *res_mom_master_thread = nullptr;
struct qn_thread *res_mom_devinfo_thread = nullptr;
struct qn_thread *res_mom_conn_check_thread = nullptr;
int res_mom_conn_checks = 0;

/* Until the device manager's database is connected, says now and then that
 * MOM cannot be reached (the bus client keeps retrying and tells why on
 * standard error): at 1, 2, 4, 8 ... periods, so a long outage at start-up
 * writes a few lines, not one per period. */
int res_mom_conn_check(struct qn_thread *)
{
    res_mom_conn_check_thread = nullptr;
    if (res_mom_conn_flag & RES_MOM_CONN_TUNNER)
        return 0;
    ++res_mom_conn_checks;
    if ((res_mom_conn_checks & (res_mom_conn_checks - 1)) == 0)
        RES_ERR("MOM is not connected after %d seconds, still trying.", res_mom_conn_checks * RES_MOM_TIMER_PERIOD);
    res_mom_conn_check_thread = qn_thread_add_timer_withname(res_mom_master, res_mom_conn_check, nullptr,
                                                             RES_MOM_TIMER_PERIOD, "res_conn_check_time");
    return 0;
}

int res_mom_devinfo_timer_add(void)
{
    res_mom_devinfo_thread = qn_thread_add_timer_withname(res_mom_master, res_mom_get_devinfo, nullptr,
                                                          RES_MOM_TIMER_PERIOD, "res_devinfo_time");
    if (!res_mom_devinfo_thread) {
        RES_ERR("insert get_devinfo timer failed.");
        return -1;
    }
    return 0;
}

const uint32_t res_mom_connect_dbs[3] = {QN_MOM_TUNNER_DB, QN_MOM_MONITOR_DB, QN_MOM_DEV_DB};

} // namespace

int res_mom_init(struct qn_thread_master *master, uint32_t *device_type)
{
    if (!master)
        return -1;
    res_mom_conn_flag = 0;
    res_mom_sub_flag = 0;
    res_mom_master = master;

    if (res_mom_data_init() != 0) {
        RES_ERR("init res_mom_data_init fail.");
        return -1;
    }
    res_mom_client = qn_mom_client_init("STOVIG", master);
    if (!res_mom_client) {
        RES_ERR("Module stovig initializes for MOM failed.");
        return -1;
    }

    static const char *const connect_fail[3] = {
        "Module stovig connect to QN_MOM_TUNNER_DB Database failed.",
        "Module stovig connect to QN_MOM_MONITOR_DB Database failed.",
        "Module stovig connect to QN_MOM_DEV_DB Database failed.",
    };
    static const qn_mom_connect_cb_t connect_cb[3] = {res_mom_tunner_db_cb, res_mom_monitor_db_cb,
                                                      res_mom_dev_db_cb};
    for (int i = 0; i < 3; ++i) {
        RES_DBG("connect to MOM(%d)", static_cast<int>(res_mom_connect_dbs[i]));
        if (qn_mom_client_connect(res_mom_client, res_mom_connect_dbs[i], connect_cb[i], nullptr) != 0) {
            RES_ERR("%s", connect_fail[i]);
            return -1;
        }
    }

    static const uint32_t reconnect_dbs[3] = {QN_MOM_DEV_DB, QN_MOM_TUNNER_DB, QN_MOM_MONITOR_DB};
    static const char *const reconnect_fail[3] = {
        "Module stovig set reconnect to QN_MOM_DEV_DB Database failed.",
        "Module stovig set reconnect to QN_MOM_TUNNER_DB Database failed.",
        "Module stovig set reconnect to QN_MOM_MONITOR_DB Database failed.",
    };
    for (int i = 0; i < 3; ++i) {
        RES_DBG("reconnect to MOM(%d)", static_cast<int>(reconnect_dbs[i]));
        if (qn_mom_client_set_reconnect_cb(res_mom_client, reconnect_dbs[i], res_mom_db_rcb) != 0) {
            RES_ERR("%s", reconnect_fail[i]);
            return -1;
        }
    }
    res_mom_conn_checks = 0;
    qn_thread_cancel(res_mom_conn_check_thread);
    res_mom_conn_check_thread = qn_thread_add_timer_withname(master, res_mom_conn_check, nullptr,
                                                             RES_MOM_TIMER_PERIOD, "res_conn_check_time");

    /* A missing capability service is not fatal. */
    if (res_mom_cap_init(res_mom_client, "STOVIG") != 0) {
        RES_ERR("cap init fail.");
        return 0;
    }
    if (res_cap_get_device_type(res_mom_client, device_type) != 0) {
        RES_ERR("Get dev type fail.");
        return 0;
    }
    return 0;
}

int res_mom_tunner_db_cb(qn_mom_client_t *, uint32_t, void *)
{
    res_mom_conn_flag |= RES_MOM_CONN_TUNNER;
    static const uint32_t objs[6] = {DM_OBJ_DP_LIB_MY_INFO, DM_OBJ_DP_LIB_MY_CHSS_INFO, DM_OBJ_CARD_INFO,
                                     DM_OBJ_DP_LIB_GROLE,   DM_OBJ_DEVICE_STATIC_INFO,  DM_OBJ_3};
    static const char *const fail[6] = {
        "sub DM_OBJ_DP_LIB_MY_INFO failed.", "sub DM_OBJ_DP_LIB_MY_CHSS_INFO failed.",
        "sub DM_OBJ_CARD_INFO failed.",      "sub DM_OBJ_DP_LIB_GROLE failed.",
        "sub DM_OBJ_DEVICE_STATIC_INFO failed.", "sub DM_OBJ_DEVICE_STATIC_INFO failed.",
    };
    for (int i = 0; i < 6; ++i) {
        if (dm_cache_sub_obj(objs[i]) != 0) {
            RES_ERR("%s", fail[i]);
            return -1;
        }
    }
    if (dm_cache_init(res_mom_master, "qn-stovig") != 0) {
        RES_ERR("init dm failed.");
        return -1;
    }
    return res_mom_devinfo_timer_add();
}

int res_mom_monitor_db_cb(qn_mom_client_t *, uint32_t, void *)
{
    res_mom_conn_flag |= RES_MOM_CONN_MONITOR;
    return 0;
}

int res_mom_dev_db_cb(qn_mom_client_t *, uint32_t, void *)
{
    res_mom_conn_flag |= RES_MOM_CONN_DEV | RES_MOM_CONN_DEV_READY;
    if (res_mom_conf_handler(RES_MOM_OP_SUB) != 0)
        RES_ERR("subscribe configure from mom failed.");
    int ret = res_mom_dbg_handler(RES_MOM_OP_SUB);
    if (ret != 0)
        RES_ERR("subscribe debug configure from mom failed.");
    return ret;
}

int res_mom_get_devinfo(struct qn_thread *)
{
    res_mom_devinfo_thread = nullptr;
    struct res_mom_node *local = &res_local_node;
    if (local->devid < 0) {
        local->devid = ndm_get_my_devid();
        RES_DBG("get local node devid[%d].", local->devid);
    }
    if (local->slotid < 0) {
        local->slotid = ndm_get_my_phy_slot();
        RES_DBG("get local node slot[%d].", local->slotid);
    }
    if (local->sslotid < 0)
        local->sslotid = 0;
    if (local->user_slot < 0) {
        int32_t uslot = ndm_get_my_user_slot();
        if (uslot < 0)
            RES_ERR("ndm_get_my_user_slot get uslotid with ret[%d].", uslot);
        else
            local->user_slot = uslot;
    }
    if (res_mom_sub_flag & RES_MOM_SUB_ROLE) {
        if (local->role == RES_MOM_ROLE_UNSET) {
            int32_t node_type = ndm_get_my_node_type();
            if (node_type == NDM_NODE_TYPE_BOX || node_type == NDM_NODE_TYPE_CM) {
                int32_t role = ndm_get_my_dev_grole();
                RES_DBG("get local role[%d]", role);
                if (role >= 1)
                    local->role = role;
                if (local->role == P_DEV__DM_ROLE_E__DM_ROLE_MASTER) {
                    int ret = res_mom_master_handle();
                    if (ret != 0)
                        RES_ERR("call res_mom_master_handle with ret[%d]", ret);
                }
            } else {
                local->role = RES_MOM_ROLE_NO_ELECTION;
            }
        }
    } else if (res_mom_role_handler(RES_MOM_OP_SUB) != 0) {
        RES_ERR("subscribe role from dev failed.");
    }

    if (local->devid >= 0 && local->slotid >= 0 && local->sslotid >= 0 && local->user_slot >= 0 &&
        local->role != RES_MOM_ROLE_UNSET && (res_mom_sub_flag & RES_MOM_SUB_ROLE)) {
        RES_DBG("all local information is ready.");
        res_mom_conn_flag |= RES_MOM_CONN_LOCAL | RES_MOM_CONN_LOCAL_READY;
        return 0;
    }
    RES_DBG("not all local information is ready.");
    return res_mom_devinfo_timer_add();
}

void res_mom_timers_cancel(void)
{
    qn_thread_cancel(res_mom_devinfo_thread);
    qn_thread_cancel(res_mom_master_thread);
    qn_thread_cancel(res_mom_conn_check_thread);
    res_mom_devinfo_thread = nullptr;
    res_mom_master_thread = nullptr;
    res_mom_conn_check_thread = nullptr;
    res_mom_dev_timers_cancel();
    res_mom_stale_stop();
}

int res_mom_check_master(void)
{
    if (res_local_node.role == P_DEV__DM_ROLE_E__DM_ROLE_MASTER || res_local_node.role == RES_MOM_ROLE_UNSET) {
        RES_VERBOSE("current node is master or unset.");
        return 0;
    }
    RES_VERBOSE("current node is %d.", res_local_node.role);
    return -1;
}

int res_mom_master_handle(void)
{
    /* The watch over nodes that stop reporting runs from the first time
     * this node is master; it judges only while the role holds. */
    res_mom_stale_start();
    if (res_mom_master_thread)
        return 0;
    res_mom_master_thread = qn_thread_add_timer_withname(res_mom_master, res_mom_master_timer, nullptr,
                                                         RES_MOM_TIMER_PERIOD, "res_master_timer");
    if (!res_mom_master_thread) {
        RES_ERR("insert master timer failed.");
        return -1;
    }
    return 0;
}

int res_mom_master_timer(struct qn_thread *)
{
    res_mom_master_thread = nullptr;
    RES_DBG("handle master process.");
    int failed = 0;
    /* The master is the source of the configuration and does not listen to it. */
    if ((res_mom_sub_flag & RES_MOM_SUB_CONF) && res_mom_conf_handler(RES_MOM_OP_UNSUB) != 0)
        ++failed;
    if ((res_mom_sub_flag & RES_MOM_SUB_DBG) && res_mom_dbg_handler(RES_MOM_OP_UNSUB) != 0)
        ++failed;
    if (!(res_mom_sub_flag & RES_MOM_SUB_CARD) && res_mom_card_info_handler(RES_MOM_OP_SUB) != 0)
        ++failed;
    if (!(res_mom_sub_flag & RES_MOM_SUB_IO) && res_mom_io_handler(RES_MOM_OP_SUB, nullptr) != 0)
        ++failed;
    if (!(res_mom_sub_flag & RES_MOM_SUB_RO) && res_mom_ro_handler(RES_MOM_OP_SUB, nullptr) != 0)
        ++failed;
    if (!(res_mom_sub_flag & RES_MOM_SUB_VOL) && res_mom_vol_handler(RES_MOM_OP_SUB, nullptr) != 0)
        ++failed;
    if (!(res_mom_sub_flag & RES_MOM_SUB_DISK) && res_mom_disk_handler(RES_MOM_OP_SUB, nullptr) != 0)
        ++failed;
    if (failed == 0) {
        /* Every subscription stands: the configuration this master holds
         * goes out, so the other nodes judge with it also when it was set
         * before the bus was up (the saved configuration is replayed at
         * start-up, when its publication is refused). */
        res_mom_conf_handler(RES_MOM_OP_SEND);
        return 0;
    }
    RES_DBG("not all master sub operation is ready.");
    return res_mom_master_handle();
}

int res_mom_db_rcb(qn_mom_client_t *, uint32_t db, int type)
{
    if (db != QN_MOM_TUNNER_DB && db != QN_MOM_MONITOR_DB && db != QN_MOM_DEV_DB) {
        RES_DBG("reconnect event from MOM[%d], ignore it.", static_cast<int>(db));
        return 0;
    }
    RES_DBG("reconnect to MOM[%d] success, type = %d.", static_cast<int>(db), type);
    if (type == 1) {
        if (db == QN_MOM_TUNNER_DB)
            RES_DBG("detect QN_MOM_TUNNER_DB reconnected.");
        else
            RES_DBG("detect QN_MOM_MONITOR_DB reconnected.");
    } else if (type == 2) {
        RES_DBG("detect mom reconnected by RMC_SERVER_CON_CHANGE.");
    }
    /* Nothing reached the master while the link was down: no node is
     * blamed for that. */
    if (type == 1 || type == 2)
        res_mom_stale_link_back();
    return 0;
}
