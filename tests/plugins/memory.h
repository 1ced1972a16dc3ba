// For tests that run a plugin for long and watch the memory.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

// The heap in use (0 where a checker replaces the heap) and the resident memory.
struct Memory {
    size_t heap_bytes = 0;
    long resident_kib = 0;
};

inline Memory memory_now()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
#if __GLIBC_PREREQ(2, 33)
    const size_t heap_bytes = mallinfo2().uordblks;
#else
    const auto heap_bytes = static_cast<size_t>(mallinfo().uordblks);
#endif
    return {heap_bytes, pages * (sysconf(_SC_PAGESIZE) / 1024)};
}

// Runs a stream of NAX_AEC_PLUGIN_SECONDS, by default 2. Expects no more memory at the end than
// after a tenth of it.
template <typename RunSecond> void expect_flat_memory(RunSecond run_second)
{
    const char *wanted = std::getenv("NAX_AEC_PLUGIN_SECONDS");
    const int seconds = wanted ? std::atoi(wanted) : 2, tenth = std::max(1, seconds / 10);
    Memory early;
    for (int second = 1; second <= seconds; second++) {
        run_second(second);
        const Memory now = memory_now();
        if (second == tenth) early = now;
        if (wanted && second % tenth == 0)
            std::printf("%d s: %ld KiB resident, %zu bytes of heap\n", second, now.resident_kib,
                        now.heap_bytes);
    }
    const Memory last = memory_now();
    EXPECT_EQ(last.heap_bytes, early.heap_bytes);
    EXPECT_LE(last.resident_kib,
              early.resident_kib + early.resident_kib / 50 + 512); // caches; a checker's records
}
