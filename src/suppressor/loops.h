// The suppressor's inner loops. Each has a scalar variant and, for 32-bit and 64-bit ARM, a
// NEON variant with the same results, bit for bit. The library calls them through the
// pointers below. An array of bins holds padded_bins(bands) values, an array of bands
// bands.count values. Arrays must not overlap.
#pragma once

#include "kernels/processor.h"
#include "suppressor/bands.h"

#include <cstdint>

namespace nax::res {

struct Complex {
    float re, im;
};

// to = samples x window. count is a multiple of 8.
using WindowSamples = void(const int16_t *samples, const float *window, float *to, int32_t count);

// to = block x window. count is a multiple of 4.
using WindowBlock = void(const float *block, const float *window, float *to, int32_t count);

// to = left_over + block x window, rounded to the nearest sample and saturated. count is a
// multiple of 4.
using OverlapAdd = void(const float *block, const float *window, const float *left_over,
                        int16_t *to, int32_t count);

// power += |spectrum|^2. bins is a multiple of 4.
using AddPower = void(const Complex *spectrum, float *power, int32_t bins);

// Mean of a power over each band.
using BandMeans = void(const Bands &bands, const float *power, float *means);

// Means over each band of the cleaned microphone E, the removed echo D and the raw microphone
// Y = E + D.
struct Comparison {
    float cleaned[MAX_BANDS];                       // |E|^2
    float echo[MAX_BANDS];                          // |D|^2
    float mic[MAX_BANDS];                           // |Y|^2
    float cross_re[MAX_BANDS], cross_im[MAX_BANDS]; // Y conj(E)
};

// The powers of a cleaned microphone and of the removed echo in each bin, and the comparison.
using Compare = void(const Bands &bands, const Complex *cleaned, const Complex *echo,
                     float *cleaned_power, float *echo_power, Comparison &comparison);

// The predicted echo's power, z = activity x max(echo_power + tail, gain x ref_power), and
// its mean over each band. Then tail = decay x (tail + share x activity x echo_power).
struct Tail {
    float decay; // per frame
    float share; // of the removed echo's power
};
using PredictEcho = void(const Bands &bands, const float *activity, const float *gain,
                         const float *ref_power, const float *echo_power, Tail constants,
                         float *tail, float *predicted, float *means);

// residual = max(leakage x predicted, release x residual), and its mean over each band.
using EstimateResidual = void(const Bands &bands, const float *leakage, const float *predicted,
                              float release, float *residual, float *means);

// running = keep x running + (1 - keep) x power, and least = min(least, running).
using TrackLeast = void(const float *power, float keep, float *running, float *least, int32_t bins);

// Multiplies a spectrum by the gain
//   min(1, max(floor, sqrt(noise / cleaned_power), factor x s / (s + over x residual)))
// where s is the power without echo:
//   s = keep x power_out + (1 - keep) x max(cleaned_power - over x residual, 0).
// power_out is the output power of the frame before and becomes that of this frame.
struct GainRule {
    float over[MAX_BANDS];
    float floor[MAX_BANDS];
    float factor[MAX_BANDS];
    float keep[MAX_BANDS];
};
using ApplyGain = void(const Bands &bands, const GainRule &rule, const float *cleaned_power,
                       const float *residual, const float *noise, float *power_out,
                       Complex *spectrum);

// roots = about power^(1/4), within 6 %: the bits of a float are about its logarithm, so a
// quarter of them are those of its root. 0 gives 3e-10. bins is a multiple of 4.
using FourthRoots = void(const float *power, float *roots, int32_t bins);
inline constexpr uint32_t THREE_QUARTERS_OF_ONE = 0x3f800000u / 4 * 3; // of the bits of 1.0f

// Sums of three quantities and of their products; count is a multiple of 4.
struct Moments {
    float a, b, c, aa, bb, cc, ab, ac;
};
using SumProducts = void(const float *a, const float *b, const float *c, int32_t count,
                         Moments &sums);

// Computes scale[row] x (weights of the row) . inputs + bias[row], up to the scale in integers.
inline constexpr int32_t LAYER_ROWS = 4, LAYER_COLUMNS = 16; // of a block of weights
struct Layer {
    int32_t rows;          // multiple of LAYER_ROWS
    int32_t columns;       // multiple of LAYER_COLUMNS
    const int8_t *weights; // block by block, row by row; -127 to 127
    const float *scale, *bias;
};
using ApplyLayer = void(const Layer &layer, const int8_t *inputs, float *outputs);

// INPUT_ONE and HIDDEN_ONE stand for 1 in the network's features and hidden values.
inline constexpr int32_t INPUT_ONE = 48, HIDDEN_ONE = 127;

// integers = INPUT_ONE x (0.1 log2(power + 0.04) - 0.9), rounded to the nearest and limited to
// 127; the logarithm is right within 0.01. 0.04 is half of the power of rounding to 16 bits. count
// is a multiple of 4.
using Levels = void(const float *powers, int8_t *integers, int32_t count);
inline constexpr float LEAST_POWER = 0.04f, LEVEL_SCALE = 0.1f, LEVEL_OFFSET = -0.9f;

// integers = values from -1 to 1 as hidden values, rounded to the nearest. count is a multiple of 8.
using ToIntegers = void(const float *values, int8_t *integers, int32_t count);

// to += factor x values. count is a multiple of 4.
using AddScaled = void(float factor, const float *values, float *to, int32_t count);

// to += sigmoid(a) x values, where gate = tanh(a / 2). count is a multiple of 4.
using AddGated = void(const float *gate, const float *values, float *to, int32_t count);

// values = tanh(values), within 1e-4: Lambert's continued fraction. count is a multiple of 4.
using Squash = void(float *values, int32_t count);
inline constexpr float TANH_LIMIT = 4.9f; // beyond it the fraction would exceed 1

// A power that is small compared with that of rounding to 16 bits, 1/12.
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
FourthRoots fourth_roots;
SumProducts sum_products;
ApplyLayer apply_layer;
Levels levels;
ToIntegers to_integers;
AddScaled add_scaled;
AddGated add_gated;
Squash squash;
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
FourthRoots fourth_roots;
SumProducts sum_products;
ApplyLayer apply_layer;
Levels levels;
ToIntegers to_integers;
AddScaled add_scaled;
AddGated add_gated;
Squash squash;
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
extern FourthRoots *fourth_roots;
extern SumProducts *sum_products;
extern ApplyLayer *apply_layer;
extern Levels *levels;
extern ToIntegers *to_integers;
extern AddScaled *add_scaled;
extern AddGated *add_gated;
extern Squash *squash;

} // namespace nax::res
