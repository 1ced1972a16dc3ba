#include "suppressor/reference.h"

#include "suppressor/loops.h"

#include <algorithm>

namespace nax::res {

// Factor per frame, 2.2 dB, by which a band's peak decays. Rooms decay faster.
static constexpr float HOLD = 0.6f;

void reference_update(Reference &reference, const Bands &bands, float zeros)
{
    // Once a lap the delay lines end in zeros, and the canceller does not hear that part of the
    // reference. A share z of a frame holds about z^3 of a window's energy at its end and z in its
    // middle. Before a frame of zeros it was the beginning of the far end's own silence.
    const bool silent = zeros >= 1;
    if (silent) zeros = 0;
    reference.gap = silent ? 0 : std::min(reference.zeros + zeros * zeros * zeros, 1.0f);
    reference.zeros = zeros;

    band_means(bands, reference.power, reference.mean);
    for (int32_t b = 0; b < bands.count; b++) {
        float &held = reference.held[b];
        held = std::max(reference.mean[b], HOLD * held);
        reference.activity[b] = held / (held + ACTIVE_POWER);
    }
}

} // namespace nax::res
