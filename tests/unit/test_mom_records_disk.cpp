/* Disk lifetime records end to end inside one process: the node's publisher
 * reading the lifetime monitor's table, the master's saving with its flag
 * comparisons, the operator event lines and the upgrade gate, which does not
 * hold lifetime warnings. */
#include "mom_records_fixture.h"

#include "mom/res_mom_disk.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_main.h"

namespace {

struct disk_rec {
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    std::vector<PUtils__DiskInfo> e;
    std::vector<PUtils__DiskInfo *> p;
    std::vector<std::string> names;
    PUtils__StovigDiskInfo rec = P_UTILS__STOVIG_DISK_INFO__INIT;
    disk_rec(int32_t devid, int32_t slot)
    {
        idx.t_devid = devid;
        idx.t_slotid = slot;
        names.reserve(16);
    }
    disk_rec &add(const std::string &name, uint64_t left, int32_t flag)
    {
        names.push_back(name);
        PUtils__DiskInfo d = P_UTILS__DISK_INFO__INIT;
        d.disk_name = &names.back()[0];
        d.disk_power_time = 100;
        d.disk_left_life = left;
        d.ltime_flag = flag;
        e.push_back(d);
        return *this;
    }
    PUtils__StovigDiskInfo *get()
    {
        p.clear();
        for (auto &d : e)
            p.push_back(&d);
        rec.index = &idx;
        rec.n_info = p.size();
        rec.info = p.empty() ? nullptr : p.data();
        return &rec;
    }
};

using MomDiskSave = RecordsTest;

TEST_F(MomDiskSave, WarningOnceThenRecoveryOnOne)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    const int32_t seq[] = {0, 2, 2, 2, 1, 0};
    for (int32_t f : seq) {
        disk_rec r(0, 5);
        r.add("mmcblk0", 5, f);
        EXPECT_EQ(res_mom_save_disk_lft(1, &r.get()->base), 0);
    }
    std::vector<std::string> want = {"slot3 The mmcblk0 Chip's Lifetime Is 5, Shorter Than Config 12 !",
                                     "slot3 The mmcblk0 Chip's Lifetime recover health !"};
    EXPECT_EQ(events("res_lifetime_warning_save_task"), want);
    ASSERT_EQ(list_len(&n->lifetime_list), 1);
    auto *d = res_list_entry(n->lifetime_list.next, struct res_mom_lifetime_node, list);
    EXPECT_EQ(d->flag, 0);
    EXPECT_EQ(d->left_lifetime, 5u);
    EXPECT_EQ(d->power_time, 100u);
}

TEST_F(MomDiskSave, DroppedDeviceWarnsAgainWhenItComesBack)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    disk_rec a(0, 5);
    a.add("mmcblk0", 5, 2).add("sda", 40, 0);
    ASSERT_EQ(res_mom_save_disk_lft(24, &a.get()->base), 0);
    disk_rec b(0, 5);
    b.add("sda", 40, 0);
    ASSERT_EQ(res_mom_save_disk_lft(24, &b.get()->base), 0);
    EXPECT_EQ(list_len(&n->lifetime_list), 1);
    ASSERT_EQ(res_mom_save_disk_lft(24, &a.get()->base), 0);
    EXPECT_EQ(events("res_lifetime_warning_save_task").size(), 2u);
    /* The months left print as the low 32 bits taken as signed. */
    disk_rec c(0, 5);
    c.add("mmcblk1", 0xFFFFFFFFull, 2);
    qn_mom_res_t res = {0, &c.get()->base};
    ASSERT_EQ(res_mom_save_disk_lft(4, &res), 0);
    EXPECT_EQ(events("res_lifetime_warning_save_task").back(),
              "slot3 The mmcblk1 Chip's Lifetime Is -1, Shorter Than Config 12 !");
}

TEST_F(MomDiskSave, EmptyListKeepsTheOldRecordsAndBadRepliesAreRefused)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    disk_rec a(0, 5);
    a.add("mmcblk0", 5, 2);
    ASSERT_EQ(res_mom_save_disk_lft(1, &a.get()->base), 0);
    disk_rec empty(0, 5);
    EXPECT_EQ(res_mom_save_disk_lft(1, &empty.get()->base), 0);
    EXPECT_TRUE(log->has("save node lifetime capacity informaion failed."));
    EXPECT_EQ(list_len(&n->lifetime_list), 1);
    EXPECT_EQ(res_mom_save_disk_lft(9, &a.get()->base), -1);
    EXPECT_TRUE(log->has("ignore cmd:9"));
    EXPECT_EQ(res_mom_save_disk_lft(6, nullptr), -1);
    qn_mom_res_t bad = {3, &a.get()->base};
    EXPECT_EQ(res_mom_save_disk_lft(6, &bad), -1);
    EXPECT_EQ(log->count("res unexpected, error!"), 2);
    EXPECT_EQ(res_mom_save_disk_lft(24, nullptr), -1);
    EXPECT_TRUE(log->has("get disk info from TUNNER_DB value is NULL."));
    disk_rec other(0, 9);
    other.add("mmcblk0", 5, 2);
    EXPECT_EQ(res_mom_save_disk_lft(1, &other.get()->base), 0);
    EXPECT_TRUE(log->has("device is not exist in list."));
    EXPECT_EQ(events("res_lifetime_warning_save_task").size(), 1u);
}

TEST_F(MomDiskSave, UpgradeGateDoesNotHoldLifetimeWarnings)
{
    capture();
    add_node(0, 5, 3);
    res_mom_upgrade_flag = RES_MOM_GATE_UPGRADE | RES_MOM_GATE_ISSU;
    disk_rec a(0, 5);
    a.add("mmcblk0", 5, 2);
    ASSERT_EQ(res_mom_save_disk_lft(1, &a.get()->base), 0);
    EXPECT_EQ(events("res_lifetime_warning_save_task").size(), 1u);
}

using MomDiskSend = RecordsTest;

TEST_F(MomDiskSend, NothingIsPublishedBeforeTheLocalIdentityIsComplete)
{
    log = std::make_unique<log_capture>();
    res_mom_conn_flag = 0;
    EXPECT_EQ(res_mom_disk_send(1), 0);
    EXPECT_TRUE(log->has("disk_info[0]: disk_name = "));
    EXPECT_FALSE(log->has("qn_mom_set disk info begin"));
}

TEST_F(MomDiskSend, TheTableRowIsPublishedWithItsNumbersWidenedWithTheirSign)
{
    ASSERT_EQ(start("node_type = 3\ndevid = 1\nphy_slot = 4\nuser_slot = 4\n"), 0);
    ASSERT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
    struct res_disk_info_t saved = res_disk_info[0];
    snprintf(res_disk_info[0].name, sizeof res_disk_info[0].name, "mmcblk0");
    res_disk_info[0].disk_used_time = 30;
    res_disk_info[0].left_life = -2;
    res_disk_info[0].flag = 2;
    EXPECT_EQ(res_mom_disk_send(1), 0);
    res_disk_info[0] = saved;
    EXPECT_TRUE(log->has("qn_mom_set disk info begin"));
    EXPECT_TRUE(log->has(
        "disk_info[0]: disk_name = mmcblk0, disk_power_time = 30, disk_left_life = -2, ltime_flag = 2"));
    PUtils__StovigDiskInfo pat = P_UTILS__STOVIG_DISK_INFO__INIT;
    std::vector<std::string> got = records(QN_MOM_MONITOR_DB, &pat.base);
    ASSERT_EQ(got.size(), 1u);
    PUtils__StovigDiskInfo *d =
        p_utils__stovig_disk_info__unpack(nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->index->t_slotid, 4);
    ASSERT_EQ(d->n_info, 1u);
    EXPECT_STREQ(d->info[0]->disk_name, "mmcblk0");
    EXPECT_EQ(d->info[0]->disk_power_time, 30u);
    EXPECT_EQ(d->info[0]->disk_left_life, static_cast<uint64_t>(-2));
    EXPECT_EQ(d->info[0]->ltime_flag, 2);
    p_utils__stovig_disk_info__free_unpacked(d, nullptr);
}

} // namespace
