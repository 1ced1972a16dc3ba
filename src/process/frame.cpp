// One frame of 16-bit samples: split, align, cancel, join.
#include "kernels/float_mode.h"
#include "kernels/kernels.h"
#include "process/alignment.h"
#include "process/refuse.h"
#include "state/state.h"

#include <algorithm>
#include <cstring>

namespace nax {

static constexpr int32_t MAX_FRAME_COUNT = 16384; // where the frame counter stays

// Splits the first frame of in into planar microphones and references. A sample instant of in
// holds M microphones, then K references.
static void split(nax_aec_state &state, const int16_t *in)
{
    const int32_t block = state.block_size;
    const int32_t mics = state.num_src_channel;
    const int64_t kept = kept_references(state);
    const int32_t stride = static_cast<int32_t>(mics + kept);

    for (int32_t m = 0; m < mics; m++)
        copy_channel(in + m, stride, state.mic_frame + m * block, 1, block);
    for (int64_t k = 0; k < kept; k++)
        copy_channel(in + mics + k, stride, state.ref_frame + k * block, 1, block);
}

// Writes the full layout: M cleaned microphones, K aligned references, D zeros.
static void join(const nax_aec_state &state, int16_t *out)
{
    const int32_t block = state.block_size;
    const int32_t mics = state.num_src_channel;
    const int64_t kept = kept_references(state);
    const int32_t stride = state.num_channel;

    for (int32_t m = 0; m < mics; m++)
        copy_channel(state.aec_frame + m, mics, out + m, stride, block);
    for (int64_t k = 0; k < kept; k++)
        copy_channel(state.ref_frame + k * block, 1, out + mics + k, stride, block);
    for (int64_t c = std::max<int64_t>(0, mics + kept); c < stride; c++)
        for (int32_t i = 0; i < block; i++)
            out[ptrdiff_t{i} * stride + c] = 0;
}

} // namespace nax

extern "C" int32_t nax_aec_short(nax_aec_state *state, const int16_t *in, int16_t *out,
                                 int16_t *echo, int32_t len)
{
    if (!state) return nax::refuse("You didn't initlize the nax_aec!");
    if (!in || len < 0) return nax::refuse("Error: input audio data is null!");
    const nax::FloatMode mode;

    const int32_t block = state->block_size;
    const int32_t instants = len / state->num_channel;
    state->frame_count = std::min(state->frame_count, nax::MAX_FRAME_COUNT - 1) + 1;

    nax::split(*state, in);
    nax::Alignment alignment = {state->delay_len, 0};
    if (state->delay_est[0] == 1) alignment = nax::align_reference(*state);

    // A caller passes one frame per call. For a longer len the first frame is processed again
    // for each further whole frame, so that an output sized by len is always filled.
    for (int32_t end = block; end <= instants; end += block) {
        nax::canceller::speex_fast_echo_cancellation(state->echo_state, state->mic_frame,
                                                     state->ref_frame, state->aec_frame,
                                                     state->echo_frame, alignment.delay_changed);
        const size_t start = static_cast<size_t>(end - block);
        if (out) nax::join(*state, out + start * static_cast<size_t>(state->num_channel));
        if (echo) {
            const size_t samples =
                static_cast<size_t>(block) * static_cast<size_t>(state->num_src_channel);
            memcpy(echo + start * static_cast<size_t>(state->num_src_channel), state->echo_frame,
                   samples * sizeof *echo);
        }
    }
    return alignment.delay;
}
