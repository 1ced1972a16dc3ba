// What the binding decides by levels alone: when libspeexdsp is to start anew, and by
// how many bits microphones and references are to be attenuated for it. Three reasons:
// a reference that is much weaker than its echo, signals so hot that the library would
// give up, and a filter that adds echo.
#pragma once

#include <cstdint>

namespace nax::canceller {

// What a frame holds. Powers are of 16-bit samples, squared.
struct Levels {
    float mic_power; // mean over all channels and samples
    float ref_power;
    float edge_power; // mean power between samples, channels added up, of the block that has
                      // most of it among the microphones' and the references'
};

struct Policy {
    int32_t first_frames = 6;  // of audible reference until the microphones' scale is chosen
    int32_t hot_frames = 0;    // for which the attenuation of hot signals stays
    int32_t louder_frames = 0; // in a row
    int32_t mic_shift = 0;     // bits, for a reference that is weaker than its echo
    float mic_power = 0;       // running means
    float ref_power = 0;
};

struct Decision {
    bool restart;      // before the frame
    int32_t mic_shift; // bits by which the library is to see the frame attenuated
    int32_t ref_shift;
};

// The levels of a planar frame of mics and speakers channels, frame_size samples each,
// that will be cancelled in blocks of block_size.
Levels measure_levels(const int16_t *mic_frame, int32_t mics, const int16_t *ref_frame,
                      int32_t speakers, int32_t frame_size, int32_t block_size);

// Mean power of the first difference of count interleaved samples, near enough to the
// library's pre-emphasis.
float difference_power(const int16_t *samples, int32_t channels, int32_t count);

// What to do with a frame. delay_changed: the reference was moved since the last one.
Decision decide(Policy &policy, const Levels &levels, bool delay_changed);

// Takes note of difference powers before and after cancelling. Whether the library is to
// be restarted, because for some frames it has added echo rather than removed it.
bool restart_if_louder(Policy &policy, float heard, float left);

} // namespace nax::canceller
