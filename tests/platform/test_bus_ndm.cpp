/* Device manager stand-in: identity from the config file, names, user slot
 * and role from the device manager's records on the bus. */
#include "test_mom_helpers.h"

#include "proto/p_dev.pb-c.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_ndm.h"

#include <gtest/gtest.h>

namespace {

class BusNdmTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        qn_mom_embedded_reset();
        dm_cache_reset();
    }
    void TearDown() override
    {
        dm_cache_reset();
        if (writer)
            qn_mom_client_free(writer);
        test_loop_run(1);
        qn_mom_embedded_reset();
    }
    void start_writer()
    {
        writer = qn_mom_client_init("TEST", res_master);
        ASSERT_NE(writer, nullptr);
        ASSERT_EQ(qn_mom_client_connect(writer, QN_MOM_TUNNER_DB, nullptr, nullptr), 0);
        test_loop_run(1);
    }
    qn_mom_client_t *writer = nullptr;
};

TEST_F(BusNdmTest, IdentityComesFromTheConfigFile)
{
    config_file cfg("[node]\ndevid = 1\nphy_slot = 4\nuser_slot = 9\nnode_type = 3\nrole = 2\n"
                    "slot_name = LC-9\ncard_name = LC48\n");
    EXPECT_EQ(ndm_get_my_devid(), 1);
    EXPECT_EQ(ndm_get_my_phy_slot(), 4);
    EXPECT_EQ(ndm_get_my_user_slot(), 9);
    EXPECT_EQ(ndm_get_my_node_type(), 3);
    EXPECT_EQ(ndm_get_my_dev_grole(), 2);
    char buf[32];
    ASSERT_EQ(ndm_get_user_slot_name(1, 9, 0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "LC-9");
    ASSERT_EQ(ndm_get_user_slot_name(1, 3, 0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "slot3");
    ASSERT_EQ(ndm_get_card_name_by_slot(1, 9, 0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "LC48");
    EXPECT_EQ(ndm_get_card_name_by_slot(1, 4, 0, buf, sizeof buf), -1);
    EXPECT_EQ(ndm_get_user_slot_name(1, 3, 0, nullptr, 0), -1);
}

TEST_F(BusNdmTest, UnknownCacheObjectIsRefused)
{
    EXPECT_EQ(dm_cache_sub_obj(DM_OBJ_CARD_INFO), 0);
    EXPECT_EQ(dm_cache_sub_obj(3), 0);
    EXPECT_EQ(dm_cache_sub_obj(99), -1);
    EXPECT_EQ(dm_cache_init(nullptr, "x"), -1);
}

TEST_F(BusNdmTest, CardRecordsAndTheNodesRoleRecordAreFollowed)
{
    config_file cfg("[node]\ndevid = 0\nphy_slot = 2\nuser_slot = 7\nnode_type = 2\nrole = 2\n");
    start_writer();
    ASSERT_EQ(dm_cache_sub_obj(DM_OBJ_CARD_INFO), 0);
    ASSERT_EQ(dm_cache_sub_obj(DM_OBJ_DP_LIB_GROLE), 0);
    ASSERT_EQ(dm_cache_init(res_master, "qn-stovig"), 0);
    test_loop_run(2);

    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    idx.t_mod = 2;
    idx.slotid = 2;
    card.index = &idx;
    card.is_online = 1;
    card.user_slot = 12;
    card.name = const_cast<char *>("CM-A");
    ASSERT_EQ(qn_mom_set(writer, QN_MOM_TUNNER_DB, &card.base, 0, 0), 0);
    PDev__DpLibGrole role = P_DEV__DP_LIB_GROLE__INIT;
    role.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
    qn_mom_client_set_node(writer, 0, 3); /* another node's role record */
    ASSERT_EQ(qn_mom_set(writer, QN_MOM_TUNNER_DB, &role.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return ndm_get_my_user_slot() == 12; }));
    test_loop_run(3);
    EXPECT_EQ(ndm_get_my_dev_grole(), 2); /* still the config's */
    qn_mom_client_set_node(writer, 0, 2);
    ASSERT_EQ(qn_mom_set(writer, QN_MOM_TUNNER_DB, &role.base, 0, 0), 0);
    ASSERT_TRUE(run_until([] { return ndm_get_my_dev_grole() == 1; }));
    char buf[32];
    ASSERT_EQ(ndm_get_card_name_by_slot(0, 12, 0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "CM-A");
}

} // namespace
