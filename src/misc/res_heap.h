/* Owners for the entry arrays a publisher builds on the heap for one bus
 * call: the array and every entry in it are freed when the owner goes, on
 * every return path.  The arrays stay malloc-made, so an allocation failure
 * is a null owner to report, not an exception. */
#ifndef RES_HEAP_H
#define RES_HEAP_H

#include <cstddef>
#include <cstdlib>
#include <memory>

/* Frees the first n slots of an entry array (null slots are skipped by
 * free), then the array. */
template <typename T>
struct res_entries_free {
    size_t n;
    void operator()(T **entries) const noexcept
    {
        for (size_t i = 0; i < n; ++i)
            free(entries[i]);
        free(entries);
    }
};

template <typename T>
using res_entries = std::unique_ptr<T *, res_entries_free<T>>;

/* An owner for n zeroed entry pointers (one when n is 0, so that an empty
 * array is still an array); null when it cannot be allocated. */
template <typename T>
res_entries<T> res_entries_alloc(size_t n)
{
    return res_entries<T>(static_cast<T **>(calloc(n > 0 ? n : 1, sizeof(T *))), res_entries_free<T>{n});
}

#endif
