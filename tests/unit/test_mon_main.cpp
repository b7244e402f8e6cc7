#include "misc/res_misc.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"
#include "test_mon_fixture.h"

namespace {

class MonMain : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        /* Commands land in calls.log instead of touching the real mounts. */
        script("/bin/mount", "echo \"mount $*\" >> " + root + "/calls.log\n");
        script("/bin/umount", "echo \"umount $*\" >> " + root + "/calls.log\nexit ${UMOUNT_RC:-0}\n");
        fake_bin_first();
        put("/proc/uptime", "100.00 50.00\n");
    }
    void TearDown() override
    {
        res_misc_del_timer(&res_mon_io_thread);
        res_misc_del_timer(&res_mon_ro_thread);
        res_misc_del_timer(&res_mon_cap_thread);
        res_misc_del_timer(&res_mon_disk_thread);
        res_mon_io_top_clear();
        res_mon_io_stat_clear();
        unsetenv("UMOUNT_RC");
        MonFixture::TearDown();
    }
    std::string calls() { return read("/calls.log"); }
    std::string debugfs() { return root + "/sys/kernel/debug"; }
};

TEST_F(MonMain, InitSetsDefaultsAndArmsTheThreeTimersOnSsd)
{
    EXPECT_EQ(0, res_mon_init(RES_DISK_SSD));
    EXPECT_EQ(10, io_interval);
    EXPECT_EQ(50, io_threshold);
    EXPECT_EQ(30, ro_interval);
    EXPECT_EQ(30, cap_interval);
    EXPECT_EQ(80, cap_threshold);
    EXPECT_EQ(60, disk_interval);
    EXPECT_EQ(12, disk_threshold);
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_ro_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread));
    EXPECT_STREQ("RES_IO_TIMER", res_mon_io_thread.name);
    EXPECT_STREQ("RES_RO_TIMER", res_mon_ro_thread.name);
    EXPECT_STREQ("RES_CAP_TIMER", res_mon_cap_thread.name);
    EXPECT_TRUE(logged("reset io interval from 0 to 10."));
    EXPECT_TRUE(logged("reset ro interval from 0 to 30."));
    EXPECT_TRUE(logged("reset cap interval from 0 to 30."));
    EXPECT_TRUE(logged("reset lifetime interval from 0 to 60."));
    EXPECT_EQ("", calls());
    /* The partition table is built. */
    EXPECT_STREQ("/data2", res_part_table[0].path);
    EXPECT_STREQ("rootfs", res_part_table[11].name);
}

TEST_F(MonMain, InitRestoresThresholds)
{
    io_threshold = 70;
    cap_threshold = 20;
    disk_threshold = 3;
    res_mon_init(RES_DISK_SSD);
    EXPECT_EQ(50, io_threshold);
    EXPECT_EQ(80, cap_threshold);
    EXPECT_EQ(12, disk_threshold);
}

TEST_F(MonMain, IoIntervalBelowTenIsRefusedAndTimerKept)
{
    res_mon_init(RES_DISK_SSD);
    clear_log();
    EXPECT_EQ(-1, res_mon_reset_io_intr(9));
    EXPECT_EQ(10, io_interval);
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
    EXPECT_EQ(10, res_mon_io_thread.interval);
    EXPECT_FALSE(logged("reset io interval")); /* silently */
}

TEST_F(MonMain, IoCloseStoresMinus100AndDisarms)
{
    res_mon_init(RES_DISK_SSD);
    EXPECT_EQ(0, res_mon_reset_io_intr(-100));
    EXPECT_EQ(-100, io_interval);
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_io_thread));
    /* And on again with a new interval, counted from now. */
    EXPECT_EQ(0, res_mon_reset_io_intr(3600));
    EXPECT_TRUE(logged("reset io interval from -100 to 3600."));
    EXPECT_EQ(3600, res_mon_io_thread.interval);
    /* No upper bound in the reset operation. */
    EXPECT_EQ(0, res_mon_reset_io_intr(100000));
    EXPECT_EQ(100000, io_interval);
}

TEST_F(MonMain, RoAndCapBelowThirtyAreRefused)
{
    res_mon_init(RES_DISK_SSD);
    EXPECT_EQ(-1, res_mon_reset_ro_intr(29));
    EXPECT_EQ(-1, res_mon_reset_cap_intr(29));
    EXPECT_EQ(30, ro_interval);
    EXPECT_EQ(30, cap_interval);
    EXPECT_EQ(0, res_mon_reset_ro_intr(-100));
    EXPECT_EQ(0, res_mon_reset_cap_intr(-100));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_ro_thread));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_EQ(-100, ro_interval);
    EXPECT_EQ(-100, cap_interval);
    EXPECT_EQ(0, res_mon_reset_cap_intr(45));
    EXPECT_TRUE(logged("reset cap interval from -100 to 45."));
    EXPECT_EQ(0, res_mon_reset_ro_intr(31));
    EXPECT_TRUE(logged("reset ro interval from -100 to 31."));
}

TEST_F(MonMain, LifetimeBelowSixtyReportsParamIsErr)
{
    res_mon_init(RES_DISK_SSD);
    clear_log();
    EXPECT_EQ(-1, res_mon_reset_disk_intr(59, RES_DISK_EMMC));
    EXPECT_TRUE(logged("param is err"));
    EXPECT_EQ(60, disk_interval);
    EXPECT_EQ("", calls());
}

TEST_F(MonMain, NoLifetimeTimerAndNoMountOnNandSsdOrUsb)
{
    for (int type : {RES_DISK_NAND, RES_DISK_SSD, RES_DISK_USB}) {
        clear_log();
        EXPECT_EQ(0, res_mon_init(type)) << type;
        EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread)) << type;
        EXPECT_EQ(0, res_mon_reset_disk_intr(120, type)) << type;
        EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread)) << type;
        EXPECT_EQ(120, disk_interval);
        EXPECT_EQ(type == RES_DISK_USB, logged("have no disk type info")) << type;
    }
    EXPECT_EQ("", calls());
}

TEST_F(MonMain, EmmcUnmountsEveryStackedLayerThenMountsOnce)
{
    put("/etc/mtab", "sysfs /sys sysfs rw 0 0\n"
                     "none /sys/kernel/debug debugfs rw 0 0\n"
                     "none /sys/kernel/debugfs debugfs rw 0 0\n"
                     "none /sys/kernel/debug debugfs rw 0 0\n");
    EXPECT_EQ(0, res_mon_init(RES_DISK_EMMC));
    EXPECT_EQ("umount " + debugfs() + "\numount " + debugfs() + "\nmount -t debugfs none " + debugfs() + "\n",
              calls());
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
    EXPECT_STREQ("RES_DISK_TIMER", res_mon_disk_thread.name);
    EXPECT_EQ(60, res_mon_disk_thread.interval);
    /* Every lifetime reset on eMMC repeats the remount. */
    EXPECT_EQ(0, res_mon_reset_disk_intr(90, RES_DISK_EMMC));
    EXPECT_EQ(2u, count("mount -t debugfs none"));
    EXPECT_EQ(90, res_mon_disk_thread.interval);
}

TEST_F(MonMain, EmmcUnmountFailureSkipsTheMountButArmsTheTimer)
{
    put("/etc/mtab", "none /sys/kernel/debug debugfs rw 0 0\nnone /sys/kernel/debug debugfs rw 0 0\n");
    setenv("UMOUNT_RC", "1", 1);
    EXPECT_EQ(0, res_mon_reset_disk_intr(60, RES_DISK_EMMC));
    EXPECT_EQ("umount " + debugfs() + "\n", calls()); /* stops at the first failure */
    EXPECT_TRUE(logged("mount rootfs faild\n"));
    EXPECT_TRUE(logged("res_unmount_rootfs fail.\n"));
    EXPECT_TRUE(logged("res_unmont_residual fail.\n"));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonMain, EmmcWithoutMountTableArmsTheTimerWithoutMounting)
{
    EXPECT_EQ(0, res_mon_reset_disk_intr(60, RES_DISK_EMMC));
    EXPECT_TRUE(logged("setmntent error.\n"));
    EXPECT_TRUE(logged("res_unmont_residual fail.\n"));
    EXPECT_EQ("", calls());
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonMain, UnknownStorageRefusesLifetimeButStartsTheOthers)
{
    EXPECT_EQ(0, res_mon_init(RES_DISK_UNKNOWN));
    EXPECT_TRUE(logged("param is err"));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_ro_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonMain, LifetimeCloseDisarms)
{
    put("/etc/mtab", "");
    res_mon_init(RES_DISK_EMMC);
    ASSERT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
    EXPECT_EQ(0, res_mon_reset_disk_intr(-100, RES_DISK_EMMC));
    EXPECT_EQ(-100, disk_interval);
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonMain, LifetimeThresholdBounds)
{
    EXPECT_EQ(-1, res_mon_set_lifetime_threshold(0));
    EXPECT_EQ(-1, res_mon_set_lifetime_threshold(61));
    EXPECT_EQ(0, res_mon_set_lifetime_threshold(1));
    EXPECT_EQ(1, disk_threshold);
    EXPECT_EQ(0, res_mon_set_lifetime_threshold(60));
    EXPECT_EQ(60, disk_threshold);
    EXPECT_EQ(-1, res_mon_set_lifetime_threshold(-5));
    EXPECT_EQ(60, disk_threshold);
}

TEST_F(MonMain, UnmountRootfsReportsFailure)
{
    EXPECT_EQ(0, res_unmount_rootfs());
    setenv("UMOUNT_RC", "32", 1);
    EXPECT_EQ(-1, res_unmount_rootfs());
    EXPECT_TRUE(logged("mount rootfs faild\n"));
}

TEST_F(MonMain, TimersFireAndReArmThemselves)
{
    put("/proc/diskstats", "   8       0 sda 1 0 8 1 1 0 8 1 0 1 2\n");
    put("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n");
    res_mon_init(RES_DISK_SSD);
    test_loop_run(31);
    EXPECT_EQ(10000u, cur_uptime); /* the I/O scan ran */
    ASSERT_NE(nullptr, io_device_list);
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread)); /* re-armed */
    EXPECT_EQ(1u, res_part_table[11].mounted);             /* a partition pass ran */
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_ro_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_cap_thread));
    EXPECT_TRUE(logged("res_mon_io_timer_func add timer with ret[0]."));
    EXPECT_TRUE(logged("res_mon_part_cap_timer_func add timer with ret[0]."));
    EXPECT_TRUE(logged("res_mom_part_ro_timer_func add timer with ret[0]."));
}

} // namespace
