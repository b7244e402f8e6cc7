/* Message-bus (MOM) client: a key/value store of protobuf-c records with
 * publish/subscribe, addressed by database number.
 *
 * A record's storage key is its message's full name plus the values of its key
 * members (the `index` field of the daemon's records and the key members of
 * that index), so each node owns one record of each type and a second set
 * replaces the first.  Every callback (connect, reconnect, scan, subscription)
 * is delivered as a task of the event loop handed to qn_mom_client_init(),
 * never from inside the call that caused it.
 *
 * Two transports sit behind the same calls: an in-process store (the default,
 * for a stand-alone box) and a Redis server ([bus] url = redis://HOST:PORT in
 * the platform config file).
 *
 * Outages of the link to the store.  Before the client's first connection
 * every call answers QN_MOM_ERR_NOTCONN.  Afterwards, while the link is down:
 * writes (set, hmset, del) are kept in order in an outbox (at most 1024
 * writes and 8 MiB; the oldest is dropped first, with a line on stderr) and
 * made when the link is back; scans wait for the link; subscribing and
 * unsubscribing answer QN_MOM_ERR_NOTCONN.  A subscription made stands through
 * outages: the changes made while the link was down are delivered, in order,
 * once it is back (or, when the store could not keep them, the current
 * records of the subscribed types, each as a QN_MOM_REPLY_SET reply, and
 * none for a record deleted meanwhile).  After the store lost its records,
 * the client writes back the last known value of every record it wrote,
 * unless someone wrote it first; after it came back from an older copy of
 * itself, every such record it holds an older value of.  A write the store
 * refuses for a reason that passes (out of memory, read-only...) stays in the
 * outbox and is made again after a back-off; one it can never take is
 * dropped, with a line on stderr.
 *
 * Values: a record whose encoding is above QN_MOM_MAX_VALUE bytes is refused
 * (QN_MOM_ERR_TOOBIG), and a stored value above it is never read: scans skip
 * it, with a line on stderr. */
#ifndef QN_MOM_H
#define QN_MOM_H

#include <stdint.h>

#include <protobuf-c/protobuf-c.h>

#include "qn_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qn_mom_client qn_mom_client_t;

#define QN_MOM_TUNNER_DB 1
#define QN_MOM_MONITOR_DB 12
#define QN_MOM_DEV_DB 33

/* Reply kinds (qn_mom_reply.type). */
#define QN_MOM_REPLY_VALUE 1        /* a record handed over directly */
#define QN_MOM_REPLY_SET 4          /* a record was stored (qn_mom_set) */
#define QN_MOM_REPLY_HSET 6         /* a record was stored field by field (qn_mom_hmset) */
#define QN_MOM_REPLY_DEL 7          /* a record was deleted; res->value is null */
#define QN_MOM_REPLY_SCAN 24        /* one record of a scan, or the end of the scan */
#define QN_MOM_REPLY_UNSUBSCRIBED 28
#define QN_MOM_REPLY_SUBSCRIBED 29

/* qn_mom_reply.scan_state */
#define QN_MOM_SCAN_MORE 0
#define QN_MOM_SCAN_OVER 1

/* Reconnect callback types. */
#define QN_MOM_RECONNECT_LINK 1     /* the link to the store came back */
#define QN_MOM_RECONNECT_SERVER 2   /* the store changed server */

/* Non-zero results of the calls. */
#define QN_MOM_ERR_PARAM (-22)      /* bad argument or record without its key */
#define QN_MOM_ERR_NOTCONN (-107)   /* database not connected, or link down */
#define QN_MOM_ERR_NOMEM (-12)
#define QN_MOM_ERR_TOOBIG (-90)     /* value above QN_MOM_MAX_VALUE */

/* The largest record value the client writes or reads, in bytes; the
 * records of this system stay below 4 KiB. */
#define QN_MOM_MAX_VALUE 65536
/* The longest storage key the client writes or reads, in bytes; a longer
 * one is refused (QN_MOM_ERR_PARAM) or skipped, with a line on stderr. */
#define QN_MOM_MAX_KEY 512

typedef struct qn_mom_res {
    int error;                      /* non-zero: no usable value */
    ProtobufCMessage *value;        /* decoded record, owned by the client */
} qn_mom_res_t;

typedef struct qn_mom_reply {
    int error;                      /* non-zero: the reply is invalid */
    int type;                       /* QN_MOM_REPLY_* */
    int scan_state;                 /* QN_MOM_SCAN_OVER marks the end of a scan */
    uint32_t db;
    const char *key;                /* storage key of the record, when there is one */
    qn_mom_res_t *res;              /* null for confirmations and the end of a scan */
} qn_mom_reply_t;

/* Scan and subscription callback.  The reply and the decoded record belong to
 * the client and are freed when the callback returns. */
typedef int (*qn_mom_cb_t)(void *ctx, qn_mom_reply_t *reply);
/* Called once when a database connection stands. */
typedef int (*qn_mom_connect_cb_t)(qn_mom_client_t *client, uint32_t db, void *ctx);
/* Called when a connected database's link came back (type QN_MOM_RECONNECT_*);
 * the subscriptions stand, and the changes missed are on their way. */
typedef int (*qn_mom_reconnect_cb_t)(qn_mom_client_t *client, uint32_t db, int type);

/* A client for `module`, on the event loop `master`; null when the config file
 * cannot be read or the bus url is not understood (reason on stderr). */
qn_mom_client_t *qn_mom_client_init(const char *module, struct qn_thread_master *master);
/* Asks for database `db`; `cb` runs once the database is usable.  0, or
 * negative for a bad argument.  Once one database is connected, the calls
 * below reach any database number (see the outage rules above); before that
 * they return QN_MOM_ERR_NOTCONN. */
int qn_mom_client_connect(qn_mom_client_t *client, uint32_t db, qn_mom_connect_cb_t cb, void *ctx);
int qn_mom_client_set_reconnect_cb(qn_mom_client_t *client, uint32_t db, qn_mom_reconnect_cb_t cb);

/* Stores `record` under its key.  `flags` and `ttl` are reserved (0).  0
 * means taken: made, or kept for the link's return. */
int qn_mom_set(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t ttl);
/* The same, announced to subscribers as a field-by-field store. */
int qn_mom_hmset(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t ttl);
/* Deletes the record whose key `record` carries; deleting a missing record is 0. */
int qn_mom_del(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t ttl);
/* Calls cb once per stored record of the pattern's type, then once with the
 * end-of-scan reply.  A record of which a newer value was already handed to
 * a callback of this client is left out. */
int qn_mom_scan(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                qn_mom_cb_t cb, void *ctx);
/* Confirms with a QN_MOM_REPLY_SUBSCRIBED reply, then calls cb for every
 * change of a record of the pattern's type.  QN_MOM_ERR_NOTCONN while the
 * link is down. */
int qn_mom_subscribe(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                     qn_mom_cb_t cb, void *ctx);
/* The same, limited to changes of the listed field numbers. */
int qn_mom_subscribe_field(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                           const uint32_t *fields, qn_mom_cb_t cb, void *ctx, uint32_t nfields);
/* Cancels the subscriptions of (db, type, cb, ctx) and confirms with a
 * QN_MOM_REPLY_UNSUBSCRIBED reply; -22 (QN_MOM_ERR_PARAM) when none stands. */
int qn_mom_unsubscribe(qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                       qn_mom_cb_t cb, void *ctx);

#ifdef __cplusplus
}
#endif

#endif
