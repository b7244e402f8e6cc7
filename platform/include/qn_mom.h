/* Message-bus (MOM) client.  The calls themselves come with the bus stand-in;
 * the handle type is shared by the capability client. */
#ifndef QN_MOM_H
#define QN_MOM_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qn_mom_client qn_mom_client_t;

#define QN_MOM_TUNNER_DB 1
#define QN_MOM_MONITOR_DB 12
#define QN_MOM_DEV_DB 33

#ifdef __cplusplus
}
#endif

#endif
