/* The command-line service's files: the socket and the startup configuration
 * are used only where no other user could have put something in their place,
 * and the startup configuration is replaced whole or not at all. */
#include "qn_cli_files.h"
#include "slurp.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

class CliFiles : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/stovig-clifiles-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        startup = dir + "/startup-config";
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }

    static void put(const std::string &path, const std::string &text, mode_t mode = 0600)
    {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }
    static bool exists(const std::string &path)
    {
        struct stat st;
        return lstat(path.c_str(), &st) == 0;
    }
    static mode_t mode_of(const std::string &path)
    {
        struct stat st;
        EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
        return st.st_mode;
    }

    std::string dir;
    std::string startup;
};

TEST_F(CliFiles, PrivateDirectoryIsOwnedByUsAndWritableByNobodyElse)
{
    std::string why;
    int fd = cli_open_private_dir(dir, why);
    EXPECT_GE(fd, 0) << why;
    close(fd);
    chmod(dir.c_str(), 0770);
    EXPECT_EQ(-1, cli_open_private_dir(dir, why));
    EXPECT_NE(std::string::npos, why.find("writable by its group or by others"));
    chmod(dir.c_str(), 0702);
    EXPECT_EQ(-1, cli_open_private_dir(dir, why));
    chmod(dir.c_str(), 0700);
    ASSERT_EQ(0, symlink(dir.c_str(), (dir + "/link").c_str()));
    EXPECT_EQ(-1, cli_open_private_dir(dir + "/link", why));
    EXPECT_NE(std::string::npos, why.find("not a directory"));
    if (geteuid() == 0) {
        ASSERT_EQ(0, mkdir((dir + "/theirs").c_str(), 0700));
        ASSERT_EQ(0, chown((dir + "/theirs").c_str(), 12345, 12345));
        EXPECT_EQ(-1, cli_open_private_dir(dir + "/theirs", why));
        EXPECT_NE(std::string::npos, why.find("owned by uid 12345"));
    }
}

TEST_F(CliFiles, SocketIsOwnerOnlyAndReplacesOnlyAStaleSocketOfOurs)
{
    std::string path = dir + "/cli.sock", why;
    int fd = cli_socket_create(path, why);
    ASSERT_GE(fd, 0) << why;
    EXPECT_TRUE(S_ISSOCK(mode_of(path)));
    EXPECT_EQ(0600u, mode_of(path) & 07777);
    close(fd);
    /* The socket of an earlier run is replaced. */
    fd = cli_socket_create(path, why);
    ASSERT_GE(fd, 0) << why;
    close(fd);

    /* Anything else in its place stays as it is. */
    unlink(path.c_str());
    put(path, "keep me");
    EXPECT_EQ(-1, cli_socket_create(path, why));
    EXPECT_NE(std::string::npos, why.find("not a socket of ours"));
    EXPECT_EQ("keep me", slurp(path));
    unlink(path.c_str());
    put(dir + "/target", "target");
    ASSERT_EQ(0, symlink((dir + "/target").c_str(), path.c_str()));
    EXPECT_EQ(-1, cli_socket_create(path, why));
    EXPECT_EQ("target", slurp(dir + "/target"));
    EXPECT_EQ(0600u, mode_of(dir + "/target") & 07777);
    unlink(path.c_str());

    chmod(dir.c_str(), 0777);
    EXPECT_EQ(-1, cli_socket_create(path, why));
    EXPECT_FALSE(exists(path));
}

TEST_F(CliFiles, StartupConfigurationIsReadOnlyWhenItIsOurs)
{
    std::vector<std::string> lines;
    std::string why;
    EXPECT_TRUE(cli_startup_read(startup, lines, why)) << why; /* none yet */
    EXPECT_TRUE(lines.empty());
    put(startup, "! saved\nstorage io set interval 20\n\nno storage ro set");
    ASSERT_TRUE(cli_startup_read(startup, lines, why)) << why;
    EXPECT_EQ((std::vector<std::string>{"! saved", "storage io set interval 20", "", "no storage ro set"}), lines);

    chmod(startup.c_str(), 0620);
    EXPECT_FALSE(cli_startup_read(startup, lines, why));
    EXPECT_NE(std::string::npos, why.find("writable by its group or by others"));
    chmod(startup.c_str(), 0602);
    EXPECT_FALSE(cli_startup_read(startup, lines, why));
    chmod(startup.c_str(), 0644);
    EXPECT_TRUE(cli_startup_read(startup, lines, why)) << why;

    unlink(startup.c_str());
    put(dir + "/planted", "no storage io set\n");
    ASSERT_EQ(0, symlink((dir + "/planted").c_str(), startup.c_str()));
    EXPECT_FALSE(cli_startup_read(startup, lines, why));
    EXPECT_NE(std::string::npos, why.find("symbolic link"));
    unlink(startup.c_str());

    /* A FIFO would hang a plain open; it is refused at once. */
    ASSERT_EQ(0, mkfifo(startup.c_str(), 0600));
    EXPECT_FALSE(cli_startup_read(startup, lines, why));
    EXPECT_NE(std::string::npos, why.find("not a regular file"));
    unlink(startup.c_str());

    if (geteuid() == 0) {
        put(startup, "no storage io set\n");
        ASSERT_EQ(0, chown(startup.c_str(), 12345, 12345));
        EXPECT_FALSE(cli_startup_read(startup, lines, why));
        EXPECT_NE(std::string::npos, why.find("owned by uid 12345"));
    }
}

TEST_F(CliFiles, StartupConfigurationInADirectoryOthersCanWriteIsNotRead)
{
    put(startup, "no storage io set\n");
    chmod(dir.c_str(), 0757);
    std::vector<std::string> lines;
    std::string why;
    EXPECT_FALSE(cli_startup_read(startup, lines, why));
    EXPECT_TRUE(lines.empty());
    EXPECT_NE(std::string::npos, why.find("writable by its group or by others"));
}

TEST_F(CliFiles, WriteReplacesTheFileAndKeepsThePreviousOne)
{
    std::string why;
    ASSERT_TRUE(cli_startup_write(startup, "storage io set interval 20\n", why)) << why;
    EXPECT_EQ("storage io set interval 20\n", slurp(startup));
    EXPECT_EQ(0600u, mode_of(startup) & 07777);
    EXPECT_FALSE(exists(startup + ".sav")); /* nothing before it */
    ASSERT_TRUE(cli_startup_write(startup, "no storage ro set\n", why)) << why;
    EXPECT_EQ("no storage ro set\n", slurp(startup));
    EXPECT_EQ("storage io set interval 20\n", slurp(startup + ".sav"));
    ASSERT_TRUE(cli_startup_write(startup, "", why)) << why;
    EXPECT_EQ("", slurp(startup));
    EXPECT_EQ("no storage ro set\n", slurp(startup + ".sav"));
    EXPECT_FALSE(exists(startup + ".new"));
    EXPECT_FALSE(exists(startup + ".sav.new"));
}

TEST_F(CliFiles, LeftoverTemporaryFileOfOursIsReplaced)
{
    put(startup + ".new", "half written");
    std::string why;
    ASSERT_TRUE(cli_startup_write(startup, "no storage io set\n", why)) << why;
    EXPECT_EQ("no storage io set\n", slurp(startup));
    EXPECT_FALSE(exists(startup + ".new"));
}

TEST_F(CliFiles, WriteNeverGoesThroughALink)
{
    put(startup, "storage io set interval 20\n");
    put(dir + "/victim", "victim\n", 0644);
    ASSERT_EQ(0, symlink((dir + "/victim").c_str(), (startup + ".new").c_str()));
    std::string why;
    EXPECT_FALSE(cli_startup_write(startup, "no storage io set\n", why));
    EXPECT_EQ("victim\n", slurp(dir + "/victim"));
    EXPECT_EQ("storage io set interval 20\n", slurp(startup));
    unlink((startup + ".new").c_str());

    /* A link as the current file is not kept as the saved one, nor followed. */
    unlink(startup.c_str());
    ASSERT_EQ(0, symlink((dir + "/victim").c_str(), startup.c_str()));
    EXPECT_FALSE(cli_startup_write(startup, "no storage io set\n", why));
    EXPECT_EQ("victim\n", slurp(dir + "/victim"));
    EXPECT_FALSE(exists(startup + ".new"));
}

TEST_F(CliFiles, WriteIsRefusedInADirectoryOthersCanWrite)
{
    put(startup, "storage io set interval 20\n");
    chmod(dir.c_str(), 0777);
    std::string why;
    EXPECT_FALSE(cli_startup_write(startup, "no storage io set\n", why));
    EXPECT_EQ("storage io set interval 20\n", slurp(startup));
    EXPECT_NE(std::string::npos, why.find("writable by its group or by others"));
}

} // namespace
