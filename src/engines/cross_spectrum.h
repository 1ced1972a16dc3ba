// Evidence for the delay of the echo: how well the microphone agrees with the
// reference at every lag that the delay lines can serve.
#pragma once

#include "engines/decimator.h"

#include <kiss_fftr.h>

#include <cstdint>

namespace nax {

// A lag counts samples at ESTIMATOR_RATE. Lags are dealt with in partitions of HOP,
// one per frame that the delay lines hold.
inline constexpr int32_t MAX_PARTITIONS = 96; // 12288 samples at 8000 Hz
inline constexpr int32_t WINDOW = 2 * HOP;    // samples under one transform
inline constexpr int32_t LOW_BIN = 8;         // 250 Hz: below lie hum and rumble
inline constexpr int32_t BINS = 52;           // up to 1.85 kHz
static_assert(LOW_BIN + BINS <= HOP && BINS % 4 == 0);

struct Spectrum {
    float re[BINS];
    float im[BINS];
};

// The tallest lag of a partition. Its height is in standard deviations of what
// unrelated signals would give.
struct Peak {
    float height;
    int32_t lag; // of the first arrival: the earliest lag nearly as tall
    int32_t age; // frames since the partition was transformed
};

struct Signal {
    float block[WINDOW]; // the last two frames at ESTIMATOR_RATE
    float power[BINS];   // decaying peak power, which whitens the spectrum
};

struct CrossSpectrum {
    kiss_fftr_cfg forward;
    kiss_fftr_cfg inverse;
    float window[WINDOW];
    float cosine[WINDOW];
    Signal ref;
    Signal mic;
    float ref_peak_db; // decaying peak level of the reference
    int32_t partitions;
    int32_t turn;                      // which of the interleaved partitions this frame updates
    int32_t newest;                    // slot of this frame in the histories
    Spectrum ref_past[MAX_PARTITIONS]; // whitened reference, a ring of frames
    float ref_weight[MAX_PARTITIONS];  // mean |X|^2 of each; 0: silent, not used
    Spectrum evidence[MAX_PARTITIONS]; // averaged conj(X) Y, by partition
    float variance[MAX_PARTITIONS];    // of a lag, were the signals unrelated
    float score[MAX_PARTITIONS];       // energy of the evidence over that variance
    int32_t scored;                    // which quarter of the scores is due
    Peak peaks[MAX_PARTITIONS];
};

// Prepares a zero-filled record for the given number of partitions. Returns false
// when there is no memory for the transforms.
bool cross_spectrum_init(CrossSpectrum &cross, int32_t partitions);
void cross_spectrum_release(CrossSpectrum &cross);

// Takes in HOP samples of each signal at ESTIMATOR_RATE. Returns whether they told
// anything: silence on either side leaves the evidence as it was.
bool cross_spectrum_update(CrossSpectrum &cross, const float *ref, const float *mic);

// Transforms the given number of partitions back to lags, the most promising first,
// and notes their peaks. Ages the others by a frame.
void cross_spectrum_search(CrossSpectrum &cross, int32_t transforms);

// The tallest recent peak, or null.
const Peak *tallest_peak(const CrossSpectrum &cross);

// Height of the tallest recent peak that lies more than spread lags from lag.
float tallest_rival(const CrossSpectrum &cross, int32_t lag, int32_t spread);

// Height around one lag, without a transform.
float height_at(const CrossSpectrum &cross, int32_t lag);

} // namespace nax
