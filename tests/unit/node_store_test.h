/* Test base: a fresh node store whose local node is device 0, slot 1, shown
 * as user slot 5; the store is emptied again after each test. */
#ifndef NODE_STORE_TEST_H
#define NODE_STORE_TEST_H

#include "mom/res_mom_data.h"

#include <gtest/gtest.h>

class NodeStoreTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(res_mom_data_init(), 0);
        res_local_node.devid = 0;
        res_local_node.slotid = 1;
        res_local_node.sslotid = 0;
        res_local_node.user_slot = 5;
    }
    void TearDown() override { res_mom_data_init(); }
};

#endif
