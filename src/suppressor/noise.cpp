// Minimum statistics after Martin (2001, "Noise power spectral density estimation based
// on optimal smoothing and minimum statistics"), with a fixed smoothing and a fixed bias.
// Echo that does not pause, as of music, would be taken for noise: windows are longer
// while there is any.
#include "suppressor/noise.h"

#include "suppressor/loops.h"

#include <algorithm>

namespace nax::res {

static constexpr float KEEP = 0.8f; // of the running mean, per frame
// A window is 50 frames, 0.8 s, without echo and 200 with it.
static constexpr int32_t WINDOW_STEPS = 200;
static constexpr int32_t STEPS_QUIET = 4, STEPS_IN_ECHO = 1;
static constexpr float BIAS = 1.5f;      // of the least of some two hundred means
static constexpr float NONE_YET = 1e12f; // above all powers
// The running mean begins at nothing and is one after so many frames.
static constexpr int32_t SETTLE_FRAMES = 10;
// Digital silence tells nothing. Mean over a band; rounding to samples alone makes 0.08.
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

void noise_update(Noise &noise, const Bands &bands, const float *cleaned_power, bool echo)
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
    noise.steps += echo ? STEPS_IN_ECHO : STEPS_QUIET;
    if (noise.steps >= WINDOW_STEPS) begin_window(noise, bins);
}

} // namespace nax::res
