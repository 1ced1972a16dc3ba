#include "suppressor/coherence.h"

#include <algorithm>

namespace nax::res {

static constexpr float KEEP = 0.9f; // of the running means, per frame

static void smooth(float &mean, float value) { mean = KEEP * mean + (1 - KEEP) * value; }

void coherence_update(Coherence &c, const Bands &bands, const Comparison &comparison)
{
    for (int32_t b = 0; b < bands.count; b++) {
        smooth(c.cleaned[b], comparison.cleaned[b]);
        smooth(c.mic[b], comparison.mic[b]);
        smooth(c.cross_re[b], comparison.cross_re[b]);
        smooth(c.cross_im[b], comparison.cross_im[b]);
        const float cross = c.cross_re[b] * c.cross_re[b] + c.cross_im[b] * c.cross_im[b];
        c.value[b] = std::min((cross + TINY_POWER) / (c.cleaned[b] * c.mic[b] + TINY_POWER), 1.0f);
    }
}

} // namespace nax::res
