// The strides of the usual layouts are compile-time constants, because only then do
// compilers use their de-interleaving vector instructions.
#include "kernels/channels.h"

#include <cstddef>

namespace nax {

template <ptrdiff_t FROM, ptrdiff_t TO>
static void copy(const int16_t *__restrict from, int16_t *__restrict to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i * TO] = from[i * FROM];
}

void scalar::copy_channel(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                          int32_t count)
{
    if (to_stride == 1) {
        switch (from_stride) {
        case 1: return copy<1, 1>(from, to, count);
        case 2: return copy<2, 1>(from, to, count);
        case 3: return copy<3, 1>(from, to, count);
        case 4: return copy<4, 1>(from, to, count);
        }
    }
    if (from_stride == 1) {
        switch (to_stride) {
        case 2: return copy<1, 2>(from, to, count);
        case 3: return copy<1, 3>(from, to, count);
        case 4: return copy<1, 4>(from, to, count);
        }
    }
    for (int32_t i = 0; i < count; i++)
        to[ptrdiff_t{i} * to_stride] = from[ptrdiff_t{i} * from_stride];
}

CopyChannel *copy_channel = scalar::copy_channel;

#if NAX_AEC_NEON
[[gnu::constructor]] static void choose_neon()
{
    if (processor_has_neon()) copy_channel = neon::copy_channel;
}
#endif

} // namespace nax
