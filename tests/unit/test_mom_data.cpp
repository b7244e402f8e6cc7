/* The per-node store: order, lookups, removal and the entry lists. */
#include "node_store.h"
#include "node_store_test.h"
#include "test_mom_helpers.h"

#include "mom/res_mom_data.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using MomDataTest = NodeStoreTest;

TEST_F(MomDataTest, InitLeavesOnlyTheLocalNodeWithUnsetIdentity)
{
    ASSERT_EQ(res_mom_data_init(), 0);
    ASSERT_EQ(nodes(), std::vector<struct res_mom_node *>{&res_local_node});
    EXPECT_EQ(res_local_node.devid, -1);
    EXPECT_EQ(res_local_node.slotid, -1);
    EXPECT_EQ(res_local_node.sslotid, -1);
    EXPECT_EQ(res_local_node.user_slot, -1);
    EXPECT_EQ(res_local_node.role, -1);
    EXPECT_TRUE(res_list_empty(&res_local_node.disk_io_list));
    EXPECT_TRUE(res_list_empty(&res_local_node.lifetime_list));
    EXPECT_EQ(res_zlog_role, &res_local_node.role);
}

TEST_F(MomDataTest, NewNodeHasUnsetIdentityAndEmptyLists)
{
    struct res_mom_node *n = res_mom_malloc_node_init();
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->devid, -1);
    EXPECT_EQ(n->slotid, -1);
    EXPECT_EQ(n->sslotid, -1);
    EXPECT_EQ(n->user_slot, -1);
    EXPECT_EQ(n->role, -1);
    EXPECT_TRUE(res_list_empty(&n->proc_io_list));
    EXPECT_TRUE(res_list_empty(&n->part_list));
    free(n);
}

TEST_F(MomDataTest, NodesGoAfterLocalByAscendingUserSlot)
{
    log_capture log;
    struct res_mom_node *n3 = add_node(0, 13, 3);
    EXPECT_TRUE(log.has("only master node exist, add tail."));
    struct res_mom_node *n1 = add_node(0, 11, 1);
    struct res_mom_node *n2 = add_node(0, 12, 2);
    EXPECT_EQ(nodes(), (std::vector<struct res_mom_node *>{&res_local_node, n1, n2, n3}));
    char between[128];
    snprintf(between, sizeof between, "add new[%p] between [%p] and [%p]", static_cast<void *>(&n2->list),
             static_cast<void *>(&n1->list), static_cast<void *>(&n3->list));
    EXPECT_TRUE(log.has(between)) << log.text();
    struct res_mom_node *n4 = add_node(0, 14, 4);
    EXPECT_TRUE(log.has("loop to list tail, add tail."));
    EXPECT_TRUE(log.has("local_list now: [0,1,0 uslot 5] [0,11,0 uslot 1] [0,12,0 uslot 2] [0,13,0 uslot 3] "
                        "[0,14,0 uslot 4]"))
        << log.text();
    EXPECT_EQ(nodes().back(), n4);
}

TEST_F(MomDataTest, SecondNodeWithEqualUserSlotGoesAheadOfTheFirst)
{
    struct res_mom_node *a = add_node(0, 12, 2);
    struct res_mom_node *b = add_node(0, 22, 2);
    EXPECT_EQ(nodes(), (std::vector<struct res_mom_node *>{&res_local_node, b, a}));
}

TEST_F(MomDataTest, NodeWithSmallestUserSlotStillFollowsLocal)
{
    struct res_mom_node *a = add_node(0, 12, 2);
    struct res_mom_node *z = add_node(0, 10, 0);
    EXPECT_EQ(nodes(), (std::vector<struct res_mom_node *>{&res_local_node, z, a}));
}

TEST_F(MomDataTest, LookupByIndexComparesAllThreeValues)
{
    log_capture log;
    struct res_mom_node *a = add_node(1, 2, 7);
    const int32_t idx[3] = {1, 2, 0};
    const int32_t other_sub[3] = {1, 2, 1};
    EXPECT_EQ(res_mom_get_node_by_index2(idx), a);
    EXPECT_TRUE(log.has("try to get device[1, 2, 0] in local_list."));
    EXPECT_TRUE(log.has("in local_list."));
    EXPECT_EQ(res_mom_get_node_by_index2(other_sub), nullptr);
    EXPECT_TRUE(log.has("not in local_list."));
    PUtils__Nodeindex ni = P_UTILS__NODEINDEX__INIT;
    ni.t_devid = 1;
    ni.t_slotid = 2;
    EXPECT_EQ(res_mom_get_node_by_index(&ni), a);
    const int32_t local[3] = {0, 1, 0};
    EXPECT_EQ(res_mom_get_node_by_index2(local), &res_local_node);
}

TEST_F(MomDataTest, ClearingTheLocalNodeLeavesTheListUnchanged)
{
    log_capture log;
    struct res_mom_node *a = add_node(0, 12, 2);
    const int32_t local[3] = {0, 1, 0};
    EXPECT_EQ(res_mom_clear_node_by_index(local), 0);
    EXPECT_TRUE(log.has("remove node[0,1,0] from list."));
    EXPECT_EQ(nodes(), (std::vector<struct res_mom_node *>{&res_local_node, a}));
}

TEST_F(MomDataTest, ClearingAnUnknownIndexReturnsZeroSilently)
{
    struct res_mom_node *a = add_node(0, 12, 2);
    log_capture log;
    const int32_t unknown[3] = {0, 99, 0};
    EXPECT_EQ(res_mom_clear_node_by_index(unknown), 0);
    EXPECT_FALSE(log.has("remove node"));
    EXPECT_EQ(nodes().size(), 2u);
    (void)a;
}

TEST_F(MomDataTest, ClearingANodeFreesItWithItsLists)
{
    log_capture log;
    struct res_mom_node *a = add_node(0, 12, 2);
    struct res_mom_node *b = add_node(0, 13, 3);
    ASSERT_NE(res_mom_get_disk_io_node_by_name(&a->disk_io_list, "sda", 3), nullptr);
    ASSERT_NE(res_mom_get_part_node_by_path(&a->part_list, "/data", 5), nullptr);
    ASSERT_NE(res_mom_get_lifetime_node_by_name(&a->lifetime_list, "mmcblk0", 7), nullptr);
    struct res_mom_proc_io_node p = {};
    ASSERT_EQ(res_mom_add_node_proc_io_list(&p, &a->proc_io_list), 0);
    const int32_t idx[3] = {0, 12, 0};
    EXPECT_EQ(res_mom_clear_node_by_index(idx), 0);
    EXPECT_TRUE(log.has("remove node[0,12,0] from list."));
    EXPECT_EQ(nodes(), (std::vector<struct res_mom_node *>{&res_local_node, b}));
    /* LeakSanitizer checks that the node and its entries were freed. */
}

TEST_F(MomDataTest, NameLookupMatchesByLength)
{
    struct res_list_head list;
    res_list_init(&list);
    struct res_mom_disk_io_node *sda1 = res_mom_get_disk_io_node_by_name(&list, "sda1", 4);
    ASSERT_NE(sda1, nullptr);
    EXPECT_STREQ(sda1->disk_name, "sda1");
    EXPECT_EQ(sda1->io_flag, 0u);
    struct res_mom_disk_io_node *sda = res_mom_get_disk_io_node_by_name(&list, "sda", 3);
    ASSERT_NE(sda, nullptr);
    EXPECT_NE(sda, sda1);
    EXPECT_EQ(res_mom_get_disk_io_node_by_name(&list, "sda1", 4), sda1);
    EXPECT_EQ(res_mom_get_disk_io_node_by_name(&list, "sda1xyz", 4), sda1); /* first 4 characters */
    EXPECT_EQ(list.prev, &sda->list);                                       /* appended at the tail */
    res_mom_clear_disk_io_list(&list);
    EXPECT_TRUE(res_list_empty(&list));
}

TEST_F(MomDataTest, LongNameIsCutTo31AndNeverFoundAgainByTheFullName)
{
    struct res_list_head list;
    res_list_init(&list);
    const std::string name(40, 'n');
    struct res_mom_lifetime_node *e = res_mom_get_lifetime_node_by_name(&list, name.c_str(), 40);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->disk_name), std::string(31, 'n'));
    struct res_mom_lifetime_node *again = res_mom_get_lifetime_node_by_name(&list, name.c_str(), 40);
    EXPECT_NE(again, e);
    res_mom_clear_lifetime_list(&list);
}

TEST_F(MomDataTest, BadNameArgumentsAreRefused)
{
    log_capture log;
    struct res_list_head list;
    res_list_init(&list);
    EXPECT_EQ(res_mom_get_disk_io_node_by_name(&list, nullptr, 3), nullptr);
    EXPECT_EQ(res_mom_get_lifetime_node_by_name(&list, "sda", -1), nullptr);
    EXPECT_EQ(log.count("param null."), 2);
    log.clear();
    EXPECT_EQ(res_mom_get_part_node_by_path(&list, "/data", 0), nullptr);
    EXPECT_FALSE(log.has("param null."));
    EXPECT_TRUE(res_list_empty(&list));
    const std::string path(70, 'p');
    struct res_mom_part_node *p = res_mom_get_part_node_by_path(&list, path.c_str(), 70);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p->part_path), std::string(63, 'p'));
    res_mom_clear_part_list(&list);
}

TEST_F(MomDataTest, LifetimeUpdateOverwritesInPlaceOrAppends)
{
    log_capture log;
    struct res_list_head list;
    res_list_init(&list);
    struct res_mom_lifetime_node e = {};
    strcpy(e.disk_name, "mmcblk0");
    e.left_lifetime = 50;
    ASSERT_EQ(res_mom_add_node_disk_lft_list(&e, &list), 0);
    strcpy(e.disk_name, "sda");
    ASSERT_EQ(res_mom_add_node_disk_lft_list(&e, &list), 0);
    strcpy(e.disk_name, "mmcblk0");
    e.left_lifetime = 42;
    e.flag = 2;
    e.list.next = e.list.prev = nullptr; /* the caller's link words never reach the list */
    ASSERT_EQ(res_mom_add_node_disk_lft_list(&e, &list), 0);
    EXPECT_TRUE(log.has("pos->left_lifetime :42"));
    auto *first = res_list_entry(list.next, struct res_mom_lifetime_node, list);
    auto *second = res_list_entry(list.next->next, struct res_mom_lifetime_node, list);
    EXPECT_STREQ(first->disk_name, "mmcblk0");
    EXPECT_EQ(first->left_lifetime, 42u);
    EXPECT_EQ(first->flag, 2);
    EXPECT_STREQ(second->disk_name, "sda");
    EXPECT_EQ(list.next->next->next, &list);
    EXPECT_EQ(res_mom_add_node_disk_lft_list(nullptr, &list), -1);
    res_mom_clear_lifetime_list(&list);
}

TEST_F(MomDataTest, CopiesAreAppendedForDiskAndProcessEntries)
{
    struct res_list_head list;
    res_list_init(&list);
    struct res_mom_proc_io_node p = {};
    p.proc_id = 42;
    strcpy(p.proc_name, "sshd");
    ASSERT_EQ(res_mom_add_node_proc_io_list(&p, &list), 0);
    p.proc_id = 43;
    ASSERT_EQ(res_mom_add_node_proc_io_list(&p, &list), 0);
    auto *first = res_list_entry(list.next, struct res_mom_proc_io_node, list);
    EXPECT_NE(first, &p);
    EXPECT_EQ(first->proc_id, 42u);
    EXPECT_EQ(res_list_entry(list.prev, struct res_mom_proc_io_node, list)->proc_id, 43u);
    res_mom_clear_proc_io_list(&list);
    EXPECT_TRUE(res_list_empty(&list));

    struct res_mom_disk_io_node d = {};
    strcpy(d.disk_name, "sda");
    d.io_util = 12.5;
    ASSERT_EQ(res_mom_add_node_disk_io_list(&d, &list), 0);
    EXPECT_EQ(res_list_entry(list.next, struct res_mom_disk_io_node, list)->io_util, 12.5);
    res_mom_clear_disk_io_list(&list);
}

TEST_F(MomDataTest, PartitionSaveUpdatesOrTakesTheEntry)
{
    struct res_mom_node *a = add_node(0, 12, 2);
    const int32_t idx[3] = {0, 12, 0};
    auto *e = static_cast<struct res_mom_part_node *>(calloc(1, sizeof(struct res_mom_part_node)));
    strcpy(e->part_path, "/data");
    e->vol_flag = 2;
    ASSERT_EQ(res_mom_add_node_part_list(idx, e), 0);
    EXPECT_EQ(a->part_list.next, &e->list); /* linked itself */
    struct res_mom_part_node update = {};
    strcpy(update.part_path, "/data");
    update.vol_flag = 1;
    update.total_vol = 100;
    ASSERT_EQ(res_mom_add_node_part_list(idx, &update), 0);
    EXPECT_EQ(e->vol_flag, 1u);
    EXPECT_EQ(e->total_vol, 100u);
    EXPECT_EQ(a->part_list.next, &e->list);
    EXPECT_EQ(e->list.next, &a->part_list);
    const int32_t unknown[3] = {0, 99, 0};
    EXPECT_EQ(res_mom_add_node_part_list(unknown, &update), -ESRCH);
}

} // namespace
