// Generalised cross-correlation of Knapp and Carter (1976), weighted much like their
// phase transform, over long lags in partitions as in the multidelay filter of Soo
// and Pang (1990): a history of reference spectra, one per frame, and for each lag
// partition a recursive average of conj(X) Y. Departures, each found by experiment
// (docs/experiments.md):
//   - Both signals are seen through Hann windows of two frames. Zero-padded
//     rectangular blocks correlate at whole multiples of the frame, by the leakage at
//     their edges.
//   - A bin is divided by the root of its decaying peak power rather than by its own
//     magnitude, so that onsets count in full and what lies between them little.
//   - The variance that unrelated signals would give is known from the weights; a prior
//     is added to it, so that the first frames cannot claim too much.
#include "engines/cross_spectrum.h"

#include "engines/logtab.h"
#include "kernels/kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace nax {

// Decay of the evidence per frame. The short memory is 16 frames, 0.26 s of active far end.
// The long one is 50 frames, 0.8 s; a shorter one loses echoes in noise and in double talk.
static constexpr float KEEP_SHORT = 0.94f;
static constexpr float KEEP_LONG = 0.98f;
// At 8000 Hz, with 96 partitions, updating all of them in every frame costs too much
// once the echo is found.
static constexpr int32_t MAX_PARTITIONS_AT_ONCE = 48;
// Decay of the whitening power per frame. 0.8 to 0.97 serve almost alike.
static constexpr float RELEASE = 0.9f;
// Added to the variance: what this many frames of weakly whitened signal would give.
// With 3 frames an onset that both signals share by chance already passes for an
// echo; with 50 the delay is found 0.1 s later.
static constexpr float PRIOR_FRAMES = 20;
static constexpr float PRIOR_WEIGHT = 0.09f;
static constexpr float PRIOR = 2 * BINS * PRIOR_WEIGHT * PRIOR_FRAMES;
// The reference is silent below this level, or this far below its recent peak.
static constexpr float SILENT_REF_DB = -62;
static constexpr float REF_RANGE_DB = 35;
static constexpr float PEAK_DECAY_DB = 0.05f; // per frame, 3 dB a second
static constexpr float SILENT_MIC_DB = -80;

bool cross_spectrum_init(CrossSpectrum &cross, int32_t partitions)
{
    const size_t count = static_cast<size_t>(partitions);
    cross.partitions = partitions;
    cross.ref_peak_db = SILENT_REF_DB;
    for (int32_t i = 0; i < WINDOW; i++)
        cross.window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * (i + 0.5) / WINDOW));
    cross.forward = kiss_fftr_alloc(WINDOW, 0, nullptr, nullptr);
    cross.past = static_cast<PastFrame *>(calloc(count, sizeof *cross.past));
    cross.partition = static_cast<Partition *>(calloc(count, sizeof *cross.partition));
    return cross.forward && cross.past && cross.partition;
}

void cross_spectrum_release(CrossSpectrum &cross)
{
    kiss_fftr_free(cross.forward);
    free(cross.past);
    free(cross.partition);
}

static void append(Signal &signal, const float *hop)
{
    std::copy_n(signal.block + HOP, HOP, signal.block);
    std::copy_n(hop, HOP, signal.block + HOP);
}

static float level_of(const Signal &signal)
{
    constexpr float FULL_SCALE = 32768.0f * 32768.0f;
    float energy = 0;
    for (float sample : signal.block)
        energy += sample * sample;
    return level_db(energy * (1 / (WINDOW * FULL_SCALE)));
}

// Whitened spectrum of the signal's block; returns its mean |.|^2.
static float whiten(const CrossSpectrum &cross, Signal &signal, Spectrum &to)
{
    float windowed[WINDOW];
    kiss_fft_cpx spectrum[HOP + 1];
    for (int32_t i = 0; i < WINDOW; i++)
        windowed[i] = signal.block[i] * cross.window[i];
    kiss_fftr(cross.forward, windowed, spectrum);

    float sum = 0;
    for (int32_t k = 0; k < BINS; k++) {
        const kiss_fft_cpx bin = spectrum[LOW_BIN + k];
        const float power = bin.r * bin.r + bin.i * bin.i;
        signal.power[k] = std::max(power, RELEASE * signal.power[k]);
        const float gain = 1 / (std::sqrt(signal.power[k]) + 1); // + 1: no gain for rounding noise
        to.re[k] = gain * bin.r;
        to.im[k] = gain * bin.i;
        sum += gain * gain * power;
    }
    return sum / BINS;
}

static void rest(Signal &signal)
{
    for (float &power : signal.power)
        power *= RELEASE;
}

// The newest frame of the reference into the past.
static void remember(CrossSpectrum &cross)
{
    cross.newest = (cross.newest == 0 ? cross.partitions : cross.newest) - 1;
    PastFrame &frame = cross.past[cross.newest];
    const float ref_db = level_of(cross.ref);
    cross.ref_peak_db = std::max(ref_db, cross.ref_peak_db - PEAK_DECAY_DB);
    if (ref_db > std::max(SILENT_REF_DB, cross.ref_peak_db - REF_RANGE_DB)) {
        frame.weight = whiten(cross, cross.ref, frame.x);
    } else {
        frame.weight = 0;
        rest(cross.ref);
    }
}

bool cross_spectrum_update(CrossSpectrum &cross, const float *ref, const float *mic, Memory memory)
{
    append(cross.ref, ref);
    append(cross.mic, mic);
    remember(cross);
    if (level_of(cross.mic) <= SILENT_MIC_DB) {
        rest(cross.mic);
        return false;
    }

    // Where the lines hold many frames, every other partition is updated when there is
    // no hurry, with twice the decay and with products that count for two frames.
    const bool halved = memory == Memory::SHORT && cross.partitions > MAX_PARTITIONS_AT_ONCE;
    const int32_t turns = halved ? 2 : 1;
    const float frame_keep = memory == Memory::LONG ? KEEP_LONG : KEEP_SHORT;
    const float keep = halved ? frame_keep * frame_keep : frame_keep;
    Spectrum y;
    float mic_weight = whiten(cross, cross.mic, y);
    if (halved) {
        constexpr float ROOT_2 = 1.41421356f;
        for (int32_t k = 0; k < BINS; k++) {
            y.re[k] *= ROOT_2;
            y.im[k] *= ROOT_2;
        }
        mic_weight *= 2;
    }

    // A partition whose reference was silent keeps its evidence.
    cross.turn = (cross.turn + 1) % turns;
    bool news = false;
    for (int32_t p = cross.turn; p < cross.partitions; p += turns) {
        const PastFrame &past = cross.past[(cross.newest + p) % cross.partitions];
        const float weight = past.weight * mic_weight;
        if (weight == 0) continue;
        Partition &lags = cross.partition[p];
        average_cross(lags.evidence.re, lags.evidence.im, past.x.re, past.x.im, y.re, y.im, keep,
                      BINS);
        lags.variance = keep * keep * lags.variance + 2 * BINS * weight;
        news = true;
    }
    return news;
}

float deviation(const CrossSpectrum &cross, int32_t p)
{
    return std::sqrt(cross.partition[p].variance + PRIOR);
}

} // namespace nax
