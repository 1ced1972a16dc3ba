// The inner loops where the blocks' own tests do not show them.
#include "powers.h"

#include <algorithm>
#include <array>
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
        double mic = 0, re = 0, im = 0, echo_mean = 0;
        const int32_t width = bands.edge[b + 1] - bands.edge[b];
        for (int32_t k = bands.edge[b]; k < bands.edge[b + 1]; k++) {
            const double e_re = cleaned[k].re, e_im = cleaned[k].im;
            const double d_re = echo[k].re, d_im = echo[k].im;
            const double y_re = e_re + d_re, y_im = e_im + d_im;
            EXPECT_FLOAT_EQ(cleaned_power[k], static_cast<float>(e_re * e_re + e_im * e_im));
            echo_mean += (d_re * d_re + d_im * d_im) / width;
            mic += (y_re * y_re + y_im * y_im) / width;
            re += (y_re * e_re + y_im * e_im) / width; // of Y conj(E)
            im += (y_im * e_re - y_re * e_im) / width;
        }
        EXPECT_NEAR(comparison.mic[b] / mic, 1, 1e-5);
        EXPECT_NEAR(comparison.echo[b] / echo_mean, 1, 1e-5);
        EXPECT_NEAR(comparison.cross_re[b], re, 1e-5 * mic);
        EXPECT_NEAR(comparison.cross_im[b], im, 1e-5 * mic);
    }
}

TEST(Loops, SumsAreThoseOfTheirDefinition)
{
    ::Noise random(11);
    float a[40], b[40], c[40];
    double sums[8] = {};
    for (int32_t k = 0; k < 40; k++) {
        a[k] = static_cast<float>(random.next(1));
        b[k] = static_cast<float>(random.next(1));
        c[k] = static_cast<float>(random.next(1));
        const double terms[] = {a[k],        b[k],        c[k],        a[k] * a[k],
                                b[k] * b[k], c[k] * c[k], a[k] * b[k], a[k] * c[k]};
        for (int32_t i = 0; i < 8; i++)
            sums[i] += terms[i];
    }
    Moments m;
    sum_products(a, b, c, 40, m);
    const float found[] = {m.a, m.b, m.c, m.aa, m.bb, m.cc, m.ab, m.ac};
    for (int32_t i = 0; i < 8; i++)
        EXPECT_NEAR(found[i], sums[i], 1e-5) << i;
}

TEST(Loops, FourthRootsAreRightWithinSixPerCent)
{
    float power[4], roots[4];
    for (double decade = -10; decade < 20; decade += 0.013) {
        std::fill_n(power, 4, static_cast<float>(std::pow(10, decade)));
        fourth_roots(power, roots, 4);
        ASSERT_NEAR(roots[3] / std::pow(10, decade / 4), 1.03, 0.031) << decade;
    }
    std::fill_n(power, 4, 0.0f);
    fourth_roots(power, roots, 4);
    EXPECT_LT(roots[0], 1e-9f);
}

TEST(Loops, SquashIsTanhWithinATenThousandth)
{
    float values[4] = {};
    for (double x = -12; x < 12; x += 0.01) {
        std::fill_n(values, 4, static_cast<float>(x));
        squash(values, 4);
        ASSERT_NEAR(values[1], std::tanh(x), 1.2e-4) << x;
        ASSERT_LE(std::abs(values[1]), 1);
    }
}

TEST(Loops, ToIntegersRoundsToTheNearest)
{
    float values[8] = {0, 1, -1, 0.45f / 127, -0.4f / 127, 0.6f / 127, -63.6f / 127, 126.4f / 127};
    int8_t integers[8];
    to_integers(values, integers, 8);
    for (int32_t i = 0; i < 8; i++)
        EXPECT_NEAR(integers[i], 127.0 * values[i], 0.5) << i;
}

// A layer of any size and its inputs, the extremes among them.
struct RandomLayer {
    RandomLayer(uint32_t seed, int32_t rows, int32_t columns)
        : weights(static_cast<size_t>(rows * columns)), inputs(static_cast<size_t>(columns)),
          scale(static_cast<size_t>(rows)), bias(static_cast<size_t>(rows)),
          outputs(static_cast<size_t>(rows)), layer{rows, columns, weights.data(), scale.data(),
                                                    bias.data()}
    {
        ::Noise random(seed);
        for (int8_t &weight : weights)
            weight = static_cast<int8_t>(std::clamp(random.next(300), -127.0, 127.0));
        for (int8_t &input : inputs)
            input = static_cast<int8_t>(std::clamp(random.next(300), -127.0, 127.0));
        for (size_t i = 0; i < scale.size(); i++) {
            scale[i] = static_cast<float>(random.next(1e-4));
            bias[i] = static_cast<float>(random.next(1));
        }
    }
    std::vector<int8_t> weights, inputs;
    std::vector<float> scale, bias, outputs;
    const Layer layer;
};

TEST(Loops, ALayerIsThatOfItsDefinitionUpToTheLargestSums)
{
    for (const auto &[rows, columns] : {std::pair{4, 16}, {8, 48}, {4, 512}}) {
        RandomLayer random(12, rows, columns);
        std::fill_n(random.weights.begin(), 2 * columns, int8_t{-127});
        std::fill_n(random.inputs.begin(), columns, int8_t{-127});
        apply_layer(random.layer, random.inputs.data(), random.outputs.data());
        for (size_t i = 0; i < random.outputs.size(); i++) {
            int32_t sum = 0;
            for (size_t j = 0; j < random.inputs.size(); j++) {
                const size_t block = i / 4 * random.inputs.size() / 16 + j / 16;
                sum += random.weights[(block * 4 + i % 4) * 16 + j % 16] * random.inputs[j];
            }
            // Volatile, so that the compiler does not fuse the two operations.
            const volatile float product = static_cast<float>(sum) * random.scale[i];
            EXPECT_EQ(random.outputs[i], product + random.bias[i]) << i;
        }
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
    expect_alike(2, [&](bool neon, auto &out, auto &a, auto &b, auto &, auto &) {
        (neon ? neon::estimate_residual : scalar::estimate_residual)(bands, a, b, 0.4f, out[0],
                                                                     out[1]);
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
        GainRule rule;
        for (int32_t band = 0; band < MAX_BANDS; band++) {
            rule.over[band] = static_cast<float>(1 + band);
            rule.floor[band] = 0.003f * static_cast<float>(1 + band);
            rule.factor[band] = a[band];
            rule.keep[band] = 0.95f - 0.01f * static_cast<float>(band);
        }
        (neon ? neon::apply_gain : scalar::apply_gain)(bands, rule, b, c, d, out[0],
                                                       spectrum_in(out[1]));
    });
}

TEST_P(NeonLoops, SumForTheNetworkAsTheScalarOnesDo)
{
    expect_alike(2, [&](bool neon, auto &out, auto &a, auto &b, auto &c, auto &) {
        (neon ? neon::fourth_roots : scalar::fourth_roots)(a, out[0], GetParam());
        Moments moments;
        (neon ? neon::sum_products : scalar::sum_products)(a, b, c, GetParam(), moments);
        memcpy(out[1].at, &moments, sizeof moments);
    });
    expect_alike(1, [&](bool neon, auto &out, auto &, auto &, auto &, auto &) {
        (neon ? neon::squash : scalar::squash)(out[0], GetParam());
    });
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &b, auto &, auto &d) {
        (neon ? neon::add_scaled : scalar::add_scaled)(-0.3f, d, out[0], GetParam());
        (neon ? neon::add_gated : scalar::add_gated)(a, b, out[0], GetParam());
    });
    expect_alike(1, [&](bool neon, auto &out, auto &a, auto &, auto &, auto &) {
        (neon ? neon::levels : scalar::levels)(a, reinterpret_cast<int8_t *>(out[0].at),
                                               GetParam());
    });
    ::Noise random(14);
    float values[256];
    int8_t plain_integers[256], integers[256];
    for (int32_t i = 0; i < 256; i++)
        values[i] = static_cast<float>(random.next(1));
    scalar::to_integers(values, plain_integers, 256);
    neon::to_integers(values, integers, 256);
    EXPECT_TRUE(std::equal(integers, integers + 256, plain_integers));
    RandomLayer drawn(13, 64, 208);
    scalar::apply_layer(drawn.layer, drawn.inputs.data(), drawn.outputs.data());
    const std::vector<float> plain = drawn.outputs;
    neon::apply_layer(drawn.layer, drawn.inputs.data(), drawn.outputs.data());
    EXPECT_EQ(plain, drawn.outputs);
}

INSTANTIATE_TEST_SUITE_P(Frames, NeonLoops, testing::ValuesIn(FRAME_SIZES));

#endif

} // namespace nax::res
