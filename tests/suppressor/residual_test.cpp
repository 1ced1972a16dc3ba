#include "suppressor/residual.h"

#include "powers.h"

#include <algorithm>
#include <memory>

namespace nax::res {

// Powers drawn anew for each frame, one for all bins: what is learnt band by band must
// come out the same in all of them.
class EchoLeft : public testing::Test {
protected:
    double loudness() { return std::pow(10, 6 + random.next(1)); }

    // A frame: the reference's power, the echo taken out, the echo left, the talker.
    void frame(double ref, double echo, double left, double near)
    {
        Bins ref_power(static_cast<float>(ref)), echo_power(static_cast<float>(echo));
        for (int32_t k = 257; k < MAX_BINS; k++)
            ref_power[k] = echo_power[k] = 0;
        std::copy_n(ref_power.at, MAX_BINS, reference.power);
        reference_update(reference, bands, zeros);
        residual_update(*residual, bands, reference, echo_power,
                        comparison_of(static_cast<float>(left + near), static_cast<float>(echo)),
                        noise);
    }

    // Echo of which the canceller takes out and leaves these shares of the reference.
    void talk_far(int32_t frames, double taken, double left, double near = 0)
    {
        for (int32_t t = 0; t < frames; t++) {
            const double ref = loudness();
            frame(ref, taken * ref, left * ref, near > 0 ? near * loudness() : 0);
        }
    }

    double leakage_dB(int32_t b) const { return 10 * std::log10(residual->leakage[b]); }

    const Bands bands = bands_for(256);
    Reference reference = {};
    float zeros = 0; // at the end of the references' newest frame, share of it
    Noise noise = {};
    std::unique_ptr<Residual> residual{new Residual()};
    ::Noise random{5};
};

// The tail makes the prediction larger than the echo taken out, by up to 2 dB.
TEST_F(EchoLeft, IsTheShareOfTheEchoThatTheCancellerLeaves)
{
    talk_far(400, 0.5, 0.005);
    for (int32_t b = 0; b < bands.count; b++)
        EXPECT_NEAR(leakage_dB(b), -21, 1.5) << b;
    frame(1e6, 5e5, 5e3, 0);
    for (int32_t k = 0; k <= 256; k += 16)
        EXPECT_NEAR(10 * std::log10(residual->power[k]), 37, 3) << k;
    for (int32_t b = 0; b < bands.count; b++)
        EXPECT_FLOAT_EQ(residual->mean[b], residual->power[bands.edge[b]]) << b;
}

// By a talker 20 dB above it, whom a regression without weights would take for the echo.
TEST_F(EchoLeft, IsOverestimatedByLessThanTenDecibelsInDoubleTalk)
{
    talk_far(400, 0.5, 0.005);
    const double before = leakage_dB(5);
    for (int32_t t = 0; t < 200; t++)
        talk_far(1, 0.5, 0.005, t % 20 < 10 ? 0.5 : 0); // syllables of 160 ms
    EXPECT_LT(leakage_dB(5), before + 10);
}

TEST_F(EchoLeft, IsPredictedFromTheReferenceWhileTheCancellerTakesNothingOut)
{
    talk_far(400, 0, 0.25);
    EXPECT_NEAR(residual->gain[5], 0.25, 0.01);
    frame(1e6, 0, 2.5e5, 0);
    EXPECT_NEAR(10 * std::log10(residual->power[100]), 54, 2);
}

// A smart speaker's loudspeaker is 19 dB louder at its microphone than in its reference.
TEST_F(EchoLeft, IsPredictedUpTo20DecibelsAboveTheReference)
{
    talk_far(400, 0, 80);
    EXPECT_NEAR(residual->gain[5], 80, 1);
    talk_far(400, 0, 300);
    EXPECT_EQ(residual->gain[5], 100);
}

// In the window that begins with the frame, the gap is in the middle.
TEST_F(EchoLeft, IsWholeInAGapOfTheReference)
{
    for (const double gap : {0.05, 0.25, 0.9}) {
        talk_far(400, 0.5, 0.005);
        zeros = static_cast<float>(gap);
        frame(1e6, 5e5, 5e3, 0);
        EXPECT_NEAR(residual->mean[5] / residual->predicted_mean[5],
                    std::max<double>(gap * gap * gap, residual->leakage[5]), 1e-3);
        zeros = 0;
        frame(1e6, 5e5, 5e3, 0);
        EXPECT_NEAR(residual->mean[5] / residual->predicted_mean[5], gap, 1e-3);
        talk_far(20, 0.5, 0.005);
        EXPECT_LT(residual->mean[5] / residual->predicted_mean[5], 0.02);
    }
}

TEST_F(EchoLeft, IsNotWholeWhereTheFarEndItselfFallsSilent)
{
    talk_far(400, 0.5, 0.005);
    zeros = 0.2f; // it begins within a frame
    frame(1e6, 5e5, 5e3, 0);
    for (const float end : {1.0f, 1.0f, 0.0f}) {
        zeros = end;
        frame(1e6, 5e5, 5e3, 0);
        EXPECT_LT(residual->mean[5] / residual->predicted_mean[5], 0.02) << end;
    }
}

TEST_F(EchoLeft, IsHeardWhereItIsLouderThanTheNoise)
{
    talk_far(400, 0.5, 0.005);
    for (const double noise_dB : {-30.0, -3.0, 3.0, 30.0}) {
        const float level = 5e3f * static_cast<float>(std::pow(10, noise_dB / 10));
        std::fill_n(noise.mean, MAX_BANDS, level);
        frame(1e6, 5e5, 5e3, 0);
        EXPECT_EQ(residual->heard, noise_dB < 0) << noise_dB;
    }
}

// What the canceller takes out then is no echo.
TEST_F(EchoLeft, DiesAwayAndIsNotLearntWhileTheReferenceIsSilent)
{
    talk_far(400, 0.5, 0.005);
    const double before = leakage_dB(5);
    for (int32_t t = 0; t < 300; t++)
        frame(0, 1e5, 0, 1e6);
    EXPECT_NEAR(leakage_dB(5), before, 1);
    EXPECT_LT(residual->power[100], 1e-6f);
    EXPECT_FALSE(residual->heard);
}

TEST_F(EchoLeft, IsBoundedAndFiniteAtEveryExtreme)
{
    for (const double ref : {0.0, 1e-30, 1e11})
        for (const double echo : {0.0, 1e-30, 1e11})
            for (const double left : {0.0, 1e-30, 1e11})
                for (int32_t t = 0; t < 50; t++) {
                    frame(ref, echo, left, 0);
                    for (int32_t b = 0; b < bands.count; b++)
                        ASSERT_TRUE(residual->leakage[b] >= 0 && residual->leakage[b] <= 4);
                    ASSERT_TRUE(std::isfinite(residual->power[40]));
                }
}

} // namespace nax::res
