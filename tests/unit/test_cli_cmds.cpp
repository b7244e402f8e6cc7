/* The storage commands through the command-line service's graphs: what each
 * form prints, what it changes in the settings and timers, and the saved
 * configuration lines. */
#include "cli/res_cli_main.h"
#include "misc/res_misc.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "qn_cli_standin.h"
#include "qn_platform_config.h"
#include "test_loop.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

class CliCommands : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/stovig-clicmd-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        setenv("TMPDIR", dir.c_str(), 1);
        std::system(("mkdir -p " + dir + "/stovig").c_str());
        unsetenv("STOVIG_CONFIG");
        qn_platform_config_reload();
        test_loop_setup();
        ASSERT_EQ(0, cli_client_init("stovig", res_master));
        ASSERT_EQ(0, res_cli_init());
    }
    static void TearDownTestSuite()
    {
        unsetenv("TMPDIR");
        std::system(("rm -rf " + dir).c_str());
    }
    void SetUp() override
    {
        res_mom_data_init(); /* role unset: the commands are available */
        res_disk_type = RES_DISK_SSD;
        res_mon_init(res_disk_type);
        res_dbg_level = 0;
    }
    void TearDown() override
    {
        res_misc_del_timer(&res_mon_io_thread);
        res_misc_del_timer(&res_mon_ro_thread);
        res_misc_del_timer(&res_mon_cap_thread);
        res_misc_del_timer(&res_mon_disk_thread);
    }
    std::string config(const std::string &line, int want_status = 0)
    {
        std::string out;
        EXPECT_EQ(want_status, qn_cli_standin_run(line, true, &out)) << line << "\n" << out;
        return out;
    }
    /* "show running-config" around its configuration lines. */
    static std::string framed(const std::string &lines)
    {
        return "!\n" + lines + "!\nend\n";
    }
    std::string exec(const std::string &line)
    {
        std::string out;
        EXPECT_EQ(0, qn_cli_standin_run(line, false, &out)) << line << "\n" << out;
        return out;
    }
    std::string exec_refused(const std::string &line)
    {
        std::string out;
        EXPECT_EQ(1, qn_cli_standin_run(line, false, &out)) << line << "\n" << out;
        return out;
    }
    static std::string dir;
};

std::string CliCommands::dir;

TEST_F(CliCommands, ThresholdWhileOffOpensWithTheDefaultInterval)
{
    EXPECT_EQ("Close storage io monitor.\n\n", config("no storage io set"));
    EXPECT_EQ(-100, io_interval);
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_io_thread));
    EXPECT_EQ("Open storage io monitor.\nSet storage io interval 10 seconds, threshold 60%.\n\n",
              config("storage io set threshold 60"));
    EXPECT_EQ(10, io_interval);
    EXPECT_EQ(60, io_threshold);
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
}

TEST_F(CliCommands, IntervalWhileOffResetsTheThreshold)
{
    config("storage io set threshold 70");
    config("no storage io set");
    EXPECT_EQ("Open storage io monitor.\nSet storage io interval 20 seconds, threshold 50%.\n\n",
              config("storage io set interval 20"));
    EXPECT_EQ(20, io_interval);
    EXPECT_EQ(50, io_threshold);
    EXPECT_EQ(20, res_mon_io_thread.interval);
}

TEST_F(CliCommands, IntervalOrThresholdWhileOn)
{
    EXPECT_EQ("Set storage capacity interval 45 seconds.\n\n", config("storage capacity set interval 45"));
    EXPECT_EQ("Set storage capacity threshold 90%.\n\n", config("storage capacity set threshold 90"));
    EXPECT_EQ("Set storage capacity interval 60 seconds, threshold 85%.\n\n",
              config("storage capacity set interval 60 threshold 85"));
    EXPECT_EQ(60, cap_interval);
    EXPECT_EQ(85, cap_threshold);
    EXPECT_EQ("Reset default storage capacity monitor.\nSet storage capacity interval 30 seconds, threshold 80%.\n\n",
              config("default storage capacity set"));
    EXPECT_EQ(30, cap_interval);
    EXPECT_EQ(80, cap_threshold);
}

TEST_F(CliCommands, LifetimeMonthSingularAndPlural)
{
    EXPECT_EQ("Set storage lifetime threshold 1 month.\n\n", config("storage lifetime set threshold 1"));
    EXPECT_EQ(1, disk_threshold);
    EXPECT_EQ("Set storage lifetime threshold 2 months.\n\n", config("storage lifetime set threshold 2"));
    EXPECT_EQ("Set storage lifetime interval 90 seconds, threshold 1 month.\n\n",
              config("storage lifetime set interval 90 threshold 1"));
    EXPECT_EQ("Close storage lifetime monitor.\n\n", config("no storage lifetime set"));
    EXPECT_EQ("Open storage lifetime monitor.\nSet storage lifetime interval 120 seconds, threshold 12 months.\n\n",
              config("storage lifetime set interval 120"));
    EXPECT_EQ("Reset default storage lifetime monitor.\n"
              "Set storage lifetime interval 60 seconds, threshold 12 months.\n\n",
              config("default storage lifetime set"));
}

TEST_F(CliCommands, ParserRefusals)
{
    EXPECT_EQ("% Incomplete command.\n", config("storage io set", 1));
    EXPECT_NE(std::string::npos, config("storage io set interval 9", 1).find("out of range <10-3600>"));
    EXPECT_NE(std::string::npos, config("storage io set threshold 49", 1).find("out of range <50-99>"));
    EXPECT_EQ("% Incomplete command.\n", config("storage ro set", 1));
    EXPECT_NE(std::string::npos, config("storage ro set interval 29", 1).find("<30-3600>"));
    EXPECT_NE(std::string::npos, config("storage capacity set threshold 100", 1).find("<10-99>"));
    EXPECT_NE(std::string::npos, config("storage lifetime set interval 59", 1).find("<60-3600>"));
    EXPECT_NE(std::string::npos, config("default storage ro set interval 40", 1).find("^"));
    EXPECT_EQ(10, io_interval);
    EXPECT_EQ(30, ro_interval);
}

TEST_F(CliCommands, ReadOnlyForms)
{
    EXPECT_EQ("Close storage read-only monitor.\n\n", config("no storage ro set"));
    EXPECT_EQ(framed("no storage ro set\n"), exec("show running-config"));
    EXPECT_EQ("Open storage read-only monitor.\nSet storage read-only interval 40 seconds.\n\n",
              config("storage ro set interval 40"));
    EXPECT_EQ(framed("storage ro set interval 40\n"), exec("show running-config"));
    EXPECT_EQ("Reset default storage read-only monitor.\nSet storage read-only interval 30 seconds.\n\n",
              config("default storage ro set"));
    EXPECT_EQ(framed(""), exec("show running-config"));
}

TEST_F(CliCommands, GeneratedLinesOfEveryForm)
{
    config("storage io set interval 20");
    config("storage capacity set threshold 90");
    config("storage lifetime set interval 90 threshold 3");
    config("no storage ro set");
    EXPECT_EQ(framed("storage io set interval 20\nno storage ro set\nstorage capacity set threshold 90\n"
                     "storage lifetime set interval 90 threshold 3\n"),
              exec("show running-config"));
    config("no storage io set");
    config("storage capacity set interval 40 threshold 90");
    EXPECT_EQ(framed("no storage io set\nno storage ro set\nstorage capacity set interval 40 threshold 90\n"
                     "storage lifetime set interval 90 threshold 3\n"),
              exec("show running-config"));
}

TEST_F(CliCommands, SettingDisplays)
{
    EXPECT_EQ("Storage IO Monitor:     Opened\nStorage IO Interval:    10 Seconds\nStorage IO Threshold:   50%\n\n",
              exec("show storage io set"));
    config("no storage ro set");
    EXPECT_EQ("Storage Read-only Monitor:     Closed\n\n", exec("show storage ro set"));
    EXPECT_EQ("Storage Capacity Monitor:     Opened\nStorage Capacity Interval:    30 Seconds\n"
              "Storage Capacity Threshold:   80%\n\n",
              exec("show storage capacity set"));
    config("storage lifetime set threshold 1");
    EXPECT_EQ("Storage Lifetime Monitor:     Opened\nStorage Lifetime Interval:    60 Seconds\n"
              "Storage Lifetime Threshold:   1 month\n\n",
              exec("show storage lifetime set"));
}

TEST_F(CliCommands, DebugLevels)
{
    EXPECT_EQ("Set stovig debug to 3\n", exec("debug stovig"));
    EXPECT_EQ(3u, res_dbg_level);
    EXPECT_EQ("Set stovig debug to 3\n", exec("debug stovig"));
    EXPECT_EQ("Set stovig debug to 5\n", exec("debug stovig 5"));
    EXPECT_EQ(5u, res_dbg_level);
    EXPECT_EQ("Set stovig debug to 0\n", exec("no debug stovig"));
    EXPECT_EQ(0u, res_dbg_level);
    exec("debug stovig 2");
    EXPECT_EQ("All possible debugging has been turned off\n", exec("undebug all"));
    EXPECT_EQ(0u, res_dbg_level);
}

TEST_F(CliCommands, CommandsExistOnlyWhereTheNodeIsMaster)
{
    res_local_node.role = 2; /* standby */
    std::string out;
    EXPECT_EQ(1, qn_cli_standin_run("storage io set interval 20", true, &out));
    EXPECT_EQ(1, qn_cli_standin_run("show storage io set", false, &out));
    EXPECT_EQ(1, qn_cli_standin_run("debug stovig", false, &out));
    res_local_node.role = 1;
    EXPECT_EQ(0, qn_cli_standin_run("show storage io set", false, &out));
}

/* Lines starting with "!" are comments in every mode, as in a saved
 * configuration: nothing runs, nothing is printed, nothing is refused. */
TEST_F(CliCommands, CommentLinesAreSkipped)
{
    EXPECT_EQ("", config("!"));
    EXPECT_EQ("", config("! storage io set interval 20"));
    EXPECT_EQ("", config("   !storage io set interval 20"));
    EXPECT_EQ("", exec("! show storage io set"));
    EXPECT_EQ(10, io_interval);
    /* "!" further on in a line is no comment. */
    EXPECT_NE(std::string::npos, config("storage io set interval 20 !", 1).find("^"));
}

TEST_F(CliCommands, DoRunsExecCommandsFromConfigurationMode)
{
    EXPECT_EQ(exec("show storage io set"), config("do show storage io set"));
    EXPECT_EQ(exec("show running-config"), config("do sh run"));
    EXPECT_EQ("Set stovig debug to 4\n", config("do debug stovig 4"));
    EXPECT_EQ(4u, res_dbg_level);
    EXPECT_EQ("Set stovig debug to 0\n", config("do no debug stovig"));
    EXPECT_EQ(0u, res_dbg_level);
    EXPECT_EQ("% Incomplete command.\n", config("do", 1));
    /* The caret points into the exec line, past "do". */
    EXPECT_EQ(std::string(8, ' ') + "^\n% Invalid input detected at '^' marker.\n", config("do show bogus", 1));
    /* Configuration commands are not exec commands, nor are mode changes. */
    EXPECT_NE(std::string::npos, config("do storage io set interval 20", 1).find("^"));
    EXPECT_NE(std::string::npos, config("do configure terminal", 1).find("^"));
    EXPECT_NE(std::string::npos, exec_refused("do show storage io set").find("^"));
}

/* "default" may be abbreviated like any word, as long as no other word of
 * configuration mode starts the same ("d" could be "do"). */
TEST_F(CliCommands, DefaultIsAbbreviated)
{
    config("storage capacity set interval 60 threshold 85");
    EXPECT_EQ("Reset default storage capacity monitor.\nSet storage capacity interval 30 seconds, threshold 80%.\n\n",
              config("def storage capacity set"));
    config("storage ro set interval 40");
    EXPECT_EQ(config("default storage ro set"), config("de sto ro s"));
    EXPECT_EQ(30, ro_interval);
    EXPECT_EQ("% Ambiguous command: \"d\"\n", config("d storage ro set", 1));
    EXPECT_EQ("Close storage io monitor.\n\n", config("no storage io set"));
    EXPECT_NE(std::string::npos, exec_refused("def storage io set").find("^"));
}

TEST_F(CliCommands, LongNumbersAreOutOfRange)
{
    EXPECT_EQ(std::string(24, ' ') + "^\n% Invalid input detected at '^' marker: number out of range <10-3600>.\n",
              config("storage io set interval 12345678901234567890", 1));
    EXPECT_NE(std::string::npos, config("storage capacity set threshold 99999999999999999999", 1)
                                     .find("number out of range <10-99>."));
    EXPECT_NE(std::string::npos, exec_refused("debug stovig 123456789012345678901234567890").find("<0-5>"));
    EXPECT_EQ(10, io_interval);
}

TEST_F(CliCommands, ShowRunningConfigHasItsFrameAtDefaults)
{
    EXPECT_EQ("!\n!\nend\n", exec("show running-config"));
}

TEST_F(CliCommands, ExitAndQuit)
{
    EXPECT_EQ("", exec("exit"));
    EXPECT_EQ("", exec("quit"));
    EXPECT_EQ("", config("exit"));
    EXPECT_EQ("", config("quit"));
    EXPECT_EQ("", config("end"));
}

} // namespace
