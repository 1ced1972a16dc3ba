// Estimate of the echo that the canceller leaves in a microphone.
#pragma once

#include "suppressor/loops.h"
#include "suppressor/noise.h"
#include "suppressor/reference.h"

namespace nax::res {

struct Residual {
    // Running means over active frames of a band's powers and of their products.
    float ref_mean[MAX_BANDS], mic_mean[MAX_BANDS];
    float ref_square[MAX_BANDS], ref_times_mic[MAX_BANDS];
    float gain[MAX_BANDS]; // power gain from the reference to the microphone
    // Power that the echo would have if the canceller removed none of it.
    float predicted_power[MAX_BINS];
    float predicted_mean[MAX_BANDS]; // its mean over each band
    float tail[MAX_BINS];            // part of it: the room's decay beyond the canceller's filter
    // Weighted running means over active frames, for the regression that gives leakage.
    float cleaned_times_predicted[MAX_BANDS], predicted_square[MAX_BANDS];
    float leakage[MAX_BANDS]; // residual echo power / predicted power
    float power[MAX_BINS];    // the result: power of the residual echo
    float mean[MAX_BANDS];    // its mean over each band
    bool heard;               // the residual echo is louder than the noise
};

// Takes in one frame: the power of the removed echo, the comparison of microphones, and the
// microphone's noise.
void residual_update(Residual &residual, const Bands &bands, const Reference &reference,
                     const float *echo_power, const Comparison &comparison, const Noise &noise);

} // namespace nax::res
