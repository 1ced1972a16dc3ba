#include "meter/levels.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace nax::meter {

float power_of(int64_t squares, int64_t sum, int32_t count)
{
    constexpr double FULL_SCALE_POWER = 32768.0 * 32768.0;
    const double n = count, mean = static_cast<double>(sum) / n;
    const double power = static_cast<double>(squares) / n - mean * mean;
    return static_cast<float>(std::max(power, 0.0) / FULL_SCALE_POWER);
}

FrameLevel scalar::measure_frame(const int16_t *samples, int32_t count)
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
    return {power_of(squares, sum, count), std::min(std::max(most, -least), 32767)};
}

int32_t samples_at(const int16_t *samples, int32_t count, int32_t magnitude)
{
    int32_t found = 0, run = 0;
    for (int32_t i = 0; i < count; i++) {
        run = std::abs(int32_t{samples[i]}) >= magnitude ? run + 1 : 0;
        found += run >= 3;
    }
    return found;
}

float decibels(float power)
{
    constexpr float DB_PER_OCTAVE = 3.0102999566f; // 10 log10(2)
    constexpr float LEAST_POWER = 1e-10f, LEAST_DB = -100.0f;
    if (power <= LEAST_POWER) return LEAST_DB;
    uint32_t bits;
    memcpy(&bits, &power, sizeof bits);
    const int32_t exponent = static_cast<int32_t>(bits >> 23) - 127;
    bits = (bits & 0x7fffff) | 0x3f800000;
    float mantissa; // 1 to 2
    memcpy(&mantissa, &bits, sizeof mantissa);
    // log2(1 + u) by the parabola through both ends that errs least, 0.008.
    const float u = mantissa - 1.0f;
    return DB_PER_OCTAVE * (static_cast<float>(exponent) + u * (1.3465f - 0.3465f * u));
}

MeasureFrame *measure_frame = scalar::measure_frame;

#if NAX_AEC_NEON
[[gnu::constructor]] static void choose_neon()
{
    if (processor_has_neon()) measure_frame = neon::measure_frame;
}
#endif

} // namespace nax::meter
