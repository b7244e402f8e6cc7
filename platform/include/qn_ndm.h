/* Device manager client: the local node's identity and role, slot and card
 * names, and the device manager's object cache.  The stand-in answers from
 * the [node] section of the platform config file and from the device
 * manager's records on the bus (card records, the node's role record). */
#ifndef QN_NDM_H
#define QN_NDM_H

#include <stdint.h>

#include "qn_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Device manager cache objects. */
#define DM_OBJ_DP_LIB_MY_INFO 2
#define DM_OBJ_3 3
#define DM_OBJ_DP_LIB_MY_CHSS_INFO 13
#define DM_OBJ_DP_LIB_GROLE 15
#define DM_OBJ_DEVICE_STATIC_INFO 16
#define DM_OBJ_CARD_INFO 17

/* Node types of the device manager: 1 and 2 take part in the role election. */
#define NDM_NODE_TYPE_BOX 1
#define NDM_NODE_TYPE_CM 2
#define NDM_NODE_TYPE_LC 3

/* Asks the cache to follow an object; 0, or -1 for an unknown object. */
int dm_cache_sub_obj(uint32_t obj);
/* Starts the cache on the loop; 0, or -1 when the bus cannot be reached. */
int dm_cache_init(struct qn_thread_master *master, const char *name);

int32_t ndm_get_my_devid(void);
int32_t ndm_get_my_phy_slot(void);
/* The user slot, or negative when it is not known. */
int32_t ndm_get_my_user_slot(void);
int32_t ndm_get_my_node_type(void);
/* The node's global role (p_dev.dm_role_e), from its role record on the bus
 * when there is one, else from the config file. */
int32_t ndm_get_my_dev_grole(void);
/* The slot's name as the user sees it; 0, or -1 for a bad argument. */
int ndm_get_user_slot_name(int32_t devid, int32_t user_slot, int32_t sslot, char *buf, uint32_t size);
/* The name of the card in a user slot; 0, or -1 when no card is known there. */
int ndm_get_card_name_by_slot(int32_t devid, int32_t user_slot, int32_t sslot, char *buf, uint32_t size);

/* Stand-in only (tests): forget the cache and its bus client. */
void dm_cache_reset(void);

#ifdef __cplusplus
}
#endif

#endif
