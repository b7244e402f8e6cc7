#include "test_mon_fixture.h"

#include <cstdlib>

namespace {

class DiskType : public MonFixture {
  protected:
    void mounts(const std::string &text) { put("/proc/mounts", text); }
    void sda_link(const std::string &target)
    {
        mkdirs("/sys/class/block");
        ASSERT_EQ(0, symlink(target.c_str(), (root + "/sys/class/block/sda").c_str()));
    }
};

TEST_F(DiskType, FlashProbeModuleWinsEvenOnEmmc)
{
    mounts("/dev/mmcblk0p1 /boot ext4 rw 0 0\n");
    put("/sbin/flashio_jprobe.ko", "");
    EXPECT_EQ(RES_DISK_NAND, res_get_disk_type());
    EXPECT_TRUE(logged("find nacked disk type"));
    EXPECT_FALSE(logged("buf:")); /* the mount table is not read */
}

TEST_F(DiskType, FirstMmcLineDecidesBeforeLaterUbifsRoot)
{
    mounts("/dev/mmcblk0p1 /boot ext4 rw,relatime 0 0\nubi0:rootfs / ubifs rw,relatime 0 0\n");
    EXPECT_EQ(RES_DISK_EMMC, res_get_disk_type());
    EXPECT_TRUE(logged("find emmc disk type"));
    /* the line's own newline is shown escaped: one call, one log line */
    EXPECT_TRUE(logged("buf:/dev/mmcblk0p1 /boot ext4 rw,relatime 0 0\\x0a, device_path:/dev/mmcblk0p1"));
}

TEST_F(DiskType, UbifsRootReadWriteMatchesInsideOptions)
{
    mounts("proc /proc proc rw 0 0\nubi0:rootfs / ubifs rw,relatime 0 0\n/dev/mmcblk0p1 /boot ext4 rw 0 0\n");
    EXPECT_EQ(RES_DISK_NAND, res_get_disk_type());
    EXPECT_TRUE(logged("find nacked disk type"));
}

TEST_F(DiskType, UbifsRootReadOnlyDoesNotMatchAndSearchGoesOn)
{
    mounts("ubi0:rootfs / ubifs ro,relatime 0 0\n/dev/mmcblk1p2 /data ext4 rw 0 0\n");
    EXPECT_EQ(RES_DISK_EMMC, res_get_disk_type());
    clear_log();
    mounts("ubi0:rootfs / ubifs ro,relatime 0 0\n");
    EXPECT_EQ(RES_DISK_SSD, res_get_disk_type());
}

TEST_F(DiskType, NoMmcAndNoSdaIsSsd)
{
    mounts("/dev/vda1 / ext4 rw 0 0\n");
    EXPECT_EQ(RES_DISK_SSD, res_get_disk_type());
    EXPECT_TRUE(logged("rslt is not correct"));
    EXPECT_TRUE(logged("find SSD disk type"));
}

TEST_F(DiskType, Usb1InLinkDirectoryIsUsbDisk)
{
    mounts("/dev/sda1 / ext4 rw 0 0\n");
    sda_link("../../devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host0/target0:0:0/0:0:0:0/block/sda");
    EXPECT_EQ(RES_DISK_USB, res_get_disk_type());
    EXPECT_TRUE(logged("buff is ../../devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host0/target0:0:0/"
                       "0:0:0:0/block/\n"));
    EXPECT_TRUE(logged("find U disk type"));
}

TEST_F(DiskType, Usb2InLinkDirectoryIsSsd)
{
    mounts("/dev/sda1 / ext4 rw 0 0\n");
    sda_link("../../devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host0/target0:0:0/0:0:0:0/block/sda");
    EXPECT_EQ(RES_DISK_SSD, res_get_disk_type());
}

TEST_F(DiskType, UsbOnlyInTheLastComponentDoesNotCount)
{
    mounts("/dev/sda1 / ext4 rw 0 0\n");
    sda_link("../../devices/virtual/block/usb1");
    EXPECT_EQ(RES_DISK_SSD, res_get_disk_type());
}

TEST_F(DiskType, GetRealPathScansBackwardsToTheLastSlash)
{
    sda_link("ab/cd");
    char *dir = get_real_path();
    ASSERT_NE(nullptr, dir);
    EXPECT_STREQ("ab/", dir);
    free(dir);
    /* Every character examined is traced, from the last one down. */
    EXPECT_TRUE(logged("buf[4] d"));
    EXPECT_TRUE(logged("buf[3] c"));
    EXPECT_TRUE(logged("buf[2] /"));
    EXPECT_FALSE(logged("buf[1] b"));
}

TEST_F(DiskType, LinkWithoutSlashKeepsWholeText)
{
    sda_link("sda0");
    char *dir = get_real_path();
    ASSERT_NE(nullptr, dir);
    EXPECT_STREQ("sda0", dir);
    EXPECT_FALSE(logged("buf[0]")); /* index 0 is never examined */
    free(dir);
}

TEST_F(DiskType, LinkOf256BytesOrMoreIsRefused)
{
    sda_link(std::string(300, 'x'));
    EXPECT_EQ(nullptr, get_real_path());
    EXPECT_TRUE(logged("rslt is not correct"));
}

TEST_F(DiskType, UnreadableMountTableIsUnknown)
{
    EXPECT_EQ(RES_DISK_UNKNOWN, res_get_disk_type());
    EXPECT_TRUE(logged("fopen /proc/mounts error, reason: No such file or directory"));
}

TEST_F(DiskType, OverlongDeviceFieldIsBounded)
{
    std::string dev = "/dev/mmcblk" + std::string(200, 'x');
    mounts(dev + " /x ext4 rw 0 0\n");
    /* The device is cut to 63 characters, which still hold "mmc". */
    EXPECT_EQ(RES_DISK_EMMC, res_get_disk_type());
    EXPECT_TRUE(logged("device_path:" + dev.substr(0, 63) + "\n"));
}

TEST_F(DiskType, MmcOnlyInTheMountPointIsNotEmmc)
{
    mounts("/dev/vda1 /mnt/mmc ext4 rw 0 0\n");
    EXPECT_EQ(RES_DISK_SSD, res_get_disk_type());
}

} // namespace
