// Any of the four rates to the delay estimator's 4 kHz: 64 samples per 16 ms frame.
#pragma once

#include <cstdint>

namespace nax {

inline constexpr int32_t ESTIMATOR_RATE = 4000; // Hz
inline constexpr int32_t HOP = 64;              // samples per frame at that rate
inline constexpr int32_t MAX_DECIMATION = 12;   // from 48000 Hz
inline constexpr int32_t MAX_MIXED = 65535;     // channels whose sum fits 32 bits

struct Decimator {
    // Taps per output sample and per unit of decimation: the transition band then is
    // the same share of the output rate at every input rate.
    static constexpr int32_t TAPS_PER_PHASE = 12;
    static constexpr int32_t MAX_TAPS = TAPS_PER_PHASE * MAX_DECIMATION;

    int32_t decimation; // input samples per output sample
    int16_t taps[MAX_TAPS];
    int16_t line[MAX_TAPS + HOP * MAX_DECIMATION]; // last frame's end, then this frame
};

// Prepares a zero-filled decimator for decimation by 2, 4, 8 or 12.
void decimator_init(Decimator &decimator, int32_t decimation);

// Mixes the planar channels of a frame of HOP x decimation samples to their mean and
// writes its HOP samples at 4 kHz. Real time: yes.
void decimate(Decimator &decimator, const int16_t *frame, int32_t channels, float *to);

} // namespace nax
