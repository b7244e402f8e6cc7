/* Bus connection and master role: res_mom_init, the connect callbacks, the
 * devinfo and master timers and the reconnect callback. */
#include "test_mom_daemon.h"

#include "mom/res_mom_conf.h"
#include "mom/res_mom_dev.h"

namespace {

using MomMainTest = MomDaemonTest;

bool in_order(const std::string &text, const std::vector<std::string> &parts)
{
    size_t pos = 0;
    for (const std::string &p : parts) {
        pos = text.find(p, pos);
        if (pos == std::string::npos)
            return false;
        pos += p.size();
    }
    return true;
}

TEST_F(MomMainTest, NullLoopIsRefused)
{
    uint32_t type = 2;
    EXPECT_EQ(res_mom_init(nullptr, &type), -1);
}

TEST_F(MomMainTest, InitConnectsTheThreeDatabasesAndReportsTheDeviceType)
{
    res_mom_conn_flag = 0xffff0000u;
    res_mom_sub_flag = 0xffff0000u;
    ASSERT_EQ(start("devid = 0\nphy_slot = 3\nuser_slot = 3\nnode_type = 3\n", "[cap]\nCAP_DEV_TYPE = LC\n"), 0);
    EXPECT_EQ(res_mom_conn_flag, 0u); /* cleared; the callbacks come later */
    EXPECT_EQ(res_mom_sub_flag, 0u);
    EXPECT_EQ(device_type, 3u);
    EXPECT_TRUE(in_order(log->text(), {"connect to MOM(1)", "connect to MOM(12)", "connect to MOM(33)",
                                       "reconnect to MOM(33)", "reconnect to MOM(1)", "reconnect to MOM(12)"}))
        << log->text();
    ASSERT_TRUE(run_until([] {
        return (res_mom_conn_flag & (RES_MOM_CONN_TUNNER | RES_MOM_CONN_MONITOR | RES_MOM_CONN_DEV |
                                     RES_MOM_CONN_DEV_READY)) == 0x4eu;
    }));
    /* The device database's callback subscribes to both configuration records. */
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & (RES_MOM_SUB_CONF | RES_MOM_SUB_DBG)) == 136u; }));
    EXPECT_TRUE(log->has("subscribe PUtils__StovigSmplIntrl success"));
    EXPECT_TRUE(log->has("subscribe PUtils__StovigDbg success"));
}

TEST_F(MomMainTest, MasterLearnsItsIdentityAndSubscribesToEveryRecordKind)
{
    ASSERT_EQ(start("devid = 0\nphy_slot = 1\nuser_slot = 1\nnode_type = 2\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    EXPECT_EQ(res_mom_conn_flag & RES_MOM_CONN_LOCAL, RES_MOM_CONN_LOCAL);
    EXPECT_EQ(res_local_node.devid, 0);
    EXPECT_EQ(res_local_node.slotid, 1);
    EXPECT_EQ(res_local_node.sslotid, 0);
    EXPECT_EQ(res_local_node.user_slot, 1);
    EXPECT_EQ(res_local_node.role, 1);
    EXPECT_TRUE(log->has("get local node devid[0]."));
    EXPECT_TRUE(log->has("get local node slot[1]."));
    EXPECT_TRUE(log->has("get local role[1]"));
    EXPECT_TRUE(log->has("all local information is ready."));
    const uint32_t master_bits = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
    ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & master_bits) == master_bits; }));
    /* The master does not listen to the configuration it is the source of. */
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & (RES_MOM_SUB_CONF | RES_MOM_SUB_DBG)) == 0; }));
    EXPECT_TRUE(log->has("unsubscribe PUtils__StovigSmplIntrl success"));
    EXPECT_TRUE(log->has("unsubscribe PUtils__StovigDbg success"));
    EXPECT_TRUE(log->has("handle master process."));
    EXPECT_TRUE(log->has("subscribe card info success"));
    EXPECT_TRUE(log->has("subscribe io success"));
    EXPECT_TRUE(log->has("subscribe part volume success"));
    EXPECT_TRUE(log->has("subscribe part read-only success"));
    EXPECT_TRUE(log->has("subscribe upgrade global success"));
    EXPECT_TRUE(log->has("subscribe issu global success"));
    /* Every subscription stood at the second run at the latest; then the timer stops. */
    test_loop_run(30);
    int runs = log->count("handle master process.");
    EXPECT_LE(runs, 2);
    test_loop_run(30);
    EXPECT_EQ(log->count("handle master process."), runs);
    EXPECT_EQ(res_mom_sub_flag & (RES_MOM_SUB_CONF | RES_MOM_SUB_DBG), 0u);
}

TEST_F(MomMainTest, MasterTimerRetriesAFailingSubscriptionForeverAndKeepsConfigurationUnsubscribed)
{
    qn_mom_refuse_subscriptions("p_utils.stovig_disk_info", QN_MOM_ERR_NOTCONN);
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([this] { return log->count("handle master process.") >= 2; }));
    EXPECT_TRUE(log->has("not all master sub operation is ready."));
    const uint32_t others = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL;
    EXPECT_EQ(res_mom_sub_flag & others, others);
    EXPECT_EQ(res_mom_sub_flag & RES_MOM_SUB_DISK, 0u);
    int runs = log->count("handle master process.");
    test_loop_run(30); /* six periods */
    int later = log->count("handle master process.");
    EXPECT_GE(later - runs, 3); /* about one run per period, even on a loaded machine */
    EXPECT_LE(later - runs, 7);
    EXPECT_EQ(res_mom_sub_flag & (RES_MOM_SUB_CONF | RES_MOM_SUB_DBG), 0u);
    EXPECT_EQ(log->count("unsubscribe PUtils__StovigSmplIntrl success"), 1);
    EXPECT_EQ(log->count("SUB handle card_info with ret[0]."), 1); /* standing subscriptions are not redone */
    /* Once the lifetime subscription stands, the timer stops. */
    qn_mom_refuse_subscriptions("p_utils.stovig_disk_info", 0);
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & RES_MOM_SUB_DISK) != 0; }));
    test_loop_run(10);
    int stopped = log->count("handle master process.");
    test_loop_run(30);
    EXPECT_EQ(log->count("handle master process."), stopped);
}

TEST_F(MomMainTest, RoleZeroLeavesRoleUnsetAndTheDevinfoTimerRunning)
{
    ASSERT_EQ(start("node_type = 2\nrole = 0\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & RES_MOM_SUB_ROLE) != 0; }));
    test_loop_run(40);
    int runs = log->count("not all local information is ready.");
    EXPECT_GE(runs, 4);
    EXPECT_TRUE(log->has("get local role[0]"));
    EXPECT_EQ(res_local_node.role, -1);
    EXPECT_EQ(res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY, 0u);
    test_loop_run(20);
    EXPECT_GT(log->count("not all local information is ready."), runs);
    EXPECT_FALSE(log->has("handle master process."));
}

TEST_F(MomMainTest, NodeOutsideTheRoleElectionGetsRoleFourAndNoMasterDuties)
{
    ASSERT_EQ(start("phy_slot = 5\nuser_slot = 5\nnode_type = 3\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    EXPECT_EQ(res_local_node.role, RES_MOM_ROLE_NO_ELECTION);
    test_loop_run(30);
    EXPECT_FALSE(log->has("handle master process."));
    EXPECT_EQ(res_mom_sub_flag & RES_MOM_SUB_CARD, 0u);
    EXPECT_EQ(res_mom_check_master(), -1);
    EXPECT_TRUE(log->has("current node is 4."));
}

TEST_F(MomMainTest, StandbyKeepsTheConfigurationSubscriptions)
{
    ASSERT_EQ(start("phy_slot = 2\nuser_slot = 2\nnode_type = 2\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    EXPECT_EQ(res_local_node.role, 2);
    test_loop_run(30);
    EXPECT_FALSE(log->has("handle master process."));
    EXPECT_EQ(res_mom_sub_flag & (RES_MOM_SUB_CONF | RES_MOM_SUB_DBG), RES_MOM_SUB_CONF | RES_MOM_SUB_DBG);
}

TEST_F(MomMainTest, MasterRoleReceivedTwiceStartsTheMasterTimerOnce)
{
    ASSERT_EQ(start("phy_slot = 2\nuser_slot = 2\nnode_type = 2\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    publish_role(0, 2, 1, 1);
    publish_role(0, 2, 1, 2); /* same role, another field changed: delivered again */
    ASSERT_TRUE(run_until([this] { return log->count("get role[1].") == 2; }));
    const uint32_t master_bits = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
    ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & master_bits) == master_bits; }));
    test_loop_run(30);
    EXPECT_EQ(log->count("handle master process."), 1) << log->text();
    EXPECT_EQ(res_local_node.role, 1);
    EXPECT_EQ(res_mom_check_master(), 0);
}

TEST_F(MomMainTest, MasterRoleMovingAwayStopsNothing)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    const uint32_t master_bits = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
    ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & master_bits) == master_bits; }));
    publish_role(0, 1, 2);
    ASSERT_TRUE(run_until([] { return res_local_node.role == 2; }));
    EXPECT_EQ(res_mom_sub_flag & master_bits, master_bits);
}

TEST_F(MomMainTest, CheckMasterAcceptsMasterAndUnset)
{
    log = std::make_unique<log_capture>();
    res_mom_data_init();
    EXPECT_EQ(res_mom_check_master(), 0);
    EXPECT_TRUE(log->has("current node is master or unset."));
    res_local_node.role = 1;
    EXPECT_EQ(res_mom_check_master(), 0);
    res_local_node.role = 2;
    EXPECT_EQ(res_mom_check_master(), -1);
    EXPECT_TRUE(log->has("current node is 2."));
}

TEST_F(MomMainTest, ReconnectCallbackOnlyLogs)
{
    log = std::make_unique<log_capture>();
    uint32_t conn = res_mom_conn_flag = 0x7eu, sub = res_mom_sub_flag = 0x1ffu;
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_DEV_DB, 1), 0);
    EXPECT_TRUE(log->has("reconnect to MOM[33] success, type = 1."));
    EXPECT_TRUE(log->has("detect QN_MOM_MONITOR_DB reconnected."));
    EXPECT_FALSE(log->has("detect QN_MOM_TUNNER_DB reconnected."));
    log->clear();
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_TUNNER_DB, 1), 0);
    EXPECT_TRUE(log->has("detect QN_MOM_TUNNER_DB reconnected."));
    log->clear();
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_MONITOR_DB, 2), 0);
    EXPECT_TRUE(log->has("reconnect to MOM[12] success, type = 2."));
    EXPECT_TRUE(log->has("detect mom reconnected by RMC_SERVER_CON_CHANGE."));
    log->clear();
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_MONITOR_DB, 7), 0);
    EXPECT_TRUE(log->has("reconnect to MOM[12] success, type = 7."));
    EXPECT_FALSE(log->has("detect"));
    EXPECT_EQ(res_mom_db_rcb(nullptr, 5, 1), 0);
    EXPECT_TRUE(log->has("reconnect event from MOM[5], ignore it."));
    /* Nothing is redone and neither word changes. */
    EXPECT_EQ(res_mom_conn_flag, conn);
    EXPECT_EQ(res_mom_sub_flag, sub);
}

TEST_F(MomMainTest, DevinfoRetriesUntilTheUserSlotIsKnown)
{
    ASSERT_EQ(start("node_type = 2\nrole = 2\nphy_slot = 6\n"), 0);
    res_local_node.user_slot = -1;
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    EXPECT_EQ(res_local_node.user_slot, 1); /* from the config file */
}

} // namespace
