/* Rendering what the master knows of 64 nodes, three ways, on the path the
 * daemon takes for each: the "show storage all-info" text through a printer
 * that formats like the command line's, the same as JSON
 * ("show storage all-info json"), and the /metrics exposition.
 *
 * Each node holds 2 disks, 5 processes, 12 partitions (10 shown) and one
 * lifetime entry, and has received every kind of record.  Every round times
 * the three renderings, each first in turn, so that all three see the same
 * machine; medians, their ratios to the text, and the output sizes are
 * printed.
 *
 * Usage: bench_show_render [nodes (default 64)] [rounds (default 200)] */
#include "cli/res_cli_json.h"
#include "cli/res_cli_show.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_metrics.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

std::string text_out;

int printer(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n > 0) {
        std::string text(static_cast<size_t>(n) + 1, '\0');
        vsnprintf(text.data(), text.size(), fmt, ap);
        text.pop_back();
        text_out.append(text);
    }
    va_end(ap);
    return n;
}

double now_us()
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void fill(res_mom_node *node, int n)
{
    for (int d = 0; d < 2; ++d) {
        res_mom_disk_io_node e{};
        snprintf(e.disk_name, sizeof e.disk_name, d ? "mmcblk%d" : "sd%c", d ? n : 'a' + n % 26);
        e.io_read = 12.5 * (n + 1);
        e.io_write = 300.25 + n;
        e.io_util = n % 100 + 0.125;
        e.io_flag = n % 3;
        res_mom_add_node_disk_io_list(&e, &node->disk_io_list);
    }
    for (int p = 0; p < 5; ++p) {
        res_mom_proc_io_node e{};
        e.proc_id = 1000 + n * 10 + p;
        snprintf(e.proc_name, sizeof e.proc_name, "proc-%d-%d", n, p);
        e.io_read = 4096.0 * p;
        e.io_write = 8192.5 * p + n;
        res_mom_add_node_proc_io_list(&e, &node->proc_io_list);
    }
    for (int p = 0; p < 12; ++p) {
        char path[32];
        snprintf(path, sizeof path, "/mnt/part%d", p);
        res_mom_part_node *e = res_mom_get_part_node_by_path(&node->part_list, path, static_cast<int>(strlen(path)));
        snprintf(e->part_uname, sizeof e->part_uname, "part%d", p);
        e->total_vol = 1000000ull * (p + 1);
        e->use_vol = 123457ull * (p + 1) + n;
        e->vol_flag = p == 3 ? 2 : 0;
        e->ro_flag = p == 5 ? 2 : 0;
        e->exist = p < 10;
        e->vol_visible = e->ro_visible = 1;
    }
    res_mom_lifetime_node l{};
    snprintf(l.disk_name, sizeof l.disk_name, "emmc");
    l.left_lifetime = 100 + n;
    l.flag = 0;
    res_mom_add_node_disk_lft_list(&l, &node->lifetime_list);
    for (uint64_t &at : node->rx_ms)
        at = 1000 + n;
}

} // namespace

int main(int argc, char **argv)
{
    int nodes = argc > 1 ? atoi(argv[1]) : 64;
    int rounds = argc > 2 ? atoi(argv[2]) : 200;
    if (nodes < 1 || rounds < 1) {
        fprintf(stderr, "usage: %s [nodes] [rounds]\n", argv[0]);
        return 2;
    }
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    res_mom_data_init();
    res_local_node.devid = 0;
    res_local_node.slotid = 1;
    res_local_node.sslotid = 0;
    res_local_node.user_slot = 1;
    io_interval = 10;
    io_threshold = 50;
    ro_interval = 30;
    cap_interval = 30;
    cap_threshold = 80;
    disk_interval = 60;
    disk_threshold = 12;
    res_disk_type = RES_DISK_EMMC;
    fill(&res_local_node, 0);
    for (int n = 1; n < nodes; ++n) {
        res_mom_node *node = res_mom_malloc_node_init();
        node->devid = 0;
        node->slotid = n + 1;
        node->sslotid = 0;
        node->user_slot = n + 1;
        res_mom_add_node_info_list(node);
        fill(node, n);
    }
    const uint64_t now_ms = 100000;
    size_t sizes[3] = {0, 0, 0};
    const char *names[3] = {"text (show storage all-info)", "json (show storage all-info json)",
                            "metrics (GET /metrics)"};
    std::function<size_t()> runs[3] = {
        [] {
            text_out.clear();
            res_cli_show_storage(RES_SHOW_ALL, printer);
            return text_out.size();
        },
        [now_ms] { return res_cli_json_storage(RES_SHOW_ALL, now_ms).size(); },
        [now_ms] { return res_mom_metrics_render_nodes(&res_node_list, now_ms).size(); },
    };
    std::vector<double> times[3];
    for (int r = 0; r < rounds; ++r) {
        for (int k = 0; k < 3; ++k) {
            int which = (r + k) % 3;
            double t0 = now_us();
            sizes[which] = runs[which]();
            times[which].push_back(now_us() - t0);
        }
    }
    double base = median(times[0]);
    printf("%d nodes, %d rounds, medians:\n", nodes, rounds);
    for (int k = 0; k < 3; ++k) {
        double m = median(times[k]);
        printf("  %-36s %9.1f us  x%.2f of text  %8zu bytes\n", names[k], m, m / base, sizes[k]);
    }
    return 0;
}
