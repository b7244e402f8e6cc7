#include "mon/res_mon_part.h"
#include "mom/res_mom_part.h"

#include "misc/res_health.h"
#include "misc/res_misc.h"
#include "misc/res_path.h"
#include "misc/res_read.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct res_part_info res_part_table[RES_PART_NUM];
uint64_t last_mount_scan = 0;

namespace {

/* Entries whose probe file was found to be a link or not a plain file, so
 * that this is logged once and not at every pass. */
bool res_probe_refused[RES_PART_NUM];

/* Opens the probe file of an entry: the descriptor of a plain file, or -1
 * with errno.  Watched mount points (removable media, /tmp) may be writable
 * by anyone, so a link planted under the probe's name is never followed and
 * anything but a plain file is not used: both fail with ELOOP. */
int res_mon_probe_open(const char *path)
{
    int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0755);
    struct stat st;
    if (fd < 0) {
        /* In a sticky directory the kernel answers EACCES rather than ELOOP
         * for another user's link: look at what is there. */
        int err = errno;
        errno = err != EROFS && lstat(path, &st) == 0 && S_ISLNK(st.st_mode) ? ELOOP : err;
        return -1;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        errno = ELOOP;
        return -1;
    }
    return fd;
}

/* Device and mount point of a mount-table line: the number of fields taken,
 * or -1 for a line with none (the count a "%s %s" scan reports). */
int res_mon_part_fields(const char *line, char *dev, char *dir)
{
    if (!res_misc_word(line, 1, dev, RES_PART_STR_LEN))
        return -1;
    if (!res_misc_word(line, 2, dir, RES_PART_STR_LEN))
        return 1;
    return 2;
}

} // namespace

void res_mon_part_set(int index, const char *path, const char *name, uint32_t check_usage)
{
    if (index < 0 || index >= RES_PART_NUM)
        return;
    struct res_part_info *p = &res_part_table[index];
    snprintf(p->path, sizeof p->path, "%s", path);
    snprintf(p->name, sizeof p->name, "%s", name);
    p->check_usage = check_usage;
    p->mounted = 0;
}

int res_mon_part_init(void)
{
    last_mount_scan = 0;
    memset(res_part_table, 0, sizeof res_part_table);
    memset(res_probe_refused, 0, sizeof res_probe_refused);
    res_mon_part_set(0, "/data2", "flash2", 1);
    res_mon_part_set(1, "/data", "flash", 1);
    res_mon_part_set(2, "/mnt/sata0", "sata0", 1);
    res_mon_part_set(3, "/mnt/sata1", "sata1", 1);
    res_mon_part_set(4, "/mnt/usb0", "usb0", 1);
    res_mon_part_set(5, "/mnt/usb1", "usb1", 1);
    res_mon_part_set(6, "/mnt/sd0", "sd0", 1);
    res_mon_part_set(7, "/tmp", "tmp", 1);
    res_mon_part_set(8, "/install", "install", 1);
    res_mon_part_set(9, "/mnt/storage", "storage", 1);
    res_mon_part_set(10, "/mnt/nfs", "nfs", 1);
    res_mon_part_set(11, "/", "rootfs", 0);
    return 0;
}

int res_mon_part_update(void)
{
    uint64_t uptime = 0;
    if (read_uptime(&uptime) != 0) {
        RES_ERR("can't update partition info due to uptime read fail.");
        return -1;
    }
    if (uptime - last_mount_scan <= 4)
        return 0;
    FILE *fp = fopen(res_host_path(RES_MOUNTS_PATH).c_str(), "r");
    if (!fp) {
        RES_ERR("open file %s failed.", RES_MOUNTS_PATH);
        return -1;
    }
    last_mount_scan = uptime;
    for (int i = 0; i < RES_PART_NUM; ++i)
        res_part_table[i].mounted = 0;

    char *line = nullptr;
    size_t cap = 0;
    while (getline(&line, &cap, fp) != -1) {
        char dev[RES_PART_STR_LEN];
        char dir[RES_PART_STR_LEN];
        memset(dev, 0, sizeof dev);
        memset(dir, 0, sizeof dir);
        int ret = res_mon_part_fields(line, dev, dir);
        if (ret < 1) {
            RES_WARN("sscan failed with ret[%d].", ret);
            continue;
        }
        dev[RES_PART_STR_LEN - 1] = '\0';
        dir[RES_PART_STR_LEN - 1] = '\0';
        size_t len = strlen(dir);
        if (len == 0)
            continue;
        for (int i = 0; i < RES_PART_NUM; ++i) {
            struct res_part_info *p = &res_part_table[i];
            if (p->mounted == 1)
                continue;
            if (strlen(p->path) == len && strcmp(p->path, dir) == 0)
                p->mounted = 1;
        }
    }
    free(line);
    fclose(fp);
    return 0;
}

void res_mon_part_fill_cap(struct res_part_info *p, const struct statfs *st, float threshold)
{
    const uint64_t bsize = static_cast<uint64_t>(st->f_bsize);
    const uint64_t blocks = static_cast<uint64_t>(st->f_blocks);
    const uint64_t bavail = static_cast<uint64_t>(st->f_bavail);
    /* Decimal kilobytes; used space includes the blocks reserved for the
     * superuser (available, not free, blocks are subtracted). */
    p->total_kb = blocks * bsize / 1000;
    p->used_kb = (blocks - bavail) * bsize / 1000;
    if (!p->check_usage)
        return;
    /* kept: the rate is computed from single-precision sizes, as the
     * verdict has always been made.  A zero total gives NaN, which never
     * compares as over the threshold. */
    const double rate = static_cast<float>(p->used_kb) / static_cast<float>(p->total_kb) * 100.0;
    if (rate >= threshold)
        p->usage_state = RES_HEALTH_WARNING;
    else
        p->usage_state = p->usage_state == RES_HEALTH_WARNING ? RES_HEALTH_RECOVERED : RES_HEALTH_OK;
}

int res_mon_part_cap_timer_func(struct qn_thread *thread)
{
    if (!thread)
        return -1;
    res_mon_part_update();
    const float threshold = static_cast<float>(static_cast<uint32_t>(cap_threshold));
    for (int i = 0; i < RES_PART_NUM; ++i) {
        struct res_part_info *p = &res_part_table[i];
        if (!p->mounted)
            continue;
        struct statfs st;
        memset(&st, 0, sizeof st);
        if (statfs(res_host_path(p->path).c_str(), &st) == -1) {
            RES_ERR("get partition[%s] stats failed.", p->path);
            memset(&st, 0, sizeof st);
        }
        res_mon_part_fill_cap(p, &st, threshold);
    }
    res_mom_part_vol_send(RES_PART_NUM);
    int ret = res_misc_add_timer(&res_mon_cap_thread, res_mon_part_cap_timer_func, cap_interval,
                                 RES_CAP_TIMER_NAME);
    RES_VERBOSE("res_mon_part_cap_timer_func add timer with ret[%d].", ret);
    return ret;
}

int res_mom_part_ro_timer_func(struct qn_thread *thread)
{
    if (!thread)
        return -1;
    res_mon_part_update();
    for (int i = 0; i < RES_PART_NUM; ++i) {
        struct res_part_info *p = &res_part_table[i];
        if (!p->mounted)
            continue;
        char probe[128];
        snprintf(probe, sizeof probe, "%.*s" RES_PROBE_FILE, RES_PART_STR_LEN - 1, p->path);
        int fd = res_mon_probe_open(res_host_path(probe).c_str());
        int err = errno;
        RES_VERBOSE("open %s with ret[%d] and errno[%d]", probe, fd, err);
        if (fd >= 0) {
            close(fd);
            p->ro_state = p->ro_state == RES_HEALTH_WARNING ? RES_HEALTH_RECOVERED : RES_HEALTH_OK;
            res_probe_refused[i] = false;
        } else if (err == ELOOP) {
            /* Could not probe: the state stays as it was. */
            if (!res_probe_refused[i])
                RES_ERR("probe file %s is a symbolic link or not a regular file, not probed.", probe);
            res_probe_refused[i] = true;
        } else if (err == EROFS) {
            p->ro_state = RES_HEALTH_WARNING;
        }
    }
    res_mom_part_ro_send(RES_PART_NUM);
    int ret = res_misc_add_timer(&res_mon_ro_thread, res_mom_part_ro_timer_func, ro_interval, RES_RO_TIMER_NAME);
    RES_VERBOSE("res_mom_part_ro_timer_func add timer with ret[%d].", ret);
    return ret;
}
