// Coherence of a cleaned microphone with the raw one.
#pragma once

#include "suppressor/loops.h"

namespace nax::res {

struct Coherence {
    // Running means of the comparison.
    float cleaned[MAX_BANDS], mic[MAX_BANDS], cross_re[MAX_BANDS], cross_im[MAX_BANDS];
    // The result: |<Y E*>|^2 / (<|Y|^2> <|E|^2>), 0 to 1; 1 in digital silence.
    float value[MAX_BANDS];
};

void coherence_update(Coherence &coherence, const Bands &bands, const Comparison &comparison);

} // namespace nax::res
