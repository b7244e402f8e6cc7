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
