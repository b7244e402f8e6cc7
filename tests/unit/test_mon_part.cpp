#include "misc/res_misc.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"
#include "test_mon_fixture.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/statfs.h>

#include <cmath>

namespace {

class MonPart : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        res_mon_part_init();
        cap_threshold = 80;
        cap_interval = 30;
        ro_interval = 30;
        memset(&res_mon_cap_thread, 0, sizeof res_mon_cap_thread);
        memset(&res_mon_ro_thread, 0, sizeof res_mon_ro_thread);
        uptime(100);
    }
    void TearDown() override
    {
        res_misc_del_timer(&res_mon_cap_thread);
        res_misc_del_timer(&res_mon_ro_thread);
        MonFixture::TearDown();
    }
    /* Uptime in hundredths of a second. */
    void uptime(uint64_t cs)
    {
        char buf[64];
        snprintf(buf, sizeof buf, "%llu.%02llu 0.00\n", static_cast<unsigned long long>(cs / 100),
                 static_cast<unsigned long long>(cs % 100));
        put("/proc/uptime", buf);
    }
    void mounts(const std::string &text) { put("/proc/mounts", text); }
    std::string mounted()
    {
        std::string m;
        for (int i = 0; i < RES_PART_NUM; ++i)
            m += res_part_table[i].mounted ? '1' : '0';
        return m;
    }
};

TEST_F(MonPart, TableRowsInIndexOrder)
{
    const char *rows[RES_PART_NUM][2] = {
        {"/data2", "flash2"},   {"/data", "flash"},    {"/mnt/sata0", "sata0"}, {"/mnt/sata1", "sata1"},
        {"/mnt/usb0", "usb0"},  {"/mnt/usb1", "usb1"}, {"/mnt/sd0", "sd0"},     {"/tmp", "tmp"},
        {"/install", "install"}, {"/mnt/storage", "storage"}, {"/mnt/nfs", "nfs"}, {"/", "rootfs"},
    };
    for (int i = 0; i < RES_PART_NUM; ++i) {
        EXPECT_STREQ(rows[i][0], res_part_table[i].path);
        EXPECT_STREQ(rows[i][1], res_part_table[i].name);
        EXPECT_EQ(i == 11 ? 0u : 1u, res_part_table[i].check_usage);
        EXPECT_EQ(0u, res_part_table[i].mounted);
    }
    EXPECT_EQ(0u, last_mount_scan);
}

TEST_F(MonPart, RowSetterCutsStringsAt31)
{
    res_mon_part_set(3, std::string(40, 'p').c_str(), std::string(40, 'n').c_str(), 0);
    EXPECT_EQ(std::string(31, 'p'), res_part_table[3].path);
    EXPECT_EQ(std::string(31, 'n'), res_part_table[3].name);
    EXPECT_EQ(0u, res_part_table[3].check_usage);
    res_mon_part_set(12, "/x", "x", 1); /* out of range: ignored */
    res_mon_part_set(-1, "/x", "x", 1);
}

TEST_F(MonPart, ExactMountPointMatching)
{
    mounts("/dev/sdb1 /data2 ext4 rw 0 0\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("100000000000", mounted());
    uptime(200);
    mounts("/dev/sdb1 /data ext4 rw 0 0\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("010000000000", mounted());
    uptime(300);
    mounts("/dev/sdb1 /data/ ext4 rw 0 0\n/dev/sdb2 /data/x ext4 rw 0 0\n/dev/sdb3 /DATA ext4 rw 0 0\n"
           "/dev/sdb3 /dat ext4 rw 0 0\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("000000000000", mounted());
    EXPECT_EQ(300u, last_mount_scan);
}

TEST_F(MonPart, StackedMountsMatchOnceAndAllRowsAreFound)
{
    mounts("a /data2 x rw 0 0\nb /data x rw 0 0\nc /mnt/sata0 x\nd /mnt/sata1 x\ne /mnt/usb0 x\nf /mnt/usb1 x\n"
           "g /mnt/sd0 x\nh /tmp x\ni /install x\nj /mnt/storage x\nk /mnt/nfs x\nl / x\nm /data x\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("111111111111", mounted());
}

TEST_F(MonPart, ScansWithinFourHundredthsAreSkipped)
{
    mounts("/dev/sda1 / ext4 rw 0 0\n");
    uptime(1000);
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("000000000001", mounted());
    mounts("/dev/sda1 /data ext4 rw 0 0\n");
    uptime(1004);
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("000000000001", mounted()); /* nothing read */
    EXPECT_EQ(1000u, last_mount_scan);
    uptime(1005);
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("010000000000", mounted());
    EXPECT_EQ(1005u, last_mount_scan);
}

TEST_F(MonPart, UnreadableUptimeOrMountTableKeepsFlags)
{
    mounts("/dev/sda1 / ext4 rw 0 0\n");
    ASSERT_EQ(0, res_mon_part_update());
    unlink((root + "/proc/uptime").c_str());
    mounts("");
    EXPECT_EQ(-1, res_mon_part_update());
    EXPECT_TRUE(logged("can't update partition info due to uptime read fail."));
    EXPECT_EQ("000000000001", mounted());
    uptime(500);
    unlink((root + "/proc/mounts").c_str());
    EXPECT_EQ(-1, res_mon_part_update());
    EXPECT_TRUE(logged("open file /proc/mounts failed."));
    EXPECT_EQ("000000000001", mounted());
    EXPECT_EQ(100u, last_mount_scan);
}

TEST_F(MonPart, EmptyLinesAreReportedAndSkipped)
{
    mounts("\n/dev/sda1 / ext4 rw 0 0\n   \nonlydevice\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ(2u, count("sscan failed with ret[-1]."));
    EXPECT_EQ("000000000001", mounted());
}

TEST_F(MonPart, LongMountPointsAreComparedCutAt31)
{
    /* "/mnt/storage" followed by enough characters: cut to 31 it is still
     * longer than any row; a long device field does not shift the columns. */
    mounts(std::string(80, 'd') + " /mnt/nfs ext4 rw 0 0\n" + "x /mnt/storage" + std::string(40, 'z') +
           " ext4 rw 0 0\n" + "y " + std::string(5000, '/') + " ext4 rw 0 0\n");
    EXPECT_EQ(0, res_mon_part_update());
    EXPECT_EQ("000000000010", mounted());
}

TEST_F(MonPart, OnlyRootMountedIsMeasuredButNeverJudged)
{
    mounts("/dev/root / ext4 rw 0 0\n");
    cap_threshold = 0; /* every usage is over it */
    EXPECT_EQ(0, res_mon_part_cap_timer_func(&res_mon_cap_thread));
    struct statfs st;
    ASSERT_EQ(0, statfs(root.c_str(), &st));
    EXPECT_EQ(static_cast<uint64_t>(st.f_blocks) * static_cast<uint64_t>(st.f_bsize) / 1000,
              res_part_table[11].total_kb);
    EXPECT_EQ(0u, res_part_table[11].usage_state);
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ(0u, res_part_table[i].mounted);
        EXPECT_EQ(0u, res_part_table[i].total_kb);
    }
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_EQ(30, res_mon_cap_thread.interval);
    EXPECT_STREQ("RES_CAP_TIMER", res_mon_cap_thread.name);
    /* The read-only probe covers rootfs too. */
    EXPECT_EQ(0, res_mom_part_ro_timer_func(&res_mon_ro_thread));
    EXPECT_EQ(0, access((root + "//.test-readonly").c_str(), F_OK));
    EXPECT_TRUE(logged("open //.test-readonly with ret["));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_ro_thread));
    EXPECT_STREQ("RES_RO_TIMER", res_mon_ro_thread.name);
}

TEST_F(MonPart, MountedEntryOnARealDirectoryIsJudged)
{
    mkdirs("/data");
    mounts("/dev/sdb1 /data ext4 rw 0 0\n");
    cap_threshold = 0;
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    EXPECT_EQ(2u, res_part_table[1].usage_state);
    cap_threshold = 100; /* only a completely full volume would be over */
    uptime(200);
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    EXPECT_EQ(1u, res_part_table[1].usage_state);
    uptime(300);
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    EXPECT_EQ(0u, res_part_table[1].usage_state);
}

TEST_F(MonPart, StatfsFailureGivesZeroSizesAndNaNCountsAsBelow)
{
    mounts("/dev/sdc1 /mnt/usb0 vfat rw 0 0\n"); /* no such directory in the tree */
    res_part_table[4].usage_state = 2;
    res_part_table[4].total_kb = 99;
    res_part_table[4].used_kb = 98;
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    EXPECT_TRUE(logged("get partition[/mnt/usb0] stats failed."));
    EXPECT_EQ(0u, res_part_table[4].total_kb);
    EXPECT_EQ(0u, res_part_table[4].used_kb);
    EXPECT_EQ(1u, res_part_table[4].usage_state);
}

TEST_F(MonPart, UnmountedEntriesKeepTheirValues)
{
    res_part_table[2].total_kb = 5;
    res_part_table[2].usage_state = 2;
    res_part_table[2].ro_state = 2;
    mounts("/dev/root / ext4 rw 0 0\n");
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    uptime(200);
    res_mom_part_ro_timer_func(&res_mon_ro_thread);
    EXPECT_EQ(5u, res_part_table[2].total_kb);
    EXPECT_EQ(2u, res_part_table[2].usage_state);
    EXPECT_EQ(2u, res_part_table[2].ro_state);
}

struct statfs fake_fs(long bsize, unsigned long blocks, unsigned long bfree, unsigned long bavail)
{
    struct statfs st;
    memset(&st, 0, sizeof st);
    st.f_bsize = bsize;
    st.f_blocks = blocks;
    st.f_bfree = bfree;
    st.f_bavail = bavail;
    return st;
}

TEST_F(MonPart, UsedIncludesReservedBlocksAndSizesAreDecimal)
{
    struct statfs st = fake_fs(4096, 1000, 500, 450);
    res_mon_part_fill_cap(&res_part_table[1], &st, 80.0f);
    EXPECT_EQ(4096u, res_part_table[1].total_kb);
    EXPECT_EQ(550u * 4096 / 1000, res_part_table[1].used_kb);
    EXPECT_EQ(0u, res_part_table[1].usage_state);
}

TEST_F(MonPart, UsageExactlyAtThresholdIsOver)
{
    struct statfs st = fake_fs(1000, 100, 20, 20); /* 80.0 % */
    res_mon_part_fill_cap(&res_part_table[0], &st, 80.0f);
    EXPECT_EQ(100u, res_part_table[0].total_kb);
    EXPECT_EQ(80u, res_part_table[0].used_kb);
    EXPECT_EQ(2u, res_part_table[0].usage_state);
    st = fake_fs(1000, 100, 21, 21); /* 79 % */
    res_mon_part_fill_cap(&res_part_table[0], &st, 80.0f);
    EXPECT_EQ(1u, res_part_table[0].usage_state);
    res_mon_part_fill_cap(&res_part_table[0], &st, 80.0f);
    EXPECT_EQ(0u, res_part_table[0].usage_state);
    /* 1 -> 2 when it goes bad again. */
    res_part_table[0].usage_state = 1;
    st = fake_fs(1000, 100, 0, 0);
    res_mon_part_fill_cap(&res_part_table[0], &st, 80.0f);
    EXPECT_EQ(2u, res_part_table[0].usage_state);
}

TEST_F(MonPart, RootfsIsMeasuredNotJudged)
{
    struct statfs st = fake_fs(1000, 100, 0, 0);
    res_mon_part_fill_cap(&res_part_table[11], &st, 10.0f);
    EXPECT_EQ(100u, res_part_table[11].used_kb);
    EXPECT_EQ(0u, res_part_table[11].usage_state);
}

TEST_F(MonPart, ProbeCreatedOnWritableEntryAndStateRecovers)
{
    mkdirs("/mnt/sd0");
    mounts("/dev/mmcblk1p1 /mnt/sd0 vfat rw 0 0\n");
    res_part_table[6].ro_state = 2;
    EXPECT_EQ(0, res_mom_part_ro_timer_func(&res_mon_ro_thread));
    EXPECT_EQ(1u, res_part_table[6].ro_state);
    EXPECT_EQ(0, access((root + "/mnt/sd0/.test-readonly").c_str(), F_OK));
    uptime(200);
    res_misc_del_timer(&res_mon_ro_thread);
    EXPECT_EQ(0, res_mom_part_ro_timer_func(&res_mon_ro_thread));
    EXPECT_EQ(0u, res_part_table[6].ro_state);
}

TEST_F(MonPart, PermissionDeniedOrMissingDirectoryLeavesStateUnchanged)
{
    mkdirs("/mnt/usb1");
    chmod(root.c_str(), 0755);
    chmod((root + "/mnt/usb1").c_str(), 0555);
    mounts("/dev/sdd1 /mnt/usb1 vfat rw 0 0\n/dev/sde1 /mnt/usb0 vfat rw 0 0\n");
    res_part_table[5].ro_state = 2;
    res_part_table[4].ro_state = 2;
    /* Permission checks as an unprivileged user for this pass (the log
     * file cannot be written meanwhile, so the errors are checked here). */
    int old_uid = setfsuid(65534);
    int probe = open((root + "/mnt/usb1/.test-readonly").c_str(), O_RDWR | O_CREAT, 0755);
    int probe_errno = errno;
    int ret = res_mom_part_ro_timer_func(&res_mon_ro_thread);
    setfsuid(static_cast<uid_t>(old_uid));
    ASSERT_EQ(-1, probe);
    ASSERT_EQ(EACCES, probe_errno);
    EXPECT_EQ(0, ret);
    EXPECT_NE(0, access((root + "/mnt/usb1/.test-readonly").c_str(), F_OK));
    EXPECT_EQ(2u, res_part_table[5].ro_state);
    EXPECT_EQ(2u, res_part_table[4].ro_state);
    res_part_table[5].ro_state = 0;
    uptime(200);
    res_misc_del_timer(&res_mon_ro_thread);
    old_uid = setfsuid(65534);
    res_mom_part_ro_timer_func(&res_mon_ro_thread);
    setfsuid(static_cast<uid_t>(old_uid));
    EXPECT_EQ(0u, res_part_table[5].ro_state);
}

TEST_F(MonPart, NullTimerArgumentStopsWithoutReArming)
{
    EXPECT_EQ(-1, res_mon_part_cap_timer_func(nullptr));
    EXPECT_EQ(-1, res_mom_part_ro_timer_func(nullptr));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_ro_thread));
}

TEST_F(MonPart, BothTimersOnOneTickReadTheMountTableOnce)
{
    mkdirs("/data2");
    mounts("/dev/a /data2 ext4 rw 0 0\n");
    uptime(1000);
    res_mon_part_cap_timer_func(&res_mon_cap_thread);
    mounts("/dev/a /data ext4 rw 0 0\n");
    res_mom_part_ro_timer_func(&res_mon_ro_thread);
    /* The read-only pass used the cap pass's scan: /data2 was probed. */
    EXPECT_EQ(0, access((root + "/data2/.test-readonly").c_str(), F_OK));
    EXPECT_EQ("100000000000", mounted());
}

} // namespace
