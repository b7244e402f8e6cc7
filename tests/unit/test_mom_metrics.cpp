/* The Prometheus exposition from a store with known figures, compared byte
 * for byte, and the escaping of label values. */
#include "mom/res_mom_metrics.h"
#include "store_fixture.h"
#include "test_mom_helpers.h"

#include <string>

namespace {

class Metrics : public KnownStore {};

std::string family(const std::string &name, const std::string &help, const std::string &samples)
{
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n" + samples;
}

std::string settings(const std::string &enabled, const std::string &intervals)
{
    return family("qn_stovig_monitor_enabled", "Whether a monitor samples (1) or is closed (0).", enabled) +
           family("qn_stovig_monitor_interval_seconds", "Sampling interval of an open monitor.", intervals) +
           family("qn_stovig_io_threshold_ratio", "Disk utilisation at which a disk's I/O warning is raised.",
                  "qn_stovig_io_threshold_ratio 0.5\n") +
           family("qn_stovig_capacity_threshold_ratio", "Partition usage at which a capacity warning is raised.",
                  "qn_stovig_capacity_threshold_ratio 0.8\n") +
           family("qn_stovig_lifetime_threshold_months",
                  "Months of flash lifetime left below which a warning is raised.",
                  "qn_stovig_lifetime_threshold_months 12\n");
}

const std::string kAllOpen = "qn_stovig_monitor_enabled{monitor=\"io\"} 1\n"
                             "qn_stovig_monitor_enabled{monitor=\"readonly\"} 1\n"
                             "qn_stovig_monitor_enabled{monitor=\"capacity\"} 1\n"
                             "qn_stovig_monitor_enabled{monitor=\"lifetime\"} 1\n";
const std::string kIntervals = "qn_stovig_monitor_interval_seconds{monitor=\"io\"} 10\n"
                               "qn_stovig_monitor_interval_seconds{monitor=\"readonly\"} 30\n"
                               "qn_stovig_monitor_interval_seconds{monitor=\"capacity\"} 30\n"
                               "qn_stovig_monitor_interval_seconds{monitor=\"lifetime\"} 60\n";

std::string node_info(const std::string &samples)
{
    return family("qn_stovig_node_info", "A node of the store, with its card name; always 1.", samples);
}
std::string node_stale(const std::string &samples)
{
    return family("qn_stovig_node_stale", "Whether the node's I/O record is overdue (1) or not (0).", samples);
}

TEST_F(Metrics, FilledNodeByteForByte)
{
    fill_local();
    res_local_node.rx_ms[RES_MOM_REC_IO] = 10000;
    res_local_node.rx_ms[RES_MOM_REC_LIFETIME] = 500;
    res_local_node.stale = 1;
    const std::string sda = "{slot=\"slot1\",device=\"sda\"}";
    const std::string mmc = "{slot=\"slot1\",device=\"mmcblk0\"}";
    const std::string dd = "{slot=\"slot1\",process=\"dd\",pid=\"1234\"}";
    const std::string kw = "{slot=\"slot1\",process=\"kworker/u8:1\",pid=\"77\"}";
    const std::string flash = "{slot=\"slot1\",partition=\"flash\"}";
    const std::string usb = "{slot=\"slot1\",partition=\"usb0\"}";
    std::string want =
        settings(kAllOpen, kIntervals) + node_info("qn_stovig_node_info{slot=\"slot1\",card=\"box\"} 1\n") +
        node_stale("qn_stovig_node_stale{slot=\"slot1\"} 1\n") +
        family("qn_stovig_node_data_age_seconds", "Time since the node's last record of a kind was received.",
               "qn_stovig_node_data_age_seconds{slot=\"slot1\",kind=\"io\"} 2.5\n"
               "qn_stovig_node_data_age_seconds{slot=\"slot1\",kind=\"lifetime\"} 12\n") +
        family("qn_stovig_disk_read_bytes_per_second", "Disk read rate over the last I/O sampling interval.",
               "qn_stovig_disk_read_bytes_per_second" + sda + " 12800\n" +
                   "qn_stovig_disk_read_bytes_per_second" + mmc + " 0\n") +
        family("qn_stovig_disk_write_bytes_per_second", "Disk write rate over the last I/O sampling interval.",
               "qn_stovig_disk_write_bytes_per_second" + sda + " 307456\n" +
                   "qn_stovig_disk_write_bytes_per_second" + mmc + " 1048576\n") +
        family("qn_stovig_disk_utilization_ratio", "Share of the last I/O sampling interval the disk was busy.",
               "qn_stovig_disk_utilization_ratio" + sda + " 0.875\n" + "qn_stovig_disk_utilization_ratio" + mmc +
                   " 0.03125\n") +
        family("qn_stovig_disk_io_warning", "Whether the disk's I/O warning is raised (1) or not (0).",
               "qn_stovig_disk_io_warning" + sda + " 1\n" + "qn_stovig_disk_io_warning" + mmc + " 0\n") +
        family("qn_stovig_process_read_bytes_per_second", "Read rate of one of the processes doing the most I/O.",
               "qn_stovig_process_read_bytes_per_second" + dd + " 4096\n" +
                   "qn_stovig_process_read_bytes_per_second" + kw + " 0\n") +
        family("qn_stovig_process_write_bytes_per_second",
               "Write rate of one of the processes doing the most I/O.",
               "qn_stovig_process_write_bytes_per_second" + dd + " 8192.5\n" +
                   "qn_stovig_process_write_bytes_per_second" + kw + " 10\n") +
        family("qn_stovig_partition_size_bytes", "Size of a watched partition.",
               "qn_stovig_partition_size_bytes" + flash + " 1000000\n" + "qn_stovig_partition_size_bytes" + usb +
                   " 4000\n") +
        family("qn_stovig_partition_used_bytes",
               "Used space of a watched partition, blocks reserved for root included.",
               "qn_stovig_partition_used_bytes" + flash + " 875000\n" + "qn_stovig_partition_used_bytes" + usb +
                   " 1000\n") +
        family("qn_stovig_partition_used_ratio", "Used share of a watched partition.",
               "qn_stovig_partition_used_ratio" + flash + " 0.875\n" + "qn_stovig_partition_used_ratio" + usb +
                   " 0.25\n") +
        family("qn_stovig_partition_capacity_warning",
               "Whether the partition's capacity warning is raised (1) or not (0).",
               "qn_stovig_partition_capacity_warning" + flash + " 1\n" + "qn_stovig_partition_capacity_warning" +
                   usb + " 0\n") +
        family("qn_stovig_partition_read_only", "Whether the partition was found read-only (1) or writable (0).",
               "qn_stovig_partition_read_only" + flash + " 1\n" + "qn_stovig_partition_read_only" + usb + " 0\n") +
        family("qn_stovig_disk_lifetime_left_months", "Months of lifetime the flash device has left.",
               "qn_stovig_disk_lifetime_left_months{slot=\"slot1\",device=\"emmc\"} 1\n") +
        family("qn_stovig_disk_lifetime_warning", "Whether the device's lifetime warning is raised (1) or not (0).",
               "qn_stovig_disk_lifetime_warning{slot=\"slot1\",device=\"emmc\"} 1\n");
    EXPECT_EQ(want, res_mom_metrics_render_nodes(&res_node_list, 12500));
}

TEST_F(Metrics, ClosedMonitorsAndUnsupportedLifetimeLeaveTheirFiguresOut)
{
    fill_local();
    res_mom_node *remote = add_remote(5, 3);
    ASSERT_NE(nullptr, remote);
    io_interval = RES_MON_CLOSED;
    ro_interval = RES_MON_CLOSED;
    res_disk_type = RES_DISK_USB;
    std::string got = res_mom_metrics_render_nodes(&res_node_list, 0);
    std::string want_settings =
        settings("qn_stovig_monitor_enabled{monitor=\"io\"} 0\n"
                 "qn_stovig_monitor_enabled{monitor=\"readonly\"} 0\n"
                 "qn_stovig_monitor_enabled{monitor=\"capacity\"} 1\n"
                 "qn_stovig_monitor_enabled{monitor=\"lifetime\"} 1\n",
                 "qn_stovig_monitor_interval_seconds{monitor=\"capacity\"} 30\n"
                 "qn_stovig_monitor_interval_seconds{monitor=\"lifetime\"} 60\n");
    ASSERT_EQ(want_settings, got.substr(0, want_settings.size()));
    std::string rest = got.substr(want_settings.size());
    /* The remote node without a card gets an empty card label; no ages were ever received. */
    EXPECT_EQ(0u, rest.find(node_info("qn_stovig_node_info{slot=\"slot1\",card=\"box\"} 1\n"
                                      "qn_stovig_node_info{slot=\"slot3\",card=\"\"} 1\n") +
                            node_stale("qn_stovig_node_stale{slot=\"slot1\"} 0\n"
                                       "qn_stovig_node_stale{slot=\"slot3\"} 0\n") +
                            "# HELP qn_stovig_partition_size_bytes "))
        << rest;
    for (const char *absent : {"qn_stovig_disk_", "qn_stovig_process_", "qn_stovig_partition_read_only",
                               "qn_stovig_node_data_age_seconds", "lifetime_left"})
        EXPECT_EQ(std::string::npos, rest.find(absent)) << absent << "\n" << rest;
}

TEST_F(Metrics, ZeroSizedPartitionHasNoRatio)
{
    store_part(&res_local_node, "/data", "flash", 0, 0, 0, 0, 1, 1);
    std::string got = res_mom_metrics_render_nodes(&res_node_list, 0);
    EXPECT_NE(std::string::npos, got.find("qn_stovig_partition_size_bytes{slot=\"slot1\",partition=\"flash\"} 0\n"));
    EXPECT_EQ(std::string::npos, got.find("qn_stovig_partition_used_ratio")) << got;
}

TEST_F(Metrics, LabelValuesEscapedAndInvalidUtf8Replaced)
{
    EXPECT_EQ("plain", res_mom_metrics_label_value("plain", 32));
    EXPECT_EQ("a\\\"b\\\\c\\nd\te", res_mom_metrics_label_value("a\"b\\c\nd\te", 32));
    /* Well-formed UTF-8 passes; a lone continuation byte, a cut sequence,
     * an overlong form, a surrogate and a byte above U+10FFFF do not. */
    EXPECT_EQ("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", res_mom_metrics_label_value("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", 32));
    const std::string r = "\xef\xbf\xbd";
    EXPECT_EQ(r + "x", res_mom_metrics_label_value("\x80x", 32));
    EXPECT_EQ(r + "x", res_mom_metrics_label_value("\xc3x", 32));
    EXPECT_EQ(r + r, res_mom_metrics_label_value("\xc0\xaf", 32));
    EXPECT_EQ(r + r + r, res_mom_metrics_label_value("\xed\xa0\x80", 32));
    EXPECT_EQ(r + r + r + r, res_mom_metrics_label_value("\xf4\x90\x80\x80", 32));
    EXPECT_EQ(r + r, res_mom_metrics_label_value("\xe2\x82", 32)); /* one per byte */
    /* Never past the buffer's end, terminated or not. */
    EXPECT_EQ("abc", res_mom_metrics_label_value("abcdef", 3));
    EXPECT_EQ("", res_mom_metrics_label_value(nullptr, 3));
}

TEST_F(Metrics, OddNamesReachTheLabelsEscaped)
{
    config_file cfg("[node]\nslot_name = q\"b\\s\x01t\xff\n");
    res_mom_disk_io_node d = store_disk("a\"b\nc", 0, 0, 0, 0);
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    std::string got = res_mom_metrics_render_nodes(&res_node_list, 0);
    EXPECT_NE(std::string::npos,
              got.find("qn_stovig_disk_io_warning{slot=\"q\\\"b\\\\s\x01t\xef\xbf\xbd\",device=\"a\\\"b\\nc\"} 0\n"))
        << got;
}

TEST_F(Metrics, AgeGrowsWithTheClock)
{
    res_local_node.rx_ms[RES_MOM_REC_VOL] = 1000;
    std::string early = res_mom_metrics_render_nodes(&res_node_list, 1000);
    std::string late = res_mom_metrics_render_nodes(&res_node_list, 61250);
    EXPECT_NE(std::string::npos, early.find("qn_stovig_node_data_age_seconds{slot=\"slot1\",kind=\"capacity\"} 0\n"));
    EXPECT_NE(std::string::npos, late.find("qn_stovig_node_data_age_seconds{slot=\"slot1\",kind=\"capacity\"} 60.25\n"));
}

} // namespace
