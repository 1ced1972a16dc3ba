#include "heap_wrap.h"

#include "journal.h"

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);

static bool refused()
{
    if (heap::refuse_after < 0) return false;
    if (heap::refuse_after == 0) return true;
    heap::refuse_after--;
    return false;
}

static void note(const char *call, size_t size, void *block)
{
    if (!heap::noting) return;
    journal.push_back(std::string(call) + " " + std::to_string(size));
    if (block) heap::live[block] = "unnamed";
}

void *__wrap_malloc(size_t size)
{
    void *block = __real_malloc(size);
    note("malloc", size, block);
    return block;
}

void *__wrap_calloc(size_t count, size_t size)
{
    void *block = refused() ? nullptr : __real_calloc(count, size);
    note("calloc", count * size, block);
    return block;
}

void *__wrap_realloc(void *old, size_t size)
{
    void *block = refused() ? nullptr : __real_realloc(old, size);
    if (block) heap::live.erase(old);
    note("realloc", size, block);
    return block;
}

void __wrap_free(void *block)
{
    if (heap::noting && block) {
        const auto found = heap::live.find(block);
        std::string line = "free ";
        journal.push_back(line.append(found == heap::live.end() ? "unknown" : found->second));
    }
    if (block) heap::live.erase(block);
    __real_free(block);
}
}
