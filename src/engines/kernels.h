// The delay estimator's inner loops.
#pragma once

#include <cstdint>

namespace nax {

// Low-pass filter and decimation in one: output j is the sum of the tap_count products
// of taps with samples[j * step ...], scaled by 2^-15.
//   samples    (outputs - 1) x step + tap_count samples
//   taps       tap_count coefficients, Q15; the sum of their magnitudes must stay
//              below 2, so that no sum of products leaves 32 bits
//   tap_count  a multiple of 8
void fir_decimate(const int16_t *samples, const int16_t *taps, int32_t tap_count, int32_t step,
                  float *to, int32_t outputs);

// Recursive average of a cross-spectrum: A = keep A + conj(X) Y for count bins, a
// multiple of 4. A must not overlap X or Y.
void average_cross(float *a_re, float *a_im, const float *x_re, const float *x_im,
                   const float *y_re, const float *y_im, float keep, int32_t count);

// Energy of a spectrum of count bins, a multiple of 4: the sum of |A|^2.
float spectrum_energy(const float *a_re, const float *a_im, int32_t count);

} // namespace nax
