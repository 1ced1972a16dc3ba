// Weighted overlap-add of Crochiere (1980, "A weighted overlap-add method of short-time
// Fourier analysis/synthesis"). A window holds two frames; the next one starts one frame
// later. A square-root Hann window is applied before the transform and after the inverse
// transform. The products of both add up to 1, so a gain of 1 in all bins gives the input,
// one frame late.
#include "suppressor/spectra.h"

#include <cmath>

namespace nax::res {

// The square root of the window's energy at 16000 Hz.
static constexpr double WINDOW_NORM = 16;
static constexpr int32_t LENGTH_AT_16_KHZ = 512;

bool spectra_init(Spectra &spectra, int32_t frame_size)
{
    const int32_t length = 2 * frame_size;
    const double scale = LENGTH_AT_16_KHZ / WINDOW_NORM / length;
    spectra.frame_size = frame_size;
    for (int32_t i = 0; i < length; i++) {
        const double root_hann = std::sin(M_PI * (i + 0.5) / length);
        spectra.analysis[i] = static_cast<float>(scale * root_hann);
        spectra.synthesis[i] = static_cast<float>(root_hann / (scale * length));
    }
    spectra.forward = kiss_fftr_alloc(length, 0, nullptr, nullptr);
    spectra.inverse = kiss_fftr_alloc(length, 1, nullptr, nullptr);
    return spectra.forward && spectra.inverse;
}

void spectra_release(Spectra &spectra)
{
    kiss_fftr_free(spectra.forward);
    kiss_fftr_free(spectra.inverse);
}

static_assert(sizeof(Complex) == sizeof(kiss_fft_cpx));

void analyse(Spectra &spectra, const int16_t *frames, Complex *spectrum)
{
    window_samples(frames, spectra.analysis, spectra.block, 2 * spectra.frame_size);
    kiss_fftr(spectra.forward, spectra.block, reinterpret_cast<kiss_fft_cpx *>(spectrum));
    for (int32_t k = 1; k < VECTOR; k++)
        spectrum[spectra.frame_size + k] = {0, 0};
}

void synthesise(Spectra &spectra, const Complex *spectrum, float *left_over, int16_t *to)
{
    const int32_t frame = spectra.frame_size;
    kiss_fftri(spectra.inverse, reinterpret_cast<const kiss_fft_cpx *>(spectrum), spectra.block);
    overlap_add(spectra.block, spectra.synthesis, left_over, to, frame);
    window_block(spectra.block + frame, spectra.synthesis + frame, left_over, frame);
}

} // namespace nax::res
