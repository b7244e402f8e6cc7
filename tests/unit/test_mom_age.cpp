/* The age of each node's data: saving a record notes its kind on the node it
 * names, and the age counts from there. */
#include "node_store.h"
#include "node_store_test.h"

#include "mom/res_mom_age.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_part.h"

#include <gtest/gtest.h>

namespace {

class MomAgeTest : public NodeStoreTest {
protected:
    void SetUp() override
    {
        NodeStoreTest::SetUp();
        if (HasFatalFailure())
            return;
        card = add_node(0, 5, 3);
        ASSERT_NE(card, nullptr);
        idx.t_devid = 0;
        idx.t_slotid = 5;
        idx.t_sslotid = 0;
    }
    struct res_mom_node *card = nullptr;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
};

TEST_F(MomAgeTest, ANewNodeHasNeverReceivedAnything)
{
    for (int k = 0; k < RES_MOM_REC_KIND_NUM; ++k)
        EXPECT_EQ(res_mom_node_age_s(card, static_cast<res_mom_rec_kind>(k), res_mom_age_now_ms()), -1);
    EXPECT_EQ(card->stale, 0u);
}

TEST_F(MomAgeTest, AnIoRecordNotesOnlyTheIoKindOnTheNodeItNames)
{
    PUtils__StovigIo rec = P_UTILS__STOVIG_IO__INIT;
    rec.index = &idx;
    uint64_t before = res_mom_age_now_ms();
    EXPECT_EQ(res_mom_save_io(&rec), 0);
    EXPECT_GE(card->rx_ms[RES_MOM_REC_IO], before);
    EXPECT_LE(card->rx_ms[RES_MOM_REC_IO], res_mom_age_now_ms());
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_VOL], 0u);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_RO], 0u);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_LIFETIME], 0u);
    EXPECT_EQ(res_local_node.rx_ms[RES_MOM_REC_IO], 0u);
}

TEST_F(MomAgeTest, CapacityAndReadOnlyRecordsNoteTheirOwnKinds)
{
    PUtils__StovigPartInfo vol = P_UTILS__STOVIG_PART_INFO__INIT;
    vol.index = &idx;
    res_mom_save_vol(&vol);
    EXPECT_NE(card->rx_ms[RES_MOM_REC_VOL], 0u);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_RO], 0u);
    PUtils__StovigPartRo ro = P_UTILS__STOVIG_PART_RO__INIT;
    ro.index = &idx;
    res_mom_save_ro(&ro);
    EXPECT_NE(card->rx_ms[RES_MOM_REC_RO], 0u);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_IO], 0u);
}

TEST_F(MomAgeTest, ALifetimeRecordNotesTheLifetimeKind)
{
    PUtils__StovigDiskInfo rec = P_UTILS__STOVIG_DISK_INFO__INIT;
    rec.index = &idx;
    res_mom_save_disk_lft(RES_MOM_KIND_VALUE_DIRECT, &rec);
    EXPECT_NE(card->rx_ms[RES_MOM_REC_LIFETIME], 0u);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_IO], 0u);
}

TEST_F(MomAgeTest, ARecordOfAnUnknownNodeNotesNothing)
{
    PUtils__Nodeindex other = P_UTILS__NODEINDEX__INIT;
    other.t_devid = 0;
    other.t_slotid = 9;
    PUtils__StovigIo rec = P_UTILS__STOVIG_IO__INIT;
    rec.index = &other;
    EXPECT_EQ(res_mom_save_io(&rec), 0);
    EXPECT_EQ(card->rx_ms[RES_MOM_REC_IO], 0u);
    EXPECT_EQ(res_local_node.rx_ms[RES_MOM_REC_IO], 0u);
}

TEST_F(MomAgeTest, AgeCountsSecondsFromTheLastReceptionAndNeverGoesNegative)
{
    card->rx_ms[RES_MOM_REC_VOL] = 10000;
    EXPECT_DOUBLE_EQ(res_mom_node_age_s(card, RES_MOM_REC_VOL, 12500), 2.5);
    EXPECT_DOUBLE_EQ(res_mom_node_age_s(card, RES_MOM_REC_VOL, 10000), 0.0);
    EXPECT_DOUBLE_EQ(res_mom_node_age_s(card, RES_MOM_REC_VOL, 9000), 0.0);
}

TEST_F(MomAgeTest, KindNamesAreTheOutputsWords)
{
    EXPECT_STREQ(res_mom_rec_kind_name(RES_MOM_REC_IO), "io");
    EXPECT_STREQ(res_mom_rec_kind_name(RES_MOM_REC_VOL), "capacity");
    EXPECT_STREQ(res_mom_rec_kind_name(RES_MOM_REC_RO), "readonly");
    EXPECT_STREQ(res_mom_rec_kind_name(RES_MOM_REC_LIFETIME), "lifetime");
}

} // namespace
