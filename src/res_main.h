/* Process-wide state set up at start-up and read everywhere. */
#ifndef RES_MAIN_H
#define RES_MAIN_H

#include <stdint.h>

#include "qn_thread.h"

#define RES_RUN_DIR_LEN 128

extern char res_run_dir[RES_RUN_DIR_LEN];
extern struct qn_thread_master *res_master;
extern int32_t res_disk_type;

/* Storage types found by res_get_disk_type(). */
#define RES_DISK_UNKNOWN (-1)
#define RES_DISK_NAND 0
#define RES_DISK_EMMC 1
#define RES_DISK_SSD 2
#define RES_DISK_USB 3

int32_t res_get_disk_type(void);
char *get_real_path(void);

#endif
