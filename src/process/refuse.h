// How a per-frame call refuses its arguments.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace nax {

// Writes a message to standard error, without a newline: the texts are part of the interface.
// Returns -1, the result of a refused call.
inline int32_t refuse(const char *message)
{
    fwrite(message, 1, strlen(message), stderr);
    return -1;
}

} // namespace nax
