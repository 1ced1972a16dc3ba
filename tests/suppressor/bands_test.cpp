#include "powers.h"

namespace nax::res {

TEST(Bands, AreWholeVectorsUpToHalfTheRate)
{
    for (const int32_t frame : FRAME_SIZES) {
        const Bands bands = bands_for(frame);
        ASSERT_LE(bands.count, MAX_BANDS);
        EXPECT_EQ(bands.edge[0], 0);
        for (int32_t b = 0; b < bands.count; b++) {
            EXPECT_GT(bands.edge[b + 1], bands.edge[b]) << frame << " " << b;
            EXPECT_EQ(bands.edge[b + 1] % VECTOR, 0);
        }
        EXPECT_EQ(padded_bins(bands), frame + VECTOR);
    }
}

// Traunmüller (1990): the critical-band rate of a frequency.
static double bark(double hz) { return 26.81 * hz / (1960 + hz) - 0.53; }

// The lowest are rounded up to the 125 Hz of a vector; the topmost are as wide as the
// table of critical bands has them. Rounding takes up to half a vector at either edge.
TEST(Bands, AreAboutOneBarkWide)
{
    const Bands bands = bands_for(256);
    for (int32_t b = 1; b + 1 < bands.count; b++) {
        const double from = 31.25 * bands.edge[b], to = 31.25 * bands.edge[b + 1];
        EXPECT_NEAR(bark(to) - bark(from), 1.0, 0.51) << from << " to " << to << " Hz";
    }
}

TEST(Bands, MeansLeaveThePaddingOut)
{
    for (const int32_t frame : FRAME_SIZES) {
        const Bands bands = bands_for(frame);
        Bins power(3);
        for (int32_t k = frame + 1; k < padded_bins(bands); k++)
            power[k] = 0;
        float means[MAX_BANDS];
        band_means(bands, power, means);
        for (int32_t b = 0; b < bands.count; b++)
            EXPECT_FLOAT_EQ(means[b], 3) << frame << " " << b;
    }
}

} // namespace nax::res
