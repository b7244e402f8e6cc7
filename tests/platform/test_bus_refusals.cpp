/* Writes the store refuses: a refusal that passes (out of memory, read-only,
 * loading, a missing permission) keeps the write, which goes again after a
 * back-off; a write the store can never take is dropped with a counted line. */
#include "test_bus_redis.h"
#include "test_loop.h"
#include "test_mom_helpers.h"

#include "proto/p_utils.pb-c.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

/* A debug record of node (0, slot) carrying `level`. */
struct dbg_record {
    PUtils__StovigDbg dbg = P_UTILS__STOVIG_DBG__INIT;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    dbg_record(int slot, uint32_t level)
    {
        idx.t_slotid = slot;
        dbg.index = &idx;
        dbg.dbg_level = level;
    }
    const ProtobufCMessage *msg() const { return &dbg.base; }
};

struct seen_levels {
    std::vector<std::string> values; /* "slot:level" */
    bool over = false;
    static int cb(void *ctx, qn_mom_reply_t *r)
    {
        auto *self = static_cast<seen_levels *>(ctx);
        if (r->scan_state == QN_MOM_SCAN_OVER) {
            self->over = true;
            return 0;
        }
        if (r->res && r->res->value) {
            auto *d = reinterpret_cast<const PUtils__StovigDbg *>(r->res->value);
            self->values.push_back(std::to_string(d->index ? d->index->t_slotid : -1) + ":" +
                                   std::to_string(d->dbg_level));
        }
        return 0;
    }
};

class BusRefusalTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        ASSERT_TRUE(server.start());
        cfg = std::make_unique<config_file>("[bus]\nurl = redis://127.0.0.1:" + std::to_string(server.port) + "\n");
        c = qn_mom_client_init("NODE", res_master);
        ASSERT_NE(c, nullptr);
        static int connects;
        connects = 0;
        qn_mom_client_connect(c, QN_MOM_DEV_DB, [](qn_mom_client_t *, uint32_t, void *) { ++connects; return 0; },
                              nullptr);
        ASSERT_TRUE(run_until([] { return connects == 1; }));
    }
    void TearDown() override
    {
        qn_mom_client_free(c);
        test_loop_run(1);
        cfg.reset();
    }

    std::vector<std::string> stored()
    {
        dbg_record pattern(0, 0);
        seen_levels scan;
        EXPECT_EQ(qn_mom_scan(c, QN_MOM_DEV_DB, pattern.msg(), 0, seen_levels::cb, &scan), 0);
        EXPECT_TRUE(run_until([&] { return scan.over; }));
        return scan.values;
    }

    qn_mom_counters_t counters()
    {
        qn_mom_counters_t n{};
        qn_mom_client_counters(c, &n);
        return n;
    }

    test_redis server;
    std::unique_ptr<config_file> cfg;
    qn_mom_client_t *c = nullptr;
};

TEST_F(BusRefusalTest, AWriteRefusedForWantOfMemoryIsKeptAndMadeOnceTheStoreTakesWritesAgain)
{
    seen_levels sub;
    dbg_record pattern(0, 0);
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_DEV_DB, pattern.msg(), 0, seen_levels::cb, &sub), 0);
    dbg_record before(1, 1);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, before.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return sub.values.size() == 1; }));

    ASSERT_EQ(server.command("CONFIG SET maxmemory 1"), "OK");
    testing::internal::CaptureStderr();
    dbg_record first(1, 2), second(2, 3), third(1, 4);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, first.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, second.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return counters().store_refusals >= 2; }));
    /* Written while the store refuses: waits behind the refused ones. */
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, third.msg(), 0, 0), 0);
    test_loop_run(100); /* a second of refusals and retries */
    EXPECT_EQ(qn_mom_client_outbox(c), 3u);
    EXPECT_TRUE(qn_mom_client_is_up(c));
    EXPECT_EQ(counters().rejected_writes, 0u);

    ASSERT_EQ(server.command("CONFIG SET maxmemory 0"), "OK");
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(c) == 0; }, 8000));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(stored(), (std::vector<std::string>{"1:4", "2:3"}));
    ASSERT_TRUE(run_until([&] { return sub.values.size() >= 4; }));
    EXPECT_EQ(sub.values, (std::vector<std::string>{"1:1", "1:2", "2:3", "1:4"}));
    EXPECT_NE(err.find("qn_mom[NODE]: store of qnmom:33:p_utils.stovig_dbg:0.1.0.0 refused by the store: OOM command "
                       "not allowed"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("; kept, retrying in 100 ms (1 refused so far)"), std::string::npos) << err;
    EXPECT_NE(err.find("qn_mom[NODE]: the store takes writes again"), std::string::npos) << err;
    /* One line per run of refusals, not one per refusal. */
    size_t lines = 0;
    for (size_t at = err.find("refused by the store"); at != std::string::npos;
         at = err.find("refused by the store", at + 1))
        ++lines;
    EXPECT_EQ(lines, 1u) << err;
}

TEST_F(BusRefusalTest, AWriteTheStoreCanNeverMakeIsDroppedWithACountedLine)
{
    /* Someone keeps a hash under the record's key: every write of it fails. */
    ASSERT_EQ(server.command("HSET qnmom:33:p_utils.stovig_dbg:0.1.0.0 f v"), "1");
    testing::internal::CaptureStderr();
    dbg_record blocked(1, 2), fine(2, 3);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, blocked.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, fine.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(c) == 0; }));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(counters().rejected_writes, 1u);
    EXPECT_EQ(counters().store_refusals, 0u);
    EXPECT_NE(err.find("qn_mom[NODE]: store of qnmom:33:p_utils.stovig_dbg:0.1.0.0 refused by the store: WRONGTYPE"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("; dropped (1 refused for good so far)"), std::string::npos) << err;
    EXPECT_EQ(stored(), (std::vector<std::string>{"2:3"}));
}

} // namespace
