#include "suppressor/spectra.h"

#include "powers.h"

#include <algorithm>
#include <memory>

namespace nax::res {

struct ReleaseSpectra {
    void operator()(Spectra *spectra) const
    {
        spectra_release(*spectra);
        delete spectra;
    }
};
using OwnedSpectra = std::unique_ptr<Spectra, ReleaseSpectra>;

static OwnedSpectra make_spectra(int32_t frame_size)
{
    OwnedSpectra spectra(new Spectra());
    EXPECT_TRUE(spectra_init(*spectra, frame_size));
    return spectra;
}

TEST(Spectra, GiveFullScaleNoiseBackToTheSampleAFrameLate)
{
    for (const int32_t frame : FRAME_SIZES) {
        const OwnedSpectra spectra = make_spectra(frame);
        ::Noise noise(7);
        const Samples samples = noise.frame(20 * frame, 32767.0);
        Complex spectrum[MAX_BINS];
        float left_over[MAX_FRAME] = {};
        constexpr int16_t UNTOUCHED = 12345;
        Samples out(static_cast<size_t>(frame + 1), UNTOUCHED);
        for (int32_t t = 0; t + 2 <= 20; t++) {
            const int16_t *frames = &samples[static_cast<size_t>(t * frame)];
            analyse(*spectra, frames, spectrum);
            synthesise(*spectra, spectrum, left_over, out.data());
            if (t > 0) {
                EXPECT_TRUE(std::equal(frames, frames + frame, out.begin())) << frame << " " << t;
            }
        }
        EXPECT_EQ(out.back(), UNTOUCHED) << frame;
    }
}

// A sine that lies on a bin has half its amplitude there, times the window's sum; the
// noise of a rate below, resampled, would have the power that it has here.
TEST(Spectra, PowersAreThoseOfABinAtEveryRate)
{
    for (const int32_t frame : FRAME_SIZES) {
        const OwnedSpectra spectra = make_spectra(frame);
        Samples samples(static_cast<size_t>(2 * frame));
        for (size_t i = 0; i < samples.size(); i++)
            samples[i] =
                to_sample(1000 * std::sin(std::numbers::pi * 20 * static_cast<double>(i) / frame));
        Complex spectrum[MAX_BINS];
        analyse(*spectra, samples.data(), spectrum);
        Bins power(0);
        add_power(spectrum, power, frame + VECTOR);
        // 1000 / 2 x 512 x 2 / pi / 16, squared
        EXPECT_NEAR(10 * std::log10(power[20]), 80.15, 0.1) << frame;
        for (int32_t k = frame + 1; k < frame + VECTOR; k++)
            EXPECT_EQ(power[k], 0);
    }
}

TEST(Spectra, WhiteNoiseAt16kHzHasItsMeanSquareInEveryBin)
{
    const OwnedSpectra spectra = make_spectra(256);
    ::Noise noise(8);
    Bins power(0);
    Complex spectrum[MAX_BINS];
    constexpr int32_t WINDOWS = 2000;
    for (int32_t t = 0; t < WINDOWS; t++) {
        analyse(*spectra, noise.frame(512, 1000.0).data(), spectrum);
        add_power(spectrum, power, 260);
    }
    double mean = 0;
    for (int32_t k = 1; k < 256; k++)
        mean += power[k] / WINDOWS / 255;
    EXPECT_NEAR(mean, 1e6 / 3, 1e4);
}

} // namespace nax::res
