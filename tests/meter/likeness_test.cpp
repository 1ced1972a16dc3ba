// How alike two levels are, and where.
#include "meter/likeness.h"

#include "support.h"

#include <algorithm>
#include <cmath>

namespace nax::meter {

// Powers that rise and fall by chance between -40 and -20 dBFS.
static std::vector<float> levels(uint32_t seed, size_t frames)
{
    Noise noise(seed);
    std::vector<float> powers(frames);
    float db = -30;
    for (float &power : powers) {
        db = std::clamp(db + static_cast<float>(noise.next(6)), -40.0f, -20.0f);
        power = std::pow(10.0f, db / 10);
    }
    return powers;
}

static Likeness likeness_of(const std::vector<float> &ref, const std::vector<float> &mic)
{
    Likeness likeness = {};
    likeness_init(likeness);
    for (size_t t = 0; t < ref.size(); t++)
        take_in(likeness, ref[t], mic[t], true);
    find_best(likeness);
    return likeness;
}

TEST(Likeness, IsFoundAtEveryDistanceWhateverTheLevel)
{
    constexpr size_t FRAMES = 600;
    const std::vector<float> far = levels(1, FRAMES), near = levels(2, FRAMES);
    for (int32_t distance = Likeness::EARLIEST; distance <= Likeness::LATEST; distance++) {
        std::vector<float> ref(FRAMES), mic(FRAMES);
        for (size_t t = 0; t < FRAMES; t++) {
            ref[t] = far[(t + FRAMES) % FRAMES];
            mic[t] =
                0.1f * far[(t + FRAMES - static_cast<size_t>(distance + 600) % FRAMES) % FRAMES] +
                0.03f * near[t];
        }
        const Likeness likeness = likeness_of(ref, mic);
        EXPECT_EQ(likeness.distance, distance);
        EXPECT_GT(likeness.best, 0.5f);
        EXPECT_GT(likeness.best, chance(likeness));
    }
}

TEST(Likeness, OfUnrelatedLevelsStaysBelowChance)
{
    for (const size_t frames : {size_t{60}, size_t{200}, size_t{600}, size_t{5000}}) {
        int32_t above = 0;
        for (uint32_t seed = 10; seed < 60; seed += 2) {
            const Likeness likeness = likeness_of(levels(seed, frames), levels(seed + 1, frames));
            above += likeness.best > chance(likeness);
        }
        EXPECT_LE(above, 1) << frames; // of 25
    }
}

TEST(Likeness, ChanceSettlesWithTheMemory)
{
    EXPECT_NEAR(chance(likeness_of(levels(1, 3000), levels(2, 3000))), 0.126, 0.003);
    EXPECT_NEAR(chance(likeness_of(levels(1, 6000), levels(2, 6000))), 0.126, 0.003);
}

TEST(Likeness, OfOneAndTheSameIsOneAndOfNothingIsNone)
{
    const std::vector<float> far = levels(1, 300), silence(300);
    const Likeness same = likeness_of(far, far);
    EXPECT_GT(same.best, 0.99f);
    EXPECT_EQ(same.distance, 0);
    EXPECT_EQ(likeness_of(far, silence).best, 0.0f);
    EXPECT_EQ(likeness_of(silence, silence).best, 0.0f);
}

TEST(Likeness, IsForgotten)
{
    const std::vector<float> far = levels(1, 300);
    Likeness likeness = likeness_of(far, far);
    forget(likeness);
    EXPECT_EQ(likeness.best, 0.0f);
    EXPECT_EQ(chance(likeness), 1.0f);
    for (size_t t = 0; t < 100; t++)
        take_in(likeness, far[t], far[t], true);
    find_best(likeness);
    EXPECT_GT(likeness.best, 0.99f);
    forget(likeness);
    for (size_t t = 10; t < 210; t++)
        take_in(likeness, far[t], far[t - 10], true);
    find_best(likeness);
    EXPECT_EQ(likeness.distance, 10);
}

} // namespace nax::meter
