// The decision-directed Wiener gain of Ephraim and Malah (1984, "Speech enhancement using a
// minimum mean-square error short-time spectral amplitude estimator") against the residual
// echo. Differences from the paper:
//   - While the far end talks alone, the echo is overestimated and the gain is multiplied by
//     the coherence of the cleaned with the raw microphone: a band that the canceller changed
//     much is echo. In double talk both would harm the talker more than the echo.
//   - The output never falls below the microphone's noise. A listener hears residual echo
//     against that noise, and also hears gaps in it.
#include "suppressor/gain.h"

#include <algorithm>
#include <array>

namespace nax::res {

// Share of the output power of the frame before in that without echo. 0.94 to 0.97 give equal
// results while the far end talks alone. With a talker that share would cut off the beginning
// of each of his sounds by 2 or 3 frames. Smaller shares, to 0.8, spare the talker more and let
// more echo through beside him.
static constexpr float KEEP_ALONE = 0.97f, KEEP_NEAR = 0.9f;

// Factor by which the echo is overestimated while the far end talks alone; 1 with a talker.
// 20 to 60 give equal results.
static constexpr float OVER_ALONE = 30;
// Smallest gain while the far end talks alone, and with a talker. 0.003 to 0.03 and 0.03 to
// 0.1 give equal results. Between both states the factors are interpolated geometrically.
static constexpr float FLOOR_ALONE = 0.01f, FLOOR_NEAR = 0.1f;
static constexpr int32_t STEPS = 32;
static constexpr size_t POINTS = STEPS + 1;

// Table of a^(1 - i / STEPS). It is made by repeated multiplication, because std::pow does
// not give the same bits on every processor.
static constexpr std::array<float, POINTS> powers(double a)
{
    double root = 1 + (a - 1) / STEPS; // becomes the STEPS-th root of a, by Newton's method
    for (int32_t n = 0; n < 100; n++) {
        double power = 1;
        for (int32_t i = 1; i < STEPS; i++)
            power *= root;
        root -= (root * power - a) / (STEPS * power);
    }
    std::array<float, POINTS> table = {};
    double power = 1;
    for (int32_t i = STEPS; i >= 0; i--, power *= root)
        table[static_cast<size_t>(i)] = static_cast<float>(power);
    return table;
}
static constexpr std::array<float, POINTS> OVER = powers(OVER_ALONE);
static constexpr std::array<float, POINTS> FLOOR = powers(FLOOR_ALONE / FLOOR_NEAR);

static float between(const std::array<float, POINTS> &table, float talker)
{
    const float at = talker * STEPS;
    const size_t i = std::min(static_cast<size_t>(at), size_t{STEPS - 1});
    return table[i] + (at - static_cast<float>(i)) * (table[i + 1] - table[i]);
}

void gain_apply(Gain &gain, const Bands &bands, const float *talker, const float *coherence,
                const float *residual_power, const float *noise_power, const float *cleaned_power,
                Complex *spectrum)
{
    GainRule rule;
    for (int32_t b = 0; b < bands.count; b++) {
        rule.over[b] = between(OVER, talker[b]);
        rule.floor[b] = FLOOR_NEAR * between(FLOOR, talker[b]);
        rule.factor[b] = talker[b] + (1 - talker[b]) * coherence[b];
        rule.keep[b] = KEEP_ALONE + talker[b] * (KEEP_NEAR - KEEP_ALONE);
    }
    apply_gain(bands, rule, cleaned_power, residual_power, noise_power, gain.power_out, spectrum);
}

} // namespace nax::res
