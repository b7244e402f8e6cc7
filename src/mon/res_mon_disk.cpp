#include "mon/res_mon_disk.h"
#include "mom/res_mom_disk.h"

#include "misc/res_health.h"
#include "misc/res_misc.h"
#include "misc/res_path.h"
#include "misc/res_read.h"
#include "misc/res_run_dir.h"
#include "misc/res_saturate.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

struct res_disk_info_t res_disk_info[RES_DISK_INFO_NUM];
struct res_ssd_smart_info res_ssd_smart;
char res_ssd_dev_path[RES_DEV_PATH_LEN];

namespace {

/* EXT_CSD life-time estimate (1..11) to wear percentage: the middle of the
 * 10 % band that the estimate names. */
const struct {
    int estimate;
    int wear;
} res_emmc_wear_table[] = {
    {1, 5}, {2, 15}, {3, 25}, {4, 35}, {5, 45}, {6, 55}, {7, 65}, {8, 75}, {9, 85}, {10, 95}, {11, 105},
};

/* Offsets in the EXT_CSD dump (two hex digits per register byte) of
 * DEVICE_LIFE_TIME_EST_TYP_A (byte 268) and _TYP_B (byte 269). */
constexpr size_t RES_CSD_TYP_A = 536;
constexpr size_t RES_CSD_TYP_B = 538;

/* kept: a pause of 50 ms (in microseconds) between running a dump command
 * and reading its output, as the probes have always made. */
constexpr useconds_t RES_DUMP_PAUSE_US = 50 * 1000;

/* Months are counted as 30 days throughout. */
constexpr unsigned long RES_SECONDS_PER_MONTH = 30UL * 24 * 3600; /* 2592000 */
constexpr uint64_t RES_HOURS_PER_MONTH = 30 * 24;                  /* 720 */

/* Erase budget numerator per capacity in gigabytes. */
uint64_t res_ssd_budget(uint64_t capacity)
{
    switch (capacity) {
    case 32: return 26214400ULL;
    case 64: return 52428800ULL;
    case 128: return 104857600ULL;
    case 256: return 209715200ULL;
    default: return 0;
    }
}

/* Mode of the work files in the run directory. */
constexpr mode_t RES_WORK_FILE_MODE = 0600;

/* A stream reading from the start of a work file that a command has just
 * written through `fd` (taken over); null when it cannot be had. */
FILE *res_work_file_rewind(int fd)
{
    if (lseek(fd, 0, SEEK_SET) != 0) {
        close(fd);
        return nullptr;
    }
    FILE *fp = fdopen(fd, "r");
    if (!fp)
        close(fd);
    return fp;
}

} // namespace

int res_dev_path_safe(const char *path)
{
    if (!path || strncmp(path, "/dev/", 5) != 0 || path[5] == '\0')
        return 0;
    for (const char *p = path; *p; ++p) {
        char c = *p;
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' ||
                  c == '_' || c == '.' || c == '-';
        if (!ok)
            return 0;
    }
    return 1;
}

unsigned long res_uptime_seconds(const char *text)
{
    char field[128] = {0};
    if (!text || sscanf(text, "%127s", field) != 1)
        return 0;
    return strtoul(field, nullptr, 0);
}

uint32_t res_uptime_months(unsigned long secs)
{
    /* A count of seconds too large for the months to fit in 32 bits reads
     * as the largest count. */
    uint32_t months = res_sat_u32(secs / RES_SECONDS_PER_MONTH);
    return months == 0 ? 1 : months;
}

uint32_t res_get_uptime(void)
{
    char buf[128];
    memset(buf, 0, sizeof buf);
    /* One byte short of the buffer so that the text always ends in a NUL. */
    res_get_field_form_file(res_host_path(RES_POWER_ON_FILE).c_str(), buf, sizeof buf - 1);
    unsigned long secs = res_uptime_seconds(buf);
    RES_DBG("uptime: %lu", secs);
    return res_uptime_months(secs);
}

int res_emmc_wear_from_dump(FILE *fp)
{
    char line[1025] = {0};
    if (!fp || !fgets(line, sizeof line, fp))
        line[0] = '\0';

    unsigned typ_a = 0, typ_b = 0;
    size_t len = strcspn(line, "\r\n");
    /* A dump too short to hold both estimates leaves them 0: unusable. */
    if (len >= RES_CSD_TYP_B + 2) {
        char hex[3] = {0};
        snprintf(hex, sizeof hex, "%c%c", line[RES_CSD_TYP_A], line[RES_CSD_TYP_A + 1]);
        typ_a = static_cast<unsigned>(strtoul(hex, nullptr, 16));
        snprintf(hex, sizeof hex, "%c%c", line[RES_CSD_TYP_B], line[RES_CSD_TYP_B + 1]);
        typ_b = static_cast<unsigned>(strtoul(hex, nullptr, 16));
    }
    bool a_ok = typ_a >= 1 && typ_a <= 11;
    bool b_ok = typ_b >= 1 && typ_b <= 11;
    if (a_ok == b_ok) {
        /* Neither estimate usable, or both claim to be: not supported. */
        RES_ERR("this dev is not support life time monitor\n");
        return RES_EMMC_NOT_SUPPORT;
    }
    unsigned life = a_ok ? typ_a : typ_b;
    RES_DBG("life_reg: 0x%x", life);
    for (const auto &row : res_emmc_wear_table) {
        if (row.estimate == static_cast<int>(life)) {
            /* kept: a negative wear in the table would mean "not supported";
             * no row has one today, the rule stays for a table that does. */
            if (row.wear < 0) {
                RES_ERR("this dev is not support life time monitor\n");
                return RES_EMMC_NOT_SUPPORT;
            }
            return row.wear;
        }
    }
    return 0;
}

int32_t res_emmc_left_life(int wear, int32_t months)
{
    if (wear > 99 || wear <= 0)
        return 0;
    /* Computed wide and saturated: a huge power-on time gives the largest
     * count instead of an overflow. */
    return res_sat_i32(static_cast<int64_t>(100 / wear - 1) * months);
}

int res_get_emmc_abrasion(void)
{
    char cmd[128];
    std::string debugfs = res_host_path(RES_DEBUGFS_PATH);
    int n = snprintf(cmd, sizeof cmd, "cat %s/mmc0/mmc0\\:0001/ext_csd > %s%s", debugfs.c_str(), res_run_dir,
                     RES_EMMC_CSD_FILE);
    int fd = -1;
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        RES_ERR("ext_csd dump command too long.");
    } else {
        /* The dump goes into a work file made afresh in the run directory;
         * the command gets it as its output, no shell takes part. */
        fd = res_run_file_create(RES_EMMC_CSD_FILE, RES_WORK_FILE_MODE);
        if (fd >= 0) {
            std::string source = debugfs + "/mmc0/mmc0:0001/ext_csd";
            const char *argv[] = {"cat", source.c_str(), nullptr};
            res_misc_exec_argv(argv, fd, -1, cmd);
        }
    }
    usleep(RES_DUMP_PAUSE_US);

    FILE *fp = fd >= 0 ? res_work_file_rewind(fd) : nullptr;
    if (!fp) {
        RES_ERR("this dev is not support life time monitor\n");
        return RES_EMMC_NOT_SUPPORT;
    }
    int wear = res_emmc_wear_from_dump(fp);
    fclose(fp);
    return wear;
}

int res_mon_emmc_disk_timer_func(struct qn_thread *thread)
{
    (void)thread;
    int wear = res_get_emmc_abrasion();
    if (wear == RES_EMMC_NOT_SUPPORT) {
        RES_ERR("this device is not support life time monitor\n");
        return res_mon_reset_disk_intr(RES_MON_CLOSED, res_disk_type);
    }
    int32_t months = res_sat_i32(res_get_uptime());
    RES_DBG("abrasion:%d persent, used_life_time:%d month", wear, months);

    int32_t left = res_emmc_left_life(wear, months);
    int candidate = wear > 99 ? RES_HEALTH_WARNING : RES_HEALTH_OK;
    RES_DBG("emmc left life time: %d", left);
    int warning = disk_threshold < left ? candidate : RES_HEALTH_WARNING;

    struct res_disk_info_t *d = &res_disk_info[0];
    snprintf(d->name, sizeof d->name, "%s", "emmc");
    d->left_life = left;
    RES_DBG("res_disk_info[%d].disk_used_time:[%d].", 0, d->disk_used_time);
    d->disk_used_time = months;
    RES_DBG("res_disk_info[i].flag is %d, warning_flag is %d", d->flag, warning);
    if (d->flag == RES_HEALTH_WARNING && warning == RES_HEALTH_OK)
        warning = RES_HEALTH_RECOVERED;
    d->flag = warning;

    res_mom_disk_send(RES_DISK_INFO_NUM);
    int ret = res_misc_add_timer(&res_mon_disk_thread, res_mon_emmc_disk_timer_func, disk_interval,
                                 RES_DISK_TIMER_NAME);
    RES_DBG("res_mon_emmc_disk_timer_func add timer with ret[%d].", ret);
    return ret;
}

void res_get_dev_name(void)
{
    res_ssd_dev_path[0] = '\0';
    std::string listing = res_host_path(RES_DISK_LISTING_FILE);
    char cmd[256];
    int n = snprintf(cmd, sizeof cmd, "fdisk -l > %s", listing.c_str());
    /* The listing lives in a directory anyone may write to: whatever has its
     * name is replaced by a file of our own, never followed. */
    size_t slash = listing.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : listing.substr(0, slash);
    std::string base = slash == std::string::npos ? listing : listing.substr(slash + 1);
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int fd = dir_fd >= 0 ? res_file_create_fresh(dir_fd, base.c_str(), 0644) : -1;
    if (dir_fd >= 0)
        close(dir_fd);
    if (fd >= 0 && n > 0 && static_cast<size_t>(n) < sizeof cmd) {
        const char *argv[] = {"fdisk", "-l", nullptr};
        res_misc_exec_argv(argv, fd, -1, cmd);
    }
    FILE *fp = fd >= 0 ? res_work_file_rewind(fd) : nullptr;
    if (!fp) {
        RES_ERR("fopen %s fail", RES_DISK_LISTING_FILE);
        return;
    }
    char line[128];
    while (res_misc_read_line(fp, line, sizeof line)) {
        if (!strstr(line, "Disk"))
            continue;
        char dev[RES_DEV_PATH_LEN] = {0};
        if (sscanf(line, "%*s%127[^:]", dev) == 1) {
            /* Only a plain device path is handed to the SMART tool. */
            const char *p = dev;
            while (*p == ' ' || *p == '\t')
                ++p;
            if (res_dev_path_safe(p)) {
                snprintf(res_ssd_dev_path, sizeof res_ssd_dev_path, "%s", p);
            } else {
                RES_ERR("ignore device path[%s] from %s.", p, RES_DISK_LISTING_FILE);
                res_ssd_dev_path[0] = '\0';
            }
        }
        break;
    }
    fclose(fp);
}

void res_parse_smart_report(FILE *fp)
{
    char line[128];
    char word[128];
    while (res_misc_read_line(fp, line, sizeof line)) {
        if (strstr(line, "Device Model:") && res_misc_word(line, 3, word, sizeof word)) {
            snprintf(res_ssd_smart.model, sizeof res_ssd_smart.model, "%s", word);
            RES_DBG("ssd name : %s", res_ssd_smart.model);
        }
        if (strstr(line, "User Capacity:") && res_misc_word(line, 3, word, sizeof word)) {
            res_ssd_smart.capacity = strtoull(word, nullptr, 10);
            RES_DBG("ssd capacity : %lu", static_cast<unsigned long>(res_ssd_smart.capacity));
        }
        if (strstr(line, "Sector Size:") && res_misc_word(line, 3, word, sizeof word)) {
            res_ssd_smart.sector_size = static_cast<int32_t>(strtol(word, nullptr, 10));
            RES_DBG("ssd sector_size : %d", res_ssd_smart.sector_size);
        }
        if (strstr(line, "9 Power_On_Hours") && res_misc_word(line, 10, word, sizeof word)) {
            res_ssd_smart.power_on_hours = strtoull(word, nullptr, 10);
            RES_DBG("ssd power_on_hours : %lu", static_cast<unsigned long>(res_ssd_smart.power_on_hours));
        }
        if ((strstr(line, "231 SSD Life left") || strstr(line, "231 Unknown_Attribute")) &&
            res_misc_word(line, 10, word, sizeof word)) {
            res_ssd_smart.ssd_life_left = static_cast<int32_t>(strtoul(word, nullptr, 10));
            RES_DBG("ssd ssd_life_left : %d", res_ssd_smart.ssd_life_left);
        }
        if ((strstr(line, "233 Media_Wearout_Indicator") || strstr(line, "233 Unknown_Attribute")) &&
            res_misc_word(line, 10, word, sizeof word)) {
            res_ssd_smart.media_wearout_indicator = strtoull(word, nullptr, 0);
            RES_DBG("ssd media_wearout_indicator : %lu",
                    static_cast<unsigned long>(res_ssd_smart.media_wearout_indicator));
        }
    }
}

void res_parse_smart(void)
{
    char out[256];
    snprintf(out, sizeof out, "%s%s", res_run_dir, RES_DISK_LIFETIME_FILE);
    std::string tool = res_host_path(RES_SMARTCTL_PATH);
    char cmd[128];
    const char *dev = res_dev_path_safe(res_ssd_dev_path) ? res_ssd_dev_path : "";
    int n = snprintf(cmd, sizeof cmd, "%s --all %s > %s", tool.c_str(), dev, out);
    int fd = -1;
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        RES_ERR("smart command too long.");
    } else {
        fd = res_run_file_create(RES_DISK_LIFETIME_FILE, RES_WORK_FILE_MODE);
        if (fd >= 0) {
            /* An unknown device is left out, as the shell dropped the empty
             * word. */
            const char *argv[] = {tool.c_str(), "--all", *dev ? dev : nullptr, nullptr};
            res_misc_exec_argv(argv, fd, -1, cmd);
        }
    }
    usleep(RES_DUMP_PAUSE_US);

    FILE *fp = fd >= 0 ? res_work_file_rewind(fd) : nullptr;
    if (!fp) {
        RES_ERR("fopen %s fail", out);
        return;
    }
    res_parse_smart_report(fp);
    fclose(fp);
}

int32_t res_ssd_used_percent(int32_t life_left)
{
    return res_sat_i32(100 - static_cast<int64_t>(life_left));
}

void res_ssd_lifetime_update(void)
{
    const struct res_ssd_smart_info *s = &res_ssd_smart;
    if (s->sector_size == 0 || s->capacity == 0 || s->media_wearout_indicator == 0) {
        RES_ERR("smart info is illegal");
        return;
    }
    uint32_t months;
    if (s->power_on_hours == 0)
        months = res_get_uptime();
    else
        months = static_cast<uint32_t>(s->power_on_hours / RES_HOURS_PER_MONTH);

    /* The capacity is the report's leading digit group, taken as gigabytes
     * (2^30 bytes) for the sector count. */
    uint64_t sectors = s->sector_size ? (s->capacity << 30) / static_cast<uint64_t>(s->sector_size) : 0;
    /* kept: the divisor takes the capacity modulo 2^34 before scaling it
     * by 1024, as the budget has always been computed. */
    uint64_t divisor = (s->capacity % (1ULL << 34)) * 1024;
    uint64_t single_sector_erase_count = divisor ? res_ssd_budget(s->capacity) / divisor : 0;
    uint64_t total_erase_count = sectors * single_sector_erase_count;
    RES_DBG("single_sector_erase_count :%llu", static_cast<unsigned long long>(single_sector_erase_count));
    RES_DBG("total_erase_count :%llu", static_cast<unsigned long long>(total_erase_count));

    int32_t ratio;
    if (s->ssd_life_left == 0) {
        /* kept: a used count above the budget wraps to a huge ratio, and the
         * ratio is cut to 32 bits. */
        ratio = static_cast<int32_t>(
            static_cast<uint32_t>((total_erase_count - s->media_wearout_indicator) / s->media_wearout_indicator));
    } else {
        int32_t used = res_ssd_used_percent(s->ssd_life_left);
        ratio = (used == 0 ? 0 : 100 / used) - 1;
    }
    int32_t left = static_cast<int32_t>(static_cast<uint32_t>(ratio) * months);
    int32_t flag =
        static_cast<uint32_t>(left) < static_cast<uint32_t>(disk_threshold) ? RES_HEALTH_WARNING : RES_HEALTH_OK;

    struct res_disk_info_t *d = &res_disk_info[0];
    snprintf(d->name, sizeof d->name, "%.31s", s->model);
    d->disk_used_time = static_cast<int32_t>(months);
    d->left_life = left;
    d->flag = flag;
}

int res_mon_ssd_disk_timer_func(struct qn_thread *thread)
{
    (void)thread;
    if (access(res_host_path(RES_SMARTCTL_PATH).c_str(), F_OK) != 0) {
        RES_ERR("this ssd device is not support life time monitor\n");
        return res_mon_reset_disk_intr(RES_MON_CLOSED, res_disk_type);
    }
    res_ssd_smart.capacity = 0;
    res_ssd_smart.sector_size = 0;
    res_ssd_smart.power_on_hours = 0;
    res_ssd_smart.ssd_life_left = 0;
    res_ssd_smart.media_wearout_indicator = 0;

    res_get_dev_name();
    res_parse_smart();
    res_ssd_lifetime_update();

    res_mom_disk_send(RES_DISK_INFO_NUM);
    int ret = res_misc_add_timer(&res_mon_disk_thread, res_mon_ssd_disk_timer_func, disk_interval,
                                 RES_DISK_TIMER_NAME);
    RES_DBG("res_mon_ssd_disk_timer_func add timer with ret[%d].", ret);
    return ret;
}
