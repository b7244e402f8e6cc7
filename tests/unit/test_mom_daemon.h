/* Fixture for the daemon's bus side: res_mom_init on the in-process bus with
 * a node identity from a config file, diagnostics captured, and a second
 * client that plays the device manager and the other nodes. */
#ifndef TEST_MOM_DAEMON_H
#define TEST_MOM_DAEMON_H

#include "node_store.h"
#include "scan_collect.h"
#include "test_mom_helpers.h"

#include "mom/res_mom_data.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "proto/p_dev.pb-c.h"
#include "proto/p_utils.pb-c.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_ndm.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

class MomDaemonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        qn_mom_embedded_reset();
        dm_cache_reset();
    }

    void TearDown() override
    {
        res_mom_timers_cancel();
        qn_mom_refuse_subscriptions(nullptr, 0);
        if (res_mom_client)
            qn_mom_client_free(res_mom_client);
        res_mom_client = nullptr;
        dm_cache_reset();
        if (writer)
            qn_mom_client_free(writer);
        writer = nullptr;
        test_loop_run(1);
        res_mom_data_init();
        res_mom_upgrade_flag = 0;
        res_mom_conn_flag = 0;
        res_mom_sub_flag = 0;
        qn_mom_embedded_reset();
        log.reset();
    }

    /* res_mom_init for a node; `node` holds [node] keys, `more` other
     * sections (by default the capability device type that agrees with the
     * node type: LC for 3, BOX for 1, else CM). */
    int start(const std::string &node, std::string more = "")
    {
        if (more.empty())
            more = node.find("node_type = 3") != std::string::npos   ? "[cap]\nCAP_DEV_TYPE = LC\n"
                   : node.find("node_type = 1") != std::string::npos ? "[cap]\nCAP_DEV_TYPE = BOX\n"
                                                                     : "[cap]\nCAP_DEV_TYPE = CM\n";
        log = std::make_unique<log_capture>("[node]\n" + node + "\n" + more);
        return res_mom_init(res_master, &device_type);
    }

    /* The client that writes the other services' and nodes' records. */
    qn_mom_client_t *bus()
    {
        if (!writer) {
            writer = qn_mom_client_init("TEST", res_master);
            EXPECT_NE(writer, nullptr);
            qn_mom_client_connect(writer, QN_MOM_TUNNER_DB, nullptr, nullptr);
            qn_mom_client_connect(writer, QN_MOM_MONITOR_DB, nullptr, nullptr);
            qn_mom_client_connect(writer, QN_MOM_DEV_DB, nullptr, nullptr);
            test_loop_run(1);
        }
        return writer;
    }

    void publish_card(int32_t mod, int32_t devid, int32_t slot, int32_t user_slot, bool online)
    {
        PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
        PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
        idx.t_mod = mod;
        idx.devid = devid;
        idx.slotid = slot;
        card.index = &idx;
        card.is_online = online;
        card.user_slot = user_slot;
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_TUNNER_DB, &card.base, 0, 0), 0);
    }

    void publish_role(int32_t devid, int32_t slot, int32_t role, int32_t dev_num = 1)
    {
        PDev__DpLibGrole g = P_DEV__DP_LIB_GROLE__INIT;
        g.my_grole = static_cast<PDev__DmRoleE>(role);
        g.dev_num = dev_num;
        qn_mom_client_set_node(bus(), devid, slot);
        ASSERT_EQ(qn_mom_set(bus(), QN_MOM_TUNNER_DB, &g.base, 0, 0), 0);
    }

    /* Keys of the records of one type in a database. */
    std::vector<std::string> keys(uint32_t db, const ProtobufCMessage *pattern)
    {
        std::vector<std::string> got;
        for (const scanned_record &r : scan_collect(bus(), db, pattern))
            got.push_back(r.key);
        return got;
    }

    std::unique_ptr<log_capture> log;
    qn_mom_client_t *writer = nullptr;
    uint32_t device_type = 2;
};

#endif
