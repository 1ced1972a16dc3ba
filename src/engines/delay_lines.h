// What the estimator knows of the front end's delay lines and of the rule by which the front
// end takes a delay up (process/alignment).
#pragma once

#include <cstdint>

namespace nax {

// Samples that a delay line holds beyond one frame, and the largest delay that the front end
// applies.
inline constexpr int32_t DELAY_REACH = 12288;

// The longest delay whose frame the line still holds whole, for frames of so many samples. A
// longer one reads the frame that has just been written, in part or as a whole.
constexpr int32_t longest_served(int32_t frame) { return DELAY_REACH - frame; }

// Whether the front end takes a delay up that differs from the applied one. A move of up to a
// frame is not worth the canceller's adaptation.
constexpr bool is_taken_up(int64_t wanted, int64_t applied, int32_t frame)
{
    return wanted - applied > frame || applied - wanted > frame;
}

} // namespace nax
