// Raw bytes in either channel order: convert, select, process, dump.
#include "engines/byte_format.h"
#include "kernels/kernels.h"
#include "process/refuse.h"
#include "state/state.h"

#include "nax_aec_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace nax {

// Sizes pcm_buf for the samples of this call. It is never shorter than a frame, because
// nax_aec_short reads a whole frame whatever its length says.
static void size_pcm_buf(nax_aec_state &state, int32_t sample_count)
{
    const int32_t frame_samples = state.frame_size * state.num_channel;
    const size_t capacity = static_cast<size_t>(std::max(sample_count, frame_samples));
    state.pcm_buf = static_cast<int16_t *>(realloc(state.pcm_buf, capacity * sizeof(int16_t)));
}

// Allocates sel_buf for the selected samples of the first call, at least a frame of them.
static void size_sel_buf(nax_aec_state &state, int64_t sel_len)
{
    const int64_t stride = int64_t{state.num_channel} - state.drop_channel;
    const int64_t samples = std::max(sel_len, state.frame_size * stride);
    state.sel_buf = static_cast<int16_t *>(calloc(static_cast<size_t>(samples), sizeof(int16_t)));
}

// Copies pcm_buf to sel_buf: the microphones first, picked by the remap table if there is one,
// then the kept references. Dropped references are left out.
static void select_channels(nax_aec_state &state, int32_t instants)
{
    const int32_t mics = state.num_src_channel;
    const int64_t kept = kept_references(state);
    const bool refs_first = state.pos == 0;
    const int64_t first_ref = refs_first ? 0 : mics;
    const int64_t first_mic = refs_first ? state.num_ref_channel : 0;

    const int32_t stride = static_cast<int32_t>(mics + kept);
    for (int64_t k = 0; k < kept; k++)
        copy_channel(state.pcm_buf + first_ref + k, state.num_channel, state.sel_buf + mics + k,
                     stride, instants);
    for (int32_t m = 0; m < mics; m++) {
        const int64_t source = state.remap_en ? state.array_list[m] : first_mic + m;
        copy_channel(state.pcm_buf + source, state.num_channel, state.sel_buf + m, stride,
                     instants);
    }
}

static void dump(FILE *stream, const int16_t *samples, int64_t count)
{
    if (stream && count > 0)
        fwrite(samples, static_cast<size_t>(count) * sizeof *samples, 1, stream);
}

} // namespace nax

extern "C" int32_t nax_aec_byte(nax_aec_state *state, uint8_t **audio, int16_t *out, int16_t *echo,
                                int32_t len, uint32_t byte_order)
{
    if (!state) return nax::refuse("You didn't initialize the nax_aec!");
    if (!audio || len < 0) return nax::refuse("Error: input audio data is null!");
    if (byte_order > NAX_AEC_BIG_ENDIAN) byte_order = nax::nax_bigorsmall();

    const int32_t sample_count = len / (state->bits_per_sample / 8);
    const int64_t sel_len = sample_count - int64_t{state->frame_size} * state->drop_channel;
    if (state->pcm_len != sample_count) nax::size_pcm_buf(*state, sample_count);
    state->pcm_len =
        nax::nax_bytes2shorts(*audio, state->pcm_buf, len, state->bits_per_sample, byte_order);
    if (!state->sel_buf) nax::size_sel_buf(*state, sel_len);

    // With the microphones first, nothing dropped and no table the samples are in order already.
    // Nothing is copied then, and sel_buf, which the aec_out dump shows, stays silent.
    const bool in_order = state->pos == 1 && state->drop_channel == 0 && state->remap_en == 0;
    int32_t result = 0;
    if (state->pos == 0 || state->pos == 1) {
        if (!in_order) nax::select_channels(*state, sample_count / state->num_channel);
        int16_t *selected = in_order ? state->pcm_buf : state->sel_buf;
        result = nax_aec_short(state, selected, out, echo, state->pcm_len);
        *audio = reinterpret_cast<uint8_t *>(selected);
    }

    nax::dump(aec_out, state->sel_buf, sel_len);
    nax::dump(echo_out, echo, int64_t{state->frame_size} * state->num_src_channel);
    return result;
}
