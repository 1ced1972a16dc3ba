// Evidence for the delay of the echo: how well the microphone agrees with the
// reference, as an averaged cross-spectrum for every stretch of lags that the delay
// lines can serve. lag_peaks.h finds the lags in it.
#pragma once

#include "engines/decimator.h"

#include <kiss_fftr.h>

#include <cstdint>

namespace nax {

// A lag counts samples at ESTIMATOR_RATE. Lags are dealt with in partitions of HOP,
// one per frame that the delay lines hold.
inline constexpr int32_t WINDOW = 2 * HOP; // samples under one transform
inline constexpr int32_t LOW_BIN = 8;      // 250 Hz: below lie hum and rumble
inline constexpr int32_t BINS = 52;        // up to 1.85 kHz
static_assert(LOW_BIN + BINS <= HOP && BINS % 4 == 0, "bins below Nyquist, in vectors of four");

struct Spectrum {
    float re[BINS];
    float im[BINS];
};

struct Signal {
    float block[WINDOW]; // the last two frames at ESTIMATOR_RATE
    float power[BINS];   // decaying peak power, which whitens the spectrum
};

// One past frame of the reference, whitened.
struct PastFrame {
    Spectrum x;
    float weight; // mean |X|^2; 0: silent, not used
};

// The lags of one partition.
struct Partition {
    Spectrum evidence; // averaged conj(X) Y
    float variance;    // of a lag, were the signals unrelated
};

struct CrossSpectrum {
    kiss_fftr_cfg forward;
    float window[WINDOW];
    Signal ref;
    Signal mic;
    float ref_peak_db; // decaying peak level of the reference
    int32_t partitions;
    int32_t turn;         // which of the interleaved partitions this frame updates
    int32_t newest;       // slot of this frame in the past
    PastFrame *past;      // partitions, a ring of frames
    Partition *partition; // partitions
};

// How long evidence counts. Long finds weak echoes, short follows an echo that moves.
enum class Memory { LONG, SHORT };

// Prepares a zero-filled record for the given number of partitions. Returns false
// when there is no memory; cross_spectrum_release then frees what there is.
// Needs nax_logtab_init first.
bool cross_spectrum_init(CrossSpectrum &cross, int32_t partitions);
void cross_spectrum_release(CrossSpectrum &cross);

// Takes in HOP samples of each signal at ESTIMATOR_RATE. Returns whether they told
// anything: silence on either side leaves the evidence as it was. Real time: yes.
bool cross_spectrum_update(CrossSpectrum &cross, const float *ref, const float *mic, Memory memory);

// Standard deviation of a lag of partition p, were the signals unrelated.
float deviation(const CrossSpectrum &cross, int32_t p);

} // namespace nax
