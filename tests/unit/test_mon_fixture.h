/* Shared fixture of the monitor tests: a temporary host tree under
 * STOVIG_ROOT, a platform config whose syslog file captures every line at
 * debug level 5, a run directory for work files, and the test event loop. */
#ifndef TEST_MON_FIXTURE_H
#define TEST_MON_FIXTURE_H

#include "log_file.h"
#include "slurp.h"

#include "misc/res_zlog.h"
#include "qn_platform_config.h"
#include "res_main.h"
#include "test_loop.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

class MonFixture : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/smon-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        root = tmpl;
        mkdirs("/proc");
        mkdirs("/sys/block");
        mkdirs("/run");
        mkdirs("/bin");
        setenv("STOVIG_ROOT", root.c_str(), 1);
        const char *path = getenv("PATH");
        saved_path = path ? path : "";
        saved_run_dir = res_run_dir;
        snprintf(res_run_dir, sizeof res_run_dir, "%s/run/", root.c_str());
        write_config("");
        saved_level = res_dbg_level;
        res_dbg_level = 5;
        test_loop_setup();
    }
    void TearDown() override
    {
        res_dbg_level = saved_level;
        unsetenv("STOVIG_ROOT");
        unsetenv("STOVIG_CONFIG");
        setenv("PATH", saved_path.c_str(), 1);
        qn_platform_config_reload();
        snprintf(res_run_dir, sizeof res_run_dir, "%s", saved_run_dir.c_str());
        std::string cmd = "rm -rf " + root;
        if (std::system(cmd.c_str()) != 0)
            ADD_FAILURE() << "cannot remove " << root;
    }

    /* Config with the syslog capture and extra INI text (sections). */
    void write_config(const std::string &extra)
    {
        std::ofstream(root + "/cfg.ini") << "[log]\nfile = " << root << "/zlog.log\nsyslog_file = " << root
                                         << "/syslog.log\n"
                                         << extra;
        setenv("STOVIG_CONFIG", (root + "/cfg.ini").c_str(), 1);
        qn_platform_config_reload();
    }
    /* The five flash figures that let the taskstats set-up succeed. */
    static std::string flash_caps()
    {
        return "[cap]\nCAP_FLASH_IDNAME = TESTFLASH\nCAP_FLASH_ERASETIMES = 3000\nCAP_FLASH_PRODUCTLIFE = 5\n"
               "CAP_FLASH_GCLEVEL = 2\nCAP_FLASH_WARNLEVEL = 80\n";
    }

    void mkdirs(const std::string &rel)
    {
        std::string cmd = "mkdir -p '" + root + rel + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }
    /* Writes a file of the host tree, creating its directory. */
    void put(const std::string &rel, const std::string &text)
    {
        std::string dir = rel.substr(0, rel.rfind('/'));
        if (!dir.empty())
            mkdirs(dir);
        std::ofstream f(root + rel, std::ios::binary | std::ios::trunc);
        f << text;
    }
    /* An executable shell script in the host tree. */
    void script(const std::string &rel, const std::string &body)
    {
        put(rel, "#!/bin/sh\n" + body);
        chmod((root + rel).c_str(), 0755);
    }
    /* Puts the tree's /bin first in PATH (fake mount, umount, fdisk). */
    void fake_bin_first() { setenv("PATH", (root + "/bin:" + saved_path).c_str(), 1); }

    std::string read(const std::string &rel) { return slurp(root + rel); }
    /* The syslog capture the config points at. */
    log_file syslog_capture() const { return {root + "/syslog.log"}; }
    std::string log() { return syslog_capture().text(); }
    void clear_log() { syslog_capture().clear(); }
    bool logged(const std::string &text) { return syslog_capture().has(text); }
    size_t count(const std::string &text) { return static_cast<size_t>(syslog_capture().count(text)); }

    std::string root;
    std::string saved_path;
    std::string saved_run_dir;
    uint32_t saved_level = 0;
};

#endif
