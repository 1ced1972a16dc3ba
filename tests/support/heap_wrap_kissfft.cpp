// kissfft allocates its transforms inside its shared library, and what it returns is
// freed from outside: counted and refused like the allocations of the code under test.
#include "heap_wrap.h"

extern "C" {
bool heap_refuses(size_t count, size_t size);
void *heap_hands_out(void *block);
void *__real_kiss_fftr_alloc(int length, int inverse, void *memory, size_t *size);

void *__wrap_kiss_fftr_alloc(int length, int inverse, void *memory, size_t *size)
{
    constexpr size_t ENOUGH = 8192; // bytes, for the transforms of the delay estimator
    if (heap_refuses(1, ENOUGH)) return nullptr;
    return heap_hands_out(__real_kiss_fftr_alloc(length, inverse, memory, size));
}
}
