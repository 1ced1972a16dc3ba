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

namespace nax::res {

static constexpr int32_t POWERS = 6; // features of a band that are levels of powers
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

// A feature as an integer, 1 as INPUT_ONE.
static int8_t feature(float value)
{
    const float scaled = std::clamp(value * static_cast<float>(INPUT_ONE), -127.0f, 127.0f);
    return static_cast<int8_t>(scaled + (scaled < 0 ? -0.5f : 0.5f));
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
    const float *const powers[POWERS] = {comparison.cleaned,     comparison.echo,
                                         comparison.mic,         evidence.reference->mean,
                                         evidence.residual_mean, evidence.noise_mean};
    int8_t of_powers[POWERS][MAX_BANDS];
    for (int32_t i = 0; i < POWERS; i++)
        levels(powers[i], of_powers[i], JUDGED_BANDS);
    for (int32_t b = 0; b < count; b++) {
        int8_t *const input = inputs + b * FEATURES;
        for (int32_t i = 0; i < POWERS; i++)
            input[i] = of_powers[i][b];
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

void run_network(const int8_t *inputs, float *state, float *outputs)
{
    float dense[HIDDEN], of_input[3 * HIDDEN], of_state[3 * HIDDEN];
    int8_t hidden[2 * HIDDEN]; // state, dense layer
    apply_layer(INPUT_LAYER, inputs, dense);
    squash(dense, HIDDEN);
    to_integers(state, hidden, HIDDEN);
    to_integers(dense, hidden + HIDDEN, HIDDEN);
    apply_layer(INPUT_GATES, hidden + HIDDEN, of_input);
    apply_layer(STATE_GATES, hidden, of_state);
    float *const reset = of_input, *const keep = reset + HIDDEN, *const candidate = keep + HIDDEN;
    add_scaled(1, of_state, of_input, 2 * HIDDEN);
    squash(of_input, 2 * HIDDEN);
    add_gated(reset, of_state + 2 * HIDDEN, candidate, HIDDEN);
    squash(candidate, HIDDEN);
    add_scaled(-1, candidate, state, HIDDEN);
    add_gated(keep, state, candidate, HIDDEN);
    std::copy_n(candidate, HIDDEN, state);
    to_integers(state, hidden, HIDDEN);
    apply_layer(OUTPUT_LAYER, hidden, outputs);
    squash(outputs, OUTPUTS);
    for (int32_t b = 0; b < OUTPUTS; b++)
        outputs[b] = 0.5f + 0.5f * outputs[b]; // sigmoid from the tanh of half the argument
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
