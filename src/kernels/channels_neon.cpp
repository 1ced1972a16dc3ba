// NEON variant of the strided copy, compiled with NEON switched on and called only where the
// processor has it.
#include "kernels/channels.h"

#if NAX_AEC_NEON

#include <arm_neon.h>

namespace nax::neon {

// Eight samples, from every STRIDE-th position.
template <int32_t STRIDE> static int16x8_t load(const int16_t *from)
{
    if constexpr (STRIDE == 1) return vld1q_s16(from);
    if constexpr (STRIDE == 2) return vld2q_s16(from).val[0];
    if constexpr (STRIDE == 3) return vld3q_s16(from).val[0];
    if constexpr (STRIDE == 4) return vld4q_s16(from).val[0];
}

// Eight samples, to every STRIDE-th position. What lies between is loaded and stored
// again, which is quicker than storing lane by lane.
template <int32_t STRIDE> static void store(int16_t *to, int16x8_t samples)
{
    if constexpr (STRIDE == 1) {
        vst1q_s16(to, samples);
    } else if constexpr (STRIDE == 2) {
        int16x8x2_t all = vld2q_s16(to);
        all.val[0] = samples;
        vst2q_s16(to, all);
    } else if constexpr (STRIDE == 3) {
        int16x8x3_t all = vld3q_s16(to);
        all.val[0] = samples;
        vst3q_s16(to, all);
    } else {
        int16x8x4_t all = vld4q_s16(to);
        all.val[0] = samples;
        vst4q_s16(to, all);
    }
}

// The last samples are left to the scalar loop, because behind them the buffers end
// with the last channel.
template <int32_t FROM, int32_t TO>
static int32_t copy(const int16_t *from, int16_t *to, int32_t count)
{
    int32_t i = 0;
    for (; i + 8 < count; i += 8, from += 8 * FROM, to += 8 * TO)
        store<TO>(to, load<FROM>(from));
    return i;
}

template <int32_t FROM>
static int32_t copy_from(const int16_t *from, int16_t *to, int32_t to_stride, int32_t count)
{
    switch (to_stride) {
    case 1: return copy<FROM, 1>(from, to, count);
    case 2: return copy<FROM, 2>(from, to, count);
    case 3: return copy<FROM, 3>(from, to, count);
    case 4: return copy<FROM, 4>(from, to, count);
    default: return 0;
    }
}

void copy_channel(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                  int32_t count)
{
    int32_t done = 0;
    switch (from_stride) {
    case 1: done = copy_from<1>(from, to, to_stride, count); break;
    case 2: done = copy_from<2>(from, to, to_stride, count); break;
    case 3: done = copy_from<3>(from, to, to_stride, count); break;
    case 4: done = copy_from<4>(from, to, to_stride, count); break;
    }
    scalar::copy_channel(from + done * from_stride, from_stride, to + done * to_stride, to_stride,
                         count - done);
}

} // namespace nax::neon

#endif
