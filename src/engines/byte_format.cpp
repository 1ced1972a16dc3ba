#include "engines/byte_format.h"

#include "kernels/kernels.h"

#include <cstring>

namespace nax {

uint32_t nax_bigorsmall() { return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 1; }

int32_t nax_bytes2shorts(const uint8_t *source, int16_t *destination, int32_t byte_count,
                         int32_t bits_per_sample, uint32_t byte_order)
{
    if (bits_per_sample != 16) return 0;

    const int32_t samples = byte_count / 2;
    if (byte_order == nax_bigorsmall()) {
        if (samples > 0) memcpy(destination, source, static_cast<size_t>(samples) * 2);
        return samples;
    }
    swap_bytes(source, destination, samples);
    return samples;
}

} // namespace nax
