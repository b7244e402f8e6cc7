/* Redis transport.  Records are strings under their storage keys.  Every
 * change is made by a server-side script that also appends it, with the old
 * and the new value, to one change log, the stream "qnmom:stream" (trimmed to
 * about kLogLength entries and kLogBytes bytes).  Each client reads that log from the position it
 * last saw, so a client whose link dropped reads, once it is back, every
 * change it missed, in order.  The key "qnmom:epoch" names the store's
 * lifetime: when it differs from the one a client knew, the store was emptied
 * (restarted without persistence) and the client reads the new log from its
 * start.  When the log was trimmed past the client's position the client gets
 * the current records instead (a snapshot).  A store whose server restarted
 * (a new run id) in the same lifetime, or whose log ends before the client's
 * position, came back from an older copy of itself: the client is told, with
 * its own records as stored, and writes back the newer values it holds.
 *
 * Two connections on the daemon's libevent base: one for commands, one that
 * blocks reading the log.  A host name is resolved on the same base (evdns:
 * /etc/hosts, then the servers of /etc/resolv.conf), never by a blocking
 * call, and both connections go to the address found (IPv4 first).  A link that fails, or does not answer in time, is
 * dropped whole and retried with back-off.  Values above QN_MOM_MAX_VALUE are
 * refused by the write script and never read back by a scan, so no reply and
 * no log entry carries one. */
#include "mom_internal.h"
#include "qn_thread_standin.h"

#include <event2/dns.h>
#include <event2/event.h>
#include <event2/util.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <hiredis/adapters/libevent.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <random>

namespace {

const char kLog[] = "qnmom:stream";
const char kEpoch[] = "qnmom:epoch";
/* The change log keeps at least this many changes: about 20 minutes of a
 * chassis of 20 nodes at the default sampling intervals. */
const char kLogLength[] = "4096";
const char kReadCount[] = "256";
/* A blocked read of the log returns at least this often (ms). */
const char kReadBlockMs[] = "2000";

using steady = std::chrono::steady_clock;
const auto kConnectTimeout = std::chrono::seconds(3);
const auto kReadTimeout = std::chrono::seconds(6);
const auto kCommandTimeout = std::chrono::seconds(10);
const auto kStillUnreachableEvery = std::chrono::seconds(60);
/* A link that stood this long was a working one: the next attempt after it
 * goes fast again.  One that failed sooner keeps the back-off growing. */
const auto kStableLink = std::chrono::seconds(10);

/* The log is bounded in bytes too: each entry holds a new and an old value,
 * so 4096 entries of 64 KiB values would take 512 MiB.  After an entry of more
 * than 4 KiB (4096 smaller ones stay under about 32 MiB) the script asks the
 * server how much memory the log takes (an estimate from sampled nodes) and,
 * above kLogBytes, trims the oldest entries in proportion. */
const char kLogBytes[] = "33554432";
const char kTrimHelper[] =
    "local function trim_bytes(log, payload, bound)\n"
    "  if payload <= 4096 then return end\n"
    "  local used = redis.pcall('MEMORY', 'USAGE', log, 'SAMPLES', '16')\n"
    "  if type(used) ~= 'number' or used <= bound then return end\n"
    "  local n = redis.call('XLEN', log)\n"
    "  local keep = math.floor(n * bound / used * 0.9)\n"
    "  if keep >= n then keep = n - 1 end\n"
    "  if keep < 1 then keep = 1 end\n"
    "  redis.call('XTRIM', log, 'MAXLEN', keep)\n"
    "end\n";

/* KEYS: record key, log.  ARGV: value, op, writer, size limit, log length,
 * '1' to write only when the key is missing, log bytes. */
const char kSetBody[] =
    "if string.len(ARGV[1]) > tonumber(ARGV[4]) then\n"
    "  return redis.error_reply('value of ' .. string.len(ARGV[1]) .. ' bytes is over the limit')\n"
    "end\n"
    "local old = redis.call('GET', KEYS[1])\n"
    "if ARGV[6] == '1' and old then return 0 end\n"
    "if not old or string.len(old) > tonumber(ARGV[4]) then old = '' end\n"
    "redis.call('SET', KEYS[1], ARGV[1])\n"
    "redis.call('XADD', KEYS[2], 'MAXLEN', '~', ARGV[5], '*', 'o', ARGV[2], 'k', KEYS[1], 'v', ARGV[1], "
    "'p', old, 'w', ARGV[3])\n"
    "trim_bytes(KEYS[2], string.len(ARGV[1]) + string.len(old), tonumber(ARGV[7]))\n"
    "return 1\n";

/* KEYS: record key, log.  ARGV: writer, size limit, log length, log bytes. */
const char kDelBody[] =
    "local old = redis.call('GET', KEYS[1])\n"
    "if not old then return 0 end\n"
    "redis.call('DEL', KEYS[1])\n"
    "if string.len(old) > tonumber(ARGV[2]) then old = '' end\n"
    "redis.call('XADD', KEYS[2], 'MAXLEN', '~', ARGV[3], '*', 'o', 'D', 'k', KEYS[1], 'v', '', 'p', old, "
    "'w', ARGV[1])\n"
    "trim_bytes(KEYS[2], string.len(old), tonumber(ARGV[4]))\n"
    "return 1\n";

/* Shared by the scan and sync scripts: the log's last position, and the
 * records that one scan asks for (a prefix, or one exact key) appended to
 * out as key, value (or the value's size when it is over the limit); a key
 * already in `got` (when given) is not appended twice. */
const char kReadHelpers[] =
    "local function last_pos(log)\n"
    "  local l = redis.call('XREVRANGE', log, '+', '-', 'COUNT', 1)\n"
    "  if #l > 0 then return l[1][1] end\n"
    "  return '0-0'\n"
    "end\n"
    "local function add(out, k, limit, got)\n"
    "  if got then\n"
    "    if got[k] then return end\n"
    "    got[k] = true\n"
    "  end\n"
    "  if redis.call('TYPE', k)['ok'] ~= 'string' then return end\n"
    "  local n = redis.call('STRLEN', k)\n"
    "  out[#out + 1] = k\n"
    "  if n > limit then out[#out + 1] = n else out[#out + 1] = redis.call('GET', k) end\n"
    "end\n"
    "local function read(out, exact, prefix, glob, limit, got)\n"
    "  if exact then\n"
    "    if redis.call('EXISTS', prefix) == 1 then add(out, prefix, limit, got) end\n"
    "    return\n"
    "  end\n"
    "  local keys = redis.call('KEYS', glob)\n"
    "  table.sort(keys)\n"
    "  for _, k in ipairs(keys) do add(out, k, limit, got) end\n"
    "end\n";

/* KEYS: log.  ARGV: prefix, '1' for an exact key, glob of the prefix, size
 * limit.  Returns the log position, then key, value pairs. */
const char kScanBody[] =
    "local out = {last_pos(KEYS[1])}\n"
    "read(out, ARGV[2] == '1', ARGV[1], ARGV[3], tonumber(ARGV[4]))\n"
    "return out\n";

/* KEYS: log, epoch.  ARGV: the epoch the client knew ('' at its first link),
 * a new epoch should the store have none, the log position the client saw,
 * size limit, the server run the client last saw ('' when none), then specs
 * ("E" .. key or "P" .. glob .. NUL .. prefix for a subscribed type, "O" ..
 * key for an own record).  Returns epoch, mode, log position, server run,
 * '1' when the store rolled back, the number of own records changed after
 * the client's position and their keys, then key, value pairs.  Modes:
 * "first" (read from the position returned), "resume" (read on from the
 * client's position), "restart" (the store was emptied: read the new log
 * from its start), "snapshot" (the log lost changes the client did not see:
 * take the records returned and read on from the position).  The store
 * rolled back when, in the same lifetime, its server restarted or its log
 * ends before the client's position: it came back from an older copy, and
 * the pairs then hold the own records as stored (every spec's records in a
 * snapshot). */
const char kSyncBody[] =
    "local function pos(s)\n"
    "  local a, b = string.match(s, '^(%d+)-(%d+)$')\n"
    "  return tonumber(a) or 0, tonumber(b) or 0\n"
    "end\n"
    "local function before(a, b)\n"
    "  local am, as = pos(a)\n"
    "  local bm, bs = pos(b)\n"
    "  return am < bm or (am == bm and as < bs)\n"
    "end\n"
    "local function lost_after(log, seen)\n"
    "  if redis.call('EXISTS', log) == 0 then return false end\n"
    "  local info = redis.call('XINFO', 'STREAM', log)\n"
    "  local length, added, generated\n"
    "  for i = 1, #info, 2 do\n"
    "    if info[i] == 'length' then length = info[i + 1] end\n"
    "    if info[i] == 'entries-added' then added = info[i + 1] end\n"
    "    if info[i] == 'last-generated-id' then generated = info[i + 1] end\n"
    "  end\n"
    "  if added and length and added == length then return false end\n"
    "  local f = redis.call('XRANGE', log, '-', '+', 'COUNT', 1)\n"
    "  if #f > 0 then return before(seen, f[1][1]) end\n"
    "  return generated ~= nil and before(seen, generated)\n"
    "end\n"
    "local run = ''\n"
    "local info = redis.pcall('INFO', 'server')\n"
    "if type(info) == 'string' then run = string.match(info, 'run_id:(%x+)') or '' end\n"
    "local epoch = redis.call('GET', KEYS[2])\n"
    "if not epoch then\n"
    "  redis.call('SET', KEYS[2], ARGV[2])\n"
    "  epoch = ARGV[2]\n"
    "end\n"
    "local last = last_pos(KEYS[1])\n"
    "local mode = 'resume'\n"
    "local rolled = false\n"
    "local seen = ARGV[3]\n"
    "if ARGV[1] == '' then\n"
    "  mode = 'first'\n"
    "elseif ARGV[1] ~= epoch then\n"
    "  mode = 'restart'\n"
    "  seen = '0-0'\n"
    "elseif before(last, seen) then\n"
    "  mode = 'snapshot'\n"
    "  rolled = true\n"
    "elseif ARGV[5] ~= '' and run ~= '' and run ~= ARGV[5] then\n"
    "  rolled = true\n"
    "end\n"
    "if mode ~= 'first' and mode ~= 'snapshot' and lost_after(KEYS[1], seen) then mode = 'snapshot' end\n"
    "local changed = {}\n"
    "local later = {}\n"
    "if rolled and not before(last, seen) then\n"
    "  for _, e in ipairs(redis.call('XRANGE', KEYS[1], '(' .. seen, '+')) do\n"
    "    for i = 1, #e[2], 2 do\n"
    "      if e[2][i] == 'k' then changed[e[2][i + 1]] = true end\n"
    "    end\n"
    "  end\n"
    "end\n"
    "local limit = tonumber(ARGV[4])\n"
    "local pairs_out = {}\n"
    "local got = {}\n"
    "for i = 6, #ARGV do\n"
    "  local s = ARGV[i]\n"
    "  local kind = string.sub(s, 1, 1)\n"
    "  if kind == 'O' and rolled and changed[string.sub(s, 2)] then\n"
    "    later[#later + 1] = string.sub(s, 2)\n"
    "  elseif kind == 'O' and (rolled or mode == 'snapshot') then\n"
    "    read(pairs_out, true, string.sub(s, 2), nil, limit, got)\n"
    "  elseif kind == 'E' and mode == 'snapshot' then\n"
    "    read(pairs_out, true, string.sub(s, 2), nil, limit, got)\n"
    "  elseif kind == 'P' and mode == 'snapshot' then\n"
    "    local nul = string.find(s, '\\0', 2, true)\n"
    "    read(pairs_out, false, string.sub(s, nul + 1), string.sub(s, 2, nul - 1), limit, got)\n"
    "  end\n"
    "end\n"
    "local out = {epoch, mode, last, run, rolled and '1' or '', #later}\n"
    "for _, k in ipairs(later) do out[#out + 1] = k end\n"
    "for _, v in ipairs(pairs_out) do out[#out + 1] = v end\n"
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

/* Random hex, for a store's epoch. */
std::string random_hex()
{
    std::random_device rd;
    char buf[33];
    snprintf(buf, sizeof buf, "%08x%08x%08x%08x", rd(), rd(), rd(), rd());
    return buf;
}

std::string text_of(const redisReply *r)
{
    return r && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS) ? std::string(r->str, r->len)
                                                                                   : std::string();
}

/* key, value-or-size pairs of a script reply from element `from` on. */
std::vector<mom_entry> entries_of(const redisReply *reply, size_t from)
{
    std::vector<mom_entry> out;
    for (size_t i = from; i + 1 < reply->elements; i += 2) {
        const redisReply *k = reply->element[i];
        const redisReply *v = reply->element[i + 1];
        if (k->type != REDIS_REPLY_STRING)
            continue;
        mom_entry e;
        e.key.assign(k->str, k->len);
        if (v->type == REDIS_REPLY_STRING) {
            e.bytes.assign(v->str, v->len);
            e.size = e.bytes.size();
        } else if (v->type == REDIS_REPLY_INTEGER) {
            e.oversized = true;
            e.size = static_cast<size_t>(v->integer);
        } else {
            continue;
        }
        out.push_back(std::move(e));
    }
    return out;
}

struct redis_tr;

struct command_ctx {
    redis_tr *tr;
    mom_write_done write_done;
    mom_scan_done scan_done;
    std::string what;
};

struct redis_tr : mom_transport {
    mom_hooks *hooks;
    event_base *base;
    std::string host;
    int port;
    std::string user, password;
    std::string writer;
    std::string url;
    bool numeric_host = false;  /* an address: nothing to resolve */
    evdns_base *dns = nullptr;
    evdns_getaddrinfo_request *resolving = nullptr;
    redisAsyncContext *cmd = nullptr;
    redisAsyncContext *lis = nullptr;
    bool cmd_connected = false;
    bool lis_connected = false;
    bool syncing = false;
    bool is_up = false;
    bool closing = false;
    struct event *retry = nullptr;
    struct event *watchdog = nullptr;
    int backoff_ms = 100;

    std::string epoch;          /* empty until the first link */
    std::string run_id;         /* the server's run of the last link, when known */
    mom_pos cursor;             /* last change read from the log */
    steady::time_point connect_started;
    steady::time_point up_since;
    steady::time_point last_tick;
    bool reading = false;
    steady::time_point read_sent;
    std::deque<steady::time_point> sent;    /* commands awaiting their answer */

    std::string last_error;
    bool unreachable = false;   /* an attempt failed since the last link */
    steady::time_point unreachable_since, unreachable_logged;

    redis_tr(mom_hooks *h, event_base *b, std::string hst, int p, std::string u, std::string pw, std::string w)
        : hooks(h), base(b), host(std::move(hst)), port(p), user(std::move(u)), password(std::move(pw)),
          writer(std::move(w))
    {
        url = "redis://" + host + ":" + std::to_string(port);
        unsigned char addr[sizeof(struct in6_addr)];
        numeric_host = evutil_inet_pton(AF_INET, host.c_str(), addr) == 1 ||
                       evutil_inet_pton(AF_INET6, host.c_str(), addr) == 1;
        retry = evtimer_new(base, on_retry, this);
        watchdog = event_new(base, -1, EV_PERSIST, on_watchdog, this);
    }

    ~redis_tr() override
    {
        closing = true;
        cancel_resolving();
        if (dns)
            evdns_base_free(dns, 0);
        if (retry)
            event_free(retry);
        if (watchdog)
            event_free(watchdog);
        drop(&cmd);
        drop(&lis);
    }

    const char *name() const override { return "redis"; }
    bool up() const override { return is_up; }
    void start() override { connect_all(); }
    std::string link_error() const override { return last_error.empty() ? std::string() : url + ": " + last_error; }

    static void on_retry(evutil_socket_t, short, void *arg) { static_cast<redis_tr *>(arg)->connect_all(); }

    void cancel_resolving()
    {
        evdns_getaddrinfo_request *r = resolving;
        resolving = nullptr;
        if (r)
            evdns_getaddrinfo_cancel(r);
    }

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

    /* Says once per outage, and then once a minute, that the store cannot be
     * reached, with the reason. */
    void note_unreachable(const std::string &why)
    {
        last_error = why;
        steady::time_point now = steady::now();
        if (!unreachable) {
            unreachable = true;
            unreachable_since = unreachable_logged = now;
            mom_log(hooks->module_name(), "cannot reach %s: %s; retrying with back-off", url.c_str(), why.c_str());
        } else if (now - unreachable_logged >= kStillUnreachableEvery) {
            unreachable_logged = now;
            long secs = static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(now - unreachable_since).count());
            mom_log(hooks->module_name(), "still cannot reach %s after %ld s: %s", url.c_str(), secs, why.c_str());
        }
    }

    /* One side failed or timed out: the other goes too, and both come back
     * together. */
    void link_lost(const std::string &why)
    {
        if (closing)
            return;
        bool was_up = is_up;
        is_up = false;
        syncing = false;
        reading = false;
        cmd_connected = lis_connected = false;
        /* Freeing a context answers its pending commands with no reply:
         * the client keeps those writes and scans for the next link. */
        cancel_resolving();
        drop(&cmd);
        drop(&lis);
        sent.clear();
        if (watchdog)
            event_del(watchdog);
        if (was_up && steady::now() - up_since >= kStableLink)
            backoff_ms = 100;
        if (was_up)
            hooks->transport_down(why);
        else
            note_unreachable(why);
        schedule_retry();
    }

    redisAsyncContext *open_one(const std::string &address)
    {
        redisAsyncContext *ac = redisAsyncConnect(address.c_str(), port);
        if (!ac)
            return nullptr;
        if (ac->err) {
            last_error = ac->errstr;
            redisAsyncFree(ac);
            return nullptr;
        }
        /* hiredis opens its socket without SOCK_CLOEXEC: the commands the
         * daemon runs must not inherit an authenticated link to the store. */
        int flags = fcntl(ac->c.fd, F_GETFD);
        if (flags < 0 || fcntl(ac->c.fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
            last_error = std::string("cannot mark the connection close-on-exec: ") + strerror(errno);
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

    /* An attempt: the address of the host (the watchdog bounds the whole
     * attempt, resolution included), then both connections. */
    void connect_all()
    {
        if (closing || cmd || lis || resolving)
            return;
        connect_started = last_tick = steady::now();
        struct timeval second = {1, 0};
        event_add(watchdog, &second);
        if (numeric_host) {
            open_both(host);
            return;
        }
        if (!dns)
            dns = evdns_base_new(base, EVDNS_BASE_INITIALIZE_NAMESERVERS | EVDNS_BASE_DISABLE_WHEN_INACTIVE);
        if (!dns) {
            link_lost("cannot set up name resolution");
            return;
        }
        evutil_addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_protocol = IPPROTO_TCP;
        /* Null when the answer came at once (the callback ran already). */
        resolving = evdns_getaddrinfo(dns, host.c_str(), nullptr, &hints, on_resolved, this);
    }

    static void on_resolved(int error, evutil_addrinfo *res, void *arg)
    {
        if (error == EVUTIL_EAI_CANCEL) {
            if (res)
                evutil_freeaddrinfo(res);
            return; /* the attempt was given up (or the client is going) */
        }
        auto *t = static_cast<redis_tr *>(arg);
        t->resolving = nullptr;
        std::string address;
        for (int family : {AF_INET, AF_INET6}) {
            for (evutil_addrinfo *a = res; a && address.empty(); a = a->ai_next) {
                if (a->ai_family != family)
                    continue;
                char text[64];
                const void *where = family == AF_INET
                                        ? static_cast<const void *>(&reinterpret_cast<sockaddr_in *>(a->ai_addr)->sin_addr)
                                        : static_cast<const void *>(&reinterpret_cast<sockaddr_in6 *>(a->ai_addr)->sin6_addr);
                if (evutil_inet_ntop(family, where, text, sizeof text))
                    address = text;
            }
        }
        if (res)
            evutil_freeaddrinfo(res);
        if (t->closing)
            return;
        if (address.empty()) {
            t->link_lost(error ? evutil_gai_strerror(error) : "the name has no address");
            return;
        }
        t->open_both(address);
    }

    void open_both(const std::string &address)
    {
        cmd = open_one(address);
        lis = cmd ? open_one(address) : nullptr;
        if (!cmd || !lis)
            link_lost(last_error.empty() ? "cannot open a connection" : last_error);
    }

    static redis_tr *of(const redisAsyncContext *ac) { return static_cast<redis_tr *>(ac->data); }

    /* A refused AUTH fails the attempt with its reason (said once, then
     * once a minute, as every reason the store cannot be reached). */
    static void on_auth(redisAsyncContext *ac, void *r, void *)
    {
        auto *reply = static_cast<redisReply *>(r);
        if (!reply || reply->type != REDIS_REPLY_ERROR || !ac->data)
            return;
        redis_tr *t = of(ac);
        if (!t->closing && (t->cmd == ac || t->lis == ac))
            t->link_lost(std::string("redis AUTH refused: ") + reply->str);
    }

    static void on_connect(const redisAsyncContext *ac, int status)
    {
        redis_tr *t = of(ac);
        if (status != REDIS_OK) {
            std::string why = ac->errstr[0] ? ac->errstr : "connection failed";
            /* hiredis frees a context that failed to connect by itself. */
            if (t->cmd == ac)
                t->cmd = nullptr;
            if (t->lis == ac)
                t->lis = nullptr;
            t->link_lost(why);
            return;
        }
        if (t->cmd == ac)
            t->cmd_connected = true;
        if (t->lis == ac)
            t->lis_connected = true;
        if (t->cmd_connected && t->lis_connected)
            t->start_sync();
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
        if (t->lis == ac) {
            t->lis = nullptr;
            ours = true;
        }
        if (ours)
            t->link_lost(ac->errstr[0] ? ac->errstr : "connection closed by the server");
    }

    static void on_watchdog(evutil_socket_t, short, void *arg)
    {
        auto *t = static_cast<redis_tr *>(arg);
        steady::time_point now = steady::now();
        /* A loop that was busy elsewhere for a while is not the store's
         * silence: look again at the next tick. */
        bool late = now - t->last_tick > std::chrono::seconds(2);
        t->last_tick = now;
        if (late)
            return;
        if (!t->is_up && now - t->connect_started > kConnectTimeout)
            t->link_lost("no answer within 3 s");
        else if (t->is_up && t->reading && now - t->read_sent > kReadTimeout)
            t->link_lost("no answer within 6 s");
        else if (t->is_up && !t->sent.empty() && now - t->sent.front() > kCommandTimeout)
            t->link_lost("no answer within 10 s");
    }

    /* ---- commands ---- */

    int send(redisAsyncContext *ac, const std::vector<std::string> &args, redisCallbackFn *fn, void *priv)
    {
        std::vector<const char *> argv;
        std::vector<size_t> lens;
        for (const std::string &a : args) {
            argv.push_back(a.data());
            lens.push_back(a.size());
        }
        return redisAsyncCommandArgv(ac, fn, priv, static_cast<int>(argv.size()), argv.data(), lens.data());
    }

    int command(const std::vector<std::string> &args, command_ctx *c)
    {
        if (!is_up || !cmd || send(cmd, args, on_command, c) != REDIS_OK) {
            delete c;
            return QN_MOM_ERR_NOTCONN;
        }
        sent.push_back(steady::now());
        return 0;
    }

    static void on_command(redisAsyncContext *, void *r, void *priv)
    {
        auto *c = static_cast<command_ctx *>(priv);
        auto *reply = static_cast<redisReply *>(r);
        redis_tr *t = c->tr;
        if (!t->sent.empty() && reply)
            t->sent.pop_front();
        if (t->closing) {
            delete c;
            return;
        }
        if (c->scan_done) {
            if (!reply) {
                c->scan_done(QN_MOM_ERR_NOTCONN, mom_pos{}, {});
            } else if (reply->type != REDIS_REPLY_ARRAY || reply->elements < 1) {
                mom_log(t->hooks->module_name(), "%s failed: %s", c->what.c_str(),
                        reply->type == REDIS_REPLY_ERROR ? reply->str : "unexpected answer");
                c->scan_done(-EIO, mom_pos{}, {});
            } else {
                mom_pos at;
                mom_pos_parse(text_of(reply->element[0]), &at);
                c->scan_done(0, at, entries_of(reply, 1));
            }
        } else if (c->write_done) {
            if (!reply)
                c->write_done(QN_MOM_ERR_NOTCONN, "link lost");
            else if (reply->type == REDIS_REPLY_ERROR)
                c->write_done(-EIO, reply->str);
            else
                c->write_done(0, std::string());
        }
        delete c;
    }

    int write(char op, const std::string &key, const std::string &bytes, mom_write_done done) override
    {
        const std::string limit = std::to_string(QN_MOM_MAX_VALUE);
        if (op == 'D')
            return command({"EVAL", std::string(kTrimHelper) + kDelBody, "2", key, kLog, writer, limit, kLogLength,
                            kLogBytes},
                           new command_ctx{this, std::move(done), nullptr, "delete " + key});
        return command({"EVAL", std::string(kTrimHelper) + kSetBody, "2", key, kLog, bytes,
                        std::string(1, op == 'R' ? 'S' : op), writer, limit, kLogLength, op == 'R' ? "1" : "0",
                        kLogBytes},
                       new command_ctx{this, std::move(done), nullptr, "store " + key});
    }

    int scan(const std::string &prefix, bool exact, mom_scan_done done) override
    {
        return command({"EVAL", std::string(kReadHelpers) + kScanBody, "1", kLog, prefix, exact ? "1" : "0",
                        glob_escape(prefix) + "*", std::to_string(QN_MOM_MAX_VALUE)},
                       new command_ctx{this, nullptr, std::move(done), "scan " + prefix});
    }

    /* ---- (re)starting the link ---- */

    void start_sync()
    {
        std::vector<std::string> args = {"EVAL", std::string(kReadHelpers) + kSyncBody, "2", kLog, kEpoch, epoch,
                                         random_hex(), mom_pos_text(cursor), std::to_string(QN_MOM_MAX_VALUE), run_id};
        for (const mom_spec &s : hooks->snapshot_specs()) {
            if (s.own)
                args.push_back("O" + s.prefix);
            else if (s.exact)
                args.push_back("E" + s.prefix);
            else
                args.push_back("P" + glob_escape(s.prefix) + "*" + std::string(1, '\0') + s.prefix);
        }
        syncing = true;
        if (send(cmd, args, on_sync, nullptr) != REDIS_OK)
            link_lost("cannot send to the store");
    }

    static void on_sync(redisAsyncContext *ac, void *r, void *)
    {
        auto *reply = static_cast<redisReply *>(r);
        if (!reply || !ac->data)
            return;
        redis_tr *t = of(ac);
        if (t->closing || t->cmd != ac || !t->syncing)
            return;
        t->syncing = false;
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements < 6 || reply->element[5]->type != REDIS_REPLY_INTEGER ||
            reply->element[5]->integer < 0 || static_cast<size_t>(reply->element[5]->integer) > reply->elements - 6) {
            t->link_lost(reply->type == REDIS_REPLY_ERROR ? reply->str : "unexpected answer to the link start");
            return;
        }
        std::string store_epoch = text_of(reply->element[0]);
        std::string mode = text_of(reply->element[1]);
        mom_pos last;
        mom_pos_parse(text_of(reply->element[2]), &last);
        std::string run = text_of(reply->element[3]);
        size_t nlater = static_cast<size_t>(reply->element[5]->integer);
        mom_link_up up;
        up.first = t->epoch.empty();
        up.store_reset = !up.first && store_epoch != t->epoch;
        up.rolled_back = text_of(reply->element[4]) == "1";
        up.at = last;
        for (size_t i = 0; i < nlater; ++i)
            up.changed_later.push_back(text_of(reply->element[6 + i]));
        up.entries = entries_of(reply, 6 + nlater);
        if (mode == "first") {
            t->cursor = last;
        } else if (mode == "restart") {
            t->cursor = mom_pos{};
        } else if (mode == "snapshot") {
            up.snapshot = true;
            t->cursor = last;
        }
        up.from = t->cursor;
        if (!run.empty())
            t->run_id = run;
        t->epoch = store_epoch;
        t->is_up = true;
        t->up_since = steady::now();
        t->unreachable = false;
        t->last_error.clear();
        t->read_log();
        t->hooks->transport_up(up);
    }

    /* ---- reading the change log ---- */

    void read_log()
    {
        if (!is_up || !lis)
            return;
        if (send(lis, {"XREAD", "COUNT", kReadCount, "BLOCK", kReadBlockMs, "STREAMS", kLog, mom_pos_text(cursor)},
                 on_read, nullptr) != REDIS_OK) {
            link_lost("cannot send to the store");
            return;
        }
        reading = true;
        read_sent = steady::now();
    }

    static void on_read(redisAsyncContext *ac, void *r, void *)
    {
        auto *reply = static_cast<redisReply *>(r);
        if (!reply || !ac->data)
            return;
        redis_tr *t = of(ac);
        if (t->closing || t->lis != ac)
            return;
        t->reading = false;
        if (reply->type == REDIS_REPLY_ERROR) {
            t->link_lost(reply->str);
            return;
        }
        if (reply->type == REDIS_REPLY_ARRAY && reply->elements >= 1) {
            const redisReply *stream = reply->element[0];
            if (stream->type == REDIS_REPLY_ARRAY && stream->elements >= 2 &&
                stream->element[1]->type == REDIS_REPLY_ARRAY) {
                const redisReply *list = stream->element[1];
                for (size_t i = 0; i < list->elements; ++i)
                    t->take_change(list->element[i]);
            }
        }
        t->read_log();
    }

    void take_change(const redisReply *entry)
    {
        if (entry->type != REDIS_REPLY_ARRAY || entry->elements < 2 || entry->element[1]->type != REDIS_REPLY_ARRAY)
            return;
        mom_change c;
        if (!mom_pos_parse(text_of(entry->element[0]), &c.pos))
            return;
        cursor = c.pos;
        const redisReply *fields = entry->element[1];
        std::string op, writer_id;
        for (size_t i = 0; i + 1 < fields->elements; i += 2) {
            std::string name = text_of(fields->element[i]);
            const redisReply *v = fields->element[i + 1];
            if (name == "o")
                op = text_of(v);
            else if (name == "k")
                c.key = text_of(v);
            else if (name == "v")
                c.new_bytes = text_of(v);
            else if (name == "p")
                c.old_bytes = text_of(v);
            else if (name == "w")
                writer_id = text_of(v);
        }
        if (op.size() != 1 || (op[0] != 'S' && op[0] != 'H' && op[0] != 'D') || c.key.empty()) {
            mom_log(hooks->module_name(), "malformed change %s in %s, ignored", mom_pos_text(c.pos).c_str(), kLog);
            return;
        }
        c.op = op[0];
        c.from_self = writer_id == writer;
        hooks->transport_change(c);
    }
};

} // namespace

std::unique_ptr<mom_transport> mom_redis_create(mom_hooks *hooks, qn_thread_master *master, const std::string &host,
                                                int port, const std::string &user, const std::string &password,
                                                const std::string &writer_id)
{
    event_base *base = qn_thread_master_event_base(master);
    if (!base)
        return nullptr;
    return std::make_unique<redis_tr>(hooks, base, host, port, user, password, writer_id);
}
