// The gain of each bin.
#pragma once

#include "suppressor/loops.h"

namespace nax::res {

struct Gain {
    float power_out[MAX_BINS]; // output power of the frame before
};

// Applies the gain to a cleaned microphone's spectrum. talker is the near end's presence and
// coherence that of the cleaned with the raw microphone, both per band; the powers are per bin.
void gain_apply(Gain &gain, const Bands &bands, const float *talker, const float *coherence,
                const float *residual_power, const float *noise_power, const float *cleaned_power,
                Complex *spectrum);

} // namespace nax::res
