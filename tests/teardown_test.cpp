// Teardown of a state (src/state): what is released, once, and in which order.
#include "heap_wrap.h"
#include "scripted_engines.h"

#include "state/state.h"

using Lines = std::vector<std::string>;

class Teardown : public ScriptedTest {
protected:
    // Creates a state whose blocks have the names of their fields in heap::live.
    nax_aec_state *create(int32_t mics, int32_t refs, const Words &words)
    {
        heap::live.clear();
        heap::noting = true;
        nax_aec_state *state = make_state(16000, mics, refs, words).release();
        heap::noting = false;
        heap::live[state] = "record";
        name(state->pcm_buf, "pcm_buf");
        name(state->mic_frame, "mic_frame");
        name(state->aec_frame, "aec_frame");
        name(state->echo_frame, "echo_frame");
        name(state->ref_frame, "ref_frame");
        name(state->spare_a, "spare_a");
        name(state->spare_b, "spare_b");
        name(state->spare_c, "spare_c");
        name(state->spare_d, "spare_d");
        name(state->spare_e, "spare_e");
        name(state->spare_f, "spare_f");
        name(state->ref_delay_lines, "ref_delay_lines");
        for (int32_t k = 0; state->ref_delay_lines && k < refs - words.drop_channel; k++)
            name(state->ref_delay_lines[k], "line " + std::to_string(k));
        name(state->mic_lookahead, "mic_lookahead");
        for (int32_t m = 0; state->mic_lookahead && m < mics; m++)
            name(state->mic_lookahead[m], "lookahead " + std::to_string(m));
        journal.clear();
        return state;
    }

    static void name(void *block, const std::string &text)
    {
        if (block) heap::live[block] = text;
    }

    static const Lines &destroy(nax_aec_state *state)
    {
        const heap::Noting noting;
        nax_aec_state_destroy(state);
        return journal;
    }

    void TearDown() override { EXPECT_TRUE(heap::live.empty()) << "blocks are left over"; }
};

TEST_F(Teardown, DoesNothingForANullState)
{
    heap::live.clear();
    EXPECT_EQ(standard_error_of([] { destroy(nullptr); }), "");
    EXPECT_TRUE(journal.empty());
}

TEST_F(Teardown, FreesEveryBufferOnceInOrderWithDelayEstimationOff)
{
    EXPECT_EQ(destroy(create(2, 2, {})),
              (Lines{"free mic_frame", "free aec_frame", "free echo_frame", "free ref_frame",
                     "free spare_a", "free spare_b", "free pcm_buf", "speex_echo_state_destroy",
                     "free record"}));
}

TEST_F(Teardown, FreesEveryBufferOnceInOrderWithDelayEstimationOn)
{
    nax_aec_state *state = create(2, 3, {.drop_channel = 1, .model_aec_en = 1, .look_ahead = 5});
    Samples in(256 * 5);
    uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
    {
        const heap::Noting noting;
        nax_aec_byte(state, &audio, nullptr, nullptr, 256 * 5 * 2, 0);
    }
    name(state->sel_buf, "sel_buf");
    journal.clear();
    EXPECT_EQ(destroy(state), (Lines{"free sel_buf",
                                     "free spare_c",
                                     "free spare_d",
                                     "free spare_e",
                                     "free spare_f",
                                     "free mic_frame",
                                     "free aec_frame",
                                     "free echo_frame",
                                     "free ref_frame",
                                     "free spare_a",
                                     "free spare_b",
                                     "free pcm_buf",
                                     "free line 0",
                                     "free line 1",
                                     "free ref_delay_lines",
                                     "free lookahead 0",
                                     "free lookahead 1",
                                     "free mic_lookahead",
                                     "speex_echo_state_destroy",
                                     "AEC_DelayDestroy",
                                     "free record"}));
}

// Who holds on to the record by mistake finds nothing in it to free or to write to.
TEST_F(Teardown, LeavesNoPointerInTheRecordThatItFrees)
{
    static nax_aec_state *record, last;
    record = create(2, 2, {.drop_channel = 1, .model_aec_en = 1});
    Samples in(256 * 4);
    uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
    nax_aec_byte(record, &audio, nullptr, nullptr, 256 * 4 * 2, 0);
    ASSERT_NE(record->sel_buf, nullptr);
    heap::last_look = [](void *block) {
        if (block == record) last = *record;
    };
    destroy(record);
    heap::last_look = nullptr;
    for (const void *field : {last.pcm_buf, last.mic_frame, last.aec_frame, last.echo_frame,
                              last.ref_frame, last.spare_a, last.spare_b, last.spare_c,
                              last.spare_d, last.spare_e, last.spare_f, last.sel_buf})
        EXPECT_EQ(field, nullptr);
    EXPECT_EQ(last.ref_delay_lines, nullptr);
    EXPECT_EQ(last.mic_lookahead, nullptr);
    EXPECT_EQ(last.echo_state, nullptr);
    EXPECT_EQ(last.frame_size, 256) << "this is not the record";
}

TEST_F(Teardown, FreesTheOneLookaheadBufferOfOneMicrophone)
{
    destroy(create(1, 1, {.model_aec_en = 1}));
    EXPECT_EQ(journal_of("free lookahead"), Lines{"free lookahead 0"});
}

TEST_F(Teardown, FreesTheArrayOfNoDelayLines)
{
    destroy(create(1, 2, {.drop_channel = 2, .model_aec_en = 1}));
    EXPECT_EQ(journal_of("free line"), Lines{});
    EXPECT_EQ(journal_of("free ref_delay_lines"), Lines{"free ref_delay_lines"});
}

TEST_F(Teardown, FreesTheConversionBufferAfterItWasResized)
{
    nax_aec_state *state = create(1, 1, {.pos = 1});
    Samples in(2 * 256 * 2);
    uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
    {
        const heap::Noting noting;
        nax_aec_byte(state, &audio, nullptr, nullptr, 2 * 256 * 2 * 2, 0);
    }
    ASSERT_EQ(journal_of("realloc"), Lines{"realloc 2048"});
    name(state->pcm_buf, "resized pcm_buf");
    destroy(state);
    EXPECT_EQ(journal_of("free resized"), Lines{"free resized pcm_buf"});
}

TEST_F(Teardown, DestroysTheEstimatorAtTheAddressGivenAtCreation)
{
    nax_aec_state *state = create(1, 1, {.model_aec_en = 1});
    const int32_t *area = state->delay_est;
    destroy(state);
    ASSERT_EQ(scripted::record.delay_destroys.size(), 1u);
    EXPECT_EQ(scripted::record.delay_destroys[0], area);
    EXPECT_EQ(scripted::record.delay_inits[0].state, area);
}

TEST_F(Teardown, LeavesTheEstimatorAloneWithDelayEstimationOff)
{
    destroy(create(1, 1, {.model_aec_en = 2}));
    EXPECT_TRUE(scripted::record.delay_destroys.empty());
}

TEST_F(Teardown, SkipsANullCanceller)
{
    scripted::script.null_instance = true;
    destroy(create(1, 1, {}));
    EXPECT_EQ(journal_of("speex"), Lines{});
}

TEST_F(Teardown, LeavesTheCallersTableAlone)
{
    const int16_t table[] = {1, 0};
    destroy(create(2, 1, {.model_aec_en = 2, .array_list = table}));
    EXPECT_EQ(table[0], 1);
    EXPECT_EQ(journal_of("free unknown"), Lines{});
}

TEST_F(Teardown, WritesNoMessage)
{
    nax_aec_state *state = create(2, 2, {.model_aec_en = 1});
    EXPECT_EQ(standard_error_of([&] { destroy(state); }), "");
}
