// What a frame's samples show.
#include "meter/levels.h"

#include "support.h"

namespace nax::meter {

TEST(Levels, PowerIsThatOfTheSamplesWithoutTheirMean)
{
    const Samples square = [] {
        Samples samples(256);
        for (size_t i = 0; i < samples.size(); i++)
            samples[i] = static_cast<int16_t>(i % 2 == 0 ? 8192 + 4096 : 8192 - 4096);
        return samples;
    }();
    const FrameLevel level = measure_frame(square.data(), 256);
    EXPECT_FLOAT_EQ(level.power, 1.0f / 64);
    EXPECT_EQ(level.peak, 8192 + 4096);
}

TEST(Levels, ExtremesDoNotOverflow)
{
    for (const int16_t sample : {int16_t{INT16_MIN}, int16_t{INT16_MAX}}) {
        const Samples still(768, sample);
        const FrameLevel level = measure_frame(still.data(), 768);
        EXPECT_EQ(level.power, 0.0f);
        EXPECT_EQ(level.peak, 32767);
    }
    Samples swing(768, INT16_MIN);
    for (size_t i = 0; i < swing.size(); i += 2)
        swing[i] = INT16_MAX;
    EXPECT_NEAR(measure_frame(swing.data(), 768).power, 1.0f, 1e-4f);
}

TEST(Levels, DecibelsAreRightToAFewHundredths)
{
    for (double db = -99.9; db < 10.0; db += 0.037)
        EXPECT_NEAR(decibels(static_cast<float>(std::pow(10.0, db / 10))), db, 0.03);
    EXPECT_EQ(decibels(0.0f), -100.0f);
}

TEST(Levels, SamplesInRunsOfThreeAndMoreAreCounted)
{
    const Samples samples = {0, 100, 100, 0, 100, -101, 100, 99, 100, 100, 100, 100};
    EXPECT_EQ(samples_at(samples.data(), 12, 100), 1 + 2);
    EXPECT_EQ(samples_at(samples.data(), 12, 99), 6);
}

#if NAX_AEC_NEON

TEST(NeonLevels, AreThoseOfTheScalarVariant)
{
    if (!processor_has_neon()) GTEST_SKIP() << "this processor has no NEON";
    Noise noise(1);
    for (const int32_t count : {128, 256, 512, 768})
        for (const double peak : {1.0, 300.0, 32767.0}) {
            Samples samples = noise.frame(count, peak);
            samples[5] = INT16_MIN;
            const FrameLevel level = neon::measure_frame(samples.data(), count);
            const FrameLevel expected = scalar::measure_frame(samples.data(), count);
            EXPECT_EQ(level.power, expected.power);
            EXPECT_EQ(level.peak, expected.peak);
        }
}

#endif

} // namespace nax::meter
