/* Monitor settings (intervals and thresholds), the four sampling timers and
 * the operations that switch a monitor on, off or to a new interval. */
#ifndef RES_MON_MAIN_H
#define RES_MON_MAIN_H

#include <stdint.h>

#include "qn_thread.h"

/* An interval of this value means the monitor is switched off. */
#define RES_MON_CLOSED (-100)

#define RES_IO_INTERVAL_DEF 10
#define RES_IO_THRESHOLD_DEF 50
#define RES_RO_INTERVAL_DEF 30
#define RES_CAP_INTERVAL_DEF 30
#define RES_CAP_THRESHOLD_DEF 80
#define RES_DISK_INTERVAL_DEF 60
#define RES_DISK_THRESHOLD_DEF 12
#define RES_DISK_THRESHOLD_MIN 1
#define RES_DISK_THRESHOLD_MAX 60

#define RES_IO_TIMER_NAME "RES_IO_TIMER"
#define RES_RO_TIMER_NAME "RES_RO_TIMER"
#define RES_CAP_TIMER_NAME "RES_CAP_TIMER"
#define RES_DISK_TIMER_NAME "RES_DISK_TIMER"

/* The kernel debug file system that the eMMC probe reads. */
#define RES_DEBUGFS_PATH "/sys/kernel/debug"
#define RES_MTAB_PATH "/etc/mtab"

extern int32_t io_interval;   /* seconds */
extern int32_t io_threshold;  /* percent */
extern int32_t ro_interval;   /* seconds */
extern int32_t cap_interval;  /* seconds */
extern int32_t cap_threshold; /* percent */
extern int32_t disk_interval; /* seconds */
extern int32_t disk_threshold; /* months */

/* Timer slots of the four monitors. */
extern struct qn_thread res_mon_io_thread;
extern struct qn_thread res_mon_ro_thread;
extern struct qn_thread res_mon_cap_thread;
extern struct qn_thread res_mon_disk_thread;

int res_mon_init(int32_t type);
int res_mon_reset_io_intr(int32_t interval);
int res_mon_reset_ro_intr(int32_t interval);
int res_mon_reset_cap_intr(int32_t interval);
int res_mon_reset_disk_intr(int32_t interval, int32_t type);
int res_mon_set_lifetime_threshold(int32_t months);
int res_unmount_rootfs(void);

#endif
