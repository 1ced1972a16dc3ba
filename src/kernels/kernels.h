// The inner loops of process and engines. Each has a scalar variant and, for ARM, a NEON variant
// with the same results. The library calls them through the pointers below.
#pragma once

#include "kernels/processor.h"

#include <cstdint>

namespace nax {

// Low-pass filter and decimation in one: output j is the sum of the tap_count products
// of taps with samples[j * step ...], scaled by 2^-15.
//   samples    (outputs - 1) x step + tap_count samples
//   taps       tap_count coefficients, Q15; the sum of their magnitudes must be below 2, so
//              that a sum of products fits 32 bits
//   tap_count  a multiple of 8
//   outputs    a multiple of 4
using FirDecimate = void(const int16_t *samples, const int16_t *taps, int32_t tap_count,
                         int32_t step, float *to, int32_t outputs);

// Recursive average of a cross-spectrum: A = keep A + conj(X) Y for count bins, a
// multiple of 4. A must not overlap X or Y.
using AverageCross = void(float *a_re, float *a_im, const float *x_re, const float *x_im,
                          const float *y_re, const float *y_im, float keep, int32_t count);

// Energy of a spectrum of count bins, a multiple of 4: the sum of |A|^2.
using SpectrumEnergy = float(const float *a_re, const float *a_im, int32_t count);

// Copies 16-bit samples with their two bytes swapped. The source may have any
// alignment; the buffers must not overlap.
using SwapBytes = void(const uint8_t *source, int16_t *destination, int32_t samples);

// Copies count samples from every from_stride-th position to every to_stride-th position.
// Strides are 1 or more. The buffers must not overlap. Samples of to between those copied may be
// read and written back unchanged.
using CopyChannel = void(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                         int32_t count);

namespace scalar {
FirDecimate fir_decimate;
AverageCross average_cross;
SpectrumEnergy spectrum_energy;
SwapBytes swap_bytes;
CopyChannel copy_channel;
} // namespace scalar

#if NAX_AEC_NEON
namespace neon {
FirDecimate fir_decimate;
AverageCross average_cross;
SpectrumEnergy spectrum_energy;
SwapBytes swap_bytes;
CopyChannel copy_channel;
} // namespace neon
#endif

// The variants for this processor, chosen when the library is loaded.
extern FirDecimate *fir_decimate;
extern AverageCross *average_cross;
extern SpectrumEnergy *spectrum_energy;
extern SwapBytes *swap_bytes;
extern CopyChannel *copy_channel;

} // namespace nax
