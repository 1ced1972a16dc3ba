// The decision-directed Wiener gain of Ephraim and Malah (1984, "Speech enhancement using a
// minimum mean-square error short-time spectral amplitude estimator") against the echo left.
// Departures:
//   - While the far end talks alone the echo is overestimated and the gain follows the
//     coherence of cleaned with raw microphone as well: what the canceller changed most is
//     echo. In double talk both would cost the talker more than the echo.
//   - The output is held up at the microphone's own noise: a listener judges what echo is
//     left against it, and holes in it are heard.
#include "suppressor/gain.h"

#include <algorithm>
#include <array>

namespace nax::res {

// The talker's share of the power that counts as none and as all; the means over frames
// that follow it, quicker to let a talker in than to close behind him.
static constexpr float NO_NEAR = 0.35f, ALL_NEAR = 0.85f;
static constexpr float KEEP_RISING = 0.5f, KEEP_FALLING = 0.9f;
static constexpr float KEEP_COMPARISON = 0.9f;
static constexpr float KEEP_POWER = 0.97f; // 0.94 to 0.97 do alike

// By how much the echo is overestimated, and the least gain, with the far end alone and
// with a talker; in between geometrically.
static constexpr float OVER_ALONE = 30;                        // 20 to 60 do alike
static constexpr float FLOOR_ALONE = 0.01f, FLOOR_NEAR = 0.1f; // to 0.03; from 0.03
static constexpr int32_t STEPS = 32;
static constexpr size_t POINTS = STEPS + 1;

// a^(1 - i / STEPS), by repeated multiplication, for want of a power function that gives
// the same bits on every processor.
static constexpr std::array<float, POINTS> powers(double a)
{
    double root = 1 + (a - 1) / STEPS; // the STEPS-th root of a, by Newton's method
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

static float between(const std::array<float, POINTS> &table, float near)
{
    const float at = near * STEPS;
    const size_t i = std::min(static_cast<size_t>(at), size_t{STEPS - 1});
    return table[i] + (at - static_cast<float>(i)) * (table[i + 1] - table[i]);
}

static void average(float &mean, float value, float keep)
{
    mean = keep * mean + (1 - keep) * value;
}

// |<Y E*>|^2 / (<|Y|^2> <|E|^2>) of a band; 1 where there is nothing.
static float coherence(Gain &gain, const Comparison &comparison, int32_t b)
{
    average(gain.cleaned[b], comparison.cleaned[b], KEEP_COMPARISON);
    average(gain.mic[b], comparison.mic[b], KEEP_COMPARISON);
    average(gain.cross_re[b], comparison.cross_re[b], KEEP_COMPARISON);
    average(gain.cross_im[b], comparison.cross_im[b], KEEP_COMPARISON);
    const float re = gain.cross_re[b], im = gain.cross_im[b];
    return std::min((re * re + im * im + TINY_POWER) / (gain.cleaned[b] * gain.mic[b] + TINY_POWER),
                    1.0f);
}

void gain_apply(Gain &gain, const Bands &bands, const Comparison &comparison,
                const Residual &residual, const Noise &noise, const float *cleaned_power,
                Complex *spectrum)
{
    const float near =
        std::clamp((residual.near_share - NO_NEAR) / (ALL_NEAR - NO_NEAR), 0.0f, 1.0f);
    average(gain.near, near, near > gain.near ? KEEP_RISING : KEEP_FALLING);

    float factor[MAX_BANDS];
    for (int32_t b = 0; b < bands.count; b++)
        factor[b] = gain.near + (1 - gain.near) * coherence(gain, comparison, b);
    const GainRule rule = {between(OVER, gain.near), KEEP_POWER,
                           FLOOR_NEAR * between(FLOOR, gain.near)};
    apply_gain(bands, rule, factor, cleaned_power, residual.power, noise.power, gain.power_out,
               spectrum);
}

} // namespace nax::res
