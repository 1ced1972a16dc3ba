// The frequency bands of the suppressor. Each is about one Bark wide.
#pragma once

#include "kernels/rates.h"

#include <cstdint>

namespace nax::res {

// A window is two frames of 16 ms at every rate, so a bin is always 31.25 Hz wide.
inline constexpr int32_t VECTOR = 4;                    // bins; the inner loops' step
inline constexpr int32_t MAX_BINS = MAX_FRAME + VECTOR; // 0 Hz to half the rate, and padding
inline constexpr int32_t MAX_BANDS = 24;

struct Bands {
    int32_t count;
    // Band b begins at bin edge[b] and ends before bin edge[b + 1]. Edges are multiples of
    // VECTOR.
    int32_t edge[MAX_BANDS + 1];
    // 1 / number of bins of a band, without the padding above half the rate.
    float share[MAX_BANDS];
};

// The bands for frames of the given length in samples.
Bands bands_for(int32_t frame_size);

// The number of bins of a spectrum, with the padding.
inline int32_t padded_bins(const Bands &bands) { return bands.edge[bands.count]; }

} // namespace nax::res
