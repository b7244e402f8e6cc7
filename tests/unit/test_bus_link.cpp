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

} // namespace
