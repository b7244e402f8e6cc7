#include "misc/res_misc.h"
#include "misc/res_read.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"
#include "test_mon_fixture.h"

#include <cmath>

namespace {

class MonIoStat : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        res_mon_io_stat_clear();
        io_threshold = 50;
        io_interval = 10;
        memset(&res_mon_io_thread, 0, sizeof res_mon_io_thread);
    }
    void TearDown() override
    {
        res_misc_del_timer(&res_mon_io_thread);
        res_mon_io_top_clear();
        res_mon_io_stat_clear();
        MonFixture::TearDown();
    }
    void uptime(const std::string &text) { put("/proc/uptime", text); }
    void stats(const std::string &text) { put("/proc/diskstats", text); }
    void disk_dir(const std::string &name) { mkdirs("/sys/block/" + name); }
    /* A whole-disk line with every field of a recent kernel. */
    static std::string line(const std::string &name, const std::string &fields, unsigned major = 8,
                            unsigned minor = 0)
    {
        return "   " + std::to_string(major) + "       " + std::to_string(minor) + " " + name + " " + fields + "\n";
    }
    static io_device *find(const char *name)
    {
        for (io_device *d = io_device_list; d; d = d->next)
            if (strcmp(d->name, name) == 0)
                return d;
        return nullptr;
    }
    /* One scan with a given uptime (seconds) and disk lines. */
    int scan(const std::string &up, const std::string &lines)
    {
        uptime(up + " 1.00\n");
        stats(lines);
        return res_mon_io_stat_scan();
    }
};

TEST_F(MonIoStat, UptimeIsHundredthsOfASecond)
{
    uptime("12345.67 100.00\n");
    uint64_t v = 0;
    EXPECT_EQ(0, read_uptime(&v));
    EXPECT_EQ(1234567u, v);
}

TEST_F(MonIoStat, UptimeWithoutFractionOrGarbageFails)
{
    uint64_t v = 7;
    uptime("12345\n");
    EXPECT_EQ(-1, read_uptime(&v));
    uptime("abc def\n");
    EXPECT_EQ(-1, read_uptime(&v));
    uptime("");
    EXPECT_EQ(-1, read_uptime(&v));
    EXPECT_EQ(7u, v);
    EXPECT_EQ(3u, count("Cannot read /proc/uptime"));
}

TEST_F(MonIoStat, MissingUptimeFileFails)
{
    uint64_t v = 0;
    EXPECT_EQ(-1, read_uptime(&v));
    EXPECT_TRUE(logged("Cannot read /proc/uptime"));
}

TEST_F(MonIoStat, LoopAndPartitionLinesIgnoredWholeDisksTracked)
{
    const std::string f = "1 0 8 1 1 0 8 1 0 1 2 0 0 0 0 0 0";
    ASSERT_EQ(0, scan("100.00", line("loop0", f, 7) + line("sda1", f, 8, 1) + line("sda", f) +
                                    line("mmcblk0", f, 179) + line("zram0", f, 253) + line("dm-0", f, 252) +
                                    line("lo", f, 1) + line("loop", f, 7) + line("loopy", f, 7)));
    std::string names;
    for (io_device *d = io_device_list; d; d = d->next)
        names += std::string(d->name) + ",";
    /* "lo" is shorter than four characters, and "loop" itself begins with
     * "loop"; the order is the order of first appearance. */
    EXPECT_EQ("sda,mmcblk0,zram0,dm-0,lo,", names);
}

TEST_F(MonIoStat, IsDiskFollowsSysBlockWithSlashAsBang)
{
    disk_dir("sda");
    disk_dir("cciss!c0d0");
    const std::string f = "1 0 8 1 1 0 8 1 0 1 2";
    ASSERT_EQ(0, scan("100.00", line("sda", f) + line("cciss/c0d0", f, 104) + line("zram0", f, 253)));
    EXPECT_EQ(1u, find("sda")->is_disk);
    EXPECT_EQ(1u, find("cciss/c0d0")->is_disk);
    EXPECT_EQ(0u, find("zram0")->is_disk);
    EXPECT_EQ(253u, find("zram0")->major);
    EXPECT_EQ(0u, find("zram0")->minor);
}

TEST_F(MonIoStat, FiguresOverTheInterval)
{
    disk_dir("sda");
    /* rd_ios rd_merges rd_sectors rd_ticks wr_ios wr_merges wr_sectors
     * wr_ticks ios_pgr tot_ticks rq_ticks dc_ios dc_merges dc_sectors
     * dc_ticks fl_ios fl_ticks */
    ASSERT_EQ(0, scan("100.00", line("sda", "100 10 800 50 200 20 1600 100 0 400 500 10 0 80 5 4 8")));
    ASSERT_EQ(0, scan("110.00", line("sda", "200 30 2400 150 300 20 2400 300 1 900 900 20 10 240 25 8 20")));
    io_device *d = find("sda");
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(1u, d->exist);
    /* itv = 1000 hundredths */
    EXPECT_DOUBLE_EQ(500.0 / 1000 * 100 / 10, d->util);            /* 5 % */
    EXPECT_DOUBLE_EQ((100.0 + 200.0) / (100 + 100 + 10), d->await); /* discards in n only */
    EXPECT_DOUBLE_EQ((1600.0 + 800.0) / 210, d->arqsz);
    EXPECT_DOUBLE_EQ(1600.0 / 1000 * 100, d->rsec_rate);
    EXPECT_DOUBLE_EQ(800.0 / 1000 * 100, d->wsec_rate);
    EXPECT_DOUBLE_EQ(160.0 / 1000 * 100, d->dsec_rate);
    EXPECT_DOUBLE_EQ(20.0 / 120 * 100, d->rrqm_pct);
    EXPECT_DOUBLE_EQ(0.0, d->wrqm_pct);
    EXPECT_DOUBLE_EQ(10.0 / 20 * 100, d->drqm_pct);
    EXPECT_DOUBLE_EQ(16.0, d->rareq_sz);
    EXPECT_DOUBLE_EQ(1.0, d->r_await);
    EXPECT_DOUBLE_EQ(8.0, d->wareq_sz);
    EXPECT_DOUBLE_EQ(2.0, d->w_await);
    EXPECT_DOUBLE_EQ(16.0, d->dareq_sz);
    EXPECT_DOUBLE_EQ(2.0, d->d_await);
    EXPECT_DOUBLE_EQ(3.0, d->f_await);
    EXPECT_EQ(11000u, cur_uptime);
    EXPECT_EQ(10000u, prev_uptime);
}

TEST_F(MonIoStat, FirstScanIsAverageSinceBoot)
{
    ASSERT_EQ(0, scan("1000.00", line("sda", "10 0 80 5 0 0 0 0 0 5000 0")));
    io_device *d = find("sda");
    EXPECT_DOUBLE_EQ(5000.0 / 100000 * 100 / 10, d->util);
    EXPECT_DOUBLE_EQ(8.0, d->rareq_sz);
    EXPECT_DOUBLE_EQ(80.0 / 100000 * 100, d->rsec_rate);
}

TEST_F(MonIoStat, SameUptimeTwiceGivesIntervalOne)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "0 0 0 0 0 0 0 0 0 100 0")));
    ASSERT_EQ(0, scan("100.00", line("sda", "0 0 0 0 0 0 0 0 0 103 0")));
    EXPECT_DOUBLE_EQ(3.0 / 1 * 100 / 10, find("sda")->util);
}

TEST_F(MonIoStat, TickCountersWrapInThirtyTwoBits)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "1 0 8 4294967290 0 0 0 0 0 4294967295 0")));
    ASSERT_EQ(0, scan("200.00", line("sda", "2 0 16 4 0 0 0 0 0 99 0")));
    io_device *d = find("sda");
    EXPECT_DOUBLE_EQ(10.0, d->r_await);
    EXPECT_DOUBLE_EQ(100.0 / 10000 * 100 / 10, d->util);
}

TEST_F(MonIoStat, CountersGoingBackwardsAreComputedAgainstZero)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "1000 0 8000 500 1000 0 8000 500 0 900 0")));
    ASSERT_EQ(0, scan("200.00", line("sda", "10 0 40 20 5 0 40 10 0 50 0")));
    io_device *d = find("sda");
    EXPECT_DOUBLE_EQ(4.0, d->rareq_sz);
    EXPECT_DOUBLE_EQ(2.0, d->r_await);
    EXPECT_DOUBLE_EQ(8.0, d->wareq_sz);
    EXPECT_DOUBLE_EQ(50.0 / 10000 * 100 / 10, d->util);
    EXPECT_EQ(0u, d->prev.rd_ios);
}

TEST_F(MonIoStat, FewerIosButMoreSectorsIsNotAReplug)
{
    /* rd_sectors grew although the op count fell: no reset, the u64
     * differences wrap as they are. */
    ASSERT_EQ(0, scan("100.00", line("sda", "10 0 80 5 0 0 0 0 0 0 0")));
    ASSERT_EQ(0, scan("200.00", line("sda", "5 0 100 5 0 0 0 0 0 0 0")));
    EXPECT_EQ(10u, find("sda")->prev.rd_ios);
}

TEST_F(MonIoStat, NoReadsMeansZeroReadFigures)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "5 0 40 10 0 0 0 0 0 0 0")));
    ASSERT_EQ(0, scan("200.00", line("sda", "5 0 40 10 7 2 56 14 0 0 0")));
    io_device *d = find("sda");
    EXPECT_EQ(0.0, d->rareq_sz);
    EXPECT_EQ(0.0, d->r_await);
    EXPECT_EQ(0.0, d->rrqm_pct);
    EXPECT_DOUBLE_EQ(8.0, d->wareq_sz);
    EXPECT_DOUBLE_EQ(2.0 / 9 * 100, d->wrqm_pct);
}

TEST_F(MonIoStat, ShortFieldSetsLeaveMissingGroupsZero)
{
    /* 14 conversions: no discard or flush fields; 18: no flush fields. */
    ASSERT_EQ(0, scan("100.00", line("sda", "1 2 3 4 5 6 7 8 9 10 11") +
                                    line("sdb", "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15") +
                                    line("sdc", "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17")));
    io_device *a = find("sda"), *b = find("sdb"), *c = find("sdc");
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(11u, a->cur.rq_ticks);
    EXPECT_EQ(0u, a->cur.dc_ios);
    EXPECT_EQ(15u, b->cur.dc_ticks);
    EXPECT_EQ(14u, b->cur.dc_sectors);
    EXPECT_EQ(0u, b->cur.fl_ios);
    EXPECT_EQ(16u, c->cur.fl_ios);
    EXPECT_EQ(17u, c->cur.fl_ticks);
}

TEST_F(MonIoStat, OldKernelSevenFieldLineTakesIosAndSectors)
{
    ASSERT_EQ(0, scan("100.00", line("sdz", "11 22 33 44")));
    io_device *d = find("sdz");
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(11u, d->cur.rd_ios);
    EXPECT_EQ(22u, d->cur.rd_sectors);
    EXPECT_EQ(33u, d->cur.wr_ios);
    EXPECT_EQ(44u, d->cur.wr_sectors);
    EXPECT_EQ(0u, d->cur.rd_merges);
}

TEST_F(MonIoStat, MalformedLinesAreSkipped)
{
    std::string longline = "   8       0 sdl " + std::string(300, '1') + " 2 3 4 5 6 7 8 9 10 11\n";
    ASSERT_EQ(0, scan("100.00", "garbage\n" + line("sdx", "1 2 3 4 5 6 7 8 x 10 11") + line("sdy", "1 2") +
                                    longline + line("sdw", "1 2 3 4 5 6 7 8 9 10") +
                                    line(std::string(130, 'n'), "1 2 3 4 5 6 7 8 9 10 11") +
                                    line("sda", "1 2 3 4 5 6 7 8 9 10 11") + "\n \n" +
                                    "8 0\n"));
    std::string names;
    for (io_device *d = io_device_list; d; d = d->next)
        names += std::string(d->name) + ",";
    EXPECT_EQ("sda,", names);
}

TEST_F(MonIoStat, NameOf127CharactersIsKept)
{
    std::string name(127, 'n');
    ASSERT_EQ(0, scan("100.00", line(name, "1 2 3 4 5 6 7 8 9 10 11")));
    ASSERT_NE(nullptr, io_device_list);
    EXPECT_EQ(name, io_device_list->name);
}

TEST_F(MonIoStat, VanishedDeviceKeepsItsRecordNotPresent)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "1 0 8 1 0 0 0 0 0 1 0") + line("sdb", "1 0 8 1 0 0 0 0 0 1 0")));
    ASSERT_EQ(0, scan("200.00", line("sdb", "2 0 16 2 0 0 0 0 0 2 0")));
    EXPECT_EQ(0u, find("sda")->exist);
    EXPECT_EQ(1u, find("sdb")->exist);
    /* Reappearing appends nothing new. */
    ASSERT_EQ(0, scan("300.00", line("sda", "3 0 24 3 0 0 0 0 0 3 0")));
    EXPECT_EQ(io_device_list, find("sda"));
    EXPECT_EQ(nullptr, io_device_list->next->next);
}

TEST_F(MonIoStat, UnreadableUptimeChangesNothing)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "1 0 8 1 0 0 0 0 0 1 0")));
    io_device before = *find("sda");
    unlink((root + "/proc/uptime").c_str());
    stats(line("sda", "9 0 80 9 0 0 0 0 0 9 0"));
    EXPECT_EQ(-1, res_mon_io_stat_scan());
    EXPECT_TRUE(logged("ignore scan due to uptime read fail."));
    EXPECT_EQ(10000u, cur_uptime);
    EXPECT_EQ(before.cur.rd_ios, find("sda")->cur.rd_ios);
    EXPECT_EQ(before.util, find("sda")->util);
}

TEST_F(MonIoStat, MissingDiskstatsMarksNothingPresent)
{
    ASSERT_EQ(0, scan("100.00", line("sda", "1 0 8 1 0 0 0 0 0 1 0")));
    unlink((root + "/proc/diskstats").c_str());
    uptime("200.00 0\n");
    EXPECT_EQ(0, res_mon_io_stat_scan());
    EXPECT_EQ(0u, find("sda")->exist);
    EXPECT_EQ(20000u, cur_uptime);
}

/* util = delta tot_ticks / 10 over 1 second of uptime (100 hundredths). */
std::string busy(unsigned tot) { return "0 0 0 0 0 0 0 0 0 " + std::to_string(tot) + " 0"; }

TEST_F(MonIoStat, UtilisationExactlyAtThresholdCounts)
{
    io_threshold = 50;
    unsigned tot = 0;
    ASSERT_EQ(0, scan("100.00", line("sda", busy(tot))));
    for (int i = 0; i < 3; ++i) {
        tot += 500; /* 50 % */
        ASSERT_EQ(0, scan(std::to_string(101 + i) + ".00", line("sda", busy(tot))));
        EXPECT_DOUBLE_EQ(50.0, find("sda")->util);
    }
    EXPECT_EQ(2u, find("sda")->io_warn_state);
    EXPECT_EQ(0u, io_warn_count);
    EXPECT_EQ(1u, count("io warning reach three times!"));
}

TEST_F(MonIoStat, ThirdOverThresholdSampleOfAnyDeviceRaisesTheWarning)
{
    io_threshold = 50;
    unsigned a = 0, b = 0, c = 0;
    auto tick = [&](int sec) {
        return scan(std::to_string(sec) + ".00", line("sda", busy(a)) + line("sdb", busy(b)) + line("sdc", busy(c)));
    };
    ASSERT_EQ(0, tick(100));
    a += 600; /* sda over */
    ASSERT_EQ(0, tick(101));
    EXPECT_EQ(1u, io_warn_count);
    ASSERT_EQ(0, tick(102)); /* quiet: the counter is not reset */
    EXPECT_EQ(1u, io_warn_count);
    b += 700; /* sdb over */
    ASSERT_EQ(0, tick(103));
    EXPECT_EQ(2u, io_warn_count);
    ASSERT_EQ(0, tick(104));
    c += 900; /* sdc over: the third */
    ASSERT_EQ(0, tick(105));
    EXPECT_EQ(0u, find("sda")->io_warn_state);
    EXPECT_EQ(0u, find("sdb")->io_warn_state);
    EXPECT_EQ(2u, find("sdc")->io_warn_state);
    EXPECT_EQ(0u, io_warn_count);
    EXPECT_EQ(1u, count("io warning reach three times!"));

    /* Over again while warned: nothing. */
    c += 900;
    ASSERT_EQ(0, tick(106));
    EXPECT_EQ(0u, io_warn_count);
    EXPECT_EQ(2u, find("sdc")->io_warn_state);
    /* Below: recovered, 1 stays until the next warning. */
    ASSERT_EQ(0, tick(107));
    EXPECT_EQ(1u, find("sdc")->io_warn_state);
    EXPECT_TRUE(logged("io warning recover!"));
    ASSERT_EQ(0, tick(108));
    EXPECT_EQ(1u, find("sdc")->io_warn_state);
    EXPECT_EQ(1u, count("io warning recover!"));
}

TEST_F(MonIoStat, JustBelowThresholdDoesNotCount)
{
    io_threshold = 50;
    ASSERT_EQ(0, scan("100.00", line("sda", busy(0))));
    ASSERT_EQ(0, scan("101.00", line("sda", busy(499))));
    EXPECT_EQ(0u, io_warn_count);
}

TEST_F(MonIoStat, TimerWithNullArgumentDoesNotReArm)
{
    EXPECT_EQ(-1, res_mon_io_timer_func(nullptr));
    EXPECT_FALSE(res_misc_timer_armed(&res_mon_io_thread));
}

TEST_F(MonIoStat, TimerScansAndReArms)
{
    uptime("100.00 0\n");
    stats(line("sda", "1 0 8 1 0 0 0 0 0 1 0"));
    EXPECT_EQ(0, res_mon_io_timer_func(&res_mon_io_thread));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
    EXPECT_EQ(10, res_mon_io_thread.interval);
    EXPECT_STREQ("RES_IO_TIMER", res_mon_io_thread.name);
    EXPECT_NE(nullptr, find("sda"));
    EXPECT_TRUE(logged("res_mon_io_timer_func add timer with ret[0]."));
}

TEST_F(MonIoStat, TimerReArmsAfterAFailedScan)
{
    EXPECT_EQ(0, res_mon_io_timer_func(&res_mon_io_thread));
    EXPECT_TRUE(logged("ignore scan due to uptime read fail."));
    EXPECT_TRUE(res_misc_timer_armed(&res_mon_io_thread));
}

} // namespace
