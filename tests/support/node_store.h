/* Test helper: a node put into the daemon's node store by its identity. */
#ifndef TEST_NODE_STORE_H
#define TEST_NODE_STORE_H

#include "mom/res_mom_data.h"

#include <gtest/gtest.h>

#include <vector>

/* Appends a node (device `devid`, slot `slot`, no sub-slot) shown as
 * `user_slot`; the store keeps it in user-slot order. */
inline struct res_mom_node *add_node(int32_t devid, int32_t slot, int32_t user_slot)
{
    struct res_mom_node *n = res_mom_malloc_node_init();
    EXPECT_NE(n, nullptr);
    n->devid = devid;
    n->slotid = slot;
    n->sslotid = 0;
    n->user_slot = user_slot;
    EXPECT_EQ(res_mom_add_node_info_list(n), 0);
    return n;
}

/* The store's nodes in list order. */
inline std::vector<struct res_mom_node *> nodes()
{
    std::vector<struct res_mom_node *> out;
    for (struct res_list_head *p = res_node_list.next; p != &res_node_list; p = p->next)
        out.push_back(res_list_entry(p, struct res_mom_node, list));
    return out;
}

#endif
