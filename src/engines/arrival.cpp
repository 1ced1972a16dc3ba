// The same weighted correlation as cross_spectrum.cpp, of a block of the microphone and
// the block of the reference that lies the aim further back, both under Hann windows.
#include "engines/arrival.h"

#include "kernels/kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace nax {

static constexpr int32_t LOW_BIN_1_KHZ = 32;
static constexpr int32_t WINDOW_MS = 32;
static constexpr float KEEP = 0.97f;   // decay of the evidence per update
static constexpr float RELEASE = 0.8f; // of the whitening power per update
// Added to the variance: what so many updates of weakly whitened signal would give.
static constexpr float PRIOR_UPDATES = 6;
static constexpr float PRIOR_WEIGHT = 0.09f;
static constexpr int32_t MOST_UPDATES = 1000; // the count ends there
// Mean power of a block below which it is silent: -62 and -80 dB of full scale.
static constexpr float SILENT_REF = 677;
static constexpr float SILENT_MIC = 10;
// Where the onset is looked for, around the aim.
static constexpr int32_t BEFORE_MS = 6;
static constexpr int32_t AFTER_MS = 8;
// An earlier lag is the onset when it lies at most so far before the tallest one and reaches
// this share of it and this height.
static constexpr int32_t ONSET_MS = 6;
static constexpr float ONSET_SHARE = 0.6f;
static constexpr float ONSET_HEIGHT = 6;

bool arrival_init(Arrival &arrival, int32_t sample_rate, int32_t frame, int32_t reach)
{
    constexpr double CUTOFF_HZ = 7600;
    arrival.frame = frame;
    arrival.reach = reach;
    arrival.decimation = std::max(sample_rate / FINE_RATE, 1);
    arrival.window = 2 * frame / arrival.decimation;
    arrival.bins = arrival.window * 7 / 16 - LOW_BIN_1_KHZ; // up to 7/8 of the band
    arrival.tap_count = arrival.decimation > 1 ? Arrival::TAPS_PER_PHASE * arrival.decimation : 0;
    design_low_pass(arrival.taps, arrival.tap_count, CUTOFF_HZ / sample_rate);
    for (int32_t i = 0; i < arrival.window; i++)
        arrival.hann[i] =
            static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * (i + 0.5) / arrival.window));

    arrival.past_length = reach + 2 * frame + arrival.tap_count;
    const auto samples = [](int32_t count) {
        return static_cast<int16_t *>(calloc(static_cast<size_t>(count), sizeof(int16_t)));
    };
    arrival.ref_past = samples(arrival.past_length);
    arrival.mic_past = samples(3 * frame);
    arrival.forward = kiss_fftr_alloc(arrival.window, 0, nullptr, nullptr);
    arrival.inverse = kiss_fftr_alloc(arrival.window, 1, nullptr, nullptr);
    return arrival.ref_past && arrival.mic_past && arrival.forward && arrival.inverse;
}

void arrival_release(Arrival &arrival)
{
    kiss_fftr_free(arrival.forward);
    kiss_fftr_free(arrival.inverse);
    free(arrival.ref_past);
    free(arrival.mic_past);
}

static void copy_samples(const int16_t *from, int16_t *to, int32_t count)
{
    memcpy(to, from, static_cast<size_t>(count) * sizeof *to);
}

void arrival_listen(Arrival &arrival, const int16_t *ref, const int16_t *mic)
{
    const int32_t frame = arrival.frame;
    const int32_t straight = std::min(frame, arrival.past_length - arrival.head);
    copy_samples(ref, arrival.ref_past + arrival.head, straight);
    copy_samples(ref + straight, arrival.ref_past, frame - straight);
    arrival.head = (arrival.head + frame) % arrival.past_length;
    memmove(arrival.mic_past, arrival.mic_past + frame,
            2 * static_cast<size_t>(frame) * sizeof *mic);
    copy_samples(mic, arrival.mic_past + 2 * frame, frame);
}

void arrival_aim(Arrival &arrival, int32_t lag)
{
    arrival.aim = std::clamp(lag, 0, arrival.reach);
    arrival.updates = 0;
    arrival.variance = 0;
    arrival.evidence = {};
    std::fill_n(arrival.ref_power, FINE_BINS, 0.0f);
}

// Whitened spectrum of two frames of samples, at the full rate and with what the
// low-pass needs before them. Returns its mean |.|^2, or 0 when they are silent.
static float whiten(Arrival &arrival, const int16_t *samples, float silent, float *power,
                    FineSpectrum &to)
{
    float *block = arrival.block;
    kiss_fft_cpx *spectrum = arrival.bins_of_block;
    const int32_t window = arrival.window;
    if (arrival.tap_count > 0)
        fir_decimate(samples, arrival.taps, arrival.tap_count, arrival.decimation, block, window);
    else
        std::copy_n(samples, window, block);

    float energy = 0;
    for (int32_t i = 0; i < window; i++) {
        energy += block[i] * block[i];
        block[i] *= arrival.hann[i];
    }
    if (energy < silent * static_cast<float>(window)) return 0;
    kiss_fftr(arrival.forward, block, spectrum);

    float sum = 0;
    for (int32_t k = 0; k < arrival.bins; k++) {
        const kiss_fft_cpx bin = spectrum[LOW_BIN_1_KHZ + k];
        const float now = bin.r * bin.r + bin.i * bin.i;
        power[k] = std::max(now, RELEASE * power[k]);
        const float gain = 1 / (std::sqrt(power[k]) + 1); // + 1: no gain for rounding noise
        to.re[k] = gain * bin.r;
        to.im[k] = gain * bin.i;
        sum += gain * gain * now;
    }
    return sum / static_cast<float>(arrival.bins);
}

bool arrival_update(Arrival &arrival)
{
    const int32_t count = 2 * arrival.frame + arrival.tap_count;
    const int32_t from =
        (arrival.head + 2 * arrival.past_length - arrival.aim - count) % arrival.past_length;
    const int32_t straight = std::min(count, arrival.past_length - from);
    copy_samples(arrival.ref_past + from, arrival.samples, straight);
    copy_samples(arrival.ref_past, arrival.samples + straight, count - straight);

    FineSpectrum &x = arrival.x, &y = arrival.y;
    const int16_t *mic = arrival.mic_past + 3 * arrival.frame - count;
    const float ref_weight = whiten(arrival, arrival.samples, SILENT_REF, arrival.ref_power, x);
    const float mic_weight =
        ref_weight > 0 ? whiten(arrival, mic, SILENT_MIC, arrival.mic_power, y) : 0;
    if (mic_weight <= 0) return false;
    average_cross(arrival.evidence.re, arrival.evidence.im, x.re, x.im, y.re, y.im, KEEP,
                  arrival.bins);
    const float bins = static_cast<float>(arrival.bins);
    arrival.variance = KEEP * KEEP * arrival.variance + 2 * bins * ref_weight * mic_weight;
    // Odd and even numbers of updates go on taking turns.
    arrival.updates += arrival.updates < MOST_UPDATES ? 1 : -1;
    return true;
}

Onset arrival_onset(Arrival &arrival)
{
    float *lags = arrival.block;
    kiss_fft_cpx *spectrum = arrival.bins_of_block;
    std::fill_n(spectrum, arrival.window / 2 + 1, kiss_fft_cpx{});
    for (int32_t k = 0; k < arrival.bins; k++)
        spectrum[LOW_BIN_1_KHZ + k] = {arrival.evidence.re[k], arrival.evidence.im[k]};
    kiss_fftri(arrival.inverse, spectrum, lags);
    const auto size = [&](int32_t n) { return std::fabs(lags[n & (arrival.window - 1)]); };

    const int32_t ms = arrival.window / WINDOW_MS;
    const int32_t from = std::max(-BEFORE_MS * ms, -arrival.aim / arrival.decimation);
    int32_t tallest = from;
    for (int32_t n = from + 1; n < AFTER_MS * ms; n++)
        if (size(n) > size(tallest)) tallest = n;

    const float bins = static_cast<float>(arrival.bins);
    const float deviation = std::sqrt(arrival.variance + 2 * bins * PRIOR_WEIGHT * PRIOR_UPDATES);
    const float least = std::max(ONSET_SHARE * size(tallest), ONSET_HEIGHT * deviation);
    int32_t first = tallest;
    for (int32_t n = tallest - 1; n > std::max(from, tallest - ONSET_MS * ms); n--)
        if (size(n) > least && size(n) >= size(n - 1) && size(n) >= size(n + 1)) first = n;
    return {arrival.updates, size(tallest) / deviation, arrival.aim + first * arrival.decimation};
}

} // namespace nax
