// The suppressor's inner loops. Each exists in a scalar variant and, for 32-bit ARM, in
// one for NEON with the same results; the library calls them through the pointers below.
// Arrays of bins hold padded_bins(bands) values, those of bands one a band. Arrays must
// not overlap but where it says so.
#pragma once

#include "kernels/processor.h"
#include "suppressor/bands.h"

#include <cstdint>

namespace nax::res {

struct Complex {
    float re, im;
};

// Products of samples with a window; count is a multiple of 4.
using WindowSamples = void(const int16_t *samples, const float *window, float *to, int32_t count);

// Products of a block with a window; count is a multiple of 4.
using WindowBlock = void(const float *block, const float *window, float *to, int32_t count);

// Samples from a windowed block and what the block before left over, rounded and
// saturated; count is a multiple of 4.
using OverlapAdd = void(const float *block, const float *window, const float *left_over,
                        int16_t *to, int32_t count);

// Adds |X|^2 to power; bins is a multiple of 4.
using AddPower = void(const Complex *spectrum, float *power, int32_t bins);

// Mean of a power over each band.
using BandMeans = void(const Bands &bands, const float *power, float *means);

// The cleaned microphone E beside the microphone Y = E + echo; means over each band.
struct Comparison {
    float cleaned[MAX_BANDS];                       // |E|^2
    float mic[MAX_BANDS];                           // |Y|^2
    float cross_re[MAX_BANDS], cross_im[MAX_BANDS]; // Y conj(E)
};

// Powers of a cleaned microphone and of its echo, bin by bin, and the comparison.
using Compare = void(const Bands &bands, const Complex *cleaned, const Complex *echo,
                     float *cleaned_power, float *echo_power, Comparison &comparison);

// The echo that may be left: z = activity max(|echo|^2 + tail, gain |X|^2), and the tail
// that this frame leaves to the next, decay (tail + share activity |echo|^2). Gives the
// means of z over each band.
struct Tail {
    float decay; // per frame
    float share; // of the echo's power
};
using PredictEcho = void(const Bands &bands, const float *activity, const float *gain,
                         const float *ref_power, const float *echo_power, Tail constants,
                         float *tail, float *predicted, float *means);

// The echo left, max(leakage z, release times the one of the frame before). Against it
// the running mean of the cleaned power, keep mean + (1 - keep) |E|^2: sums over each band of that
// and of what of it exceeds the echo left so many times.
struct Excess {
    float release; // per frame
    float keep;    // per frame
    float times;
};
using EstimateResidual = void(const Bands &bands, const float *leakage, const float *predicted,
                              const float *cleaned_power, Excess constants, float *residual,
                              float *running, float *excess, float *total);

// Running mean of a power, keep mean + (1 - keep) power, and the least that it has been.
using TrackLeast = void(const float *power, float keep, float *running, float *least, int32_t bins);

// Multiplies a spectrum by
//   max(floor, sqrt(noise / |E|^2), factor s / (s + over residual))
// and at most 1, where s is the power without the echo: keep times what came out of the
// frame before plus 1 - keep times what |E|^2 exceeds over residual by. Notes the power
// that comes out.
struct GainRule {
    float over;
    float keep; // per frame
    float floor;
};
using ApplyGain = void(const Bands &bands, GainRule rule, const float *factor,
                       const float *cleaned_power, const float *residual, const float *noise,
                       float *power_out, Complex *spectrum);

// A power that is nothing against the rounding of samples, 1/12.
inline constexpr float TINY_POWER = 1e-6f;

namespace scalar {
WindowSamples window_samples;
WindowBlock window_block;
OverlapAdd overlap_add;
AddPower add_power;
BandMeans band_means;
Compare compare;
PredictEcho predict_echo;
EstimateResidual estimate_residual;
TrackLeast track_least;
ApplyGain apply_gain;
} // namespace scalar

#if NAX_AEC_NEON
namespace neon {
WindowSamples window_samples;
WindowBlock window_block;
OverlapAdd overlap_add;
AddPower add_power;
BandMeans band_means;
Compare compare;
PredictEcho predict_echo;
EstimateResidual estimate_residual;
TrackLeast track_least;
ApplyGain apply_gain;
} // namespace neon
#endif

// The variants for this processor, chosen when the library is loaded.
extern WindowSamples *window_samples;
extern WindowBlock *window_block;
extern OverlapAdd *overlap_add;
extern AddPower *add_power;
extern BandMeans *band_means;
extern Compare *compare;
extern PredictEcho *predict_echo;
extern EstimateResidual *estimate_residual;
extern TrackLeast *track_least;
extern ApplyGain *apply_gain;

} // namespace nax::res
