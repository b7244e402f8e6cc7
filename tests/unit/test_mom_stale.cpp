/* The master's watch over nodes that stop reporting: ticks counted per node,
 * the stale line after three I/O intervals and the line when the node
 * reports again, each once; nothing judged while the monitor is closed, the
 * node is not master or the master's own record stays away; a full period
 * after every start. */
#include "mom_records_fixture.h"

#include "mom/res_mom_dev.h"
#include "mom/res_mom_stale.h"

#include <gtest/gtest.h>

namespace {

const char kStale30[] = "slot3 Storage monitor has not reported for 30 seconds.";
const char kBack3[] = "slot3 Storage monitor reports again.";

class MomStaleTest : public MomRecordsFixture {
protected:
    void SetUp() override
    {
        MomRecordsFixture::SetUp();
        capture();
        res_local_node.devid = 0;
        res_local_node.slotid = 1;
        res_local_node.sslotid = 0;
        res_local_node.user_slot = 1;
        res_local_node.role = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
        io_interval = 10;
        card = add_node(0, 5, 3);
        /* The first tick begins the watch. */
        res_mom_stale_tick();
    }
    void TearDown() override
    {
        res_mom_stale_stop();
        MomRecordsFixture::TearDown();
    }

    std::vector<std::string> lines() const { return events(RES_MOM_STALE_TASK); }
    static void ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            res_mom_stale_tick();
    }
    static void report(const struct res_mom_node *node)
    {
        PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
        idx.t_devid = node->devid;
        idx.t_slotid = node->slotid;
        idx.t_sslotid = node->sslotid;
        res_mom_stale_io_report(&idx);
    }

    struct res_mom_node *card = nullptr;
};

TEST_F(MomStaleTest, StaleAfterThreeIntervalsOnceAndNotBefore)
{
    ticks(29);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(card->stale, 0u);
    EXPECT_EQ(card->stale_ticks, 29u);
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    EXPECT_EQ(card->stale, 1u);
    ticks(100);
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_EQ(card->stale, 1u);
}

TEST_F(MomStaleTest, EachRecordStartsTheCountAgain)
{
    for (int i = 0; i < 5; ++i) {
        ticks(29);
        report(card);
        EXPECT_EQ(card->stale_ticks, 0u);
    }
    EXPECT_TRUE(lines().empty());
    ticks(30);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, TheLineWhenItReportsAgainComesOnce)
{
    ticks(30);
    report(card);
    EXPECT_EQ(card->stale, 0u);
    report(card);
    ticks(10);
    report(card);
    EXPECT_EQ(lines(), (std::vector<std::string>{kStale30, kBack3}));
    /* Silent again: a second stale line, a second outage. */
    ticks(30);
    EXPECT_EQ(lines(), (std::vector<std::string>{kStale30, kBack3, kStale30}));
}

TEST_F(MomStaleTest, TheLocalNodeIsNeverJudged)
{
    ticks(200);
    EXPECT_EQ(res_local_node.stale, 0u);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, NothingIsJudgedWhileTheIoMonitorIsClosed)
{
    ticks(20);
    io_interval = RES_MON_CLOSED;
    ticks(100);
    EXPECT_TRUE(lines().empty());
    EXPECT_FALSE(res_mom_stale_judging());
    /* Opened again: a full period from the first tick that sees it. */
    io_interval = 10;
    ticks(30);
    EXPECT_TRUE(lines().empty());
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, AStaleNodeKeepsItsMarkThroughAClosedMonitorWithoutLines)
{
    ticks(30);
    io_interval = RES_MON_CLOSED;
    ticks(1);
    report(card);
    EXPECT_EQ(card->stale, 1u);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    io_interval = 10;
    ticks(1);
    report(card);
    EXPECT_EQ(card->stale, 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{kStale30, kBack3}));
}

TEST_F(MomStaleTest, AnIntervalChangeGivesAFullPeriodOfTheNewInterval)
{
    ticks(25);
    io_interval = 20;
    ticks(1); /* sees the change */
    ticks(59);
    EXPECT_TRUE(lines().empty());
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{"slot3 Storage monitor has not reported for 60 seconds."});
}

TEST_F(MomStaleTest, AShorterIntervalDoesNotJudgeAtOnce)
{
    io_interval = 60;
    ticks(1);
    ticks(100);
    io_interval = 10;
    ticks(1);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(card->stale_ticks, 0u);
}

TEST_F(MomStaleTest, ARemovedNodeLeavesTheWatchWithoutALine)
{
    ticks(20);
    const int32_t index[3] = {0, 5, 0};
    EXPECT_EQ(res_mom_clear_node_by_index(index), 0);
    ticks(100);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MomStaleTest, ACardGoingOfflineIsNotStale)
{
    ticks(25);
    PDev__CardInfo info = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex cidx = P_DEV__CARD_INFO_INDEX__INIT;
    cidx.devid = 0;
    cidx.slotid = 5;
    cidx.sslotid = 0;
    info.index = &cidx;
    info.user_slot = 3;
    info.is_online = 0;
    EXPECT_EQ(res_mom_dev_info_handle(&info), 0);
    ticks(100);
    EXPECT_TRUE(lines().empty());
    /* Back online: a new node with a full period of its own. */
    info.is_online = 1;
    EXPECT_EQ(res_mom_dev_info_handle(&info), 0);
    struct res_mom_node *again = res_mom_get_node_by_index2(std::vector<int32_t>{0, 5, 0}.data());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->stale, 0u);
    ticks(29);
    EXPECT_TRUE(lines().empty());
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, ANodeListedLateGetsAFullPeriod)
{
    ticks(20);
    struct res_mom_node *late = add_node(0, 6, 4);
    ticks(10);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    ticks(19);
    EXPECT_EQ(lines().size(), 1u);
    ticks(1);
    EXPECT_EQ(lines(), (std::vector<std::string>{kStale30, "slot4 Storage monitor has not reported for 30 seconds."}));
    EXPECT_EQ(late->stale, 1u);
}

TEST_F(MomStaleTest, NothingIsJudgedUntilTheMasterRoleIsTakenThenAFullPeriod)
{
    res_local_node.role = P_DEV__DM_ROLE_E__DM_ROLE_SLAVE;
    ticks(100);
    EXPECT_TRUE(lines().empty());
    report(card); /* a record while not master writes nothing */
    res_local_node.role = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
    ticks(1); /* takes the role */
    ticks(29);
    EXPECT_TRUE(lines().empty());
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    /* Role lost and taken again: the mark stays, a new full period. */
    res_local_node.role = P_DEV__DM_ROLE_E__DM_ROLE_SLAVE;
    ticks(5);
    report(card);
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_EQ(card->stale, 1u);
    res_local_node.role = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
    ticks(1);
    report(card);
    EXPECT_EQ(lines(), (std::vector<std::string>{kStale30, kBack3}));
}

TEST_F(MomStaleTest, TheMastersOwnSilenceHoldsEveryJudgement)
{
    /* The master's own record comes back each interval: its heartbeat. */
    for (int i = 0; i < 3; ++i) {
        ticks(10);
        report(&res_local_node);
        report(card);
    }
    /* Then nothing arrives at all, as when the master's link is down. */
    ticks(12);
    EXPECT_TRUE(res_mom_stale_judging());
    ticks(1);
    EXPECT_FALSE(res_mom_stale_judging());
    ticks(100);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(card->stale, 0u);
    /* Its record is back: every node gets a full period. */
    report(&res_local_node);
    EXPECT_TRUE(res_mom_stale_judging());
    EXPECT_EQ(card->stale_ticks, 0u);
    for (int i = 0; i < 3; ++i) {
        ticks(10);
        report(&res_local_node);
    }
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, ARemoteRecordShowsTheLinkWorksWithoutTheMastersOwn)
{
    ticks(5);
    report(&res_local_node);
    ticks(13);
    EXPECT_FALSE(res_mom_stale_judging());
    struct res_mom_node *other = add_node(0, 6, 4);
    report(other);
    EXPECT_TRUE(res_mom_stale_judging());
    /* The master's own record is no heartbeat now: its silence holds
     * nothing back. */
    for (int i = 0; i < 6; ++i) {
        ticks(10);
        report(other);
    }
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    EXPECT_EQ(other->stale, 0u);
}

TEST_F(MomStaleTest, TheLinkBackGivesEveryNodeAFullPeriod)
{
    ticks(29);
    res_mom_stale_link_back();
    EXPECT_EQ(card->stale_ticks, 0u);
    ticks(29);
    EXPECT_TRUE(lines().empty());
    ticks(1);
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
}

TEST_F(MomStaleTest, TheReconnectReportGivesAFullPeriod)
{
    ticks(25);
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_MONITOR_DB, QN_MOM_RECONNECT_LINK), 0);
    EXPECT_EQ(card->stale_ticks, 0u);
    ticks(25);
    EXPECT_EQ(res_mom_db_rcb(nullptr, QN_MOM_TUNNER_DB, QN_MOM_RECONNECT_SERVER), 0);
    EXPECT_EQ(card->stale_ticks, 0u);
    ticks(25);
    EXPECT_EQ(res_mom_db_rcb(nullptr, 7, QN_MOM_RECONNECT_LINK), 0); /* not one of ours */
    EXPECT_EQ(card->stale_ticks, 25u);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MomStaleTest, TakingTheMasterRoleArmsTheTick)
{
    res_mom_master = res_master;
    EXPECT_FALSE(res_mom_stale_thread.state & QN_THREAD_SCHEDULED);
    EXPECT_EQ(res_mom_master_handle(), 0);
    EXPECT_TRUE(res_mom_stale_thread.state & QN_THREAD_SCHEDULED);
    res_mom_timers_cancel();
    EXPECT_FALSE(res_mom_stale_thread.state & QN_THREAD_SCHEDULED);
}

TEST_F(MomStaleTest, OnlyTheSubscriptionsRecordsCountAsReports)
{
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    idx.t_devid = 0;
    idx.t_slotid = 5;
    PUtils__StovigIo rec = P_UTILS__STOVIG_IO__INIT;
    rec.index = &idx;
    qn_mom_res_t res = {0, &rec.base};
    qn_mom_reply_t reply = {};
    reply.res = &res;
    reply.db = QN_MOM_MONITOR_DB;

    ticks(20);
    /* A scan hands back the stored record of a node that may be dead. */
    reply.type = QN_MOM_REPLY_SCAN;
    EXPECT_EQ(res_mom_scan_io_cb(nullptr, &reply), 0);
    EXPECT_EQ(card->stale_ticks, 20u);
    /* A change delivered by the subscription is a report. */
    reply.type = QN_MOM_REPLY_SET;
    EXPECT_EQ(res_mom_sub_io_cb(nullptr, &reply), 0);
    EXPECT_EQ(card->stale_ticks, 0u);
    /* A deletion is none. */
    ticks(3);
    qn_mom_reply_t del = {};
    del.type = QN_MOM_REPLY_DEL;
    del.db = QN_MOM_MONITOR_DB;
    res_mom_sub_io_cb(nullptr, &del);
    EXPECT_EQ(card->stale_ticks, 3u);
}

TEST_F(MomStaleTest, TheTickRunsOnTheLoopInTimerSeconds)
{
    res_mom_master = res_master;
    ASSERT_EQ(res_mom_stale_start(), 0);
    EXPECT_EQ(res_mom_stale_start(), 0); /* armed once */
    ASSERT_TRUE(run_until([this] { return !lines().empty(); }, 45 * kTestSecondMs * 10));
    EXPECT_EQ(lines(), std::vector<std::string>{kStale30});
    res_mom_stale_stop();
    EXPECT_FALSE(res_mom_stale_thread.state & QN_THREAD_SCHEDULED);
}

} // namespace
