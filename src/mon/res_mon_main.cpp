#include "mon/res_mon_main.h"

#include "misc/res_misc.h"
#include "misc/res_path.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_part.h"
#include "res_main.h"

#include <fcntl.h>
#include <mntent.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

int32_t io_interval;
int32_t io_threshold = RES_IO_THRESHOLD_DEF;
int32_t ro_interval;
int32_t cap_interval;
int32_t cap_threshold = RES_CAP_THRESHOLD_DEF;
int32_t disk_interval;
int32_t disk_threshold = RES_DISK_THRESHOLD_DEF;

struct qn_thread res_mon_io_thread;
struct qn_thread res_mon_ro_thread;
struct qn_thread res_mon_cap_thread;
struct qn_thread res_mon_disk_thread;

namespace {

/* Zeroes a slot; one that is still armed is disarmed first so that the loop
 * never holds a slot whose contents were wiped under it. */
void res_mon_zero_slot(struct qn_thread *slot)
{
    if (res_misc_timer_armed(slot))
        qn_thread_cancel(slot);
    memset(slot, 0, sizeof *slot);
}

/* Unmounts every debugfs layer that the mount table lists on the debugfs
 * mount point; 0, or -1 when the table cannot be read or an unmount fails. */
int res_unmont_residual(void)
{
    std::string mtab = res_host_path(RES_MTAB_PATH);
    FILE *fp = setmntent(mtab.c_str(), "r");
    if (!fp) {
        RES_ERR("setmntent error.\n");
        return -1;
    }
    struct mntent ent;
    char strings[128];
    while (getmntent_r(fp, &ent, strings, sizeof strings)) {
        if (strcmp(ent.mnt_dir, RES_DEBUGFS_PATH) != 0)
            continue;
        if (res_unmount_rootfs() != 0) {
            RES_ERR("res_unmount_rootfs fail.\n");
            endmntent(fp);
            return -1;
        }
    }
    endmntent(fp);
    return 0;
}

/* Runs a mount-table command with its output and errors discarded, as the
 * shell line `shown` (which the log shows) would. */
int res_mon_mount_cmd(const char *const argv[], const char *shown)
{
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int ret = res_misc_exec_argv(argv, null_fd, null_fd, shown);
    if (null_fd >= 0)
        close(null_fd);
    return ret;
}

/* Mounts one clean debugfs instance after clearing stale layers. */
void res_exec_emmc_cmd(void)
{
    if (res_unmont_residual() != 0) {
        RES_ERR("res_unmont_residual fail.\n");
        return;
    }
    std::string target = res_host_path(RES_DEBUGFS_PATH);
    char cmd[256];
    int n = snprintf(cmd, sizeof cmd, "mount -t debugfs none %s > /dev/null 2>&1", target.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        RES_ERR("debugfs mount command too long.");
        return;
    }
    const char *argv[] = {"mount", "-t", "debugfs", "none", target.c_str(), nullptr};
    res_mon_mount_cmd(argv, cmd);
}

} // namespace

int res_unmount_rootfs(void)
{
    std::string target = res_host_path(RES_DEBUGFS_PATH);
    char cmd[256];
    int n = snprintf(cmd, sizeof cmd, "umount %s > /dev/null 2>&1", target.c_str());
    const char *argv[] = {"umount", target.c_str(), nullptr};
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd || res_mon_mount_cmd(argv, cmd) != 0) {
        RES_ERR("mount rootfs faild\n");
        return -1;
    }
    return 0;
}

int res_mon_init(int32_t type)
{
    res_mon_zero_slot(&res_mon_io_thread);
    res_mon_zero_slot(&res_mon_ro_thread);
    res_mon_zero_slot(&res_mon_cap_thread);
    res_mon_zero_slot(&res_mon_disk_thread);
    io_interval = 0;
    ro_interval = 0;
    cap_interval = 0;
    disk_interval = 0;
    io_threshold = RES_IO_THRESHOLD_DEF;
    cap_threshold = RES_CAP_THRESHOLD_DEF;
    disk_threshold = RES_DISK_THRESHOLD_DEF;

    if (res_mon_nl_init() != 0)
        RES_ERR("init netlink socket failed.");
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR)
        RES_ERR("signal(SIGPIPE) register failed.");
    res_mon_part_init();

    res_mon_reset_io_intr(RES_IO_INTERVAL_DEF);
    res_mon_reset_ro_intr(RES_RO_INTERVAL_DEF);
    res_mon_reset_cap_intr(RES_CAP_INTERVAL_DEF);
    res_mon_reset_disk_intr(RES_DISK_INTERVAL_DEF, type);
    return 0;
}

int res_mon_reset_io_intr(int32_t interval)
{
    if (interval == RES_MON_CLOSED) {
        io_interval = RES_MON_CLOSED;
        return res_misc_del_timer(&res_mon_io_thread);
    }
    if (interval < RES_IO_INTERVAL_DEF)
        return -1;
    RES_DBG("reset io interval from %d to %d.", io_interval, interval);
    io_interval = interval;
    return res_misc_reset_timer(&res_mon_io_thread, res_mon_io_timer_func, interval, RES_IO_TIMER_NAME);
}

int res_mon_reset_ro_intr(int32_t interval)
{
    if (interval == RES_MON_CLOSED) {
        ro_interval = RES_MON_CLOSED;
        return res_misc_del_timer(&res_mon_ro_thread);
    }
    if (interval < RES_RO_INTERVAL_DEF)
        return -1;
    RES_DBG("reset ro interval from %d to %d.", ro_interval, interval);
    ro_interval = interval;
    return res_misc_reset_timer(&res_mon_ro_thread, res_mom_part_ro_timer_func, interval, RES_RO_TIMER_NAME);
}

int res_mon_reset_cap_intr(int32_t interval)
{
    if (interval == RES_MON_CLOSED) {
        cap_interval = RES_MON_CLOSED;
        return res_misc_del_timer(&res_mon_cap_thread);
    }
    if (interval < RES_CAP_INTERVAL_DEF)
        return -1;
    RES_DBG("reset cap interval from %d to %d.", cap_interval, interval);
    cap_interval = interval;
    return res_misc_reset_timer(&res_mon_cap_thread, res_mon_part_cap_timer_func, interval, RES_CAP_TIMER_NAME);
}

int res_mon_reset_disk_intr(int32_t interval, int32_t type)
{
    if (interval == RES_MON_CLOSED) {
        disk_interval = RES_MON_CLOSED;
        return res_misc_del_timer(&res_mon_disk_thread);
    }
    if (interval < RES_DISK_INTERVAL_DEF || type < 0) {
        RES_ERR("param is err");
        return -1;
    }
    RES_DBG("reset lifetime interval from %d to %d.", disk_interval, interval);
    disk_interval = interval;
    switch (type) {
    case RES_DISK_NAND:
    case RES_DISK_SSD:
        /* NAND wear is not probed; the SSD probe is not started from here. */
        return 0;
    case RES_DISK_EMMC:
        res_exec_emmc_cmd();
        return res_misc_reset_timer(&res_mon_disk_thread, res_mon_emmc_disk_timer_func, interval,
                                    RES_DISK_TIMER_NAME);
    default:
        RES_DBG("have no disk type info");
        return 0;
    }
}

int res_mon_set_lifetime_threshold(int32_t months)
{
    if (months < RES_DISK_THRESHOLD_MIN || months > RES_DISK_THRESHOLD_MAX)
        return -1;
    disk_threshold = months;
    return 0;
}
