/* Rendering what the master knows of 64 nodes, three ways, with the
 * daemon's own renderers: the "show storage all-info" text through a printer
 * that appends to a string as the command line's printer appends to the
 * session's output, the same as JSON ("show storage all-info json"), and the
 * /metrics exposition.  Only the rendering into memory is timed: the session
 * socket or HTTP connection that then carries the text is not part of it.
 *
 * Each node holds 2 disks, 5 processes, 12 partitions (10 shown) and one
 * lifetime entry, and has received every kind of record.  Every round times
 * the three renderings, each first in turn, so that all three see the same
 * machine; medians, their ratios to the text, and the output sizes are
 * printed.
 *
 * Usage: bench_show_render [nodes (default 64)] [rounds (default 200)] */
#include "printed.h"
#include "store_settings.h"

#include "cli/res_cli_json.h"
#include "cli/res_cli_show.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_metrics.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

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
        char name[RES_MOM_NAME_LEN];
        snprintf(name, sizeof name, d ? "mmcblk%d" : "sd%c", d ? n : 'a' + n % 26);
        res_mom_disk_io_node e = store_disk(name, 12.5 * (n + 1), 300.25 + n, n % 100 + 0.125, n % 3);
        res_mom_add_node_disk_io_list(&e, &node->disk_io_list);
    }
    for (int p = 0; p < 5; ++p) {
        char name[RES_MOM_NAME_LEN];
        snprintf(name, sizeof name, "proc-%d-%d", n, p);
        res_mom_proc_io_node e = store_proc(1000 + n * 10 + p, name, 4096.0 * p, 8192.5 * p + n);
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
    if (store_reset_defaults() != 0) {
        fprintf(stderr, "cannot set up the node store\n");
        return 1;
    }
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
            printed.clear();
            res_cli_show_storage(RES_SHOW_ALL, capture);
            return printed.size();
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
