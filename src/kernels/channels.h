// One channel of interleaved or planar audio to another place.
#pragma once

#include "kernels/processor.h"

#include <cstdint>

namespace nax {

// Copies count samples, from every from_stride-th position to every to_stride-th
// one. Strides are 1 or more; the buffers must not overlap, though from and to may be
// channels of them. Samples between those copied may be read and written again
// unchanged.
using CopyChannel = void(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                         int32_t count);

namespace scalar {
CopyChannel copy_channel;
}
#if NAX_AEC_NEON
namespace neon {
CopyChannel copy_channel;
}
#endif

// The variant for this processor, chosen when the library is loaded.
extern CopyChannel *copy_channel;

} // namespace nax
