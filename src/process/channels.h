// One channel of interleaved or planar audio to another place.
#pragma once

#include <cstdint>

namespace nax {

// Copies count samples, from every from_stride-th position to every to_stride-th
// one. Strides are 1 or more; the buffers must not overlap.
void copy_channel(const int16_t *from, int32_t from_stride, int16_t *to, int32_t to_stride,
                  int32_t count);

} // namespace nax
