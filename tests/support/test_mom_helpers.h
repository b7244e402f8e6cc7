/* Test helpers for the bus side: a config file for one test, the loop run
 * until a condition holds, and the diagnostic lines captured from the
 * platform syslog file. */
#ifndef TEST_MOM_HELPERS_H
#define TEST_MOM_HELPERS_H

#include "log_file.h"
#include "test_loop.h"

#include "misc/res_zlog.h"
#include "qn_platform_config.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

/* Writes a config file and points STOVIG_CONFIG at it while it lives. */
struct config_file {
    std::string path;
    explicit config_file(const std::string &text)
    {
        char tmpl[] = "/tmp/stovig-bus-cfg-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        path = tmpl;
        std::ofstream(path) << text;
        setenv("STOVIG_CONFIG", path.c_str(), 1);
        qn_platform_config_reload();
    }
    ~config_file()
    {
        unsetenv("STOVIG_CONFIG");
        qn_platform_config_reload();
        unlink(path.c_str());
    }
};

/* Runs the loop until pred() holds or `ms` milliseconds have passed. */
inline bool run_until(const std::function<bool()> &pred, int ms = 3000)
{
    for (int waited = 0; waited < ms; waited += 20) {
        if (pred())
            return true;
        test_loop_run(2); /* 20 ms */
    }
    return pred();
}

/* Diagnostics at debug level 5 into a file of their own, plus the rest of a
 * config for the test. */
struct log_capture : log_file {
    std::unique_ptr<config_file> cfg;
    uint32_t saved_level;
    explicit log_capture(const std::string &more = "")
    {
        char tmpl[] = "/tmp/stovig-bus-log-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        file = tmpl;
        cfg = std::make_unique<config_file>("[log]\nsyslog_file = " + file + "\n" + more);
        saved_level = res_dbg_level;
        res_dbg_level = 5;
    }
    ~log_capture()
    {
        res_dbg_level = saved_level;
        cfg.reset();
        unlink(file.c_str());
    }
};

#endif
