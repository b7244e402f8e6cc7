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
    int32_t flag;           /* enum res_health (RECOVERED for one eMMC pass only) */
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

#include <stdio.h>

uint32_t res_get_uptime(void);
/* Seconds in the text of the power-on time file (first word, automatic base;
 * 0 when there is none). */
unsigned long res_uptime_seconds(const char *text);
/* 30-day months of `secs`, at least 1 (and at most UINT32_MAX). */
uint32_t res_uptime_months(unsigned long secs);
int res_get_emmc_abrasion(void);
/* Wear percentage from the first line of an EXT_CSD dump, or
 * RES_EMMC_NOT_SUPPORT. */
int res_emmc_wear_from_dump(FILE *fp);
/* Months of life left at `wear` percent after `months` months: 0 above 99 %,
 * else (100 / wear - 1) x months, saturated to the int32 range. */
int32_t res_emmc_left_life(int wear, int32_t months);
int res_mon_emmc_disk_timer_func(struct qn_thread *thread);

void res_get_dev_name(void);
void res_parse_smart(void);
/* Parses a SMART report into res_ssd_smart. */
void res_parse_smart_report(FILE *fp);
/* Used life in percent, 100 - life left, saturated to the int32 range. */
int32_t res_ssd_used_percent(int32_t life_left);
/* From the parsed report: months used, erase counts, months left and the
 * flag into res_disk_info[0]; an illegal report leaves the entry as it is. */
void res_ssd_lifetime_update(void);
int res_mon_ssd_disk_timer_func(struct qn_thread *thread);

/* Whether a device path may be handed to the shell: "/dev/" followed by
 * letters, digits and "/_.-" only. */
int res_dev_path_safe(const char *path);

#endif
