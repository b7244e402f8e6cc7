#include "misc/res_misc.h"
#include "misc/res_zlog.h"
#include "test_loop.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

int fired;
int count_cb(qn_thread *)
{
    ++fired;
    return 0;
}

class Timers : public ::testing::Test {
  protected:
    void SetUp() override
    {
        test_loop_setup();
        memset(&slot, 0, sizeof slot);
        fired = 0;
    }
    void TearDown() override { res_misc_del_timer(&slot); }
    qn_thread slot;
};

TEST_F(Timers, AddArmsAndFiresOnce)
{
    ASSERT_EQ(0, res_misc_add_timer(&slot, count_cb, 2, "T"));
    EXPECT_TRUE(res_misc_timer_armed(&slot));
    test_loop_run(1);
    EXPECT_EQ(0, fired);
    test_loop_run(2);
    EXPECT_EQ(1, fired);
    EXPECT_FALSE(res_misc_timer_armed(&slot));
    test_loop_run(3);
    EXPECT_EQ(1, fired);
}

TEST_F(Timers, AddOnArmedSlotReturnsMinus2AndKeepsSchedule)
{
    ASSERT_EQ(0, res_misc_add_timer(&slot, count_cb, 2, "T"));
    EXPECT_EQ(-2, res_misc_add_timer(&slot, count_cb, 50, "T"));
    test_loop_run(4);
    EXPECT_EQ(1, fired); /* still fired at 2, not pushed out to 50 */
}

TEST_F(Timers, ResetCancelsAndRearms)
{
    ASSERT_EQ(0, res_misc_add_timer(&slot, count_cb, 2, "T"));
    ASSERT_EQ(0, res_misc_reset_timer(&slot, count_cb, 6, "T"));
    test_loop_run(4);
    EXPECT_EQ(0, fired);
    test_loop_run(4);
    EXPECT_EQ(1, fired);
}

TEST_F(Timers, ZeroOrNegativeIntervalRefused)
{
    EXPECT_EQ(-1, res_misc_add_timer(&slot, count_cb, 0, "T"));
    EXPECT_EQ(-1, res_misc_add_timer(&slot, count_cb, -5, "T"));
    EXPECT_EQ(-1, res_misc_reset_timer(&slot, count_cb, 0, "T"));
    EXPECT_EQ(-1, res_misc_reset_timer(&slot, count_cb, -1, "T"));
    EXPECT_EQ(-1, res_misc_add_timer(nullptr, count_cb, 1, "T"));
    EXPECT_EQ(-1, res_misc_add_timer(&slot, nullptr, 1, "T"));
    EXPECT_FALSE(res_misc_timer_armed(&slot));
}

TEST_F(Timers, DeleteArmedAndUnarmed)
{
    EXPECT_EQ(-1, res_misc_del_timer(nullptr));
    EXPECT_EQ(0, res_misc_del_timer(&slot));
    ASSERT_EQ(0, res_misc_add_timer(&slot, count_cb, 1, "T"));
    EXPECT_EQ(0, res_misc_del_timer(&slot));
    EXPECT_FALSE(res_misc_timer_armed(&slot));
    test_loop_run(3);
    EXPECT_EQ(0, fired);
}

qn_thread rearm_slot;
int rearm_cb(qn_thread *)
{
    ++fired;
    return res_misc_add_timer(&rearm_slot, rearm_cb, 1, "R");
}

TEST_F(Timers, CallbackReArmsItsOwnSlot)
{
    memset(&rearm_slot, 0, sizeof rearm_slot);
    ASSERT_EQ(0, res_misc_add_timer(&rearm_slot, rearm_cb, 1, "R"));
    /* a loaded machine may stretch the timer seconds: wait for the count */
    for (int i = 0; i < 500 && fired < 3; ++i)
        test_loop_run(1);
    EXPECT_GE(fired, 3);
    res_misc_del_timer(&rearm_slot);
}

TEST(ExecSh, ExitStatusBecomesNegative)
{
    EXPECT_EQ(0, res_misc_exec_sh("true"));
    EXPECT_EQ(-3, res_misc_exec_sh("exit 3"));
    EXPECT_EQ(-127, res_misc_exec_sh("/no/such/command-stovig 2>/dev/null"));
}

TEST(ExecSh, KilledBySignalIsMinus1)
{
    EXPECT_EQ(-1, res_misc_exec_sh("kill -9 $$"));
}

TEST(ExecSh, WorksWhileChildSignalsAreIgnored)
{
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(-4, res_misc_exec_sh("exit 4"));
    signal(SIGCHLD, SIG_DFL);
}

class FieldFile : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-field-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    std::string write(const std::string &name, const std::string &content)
    {
        std::string p = dir + "/" + name;
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }
    std::string dir;
};

TEST_F(FieldFile, NullArgumentsAreEinval)
{
    char buf[8];
    EXPECT_EQ(-22, res_get_field_form_file(nullptr, buf, sizeof buf));
    EXPECT_EQ(-22, res_get_field_form_file("/x", nullptr, 8));
}

TEST_F(FieldFile, MissingFileIsMinus1)
{
    char buf[8];
    EXPECT_EQ(-1, res_get_field_form_file((dir + "/none").c_str(), buf, sizeof buf));
}

TEST_F(FieldFile, ExactlyLenBytesLeavesNoTerminator)
{
    std::string p = write("f", "12345678");
    char buf[9];
    memset(buf, 'Z', sizeof buf);
    ASSERT_EQ(0, res_get_field_form_file(p.c_str(), buf, 8));
    EXPECT_EQ(0, memcmp(buf, "12345678", 8));
    EXPECT_EQ('Z', buf[8]); /* nothing written past len */
}

TEST_F(FieldFile, LongerFileIsCutAtLen)
{
    std::string p = write("f", "1234567890");
    char buf[4];
    ASSERT_EQ(0, res_get_field_form_file(p.c_str(), buf, sizeof buf));
    EXPECT_EQ(0, memcmp(buf, "1234", 4));
}

TEST_F(FieldFile, EmptyFileGivesZeroedBuffer)
{
    std::string p = write("f", "");
    char buf[8];
    memset(buf, 'Z', sizeof buf);
    ASSERT_EQ(0, res_get_field_form_file(p.c_str(), buf, sizeof buf));
    for (char c : buf)
        EXPECT_EQ(0, c);
}

TEST_F(FieldFile, UnreadableFileIsMinusErrno)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root opens any file";
    std::string p = write("f", "x");
    chmod(p.c_str(), 0);
    char buf[4];
    EXPECT_EQ(-EACCES, res_get_field_form_file(p.c_str(), buf, sizeof buf));
}

TEST_F(FieldFile, DirectoryReadFailsWithMinusErrno)
{
    char buf[4];
    EXPECT_EQ(-EISDIR, res_get_field_form_file(dir.c_str(), buf, sizeof buf));
}

} // namespace
