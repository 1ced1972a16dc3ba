// The inner loops where the blocks' own tests do not show them.
#include "powers.h"

#include <algorithm>
#include <cstring>

namespace nax::res {

TEST(Loops, OverlapAddRoundsToTheNearestAndSaturates)
{
    const float block[] = {0.4f, 0.6f, -0.6f, 4e4f, -4e4f, 32767, -32768, 1e30f};
    const float window[] = {1, 1, 1, 1, 1, 1, 1, 1};
    const float left_over[8] = {};
    int16_t to[8];
    overlap_add(block, window, left_over, to, 8);
    const int16_t expected[] = {0, 1, -1, 32767, -32768, 32767, -32768, 32767};
    EXPECT_TRUE(std::equal(to, to + 8, expected));
}

TEST(Loops, ComparisonIsThatOfItsDefinition)
{
    const Bands bands = bands_for(128);
    ::Noise random(9);
    Complex cleaned[MAX_BINS], echo[MAX_BINS];
    for (int32_t k = 0; k < MAX_BINS; k++) {
        cleaned[k] = {static_cast<float>(random.next(1e3)), static_cast<float>(random.next(1e3))};
        echo[k] = {static_cast<float>(random.next(1e3)), static_cast<float>(random.next(1e3))};
    }
    Bins cleaned_power(0), echo_power(0);
    Comparison comparison;
    compare(bands, cleaned, echo, cleaned_power, echo_power, comparison);
    for (int32_t b = 0; b + 1 < bands.count; b++) {
        double mic = 0, re = 0, im = 0;
        const int32_t width = bands.edge[b + 1] - bands.edge[b];
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            const double e_re = cleaned[k].re, e_im = cleaned[k].im;
            const double y_re = e_re + echo[k].re, y_im = e_im + echo[k].im;
            EXPECT_FLOAT_EQ(cleaned_power[k], static_cast<float>(e_re * e_re + e_im * e_im));
            mic += (y_re * y_re + y_im * y_im) / width;
            re += (y_re * e_re + y_im * e_im) / width; // of Y conj(E)
            im += (y_im * e_re - y_re * e_im) / width;
        }
        EXPECT_NEAR(comparison.mic[b] / mic, 1, 1e-5);
        EXPECT_NEAR(comparison.cross_re[b], re, 1e-5 * mic);
        EXPECT_NEAR(comparison.cross_im[b], im, 1e-5 * mic);
    }
}

#if NAX_AEC_NEON

class NeonLoops : public testing::TestWithParam<int32_t> {
protected:
    void SetUp() override
    {
        if (!processor_has_neon()) GTEST_SKIP() << "this processor has no NEON";
    }

    // Powers over many decades, some of them nothing.
    Bins powers()
    {
        Bins values(0);
        for (float &value : values.at)
            if (random.next(1) > -0.8) value = static_cast<float>(std::pow(10, random.next(9)));
        return values;
    }

    // Calls both variants with outputs of their own, filled alike, which must end alike.
    template <typename Call> void expect_alike(int32_t outputs, Call call)
    {
        for (int n = 0; n < 20; n++) {
            std::vector<Bins> plain;
            for (int32_t i = 0; i < outputs; i++)
                plain.push_back(powers());
            std::vector<Bins> vector = plain;
            const Bins a = powers(), b = powers(), c = powers(), d = powers();
            call(false, plain, a, b, c, d);
            call(true, vector, a, b, c, d);
            for (int32_t i = 0; i < outputs; i++)
                ASSERT_EQ(memcmp(plain[i].at, vector[i].at, sizeof plain[i].at), 0)
                    << "output " << i << " of frames of " << GetParam();
        }
    }

    ::Noise random{10};
    const Bands bands = bands_for(GetParam());
};

static const Complex *spectrum_in(const Bins &bins)
{
    return reinterpret_cast<const Complex *>(bins.at);
}
static Complex *spectrum_in(Bins &bins) { return reinterpret_cast<Complex *>(bins.at); }

TEST_P(NeonLoops, AddBlocksAsTheScalarOnesDo)
{
    const int32_t frame = GetParam() / 2;
    int16_t samples[MAX_FRAME], plain[MAX_FRAME], vector[MAX_FRAME];
    for (int16_t &sample : samples)
        sample = to_sample(random.next(33000));
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &, auto &, auto &) {
        (neon ? neon::window_samples : scalar::window_samples)(samples, a, out[0], frame);
    });
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &b, auto &, auto &) {
        (neon ? neon::window_block : scalar::window_block)(a, b, out[0], frame);
    });
    Bins block(0), window(0), left_over(0);
    for (int32_t i = 0; i < frame; i++) {
        block[i] = static_cast<float>(random.next(40000));
        window[i] = static_cast<float>(random.next(1));
        left_over[i] = static_cast<float>(random.next(20000));
    }
    scalar::overlap_add(block, window, left_over, plain, frame);
    neon::overlap_add(block, window, left_over, vector, frame);
    EXPECT_TRUE(std::equal(plain, plain + frame, vector));
}

TEST_P(NeonLoops, ComparePowersAsTheScalarOnesDo)
{
    // A spectrum takes the room of two powers.
    if (GetParam() > MAX_FRAME / 2 - VECTOR) GTEST_SKIP();
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &, auto &, auto &) {
        (neon ? neon::add_power : scalar::add_power)(spectrum_in(a), out[0], padded_bins(bands));
    });
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &, auto &, auto &) {
        (neon ? neon::band_means : scalar::band_means)(bands, a, out[0]);
    });
    expect_alike(3, [&](bool neon, auto &out, auto &a, auto &b, auto &, auto &) {
        Comparison comparison = {};
        (neon ? neon::compare : scalar::compare)(bands, spectrum_in(a), spectrum_in(b), out[0],
                                                 out[1], comparison);
        memcpy(out[2].at, &comparison, sizeof comparison);
    });
}

TEST_P(NeonLoops, PredictAndEstimateEchoAsTheScalarOnesDo)
{
    expect_alike(3, [&](bool neon, auto &out, auto &a, auto &b, auto &c, auto &d) {
        (neon ? neon::predict_echo : scalar::predict_echo)(bands, a, b, c, d, {0.45f, 0.3f}, out[0],
                                                           out[1], out[2]);
    });
    expect_alike(4, [&](bool neon, auto &out, auto &a, auto &b, auto &c, auto &) {
        (neon ? neon::estimate_residual : scalar::estimate_residual)(
            bands, a, b, c, {0.4f, 0.6f, 3}, out[0], out[1], out[2], out[3]);
    });
    expect_alike(2, [&](bool neon, auto &out, auto &a, auto &, auto &, auto &) {
        (neon ? neon::track_least : scalar::track_least)(a, 0.8f, out[0], out[1],
                                                         padded_bins(bands));
    });
}

TEST_P(NeonLoops, ApplyTheGainAsTheScalarOnesDo)
{
    if (GetParam() > MAX_FRAME / 2 - VECTOR) GTEST_SKIP();
    expect_alike(2, [&](bool neon, auto &out, auto &a, auto &b, auto &c, auto &d) {
        (neon ? neon::apply_gain : scalar::apply_gain)(bands, {30, 0.95f, 0.01f}, a, b, c, d,
                                                       out[0], spectrum_in(out[1]));
    });
}

INSTANTIATE_TEST_SUITE_P(Frames, NeonLoops, testing::ValuesIn(FRAME_SIZES));

#endif

} // namespace nax::res
