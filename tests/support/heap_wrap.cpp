#include "heap_wrap.h"

#include "journal.h"

#include <algorithm>
#include <malloc.h>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);

bool heap_refuses(size_t count, size_t size)
{
    const bool in_turn = heap::refuse_after == 0 || heap::refuse_only == 0;
    if (heap::refuse_after > 0) heap::refuse_after--;
    if (heap::refuse_only >= 0) heap::refuse_only--;
    const int64_t left = heap::limit - std::max<int64_t>(heap::used, 0);
    const bool too_much = left <= 0 || (size > 0 && count > static_cast<uint64_t>(left) / size);
    if (!in_turn && !too_much) return false;
    heap::refusals++;
    return true;
}

void *heap_hands_out(void *block)
{
    heap::used += static_cast<int64_t>(malloc_usable_size(block));
    return block;
}

static void note(const char *call, size_t size, void *block)
{
    if (!heap::noting) return;
    journal.push_back(std::string(call) + " " + std::to_string(size));
    if (block) heap::live[block] = "unnamed";
}

void *__wrap_malloc(size_t size)
{
    void *block = heap_refuses(1, size) ? nullptr : heap_hands_out(__real_malloc(size));
    note("malloc", size, block);
    return block;
}

void *__wrap_calloc(size_t count, size_t size)
{
    void *block = heap_refuses(count, size) ? nullptr : heap_hands_out(__real_calloc(count, size));
    note("calloc", count * size, block);
    return block;
}

void *__wrap_realloc(void *old, size_t size)
{
    const int64_t old_size = static_cast<int64_t>(malloc_usable_size(old));
    void *block = heap_refuses(1, size) ? nullptr : heap_hands_out(__real_realloc(old, size));
    if (block) {
        heap::used -= old_size;
        heap::live.erase(old);
    }
    note("realloc", size, block);
    return block;
}

void __wrap_free(void *block)
{
    if (heap::noting) {
        const auto found = heap::live.find(block);
        const char *unnamed = block ? "unknown" : "null";
        std::string line = "free ";
        journal.push_back(line.append(found == heap::live.end() ? unnamed : found->second));
        if (heap::last_look) heap::last_look(block);
    }
    if (block) heap::live.erase(block);
    heap::used -= static_cast<int64_t>(malloc_usable_size(block));
    __real_free(block);
}
}
