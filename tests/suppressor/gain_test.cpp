#include "suppressor/gain.h"

#include "powers.h"

#include <algorithm>
#include <memory>

namespace nax::res {

class GainOfABin : public testing::Test {
protected:
    struct Frame {
        double power, echo, noise, talker; // of the cleaned microphone; talker 0 to 1
        double coherence = 1;
        double beside = 0; // power of the other bins, without echo; 0: as bin 50
    };

    // The gain of bin 50, in dB, after so many frames.
    double apply(int32_t frames, const Frame &frame)
    {
        Bins power(static_cast<float>(frame.power)), echo(static_cast<float>(frame.echo));
        const Bins noise(static_cast<float>(frame.noise));
        if (frame.beside > 0)
            for (int32_t k = 0; k < MAX_BINS; k++)
                if (k != 50) {
                    power[k] = static_cast<float>(frame.beside);
                    echo[k] = 0;
                }
        float talker[MAX_BANDS], coherence[MAX_BANDS], cleaned[MAX_BANDS], residual[MAX_BANDS];
        band_means(bands, power, cleaned);
        band_means(bands, echo, residual);
        std::fill_n(talker, MAX_BANDS, static_cast<float>(frame.talker));
        std::fill_n(coherence, MAX_BANDS, static_cast<float>(frame.coherence));
        Complex spectrum[MAX_BINS];
        for (int32_t t = 0; t < frames; t++) {
            std::fill_n(spectrum, MAX_BINS, Complex{static_cast<float>(std::sqrt(frame.power)), 0});
            gain_apply(*gain, bands, {talker, coherence, cleaned, residual}, echo, noise, power,
                       spectrum);
        }
        return 20 * std::log10(spectrum[50].re / std::sqrt(frame.power));
    }

    const Bands bands = bands_for(256);
    std::unique_ptr<Gain> gain{new Gain()};
};

TEST_F(GainOfABin, IsOneWithoutEcho)
{
    EXPECT_NEAR(apply(50, {1e6, 0, 0, 1}), 0, 1e-5);
    EXPECT_NEAR(apply(50, {1e6, 0, 0, 0}), 0, 1e-2); // and without a sign of a talker
}

TEST_F(GainOfABin, FallsToTheFloorInEchoAlone)
{
    EXPECT_NEAR(apply(200, {1e6, 1e6, 0, 0}), -40, 0.1);
}

TEST_F(GainOfABin, FallsNoFurtherThanTwentyDecibelsBesideATalker)
{
    EXPECT_NEAR(apply(200, {1e6, 1e6, 0, 1, 1, 1e8}), -20, 0.1);
}

// Geometrically between both, so that it changes by equal ratios.
TEST_F(GainOfABin, FallsToThirtyDecibelsWhereATalkerIsHalfSure)
{
    EXPECT_NEAR(apply(200, {1e6, 1e6, 0, 0.5}), -30, 0.1);
}

// A sound 20 dB above the echo, after silence: 9.9 of 100 are clear at once, 2.97 with 0.97 held.
TEST_F(GainOfABin, LetsASoundOfATalkerBeginWithinAFrame)
{
    EXPECT_NEAR(apply(1, {1e6, 1e4, 0, 1}), 20 * std::log10(9.9 / 10.9), 0.1);
}

TEST_F(GainOfABin, HoldsTheOutputAtTheMicrophonesNoise)
{
    EXPECT_NEAR(apply(200, {1e6, 1e6, 1e4, 0}), -20, 0.1);
}

TEST_F(GainOfABin, LetsATalkerInWithinThreeFramesAndClosesWithinASecond)
{
    apply(200, {1e6, 1e5, 0, 0});
    EXPECT_GT(apply(3, {1e8, 1e5, 0, 1}), -1);
    EXPECT_LT(apply(60, {1e6, 1e6, 0, 0}), -35);
}

// The paper's gain: xi / (1 + xi), where xi settles at the power above the echo.
TEST_F(GainOfABin, IsThatOfWienerForATalkerTenDecibelsAboveTheEcho)
{
    EXPECT_NEAR(apply(500, {1.1e6, 1e5, 0, 1}), -0.9, 0.2);
}

// 30^(1 - 0.3) times.
TEST_F(GainOfABin, CountsTheEchoTenTimesWhereATalkerIsUnlikely)
{
    // Half of the power counts as echo: s settles at 0.051 x 0.5 of the power, nearly.
    EXPECT_NEAR(apply(500, {1e6, 1e6 / 21.6, 0, 0.3}), -25.5, 0.2);
    EXPECT_GT(apply(500, {1e6, 1e6 / 100, 0, 0.3}), -3);
}

TEST_F(GainOfABin, TakesABandWithoutATalkerForEchoHoweverLittleIsExpected)
{
    EXPECT_NEAR(apply(200, {1e6, 1, 0, 0}), -40, 0.1);
    EXPECT_NEAR(apply(200, {1e6, 1, 0, 0.5}), 0, 0.1);
}

TEST_F(GainOfABin, SparesATalkerHoweverMuchEchoIsExpected)
{
    const double bounded = apply(500, {1e6, 3e5, 0, 1});
    EXPECT_NEAR(bounded, -6.3, 0.1);
    EXPECT_NEAR(apply(500, {1e6, 1e9, 0, 1}), bounded, 0.01);
    EXPECT_GT(apply(500, {1e6, 1e5, 0, 1}), bounded + 4);
}

TEST_F(GainOfABin, FollowsTheCoherenceWhileTheFarEndTalksAlone)
{
    EXPECT_NEAR(apply(100, {1e6, 0, 0, 0, 0.1}), -20, 0.1);
    EXPECT_NEAR(apply(100, {1e6, 0, 0, 1, 0.1}), 0, 0.1);
}

TEST_F(GainOfABin, IsThatOfItsBand)
{
    const Bins power(1e6f), echo(1e6f), noise(0);
    float talker[MAX_BANDS] = {}, coherence[MAX_BANDS];
    std::fill_n(coherence, MAX_BANDS, 1.0f);
    talker[3] = 1;
    Complex spectrum[MAX_BINS];
    for (int32_t t = 0; t < 200; t++) {
        std::fill_n(spectrum, MAX_BINS, Complex{1000, 500});
        gain_apply(*gain, bands, {talker, coherence, power, echo}, echo, noise, power, spectrum);
    }
    for (int32_t b = 0; b < 6; b++) {
        const float expected = b == 3 ? 0.482f : 0.01f;
        EXPECT_NEAR(spectrum[bands.edge[b]].re / 1000, expected, 1e-3) << b;
        EXPECT_NEAR(spectrum[bands.edge[b + 1] - 1].im / 500, expected, 1e-3) << b;
    }
}

} // namespace nax::res
