// Delay estimator engine: says by how much the reference must be held back so that
// the echo in the microphones lies inside the canceller's filter. It asks for a
// delay and does not apply it; that is the front end's part (process/alignment).
#pragma once

#include <cstdint>

namespace nax {

// Words that the front end keeps for the estimator.
inline constexpr int32_t DELAY_STATE_WORDS = 28;

// Initialises the estimator in the 28 zero-filled words at state.
//   enable       stored in word 0, where the front end reads it
//   sample_rate  Hz
//   half_frame   half of the samples per channel of every later frame
//   mics         M
//   base_delay   samples that the front end adds to every estimate
//   refs         K
// Without memory for its work area the estimator asks for no delay at all.
// Returns 0, or -1 when there was no memory. Real time: no, it allocates.
int32_t AEC_DelayInit(int32_t enable, int32_t sample_rate, int32_t half_frame, int32_t mics,
                      int32_t base_delay, int32_t refs, int32_t *state);

// Takes in one frame and returns the estimate in samples: the front end holds the
// reference back by the estimate plus the base delay, which together are never
// negative.
//   mic_frame     frame_length x M, planar; left unchanged
//   ref_frame     frame_length x K, planar, as it came in; left unchanged
//   frame_length  F, samples per channel
//   frame_count   1 on the first frame, saturating at 16384
// Real time: yes.
int32_t AEC_DelayProcess(const int16_t *mic_frame, const int16_t *ref_frame, int32_t frame_length,
                         int32_t frame_count, int32_t *state);

// Releases what the estimator allocated for itself; the words stay the caller's.
// Returns 0.
int32_t AEC_DelayDestroy(int32_t *state);

} // namespace nax
