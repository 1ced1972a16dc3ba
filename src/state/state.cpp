// Creation, report and teardown of an AEC state.
#include "state/state.h"

#include "engines/delay_estimator.h"
#include "engines/logtab.h"
#include "kernels/saturate.h"

#include <cstdio>
#include <cstdlib>

// The record of the latest creation that got as far as allocating one. Creation
// sets it and reads it back, which is why two creations must not run at once.
static nax_aec_state *st;

// Zero-filled room for count elements, or null for a count that no memory can hold:
// words of the parameter block are not range-checked, so sizes may come out negative.
template <typename T> static T *allocate(int64_t count)
{
    if (count < 0 || static_cast<uint64_t>(count) > PTRDIFF_MAX / sizeof(T)) return nullptr;
    return static_cast<T *>(calloc(static_cast<size_t>(count), sizeof(T)));
}

// Whether the allocator would give so many buffers. A count that no device has, from a
// parameter word gone wrong, would otherwise be granted line by line until the machine
// has no memory left.
static bool affordable(int64_t count, int64_t samples_each)
{
    constexpr int64_t PLAUSIBLE = 1024;
    if (count <= PLAUSIBLE) return true;
    if (samples_each <= 0 || count > int64_t{PTRDIFF_MAX} / 2 / samples_each) return false;
    void *volatile trial = malloc(static_cast<size_t>(count * samples_each * 2));
    free(trial);
    return trial != nullptr;
}

// An array of count buffers of samples_each samples. The array is asked for even
// when there are no buffers to go into it. Buffers end with the first one refused.
static int16_t **allocate_lines(int64_t count, int64_t samples_each)
{
    int16_t **lines = allocate<int16_t *>(count);
    if (!lines || !affordable(count, samples_each)) return lines;
    for (int64_t i = 0; i < count; i++) {
        lines[i] = allocate<int16_t>(samples_each);
        if (!lines[i]) break;
    }
    return lines;
}

static void release(int16_t *&buffer)
{
    free(buffer);
    buffer = nullptr;
}

// Samples per channel in 16 ms, or 0 for a rate that is not supported.
static int32_t frame_size_for(int32_t sample_rate)
{
    switch (sample_rate) {
    case 8000: return 128;
    case 16000: return 256;
    case 32000: return 512;
    case 48000: return MAX_FRAME_SIZE;
    default: return 0;
    }
}

extern "C" nax_aec_state *nax_aec_state_init(int32_t sample_rate, int32_t bits_per_sample,
                                             int32_t num_src_channel, int32_t num_ref_channel,
                                             const nax_aec_param *param)
{
    nax::nax_logtab_init();

    if (bits_per_sample != 16 || num_src_channel <= 0 || num_ref_channel <= 0) {
        fprintf(stderr,
                "LOG (%s(): ,%d), Error: %d SampleRate, %d bits_persample, %d num_src_channel and "
                "%d num_ref_channel cann't be supported\n",
                "nax_aec_state_init", 122, sample_rate, bits_per_sample, num_src_channel,
                num_ref_channel);
        return nullptr;
    }
    if (num_src_channel > 2) {
        fprintf(stderr,
                "LOG (%s(): ,%d), Error: The number of mic is %d, exceed the limited 2 "
                "microphones! \n",
                "nax_aec_state_init", 142, num_src_channel);
        return nullptr;
    }

    nax_aec_state *state = allocate<nax_aec_state>(1);
    st = state;

    state->remap_en = static_cast<int16_t>(param->model_aec_en & NAX_AEC_REMAP);
    if (state->remap_en) state->array_list = param->array_list;
    state->look_ahead = param->look_ahead;
    const int32_t delay_on = param->model_aec_en & NAX_AEC_DELAY_ESTIMATION;

    // The record stays allocated and in st when the rate is refused: callers that
    // probe for rates have come to rely on this order, so it is kept.
    const int32_t frame = frame_size_for(sample_rate);
    if (frame == 0) {
        static const char message[] = "Not Support Sampling_rate\n";
        fwrite(message, 1, sizeof message - 1, stderr);
        return nullptr;
    }
    state->frame_size = frame;
    state->frame_size_1 = frame;

    const int64_t mics = num_src_channel;
    const int64_t refs = num_ref_channel;
    state->drop_channel = param->drop_channel;
    state->pos = param->pos;
    state->reserved_a = 0;
    state->frame_count = 0;
    state->filter_length = 2 * frame;
    state->num_channel = static_cast<int32_t>(mics + refs);
    state->pcm_len = static_cast<int32_t>(frame * (mics + refs));
    state->bits_per_sample = 16;
    state->frame_size_2 = frame;
    state->block_size = frame;
    state->frame_size_3 = frame;
    state->num_src_channel = num_src_channel;
    state->num_ref_channel = num_ref_channel;
    state->sample_rate = sample_rate;
    state->init_flag = 1;

    const int64_t kept = nax::kept_references(*state);
    state->pcm_buf = allocate<int16_t>(frame * (mics + refs));
    state->mic_frame = allocate<int16_t>(frame * mics);
    state->aec_frame = allocate<int16_t>(frame * mics);
    state->echo_frame = allocate<int16_t>(frame * mics);
    state->ref_frame = allocate<int16_t>(frame * kept);
    state->spare_a = allocate<int16_t>(frame);
    state->spare_b = allocate<int16_t>(frame * mics);
    if (delay_on) {
        state->ref_delay_lines = allocate_lines(kept, DELAY_LINE_LEN + frame);
        state->mic_lookahead = allocate_lines(mics, int64_t{param->look_ahead} + frame);
        state->spare_d = allocate<int16_t>(frame * kept);
        state->spare_e = allocate<int16_t>(frame * mics);
        state->spare_c = allocate<int16_t>(frame * kept);
        state->spare_f = allocate<int16_t>(frame * refs);
    } else {
        state->spare_c = nullptr;
        state->spare_d = nullptr;
        state->ref_delay_lines = nullptr;
        state->mic_lookahead = nullptr;
        state->spare_e = nullptr;
        state->spare_f = nullptr;
    }
    state->delay_len = param->delay_len;
    state->cur_delay = param->delay_len;
    state->delay_est_en = delay_on;

    const int32_t speakers = nax::saturate_int32(kept);
    state->echo_state = nax::canceller::speex_echo_state_init_mc(
        frame, state->filter_length, num_src_channel, speakers, sample_rate);
    if (st->delay_est_en == 1) {
        nax::AEC_DelayInit(delay_on, sample_rate, st->frame_size / 2, num_src_channel,
                           param->delay_len, speakers, st->delay_est);
    }
    st->ring_pos = 0;
    st->reserved_b = 0;

    fprintf(stderr, "LOG (%s(): ,%d), AEC-RELEASE-VERSION 2.0,RELEASE DATE 2022-02-28\n\n",
            "nax_aec_state_init", 270);
    fprintf(stderr, "LOG (%s(): ,%d), This AEC version is used for no more than 2 microphones!\n\n",
            "nax_aec_state_init", 275);
    return st;
}

extern "C" void nax_aec_param_printf(int32_t, int32_t, const nax_aec_param *param)
{
    fprintf(stderr,
            "LOG (%s(): ,%d), In AEC INIT pos is %d, drop channel is %d, model_aec_en is "
            "%d,delay len is %d,look_ahead is %d\n\n",
            "nax_aec_param_printf", 293, param->pos, param->drop_channel, param->model_aec_en,
            param->delay_len, param->look_ahead);
    if (param->model_aec_en & NAX_AEC_REMAP)
        fprintf(stderr, "LOG (%s(): ,%d), Array list is change\n\n", "nax_aec_param_printf", 295);
}

extern "C" void nax_aec_state_destroy(nax_aec_state *state)
{
    if (!state) return;

    release(state->sel_buf);
    release(state->spare_c);
    release(state->spare_d);
    release(state->spare_e);
    release(state->spare_f);
    release(state->mic_frame);
    release(state->aec_frame);
    release(state->echo_frame);
    release(state->ref_frame);
    release(state->spare_a);
    release(state->spare_b);
    release(state->pcm_buf);
    if (state->ref_delay_lines) {
        for (int64_t i = 0; i < nax::kept_references(*state) && state->ref_delay_lines[i]; i++)
            release(state->ref_delay_lines[i]);
        free(state->ref_delay_lines);
        state->ref_delay_lines = nullptr;
    }
    if (state->mic_lookahead) {
        for (int32_t i = 0; i < state->num_src_channel; i++)
            release(state->mic_lookahead[i]);
        free(state->mic_lookahead);
        state->mic_lookahead = nullptr;
    }
    if (state->echo_state)
        state->echo_state = nax::canceller::speex_echo_state_destroy(state->echo_state);
    if (state->delay_est_en == 1) nax::AEC_DelayDestroy(state->delay_est);
    free(state);
}
