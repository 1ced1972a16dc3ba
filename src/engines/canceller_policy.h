// What the binding decides by levels alone: when libspeexdsp restarts, and by how many bits
// microphones and references are attenuated before it. There are three reasons: a reference that
// is much weaker than its echo, signals so hot that the library would give up, and a filter that
// adds echo.
#pragma once

#include <cstdint>

namespace nax::canceller {

// What a frame holds. Powers are of 16-bit samples, squared.
struct Levels {
    float mic_power; // mean over all channels and samples
    float ref_power;
    float edge_power; // difference power of the loudest block, microphones or references, summed
                      // over its channels
};

struct Policy {
    int32_t first_frames = 6;  // audible frames of reference until the microphones' scale is chosen
    int32_t hot_frames = 0;    // frames for which the attenuation of hot signals stays
    int32_t louder_frames = 0; // frames in a row whose output was louder than the microphone
    int32_t mic_shift = 0;     // bits of attenuation for a reference that is weaker than its echo
    float mic_power = 0;       // running means
    float ref_power = 0;
};

struct Decision {
    bool restart;      // before the frame
    int32_t mic_shift; // bits of attenuation of the microphones before the library
    int32_t ref_shift; // the same of the references
};

// Measures a planar frame of mics and speakers channels of frame_size samples each, which will
// be cancelled in blocks of block_size.
Levels measure_levels(const int16_t *mic_frame, int32_t mics, const int16_t *ref_frame,
                      int32_t speakers, int32_t frame_size, int32_t block_size);

// Mean power of the first difference of count interleaved samples. It is close to the power
// behind the library's pre-emphasis.
float difference_power(const int16_t *samples, int32_t channels, int32_t count);

// Decides what to do with a frame and updates the policy. delay_changed: the delay of the
// reference has changed since the last frame.
Decision decide(Policy &policy, const Levels &levels, bool delay_changed);

// Updates the policy with the difference powers before and after cancelling. Returns whether the
// library is to restart, because its output was louder than the microphone for some frames.
bool restart_if_louder(Policy &policy, float heard, float left);

} // namespace nax::canceller
