/* Test helper: a private redis-server on a free loopback port, in its own
 * temporary directory, started and stopped by the test. */
#ifndef TEST_BUS_REDIS_H
#define TEST_BUS_REDIS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <hiredis/hiredis.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

struct test_redis {
    pid_t pid = -1;
    int port = 0;
    std::string dir;
    std::string password;   /* non-empty: the server requires it */

    static int free_port()
    {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
        close(s);
        return ntohs(a.sin_port);
    }

    bool start()
    {
        if (dir.empty()) {
            char tmpl[] = "/tmp/stovig-redis-XXXXXX";
            dir = mkdtemp(tmpl);
        }
        if (port == 0)
            port = free_port();
        pid = fork();
        if (pid == 0) {
            std::string p = std::to_string(port);
            FILE *null = freopen("/dev/null", "w", stdout);
            (void)null;
            if (password.empty())
                execlp("redis-server", "redis-server", "--bind", "127.0.0.1", "--port", p.c_str(), "--save", "",
                       "--appendonly", "no", "--dir", dir.c_str(), "--daemonize", "no", (char *)nullptr);
            else
                execlp("redis-server", "redis-server", "--bind", "127.0.0.1", "--port", p.c_str(), "--save", "",
                       "--appendonly", "no", "--dir", dir.c_str(), "--daemonize", "no", "--requirepass",
                       password.c_str(), (char *)nullptr);
            _exit(127);
        }
        for (int i = 0; i < 200; ++i) {
            if (ping())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    bool ping() const
    {
        redisContext *c = redisConnect("127.0.0.1", port);
        bool ok = false;
        if (c && !c->err) {
            auto *r = static_cast<redisReply *>(redisCommand(c, "PING"));
            /* A server that wants a password answers NOAUTH: it is up. */
            ok = r && (r->type == REDIS_REPLY_STATUS || r->type == REDIS_REPLY_ERROR);
            if (r)
                freeReplyObject(r);
        }
        if (c)
            redisFree(c);
        return ok;
    }

    /* Runs one command; the reply's string or integer as text. */
    std::string command(const char *fmt, const char *a = nullptr, size_t alen = 0, const char *b = nullptr,
                        size_t blen = 0) const
    {
        redisContext *c = redisConnect("127.0.0.1", port);
        std::string out;
        if (c && !c->err) {
            redisReply *r;
            if (b)
                r = static_cast<redisReply *>(redisCommand(c, fmt, a, alen, b, blen));
            else if (a)
                r = static_cast<redisReply *>(redisCommand(c, fmt, a, alen));
            else
                r = static_cast<redisReply *>(redisCommand(c, fmt));
            if (r) {
                if (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS)
                    out.assign(r->str, r->len);
                else if (r->type == REDIS_REPLY_INTEGER)
                    out = std::to_string(r->integer);
                freeReplyObject(r);
            }
        }
        if (c)
            redisFree(c);
        return out;
    }

    void stop()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            int st;
            waitpid(pid, &st, 0);
            pid = -1;
        }
    }

    ~test_redis()
    {
        stop();
        if (!dir.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    }
};

#endif
