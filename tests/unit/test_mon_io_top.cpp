#include "mon/res_mon_io_top_arr.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_io_top_utils.h"
#include "mom/res_mom_cap.h"
#include "test_mon_fixture.h"

#include <fcntl.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/taskstats.h>
#include <sched.h>
#include <sys/resource.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace {

xxxid_stats *rec(uint32_t tid, uint64_t rd = 0, uint64_t wr = 0)
{
    auto *s = static_cast<xxxid_stats *>(calloc(1, sizeof(xxxid_stats)));
    s->tid = tid;
    s->read_bytes = rd;
    s->write_bytes = wr;
    return s;
}

/* A bus client handle for the capability lookups; never dereferenced. */
qn_mom_client_t *fake_client()
{
    static int token;
    return reinterpret_cast<qn_mom_client_t *>(&token);
}

TEST(MonIoTopArr, AddKeepsTidOrderAndFinds)
{
    xxxid_stats_arr *pa = arr_alloc();
    ASSERT_NE(nullptr, pa);
    EXPECT_EQ(1024, pa->size);
    std::vector<uint32_t> tids;
    for (uint32_t i = 1; i <= 300; ++i)
        tids.push_back(i * 7);
    std::shuffle(tids.begin(), tids.end(), std::mt19937(42));
    for (uint32_t t : tids)
        ASSERT_EQ(0, arr_add(pa, rec(t)));
    ASSERT_EQ(300, pa->length);
    for (int i = 1; i < pa->length; ++i)
        ASSERT_LT(pa->arr[i - 1]->tid, pa->arr[i]->tid);
    for (uint32_t t : tids)
        ASSERT_NE(nullptr, arr_find(pa, t));
    EXPECT_EQ(nullptr, arr_find(pa, 8));
    EXPECT_EQ(nullptr, arr_find(pa, 0));
    EXPECT_EQ(nullptr, arr_find(pa, 100000));
    EXPECT_EQ(nullptr, arr_find(nullptr, 7));
    arr_free(pa);
}

TEST(MonIoTopArr, DuplicateTidIsRejectedWith22AndArrayUnchanged)
{
    xxxid_stats_arr *pa = arr_alloc();
    for (uint32_t t : {5u, 1u, 9u, 3u, 7u, 11u})
        ASSERT_EQ(0, arr_add(pa, rec(t)));
    arr_sort(pa, my_sort_cb, nullptr);
    std::vector<xxxid_stats *> before(pa->arr, pa->arr + pa->length);
    xxxid_stats *dup = rec(7, 1, 1);
    EXPECT_EQ(22, arr_add(pa, dup));
    EXPECT_EQ(6, pa->length);
    EXPECT_EQ(before, std::vector<xxxid_stats *>(pa->arr, pa->arr + pa->length));
    EXPECT_NE(dup, arr_find(pa, 7));
    free_stats(dup);
    EXPECT_EQ(22, arr_add(pa, nullptr));
    xxxid_stats *lone = rec(1);
    EXPECT_EQ(22, arr_add(nullptr, lone));
    free_stats(lone);
    arr_free(pa);
}

TEST(MonIoTopArr, AddDiscardsSortOrderAndGrowsBy1024)
{
    xxxid_stats_arr *pa = arr_alloc();
    for (uint32_t t = 1; t <= 1024; ++t)
        ASSERT_EQ(0, arr_add(pa, rec(t)));
    EXPECT_EQ(1024, pa->size);
    arr_sort(pa, my_sort_cb, nullptr);
    ASSERT_NE(nullptr, pa->sor);
    ASSERT_EQ(0, arr_add(pa, rec(5000)));
    EXPECT_EQ(nullptr, pa->sor);
    EXPECT_EQ(2048, pa->size);
    EXPECT_EQ(1025, pa->length);
    for (uint32_t t = 1025; t <= 2048; ++t)
        ASSERT_EQ(0, arr_add(pa, rec(t + 10000)));
    EXPECT_EQ(3072, pa->size);
    arr_free(pa);
}

TEST(MonIoTopArr, NullRecordFreesAreHarmless)
{
    free_stats(nullptr);
    arr_free(nullptr);
    arr_sort(nullptr, my_sort_cb, nullptr);
    xxxid_stats *s = rec(1);
    s->cmdline = res_xxxid_unknown; /* the shared text is never freed */
    s->name = strdup("own");
    free_stats(s);
}

class MonIoTop : public MonFixture {
  protected:
    void TearDown() override
    {
        res_mon_io_top_clear();
        MonFixture::TearDown();
    }
};

TEST_F(MonIoTop, EmptyArraySortIsLogged)
{
    xxxid_stats_arr *pa = arr_alloc();
    arr_sort(pa, my_sort_cb, nullptr);
    EXPECT_EQ(nullptr, pa->sor);
    EXPECT_TRUE(logged("return due to pa->length[0] is empty."));
    arr_free(pa);
}

TEST_F(MonIoTop, SortIsByTotalBytesSinceStartNotByRate)
{
    xxxid_stats_arr *old = arr_alloc(), *cur = arr_alloc();
    /* pid 10: 1 GB written long ago, idle; pid 20: started a second ago,
     * 1 MB/s. */
    arr_add(old, rec(10, 0, 1ULL << 30));
    arr_add(cur, rec(10, 0, 1ULL << 30));
    arr_add(cur, rec(20, 0, 1 << 20));
    arr_add(old, rec(30, 0, 0));
    arr_add(cur, rec(30, 0, 5 << 20)); /* 5 MB in the last second */
    uint64_t times[2] = {2000, 1000};
    res_mon_sort_iotop(cur, old, times);
    ASSERT_NE(nullptr, cur->sor);
    EXPECT_EQ(10u, cur->sor[0]->tid);
    EXPECT_EQ(30u, cur->sor[1]->tid);
    EXPECT_EQ(20u, cur->sor[2]->tid);
    EXPECT_EQ(0.0, arr_find(cur, 10)->write_val);
    EXPECT_DOUBLE_EQ(5.0 * (1 << 20), arr_find(cur, 30)->write_val);
    EXPECT_EQ(0.0, arr_find(cur, 20)->write_val); /* new: nothing to diff */
    EXPECT_TRUE(logged("get time_s 1.000000."));
    EXPECT_TRUE(logged("sort result["));
    arr_free(old);
    arr_free(cur);
}

TEST_F(MonIoTop, SortComparisonTruncatesToThirtyTwoBits)
{
    xxxid_stats a{}, b{};
    a.tid = 1;
    b.tid = 2;
    a.write_bytes = 0;
    b.write_bytes = 1ULL << 31; /* b is larger by 2^31: the difference reads negative */
    xxxid_stats *pa = &a, *pb = &b;
    EXPECT_LT(my_sort_cb(&pa, &pb, nullptr), 0);
    b.write_bytes = 1ULL << 32; /* wraps to 0: equal */
    EXPECT_EQ(0, my_sort_cb(&pa, &pb, nullptr));
    b.write_bytes = 100;
    EXPECT_EQ(100, my_sort_cb(&pa, &pb, nullptr));
    EXPECT_EQ(-100, my_sort_cb(&pb, &pa, nullptr));
}

TEST_F(MonIoTop, FirstTickHasNoPreviousTimeAndZeroFigures)
{
    xxxid_stats_arr *cur = arr_alloc();
    arr_add(cur, rec(1, 500, 500));
    arr_add(cur, rec(2, 100, 0));
    uint64_t times[2] = {123456, 0};
    res_mon_sort_iotop(cur, nullptr, times);
    EXPECT_TRUE(logged("get time_s 0.000100."));
    for (int i = 0; i < cur->length; ++i) {
        EXPECT_EQ(0.0, cur->arr[i]->read_val);
        EXPECT_EQ(0.0, cur->arr[i]->write_val);
        EXPECT_EQ(0.0, cur->arr[i]->blkio_val);
        EXPECT_EQ(0.0, cur->arr[i]->read_val_acc);
    }
    EXPECT_EQ(1u, cur->sor[0]->tid);
    arr_free(cur);
}

TEST_F(MonIoTop, SameTimeStampsUseTheTinyInterval)
{
    xxxid_stats_arr *old = arr_alloc(), *cur = arr_alloc();
    arr_add(old, rec(1, 0, 0));
    arr_add(cur, rec(1, 1, 0));
    uint64_t times[2] = {5000, 5000};
    res_mon_sort_iotop(cur, old, times);
    EXPECT_DOUBLE_EQ(1 / 0.0001, cur->arr[0]->read_val);
    arr_free(old);
    arr_free(cur);
}

TEST_F(MonIoTop, DelaySharesAreCappedAtHundred)
{
    xxxid_stats_arr *old = arr_alloc(), *cur = arr_alloc();
    xxxid_stats *o = rec(1), *n = rec(1);
    o->blkio_delay_total = 1000000000ULL;
    n->blkio_delay_total = 3000000000ULL; /* 2 s of block I/O wait */
    o->swapin_delay_total = 0;
    n->swapin_delay_total = 250000000ULL; /* 0.25 s */
    arr_add(old, o);
    arr_add(cur, n);
    uint64_t times[2] = {11000, 10000}; /* over 1 s */
    res_mon_sort_iotop(cur, old, times);
    EXPECT_EQ(100.0, n->blkio_val);
    EXPECT_DOUBLE_EQ(25.0, n->swapin_val);
    arr_free(old);
    arr_free(cur);
}

TEST_F(MonIoTop, RatesAccumulateAndFallingCountersUseOnesComplement)
{
    xxxid_stats_arr *a = arr_alloc(), *b = arr_alloc(), *c = arr_alloc();
    arr_add(a, rec(1, 1000, 0));
    arr_add(b, rec(1, 3000, 0));
    arr_add(c, rec(1, 2000, 10));
    uint64_t t1[2] = {2000, 1000};
    res_mon_sort_iotop(b, a, t1);
    EXPECT_DOUBLE_EQ(2000.0, b->arr[0]->read_val);
    EXPECT_DOUBLE_EQ(2000.0, b->arr[0]->read_val_acc);
    uint64_t t2[2] = {4000, 2000};
    res_mon_sort_iotop(c, b, t2);
    /* read_bytes fell from 3000 to 2000: 3000 - 2000 - 1 = 999 */
    EXPECT_DOUBLE_EQ(999.0 / 2, c->arr[0]->read_val);
    EXPECT_DOUBLE_EQ(2999.0, c->arr[0]->read_val_acc);
    EXPECT_DOUBLE_EQ(5.0, c->arr[0]->write_val);
    EXPECT_DOUBLE_EQ(10.0, c->arr[0]->write_val_acc);
    arr_free(a);
    arr_free(b);
    arr_free(c);
}

TEST_F(MonIoTop, KernelThreadShowsItsStatusNameInBrackets)
{
    put("/proc/77/cmdline", "");
    put("/proc/77/status", "Name:\tkworker/0:1H\nUmask:\t0000\nState:\tI (idle)\n");
    put("/proc/78/cmdline", std::string("/usr/bin/python3\0-u\0x.py\0", 26));
    put("/proc/78/status", "Name:\tpython3\nState:\tS\n");
    put("/proc/79/status", "Name without a tab\n");
    put("/proc/80/status", "Name:\n\tlate tab\n");
    xxxid_stats *k = rec(77), *p = rec(78), *u = rec(79), *v = rec(80), *g = rec(81);
    for (xxxid_stats *s : {k, p, u, v, g})
        res_mon_xxxid_resolve(s);
    EXPECT_STREQ("[kworker/0:1H]", k->cmdline);
    EXPECT_STREQ("kworker/0:1H", k->name);
    EXPECT_STREQ("/usr/bin/python3", p->cmdline);
    EXPECT_STREQ("python3", p->name);
    EXPECT_STREQ("<unknown>", u->cmdline);
    EXPECT_STREQ("<unknown>", u->name);
    EXPECT_STREQ("<unknown>", v->name); /* the tab comes after the newline */
    EXPECT_STREQ("<unknown>", g->cmdline);
    EXPECT_EQ(res_xxxid_unknown, g->name);
    /* Looked up once only. */
    put("/proc/78/status", "Name:\tchanged\n");
    res_mon_xxxid_resolve(p);
    EXPECT_STREQ("python3", p->name);
    for (xxxid_stats *s : {k, p, u, v, g})
        free_stats(s);
}

TEST_F(MonIoTop, LongCommandLineKeepsItsFirst255Bytes)
{
    put("/proc/90/cmdline", std::string(400, 'c'));
    put("/proc/90/status", "Name:\t" + std::string(200, 'n') + "\n");
    xxxid_stats *s = rec(90);
    res_mon_xxxid_resolve(s);
    EXPECT_EQ(std::string(255, 'c'), s->cmdline);
    /* The status line is read up to 128 bytes. */
    EXPECT_EQ(std::string(128 - 6, 'n'), s->name);
    free_stats(s);
}

TEST_F(MonIoTop, PidGeneratorYieldsOnlyDecimalNames)
{
    for (const char *d : {"/proc/12", "/proc/345", "/proc/abc", "/proc/12a", "/proc/0", "/proc/self"})
        mkdirs(d);
    put("/proc/99", "a file counts too");
    mkdirs("/proc/12/task/12");
    mkdirs("/proc/12/task/13");
    std::set<uint32_t> got;
    pidgen *pg = openpidgen(0);
    ASSERT_NE(nullptr, pg);
    for (uint32_t id; (id = pidgen_next(pg)) != 0;)
        got.insert(id);
    EXPECT_EQ((std::set<uint32_t>{12, 345, 99}), got);

    got.clear();
    pg = openpidgen(PIDGEN_FLAGS_TASK);
    for (uint32_t id; (id = pidgen_next(pg)) != 0;)
        got.insert(id);
    /* 345 and 99 have no task directory: they are yielded themselves. */
    EXPECT_EQ((std::set<uint32_t>{12, 13, 345, 99}), got);
    EXPECT_TRUE(logged("open path[" + root + "/proc/345/task] failed with reason[No such file or directory."));
}

TEST_F(MonIoTop, SnapshotWithoutProcFails)
{
    rmdir((root + "/proc").c_str());
    EXPECT_EQ(nullptr, openpidgen(0));
    EXPECT_EQ(nullptr, fetch_data());
    EXPECT_TRUE(logged("openpidgen"));
}

TEST_F(MonIoTop, IoPriorityRule)
{
    /* No class set: derived from nice and policy (class 2 for normal); the
     * test may itself run under nice. */
    errno = 0;
    int own_nice = getpriority(PRIO_PROCESS, 0);
    ASSERT_EQ(0, errno);
    EXPECT_EQ(16384 + (own_nice + 20) / 5, res_mon_ioprio(static_cast<uint32_t>(getpid())));
    pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    struct sched_param sp = {};
    ASSERT_EQ(0, sched_setscheduler(child, SCHED_IDLE, &sp));
    EXPECT_EQ(24576, res_mon_ioprio(static_cast<uint32_t>(child)));
    ASSERT_EQ(0, sched_setscheduler(child, SCHED_OTHER, &sp));
    ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(child), 10));
    EXPECT_EQ(16384 + 30 / 5, res_mon_ioprio(static_cast<uint32_t>(child)));
    sp.sched_priority = 1;
    if (sched_setscheduler(child, SCHED_FIFO, &sp) == 0)
        EXPECT_EQ(8192 + 30 / 5, res_mon_ioprio(static_cast<uint32_t>(child)));
    else
        printf("real-time policy not permitted here (%s); FIFO case not checked\n", strerror(errno));
    /* An explicit class is taken as it is: best effort, level 3. */
    ASSERT_EQ(0, syscall(SYS_ioprio_set, 1, child, (2 << 13) | 3));
    EXPECT_EQ((2 << 13) | 3, res_mon_ioprio(static_cast<uint32_t>(child)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

/* Builds a reply: netlink header, generic header, then the given bytes. */
std::vector<char> reply(const std::vector<char> &attrs, uint32_t len_field = 0)
{
    std::vector<char> buf(NLMSG_HDRLEN + GENL_HDRLEN, 0);
    buf.insert(buf.end(), attrs.begin(), attrs.end());
    auto *nlh = reinterpret_cast<nlmsghdr *>(buf.data());
    nlh->nlmsg_len = len_field ? len_field : static_cast<uint32_t>(buf.size());
    nlh->nlmsg_type = 30;
    return buf;
}
std::vector<char> attr(uint16_t type, const std::vector<char> &payload)
{
    std::vector<char> a(NLA_HDRLEN, 0);
    auto *na = reinterpret_cast<nlattr *>(a.data());
    na->nla_type = type;
    na->nla_len = static_cast<uint16_t>(NLA_HDRLEN + payload.size());
    a.insert(a.end(), payload.begin(), payload.end());
    while (a.size() % 4)
        a.push_back(0);
    return a;
}
std::vector<char> stats_payload(uint64_t rd, uint64_t wr, size_t cut = sizeof(taskstats))
{
    taskstats ts{};
    ts.read_bytes = rd;
    ts.write_bytes = wr;
    ts.blkio_delay_total = 77;
    ts.swapin_delay_total = 66;
    ts.ac_uid = 1234;
    const char *p = reinterpret_cast<const char *>(&ts);
    return std::vector<char>(p, p + cut);
}
std::vector<char> cat(std::vector<char> a, const std::vector<char> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(MonIoTopReply, KernelLayoutIsParsed)
{
    auto nested = cat(attr(TASKSTATS_TYPE_PID, {1, 0, 0, 0}), attr(TASKSTATS_TYPE_STATS, stats_payload(10, 20)));
    auto buf = reply(attr(TASKSTATS_TYPE_AGGR_PID, nested));
    xxxid_stats s{};
    res_mon_nl_parse_reply(&s, buf.data(), buf.size());
    EXPECT_EQ(10u, s.read_bytes);
    EXPECT_EQ(20u, s.write_bytes);
    EXPECT_EQ(77u, s.blkio_delay_total);
    EXPECT_EQ(66u, s.swapin_delay_total);
    EXPECT_EQ(1234, s.euid);
}

TEST(MonIoTopReply, NestedCursorMovesByRunningTotal)
{
    /* A third nested attribute after a 12-byte second one is not reached:
     * offsets go 0, 8, 8 + 8 + 12 = 28, not 20. */
    auto nested = cat(cat(attr(TASKSTATS_TYPE_PID, {1, 0, 0, 0}), attr(TASKSTATS_TYPE_TGID, {1, 0, 0, 0, 0, 0, 0, 0})),
                      attr(TASKSTATS_TYPE_STATS, stats_payload(10, 20)));
    auto buf = reply(attr(TASKSTATS_TYPE_AGGR_TGID, nested));
    xxxid_stats s{};
    res_mon_nl_parse_reply(&s, buf.data(), buf.size());
    EXPECT_EQ(0u, s.read_bytes);
}

TEST(MonIoTopReply, ShortOrLyingRepliesAreNotReadPastTheirEnd)
{
    auto nested = cat(attr(TASKSTATS_TYPE_PID, {1, 0, 0, 0}), attr(TASKSTATS_TYPE_STATS, stats_payload(10, 20)));
    auto full = reply(attr(TASKSTATS_TYPE_AGGR_PID, nested));
    /* Cut at every length: never more than what is there is read (ASan
     * watches the heap copy), and figures appear only when whole. */
    for (size_t len = 0; len <= full.size(); ++len) {
        std::vector<char> cut(full.begin(), full.begin() + static_cast<long>(len));
        cut.shrink_to_fit();
        xxxid_stats s{};
        res_mon_nl_parse_reply(&s, cut.data(), cut.size());
        if (len < full.size()) {
            EXPECT_EQ(0u, s.read_bytes) << len;
        }
    }
    /* A statistics attribute too short for the byte counters. */
    auto small = reply(attr(TASKSTATS_TYPE_AGGR_PID, cat(attr(TASKSTATS_TYPE_PID, {1, 0, 0, 0}),
                                                         attr(TASKSTATS_TYPE_STATS, stats_payload(10, 20, 64)))));
    xxxid_stats s{};
    res_mon_nl_parse_reply(&s, small.data(), small.size());
    EXPECT_EQ(0u, s.read_bytes);
    /* Zero-length and oversized attributes stop the walk. */
    std::vector<char> zero(8, 0);
    auto z = reply(zero);
    res_mon_nl_parse_reply(&s, z.data(), z.size());
    auto big = attr(TASKSTATS_TYPE_AGGR_PID, nested);
    reinterpret_cast<nlattr *>(big.data())->nla_len = 4000;
    auto b = reply(big);
    res_mon_nl_parse_reply(&s, b.data(), b.size());
    EXPECT_EQ(0u, s.read_bytes);
}

/* The real kernel interface. */
class MonIoTopKernel : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        unsetenv("STOVIG_ROOT"); /* the real /proc */
        write_config(flash_caps());
        res_mom_cap_init(fake_client(), "stovig");
    }
};

TEST_F(MonIoTopKernel, InitResolvesTheFamilyAndQueriesProcesses)
{
    ASSERT_EQ(0, res_mon_nl_init());
    EXPECT_GE(res_mon_nl_sock, 0);
    EXPECT_NE(0, res_mon_nl_family);
    EXPECT_TRUE(logged("CAP:flash_id=TESTFLASH"));

    /* Our own writes show up in write_bytes. */
    xxxid_stats *a = res_mon_nl_xxxid_info(static_cast<uint32_t>(getpid()), 1);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(static_cast<uint32_t>(getpid()), a->tid);
    EXPECT_EQ(static_cast<int32_t>(getuid()), a->euid);
    std::string f = root + "/written";
    int fd = open(f.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char> data(1 << 20, 'x');
    ASSERT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
    fsync(fd);
    close(fd);
    xxxid_stats *b = res_mon_nl_xxxid_info(static_cast<uint32_t>(getpid()), 1);
    ASSERT_NE(nullptr, b);
    EXPECT_GE(b->write_bytes - a->write_bytes, static_cast<uint64_t>(1 << 20));
    free_stats(a);
    free_stats(b);

    /* A process that is gone: no record, and no error line for ESRCH. */
    clear_log();
    pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(nullptr, res_mon_nl_xxxid_info(static_cast<uint32_t>(child), 1));
    EXPECT_FALSE(logged("fatal reply error"));

    /* A snapshot has this process and is ordered. */
    xxxid_stats_arr *pa = fetch_data();
    ASSERT_NE(nullptr, pa);
    EXPECT_NE(nullptr, arr_find(pa, static_cast<uint32_t>(getpid())));
    EXPECT_NE(nullptr, arr_find(pa, 1));
    for (int i = 1; i < pa->length; ++i)
        ASSERT_LT(pa->arr[i - 1]->tid, pa->arr[i]->tid);
    /* pid 2 is the kernel's thread creator: no command line. */
    xxxid_stats *k = arr_find(pa, 2);
    if (k) {
        res_mon_xxxid_resolve(k);
        EXPECT_STREQ("[kthreadd]", k->cmdline);
        EXPECT_STREQ("kthreadd", k->name);
    }
    arr_free(pa);
}

TEST_F(MonIoTopKernel, DefaultBoxProfileLetsEveryProcessBeQueried)
{
    write_config(""); /* no [cap] section at all */
    ASSERT_EQ(0, res_mon_nl_init());
    EXPECT_TRUE(logged("CAP:flash_id=EMMC-8G"));
    clear_log();
    xxxid_stats_arr *pa = fetch_data();
    ASSERT_NE(nullptr, pa);
    EXPECT_NE(nullptr, arr_find(pa, static_cast<uint32_t>(getpid())));
    arr_free(pa);
    EXPECT_FALSE(logged("get_xxxid_info")) << log();
}

TEST_F(MonIoTopKernel, MissingFlashFiguresCloseTheSocket)
{
    write_config("[cap]\nCAP_FLASH_IDNAME =\n");
    EXPECT_NE(0, res_mon_nl_init());
    EXPECT_TRUE(logged("res_get_flash_cap fail."));
    /* The descriptor number is kept, but the socket is gone. */
    EXPECT_GE(res_mon_nl_sock, 0);
    EXPECT_EQ(nullptr, res_mon_nl_xxxid_info(static_cast<uint32_t>(getpid()), 1));
    EXPECT_TRUE(logged("get_xxxid_info: Bad file descriptor"));
    /* A snapshot is then empty. */
    xxxid_stats_arr *pa = fetch_data();
    ASSERT_NE(nullptr, pa);
    EXPECT_EQ(0, pa->length);
    arr_free(pa);
    ASSERT_EQ(0, (write_config(flash_caps()), res_mon_nl_init()));
}

TEST_F(MonIoTopKernel, InvalidSocketIsReported)
{
    int saved = res_mon_nl_sock;
    res_mon_nl_sock = -1;
    EXPECT_EQ(nullptr, res_mon_nl_xxxid_info(1, 1));
    EXPECT_TRUE(logged("res_mon_nl_sock invalid -1."));
    res_mon_nl_sock = saved;
}

TEST_F(MonIoTopKernel, TickSampleAndCommit)
{
    ASSERT_EQ(0, res_mon_nl_init());
    res_mon_io_top_sample();
    xxxid_stats_arr *first = res_mon_io_top_current();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, first->sor);
    /* First sample: nothing to diff against. */
    for (int i = 0; i < first->length; ++i)
        ASSERT_EQ(0.0, first->arr[i]->write_val);
    /* Not committed: the next sample still has no previous one. */
    res_mon_io_top_sample();
    EXPECT_TRUE(logged("get time_s 0.000100."));
    res_mon_io_top_commit();
    clear_log();
    usleep(20000);
    res_mon_io_top_sample();
    EXPECT_FALSE(logged("get time_s 0.000100."));
    /* The measured interval, not the stand-in for a first sample: at least
     * the pause between the two samples, however long the sweep took. */
    std::string text = log();
    size_t at = text.find("get time_s ");
    ASSERT_NE(std::string::npos, at) << text;
    EXPECT_GE(std::stod(text.substr(at + 11)), 0.020) << text;
    res_mon_io_top_commit();
}

} // namespace
