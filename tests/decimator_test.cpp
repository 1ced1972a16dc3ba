// The way to the delay estimator's 4 kHz (src/engines/decimator): channels to one signal,
// the low-pass, and every n-th sample of what it leaves.
#include "engines/decimator.h"

#include "signals.h"

#include "kernels/kernels.h"

#include <numeric>

using nax::Decimator;
using nax::HOP;

static constexpr int32_t DECIMATIONS[] = {2, 4, 8, 12};

static std::vector<float> at_4_khz(int32_t decimation, const Samples &signal)
{
    Decimator decimator = {};
    nax::decimator_init(decimator, decimation);
    const size_t frame = static_cast<size_t>(HOP * decimation);
    std::vector<float> to(signal.size() / static_cast<size_t>(decimation));
    for (size_t i = 0; i * frame < signal.size(); i++)
        nax::decimate(decimator, signal.data() + i * frame, to.data() + i * HOP);
    return to;
}

TEST(MixToMono, IsTheMeanOfTheChannelsWithoutOverflow)
{
    for (const int32_t channels : {1, 2, 3, 8, nax::MAX_MIXED}) {
        const Samples loudest(static_cast<size_t>(channels), INT16_MIN);
        int16_t mean = 0;
        nax::mix_to_mono(loudest.data(), channels, 1, &mean);
        EXPECT_EQ(mean, INT16_MIN) << channels;
    }
    const Samples planar = {100, -200, 300, 500, 50, 30};
    Samples to(3);
    nax::mix_to_mono(planar.data(), 1, 3, to.data());
    EXPECT_EQ(to, (Samples{100, -200, 300}));
    nax::mix_to_mono(planar.data(), 2, 3, to.data());
    EXPECT_EQ(to, (Samples{300, -75, 165}));
    to.resize(2);
    nax::mix_to_mono(planar.data(), 3, 2, to.data());
    EXPECT_EQ(to, (Samples{150, 110}));
    const Samples more = {100, -200, 300, 500, 50, 30, 9000, 9000}; // a fourth channel behind them
    nax::mix_to_mono(more.data(), 3, 2, to.data());
    EXPECT_EQ(to, (Samples{150, 110}));
}

TEST(Decimator, FiltersFramesAsOneSignal)
{
    for (const int32_t decimation : DECIMATIONS) {
        const int32_t tap_count = Decimator::TAPS_PER_PHASE * decimation;
        Samples signal(static_cast<size_t>(tap_count));
        const Samples noise = Noise(1).frame(5 * HOP * decimation, 20000.0);
        signal.insert(signal.end(), noise.begin(), noise.end());
        Decimator design = {};
        nax::decimator_init(design, decimation);
        std::vector<float> expected(5 * HOP);
        nax::fir_decimate(signal.data() + decimation, design.taps, tap_count, decimation,
                          expected.data(), 5 * HOP);
        EXPECT_EQ(at_4_khz(decimation, noise), expected) << decimation;
    }
}

TEST(Decimator, PassesTheBandThatIsSearchedAndStopsWhatWouldFoldIntoIt)
{
    const auto level_db = [](int32_t decimation, double frequency_hz) {
        Samples tone;
        for (int32_t i = 0; i < 10 * HOP * decimation; i++)
            tone.push_back(to_sample(10000.0 * std::sin(2.0 * std::numbers::pi * frequency_hz * i /
                                                        (4000.0 * decimation))));
        const std::vector<float> to = at_4_khz(decimation, tone);
        const double energy = std::inner_product(to.begin() + HOP, to.end(), to.begin() + HOP, 0.0);
        return 10.0 * std::log10(energy / (9 * HOP) / (10000.0 * 10000.0 / 2.0));
    };
    for (const int32_t decimation : DECIMATIONS) {
        for (const double passed_hz : {250.0, 700.0, 1200.0})
            EXPECT_NEAR(level_db(decimation, passed_hz), 0.0, 0.5) << decimation;
        EXPECT_NEAR(level_db(decimation, 1850.0), -6.0, 0.5) << decimation;
        for (const double stopped_hz : {2800.0, 3300.0, 3700.0})
            EXPECT_LT(level_db(decimation, stopped_hz), -40.0) << decimation;
    }
}

TEST(LowPass, IsSymmetricAndLetsDirectCurrentThroughAsItIs)
{
    for (const int32_t count : {24, 48, 96, 144}) {
        Samples taps(static_cast<size_t>(count));
        nax::design_low_pass(taps.data(), count, 6.0 / count);
        EXPECT_EQ(taps, Samples(taps.rbegin(), taps.rend()));
        EXPECT_NEAR(std::accumulate(taps.begin(), taps.end(), 0), 32768, 200) << count;
    }
}
