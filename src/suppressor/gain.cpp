// The decision-directed Wiener gain of Ephraim and Malah (1984, "Speech enhancement using a
// minimum mean-square error short-time spectral amplitude estimator") against the residual
// echo. Differences from the paper:
//   - While the far end talks alone, the echo is overestimated and the gain is multiplied by
//     the coherence of the cleaned with the raw microphone: a band that the canceller changed
//     much is echo. In double talk both would harm the talker more than the echo.
//   - The presence of a talker bounds the residual echo of a band from both sides. The estimate
//     knows the spectrum's shape better than its level.
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

// Factor by which the echo is overestimated where a talker is unlikely; 1 with a talker. Where
// there is none, the bound below decides. 10 to 60 give equal results.
static constexpr float OVER_ALONE = 30;
// Smallest gain while the far end talks alone, and with a talker. 0.003 to 0.03 and 0.03 to
// 0.1 give equal results. Between both states the factors are interpolated geometrically.
static constexpr float FLOOR_ALONE = 0.01f, FLOOR_NEAR = 0.1f;
// At least this share of a band's power is the talker's where he is sure. 0.5 to 0.8 give equal
// results; with 1 a listener hears echo beside him.
static constexpr float LEAST_TALKER = 0.7f;
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

// The power of the echo in a band of the given power, where any is expected: at least (1 - p)^8 of
// it, so that a band without a talker is all echo, and at most 1 - LEAST_TALKER p^2. Exponents of 4
// to 32, and of 2 to 4, give equal results. Without the least, the far end alone scores 0.01 less.
static float bounded(float echo, float power, float talker)
{
    const float rest = (1 - talker) * (1 - talker), rest_4 = rest * rest;
    return std::clamp(echo, rest_4 * rest_4 * power, (1 - LEAST_TALKER * talker * talker) * power);
}

void gain_apply(Gain &gain, const Bands &bands, const BandEvidence &known,
                const float *residual_power, const float *noise_power, const float *cleaned_power,
                Complex *spectrum)
{
    GainRule rule;
    for (int32_t b = 0; b < bands.count; b++) {
        const float talker = known.talker[b], residual = known.residual[b] + TINY_POWER;
        const float echo = between(OVER, talker) * residual;
        rule.over[b] = bounded(echo, known.cleaned[b], talker) / residual;
        rule.floor[b] = FLOOR_NEAR * between(FLOOR, talker);
        rule.factor[b] = talker + (1 - talker) * known.coherence[b];
        rule.keep[b] = KEEP_ALONE + talker * (KEEP_NEAR - KEEP_ALONE);
    }
    apply_gain(bands, rule, cleaned_power, residual_power, noise_power, gain.power_out, spectrum);
}

} // namespace nax::res
