/* Control bytes from the bus or the host are shown escaped in log lines,
 * event lines and the show output; everything printable stays as it is. */
#include "cli/res_cli_show.h"
#include "misc/res_escape.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string slurp(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool has_control_byte(const std::string &s, bool allow_newline)
{
    for (unsigned char c : s)
        if ((c < 0x20 && !(allow_newline && c == '\n')) || c == 0x7f)
            return true;
    return false;
}

TEST(Escape, PrintableTextIsKeptByteForByte)
{
    EXPECT_EQ("sda", res_escape("sda"));
    EXPECT_EQ("", res_escape(""));
    EXPECT_EQ("", res_escape(nullptr));
    std::string printable;
    for (int c = 0x20; c < 0x7f; ++c)
        printable.push_back(static_cast<char>(c));
    EXPECT_EQ(printable, res_escape(printable.c_str()));
    EXPECT_EQ("a\\b\\x0a", res_escape("a\\b\\x0a")); /* a backslash stays a backslash */
    const char *utf8 = "\xd0\xb4\xd0\xb8\xd1\x81\xd0\xba \xe7\xa3\x81\xe7\x9b\x98"; /* "диск 磁盘" */
    EXPECT_EQ(utf8, res_escape(utf8));
}

TEST(Escape, ControlBytesBecomeHexEscapes)
{
    EXPECT_EQ("sda\\x0aEVENT forged", res_escape("sda\nEVENT forged"));
    EXPECT_EQ("\\x1b[2J\\x1b]0;x\\x07", res_escape("\x1b[2J\x1b]0;x\x07"));
    EXPECT_EQ("a\\x7fb\\x09c\\x0d", res_escape("a\x7f" "b\tc\r"));
    EXPECT_EQ("\\x01\\x1f", res_escape("\x01\x1f"));
    std::string zero("a\0b", 3);
    EXPECT_EQ("a\\x00b", res_escape_bytes(zero.data(), zero.size()));
}

TEST(Escape, EveryByteValue)
{
    std::string all;
    for (int c = 1; c < 256; ++c)
        all.push_back(static_cast<char>(c));
    std::string out = res_escape(all.c_str());
    EXPECT_FALSE(has_control_byte(out, false));
    /* 32 + 1 control bytes grow by three characters each. */
    EXPECT_EQ(all.size() + 3 * 32, out.size());
    EXPECT_NE(std::string::npos, out.find("\xff"));
}

TEST(Escape, OneFinalNewlineMayBeKept)
{
    EXPECT_EQ("gone\n", res_escape_keep_final_newline("gone\n"));
    EXPECT_EQ("a\\x0ab\n", res_escape_keep_final_newline("a\nb\n"));
    EXPECT_EQ("a\\x0a\n", res_escape_keep_final_newline("a\n\n"));
    EXPECT_FALSE(res_escape_wanted("plain"));
    EXPECT_FALSE(res_escape_wanted("plain\n"));
    EXPECT_TRUE(res_escape_wanted("pl\nain"));
    EXPECT_TRUE(res_escape_wanted("x\x1b"));
    EXPECT_FALSE(res_escape_wanted("\xc3\xa9"));
}

/* Both log channels and the event lines into files. */
class EscapedLines : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-esc-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        std::ofstream(dir + "/cfg.ini") << "[log]\nfile = " << dir << "/zlog.log\nsyslog_file = " << dir
                                       << "/syslog.log\nevents_file = " << dir << "/events.log\n";
        setenv("STOVIG_CONFIG", (dir + "/cfg.ini").c_str(), 1);
        qn_platform_config_reload();
        saved_level = res_dbg_level;
        saved_handle = res_zlog_handle;
        ASSERT_EQ(0, res_zlog_init());
    }
    void TearDown() override
    {
        res_dbg_level = saved_level;
        res_zlog_handle = saved_handle;
        unsetenv("STOVIG_CONFIG");
        qn_platform_config_reload();
        std::system(("rm -rf " + dir).c_str());
    }
    /* Every line written so far, wherever the log library put it. */
    std::string all_lines()
    {
        return slurp(dir + "/zlog.log") + slurp(dir + "/events.log") + slurp(dir + "/syslog.log");
    }
    static int count_lines_with(const std::string &text, const std::string &needle)
    {
        std::istringstream in(text);
        std::string line;
        int n = 0;
        while (std::getline(in, line))
            if (line.find(needle) != std::string::npos)
                ++n;
        return n;
    }
    std::string dir;
    uint32_t saved_level;
    qn_zlog_category_t *saved_handle;
};

TEST_F(EscapedLines, LogArgumentsCannotStartALine)
{
    res_dbg_level = 1;
    RES_ERR("can't get node by name[%s].", "sda\n2024-01-01 00:00:00.000 EVENT forged\x1b[31m");
    std::string text = all_lines();
    EXPECT_EQ(std::string::npos, text.find("\nforged"));
    EXPECT_EQ(std::string::npos, text.find('\x1b'));
    EXPECT_EQ(2, count_lines_with(text, "can't get node by name[sda\\x0a2024-01-01 00:00:00.000 EVENT "
                                        "forged\\x1b[31m]."));
    EXPECT_EQ(2, count_lines_with(text, "forged")); /* the same two lines, nothing of its own */
}

TEST_F(EscapedLines, MessagesOwnFinalNewlineIsLeftToTheLogLibrary)
{
    res_dbg_level = 1;
    RES_ERR("this dev is not support life time monitor\n");
    std::string text = all_lines();
    EXPECT_EQ(std::string::npos, text.find("\\x0a"));
    EXPECT_EQ(2, count_lines_with(text, "this dev is not support life time monitor"));
}

TEST_F(EscapedLines, EventLineIsOneLineWithVisibleEscapes)
{
    res_event_line("mom/res_mom_part.cpp", "res_part_ro_warning_task", 1,
                   "slot3 Partition usb0\nslot9 Partition fake is readonly.\x1b]2;pwned\x07 is readonly.");
    /* One line in the event log, and the log library's one copy in the
     * system log. */
    const std::string escaped = "res_part_ro_warning_task: slot3 Partition usb0\\x0aslot9 Partition fake "
                                "is readonly.\\x1b]2;pwned\\x07 is readonly.";
    std::string events = slurp(dir + "/events.log");
    EXPECT_EQ(1, count_lines_with(events, " EVENT "));
    EXPECT_EQ(1, count_lines_with(events, escaped));
    EXPECT_EQ(1, count_lines_with(slurp(dir + "/syslog.log"), escaped));
    EXPECT_FALSE(has_control_byte(all_lines(), true));
}

TEST_F(EscapedLines, PrintableEventLineIsUnchanged)
{
    res_event_line("mom/res_mom_part.cpp", "res_part_ro_warning_task", 1, "slot3 Partition usb0 is readonly.");
    EXPECT_EQ(1, count_lines_with(slurp(dir + "/events.log"),
                                  "res_part_ro_warning_task: slot3 Partition usb0 is readonly."));
}

std::string printed;
int capture(const char *fmt, ...)
{
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    printed += buf;
    return n;
}

TEST(EscapedShow, NamesFromTheBusAreShownEscaped)
{
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    ASSERT_EQ(0, res_mom_data_init());
    res_local_node.devid = 0;
    res_local_node.slotid = 1;
    res_local_node.user_slot = 1;
    io_interval = 10;
    ro_interval = 30;
    cap_interval = 30;
    disk_interval = 60;
    disk_threshold = 12;
    int32_t saved_type = res_disk_type;
    res_disk_type = RES_DISK_EMMC;

    res_mom_disk_io_node d{};
    snprintf(d.disk_name, sizeof d.disk_name, "sd\x1b[2Ja\n");
    ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d, &res_local_node.disk_io_list));
    res_mom_proc_io_node p{};
    p.proc_id = 7;
    snprintf(p.proc_name, sizeof p.proc_name, "dd\r");
    ASSERT_EQ(0, res_mom_add_node_proc_io_list(&p, &res_local_node.proc_io_list));
    res_mom_part_node *part = res_mom_get_part_node_by_path(&res_local_node.part_list, "/data", 5);
    ASSERT_NE(nullptr, part);
    snprintf(part->part_uname, sizeof part->part_uname, "fl\x07sh");
    part->total_vol = 10;
    part->use_vol = 5;
    part->vol_visible = part->ro_visible = part->exist = 1;
    res_mom_lifetime_node l{};
    snprintf(l.disk_name, sizeof l.disk_name, "emmc\x1b");
    ASSERT_EQ(0, res_mom_add_node_disk_lft_list(&l, &res_local_node.lifetime_list));

    printed.clear();
    ASSERT_EQ(0, res_cli_show_storage(RES_SHOW_ALL, capture));
    EXPECT_FALSE(has_control_byte(printed, true)) << printed;

    EXPECT_NE(std::string::npos, printed.find(" sd\\x1b[2Ja\\x0a       0.00             0.00      0.00%      Normal\n"));
    EXPECT_NE(std::string::npos, printed.find("dd\\x0d\n"));
    EXPECT_NE(std::string::npos, printed.find("\n fl\\x07sh         R/W\n"));
    EXPECT_NE(std::string::npos, printed.find("\n fl\\x07sh         10              5        50.00%      Normal\n"));
    EXPECT_NE(std::string::npos, printed.find("Storage Name:               emmc\\x1b\n"));
    res_disk_type = saved_type;
    res_mom_data_init();
}

} // namespace
