// For NEON, compiled with it even where the rest of the library is not.
#include "meter/loops.h"

#if NAX_AEC_NEON
#include <arm_neon.h>

namespace nax::meter::neon {

Sums sum_samples(const int16_t *samples, int32_t count)
{
    uint64x2_t squares = vdupq_n_u64(0);
    int32x4_t sum = vdupq_n_s32(0);
    int16x8_t peak = vdupq_n_s16(0);
    const auto add = [&](int16x8_t x) {
        const int16x4_t low = vget_low_s16(x), high = vget_high_s16(x);
        // A square is 2^30 at most, so two of them fit 32 bits without a sign.
        const int32x4_t two = vmlal_s16(vmull_s16(low, low), high, high);
        squares = vpadalq_u32(squares, vreinterpretq_u32_s32(two));
        sum = vpadalq_s16(sum, x);
        peak = vmaxq_s16(peak, vqabsq_s16(x));
    };
    for (int32_t i = 0; i < count; i += 16) {
        add(vld1q_s16(samples + i));
        add(vld1q_s16(samples + i + 8));
    }
    int16x4_t most = vmax_s16(vget_low_s16(peak), vget_high_s16(peak));
    most = vpmax_s16(most, most);
    most = vpmax_s16(most, most);
    const int64x2_t total = vpaddlq_s32(sum);
    return {
        static_cast<int64_t>(vgetq_lane_u64(squares, 0) + vgetq_lane_u64(squares, 1)),
        static_cast<int32_t>(vgetq_lane_s64(total, 0) + vgetq_lane_s64(total, 1)),
        vget_lane_s16(most, 0),
    };
}

void average_products(float *to, float keep, float factor, const float *from, int32_t count)
{
    for (int32_t i = 0; i < count; i += 16)
        for (int32_t j = i; j < i + 16; j += 4) {
            const float32x4_t old = vmulq_n_f32(vld1q_f32(to + j), keep);
            vst1q_f32(to + j, vaddq_f32(old, vmulq_n_f32(vld1q_f32(from + j), factor)));
        }
}

} // namespace nax::meter::neon
#endif
