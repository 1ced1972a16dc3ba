#include "suppressor/reference.h"

#include "suppressor/loops.h"

#include <algorithm>

namespace nax::res {

// Factor per frame, 2.2 dB, by which a band's peak decays. Rooms decay faster.
static constexpr float HOLD = 0.6f;

void reference_update(Reference &reference, const Bands &bands)
{
    band_means(bands, reference.power, reference.mean);
    for (int32_t b = 0; b < bands.count; b++) {
        float &held = reference.held[b];
        held = std::max(reference.mean[b], HOLD * held);
        reference.activity[b] = held / (held + ACTIVE_POWER);
    }
}

} // namespace nax::res
