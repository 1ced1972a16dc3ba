#include "suppressor/gain.h"

#include "powers.h"

#include <algorithm>
#include <memory>

namespace nax::res {

class GainOfABin : public testing::Test {
protected:
    // Frames of a cleaned microphone's power, the echo left in it and the noise; returns
    // the last gain.
    double apply(int32_t frames, double power, double echo, double noise_power, double near_share)
    {
        const Bins cleaned_power(static_cast<float>(power));
        std::fill_n(residual->power, MAX_BINS, static_cast<float>(echo));
        std::fill_n(noise->power, MAX_BINS, static_cast<float>(noise_power));
        residual->near_share = static_cast<float>(near_share);
        Complex spectrum[MAX_BINS];
        for (int32_t t = 0; t < frames; t++) {
            std::fill_n(spectrum, MAX_BINS, Complex{static_cast<float>(std::sqrt(power)), 0});
            gain_apply(*gain, bands, comparison_of(static_cast<float>(power), 0), *residual, *noise,
                       cleaned_power, spectrum);
        }
        return spectrum[50].re / std::sqrt(power);
    }

    const Bands bands = bands_for(256);
    std::unique_ptr<Residual> residual{new Residual()};
    std::unique_ptr<nax::res::Noise> noise{new nax::res::Noise()};
    std::unique_ptr<Gain> gain{new Gain()};
};

TEST_F(GainOfABin, IsOneWithoutEcho)
{
    EXPECT_NEAR(apply(50, 1e6, 0, 0, 1), 1, 1e-6);
    EXPECT_NEAR(apply(50, 1e6, 0, 0, 0), 1, 1e-3); // and without a sign of a talker
}

TEST_F(GainOfABin, FallsToTheFloorInEchoAlone)
{
    EXPECT_NEAR(20 * std::log10(apply(200, 1e6, 1e6, 0, 0)), -40, 0.1);
}

TEST_F(GainOfABin, FallsNoFurtherThanTwentyDecibelsBesideATalker)
{
    EXPECT_NEAR(20 * std::log10(apply(200, 1e6, 1e6, 0, 1)), -20, 0.1);
}

TEST_F(GainOfABin, HoldsTheOutputAtTheMicrophonesNoise)
{
    EXPECT_NEAR(20 * std::log10(apply(200, 1e6, 1e6, 1e4, 0)), -20, 0.1);
}

TEST_F(GainOfABin, LetsATalkerInWithinThreeFramesAndClosesWithinASecond)
{
    apply(200, 1e6, 1e5, 0, 0);
    EXPECT_GT(20 * std::log10(apply(3, 1e8, 1e5, 0, 1)), -1);
    EXPECT_LT(20 * std::log10(apply(60, 1e6, 1e6, 0, 0)), -35);
}

TEST_F(GainOfABin, FollowsWhatTheCancellerChangedOfABandWhileTheFarEndTalksAlone)
{
    const Bins cleaned_power(1e6f);
    Complex spectrum[MAX_BINS];
    for (int32_t t = 0; t < 100; t++) {
        std::fill_n(spectrum, MAX_BINS, Complex{1000, 0});
        gain_apply(*gain, bands, comparison_of(1e6f, 9e6f), *residual, *noise, cleaned_power,
                   spectrum);
    }
    EXPECT_NEAR(spectrum[50].re, 100, 1); // a coherence of 0.1
}

} // namespace nax::res
