// One frame of 16-bit samples through nax_aec_short (src/process/frame): layouts,
// call order, lengths and failures. Alignment has its own file.
#include "heap_wrap.h"
#include "scripted_engines.h"

#include "state/state.h"

#include <algorithm>

using scripted::cleaned_sample;
using scripted::echo_sample;
using scripted::record;
using scripted::script;

static constexpr int32_t F = 128; // frame at 8000 Hz
static constexpr int16_t UNTOUCHED = 0x5a5a;

class Frame : public ScriptedTest {};

static Samples untouched(int32_t count) { return Samples(static_cast<size_t>(count), UNTOUCHED); }

TEST_F(Frame, RefusesANullStateWithItsOwnMessage)
{
    int16_t in[1] = {};
    int32_t result = 0;
    EXPECT_EQ(standard_error_of([&] { result = nax_aec_short(nullptr, in, in, in, 1); }),
              "You didn't initlize the nax_aec!");
    EXPECT_EQ(result, -1);
}

TEST_F(Frame, RefusesANullInputAndANegativeLengthWithOneMessage)
{
    const State state = make_state(8000, 1, 1, {.model_aec_en = 1, .delay_len = 9});
    const Samples in(2 * F);
    Samples out = untouched(2 * F);
    int32_t results[2] = {};
    EXPECT_EQ(standard_error_of([&] {
                  results[0] = nax_aec_short(state.get(), nullptr, out.data(), nullptr, 2 * F);
              }),
              "Error: input audio data is null!");
    EXPECT_EQ(standard_error_of([&] {
                  results[1] = nax_aec_short(state.get(), in.data(), out.data(), nullptr, -1);
              }),
              "Error: input audio data is null!");
    EXPECT_EQ(results[0], -1);
    EXPECT_EQ(results[1], -1);
    EXPECT_EQ(state->frame_count, 0);
    EXPECT_EQ(state->ring_pos, 0);
    EXPECT_EQ(out, untouched(2 * F));
    EXPECT_TRUE(record.delay_calls.empty());
}

TEST_F(Frame, SplitsTheInputIntoPlanarFramesAtEveryLayout)
{
    for (int32_t mics = 1; mics <= 2; mics++)
        for (int32_t refs = 1; refs <= 4; refs++)
            for (int32_t drop = 0; drop <= refs; drop++) {
                scripted::reset();
                const State state = make_state(8000, mics, refs, {.drop_channel = drop});
                const int32_t kept = refs - drop;
                const Samples in = counting(static_cast<size_t>(F * (mics + kept)), 11);
                nax_aec_short(state.get(), in.data(), nullptr, nullptr, F * (mics + refs));

                Samples mic, ref;
                for (int32_t c = 0; c < mics + kept; c++)
                    for (int32_t i = 0; i < F; i++)
                        (c < mics ? mic : ref)
                            .push_back(in[static_cast<size_t>(i * (mics + kept) + c)]);
                ASSERT_EQ(record.cancels.size(), 1u);
                EXPECT_EQ(record.cancels[0].mic, mic) << mics << refs << drop;
                EXPECT_EQ(record.cancels[0].ref, ref) << mics << refs << drop;
            }
}

TEST_F(Frame, JoinsCleanedMicrophonesReferencesAndSilenceAtEveryLayout)
{
    for (int32_t mics = 1; mics <= 2; mics++)
        for (int32_t refs = 1; refs <= 4; refs++)
            for (int32_t drop = 0; drop <= refs; drop++) {
                scripted::reset();
                const State state = make_state(8000, mics, refs, {.drop_channel = drop});
                const int32_t kept = refs - drop;
                const Samples in = counting(static_cast<size_t>(F * (mics + kept)), 11);
                Samples out = untouched(F * (mics + refs) + 1);
                Samples echo = untouched(F * mics + 1);
                nax_aec_short(state.get(), in.data(), out.data(), echo.data(), F * (mics + refs));

                Samples expected_out, expected_echo;
                for (int32_t i = 0; i < F; i++) {
                    for (int32_t m = 0; m < mics; m++) {
                        const size_t at = static_cast<size_t>(i * mics + m);
                        expected_out.push_back(cleaned_sample(0, at));
                        expected_echo.push_back(echo_sample(0, at));
                    }
                    for (int32_t k = 0; k < kept; k++)
                        expected_out.push_back(
                            in[static_cast<size_t>(i * (mics + kept) + mics + k)]);
                    expected_out.insert(expected_out.end(), static_cast<size_t>(drop), 0);
                }
                expected_out.push_back(UNTOUCHED);
                expected_echo.push_back(UNTOUCHED);
                EXPECT_EQ(out, expected_out) << mics << refs << drop;
                EXPECT_EQ(echo, expected_echo) << mics << refs << drop;
            }
}

TEST_F(Frame, ReadsThreeChannelsAndWritesFourWhenOneOfTwoReferencesIsDropped)
{
    const State state = make_state(8000, 2, 2, {.drop_channel = 1});
    const Samples in = counting(3 * F);
    Samples out = untouched(4 * F);
    nax_aec_short(state.get(), in.data(), out.data(), nullptr, 4 * F);
    EXPECT_EQ(Samples(out.begin() + 4, out.begin() + 8),
              (Samples{cleaned_sample(0, 2), cleaned_sample(0, 3), in[5], 0}));
}

TEST_F(Frame, WorksInPlaceWhenOutIsTheInput)
{
    const State state = make_state(8000, 1, 1, {});
    const Samples in = counting(2 * F, 70);
    Samples buffer = in;
    nax_aec_short(state.get(), buffer.data(), buffer.data(), nullptr, 2 * F);
    for (size_t i = 0; i < F; i++) {
        EXPECT_EQ(buffer[2 * i], cleaned_sample(0, i));
        EXPECT_EQ(buffer[2 * i + 1], in[2 * i + 1]);
    }
}

TEST_F(Frame, WorksInPlaceWhenEchoIsTheInput)
{
    const State state = make_state(8000, 2, 2, {});
    const Samples in = counting(4 * F, 70);
    Samples buffer = in, out = untouched(4 * F);
    nax_aec_short(state.get(), buffer.data(), out.data(), buffer.data(), 4 * F);
    for (size_t i = 0; i < F; i++)
        EXPECT_EQ(Samples(&out[4 * i], &out[4 * i] + 4),
                  (Samples{cleaned_sample(0, 2 * i), cleaned_sample(0, 2 * i + 1), in[4 * i + 2],
                           in[4 * i + 3]}));
    for (size_t i = 0; i < 4 * F; i++)
        EXPECT_EQ(buffer[i], i < 2 * F ? echo_sample(0, i) : in[i]);
}

TEST_F(Frame, HandsTheCancellerTheStatesOwnBuffers)
{
    const State state = make_state(8000, 2, 2, {});
    const Samples in(4 * F);
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 4 * F);
    ASSERT_EQ(record.cancels.size(), 1u);
    EXPECT_EQ(record.cancels[0].instance, state->echo_state);
    EXPECT_EQ(record.cancels[0].mic_frame, state->mic_frame);
    EXPECT_EQ(record.cancels[0].ref_frame, state->ref_frame);
    EXPECT_EQ(record.cancels[0].aec_frame, state->aec_frame);
    EXPECT_EQ(record.cancels[0].echo_frame, state->echo_frame);
}

TEST_F(Frame, HandsANullCancellerToEveryCall)
{
    script.null_instance = true;
    const State state = make_state(8000, 1, 1, {});
    const Samples in(2 * F);
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 2 * F);
    ASSERT_EQ(record.cancels.size(), 1u);
    EXPECT_EQ(record.cancels[0].instance, nullptr);
}

TEST_F(Frame, LengthZeroTakesAFrameInButWritesNothing)
{
    for (const int32_t delay_on : {0, 1}) {
        scripted::reset();
        script.estimates = {1000};
        const State state = make_state(8000, 1, 1, {.model_aec_en = delay_on, .delay_len = 5});
        const Samples in = counting(2 * F, 40);
        Samples out = untouched(2 * F), echo = untouched(F);
        EXPECT_EQ(nax_aec_short(state.get(), in.data(), out.data(), echo.data(), 0),
                  delay_on ? 1005 : 5);
        EXPECT_EQ(state->frame_count, 1);
        EXPECT_EQ(state->ring_pos, delay_on ? F : 0);
        EXPECT_EQ(state->mic_frame[1], in[2]);
        EXPECT_EQ(out, untouched(2 * F));
        EXPECT_EQ(echo, untouched(F));
        EXPECT_TRUE(record.cancels.empty());
    }
}

TEST_F(Frame, AsksTheEstimatorOnceForLessThanAFrameAndNotTheCanceller)
{
    const State state = make_state(8000, 1, 1, {.model_aec_en = 1});
    const Samples in(2 * F);
    journal.clear();
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 2 * F - 1);
    EXPECT_EQ(journal, std::vector<std::string>{"AEC_DelayProcess"});
}

TEST_F(Frame, RepeatsTheFirstFrameForTwoWholeFrames)
{
    const State state = make_state(8000, 1, 1, {});
    Samples in = counting(4 * F, 3);
    Samples out = untouched(4 * F), echo = untouched(2 * F);
    nax_aec_short(state.get(), in.data(), out.data(), echo.data(), 2 * F * 2);
    ASSERT_EQ(record.cancels.size(), 2u);
    EXPECT_EQ(record.cancels[1].mic, record.cancels[0].mic);
    EXPECT_EQ(record.cancels[1].ref, record.cancels[0].ref);
    for (size_t frame = 0; frame < 2; frame++)
        for (size_t i = 0; i < F; i++) {
            EXPECT_EQ(out[2 * (frame * F + i)], cleaned_sample(frame, i));
            EXPECT_EQ(out[2 * (frame * F + i) + 1], in[2 * i + 1]);
            EXPECT_EQ(echo[frame * F + i], echo_sample(frame, i));
        }
}

TEST_F(Frame, AlignsOnceAndCancelsThriceForThreeWholeFrames)
{
    script.estimates = {1000};
    const State state = make_state(8000, 2, 1, {.model_aec_en = 1});
    const Samples in(3 * F);
    journal.clear();
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 3 * F * 3);
    const std::string cancel = "speex_fast_echo_cancellation";
    EXPECT_EQ(journal, (std::vector<std::string>{"AEC_DelayProcess", cancel, cancel, cancel}));
    for (const scripted::CancelCall &call : record.cancels) {
        EXPECT_EQ(call.delay_changed, 1);
        EXPECT_EQ(call.mic_frame, state->mic_frame);
        EXPECT_EQ(call.ref_frame, state->ref_frame);
    }
    EXPECT_EQ(state->ring_pos, F);
    EXPECT_EQ(state->frame_count, 1);
}

TEST_F(Frame, LeavesAPartialSecondFrameAlone)
{
    const State state = make_state(8000, 1, 1, {});
    const Samples in(2 * F);
    Samples out = untouched(4 * F);
    nax_aec_short(state.get(), in.data(), out.data(), nullptr, (2 * F - 1) * 2);
    EXPECT_EQ(record.cancels.size(), 1u);
    EXPECT_EQ(Samples(out.begin() + 2 * F, out.end()), untouched(2 * F));
}

TEST_F(Frame, WritesOnlyEchoWhenOutIsNull)
{
    const State state = make_state(8000, 1, 1, {});
    const Samples in(2 * F);
    Samples echo = untouched(F);
    nax_aec_short(state.get(), in.data(), nullptr, echo.data(), 2 * F);
    EXPECT_EQ(echo[F - 1], echo_sample(0, F - 1));
}

TEST_F(Frame, CancelsEveryFrameWhenBothOutputsAreNull)
{
    const State state = make_state(8000, 1, 1, {});
    const Samples in(2 * F);
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 2 * 2 * F);
    EXPECT_EQ(record.cancels.size(), 2u);
}

TEST_F(Frame, ReturnsTheBaseDelayWhileDelayEstimationIsOff)
{
    const State state = make_state(8000, 1, 1, {.delay_len = -321});
    const Samples in(2 * F);
    for (int32_t call = 0; call < 5; call++)
        EXPECT_EQ(nax_aec_short(state.get(), in.data(), nullptr, nullptr, 2 * F * (call % 3)),
                  -321);
    for (const scripted::CancelCall &call : record.cancels)
        EXPECT_EQ(call.delay_changed, 0);
    EXPECT_TRUE(record.delay_calls.empty());
    EXPECT_EQ(state->delay_est[0], 0);
}

TEST_F(Frame, CountsCallsForTheEstimatorUpTo16384)
{
    const State state = make_state(8000, 1, 1, {.model_aec_en = 1});
    const Samples in(2 * F);
    for (int32_t call = 1; call <= 16387; call++) {
        nax_aec_short(state.get(), in.data(), nullptr, nullptr, call % 2 * 2 * F);
        ASSERT_EQ(record.delay_calls.back().frame_count, std::min(call, 16384));
        record.delay_calls.clear();
        record.cancels.clear();
    }
    EXPECT_EQ(state->frame_count, 16384);
}

TEST_F(Frame, AllocatesNothing)
{
    const State state = make_state(8000, 2, 2, {.model_aec_en = 1});
    const Samples in(4 * F);
    Samples out(4 * F), echo(2 * F);
    const heap::Noting noting;
    for (int32_t call = 0; call < 200; call++)
        nax_aec_short(state.get(), in.data(), out.data(), echo.data(), 4 * F);
    for (const char *call : {"malloc", "calloc", "realloc", "free"})
        EXPECT_TRUE(journal_of(call).empty()) << call;
}

static bool flushes_denormals()
{
    volatile float small = 1e-38f;
    return small * 0.01f == 0.0f;
}

TEST_F(Frame, FlushesDenormalNumbersForTheEnginesAndNotForTheCaller)
{
#if !defined(__SSE2__) && !defined(__arm__) && !defined(__aarch64__)
    GTEST_SKIP() << "no way to flush denormals on this processor";
#endif
    static int flushing, calls;
    flushing = calls = 0;
    script.during = [] {
        flushing += flushes_denormals();
        calls++;
    };
    const State state = make_state(8000, 1, 1, {.model_aec_en = 1});
    const Samples in(2 * F);
    nax_aec_short(state.get(), in.data(), nullptr, nullptr, 2 * F);
    EXPECT_EQ(calls, 4); // both engines, at creation and in the frame
    EXPECT_EQ(flushing, calls);
    EXPECT_FALSE(flushes_denormals());
}
