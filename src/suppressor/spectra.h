// Frames to spectra and back.
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

// The spectrum of two frames, one behind the other, padded to padded_bins. A bin's power
// is the same at every rate, the mean square for white noise at 16000 Hz.
void analyse(Spectra &spectra, const int16_t *frames, Complex *spectrum);

// The first of the two frames that a spectrum stands for, made of it and of what the
// spectrum before left over; leaves the other one over. left_over holds a frame.
void synthesise(Spectra &spectra, const Complex *spectrum, float *left_over, int16_t *to);

} // namespace nax::res
