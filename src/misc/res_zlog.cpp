#include "misc/res_zlog.h"
#include "misc/res_escape.h"
#include "misc/res_path.h"
#include "mom/res_mom_conf.h"
#include "mom/res_mom_main.h"
#include "qn_syslog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

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

namespace {

/* Opens a debug-level file for reading when it can be trusted: a regular
 * file (never through a symbolic link), owned by root or by this process's
 * user, and writable by nobody else.  Anyone can create files under /tmp, and
 * a planted level would flood syslog.  Null when missing or refused; a
 * refusal is logged. */
FILE *res_debug_level_open(const char *name)
{
    std::string path = res_host_path(name);
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ELOOP)
            RES_ERR("ignore debug level file %s: it is a symbolic link.", name);
        return nullptr;
    }
    struct stat st;
    const char *why = nullptr;
    if (fstat(fd, &st) != 0)
        why = "cannot be examined";
    else if (!S_ISREG(st.st_mode))
        why = "not a regular file";
    else if (st.st_uid != 0 && st.st_uid != geteuid())
        why = "not owned by root";
    else if (st.st_mode & (S_IWGRP | S_IWOTH))
        why = "writable by group or others";
    if (why) {
        RES_ERR("ignore debug level file %s: %s.", name, why);
        close(fd);
        return nullptr;
    }
    FILE *f = fdopen(fd, "r");
    if (!f)
        close(fd);
    return f;
}

} // namespace

int res_debug_level_init(void)
{
    FILE *f = res_debug_level_open(RES_DEBUG_LEVEL_FILE);
    if (!f)
        f = res_debug_level_open(RES_DEBUG_LEVEL_FILE_DATA);
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
    res_mom_dbg_handler(RES_MOM_OP_SEND);
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
    /* Arguments may carry text from the bus or the host: control bytes are
     * escaped so that one call stays one line. */
    std::string escaped;
    const char *text = buf;
    if (res_escape_wanted(buf)) {
        escaped = res_escape_keep_final_newline(buf);
        text = escaped.c_str();
    }
    if (to_syslog) {
        if (res_zlog_role && *res_zlog_role != 0)
            printk_syslog_ext(7, "STOVIG", "DEBUG", 1, "[<%s>:<%d>] %s", func, line, text);
        else
            printk_syslog_lc(7, "STOVIG", "DEBUG", "[<%s>:<%d>] %s", func, line, text);
    }
    if (to_zlog)
        qndf_zlog(res_zlog_handle, file, strlen(file), func, strlen(func), line, zlevel, "%s", text);
}

void res_event_printf(const char *file, const char *task, int line, const char *fmt, ...)
{
    char buf[RES_EVENT_BUF_LEN] = {0};
    va_list ap;
    va_start(ap, fmt);
    if (vsnprintf(buf, sizeof buf, fmt, ap) < 0)
        buf[0] = '\0';
    va_end(ap);
    res_event_line(file, task, line, buf);
}

void res_event_line(const char *file, const char *task, int line, const char *text)
{
    if (!res_zlog_handle || !text)
        return;
    /* Names in event lines come from other nodes: a newline or an escape
     * sequence in them must not forge a line or reach a terminal raw. */
    std::string escaped = res_escape(text);
    qndf_zlog(res_zlog_handle, file, strlen(file), task, strlen(task), line, QN_ZLOG_LEVEL_EVENT, "%s",
              escaped.c_str());
}
