// Time in frames of 16 ms.
#pragma once

#include <cstdint>

namespace nax::meter {

inline constexpr float FRAME_S = 0.016f;

// Counts a frame; the count stays where 32 bits end, after a year.
inline void count_frame(int32_t &frames) { frames += frames < INT32_MAX; }

inline float seconds(int32_t frames) { return FRAME_S * static_cast<float>(frames); }

} // namespace nax::meter
