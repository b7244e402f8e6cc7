/* One I/O tick of the monitor against a bare taskstats sweep.
 *
 * A tick is what the I/O timer does: a taskstats snapshot of every process,
 * the diskstats scan and computation, the diff against the kept snapshot
 * and the sort, plus what the I/O publisher reads (every present disk and
 * the first six processes in sort order with their names).  The bare sweep
 * only lists /proc and sends one taskstats query per process and reads its
 * reply.  Extra sleeping processes are started so that the sweep has
 * something to do; both are timed alternately in the same run and their
 * medians printed side by side.  For reference, a third figure gives the
 * tick with every process's names looked up, which the monitor avoids by
 * looking them up only for the processes the publisher lists.
 *
 * Usage: bench_io_tick [extra processes (default 2000)] [rounds (default 30)] */
#include "misc/res_zlog.h"
#include "mom/res_mom_cap.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_arr.h"
#include "mon/res_mon_io_top_info.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <dirent.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/taskstats.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

double now_ms()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

/* What the I/O publisher reads in a tick; the sum keeps the reads alive. */
volatile double sink;

void publisher_read(void)
{
    double acc = 0;
    for (io_device *d = io_device_list; d; d = d->next)
        if (d->exist && d->is_disk == 1)
            acc += d->rsec_rate + d->wsec_rate + d->util + d->io_warn_state + static_cast<double>(strlen(d->name));
    xxxid_stats_arr *pa = res_mon_io_top_current();
    for (int i = 0; pa && pa->sor && i < RES_IO_TOP_COUNT + 1 && i < pa->length; ++i) {
        xxxid_stats *s = pa->sor[i];
        res_mon_xxxid_resolve(s);
        acc += s->tid + s->read_val + s->write_val + s->blkio_val + s->swapin_val +
               static_cast<double>(strlen(s->cmdline) + strlen(s->name));
    }
    sink = acc;
}

void io_tick(void)
{
    res_mon_io_top_sample();
    if (res_mon_io_stat_scan() == 0) {
        publisher_read();
        res_mon_io_top_commit();
    }
}

/* The tick as it would cost with every record's names looked up. */
void io_tick_all_names(void)
{
    io_tick();
    xxxid_stats_arr *pa = res_mon_io_top_current();
    for (int i = 0; pa && i < pa->length; ++i)
        res_mon_xxxid_resolve(pa->arr[i]);
}

/* The bare sweep: /proc listing, one query and one reply per process. */
int bare_sweep(int sock, uint16_t family)
{
    DIR *dir = opendir("/proc");
    if (!dir)
        return -1;
    int replies = 0;
    struct {
        struct nlmsghdr n;
        struct genlmsghdr g;
        struct nlattr a;
        uint32_t pid;
    } req;
    alignas(struct nlmsghdr) char buf[1044];
    struct sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    while (struct dirent *de = readdir(dir)) {
        char *end;
        unsigned long pid = strtoul(de->d_name, &end, 10);
        if (*end || end == de->d_name)
            continue;
        memset(&req, 0, sizeof req);
        req.n.nlmsg_len = sizeof req;
        req.n.nlmsg_type = family;
        req.n.nlmsg_flags = NLM_F_REQUEST;
        req.n.nlmsg_pid = static_cast<uint32_t>(pid);
        req.g.cmd = TASKSTATS_CMD_GET;
        req.g.version = 1;
        req.a.nla_type = TASKSTATS_CMD_ATTR_PID;
        req.a.nla_len = NLA_HDRLEN + sizeof(uint32_t);
        req.pid = static_cast<uint32_t>(pid);
        if (sendto(sock, &req, sizeof req, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) < 0)
            continue;
        if (recv(sock, buf, sizeof buf, 0) > 0)
            ++replies;
    }
    closedir(dir);
    return replies;
}

} // namespace

int main(int argc, char **argv)
{
    int extra = argc > 1 ? atoi(argv[1]) : 2000;
    int rounds = argc > 2 ? atoi(argv[2]) : 30;

    char cfg[] = "/tmp/bench-io-tick-XXXXXX";
    int cfd = mkstemp(cfg);
    if (cfd < 0) {
        perror("mkstemp");
        return 1;
    }
    close(cfd);
    std::ofstream(cfg) << "[cap]\nCAP_FLASH_IDNAME = BENCH\nCAP_FLASH_ERASETIMES = 3000\nCAP_FLASH_PRODUCTLIFE = 5\n"
                          "CAP_FLASH_GCLEVEL = 2\nCAP_FLASH_WARNLEVEL = 80\n";
    setenv("STOVIG_CONFIG", cfg, 1);
    qn_platform_config_reload();
    static int client_token;
    res_mom_cap_init(reinterpret_cast<qn_mom_client_t *>(&client_token), "bench");
    int ret = res_mon_nl_init();
    unlink(cfg);
    if (ret != 0) {
        fprintf(stderr, "taskstats set-up failed (%d)\n", ret);
        return 1;
    }

    std::vector<pid_t> children;
    for (int i = 0; i < extra; ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            for (;;)
                pause();
        }
        if (pid < 0) {
            perror("fork");
            break;
        }
        children.push_back(pid);
    }

    int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    struct sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    bind(sock, reinterpret_cast<sockaddr *>(&local), sizeof local);

    /* Warm-up, then alternate so that both see the same machine. */
    io_tick();
    int replies = bare_sweep(sock, res_mon_nl_family);
    std::vector<double> ticks, sweeps, named;
    for (int r = 0; r < rounds; ++r) {
        double t0 = now_ms();
        io_tick();
        double t1 = now_ms();
        replies = bare_sweep(sock, res_mon_nl_family);
        double t2 = now_ms();
        io_tick_all_names();
        double t3 = now_ms();
        ticks.push_back(t1 - t0);
        sweeps.push_back(t2 - t1);
        named.push_back(t3 - t2);
    }
    xxxid_stats_arr *cur = res_mon_io_top_current();
    double mt = median(ticks), ms = median(sweeps);
    printf("processes: %d in the snapshot, %d extra sleeping, %d sweep replies, %d rounds\n",
           cur ? cur->length : 0, static_cast<int>(children.size()), replies, rounds);
    printf("I/O tick:   median %.3f ms\n", mt);
    printf("bare sweep: median %.3f ms\n", ms);
    printf("ratio tick/sweep: %.2f\n", mt / ms);
    printf("(reference: tick looking up every process's names: median %.3f ms)\n", median(named));

    close(sock);
    for (pid_t pid : children)
        kill(pid, SIGKILL);
    for (pid_t pid : children)
        waitpid(pid, nullptr, 0);
    res_mon_io_top_clear();
    res_mon_io_stat_clear();
    return 0;
}
