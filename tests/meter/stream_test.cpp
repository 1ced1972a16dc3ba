// What is kept of a stream's frames.
#include "meter/stream.h"

#include <gtest/gtest.h>

namespace nax::meter {

static Stream new_stream()
{
    Stream stream = {};
    stream_init(stream, 256);
    return stream;
}

static void run(Stream &stream, float span_s, const Frame &frame)
{
    for (int32_t t = 0; seconds(t) < span_s; t++)
        take_in(stream, frame);
}

static constexpr float LOUD = 1e-3f, FAINT = 1e-7f; // -30 and -70 dBFS

TEST(Stream, RemovedIsOfTheLastTwoSecondsOfFarEndAlone)
{
    Stream stream = new_stream();
    EXPECT_EQ(removed_db(stream), 0.0f);
    run(stream, 5, {LOUD, LOUD, LOUD, 0});
    run(stream, 2.1f, {LOUD, LOUD / 100, LOUD, 0});
    EXPECT_NEAR(removed_db(stream), 20, 0.1);
    run(stream, 5, {LOUD, LOUD, FAINT, 0}); // the near end
    EXPECT_NEAR(removed_db(stream), 20, 0.1);
}

// Counts in frames: 128 of them are the two seconds, in pieces of 16.
TEST(Stream, RemovedIsOfAllFramesOfTheTwoSeconds)
{
    Stream stream = new_stream();
    for (int32_t t = 0; t < 320; t++)
        take_in(stream, {LOUD, LOUD, LOUD, 0});
    for (int32_t t = 0; t < 128; t++)
        take_in(stream, {LOUD, t % 16 < 8 ? LOUD / 100 : LOUD, LOUD, 0});
    EXPECT_NEAR(removed_db(stream), 2.97, 0.05); // 1 / 0.505
    for (int32_t t = 0; t < 64; t++)
        take_in(stream, {LOUD, LOUD / 100, LOUD, 0});
    EXPECT_NEAR(removed_db(stream), 5.89, 0.05); // 2 / (0.505 + 0.01)
}

// The share of the far end in which a frame like this one counts as removed.
static float removing(const Frame &frame)
{
    Stream stream = new_stream();
    run(stream, 1, frame);
    return evidence_of(stream).removing;
}

TEST(Stream, RemovingCountsFramesThatLostAThirdOfWhatCanBeHeard)
{
    EXPECT_EQ(removing({LOUD, LOUD / 1.5f, LOUD, 0}), 1.0f);
    EXPECT_EQ(removing({LOUD, LOUD / 1.3f, LOUD, 0}), 0.0f);
    EXPECT_EQ(removing({2e-7f, 0, LOUD, 0}), 1.0f);
    EXPECT_EQ(removing({3e-8f, 0, LOUD, 0}), 0.0f); // -75 dBFS
}

TEST(Stream, RemovingAndSoundingAreSharesOfTheLastSecondsOfFarEnd)
{
    Stream stream = new_stream();
    for (int32_t t = 0; t < 2000; t++) {
        const float mic = t % 2 ? LOUD : FAINT;
        take_in(stream, {mic, t % 4 == 1 ? LOUD / 10 : mic, LOUD, 0});
    }
    EXPECT_NEAR(evidence_of(stream).removing, 0.25, 0.01);
    EXPECT_NEAR(evidence_of(stream).sounding, 0.5, 0.01);
    run(stream, 30, {FAINT, FAINT, FAINT, 0}); // no far end
    EXPECT_NEAR(evidence_of(stream).removing, 0.25, 0.01);
    run(stream, 30, {FAINT, FAINT, LOUD, 0});
    EXPECT_LT(evidence_of(stream).removing, 0.001f);
    EXPECT_LT(evidence_of(stream).sounding, 0.001f);
}

TEST(Stream, BeforeTheFirstFrameNothingWasHeardForEver)
{
    EXPECT_GT(evidence_of(new_stream()).unheard_s, 1e7f);
    EXPECT_EQ(evidence_of(new_stream()).heard_s, 0.0f);
}

TEST(Stream, TheAppliedDelayIsEvidenceInFrames)
{
    Stream stream = new_stream();
    take_in(stream, {LOUD, LOUD, LOUD, 640});
    EXPECT_EQ(evidence_of(stream).applied, 2.5f);
}

TEST(Stream, EightMovesAreRememberedTheLatestOnes)
{
    Stream stream = new_stream();
    const auto moves = [&](int32_t count) {
        for (int32_t i = 0; i < count; i++)
            run(stream, 1, {LOUD, LOUD, LOUD, stream.delay.now + 100});
    };
    run(stream, 100, {LOUD, LOUD, LOUD, 0});
    moves(1); // found
    run(stream, 100, {LOUD, LOUD, LOUD, stream.delay.now});
    moves(3);
    EXPECT_EQ(delay_moves(stream), 3);
    moves(9);
    EXPECT_EQ(delay_moves(stream), 8);
    run(stream, 54.5f, {LOUD, LOUD, LOUD, stream.delay.now}); // 54.5 to 63.5 s ago
    EXPECT_EQ(delay_moves(stream), 5);
    EXPECT_EQ(evidence_of(stream).delay_moves_long, 8);
}

TEST(Stream, MovesOfTheDelayAreCountedForAMinuteTheFirstAndItsCorrectionsNot)
{
    Stream stream = new_stream();
    const auto at = [](int32_t delay) { return Frame{LOUD, LOUD, LOUD, delay}; };
    run(stream, 5, at(100));
    EXPECT_FALSE(evidence_of(stream).found);
    take_in(stream, at(513)); // out
    run(stream, 5, at(256));  // and back
    EXPECT_TRUE(evidence_of(stream).found);
    EXPECT_EQ(delay_moves(stream), 0);
    run(stream, 10, at(700));
    EXPECT_EQ(delay_moves(stream), 1);
    EXPECT_NEAR(seconds(stream.frames - stream.delay.since), 10, 0.05);
    run(stream, 20, at(300));
    EXPECT_EQ(delay_moves(stream), 2);
    run(stream, 35, at(300));
    EXPECT_EQ(delay_moves(stream), 1);
    run(stream, 30, at(300));
    EXPECT_EQ(delay_moves(stream), 0);
    EXPECT_EQ(evidence_of(stream).delay_moves_long, 2);
}

TEST(Stream, AMoveForgetsWhereTheEchoWas)
{
    Stream stream = new_stream();
    for (int32_t t = 0; t < 1000; t++)
        take_in(stream, {t % 20 < 10 ? LOUD : FAINT, FAINT, t % 20 < 10 ? LOUD : 2e-6f, 0});
    EXPECT_GT(evidence_of(stream).likeness, 0.9f);
    EXPECT_GT(evidence_of(stream).far_since_s, 9.0f);
    take_in(stream, {LOUD, LOUD, LOUD, 512});
    EXPECT_EQ(evidence_of(stream).likeness, 0.0f);
    EXPECT_EQ(evidence_of(stream).far_since_s, 0.0f);
    EXPECT_GT(evidence_of(stream).far_end_s, 9.0f);
    run(stream, 0.1f, {LOUD, LOUD, LOUD, 512});
    EXPECT_GT(evidence_of(stream).far_since_s, 0.0f);
    take_in(stream, {LOUD, LOUD, LOUD, 1100}); // corrected
    EXPECT_EQ(evidence_of(stream).far_since_s, 0.0f);
}

TEST(Stream, OnlyWhereAReferenceWasHeardOfLateIsTheMicrophoneCompared)
{
    Stream stream = new_stream();
    run(stream, 2, {LOUD, LOUD, 0, 0});
    EXPECT_EQ(evidence_of(stream).chance, 1.0f);
    run(stream, 10, {LOUD, LOUD, LOUD, 0});
    run(stream, 3, {LOUD, LOUD, 0, 0});
    const float chance = evidence_of(stream).chance;
    EXPECT_LT(chance, 1.0f);
    run(stream, 30, {LOUD, LOUD, 0, 0});
    EXPECT_EQ(evidence_of(stream).chance, chance);
}

TEST(Stream, AMicrophoneThatGivesNothingIsLikeNoReference)
{
    Stream stream = new_stream();
    run(stream, 2, {0, 0, LOUD, 0});
    EXPECT_EQ(evidence_of(stream).likeness, 0.0f);
}

TEST(Stream, SteadyNoiseIsNotHeardAndWordsAre)
{
    Stream stream = new_stream();
    run(stream, 10, {1e-5f, 1e-5f, 0, 0});
    EXPECT_EQ(evidence_of(stream).heard_s, 0.0f);
    run(stream, 1, {LOUD, LOUD, 0, 0});
    EXPECT_NEAR(evidence_of(stream).heard_s, 1, 0.05);
    EXPECT_EQ(evidence_of(stream).unheard_s, 0.0f);
    run(stream, 5, {1e-5f, 1e-5f, 0, 0});
    EXPECT_NEAR(evidence_of(stream).unheard_s, 5, 0.05);
}

TEST(Stream, NoiseThatBecomesLouderIsSoonTheMicrophonesOwn)
{
    Stream stream = new_stream();
    run(stream, 10, {1e-6f, 1e-6f, 0, 0});
    run(stream, 40, {3e-5f, 3e-5f, 0, 0}); // 15 dB louder
    EXPECT_NEAR(evidence_of(stream).heard_s, 16, 2);
    EXPECT_NEAR(evidence_of(stream).unheard_s, 24, 2);
}

TEST(Stream, AMicrophoneThatGivesNothingIsDead)
{
    Stream stream = new_stream();
    run(stream, 3, {1e-9f, 0, LOUD, 0});
    EXPECT_NEAR(evidence_of(stream).mic_dead_s, 3, 0.05);
    run(stream, 0.1f, {FAINT, 0, LOUD, 0});
    EXPECT_EQ(evidence_of(stream).mic_dead_s, 0.0f);
}

TEST(Stream, TimesStayWhereTheirCountsEnd)
{
    int32_t frames = INT32_MAX - 1;
    count_frame(frames);
    count_frame(frames);
    EXPECT_EQ(frames, INT32_MAX);
}

} // namespace nax::meter
