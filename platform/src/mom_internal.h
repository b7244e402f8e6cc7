/* Inside the bus client: the key table, the transports and the hooks they
 * call back into the common client. */
#ifndef QN_MOM_INTERNAL_H
#define QN_MOM_INTERNAL_H

#include "qn_mom.h"

#include <functional>
#include <memory>
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

/* ---- transports ---- */

struct mom_entry {
    std::string key;
    std::string bytes;
};

struct mom_transport;

/* Hooks of the common client, called by the transports from the loop. */
struct mom_hooks {
    virtual ~mom_hooks() = default;
    virtual const char *module_name() const = 0;
    virtual void transport_up() = 0;
    virtual void transport_down() = 0;
    /* op: 'S' set, 'H' field set, 'D' delete; old/new empty when absent */
    virtual void transport_change(char op, const std::string &key, const std::string &old_bytes,
                                  const std::string &new_bytes) = 0;
};

using mom_scan_done = std::function<void(int error, std::vector<mom_entry> entries)>;

struct mom_transport {
    virtual ~mom_transport() = default;
    virtual const char *name() const = 0;
    virtual bool up() const = 0;
    virtual void start() = 0;
    virtual int put(char op, const std::string &key, const std::string &bytes) = 0;
    virtual int del(const std::string &key) = 0;
    /* Every record whose key starts with prefix (or equals it when exact). */
    virtual int scan(const std::string &prefix, bool exact, mom_scan_done done) = 0;
};

std::unique_ptr<mom_transport> mom_embedded_create(mom_hooks *hooks, struct qn_thread_master *master);
std::unique_ptr<mom_transport> mom_redis_create(mom_hooks *hooks, struct qn_thread_master *master,
                                                const std::string &host, int port, const std::string &user,
                                                const std::string &password);

/* Diagnostics of the client go to stderr, one line each, "qn_mom[<module>]: ". */
void mom_log(const char *module, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
