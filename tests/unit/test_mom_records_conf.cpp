/* The configuration record: the master publishing the settings it holds, a
 * node applying a received record (at subscription and on change), the range
 * checks on thresholds and the debug switch it carries. */
#include "mom_records_fixture.h"

#include "mom/res_mom_conf.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

namespace {

using MomConf = MomRecordsFixture;

PUtils__StovigSmplIntrl current_conf()
{
    PUtils__StovigSmplIntrl c = P_UTILS__STOVIG_SMPL_INTRL__INIT;
    c.io_intr = static_cast<uint32_t>(io_interval);
    c.io_thrshd = static_cast<uint32_t>(io_threshold);
    c.part_ro_intr = static_cast<uint32_t>(ro_interval);
    c.part_cap_intr = static_cast<uint32_t>(cap_interval);
    c.part_cap_thrshd = static_cast<uint32_t>(cap_threshold);
    c.dsk_lf_intr = static_cast<uint32_t>(disk_interval);
    c.dsk_lf_thrshd = static_cast<uint32_t>(disk_threshold);
    return c;
}

TEST_F(MomConf, SendOnANonMasterWritesNothing)
{
    ASSERT_EQ(start("node_type = 2\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_DEV_READY) != 0; }));
    ASSERT_TRUE(run_until([] { return res_local_node.role == 2; }));
    EXPECT_EQ(res_mom_conf_send(), 0);
    EXPECT_EQ(res_mom_dbg_send(), 0);
    EXPECT_EQ(log->count("current node is not master, ignore send conf."), 2);
    PUtils__StovigSmplIntrl c = P_UTILS__STOVIG_SMPL_INTRL__INIT;
    PUtils__StovigDbg d = P_UTILS__STOVIG_DBG__INIT;
    EXPECT_TRUE(records(QN_MOM_DEV_DB, &c.base).empty());
    EXPECT_TRUE(records(QN_MOM_DEV_DB, &d.base).empty());
}

TEST_F(MomConf, SendOnTheMasterWritesTheWholeRecord)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_DEV_READY) != 0; }));
    ASSERT_TRUE(run_until([] { return res_local_node.role == 1; }));
    io_interval = 20;
    io_threshold = 0;
    ro_interval = 40;
    cap_interval = RES_MON_CLOSED;
    cap_threshold = 70;
    disk_interval = 120;
    disk_threshold = 6;
    EXPECT_EQ(res_mom_conf_send(), 0);
    EXPECT_EQ(res_mom_dbg_send(), 0);
    EXPECT_TRUE(log->has("SEND conf from mom with ret[0]"));
    PUtils__StovigSmplIntrl pat = P_UTILS__STOVIG_SMPL_INTRL__INIT;
    std::vector<std::string> got = records(QN_MOM_DEV_DB, &pat.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigSmplIntrl *c = p_utils__stovig_smpl_intrl__unpack(
        nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->index->t_slotid, 0);
    EXPECT_EQ(c->io_intr, 20u);
    EXPECT_EQ(c->io_thrshd, 0u);
    EXPECT_EQ(c->part_ro_intr, 40u);
    EXPECT_EQ(static_cast<int32_t>(c->part_cap_intr), RES_MON_CLOSED);
    EXPECT_EQ(c->part_cap_thrshd, 70u);
    EXPECT_EQ(c->dsk_lf_intr, 120u);
    EXPECT_EQ(c->dsk_lf_thrshd, 6u);
    p_utils__stovig_smpl_intrl__free_unpacked(c, nullptr);
    PUtils__StovigDbg dpat = P_UTILS__STOVIG_DBG__INIT;
    got = records(QN_MOM_DEV_DB, &dpat.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigDbg *d =
        p_utils__stovig_dbg__unpack(nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->dbg_level, res_dbg_level);
    p_utils__stovig_dbg__free_unpacked(d, nullptr);
}

TEST_F(MomConf, SameRecordTwiceChangesNothingTheSecondTime)
{
    log = std::make_unique<log_capture>();
    int32_t saved_type = res_disk_type;
    res_disk_type = 0; /* raw NAND: the lifetime interval is kept, no probe */
    io_interval = RES_IO_INTERVAL_DEF;
    ro_interval = RES_RO_INTERVAL_DEF;
    cap_interval = RES_CAP_INTERVAL_DEF;
    disk_interval = RES_DISK_INTERVAL_DEF;
    PUtils__StovigSmplIntrl c = current_conf();
    c.io_intr = static_cast<uint32_t>(io_interval + 10);
    c.io_thrshd = 33;
    c.part_ro_intr = static_cast<uint32_t>(ro_interval + 10);
    c.part_cap_intr = static_cast<uint32_t>(cap_interval + 10);
    c.part_cap_thrshd = 150; /* stored without a range check */
    c.dsk_lf_intr = static_cast<uint32_t>(disk_interval + 10);
    c.dsk_lf_thrshd = 7;
    int32_t old_io_thr = io_threshold;
    res_mom_conf_chg(&c);
    EXPECT_EQ(io_interval, static_cast<int32_t>(c.io_intr));
    EXPECT_EQ(io_threshold, 33);
    EXPECT_EQ(ro_interval, static_cast<int32_t>(c.part_ro_intr));
    EXPECT_EQ(cap_interval, static_cast<int32_t>(c.part_cap_intr));
    EXPECT_EQ(cap_threshold, 150);
    EXPECT_EQ(disk_interval, static_cast<int32_t>(c.dsk_lf_intr));
    EXPECT_EQ(disk_threshold, 7);
    EXPECT_TRUE(log->has("reset io threshold from " + std::to_string(old_io_thr) + " to 33."));
    EXPECT_TRUE(log->has("reset io interval from"));
    EXPECT_EQ(log->count("reset cap threshold from"), 2); /* capacity and lifetime */
    log->clear();
    res_mom_conf_chg(&c);
    EXPECT_EQ(log->text(), "");
    res_disk_type = saved_type;
}

TEST_F(MomConf, DebugOffOfKindTwoTurnsTheLevelOffAndPublishesIt)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_DEV_READY) != 0; }));
    ASSERT_TRUE(run_until([] { return res_local_node.role == 1; }));
    PUtils__StovigDbg pat = P_UTILS__STOVIG_DBG__INIT;
    res_debug_off(1); /* another kind: nothing */
    EXPECT_EQ(res_dbg_level, 5u);
    EXPECT_TRUE(records(QN_MOM_DEV_DB, &pat.base).empty());
    res_debug_off(2);
    EXPECT_EQ(res_dbg_level, 0u);
    std::vector<std::string> got = records(QN_MOM_DEV_DB, &pat.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigDbg *d =
        p_utils__stovig_dbg__unpack(nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->dbg_level, 0u);
    p_utils__stovig_dbg__free_unpacked(d, nullptr);
}

TEST_F(MomConf, LifetimeThresholdOutOfRangeIsIgnoredButIoThresholdZeroIsStored)
{
    log = std::make_unique<log_capture>();
    disk_threshold = 12;
    for (uint32_t bad : {0u, 61u}) {
        PUtils__StovigSmplIntrl c = current_conf();
        c.dsk_lf_thrshd = bad;
        res_mom_conf_chg(&c);
        EXPECT_EQ(disk_threshold, 12) << bad;
    }
    PUtils__StovigSmplIntrl c = current_conf();
    c.dsk_lf_thrshd = 60;
    c.io_thrshd = 0;
    res_mom_conf_chg(&c);
    EXPECT_EQ(disk_threshold, 60);
    EXPECT_EQ(io_threshold, 0);
    /* A closed interval travels as -100 in an unsigned field. */
    c = current_conf();
    c.io_intr = static_cast<uint32_t>(RES_MON_CLOSED);
    res_mom_conf_chg(&c);
    EXPECT_EQ(io_interval, RES_MON_CLOSED);
}

TEST_F(MomConf, NonMasterAppliesTheRecordAtSubscriptionAndOnChange)
{
    PUtils__Nodeindex zero = P_UTILS__NODEINDEX__INIT;
    PUtils__StovigSmplIntrl c = current_conf();
    c.index = &zero;
    c.part_cap_thrshd = 66;
    ASSERT_EQ(qn_mom_hmset(bus(), QN_MOM_DEV_DB, &c.base, 0, 0), 0);
    ASSERT_EQ(start("node_type = 3\nrole = 2\n"), 0);
    ASSERT_TRUE(run_until([] { return cap_threshold == 66; }));
    c.part_cap_thrshd = 77;
    c.io_thrshd = 5;
    ASSERT_EQ(qn_mom_hmset(bus(), QN_MOM_DEV_DB, &c.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return cap_threshold == 77 && io_threshold == 5; }));
}

} // namespace
