// The evidence for the echo's delay (src/engines/cross_spectrum), read as the height of a
// lag in deviations of unrelated signals.
#include "engines/cross_spectrum.h"

#include "signals.h"

#include "engines/lag_peaks.h"
#include "engines/logtab.h"

#include <algorithm>
#include <span>

using nax::HOP;
using nax::Memory;

// A record that hears noise and, in the microphone, its echo.
class Search {
public:
    explicit Search(int32_t echo_lag, int32_t partitions = 48) : path_(echo_lag)
    {
        nax::nax_logtab_init();
        EXPECT_TRUE(nax::cross_spectrum_init(cross, partitions));
        EXPECT_TRUE(nax::lag_peaks_init(peaks_, partitions));
    }
    ~Search()
    {
        nax::cross_spectrum_release(cross);
        nax::lag_peaks_release(peaks_);
    }
    Search(const Search &) = delete;
    Search &operator=(const Search &) = delete;

    struct Mix {
        double far = 9000.0;
        double echo = 1.0;
        double near = 3000.0;
    };

    // Frames of it; returns how many of them told anything.
    int32_t hear(int32_t frames, const Mix &mix, Memory memory = Memory::LONG)
    {
        int32_t news = 0;
        for (int32_t frame = 0; frame < frames; frame++) {
            float ref[HOP], mic[HOP];
            for (int32_t i = 0; i < HOP; i++) {
                const double played = far_.next(mix.far);
                ref[i] = static_cast<float>(played);
                mic[i] = static_cast<float>(mix.echo * path_.next(played) + near_.next(mix.near));
            }
            news += nax::cross_spectrum_update(cross, ref, mic, memory);
        }
        return news;
    }

    float height(int32_t lag) const { return nax::height_at(peaks_, cross, lag); }

    float greatest_height() const
    {
        float greatest = 0;
        for (int32_t lag = 0; lag < cross.partitions * HOP; lag += 4)
            greatest = std::max(greatest, height(lag));
        return greatest;
    }

    nax::CrossSpectrum cross = {};

private:
    nax::LagPeaks peaks_ = {};
    EchoPath path_;
    Noise far_{1}, near_{2};
};

TEST(CrossSpectrum, RaisesTheLagOfTheEchoAndNoOther)
{
    for (const int32_t lag : {0, 37, 1000, 3000}) {
        Search search(lag);
        search.hear(100, {});
        EXPECT_GT(search.height(lag), 8) << lag;
        EXPECT_EQ(search.height(lag), search.greatest_height()) << lag;
    }
}

TEST(CrossSpectrum, GivesUnrelatedSignalsNoHeightWhateverTheirLevel)
{
    for (const double near : {30.0, 1000.0, 30000.0}) {
        Search search(500);
        for (int32_t n = 0; n < 10; n++) {
            search.hear(20, {.echo = 0.0, .near = near});
            EXPECT_LT(search.greatest_height(), 6) << near;
        }
    }
}

TEST(CrossSpectrum, LearnsNothingFromSilenceOnEitherSide)
{
    Search search(500);
    search.hear(100, {});
    search.hear(1, {.echo = 0.0, .near = 4.0}); // the blocks overlap
    const float height = search.height(500);
    EXPECT_EQ(search.hear(50, {.echo = 0.0, .near = 4.0}), 0); // -83 dB of full scale
    EXPECT_EQ(search.height(500), height);
    search.hear(60, {.far = 60.0, .echo = 0.0, .near = 4.0}); // out of the past
    EXPECT_EQ(search.hear(50, {.far = 60.0}), 0);             // 43 dB below what was loud
    EXPECT_EQ(search.height(500), height);
}

// 50 frames leave exp(-1) of a long memory, and a twentieth of a short one.
TEST(CrossSpectrum, RemembersLongOrFollowsSoon)
{
    Search patient(500), quick(500);
    patient.hear(150, {}, Memory::LONG);
    quick.hear(150, {}, Memory::SHORT);
    const float of_patient = patient.height(500), of_quick = quick.height(500);
    EXPECT_GT(of_patient, of_quick);
    patient.hear(50, {.echo = 0.0}, Memory::LONG);
    quick.hear(50, {.echo = 0.0}, Memory::SHORT);
    EXPECT_GT(patient.height(500), of_patient / 4);
    EXPECT_LT(quick.height(500), of_quick / 4);
}

// The variance has to forget as the evidence does, or the height of an echo that goes on would
// fall with the root of time.
TEST(CrossSpectrum, HoldsTheHeightOfAnEchoThatGoesOn)
{
    for (const Memory memory : {Memory::SHORT, Memory::LONG}) {
        Search search(500);
        search.hear(150, {}, memory);
        const float height = search.height(500);
        search.hear(600, {}, memory);
        EXPECT_NEAR(search.height(500) / height, 1, 0.25);
    }
}

// The whitening follows a level that falls, on both sides. Were the power of the loud sound
// kept, or raised in silence, what follows would count for nothing.
TEST(CrossSpectrum, HearsAQuietEchoAfterALoudOneAndAPause)
{
    const Search::Mix loud = {.far = 30000.0, .near = 300.0};
    const Search::Mix quiet = {.far = 2000.0, .near = 20.0};
    for (const bool pause_of_far_end : {true, false}) {
        Search search(500), fresh(500);
        search.hear(50, loud);
        search.hear(60, pause_of_far_end ? Search::Mix{.far = 0.0, .near = 300.0}
                                         : Search::Mix{.far = 30000.0, .echo = 0.0, .near = 0.0});
        const float before = search.height(500);
        for (nax::Partition &lags : std::span(search.cross.partition, 48))
            lags = {};
        search.hear(30, quiet);
        fresh.hear(30, quiet);
        EXPECT_GT(before, 8);
        EXPECT_GT(search.height(500), 0.4f * fresh.height(500)) << pause_of_far_end;
    }
}

// Ninety-six partitions take turns once nothing is searched for: half of the evidence,
// which is worth the root of a half.
TEST(CrossSpectrum, LosesNoMoreOfAnEchoThanHalfOfTheEvidenceWhenPartitionsTakeTurns)
{
    for (const int32_t lag : {300, 364}) { // of partitions that have different turns
        Search all(lag, 48), halved(lag, 96);
        all.hear(150, {}, Memory::SHORT);
        halved.hear(150, {}, Memory::SHORT);
        EXPECT_NEAR(halved.height(lag) / all.height(lag), std::sqrt(0.5), 0.1) << lag;
    }
}

// Through a window with edges a loud tone would reach every bin, and tell a delay there.
TEST(CrossSpectrum, KeepsAToneToItsOwnBins)
{
    Search search(0);
    const double tone_bin = 30.5;
    for (int32_t frame = 0; frame < 50; frame++) {
        float tone[HOP];
        for (int32_t i = 0; i < HOP; i++)
            tone[i] = static_cast<float>(
                9000.0 * std::sin(2.0 * std::numbers::pi * tone_bin * (frame * HOP + i) / 128.0));
        nax::cross_spectrum_update(search.cross, tone, tone, Memory::LONG);
    }
    const float *power = search.cross.ref.power;
    for (int32_t k = 0; k < nax::BINS; k++) {
        if (std::abs(nax::LOW_BIN + k - tone_bin) > 8) {
            EXPECT_LT(power[k], 1e-4f * power[30 - nax::LOW_BIN]) << k;
        }
    }
}
