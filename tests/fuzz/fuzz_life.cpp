// Lives of a state over scripted engines, compared with the model (life.h).
#include "bytes.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes bytes(data, size);
    const Life life = live(bytes, 60);
    if (!life.difference.empty()) {
        fprintf(stderr, "The library and its model differ: %s\n", life.difference.c_str());
        abort();
    }
    return 0;
}
