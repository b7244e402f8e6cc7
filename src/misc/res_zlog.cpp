#include "misc/res_zlog.h"
#include "misc/res_path.h"
#include "mom/res_mom_conf.h"
#include "qn_syslog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

uint32_t res_dbg_level = 0;
uint32_t res_zlog_level = 0;
qn_zlog_category_t *res_zlog_handle = nullptr;
const int32_t *res_zlog_role = nullptr;

#define RES_DEBUG_LEVEL_FILE "/tmp/qn-stovig/debug_level"
#define RES_DEBUG_LEVEL_FILE_DATA "/data/stovig_debug_level"

int res_zlog_init(void)
{
    res_zlog_level = 6;
    res_zlog_handle = qn_zlog_init("stovig");
    if (!res_zlog_handle) {
        /* "stovig.zlog init fail" cannot be written: the handle is null and
         * the debug level still 0. */
        return -ECOMM;
    }
    return 0;
}

int res_debug_level_init(void)
{
    FILE *f = fopen(res_host_path(RES_DEBUG_LEVEL_FILE).c_str(), "r");
    if (!f)
        f = fopen(res_host_path(RES_DEBUG_LEVEL_FILE_DATA).c_str(), "r");
    if (!f) {
        res_dbg_level = 0;
        return 0;
    }
    char buf[32] = {0};
    int level = 0;
    if (fgets(buf, 31, f) && sscanf(buf, "%d", &level) == 1 && static_cast<uint32_t>(level) < 6)
        res_dbg_level = static_cast<uint32_t>(level);
    fclose(f);
    return 0;
}

int res_set_debug_level(uint32_t level)
{
    if (level > 5)
        return -1;
    if (level == res_dbg_level)
        return -ENOENT;
    res_dbg_level = level;
    return 0;
}

void res_debug_off(int kind)
{
    if (kind != 2 || res_dbg_level == 0)
        return;
    res_dbg_level = 0;
    res_mom_dbg_handler(1);
}

void res_log(unsigned channels, unsigned gate, int zlevel, const char *file, const char *func, int line,
             const char *fmt, ...)
{
    bool to_syslog = (channels & RES_CH_SYSLOG) && res_dbg_level >= gate;
    bool to_zlog = (channels & RES_CH_ZLOG) && gate <= 4 && res_zlog_level >= gate && res_zlog_handle;
    /* A line that the log library's rules route nowhere is not formatted. */
    if (to_zlog && !qn_zlog_level_enabled(res_zlog_handle, zlevel))
        to_zlog = false;
    if (!to_syslog && !to_zlog)
        return;
    char buf[1024] = {0};
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (to_syslog) {
        if (res_zlog_role && *res_zlog_role != 0)
            printk_syslog_ext(7, "STOVIG", "DEBUG", 1, "[<%s>:<%d>] %s", func, line, buf);
        else
            printk_syslog_lc(7, "STOVIG", "DEBUG", "[<%s>:<%d>] %s", func, line, buf);
    }
    if (to_zlog)
        qndf_zlog(res_zlog_handle, file, strlen(file), func, strlen(func), line, zlevel, "%s", buf);
}

void res_event_line(const char *file, const char *task, int line, const char *text)
{
    if (res_zlog_handle)
        qndf_zlog(res_zlog_handle, file, strlen(file), task, strlen(task), line, QN_ZLOG_LEVEL_EVENT, "%s", text);
}
