/* Stand-in specifics of the bus client, for the platform tools (qn-bus) and
 * the tests.  The daemon never calls these. */
#ifndef QN_MOM_STANDIN_H
#define QN_MOM_STANDIN_H

#include <stddef.h>
#include <stdint.h>

#include "qn_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Releases a client and its transport; pending deliveries are dropped. */
void qn_mom_client_free(qn_mom_client_t *client);
/* "embedded" or "redis". */
const char *qn_mom_client_backend(const qn_mom_client_t *client);
/* Whether the transport is up. */
int qn_mom_client_is_up(const qn_mom_client_t *client);
/* Why the last attempt to reach the store failed ("redis://HOST:PORT:
 * Connection refused"), copied into buf; the length, 0 when it did not. */
size_t qn_mom_client_link_error(const qn_mom_client_t *client, char *buf, size_t size);
/* Writes not yet taken by the store. */
size_t qn_mom_client_outbox(const qn_mom_client_t *client);
/* Keys whose newest handed-out position the client keeps (while a scan is
 * on its way, or the change feed is behind a scan). */
size_t qn_mom_client_tracked_keys(const qn_mom_client_t *client);

typedef struct qn_mom_counters {
    unsigned long long dropped_writes;  /* outbox full: oldest write dropped */
    unsigned long long refused_writes;  /* value above QN_MOM_MAX_VALUE */
    unsigned long long refused_reads;   /* stored value above QN_MOM_MAX_VALUE */
    unsigned long long store_refusals;  /* refusals that pass (out of memory, read-only...): write kept */
    unsigned long long rejected_writes; /* refused by the store for good: write dropped */
    unsigned long long refused_keys;    /* key above QN_MOM_MAX_KEY, written or read */
} qn_mom_counters_t;
void qn_mom_client_counters(const qn_mom_client_t *client, qn_mom_counters_t *out);

/* Records that exist once per node (the device manager's role record) are
 * kept under the node they belong to.  A client addresses the node of its
 * config file ([node] devid, phy_slot) unless told otherwise here. */
void qn_mom_client_set_node(qn_mom_client_t *client, int32_t devid, int32_t phy_slot);

/* Fault injection (tests): subscriptions to records of `full_name` made by
 * any client of this process fail with `error` (0 lifts the fault; a null
 * name lifts every fault). */
void qn_mom_refuse_subscriptions(const char *full_name, int error);

/* Forgets every record of the in-process store (tests). */
void qn_mom_embedded_reset(void);

/* The storage key of `record` in `db` written into buf; 0, or -22 when the
 * record lacks its key. */
int qn_mom_record_key(const qn_mom_client_t *client, uint32_t db, const ProtobufCMessage *record, char *buf,
                      size_t size);

/* Stores raw bytes under a storage key, as a foreign writer would; the change
 * is announced like a qn_mom_set. */
int qn_mom_set_raw(qn_mom_client_t *client, uint32_t db, const char *key, const void *bytes, size_t len);

/* Every stored record of `db`, all types and nodes: cb(ctx, key, full name,
 * bytes, len) once per record, in key order, then cb(ctx, null, null, null, 0).
 * A value above QN_MOM_MAX_VALUE comes with null bytes and its size.
 * Delivered as tasks of the loop. */
typedef void (*qn_mom_dump_cb_t)(void *ctx, const char *key, const char *full_name, const void *bytes,
                                 size_t len);
int qn_mom_dump(qn_mom_client_t *client, uint32_t db, qn_mom_dump_cb_t cb, void *ctx);

#ifdef __cplusplus
}
#endif

#endif
