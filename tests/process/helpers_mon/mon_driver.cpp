/* Drives the monitor passes from commands on standard input, one per line,
 * and prints the monitors' tables on standard output:
 *
 *   io             one I/O tick (process sample, diskstats scan, commit)
 *   dev            the device list with every derived figure
 *   top N          the first N processes in sort order
 *   pid P          the process P of the current sample
 *   cap | ro       one capacity or read-only pass
 *   part           the partition table
 *   set NAME V     cap_threshold or io_threshold
 *   quit
 *
 * Every reply ends with a line "." so that the caller knows it is complete.
 * The capability client and the taskstats socket are set up at start; the
 * flash figures must be in the platform config's [cap] section. */
#include "misc/res_misc.h"
#include "mom/res_mom_cap.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"
#include "res_main.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

namespace {

void print_dev()
{
    for (io_device *d = io_device_list; d; d = d->next) {
        printf("dev %s exist=%u is_disk=%u warn=%u util=%.6f await=%.6f arqsz=%.6f r_await=%.6f w_await=%.6f "
               "d_await=%.6f f_await=%.6f rsec=%.6f wsec=%.6f dsec=%.6f rrqm=%.6f wrqm=%.6f drqm=%.6f "
               "rareq=%.6f wareq=%.6f dareq=%.6f\n",
               d->name, d->exist, d->is_disk, d->io_warn_state, d->util, d->await, d->arqsz, d->r_await,
               d->w_await, d->d_await, d->f_await, d->rsec_rate, d->wsec_rate, d->dsec_rate, d->rrqm_pct,
               d->wrqm_pct, d->drqm_pct, d->rareq_sz, d->wareq_sz, d->dareq_sz);
    }
}

void print_proc(xxxid_stats *s)
{
    res_mon_xxxid_resolve(s);
    printf("proc %u read=%.3f write=%.3f blkio=%.3f swapin=%.3f rbytes=%llu wbytes=%llu cmd=%s name=%s\n", s->tid,
           s->read_val, s->write_val, s->blkio_val, s->swapin_val, static_cast<unsigned long long>(s->read_bytes),
           static_cast<unsigned long long>(s->write_bytes), s->cmdline, s->name);
}

void print_part()
{
    for (int i = 0; i < RES_PART_NUM; ++i) {
        const res_part_info *p = &res_part_table[i];
        printf("part %d %s %s check=%u mounted=%u ro=%u total=%llu used=%llu usage=%u\n", i, p->path, p->name,
               p->check_usage, p->mounted, p->ro_state, static_cast<unsigned long long>(p->total_kb),
               static_cast<unsigned long long>(p->used_kb), p->usage_state);
    }
}

} // namespace

int main()
{
    static int client_token;
    res_master = qn_thread_master_create();
    if (!res_master) {
        fprintf(stderr, "cannot create the event loop\n");
        return 1;
    }
    res_mom_cap_init(reinterpret_cast<qn_mom_client_t *>(&client_token), "stovig");
    int nl = res_mon_nl_init();
    res_mon_part_init();
    io_threshold = 50;
    cap_threshold = 80;
    io_interval = 10;
    ro_interval = 30;
    cap_interval = 30;
    printf("ready nl=%d\n.\n", nl);
    fflush(stdout);

    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string cmd;
        in >> cmd;
        if (cmd == "io") {
            res_mon_io_top_sample();
            int ret = res_mon_io_stat_scan();
            if (ret == 0)
                res_mon_io_top_commit();
            printf("io %d\n", ret);
        } else if (cmd == "dev") {
            print_dev();
        } else if (cmd == "top") {
            int n = 0;
            in >> n;
            xxxid_stats_arr *pa = res_mon_io_top_current();
            for (int i = 0; pa && pa->sor && i < n && i < pa->length; ++i)
                print_proc(pa->sor[i]);
        } else if (cmd == "pid") {
            unsigned pid = 0;
            in >> pid;
            xxxid_stats *s = arr_find(res_mon_io_top_current(), pid);
            if (s)
                print_proc(s);
        } else if (cmd == "cap") {
            printf("cap %d\n", res_mon_part_cap_timer_func(&res_mon_cap_thread));
            res_misc_del_timer(&res_mon_cap_thread);
        } else if (cmd == "ro") {
            printf("ro %d\n", res_mom_part_ro_timer_func(&res_mon_ro_thread));
            res_misc_del_timer(&res_mon_ro_thread);
        } else if (cmd == "part") {
            print_part();
        } else if (cmd == "set") {
            std::string name;
            int value = 0;
            in >> name >> value;
            if (name == "cap_threshold")
                cap_threshold = value;
            else if (name == "io_threshold")
                io_threshold = value;
        } else if (cmd == "quit") {
            break;
        } else if (!cmd.empty()) {
            printf("unknown command %s\n", cmd.c_str());
        }
        printf(".\n");
        fflush(stdout);
    }
    res_mon_io_top_clear();
    return 0;
}
