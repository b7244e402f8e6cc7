#include "mon/res_mon_io_top_arr.h"

#include "misc/res_zlog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

char res_xxxid_unknown[] = "<unknown>";

namespace {

/* Index of `tid`, or where it would be inserted; *found tells which.  Binary
 * search down to a range of fewer than five, then a linear walk. */
int32_t arr_bsearch(const struct xxxid_stats_arr *pa, uint32_t tid, bool *found)
{
    int32_t lo = 0, hi = pa->length;
    *found = false;
    while (hi - lo >= 5) {
        int32_t mid = lo + (hi - lo) / 2;
        uint32_t t = pa->arr[mid]->tid;
        if (t == tid) {
            *found = true;
            return mid;
        }
        if (t < tid)
            lo = mid + 1;
        else
            hi = mid;
    }
    for (int32_t i = lo; i < hi; ++i) {
        if (pa->arr[i]->tid == tid) {
            *found = true;
            return i;
        }
        if (pa->arr[i]->tid > tid)
            return i;
    }
    return hi;
}

} // namespace

void free_stats(struct xxxid_stats *s)
{
    if (!s)
        return;
    if (s->cmdline && s->cmdline != res_xxxid_unknown)
        free(s->cmdline);
    if (s->name && s->name != res_xxxid_unknown)
        free(s->name);
    free(s);
}

struct xxxid_stats_arr *arr_alloc(void)
{
    auto *pa = static_cast<struct xxxid_stats_arr *>(calloc(1, sizeof(struct xxxid_stats_arr)));
    if (!pa)
        return nullptr;
    pa->arr = static_cast<struct xxxid_stats **>(calloc(RES_XXXID_ARR_STEP, sizeof(struct xxxid_stats *)));
    if (!pa->arr) {
        free(pa);
        return nullptr;
    }
    pa->size = RES_XXXID_ARR_STEP;
    return pa;
}

int arr_add(struct xxxid_stats_arr *pa, struct xxxid_stats *ps)
{
    if (!pa || !ps)
        return EINVAL;
    if (pa->length >= pa->size) {
        int32_t nsize = (pa->length + RES_XXXID_ARR_STEP) / RES_XXXID_ARR_STEP * RES_XXXID_ARR_STEP;
        auto *narr = static_cast<struct xxxid_stats **>(
            realloc(pa->arr, static_cast<size_t>(nsize) * sizeof(struct xxxid_stats *)));
        if (!narr)
            return ENOMEM;
        pa->arr = narr;
        pa->size = nsize;
    }
    if (pa->sor) {
        free(pa->sor);
        pa->sor = nullptr;
    }
    bool found;
    int32_t at = arr_bsearch(pa, ps->tid, &found);
    if (found)
        return EINVAL;
    memmove(&pa->arr[at + 1], &pa->arr[at], static_cast<size_t>(pa->length - at) * sizeof(struct xxxid_stats *));
    pa->arr[at] = ps;
    pa->length++;
    return 0;
}

struct xxxid_stats *arr_find(struct xxxid_stats_arr *pa, uint32_t tid)
{
    if (!pa)
        return nullptr;
    bool found;
    int32_t at = arr_bsearch(pa, tid, &found);
    return found ? pa->arr[at] : nullptr;
}

void arr_sort(struct xxxid_stats_arr *pa, res_xxxid_cmp cmp, void *arg)
{
    if (!pa)
        return;
    free(pa->sor);
    pa->sor = nullptr;
    if (pa->length <= 0) {
        RES_ERR("return due to pa->length[%d] is empty.", pa->length);
        return;
    }
    pa->sor = static_cast<struct xxxid_stats **>(malloc(static_cast<size_t>(pa->length) * sizeof(struct xxxid_stats *)));
    if (!pa->sor)
        return;
    memcpy(pa->sor, pa->arr, static_cast<size_t>(pa->length) * sizeof(struct xxxid_stats *));
    qsort_r(pa->sor, static_cast<size_t>(pa->length), sizeof(struct xxxid_stats *), cmp, arg);
}

void arr_free(struct xxxid_stats_arr *pa)
{
    if (!pa)
        return;
    for (int32_t i = 0; i < pa->length; ++i)
        free_stats(pa->arr[i]);
    free(pa->arr);
    free(pa->sor);
    free(pa);
}
