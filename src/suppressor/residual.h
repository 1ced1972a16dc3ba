// How much echo the canceller leaves in a microphone.
#pragma once

#include "suppressor/loops.h"
#include "suppressor/noise.h"
#include "suppressor/reference.h"

namespace nax::res {

// Means are running ones, of active frames only.
struct Residual {
    // Powers of reference and microphone, and their products.
    float ref[MAX_BANDS], mic[MAX_BANDS], ref_ref[MAX_BANDS], ref_mic[MAX_BANDS];
    float gain[MAX_BANDS]; // of powers, reference to microphone
    // Weighted products of the prediction with the cleaned microphone and with itself.
    float cleaned[MAX_BANDS], predicted[MAX_BANDS];
    float leakage[MAX_BANDS];   // the share of the prediction that is left
    float tail[MAX_BINS];       // of the room, past the canceller's filter
    float prediction[MAX_BINS]; // power of the echo, were all of it left
    float prediction_mean[MAX_BANDS];
    float power[MAX_BINS];   // of the echo left
    float running[MAX_BINS]; // mean power of the cleaned microphone
    float near_share;        // of it that the echo left does not explain, 0 to 1
    bool heard;              // the echo left is above the noise
};

// One frame: powers of the cleaned microphone and of its echo, how the two compare, and
// the microphone's noise.
void residual_update(Residual &residual, const Bands &bands, const Reference &reference,
                     const float *cleaned_power, const float *echo_power,
                     const Comparison &comparison, const Noise &noise);

} // namespace nax::res
