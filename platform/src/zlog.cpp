/* zlog categories on spdlog's rotating file sink.  Each line: time, level
 * name, source file:line, function, message.  Operator event lines (level 120)
 * are named EVENT so they are easy to pick out. */
#include "qn_zlog.h"
#include "qn_platform_config.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

struct qn_zlog_category {
    std::shared_ptr<spdlog::logger> logger;
    std::string path;
};

namespace {

/* Categories live as long as the process, like the library's own. */
std::vector<std::unique_ptr<qn_zlog_category>> categories;

const char *level_name(int level)
{
    switch (level) {
    case QN_ZLOG_LEVEL_EVENT: return "EVENT";
    case QN_ZLOG_LEVEL_ERROR: return "ERROR";
    case QN_ZLOG_LEVEL_WARN: return "WARN ";
    case QN_ZLOG_LEVEL_DEBUG: return "DEBUG";
    default: return "INFO ";
    }
}

} // namespace

extern "C" {

qn_zlog_category_t *qn_zlog_init(const char *category)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg || !category || !*category)
        return nullptr;
    std::string path = cfg->log_file.empty() ? qn_platform_run_dir() + category + ".log" : cfg->log_file;
    /* One category per name and file: a second opener (a stand-in logging
     * for the program) shares the file's rotation instead of racing it. */
    for (const auto &c : categories)
        if (c->logger->name() == category && c->path == path)
            return c.get();
    try {
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(
            path, static_cast<size_t>(cfg->log_max_size), static_cast<size_t>(cfg->log_max_files));
        auto logger = std::make_shared<spdlog::logger>(category, sink);
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
        logger->set_level(spdlog::level::trace);
        logger->flush_on(spdlog::level::trace);
        categories.push_back(std::make_unique<qn_zlog_category>(qn_zlog_category{logger, path}));
        return categories.back().get();
    } catch (const spdlog::spdlog_ex &e) {
        fprintf(stderr, "zlog category %s: %s\n", category, e.what());
        return nullptr;
    }
}

void qndf_zlog(qn_zlog_category_t *cat, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *fmt, ...)
{
    if (!cat || !fmt)
        return;
    char text[4096];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::string_view f(file ? file : "", file ? filelen : 0);
    std::string_view fn(func ? func : "", func ? funclen : 0);
    try {
        cat->logger->info("{} {}:{} {}: {}", level_name(level), f, line, fn, text);
    } catch (const spdlog::spdlog_ex &) {
        /* a full disk must not stop the daemon */
    }
}

int at_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    if (!buf || size == 0)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) >= size ? static_cast<int>(size - 1) : n;
}

} // extern "C"
