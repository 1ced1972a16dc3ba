// Alignment of the reference with its echo. Each kept reference has a delay line, which is read
// at the delay that the estimator asks for.
#pragma once

#include "state/state.h"

namespace nax {

struct Alignment {
    int32_t delay;         // applied to the reference, samples; positive holds it back
    int32_t delay_changed; // 1 when the delay was moved by this call, else 0
};

// Writes the frame in ref_frame into the delay lines, asks the estimator for the delay and
// reads ref_frame back from the lines at that delay. Advances the lines by one frame.
Alignment align_reference(nax_aec_state &state);

} // namespace nax
