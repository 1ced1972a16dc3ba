#include "suppressor/loops.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace nax::res {

void scalar::window_samples(const int16_t *samples, const float *window, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i] = static_cast<float>(samples[i]) * window[i];
}

void scalar::window_block(const float *block, const float *window, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i] = block[i] * window[i];
}

void scalar::overlap_add(const float *block, const float *window, const float *left_over,
                         int16_t *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        const float sum = left_over[i] + block[i] * window[i];
        const float rounded = sum + (sum < 0 ? -0.5f : 0.5f);
        to[i] = static_cast<int16_t>(std::min(std::max(rounded, -32768.0f), 32767.0f));
    }
}

void scalar::add_power(const Complex *spectrum, float *power, int32_t bins)
{
    for (int32_t k = 0; k < bins; k++)
        power[k] += spectrum[k].re * spectrum[k].re + spectrum[k].im * spectrum[k].im;
}

// Four partial sums over a band, one for each lane of a vector. total() adds them in the
// order of the NEON code.
struct LaneSums {
    float lane[VECTOR] = {};
    void add(int32_t k, float value) { lane[k % VECTOR] += value; }
    float total() const { return (lane[0] + lane[2]) + (lane[1] + lane[3]); }
};

void scalar::band_means(const Bands &bands, const float *power, float *means)
{
    for (int32_t b = 0; b < bands.count; b++) {
        LaneSums sum;
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++)
            sum.add(k, power[k]);
        means[b] = sum.total() * bands.share[b];
    }
}

void scalar::compare(const Bands &bands, const Complex *cleaned, const Complex *echo,
                     float *cleaned_power, float *echo_power, Comparison &comparison)
{
    for (int32_t b = 0; b < bands.count; b++) {
        LaneSums of_cleaned, of_echo, of_mic, re, im;
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            const Complex e = cleaned[k], removed = echo[k];
            const Complex y = {e.re + removed.re, e.im + removed.im};
            cleaned_power[k] = e.re * e.re + e.im * e.im;
            echo_power[k] = removed.re * removed.re + removed.im * removed.im;
            of_cleaned.add(k, cleaned_power[k]);
            of_echo.add(k, echo_power[k]);
            of_mic.add(k, y.re * y.re + y.im * y.im);
            re.add(k, y.re * e.re + y.im * e.im);
            im.add(k, y.im * e.re - y.re * e.im);
        }
        comparison.cleaned[b] = of_cleaned.total() * bands.share[b];
        comparison.echo[b] = of_echo.total() * bands.share[b];
        comparison.mic[b] = of_mic.total() * bands.share[b];
        comparison.cross_re[b] = re.total() * bands.share[b];
        comparison.cross_im[b] = im.total() * bands.share[b];
    }
}

void scalar::predict_echo(const Bands &bands, const float *activity, const float *gain,
                          const float *ref_power, const float *echo_power, Tail constants,
                          float *tail, float *predicted, float *means)
{
    for (int32_t b = 0; b < bands.count; b++) {
        const float share = constants.share * activity[b];
        LaneSums sum;
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            const float heard = std::max(echo_power[k] + tail[k], gain[b] * ref_power[k]);
            predicted[k] = activity[b] * heard;
            tail[k] = constants.decay * (tail[k] + share * echo_power[k]);
            sum.add(k, predicted[k]);
        }
        means[b] = sum.total() * bands.share[b];
    }
}

void scalar::estimate_residual(const Bands &bands, const float *leakage, const float *predicted,
                               float release, float *residual, float *means)
{
    for (int32_t b = 0; b < bands.count; b++) {
        LaneSums sum;
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            residual[k] = std::max(leakage[b] * predicted[k], release * residual[k]);
            sum.add(k, residual[k]);
        }
        means[b] = sum.total() * bands.share[b];
    }
}

void scalar::track_least(const float *power, float keep, float *running, float *least, int32_t bins)
{
    for (int32_t k = 0; k < bins; k++) {
        running[k] = keep * running[k] + (1 - keep) * power[k];
        least[k] = std::min(least[k], running[k]);
    }
}

void scalar::apply_gain(const Bands &bands, const GainRule &rule, const float *cleaned_power,
                        const float *residual, const float *noise, float *power_out,
                        Complex *spectrum)
{
    for (int32_t b = 0; b < bands.count; b++)
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            const float echo = rule.over[b] * residual[k];
            const float rest = std::max(cleaned_power[k] - echo, 0.0f);
            const float clear =
                rule.keep[b] * power_out[k] + (1 - rule.keep[b]) * rest + TINY_POWER;
            const float wiener = rule.factor[b] * clear / (clear + echo);
            const float held = std::sqrt(noise[k] / (cleaned_power[k] + TINY_POWER));
            const float least = std::max(rule.floor[b], held);
            const float gain = std::min(std::max(wiener, least), 1.0f);
            power_out[k] = gain * gain * cleaned_power[k];
            spectrum[k].re *= gain;
            spectrum[k].im *= gain;
        }
}

void scalar::fourth_roots(const float *power, float *roots, int32_t bins)
{
    for (int32_t k = 0; k < bins; k++) {
        uint32_t bits;
        memcpy(&bits, &power[k], sizeof bits);
        bits = bits / 4 + THREE_QUARTERS_OF_ONE;
        memcpy(&roots[k], &bits, sizeof bits);
    }
}

void scalar::sum_products(const float *a, const float *b, const float *c, int32_t count,
                          Moments &sums)
{
    LaneSums of_a, of_b, of_c, aa, bb, cc, ab, ac;
    for (int32_t k = 0; k < count; k++) {
        of_a.add(k, a[k]);
        of_b.add(k, b[k]);
        of_c.add(k, c[k]);
        aa.add(k, a[k] * a[k]);
        bb.add(k, b[k] * b[k]);
        cc.add(k, c[k] * c[k]);
        ab.add(k, a[k] * b[k]);
        ac.add(k, a[k] * c[k]);
    }
    sums = {of_a.total(), of_b.total(), of_c.total(), aa.total(),
            bb.total(),   cc.total(),   ab.total(),   ac.total()};
}

void scalar::apply_layer(const Layer &layer, const int8_t *inputs, float *outputs)
{
    const int8_t *weight = layer.weights;
    for (int32_t i = 0; i < layer.rows; i += LAYER_ROWS) {
        int32_t sums[LAYER_ROWS] = {};
        for (int32_t j = 0; j < layer.columns; j += LAYER_COLUMNS)
            for (int32_t &sum : sums)
                for (int32_t k = 0; k < LAYER_COLUMNS; k++)
                    sum += *weight++ * inputs[j + k];
        for (int32_t k = 0; k < LAYER_ROWS; k++)
            outputs[i + k] = static_cast<float>(sums[k]) * layer.scale[i + k] + layer.bias[i + k];
    }
}

// log2(a) within 0.01 for a > 0: the exponent and a parabola through the mantissa.
static float log2_of(float a)
{
    uint32_t bits;
    memcpy(&bits, &a, sizeof bits);
    const int32_t exponent = static_cast<int32_t>(bits >> 23) - 128;
    bits = (bits & 0x7fffffu) | 0x3f800000u;
    float mantissa; // 1 to 2
    memcpy(&mantissa, &bits, sizeof mantissa);
    return static_cast<float>(exponent) + (2 - mantissa / 3) * mantissa - 2.0f / 3;
}

void scalar::levels(const float *powers, int8_t *integers, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        const float level = LEVEL_SCALE * log2_of(powers[i] + LEAST_POWER) + LEVEL_OFFSET;
        const float scaled =
            std::min(std::max(level * static_cast<float>(INPUT_ONE), -127.0f), 127.0f);
        integers[i] = static_cast<int8_t>(scaled + (scaled < 0 ? -0.5f : 0.5f));
    }
}

void scalar::to_integers(const float *values, int8_t *integers, int32_t count)
{
    constexpr float one = HIDDEN_ONE;
    for (int32_t i = 0; i < count; i++) // Of a positive sum: to the nearest.
        integers[i] =
            static_cast<int8_t>(static_cast<int32_t>(values[i] * one + (one + 0.5f)) - HIDDEN_ONE);
}

void scalar::add_scaled(float factor, const float *values, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i] += factor * values[i];
}

void scalar::add_gated(const float *gate, const float *values, float *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i] += (0.5f + 0.5f * gate[i]) * values[i];
}

void scalar::squash(float *values, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        const float x = std::min(std::max(values[i], -TANH_LIMIT), TANH_LIMIT), s = x * x;
        const float above = ((s + 378) * s + 17325) * s + 135135;
        const float below = ((28 * s + 3150) * s + 62370) * s + 135135;
        values[i] = x * above / below;
    }
}

WindowSamples *window_samples = scalar::window_samples;
WindowBlock *window_block = scalar::window_block;
OverlapAdd *overlap_add = scalar::overlap_add;
AddPower *add_power = scalar::add_power;
BandMeans *band_means = scalar::band_means;
Compare *compare = scalar::compare;
PredictEcho *predict_echo = scalar::predict_echo;
EstimateResidual *estimate_residual = scalar::estimate_residual;
TrackLeast *track_least = scalar::track_least;
ApplyGain *apply_gain = scalar::apply_gain;
FourthRoots *fourth_roots = scalar::fourth_roots;
SumProducts *sum_products = scalar::sum_products;
ApplyLayer *apply_layer = scalar::apply_layer;
Levels *levels = scalar::levels;
ToIntegers *to_integers = scalar::to_integers;
AddScaled *add_scaled = scalar::add_scaled;
AddGated *add_gated = scalar::add_gated;
Squash *squash = scalar::squash;

#if NAX_AEC_NEON
[[gnu::constructor]] static void choose_neon()
{
    if (!processor_has_neon()) return;
    window_samples = neon::window_samples;
    window_block = neon::window_block;
    overlap_add = neon::overlap_add;
    add_power = neon::add_power;
    band_means = neon::band_means;
    compare = neon::compare;
    predict_echo = neon::predict_echo;
    estimate_residual = neon::estimate_residual;
    track_least = neon::track_least;
    apply_gain = neon::apply_gain;
    fourth_roots = neon::fourth_roots;
    sum_products = neon::sum_products;
    apply_layer = neon::apply_layer;
    levels = neon::levels;
    to_integers = neon::to_integers;
    add_scaled = neon::add_scaled;
    add_gated = neon::add_gated;
    squash = neon::squash;
}
#endif

} // namespace nax::res
