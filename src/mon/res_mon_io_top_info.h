/* Per-process I/O accounting through the kernel's taskstats generic-netlink
 * family: one snapshot of every process per I/O tick, rates against the
 * previous snapshot, and the order in which the publisher lists them. */
#ifndef RES_MON_IO_TOP_INFO_H
#define RES_MON_IO_TOP_INFO_H

#include <stddef.h>
#include <stdint.h>

#include "mon/res_mon_io_top_arr.h"

/* Socket and family id; -1 and 0 until resolved. */
extern int res_mon_nl_sock;
extern uint16_t res_mon_nl_family;

int res_mon_nl_init(void);
struct xxxid_stats *res_mon_nl_xxxid_info(uint32_t pid, int is_pid);
struct xxxid_stats_arr *fetch_data(void);
/* Rates of `cur` against `prev` (either may be null for prev) over
 * times[0] - times[1] milliseconds, then the sort.  times[0] is now. */
void res_mon_sort_iotop(struct xxxid_stats_arr *cur, struct xxxid_stats_arr *prev, const uint64_t times[2]);
/* Takes the statistics out of a taskstats reply of `len` bytes (netlink
 * header first); attributes that do not fit are ignored. */
void res_mon_nl_parse_reply(struct xxxid_stats *s, const char *buf, size_t len);
int my_sort_cb(const void *a, const void *b, void *arg);

/* Looks up the command line word, the status name and the I/O priority of a
 * record; done once per record, for the records the publisher lists. */
void res_mon_xxxid_resolve(struct xxxid_stats *s);
int32_t res_mon_ioprio(uint32_t pid);

/* The tick's sample: a new snapshot diffed against the kept one. */
void res_mon_io_top_sample(void);
/* After a good disk scan: the new snapshot replaces the kept one. */
void res_mon_io_top_commit(void);
/* The snapshot of the current tick (what the publisher reads), or null. */
struct xxxid_stats_arr *res_mon_io_top_current(void);
/* Milliseconds of the monotonic clock. */
uint64_t res_mon_now_ms(void);
/* Makes `arr` the current snapshot, taking it over (tests that feed the
 * publisher a process list of their own). */
void res_mon_io_top_set_current(struct xxxid_stats_arr *arr);
/* Drops both snapshots and their time stamps (tests). */
void res_mon_io_top_clear(void);

#endif
