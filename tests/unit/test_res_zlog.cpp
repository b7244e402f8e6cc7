#include "misc/res_misc.h"
#include "misc/res_zlog.h"
#include "log_files_test.h"
#include "test_loop.h"
#include "qn_platform_config.h"
#include "qn_zlog_standin.h"
#include "slurp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

/* A fixture tree under STOVIG_ROOT for the level files. */
class DebugLevelFiles : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-level-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        root = tmpl;
        std::system(("mkdir -p " + root + "/tmp/qn-stovig " + root + "/data").c_str());
        setenv("STOVIG_ROOT", root.c_str(), 1);
        saved = res_dbg_level;
        res_dbg_level = 0;
    }
    void TearDown() override
    {
        unsetenv("STOVIG_ROOT");
        std::system(("rm -rf " + root).c_str());
        res_dbg_level = saved;
    }
    void tmp_file(const std::string &text) { std::ofstream(root + "/tmp/qn-stovig/debug_level") << text; }
    void data_file(const std::string &text) { std::ofstream(root + "/data/stovig_debug_level") << text; }
    std::string root;
    uint32_t saved;
};

TEST_F(DebugLevelFiles, FiveIsTaken)
{
    tmp_file("5\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(5u, res_dbg_level);
}

TEST_F(DebugLevelFiles, SixAndMinusOneAreIgnored)
{
    tmp_file("6\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(0u, res_dbg_level);
    tmp_file("-1\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(0u, res_dbg_level);
}

TEST_F(DebugLevelFiles, LeadingNumberIsParsed)
{
    tmp_file("3abc");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(3u, res_dbg_level);
}

TEST_F(DebugLevelFiles, GarbageKeepsPreviousLevel)
{
    res_dbg_level = 2;
    tmp_file("abc\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(2u, res_dbg_level);
}

TEST_F(DebugLevelFiles, EmptyFirstFileStopsTheSearch)
{
    tmp_file("");
    data_file("4\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(0u, res_dbg_level);
}

TEST_F(DebugLevelFiles, DataFileUsedWhenFirstIsMissing)
{
    data_file("4\n");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(4u, res_dbg_level);
}

TEST_F(DebugLevelFiles, NoFileGivesZero)
{
    res_dbg_level = 3;
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(0u, res_dbg_level);
}

TEST_F(DebugLevelFiles, OverlongLineReadsOnlyItsStart)
{
    tmp_file(std::string(30, '0') + "5");
    EXPECT_EQ(0, res_debug_level_init());
    EXPECT_EQ(0u, res_dbg_level); /* the 31st character is not read */
}

TEST(SetDebugLevel, RangeAndSameLevel)
{
    uint32_t saved = res_dbg_level;
    res_dbg_level = 4;
    EXPECT_EQ(-2, res_set_debug_level(4));
    EXPECT_EQ(4u, res_dbg_level);
    EXPECT_EQ(-1, res_set_debug_level(6));
    EXPECT_EQ(4u, res_dbg_level);
    EXPECT_EQ(0, res_set_debug_level(1));
    EXPECT_EQ(1u, res_dbg_level);
    res_dbg_level = saved;
}

TEST(DebugOff, OnlyTheAllOffKindTurnsTheLevelOff)
{
    uint32_t saved = res_dbg_level;
    res_dbg_level = 4;
    res_debug_off(1);
    EXPECT_EQ(4u, res_dbg_level);
    res_debug_off(2);
    EXPECT_EQ(0u, res_dbg_level);
    res_debug_off(2); /* already off: nothing to publish */
    EXPECT_EQ(0u, res_dbg_level);
    res_dbg_level = saved;
}

/* Both channels into files, at debug level. */
class LogChannels : public LogFilesTest {
  protected:
    LogChannels() : LogFilesTest("level = debug\n") {}
};

TEST_F(LogChannels, LevelZeroSendsNothingToSyslogButEverythingToZlog)
{
    res_dbg_level = 0;
    RES_ERR("an error %d", 1);
    RES_WARN("a warning %d", 2);
    RES_DBG("a debug line %d", 3);
    EXPECT_EQ("", syslog_text());
    std::string z = zlog_text();
    EXPECT_NE(std::string::npos, z.find("an error 1"));
    EXPECT_NE(std::string::npos, z.find("a warning 2"));
    EXPECT_NE(std::string::npos, z.find("a debug line 3"));
}

TEST_F(LogChannels, SyslogGatesBySeverity)
{
    res_dbg_level = 2;
    RES_ERR("e-line");
    RES_WARN("w-line");
    RES_DBG("d-line");
    std::string s = syslog_text();
    EXPECT_NE(std::string::npos, s.find("e-line"));
    EXPECT_NE(std::string::npos, s.find("w-line"));
    EXPECT_EQ(std::string::npos, s.find("d-line"));
}

TEST_F(LogChannels, SyslogLineCarriesModuleMnemonicFunctionAndLine)
{
    res_dbg_level = 1;
    int line = __LINE__ + 1;
    RES_ERR("file %s gone.", "/x");
    std::string s = syslog_text();
    std::string want = "%STOVIG-7-DEBUG: [<TestBody>:<" + std::to_string(line) + ">] file /x gone.";
    EXPECT_NE(std::string::npos, s.find(want)) << s;
}

TEST_F(LogChannels, ZlogLineCarriesLevelFileLineFunctionAndBareMessage)
{
    int line = __LINE__ + 1;
    RES_WARN("plain text");
    std::string z = zlog_text();
    /* The daemon's modules are named by their path inside the source tree;
     * this test file is outside it, so only its tail is checked. */
    std::string want = "test_res_zlog.cpp:" + std::to_string(line) + " TestBody: plain text";
    EXPECT_NE(std::string::npos, z.find(want)) << z;
    EXPECT_NE(std::string::npos, z.find(" WARN  ")) << z;
    EXPECT_EQ(std::string::npos, z.find("[<TestBody>"));
}

TEST_F(LogChannels, ModulesAreNamedByTheirPathInTheSourceTree)
{
    test_loop_setup();
    qn_thread slot = {};
    ASSERT_EQ(0, res_misc_add_timer(&slot, [](qn_thread *) { return 0; }, 5, "RES_X_TIMER"));
    ASSERT_EQ(-2, res_misc_add_timer(&slot, [](qn_thread *) { return 0; }, 5, "RES_X_TIMER"));
    res_misc_del_timer(&slot);
    std::string z = zlog_text();
    EXPECT_NE(std::string::npos, z.find(" WARN  misc/res_misc.cpp:")) << z;
    EXPECT_NE(std::string::npos, z.find(" res_misc_add_timer: RES_X_TIMER thread is already in list.")) << z;
}

TEST_F(LogChannels, KnownRoleSelectsTheExtendedSyslogCall)
{
    res_dbg_level = 1;
    int32_t role = -1;
    res_zlog_role = &role;
    RES_ERR("with role");
    role = 0;
    RES_ERR("without role");
    res_zlog_role = nullptr;
    std::istringstream lines(syslog_text());
    std::string with, without, l;
    while (std::getline(lines, l))
        (l.find("without role") != std::string::npos ? without : with) = l;
    EXPECT_NE(std::string::npos, with.find("qn-stovig[" + std::to_string(getpid()) + "]: [ext] %STOVIG-7-DEBUG: "))
        << with;
    EXPECT_NE(std::string::npos, without.find("]: %STOVIG-7-DEBUG: [<TestBody>:<")) << without;
}

TEST_F(LogChannels, TraceGoesToSyslogOnlyAtFive)
{
    res_dbg_level = 4;
    RES_TRACE("trace-4");
    res_dbg_level = 5;
    RES_TRACE("trace-5");
    EXPECT_EQ(std::string::npos, syslog_text().find("trace-4"));
    EXPECT_NE(std::string::npos, syslog_text().find("trace-5"));
    EXPECT_EQ(std::string::npos, zlog_text().find("trace-5"));
}

TEST_F(LogChannels, EventLinesAreWrittenWhateverTheLevel)
{
    res_dbg_level = 0;
    res_event_line("mom/res_mom_part.cpp", "res_part_vol_warning_task", 10, "slot1 Partition usb0 is readonly.");
    std::string e = events_text();
    EXPECT_NE(std::string::npos,
              e.find("EVENT mom/res_mom_part.cpp:10 res_part_vol_warning_task: slot1 Partition usb0 is readonly."));
    EXPECT_EQ(std::string::npos, zlog_text().find("readonly"));
    /* Not a diagnostic line: the log library's own copy to the system log. */
    std::string s = syslog_text();
    EXPECT_EQ(std::string::npos, s.find("DEBUG")) << s;
    EXPECT_NE(std::string::npos, s.find("]: %STOVIG-4-EVENT: mom/res_mom_part.cpp:10 res_part_vol_warning_task: "
                                        "slot1 Partition usb0 is readonly.\n"))
        << s;
}

TEST_F(LogChannels, DefaultRoutingKeepsErrorsAndWarningsOnly)
{
    open_log("");
    res_dbg_level = 4;
    RES_ERR("an error %d", 1);
    RES_WARN("a warning %d", 2);
    RES_DBG("a debug line %d", 3);
    RES_VERBOSE("a verbose line %d", 4);
    std::string z = zlog_text();
    EXPECT_NE(std::string::npos, z.find("an error 1"));
    EXPECT_NE(std::string::npos, z.find("a warning 2"));
    EXPECT_EQ(std::string::npos, z.find("a debug line")) << z;
    EXPECT_EQ(std::string::npos, z.find("a verbose line")) << z;
    /* The syslog channel keeps its own gate, whatever the log library keeps. */
    std::string s = syslog_text();
    EXPECT_NE(std::string::npos, s.find("a debug line 3")) << s;
    EXPECT_NE(std::string::npos, s.find("a verbose line 4")) << s;
}

TEST_F(LogChannels, MessageNewlineLeavesNoBlankLine)
{
    RES_DBG("CAP:flash_id=%s\n", "EMMC-8G");
    RES_DBG("next");
    std::string z = zlog_text();
    EXPECT_NE(std::string::npos, z.find(" TestBody: CAP:flash_id=EMMC-8G\n2")) << z;
}

TEST_F(LogChannels, NullHandleSilencesZlog)
{
    res_zlog_handle = nullptr;
    RES_ERR("not written");
    EXPECT_EQ(std::string::npos, zlog_text().find("not written"));
}

TEST(ZlogInit, UnopenableDestinationGivesMinus70)
{
    char tmpl[] = "/tmp/stovig-zbad-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    std::string dir = tmpl;
    std::ofstream(dir + "/cfg.ini") << "[log]\nfile = " << dir << "/no/such/dir/\n";
    setenv("STOVIG_CONFIG", (dir + "/cfg.ini").c_str(), 1);
    qn_platform_config_reload();
    qn_zlog_category_t *saved = res_zlog_handle;
    EXPECT_EQ(-70, res_zlog_init());
    EXPECT_EQ(nullptr, res_zlog_handle);
    res_zlog_handle = saved;
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    std::system(("rm -rf " + dir).c_str());
}

TEST(AtSnprintf, BoundsAndTerminates)
{
    char buf[6];
    EXPECT_EQ(5, at_snprintf(buf, sizeof buf, "%s", "abcdefgh"));
    EXPECT_STREQ("abcde", buf);
    EXPECT_EQ(3, at_snprintf(buf, sizeof buf, "%d", 123));
    EXPECT_STREQ("123", buf);
    EXPECT_EQ(0, at_snprintf(buf, 0, "%d", 1));
}

} // namespace
