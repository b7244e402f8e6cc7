/* zlog categories on spdlog, routed by level the way the platform's log
 * library is configured by rules:
 *
 *   120 (operator event lines): the category's event log, written at once,
 *       with a rotation of its own so that they are kept long, and a copy to
 *       the system log;
 *   100 and 80 (errors, warnings): the debug log, written at once;
 *   below 80 (debug, verbose): the debug log only when [log] level = debug,
 *       then gathered in memory and written every second, or sooner when a
 *       line of 80 or more comes or the buffer fills.
 *
 * Each line: time, level name, source file:line, function, message; event
 * lines carry the level name EVENT so that they are easy to pick out. */
#include "qn_zlog.h"
#include "qn_platform_config.h"
#include "qn_zlog_standin.h"
#include "syslog_event.h"
#include "zlog_sink.h"

#include <spdlog/spdlog.h>

#include <unistd.h>

#include <cctype>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct qn_zlog_category {
    std::string name;
    std::string debug_path;
    std::string events_path;
    std::string module;   /* the category name in upper case, for the system log */
    int keep_from;        /* lowest level written to the debug log */
    std::shared_ptr<zlog_file_sink> debug_sink;
    std::shared_ptr<zlog_file_sink> events_sink;
    std::shared_ptr<spdlog::logger> debug;
    std::shared_ptr<spdlog::logger> events;
};

namespace {

/* Categories live as long as the process, like the library's own; the
 * registry is never destroyed so that the flushing thread and the exit
 * handler can use it at any time. */
struct registry {
    std::mutex lock;
    std::vector<std::unique_ptr<qn_zlog_category>> categories;
    bool flusher_started = false;
    pid_t owner = 0;
};

registry &the_registry()
{
    static registry *r = new registry;
    return *r;
}

void flush_all()
{
    registry &r = the_registry();
    if (getpid() != r.owner)
        return; /* a forked child must not write its parent's buffered lines */
    std::lock_guard<std::mutex> guard(r.lock);
    for (auto &c : r.categories)
        c->debug_sink->flush();
}

/* Buffered debug lines reach the file within a second even when no other
 * line follows them. */
void start_flusher(registry &r)
{
    if (r.flusher_started)
        return;
    r.flusher_started = true;
    r.owner = getpid();
    std::thread([] {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            flush_all();
        }
    }).detach();
    atexit(flush_all);
}

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

spdlog::level::level_enum spdlog_level(int level)
{
    if (level >= QN_ZLOG_LEVEL_EVENT)
        return spdlog::level::critical;
    if (level >= QN_ZLOG_LEVEL_ERROR)
        return spdlog::level::err;
    if (level >= QN_ZLOG_LEVEL_WARN)
        return spdlog::level::warn;
    return spdlog::level::debug;
}

int keep_from(const std::string &word)
{
    if (word == "error")
        return QN_ZLOG_LEVEL_ERROR;
    if (word == "debug")
        return INT_MIN;
    return QN_ZLOG_LEVEL_WARN;
}

std::shared_ptr<spdlog::logger> make_logger(const std::string &name, std::shared_ptr<zlog_file_sink> sink)
{
    auto logger = std::make_shared<spdlog::logger>(name, std::move(sink));
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
    logger->set_level(spdlog::level::trace);
    return logger;
}

bool is_event(int level)
{
    return level >= QN_ZLOG_LEVEL_EVENT;
}

} // namespace

extern "C" {

qn_zlog_category_t *qn_zlog_init(const char *category)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg || !category || !*category)
        return nullptr;
    std::string run_dir = qn_platform_run_dir();
    std::string debug_path = cfg->log_file.empty() ? run_dir + category + ".log" : cfg->log_file;
    std::string events_path = cfg->events_file.empty() ? run_dir + category + "-events.log" : cfg->events_file;

    registry &r = the_registry();
    {
        /* One category per name, files and rules: a second opener (a
         * stand-in logging for the program) shares the files and their
         * rotation instead of racing them. */
        std::lock_guard<std::mutex> guard(r.lock);
        for (const auto &c : r.categories)
            if (c->name == category && c->debug_path == debug_path && c->events_path == events_path &&
                c->keep_from == keep_from(cfg->log_level))
                return c.get();
    }

    auto cat = std::make_unique<qn_zlog_category>();
    cat->name = category;
    cat->debug_path = debug_path;
    cat->events_path = events_path;
    for (const char *p = category; *p; ++p)
        cat->module += static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    cat->keep_from = keep_from(cfg->log_level);
    cat->debug_sink = std::make_shared<zlog_file_sink>(debug_path, static_cast<uint64_t>(cfg->log_max_size),
                                                       static_cast<unsigned>(cfg->log_max_files), true);
    cat->events_sink = std::make_shared<zlog_file_sink>(events_path, static_cast<uint64_t>(cfg->events_max_size),
                                                        static_cast<unsigned>(cfg->events_max_files), false);
    std::string why;
    if (!cat->debug_sink->open(&why)) {
        fprintf(stderr, "zlog category %s: %s\n", category, why.c_str());
        return nullptr;
    }
    /* Without its event log the category still runs: event lines then go
     * to the system log, are counted, and the file is tried again with
     * every event line. */
    if (!cat->events_sink->open(&why))
        fprintf(stderr, "zlog category %s: event log %s; event lines go to the system log until it can be written\n",
                category, why.c_str());
    cat->debug = make_logger(category, cat->debug_sink);
    cat->events = make_logger(category, cat->events_sink);

    std::lock_guard<std::mutex> guard(r.lock);
    if (cat->keep_from < QN_ZLOG_LEVEL_WARN) /* only debug lines wait in memory */
        start_flusher(r);
    r.categories.push_back(std::move(cat));
    return r.categories.back().get();
}

int qn_zlog_level_enabled(qn_zlog_category_t *cat, int level)
{
    return cat && (is_event(level) || level >= cat->keep_from);
}

void qndf_zlog(qn_zlog_category_t *cat, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *fmt, ...)
{
    if (!fmt || !qn_zlog_level_enabled(cat, level))
        return;
    char text[4096];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    /* A message that ends in its own newline gets no blank line after it. */
    size_t len = n < 0 ? 0 : static_cast<size_t>(n) < sizeof text ? static_cast<size_t>(n) : sizeof text - 1;
    if (len > 0 && text[len - 1] == '\n')
        --len;
    std::string_view f(file ? file : "", file ? filelen : 0);
    std::string_view fn(func ? func : "", func ? funclen : 0);
    spdlog::memory_buf_t payload;
    fmt::format_to(std::back_inserter(payload), "{} {}:{} {}: {}", level_name(level), f, line, fn,
                   std::string_view(text, len));
    spdlog::string_view_t body(payload.data(), payload.size());
    if (is_event(level)) {
        cat->events->log(spdlog::level::critical, body);
        /* The system log has its own time and level: the text from the file. */
        size_t name = strlen(level_name(level)) + 1;
        qn_syslog_event(cat->module, std::string(payload.data() + name, payload.size() - name));
    } else {
        cat->debug->log(spdlog_level(level), body);
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

void qn_zlog_flush(qn_zlog_category_t *cat)
{
    if (!cat)
        return;
    cat->debug_sink->flush();
    cat->events_sink->flush();
}

uint64_t qn_zlog_bytes_written(qn_zlog_category_t *cat)
{
    return cat ? cat->debug_sink->bytes_written() + cat->events_sink->bytes_written() : 0;
}

uint64_t qn_zlog_lines_lost(qn_zlog_category_t *cat)
{
    return cat ? cat->debug_sink->lines_lost() + cat->events_sink->lines_lost() : 0;
}
