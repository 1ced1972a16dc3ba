// The inner loops, scalar and NEON, on seeded noise: against a plain model, and against
// each other to the bit.
#include "kernels/kernels.h"

#include "support.h"

#include <cmath>
#include <cstring>
#include <random>

namespace {

std::vector<float> noise(size_t count, unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<float> values(count);
    for (float &value : values)
        value = (static_cast<float>(random() >> 8) / (1 << 23) - 1) * 3;
    return values;
}

Samples samples(size_t count, unsigned seed)
{
    std::mt19937 random(seed);
    Samples values(count);
    for (int16_t &value : values)
        value = static_cast<int16_t>(random());
    return values;
}

// Taps as large as they may be: their magnitudes add up to just below 2.
Samples loud_taps(size_t count)
{
    Samples taps(count);
    for (size_t i = 0; i < count; i++)
        taps[i] = static_cast<int16_t>((i % 3 ? 1 : -1) * static_cast<int>(65535 / count));
    return taps;
}

std::vector<float> decimated(nax::FirDecimate *kernel, int32_t step, const Samples &from)
{
    const Samples taps = loud_taps(static_cast<size_t>(12 * step));
    std::vector<float> to(65, 99);
    kernel(from.data(), taps.data(), 12 * step, step, to.data(), 64);
    EXPECT_EQ(to.back(), 99) << "written behind the last output";
    to.pop_back();
    return to;
}

Samples decimation_input(int32_t step, int16_t value)
{
    Samples from = samples(static_cast<size_t>((64 + 12) * step), 3);
    if (value)
        for (int16_t &sample : from)
            sample = sample < 0 ? INT16_MIN : value;
    return from;
}

struct Averages {
    std::vector<float> re = noise(52, 10), im = noise(52, 11);
};

Averages averaged(nax::AverageCross *kernel)
{
    const std::vector<float> x_re = noise(52, 12), x_im = noise(52, 13);
    const std::vector<float> y_re = noise(52, 14), y_im = noise(52, 15);
    Averages a;
    for (int frame = 0; frame < 50; frame++)
        kernel(a.re.data(), a.im.data(), x_re.data(), x_im.data(), y_re.data(), y_im.data(), 0.94f,
               52);
    return a;
}

Samples swapped(nax::SwapBytes *kernel, int32_t count, size_t misaligned)
{
    const Samples source = samples(static_cast<size_t>(count) + 1, 4);
    Samples to(static_cast<size_t>(count) + 2, 99);
    kernel(reinterpret_cast<const uint8_t *>(source.data()) + misaligned, to.data(), count);
    return to;
}

} // namespace

TEST(Kernels, DecimationEqualsItsDefinitionAtFullScale)
{
    for (const int32_t step : {2, 4, 8, 12}) {
        const Samples from = decimation_input(step, INT16_MAX);
        const Samples taps = loud_taps(static_cast<size_t>(12 * step));
        const std::vector<float> to = decimated(nax::fir_decimate, step, from);
        for (size_t j = 0; j < to.size(); j++) {
            int64_t sum = 0;
            for (size_t i = 0; i < taps.size(); i++)
                sum += int64_t{from[j * static_cast<size_t>(step) + i]} * taps[i];
            ASSERT_EQ(to[j], static_cast<float>(sum) / 32768) << step << ", " << j;
        }
    }
}

// Fifty frames of the same X and Y leave keep^50 of the first A and, of the rest, the
// geometric sum of keep.
TEST(Kernels, CrossSpectrumAverageForgetsTheOldAndAddsTheNew)
{
    const Averages first, last = averaged(nax::average_cross);
    const double left = std::pow(0.94, 50), added = (1 - left) / (1 - 0.94);
    const auto x_re = noise(52, 12), x_im = noise(52, 13);
    const auto y_re = noise(52, 14), y_im = noise(52, 15);
    for (size_t k = 0; k < 52; k++) {
        const double re = double{x_re[k]} * y_re[k] + double{x_im[k]} * y_im[k];
        const double im = double{x_re[k]} * y_im[k] - double{x_im[k]} * y_re[k];
        EXPECT_NEAR(last.re[k], left * first.re[k] + added * re, 1e-3) << k;
        EXPECT_NEAR(last.im[k], left * first.im[k] + added * im, 1e-3) << k;
    }
}

TEST(Kernels, ByteSwapExchangesTheTwoBytesOfEverySampleAndNoMore)
{
    const Samples source = samples(41, 4);
    for (int32_t count = 0; count <= 40; count++) {
        const Samples to = swapped(nax::swap_bytes, count, 0);
        for (size_t j = 0; j < static_cast<size_t>(count); j++) {
            const auto sample = static_cast<uint16_t>(source[j]);
            ASSERT_EQ(static_cast<uint16_t>(to[j]), (sample << 8 | sample >> 8) & 0xffff);
        }
        ASSERT_EQ(to[static_cast<size_t>(count)], 99);
    }
}

// Copies with every pair of strides up to 6 and compares the whole destination, the
// samples between and behind the channel's own included.
TEST(Kernels, ChannelCopyTakesOnlyTheChannelsOwnSamplesAtEveryPairOfStrides)
{
    for (int32_t from_stride = 1; from_stride <= 6; from_stride++)
        for (int32_t to_stride = 1; to_stride <= 6; to_stride++)
            for (const int32_t count : {0, 1, 2, 7, 8, 9, 31, 128, 129, 768}) {
                const Samples from =
                    counting(static_cast<size_t>(count * from_stride) + 1, 1 + from_stride);
                Samples to(static_cast<size_t>(count * to_stride) + 16, -7);
                Samples expected = to;
                for (int32_t i = 0; i < count; i++)
                    expected[static_cast<size_t>(i * to_stride)] =
                        from[static_cast<size_t>(i * from_stride)];
                nax::copy_channel(from.data(), from_stride, to.data(), to_stride, count);
                ASSERT_EQ(to, expected) << from_stride << " to " << to_stride << ", " << count;
            }
}

// A channel other than the first starts at an address that is aligned to two bytes
// only, and its last sample may be the last of the buffer.
TEST(Kernels, ChannelCopyReadsNothingBehindTheLastSampleOfTheLastChannel)
{
    for (int32_t stride = 2; stride <= 5; stride++) {
        const Samples from = counting(static_cast<size_t>(128 * stride));
        Samples to(128);
        nax::copy_channel(from.data() + stride - 1, stride, to.data(), 1, 128);
        EXPECT_EQ(to[127], static_cast<int16_t>(128 * stride - 1));
        Samples back(from.size());
        nax::copy_channel(to.data(), 1, back.data() + stride - 1, stride, 128);
        EXPECT_EQ(back.back(), to[127]);
    }
}

// Spectra whose energy is a whole number stay exact in floats.
TEST(Kernels, EnergyIsTheSumOfTheSquaresOfAllBins)
{
    std::vector<float> re, im;
    float expected = 0;
    for (int k = 0; k < 52; k++) {
        re.push_back(static_cast<float>(k));
        im.push_back(static_cast<float>(100 - k));
        expected += re.back() * re.back() + im.back() * im.back();
    }
    EXPECT_EQ(nax::spectrum_energy(re.data(), im.data(), 52), expected);
}

TEST(Kernels, AllAreOfTheVariantThatTheProcessorHas)
{
#if NAX_AEC_NEON
    if (nax::processor_has_neon()) {
        EXPECT_EQ(nax::fir_decimate, nax::neon::fir_decimate);
        EXPECT_EQ(nax::average_cross, nax::neon::average_cross);
        EXPECT_EQ(nax::spectrum_energy, nax::neon::spectrum_energy);
        EXPECT_EQ(nax::swap_bytes, nax::neon::swap_bytes);
        EXPECT_EQ(nax::copy_channel, nax::neon::copy_channel);
        return;
    }
#endif
    EXPECT_EQ(nax::fir_decimate, nax::scalar::fir_decimate);
    EXPECT_EQ(nax::average_cross, nax::scalar::average_cross);
    EXPECT_EQ(nax::spectrum_energy, nax::scalar::spectrum_energy);
    EXPECT_EQ(nax::swap_bytes, nax::scalar::swap_bytes);
    EXPECT_EQ(nax::copy_channel, nax::scalar::copy_channel);
}

#if NAX_AEC_NEON

static std::vector<uint32_t> bits_of(const std::vector<float> &values)
{
    std::vector<uint32_t> bits(values.size());
    memcpy(bits.data(), values.data(), values.size() * sizeof(float));
    return bits;
}

class Neon : public testing::Test {
    void SetUp() override
    {
        if (!nax::processor_has_neon()) GTEST_SKIP() << "this processor has no NEON";
    }
};

TEST_F(Neon, DecimatesAsTheScalarVariantDoes)
{
    for (const int32_t step : {2, 4, 8, 12})
        for (const int16_t value : {int16_t{0}, int16_t{INT16_MAX}}) {
            const Samples from = decimation_input(step, value);
            EXPECT_EQ(bits_of(decimated(nax::neon::fir_decimate, step, from)),
                      bits_of(decimated(nax::scalar::fir_decimate, step, from)));
        }
}

TEST_F(Neon, AveragesTheCrossSpectrumAsTheScalarVariantDoes)
{
    const Averages vector = averaged(nax::neon::average_cross);
    const Averages plain = averaged(nax::scalar::average_cross);
    EXPECT_EQ(bits_of(vector.re), bits_of(plain.re));
    EXPECT_EQ(bits_of(vector.im), bits_of(plain.im));
}

TEST_F(Neon, SumsTheEnergyAsTheScalarVariantDoes)
{
    for (unsigned seed = 0; seed < 100; seed += 2) {
        const std::vector<float> re = noise(52, seed), im = noise(52, seed + 1);
        ASSERT_EQ(nax::neon::spectrum_energy(re.data(), im.data(), 52),
                  nax::scalar::spectrum_energy(re.data(), im.data(), 52));
    }
}

TEST_F(Neon, SwapsBytesAsTheScalarVariantDoesAtAnyAlignment)
{
    for (int32_t count = 0; count <= 70; count++)
        for (const size_t misaligned : {size_t{0}, size_t{1}})
            ASSERT_EQ(swapped(nax::neon::swap_bytes, count, misaligned),
                      swapped(nax::scalar::swap_bytes, count, misaligned));
}

TEST_F(Neon, CopiesChannelsAsTheScalarVariantDoes)
{
    for (int32_t from_stride = 1; from_stride <= 5; from_stride++)
        for (int32_t to_stride = 1; to_stride <= 5; to_stride++)
            for (int32_t count = 0; count <= 40; count++) {
                const Samples from = samples(static_cast<size_t>(count * from_stride) + 1, 5);
                Samples vector(static_cast<size_t>(count * to_stride) + 1, 99), plain = vector;
                nax::neon::copy_channel(from.data(), from_stride, vector.data(), to_stride, count);
                nax::scalar::copy_channel(from.data(), from_stride, plain.data(), to_stride, count);
                ASSERT_EQ(vector, plain) << from_stride << " to " << to_stride << ", " << count;
            }
}

#endif
