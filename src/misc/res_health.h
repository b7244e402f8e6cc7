/* Health flags: what a node computes for each watched disk, partition and
 * flash device, and sends in its records.  The master only reports changes
 * between them. */
#ifndef RES_HEALTH_H
#define RES_HEALTH_H

enum res_health {
    /* Healthy, and no warning seen since the start; on the master, a flag
     * not yet known. */
    RES_HEALTH_OK = 0,
    /* Healthy again after a warning (one pass, then back to OK where the
     * monitor clears it). */
    RES_HEALTH_RECOVERED = 1,
    /* The threshold is crossed: warning raised. */
    RES_HEALTH_WARNING = 2,
};

#endif
