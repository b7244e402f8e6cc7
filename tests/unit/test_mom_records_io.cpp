/* I/O records end to end inside one process, with the upgrade gate: the
 * node's publisher reading the device list and the process sample, and the
 * master's flag handling and operator event lines. */
#include "mom_records_fixture.h"

#include "mom/res_mom_io.h"
#include "misc/res_misc.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_arr.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include <unistd.h>

#include <cstring>

namespace {

class IoRecordsTest : public MomRecordsFixture {
protected:
    /* Disk I/O event lines, message text only. */
    std::vector<std::string> events() const { return MomRecordsFixture::events("res_disk_io_warning_save_task"); }

    static struct res_mom_disk_io_node *disk(struct res_mom_node *n, const char *name)
    {
        for (struct res_list_head *p = n->disk_io_list.next; p != &n->disk_io_list; p = p->next) {
            auto *e = res_list_entry(p, struct res_mom_disk_io_node, list);
            if (strcmp(e->disk_name, name) == 0)
                return e;
        }
        return nullptr;
    }

    /* Adds a device to the monitor's list (which frees it on clear). */
    static struct io_device *add_device(const char *name, uint32_t is_disk, uint32_t exist)
    {
        auto *d = static_cast<struct io_device *>(calloc(1, sizeof(struct io_device)));
        snprintf(d->name, sizeof d->name, "%s", name);
        d->is_disk = is_disk;
        d->exist = exist;
        struct io_device **tail = &io_device_list;
        while (*tail)
            tail = &(*tail)->next;
        *tail = d;
        return d;
    }

    /* A process sample whose order is the order of `names` (ids ascending). */
    static void set_sample(const std::vector<std::string> &names)
    {
        struct xxxid_stats_arr *a = arr_alloc();
        uint32_t tid = 100;
        for (const std::string &n : names) {
            auto *s = static_cast<struct xxxid_stats *>(calloc(1, sizeof(struct xxxid_stats)));
            s->tid = ++tid;
            s->name = strdup(n.c_str());
            s->cmdline = strdup(("/bin/" + n).c_str());
            s->resolved = 1;
            s->read_val = tid;
            ASSERT_EQ(arr_add(a, s), 0);
        }
        res_mon_io_top_set_current(a);
    }

    /* The I/O record published by the local node, unpacked; null if none. */
    PUtils__StovigIo *published_io()
    {
        PUtils__StovigIo pat = P_UTILS__STOVIG_IO__INIT;
        std::vector<std::string> got = records(QN_MOM_MONITOR_DB, &pat.base);
        if (got.size() != 1)
            return nullptr;
        return p_utils__stovig_io__unpack(nullptr, got[0].size(), reinterpret_cast<const uint8_t *>(got[0].data()));
    }

    int start_ready()
    {
        int ret = start("node_type = 3\ndevid = 1\nphy_slot = 4\nuser_slot = 4\n");
        EXPECT_TRUE(run_until([] { return (res_mom_conn_flag & RES_MOM_CONN_LOCAL_READY) != 0; }));
        return ret;
    }
};

/* An I/O record under construction. */
struct io_rec {
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    std::vector<PUtils__DiskIo> d;
    std::vector<PUtils__ProcIo> p;
    std::vector<PUtils__DiskIo *> dp;
    std::vector<PUtils__ProcIo *> pp;
    std::vector<std::string> s;
    PUtils__StovigIo rec = P_UTILS__STOVIG_IO__INIT;
    explicit io_rec(int32_t slot)
    {
        idx.t_slotid = slot;
        s.reserve(64);
    }
    char *keep(const std::string &v)
    {
        s.push_back(v);
        return &s.back()[0];
    }
    io_rec &dsk(const std::string &name, double flag, double util = 95)
    {
        PUtils__DiskIo e = P_UTILS__DISK_IO__INIT;
        e.disk_name = keep(name);
        e.io_read = 10;
        e.io_write = 20.5;
        e.io_util = util;
        e.io_flag = flag;
        d.push_back(e);
        return *this;
    }
    io_rec &proc(uint32_t pid, const std::string &name, const std::string &cmd)
    {
        PUtils__ProcIo e = P_UTILS__PROC_IO__INIT;
        e.proc_id = pid;
        e.proc_name = keep(name);
        e.cmd = keep(cmd);
        e.io_read = 1;
        p.push_back(e);
        return *this;
    }
    const PUtils__StovigIo *get()
    {
        dp.clear();
        pp.clear();
        for (auto &e : d)
            dp.push_back(&e);
        for (auto &e : p)
            pp.push_back(&e);
        rec.index = &idx;
        rec.n_disk_io_info = dp.size();
        rec.disk_io_info = dp.empty() ? nullptr : dp.data();
        rec.n_proc_io_info = pp.size();
        rec.proc_io_info = pp.empty() ? nullptr : pp.data();
        return &rec;
    }
};

const std::string kIoHigh = "slot3 High disk sda I/O read: 10.00 KBps I/O write: 20.50 KBps I/O usage: 95.00%.";
const std::string kIoNormal =
    "slot3 High disk sda I/O read: 10.00 KBps I/O write: 20.50 KBps I/O returned to normal: 12.00%.";

using MomIoSave = IoRecordsTest;

TEST_F(MomIoSave, NeverWarnedDiskWritesNothingThenOneWarningAndOneRecovery)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    for (int i = 0; i < 3; ++i) {
        io_rec r(5);
        r.dsk("sda", 0, 12);
        EXPECT_EQ(res_mom_save_io(r.get()), 0);
        EXPECT_EQ(disk(n, "sda")->io_flag, 0u);
    }
    io_rec one(5);
    one.dsk("sda", 1, 12); /* a never-warned disk read as normal: nothing */
    EXPECT_EQ(res_mom_save_io(one.get()), 0);
    EXPECT_TRUE(events().empty());
    const double seq[] = {2, 2, 1, 1, 1};
    for (double f : seq) {
        io_rec r(5);
        r.dsk("sda", f, f == 2 ? 95 : 12);
        EXPECT_EQ(res_mom_save_io(r.get()), 0);
    }
    std::vector<std::string> want = {kIoHigh, kIoNormal};
    EXPECT_EQ(events(), want);
    EXPECT_EQ(disk(n, "sda")->io_flag, 1u);
    EXPECT_DOUBLE_EQ(disk(n, "sda")->io_util, 12);
    EXPECT_DOUBLE_EQ(disk(n, "sda")->io_write, 20.5);
}

TEST_F(MomIoSave, OtherFlagValuesAreStoredWithoutALine)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    io_rec r(5);
    r.dsk("sda", 3);
    EXPECT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_EQ(disk(n, "sda")->io_flag, 3u);
    EXPECT_TRUE(events().empty());
}

TEST_F(MomIoSave, DisksAndProcessesAreKeptWhenARecordLacksThem)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    io_rec a(5);
    a.dsk("sda", 0).dsk("sdb", 0).proc(7, "dd", "dd if=/dev/zero").proc(8, "sync", "sync");
    ASSERT_EQ(res_mom_save_io(a.get()), 0);
    EXPECT_EQ(list_len(&n->proc_io_list), 2);
    io_rec b(5);
    b.dsk("sda", 0); /* no processes: the old list stays; sdb is swept */
    ASSERT_EQ(res_mom_save_io(b.get()), 0);
    EXPECT_TRUE(log->has("save device node process io failed[-1]."));
    EXPECT_EQ(list_len(&n->proc_io_list), 2);
    EXPECT_EQ(list_len(&n->disk_io_list), 1);
    io_rec c(5);
    c.proc(9, std::string(40, 'n'), std::string(200, 'c')); /* no disks: kept, no sweep */
    ASSERT_EQ(res_mom_save_io(c.get()), 0);
    EXPECT_TRUE(log->has("save device node disk io failed[-1]."));
    EXPECT_EQ(list_len(&n->disk_io_list), 1);
    ASSERT_EQ(list_len(&n->proc_io_list), 1); /* replaced wholesale */
    auto *p = res_list_entry(n->proc_io_list.next, struct res_mom_proc_io_node, list);
    EXPECT_EQ(p->proc_id, 9u);
    EXPECT_EQ(strlen(p->proc_name), 31u);
    EXPECT_EQ(strlen(p->cmd), 127u);
}

TEST_F(MomIoSave, UnknownNodeAndNullRecordAreOnlyLogged)
{
    capture();
    add_node(0, 5, 3);
    io_rec r(6);
    r.dsk("sda", 2);
    EXPECT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_TRUE(log->has("device is not exist in list."));
    EXPECT_EQ(res_mom_save_io(nullptr), 0);
    EXPECT_TRUE(log->has("get IO from MONITOR_DB value is NULL."));
    EXPECT_TRUE(events().empty());
}

using MomIoGate = IoRecordsTest;

TEST_F(MomIoGate, WarningIsHeldDuringAnUpgradeAndWrittenAfterIt)
{
    capture();
    struct res_mom_node *n = add_node(0, 5, 3);
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_UPGRADING;
    ASSERT_EQ(res_mom_save_upgrade_flag(1, &up.base), 0);
    for (int i = 0; i < 2; ++i) {
        io_rec r(5);
        r.dsk("sda", 2);
        EXPECT_EQ(res_mom_save_io(r.get()), 0);
    }
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(disk(n, "sda")->io_flag, 1u);
    EXPECT_DOUBLE_EQ(disk(n, "sda")->io_util, 95); /* figures are stored anyway */
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT;
    ASSERT_EQ(res_mom_save_upgrade_flag(24, &up.base), 0);
    io_rec r(5);
    r.dsk("sda", 2);
    EXPECT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_EQ(events(), std::vector<std::string>{kIoHigh});
}

TEST_F(MomIoGate, RecoveryGoesThroughDuringAnUpgrade)
{
    capture();
    add_node(0, 5, 3);
    io_rec hi(5);
    hi.dsk("sda", 2);
    ASSERT_EQ(res_mom_save_io(hi.get()), 0);
    PUtils__IssuNGlobalInfo issu = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
    issu.state = P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_UPGRADING;
    ASSERT_EQ(res_mom_save_issu_flag(1, &issu.base), 0);
    io_rec lo(5);
    lo.dsk("sda", 1, 12);
    ASSERT_EQ(res_mom_save_io(lo.get()), 0);
    std::vector<std::string> want = {kIoHigh, kIoNormal};
    EXPECT_EQ(events(), want);
}

TEST_F(MomIoGate, EitherGateBitAloneHoldsAndClearingOneKeepsTheOther)
{
    capture();
    add_node(0, 5, 3);
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    PUtils__IssuNGlobalInfo issu = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
    issu.state = P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_UPGRADING;
    ASSERT_EQ(res_mom_save_issu_flag(1, &issu.base), 0);
    EXPECT_EQ(res_mom_upgrade_flag, RES_MOM_GATE_ISSU);
    io_rec r(5);
    r.dsk("sda", 2);
    ASSERT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_TRUE(events().empty());
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_DOWNLOAD;
    ASSERT_EQ(res_mom_save_upgrade_flag(1, &up.base), 0);
    issu.state = P_UTILS__ISSU_N_GLOBAL_STATE_E__ISSU_N_GLOBAL_STATE_INIT;
    ASSERT_EQ(res_mom_save_issu_flag(1, &issu.base), 0);
    EXPECT_EQ(res_mom_upgrade_flag, RES_MOM_GATE_UPGRADE);
    ASSERT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_TRUE(events().empty());
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT;
    ASSERT_EQ(res_mom_save_upgrade_flag(1, &up.base), 0);
    ASSERT_EQ(res_mom_save_io(r.get()), 0);
    EXPECT_EQ(events(), std::vector<std::string>{kIoHigh});
}

TEST_F(MomIoGate, UpgradeRecordOnTheBusHoldsTheMastersWarning)
{
    ASSERT_EQ(start("node_type = 2\nrole = 1\n", "[log]\n" + zlog_config() + "[cap]\nCAP_DEV_TYPE = CM\n"), 0);
    static int n;
    res_zlog_handle = qn_zlog_init(("stovig-rio-bus-" + std::to_string(++n)).c_str());
    ASSERT_TRUE(run_until([] { return (res_mom_sub_flag & RES_MOM_SUB_IO) != 0; }));
    ASSERT_TRUE(run_until([this] { return log->has("scan upgrade info over"); }));
    publish_card(1, 0, 3, 3, true);
    ASSERT_TRUE(run_until([this] { return nodes().size() == 2; }));
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_UPGRADING;
    ASSERT_EQ(qn_mom_set(bus(), RES_MOM_UPGRADE_DB, &up.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_mom_upgrade_flag == RES_MOM_GATE_UPGRADE; }));
    io_rec r(3);
    r.dsk("sda", 2).proc(7, "dd", "dd");
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &r.get()->base, 0, 0), 0);
    ASSERT_TRUE(run_until([this] { return list_len(&nodes()[1]->proc_io_list) == 1; }));
    EXPECT_TRUE(events().empty());
    up.status = P_UTILS__UPGRADE_STATUS_E__G_STATUS_INIT;
    ASSERT_EQ(qn_mom_set(bus(), RES_MOM_UPGRADE_DB, &up.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return res_mom_upgrade_flag == 0; }));
    ASSERT_EQ(qn_mom_set(bus(), QN_MOM_MONITOR_DB, &r.get()->base, 0, 0), 0);
    ASSERT_TRUE(run_until([this] { return events().size() == 1; }));
    EXPECT_EQ(events()[0], kIoHigh);
}

using MomIoSend = IoRecordsTest;

TEST_F(MomIoSend, EmptyDeviceListAndNoValidDisk)
{
    ASSERT_EQ(start_ready(), 0);
    EXPECT_EQ(res_mom_io_send(5), -1);
    EXPECT_TRUE(log->has("dev_list empty."));
    add_device("sda", 1, 0);  /* gone */
    add_device("loop0", 0, 1); /* not a disk */
    set_sample({"a", "b"});
    EXPECT_EQ(res_mom_io_send(5), 0);
    EXPECT_TRUE(log->has("no disk i/o information is valid."));
    EXPECT_EQ(published_io(), nullptr); /* not even the process part */
}

TEST_F(MomIoSend, NothingIsPublishedBeforeTheLocalIdentityIsComplete)
{
    log = std::make_unique<log_capture>();
    res_mom_conn_flag = RES_MOM_CONN_MONITOR;
    add_device("sda", 1, 1);
    set_sample({"a"});
    EXPECT_EQ(res_mom_io_send(5), 0);
    EXPECT_FALSE(log->has("set IO information"));
}

TEST_F(MomIoSend, ValidDisksAndTheBusiestProcessesArePublished)
{
    ASSERT_EQ(start_ready(), 0);
    struct io_device *a = add_device("sda", 1, 1);
    add_device("sdb", 1, 0);
    struct io_device *c = add_device("mmcblk0", 1, 1);
    a->rsec_rate = 200;
    a->wsec_rate = 41;
    a->util = 93.5;
    a->io_warn_state = 2;
    c->io_warn_state = 1;
    set_sample({"a", "b", "jbd2/zram0-8", "c", "d", "e", "f"});
    EXPECT_EQ(res_mom_io_send(5), 0);
    EXPECT_TRUE(log->has("set IO information with ret[0]."));
    PUtils__StovigIo *io = published_io();
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->index->t_slotid, 4);
    EXPECT_EQ(io->index->t_devid, 1);
    ASSERT_EQ(io->n_disk_io_info, 2u);
    EXPECT_STREQ(io->disk_io_info[0]->disk_name, "sda");
    EXPECT_DOUBLE_EQ(io->disk_io_info[0]->io_read, 100);
    EXPECT_DOUBLE_EQ(io->disk_io_info[0]->io_write, 20.5);
    EXPECT_DOUBLE_EQ(io->disk_io_info[0]->io_util, 93.5);
    EXPECT_DOUBLE_EQ(io->disk_io_info[0]->io_flag, 2);
    EXPECT_STREQ(io->disk_io_info[1]->disk_name, "mmcblk0");
    EXPECT_DOUBLE_EQ(io->disk_io_info[1]->io_flag, 1);
    ASSERT_EQ(io->n_proc_io_info, 5u);
    const char *want[] = {"a", "b", "c", "d", "e"};
    for (int i = 0; i < 5; ++i)
        EXPECT_STREQ(io->proc_io_info[i]->proc_name, want[i]) << i;
    EXPECT_STREQ(io->proc_io_info[2]->cmd, "/bin/c");
    EXPECT_EQ(io->proc_io_info[2]->proc_id, 104u);
    EXPECT_DOUBLE_EQ(io->proc_io_info[2]->io_read, 104);
    p_utils__stovig_io__free_unpacked(io, nullptr);
}

TEST_F(MomIoSend, OnlyOneJournalThreadIsLeftOut)
{
    ASSERT_EQ(start_ready(), 0);
    add_device("sda", 1, 1);
    set_sample({"jbd2/zram0-8", "a", "jbd2/zram0-8", "jbd2/zram0-", "b", "c"});
    EXPECT_EQ(res_mom_io_send(5), 0);
    PUtils__StovigIo *io = published_io();
    ASSERT_NE(io, nullptr);
    ASSERT_EQ(io->n_proc_io_info, 5u);
    const char *want[] = {"a", "jbd2/zram0-8", "jbd2/zram0-", "b", "c"};
    for (int i = 0; i < 5; ++i)
        EXPECT_STREQ(io->proc_io_info[i]->proc_name, want[i]) << i;
    p_utils__stovig_io__free_unpacked(io, nullptr);
}

TEST_F(MomIoSend, ProcessNamesAreResolvedOnlyForThePublishedRecords)
{
    ASSERT_EQ(start_ready(), 0);
    add_device("sda", 1, 1);
    struct xxxid_stats_arr *arr = arr_alloc();
    auto *me = static_cast<struct xxxid_stats *>(calloc(1, sizeof(struct xxxid_stats)));
    me->tid = static_cast<uint32_t>(getpid());
    auto *late = static_cast<struct xxxid_stats *>(calloc(1, sizeof(struct xxxid_stats)));
    late->tid = static_cast<uint32_t>(getpid()) + 1000000u;
    ASSERT_EQ(arr_add(arr, me), 0);
    ASSERT_EQ(arr_add(arr, late), 0);
    res_mon_io_top_set_current(arr);
    EXPECT_EQ(res_mom_io_send(1), 0);
    EXPECT_EQ(me->resolved, 1u);
    EXPECT_EQ(late->resolved, 0u);
    ASSERT_NE(me->name, nullptr);
    PUtils__StovigIo *io = published_io();
    ASSERT_NE(io, nullptr);
    ASSERT_EQ(io->n_proc_io_info, 1u);
    EXPECT_STREQ(io->proc_io_info[0]->proc_name, me->name);
    EXPECT_NE(std::string(io->proc_io_info[0]->proc_name), "");
    p_utils__stovig_io__free_unpacked(io, nullptr);
}

} // namespace
