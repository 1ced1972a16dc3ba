// NEON variants of the inner loops. For 32-bit ARM they are compiled with -mfpu=neon and
// called only when the processor has NEON. Operations are in the order of the scalar
// variants and no multiply-add is fused, so results are the same, bit for bit. NEON on
// 32-bit ARM has no division and no square root: these are computed lane by lane.
#include "suppressor/loops.h"

#if NAX_AEC_NEON

#include <arm_neon.h>

#include <cmath>
#include <cstring>

namespace nax::res::neon {

static float32x4_t to_floats(int16x4_t samples) { return vcvtq_f32_s32(vmovl_s16(samples)); }

void window_samples(const int16_t *samples, const float *window, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i += 8) {
        const int16x8_t eight = vld1q_s16(samples + i);
        const float32x4_t low = to_floats(vget_low_s16(eight));
        const float32x4_t high = to_floats(vget_high_s16(eight));
        vst1q_f32(to + i, vmulq_f32(low, vld1q_f32(window + i)));
        vst1q_f32(to + i + 4, vmulq_f32(high, vld1q_f32(window + i + 4)));
    }
}

void window_block(const float *block, const float *window, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i += 4)
        vst1q_f32(to + i, vmulq_f32(vld1q_f32(block + i), vld1q_f32(window + i)));
}

void overlap_add(const float *block, const float *window, const float *left_over, int16_t *to,
                 int32_t count)
{
    const uint32x4_t sign = vdupq_n_u32(0x80000000u),
                     half = vreinterpretq_u32_f32(vdupq_n_f32(0.5f));
    for (int32_t i = 0; i < count; i += 4) {
        const float32x4_t sum =
            vmlaq_f32(vld1q_f32(left_over + i), vld1q_f32(block + i), vld1q_f32(window + i));
        const uint32x4_t away = vorrq_u32(vandq_u32(vreinterpretq_u32_f32(sum), sign), half);
        const float32x4_t rounded = vaddq_f32(sum, vreinterpretq_f32_u32(away));
        vst1_s16(to + i, vqmovn_s32(vcvtq_s32_f32(rounded))); // both saturate
    }
}

// The power of four bins.
static float32x4_t power_of(float32x4x2_t spectrum)
{
    return vmlaq_f32(vmulq_f32(spectrum.val[0], spectrum.val[0]), spectrum.val[1], spectrum.val[1]);
}

static float32x4x2_t load(const Complex *spectrum) { return vld2q_f32(&spectrum->re); }

void add_power(const Complex *spectrum, float *power, int32_t bins)
{
    for (int32_t k = 0; k < bins; k += VECTOR)
        vst1q_f32(power + k, vaddq_f32(vld1q_f32(power + k), power_of(load(spectrum + k))));
}

static float total(float32x4_t lanes)
{
    const float32x2_t pairs = vadd_f32(vget_low_f32(lanes), vget_high_f32(lanes));
    return vget_lane_f32(pairs, 0) + vget_lane_f32(pairs, 1);
}

void band_means(const Bands &bands, const float *power, float *means)
{
    for (int32_t b = 0; b < bands.count; b++) {
        float32x4_t sum = vdupq_n_f32(0);
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k += VECTOR)
            sum = vaddq_f32(sum, vld1q_f32(power + k));
        means[b] = total(sum) * bands.share[b];
    }
}

void compare(const Bands &bands, const Complex *cleaned, const Complex *echo, float *cleaned_power,
             float *echo_power, Comparison &comparison)
{
    for (int32_t b = 0; b < bands.count; b++) {
        float32x4_t of_cleaned = vdupq_n_f32(0), of_echo = of_cleaned, of_mic = of_cleaned,
                    re = of_cleaned, im = of_cleaned;
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k += VECTOR) {
            const float32x4x2_t e = load(cleaned + k), removed = load(echo + k);
            const float32x4x2_t y = {
                {vaddq_f32(e.val[0], removed.val[0]), vaddq_f32(e.val[1], removed.val[1])}};
            const float32x4_t power = power_of(e);
            vst1q_f32(cleaned_power + k, power);
            const float32x4_t removed_power = power_of(removed);
            vst1q_f32(echo_power + k, removed_power);
            of_cleaned = vaddq_f32(of_cleaned, power);
            of_echo = vaddq_f32(of_echo, removed_power);
            of_mic = vaddq_f32(of_mic, power_of(y));
            re = vaddq_f32(re, vmlaq_f32(vmulq_f32(y.val[0], e.val[0]), y.val[1], e.val[1]));
            im = vaddq_f32(im, vmlsq_f32(vmulq_f32(y.val[1], e.val[0]), y.val[0], e.val[1]));
        }
        comparison.cleaned[b] = total(of_cleaned) * bands.share[b];
        comparison.echo[b] = total(of_echo) * bands.share[b];
        comparison.mic[b] = total(of_mic) * bands.share[b];
        comparison.cross_re[b] = total(re) * bands.share[b];
        comparison.cross_im[b] = total(im) * bands.share[b];
    }
}

void predict_echo(const Bands &bands, const float *activity, const float *gain,
                  const float *ref_power, const float *echo_power, Tail constants, float *tail,
                  float *predicted, float *means)
{
    const float32x4_t decay = vdupq_n_f32(constants.decay);
    for (int32_t b = 0; b < bands.count; b++) {
        const float32x4_t active = vdupq_n_f32(activity[b]), from_ref = vdupq_n_f32(gain[b]);
        const float32x4_t share = vdupq_n_f32(constants.share * activity[b]);
        float32x4_t sum = vdupq_n_f32(0);
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k += VECTOR) {
            const float32x4_t echo = vld1q_f32(echo_power + k), late = vld1q_f32(tail + k);
            const float32x4_t heard =
                vmaxq_f32(vaddq_f32(echo, late), vmulq_f32(from_ref, vld1q_f32(ref_power + k)));
            const float32x4_t now = vmulq_f32(active, heard);
            vst1q_f32(tail + k, vmulq_f32(decay, vmlaq_f32(late, share, echo)));
            vst1q_f32(predicted + k, now);
            sum = vaddq_f32(sum, now);
        }
        means[b] = total(sum) * bands.share[b];
    }
}

void estimate_residual(const Bands &bands, const float *leakage, const float *predicted,
                       float release, float *residual, float *means)
{
    const float32x4_t slow = vdupq_n_f32(release);
    for (int32_t b = 0; b < bands.count; b++) {
        const float32x4_t leak = vdupq_n_f32(leakage[b]);
        float32x4_t sum = vdupq_n_f32(0);
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k += VECTOR) {
            const float32x4_t left = vmaxq_f32(vmulq_f32(leak, vld1q_f32(predicted + k)),
                                               vmulq_f32(slow, vld1q_f32(residual + k)));
            vst1q_f32(residual + k, left);
            sum = vaddq_f32(sum, left);
        }
        means[b] = total(sum) * bands.share[b];
    }
}

void track_least(const float *power, float keep, float *running, float *least, int32_t bins)
{
    const float32x4_t kept = vdupq_n_f32(keep), news = vdupq_n_f32(1 - keep);
    for (int32_t k = 0; k < bins; k += VECTOR) {
        const float32x4_t mean =
            vmlaq_f32(vmulq_f32(kept, vld1q_f32(running + k)), news, vld1q_f32(power + k));
        vst1q_f32(running + k, mean);
        vst1q_f32(least + k, vminq_f32(vld1q_f32(least + k), mean));
    }
}

static float32x4_t divide(float32x4_t a, float32x4_t b)
{
    float32x4_t ratio = a;
    ratio = vsetq_lane_f32(vgetq_lane_f32(a, 0) / vgetq_lane_f32(b, 0), ratio, 0);
    ratio = vsetq_lane_f32(vgetq_lane_f32(a, 1) / vgetq_lane_f32(b, 1), ratio, 1);
    ratio = vsetq_lane_f32(vgetq_lane_f32(a, 2) / vgetq_lane_f32(b, 2), ratio, 2);
    return vsetq_lane_f32(vgetq_lane_f32(a, 3) / vgetq_lane_f32(b, 3), ratio, 3);
}

static float32x4_t root(float32x4_t a)
{
    float32x4_t roots = a;
    roots = vsetq_lane_f32(std::sqrt(vgetq_lane_f32(a, 0)), roots, 0);
    roots = vsetq_lane_f32(std::sqrt(vgetq_lane_f32(a, 1)), roots, 1);
    roots = vsetq_lane_f32(std::sqrt(vgetq_lane_f32(a, 2)), roots, 2);
    return vsetq_lane_f32(std::sqrt(vgetq_lane_f32(a, 3)), roots, 3);
}

void apply_gain(const Bands &bands, const GainRule &rule, const float *cleaned_power,
                const float *residual, const float *noise, float *power_out, Complex *spectrum)
{
    const float32x4_t zero = vdupq_n_f32(0), one = vdupq_n_f32(1), tiny = vdupq_n_f32(TINY_POWER);
    for (int32_t b = 0; b < bands.count; b++) {
        const float32x4_t over = vdupq_n_f32(rule.over[b]), floor = vdupq_n_f32(rule.floor[b]);
        const float32x4_t times = vdupq_n_f32(rule.factor[b]);
        const float32x4_t keep = vdupq_n_f32(rule.keep[b]), rest_share = vsubq_f32(one, keep);
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k += VECTOR) {
            const float32x4_t e = vld1q_f32(cleaned_power + k);
            const float32x4_t echo = vmulq_f32(over, vld1q_f32(residual + k));
            const float32x4_t rest = vmaxq_f32(vsubq_f32(e, echo), zero);
            const float32x4_t clear = vaddq_f32(
                vmlaq_f32(vmulq_f32(keep, vld1q_f32(power_out + k)), rest_share, rest), tiny);
            const float32x4_t wiener = divide(vmulq_f32(times, clear), vaddq_f32(clear, echo));
            const float32x4_t held = root(divide(vld1q_f32(noise + k), vaddq_f32(e, tiny)));
            const float32x4_t gain = vminq_f32(vmaxq_f32(wiener, vmaxq_f32(floor, held)), one);
            vst1q_f32(power_out + k, vmulq_f32(vmulq_f32(gain, gain), e));
            float32x4x2_t bins = load(spectrum + k);
            bins.val[0] = vmulq_f32(bins.val[0], gain);
            bins.val[1] = vmulq_f32(bins.val[1], gain);
            vst2q_f32(&spectrum[k].re, bins);
        }
    }
}

void fourth_roots(const float *power, float *roots, int32_t bins)
{
    const uint32x4_t offset = vdupq_n_u32(THREE_QUARTERS_OF_ONE);
    for (int32_t k = 0; k < bins; k += VECTOR) {
        const uint32x4_t bits = vreinterpretq_u32_f32(vld1q_f32(power + k));
        vst1q_f32(roots + k, vreinterpretq_f32_u32(vaddq_u32(vshrq_n_u32(bits, 2), offset)));
    }
}

void sum_products(const float *a, const float *b, const float *c, int32_t count, Moments &sums)
{
    float32x4_t of_a = vdupq_n_f32(0), of_b = of_a, of_c = of_a;
    float32x4_t aa = of_a, bb = of_a, cc = of_a, ab = of_a, ac = of_a;
    for (int32_t k = 0; k < count; k += VECTOR) {
        const float32x4_t x = vld1q_f32(a + k), y = vld1q_f32(b + k), z = vld1q_f32(c + k);
        of_a = vaddq_f32(of_a, x);
        of_b = vaddq_f32(of_b, y);
        of_c = vaddq_f32(of_c, z);
        aa = vmlaq_f32(aa, x, x);
        bb = vmlaq_f32(bb, y, y);
        cc = vmlaq_f32(cc, z, z);
        ab = vmlaq_f32(ab, x, y);
        ac = vmlaq_f32(ac, x, z);
    }
    sums = {total(of_a), total(of_b), total(of_c), total(aa),
            total(bb),   total(cc),   total(ab),   total(ac)};
}

// Two products of at most 127 x 127 fit into 16 bits.
static int32x4_t add_sixteen(int32x4_t sums, int8x16_t weights, int8x16_t inputs)
{
    const int16x8_t low = vmull_s8(vget_low_s8(weights), vget_low_s8(inputs));
    return vpadalq_s16(sums, vmlal_s8(low, vget_high_s8(weights), vget_high_s8(inputs)));
}

static int32x2_t pairs_of(int32x4_t lanes)
{
    return vpadd_s32(vget_low_s32(lanes), vget_high_s32(lanes));
}

void apply_layer(const Layer &layer, const int8_t *inputs, float *outputs)
{
    static_assert(LAYER_ROWS == 4 && LAYER_COLUMNS == 16);
    const int8_t *weights = layer.weights;
    for (int32_t i = 0; i < layer.rows; i += LAYER_ROWS) {
        int32x4_t a = vdupq_n_s32(0), b = a, c = a, d = a;
        for (const int8_t *end = inputs + layer.columns, *in = inputs; in != end; in += 16) {
            const int8x16_t sixteen = vld1q_s8(in);
            a = add_sixteen(a, vld1q_s8(weights), sixteen);
            b = add_sixteen(b, vld1q_s8(weights + 16), sixteen);
            c = add_sixteen(c, vld1q_s8(weights + 32), sixteen);
            d = add_sixteen(d, vld1q_s8(weights + 48), sixteen);
            weights += LAYER_ROWS * LAYER_COLUMNS;
        }
        const int32x4_t sums =
            vcombine_s32(vpadd_s32(pairs_of(a), pairs_of(b)), vpadd_s32(pairs_of(c), pairs_of(d)));
        vst1q_f32(outputs + i, vmlaq_f32(vld1q_f32(layer.bias + i), vcvtq_f32_s32(sums),
                                         vld1q_f32(layer.scale + i)));
    }
}

// log2 of four as the scalar variant computes it.
static float32x4_t log2_of(float32x4_t a)
{
    const uint32x4_t bits = vreinterpretq_u32_f32(a);
    const int32x4_t exponent =
        vsubq_s32(vreinterpretq_s32_u32(vshrq_n_u32(bits, 23)), vdupq_n_s32(128));
    const float32x4_t mantissa = vreinterpretq_f32_u32(
        vorrq_u32(vandq_u32(bits, vdupq_n_u32(0x7fffffu)), vdupq_n_u32(0x3f800000u)));
    const float32x4_t slope = vsubq_f32(vdupq_n_f32(2), divide(mantissa, vdupq_n_f32(3)));
    const float32x4_t sum = vmlaq_f32(vcvtq_f32_s32(exponent), slope, mantissa);
    return vsubq_f32(sum, vdupq_n_f32(2.0f / 3));
}

void levels(const float *powers, int8_t *integers, int32_t count)
{
    const uint32x4_t sign = vdupq_n_u32(0x80000000u),
                     half = vreinterpretq_u32_f32(vdupq_n_f32(0.5f));
    const float32x4_t least = vdupq_n_f32(-127), most = vdupq_n_f32(127);
    for (int32_t i = 0; i < count; i += 4) {
        const float32x4_t log = log2_of(vaddq_f32(vld1q_f32(powers + i), vdupq_n_f32(LEAST_POWER)));
        const float32x4_t level =
            vaddq_f32(vmulq_f32(vdupq_n_f32(LEVEL_SCALE), log), vdupq_n_f32(LEVEL_OFFSET));
        const float32x4_t scaled =
            vminq_f32(vmaxq_f32(vmulq_f32(level, vdupq_n_f32(INPUT_ONE)), least), most);
        const uint32x4_t away = vorrq_u32(vandq_u32(vreinterpretq_u32_f32(scaled), sign), half);
        const int32x4_t four = vcvtq_s32_f32(vaddq_f32(scaled, vreinterpretq_f32_u32(away)));
        const int8x8_t narrow = vmovn_s16(vcombine_s16(vmovn_s32(four), vdup_n_s16(0)));
        const uint32_t bytes = vget_lane_u32(vreinterpret_u32_s8(narrow), 0);
        memcpy(integers + i, &bytes, sizeof bytes);
    }
}

static int16x4_t four_integers(const float *values)
{
    const float32x4_t one = vdupq_n_f32(HIDDEN_ONE), above = vdupq_n_f32(HIDDEN_ONE + 0.5f);
    const int32x4_t rounded = vcvtq_s32_f32(vmlaq_f32(above, vld1q_f32(values), one));
    return vmovn_s32(vsubq_s32(rounded, vdupq_n_s32(HIDDEN_ONE)));
}

void to_integers(const float *values, int8_t *integers, int32_t count)
{
    for (int32_t i = 0; i < count; i += 8)
        vst1_s8(integers + i,
                vmovn_s16(vcombine_s16(four_integers(values + i), four_integers(values + i + 4))));
}

void add_scaled(float factor, const float *values, float *to, int32_t count)
{
    const float32x4_t factors = vdupq_n_f32(factor);
    for (int32_t i = 0; i < count; i += 4)
        vst1q_f32(to + i, vmlaq_f32(vld1q_f32(to + i), factors, vld1q_f32(values + i)));
}

void add_gated(const float *gate, const float *values, float *to, int32_t count)
{
    const float32x4_t half = vdupq_n_f32(0.5f);
    for (int32_t i = 0; i < count; i += 4) {
        const float32x4_t share = vmlaq_f32(half, vld1q_f32(gate + i), half);
        vst1q_f32(to + i, vmlaq_f32(vld1q_f32(to + i), share, vld1q_f32(values + i)));
    }
}

void squash(float *values, int32_t count)
{
    const float32x4_t limit = vdupq_n_f32(TANH_LIMIT), all = vdupq_n_f32(135135);
    for (int32_t i = 0; i < count; i += VECTOR) {
        const float32x4_t x = vminq_f32(vmaxq_f32(vld1q_f32(values + i), vnegq_f32(limit)), limit);
        const float32x4_t s = vmulq_f32(x, x);
        float32x4_t above = vaddq_f32(s, vdupq_n_f32(378));
        above = vmlaq_f32(all, vmlaq_f32(vdupq_n_f32(17325), above, s), s);
        float32x4_t below = vmlaq_f32(vdupq_n_f32(3150), vdupq_n_f32(28), s);
        below = vmlaq_f32(all, vmlaq_f32(vdupq_n_f32(62370), below, s), s);
        vst1q_f32(values + i, divide(vmulq_f32(x, above), below));
    }
}

} // namespace nax::res::neon

#endif
