/* Partition records (capacity and read-only) end to end inside one process:
 * the node's publisher reading the partition monitor's table, the master's
 * saving with its flag comparisons, seen marks and sweeps, and the operator
 * event lines. */
#include "mom_records_fixture.h"

#include "mom/res_mom_part.h"
#include "misc/res_misc.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"

#include <unistd.h>

#include <cstring>

namespace {

/* A capacity or read-only record under construction. */
struct part_rec {
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    std::vector<PUtils__PartInfo> vol;
    std::vector<PUtils__PartRo> ro;
    std::vector<PUtils__PartInfo *> volp;
    std::vector<PUtils__PartRo *> rop;
    std::vector<std::string> strings;
    PUtils__StovigPartInfo vrec = P_UTILS__STOVIG_PART_INFO__INIT;
    PUtils__StovigPartRo rrec = P_UTILS__STOVIG_PART_RO__INIT;

    part_rec(int32_t devid, int32_t slot)
    {
        idx.t_devid = devid;
        idx.t_slotid = slot;
        strings.reserve(64);
    }
    char *keep(const std::string &s)
    {
        strings.push_back(s);
        return &strings.back()[0];
    }
    part_rec &cap(const std::string &path, const std::string &name, uint64_t total, uint64_t used, uint32_t flag)
    {
        PUtils__PartInfo e = P_UTILS__PART_INFO__INIT;
        e.part_path = keep(path);
        e.part_uname = keep(name);
        e.total_vol = total;
        e.use_vol = used;
        e.flag = flag;
        e.vol_visible = 1;
        e.exist = 1;
        vol.push_back(e);
        return *this;
    }
    part_rec &rof(const std::string &path, const std::string &name, uint32_t flag)
    {
        PUtils__PartRo e = P_UTILS__PART_RO__INIT;
        e.part_path = keep(path);
        e.part_uname = keep(name);
        e.ro_flag = flag;
        e.ro_visible = 1;
        e.exist = 1;
        ro.push_back(e);
        return *this;
    }
    const PUtils__StovigPartInfo *v()
    {
        volp.clear();
        for (auto &e : vol)
            volp.push_back(&e);
        vrec.index = &idx;
        vrec.n_info = volp.size();
        vrec.info = volp.empty() ? nullptr : volp.data();
        return &vrec;
    }
    const PUtils__StovigPartRo *r()
    {
        rop.clear();
        for (auto &e : ro)
            rop.push_back(&e);
        rrec.index = &idx;
        rrec.n_info = rop.size();
        rrec.info = rop.empty() ? nullptr : rop.data();
        return &rrec;
    }
};

const std::string kHigh = "slot3 High partition flash usage: 87.50%, the capacity threshold is 80.00%.";
const std::string kNormal = "slot3 Partition flash usage returned to normal: 50.00%, the capacity threshold is 80.00%.";

using MomPartSave = RecordsTest;

TEST_F(MomPartSave, CapacityFlagTableWritesOneLinePerChange)
{
    capture();
    add_node(0, 5, 3);
    /* 0, 0, 2, 2, 1, 0: one warning at the first 2, one recovery at the 1. */
    const uint32_t seq[] = {0, 0, 2, 2, 1, 0};
    for (uint32_t f : seq) {
        part_rec r(0, 5);
        r.cap("/data", "flash", 1000, f == 2 ? 875 : 500, f);
        EXPECT_EQ(res_mom_save_vol(r.v()), 0);
    }
    std::vector<std::string> want = {kHigh, kNormal};
    EXPECT_EQ(events("res_part_vol_warning_task"), want);
}

TEST_F(MomPartSave, CapacityRecoveryFromZeroAndWarningFromOneAreWritten)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    part_rec a(0, 5);
    a.cap("/data", "flash", 1000, 500, 1); /* stored 0, received 1 */
    EXPECT_EQ(res_mom_save_vol(a.v()), 0);
    part_rec b(0, 5);
    b.cap("/data", "flash", 1000, 875, 2); /* stored 1, received 2 */
    EXPECT_EQ(res_mom_save_vol(b.v()), 0);
    part_rec c(0, 5);
    c.cap("/data", "flash", 1000, 875, 0); /* stored 2, received 0: nothing */
    EXPECT_EQ(res_mom_save_vol(c.v()), 0);
    EXPECT_EQ(part(n, "/data")->vol_flag, 0u);
    part_rec d(0, 5);
    d.cap("/data", "flash", 1000, 875, 7); /* another value: stored, no line */
    EXPECT_EQ(res_mom_save_vol(d.v()), 0);
    EXPECT_EQ(part(n, "/data")->vol_flag, 7u);
    std::vector<std::string> want = {kNormal, kHigh};
    EXPECT_EQ(events("res_part_vol_warning_task"), want);
}

TEST_F(MomPartSave, ReadOnlyFlagTableWritesOneLinePerChange)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    const uint32_t seq[] = {0, 0, 2, 2, 1, 0, 1, 2, 0};
    for (uint32_t f : seq) {
        part_rec r(0, 5);
        r.rof("/mnt/usb0", "usb0", f);
        EXPECT_EQ(res_mom_save_ro(r.r()), 0);
    }
    std::vector<std::string> want = {"slot3 Partition usb0 is readonly.",
                                     "slot3 Partition usb0 read and write returned to normal.",
                                     "slot3 Partition usb0 read and write returned to normal.",
                                     "slot3 Partition usb0 is readonly."};
    EXPECT_EQ(events("res_part_ro_warning_task"), want);
    EXPECT_EQ(part(n, "/mnt/usb0")->ro_flag, 0u);
    EXPECT_EQ(part(n, "/mnt/usb0")->ro_visible, 1u);
    EXPECT_TRUE(events("res_part_vol_warning_task").empty());
}

TEST_F(MomPartSave, FirstRecordOfANewNodeWarnsOnlyForFlagTwo)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    part_rec r(0, 5);
    r.cap("/data", "flash", 1000, 875, 2).cap("/tmp", "tmp", 1000, 100, 0).cap("/mnt/usb0", "usb0", 2000, 1900, 2);
    EXPECT_EQ(res_mom_save_vol(r.v()), 0);
    std::vector<std::string> want = {kHigh,
                                     "slot3 High partition usb0 usage: 95.00%, the capacity threshold is 80.00%."};
    EXPECT_EQ(events("res_part_vol_warning_task"), want);
    ASSERT_EQ(list_len(&n->part_list), 3);
    struct res_mom_part_node *p = part(n, "/mnt/usb0");
    EXPECT_EQ(p->total_vol, 2000u);
    EXPECT_EQ(p->use_vol, 1900u);
    EXPECT_STREQ(p->part_uname, "usb0");
    EXPECT_EQ(p->exist, 1u);
    EXPECT_EQ(p->vol_visible, 1u);
    EXPECT_EQ(p->seen, 0u); /* unmarked by the sweep */
}

TEST_F(MomPartSave, EmptyRecordsLeaveThePartitionsUntouched)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    part_rec r(0, 5);
    r.cap("/data", "flash", 1000, 875, 2).cap("/tmp", "tmp", 1000, 100, 0);
    ASSERT_EQ(res_mom_save_vol(r.v()), 0);
    part_rec empty(0, 5);
    EXPECT_EQ(res_mom_save_vol(empty.v()), 0);
    EXPECT_TRUE(log->has("save node part capacity informaion failed."));
    EXPECT_EQ(res_mom_save_ro(empty.r()), 0);
    EXPECT_EQ(log->count("info or num is not invalid."), 1);
    EXPECT_EQ(log->count("save node part readonly failed."), 1);
    std::string t = log->text();
    EXPECT_LT(t.find("info or num is not invalid."), t.find("save node part readonly failed."));
    EXPECT_EQ(list_len(&n->part_list), 2);
    EXPECT_EQ(part(n, "/data")->vol_flag, 2u);
}

TEST_F(MomPartSave, UnknownNodeReturnsMinusOneAndChangesNothing)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    part_rec r(0, 6);
    r.cap("/data", "flash", 1000, 875, 2).rof("/data", "flash", 2);
    EXPECT_EQ(res_mom_save_vol(r.v()), -1);
    EXPECT_TRUE(log->has("can't get node from list."));
    EXPECT_EQ(res_mom_save_ro(r.r()), -1);
    EXPECT_TRUE(log->has("get node from list failed."));
    EXPECT_EQ(list_len(&n->part_list), 0);
    EXPECT_TRUE(events("res_part_vol_warning_task").empty());
    EXPECT_TRUE(events("res_part_ro_warning_task").empty());
    EXPECT_EQ(res_mom_save_vol(nullptr), -1);
    EXPECT_TRUE(log->has("get role from TUNNER_DB value is NULL."));
    EXPECT_EQ(res_mom_save_ro(nullptr), 0);
    EXPECT_TRUE(log->has("MOM msg value is NULL."));
}

TEST_F(MomPartSave, LongPathMakesAFreshEntryAtEveryReceipt)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    std::string path = "/" + std::string(63, 'p'); /* 64 characters */
    for (int i = 0; i < 3; ++i) {
        part_rec r(0, 5);
        r.cap(path, "long", 1000, 875, 2);
        EXPECT_EQ(res_mom_save_vol(r.v()), 0);
        ASSERT_EQ(list_len(&n->part_list), 1); /* the previous entry was swept */
        auto *e = res_list_entry(n->part_list.next, struct res_mom_part_node, list);
        EXPECT_EQ(strlen(e->part_path), 63u);
    }
    EXPECT_EQ(events("res_part_vol_warning_task").size(), 3u);
    /* 63 characters are found again: one line only. */
    std::string ok = "/" + std::string(62, 'q');
    for (int i = 0; i < 3; ++i) {
        part_rec r(0, 5);
        r.cap(ok, "fits", 1000, 875, 2);
        EXPECT_EQ(res_mom_save_vol(r.v()), 0);
    }
    EXPECT_EQ(events("res_part_vol_warning_task").size(), 4u);
}

TEST_F(MomPartSave, EitherRecordSweepsThePartitionsItDoesNotCarry)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    part_rec a(0, 5);
    a.cap("/data", "flash", 1000, 500, 0).cap("/tmp", "tmp", 1000, 100, 0);
    ASSERT_EQ(res_mom_save_vol(a.v()), 0);
    part_rec b(0, 5);
    b.rof("/data", "flash", 0).rof("/mnt/usb0", "usb0", 0);
    ASSERT_EQ(res_mom_save_ro(b.r()), 0);
    EXPECT_NE(part(n, "/data"), nullptr);
    EXPECT_EQ(part(n, "/tmp"), nullptr);
    EXPECT_NE(part(n, "/mnt/usb0"), nullptr);
    EXPECT_EQ(part(n, "/data")->total_vol, 1000u); /* kept from the capacity record */
    /* A partition that comes back starts from flag 0 again. */
    part_rec c(0, 5);
    c.cap("/tmp", "tmp", 1000, 900, 2);
    ASSERT_EQ(res_mom_save_vol(c.v()), 0);
    part_rec d(0, 5);
    d.cap("/data", "flash", 1000, 500, 0);
    ASSERT_EQ(res_mom_save_vol(d.v()), 0);
    part_rec e(0, 5);
    e.cap("/tmp", "tmp", 1000, 900, 2);
    ASSERT_EQ(res_mom_save_vol(e.v()), 0);
    EXPECT_EQ(events("res_part_vol_warning_task").size(), 2u);
}

TEST_F(MomPartSave, UsageAndThresholdHaveTwoDecimals)
{
    capture();
    add_node(0, 5, 3);
    cap_threshold = 85;
    part_rec r(0, 5);
    r.cap("/data", "flash", 3, 2, 2).cap("/x", "zero", 0, 5, 2);
    ASSERT_EQ(res_mom_save_vol(r.v()), 0);
    std::vector<std::string> got = events("res_part_vol_warning_task");
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], "slot3 High partition flash usage: 66.67%, the capacity threshold is 85.00%.");
    EXPECT_EQ(got[1], "slot3 High partition zero usage: inf%, the capacity threshold is 85.00%.");
}

TEST_F(MomPartSave, EventLinesAreWrittenAtLevel120WhateverTheDebugLevel)
{
    capture();
    res_dbg_level = 0;
    res_zlog_level = 0;
    add_node(0, 5, 3);
    part_rec r(0, 5);
    r.cap("/data", "flash", 1000, 875, 2);
    ASSERT_EQ(res_mom_save_vol(r.v()), 0);
    res_zlog_level = 6;
    std::string z = slurp(dir + "/events.log");
    EXPECT_NE(z.find("EVENT mom/res_mom_part.cpp:"), std::string::npos) << z;
    EXPECT_NE(z.find(" res_part_vol_warning_task: " + kHigh), std::string::npos) << z;
    /* Not a diagnostic syslog line; only the log library's copy of the event. */
    EXPECT_EQ(log->count("High partition"), 1) << log->text();
    EXPECT_EQ(log->count("-4-EVENT: mom/res_mom_part.cpp:"), 1) << log->text();
}

using MomPartSend = RecordsTest;

TEST_F(MomPartSend, NothingIsPublishedBeforeTheLocalIdentityIsComplete)
{
    res_mon_part_init();
    log = std::make_unique<log_capture>();
    res_mom_conn_flag = 0;
    EXPECT_EQ(res_mom_part_vol_send(RES_PART_NUM), 0);
    EXPECT_EQ(res_mom_part_ro_send(RES_PART_NUM), 0);
}

TEST_F(MomPartSend, BothRecordsCarryTheTableUnderTheLocalIndex)
{
    ASSERT_EQ(start("node_type = 3\ndevid = 1\nphy_slot = 4\nuser_slot = 4\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    res_mon_part_init();
    res_part_table[1].mounted = 1;
    res_part_table[1].total_kb = 1000;
    res_part_table[1].used_kb = 900;
    res_part_table[1].usage_state = 2;
    res_part_table[4].mounted = 1;
    res_part_table[4].ro_state = 2;
    EXPECT_EQ(res_mom_part_vol_send(RES_PART_NUM), 0);
    EXPECT_EQ(res_mom_part_ro_send(RES_PART_NUM), 0);
    PUtils__StovigPartInfo vp = P_UTILS__STOVIG_PART_INFO__INIT;
    std::vector<std::string> got = records(QN_MOM_MONITOR_DB, &vp.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigPartInfo *v = p_utils__stovig_part_info__unpack(
        nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->index->t_devid, res_local_node.devid);
    EXPECT_EQ(v->index->t_slotid, res_local_node.slotid);
    EXPECT_EQ(v->index->t_slotid, 4);
    ASSERT_EQ(v->n_info, 12u);
    EXPECT_STREQ(v->info[1]->part_path, "/data");
    EXPECT_STREQ(v->info[1]->part_uname, "flash");
    EXPECT_EQ(v->info[1]->total_vol, 1000u);
    EXPECT_EQ(v->info[1]->use_vol, 900u);
    EXPECT_EQ(v->info[1]->flag, 2u);
    EXPECT_EQ(v->info[1]->exist, 1u);
    EXPECT_EQ(v->info[1]->vol_visible, 1u);
    EXPECT_EQ(v->info[11]->vol_visible, 0u); /* rootfs: usage not judged */
    EXPECT_EQ(v->info[0]->exist, 0u);
    p_utils__stovig_part_info__free_unpacked(v, nullptr);
    PUtils__StovigPartRo rp = P_UTILS__STOVIG_PART_RO__INIT;
    got = records(QN_MOM_MONITOR_DB, &rp.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigPartRo *r =
        p_utils__stovig_part_ro__unpack(nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r->n_info, 12u);
    EXPECT_STREQ(r->info[4]->part_path, "/mnt/usb0");
    EXPECT_EQ(r->info[4]->ro_flag, 2u);
    EXPECT_EQ(r->info[4]->ro_visible, 1u);
    EXPECT_EQ(r->info[11]->ro_visible, 0u);
    p_utils__stovig_part_ro__free_unpacked(r, nullptr);
}

TEST_F(MomPartSend, EntryArrayReferencesTheTableStrings)
{
    res_mon_part_init();
    log = std::make_unique<log_capture>();
    void **vol = res_mom_part_info_set(RES_PART_NUM, 0);
    ASSERT_NE(vol, nullptr);
    EXPECT_EQ(static_cast<PUtils__PartInfo *>(vol[4])->part_path, res_part_table[4].path);
    EXPECT_EQ(static_cast<PUtils__PartInfo *>(vol[4])->part_uname, res_part_table[4].name);
    for (int i = 0; i < RES_PART_NUM; ++i)
        free(vol[i]);
    free(vol);
    void **ro = res_mom_part_info_set(0, 1);
    ASSERT_NE(ro, nullptr); /* the empty array */
    free(ro);
}

TEST_F(MomPartSend, MasterReceivesAPublishedRecordThroughItsSubscription)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n", "[log]\n" + zlog_config() + "[cap]\nCAP_DEV_TYPE = CM\n"), 0);
    open_zlog();
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & (RES_MOM_SUB_VOL | RES_MOM_SUB_RO)) ==
                                      (RES_MOM_SUB_VOL | RES_MOM_SUB_RO); }));
    publish_card(1, 0, 3, 3, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 2; }));
    part_rec r(0, 3);
    r.cap("/data", "flash", 1000, 875, 2).rof("/data", "flash", 2);
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &r.v()->base, 0, 0), 0);
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &r.r()->base, 0, 0), 0);
    ASSERT_TRUE(run_until([this] {
        return events("res_part_vol_warning_task").size() == 1 && events("res_part_ro_warning_task").size() == 1;
    }));
    EXPECT_EQ(events("res_part_vol_warning_task")[0], kHigh);
    /* The scan reads the same record again: no second line. */
    ASSERT_EQ(res_mom_vol_handler(RES_MOM_OP_SCAN, nullptr), 0);
    ASSERT_TRUE(run_until([this] { return log->count("scan over") >= 3; }));
    EXPECT_EQ(events("res_part_vol_warning_task").size(), 1u);
}

} // namespace
