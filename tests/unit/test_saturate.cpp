/* Numbers from the bus and host files that do not fit: saturated to the
 * target type's range, in-range values converted exactly as before. */
#include "misc/res_saturate.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

TEST(Saturate, DoubleToU32)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(0u, res_sat_u32_from_double(nan));
    EXPECT_EQ(0u, res_sat_u32_from_double(-nan));
    EXPECT_EQ(0u, res_sat_u32_from_double(-inf));
    EXPECT_EQ(0u, res_sat_u32_from_double(-1.0));
    EXPECT_EQ(0u, res_sat_u32_from_double(-0.0));
    EXPECT_EQ(0u, res_sat_u32_from_double(-0.9));
    EXPECT_EQ(UINT32_MAX, res_sat_u32_from_double(inf));
    EXPECT_EQ(UINT32_MAX, res_sat_u32_from_double(4294967296.0));
    EXPECT_EQ(UINT32_MAX, res_sat_u32_from_double(1e300));
    /* In range: as a cast, truncated toward zero. */
    EXPECT_EQ(0u, res_sat_u32_from_double(0.0));
    EXPECT_EQ(1u, res_sat_u32_from_double(1.0));
    EXPECT_EQ(2u, res_sat_u32_from_double(2.0));
    EXPECT_EQ(2u, res_sat_u32_from_double(2.999));
    EXPECT_EQ(4294967295u, res_sat_u32_from_double(4294967295.0));
    EXPECT_EQ(4294967295u, res_sat_u32_from_double(4294967295.75));
}

TEST(Saturate, IntegersToI32AndU32)
{
    EXPECT_EQ(INT32_MAX, res_sat_i32(static_cast<int64_t>(INT32_MAX) + 1));
    EXPECT_EQ(INT32_MIN, res_sat_i32(static_cast<int64_t>(INT32_MIN) - 1));
    EXPECT_EQ(INT32_MAX, res_sat_i32(INT64_MAX));
    EXPECT_EQ(INT32_MIN, res_sat_i32(INT64_MIN));
    EXPECT_EQ(-5, res_sat_i32(static_cast<int64_t>(-5)));
    EXPECT_EQ(INT32_MAX, res_sat_i32(static_cast<int64_t>(INT32_MAX)));
    EXPECT_EQ(INT32_MAX, res_sat_i32(UINT32_MAX));
    EXPECT_EQ(INT32_MAX, res_sat_i32(static_cast<uint32_t>(INT32_MAX)));
    EXPECT_EQ(12, res_sat_i32(12u));
    EXPECT_EQ(UINT32_MAX, res_sat_u32(static_cast<uint64_t>(UINT32_MAX) + 1));
    EXPECT_EQ(7u, res_sat_u32(7ULL));
}

TEST(Saturate, EmmcMonthsLeft)
{
    /* In range: the defined figures. */
    EXPECT_EQ(190, res_emmc_left_life(5, 10));
    EXPECT_EQ(50, res_emmc_left_life(15, 10));
    EXPECT_EQ(30, res_emmc_left_life(25, 10));
    EXPECT_EQ(10, res_emmc_left_life(45, 10));
    EXPECT_EQ(0, res_emmc_left_life(55, 10));
    EXPECT_EQ(0, res_emmc_left_life(105, 10));
    EXPECT_EQ(0, res_emmc_left_life(0, 10));
    EXPECT_EQ(19 * 113025455, res_emmc_left_life(5, 113025455)); /* the largest that fits */
    /* 19 x months past the int32 range. */
    EXPECT_EQ(INT32_MAX, res_emmc_left_life(5, 113025456));
    EXPECT_EQ(INT32_MAX, res_emmc_left_life(5, INT32_MAX));
    EXPECT_EQ(INT32_MAX, res_emmc_left_life(15, INT32_MAX));
    EXPECT_EQ(INT32_MAX, res_emmc_left_life(45, INT32_MAX)); /* 1 x months */
}

TEST(Saturate, PowerOnMonths)
{
    EXPECT_EQ(1u, res_uptime_months(0));
    EXPECT_EQ(1u, res_uptime_months(2591999));
    EXPECT_EQ(2u, res_uptime_months(5184000));
    EXPECT_EQ(UINT32_MAX, res_uptime_months(2592000UL * 4294967295UL));
    EXPECT_EQ(UINT32_MAX, res_uptime_months(ULONG_MAX));
    EXPECT_EQ(4294967294u, res_uptime_months(2592000UL * 4294967294UL));
    EXPECT_EQ(ULONG_MAX, res_uptime_seconds("99999999999999999999999999"));
    EXPECT_EQ(16ul, res_uptime_seconds("0x10 rest"));
    EXPECT_EQ(0ul, res_uptime_seconds(""));
}

TEST(Saturate, SsdUsedPercent)
{
    EXPECT_EQ(10, res_ssd_used_percent(90));
    EXPECT_EQ(0, res_ssd_used_percent(100));
    EXPECT_EQ(100, res_ssd_used_percent(0));
    EXPECT_EQ(-1, res_ssd_used_percent(101));
    EXPECT_EQ(100 - INT32_MAX, res_ssd_used_percent(INT32_MAX));
    EXPECT_EQ(INT32_MAX, res_ssd_used_percent(INT32_MIN));
    EXPECT_EQ(INT32_MAX, res_ssd_used_percent(INT32_MIN + 99));
    EXPECT_EQ(INT32_MAX, res_ssd_used_percent(-2147483547)); /* 100 - x is exactly INT32_MAX */
}

/* A SMART report whose life-left raw value reads as INT32_MIN. */
TEST(Saturate, SsdLifeLeftOfInt32MinGivesDefinedResult)
{
    memset(&res_ssd_smart, 0, sizeof res_ssd_smart);
    memset(res_disk_info, 0, sizeof res_disk_info);
    int32_t saved = disk_threshold;
    disk_threshold = 12;
    const char report[] =
        "Device Model:     ACME SSD\n"
        "User Capacity:    32,017,047,552 bytes [32.0 GB]\n"
        "Sector Size:      512 bytes logical/physical\n"
        "  9 Power_On_Hours          0x0032   100   100   000    Old_age   Always       -       1440\n"
        "231 Unknown_Attribute       0x0032   100   100   000    Old_age   Always       -       2147483648\n"
        "233 Media_Wearout_Indicator 0x0032   100   100   000    Old_age   Always       -       5\n";
    FILE *fp = fmemopen(const_cast<char *>(report), sizeof report - 1, "r");
    ASSERT_NE(nullptr, fp);
    res_parse_smart_report(fp);
    fclose(fp);
    EXPECT_EQ(INT32_MIN, res_ssd_smart.ssd_life_left);
    res_ssd_lifetime_update();
    /* used saturates to INT32_MAX, 100 / used is 0, the ratio -1: -1 x 2 months */
    EXPECT_EQ(-2, res_disk_info[0].left_life);
    EXPECT_EQ(2, res_disk_info[0].disk_used_time);
    EXPECT_EQ(0, res_disk_info[0].flag);
    disk_threshold = saved;
}

/* io_flag values that no node sends, stored saturated; no line for them. */
TEST(Saturate, IoFlagFromTheBusIsStoredSaturated)
{
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    ASSERT_EQ(0, res_mom_data_init());
    uint32_t saved_gate = res_mom_upgrade_flag;
    res_mom_upgrade_flag = 0;
    const double values[] = {std::numeric_limits<double>::quiet_NaN(), -5.0, 1e300, 4294967296.0, 3.7, 2.0};
    const uint32_t stored[] = {0, 0, UINT32_MAX, UINT32_MAX, 3, 2};
    for (size_t i = 0; i < sizeof values / sizeof values[0]; ++i) {
        PUtils__DiskIo disk = P_UTILS__DISK_IO__INIT;
        disk.disk_name = const_cast<char *>("sda");
        disk.io_flag = values[i];
        PUtils__DiskIo *disks[] = {&disk};
        PUtils__StovigIo msg = P_UTILS__STOVIG_IO__INIT;
        msg.n_disk_io_info = 1;
        msg.disk_io_info = disks;
        ASSERT_EQ(0, res_disk_io_warning_save_task(&res_local_node, &msg));
        ASSERT_FALSE(res_list_empty(&res_local_node.disk_io_list));
        const res_mom_disk_io_node *d =
            res_list_entry(res_local_node.disk_io_list.next, const res_mom_disk_io_node, list);
        EXPECT_EQ(stored[i], d->io_flag) << values[i];
    }
    res_mom_upgrade_flag = saved_gate;
    res_mom_data_init();
}

/* Enum fields hold whatever int32 the node sent: a value outside the
 * enumeration counts as "not idle", as any non-zero one does. */
TEST(Saturate, OutOfRangeUpgradeAndIssuStatesCountAsUpgrading)
{
    uint32_t saved_gate = res_mom_upgrade_flag;
    res_mom_upgrade_flag = 0;
    PUtils__IssuNGlobalInfo issu = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
    const int32_t minus_one = -1, big = 77;
    memcpy(&issu.state, &minus_one, sizeof minus_one);
    EXPECT_EQ(0, res_mom_save_issu_flag(QN_MOM_REPLY_VALUE, &issu.base));
    EXPECT_EQ(static_cast<uint32_t>(RES_MOM_GATE_ISSU), res_mom_upgrade_flag);
    PUtils__UpgradeGlobalStatus up = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
    memcpy(&up.status, &big, sizeof big);
    EXPECT_EQ(0, res_mom_save_upgrade_flag(QN_MOM_REPLY_VALUE, &up.base));
    EXPECT_EQ(static_cast<uint32_t>(RES_MOM_GATE_ISSU | RES_MOM_GATE_UPGRADE), res_mom_upgrade_flag);
    res_mom_upgrade_flag = saved_gate;
}

} // namespace
