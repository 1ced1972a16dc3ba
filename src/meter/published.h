// A report that one thread writes while others read it, without locks and without torn
// values. There are two copies: a new report goes into the one that was not published
// last, so a reader starts again only when two reports came while it copied one. Words of
// 32 bits, because atomics of that width need no library on any processor.
#pragma once

#include "nax_meter.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace nax::meter {

struct Published {
    static constexpr uint32_t WORDS = sizeof(nax_meter_report) / sizeof(uint32_t);

    std::atomic<uint32_t> count; // reports published
    std::atomic<uint32_t> copies[2][WORDS];
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(sizeof(nax_meter_report) % sizeof(uint32_t) == 0);

// Called by one thread at a time. Each word is stored with release: a reader that sees it
// also sees the count of the report before, and so that its copy is being written over.
inline void publish(Published &published, const nax_meter_report &report)
{
    uint32_t words[Published::WORDS];
    memcpy(words, &report, sizeof report);
    const uint32_t count = published.count.load(std::memory_order_relaxed) + 1;
    for (uint32_t i = 0; i < Published::WORDS; i++)
        published.copies[count % 2][i].store(words[i], std::memory_order_release);
    published.count.store(count, std::memory_order_release);
}

// Called by any number of threads.
inline nax_meter_report latest(const Published &published)
{
    uint32_t words[Published::WORDS] = {};
    uint32_t count;
    do {
        count = published.count.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < Published::WORDS; i++)
            words[i] = published.copies[count % 2][i].load(std::memory_order_acquire);
    } while (published.count.load(std::memory_order_relaxed) != count);
    nax_meter_report report;
    memcpy(&report, words, sizeof report);
    return report;
}

} // namespace nax::meter
