/* The log library stand-in: routing by level, buffering and flushing,
 * newline handling, rotation, lost-line reports and the safe opening of its
 * files. */
#include "qn_platform_config.h"
#include "qn_zlog.h"
#include "qn_zlog_standin.h"
#include "slurp.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string l;
    while (std::getline(in, l))
        out.push_back(l);
    return out;
}

size_t count_of(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1))
        ++n;
    return n;
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

#define ZLOG(cat, level, ...) qndf_zlog((cat), "mon/x.cpp", 9, "fn", 2, 7, (level), __VA_ARGS__)

class ZlogRouting : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-zroute-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override
    {
        unsetenv("STOVIG_CONFIG");
        qn_platform_config_reload();
        std::system(("rm -rf " + dir).c_str());
    }
    /* A category on this test's files; `more` adds [log] keys. */
    qn_zlog_category_t *open(const std::string &more = "")
    {
        std::ofstream(dir + "/cfg.ini") << "[log]\nfile = " << debug_path() << "\nevents_file = " << events_path()
                                        << "\nsyslog_file = " << syslog_path() << "\n"
                                        << more;
        setenv("STOVIG_CONFIG", (dir + "/cfg.ini").c_str(), 1);
        qn_platform_config_reload();
        static int n;
        return qn_zlog_init(("zt" + std::to_string(++n)).c_str());
    }
    std::string debug_path() const { return dir + "/debug.log"; }
    std::string events_path() const { return dir + "/events.log"; }
    std::string syslog_path() const { return dir + "/syslog.log"; }
    std::string debug_text() const { return slurp(debug_path()); }
    std::string events_text() const { return slurp(events_path()); }
    std::string syslog_text() const { return slurp(syslog_path()); }
    std::string dir;
};

TEST_F(ZlogRouting, DefaultRoutingByLevel)
{
    qn_zlog_category_t *cat = open();
    ASSERT_NE(nullptr, cat);
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "%s", "slot1 Partition usb0 is readonly.");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "an error %d", 1);
    ZLOG(cat, QN_ZLOG_LEVEL_WARN, "a warning %d", 2);
    ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "a debug line %d", 3);
    qn_zlog_flush(cat);

    std::vector<std::string> events = lines_of(events_text());
    ASSERT_EQ(1u, events.size()) << events_text();
    EXPECT_NE(std::string::npos, events[0].find(" EVENT mon/x.cpp:7 fn: slot1 Partition usb0 is readonly."));
    std::string d = debug_text();
    EXPECT_NE(std::string::npos, d.find(" ERROR mon/x.cpp:7 fn: an error 1")) << d;
    EXPECT_NE(std::string::npos, d.find(" WARN  mon/x.cpp:7 fn: a warning 2")) << d;
    EXPECT_EQ(std::string::npos, d.find("a debug line")) << d;
    EXPECT_EQ(std::string::npos, d.find("readonly")) << d;
    /* The system log receives the event line alone, at warning priority. */
    std::string s = syslog_text();
    EXPECT_NE(std::string::npos, s.find("]: %ZT")) << s; /* the category's name in upper case */
    EXPECT_EQ(1u, count_of(s, "-4-EVENT: mon/x.cpp:7 fn: slot1 Partition usb0 is readonly.\n")) << s;
    EXPECT_EQ(1u, lines_of(s).size()) << s;
}

TEST_F(ZlogRouting, TimeStampAndLevelColumnsAreKept)
{
    qn_zlog_category_t *cat = open();
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "%s", "e");
    std::string l = lines_of(events_text()).at(0);
    /* "2024-01-02 03:04:05.678 EVENT mon/x.cpp:7 fn: e" */
    ASSERT_GE(l.size(), 24u);
    EXPECT_EQ('-', l[4]);
    EXPECT_EQ(' ', l[10]);
    EXPECT_EQ('.', l[19]);
    EXPECT_EQ(" EVENT mon/x.cpp:7 fn: e", l.substr(23));
}

TEST_F(ZlogRouting, LevelEnabledFollowsTheRules)
{
    qn_zlog_category_t *by_default = open();
    EXPECT_TRUE(qn_zlog_level_enabled(by_default, QN_ZLOG_LEVEL_EVENT));
    EXPECT_TRUE(qn_zlog_level_enabled(by_default, QN_ZLOG_LEVEL_ERROR));
    EXPECT_TRUE(qn_zlog_level_enabled(by_default, QN_ZLOG_LEVEL_WARN));
    EXPECT_FALSE(qn_zlog_level_enabled(by_default, QN_ZLOG_LEVEL_DEBUG));
    qn_zlog_category_t *errors = open("level = error\n");
    EXPECT_TRUE(qn_zlog_level_enabled(errors, QN_ZLOG_LEVEL_EVENT));
    EXPECT_TRUE(qn_zlog_level_enabled(errors, QN_ZLOG_LEVEL_ERROR));
    EXPECT_FALSE(qn_zlog_level_enabled(errors, QN_ZLOG_LEVEL_WARN));
    qn_zlog_category_t *debug = open("level = debug\n");
    EXPECT_TRUE(qn_zlog_level_enabled(debug, QN_ZLOG_LEVEL_DEBUG));
    EXPECT_TRUE(qn_zlog_level_enabled(debug, 20));
    EXPECT_FALSE(qn_zlog_level_enabled(nullptr, QN_ZLOG_LEVEL_EVENT));
}

TEST_F(ZlogRouting, ErrorLevelDropsWarningsButKeepsEvents)
{
    qn_zlog_category_t *cat = open("level = error\n");
    ZLOG(cat, QN_ZLOG_LEVEL_WARN, "w");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "e");
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "ev");
    qn_zlog_flush(cat);
    EXPECT_EQ(std::string::npos, debug_text().find("WARN")) << debug_text();
    EXPECT_NE(std::string::npos, debug_text().find(" ERROR mon/x.cpp:7 fn: e"));
    EXPECT_NE(std::string::npos, events_text().find(" EVENT mon/x.cpp:7 fn: ev"));
}

TEST_F(ZlogRouting, DebugLinesWaitInMemoryUntilAWarningComes)
{
    qn_zlog_category_t *cat = open("level = debug\n");
    for (int i = 0; i < 50; ++i)
        ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "debug %d", i);
    /* Nothing is written line by line. */
    EXPECT_EQ("", debug_text());
    EXPECT_EQ(0u, qn_zlog_bytes_written(cat));
    ZLOG(cat, QN_ZLOG_LEVEL_WARN, "the warning");
    /* The warning brings every earlier line out with it, in order. */
    std::vector<std::string> l = lines_of(debug_text());
    ASSERT_EQ(51u, l.size());
    EXPECT_NE(std::string::npos, l[0].find(" DEBUG mon/x.cpp:7 fn: debug 0"));
    EXPECT_NE(std::string::npos, l[49].find("fn: debug 49"));
    EXPECT_NE(std::string::npos, l[50].find(" WARN  mon/x.cpp:7 fn: the warning"));
}

TEST_F(ZlogRouting, ErrorsAndEventsAreWrittenAtOnce)
{
    qn_zlog_category_t *cat = open("level = debug\n");
    ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "first");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "second");
    EXPECT_EQ(2u, lines_of(debug_text()).size());
    ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "third");
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "event");
    EXPECT_EQ(1u, lines_of(events_text()).size());
    EXPECT_EQ(2u, lines_of(debug_text()).size()); /* the event does not flush the debug log */
}

TEST_F(ZlogRouting, BufferedLinesReachTheFileWithoutAnotherLine)
{
    qn_zlog_category_t *cat = open("level = debug\n");
    ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "alone");
    /* The periodic flush writes it; wait for it, bounded. */
    bool seen = false;
    for (int i = 0; i < 100 && !seen; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        seen = debug_text().find("fn: alone") != std::string::npos;
    }
    EXPECT_TRUE(seen);
}

TEST_F(ZlogRouting, AFullBufferIsWrittenWithoutWaiting)
{
    qn_zlog_category_t *cat = open("level = debug\n");
    std::string filler(200, 'x');
    size_t written = 0;
    for (int i = 0; i < 1000 && written == 0; ++i) {
        ZLOG(cat, QN_ZLOG_LEVEL_DEBUG, "%s", filler.c_str());
        written = qn_zlog_bytes_written(cat);
    }
    /* Written in one go once the buffer (64 KiB) was full, not line by line. */
    EXPECT_GE(written, 60u * 1024);
    EXPECT_LE(written, 70u * 1024);
}

TEST_F(ZlogRouting, OneTrailingNewlineOfTheMessageIsDropped)
{
    qn_zlog_category_t *cat = open();
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "url %s\n", "a/b");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "two%s", "\n\n");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "%s", "");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "%s", "\n");
    ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "last");
    std::vector<std::string> l = lines_of(debug_text());
    ASSERT_EQ(6u, l.size()) << debug_text();
    EXPECT_EQ("fn: url a/b", l[0].substr(l[0].find("fn: ")));
    EXPECT_EQ("fn: two", l[1].substr(l[1].find("fn: ")));
    EXPECT_EQ("", l[2]); /* only one of two newlines is dropped */
    EXPECT_EQ("fn: ", l[3].substr(l[3].find("fn: ")));
    EXPECT_EQ("fn: ", l[4].substr(l[4].find("fn: ")));
    EXPECT_EQ("fn: last", l[5].substr(l[5].find("fn: ")));
}

TEST_F(ZlogRouting, EventLogKeepsItsLinesWhileTheDebugLogRotates)
{
    qn_zlog_category_t *cat = open("max_size = 4096\nmax_files = 3\n");
    for (int i = 0; i < 20; ++i) {
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "event %d", i);
        for (int j = 0; j < 40; ++j)
            ZLOG(cat, QN_ZLOG_LEVEL_ERROR, "error %d.%d with some text to fill the file faster", i, j);
    }
    std::vector<std::string> events = lines_of(events_text());
    ASSERT_EQ(20u, events.size());
    for (int i = 0; i < 20; ++i)
        EXPECT_NE(std::string::npos, events[i].find("fn: event " + std::to_string(i))) << events[i];
    /* The debug log rotated: three old files kept, none past the limit, every
     * line whole, the newest lines in the current file. */
    for (const char *name : {"/debug.log", "/debug.1.log", "/debug.2.log", "/debug.3.log"}) {
        struct stat st;
        ASSERT_EQ(0, stat((dir + name).c_str(), &st)) << name;
        EXPECT_LE(st.st_size, 4096) << name;
        EXPECT_GT(st.st_size, 0) << name;
        for (const std::string &l : lines_of(slurp(dir + name)))
            EXPECT_NE(std::string::npos, l.find(" ERROR mon/x.cpp:7 fn: error ")) << l;
    }
    EXPECT_FALSE(exists(dir + "/debug.4.log"));
    EXPECT_NE(std::string::npos, debug_text().find("error 19.39 "));
    EXPECT_FALSE(exists(dir + "/events.1.log"));
}

TEST_F(ZlogRouting, EventLogRotatesOnItsOwnSettings)
{
    qn_zlog_category_t *cat = open("events_max_size = 4096\nevents_max_files = 2\n");
    for (int i = 0; i < 200; ++i)
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "event number %d with a little text", i);
    EXPECT_TRUE(exists(dir + "/events.1.log"));
    EXPECT_TRUE(exists(dir + "/events.2.log"));
    EXPECT_FALSE(exists(dir + "/events.3.log"));
    EXPECT_NE(std::string::npos, events_text().find("event number 199 "));
    EXPECT_EQ("", debug_text());
}

TEST_F(ZlogRouting, UnwritableEventLogCountsItsLinesAndReportsThemLater)
{
    std::string missing = dir + "/later/events.log";
    qn_zlog_category_t *cat = open("events_file = " + missing + "\n");
    ASSERT_NE(nullptr, cat) << "the category runs without its event log";
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "lost one");
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "lost two");
    EXPECT_EQ(2u, qn_zlog_lines_lost(cat));
    /* The system log still has them. */
    EXPECT_EQ(2u, count_of(syslog_text(), "-4-EVENT: mon/x.cpp:7 fn: lost "));
    ASSERT_EQ(0, mkdir((dir + "/later").c_str(), 0700));
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "kept");
    std::vector<std::string> l = lines_of(slurp(missing));
    ASSERT_EQ(2u, l.size()) << slurp(missing);
    EXPECT_NE(std::string::npos, l[0].find(" LOST  2 lines could not be written to this file (")) << l[0];
    EXPECT_NE(std::string::npos, l[0].find("No such file or directory")) << l[0];
    EXPECT_NE(std::string::npos, l[1].find(" EVENT mon/x.cpp:7 fn: kept"));
    EXPECT_EQ(0u, qn_zlog_lines_lost(cat));
}

TEST_F(ZlogRouting, LostLinesReportKeepsTheWholeReasonOfALongPath)
{
    std::string later = dir + "/" + std::string(120, 'd');
    std::string missing = later + "/events.log";
    qn_zlog_category_t *cat = open("events_file = " + missing + "\n");
    ASSERT_NE(nullptr, cat);
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "lost");
    ASSERT_EQ(0, mkdir(later.c_str(), 0700));
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "kept");
    std::vector<std::string> l = lines_of(slurp(missing));
    ASSERT_EQ(2u, l.size()) << slurp(missing);
    EXPECT_NE(std::string::npos,
              l[0].find(" LOST  1 lines could not be written to this file (" + missing + ": No such file or directory)"))
        << l[0];
}

/* A file system that fills up: the file size limit of a child process makes
 * writes past it fail the way a full disk does. */
TEST_F(ZlogRouting, FullFileSystemLosesLinesAndTheNextWriteReportsThem)
{
    qn_zlog_category_t *cat = open();
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "before");
    off_t start = static_cast<off_t>(events_text().size());
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {static_cast<rlim_t>(start + 100), RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &lim);
        /* The first line fits, the second is cut at the limit, the third
         * finds no room at all. */
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "fits %s", "x");
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "cut %s", std::string(100, 'c').c_str());
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "no room");
        int lost = static_cast<int>(qn_zlog_lines_lost(cat));
        lim.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &lim);
        ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "after");
        _exit(lost);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
    std::vector<std::string> l = lines_of(events_text());
    ASSERT_EQ(5u, l.size()) << events_text();
    EXPECT_NE(std::string::npos, l[0].find("fn: before"));
    EXPECT_NE(std::string::npos, l[1].find("fn: fits x"));
    /* The cut line is ended before the report, so the report stands alone. */
    EXPECT_NE(std::string::npos, l[2].find(" EVENT mon/x.cpp:7 fn: c")) << l[2];
    EXPECT_EQ(std::string::npos, l[2].find("fn: cut " + std::string(100, 'c'))) << l[2];
    EXPECT_EQ(std::string::npos, l[2].find("LOST"));
    EXPECT_NE(std::string::npos, l[3].find(" LOST  2 lines could not be written to this file (File too large)"))
        << l[3];
    EXPECT_NE(std::string::npos, l[4].find("fn: after"));
}

class ZlogSafeOpen : public ZlogRouting {};

TEST_F(ZlogSafeOpen, NewFilesAreOwnerOnlyAndCloseOnExec)
{
    qn_zlog_category_t *cat = open();
    ASSERT_NE(nullptr, cat);
    for (const std::string &p : {debug_path(), events_path()}) {
        struct stat st;
        ASSERT_EQ(0, stat(p.c_str(), &st)) << p;
        EXPECT_EQ(0600u, st.st_mode & 0777) << p;
    }
    /* Every descriptor on these files is close-on-exec. */
    int seen = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        char link[64], target[512];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0)
            continue;
        target[n] = '\0';
        if (std::string(target) != debug_path() && std::string(target) != events_path())
            continue;
        ++seen;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
        EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK) << target;
    }
    EXPECT_GE(seen, 2);
}

TEST_F(ZlogSafeOpen, SymlinkPlantedAsTheDebugLogIsRefused)
{
    std::ofstream(dir + "/precious") << "keep me\n";
    ASSERT_EQ(0, symlink((dir + "/precious").c_str(), debug_path().c_str()));
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, open());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find(debug_path() + ": is a symbolic link; refusing to log through it")) << err;
    EXPECT_EQ("keep me\n", slurp(dir + "/precious"));
}

TEST_F(ZlogSafeOpen, FifoPlantedAsTheDebugLogIsRefusedWithoutWaiting)
{
    ASSERT_EQ(0, mkfifo(debug_path().c_str(), 0600));
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, open()); /* no reader: an open that waited would hang here */
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find(debug_path() + ": is a FIFO or socket, not a regular file")) << err;
}

TEST_F(ZlogSafeOpen, FifoWithAReaderIsStillRefused)
{
    ASSERT_EQ(0, mkfifo(debug_path().c_str(), 0600));
    int reader = ::open(debug_path().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, open());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find(debug_path() + ": is not a regular file; refusing to log into it")) << err;
    close(reader);
}

TEST_F(ZlogSafeOpen, SymlinkPlantedAsTheEventLogIsRefusedAndLinesCounted)
{
    std::ofstream(dir + "/precious") << "keep me\n";
    ASSERT_EQ(0, symlink((dir + "/precious").c_str(), events_path().c_str()));
    testing::internal::CaptureStderr();
    qn_zlog_category_t *cat = open();
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(nullptr, cat);
    EXPECT_NE(std::string::npos, err.find("event log " + events_path() + ": is a symbolic link")) << err;
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "e1");
    EXPECT_EQ(1u, qn_zlog_lines_lost(cat));
    EXPECT_EQ("keep me\n", slurp(dir + "/precious"));
    EXPECT_NE(std::string::npos, syslog_text().find("-4-EVENT: mon/x.cpp:7 fn: e1"));
}

TEST_F(ZlogSafeOpen, FileOfAnotherOwnerOrWithHardLinksIsRefused)
{
    std::ofstream(debug_path()) << "";
    ASSERT_EQ(0, link(debug_path().c_str(), (dir + "/second-name").c_str()));
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, open());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find(debug_path() + ": has 2 hard links; refusing it")) << err;
    unlink((dir + "/second-name").c_str());
    if (geteuid() != 0)
        GTEST_SKIP() << "giving a file away needs root";
    ASSERT_EQ(0, chown(debug_path().c_str(), 4242, 4242));
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, open());
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find(debug_path() + ": is owned by uid 4242, not by this process")) << err;
}

TEST_F(ZlogSafeOpen, PlantedSyslogFileSymlinkIsNotFollowed)
{
    std::ofstream(dir + "/precious") << "keep me\n";
    ASSERT_EQ(0, symlink((dir + "/precious").c_str(), syslog_path().c_str()));
    qn_zlog_category_t *cat = open();
    ASSERT_NE(nullptr, cat);
    ZLOG(cat, QN_ZLOG_LEVEL_EVENT, "e1");
    EXPECT_EQ("keep me\n", slurp(dir + "/precious"));
    EXPECT_NE(std::string::npos, events_text().find("fn: e1"));
}

} // namespace
