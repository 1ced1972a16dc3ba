// Spectra made up of powers, for tests of the suppressor's blocks.
#pragma once

#include "suppressor/loops.h"

#include "signals.h"

#include <algorithm>

namespace nax::res {

inline constexpr int32_t FRAME_SIZES[] = {128, 256, 512, 768};

// A bin's value for every bin.
struct Bins {
    float at[MAX_BINS];
    explicit Bins(float value) { std::fill_n(at, MAX_BINS, value); }
    operator float *() { return at; }
    operator const float *() const { return at; }
};

// How a cleaned microphone compares with a microphone whose echo was as given, both of
// one power in every bin and unrelated.
inline Comparison comparison_of(float cleaned, float echo)
{
    Comparison comparison;
    std::fill_n(comparison.cleaned, MAX_BANDS, cleaned);
    std::fill_n(comparison.echo, MAX_BANDS, echo);
    std::fill_n(comparison.mic, MAX_BANDS, cleaned + echo);
    std::fill_n(comparison.cross_re, MAX_BANDS, cleaned);
    std::fill_n(comparison.cross_im, MAX_BANDS, 0.0f);
    return comparison;
}

} // namespace nax::res
