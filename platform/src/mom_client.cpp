/* The bus client calls.  The common part keeps the connection requests, the
 * subscriptions and the reconnect callbacks, decodes what the transport
 * delivers and hands every reply to its callback as a task of the event loop. */
#include "mom_internal.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

namespace {

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

    const char *module_name() const override { return module.c_str(); }
    void transport_up() override;
    void transport_down() override;
    void transport_change(char op, const std::string &key, const std::string &old_bytes,
                          const std::string &new_bytes) override;
    void announce_connects();
    bool db_ready(uint32_t db) const;
    bool sub_alive(uint64_t id) const
    {
        for (const subscription &s : subs)
            if (s.id == id)
                return true;
        return false;
    }
};

void mom_log(const char *module, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "qn_mom[%s]: ", module);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    fflush(stderr);
    va_end(ap);
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
            if (it != c->connects.end() && it->second.cb)
                it->second.cb(c, d->db, it->second.ctx);
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

int store(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, char op)
{
    if (!c || !record)
        return QN_MOM_ERR_PARAM;
    std::string key;
    if (!mom_key_of(record, db, c->node_devid, c->node_slot, &key))
        return QN_MOM_ERR_PARAM;
    if (!c->db_ready(db))
        return QN_MOM_ERR_NOTCONN;
    size_t len = protobuf_c_message_get_packed_size(record);
    std::string bytes(len, '\0');
    protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(bytes.data()));
    return c->transport->put(op, key, bytes);
}

int add_subscription(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, const uint32_t *fields,
                     uint32_t nfields, qn_mom_cb_t cb, void *ctx)
{
    if (!c || !pattern || !pattern->descriptor || !cb || (nfields && !fields))
        return QN_MOM_ERR_PARAM;
    if (c->connects.empty())
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

/* Any database is reachable once the client has connected one and the link
 * is up: a daemon may read a database it never asked a connect callback for. */
bool qn_mom_client::db_ready(uint32_t) const
{
    return !connects.empty() && transport && transport->up();
}

void qn_mom_client::announce_connects()
{
    for (auto &[db, req] : connects) {
        if (!req.announced) {
            req.announced = true;
            queue_connect(this, db, 0);
        }
    }
}

void qn_mom_client::transport_up()
{
    if (was_up && down_since_up) {
        mom_log(module.c_str(), "link to the store is back, %zu subscriptions stand again", subs.size());
        for (auto &[db, cb] : reconnects)
            if (connects.count(db) && connects[db].announced)
                queue_connect(this, db, QN_MOM_RECONNECT_LINK);
    }
    was_up = true;
    down_since_up = false;
    announce_connects();
}

void qn_mom_client::transport_down()
{
    if (!down_since_up)
        mom_log(module.c_str(), "link to the store lost, retrying");
    down_since_up = true;
}

void qn_mom_client::transport_change(char op, const std::string &key, const std::string &old_bytes,
                                     const std::string &new_bytes)
{
    uint32_t db;
    std::string full_name;
    if (!mom_key_split(key, &db, &full_name))
        return;
    std::vector<subscription> matching;
    for (const subscription &s : subs) {
        if (s.db != db || full_name != s.desc->name)
            continue;
        if (s.exact ? key != s.prefix : key.compare(0, s.prefix.size(), s.prefix) != 0)
            continue;
        if (op != 'D' && !fields_changed(s, old_bytes, new_bytes))
            continue;
        matching.push_back(s);
    }
    for (const subscription &s : matching) {
        int type = op == 'D' ? QN_MOM_REPLY_DEL : op == 'H' ? QN_MOM_REPLY_HSET : QN_MOM_REPLY_SET;
        ProtobufCMessage *value = nullptr;
        if (op != 'D') {
            value = decode(this, s.desc, key, new_bytes);
            if (!value)
                continue;
        }
        delivery *d = make(this, s.id, s.cb, s.ctx, db, type);
        d->key = key;
        d->reply.res = &d->res;
        d->res.value = value;
        queue(this, d);
    }
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
        c->transport = mom_redis_create(c, master, host, port, cfg->bus_user, cfg->bus_password);
    }
    if (!c->transport) {
        delete c;
        return nullptr;
    }
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
    return store(c, db, record, 'S');
}

int qn_mom_hmset(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, uint32_t, uint32_t)
{
    return store(c, db, record, 'H');
}

int qn_mom_del(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *record, uint32_t, uint32_t)
{
    if (!c || !record)
        return QN_MOM_ERR_PARAM;
    std::string key;
    if (!mom_key_of(record, db, c->node_devid, c->node_slot, &key))
        return QN_MOM_ERR_PARAM;
    if (!c->db_ready(db))
        return QN_MOM_ERR_NOTCONN;
    return c->transport->del(key);
}

int qn_mom_scan(qn_mom_client_t *c, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qn_mom_cb_t cb,
                void *ctx)
{
    if (!c || !pattern || !pattern->descriptor || !cb)
        return QN_MOM_ERR_PARAM;
    if (!c->db_ready(db))
        return QN_MOM_ERR_NOTCONN;
    const ProtobufCMessageDescriptor *desc = pattern->descriptor;
    bool exact = false;
    std::string prefix = mom_type_prefix(desc, db, c->node_devid, c->node_slot, &exact);
    return c->transport->scan(prefix, exact, [c, db, desc, cb, ctx](int error, std::vector<mom_entry> entries) {
        if (!live_clients().count(c))
            return;
        for (const mom_entry &e : entries) {
            ProtobufCMessage *value = decode(c, desc, e.key, e.bytes);
            if (!value)
                continue;
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
    });
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
    if (!c->db_ready(db))
        return QN_MOM_ERR_NOTCONN;
    return c->transport->put('S', key, std::string(static_cast<const char *>(bytes), len));
}

int qn_mom_dump(qn_mom_client_t *c, uint32_t db, qn_mom_dump_cb_t cb, void *ctx)
{
    if (!c || !cb)
        return QN_MOM_ERR_PARAM;
    if (!c->db_ready(db))
        return QN_MOM_ERR_NOTCONN;
    qn_thread_master *m = c->master;
    return c->transport->scan(mom_db_prefix(db), false, [m, cb, ctx](int, std::vector<mom_entry> entries) {
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
                    d->cb(d->ctx, e.key.c_str(), name.c_str(), e.bytes.data(), e.bytes.size());
                }
                d->cb(d->ctx, nullptr, nullptr, nullptr, 0);
                delete d;
                return 0;
            },
            t, 0, "qn_mom_dump");
    });
}

} // extern "C"
