// The search for the echo's lag in the evidence (src/engines/lag_peaks), in evidence that
// is made of single lags.
#include "engines/lag_peaks.h"

#include "support.h"

#include "engines/logtab.h"

#include <numbers>

using nax::HOP;

class LagPeaks : public testing::Test {
protected:
    static constexpr int32_t PARTITIONS = 48;

    LagPeaks()
    {
        nax::nax_logtab_init();
        EXPECT_TRUE(nax::cross_spectrum_init(cross, PARTITIONS));
        EXPECT_TRUE(nax::lag_peaks_init(peaks, PARTITIONS));
    }
    ~LagPeaks() override
    {
        nax::cross_spectrum_release(cross);
        nax::lag_peaks_release(peaks);
    }

    // Adds what an echo leaves in the partition that answers for its lag.
    void add_echo(int32_t lag, float strength)
    {
        const int32_t p = (lag + HOP / 2) / HOP;
        nax::Partition &lags = cross.partition[p];
        for (int32_t k = 0; k < nax::BINS; k++) {
            const double phase =
                2.0 * std::numbers::pi * (nax::LOW_BIN + k) * (lag - p * HOP) / nax::WINDOW;
            lags.evidence.re[k] += strength * static_cast<float>(std::cos(phase));
            lags.evidence.im[k] -= strength * static_cast<float>(std::sin(phase));
        }
        lags.variance += 1; // it is new
    }

    void search(int32_t frames, int32_t transforms = 3)
    {
        for (int32_t n = 0; n < frames; n++)
            nax::lag_peaks_search(peaks, cross, transforms);
    }

    int32_t tallest_lag() const
    {
        const nax::Peak *tallest = nax::tallest_peak(peaks);
        return tallest ? tallest->lag : -1;
    }

    float rival(int32_t lag) const { return nax::tallest_rival(peaks, cross, lag); }

    nax::CrossSpectrum cross = {};
    nax::LagPeaks peaks = {};
};

TEST_F(LagPeaks, FindsALagAtEveryPlaceOfAPartition)
{
    EXPECT_EQ(nax::tallest_peak(peaks), nullptr);
    float strength = 1;
    for (const int32_t lag : {0, 31, 32, 640, 640 + 20, 640 - 20, 3000, 3039}) {
        add_echo(lag, strength *= 2);
        search(4);
        EXPECT_EQ(tallest_lag(), lag);
    }
}

TEST_F(LagPeaks, HeightAtALagIsThatOfItsPeakWithoutATransform)
{
    for (const int32_t lag : {0, 25, 640, 640 + 20, 640 - 20, 3039}) {
        SCOPED_TRACE(lag);
        cross.partition[(lag + HOP / 2) / HOP].evidence = {};
        add_echo(lag, 3);
        search(4);
        ASSERT_EQ(tallest_lag(), lag);
        const float height = nax::tallest_peak(peaks)->height;
        EXPECT_GT(height, 1);
        EXPECT_NEAR(nax::height_at(peaks, cross, lag), height, 1e-3f * height);
        EXPECT_LT(nax::height_at(peaks, cross, lag + 10), height / 2);
        peaks.peaks[(lag + HOP / 2) / HOP].age = 100;
    }
}

TEST_F(LagPeaks, LooksAtTheMostPromisingPartitionFirstAndThenAtOthers)
{
    add_echo(5 * HOP, 1);
    add_echo(9 * HOP, 2);
    add_echo(14 * HOP, 1);
    search(4, 0);
    search(1, 1);
    EXPECT_EQ(tallest_lag(), 9 * HOP);
    EXPECT_EQ(nax::tallest_within(peaks, 5 * HOP, 10), 0);
    for (int32_t n = 0; n < 2; n++) {
        add_echo(9 * HOP, 0.1f); // again the most promising
        search(1, 1);
    }
    EXPECT_GT(nax::tallest_within(peaks, 5 * HOP, 10), 0);
    EXPECT_GT(nax::tallest_within(peaks, 14 * HOP, 10), 0);
}

TEST_F(LagPeaks, FindsNoEchoThatComesBeforeItsSound)
{
    add_echo(-20, 3);
    add_echo(640, 2);
    search(4);
    EXPECT_EQ(tallest_lag(), 640);
    add_echo(3, 8);
    add_echo(-3, 6);
    search(4);
    EXPECT_EQ(tallest_lag(), 3);
}

TEST_F(LagPeaks, TakesTheFirstLagThatIsNearlyAsTallForTheArrival)
{
    add_echo(640 + 15, 1);
    add_echo(640 - 5, 0.75f);
    add_echo(1280 + 15, 2);
    add_echo(1280 - 5, 1);
    add_echo(25, 1);
    add_echo(5, 0.75f);
    search(4);
    EXPECT_EQ(peaks.peaks[10].lag, 640 - 5);
    EXPECT_EQ(peaks.peaks[0].lag, 5);
    EXPECT_EQ(peaks.peaks[20].lag, 1280 + 15);
}

TEST_F(LagPeaks, ForgetsAPeakThatNoNewEvidenceUpholds)
{
    add_echo(640, 3);
    search(11);
    EXPECT_EQ(tallest_lag(), 640);
    EXPECT_GT(nax::tallest_within(peaks, 630, 10), 0);
    EXPECT_GT(rival(2000), 0);
    search(1);
    EXPECT_EQ(nax::tallest_peak(peaks), nullptr);
    EXPECT_EQ(nax::tallest_within(peaks, 630, 10), 0);
    EXPECT_EQ(rival(2000), 0);
}

// A count that has no end comes round after a year, and the peak would be fresh again.
TEST_F(LagPeaks, NeverTakesAForgottenPeakForAFreshOne)
{
    add_echo(640, 3);
    search(100);
    const int32_t oldest = peaks.peaks[10].age;
    search(1);
    EXPECT_EQ(peaks.peaks[10].age, oldest);
    EXPECT_FALSE(nax::is_fresh(peaks.peaks[10]));
}

TEST_F(LagPeaks, ReflectionsAreNoRivalsOfTheArrival)
{
    add_echo(1000, 3);
    add_echo(1000 + 150, 2.5f);
    add_echo(1000 + 30, 1); // in its path
    search(4);
    EXPECT_EQ(rival(1000), 0);
    EXPECT_GT(rival(1000 + 150), nax::tallest_peak(peaks)->height / 2);
    add_echo(1000 - 150, 1.2f); // not quite half of it
    EXPECT_EQ(rival(1000), 0);
}

// A period of 150 lags: what repeats later repeats earlier, too.
TEST_F(LagPeaks, RepetitionsOfAPeriodicSignalAreRivals)
{
    add_echo(1000, 3);
    add_echo(1000 + 150, 2.5f);
    add_echo(1000 - 150, 1.4f);
    search(4);
    EXPECT_NEAR(rival(1000) / nax::tallest_peak(peaks)->height, 2.5 / 3, 0.02);
}

TEST_F(LagPeaks, WhatComesMuchLaterIsARival)
{
    add_echo(1000, 3);
    add_echo(1000 + nax::REFLECTION_LAGS, 2);
    search(4);
    EXPECT_EQ(rival(1000), 0);
    add_echo(1000 + nax::REFLECTION_LAGS + HOP, 2);
    search(4);
    EXPECT_GT(rival(1000), 0);
}
