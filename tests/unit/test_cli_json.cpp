/* "show storage <item> json" from a store with known figures, compared byte
 * for byte; odd names always give a document that parses. */
#include "cli/res_cli_json.h"
#include "cli/res_cli_show.h"
#include "printed.h"
#include "store_fixture.h"
#include "test_mom_helpers.h"

#include <nlohmann/json.hpp>

#include <string>

namespace {

class ShowJson : public KnownStore {
  protected:
    void SetUp() override
    {
        KnownStore::SetUp();
        printed.clear();
    }
};

const std::string kHead = R"([{"slot":"slot1","card":"box","index":{"devid":0,"slotid":1,"sslotid":0},"user_slot":1,)";

TEST_F(ShowJson, AllInfoOfAFilledNode)
{
    fill_local();
    res_local_node.rx_ms[RES_MOM_REC_IO] = 10000;
    res_local_node.rx_ms[RES_MOM_REC_VOL] = 12500;
    res_local_node.rx_ms[RES_MOM_REC_LIFETIME] = 1;
    std::string want =
        kHead +
        R"("age_seconds":{"io":2.5,"capacity":0.0,"readonly":null,"lifetime":12.499},"stale":false,)"
        R"("io":{"state":"ready","disks":[)"
        R"({"name":"sda","read_kb_per_s":12.5,"write_kb_per_s":300.25,"util_percent":87.5,"status":"warning"},)"
        R"({"name":"mmcblk0","read_kb_per_s":0.0,"write_kb_per_s":1024.0,"util_percent":3.125,"status":"normal"}],)"
        R"("processes":{"state":"ready","entries":[)"
        R"({"pid":1234,"name":"dd","read_bytes_per_s":4096.0,"write_bytes_per_s":8192.5},)"
        R"({"pid":77,"name":"kworker/u8:1","read_bytes_per_s":0.0,"write_bytes_per_s":10.0}]}},)"
        R"("readonly":{"state":"ready","partitions":[)"
        R"({"name":"flash","mode":"read-only"},{"name":"usb0","mode":"read-write"}]},)"
        R"("capacity":{"state":"ready","partitions":[)"
        R"({"name":"flash","total_kb":1000,"used_kb":875,"used_percent":87.5,"status":"warning"},)"
        R"({"name":"usb0","total_kb":4,"used_kb":1,"used_percent":25.0,"status":"normal"}]},)"
        R"("lifetime":{"state":"ready","disks":[)"
        R"({"name":"emmc","left_months":1,"threshold_months":12,"status":"warning"}]}}])";
    EXPECT_EQ(want, res_cli_json_storage(RES_SHOW_ALL, 12500));
}

TEST_F(ShowJson, SingleItemsCarryTheirSectionOnly)
{
    fill_local();
    res_local_node.stale = 1;
    const std::string ages = R"("age_seconds":{"io":null,"capacity":null,"readonly":null,"lifetime":null},)";
    EXPECT_EQ(kHead + ages + R"("stale":true,"readonly":{"state":"ready","partitions":[)"
                             R"({"name":"flash","mode":"read-only"},{"name":"usb0","mode":"read-write"}]}}])",
              res_cli_json_storage(RES_SHOW_RO, 5));
    EXPECT_EQ(kHead + ages + R"("stale":true,"lifetime":{"state":"ready","disks":[)"
                             R"({"name":"emmc","left_months":1,"threshold_months":12,"status":"warning"}]}}])",
              res_cli_json_storage(RES_SHOW_LIFETIME, 5));
}

TEST_F(ShowJson, ClosedNotReadyAndUnsupportedAreWords)
{
    res_mom_node *remote = add_remote(5, 3);
    ASSERT_NE(nullptr, remote);
    res_mom_proc_io_node p = store_proc(1, "init", 1, 2);
    ASSERT_EQ(0, res_mom_add_node_proc_io_list(&p, &remote->proc_io_list));
    res_mom_disk_io_node d = store_disk("sdb", 1, 2, 3, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &remote->disk_io_list));
    ro_interval = RES_MON_CLOSED;
    res_disk_type = RES_DISK_USB;
    const std::string ages = R"("age_seconds":{"io":null,"capacity":null,"readonly":null,"lifetime":null},)";
    std::string want =
        kHead + ages +
        R"("stale":false,"io":{"state":"not_ready"},"readonly":{"state":"closed"},)"
        R"("capacity":{"state":"not_ready"},"lifetime":{"state":"not_supported"}},)"
        R"({"slot":"slot3","card":"","index":{"devid":0,"slotid":5,"sslotid":0},"user_slot":3,)" +
        ages +
        R"("stale":false,"io":{"state":"ready","disks":[)"
        R"({"name":"sdb","read_kb_per_s":1.0,"write_kb_per_s":2.0,"util_percent":3.0,"status":"normal"}],)"
        R"("processes":{"state":"ready","entries":[)"
        R"({"pid":1,"name":"init","read_bytes_per_s":1.0,"write_bytes_per_s":2.0}]}},)"
        R"("readonly":{"state":"closed"},"capacity":{"state":"not_ready"},"lifetime":{"state":"not_supported"}}])";
    EXPECT_EQ(want, res_cli_json_storage(RES_SHOW_ALL, 0));
}

TEST_F(ShowJson, ProcessesNotReadyAndZeroTotalGiveNull)
{
    res_mom_disk_io_node d = store_disk("sda", 0, 0, 0, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    store_part(&res_local_node, "/data", "flash", 0, 0, 0, 0, 1, 1);
    std::string io = res_cli_json_storage(RES_SHOW_IO, 0);
    EXPECT_NE(std::string::npos, io.find(R"("processes":{"state":"not_ready","entries":[]})")) << io;
    std::string cap = res_cli_json_storage(RES_SHOW_CAPACITY, 0);
    EXPECT_NE(std::string::npos, cap.find(R"("total_kb":0,"used_kb":0,"used_percent":null,)")) << cap;
}

TEST_F(ShowJson, OddNamesAreEscapedAndInvalidUtf8Replaced)
{
    /* A slot name with a quote, a backslash, a control byte and a byte that
     * is not UTF-8; names on the bus may hold any of them. */
    config_file cfg("[node]\nslot_name = q\"b\\s\x01t\xff\n");
    res_mom_disk_io_node d = store_disk("a\"b\\c\nd\te\x7f", 0, 0, 0, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    res_mom_proc_io_node p = store_proc(9, "\xc3\xa9t\xc3\xa9\xc3", 0, 0); /* "été" cut inside a character */
    ASSERT_EQ(0, res_mom_add_node_proc_io_list(&p, &res_local_node.proc_io_list));
    std::string doc = res_cli_json_storage(RES_SHOW_IO, 0);
    EXPECT_NE(std::string::npos, doc.find(R"([{"slot":"q\"b\\s\u0001t)"
                                          "\xef\xbf\xbd"
                                          R"(","card":"box")"))
        << doc;
    EXPECT_NE(std::string::npos, doc.find(R"({"name":"a\"b\\c\nd\te)"
                                          "\x7f"
                                          R"(","read_kb_per_s")"))
        << doc;
    EXPECT_NE(std::string::npos, doc.find("{\"pid\":9,\"name\":\"\xc3\xa9t\xc3\xa9\xef\xbf\xbd\",")) << doc;
    nlohmann::json parsed = nlohmann::json::parse(doc);
    EXPECT_EQ("a\"b\\c\nd\te\x7f", parsed[0]["io"]["disks"][0]["name"].get<std::string>());
}

TEST_F(ShowJson, C1ControlsAreEscapedAndReadBackTheSame)
{
    /* U+009B is CSI to a terminal that reads C1 controls; U+00A0 and "é"
     * are ordinary characters and stay as they are. */
    res_mom_disk_io_node d = store_disk("a\xc2\x9b" "31m\xc2\x80\xc2\x9f\xc2\xa0\xc3\xa9", 0, 0, 0, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    std::string doc = res_cli_json_storage(RES_SHOW_IO, 0);
    EXPECT_NE(std::string::npos, doc.find(R"({"name":"a\u009b31m\u0080\u009f)"
                                          "\xc2\xa0\xc3\xa9"
                                          R"(","read_kb_per_s")"))
        << doc;
    EXPECT_EQ(std::string::npos, doc.find("\xc2\x9b")) << doc;
    nlohmann::json parsed = nlohmann::json::parse(doc);
    EXPECT_EQ("a\xc2\x9b" "31m\xc2\x80\xc2\x9f\xc2\xa0\xc3\xa9", parsed[0]["io"]["disks"][0]["name"].get<std::string>());
}

TEST_F(ShowJson, NameFillingItsBufferIsReadToItsEndOnly)
{
    res_mom_disk_io_node d = store_disk("x", 0, 0, 0, 0);
    memset(d.disk_name, 'n', sizeof d.disk_name); /* no terminator at all */
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    std::string doc = res_cli_json_storage(RES_SHOW_IO, 0);
    EXPECT_NE(std::string::npos, doc.find("\"name\":\"" + std::string(sizeof d.disk_name, 'n') + "\"")) << doc;
}

TEST_F(ShowJson, PrintedWithNewlineAndTheTextFormsResults)
{
    EXPECT_EQ(-1, res_cli_show_storage_json(0, capture));
    EXPECT_EQ(-1, res_cli_show_storage_json(6, capture));
    EXPECT_EQ(-1, res_cli_show_storage_json(1, nullptr));
    EXPECT_EQ("", printed);
    EXPECT_EQ("", res_cli_json_storage(9, 0));
    EXPECT_EQ(0, res_cli_show_storage_json(RES_SHOW_CAPACITY, capture));
    EXPECT_EQ('\n', printed.back());
    EXPECT_EQ(1u, nlohmann::json::parse(printed).size());
    printed.clear();
    res_list_init(&res_node_list);
    EXPECT_EQ(-4, res_cli_show_storage_json(RES_SHOW_ALL, capture));
    EXPECT_EQ("[]\n", printed);
}

} // namespace
