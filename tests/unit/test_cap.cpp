#include "mom/res_mom_cap.h"
#include "qn_cap.h"
#include "test_mon_fixture.h"

#include <cerrno>

/* Number of flash capability records kept by the lookups. */
size_t res_flash_cap_count(void);

namespace {

/* A bus client handle on which the capability client is started. */
qn_mom_client_t *fake_client()
{
    static int token;
    auto *client = reinterpret_cast<qn_mom_client_t *>(&token);
    libqn_cap_init(client, "stovig");
    return client;
}

/* A handle on which it never was. */
qn_mom_client_t *unstarted_client()
{
    static int token;
    return reinterpret_cast<qn_mom_client_t *>(&token);
}

const char *kDevType = "g_feature_spec/product_platform_spec/CAP_DEV_TYPE";

class Cap : public MonFixture {};

TEST_F(Cap, NullClientOrEmptyModuleFailsInit)
{
    EXPECT_LT(libqn_cap_init(nullptr, "stovig"), 0);
    EXPECT_LT(libqn_cap_init(fake_client(), ""), 0);
    EXPECT_LT(libqn_cap_init(fake_client(), nullptr), 0);
    EXPECT_EQ(0, libqn_cap_init(fake_client(), "stovig"));
    EXPECT_EQ(-1, res_mom_cap_init(nullptr, "stovig"));
    EXPECT_EQ(-1, res_mom_cap_init(fake_client(), ""));
    EXPECT_EQ(0, res_mom_cap_init(fake_client(), "stovig"));
}

TEST_F(Cap, DefaultDeviceTypeIsBox)
{
    uint32_t type = 2;
    EXPECT_EQ(0, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(1u, type);
    EXPECT_TRUE(logged("get device type[BOX] from cap"));
    EXPECT_TRUE(logged("local dev type is box"));
}

TEST_F(Cap, ConfiguredDeviceTypes)
{
    uint32_t type = 0;
    write_config("[cap]\nCAP_DEV_TYPE = LC\n");
    EXPECT_EQ(0, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(3u, type);
    EXPECT_TRUE(logged("local dev type is lc"));
    write_config("[cap]\nCAP_DEV_TYPE = CM\n");
    EXPECT_EQ(0, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(2u, type);
    EXPECT_TRUE(logged("local dev type is cm"));
}

TEST_F(Cap, LowerCaseTypeIsNotRecognisedAndOutputKept)
{
    write_config("[cap]\nCAP_DEV_TYPE = box\n");
    uint32_t type = 3;
    EXPECT_EQ(0, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(3u, type);
    EXPECT_TRUE(logged("get device type[box] from cap"));
    EXPECT_FALSE(logged("local dev type"));
}

TEST_F(Cap, ServiceDownMeansControlModule)
{
    uint32_t type = 1;
    EXPECT_EQ(-1, res_cap_get_device_type(unstarted_client(), &type));
    EXPECT_EQ(2u, type);
    EXPECT_TRUE(logged("call libqn_cap_get_capacity_str url[g_feature_spec/product_platform_spec/CAP_DEV_TYPE] "
                       "with ret[-107] len[0]."));
}

TEST_F(Cap, UnreadableConfigMeansServiceDown)
{
    setenv("STOVIG_CONFIG", (root + "/no-such.ini").c_str(), 1);
    qn_platform_config_reload();
    uint32_t type = 1;
    /* The syslog capture is gone with the config; the results tell. */
    EXPECT_EQ(-1, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(2u, type);
    char buf[8];
    uint32_t len = 99;
    EXPECT_EQ(-ENOTCONN, libqn_cap_get_capacity_str(fake_client(), kDevType, buf, sizeof buf, &len));
    EXPECT_EQ(0u, len);
}

TEST_F(Cap, EmptyValueRemovesTheCapability)
{
    write_config("[cap]\nCAP_DEV_TYPE =\n");
    uint32_t type = 1;
    EXPECT_EQ(-1, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(2u, type);
    EXPECT_TRUE(logged("call libqn_cap_get_capacity_str url[g_feature_spec/product_platform_spec/CAP_DEV_TYPE] "
                       "with ret[-2] len[0]."));
}

TEST_F(Cap, WithoutConfigTheBoxIsWhole)
{
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    uint32_t type = 2;
    EXPECT_EQ(0, res_cap_get_device_type(fake_client(), &type));
    EXPECT_EQ(1u, type);
    res_mom_cap_init(fake_client(), "stovig");
    EXPECT_EQ(0, res_get_flash_cap());
    char id[32];
    uint32_t len = 0;
    EXPECT_EQ(0, libqn_cap_get_capacity_str(fake_client(), "a/CAP_FLASH_IDNAME", id, sizeof id, &len));
    EXPECT_STREQ("EMMC-8G", id);
    int32_t v = 0;
    EXPECT_EQ(0, libqn_cap_get_capacity_int32(fake_client(), "a/CAP_FLASH_ERASETIMES", &v));
    EXPECT_EQ(3000, v);
    EXPECT_EQ(0, libqn_cap_get_capacity_int32(fake_client(), "a/CAP_FLASH_PRODUCTLIFE", &v));
    EXPECT_EQ(10, v);
    EXPECT_EQ(0, libqn_cap_get_capacity_int32(fake_client(), "a/CAP_FLASH_GCLEVEL", &v));
    EXPECT_EQ(1, v);
    EXPECT_EQ(0, libqn_cap_get_capacity_int32(fake_client(), "a/CAP_FLASH_WARNLEVEL", &v));
    EXPECT_EQ(80, v);
    EXPECT_EQ(-ENOENT, libqn_cap_get_capacity_int32(fake_client(), "a/CAP_NOT_THERE", &v));
}

TEST_F(Cap, ConfigWithoutCapSectionKeepsTheBoxDefaults)
{
    res_mom_cap_init(fake_client(), "stovig");
    EXPECT_EQ(0, res_get_flash_cap());
    EXPECT_TRUE(logged("CAP:flash_id=EMMC-8G\n"));
    EXPECT_TRUE(logged("CAP:block_erase_times=3000\n"));
    EXPECT_TRUE(logged("CAP:product_lifetime_years=10\n"));
}

TEST_F(Cap, OneRemovedFlashFigureFailsTheLookups)
{
    write_config("[cap]\nCAP_FLASH_GCLEVEL =\n");
    res_mom_cap_init(fake_client(), "stovig");
    EXPECT_EQ(-ENOENT, res_get_flash_cap());
    EXPECT_TRUE(logged("CAP:flash_id=EMMC-8G\n"));
}

TEST_F(Cap, NullArgumentsFail)
{
    uint32_t type = 0;
    EXPECT_EQ(-1, res_cap_get_device_type(nullptr, &type));
    EXPECT_EQ(-1, res_cap_get_device_type(fake_client(), nullptr));
    EXPECT_FALSE(logged("call libqn_cap_get_capacity_str"));
}

TEST_F(Cap, StringValueIsCutToTheBuffer)
{
    write_config("[cap]\nCAP_FLASH_IDNAME = " + std::string(50, 'F') + "\n");
    char buf[32];
    uint32_t len = 0;
    EXPECT_EQ(0, libqn_cap_get_capacity_str(fake_client(), "a/b/CAP_FLASH_IDNAME", buf, sizeof buf, &len));
    EXPECT_EQ(31u, len);
    EXPECT_EQ(std::string(31, 'F'), buf);
    EXPECT_LT(libqn_cap_get_capacity_str(fake_client(), "a/b/CAP_NOT_THERE", buf, sizeof buf, &len), 0);
}

TEST_F(Cap, IntegerValuesAndGarbage)
{
    write_config("[cap]\nCAP_FLASH_ERASETIMES = 3000\nCAP_FLASH_GCLEVEL = 0x10\nCAP_FLASH_WARNLEVEL = 12abc\n"
                 "CAP_FLASH_PRODUCTLIFE = 99999999999\n");
    res_mom_cap_init(fake_client(), "stovig");
    int32_t v = -1;
    EXPECT_EQ(0, stovig_cap_get_cap_int32("g_feature_spec/product_platform_spec/CAP_FLASH_ERASETIMES", &v));
    EXPECT_EQ(3000, v);
    EXPECT_TRUE(logged("url g_feature_spec/product_platform_spec/CAP_FLASH_ERASETIMES\n"));
    EXPECT_TRUE(logged("value 3000\n"));
    EXPECT_EQ(0, stovig_cap_get_cap_int32("x/CAP_FLASH_GCLEVEL", &v));
    EXPECT_EQ(16, v);
    EXPECT_LT(stovig_cap_get_cap_int32("x/CAP_FLASH_WARNLEVEL", &v), 0);
    EXPECT_LT(stovig_cap_get_cap_int32("x/CAP_FLASH_PRODUCTLIFE", &v), 0);
    EXPECT_LT(stovig_cap_get_cap_int32("x/CAP_FLASH_MISSING", &v), 0);
    EXPECT_LT(libqn_cap_get_capacity_int32(nullptr, "x/CAP_FLASH_ERASETIMES", &v), 0);
    EXPECT_EQ(-ENOTCONN, libqn_cap_get_capacity_int32(unstarted_client(), "x/CAP_FLASH_ERASETIMES", &v));
}

TEST_F(Cap, FlashFiguresTwiceLeaveOneRecord)
{
    write_config(flash_caps());
    res_mom_cap_init(fake_client(), "stovig");
    EXPECT_EQ(0, res_get_flash_cap());
    EXPECT_EQ(1u, res_flash_cap_count());
    EXPECT_EQ(0, res_get_flash_cap());
    EXPECT_EQ(1u, res_flash_cap_count());
    EXPECT_TRUE(logged("CAP:flash_id=TESTFLASH\n"));
    EXPECT_TRUE(logged("CAP:block_erase_times=3000\n"));
    EXPECT_TRUE(logged("CAP:product_lifetime_years=5\n"));
}

TEST_F(Cap, MissingFlashFiguresFailWithZerosKept)
{
    write_config("[cap]\nCAP_FLASH_IDNAME =\nCAP_FLASH_ERASETIMES = 3000\nCAP_FLASH_PRODUCTLIFE =\n"
                 "CAP_FLASH_GCLEVEL =\nCAP_FLASH_WARNLEVEL =\n");
    res_mom_cap_init(fake_client(), "stovig");
    int ret = res_get_flash_cap();
    EXPECT_LT(ret, 0);
    EXPECT_EQ(1u, res_flash_cap_count()); /* kept whatever the results */
    EXPECT_TRUE(logged("CAP:flash_id=\n"));
    EXPECT_TRUE(logged("CAP:block_erase_times=3000\n"));
    EXPECT_TRUE(logged("CAP:product_lifetime_years=0\n"));
}

} // namespace
