// The gain of each bin.
#pragma once

#include "suppressor/loops.h"

namespace nax::res {

struct Gain {
    float power_out[MAX_BINS]; // output power of the frame before
};

// What is known of each band.
struct BandEvidence {
    const float *talker;             // presence of the near end, 0 to 1
    const float *coherence;          // of the cleaned with the raw microphone
    const float *cleaned, *residual; // mean powers of the cleaned microphone and its residual echo
};

// Applies the gain to a cleaned microphone's spectrum. The powers are per bin.
void gain_apply(Gain &gain, const Bands &bands, const BandEvidence &known,
                const float *residual_power, const float *noise_power, const float *cleaned_power,
                Complex *spectrum);

} // namespace nax::res
