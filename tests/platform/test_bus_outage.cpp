/* The bus client through outages of its link and restarts of the store, and
 * its bound on value sizes.  Outages only exist on Redis; the size bound is
 * checked on both transports.
 *
 * Some tests run a second client on a loop of its own, pumped separately, so
 * that the order in which the two clients notice an outage is the test's
 * choice: a writer can come back, write and leave before the subscriber even
 * sees that its link went. */
#include "test_bus_redis.h"
#include "test_loop.h"
#include "test_mom_helpers.h"

#include "proto/p_utils.pb-c.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"
#include "qn_thread_standin.h"

#include <gtest/gtest.h>

#include <event2/event.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

/* An I/O record of node (0, slot) whose one disk is named `disk`. */
struct io_record {
    PUtils__StovigIo io = P_UTILS__STOVIG_IO__INIT;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    PUtils__DiskIo disk = P_UTILS__DISK_IO__INIT;
    PUtils__DiskIo *disks[1] = {&disk};
    std::string name;
    io_record(int slot, std::string disk_name) : name(std::move(disk_name))
    {
        idx.t_slotid = slot;
        io.index = &idx;
        disk.disk_name = const_cast<char *>(name.c_str());
        io.n_disk_io_info = 1;
        io.disk_io_info = disks;
    }
    const ProtobufCMessage *msg() const { return &io.base; }
};

/* "slot:disk" of every record value a callback saw, and the reply kinds. */
struct recorder {
    std::vector<std::string> values;
    std::vector<int> kinds;
    bool scan_over = false;
    int scan_error = 0;
    static int cb(void *ctx, qn_mom_reply_t *r)
    {
        auto *self = static_cast<recorder *>(ctx);
        self->kinds.push_back(r->type);
        if (r->scan_state == QN_MOM_SCAN_OVER) {
            self->scan_over = true;
            self->scan_error = r->error;
            return 0;
        }
        if (r->res && r->res->value) {
            auto *io = reinterpret_cast<const PUtils__StovigIo *>(r->res->value);
            self->values.push_back(std::to_string(io->index ? io->index->t_slotid : -1) + ":" +
                                   (io->n_disk_io_info ? io->disk_io_info[0]->disk_name : ""));
        }
        return 0;
    }
};

/* A loop of its own, pumped only when the test says so. */
qn_thread_master *side_loop()
{
    static qn_thread_master *m = nullptr;
    if (!m) {
        m = qn_thread_master_create();
        qn_thread_master_set_second_ms(m, kTestSecondMs);
    }
    return m;
}

bool pump_side(const std::function<bool()> &pred, int ms = 5000)
{
    static bool stop;
    for (int waited = 0; waited < ms; waited += 20) {
        if (pred())
            return true;
        stop = false;
        qn_thread_add_timer_withname(side_loop(), [](qn_thread *) { stop = true; return 0; }, nullptr, 2, "side_stop");
        qn_thread t;
        while (!stop && qn_thread_fetch(side_loop(), &t))
            qn_thread_call(&t);
    }
    return pred();
}

class BusOutageTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        ASSERT_TRUE(server.start());
        cfg = std::make_unique<config_file>("[bus]\nurl = redis://127.0.0.1:" + std::to_string(server.port) + "\n");
    }
    void TearDown() override
    {
        for (qn_mom_client_t *c : clients)
            qn_mom_client_free(c);
        test_loop_run(1);
        pump_side([] { return false; }, 20);
        cfg.reset();
    }

    /* A client connected to the monitor database, on `loop`. */
    qn_mom_client_t *client(qn_thread_master *loop, const char *name)
    {
        qn_mom_client_t *c = qn_mom_client_init(name, loop);
        EXPECT_NE(c, nullptr);
        clients.push_back(c);
        static int connects;
        connects = 0;
        qn_mom_client_connect(c, QN_MOM_MONITOR_DB, [](qn_mom_client_t *, uint32_t, void *) { ++connects; return 0; },
                              nullptr);
        if (loop == res_master)
            EXPECT_TRUE(run_until([] { return connects == 1; }));
        else
            EXPECT_TRUE(pump_side([] { return connects == 1; }));
        return c;
    }

    void subscribe(qn_mom_client_t *c, recorder *r)
    {
        io_record pattern(0, "");
        ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, r), 0);
        ASSERT_TRUE(run_until([&] { return !r->kinds.empty(); }));
        ASSERT_EQ(r->kinds[0], QN_MOM_REPLY_SUBSCRIBED);
        r->kinds.clear();
    }

    void restart_store()
    {
        server.stop();
        ASSERT_TRUE(server.start());
    }

    /* Drops every connection to the store; the store keeps its records. */
    void cut_links() { server.command("CLIENT KILL TYPE normal"); }

    test_redis server;
    std::unique_ptr<config_file> cfg;
    std::vector<qn_mom_client_t *> clients;
};

TEST_F(BusOutageTest, SubscribingNeedsAWorkingLinkWhileWritesAndScansWaitForIt)
{
    qn_mom_client_t *c = client(res_master, "NODE");
    io_record pattern(0, "");
    recorder sub, scan;
    server.stop();
    ASSERT_TRUE(run_until([&] { return !qn_mom_client_is_up(c); }));
    EXPECT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), QN_MOM_ERR_NOTCONN);
    EXPECT_EQ(qn_mom_unsubscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), QN_MOM_ERR_NOTCONN);
    io_record rec(3, "sda");
    EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    EXPECT_EQ(qn_mom_scan(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    test_loop_run(30);
    EXPECT_TRUE(sub.kinds.empty());
    EXPECT_TRUE(scan.kinds.empty()); /* waits, neither answered nor failed */
    EXPECT_EQ(qn_mom_client_outbox(c), 1u);

    ASSERT_TRUE(server.start());
    /* The write goes first, so the waiting scan finds it. */
    ASSERT_TRUE(run_until([&] { return scan.scan_over; }, 8000));
    EXPECT_EQ(scan.scan_error, 0);
    EXPECT_EQ(scan.values, (std::vector<std::string>{"3:sda"}));
    EXPECT_EQ(qn_mom_client_outbox(c), 0u);
    EXPECT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    ASSERT_TRUE(run_until([&] { return !sub.kinds.empty(); }));
    EXPECT_EQ(sub.kinds[0], QN_MOM_REPLY_SUBSCRIBED);
}

TEST_F(BusOutageTest, ChangesWrittenBeforeTheSubscriberIsBackReachItInOrderAfterAStoreRestart)
{
    qn_mom_client_t *sub = client(res_master, "MASTER");
    qn_mom_client_t *node = client(side_loop(), "LC");
    recorder r;
    subscribe(sub, &r);
    restart_store(); /* empty: no persistence */
    /* The node comes back first, writes its outbox and more, and the
     * subscriber has not even seen its link go. */
    io_record a(5, "ro-2"), b(5, "ro-1"), c(5, "ro-0");
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, a.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, b.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(node) && qn_mom_client_outbox(node) == 0; }, 8000));
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, c.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }));
    EXPECT_TRUE(r.values.empty());

    ASSERT_TRUE(run_until([&] { return r.values.size() >= 3; }, 8000));
    test_loop_run(10);
    EXPECT_EQ(r.values, (std::vector<std::string>{"5:ro-2", "5:ro-1", "5:ro-0"}));
    for (int k : r.kinds)
        EXPECT_EQ(k, QN_MOM_REPLY_SET);
}

TEST_F(BusOutageTest, ALinkCutWithoutRestartReadsOnFromWhereItWas)
{
    qn_mom_client_t *sub = client(res_master, "MASTER");
    qn_mom_client_t *node = client(side_loop(), "LC");
    recorder r;
    subscribe(sub, &r);
    io_record before(5, "before");
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, before.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }));
    ASSERT_TRUE(run_until([&] { return r.values.size() == 1; }));

    testing::internal::CaptureStderr();
    cut_links();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    io_record a(5, "a"), b(6, "b");
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, a.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, b.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(node) && qn_mom_client_outbox(node) == 0; }, 8000));
    ASSERT_TRUE(run_until([&] { return r.values.size() >= 3; }, 8000));
    test_loop_run(10);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r.values, (std::vector<std::string>{"5:before", "5:a", "6:b"}));
    EXPECT_NE(err.find("qn_mom[MASTER]: link to the store is back, 1 subscriptions stand; the changes missed are read "
                       "from the store's log"),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find("writing back"), std::string::npos) << err; /* the store kept its records */
}

TEST_F(BusOutageTest, ALogTrimmedPastTheSubscriberGivesItTheCurrentRecords)
{
    qn_mom_client_t *sub = client(res_master, "MASTER");
    qn_mom_client_t *node = client(side_loop(), "LC");
    recorder r;
    subscribe(sub, &r);
    testing::internal::CaptureStderr();
    cut_links();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(node); }, 8000));
    io_record a1(5, "a1"), a2(5, "a2"), b1(6, "b1");
    for (const io_record *rec : {&a1, &a2, &b1})
        ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, rec->msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }));
    server.command("XTRIM qnmom:stream MAXLEN 0");

    ASSERT_TRUE(run_until([&] { return r.values.size() >= 2; }, 8000));
    test_loop_run(10);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r.values, (std::vector<std::string>{"5:a2", "6:b1"}));
    EXPECT_EQ(r.kinds, (std::vector<int>{QN_MOM_REPLY_SET, QN_MOM_REPLY_SET}));
    EXPECT_NE(err.find("changes were lost from the store's log, the current records are read"), std::string::npos)
        << err;
    /* And the feed goes on after it. */
    io_record a3(5, "a3");
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, a3.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }));
    ASSERT_TRUE(run_until([&] { return r.values.size() == 3; }));
    EXPECT_EQ(r.values.back(), "5:a3");
}

TEST_F(BusOutageTest, OutboxKeepsTheLast1024WritesInOrderAndCountsTheOnesItDrops)
{
    qn_mom_client_t *sub = client(res_master, "MASTER");
    qn_mom_client_t *node = client(side_loop(), "LC");
    recorder r;
    subscribe(sub, &r);
    server.stop();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    testing::internal::CaptureStderr();
    for (int i = 0; i < 1030; ++i) {
        io_record rec(i, "sda");
        ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    }
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(qn_mom_client_outbox(node), 1024u);
    qn_mom_counters_t n{};
    qn_mom_client_counters(node, &n);
    EXPECT_EQ(n.dropped_writes, 6u);
    EXPECT_NE(err.find("qn_mom[LC]: link down, outbox full (1024 writes, "), std::string::npos) << err;
    EXPECT_NE(err.find("dropped the oldest, a store of qnmom:12:p_utils.stovig_io:0.0.0.0 (1 dropped so far)"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("a store of qnmom:12:p_utils.stovig_io:0.5.0.0 (6 dropped so far)"), std::string::npos) << err;

    ASSERT_TRUE(server.start());
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }, 10000));
    ASSERT_TRUE(run_until([&] { return r.values.size() >= 1024; }, 10000));
    ASSERT_EQ(r.values.size(), 1024u);
    for (size_t i = 0; i < r.values.size(); ++i)
        ASSERT_EQ(r.values[i], std::to_string(i + 6) + ":sda");
}

TEST_F(BusOutageTest, AfterAnEmptyRestartEachClientWritesBackItsRecordsUnlessSomeoneWroteThemFirst)
{
    qn_mom_client_t *owner = client(res_master, "OWNER");
    qn_mom_client_t *other = client(side_loop(), "OTHER");
    io_record mine(1, "owner-1"), shared(2, "owner-2");
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, mine.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, shared.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(owner) == 0; }));
    restart_store();
    io_record newer(2, "other-2");
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(other); }));
    ASSERT_EQ(qn_mom_set(other, QN_MOM_MONITOR_DB, newer.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(other) && qn_mom_client_outbox(other) == 0; }, 8000));

    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(owner) && qn_mom_client_outbox(owner) == 0; }, 8000));
    io_record pattern(0, "");
    recorder scan;
    ASSERT_EQ(qn_mom_scan(owner, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    ASSERT_TRUE(run_until([&] { return scan.scan_over; }));
    EXPECT_EQ(scan.values, (std::vector<std::string>{"1:owner-1", "2:other-2"}));
}

TEST_F(BusOutageTest, AScanCutByALostLinkRunsAgainWhenTheLinkIsBack)
{
    qn_mom_client_t *c = client(res_master, "NODE");
    io_record rec(4, "sdd"), pattern(0, "");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, rec.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(c) == 0; }));
    /* The store stops answering with the scan on its way, then goes. */
    kill(server.pid, SIGSTOP);
    recorder scan;
    ASSERT_EQ(qn_mom_scan(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    io_record later(5, "sde");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, later.msg(), 0, 0), 0);
    test_loop_run(10);
    EXPECT_FALSE(scan.scan_over);
    kill(server.pid, SIGKILL);
    int st;
    waitpid(server.pid, &st, 0);
    server.pid = -1;
    ASSERT_TRUE(run_until([&] { return !qn_mom_client_is_up(c); }));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(run_until([&] { return scan.scan_over; }, 8000));
    EXPECT_EQ(scan.scan_error, 0);
    /* The write in flight went again, before the scan; the owner wrote back
     * the record the empty store lost. */
    EXPECT_EQ(scan.values, (std::vector<std::string>{"4:sdd", "5:sde"}));
}

TEST_F(BusOutageTest, AConnectCallbackWhoseLinkWentBeforeItsTurnWaitsForTheLink)
{
    qn_mom_client_t *c = qn_mom_client_init("NODE", res_master);
    ASSERT_NE(c, nullptr);
    clients.push_back(c);
    static int calls;
    static int subscribed;
    calls = subscribed = 0;
    /* As the daemon does: the callback subscribes at once. */
    qn_mom_client_connect(
        c, QN_MOM_DEV_DB,
        [](qn_mom_client_t *cl, uint32_t db, void *) {
            ++calls;
            io_record pattern(0, "");
            if (qn_mom_subscribe(cl, db, pattern.msg(), 0, [](void *, qn_mom_reply_t *) { return 0; }, nullptr) == 0)
                ++subscribed;
            return 0;
        },
        nullptr);
    /* Run the loop task by task until the link is up; the task fetched
     * then, the callback's, is held back. */
    qn_thread t;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE(qn_thread_fetch(res_master, &t), nullptr);
        if (qn_mom_client_is_up(c))
            break;
        qn_thread_call(&t);
    }
    ASSERT_TRUE(qn_mom_client_is_up(c));
    EXPECT_EQ(calls, 0);
    /* The link goes before the callback's turn. */
    server.stop();
    for (int i = 0; i < 50 && qn_mom_client_is_up(c); ++i) {
        event_base_loop(qn_thread_master_event_base(res_master), EVLOOP_NONBLOCK);
        usleep(10000);
    }
    ASSERT_FALSE(qn_mom_client_is_up(c));
    qn_thread_call(&t);
    test_loop_run(10);
    EXPECT_EQ(calls, 0);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(run_until([] { return calls == 1; }, 8000));
    EXPECT_EQ(subscribed, 1);
    test_loop_run(10);
    EXPECT_EQ(calls, 1);
}

/* Every I/O record in the store as a scan by `reader` hands them out:
 * "slot:disk" each, in key order. */
std::vector<std::string> stored_values(qn_mom_client_t *reader)
{
    io_record pattern(0, "");
    recorder scan;
    EXPECT_EQ(qn_mom_scan(reader, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    EXPECT_TRUE(run_until([&] { return scan.scan_over; }));
    return scan.values;
}

TEST_F(BusOutageTest, RecordsWrittenWhileTheLinkWasDownStayTheClientsOwnThroughAGapInTheLog)
{
    qn_mom_client_t *other = client(res_master, "OTHER");
    qn_mom_client_t *node = client(side_loop(), "LC");
    io_record first(1, "v1");
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, first.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(node) == 0; }));

    cut_links();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    /* While the link is down: a newer value of a record the store holds,
     * and a record the store never had. */
    io_record second(1, "v2"), fresh(2, "new");
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, second.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(node, QN_MOM_MONITOR_DB, fresh.msg(), 0, 0), 0);
    /* Others write on and the log is trimmed past the node's position: it
     * comes back through a snapshot of the current records. */
    io_record theirs(9, "other");
    ASSERT_EQ(qn_mom_set(other, QN_MOM_MONITOR_DB, theirs.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(other) && qn_mom_client_outbox(other) == 0; }, 8000));
    server.command("XTRIM qnmom:stream MAXLEN 0");
    testing::internal::CaptureStderr();
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(node) && qn_mom_client_outbox(node) == 0; }, 8000));
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(err.find("qn_mom[LC]: link to the store is back"), std::string::npos) << err;
    EXPECT_EQ(stored_values(other), (std::vector<std::string>{"1:v2", "2:new", "9:other"}));

    /* The store then loses everything: the node writes back what it wrote
     * last, the record it first wrote while its link was down included. */
    restart_store();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(node); }));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(node) && qn_mom_client_outbox(node) == 0; }, 8000));
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(other) && qn_mom_client_outbox(other) == 0; }, 8000));
    EXPECT_EQ(stored_values(other), (std::vector<std::string>{"1:v2", "2:new", "9:other"}));
}

/* The store comes back from a copy saved before the node's last writes: same
 * lifetime, older records.  The node writes back what it wrote since. */
TEST_F(BusOutageTest, AStoreBackFromAnOlderCopyGetsTheClientsNewerRecordsBack)
{
    qn_mom_client_t *owner = client(side_loop(), "OWNER");
    qn_mom_client_t *reader = client(res_master, "READER");
    recorder sub;
    subscribe(reader, &sub);
    io_record old_value(1, "v1"), kept(3, "kept");
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, old_value.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, kept.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));
    ASSERT_EQ(server.command("SAVE"), "OK");
    io_record new_value(1, "v2"), after_save(2, "after-save");
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, new_value.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, after_save.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));
    ASSERT_TRUE(run_until([&] { return sub.values.size() == 4; }));

    /* Restarted from the saved copy (the server loads it at start). */
    server.stop();
    ASSERT_TRUE(server.start());
    ASSERT_EQ(stored_values(reader), (std::vector<std::string>{"1:v1", "3:kept"}));
    testing::internal::CaptureStderr();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(owner); }));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(owner); }, 8000));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));
    test_loop_run(20);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(stored_values(reader), (std::vector<std::string>{"1:v2", "2:after-save", "3:kept"}));
    EXPECT_NE(err.find("qn_mom[OWNER]: the store came back from an older copy: writing back the 2 records it holds "
                       "older values of"),
              std::string::npos)
        << err;
    /* The subscriber ends on the newer values. */
    ASSERT_TRUE(run_until([&] { return sub.values.size() >= 6; }));
    EXPECT_EQ(std::vector<std::string>(sub.values.end() - 2, sub.values.end()),
              (std::vector<std::string>{"1:v2", "2:after-save"}));
}

TEST_F(BusOutageTest, AStoreBackFromAnOlderCopyIsSeenAlsoWhenOthersWroteToItFirst)
{
    qn_mom_client_t *owner = client(side_loop(), "OWNER");
    qn_mom_client_t *other = client(res_master, "OTHER");
    io_record old_value(1, "v1");
    ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, old_value.msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));
    ASSERT_EQ(server.command("SAVE"), "OK");
    io_record new_value(1, "v2"), second(2, "w2"), third(3, "w3");
    for (const io_record *rec : {&new_value, &second, &third})
        ASSERT_EQ(qn_mom_set(owner, QN_MOM_MONITOR_DB, rec->msg(), 0, 0), 0);
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));

    server.stop();
    ASSERT_TRUE(server.start());
    /* Another node is back first and writes: the log goes on past the
     * owner's position, so only the server's new run tells the owner.  The
     * record the other node wrote meanwhile keeps its value. */
    io_record theirs(9, "other"), newest(3, "theirs");
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(other); }, 8000));
    ASSERT_EQ(qn_mom_set(other, QN_MOM_MONITOR_DB, theirs.msg(), 0, 0), 0);
    ASSERT_EQ(qn_mom_set(other, QN_MOM_MONITOR_DB, newest.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(other) == 0; }));
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(owner); }));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(owner); }, 8000));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_outbox(owner) == 0; }));
    pump_side([] { return false; }, 200);
    EXPECT_EQ(stored_values(other), (std::vector<std::string>{"1:v2", "2:w2", "3:theirs", "9:other"}));
    /* And the owner took the other node's value as the one it holds. */
    restart_store();
    ASSERT_TRUE(pump_side([&] { return !qn_mom_client_is_up(owner); }));
    ASSERT_TRUE(pump_side([&] { return qn_mom_client_is_up(owner) && qn_mom_client_outbox(owner) == 0; }, 8000));
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(other) && qn_mom_client_outbox(other) == 0; }, 8000));
    EXPECT_EQ(stored_values(other), (std::vector<std::string>{"1:v2", "2:w2", "3:theirs", "9:other"}));
}

/* ---- value sizes, on both transports ---- */

template <bool Redis>
class BusValueSizeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        if (Redis) {
            server = std::make_unique<test_redis>();
            ASSERT_TRUE(server->start());
            cfg = std::make_unique<config_file>("[bus]\nurl = redis://127.0.0.1:" + std::to_string(server->port) +
                                                "\n");
        } else {
            qn_mom_embedded_reset();
            cfg = std::make_unique<config_file>("[node]\ndevid = 0\n");
        }
        c = qn_mom_client_init("NODE", res_master);
        ASSERT_NE(c, nullptr);
        static int connects;
        connects = 0;
        qn_mom_client_connect(c, QN_MOM_MONITOR_DB, [](qn_mom_client_t *, uint32_t, void *) { ++connects; return 0; },
                              nullptr);
        ASSERT_TRUE(run_until([] { return connects == 1; }));
    }
    void TearDown() override
    {
        qn_mom_client_free(c);
        test_loop_run(1);
        qn_mom_embedded_reset();
        cfg.reset();
    }

    std::unique_ptr<test_redis> server;
    std::unique_ptr<config_file> cfg;
    qn_mom_client_t *c = nullptr;
};

using BusValueSizeEmbedded = BusValueSizeTest<false>;
using BusValueSizeRedis = BusValueSizeTest<true>;

void values_over_the_limit_are_refused_on_write(qn_mom_client_t *c)
{
    recorder sub;
    io_record pattern(0, "");
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    io_record big(1, std::string(70000, 'x')), fits(2, std::string(60000, 'y'));
    testing::internal::CaptureStderr();
    EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, big.msg(), 0, 0), QN_MOM_ERR_TOOBIG);
    EXPECT_EQ(qn_mom_hmset(c, QN_MOM_MONITOR_DB, big.msg(), 0, 0), QN_MOM_ERR_TOOBIG);
    std::string at_limit(QN_MOM_MAX_VALUE, 'z'), over(QN_MOM_MAX_VALUE + 1, 'z');
    EXPECT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, "qnmom:12:p_utils.stovig_io:0.3.0.0", over.data(), over.size()),
              QN_MOM_ERR_TOOBIG);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, fits.msg(), 0, 0), 0);
    EXPECT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, "qnmom:12:p_utils.stovig_io:0.4.0.0", at_limit.data(),
                             at_limit.size()),
              0);
    qn_mom_counters_t n{};
    qn_mom_client_counters(c, &n);
    EXPECT_EQ(n.refused_writes, 3u);
    EXPECT_NE(err.find("qn_mom[NODE]: refused to store 700"), std::string::npos) << err;
    EXPECT_NE(err.find("bytes under qnmom:12:p_utils.stovig_io:0.1.0.0: over the 65536-byte limit (1 refused so far)"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("refused to store 65537 bytes under qnmom:12:p_utils.stovig_io:0.3.0.0: over the 65536-byte "
                       "limit (3 refused so far)"),
              std::string::npos)
        << err;
    ASSERT_TRUE(run_until([&] { return sub.values.size() == 1; }));
    test_loop_run(5);
    EXPECT_EQ(sub.values.size(), 1u); /* only the record that fits; the raw one does not decode */
    EXPECT_EQ(sub.values[0].substr(0, 4), "2:yy");
}

/* Keys come from the store, written by anyone: the client's diagnostics
 * show them escaped. */
void keys_from_the_bus_are_escaped_in_diagnostics(qn_mom_client_t *c)
{
    recorder sub;
    io_record pattern(0, "");
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    ASSERT_TRUE(run_until([&] { return !sub.kinds.empty(); }));
    const std::string key = "qnmom:12:p_utils.stovig_io:\x1b]0;owned\x07\\";
    testing::internal::CaptureStderr();
    ASSERT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, key.c_str(), "\xff\xff", 2), 0);
    test_loop_run(20);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("value under key qnmom:12:p_utils.stovig_io:\\x1b]0;owned\\x07\\x5c does not decode"),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find('\x1b'), std::string::npos);
    EXPECT_EQ(err.find('\x07'), std::string::npos);
}

void keys_over_the_limit_are_refused_on_write(qn_mom_client_t *c)
{
    const std::string prefix = "qnmom:12:p_utils.stovig_io:";
    std::string at_limit = prefix + std::string(QN_MOM_MAX_KEY - prefix.size(), '7');
    std::string over = prefix + std::string(QN_MOM_MAX_KEY + 1 - prefix.size(), '8');
    testing::internal::CaptureStderr();
    EXPECT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, over.c_str(), "x", 1), QN_MOM_ERR_PARAM);
    EXPECT_EQ(qn_mom_set_raw(c, QN_MOM_MONITOR_DB, at_limit.c_str(), "x", 1), 0);
    std::string err = testing::internal::GetCapturedStderr();
    qn_mom_counters_t n{};
    qn_mom_client_counters(c, &n);
    EXPECT_EQ(n.refused_keys, 1u);
    EXPECT_NE(err.find("qn_mom[NODE]: refused to write a key of 513 bytes (qnmom:12:p_utils.stovig_io:8888"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("...): over the 512-byte limit (1 refused so far)"), std::string::npos) << err;
}

TEST_F(BusValueSizeEmbedded, KeysOverTheLimitAreRefusedOnWrite)
{
    keys_over_the_limit_are_refused_on_write(c);
}

TEST_F(BusValueSizeRedis, KeysOverTheLimitAreRefusedOnWrite)
{
    keys_over_the_limit_are_refused_on_write(c);
}

/* Each log entry holds a new and an old value: large values fill the log by
 * bytes long before its count bound. */
TEST_F(BusValueSizeRedis, TheChangeLogIsBoundedInBytes)
{
    recorder sub;
    io_record pattern(0, "");
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    const int writes = 300; /* about 120 KB of log each: 36 MB unbounded */
    for (int i = 0; i < writes; ++i) {
        io_record big(1, std::to_string(i) + ":" + std::string(60000, 'b'));
        ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, big.msg(), 0, 0), 0);
        if (i % 50 == 49) {
            ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(c) == 0; }, 10000));
        }
    }
    ASSERT_TRUE(run_until([&] { return qn_mom_client_outbox(c) == 0; }, 10000));
    long used = atol(server->command("MEMORY USAGE qnmom:stream SAMPLES 0").c_str());
    long entries = atol(server->command("XLEN qnmom:stream").c_str());
    EXPECT_LE(used, 34L * 1024 * 1024) << entries << " entries";
    EXPECT_GT(entries, 100);
    EXPECT_LT(entries, writes);
    /* The newest changes are all there: the subscriber got the last one. */
    ASSERT_TRUE(run_until([&] { return !sub.values.empty() && sub.values.back().substr(0, 6) == "1:299:"; }, 10000));
}

/* Written by another tool: neither a scan nor the change feed takes it. */
TEST_F(BusValueSizeRedis, AKeyOverTheLimitInTheStoreIsNeitherReadNorDelivered)
{
    recorder sub;
    io_record pattern(0, "");
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    ASSERT_TRUE(run_until([&] { return !sub.kinds.empty(); }));
    sub.kinds.clear();
    io_record rec(1, "sda");
    size_t len = protobuf_c_message_get_packed_size(rec.msg());
    std::string bytes(len, '\0');
    protobuf_c_message_pack(rec.msg(), reinterpret_cast<uint8_t *>(bytes.data()));
    const std::string key = "qnmom:12:p_utils.stovig_io:" + std::string(100000, '9');
    testing::internal::CaptureStderr();
    EXPECT_EQ(server->command("SET %b %b", key.data(), key.size(), bytes.data(), bytes.size()), "OK");
    std::string id = server->command("XADD qnmom:stream * o S k %b v %b p '' w someone", key.data(), key.size(),
                                     bytes.data(), bytes.size());
    EXPECT_FALSE(id.empty());
    recorder scan;
    ASSERT_EQ(qn_mom_scan(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    ASSERT_TRUE(run_until([&] { return scan.scan_over; }));
    test_loop_run(20);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(scan.values.empty());
    EXPECT_TRUE(sub.values.empty());
    qn_mom_counters_t n{};
    qn_mom_client_counters(c, &n);
    EXPECT_EQ(n.refused_keys, 2u);
    EXPECT_NE(err.find("did not read a key of 100027 bytes (qnmom:12:p_utils.stovig_io:9999"), std::string::npos)
        << err.substr(0, 2000);
    EXPECT_LT(err.size(), 2000u); /* the key itself is not printed */
}

TEST_F(BusValueSizeEmbedded, KeysFromTheBusAreEscapedInDiagnostics)
{
    keys_from_the_bus_are_escaped_in_diagnostics(c);
}

TEST_F(BusValueSizeRedis, KeysFromTheBusAreEscapedInDiagnostics)
{
    keys_from_the_bus_are_escaped_in_diagnostics(c);
}

TEST_F(BusValueSizeEmbedded, ValuesOverTheLimitAreRefusedOnWrite)
{
    values_over_the_limit_are_refused_on_write(c);
}

TEST_F(BusValueSizeRedis, ValuesOverTheLimitAreRefusedOnWrite)
{
    values_over_the_limit_are_refused_on_write(c);
}

TEST_F(BusValueSizeRedis, AHugeValueWrittenByAnotherToolIsNeitherReadNorDelivered)
{
    recorder sub;
    io_record pattern(0, "");
    ASSERT_EQ(qn_mom_subscribe(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &sub), 0);
    ASSERT_TRUE(run_until([&] { return !sub.kinds.empty(); }));
    /* 64 MiB under a record key, straight into Redis. */
    std::string huge(64 * 1024 * 1024, 'h');
    const std::string key = "qnmom:12:p_utils.stovig_io:0.9.0.0";
    EXPECT_EQ(server->command("SET %b %b", key.data(), key.size(), huge.data(), huge.size()), "OK");
    io_record fine(1, "sda");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, fine.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return sub.values.size() == 1; }));

    testing::internal::CaptureStderr();
    recorder scan;
    ASSERT_EQ(qn_mom_scan(c, QN_MOM_MONITOR_DB, pattern.msg(), 0, recorder::cb, &scan), 0);
    ASSERT_TRUE(run_until([&] { return scan.scan_over; }));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(scan.values, (std::vector<std::string>{"1:sda"}));
    EXPECT_NE(err.find("value under key qnmom:12:p_utils.stovig_io:0.9.0.0 is 67108864 bytes, over the 65536-byte "
                       "limit: not read (1 refused so far)"),
              std::string::npos)
        << err;
    /* The subscription still works: the huge value never travelled. */
    io_record after(2, "sdb");
    ASSERT_EQ(qn_mom_set(c, QN_MOM_MONITOR_DB, after.msg(), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return sub.values.size() == 2; }));
    EXPECT_EQ(sub.values[1], "2:sdb");
    /* A dump names it with its size. */
    static std::vector<std::pair<std::string, size_t>> dumped;
    static bool over;
    dumped.clear();
    over = false;
    ASSERT_EQ(qn_mom_dump(c, QN_MOM_MONITOR_DB,
                          [](void *, const char *k, const char *, const void *bytes, size_t len) {
                              if (!k)
                                  over = true;
                              else if (!bytes)
                                  dumped.push_back({k, len});
                          },
                          nullptr),
              0);
    ASSERT_TRUE(run_until([] { return over; }));
    EXPECT_EQ(dumped, (std::vector<std::pair<std::string, size_t>>{{key, 64u * 1024 * 1024}}));
}

} // namespace
