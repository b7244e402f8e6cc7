/* The master's watch over nodes that stop reporting: a one-second tick
 * counts each node's silence in timer seconds, and a node silent for three
 * I/O intervals gets one line, and one more when it reports again. */
#include "mom/res_mom_stale.h"
#include "mom/res_mom_main.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"

#include "proto/p_dev.pb-c.h"
#include "qn_ndm.h"
#include "qn_zlog.h"

struct qn_thread res_mom_stale_thread;

namespace {

/* The interval the watch judges with; 0 while it does not run (not master,
 * monitor closed), so that any start or change begins a full period. */
int32_t res_mom_stale_interval = 0;
/* The master's own I/O record came back through the bus since the watch
 * began: from then on it is the heartbeat of the master's link. */
bool res_mom_stale_self_heard = false;
/* The heartbeat is late: no node is judged until records arrive again. */
bool res_mom_stale_doubt = false;

bool res_mom_stale_is_local(const struct res_mom_node *node)
{
    return node == &res_local_node;
}

/* Every node's count starts again: one full period before any judging. */
void res_mom_stale_restart(void)
{
    struct res_list_head *pos, *n;
    res_list_for_each_safe(pos, n, &res_node_list)
        res_list_entry(pos, struct res_mom_node, list)->stale_ticks = 0;
    res_mom_stale_doubt = false;
}

/* Writes the line of a node that has just gone quiet (stale set) or
 * reports again (stale cleared). */
void res_mom_stale_task(const struct res_mom_node *node)
{
    char node_name[RES_MOM_NAME_LEN] = {0};
    ndm_get_user_slot_name(node->devid, node->user_slot, 0, node_name, sizeof node_name);
    if (node->stale)
        RES_EVENT("%s Storage monitor has not reported for %d seconds.", node_name,
                  static_cast<int>(node->stale_ticks));
    else
        RES_EVENT("%s Storage monitor reports again.", node_name);
}

bool res_mom_stale_watch_on(void)
{
    return res_local_node.role == P_DEV__DM_ROLE_E__DM_ROLE_MASTER && io_interval > 0;
}

} // namespace

int res_mom_stale_judging(void)
{
    return res_mom_stale_watch_on() && res_mom_stale_interval == io_interval && !res_mom_stale_doubt;
}

void res_mom_stale_tick(void)
{
    if (!res_mom_stale_watch_on()) {
        res_mom_stale_interval = 0;
        return;
    }
    if (res_mom_stale_interval != io_interval) {
        /* Master role taken, monitor opened or interval changed: the nodes
         * re-arm their timers with the new interval as they learn it. */
        RES_DBG("watch the nodes' I/O records every %d seconds.", io_interval);
        res_mom_stale_interval = io_interval;
        res_mom_stale_self_heard = false;
        res_mom_stale_restart();
        return;
    }
    struct res_list_head *pos, *n;
    res_list_for_each_safe(pos, n, &res_node_list)
    {
        struct res_mom_node *node = res_list_entry(pos, struct res_mom_node, list);
        if (node->stale_ticks < UINT32_MAX)
            ++node->stale_ticks;
    }
    const uint64_t interval = static_cast<uint64_t>(io_interval);
    if (res_mom_stale_self_heard && !res_mom_stale_doubt &&
        res_local_node.stale_ticks > interval + RES_MOM_STALE_SELF_SLACK) {
        res_mom_stale_doubt = true;
        RES_WARN("no I/O record of this node came back from the bus for %u seconds, no node is judged until "
                 "records arrive again.",
                 res_local_node.stale_ticks);
    }
    if (res_mom_stale_doubt)
        return;
    const uint64_t limit = interval * RES_MOM_STALE_PERIODS;
    res_list_for_each_safe(pos, n, &res_node_list)
    {
        struct res_mom_node *node = res_list_entry(pos, struct res_mom_node, list);
        if (res_mom_stale_is_local(node) || node->stale || node->stale_ticks < limit)
            continue;
        node->stale = 1;
        res_mom_stale_task(node);
    }
}

void res_mom_stale_io_report(const PUtils__Nodeindex *index)
{
    struct res_mom_node *node = res_mom_get_node_by_index(index);
    if (!node)
        return;
    node->stale_ticks = 0;
    if (res_mom_stale_is_local(node)) {
        res_mom_stale_self_heard = true;
        if (res_mom_stale_doubt) {
            RES_DBG("this node's I/O record is back from the bus, the nodes are judged again.");
            res_mom_stale_restart();
        }
        return;
    }
    if (res_mom_stale_doubt) {
        /* The link works: the master's own record is missing for a reason
         * of its own, so it is no heartbeat until it comes back. */
        RES_DBG("records arrive while this node's own is missing, the nodes are judged again.");
        res_mom_stale_self_heard = false;
        res_mom_stale_restart();
    }
    if (node->stale && res_mom_stale_watch_on()) {
        node->stale = 0;
        res_mom_stale_task(node);
    }
}

void res_mom_stale_link_back(void)
{
    if (res_mom_stale_interval == 0)
        return;
    RES_DBG("bus link back, every node gets a full period again.");
    res_mom_stale_restart();
}

namespace {

/* Arms the tick one timer second from now on the bus side's loop. */
int res_mom_stale_arm(void)
{
    if (!res_mom_master ||
        qn_thread_insert_timer(res_mom_master, &res_mom_stale_thread, res_mom_stale_timer_func, nullptr, 1,
                               RES_MOM_STALE_TIMER_NAME) < 0) {
        RES_ERR("insert %s thread failed.", RES_MOM_STALE_TIMER_NAME);
        return -1;
    }
    return 0;
}

} // namespace

int res_mom_stale_timer_func(struct qn_thread *)
{
    res_mom_stale_tick();
    return res_mom_stale_arm();
}

int res_mom_stale_start(void)
{
    if (res_mom_stale_thread.state & QN_THREAD_SCHEDULED)
        return 0;
    return res_mom_stale_arm();
}

void res_mom_stale_stop(void)
{
    qn_thread_cancel(&res_mom_stale_thread);
    res_mom_stale_interval = 0;
    res_mom_stale_self_heard = false;
    res_mom_stale_doubt = false;
}
