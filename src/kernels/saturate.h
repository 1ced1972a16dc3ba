// Narrowing that keeps to the nearest value that fits.
#pragma once

#include <cstdint>

namespace nax {

inline int16_t saturate_int16(int32_t value)
{
    return static_cast<int16_t>(value > INT16_MAX   ? INT16_MAX
                                : value < INT16_MIN ? INT16_MIN
                                                    : value);
}

inline int32_t saturate_int32(int64_t value)
{
    return static_cast<int32_t>(value > INT32_MAX   ? INT32_MAX
                                : value < INT32_MIN ? INT32_MIN
                                                    : value);
}

} // namespace nax
