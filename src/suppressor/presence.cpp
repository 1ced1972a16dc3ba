// A gated recurrent unit (Cho et al. 2014, "Learning phrase representations using RNN
// encoder-decoder for statistical machine translation") between two dense layers, which
// judges one Bark band at a time as Valin (2018, "A hybrid DSP/deep learning approach to
// real-time full-band speech enhancement") does for noise. Differences from these papers:
//   - The reset gate acts behind the state's matrix, so that both matrices are independent.
//   - The features are powers that the suppressor has computed already, and the correlation
//     of the fine structure of the cleaned microphone with that of the removed echo and of
//     the reference. In a band that two talkers share, it shows whose harmonics are left.
//     What is left in phase with the removed echo is echo.
// training/ makes the weights. Inputs and weights are integers, so their sums are exact.
#include "suppressor/presence.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace nax::res {

// A power P is a feature 0.1 log2(P + 0.04) - 0.9: between -1.4 and 2.1.
static constexpr float LOG_SCALE = 0.1f, LOG_OFFSET = -0.9f;
static constexpr float LEAST_POWER = 0.04f; // half of that of rounding to 16 bits
// The fine structure of a band is that of its bins and of so many on either side, at least
// 31 bins. Bins below LOWEST_BIN, 125 Hz, and from HIGHEST_BIN, 8 kHz, on are left out.
static constexpr int32_t MARGIN = 12, LOWEST_BIN = VECTOR, HIGHEST_BIN = 256;
// The outputs between these are mapped to 0..1.
static constexpr float NO_TALKER = 0.05f, ALL_TALKER = 0.9f;
// A talker sounds in many bands at once. While the mean share over these bands, 250 Hz to 5 kHz,
// is MANY or more, each band's share is raised; while it is FEW or less, each is lowered. 0 to
// 0.2 for FEW give equal results.
static constexpr int32_t LOWEST_OF_SPEECH = 2, HIGHEST_OF_SPEECH = 17;
static constexpr float FEW = 0.1f, MANY = 0.5f;

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

// A feature as an integer, 1 as INPUT_ONE.
static int8_t feature(float value)
{
    const float scaled = std::clamp(value * static_cast<float>(INPUT_ONE), -127.0f, 127.0f);
    return static_cast<int8_t>(scaled + (scaled < 0 ? -0.5f : 0.5f));
}

static int8_t of_power(float power)
{
    return feature(LOG_SCALE * log2_of(power + LEAST_POWER) + LOG_OFFSET);
}

// Pearson's correlation of two quantities from their sums over n values.
static float correlation(float n, float a, float b, float aa, float bb, float ab)
{
    const float variances = (aa - a * a / n) * (bb - b * b / n);
    return variances > TINY_POWER ? (ab - a * b / n) / std::sqrt(variances) : 0;
}

void find_features(const Bands &bands, const Evidence &evidence, int8_t *inputs)
{
    const int32_t count = std::min(bands.count, JUDGED_BANDS);
    const int32_t bins = std::min(padded_bins(bands) - VECTOR, HIGHEST_BIN);
    float cleaned[HIGHEST_BIN], echo[HIGHEST_BIN], ref[HIGHEST_BIN];
    fourth_roots(evidence.cleaned_power, cleaned, bins);
    fourth_roots(evidence.echo_power, echo, bins);
    fourth_roots(evidence.reference->power, ref, bins);
    const Comparison &comparison = *evidence.comparison;
    for (int32_t b = 0; b < count; b++) {
        int8_t *const input = inputs + b * FEATURES;
        input[0] = of_power(comparison.cleaned[b]);
        input[1] = of_power(comparison.echo[b]);
        input[2] = of_power(comparison.mic[b]);
        input[3] = of_power(evidence.reference->mean[b]);
        input[4] = of_power(evidence.residual_mean[b]);
        input[5] = of_power(evidence.noise_mean[b]);
        input[6] = feature(evidence.coherence[b]);
        // Re(E conj(D)) = (|Y|^2 - |E|^2 - |D|^2) / 2
        const float in_phase = comparison.mic[b] - comparison.cleaned[b] - comparison.echo[b];
        input[7] = feature(0.5f * in_phase /
                           std::sqrt(comparison.cleaned[b] * comparison.echo[b] + LEAST_POWER));
        const int32_t from = std::max(bands.edge[b] - MARGIN, LOWEST_BIN);
        const int32_t to = std::min(bands.edge[b + 1] + MARGIN, bins);
        Moments m;
        sum_products(cleaned + from, echo + from, ref + from, to - from, m);
        const float n = static_cast<float>(to - from);
        input[8] = feature(correlation(n, m.a, m.b, m.aa, m.bb, m.ab));
        input[9] = feature(correlation(n, m.a, m.c, m.aa, m.cc, m.ac));
    }
}

// A hidden value from -1 to 1 as an integer, 1 as HIDDEN_ONE. The sum is positive, so that it
// is rounded to the nearest.
static int8_t hidden_integer(float value)
{
    constexpr float one = HIDDEN_ONE;
    return static_cast<int8_t>(static_cast<int32_t>(value * one + (one + 0.5f)) - HIDDEN_ONE);
}

// sigmoid from the tanh of half the argument.
static float sigmoid(float squashed) { return 0.5f + 0.5f * squashed; }

void run_network(const int8_t *inputs, float *state, float *outputs)
{
    float dense[HIDDEN], of_input[3 * HIDDEN], of_state[3 * HIDDEN];
    int8_t hidden[2 * HIDDEN]; // state, dense layer
    apply_layer(INPUT_LAYER, inputs, dense);
    squash(dense, HIDDEN);
    for (int32_t i = 0; i < HIDDEN; i++) {
        hidden[i] = hidden_integer(state[i]);
        hidden[HIDDEN + i] = hidden_integer(dense[i]);
    }
    apply_layer(INPUT_GATES, hidden + HIDDEN, of_input);
    apply_layer(STATE_GATES, hidden, of_state);
    float *const reset = of_input, *const keep = reset + HIDDEN, *const candidate = keep + HIDDEN;
    for (int32_t i = 0; i < 2 * HIDDEN; i++)
        of_input[i] += of_state[i];
    squash(of_input, 2 * HIDDEN);
    for (int32_t i = 0; i < HIDDEN; i++)
        candidate[i] += sigmoid(reset[i]) * of_state[2 * HIDDEN + i];
    squash(candidate, HIDDEN);
    for (int32_t i = 0; i < HIDDEN; i++) {
        state[i] = candidate[i] + sigmoid(keep[i]) * (state[i] - candidate[i]);
        hidden[i] = hidden_integer(state[i]);
    }
    apply_layer(OUTPUT_LAYER, hidden, outputs);
    squash(outputs, OUTPUTS);
    for (int32_t b = 0; b < OUTPUTS; b++)
        outputs[b] = sigmoid(outputs[b]);
}

void decide(const Bands &bands, float *talker)
{
    const int32_t end = std::min(bands.count, HIGHEST_OF_SPEECH + 1);
    float sum = 0;
    for (int32_t b = LOWEST_OF_SPEECH; b < end; b++)
        sum += talker[b];
    const float mean = sum / static_cast<float>(end - LOWEST_OF_SPEECH);
    const float up = std::clamp((mean - FEW) / (MANY - FEW), 0.0f, 1.0f);
    for (int32_t b = 0; b < bands.count; b++)
        talker[b] = (1 - up) * talker[b] * talker[b] + up * std::sqrt(talker[b]);
}

void presence_update(Presence &presence, const Bands &bands, const Evidence &evidence)
{
    float outputs[OUTPUTS];
    find_features(bands, evidence, presence.inputs);
    run_network(presence.inputs, presence.state, outputs);
    // A loudspeaker's distortion also fills bands in which the reference is silent, so that the
    // reference's loudest band counts.
    const float *const activity = evidence.reference->activity;
    const float active = *std::max_element(activity, activity + bands.count);
    for (int32_t b = 0; b < bands.count; b++) {
        const float judged = outputs[std::min(b, JUDGED_BANDS - 1)];
        const float talker =
            std::clamp((judged - NO_TALKER) / (ALL_TALKER - NO_TALKER), 0.0f, 1.0f);
        // Without a reference there is no echo.
        presence.talker[b] = 1 - active * (1 - talker);
    }
    decide(bands, presence.talker);
}

} // namespace nax::res
