// For NEON, compiled with it even where the rest of the library is not.
#include "meter/levels.h"

#if NAX_AEC_NEON
#include <algorithm>
#include <arm_neon.h>

namespace nax::meter::neon {

FrameLevel measure_frame(const int16_t *samples, int32_t count)
{
    int64x2_t squares = vdupq_n_s64(0);
    int32x4_t sum = vdupq_n_s32(0);
    int16x8_t peak = vdupq_n_s16(0);
    for (int32_t i = 0; i < count; i += 8) {
        const int16x8_t x = vld1q_s16(samples + i);
        const int16x4_t low = vget_low_s16(x), high = vget_high_s16(x);
        // A product is 2^30 at most, so two of them fit 32 bits without a sign.
        const int32x4_t products = vmlal_s16(vmull_s16(low, low), high, high);
        squares = vreinterpretq_s64_u64(
            vpadalq_u32(vreinterpretq_u64_s64(squares), vreinterpretq_u32_s32(products)));
        sum = vpadalq_s16(sum, x);
        peak = vmaxq_s16(peak, vqabsq_s16(x));
    }
    int16x4_t most = vmax_s16(vget_low_s16(peak), vget_high_s16(peak));
    most = vpmax_s16(most, most);
    most = vpmax_s16(most, most);
    const int64x2_t total = vpaddlq_s32(sum);
    return {power_of(vgetq_lane_s64(squares, 0) + vgetq_lane_s64(squares, 1),
                     vgetq_lane_s64(total, 0) + vgetq_lane_s64(total, 1), count),
            vget_lane_s16(most, 0)};
}

} // namespace nax::meter::neon
#endif
