// How much memory libspeexdsp's canceller asks for.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nax::canceller {

// Bytes that are enough for all buffers of version 1.2.1: transforms, histories, foreground and
// background filters. The library checks none of its allocations, so its creator first tries to
// allocate this much.
inline size_t speex_bytes(int32_t block_size, int32_t filter_length, int32_t mics, int32_t speakers)
{
    constexpr size_t SMALL_RECORDS = 4096; // bytes
    const size_t window = 2 * static_cast<size_t>(block_size);
    const size_t partitions = static_cast<size_t>(filter_length / block_size);
    const size_t m = static_cast<size_t>(mics), k = static_cast<size_t>(speakers);
    const size_t floats = window * (k * (partitions * (2 * m + 1) + 4) + 8 * m + 16);
    return floats * sizeof(float) + SMALL_RECORDS;
}

} // namespace nax::canceller
