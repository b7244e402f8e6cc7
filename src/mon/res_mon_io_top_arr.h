/* The per-process I/O record and the ordered array of records that makes one
 * snapshot: records ordered by process id, plus an optional second pointer
 * array in sort order. */
#ifndef RES_MON_IO_TOP_ARR_H
#define RES_MON_IO_TOP_ARR_H

#include <stdint.h>

#define RES_XXXID_ARR_STEP 1024

/* One process in one snapshot. */
struct xxxid_stats {
    uint32_t tid;
    uint64_t swapin_delay_total; /* ns */
    uint64_t blkio_delay_total;  /* ns */
    uint64_t read_bytes;
    uint64_t write_bytes;
    double blkio_val;     /* % of the interval waiting for block I/O, <= 100 */
    double swapin_val;    /* % of the interval waiting for swap-in, <= 100 */
    double read_val;      /* bytes per second */
    double write_val;     /* bytes per second */
    double read_val_acc;  /* bytes, over the snapshots the process was seen in */
    double write_val_acc;
    int32_t io_prio;
    int32_t euid;
    /* Command line word and status name.  They are looked up only for the
     * records that get published (res_mon_xxxid_resolve); null until then.
     * Owned by the record unless they are the shared res_xxxid_unknown. */
    char *cmdline;
    char *name;
    uint32_t resolved;
};

struct xxxid_stats_arr {
    struct xxxid_stats **arr; /* ordered by tid */
    struct xxxid_stats **sor; /* sort order, or null */
    int32_t length;
    int32_t size;
};

typedef int (*res_xxxid_cmp)(const void *a, const void *b, void *arg);

/* The text of a name that could not be read; shared, never freed. */
extern char res_xxxid_unknown[];

void free_stats(struct xxxid_stats *s);
struct xxxid_stats_arr *arr_alloc(void);
/* 0; 22 for a missing array or record or a tid already present; 12 when the
 * array cannot grow. */
int arr_add(struct xxxid_stats_arr *pa, struct xxxid_stats *ps);
struct xxxid_stats *arr_find(struct xxxid_stats_arr *pa, uint32_t tid);
void arr_sort(struct xxxid_stats_arr *pa, res_xxxid_cmp cmp, void *arg);
void arr_free(struct xxxid_stats_arr *pa);

#endif
