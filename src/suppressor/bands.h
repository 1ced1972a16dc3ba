// The bands in which the suppressor compares signals: about one Bark each.
#pragma once

#include <cstdint>

namespace nax::res {

// A bin is 31.25 Hz wide at every rate, since a window is always two frames of 16 ms.
inline constexpr int32_t MAX_FRAME = 768;               // samples, at 48000 Hz
inline constexpr int32_t VECTOR = 4;                    // bins that the inner loops take at once
inline constexpr int32_t MAX_BINS = MAX_FRAME + VECTOR; // 0 Hz to half the rate, padded
inline constexpr int32_t MAX_BANDS = 24;

struct Bands {
    int32_t count;
    // Band b is the bins from edge[b] up to, not with, edge[b + 1]: whole vectors.
    int32_t edge[MAX_BANDS + 1];
    // One over the bins that it holds; the padding behind half the rate is none.
    float share[MAX_BANDS];
    // The bands from near_from up to, not with, near_to tell a talker from an echo.
    int32_t near_from, near_to;
};

// The bands for frames of the given length in samples.
Bands bands_for(int32_t frame_size);

// Bins of a spectrum, the padding included.
inline int32_t padded_bins(const Bands &bands) { return bands.edge[bands.count]; }

} // namespace nax::res
