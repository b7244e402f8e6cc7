/* "show storage" output from the node store, compared byte for byte. */
#include "cli/res_cli_show.h"
#include "printed.h"
#include "store_fixture.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

/* The renderers' known store, with a usb0 of 3 bytes as these texts were
 * written for; disk() and part() add or change entries in a test. */
const auto disk = store_disk;
const auto part = store_part;

class ShowStorage : public KnownStore {
  protected:
    void SetUp() override
    {
        KnownStore::SetUp();
        printed.clear();
    }

    void fill_local()
    {
        KnownStore::fill_local();
        part(&res_local_node, "/mnt/usb0", "usb0", 3, 1, 1, 1, 1, 1);
    }
};

const char *const kRule = "===============================================\n";

TEST_F(ShowStorage, BadItemOrPrinterPrintsNothing)
{
    EXPECT_EQ(-1, res_cli_show_storage(0, capture));
    EXPECT_EQ(-1, res_cli_show_storage(6, capture));
    EXPECT_EQ(-1, res_cli_show_storage(1, nullptr));
    EXPECT_EQ("", printed);
}

TEST_F(ShowStorage, EmptyStoreSaysNoData)
{
    res_list_init(&res_node_list);
    EXPECT_EQ(-4, res_cli_show_storage(5, capture));
    EXPECT_EQ("No data avalible.\n", printed);
}

TEST_F(ShowStorage, AllInfoOfAFilledNode)
{
    fill_local();
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_ALL, capture));
    std::string want = std::string(kRule) +
                       "[slot1 : box]\n\n"
                       "Storage I/O information:\n"
                       "---------------------------------------------------------------\n"
                       " Device      Read(KB/S)      Write(KB/S)      Util      Status\n"
                       " sda             12.50           300.25     87.50%     Warning\n"
                       " mmcblk0          0.00          1024.00      3.12%      Normal\n"
                       "\n"
                       " PID      Read(B/S)      Write(B/S)             Process\n"
                       " 1234      4096.00         8192.50                   dd\n"
                       " 77           0.00           10.00         kworker/u8:1\n"
                       "\n"
                       "Storage read-only information:\n"
                       "----------------------\n"
                       " Name          Status\n"
                       " flash              R\n"
                       " usb0             R/W\n"
                       "\n"
                       "Storage cpacity information:\n"
                       "--------------------------------------------------------------\n"
                       " Name       Total(KB)       Used(KB)    Used Rate      Status\n"
                       " flash          1000            875        87.50%     Warning\n"
                       " usb0              3              1        33.33%      Normal\n"
                       "\n"
                       "Storage lifetime information:\n"
                       "Storage Name:               emmc\n"
                       "Storage Lifetime Left:      1 month\n"
                       "Storage Lifetime Threshold: 12 months\n"
                       "Storage Status:             Warning\n"
                       "\n"
                       "\n";
    EXPECT_EQ(want, printed);
}

TEST_F(ShowStorage, SingleItemsHaveNoTitles)
{
    fill_local();
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_RO, capture));
    EXPECT_EQ(std::string(kRule) + "[slot1 : box]\n\n----------------------\n Name          Status\n"
                                   " flash              R\n usb0             R/W\n\n\n",
              printed);
}

TEST_F(ShowStorage, NodesInListOrderWithNotReadyTexts)
{
    res_mom_node *other = res_mom_malloc_node_init();
    ASSERT_NE(nullptr, other);
    other->devid = 0;
    other->slotid = 3;
    other->sslotid = 0;
    other->user_slot = 3;
    ASSERT_EQ(0, res_mom_add_node_info_list(other));
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_ALL, capture));
    std::string node3 = std::string(kRule) +
                        "[slot3 : ]\n\n"
                        "Storage I/O information:\n"
                        "---------------------------------------------------------------\n"
                        " Storage  I/O is not ready, please wait and try again.\n"
                        "\n"
                        "Storage read-only information:\n"
                        "----------------------\n"
                        " Storage ro is not ready, please wait and try again.\n"
                        "\n"
                        "Storage cpacity information:\n"
                        "--------------------------------------------------------------\n"
                        " Storage capacity is not ready, please wait and try again.\n"
                        "\n"
                        "Storage lifetime information:\n"
                        "Storage lifetime is not ready, please wait and try again.\n"
                        "\n"
                        "\n";
    ASSERT_GT(printed.size(), node3.size());
    EXPECT_EQ(node3, printed.substr(printed.size() - node3.size()));
    EXPECT_EQ(0u, printed.find(std::string(kRule) + "[slot1 : box]\n\n"));
}

TEST_F(ShowStorage, ClosedMonitorsStillGetTheNodeHeader)
{
    io_interval = ro_interval = cap_interval = disk_interval = -100;
    fill_local();
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_ALL, capture));
    std::string want = std::string(kRule) +
                       "[slot1 : box]\n\n"
                       "Storage I/O information:\n"
                       "---------------------------------------------------------------\n"
                       " Storage I/O monitor is closed.\n"
                       "\n"
                       "Storage read-only information:\n"
                       "----------------------\n"
                       " Storage ro monitor is closed.\n"
                       "\n"
                       "Storage cpacity information:\n"
                       "--------------------------------------------------------------\n"
                       " Storage capacity monitor is closed.\n"
                       "\n"
                       "Storage lifetime information:\n"
                       "Storage lifetime monitor is closed.\n"
                       "\n"
                       "\n";
    EXPECT_EQ(want, printed);
}

TEST_F(ShowStorage, DisksWithoutProcessesAndFlagsZeroOrOneAreNormal)
{
    res_mom_disk_io_node d0 = disk("sdb", 1, 2, 3, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d0, &res_local_node.disk_io_list));
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_IO, capture));
    EXPECT_EQ(std::string(kRule) + "[slot1 : box]\n\n"
                                   "---------------------------------------------------------------\n"
                                   " Device      Read(KB/S)      Write(KB/S)      Util      Status\n"
                                   " sdb              1.00             2.00      3.00%      Normal\n"
                                   "\n"
                                   " Process I/O information is not ready, please wait and try again.\n"
                                   "\n\n",
              printed);
}

TEST_F(ShowStorage, PartitionsAllAbsentPrintTheHeaderAlone)
{
    part(&res_local_node, "/mnt/sd0", "sd0", 3, 1, 0, 0, 1, 0);
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_CAPACITY, capture));
    EXPECT_EQ(std::string(kRule) + "[slot1 : box]\n\n"
                                   "--------------------------------------------------------------\n"
                                   " Name       Total(KB)       Used(KB)    Used Rate      Status\n"
                                   "\n\n",
              printed);
}

TEST_F(ShowStorage, LifetimePluralsAndUnsupportedStorage)
{
    res_mom_lifetime_node l{};
    snprintf(l.disk_name, sizeof l.disk_name, "emmc");
    l.left_lifetime = 0;
    ASSERT_EQ(0, res_mom_add_node_disk_lft_list(&l, &res_local_node.lifetime_list));
    disk_threshold = 1;
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_LIFETIME, capture));
    EXPECT_EQ(std::string(kRule) + "[slot1 : box]\n\n"
                                   "Storage Name:               emmc\n"
                                   "Storage Lifetime Left:      0 months\n"
                                   "Storage Lifetime Threshold: 1 month\n"
                                   "Storage Status:             Normal\n"
                                   "\n\n",
              printed);

    const std::string unsupported =
        std::string(kRule) + "[slot1 : box]\n\nStorage lifetime monitor is not support.\n\n\n";
    res_disk_type = RES_DISK_USB;
    printed.clear();
    res_cli_show_storage(RES_SHOW_LIFETIME, capture);
    EXPECT_EQ(unsupported, printed);

    char tmpl[] = "/tmp/stovig-show-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    setenv("STOVIG_ROOT", tmpl, 1);
    res_disk_type = RES_DISK_SSD;
    printed.clear();
    res_cli_show_storage(RES_SHOW_LIFETIME, capture);
    EXPECT_EQ(unsupported, printed);
    std::system((std::string("mkdir -p ") + tmpl + "/sbin && touch " + tmpl + "/sbin/smartctl").c_str());
    printed.clear();
    res_cli_show_storage(RES_SHOW_LIFETIME, capture);
    EXPECT_NE(std::string::npos, printed.find("Storage Name:               emmc\n"));
    unsetenv("STOVIG_ROOT");
    std::system((std::string("rm -rf ") + tmpl).c_str());
}

} // namespace
