/* The monitors and helpers on a host where other users plant links, FIFOs
 * and odd files, and where inputs run long. */
#include "misc/res_misc.h"
#include "misc/res_run_dir.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_disk.h"
#include "mon/res_mon_io_stat.h"
#include "mon/res_mon_io_top_info.h"
#include "mon/res_mon_main.h"
#include "mon/res_mon_part.h"
#include "test_mon_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <set>
#include <sstream>

namespace {

class HostileHost : public MonFixture {
  protected:
    void SetUp() override
    {
        MonFixture::SetUp();
        res_mon_io_stat_clear();
        res_mon_part_init();
        memset(&res_mon_ro_thread, 0, sizeof res_mon_ro_thread);
        memset(&res_mon_io_thread, 0, sizeof res_mon_io_thread);
        memset(&res_mon_disk_thread, 0, sizeof res_mon_disk_thread);
        memset(res_disk_info, 0, sizeof res_disk_info);
        ro_interval = 30;
        io_interval = 10;
        disk_interval = 60;
        disk_threshold = 12;
        saved_umask = umask(022);
    }
    void TearDown() override
    {
        umask(saved_umask);
        res_misc_del_timer(&res_mon_ro_thread);
        res_misc_del_timer(&res_mon_io_thread);
        res_misc_del_timer(&res_mon_disk_thread);
        res_mon_io_top_clear();
        res_mon_io_stat_clear();
        MonFixture::TearDown();
    }
    static io_device *find(const char *name)
    {
        for (io_device *d = io_device_list; d; d = d->next)
            if (strcmp(d->name, name) == 0)
                return d;
        return nullptr;
    }
    void ro_pass(int uptime_s)
    {
        put("/proc/uptime", std::to_string(uptime_s) + ".00 1.00\n");
        res_misc_del_timer(&res_mon_ro_thread);
        ASSERT_EQ(0, res_mom_part_ro_timer_func(&res_mon_ro_thread));
    }
    mode_t saved_umask;
};

/* A line longer than 255 characters is read as the 256-byte buffer reads it:
 * its first 255 characters; its tail is not a line of its own. */
TEST_F(HostileHost, LongDiskstatsLineIsParsedOnItsFirst255Characters)
{
    std::string head = "   8       0 sdq 1 2 3 4 5 6 7 8 9 10";
    /* "77" straddles the cut: its first digit is character 255. */
    std::string padded = head + std::string(254 - head.size() - 1, ' ') + " 77 1 2 3 4 5 6\n";
    ASSERT_EQ('7', padded[254]);
    ASSERT_EQ('7', padded[255]);
    std::string smuggled = "   8       0 sdt 1 2 3 4 5 6 7 8 9 10 11" + std::string(300, ' ') + "\n";
    smuggled.insert(260, "8 0 sdr 1 2 3 4 5 6 7 8 9 10 11");
    put("/proc/uptime", "100.00 1.00\n");
    put("/proc/diskstats", padded + smuggled + "   8      16 sdb 1 2 3 4 5 6 7 8 9 10 11\n" +
                               "   8       0 sds 5 6 7 8 9 10 11 12 13 14 15\n");
    ASSERT_EQ(0, res_mon_io_stat_scan());
    io_device *q = find("sdq");
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(1u, q->cur.rd_ios);
    EXPECT_EQ(10u, q->cur.tot_ticks);
    EXPECT_EQ(7u, q->cur.rq_ticks); /* what fits of "77" */
    EXPECT_EQ(0u, q->cur.dc_ios);   /* the rest of the line is not read */
    EXPECT_EQ(nullptr, find("sdr"));
    ASSERT_NE(nullptr, find("sds")); /* the line after a long one is read normally */
    EXPECT_EQ(5u, find("sds")->cur.rd_ios);
    std::string names;
    for (io_device *d = io_device_list; d; d = d->next)
        names += std::string(d->name) + ",";
    EXPECT_EQ("sdq,sdt,sds,", names);
}

TEST_F(HostileHost, DiskstatsLineWithANulByteDoesNotEatTheNextLine)
{
    put("/proc/uptime", "100.00 1.00\n");
    std::string lines = std::string("   8       0 sdn 1 2\0 3\n", 24) + "   8       0 sdo 1 2 3 4 5 6 7 8 9 10 11\n";
    put("/proc/diskstats", lines);
    ASSERT_EQ(0, res_mon_io_stat_scan());
    EXPECT_NE(nullptr, find("sdo"));
    EXPECT_EQ(nullptr, find("sdn"));
}

TEST_F(HostileHost, ProbeFileLinkIsNeverFollowedAndLoggedOnce)
{
    mkdirs("/mnt/usb0");
    mkdirs("/victim");
    put("/victim/existing", "keep me\n");
    ASSERT_EQ(0, symlink((root + "/victim/created-by-root").c_str(), (root + "/mnt/usb0/.test-readonly").c_str()));
    mkdirs("/mnt/usb1");
    ASSERT_EQ(0, symlink((root + "/victim/existing").c_str(), (root + "/mnt/usb1/.test-readonly").c_str()));
    /* Another user's link in a sticky directory (the kernel then answers
     * EACCES, not ELOOP). */
    ASSERT_EQ(0, chmod((root + "/mnt/usb1").c_str(), 01777));
    ASSERT_EQ(0, lchown((root + "/mnt/usb1/.test-readonly").c_str(), 65534, 65534));
    mkdirs("/mnt/sd0");
    ASSERT_EQ(0, mkfifo((root + "/mnt/sd0/.test-readonly").c_str(), 0666));
    put("/proc/mounts", "/dev/sdb1 /mnt/usb0 vfat rw 0 0\n/dev/sdc1 /mnt/usb1 vfat rw 0 0\n"
                        "/dev/mmcblk1p1 /mnt/sd0 vfat rw 0 0\n");
    res_part_table[4].ro_state = 2;
    res_part_table[5].ro_state = 0;
    res_part_table[6].ro_state = 1;
    ro_pass(100);
    ro_pass(200);
    ro_pass(300);
    EXPECT_NE(0, access((root + "/victim/created-by-root").c_str(), F_OK));
    EXPECT_EQ("keep me\n", read("/victim/existing"));
    struct stat st;
    ASSERT_EQ(0, stat((root + "/victim/existing").c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
    /* Could not probe: the states are left as they were. */
    EXPECT_EQ(2u, res_part_table[4].ro_state);
    EXPECT_EQ(0u, res_part_table[5].ro_state);
    EXPECT_EQ(1u, res_part_table[6].ro_state);
    EXPECT_EQ(1u, count("probe file /mnt/usb0/.test-readonly is a symbolic link or not a regular file, not probed."));
    EXPECT_EQ(1u, count("probe file /mnt/usb1/.test-readonly is a symbolic link or not a regular file, not probed."));
    EXPECT_EQ(1u, count("probe file /mnt/sd0/.test-readonly is a symbolic link or not a regular file, not probed."));
    /* Once the link is gone the probe works again, and a new link is
     * reported again. */
    ASSERT_EQ(0, unlink((root + "/mnt/usb0/.test-readonly").c_str()));
    ro_pass(400);
    EXPECT_EQ(1u, res_part_table[4].ro_state);
    ASSERT_EQ(0, lstat((root + "/mnt/usb0/.test-readonly").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    ASSERT_EQ(0, unlink((root + "/mnt/usb0/.test-readonly").c_str()));
    ASSERT_EQ(0, symlink((root + "/victim/created-by-root").c_str(), (root + "/mnt/usb0/.test-readonly").c_str()));
    ro_pass(500);
    EXPECT_EQ(2u, count("probe file /mnt/usb0/.test-readonly is a symbolic link or not a regular file, not probed."));
    EXPECT_EQ(1u, res_part_table[4].ro_state);
}

TEST_F(HostileHost, HugePowerOnTimeSaturatesTheMonthsLeft)
{
    std::string hex(1024, '0');
    hex.replace(536, 2, "01"); /* wear 5 %: 19 x months */
    put("/sys/kernel/debug/mmc0/mmc0:0001/ext_csd", hex + "\n");
    put("/data/.uptime", "18446744073709551615\n");
    ASSERT_EQ(0, res_mon_emmc_disk_timer_func(&res_mon_disk_thread));
    EXPECT_EQ(INT32_MAX, res_disk_info[0].disk_used_time);
    EXPECT_EQ(INT32_MAX, res_disk_info[0].left_life);
    EXPECT_EQ(0, res_disk_info[0].flag);
    res_misc_del_timer(&res_mon_disk_thread);
    put("/data/.uptime", "292961981952000\n"); /* 113025456 months: 19 x that overflows */
    ASSERT_EQ(0, res_mon_emmc_disk_timer_func(&res_mon_disk_thread));
    EXPECT_EQ(113025456, res_disk_info[0].disk_used_time);
    EXPECT_EQ(INT32_MAX, res_disk_info[0].left_life);
}

TEST_F(HostileHost, EmmcDumpLinkPlantedInTheRunDirectoryIsReplaced)
{
    std::string hex(1024, '0');
    hex.replace(536, 2, "02");
    put("/sys/kernel/debug/mmc0/mmc0:0001/ext_csd", hex + "\n");
    mkdirs("/victim");
    put("/victim/file", "precious\n");
    ASSERT_EQ(0, symlink((root + "/victim/file").c_str(), (root + "/run/.emmc_csd").c_str()));
    EXPECT_EQ(15, res_get_emmc_abrasion());
    EXPECT_EQ("precious\n", read("/victim/file"));
    struct stat st;
    ASSERT_EQ(0, lstat((root + "/run/.emmc_csd").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_TRUE(logged("cat " + root + "/sys/kernel/debug/mmc0/mmc0\\:0001/ext_csd > " + root + "/run/.emmc_csd"));
}

/* Debug-level files: only plain files of root (or of the daemon's user)
 * that nobody else can write are read. */
class PlantedLevelFile : public HostileHost {
  protected:
    void level_file(const std::string &text, mode_t mode, uid_t owner)
    {
        put("/tmp/qn-stovig/debug_level", text);
        ASSERT_EQ(0, chmod((root + "/tmp/qn-stovig/debug_level").c_str(), mode));
        ASSERT_EQ(0, chown((root + "/tmp/qn-stovig/debug_level").c_str(), owner, 0));
    }
    uint32_t level_after_init()
    {
        res_dbg_level = 1; /* refusals are errors: shown from level 1 */
        EXPECT_EQ(0, res_debug_level_init());
        uint32_t got = res_dbg_level;
        res_dbg_level = 5;
        return got;
    }
};

TEST_F(PlantedLevelFile, RootFileNotWritableByOthersIsRead)
{
    level_file("4\n", 0644, 0);
    EXPECT_EQ(4u, level_after_init());
}

TEST_F(PlantedLevelFile, WorldOrGroupWritableFileIsIgnored)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    level_file("4\n", 0666, 0);
    EXPECT_EQ(0u, level_after_init());
    EXPECT_TRUE(logged("ignore debug level file /tmp/qn-stovig/debug_level: writable by group or others."));
    level_file("4\n", 0664, 0);
    EXPECT_EQ(0u, level_after_init());
}

TEST_F(PlantedLevelFile, FileOfAnotherUserIsIgnoredAndTheSecondFileRead)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    level_file("5\n", 0644, 65534);
    put("/data/stovig_debug_level", "2\n");
    EXPECT_EQ(2u, level_after_init());
    EXPECT_TRUE(logged("ignore debug level file /tmp/qn-stovig/debug_level: not owned by root."));
}

TEST_F(PlantedLevelFile, LinkAndFifoAreIgnored)
{
    put("/elsewhere", "5\n");
    mkdirs("/tmp/qn-stovig");
    ASSERT_EQ(0, symlink((root + "/elsewhere").c_str(), (root + "/tmp/qn-stovig/debug_level").c_str()));
    EXPECT_EQ(0u, level_after_init());
    EXPECT_TRUE(logged("ignore debug level file /tmp/qn-stovig/debug_level: it is a symbolic link."));
    ASSERT_EQ(0, unlink((root + "/tmp/qn-stovig/debug_level").c_str()));
    ASSERT_EQ(0, mkfifo((root + "/tmp/qn-stovig/debug_level").c_str(), 0600));
    EXPECT_EQ(0u, level_after_init()); /* and does not hang */
    EXPECT_TRUE(logged("ignore debug level file /tmp/qn-stovig/debug_level: not a regular file."));
}

/* The run directory at start-up. */
class RunDir : public HostileHost {
  protected:
    std::string setup(const std::string &rel, std::string *why)
    {
        std::string dir = root + rel + "/stovig/";
        int fd = res_run_dir_setup(dir.c_str(), why);
        if (fd >= 0)
            close(fd);
        return fd >= 0 ? "ok" : "refused";
    }
    std::string why;
};

TEST_F(RunDir, MissingDirectoryAndParentsAreCreatedPrivate)
{
    umask(0);
    EXPECT_EQ("ok", setup("/a/b", &why)) << why;
    struct stat st;
    ASSERT_EQ(0, lstat((root + "/a/b/stovig").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0700u, st.st_mode & 07777);
    EXPECT_EQ(geteuid(), st.st_uid);
    ASSERT_EQ(0, lstat((root + "/a/b").c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    /* Present and fine: taken as it is. */
    EXPECT_EQ("ok", setup("/a/b", &why)) << why;
}

TEST_F(RunDir, ExistingPrivateOrReadableDirectoryIsAccepted)
{
    mkdirs("/t/stovig");
    ASSERT_EQ(0, chmod((root + "/t/stovig").c_str(), 0755));
    EXPECT_EQ("ok", setup("/t", &why)) << why;
}

TEST_F(RunDir, DirectoryOfAnotherUserIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give directories away";
    mkdirs("/t/stovig");
    ASSERT_EQ(0, chown((root + "/t/stovig").c_str(), 65534, 65534));
    EXPECT_EQ("refused", setup("/t", &why));
    EXPECT_EQ("run directory " + root + "/t/stovig/ is owned by uid 65534, not by uid 0", why);
}

TEST_F(RunDir, WritableByOthersIsRefused)
{
    mkdirs("/t/stovig");
    ASSERT_EQ(0, chmod((root + "/t/stovig").c_str(), 0777));
    EXPECT_EQ("refused", setup("/t", &why));
    EXPECT_EQ("run directory " + root + "/t/stovig/ is writable by group or others (mode 0777)", why);
    ASSERT_EQ(0, chmod((root + "/t/stovig").c_str(), 0770));
    EXPECT_EQ("refused", setup("/t", &why));
    ASSERT_EQ(0, chmod((root + "/t/stovig").c_str(), 01777));
    EXPECT_EQ("refused", setup("/t", &why));
}

TEST_F(RunDir, LinkOrFileIsRefused)
{
    mkdirs("/t");
    mkdirs("/real");
    ASSERT_EQ(0, symlink((root + "/real").c_str(), (root + "/t/stovig").c_str()));
    EXPECT_EQ("refused", setup("/t", &why));
    EXPECT_EQ("run directory " + root + "/t/stovig/ is a symbolic link", why);
    put("/u/stovig", "x");
    EXPECT_EQ("refused", setup("/u", &why));
    EXPECT_EQ("run directory " + root + "/u/stovig/ is not a directory", why);
}

TEST_F(RunDir, ParentThatOthersMayRenameItOutOfIsRefused)
{
    mkdirs("/open");
    ASSERT_EQ(0, chmod((root + "/open").c_str(), 0777));
    EXPECT_EQ("refused", setup("/open", &why));
    EXPECT_EQ("run directory " + root + "/open/stovig/ is not safe: parent " + root +
                  "/open is writable by others (mode 0777)",
              why);
    /* Sticky, as /tmp is: fine. */
    ASSERT_EQ(0, chmod((root + "/open").c_str(), 01777));
    EXPECT_EQ("ok", setup("/open", &why)) << why;
}

TEST_F(RunDir, ParentOfAnotherUserIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give directories away";
    mkdirs("/theirs");
    ASSERT_EQ(0, chown((root + "/theirs").c_str(), 65534, 65534));
    EXPECT_EQ("refused", setup("/theirs", &why));
    EXPECT_EQ("run directory " + root + "/theirs/stovig/ is not safe: parent " + root +
                  "/theirs is owned by uid 65534",
              why);
    EXPECT_NE(0, access((root + "/theirs/stovig").c_str(), F_OK)); /* nothing made in it */
    /* Through a link of theirs to a directory of ours. */
    mkdirs("/ours");
    ASSERT_EQ(0, symlink((root + "/ours").c_str(), (root + "/via").c_str()));
    ASSERT_EQ(0, lchown((root + "/via").c_str(), 65534, 65534));
    EXPECT_EQ("refused", setup("/via", &why));
    EXPECT_EQ("run directory " + root + "/via/stovig/ is not safe: parent " + root +
                  "/via is a symbolic link owned by uid 65534",
              why);
}

TEST_F(RunDir, FreshFileReplacesWhateverHadTheName)
{
    umask(0);
    mkdirs("/d");
    put("/victim", "precious\n");
    ASSERT_EQ(0, symlink((root + "/victim").c_str(), (root + "/d/work").c_str()));
    int dir_fd = open((root + "/d").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir_fd, 0);
    int fd = res_file_create_fresh(dir_fd, "work", 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(3, write(fd, "new", 3));
    close(fd);
    EXPECT_EQ("precious\n", read("/victim"));
    EXPECT_EQ("new", read("/d/work"));
    struct stat st;
    ASSERT_EQ(0, lstat((root + "/d/work").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    /* A directory under the name cannot be replaced: refused, not followed. */
    mkdirs("/d/sub");
    EXPECT_EQ(-1, res_file_create_fresh(dir_fd, "sub", 0600));
    EXPECT_EQ(-1, res_file_create_fresh(dir_fd, "../victim", 0600));
    close(dir_fd);
    EXPECT_EQ("precious\n", read("/victim"));
}

/* Commands run from an argument vector keep the shell helper's results. */
TEST_F(HostileHost, ArgvCommandsKeepTheShellHelpersResults)
{
    const char *ok[] = {"true", nullptr};
    EXPECT_EQ(0, res_misc_exec_argv(ok, -1, -1, "true"));
    const char *three[] = {"sh", "-c", "exit 3", nullptr};
    EXPECT_EQ(-3, res_misc_exec_argv(three, -1, -1, "sh -c 'exit 3'"));
    EXPECT_TRUE(logged("system sh -c 'exit 3' failed, exit status: 3"));
    const char *missing[] = {"/no/such/command-stovig", nullptr};
    EXPECT_EQ(-127, res_misc_exec_argv(missing, -1, -1, "/no/such/command-stovig"));
    EXPECT_TRUE(logged("system /no/such/command-stovig failed, exit status: 127"));
    const char *killed[] = {"sh", "-c", "kill -9 $$", nullptr};
    EXPECT_EQ(-1, res_misc_exec_argv(killed, -1, -1, "killed"));
    put("/noexec", "#!/bin/sh\n");
    std::string noexec = root + "/noexec";
    const char *denied[] = {noexec.c_str(), nullptr};
    EXPECT_EQ(-126, res_misc_exec_argv(denied, -1, -1, "noexec"));
    /* Arguments reach the command as they are: no shell reads them. */
    int fd = open((root + "/out").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    const char *echo[] = {"printf", "%s|%s", "$(touch PWNED)", "a b;c", nullptr};
    EXPECT_EQ(0, res_misc_exec_argv(echo, fd, -1, "printf"));
    close(fd);
    EXPECT_EQ("$(touch PWNED)|a b;c", read("/out"));
    EXPECT_NE(0, access("PWNED", F_OK));
    /* The process that ignores SIGCHLD still gets its child's status. */
    struct sigaction ign = {}, old = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ign, &old);
    EXPECT_EQ(-3, res_misc_exec_argv(three, -1, -1, "sh -c 'exit 3'"));
    sigaction(SIGCHLD, &old, nullptr);
}

/* The daemon's descriptors without close-on-exec (the bus client's sockets)
 * never reach an external command: it sees standard input, output and error,
 * and the descriptor it lists the directory with. */
TEST_F(HostileHost, CommandsSeeOnlyTheStandardDescriptors)
{
    int leaky = open("/dev/null", O_RDONLY); /* no O_CLOEXEC, as hiredis opens its socket */
    ASSERT_GE(leaky, 0);
    int high = fcntl(leaky, F_DUPFD, 100); /* F_DUPFD, not F_DUPFD_CLOEXEC */
    ASSERT_GE(high, 100);
    auto listed = [this](const char *const argv[], bool shell) {
        int out = open((root + "/fds").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(out, 0);
        if (shell)
            EXPECT_EQ(0, res_misc_exec_sh(argv[0]));
        else
            EXPECT_EQ(0, res_misc_exec_argv(argv, out, -1, "ls /proc/self/fd"));
        close(out);
        std::set<int> fds;
        std::istringstream in(read("/fds"));
        for (std::string word; in >> word;)
            fds.insert(std::stoi(word));
        return fds;
    };
    const char *ls[] = {"ls", "-1", "/proc/self/fd", nullptr};
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), listed(ls, false));
    std::string cmd = "ls -1 /proc/self/fd >" + root + "/fds";
    const char *sh[] = {cmd.c_str(), nullptr};
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), listed(sh, true));
    /* Still open here: only the child went without them. */
    EXPECT_EQ(0, fcntl(leaky, F_GETFD));
    EXPECT_EQ(0, fcntl(high, F_GETFD));
    close(high);
    close(leaky);
}

} // namespace
