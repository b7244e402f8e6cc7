/* Per-node store: one record per node of the system, the local node first,
 * then the other nodes by ascending user slot.  Each node owns its disk I/O,
 * process I/O, partition and lifetime lists.  Event-loop thread only. */
#ifndef RES_MOM_DATA_H
#define RES_MOM_DATA_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "proto/p_utils.pb-c.h"

/* Circular doubly linked list, head inside the owner, link inside each entry. */
struct res_list_head {
    struct res_list_head *next;
    struct res_list_head *prev;
};

#define RES_LIST_POISON1 ((struct res_list_head *)0x100100)
#define RES_LIST_POISON2 ((struct res_list_head *)0x200200)

#define res_container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))
#define res_list_entry(ptr, type, member) res_container_of(ptr, type, member)
#define res_list_for_each_safe(pos, n, head) \
    for (pos = (head)->next, n = pos->next; pos != (head); pos = n, n = pos->next)

static inline void res_list_init(struct res_list_head *h)
{
    h->next = h;
    h->prev = h;
}
static inline int res_list_empty(const struct res_list_head *h)
{
    return h->next == h;
}
static inline void res_list_insert(struct res_list_head *n, struct res_list_head *prev, struct res_list_head *next)
{
    next->prev = n;
    n->next = next;
    n->prev = prev;
    prev->next = n;
}
static inline void res_list_add_tail(struct res_list_head *n, struct res_list_head *head)
{
    res_list_insert(n, head->prev, head);
}
static inline void res_list_del(struct res_list_head *e)
{
    e->next->prev = e->prev;
    e->prev->next = e->next;
    e->next = RES_LIST_POISON1;
    e->prev = RES_LIST_POISON2;
}

#define RES_MOM_NAME_LEN 32
#define RES_MOM_PATH_LEN 64
#define RES_MOM_CMD_LEN 128

struct res_mom_disk_io_node {
    char disk_name[RES_MOM_NAME_LEN];
    double io_read;
    double io_write;
    double io_util;
    uint32_t io_flag;           /* enum res_health; OK: not yet known */
    uint32_t seen;
    struct res_list_head list;
};

struct res_mom_proc_io_node {
    uint32_t proc_id;
    char proc_name[RES_MOM_NAME_LEN];
    double io_read;
    double io_write;
    double io_swap;
    double io_util;
    char cmd[RES_MOM_CMD_LEN];
    struct res_list_head list;
};

struct res_mom_part_node {
    char part_path[RES_MOM_PATH_LEN];
    char part_uname[RES_MOM_PATH_LEN];
    uint64_t total_vol;
    uint64_t use_vol;
    uint32_t vol_flag;          /* enum res_health, as last received */
    uint32_t ro_flag;           /* enum res_health, as last received */
    uint32_t exist;
    uint32_t vol_visible;
    uint32_t ro_visible;
    uint32_t seen;
    struct res_list_head list;
};

struct res_mom_lifetime_node {
    char disk_name[RES_MOM_NAME_LEN];
    uint64_t power_time;
    uint64_t left_lifetime;
    int32_t flag;               /* enum res_health; OK: not yet known */
    uint32_t seen;
    struct res_list_head list;
};

/* The kinds of record a node publishes, as the store times them. */
enum res_mom_rec_kind {
    RES_MOM_REC_IO = 0,     /* disk and process I/O */
    RES_MOM_REC_VOL,        /* partition capacity */
    RES_MOM_REC_RO,         /* read-only mounts */
    RES_MOM_REC_LIFETIME,   /* flash lifetime */
    RES_MOM_REC_KIND_NUM
};

/* One node (called local_list in the log texts).  devid, slotid and sslotid
 * are the node's index, compared as one unit. */
struct res_mom_node {
    int32_t devid;
    int32_t slotid;
    int32_t sslotid;
    int32_t user_slot;
    int32_t role;
    uint32_t rsv32;
    uint64_t rsv64;
    struct res_list_head disk_io_list;
    uint64_t rsv64_2;
    struct res_list_head proc_io_list;
    struct res_list_head part_list;
    struct res_list_head lifetime_list;
    struct res_list_head list;
    /* When each kind of record last reached this node (monotonic ms, 0 =
     * never); the master's outputs show these as the age of the node's data. */
    uint64_t rx_ms[RES_MOM_REC_KIND_NUM];
    /* Set while the node's I/O record is overdue (the master's watch). */
    uint32_t stale;
    /* Timer seconds since the node's last I/O record or since its watch
     * began (res_mom_stale). */
    uint32_t stale_ticks;
};

/* The local node: static, first in the node list, never freed. */
extern struct res_mom_node res_local_node;
extern struct res_list_head res_node_list;

int res_mom_data_init(void);
/* Empties a node's four entry lists (disk I/O, process I/O, partitions,
 * lifetimes): init for a node not yet set up, clear to free the entries. */
void res_mom_node_lists_init(struct res_mom_node *node);
void res_mom_node_lists_clear(struct res_mom_node *node);
struct res_mom_node *res_mom_malloc_node_init(void);
int res_mom_add_node_info_list(struct res_mom_node *node);
/* index: device id, slot id, sub-slot id. */
struct res_mom_node *res_mom_get_node_by_index2(const int32_t *index);
struct res_mom_node *res_mom_get_node_by_index(const PUtils__Nodeindex *index);
int res_mom_clear_node_by_index(const int32_t *index);
/* Fills a record's index with the local node's identity (t_extend stays 0). */
void res_mom_fill_local_index(PUtils__Nodeindex *index);

/* The names the device manager shows for a node: its slot and the card in
 * it (empty when it knows none), as the outputs print them. */
struct res_mom_node_names {
    char slot[RES_MOM_NAME_LEN];
    char card[RES_MOM_NAME_LEN];
};
struct res_mom_node_names res_mom_node_names_of(const struct res_mom_node *node);

/* After a record is saved: frees the entries that it did not mark as seen and
 * clears the mark on the others. */
template <typename T> void res_mom_sweep_seen(struct res_list_head *list)
{
    struct res_list_head *pos, *n;
    res_list_for_each_safe(pos, n, list)
    {
        T *e = res_list_entry(pos, T, list);
        if (!e->seen) {
            res_list_del(&e->list);
            free(e);
        } else {
            e->seen = 0;
        }
    }
}

struct res_mom_disk_io_node *res_mom_get_disk_io_node_by_name(struct res_list_head *list, const char *name,
                                                              int length);
struct res_mom_lifetime_node *res_mom_get_lifetime_node_by_name(struct res_list_head *list, const char *name,
                                                               int length);
struct res_mom_part_node *res_mom_get_part_node_by_path(struct res_list_head *list, const char *path, int length);

int res_mom_add_node_disk_io_list(const struct res_mom_disk_io_node *entry, struct res_list_head *list);
int res_mom_add_node_proc_io_list(const struct res_mom_proc_io_node *entry, struct res_list_head *list);
int res_mom_add_node_disk_lft_list(const struct res_mom_lifetime_node *entry, struct res_list_head *list);
/* Updates the node's partition entry of the same path, or links `entry`
 * itself at the tail (the store then owns it).  -EINTR for an empty node
 * list, -ESRCH for an unknown node. */
int res_mom_add_node_part_list(const int32_t *index, struct res_mom_part_node *entry);

int res_mom_clear_disk_io_list(struct res_list_head *list);
int res_mom_clear_proc_io_list(struct res_list_head *list);
int res_mom_clear_part_list(struct res_list_head *list);
int res_mom_clear_lifetime_list(struct res_list_head *list);

#endif
