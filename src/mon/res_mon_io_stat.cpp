#include "mon/res_mon_io_stat.h"
#include "mom/res_mom_io.h"

#include "misc/res_health.h"
#include "misc/res_misc.h"
#include "misc/res_path.h"
#include "misc/res_read.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

struct io_device *io_device_list = nullptr;
uint64_t prev_uptime = 0;
uint64_t cur_uptime = 0;
uint32_t io_warn_count = 0;

namespace {

struct io_device *res_mon_io_find_or_add(const char *name, bool *stop)
{
    struct io_device *tail = nullptr;
    for (struct io_device *d = io_device_list; d; d = d->next) {
        if (strcmp(d->name, name) == 0)
            return d;
        tail = d;
    }
    auto *dev = static_cast<struct io_device *>(calloc(1, sizeof(struct io_device)));
    if (!dev) {
        perror("malloc");
        *stop = (io_device_list == nullptr);
        return nullptr;
    }
    snprintf(dev->name, sizeof dev->name, "%s", name);
    if (tail)
        tail->next = dev;
    else
        io_device_list = dev;
    return dev;
}

/* Whether /sys/block has a directory for the device ('/' in a name is '!'
 * there). */
uint32_t res_mon_io_is_disk(const char *name)
{
    char dev[RES_IO_NAME_LEN];
    snprintf(dev, sizeof dev, "%s", name);
    for (char *p = dev; *p; ++p)
        if (*p == '/')
            *p = '!';
    std::string path = std::string("/sys/block/") + dev;
    return access(res_host_path(path.c_str()).c_str(), F_OK) == 0 ? 1 : 0;
}

/* Difference of two tick counters in unsigned 32-bit arithmetic. */
inline double tick_diff(uint32_t cur, uint32_t prev)
{
    return static_cast<double>(static_cast<uint32_t>(cur - prev));
}

} // namespace

int res_mon_io_stat_scan(void)
{
    for (struct io_device *d = io_device_list; d; d = d->next)
        d->exist = 0;

    uint64_t uptime = 0;
    if (read_uptime(&uptime) != 0) {
        RES_ERR("ignore scan due to uptime read fail.");
        return -1;
    }
    prev_uptime = cur_uptime;
    cur_uptime = uptime;

    FILE *fp = fopen(res_host_path(RES_DISKSTATS_PATH).c_str(), "r");
    if (!fp) {
        res_mon_calc_io_stats();
        return 0;
    }

    char line[256];
    while (res_misc_read_line(fp, line, sizeof line)) {
        unsigned major = 0, minor = 0;
        char name[256] = {0};
        struct io_sample s = {};
        uint64_t rd_ios, rd_merges, rd_sectors, wr_ios, wr_merges, wr_sectors, dc_ios, dc_merges, dc_sectors,
            fl_ios;
        unsigned rd_ticks, wr_ticks, ios_pgr, tot_ticks, rq_ticks, dc_ticks, fl_ticks;
        int n = sscanf(line,
                       "%u %u %255s %" SCNu64 " %" SCNu64 " %" SCNu64 " %u %" SCNu64 " %" SCNu64 " %" SCNu64
                       " %u %u %u %u %" SCNu64 " %" SCNu64 " %" SCNu64 " %u %" SCNu64 " %u",
                       &major, &minor, name, &rd_ios, &rd_merges, &rd_sectors, &rd_ticks, &wr_ios, &wr_merges,
                       &wr_sectors, &wr_ticks, &ios_pgr, &tot_ticks, &rq_ticks, &dc_ios, &dc_merges, &dc_sectors,
                       &dc_ticks, &fl_ios, &fl_ticks);
        if (n < 3)
            continue;
        if ((strlen(name) >= 4 && strncmp(name, "loop", 4) == 0) || minor != 0)
            continue;
        if (n >= 14) {
            s.rd_ios = rd_ios;
            s.rd_merges = rd_merges;
            s.rd_sectors = rd_sectors;
            s.rd_ticks = rd_ticks;
            s.wr_ios = wr_ios;
            s.wr_merges = wr_merges;
            s.wr_sectors = wr_sectors;
            s.wr_ticks = wr_ticks;
            s.ios_pgr = ios_pgr;
            s.tot_ticks = tot_ticks;
            s.rq_ticks = rq_ticks;
            if (n >= 18) {
                s.dc_ios = dc_ios;
                s.dc_merges = dc_merges;
                s.dc_sectors = dc_sectors;
                s.dc_ticks = dc_ticks;
            }
            if (n >= 20) {
                s.fl_ios = fl_ios;
                s.fl_ticks = fl_ticks;
            }
        } else if (n == 7) {
            /* Partition line of old kernels: ios and sectors of each way,
             * all four read as 64-bit counters. */
            uint64_t f[4] = {};
            if (sscanf(line, "%*u %*u %*s %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &f[0], &f[1], &f[2],
                       &f[3]) != 4)
                continue;
            s.rd_ios = f[0];
            s.rd_sectors = f[1];
            s.wr_ios = f[2];
            s.wr_sectors = f[3];
        } else {
            continue;
        }
        if (strlen(name) >= RES_IO_NAME_LEN)
            continue;
        bool stop = false;
        struct io_device *dev = res_mon_io_find_or_add(name, &stop);
        if (!dev) {
            if (stop)
                break;
            continue;
        }
        dev->exist = 1;
        dev->prev = dev->cur;
        dev->cur = s;
        dev->is_disk = res_mon_io_is_disk(name);
        dev->major = major;
        dev->minor = minor;
    }
    fclose(fp);
    res_mon_calc_io_stats();
    return 0;
}

void res_mon_calc_io_stats(void)
{
    uint64_t itv = cur_uptime - prev_uptime;
    if (cur_uptime == prev_uptime)
        itv = 1;
    const double dt = static_cast<double>(itv);
    /* kept: the threshold (percent) is read as unsigned and passes through
     * single precision before it is compared. */
    const double threshold =
        static_cast<double>(static_cast<float>(static_cast<uint32_t>(io_threshold)));

    for (struct io_device *d = io_device_list; d; d = d->next) {
        if (!d->exist)
            continue;
        struct io_sample *c = &d->cur;
        struct io_sample *p = &d->prev;

        if (c->rd_ios + c->wr_ios + c->dc_ios + c->fl_ios < p->rd_ios + p->wr_ios + p->dc_ios + p->fl_ios &&
            (p->rd_sectors == 0 || p->rd_sectors > c->rd_sectors) &&
            (p->wr_sectors == 0 || p->wr_sectors > c->wr_sectors) &&
            (p->dc_sectors == 0 || p->dc_sectors > c->dc_sectors))
            memset(p, 0, sizeof *p);

        d->util = d->await = d->arqsz = 0;
        d->r_await = d->w_await = d->d_await = d->f_await = 0;
        d->rsec_rate = d->wsec_rate = d->dsec_rate = 0;
        d->rrqm_pct = d->wrqm_pct = d->drqm_pct = 0;
        d->rareq_sz = d->wareq_sz = d->dareq_sz = 0;

        /* Busy time is counted in milliseconds and dt in hundredths of a
         * second (10 ms): busy ms / (dt x 10 ms) x 100 %. */
        d->util = tick_diff(c->tot_ticks, p->tot_ticks) / dt * 100 / 10;

        /* kept: discards count in n but not in the numerators, as these
         * figures have always been defined. */
        uint64_t n = (c->rd_ios + c->wr_ios + c->dc_ios) - (p->rd_ios + p->wr_ios + p->dc_ios);
        if (n != 0) {
            d->await = tick_diff(c->rd_ticks + c->wr_ticks, p->rd_ticks + p->wr_ticks) / static_cast<double>(n);
            d->arqsz = static_cast<double>((c->rd_sectors + c->wr_sectors) - (p->rd_sectors + p->wr_sectors)) /
                       static_cast<double>(n);
        }

        /* Sectors per second: dt is in hundredths of a second. */
        d->rsec_rate = static_cast<double>(c->rd_sectors - p->rd_sectors) / dt * 100;
        d->wsec_rate = static_cast<double>(c->wr_sectors - p->wr_sectors) / dt * 100;
        d->dsec_rate = static_cast<double>(c->dc_sectors - p->dc_sectors) / dt * 100;

        uint64_t rd_ios = c->rd_ios - p->rd_ios, rd_merges = c->rd_merges - p->rd_merges;
        uint64_t wr_ios = c->wr_ios - p->wr_ios, wr_merges = c->wr_merges - p->wr_merges;
        uint64_t dc_ios = c->dc_ios - p->dc_ios, dc_merges = c->dc_merges - p->dc_merges;
        uint64_t fl_ios = c->fl_ios - p->fl_ios;

        if (rd_merges + rd_ios != 0)
            d->rrqm_pct = static_cast<double>(rd_merges) / static_cast<double>(rd_merges + rd_ios) * 100;
        if (wr_merges + wr_ios != 0)
            d->wrqm_pct = static_cast<double>(wr_merges) / static_cast<double>(wr_merges + wr_ios) * 100;
        if (dc_merges + dc_ios != 0)
            d->drqm_pct = static_cast<double>(dc_merges) / static_cast<double>(dc_merges + dc_ios) * 100;

        if (rd_ios != 0) {
            d->rareq_sz = static_cast<double>(c->rd_sectors - p->rd_sectors) / static_cast<double>(rd_ios);
            d->r_await = tick_diff(c->rd_ticks, p->rd_ticks) / static_cast<double>(rd_ios);
        }
        if (wr_ios != 0) {
            d->wareq_sz = static_cast<double>(c->wr_sectors - p->wr_sectors) / static_cast<double>(wr_ios);
            d->w_await = tick_diff(c->wr_ticks, p->wr_ticks) / static_cast<double>(wr_ios);
        }
        if (dc_ios != 0) {
            d->dareq_sz = static_cast<double>(c->dc_sectors - p->dc_sectors) / static_cast<double>(dc_ios);
            d->d_await = tick_diff(c->dc_ticks, p->dc_ticks) / static_cast<double>(dc_ios);
        }
        if (fl_ios != 0)
            d->f_await = tick_diff(c->fl_ticks, p->fl_ticks) / static_cast<double>(fl_ios);

        /* kept: the count of over-threshold samples is one for all disks,
         * so the third such sample raises the warning on its disk whichever
         * disks gave the first two. */
        if (d->util >= threshold) {
            if (d->io_warn_state != RES_HEALTH_WARNING) {
                io_warn_count += 1;
                if (io_warn_count == 3) {
                    RES_DBG("io warning reach three times!");
                    d->io_warn_state = RES_HEALTH_WARNING;
                    io_warn_count = 0;
                }
            }
        } else if (d->io_warn_state == RES_HEALTH_WARNING) {
            RES_DBG("io warning recover!");
            d->io_warn_state = RES_HEALTH_RECOVERED;
            io_warn_count = 0;
        }
    }
}

int res_mon_io_timer_func(struct qn_thread *thread)
{
    if (!thread)
        return -1;
    res_mon_io_top_sample();
    if (res_mon_io_stat_scan() == 0) {
        res_mom_io_send(RES_IO_TOP_COUNT);
        res_mon_io_top_commit();
    }
    int ret = res_misc_add_timer(&res_mon_io_thread, res_mon_io_timer_func, io_interval, RES_IO_TIMER_NAME);
    RES_VERBOSE("res_mon_io_timer_func add timer with ret[%d].", ret);
    return ret;
}

void res_mon_io_stat_clear(void)
{
    while (io_device_list) {
        struct io_device *next = io_device_list->next;
        free(io_device_list);
        io_device_list = next;
    }
    prev_uptime = cur_uptime = 0;
    io_warn_count = 0;
}
