/* Capability lookups: the device type at start-up and the flash figures. */
#ifndef RES_MOM_CAP_H
#define RES_MOM_CAP_H

#include <stdint.h>

#include "qn_mom.h"

#define RES_DEV_TYPE_BOX 1
#define RES_DEV_TYPE_CM 2
#define RES_DEV_TYPE_LC 3

/* Starts the capability client on the bus client; -1 for a null client or an
 * empty module name. */
int res_mom_cap_init(qn_mom_client_t *client, const char *module);
int stovig_cap_get_cap_int32(const char *path, int32_t *out);
int res_cap_get_device_type(qn_mom_client_t *client, uint32_t *type);
int res_get_flash_cap(void);

#endif
