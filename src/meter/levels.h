// Levels, and what a channel's samples show over one frame.
#pragma once

#include <cstdint>

namespace nax::meter {

// A channel over time.
struct Channel {
    // Sums of the powers of the last second's frames, in pieces of a quarter of it.
    static constexpr int32_t PIECES = 4, PIECE = 16; // frames
    float pieces[PIECES];
    int32_t largest;                 // magnitude of late
    float clipped;                   // share of samples in runs at it, over ten seconds of sound
    int32_t frames, sounding_frames; // taken in, at most 2^31 - 1
};

// Mean power of the last second, full scale 1.
float power_of(const Channel &channel);

// Channel::clipped, 0 until the channel has sounded for a second.
float clipped_share(const Channel &channel);

// Takes in a frame of count samples, a multiple of 16, at most 768. Returns its power: the mean
// square less the mean's, of full scale 1.
float take_in(Channel &channel, const int16_t *samples, int32_t count);

// 10 log10 of a power, -100 or more, right to 0.03 dB. Without a library's logarithm: the
// same on every processor, and cheaper.
float decibels(float power);

// How much a new value weighs in a mean over the last count values, frames of which came
// before it: as much as each of them at first.
float weight_of_new(int32_t frames, int32_t count);

} // namespace nax::meter
