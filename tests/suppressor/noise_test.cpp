#include "suppressor/noise.h"

#include "powers.h"

#include <memory>

namespace nax::res {

class NoiseOfAMicrophone : public testing::Test {
protected:
    NoiseOfAMicrophone() { noise_init(*noise); }

    // Frames of exponentially distributed powers, as those of noise are, up to a bin.
    void hear(double mean, int32_t frames, bool echo, int32_t last = 256)
    {
        Bins power(0);
        for (int32_t t = 0; t < frames; t++) {
            for (int32_t k = 0; k <= last; k++)
                power[k] = static_cast<float>(-mean * std::log(0.5 + random.next(0.4999999)));
            noise_update(*noise, bands, power, echo);
        }
    }

    double found_dB() const
    {
        double sum = 0;
        for (int32_t k = 0; k <= 256; k++)
            sum += noise->power[k] / 257;
        return 10 * std::log10(sum);
    }

    const Bands bands = bands_for(256);
    std::unique_ptr<nax::res::Noise> noise{new nax::res::Noise()};
    ::Noise random{3};
};

// Below it rather than above, or echo would be taken for noise.
TEST_F(NoiseOfAMicrophone, IsFoundFromOneToFourDecibelsBelowWhatItIs)
{
    hear(1e4, 300, false);
    EXPECT_LT(found_dB(), 39);
    EXPECT_GT(found_dB(), 36);
}

TEST_F(NoiseOfAMicrophone, IsGuessedFromTheFirstFrameOn)
{
    hear(1e4, 1, false);
    EXPECT_GT(found_dB(), 30);
}

TEST_F(NoiseOfAMicrophone, IsFoundWhereSomeBandsAreSilent)
{
    hear(1e4, 300, false, 128);
    EXPECT_GT(found_dB(), 33); // half of the bins
}

TEST_F(NoiseOfAMicrophone, IsFollowedDownAtOnceAndUpWithinTheWindowsWithoutEcho)
{
    hear(1e4, 300, false);
    hear(1e2, 50, false);
    EXPECT_LT(found_dB(), 20);
    hear(1e4, 251, false);
    EXPECT_GT(found_dB(), 36);
}

TEST_F(NoiseOfAMicrophone, IsNotTakenFromEchoThatLastsForTenSeconds)
{
    hear(1e2, 300, false);
    hear(1e4, 625, true);
    EXPECT_LT(found_dB(), 20);
}

} // namespace nax::res
