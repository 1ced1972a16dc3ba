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

// Writes the mean of the planar channels of a frame, length samples each, at least one
// and at most MAX_MIXED channels. Real time: yes.
void mix_to_mono(const int16_t *frame, int32_t channels, int32_t length, int16_t *to);

// Prepares a zero-filled decimator for decimation by 2, 4, 8 or 12.
void decimator_init(Decimator &decimator, int32_t decimation);

// Takes in a frame of HOP x decimation samples and writes its HOP samples at 4 kHz.
// Real time: yes.
void decimate(Decimator &decimator, const int16_t *frame, float *to);

// Windowed-sinc low-pass of count taps, an even number, in Q15, its gain 1 at 0 Hz.
//   cutoff  half-amplitude frequency in cycles per sample
void design_low_pass(int16_t *taps, int32_t count, double cutoff);

} // namespace nax
