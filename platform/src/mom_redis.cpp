/* Redis transport: records are strings under their storage keys; every
 * change is published, by the same server-side script that makes it, on one
 * change channel with the old and the new value, so subscribers can tell
 * which fields changed.  Two connections on the daemon's libevent base: one
 * for commands, one listening on the change channel.  A lost link is retried
 * with back-off; the listener is re-subscribed before the client is told the
 * link is back. */
#include "mom_internal.h"
#include "qn_thread_standin.h"

#include <event2/event.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <hiredis/adapters/libevent.h>

#include <cstring>

namespace {

const char kChannel[] = "qnmom:changes";

const char kSetScript[] =
    "local old = redis.call('GET', KEYS[1])\n"
    "if not old then old = '' end\n"
    "redis.call('SET', KEYS[1], ARGV[1])\n"
    "redis.call('PUBLISH', ARGV[2], ARGV[3] .. string.len(KEYS[1]) .. ':' .. KEYS[1] .. "
    "string.len(old) .. ':' .. old .. ARGV[1])\n"
    "return 0\n";

const char kDelScript[] =
    "local old = redis.call('GET', KEYS[1])\n"
    "if not old then return 0 end\n"
    "redis.call('DEL', KEYS[1])\n"
    "redis.call('PUBLISH', ARGV[1], 'D' .. string.len(KEYS[1]) .. ':' .. KEYS[1] .. "
    "string.len(old) .. ':' .. old)\n"
    "return 1\n";

/* ARGV: key prefix, '1' for an exact key, glob pattern of the prefix. */
const char kScanScript[] =
    "local out = {}\n"
    "if ARGV[2] == '1' then\n"
    "  local v = redis.call('GET', ARGV[1])\n"
    "  if v then out[1] = ARGV[1]; out[2] = v end\n"
    "  return out\n"
    "end\n"
    "local keys = redis.call('KEYS', ARGV[3])\n"
    "table.sort(keys)\n"
    "for _, k in ipairs(keys) do\n"
    "  if redis.call('TYPE', k)['ok'] == 'string' then\n"
    "    out[#out + 1] = k; out[#out + 1] = redis.call('GET', k)\n"
    "  end\n"
    "end\n"
    "return out\n";

std::string glob_escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\')
            out += '\\';
        out += c;
    }
    return out;
}

/* "<len>:<bytes>" at pos; false when malformed. */
bool take_counted(const char *p, size_t n, size_t *pos, std::string *out)
{
    size_t len = 0;
    size_t i = *pos;
    bool digits = false;
    while (i < n && p[i] >= '0' && p[i] <= '9') {
        len = len * 10 + static_cast<size_t>(p[i] - '0');
        ++i;
        digits = true;
    }
    if (!digits || i >= n || p[i] != ':' || len > n - i - 1)
        return false;
    out->assign(p + i + 1, len);
    *pos = i + 1 + len;
    return true;
}

struct redis_tr;

struct command_ctx {
    redis_tr *tr;
    mom_scan_done done;     /* scans only */
    std::string what;
};

struct redis_tr : mom_transport {
    mom_hooks *hooks;
    event_base *base;
    std::string host;
    int port;
    std::string user, password;
    redisAsyncContext *cmd = nullptr;
    redisAsyncContext *sub = nullptr;
    bool cmd_connected = false;
    bool sub_connected = false;
    bool listening = false;
    bool is_up = false;
    bool closing = false;
    struct event *retry = nullptr;
    int backoff_ms = 100;

    redis_tr(mom_hooks *h, event_base *b, std::string hst, int p, std::string u, std::string pw)
        : hooks(h), base(b), host(std::move(hst)), port(p), user(std::move(u)), password(std::move(pw))
    {
        retry = evtimer_new(base, on_retry, this);
    }

    ~redis_tr() override
    {
        closing = true;
        if (retry)
            event_free(retry);
        drop(&cmd);
        drop(&sub);
    }

    const char *name() const override { return "redis"; }
    bool up() const override { return is_up; }
    void start() override { connect_all(); }

    static void on_retry(evutil_socket_t, short, void *arg) { static_cast<redis_tr *>(arg)->connect_all(); }

    void drop(redisAsyncContext **ac)
    {
        redisAsyncContext *c = *ac;
        *ac = nullptr;
        if (c)
            redisAsyncFree(c);
    }

    void schedule_retry()
    {
        if (closing || !retry || evtimer_pending(retry, nullptr))
            return;
        struct timeval tv = {backoff_ms / 1000, (backoff_ms % 1000) * 1000};
        evtimer_add(retry, &tv);
        backoff_ms = backoff_ms * 2 > 2000 ? 2000 : backoff_ms * 2;
    }

    /* One side failed: the other goes too, and both come back together. */
    void link_lost()
    {
        if (closing)
            return;
        bool was_up = is_up;
        is_up = false;
        listening = false;
        cmd_connected = sub_connected = false;
        drop(&cmd);
        drop(&sub);
        if (was_up)
            hooks->transport_down();
        schedule_retry();
    }

    redisAsyncContext *open_one()
    {
        redisAsyncContext *ac = redisAsyncConnect(host.c_str(), port);
        if (!ac)
            return nullptr;
        if (ac->err) {
            redisAsyncFree(ac);
            return nullptr;
        }
        ac->data = this;
        redisLibeventAttach(ac, base);
        redisAsyncSetConnectCallback(ac, on_connect);
        redisAsyncSetDisconnectCallback(ac, on_disconnect);
        if (!password.empty()) {
            const char *argv[3] = {"AUTH", user.c_str(), password.c_str()};
            size_t lens[3] = {4, user.size(), password.size()};
            int argc = 3;
            if (user.empty()) {
                argv[1] = password.c_str();
                lens[1] = password.size();
                argc = 2;
            }
            redisAsyncCommandArgv(ac, on_auth, nullptr, argc, argv, lens);
        }
        return ac;
    }

    void connect_all()
    {
        if (closing || cmd || sub)
            return;
        cmd = open_one();
        sub = cmd ? open_one() : nullptr;
        if (!cmd || !sub) {
            link_lost();
            return;
        }
        const char *argv[2] = {"SUBSCRIBE", kChannel};
        size_t lens[2] = {9, strlen(kChannel)};
        redisAsyncCommandArgv(sub, on_message, nullptr, 2, argv, lens);
    }

    static redis_tr *of(const redisAsyncContext *ac) { return static_cast<redis_tr *>(ac->data); }

    static void on_auth(redisAsyncContext *ac, void *r, void *)
    {
        auto *reply = static_cast<redisReply *>(r);
        if (reply && reply->type == REDIS_REPLY_ERROR && ac->data)
            mom_log(of(ac)->hooks->module_name(), "redis AUTH refused: %s", reply->str);
    }

    static void on_connect(const redisAsyncContext *ac, int status)
    {
        redis_tr *t = of(ac);
        if (status != REDIS_OK) {
            /* hiredis frees a context that failed to connect by itself. */
            if (t->cmd == ac)
                t->cmd = nullptr;
            if (t->sub == ac)
                t->sub = nullptr;
            t->link_lost();
            return;
        }
        if (t->cmd == ac)
            t->cmd_connected = true;
        if (t->sub == ac)
            t->sub_connected = true;
        t->check_up();
    }

    static void on_disconnect(const redisAsyncContext *ac, int)
    {
        redis_tr *t = of(ac);
        if (t->closing)
            return;
        bool ours = false;
        if (t->cmd == ac) {
            t->cmd = nullptr;
            ours = true;
        }
        if (t->sub == ac) {
            t->sub = nullptr;
            ours = true;
        }
        if (ours)
            t->link_lost();
    }

    void check_up()
    {
        if (is_up || !cmd_connected || !sub_connected || !listening)
            return;
        is_up = true;
        backoff_ms = 100;
        hooks->transport_up();
    }

    static void on_message(redisAsyncContext *ac, void *r, void *)
    {
        auto *reply = static_cast<redisReply *>(r);
        if (!reply || !ac->data)
            return;
        redis_tr *t = of(ac);
        if (t->sub != ac)
            return;
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements < 3)
            return;
        const redisReply *kind = reply->element[0];
        if (kind->type != REDIS_REPLY_STRING)
            return;
        if (strcmp(kind->str, "subscribe") == 0) {
            t->listening = true;
            t->check_up();
            return;
        }
        if (strcmp(kind->str, "message") != 0)
            return;
        const redisReply *payload = reply->element[2];
        if (payload->type != REDIS_REPLY_STRING || payload->len < 1)
            return;
        const char *p = payload->str;
        size_t n = static_cast<size_t>(payload->len);
        char op = p[0];
        size_t pos = 1;
        std::string key, old_bytes;
        if ((op != 'S' && op != 'H' && op != 'D') || !take_counted(p, n, &pos, &key) ||
            !take_counted(p, n, &pos, &old_bytes)) {
            mom_log(t->hooks->module_name(), "malformed change notice on %s, ignored", kChannel);
            return;
        }
        std::string new_bytes(p + pos, n - pos);
        t->hooks->transport_change(op, key, old_bytes, new_bytes);
    }

    static void on_command(redisAsyncContext *, void *r, void *priv)
    {
        auto *c = static_cast<command_ctx *>(priv);
        auto *reply = static_cast<redisReply *>(r);
        if (c->done) {
            std::vector<mom_entry> entries;
            int error = 0;
            if (!reply || reply->type != REDIS_REPLY_ARRAY) {
                error = QN_MOM_ERR_NOTCONN;
                if (reply && reply->type == REDIS_REPLY_ERROR)
                    mom_log(c->tr->hooks->module_name(), "%s failed: %s", c->what.c_str(), reply->str);
            } else {
                for (size_t i = 0; i + 1 < reply->elements; i += 2) {
                    const redisReply *k = reply->element[i];
                    const redisReply *v = reply->element[i + 1];
                    if (k->type == REDIS_REPLY_STRING && v->type == REDIS_REPLY_STRING)
                        entries.push_back({std::string(k->str, k->len), std::string(v->str, v->len)});
                }
            }
            c->done(error, std::move(entries));
        } else if (reply && reply->type == REDIS_REPLY_ERROR) {
            mom_log(c->tr->hooks->module_name(), "%s failed: %s", c->what.c_str(), reply->str);
        }
        delete c;
    }

    int send(const std::vector<std::string> &args, command_ctx *c)
    {
        if (!is_up || !cmd) {
            delete c;
            return QN_MOM_ERR_NOTCONN;
        }
        std::vector<const char *> argv;
        std::vector<size_t> lens;
        for (const std::string &a : args) {
            argv.push_back(a.data());
            lens.push_back(a.size());
        }
        if (redisAsyncCommandArgv(cmd, on_command, c, static_cast<int>(argv.size()), argv.data(), lens.data()) !=
            REDIS_OK) {
            delete c;
            return QN_MOM_ERR_NOTCONN;
        }
        return 0;
    }

    int put(char op, const std::string &key, const std::string &bytes) override
    {
        return send({"EVAL", kSetScript, "1", key, bytes, kChannel, std::string(1, op)},
                    new command_ctx{this, nullptr, "store " + key});
    }
    int del(const std::string &key) override
    {
        return send({"EVAL", kDelScript, "1", key, kChannel}, new command_ctx{this, nullptr, "delete " + key});
    }
    int scan(const std::string &prefix, bool exact, mom_scan_done done) override
    {
        return send({"EVAL", kScanScript, "0", prefix, exact ? "1" : "0", glob_escape(prefix) + "*"},
                    new command_ctx{this, std::move(done), "scan " + prefix});
    }
};

} // namespace

std::unique_ptr<mom_transport> mom_redis_create(mom_hooks *hooks, qn_thread_master *master, const std::string &host,
                                                int port, const std::string &user, const std::string &password)
{
    event_base *base = qn_thread_master_event_base(master);
    if (!base)
        return nullptr;
    return std::make_unique<redis_tr>(hooks, base, host, port, user, password);
}
