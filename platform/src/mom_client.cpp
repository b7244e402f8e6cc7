/* The bus client calls.  The common part keeps the connection requests, the
 * subscriptions and the reconnect callbacks, decodes what the transport
 * delivers and hands every reply to its callback as a task of the event loop.
 *
 * It also carries a node through bus outages:
 * - writes wait in an outbox (mom_outbox.cpp) until the store took them:
 *   made while the link is down, they go out in order when it is back;
 *   refused for a reason that passes, they go again after a back-off;
 * - scans asked for while the link is down, or cut by a lost link, run when
 *   it is back;
 * - subscriptions are made and confirmed only on a working link; once made
 *   they stand through outages, and the transport hands over every change
 *   made while the link was down;
 * - after the store lost its records, the client writes back the last known
 *   value of every record it owns (a record it wrote), unless someone wrote
 *   it first;
 * - for each key, a value older than one already handed to a callback is
 *   never handed out again (a scan and the change feed may overlap);
 * - values above QN_MOM_MAX_VALUE are refused on write and not read. */
#include "mom_internal.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"
#include "qn_text_escape.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>

namespace {

/* Scans waiting for the link. */
constexpr size_t kWaitingScans = 256;
/* A link lost this soon after it came back is flapping; lines about a
 * flapping link are said at most this often. */
constexpr auto kFlapping = std::chrono::seconds(10);
constexpr auto kFlapLinesEvery = std::chrono::seconds(60);

struct subscription {
    uint64_t id;
    uint32_t db;
    const ProtobufCMessageDescriptor *desc;
    std::string prefix;         /* key prefix of the type (the whole key when exact) */
    bool exact;
    std::vector<uint32_t> fields; /* empty: every change */
    qn_mom_cb_t cb;
    void *ctx;
};

struct connect_req {
    qn_mom_connect_cb_t cb = nullptr;
    void *ctx = nullptr;
    bool announced = false;
};

struct scan_req {
    std::string prefix;
    bool exact;
    mom_scan_done done;
};

/* Live clients: a delivery whose client went away is dropped. */
std::set<const qn_mom_client *> &live_clients()
{
    static std::set<const qn_mom_client *> s;
    return s;
}

/* Record types whose subscriptions fail, by full name (fault injection). */
std::map<std::string, int> &refused_types()
{
    static std::map<std::string, int> m;
    return m;
}

std::string random_writer_id()
{
    std::random_device rd;
    char buf[17];
    snprintf(buf, sizeof buf, "%08x%08x", rd(), rd());
    return buf;
}

} // namespace

struct qn_mom_client : mom_hooks {
    std::string module;
    qn_thread_master *master = nullptr;
    std::unique_ptr<mom_transport> transport;
    int32_t node_devid = 0;
    int32_t node_slot = 0;
    std::map<uint32_t, connect_req> connects;
    std::map<uint32_t, qn_mom_reconnect_cb_t> reconnects;
    std::vector<subscription> subs;
    uint64_t next_sub_id = 1;
    bool was_up = false;        /* the transport has been up once */
    bool down_since_up = false;
    /* Lines about a link that keeps failing right after it came up are said
     * once a minute, with the count of those not said. */
    std::chrono::steady_clock::time_point up_at, lost_logged;
    bool lost_quiet = false;    /* the last loss was not said, nor its return */
    unsigned long long quiet_losses = 0;

    mom_outbox outbox;                  /* writes not yet taken by the store */
    std::deque<scan_req> waiting_scans;
    std::map<std::string, std::string> own;     /* last known value of each record we wrote */
    /* Newest position handed out, per key, while it matters: a scan on its
     * way read the store at a position of its own, and must not hand out a
     * value older than one the change feed handed out meanwhile.  A scan
     * sent later reads at or after the feed's position, so an entry at or
     * below it is dropped once no scan is on its way. */
    std::map<std::string, mom_pos> handed_out;
    mom_pos feed_pos;                   /* the change feed's position */
    size_t scans_in_flight = 0;
    qn_mom_counters_t counters{};

    const char *module_name() const override { return module.c_str(); }
    void transport_up(const mom_link_up &up) override;
    void transport_down(const std::string &why) override;
    void transport_change(const mom_change &change) override;
    std::vector<mom_spec> snapshot_specs() const override;

    void announce_connects();
    bool db_ready() const { return !connects.empty() && transport && transport->up(); }
    /* Writes and scans are taken once the client has been connected. */
    bool accepting() const { return !connects.empty() && was_up; }
    bool sub_alive(uint64_t id) const
    {
        for (const subscription &s : subs)
            if (s.id == id)
                return true;
        return false;
    }

    void run_scan(scan_req req);
    void run_waiting_scans();
    void restore_own();
    void take_snapshot(const mom_link_up &up);
    void write_back_newer(const mom_link_up &up);

    /* Hands a record value or a deletion of `key` to the subscriptions it
     * concerns; whether any took it. */
    bool hand_to_subscriptions(int type, const std::string &key, const std::string &old_bytes,
                               const std::string &new_bytes, bool every_field);
    /* Whether a value of `key` read at `at` is not older than what was handed out. */
    bool fresh(const std::string &key, const mom_pos &at) const
    {
        auto it = handed_out.find(key);
        return it == handed_out.end() || it->second <= at;
    }
    /* Counts and reports a stored value not read for its size. */
    void refuse_read(const std::string &key, size_t size)
    {
        ++counters.refused_reads;
        mom_log(module.c_str(), "value under key %s is %zu bytes, over the %d-byte limit: not read (%llu refused so far)",
                key.c_str(), size, QN_MOM_MAX_VALUE, static_cast<unsigned long long>(counters.refused_reads));
    }
    /* Whether a key is over QN_MOM_MAX_KEY: counted and reported (its start
     * only), and neither written nor read. */
    bool key_too_long(const std::string &key, const char *what)
    {
        if (key.size() <= QN_MOM_MAX_KEY)
            return false;
        ++counters.refused_keys;
        mom_log(module.c_str(), "%s a key of %zu bytes (%s...): over the %d-byte limit (%llu refused so far)", what,
                key.size(), key.substr(0, 64).c_str(), QN_MOM_MAX_KEY,
                static_cast<unsigned long long>(counters.refused_keys));
        return true;
    }
    void mark_handed_out(const std::string &key, const mom_pos &at)
    {
        if (scans_in_flight == 0 && at <= feed_pos) {
            handed_out.erase(key);
            return;
        }
        mom_pos &p = handed_out[key];
        if (p < at)
            p = at;
    }
    void prune_handed_out()
    {
        if (scans_in_flight == 0)
            std::erase_if(handed_out, [this](const auto &kv) { return kv.second <= feed_pos; });
    }
};

/* Keys and reasons in these lines come from the store, written by anyone:
 * every byte that is not printable ASCII goes out as \xNN. */
void mom_log(const char *module, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    std::string line = std::string("qn_mom[") + module + "]: " + qn_escape_bytes(text) + "\n";
    fputs(line.c_str(), stderr);
    fflush(stderr);
}

namespace {

/* One reply on its way to a callback. */
struct delivery {
    qn_mom_client *client;
    uint64_t sub_id;            /* 0: not bound to a subscription */
    qn_mom_cb_t cb;
    void *ctx;
    qn_mom_reply_t reply{};
    qn_mom_res_t res{};
    std::string key;
};

int run_delivery(qn_thread *t)
{
    auto *d = static_cast<delivery *>(QN_THREAD_ARG(t));
    bool alive = live_clients().count(d->client) && (d->sub_id == 0 || d->client->sub_alive(d->sub_id));
    if (alive && d->cb) {
        d->reply.key = d->key.empty() ? nullptr : d->key.c_str();
        if (d->reply.res)
            d->reply.res = &d->res;
        d->cb(d->ctx, &d->reply);
    }
    if (d->res.value)
        protobuf_c_message_free_unpacked(d->res.value, nullptr);
    delete d;
    return 0;
}

void queue(qn_mom_client *c, delivery *d)
{
    if (!qn_thread_add_event(c->master, run_delivery, d, 0, "qn_mom_reply")) {
        mom_log(c->module.c_str(), "cannot queue a reply, dropped");
        if (d->res.value)
            protobuf_c_message_free_unpacked(d->res.value, nullptr);
        delete d;
    }
}

delivery *make(qn_mom_client *c, uint64_t sub_id, qn_mom_cb_t cb, void *ctx, uint32_t db, int type)
{
    auto *d = new delivery;
    d->client = c;
    d->sub_id = sub_id;
    d->cb = cb;
    d->ctx = ctx;
    d->reply.type = type;
    d->reply.db = db;
    return d;
}

/* Decodes bytes as desc; null (logged with the key) when they do not. */
ProtobufCMessage *decode(const qn_mom_client *c, const ProtobufCMessageDescriptor *desc, const std::string &key,
                         const std::string &bytes)
{
    ProtobufCMessage *m = protobuf_c_message_unpack(desc, nullptr, bytes.size(),
                                                    reinterpret_cast<const uint8_t *>(bytes.data()));
    if (!m)
        mom_log(c->module.c_str(), "value under key %s does not decode as %s (%zu bytes), dropped", key.c_str(), desc->name,
                bytes.size());
    return m;
}

bool fields_changed(const subscription &s, const std::string &old_bytes, const std::string &new_bytes)
{
    if (s.fields.empty())
        return true;
    for (uint32_t f : s.fields) {
        std::string a, b;
        if (!mom_wire_field(old_bytes, f, &a) || !mom_wire_field(new_bytes, f, &b))
            return true; /* undecodable: let the decode report it */
        if (a != b)
            return true;
    }
    return false;
}

bool key_matches(const subscription &s, uint32_t db, const std::string &full_name, const std::string &key)
{
    if (s.db != db || full_name != s.desc->name)
        return false;
    return s.exact ? key == s.prefix : key.compare(0, s.prefix.size(), s.prefix) == 0;
}

struct connect_delivery {
    qn_mom_client *client;
    uint32_t db;
    int type;       /* 0: connect callback, else reconnect type */
};

int run_connect(qn_thread *t)
{
    auto *d = static_cast<connect_delivery *>(QN_THREAD_ARG(t));
    qn_mom_client *c = d->client;
    if (live_clients().count(c)) {
        if (d->type == 0) {
            auto it = c->connects.find(d->db);
            if (it != c->connects.end() && !c->db_ready()) {
                /* The link went again before the callback's turn: it runs
                 * when the database is usable, so that what it subscribes
                 * to can stand. */
                it->second.announced = false;
            } else if (it != c->connects.end() && it->second.cb) {
                it->second.cb(c, d->db, it->second.ctx);
            }
        } else {
            auto it = c->reconnects.find(d->db);
            if (it != c->reconnects.end() && it->second)
                it->second(c, d->db, d->type);
        }
    }
    delete d;
    return 0;
}

void queue_connect(qn_mom_client *c, uint32_t db, int type)
{
    auto *d = new connect_delivery{c, db, type};
    if (!qn_thread_add_event(c->master, run_connect, d, 0, "qn_mom_connect"))
        delete d;
}

bool parse_url(const std::string &url, std::string *host, int *port)
{
    const std::string scheme = "redis://";
    if (url.compare(0, scheme.size(), scheme) != 0)
        return false;
    std::string rest = url.substr(scheme.size());
    while (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    size_t colon = rest.rfind(':');
    if (colon == std::string::npos) {
        *host = rest;
        *port = 6379;
    } else {
        *host = rest.substr(0, colon);
        char *end = nullptr;
        long p = strtol(rest.c_str() + colon + 1, &end, 10);
        if (*end != '\0' || p <= 0 || p > 65535)
            return false;
        *port = static_cast<int>(p);
    }
    return !host->empty();
}

/* Counts and reports a value refused for its size. */
int refuse_too_big(qn_mom_client_t *c, const std::string &key, size_t size)
{
    ++c->counters.refused_writes;
    mom_log(c->module.c_str(), "refused to store %zu bytes under %s: over the %d-byte limit (%llu refused so far)", size,
            key.c_str(), QN_MOM_MAX_VALUE, static_cast<unsigned long long>(c->counters.refused_writes));
    return QN_MOM_ERR_TOOBIG;
}

int store(qn_mom_client_t *c, char op, const std::string &key, const std::string &bytes)
{
    if (!c->accepting())
        return QN_MOM_ERR_NOTCONN;
    if (c->key_too_long(key, "refused to write"))
        return QN_MOM_ERR_PARAM;
    if (op != 'D' && bytes.size() > QN_MOM_MAX_VALUE)
        return refuse_too_big(c, key, bytes.size());
    if (op == 'D')
        c->own.erase(key);
    else
        c->own[key] = bytes;
    c->outbox.add(op, key, bytes);
    c->outbox.flush();
    return 0;
}

int store_record(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, char op)
{
    if (!c || !record)
        return QN_MOM_ERR_PARAM;
    std::string key;
    if (!mom_key_of(record, db, c->node_devid, c->node_slot, &key))
        return QN_MOM_ERR_PARAM;
    if (!c->accepting())
        return QN_MOM_ERR_NOTCONN;
    size_t len = protobuf_c_message_get_packed_size(record);
    if (len > QN_MOM_MAX_VALUE)
        return refuse_too_big(c, key, len);
    std::string bytes(len, '\0');
    protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(bytes.data()));
    return store(c, op, key, bytes);
}

int add_subscription(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, const uint32_t *fields,
                     uint32_t nfields, qn_mom_cb_t cb, void *ctx)
{
    if (!c || !pattern || !pattern->descriptor || !cb || (nfields && !fields))
        return QN_MOM_ERR_PARAM;
    /* Confirmed only on a working link: a subscription made while the link
     * is down would be announced as standing when nothing could reach it. */
    if (!c->db_ready())
        return QN_MOM_ERR_NOTCONN;
    auto refused = refused_types().find(pattern->descriptor->name);
    if (refused != refused_types().end())
        return refused->second;
    subscription s;
    s.id = c->next_sub_id++;
    s.db = db;
    s.desc = pattern->descriptor;
    s.prefix = mom_type_prefix(s.desc, db, c->node_devid, c->node_slot, &s.exact);
    s.fields.assign(fields, fields + nfields);
    s.cb = cb;
    s.ctx = ctx;
    c->subs.push_back(s);
    /* Changes reach every client through the transport's one change feed, so
     * the subscription stands as soon as it is listed. */
    queue(c, make(c, s.id, cb, ctx, db, QN_MOM_REPLY_SUBSCRIBED));
    return 0;
}

} // namespace

void qn_mom_client::announce_connects()
{
    for (auto &[db, req] : connects) {
        if (!req.announced) {
            req.announced = true;
            queue_connect(this, db, 0);
        }
    }
}

void qn_mom_client::run_scan(scan_req req)
{
    if (transport->up()) {
        scan_req again = req;
        ++scans_in_flight;
        int ret = transport->scan(req.prefix, req.exact,
                                  [this, again](int error, mom_pos at, std::vector<mom_entry> entries) {
                                      if (error == QN_MOM_ERR_NOTCONN)
                                          waiting_scans.push_back(again);
                                      else
                                          again.done(error, at, std::move(entries));
                                      --scans_in_flight;
                                      prune_handed_out();
                                  });
        if (ret == 0)
            return;
        --scans_in_flight;
    }
    if (waiting_scans.size() >= kWaitingScans) {
        mom_log(module.c_str(), "link down, %zu scans waiting: the oldest, of %s, ends unanswered", waiting_scans.size(),
                waiting_scans.front().prefix.c_str());
        scan_req oldest = std::move(waiting_scans.front());
        waiting_scans.pop_front();
        oldest.done(QN_MOM_ERR_NOTCONN, mom_pos{}, {});
    }
    waiting_scans.push_back(std::move(req));
}

void qn_mom_client::run_waiting_scans()
{
    std::deque<scan_req> now;
    now.swap(waiting_scans);
    for (scan_req &r : now)
        run_scan(std::move(r));
}

void qn_mom_client::restore_own()
{
    if (!own.empty())
        mom_log(module.c_str(), "writing back the %zu records this client keeps, where no one wrote them yet",
                own.size());
    for (const auto &[key, bytes] : own)
        outbox.add('R', key, bytes);
    outbox.flush();
}

bool qn_mom_client::hand_to_subscriptions(int type, const std::string &key, const std::string &old_bytes,
                                          const std::string &new_bytes, bool every_field)
{
    uint32_t db;
    std::string full_name;
    if (!mom_key_split(key, &db, &full_name))
        return false;
    std::vector<subscription> matching;
    for (const subscription &s : subs) {
        if (!key_matches(s, db, full_name, key))
            continue;
        if (type != QN_MOM_REPLY_DEL && !every_field && !fields_changed(s, old_bytes, new_bytes))
            continue;
        matching.push_back(s);
    }
    bool handed = false;
    for (const subscription &s : matching) {
        ProtobufCMessage *value = nullptr;
        if (type != QN_MOM_REPLY_DEL) {
            value = decode(this, s.desc, key, new_bytes);
            if (!value)
                continue;
        }
        delivery *d = make(this, s.id, s.cb, s.ctx, db, type);
        d->key = key;
        d->reply.res = &d->res;
        d->res.value = value;
        queue(this, d);
        handed = true;
    }
    return handed;
}

void qn_mom_client::take_snapshot(const mom_link_up &up)
{
    /* A record with a write still in the outbox keeps the value this client
     * wrote last: the store's copy is older, and a record first written
     * while the link was down is not missing, only not yet delivered.  A
     * store that rolled back holds older copies of the others too. */
    std::set<std::string> pending = outbox.keys();
    std::set<std::string> present;
    for (const mom_entry &e : up.entries) {
        present.insert(e.key);
        if (key_too_long(e.key, "did not read"))
            continue;
        if (e.oversized) {
            refuse_read(e.key, e.size);
            continue;
        }
        auto mine = own.find(e.key);
        if (mine != own.end() && !pending.count(e.key) && !up.rolled_back)
            mine->second = e.bytes;
        if (hand_to_subscriptions(QN_MOM_REPLY_SET, e.key, std::string(), e.bytes, true))
            mark_handed_out(e.key, up.at);
    }
    /* Gone from a store that kept its records: someone deleted them. */
    if (!up.store_reset && !up.rolled_back)
        std::erase_if(own, [&](const auto &kv) { return !present.count(kv.first) && !pending.count(kv.first); });
}

/* The store came back from an older copy of itself: every own record it
 * holds another value of (or none) is written again, with the value this
 * client wrote or saw last.  Records with a write in the outbox get it
 * anyway; those someone changed since the client's position are left to
 * the change log, which brings their newer values. */
void qn_mom_client::write_back_newer(const mom_link_up &up)
{
    std::map<std::string, const mom_entry *> stored;
    for (const mom_entry &e : up.entries)
        stored[e.key] = &e;
    std::set<std::string> skip = outbox.keys();
    skip.insert(up.changed_later.begin(), up.changed_later.end());
    std::vector<std::pair<std::string, std::string>> newer;
    for (const auto &[key, bytes] : own) {
        if (skip.count(key))
            continue;
        auto it = stored.find(key);
        if (it != stored.end() && !it->second->oversized && it->second->bytes == bytes)
            continue;
        newer.push_back({key, bytes});
    }
    if (newer.empty())
        return;
    mom_log(module.c_str(), "the store came back from an older copy: writing back the %zu records it holds older "
                            "values of",
            newer.size());
    for (const auto &[key, bytes] : newer)
        outbox.add(stored.count(key) ? 'S' : 'R', key, bytes);
    outbox.flush();
}

void qn_mom_client::transport_up(const mom_link_up &up)
{
    up_at = std::chrono::steady_clock::now();
    if (was_up && down_since_up && !lost_quiet) {
        mom_log(module.c_str(), "link to the store is back, %zu subscriptions stand; %s", subs.size(),
                up.snapshot      ? "changes were lost from the store's log, the current records are read"
                : up.store_reset ? "the store was emptied, its new log is read from the start"
                                 : "the changes missed are read from the store's log");
    }
    /* Positions of an emptied or rolled-back store's log do not compare
     * with those handed out before. */
    if (up.store_reset || up.rolled_back)
        handed_out.clear();
    feed_pos = up.from;
    if (up.snapshot)
        take_snapshot(up);
    bool again = was_up && down_since_up;
    was_up = true;
    down_since_up = false;
    outbox.flush();
    if (up.store_reset)
        restore_own();
    if (up.rolled_back)
        write_back_newer(up);
    run_waiting_scans();
    if (again) {
        for (auto &[db, cb] : reconnects)
            if (connects.count(db) && connects[db].announced)
                queue_connect(this, db, QN_MOM_RECONNECT_LINK);
    }
    announce_connects();
}

void qn_mom_client::transport_down(const std::string &why)
{
    if (down_since_up)
        return;
    down_since_up = true;
    auto now = std::chrono::steady_clock::now();
    bool flapping = now - up_at < kFlapping;
    if (flapping && lost_logged.time_since_epoch().count() != 0 && now - lost_logged < kFlapLinesEvery) {
        lost_quiet = true;
        ++quiet_losses;
        return;
    }
    lost_quiet = false;
    lost_logged = now;
    if (quiet_losses > 0)
        mom_log(module.c_str(), "link to the store lost: %s; retrying (%llu more losses right after the link came "
                                "back were not said)",
                why.c_str(), quiet_losses);
    else
        mom_log(module.c_str(), "link to the store lost: %s; retrying", why.c_str());
    quiet_losses = 0;
}

void qn_mom_client::transport_change(const mom_change &c)
{
    if (feed_pos < c.pos)
        feed_pos = c.pos;
    if (key_too_long(c.key, "did not read"))
        return;
    if (!c.from_self) {
        auto mine = own.find(c.key);
        if (mine != own.end()) {
            if (c.op == 'D')
                own.erase(mine);
            else
                mine->second = c.new_bytes;
        }
    }
    if (c.op != 'D' && c.new_bytes.size() > QN_MOM_MAX_VALUE) {
        refuse_read(c.key, c.new_bytes.size());
        return;
    }
    auto seen = handed_out.find(c.key);
    if (seen != handed_out.end() && c.pos <= seen->second)
        return;
    int type = c.op == 'D' ? QN_MOM_REPLY_DEL : c.op == 'H' ? QN_MOM_REPLY_HSET : QN_MOM_REPLY_SET;
    if (hand_to_subscriptions(type, c.key, c.old_bytes, c.new_bytes, false))
        mark_handed_out(c.key, c.pos);
    prune_handed_out();
}

std::vector<mom_spec> qn_mom_client::snapshot_specs() const
{
    std::vector<mom_spec> out;
    std::set<std::pair<std::string, bool>> seen;
    for (const subscription &s : subs)
        if (seen.insert({s.prefix, s.exact}).second)
            out.push_back({s.prefix, s.exact});
    for (const auto &[key, bytes] : own)
        out.push_back({key, true, true});
    return out;
}

extern "C" {

qn_mom_client_t *qn_mom_client_init(const char *module, qn_thread_master *master)
{
    if (!module || !*module || !master)
        return nullptr;
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg)
        return nullptr;
    auto *c = new qn_mom_client;
    c->module = module;
    c->master = master;
    c->node_devid = cfg->devid;
    c->node_slot = cfg->phy_slot;
    if (cfg->bus_url.empty()) {
        c->transport = mom_embedded_create(c, master);
    } else {
        std::string host;
        int port = 0;
        if (!parse_url(cfg->bus_url, &host, &port)) {
            fprintf(stderr, "%s: [bus] url: expected redis://HOST:PORT ('%s')\n",
                    cfg->path.empty() ? "config" : cfg->path.c_str(), cfg->bus_url.c_str());
            delete c;
            return nullptr;
        }
        c->transport = mom_redis_create(c, master, host, port, cfg->bus_user, cfg->bus_password, random_writer_id());
    }
    if (!c->transport) {
        delete c;
        return nullptr;
    }
    c->outbox.attach(&c->module, c->transport.get(), master, &c->counters);
    live_clients().insert(c);
    c->transport->start();
    return c;
}

int qn_mom_client_connect(qn_mom_client_t *c, uint32_t db, qn_mom_connect_cb_t cb, void *ctx)
{
    if (!c)
        return QN_MOM_ERR_PARAM;
    connect_req &req = c->connects[db];
    req.cb = cb;
    req.ctx = ctx;
    req.announced = false;
    if (c->transport->up())
        c->announce_connects();
    return 0;
}

int qn_mom_client_set_reconnect_cb(qn_mom_client_t *c, uint32_t db, qn_mom_reconnect_cb_t cb)
{
    if (!c)
        return QN_MOM_ERR_PARAM;
    c->reconnects[db] = cb;
    return 0;
}

int qn_mom_set(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, uint32_t, uint32_t)
{
    return store_record(c, db, record, 'S');
}

int qn_mom_hmset(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, uint32_t, uint32_t)
{
    return store_record(c, db, record, 'H');
}

int qn_mom_del(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, uint32_t, uint32_t)
{
    if (!c || !record)
        return QN_MOM_ERR_PARAM;
    std::string key;
    if (!mom_key_of(record, db, c->node_devid, c->node_slot, &key))
        return QN_MOM_ERR_PARAM;
    return store(c, 'D', key, std::string());
}

int qn_mom_scan(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qn_mom_cb_t cb,
                void *ctx)
{
    if (!c || !pattern || !pattern->descriptor || !cb)
        return QN_MOM_ERR_PARAM;
    if (!c->accepting())
        return QN_MOM_ERR_NOTCONN;
    const ProtobufCMessageDescriptor *desc = pattern->descriptor;
    scan_req req;
    req.prefix = mom_type_prefix(desc, db, c->node_devid, c->node_slot, &req.exact);
    req.done = [c, db, desc, cb, ctx](int error, mom_pos at, std::vector<mom_entry> entries) {
        if (!live_clients().count(c))
            return;
        for (const mom_entry &e : entries) {
            if (c->key_too_long(e.key, "did not read"))
                continue;
            if (e.oversized) {
                c->refuse_read(e.key, e.size);
                continue;
            }
            if (!c->fresh(e.key, at))
                continue; /* a newer value of it was handed out already */
            ProtobufCMessage *value = decode(c, desc, e.key, e.bytes);
            if (!value)
                continue;
            c->mark_handed_out(e.key, at);
            delivery *d = make(c, 0, cb, ctx, db, QN_MOM_REPLY_SCAN);
            d->key = e.key;
            d->reply.res = &d->res;
            d->res.value = value;
            queue(c, d);
        }
        delivery *end = make(c, 0, cb, ctx, db, QN_MOM_REPLY_SCAN);
        end->reply.error = error;
        end->reply.scan_state = QN_MOM_SCAN_OVER;
        queue(c, end);
    };
    c->run_scan(std::move(req));
    return 0;
}

int qn_mom_subscribe(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qn_mom_cb_t cb,
                     void *ctx)
{
    return add_subscription(c, db, pattern, nullptr, 0, cb, ctx);
}

int qn_mom_subscribe_field(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, uint32_t,
                           const uint32_t *fields, qn_mom_cb_t cb, void *ctx, uint32_t nfields)
{
    return add_subscription(c, db, pattern, fields, nfields, cb, ctx);
}

int qn_mom_unsubscribe(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qn_mom_cb_t cb,
                       void *ctx)
{
    if (!c || !pattern || !pattern->descriptor)
        return QN_MOM_ERR_PARAM;
    if (!c->db_ready())
        return QN_MOM_ERR_NOTCONN;
    size_t before = c->subs.size();
    std::erase_if(c->subs, [&](const subscription &s) {
        return s.db == db && s.desc == pattern->descriptor && s.cb == cb && s.ctx == ctx;
    });
    if (c->subs.size() == before)
        return QN_MOM_ERR_PARAM;
    queue(c, make(c, 0, cb, ctx, db, QN_MOM_REPLY_UNSUBSCRIBED));
    return 0;
}

void qn_mom_refuse_subscriptions(const char *full_name, int error)
{
    if (!full_name)
        refused_types().clear();
    else if (error)
        refused_types()[full_name] = error;
    else
        refused_types().erase(full_name);
}

void qn_mom_client_free(qn_mom_client_t *c)
{
    if (!c)
        return;
    live_clients().erase(c);
    c->transport.reset();
    delete c;
}

const char *qn_mom_client_backend(const qn_mom_client_t *c)
{
    return c && c->transport ? c->transport->name() : "";
}

int qn_mom_client_is_up(const qn_mom_client_t *c)
{
    return c && c->transport && c->transport->up();
}

size_t qn_mom_client_link_error(const qn_mom_client_t *c, char *buf, size_t size)
{
    std::string why = c && c->transport ? c->transport->link_error() : std::string();
    if (buf && size > 0)
        snprintf(buf, size, "%s", why.c_str());
    return why.size();
}

size_t qn_mom_client_tracked_keys(const qn_mom_client_t *c)
{
    return c ? c->handed_out.size() : 0;
}

size_t qn_mom_client_outbox(const qn_mom_client_t *c)
{
    return c ? c->outbox.size() : 0;
}

void qn_mom_client_counters(const qn_mom_client_t *c, qn_mom_counters_t *out)
{
    if (c && out)
        *out = c->counters;
}

void qn_mom_client_set_node(qn_mom_client_t *c, int32_t devid, int32_t phy_slot)
{
    if (!c)
        return;
    c->node_devid = devid;
    c->node_slot = phy_slot;
}

int qn_mom_record_key(const qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, char *buf,
                      size_t size)
{
    std::string key;
    if (!c || !buf || !mom_key_of(record, db, c->node_devid, c->node_slot, &key) || key.size() >= size)
        return QN_MOM_ERR_PARAM;
    memcpy(buf, key.c_str(), key.size() + 1);
    return 0;
}

int qn_mom_set_raw(qn_mom_client_t *c, uint32_t db, const char *key, const void *bytes, size_t len)
{
    uint32_t kdb;
    std::string name;
    if (!c || !key || (!bytes && len) || !mom_key_split(key, &kdb, &name) || kdb != db)
        return QN_MOM_ERR_PARAM;
    return store(c, 'S', key, std::string(static_cast<const char *>(bytes), len));
}

int qn_mom_dump(qn_mom_client_t *c, uint32_t db, qn_mom_dump_cb_t cb, void *ctx)
{
    if (!c || !cb)
        return QN_MOM_ERR_PARAM;
    if (!c->accepting())
        return QN_MOM_ERR_NOTCONN;
    qn_thread_master *m = c->master;
    scan_req req;
    req.prefix = mom_db_prefix(db);
    req.exact = false;
    req.done = [m, cb, ctx](int, mom_pos, std::vector<mom_entry> entries) {
        struct dump_task {
            qn_mom_dump_cb_t cb;
            void *ctx;
            std::vector<mom_entry> entries;
        };
        auto *t = new dump_task{cb, ctx, std::move(entries)};
        qn_thread_add_event(
            m,
            [](qn_thread *th) {
                auto *d = static_cast<dump_task *>(QN_THREAD_ARG(th));
                for (const mom_entry &e : d->entries) {
                    uint32_t kdb;
                    std::string name;
                    if (!mom_key_split(e.key, &kdb, &name))
                        name.clear();
                    d->cb(d->ctx, e.key.c_str(), name.c_str(), e.oversized ? nullptr : e.bytes.data(), e.size);
                }
                d->cb(d->ctx, nullptr, nullptr, nullptr, 0);
                delete d;
                return 0;
            },
            t, 0, "qn_mom_dump");
    };
    c->run_scan(std::move(req));
    return 0;
}

} // extern "C"
