#include "suppressor/coherence.h"

#include "powers.h"

namespace nax::res {

TEST(CoherenceOfABand, IsTheShareThatTheCancellerLeftOfUnrelatedParts)
{
    const Bands bands = bands_for(256);
    Coherence coherence = {};
    for (int32_t t = 0; t < 100; t++)
        coherence_update(coherence, bands, comparison_of(1e6f, 9e6f));
    for (int32_t b = 0; b < bands.count; b++)
        EXPECT_NEAR(coherence.value[b], 0.1, 1e-3) << b;
}

TEST(CoherenceOfABand, IsOneInSilenceAndWhereTheCancellerChangesNothing)
{
    const Bands bands = bands_for(256);
    Coherence coherence = {};
    coherence_update(coherence, bands, comparison_of(0, 0));
    EXPECT_EQ(coherence.value[7], 1);
    coherence_update(coherence, bands, comparison_of(1e4f, 0));
    EXPECT_NEAR(coherence.value[7], 1, 1e-5);
    EXPECT_LE(coherence.value[7], 1);
}

// A phase that turns from frame to frame belongs to unrelated sounds.
TEST(CoherenceOfABand, FallsWithinASecondWhereThePhasesDoNotAgree)
{
    const Bands bands = bands_for(256);
    Coherence coherence = {};
    for (int32_t t = 0; t < 60; t++) {
        Comparison comparison = comparison_of(1e6f, 0);
        for (int32_t b = 0; b < bands.count; b++) {
            const float signs[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
            comparison.cross_re[b] = 1e6f * signs[t % 4][0];
            comparison.cross_im[b] = 1e6f * signs[t % 4][1];
        }
        coherence_update(coherence, bands, comparison);
    }
    EXPECT_LT(coherence.value[7], 0.01);
}

TEST(CoherenceOfABand, IsTheSameAtEveryPhaseThatStays)
{
    const Bands bands = bands_for(256);
    Coherence coherence = {};
    for (int32_t t = 0; t < 60; t++) {
        Comparison comparison = comparison_of(1e6f, 0);
        std::swap(comparison.cross_re, comparison.cross_im);
        coherence_update(coherence, bands, comparison);
    }
    EXPECT_NEAR(coherence.value[7], 1, 1e-3);
}

} // namespace nax::res
