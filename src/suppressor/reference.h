// Power of the references, and whether each band is active.
#pragma once

#include "suppressor/bands.h"

namespace nax::res {

struct Reference {
    float power[MAX_BINS];     // of this frame, the sum over the references
    float mean[MAX_BANDS];     // its mean over each band
    float held[MAX_BANDS];     // peak of that mean, decaying
    float activity[MAX_BANDS]; // 0 (silent) to 1 (active)
    float zeros;               // part of the newest frame, at its end, that is 0; none if all is
    float gap;                 // at most this share of the window's echo has no reference
};

// A band counts as active above this mean power: that of white noise of 44 rms at 16000 Hz,
// -57 dBFS. A fifth of it gives equal results.
inline constexpr float ACTIVE_POWER = 44 * 44;

// Takes in the power of a new frame, which the caller has put into reference.power, and the share
// of the frame for which every active reference ends in zeros.
void reference_update(Reference &reference, const Bands &bands, float zeros);

} // namespace nax::res
