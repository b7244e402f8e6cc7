/* Bus connection and master role: the client, the connection and
 * subscription words, the devinfo and master timers, and the operation codes
 * shared by every bus handler. */
#ifndef RES_MOM_MAIN_H
#define RES_MOM_MAIN_H

#include <stdint.h>

#include "qn_mom.h"
#include "qn_thread.h"

/* Operation codes of the bus handlers. */
enum {
    RES_MOM_OP_NA = 0,
    RES_MOM_OP_SEND = 1,
    RES_MOM_OP_DEL = 2,
    RES_MOM_OP_CLEAN = 3,
    RES_MOM_OP_GET = 4,
    RES_MOM_OP_SCAN = 5,
    RES_MOM_OP_PUB = 6,
    RES_MOM_OP_SUB = 7,
    RES_MOM_OP_UNSUB = 8,
    RES_MOM_OP_SHOW = 9,
    RES_MOM_OP_SYNC = 10,
    RES_MOM_OP_ALL = 11,
};
extern const char *const res_mom_op_name[12];
#define RES_MOM_OP_VALID(op) ((op) >= RES_MOM_OP_SEND && (op) <= RES_MOM_OP_SYNC)

/* Connection word. */
#define RES_MOM_CONN_TUNNER 2u
#define RES_MOM_CONN_MONITOR 4u
#define RES_MOM_CONN_DEV 8u
#define RES_MOM_CONN_DEV_READY 64u
#define RES_MOM_CONN_LOCAL 16u
#define RES_MOM_CONN_LOCAL_READY 32u

/* Subscription word. */
#define RES_MOM_SUB_ROLE 2u
#define RES_MOM_SUB_CARD 4u
#define RES_MOM_SUB_CONF 8u
#define RES_MOM_SUB_RO 16u
#define RES_MOM_SUB_IO 32u
#define RES_MOM_SUB_VOL 64u
#define RES_MOM_SUB_DBG 128u
#define RES_MOM_SUB_DISK 256u

/* Roles besides p_dev.dm_role_e: unset, and no part in the role election. */
#define RES_MOM_ROLE_UNSET (-1)
#define RES_MOM_ROLE_NO_ELECTION 4

/* Reply kinds the handlers act on. */
#define RES_MOM_KIND_VALUE_DIRECT 1
#define RES_MOM_KIND_VALUE 4
#define RES_MOM_KIND_VALUE_FIELDS 6
#define RES_MOM_KIND_SCAN_VALUE 24
#define RES_MOM_KIND_UNSUBSCRIBED 28
#define RES_MOM_KIND_SUBSCRIBED 29
#define RES_MOM_SCAN_OVER 1

#define RES_MOM_TIMER_PERIOD 5
#define RES_MOM_UPGRADE_DB 3

/* The skeleton every bus callback starts with.  The helpers log under the
 * source file and the name of the callback that calls them. */
enum res_mom_step {
    RES_MOM_STEP_INVALID = -1, /* no reply, or one with an error: "msg is invalid." logged */
    RES_MOM_STEP_DONE = 0,     /* a confirmed subscription or the end of a scan, logged */
    RES_MOM_STEP_RECORD = 1,   /* a record (or its absence) for the callback to save */
};
/* Whether a reply can be read at all; "msg is invalid." when not. */
bool res_mom_reply_ok(const char *file, const char *fn, const qn_mom_reply_t *reply);
/* A subscription reply: on confirmation logs `subscribed` and sets `bit` (0
 * for none) in the subscription word. */
int res_mom_sub_step(const char *file, const char *fn, const qn_mom_reply_t *reply, const char *subscribed,
                     uint32_t bit);
/* A scan reply: at the end of the scan logs `over`.  The step is also the
 * scan callback's result for anything but a record. */
int res_mom_scan_step(const char *file, const char *fn, const qn_mom_reply_t *reply, const char *over);
#define RES_MOM_REPLY_OK(reply) res_mom_reply_ok(RES_SRC_FILE, __func__, (reply))
#define RES_MOM_SUB_STEP(reply, subscribed, bit) res_mom_sub_step(RES_SRC_FILE, __func__, (reply), (subscribed), (bit))
#define RES_MOM_SCAN_STEP(reply, over) res_mom_scan_step(RES_SRC_FILE, __func__, (reply), (over))

/* The record carried by a subscription or scan reply, or null. */
const ProtobufCMessage *res_mom_reply_record(const qn_mom_reply_t *reply);
/* The value of a reply as the save functions take it: the record itself for
 * kinds 1 and 24, the nested result for kinds 4 and 6. */
void *res_mom_reply_value(qn_mom_reply_t *reply);

extern uint32_t res_mom_conn_flag;
extern uint32_t res_mom_sub_flag;
extern qn_mom_client_t *res_mom_client;
extern struct qn_thread_master *res_mom_master;

int res_mom_init(struct qn_thread_master *master, uint32_t *device_type);
int res_mom_check_master(void);
int res_mom_master_handle(void);

int res_mom_tunner_db_cb(qn_mom_client_t *client, uint32_t db, void *ctx);
int res_mom_monitor_db_cb(qn_mom_client_t *client, uint32_t db, void *ctx);
int res_mom_dev_db_cb(qn_mom_client_t *client, uint32_t db, void *ctx);
int res_mom_db_rcb(qn_mom_client_t *client, uint32_t db, int type);
int res_mom_get_devinfo(struct qn_thread *thread);
int res_mom_master_timer(struct qn_thread *thread);
/* Cancels the pending devinfo and master timers (the daemon never stops
 * them; tests that start the bus side more than once do). */
void res_mom_timers_cancel(void);

#endif
