#include "process/alignment.h"

#include "engines/delay_estimator.h"
#include "engines/delay_lines.h"
#include "kernels/saturate.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace nax {

// Copies count samples from position from of a delay line. With a negative delay the read can
// pass the end of the line; the samples past the end are zero.
static void read_line(const int16_t *line, int64_t from, int16_t *to, int32_t count)
{
    const int64_t line_length = DELAY_LINE_LEN + int64_t{count};
    const int64_t inside = std::clamp<int64_t>(line_length - from, 0, count);
    memcpy(to, line + std::min(from, line_length), static_cast<size_t>(inside) * sizeof *to);
    memset(to + inside, 0, static_cast<size_t>(count - inside) * sizeof *to);
}

Alignment align_reference(nax_aec_state &state)
{
    const int32_t block = state.block_size;
    const int64_t kept = kept_references(state);
    const size_t block_bytes = static_cast<size_t>(block) * sizeof(int16_t);

    for (int64_t k = 0; k < kept; k++)
        memcpy(state.ref_delay_lines[k] + state.ring_pos, state.ref_frame + k * block, block_bytes);

    const int64_t estimate = AEC_DelayProcess(state.mic_frame, state.ref_frame, block,
                                              state.frame_count, state.delay_est);

    const int64_t candidate = estimate + state.delay_len;
    const bool moved = is_taken_up(candidate, state.cur_delay, block);
    const int64_t delay = std::min<int64_t>(moved ? candidate : state.cur_delay, DELAY_LINE_LEN);

    // The read does not wrap. The frame past DELAY_LINE_LEN is never written. A delay that is
    // not a whole number of frames therefore gives a frame with a silent end once per lap. The
    // estimator takes that into account when it chooses a delay.
    int64_t from = state.ring_pos - delay;
    if (from < 0) from += DELAY_LINE_LEN;
    for (int64_t k = 0; k < kept; k++)
        read_line(state.ref_delay_lines[k], from, state.ref_frame + k * block, block);

    state.cur_delay = saturate_int32(delay);
    state.ring_pos = (state.ring_pos + block) % DELAY_LINE_LEN;
    return {state.cur_delay, moved ? 1 : 0};
}

} // namespace nax
