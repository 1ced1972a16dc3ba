#include "meter/loops.h"

#include <algorithm>

namespace nax::meter {

Sums scalar::sum_samples(const int16_t *samples, int32_t count)
{
    int64_t squares = 0;
    int32_t sum = 0, least = 0, most = 0;
    for (int32_t i = 0; i < count; i++) {
        const int32_t sample = samples[i];
        squares += sample * sample;
        sum += sample;
        least = std::min(least, sample);
        most = std::max(most, sample);
    }
    return {squares, sum, std::min(std::max(most, -least), 32767)};
}

void scalar::average_products(float *to, float keep, float factor, const float *from, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i] = keep * to[i] + factor * from[i];
}

SumSamples *sum_samples = scalar::sum_samples;
AverageProducts *average_products = scalar::average_products;

#if NAX_AEC_NEON
[[gnu::constructor]] static void choose_neon()
{
    if (!processor_has_neon()) return;
    sum_samples = neon::sum_samples;
    average_products = neon::average_products;
}
#endif

} // namespace nax::meter
