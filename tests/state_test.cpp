// The record, the parameter block and its report (src/state). Creation and teardown
// have files of their own.
#include "scripted_engines.h"

#include "state/state.h"

#include <algorithm>

class Record : public ScriptedTest {};
class Report : public ScriptedTest {};

TEST_F(Record, HoldsTheFormatAndTheWordsOfTheParameterBlock)
{
    const int16_t table[] = {1, 0};
    const State state = make_state(16000, 2, 3,
                                   {.pos = 7,
                                    .drop_channel = 1,
                                    .model_aec_en = 3,
                                    .delay_len = 900,
                                    .look_ahead = 40,
                                    .array_list = table});
    EXPECT_EQ(state->sample_rate, 16000);
    EXPECT_EQ(state->bits_per_sample, 16);
    EXPECT_EQ(state->num_src_channel, 2);
    EXPECT_EQ(state->num_ref_channel, 3);
    EXPECT_EQ(state->num_channel, 5);
    EXPECT_EQ(state->pos, 7);
    EXPECT_EQ(state->drop_channel, 1);
    EXPECT_EQ(state->look_ahead, 40);
    EXPECT_EQ(state->delay_len, 900);
    EXPECT_EQ(state->cur_delay, 900);
    EXPECT_EQ(state->array_list, table);
    EXPECT_EQ(state->init_flag, 1);
    EXPECT_EQ(state->frame_count, 0);
    EXPECT_EQ(state->ring_pos, 0);
    EXPECT_EQ(state->reserved_a, 0);
    EXPECT_EQ(state->reserved_b, 0);
    EXPECT_EQ(state->sel_buf, nullptr);
}

TEST_F(Record, DerivesEverySizeFromTheRate)
{
    for (const int32_t rate : RATES) {
        const int32_t frame = frame_size(rate);
        const State state = make_state(rate, 1, 1, {.model_aec_en = 1});
        for (const int32_t copy : {state->frame_size, state->frame_size_1, state->frame_size_2,
                                   state->frame_size_3, state->block_size})
            EXPECT_EQ(copy, frame) << rate;
        EXPECT_EQ(state->filter_length, 2 * frame) << rate;
        EXPECT_EQ(scripted::record.delay_inits.back().half_frame, frame / 2) << rate;
    }
}

TEST_F(Record, CountsThePcmLengthInSamplesNotBytes)
{
    EXPECT_EQ(make_state(16000, 2, 2, {})->pcm_len, 1024);
}

TEST_F(Record, KeepsTheDelayBuffersNullWithDelayEstimationOff)
{
    const State state = make_state(16000, 2, 2, {.look_ahead = 10});
    for (const int16_t *buffer : {state->spare_c, state->spare_d, state->spare_e, state->spare_f})
        EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(state->ref_delay_lines, nullptr);
    EXPECT_EQ(state->mic_lookahead, nullptr);
    EXPECT_EQ(state->delay_est_en, 0);
    EXPECT_TRUE(std::ranges::all_of(state->delay_est, [](int32_t word) { return word == 0; }));
}

TEST_F(Record, HoldsTwoInRemapEnWhenATableIsGiven)
{
    const int16_t table[] = {0};
    EXPECT_EQ(make_state(8000, 1, 1, {.model_aec_en = 2, .array_list = table})->remap_en, 2);
}

TEST_F(Record, IgnoresATableWhoseBitIsClear)
{
    const int16_t table[] = {0};
    const State state = make_state(8000, 1, 1, {.model_aec_en = 1, .array_list = table});
    EXPECT_EQ(state->remap_en, 0);
    EXPECT_EQ(state->array_list, nullptr);
}

TEST_F(Record, TakesBothSwitchesFromThreeAndNeitherFromFour)
{
    const int16_t table[] = {0};
    const State both = make_state(8000, 1, 1, {.model_aec_en = 3, .array_list = table});
    EXPECT_EQ(both->delay_est_en, 1);
    EXPECT_EQ(both->remap_en, 2);
    const State neither = make_state(8000, 1, 1, {.model_aec_en = 4, .array_list = table});
    EXPECT_EQ(neither->delay_est_en, 0);
    EXPECT_EQ(neither->remap_en, 0);
    EXPECT_EQ(neither->array_list, nullptr);
}

static std::string report(int32_t unused_1, int32_t unused_2, int32_t model_aec_en)
{
    const nax_aec_param param = Words{.pos = -1,
                                      .drop_channel = 2,
                                      .model_aec_en = model_aec_en,
                                      .delay_len = 300,
                                      .look_ahead = 40};
    return standard_error_of([&] { nax_aec_param_printf(unused_1, unused_2, &param); });
}

static std::string report_line(int32_t model_aec_en)
{
    std::string line = "LOG (nax_aec_param_printf(): ,293), In AEC INIT pos is -1, drop channel "
                       "is 2, model_aec_en is ";
    line += std::to_string(model_aec_en);
    return line += ",delay len is 300,look_ahead is 40\n\n";
}

TEST_F(Report, PrintsOneLineWithoutATableWhateverItsFirstTwoArguments)
{
    EXPECT_EQ(report(0, 0, 1), report_line(1));
    EXPECT_EQ(report(-5, INT32_MAX, 5), report_line(5));
}

TEST_F(Report, PrintsASecondLineWithATable)
{
    const std::string second = "LOG (nax_aec_param_printf(): ,295), Array list is change\n\n";
    EXPECT_EQ(report(1, 2, 2), report_line(2) + second);
    EXPECT_EQ(report(0, 0, 3), report_line(3) + second);
}
