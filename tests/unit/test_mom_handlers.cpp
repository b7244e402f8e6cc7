/* The record kinds' bus handlers: operation codes, deletes, subscriptions
 * and their reply checks, the upgrade gate and the debug-level record. */
#include "test_mom_daemon.h"

#include "mom/res_mom_conf.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_part.h"

namespace {

using MomHandlerTest = MomDaemonTest;

typedef int (*handler_fn)(uint32_t, void *);

int conf_handler(uint32_t op, void *)
{
    return res_mom_conf_handler(op);
}
int dbg_handler(uint32_t op, void *)
{
    return res_mom_dbg_handler(op);
}

TEST_F(MomHandlerTest, OperationsOutsideOneToTenAreRefusedAndUnusedOnesDoNothing)
{
    ASSERT_EQ(start("node_type = 3\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_DEV_READY) != 0; }));
    const handler_fn handlers[] = {res_mom_io_handler, res_mom_ro_handler, res_mom_vol_handler, res_mom_disk_handler,
                                   conf_handler, dbg_handler};
    int32_t count = 1;
    for (handler_fn h : handlers) {
        EXPECT_EQ(h(0, &count), -1);
        EXPECT_EQ(h(11, &count), -1);
        for (uint32_t op : {3u, 4u, 6u, 9u, 10u})
            EXPECT_EQ(h(op, &count), 0) << op;
    }
    for (handler_fn h : {res_mom_io_handler, res_mom_ro_handler, res_mom_vol_handler, res_mom_disk_handler}) {
        EXPECT_EQ(h(RES_MOM_OP_SEND, nullptr), -1);
        EXPECT_EQ(h(RES_MOM_OP_DEL, nullptr), -1);
        EXPECT_EQ(h(RES_MOM_OP_UNSUB, nullptr), 0);
    }
    EXPECT_TRUE(log->has("CLEAN part volume from mom with ret[0]"));
    EXPECT_TRUE(log->has("SHOW part read-only from mom with ret[0]"));
    EXPECT_TRUE(log->has("SYNC io from mom with ret[0]"));
    EXPECT_TRUE(log->has("GET conf from mom with ret[0]"));
    EXPECT_TRUE(log->has("PUB debug from mom with ret[0]"));
}

TEST_F(MomHandlerTest, ConfigurationHandlersNeedTheDeviceDatabase)
{
    log = std::make_unique<log_capture>();
    res_mom_conn_flag = RES_MOM_CONN_DEV; /* bit 64 is the one tested */
    EXPECT_EQ(res_mom_conf_handler(RES_MOM_OP_SUB), -1);
    EXPECT_EQ(res_mom_dbg_handler(RES_MOM_OP_SCAN), -1);
    EXPECT_EQ(log->count("QN_MOM_DEV_DB is not connect ready."), 2);
}

TEST_F(MomHandlerTest, DeleteRemovesOnlyThatNodesRecord)
{
    ASSERT_EQ(start("node_type = 3\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_MONITOR) != 0; }));
    PUtils__Nodeindex a = P_UTILS__NODEINDEX__INIT, b = P_UTILS__NODEINDEX__INIT;
    a.t_slotid = 7;
    b.t_slotid = 8;
    PUtils__StovigDiskInfo disk = P_UTILS__STOVIG_DISK_INFO__INIT;
    disk.index = &a;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &disk.base, 0, 0), 0);
    disk.index = &b;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &disk.base, 0, 0), 0);
    int32_t idx[3] = {0, 7, 0};
    EXPECT_EQ(res_mom_disk_handler(RES_MOM_OP_DEL, idx), 0);
    EXPECT_EQ(keys(QN_MOM_MONITOR_DB, &disk.base),
              std::vector<std::string>{"qnmom:12:p_utils.stovig_disk_info:0.8.0.0"});
}

TEST_F(MomHandlerTest, MasterSavesEveryReceivedRecordAndRefusesUnknownNodes)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    const uint32_t bits = RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
    ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & bits) == bits; }));
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    idx.t_slotid = 9; /* no such node */
    PUtils__PartInfo e = P_UTILS__PART_INFO__INIT;
    e.part_path = const_cast<char *>("/data");
    PUtils__PartInfo *ep = &e;
    PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
    vol.index = &idx;
    vol.n_info = 1;
    vol.info = &ep;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &vol.base, 0, 0), 0);
    ASSERT_TRUE(run_until([this] { return log->has("subscribe partition capacity save fialed."); }));
    EXPECT_TRUE(log->has("can't get node from list."));
    ASSERT_EQ(res_mom_vol_handler(RES_MOM_OP_SCAN, nullptr), 0);
    ASSERT_TRUE(run_until([this] { return log->has("scan partition capacity save fialed."); }));
    EXPECT_TRUE(log->has("scan over"));
    ASSERT_EQ(res_mom_disk_handler(RES_MOM_OP_SCAN, nullptr), 0);
    ASSERT_EQ(res_mom_io_handler(RES_MOM_OP_SCAN, nullptr), 0);
    ASSERT_TRUE(run_until([this] { return log->has("scan disk lft over") && log->has("scan i/o over"); }));
}

TEST_F(MomHandlerTest, SubscriptionCallbacksRefuseInvalidReplies)
{
    log = std::make_unique<log_capture>();
    const qn_mom_cb_t cbs[] = {res_mom_sub_io_cb,    res_mom_scan_io_cb,   res_mom_sub_vol_cb,  res_mom_scan_vol_cb,
                               res_mom_sub_ro_cb,    res_mom_scan_ro_cb,   res_mom_sub_disk_cb, res_mom_scan_disk_cb,
                               res_mom_sub_conf_cb,  res_mom_scan_conf_cb, res_mom_sub_dbg_cb,  res_mom_scan_dbg_cb,
                               res_mom_sub_upgrade_cb, res_mom_scan_upgrade_cb, res_mom_sub_issu_cb,
                               res_mom_scan_issu_cb};
    qn_mom_reply_t bad = {};
    bad.error = 5;
    for (qn_mom_cb_t cb : cbs) {
        EXPECT_EQ(cb(nullptr, nullptr), -1);
        EXPECT_EQ(cb(nullptr, &bad), -1);
    }
    EXPECT_EQ(log->count("msg is invalid."), 32);
}

TEST_F(MomHandlerTest, ConfigurationCallbacksHandleConfirmationsAndEmptyValues)
{
    log = std::make_unique<log_capture>();
    res_mom_conn_flag = 0; /* the follow-up SCAN is refused; the bit is still set */
    qn_mom_reply_t sub = {};
    sub.type = 29;
    EXPECT_EQ(res_mom_sub_conf_cb(nullptr, &sub), -1);
    EXPECT_TRUE(log->has("subscribe PUtils__StovigSmplIntrl success"));
    EXPECT_EQ(res_mom_sub_flag & RES_MOM_SUB_CONF, RES_MOM_SUB_CONF);
    qn_mom_reply_t unsub = {};
    unsub.type = 28;
    EXPECT_EQ(res_mom_sub_conf_cb(nullptr, &unsub), 0);
    EXPECT_TRUE(log->has("unsubscribe PUtils__StovigSmplIntrl success"));
    EXPECT_EQ(res_mom_sub_flag & RES_MOM_SUB_CONF, 0u);
    qn_mom_res_t res = {};
    qn_mom_reply_t value = {};
    value.type = 4;
    value.res = &res;
    EXPECT_EQ(res_mom_sub_dbg_cb(nullptr, &value), 0);
    EXPECT_TRUE(log->has("get configure from QN_MOM_MONITOR_DB value is NULL."));
    res.error = 2;
    EXPECT_EQ(res_mom_sub_dbg_cb(nullptr, &value), -1);
    EXPECT_TRUE(log->has("res is invalid."));
    qn_mom_reply_t other = {};
    other.type = 7;
    log->clear();
    EXPECT_EQ(res_mom_sub_dbg_cb(nullptr, &other), -1);
    EXPECT_TRUE(log->has("msg is invalid."));
    qn_mom_reply_t over = {};
    over.scan_state = 1;
    EXPECT_EQ(res_mom_scan_conf_cb(nullptr, &over), 0);
    EXPECT_TRUE(log->has("scan over"));
    qn_mom_reply_t null_obj = {};
    null_obj.type = 24;
    EXPECT_EQ(res_mom_scan_dbg_cb(nullptr, &null_obj), 0);
    EXPECT_TRUE(log->has("get null obj"));
}

TEST_F(MomHandlerTest, DebugLevelRecordIsAppliedOnNonMasters)
{
    ASSERT_EQ(start("node_type = 2\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & RES_MOM_SUB_DBG) != 0; }));
    PUtils__Nodeindex zero = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigDbg dbg = P_UTILS__STOVIG_DBG__INIT;
    dbg.index = &zero;
    dbg.dbg_level = 6; /* out of range: ignored */
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_DEV_DB, &dbg.base, 0, 0), 0);
    test_loop_run(5);
    EXPECT_EQ(res_dbg_level, 5u);
    dbg.dbg_level = 5; /* the current level: ignored without a message */
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_DEV_DB, &dbg.base, 0, 0), 0);
    test_loop_run(5);
    EXPECT_FALSE(log->has("set debug mode to"));
    dbg.dbg_level = 4;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_DEV_DB, &dbg.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_dbg_level == 4u; }));
    EXPECT_TRUE(log->has("set debug mode to 4."));
}

TEST_F(MomHandlerTest, UpgradeAndIssuRecordsEachHoldTheirOwnGateBit)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & RES_MOM_SUB_IO) != 0; }));
    ASSERT_TRUE(run_until([this] { return log->has("scan upgrade info over") && log->has("scan issu info over"); }));
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    PUtils__IssuNGlobalInfo issu = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_UPGRADING;
    ASSERT_EQ(qn_mom_set(bus(), RES_MOM_UPGRADE_DB, &up.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_mom_upgrade_flag == RES_MOM_GATE_UPGRADE; }));
    EXPECT_TRUE(log->has("upgrade flag : 3"));
    EXPECT_TRUE(log->has("it is upgrading now"));
    issu.state = P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_UPGRADING;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &issu.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_mom_upgrade_flag == (RES_MOM_GATE_UPGRADE | RES_MOM_GATE_ISSU); }));
    EXPECT_TRUE(log->has("it is issu upgrading now"));
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT;
    ASSERT_EQ(qn_mom_set(bus(), RES_MOM_UPGRADE_DB, &up.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_mom_upgrade_flag == RES_MOM_GATE_ISSU; }));
    /* A state written before the master subscribes is read by the scan. */
    EXPECT_EQ(res_mom_io_handler(RES_MOM_OP_SCAN, nullptr), 0);
}

TEST_F(MomHandlerTest, GateSaveFunctionsCheckTheEventType)
{
    log = std::make_unique<log_capture>();
    EXPECT_EQ(res_mom_save_upgrade_flag(9, nullptr), -1);
    EXPECT_TRUE(log->has("ignore cmd:9"));
    EXPECT_EQ(res_mom_save_issu_flag(4, nullptr), -1);
    EXPECT_TRUE(log->has("res unexpected, error!"));
    EXPECT_EQ(res_mom_save_upgrade_flag(24, nullptr), 0);
    EXPECT_TRUE(log->has("get role from TUNNER_DB value is NULL."));
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_DOWNLOAD;
    qn_mom_res_t res = {0, &up.base};
    EXPECT_EQ(res_mom_save_upgrade_flag(6, &res), 0);
    EXPECT_EQ(res_mom_upgrade_flag, RES_MOM_GATE_UPGRADE);
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT;
    EXPECT_EQ(res_mom_save_upgrade_flag(1, &up.base), 0);
    EXPECT_EQ(res_mom_upgrade_flag, 0u);
}

} // namespace
