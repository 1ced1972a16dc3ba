// Minimum statistics after Martin (2001, "Noise power spectral density estimation based
// on optimal smoothing and minimum statistics"). The smoothing and the bias are constants
// here. Music plays without pauses, so its echo could be mistaken for noise. Windows are
// therefore four times as long while there is echo.
#include "suppressor/noise.h"

#include "suppressor/loops.h"

#include <algorithm>

namespace nax::res {

static constexpr float KEEP = 0.8f; // of the running mean, per frame
// A window ends after WINDOW_STEPS: 50 frames (0.8 s) without echo, 200 (3.2 s) with it.
static constexpr int32_t WINDOW_STEPS = 200;
static constexpr int32_t STEPS_QUIET = 4, STEPS_IN_ECHO = 1;
// The minimum of about 200 running means is lower than the noise's mean by this factor.
static constexpr float BIAS = 1.5f;
static constexpr float NONE_YET = 1e12f; // larger than every power
// The running mean starts at 0, so it is too small in the first frames.
static constexpr int32_t SETTLE_FRAMES = 10;
// Frames of digital silence are ignored: those whose mean power is lower than this in every
// band. Rounding to 16 bits alone gives 0.08.
static constexpr float SILENT_POWER = 1e-3f;

void noise_init(Noise &noise)
{
    std::fill_n(noise.least, MAX_BINS, NONE_YET);
    std::fill_n(noise.least_past, MAX_BINS, NONE_YET);
    std::fill_n(noise.past[0], NOISE_WINDOWS * MAX_BINS, NONE_YET);
    noise.settling = SETTLE_FRAMES;
}

static void begin_window(Noise &noise, int32_t bins)
{
    std::copy_n(noise.least, bins, noise.past[noise.oldest]);
    noise.oldest = (noise.oldest + 1) % NOISE_WINDOWS;
    for (int32_t k = 0; k < bins; k++) {
        float least = noise.past[0][k];
        for (int32_t w = 1; w < NOISE_WINDOWS; w++)
            least = std::min(least, noise.past[w][k]);
        noise.least_past[k] = least;
        noise.least[k] = NONE_YET;
    }
    noise.steps = 0;
}

void noise_update(Noise &noise, const Bands &bands, const float *cleaned_power, bool echo_before)
{
    const int32_t bins = padded_bins(bands);
    float means[MAX_BANDS];
    band_means(bands, cleaned_power, means);
    if (*std::max_element(means, means + bands.count) < SILENT_POWER) return;
    track_least(cleaned_power, KEEP, noise.running, noise.least, bins);
    if (noise.settling > 0 && --noise.settling == 0) std::copy_n(noise.running, bins, noise.least);
    for (int32_t k = 0; k < bins; k++)
        noise.power[k] = BIAS * std::min(noise.least[k], noise.least_past[k]);
    band_means(bands, noise.power, noise.mean);
    noise.steps += echo_before ? STEPS_IN_ECHO : STEPS_QUIET;
    if (noise.steps >= WINDOW_STEPS) begin_window(noise, bins);
}

} // namespace nax::res
