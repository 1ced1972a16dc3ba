// What the canceller's binding decides by levels (src/engines/canceller_policy): when to
// start anew, and by how many bits to attenuate.
#include "engines/canceller_policy.h"

#include "support.h"

#include <algorithm>

using nax::canceller::Decision;
using nax::canceller::Levels;
using nax::canceller::Policy;

namespace {

constexpr Levels SILENCE = {0, 0, 0};
constexpr Levels SPEECH = {1e6f, 1e6f, 1e5f};
constexpr Levels QUIET_REFERENCE = {1e6f, 5e3f, 1e5f}; // heard, but 23 dB below the microphone
constexpr Levels SILENT_REFERENCE = {1e6f, 500, 1e5f}; // not heard
constexpr Levels HOT = {1e6f, 1e6f, 1.1e9f};

Decision after(Policy &policy, int32_t frames, const Levels &levels)
{
    Decision decision = {};
    for (int32_t t = 0; t < frames; t++)
        decision = decide(policy, levels, false);
    return decision;
}

// Frames of levels, all the same, until a restart; 0 when there was none in a minute.
int32_t frames_to_restart(Policy &policy, const Levels &levels)
{
    for (int32_t t = 1; t <= 3750; t++)
        if (decide(policy, levels, false).restart) return t;
    return 0;
}

} // namespace

TEST(Policy, LeavesOrdinaryLevelsAlone)
{
    for (const Levels &levels : {SILENCE, SPEECH, SILENT_REFERENCE}) {
        Policy policy;
        EXPECT_EQ(frames_to_restart(policy, levels), 0);
        const Decision decision = decide(policy, levels, false);
        EXPECT_EQ(decision.mic_shift, 0);
        EXPECT_EQ(decision.ref_shift, 0);
    }
}

TEST(Policy, RestartsWithEveryMoveOfTheReferenceAndNoLonger)
{
    Policy policy;
    for (const bool moved : {true, true, false, true, false})
        EXPECT_EQ(decide(policy, SPEECH, moved).restart, moved);
}

TEST(Policy, RestartsOnceForAWeakReferenceAfterSixFramesOfIt)
{
    Policy policy;
    after(policy, 30, SILENCE);
    // The running mean of the reference is audible from the third frame on.
    EXPECT_EQ(frames_to_restart(policy, QUIET_REFERENCE), 8);
    EXPECT_EQ(frames_to_restart(policy, QUIET_REFERENCE), 0);
    EXPECT_EQ(after(policy, 1, QUIET_REFERENCE).mic_shift, 2);
}

TEST(Policy, DoesNotRestartForAWeakReferenceAfterAMoveChoseTheScale)
{
    Policy policy;
    after(policy, 3, QUIET_REFERENCE);
    decide(policy, QUIET_REFERENCE, true);
    EXPECT_EQ(frames_to_restart(policy, QUIET_REFERENCE), 0);
}

TEST(Policy, AttenuatesTheMicrophonesAloneByHowWeakTheReferenceIs)
{
    const struct {
        float ratio; // microphone's power over the reference's
        int32_t shift;
    } cases[] = {{0.01f, 0}, {1, 0},  {3.9f, 0}, {4, 0},  {4.1f, 1},
                 {15, 1},    {16, 1}, {17, 2},   {65, 2}, {1e4f, 2}};
    for (const auto &[ratio, shift] : cases) {
        Policy policy;
        after(policy, 100, {ratio * 1e4f, 1e4f, 0});
        const Decision decision = decide(policy, {ratio * 1e4f, 1e4f, 0}, true);
        EXPECT_EQ(decision.mic_shift, shift) << ratio;
        EXPECT_EQ(decision.ref_shift, 0) << ratio;
    }
}

TEST(Policy, KeepsTheScaleOfTheMicrophonesUntilTheNextRestart)
{
    Policy policy;
    after(policy, 100, QUIET_REFERENCE);
    EXPECT_EQ(after(policy, 100, SPEECH).mic_shift, 2);
    EXPECT_EQ(decide(policy, SPEECH, true).mic_shift, 0);
}

// Any one of the levels is enough.
TEST(Policy, AttenuatesEverythingForTenSecondsAfterTheLastHotFrame)
{
    const Levels hot[] = {HOT, {8.1e8f, 1e6f, 1e5f}, {1e6f, 8.1e8f, 1e5f}};
    for (const Levels &levels : hot) {
        Policy policy;
        after(policy, 30, SPEECH); // the scale was chosen
        after(policy, 40, levels);
        const Decision last_hot = decide(policy, levels, false);
        EXPECT_EQ(last_hot.mic_shift, 2);
        EXPECT_EQ(last_hot.ref_shift, 2);
        EXPECT_FALSE(last_hot.restart);
        const Decision in_time = after(policy, 624, SPEECH);
        EXPECT_EQ(in_time.mic_shift, 2);
        EXPECT_EQ(in_time.ref_shift, 2);
        const Decision too_late = after(policy, 1, SPEECH);
        EXPECT_EQ(too_late.mic_shift, 0);
        EXPECT_EQ(too_late.ref_shift, 0);
        EXPECT_EQ(after(policy, 1000, SPEECH).ref_shift, 0);
    }
}

TEST(Policy, TakesLoudSpeechForNothingHot)
{
    Policy policy;
    EXPECT_EQ(after(policy, 10, {7.9e8f, 7.9e8f, 9.9e8f}).ref_shift, 0);
}

TEST(Policy, AddsTheAttenuationForAWeakReferenceToThatOfHotSignals)
{
    Policy policy;
    after(policy, 100, QUIET_REFERENCE);
    const Decision decision = decide(policy, {1e6f, 1e4f, 1.1e9f}, false);
    EXPECT_EQ(decision.mic_shift, 4);
    EXPECT_EQ(decision.ref_shift, 2);
}

TEST(Policy, RestartsAfterFourFramesInARowThatCameOutLouder)
{
    Policy policy;
    for (int round = 0; round < 3; round++)
        for (int frame = 1; frame <= 4; frame++)
            EXPECT_EQ(restart_if_louder(policy, 1e6f, 1e6f + 11000), frame == 4);
}

TEST(Policy, CountsLouderFramesFromTheStartAfterOneThatIsNot)
{
    Policy policy;
    for (int round = 0; round < 3; round++) {
        for (int frame = 0; frame < 3; frame++)
            EXPECT_FALSE(restart_if_louder(policy, 1e6f, 2e6f));
        EXPECT_FALSE(restart_if_louder(policy, 1e6f, 1e6f));
    }
}

TEST(Policy, CountsLouderFramesFromTheStartAfterAMove)
{
    Policy policy;
    for (int frame = 0; frame < 3; frame++)
        EXPECT_FALSE(restart_if_louder(policy, 1e6f, 2e6f));
    decide(policy, SPEECH, true);
    EXPECT_FALSE(restart_if_louder(policy, 1e6f, 2e6f));
}

TEST(Policy, TakesNoNoticeOfWhatIsLouderByLessThanItsMargin)
{
    Policy policy;
    for (int frame = 0; frame < 100; frame++)
        EXPECT_FALSE(restart_if_louder(policy, 1e6f, 1e6f + 9000));
}

TEST(Policy, ChoosesTheScaleOfTheMicrophonesAnewWhenItRestartsForALouderOutput)
{
    Policy policy;
    decide(policy, SPEECH, true);
    EXPECT_EQ(after(policy, 100, QUIET_REFERENCE).mic_shift, 0);
    for (int frame = 0; frame < 4; frame++)
        restart_if_louder(policy, 1e6f, 2e6f);
    EXPECT_EQ(after(policy, 1, QUIET_REFERENCE).mic_shift, 2);
}

// Levels of samples.

namespace {

constexpr int32_t FRAME = 256, BLOCK = 64;

// A planar frame of channels, silent but for what is put into it.
Samples silent(int32_t channels) { return Samples(static_cast<size_t>(FRAME * channels)); }

// Behind each frame lies a sample that must not count.
Levels levels_of(Samples mic, Samples ref)
{
    const int32_t mics = static_cast<int32_t>(mic.size()) / FRAME;
    const int32_t refs = static_cast<int32_t>(ref.size()) / FRAME;
    mic.push_back(INT16_MIN);
    ref.push_back(INT16_MIN);
    return nax::canceller::measure_levels(mic.data(), mics, ref.data(), refs, FRAME, BLOCK);
}

} // namespace

TEST(Levels, AverageThePowerOverAllChannelsOfAFrame)
{
    Samples mic = silent(2), ref = silent(3);
    std::fill(mic.begin() + FRAME, mic.end(), int16_t{-32768});
    std::fill(ref.begin() + 2 * FRAME, ref.end(), int16_t{300});
    const Levels levels = levels_of(mic, ref);
    EXPECT_EQ(levels.mic_power, 32768.0f * 32768.0f / 2);
    EXPECT_EQ(levels.ref_power, 300.0f * 300.0f / 3);
}

// An edge in any block of any channel, of the microphones or the references, counts as
// much as in another.
TEST(Levels, FindTheEdgesOfEveryBlockAndChannel)
{
    for (int32_t block = 0; block < FRAME / BLOCK; block++)
        for (int32_t channel = 0; channel < 2; channel++)
            for (const bool in_reference : {false, true}) {
                Samples mic = silent(2), ref = silent(2);
                (in_reference ? ref
                              : mic)[static_cast<size_t>(channel * FRAME + block * BLOCK + 10)] =
                    3200;
                EXPECT_EQ(levels_of(mic, ref).edge_power, 2 * 3200.0f * 3200.0f / BLOCK)
                    << block << " " << channel << " " << in_reference;
            }
}

TEST(Levels, AddTheEdgesOfChannelsButNeitherOfBlocksNorOfMicrophonesToReferences)
{
    Samples mic = silent(2), ref = silent(1);
    for (const int32_t at : {10, 100, FRAME + 10})
        mic[static_cast<size_t>(at)] = 3200;
    ref[10] = 3200;
    EXPECT_EQ(levels_of(mic, ref).edge_power, 4 * 3200.0f * 3200.0f / BLOCK);
}

TEST(Levels, DifferenceIsTakenBetweenSamplesOfOneChannel)
{
    Samples interleaved(2 * BLOCK);
    for (size_t i = 0; i < interleaved.size(); i++)
        interleaved[i] = static_cast<int16_t>(i % 2 ? -20000 : 20000); // two constant channels
    EXPECT_EQ(nax::canceller::difference_power(interleaved.data(), 2, 2 * BLOCK), 0);
    Samples step(BLOCK, 1000);
    step[0] = 0;
    EXPECT_EQ(nax::canceller::difference_power(step.data(), 1, BLOCK), 1000.0f * 1000.0f / BLOCK);
    // Alternating, every difference counts but the last of those that make no four.
    EXPECT_EQ(nax::canceller::difference_power(interleaved.data(), 1, BLOCK),
              60 * 40000.0f * 40000.0f / BLOCK);
}
