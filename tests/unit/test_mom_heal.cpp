/* The master's part in healing the chassis: it publishes the configuration
 * it holds once its subscriptions stand, and a node listed after its records
 * came gets them read again. */
#include "test_mom_daemon.h"

#include "mom/res_mom_conf.h"
#include "mom/res_mom_dev.h"
#include "mon/res_mon_main.h"

namespace {

class MomHealTest : public MomDaemonTest {
protected:
    void TearDown() override
    {
        cap_threshold = saved_cap_threshold;
        MomDaemonTest::TearDown();
    }

    void start_master()
    {
        ASSERT_EQ(start("devid = 0\nphy_slot = 1\nuser_slot = 1\nnode_type = 2\nrole = 1\n"), 0);
        const uint32_t bits = RES_MOM_SUB_CARD | RES_MOM_SUB_IO | RES_MOM_SUB_RO | RES_MOM_SUB_VOL | RES_MOM_SUB_DISK;
        ASSERT_TRUE(run_until([&] { return (res_mom_sub_flag & bits) == bits; }));
    }

    /* The configuration record on the bus, or a negative cap threshold. */
    int stored_cap_threshold()
    {
        int got = -1;
        PUtils__StovigSmplIntrl pattern = P_UTILS__STOVIG_SMPL_INTRL__INIT;
        PUtils__Nodeindex zero = P_UTILS__NODEINDEX__INIT;
        pattern.index = &zero;
        for (const scanned_record &r : scan_collect(bus(), QN_MOM_DEV_DB, &pattern.base)) {
            if (!r.has_value)
                continue;
            PUtils__StovigSmplIntrl *conf = p_utils__stovig_smpl_intrl__unpack(
                nullptr, r.packed.size(), reinterpret_cast<const uint8_t *>(r.packed.data()));
            EXPECT_NE(conf, nullptr);
            if (conf) {
                got = static_cast<int>(conf->part_cap_thrshd);
                p_utils__stovig_smpl_intrl__free_unpacked(conf, nullptr);
            }
        }
        return got;
    }

    int32_t saved_cap_threshold = cap_threshold;
};

TEST_F(MomHealTest, MasterPublishesTheConfigurationItHoldsOnceItsSubscriptionsStand)
{
    /* Set before the bus was up, as the saved configuration is at start-up:
     * the publication then was refused. */
    cap_threshold = 70;
    EXPECT_EQ(res_mom_conf_send(), -1);
    start_master();
    ASSERT_TRUE(run_until([this] { return log->has("SEND conf from mom with ret[0]"); }));
    EXPECT_EQ(stored_cap_threshold(), 70);
    EXPECT_EQ(log->count("SEND conf from mom with ret[0]"), 1);
    test_loop_run(30); /* the master timer has stopped: no more publications */
    EXPECT_EQ(log->count("SEND conf from mom with ret[0]"), 1);
}

TEST_F(MomHealTest, StandbyDoesNotPublish)
{
    ASSERT_EQ(start("devid = 0\nphy_slot = 2\nuser_slot = 2\nnode_type = 2\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    test_loop_run(30);
    EXPECT_FALSE(log->has("SEND conf from mom"));
    EXPECT_EQ(stored_cap_threshold(), -1);
}

TEST_F(MomHealTest, RecordsThatCameBeforeTheirCardAreReadAgainOnceTheCardIsListed)
{
    start_master();
    test_loop_run(5);
    /* A line card's capacity record, before its card is online. */
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    idx.t_slotid = 5;
    PUtils__PartInfo part = P_UTILS__PART_INFO__INIT;
    part.part_path = const_cast<char *>("/data");
    part.part_uname = const_cast<char *>("flash");
    part.total_vol = 1000;
    part.use_vol = 900;
    part.flag = 2;
    part.vol_visible = 1;
    part.exist = 1;
    PUtils__PartInfo *parts[1] = {&part};
    PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
    vol.index = &idx;
    vol.n_info = 1;
    vol.info = parts;
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &vol.base, 0, 0), 0);
    ASSERT_TRUE(run_until([this] { return log->has("can't get node from list."); }));

    publish_card(5, 0, 5, 3, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 2; }));
    ASSERT_TRUE(run_until([this] { return !res_list_empty(&nodes()[1]->part_list); }));
    EXPECT_TRUE(log->has("new node listed, read the records on the bus again."));
    auto *p = res_list_entry(nodes()[1]->part_list.next, struct res_mom_part_node, list);
    EXPECT_STREQ(p->part_path, "/data");
    EXPECT_EQ(p->vol_flag, 2u);
    /* One read for the cards listed together, not one per card. */
    int reads = log->count("new node listed, read the records on the bus again.");
    publish_card(6, 0, 6, 4, true);
    publish_card(7, 0, 7, 5, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 4; }));
    test_loop_run(5);
    EXPECT_EQ(log->count("new node listed, read the records on the bus again."), reads + 1);
}

} // namespace
