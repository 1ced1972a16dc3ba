// What the processor can do. NAX_AEC_NEON says whether the build holds NEON variants. Every 64-bit
// ARM processor runs them. For a 32-bit one the operating system's kernel is asked, so that one
// library serves devices with and without NEON.
#pragma once

#if defined(__linux__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ &&                             \
    (defined(__arm__) || defined(__aarch64__))
#define NAX_AEC_NEON 1
#else
#define NAX_AEC_NEON 0
#endif
#if NAX_AEC_NEON && defined(__arm__)
#include <sys/auxv.h>
#endif

namespace nax {

#if NAX_AEC_NEON
inline bool processor_has_neon()
{
#if defined(__aarch64__)
    return true;
#else
    constexpr unsigned long NEON_BIT = 1ul << 12; // HWCAP_NEON of 32-bit ARM
    return (getauxval(AT_HWCAP) & NEON_BIT) != 0;
#endif
}
#endif

} // namespace nax
