// What a state takes from the heap.
#include "nax_meter.h"

#include "heap_wrap.h"
#include "support.h"

TEST(MeterMemory, IsAtMostFourKilobytesAndGivenBack)
{
    heap::used = 0;
    nax_meter_state *state = nax_meter_state_init(48000, 2, 8);
    ASSERT_NE(state, nullptr);
    EXPECT_LE(heap::used, 4096);
    nax_meter_state_destroy(state);
    EXPECT_EQ(heap::used, 0);
}

TEST(MeterMemory, ShortOfItThereIsNoState)
{
    heap::refuse_after = 0;
    EXPECT_EQ(nax_meter_state_init(16000, 1, 1), nullptr);
    heap::refuse_after = -1;
}
