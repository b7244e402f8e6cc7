/* Enum fields of decoded bus records: protobuf-c stores whatever int32 came
 * on the wire, and loading a value outside the enumeration as the enum type
 * is undefined behaviour, so such fields are read as the number they hold. */
#ifndef RES_MOM_ENUM_H
#define RES_MOM_ENUM_H

#include <stdint.h>
#include <string.h>

template <typename E> int32_t res_mom_enum_value(const E &field)
{
    static_assert(sizeof(E) == sizeof(int32_t), "protobuf-c enums are int-sized");
    int32_t v;
    memcpy(&v, &field, sizeof v);
    return v;
}

#endif
