/* Storage type detection: what kind of main storage the node boots from,
 * decided once at start-up from the flash probe module, the mount table and
 * the sysfs link of the first SCSI disk. */
/* kept: storage type detection belongs to the main module, and its log
 * lines name main.cpp as the module's source file, as they always have,
 * though the code lives in a file of its own. */
#define RES_SRC_FILE "main.cpp"

#include "misc/res_path.h"
#include "misc/res_zlog.h"
#include "res_main.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#define RES_MOUNTS_FILE "/proc/mounts"
#define RES_FLASH_PROBE_MODULE "/sbin/flashio_jprobe.ko"
#define RES_FIRST_DISK_LINK "/sys/class/block/sda"
#define RES_REAL_PATH_LEN 256

char *get_real_path(void)
{
    char *buf = static_cast<char *>(calloc(RES_REAL_PATH_LEN, 1));
    if (!buf) {
        RES_ERR("malloc failed");
        return nullptr;
    }
    ssize_t rslt = readlink(res_host_path(RES_FIRST_DISK_LINK).c_str(), buf, RES_REAL_PATH_LEN);
    if (rslt < 0 || rslt >= RES_REAL_PATH_LEN) {
        RES_ERR("rslt is not correct");
        free(buf);
        return nullptr;
    }
    buf[rslt] = '\0';
    for (ssize_t i = rslt - 1; i >= 1; --i) {
        RES_DBG("buf[%d] %c", static_cast<int>(i), buf[i]);
        if (buf[i] == '/') {
            buf[i + 1] = '\0';
            break;
        }
    }
    RES_DBG("buff is %s", buf);
    return buf;
}

int32_t res_get_disk_type(void)
{
    FILE *fp = fopen(res_host_path(RES_MOUNTS_FILE).c_str(), "r");
    if (!fp) {
        RES_ERR("fopen %s error, reason: %s", RES_MOUNTS_FILE, strerror(errno));
        return RES_DISK_UNKNOWN;
    }
    if (access(res_host_path(RES_FLASH_PROBE_MODULE).c_str(), F_OK) == 0) {
        RES_DBG("find nacked disk type");
        fclose(fp);
        return RES_DISK_NAND;
    }
    char line[256];
    while (fgets(line, sizeof line, fp)) {
        char device[64];
        memset(device, 0, sizeof device);
        sscanf(line, "%63s ", device);
        RES_DBG("buf:%s, device_path:%s", line, device);
        if (strstr(line, "/ ubifs rw")) {
            RES_DBG("find nacked disk type");
            fclose(fp);
            return RES_DISK_NAND;
        }
        if (strstr(device, "mmc")) {
            RES_DBG("find emmc disk type");
            fclose(fp);
            return RES_DISK_EMMC;
        }
    }
    fclose(fp);

    char *dir = get_real_path();
    bool usb = dir && strstr(dir, "/usb1/");
    free(dir);
    if (usb) {
        RES_DBG("find U disk type");
        return RES_DISK_USB;
    }
    RES_DBG("find SSD disk type");
    return RES_DISK_SSD;
}
