// A share of what the canceller took out, band by band, with an exponential tail for the
// room beyond its filter (Habets, Gannot, Cohen and Sommen 2008, "Joint dereverberation
// and residual echo suppression of speech signals in noisy environments"), where that
// share, the leakage, is found by regression (Valin 2007, "On adjusting the learning rate
// in frequency domain echo cancellation with double-talk"). Departures:
//   - The regression is robust: a frame that holds more than the echo explains weighs less
//     and moves the means less. Unweighted, double talk raises the leakage by 5 to 10 dB.
//   - A canceller that has not converged, was restarted or is misaligned took nothing out.
//     So the echo is predicted from the reference, too, by its gain to the microphone.
//   - While a band of the far end is silent, what the canceller took out is no echo but
//     what its high-pass took, and counts for nothing; nor does what is far more than the
//     reference could make.
#include "suppressor/residual.h"

#include <algorithm>

namespace nax::res {

// Memory of the regressions: 67 frames, a second of active far end. 0.97 to 0.992 do alike.
static constexpr float NEWS = 0.015f;
// A loudspeaker beside the microphone may well be louder there than its reference.
static constexpr float MAX_GAIN = 4; // 6 dB; up to 10 do alike
// The tail dies away by 3.5 dB a frame, as in a room of 0.3 s. 0.3 to 0.6 do alike.
static constexpr Tail TAIL = {0.45f, 0.3f};
// What the canceller took out is echo up to so many times what that gain makes of the
// reference: in double talk it takes some of the talker as well, most at 48000 Hz. 4 to 8
// do alike; without it double talk at 48000 Hz loses 3 dB of the talker.
static constexpr float MAX_ECHO = 8;
// How much of the prediction joins the cleaned power in the weights. 0.25 to 1 do alike.
static constexpr float PREDICTION_WEIGHT = 0.5f;
// A frame counts in full from this share of the prediction in both powers on.
static constexpr float FULL_TRUST = 0.5f;
static constexpr float NOISE_SHARE = 0.5f;   // that is not for the echo to explain; 0 to 1 do alike
static constexpr float MIN_LEAKAGE = 0.001f; // -30 dB: more no canceller takes out
static constexpr float MAX_LEAKAGE = 4;
// The echo left dies away by 4 dB a frame at most (0.2 to 0.6 do alike). The talker is
// what exceeds three times as much (2 to 6) of a mean over two or three frames.
static constexpr Excess EXCESS = {0.4f, 0.6f, 3};
static constexpr float ROUNDING_POWER = 1; // more than that of samples

static void average(float &mean, float value, float news) { mean += news * (value - mean); }

static void learn_gain(Residual &r, int32_t b, float ref, float mic)
{
    average(r.ref[b], ref, NEWS);
    average(r.mic[b], mic, NEWS);
    average(r.ref_ref[b], ref * ref, NEWS);
    average(r.ref_mic[b], ref * mic, NEWS);
    const float variance = r.ref_ref[b] - r.ref[b] * r.ref[b];
    const float covariance = r.ref_mic[b] - r.ref[b] * r.mic[b];
    r.gain[b] = variance > 0 ? std::clamp(covariance / variance, 0.0f, MAX_GAIN) : 0;
}

// The share of what the canceller took out of a band that may be echo.
static float echo_share(const Residual &r, const Reference &reference, int32_t b, float taken)
{
    const float most = MAX_ECHO * r.gain[b] * reference.held[b] + ROUNDING_POWER;
    return std::min(most / (taken + ROUNDING_POWER), 1.0f);
}

static void learn_leakage(Residual &r, int32_t b, float cleaned, float noise)
{
    const float predicted = r.prediction_mean[b];
    const float trust = predicted / (cleaned + predicted + ROUNDING_POWER);
    const float news = NEWS * std::min(trust / FULL_TRUST, 1.0f);
    const float root = 1 / (cleaned + PREDICTION_WEIGHT * predicted + ROUNDING_POWER);
    const float echo = std::max(cleaned - NOISE_SHARE * noise, 0.0f);
    average(r.cleaned[b], trust * root * echo * (root * predicted), news);
    average(r.predicted[b], trust * root * predicted * (root * predicted), news);
    const float share = r.predicted[b] > 0 ? r.cleaned[b] / r.predicted[b] : 0;
    r.leakage[b] = std::clamp(share, MIN_LEAKAGE, MAX_LEAKAGE);
}

// Whether the echo left is above the noise, over all bands.
static bool is_heard(const Residual &r, const Bands &bands, const Noise &noise)
{
    float above = 0;
    for (int32_t b = 0; b < bands.count; b++)
        above += (r.leakage[b] * r.prediction_mean[b] - noise.mean[b]) / bands.share[b];
    return above > 0;
}

void residual_update(Residual &r, const Bands &bands, const Reference &reference,
                     const float *cleaned_power, const float *echo_power,
                     const Comparison &comparison, const Noise &noise)
{
    for (int32_t b = 0; b < bands.count; b++)
        if (reference.mean[b] > ACTIVE_POWER)
            learn_gain(r, b, reference.mean[b], comparison.mic[b]);
    float taken[MAX_BANDS], activity[MAX_BANDS];
    band_means(bands, echo_power, taken);
    for (int32_t b = 0; b < bands.count; b++)
        activity[b] = reference.activity[b] * echo_share(r, reference, b, taken[b]);
    predict_echo(bands, activity, r.gain, reference.power, echo_power, TAIL, r.tail, r.prediction,
                 r.prediction_mean);
    for (int32_t b = 0; b < bands.count; b++)
        if (reference.held[b] > ACTIVE_POWER)
            learn_leakage(r, b, comparison.cleaned[b], noise.mean[b]);

    float excess[MAX_BANDS], total[MAX_BANDS];
    estimate_residual(bands, r.leakage, r.prediction, cleaned_power, EXCESS, r.power, r.running,
                      excess, total);
    float near = TINY_POWER, all = TINY_POWER; // in digital silence echo explains nothing
    for (int32_t b = bands.near_from; b < bands.near_to; b++) {
        near += excess[b];
        all += total[b];
    }
    r.near_share = near / all;
    r.heard = is_heard(r, bands, noise);
}

} // namespace nax::res
