// Creation of a state (src/state): what is refused, what is allocated in which order,
// and what the engines are told.
#include "heap_wrap.h"
#include "scripted_engines.h"

#include "state/state.h"

#include <algorithm>
#include <cstdlib>

using Lines = std::vector<std::string>;

static const std::string BANNER =
    "LOG (nax_aec_state_init(): ,270), AEC-RELEASE-VERSION 2.0,RELEASE DATE 2022-02-28\n\n"
    "LOG (nax_aec_state_init(): ,275), This AEC version is used for no more than 2 "
    "microphones!\n\n";

// What a creation that must be refused writes to standard error.
static std::string refusal(int32_t rate, int32_t bits, int32_t mics, int32_t refs)
{
    const nax_aec_param param = Words{.model_aec_en = 1};
    nax_aec_state *state = nullptr;
    const std::string message =
        standard_error_of([&] { state = nax_aec_state_init(rate, bits, mics, refs, &param); });
    EXPECT_EQ(state, nullptr);
    return message;
}

// Heap calls and engine calls of one creation, in order.
static Lines creation_journal(int32_t rate, int32_t mics, int32_t refs, const Words &words,
                              State &state)
{
    scripted::reset();
    heap::live.clear();
    const nax_aec_param param = words;
    standard_error_of([&] {
        const heap::Noting noting;
        state.reset(nax_aec_state_init(rate, 16, mics, refs, &param));
    });
    return journal;
}

static std::string zeroed(size_t bytes) { return "calloc " + std::to_string(bytes); }

class Creation : public ScriptedTest {};

TEST_F(Creation, RejectsTwentyFourBitsWithTheFourFormatArguments)
{
    EXPECT_EQ(refusal(16000, 24, 2, 1),
              "LOG (nax_aec_state_init(): ,122), Error: 16000 SampleRate, 24 bits_persample, 2 "
              "num_src_channel and 1 num_ref_channel cann't be supported\n");
}

TEST_F(Creation, RejectsZeroOrNegativeChannelCounts)
{
    for (const auto &[mics, refs] : {std::pair{1, 0}, {1, -1}, {0, 1}, {-2, 1}}) {
        EXPECT_EQ(refusal(8000, 16, mics, refs),
                  "LOG (nax_aec_state_init(): ,122), Error: 8000 SampleRate, 16 bits_persample, " +
                      std::to_string(mics) + " num_src_channel and " + std::to_string(refs) +
                      " num_ref_channel cann't be supported\n");
    }
}

TEST_F(Creation, RejectsThreeMicrophonesWithTheLimitMessage)
{
    EXPECT_EQ(refusal(16000, 16, 3, 1),
              "LOG (nax_aec_state_init(): ,142), Error: The number of mic is 3, exceed the limited "
              "2 microphones! \n");
}

TEST_F(Creation, RejectionAllocatesNothingAndStartsNoEngineButTheLogTable)
{
    State state;
    EXPECT_EQ(creation_journal(16000, 3, 1, {.model_aec_en = 1}, state), Lines{"nax_logtab_init"});
    EXPECT_EQ(creation_journal(16000, 1, 0, {.model_aec_en = 1}, state), Lines{"nax_logtab_init"});
}

TEST_F(Creation, RejectsOtherRatesWithABareMessage)
{
    for (const int32_t rate : {44100, 0, -8000, 24000, 96000}) {
        heap::live.clear();
        const heap::Noting noting;
        EXPECT_EQ(refusal(rate, 16, 1, 1), "Not Support Sampling_rate\n") << rate;
        for (const auto &[block, name] : std::map(heap::live))
            free(block);
    }
}

TEST_F(Creation, LeavesTheRecordOfARejectedRateAllocated)
{
    State state;
    EXPECT_EQ(creation_journal(44100, 1, 1, {.model_aec_en = 1}, state),
              (Lines{"nax_logtab_init", zeroed(sizeof(nax_aec_state))}));
    EXPECT_EQ(state, nullptr);
    ASSERT_EQ(heap::live.size(), 1u);
    free(heap::live.begin()->first);
}

TEST_F(Creation, ReportsOnlyTheFirstOfSeveralFaults)
{
    EXPECT_EQ(refusal(44100, 8, 3, 1),
              "LOG (nax_aec_state_init(): ,122), Error: 44100 SampleRate, 8 bits_persample, 3 "
              "num_src_channel and 1 num_ref_channel cann't be supported\n");
    EXPECT_EQ(refusal(44100, 16, 3, 1),
              "LOG (nax_aec_state_init(): ,142), Error: The number of mic is 3, exceed the limited "
              "2 microphones! \n");
}

TEST_F(Creation, WritesExactlyTheTwoBannerLines)
{
    const nax_aec_param param = Words{};
    State state;
    EXPECT_EQ(standard_error_of([&] { state.reset(nax_aec_state_init(48000, 16, 2, 1, &param)); }),
              BANNER);
    EXPECT_NE(state, nullptr);
}

TEST_F(Creation, AllocatesTheFixedBuffersInOrderWithDelayEstimationOff)
{
    for (const int32_t rate : RATES) {
        const size_t frame = static_cast<size_t>(frame_size(rate));
        State state;
        EXPECT_EQ(creation_journal(rate, 2, 3, {.drop_channel = 1, .look_ahead = 9}, state),
                  (Lines{"nax_logtab_init", zeroed(sizeof(nax_aec_state)),
                         zeroed(frame * 5 * 2), // pcm_buf
                         zeroed(frame * 2 * 2), // mic_frame
                         zeroed(frame * 2 * 2), // aec_frame
                         zeroed(frame * 2 * 2), // echo_frame
                         zeroed(frame * 2 * 2), // ref_frame
                         zeroed(frame * 2),     // spare_a
                         zeroed(frame * 2 * 2), // spare_b
                         "speex_echo_state_init_mc"}));
    }
}

TEST_F(Creation, AllocatesTheDelayBuffersInOrderWithDelayEstimationOn)
{
    for (const int32_t rate : RATES) {
        const size_t frame = static_cast<size_t>(frame_size(rate));
        const size_t line = (12288 + frame) * 2;
        State state;
        EXPECT_EQ(creation_journal(
                      rate, 1, 3, {.drop_channel = 1, .model_aec_en = 1, .look_ahead = 100}, state),
                  (Lines{"nax_logtab_init",
                         zeroed(sizeof(nax_aec_state)),
                         zeroed(frame * 4 * 2), // pcm_buf
                         zeroed(frame * 2),     // mic_frame
                         zeroed(frame * 2),     // aec_frame
                         zeroed(frame * 2),     // echo_frame
                         zeroed(frame * 2 * 2), // ref_frame
                         zeroed(frame * 2),     // spare_a
                         zeroed(frame * 2),     // spare_b
                         zeroed(2 * sizeof(int16_t *)),
                         zeroed(line),
                         zeroed(line),
                         zeroed(sizeof(int16_t *)),
                         zeroed((100 + frame) * 2),
                         zeroed(frame * 2 * 2), // spare_d
                         zeroed(frame * 2),     // spare_e
                         zeroed(frame * 2 * 2), // spare_c
                         zeroed(frame * 3 * 2), // spare_f
                         "speex_echo_state_init_mc",
                         "AEC_DelayInit"}));
    }
}

TEST_F(Creation, SizesSpareFFromAllReferencesAndTheFramesFromTheKeptOnes)
{
    State state;
    const Lines calls =
        creation_journal(16000, 1, 2, {.drop_channel = 1, .model_aec_en = 1}, state);
    ASSERT_EQ(calls.size(), 19u);
    EXPECT_EQ(calls[6], zeroed(512));    // ref_frame
    EXPECT_EQ(calls[10], zeroed(25088)); // the one delay line
    EXPECT_EQ(calls[16], zeroed(1024));  // spare_f
}

TEST_F(Creation, AllocatesOneLookaheadBufferForOneMicrophone)
{
    State state;
    creation_journal(8000, 1, 1, {.model_aec_en = 1, .look_ahead = 872}, state);
    EXPECT_EQ(std::ranges::count(journal, zeroed((872 + 128) * 2)), 1);
    EXPECT_NE(state->mic_lookahead[0], nullptr);
}

TEST_F(Creation, AcceptsEveryReferenceDropped)
{
    State state;
    const Lines calls = creation_journal(8000, 1, 2, {.drop_channel = 2, .model_aec_en = 1}, state);
    EXPECT_EQ(scripted::record.canceller_inits.back().speakers, 0);
    EXPECT_EQ(scripted::record.delay_inits.back().refs, 0);
    EXPECT_EQ(calls[6], zeroed(0)); // ref_frame
    EXPECT_EQ(calls[9], zeroed(0)); // the array of delay lines is still asked for
    EXPECT_EQ(std::ranges::count(calls, zeroed((12288 + 128) * 2)), 0);
}

TEST_F(Creation, SurvivesMoreReferencesDroppedThanThereAre)
{
    const State state = make_state(8000, 1, 1, {.drop_channel = 3, .model_aec_en = 1});
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(scripted::record.canceller_inits.back().speakers, -2);
}

TEST_F(Creation, SurvivesExtremeParameterWords)
{
    for (const int32_t word : {INT32_MIN, -1, INT32_MAX}) {
        const State state = make_state(8000, 2, 1,
                                       {.pos = word,
                                        .drop_channel = INT32_MAX,
                                        .model_aec_en = 1,
                                        .delay_len = word,
                                        .look_ahead = INT32_MIN});
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(state->cur_delay, word);
    }
}

// Two thousand million kept references: no machine has the lines, and the engines are told
// what a word of theirs holds.
TEST_F(Creation, SurvivesMoreKeptReferencesThanAWordHolds)
{
    heap::limit = int64_t{64} << 20;
    const State state = make_state(8000, 1, 1, {.drop_channel = INT32_MIN, .model_aec_en = 1});
    heap::limit = INT64_MAX;
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(scripted::record.canceller_inits.back().speakers, INT32_MAX);
    EXPECT_EQ(scripted::record.delay_inits.back().refs, INT32_MAX);
    EXPECT_EQ(state->ref_frame, nullptr);
    EXPECT_EQ(state->ref_delay_lines, nullptr);
}

// Granted line by line they would fill the machine first.
TEST_F(Creation, AsksForTheLinesOfAnAbsurdCountOfReferencesInOnePieceFirst)
{
    State state;
    heap::limit = int64_t{64} << 20;
    const Lines calls =
        creation_journal(8000, 1, 1, {.drop_channel = 1 - 20000, .model_aec_en = 1}, state);
    heap::limit = INT64_MAX;
    const std::string all = "malloc " + std::to_string(int64_t{20000} * (12288 + 128) * 2);
    EXPECT_EQ(std::ranges::count(calls, all), 1);
    EXPECT_EQ(std::ranges::count(calls, zeroed((12288 + 128) * 2)), 0);
    ASSERT_NE(state->ref_delay_lines, nullptr);
    EXPECT_EQ(state->ref_delay_lines[0], nullptr);
}

TEST_F(Creation, AllocatesEveryLineOfMoreReferencesThanIsPlausibleWhereTheyFit)
{
    State state;
    const Lines calls =
        creation_journal(8000, 1, 1, {.drop_channel = 1 - 1100, .model_aec_en = 1}, state);
    EXPECT_EQ(std::ranges::count(calls, zeroed((12288 + 128) * 2)), 1100);
}

TEST_F(Creation, DoesNotNoticeThatMemoryRanOut)
{
    for (int granted = 1; granted < 20; granted++) {
        heap::live.clear();
        const heap::Noting noting;
        heap::refuse_after = granted;
        State state = make_state(8000, 2, 2, {.model_aec_en = 1});
        heap::refuse_after = -1;
        EXPECT_NE(state, nullptr);
        EXPECT_EQ(heap::live.size(), static_cast<size_t>(std::min(granted, 18))) << granted;
        state.reset();
        EXPECT_TRUE(heap::live.empty()) << granted;
    }
}

TEST_F(Creation, CreatesTheCancellerForTheKeptReferencesOnly)
{
    const State state = make_state(32000, 2, 3, {.drop_channel = 1});
    ASSERT_EQ(scripted::record.canceller_inits.size(), 1u);
    EXPECT_EQ(scripted::record.canceller_inits[0], (scripted::Instance{512, 1024, 2, 2, 32000}));
    EXPECT_NE(state->echo_state, nullptr);
}

TEST_F(Creation, InitialisesTheEstimatorInsideTheRecord)
{
    const State state =
        make_state(48000, 2, 3, {.drop_channel = 1, .model_aec_en = 3, .delay_len = 77});
    ASSERT_EQ(scripted::record.delay_inits.size(), 1u);
    EXPECT_EQ(scripted::record.delay_inits[0],
              (scripted::DelayInit{1, 48000, 384, 2, 77, 2, state->delay_est}));
}

TEST_F(Creation, LeavesTheEstimatorAloneWithDelayEstimationOff)
{
    make_state(48000, 2, 3, {.model_aec_en = 2, .delay_len = 77});
    EXPECT_TRUE(scripted::record.delay_inits.empty());
}

TEST_F(Creation, StoresANullCancellerUnchecked)
{
    scripted::script.null_instance = true;
    const State state = make_state(8000, 1, 1, {});
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->echo_state, nullptr);
}
