// What the processor at hand can do. NAX_AEC_NEON says whether the build holds vector
// variants for 32-bit ARM; whether they may run is for the kernel to say, so that one
// library serves devices with and without NEON.
#pragma once

#if defined(__arm__) && defined(__linux__)
#define NAX_AEC_NEON 1
#include <sys/auxv.h>
#else
#define NAX_AEC_NEON 0
#endif

namespace nax {

#if NAX_AEC_NEON
inline bool processor_has_neon()
{
    constexpr unsigned long NEON_BIT = 1ul << 12; // HWCAP_NEON of 32-bit ARM
    return (getauxval(AT_HWCAP) & NEON_BIT) != 0;
}
#endif

} // namespace nax
