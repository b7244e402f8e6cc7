/* The bus client's behaviour, run once on the in-process store and once on a
 * private redis-server. */
#include "test_bus_redis.h"
#include "test_loop.h"
#include "test_mom_helpers.h"

#include "proto/p_dev.pb-c.h"
#include "proto/p_utils.pb-c.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

/* What a callback saw, copied out of the reply. */
struct seen {
    int error;
    int type;
    int scan_state;
    uint32_t db;
    std::string key;
    bool has_res;
    int res_error;
    std::string text; /* short description of the decoded record */
};

std::string describe(const ProtobufCMessage *m)
{
    if (!m)
        return "";
    if (m->descriptor == &p_utils__stovig_io__descriptor) {
        auto *io = reinterpret_cast<const PUtils__StovigIo *>(m);
        std::string s = "io";
        if (io->index)
            s += " " + std::to_string(io->index->t_devid) + "," + std::to_string(io->index->t_slotid);
        for (size_t i = 0; i < io->n_disk_io_info; ++i)
            s += std::string(" ") + io->disk_io_info[i]->disk_name;
        return s;
    }
    if (m->descriptor == &p_dev__card_info__descriptor) {
        auto *c = reinterpret_cast<const PDev__CardInfo *>(m);
        return std::string("card ") + (c->name ? c->name : "") + (c->is_online ? " on" : " off");
    }
    if (m->descriptor == &p_dev__dp_lib_grole__descriptor)
        return "role " + std::to_string(reinterpret_cast<const PDev__DpLibGrole *>(m)->my_grole);
    return m->descriptor->name;
}

struct recorder {
    std::vector<seen> got;
    static int cb(void *ctx, qn_mom_reply_t *r)
    {
        auto *self = static_cast<recorder *>(ctx);
        seen s{r->error, r->type, r->scan_state, r->db, r->key ? r->key : "", r->res != nullptr,
               r->res ? r->res->error : 0, r->res ? describe(r->res->value) : ""};
        self->got.push_back(s);
        return 0;
    }
    std::vector<seen> of_type(int type) const
    {
        std::vector<seen> out;
        for (const seen &s : got)
            if (s.type == type)
                out.push_back(s);
        return out;
    }
};

struct io_record {
    PUtils__StovigIo io = P_UTILS__STOVIG_IO__INIT;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    PUtils__DiskIo disk = P_UTILS__DISK_IO__INIT;
    PUtils__DiskIo *disks[1] = {&disk};
    io_record(int devid, int slot, const char *name)
    {
        idx.t_devid = devid;
        idx.t_slotid = slot;
        io.index = &idx;
        disk.disk_name = const_cast<char *>(name);
        io.n_disk_io_info = name ? 1 : 0;
        io.disk_io_info = disks;
    }
    const ProtobufCMessage *msg() const { return &io.base; }
};

struct card_record {
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    card_record(int mod, const char *name, bool online)
    {
        idx.t_mod = mod;
        card.index = &idx;
        card.name = const_cast<char *>(name);
        card.is_online = online;
    }
    const ProtobufCMessage *msg() const { return &card.base; }
};

struct EmbeddedBus {
    static constexpr bool is_redis = false;
    static test_redis *server() { return nullptr; }
    static std::string config() { return "[node]\ndevid = 0\nphy_slot = 1\n"; }
    static void clear() { qn_mom_embedded_reset(); }
};

struct RedisBus {
    static constexpr bool is_redis = true;
    static test_redis *&server_ptr()
    {
        static test_redis *s = nullptr;
        return s;
    }
    static test_redis *server() { return server_ptr(); }
    static std::string config()
    {
        return "[node]\ndevid = 0\nphy_slot = 1\n[bus]\nurl = redis://127.0.0.1:" + std::to_string(server()->port) +
               "\n";
    }
    static void clear() { server()->command("FLUSHALL"); }
};

template <typename Bus>
class BusClientTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (Bus::is_redis) {
            RedisBus::server_ptr() = new test_redis;
            ASSERT_TRUE(RedisBus::server_ptr()->start()) << "redis-server did not start";
        }
    }
    static void TearDownTestSuite()
    {
        if (Bus::is_redis) {
            delete RedisBus::server_ptr();
            RedisBus::server_ptr() = nullptr;
        }
    }

    void SetUp() override
    {
        test_loop_setup();
        Bus::clear();
        cfg = std::make_unique<config_file>(Bus::config());
    }
    void TearDown() override
    {
        for (qn_mom_client_t *c : clients)
            qn_mom_client_free(c);
        test_loop_run(1);
        cfg.reset();
    }

    /* A client with `db` connected (waits for the connect callback). */
    qn_mom_client_t *connected(uint32_t db)
    {
        qn_mom_client_t *c = qn_mom_client_init("TEST", res_master);
        EXPECT_NE(c, nullptr);
        if (!c)
            return nullptr;
        clients.push_back(c);
        static int calls;
        calls = 0;
        EXPECT_EQ(qn_mom_client_connect(c, db, [](qn_mom_client_t *, uint32_t, void *) { ++calls; return 0; }, nullptr), 0);
        EXPECT_TRUE(run_until([] { return calls == 1; }));
        return c;
    }

    std::vector<seen> scan(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern)
    {
        recorder r;
        EXPECT_EQ(qn_mom_scan(c, db, pattern, 0, recorder::cb, &r), 0);
        EXPECT_TRUE(run_until([&] { return !r.got.empty() && r.got.back().scan_state == QN_MOM_SCAN_OVER; }));
        return r.got;
    }

    std::unique_ptr<config_file> cfg;
    std::vector<qn_mom_client_t *> clients;
};

using Backends = ::testing::Types<EmbeddedBus, RedisBus>;
class BackendNames {
public:
    template <typename T>
    static std::string GetName(int)
    {
        return T::is_redis ? "Redis" : "Embedded";
    }
};
TYPED_TEST_SUITE(BusClientTest, Backends, BackendNames);

TYPED_TEST(BusClientTest, ConnectCallbackRunsAsLoopTaskNotInsideTheCall)
{
    qn_mom_client_t *c = qn_mom_client_init("TEST", res_master);
    ASSERT_NE(c, nullptr);
    this->clients.push_back(c);
    EXPECT_STREQ(qn_mom_client_backend(c), TypeParam::is_redis ? "redis" : "embedded");
    static std::vector<uint32_t> dbs;
    dbs.clear();
    auto cb = [](qn_mom_client_t *, uint32_t db, void *) { dbs.push_back(db); return 0; };
    ASSERT_EQ(qn_mom_client_connect(c, QN_MOM_TUNNER_DB, cb, nullptr), 0);
    ASSERT_EQ(qn_mom_client_connect(c, QN_MOM_MONITOR_DB, cb, nullptr), 0);
    EXPECT_TRUE(dbs.empty());
    EXPECT_TRUE(run_until([] { return dbs.size() == 2; }));
    EXPECT_EQ(dbs, (std::vector<uint32_t>{QN_MOM_TUNNER_DB, QN_MOM_MONITOR_DB}));
}

TYPED_TEST(BusClientTest, CallsBeforeAnyConnectOrWithoutKeyAreRefused)
{
    qn_mom_client_t *fresh = qn_mom_client_init("TEST", res_master);
    ASSERT_NE(fresh, nullptr);
    this->clients.push_back(fresh);
    io_record rec(0, 1, "sda");
    recorder r;
    EXPECT_EQ(qn_mom_set(fresh, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), QN_MOM_ERR_NOTCONN);
    EXPECT_EQ(qn_mom_scan(fresh, QN_MOM_MONITOR_DB, rec.msg(), 0, recorder::cb, &r), QN_MOM_ERR_NOTCONN);
    EXPECT_EQ(qn_mom_subscribe(fresh, QN_MOM_MONITOR_DB, rec.msg(), 0, recorder::cb, &r), QN_MOM_ERR_NOTCONN);

    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    PUtils__StovigIo no_index = P_UTILS__STOVIG_IO__INIT;
    EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, &no_index.base, 0, 0), QN_MOM_ERR_PARAM);
    EXPECT_EQ(qn_mom_del(c, QN_MOM_MONITOR_DB, &no_index.base, 0, 0), QN_MOM_ERR_PARAM);
    EXPECT_EQ(qn_mom_set(nullptr, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), QN_MOM_ERR_PARAM);
    /* A database never connected by callback is still reachable (upgrade state in 3). */
    EXPECT_EQ(qn_mom_set(c, 3, rec.msg(), 0, 0), 0);
    test_loop_run(2);
    EXPECT_TRUE(r.got.empty());
}

TYPED_TEST(BusClientTest, TwoSetsOfOneNodeLeaveOneRecordTheLater)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    io_record first(0, 1, "sda"), second(0, 1, "mmcblk0");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, first.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, second.msg(), 0, 0), 0);
    io_record pattern(0, 0, nullptr);
    std::vector<seen> got = this->scan(c, QN_MOM_MONITOR_DB, pattern.msg());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].type, QN_MOM_REPLY_SCAN);
    EXPECT_EQ(got[0].scan_state, QN_MOM_SCAN_MORE);
    EXPECT_EQ(got[0].text, "io 0,1 mmcblk0");
    EXPECT_EQ(got[0].key, "qnmom:12:p_utils.stovig_io:0.1.0.0");
    EXPECT_EQ(got[1].scan_state, QN_MOM_SCAN_OVER);
    EXPECT_FALSE(got[1].has_res);
}

TYPED_TEST(BusClientTest, NodesTypesAndDatabasesAreKeptApart)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    ASSERT_EQ(qn_mom_client_connect(c, QN_MOM_DEV_DB, nullptr, nullptr), 0);
    ASSERT_TRUE(run_until([] { return true; }));
    io_record a(0, 1, "sda"), b(0, 2, "sdb"), other_db(0, 3, "sdc");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, a.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, b.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, other_db.msg(), 0, 0), 0);
    PUtils__StovigDbg dbg = P_UTILS__STOVIG_DBG__INIT;
    PUtils__Nodeindex zero = P_UTILS__NODEINDEX__INIT;
    dbg.index = &zero;
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, &dbg.base, 0, 0), 0);

    io_record pattern(0, 0, nullptr);
    std::vector<seen> got = this->scan(c, QN_MOM_MONITOR_DB, pattern.msg());
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].text, "io 0,1 sda");
    EXPECT_EQ(got[1].text, "io 0,2 sdb");
    got = this->scan(c, QN_MOM_DEV_DB, pattern.msg());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text, "io 0,3 sdc");
}

TYPED_TEST(BusClientTest, SubscriptionConfirmsThenDeliversEveryChange)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    qn_mom_client_t *writer = this->connected(QN_MOM_MONITOR_DB);
    io_record pattern(0, 0, nullptr);
    recorder r;
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    EXPECT_TRUE(r.got.empty()); /* never from inside the call */
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));
    EXPECT_EQ(r.got[0].type, QN_MOM_REPLY_SUBSCRIBED);
    EXPECT_EQ(r.got[0].error, 0);

    io_record rec(0, 2, "sda");
    ASSERT_EQ(qn_mom_set(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_hmset(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_del(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_del(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0); /* nothing left: no change */
    ASSERT_TRUE(run_until([&] { return r.got.size() >= 4; }));
    test_loop_run(5);
    ASSERT_EQ(r.got.size(), 4u);
    EXPECT_EQ(r.got[1].type, QN_MOM_REPLY_SET);
    EXPECT_EQ(r.got[1].text, "io 0,2 sda");
    EXPECT_TRUE(r.got[1].has_res);
    EXPECT_EQ(r.got[1].res_error, 0);
    EXPECT_EQ(r.got[2].type, QN_MOM_REPLY_HSET);
    EXPECT_EQ(r.got[2].text, "io 0,2 sda");
    EXPECT_EQ(r.got[3].type, QN_MOM_REPLY_DEL);
    EXPECT_EQ(r.got[3].text, "");
    EXPECT_EQ(r.got[3].key, "qnmom:12:p_utils.stovig_io:0.2.0.0");
}

/* The client remembers what it handed out only while a scan could overlap
 * it: records written and deleted leave nothing behind. */
TYPED_TEST(BusClientTest, RecordsHandedOutLeaveNoTrackingBehind)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    qn_mom_client_t *writer = this->connected(QN_MOM_MONITOR_DB);
    io_record pattern(0, 0, nullptr);
    recorder r;
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    for (int slot = 0; slot < 200; ++slot) {
        io_record rec(0, slot, "sda");
        ASSERT_EQ(qn_mom_set(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
        if (slot == 100)
            this->scan(c, QN_MOM_MONITOR_DB, pattern.msg());
    }
    for (int slot = 0; slot < 200; ++slot) {
        io_record rec(0, slot, "sda");
        ASSERT_EQ(qn_mom_del(writer, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    }
    /* (What the scan handed out is not handed out again by the feed.) */
    ASSERT_TRUE(run_until(
        [&] { return r.got.back().type == QN_MOM_REPLY_DEL && r.got.back().key == "qnmom:12:p_utils.stovig_io:0.199.0.0"; },
        8000));
    test_loop_run(5);
    EXPECT_EQ(qn_mom_client_tracked_keys(c), 0u);
    EXPECT_EQ(qn_mom_client_tracked_keys(writer), 0u);
}

TYPED_TEST(BusClientTest, SubscriptionSeesOnlyItsTypeAndDatabase)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    ASSERT_EQ(qn_mom_client_connect(c, QN_MOM_DEV_DB, nullptr, nullptr), 0);
    io_record pattern(0, 0, nullptr);
    recorder r;
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));
    io_record rec(0, 2, "sda");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_DEV_DB, rec.msg(), 0, 0), 0);
    PUtils__StovigPartRo ro = P_UTILS__STOVIG_PART_RO__INIT;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    ro.index = &idx;
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, &ro.base, 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() >= 2; }));
    test_loop_run(5);
    ASSERT_EQ(r.got.size(), 2u);
    EXPECT_EQ(r.got[1].db, (uint32_t)QN_MOM_MONITOR_DB);
    EXPECT_EQ(r.got[1].text, "io 0,2 sda");
}

TYPED_TEST(BusClientTest, FieldSubscriptionDeliversOnlyChangesOfListedFields)
{
    qn_mom_client_t *c = this->connected(QN_MOM_TUNNER_DB);
    card_record pattern(0, nullptr, false);
    recorder r;
    const uint32_t fields[] = {7};
    ASSERT_EQ(qn_mom_subscribe_field(c, QN_MOM_TUNNER_DB, pattern.msg(), 0, fields, recorder::cb, &r, 1), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));
    card_record on(3, "lc3", true), renamed(3, "lc3-renamed", true), off(3, "lc3-renamed", false);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_TUNNER_DB, on.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_TUNNER_DB, renamed.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(c, QN_MOM_TUNNER_DB, off.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() >= 3; }));
    test_loop_run(5);
    ASSERT_EQ(r.got.size(), 3u);
    EXPECT_EQ(r.got[1].text, "card lc3 on");
    EXPECT_EQ(r.got[2].text, "card lc3-renamed off");
}

TYPED_TEST(BusClientTest, UnsubscribeConfirmsAndStopsDeliveries)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    io_record pattern(0, 0, nullptr);
    recorder r;
    EXPECT_EQ(qn_mom_unsubscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), QN_MOM_ERR_PARAM);
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));
    ASSERT_EQ(qn_mom_unsubscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    EXPECT_EQ(r.got.size(), 1u);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 2; }));
    EXPECT_EQ(r.got[1].type, QN_MOM_REPLY_UNSUBSCRIBED);
    io_record rec(0, 2, "sda");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    test_loop_run(20);
    EXPECT_EQ(r.got.size(), 2u);
}

TYPED_TEST(BusClientTest, UndecodableValueIsDroppedFromScansAndSubscriptions)
{
    qn_mom_client_t *c = this->connected(QN_MOM_MONITOR_DB);
    io_record pattern(0, 0, nullptr);
    recorder sub;
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    ASSERT_TRUE(run_until([&] { return sub.got.size() == 1; }));
    const char garbage[] = "garbage\xff\xff";
    ASSERT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, "qnmom:12:p_utils.stovig_io:0.7.0.0", garbage, sizeof garbage - 1),
              0);
    io_record good(0, 8, "sda");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, good.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return sub.got.size() >= 2; }));
    test_loop_run(5);
    ASSERT_EQ(sub.got.size(), 2u);
    EXPECT_EQ(sub.got[1].text, "io 0,8 sda");

    std::vector<seen> got = this->scan(c, QN_MOM_MONITOR_DB, pattern.msg());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text, "io 0,8 sda");
    EXPECT_EQ(got[1].scan_state, QN_MOM_SCAN_OVER);
}

TYPED_TEST(BusClientTest, NodeScopedRoleRecordIsSeenOnlyByItsNode)
{
    qn_mom_client_t *node1 = this->connected(QN_MOM_TUNNER_DB);
    qn_mom_client_t *tool = this->connected(QN_MOM_TUNNER_DB);
    PDev__DpLibGrole pattern = P_DEV__DP_LIB_GROLE__INIT;
    recorder r;
    ASSERT_EQ(qn_mom_subscribe(node1, QN_MOM_TUNNER_DB, &pattern.base, 0, recorder::cb, &r), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));
    PDev__DpLibGrole role = P_DEV__DP_LIB_GROLE__INIT;
    role.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_SLAVE;
    qn_mom_client_set_node(tool, 0, 2);
    ASSERT_EQ(qn_mom_set(tool, QN_MOM_TUNNER_DB, &role.base, 0, 0), 0);
    role.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
    qn_mom_client_set_node(tool, 0, 1);
    ASSERT_EQ(qn_mom_set(tool, QN_MOM_TUNNER_DB, &role.base, 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() >= 2; }));
    test_loop_run(5);
    ASSERT_EQ(r.got.size(), 2u);
    EXPECT_EQ(r.got[1].text, "role 1");
    std::vector<seen> got = this->scan(node1, QN_MOM_TUNNER_DB, &pattern.base);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text, "role 1");
}

/* Redis only: the server goes away and comes back under a running client. */
class BusRedisReconnectTest : public ::testing::Test {};

TEST_F(BusRedisReconnectTest, ClientReconnectsAndItsSubscriptionsStandAgain)
{
    test_loop_setup();
    test_redis server;
    ASSERT_TRUE(server.start());
    config_file cfg("[bus]\nurl = redis://127.0.0.1:" + std::to_string(server.port) + "\n");
    qn_mom_client_t *c = qn_mom_client_init("TEST", res_master);
    ASSERT_NE(c, nullptr);
    static std::vector<std::pair<uint32_t, int>> reconnects;
    static int connects;
    reconnects.clear();
    connects = 0;
    qn_mom_client_connect(c, QN_MOM_MONITOR_DB, [](qn_mom_client_t *, uint32_t, void *) { ++connects; return 0; },
                          nullptr);
    qn_mom_client_set_reconnect_cb(c, QN_MOM_MONITOR_DB, [](qn_mom_client_t *, uint32_t db, int type) {
        reconnects.push_back({db, type});
        return 0;
    });
    ASSERT_TRUE(run_until([] { return connects == 1; }));
    io_record pattern(0, 0, nullptr);
    recorder r;
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &r), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 1; }));

    server.stop();
    ASSERT_TRUE(run_until([&] { return !qn_mom_client_is_up(c); }));
    /* A write while the link is down waits for it. */
    io_record rec(0, 4, "sdd");
    EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    EXPECT_EQ(qn_mom_client_outbox(c), 1u);
    test_loop_run(30);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(run_until([] { return !reconnects.empty(); }, 8000));
    EXPECT_EQ(reconnects[0], std::make_pair((uint32_t)QN_MOM_MONITOR_DB, QN_MOM_RECONNECT_LINK));
    EXPECT_EQ(connects, 1);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 2; }));
    EXPECT_EQ(r.got[1].text, "io 0,4 sdd");
    EXPECT_EQ(qn_mom_client_outbox(c), 0u);
    io_record later(0, 5, "sde");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, later.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return r.got.size() == 3; }));
    EXPECT_EQ(r.got[2].text, "io 0,5 sde");
    qn_mom_client_free(c);
    test_loop_run(1);
}

TEST_F(BusRedisReconnectTest, PasswordAndUserFromTheConfigAreSentAndAWrongOneIsReported)
{
    test_loop_setup();
    test_redis server;
    server.password = "s3cret";
    ASSERT_TRUE(server.start());
    const std::string url = "[bus]\nurl = redis://127.0.0.1:" + std::to_string(server.port) + "\n";
    for (const char *auth : {"password = s3cret\n", "user = default\npassword = s3cret\n"}) {
        config_file cfg(url + auth);
        qn_mom_client_t *c = qn_mom_client_init("TEST", res_master);
        ASSERT_NE(c, nullptr);
        static int connects;
        connects = 0;
        qn_mom_client_connect(c, QN_MOM_MONITOR_DB, [](qn_mom_client_t *, uint32_t, void *) { ++connects; return 0; },
                              nullptr);
        EXPECT_TRUE(run_until([] { return connects == 1; })) << auth;
        io_record rec(0, 1, "sda");
        EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
        qn_mom_client_free(c);
        test_loop_run(1);
    }
    config_file wrong(url + "password = nope\n");
    testing::internal::CaptureStderr();
    qn_mom_client_t *c = qn_mom_client_init("TEST", res_master);
    ASSERT_NE(c, nullptr);
    qn_mom_client_connect(c, QN_MOM_MONITOR_DB, nullptr, nullptr);
    test_loop_run(30);
    EXPECT_FALSE(qn_mom_client_is_up(c));
    qn_mom_client_free(c);
    test_loop_run(1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("redis AUTH refused"), std::string::npos) << err;
}

TEST_F(BusRedisReconnectTest, BadBusUrlIsAConfigurationError)
{
    for (const char *url : {"http://127.0.0.1:1", "redis://", "redis://host:0", "redis://host:70000", "redis://h:x"}) {
        config_file cfg(std::string("[bus]\nurl = ") + url + "\n");
        std::string error;
        EXPECT_EQ(qn_platform_config_load(&error), nullptr) << url;
        EXPECT_EQ(error, cfg.path + ":2: [bus] url: expected redis://HOST:PORT ('" + url + "')");
    }
    for (const char *url : {"redis://127.0.0.1:6390", "redis://localhost", "redis://bus.example/"}) {
        config_file cfg(std::string("[bus]\nurl = ") + url + "\n");
        std::string error;
        auto loaded = qn_platform_config_load(&error);
        ASSERT_NE(loaded, nullptr) << error;
        EXPECT_EQ(loaded->bus_url, url);
    }
}

} // namespace
