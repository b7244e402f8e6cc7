/* The watched partitions: which are mounted, their capacity against the
 * threshold, and whether a probe file can be created on them. */
#ifndef RES_MON_PART_H
#define RES_MON_PART_H

#include <stdint.h>

#include "qn_thread.h"

struct statfs;

#define RES_PART_NUM 12
#define RES_PART_STR_LEN 32
#define RES_MOUNTS_PATH "/proc/mounts"
#define RES_PROBE_FILE "/.test-readonly"

struct res_part_info {
    char path[RES_PART_STR_LEN]; /* mount point, as in the mount table */
    char name[RES_PART_STR_LEN]; /* published name */
    uint32_t check_usage;        /* 1: the capacity threshold applies */
    uint32_t mounted;
    uint32_t ro_state;    /* enum res_health: OK writable, WARNING read-only, RECOVERED writable again (one probe) */
    uint64_t total_kb;    /* units of 1000 bytes */
    uint64_t used_kb;
    uint32_t usage_state; /* enum res_health: OK below, WARNING at or over the threshold, RECOVERED below again (one pass) */
};

extern struct res_part_info res_part_table[RES_PART_NUM];
/* Uptime (hundredths of a second) of the last mount-table read. */
extern uint64_t last_mount_scan;

int res_mon_part_init(void);
void res_mon_part_set(int index, const char *path, const char *name, uint32_t check_usage);
int res_mon_part_update(void);
/* Sizes and verdict of one entry from its statfs result; the threshold in
 * percent. */
void res_mon_part_fill_cap(struct res_part_info *p, const struct statfs *st, float threshold);
int res_mon_part_cap_timer_func(struct qn_thread *thread);
int res_mom_part_ro_timer_func(struct qn_thread *thread);

#endif
