/* The Redis link itself: what the client's connections look like to the rest
 * of the process, how the client finds the server's address and how it
 * behaves when a link fails right after coming up. */
#include "test_bus_redis.h"
#include "test_loop.h"
#include "test_mom_helpers.h"

#include "qn_mom.h"
#include "qn_mom_standin.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

namespace {

/* The descriptors of this process connected to 127.0.0.1:port. */
std::vector<int> fds_connected_to(int port)
{
    std::vector<int> out;
    DIR *d = opendir("/proc/self/fd");
    if (!d)
        return out;
    int self = dirfd(d);
    while (dirent *e = readdir(d)) {
        int fd = atoi(e->d_name);
        if (e->d_name[0] == '.' || fd == self)
            continue;
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port)
            out.push_back(fd);
    }
    closedir(d);
    return out;
}

class BusLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_loop_setup();
        ASSERT_TRUE(server.start());
    }
    void TearDown() override
    {
        for (qn_mom_client_t *c : clients)
            qn_mom_client_free(c);
        test_loop_run(1);
        cfg.reset();
    }

    /* A client of `url`, asked for the monitor database. */
    qn_mom_client_t *client(const std::string &url, const std::string &more = "")
    {
        cfg = std::make_unique<config_file>("[bus]\nurl = " + url + "\n" + more);
        qn_mom_client_t *c = qn_mom_client_init("NODE", res_master);
        EXPECT_NE(c, nullptr);
        if (c) {
            clients.push_back(c);
            qn_mom_client_connect(c, QN_MOM_MONITOR_DB, nullptr, nullptr);
        }
        return c;
    }

    std::string local_url() const { return "redis://127.0.0.1:" + std::to_string(server.port); }

    test_redis server;
    std::unique_ptr<config_file> cfg;
    std::vector<qn_mom_client_t *> clients;
};

/* The daemon runs external commands: they must not inherit the client's
 * authenticated connections to the store. */
TEST_F(BusLinkTest, TheConnectionsToTheStoreAreClosedOnExec)
{
    qn_mom_client_t *c = client(local_url());
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(c); }));
    std::vector<int> fds = fds_connected_to(server.port);
    ASSERT_EQ(fds.size(), 2u); /* commands, and the reader of the change log */
    for (int fd : fds)
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "fd " << fd;
}

/* A host name is resolved on the loop (here from /etc/hosts) and both
 * connections go to the address found. */
TEST_F(BusLinkTest, AHostNameIsResolvedAndConnectedTo)
{
    qn_mom_client_t *c = client("redis://localhost:" + std::to_string(server.port));
    ASSERT_TRUE(run_until([&] { return qn_mom_client_is_up(c); }));
    EXPECT_EQ(fds_connected_to(server.port).size(), 2u);
}

/* "name:value" lines of INFO stats as a number. */
long info_stat(const test_redis &server, const std::string &name)
{
    std::string text = server.command("INFO stats");
    size_t at = text.find(name + ":");
    return at == std::string::npos ? -1 : atol(text.c_str() + at + name.size() + 1);
}

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

/* The user may run the scripts but not read the change log: every link
 * fails right after it came up. */
TEST_F(BusLinkTest, ALinkThatFailsRightAfterComingUpBacksOffAndSaysWhyOnce)
{
    ASSERT_EQ(server.command("ACL SETUSER reader on >pw ~* +@all -xread"), "OK");
    long before = info_stat(server, "total_connections_received");
    testing::internal::CaptureStderr();
    qn_mom_client_t *c = client(local_url(), "user = reader\npassword = pw\n");
    ASSERT_NE(c, nullptr);
    test_loop_run(400); /* 4 s */
    std::string err = testing::internal::GetCapturedStderr();
    long connections = info_stat(server, "total_connections_received") - before;
    EXPECT_NE(err.find("qn_mom[NODE]: link to the store lost: NOPERM this user has no permissions to run the 'xread' "
                       "command; retrying"),
              std::string::npos)
        << err;
    EXPECT_EQ(count_of(err, "link to the store lost"), 1u) << err;
    EXPECT_LE(count_of(err, "link to the store is back"), 1u) << err;
    /* Back-off from 100 ms doubling to 2 s: 6 attempts of two connections
     * in 4 s (a link that came up does not reset it). */
    EXPECT_GE(connections, 4);
    EXPECT_LE(connections, 16) << err;
}

} // namespace
