// The gain of each bin.
#pragma once

#include "suppressor/loops.h"
#include "suppressor/noise.h"
#include "suppressor/residual.h"

namespace nax::res {

struct Gain {
    float near; // 0 (far end alone) to 1 (talker)
    // Running means of the comparison.
    float cleaned[MAX_BANDS], mic[MAX_BANDS], cross_re[MAX_BANDS], cross_im[MAX_BANDS];
    float power_out[MAX_BINS]; // output power of the frame before
};

// Applies the gain to a cleaned microphone's spectrum.
void gain_apply(Gain &gain, const Bands &bands, const Comparison &comparison,
                const Residual &residual, const Noise &noise, const float *cleaned_power,
                Complex *spectrum);

} // namespace nax::res
