// The record behind the public handle nax_aec_state. It owns everything of one audio stream.
// state.cpp creates and releases it; the per-frame calls in src/process work on it directly.
#pragma once

#include "nax_aec.h"

#include "engines/canceller.h"
#include "engines/delay_estimator.h"
#include "engines/delay_lines.h"
#include "kernels/rates.h"

#include <cstddef>
#include <cstdint>

// Length of a reference delay line without its last frame, and the largest delay applied, in
// samples. It is the same count at every rate, so the longest delay in ms shrinks as the rate
// grows.
inline constexpr int32_t DELAY_LINE_LEN = nax::DELAY_REACH;

// Words of the record that belong to the delay estimator.
inline constexpr int32_t DELAY_EST_WORDS = nax::DELAY_STATE_WORDS;

// The delay line holds a whole number of frames, so that each frame is written in one piece.
constexpr bool frames_fit()
{
    for (const int32_t rate : nax::SAMPLE_RATES)
        if (rate % 1000 != 0 || DELAY_LINE_LEN % nax::frame_size_of(rate) != 0) return false;
    return true;
}
static_assert(frames_fit());

// Counts: F = frame_size samples per channel, M = num_src_channel microphones,
// R = num_ref_channel references, D = drop_channel, K = R - D kept references.
// Buffers hold 16-bit samples in host byte order; their lengths are in samples.
// "Delay on" means that creation was asked for delay estimation; the buffers that
// are marked so are null without it.
struct nax_aec_state {
    int32_t frame_size;      // F
    int32_t frame_size_1;    // F
    int32_t frame_size_2;    // F
    int32_t block_size;      // F, the copy that frame processing reads
    int32_t init_flag;       // 1
    int32_t sample_rate;     // Hz
    int32_t bits_per_sample; // 16
    int32_t num_src_channel; // M
    int32_t num_ref_channel; // R
    int32_t num_channel;     // M + R
    int32_t frame_size_3;    // F
    int32_t reserved_a;      // 0
    int32_t filter_length;   // 2 x F samples, 32 ms of echo path
    int32_t drop_channel;    // D
    int32_t pos;             // channel order of the byte path
    int32_t look_ahead;      // L, samples
    int32_t frame_count;     // accepted frames, saturating at 16384
    int32_t pcm_len;         // samples in pcm_buf
    int16_t *pcm_buf;        // F x (M + R), samples converted from bytes
    int16_t *mic_frame;      // F x M, planar
    int16_t *aec_frame;      // F x M, interleaved: the cleaned microphones
    int16_t *echo_frame;     // F x M, interleaved: the echo taken out
    int16_t *ref_frame;      // F x K, planar
    int16_t *spare_a;        // F
    int16_t *spare_b;        // F x M
    int16_t *sel_buf;        // byte path's selection, null until its first call
    nax::canceller::Instance *echo_state;
    int16_t *spare_c;          // delay on: F x K
    int16_t *spare_d;          // delay on: F x K
    int16_t **ref_delay_lines; // delay on: K lines of DELAY_LINE_LEN + F
    int16_t **mic_lookahead;   // delay on: M buffers of L + F
    int32_t delay_len;         // base delay, samples
    // The estimator's own state. The front end reads word 0 only, the estimator's active flag.
    // It is aligned for the pointer that the estimator keeps in it.
    alignas(void *) int32_t delay_est[DELAY_EST_WORDS];
    int16_t *spare_e;     // delay on: F x M
    int16_t *spare_f;     // delay on: F x R
    int32_t delay_est_en; // 1: delay on, 0: off
    int32_t cur_delay;    // delay applied to the reference, samples
    int32_t ring_pos;     // write position in the delay lines
    int32_t reserved_b;   // 0
    int16_t remap_en;     // 2: array_list is used, 0: it is not
    const int16_t *array_list;
};

namespace nax {

// K, the references that reach the engines. It has 64 bits, because neither word is
// range-checked.
inline int64_t kept_references(const nax_aec_state &state)
{
    return int64_t{state.num_ref_channel} - state.drop_channel;
}

} // namespace nax
