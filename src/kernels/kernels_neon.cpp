// NEON variants of the inner loops. They are compiled with NEON switched on and called only where
// the processor has it. Float operations have the scalar variants' order and are not fused, so
// that results are the same to the bit. NEON takes denormal numbers as zero; so do the scalar
// variants in the floating-point mode of the per-frame calls.
#include "kernels/kernels.h"

#if NAX_AEC_NEON

#include <arm_neon.h>

namespace nax::neon {

// The sums of the four lanes of a, of b, of c and of d.
static int32x4_t sums_of(int32x4_t a, int32x4_t b, int32x4_t c, int32x4_t d)
{
    const auto halves = [](int32x4_t v) { return vadd_s32(vget_low_s32(v), vget_high_s32(v)); };
    return vcombine_s32(vpadd_s32(halves(a), halves(b)), vpadd_s32(halves(c), halves(d)));
}

static int32x4_t multiply_add(int32x4_t sum, int16x8_t a, int16x8_t b)
{
    sum = vmlal_s16(sum, vget_low_s16(a), vget_low_s16(b));
    return vmlal_s16(sum, vget_high_s16(a), vget_high_s16(b));
}

// Four outputs at a time use the same loaded taps.
void fir_decimate(const int16_t *samples, const int16_t *taps, int32_t tap_count, int32_t step,
                  float *to, int32_t outputs)
{
    for (int32_t j = 0; j < outputs; j += 4, samples += 4 * step) {
        const int16_t *from = samples;
        int32x4_t a = vdupq_n_s32(0), b = a, c = a, d = a;
        for (int32_t i = 0; i < tap_count; i += 8, from += 8) {
            const int16x8_t tap = vld1q_s16(taps + i);
            a = multiply_add(a, vld1q_s16(from), tap);
            b = multiply_add(b, vld1q_s16(from + step), tap);
            c = multiply_add(c, vld1q_s16(from + 2 * step), tap);
            d = multiply_add(d, vld1q_s16(from + 3 * step), tap);
        }
        vst1q_f32(to + j, vmulq_n_f32(vcvtq_f32_s32(sums_of(a, b, c, d)), 1.0f / 32768));
    }
}

// The compiler turns the moving pointers, here and below, into loads with an increment.
static float32x4_t next(const float *&from)
{
    const float32x4_t values = vld1q_f32(from);
    from += 4;
    return values;
}

void average_cross(float *a_re, float *a_im, const float *x_re, const float *x_im,
                   const float *y_re, const float *y_im, float keep, int32_t count)
{
    const float32x4_t kept = vdupq_n_f32(keep);
    for (int32_t k = 0; k < count; k += 4, a_re += 4, a_im += 4) {
        const float32x4_t xr = next(x_re), xi = next(x_im);
        const float32x4_t yr = next(y_re), yi = next(y_im);
        const float32x4_t re = vmlaq_f32(vmulq_f32(xr, yr), xi, yi);
        const float32x4_t im = vmlsq_f32(vmulq_f32(xr, yi), xi, yr);
        vst1q_f32(a_re, vmlaq_f32(re, vld1q_f32(a_re), kept));
        vst1q_f32(a_im, vmlaq_f32(im, vld1q_f32(a_im), kept));
    }
}

float spectrum_energy(const float *a_re, const float *a_im, int32_t count)
{
    float32x4_t sum = vdupq_n_f32(0);
    for (int32_t k = 0; k < count; k += 4) {
        const float32x4_t re = next(a_re), im = next(a_im);
        sum = vaddq_f32(sum, vmlaq_f32(vmulq_f32(re, re), im, im));
    }
    const float32x2_t pairs = vpadd_f32(vget_low_f32(sum), vget_high_f32(sum));
    return vget_lane_f32(pairs, 0) + vget_lane_f32(pairs, 1);
}

void swap_bytes(const uint8_t *source, int16_t *destination, int32_t samples)
{
    int32_t j = 0;
    for (; j + 16 <= samples; j += 16) {
        uint8_t *to = reinterpret_cast<uint8_t *>(destination + j);
        const uint8x16_t first = vld1q_u8(source + 2 * j), second = vld1q_u8(source + 2 * j + 16);
        vst1q_u8(to, vrev16q_u8(first));
        vst1q_u8(to + 16, vrev16q_u8(second));
    }
    scalar::swap_bytes(source + 2 * j, destination + j, samples - j);
}

// Loads eight samples from every STRIDE-th position.
template <int32_t STRIDE> static int16x8_t load(const int16_t *from)
{
    if constexpr (STRIDE == 1) return vld1q_s16(from);
    if constexpr (STRIDE == 2) return vld2q_s16(from).val[0];
    if constexpr (STRIDE == 3) return vld3q_s16(from).val[0];
    if constexpr (STRIDE == 4) return vld4q_s16(from).val[0];
}

// Stores eight samples to every STRIDE-th position. The samples between are loaded and stored
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

// The scalar loop copies the last samples: the vector loads would read past the end of the
// buffer there.
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
