/* Shared fixture of the record tests: the bus side of MomDaemonTest, a fresh
 * node store, the monitor settings saved and restored around each test, and
 * an event-line capture (a zlog category of the test's own whose file the
 * test reads back). */
#ifndef MOM_RECORDS_FIXTURE_H
#define MOM_RECORDS_FIXTURE_H

#include "test_mom_daemon.h"
#include "node_store.h"
#include "scan_collect.h"

#include "misc/res_misc.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

class MomRecordsFixture : public MomDaemonTest {
protected:
    void SetUp() override
    {
        MomDaemonTest::SetUp();
        res_mom_data_init();
        char tmpl[] = "/tmp/stovig-rec-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        saved_handle = res_zlog_handle;
        int32_t *settings[] = {&io_interval, &io_threshold, &ro_interval, &cap_interval,
                               &cap_threshold, &disk_interval, &disk_threshold};
        for (int i = 0; i < 7; ++i)
            saved[i] = *settings[i];
        res_mon_io_stat_clear();
        res_mon_io_top_clear();
    }

    void TearDown() override
    {
        res_misc_del_timer(&res_mon_io_thread);
        res_misc_del_timer(&res_mon_ro_thread);
        res_misc_del_timer(&res_mon_cap_thread);
        res_misc_del_timer(&res_mon_disk_thread);
        int32_t *settings[] = {&io_interval, &io_threshold, &ro_interval, &cap_interval,
                               &cap_threshold, &disk_interval, &disk_threshold};
        for (int i = 0; i < 7; ++i)
            *settings[i] = saved[i];
        res_mon_io_stat_clear();
        res_mon_io_top_clear();
        res_zlog_handle = saved_handle;
        MomDaemonTest::TearDown();
        std::string cmd = "rm -rf " + dir;
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }

    std::string zlog_config() const
    {
        return "file = " + dir + "/zlog.log\nevents_file = " + dir + "/events.log\n";
    }

    /* Diagnostics captured and event lines written to this test's file. */
    void capture()
    {
        log = std::make_unique<log_capture>(zlog_config());
        open_zlog();
    }
    void open_zlog()
    {
        static int n;
        std::string cat = "stovig-rec-" + std::to_string(++n);
        res_zlog_handle = qn_zlog_init(cat.c_str());
        ASSERT_NE(res_zlog_handle, nullptr);
    }

    /* Event lines written under `task`, message text only. */
    std::vector<std::string> events(const std::string &task) const
    {
        std::vector<std::string> out;
        std::istringstream in(slurp(dir + "/events.log"));
        std::string line;
        std::string mark = " " + task + ": ";
        while (std::getline(in, line)) {
            if (line.find(" EVENT ") == std::string::npos)
                continue;
            size_t p = line.find(mark);
            if (p != std::string::npos)
                out.push_back(line.substr(p + mark.size()));
        }
        return out;
    }

    static int list_len(const struct res_list_head *h)
    {
        int n = 0;
        for (const struct res_list_head *p = h->next; p != h; p = p->next)
            ++n;
        return n;
    }

    /* Packed copies of the records of one kind in a database. */
    std::vector<std::string> records(uint32_t db, const ProtobufCMessage *pattern)
    {
        std::vector<std::string> got;
        for (const scanned_record &r : scan_collect(bus(), db, pattern))
            if (r.has_value)
                got.push_back(r.packed);
        return got;
    }

    std::string dir;
    qn_zlog_category_t *saved_handle = nullptr;
    int32_t saved[7] = {};
};

/* Partition and lifetime records; the capacity and lifetime thresholds at
 * their defaults. */
class RecordsTest : public MomRecordsFixture {
protected:
    void SetUp() override
    {
        MomRecordsFixture::SetUp();
        cap_threshold = 80;
        disk_threshold = 12;
    }

    static struct res_mom_part_node *part(struct res_mom_node *n, const char *path)
    {
        for (struct res_list_head *p = n->part_list.next; p != &n->part_list; p = p->next) {
            auto *e = res_list_entry(p, struct res_mom_part_node, list);
            if (strcmp(e->part_path, path) == 0)
                return e;
        }
        return nullptr;
    }
};

#endif
