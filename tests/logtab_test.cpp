// Logarithm by table (src/engines/logtab) against the C library's.
#include "engines/logtab.h"

#include "support.h"

#include <algorithm>
#include <cfloat>
#include <thread>

// The largest error over every octave of the normal floats, on points that do not
// fall on the table's own.
static double largest_error()
{
    double largest = 0.0;
    for (int octave = -126; octave <= 127; octave++)
        for (int step = 0; step < 997; step++) {
            const float value = std::ldexp(1.0f + static_cast<float>(step) / 997.0f, octave);
            largest = std::max(
                largest, std::abs(nax::log2_approx(value) - std::log2(static_cast<double>(value))));
        }
    return largest;
}

// Rounding the sum of a whole part up to 127 to float costs half a unit in its last
// place on top of the bound for the table.
static constexpr double ROUNDING = 64.0 * FLT_EPSILON;

// First, while the table is not ready yet. Each thread writes the same values.
TEST(LogTable, IsReadyAfterTwoThreadsMadeItAtOnce)
{
    double errors[2] = {1.0, 1.0};
    const auto make_and_use = [&errors](int which) {
        nax::nax_logtab_init();
        errors[which] = largest_error();
    };
    std::thread other(make_and_use, 1);
    make_and_use(0);
    other.join();
    EXPECT_LE(errors[0], nax::LOG2_MAX_ERROR + ROUNDING);
    EXPECT_LE(errors[1], nax::LOG2_MAX_ERROR + ROUNDING);
}

TEST(LogTable, KeepsItsErrorBoundAfterRepeatedCreation)
{
    EXPECT_EQ(nax::nax_logtab_init(), 0);
    EXPECT_EQ(nax::nax_logtab_init(), 0);
    EXPECT_LE(largest_error(), nax::LOG2_MAX_ERROR + ROUNDING);
}

TEST(LogTable, IsExactAtPowersOfTwo)
{
    nax::nax_logtab_init();
    for (int octave = -126; octave <= 127; octave++)
        EXPECT_EQ(nax::log2_approx(std::ldexp(1.0f, octave)), static_cast<float>(octave));
}

TEST(LogTable, RisesWithItsArgument)
{
    nax::nax_logtab_init();
    float last = nax::log2_approx(1.0f);
    for (int step = 1; step <= 4096; step++) {
        const float next = nax::log2_approx(1.0f + static_cast<float>(step) / 4096.0f);
        ASSERT_GT(next, last) << step;
        last = next;
    }
}

TEST(LogTable, GivesLevelsInDecibels)
{
    nax::nax_logtab_init();
    // The table's error times 3.01 dB an octave, and as much again for rounding.
    constexpr float TOLERANCE_DB = 2.0f * 3.01f * nax::LOG2_MAX_ERROR;
    EXPECT_NEAR(nax::level_db(1.0f), 0.0f, TOLERANCE_DB);
    EXPECT_NEAR(nax::level_db(1000.0f), 30.0f, TOLERANCE_DB);
    EXPECT_NEAR(nax::level_db(1e-9f), -90.0f, TOLERANCE_DB);
}

TEST(LogTable, StopsAtMinusOneHundredDecibels)
{
    nax::nax_logtab_init();
    for (const float power : {0.0f, 1e-11f, FLT_MIN, -1.0f})
        EXPECT_EQ(nax::level_db(power), -100.0f);
}
