/* Test base: both log channels and the operator event lines written to files
 * in a fresh temporary directory, through the platform config; the level and
 * category in use before are given back after each test. */
#ifndef LOG_FILES_TEST_H
#define LOG_FILES_TEST_H

#include "misc/res_zlog.h"
#include "qn_platform_config.h"
#include "qn_zlog_standin.h"
#include "slurp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

class LogFilesTest : public ::testing::Test {
  protected:
    /* `keys`: further [log] keys of the config the test starts with. */
    explicit LogFilesTest(std::string keys = std::string()) : keys_(std::move(keys)) {}
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-log-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        saved_level = res_dbg_level;
        saved_handle = res_zlog_handle;
        open_log(keys_);
    }
    /* The category on this test's files, with more [log] keys. */
    void open_log(const std::string &more)
    {
        std::ofstream(dir + "/cfg.ini") << "[log]\nfile = " << dir << "/zlog.log\nevents_file = " << dir
                                       << "/events.log\nsyslog_file = " << dir << "/syslog.log\n"
                                       << more;
        setenv("STOVIG_CONFIG", (dir + "/cfg.ini").c_str(), 1);
        qn_platform_config_reload();
        ASSERT_EQ(0, res_zlog_init());
    }
    void TearDown() override
    {
        res_dbg_level = saved_level;
        res_zlog_handle = saved_handle;
        unsetenv("STOVIG_CONFIG");
        qn_platform_config_reload();
        std::system(("rm -rf " + dir).c_str());
    }
    std::string syslog_text() { return slurp(dir + "/syslog.log"); }
    std::string zlog_text()
    {
        qn_zlog_flush(res_zlog_handle);
        return slurp(dir + "/zlog.log");
    }
    std::string events_text() { return slurp(dir + "/events.log"); }
    std::string dir;
    uint32_t saved_level = 0;
    qn_zlog_category_t *saved_handle = nullptr;

  private:
    std::string keys_;
};

#endif
