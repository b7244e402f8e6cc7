#include "misc/res_misc.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_main.h"
#include "test_mon_fixture.h"

#include <sys/stat.h>

namespace {

class MonDisk : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        memset(res_disk_info, 0, sizeof res_disk_info);
        memset(&res_ssd_smart, 0, sizeof res_ssd_smart);
        memset(&res_mon_disk_thread, 0, sizeof res_mon_disk_thread);
        disk_threshold = 12;
        disk_interval = 60;
        saved_type = res_disk_type;
    }
    void TearDown() override
    {
        res_misc_del_timer(&res_mon_disk_thread);
        res_disk_type = saved_type;
        MonFixture::TearDown();
    }
    /* An EXT_CSD dump (512 bytes as hex) with the two estimates. */
    void csd(unsigned typ_a, unsigned typ_b, size_t length = 1024)
    {
        std::string hex(1024, '0');
        char pair[3];
        snprintf(pair, sizeof pair, "%02x", typ_a);
        hex.replace(536, 2, pair);
        snprintf(pair, sizeof pair, "%02x", typ_b);
        hex.replace(538, 2, pair);
        put("/sys/kernel/debug/mmc0/mmc0:0001/ext_csd", hex.substr(0, length) + "\n");
    }
    void power_on(const std::string &text) { put("/data/.uptime", text); }
    int32_t saved_type;
};

TEST_F(MonDisk, PowerOnMonthsAreThirtyDayMonthsAtLeastOne)
{
    power_on("2591999\n");
    EXPECT_EQ(1u, res_get_uptime());
    power_on("5184000\n");
    EXPECT_EQ(2u, res_get_uptime());
    EXPECT_TRUE(logged("uptime: 5184000"));
    power_on("0\n");
    EXPECT_EQ(1u, res_get_uptime());
    power_on("0x4F1A00 trailing words\n"); /* 5184000 in hexadecimal */
    EXPECT_EQ(2u, res_get_uptime());
    power_on("023615000\n"); /* leading zero: octal 5184000 */
    EXPECT_EQ(2u, res_get_uptime());
    power_on("garbage");
    EXPECT_EQ(1u, res_get_uptime());
    power_on(std::string(300, '9')); /* longer than the buffer: bounded, saturates */
    EXPECT_GE(res_get_uptime(), 1u);
}

TEST_F(MonDisk, MissingPowerOnFileCountsAsOneMonth)
{
    EXPECT_EQ(1u, res_get_uptime());
    EXPECT_TRUE(logged("uptime: 0"));
}

TEST_F(MonDisk, EstimateAOneGivesFivePercentAndNoWarning)
{
    csd(0x01, 0x00);
    power_on("25920000\n"); /* 10 months */
    EXPECT_EQ(5, res_get_emmc_abrasion());
    EXPECT_TRUE(logged("life_reg: 0x1"));
    EXPECT_EQ(0, res_mon_emmc_disk_timer_func(&res_mon_disk_thread));
    EXPECT_STREQ("emmc", res_disk_info[0].name);
    EXPECT_EQ(190, res_disk_info[0].left_life);
    EXPECT_EQ(10, res_disk_info[0].disk_used_time);
    EXPECT_EQ(0, res_disk_info[0].flag);
    EXPECT_TRUE(logged("abrasion:5 persent, used_life_time:10 month"));
    EXPECT_TRUE(logged("emmc left life time: 190"));
    EXPECT_TRUE(logged("res_disk_info[0].disk_used_time:[0]."));
    EXPECT_TRUE(logged("res_disk_info[i].flag is 0, warning_flag is 0"));
    EXPECT_TRUE(logged("res_mon_emmc_disk_timer_func add timer with ret[0]."));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
    EXPECT_STREQ("RES_DISK_TIMER", res_mon_disk_thread.name);
    EXPECT_EQ(60, res_mon_disk_thread.interval);
    /* The dump went through the shell into the work file. */
    EXPECT_TRUE(logged("cat " + root + "/sys/kernel/debug/mmc0/mmc0\\:0001/ext_csd > " + root + "/run/.emmc_csd"));
    EXPECT_EQ(read("/sys/kernel/debug/mmc0/mmc0:0001/ext_csd"), read("/run/.emmc_csd"));
}

TEST_F(MonDisk, EstimateBAloneIsUsed)
{
    csd(0x00, 0x04);
    EXPECT_EQ(35, res_get_emmc_abrasion());
    csd(0x0c, 0x02); /* A out of range */
    EXPECT_EQ(15, res_get_emmc_abrasion());
}

TEST_F(MonDisk, BothEstimatesValidIsNotSupportedAndStopsTheTimer)
{
    csd(0x02, 0x03);
    res_disk_type = RES_DISK_EMMC;
    ASSERT_EQ(0, res_misc_add_timer(&res_mon_disk_thread, res_mon_emmc_disk_timer_func, 60, "RES_DISK_TIMER"));
    EXPECT_EQ(RES_EMMC_NOT_SUPPORT, res_get_emmc_abrasion());
    EXPECT_TRUE(logged("this dev is not support life time monitor\n"));
    EXPECT_EQ(0, res_mon_emmc_disk_timer_func(&res_mon_disk_thread));
    EXPECT_TRUE(logged("this device is not support life time monitor\n"));
    EXPECT_EQ(-100, disk_interval);
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread));
    EXPECT_STREQ("", res_disk_info[0].name); /* nothing written */
}

TEST_F(MonDisk, NeitherEstimateValidOrShortOrMissingDumpIsNotSupported)
{
    csd(0x00, 0x00);
    EXPECT_EQ(RES_EMMC_NOT_SUPPORT, res_get_emmc_abrasion());
    csd(0x01, 0x00, 539); /* cut inside TYP_B: shorter than 540 characters */
    EXPECT_EQ(RES_EMMC_NOT_SUPPORT, res_get_emmc_abrasion());
    csd(0x01, 0x00, 540);
    EXPECT_EQ(5, res_get_emmc_abrasion());
    put("/sys/kernel/debug/mmc0/mmc0:0001/ext_csd", std::string(1024, 'z') + "\n"); /* not hex */
    EXPECT_EQ(RES_EMMC_NOT_SUPPORT, res_get_emmc_abrasion());
    unlink((root + "/sys/kernel/debug/mmc0/mmc0:0001/ext_csd").c_str());
    unlink((root + "/run/.emmc_csd").c_str());
    EXPECT_EQ(RES_EMMC_NOT_SUPPORT, res_get_emmc_abrasion());
}

TEST_F(MonDisk, WearOver99LeavesNothingAndWarnsWhateverTheThreshold)
{
    csd(0x0b, 0x00);
    power_on("259200000\n"); /* 100 months */
    disk_threshold = 1;
    EXPECT_EQ(105, res_get_emmc_abrasion());
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(0, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].flag);
}

TEST_F(MonDisk, LeftEqualToThresholdWarns)
{
    csd(0x03, 0x00);       /* 25 %: 3 x months */
    power_on("10368000\n"); /* 4 months: left 12 */
    disk_threshold = 12;
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(12, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].flag);
    disk_threshold = 11;
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(1, res_disk_info[0].flag); /* healthy again after a warning */
}

TEST_F(MonDisk, WarningThenTwoHealthyPassesGivesOneThenZero)
{
    csd(0x01, 0x00);
    power_on("2592000\n"); /* 1 month: left 19 */
    disk_threshold = 20;
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(2, res_disk_info[0].flag);
    disk_threshold = 12;
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(1, res_disk_info[0].flag);
    EXPECT_TRUE(logged("res_disk_info[i].flag is 2, warning_flag is 0"));
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(0, res_disk_info[0].flag);
    EXPECT_TRUE(logged("res_disk_info[0].disk_used_time:[1]."));
    /* 1 -> 2 when the wear worsens again. */
    res_disk_info[0].flag = 1;
    csd(0x0b, 0x00);
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(2, res_disk_info[0].flag);
}

TEST_F(MonDisk, MiddleWearBandsLeaveLittleOrNothing)
{
    power_on("25920000\n"); /* 10 months */
    const std::pair<unsigned, int> cases[] = {{2, 50}, {3, 30}, {4, 10}, {5, 10}, {6, 0}, {10, 0}};
    for (auto [est, left] : cases) {
        csd(est, 0);
        res_misc_del_timer(&res_mon_disk_thread);
        res_mon_emmc_disk_timer_func(&res_mon_disk_thread);
        EXPECT_EQ(left, res_disk_info[0].left_life) << est;
    }
}

/* SSD: a fake fdisk in PATH and a fake SMART tool printing a recorded
 * report. */
class MonDiskSsd : public MonDisk {
  protected:
    void SetUp() override
    {
        MonDisk::SetUp();
        mkdirs("/tmp");
        fdisk("Disk /dev/sda: 29.82 GiB, 32017047552 bytes, 62533296 sectors\n"
              "Disk model: TEST SSD\nDisk /dev/sdb: 1 GiB\n");
        script("/sbin/smartctl", "echo \"$*\" > " + root + "/smart_args\ncat " + root + "/smart_report\n");
        fake_bin_first();
    }
    void fdisk(const std::string &listing)
    {
        put("/fdisk_listing", listing);
        script("/bin/fdisk", "cat " + root + "/fdisk_listing\n");
    }
    void report(const std::string &capacity_line, const std::string &attrs, const std::string &sector = "512")
    {
        put("/smart_report",
            "smartctl 7.3 2022-02-28 r5338 [x86_64-linux] (local build)\n"
            "=== START OF INFORMATION SECTION ===\n"
            "Device Model:     ACME SSD-32G v1\n"
            "Serial Number:    ABC123\n" +
                capacity_line +
                "Sector Size:      " + sector + " bytes logical/physical\n"
                "Rotation Rate:    Solid State Device\n"
                "ID# ATTRIBUTE_NAME          FLAG     VALUE WORST THRESH TYPE      UPDATED  WHEN_FAILED RAW_VALUE\n" +
                attrs);
    }
    static std::string attr(int id, const std::string &name, const std::string &raw)
    {
        char buf[200];
        snprintf(buf, sizeof buf, "%3d %-24s0x0032   100   100   000    Old_age   Always       -       %s\n", id,
                 name.c_str(), raw.c_str());
        return buf;
    }
    static constexpr const char *cap32 = "User Capacity:    32,017,047,552 bytes [32.0 GB]\n";
};

TEST_F(MonDiskSsd, ThirtyTwoGigabyteDiskErasureBudget)
{
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(233, "Media_Wearout_Indicator", "1000"));
    EXPECT_EQ(0, res_mon_ssd_disk_timer_func(&res_mon_disk_thread));
    EXPECT_STREQ("ACME", res_ssd_smart.model);
    EXPECT_EQ(32u, res_ssd_smart.capacity);
    EXPECT_EQ(512, res_ssd_smart.sector_size);
    EXPECT_EQ(1440u, res_ssd_smart.power_on_hours);
    EXPECT_EQ(1000u, res_ssd_smart.media_wearout_indicator);
    EXPECT_TRUE(logged("single_sector_erase_count :800"));
    EXPECT_TRUE(logged("total_erase_count :53687091200")); /* 67108864 sectors x 800 */
    /* ratio = (53687091200 - 1000) / 1000 = 53687090, truncated to 32 bits,
     * times 2 months */
    EXPECT_EQ(static_cast<int32_t>(53687090u * 2u), res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].disk_used_time);
    EXPECT_EQ(0, res_disk_info[0].flag);
    EXPECT_STREQ("ACME", res_disk_info[0].name);
    EXPECT_EQ("--all /dev/sda\n", read("/smart_args"));
    EXPECT_TRUE(logged("ssd name : ACME"));
    EXPECT_TRUE(logged("ssd capacity : 32"));
    EXPECT_TRUE(logged("ssd sector_size : 512"));
    EXPECT_TRUE(logged("ssd power_on_hours : 1440"));
    EXPECT_TRUE(logged("ssd media_wearout_indicator : 1000"));
    EXPECT_TRUE(logged("res_mon_ssd_disk_timer_func add timer with ret[0]."));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonDiskSsd, UnknownCapacityHasNoBudget)
{
    report("User Capacity:    240,057,409,536 bytes [240 GB]\n",
           attr(9, "Power_On_Hours", "1440") + attr(233, "Media_Wearout_Indicator", "10"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(240u, res_ssd_smart.capacity);
    EXPECT_TRUE(logged("single_sector_erase_count :0"));
    EXPECT_TRUE(logged("total_erase_count :0"));
    /* (0 - 10) / 10 in 64 bits, cut to 32 bits, times 2 months */
    uint32_t ratio = static_cast<uint32_t>((0ULL - 10ULL) / 10ULL);
    EXPECT_EQ(static_cast<int32_t>(ratio * 2u), res_disk_info[0].left_life);
}

TEST_F(MonDiskSsd, LifeLeftNinetyOver1440Hours)
{
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(231, "Unknown_Attribute", "90") +
                      attr(233, "Media_Wearout_Indicator", "0x10"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(90, res_ssd_smart.ssd_life_left);
    EXPECT_EQ(16u, res_ssd_smart.media_wearout_indicator); /* automatic base */
    EXPECT_EQ(18, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].disk_used_time);
    EXPECT_EQ(0, res_disk_info[0].flag);
}

TEST_F(MonDiskSsd, LifeLeftNamedWithSpacesTakesTheTenthWord)
{
    /* The raw value is the tenth word whatever the name looks like. */
    report(cap32, attr(9, "Power_On_Hours", "1440") +
                      "231 SSD Life left 0x0013 090 090 Pre-fail Always 75 -\n" +
                      attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(75, res_ssd_smart.ssd_life_left);
    EXPECT_TRUE(logged("ssd ssd_life_left : 75"));
}

TEST_F(MonDiskSsd, UnknownAttributeNamesAreRead)
{
    report(cap32, attr(9, "Power_On_Hours", "7200") + attr(231, "Unknown_Attribute", "75") +
                      attr(233, "Unknown_Attribute", "500"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(75, res_ssd_smart.ssd_life_left);
    EXPECT_EQ(500u, res_ssd_smart.media_wearout_indicator);
    EXPECT_EQ((100 / 25 - 1) * 10, res_disk_info[0].left_life);
}

TEST_F(MonDiskSsd, HundredPercentLeftWrapsAndDoesNotWarn)
{
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(231, "Unknown_Attribute", "100") +
                      attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(100, res_ssd_smart.ssd_life_left);
    EXPECT_EQ(-2, res_disk_info[0].left_life); /* -1 x 2 months */
    EXPECT_EQ(0, res_disk_info[0].flag);       /* huge as unsigned */
}

TEST_F(MonDiskSsd, SevenHundredHoursIsZeroMonthsAndWarns)
{
    report(cap32, attr(9, "Power_On_Hours", "700") + attr(231, "Unknown_Attribute", "90") +
                      attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(0, res_disk_info[0].disk_used_time);
    EXPECT_EQ(0, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].flag);
}

TEST_F(MonDiskSsd, NoPowerOnHoursUsesThePowerOnFile)
{
    power_on("7776000\n"); /* 3 months */
    report(cap32, attr(231, "Unknown_Attribute", "80") + attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(3, res_disk_info[0].disk_used_time);
    EXPECT_EQ(12, res_disk_info[0].left_life); /* (100/20 - 1) x 3 */
    EXPECT_EQ(0, res_disk_info[0].flag);       /* equal to the threshold: no warning here */
}

TEST_F(MonDiskSsd, MissingWearAttributeIsIllegalAndKeepsTheEntry)
{
    strcpy(res_disk_info[0].name, "old");
    res_disk_info[0].left_life = 77;
    res_disk_info[0].flag = 2;
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(231, "Unknown_Attribute", "90"));
    EXPECT_EQ(0, res_mon_ssd_disk_timer_func(&res_mon_disk_thread));
    EXPECT_TRUE(logged("smart info is illegal"));
    EXPECT_STREQ("old", res_disk_info[0].name);
    EXPECT_EQ(77, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].flag);
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_disk_thread)); /* still runs */
}

TEST_F(MonDiskSsd, NumbersAreResetEveryTickButTheModelIsKept)
{
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    put("/smart_report", "nothing useful\n");
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(0u, res_ssd_smart.capacity);
    EXPECT_EQ(0u, res_ssd_smart.power_on_hours);
    EXPECT_STREQ("ACME", res_ssd_smart.model);
    EXPECT_TRUE(logged("smart info is illegal"));
}

TEST_F(MonDiskSsd, MissingToolStopsTheLifetimeTimer)
{
    unlink((root + "/sbin/smartctl").c_str());
    res_disk_type = RES_DISK_SSD;
    ASSERT_EQ(0, res_misc_add_timer(&res_mon_disk_thread, res_mon_ssd_disk_timer_func, 60, "RES_DISK_TIMER"));
    EXPECT_EQ(0, res_mon_ssd_disk_timer_func(&res_mon_disk_thread));
    EXPECT_TRUE(logged("this ssd device is not support life time monitor\n"));
    EXPECT_EQ(-100, disk_interval);
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_disk_thread));
}

TEST_F(MonDiskSsd, ListingWithoutDiskLineOrUnreadableGivesEmptyPath)
{
    report(cap32, attr(233, "Media_Wearout_Indicator", "5"));
    strcpy(res_ssd_dev_path, "/dev/stale");
    fdisk("nothing here\n");
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_STREQ("", res_ssd_dev_path);
    EXPECT_EQ("--all\n", read("/smart_args"));
    /* fdisk missing and no listing file at all. */
    unlink((root + "/bin/fdisk").c_str());
    setenv("PATH", (root + "/bin").c_str(), 1);
    unlink((root + "/tmp/.disk_info").c_str());
    res_misc_del_timer(&res_mon_disk_thread);
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    /* the shell creates the listing file even when fdisk is missing */
    EXPECT_STREQ("", res_ssd_dev_path);
}

TEST_F(MonDiskSsd, ListingUnreadableIsReported)
{
    report(cap32, attr(233, "Media_Wearout_Indicator", "5"));
    /* No directory for the listing: it can be neither written nor read. */
    ASSERT_EQ(0, std::system(("rm -rf '" + root + "/tmp'").c_str()));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_TRUE(logged("fopen /tmp/.disk_info fail"));
    EXPECT_STREQ("", res_ssd_dev_path);
}

TEST_F(MonDiskSsd, LinkPlantedAsTheListingIsReplacedNotFollowed)
{
    report(cap32, attr(233, "Media_Wearout_Indicator", "5"));
    mkdirs("/victim");
    put("/victim/file", "precious\n");
    ASSERT_EQ(0, symlink((root + "/victim/file").c_str(), (root + "/tmp/.disk_info").c_str()));
    ASSERT_EQ(0, symlink((root + "/victim/new").c_str(), (root + "/run/.disk_lifetime").c_str()));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ("precious\n", read("/victim/file"));
    EXPECT_NE(0, access((root + "/victim/new").c_str(), F_OK));
    struct stat st;
    ASSERT_EQ(0, lstat((root + "/tmp/.disk_info").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(0644u, st.st_mode & 07777);
    ASSERT_EQ(0, lstat((root + "/run/.disk_lifetime").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_STREQ("/dev/sda", res_ssd_dev_path);
    EXPECT_EQ("--all /dev/sda\n", read("/smart_args"));
    EXPECT_EQ(5u, res_ssd_smart.media_wearout_indicator);
}

TEST_F(MonDiskSsd, ShellCharactersInPathsAreNeverRun)
{
    /* The fixture prefix reaches the commands as plain arguments. */
    std::string odd = root + "/x$(touch PWNED);y z";
    ASSERT_EQ(0, mkdir(odd.c_str(), 0755));
    std::string saved_root = root;
    root = odd;
    mkdirs("/tmp");
    mkdirs("/run");
    mkdirs("/sbin");
    script("/sbin/smartctl", "echo \"$*\" > '" + saved_root + "/smart_args'\ncat '" + saved_root + "/smart_report'\n");
    setenv("STOVIG_ROOT", odd.c_str(), 1);
    snprintf(res_run_dir, sizeof res_run_dir, "%s/run/", odd.c_str());
    root = saved_root;
    report(cap32, attr(9, "Power_On_Hours", "1440") + attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ("--all /dev/sda\n", read("/smart_args"));
    EXPECT_EQ(5u, res_ssd_smart.media_wearout_indicator);
    EXPECT_NE(0, access("PWNED", F_OK));
    EXPECT_NE(0, access((root + "/PWNED").c_str(), F_OK));
}

TEST_F(MonDiskSsd, ShellTextInTheListingNeverReachesTheShell)
{
    report(cap32, attr(233, "Media_Wearout_Indicator", "5"));
    for (const char *evil : {"Disk /dev/sda;touch PWNED: 1 GiB\n", "Disk /dev/sda$(touch PWNED): 1 GiB\n",
                             "Disk `touch PWNED`: 1 GiB\n", "Disk /etc/passwd: 1 GiB\n", "Disk /dev/: 1 GiB\n",
                             "Disk /dev/sd a: 1 GiB\n"}) {
        fdisk(evil);
        res_misc_del_timer(&res_mon_disk_thread);
        res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
        EXPECT_STREQ("", res_ssd_dev_path) << evil;
        EXPECT_EQ("--all\n", read("/smart_args")) << evil;
    }
    EXPECT_NE(0, access("PWNED", F_OK));
    EXPECT_NE(0, access((root + "/PWNED").c_str(), F_OK));
    EXPECT_TRUE(logged("ignore device path[/dev/sda;touch PWNED] from /tmp/.disk_info."));
}

TEST_F(MonDiskSsd, DevicePathCheck)
{
    EXPECT_TRUE(res_dev_path_safe("/dev/sda"));
    EXPECT_TRUE(res_dev_path_safe("/dev/nvme0n1"));
    EXPECT_TRUE(res_dev_path_safe("/dev/disk/by-id/ata-X_Y.1"));
    EXPECT_FALSE(res_dev_path_safe(""));
    EXPECT_FALSE(res_dev_path_safe(nullptr));
    EXPECT_FALSE(res_dev_path_safe("/dev/"));
    EXPECT_FALSE(res_dev_path_safe("sda"));
    EXPECT_FALSE(res_dev_path_safe("/dev/sda "));
    EXPECT_FALSE(res_dev_path_safe("/dev/sda|x"));
    EXPECT_FALSE(res_dev_path_safe("/dev/sda\n"));
}

TEST_F(MonDiskSsd, OverlongReportLinesAreCutNotOverrun)
{
    report(cap32, attr(9, "Power_On_Hours", "1440") + std::string(1000, 'x') + " 233 Unknown_Attribute\n" +
                      "Device Model: " + std::string(500, 'M') + "\n" + attr(233, "Media_Wearout_Indicator", "5"));
    res_mon_ssd_disk_timer_func(&res_mon_disk_thread);
    EXPECT_EQ(5u, res_ssd_smart.media_wearout_indicator);
    EXPECT_EQ(std::string(127 - 14, 'M'), res_ssd_smart.model); /* line cut at 127 */
    EXPECT_EQ(std::string(31, 'M'), res_disk_info[0].name);
}

} // namespace
