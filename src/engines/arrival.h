// The fine look: the first arrival of the echo to a fraction of a millisecond, and a second
// opinion on whether there is an echo. It is the same correlation around one lag, over a band
// that the coarse search does not use. The direct sound of a loudspeaker in a case is often weak
// below 2 kHz, so the coarse search may find a reflection instead.
#pragma once

#include "engines/decimator.h"

#include <kiss_fftr.h>

#include <cstdint>

namespace nax {

inline constexpr int32_t FINE_RATE = 16000; // Hz, at most; 8000 Hz stays as it is
inline constexpr int32_t FINE_WINDOW = 512; // samples under a transform: 32 ms, at most
inline constexpr int32_t FINE_BINS = 192;   // 1 to 7 kHz in steps of 31.25 Hz, at most

struct FineSpectrum {
    float re[FINE_BINS];
    float im[FINE_BINS];
};

struct Arrival {
    static constexpr int32_t TAPS_PER_PHASE = 16;
    static constexpr int32_t MAX_TAPS = TAPS_PER_PHASE * 3; // from 48000 Hz

    kiss_fftr_cfg forward;
    kiss_fftr_cfg inverse;
    int32_t frame;      // samples per frame, at the full rate like all below
    int32_t decimation; // to the rate worked at: 1, 2 or 3
    int32_t reach;      // longest lag
    int32_t tap_count;  // of the low-pass before decimation; 0: there is none
    int16_t taps[MAX_TAPS];
    int32_t window; // samples under a transform, at the rate worked at
    int32_t bins;
    float hann[FINE_WINDOW];
    int32_t past_length;
    int32_t head;               // where the next frame goes
    int16_t *ref_past;          // past_length, a ring
    int16_t *mic_past;          // 3 frames, the newest last
    int32_t aim;                // lag that evidence is gathered for
    int32_t updates;            // since it was aimed there
    float ref_power[FINE_BINS]; // decaying peak power, which whitens
    float mic_power[FINE_BINS];
    FineSpectrum evidence; // averaged conj(X) Y
    float variance;        // of a lag, were the signals unrelated

    // What one call works on. It is too large for the stack of an audio thread.
    int16_t samples[2 * HOP * MAX_DECIMATION + MAX_TAPS];
    float block[FINE_WINDOW];
    kiss_fft_cpx bins_of_block[FINE_WINDOW / 2 + 1];
    FineSpectrum x;
    FineSpectrum y;
};

// What the evidence says. Lags in samples at the full rate.
struct Onset {
    int32_t updates; // that it rests on
    float height;    // of the tallest lag, in deviations of unrelated signals
    int32_t lag;     // the earliest one that is nearly as tall
};

// Prepares a zero-filled record for frames of 16 ms. Returns false when there is no
// memory; arrival_release then frees what there is.
bool arrival_init(Arrival &arrival, int32_t sample_rate, int32_t frame, int32_t reach);
void arrival_release(Arrival &arrival);

// Takes in a frame of each signal. Real time: yes.
void arrival_listen(Arrival &arrival, const int16_t *ref, const int16_t *mic);

// Gathers evidence around a lag from now on. The evidence for another lag is forgotten.
void arrival_aim(Arrival &arrival, int32_t lag);

// Adds the last two frames to the evidence, which decays first. Returns false, having done
// nothing, when one of the signals is silent there. Real time: yes.
bool arrival_update(Arrival &arrival);

// The echo's onset within 6 ms before and 8 ms after the aim. Real time: yes.
Onset arrival_onset(Arrival &arrival);

} // namespace nax
