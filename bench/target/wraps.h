// Heap taken by each part of a state, in bytes with the allocator's own share; the linker's
// wraps in wraps.cpp add to it at creation.
#pragma once

#include <cstddef>

struct HeapParts {
    size_t lines;     // delay lines
    size_t estimator; // the delay estimator with its transforms
    size_t canceller; // libspeexdsp's state and the binding's
};

extern HeapParts heap_parts;

// Bytes of the heap in use.
size_t heap_in_use();
