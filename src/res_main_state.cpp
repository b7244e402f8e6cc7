#include "res_main.h"

char res_run_dir[RES_RUN_DIR_LEN] = {0};
struct qn_thread_master *res_master = nullptr;
int32_t res_disk_type = RES_DISK_UNKNOWN;
