#include "mon/res_mon_io_top_info.h"

#include "misc/res_path.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_cap.h"
#include "mon/res_mon_io_top_utils.h"

#include <fcntl.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/taskstats.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

int res_mon_nl_sock = -1;
uint16_t res_mon_nl_family = 0;

namespace {

/* Set once the socket has been closed after a failed set-up.  The number is
 * kept as it was, but never used again: it may by now belong to another file
 * of this process, which must not receive taskstats requests. */
bool res_mon_nl_closed = false;

struct xxxid_stats_arr *res_io_top_cur = nullptr;
struct xxxid_stats_arr *res_io_top_prev = nullptr;
uint64_t res_io_top_cur_ms = 0;
uint64_t res_io_top_prev_ms = 0;

/* I/O priorities as the kernel packs them (linux/ioprio.h): the class in
 * the bits from 13 up, the level below. */
constexpr int RES_IOPRIO_CLASS_SHIFT = 13;
constexpr int32_t RES_IOPRIO_RT = 1 << RES_IOPRIO_CLASS_SHIFT;   /* 8192: real-time class */
constexpr int32_t RES_IOPRIO_BE = 2 << RES_IOPRIO_CLASS_SHIFT;   /* 16384: best-effort class */
constexpr int32_t RES_IOPRIO_IDLE = 3 << RES_IOPRIO_CLASS_SHIFT; /* 24576: idle class */

/* Taskstats delays are in nanoseconds; a delay over an interval of time_s
 * seconds as a percentage of it is delay / (time_s x 1e9 ns) x 100, that is
 * delay / (time_s x 1e7): 1e7 ns is one hundredth of a second. */
constexpr double RES_NS_PER_PERCENT_OF_SECOND = 1e7;
/* The interval of a first sample, or of two samples with the same time
 * stamp, in seconds. */
constexpr double RES_IO_TOP_NO_INTERVAL_S = 0.0001;

constexpr size_t RES_NL_FAMILY_REPLY = 276;
constexpr size_t RES_NL_STATS_REPLY = 1044;

inline size_t nl_align(size_t len) { return (len + 3u) & ~3u; }

/* Sends one request (netlink header, generic-netlink header, one attribute);
 * 0, or -1 on a send error other than EAGAIN. */
int res_mon_nl_send(int sock, uint16_t type, uint32_t portid, uint8_t cmd, uint16_t attr_type, const void *data,
                    uint16_t data_len)
{
    if (res_mon_nl_closed) {
        errno = EBADF;
        return -1;
    }
    char buf[NLMSG_HDRLEN + GENL_HDRLEN + 64] = {};
    const size_t attr_len = NLA_HDRLEN + data_len;
    if (nl_align(attr_len) + NLMSG_HDRLEN + GENL_HDRLEN > sizeof buf) {
        errno = EINVAL;
        return -1;
    }
    auto *nlh = reinterpret_cast<struct nlmsghdr *>(buf);
    nlh->nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + GENL_HDRLEN + nl_align(attr_len));
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = NLM_F_REQUEST;
    nlh->nlmsg_seq = 0;
    nlh->nlmsg_pid = portid;
    auto *genl = reinterpret_cast<struct genlmsghdr *>(buf + NLMSG_HDRLEN);
    genl->cmd = cmd;
    genl->version = 1;
    auto *na = reinterpret_cast<struct nlattr *>(buf + NLMSG_HDRLEN + GENL_HDRLEN);
    na->nla_type = attr_type;
    na->nla_len = static_cast<uint16_t>(attr_len);
    memcpy(buf + NLMSG_HDRLEN + GENL_HDRLEN + NLA_HDRLEN, data, data_len);

    struct sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    const char *p = buf;
    size_t left = nlh->nlmsg_len;
    while (left > 0) {
        ssize_t n = sendto(sock, p, left, 0, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
        if (n < 0) {
            if (errno == EAGAIN)
                continue;
            return -1;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return 0;
}

/* Whether `len` received bytes hold a usable reply: not an error message, a
 * length field of at least 16 and no more than what came. */
bool res_mon_nl_reply_ok(const char *buf, ssize_t len)
{
    if (len < static_cast<ssize_t>(NLMSG_HDRLEN))
        return false;
    auto *nlh = reinterpret_cast<const struct nlmsghdr *>(buf);
    return nlh->nlmsg_type != NLMSG_ERROR && nlh->nlmsg_len >= NLMSG_HDRLEN &&
           nlh->nlmsg_len <= static_cast<uint32_t>(len);
}

uint16_t res_mon_nl_get_family(int sock)
{
    static const char name[] = TASKSTATS_GENL_NAME;
    if (res_mon_nl_send(sock, GENL_ID_CTRL, static_cast<uint32_t>(getpid()), CTRL_CMD_GETFAMILY,
                        CTRL_ATTR_FAMILY_NAME, name, sizeof name) != 0)
        return 0;
    alignas(struct nlmsghdr) char buf[RES_NL_FAMILY_REPLY];
    ssize_t len = recv(sock, buf, sizeof buf, 0);
    if (!res_mon_nl_reply_ok(buf, len))
        return 0;
    auto *nlh = reinterpret_cast<const struct nlmsghdr *>(buf);
    size_t end = nlh->nlmsg_len;
    size_t off = NLMSG_HDRLEN + GENL_HDRLEN;
    /* The first attribute (the family name) is skipped whatever it is. */
    if (off + NLA_HDRLEN > end)
        return 0;
    const auto *na = reinterpret_cast<const struct nlattr *>(buf + off);
    if (na->nla_len < NLA_HDRLEN)
        return 0;
    off += nl_align(na->nla_len);
    if (off + NLA_HDRLEN + sizeof(uint16_t) > end)
        return 0;
    na = reinterpret_cast<const struct nlattr *>(buf + off);
    if (na->nla_type != CTRL_ATTR_FAMILY_ID || na->nla_len < NLA_HDRLEN + sizeof(uint16_t))
        return 0;
    uint16_t id;
    memcpy(&id, buf + off + NLA_HDRLEN, sizeof id);
    return id;
}

/* Takes the figures of a TASKSTATS_TYPE_STATS payload into the record; false
 * when the payload is too short to hold them. */
bool res_mon_take_stats(struct xxxid_stats *s, const char *payload, size_t len)
{
    if (len < offsetof(struct taskstats, write_bytes) + sizeof(uint64_t))
        return false;
    struct taskstats ts;
    memset(&ts, 0, sizeof ts);
    memcpy(&ts, payload, len < sizeof ts ? len : sizeof ts);
    s->swapin_delay_total = ts.swapin_delay_total;
    s->blkio_delay_total = ts.blkio_delay_total;
    s->read_bytes = ts.read_bytes;
    s->write_bytes = ts.write_bytes;
    s->euid = static_cast<int32_t>(ts.ac_uid);
    return true;
}

/* Walks the attributes of a taskstats reply.  Inside an aggregate the cursor
 * moves on by the running total of the aligned lengths walked so far; with
 * the kernel's two nested attributes (id, then statistics) that lands on the
 * statistics.  Every step is checked against the reply's length. */
} // namespace

void res_mon_nl_parse_reply(struct xxxid_stats *s, const char *buf, size_t end)
{
    size_t off = NLMSG_HDRLEN + GENL_HDRLEN;
    while (off + NLA_HDRLEN <= end) {
        const auto *na = reinterpret_cast<const struct nlattr *>(buf + off);
        size_t alen = na->nla_len;
        if (alen < NLA_HDRLEN || off + alen > end)
            return;
        uint16_t type = na->nla_type & NLA_TYPE_MASK;
        if (type == TASKSTATS_TYPE_AGGR_PID || type == TASKSTATS_TYPE_AGGR_TGID) {
            size_t nstart = off + NLA_HDRLEN;
            size_t nend = off + alen;
            size_t cursor = nstart;
            size_t total = 0;
            while (cursor + NLA_HDRLEN <= nend) {
                const auto *nn = reinterpret_cast<const struct nlattr *>(buf + cursor);
                size_t nlen = nn->nla_len;
                if (nlen < NLA_HDRLEN || cursor + nlen > nend)
                    break;
                if ((nn->nla_type & NLA_TYPE_MASK) == TASKSTATS_TYPE_STATS)
                    res_mon_take_stats(s, buf + cursor + NLA_HDRLEN, nlen - NLA_HDRLEN);
                total += nl_align(nlen);
                cursor += total;
            }
        }
        off += nl_align(alen);
    }
}

namespace {

/* Reads up to len - 1 bytes of a file; the count, or -1. */
ssize_t res_read_small(const std::string &path, char *buf, size_t len)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    ssize_t n;
    do {
        n = read(fd, buf, len - 1);
    } while (n < 0 && errno == EINTR);
    close(fd);
    if (n < 0)
        return -1;
    buf[n] = '\0';
    return n;
}

/* The status name: what follows the first tab of the first line. */
std::string res_mon_status_name(uint32_t pid)
{
    char path[32];
    snprintf(path, sizeof path, "/proc/%u/status", pid);
    char line[129];
    if (res_read_small(res_host_path(path), line, sizeof line) <= 0)
        return std::string();
    char *nl = strchr(line, '\n');
    if (nl)
        *nl = '\0';
    char *tab = strchr(line, '\t');
    if (!tab)
        return std::string();
    return std::string(tab + 1);
}

char *res_dup_or_unknown(const std::string &text)
{
    if (text.empty())
        return res_xxxid_unknown;
    char *copy = strdup(text.c_str());
    return copy ? copy : res_xxxid_unknown;
}

} // namespace

int res_mon_ioprio(uint32_t pid)
{
    long prio = syscall(SYS_ioprio_get, 1 /* IOPRIO_WHO_PROCESS */, static_cast<int>(pid));
    /* A class set for the process is taken as the kernel gives it. */
    if ((prio >> RES_IOPRIO_CLASS_SHIFT) != 0)
        return static_cast<int32_t>(prio);
    /* None set: the class and level the kernel derives from the scheduling
     * policy and the nice value (nice -20..19 gives level 0..7). */
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, pid);
    int level = (nice + 20) / 5;
    int policy = sched_getscheduler(static_cast<pid_t>(pid));
    if (policy == SCHED_FIFO || policy == SCHED_RR)
        return RES_IOPRIO_RT + level;
    if (policy == SCHED_IDLE)
        return RES_IOPRIO_IDLE;
    return RES_IOPRIO_BE + level;
}

void res_mon_xxxid_resolve(struct xxxid_stats *s)
{
    if (!s || s->resolved)
        return;
    s->resolved = 1;
    s->io_prio = res_mon_ioprio(s->tid);

    char path[32];
    snprintf(path, sizeof path, "/proc/%u/cmdline", s->tid);
    char cmd[256];
    std::string cmdline;
    if (res_read_small(res_host_path(path), cmd, sizeof cmd) > 0)
        cmdline = cmd; /* up to the first NUL: the first word */
    std::string status = res_mon_status_name(s->tid);
    if (cmdline.empty() && !status.empty()) {
        char wrapped[160];
        snprintf(wrapped, sizeof wrapped, "[%s]", status.c_str());
        cmdline = wrapped;
    }
    s->cmdline = res_dup_or_unknown(cmdline);
    s->name = res_dup_or_unknown(status);
}

int res_mon_nl_init(void)
{
    /* A second initialisation replaces the socket of the first. */
    if (res_mon_nl_sock >= 0 && !res_mon_nl_closed)
        close(res_mon_nl_sock);
    res_mon_nl_sock = -1;
    res_mon_nl_family = 0;
    res_mon_nl_closed = false;
    int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (sock < 0) {
        RES_ERR("creat netlink sock fail.");
        return -30;
    }
    struct sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    if (bind(sock, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) < 0) {
        RES_ERR("bind netlink sock fail.");
        close(sock);
        return -31;
    }
    res_mon_nl_sock = sock;
    res_mon_nl_closed = false;
    res_mon_nl_family = res_mon_nl_get_family(sock);
    if (res_mon_nl_family == 0) {
        RES_ERR("get netlink sock family id fail.");
        close(sock);
        res_mon_nl_closed = true;
        return -32;
    }
    int ret = res_get_flash_cap();
    if (ret != 0) {
        RES_ERR("res_get_flash_cap fail.");
        close(sock);
        res_mon_nl_closed = true;
        return ret;
    }
    return 0;
}

struct xxxid_stats *res_mon_nl_xxxid_info(uint32_t pid, int is_pid)
{
    auto *s = static_cast<struct xxxid_stats *>(calloc(1, sizeof(struct xxxid_stats)));
    if (!s) {
        RES_ERR("malloc stats information failed.");
        return nullptr;
    }
    if (res_mon_nl_sock < 0) {
        RES_ERR("res_mon_nl_sock invalid %d.", res_mon_nl_sock);
        free(s);
        return nullptr;
    }
    uint32_t id = pid;
    uint16_t attr = is_pid ? TASKSTATS_CMD_ATTR_PID : TASKSTATS_CMD_ATTR_TGID;
    if (res_mon_nl_send(res_mon_nl_sock, res_mon_nl_family, pid, TASKSTATS_CMD_GET, attr, &id, sizeof id) != 0) {
        RES_ERR("get_xxxid_info: %s", strerror(errno));
        free(s);
        return nullptr;
    }
    alignas(struct nlmsghdr) char buf[RES_NL_STATS_REPLY];
    ssize_t len = recv(res_mon_nl_sock, buf, sizeof buf, 0);
    if (len < 0) {
        RES_ERR("recieve from netlink failed with reason(%s).", strerror(errno));
        free(s);
        return nullptr;
    }
    if (!res_mon_nl_reply_ok(buf, len)) {
        int err = -EBADMSG;
        if (len >= static_cast<ssize_t>(NLMSG_HDRLEN + sizeof(struct nlmsgerr)) &&
            reinterpret_cast<const struct nlmsghdr *>(buf)->nlmsg_type == NLMSG_ERROR)
            err = reinterpret_cast<const struct nlmsgerr *>(buf + NLMSG_HDRLEN)->error;
        if (err != -ESRCH)
            RES_ERR("fatal reply error, %d", err);
        free(s);
        return nullptr;
    }
    res_mon_nl_parse_reply(s, buf, reinterpret_cast<const struct nlmsghdr *>(buf)->nlmsg_len);
    s->tid = pid;
    return s;
}

struct xxxid_stats_arr *fetch_data(void)
{
    struct xxxid_stats_arr *pa = arr_alloc();
    if (!pa)
        return nullptr;
    struct pidgen *pg = openpidgen(0);
    if (!pg) {
        RES_ERR("openpidgen");
        arr_free(pa);
        return nullptr;
    }
    uint32_t pid;
    while ((pid = pidgen_next(pg)) != 0) {
        struct xxxid_stats *s = res_mon_nl_xxxid_info(pid, 1);
        if (!s)
            continue;
        if (arr_add(pa, s) != 0)
            free_stats(s);
    }
    return pa;
}

int my_sort_cb(const void *a, const void *b, void *arg)
{
    (void)arg;
    const struct xxxid_stats *pa = *static_cast<struct xxxid_stats *const *>(a);
    const struct xxxid_stats *pb = *static_cast<struct xxxid_stats *const *>(b);
    uint64_t ta = pa->read_bytes + pa->write_bytes;
    uint64_t tb = pb->read_bytes + pb->write_bytes;
    /* kept: the order is by bytes since process start, not by rate, and the
     * difference is cut to 32 bits, so totals 2^31 or more apart can compare
     * the wrong way. */
    int ret = static_cast<int>(static_cast<uint32_t>(tb - ta));
    RES_VERBOSE("get a[%d] and b[%d] sort result[%d]", pa->tid, pb->tid, ret);
    return ret;
}

void res_mon_sort_iotop(struct xxxid_stats_arr *cur, struct xxxid_stats_arr *prev, const uint64_t times[2])
{
    if (!cur)
        return;
    const uint64_t now = times ? times[0] : 0;
    const uint64_t before = times ? times[1] : 0;
    double time_s = RES_IO_TOP_NO_INTERVAL_S;
    /* Time stamps in milliseconds, the interval in seconds. */
    if (before != 0 && before != now)
        time_s = static_cast<double>(now - before) / 1000.0;
    RES_VERBOSE("get time_s %lf.", time_s);

    for (int32_t i = 0; i < cur->length; ++i) {
        struct xxxid_stats *n = cur->arr[i];
        struct xxxid_stats *o = prev ? arr_find(prev, n->tid) : nullptr;
        if (!o) {
            n->blkio_val = n->swapin_val = n->read_val = n->write_val = 0;
            n->read_val_acc = n->write_val_acc = 0;
            continue;
        }
        /* kept: a counter that went down gives old - new - 1, the one's
         * complement form the figures have always used. */
        auto diff = [](uint64_t nv, uint64_t ov) -> uint64_t { return nv >= ov ? nv - ov : ov - nv - 1; };
        double blk = static_cast<double>(diff(n->blkio_delay_total, o->blkio_delay_total)) /
                     (time_s * RES_NS_PER_PERCENT_OF_SECOND);
        double swp = static_cast<double>(diff(n->swapin_delay_total, o->swapin_delay_total)) /
                     (time_s * RES_NS_PER_PERCENT_OF_SECOND);
        n->blkio_val = blk > 100 ? 100 : blk;
        n->swapin_val = swp > 100 ? 100 : swp;
        uint64_t rd = diff(n->read_bytes, o->read_bytes);
        uint64_t wr = diff(n->write_bytes, o->write_bytes);
        n->read_val = static_cast<double>(rd) / time_s;
        n->write_val = static_cast<double>(wr) / time_s;
        n->read_val_acc = o->read_val_acc + static_cast<double>(rd);
        n->write_val_acc = o->write_val_acc + static_cast<double>(wr);
    }
    arr_sort(cur, my_sort_cb, nullptr);
}

uint64_t res_mon_now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void res_mon_io_top_sample(void)
{
    if (res_io_top_cur && res_io_top_cur != res_io_top_prev)
        arr_free(res_io_top_cur);
    res_io_top_cur = fetch_data();
    res_io_top_cur_ms = res_mon_now_ms();
    uint64_t times[2] = {res_io_top_cur_ms, res_io_top_prev_ms};
    res_mon_sort_iotop(res_io_top_cur, res_io_top_prev, times);
}

void res_mon_io_top_commit(void)
{
    if (res_io_top_prev && res_io_top_prev != res_io_top_cur)
        arr_free(res_io_top_prev);
    res_io_top_prev = res_io_top_cur;
    res_io_top_prev_ms = res_io_top_cur_ms;
}

struct xxxid_stats_arr *res_mon_io_top_current(void)
{
    return res_io_top_cur;
}

void res_mon_io_top_set_current(struct xxxid_stats_arr *arr)
{
    if (res_io_top_cur && res_io_top_cur != res_io_top_prev)
        arr_free(res_io_top_cur);
    res_io_top_cur = arr;
}

void res_mon_io_top_clear(void)
{
    if (res_io_top_cur && res_io_top_cur != res_io_top_prev)
        arr_free(res_io_top_cur);
    arr_free(res_io_top_prev);
    res_io_top_cur = res_io_top_prev = nullptr;
    res_io_top_cur_ms = res_io_top_prev_ms = 0;
}
