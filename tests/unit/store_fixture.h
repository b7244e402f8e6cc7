/* A node store with known figures for the renderers' tests: the local node
 * (slot1, a box) with two disks, two processes, four partitions and an eMMC
 * lifetime, and the settings at their defaults. */
#ifndef STORE_FIXTURE_H
#define STORE_FIXTURE_H

#include "node_store.h"
#include "store_settings.h"

#include "mom/res_mom_data.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

inline void store_part(res_mom_node *node, const char *path, const char *name, uint64_t total, uint64_t used,
                       uint32_t vol_flag, uint32_t ro_flag, uint32_t visible, uint32_t exist)
{
    res_mom_part_node *p = res_mom_get_part_node_by_path(&node->part_list, path, static_cast<int>(strlen(path)));
    ASSERT_NE(nullptr, p);
    snprintf(p->part_uname, sizeof p->part_uname, "%s", name);
    p->total_vol = total;
    p->use_vol = used;
    p->vol_flag = vol_flag;
    p->ro_flag = ro_flag;
    p->vol_visible = p->ro_visible = visible;
    p->exist = exist;
}

inline void store_lifetime(res_mom_node *node, const char *name, uint64_t left, int32_t flag)
{
    res_mom_lifetime_node l{};
    snprintf(l.disk_name, sizeof l.disk_name, "%s", name);
    l.left_lifetime = left;
    l.flag = flag;
    ASSERT_EQ(0, res_mom_add_node_disk_lft_list(&l, &node->lifetime_list));
}

class KnownStore : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(0, store_reset_defaults());
    }
    void TearDown() override
    {
        for (uint64_t &at : res_local_node.rx_ms)
            at = 0;
        res_local_node.stale = 0;
        res_mom_data_init();
    }

    void fill_local()
    {
        res_mom_disk_io_node d1 = store_disk("sda", 12.5, 300.25, 87.5, 2);
        res_mom_disk_io_node d2 = store_disk("mmcblk0", 0, 1024, 3.125, 1);
        ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d1, &res_local_node.disk_io_list));
        ASSERT_EQ(0, res_mom_add_node_disk_io_list(&d2, &res_local_node.disk_io_list));
        res_mom_proc_io_node p1 = store_proc(1234, "dd", 4096, 8192.5);
        res_mom_proc_io_node p2 = store_proc(77, "kworker/u8:1", 0, 10);
        ASSERT_EQ(0, res_mom_add_node_proc_io_list(&p1, &res_local_node.proc_io_list));
        ASSERT_EQ(0, res_mom_add_node_proc_io_list(&p2, &res_local_node.proc_io_list));
        store_part(&res_local_node, "/data", "flash", 1000, 875, 2, 2, 1, 1);
        store_part(&res_local_node, "/", "rootfs", 5000, 100, 0, 0, 0, 1);
        store_part(&res_local_node, "/mnt/usb0", "usb0", 4, 1, 1, 1, 1, 1);
        store_part(&res_local_node, "/mnt/sd0", "sd0", 3, 1, 0, 0, 1, 0);
        store_lifetime(&res_local_node, "emmc", 1, 2);
    }

    /* A remote node (slot 3, no card known) with one disk, appended in
     * user-slot order. */
    res_mom_node *add_remote(int32_t slotid, int32_t user_slot)
    {
        return add_node(0, slotid, user_slot);
    }
};

#endif
