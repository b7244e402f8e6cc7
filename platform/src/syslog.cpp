#include "qn_syslog.h"
#include "qn_platform_config.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

void emit(int prio, const char *module, const char *mnemonic, const char *tag, const char *fmt, va_list ap)
{
    char text[2048];
    vsnprintf(text, sizeof text, fmt, ap);
    const qn_platform_config *cfg = qn_platform_config_get();
    if (cfg && !cfg->syslog_file.empty()) {
        FILE *f = fopen(cfg->syslog_file.c_str(), "a");
        if (!f)
            return;
        char when[32];
        time_t now = time(nullptr);
        struct tm tm;
        localtime_r(&now, &tm);
        strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &tm);
        fprintf(f, "%s qn-stovig[%d]: %s%%%s-%d-%s: %s\n", when, static_cast<int>(getpid()), tag, module, prio,
                mnemonic, text);
        fclose(f);
        return;
    }
    static bool opened = false;
    if (!opened) {
        openlog("qn-stovig", LOG_PID, LOG_DAEMON);
        opened = true;
    }
    syslog(prio & LOG_PRIMASK, "%s%%%s-%d-%s: %s", tag, module, prio, mnemonic, text);
}

} // namespace

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
