// The meter's inner loops. Each exists in a scalar variant and, for ARM, in one for NEON
// with the same results, chosen when the library is loaded.
#pragma once

#include "kernels/processor.h"

#include <cstdint>

namespace nax::meter {

struct Sums {
    int64_t squares;
    int32_t sum;
    int32_t peak; // largest magnitude, 32767 at most
};

// Over count samples, a multiple of 16, at most 768.
using SumSamples = Sums(const int16_t *samples, int32_t count);

// Adds an array times a factor to a fading sum: to = keep to + factor from, for count values, a
// multiple of 16. The arrays must not overlap.
using AverageProducts = void(float *to, float keep, float factor, const float *from, int32_t count);

namespace scalar {
SumSamples sum_samples;
AverageProducts average_products;
} // namespace scalar

#if NAX_AEC_NEON
namespace neon {
SumSamples sum_samples;
AverageProducts average_products;
} // namespace neon
#endif

extern SumSamples *sum_samples;
extern AverageProducts *average_products;

} // namespace nax::meter
