/* Test and benchmark helper (no test framework): the node store emptied,
 * the local node set up as slot1 of a box, the monitor settings at their
 * defaults, and record entries built from their figures.  The renderers'
 * tests and the rendering benchmark fill the store from here. */
#ifndef TEST_STORE_SETTINGS_H
#define TEST_STORE_SETTINGS_H

#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <cstdio>
#include <cstdlib>

/* Empties the store and puts back the defaults; returns what the store's
 * init returns (0 on success). */
inline int store_reset_defaults()
{
    unsetenv("STOVIG_CONFIG");
    qn_platform_config_reload();
    int ret = res_mom_data_init();
    res_local_node.devid = 0;
    res_local_node.slotid = 1;
    res_local_node.sslotid = 0;
    res_local_node.user_slot = 1;
    for (uint64_t &at : res_local_node.rx_ms)
        at = 0;
    res_local_node.stale = 0;
    io_interval = 10;
    io_threshold = 50;
    ro_interval = 30;
    cap_interval = 30;
    cap_threshold = 80;
    disk_interval = 60;
    disk_threshold = 12;
    res_disk_type = RES_DISK_EMMC;
    return ret;
}

inline res_mom_disk_io_node store_disk(const char *name, double r, double w, double u, uint32_t flag)
{
    res_mom_disk_io_node d{};
    snprintf(d.disk_name, sizeof d.disk_name, "%s", name);
    d.io_read = r;
    d.io_write = w;
    d.io_util = u;
    d.io_flag = flag;
    return d;
}

inline res_mom_proc_io_node store_proc(uint32_t pid, const char *name, double r, double w)
{
    res_mom_proc_io_node p{};
    p.proc_id = pid;
    snprintf(p.proc_name, sizeof p.proc_name, "%s", name);
    p.io_read = r;
    p.io_write = w;
    return p;
}

#endif
