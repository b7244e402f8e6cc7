/* Conversions that clamp to the target type's range instead of overflowing:
 * numbers from the bus and from host files may be anything, and an
 * out-of-range conversion or signed overflow is undefined behaviour.  Values
 * inside the range convert exactly as a plain cast would. */
#ifndef RES_SATURATE_H
#define RES_SATURATE_H

#include <stdint.h>

/* A double to uint32: truncated toward zero; NaN and anything below 0 give 0,
 * anything from 2^32 up gives UINT32_MAX. */
static inline uint32_t res_sat_u32_from_double(double v)
{
    if (!(v > 0.0))
        return 0;
    if (v >= 4294967296.0)
        return UINT32_MAX;
    return static_cast<uint32_t>(v);
}

/* A signed 64-bit value to int32. */
static inline int32_t res_sat_i32(int64_t v)
{
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}

/* An unsigned value to int32 (no negative input). */
static inline int32_t res_sat_i32(uint64_t v)
{
    return v > static_cast<uint64_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(v);
}
static inline int32_t res_sat_i32(uint32_t v)
{
    return res_sat_i32(static_cast<uint64_t>(v));
}

/* An unsigned 64-bit value to uint32. */
static inline uint32_t res_sat_u32(uint64_t v)
{
    return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v);
}

#endif
