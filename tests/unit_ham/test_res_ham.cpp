#include "fake_ham.h"
#include "misc/res_ham.h"
#include "misc/res_misc.h"
#include "test_loop.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using calls = std::vector<std::string>;

class Ham : public ::testing::Test {
  protected:
    void SetUp() override
    {
        test_loop_setup();
        fake_ham = fake_ham_state{};
    }
    void TearDown() override { res_misc_del_timer(&res_ham_feed_slot); }
};

TEST_F(Ham, RestartRegistrationPassesZeroAndOne)
{
    EXPECT_EQ(0, res_misc_reg_ham_restart());
    EXPECT_EQ(calls{"restart 0 1"}, fake_ham.calls);
    fake_ham.fail_restart = true;
    EXPECT_EQ(-1, res_misc_reg_ham_restart());
}

TEST_F(Ham, InitRegistersThenFeedsOnce)
{
    EXPECT_EQ(0, res_ham_watchdog_init(120, 5));
    EXPECT_EQ((calls{"reg 120 5", "feed 120 5"}), fake_ham.calls);
}

TEST_F(Ham, FailedRegistrationIsMinus1WithoutFeeding)
{
    fake_ham.fail_reg = true;
    EXPECT_EQ(-1, res_ham_watchdog_init(120, 5));
    EXPECT_EQ(calls{"reg 120 5"}, fake_ham.calls);
}

TEST_F(Ham, FailedFirstFeedWithdrawsTheRegistration)
{
    fake_ham.fail_feed = true;
    EXPECT_EQ(-2, res_ham_watchdog_init(120, 5));
    EXPECT_EQ((calls{"reg 120 5", "feed 120 5", "unreg"}), fake_ham.calls);
}

TEST_F(Ham, FeedLoopArmsThe30SecondTimer)
{
    ASSERT_EQ(0, res_misc_ham_feed_loop());
    EXPECT_TRUE(res_misc_timer_armed(&res_ham_feed_slot));
    EXPECT_STREQ("res_ham_timer", res_ham_feed_slot.name);
    EXPECT_EQ(30, res_ham_feed_slot.interval);
    test_loop_run(29);
    EXPECT_TRUE(fake_ham.calls.empty());
    test_loop_run(2);
    EXPECT_EQ(calls{"feed 120 5"}, fake_ham.calls);
}

TEST_F(Ham, ArmingTheFeedTimerTwiceIsMinus2AndLeavesOneTimer)
{
    ASSERT_EQ(0, res_misc_ham_feed_loop());
    EXPECT_EQ(-2, res_misc_ham_feed_loop());
    test_loop_run(31);
    EXPECT_EQ(calls{"feed 120 5"}, fake_ham.calls);
}

TEST_F(Ham, FeedTimerReArmsEvenWhenTheFeedFails)
{
    fake_ham.fail_feed = true;
    ASSERT_EQ(0, res_misc_ham_feed_loop());
    test_loop_run(61);
    EXPECT_EQ((calls{"feed 120 5", "feed 120 5"}), fake_ham.calls);
    EXPECT_TRUE(res_misc_timer_armed(&res_ham_feed_slot));
}

TEST_F(Ham, FeedTimerCallbackReturnsTheReArmResult)
{
    EXPECT_EQ(0, res_misc_ham_feed_timer(&res_ham_feed_slot));
    /* now armed: a second direct call cannot arm it again */
    EXPECT_EQ(-2, res_misc_ham_feed_timer(&res_ham_feed_slot));
}

TEST_F(Ham, UnregisterReturnsHamsResult)
{
    EXPECT_EQ(0, res_ham_watchdog_unreg());
    EXPECT_EQ(calls{"unreg"}, fake_ham.calls);
}

} // namespace
