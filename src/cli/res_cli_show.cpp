#include "cli/res_cli_show.h"
#include "misc/res_health.h"
#include "misc/res_escape.h"
#include "misc/res_path.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include <unistd.h>

#include <string>

namespace {

/* Names come from other nodes and the device manager: control bytes are shown
 * escaped so that they cannot move the operator's terminal. */
std::string shown(const char *name)
{
    return res_escape(name);
}

const char *flag_status(uint32_t flag)
{
    return flag == RES_HEALTH_WARNING ? "Warning" : "Normal";
}

void show_io(const res_mom_node *node, bool titled, res_cli_printer print)
{
    if (titled)
        print("Storage I/O information:\n");
    print("---------------------------------------------------------------\n");
    if (io_interval == RES_MON_CLOSED) {
        print(" Storage I/O monitor is closed.\n");
        print("\n");
        return;
    }
    if (res_list_empty(&node->disk_io_list)) {
        print(" Storage  I/O is not ready, please wait and try again.\n");
        print("\n");
        return;
    }
    print(" Device      Read(KB/S)      Write(KB/S)      Util      Status\n");
    const res_list_head *pos;
    for (pos = node->disk_io_list.next; pos != &node->disk_io_list; pos = pos->next) {
        const res_mom_disk_io_node *d = res_list_entry(pos, const res_mom_disk_io_node, list);
        print(" %-10s  %9.2f   %14.2f    %6.2f%%%12s\n", shown(d->disk_name).c_str(), d->io_read, d->io_write, d->io_util,
              flag_status(d->io_flag));
    }
    print("\n");
    if (res_list_empty(&node->proc_io_list)) {
        print(" Process I/O information is not ready, please wait and try again.\n");
    } else {
        print(" PID      Read(B/S)      Write(B/S)             Process\n");
        for (pos = node->proc_io_list.next; pos != &node->proc_io_list; pos = pos->next) {
            const res_mom_proc_io_node *p = res_list_entry(pos, const res_mom_proc_io_node, list);
            print(" %-5d %11.2f  %14.2f     %16s\n", static_cast<int>(p->proc_id), p->io_read, p->io_write,
                  shown(p->proc_name).c_str());
        }
    }
    print("\n");
}

void show_ro(const res_mom_node *node, bool titled, res_cli_printer print)
{
    if (titled)
        print("Storage read-only information:\n");
    print("----------------------\n");
    if (ro_interval == RES_MON_CLOSED) {
        print(" Storage ro monitor is closed.\n");
    } else if (res_list_empty(&node->part_list)) {
        print(" Storage ro is not ready, please wait and try again.\n");
    } else {
        print(" Name          Status\n");
        for (const res_list_head *pos = node->part_list.next; pos != &node->part_list; pos = pos->next) {
            const res_mom_part_node *p = res_list_entry(pos, const res_mom_part_node, list);
            if (p->ro_visible && p->exist)
                print(" %-8s     %7s\n", shown(p->part_uname).c_str(), p->ro_flag >= RES_HEALTH_WARNING ? "R" : "R/W");
        }
    }
    print("\n");
}

void show_capacity(const res_mom_node *node, bool titled, res_cli_printer print)
{
    if (titled)
        print("Storage cpacity information:\n");
    print("--------------------------------------------------------------\n");
    if (cap_interval == RES_MON_CLOSED) {
        print(" Storage capacity monitor is closed.\n");
    } else if (res_list_empty(&node->part_list)) {
        print(" Storage capacity is not ready, please wait and try again.\n");
    } else {
        print(" Name       Total(KB)       Used(KB)    Used Rate      Status\n");
        for (const res_list_head *pos = node->part_list.next; pos != &node->part_list; pos = pos->next) {
            const res_mom_part_node *p = res_list_entry(pos, const res_mom_part_node, list);
            if (!p->vol_visible || !p->exist)
                continue;
            /* the ratio in single precision, the percentage in double, as always shown */
            float ratio = static_cast<float>(p->use_vol) / static_cast<float>(p->total_vol);
            print(" %-8s%11llu    %11llu       %6.2f%%  %10s\n", shown(p->part_uname).c_str(),
                  static_cast<unsigned long long>(p->total_vol), static_cast<unsigned long long>(p->use_vol),
                  static_cast<double>(ratio) * 100.0, flag_status(p->vol_flag));
        }
    }
    print("\n");
}

void show_lifetime(const res_mom_node *node, bool titled, res_cli_printer print)
{
    if (titled)
        print("Storage lifetime information:\n");
    if (disk_interval == RES_MON_CLOSED) {
        print("Storage lifetime monitor is closed.\n");
    } else if (!res_cli_lifetime_supported()) {
        print("Storage lifetime monitor is not support.\n");
    } else if (res_list_empty(&node->lifetime_list)) {
        print("Storage lifetime is not ready, please wait and try again.\n");
    } else {
        for (const res_list_head *pos = node->lifetime_list.next; pos != &node->lifetime_list; pos = pos->next) {
            const res_mom_lifetime_node *l = res_list_entry(pos, const res_mom_lifetime_node, list);
            print("Storage Name:               %s\n", shown(l->disk_name).c_str());
            print(l->left_lifetime == 1 ? "Storage Lifetime Left:      %llu month\n"
                                        : "Storage Lifetime Left:      %llu months\n",
                  static_cast<unsigned long long>(l->left_lifetime));
            print(disk_threshold == 1 ? "Storage Lifetime Threshold: %lu month\n"
                                      : "Storage Lifetime Threshold: %lu months\n",
                  static_cast<unsigned long>(disk_threshold));
            print(l->flag == RES_HEALTH_WARNING ? "Storage Status:             Warning\n" : "Storage Status:             Normal\n");
        }
    }
    print("\n");
}

} // namespace

bool res_cli_lifetime_supported(void)
{
    if (res_disk_type == RES_DISK_SSD)
        return access(res_host_path("/sbin/smartctl").c_str(), F_OK) == 0;
    return res_disk_type == RES_DISK_EMMC;
}

int res_cli_show_storage(int32_t item, res_cli_printer print)
{
    if (item < RES_SHOW_IO || item > RES_SHOW_ALL || !print)
        return -1;
    if (!res_node_list.next || res_list_empty(&res_node_list)) {
        print("No data avalible.\n");
        return -4;
    }
    bool all = item == RES_SHOW_ALL;
    for (const res_list_head *pos = res_node_list.next; pos != &res_node_list; pos = pos->next) {
        const res_mom_node *node = res_list_entry(pos, const res_mom_node, list);
        const res_mom_node_names names = res_mom_node_names_of(node);
        print("===============================================\n");
        print("[%s : %s]\n\n", shown(names.slot).c_str(), shown(names.card).c_str());
        if (all || item == RES_SHOW_IO)
            show_io(node, all, print);
        if (all || item == RES_SHOW_RO)
            show_ro(node, all, print);
        if (all || item == RES_SHOW_CAPACITY)
            show_capacity(node, all, print);
        if (all || item == RES_SHOW_LIFETIME)
            show_lifetime(node, all, print);
        print("\n");
    }
    return 0;
}
