#include "suppressor/presence.h"

#include "powers.h"
#include "presence_reference.h"

#include <algorithm>
#include <memory>

namespace nax::res {

class PresenceOfATalker : public testing::TestWithParam<int32_t> {
protected:
    PresenceOfATalker()
    {
        std::fill_n(coherence, MAX_BANDS, 1.0f);
        reference_update(reference, bands, 0);
    }

    Evidence evidence() const
    {
        return {&comparison, coherence, &reference, residual, noise, cleaned, echo};
    }
    float feature(int32_t band, int32_t number)
    {
        std::fill_n(inputs, PADDED_INPUTS, int8_t{0});
        find_features(bands, evidence(), inputs);
        return static_cast<float>(inputs[band * FEATURES + number]) / INPUT_ONE;
    }

    const Bands bands = bands_for(GetParam());
    const int32_t judged = std::min(bands.count, JUDGED_BANDS);
    Comparison comparison = {};
    float coherence[MAX_BANDS], residual[MAX_BANDS] = {}, noise[MAX_BANDS] = {};
    Reference reference = {};
    Bins cleaned{0}, echo{0};
    int8_t inputs[PADDED_INPUTS] = {};
};

TEST_P(PresenceOfATalker, IsJudgedByLogarithmsOfPowers)
{
    for (const double power : {1e-3, 1.0, 3.0, 1e3, 7e5, 1e9}) {
        float *const means[] = {comparison.cleaned, comparison.echo, comparison.mic,
                                reference.mean,     residual,        noise};
        for (int32_t number = 0; number < 6; number++)
            for (int32_t b = 0; b < judged; b++) {
                const float before = means[number][b];
                means[number][b] = static_cast<float>(power);
                EXPECT_NEAR(feature(b, number), 0.1 * std::log2(power + 0.04) - 0.9, 0.012)
                    << power << " " << number << " " << b;
                means[number][b] = before;
            }
    }
    coherence[3] = 0.25f;
    EXPECT_NEAR(feature(3, 6), 0.25, 1e-2);
}

// A filter that takes too little or too much leaves echo in phase or in opposite phase with what
// it removed; a talker is in no phase with it.
TEST_P(PresenceOfATalker, IsJudgedByThePhaseBetweenWhatIsLeftAndWhatWasRemoved)
{
    const auto set = [&](float left, float removed, float sum) {
        comparison.cleaned[4] = left * left;
        comparison.echo[4] = removed * removed;
        comparison.mic[4] = sum;
    };
    set(100, 1000, 1100 * 1100);
    EXPECT_NEAR(feature(4, 7), 1, 0.02);
    set(100, 1000, 900 * 900);
    EXPECT_NEAR(feature(4, 7), -1, 0.02);
    set(100, 1000, 1000 * 1000 + 100 * 100);
    EXPECT_NEAR(feature(4, 7), 0, 0.02);
    set(0, 0, 0);
    EXPECT_EQ(feature(4, 7), 0);
}

// Peaks at every fifth bin are those of one voice, at every seventh those of another.
TEST_P(PresenceOfATalker, IsJudgedByWhoseHarmonicsAreLeft)
{
    const auto harmonics = [](float *power, int32_t spacing, float level) {
        for (int32_t k = 0; k < MAX_BINS; k++)
            power[k] = k % spacing == 0 ? 1e6f * level : 1e2f * level;
    };
    harmonics(cleaned, 5, 1);
    harmonics(echo, 5, 30);
    harmonics(reference.power, 7, 1);
    for (int32_t b = 0; b + 1 < judged; b++) {
        EXPECT_NEAR(feature(b, 8), 1, 0.02) << b;
        EXPECT_LT(std::abs(feature(b, 9)), 0.3) << b;
    }
    harmonics(reference.power, 5, 0.01f);
    EXPECT_NEAR(feature(7, 9), 1, 0.02);
    for (int32_t k = 0; k < MAX_BINS; k++) // the gaps filled, the peaks gone
        cleaned[k] = k % 5 == 0 ? 1e2f : 1e6f;
    EXPECT_NEAR(feature(7, 8), -1, 0.02);
    std::fill_n(cleaned.at, MAX_BINS, 1e4f);
    EXPECT_NEAR(feature(7, 8), 0, 0.02);
}

TEST_P(PresenceOfATalker, HasNoFeaturesOfBandsAboveHalfTheRate)
{
    std::fill_n(comparison.cleaned, MAX_BANDS, 1e6f);
    find_features(bands, evidence(), inputs);
    EXPECT_NE(inputs[(judged - 1) * FEATURES], 0);
    EXPECT_TRUE(std::all_of(inputs + judged * FEATURES, inputs + PADDED_INPUTS,
                            [](int8_t input) { return input == 0; }));
}

TEST_P(PresenceOfATalker, IsCertainWhereTheReferenceIsSilentInAllBands)
{
    std::unique_ptr<Presence> presence{new Presence()};
    for (int32_t t = 0; t < 20; t++)
        presence_update(*presence, bands, evidence());
    for (int32_t b = 0; b < bands.count; b++)
        EXPECT_EQ(presence->talker[b], 1) << b;
}

// The distortion of a loudspeaker is in other bands than the reference.
TEST_P(PresenceOfATalker, IsJudgedInEveryBandWhereTheReferenceSoundsInOne)
{
    std::unique_ptr<Presence> presence{new Presence()};
    reference.activity[2] = 1;
    for (int32_t t = 0; t < 20; t++)
        presence_update(*presence, bands, evidence());
    for (int32_t b = 0; b < bands.count; b++)
        EXPECT_LT(presence->talker[b], 1) << b;
}

TEST_P(PresenceOfATalker, IsThatOfTheBandAt7kHzAboveIt)
{
    std::unique_ptr<Presence> presence{new Presence()};
    std::fill_n(reference.activity, MAX_BANDS, 1.0f);
    std::fill_n(comparison.cleaned, MAX_BANDS, 1e5f);
    for (int32_t t = 0; t < 20; t++)
        presence_update(*presence, bands, evidence());
    for (int32_t b = JUDGED_BANDS; b < bands.count; b++)
        EXPECT_EQ(presence->talker[b], presence->talker[JUDGED_BANDS - 1]) << b;
}

TEST_P(PresenceOfATalker, IsRaisedWhereItIsInManyBandsAndLoweredElsewhere)
{
    struct Row {
        float others, here, decided; // share in the other bands; in one band, before and after
    };
    for (const Row &row : {Row{0, 0, 0},
                           {1, 1, 1},
                           {1, 0, 0},
                           {1, 0.25f, 0.5f},
                           {0, 0.25f, 0.0625f},
                           {0.1f, 0.25f, 0.0625f},
                           {0.3f, 0.25f, (0.0625f + 0.5f) / 2}}) {
        float talker[MAX_BANDS];
        std::fill_n(talker, MAX_BANDS, row.others);
        talker[0] = row.here; // below the bands of speech
        decide(bands, talker);
        EXPECT_NEAR(talker[0], row.decided, 1e-6) << row.others << " " << row.here;
    }
}

TEST_P(PresenceOfATalker, IsFromZeroToOneAtEveryExtreme)
{
    std::unique_ptr<Presence> presence{new Presence()};
    std::fill_n(reference.activity, MAX_BANDS, 1.0f);
    for (const float power : {0.0f, 1e-38f, 1e-3f, 1e11f, 1e30f})
        for (const float other : {0.0f, 1e-30f, 1e11f}) {
            std::fill_n(comparison.cleaned, MAX_BANDS, power);
            std::fill_n(comparison.echo, MAX_BANDS, other);
            std::fill_n(reference.mean, MAX_BANDS, power);
            std::fill_n(cleaned.at, MAX_BINS, power);
            std::fill_n(echo.at, MAX_BINS, other);
            std::fill_n(reference.power, MAX_BINS, power);
            cleaned[20] = 0;
            for (int32_t t = 0; t < 5; t++) {
                presence_update(*presence, bands, evidence());
                for (int32_t b = 0; b < bands.count; b++)
                    ASSERT_TRUE(presence->talker[b] >= 0 && presence->talker[b] <= 1);
            }
        }
}

INSTANTIATE_TEST_SUITE_P(Frames, PresenceOfATalker, testing::ValuesIn(FRAME_SIZES));

// The outputs that PyTorch computes from the same weights for inputs that are drawn by a
// linear congruential generator. Its tanh differs by up to 1e-4.
TEST(Network, GivesWhatTheTrainingFrameworkDoes)
{
    uint32_t drawn = 1;
    float state[HIDDEN] = {}, outputs[OUTPUTS];
    int32_t frame = 0;
    for (const NetworkReference &expected : NETWORK_REFERENCES) {
        for (; frame < expected.frames; frame++) {
            int8_t inputs[PADDED_INPUTS] = {};
            for (int32_t i = 0; i < JUDGED_BANDS * FEATURES; i++) {
                drawn = 1664525 * drawn + 1013904223;
                inputs[i] = static_cast<int8_t>(static_cast<int32_t>(drawn >> 25) - 64);
            }
            run_network(inputs, state, outputs);
        }
        for (int32_t b = 0; b < JUDGED_BANDS; b++)
            EXPECT_NEAR(outputs[b], expected.outputs[b], 0.02) << frame << " " << b;
    }
}

} // namespace nax::res
