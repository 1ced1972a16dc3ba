// Byte-format engine: raw bytes to 16-bit samples, and the host's byte order.
#pragma once

#include <cstdint>

namespace nax {

// The host's byte order in the code that nax_bytes2shorts takes: 0 little-endian,
// 1 big-endian.
uint32_t nax_bigorsmall();

// Builds 16-bit samples in host order from the bytes of a stream.
//   source           byte_count bytes, at any alignment
//   destination      room for byte_count / 2 samples; must not overlap source
//   byte_count       0 or more; an odd last byte is left out
//   bits_per_sample  16; any other width writes nothing
//   byte_order       0: the low byte first, 1: the high byte first
// Returns the number of samples written. Real time: yes.
int32_t nax_bytes2shorts(const uint8_t *source, int16_t *destination, int32_t byte_count,
                         int32_t bits_per_sample, uint32_t byte_order);

} // namespace nax
