#include "kernels/kernels.h"

#include <cstddef>
#include <cstring>

namespace nax {

void scalar::fir_decimate(const int16_t *samples, const int16_t *taps, int32_t tap_count,
                          int32_t step, float *to, int32_t outputs)
{
    for (int32_t j = 0; j < outputs; j++) {
        const int16_t *from = samples + j * step;
        int32_t sum = 0;
        for (int32_t i = 0; i < tap_count; i++)
            sum += from[i] * taps[i];
        to[j] = static_cast<float>(sum) * (1.0f / 32768);
    }
}

void scalar::average_cross(float *__restrict a_re, float *__restrict a_im,
                           const float *__restrict x_re, const float *__restrict x_im,
                           const float *__restrict y_re, const float *__restrict y_im, float keep,
                           int32_t count)
{
    for (int32_t k = 0; k < count; k++) {
        a_re[k] = keep * a_re[k] + (x_re[k] * y_re[k] + x_im[k] * y_im[k]);
        a_im[k] = keep * a_im[k] + (x_re[k] * y_im[k] - x_im[k] * y_re[k]);
    }
}

float scalar::spectrum_energy(const float *a_re, const float *a_im, int32_t count)
{
    // Compilers do not reorder a float sum. Four sums let them use vector instructions.
    float sum[4] = {};
    for (int32_t k = 0; k < count; k += 4)
        for (int32_t j = 0; j < 4; j++)
            sum[j] += a_re[k + j] * a_re[k + j] + a_im[k + j] * a_im[k + j];
    return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}

void scalar::swap_bytes(const uint8_t *__restrict source, int16_t *__restrict destination,
                        int32_t samples)
{
    for (int32_t j = 0; j < samples; j++) {
        uint16_t sample;
        memcpy(&sample, source + 2 * static_cast<ptrdiff_t>(j), sizeof sample);
        destination[j] = static_cast<int16_t>(static_cast<uint16_t>(sample << 8 | sample >> 8));
    }
}

// The strides of the usual layouts are compile-time constants: compilers use de-interleaving
// vector instructions for constant strides only.
template <ptrdiff_t FROM, ptrdiff_t TO>
static void copy(const int16_t *__restrict from, int16_t *__restrict to, int32_t count)
{
    for (int32_t i = 0; i < count; i++)
        to[i * TO] = from[i * FROM];
}

void scalar::copy_channel(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                          int32_t count)
{
    if (to_stride == 1) {
        switch (from_stride) {
        case 1: return copy<1, 1>(from, to, count);
        case 2: return copy<2, 1>(from, to, count);
        case 3: return copy<3, 1>(from, to, count);
        case 4: return copy<4, 1>(from, to, count);
        }
    }
    if (from_stride == 1) {
        switch (to_stride) {
        case 2: return copy<1, 2>(from, to, count);
        case 3: return copy<1, 3>(from, to, count);
        case 4: return copy<1, 4>(from, to, count);
        }
    }
    for (int32_t i = 0; i < count; i++)
        to[ptrdiff_t{i} * to_stride] = from[ptrdiff_t{i} * from_stride];
}

FirDecimate *fir_decimate = scalar::fir_decimate;
AverageCross *average_cross = scalar::average_cross;
SpectrumEnergy *spectrum_energy = scalar::spectrum_energy;
SwapBytes *swap_bytes = scalar::swap_bytes;
CopyChannel *copy_channel = scalar::copy_channel;

#if NAX_AEC_NEON
[[gnu::constructor]] static void choose_neon()
{
    if (!processor_has_neon()) return;
    fir_decimate = neon::fir_decimate;
    average_cross = neon::average_cross;
    spectrum_energy = neon::spectrum_energy;
    swap_bytes = neon::swap_bytes;
    copy_channel = neon::copy_channel;
}
#endif

} // namespace nax
