// Short-time Fourier transform of frames, and its inverse.
#pragma once

#include "suppressor/loops.h"

#include <kiss_fftr.h>

#include <cstdint>

namespace nax::res {

struct Spectra {
    int32_t frame_size; // samples
    kiss_fftr_cfg forward;
    kiss_fftr_cfg inverse;
    float analysis[2 * MAX_FRAME];
    float synthesis[2 * MAX_FRAME];
    float block[2 * MAX_FRAME]; // scratch
};

// Prepares a zero-filled record. Returns false when there is no memory.
bool spectra_init(Spectra &spectra, int32_t frame_size);
void spectra_release(Spectra &spectra);

// The spectrum of two consecutive frames. It has padded_bins bins; those of the padding are
// 0. A sound has the same power in a bin at every rate. For white noise at 16000 Hz that is
// its mean square.
void analyse(Spectra &spectra, const int16_t *frames, Complex *spectrum);

// Computes the earlier of a spectrum's two frames: the sum of the spectrum's first half and
// of left_over, which is the second half of the spectrum before. Then stores the second
// half of this spectrum in left_over, frame_size samples.
void synthesise(Spectra &spectra, const Complex *spectrum, float *left_over, int16_t *to);

} // namespace nax::res
