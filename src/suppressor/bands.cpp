// The critical bands of Zwicker (1961, "Subdivision of the audible frequency range into
// critical bands"). Their edges are rounded to multiples of 125 Hz, which are 4 bins. The
// lowest bands, which are narrower, get 125 Hz each.
#include "suppressor/bands.h"

namespace nax::res {

// Band edges in steps of 125 Hz. The last one is 24 kHz.
static constexpr int32_t EDGES[] = {0,  1,  2,  3,  4,  5,  6,  7,  9,  10, 12,  14, 16,
                                    19, 22, 25, 30, 35, 42, 51, 62, 76, 96, 124, 192};
static_assert(sizeof EDGES / sizeof *EDGES == MAX_BANDS + 1);
static_assert(EDGES[MAX_BANDS] * VECTOR == MAX_FRAME);

Bands bands_for(int32_t frame_size)
{
    const int32_t vectors = frame_size / VECTOR; // up to half the rate
    Bands bands = {};
    while (EDGES[bands.count] < vectors) {
        const int32_t b = bands.count++;
        const int32_t to = EDGES[b + 1] < vectors ? EDGES[b + 1] : vectors;
        // The last band also holds the bin at half the rate and the padding.
        const int32_t last = to == vectors ? 1 : 0;
        bands.edge[b + 1] = (to + last) * VECTOR;
        bands.share[b] = 1 / static_cast<float>(to * VECTOR + last - bands.edge[b]);
    }
    return bands;
}

} // namespace nax::res
