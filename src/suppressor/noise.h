// Estimate of the noise that a microphone hears without speech and echo.
#pragma once

#include "suppressor/bands.h"

namespace nax::res {

inline constexpr int32_t NOISE_WINDOWS = 4;

struct Noise {
    float running[MAX_BINS];             // running mean of the power
    float least[MAX_BINS];               // its minimum in the present window
    float past[NOISE_WINDOWS][MAX_BINS]; // its minima in the windows before
    float least_past[MAX_BINS];          // the minimum of past
    int32_t settling;                    // frames until the running mean may be used
    int32_t steps;                       // length of the present window so far
    int32_t oldest;                      // index into past
    float power[MAX_BINS];               // the result: power of the noise
    float mean[MAX_BANDS];               // its mean over each band
};

// Prepares a zero-filled record.
void noise_init(Noise &noise);

// Takes in the power of a cleaned microphone. echo_before says whether echo was audible in
// it one frame earlier: this frame's residual estimate needs the noise first.
void noise_update(Noise &noise, const Bands &bands, const float *cleaned_power, bool echo_before);

} // namespace nax::res
