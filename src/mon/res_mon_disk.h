/* Flash lifetime probes: eMMC wear from the extended CSD register dump, SSD
 * wear from the SMART tool's report, and the months of life left. */
#ifndef RES_MON_DISK_H
#define RES_MON_DISK_H

#include <stdint.h>

#include "qn_thread.h"

#define RES_DISK_INFO_NUM 1
#define RES_DISK_NAME_LEN 32
#define RES_POWER_ON_FILE "/data/.uptime"
#define RES_EMMC_CSD_FILE ".emmc_csd"
#define RES_DISK_LIFETIME_FILE ".disk_lifetime"
#define RES_DISK_LISTING_FILE "/tmp/.disk_info"
#define RES_SMARTCTL_PATH "/sbin/smartctl"
#define RES_SMART_MODEL_LEN 128
#define RES_DEV_PATH_LEN 128

/* Result of res_get_emmc_abrasion() for a device without usable estimates. */
#define RES_EMMC_NOT_SUPPORT (-1)

/* One lifetime row; the probes fill row 0. */
struct res_disk_info_t {
    char name[RES_DISK_NAME_LEN];
    int32_t disk_used_time; /* power-on months */
    int32_t left_life;      /* months of life left */
    int32_t flag;           /* 0 healthy, 2 warning, 1 healthy again (eMMC, one pass) */
};

extern struct res_disk_info_t res_disk_info[RES_DISK_INFO_NUM];

/* What the SMART report said on the last SSD tick. */
struct res_ssd_smart_info {
    char model[RES_SMART_MODEL_LEN];
    uint64_t capacity; /* leading digit group of the byte count */
    int32_t sector_size;
    uint64_t power_on_hours;
    int32_t ssd_life_left;
    uint64_t media_wearout_indicator;
};

extern struct res_ssd_smart_info res_ssd_smart;
/* Device path of the disk the SMART tool is run on ("" when unknown). */
extern char res_ssd_dev_path[RES_DEV_PATH_LEN];

uint32_t res_get_uptime(void);
int res_get_emmc_abrasion(void);
int res_mon_emmc_disk_timer_func(struct qn_thread *thread);

void res_get_dev_name(void);
void res_parse_smart(void);
int res_mon_ssd_disk_timer_func(struct qn_thread *thread);

/* Whether a device path may be handed to the shell: "/dev/" followed by
 * letters, digits and "/_.-" only. */
int res_dev_path_safe(const char *path);

#endif
