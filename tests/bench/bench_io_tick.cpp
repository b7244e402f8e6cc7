/* One I/O tick of the monitor, with the debug log open as the daemon opens
 * it, against a bare taskstats sweep.
 *
 * A tick is what the I/O timer does: a taskstats snapshot of every process,
 * the diskstats scan and computation, the diff against the kept snapshot
 * and the sort (with the log lines all of these write), plus what the I/O
 * publisher reads (every present disk and the first six processes in sort
 * order with their names).  The bare sweep only lists /proc and sends one
 * taskstats query per process and reads its reply.
 *
 * The log is opened twice through res_zlog_init, as the daemon does at
 * start-up: once with no config file at all (the default routing: errors and
 * warnings in the debug log) and once with a config file that asks for
 * "[log] level = debug", each in a run directory of its own.  Every round
 * times the tick with the first, the bare sweep, and the tick with the
 * second, each first in turn, so that all three see the same machine;
 * medians, their ratios to the sweep, and the log bytes each routing wrote
 * per tick are printed.
 * Extra sleeping processes give the sweep something to do.
 *
 * Usage: bench_io_tick [extra processes, comma-separated (default 2000,4000)] [rounds (default 20)] */
#include "misc/res_zlog.h"
#include "mom/res_mom_cap.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_arr.h"
#include "mon/res_mon_io_top_info.h"
#include "qn_platform_config.h"
#include "qn_zlog_standin.h"
#include "res_main.h"

#include <dirent.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/taskstats.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
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

/* Opens the "stovig" category as the daemon does, in a run directory of its
 * own under `base`, with the given config file text (none when empty). */
qn_zlog_category_t *open_daemon_log(const std::string &base, const std::string &config_text)
{
    mkdir(base.c_str(), 0700);
    mkdir((base + "/stovig").c_str(), 0700);
    setenv("TMPDIR", base.c_str(), 1);
    if (config_text.empty()) {
        unsetenv("STOVIG_CONFIG");
    } else {
        std::string path = base + "/stovig.ini";
        std::ofstream(path) << config_text;
        setenv("STOVIG_CONFIG", path.c_str(), 1);
    }
    qn_platform_config_reload();
    if (res_zlog_init() != 0)
        return nullptr;
    return res_zlog_handle;
}

struct figures {
    double sweep, tick_default, tick_debug;
    double bytes_default, bytes_debug;
    int snapshot, replies;
};

figures measure(int sock, int rounds, qn_zlog_category_t *by_default, qn_zlog_category_t *debug)
{
    figures f{};
    /* Warm-up: the kept snapshot exists before the first timed tick. */
    res_zlog_handle = by_default;
    io_tick();
    res_zlog_handle = debug;
    io_tick();
    f.replies = bare_sweep(sock, res_mon_nl_family);
    qn_zlog_flush(by_default);
    qn_zlog_flush(debug);
    uint64_t default_before = qn_zlog_bytes_written(by_default);
    uint64_t debug_before = qn_zlog_bytes_written(debug);

    std::vector<double> ticks_default, sweeps, ticks_debug;
    auto time_tick = [](qn_zlog_category_t *log, std::vector<double> &out) {
        res_zlog_handle = log;
        double t0 = now_ms();
        io_tick();
        out.push_back(now_ms() - t0);
    };
    for (int r = 0; r < rounds; ++r) {
        /* Each of the three goes first in turn, so that none always runs on
         * caches warmed by another. */
        for (int i = 0; i < 3; ++i) {
            switch ((r + i) % 3) {
            case 0:
                time_tick(by_default, ticks_default);
                break;
            case 1: {
                double t0 = now_ms();
                f.replies = bare_sweep(sock, res_mon_nl_family);
                sweeps.push_back(now_ms() - t0);
                break;
            }
            default:
                time_tick(debug, ticks_debug);
                break;
            }
        }
    }
    qn_zlog_flush(by_default);
    qn_zlog_flush(debug);
    f.bytes_default = static_cast<double>(qn_zlog_bytes_written(by_default) - default_before) / rounds;
    f.bytes_debug = static_cast<double>(qn_zlog_bytes_written(debug) - debug_before) / rounds;
    f.sweep = median(sweeps);
    f.tick_default = median(ticks_default);
    f.tick_debug = median(ticks_debug);
    xxxid_stats_arr *cur = res_mon_io_top_current();
    f.snapshot = cur ? cur->length : 0;
    return f;
}

std::vector<int> parse_counts(const char *text)
{
    std::vector<int> counts;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ','))
        if (!item.empty())
            counts.push_back(atoi(item.c_str()));
    return counts;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<int> counts = parse_counts(argc > 1 ? argv[1] : "2000,4000");
    int rounds = argc > 2 ? atoi(argv[2]) : 20;
    if (counts.empty() || rounds < 1) {
        fprintf(stderr, "usage: %s [extra processes, comma-separated] [rounds]\n", argv[0]);
        return 2;
    }

    char tmpl[] = "/tmp/bench-io-tick-XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        return 1;
    }
    std::string dir = tmpl;
    qn_zlog_category_t *debug = open_daemon_log(dir + "/debug", "[log]\nlevel = debug\n");
    qn_zlog_category_t *by_default = open_daemon_log(dir + "/default", "");
    if (!debug || !by_default) {
        fprintf(stderr, "cannot open the logs under %s\n", dir.c_str());
        return 1;
    }

    /* The capability lookups and the taskstats set-up as at start-up, with
     * no config file: the default box profile. */
    static int client_token;
    res_mom_cap_init(reinterpret_cast<qn_mom_client_t *>(&client_token), "bench");
    int ret = res_mon_nl_init();
    if (ret != 0) {
        fprintf(stderr, "taskstats set-up failed (%d)\n", ret);
        return 1;
    }

    int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    struct sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    bind(sock, reinterpret_cast<sockaddr *>(&local), sizeof local);

    printf("logs under %s; %d rounds per row; times are medians\n", dir.c_str(), rounds);
    printf("%8s %8s | %10s | %10s %6s %12s | %10s %6s %12s\n", "extra", "in snap", "sweep ms", "default ms",
           "ratio", "log B/tick", "debug ms", "ratio", "log B/tick");
    std::vector<pid_t> children;
    for (int want : counts) {
        while (static_cast<int>(children.size()) < want) {
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
        figures f = measure(sock, rounds, by_default, debug);
        printf("%8zu %8d | %10.3f | %10.3f %6.2f %12.0f | %10.3f %6.2f %12.0f\n", children.size(), f.snapshot,
               f.sweep, f.tick_default, f.tick_default / f.sweep, f.bytes_default, f.tick_debug,
               f.tick_debug / f.sweep, f.bytes_debug);
        fflush(stdout);
    }

    close(sock);
    for (pid_t pid : children)
        kill(pid, SIGKILL);
    for (pid_t pid : children)
        waitpid(pid, nullptr, 0);
    res_mon_io_top_clear();
    res_mon_io_stat_clear();
    std::string cmd = "rm -rf '" + dir + "'";
    return std::system(cmd.c_str()) == 0 ? 0 : 1;
}
