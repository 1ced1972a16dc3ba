#include "engines/decimator.h"

#include "kernels/kernels.h"

#include <cmath>
#include <cstring>

namespace nax {

void mix_to_mono(const int16_t *frame, int32_t channels, int32_t length, int16_t *to)
{
    if (channels == 1) {
        memcpy(to, frame, static_cast<size_t>(length) * sizeof *to);
    } else if (channels == 2) { // without a division, which the baseline ARM does not have
        for (int32_t i = 0; i < length; i++)
            to[i] = static_cast<int16_t>((frame[i] + frame[length + i]) / 2);
    } else {
        for (int32_t i = 0; i < length; i++) {
            int32_t sum = 0;
            for (int32_t c = 0; c < channels; c++)
                sum += frame[c * length + i];
            to[i] = static_cast<int16_t>(sum / channels);
        }
    }
}

void design_low_pass(int16_t *taps, int32_t count, double cutoff)
{
    for (int32_t i = 0; i < count; i++) {
        const double t = i - (count - 1) / 2.0; // never 0: count is even
        const double sinc = std::sin(2 * M_PI * cutoff * t) / (M_PI * t);
        const double hann = 0.5 + 0.5 * std::cos(2 * M_PI * t / (count + 1));
        taps[i] = static_cast<int16_t>(std::lround(32768 * sinc * hann));
    }
}

// Passes 0 to 1.85 kHz. What folds back from above is weak and the same in both signals.
void decimator_init(Decimator &decimator, int32_t decimation)
{
    constexpr double CUTOFF_HZ = 1850;
    decimator.decimation = decimation;
    design_low_pass(decimator.taps, Decimator::TAPS_PER_PHASE * decimation,
                    CUTOFF_HZ / ESTIMATOR_RATE / decimation);
}

void decimate(Decimator &decimator, const int16_t *frame, float *to)
{
    const int32_t length = HOP * decimator.decimation;
    const int32_t tap_count = Decimator::TAPS_PER_PHASE * decimator.decimation;
    int16_t *line = decimator.line;
    memcpy(line + tap_count, frame, static_cast<size_t>(length) * sizeof *line);
    fir_decimate(line + decimator.decimation, decimator.taps, tap_count, decimator.decimation, to,
                 HOP);
    memmove(line, line + length, static_cast<size_t>(tap_count) * sizeof *line);
}

} // namespace nax
