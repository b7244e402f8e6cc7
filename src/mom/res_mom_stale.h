/* The master's watch over nodes that stop reporting.
 *
 * Every node publishes its I/O record each I/O interval.  On the master a
 * one-second tick counts, per node, the timer seconds since its last I/O
 * record reached the master through the subscription (or since the node's
 * watch began).  A node silent for RES_MOM_STALE_PERIODS intervals is marked
 * stale (node->stale = 1) with one operator event line, and its next record
 * clears the mark with one more line.  The count is in the loop's own timer
 * seconds, the unit of the interval, whatever a second lasts.
 *
 * What the watch does not judge, and why:
 * - the local node: the master's own silence is either its own monitor
 *   without a valid disk or its link to the bus, not a node gone quiet;
 * - anything while the node is not master or the I/O monitor is closed (no
 *   records are expected, no line is written);
 * - anything while the master doubts its own view of the bus: once its own
 *   I/O record has come back through the bus, that record is the master's
 *   heartbeat, and when it is more than one interval (plus a little slack)
 *   late, every node would go quiet at once if the link were down, so no
 *   node is judged until records arrive again.  A remote record arriving in
 *   that time shows the link works: the master stops relying on its own
 *   record until it comes back.  A master that publishes no I/O record of
 *   its own (no valid disk) relies on the bus client's reconnect report
 *   alone.
 *
 * Each node gets one full period before it can be judged: when the node is
 * listed, when this node takes the master role, when the I/O monitor opens
 * or its interval changes, and when the bus link or the heartbeat returns
 * (the records missed meanwhile are then on their way).  A card that goes
 * offline is removed from the node store and so leaves the watch without a
 * line.  A stale node stays marked through a closed monitor or a lost role;
 * the first record that reaches it while the watch runs writes the line that
 * it reports again. */
#ifndef RES_MOM_STALE_H
#define RES_MOM_STALE_H

#include <stdint.h>

#include "mom/res_mom_data.h"
#include "proto/p_utils.pb-c.h"
#include "qn_thread.h"

/* I/O intervals of silence after which a node is stale. */
#define RES_MOM_STALE_PERIODS 3
/* Timer seconds the master's own I/O record may be late before the master
 * doubts its link (its timer and the tick drift apart a little). */
#define RES_MOM_STALE_SELF_SLACK 2
#define RES_MOM_STALE_TIMER_NAME "RES_STALE_TIMER"
/* Task name of the lines: res_mom_stale_task() writes them. */
#define RES_MOM_STALE_TASK "res_mom_stale_task"

/* The tick's timer slot. */
extern struct qn_thread res_mom_stale_thread;

/* Arms the one-second tick on the bus side's loop unless it runs already
 * (called whenever this node takes the master role).  0, or -1. */
int res_mom_stale_start(void);
/* Disarms the tick and forgets the watch's state (tests). */
void res_mom_stale_stop(void);
/* The tick's timer function: one tick of work, then re-arms itself. */
int res_mom_stale_timer_func(struct qn_thread *thread);
/* One tick of the watch: counts, judges and writes the stale lines. */
void res_mom_stale_tick(void);
/* A node's I/O record was delivered by the subscription: the node reported. */
void res_mom_stale_io_report(const PUtils__Nodeindex *index);
/* The bus link came back: every node gets a full period again. */
void res_mom_stale_link_back(void);
/* Whether the watch judges now (master, I/O monitor open, link trusted). */
int res_mom_stale_judging(void);

#endif
