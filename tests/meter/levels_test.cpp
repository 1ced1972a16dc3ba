// What a frame's samples show.
#include "meter/levels.h"

#include "meter/loops.h"

#include "support.h"

namespace nax::meter {

TEST(Levels, PowerIsThatOfTheSamplesWithoutTheirMean)
{
    Samples square(256);
    for (size_t i = 0; i < square.size(); i++)
        square[i] = static_cast<int16_t>(i % 2 == 0 ? 8192 + 4096 : 8192 - 4096);
    Channel channel = {};
    EXPECT_FLOAT_EQ(take_in(channel, square.data(), 256), 1.0f / 64);
    EXPECT_FLOAT_EQ(power_of(channel), 1.0f / 64);
    EXPECT_EQ(channel.largest, 8192 + 4096);
}

TEST(Levels, APowerIsTheMeanOfTheLastSecond)
{
    Channel channel = {};
    EXPECT_EQ(power_of(channel), 0.0f);
    const Samples loud = Noise(1).frame(256, 8000), silent(256);
    for (int32_t t = 0; t < 100; t++) {
        const float power = take_in(channel, loud.data(), 256);
        EXPECT_NEAR(power_of(channel), power, 1e-5 * power) << t;
    }
    const float loudly = power_of(channel);
    for (int32_t t = 0; t < 30; t++)
        take_in(channel, silent.data(), 256);
    EXPECT_NEAR(power_of(channel) / loudly, 0.5, 0.15);
    for (int32_t t = 0; t < 34; t++)
        take_in(channel, silent.data(), 256);
    EXPECT_EQ(power_of(channel), 0.0f);
}

TEST(Levels, ExtremesDoNotOverflow)
{
    for (const int16_t sample : {int16_t{INT16_MIN}, int16_t{INT16_MAX}}) {
        Channel channel = {};
        const Samples still(768, sample);
        EXPECT_EQ(take_in(channel, still.data(), 768), 0.0f);
        EXPECT_EQ(channel.largest, 32767);
    }
    Samples swing(768, INT16_MIN);
    for (size_t i = 0; i < swing.size(); i += 2)
        swing[i] = INT16_MAX;
    Channel channel = {};
    EXPECT_NEAR(take_in(channel, swing.data(), 768), 1.0f, 1e-4f);
}

TEST(Levels, DecibelsAreRightToAFewHundredths)
{
    for (double db = -99.9; db < 10.0; db += 0.037)
        EXPECT_NEAR(decibels(static_cast<float>(std::pow(10.0, db / 10))), db, 0.03);
    EXPECT_EQ(decibels(0.0f), -100.0f);
    EXPECT_EQ(decibels(1e-10f), -100.0f);
    EXPECT_GE(decibels(1.0001e-10f), -100.0f);
}

TEST(Levels, ANewValueWeighsAsMuchAsEachOfTheLastOnes)
{
    EXPECT_EQ(weight_of_new(0, 4), 1.0f);
    EXPECT_EQ(weight_of_new(2, 4), 1.0f / 3);
    EXPECT_EQ(weight_of_new(3, 4), 1.0f / 4);
    EXPECT_EQ(weight_of_new(INT32_MAX, 4), 1.0f / 4);
}

// Noise of a peak of 8000, at a limit in 64 of 256 samples.
static float clipped_at(int16_t limit, size_t run, int32_t frames)
{
    Noise noise(1);
    Channel channel = {};
    for (int32_t t = 0; t < frames; t++) {
        Samples samples = noise.frame(256, 8000);
        for (size_t start = 0; start < 256; start += 4 * run)
            for (size_t i = start; i < start + run; i++)
                samples[i] = t % 2 == 0 ? limit : static_cast<int16_t>(-limit - 1);
        take_in(channel, samples.data(), 256);
    }
    return clipped_share(channel);
}

TEST(Clipping, IsTheShareOfSamplesInRunsAtTheLargestValueWhereverThatIs)
{
    for (const int16_t limit : {int16_t{INT16_MAX}, int16_t{12000}})
        EXPECT_NEAR(clipped_at(limit, 8, 1000), 0.25 * 6 / 8, 0.005) << limit;
}

TEST(Clipping, IsNotToldOfPeaksOfTwoSamplesNorInTheFirstSecond)
{
    EXPECT_EQ(clipped_at(12000, 2, 1000), 0.0f);
    EXPECT_EQ(clipped_at(12000, 8, 61), 0.0f);
    EXPECT_GT(clipped_at(12000, 8, 62), 0.1f);
}

TEST(Clipping, IsToldThoughSomethingLouderWasHeardBefore)
{
    Channel channel = {};
    Samples loud(256), flat(256);
    loud[7] = 13000;
    for (size_t i = 0; i < 256; i++)
        flat[i] = static_cast<int16_t>(i % 16 < 8 ? 12000 : -12000);
    take_in(channel, loud.data(), 256);
    for (int32_t t = 0; t < 10000; t++) // three minutes
        take_in(channel, flat.data(), 256);
    EXPECT_GT(clipped_share(channel), 0.2f);
}

TEST(Clipping, TheLargestValueIsForgottenInAnHourOfSound)
{
    Channel channel = {};
    const Samples loud(256, 13000), quiet = Noise(1).frame(256, 3000), hardly(256, 200);
    take_in(channel, loud.data(), 256);
    for (int32_t t = 0; t < 800; t++) {
        take_in(channel, quiet.data(), 256);
        take_in(channel, hardly.data(), 256);
    }
    EXPECT_EQ(channel.largest, 13000 - 100);
}

TEST(Clipping, IsNotToldOfWhatIsHardlyASound)
{
    Channel channel = {};
    const Samples still(256, 200);
    for (int32_t t = 0; t < 200; t++)
        take_in(channel, still.data(), 256);
    EXPECT_EQ(clipped_share(channel), 0.0f);
}

#if NAX_AEC_NEON

TEST(NeonLoops, GiveTheSameAsTheScalarOnes)
{
    if (!processor_has_neon()) GTEST_SKIP() << "this processor has no NEON";
    Noise noise(1);
    for (const int32_t count : {128, 256, 512, 768})
        for (const double peak : {1.0, 300.0, 32767.0}) {
            Samples samples = noise.frame(count, peak);
            samples[5] = INT16_MIN;
            const Sums sums = neon::sum_samples(samples.data(), count);
            const Sums expected = scalar::sum_samples(samples.data(), count);
            EXPECT_EQ(sums.squares, expected.squares);
            EXPECT_EQ(sums.sum, expected.sum);
            EXPECT_EQ(sums.peak, expected.peak);
        }
    std::vector<float> from(160), to(160);
    for (size_t i = 0; i < from.size(); i++) {
        from[i] = static_cast<float>(noise.next(6));
        to[i] = static_cast<float>(noise.next(1e3));
    }
    std::vector<float> expected = to;
    neon::average_products(to.data(), 0.998f, -3.1f, from.data(), 160);
    scalar::average_products(expected.data(), 0.998f, -3.1f, from.data(), 160);
    EXPECT_TRUE(to == expected);
}

#endif

} // namespace nax::meter
