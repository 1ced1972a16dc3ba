// What a channel's samples show over one frame. For 32-bit ARM there is a variant for NEON
// with the same results, chosen when the library is loaded.
#pragma once

#include "kernels/processor.h"

#include <cstdint>

namespace nax::meter {

struct FrameLevel {
    float power;  // mean square less the mean's, of full scale 1
    int32_t peak; // largest magnitude, 32767 at most
};

// Of count samples, a multiple of 8, at most 768.
using MeasureFrame = FrameLevel(const int16_t *samples, int32_t count);

namespace scalar {
MeasureFrame measure_frame;
}

#if NAX_AEC_NEON
namespace neon {
MeasureFrame measure_frame;
}
#endif

extern MeasureFrame *measure_frame;

// The power of sums over count samples.
float power_of(int64_t squares, int64_t sum, int32_t count);

// How many samples stand in runs of three or more of at least this magnitude, their ends not
// counted.
int32_t samples_at(const int16_t *samples, int32_t count, int32_t magnitude);

// 10 log10 of a power, -100 or more, right to 0.02 dB. Without a library's logarithm: the
// same on every processor, and a quarter of its cost.
float decibels(float power);

} // namespace nax::meter
