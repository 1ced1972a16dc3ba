// Where in the cross-spectrum's evidence the echo may lie: the tallest lag of each
// partition, looked at a few partitions a frame.
#pragma once

#include "engines/cross_spectrum.h"

#include <kiss_fftr.h>

#include <cstdint>

namespace nax {

// Peaks within so many lags belong to one echo path: 12 ms.
inline constexpr int32_t PATH_LAGS = 48;
// Reflections come at most so much later than the path that they belong to: 50 ms.
inline constexpr int32_t REFLECTION_LAGS = 200;

// The tallest lag of a partition. Its height is in standard deviations of what
// unrelated signals would give.
struct Peak {
    float height;
    int32_t lag;    // of the first arrival: the earliest lag nearly as tall
    int32_t age;    // frames since the partition was transformed, until it is forgotten
    float variance; // of the evidence that it was found in
};

struct LagPeaks {
    kiss_fftr_cfg inverse;
    float cosine[WINDOW];
    int32_t partitions;
    int32_t scored; // which quarter of the scores is due
    float *score;   // partitions: energy of the evidence over its variance
    Peak *peaks;    // partitions
};

// Prepares a zero-filled record. Returns false when there is no memory;
// lag_peaks_release then frees what there is.
bool lag_peaks_init(LagPeaks &found, int32_t partitions);
void lag_peaks_release(LagPeaks &found);

// Transforms the given number of partitions back to lags, the most promising first,
// and notes their peaks. Ages the others by a frame. Real time: yes.
void lag_peaks_search(LagPeaks &found, const CrossSpectrum &cross, int32_t transforms);

// Whether a peak is recent enough to count.
bool is_fresh(const Peak &peak);

// The tallest fresh peak, or null.
const Peak *tallest_peak(const LagPeaks &found);

// Height of the tallest fresh peak at most spread lags from lag.
float tallest_within(const LagPeaks &found, int32_t lag, int32_t spread);

// Height of the tallest fresh peak elsewhere than lag's path. Its reflections do not
// count: a later peak is one unless the evidence as far before lag reaches half of its
// height. A periodic signal shows both sides; a reflection is causal.
float tallest_rival(const LagPeaks &found, const CrossSpectrum &cross, int32_t lag);

// Height around one lag, without a transform. Real time: yes.
float height_at(const LagPeaks &found, const CrossSpectrum &cross, int32_t lag);

} // namespace nax
