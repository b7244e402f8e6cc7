/* A node record filled from this node's own monitors, for the nodes that do
 * not hold their figures in the store (every node but the master). */
#ifndef RES_MOM_METRICS_LOCAL_H
#define RES_MOM_METRICS_LOCAL_H

#include "mom/res_mom_data.h"

/* Fills `node` (its identity copied from the local node) with the monitors'
 * current disk I/O, partition and lifetime tables.  0, or -1 when an entry
 * cannot be allocated (what was filled stays valid).  Free with
 * res_mom_node_lists_clear(). */
int res_mom_metrics_local_fill(struct res_mom_node *node);

#endif
