/* Control bytes from the bus or the host are shown escaped in log lines,
 * event lines and the show output; everything printable stays as it is. */
#include "cli/res_cli_show.h"
#include "misc/res_escape.h"
#include "misc/res_zlog.h"
#include "log_files_test.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"
#include "printed.h"
#include "res_main.h"
#include "slurp.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

/* Decodes UTF-8 by value (independently of the escaping code): the code
 * points, or false when `s` is not well-formed UTF-8. */
bool decode_utf8(const std::string &s, std::vector<uint32_t> *cps)
{
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (n == 0 || i + n > s.size())
            return false;
        uint32_t cp = n == 1 ? c : c & (0x7f >> n);
        for (size_t k = 1; k < n; ++k) {
            unsigned char cc = static_cast<unsigned char>(s[i + k]);
            if ((cc >> 6) != 2)
                return false;
            cp = (cp << 6) | (cc & 0x3f);
        }
        static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
            return false;
        if (cps)
            cps->push_back(cp);
        i += n;
    }
    return true;
}

/* Whether a text could act on a terminal or split a line: not well-formed
 * UTF-8, or holding a C0 control (a newline allowed when asked), DEL or a C1
 * control. */
bool has_control_byte(const std::string &s, bool allow_newline)
{
    std::vector<uint32_t> cps;
    if (!decode_utf8(s, &cps))
        return true;
    for (uint32_t cp : cps)
        if ((cp < 0x20 && !(allow_newline && cp == '\n')) || (cp >= 0x7f && cp <= 0x9f))
            return true;
    return false;
}

std::string utf8_of(uint32_t cp)
{
    std::string s;
    if (cp < 0x80) {
        s.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        s.push_back(static_cast<char>(0xc0 | (cp >> 6)));
        s.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    } else if (cp < 0x10000) {
        s.push_back(static_cast<char>(0xe0 | (cp >> 12)));
        s.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
        s.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    } else {
        s.push_back(static_cast<char>(0xf0 | (cp >> 18)));
        s.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3f)));
        s.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
        s.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    }
    return s;
}

/* Every byte as "\xHH". */
std::string hex_escaped(const std::string &s)
{
    std::string out;
    char buf[8];
    for (unsigned char c : s) {
        snprintf(buf, sizeof buf, "\\x%02x", c);
        out += buf;
    }
    return out;
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
    /* The edges of each sequence length, and the first character past the
     * C1 controls (no-break space). */
    for (const char *edge : {"\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\xf0\x9f\x92\xbe"})
        EXPECT_EQ(edge, res_escape(edge)) << hex_escaped(edge);
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

/* CSI (0x9b) and OSC (0x9d) drive a terminal that reads 8-bit controls, raw
 * or encoded as the code points U+009B, U+009D. */
TEST(Escape, C1ControlsRawOrEncodedBecomeHexEscapes)
{
    EXPECT_EQ("sd\\x9b2Ja", res_escape("sd\x9b" "2Ja"));
    EXPECT_EQ("\\x9d0;pwned\\x07", res_escape("\x9d" "0;pwned\x07"));
    EXPECT_EQ("sd\\xc2\\x9b2Ja", res_escape("sd\xc2\x9b" "2Ja"));
    EXPECT_EQ("\\xc2\\x80\\xc2\\x9f\xc2\xa0", res_escape("\xc2\x80\xc2\x9f\xc2\xa0"));
    for (uint32_t cp = 0x80; cp <= 0x9f; ++cp) {
        std::string c1 = utf8_of(cp);
        EXPECT_EQ(hex_escaped(c1), res_escape(c1.c_str()));
    }
}

TEST(Escape, BytesOutsideWellFormedUtf8BecomeHexEscapes)
{
    struct {
        const char *in, *out;
    } cases[] = {
        {"\x80", "\\x80"},                              /* continuation byte on its own */
        {"a\xbf" "b", "a\\xbfb"},
        {"\xc0\x80", "\\xc0\\x80"},                     /* overlong NUL */
        {"\xc1\xbf", "\\xc1\\xbf"},                     /* overlong DEL */
        {"\xe0\x80\x80", "\\xe0\\x80\\x80"},            /* overlong three bytes */
        {"\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},
        {"\xf0\x80\x80\x80", "\\xf0\\x80\\x80\\x80"},   /* overlong four bytes */
        {"\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},            /* surrogate U+D800 */
        {"\xed\xbf\xbf", "\\xed\\xbf\\xbf"},            /* surrogate U+DFFF */
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},   /* above U+10FFFF */
        {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
        {"\xfe\xff", "\\xfe\\xff"},
        {"\xe2\x82", "\\xe2\\x82"},                     /* cut short at the end */
        {"\xe2\x82" "A", "\\xe2\\x82A"},                /* cut short by ASCII */
        {"\xf0\x9f\x92", "\\xf0\\x9f\\x92"},
        {"\xc3\xc3\xa9", "\\xc3\xc3\xa9"},              /* a lead byte, then a whole character */
        {"\xe2\x82\xac\x82", "\xe2\x82\xac\\x82"},      /* a whole character, then a stray byte */
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.out, res_escape(c.in)) << hex_escaped(c.in);
}

/* Every code point, encoded well: kept unless a control. */
TEST(Escape, EveryCodePoint)
{
    for (uint32_t cp = 1; cp <= 0x10ffff; ++cp) {
        if (cp >= 0xd800 && cp <= 0xdfff)
            continue;
        std::string c = utf8_of(cp);
        bool control = cp < 0x20 || (cp >= 0x7f && cp <= 0x9f);
        std::string out = res_escape(c.c_str());
        if (out != (control ? hex_escaped(c) : c)) {
            ADD_FAILURE() << "U+" << std::hex << cp << " gave " << hex_escaped(out);
            break;
        }
    }
}

TEST(Escape, EveryByteValue)
{
    std::string all;
    for (int c = 1; c < 256; ++c)
        all.push_back(static_cast<char>(c));
    std::string out = res_escape(all.c_str());
    EXPECT_FALSE(has_control_byte(out, false));
    /* The 31 + 1 control bytes (0x01-0x1f, 0x7f) and the 128 bytes from 0x80
     * up (in this order none forms a character) grow by three characters
     * each. */
    EXPECT_EQ(all.size() + 3 * (32 + 128), out.size());
    EXPECT_NE(std::string::npos, out.find("\\xff"));
}

/* Whatever the bytes, the result is well-formed UTF-8 without controls, keeps
 * every well-formed printable character, and escaping it again changes
 * nothing. */
TEST(Escape, AnyBytesGiveSafeText)
{
    std::mt19937 rng(20240607);
    const unsigned char interesting[] = {0x00, 0x0a, 0x1b, 0x41, 0x5c, 0x7f, 0x80, 0x9b, 0x9d, 0xa0, 0xbf,
                                         0xc0, 0xc2, 0xc3, 0xdf, 0xe0, 0xe2, 0xed, 0xef, 0xf0, 0xf4, 0xf5, 0xff};
    for (int round = 0; round < 20000; ++round) {
        std::string in(rng() % 12, '\0');
        for (char &c : in)
            c = static_cast<char>(rng() % 2 ? interesting[rng() % sizeof interesting] : rng() % 256);
        std::string out = res_escape_bytes(in.data(), in.size());
        ASSERT_FALSE(has_control_byte(out, false)) << hex_escaped(in) << " gave " << hex_escaped(out);
        ASSERT_EQ(out, res_escape(out.c_str())) << hex_escaped(in);
        ASSERT_FALSE(res_escape_wanted(out.c_str())) << hex_escaped(in);
        if (!has_control_byte(in, false)) {
            ASSERT_EQ(in, out) << hex_escaped(in);
        }
    }
}

TEST(Escape, OneFinalNewlineMayBeKept)
{
    EXPECT_EQ("gone\n", res_escape_keep_final_newline("gone\n"));
    EXPECT_EQ("a\\x0ab\n", res_escape_keep_final_newline("a\nb\n"));
    EXPECT_EQ("a\\x0a\n", res_escape_keep_final_newline("a\n\n"));
    EXPECT_EQ("\\xe2\n", res_escape_keep_final_newline("\xe2\n"));
    EXPECT_FALSE(res_escape_wanted("plain"));
    EXPECT_FALSE(res_escape_wanted("plain\n"));
    EXPECT_FALSE(res_escape_wanted(""));
    EXPECT_FALSE(res_escape_wanted(nullptr));
    EXPECT_TRUE(res_escape_wanted("pl\nain"));
    EXPECT_TRUE(res_escape_wanted("x\x1b"));
    EXPECT_FALSE(res_escape_wanted("\xc3\xa9"));
    EXPECT_FALSE(res_escape_wanted("\xc3\xa9\n"));
    EXPECT_TRUE(res_escape_wanted("\x9b"));
    EXPECT_TRUE(res_escape_wanted("\xc2\x9d"));
    EXPECT_TRUE(res_escape_wanted("\xe2\n"));
    EXPECT_TRUE(res_escape_wanted("\xe2\x82"));
}

/* Both log channels and the event lines into files. */
class EscapedLines : public LogFilesTest {
  protected:
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
};

TEST_F(EscapedLines, LogArgumentsCannotStartALine)
{
    res_dbg_level = 1;
    RES_ERR("can't get node by name[%s].", "sda\n2024-01-01 00:00:00.000 EVENT forged\x1b[31m\x9b" "1m");
    std::string text = all_lines();
    EXPECT_EQ(std::string::npos, text.find("\nforged"));
    EXPECT_EQ(std::string::npos, text.find('\x1b'));
    EXPECT_EQ(2, count_lines_with(text, "can't get node by name[sda\\x0a2024-01-01 00:00:00.000 EVENT "
                                        "forged\\x1b[31m\\x9b1m]."));
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
                   "slot3 Partition usb0\nslot9 Partition fake is readonly.\x1b]2;pwned\x07\xc2\x9d" "0;x is readonly.");
    /* One line in the event log, and the log library's one copy in the
     * system log. */
    const std::string escaped = "res_part_ro_warning_task: slot3 Partition usb0\\x0aslot9 Partition fake "
                                "is readonly.\\x1b]2;pwned\\x07\\xc2\\x9d0;x is readonly.";
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
    snprintf(p.proc_name, sizeof p.proc_name, "dd\r\x9b" "6n");
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
    EXPECT_NE(std::string::npos, printed.find("dd\\x0d\\x9b6n\n"));
    EXPECT_NE(std::string::npos, printed.find("\n fl\\x07sh         R/W\n"));
    EXPECT_NE(std::string::npos, printed.find("\n fl\\x07sh         10              5        50.00%      Normal\n"));
    EXPECT_NE(std::string::npos, printed.find("Storage Name:               emmc\\x1b\n"));
    res_disk_type = saved_type;
    res_mom_data_init();
}

} // namespace
