// The residual echo's power is a share of the power of the removed echo, band by band, with
// an exponential tail for the room's decay beyond the canceller's filter (Habets, Gannot,
// Cohen and Sommen 2008, "Joint dereverberation and residual echo suppression of speech
// signals in noisy environments"). That share, the leakage, is found by regression (Valin
// 2007, "On adjusting the learning rate in frequency domain echo cancellation with
// double-talk"). Differences from these papers:
//   - The regression is robust. A frame with more power than the echo explains gets a
//     smaller weight. Without weights, double talk raises the leakage by 5 to 10 dB.
//   - The echo is also predicted from the reference, by its power gain to the microphone.
//     A canceller that has not converged, was restarted or is misaligned removes nothing.
//   - While a band of the reference is silent, the canceller's output differs from the
//     microphone by its high-pass only. That difference is not counted as echo.
#include "suppressor/residual.h"

#include <algorithm>

namespace nax::res {

// Weight of a new frame in the running means: a memory of 67 frames, 1 s of active far end.
// 0.008 to 0.03 give equal results.
static constexpr float NEW_SHARE = 0.015f;
// 20 dB: a smart speaker's microphone hears its loudspeaker up to 19 dB louder than its reference
// is. 13 dB gives equal results elsewhere.
static constexpr float MAX_GAIN = 100;
// The tail decays by 3.5 dB a frame, as in a room with a reverberation time of 0.3 s. 0.3 to
// 0.6 give equal results.
static constexpr Tail TAIL = {0.45f, 0.3f};
// A frame's weight is 1 / (cleaned power + this share of the predicted power), squared. 0.25
// to 1 give equal results.
static constexpr float PREDICTION_WEIGHT = 0.5f;
// A frame in which the predicted echo has this share of the power moves the means in full.
static constexpr float FULL_TRUST = 0.5f;
// Share of the noise's power that is subtracted from the cleaned power before the
// regression. 0 to 1 give equal results.
static constexpr float NOISE_SHARE = 0.5f;
static constexpr float MIN_LEAKAGE = 0.001f; // -30 dB: no canceller removes more
static constexpr float MAX_LEAKAGE = 4;
// The residual echo decays by at most 4 dB a frame. 0.2 to 0.6 give equal results.
static constexpr float RELEASE = 0.4f;
static constexpr float ROUNDING_POWER = 1; // more than rounding to 16 bits gives

static void move_towards(float &mean, float value, float share) { mean += share * (value - mean); }

static void learn_gain(Residual &r, int32_t b, float ref, float mic)
{
    move_towards(r.ref_mean[b], ref, NEW_SHARE);
    move_towards(r.mic_mean[b], mic, NEW_SHARE);
    move_towards(r.ref_square[b], ref * ref, NEW_SHARE);
    move_towards(r.ref_times_mic[b], ref * mic, NEW_SHARE);
    const float variance = r.ref_square[b] - r.ref_mean[b] * r.ref_mean[b];
    const float covariance = r.ref_times_mic[b] - r.ref_mean[b] * r.mic_mean[b];
    r.gain[b] = variance > 0 ? std::clamp(covariance / variance, 0.0f, MAX_GAIN) : 0;
}

static void learn_leakage(Residual &r, int32_t b, float cleaned, float noise)
{
    const float predicted = r.predicted_mean[b];
    const float trust = predicted / (cleaned + predicted + ROUNDING_POWER);
    const float new_share = NEW_SHARE * std::min(trust / FULL_TRUST, 1.0f);
    const float root = 1 / (cleaned + PREDICTION_WEIGHT * predicted + ROUNDING_POWER);
    const float echo = std::max(cleaned - NOISE_SHARE * noise, 0.0f);
    move_towards(r.cleaned_times_predicted[b], trust * root * echo * (root * predicted), new_share);
    move_towards(r.predicted_square[b], trust * root * predicted * (root * predicted), new_share);
    const float share =
        r.predicted_square[b] > 0 ? r.cleaned_times_predicted[b] / r.predicted_square[b] : 0;
    r.leakage[b] = std::clamp(share, MIN_LEAKAGE, MAX_LEAKAGE);
}

// Whether the residual echo is louder than the noise, over all bands.
static bool is_heard(const Residual &r, const Bands &bands, const Noise &noise)
{
    float above = 0;
    for (int32_t b = 0; b < bands.count; b++)
        above += (r.leakage[b] * r.predicted_mean[b] - noise.mean[b]) / bands.share[b];
    return above > 0;
}

void residual_update(Residual &r, const Bands &bands, const Reference &reference,
                     const float *echo_power, const Comparison &comparison, const Noise &noise)
{
    for (int32_t b = 0; b < bands.count; b++)
        if (reference.mean[b] > ACTIVE_POWER)
            learn_gain(r, b, reference.mean[b], comparison.mic[b]);
    predict_echo(bands, reference.activity, r.gain, reference.power, echo_power, TAIL, r.tail,
                 r.predicted_power, r.predicted_mean);
    for (int32_t b = 0; b < bands.count; b++)
        if (reference.held[b] > ACTIVE_POWER)
            learn_leakage(r, b, comparison.cleaned[b], noise.mean[b]);
    float shares[MAX_BANDS]; // The echo in a gap of the reference is left whole.
    for (int32_t b = 0; b < bands.count; b++)
        shares[b] = std::max(r.leakage[b], reference.gap);
    estimate_residual(bands, shares, r.predicted_power, RELEASE, r.power, r.mean);
    r.heard = is_heard(r, bands, noise);
}

} // namespace nax::res
