// Shape and weights of the network that presence.cpp runs.
#pragma once

#include "suppressor/loops.h"

namespace nax::res {

inline constexpr int32_t JUDGED_BANDS = 20; // up to 7.75 kHz
static_assert(JUDGED_BANDS % 4 == 0 && JUDGED_BANDS <= MAX_BANDS);
inline constexpr int32_t FEATURES = 10;       // of a band
inline constexpr int32_t PADDED_INPUTS = 208; // JUDGED_BANDS x FEATURES and zeros
inline constexpr int32_t HIDDEN = 64;         // values of a hidden layer
inline constexpr int32_t OUTPUTS = JUDGED_BANDS;

// The rows of the reset and update gates and of the outputs are halved, since
// sigmoid(a) = 0.5 + 0.5 tanh(a / 2).
extern const Layer INPUT_LAYER;  // features to HIDDEN
extern const Layer INPUT_GATES;  // HIDDEN to 3 x HIDDEN: reset, update, candidate
extern const Layer STATE_GATES;  // the same from the state
extern const Layer OUTPUT_LAYER; // state and hidden layer to OUTPUTS

} // namespace nax::res
