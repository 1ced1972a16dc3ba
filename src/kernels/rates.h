// The rates that are served, in Hz, and the frame of 16 ms at each.
#pragma once

#include <cstdint>

namespace nax {

inline constexpr int32_t SAMPLE_RATES[] = {8000, 16000, 32000, 48000};

constexpr int32_t frame_size_of(int32_t sample_rate) { return sample_rate / 1000 * 16; }

inline constexpr int32_t MAX_FRAME = frame_size_of(48000); // samples

constexpr bool is_served(int32_t sample_rate)
{
    for (const int32_t rate : SAMPLE_RATES)
        if (rate == sample_rate) return true;
    return false;
}

} // namespace nax
