/* Device and card tracking on the master. */
#include "test_mom_daemon.h"

#include "mom/res_mom_dev.h"

namespace {

class MomDevTest : public MomDaemonTest {
protected:
    /* A master at devid 0, slot 1, user slot 1, with every subscription standing. */
    void start_master()
    {
        ASSERT_EQ(start("devid = 0\nphy_slot = 1\nuser_slot = 1\nnode_type = 2\nrole = 1\n"), 0);
        const uint32_t bits = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
        ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & bits) == bits; }));
        test_loop_run(5);
    }

    /* The four per-node records of a node, written as that node would. */
    void publish_node_records(int32_t devid, int32_t slot)
    {
        PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
        idx.t_devid = devid;
        idx.t_slotid = slot;
        PUtils__StovigIo io = P_UTILS__STOVIG_IO__INIT;
        PUtils__StovigPartRo ro = P_UTILS__STOVIG_PART_RO__INIT;
        PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
        PUtils__StovigDiskInfo disk = P_UTILS__STOVIG_DISK_INFO__INIT;
        io.index = ro.index = vol.index = disk.index = &idx;
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &io.base, 0, 0), 0);
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &ro.base, 0, 0), 0);
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &vol.base, 0, 0), 0);
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &disk.base, 0, 0), 0);
    }

    /* Which of the node's records are on the bus: "io ro vol disk". */
    std::string records_of(int32_t devid, int32_t slot)
    {
        std::string key = "0." + std::to_string(slot) + ".0.0";
        if (devid != 0)
            key = std::to_string(devid) + "." + std::to_string(slot) + ".0.0";
        std::string out;
        PUtils__Nodeindex zero = P_UTILS__NODEINDEX__INIT;
        PUtils__StovigIo io = P_UTILS__STOVIG_IO__INIT;
        PUtils__StovigPartRo ro = P_UTILS__STOVIG_PART_RO__INIT;
        PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
        PUtils__StovigDiskInfo disk = P_UTILS__STOVIG_DISK_INFO__INIT;
        io.index = ro.index = vol.index = disk.index = &zero;
        const std::pair<const char *, const ProtobufCMessage *> kinds[4] = {
            {"io", &io.base}, {"ro", &ro.base}, {"vol", &vol.base}, {"disk", &disk.base}};
        for (auto &[name, pattern] : kinds)
            for (const std::string &k : keys(QN_MOM_MONITOR_DB, pattern))
                if (k.size() >= key.size() && k.compare(k.size() - key.size(), key.size(), key) == 0)
                    out += std::string(out.empty() ? "" : " ") + name;
        return out;
    }

    std::vector<int32_t> slots() const
    {
        std::vector<int32_t> out;
        for (struct res_mom_node *n : nodes())
            out.push_back(n->user_slot);
        return out;
    }
};

TEST_F(MomDevTest, CardsOnlineBeforeAndAfterTheSubscriptionAreListedInUserSlotOrder)
{
    publish_card(3, 0, 13, 3, true); /* already online: learnt by the scan */
    start_master();
    ASSERT_TRUE(run_until([this] { return nodes().size() == 2; }));
    publish_card(1, 0, 11, 1, true);
    publish_card(2, 0, 12, 2, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 4; }));
    EXPECT_EQ(slots(), (std::vector<int32_t>{1, 1, 2, 3}));
    EXPECT_EQ(nodes()[0], &res_local_node);
    EXPECT_EQ(nodes()[1]->slotid, 11);
    EXPECT_EQ(nodes()[3]->slotid, 13);
    EXPECT_TRUE(log->has("scan over"));
}

TEST_F(MomDevTest, CardOnlineTwiceIsAddedOnce)
{
    start_master();
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    idx.slotid = 4;
    card.index = &idx;
    card.is_online = 1;
    card.user_slot = 4;
    EXPECT_EQ(res_mom_dev_info_handle(&card), 0);
    EXPECT_EQ(res_mom_dev_info_handle(&card), 0);
    EXPECT_EQ(nodes().size(), 2u);
    /* And through the bus: the scan after a new subscription reports it again. */
    publish_card(4, 0, 4, 4, true);
    ASSERT_EQ(res_mom_card_info_handler(RES_MOM_OP_SCAN), 0);
    test_loop_run(10);
    EXPECT_EQ(nodes().size(), 2u);
}

TEST_F(MomDevTest, CardOfflineRemovesTheNodeAndItsRecordsButNotItsLifetimeRecord)
{
    start_master();
    publish_card(5, 0, 5, 5, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 2; }));
    publish_node_records(0, 5);
    publish_node_records(0, 6); /* another node's records stay */
    ASSERT_EQ(records_of(0, 5), "io ro vol disk");
    publish_card(5, 0, 5, 5, false);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 1; }));
    EXPECT_TRUE(log->has("detect deivce [0,5,0] offline."));
    EXPECT_TRUE(log->has("remove node[0,5,0] from list."));
    ASSERT_TRUE(run_until([this] { return records_of(0, 5) == "disk"; }));
    EXPECT_EQ(records_of(0, 6), "io ro vol disk");
}

TEST_F(MomDevTest, LocalNodeOfflineStaysListedButItsRecordsAreDeleted)
{
    start_master();
    publish_card(1, 0, 1, 1, true);
    test_loop_run(5);
    EXPECT_EQ(nodes().size(), 1u); /* the local node is already there */
    publish_node_records(0, 1);
    publish_card(1, 0, 1, 1, false);
    ASSERT_TRUE(run_until([this] { return records_of(0, 1) == "disk"; }));
    EXPECT_EQ(nodes(), std::vector<struct res_mom_node *>{&res_local_node});
}

TEST_F(MomDevTest, CardHandlerRefusesOperationsOutsideOneToTen)
{
    log = std::make_unique<log_capture>();
    EXPECT_EQ(res_mom_card_info_handler(0), -1);
    EXPECT_EQ(res_mom_card_info_handler(11), -1);
    EXPECT_EQ(res_mom_card_info_handler(RES_MOM_OP_SHOW), 0);
    EXPECT_TRUE(log->has("SHOW handle card_info with ret[0]."));
    EXPECT_EQ(res_mom_role_handler(0), -1);
    EXPECT_EQ(res_mom_role_handler(RES_MOM_OP_SCAN), 0);
}

TEST_F(MomDevTest, CardCallbacksCheckTheirReplies)
{
    log = std::make_unique<log_capture>();
    res_mom_data_init();
    EXPECT_EQ(res_mom_card_info_sub_cb(nullptr, nullptr), -1);
    EXPECT_TRUE(log->has("msg is invalid."));
    qn_mom_reply_t bad = {};
    bad.error = -1;
    EXPECT_EQ(res_mom_card_info_scan_cb(nullptr, &bad), -1);
    log->clear();
    qn_mom_res_t res = {};
    qn_mom_reply_t value = {};
    value.type = 4;
    value.res = &res;
    EXPECT_EQ(res_mom_card_info_sub_cb(nullptr, &value), 0);
    EXPECT_TRUE(log->has("ignore device event due to card_obj is NULL."));
    res.error = 1;
    EXPECT_EQ(res_mom_card_info_sub_cb(nullptr, &value), -1);
    EXPECT_TRUE(log->has("res is invalid."));
    log->clear();
    qn_mom_reply_t other = {};
    other.type = 28;
    EXPECT_EQ(res_mom_card_info_sub_cb(nullptr, &other), -1);
    EXPECT_TRUE(log->has("msg is invalid."));
    qn_mom_reply_t over = {};
    over.type = 24;
    over.scan_state = 1;
    EXPECT_EQ(res_mom_card_info_scan_cb(nullptr, &over), 0);
    EXPECT_TRUE(log->has("scan over"));
    qn_mom_res_t empty = {};
    qn_mom_reply_t null_obj = {};
    null_obj.type = 24;
    null_obj.res = &empty;
    EXPECT_EQ(res_mom_card_info_scan_cb(nullptr, &null_obj), 0);
    EXPECT_TRUE(log->has("get null obj"));
}

TEST_F(MomDevTest, RoleCallbackChecksItsReplies)
{
    log = std::make_unique<log_capture>();
    res_mom_data_init();
    EXPECT_EQ(res_mom_sub_role_cb(nullptr, nullptr), -1);
    EXPECT_TRUE(log->has("msg is invalid."));
    qn_mom_res_t res = {};
    qn_mom_reply_t value = {};
    value.type = 6;
    value.res = &res;
    EXPECT_EQ(res_mom_sub_role_cb(nullptr, &value), 0);
    EXPECT_TRUE(log->has("get role from QN_TUNNER_DB value is NULL."));
    res.error = 3;
    EXPECT_EQ(res_mom_sub_role_cb(nullptr, &value), -1);
    EXPECT_TRUE(log->has("res is invalid."));
    EXPECT_EQ(res_local_node.role, -1);
    qn_mom_reply_t ok = {};
    ok.type = 29;
    res_mom_sub_flag = 0;
    EXPECT_EQ(res_mom_sub_role_cb(nullptr, &ok), 0);
    EXPECT_TRUE(log->has("subscribe device role success"));
    EXPECT_EQ(res_mom_sub_flag, RES_MOM_SUB_ROLE);
}

TEST_F(MomDevTest, RoleOutsideTheEnumerationIsReadAsItsNumber)
{
    log = std::make_unique<log_capture>();
    res_mom_data_init();
    /* my_grole (field 6) = -1, as any writer on the bus may send it. */
    const uint8_t bytes[] = {0x30, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01};
    PDev__DpLibGrole *role = p_dev__dp_lib_grole__unpack(nullptr, sizeof bytes, bytes);
    ASSERT_NE(role, nullptr);
    qn_mom_res_t res = {};
    res.value = &role->base;
    qn_mom_reply_t value = {};
    value.type = 6;
    value.res = &res;
    EXPECT_EQ(res_mom_sub_role_cb(nullptr, &value), 0);
    EXPECT_TRUE(log->has("get role[-1]."));
    EXPECT_EQ(res_local_node.role, -1);
    p_dev__dp_lib_grole__free_unpacked(role, nullptr);
}

} // namespace
