/* This node's own figures as a node record, read from the monitors' tables
 * the same way the publishers read them for the bus records. */
#include "mom/res_mom_metrics_local.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_part.h"

#include <cstdio>
#include <cstring>

int res_mom_metrics_local_fill(struct res_mom_node *node)
{
    *node = res_mom_node{};
    node->devid = res_local_node.devid;
    node->slotid = res_local_node.slotid;
    node->sslotid = res_local_node.sslotid;
    node->user_slot = res_local_node.user_slot;
    node->role = res_local_node.role;
    res_mom_node_lists_init(node);
    res_list_init(&node->list);
    for (struct io_device *d = io_device_list; d; d = d->next) {
        if (!(d->exist && d->is_disk == 1))
            continue;
        res_mom_disk_io_node e{};
        /* The store's field holds 31 characters: a longer kernel name is
         * cut. */
        snprintf(e.disk_name, sizeof e.disk_name, "%.*s", static_cast<int>(sizeof e.disk_name - 1), d->name);
        /* Sectors of 512 bytes per second, as KB per second: as published. */
        e.io_read = d->rsec_rate / 2;
        e.io_write = d->wsec_rate / 2;
        e.io_util = d->util;
        e.io_flag = d->io_warn_state;
        if (res_mom_add_node_disk_io_list(&e, &node->disk_io_list) != 0)
            return -1;
    }
    for (int i = 0; i < RES_PART_NUM; ++i) {
        const struct res_part_info *row = &res_part_table[i];
        if (!row->path[0])
            continue;
        res_mom_part_node *p =
            res_mom_get_part_node_by_path(&node->part_list, row->path, static_cast<int>(strlen(row->path)));
        if (!p)
            return -1;
        snprintf(p->part_uname, sizeof p->part_uname, "%s", row->name);
        p->total_vol = row->total_kb;
        p->use_vol = row->used_kb;
        p->vol_flag = row->usage_state;
        p->ro_flag = row->ro_state;
        p->exist = row->mounted;
        p->vol_visible = p->ro_visible = row->check_usage;
    }
    for (int i = 0; i < RES_DISK_INFO_NUM; ++i) {
        const struct res_disk_info_t *row = &res_disk_info[i];
        if (!row->name[0])
            continue;
        res_mom_lifetime_node l{};
        snprintf(l.disk_name, sizeof l.disk_name, "%s", row->name);
        l.power_time = static_cast<uint64_t>(static_cast<int64_t>(row->disk_used_time));
        l.left_lifetime = static_cast<uint64_t>(static_cast<int64_t>(row->left_life));
        l.flag = row->flag;
        if (res_mom_add_node_disk_lft_list(&l, &node->lifetime_list) != 0)
            return -1;
    }
    return 0;
}
