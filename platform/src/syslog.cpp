#include "qn_syslog.h"
#include "log_open.h"
#include "qn_platform_config.h"
#include "syslog_event.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

/* One line "<module>-<prio>-<mnemonic>: <text>" to syslog(3) or to the
 * configured file. */
void emit_text(int prio, const char *module, const char *mnemonic, const char *tag, const char *text)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (cfg && !cfg->syslog_file.empty()) {
        int fd = qn_log_open(cfg->syslog_file, nullptr);
        if (fd < 0)
            return;
        char when[32];
        time_t now = time(nullptr);
        struct tm tm;
        localtime_r(&now, &tm);
        strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &tm);
        std::string line = std::string(when) + " qn-stovig[" + std::to_string(getpid()) + "]: " + tag + "%" +
                           module + "-" + std::to_string(prio) + "-" + mnemonic + ": " + text + "\n";
        qn_log_write_all(fd, line.data(), line.size(), nullptr);
        close(fd);
        return;
    }
    static bool opened = false;
    if (!opened) {
        openlog("qn-stovig", LOG_PID, LOG_DAEMON);
        opened = true;
    }
    syslog(prio & LOG_PRIMASK, "%s%%%s-%d-%s: %s", tag, module, prio, mnemonic, text);
}

void emit(int prio, const char *module, const char *mnemonic, const char *tag, const char *fmt, va_list ap)
{
    char text[2048];
    vsnprintf(text, sizeof text, fmt, ap);
    emit_text(prio, module, mnemonic, tag, text);
}

} // namespace

void qn_syslog_event(const std::string &module, const std::string &text)
{
    emit_text(LOG_WARNING, module.c_str(), "EVENT", "", text.c_str());
}

extern "C" {

void printk_syslog_lc(int prio, const char *module, const char *mnemonic, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    emit(prio, module, mnemonic, "", fmt, ap);
    va_end(ap);
}

void printk_syslog_ext(int prio, const char *module, const char *mnemonic, int flag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    emit(prio, module, mnemonic, flag ? "[ext] " : "", fmt, ap);
    va_end(ap);
}

} // extern "C"
