/* Inside the bus client: the key table, the transports and the hooks they
 * call back into the common client. */
#ifndef QN_MOM_INTERNAL_H
#define QN_MOM_INTERNAL_H

#include "qn_mom.h"
#include "qn_mom_standin.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

/* ---- keys (mom_keys.cpp) ---- */

/* Storage keys read "qnmom:<db>:<full name>:<key values>", the key values
 * joined by '.' ("0.1.0.0"), or "@<devid>.<slot>" for node-scoped records. */
bool mom_key_of(const ProtobufCMessage *record, uint32_t db, int32_t node_devid, int32_t node_slot,
                std::string *key);
/* Prefix shared by every key of the type in db ("qnmom:12:p_utils.stovig_io:");
 * for a node-scoped type the whole key of the client's node. */
std::string mom_type_prefix(const ProtobufCMessageDescriptor *desc, uint32_t db, int32_t node_devid,
                            int32_t node_slot, bool *exact);
/* Splits a storage key; false when it is not one. */
bool mom_key_split(const std::string &key, uint32_t *db, std::string *full_name);
std::string mom_db_prefix(uint32_t db);

/* The raw encodings of field `number` in a packed record, concatenated;
 * false when the bytes are not a well-formed record. */
bool mom_wire_field(const std::string &bytes, uint32_t number, std::string *out);

/* ---- positions in the store's change log ---- */

/* Every change the store makes is numbered; a Redis stream id "<ms>-<seq>",
 * or a plain counter ({0, n}) in the in-process store.  {0, 0} comes before
 * every change. */
struct mom_pos {
    uint64_t ms = 0;
    uint64_t seq = 0;
    friend bool operator<(const mom_pos &a, const mom_pos &b)
    {
        return a.ms < b.ms || (a.ms == b.ms && a.seq < b.seq);
    }
    friend bool operator<=(const mom_pos &a, const mom_pos &b) { return !(b < a); }
};
bool mom_pos_parse(const std::string &text, mom_pos *out);
std::string mom_pos_text(const mom_pos &p);

/* ---- transports ---- */

/* One stored record as a scan returns it.  A value above QN_MOM_MAX_VALUE is
 * not read: `oversized` is set, `bytes` is empty and `size` says how big. */
struct mom_entry {
    std::string key;
    std::string bytes;
    size_t size = 0;
    bool oversized = false;
};

/* One change of the store, in the store's order. */
struct mom_change {
    mom_pos pos;
    char op = 'S';              /* 'S' set, 'H' field set, 'D' delete */
    std::string key;
    std::string old_bytes;      /* empty when absent */
    std::string new_bytes;      /* empty for a delete */
    bool from_self = false;     /* written by this client */
};

/* What the transport found when its link (re)started. */
struct mom_link_up {
    bool first = false;         /* the first link of this client */
    bool store_reset = false;   /* the store lost its records since the last link */
    bool snapshot = false;      /* the change log could not fill the gap: entries
                                 * hold the current records asked for */
    bool rolled_back = false;   /* the store came back from an older copy of
                                 * itself (same lifetime, a server restart):
                                 * entries hold the client's own records as
                                 * stored, but for those in changed_later */
    mom_pos at;                 /* log position of the snapshot */
    mom_pos from;               /* the change feed goes on after this position */
    std::vector<mom_entry> entries;
    /* Own records that someone changed after the client's last position: the
     * change log brings their newer values. */
    std::vector<std::string> changed_later;
};

/* What a snapshot must cover: every record under a prefix, or one key.  An
 * own record (exact) is read also after a roll-back of the store. */
struct mom_spec {
    std::string prefix;
    bool exact = false;
    bool own = false;
};

/* Hooks of the common client, called by the transports from the loop. */
struct mom_hooks {
    virtual ~mom_hooks() = default;
    virtual const char *module_name() const = 0;
    virtual void transport_up(const mom_link_up &up) = 0;
    /* The link went; why, as the store or the system said it. */
    virtual void transport_down(const std::string &why) = 0;
    virtual void transport_change(const mom_change &change) = 0;
    /* The records a snapshot must read: subscribed types, then own records. */
    virtual std::vector<mom_spec> snapshot_specs() const = 0;
};

/* A write's answer: 0, QN_MOM_ERR_NOTCONN when the link went before the
 * answer (the write may or may not have been made), or another negative
 * code with the store's reason. */
using mom_write_done = std::function<void(int error, const std::string &why)>;
/* A scan's answer, with the log position the records were read at;
 * QN_MOM_ERR_NOTCONN when the link went first. */
using mom_scan_done = std::function<void(int error, mom_pos at, std::vector<mom_entry> entries)>;

struct mom_transport {
    virtual ~mom_transport() = default;
    virtual const char *name() const = 0;
    virtual bool up() const = 0;
    virtual void start() = 0;
    /* op: 'S' set, 'H' field set, 'D' delete, 'R' set only when the key is
     * missing (announced as 'S').  Non-zero when it cannot even be sent. */
    virtual int write(char op, const std::string &key, const std::string &bytes, mom_write_done done) = 0;
    /* Every record whose key starts with prefix (or equals it when exact). */
    virtual int scan(const std::string &prefix, bool exact, mom_scan_done done) = 0;
    /* Why the last attempt to reach the store failed; empty when it did not. */
    virtual std::string link_error() const { return {}; }
};

std::unique_ptr<mom_transport> mom_embedded_create(mom_hooks *hooks, struct qn_thread_master *master);
std::unique_ptr<mom_transport> mom_redis_create(mom_hooks *hooks, struct qn_thread_master *master,
                                                const std::string &host, int port, const std::string &user,
                                                const std::string &password, const std::string &writer_id);

/* ---- the outbox of writes (mom_outbox.cpp) ---- */

class mom_outbox {
public:
    mom_outbox() = default;
    mom_outbox(const mom_outbox &) = delete;
    mom_outbox &operator=(const mom_outbox &) = delete;
    ~mom_outbox();
    /* Where the writes go, the loop of the retry timer and the counters. */
    void attach(const std::string *module, mom_transport *transport, struct qn_thread_master *master,
                qn_mom_counters_t *counters);
    /* Queues a write (op as mom_transport::write); flush() sends it. */
    void add(char op, const std::string &key, const std::string &bytes);
    /* Sends what may go now. */
    void flush();
    /* Writes not yet taken by the store. */
    size_t size() const { return writes.size(); }
    /* Keys with a write not yet taken. */
    std::set<std::string> keys() const;

private:
    struct entry {
        uint64_t id = 0;
        char op = 'S';
        std::string key;
        std::string bytes;
        bool in_flight = false;     /* sent, answer awaited */
        bool refused = false;       /* refused for a reason that passes: goes again */
    };
    bool may_send() const;
    std::deque<entry>::iterator find(uint64_t id);
    /* Removes a write from the outbox; the iterator to the one after it. */
    std::deque<entry>::iterator drop(std::deque<entry>::iterator it);
    void answered(uint64_t id, int error, const std::string &why);
    void taken(std::deque<entry>::iterator it);
    void refused(std::deque<entry>::iterator it, const std::string &why);
    static void on_retry(int fd, short what, void *arg);

    const std::string *module = nullptr;
    mom_transport *transport = nullptr;
    struct qn_thread_master *loop = nullptr;
    qn_mom_counters_t *counters = nullptr;
    std::deque<entry> writes;       /* in the order made */
    size_t bytes_held = 0;
    size_t in_flight = 0;
    uint64_t next_id = 1;
    bool flushing = false;
    struct event *retry = nullptr;
    int retry_ms = 100;
    bool refusing = false;          /* in a run of refusals */
    std::chrono::steady_clock::time_point refusing_logged;
};

/* Diagnostics of the client go to stderr, one line each, "qn_mom[<module>]: ". */
void mom_log(const char *module, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
