// Creation, report and teardown of an AEC state.
#include "state/state.h"

#include "engines/delay_estimator.h"
#include "engines/logtab.h"
#include "kernels/float_mode.h"
#include "kernels/saturate.h"

#include <cstdio>
#include <cstdlib>

// The record of this thread's latest creation that got as far as allocating one. Creation
// sets it and reads it back. Each thread has its own, so that creations on several threads
// do not meet. It is a plain pointer: its initialisation needs no C++ runtime.
static thread_local nax_aec_state *st;

// Zero-filled room for count elements. The result is null for a count that is negative or that
// no memory can hold: words of the parameter block are not range-checked, so both can happen.
template <typename T> static T *allocate(int64_t count)
{
    if (count < 0 || static_cast<uint64_t>(count) > PTRDIFF_MAX / sizeof(T)) return nullptr;
    return static_cast<T *>(calloc(static_cast<size_t>(count), sizeof(T)));
}

// Whether the allocator would give count buffers at once. Without this question a wrong
// parameter word could ask for millions of lines, which would be granted one by one until the
// machine has no memory left.
static bool affordable(int64_t count, int64_t samples_each)
{
    constexpr int64_t PLAUSIBLE = 1024;
    if (count <= PLAUSIBLE) return true;
    if (samples_each <= 0 || count > int64_t{PTRDIFF_MAX} / 2 / samples_each) return false;
    void *volatile trial = malloc(static_cast<size_t>(count * samples_each * 2));
    free(trial);
    return trial != nullptr;
}

// An array of count buffers of samples_each samples. The array is allocated even when count
// is 0. After a buffer that is refused the rest of the array stays null.
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

static void release_lines(int16_t **&lines, int64_t count)
{
    if (!lines) return;
    for (int64_t i = 0; i < count && lines[i]; i++)
        release(lines[i]);
    free(lines);
    lines = nullptr;
}

// Returns whether a format is refused, and writes the reason to standard error.
static bool refuse_format(int32_t sample_rate, int32_t bits_per_sample, int32_t mics, int32_t refs)
{
    if (bits_per_sample != 16 || mics <= 0 || refs <= 0) {
        fprintf(stderr,
                "LOG (%s(): ,%d), Error: %d SampleRate, %d bits_persample, %d num_src_channel and "
                "%d num_ref_channel cann't be supported\n",
                "nax_aec_state_init", 122, sample_rate, bits_per_sample, mics, refs);
        return true;
    }
    if (mics > 2) {
        fprintf(stderr,
                "LOG (%s(): ,%d), Error: The number of mic is %d, exceed the limited 2 "
                "microphones! \n",
                "nax_aec_state_init", 142, mics);
        return true;
    }
    return false;
}

// Sets the numbers of a record that was allocated zero-filled. Numbers not named here stay 0.
static void fill(nax_aec_state &state, int32_t sample_rate, int32_t mics, int32_t refs,
                 const nax_aec_param &param)
{
    const int32_t frame = nax::frame_size_of(sample_rate);
    state.frame_size = frame;
    state.frame_size_1 = frame;
    state.frame_size_2 = frame;
    state.frame_size_3 = frame;
    state.block_size = frame;
    state.filter_length = 2 * frame;
    state.init_flag = 1;
    state.sample_rate = sample_rate;
    state.bits_per_sample = 16;
    state.num_src_channel = mics;
    state.num_ref_channel = refs;
    state.num_channel = static_cast<int32_t>(int64_t{mics} + refs);
    state.pcm_len = static_cast<int32_t>(frame * (int64_t{mics} + refs));
    state.drop_channel = param.drop_channel;
    state.pos = param.pos;
    state.delay_len = param.delay_len;
    state.cur_delay = param.delay_len;
    state.delay_est_en = param.model_aec_en & NAX_AEC_DELAY_ESTIMATION;
}

static void allocate_buffers(nax_aec_state &state)
{
    const int64_t frame = state.frame_size;
    const int64_t mics = state.num_src_channel;
    const int64_t refs = state.num_ref_channel;
    const int64_t kept = nax::kept_references(state);
    state.pcm_buf = allocate<int16_t>(frame * (mics + refs));
    state.mic_frame = allocate<int16_t>(frame * mics);
    state.aec_frame = allocate<int16_t>(frame * mics);
    state.echo_frame = allocate<int16_t>(frame * mics);
    state.ref_frame = allocate<int16_t>(frame * kept);
    state.spare_a = allocate<int16_t>(frame);
    state.spare_b = allocate<int16_t>(frame * mics);
    if (!state.delay_est_en) return;

    state.ref_delay_lines = allocate_lines(kept, DELAY_LINE_LEN + frame);
    state.mic_lookahead = allocate_lines(mics, state.look_ahead + frame);
    state.spare_d = allocate<int16_t>(frame * kept);
    state.spare_e = allocate<int16_t>(frame * mics);
    state.spare_c = allocate<int16_t>(frame * kept);
    state.spare_f = allocate<int16_t>(frame * refs);
}

static void create_engines(nax_aec_state &state)
{
    const int32_t speakers = nax::saturate_int32(nax::kept_references(state));
    state.echo_state = nax::canceller::speex_echo_state_init_mc(
        state.frame_size, state.filter_length, state.num_src_channel, speakers, state.sample_rate);
    if (state.delay_est_en == 1)
        nax::AEC_DelayInit(state.delay_est_en, state.sample_rate, state.frame_size / 2,
                           state.num_src_channel, state.delay_len, speakers, state.delay_est);
}

extern "C" nax_aec_state *nax_aec_state_init(int32_t sample_rate, int32_t bits_per_sample,
                                             int32_t num_src_channel, int32_t num_ref_channel,
                                             const nax_aec_param *param)
{
    const nax::FloatMode mode;
    nax::nax_logtab_init();
    if (refuse_format(sample_rate, bits_per_sample, num_src_channel, num_ref_channel))
        return nullptr;

    st = allocate<nax_aec_state>(1);
    st->remap_en = static_cast<int16_t>(param->model_aec_en & NAX_AEC_REMAP);
    if (st->remap_en) st->array_list = param->array_list;
    st->look_ahead = param->look_ahead;

    // The record stays allocated, and st keeps pointing to it: nax_aec.h promises this.
    if (!nax::is_served(sample_rate)) {
        static const char message[] = "Not Support Sampling_rate\n";
        fwrite(message, 1, sizeof message - 1, stderr);
        return nullptr;
    }
    fill(*st, sample_rate, num_src_channel, num_ref_channel, *param);
    allocate_buffers(*st);
    create_engines(*st);

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

    int16_t **const optional[] = {&state->sel_buf, &state->spare_c, &state->spare_d,
                                  &state->spare_e, &state->spare_f};
    for (int16_t **buffer : optional)
        if (*buffer) release(*buffer);
    release(state->mic_frame);
    release(state->aec_frame);
    release(state->echo_frame);
    release(state->ref_frame);
    release(state->spare_a);
    release(state->spare_b);
    release(state->pcm_buf);
    release_lines(state->ref_delay_lines, nax::kept_references(*state));
    release_lines(state->mic_lookahead, state->num_src_channel);
    if (state->echo_state)
        state->echo_state = nax::canceller::speex_echo_state_destroy(state->echo_state);
    if (state->delay_est_en == 1) nax::AEC_DelayDestroy(state->delay_est);
    free(state);
}
