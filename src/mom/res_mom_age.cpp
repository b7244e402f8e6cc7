/* Time of the last record of each kind per node, and its age. */
#include "mom/res_mom_age.h"

#include <time.h>

uint64_t res_mom_age_now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

void res_mom_node_mark_rx(struct res_mom_node *node, enum res_mom_rec_kind kind)
{
    if (!node || kind < 0 || kind >= RES_MOM_REC_KIND_NUM)
        return;
    uint64_t now = res_mom_age_now_ms();
    /* 0 means "never": a clock that reads 0 still counts as a reception. */
    node->rx_ms[kind] = now ? now : 1;
}

double res_mom_node_age_s(const struct res_mom_node *node, enum res_mom_rec_kind kind, uint64_t now_ms)
{
    if (!node || kind < 0 || kind >= RES_MOM_REC_KIND_NUM || node->rx_ms[kind] == 0)
        return -1;
    uint64_t at = node->rx_ms[kind];
    return now_ms > at ? static_cast<double>(now_ms - at) / 1000.0 : 0.0;
}

const char *res_mom_rec_kind_name(enum res_mom_rec_kind kind)
{
    switch (kind) {
    case RES_MOM_REC_IO:
        return "io";
    case RES_MOM_REC_VOL:
        return "capacity";
    case RES_MOM_REC_RO:
        return "readonly";
    case RES_MOM_REC_LIFETIME:
        return "lifetime";
    default:
        return "unknown";
    }
}
