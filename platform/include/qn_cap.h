/* Capability service client: product facts looked up by path.  The stand-in
 * answers from the [cap] section of the platform config file, keyed by the
 * last component of the path (CAP_DEV_TYPE = BOX); without one it describes a
 * stand-alone box with an eMMC part, and an empty value removes a capability. */
#ifndef QN_CAP_H
#define QN_CAP_H

#include <stdint.h>

#include "qn_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 0, or negative when the service cannot be reached. */
int libqn_cap_init(qn_mom_client_t *client, const char *module);
/* 0 and *value, or negative when the path has no integer value. */
int libqn_cap_get_capacity_int32(qn_mom_client_t *client, const char *path, int32_t *value);
/* 0, the value copied into buf (at most size - 1 characters, terminated) and
 * its length in *len; negative when the path has no value. */
int libqn_cap_get_capacity_str(qn_mom_client_t *client, const char *path, char *buf, uint32_t size, uint32_t *len);

#ifdef __cplusplus
}
#endif

#endif
