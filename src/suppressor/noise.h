// The microphone's own noise.
#pragma once

#include "suppressor/bands.h"

namespace nax::res {

inline constexpr int32_t NOISE_WINDOWS = 4;

struct Noise {
    float running[MAX_BINS];             // mean power
    float least[MAX_BINS];               // the least of it in this window
    float past[NOISE_WINDOWS][MAX_BINS]; // and in the windows before
    float least_past[MAX_BINS];          // the least of these
    int32_t settling;                    // frames until the mean is one
    int32_t steps;                       // of this window
    int32_t oldest;                      // of the windows before
    float power[MAX_BINS];               // of the noise
    float mean[MAX_BANDS];               // of it over each band
};

// Prepares a zero-filled record.
void noise_init(Noise &noise);

// Takes in the power of a cleaned microphone, and whether there is echo in it.
void noise_update(Noise &noise, const Bands &bands, const float *cleaned_power, bool echo);

} // namespace nax::res
