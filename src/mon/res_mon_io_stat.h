/* Disk I/O statistics: the last two readings of every whole disk listed in
 * the kernel's disk statistics, the figures derived from them, the
 * utilisation warning state. */
#ifndef RES_MON_IO_STAT_H
#define RES_MON_IO_STAT_H

#include <stdint.h>

#include "qn_thread.h"

#define RES_DISKSTATS_PATH "/proc/diskstats"
#define RES_IO_NAME_LEN 128
/* Number of busiest processes handed to the I/O publisher. */
#define RES_IO_TOP_COUNT 5

/* One reading of one device, counters as the kernel reports them. */
struct io_sample {
    uint64_t rd_sectors;
    uint64_t wr_sectors;
    uint64_t dc_sectors;
    uint64_t rd_ios;
    uint64_t rd_merges;
    uint64_t wr_ios;
    uint64_t wr_merges;
    uint64_t dc_ios;
    uint64_t dc_merges;
    uint64_t fl_ios;
    uint32_t rd_ticks;
    uint32_t wr_ticks;
    uint32_t dc_ticks;
    uint32_t fl_ticks;
    uint32_t ios_pgr;
    uint32_t tot_ticks;
    uint32_t rq_ticks;
};

/* One whole disk ever seen; records are never freed. */
struct io_device {
    char name[RES_IO_NAME_LEN];
    uint32_t is_disk;
    uint32_t exist;
    uint32_t major;
    uint32_t minor;
    uint32_t io_warn_state; /* enum res_health: OK never warned, WARNING raised, RECOVERED */
    struct io_sample prev;
    struct io_sample cur;
    double util;
    double await;
    double arqsz;
    double r_await;
    double w_await;
    double d_await;
    double f_await;
    double rsec_rate;
    double wsec_rate;
    double dsec_rate;
    double rrqm_pct;
    double wrqm_pct;
    double drqm_pct;
    double rareq_sz;
    double wareq_sz;
    double dareq_sz;
    struct io_device *next;
};

/* Head of the device list, in order of first appearance. */
extern struct io_device *io_device_list;
/* Uptimes of the last two scans, hundredths of a second. */
extern uint64_t prev_uptime;
extern uint64_t cur_uptime;
/* Over-threshold samples since the last warning or recovery, all devices. */
extern uint32_t io_warn_count;

int res_mon_io_stat_scan(void);
void res_mon_calc_io_stats(void);
int res_mon_io_timer_func(struct qn_thread *thread);

/* Forgets every device and the uptimes; for tests that need a fresh start
 * (the daemon keeps its list for the life of the process). */
void res_mon_io_stat_clear(void);

#endif
