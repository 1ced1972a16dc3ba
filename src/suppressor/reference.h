// What the loudspeakers play: powers, and in which bands there is anything to hear.
#pragma once

#include "suppressor/bands.h"

namespace nax::res {

struct Reference {
    float power[MAX_BINS];     // of this frame, references added up
    float mean[MAX_BANDS];     // of it over each band
    float held[MAX_BANDS];     // its peak, dying away
    float activity[MAX_BANDS]; // 0 silent to 1 active
};

// A band is active from this mean power on: 44 rms of white noise at 16000 Hz, -57 dBFS.
// A fifth of it serves alike.
inline constexpr float ACTIVE_POWER = 44 * 44;

// Takes in a new power.
void reference_update(Reference &reference, const Bands &bands);

} // namespace nax::res
