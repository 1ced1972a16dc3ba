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
//   - Heights are normalised by what unrelated signals would give, which is known
//     from the weights, plus a prior, so that the first frames cannot claim too much.
//   - Only the partitions with the most energy are transformed back to lags.
#include "engines/cross_spectrum.h"

#include "engines/logtab.h"
#include "kernels/kernels.h"

#include <algorithm>
#include <cmath>

namespace nax {

// Decay of the evidence per frame: a memory of 16 frames, 0.26 s of active far end.
// Longer ones hold on to the old delay after a step, shorter ones waver in noise.
static constexpr float KEEP = 0.94f;
// At 8000 Hz, with 96 partitions, updating all of them would cost more than the FFTs.
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
// Frames that a partition rests between two transforms, and after which its peak no
// longer counts.
static constexpr int32_t REST_FRAMES = 3;
static constexpr int32_t FRESH_FRAMES = 10;
// An earlier lag is the first arrival when it reaches this share of the tallest one
// and lies at most so far before it: the strongest path is often a reflection.
static constexpr float ARRIVAL_SHARE = 0.6f;
static constexpr int32_t ARRIVAL_LAGS = 32;

bool cross_spectrum_init(CrossSpectrum &cross, int32_t partitions)
{
    cross.partitions = partitions;
    cross.ref_peak_db = SILENT_REF_DB;
    for (int32_t i = 0; i < WINDOW; i++) {
        cross.window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * (i + 0.5) / WINDOW));
        cross.cosine[i] = static_cast<float>(std::cos(2 * M_PI * i / WINDOW));
    }
    for (Peak &peak : cross.peaks)
        peak = {0, 0, FRESH_FRAMES + 1};
    cross.forward = kiss_fftr_alloc(WINDOW, 0, nullptr, nullptr);
    cross.inverse = kiss_fftr_alloc(WINDOW, 1, nullptr, nullptr);
    return cross.forward && cross.inverse;
}

void cross_spectrum_release(CrossSpectrum &cross)
{
    kiss_fftr_free(cross.forward);
    kiss_fftr_free(cross.inverse);
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

bool cross_spectrum_update(CrossSpectrum &cross, const float *ref, const float *mic)
{
    append(cross.ref, ref);
    append(cross.mic, mic);

    cross.newest = (cross.newest == 0 ? cross.partitions : cross.newest) - 1;
    const float ref_db = level_of(cross.ref);
    cross.ref_peak_db = std::max(ref_db, cross.ref_peak_db - PEAK_DECAY_DB);
    if (ref_db > std::max(SILENT_REF_DB, cross.ref_peak_db - REF_RANGE_DB)) {
        cross.ref_weight[cross.newest] = whiten(cross, cross.ref, cross.ref_past[cross.newest]);
    } else {
        cross.ref_weight[cross.newest] = 0;
        rest(cross.ref);
    }
    if (level_of(cross.mic) <= SILENT_MIC_DB) {
        rest(cross.mic);
        return false;
    }

    // A partition whose reference was silent keeps its evidence, and takes no time. Where
    // the lines hold many frames every other partition is updated, with twice the decay.
    Spectrum y;
    const float mic_weight = whiten(cross, cross.mic, y);
    const int32_t turns = cross.partitions > MAX_PARTITIONS_AT_ONCE ? 2 : 1;
    const float keep = turns == 2 ? KEEP * KEEP : KEEP;
    cross.turn = (cross.turn + 1) % turns;
    bool news = false;
    for (int32_t p = cross.turn; p < cross.partitions; p += turns) {
        const int32_t slot = (cross.newest + p) % cross.partitions;
        const float weight = cross.ref_weight[slot] * mic_weight;
        if (weight == 0) continue;
        const Spectrum &x = cross.ref_past[slot];
        Spectrum &a = cross.evidence[p];
        average_cross(a.re, a.im, x.re, x.im, y.re, y.im, keep, BINS);
        cross.variance[p] = keep * keep * cross.variance[p] + 2 * BINS * weight;
        news = true;
    }
    return news;
}

// Standard deviation of a lag of partition p, were the signals unrelated.
static float deviation(const CrossSpectrum &cross, int32_t p)
{
    return std::sqrt(cross.variance[p] + PRIOR);
}

// Back to lags: index n & (WINDOW - 1) holds lag p x HOP + n. The two windows overlap
// less as |n| grows, so each partition answers for half a frame on either side.
static Peak transform(const CrossSpectrum &cross, int32_t p)
{
    kiss_fft_cpx spectrum[HOP + 1] = {};
    float lags[WINDOW];
    for (int32_t k = 0; k < BINS; k++)
        spectrum[LOW_BIN + k] = {cross.evidence[p].re[k], cross.evidence[p].im[k]};
    kiss_fftri(cross.inverse, spectrum, lags);
    const auto size = [&lags](int32_t n) { return std::fabs(lags[n & (WINDOW - 1)]); };

    const int32_t least = p == 0 ? 0 : -HOP / 2;
    int32_t tallest = least;
    for (int32_t n = least + 1; n < HOP / 2; n++)
        if (size(n) > size(tallest)) tallest = n;

    int32_t first = tallest;
    const int32_t from = p == 0 ? std::max(0, tallest - ARRIVAL_LAGS) : tallest - ARRIVAL_LAGS;
    for (int32_t n = tallest - 1; n >= from; n--) {
        const bool local_peak = size(n) >= size(n - 1) && size(n) >= size(n + 1);
        if (local_peak && size(n) > ARRIVAL_SHARE * size(tallest)) first = n;
    }
    return {size(tallest) / deviation(cross, p), std::max(0, p * HOP + first), 0};
}

void cross_spectrum_search(CrossSpectrum &cross, int32_t transforms)
{
    // By Parseval the energy over the bins bounds the peak over the lags. A quarter of
    // the partitions a frame is soon enough.
    for (int32_t p = cross.scored; p < cross.partitions; p += 4)
        cross.score[p] = spectrum_energy(cross.evidence[p].re, cross.evidence[p].im, BINS) /
                         (cross.variance[p] + PRIOR);
    cross.scored = (cross.scored + 1) % 4;

    for (int32_t p = 0; p < cross.partitions; p++)
        cross.peaks[p].age++;
    for (int32_t n = 0; n < transforms; n++) {
        int32_t best = -1;
        for (int32_t p = 0; p < cross.partitions; p++)
            if (cross.peaks[p].age >= REST_FRAMES &&
                (best < 0 || cross.score[p] > cross.score[best]))
                best = p;
        if (best >= 0) cross.peaks[best] = transform(cross, best);
    }
}

const Peak *tallest_peak(const CrossSpectrum &cross)
{
    const Peak *tallest = nullptr;
    for (int32_t p = 0; p < cross.partitions; p++) {
        const Peak &peak = cross.peaks[p];
        if (peak.age <= FRESH_FRAMES && (!tallest || peak.height > tallest->height))
            tallest = &peak;
    }
    return tallest;
}

float tallest_rival(const CrossSpectrum &cross, int32_t lag, int32_t spread)
{
    float height = 0;
    for (int32_t p = 0; p < cross.partitions; p++) {
        const Peak &peak = cross.peaks[p];
        if (peak.age <= FRESH_FRAMES && std::abs(peak.lag - lag) > spread)
            height = std::max(height, peak.height);
    }
    return height;
}

float height_at(const CrossSpectrum &cross, int32_t lag)
{
    constexpr int32_t NEARBY_LAGS = 2;
    const int32_t p = std::min((lag + HOP / 2) / HOP, cross.partitions - 1);
    const Spectrum &a = cross.evidence[p];
    const auto cosine = [&cross](int32_t phase) { return cross.cosine[phase & (WINDOW - 1)]; };
    float tallest = 0;
    for (int32_t n = lag - p * HOP - NEARBY_LAGS; n <= lag - p * HOP + NEARBY_LAGS; n++) {
        float sum = 0;
        for (int32_t k = 0; k < BINS; k++) {
            const int32_t phase = (LOW_BIN + k) * n;
            sum += a.re[k] * cosine(phase) - a.im[k] * cosine(phase - WINDOW / 4);
        }
        tallest = std::max(tallest, 2 * std::fabs(sum));
    }
    return tallest / deviation(cross, p);
}

} // namespace nax
