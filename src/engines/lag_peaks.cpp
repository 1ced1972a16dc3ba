// Only the partitions with the most energy are transformed back to lags: by Parseval
// the energy over the bins bounds the peak over the lags.
#include "engines/lag_peaks.h"

#include "kernels/kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace nax {

// Frames that a partition rests between two transforms, and after which its peak no
// longer counts.
static constexpr int32_t REST_FRAMES = 3;
static constexpr int32_t FRESH_FRAMES = 10;
static constexpr int32_t FORGOTTEN_AGE = FRESH_FRAMES + 1; // the count ends there
// An earlier lag is the first arrival when it reaches this share of the tallest one
// and lies at most so far before it: the strongest path is often a reflection.
static constexpr float ARRIVAL_SHARE = 0.6f;
static constexpr int32_t ARRIVAL_LAGS = 32;
// Share of a later peak's height that its mirror image must reach to make it a rival.
static constexpr float MIRROR_SHARE = 0.5f;

bool lag_peaks_init(LagPeaks &found, int32_t partitions)
{
    const size_t count = static_cast<size_t>(partitions);
    for (int32_t i = 0; i < WINDOW; i++)
        found.cosine[i] = static_cast<float>(std::cos(2 * M_PI * i / WINDOW));
    found.partitions = partitions;
    found.inverse = kiss_fftr_alloc(WINDOW, 1, nullptr, nullptr);
    found.score = static_cast<float *>(calloc(count, sizeof *found.score));
    found.peaks = static_cast<Peak *>(calloc(count, sizeof *found.peaks));
    if (!found.inverse || !found.score || !found.peaks) return false;
    for (int32_t p = 0; p < partitions; p++)
        found.peaks[p].age = FORGOTTEN_AGE;
    return true;
}

void lag_peaks_release(LagPeaks &found)
{
    kiss_fftr_free(found.inverse);
    free(found.score);
    free(found.peaks);
}

// Back to lags: index n & (WINDOW - 1) holds lag p x HOP + n. The two windows overlap
// less as |n| grows, so each partition answers for half a frame on either side.
static Peak transform(const LagPeaks &found, const CrossSpectrum &cross, int32_t p)
{
    const Spectrum &evidence = cross.partition[p].evidence;
    kiss_fft_cpx spectrum[HOP + 1] = {};
    float lags[WINDOW];
    for (int32_t k = 0; k < BINS; k++)
        spectrum[LOW_BIN + k] = {evidence.re[k], evidence.im[k]};
    kiss_fftri(found.inverse, spectrum, lags);
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
    return {size(tallest) / deviation(cross, p), std::max(0, p * HOP + first), 0,
            cross.partition[p].variance};
}

void lag_peaks_search(LagPeaks &found, const CrossSpectrum &cross, int32_t transforms)
{
    // Scores change slowly: a quarter of them per frame is enough.
    for (int32_t p = found.scored; p < found.partitions; p += 4) {
        const Partition &lags = cross.partition[p];
        const float noise = deviation(cross, p);
        found.score[p] =
            spectrum_energy(lags.evidence.re, lags.evidence.im, BINS) / (noise * noise);
    }
    found.scored = (found.scored + 1) % 4;

    for (int32_t p = 0; p < found.partitions; p++)
        found.peaks[p].age = std::min(found.peaks[p].age + 1, FORGOTTEN_AGE);
    // A partition whose evidence has not changed since its last transform tells nothing new.
    for (int32_t n = 0; n < transforms; n++) {
        int32_t best = -1;
        for (int32_t p = 0; p < found.partitions; p++)
            if (found.peaks[p].age >= REST_FRAMES &&
                found.peaks[p].variance != cross.partition[p].variance &&
                (best < 0 || found.score[p] > found.score[best]))
                best = p;
        if (best >= 0) found.peaks[best] = transform(found, cross, best);
    }
}

bool is_fresh(const Peak &peak) { return peak.age <= FRESH_FRAMES; }

const Peak *tallest_peak(const LagPeaks &found)
{
    const Peak *tallest = nullptr;
    for (int32_t p = 0; p < found.partitions; p++) {
        const Peak &peak = found.peaks[p];
        if (is_fresh(peak) && (!tallest || peak.height > tallest->height)) tallest = &peak;
    }
    return tallest;
}

float tallest_within(const LagPeaks &found, int32_t lag, int32_t spread)
{
    float height = 0;
    for (int32_t p = 0; p < found.partitions; p++) {
        const Peak &peak = found.peaks[p];
        if (is_fresh(peak) && std::abs(peak.lag - lag) <= spread)
            height = std::max(height, peak.height);
    }
    return height;
}

static bool is_reflection(const LagPeaks &found, const CrossSpectrum &cross, const Peak &peak,
                          int32_t lag)
{
    const int32_t later = peak.lag - lag;
    if (later <= 0 || later > REFLECTION_LAGS) return false;
    return later > lag || height_at(found, cross, lag - later) < MIRROR_SHARE * peak.height;
}

float tallest_rival(const LagPeaks &found, const CrossSpectrum &cross, int32_t lag)
{
    float height = 0;
    for (int32_t p = 0; p < found.partitions; p++) {
        const Peak &peak = found.peaks[p];
        if (is_fresh(peak) && peak.height > height && std::abs(peak.lag - lag) > PATH_LAGS &&
            !is_reflection(found, cross, peak, lag))
            height = peak.height;
    }
    return height;
}

float height_at(const LagPeaks &found, const CrossSpectrum &cross, int32_t lag)
{
    constexpr int32_t NEARBY_LAGS = 2;
    const int32_t p = std::min((lag + HOP / 2) / HOP, found.partitions - 1);
    const Spectrum &a = cross.partition[p].evidence;
    const auto cosine = [&found](int32_t phase) { return found.cosine[phase & (WINDOW - 1)]; };
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
