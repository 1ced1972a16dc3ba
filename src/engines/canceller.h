// Echo canceller engine: a binding over libspeexdsp's multi-channel canceller. The functions
// have the library's names and other parameters, so they are in a namespace of their own.
#pragma once

#include <cstdint>

namespace nax::canceller {

struct Instance;

// Creates a canceller and everything that it needs per frame.
//   frame_size     F, samples per channel of every later frame
//   filter_length  samples of echo path
//   mics           M, 1 or 2
//   speakers       K, references; below 1 there is nothing to cancel
//   sample_rate    Hz
// An instance whose library cannot serve the set, or has no memory, passes the microphones
// through. The result is null when there is no memory for the instance itself.
// Real time: no, it allocates.
Instance *speex_echo_state_init_mc(int32_t frame_size, int32_t filter_length, int32_t mics,
                                   int32_t speakers, int32_t sample_rate);

// Cancels one frame.
//   mic_frame      F x M, planar; left unchanged
//   ref_frame      F x K, planar, aligned with the echo; left unchanged
//   aec_frame      F x M, interleaved by microphone: the echo removed
//   echo_frame     F x M, interleaved by microphone: microphone minus cleaned,
//                  saturated to 16 bits
//   delay_changed  1 when the reference was shifted since the last frame, else 0
// Both outputs are always written in full. A null instance knows no frame size and leaves them
// as they are. The buffers must not overlap.
// Real time: yes, with denormals flushed to zero (kernels/float_mode.h); without that silence
// costs several times as much as sound.
void speex_fast_echo_cancellation(Instance *instance, const int16_t *mic_frame,
                                  const int16_t *ref_frame, int16_t *aec_frame, int16_t *echo_frame,
                                  int32_t delay_changed);

// Releases an instance. Returns null, which the caller stores in place of the instance.
Instance *speex_echo_state_destroy(Instance *instance);

} // namespace nax::canceller
