// The ring between the threads of live_alsa: full, empty, wrapping, and in order.
#include "live_alsa_ring.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(Ring, is_full_after_its_slots_and_empty_after_as_many)
{
    ring ring;
    ASSERT_TRUE(ring_create(&ring, sizeof(int), 3)); // becomes 4
    for (int lap = 0; lap < 3; lap++) {
        for (int i = 0; i < 4; i++) {
            *static_cast<int *>(ring_slot_to_fill(&ring)) = i;
            ring_fill(&ring);
        }
        EXPECT_EQ(ring_slot_to_fill(&ring), nullptr);
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(*static_cast<const int *>(ring_slot_to_empty(&ring)), i);
            ring_empty(&ring);
        }
        EXPECT_EQ(ring_slot_to_empty(&ring), nullptr);
    }
    ring_destroy(&ring);
}

TEST(Ring, goes_on_when_its_counters_wrap)
{
    ring ring;
    ASSERT_TRUE(ring_create(&ring, sizeof(int), 4));
    ring.filled = ring.emptied = ~0u - 1;
    for (int i = 0; i < 4; i++, ring_fill(&ring))
        *static_cast<int *>(ring_slot_to_fill(&ring)) = i;
    EXPECT_EQ(ring_slot_to_fill(&ring), nullptr);
    for (int i = 0; i < 4; i++, ring_empty(&ring))
        EXPECT_EQ(*static_cast<const int *>(ring_slot_to_empty(&ring)), i);
    ring_destroy(&ring);
}

TEST(Ring, keeps_the_order_between_two_threads)
{
    constexpr int COUNT = 100000;
    ring ring;
    ASSERT_TRUE(ring_create(&ring, sizeof(int), 16));
    std::thread filler([&] {
        for (int i = 0; i < COUNT;)
            if (void *slot = ring_slot_to_fill(&ring)) {
                *static_cast<int *>(slot) = i++;
                ring_fill(&ring);
            } else {
                std::this_thread::yield();
            }
    });
    int wrong = 0;
    for (int i = 0; i < COUNT;)
        if (const void *slot = ring_slot_to_empty(&ring)) {
            wrong += *static_cast<const int *>(slot) != i++;
            ring_empty(&ring);
        } else {
            std::this_thread::yield();
        }
    filler.join();
    EXPECT_EQ(wrong, 0);
    ring_destroy(&ring);
}

} // namespace
